#include "tools/ctl/ConfigCheck.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "json/JsonSerializer.h"
#include "server/lib/Config.h"
#include "server/lib/JsonReader.h"
#include "server/lib/Overloaded.h"
#include "tests/support/TempFolder.h"
#include "tools/ctl/Run.h"

namespace rrm::ctl {
namespace {

using Texts = std::vector<std::string>;

Texts findings(const std::string& text) {
  Texts lines;
  for (const Finding& finding : check_config(text))
    lines.push_back(finding.where + ": " + finding.what);
  return lines;
}

TEST(ConfigCheck, FileThatTheControllerWritesHasNoFindings) {
  const GlobalConfig config(
      "", R"({"patterns":[{"pattern":"p"}],"domains":[{"domain":"d","pattern":"p"},)"
          R"({"domain":"e","pattern":"common","time_zone":"-3:30"}]})");
  EXPECT_EQ(findings(config.to_file_text()), Texts{});
  EXPECT_EQ(findings("{}"), Texts{});
}

TEST(ConfigCheck, SampleOfThePackageHasNoFindings) {
  std::ifstream file("packaging/config/wavelom.conf");
  std::ostringstream text;
  text << file.rdbuf();
  ASSERT_NE(text.str(), "");
  EXPECT_EQ(findings(text.str()), Texts{});
}

TEST(ConfigCheck, BrokenTextMeansThatNothingIsRead) {
  EXPECT_EQ(findings("{\"global\":\n{,}}"),
            Texts{"file: no JSON, so every setting has its default: JSON parse error at line 2, "
                  "column 2: expected string key in object: unterminated object"});
  EXPECT_EQ(findings("\xef\xbb\xbf{}"),
            Texts{"file: no JSON, so every setting has its default: JSON parse error at line 1, "
                  "column 1: unexpected character '?': unexpected character"});
  EXPECT_EQ(findings("[]"), Texts{"file: no JSON object, so every setting has its default"});
  for (const char* empty : {"", " \n"})
    EXPECT_EQ(findings(empty), Texts{"file: empty, so every setting has its default"});
}

TEST(ConfigCheck, UnknownNamesAreIgnored) {
  EXPECT_EQ(findings(R"({"globals":{},"global":{"port":1},"common":{"pattern":"p","dca":1},)"
                     R"("patterns":[{"pattern":"p","colour":"red"}],)"
                     R"("domains":[{"domain":"d","pattern":"p","use_dca":0}]})"),
            (Texts{"globals: unknown, ignored", "global.port: unknown, ignored",
                   "common.pattern: unknown, ignored", "common.dca: unknown, ignored",
                   "patterns[0].colour: unknown, ignored",
                   "domains[0].use_dca: ignored: settings belong to a pattern"}));
}

TEST(ConfigCheck, SectionsOfAnotherKindAreIgnored) {
  EXPECT_EQ(
      findings(R"({"global":[],"common":7,"domains":{},"patterns":[1,{"pattern":""}]})"),
      (Texts{"global: no object, ignored", "common: no object, ignored", "patterns[0]: no object",
             "patterns[1]: has no \"pattern\"", "domains: no array, ignored"}));
}

TEST(ConfigCheck, ValuesOfAnotherKindAreNamedWithWhatIsTaken) {
  EXPECT_EQ(findings(R"({"global":{"enabled":"yes","api_port":8089.5,"www_path":7,)"
                     R"("vrrp_timeout":null},"common":{"use_dca":"1","dca_threshold":"30",)"
                     R"("use_tpc":true,"optimization_time":5}})"),
            (Texts{"global.enabled: \"yes\" is no whole number; the controller takes 0",
                   "global.api_port: 8089.5 is no whole number; the controller takes 0",
                   "global.www_path: 7 is no text; the controller takes "
                   "\"/opt/tavro-wavelom/www\"",
                   "global.vrrp_timeout: null is no whole number; the controller takes 15",
                   "common.optimization_time: 5 is no text; the controller takes \"00:00\""}));
}

TEST(ConfigCheck, NumbersThatDoNotFitAreNamedThoughTheControllerTakesTheirEnd) {
  EXPECT_EQ(findings(R"({"common":{"dca_threshold":4294967338}})"),
            Texts{"common.dca_threshold: 4294967338 is out of range (0 to 99); the controller "
                  "takes 42"});
  EXPECT_EQ(findings(R"({"global":{"listen_port":-1}})"),
            Texts{"global.listen_port: -1 is out of range (0 to 65535); the controller takes -1"});
}

TEST(ConfigCheck, TimesAreNamedEvenWhereTheControllerKeepsTheText) {
  EXPECT_EQ(findings(R"({"global":{"report_delete_at_time_utc":"24:00"},)"
                     R"("common":{"optimization_time":"24:01"}})"),
            (Texts{"global.report_delete_at_time_utc: \"24:00\" is out of range (0:00 to 23:59); "
                   "the controller takes \"24:00\"",
                   "common.optimization_time: \"24:01\" is out of range (0:00 to 24:00); the "
                   "controller takes \"00:00\""}));
}

TEST(ConfigCheck, ClientLimitsAreJudgedTogether) {
  EXPECT_EQ(findings(R"({"common":{"load_balance_sta_low":50,"load_balance_sta_high":60}})"),
            Texts{});
  EXPECT_EQ(findings(R"({"common":{"load_balance_sta_low":21}})"),
            Texts{"common: load_balance_sta_low 21 is above load_balance_sta_high 20"});
  EXPECT_EQ(findings(R"({"common":{"load_balance_sta_high":101}})"),
            Texts{"common.load_balance_sta_high: 101 is out of range (1 to 100); the controller "
                  "takes 20"});
}

TEST(ConfigCheck, RepeatedKeysAndNamesAreNamed) {
  EXPECT_EQ(findings("{\"global\":{\"enabled\":1,\"vrrp_timeout\":[1,{}],\n"
                     "\"enab\\u006ced\":0, \"api_port\":1,\"api_port\":2}}"),
            (Texts{"line 2, column 1: 'enabled' stands twice in its object; the last one counts",
                   "line 2, column 32: 'api_port' stands twice in its object; the last one counts",
                   "global.vrrp_timeout: [1,{}] is no whole number; the controller takes 15"}));
  EXPECT_EQ(
      findings(R"({"patterns":[{"pattern":"p"},{"pattern":"p"},{"pattern":"common"}],)"
               R"("domains":[{"domain":"d","pattern":"p"},{"domain":"d","pattern":"p"}]})"),
      (Texts{"patterns[1].pattern: 'p' stands twice; the last one counts",
             "patterns[2].pattern: 'common' means the section \"common\"; this one is never "
             "used",
             "domains[1].domain: 'd' stands twice; the last one counts, but with the settings of "
             "the first until the next start"}));
}

TEST(ConfigCheck, DomainsNeedAPatternThatExists) {
  EXPECT_EQ(findings(R"({"domains":[{"domain":"d"},{"domain":"a/b","pattern":"x"}]})"),
            (Texts{"domains[0].pattern: there is no pattern '', so the domain is not served",
                   "domains[1].domain: 'a/b' holds a '/': it has no backups and no reports",
                   "domains[1].pattern: there is no pattern 'x', so the domain is not served"}));
}

TEST(ConfigCheck, DomainWithoutAPatternNameHasTheOneWithoutAName) {
  EXPECT_EQ(findings(R"({"patterns":[{"use_dca":0}],"domains":[{"domain":"d","pattern":""}]})"),
            Texts{"patterns[0]: has no \"pattern\""});
}

TEST(ConfigCheck, NulBytesEndTextsAndFiles) {
  EXPECT_EQ(findings(R"({"patterns":[{"pattern":"p\u0000q"}],"domains":[{"domain":"d\u0000",)"
                     R"("pattern":"p"}]})"),
            (Texts{"patterns[0].pattern: is read up to its NUL only",
                   "domains[0].domain: is read up to its NUL only"}));
  EXPECT_EQ(findings(std::string("{}\0{", 4)), Texts{"file: a NUL byte ends what is read of it"});
}

TEST(ConfigCheck, OtherVersionIsReplaced) {
  EXPECT_EQ(findings(R"({"version":"2.1"})"), Texts{});
  EXPECT_EQ(findings(R"({"version":3})"),
            Texts{"version: 3 is ignored; the controller writes \"2.1\""});
}

/// How the controller writes a section with one option given; empty for its defaults.
std::string written_back(const std::string& section, const std::string& key,
                         const std::string& value) {
  const GlobalConfig config("", ("{\"" + section + "\":{\"" + key + "\":" + value + "}}").c_str());
  const std::string text = config.to_file_text();
  return yajson::serialize(*JsonReader(text.c_str()).child(section).child(key).value());
}

/// Whether two JSON texts mean the same to an operator: numbers may stand in quotes, flags may be
/// words.
bool means_the_same(const std::string& given, const std::string& kept) {
  return given == kept || given == "\"" + kept + "\"" || (given == "true" && kept == "1") ||
         (given == "false" && kept == "0") || (given == "-0" && kept == "0");
}

template <class Options>
void expect_changes_reported(const std::string& section, const Options& options) {
  for (const auto& option : options)
    for (const char* value : {"0",
                              "1",
                              "-0",
                              "-1",
                              "2",
                              "7",
                              "50",
                              "-70",
                              "2000",
                              "70000",
                              "256",
                              "4294967296",
                              "4294967297",
                              "9223372036854775807",
                              "18446744073709551616",
                              "1.0",
                              "0.5",
                              "1e3",
                              "null",
                              "true",
                              "false",
                              "\"\"",
                              "\"1\"",
                              "\"50\"",
                              "\"on\"",
                              "\"3:30\"",
                              "\"-0:30\"",
                              "\"23:60\"",
                              "\"24:00\"",
                              "\"00:00:00\"",
                              "\"a\\u0000b\"",
                              "[]",
                              "{}",
                              "[1]"}) {
      const std::string document = "{\"" + section + "\":{\"" + option.key + "\":" + value + "}}";
      const std::string kept = written_back(section, option.key, value);
      if (!means_the_same(value, kept)) {
        EXPECT_GE(findings(document).size(), 1U) << document << " becomes " << kept;
      }
    }
}

TEST(ConfigCheck, EveryValueThatTheControllerReplacesIsReported) {
  expect_changes_reported("global", global_options());
  expect_changes_reported("common", domain_options());
}

template <class Options>
void expect_numbers_judged(const std::string& section, const Options& options) {
  for (const auto& option : options) {
    using Number = typename std::decay_t<decltype(option)>::Number;
    const Number* number = std::get_if<Number>(&option.kind);
    if (number == nullptr) continue;
    const auto check = [&](std::int64_t value) {
      const std::string document =
          "{\"" + section + "\":{\"" + option.key + "\":" + std::to_string(value) +
          (std::string(option.key) == "load_balance_sta_low" ? R"(,"load_balance_sta_high":100)"
                                                             : "") +
          (std::string(option.key) == "load_balance_sta_high" ? R"(,"load_balance_sta_low":1)"
                                                              : "") +
          "}}";
      return findings(document).size();
    };
    EXPECT_EQ(check(number->min), 0U) << option.key;
    EXPECT_EQ(check(number->max), 0U) << option.key;
    EXPECT_EQ(check(number->min - 1), 1U) << option.key;
    EXPECT_EQ(check(std::int64_t{number->max} + 1), 1U) << option.key;
  }
}

TEST(ConfigCheck, EveryNumberIsJudgedAtItsBounds) {
  expect_numbers_judged("global", global_options());
  expect_numbers_judged("common", domain_options());
}

TEST(ConfigCheck, CommandPrintsFindingsAndEndsWithStatus1) {
  const test::TempFolder folder;
  const auto check = [&](const std::string& path, bool json, std::string& text) {
    const char* words[] = {"wavelomctl", "config", "check", path.c_str(), "--json"};
    std::ostringstream out;
    std::ostringstream errors;
    const int status = run(json ? 5 : 4, words, out, errors);
    text = out.str() + errors.str();
    return status;
  };
  std::string text;
  EXPECT_EQ(check(folder.write("good.conf", "{}"), false, text), kDone);
  EXPECT_EQ(text, "");
  EXPECT_EQ(check(folder.write("bad.conf", R"({"x":1})"), false, text), kRefused);
  EXPECT_EQ(text, folder.file("bad.conf") + ": x: unknown, ignored\n");
  EXPECT_EQ(check(folder.file("bad.conf"), true, text), kRefused);
  EXPECT_EQ(text, "{\"findings\":[{\"where\":\"x\",\"what\":\"unknown, ignored\"}]}\n");
  EXPECT_EQ(check(folder.write("rude.conf", R"({"\u001b[2J":1})"), false, text), kRefused);
  EXPECT_EQ(text, folder.file("rude.conf") + ": ?[2J: unknown, ignored\n");
  EXPECT_EQ(check(folder.write("empty.conf", ""), false, text), kRefused);
  EXPECT_EQ(check(folder.file("nosuch.conf"), false, text), kNoAnswer);
  EXPECT_EQ(check(folder.path(), false, text), kNoAnswer);
  EXPECT_EQ(text, "wavelomctl: " + folder.path() + ": Is a directory\n");
}

}  // namespace
}  // namespace rrm::ctl
