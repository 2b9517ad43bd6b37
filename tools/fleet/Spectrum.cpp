#include "tools/fleet/Spectrum.h"

#include <algorithm>
#include <cmath>

namespace rrm::fleet {
namespace {

constexpr std::array<const char*, 7> kPrimaryNames{"none", "lower", "upper", "ll",
                                                   "lu",   "ul",    "uu"};

/// First and last primary channel of every 5 GHz block of a width; channels lie 4 apart.
struct Block {
  int width_mhz, first, last;
};
constexpr Block kBlocks5[] = {
    {40, 36, 40},   {40, 44, 48},   {40, 52, 56},   {40, 60, 64},   {40, 100, 104},
    {40, 108, 112}, {40, 116, 120}, {40, 124, 128}, {40, 132, 136}, {40, 140, 144},
    {40, 149, 153}, {40, 157, 161}, {80, 36, 48},   {80, 52, 64},   {80, 100, 112},
    {80, 116, 128}, {80, 132, 144}, {80, 149, 161}, {160, 36, 64},  {160, 100, 128},
};

/// Lowest and highest 20 MHz channel of the block that holds the channel; {0, 0} when there is
/// none.
struct Edges {
  int first = 0;
  int last = 0;
};

Edges edges5(int channel, int width_mhz) noexcept {
  if (width_mhz == 20) return {channel, channel};
  for (const Block& block : kBlocks5) {
    if (block.width_mhz == width_mhz && channel >= block.first && channel <= block.last) {
      return {block.first, block.last};
    }
  }
  return {};
}

Edges edges6(int channel, int width_mhz) noexcept {
  const int count = width_mhz / 20;  // 20 MHz channels in the block, numbered 1, 5, 9 ...
  const int first = (channel - 1) / (4 * count) * 4 * count + 1;
  return {first, first + 4 * (count - 1)};
}

Edges edges(int band, int channel, int width_mhz) noexcept {
  return band == 5 ? edges5(channel, width_mhz) : edges6(channel, width_mhz);
}

/// 2.4 GHz: the secondary channel of a 40 MHz pair lies 20 MHz above a lower primary, below an
/// upper.
Spectrum occupied2(int channel, int width_mhz, Primary primary) noexcept {
  const double centre = centre_mhz(2, channel);
  if (width_mhz != 40) return {centre - 10, centre + 10};
  return primary == Primary::Upper ? Spectrum{centre - 30, centre + 10}
                                   : Spectrum{centre - 10, centre + 30};
}

std::vector<int> with_block(const std::vector<int>& channels, int width_mhz) {
  std::vector<int> usable;
  std::copy_if(channels.begin(), channels.end(), std::back_inserter(usable),
               [&](int channel) { return edges5(channel, width_mhz).first != 0; });
  return usable;
}

}  // namespace

const char* name(Primary primary) noexcept {
  return kPrimaryNames[static_cast<std::size_t>(primary)];
}

Primary primary_from_name(std::string_view text) noexcept {
  const auto found = std::find(kPrimaryNames.begin(), kPrimaryNames.end(), text);
  if (found == kPrimaryNames.end()) return Primary::None;
  return static_cast<Primary>(found - kPrimaryNames.begin());
}

double centre_mhz(int band, int channel) noexcept {
  if (band == 2 && channel == 14) return 2484;
  if (band == 2 && channel >= 1 && channel <= 13) return 2407 + 5 * channel;
  if (band == 5 && channel >= 36 && channel <= 177) return 5000 + 5 * channel;
  if (band == 6 && channel >= 1 && channel <= 233) return 5950 + 5 * channel;
  return 0;
}

Spectrum occupied(int band, int channel, int width_mhz, Primary primary) noexcept {
  if (centre_mhz(band, channel) == 0) return {};
  if (band == 2) return occupied2(channel, width_mhz, primary);
  const Edges block = edges(band, channel, std::max(width_mhz, 20));
  if (block.first == 0) return {};
  const double low = centre_mhz(band, block.first);
  return {low - 10, low + 5 * (block.last - block.first) + 10};
}

Primary primary_position(int band, int channel, int width_mhz) noexcept {
  if (band == 2 || width_mhz <= 20) return Primary::None;
  const Edges block = edges(band, channel, width_mhz);
  if (block.first == 0) return Primary::None;
  const int place = (channel - block.first) / 4;
  const int count = (block.last - block.first) / 4 + 1;
  if (width_mhz == 80) {
    constexpr std::array kQuarters{Primary::LowerLower, Primary::LowerUpper, Primary::UpperLower,
                                   Primary::UpperUpper};
    return kQuarters[static_cast<std::size_t>(std::clamp(place, 0, 3))];
  }
  return place < count / 2 ? Primary::Lower : Primary::Upper;
}

double share_inside(const Spectrum& transmitter, const Spectrum& receiver) noexcept {
  const double common =
      std::min(transmitter.high, receiver.high) - std::max(transmitter.low, receiver.low);
  return common > 0 && transmitter.width() > 0 ? common / transmitter.width() : 0;
}

double noise_floor_dbm(double width_mhz) noexcept {
  return -174 + 10 * std::log10(width_mhz * 1e6) + 6;
}

double milliwatts(double dbm) noexcept { return std::pow(10, dbm / 10); }
double dbm(double milliwatts) noexcept { return 10 * std::log10(milliwatts); }

const std::vector<int>& usable_channels(int band, int width_mhz) {
  static const std::vector<int> kTwo{1, 6, 11};
  static const std::vector<int> kFive{36,  40,  44,  48,  52,  56,  60,  64,  100, 104, 108, 112,
                                      116, 120, 124, 128, 132, 136, 140, 144, 149, 153, 157, 161};
  // One primary channel of every 80 MHz block: the preferred scanning channels [26.17.2.3.3].
  static const std::vector<int> kSix{5,   21,  37,  53,  69,  85,  101, 117,
                                     133, 149, 165, 181, 197, 213, 229};
  static const std::vector<int> kFive160 = with_block(kFive, 160);
  if (band == 2) return kTwo;
  if (band == 6) return kSix;
  return width_mhz == 160 ? kFive160 : kFive;
}

}  // namespace rrm::fleet
