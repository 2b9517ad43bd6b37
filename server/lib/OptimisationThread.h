#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <thread>

#include "server/lib/TpcDcaOptimiser.h"

namespace rrm {

/// One optimisation on a thread of its own.
///
/// Purpose:   the planner launches it, polls done() once a second and takes what it left.
/// Threading: launch, done, cancel, take and the destructor on one thread; the function runs on the
///            other one and shares nothing but the two flags.
/// Errors:    an exception of the function, or of starting the thread, leaves no result.
class OptimisationThread {
 public:
  using Function = std::function<OptimisationResult(const std::atomic<bool>& cancel)>;

  OptimisationThread() = default;
  OptimisationThread(const OptimisationThread&) = delete;
  OptimisationThread& operator=(const OptimisationThread&) = delete;
  ~OptimisationThread() { stop(); }

  /// Starts it; an earlier one must have been taken or stopped.
  void launch(Function function);
  bool done() const noexcept { return done_.load(std::memory_order_acquire); }
  /// Joins the thread and gives its result away; empty when it left none.
  std::unique_ptr<OptimisationResult> take();
  /// Asks it to end early, waits for that and drops the result.
  void stop();

 private:
  void run(const Function& function) noexcept;

  std::thread thread_;
  std::atomic<bool> cancel_{false};
  std::atomic<bool> done_{false};
  std::unique_ptr<OptimisationResult>
      result_;  ///< written before done_ is set, read after the join
};

}  // namespace rrm
