#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "server/lib/JsonWriter.h"
#include "server/lib/MacAddress.h"
#include "server/lib/MacMap.h"

namespace rrm {

/// Blocked clients of one radio, and what the access point has still to be told about them.
///
/// Purpose:   a client is blocked for some seconds on the radios that shall not take it, and kicked
///            from the one that shall let it go. Changes wait here until a message has carried
///            them.
/// Threading: the domain worker's thread only.
struct RadioBlacklist {
  /// Clients of one radio that can be blocked at once; no access point may fill the memory.
  static constexpr std::size_t kMaxMembers = 4096;

  enum class Action { Block, Unblock };
  struct Change {
    Action action = Action::Block;
    std::int32_t timeout = 0;  ///< s; with Block only
  };
  struct Kicked {
    std::string ssid;
    bool sent = false;  ///< was listed in a disassociation request
  };

  MacMap<std::int32_t> members;  ///< client, remaining seconds
  MacMap<Change> changes;
  MacMap<Kicked> kicked;  ///< never longer than the membership

  /// Makes the client a member and tells the access point; a member only starts its time anew.
  void block(const MacAddress& client, std::int32_t timeout_s);
  /// Ends a membership and tells the access point, except of a kicked client, whose block ends
  /// there by itself.
  void unblock(const MacAddress& client);
  /// Makes the client a member that the access point is to disassociate; a member only starts its
  /// time anew. Nothing without an SSID.
  void kick(const MacAddress& client, std::int32_t timeout_s, const std::string& ssid);
  /// Takes the client off everything; the access point is not told.
  void forget(const MacAddress& client);
  /// One second passes: members whose time is over are unblocked.
  void tick();
  /// Some kicked client has not been in a disassociation request yet.
  bool has_unsent_kicks() const;

  /// {"members": [{"mac", "counter"}], "changes": [{"mac", "action"}]} into an object.
  void to_json(JsonWriter& object) const;
  static const char* action_name(Action action) noexcept;

  void clear() {
    members.clear();
    changes.clear();
    kicked.clear();
  }

 private:
  bool add_member(const MacAddress& client, std::int32_t timeout_s);
};

}  // namespace rrm
