#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "server/lib/ApMap.h"
#include "server/lib/Config.h"

namespace rrm::test {

/// The settings and access points of a made-up domain. The access points refer to the settings, so
/// a domain stays where it was made.
struct MadeDomain {
  DomainConfig config;
  ApMap aps;
};

/// A MAC address from its number: 02:00:00:00:00:01 is 0x020000000001.
MacAddress mac_of(std::uint64_t number);

/// Adds an access point with three disabled radios, base MAC from the number, that answered its
/// scan.
ApEntry& add_ap(MadeDomain& domain, std::uint64_t mac);

/// Switches a radio on: band and channel, 20 MHz, power 10 between 5 and 20 dBm, and no choice but
/// its own channel.
Radio& enable_radio(ApEntry& ap, std::int32_t id, std::int32_t band, std::int32_t channel);

/// Lets an access point hear a BSSID.
Neighbour& hear(NeighbourMap& map, const MacAddress& bssid, std::int32_t rssi_dbm,
                std::int32_t channel, std::int32_t band, std::int32_t width_mhz = 20);

/// A small domain with everything an optimisation can meet, sensible or not: all bands and widths,
/// locks, EIRP limits, antennas, foreign BSSs, locally administered BSSIDs, bands that nobody
/// knows. Same seed, same domain.
std::unique_ptr<MadeDomain> random_domain(std::uint32_t seed);

/// A campus: access points on a grid with radios at 2.4, 5 and 6 GHz, each hearing all radios of
/// the `neighbours` nearest ones, loud when near.
std::unique_ptr<MadeDomain> campus(std::size_t aps, std::size_t neighbours, std::uint32_t seed);

}  // namespace rrm::test
