#include "server/lib/Worker.h"

#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <ctime>
#include <exception>
#include <string_view>
#include <utility>

#include "server/lib/Envelope.h"
#include "server/lib/Hooks.h"
#include "server/lib/RRM.h"

namespace rrm {
namespace {

/// The lock is not fair: a thread with messages left would have it again before one that waits for
/// it is awake. So long it keeps off after each message while somebody waits.
constexpr useconds_t kTurn_us = 50;

std::size_t ring_capacity(int requested) {
  return requested < 1 ? 2 : static_cast<std::size_t>(requested);
}

}  // namespace

void work_in_batches() noexcept {
  const sched_param none{};
  pthread_setschedparam(pthread_self(), SCHED_BATCH, &none);
}

Worker::Worker(std::string name, RRM* owner, int idle_wait_us, int capacity, bool with_wakeup)
    : idle_wait_us_(idle_wait_us),
      normal_(ring_capacity(capacity)),
      force_(ring_capacity(capacity)),
      wakeup_fd_(with_wakeup ? eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC) : -1),
      name_(std::move(name)),
      owner_(owner) {}

Worker::~Worker() {
  if (wakeup_fd_ >= 0) close(wakeup_fd_);
}

// --- producers

void Worker::enqueue_message(JsonReader&& document, const SessionAddress& address) {
  static constexpr PushSite kSite{__func__,
                                  "Worker '%s' queue overflow: message dropped from session %d"};
  push(normal_, std::move(document), address, kSite);
}

void Worker::enqueue_message_force(JsonReader&& document, const SessionAddress& address) {
  static constexpr PushSite kSite{
      __func__, "Worker '%s' force queue overflow: message dropped from session %d"};
  push(force_, std::move(document), address, kSite);
}

void Worker::push(Ring& ring, JsonReader&& document, const SessionAddress& address,
                  const PushSite& site) {
  auto message = std::make_shared<QueueMessage>(std::move(document), address);
  PushBackoff backoff;
  while (!ring.try_push(std::move(message))) {
    // Nobody will ever make room, and what waits is about to be discarded anyway.
    if (stopped_) return;
    if (backoff.wait()) continue;
    ++dropped_;
    log_write(__FILE__, __LINE__, site.function, LogLevel::Error, site.overflow_format,
              name_.c_str(), static_cast<int>(address.id));
    raise_event(EventCode::QueueOverflow, name_);
    return;
  }
  wake();
  if (enqueue_hook_) enqueue_hook_();
}

void Worker::wake() noexcept {
  // A thread that is at work looks again before it sleeps.
  if (wakeup_fd_ < 0 || !sleeps_.exchange(false)) return;
  const std::uint64_t one = 1;
  // A full counter is as good as a written one.
  [[maybe_unused]] const auto written = write(wakeup_fd_, &one, sizeof one);
}

void Worker::clear_wakeup() noexcept {
  if (wakeup_fd_ < 0) return;
  std::uint64_t count = 0;
  [[maybe_unused]] const auto taken = read(wakeup_fd_, &count, sizeof count);
}

// --- life

void Worker::start() {
  const std::lock_guard lock(thread_mutex_);
  if (started_) return;
  auto self = shared_from_this();
  running_ = true;
  ready_ = false;
  stopped_ = false;
  notify_owner_on_exit_ = true;
  thread_ = std::thread([self = std::move(self)] { self->run(); });
  started_ = true;
}

std::thread Worker::take_thread() {
  const std::lock_guard lock(thread_mutex_);
  started_ = false;
  return std::exchange(thread_, std::thread());
}

void Worker::join() {
  std::thread thread = take_thread();
  if (thread.joinable()) thread.join();
}

void Worker::detach() {
  std::thread thread = take_thread();
  if (thread.joinable()) thread.detach();
}

void Worker::abort() {
  stopped_ = true;
  running_ = false;
}

void Worker::stop() {
  notify_owner_on_exit_ = false;
  push_stop_message();
  stopped_ = true;
  running_ = false;
  join();
  // A worker that is started again must not find its own stop message.
  discard_messages();
}

void Worker::push_stop_message() {
  auto message = std::make_shared<QueueMessage>(JsonReader(kStopDocument), kNoSession);
  discard_messages();
  clear_wakeup();
  PushBackoff backoff;
  while (!normal_.try_push(std::move(message))) {
    backoff.wait_forever();
    discard_messages();  // producers may be faster than a worker that no longer takes anything
  }
  wake();
}

std::vector<Worker::Message> Worker::take_messages() {
  std::vector<Message> taken;
  Message message;
  while (force_.try_pop(message) || normal_.try_pop(message)) taken.push_back(std::move(message));
  return taken;
}

void Worker::discard_messages() noexcept {
  Message discarded;
  while (force_.try_pop(discarded)) discarded.reset();
  while (normal_.try_pop(discarded)) discarded.reset();
}

// --- the worker's thread

void Worker::run() {
  prctl(PR_SET_NAME, thread_name_);
  work_in_batches();
  try {
    serve();
  } catch (const std::exception& error) {
    fail(error.what());
  } catch (...) {
    fail(nullptr);
  }
  if (notify_owner_on_exit_ && owner_ != nullptr) owner_->stop_domain_event(name_, this);
}

void Worker::serve() {
  while (!stopped_) {
    while (!ready_) {
      ready_ = connect();
      if (!ready_ && stopped_) break;
    }
    if (ready_) process_until_not_ready();
  }
  disconnect();
  ready_ = false;
}

void Worker::process_until_not_ready() {
  while (can_process(running_)) {
    bool idle = false;
    if (waiting_ > 0) usleep(kTurn_us);
    {
      const std::lock_guard lock(processing_mutex_);
      on_loop();
      idle = process_queues();
    }
    if (idle && !wait_for_messages()) return;
  }
}

bool Worker::process_queues() {
  Message message;
  if (!force_.try_pop(message) && !normal_.try_pop(message)) return true;
  process_message(message->document(), message->address());
  return false;
}

/// @return whether to go on processing; false when a fresh connect() is needed
bool Worker::wait_for_messages() {
  if (idle_wait_us_ < 1 || !force_.empty() || !normal_.empty()) return true;
  if (wakeup_fd_ < 0) {
    usleep(static_cast<useconds_t>(idle_wait_us_));
  } else {
    sleeps_.exchange(true);
    if (!force_.empty() || !normal_.empty()) return true;
    pollfd wait{wakeup_fd_, POLLIN, 0};
    // In nanoseconds: a clock steered to run faster would shorten whole milliseconds to none.
    const timespec longest{idle_wait_us_ / 1000000, idle_wait_us_ % 1000000 * 1000L};
    if (ppoll(&wait, 1, &longest, nullptr) > 0 && (wait.revents & POLLIN) != 0) {
      clear_wakeup();
      return true;
    }
  }
  return !force_.empty() || ready_;
}

bool Worker::can_process(const std::atomic<bool>& running) { return running; }

bool Worker::connect() {
  ready_ = true;
  return true;
}

bool Worker::process_internal_ipc_msg(const JsonReader& document) {
  if (document.get_str("service") != std::string_view("internal-ipc")) return false;
  if (document.get_str("cmd") == std::string_view("stop")) {
    RRM_LOG(Debug, "Aborting %s", name_.c_str());
    abort();
  }
  return true;
}

void Worker::fail(const char* what) noexcept {
  if (what != nullptr)
    log_write(__FILE__, __LINE__, "func", LogLevel::Error, "Unhandled exception '%s' at worker %s",
              what, thread_name_);
  else
    log_write(__FILE__, __LINE__, "func", LogLevel::Error, "Unhandled exception at worker %s",
              thread_name_);
  raise_event(EventCode::WorkerEnded, thread_name_);
  abort();
}

}  // namespace rrm
