#include "server/lib/TpcDcaChannels.h"

#include <algorithm>
#include <cstddef>
#include <iterator>

#include "server/lib/Radio.h"

namespace rrm {
namespace {

struct BlockRow {
  std::int32_t width_mhz;
  std::int32_t first_channel;
  std::int32_t last_channel;
  SlotRange block;
};

/// Blocks that do not depend on the position of the primary channel.
constexpr BlockRow kBlockRows[] = {
    {40, 36, 40, {42, 50}},      {80, 36, 48, {42, 58}},      {80, 52, 64, {58, 74}},
    {80, 100, 112, {106, 122}},  {80, 116, 128, {122, 138}},  {80, 132, 144, {138, 154}},
    {80, 149, 161, {155, 171}},  {80, 165, 173, {167, 183}},  {80, 174, 189, {183, 199}},
    {80, 190, 205, {199, 215}},  {80, 206, 221, {215, 231}},  {160, 36, 64, {42, 74}},
    {160, 100, 128, {106, 138}}, {160, 165, 189, {167, 199}}, {160, 190, 221, {199, 231}},
};

struct PairRow {
  std::int32_t lower;
  std::int32_t upper;
  std::int32_t centre;
};

/// The standard 40 MHz pairs of 5 GHz above the one that kBlockRows holds.
constexpr PairRow kPairs5g[] = {
    {44, 48, 46},    {52, 56, 54},    {60, 64, 62},    {100, 104, 102},
    {108, 112, 110}, {116, 120, 118}, {124, 128, 126}, {132, 136, 134},
    {140, 144, 142}, {149, 153, 151}, {157, 161, 159},
};

constexpr std::int32_t kCentres320[] = {31, 63, 95, 127, 159, 191, 223};

/// No radio has such a channel number; keeps slots within 16 bits.
constexpr std::int32_t kLargestChannel = 30000;

constexpr std::int32_t distance(std::int32_t a, std::int32_t b) { return a < b ? b - a : a - b; }

constexpr SlotRange around(std::int32_t centre, std::int32_t half_channels) {
  return {static_cast<std::int16_t>(centre + 8 - half_channels),
          static_cast<std::int16_t>(centre + 8 + half_channels)};
}

constexpr SlotRange row_block(std::int32_t width_mhz, std::int32_t channel) {
  for (const BlockRow& row : kBlockRows)
    if (row.width_mhz == width_mhz && row.first_channel <= channel && channel <= row.last_channel)
      return row.block;
  return {};
}

constexpr SlotRange block_40(std::int32_t channel, std::int32_t position) {
  if (channel >= 36 && channel <= 40) return row_block(40, channel);
  for (const PairRow& pair : kPairs5g)
    if (channel == pair.lower || channel == pair.upper) return around(pair.centre, 4);
  if (channel >= 36 && channel <= 164) return {};
  const std::int32_t centre = channel + (position == PrimaryChannel::kUpper ? -2 : 2);
  if (channel < 36 && (centre < 3 || centre > 11)) return {};
  return around(centre, 4);
}

constexpr SlotRange block_320(std::int32_t channel) {
  if (channel < 1 || channel > 233) return {};
  std::int32_t nearest = kCentres320[0];
  for (const std::int32_t centre : kCentres320)
    if (distance(channel, centre) < distance(channel, nearest)) nearest = centre;
  return distance(channel, nearest) <= 32 ? around(nearest, 32) : SlotRange{};
}

constexpr SlotRange block_20(std::int32_t channel) {
  const bool known = (channel >= 1 && channel <= 13) || (channel >= 36 && channel <= 233);
  return known ? around(channel, 2) : SlotRange{};
}

constexpr SlotRange compute_block(std::int32_t channel, std::int32_t width_mhz,
                                  std::int32_t position) {
  switch (width_mhz) {
    case 20:
      return block_20(channel);
    case 40:
      return block_40(channel, position);
    case 320:
      return block_320(channel);
    default:
      return row_block(width_mhz, channel);
  }
}

/// The blocks of all channels that radios really use, since planning asks for them all the time.
class BlockTable {
 public:
  static constexpr std::int32_t kChannels = 234;

  constexpr BlockTable() {
    for (std::size_t row = 0; row < kRows; ++row)
      for (std::int32_t channel = 1; channel < kChannels; ++channel)
        blocks_[row][static_cast<std::size_t>(channel)] =
            compute_block(channel, kWidths[row], row == kUpper40 ? PrimaryChannel::kUpper : 0);
  }
  constexpr SlotRange block(const ChannelUse& use) const {
    for (std::size_t row = 0; row < kRows; ++row) {
      if (kWidths[row] != use.width_mhz) continue;
      const bool upper = use.width_mhz == 40 && use.position == PrimaryChannel::kUpper;
      return blocks_[upper ? kUpper40 : row][static_cast<std::size_t>(use.channel)];
    }
    return {};
  }

 private:
  static constexpr std::int32_t kWidths[] = {20, 40, 80, 160, 320, 40};
  static constexpr std::size_t kRows = std::size(kWidths);
  static constexpr std::size_t kUpper40 = kRows - 1;

  SlotRange blocks_[kRows][kChannels] = {};
};

constexpr BlockTable kBlocks;

}  // namespace

SlotRange primary_block(std::int32_t channel) noexcept { return block_20(channel); }

SlotRange channel_block(const ChannelUse& use) noexcept {
  if (use.channel < 1 || use.channel > kLargestChannel) return {};
  if (use.channel < BlockTable::kChannels) return kBlocks.block(use);
  return compute_block(use.channel, use.width_mhz, use.position);
}

bool shares_wide_block(const ChannelUse& a, const ChannelUse& b) noexcept {
  if (a.channel == b.channel) return true;
  const std::int32_t width = std::max(a.width_mhz, b.width_mhz);
  const SlotRange block = channel_block({a.channel, width, a.position});
  return !block.empty() && block == channel_block({b.channel, width, b.position});
}

}  // namespace rrm
