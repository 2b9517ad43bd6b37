#pragma once

#include <memory>
#include <string>

#include "server/lib/ApMap.h"

/// Access points for tests of what is built on them.
namespace rrm::test {

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
