#include "server/lib/report_optimize_tpc_dca.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <stdexcept>

#include "tests/support/ApBuilder.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/RandomDomain.h"
#include "tests/support/TempFolder.h"
#include "tests/support/Thrown.h"

namespace rrm::reports {
namespace {

using test::CapturedLog;
using test::thrown_text;
using Texts = std::vector<std::string>;

constexpr const char* kDate = "2024-05-01,03:15:00";
constexpr const char* kDefaultSettings =
    "1,1,1,1,25,-70,-70,2,2,0,120,-75,-65,30,5,20,0,1,15,20,2,0,1,93,1";

// --- recording ----------------------------------------------------------------------------------

class RememberReportTest : public testing::Test {
 protected:
  RememberReportTest() : ap(test::add_ap(domain, 0x00a1b2c3d400)) {}

  test::MadeDomain domain;
  ApEntry& ap;
  RadioReport report;
};

TEST_F(RememberReportTest, BeforeTakesTheValuesAndLimitsOfTheRadio) {
  Radio& radio = test::enable_radio(ap, 1, 5, 36);
  radio.power = 12;
  radio.eirp = 15;
  radio.bandwidth = 80;
  radio.primary_channel = 256;
  test::limit_power(radio, {.power_min = 3,
                            .power_max = 20,
                            .eirp_min = 4,
                            .eirp_max = 25,
                            .antenna_gain = 5,
                            .cable_loss = 2});
  radio.available_channels = {149, 36, 100, 40};
  remember_radio_report_before_optimize(report, kDate, domain.aps);
  const RadioRecord expected{12, 0, 15, 0, 36, 0, 1, 80, 20, 3, 4, 25, 5, 2, 256, "36 40 100 149"};
  EXPECT_EQ(report,
            (RadioReport{{"2024-05-01,03:15:00,00:A1:B2:C3:D4:00,00:A1:B2:C3:D4:10", expected}}));
}

TEST_F(RememberReportTest, AfterAddsPowerEirpAndChannel) {
  Radio& radio = test::enable_radio(ap, 0, 2, 1);
  remember_radio_report_before_optimize(report, kDate, domain.aps);
  radio.power = 17;
  radio.eirp = 19;
  radio.channel = 11;
  remember_radio_report_after_optimize(report, kDate, domain.aps);
  ASSERT_EQ(report.size(), 1U);
  const RadioRecord& record = report.begin()->second;
  EXPECT_EQ(record.power_before, 10);
  EXPECT_EQ(record.power_after, 17);
  EXPECT_EQ(record.eirp_before, -1);
  EXPECT_EQ(record.eirp_after, 19);
  EXPECT_EQ(record.channel_before, 1);
  EXPECT_EQ(record.channel_after, 11);
}

TEST_F(RememberReportTest, AfterMakesARecordThatIsMissing) {
  test::enable_radio(ap, 0, 2, 6);
  remember_radio_report_after_optimize(report, kDate, domain.aps);
  ASSERT_EQ(report.size(), 1U);
  RadioRecord expected;
  expected.power_after = 10;
  expected.eirp_after = -1;
  expected.channel_after = 6;
  EXPECT_EQ(report.begin()->second, expected);
}

TEST_F(RememberReportTest, ARadioLockedForTpcOnlyIsReported) {
  test::enable_radio(ap, 0, 2, 1).locked_for_tpc = 1;
  remember_radio_report_before_optimize(report, kDate, domain.aps);
  EXPECT_EQ(report.size(), 1U);
}

TEST_F(RememberReportTest, ARadioLockedForDcaOnlyIsReported) {
  test::enable_radio(ap, 0, 2, 1).locked_for_dca = 1;
  remember_radio_report_before_optimize(report, kDate, domain.aps);
  EXPECT_EQ(report.size(), 1U);
}

TEST_F(RememberReportTest, LockedForBothDisabledAndChoicelessRadiosAreNotReported) {
  Radio& locked = test::enable_radio(ap, 0, 2, 1);
  locked.locked_for_tpc = 1;
  locked.locked_for_dca = 1;
  test::enable_radio(ap, 1, 2, 1).status = false;
  test::enable_radio(ap, 2, 2, 1).available_channels.clear();
  remember_radio_report_before_optimize(report, kDate, domain.aps);
  remember_radio_report_after_optimize(report, kDate, domain.aps);
  EXPECT_TRUE(report.empty());
}

TEST_F(RememberReportTest, AnEmptyDateIsAnInvalidArgumentOfItsFunction) {
  EXPECT_EQ(thrown_text<std::invalid_argument>(
                [&] { remember_radio_report_before_optimize(report, "", domain.aps); }),
            "remember_radio_report_before_optimize: Invalid argument 'optimize_start_date'.");
  EXPECT_EQ(thrown_text<std::invalid_argument>(
                [&] { remember_radio_report_after_optimize(report, "", domain.aps); }),
            "remember_radio_report_after_optimize: Invalid argument 'optimize_start_date'.");
}

TEST(ReportKey, IsDateAccessPointAndRadio) {
  EXPECT_EQ(create_key_for_domain_radio_report(kDate, "AA", "BB"), "2024-05-01,03:15:00,AA,BB");
}

TEST(ReportKey, EmptyPartsAreInvalidArguments) {
  EXPECT_EQ(thrown_text<std::invalid_argument>(
                [] { create_key_for_domain_radio_report("", "AA", "BB"); }),
            "create_key_for_domain_radio_report: Invalid argument 'optimize_start_date'.");
  EXPECT_EQ(thrown_text<std::invalid_argument>(
                [] { create_key_for_domain_radio_report(kDate, "", "BB"); }),
            "create_key_for_domain_radio_report: Invalid argument 'ap_mac_str'.");
  EXPECT_EQ(thrown_text<std::invalid_argument>(
                [] { create_key_for_domain_radio_report(kDate, "AA", ""); }),
            "create_key_for_domain_radio_report: Invalid argument 'radio_mac_str'.");
}

// --- saving -------------------------------------------------------------------------------------

class SaveReportTest : public testing::Test {
 protected:
  SaveReportTest() {
    const std::string prefix = std::string(kDate) + ",00:A1:B2:C3:D4:00,00:A1:B2:C3:D4:";
    report[prefix + "10"] = {12, 9, 15, 12, 36, 149, 1, 80, 20, 3, 4, 25, 5, 2, 256, "36 149"};
    report[prefix + "00"] = {10, 20, -1, -1, 1, 6, 0, 20, 20, 5, -1, -1, 0, 0, 0, "1 6"};
  }
  int save() { return save_radio_report_to_files(report, "office", kDate, folder.path(), config); }
  std::string error(int code) const {
    return "Error while save radio report for domain: \"office\". Report date: "
           "\"2024-05-01,03:15:00\". Exit code: " +
           std::to_string(code) + ".";
  }

  test::TempFolder folder;
  DomainConfig config;
  RadioReport report;
  CapturedLog log;
};

constexpr const char* kReportLines =
    "1.1,2024-05-01,03:15:00,00:A1:B2:C3:D4:00,00:A1:B2:C3:D4:00,10,20,1,6,0,20,20,5,0,1 "
    "6,-1,-1,-1,-1,0,0\n"
    "1.1,2024-05-01,03:15:00,00:A1:B2:C3:D4:00,00:A1:B2:C3:D4:10,12,9,36,149,1,80,20,3,256,36 "
    "149,15,12,4,25,5,2\n";

TEST_F(SaveReportTest, WritesTheLinesOfTheThreeFiles) {
  EXPECT_EQ(save(), 0);
  EXPECT_EQ(folder.read("report_office.txt"), kReportLines);
  EXPECT_EQ(folder.read("report_cfg_office.txt"),
            std::string("1.1,2024-05-01,03:15:00,") + kDefaultSettings + "\n");
  EXPECT_EQ(folder.read("report_idx_office.txt"), "1.1,2024-05-01,03:15:00\n");
  EXPECT_EQ(folder.entries(), 3U);
  EXPECT_EQ(log.texts(LogLevel::Error), Texts{});
}

TEST_F(SaveReportTest, AppendsToWhatIsThere) {
  save();
  EXPECT_EQ(save(), 0);
  EXPECT_EQ(folder.read("report_office.txt"), std::string(kReportLines) + kReportLines);
  EXPECT_EQ(folder.read("report_idx_office.txt"),
            "1.1,2024-05-01,03:15:00\n1.1,2024-05-01,03:15:00\n");
}

TEST_F(SaveReportTest, HalfALineThatAKilledProcessLeftStaysAlone) {
  folder.write("report_office.txt", "1.1,2024-04-30,03");
  folder.write("report_idx_office.txt", "1.1,2024-04-30,03:15:0");
  EXPECT_EQ(save(), 0);
  EXPECT_EQ(folder.read("report_office.txt"), std::string("1.1,2024-04-30,03\n") + kReportLines);
  EXPECT_EQ(folder.read("report_idx_office.txt"),
            "1.1,2024-04-30,03:15:0\n1.1,2024-05-01,03:15:00\n");
}

TEST_F(SaveReportTest, UndoesAnUnfinishedDeletionThatWouldTakeTheReportWithIt) {
  folder.write("report_office.txt", "");
  folder.write("report_cfg_office.txt", "");
  folder.write("report_idx_office.txt.old", "1.1,2024-04-30,03:15:00\n");
  folder.write("report_office.txt.start_status", "");
  EXPECT_EQ(save(), 0);
  EXPECT_EQ(folder.read("report_idx_office.txt"),
            "1.1,2024-04-30,03:15:00\n1.1,2024-05-01,03:15:00\n");
  EXPECT_EQ(folder.entries(), 3U);
  EXPECT_EQ(log.texts(LogLevel::Warning),
            Texts{"Detected unclean reports repository for domain: \"office\". Started "
                  "rollback/recovery procedure."});
}

TEST_F(SaveReportTest, WritesTheReportEvenWhenTheRecoveryFails) {
  folder.write("report_office.txt.start_status", "");
  std::filesystem::create_directory(folder.file("report_idx_office.txt.tmp"));
  EXPECT_EQ(save(), 0);
  EXPECT_EQ(folder.read("report_idx_office.txt"), "1.1,2024-05-01,03:15:00\n");
  EXPECT_TRUE(log.has(LogLevel::Error,
                      "Rollback/recovery procedure fail for domain: \"office\" exit with error "
                      "code: 21."));
}

TEST_F(SaveReportTest, NamesItsFilesAtDebugLevel) {
  save();
  EXPECT_EQ(log.texts(LogLevel::Debug),
            (Texts{"report_file_name = \"" + folder.file("report_office.txt") + "\"",
                   "report_config_file_name = \"" + folder.file("report_cfg_office.txt") + "\"",
                   "report_index_file_name = \"" + folder.file("report_idx_office.txt") + "\""}));
}

TEST_F(SaveReportTest, AReportWithoutRadiosStillHasItsThreeFiles) {
  report.clear();
  EXPECT_EQ(save(), 0);
  EXPECT_TRUE(folder.has("report_office.txt"));
  EXPECT_EQ(folder.read("report_office.txt"), "");
  EXPECT_EQ(folder.read("report_idx_office.txt"), "1.1,2024-05-01,03:15:00\n");
}

TEST_F(SaveReportTest, AFailureInTheReportFileEndsIt) {
  std::filesystem::create_directory(folder.file("report_office.txt"));
  EXPECT_EQ(save(), EISDIR);
  EXPECT_EQ(log.texts(LogLevel::Error),
            (Texts{"Error call 'write_radio_report_to_file'.", error(EISDIR)}));
  EXPECT_FALSE(folder.has("report_cfg_office.txt"));
}

TEST_F(SaveReportTest, AFailureInTheConfigurationFileEndsIt) {
  std::filesystem::create_directory(folder.file("report_cfg_office.txt"));
  EXPECT_EQ(save(), EISDIR);
  EXPECT_EQ(log.texts(LogLevel::Error),
            (Texts{"Error call 'write_radio_report_domain_config_to_file'.", error(EISDIR)}));
  EXPECT_FALSE(folder.has("report_idx_office.txt"));
}

TEST_F(SaveReportTest, AFailureInTheIndexFileIsReported) {
  std::filesystem::create_directory(folder.file("report_idx_office.txt"));
  EXPECT_EQ(save(), EISDIR);
  EXPECT_EQ(log.texts(LogLevel::Error),
            (Texts{"Error call 'write_radio_report_id_to_file'.", error(EISDIR)}));
}

TEST_F(SaveReportTest, AFullDiskIsReported) {
  std::filesystem::create_symlink("/dev/full", folder.file("report_office.txt"));
  EXPECT_EQ(save(), ENOSPC);
  EXPECT_TRUE(log.has(LogLevel::Error, error(ENOSPC)));
}

TEST_F(SaveReportTest, ADiskThatBecomesFullWithinAReportLeavesTheFileAsItWas) {
  ASSERT_EQ(save(), 0);
  const std::string before = folder.read("report_office.txt");
  const auto old_action = ::signal(SIGXFSZ, SIG_IGN);
  rlimit old_limit{};
  ::getrlimit(RLIMIT_FSIZE, &old_limit);
  const rlimit limit{before.size() + 50, old_limit.rlim_max};
  ::setrlimit(RLIMIT_FSIZE, &limit);
  const int code = save();
  ::setrlimit(RLIMIT_FSIZE, &old_limit);
  ::signal(SIGXFSZ, old_action);
  EXPECT_EQ(code, EFBIG);
  EXPECT_EQ(folder.read("report_office.txt"), before);
  EXPECT_EQ(folder.read("report_idx_office.txt"), "1.1,2024-05-01,03:15:00\n");
}

TEST_F(SaveReportTest, AMissingFolderIsReported) {
  EXPECT_EQ(save_radio_report_to_files(report, "office", kDate, folder.file("none"), config),
            ENOENT);
  EXPECT_TRUE(log.has(LogLevel::Error, error(ENOENT)));
}

TEST_F(SaveReportTest, EmptyArgumentsAreInvalid) {
  EXPECT_EQ(save_radio_report_to_files(report, "", kDate, folder.path(), config), EINVAL);
  EXPECT_EQ(save_radio_report_to_files(report, "office", "", folder.path(), config), EINVAL);
  EXPECT_EQ(save_radio_report_to_files(report, "office", kDate, "", config), EINVAL);
  EXPECT_EQ(folder.entries(), 0U);
}

}  // namespace
}  // namespace rrm::reports
