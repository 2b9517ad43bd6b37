#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "server/lib/Neighbour.h"
#include "server/lib/Radio.h"
#include "server/lib/SessionAddress.h"

namespace rrm {

/// What an access point says of itself when it subscribes.
struct ApDescription {
  std::string board;
  std::string hw;
  std::string serial;
  MacAddress mac;

  static ApDescription from_json(const JsonReader& factory);
};

/// Platform class of a "board" text: -1 not classified, 0 "MSDK", 1 "FastPath", 2 "Realtek".
std::int32_t classify_platform(const std::string& board, std::int32_t current = -1);
const char* platform_name(std::int32_t platform) noexcept;

/// One access point of a domain.
///
/// Ownership: shared by the maps of its domain; an optimisation gets deep copies.
/// Threading: the domain worker's thread only.
class ApEntry {
 public:
  ApEntry(const DomainConfig& domain_config, const MacAddress& mac, const SessionAddress& address,
          ApDescription ap_description);

  std::int32_t platform = -1;
  MacAddress base_mac;
  const DomainConfig* config;  ///< of the domain; not owned
  std::int32_t countdown = 0;  ///< ticks until it is forgotten in the unanswered or deleted map
  RadioList radios;
  SessionAddress session;     ///< the websocket session it subscribed on; ids are compared
  bool session_lost = false;  ///< that session has closed
  ApDescription description;
  bool active = false;       ///< answered the scan of the running round
  bool fbt_changed = false;  ///< its 802.11r links changed and must be sent
  NeighbourMap visible_members;
  NeighbourMap visible_rogue;
  std::int32_t ap_mac_count = 48;
  bool use_wildcard_80211r = false;

  /// A deep copy, as snapshots need it.
  std::shared_ptr<ApEntry> copy() const { return std::make_shared<ApEntry>(*this); }

  /// The MAC of the radio with that id; the base MAC (and a Warning record) when there is none.
  MacAddress get_radio_mac(std::int32_t radio_id) const;

  void to_json(JsonWriter& object) const;  ///< status form: management, backups
  void restore(const JsonReader& reader, ChannelSets& channel_sets);
};

}  // namespace rrm
