#include "server/lib/report_alarm.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "server/lib/Hooks.h"

namespace rrm::reports {
namespace {

/// The day of the last trigger as day_number() gives it; lost when the process ends.
std::atomic<std::int64_t> last_fired_day{0};

struct TimeOfDay {
  int hour = 0;
  int minute = 0;
  int minutes() const noexcept { return hour * 60 + minute; }
};

bool read_time(const std::string& text, TimeOfDay& time) {
  if (std::sscanf(text.c_str(), "%9d:%9d", &time.hour, &time.minute) != 2) return false;
  return time.hour >= 0 && time.hour <= 23 && time.minute >= 0 && time.minute <= 59;
}

/// Different for every day of every year.
std::int64_t day_number(const std::tm& utc) {
  return (std::int64_t{utc.tm_year} + 1900) * 512 + utc.tm_yday + 1;
}

void log_check(const std::string& time_text, const TimeOfDay& trigger, const std::tm& utc,
               int minute_now, long last_day, long day) {
  RRM_LOG(Debug,
          "Report alarm check: cfg=\"%s\" trigger=%02d:%02d now_utc=%04d-%02d-%02d %02d:%02d "
          "cur_min=%d trigger_min=%d last_fired_day=%ld current_day=%ld already_fired_today=%d",
          time_text.c_str(), trigger.hour, trigger.minute, utc.tm_year + 1900, utc.tm_mon + 1,
          utc.tm_mday, utc.tm_hour, utc.tm_min, minute_now, trigger.minutes(), last_day, day,
          static_cast<int>(last_day == day));
}

}  // namespace

int check_report_alarm_clock_every_min(const std::string& time_text, bool& fired,
                                       std::int64_t now) {
  fired = false;
  TimeOfDay trigger;
  if (!read_time(time_text, trigger)) {
    RRM_LOG(Error, "Incorrect time in report_delete_at_time_utc: \"%s\".", time_text.c_str());
    raise_event(EventCode::ReportAlarmInvalid, time_text);
    return EINVAL;
  }
  const auto seconds = static_cast<std::time_t>(now);
  std::tm utc{};
  if (::gmtime_r(&seconds, &utc) == nullptr) {
    const int code = errno;
    RRM_LOG(Error, "Report alarm check: gmtime_r failed for timestamp %lld (errno=%d: %s)",
            static_cast<long long>(now), code, std::strerror(code));
    return code != 0 ? code : EIO;
  }
  const int minute_now = utc.tm_hour * 60 + utc.tm_min;
  const std::int64_t day = day_number(utc);
  const std::int64_t last_day = last_fired_day.load();
  log_check(time_text, trigger, utc, minute_now, last_day, day);
  if (minute_now < trigger.minutes() || day == last_day) return 0;
  last_fired_day = day;
  fired = true;
  RRM_LOG(Info, "Report alarm fired: trigger=\"%s\" UTC, last_fired_utc_day updated to %ld.",
          time_text.c_str(), static_cast<long>(day));
  return 0;
}

int check_report_alarm_clock_every_min(const std::string& time_text, bool& fired) {
  return check_report_alarm_clock_every_min(time_text, fired, std::time(nullptr));
}

void reset_report_alarm() noexcept { last_fired_day = 0; }

}  // namespace rrm::reports
