#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "server/lib/JsonReader.h"
#include "server/lib/SessionAddress.h"

namespace rrm {

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
