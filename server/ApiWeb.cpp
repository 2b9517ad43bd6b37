#include "server/ApiWeb.h"

#include <cstring>
#include <exception>
#include <limits>
#include <memory>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

#include "server/ProcessLog.h"
#include "server/VrrpWorker.h"
#include "server/lib/Hooks.h"
#include "server/lib/RRM.h"

using rrm::JsonReader;

namespace {

constexpr char kMountPoint[] = "/www/wavelom";
constexpr char kDefaultDocument[] = "index.html";
constexpr char kContentType[] = "application/json";
constexpr char kCiphers[] =
    "ECDHE-ECDSA-AES256-GCM-SHA384:ECDHE-RSA-AES256-GCM-SHA384:DHE-RSA-AES256-GCM-SHA384:"
    "ECDHE-RSA-AES256-SHA384:HIGH:!aNULL:!eNULL:!EXPORT:!DES:!MD5:!PSK:!RC4:!HMAC_SHA1:!SHA1:"
    "!DHE-RSA-AES128-GCM-SHA256:!DHE-RSA-AES128-SHA256:!AES128-GCM-SHA256:!AES128-SHA256:"
    "!DHE-RSA-AES256-SHA256:!AES256-GCM-SHA384:!AES256-SHA256";

// ALLOW_LISTEN_SHARE, VALIDATE_UTF8
constexpr std::uint64_t kPlainOptions = 0x800100;
// the same with REDIRECT_HTTP_TO_HTTPS, DO_SSL_GLOBAL_INIT, ALLOW_NON_SSL_ON_SSL_PORT
constexpr std::uint64_t kTlsOptions = 0x801908;
constexpr int kLogEverything = 0x3ff;

constexpr std::size_t kHeaderSpace = 4096;
constexpr std::size_t kMostBytes = std::numeric_limits<std::int32_t>::max();
// A configuration of ten thousand domains is below 2 MB; what is far above is no request.
constexpr std::size_t kLongestBody = std::size_t{64} << 20;

constexpr lws_usec_t kPass_us = 100'000;
constexpr std::chrono::milliseconds kPass(100);
constexpr std::uint32_t kReportCheckPass = 601;

}  // namespace

ApiWeb::ApiWeb(rrm::RRM* dispatcher, VrrpWorker* vrrp_worker)
    : ApiWeb(dispatcher, vrrp_worker, Files()) {}

ApiWeb::ApiWeb(rrm::RRM* dispatcher, VrrpWorker* vrrp_worker, Files files)
    : Api(*dispatcher, vrrp_worker->global_config()),
      vrrp_worker_(vrrp_worker),
      files_(std::move(files)) {
  if (!connect()) PROCESS_LOG(Error) << "HTTP service is not available.";
}

ApiWeb::~ApiWeb() { destroy_context(); }

// --- life --------------------------------------------------------------------------------------

bool ApiWeb::connect() {
  if (context_ != nullptr) destroy_context();
  const bool tls = config().use_https;
  const char* name = tls ? "https" : "http";
  web_root_ = config().www_path.get();
  mount_ = {};
  mount_.mountpoint = kMountPoint;
  mount_.mountpoint_len = sizeof(kMountPoint) - 1;
  mount_.origin = web_root_.c_str();
  mount_.def = kDefaultDocument;
  mount_.origin_protocol = LWSMPRO_FILE;
  protocols_ = {};
  protocols_[0].name = name;
  protocols_[0].callback = &ApiWeb::lws_callback;

  lws_context_creation_info info{};
  info.port = config().api_port;
  info.protocols = protocols_.data();
  info.mounts = &mount_;
  info.gid = -1;
  info.uid = -1;
  info.server_string = name;
  info.user = this;
  info.options = tls ? kTlsOptions : kPlainOptions;
  if (tls) {
    info.ssl_cert_filepath = files_.certificate.c_str();
    info.ssl_private_key_filepath = files_.private_key.c_str();
    info.ssl_cipher_list = kCiphers;
  }
  // Every line that is asked for is formatted, even when nobody takes it.
  lws_set_log_level(rrm::log_enabled(rrm::LogLevel::Debug) ? kLogEverything : LLL_ERR | LLL_WARN,
                    nullptr);
  return create_context(info);
}

// The port is opened in a step of its own: the library gives up a context whose port fails while it
// is created without freeing it.
bool ApiWeb::create_context(lws_context_creation_info& info) {
  const std::uint64_t port_options = info.options;
  info.options |= LWS_SERVER_OPTION_EXPLICIT_VHOSTS;
  context_ = lws_create_context(&info);
  if (context_ == nullptr) return false;
  info.options = port_options;
  if (lws_create_vhost(context_, &info) != nullptr) return true;
  destroy_context();
  return false;
}

void ApiWeb::destroy_context() {
  if (context_ != nullptr) {
    lws_sul_cancel(&pass_timer_.timer);
    lws_context_destroy(std::exchange(context_, nullptr));
  }
  sessions_.clear();
}

void ApiWeb::stop() {
  // The loop sees it at the end of its pass and takes the context down on its own thread.
  stop_.set();
}

int ApiWeb::port() const {
  if (context_ == nullptr) return 0;
  return lws_get_vhost_listen_port(lws_get_vhost_by_name(context_, "default"));
}

void ApiWeb::run() {
  counter_ = 0;
  while (!stop_.is_set()) {
    serve_pass();
    run_periodic_duties();
    if (between_passes_) between_passes_();
  }
  destroy_context();
}

// --- passes ------------------------------------------------------------------------------------

// libwebsockets sleeps as long as it likes, whatever time-out it is given; its timer ends the pass.
void ApiWeb::serve_pass() {
  if (context_ == nullptr) {
    stop_.wait_until(StopSignal::Clock::now() + kPass);
    return;
  }
  pass_done_ = false;
  pass_timer_.owner = this;
  lws_sul_schedule(context_, 0, &pass_timer_.timer, &ApiWeb::on_pass_timer, kPass_us);
  while (!pass_done_ && !stop_.is_set() && lws_service(context_, 0) >= 0) {
  }
}

void ApiWeb::on_pass_timer(lws_sorted_usec_list_t* timer) {
  ApiWeb* api = lws_container_of(timer, PassTimer, timer)->owner;
  api->pass_done_ = true;
  lws_cancel_service(api->context_);
}

void ApiWeb::run_periodic_duties() {
  vrrp_worker_->poll_timers();
  if (counter_ != kReportCheckPass) {
    ++counter_;
    return;
  }
  PROCESS_LOG(Debug) << "ApiWeb periodic tick: invoking check_old_reports.";
  rrm().check_old_reports();
  counter_ = 0;
}

// --- requests ----------------------------------------------------------------------------------

int ApiWeb::lws_callback(lws* wsi, lws_callback_reasons reason, void*, void* in,
                         std::size_t length) {
  auto* api = static_cast<ApiWeb*>(lws_context_user(lws_get_context(wsi)));
  return api == nullptr ? 0 : api->worker_lws_callback(wsi, reason, in, length);
}

int ApiWeb::worker_lws_callback(lws* wsi, lws_callback_reasons reason, void* in,
                                std::size_t length) {
  switch (reason) {
    case LWS_CALLBACK_SERVER_NEW_CLIENT_INSTANTIATED:
      pass_done_ = true;
      open_session(wsi);
      return 0;
    case LWS_CALLBACK_CLOSED:
    case LWS_CALLBACK_CLOSED_HTTP:
      sessions_.erase(wsi);
      return 0;
    case LWS_CALLBACK_HTTP_BODY:
      pass_done_ = true;
      return append_body(wsi, in, length);
    case LWS_CALLBACK_HTTP_BODY_COMPLETION:
      pass_done_ = true;
      return answer_request(wsi);
    case LWS_CALLBACK_HTTP_FILE_COMPLETION:
      return complete_transaction(wsi);
    default:
      return 0;
  }
}

void ApiWeb::open_session(lws* wsi) {
  sessions_.erase(wsi);
  sessions_.insert(wsi, std::make_shared<HttpSession>());
}

int ApiWeb::append_body(lws* wsi, const void* in, std::size_t length) {
  if (length == 0 || in == nullptr) return 0;
  if (length > kMostBytes) return 1;
  const std::lock_guard lock(sessions_.mutex());
  const auto session = sessions_.map().find(wsi);
  if (session == sessions_.map().end()) return 0;
  std::string& body = session->second->body;
  if (body.size() + length > kLongestBody) return 1;
  body.append(static_cast<const char*>(in), length);
  return 0;
}

int ApiWeb::answer_request(lws* wsi) {
  Reply reply;
  {
    const std::lock_guard lock(sessions_.mutex());
    const auto session = sessions_.map().find(wsi);
    if (session != sessions_.map().end()) {
      reply = process_body(session->second->body);
      sessions_.map().erase(session);
    }
  }
  if (reply) return send_reply(wsi, *reply);
  lws_return_http_status(wsi, HTTP_STATUS_BAD_REQUEST, nullptr);
  return 1;
}

rrm::Api::Reply ApiWeb::process_body(const std::string& body) {
  const JsonReader request(body.c_str());
  if (!is_request(request)) {
    PROCESS_LOG(Error) << "Receive corrupted JSON-request.";
    return std::nullopt;
  }
  try {
    return process_request(request);
  } catch (const std::exception& error) {
    PROCESS_LOG(Error) << error.what();
    return std::nullopt;
  }
}

int ApiWeb::send_reply(lws* wsi, const std::string& text) {
  if (text.size() > kMostBytes) {
    lws_return_http_status(wsi, HTTP_STATUS_INTERNAL_SERVER_ERROR, nullptr);
    return 1;
  }
  const std::unique_ptr<unsigned char[]> buffer(
      new (std::nothrow) unsigned char[LWS_PRE + kHeaderSpace + text.size()]);
  if (!buffer) {
    lws_return_http_status(wsi, HTTP_STATUS_BAD_REQUEST, nullptr);
    return 1;
  }
  unsigned char* const start = buffer.get() + LWS_PRE;
  unsigned char* end_of_headers = start;
  if (lws_add_http_common_headers(wsi, HTTP_STATUS_OK, kContentType, text.size(), &end_of_headers,
                                  start + kHeaderSpace) != 0 ||
      lws_finalize_write_http_header(wsi, start, &end_of_headers, start + kHeaderSpace) != 0)
    return 1;
  std::memcpy(start, text.data(), text.size());
  if (lws_write(wsi, start, text.size(), LWS_WRITE_HTTP_FINAL) < 0) return 1;
  if (complete_transaction(wsi) != 0) return -1;
  lws_callback_on_writable(wsi);
  return 0;
}

int ApiWeb::complete_transaction(lws* wsi) {
  if (lws_http_transaction_completed(wsi) != 0) return -1;
  // The connection stays open for another request.
  open_session(wsi);
  return 0;
}

int ApiWeb::redirect_302(lws* wsi, const std::string& location) {
  PROCESS_LOG(Debug) << "Redirect to " << location;
  std::vector<unsigned char> buffer(LWS_PRE + kHeaderSpace + location.size());
  unsigned char* position = buffer.data() + LWS_PRE;
  if (lws_http_redirect(
          wsi, HTTP_STATUS_FOUND, reinterpret_cast<const unsigned char*>(location.c_str()),
          static_cast<int>(location.size()), &position, buffer.data() + buffer.size()) < 0)
    return -1;
  return complete_transaction(wsi);
}

rrm::Api::Reply ApiWeb::process_role_command(const JsonReader& command) {
  return vrrp_worker_->handle_request(command.c_str());
}
