#pragma once

#include <libwebsockets.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "server/StopSignal.h"
#include "server/lib/Api.h"
#include "server/lib/SafeMap.h"

class VrrpWorker;

/// One HTTP connection: what has arrived of the request's body.
struct HttpSession {
  std::string body;
};

/// HTTP(S) server: management commands as request bodies, and the files of the web interface. Its
/// service loop also drives the VRRP worker's timers and, about once a minute, the report check.
///
/// Threading: run() belongs to the main thread, on which libwebsockets calls back; stop() may be
///            called from any thread and takes effect at the end of the pass.
/// Errors:    without a context (port busy, certificate missing) an Error record is written and the
///            loop serves its periodic duties only.
class ApiWeb : public rrm::Api {
 public:
  /// Files that the process cannot choose.
  struct Files {
    std::string certificate = "/etc/tavro-wavelom/cert/server.pem";
    std::string private_key = "/etc/tavro-wavelom/cert/server.key.pem";
  };

  /// Connects; the VRRP worker outlives it.
  ApiWeb(rrm::RRM* dispatcher, VrrpWorker* vrrp_worker);
  ApiWeb(rrm::RRM* dispatcher, VrrpWorker* vrrp_worker, Files files);
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
  void open_session(lws* wsi);
  int append_body(lws* wsi, const void* in, std::size_t length);
  int answer_request(lws* wsi);
  int send_reply(lws* wsi, const std::string& text);
  int complete_transaction(lws* wsi);
  Reply process_body(const std::string& body);

  void serve_pass();
  bool create_context(lws_context_creation_info& info);
  void destroy_context();

  VrrpWorker* vrrp_worker_;
  const Files files_;
  StopSignal stop_;
  rrm::SafeUnorderedMap<lws*, HttpSession> sessions_;
  std::function<void()> between_passes_;
  std::uint32_t counter_ = 0;  ///< passes since the last report check
  bool pass_done_ = false;

  std::string web_root_;  ///< what the mount points to
  lws_http_mount mount_{};
  std::array<lws_protocols, 2> protocols_{};
  PassTimer pass_timer_{};
  lws_context* context_ = nullptr;
};
