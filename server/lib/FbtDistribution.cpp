#include "server/lib/FbtDistribution.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "server/lib/Hooks.h"
#include "server/lib/JsonWriter.h"
#include "server/lib/MessageArena.h"

namespace rrm {

namespace {

constexpr char kBroadcastKeyHolder[] = "ff:ff:ff:ff:ff:ff";
constexpr std::size_t kKeyLetters = 16;

/// BSSID without separators.
std::string bare_mac(const MacAddress& mac) {
  const auto& b = mac.bytes;
  char text[13];
  std::snprintf(text, sizeof text, "%02X%02X%02X%02X%02X%02X", b[0], b[1], b[2], b[3], b[4], b[5]);
  return text;
}

}  // namespace

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
      vap.as_link();
    });
  }
}

std::size_t FbtDistribution::update(ApMap& aps) const {
  assign_key_holders(aps);
  const FbtIndex index(aps);
  Marks linked(index.identities());
  std::size_t changed = 0;
  for (const auto& [mac, ap] : aps.aps()) {
    RRM_LOG(Trace, "==================================");
    RRM_LOG(Trace, "Device %s (%s)", ap->description.serial.c_str(), mac.upper().c_str());
    RRM_LOG(Trace, "fbt_changed = %d", ap->fbt_changed);
    for_each_fbt_vap(*ap, [&, &entry = *ap](const Radio& radio, Vap& vap) {
      trace_vap(entry, radio, vap);
      const Updated of{entry.base_mac, radio.band, index.ssid_number(vap.ssid), wildcard(entry)};
      if (update_vap(of, vap, index, linked)) entry.fbt_changed = true;
    });
    if (ap->fbt_changed) ++changed;
  }
  return changed;
}

void FbtDistribution::trace_vap(const ApEntry& ap, const Radio& radio, const Vap& vap) {
  RRM_LOG(Trace, "----------------------------------");
  RRM_LOG(Trace, "wlan_id = %d vap_id = %d", radio.id, vap.vap_id);
  RRM_LOG(Trace, "current ssid = %s", vap.ssid.c_str());
  RRM_LOG(Trace, "current serial = %s", ap.description.serial.c_str());
  RRM_LOG(Trace, "current r0 keyholder = %s", vap.r0_keyholder.c_str());
  RRM_LOG(Trace, "current r1 keyholder = %s", vap.r1_keyholder.c_str());
  RRM_LOG(Trace, "use_wildcard_80211r = %d", ap.use_wildcard_80211r);
  RRM_LOG(Trace, "remotes size = %zu", vap.links.size());
}

bool FbtDistribution::update_vap(const Updated& of, Vap& vap, const FbtIndex& index,
                                 Marks& linked) {
  bool changed = false;
  FbtLinks::List links;
  linked.clear();
  const bool good = all_good(of, vap.links.list(), index, linked);
  if (!good) {
    links = vap.links.list();
    changed = erase_broken_links(of, vap, links, index);
    changed = erase_foreign_links(of, links, index) || changed;
    linked.clear();
    for (const SharedFbtLink& link : links) linked.set(index.find(link).identity);
  }
  FbtLinks::List added = missing_links(of, index, linked);
  if (!added.empty()) {
    if (good) links = vap.links.list();
    links.insert(links.end(), added.begin(), added.end());
    changed = true;
  }
  if (!good || !added.empty()) vap.links.assign(std::move(links));
  if (of.wildcard) changed = vap.link_broadcast_802dot11r() || changed;
  return changed;
}

bool FbtDistribution::all_good(const Updated& of, const FbtLinks::List& links,
                               const FbtIndex& index, Marks& linked) {
  return std::all_of(links.begin(), links.end(), [&](const SharedFbtLink& link) {
    const FbtIndex::Known known = index.find(link);
    if (known.shared == nullptr || known.shared->get() != link.get()) return false;
    linked.set(known.identity);
    const auto& peers = index.of_group(known.group);
    return peers.size() == 1 && peers[0].ssid == of.ssid &&
           peers[0].reachable_from(of.ap_mac, of.band);
  });
}

bool FbtDistribution::erase_broken_links(const Updated& of, const Vap& vap, FbtLinks::List& links,
                                         const FbtIndex& index) {
  const auto is_broken = [&](SharedFbtLink& link) {
    if (of.wildcard && link->remote_r1_kh_id == kBroadcastKeyHolder) {
      RRM_LOG(Debug, "skip wildcarg keyholder");
      return false;
    }
    const FbtIndex::Known known = index.find(link);
    if (known.shared != nullptr) link = *known.shared;
    const bool valid =
        known.group != FbtIndex::kNone &&
        std::any_of(index.of_group(known.group).begin(), index.of_group(known.group).end(),
                    [&](const Peer& peer) {
                      return peer.ssid == of.ssid && peer.reachable_from(of.ap_mac, of.band);
                    });
    if (valid) return false;
    RRM_LOG(Trace, "%s (%s) erase broken link with %s", vap.r1_keyholder.c_str(), vap.ssid.c_str(),
            link->remote_r1_kh_id.c_str());
    return true;
  };
  return std::erase_if(links, is_broken) > 0;
}

/// A link that is valid for this SSID may still name a VAP of another one, when access points reuse
/// key holder ids and keys.
bool FbtDistribution::erase_foreign_links(const Updated& of, FbtLinks::List& links,
                                          const FbtIndex& index) {
  bool changed = false;
  for (const SharedFbtLink& link : FbtLinks::List(links)) {
    const std::uint32_t group = index.find(link).group;
    if (group == FbtIndex::kNone || index.of_group(group).size() < 2) continue;
    for (const Peer& peer : index.of_group(group)) {
      if (peer.ssid == of.ssid || !peer.reachable_from(of.ap_mac, of.band)) continue;
      const auto found = std::find_if(links.begin(), links.end(), [&](const SharedFbtLink& held) {
        return index.find(held).identity == peer.identity;
      });
      if (found == links.end()) continue;
      const Vap& remote = *peer.vap;
      RRM_LOG(Trace, "invalid link %s %s", remote.r1_keyholder.c_str(), remote.ssid.c_str());
      links.erase(found);
      RRM_LOG(Trace, "unlink %s %s", remote.r1_keyholder.c_str(), remote.ssid.c_str());
      changed = true;
    }
  }
  return changed;
}

FbtLinks::List FbtDistribution::missing_links(const Updated& of, const FbtIndex& index,
                                              Marks& linked) {
  const bool tracing = log_enabled(LogLevel::Trace);
  FbtLinks::List added;
  for (const Peer& peer : index.of_ssid(of.ssid)) {
    if (!peer.reachable_from(of.ap_mac, of.band)) continue;
    const bool is_new = linked.set(peer.identity);
    if (is_new) added.push_back(index.link_to(peer));
    if (!tracing) continue;
    const Vap& remote = *peer.vap;
    RRM_LOG(Trace, "remote ssid = %s", remote.ssid.c_str());
    RRM_LOG(Trace, "remote MAC  = %s", remote.mac.upper().c_str());
    RRM_LOG(Trace, "%s linked %s %s", is_new ? "now" : "already", remote.r1_keyholder.c_str(),
            remote.ssid.c_str());
  }
  return added;
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
  for (const SharedFbtLink& link : vap.links.list()) link_to_json(*link, remotes);
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
