#pragma once

#include <cstddef>

#include "json/MonotonicArena.h"

namespace rrm {

/// Memory of one outgoing message: what is written in its scope lies in few blocks and goes at
/// once.
///
/// Declare it before the message's JsonWriter, which must not outlive it; take the text out of the
/// scope, never the values.
class MessageArena {
 public:
  explicit MessageArena(std::size_t size_hint = 4096) : arena_(size_hint), scope_(&arena_) {}

 private:
  yajson::MonotonicArena arena_;
  yajson::ArenaScope scope_;
};

}  // namespace rrm
