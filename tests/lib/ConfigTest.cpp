#include "server/lib/Config.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/CapturedLog.h"

namespace rrm {
namespace {

using test::CapturedLog;
using Restarts = std::vector<std::pair<std::string, std::string>>;

constexpr char kGlobalDefaults[] =
    R"({"enabled":1,"api_port":8089,"cli_api_port":8082,"listen_port":8099,"use_https":0,)"
    R"("report_delete_at_time_utc":"21:00","reports_path":"/var/lib/tavro-wavelom/reports",)"
    R"("www_path":"/opt/tavro-wavelom/www","vrrp_enabled":0,"vrrp_timeout":15,)"
    R"("vrrp_backup_path":"/tmp/tavro-wavelom/backup","vrrp_state_file":"/tmp/keep.mode",)"
    R"("use_wildcard_80211r":0})";

constexpr char kTwoSites[] =
    R"({"patterns":[{"pattern":"p1","dca_threshold":40},{"pattern":"p2","use_dca":0}],)"
    R"("domains":[{"domain":"d1","pattern":"p1","time_zone":"3:00"},)"
    R"({"domain":"d2","pattern":"p1","time_zone":"-5:30"},)"
    R"({"domain":"d3","pattern":"common","time_zone":"0:00"}]})";

std::string global_json(const GlobalConfig& config) {
  JsonWriter writer;
  config.global_to_json(writer);
  return writer.str();
}

/// An errors array with the document that holds it.
struct Errors {
  JsonWriter document;
  JsonWriter list = JsonWriter::array(document, "errors");
};

/// What a change of a pattern reports: faults, flags, and the domains to be restarted.
struct Outcome {
  Errors errors;
  bool invalid = false;
  bool changed = false;
  Restarts restarts;

  GlobalConfig::DomainCallback note() {
    return [this](const std::string& domain, const std::string& pattern) {
      restarts.emplace_back(domain, pattern);
    };
  }
  bool change(GlobalConfig& config, const std::string& pattern, const char* settings) {
    return config.pattern_change(pattern, JsonReader(settings), errors.list, invalid, changed,
                                 note());
  }
};

template <class Call>
std::string out_of_range_text(const Call& call) {
  try {
    call();
  } catch (const std::out_of_range& error) {
    return error.what();
  }
  return "nothing thrown";
}

TEST(GlobalConfig, StartsWithItsDefaultsAndTheHostName) {
  const GlobalConfig config;
  EXPECT_EQ(global_json(config), kGlobalDefaults);
  EXPECT_EQ(config.common, DomainConfig());
  EXPECT_TRUE(config.domains().empty());
  EXPECT_TRUE(config.pattern_names().empty());
  char host[1024] = {};
  ASSERT_EQ(::gethostname(host, sizeof(host)), 0);
  EXPECT_EQ(config.host_name(), host);
}

TEST(GlobalConfig, AppliesEveryGlobalOption) {
  GlobalConfig config;
  const std::string text =
      R"({"enabled":0,"api_port":1,"cli_api_port":2,"listen_port":65535,"use_https":1,)"
      R"("report_delete_at_time_utc":"0:10","reports_path":"/r","www_path":"/w",)"
      R"("vrrp_enabled":1,"vrrp_timeout":60,"vrrp_backup_path":"","vrrp_state_file":"/s",)"
      R"("use_wildcard_80211r":1})";
  EXPECT_TRUE(config.apply_global(JsonReader(text.c_str())));
  EXPECT_EQ(global_json(config), text);
  EXPECT_FALSE(config.apply_global(JsonReader(text.c_str())));
}

TEST(GlobalConfig, IgnoresGlobalValuesOutOfRangeOrOfTheWrongKind) {
  GlobalConfig config;
  EXPECT_FALSE(config.apply_global(
      JsonReader(R"({"api_port":65536,"cli_api_port":70000,"listen_port":2147483647,)"
                 R"("vrrp_timeout":0,"reports_path":7,"www_path":null,"vrrp_state_file":[]})")));
  EXPECT_FALSE(config.apply_global(JsonReader(R"({"vrrp_timeout":61})")));
  EXPECT_FALSE(config.apply_global(JsonReader("[1,2]")));
  EXPECT_EQ(global_json(config), kGlobalDefaults);
}

TEST(GlobalConfig, ReadsPortsBelowZeroThatValidationRefuses) {
  GlobalConfig config;
  EXPECT_TRUE(
      config.apply_global(JsonReader(R"({"api_port":-1,"cli_api_port":-2,"listen_port":-3})")));
  EXPECT_EQ(config.api_port, -1);
  EXPECT_EQ(config.cli_api_port, -2);
  EXPECT_EQ(config.listen_port, -3);
  Errors errors;
  EXPECT_FALSE(GlobalConfig::validate_global(JsonReader(R"({"api_port":-1})"), errors.list));
  EXPECT_EQ(errors.list.str(), R"([{"api_port":-1}])");
}

TEST(GlobalConfig, ListsGlobalFaultsInOrder) {
  const CapturedLog log;
  Errors errors;
  EXPECT_FALSE(GlobalConfig::validate_global(
      JsonReader(
          R"({"report_delete_at_time_utc":"24:00","use_wildcard_80211r":"99999999999999999999",)"
          R"("vrrp_timeout":61,"vrrp_enabled":"99999999999999999999","cli_api_port":65536,)"
          R"("listen_port":-1,"api_port":65537,"use_https":"99999999999999999999",)"
          R"("enabled":"99999999999999999999","reports_path":5})"),
      errors.list));
  EXPECT_EQ(errors.list.str(),
            R"([{"enabled":0},{"use_https":0},{"api_port":65537},{"listen_port":-1},)"
            R"({"cli_api_port":65536},{"vrrp_enabled":0},{"vrrp_timeout":61},)"
            R"({"use_wildcard_80211r":0},{"report_delete_at_time_utc":"24:00"}])");
  EXPECT_TRUE(log.has(LogLevel::Warning,
                      "Invalid value for 'api_port': 65537 (allowed range: [0, 65535])"));
  EXPECT_TRUE(log.has(LogLevel::Warning,
                      "Invalid time value for 'report_delete_at_time_utc': '24:00' (allowed range: "
                      "[0, 86340] in seconds)"));
}

TEST(GlobalConfig, WhatItWritesIsValidAndReadsBack) {
  const GlobalConfig config;
  const std::string text = global_json(config);
  Errors errors;
  EXPECT_TRUE(GlobalConfig::validate_global(JsonReader(text.c_str()), errors.list));
  GlobalConfig other("", R"({"global":{"api_port":1,"use_https":1,"www_path":"/x"}})");
  EXPECT_FALSE(other.equals_globally(config));
  EXPECT_TRUE(other.apply_global(JsonReader(text.c_str())));
  EXPECT_TRUE(other.equals_globally(config));
}

TEST(GlobalConfig, EveryGlobalOptionByItselfMakesADifference) {
  const GlobalConfig defaults;
  const std::vector<std::string> changes = {
      R"("enabled":0)",
      R"("api_port":1)",
      R"("cli_api_port":1)",
      R"("listen_port":1)",
      R"("use_https":1)",
      R"("report_delete_at_time_utc":"21:01")",
      R"("reports_path":"/r")",
      R"("www_path":"/w")",
      R"("vrrp_enabled":1)",
      R"("vrrp_timeout":16)",
      R"("vrrp_backup_path":"/b")",
      R"("vrrp_state_file":"/s")",
      R"("use_wildcard_80211r":1)",
  };
  EXPECT_EQ(changes.size(), global_options().size());
  for (const std::string& change : changes) {
    const GlobalConfig other("", (R"({"global":{)" + change + "}}").c_str());
    EXPECT_FALSE(other.equals_globally(defaults)) << change;
    EXPECT_TRUE(other.compare(defaults).global) << change;
  }
}

struct ZoneCase {
  const char* name;
  const char* text;
  bool taken;
  std::int32_t seconds;
};

class TimeZone : public testing::TestWithParam<ZoneCase> {};

TEST_P(TimeZone, IsTakenFromMinusTwelveToPlusFourteenHours) {
  const ZoneCase& param = GetParam();
  const std::string text = "{\"time_zone\":\"" + std::string(param.text) + "\"}";
  DomainInfo info;
  bool changed = false;
  Errors errors;
  EXPECT_EQ(read_time_zone(JsonReader(text.c_str()), info, changed, errors.list), param.taken);
  EXPECT_EQ(changed, param.taken);
  EXPECT_EQ(info.time_zone, param.taken ? param.text : "");
  EXPECT_EQ(info.time_zone_s, param.seconds);
  EXPECT_EQ(errors.list.str(), param.taken ? "[]" : "[" + text + "]");
}

INSTANTIATE_TEST_SUITE_P(Text, TimeZone,
                         testing::Values(ZoneCase{"Easternmost", "+14:00", true, 50400},
                                         ZoneCase{"TooFarEast", "14:01", false, 0},
                                         ZoneCase{"Westernmost", "-12:00", true, -43200},
                                         ZoneCase{"TooFarWest", "-12:30", false, 0},
                                         ZoneCase{"AMinuteTooFarWest", "-12:01", false, 0},
                                         ZoneCase{"HalfHoursWest", "-5:30", true, -19800},
                                         ZoneCase{"MinusNought", "-0:30", true, 1800}),
                         [](const auto& row) { return row.param.name; });

TEST(GlobalConfig, LooksUpPatternsAndDomains) {
  const GlobalConfig config("", kTwoSites);
  EXPECT_EQ(config.get_pattern_config("p1")->dca_threshold, 40);
  EXPECT_EQ(config.get_pattern_config("common"), DomainConfig());
  EXPECT_EQ(config.get_pattern_config("nosuch"), std::nullopt);
  EXPECT_EQ(config.get_domain_config("d1").dca_threshold, 40);
  EXPECT_EQ(config.get_domain_config("d3"), DomainConfig());
  EXPECT_EQ(config.get_time_zone("d1"), 10800);
  EXPECT_EQ(config.get_time_zone("d2"), -19800);
  EXPECT_EQ(config.pattern_names(), (std::vector<std::string>{"p1", "p2"}));
  EXPECT_EQ(config.domains().size(), 3U);
}

TEST(GlobalConfig, LookUpsOfUnknownNamesThrowTheirTexts) {
  GlobalConfig config("", R"({"domains":[{"domain":"d1","pattern":"nosuch","time_zone":"1:00"}]})");
  EXPECT_EQ(out_of_range_text([&] { config.get_domain_config("d2"); }), "Domain not found");
  EXPECT_EQ(out_of_range_text([&] { config.get_domain_config("d1"); }), "Pattern not found");
  EXPECT_EQ(out_of_range_text([&] { config.get_time_zone("d2"); }), "Domain (time zone) not found");
  EXPECT_EQ(config.get_time_zone("d1"), 3600);
}

TEST(GlobalConfig, DomainOfAMissingPatternWaitsForThePattern) {
  GlobalConfig config("", R"({"domains":[{"domain":"d1","pattern":"late"}]})");
  Errors errors;
  bool invalid = false;
  EXPECT_TRUE(
      config.pattern_add("late", JsonReader(R"({"dca_threshold":11})"), errors.list, invalid));
  EXPECT_EQ(config.get_domain_config("d1").dca_threshold, 11);
}

TEST(GlobalConfig, DomainThatWaitsForItsPatternExistsAndIsNotAddedAgain) {
  GlobalConfig config("", R"({"domains":[{"domain":"d1","pattern":"late","time_zone":"1:00"}]})");
  EXPECT_FALSE(config.domain_add("d1", {"common", 0, ""}));
  EXPECT_EQ(*config.get_domain_info("d1"), (DomainInfo{"late", 3600, "1:00"}));
}

TEST(GlobalConfig, TellsAtTraceLevelWhetherADomainExists) {
  const GlobalConfig config("", kTwoSites);
  const CapturedLog log;
  EXPECT_TRUE(config.is_domain_exist("d1"));
  EXPECT_FALSE(config.is_domain_exist("d9"));
  EXPECT_EQ(log.texts(LogLevel::Trace),
            (std::vector<std::string>{"Domain \"d1\" success found", "Domain \"d9\" not found"}));
}

TEST(GlobalConfig, AddsAPatternOnTopOfTheDefaults) {
  const CapturedLog log;
  GlobalConfig config;
  config.common.dca_threshold = 77;
  Errors errors;
  bool invalid = false;
  EXPECT_TRUE(config.pattern_add("p1", JsonReader(R"({"use_tpc":0})"), errors.list, invalid));
  EXPECT_FALSE(config.get_pattern_config("p1")->use_tpc);
  EXPECT_EQ(config.get_pattern_config("p1")->dca_threshold, 25);
  EXPECT_TRUE(log.has(LogLevel::Debug, "Config pattern 'p1' was successfully added."));
  EXPECT_FALSE(config.pattern_add("p1", JsonReader("{}"), errors.list, invalid));
  EXPECT_FALSE(invalid);
  EXPECT_FALSE(config.pattern_add("p2", JsonReader(R"({"use_tpc":0,"dca_threshold":500})"),
                                  errors.list, invalid));
  EXPECT_TRUE(invalid);
  EXPECT_EQ(errors.list.str(), R"([{"dca_threshold":500}])");
  EXPECT_EQ(config.get_pattern_config("p2"), std::nullopt);
}

TEST(GlobalConfig, ChangedPatternReachesItsDomainsAndNamesThemForRestart) {
  GlobalConfig config("", kTwoSites);
  const CapturedLog log;
  Outcome outcome;
  EXPECT_TRUE(outcome.change(config, "p1", R"({"dca_threshold":41})"));
  EXPECT_TRUE(outcome.changed);
  EXPECT_EQ(outcome.restarts, (Restarts{{"d1", "p1"}, {"d2", "p1"}}));
  EXPECT_EQ(config.get_domain_config("d1").dca_threshold, 41);
  EXPECT_EQ(config.get_domain_config("d2").dca_threshold, 41);
  EXPECT_EQ(config.get_domain_config("d3").dca_threshold, 25);
  EXPECT_TRUE(log.has(LogLevel::Debug, "Pattern 'p1' was changed"));
}

TEST(GlobalConfig, HoldsNoLockWhileItNamesDomainsForRestart) {
  GlobalConfig config("", kTwoSites);
  Errors errors;
  bool flag = false;
  int calls = 0;
  EXPECT_TRUE(config.pattern_change("p1", JsonReader(R"({"dca_threshold":41})"), errors.list, flag,
                                    flag, [&](const auto& domain, const auto&) {
                                      ++calls;
                                      EXPECT_TRUE(config.domain_remove(domain, flag));
                                    }));
  EXPECT_EQ(calls, 2);
}

TEST(GlobalConfig, ChangedCommonSettingsHaveALogTextOfTheirOwn) {
  GlobalConfig config("", kTwoSites);
  const CapturedLog log;
  Outcome outcome;
  EXPECT_TRUE(outcome.change(config, "common", R"({"use_dca":0})"));
  EXPECT_EQ(log.texts(LogLevel::Debug), std::vector<std::string>{"Pattern common was changed"});
  EXPECT_EQ(outcome.restarts, (Restarts{{"d3", "common"}}));
  EXPECT_FALSE(config.get_domain_config("d3").use_dca);
}

TEST(GlobalConfig, PatternChangeWithInvalidOrEqualSettingsChangesNothing) {
  GlobalConfig config("", kTwoSites);
  const CapturedLog log;
  Outcome outcome;
  EXPECT_FALSE(outcome.change(config, "p1", R"({"use_dca":0,"dca_threshold":500})"));
  EXPECT_TRUE(outcome.invalid);
  EXPECT_EQ(outcome.errors.list.str(), R"([{"dca_threshold":500}])");
  EXPECT_TRUE(config.get_pattern_config("p1")->use_dca);
  outcome.invalid = false;
  EXPECT_TRUE(outcome.change(config, "p1", R"({"dca_threshold":40})"));
  EXPECT_FALSE(outcome.change(config, "nosuch", R"({"use_dca":0})"));
  EXPECT_FALSE(outcome.invalid);
  EXPECT_FALSE(outcome.changed);
  EXPECT_TRUE(outcome.restarts.empty());
  EXPECT_TRUE(log.texts(LogLevel::Debug).empty());
}

TEST(GlobalConfig, RemovingAPatternRemovesBothItsDomainsReportsThemAndThenThePattern) {
  GlobalConfig config("", kTwoSites);
  const CapturedLog log;
  Outcome outcome;
  EXPECT_TRUE(config.pattern_remove("p1", outcome.note(), outcome.changed));
  EXPECT_TRUE(outcome.changed);
  EXPECT_EQ(outcome.restarts, (Restarts{{"d1", "p1"}, {"d2", "p1"}}));
  EXPECT_EQ(log.texts(LogLevel::Debug),
            (std::vector<std::string>{"Domain 'd1' with pattern 'p1' removed from map.",
                                      "Domain 'd2' with pattern 'p1' removed from map.",
                                      "Domain 'd1' with pattern 'p1' removed from domain_map.",
                                      "Domain 'd2' with pattern 'p1' removed from domain_map.",
                                      "Pattern 'p1' was successfully removed."}));
  EXPECT_EQ(config.get_pattern_config("p1"), std::nullopt);
  EXPECT_FALSE(config.is_domain_exist("d1"));
  EXPECT_FALSE(config.is_domain_exist("d2"));
  EXPECT_TRUE(config.is_domain_exist("d3"));
  bool changed = false;
  EXPECT_FALSE(config.pattern_remove("p1", {}, changed));
  EXPECT_FALSE(config.pattern_remove("common", {}, changed));
  EXPECT_FALSE(changed);
}

TEST(GlobalConfig, AddsADomainWithTheCommonPatternWithoutAnyPattern) {
  const CapturedLog log;
  GlobalConfig config;
  config.common.dca_threshold = 33;
  EXPECT_TRUE(config.domain_add("d1", {"common", 3600, "1:00"}));
  EXPECT_EQ(log.texts(LogLevel::Debug),
            std::vector<std::string>{"Domain 'd1' was successfully added."});
  EXPECT_EQ(config.get_domain_config("d1").dca_threshold, 33);
  EXPECT_EQ(config.get_time_zone("d1"), 3600);
  EXPECT_FALSE(config.domain_add("d1", {"common", 0, ""})) << "exists";
  EXPECT_FALSE(config.domain_add("d2", {"nosuch", 0, ""})) << "no such pattern";
  EXPECT_EQ(config.domains().size(), 1U);
}

TEST(GlobalConfig, ChangedDomainTakesTheSettingsOfItsNewPattern) {
  GlobalConfig config("", kTwoSites);
  const CapturedLog log;
  EXPECT_TRUE(config.domain_change("d1", {"p2", -3600, "-1:00"}));
  EXPECT_EQ(log.texts(LogLevel::Debug), std::vector<std::string>{"Domain 'd1' was changed"});
  EXPECT_FALSE(config.get_domain_config("d1").use_dca);
  EXPECT_EQ(config.get_domain_config("d1").dca_threshold, 25);
  EXPECT_EQ(*config.get_domain_info("d1"), (DomainInfo{"p2", -3600, "-1:00"}));
  EXPECT_TRUE(config.domain_change("d1", {"common", 0, ""}));
  EXPECT_EQ(config.get_domain_config("d1"), DomainConfig());
  EXPECT_FALSE(config.domain_change("d9", {"p2", 0, ""}));
  EXPECT_FALSE(config.domain_change("d1", {"nosuch", 0, ""}));
}

TEST(GlobalConfig, RemovesADomainOnce) {
  GlobalConfig config("", kTwoSites);
  const CapturedLog log;
  bool changed = false;
  EXPECT_TRUE(config.domain_remove("d1", changed));
  EXPECT_TRUE(changed);
  EXPECT_EQ(log.texts(LogLevel::Debug),
            std::vector<std::string>{"Domain 'd1' was successfully removed."});
  EXPECT_EQ(out_of_range_text([&] { config.get_domain_config("d1"); }), "Domain not found");
  EXPECT_EQ(config.domain_configs().size(), 2U);
  changed = false;
  EXPECT_FALSE(config.domain_remove("d1", changed));
  EXPECT_FALSE(changed);
}

TEST(GlobalConfig, ComparesGlobalOptionsPatternsAndDomains) {
  const GlobalConfig ours("", kTwoSites);
  const GlobalConfig theirs("",
                            R"({"global":{"use_https":1},"common":{"use_dca":0},)"
                            R"("patterns":[{"pattern":"p1","dca_threshold":1},{"pattern":"p3"}],)"
                            R"("domains":[{"domain":"d2","pattern":"p1","time_zone":"-5:30"},)"
                            R"({"domain":"d3","pattern":"p3","time_zone":"0:00"},)"
                            R"({"domain":"d4","pattern":"common","time_zone":"0:00"}]})");
  int calls = 0;
  const ConfigDifference found = ours.compare(theirs, [&] { ++calls; });
  EXPECT_TRUE(found.global);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(found.patterns_changed, (std::vector<std::string>{"common", "p1"}));
  EXPECT_EQ(found.patterns_added, std::vector<std::string>{"p3"});
  EXPECT_EQ(found.patterns_removed, std::vector<std::string>{"p2"});
  EXPECT_EQ(found.domains_added, std::vector<std::string>{"d4"});
  EXPECT_EQ(found.domains_removed, std::vector<std::string>{"d1"});
  EXPECT_EQ(found.domains_changed, (std::vector<std::string>{"d2", "d3"}));
}

TEST(GlobalConfig, ComparesDomainsByTheTextOfTheirTimeZoneToo) {
  const GlobalConfig ours("",
                          R"({"domains":[{"domain":"d","pattern":"common","time_zone":"1:00"}]})");
  const GlobalConfig theirs(
      "", R"({"domains":[{"domain":"d","pattern":"common","time_zone":"01:00"}]})");
  const ConfigDifference found =
      ours.compare(theirs, [] { ADD_FAILURE() << "the global options are equal"; });
  EXPECT_FALSE(found.global);
  EXPECT_EQ(found.domains_changed, std::vector<std::string>{"d"});
  const ConfigDifference same = ours.compare(ours);
  EXPECT_FALSE(same.global);
  EXPECT_TRUE(same.domains_changed.empty());
}

TEST(GlobalConfig, IsReadByManyThreadsWhileCommandsChangeIt) {
  GlobalConfig config("", kTwoSites);
  std::atomic<bool> done = false;
  std::vector<std::thread> readers;
  for (int i = 0; i < 3; ++i)
    readers.emplace_back([&] {
      while (!done) {
        if (!config.enabled) ADD_FAILURE();
        EXPECT_EQ(config.get_domain_config("d3").use_tpc, true);
        EXPECT_FALSE(config.reports_path.get().empty());
        config.domains();
      }
    });
  Errors errors;
  for (int i = 0; i < 200; ++i) {
    bool flag = false;
    const std::string text = "{\"dca_threshold\":" + std::to_string(i % 90) +
                             ",\"reports_path\":\"/r" + std::to_string(i) + "\"}";
    const JsonReader reader(text.c_str());
    config.apply_global(reader);
    config.pattern_change("common", reader, errors.list, flag, flag);
    config.domain_add("x", {"p1", 0, ""});
    config.domain_remove("x", flag);
  }
  done = true;
  for (std::thread& reader : readers) reader.join();
}

}  // namespace
}  // namespace rrm
