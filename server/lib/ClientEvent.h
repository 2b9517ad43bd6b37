#pragma once

#include <cstdint>
#include <string>

#include "server/lib/ApEntry.h"
#include "server/lib/JsonReader.h"
#include "server/lib/MacAddress.h"

namespace rrm {

/// What an access point reports of one client; absent members are 0 or empty.
struct ClientEvent {
  std::int32_t radio_id = 0;
  std::int32_t rssi_dbm = 0;  ///< 0 unknown
  std::string mac_text;       ///< as sent
  MacAddress mac;
  std::string ssid;
  bool no_balance = false;
  bool need_ack = false;

  static ClientEvent from_json(const JsonReader& message);
  /// Client and network are named.
  bool complete() const noexcept { return !mac_text.empty() && !ssid.empty(); }
};

/// The access point's radio with that id, when it is enabled; else null.
Radio* enabled_radio(ApEntry& ap, std::int32_t radio_id);

/// Stores the client as associated to the radio and no longer expected there.
/// @return false when the radio's table is full
bool associate(Radio& radio, const ClientEvent& event);

}  // namespace rrm
