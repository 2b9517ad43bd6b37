#include "server/Logger.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <utime.h>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>

#include "server/ProcessLog.h"
#include "tests/server/CapturedProcessLog.h"
#include "tests/support/TempFolder.h"
#include "tests/support/WebsockClients.h"

namespace {

using rrm::test::TempFolder;
using rrm::test::wait_until;

class Logger : public testing::Test {
 protected:
  LoggerSettings settings() const {
    LoggerSettings settings;
    settings.config_file = folder_.file("wavelom_logger.conf");
    settings.log_folder = folder_.file("log/");
    settings.log_file = folder_.file("log/wavelom.log");
    settings.set_aside_pattern = folder_.file("log/%Y.%m.%d_%H.%M.%S.log");
    return settings;
  }
  void configure(const std::string& lines) const {
    folder_.write("wavelom_logger.conf", "* GLOBAL:\n TO_STANDARD_OUTPUT = false\n" + lines);
  }
  std::size_t set_aside_files() const {
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder_.file("log")))
      count += entry.path().filename() != "wavelom.log" ? 1 : 0;
    return count;
  }
  std::string content_of_set_aside() const {
    for (const auto& entry : std::filesystem::directory_iterator(folder_.file("log")))
      if (entry.path().filename() != "wavelom.log")
        return folder_.read("log/" + entry.path().filename().string());
    return {};
  }
  static void write_kilobytes(int count) {
    for (int i = 0; i < count; ++i) PROCESS_LOG(Info) << std::string(1000, 'x');
  }

  TempFolder folder_;
  CapturedProcessLog log_;

 private:
  const bool created_ = std::filesystem::create_directory(folder_.file("log"));
};

TEST_F(Logger, WithoutAConfigurationFileStartsNoThreadAndRenamesNothing) {
  testing::internal::CaptureStdout();
  {
    const RRM_Logger logger(settings());
    EXPECT_FALSE(logger.has_threads());
    EXPECT_FALSE(logger.has_rollout_thread());
    EXPECT_TRUE(RRM_Logger::takes(rrm::LogLevel::Debug));
  }
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Logger cfg file does not exist. Using default logger settings.\n");
  EXPECT_TRUE(std::filesystem::is_character_file("/dev/null"));
  EXPECT_EQ(set_aside_files(), 0U);
  EXPECT_FALSE(RRM_Logger::takes(rrm::LogLevel::Error));
}

TEST_F(Logger, FolderInPlaceOfTheConfigurationFileCountsAsMissing) {
  std::filesystem::create_directory(folder_.file("wavelom_logger.conf"));
  testing::internal::CaptureStdout();
  { const RRM_Logger logger(settings()); }
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Logger cfg file does not exist. Using default logger settings.\n");
}

TEST_F(Logger, PipeInPlaceOfTheConfigurationFileCountsAsMissing) {
  ASSERT_EQ(::mkfifo(settings().config_file.c_str(), 0600), 0);
  testing::internal::CaptureStdout();
  EXPECT_FALSE(RRM_Logger(settings()).has_threads());
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Logger cfg file does not exist. Using default logger settings.\n");
}

TEST_F(Logger, AllLevelsDisabledIsSaidAndNothingStarts) {
  configure(" ENABLED = false\n LOG_FILE_TIMEOUT = 1\n");
  testing::internal::CaptureStdout();
  {
    const RRM_Logger logger(settings());
    EXPECT_FALSE(logger.has_threads());
    PROCESS_LOG(Error) << "nobody hears this";
  }
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "All log levels disabled.\n");
  EXPECT_TRUE(log_.records().empty());
}

TEST_F(Logger, EnabledMustBeExactlyTrue) {
  configure(" ENABLED = TRUE\n");
  testing::internal::CaptureStdout();
  { const RRM_Logger logger(settings()); }
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "All log levels disabled.\n");
}

TEST_F(Logger, OneEnabledLevelIsEnough) {
  configure(" ENABLED = false\n* ERROR:\n ENABLED = true\n");
  const RRM_Logger logger(settings());
  EXPECT_TRUE(logger.has_threads());
  EXPECT_TRUE(RRM_Logger::takes(rrm::LogLevel::Error));
  EXPECT_FALSE(RRM_Logger::takes(rrm::LogLevel::Debug));
}

class EnabledLevel : public Logger, public testing::WithParamInterface<const char*> {};

TEST_P(EnabledLevel, AloneIsEnough) {
  const std::string wanted = GetParam();
  std::string lines = " ENABLED = " + std::string(wanted == "GLOBAL" ? "true" : "false") + "\n";
  for (const std::string level : {"TRACE", "DEBUG", "FATAL", "ERROR", "WARNING", "VERBOSE", "INFO"})
    lines += "* " + level + ":\n ENABLED = " + (level == wanted ? "true" : "false") + "\n";
  configure(lines);
  testing::internal::CaptureStdout();
  EXPECT_TRUE(RRM_Logger(settings()).has_threads());
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

INSTANTIATE_TEST_SUITE_P(Level, EnabledLevel,
                         testing::Values("GLOBAL", "TRACE", "DEBUG", "FATAL", "ERROR", "WARNING",
                                         "VERBOSE", "INFO"),
                         [](const auto& row) { return std::string(row.param); });

TEST_F(Logger, VerboseLevelsAreOneByDefaultAndNineAsConfigured) {
  el::Loggers::removeFlag(el::LoggingFlag::NewLineForContainer);
  testing::internal::CaptureStdout();
  { const RRM_Logger logger(settings()); }
  EXPECT_EQ(el::Loggers::verboseLevel(), 1);
  EXPECT_TRUE(el::Loggers::hasFlag(el::LoggingFlag::NewLineForContainer));
  testing::internal::GetCapturedStdout();
  configure("");
  { const RRM_Logger logger(settings()); }
  EXPECT_EQ(el::Loggers::verboseLevel(), 9);
}

TEST_F(Logger, LogsToItsOwnFileWhateverTheConfigurationNames) {
  configure(" FILENAME = " + folder_.file("other.log") + "\n FORMAT = \"%level %func %msg\"\n" +
            "* DEBUG:\n ENABLED = false\n");
  {
    const RRM_Logger logger(settings());
    PROCESS_LOG(Warning) << "a " << 1;
    EXPECT_EQ(folder_.read("log/wavelom.log").substr(0, 42),
              "INFO RRM_Logger Start logging.\nWARNING Tes");
  }
  EXPECT_FALSE(folder_.has("other.log"));
  EXPECT_FALSE(folder_.has("log/wavelom.log"));
  EXPECT_EQ(set_aside_files(), 1U);
  const std::string content = content_of_set_aside();
  EXPECT_NE(content.find("WARNING TestBody a 1\n"), std::string::npos);
  EXPECT_EQ(content.substr(content.size() - 32), "INFO ~RRM_Logger Shutting down.\n");
}

TEST_F(Logger, SizeLimitOf100IsRaisedTo8192) {
  configure(" MAX_LOG_FILE_SIZE = 100\n");
  testing::internal::CaptureStdout();
  const RRM_Logger logger(settings());
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Too few MAX_LOG_FILE_SIZE, increasing to 8192\n");
  write_kilobytes(7);
  EXPECT_EQ(set_aside_files(), 0U);
  write_kilobytes(2);
  EXPECT_EQ(set_aside_files(), 1U);
}

TEST_F(Logger, SizeLimitOf8192IsTakenAndOneOf8191Raised) {
  for (const std::string limit : {"8192", "8191"}) {
    configure(" MAX_LOG_FILE_SIZE = " + limit + "\n");
    testing::internal::CaptureStdout();
    auto logger = std::make_unique<RRM_Logger>(settings());
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              limit == "8192" ? "" : "Too few MAX_LOG_FILE_SIZE, increasing to 8192\n");
    testing::internal::CaptureStdout();
    logger.reset();
    testing::internal::GetCapturedStdout();
  }
}

TEST_F(Logger, SizeLimitOfNoughtStaysUnlimited) {
  configure(" MAX_LOG_FILE_SIZE = 0\n");
  testing::internal::CaptureStdout();
  const RRM_Logger logger(settings());
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  write_kilobytes(40);
  EXPECT_EQ(set_aside_files(), 0U);
  EXPECT_GT(std::filesystem::file_size(folder_.file("log/wavelom.log")), 40'000U);
}

TEST_F(Logger, TimeoutOfNoughtOrNoneStartsNoRolloverThread) {
  configure("");
  {
    const RRM_Logger logger(settings());
    EXPECT_TRUE(logger.has_threads());
    EXPECT_FALSE(logger.has_rollout_thread());
  }
  configure(" LOG_FILE_TIMEOUT = 0\n");
  {
    const RRM_Logger logger(settings());
    EXPECT_FALSE(logger.has_rollout_thread());
  }
}

TEST_F(Logger, TimeoutSetsTheFileAsideOnceItsPeriodIsOver) {
  configure(" LOG_FILE_TIMEOUT = 3\n FORMAT = \"%msg\"\n");
  LoggerSettings quick = settings();
  quick.rollout_tick = std::chrono::milliseconds(5);
  quick.hour = std::chrono::milliseconds(100);  // a second set-aside file would have the same name
  const RRM_Logger logger(quick);
  EXPECT_TRUE(logger.has_rollout_thread());
  EXPECT_TRUE(wait_until([&] { return set_aside_files() > 0; }));
  EXPECT_TRUE(log_.has(el::Level::Info, "About to rollout log file!"));
  const std::string content = content_of_set_aside();
  EXPECT_NE(content.find("Start logging.\n"), std::string::npos);
  EXPECT_NE(content.find("About to rollout log file!\n"), std::string::npos)
      << "its last record tells of it";
}

TEST_F(Logger, RolloverForAnotherReasonStartsThePeriodAgain) {
  configure(" LOG_FILE_TIMEOUT = 1\n");
  LoggerSettings quick = settings();
  quick.rollout_tick = std::chrono::milliseconds(5);
  quick.hour = std::chrono::milliseconds(200);
  const RRM_Logger logger(quick);
  std::this_thread::sleep_for(quick.hour / 2);
  const auto forced = std::chrono::steady_clock::now();
  force_rollover(*el::Loggers::getLogger("default"));
  log_.clear();
  EXPECT_TRUE(wait_until([&] { return log_.has(el::Level::Info, "About to rollout log file!"); }));
  EXPECT_GE(std::chrono::steady_clock::now() - forced, quick.hour);
}

TEST_F(Logger, RolloverThatCannotRenameTheFileEmptiesIt) {
  configure(" FORMAT = \"%msg\"\n* DEBUG:\n ENABLED = false\n");
  LoggerSettings nowhere = settings();
  nowhere.set_aside_pattern = folder_.file("nosuch/%Y.log");
  const RRM_Logger logger(nowhere);
  PROCESS_LOG(Info) << "before";
  force_rollover(*el::Loggers::getLogger("default"));
  PROCESS_LOG(Info) << "after";
  EXPECT_EQ(folder_.read("log/wavelom.log"), "after\n");
}

TEST_F(Logger, RolledOverFileIsNamedByTheTimeOfItsRollover) {
  configure("");
  const RRM_Logger logger(settings());
  const std::time_t earliest = std::time(nullptr);
  force_rollover(*el::Loggers::getLogger("default"));
  const std::time_t latest = std::time(nullptr);
  bool found = false;
  for (std::time_t time = earliest; time <= latest; ++time) {
    std::tm local{};
    ASSERT_NE(::localtime_r(&time, &local), nullptr);
    char name[64];
    std::strftime(name, sizeof(name), "log/%Y.%m.%d_%H.%M.%S.log", &local);
    found = found || folder_.has(name);
  }
  EXPECT_TRUE(found);
}

TEST_F(Logger, NothingIsSetAsideOnceTheLoggerIsGone) {
  configure("");
  { const RRM_Logger logger(settings()); }
  ASSERT_EQ(set_aside_files(), 1U);
  for (const auto& entry : std::filesystem::directory_iterator(folder_.file("log")))
    std::filesystem::remove(entry.path());
  testing::internal::CaptureStdout();
  force_rollover(*el::Loggers::getLogger("default"));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "") << "nobody misses the file";
  EXPECT_EQ(set_aside_files(), 0U);
}

TEST_F(Logger, ForcedRolloverLeavesAnEmptyFileThatIsWrittenTo) {
  configure(" FORMAT = \"%msg\"\n* DEBUG:\n ENABLED = false\n");
  const RRM_Logger logger(settings());
  PROCESS_LOG(Info) << "before";
  force_rollover(*el::Loggers::getLogger("default"));
  PROCESS_LOG(Info) << "after";
  EXPECT_EQ(content_of_set_aside().substr(0, 22), "Start logging.\nbefore\n");
  EXPECT_NE(folder_.read("log/wavelom.log").find("after\n"), std::string::npos);
  EXPECT_EQ(folder_.read("log/wavelom.log").find("before\n"), std::string::npos);
}

TEST_F(Logger, VanishedFileIsReportedOnStandardOutput) {
  configure("");
  auto logger = std::make_unique<RRM_Logger>(settings());
  std::filesystem::remove(folder_.file("log/wavelom.log"));
  testing::internal::CaptureStdout();
  logger.reset();
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "File '" + folder_.file("log/wavelom.log") + "' does not exist\n");
}

TEST_F(Logger, CleanerThreadTakesItsLimitsAndRunsOnceMoreAtTheEnd) {
  configure(
      " LCLEANER_MAX_FILES_COUNT = 500\n LCLEANER_MAX_FOLDER_SIZE = 1\n"
      " LCLEANER_MAX_FILES_AGE = 1000\n");
  folder_.write("log/ancient.log", "x");
  const utimbuf long_ago{1000, 1000};
  ASSERT_EQ(::utime(folder_.file("log/ancient.log").c_str(), &long_ago), 0);
  {
    const RRM_Logger logger(settings());
    EXPECT_TRUE(wait_until([&] {
      return log_.has(el::Level::Debug,
                      "Logs_Cleaner params: max_files_count = 100 max_folder_size = 1048576 "
                      "max_files_age = 720");
    }));
    EXPECT_TRUE(folder_.has("log/ancient.log")) << "its first run is a minute away";
  }
  EXPECT_FALSE(folder_.has("log/ancient.log"));
}

TEST_F(Logger, GarbageInTheConfigurationFileIsSurvived) {
  for (const std::string garbage :
       {"", "\n\n", "* GLOBAL:\nFORMAT = \"\\\"\n", "* NOSUCH:\nX = 1\n", "=\n*\n:\n*:\n",
        "* GLOBAL:\nMAX_LOG_FILE_SIZE = abc\nTO_STANDARD_OUTPUT = false\n\"\"\"\\\"",
        "* GLOBAL:\nTO_STANDARD_OUTPUT=false\nFORMAT = \"%datetime{%\"\n"}) {
    folder_.write("wavelom_logger.conf", garbage + std::string("\0\xff\xfe", 3));
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    { const RRM_Logger logger(settings()); }
    testing::internal::GetCapturedStdout();
    testing::internal::GetCapturedStderr();
  }
}

TEST_F(Logger, FolderThatCannotBeWrittenLeavesStandardOutput) {
  folder_.write("wavelom_logger.conf", "* GLOBAL:\n FORMAT = \"%msg\"\n");
  LoggerSettings nowhere = settings();
  nowhere.log_folder = "/proc/nosuch/";
  nowhere.log_file = "/proc/nosuch/wavelom.log";
  testing::internal::CaptureStderr();
  testing::internal::CaptureStdout();
  {
    const RRM_Logger logger(nowhere);
    PROCESS_LOG(Error) << "still heard";
  }
  EXPECT_NE(testing::internal::GetCapturedStdout().find("still heard\n"), std::string::npos);
  testing::internal::GetCapturedStderr();
}

TEST_F(Logger, EveryOtherLoggerIsConfiguredAlike) {
  el::Logger* const other = el::Loggers::getLogger("other");
  configure(" FORMAT = \"%logger %msg\"\n* DEBUG:\n ENABLED = false\n");
  {
    const RRM_Logger logger(settings());
    other->info("heard");
    el::Loggers::flushAll();
    EXPECT_NE(folder_.read("log/wavelom.log").find("other heard\n"), std::string::npos);
    EXPECT_FALSE(other->enabled(el::Level::Debug));
  }
  EXPECT_FALSE(other->enabled(el::Level::Info)) << "disabled at the end";
  el::Loggers::unregisterLogger("other");
}

TEST_F(Logger, LevelThatNamesAFileOfItsOwnLogsToTheOneFileToo) {
  configure("* ERROR:\n FILENAME = " + folder_.file("errors.log") + "\n FORMAT = \"%msg\"\n");
  const RRM_Logger logger(settings());
  PROCESS_LOG(Error) << "in the one file";
  EXPECT_NE(folder_.read("log/wavelom.log").find("in the one file\n"), std::string::npos);
  EXPECT_FALSE(folder_.has("errors.log"));
}

TEST(LoggerDefaults, AreTheFilesAndPeriodsOfTheProcess) {
  const LoggerSettings settings;
  EXPECT_EQ(settings.config_file, "/etc/tavro-wavelom/wavelom_logger.conf");
  EXPECT_EQ(settings.log_file, "/var/log/tavro-wavelom/wavelom.log");
  EXPECT_EQ(settings.log_folder, "/var/log/tavro-wavelom/");
  EXPECT_EQ(settings.set_aside_pattern, "/var/log/tavro-wavelom/%Y.%m.%d_%H.%M.%S.log");
  EXPECT_EQ(settings.rollout_tick, std::chrono::seconds(10));
  EXPECT_EQ(settings.cleaner_period, std::chrono::seconds(60));
  EXPECT_EQ(settings.hour, std::chrono::hours(1));
}

TEST(LoggerDefaults, OfTheLibraryWriteToNoFile) {
  el::Configurations defaults;
  defaults.setToDefault();
  const auto value = [&](el::ConfigurationType type) {
    return defaults.get(el::Level::Global, type)->value();
  };
  EXPECT_EQ(value(el::ConfigurationType::Filename), "/dev/null");
  EXPECT_EQ(value(el::ConfigurationType::Enabled), "true");
  EXPECT_EQ(value(el::ConfigurationType::ToFile), "true");
  EXPECT_EQ(value(el::ConfigurationType::ToStandardOutput), "true");
  EXPECT_EQ(value(el::ConfigurationType::SubsecondPrecision), "3");
  EXPECT_EQ(value(el::ConfigurationType::PerformanceTracking), "true");
  EXPECT_EQ(value(el::ConfigurationType::MaxLogFileSize), "0");
}

TEST_F(Logger, OldLogIsMovedToTheNameOfItsOwnModificationTime) {
  folder_.write("log/wavelom.log", "old");
  const std::time_t time = 1'600'000'000;
  const utimbuf times{time, time};
  ASSERT_EQ(::utime(folder_.file("log/wavelom.log").c_str(), &times), 0);
  set_old_log_aside(settings());
  std::tm local{};
  ASSERT_NE(::localtime_r(&time, &local), nullptr);
  char name[64];
  std::strftime(name, sizeof(name), "log/%Y.%m.%d_%H.%M.%S.log", &local);
  EXPECT_EQ(folder_.read(name), "old");
  EXPECT_FALSE(folder_.has("log/wavelom.log"));
  set_old_log_aside(settings());
  EXPECT_EQ(set_aside_files(), 1U) << "nothing to move";
}

}  // namespace
