#pragma once

#include <atomic>
#include <chrono>

/// A flag that ends the waits of other threads at once.
///
/// Threading: any thread may set it or wait; setting is safe in a signal handler.
class StopSignal {
 public:
  using Clock = std::chrono::steady_clock;

  StopSignal();
  ~StopSignal();
  StopSignal(const StopSignal&) = delete;
  StopSignal& operator=(const StopSignal&) = delete;

  void set() noexcept;
  bool is_set() const noexcept { return set_; }
  /// Returns when the time has come or the flag is set, whichever is first.
  void wait_until(Clock::time_point time) const;
  /// Readable as soon as the flag is set; for waits on several descriptors.
  int descriptor() const noexcept { return event_; }

 private:
  std::atomic<bool> set_ = false;
  int event_;  ///< eventfd, or -1 when the process has no descriptor left
};
