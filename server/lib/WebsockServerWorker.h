#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "server/lib/ParsingThreads.h"
#include "server/lib/SafeMap.h"
#include "server/lib/SafeQueue.h"
#include "server/lib/WebsockSession.h"
#include "server/lib/Worker.h"

struct lws_context;
struct lws_protocols;

namespace rrm {

class GlobalConfig;

/// Websocket server of the access points.
///
/// Purpose:   joins received frames to messages and hands them to the parsing threads, which pass
///            them to the dispatcher; sends what other threads queue for a session. Its own worker
///            thread only connects, waits and disconnects.
/// Threading: enqueue_* and sessions() from any thread. Callbacks of libwebsockets run on its
///            service threads; foreign threads only wake these through their loops, because even
///            lws_cancel_service writes log lines into a buffer that all threads share.
///            Lock order: session map, then an outgoing-queue map; context mutex, then a service
///            thread's waiting mutex; the id and flood mutexes are taken alone. No lock is held
///            while pushing into a ring or calling the dispatcher.
/// Ownership: sessions and queues are shared with whoever works on one at the moment.
/// Errors:    what cannot be delivered is logged and dropped; the sender is not told.
class WebsockServerWorker : public Worker {
 public:
  /// Longest message taken from an access point, and what all sessions together may have in the
  /// making; a session that exceeds either is closed. Bytes.
  static constexpr std::size_t kLongestMessage = std::size_t{16} << 20;
  static constexpr std::size_t kLargestBacklog = std::size_t{256} << 20;
  static constexpr int kPongTimeout_s = 40;
  static constexpr int kStuckPeer_s = 5;
  static constexpr std::size_t kServiceThreads = 8;  ///< that a session address can name

  /// @param config read at every connect; outlives the worker
  WebsockServerWorker(RRM* owner, const GlobalConfig* config);
  ~WebsockServerWorker() override;

  void process_message(const JsonReader&, const SessionAddress&) override {}
  /// Queues a document for sending to the session. A full queue holds the caller for up to about a
  /// minute; it gives up at once when the session closes.
  void enqueue_message(JsonReader&& document, const SessionAddress& address) override;
  void enqueue_message_force(JsonReader&& document, const SessionAddress& address) override;
  void disconnect() override;
  bool connect() override;
  void get_status(JsonWriter& writer) override;
  void get_status_full(JsonWriter& writer) override { get_status(writer); }

  /// Queues a serialized text.
  void enqueue_serialized(std::string&& text, const SessionAddress& address);
  /// Copies the text; null is ignored.
  void enqueue_text(const char* text, const SessionAddress& address);

  using Session = std::shared_ptr<WebsockSession>;
  std::vector<Session> sessions() const;
  bool is_session_alive(const SessionAddress& address) const;
  std::size_t session_count() const { return sessions_.size(); }
  /// Bytes received and not yet parsed, of all sessions.
  std::size_t backlog() const noexcept { return backlog_; }

  /// Lets go of every producer that waits on a full queue, until the next connect(): the controller
  /// is about to join them.
  void release_producers() noexcept { stop_ = true; }
  /// How long a pong may take, and a peer that takes no more data to see its session's end.
  /// Seconds; takes effect with the next ping and drop.
  void set_time_limits(int pong_s, int stuck_peer_s) noexcept {
    pong_timeout_s_ = pong_s;
    stuck_peer_s_ = stuck_peer_s;
  }
  /// What all sessions together may have in the making, bytes.
  void set_largest_backlog(std::size_t bytes) noexcept { largest_backlog_ = bytes; }
  /// The port listened on; differs from the configured one when that is 0. 0 when not connected.
  int port() const noexcept { return bound_port_; }

  /// Log sink of libwebsockets.
  static void logger_callback(int level, const char* text);
  /// Protocol callback of libwebsockets; finds its worker through the context.
  static int worker_lws_callback(lws* wsi, int reason, void* user, void* in, std::size_t length);

 private:
  using Message = std::shared_ptr<QueueMessage>;
  using Outgoing = WebsockSession::Outgoing;

  /// A session and its queue, kept alive while something is done with them.
  struct Target {
    std::shared_ptr<WebsockSession> session;
    std::shared_ptr<Outgoing> queue;
  };
  struct ServiceThread;

  bool create_context();
  void destroy_context();
  bool start_threads();
  void join_threads();
  void update_library_log_level();
  void serve(std::size_t index);
  void parse_message(const ReceivedText& received);

  int on_event(lws* wsi, int reason, void* user, const char* in, std::size_t length);
  void on_established(lws* wsi, void* user);
  int on_receive(WebsockSession& session, const char* in, std::size_t length);
  int on_message(WebsockSession& session);
  void on_pong(WebsockSession& session);
  int on_writeable(WebsockSession& session);
  void on_closed(lws* wsi, void* user);
  void on_wait_cancelled(lws* stand_in);
  void serve_waiting(std::size_t index);

  Session find_session(lws* wsi) const { return sessions_.find(wsi); }
  void count_message(const SessionAddress& address, std::int64_t second);
  void queue_for_parsing(ReceivedText&& received);

  void enqueue(const char* function, Message&& message, bool force);
  Target find_target(const char* function, const SessionAddress& address);
  void announce(Target&& target);

  /// What sending one message asks for afterwards.
  enum class Sent { KeepOpen, Close };
  int send_next(WebsockSession& session, Outgoing& queue);
  int try_send_next(WebsockSession& session, Outgoing& queue);
  Sent send(const QueueMessage& message, const WebsockSession& session);
  Sent send_document(const QueueMessage& message, const WebsockSession& session);
  void send_ping(lws* wsi);
  static void lws_send(lws* wsi, std::string_view data, int kind);

  const GlobalConfig* const config_;
  std::atomic<int> bound_port_{0};
  std::atomic<int> pong_timeout_s_{kPongTimeout_s};
  std::atomic<int> stuck_peer_s_{kStuckPeer_s};
  std::atomic<std::size_t> largest_backlog_{kLargestBacklog};

  std::uint32_t next_id_ = 1;  ///< guarded by id_mutex_
  std::mutex id_mutex_;
  SafeUnorderedMap<lws*, WebsockSession> sessions_;
  std::array<SafeUnorderedMap<lws*, Outgoing>, kServiceThreads> outgoing_;

  std::vector<std::unique_ptr<ServiceThread>> services_;
  std::atomic<std::size_t> backlog_{0};  ///< bytes received and not yet parsed

  std::mutex context_mutex_;  ///< guards context_ against its end while a producer wakes it
  lws_context* context_ = nullptr;
  std::vector<void*> loops_;       ///< as libwebsockets wants them
  std::atomic<bool> stop_{false};  ///< ends the service and parsing loops
  std::atomic<bool> library_debug_{false};
  ParsingThreads parsing_{[this](const ReceivedText& received) {
                            parse_message(received);
                            backlog_ -= received.text.size();
                          },
                          stop_};

  std::mutex flood_mutex_;
  std::int64_t flood_second_ = 0;  ///< guarded by flood_mutex_, as the next two
  std::uint32_t flood_count_ = 0;  ///< messages in that second
  std::int64_t last_flood_stop_s_;
};

}  // namespace rrm
