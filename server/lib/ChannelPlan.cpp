#include "server/lib/ChannelPlan.h"

#include <cstddef>
#include <cstdlib>
#include <string_view>

namespace rrm {
namespace {

using PrimaryChannel::kLower;
using PrimaryChannel::kNone;
using PrimaryChannel::kUpper;
using PrimaryChannel::kUpperLower;
using PrimaryChannel::kUpperUpper;

/// A wide channel: its first and last 20 MHz channel and its centre.
struct Block {
  std::int32_t first;
  std::int32_t last;
  std::int32_t centre;
};

constexpr Block kBlocks40[] = {
    {36, 40, 38},    {44, 48, 46},    {52, 56, 54},    {60, 64, 62},
    {100, 104, 102}, {108, 112, 110}, {116, 120, 118}, {124, 128, 126},
    {132, 136, 134}, {140, 144, 142}, {149, 153, 151}, {157, 161, 159},
};
constexpr Block kBlocks80[] = {
    {36, 48, 42}, {52, 64, 58}, {100, 112, 106}, {116, 128, 122}, {132, 144, 138}, {149, 161, 155},
};
constexpr Block kBlocks160[] = {{36, 64, 50}, {100, 128, 114}};
constexpr std::int32_t kCentres320[] = {31, 63, 95, 127, 159, 191, 223};

/// Centre of the table's block around a channel; 0 when it lies in none.
template <std::size_t N>
std::int64_t centre_of(const Block (&blocks)[N], std::int64_t channel) {
  for (const Block& block : blocks)
    if (channel >= block.first && channel <= block.last) return block.centre;
  return 0;
}

/// Centre of the block around a channel when blocks of `size` channel numbers follow each other
/// from channel 1 on. `size` is a power of two, so the mask rounds down below zero as well.
std::int64_t regular_centre(std::int64_t channel, std::int64_t size) {
  return ((channel - 1) & ~(size - 1)) + size / 2 - 1;
}

std::int32_t keep_half(std::int32_t position) {
  return position == kLower || position == kUpper ? position : kNone;
}

std::int32_t keep_quarter(std::int32_t position) {
  return position == kUpperLower || position == kUpperUpper ? position : keep_half(position);
}

std::int32_t half(std::int32_t position, std::int64_t channel, std::int64_t centre) {
  if (channel == centre) return keep_half(position);
  return channel < centre ? kLower : kUpper;
}

std::int32_t quarter(std::int32_t position, std::int64_t channel, std::int64_t centre) {
  const std::int64_t distance = channel - centre;
  if (distance == 0) return keep_quarter(position);
  if (distance < -5) return kLower;
  if (distance < 0) return kUpper;
  return distance < 6 ? kUpperLower : kUpperUpper;
}

/// 2.4 GHz and whatever has no block table: the channel decides nothing.
std::int32_t keep_for_width(std::int32_t position, std::int32_t width_mhz) {
  if (width_mhz == 40 || width_mhz == 160 || width_mhz == 320) return keep_half(position);
  return width_mhz == 80 ? keep_quarter(position) : kNone;
}

std::int32_t normalized_5ghz(std::int32_t position, std::int64_t channel, std::int32_t width_mhz) {
  const bool in_blocks = channel >= 36 && channel <= 161;
  if (!in_blocks) return keep_for_width(position, width_mhz);
  if (width_mhz == 40) {
    const std::int64_t centre = centre_of(kBlocks40, channel);
    return half(position, channel, centre != 0 ? centre : regular_centre(channel, 8));
  }
  if (width_mhz == 80) {
    const std::int64_t centre = centre_of(kBlocks80, channel);
    return quarter(position, channel, centre != 0 ? centre : regular_centre(channel, 16));
  }
  const std::int64_t centre = width_mhz == 160 ? centre_of(kBlocks160, channel) : 0;
  return centre != 0 ? half(position, channel, centre) : keep_for_width(position, width_mhz);
}

/// 320 MHz blocks overlap, so a position that the access point chose stands; else the nearest
/// centre decides, the lower one of two.
std::int32_t normalized_320(std::int32_t position, std::int64_t channel) {
  if (keep_half(position) != kNone) return position;
  std::int64_t nearest = kCentres320[0];
  for (const std::int64_t centre : kCentres320)
    if (std::llabs(channel - centre) < std::llabs(channel - nearest)) nearest = centre;
  if (std::llabs(channel - nearest) > 32 || channel == nearest) return kNone;
  return channel < nearest ? kLower : kUpper;
}

std::int32_t normalized_6ghz(std::int32_t position, std::int64_t channel, std::int32_t width_mhz) {
  switch (width_mhz) {
    case 40:
      return half(position, channel, regular_centre(channel, 8));
    case 80:
      return quarter(position, channel, regular_centre(channel, 16));
    case 160:
      return half(position, channel, regular_centre(channel, 32));
    case 320:
      return normalized_320(position, channel);
    default:
      return kNone;
  }
}

/// The band whose blocks apply. Below 166 a known band decides over the channel; from 166 on only
/// a radio that says so is in the 6 GHz band.
std::int32_t rule_band(std::int32_t channel, std::int32_t band) {
  if (band == 6) return 6;
  if (channel < 1 || channel > 165) return 0;
  return band != 0 ? band : infer_band(channel);
}

struct PositionName {
  std::int32_t position;
  const char* half;     ///< at 40, 160 and 320 MHz
  const char* quarter;  ///< at 80 MHz
};

constexpr PositionName kPositionNames[] = {
    {kLower, "lower", "ll"},
    {kUpper, "upper", "lu"},
    {kUpperLower, nullptr, "ul"},
    {kUpperUpper, nullptr, "uu"},
};

}  // namespace

std::int32_t infer_band(std::int32_t channel) noexcept {
  if (channel >= 1 && channel <= 14) return 2;
  if (channel >= 36 && channel <= 165) return 5;
  return channel >= 166 && channel <= 233 ? 6 : 0;
}

std::int32_t normalized_primary_channel(std::int32_t position, std::int32_t channel,
                                        std::int32_t band, std::int32_t width_mhz) noexcept {
  if (width_mhz == 20) return kNone;
  switch (rule_band(channel, band)) {
    case 5:
      return normalized_5ghz(position, channel, width_mhz);
    case 6:
      return normalized_6ghz(position, channel, width_mhz);
    default:
      return keep_for_width(position, width_mhz);
  }
}

const char* primary_channel_name(std::int32_t position, std::int32_t width_mhz) noexcept {
  const bool halves = width_mhz == 40 || width_mhz == 160 || width_mhz == 320;
  if (!halves && width_mhz != 80) return "none";
  for (const PositionName& name : kPositionNames) {
    if (name.position != position) continue;
    const char* text = halves ? name.half : name.quarter;
    return text != nullptr ? text : "none";
  }
  return "none";
}

std::int32_t primary_channel_from_name(const char* name) noexcept {
  const std::string_view text = name != nullptr ? name : "";
  for (const PositionName& known : kPositionNames) {
    if (text == known.quarter) return known.position;
    if (known.half != nullptr && text == known.half) return known.position;
  }
  return kNone;
}

}  // namespace rrm
