#pragma once

#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>

/// Include in one source of a test: while `virtual_sleep` is on, usleep() only adds up what it was
/// asked for, so that a producer's minute of waiting passes in no time.
namespace rrm::test {

inline std::atomic<bool> virtual_sleep{false};
inline std::atomic<std::int64_t> slept_us{0};
/// Of the calling thread: idle workers sleep all the time.
inline thread_local std::int64_t sleeps = 0;

/// Switches it on for its lifetime, with fresh sums.
class VirtualSleep {
 public:
  VirtualSleep() {
    slept_us = 0;
    sleeps = 0;
    virtual_sleep = true;
  }
  ~VirtualSleep() { virtual_sleep = false; }
  VirtualSleep(const VirtualSleep&) = delete;
  VirtualSleep& operator=(const VirtualSleep&) = delete;
};

}  // namespace rrm::test

extern "C" int usleep(useconds_t microseconds) {
  if (rrm::test::virtual_sleep) {
    rrm::test::slept_us += microseconds;
    ++rrm::test::sleeps;
    return 0;
  }
  timespec wait{static_cast<time_t>(microseconds / 1000000),
                static_cast<long>(microseconds % 1000000) * 1000};
  return nanosleep(&wait, nullptr);
}
