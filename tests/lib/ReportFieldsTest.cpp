#include "server/lib/report_fields.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cerrno>
#include <ctime>

#include "tests/support/CapturedLog.h"

namespace rrm::reports {
namespace {

using test::CapturedLog;

constexpr std::int64_t kMayFirst = 1714533300;  // 2024-05-01,03:15:00

class ReportFieldsTest : public testing::Test {
 protected:
  std::vector<std::string> errors() const { return log.texts(LogLevel::Error); }

  CapturedLog log;
  std::string text = "untouched";
  std::int32_t number = -7;
};

using Texts = std::vector<std::string>;

TEST_F(ReportFieldsTest, FieldsAreCountedFromZero) {
  EXPECT_EQ(get_field_by_num_as_str("1.1,b,c", 0, text), 0);
  EXPECT_EQ(text, "1.1");
  EXPECT_EQ(get_field_by_num_as_str("1.1,b,c", 2, text), 0);
  EXPECT_EQ(text, "c");
  EXPECT_EQ(get_field_by_num_as_str("a b,c d", 1, text, ' '), 0);
  EXPECT_EQ(text, "b,c");
  EXPECT_TRUE(errors().empty());
}

TEST_F(ReportFieldsTest, AnEmptyLineHasNoFields) {
  EXPECT_EQ(get_field_by_num_as_str("", 0, text), EINVAL);
  EXPECT_EQ(errors(), Texts{"'source' string is empty."});
}

TEST_F(ReportFieldsTest, AMissingFieldIsNamed) {
  EXPECT_EQ(get_field_by_num_as_str("a,b", 2, text), EINVAL);
  EXPECT_EQ(errors(), Texts{"Not found field 2 in string: \"a,b\"."});
  EXPECT_EQ(text, "untouched");
}

TEST_F(ReportFieldsTest, EmptyFieldsAreRefusedWithTheirPlace) {
  EXPECT_EQ(get_field_by_num_as_str("a,,c", 1, text), EINVAL);
  EXPECT_EQ(get_field_by_num_as_str("a,b,", 2, text), EINVAL);
  EXPECT_EQ(errors(), (Texts{"Requested empty field 1 in string: \"a,,c\".",
                             "Requested field 2 is empty (string: \"a,b,\")."}));
}

TEST_F(ReportFieldsTest, EmptyFieldsAreTakenWhenAllowed) {
  EXPECT_EQ(get_field_by_num_as_str("a,,c", 1, text, ',', true), 0);
  EXPECT_EQ(text, "");
  EXPECT_TRUE(errors().empty());
}

TEST_F(ReportFieldsTest, IntegerFields) {
  EXPECT_EQ(get_field_by_num_as_int("1.1,-70", 1, number), 0);
  EXPECT_EQ(number, -70);
  EXPECT_EQ(get_field_by_num_as_int("1.1,x", 1, number), EINVAL);
  EXPECT_EQ(number, -70);
  EXPECT_EQ(errors(),
            (Texts{"Argument \"x\" inconvertible.", "Incorrect field 1 in string: \"1.1,x\"."}));
}

TEST_F(ReportFieldsTest, IntegersAreReadInAnyBaseOfC) {
  const std::pair<const char*, std::int32_t> cases[] = {
      {"0x1F", 31}, {"0x10", 16}, {"010", 8},
      {"0", 0},     {"-12", -12}, {"2147483647", 2147483647},
      {" 5", 5},    {"+5", 5},    {"-2147483648", -2147483647 - 1},
  };
  for (const auto& [source, value] : cases) {
    const IntResult result = str_to_int_with_log(source);
    EXPECT_TRUE(result.ok) << source;
    EXPECT_EQ(result.code, 0) << source;
    EXPECT_EQ(result.value, value) << source;
  }
  EXPECT_TRUE(errors().empty());
}

TEST_F(ReportFieldsTest, TextsThatAreNoIntegersAreRefusedWithTheirReason) {
  struct Case {
    std::string source;
    int code;
    std::string error;
  };
  const Case cases[] = {
      {"", EINVAL, "String for convert is empty."},
      {"12abc", EINVAL, "Argument \"12abc\" inconvertible."},
      {"abc", EINVAL, "Argument \"abc\" inconvertible."},
      {"08", EINVAL, "Argument \"08\" inconvertible."},
      {"5 ", EINVAL, "Argument \"5 \" inconvertible."},
      {"2147483648", EINVAL, "Argument \"2147483648\" too big."},
      {"2147483648x", EINVAL, "Argument \"2147483648x\" too big."},
      {"-2147483649", EINVAL, "Argument \"-2147483649\" too small."},
      {"99999999999999999999", ERANGE,
       "Argument \"99999999999999999999\" invalid. Error code: 34 (Numerical result out of "
       "range)."},
  };
  for (const Case& c : cases) {
    log.clear();
    const IntResult result = str_to_int_with_log(c.source);
    EXPECT_FALSE(result.ok) << c.source;
    EXPECT_EQ(result.code, c.code) << c.source;
    EXPECT_EQ(errors(), Texts{c.error});
  }
}

TEST_F(ReportFieldsTest, AnEarlierFailureElsewhereDoesNotSpoilANumber) {
  errno = EACCES;
  const IntResult result = str_to_int_with_log("0x1F");
  EXPECT_TRUE(result.ok);
  EXPECT_EQ(result.value, 31);
  EXPECT_EQ(errors(), Texts{});
}

TEST_F(ReportFieldsTest, ANulByteInANumberIsTrailingText) {
  EXPECT_FALSE(str_to_int_with_log(std::string("5\0"
                                               "6",
                                               3))
                   .ok);
}

TEST_F(ReportFieldsTest, DateAndTimeAreFieldsOneAndTwo) {
  EXPECT_EQ(get_date_time_fields_from_file_line_as_str("1.1,2024-05-01,03:15:00,x", text), 0);
  EXPECT_EQ(text, "2024-05-01,03:15:00");
}

TEST_F(ReportFieldsTest, AMissingDateOrTimeIsNamed) {
  EXPECT_EQ(get_date_time_fields_from_file_line_as_str("1.1", text), EINVAL);
  EXPECT_EQ(errors(), (Texts{"Not found field 1 in string: \"1.1\".",
                             "Not found date in report line: \"1.1\"."}));
  log.clear();
  EXPECT_EQ(get_date_time_fields_from_file_line_as_str("1.1,2024-05-01", text), EINVAL);
  EXPECT_EQ(errors(), (Texts{"Not found field 2 in string: \"1.1,2024-05-01\".",
                             "Not found time in report line: \"1.1,2024-05-01\"."}));
}

TEST_F(ReportFieldsTest, DatesAreUtc) {
  std::int64_t time = 0;
  EXPECT_EQ(parse_date_time_fields_to_time_t("2024-05-01,03:15:00", time), 0);
  EXPECT_EQ(time, kMayFirst);
}

TEST_F(ReportFieldsTest, TextsThatAreNoDatesAreRefused) {
  const std::pair<const char*, const char*> cases[] = {
      {"2024-05-01 03:15:00", "Parser error in string: \"2024-05-01 03:15:00\"."},
      {"", "Parser error in string: \"\"."},
      {"2024-13-01,03:15:00", "Parser error in string: \"2024-13-01,03:15:00\"."},
      {"2024-05-01,03:15:00Z", "Incorrect data/time in string: \"2024-05-01,03:15:00Z\"."},
      {"2024-05-01,03:15:001.1", "Incorrect data/time in string: \"2024-05-01,03:15:001.1\"."},
      {"1969-12-31,23:59:59", "Incorrect data/time in string: \"1969-12-31,23:59:59\"."},
      {"2023-02-29,00:00:00", "Incorrect data/time in string: \"2023-02-29,00:00:00\"."},
  };
  for (const auto& [source, error] : cases) {
    log.clear();
    std::int64_t time = 77;
    EXPECT_EQ(parse_date_time_fields_to_time_t(source, time), EINVAL) << source;
    EXPECT_EQ(errors(), Texts{error});
    EXPECT_EQ(time, 77);
  }
}

TEST_F(ReportFieldsTest, TimesAreWrittenInUtcOrLocalTime) {
  EXPECT_EQ(format_time(kMayFirst), "2024-05-01,03:15:00");
  EXPECT_EQ(format_time(0), "1970-01-01,00:00:00");
  ::setenv("TZ", "XYZ-2", 1);
  ::tzset();
  EXPECT_EQ(format_time(kMayFirst, false), "2024-05-01,05:15:00");
  EXPECT_EQ(format_time(kMayFirst, true), "2024-05-01,03:15:00");
  ::unsetenv("TZ");
  ::tzset();
}

}  // namespace
}  // namespace rrm::reports
