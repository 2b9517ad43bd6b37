#include "server/lib/OptimisationThread.h"

#include <exception>
#include <system_error>
#include <utility>

#include "server/lib/Hooks.h"

namespace rrm {

void OptimisationThread::launch(Function function) {
  done_ = false;
  cancel_ = false;
  result_.reset();
  try {
    thread_ = std::thread([this, work = std::move(function)] { run(work); });
  } catch (const std::system_error& error) {
    RRM_LOG(Error, "Optimization thread not started: %s", error.what());
    done_ = true;
  }
}

void OptimisationThread::run(const Function& function) noexcept {
  try {
    result_ = std::make_unique<OptimisationResult>(function(cancel_));
  } catch (const std::exception& error) {
    RRM_LOG(Error, "Exception at optimization thread: %s", error.what());
  } catch (...) {
    RRM_LOG(Error, "Exception at optimization thread");
  }
  done_.store(true, std::memory_order_release);
}

std::unique_ptr<OptimisationResult> OptimisationThread::take() {
  if (thread_.joinable()) thread_.join();
  return std::move(result_);
}

void OptimisationThread::stop() {
  cancel_ = true;
  take();
}

}  // namespace rrm
