#include "server/StopSignal.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>

StopSignal::StopSignal() : event_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

StopSignal::~StopSignal() {
  if (event_ >= 0) ::close(event_);
}

void StopSignal::set() noexcept {
  set_ = true;
  const std::uint64_t one = 1;
  if (event_ >= 0 && ::write(event_, &one, sizeof(one)) < 0) return;  // readable already
}

void StopSignal::wait_until(Clock::time_point time) const {
  // Without a descriptor the flag is looked at often enough to be felt as "at once".
  const std::chrono::milliseconds longest(event_ >= 0 ? 60'000 : 50);
  while (!set_) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(time - Clock::now());
    if (left.count() <= 0) return;
    pollfd descriptor{event_, POLLIN, 0};
    ::poll(&descriptor, 1, static_cast<int>(std::min(left, longest).count()));
  }
}
