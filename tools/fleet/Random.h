#pragma once

#include <cmath>
#include <cstdint>
#include <initializer_list>
#include <numbers>

/// Repeatable randomness: the same seed gives the same fleet on every machine and library.
///
/// Two kinds: hashed values belong to a thing ("the shadowing between these two access points") and
/// do not depend on the order of asking; a Random is a stream for things made one after another.
namespace rrm::fleet {

/// Spreads a number over 64 bits (the finaliser of splitmix64).
inline std::uint64_t mix(std::uint64_t value) noexcept {
  value += 0x9e3779b97f4a7c15ULL;
  value = (value ^ value >> 30) * 0xbf58476d1ce4e5b9ULL;
  value = (value ^ value >> 27) * 0x94d049bb133111ebULL;
  return value ^ value >> 31;
}

/// One number out of several; their order counts.
inline std::uint64_t hash(std::initializer_list<std::uint64_t> values) noexcept {
  std::uint64_t sum = 0;
  for (const std::uint64_t value : values) sum = mix(sum ^ value);
  return sum;
}

/// In [0, 1), from the upper 53 bits.
inline double unit(std::uint64_t bits) noexcept {
  return static_cast<double>(bits >> 11) * 0x1p-53;
}

/// Standard normal, by Box and Muller.
inline double gaussian(std::uint64_t bits) noexcept {
  const double radius = std::sqrt(-2.0 * std::log(1.0 - unit(mix(bits))));
  return radius * std::cos(2.0 * std::numbers::pi * unit(mix(bits ^ 0x5851f42d4c957f2dULL)));
}

/// A stream of random values.
class Random {
 public:
  explicit Random(std::uint64_t seed) noexcept : state_(seed) {}
  std::uint64_t next() noexcept { return mix(state_++); }
  double uniform(double low, double high) noexcept { return low + (high - low) * unit(next()); }
  /// In [0, count); 0 when count is 0.
  std::uint32_t below(std::uint32_t count) noexcept {
    return static_cast<std::uint32_t>((next() >> 32) * count >> 32);
  }
  bool chance(double probability) noexcept { return unit(next()) < probability; }

 private:
  std::uint64_t state_;
};

}  // namespace rrm::fleet
