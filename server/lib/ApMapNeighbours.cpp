// What the access points of a map hear: scan reports, the BSSIDs under which radios are heard, and
// the 802.11k neighbour lists made from them.
#include <bitset>
#include <map>
#include <string_view>
#include <utility>
#include <vector>

#include "server/lib/ApMap.h"
#include "server/lib/ChannelPlan.h"
#include "server/lib/Hooks.h"

namespace rrm {
namespace {

/// One heard BSS of a scan, without its BSSID.
Neighbour scanned_neighbour(const JsonReader& element, const char* bssid) {
  Neighbour entry;
  entry.dbm_signal = element.get_int("rssi");
  entry.channel = element.get_int("channel");
  entry.bandwidth = element.get_int("bandwidth");
  entry.tx_power = element.get_int("tx-power");
  const bool upper = std::string_view(element.get_str("primary-channel")) == "upper";
  entry.primary = upper ? PrimaryChannel::kUpper : PrimaryChannel::kLower;
  const bool has_band = element.has("band");
  entry.band = has_band ? element.get_int("band") : infer_band(entry.channel);
  if (!has_band && entry.band == 0)
    RRM_LOG(Warning, "rf-environment entry without band: bssid=%s channel=%d bandwidth=%d rssi=%d",
            bssid, entry.channel, entry.bandwidth, entry.dbm_signal);
  return entry;
}

std::int32_t known_band(const Radio& radio) {
  return radio.band != 0 ? radio.band : infer_band(radio.channel);
}

/// The radio of `receiver` whose clients could roam to `neighbour`; null when there is none.
const Radio* counterpart(const ApEntry& receiver, const Radio& neighbour, std::int32_t band) {
  const Radio* same_band = nullptr;
  for (const Radio& radio : receiver.radios.radios) {
    if (known_band(radio) != band) continue;
    if (radio.channel == neighbour.channel) return &radio;
    if (same_band == nullptr && radio.status) same_band = &radio;
  }
  return same_band;
}

/// The neighbour's VAPs whose SSID has 802.11k on both sides.
std::vector<const Vap*> common_80211k(const Radio& own, const Radio& neighbour) {
  std::vector<const Vap*> common;
  for (const auto& [ssid, vap] : neighbour.vaps.vaps())
    if (vap.use_80211k && own.vaps.use_80211k_of(ssid)) common.push_back(&vap);
  return common;
}

/// Appends the 802.11k entry of one neighbour radio, if the receiver has an SSID in common with it.
void add_80211k_entry(const ApEntry& receiver, const Radio& neighbour,
                      const MacAddress& neighbour_mac, JsonWriter& array) {
  const std::int32_t band = known_band(neighbour);
  if (!neighbour.status || band == 0) return;
  const Radio* own = counterpart(receiver, neighbour, band);
  if (own == nullptr) return;
  const std::vector<const Vap*> common = common_80211k(*own, neighbour);
  if (common.empty()) return;
  JsonWriter entry = JsonWriter::object(array);
  entry.add("neighbour-mac", neighbour_mac.upper().c_str());
  entry.add("channel", neighbour.channel);
  entry.add("band", neighbour.band_for_channel(neighbour.channel));
  entry.add("bandwidth", neighbour.bandwidth);
  entry.add("primary-channel", neighbour.primary_channel_name());
  entry.add("priority", neighbour.load_level);
  JsonWriter vaps = JsonWriter::array(entry, "vaps");
  for (const Vap* vap : common) {
    JsonWriter element = JsonWriter::object(vaps);
    element.add("id", vap->vap_id);
    element.add("ssid", vap->ssid);
    element.add("mac", vap->mac.upper().c_str());
  }
}

/// What the changes leave behind in one access point's map; a later one goes before an earlier one.
void rewrite_channels(NeighbourMap& heard, const std::vector<ApMap::ChannelChange>& changes,
                      const MacMap<std::size_t>& latest) {
  const auto place = [&latest](const MacAddress& bssid) {
    const auto found = latest.find(bssid);
    return found == latest.end() ? std::size_t{0} : found->second;
  };
  for (auto& [bssid, neighbour] : heard) {
    std::size_t change = place(bssid);
    const std::size_t of_twin = place(bssid.twin());
    if (of_twin > change && !heard.contains(bssid.twin())) change = of_twin;
    if (change != 0) neighbour.channel = changes[change - 1].channel;
  }
}

}  // namespace

void ApMap::fill_from_json_rf_environment(const JsonReader& rf_array, NeighbourMap& members,
                                          NeighbourMap& rogue) const {
  members.clear();
  rogue.clear();
  const int count = static_cast<int>(rf_array.size());
  for (int i = 0; i < count; ++i) {
    const JsonReader element = rf_array.child(i);
    if (element.is_null()) continue;
    const char* text = element.get_str("bssid");
    MacAddress bssid;
    const bool readable = MacAddress::scan(text, bssid);
    const ApStorage::Owner* owner = readable ? storage_.find(bssid) : nullptr;
    const Neighbour entry = scanned_neighbour(element, text);
    if (owner == nullptr) {
      insert_neighbour(rogue, bssid, entry);
    } else if (owner->radio_id >= 0) {
      insert_neighbour(members, bssid, entry);
    }
  }
}

void ApMap::update_rf_environment(ApEntry& ap, const JsonReader& scans) const {
  if (scans.is_null()) return;
  const int count = static_cast<int>(scans.size());
  if (count == 1) {
    const JsonReader scan = scans.child(0);
    if (scan.is_null()) return;
    fill_from_json_rf_environment(scan, ap.visible_members, ap.visible_rogue);
  } else if (count > 1) {
    NeighbourMerger members;
    NeighbourMerger rogue;
    NeighbourMap scan_members;
    NeighbourMap scan_rogue;
    for (int i = 0; i < count; ++i) {
      fill_from_json_rf_environment(scans.child(i), scan_members, scan_rogue);
      members.add(scan_members);
      rogue.add(scan_rogue);
    }
    members.finish(ap.visible_members);
    rogue.finish(ap.visible_rogue);
  } else {
    return;
  }
  ap.radios.received = true;
}

MacAddress ApMap::heard_bssid(const ApEntry& ap, std::int32_t radio_id,
                              const ApEntry* observer) const {
  const MacAddress fallback = ap.get_radio_mac(radio_id);
  const auto heard_by = [&](const ApEntry& listener, MacAddress& bssid) {
    for (const auto& [heard, neighbour] : listener.visible_members) {
      const ApStorage::Owner* owner = storage_.find(heard);
      if (owner == nullptr || owner->radio_id != radio_id) continue;
      if (owner->ap->base_mac != ap.base_mac) continue;
      bssid = heard;
      return true;
    }
    return false;
  };
  MacAddress bssid = fallback;
  if (observer != nullptr) {
    if (observer->base_mac != ap.base_mac) heard_by(*observer, bssid);
    return bssid;
  }
  for (const auto& [mac, listener] : aps_)
    if (mac != ap.base_mac && heard_by(*listener, bssid)) break;
  return bssid;
}

void ApMap::set_channel_for_bssid(const MacAddress& bssid, std::int32_t channel,
                                  std::int32_t& neighbour_channel_count) {
  set_channels({{bssid, channel, &neighbour_channel_count}});
}

void ApMap::set_channels(const std::vector<ChannelChange>& changes) {
  MacMap<std::size_t> latest;  // place of a BSSID's last change, counted from 1
  for (std::size_t i = 0; i < changes.size(); ++i) latest.insert_or_assign(changes[i].bssid, i + 1);
  NeighbourMap* last = nullptr;
  for (const auto& [mac, entry] : aps_) {
    if (last != nullptr) rewrite_channels(*last, changes, latest);
    last = &entry->visible_members;
  }
  if (last == nullptr) return;
  // Every visit would leave its count behind; only the last one's stays.
  for (const ChannelChange& change : changes) {
    auto found = last->find(change.bssid);
    if (found == last->end()) found = last->find(change.bssid.twin());
    if (found != last->end()) found->second.channel = change.channel;
    *change.neighbour_channel_count = count_channels(*last);
  }
}

void ApMap::build_80211k_list(const ApEntry& receiver, JsonWriter& array,
                              const NeighbourMap& heard) const {
  if (uses_all_ap_neighbours(receiver)) {
    add_all_ap_neighbours(receiver, array);
  } else {
    add_heard_neighbours(receiver, array, heard);
  }
}

/// Every other access point, each radio under the BSSID by which the receiver hears it, else under
/// its radio MAC. The receiver's view is turned round once instead of once per radio.
void ApMap::add_all_ap_neighbours(const ApEntry& receiver, JsonWriter& array) const {
  std::map<std::pair<MacAddress, std::int32_t>, MacAddress> heard_as;
  for (const auto& [bssid, neighbour] : receiver.visible_members)
    if (const ApStorage::Owner* owner = storage_.find(bssid))
      heard_as.try_emplace({owner->ap->base_mac, owner->radio_id}, bssid);
  for (const auto& [mac, owner] : aps_) {
    if (mac.same_but_local_bit(receiver.base_mac)) continue;
    for (const Radio& radio : owner->radios.radios) {
      if (!radio.status) continue;
      const auto heard = heard_as.find({mac, radio.id});
      add_80211k_entry(receiver, radio, heard != heard_as.end() ? heard->second : radio.mac, array);
    }
  }
}

void ApMap::add_heard_neighbours(const ApEntry& receiver, JsonWriter& array,
                                 const NeighbourMap& heard) const {
  for (const auto& [bssid, neighbour] : heard) {
    const ApStorage::Owner* owner = storage_.find(bssid);
    if (owner == nullptr || owner->radio_id < 0) continue;
    Entry ap = find(bssid);
    if (!ap) ap = find(owner->ap->base_mac);
    if (!ap) continue;
    const Radio* radio = ap->radios.find(owner->radio_id);
    if (radio != nullptr) add_80211k_entry(receiver, *radio, bssid, array);
  }
}

bool ApMap::uses_all_ap_neighbours(const ApEntry& ap) const {
  const DomainConfig& config = *ap.config;
  if (config.use_all_ap_balance) return true;
  return config.use_80211k && config.use_80211v && ap.radios.any_radio_with_80211k_vap() &&
         !ap.radios.any_802dot11v_or_k_candidate();
}

std::int32_t count_channels(const NeighbourMap& heard) noexcept {
  std::bitset<256> channels;
  for (const auto& [bssid, neighbour] : heard)
    if (neighbour.channel >= 1 && neighbour.channel <= 255)
      channels.set(static_cast<std::size_t>(neighbour.channel));
  return static_cast<std::int32_t>(channels.count());
}

}  // namespace rrm
