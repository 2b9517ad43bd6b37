#include "server/lib/ParsingThreads.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <utility>

#include "server/lib/Worker.h"

namespace rrm {
namespace {

/// 10 ms, in nanoseconds: a clock steered to run faster would shorten whole milliseconds to none.
constexpr timespec kWait{0, 10000000};

}  // namespace

ParsingThreads::ParsingThreads(Handler handler, const std::atomic<bool>& stop)
    : handler_(std::move(handler)),
      stop_(stop),
      wakeup_fd_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

ParsingThreads::~ParsingThreads() { close(wakeup_fd_); }

void ParsingThreads::start(std::size_t count) {
  while (threads_.size() < std::min(count, kMost)) threads_.emplace_back([this] { run(); });
}

void ParsingThreads::join() {
  wake();
  for (std::thread& thread : threads_) thread.join();
  threads_.clear();
}

void ParsingThreads::discard() {
  ReceivedText discarded;
  while (priority_.try_pop(discarded) || queue_.try_pop(discarded)) discarded = {};
}

bool ParsingThreads::push(ReceivedText&& received) {
  return push_with_backoff(queue_, std::move(received), [this] {
    wake();
    return stop_.load();
  });
}

void ParsingThreads::wake() noexcept {
  if (queue_.empty() && !stop_) return;
  // A thread that is at work looks again before it sleeps.
  if (!sleeps_.exchange(false)) return;
  const std::uint64_t one = 1;
  [[maybe_unused]] const auto written = write(wakeup_fd_, &one, sizeof one);
}

void ParsingThreads::run() {
  prctl(PR_SET_NAME, "jsonificator");
  work_in_batches();
  ReceivedText received;
  while (!stop_) {
    if (priority_.try_pop(received) || queue_.try_pop(received)) {
      handler_(received);
      received = {};
      continue;
    }
    sleeps_.exchange(true);
    if (!priority_.empty() || !queue_.empty()) continue;
    pollfd wait{wakeup_fd_, POLLIN, 0};
    if (ppoll(&wait, 1, &kWait, nullptr) > 0 && (wait.revents & POLLIN) != 0) {
      std::uint64_t count = 0;
      [[maybe_unused]] const auto taken = read(wakeup_fd_, &count, sizeof count);
    }
  }
}

}  // namespace rrm
