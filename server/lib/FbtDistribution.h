#pragma once

#include <cstddef>
#include <string>

#include "server/lib/ApMap.h"
#include "server/lib/Config.h"

namespace rrm {

/// Keeps the 802.11r fast BSS transition links between the VAPs of a domain [IEEE 802.11-2020, 13].
///
/// Purpose:   every VAP knows the key holders of all other access points that offer its SSID on its
///            band (or to a neighbour with 6 GHz, on any band), so that clients move without a full
///            authentication. An update gives every VAP its key and identities, erases links that
///            lead nowhere any more and adds the missing ones.
/// Threading: the domain worker's thread.
class FbtDistribution {
 public:
  FbtDistribution(const DomainConfig& config, const GlobalConfig& global)
      : config_(config), global_(global) {}

  /// Brings all links up to date and marks the access points whose links changed.
  /// @return how many changed
  std::size_t update(ApMap& aps) const;

  /// Some 802.11r VAP of the access point has no key yet.
  static bool lacks_keys(const ApEntry& ap);

  /// The "fbt-info" of an access point.
  std::string message(const ApEntry& ap) const;

 private:
  struct Peer;
  class Index;

  bool wildcard(const ApEntry& ap) const;
  void assign_key_holders(ApMap& aps) const;
  void update_vap(ApEntry& ap, const Radio& radio, Vap& vap, const Index& index) const;
  bool erase_broken_links(const ApEntry& ap, const Radio& radio, Vap& vap,
                          const Index& index) const;
  bool link_peers(const ApEntry& ap, const Radio& radio, Vap& vap, const Index& index) const;

  const DomainConfig& config_;
  const GlobalConfig& global_;
};

}  // namespace rrm
