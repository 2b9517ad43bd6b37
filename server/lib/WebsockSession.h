#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "server/lib/SessionAddress.h"

namespace rrm {

/// One access point's websocket connection.
///
/// Threading: the address and the peer never change; the last activity may be read anywhere; the
///            receive buffer belongs to the service thread.
struct WebsockSession {
  SessionAddress address;
  std::string peer;  ///< address of the other end as text
  /// Establishment, last complete message or last pong: seconds of CLOCK_MONOTONIC.
  std::atomic<std::int64_t> last_activity_s{0};
  /// It was asked to close; a peer that takes nothing more is then cut off.
  std::atomic<bool> drop_due{false};
  bool closing = false;        ///< its end was sent for; service thread only
  std::string receive_buffer;  ///< fragments of the message being received
};

}  // namespace rrm
