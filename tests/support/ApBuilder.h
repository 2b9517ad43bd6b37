#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "server/lib/ApMap.h"

/// Access points for tests of what is built on them.
namespace rrm::test {

/// What bounds a radio's power; as in a radio, negative limits are not given.
struct PowerLimits {
  std::int32_t power_min = -1;
  std::int32_t power_max = -1;
  std::int32_t eirp_min = -1;
  std::int32_t eirp_max = -1;
  std::int32_t antenna_gain = 0;
  std::int32_t cable_loss = 0;
  bool has_antenna_configuration = true;
};

inline void limit_power(Radio& radio, const PowerLimits& limits) {
  radio.power_min = limits.power_min;
  radio.power_max = limits.power_max;
  radio.eirp_min = limits.eirp_min;
  radio.eirp_max = limits.eirp_max;
  radio.antenna_gain = limits.antenna_gain;
  radio.cable_loss = limits.cable_loss;
  radio.has_antenna_configuration = limits.has_antenna_configuration;
}

/// A subscribed access point; `radios` is the array of its message, none when empty.
inline std::shared_ptr<ApEntry> make_ap(const DomainConfig& config, const char* base_mac,
                                        const std::string& radios = {}, std::uint32_t session = 1,
                                        const char* board = "KV-810") {
  const MacAddress mac = MacAddress::from_text(base_mac);
  auto ap = std::make_shared<ApEntry>(config, mac, SessionAddress{nullptr, 0, session},
                                      ApDescription{board, "hw-1", "serial-1", mac});
  if (radios.empty()) return ap;
  ChannelSets sets;
  ap->radios.from_json(JsonReader(("{\"radios\":" + radios + "}").c_str()), sets, true, false);
  return ap;
}

/// The same, inserted into and indexed by a map.
inline std::shared_ptr<ApEntry> add_ap(ApMap& map, const DomainConfig& config, const char* base_mac,
                                       const std::string& radios = {}, std::uint32_t session = 1,
                                       const char* board = "KV-810") {
  auto ap = make_ap(config, base_mac, radios, session, board);
  map.insert(ap);
  map.index_ap(ap);
  return ap;
}

}  // namespace rrm::test
