#include "server/lib/Clock.h"

#include <sys/time.h>
#include <time.h>

#include <atomic>

namespace rrm {

namespace {

std::int64_t system_monotonic_s() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec;
}

std::int64_t system_wall_us() {
  timeval now{};
  gettimeofday(&now, nullptr);
  return std::int64_t{now.tv_sec} * 1'000'000 + now.tv_usec;
}

std::atomic<ClockSource> monotonic_source{system_monotonic_s};
std::atomic<ClockSource> wall_source{system_wall_us};

}  // namespace

std::int64_t monotonic_seconds() noexcept {
  return monotonic_source.load(std::memory_order_relaxed)();
}

std::int64_t wall_clock_us() noexcept { return wall_source.load(std::memory_order_relaxed)(); }

void set_clock_sources(ClockSource monotonic_s, ClockSource wall_us) noexcept {
  monotonic_source = monotonic_s != nullptr ? monotonic_s : system_monotonic_s;
  wall_source = wall_us != nullptr ? wall_us : system_wall_us;
}

}  // namespace rrm
