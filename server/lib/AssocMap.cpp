#include "server/lib/AssocMap.h"

#include <vector>

#include "server/lib/Clock.h"
#include "server/lib/Hooks.h"

namespace rrm {

void AssocMap::from_json(const JsonReader& assoclist) {
  if (assoclist.is_null()) return;
  associated_.clear();
  const int count = static_cast<int>(assoclist.size());
  for (int i = 0; i < count; ++i) {
    const JsonReader element = assoclist.child(i);
    const char* mac = element.get_str("mac");
    const char* ssid = element.get_str("ssid");
    if (*mac == '\0' || *ssid == '\0') continue;
    const MacAddress address = MacAddress::from_text(mac);
    if (refuse(address)) return;
    associated_.try_emplace(address, AssocClient{element.get_int("rssi"), 0, ssid, false, false});
  }
}

/// Whether the client would be one too many.
bool AssocMap::refuse(const MacAddress& mac) const {
  if (associated_.size() < kMaxClients || associated_.count(mac) > 0) return false;
  RRM_LOG(Warning, "Client %s refused, the radio has %zu", mac.upper().c_str(), associated_.size());
  return true;
}

void AssocMap::add_client(const MacAddress& mac, std::int32_t rssi_dbm, const std::string& ssid,
                          bool no_balance, bool flag) {
  if (ssid.empty()) return;
  const auto since = static_cast<std::uint64_t>(monotonic_seconds());
  replace_client(mac, {rssi_dbm, since, ssid, no_balance, flag});
}

void AssocMap::replace_client(const MacAddress& mac, const AssocClient& client) {
  if (!refuse(mac)) associated_.insert_or_assign(mac, client);
}

void AssocMap::remove_client(const MacAddress& mac) { associated_.erase(mac); }

bool AssocMap::update_rssi(const MacAddress& mac, std::int32_t rssi_dbm) {
  const auto found = associated_.find(mac);
  if (found == associated_.end() || rssi_dbm >= 0) return false;
  found->second.dbm_signal = rssi_dbm;
  return true;
}

void AssocMap::expect_client(const MacAddress& mac, const MacAddress& target_ap,
                             std::int32_t radio_id, std::int32_t countdown) {
  if (associated_.count(mac) > 0) return;
  expected_.insert_or_assign(mac, ExpectedClient{target_ap, radio_id, countdown});
}

void AssocMap::forget_expected(const MacAddress& mac) { expected_.erase(mac); }

void AssocMap::age_expected() {
  std::vector<MacAddress> over;
  for (auto& [mac, client] : expected_) {
    if (client.countdown > 0) --client.countdown;
    if (client.countdown < 1) over.push_back(mac);
  }
  for (const MacAddress& mac : over) expected_.erase(mac);
}

void AssocMap::clear() {
  associated_.clear();
  expected_.clear();
}

const AssocClient* AssocMap::find(const MacAddress& mac) const {
  const auto found = associated_.find(mac);
  return found == associated_.end() ? nullptr : &found->second;
}

void AssocMap::dump() const {
  RRM_LOG(Debug, "Assocc clients:  %zu - %zu", associated_.size(), expected_.size());
  if (!log_enabled(LogLevel::Debug)) return;
  std::size_t index = 0;
  for (const auto& [mac, client] : associated_)
    RRM_LOG(Debug, "Client (%zu/%zu) %s - %s rssi %d no_balance %d", ++index, associated_.size(),
            mac.upper().c_str(), client.ssid.c_str(), client.dbm_signal, client.no_balance);
}

void AssocMap::to_json(JsonWriter& array) const {
  for (const auto& [mac, client] : associated_) {
    JsonWriter object = JsonWriter::object(array);
    object.add("mac", mac.upper().c_str());
    client_to_json(client, object);
  }
}

void AssocMap::client_to_json(const AssocClient& client, JsonWriter& object) {
  object.add("dbm-signal", client.dbm_signal);
  object.add("ssid", client.ssid);
  object.add("no-balance", client.no_balance);
}

}  // namespace rrm
