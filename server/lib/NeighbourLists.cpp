#include "server/lib/NeighbourLists.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "server/lib/Hooks.h"

namespace rrm {

namespace {

constexpr std::array<std::int32_t, 3> kBands = {2, 5, 6};

bool takes_part(const Vap& vap) { return vap.use_80211v || vap.use_80211k; }

bool takes_part(const Radio& radio) {
  if (!radio.status || radio.locked_for_80211v != 0) return false;
  const auto& vaps = radio.vaps.vaps();
  return std::any_of(vaps.begin(), vaps.end(),
                     [](const auto& vap) { return takes_part(vap.second); });
}

/// Radios of a domain that an access point hears, as bits of radio ids by access point.
using HeardRadios = std::unordered_map<const ApEntry*, std::uint32_t>;

HeardRadios heard_radios(const ApMap& aps, const ApEntry& ap) {
  HeardRadios heard;
  for (const auto& [bssid, neighbour] : ap.visible_members) {
    const ApStorage::Owner* owner = aps.storage().find(bssid);
    if (owner != nullptr && owner->radio_id >= 0 && owner->radio_id < 32) {
      heard[owner->ap.get()] |= 1U << owner->radio_id;
    }
  }
  return heard;
}

/// Fills the list of one own radio.
class RadioLists {
 public:
  RadioLists(const ApEntry& ap, const Radio& own) : ap_(ap), own_(own) {}

  void add(const ApEntry& owner, const Radio& neighbour) {
    const auto place = std::find(kBands.begin(), kBands.end(), neighbour.band);
    if (place == kBands.end()) return;
    const auto band = static_cast<std::size_t>(place - kBands.begin());
    Entry entry{&neighbour, {}};
    for (const auto& [ssid, vap] : neighbour.vaps.vaps()) {
      if (!shares(ssid, vap)) continue;
      if (++counts_[band][ssid] > kMaxListEntries) {
        RRM_LOG(Error, "On mac(%s) radio(%d) number of entries for ssid(%s) exceded limit(%d)",
                ap_.base_mac.upper().c_str(), own_.id, ssid.c_str(),
                static_cast<int>(kMaxListEntries));
        continue;
      }
      entry.vaps.push_back(&vap);
    }
    if (entry.vaps.empty()) return;
    if (owner.base_mac != ap_.base_mac && neighbour.load_level != 0) {
      ++load_.radios;
      load_.clients += static_cast<std::int32_t>(neighbour.assoc_clients.count());
    }
    bands_[band].push_back(std::move(entry));
  }

  NeighbourLoad write(JsonWriter& array) const {
    JsonWriter object = JsonWriter::object(array);
    object.add("id", own_.id);
    for (std::size_t band = 0; band < kBands.size(); ++band) {
      if (bands_[band].empty()) continue;
      JsonWriter list = JsonWriter::array(object, "band" + std::to_string(kBands[band]));
      for (const Entry& entry : bands_[band]) write_entry(entry, list);
    }
    return load_;
  }

 private:
  struct Entry {
    const Radio* radio;
    std::vector<const Vap*> vaps;
  };

  bool shares(const std::string& ssid, const Vap& vap) const {
    if (!takes_part(vap)) return false;
    const auto& own = own_.vaps.vaps();
    const auto found = own.find(ssid);
    return found != own.end() && takes_part(found->second);
  }

  static void write_entry(const Entry& entry, JsonWriter& list) {
    const Radio& radio = *entry.radio;
    JsonWriter object = JsonWriter::object(list);
    object.add("neighbour-mac", radio.mac.upper().c_str());
    object.add("channel", radio.channel);
    object.add("band", radio.band);
    object.add("bandwidth", radio.bandwidth);
    object.add("primary-channel", radio.primary_channel_name());
    object.add("priority", radio.load_level);
    JsonWriter vaps = JsonWriter::array(object, "vaps");
    for (const Vap* vap : entry.vaps) {
      JsonWriter item = JsonWriter::object(vaps);
      item.add("id", vap->vap_id);
      item.add("ssid", vap->ssid);
      item.add("mac", vap->mac.upper().c_str());
    }
  }

  const ApEntry& ap_;
  const Radio& own_;
  std::array<std::vector<Entry>, kBands.size()> bands_;
  std::array<std::unordered_map<std::string, std::size_t>, kBands.size()> counts_;
  NeighbourLoad load_;
};

}  // namespace

std::array<NeighbourLoad, 3> write_80211v_lists(const ApMap& aps, const ApEntry& ap,
                                                JsonWriter& array) {
  std::array<NeighbourLoad, 3> loads{};
  const bool all = aps.uses_all_ap_neighbours(ap);
  const HeardRadios heard = all ? HeardRadios{} : heard_radios(aps, ap);
  const auto is_neighbour = [&](const ApEntry& owner, const Radio& own, const Radio& radio) {
    if (!radio.status) return false;
    if (owner.base_mac == ap.base_mac) return radio.id != own.id;
    if (all) return true;
    const auto found = heard.find(&owner);
    return found != heard.end() && radio.id >= 0 && radio.id < 32 &&
           (found->second >> radio.id & 1U) != 0;
  };
  const auto add_radios = [&](RadioLists& lists, const ApEntry& owner, const Radio& own) {
    for (const Radio& radio : owner.radios.radios) {
      if (is_neighbour(owner, own, radio)) lists.add(owner, radio);
    }
  };
  for (const Radio& own : ap.radios.radios) {
    if (!takes_part(own)) continue;
    RadioLists lists(ap, own);
    for (const auto& [mac, owner] : aps.aps()) {
      add_radios(lists, *owner, own);
    }
    // A returning access point gets its list before it is among the others again.
    if (aps.find(ap.base_mac) == nullptr) add_radios(lists, ap, own);
    const NeighbourLoad load = lists.write(array);
    if (own.id >= 0 && static_cast<std::size_t>(own.id) < loads.size()) {
      loads[static_cast<std::size_t>(own.id)] = load;
    }
  }
  return loads;
}

}  // namespace rrm
