#pragma once

#include <cstdint>
#include <vector>

#include "server/lib/JsonReader.h"
#include "server/lib/JsonWriter.h"
#include "server/lib/MacAddress.h"
#include "server/lib/MacMap.h"

/// What an access point hears over the air, by BSSID.
///
/// Threading: the domain worker's thread only; an optimisation works on copies.
namespace rrm {

/// One heard BSSID.
struct Neighbour {
  std::int32_t dbm_signal = 0;  ///< RSSI, dBm
  std::int32_t channel = 0;     ///< primary channel number
  std::int32_t band = 0;        ///< 0 unknown, 2, 5 or 6 GHz
  std::int32_t bandwidth = 0;   ///< MHz
  std::int32_t tx_power = 0;    ///< dBm, announced by the BSSID
  std::int32_t primary = 256;   ///< position of the primary channel: 256 lower, 512 upper

  /// "dbm-signal", "channel", "band", "bandwidth", "tx-power", "primary" into an object.
  void to_json(JsonWriter& object) const;
};

/// What one access point hears, by BSSID, in the order it was told of them.
using NeighbourMap = MacMap<Neighbour>;

/// Inserts unless present: the first entry of a BSSID wins.
void insert_neighbour(NeighbourMap& map, const MacAddress& bssid, const Neighbour& entry);

/// The status form, an array of "mac" and a neighbour's members, and its way back into a map.
void neighbours_to_json(const NeighbourMap& map, JsonWriter& array);
void restore_neighbours(NeighbourMap& map, const JsonReader& array);

/// Rebuilds `target` from several scans: the signal is the robust mean over all scans that hold the
/// BSSID, everything else comes from the latest of them.
void merge_neighbours(NeighbourMap& target, const std::vector<NeighbourMap>& scans);

/// The same while the scans come in one by one, so that only what differs between them is held.
class NeighbourMerger {
 public:
  /// Takes the next scan, later than all before it.
  void add(const NeighbourMap& scan);
  /// Replaces `target` by the merged entries.
  void finish(NeighbourMap& target) const;

 private:
  struct Group {
    Neighbour latest;
    std::vector<std::int32_t> signals;  ///< dBm, of every scan that holds the BSSID
  };
  MacMap<Group> groups_;
};

/// Mean that leaves out samples far from the rest; 0 for no values. Integer divisions truncate.
std::int32_t robust_mean(const std::vector<std::int32_t>& values);

}  // namespace rrm
