#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "server/lib/MessageRing.h"
#include "server/lib/WebsockSession.h"

namespace rrm {

/// A message on its way to parsing. It keeps its session, so that a look at the session's mark
/// tells whether it is still alive.
struct ReceivedText {
  std::string text;
  std::shared_ptr<WebsockSession> session;
};

/// The "jsonificator" threads: they take received messages off the threads that serve sockets.
///
/// Purpose:   a bounded queue of texts and the threads that hand each to a handler.
/// Threading: push() and wake() from any thread; start(), join() and discard() from one, the last
///            two while nobody pushes. The handler runs on the parsing threads, several at a time
///            when there are several.
/// Ownership: owns its threads and what waits; the stop mark belongs to the owner and outlives it.
class ParsingThreads {
 public:
  static constexpr std::size_t kCapacity = 2048;  ///< messages in each ring
  static constexpr std::size_t kMost = 100;       ///< threads

  using Handler = std::function<void(const ReceivedText&)>;

  /// @param handler must not throw
  /// @param stop ends the threads once they are woken, and every producer's wait for room
  ParsingThreads(Handler handler, const std::atomic<bool>& stop);
  ~ParsingThreads();
  ParsingThreads(const ParsingThreads&) = delete;
  ParsingThreads& operator=(const ParsingThreads&) = delete;

  /// Starts threads until there are as many, `kMost` at most.
  void start(std::size_t count);
  /// Waits for the end of all threads; the stop mark must be set.
  void join();
  /// Drops what waits.
  void discard();

  /// Queues a message, without waking anybody yet. A full queue holds the caller for up to about a
  /// minute. @return whether it was queued; otherwise it is still the caller's
  bool push(ReceivedText&& received);
  /// Wakes a thread if something waits and one sleeps.
  void wake() noexcept;

 private:
  void run();

  const Handler handler_;
  const std::atomic<bool>& stop_;
  std::vector<std::thread> threads_;
  MessageRing<ReceivedText> queue_{kCapacity};
  MessageRing<ReceivedText> priority_{kCapacity};  ///< drained first; nothing fills it so far
  const int wakeup_fd_;
  /// A thread is about to wait for the descriptor; set by it, taken back by who wakes it.
  std::atomic<bool> sleeps_{false};
};

}  // namespace rrm
