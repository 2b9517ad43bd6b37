#include "server/lib/ConfigFile.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "server/lib/Config.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/TempFolder.h"

namespace rrm {
namespace {

using test::CapturedLog;
using test::TempFolder;

/// The members of a pattern or of the common settings as the file has them, with one value changed.
std::string settings_text(const std::string& indent, const std::string& from = {},
                          const std::string& to = {}) {
  DomainConfig defaults;
  JsonWriter writer;
  defaults.to_json(writer);
  std::string text = writer.str();
  text = text.substr(1, text.size() - 2);
  if (const auto at = text.find(from); !from.empty() && at != std::string::npos)
    text.replace(at, from.size(), to);
  for (std::size_t at = 0; (at = text.find(",\"", at)) != std::string::npos;
       at += indent.size() + 2)
    text.replace(at, 1, ",\n" + indent);
  for (std::size_t at = 0; (at = text.find("\":", at)) != std::string::npos; at += 3)
    text.replace(at, 2, "\": ");
  return indent + text + "\n";
}

std::string whole_file(const std::string& domains, const std::string& patterns) {
  return "{\n"
         "    \"version\": \"2.1\",\n"
         "    \"global\": {\n"
         "        \"enabled\": 1,\n"
         "        \"api_port\": 8089,\n"
         "        \"cli_api_port\": 8082,\n"
         "        \"listen_port\": 8099,\n"
         "        \"use_https\": 0,\n"
         "        \"report_delete_at_time_utc\": \"21:00\",\n"
         "        \"reports_path\": \"/var/lib/tavro-wavelom/reports\",\n"
         "        \"www_path\": \"/opt/tavro-wavelom/www\",\n"
         "        \"vrrp_enabled\": 0,\n"
         "        \"vrrp_timeout\": 15,\n"
         "        \"vrrp_backup_path\": \"/tmp/tavro-wavelom/backup\",\n"
         "        \"vrrp_state_file\": \"/tmp/keep.mode\",\n"
         "        \"use_wildcard_80211r\": 0\n"
         "    },\n"
         "    \"common\": {\n" +
         settings_text("        ") +
         "    },\n"
         "    \"domains\": " +
         domains + ",\n    \"patterns\": " + patterns + "\n}\n";
}

/// Runs in a process of its own, as the limits and identity it sets cannot be taken back.
template <class Body>
int status_of_child(const Body& body) {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(body());
  int status = -1;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(ConfigFile, EmptyPathAndATextWriteNoFile) {
  const TempFolder folder;
  const std::string before = std::filesystem::current_path();
  std::filesystem::current_path(folder.path());
  const GlobalConfig config("", R"({"global":{"api_port":1234}})");
  std::filesystem::current_path(before);
  EXPECT_EQ(config.api_port, 1234);
  EXPECT_EQ(folder.entries(), 0U);
}

TEST(ConfigFile, TextGivenWithAPathIsLoadedInPlaceOfTheFileAndSavedToIt) {
  const TempFolder folder;
  const std::string path = folder.write("c.conf", R"({"global":{"api_port":1}})");
  const GlobalConfig config(path, R"({"global":{"cli_api_port":2}})");
  EXPECT_EQ(config.api_port, 8089);
  EXPECT_EQ(config.cli_api_port, 2);
  EXPECT_EQ(GlobalConfig(path).cli_api_port, 2);
}

TEST(ConfigFile, DomainWhosePatternComesLaterHasNoSettingsUntilItsEntryIsLoadedAgain) {
  const TempFolder folder;
  const std::string path =
      folder.write("c.conf", R"({"domains":[{"domain":"d","pattern":"late"}]})");
  GlobalConfig config(path);
  folder.write("c.conf", R"({"patterns":[{"pattern":"late","dca_threshold":7}]})");
  config.reload();
  std::string thrown;
  try {
    config.get_domain_config("d");
  } catch (const std::out_of_range& error) {
    thrown = error.what();
  }
  EXPECT_EQ(thrown, "Domain config not found");
  folder.write("c.conf", R"({"domains":[{"domain":"d","pattern":"late"}]})");
  config.reload();
  EXPECT_EQ(config.get_domain_config("d").dca_threshold, 7);
}

TEST(ConfigFile, PatternOfTheFileKeepsDefaultsAndIsRewrittenWithAllMembers) {
  const TempFolder folder;
  const std::string path =
      folder.write("c.conf", R"({"patterns":[{"pattern":"p1","dca_threshold":40}]})");
  const GlobalConfig config(path);
  const GlobalConfig other("", R"({"common":{"dca_threshold":50},"patterns":[{"pattern":"p1"}]})");
  EXPECT_EQ(other.get_pattern_config("p1"), DomainConfig()) << "common is no base of patterns";
  DomainConfig expected;
  expected.dca_threshold = 40;
  EXPECT_EQ(config.get_pattern_config("p1"), expected);
  EXPECT_EQ(folder.read("c.conf"),
            whole_file("[]", "[\n        {\n            \"pattern\": \"p1\",\n" +
                                 settings_text("            ", "\"dca_threshold\":25",
                                               "\"dca_threshold\":40") +
                                 "        }\n    ]"));
}

TEST(ConfigFile, WritesDomainsSortedByNameWithTheirThreeMembers) {
  const TempFolder folder;
  const std::string path = folder.write(
      "c.conf",
      R"({"domains":[{"domain":"b","pattern":"common","time_zone":"3:00","dca_threshold":1},)"
      R"({"domain":"a","pattern":"common"}]})");
  const GlobalConfig config(path);
  EXPECT_EQ(config.get_domain_config("b").dca_threshold, 25) << "options of an entry are ignored";
  EXPECT_EQ(folder.read("c.conf"), whole_file("[\n"
                                              "        {\n"
                                              "            \"domain\": \"a\",\n"
                                              "            \"pattern\": \"common\",\n"
                                              "            \"time_zone\": \"\"\n"
                                              "        },\n"
                                              "        {\n"
                                              "            \"domain\": \"b\",\n"
                                              "            \"pattern\": \"common\",\n"
                                              "            \"time_zone\": \"3:00\"\n"
                                              "        }\n"
                                              "    ]",
                                              "[]"));
}

TEST(ConfigFile, RewrittenFileIsStable) {
  const TempFolder folder;
  const std::string path =
      folder.write("c.conf", R"({"global":{"enabled":0},"patterns":[{"pattern":"p","use_dca":0}],)"
                             R"("domains":[{"domain":"d","pattern":"p","time_zone":"-3:15"}]})");
  { const GlobalConfig config(path); }
  const std::string first = folder.read("c.conf");
  const GlobalConfig again(path);
  EXPECT_EQ(folder.read("c.conf"), first);
  EXPECT_FALSE(again.enabled);
  EXPECT_FALSE(again.get_domain_config("d").use_dca);
  EXPECT_EQ(again.get_time_zone("d"), -11700);
  EXPECT_EQ(folder.entries(), 1U) << "nothing is left beside the file";
}

TEST(ConfigFile, MissingFileLeavesTheDefaultsAndIsNotCreated) {
  const TempFolder folder;
  const GlobalConfig config(folder.file("c.conf"));
  EXPECT_EQ(config.api_port, 8089);
  EXPECT_EQ(folder.entries(), 0U);
}

struct BrokenCase {
  const char* name;
  std::string content;
};

class BrokenConfigFile : public testing::TestWithParam<BrokenCase> {};

TEST_P(BrokenConfigFile, GivesTheDefaultsWhichAreWrittenBack) {
  const TempFolder folder;
  const std::string path = folder.write("c.conf", GetParam().content);
  const GlobalConfig config(path);
  EXPECT_EQ(config.common, DomainConfig());
  EXPECT_EQ(config.api_port, 8089);
  EXPECT_EQ(folder.read("c.conf"), whole_file("[]", "[]"));
}

INSTANTIATE_TEST_SUITE_P(
    Content, BrokenConfigFile,
    testing::Values(
        BrokenCase{"Empty", ""}, BrokenCase{"NoJson", "api_port = 1"},
        BrokenCase{"CutShort", R"({"global":{"api_port":1234})"}, BrokenCase{"Null", "null"},
        BrokenCase{"Array", R"([{"global":1}])"},
        BrokenCase{"Nul",
                   std::string("{\"global\":{}}\0garbage", 20).substr(0, 1) + std::string(1, '\0')},
        BrokenCase{"DeepNesting", std::string(100000, '[')},
        BrokenCase{"WrongKinds", R"({"global":[],"common":7,"patterns":{},"domains":"x"})"},
        BrokenCase{"ValuesOutOfRange",
                   R"({"global":{"api_port":99999,"vrrp_timeout":-3,"www_path":1e999},)"
                   R"("common":{"dca_threshold":-1,"away_timeout":"abc"}})"},
        BrokenCase{"HugeNumbers",
                   R"({"common":{"hysteresis_5g":1e308,"hysteresis_2g":18446744073709551615}})"}),
    [](const auto& row) { return row.param.name; });

TEST(ConfigFile, FolderInPlaceOfTheFileGivesTheDefaults) {
  const TempFolder folder;
  const std::string path = folder.file("c.conf");
  ASSERT_TRUE(std::filesystem::create_directory(path));
  GlobalConfig config(path);
  EXPECT_EQ(config.api_port, 8089);
  config.save();
  config.reload();
  EXPECT_TRUE(std::filesystem::is_directory(path));
  EXPECT_EQ(folder.entries(), 1U);
}

TEST(ConfigFile, UnreadableFileIsLeftAlone) {
  const TempFolder folder;
  ::chmod(folder.path().c_str(), 0777);
  const std::string path = folder.write("c.conf", "secret");
  ::chmod(path.c_str(), 0);
  const int status = status_of_child([&] {
    if (::geteuid() == 0 && ::setuid(65534) != 0) return 2;
    const GlobalConfig config(path);
    return config.api_port == 8089 ? 0 : 1;
  });
  EXPECT_EQ(status, 0);
  ::chmod(path.c_str(), 0600);
  EXPECT_EQ(folder.read("c.conf"), "secret");
}

TEST(ConfigFile, InvalidTimeZoneOfAnEntryIsLoggedAndLeftEmpty) {
  const CapturedLog log;
  const GlobalConfig config(
      "", R"({"domains":[{"domain":"d","pattern":"common","time_zone":"15:00"}]})");
  EXPECT_EQ(*config.get_domain_info("d"), (DomainInfo{"common", 0, ""}));
  EXPECT_EQ(log.texts(LogLevel::Warning),
            std::vector<std::string>{"Invalid time value for 'time_zone': '15:00' (allowed range: "
                                     "[-43200, 50400] in seconds)"});
}

TEST(ConfigFile, LaterPatternOfTheSameNameReplacesTheEarlierOne) {
  const GlobalConfig config("", R"({"patterns":[{"pattern":"p","dca_threshold":1,"use_dca":0},)"
                                R"({"pattern":"p","use_tpc":0}]})");
  DomainConfig expected;
  expected.use_tpc = false;
  EXPECT_EQ(config.get_pattern_config("p"), expected);
}

TEST(ConfigFile, ReloadAppliesEntriesOnTopOfKnownDomainsAndSavesNothing) {
  const TempFolder folder;
  const std::string path =
      folder.write("c.conf", R"({"patterns":[{"pattern":"p","dca_threshold":40}],)"
                             R"("domains":[{"domain":"d","pattern":"p","time_zone":"1:00"}]})");
  GlobalConfig config(path);
  const std::string edited = R"({"global":{"enabled":0},"domains":[)"
                             R"({"domain":"d","pattern":"p","time_zone":"2:00","use_tpc":0},)"
                             R"({"domain":"e","pattern":"p","use_tpc":0}]})";
  folder.write("c.conf", edited);
  config.reload();
  EXPECT_FALSE(config.enabled);
  EXPECT_FALSE(config.get_domain_config("d").use_tpc);
  EXPECT_EQ(config.get_domain_config("d").dca_threshold, 40);
  EXPECT_EQ(config.get_time_zone("d"), 7200);
  EXPECT_TRUE(config.get_domain_config("e").use_tpc) << "new: a copy of its pattern";
  EXPECT_EQ(folder.read("c.conf"), edited);
}

TEST(ConfigFile, ValidateAndLoadTakesAllOrNothing) {
  GlobalConfig config;
  JsonWriter document;
  JsonWriter errors = JsonWriter::array(document, "errors");
  bool invalid = false;
  EXPECT_FALSE(config.validate_and_load(
      JsonReader(R"({"global":{"api_port":70000},"common":{"dca_threshold":100,"use_dca":0},)"
                 R"("patterns":[{"pattern":"p","hysteresis_2g":11}],)"
                 R"("domains":[{"domain":"d","pattern":"p","time_zone":"x"}]})"),
      errors, invalid));
  EXPECT_TRUE(invalid);
  EXPECT_EQ(errors.str(),
            R"([{"api_port":70000},{"dca_threshold":100},{"hysteresis_2g":11},{"time_zone":"x"}])");
  EXPECT_TRUE(config.common.use_dca);
  EXPECT_TRUE(config.domains().empty());

  invalid = false;
  EXPECT_TRUE(config.validate_and_load(
      JsonReader(R"({"global":{"api_port":70},"patterns":[{"pattern":"p"}],)"
                 R"("domains":[{"domain":"d","pattern":"p","time_zone":"1:00"}]})"),
      errors, invalid));
  EXPECT_FALSE(invalid);
  EXPECT_EQ(config.api_port, 70);
  EXPECT_EQ(config.get_time_zone("d"), 3600);
}

TEST(ReplaceFile, KeepsOwnerModeAndSymbolicLink) {
  const TempFolder folder;
  const std::string real = folder.write("real", "old");
  // Only root may give a file away; anybody else's files stay his own anyhow.
  const bool given = ::chown(real.c_str(), 65534, 65534) == 0;
  ::chmod(real.c_str(), 0640);
  std::filesystem::create_symlink(real, folder.file("link"));
  EXPECT_TRUE(replace_file(folder.file("link"), "new"));
  EXPECT_EQ(folder.read("real"), "new");
  EXPECT_TRUE(std::filesystem::is_symlink(folder.file("link")));
  struct stat state {};
  ASSERT_EQ(::stat(real.c_str(), &state), 0);
  EXPECT_EQ(state.st_mode & 0777, 0640U);
  if (given) {
    EXPECT_EQ(state.st_uid, 65534U);
    EXPECT_EQ(state.st_gid, 65534U);
  }
  EXPECT_EQ(folder.entries(), 2U);
}

TEST(ReplaceFile, CreatesAFileAndSweepsWhatAKilledProcessLeft) {
  const TempFolder folder;
  folder.write("a.new", "half a fi");
  EXPECT_TRUE(replace_file(folder.file("a"), "whole"));
  EXPECT_EQ(folder.read("a"), "whole");
  EXPECT_EQ(folder.entries(), 1U);
}

TEST(ReplaceFile, DoesNotFollowALinkPlantedBesideIt) {
  const TempFolder folder;
  folder.write("victim", "precious");
  std::filesystem::create_symlink(folder.file("victim"), folder.file("a.new"));
  EXPECT_TRUE(replace_file(folder.file("a"), "text"));
  EXPECT_EQ(folder.read("victim"), "precious");
}

TEST(ReplaceFile, LeavesDevicesWhatTheyAre) {
  const TempFolder folder;
  const std::string pipe = folder.file("pipe");
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  EXPECT_TRUE(replace_file(pipe, "text"));
  EXPECT_TRUE(std::filesystem::is_fifo(pipe));
  EXPECT_EQ(folder.entries(), 1U);
  // Who may create files there is not to try it on the devices of a machine.
  if (::geteuid() != 0) {
    EXPECT_TRUE(replace_file("/dev/null", "text"));
    EXPECT_FALSE(replace_file("/dev/full", "text"));
  }
  EXPECT_FALSE(replace_file("", "text"));
  EXPECT_FALSE(replace_file("/nonexistent/folder/file", "text"));
}

TEST(ReplaceFile, WritesInPlaceWhereTheFolderRefusesANewFile) {
  const TempFolder folder;
  const std::string path = folder.write("a", "a longer old text");
  ::chmod(path.c_str(), 0666);
  ::chmod(folder.path().c_str(), 0555);
  const int status = status_of_child([&] {
    if (::geteuid() == 0 && ::setuid(65534) != 0) return 2;
    return replace_file(path, "new") ? 0 : 1;
  });
  EXPECT_EQ(status, 0);
  EXPECT_EQ(folder.read("a"), "new");
  EXPECT_EQ(folder.entries(), 1U);
}

TEST(ReplaceFile, AFileThatMayNotBeWrittenIsLeftAloneThoughItsFolderTakesNewOnes) {
  const TempFolder folder;
  const std::string path = folder.write("a", "old");
  ::chmod(path.c_str(), 0);
  ::chmod(folder.path().c_str(), 0777);
  const int status = status_of_child([&] {
    if (::geteuid() == 0 && ::setuid(65534) != 0) return 2;
    return replace_file(path, "new") ? 0 : 1;
  });
  EXPECT_EQ(status, 1);
  ::chmod(path.c_str(), 0600);
  EXPECT_EQ(folder.read("a"), "old");
  EXPECT_EQ(folder.entries(), 1U);
}

TEST(ReplaceFile, FullDiskKeepsTheOldFile) {
  const TempFolder folder;
  const std::string path = folder.write("a", "old");
  const int status = status_of_child([&] {
    // A limit on the size of files stands for a full disk: writing fails half way.
    ::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{1000, 1000};
    if (::setrlimit(RLIMIT_FSIZE, &limit) != 0) return 2;
    return replace_file(path, std::string(5000, 'x')) ? 1 : 0;
  });
  EXPECT_EQ(status, 0);
  EXPECT_EQ(folder.read("a"), "old");
  EXPECT_EQ(folder.entries(), 1U);
}

TEST(ReplaceFile, KilledAtAnyMomentLeavesTheOldOrTheNewFile) {
  const TempFolder folder;
  const std::string path = folder.file("a");
  const std::string old_text(200000, 'o');
  const std::string new_text(300000, 'n');
  for (int round = 0; round < 20; ++round) {
    ASSERT_TRUE(replace_file(path, old_text));
    const pid_t child = ::fork();
    if (child == 0) {
      for (;;) replace_file(path, new_text);
    }
    ::usleep(static_cast<useconds_t>(round * 150));
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    const std::string content = folder.read("a");
    EXPECT_TRUE(content == old_text || content == new_text) << content.size() << " bytes";
  }
}

}  // namespace
}  // namespace rrm
