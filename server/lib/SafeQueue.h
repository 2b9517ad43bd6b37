#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "server/lib/MessageRing.h"

namespace rrm {

/// Outgoing queue of one websocket session: a normal ring and one that is always drained first.
///
/// Threading: any thread pushes; only the session's service thread pops. The marks tell producers
///            and the service thread about each other.
template <class T>
struct alignas(kCacheLine) _SafeQueue {
  static constexpr std::size_t kCapacity = 16;  ///< messages, each ring

  /// Every session has its own and most are empty, so all four positions share one cache line.
  using Ring = MessageRing<T, sizeof(std::uint64_t)>;

  Ring normal{kCapacity};
  Ring force{kCapacity};
  int tsi = -1;  ///< service thread of the session

  std::atomic<bool> closed{false};   ///< the session ends: waiting producers give up
  std::atomic<bool> listed{false};   ///< the service thread already knows that something waits
  std::atomic<bool> clogged{false};  ///< a producer gave up and nothing was taken since

  bool empty() const noexcept { return normal.empty() && force.empty(); }
  /// Takes from the force ring, else from the normal one.
  bool try_pop(T& out) {
    if ((force.empty() || !force.try_pop(out)) && !normal.try_pop(out)) return false;
    clogged = false;
    return true;
  }
};

}  // namespace rrm
