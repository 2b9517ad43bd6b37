#include "server/LogsCleaner.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <utime.h>

#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/server/CapturedProcessLog.h"
#include "tests/support/TempFolder.h"

namespace {

using rrm::test::TempFolder;

constexpr std::time_t kNow = 1'700'000'000;
constexpr std::time_t kHour = 3600;

class LogsCleaner : public testing::Test {
 protected:
  /// A file of some bytes that was last written so many hours before now.
  void add(const std::string& name, std::time_t hours_old, std::size_t bytes = 10) const {
    folder_.write(name, "");
    std::filesystem::resize_file(folder_.file(name), bytes);
    set_time(name, kNow - hours_old * kHour);
  }
  void set_time(const std::string& name, std::time_t time) const {
    const utimbuf times{time, time};
    ASSERT_EQ(::utime(folder_.file(name).c_str(), &times), 0);
  }
  Logs_Cleaner cleaner(std::uint64_t count, std::uint64_t size, std::uint64_t age) const {
    return {count, size, age, folder_.path() + "/", folder_.file("wavelom.log")};
  }
  static std::string time_text(std::time_t hours_old) {
    const std::time_t time = kNow - hours_old * kHour;
    return std::ctime(&time);
  }

  TempFolder folder_;
  CapturedProcessLog log_;
};

TEST_F(LogsCleaner, DeletesThe2OldestOf12FilesAndNeverCountsTheCurrentOne) {
  add("wavelom.log", 1000);
  for (int i = 1; i <= 12; ++i) add(std::to_string(i) + ".log", i);
  cleaner(10, 0, 0).run(kNow);
  EXPECT_FALSE(folder_.has("12.log"));
  EXPECT_FALSE(folder_.has("11.log"));
  EXPECT_TRUE(folder_.has("10.log"));
  EXPECT_TRUE(folder_.has("wavelom.log"));
  EXPECT_EQ(folder_.entries(), 11U);
  EXPECT_EQ(
      log_.texts(el::Level::Debug),
      (std::vector<std::string>{
          "Files count limit exceeded, prepare to remove 2 files.",
          "Removing file '" + folder_.file("12.log") + "', size 10B, modded - " + time_text(12),
          "Removing file '" + folder_.file("11.log") + "', size 10B, modded - " + time_text(11)}));
}

TEST_F(LogsCleaner, AsManyFilesAsTheLimitAreNotTooMany) {
  add("a.log", 1);
  add("b.log", 2);
  cleaner(2, 0, 0).run(kNow);
  EXPECT_EQ(folder_.entries(), 2U);
  EXPECT_TRUE(log_.records().empty());
}

TEST_F(LogsCleaner, EveryRunCountsAnewAndHasForgottenWhatTheLastOneRemoved) {
  add("gone.log", 9, 10);
  add("a.log", 2, 10);
  add("b.log", 1, 10);
  Logs_Cleaner cleaner(2, 25, 5, folder_.path() + "/", folder_.file("wavelom.log"));
  cleaner.run(kNow);
  EXPECT_EQ(folder_.entries(), 2U);
  log_.clear();
  cleaner.run(kNow);
  EXPECT_EQ(folder_.entries(), 2U);
  EXPECT_TRUE(log_.records().empty());
}

TEST_F(LogsCleaner, DeletesNothingWithAllThreeLimitsNought) {
  for (int i = 1; i <= 30; ++i) add(std::to_string(i) + ".log", i * 1000, 1'000'000);
  cleaner(0, 0, 0).run(kNow);
  EXPECT_EQ(folder_.entries(), 30U);
  EXPECT_TRUE(log_.records().empty());
}

TEST_F(LogsCleaner, DeletesAFileOf169HoursUnderTheAgeOf168AndKeepsOneOf167) {
  add("old.log", 169);
  add("young.log", 167);
  cleaner(10, 20'000'000, 168).run(kNow);
  EXPECT_FALSE(folder_.has("old.log"));
  EXPECT_TRUE(folder_.has("young.log"));
  EXPECT_EQ(log_.texts(el::Level::Debug).front(),
            "Prepare to remove too old file (mod time > 168h) - '" + folder_.file("old.log") +
                "',' 10B, " + time_text(169));
}

TEST_F(LogsCleaner, KeepsAFileOfExactlyTheAge) {
  add("a.log", 168);
  cleaner(0, 0, 168).run(kNow);
  EXPECT_TRUE(folder_.has("a.log"));
}

TEST_F(LogsCleaner, FolderOf25MBLosesItsOldestFilesUntil20MBRemain) {
  for (int i = 1; i <= 5; ++i) add(std::to_string(i) + ".log", i, 5'000'000);
  cleaner(10, 20'000'000, 168).run(kNow);
  EXPECT_FALSE(folder_.has("5.log"));
  EXPECT_EQ(folder_.entries(), 4U) << "exactly the limit is within it";
  EXPECT_EQ(log_.texts(el::Level::Debug).front(), "Decreasing folder size, prepare to remove '" +
                                                      folder_.file("5.log") + "', 5000000B, " +
                                                      time_text(5));
}

TEST_F(LogsCleaner, WhatCountAndAgeTookAwayNoLongerCountsForTheSize) {
  add("count.log", 500, 10'000'000);
  add("age.log", 400, 10'000'000);
  add("a.log", 2, 10'000'000);
  add("b.log", 1, 10'000'000);
  cleaner(3, 20'000'000, 168).run(kNow);
  EXPECT_FALSE(folder_.has("count.log"));
  EXPECT_FALSE(folder_.has("age.log"));
  EXPECT_TRUE(folder_.has("a.log"));
  EXPECT_TRUE(folder_.has("b.log"));
}

TEST_F(LogsCleaner, AsksForTheCountThenTheAgeThenTheSize) {
  for (int i = 4; i > 0; --i) add(std::to_string(i) + ".log", i * 100, 10);
  cleaner(3, 15, 250).run(kNow);
  EXPECT_EQ(folder_.entries(), 1U);
  std::vector<std::string> rules;
  for (const std::string& text : log_.texts(el::Level::Debug)) rules.push_back(text.substr(0, 10));
  rules.resize(3);
  EXPECT_EQ(rules, (std::vector<std::string>{"Files coun", "Prepare to", "Decreasing"}));
}

TEST_F(LogsCleaner, CountsAndDeletesFilesInSubFolders) {
  std::filesystem::create_directory(folder_.file("sub"));
  add("sub/old.log", 9);
  add("new.log", 1);
  cleaner(1, 0, 0).run(kNow);
  EXPECT_FALSE(folder_.has("sub/old.log"));
  EXPECT_TRUE(folder_.has("sub"));
  EXPECT_TRUE(folder_.has("new.log"));
}

TEST_F(LogsCleaner, IgnoresFoldersLinksAndSockets) {
  std::filesystem::create_directory(folder_.file("sub"));
  std::filesystem::create_symlink("/etc/hostname", folder_.file("link"));
  ASSERT_EQ(::mkfifo(folder_.file("fifo").c_str(), 0600), 0);
  set_time("fifo", kNow - 2 * kHour);
  add("a.log", 1);
  cleaner(1, 1, 1).run(kNow + 1000 * kHour);
  EXPECT_FALSE(folder_.has("a.log"));
  EXPECT_EQ(folder_.entries(), 3U);
}

TEST_F(LogsCleaner, MissingFolderHasNoFiles) {
  Logs_Cleaner(1, 1, 1, folder_.file("nosuch"), folder_.file("wavelom.log")).run(kNow);
  EXPECT_TRUE(log_.records().empty());
}

TEST_F(LogsCleaner, NamesWhatItCouldNotRemoveAndTriesAgain) {
  add("a.log", 9);
  Logs_Cleaner cleaner(0, 0, 1, folder_.path() + "/", folder_.file("wavelom.log"));
  const std::string stubborn = folder_.file("a.log");
  // Root may delete anything: a file that is gone when its turn comes stands for one that stays.
  class Vanish : public el::LogDispatchCallback {
    void handle(const el::LogDispatchData* data) override {
      const std::string text = data->logMessage()->message();
      const auto start = text.find('\'');
      if (text.rfind("Prepare", 0) != 0 || start == std::string::npos) return;
      std::filesystem::remove(text.substr(start + 1, text.find('\'', start + 1) - start - 1));
    }
  };
  el::Helpers::installLogDispatchCallback<Vanish>("vanish");
  cleaner.run(kNow);
  el::Helpers::uninstallLogDispatchCallback<Vanish>("vanish");
  EXPECT_EQ(log_.texts(el::Level::Debug).back(),
            "Not removed files:'" + stubborn + "', size 10B, modded - " + time_text(9));
  add("a.log", 9);
  cleaner.run(kNow);
  EXPECT_FALSE(folder_.has("a.log"));
}

}  // namespace
