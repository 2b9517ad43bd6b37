#pragma once

#include <array>
#include <cstdint>

#include "tools/fleet/Crowd.h"

namespace rrm::fleet {

/// How a crowd is served at one moment; per band by band index.
struct CrowdSample {
  std::uint32_t clients = 0;  ///< that have arrived
  std::uint32_t served = 0;
  std::array<double, 3> mean_per_radio{};
  std::array<std::uint32_t, 3> most_on_a_radio{};
  /// Mean over the clients of (most - mean clients per radio) among the radios of the band that
  /// hear the client well and serve its SSID; clients with fewer than two such radios do not count.
  std::array<double, 3> imbalance{};
  double weak_share = 0;        ///< of the served: heard at or below the threshold
  Millis longest_unserved = 0;  ///< of the run so far, those included who still wait
  Millis longest_orphaned = 0;  ///< the same, of those whose access point died
  Millis longest_block = 0;     ///< of a client by a radio, of the run so far
};

// RSSI thresholds of the controller's default settings.
inline constexpr int kWeakDbm = -75;    ///< at or below it a client is weak
inline constexpr int kStrongDbm = -65;  ///< above it a client is strong: only there it may be sent

CrowdSample sample_crowd(const World& world, const Crowd& crowd, Millis now);

}  // namespace rrm::fleet
