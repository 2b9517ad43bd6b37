#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>

#include "server/lib/FbtLinks.h"
#include "server/lib/JsonReader.h"
#include "server/lib/JsonWriter.h"
#include "server/lib/MacAddress.h"

namespace rrm {

/// One virtual access point (SSID) of a radio.
struct Vap {
  std::int32_t vap_id = 0;
  MacAddress mac;  ///< BSSID
  std::string ssid;
  bool use_80211k = false;
  bool use_80211r = false;
  bool use_80211v = false;
  std::string r0_keyholder;
  std::string r1_keyholder;  ///< MAC text
  std::string rrb_key;       ///< own key offered to remote key holders
  FbtLinks links;
  SharedFbtLink own_link;  ///< what remote VAPs hold of this one; use as_link()

  /// This VAP as a link of others; the same object while its key holders and key stay the same.
  const SharedFbtLink& as_link();
  bool has_link(const Vap& remote) const;
  void remove_link(const Vap& remote);
  void add_link(const Vap& remote);
  void add_link_as(const Vap& remote, const std::string& r1_id);
  /// Adds the broadcast link unless there is one; tells whether it did.
  bool link_broadcast_802dot11r();

  /// The FBT members of an access point's or backup's VAP object, when it has "fbt-rrb-key".
  void fbt_from_json(const JsonReader& reader);
  void to_json(JsonWriter& object) const;        ///< full form, with key material
  void to_json_short(JsonWriter& object) const;  ///< without key material
};

/// Appends {"remote-r0-kh-id", "remote-r1-kh-id", "remote-r1-kh-key"} to an array.
void link_to_json(const FbtLink& link, JsonWriter& array);

/// 802.11r mobility domain of an SSID: the plain remainder by x^16 + x^15 + x^2 + 1 (no zero bits
/// appended) over its bytes, most significant bit first; 0 for an empty SSID.
std::uint16_t mobility_domain(std::string_view ssid) noexcept;

/// `letters` random characters of A..Z and a..z, drawn with rand().
std::string random_key(std::size_t letters);

/// What the VAP reader needs of the owning radio.
struct VapPool {
  MacAddress radio_mac;
  std::uint32_t max_mac_count = 0;
  bool locked_for_80211v = false;
};

/// The VAPs of one radio by SSID; an SSID that is present keeps its VAP.
///
/// Threading: the domain worker's thread only.
class VapMap {
 public:
  using Map = std::unordered_map<std::string, Vap>;

  /// Fills the map from a "vaps" array (null changes nothing). `restore` chooses the key names of
  /// backups ("use_802dot11k") over those of access points ("802dot11k").
  void from_json(const JsonReader& vaps, const VapPool& pool, bool restore);
  void to_json(JsonWriter& array, bool full) const;
  void dump() const;  ///< Trace records
  void clear() { vaps_.clear(); }

  /// Same SSIDs with the same ids and 802.11k/r/v flags; MACs and keys are not compared.
  bool equals(const VapMap& other) const;
  bool use_80211k_of(const std::string& ssid) const;
  bool any_80211k() const;
  bool any_80211r() const;
  bool any_80211v() const;

  std::size_t size() const noexcept { return vaps_.size(); }
  Map& vaps() noexcept { return vaps_; }
  const Map& vaps() const noexcept { return vaps_; }

 private:
  Map vaps_;
};

}  // namespace rrm
