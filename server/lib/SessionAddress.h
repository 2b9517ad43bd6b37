#pragma once

#include <cstdint>

struct lws;

namespace rrm {

/// Names one access-point websocket session; copied by value.
struct SessionAddress {
  lws* wsi = nullptr;    ///< the connection; also the key of the session maps
  std::int32_t tsi = 0;  ///< libwebsockets service thread index, 0 to 7
  std::uint32_t id = 0;  ///< unique for the life of the process; 0 is no session

  friend bool operator==(const SessionAddress&, const SessionAddress&) = default;
};

/// Address of internal messages that belong to no session.
inline constexpr SessionAddress kNoSession{};

}  // namespace rrm
