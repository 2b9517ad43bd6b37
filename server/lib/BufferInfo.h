#pragma once

#include <deque>
#include <string>

#include "server/lib/SessionAddress.h"

namespace rrm {

class RRM;

/// Outgoing messages of a domain in the order they were made.
///
/// Purpose:   sub-workers collect what access points are to be sent; one flush hands it over.
/// Threading: the domain worker's thread.
class BufferInfo {
 public:
  /// Appends a message for a session; one for kNoSession reaches nobody. A null text is an Error
  /// record.
  void add(const char* text, const SessionAddress& session);
  void add(std::string&& text, const SessionAddress& session);
  /// Hands everything to the dispatcher, which may hold the caller while a session's queue is full.
  void flush(RRM& dispatcher);
  bool empty() const noexcept { return messages_.empty(); }

 private:
  struct Message {
    std::string text;
    SessionAddress session;
  };

  std::deque<Message> messages_;
};

}  // namespace rrm
