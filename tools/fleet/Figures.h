#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <vector>

#include "tools/fleet/World.h"

/// How good a radio plan is, measured on the simulated air and not on what access points report.
namespace rrm::fleet {

/// Readings of all radios of one band.
struct BandSample {
  std::vector<double>
      interference_dbm;             ///< per radio: what others put into its channel, plus noise
  std::vector<double> loudest_dbm;  ///< per radio that has one: RSSI of the loudest co-channel AP
  std::vector<double> power_dbm;    ///< per radio
  std::map<int, int> channels;      ///< radios by primary channel

  std::size_t radios() const noexcept { return power_dbm.size(); }
  void merge(const BandSample& other);
};

/// Index: band index.
using AirSample = std::array<BandSample, 3>;

/// Power that everybody else puts into the radio's channel, and thermal noise, dBm. All
/// transmitters count as always on; a block that overlaps in part counts with the part inside.
double interference_dbm(const World& world, const AccessPoint& ap, const RadioUnit& radio);

/// RSSI of the loudest access point of the fleet whose block overlaps the radio's; absent: none.
std::optional<double> loudest_co_channel_dbm(const World& world, const AccessPoint& ap,
                                             const RadioUnit& radio);

/// Measures all radios of one site.
AirSample sample_site(const World& world, const Site& site);
void merge(AirSample& into, const AirSample& other);

/// Arithmetic mean; 0 for none.
double mean(const std::vector<double>& values) noexcept;
/// The value that `share` (0 to 1) of the values do not exceed (nearest rank); 0 for none.
double percentile(std::vector<double> values, double share) noexcept;
/// How many values lie above the limit.
std::size_t count_above(const std::vector<double>& values, double limit) noexcept;

}  // namespace rrm::fleet
