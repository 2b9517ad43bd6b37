#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "server/lib/ApMap.h"
#include "server/lib/JsonWriter.h"

namespace rrm {

/// How loaded the neighbours of a radio are that still take clients.
struct NeighbourLoad {
  std::int32_t radios = 0;   ///< with a priority above 0
  std::int32_t clients = 0;  ///< associated to them or expected there
};

/// Entries that a list keeps per radio, band and SSID.
inline constexpr std::size_t kMaxListEntries = 64;

/// Writes the 802.11v neighbour list of an access point: per own radio that takes part one object
/// with its "id" and the non-empty arrays "band2", "band5" and "band6" of the radios it can hand
/// clients to, with their priorities. A radio is a neighbour when the access point hears one of its
/// BSSIDs (or in any case when the domain balances between all access points) and shares an SSID
/// with 802.11k or 802.11v; the access point's own other radios are neighbours too.
/// @return the load of each own radio's neighbours, by radio id; own radios are not counted
std::array<NeighbourLoad, 3> write_80211v_lists(const ApMap& aps, const ApEntry& ap,
                                                JsonWriter& array);

}  // namespace rrm
