#pragma once

#include <cstdint>

/// Which 5 MHz slots a channel covers.
///
/// All three bands share one axis: slot = channel number + 8.
namespace rrm {

/// Slots of the axis; what lies above is not planned.
inline constexpr std::int32_t kSlots = 275;

/// Inclusive range of slots; empty when last < first. Small, since planning walks thousands of
/// them.
struct SlotRange {
  std::int16_t first = 0;
  std::int16_t last = -1;

  constexpr bool empty() const noexcept { return last < first; }
  friend constexpr bool operator==(const SlotRange&, const SlotRange&) = default;
};

/// What a BSS occupies.
struct ChannelUse {
  std::int32_t channel = 0;    ///< primary channel number
  std::int32_t width_mhz = 0;  ///< 20, 40, 80, 160 or 320
  std::int32_t position = 0;   ///< of the primary channel; 512: the 40 MHz secondary lies below
};

/// Slots of the whole channel; empty for channels and widths that have no block.
SlotRange channel_block(const ChannelUse& use) noexcept;
/// Slots of the primary 20 MHz; empty outside 1..13 and 36..233.
SlotRange primary_block(std::int32_t channel) noexcept;

/// True for equal channels, and when both have a block for the wider of the two widths and the
/// blocks are the same.
bool shares_wide_block(const ChannelUse& a, const ChannelUse& b) noexcept;

}  // namespace rrm
