#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "server/lib/ApMap.h"

namespace rrm {

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

/// The 802.11r VAPs of a domain as link targets, while an update of the links runs.
///
/// Purpose:   an update looks at every link of the domain, millions in a large one; with numbers
///            instead of texts for SSIDs, key holders and keys that takes nanoseconds a link.
/// Ownership: refers to VAPs and radios of the map, which must stay as they are.
/// Threading: the domain worker's thread.
class FbtIndex {
 public:
  static constexpr std::uint32_t kNone = UINT32_MAX;

  /// A VAP that others may link to.
  struct Peer {
    MacAddress ap_mac;
    std::int32_t band = 0;
    bool ap_has_6ghz = false;
    std::uint32_t ssid = kNone;      ///< number of its SSID
    std::uint32_t identity = kNone;  ///< number of its key holders and key, local bit ignored
    std::uint32_t holder = kNone;
    const Vap* vap = nullptr;

    /// Whether a VAP of access point `of` on a radio of `own_band` is to be linked with this one.
    bool reachable_from(const MacAddress& of, std::int32_t own_band) const {
      return (band == own_band || ap_has_6ghz) && ap_mac != of;
    }
  };

  /// What is known of a link; numbers are kNone where no VAP of the domain stands behind it.
  struct Known {
    std::uint32_t identity = kNone;
    std::uint32_t group = kNone;            ///< the peers with its R1 key holder and key
    const SharedFbtLink* shared = nullptr;  ///< the one object that links with these texts share
  };

  /// The VAPs must know their own links (Vap::as_link).
  explicit FbtIndex(const ApMap& aps);

  std::uint32_t ssid_number(const std::string& ssid) const;
  const std::vector<Peer>& of_ssid(std::uint32_t number) const { return by_ssid_[number]; }
  Known find(const SharedFbtLink& link) const;
  /// Peers whose R1 key holder and key are those of a link; several when access points share them.
  const std::vector<Peer>& of_group(std::uint32_t group) const { return groups_[group]; }
  const SharedFbtLink& link_to(const Peer& peer) const { return holders_[peer.holder].link; }
  std::size_t identities() const noexcept { return identities_.size(); }

 private:
  struct Holder {
    SharedFbtLink link;
    std::uint32_t identity;
    std::uint32_t group;
  };
  using Numbers = std::unordered_map<std::string, std::uint32_t>;

  void add(Peer peer);

  Numbers ssids_;
  Numbers identities_;
  Numbers group_numbers_;
  Numbers holder_numbers_;
  std::vector<Holder> holders_;
  std::vector<std::vector<Peer>> by_ssid_;
  std::vector<std::vector<Peer>> groups_;
};

}  // namespace rrm
