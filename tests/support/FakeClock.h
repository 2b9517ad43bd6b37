#pragma once

#include <atomic>
#include <cstdint>

#include "server/lib/Clock.h"

namespace rrm::test {

/// The monotonic clock stands at `now_s` while one of these lives. Create it before the threads
/// that read it, destroy it after them.
class FakeClock {
 public:
  explicit FakeClock(std::int64_t start_s = 1000) {
    now_s = start_s;
    set_clock_sources([] { return now_s.load(); }, nullptr);
  }
  ~FakeClock() { set_clock_sources(nullptr, nullptr); }
  FakeClock(const FakeClock&) = delete;
  FakeClock& operator=(const FakeClock&) = delete;

  inline static std::atomic<std::int64_t> now_s{0};
};

}  // namespace rrm::test
