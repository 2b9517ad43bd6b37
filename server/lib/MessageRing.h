#pragma once

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <type_traits>
#include <utility>

namespace rrm {

inline constexpr std::size_t kCacheLine = 64;  ///< bytes

/// Bounded lock-free queue for any number of producers and consumers (Dmitry Vyukov's design).
///
/// Purpose:   every message queue of the system; a cell's sequence number says whether it waits for
///            the producer or the consumer of a position, so neither ever waits for a lock.
/// Threading: try_push and try_pop from any thread; size() and empty() are a moment's impression.
/// Ownership: owns the values it holds; no allocation after construction.
/// @tparam T default-constructible and nothrow move-assignable
/// @tparam kApart bytes between the positions of the two ends: a cache line where both are busy at
///         once, less where there are many rings that are mostly empty
template <class T, std::size_t kApart = kCacheLine>
class MessageRing {
 public:
  /// @param capacity a power of two, at least 2 (other values are raised to the next one)
  explicit MessageRing(std::size_t capacity)
      : mask_(std::bit_ceil(std::max<std::size_t>(capacity, 2)) - 1),
        cells_(std::make_unique<Cell[]>(mask_ + 1)) {
    for (std::size_t i = 0; i <= mask_; ++i) cells_[i].sequence.store(i, std::memory_order_relaxed);
  }
  MessageRing(const MessageRing&) = delete;
  MessageRing& operator=(const MessageRing&) = delete;

  /// False when the ring is full; `value` is moved from only on success.
  bool try_push(T&& value) {
    std::uint64_t position = enqueue_position_.load(std::memory_order_relaxed);
    for (;;) {
      Cell& cell = cells_[position & mask_];
      const auto lead = distance(cell.sequence.load(std::memory_order_acquire), position);
      if (lead == 0) {
        if (enqueue_position_.compare_exchange_weak(position, position + 1,
                                                    std::memory_order_relaxed)) {
          cell.value = std::move(value);
          cell.sequence.store(position + 1, std::memory_order_release);
          return true;
        }
      } else if (lead < 0) {
        return false;
      } else {
        position = enqueue_position_.load(std::memory_order_relaxed);
      }
    }
  }
  bool try_push(const T& value) {
    T copy(value);
    return try_push(std::move(copy));
  }

  /// False when the ring is empty; `out` is then untouched.
  bool try_pop(T& out) {
    std::uint64_t position = dequeue_position_.load(std::memory_order_relaxed);
    for (;;) {
      Cell& cell = cells_[position & mask_];
      const auto lead = distance(cell.sequence.load(std::memory_order_acquire), position + 1);
      if (lead == 0) {
        if (dequeue_position_.compare_exchange_weak(position, position + 1,
                                                    std::memory_order_relaxed)) {
          out = std::exchange(cell.value, T{});
          cell.sequence.store(position + mask_ + 1, std::memory_order_release);
          return true;
        }
      } else if (lead < 0) {
        return false;
      } else {
        position = dequeue_position_.load(std::memory_order_relaxed);
      }
    }
  }

  /// Values pushed or being pushed and not yet popped.
  std::size_t size() const noexcept {
    const auto waiting = distance(enqueue_position_.load(std::memory_order_acquire),
                                  dequeue_position_.load(std::memory_order_acquire));
    return waiting > 0 ? static_cast<std::size_t>(waiting) : 0;
  }
  bool empty() const noexcept { return size() == 0; }
  std::size_t capacity() const noexcept { return mask_ + 1; }

 private:
  struct Cell {
    std::atomic<std::uint64_t> sequence;
    T value{};
  };

  static std::int64_t distance(std::uint64_t from, std::uint64_t to) noexcept {
    return static_cast<std::int64_t>(from - to);
  }

  const std::size_t mask_;
  const std::unique_ptr<Cell[]> cells_;
  alignas(kApart) std::atomic<std::uint64_t> enqueue_position_{0};
  alignas(kApart) std::atomic<std::uint64_t> dequeue_position_{0};
};

/// What a producer does between two attempts on a full ring: spin, then yield, then sleep ever
/// longer. Used by every producer, so that a full queue holds its producer for about a minute.
class PushBackoff {
 public:
  /// Attempts, the first included, after which a message that may be dropped is given up.
  static constexpr std::uint32_t kGiveUpAt = 65537;

  /// Call after a failed attempt; pauses and returns true when another attempt is due, false when
  /// the message is to be given up.
  bool wait() {
    if (++attempts_ >= kGiveUpAt) return false;
    pause();
    return true;
  }
  /// The same for a message that is never given up.
  void wait_forever() {
    attempts_ = std::min(attempts_ + 1, kGiveUpAt);
    pause();
  }

 private:
  static constexpr std::uint32_t kSpins = 63;    ///< attempts that retry at once
  static constexpr std::uint32_t kYields = 127;  ///< attempts up to here yield first
  static constexpr useconds_t kLongestSleep_us = 1000;

  void pause() {
    if (attempts_ <= kSpins) return;
    if (attempts_ <= kYields) {
      sched_yield();
      return;
    }
    usleep(sleep_us_);
    sleep_us_ = std::min(sleep_us_ * 2, kLongestSleep_us);
  }

  std::uint32_t attempts_ = 1;
  useconds_t sleep_us_ = 1;
};

/// Pushes with back-off until there is room, the attempts are used up, or `give_up()` is true.
/// @return whether the value was pushed
template <class T, std::size_t kApart, class GiveUp>
bool push_with_backoff(MessageRing<T, kApart>& ring, std::type_identity_t<T>&& value,
                       GiveUp&& give_up) {
  PushBackoff backoff;
  // NOLINTNEXTLINE(bugprone-use-after-move): it is moved from on success only
  while (!ring.try_push(std::move(value)))
    if (give_up() || !backoff.wait()) return false;
  return true;
}

}  // namespace rrm
