#include "server/lib/BufferInfo.h"

#include <utility>

#include "server/lib/Hooks.h"
#include "server/lib/RRM.h"

namespace rrm {

void BufferInfo::add(const char* text, const SessionAddress& session) {
  if (text == nullptr) {
    RRM_LOG(Error, "broadcast_buffer_add msg null");
    raise_event(EventCode::BroadcastBufferFailed);
    return;
  }
  add(std::string(text), session);
}

void BufferInfo::add(std::string&& text, const SessionAddress& session) {
  messages_.push_back({std::move(text), session});
}

void BufferInfo::flush(RRM& dispatcher) {
  while (!messages_.empty()) {
    Message message = std::move(messages_.front());
    messages_.pop_front();
    dispatcher.send_serialized(std::move(message.text), message.session);
  }
}

}  // namespace rrm
