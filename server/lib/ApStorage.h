#pragma once

#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include "server/lib/ApEntry.h"

namespace rrm {

/// Index from every radio MAC and VAP BSSID of enabled radios to the access point that owns it.
/// Look-ups also try the MAC with its locally administered bit inverted. A MAC that is indexed for
/// one access point cannot be taken over by another.
///
/// Threading: the domain worker's thread only.
class ApStorage {
 public:
  struct Owner {
    std::shared_ptr<ApEntry> ap;
    std::int32_t radio_id = -1;
  };

  /// Replaces what is indexed for this access point.
  void insert_ap(const std::shared_ptr<ApEntry>& entry);
  void erase_ap(const std::shared_ptr<ApEntry>& entry);

  /// The owner of a MAC, or null.
  const Owner* find(const MacAddress& mac) const;
  std::size_t size() const noexcept { return owners_.size(); }
  /// Makes room for an index as large as another.
  void reserve_like(const ApStorage& other);

 private:
  std::unordered_map<MacAddress, Owner> owners_;
  /// What each access point (by base MAC) has in owners_, so that erasing walks only that.
  std::unordered_map<MacAddress, std::vector<MacAddress>> macs_of_;

  void erase_macs(const MacAddress& base_mac);
  void claim(const MacAddress& mac, const Owner& owner, std::vector<MacAddress>& claimed);
};

}  // namespace rrm
