#pragma once

#include <chrono>

/// When the log file is set aside by time: one period after the start or after the last roll-over,
/// whatever caused that.
///
/// Threading: none inside; the roll-over thread asks it once per tick.
class RolloverSchedule {
 public:
  using Clock = std::chrono::steady_clock;

  RolloverSchedule(Clock::time_point now, Clock::duration period)
      : period_(period), deadline_(now + period) {}

  /// Whether the file is due; the next period starts then.
  /// @param rolled_over  the file was set aside since the last tick, which also starts a period
  bool is_due(Clock::time_point now, bool rolled_over) {
    if (!rolled_over && now < deadline_) return false;
    deadline_ = now + period_;
    return !rolled_over;
  }

 private:
  Clock::duration period_;
  Clock::time_point deadline_;
};
