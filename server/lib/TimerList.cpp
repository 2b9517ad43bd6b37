#include "server/lib/TimerList.h"

#include <sys/select.h>
#include <sys/time.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <utility>
#include <vector>

#include "server/lib/Clock.h"

namespace rrm {
namespace {

/// Microseconds of CLOCK_MONOTONIC.
std::int64_t now_microseconds() noexcept {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return std::int64_t{now.tv_sec} * 1'000'000 + now.tv_nsec / 1000;
}

/// Sleeps until the point of CLOCK_MONOTONIC; a signal only makes it look at the clock again.
void sleep_until(std::int64_t deadline_us) {
  for (;;) {
    const std::int64_t left_us = deadline_us - now_microseconds();
    if (left_us <= 0) return;
    timeval wait{static_cast<time_t>(left_us / 1'000'000),
                 static_cast<suseconds_t>(left_us % 1'000'000)};
    if (select(0, nullptr, nullptr, nullptr, &wait) == 0) return;
    if (errno != EINTR) return;
  }
}

}  // namespace

std::int64_t TimerList::now_seconds() noexcept { return monotonic_seconds(); }

void TimerList::sleep_seconds(std::int64_t seconds) {
  sleep_until(now_microseconds() + seconds * 1'000'000);
}

void TimerList::add(Callback callback, std::uint32_t id, std::uint32_t delay_s) {
  const std::int64_t deadline_s = now_seconds() + std::int64_t{delay_s};
  const auto place = std::find_if(entries_.begin(), entries_.end(), [&](const Entry& entry) {
    return entry.deadline_s > deadline_s;
  });
  entries_.insert(place, Entry{std::move(callback), id, deadline_s});
}

void TimerList::rearm(Callback callback, std::uint32_t id, std::uint32_t delay_s) {
  remove(id);
  add(std::move(callback), id, delay_s);
}

void TimerList::remove(std::uint32_t id) {
  entries_.remove_if([id](const Entry& entry) { return entry.id == id; });
}

void TimerList::run_due(std::int64_t now_s) {
  if (entries_.empty() || entries_.front().deadline_s > now_s) return;
  // Copies, because a callback may remove the very entry that holds it.
  std::vector<Callback> due;
  for (const Entry& entry : entries_) {
    if (entry.deadline_s > now_s) break;
    due.push_back(entry.callback);
  }
  for (const Callback& callback : due) callback();
  entries_.remove_if([now_s](const Entry& entry) { return entry.deadline_s <= now_s; });
}

void TimerList::poll() { run_due(now_seconds()); }

void TimerList::run_and_wait() {
  poll();
  if (entries_.empty()) return;
  sleep_until(entries_.front().deadline_s * 1'000'000);
  poll();
}

}  // namespace rrm
