#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "server/lib/JsonReader.h"

struct lws;

namespace rrm {

/// Names one access-point websocket session; copied by value.
struct SessionAddress {
  lws* wsi = nullptr;     ///< the connection; also the key of the session maps
  std::int32_t tsi = 0;   ///< libwebsockets service thread index, 0 to 7
  std::uint32_t id = 0;   ///< unique for the life of the process; 0 is no session

  friend bool operator==(const SessionAddress&, const SessionAddress&) = default;
};

/// Address of internal messages that belong to no session.
inline constexpr SessionAddress kNoSession{};

/// What queues carry: a parsed document or its text, with the session it came from or goes to.
///
/// Ownership: always held by a shared pointer; owns its document.
class QueueMessage {
 public:
  QueueMessage(JsonReader&& document, const SessionAddress& address);
  QueueMessage(std::string&& text, const SessionAddress& address);

  /// The text when there is one, otherwise the serialized document.
  std::string_view text() const;
  bool has_text() const noexcept { return !text_.empty(); }

  const JsonReader& document() const noexcept { return document_; }
  const SessionAddress& address() const noexcept { return address_; }

 private:
  SessionAddress address_;
  JsonReader document_;
  std::string text_;
};

}  // namespace rrm
