#include "server/lib/VapMap.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "server/lib/Hooks.h"

namespace rrm {
namespace {

constexpr const char* kBroadcastHolder = "ff:ff:ff:ff:ff:ff";
constexpr std::size_t kBroadcastLetters = 16;

/// One key for all broadcast links of this process, made when the first is needed.
const std::string& broadcast_key() {
  static const std::string key = random_key(kBroadcastLetters);
  return key;
}

bool links_to(const FbtLink& link, const Vap& remote) {
  if (link.remote_r0_kh_id != remote.r0_keyholder || link.remote_r1_kh_key != remote.rrb_key)
    return false;
  const MacAddress linked = MacAddress::from_text(link.remote_r1_kh_id.c_str());
  return linked.same_but_local_bit(MacAddress::from_text(remote.r1_keyholder.c_str()));
}

/// Key names of the 802.11 flags: backups have their own.
struct FlagKeys {
  const char* k;
  const char* r;
  const char* v;
};
constexpr FlagKeys kMessageKeys{"802dot11k", "802dot11r", "802dot11v"};
constexpr FlagKeys kBackupKeys{"use_802dot11k", "use_802dot11r", "use_802dot11v"};

bool in_pool(const MacAddress& mac, const VapPool& pool) {
  const std::uint64_t first = pool.radio_mac.number();
  return mac.number() >= first && mac.number() - first < pool.max_mac_count;
}

void report_invalid(const MacAddress& mac, const VapPool& pool) {
  RRM_LOG(Error, "Invalid VAP MAC %s: radio.mac=%s, radio.max_mac_count=%d", mac.upper().c_str(),
          pool.radio_mac.upper().c_str(), static_cast<std::int32_t>(pool.max_mac_count));
  raise_event(EventCode::VapInvalid, mac.upper().str());
}

/// The BSSID of a VAP: the one given, else the radio's MAC raised by the VAP's id, whichever lies
/// in the radio's pool. @return false (and reports it) when neither does
bool choose_bssid(const JsonReader& element, const Vap& vap, const VapPool& pool,
                  MacAddress& bssid) {
  const MacAddress fallback = pool.radio_mac.plus(static_cast<std::uint32_t>(vap.vap_id));
  bssid = element.has("mac") ? MacAddress::from_text(element.get_str("mac")) : fallback;
  if (in_pool(bssid, pool)) return true;
  if (!in_pool(fallback, pool)) {
    report_invalid(bssid, pool);
    return false;
  }
  RRM_LOG(Warning, "VAP MAC %s outside radio pool [%s, +%u), using %s for ssid=%s",
          bssid.upper().c_str(), pool.radio_mac.upper().c_str(), pool.max_mac_count,
          fallback.upper().c_str(), vap.ssid.c_str());
  bssid = fallback;
  return true;
}

/// What both forms begin with.
void identity_to_json(const Vap& vap, JsonWriter& object) {
  object.add("id", vap.vap_id);
  object.add("ssid", vap.ssid);
  object.add("mac", vap.mac.upper().c_str());
  object.add("mobility-domain", std::int32_t{mobility_domain(vap.ssid)});
  object.add("use_802dot11k", vap.use_80211k);
  object.add("use_802dot11r", vap.use_80211r);
  object.add("use_802dot11v", vap.use_80211v);
}

template <class Flag>
bool any_vap(const VapMap::Map& vaps, Flag flag) {
  return std::any_of(vaps.begin(), vaps.end(),
                     [flag](const auto& entry) { return entry.second.*flag; });
}

}  // namespace

const SharedFbtLink& Vap::as_link() {
  const FbtLink* known = own_link.get();
  const bool current = known != nullptr && known->remote_r0_kh_id == r0_keyholder &&
                       known->remote_r1_kh_id == r1_keyholder && known->remote_r1_kh_key == rrb_key;
  if (!current) own_link = SharedFbtLink({r0_keyholder, r1_keyholder, rrb_key});
  return own_link;
}

bool Vap::has_link(const Vap& remote) const {
  return std::any_of(links.list().begin(), links.list().end(),
                     [&](const SharedFbtLink& link) { return links_to(*link, remote); });
}

void Vap::remove_link(const Vap& remote) {
  FbtLinks::List left = links.list();
  const auto found = std::find_if(
      left.begin(), left.end(), [&](const SharedFbtLink& link) { return links_to(*link, remote); });
  if (found == left.end()) return;
  left.erase(found);
  links.assign(std::move(left));
}

void Vap::add_link(const Vap& remote) { add_link_as(remote, remote.r1_keyholder); }

void Vap::add_link_as(const Vap& remote, const std::string& r1_id) {
  links.push_back({remote.r0_keyholder, r1_id, remote.rrb_key});
}

bool Vap::link_broadcast_802dot11r() {
  const auto is_broadcast = [](const SharedFbtLink& link) {
    return link->remote_r1_kh_id == kBroadcastHolder;
  };
  if (std::any_of(links.list().begin(), links.list().end(), is_broadcast)) return false;
  links.push_back({"*", kBroadcastHolder, broadcast_key()});
  RRM_LOG(Debug, "FBT broadcast mac added");
  return true;
}

void Vap::fbt_from_json(const JsonReader& reader) {
  if (!reader.has("fbt-rrb-key")) return;
  r0_keyholder = reader.get_str("fbt-r0-keyholder");
  r1_keyholder = reader.get_str("fbt-r1-keyholder");
  rrb_key = reader.get_str("fbt-rrb-key");
  const JsonReader array = reader.child("fbt-links");
  const int count = static_cast<int>(array.size());
  FbtLinks::List read = links.list();
  for (int i = 0; i < count; ++i) {
    const JsonReader link = array.child(i);
    if (link.is_null()) continue;
    read.push_back(SharedFbtLink({link.get_str("remote-r0-kh-id"), link.get_str("remote-r1-kh-id"),
                                  link.get_str("remote-r1-kh-key")}));
  }
  links.assign(std::move(read));
}

void link_to_json(const FbtLink& link, JsonWriter& array) {
  JsonWriter element = JsonWriter::object(array);
  element.add("remote-r0-kh-id", link.remote_r0_kh_id);
  element.add("remote-r1-kh-id", link.remote_r1_kh_id);
  element.add("remote-r1-kh-key", link.remote_r1_kh_key);
}

void Vap::to_json(JsonWriter& object) const {
  identity_to_json(*this, object);
  object.add("fbt-r0-keyholder", r0_keyholder);
  object.add("fbt-r1-keyholder", r1_keyholder);
  object.add("fbt-rrb-key", rrb_key);
  if (!use_80211r || links.empty()) return;
  JsonWriter array = JsonWriter::array(object, "fbt-links");
  for (const SharedFbtLink& link : links.list()) link_to_json(*link, array);
}

void Vap::to_json_short(JsonWriter& object) const {
  identity_to_json(*this, object);
  if (!use_80211r || links.empty()) return;
  JsonWriter array = JsonWriter::array(object, "fbt-links");
  for (const SharedFbtLink& link : links.list()) array.add({}, link->remote_r1_kh_id);
}

std::uint16_t mobility_domain(std::string_view ssid) noexcept {
  std::uint32_t remainder = 0;
  for (const char c : ssid) {
    const auto byte = static_cast<unsigned char>(c);
    for (int bit = 7; bit >= 0; --bit) {
      const bool top = (remainder & 0x8000) != 0;
      remainder = ((remainder << 1) | (byte >> bit & 1U)) & 0xffff;
      if (top) remainder ^= 0x8005;
    }
  }
  return static_cast<std::uint16_t>(remainder);
}

std::string random_key(std::size_t letters) {
  std::string key;
  key.reserve(letters);
  while (key.size() < letters) {
    const int drawn = std::rand() % 58;  // 'A' to 'z'; 26 to 31 are the signs between the cases
    if (drawn < 26 || drawn > 31) key.push_back(static_cast<char>('A' + drawn));
  }
  return key;
}

void VapMap::from_json(const JsonReader& array, const VapPool& pool, bool restore) {
  if (array.is_null()) return;
  vaps_.clear();
  const FlagKeys& keys = restore ? kBackupKeys : kMessageKeys;
  const int count = static_cast<int>(array.size());
  for (int i = 0; i < count; ++i) {
    const JsonReader element = array.child(i);
    if (element.is_null()) continue;
    Vap vap;
    vap.vap_id = element.get_int("id");
    vap.ssid = element.get_str("ssid");
    if (vap.ssid.empty()) continue;
    vap.use_80211k = element.get_int(keys.k) != 0;
    vap.use_80211r = element.get_int(keys.r) != 0;
    vap.use_80211v = !pool.locked_for_80211v && element.get_int(keys.v) != 0;
    if (!choose_bssid(element, vap, pool, vap.mac)) continue;
    vap.fbt_from_json(element);
    std::string ssid = vap.ssid;
    vaps_.try_emplace(std::move(ssid), std::move(vap));
  }
}

void VapMap::to_json(JsonWriter& array, bool full) const {
  for (const auto& [ssid, vap] : vaps_) {
    JsonWriter object = JsonWriter::object(array);
    if (full) {
      vap.to_json(object);
    } else {
      vap.to_json_short(object);
    }
  }
}

void VapMap::dump() const {
  for (const auto& [ssid, vap] : vaps_)
    RRM_LOG(Trace, "      vap_id = %d, 802.11k = %d, 802.11r = %d, 802.11v = %d, ssid = %s",
            vap.vap_id, vap.use_80211k, vap.use_80211r, vap.use_80211v, ssid.c_str());
}

bool VapMap::equals(const VapMap& other) const {
  return vaps_.size() == other.vaps_.size() &&
         std::all_of(vaps_.begin(), vaps_.end(), [&](const auto& entry) {
           const auto found = other.vaps_.find(entry.first);
           if (found == other.vaps_.end()) return false;
           const Vap& a = entry.second;
           const Vap& b = found->second;
           return a.vap_id == b.vap_id && a.use_80211k == b.use_80211k &&
                  a.use_80211r == b.use_80211r && a.use_80211v == b.use_80211v;
         });
}

bool VapMap::use_80211k_of(const std::string& ssid) const {
  const auto found = vaps_.find(ssid);
  return found != vaps_.end() && found->second.use_80211k;
}

bool VapMap::any_80211k() const { return any_vap(vaps_, &Vap::use_80211k); }
bool VapMap::any_80211r() const { return any_vap(vaps_, &Vap::use_80211r); }
bool VapMap::any_80211v() const { return any_vap(vaps_, &Vap::use_80211v); }

}  // namespace rrm
