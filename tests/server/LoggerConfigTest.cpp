#include "server/LoggerConfig.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(LoggerConfig, OwnKeysHaveNumbersBehindTheLibrarysAndPrintByName) {
  EXPECT_STREQ(logger_key_name(static_cast<LoggerKey>(512)), "LOG_FILE_TIMEOUT");
  EXPECT_STREQ(logger_key_name(static_cast<LoggerKey>(1024)), "LCLEANER_MAX_FILES_COUNT");
  EXPECT_STREQ(logger_key_name(static_cast<LoggerKey>(2048)), "LCLEANER_MAX_FOLDER_SIZE");
  EXPECT_STREQ(logger_key_name(static_cast<LoggerKey>(4096)), "LCLEANER_MAX_FILES_AGE");
  EXPECT_STREQ(logger_key_name(static_cast<LoggerKey>(1)), "UNKNOWN");
}

TEST(LoggerConfig, TakesOwnKeysOfTheGlobalSectionOutOfTheText) {
  std::string text =
      "* GLOBAL:\n"
      "    ENABLED = true\n"
      "    LOG_FILE_TIMEOUT = 24   ## hours\n"
      "    lcleaner_max_files_count = \"50\"\n"
      "* DEBUG:\n"
      "    LCLEANER_MAX_FILES_AGE = 1\n"
      "    TO_FILE = false";
  const LoggerOwnKeys keys = take_own_keys(text);
  EXPECT_EQ(keys.log_file_timeout, "24");
  EXPECT_EQ(keys.max_files_count, "50");
  EXPECT_EQ(keys.max_folder_size, "200");
  EXPECT_EQ(keys.max_files_age, "168") << "only the global section counts";
  EXPECT_EQ(text, "* GLOBAL:\n    ENABLED = true\n* DEBUG:\n    TO_FILE = false\n");
}

TEST(LoggerConfig, CommentsAndOtherTextsAreNoOwnKeys) {
  std::string text = "* GLOBAL:\n## LOG_FILE_TIMEOUT = 24\nLOG_FILE_TIMEOUT\n= 5\n\n";
  const std::string before = text;
  EXPECT_EQ(take_own_keys(text).log_file_timeout, "0");
  EXPECT_EQ(text, before);
}

TEST(LoggerConfig, HoursBetweenRolloversAreReadAsANumber) {
  EXPECT_EQ(rollover_hours({}), 0);
  EXPECT_EQ(rollover_hours({.log_file_timeout = "24"}), 24);
  EXPECT_EQ(rollover_hours({.log_file_timeout = "-1"}), -1);
  EXPECT_EQ(rollover_hours({.log_file_timeout = "soon"}), 0);
  EXPECT_EQ(rollover_hours({.log_file_timeout = "99999999999999999999"}), 876'600);
}

struct LimitCase {
  const char* name;
  LoggerOwnKeys keys;
  CleanerLimits limits;
};

class CleanerLimitsOf : public testing::TestWithParam<LimitCase> {};

TEST_P(CleanerLimitsOf, AreClamped) {
  const CleanerLimits limits = cleaner_limits(GetParam().keys);
  EXPECT_EQ(limits.files_count, GetParam().limits.files_count);
  EXPECT_EQ(limits.folder_size, GetParam().limits.folder_size);
  EXPECT_EQ(limits.files_age, GetParam().limits.files_age);
}

INSTANTIATE_TEST_SUITE_P(
    Keys, CleanerLimitsOf,
    testing::Values(
        LimitCase{"Defaults", {}, {10, 209715200, 168}},
        LimitCase{"CountOf500IsUsedAs100", {"0", "500", "200", "168"}, {100, 209715200, 168}},
        LimitCase{"FolderSize0StaysUnlimited", {"0", "10", "0", "168"}, {10, 0, 168}},
        LimitCase{"FolderSize1IsOneMebibyte", {"0", "10", "1", "168"}, {10, 1048576, 168}},
        LimitCase{"FolderSize2000IsCut", {"0", "10", "2000", "168"}, {10, 999999999, 168}},
        LimitCase{"AgeOf1000IsUsedAs720", {"0", "10", "200", "1000"}, {10, 209715200, 720}},
        LimitCase{"NegativeNumbersAreHuge", {"0", "-1", "-1", "-1"}, {100, 999999999, 720}},
        LimitCase{"TextsAreNought", {"x", "many", "", "old"}, {0, 0, 0}}),
    [](const auto& row) { return row.param.name; });

}  // namespace
