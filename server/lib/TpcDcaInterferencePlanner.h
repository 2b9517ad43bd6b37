#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "server/lib/TpcDcaChannels.h"

namespace rrm {

/// What a heard BSS puts on the air.
struct Interference {
  std::int32_t weight = 0;  ///< RSSI + 100: -100 dBm counts nothing
  SlotRange block;          ///< of the whole channel; empty at 20 MHz
  SlotRange primary;        ///< of its primary 20 MHz
};

/// Interference of a BSS at `rssi_dbm`.
Interference interference_of(std::int32_t rssi_dbm, const ChannelUse& use) noexcept;

/// A radio that looks for a channel.
struct ChannelRequest {
  std::span<const std::int32_t> allowed;  ///< tried in this order
  ChannelUse current;
  std::int32_t threshold_percent = 0;  ///< how much cheaper another channel must be
};

/// Counts interference per 5 MHz slot around one radio and picks the quietest channel.
///
/// Purpose:   reused for every radio: clear(), add() what it hears, choose().
/// Threading: one thread.
class InterferencePlanner {
 public:
  /// With the threshold bypassed any strictly cheaper channel wins.
  void bypass_threshold(bool bypass) noexcept { bypass_ = bypass; }

  void clear() noexcept { steps_.fill(0); }
  /// The two outermost slots at each edge of a block get 30% and 70% of the weight, the others all.
  void add(const Interference& interference) noexcept {
    add_mask(interference.weight, interference.block);
    add_mask(interference.weight, interference.primary);
  }
  /// The counter of one slot, 0 to 274.
  std::int32_t counter(std::int32_t slot) const noexcept;

  /// The channel to use: the current one, or the first cheapest; 0 when none can be used.
  std::int32_t choose(const ChannelRequest& request) noexcept;

 private:
  void add_mask(std::int32_t weight, const SlotRange& block) noexcept {
    if (block.empty() || block.first >= kSlots) return;
    const auto edge = static_cast<std::uint32_t>(weight * 3 / 10);
    const auto shoulder = static_cast<std::uint32_t>(weight * 7 / 10) - edge;
    const auto inner = static_cast<std::uint32_t>(weight) - shoulder - edge;
    std::uint32_t* const first = steps_.data() + block.first;
    std::uint32_t* const last = steps_.data() + block.last;
    first[0] += edge;
    first[1] += shoulder;
    first[2] += inner;
    last[-1] -= inner;
    last[0] -= shoulder;
    last[1] -= edge;
  }
  void sum_up() noexcept;
  std::int64_t sum(const SlotRange& range) const noexcept;
  std::int64_t cost(const ChannelUse& use, const SlotRange& block) const noexcept;

  /// A block that starts on the axis may end this far above it.
  static constexpr std::size_t kOverhang = 80;
  /// Difference of each slot's counter to the slot below: a mask costs six additions whatever its
  /// width. Unsigned, so that absurd signals wrap instead of overflowing.
  std::array<std::uint32_t, kSlots + kOverhang> steps_{};
  /// sums_[i]: counters of the slots below i; made by choose().
  std::array<std::int64_t, kSlots + 1> sums_{};
  bool bypass_ = false;
};

}  // namespace rrm
