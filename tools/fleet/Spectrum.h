#pragma once

#include <array>
#include <cstdint>
#include <string_view>
#include <vector>

/// Which frequencies a radio occupies. Bands are 2, 5 and 6 (GHz); clauses are those of IEEE Std
/// 802.11-2020 and of 802.11ax-2021 for 6 GHz.
namespace rrm::fleet {

inline constexpr std::array<int, 3> kBands{2, 5, 6};

/// 0, 1 or 2 for the bands 2, 5 and 6; -1 for anything else.
constexpr int band_index(int band) noexcept {
  return band == 2 ? 0 : band == 5 ? 1 : band == 6 ? 2 : -1;
}

/// A stretch of the spectrum, MHz; empty when high is not above low.
struct Spectrum {
  double low = 0;
  double high = 0;

  double width() const noexcept { return high > low ? high - low : 0; }
  friend bool operator==(const Spectrum&, const Spectrum&) = default;
};

/// Where the primary 20 MHz channel sits in a wider one, by the names of the protocol.
enum class Primary : std::uint8_t {
  None,
  Lower,
  Upper,
  LowerLower,
  LowerUpper,
  UpperLower,
  UpperUpper
};
const char* name(Primary primary) noexcept;
Primary primary_from_name(std::string_view text) noexcept;

/// Centre of a 20 MHz channel in MHz [17.3.8.4.2, 27.3.23.2], or 0 outside the band.
double centre_mhz(int band, int channel) noexcept;

/// What a radio occupies: the channel block that holds its primary channel [21.3.14]. At 2.4 GHz
/// the 40 MHz block follows from the primary's position. A channel outside its band occupies
/// nothing.
Spectrum occupied(int band, int channel, int width_mhz, Primary primary) noexcept;

/// Position of the primary channel in its block; None for 20 MHz, 2.4 GHz and unknown channels.
Primary primary_position(int band, int channel, int width_mhz) noexcept;

/// Share (0 to 1) of a transmitter's power that falls into a receiver's channel; its power is taken
/// as spread evenly over its own block.
double share_inside(const Spectrum& transmitter, const Spectrum& receiver) noexcept;

/// Thermal noise and a noise figure of 6 dB in a channel: -174 dBm/Hz + 10 log10(width) + 6.
double noise_floor_dbm(double width_mhz) noexcept;

/// dBm to milliwatts and back.
double milliwatts(double dbm) noexcept;
double dbm(double milliwatts) noexcept;

/// Primary channels that access points of the band and width offer, ascending.
const std::vector<int>& usable_channels(int band, int width_mhz);

}  // namespace rrm::fleet
