#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>

namespace rrm {

/// One-shot callbacks with deadlines in whole seconds, run by their owner's loop.
///
/// Purpose:   a worker never sleeps on timers; it keeps a list and runs what is due. Periodic work
///            adds itself again from its callback.
/// Threading: none inside. One thread calls it, or the owner holds its own lock.
/// Ownership: the list owns the callbacks; what a callback captures must outlive it.
/// Errors:    an entry without a callback throws std::bad_function_call out of run_due().
class TimerList {
 public:
  using Callback = std::function<void()>;

  /// Adds an entry that is due `delay_s` seconds from now, behind every entry due no later.
  /// @param id chosen by the owner; several entries may share one
  void add(Callback callback, std::uint32_t id, std::uint32_t delay_s);
  /// The same after removing every entry with this id.
  void rearm(Callback callback, std::uint32_t id, std::uint32_t delay_s);
  void remove(std::uint32_t id);
  void clear() noexcept { entries_.clear(); }

  /// Runs, in deadline order, every entry due at `now_s` (seconds, CLOCK_MONOTONIC), then removes
  /// every entry due at `now_s`, those that the callbacks added included. The callbacks may add,
  /// re-arm or remove entries of this list, their own too.
  void run_due(std::int64_t now_s);
  /// run_due() now; what a loop calls in every pass.
  void poll();
  /// poll(), then sleeps until the first pending deadline, if any, and polls again.
  void run_and_wait();

  std::size_t size() const noexcept { return entries_.size(); }
  bool empty() const noexcept { return entries_.empty(); }

  /// CLOCK_MONOTONIC in whole seconds.
  static std::int64_t now_seconds() noexcept;
  /// Sleeps the whole time, whatever signals arrive.
  static void sleep_seconds(std::int64_t seconds);

 private:
  struct Entry {
    Callback callback;
    std::uint32_t id;
    std::int64_t deadline_s;
  };

  std::list<Entry> entries_;  ///< ascending deadline; equal deadlines in the order of adding
};

}  // namespace rrm
