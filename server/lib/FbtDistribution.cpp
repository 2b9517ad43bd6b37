#include "server/lib/FbtDistribution.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "server/lib/Hooks.h"
#include "server/lib/JsonWriter.h"
#include "server/lib/MessageArena.h"

namespace rrm {

namespace {

constexpr char kBroadcastKeyHolder[] = "ff:ff:ff:ff:ff:ff";
constexpr std::size_t kKeyLetters = 16;

/// Key holder ids are compared without the locally administered bit; unreadable ones are all zeros.
MacAddress key_holder_mac(const std::string& text) {
  MacAddress mac = MacAddress::from_text(text.c_str());
  mac.bytes[0] = static_cast<std::uint8_t>(mac.bytes[0] & ~0x02U);
  return mac;
}

/// What makes two links the same one.
std::string link_identity(const std::string& r0, const std::string& r1, const std::string& key) {
  std::string identity = r0;
  identity += '\n';
  identity += key_holder_mac(r1).lower().c_str();
  identity += '\n';
  identity += key;
  return identity;
}

std::string identity_of(const FbtLink& link) {
  return link_identity(link.remote_r0_kh_id, link.remote_r1_kh_id, link.remote_r1_kh_key);
}

std::string identity_of(const Vap& vap) {
  return link_identity(vap.r0_keyholder, vap.r1_keyholder, vap.rrb_key);
}

/// BSSID without separators.
std::string bare_mac(const MacAddress& mac) {
  const auto& b = mac.bytes;
  char text[13];
  std::snprintf(text, sizeof text, "%02X%02X%02X%02X%02X%02X", b[0], b[1], b[2], b[3], b[4], b[5]);
  return text;
}

/// Calls the function for every 802.11r VAP of every enabled radio.
template <class Ap, class Function>
void for_each_fbt_vap(Ap& ap, const Function& function) {
  for (auto& radio : ap.radios.radios) {
    if (!radio.status) continue;
    for (auto& [ssid, vap] : radio.vaps.vaps()) {
      if (vap.use_80211r) function(radio, vap);
    }
  }
}

bool has_6ghz(const ApEntry& ap) {
  return std::any_of(ap.radios.radios.begin(), ap.radios.radios.end(),
                     [](const Radio& radio) { return radio.status && radio.band == 6; });
}

}  // namespace

/// An 802.11r VAP as a link target.
struct FbtDistribution::Peer {
  const ApEntry* ap;
  const Radio* radio;
  const Vap* vap;
  bool ap_has_6ghz;

  /// Whether a VAP on `own` of access point `of` is to be linked with this one.
  bool reachable_from(const ApEntry& of, const Radio& own) const {
    return ap->base_mac != of.base_mac && (radio->band == own.band || ap_has_6ghz);
  }
};

/// The 802.11r VAPs of a domain by SSID and by key holder, so that no update walks all pairs.
class FbtDistribution::Index {
 public:
  explicit Index(const ApMap& aps) {
    for (const auto& [mac, ap] : aps.aps()) {
      const bool ap_has_6ghz = has_6ghz(*ap);
      for_each_fbt_vap(std::as_const(*ap), [&, &ap = ap](const Radio& radio, const Vap& vap) {
        const Peer peer{ap.get(), &radio, &vap, ap_has_6ghz};
        by_ssid_[vap.ssid].push_back(peer);
        by_key_holder_[key_holder_mac(vap.r1_keyholder)].push_back(peer);
      });
    }
  }

  const std::vector<Peer>& of_ssid(const std::string& ssid) const {
    const auto found = by_ssid_.find(ssid);
    return found == by_ssid_.end() ? none_ : found->second;
  }
  const std::vector<Peer>& of_key_holder(const std::string& r1_id) const {
    const auto found = by_key_holder_.find(key_holder_mac(r1_id));
    return found == by_key_holder_.end() ? none_ : found->second;
  }

 private:
  std::unordered_map<std::string, std::vector<Peer>> by_ssid_;
  std::unordered_map<MacAddress, std::vector<Peer>> by_key_holder_;
  const std::vector<Peer> none_;
};

bool FbtDistribution::lacks_keys(const ApEntry& ap) {
  bool lacks = false;
  for_each_fbt_vap(ap, [&](const Radio&, const Vap& vap) { lacks = lacks || vap.rrb_key.empty(); });
  return lacks;
}

bool FbtDistribution::wildcard(const ApEntry& ap) const {
  return global_.use_wildcard_80211r && ap.use_wildcard_80211r;
}

void FbtDistribution::assign_key_holders(ApMap& aps) const {
  for (const auto& [mac, ap] : aps.aps()) {
    const bool use_wildcard = wildcard(*ap);
    for_each_fbt_vap(*ap, [&](const Radio&, Vap& vap) {
      if (vap.rrb_key.empty()) vap.rrb_key = random_key(kKeyLetters);
      if (vap.r0_keyholder.empty() && !use_wildcard) vap.r0_keyholder = bare_mac(vap.mac);
      if (vap.r1_keyholder.empty()) vap.r1_keyholder = vap.mac.upper().c_str();
    });
  }
}

std::size_t FbtDistribution::update(ApMap& aps) const {
  assign_key_holders(aps);
  const Index index(aps);
  std::size_t changed = 0;
  for (const auto& [mac, ap] : aps.aps()) {
    RRM_LOG(Trace, "==================================");
    RRM_LOG(Trace, "Device %s (%s)", ap->description.serial.c_str(), mac.upper().c_str());
    RRM_LOG(Trace, "fbt_changed = %d", ap->fbt_changed);
    for_each_fbt_vap(*ap, [&, &entry = *ap](const Radio& radio, Vap& vap) {
      update_vap(entry, radio, vap, index);
    });
    if (ap->fbt_changed) ++changed;
  }
  return changed;
}

void FbtDistribution::update_vap(ApEntry& ap, const Radio& radio, Vap& vap,
                                 const Index& index) const {
  RRM_LOG(Trace, "----------------------------------");
  RRM_LOG(Trace, "wlan_id = %d vap_id = %d", radio.id, vap.vap_id);
  RRM_LOG(Trace, "current ssid = %s", vap.ssid.c_str());
  RRM_LOG(Trace, "current serial = %s", ap.description.serial.c_str());
  RRM_LOG(Trace, "current r0 keyholder = %s", vap.r0_keyholder.c_str());
  RRM_LOG(Trace, "current r1 keyholder = %s", vap.r1_keyholder.c_str());
  RRM_LOG(Trace, "use_wildcard_80211r = %d", ap.use_wildcard_80211r);
  RRM_LOG(Trace, "remotes size = %zu", vap.links.size());
  bool changed = erase_broken_links(ap, radio, vap, index);
  changed = link_peers(ap, radio, vap, index) || changed;
  if (wildcard(ap)) changed = vap.link_broadcast_802dot11r() || changed;
  if (changed) ap.fbt_changed = true;
}

bool FbtDistribution::erase_broken_links(const ApEntry& ap, const Radio& radio, Vap& vap,
                                         const Index& index) const {
  const bool use_wildcard = wildcard(ap);
  const auto is_broken = [&](const FbtLink& link) {
    if (use_wildcard && link.remote_r1_kh_id == kBroadcastKeyHolder) {
      RRM_LOG(Debug, "skip wildcarg keyholder");
      return false;
    }
    const auto& peers = index.of_key_holder(link.remote_r1_kh_id);
    const bool valid = std::any_of(peers.begin(), peers.end(), [&](const Peer& peer) {
      return peer.vap->ssid == vap.ssid && peer.vap->rrb_key == link.remote_r1_kh_key &&
             peer.reachable_from(ap, radio);
    });
    if (valid) return false;
    RRM_LOG(Trace, "%s (%s) erase broken link with %s", vap.r1_keyholder.c_str(), vap.ssid.c_str(),
            link.remote_r1_kh_id.c_str());
    return true;
  };
  return std::erase_if(vap.links, is_broken) > 0;
}

bool FbtDistribution::link_peers(const ApEntry& ap, const Radio& radio, Vap& vap,
                                 const Index& index) const {
  bool changed = false;
  // A link that is valid for this SSID may still name a VAP of another one, when access points
  // reuse key holder ids and keys.
  for (const FbtLink& link : std::vector<FbtLink>(vap.links)) {
    for (const Peer& peer : index.of_key_holder(link.remote_r1_kh_id)) {
      const Vap& remote = *peer.vap;
      if (remote.ssid == vap.ssid || !peer.reachable_from(ap, radio) || !vap.has_link(remote)) {
        continue;
      }
      RRM_LOG(Trace, "invalid link %s %s", remote.r1_keyholder.c_str(), remote.ssid.c_str());
      vap.remove_link(remote);
      RRM_LOG(Trace, "unlink %s %s", remote.r1_keyholder.c_str(), remote.ssid.c_str());
      changed = true;
    }
  }
  std::unordered_set<std::string> linked;
  for (const FbtLink& link : vap.links) linked.insert(identity_of(link));
  for (const Peer& peer : index.of_ssid(vap.ssid)) {
    if (!peer.reachable_from(ap, radio)) continue;
    const Vap& remote = *peer.vap;
    RRM_LOG(Trace, "remote ssid = %s", remote.ssid.c_str());
    RRM_LOG(Trace, "remote MAC  = %s", remote.mac.upper().c_str());
    if (!linked.insert(identity_of(remote)).second) {
      RRM_LOG(Trace, "already linked %s %s", remote.r1_keyholder.c_str(), remote.ssid.c_str());
      continue;
    }
    vap.add_link(remote);
    RRM_LOG(Trace, "now linked %s %s", remote.r1_keyholder.c_str(), remote.ssid.c_str());
    changed = true;
  }
  return changed;
}

// --- message

namespace {

void write_vap(JsonWriter& array, const Radio& radio, const Vap& vap) {
  JsonWriter entry = JsonWriter::object(array);
  entry.add("vap_id", vap.vap_id);
  entry.add("radio_id", radio.id);
  entry.add("fbt-rrb-key", vap.rrb_key);
  entry.add("mobility-domain", std::int32_t{mobility_domain(vap.ssid)});
  entry.add("r0-key-holder-id", vap.r0_keyholder);
  // A BSSID that is the radio's but for the locally administered bit goes out as the radio's.
  const MacAddress& r1 = vap.mac.twin() == radio.mac ? radio.mac : vap.mac;
  entry.add("r1-key-holder-id", r1.upper().c_str());
  JsonWriter remotes = JsonWriter::array(entry, "remotes");
  for (const FbtLink& link : vap.links) {
    JsonWriter remote = JsonWriter::object(remotes);
    remote.add("remote-r0-kh-id", link.remote_r0_kh_id);
    remote.add("remote-r1-kh-id", link.remote_r1_kh_id);
    remote.add("remote-r1-kh-key", link.remote_r1_kh_key);
  }
}

}  // namespace

std::string FbtDistribution::message(const ApEntry& ap) const {
  const MessageArena arena(16384);
  JsonWriter message("rrm", "fbt-info");
  message.add("ap-mac", ap.base_mac.upper().c_str());
  message.add("wavelom-use-80211r", true);
  message.add("fbt-over-ds", config_.fbt_over_ds);
  message.add("fbt-reassoc-deadline", config_.fbt_reassoc_deadline);
  JsonWriter vaps = JsonWriter::array(message, "vaps");
  for_each_fbt_vap(ap, [&](const Radio& radio, const Vap& vap) { write_vap(vaps, radio, vap); });
  return message.str();
}

}  // namespace rrm
