#include "server/lib/ApStorage.h"

#include <utility>

#include "server/lib/Hooks.h"

namespace rrm {
namespace {

constexpr std::size_t kUsualMacs = 16;  ///< of an access point: three radios, some SSIDs

}  // namespace

void ApStorage::insert_ap(const std::shared_ptr<ApEntry>& entry) {
  erase_ap(entry);
  std::vector<MacAddress> claimed;
  claimed.reserve(kUsualMacs);
  for (const Radio& radio : entry->radios.radios) {
    if (!radio.status) continue;
    const Owner owner{entry, radio.id};
    claim(radio.mac, owner, claimed);
    for (const auto& [ssid, vap] : radio.vaps.vaps()) claim(vap.mac, owner, claimed);
  }
  if (!claimed.empty()) macs_of_.insert_or_assign(entry->base_mac, std::move(claimed));
  RRM_LOG(Trace, "AP %s, total size=%d", entry->base_mac.upper().c_str(),
          static_cast<std::int32_t>(owners_.size()));
}

void ApStorage::erase_ap(const std::shared_ptr<ApEntry>& entry) {
  erase_macs(entry->base_mac);
  RRM_LOG(Trace, "AP %s, total size=%d", entry->base_mac.upper().c_str(),
          static_cast<std::int32_t>(owners_.size()));
}

const ApStorage::Owner* ApStorage::find(const MacAddress& mac) const {
  auto found = owners_.find(mac);
  if (found == owners_.end()) found = owners_.find(mac.twin());
  return found == owners_.end() ? nullptr : &found->second;
}

void ApStorage::reserve_like(const ApStorage& other) {
  owners_.reserve(other.owners_.size());
  macs_of_.reserve(other.macs_of_.size());
}

void ApStorage::erase_macs(const MacAddress& base_mac) {
  const auto claimed = macs_of_.find(base_mac);
  if (claimed == macs_of_.end()) return;
  for (const MacAddress& mac : claimed->second) owners_.erase(mac);
  macs_of_.erase(claimed);
}

void ApStorage::claim(const MacAddress& mac, const Owner& owner, std::vector<MacAddress>& claimed) {
  if (owners_.try_emplace(mac, owner).second) claimed.push_back(mac);
}

}  // namespace rrm
