#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "server/lib/JsonReader.h"
#include "server/lib/JsonWriter.h"
#include "tools/fleet/World.h"

/// The texts that an access point sends, and what it reads from the controller's.
namespace rrm::fleet {

class Crowd;

/// The envelope of an access point's messages, for their members to be added.
class Message : public JsonWriter {
 public:
  Message(const World& world, const AccessPoint& ap, const char* cmd);
};

/// "subscribe-request": identity, MAC pool and radios with their VAPs and, with a crowd, clients.
std::string subscribe_request(const World& world, std::uint32_t ap, const Crowd* crowd = nullptr);
/// "rrm-mode-response": the radios as they are now, measurement mode entered.
std::string mode_response(const World& world, std::uint32_t ap);
/// "rrm-response": the radios and as many scans as the scenario says.
std::string scan_response(const World& world, std::uint32_t ap, std::uint32_t round,
                          const std::optional<ChannelFilter>& filter);
/// "rrm-config-changed": the radios with their VAPs, after a change made at the access point.
std::string config_changed(const World& world, std::uint32_t ap, const Crowd* crowd = nullptr);
std::string unsubscribe_request(const World& world, std::uint32_t ap);

/// What one element of "config" "radios" tells a radio.
struct RadioPlan {
  int id = 0;
  int channel = 0;
  int power_dbm = 0;
  Primary primary = Primary::None;
};

/// "config" of a "subscribe-response" or an "rrm-info".
struct ConfigPlan {
  std::vector<RadioPlan> radios;
  /// Entries of the 802.11k list; absent when the message carries none.
  std::optional<std::size_t> neighbours;
};
ConfigPlan read_config(const JsonReader& message);

/// "rrm-scan-channels-list" of an "rrm-update"; absent when the message has none.
std::optional<ChannelFilter> read_channel_filter(const JsonReader& message);

/// Key links that an "fbt-info" carries, over all VAPs.
std::size_t count_fbt_links(const JsonReader& message);

}  // namespace rrm::fleet
