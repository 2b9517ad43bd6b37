// A process that is killed at any moment of its work on report files, and what the next one finds.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "server/lib/JsonWriter.h"
#include "server/lib/report_fields.h"
#include "server/lib/report_optimize_tpc_dca.h"
#include "server/lib/report_queries.h"
#include "server/lib/report_retention.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/KilledProcess.h"
#include "tests/support/TempFolder.h"

namespace rrm::reports {
namespace {

using Texts = std::vector<std::string>;

constexpr std::int64_t kDay = 86400;
constexpr std::int64_t kNow = 1717200000;  // 2024-06-01,00:00:00
constexpr std::int64_t kOld = kNow - 40 * kDay;
constexpr std::int64_t kYoung = kNow - kDay;
constexpr std::int32_t kDaysToLive = 30;
/// More than any of the files can have after two reports.
constexpr std::size_t kMostBytes = 1000;
/// More calls than any of the operations makes.
constexpr int kMostCalls = 200;

class KilledReports : public testing::Test {
 protected:
  void SetUp() override { clear(); }
  void clear() {
    std::filesystem::remove_all(folder.path());
    std::filesystem::create_directory(folder.path());
    log.clear();
  }
  void save(std::int64_t time) {
    const std::string date = format_time(time);
    RadioReport report;
    report[date + ",00:A1:B2:C3:D4:00,00:A1:B2:C3:D4:00"].available_channels = "1 6 11";
    report[date + ",00:A1:B2:C3:D4:00,00:A1:B2:C3:D4:10"].available_channels = "36 40";
    save_radio_report_to_files(report, "office", date, folder.path(), DomainConfig());
  }
  int delete_old() {
    return delete_old_reports_in_domain("office", kDaysToLive, folder.path(), kNow);
  }
  /// The ids of all reports after 2024-05-15 that a query lists; what it returned goes to `code`.
  Texts listed(int& code) {
    JsonWriter out;
    code = get_radio_report_list(out, "office", folder.path(), "2024-05-15,00:00:00 UTC",
                                 "2024-07-01,00:00:00 UTC", true);
    Texts ids;
    const JsonReader document(out.c_str());
    const JsonReader data = document.child("data");
    for (int i = 0; i < static_cast<int>(data.size()); ++i)
      ids.emplace_back(data.child(i).get_str("id"));
    return ids;
  }
  static std::string id(std::int64_t time) { return format_time(time) + ",office"; }
  void expect_complete(std::int64_t time) {
    JsonWriter out;
    EXPECT_EQ(get_radio_report(out, id(time), folder.path()), 0);
    EXPECT_NE(out.str().find(R"("available_channels":[36,40])"), std::string::npos) << out.str();
  }
  /// A report that a deletion drops and one that it keeps.
  void save_two() {
    clear();
    save(kOld);
    save(kYoung);
  }
  /// The files are those of exactly these reports, and nothing lies beside them.
  void expect_only(const std::vector<std::int64_t>& times) {
    std::string index;
    for (const std::int64_t time : times) index += "1.1," + format_time(time) + "\n";
    EXPECT_EQ(folder.read("report_idx_office.txt"), index);
    for (const std::int64_t time : times) expect_complete(time);
    EXPECT_EQ(folder.entries(), 3U) << "no marker and no companion is left";
  }
  /// What a killed process left of the report at kYoung, with one at kNow behind it, serves every
  /// query: the later one is whole, and the killed one is either whole or not listed.
  void expect_report_behind_a_killed_one() {
    save(kNow);
    int code = -1;
    const Texts ids = listed(code);
    ASSERT_FALSE(ids.empty());
    EXPECT_EQ(ids.back(), id(kNow));
    expect_complete(kNow);
    if (ids.size() > 1) {
      EXPECT_EQ(ids, (Texts{id(kYoung), id(kNow)}));
      expect_complete(kYoung);
    }
    JsonWriter last;
    EXPECT_EQ(get_last_radio_report(last, "office", folder.path(), true), 0);
    EXPECT_NE(last.str().find(id(kNow)), std::string::npos);
    // Half a line is gone with the next deletion.
    EXPECT_EQ(delete_old(), 0);
    EXPECT_EQ(listed(code), ids);
    EXPECT_EQ(code, 0);
  }

  test::TempFolder folder;
  test::CapturedLog log;
};

/// All of one file's append. The file is made the longest before, so that its bytes are the ones
/// that hit the limit.
struct AppendedFile {
  const char* name;
  const char* file;
  std::size_t step;  ///< bytes between two deaths
};

class KilledAppend : public KilledReports, public testing::WithParamInterface<AppendedFile> {};

TEST_P(KilledAppend, AtAnyByteTheNextReportIsWhole) {
  const auto& [name, file, step] = GetParam();
  std::string before;
  for (int i = 0; i < 10; ++i) before += "1.1," + format_time(kOld) + "\n";
  clear();
  save(kYoung);
  const std::size_t length = folder.read(file).size();
  std::size_t written = 0;
  for (; written < kMostBytes; written += step) {
    SCOPED_TRACE(written);
    clear();
    folder.write(file, before);
    if (!test::killed_at_file_size(before.size() + written, [this] { save(kYoung); })) break;
    expect_report_behind_a_killed_one();
  }
  EXPECT_EQ(written, (length + step - 1) / step * step);
}

INSTANTIATE_TEST_SUITE_P(Of, KilledAppend,
                         testing::Values(AppendedFile{"TheReport", "report_office.txt", 7},
                                         AppendedFile{"TheSettings", "report_cfg_office.txt", 5},
                                         AppendedFile{"TheIndex", "report_idx_office.txt", 1}),
                         [](const auto& test) { return test.param.name; });

TEST_F(KilledReports, AtAnyCallOfAnAppendTheNextReportIsWhole) {
  int call = 1;
  for (; call < kMostCalls; ++call) {
    SCOPED_TRACE(call);
    clear();
    if (!test::killed_at_file_call(call, [this] { save(kYoung); })) break;
    expect_report_behind_a_killed_one();
  }
  EXPECT_GT(call, 6) << "three files are opened and written";
  EXPECT_LT(call, kMostCalls);
}

TEST_F(KilledReports, AtAnyCallOfADeletionTheNextOneEndsWell) {
  int call = 1;
  for (; call < kMostCalls; ++call) {
    SCOPED_TRACE(call);
    save_two();
    if (!test::killed_at_file_call(call, [this] { delete_old(); })) break;
    EXPECT_EQ(delete_old(), 0);
    expect_only({kYoung});
    EXPECT_TRUE(log.texts(LogLevel::Error).empty());
  }
  EXPECT_GT(call, 20) << "a marker, three copies, seven renames and four removals";
  EXPECT_LT(call, kMostCalls);
}

TEST_F(KilledReports, AtAnyCallOfADeletionRecoveryFindsTheOldOrTheNewFiles) {
  std::vector<bool> completed;
  for (int call = 1; call < kMostCalls; ++call) {
    SCOPED_TRACE(call);
    save_two();
    if (!test::killed_at_file_call(call, [this] { delete_old(); })) break;
    EXPECT_EQ(reports_recovery_procedure_in_domain("office", folder.path()), 0);
    completed.push_back(folder.read("report_idx_office.txt").find(format_time(kOld)) ==
                        std::string::npos);
    if (completed.back())
      expect_only({kYoung});
    else
      expect_only({kOld, kYoung});
  }
  // Once it has been committed it is never undone.
  EXPECT_TRUE(std::is_sorted(completed.begin(), completed.end()));
  EXPECT_FALSE(completed.front());
  EXPECT_TRUE(completed.back());
}

TEST_F(KilledReports, AtAnyCallOfADeletionAReportSavedNextIsNotLost) {
  for (int call = 1; call < kMostCalls; ++call) {
    SCOPED_TRACE(call);
    save_two();
    if (!test::killed_at_file_call(call, [this] { delete_old(); })) break;
    save(kNow);
    EXPECT_EQ(delete_old(), 0);
    expect_only({kYoung, kNow});
  }
}

TEST_F(KilledReports, AtAnyByteOfADeletionsCopiesTheOldFilesStay) {
  std::size_t kills = 0;
  for (std::size_t bytes = 0; bytes < kMostBytes; bytes += 7) {
    SCOPED_TRACE(bytes);
    save_two();
    if (!test::killed_at_file_size(bytes, [this] { delete_old(); })) break;
    ++kills;
    EXPECT_EQ(reports_recovery_procedure_in_domain("office", folder.path()), 0);
    expect_only({kOld, kYoung});
  }
  EXPECT_GT(kills, 10U);
}

struct Interrupted {
  const char* name;
  int calls_left;  ///< of the deletion
  std::vector<std::int64_t> recovered;
};

class KilledRecovery : public KilledReports, public testing::WithParamInterface<Interrupted> {
 protected:
  void interrupt_deletion(int calls) {
    save_two();
    ASSERT_TRUE(test::killed_at_file_call(calls - GetParam().calls_left, [this] { delete_old(); }));
  }
  /// How many calls a whole deletion makes, and one more.
  int calls_of_deletion() {
    int call = 0;
    do save_two();
    while (test::killed_at_file_call(++call, [this] { delete_old(); }));
    return call;
  }
};

TEST_P(KilledRecovery, AtAnyCallTheNextOneEndsWell) {
  const auto recover = [this] { reports_recovery_procedure_in_domain("office", folder.path()); };
  const int calls = calls_of_deletion();
  int call = 1;
  for (bool killed = true; killed; ++call) {
    SCOPED_TRACE(call);
    interrupt_deletion(calls);
    killed = test::killed_at_file_call(call, recover);
    recover();
    expect_only(GetParam().recovered);
  }
  EXPECT_GT(call, 3);
}

INSTANTIATE_TEST_SUITE_P(
    Of, KilledRecovery,
    testing::Values(Interrupted{"ADeletionBeforeItsLastFile", 6, {kOld, kYoung}},
                    Interrupted{"ACommittedDeletion", 3, {kYoung}}),
    [](const auto& test) { return test.param.name; });

}  // namespace
}  // namespace rrm::reports
