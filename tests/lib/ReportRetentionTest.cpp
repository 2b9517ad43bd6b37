#include "server/lib/report_retention.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <stdexcept>

#include "server/lib/report_fields.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/TempFolder.h"
#include "tests/support/Thrown.h"

namespace rrm::reports {
namespace {

using test::CapturedLog;
using test::thrown_text;
using Texts = std::vector<std::string>;

constexpr std::int64_t kDay = 86400;
constexpr std::int64_t kNow = 1717200000;  // 2024-06-01,00:00:00

constexpr const char* kReport = "report_office.txt";
constexpr const char* kConfig = "report_cfg_office.txt";
constexpr const char* kIndex = "report_idx_office.txt";
constexpr const char* kStart = "report_office.txt.start_status";
constexpr const char* kDone = "report_office.txt.done_status";

std::string line(std::int64_t time, const std::string& rest = {}) {
  return "1.1," + format_time(time) + rest + "\n";
}

/// What the three files hold with a report at each of the times.
struct Contents {
  explicit Contents(const std::vector<std::int64_t>& times) {
    for (const std::int64_t time : times) {
      index += line(time);
      config += line(time, ",1,1");
      report += line(time, ",AP,RADIO-1") + line(time, ",AP,RADIO-2");
    }
  }
  std::string index;
  std::string config;
  std::string report;
};

class ReportRetentionTest : public testing::Test {
 protected:
  void write_reports(const std::vector<std::int64_t>& times) {
    const Contents contents(times);
    folder.write(kIndex, contents.index);
    folder.write(kConfig, contents.config);
    folder.write(kReport, contents.report);
  }
  void expect_reports(const std::vector<std::int64_t>& times) {
    const Contents contents(times);
    EXPECT_EQ(folder.read(kIndex), contents.index);
    EXPECT_EQ(folder.read(kConfig), contents.config);
    EXPECT_EQ(folder.read(kReport), contents.report);
    EXPECT_EQ(folder.entries(), 3U) << "no marker and no companion is left";
  }
  int delete_old(std::int32_t days = 30) {
    return delete_old_reports_in_domain("office", days, folder.path(), kNow);
  }
  int recover() { return reports_recovery_procedure_in_domain("office", folder.path()); }
  std::string path(const std::string& name) const { return folder.file(name); }
  void move(const std::string& from, const std::string& to) {
    std::filesystem::rename(path(from), path(to));
  }
  void remove(const std::string& name) { std::filesystem::remove(path(name)); }

  test::TempFolder folder;
  CapturedLog log;
};

TEST_F(ReportRetentionTest, WithEveryLineYounger30DaysAllFilesStayAndNoMarkerIsLeft) {
  write_reports({kNow - 29 * kDay, kNow - 5, kNow});
  EXPECT_EQ(delete_old(), 0);
  expect_reports({kNow - 29 * kDay, kNow - 5, kNow});
  EXPECT_TRUE(log.texts(LogLevel::Error).empty());
  // The other two files are not even read.
  EXPECT_EQ(log.texts(LogLevel::Debug),
            Texts{"Check old reports in file: \"" + path(kIndex) + "\""});
}

TEST_F(ReportRetentionTest, OldReportsLeaveAllThreeFiles) {
  write_reports({kNow - 31 * kDay, kNow - 30 * kDay - 1, kNow - 30 * kDay, kNow - 1});
  EXPECT_EQ(delete_old(), 0);
  expect_reports({kNow - 30 * kDay, kNow - 1});
  EXPECT_EQ(log.texts(LogLevel::Debug),
            (Texts{"Check old reports in file: \"" + path(kIndex) + "\"",
                   "Check old reports in file: \"" + path(kConfig) + "\"",
                   "Check old reports in file: \"" + path(kReport) + "\""}));
}

TEST_F(ReportRetentionTest, ALineDatedOneHourInTheFutureIsDropped) {
  write_reports({kNow - 1, kNow + 3600});
  EXPECT_EQ(delete_old(), 0);
  expect_reports({kNow - 1});
}

TEST_F(ReportRetentionTest, WhenEveryReportIsOldTheFilesEndEmpty) {
  write_reports({kNow - 40 * kDay});
  EXPECT_EQ(delete_old(), 0);
  expect_reports({});
}

TEST_F(ReportRetentionTest, ALongTimeToLiveDoesNotOverflow) {
  write_reports({0, kNow});
  EXPECT_EQ(delete_old(37200), 0);
  expect_reports({0, kNow});
}

TEST_F(ReportRetentionTest, AnEmptyFileOfTheThreeDoesNotStopTheDeletion) {
  write_reports({kNow - 40 * kDay, kNow});
  folder.write(kConfig, "");
  EXPECT_EQ(delete_old(), 0);
  EXPECT_EQ(folder.read(kIndex), line(kNow));
  EXPECT_EQ(folder.read(kConfig), "");
  EXPECT_EQ(folder.entries(), 3U);
}

TEST_F(ReportRetentionTest, LinesWithoutAReadableDateAreDroppedWithAnError) {
  write_reports({kNow});
  folder.write(kIndex, "1.1,2024-05-3\n" + line(kNow));
  EXPECT_EQ(delete_old(), 0);
  expect_reports({kNow});
  EXPECT_TRUE(log.has(LogLevel::Error, "Incorrect report data/time in file: \"" + path(kIndex) +
                                           "\", line: \"1.1,2024-05-3\"."));
}

TEST_F(ReportRetentionTest, WithoutItsConfigurationFileARepositoryLosesTheOtherTwo) {
  write_reports({kNow});
  remove(kConfig);
  EXPECT_EQ(delete_old(), 0);
  EXPECT_EQ(folder.entries(), 0U);
  EXPECT_EQ(log.texts(LogLevel::Warning),
            (Texts{"Delete inconsistent file \"" + path(kIndex) + "\" successfully.",
                   "Delete inconsistent file \"" + path(kReport) + "\" successfully."}));
}

TEST_F(ReportRetentionTest, ADomainWithoutFilesIsFine) {
  EXPECT_EQ(delete_old(), 0);
  EXPECT_EQ(folder.entries(), 0U);
  EXPECT_TRUE(log.records().empty());
}

TEST_F(ReportRetentionTest, AnInconsistentFileThatCannotBeRemovedEndsIt) {
  std::filesystem::create_directory(path(kIndex));
  EXPECT_EQ(delete_old(), EISDIR);
  EXPECT_EQ(log.texts(LogLevel::Error),
            Texts{"Error while delete \"" + path(kIndex) + "\", errno = 21: Is a directory"});
  EXPECT_EQ(log.texts(LogLevel::Warning), Texts{});
}

TEST_F(ReportRetentionTest, EmptyArgumentsAreInvalid) {
  EXPECT_EQ(thrown_text<std::invalid_argument>(
                [&] { delete_old_reports_in_domain("", 1, folder.path(), kNow); }),
            "delete_old_reports_in_domain: Invalid argument 'domain_name'.");
  EXPECT_EQ(thrown_text<std::invalid_argument>(
                [&] { delete_old_reports_in_domain("office", 1, "", kNow); }),
            "delete_old_reports_in_domain: Invalid argument 'files_path'.");
  EXPECT_EQ(thrown_text<std::invalid_argument>(
                [&] { reports_recovery_procedure_in_domain("", folder.path()); }),
            "reports_recovery_procedure_in_domain: Invalid argument 'domain_name'.");
  EXPECT_EQ(thrown_text<std::invalid_argument>(
                [&] { reports_recovery_procedure_in_domain("office", ""); }),
            "reports_recovery_procedure_in_domain: Invalid argument 'files_path'.");
  std::size_t dropped = 9;
  EXPECT_EQ(thrown_text<std::invalid_argument>(
                [&] { copy_new_reports_from_one_file(kNow, 1, "", dropped); }),
            "copy_new_reports_from_one_file: Invalid argument 'filename'.");
  EXPECT_EQ(dropped, 0U);
  EXPECT_EQ(thrown_text<std::invalid_argument>(
                [&] { copy_new_reports_from_one_file(kNow, 0, "x", dropped); }),
            "copy_new_reports_from_one_file: Invalid argument 'days_to_live_of_report'.");
}

// --- copying one file ---------------------------------------------------------------------------

TEST_F(ReportRetentionTest, CopyingCountsWhatItDrops) {
  const std::string file = folder.write(
      "x", line(kNow - 2 * kDay) + line(kNow) + "\n" + line(kNow + 1) + line(kNow - kDay));
  std::size_t dropped = 0;
  EXPECT_EQ(copy_new_reports_from_one_file(kNow, 1, file, dropped), 0);
  EXPECT_EQ(dropped, 3U);
  EXPECT_EQ(folder.read("x.tmp"), line(kNow) + line(kNow - kDay));
}

TEST_F(ReportRetentionTest, CopyingAddsTheNewlineThatTheLastLineLacks) {
  const std::string file = folder.write("x", "1.1," + format_time(kNow));
  std::size_t dropped = 0;
  EXPECT_EQ(copy_new_reports_from_one_file(kNow, 1, file, dropped), 0);
  EXPECT_EQ(folder.read("x.tmp"), line(kNow));
}

TEST_F(ReportRetentionTest, CopyingNothingButDroppedLinesLeavesAnEmptyFile) {
  const std::string file = folder.write("x", line(kNow + 1));
  std::size_t dropped = 0;
  EXPECT_EQ(copy_new_reports_from_one_file(kNow, 1, file, dropped), 0);
  EXPECT_TRUE(folder.has("x.tmp"));
  EXPECT_EQ(folder.read("x.tmp"), "");
}

TEST_F(ReportRetentionTest, CopyingAnEmptyFileLeavesNone) {
  const std::string file = folder.write("x", "");
  std::size_t dropped = 0;
  EXPECT_EQ(copy_new_reports_from_one_file(kNow, 1, file, dropped), 0);
  EXPECT_FALSE(folder.has("x.tmp"));
}

TEST_F(ReportRetentionTest, ReadErrorsEndTheCopy) {
  std::size_t dropped = 0;
  std::filesystem::create_directory(path("folder"));
  EXPECT_EQ(copy_new_reports_from_one_file(kNow, 1, path("folder"), dropped), EISDIR);
  EXPECT_EQ(
      log.texts(LogLevel::Error),
      (Texts{"Error while read file \"" + path("folder") + "\", errno = 21: Is a directory",
             "Copy new reports from file: \"" + path("folder") + "\" exit with error code: 21."}));
  EXPECT_EQ(copy_new_reports_from_one_file(kNow, 1, path("none"), dropped), ENOENT);
}

TEST_F(ReportRetentionTest, WriteErrorsEndTheCopy) {
  const std::string file = folder.write("x", line(kNow));
  std::filesystem::create_symlink("/dev/full", path("x.tmp"));
  std::size_t dropped = 0;
  EXPECT_EQ(copy_new_reports_from_one_file(kNow, 1, file, dropped), ENOSPC);
  EXPECT_EQ(log.texts(LogLevel::Error),
            (Texts{"Error while write file \"" + path("x.tmp") +
                       "\", errno = 28: No space left on device",
                   "Copy new reports from file: \"" + file + "\" exit with error code: 28."}));
}

// --- crashes ------------------------------------------------------------------------------------

/// Takes a deletion apart: step by step, as a crash may leave it.
class ReportCrashTest : public ReportRetentionTest {
 protected:
  static constexpr std::int64_t kOld = kNow - 40 * kDay;
  static constexpr std::int64_t kYoung = kNow - kDay;

  std::vector<std::function<void()>> deletion() {
    std::vector<std::function<void()>> steps;
    steps.push_back([this] { folder.write(kStart, ""); });
    steps.push_back([this] { folder.write(tmp(kIndex), line(kYoung)); });
    steps.push_back([this] { folder.write(tmp(kConfig), line(kYoung, ",1,1")); });
    steps.push_back([this] {
      folder.write(tmp(kReport), line(kYoung, ",AP,RADIO-1") + line(kYoung, ",AP,RADIO-2"));
    });
    for (const char* file : {kIndex, kConfig, kReport})
      steps.push_back([this, file] { move(file, old(file)); });
    for (const char* file : {kIndex, kConfig, kReport})
      steps.push_back([this, file] { move(tmp(file), file); });
    steps.push_back([this] { move(kStart, kDone); });
    for (const char* file : {kIndex, kConfig, kReport})
      steps.push_back([this, file] { remove(old(file)); });
    steps.push_back([this] { remove(kDone); });
    return steps;
  }
  static constexpr std::size_t kCommitted = 11;  ///< steps after which the new files stand

  void crash_after(std::size_t steps) {
    std::filesystem::remove_all(folder.path());
    std::filesystem::create_directory(folder.path());
    write_reports({kOld, kYoung});
    const auto all = deletion();
    for (std::size_t i = 0; i < steps; ++i) all[i]();
    log.clear();
  }
  static std::string tmp(const std::string& name) { return name + ".tmp"; }
  static std::string old(const std::string& name) { return name + ".old"; }
};

TEST_F(ReportCrashTest, RecoveryFindsTheOldOrTheNewFilesAfterEveryStep) {
  const std::size_t steps = deletion().size();
  ASSERT_EQ(steps, 15U);
  for (std::size_t done = 0; done <= steps; ++done) {
    SCOPED_TRACE(done);
    crash_after(done);
    EXPECT_EQ(recover(), 0);
    if (done < kCommitted)
      expect_reports({kOld, kYoung});
    else
      expect_reports({kYoung});
  }
}

TEST_F(ReportCrashTest, TheNextDeletionEndsWellAfterEveryStep) {
  for (std::size_t done = 0; done <= deletion().size(); ++done) {
    SCOPED_TRACE(done);
    crash_after(done);
    EXPECT_EQ(delete_old(), 0);
    expect_reports({kYoung});
    EXPECT_TRUE(log.texts(LogLevel::Error).empty());
  }
}

TEST_F(ReportCrashTest, ARecoveryThatCrashesItselfCanBeRepeated) {
  crash_after(9);  // two of three commits done
  remove(tmp(kReport));
  move(old(kIndex), kIndex);
  EXPECT_EQ(recover(), 0);
  expect_reports({kOld, kYoung});
}

TEST_F(ReportCrashTest, ACrashAfterTheBackupIsRolledBackByTheNextDeletion) {
  crash_after(7);
  EXPECT_FALSE(folder.has(kReport));
  EXPECT_EQ(delete_old(90), 0);  // nothing is old enough to go
  expect_reports({kOld, kYoung});
  EXPECT_EQ(log.texts(LogLevel::Warning),
            Texts{"Detected unclean reports repository for domain: \"office\". Started "
                  "rollback/recovery procedure."});
  EXPECT_EQ(log.texts(LogLevel::Info),
            Texts{"Rollback reports repository for domain: \"office\" succesfull."});
}

TEST_F(ReportCrashTest, ACrashAfterTheStatusChangeIsCompletedForward) {
  crash_after(11);
  EXPECT_EQ(delete_old(90), 0);
  expect_reports({kYoung});
  EXPECT_EQ(log.texts(LogLevel::Info),
            Texts{"Clean reports repository for domain: \"office\" succesfull."});
}

TEST_F(ReportCrashTest, ACleanRepositoryNeedsNoRecovery) {
  crash_after(0);
  EXPECT_EQ(recover(), 0);
  ASSERT_EQ(log.records().size(), 1U);
  EXPECT_EQ(log.texts(LogLevel::Debug),
            Texts{"Already clean reports repository of domain: \"office\"."});
}

TEST_F(ReportCrashTest, FilesThatAreMissingAfterARecoveryMakeTheRestInconsistent) {
  crash_after(1);
  remove(kConfig);
  EXPECT_EQ(delete_old(), 0);
  EXPECT_EQ(folder.entries(), 0U);
}

TEST_F(ReportCrashTest, ARecoveryThatFailsSaysWhereAndLeavesItsMarker) {
  crash_after(11);
  remove(old(kIndex));
  std::filesystem::create_directory(path(old(kIndex)));
  EXPECT_EQ(delete_old(), EISDIR);
  EXPECT_EQ(log.texts(LogLevel::Error),
            (Texts{"Error while delete \"" + path(old(kIndex)) + "\", errno = 21: Is a directory",
                   "Reports files recovery procedure for domain: \"office\" exit with error code: "
                   "21.",
                   "Rollback/recovery procedure fail for domain: \"office\" exit with error code: "
                   "21."}));
  EXPECT_TRUE(folder.has(kDone));
}

TEST_F(ReportCrashTest, ARollbackThatCannotRenameSaysSo) {
  crash_after(7);
  std::filesystem::create_directory(path(kConfig));
  EXPECT_EQ(recover(), EISDIR);
  EXPECT_EQ(log.texts(LogLevel::Error),
            (Texts{"Error while rename \"" + path(old(kConfig)) +
                       "\" for commit, errno = 21: Is a directory",
                   "Reports files recovery procedure for domain: \"office\" exit with error code: "
                   "21."}));
  EXPECT_TRUE(folder.has(kStart));
}

TEST_F(ReportCrashTest, ABackupThatFailsLeavesTheStartMarkerForTheNextRun) {
  crash_after(0);
  std::filesystem::create_directory(path(old(kConfig)));
  EXPECT_EQ(delete_old(), EISDIR);
  EXPECT_EQ(log.texts(LogLevel::Error), Texts{"Error while rename \"" + path(kConfig) +
                                              "\" for backup, errno = 21: Is a directory"});
  EXPECT_TRUE(folder.has(kStart));
  std::filesystem::remove(path(old(kConfig)));
  EXPECT_EQ(delete_old(), 0);
  expect_reports({kYoung});
}

TEST_F(ReportCrashTest, AReadErrorLeavesTheStartMarker) {
  crash_after(0);
  remove(kIndex);
  std::filesystem::create_directory(path(kIndex));
  EXPECT_EQ(delete_old(), EISDIR);
  EXPECT_TRUE(folder.has(kStart));
}

TEST_F(ReportCrashTest, AStartMarkerThatCannotBeMadeEndsIt) {
  crash_after(0);
  std::filesystem::create_symlink(path("none") + "/none", path(kStart));
  EXPECT_EQ(delete_old(), EIO);
  EXPECT_EQ(log.texts(LogLevel::Error), Texts{"Error while create file \"" + path(kStart) + "\"."});
}

}  // namespace
}  // namespace rrm::reports
