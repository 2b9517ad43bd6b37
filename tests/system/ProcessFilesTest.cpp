#include <gtest/gtest.h>
#include <unistd.h>
#include <utime.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/system/Process.h"

namespace {

namespace fs = std::filesystem;

/// The process with an /etc and a /var/log of its own: folders of the test that are mounted where
/// only it sees them, so that nothing is left behind and nobody else is disturbed.
class ProcessFiles : public Process {
 protected:
  void SetUp() override {
    fs::create_directories(folder_.file("etc/tavro-wavelom"));
    fs::create_directories(folder_.file("log/tavro-wavelom"));
    const std::string attempt = "unshare " + flags() + " mount --bind " + folder_.file("log") +
                                " /var/log >" + folder_.file("attempt.txt") + " 2>&1";
    if (std::system(attempt.c_str()) != 0)
      GTEST_SKIP() << "mount namespaces are not allowed here: " << folder_.read("attempt.txt");
    // Names of set-aside files are in local time, whose rules are hidden with /etc.
    ::setenv("TZ", "UTC", 1);
  }
  static std::string flags() { return ::geteuid() == 0 ? "-m" : "-rm"; }

  void start_in_private(const std::vector<std::string>& arguments) {
    start_with({"/usr/bin/unshare", flags(), "/bin/sh", "-c",
                R"(mount --bind "$0/log" /var/log && mount --bind "$0/etc" /etc && exec "$@")",
                folder_.path()},
               arguments);
    ASSERT_TRUE(is_serving(web_port_)) << process_->output() << process_->errors();
  }
  void configure_logger(const std::string& lines) {
    folder_.write("etc/tavro-wavelom/wavelom_logger.conf", "* GLOBAL:\n" + lines);
  }
  /// Names in the log folder, in order.
  std::vector<std::string> logs() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder_.file("log/tavro-wavelom")))
      names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
  }
};

constexpr char kDefaultFile[] = "etc/tavro-wavelom/wavelom.conf";

TEST_F(ProcessFiles, WithoutArgumentsItReadsTheDefaultFile) {
  configure("", kDefaultFile);
  start_in_private({});
  EXPECT_EQ(folder_.read(kDefaultFile).substr(0, 26), "{\n    \"version\": \"2.1\",\n  ")
      << "and rewrites it";
  EXPECT_EQ(interrupt(), 0);
}

TEST_F(ProcessFiles, WithAnArgumentItLeavesTheDefaultFileAlone) {
  configure();
  folder_.write(kDefaultFile, "{}");
  start_in_private({"c.conf"});
  EXPECT_EQ(interrupt(), 0);
  EXPECT_EQ(folder_.read(kDefaultFile), "{}");
}

TEST_F(ProcessFiles, LogsToItsFileAsItsLoggerConfigurationSays) {
  configure();
  configure_logger(
      "  FORMAT = \"%level %func %msg\"\n  TO_STANDARD_OUTPUT = false\n"
      "  FILENAME = /var/log/elsewhere.log\n  LCLEANER_MAX_FILES_AGE = 0\n"
      "  LCLEANER_MAX_FILES_COUNT = 500\n");
  const utimbuf long_ago{1'600'000'000, 1'600'000'000};
  const std::string old = folder_.write("log/tavro-wavelom/wavelom.log", "of the last run");
  ASSERT_EQ(::utime(old.c_str(), &long_ago), 0);

  start_in_private({"c.conf"});
  const std::string set_aside = "2020.09.13_12.26.40.log";
  EXPECT_EQ(logs(), (std::vector<std::string>{set_aside, "wavelom.log"}));
  EXPECT_EQ(folder_.read("log/tavro-wavelom/" + set_aside), "of the last run")
      << "named by its own time";
  EXPECT_EQ(interrupt(), 0);

  const std::vector<std::string> names = logs();
  ASSERT_EQ(names.size(), 2U);
  EXPECT_EQ(names[0], set_aside);
  EXPECT_NE(names[1], "wavelom.log") << "set aside at the end";
  // The cleaner's thread is started first; either may write the first record.
  const std::string log = "\n" + folder_.read("log/tavro-wavelom/" + names[1]);
  EXPECT_NE(log.find("\nINFO RRM_Logger Start logging.\n"), std::string::npos);
  EXPECT_NE(log.find("\nDEBUG run_cleaner Logs_Cleaner params: max_files_count = 100 "
                     "max_folder_size = 209715200 max_files_age = 0\n"),
            std::string::npos);
  EXPECT_TRUE(log.ends_with("\nINFO ~RRM_Logger Shutting down.\n")) << log.substr(log.size() - 99);
  EXPECT_EQ(process_->output(), "");
  EXPECT_FALSE(folder_.has("log/elsewhere.log"));
}

TEST_F(ProcessFiles, AStartThatFailsSaysWhyEndsWithStatus1AndSetsItsLogAside) {
  configure();
  configure_logger("  FORMAT = \"%level %func %msg\"\n  TO_STANDARD_OUTPUT = false\n");
  start_with({"/usr/bin/unshare", flags(), "/bin/sh", "-c",
              "mount --bind \"$0/log\" /var/log && mount --bind \"$0/etc\" /etc && ulimit -n 20 && "
              "exec setpriv --bounding-set -sys_resource \"$@\"",
              folder_.path()},
             {"c.conf"});
  EXPECT_EQ(process_->wait(), 1);
  const std::string reason =
      "Only 20 files may be open, 32 are needed, errno=24: Too many open files";
  EXPECT_EQ(process_->errors(), "wavelom: main: " + reason + "\n");
  ASSERT_EQ(logs().size(), 1U);
  EXPECT_NE(logs()[0], "wavelom.log") << "set aside at the end";
  const std::string log = folder_.read("log/tavro-wavelom/" + logs()[0]);
  EXPECT_TRUE(log.ends_with("\nERROR main " + reason + "\nINFO ~RRM_Logger Shutting down.\n"))
      << log;
}

TEST_F(ProcessFiles, AllLevelsDisabledIsSaidAndNothingIsLogged) {
  configure();
  configure_logger("  ENABLED = false\n");
  start_in_private({"c.conf"});
  EXPECT_EQ(interrupt(), 0);
  EXPECT_EQ(process_->output(), "All log levels disabled.\n");
  EXPECT_TRUE(logs().empty());
}

}  // namespace
