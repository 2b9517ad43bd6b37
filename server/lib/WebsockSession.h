#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "server/lib/QueueMessage.h"
#include "server/lib/SafeQueue.h"
#include "server/lib/SessionAddress.h"

namespace rrm {

/// One access point's websocket connection.
///
/// Threading: the address and the peer never change; the last activity may be read anywhere; the
///            outgoing queue is guarded by the session map's lock; the receive buffer belongs to
///            the service thread.
struct WebsockSession : std::enable_shared_from_this<WebsockSession> {
  using Outgoing = _SafeQueue<std::shared_ptr<QueueMessage>>;

  SessionAddress address;
  std::string peer;  ///< address of the other end as text
  /// Establishment, last complete message or last pong: seconds of CLOCK_MONOTONIC.
  std::atomic<std::int64_t> last_activity_s{0};
  std::atomic<bool> closed{false};  ///< the connection is gone: what it sent is not parsed any more
  /// It was asked to close; a peer that takes nothing more is then cut off.
  std::atomic<bool> drop_due{false};
  std::shared_ptr<Outgoing> outgoing;  ///< as in its service thread's map; empty until first used
  /// Of the connection: still to be begun by a callback, or begun by either end, when nothing more
  /// may be sent. Service thread only.
  enum class End { None, Due, UnderWay } end = End::None;
  std::string receive_buffer;  ///< fragments of the message being received
};

}  // namespace rrm
