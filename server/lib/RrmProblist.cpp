#include "server/lib/RrmProblist.h"

#include "server/lib/Hooks.h"

namespace rrm {
namespace {

bool same_ssid(const ProbeEntry& entry, const std::string& ssid) {
  return !ssid.empty() && entry.ssid == ssid;
}

}  // namespace

void ProbeEntry::set_heard(const MacAddress& bssid, std::int32_t rssi_dbm,
                           const std::string& of_ssid) {
  if (same_ssid(*this, of_ssid)) heard.insert_or_assign(bssid, rssi_dbm);
}

void ProbeEntry::stop_awaiting(const MacAddress& bssid, const std::string& of_ssid) {
  if (same_ssid(*this, of_ssid)) awaited.erase(bssid);
}

const MacAddress* ProbeEntry::is_awaited(const MacAddress& bssid) const {
  return awaited.find(bssid);
}

void ProbeEntry::clear() {
  heard.clear();
  awaited.clear();
}

void RrmProblist::add(const MacAddress& client, const ProbeEntry& entry) {
  entries_.try_emplace(client, entry);
}

ProbeEntry* RrmProblist::find(const MacAddress& client) {
  const auto found = entries_.find(client);
  return found == entries_.end() ? nullptr : &found->second;
}

const ProbeEntry* RrmProblist::find(const MacAddress& client) const {
  const auto found = entries_.find(client);
  return found == entries_.end() ? nullptr : &found->second;
}

void RrmProblist::remove(const MacAddress& client) { entries_.erase(client); }

void RrmProblist::set_heard(const MacAddress& client, const MacAddress& bssid,
                            std::int32_t rssi_dbm, const std::string& ssid) {
  if (ProbeEntry* entry = find(client)) entry->set_heard(bssid, rssi_dbm, ssid);
}

void RrmProblist::stop_awaiting(const MacAddress& client, const MacAddress& bssid,
                                const std::string& ssid) {
  if (ProbeEntry* entry = find(client)) entry->stop_awaiting(bssid, ssid);
}

const MacAddress* RrmProblist::is_awaited(const MacAddress& client, const MacAddress& bssid) const {
  const ProbeEntry* entry = find(client);
  return entry != nullptr ? entry->is_awaited(bssid) : nullptr;
}

void RrmProblist::clear() {
  for (auto& [client, entry] : entries_) entry.clear();
  entries_.clear();
}

void log_problist_drop(const char* reason) { RRM_LOG(Debug, "RrmProblist: drop - %s", reason); }

}  // namespace rrm
