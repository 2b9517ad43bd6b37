#pragma once

#include <cstdint>

#include "server/lib/Clock.h"

namespace rrm {

/// How often something was handled and how long that took; printed as an average.
///
/// Threading: one thread, or under the owner's lock.
class HandlingTime {
 public:
  /// Measures from construction to destruction.
  class Scope {
   public:
    explicit Scope(HandlingTime& target) noexcept : target_(target), start_us_(wall_clock_us()) {}
    ~Scope() { target_.add(wall_clock_us() - start_us_); }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

   private:
    HandlingTime& target_;
    std::int64_t start_us_;
  };

  /// Adds one handling. When the sum would become smaller (an overflow, or a clock set back), sum
  /// and count start again from 0.
  void add(std::int64_t duration_us) noexcept {
    std::int64_t sum = 0;
    if (duration_us < 0 || __builtin_add_overflow(sum_us_, duration_us, &sum)) {
      sum_us_ = 0;
      count_ = 0;
      return;
    }
    sum_us_ = sum;
    ++count_;
  }

  std::uint32_t count() const noexcept { return count_; }
  /// Microseconds; 0 when nothing was handled.
  std::int64_t average_us() const noexcept { return count_ == 0 ? 0 : sum_us_ / count_; }

 private:
  std::int64_t sum_us_ = 0;
  std::uint32_t count_ = 0;
};

}  // namespace rrm
