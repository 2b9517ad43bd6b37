#include "server/lib/WebsockServerWorker.h"

#include <ev.h>
#include <libwebsockets.h>
#include <strings.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <limits>
#include <optional>
#include <system_error>

#include "server/lib/Config.h"
#include "server/lib/Descriptors.h"
#include "server/lib/Envelope.h"
#include "server/lib/Hooks.h"
#include "server/lib/RRM.h"
#include "server/lib/TimerList.h"

namespace rrm {
namespace {

constexpr char kProtocolName[] = "websock-rrm";
constexpr char kMountPoint[] = "/zunt/rrm";
constexpr char kServingFailed[] = "Exception at serving a connection of websock-server-worker: %s";
constexpr std::size_t kReceiveBuffer = 65536;   ///< bytes libwebsockets delivers at once
constexpr unsigned int kServiceBuffer = 65536;  ///< bytes libwebsockets reads at once
constexpr std::size_t kStackMessage = 4096;     ///< longest message sent without allocating
constexpr std::size_t kParserArena = 8192;      ///< first block of a document's arena, bytes
constexpr std::size_t kIntMax = 2147483647;
constexpr std::uint32_t kFlood = 1024;      ///< messages in one second
constexpr std::int64_t kFloodPause_s = 29;  ///< between two load-balancer stops
constexpr double kTick_s = 1;
/// Life of a connection without the subprotocol. It has no session, so nobody would ping it.
constexpr lws_usec_t kStranger_us = 91 * LWS_USEC_PER_SEC;
/// Of the context and its loop, generously: libev ends the process when it gets none.
constexpr std::size_t kContextDescriptors = 16;
constexpr int kLibraryLogAll = 0x3ff;
constexpr useconds_t kRetryStep_us = 100000;
constexpr int kRetrySteps = 10;  ///< about a second between two attempts to listen

/// The library's own watch over idle connections, switched off: it would ping after five minutes
/// without a pong however much the access point sends, hang up ten seconds later, and write over
/// the reason of a close that is on its way. The ping worker watches the sessions.
constexpr lws_retry_bo_t kNoIdlePolicy{};

struct ReasonName {
  int reason;
  const char* name;
};

#define RRM_REASON(name) \
  ReasonName { name, #name }
/// Events that are recorded by their name.
constexpr ReasonName kRecordedReasons[] = {
    RRM_REASON(LWS_CALLBACK_ESTABLISHED),
    RRM_REASON(LWS_CALLBACK_RECEIVE),
    RRM_REASON(LWS_CALLBACK_RECEIVE_PONG),
    RRM_REASON(LWS_CALLBACK_CLOSED),
    RRM_REASON(LWS_CALLBACK_CLOSED_HTTP),
    RRM_REASON(LWS_CALLBACK_EVENT_WAIT_CANCELLED),
    RRM_REASON(LWS_CALLBACK_CLIENT_CONNECTION_ERROR),
    RRM_REASON(LWS_CALLBACK_CLIENT_ESTABLISHED),
    RRM_REASON(LWS_CALLBACK_CLIENT_RECEIVE),
    RRM_REASON(LWS_CALLBACK_CLIENT_RECEIVE_PONG),
    RRM_REASON(LWS_CALLBACK_CLIENT_WRITEABLE),
    RRM_REASON(LWS_CALLBACK_SERVER_NEW_CLIENT_INSTANTIATED),
    RRM_REASON(LWS_CALLBACK_PROTOCOL_INIT),
    RRM_REASON(LWS_CALLBACK_PROTOCOL_DESTROY),
    RRM_REASON(LWS_CALLBACK_WSI_CREATE),
};
#undef RRM_REASON

void record_reason(int reason) {
  if (!log_enabled(LogLevel::Debug)) return;
  for (const ReasonName& row : kRecordedReasons)
    if (row.reason == reason)
      return log_write(__FILE__, __LINE__, "worker_lws_callback", LogLevel::Debug, "%s", row.name);
}

int protocol_callback(lws* wsi, lws_callback_reasons reason, void* user, void* in,
                      std::size_t length) {
  return WebsockServerWorker::worker_lws_callback(wsi, static_cast<int>(reason), user, in, length);
}

/// @return what the callback returns: not 0 closes the connection
int admit_connection(int descriptor) {
  if (leaves_descriptors(descriptor, kReserveOfAccessPoints)) return 0;
  static std::atomic<std::int64_t> last_record_s{-1};
  const std::int64_t now_s = TimerList::now_seconds();
  if (last_record_s.exchange(now_s) == now_s) return 1;
  try {
    RRM_LOG(Warning, "too many open connections: descriptor %d refused", descriptor);
  } catch (const std::exception&) {  // without memory for the record, it is refused all the same
  }
  return 1;
}

/// Whatever is no upgrade to websocket is refused before its body is read: nothing else is served
/// here, and libwebsockets 4.1.6 reads the body of a request that was joined to another over freed
/// memory.
int http_callback(lws* wsi, lws_callback_reasons reason, void* user, void* in, std::size_t length) {
  switch (reason) {
    case LWS_CALLBACK_FILTER_NETWORK_CONNECTION:
      return admit_connection(static_cast<int>(reinterpret_cast<std::intptr_t>(in)));
    case LWS_CALLBACK_FILTER_HTTP_CONNECTION:
      lws_return_http_status(wsi, HTTP_STATUS_NOT_FOUND, nullptr);
      return 1;
    case LWS_CALLBACK_ESTABLISHED:
      lws_set_timer_usecs(wsi, kStranger_us);
      return 0;
    case LWS_CALLBACK_TIMER:
      return -1;
    case LWS_CALLBACK_HTTP_CONFIRM_UPGRADE:
      return ::strcasecmp(static_cast<const char*>(in), "websocket") == 0 ? 0 : -1;
    default:
      return lws_callback_http_dummy(wsi, reason, user, in, length);
  }
}

const lws_protocols* protocols() {
  static const lws_protocols table[] = {
      {"http", http_callback, 0, 0, 0, nullptr, 0},
      {kProtocolName, protocol_callback, sizeof(void*), kReceiveBuffer, 0, nullptr, 0},
      {nullptr, nullptr, 0, 0, 0, nullptr, 0},
  };
  return table;
}

const lws_http_mount* mount() {
  static const lws_http_mount value = [] {
    lws_http_mount result{};
    result.mountpoint = kMountPoint;
    result.mountpoint_len = sizeof kMountPoint - 1;
    result.origin = "/tmp";
    result.def = "test.html";
    result.protocol = kProtocolName;
    result.origin_protocol = LWSMPRO_CALLBACK;
    return result;
  }();
  return &value;
}

void wake_library(struct ev_loop*, ev_timer* tick, int) {
  lws_cancel_service(static_cast<lws_context*>(tick->data));
}

bool is_service_thread(std::int32_t tsi) {
  return tsi >= 0 && tsi < static_cast<std::int32_t>(WebsockServerWorker::kServiceThreads);
}

/// The session stands in the user data of its connection from its establishment to its end, both of
/// which the connection's service thread alone sees: no look-up, no lock. Empty before and after.
WebsockSession* session_of(void* user) {
  return user == nullptr ? nullptr : *static_cast<WebsockSession**>(user);
}

/// Length of a text for "%.*s".
int printable(std::string_view text) { return static_cast<int>(std::min(text.size(), kIntMax)); }

}  // namespace

/// One service thread: its loop and the sessions that have something to send.
struct WebsockServerWorker::ServiceThread {
  ServiceThread(WebsockServerWorker* worker, std::size_t index)
      : owner(worker), number(index), loop(ev_loop_new(EVFLAG_AUTO)) {
    ev_async_init(&wake_up, [](struct ev_loop*, ev_async* watcher, int) {
      const auto* const self = static_cast<ServiceThread*>(watcher->data);
      self->owner->serve_waiting(self->number);
    });
    wake_up.data = this;
    ev_async_start(loop, &wake_up);
    ev_prepare_init(&before_wait, [](struct ev_loop*, ev_prepare* watcher, int) {
      const auto* const self = static_cast<ServiceThread*>(watcher->data);
      self->owner->parsing_.wake();
    });
    before_wait.data = this;
    ev_prepare_start(loop, &before_wait);
  }
  ~ServiceThread() { ev_loop_destroy(loop); }
  ServiceThread(const ServiceThread&) = delete;
  ServiceThread& operator=(const ServiceThread&) = delete;

  /// Lets it look at who waits; from any thread.
  void wake() { ev_async_send(loop, &wake_up); }

  WebsockServerWorker* const owner;
  const std::size_t number;
  struct ev_loop* const loop;
  ev_async wake_up;
  ev_prepare before_wait;  ///< wakes the parsing threads once for all that one pass received
  std::thread thread;
  std::mutex waiting_mutex;
  std::vector<Target> waiting;  ///< guarded by waiting_mutex
  std::vector<Target> served;   ///< of the pass under way; the service thread's
};

WebsockServerWorker::WebsockServerWorker(RRM* owner, const GlobalConfig* config)
    : Worker("websock-server-worker", owner, kIdleWait_us, kCapacity, false),
      config_(config),
      last_flood_stop_s_(std::numeric_limits<std::int64_t>::min() / 2) {}

WebsockServerWorker::~WebsockServerWorker() = default;

// --- connect and disconnect

bool WebsockServerWorker::connect() {
  if (context_ != nullptr) disconnect();
  stop_ = false;
  if (create_context() && start_threads()) return true;
  for (int step = 0; step < kRetrySteps && !is_stopped(); ++step) usleep(kRetryStep_us);
  return false;
}

bool WebsockServerWorker::create_context() {
  if (!descriptors_available(kContextDescriptors)) {
    RRM_LOG(Error, "too few descriptors are left for the access-point server");
    return false;
  }
  services_.clear();
  loops_.clear();
  services_.push_back(std::make_unique<ServiceThread>(this, 0));
  loops_.push_back(services_.back()->loop);

  lws_context_creation_info info{};
  info.port = config_->listen_port;
  info.protocols = protocols();
  info.mounts = mount();
  info.gid = static_cast<decltype(info.gid)>(-1);
  info.uid = static_cast<decltype(info.uid)>(-1);
  info.count_threads = static_cast<unsigned int>(services_.size());
  // 0 is the limit of the process: with a smaller one every look-up of a connection walks a list.
  info.fd_limit_per_thread = 0;
  info.pt_serv_buf_size = kServiceBuffer;
  // The library's own poll() loop walks all sessions for every message; libev's does not.
  info.options = LWS_SERVER_OPTION_DISABLE_IPV6 | LWS_SERVER_OPTION_LIBEV |
                 LWS_SERVER_OPTION_FAIL_UPON_UNABLE_TO_BIND;
  info.foreign_loops = loops_.data();
  info.retry_and_idle_policy = &kNoIdlePolicy;
  info.user = this;
  update_library_log_level();

  // The port is opened in a step of its own: the library gives up a context whose port fails while
  // it is created without freeing it.
  const std::uint64_t port_options = info.options;
  info.options |= LWS_SERVER_OPTION_EXPLICIT_VHOSTS;
  lws_context* context = lws_create_context(&info);
  info.options = port_options;
  if (context != nullptr && lws_create_vhost(context, &info) == nullptr) {
    lws_context_destroy(context);
    context = nullptr;
  }
  if (context == nullptr) {
    destroy_context();
    return false;
  }
  const std::lock_guard lock(context_mutex_);
  context_ = context;
  bound_port_ = lws_get_vhost_listen_port(lws_get_vhost_by_name(context, "default"));
  return true;
}

/// Asking for every line makes libwebsockets format every line, so it is asked only when somebody
/// takes them. The level is one for the process.
void WebsockServerWorker::update_library_log_level() {
  const bool debug = log_enabled(LogLevel::Debug);
  library_debug_ = debug;
  lws_set_log_level(debug ? kLibraryLogAll : 0, &WebsockServerWorker::logger_callback);
}

/// @return false, with everything taken down again, when a thread cannot be made
bool WebsockServerWorker::start_threads() {
  const auto count = static_cast<std::size_t>(lws_get_count_threads(context_));
  RRM_LOG(Debug, "Starting %d lws threads", static_cast<int>(count));
  try {
    for (std::size_t index = 0; index < count; ++index)
      services_[index]->thread = std::thread([this, index] { serve(index); });
    parsing_.start(count);
    return true;
  } catch (const std::system_error& error) {
    RRM_LOG(Error, "threads of the access-point server cannot be started: %s", error.what());
    disconnect();
    return false;
  }
}

void WebsockServerWorker::disconnect() {
  Worker::disconnect();
  stop_ = true;
  join_threads();
  for (auto& queues : outgoing_) {
    queues.for_each([](lws*, const std::shared_ptr<Outgoing>& queue) { queue->closed = true; });
    queues.clear();
  }
  sessions_.clear();
  destroy_context();
  parsing_.discard();
  backlog_ = 0;
}

void WebsockServerWorker::join_threads() {
  for (auto& service : services_) {
    service->wake();
    if (service->thread.joinable()) service->thread.join();
  }
  parsing_.join();
}

void WebsockServerWorker::destroy_context() {
  lws_context* context = nullptr;
  {
    const std::lock_guard lock(context_mutex_);
    context = std::exchange(context_, nullptr);
  }
  bound_port_ = 0;
  if (context != nullptr) lws_context_destroy(context);
  services_.clear();
  loops_.clear();
}

void WebsockServerWorker::serve(std::size_t index) {
  prctl(PR_SET_NAME, "lws-service");
  struct ev_loop* const loop = services_[index]->loop;
  // On libev the library looks at its time-outs only after traffic, so a quiet server needs a tick.
  ev_timer tick;
  ev_timer_init(&tick, wake_library, kTick_s, kTick_s);
  tick.data = context_;
  ev_timer_start(loop, &tick);
  while (!stop_) ev_run(loop, EVRUN_ONCE);
  ev_timer_stop(loop, &tick);
}

// --- parsing

void WebsockServerWorker::parse_message(const ReceivedText& received) {
  const auto& [text, session] = received;
  if (session->closed) return;
  const auto fail = [](const char* what) {
    RRM_LOG(Error, "Exception at processing message on websock-server-worker: %s", what);
    raise_event(EventCode::ParsingThreadThrew);
  };
  try {
    owner()->process_incoming_message(JsonReader(text.c_str(), kParserArena), session->address);
  } catch (const std::exception& error) {
    fail(error.what());
  } catch (...) {
    fail("unknown");
  }
}

// --- callbacks

void WebsockServerWorker::logger_callback(int level, const char* text) {
  std::string_view line(text);
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);
  try {
    RRM_LOG(Debug, "libwebsocket-debug> %d: %.*s", level, printable(line), line.data());
  } catch (const std::exception&) {  // the library, which knows no exceptions, goes on without it
  }
}

int WebsockServerWorker::worker_lws_callback(lws* wsi, int reason, void* user, void* in,
                                             std::size_t length) {
  record_reason(reason);
  lws_context* const context = wsi == nullptr ? nullptr : lws_get_context(wsi);
  if (context == nullptr) return 0;
  auto* const worker = static_cast<WebsockServerWorker*>(lws_context_user(context));
  // Memory may run out over whatever a client sends; that ends its connection, and must not reach
  // the library, which knows no exceptions.
  try {
    return worker->on_event(wsi, reason, user, static_cast<const char*>(in), length);
  } catch (const std::exception& error) {
    RRM_LOG(Error, kServingFailed, error.what());
    return reason == LWS_CALLBACK_EVENT_WAIT_CANCELLED ? 0 : -1;  // that one is nobody's connection
  }
}

int WebsockServerWorker::on_event(lws* wsi, int reason, void* user, const char* in,
                                  std::size_t length) {
  switch (reason) {
    case LWS_CALLBACK_ESTABLISHED:
      on_established(wsi, user);
      return 0;
    case LWS_CALLBACK_RECEIVE:
      if (WebsockSession* const session = session_of(user)) return on_receive(*session, in, length);
      return 0;
    case LWS_CALLBACK_RECEIVE_PONG:
      if (WebsockSession* const session = session_of(user)) on_pong(*session);
      return 0;
    case LWS_CALLBACK_SERVER_WRITEABLE:
      if (WebsockSession* const session = session_of(user)) return on_writeable(*session);
      return 0;
    case LWS_CALLBACK_WS_PEER_INITIATED_CLOSE:
      if (WebsockSession* const session = session_of(user))
        session->end = WebsockSession::End::UnderWay;
      return 0;
    case LWS_CALLBACK_CLOSED:
    case LWS_CALLBACK_CLOSED_HTTP:
      on_closed(wsi, user);
      return 0;
    case LWS_CALLBACK_EVENT_WAIT_CANCELLED:
      on_wait_cancelled(wsi);
      return 0;
    default:
      return 0;
  }
}

void WebsockServerWorker::on_established(lws* wsi, void* user) {
  if (find_session(wsi) == nullptr) {
    auto session = std::make_shared<WebsockSession>();
    char peer[256] = "";
    lws_get_peer_simple(wsi, peer, sizeof peer);
    session->peer = peer;
    session->last_activity_s = TimerList::now_seconds();
    {
      const std::lock_guard lock(id_mutex_);
      session->address = {wsi, lws_get_tsi(wsi), next_id_++};
    }
    WebsockSession* const kept = session.get();
    sessions_.insert(wsi, std::move(session));
    *static_cast<WebsockSession**>(user) = kept;
  }
  lws_callback_on_writable(wsi);
}

void WebsockServerWorker::on_pong(WebsockSession& session) {
  session.last_activity_s = TimerList::now_seconds();
  if (!session.drop_due) lws_set_timeout(session.address.wsi, NO_PENDING_TIMEOUT, 0);
}

void WebsockServerWorker::on_closed(lws* wsi, void* user) {
  if (user != nullptr) *static_cast<WebsockSession**>(user) = nullptr;
  Session session;
  {
    const std::lock_guard lock(sessions_.mutex());
    const auto found = sessions_.map().find(wsi);
    if (found == sessions_.map().end()) return;
    session = std::move(found->second);
    sessions_.map().erase(found);
    session->closed = true;
  }
  backlog_ -= session->receive_buffer.size();
  const SessionAddress& address = session->address;
  if (is_service_thread(address.tsi)) {
    auto& queues = outgoing_[static_cast<std::size_t>(address.tsi)];
    if (const auto queue = queues.find(wsi)) queue->closed = true;
    queues.erase(wsi);
  } else {
    RRM_LOG(Error, "process_closed: invalid lws tsi %d", address.tsi);
  }
  owner()->on_session_closed(address);
}

// --- receiving

int WebsockServerWorker::on_receive(WebsockSession& session, const char* in, std::size_t length) {
  lws* const wsi = session.address.wsi;
  const bool complete = lws_remaining_packet_payload(wsi) == 0 && lws_is_final_fragment(wsi) != 0;
  std::string& buffer = session.receive_buffer;
  const std::size_t largest_backlog = largest_backlog_;
  if (length > kLongestMessage - std::min(buffer.size(), kLongestMessage) ||
      length > largest_backlog - std::min(backlog_.load(), largest_backlog)) {
    RRM_LOG(Error, "websocket message too long, %zu bytes and more; close session %u",
            buffer.size() + length, session.address.id);
    return -1;
  }
  buffer.append(in, length);
  backlog_ += length;
  return complete ? on_message(session) : 0;
}

int WebsockServerWorker::on_message(WebsockSession& session) {
  const std::int64_t now_s = TimerList::now_seconds();
  session.last_activity_s = now_s;
  if (!session.drop_due) lws_set_timeout(session.address.wsi, NO_PENDING_TIMEOUT, 0);
  const std::string& text = session.receive_buffer;
  RRM_LOG(Debug, "Recv %.*s", printable(text), text.data());
  count_message(session.address, now_s);
  // Not before: what an exception leaves in the buffer is taken off the backlog with the session.
  queue_for_parsing(
      {std::exchange(session.receive_buffer, std::string()), session.shared_from_this()});
  return 0;
}

/// Looks back at each second when the next one begins.
void WebsockServerWorker::count_message(const SessionAddress& address, std::int64_t second) {
  bool flooded = false;
  {
    const std::lock_guard lock(flood_mutex_);
    if (second > flood_second_) {
      flooded = flood_count_ >= kFlood && second - last_flood_stop_s_ > kFloodPause_s;
      if (flooded) last_flood_stop_s_ = second;
      flood_second_ = second;
      flood_count_ = 0;
    }
    ++flood_count_;
  }
  if (flooded) owner()->stop_load_balancer_at_rrm_worker(address);
}

void WebsockServerWorker::queue_for_parsing(ReceivedText&& received) {
  const std::size_t size = received.text.size();
  const std::uint32_t id = received.session->address.id;
  if (parsing_.push(std::move(received))) return;
  backlog_ -= size;
  if (stop_) return;
  RRM_LOG(Error, "jsonificator_queue overflow: message dropped from session %d",
          static_cast<int>(id));
  raise_event(EventCode::WebsocketOverflow);
}

// --- queueing for a session

void WebsockServerWorker::enqueue_message(JsonReader&& document, const SessionAddress& address) {
  enqueue(__func__, std::make_shared<QueueMessage>(std::move(document), address), false);
}

void WebsockServerWorker::enqueue_message_force(JsonReader&& document,
                                                const SessionAddress& address) {
  if (is_message(document, "rrm-internal", "drop-session"))
    if (const Session session = find_session(address.wsi); session && session->address == address)
      session->drop_due = true;
  enqueue(__func__, std::make_shared<QueueMessage>(std::move(document), address), true);
}

void WebsockServerWorker::enqueue_serialized(std::string&& text, const SessionAddress& address) {
  enqueue(__func__, std::make_shared<QueueMessage>(std::move(text), address), false);
}

void WebsockServerWorker::enqueue_text(const char* text, const SessionAddress& address) {
  if (text != nullptr) enqueue_serialized(text, address);
}

void WebsockServerWorker::enqueue(const char* function, Message&& message, bool force) {
  const SessionAddress address = message->address();
  Target target = find_target(function, address);
  if (target.queue == nullptr) return;
  Outgoing& queue = *target.queue;
  auto& ring = force ? queue.force : queue.normal;
  const auto give_up = [&] { return queue.closed || queue.clogged || stop_; };
  if (push_with_backoff(ring, std::move(message), give_up)) return announce(std::move(target));
  if (queue.closed || stop_) return;
  // Whoever takes nothing for a minute does not hold the next producers for another one each.
  queue.clogged = true;
  log_write(__FILE__, __LINE__, function, LogLevel::Error,
            force ? "per-wsi force queue overflow: outgoing message dropped for session %d"
                  : "per-wsi queue overflow: outgoing message dropped for session %d",
            static_cast<int>(address.id));
  raise_event(EventCode::WebsocketOverflow);
}

/// The live session of the address and its queue; empty, and recorded, when there is none.
WebsockServerWorker::Target WebsockServerWorker::find_target(const char* function,
                                                             const SessionAddress& address) {
  const auto record = [function](const char* format, auto... values) {
    if (log_enabled(LogLevel::Debug))
      log_write(__FILE__, __LINE__, function, LogLevel::Debug, format, function, values...);
  };
  const std::lock_guard lock(sessions_.mutex());
  const auto found = sessions_.map().find(address.wsi);
  if (found == sessions_.map().end()) {
    record("%s: no live websocket session for wsi (dropped id=%u)", address.id);
    return {};
  }
  const SessionAddress& live = found->second->address;
  if (live.id != address.id || live.tsi != address.tsi) {
    record("%s: BaseSession stale or mismatched (msg id=%u tsi=%d vs live id=%u tsi=%d)",
           address.id, address.tsi, live.id, live.tsi);
    return {};
  }
  if (!is_service_thread(address.tsi)) {
    record("%s: invalid lws tsi %d", address.tsi);
    return {};
  }
  auto& queue = found->second->outgoing;
  if (queue == nullptr) {
    queue = std::make_shared<Outgoing>();
    queue->tsi = address.tsi;
    outgoing_[static_cast<std::size_t>(address.tsi)].insert(address.wsi, queue);
  }
  return {found->second, queue};
}

/// Puts the session on its service thread's list and wakes that thread, once until it has looked.
void WebsockServerWorker::announce(Target&& target) {
  if (target.queue->listed.exchange(true)) return;
  const std::lock_guard lock(context_mutex_);
  const auto index = static_cast<std::size_t>(target.session->address.tsi);
  if (context_ == nullptr || index >= services_.size()) return;
  ServiceThread& service = *services_[index];
  bool first = false;
  {
    const std::lock_guard waiting_lock(service.waiting_mutex);
    first = service.waiting.empty();
    service.waiting.push_back(std::move(target));
  }
  if (first) service.wake();
}

void WebsockServerWorker::on_wait_cancelled(lws* stand_in) {
  const auto index = static_cast<std::size_t>(lws_get_tsi(stand_in));
  if (index < services_.size()) serve_waiting(index);
}

/// Sends, or asks for the moment to write, for every session on the thread's list.
void WebsockServerWorker::serve_waiting(std::size_t index) {
  if (library_debug_ != log_enabled(LogLevel::Debug)) update_library_log_level();
  ServiceThread& service = *services_[index];
  {
    const std::lock_guard lock(service.waiting_mutex);
    service.served.swap(service.waiting);
  }
  for (const Target& target : service.served) {
    WebsockSession& session = *target.session;
    if (target.queue->closed) continue;
    target.queue->listed = false;
    lws* const wsi = session.address.wsi;
    // Nothing may follow a close frame.
    if (session.end != WebsockSession::End::None && !session.drop_due) continue;
    if (!session.drop_due && lws_partial_buffered(wsi) == 0) {
      // There is room: no need to wait for the moment to write. Closing needs a callback, though.
      if (try_send_next(session, *target.queue) == 0) continue;
      session.end = WebsockSession::End::Due;
    }
    lws_callback_on_writable(wsi);
    if (session.drop_due) lws_set_timeout(wsi, PENDING_TIMEOUT_USER_OK, stuck_peer_s_);
  }
  service.served.clear();
}

// --- sending

int WebsockServerWorker::on_writeable(WebsockSession& session) {
  lws* const wsi = session.address.wsi;
  const std::int32_t tsi = session.address.tsi;
  if (!is_service_thread(tsi)) {
    RRM_LOG(Error, "process_server_writeable: invalid lws tsi %d", tsi);
    for (auto& queues : outgoing_) queues.erase(wsi);
    return 0;
  }
  const auto queue = outgoing_[static_cast<std::size_t>(tsi)].find(wsi);
  using End = WebsockSession::End;
  if (session.end == End::UnderWay) return 0;
  if (session.end == End::None && (queue == nullptr || send_next(session, *queue) == 0)) return 0;
  session.end = End::UnderWay;
  if (queue != nullptr) queue->closed = true;  // nobody need wait for room any more
  return -1;
}

/// The same, for many sessions in a row: what fails for one does not keep the others waiting.
int WebsockServerWorker::try_send_next(WebsockSession& session, Outgoing& queue) {
  try {
    return send_next(session, queue);
  } catch (const std::exception& error) {
    RRM_LOG(Error, kServingFailed, error.what());
    return -1;
  }
}

/// Sends one message of the queue. @return what the callback returns: -1 closes the connection
int WebsockServerWorker::send_next(WebsockSession& session, Outgoing& queue) {
  Message message;
  if (!queue.try_pop(message)) return 0;
  Sent sent = Sent::KeepOpen;
  if (message->address().id != session.address.id)
    RRM_LOG(Debug,
            "process_server_writeable: session ID mismatch (msg_id=%u, current_id=%u); skipping "
            "stale message",
            message->address().id, session.address.id);
  else
    sent = send(*message, session);
  if (!queue.empty()) lws_callback_on_writable(session.address.wsi);
  return sent == Sent::Close ? -1 : 0;
}

WebsockServerWorker::Sent WebsockServerWorker::send(const QueueMessage& message,
                                                    const WebsockSession& session) {
  if (!message.has_text()) return send_document(message, session);
  const std::string_view text = message.text();
  if (text.size() > kIntMax) {
    RRM_LOG(Error, "serialized payload exceeds INT_MAX; drop session %u", session.address.id);
    raise_event(EventCode::SendFailed);
    return Sent::KeepOpen;
  }
  lws_send(session.address.wsi, text, LWS_WRITE_TEXT);
  return Sent::KeepOpen;
}

WebsockServerWorker::Sent WebsockServerWorker::send_document(const QueueMessage& message,
                                                             const WebsockSession& session) {
  const JsonReader& document = message.document();
  lws* const wsi = session.address.wsi;
  if (document.is_null()) {
    RRM_LOG(Error, "ws_send json null");
    raise_event(EventCode::NullDocument);
    return Sent::KeepOpen;
  }
  if (process_internal_ipc_msg(document)) return Sent::KeepOpen;
  if (is_message(document, "rrm-internal", "drop-session")) {
    RRM_LOG(Debug, "cmd:drop-session %d", static_cast<int>(session.address.id));
    unsigned char reason[] = "done";
    lws_close_reason(wsi, LWS_CLOSE_STATUS_NORMAL, reason, sizeof reason - 1);
    return Sent::Close;
  }
  if (is_message(document, "rrm-internal", "ping-session")) {
    send_ping(wsi);
    return Sent::KeepOpen;
  }
  const std::string_view text = message.text();
  if (text.size() > kIntMax) {
    RRM_LOG(Error, "json serialized_view exceeds INT_MAX; drop session %u", session.address.id);
    raise_event(EventCode::SendFailed);
    return Sent::KeepOpen;
  }
  lws_send(wsi, text, LWS_WRITE_TEXT);
  return Sent::KeepOpen;
}

void WebsockServerWorker::send_ping(lws* wsi) {
  lws_send(wsi, "lws_ping", LWS_WRITE_PING);
  lws_set_timeout(wsi, PENDING_TIMEOUT_WS_PONG_CHECK_GET_PONG, pong_timeout_s_);
}

void WebsockServerWorker::lws_send(lws* wsi, std::string_view data, int kind) {
  if (data.data() == nullptr || data.empty()) return;
  RRM_LOG(Debug, "Send %.*s", printable(data), data.data());
  unsigned char stack[LWS_PRE + kStackMessage];
  std::unique_ptr<unsigned char[]> heap;
  unsigned char* start = stack;
  if (data.size() > kStackMessage) {
    heap.reset(new unsigned char[LWS_PRE + data.size()]);
    start = heap.get();
  }
  std::memcpy(start + LWS_PRE, data.data(), data.size());
  const int written =
      lws_write(wsi, start + LWS_PRE, data.size(), static_cast<lws_write_protocol>(kind));
  if (written >= static_cast<int>(data.size())) return;
  RRM_LOG(Error, "Can't send msg type [%d] to websocket (ret=%d len=%d)", kind, written,
          static_cast<int>(data.size()));
  raise_event(EventCode::SendFailed);
}

// --- state

std::vector<WebsockServerWorker::Session> WebsockServerWorker::sessions() const {
  std::vector<Session> result;
  const std::lock_guard lock(sessions_.mutex());
  result.reserve(sessions_.map().size());
  for (const auto& [wsi, session] : sessions_.map()) result.push_back(session);
  return result;
}

bool WebsockServerWorker::is_session_alive(const SessionAddress& address) const {
  const Session session = find_session(address.wsi);
  return session != nullptr && session->address == address;
}

void WebsockServerWorker::get_status(JsonWriter& writer) {
  auto all = sessions();
  std::sort(all.begin(), all.end(),
            [](const Session& a, const Session& b) { return a->address.id < b->address.id; });
  JsonWriter list = JsonWriter::array(writer, "websock-sessions");
  for (const Session& session : all) {
    JsonWriter entry = JsonWriter::object(list);
    entry.add("id", session->address.id);
    entry.add("peer", session->peer);
  }
}

}  // namespace rrm
