#pragma once

#include <cstdint>

/// Channel numbers of the 2.4, 5 and 6 GHz bands: which band they lie in and which of the 20 MHz
/// channels of a wider one is the primary.
///
/// Threading: pure functions. Units: bands in GHz (0 unknown, 2, 5 or 6), widths in MHz. Every
/// number may come from the network as it is; none is too absurd to be passed.
namespace rrm {

/// Position of the primary 20 MHz channel in a wider one; the lower ones first.
namespace PrimaryChannel {
inline constexpr std::int32_t kNone = 0;
inline constexpr std::int32_t kLower = 256;        ///< "lower", at 80 MHz "ll"
inline constexpr std::int32_t kUpper = 512;        ///< "upper", at 80 MHz "lu"
inline constexpr std::int32_t kUpperLower = 768;   ///< at 80 MHz "ul"
inline constexpr std::int32_t kUpperUpper = 1024;  ///< at 80 MHz "uu"
}  // namespace PrimaryChannel

/// 2 for channels 1..14, 5 for 36..165, 6 for 166..233, 0 (unknown) for any other.
std::int32_t infer_band(std::int32_t channel) noexcept;

/// The position that agrees with channel, band and width: computed where the channel decides it,
/// else `position` where it is one that the width knows, else none.
std::int32_t normalized_primary_channel(std::int32_t position, std::int32_t channel,
                                        std::int32_t band, std::int32_t width_mhz) noexcept;

/// "lower" and "upper" at 40, 160 and 320 MHz, "ll" to "uu" at 80 MHz, "none" for anything else.
const char* primary_channel_name(std::int32_t position, std::int32_t width_mhz) noexcept;

/// The position that an access point names, whatever its width; none for an unknown name.
std::int32_t primary_channel_from_name(const char* name) noexcept;

}  // namespace rrm
