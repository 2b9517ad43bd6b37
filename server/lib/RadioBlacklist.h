#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>

#include "server/lib/MacAddress.h"

namespace rrm {

/// Blocked clients of one radio, and what the access point has still to be told about them.
///
/// Threading: the domain worker's thread only.
struct RadioBlacklist {
  enum class Action { Block, Unblock };
  struct Change {
    Action action = Action::Block;
    std::int32_t timeout = 0;  ///< s; with Block only
  };
  struct Kicked {
    std::string ssid;
    bool sent = false;  ///< was listed in a disassociation request
  };

  std::unordered_map<MacAddress, std::int32_t> members;  ///< client, remaining seconds
  std::unordered_map<MacAddress, Change> changes;
  std::unordered_map<MacAddress, Kicked> kicked;

  void clear() {
    members.clear();
    changes.clear();
    kicked.clear();
  }
};

}  // namespace rrm
