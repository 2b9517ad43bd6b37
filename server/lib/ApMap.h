#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include "server/lib/ApEntry.h"
#include "server/lib/ApStorage.h"

namespace rrm {

/// Access points of a domain by base MAC, with the index that resolves heard BSSIDs to them.
///
/// Purpose:   a domain keeps three: the subscribed ones, those that did not answer the running
///            round, and those whose session is gone. Moves keep both indexes in step.
/// Threading: the domain worker's thread only; snapshot() gives the optimisation deep copies.
/// Errors:    get() throws std::out_of_range.
class ApMap {
 public:
  using Entry = std::shared_ptr<ApEntry>;
  using Map = std::unordered_map<MacAddress, Entry>;
  /// A radio that was moved.
  struct ChannelChange {
    MacAddress bssid;
    std::int32_t channel = 0;
    std::int32_t* neighbour_channel_count = nullptr;  ///< of the radio; written
  };

  void insert(const Entry& entry);  ///< into the map only; index_ap() makes it findable by BSSID
  Entry find(const MacAddress& mac) const;  ///< by base MAC; empty when absent
  void erase(const MacAddress& mac);        ///< from index and map
  void erase_node(const MacAddress& mac);   ///< from the map only
  void index_ap(const Entry& entry) { storage_.insert_ap(entry); }

  /// By base MAC, else by any radio MAC or BSSID it owns (or their locally administered twins).
  Entry find_any(const MacAddress& mac) const;
  /// Throws std::out_of_range "AP not found", or "invalid session" when it subscribed on another.
  Entry get(const MacAddress& mac, std::uint32_t session_id) const;

  bool contains_bssid(const MacAddress& mac) const { return storage_.find(mac) != nullptr; }
  Entry find_by_bssid(const MacAddress& mac) const;
  std::int32_t radio_id_of_bssid(const MacAddress& mac) const;

  bool all_have_active_radio() const;
  void remove_session(std::uint32_t session_id);
  void move_session(std::uint32_t session_id, ApMap& to);
  std::size_t move_without_active_radio(ApMap& to, std::int32_t countdown);
  std::size_t move_inactive(ApMap& to, std::int32_t countdown);
  void move_all(ApMap& to);
  std::size_t age();
  ApMap snapshot() const;
  void clear_received();
  void reset_round();
  void clear_blacklist_state();
  void clear_client_lists();
  void dump() const;

  /// Reads one scan (array of heard BSSs) into the two maps of an access point.
  void fill_from_json_rf_environment(const JsonReader& rf_array, NeighbourMap& members,
                                     NeighbourMap& rogue) const;
  /// Applies an "rf-environment" value (an array of scans) to one access point.
  void update_rf_environment(ApEntry& ap, const JsonReader& scans) const;
  /// The BSSID under which others (or `observer`) hear a radio; its radio MAC when nobody does.
  MacAddress heard_bssid(const ApEntry& ap, std::int32_t radio_id, const ApEntry* observer) const;
  /// Rewrites the channel of a BSSID (or of its locally administered twin, where only that is
  /// heard) at every access point; the channel count of the last one visited stays in
  /// `neighbour_channel_count`.
  void set_channel_for_bssid(const MacAddress& bssid, std::int32_t channel,
                             std::int32_t& neighbour_channel_count);
  /// The same for many BSSIDs, one after the other, in a single walk over what is heard.
  void set_channels(const std::vector<ChannelChange>& changes);

  void to_json(JsonWriter& array) const;                  ///< status form of every access point
  void list_to_json(JsonWriter& array, bool full) const;  ///< factory data and VAPs only
  /// One element of that list; full VAPs carry key material and links.
  static void listed_to_json(const ApEntry& entry, JsonWriter& object, bool full);

  /// 802.11k neighbour entries for `receiver`, from what it hears or from all access points.
  void build_80211k_list(const ApEntry& receiver, JsonWriter& array,
                         const NeighbourMap& heard) const;
  bool uses_all_ap_neighbours(const ApEntry& ap) const;

  std::size_t size() const noexcept { return aps_.size(); }
  bool empty() const noexcept { return aps_.empty(); }
  Map& aps() noexcept { return aps_; }
  const Map& aps() const noexcept { return aps_; }
  ApStorage& storage() noexcept { return storage_; }
  const ApStorage& storage() const noexcept { return storage_; }

 private:
  void add_all_ap_neighbours(const ApEntry& receiver, JsonWriter& array) const;
  void add_heard_neighbours(const ApEntry& receiver, JsonWriter& array,
                            const NeighbourMap& heard) const;

  Map aps_;
  ApStorage storage_;
};

/// Distinct channels in 1..255 among what is heard.
std::int32_t count_channels(const NeighbourMap& heard) noexcept;

}  // namespace rrm
