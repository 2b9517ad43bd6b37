#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "server/lib/JsonReader.h"
#include "server/lib/JsonWriter.h"
#include "server/lib/MessageRing.h"
#include "server/lib/QueueMessage.h"
#include "server/lib/SessionAddress.h"

namespace rrm {

class RRM;

/// Lets the calling thread wait for a processor instead of taking it from the thread that wakes it:
/// under load a producer then hands over many messages at a time instead of one.
void work_in_batches() noexcept;

/// Base of everything that processes messages: a thread that drains two bounded queues, the force
/// queue first, one message at a time under the worker's processing lock.
///
/// Purpose:   any thread enqueues; the subclass handles single messages on the worker's own thread.
/// Threading: enqueue_*, queue_size and stop from any thread; the virtual operations below run on
///            the worker's thread. on_loop and process_message run under the processing lock, so
///            they never overlap a run_locked closure.
/// Ownership: always held by a shared pointer; the running thread holds one of its own. Whoever
///            drops the last one must have stopped, joined or detached the thread before.
/// Errors:    an exception out of connect, on_loop or process_message ends the worker, which then
///            tells its owner. Subclasses catch what single messages throw.
class Worker : public std::enable_shared_from_this<Worker> {
 public:
  static constexpr int kIdleWait_us = 10000;
  static constexpr int kCapacity = 2048;  ///< messages in each queue

  /// @param owner told when the thread ends on its own; may be null
  /// @param idle_wait_us how long an idle loop waits for messages; below 1 it never waits
  /// @param capacity raised to the next power of two, at least 2; below 1 becomes 2
  /// @param with_wakeup whether each enqueue wakes the idle loop through an eventfd
  Worker(std::string name, RRM* owner, int idle_wait_us, int capacity, bool with_wakeup);
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  /// Handles one message. The references live for the call only.
  virtual void process_message(const JsonReader& document, const SessionAddress& address) = 0;
  /// Takes the worker's own messages ("service" "internal-ipc"; "cmd" "stop" ends the loop).
  /// @return whether the message was such a one
  virtual bool process_internal_ipc_msg(const JsonReader& document);
  virtual bool can_process(const std::atomic<bool>& running);
  /// Called before every attempt to take a message; due timers run here.
  virtual void on_loop() {}
  /// Queues a message. A full queue holds the caller for up to about a minute, then the message is
  /// dropped, counted, logged and raised as an event; on a worker that is stopped it is let go at
  /// once.
  virtual void enqueue_message(JsonReader&& document, const SessionAddress& address);
  virtual void enqueue_message_force(JsonReader&& document, const SessionAddress& address);
  /// Discards what waits, ends the thread and joins it. The owner is not told. Not from the
  /// worker's own thread.
  virtual void stop();
  virtual ~Worker();
  /// Takes one message and processes it. @return whether both queues were empty
  virtual bool process_queues();
  virtual void disconnect() { ready_ = false; }
  /// Prepares for processing; called until it returns true. It is expected to pause before it
  /// fails.
  virtual bool connect();
  virtual void get_status(JsonWriter& writer) = 0;
  virtual void get_status_full(JsonWriter& writer) = 0;

  /// Starts the thread; does nothing when one was started and neither stopped nor detached. Throws
  /// std::bad_weak_ptr when no shared pointer holds the worker.
  void start();
  void join();
  void detach();
  /// Lets the worker end by itself after the current message.
  void abort();
  /// Runs the function between two messages, on the caller's thread. Not from within the worker's
  /// own operations: the processing lock is not recursive.
  template <class Function>
  auto run_locked(Function&& function) {
    ++waiting_;
    const std::lock_guard lock(processing_mutex_);
    --waiting_;
    return function();
  }

  /// Takes everything that waits away from the worker, force queue first.
  std::vector<std::shared_ptr<QueueMessage>> take_messages();

  std::size_t queue_size() const noexcept { return normal_.size() + force_.size(); }
  std::size_t queue_capacity() const noexcept { return normal_.capacity(); }  ///< of each queue
  std::uint64_t dropped_count() const noexcept { return dropped_; }
  int waiting_count() const noexcept { return waiting_; }  ///< callers that run_locked holds up
  /// Called after every successful enqueue, on the producer's thread. Set before anyone enqueues.
  void set_enqueue_hook(std::function<void()> hook) { enqueue_hook_ = std::move(hook); }
  const std::string& name() const noexcept { return name_; }
  bool is_started() const noexcept { return started_; }
  bool is_ready() const noexcept { return ready_; }
  bool is_stopped() const noexcept { return stopped_; }

 protected:
  RRM* owner() const noexcept { return owner_; }

 private:
  using Message = std::shared_ptr<QueueMessage>;
  using Ring = MessageRing<Message>;

  /// Where a message is pushed, for the record of a full queue.
  struct PushSite {
    const char* function;
    const char* overflow_format;
  };

  void run();
  void serve();
  void process_until_not_ready();
  bool wait_for_messages();
  void fail(const char* what) noexcept;
  void push(Ring& ring, JsonReader&& document, const SessionAddress& address, const PushSite& site);
  void push_stop_message();
  void discard_messages() noexcept;
  void wake() noexcept;
  void clear_wakeup() noexcept;
  std::thread take_thread();

  std::mutex processing_mutex_;
  std::atomic<int> waiting_{0};       ///< callers of run_locked that do not have the lock yet
  std::atomic<bool> started_{false};  ///< a thread was started and neither joined nor detached
  std::atomic<bool> ready_{false};    ///< connect() succeeded, disconnect() has not run since
  std::thread thread_;                ///< guarded by thread_mutex_
  std::mutex thread_mutex_;           ///< never held while joining
  std::atomic<bool> running_{true};
  std::atomic<bool> stopped_{false};
  const char* const thread_name_ = "Worker";
  const int idle_wait_us_;
  std::function<void()> enqueue_hook_;
  Ring normal_;
  Ring force_;
  int wakeup_fd_ = -1;  ///< eventfd, or -1
  /// The thread is about to wait for the descriptor; set by it, taken back by who wakes it.
  std::atomic<bool> sleeps_{false};
  std::atomic<std::uint64_t> dropped_{0};
  const std::string name_;
  std::atomic<bool> notify_owner_on_exit_{true};
  RRM* const owner_;
};

}  // namespace rrm
