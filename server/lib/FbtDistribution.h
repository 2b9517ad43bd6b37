#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "server/lib/ApMap.h"
#include "server/lib/Config.h"
#include "server/lib/FbtIndex.h"

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
  using Peer = FbtIndex::Peer;

  /// The VAP whose links are brought up to date.
  struct Updated {
    MacAddress ap_mac;
    std::int32_t band;
    std::uint32_t ssid;
    bool wildcard;
  };

  /// The identities that a VAP has links to; cleared at no cost.
  class Marks {
   public:
    explicit Marks(std::size_t count) : rounds_(count, 0) {}
    void clear() noexcept { ++round_; }
    /// @return whether the number was not set; FbtIndex::kNone never is
    bool set(std::uint32_t number) noexcept {
      return number != FbtIndex::kNone && std::exchange(rounds_[number], round_) != round_;
    }

   private:
    std::vector<std::uint32_t> rounds_;
    std::uint32_t round_ = 0;
  };

  bool wildcard(const ApEntry& ap) const;
  void assign_key_holders(ApMap& aps) const;

  static void trace_vap(const ApEntry& ap, const Radio& radio, const Vap& vap);
  static bool update_vap(const Updated& of, Vap& vap, const FbtIndex& index, Marks& linked);
  /// Whether all links are beyond doubt: shared, and naming one VAP, which is to be linked.
  static bool all_good(const Updated& of, const FbtLinks::List& links, const FbtIndex& index,
                       Marks& linked);
  static bool erase_broken_links(const Updated& of, const Vap& vap, FbtLinks::List& links,
                                 const FbtIndex& index);
  static bool erase_foreign_links(const Updated& of, FbtLinks::List& links, const FbtIndex& index);
  static FbtLinks::List missing_links(const Updated& of, const FbtIndex& index, Marks& linked);

  const DomainConfig& config_;
  const GlobalConfig& global_;
};

}  // namespace rrm
