#include "server/lib/TpcDcaChannels.h"

#include <algorithm>
#include <array>
#include <cstdlib>

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

/// No radio has such a channel number; keeps the arithmetic below far from its limits.
constexpr std::int32_t kLargestChannel = 100000;

constexpr SlotRange around(std::int32_t centre, std::int32_t half_channels) {
  return {centre + 8 - half_channels, centre + 8 + half_channels};
}

SlotRange row_block(std::int32_t width_mhz, std::int32_t channel) {
  for (const BlockRow& row : kBlockRows)
    if (row.width_mhz == width_mhz && row.first_channel <= channel && channel <= row.last_channel)
      return row.block;
  return {};
}

SlotRange block_40(std::int32_t channel, std::int32_t position) {
  if (channel >= 36 && channel <= 40) return row_block(40, channel);
  for (const PairRow& pair : kPairs5g)
    if (channel == pair.lower || channel == pair.upper) return around(pair.centre, 4);
  if (channel >= 36 && channel <= 164) return {};
  const std::int32_t centre = channel + (position == PrimaryChannel::kUpper ? -2 : 2);
  if (channel < 36 && (centre < 3 || centre > 11)) return {};
  return around(centre, 4);
}

SlotRange block_320(std::int32_t channel) {
  if (channel < 1 || channel > 233) return {};
  const auto nearer = [channel](std::int32_t a, std::int32_t b) {
    return std::abs(channel - a) < std::abs(channel - b);
  };
  const std::int32_t centre =
      *std::min_element(std::begin(kCentres320), std::end(kCentres320), nearer);
  return std::abs(channel - centre) <= 32 ? around(centre, 32) : SlotRange{};
}

}  // namespace

SlotRange primary_block(std::int32_t channel) noexcept {
  const bool known = (channel >= 1 && channel <= 13) || (channel >= 36 && channel <= 233);
  return known ? around(channel, 2) : SlotRange{};
}

SlotRange channel_block(const ChannelUse& use) noexcept {
  if (use.channel < 1 || use.channel > kLargestChannel) return {};
  switch (use.width_mhz) {
    case 20:
      return primary_block(use.channel);
    case 40:
      return block_40(use.channel, use.position);
    case 320:
      return block_320(use.channel);
    default:
      return row_block(use.width_mhz, use.channel);
  }
}

bool shares_wide_block(const ChannelUse& a, const ChannelUse& b) noexcept {
  if (a.channel == b.channel) return true;
  const std::int32_t width = std::max(a.width_mhz, b.width_mhz);
  const SlotRange block = channel_block({a.channel, width, a.position});
  return !block.empty() && block == channel_block({b.channel, width, b.position});
}

}  // namespace rrm
