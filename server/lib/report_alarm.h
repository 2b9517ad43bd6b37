#pragma once

#include <cstdint>
#include <string>

namespace rrm::reports {

/// Tells whether the daily deletion of old reports is due: once per UTC day, at the first check at
/// or after the configured minute.
///
/// Threading: the last fired day is one atomic of the process; checks come from one thread.
/// @param time_text  "HH:MM", UTC
/// @param now        seconds since the epoch
/// @return 0; EINVAL for a bad time (logged and raised as an event); else an errno value (logged)
int check_report_alarm_clock_every_min(const std::string& time_text, bool& fired, std::int64_t now);
/// The same at the current time.
int check_report_alarm_clock_every_min(const std::string& time_text, bool& fired);

/// Forgets that it fired today. For tests.
void reset_report_alarm() noexcept;

}  // namespace rrm::reports
