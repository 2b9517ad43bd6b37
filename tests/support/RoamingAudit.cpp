#include "tests/support/RoamingAudit.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

namespace rrm::test {

namespace {

bool has_6ghz(const ApEntry& ap) {
  return std::any_of(ap.radios.radios.begin(), ap.radios.radios.end(),
                     [](const Radio& radio) { return radio.status && radio.band == 6; });
}

/// Whether a VAP on `own` of an access point may be linked with one on `peer` of another.
bool may_know(const Radio& own, const ApEntry& other, const Radio& peer) {
  return peer.status && (peer.band == own.band || has_6ghz(other));
}

const Vap* fbt_vap(const Radio& radio, const std::string& ssid) {
  const auto found = radio.vaps.vaps().find(ssid);
  return found == radio.vaps.vaps().end() || !found->second.use_80211r ? nullptr : &found->second;
}

void audit_vap(RrmWorker& worker, const ApEntry& ap, const Radio& radio, const Vap& vap) {
  std::size_t wanted = 0;
  for (const auto& [mac, other] : worker.aps().aps()) {
    if (other->base_mac == ap.base_mac) continue;
    for (const Radio& peer : other->radios.radios) {
      const Vap* remote = may_know(radio, *other, peer) ? fbt_vap(peer, vap.ssid) : nullptr;
      if (remote == nullptr) continue;
      ++wanted;
      EXPECT_TRUE(vap.has_link(*remote)) << "key, key holders";
      if (may_know(peer, ap, radio)) {
        EXPECT_TRUE(remote->has_link(vap)) << "the other way";
      }
    }
  }
  EXPECT_EQ(vap.links.size(), wanted) << vap.ssid << " of " << ap.base_mac.upper().c_str();
}

/// Collects the neighbours of one array of entries and checks their SSIDs.
void read_entries(const JsonReader& entries, const std::set<std::string>& ssids,
                  std::set<std::string>& named) {
  for (int i = 0; i < static_cast<int>(entries.size()); ++i) {
    const JsonReader entry = entries.child(i);
    EXPECT_TRUE(named.insert(entry.get_str("neighbour-mac")).second) << "named twice";
    const JsonReader vaps = entry.child("vaps");
    EXPECT_GT(vaps.size(), 0u);
    for (int v = 0; v < static_cast<int>(vaps.size()); ++v) {
      EXPECT_TRUE(ssids.contains(vaps.child(v).get_str("ssid"))) << "foreign network";
    }
  }
}

std::set<std::string> roaming_ssids(const Radio& radio) {
  std::set<std::string> ssids;
  for (const auto& [ssid, vap] : radio.vaps.vaps()) {
    if (radio.status && (vap.use_80211k || vap.use_80211v)) ssids.insert(ssid);
  }
  return ssids;
}

bool share(const std::set<std::string>& one, const std::set<std::string>& other) {
  return std::any_of(one.begin(), one.end(),
                     [&](const std::string& ssid) { return other.contains(ssid); });
}

/// Radios of other access points that `ap` hears and that offer one of these SSIDs; of one band
/// when it is not 0.
std::set<std::string> heard_radios(RrmWorker& worker, const ApEntry& ap,
                                   const std::set<std::string>& ssids, std::int32_t band = 0) {
  std::set<std::string> heard;
  for (const auto& [mac, other] : worker.aps().aps()) {
    if (other->base_mac == ap.base_mac) continue;
    for (const Radio& radio : other->radios.radios) {
      if (band != 0 && radio.band != band) continue;
      if (!ap.visible_members.contains(radio.mac) || !share(ssids, roaming_ssids(radio))) continue;
      heard.insert(radio.mac.upper().c_str());
    }
  }
  return heard;
}

/// The list of one own radio: what is heard, and the access point's own other radios.
void audit_radio_list(Engine& engine, const ApEntry& ap, const JsonReader& list) {
  const Radio* own = ap.radios.find(list.get_int("id"));
  ASSERT_NE(own, nullptr);
  const std::set<std::string> ssids = roaming_ssids(*own);
  std::set<std::string> wanted = heard_radios(engine.worker(), ap, ssids);
  for (const Radio& radio : ap.radios.radios) {
    if (radio.id != own->id && share(ssids, roaming_ssids(radio)))
      wanted.insert(radio.mac.upper().c_str());
  }
  std::set<std::string> named;
  for (const char* band : {"band2", "band5", "band6"}) {
    read_entries(list.child(band), ssids, named);
  }
  EXPECT_EQ(named, wanted) << ap.base_mac.upper().c_str() << " radio " << own->id;
}

void audit_list(Engine& engine, const ApEntry& ap, const JsonReader& list) {
  if (list.child(0).has("id")) {
    for (int i = 0; i < static_cast<int>(list.size()); ++i) {
      audit_radio_list(engine, ap, list.child(i));
    }
    return;
  }
  // Without 802.11v each own radio has neighbours of its own band only.
  std::set<std::string> ssids;
  std::set<std::string> wanted;
  for (const Radio& radio : ap.radios.radios) {
    const std::set<std::string> own = roaming_ssids(radio);
    wanted.merge(heard_radios(engine.worker(), ap, own, radio.band));
    ssids.insert(own.begin(), own.end());
  }
  std::set<std::string> named;
  read_entries(list, ssids, named);
  EXPECT_EQ(named, wanted) << ap.base_mac.upper().c_str();
}

}  // namespace

void audit_links(RrmWorker& worker) {
  for (const auto& [mac, ap] : worker.aps().aps()) {
    for (const Radio& radio : ap->radios.radios) {
      for (const auto& [ssid, vap] : radio.vaps.vaps()) {
        if (radio.status && vap.use_80211r) audit_vap(worker, *ap, radio, vap);
      }
    }
  }
}

std::map<std::uint32_t, std::string> sent_lists(const std::vector<RecordingRrm::Sent>& messages) {
  std::map<std::uint32_t, std::string> lists;
  for (const auto& sent : messages) {
    const JsonReader message(sent.text.c_str());
    const JsonReader config = message.child("config");
    if (config.has("802dot11k")) lists[sent.session] = config.child("802dot11k").c_str();
  }
  return lists;
}

void audit_lists(Engine& engine, int aps, const std::map<std::uint32_t, std::string>& lists) {
  for (int n = 1; n <= aps; ++n) {
    const auto found = lists.find(static_cast<std::uint32_t>(n + 100));
    ASSERT_NE(found, lists.end()) << "access point " << n << " has no list";
    audit_list(engine, *engine.ap(n), JsonReader(found->second.c_str()));
  }
}

}  // namespace rrm::test
