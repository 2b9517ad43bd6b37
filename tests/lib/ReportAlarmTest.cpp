#include "server/lib/report_alarm.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <limits>

#include "server/lib/report_fields.h"
#include "tests/support/CapturedLog.h"

namespace rrm::reports {
namespace {

using test::CapturedLog;
using Texts = std::vector<std::string>;

class ReportAlarmTest : public testing::Test {
 protected:
  ReportAlarmTest() { reset_report_alarm(); }

  bool fires(const std::string& trigger, const std::string& now) {
    std::int64_t time = 0;
    EXPECT_EQ(parse_date_time_fields_to_time_t(now, time), 0);
    bool fired = false;
    EXPECT_EQ(check_report_alarm_clock_every_min(trigger, fired, time), 0);
    return fired;
  }

  CapturedLog log;
};

TEST_F(ReportAlarmTest, FiresOncePerDayAtTheFirstCheckFromTheMinuteOn) {
  EXPECT_FALSE(fires("03:00", "2024-05-01,02:59:59"));
  EXPECT_TRUE(fires("03:00", "2024-05-01,03:00:00"));
  EXPECT_FALSE(fires("03:00", "2024-05-01,03:01:00"));
  EXPECT_FALSE(fires("03:00", "2024-05-01,23:59:00"));
  EXPECT_FALSE(fires("03:00", "2024-05-02,00:00:00"));
  EXPECT_TRUE(fires("03:00", "2024-05-02,03:00:00"));
}

TEST_F(ReportAlarmTest, AProcessThatStartsLaterFiresAtItsFirstCheck) {
  EXPECT_TRUE(fires("03:00", "2024-05-01,17:30:00"));
}

TEST_F(ReportAlarmTest, TheSameDayOfTheNextYearIsAnotherDay) {
  EXPECT_TRUE(fires("03:00", "2023-12-31,03:00:00"));
  EXPECT_TRUE(fires("03:00", "2024-12-30,03:00:00"));  // day 365 of both years
}

TEST_F(ReportAlarmTest, ThreeColonFiveMeansFivePastThree) {
  EXPECT_FALSE(fires("3:5", "2024-05-01,03:04:00"));
  EXPECT_TRUE(fires("3:5", "2024-05-01,03:05:00"));
}

TEST_F(ReportAlarmTest, TextBehindTheMinutesIsIgnored) {
  EXPECT_TRUE(fires("03:00 UTC", "2024-05-01,03:00:00"));
}

TEST_F(ReportAlarmTest, WritesWhatItCompares) {
  fires("3:5", "2024-05-01,03:05:00");
  EXPECT_EQ(log.texts(LogLevel::Debug),
            Texts{"Report alarm check: cfg=\"3:5\" trigger=03:05 now_utc=2024-05-01 03:05 "
                  "cur_min=185 trigger_min=185 last_fired_day=0 current_day=1036410 "
                  "already_fired_today=0"});
  EXPECT_EQ(log.texts(LogLevel::Info),
            Texts{"Report alarm fired: trigger=\"3:5\" UTC, last_fired_utc_day updated to "
                  "1036410."});
  log.clear();
  fires("3:5", "2024-05-01,04:00:00");
  EXPECT_EQ(log.texts(LogLevel::Debug),
            Texts{"Report alarm check: cfg=\"3:5\" trigger=03:05 now_utc=2024-05-01 04:00 "
                  "cur_min=240 trigger_min=185 last_fired_day=1036410 current_day=1036410 "
                  "already_fired_today=1"});
}

TEST_F(ReportAlarmTest, TimesOutsideADayAreRejectedWithEvent17) {
  for (const char* text : {"24:00", "3:60", "3:100", "-1:00", "3:-5", "", "03", "03.00", "x:y",
                           "99999999999:00", "3:99999999999"}) {
    log.clear();
    bool fired = true;
    EXPECT_EQ(check_report_alarm_clock_every_min(text, fired, 0), EINVAL) << text;
    EXPECT_FALSE(fired);
    EXPECT_EQ(log.texts(LogLevel::Error),
              Texts{std::string("Incorrect time in report_delete_at_time_utc: \"") + text + "\"."});
    ASSERT_EQ(log.events().size(), 1U);
    EXPECT_TRUE(log.has_event(EventCode::ReportAlarmInvalid, text));
  }
}

TEST_F(ReportAlarmTest, ATimeThatHasNoCalendarIsReported) {
  bool fired = true;
  const std::int64_t never = std::numeric_limits<std::int64_t>::max();
  EXPECT_EQ(check_report_alarm_clock_every_min("03:00", fired, never), EOVERFLOW);
  EXPECT_FALSE(fired);
  EXPECT_EQ(log.texts(LogLevel::Error),
            Texts{"Report alarm check: gmtime_r failed for timestamp 9223372036854775807 "
                  "(errno=75: Value too large for defined data type)"});
}

}  // namespace
}  // namespace rrm::reports
