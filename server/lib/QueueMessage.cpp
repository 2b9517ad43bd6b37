#include "server/lib/QueueMessage.h"

#include <utility>

namespace rrm {

QueueMessage::QueueMessage(JsonReader&& document, const SessionAddress& address)
    : address_(address), document_(std::move(document)) {}

QueueMessage::QueueMessage(std::string&& text, const SessionAddress& address)
    : address_(address), text_(std::move(text)) {}

std::string_view QueueMessage::text() const {
  return text_.empty() ? document_.text() : std::string_view(text_);
}

}  // namespace rrm
