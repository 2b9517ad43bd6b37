#pragma once

#include <libwebsockets.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>

#include "server/ChunkedBody.h"
#include "server/StopSignal.h"
#include "server/lib/Api.h"
#include "server/lib/SafeMap.h"

class VrrpWorker;

/// One HTTP connection: what has arrived of its request's body.
struct HttpSession {
  std::string body;
  std::size_t counted = 0;  ///< bytes of the body that are in the sum over all connections
  bool dropped = false;     ///< gave way to others: what still arrives is refused
  std::optional<ChunkedBody> chunks;  ///< decodes the body when it arrives in chunked coding
  bool complete = false;              ///< such a body is whole: it is answered when writeable
  std::uint64_t last_use = 0;         ///< order of requests among all connections
  /// Bytes read from the connection up to the last request; nothing before the first one.
  std::optional<std::uint64_t> taken;
};

/// HTTP(S) server: management commands as request bodies, and the files of the web interface. Its
/// service loop also drives the VRRP worker's timers and, about once a minute, the report check.
///
/// Threading: run() belongs to the main thread, on which libwebsockets calls back; stop() may be
///            called from any thread and takes effect at the end of the pass.
/// Errors:    without a context (port busy, certificate missing) an Error record is written and the
///            loop serves its periodic duties only. A request body that is too long is answered
///            413; a reply that its client does not read ends the connection after a while; beyond
///            the most bytes of unfinished bodies the longest gives way, and beyond the most
///            connections the one that was idle the longest gives way.
class ApiWeb : public rrm::Api {
 public:
  /// What the configuration does not choose; the defaults are those of the process.
  struct Settings {
    std::string certificate = "/etc/tavro-wavelom/cert/server.pem";
    std::string private_key = "/etc/tavro-wavelom/cert/server.key.pem";
    /// A configuration of ten thousand domains is below 2 MB; what is far above is no request.
    std::size_t longest_body = std::size_t{8} << 20;
    /// Of all connections together, bytes: many bodies that never end must not fill the memory.
    std::size_t most_body_bytes = std::size_t{64} << 20;
    std::size_t most_connections = 4096;  ///< access points need descriptors too
    int reply_timeout = 60;               ///< s, for a client to read its reply
  };

  /// Connects; the VRRP worker outlives it.
  ApiWeb(rrm::RRM* dispatcher, VrrpWorker* vrrp_worker);
  ApiWeb(rrm::RRM* dispatcher, VrrpWorker* vrrp_worker, Settings settings);
  ~ApiWeb() override;

  bool connect() override;
  void stop() override;
  void run() override;

  /// Called between two passes of the loop, when nothing is locked; set before run().
  void set_between_passes(std::function<void()> function) { between_passes_ = std::move(function); }
  /// What every pass ends with: due timers, and the report check in every 602nd pass.
  void run_periodic_duties();
  /// The port listened on, which differs from the configured one when that is 0; 0 without one.
  int port() const;
  std::size_t connection_count() const { return sessions_.size(); }

  /// Answers with a redirect; for routes that need one.
  int redirect_302(lws* wsi, const std::string& location);

 protected:
  Reply process_role_command(const rrm::JsonReader& command) override;

 private:
  /// One timer of libwebsockets with its owner, so that its plain callback finds it.
  struct PassTimer {
    lws_sorted_usec_list_t timer;
    ApiWeb* owner;
  };

  static int lws_callback(lws* wsi, lws_callback_reasons reason, void* user, void* in,
                          std::size_t length);
  static void on_pass_timer(lws_sorted_usec_list_t* timer);
  int worker_lws_callback(lws* wsi, lws_callback_reasons reason, void* in, std::size_t length);
  void check_reports_at_times();
  int admit_connection(int descriptor);
  void open_session(lws* wsi);
  void drop_longest_idle();
  void drop_longest_body();
  void count_body(HttpSession& session);
  void close_session(lws* wsi);
  int begin_request(lws* wsi);
  int begin_chunked_body(lws* wsi, HttpSession& session);
  int invite_body(lws* wsi);
  int filter_request(lws* wsi, std::string_view path);
  bool is_joined_to_another(lws* wsi);
  int begin_file(lws* wsi);
  int complete_file(lws* wsi);
  int append_body(lws* wsi, const void* in, std::size_t length);
  int append_chunks(lws* wsi, HttpSession& session, std::string_view bytes);
  int answer_request(lws* wsi);
  int answer_when_writeable(lws* wsi);
  int send_reply(lws* wsi, const std::string& text, bool last);
  bool send_header(lws* wsi, unsigned status, std::size_t length, bool last,
                   std::span<unsigned char> buffer);
  int refuse(lws* wsi, unsigned status);
  int refuse_long_body(lws* wsi);
  int answer_not_found(lws* wsi);
  Reply process_body(const std::string& body);

  void serve_pass();
  void rest_unless_sending();
  bool create_context(lws_context_creation_info& info);
  void destroy_context();

  VrrpWorker* vrrp_worker_;
  const Settings settings_;
  StopSignal stop_;
  rrm::SafeUnorderedMap<lws*, HttpSession> sessions_;
  std::set<lws*> sending_;     ///< connections with a file, or a reply that waits for its client
  std::uint64_t written_ = 0;  ///< bytes on those connections, at the last look
  std::function<void()> between_passes_;
  std::uint64_t uses_ = 0;      ///< requests so far
  std::size_t body_bytes_ = 0;  ///< of bodies that have not ended, all connections together
  std::uint32_t counter_ = 0;   ///< passes since the last report check
  bool pass_done_ = false;
  std::int64_t last_refusal_s_ = -1;  ///< when a connection was last refused, monotonic

  std::string web_root_;  ///< what the mount points to
  lws_http_mount mount_{};
  std::array<lws_protocols, 2> protocols_{};
  PassTimer pass_timer_{};
  lws_context* context_ = nullptr;
};
