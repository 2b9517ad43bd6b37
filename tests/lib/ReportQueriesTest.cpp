#include "server/lib/report_queries.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <filesystem>

#include "server/lib/Config.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/JsonText.h"
#include "tests/support/TempFolder.h"

namespace rrm::reports {
namespace {

using test::CapturedLog;
using Texts = std::vector<std::string>;

constexpr const char* kIndex = "report_idx_office.txt";
constexpr const char* kConfig = "report_cfg_office.txt";
constexpr const char* kReport = "report_office.txt";
constexpr const char* kId = "2024-05-01,03:15:00,office";
constexpr const char* kSettings =
    "1,1,1,1,25,-70,-70,2,2,0,120,-75,-65,30,5,20,0,1,15,20,2,0,1,93,1";

/// JSON of the settings that the lines of the configuration file hold.
std::string settings_json() {
  return test::object_text([](JsonWriter& out) { DomainConfig().to_json(out); });
}

class ReportQueriesTest : public testing::Test {
 protected:
  Texts errors() const { return log.texts(LogLevel::Error); }
  std::string path(const char* file) const { return folder.file(file); }

  int list(const std::string& start, const std::string& finish, bool missing_ok = false) {
    int code = 0;
    text = test::object_text([&](JsonWriter& out) {
      code = get_radio_report_list(out, "office", folder.path(), start, finish, missing_ok);
    });
    return code;
  }
  int fetch(const std::string& id) {
    int code = 0;
    text = test::object_text(
        [&](JsonWriter& out) { code = get_radio_report(out, id, folder.path()); });
    return code;
  }
  int last(bool missing_ok = false) {
    int code = 0;
    text = test::object_text([&](JsonWriter& out) {
      code = get_last_radio_report(out, "office", folder.path(), missing_ok);
    });
    return code;
  }

  test::TempFolder folder;
  CapturedLog log;
  std::string text;  ///< what the query wrote
};

// --- query times --------------------------------------------------------------------------------

TEST_F(ReportQueriesTest, QueryTimesEndInUtc) {
  std::int64_t time = 0;
  EXPECT_EQ(get_utc_timestamp_from_string("2024-05-01,03:15:00 UTC", time), 0);
  EXPECT_EQ(time, 1714533300);
}

TEST_F(ReportQueriesTest, OtherTextsAreNoQueryTimes) {
  const std::pair<const char*, Texts> cases[] = {
      {"2024-05-01,03:15:00 GMT", {"Expected UTC timezone in: \"2024-05-01,03:15:00 GMT\"."}},
      {"2024-05-01 03:15:00 UTC",
       {"Parser error in string: \"2024-05-01 03:15:00\".",
        "Incorrect data/time in: \"2024-05-01 03:15:00 UTC\"."}},
      {"2024-05-01,03:15:00", {"Incorrect text length in: \"2024-05-01,03:15:00\"."}},
      {"2024-05-01,03:15:00  UTC", {"Incorrect text length in: \"2024-05-01,03:15:00  UTC\"."}},
      {"", {"Incorrect text length in: \"\"."}},
  };
  for (const auto& [source, records] : cases) {
    log.clear();
    std::int64_t time = 0;
    EXPECT_EQ(get_utc_timestamp_from_string(source, time), EINVAL) << source;
    EXPECT_EQ(errors(), records);
  }
}

// --- list ---------------------------------------------------------------------------------------

TEST_F(ReportQueriesTest, AReportDatedExactlyDateStartIsListedAndOneDatedDateFinishIsNot) {
  folder.write(kIndex,
               "1.1,2024-04-30,23:59:59\n1.1,2024-05-01,00:00:00\n1.1,2024-05-01,12:00:00\n"
               "1.1,2024-05-02,00:00:00\n");
  EXPECT_EQ(list("2024-05-01,00:00:00 UTC", "2024-05-02,00:00:00 UTC"), 0);
  EXPECT_EQ(text, R"({"data":[{"id":"2024-05-01,00:00:00,office","domain":"office",)"
                  R"("date":"2024-05-01,00:00:00 UTC"},{"id":"2024-05-01,12:00:00,office",)"
                  R"("domain":"office","date":"2024-05-01,12:00:00 UTC"}],"count":2})");
  EXPECT_TRUE(errors().empty());
  EXPECT_TRUE(log.events().empty());
}

TEST_F(ReportQueriesTest, ADomainWithoutFilesListsNothingWhenThatIsFine) {
  EXPECT_EQ(list("2024-05-01,00:00:00 UTC", "2024-05-02,00:00:00 UTC", true), 0);
  EXPECT_EQ(text, R"({"data":[],"count":0})");
  EXPECT_EQ(log.texts(LogLevel::Debug), Texts{"No reports for domain: \"office\"."});
}

TEST_F(ReportQueriesTest, ADomainWithoutFilesIsAnErrorOtherwise) {
  EXPECT_EQ(list("2024-05-01,00:00:00 UTC", "2024-05-02,00:00:00 UTC"), ENOENT);
  EXPECT_EQ(errors(), (Texts{"Error while read file \"" + path(kIndex) +
                                 "\", errno = 2: No such file or directory",
                             "Query reports list exit with error code: 2. Domain: \"office\". "
                             "Reports start date: \"2024-05-01,00:00:00 UTC\". Reports end date: "
                             "\"2024-05-02,00:00:00 UTC\"."}));
  EXPECT_EQ(log.events().size(), 1U);
  EXPECT_TRUE(log.has_event(EventCode::ReportListFailed, "office"));
}

TEST_F(ReportQueriesTest, ABadLineStillListsTheGoodOnesButTheCallReturns5) {
  folder.write(kIndex, "1.1,2024-05-01,00:00:00\n1.1,2024-05-xx\n1.1,2024-05-01,01:00:00\n");
  EXPECT_EQ(list("2024-05-01,00:00:00 UTC", "2024-05-02,00:00:00 UTC"), EIO);
  EXPECT_EQ(text, R"({"data":[{"id":"2024-05-01,00:00:00,office","domain":"office",)"
                  R"("date":"2024-05-01,00:00:00 UTC"},{"id":"2024-05-01,01:00:00,office",)"
                  R"("domain":"office","date":"2024-05-01,01:00:00 UTC"}],"count":2})");
  EXPECT_TRUE(log.has(LogLevel::Error, "Incorrect report data/time in file: \"" + path(kIndex) +
                                           "\", line: \"1.1,2024-05-xx\"."));
  EXPECT_TRUE(log.has_event(EventCode::ReportListFailed, "office"));
}

TEST_F(ReportQueriesTest, ADateThatWasCutOffWithinItsLastNumberIsBad) {
  folder.write(kIndex, "1.1,2024-05-01,00:30:0\n");
  EXPECT_EQ(list("2024-05-01,00:00:00 UTC", "2024-05-02,00:00:00 UTC"), EIO);
  EXPECT_EQ(text, R"({"data":[],"count":0})");
  EXPECT_EQ(errors().front(), "Incorrect data/time in string: \"2024-05-01,00:30:0\".");
}

TEST_F(ReportQueriesTest, DateStartEqualToDateFinishIsRejected) {
  EXPECT_EQ(list("2024-05-01,00:00:00 UTC", "2024-05-01,00:00:00 UTC", true), EINVAL);
  EXPECT_TRUE(log.has(LogLevel::Error,
                      "'date_start' in reports query must < 'date_finish' (date_start = "
                      "\"2024-05-01,00:00:00 UTC\", date_finish = \"2024-05-01,00:00:00 UTC\")."));
  EXPECT_TRUE(log.has_event(EventCode::ReportListFailed, "office"));
}

TEST_F(ReportQueriesTest, BadQueryTimesAreNamed) {
  EXPECT_EQ(list("x", "2024-05-02,00:00:00 UTC", true), EINVAL);
  EXPECT_TRUE(
      log.has(LogLevel::Error, "Incorrect data/time for 'date_start' in reports query (\"x\")."));
  EXPECT_EQ(list("2024-05-01,00:00:00 UTC", "y", true), EINVAL);
  EXPECT_TRUE(
      log.has(LogLevel::Error, "Incorrect data/time for 'date_finish' in reports query (\"y\")."));
}

TEST_F(ReportQueriesTest, EmptyListArgumentsAreNamed) {
  const char* day = "2024-05-01,00:00:00 UTC";
  const std::pair<std::array<const char*, 4>, const char*> cases[] = {
      {{"", "p", day, day}, "Argument 'domain_name' empty."},
      {{"d", "", day, day}, "Argument 'report_files_path' empty."},
      {{"d", "p", "", day}, "Argument 'date_start' empty."},
      {{"d", "p", day, ""}, "Argument 'date_finish' empty."},
  };
  for (const auto& [arguments, error] : cases) {
    log.clear();
    JsonWriter out;
    EXPECT_EQ(
        get_radio_report_list(out, arguments[0], arguments[1], arguments[2], arguments[3], true),
        EINVAL);
    EXPECT_EQ(errors().front(), error);
    EXPECT_EQ(log.events().size(), 1U);
  }
}

// --- one report ---------------------------------------------------------------------------------

constexpr const char* kLines =
    "1.1,2024-05-01,03:00:00,AA,A1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1\n"
    "1.1,2024-05-01,03:15:00,AA,A1,10,20,1,6,0,20,20,5,0,1 6,-1,-1,-1,-1,0,0\n"
    "1.1,2024-05-01,03:15:00,AA,A2,12,9,36,149,1,80,20,3,256,36 149,15,12,4,25,5,2\n"
    "1.0,2024-05-01,03:15:00,BB,B1,7,8,11,1,0,20,16,10,0,1\n";

constexpr const char* kDetails =
    R"([{"ap_mac":"AA","radio_interfaces":[)"
    R"({"radio_id":0,"radio_mac":"A1","before":{"power":10,"channel":1,"eirp":-1},)"
    R"("after":{"power":20,"channel":6,"eirp":-1},"bandwidth":20,"max_power":20,"min_power":5,)"
    R"("primary_channel":0,"available_channels":[1,6],"eirp-min":-1,"eirp-max":-1,)"
    R"("antenna-configuration":{"antenna-gain":0,"cable-loss":0}},)"
    R"({"radio_id":1,"radio_mac":"A2","before":{"power":12,"channel":36,"eirp":15},)"
    R"("after":{"power":9,"channel":149,"eirp":12},"bandwidth":80,"max_power":20,"min_power":3,)"
    R"("primary_channel":256,"available_channels":[36,149],"eirp-min":4,"eirp-max":25,)"
    R"("antenna-configuration":{"antenna-gain":5,"cable-loss":2}}]},)"
    R"({"ap_mac":"BB","radio_interfaces":[)"
    R"({"radio_id":0,"radio_mac":"B1","before":{"power":7,"channel":11},)"
    R"("after":{"power":8,"channel":1},"bandwidth":20,"max_power":16,"min_power":10,)"
    R"("primary_channel":0,"available_channels":[1]}]}])";

class FetchReportTest : public ReportQueriesTest {
 protected:
  FetchReportTest() {
    folder.write(kConfig, std::string("1.1,2024-05-01,03:00:00,0,") + kSettings +
                              "\n1.1,2024-05-01,03:15:00," + kSettings + "\n");
    folder.write(kReport, kLines);
  }
  static std::string expected() {
    return std::string(R"({"report":{"id":"2024-05-01,03:15:00,office","domain":"office",)") +
           R"("date":"2024-05-01,03:15:00 UTC","domain_config":)" + settings_json() +
           R"(,"details":)" + kDetails + "}}";
  }
  /// The records that end every failure to fetch `kId`.
  void expect_failure(int code) {
    EXPECT_EQ(errors().back(),
              "Report not found. Report Id: \"2024-05-01,03:15:00,office\". Domain: \"office\". "
              "Report date: \"2024-05-01,03:15:00\". Exit code: " +
                  std::to_string(code) + ".");
    EXPECT_EQ(log.events().size(), 1U);
    EXPECT_TRUE(log.has_event(EventCode::ReportFetchFailed, kId));
  }
  /// An empty file leaves `what` not found by `function`.
  void expect_nothing_in(const char* file, const std::string& what, const std::string& function) {
    folder.write(file, "");
    EXPECT_EQ(fetch(kId), EINVAL);
    EXPECT_EQ(errors().front(),
              what +
                  " not found. Report Id: \"2024-05-01,03:15:00,office\". Domain: \"office\". "
                  "Report date: \"2024-05-01,03:15:00\". File: \"" +
                  path(file) + "\".");
    EXPECT_TRUE(log.has(LogLevel::Debug, "Error call '" + function + "'."));
    expect_failure(EINVAL);
  }
};

TEST_F(FetchReportTest, HoldsSettingsAndRadiosOfBothLayouts) {
  EXPECT_EQ(fetch(kId), 0);
  EXPECT_EQ(text, expected());
  EXPECT_TRUE(log.records().empty());
  EXPECT_TRUE(log.events().empty());
}

TEST_F(FetchReportTest, LinesWithoutADateArePassedOver) {
  folder.write(kReport, "rubbish\n" + std::string(kLines) + "1.1,half\n");
  folder.write(kConfig, "rubbish\n1.1,2024-05-01,03:15:00," + std::string(kSettings) + "\n");
  EXPECT_EQ(fetch(kId), 0);
  EXPECT_EQ(text, expected());
  for (const char* file : {kReport, kConfig})
    EXPECT_TRUE(log.has(LogLevel::Error, "Not found report data/time in file: \"" + path(file) +
                                             "\", line: \"rubbish\"."));
  EXPECT_TRUE(log.has(LogLevel::Debug, "Report loaded, but not found report data/time in file: \"" +
                                           path(kReport) + "\", line: \"1.1,half\"."));
}

TEST_F(FetchReportTest, AnotherAccessPointInBetweenStartsANewElement) {
  folder.write(kReport,
               "1.0,2024-05-01,03:15:00,AA,A1,1,1,1,1,0,20,16,10,0,1\n"
               "1.0,2024-05-01,03:15:00,BB,B1,1,1,1,1,0,20,16,10,0,1\n"
               "1.0,2024-05-01,03:15:00,AA,A2,1,1,1,1,1,20,16,10,0,1\n");
  EXPECT_EQ(fetch(kId), 0);
  EXPECT_NE(text.find(R"([{"ap_mac":"AA","radio_interfaces":[{"radio_id":0)"), std::string::npos);
  EXPECT_NE(text.find(R"({"ap_mac":"BB","radio_interfaces":[{"radio_id":0)"), std::string::npos);
  EXPECT_NE(text.find(R"({"ap_mac":"AA","radio_interfaces":[{"radio_id":1)"), std::string::npos);
}

TEST_F(FetchReportTest, ChannelsThatAreNoNumbersAreWrittenAsZeroAndEndIt) {
  const std::string line = "1.0,2024-05-01,03:15:00,AA,A1,1,1,1,1,0,20,16,10,0,1 x 6";
  folder.write(kReport, line + "\n");
  EXPECT_EQ(fetch(kId), EIO);
  EXPECT_NE(text.find(R"("available_channels":[1,0,6])"), std::string::npos);
  EXPECT_TRUE(log.has(LogLevel::Error, "Argument \"x\" inconvertible."));
  EXPECT_TRUE(log.has(LogLevel::Error, "Report parser error in string: \"" + line + "\"."));
  EXPECT_TRUE(log.has(LogLevel::Debug, "Error call 'get_radio_report_data'."));
  expect_failure(EIO);
}

/// One radio of access point "AA" whose every number is the place of its field in the line.
class ReportLineTest : public FetchReportTest {
 protected:
  /// The report when the line has a text in place of one of its fields.
  int fetch_with(std::size_t place, const std::string& field) {
    std::string line = "1.1,2024-05-01,03:15:00,AA";
    for (std::size_t i = 4; i <= 20; ++i) line += "," + (i == place ? field : std::to_string(i));
    folder.write(kReport, line + "\n");
    return fetch(kId);
  }
  /// The same as JSON, with a value in place of that of the field.
  static std::string expected_with(std::size_t place, const std::string& value) {
    const auto at = [&](std::size_t i) { return i == place ? value : std::to_string(i); };
    const auto channels = place == 14 ? value : "[14]";
    const auto mac = place == 4 ? value : "\"4\"";
    return std::string(R"({"report":{"id":"2024-05-01,03:15:00,office","domain":"office",)") +
           R"("date":"2024-05-01,03:15:00 UTC","domain_config":)" + settings_json() +
           R"(,"details":[{"ap_mac":"AA","radio_interfaces":[{"radio_id":)" + at(9) +
           R"(,"radio_mac":)" + mac + R"(,"before":{"power":)" + at(5) + R"(,"channel":)" + at(7) +
           R"(,"eirp":)" + at(15) + R"(},"after":{"power":)" + at(6) + R"(,"channel":)" + at(8) +
           R"(,"eirp":)" + at(16) + R"(},"bandwidth":)" + at(10) + R"(,"max_power":)" + at(11) +
           R"(,"min_power":)" + at(12) + R"(,"primary_channel":)" + at(13) +
           R"(,"available_channels":)" + channels + R"(,"eirp-min":)" + at(17) + R"(,"eirp-max":)" +
           at(18) + R"(,"antenna-configuration":{"antenna-gain":)" + at(19) + R"(,"cable-loss":)" +
           at(20) + "}}]}]}}";
  }
};

TEST_F(ReportLineTest, HasEveryNumberUnderItsKey) {
  EXPECT_EQ(fetch_with(0, ""), 0);
  EXPECT_EQ(text, expected_with(0, ""));
}

TEST_F(ReportLineTest, ANumberThatCannotBeReadIsWrittenAsZeroUnderItsKeyAndEndsIt) {
  for (const std::size_t place : {5, 6, 7, 8, 9, 10, 11, 12, 13, 15, 16, 17, 18, 19, 20}) {
    for (const char* field : {"x", "", "2147483648"}) {
      log.clear();
      EXPECT_EQ(fetch_with(place, field), EIO) << place;
      EXPECT_EQ(text, expected_with(place, "0")) << place;
      expect_failure(EIO);
    }
  }
}

TEST_F(ReportLineTest, ARadioWithoutAMacEndsIt) {
  EXPECT_EQ(fetch_with(4, ""), EIO);
  EXPECT_EQ(text, expected_with(4, "\"\""));
  expect_failure(EIO);
}

TEST_F(ReportLineTest, ARadioWithoutChannelsToChooseFromIsWhole) {
  EXPECT_EQ(fetch_with(14, ""), 0);
  EXPECT_EQ(text, expected_with(14, "[]"));
}

TEST_F(FetchReportTest, ALineOfTheOldLayoutThatEndsBeforeItsChannelsEndsIt) {
  folder.write(kReport, "1.0,2024-05-01,03:15:00,AA,A1,1,1,1,1,0,20,16,10,0\n");
  EXPECT_EQ(fetch(kId), EIO);
  EXPECT_NE(text.find(R"("available_channels":[])"), std::string::npos);
  expect_failure(EIO);
}

TEST_F(FetchReportTest, ALineThatEndsEarlyEndsIt) {
  folder.write(kReport, "1.1,2024-05-01,03:15:00,AA,A1,10,20,1,6,0,20,20,5,0,1 6\n");
  EXPECT_EQ(fetch(kId), EIO);
  expect_failure(EIO);
}

TEST_F(FetchReportTest, ALineWithoutAccessPointIsNamed) {
  folder.write(kReport, "1.1,2024-05-01,03:15:00\n");
  EXPECT_EQ(fetch(kId), EIO);
  EXPECT_TRUE(log.has(LogLevel::Error,
                      "Not found AP MAC-address in report line: \"1.1,2024-05-01,03:15:00\"."));
  expect_failure(EIO);
}

TEST_F(FetchReportTest, SettingsThatDoNotConvertEndIt) {
  folder.write(kConfig, "1.1,2024-05-01,03:15:00,1,x\n");
  EXPECT_EQ(fetch(kId), EIO);
  EXPECT_TRUE(
      log.has(LogLevel::Error, "Report parser error in string: \"1.1,2024-05-01,03:15:00,1,x\"."));
  EXPECT_TRUE(log.has(LogLevel::Debug, "Error call 'get_radio_report_domain_config'."));
  expect_failure(EIO);
}

TEST_F(FetchReportTest, AReportWithoutSettingsIsNamed) {
  expect_nothing_in(kConfig, "Domain config for report", "get_radio_report_domain_config");
}

TEST_F(FetchReportTest, AReportWithoutRadiosIsNamed) {
  expect_nothing_in(kReport, "Report data", "get_radio_report_data");
}

TEST_F(FetchReportTest, FilesThatCannotBeReadEndIt) {
  std::filesystem::remove(path(kReport));
  EXPECT_EQ(fetch(kId), ENOENT);
  EXPECT_EQ(errors().front(), "Error while read file \"" + path(kReport) +
                                  "\", errno = 2: No such file or directory");
  expect_failure(ENOENT);
}

TEST_F(FetchReportTest, APipeInAFilesPlaceEndsItAtOnce) {
  std::filesystem::remove(path(kReport));
  ASSERT_EQ(::mkfifo(path(kReport).c_str(), 0600), 0);
  EXPECT_EQ(fetch(kId), EINVAL);
  EXPECT_EQ(errors().front(),
            "Error while read file \"" + path(kReport) + "\", errno = 22: Invalid argument");
  expect_failure(EINVAL);
}

TEST_F(FetchReportTest, BadReportIdsAreNamed) {
  const std::pair<const char*, Texts> cases[] = {
      {"", {"Argument 'report_id' is empty."}},
      {"2024-05-01",
       {"Not found field 1 in string: \"2024-05-01\".",
        "Not found date/time in string: \"2024-05-01\".",
        "Not found date/time in 'report_id': \"2024-05-01\"."}},
      {"2024-05-01,03:15:00",
       {"Not found field 2 in string: \"2024-05-01,03:15:00\".",
        "Not found domain name in 'report_id': \"2024-05-01,03:15:00\"."}},
      {"a,b,office",
       {"Parser error in string: \"a,b\".", "Incorrect data/time in 'report_id': \"a,b,office\"."}},
  };
  for (const auto& [id, records] : cases) {
    log.clear();
    EXPECT_EQ(fetch(id), EINVAL);
    Texts found = errors();
    ASSERT_EQ(found.size(), records.size() + 1) << id;
    EXPECT_EQ(found.back().rfind("Report not found. Report Id: \"" + std::string(id) + "\".", 0),
              0U);
    found.pop_back();
    EXPECT_EQ(found, records);
    EXPECT_EQ(log.has(LogLevel::Debug, "Error call 'get_fields_from_report_id'."), *id != '\0');
    EXPECT_EQ(log.events().size(), 1U);
    EXPECT_TRUE(log.has_event(EventCode::ReportFetchFailed, id));
  }
}

TEST_F(FetchReportTest, AnEmptyPathIsNamed) {
  JsonWriter out;
  EXPECT_EQ(get_radio_report(out, kId, ""), EINVAL);
  EXPECT_EQ(errors().front(), "Argument 'report_files_path' is empty.");
}

// --- the latest ---------------------------------------------------------------------------------

TEST_F(FetchReportTest, TheLatestIsThatOfTheLastIndexLine) {
  folder.write(kIndex, "1.1,2024-05-01,03:00:00\n1.1,2024-05-01,03:15:00\n");
  EXPECT_EQ(last(), 0);
  EXPECT_EQ(text, expected());
}

TEST_F(FetchReportTest, TheOnlyIndexLineIsTheLatest) {
  folder.write(kIndex, "1.1,2024-05-01,03:15:00\n");
  EXPECT_EQ(last(), 0);
  EXPECT_EQ(text, expected());
}

TEST_F(FetchReportTest, AnIndexLineThatWasNeverFinishedIsNoReport) {
  folder.write(kIndex, "1.1,2024-05-01,03:15:00\n1.1,2024-05-01,03:4");
  EXPECT_EQ(last(), 0);
  EXPECT_EQ(text, expected());
}

TEST_F(FetchReportTest, ALongIndexIsReadFromItsEnd) {
  std::string index;
  for (int i = 0; i < 1000; ++i) index += "1.1,2024-05-01,03:00:00\n";
  folder.write(kIndex, index + "1.1,2024-05-01,03:15:00\n");
  EXPECT_EQ(last(), 0);
  EXPECT_EQ(text, expected());
}

TEST_F(FetchReportTest, ALastLineWithoutADateGives5) {
  folder.write(kIndex, "1.1,2024-05-01,03:15:00\nrubbish\n");
  EXPECT_EQ(last(), EIO);
  EXPECT_TRUE(log.has(LogLevel::Error, "Incorrect report data/time in file: \"" + path(kIndex) +
                                           "\", line: \"rubbish\"."));
  EXPECT_EQ(errors().back(),
            "Query last radio report exit with error code: 5. Domain: \"office\".");
  EXPECT_EQ(log.events().size(), 1U);
  EXPECT_TRUE(log.has_event(EventCode::ReportLastFailed, "office"));
}

TEST_F(FetchReportTest, WithoutReportsNothingIsAddedWhenThatIsFine) {
  for (const char* content : {"", "\n"}) {
    log.clear();
    folder.write(kIndex, content);
    EXPECT_EQ(last(true), 0);
    EXPECT_EQ(text, "{}");
    EXPECT_EQ(log.texts(LogLevel::Debug), Texts{"No reports for domain: \"office\"."});
  }
  std::filesystem::remove(path(kIndex));
  EXPECT_EQ(last(true), 0);
  EXPECT_TRUE(log.events().empty());
}

TEST_F(ReportQueriesTest, AFileInPlaceOfTheFolderHoldsNoReports) {
  const std::string file = folder.write("file", "");
  for (const bool missing_ok : {true, false}) {
    log.clear();
    JsonWriter list;
    JsonWriter latest;
    EXPECT_EQ(get_radio_report_list(list, "office", file, "2024-05-01,00:00:00 UTC",
                                    "2024-05-02,00:00:00 UTC", missing_ok),
              missing_ok ? 0 : ENOTDIR);
    EXPECT_EQ(get_last_radio_report(latest, "office", file, missing_ok), missing_ok ? 0 : ENOTDIR);
    EXPECT_EQ(log.count(LogLevel::Debug, "No reports for domain: \"office\"."),
              missing_ok ? 2U : 0U);
  }
}

TEST_F(FetchReportTest, WithoutReportsItFailsOtherwise) {
  EXPECT_EQ(last(), ENOENT);
  EXPECT_TRUE(log.has_event(EventCode::ReportLastFailed, "office"));
  folder.write(kIndex, "");
  EXPECT_EQ(last(), EIO);
}

TEST_F(FetchReportTest, ALatestReportThatCannotBeFetchedRaisesBothEvents) {
  folder.write(kIndex, "1.1,2024-05-01,04:00:00\n");
  EXPECT_EQ(last(), EINVAL);
  EXPECT_TRUE(log.has(LogLevel::Debug, "Error call 'reports::get_radio_report'. Exit code: 22."));
  EXPECT_TRUE(log.has_event(EventCode::ReportFetchFailed, "2024-05-01,04:00:00,office"));
  EXPECT_TRUE(log.has_event(EventCode::ReportLastFailed, "office"));
}

TEST_F(ReportQueriesTest, EmptyLastArgumentsAreNamed) {
  JsonWriter out;
  EXPECT_EQ(get_last_radio_report(out, "", "p", true), EINVAL);
  EXPECT_EQ(errors().front(), "Argument 'domain_name' empty.");
  log.clear();
  EXPECT_EQ(get_last_radio_report(out, "d", "", true), EINVAL);
  EXPECT_EQ(errors().front(), "Argument 'report_files_path' empty.");
}

}  // namespace
}  // namespace rrm::reports
