#include "server/lib/ApMap.h"

#include <algorithm>
#include <stdexcept>
#include <vector>

#include "server/lib/Hooks.h"

namespace rrm {
namespace {

/// Moves the entries that `chosen` picks, each prepared by `prepare`, and keeps both indexes in
/// step. @return how many moved
template <class Chosen, class Prepare>
std::size_t move_if(ApMap& from, ApMap& to, Chosen chosen, Prepare prepare) {
  std::vector<ApMap::Entry> moving;
  for (const auto& [mac, entry] : from.aps())
    if (chosen(*entry)) moving.push_back(entry);
  for (const ApMap::Entry& entry : moving) {
    from.erase(entry->base_mac);
    prepare(*entry);
    to.insert(entry);
    to.index_ap(entry);
  }
  return moving.size();
}

/// Ticks that an access point without session is kept.
std::int32_t away_ticks(const DomainConfig& config) {
  return config.away_timeout / std::max(config.tick_period, 1);
}

void forget_session(ApEntry& ap) {
  ap.countdown = away_ticks(*ap.config);
  ap.session = kNoSession;
  ap.session_lost = true;
  for (Radio& radio : ap.radios.radios) {
    radio.blacklist.clear();
    radio.assoc_clients.clear();
  }
}

}  // namespace

void ApMap::insert(const Entry& entry) {
  Entry& place = aps_[entry->base_mac];
  if (place && place != entry) storage_.erase_ap(place);
  place = entry;
}

ApMap::Entry ApMap::find(const MacAddress& mac) const {
  const auto found = aps_.find(mac);
  return found == aps_.end() ? Entry() : found->second;
}

void ApMap::erase(const MacAddress& mac) {
  const auto found = aps_.find(mac);
  if (found == aps_.end()) return;
  storage_.erase_ap(found->second);
  aps_.erase(found);
}

void ApMap::erase_node(const MacAddress& mac) { aps_.erase(mac); }

ApMap::Entry ApMap::find_any(const MacAddress& mac) const {
  if (Entry entry = find(mac)) return entry;
  const Entry owner = find_by_bssid(mac);
  return owner ? find(owner->base_mac) : Entry();
}

ApMap::Entry ApMap::get(const MacAddress& mac, std::uint32_t session_id) const {
  Entry entry = find(mac);
  if (!entry) throw std::out_of_range("AP not found");
  if (entry->session.id != session_id) throw std::out_of_range("invalid session");
  return entry;
}

ApMap::Entry ApMap::find_by_bssid(const MacAddress& mac) const {
  const ApStorage::Owner* owner = storage_.find(mac);
  return owner != nullptr ? owner->ap : Entry();
}

std::int32_t ApMap::radio_id_of_bssid(const MacAddress& mac) const {
  const ApStorage::Owner* owner = storage_.find(mac);
  return owner != nullptr ? owner->radio_id : -1;
}

bool ApMap::all_have_active_radio() const {
  return std::all_of(aps_.begin(), aps_.end(), [](const auto& item) {
    return item.second->radios.any_enabled_with_channel();
  });
}

void ApMap::remove_session(std::uint32_t session_id) {
  std::vector<MacAddress> leaving;
  for (const auto& [mac, entry] : aps_)
    if (entry->session.id == session_id) leaving.push_back(mac);
  for (const MacAddress& mac : leaving) erase(mac);
}

void ApMap::move_session(std::uint32_t session_id, ApMap& to) {
  move_if(
      *this, to, [session_id](const ApEntry& ap) { return ap.session.id == session_id; },
      forget_session);
}

std::size_t ApMap::move_without_active_radio(ApMap& to, std::int32_t countdown) {
  return move_if(
      *this, to, [](const ApEntry& ap) { return !ap.radios.any_enabled_with_channel(); },
      [countdown](ApEntry& ap) { ap.countdown = countdown; });
}

std::size_t ApMap::move_inactive(ApMap& to, std::int32_t countdown) {
  return move_if(
      *this, to, [](const ApEntry& ap) { return !ap.active; },
      [countdown](ApEntry& ap) { ap.countdown = countdown; });
}

void ApMap::move_all(ApMap& to) {
  move_if(
      *this, to, [](const ApEntry&) { return true; }, [](ApEntry&) {});
}

std::size_t ApMap::age() {
  std::vector<MacAddress> leaving;
  for (const auto& [mac, entry] : aps_) {
    if (entry->countdown > 0) --entry->countdown;
    if (entry->countdown <= 0) leaving.push_back(mac);
  }
  for (const MacAddress& mac : leaving) erase(mac);
  return leaving.size();
}

ApMap ApMap::snapshot() const {
  ApMap copy;
  copy.aps_.reserve(aps_.size());
  copy.storage_.reserve_like(storage_);
  for (const auto& [mac, entry] : aps_) {
    const Entry copied = entry->copy();
    copy.insert(copied);
    copy.index_ap(copied);
  }
  return copy;
}

void ApMap::clear_received() {
  for (const auto& [mac, entry] : aps_) entry->radios.received = false;
}

void ApMap::reset_round() {
  for (const auto& [mac, entry] : aps_) {
    entry->active = false;
    entry->radios.clear_conflicted();
    entry->radios.clear_power_changed();
  }
}

void ApMap::clear_blacklist_state() {
  for (const auto& [mac, entry] : aps_)
    for (Radio& radio : entry->radios.radios) radio.blacklist.clear();
}

void ApMap::clear_client_lists() {
  for (const auto& [mac, entry] : aps_) {
    for (Radio& radio : entry->radios.radios) {
      radio.blacklist.changes.clear();
      radio.blacklist.kicked.clear();
    }
  }
}

void ApMap::dump() const {
  for (const auto& [mac, entry] : aps_) RRM_LOG(Debug, "AP %s", mac.upper().c_str());
}

void ApMap::to_json(JsonWriter& array) const {
  for (const auto& [mac, entry] : aps_) {
    JsonWriter object = JsonWriter::object(array);
    entry->to_json(object);
  }
}

void ApMap::list_to_json(JsonWriter& array, bool full) const {
  for (const auto& [mac, entry] : aps_) {
    JsonWriter object = JsonWriter::object(array);
    listed_to_json(*entry, object, full);
  }
}

void ApMap::listed_to_json(const ApEntry& entry, JsonWriter& object, bool full) {
  object.add("board", entry.description.board);
  object.add("mac", entry.base_mac.upper().c_str());
  object.add("serial", entry.description.serial);
  object.add("hw", entry.description.hw);
  JsonWriter radios = JsonWriter::array(object, "radios");
  for (const Radio& radio : entry.radios.radios) {
    JsonWriter element = JsonWriter::object(radios);
    element.add("id", radio.id);
    JsonWriter vaps = JsonWriter::array(element, "vaps");
    radio.vaps.to_json(vaps, full);
  }
}

}  // namespace rrm
