#include "server/ApiWeb.h"

#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <exception>
#include <limits>
#include <memory>
#include <mutex>
#include <new>
#include <string_view>
#include <utility>
#include <vector>

#include "server/ProcessLog.h"
#include "server/TakenBytes.h"
#include "server/VrrpWorker.h"
#include "server/lib/Descriptors.h"
#include "server/lib/Hooks.h"
#include "server/lib/RRM.h"
#include "server/lib/TimerList.h"

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
// Over HTTP/2 bodies would arrive on connections of their own.
constexpr char kAlpn[] = "http/1.1";

constexpr std::size_t kHeaderSpace = 4096;
constexpr std::size_t kMostBytes = std::numeric_limits<std::int32_t>::max();

constexpr lws_usec_t kPass_us = 100'000;
constexpr std::chrono::milliseconds kPass(100);
constexpr std::uint32_t kReportCheckPass = 601;
constexpr int kCallsWithoutRest = 16;
constexpr std::chrono::milliseconds kRest(5);

/// The value of a header of the request; empty when it has none or one that is too long.
std::string header(lws* wsi, lws_token_indexes token) {
  char value[64] = {};
  return lws_hdr_copy(wsi, value, sizeof(value), token) > 0 ? value : "";
}

/// Where the kernel does not tell, a connection serves one request only.
std::uint64_t bytes_up_to_now(lws* wsi) { return taken_bytes(lws_get_socket_fd(wsi)).value_or(0); }

int method(lws* wsi) {
  char* uri = nullptr;
  int length = 0;
  return lws_http_get_uri_and_method(wsi, &uri, &length);
}

/// Requests that stand for a body even when they announce none.
bool is_command(lws* wsi) {
  const int used = method(wsi);
  return used == LWSHUMETH_POST || used == LWSHUMETH_PUT || used == LWSHUMETH_PATCH;
}

bool is_in_mount(std::string_view path) {
  static constexpr std::string_view kMount = kMountPoint;
  return path.starts_with(kMount) && (path.size() == kMount.size() || path[kMount.size()] == '/');
}

/// How the library opens files.
decltype(lws_plat_file_ops::LWS_FOP_OPEN) open_file = nullptr;

/// A pipe among the files of the site would keep whoever opens it waiting for its other end, and
/// with the loop everything that it serves.
lws_fop_fd_t open_served_file(const lws_plat_file_ops* files, const char* name,
                              const char* virtual_path, lws_fop_flags_t* flags) {
  struct stat state {};
  const bool found = ::stat(name, &state) == 0;
  if (!found || !(S_ISREG(state.st_mode) || S_ISDIR(state.st_mode))) return nullptr;
  return open_file(files, name, virtual_path, flags);
}

bool has_body(lws* wsi) {
  if (lws_hdr_total_length(wsi, WSI_TOKEN_HTTP_TRANSFER_ENCODING) > 0) return true;
  const std::string length = header(wsi, WSI_TOKEN_HTTP_CONTENT_LENGTH);
  return !length.empty() && length != "0";
}

}  // namespace

ApiWeb::ApiWeb(rrm::RRM* dispatcher, VrrpWorker* vrrp_worker)
    : ApiWeb(dispatcher, vrrp_worker, Settings()) {}

ApiWeb::ApiWeb(rrm::RRM* dispatcher, VrrpWorker* vrrp_worker, Settings settings)
    : Api(*dispatcher, vrrp_worker->global_config()),
      vrrp_worker_(vrrp_worker),
      settings_(std::move(settings)) {
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
  info.alpn = kAlpn;
  info.user = this;
  info.options = tls ? kTlsOptions : kPlainOptions;
  if (tls) {
    info.ssl_cert_filepath = settings_.certificate.c_str();
    info.ssl_private_key_filepath = settings_.private_key.c_str();
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
  if (lws_plat_file_ops* const files = lws_get_fops(context_); files != nullptr) {
    open_file = files->LWS_FOP_OPEN;
    files->LWS_FOP_OPEN = &open_served_file;
  }
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
  sending_.clear();
  sessions_.clear();
  body_bytes_ = 0;
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
  for (int calls = 1; !pass_done_ && !stop_.is_set() && lws_service(context_, 0) >= 0; ++calls)
    if (calls % kCallsWithoutRest == 0 && !sending_.empty()) rest_unless_sending();
}

// libwebsockets never sleeps while it holds unread bytes of a connection, and it reads none before
// the file or reply of that connection is written: it would spin for as long as a client that sent
// more than one request at a time likes to read its answer.
void ApiWeb::rest_unless_sending() {
  std::uint64_t written = 0;
  for (lws* const wsi : sending_) written += written_bytes(lws_get_socket_fd(wsi)).value_or(0);
  if (std::exchange(written_, written) == written)
    stop_.wait_until(StopSignal::Clock::now() + kRest);
}

void ApiWeb::on_pass_timer(lws_sorted_usec_list_t* timer) {
  ApiWeb* api = lws_container_of(timer, PassTimer, timer)->owner;
  api->pass_done_ = true;
  lws_cancel_service(api->context_);
}

void ApiWeb::run_periodic_duties() {
  try {
    vrrp_worker_->poll_timers();
    check_reports_at_times();
  } catch (const std::exception& error) {  // out of memory, which may come back
    PROCESS_LOG(Error) << error.what();
  }
}

void ApiWeb::check_reports_at_times() {
  if (counter_ != kReportCheckPass) {
    ++counter_;
    return;
  }
  counter_ = 0;
  PROCESS_LOG(Debug) << "ApiWeb periodic tick: invoking check_old_reports.";
  rrm().check_old_reports();
}

// --- requests ----------------------------------------------------------------------------------

int ApiWeb::lws_callback(lws* wsi, lws_callback_reasons reason, void*, void* in,
                         std::size_t length) {
  auto* api = static_cast<ApiWeb*>(lws_context_user(lws_get_context(wsi)));
  if (api == nullptr) return 0;
  // Memory may run out over a request; that ends its connection, and must not reach the library,
  // which knows no exceptions.
  try {
    return api->worker_lws_callback(wsi, reason, in, length);
  } catch (const std::exception& error) {
    PROCESS_LOG(Error) << error.what();
    return -1;
  }
}

int ApiWeb::worker_lws_callback(lws* wsi, lws_callback_reasons reason, void* in,
                                std::size_t length) {
  switch (reason) {
    case LWS_CALLBACK_FILTER_NETWORK_CONNECTION:
      return admit_connection(static_cast<int>(reinterpret_cast<std::intptr_t>(in)));
    case LWS_CALLBACK_SERVER_NEW_CLIENT_INSTANTIATED:
      pass_done_ = true;
      open_session(wsi);
      return 0;
    case LWS_CALLBACK_CLOSED:
    case LWS_CALLBACK_CLOSED_HTTP:
    case LWS_CALLBACK_WSI_DESTROY:  // a refused upgrade is told of in no other way
      close_session(wsi);
      return 0;
    case LWS_CALLBACK_HTTP_CONFIRM_UPGRADE:
      lws_return_http_status(wsi, HTTP_STATUS_NOT_IMPLEMENTED, nullptr);
      return -1;  // websockets and HTTP/2 would be connections without a session
    case LWS_CALLBACK_HTTP_BIND_PROTOCOL:  // a request is done with
      sending_.erase(wsi);
      return 0;
    case LWS_CALLBACK_FILTER_HTTP_CONNECTION:
      return filter_request(wsi, {static_cast<const char*>(in), length});
    case LWS_CALLBACK_HTTP:
      pass_done_ = true;
      return begin_request(wsi);
    case LWS_CALLBACK_HTTP_BODY:
      pass_done_ = true;
      return append_body(wsi, in, length);
    case LWS_CALLBACK_HTTP_BODY_COMPLETION:
      pass_done_ = true;
      return answer_request(wsi);
    case LWS_CALLBACK_HTTP_WRITEABLE:
      return answer_when_writeable(wsi);
    case LWS_CALLBACK_HTTP_FILE_COMPLETION:
      pass_done_ = true;
      return complete_file(wsi);
    default:
      return 0;
  }
}

/// @return what the callback returns: not 0 closes the connection
int ApiWeb::admit_connection(int descriptor) {
  if (rrm::leaves_descriptors(descriptor, rrm::kReserveOfHttp)) return 0;
  const std::int64_t now_s = rrm::TimerList::now_seconds();
  if (std::exchange(last_refusal_s_, now_s) != now_s)
    PROCESS_LOG(Warning) << "Too many open connections, descriptor " << descriptor << " refused.";
  return 1;
}

void ApiWeb::open_session(lws* wsi) {
  const std::lock_guard lock(sessions_.mutex());
  if (sessions_.map().size() >= settings_.most_connections) drop_longest_idle();
  const auto session = std::make_shared<HttpSession>();
  session->last_use = ++uses_;
  sessions_.map().insert_or_assign(wsi, session);
}

/// Called with the session table locked.
void ApiWeb::drop_longest_idle() {
  const auto longest = std::min_element(sessions_.map().begin(), sessions_.map().end(),
                                        [](const auto& left, const auto& right) {
                                          return left.second->last_use < right.second->last_use;
                                        });
  if (longest == sessions_.map().end()) return;
  PROCESS_LOG(Error) << "Too many HTTP connections, the one idle the longest is closed.";
  // It closes in a later pass of the library and is not to be chosen again meanwhile.
  longest->second->last_use = std::numeric_limits<std::uint64_t>::max();
  lws_set_timeout(longest->first, PENDING_TIMEOUT_LAGGING, LWS_TO_KILL_ASYNC);
}

/// What arrives next of its request is refused, which closes its connection; a silent one closes in
/// a later pass of the library.
void ApiWeb::drop_longest_body() {
  const std::lock_guard lock(sessions_.mutex());
  const auto longest = std::max_element(sessions_.map().begin(), sessions_.map().end(),
                                        [](const auto& left, const auto& right) {
                                          return left.second->counted < right.second->counted;
                                        });
  if (longest == sessions_.map().end()) return;
  PROCESS_LOG(Error) << "Too many bytes of unfinished request bodies, the longest one is dropped.";
  HttpSession& session = *longest->second;
  session.dropped = true;
  std::string().swap(session.body);  // an assignment would keep the memory
  count_body(session);
  lws_set_timeout(longest->first, PENDING_TIMEOUT_LAGGING, LWS_TO_KILL_ASYNC);
}

/// Called whenever the body has changed.
void ApiWeb::count_body(HttpSession& session) {
  body_bytes_ = body_bytes_ - session.counted + session.body.size();
  session.counted = session.body.size();
}

void ApiWeb::close_session(lws* wsi) {
  sending_.erase(wsi);
  if (const auto session = sessions_.find(wsi)) body_bytes_ -= session->counted;
  sessions_.erase(wsi);
}

// The header is complete. A request without a body is one for a file, and those that the mount has
// are served by the library before this is asked.
int ApiWeb::begin_request(lws* wsi) {
  const auto session = sessions_.find(wsi);
  if (!session) return refuse(wsi, HTTP_STATUS_BAD_REQUEST);
  session->last_use = ++uses_;
  session->body.clear();
  count_body(*session);
  session->chunks.reset();
  session->complete = false;
  if (lws_hdr_total_length(wsi, WSI_TOKEN_HTTP_TRANSFER_ENCODING) > 0)
    return begin_chunked_body(wsi, *session);
  std::uint64_t length = 0;
  if (lws_hdr_total_length(wsi, WSI_TOKEN_HTTP_CONTENT_LENGTH) > 0) {
    const std::string text = header(wsi, WSI_TOKEN_HTTP_CONTENT_LENGTH);
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), length);
    if (error == std::errc::result_out_of_range) return refuse_long_body(wsi);
    if (error != std::errc() || end != text.data() + text.size())
      return refuse(wsi, HTTP_STATUS_BAD_REQUEST);
  }
  if (length > settings_.longest_body) return refuse_long_body(wsi);
  if (length > 0) return invite_body(wsi);
  return is_command(wsi) ? answer_request(wsi) : answer_not_found(wsi);
}

/// Tells a client that asks first to send its body.
int ApiWeb::invite_body(lws* wsi) {
  if (header(wsi, WSI_TOKEN_HTTP_EXPECT) != "100-continue") return 0;
  std::string buffer(LWS_PRE, '\0');
  buffer += "HTTP/1.1 100 Continue\r\n\r\n";
  auto* const text = reinterpret_cast<unsigned char*>(buffer.data()) + LWS_PRE;
  return lws_write(wsi, text, buffer.size() - LWS_PRE, LWS_WRITE_HTTP_HEADERS) < 0 ? -1 : 0;
}

/// Requests that the library would serve wrongly end their connection instead.
int ApiWeb::filter_request(lws* wsi, std::string_view path) {
  if (is_joined_to_another(wsi)) return -1;
  return is_in_mount(path) ? begin_file(wsi) : 0;
}

/// Whether nothing was read from the connection since its last request: this one came in one piece
/// with that. libwebsockets 4.1.6 keeps it in a buffer and then reads its body from the start of
/// that buffer, for ever or over freed memory. The peer's end of the stream may count as a byte.
bool ApiWeb::is_joined_to_another(lws* wsi) {
  const auto session = sessions_.find(wsi);
  if (!session) return true;
  const std::uint64_t taken = bytes_up_to_now(wsi);
  const bool joined = session->taken && taken <= *session->taken + 1;
  session->taken = taken;
  return joined;
}

int ApiWeb::complete_file(lws* wsi) {
  if (const auto session = sessions_.find(wsi)) session->taken = bytes_up_to_now(wsi);
  return lws_http_transaction_completed(wsi) != 0 ? -1 : 0;
}

/// The library serves a file without reading the request's body, which it would then take for the
/// next request.
int ApiWeb::begin_file(lws* wsi) {
  if (has_body(wsi)) {
    lws_return_http_status(wsi, HTTP_STATUS_METHOD_NOT_ALLOWED, nullptr);
    return -1;
  }
  sending_.insert(wsi);
  return 0;
}

int ApiWeb::begin_chunked_body(lws* wsi, HttpSession& session) {
  // Two lengths would leave it open where the request ends.
  if (lws_hdr_total_length(wsi, WSI_TOKEN_HTTP_CONTENT_LENGTH) > 0)
    return refuse(wsi, HTTP_STATUS_BAD_REQUEST);
  if (header(wsi, WSI_TOKEN_HTTP_TRANSFER_ENCODING) != "chunked")
    return refuse(wsi, HTTP_STATUS_NOT_IMPLEMENTED);
  session.chunks.emplace(settings_.longest_body);
  return invite_body(wsi);
}

int ApiWeb::append_body(lws* wsi, const void* in, std::size_t length) {
  if (length == 0 || in == nullptr) return 0;
  if (length > kMostBytes) return 1;
  const auto session = sessions_.find(wsi);
  if (!session) return 0;
  if (session->dropped) return 1;
  const std::string_view bytes(static_cast<const char*>(in), length);
  int result = 0;
  if (session->chunks)
    result = append_chunks(wsi, *session, bytes);
  else if (session->body.size() + length > settings_.longest_body)
    result = refuse_long_body(wsi);
  else
    session->body.append(bytes);
  count_body(*session);
  if (body_bytes_ > settings_.most_body_bytes) drop_longest_body();
  return session->dropped ? 1 : result;
}

int ApiWeb::append_chunks(lws* wsi, HttpSession& session, std::string_view bytes) {
  if (session.complete) return 1;  // nothing may follow before the reply
  switch (session.chunks->take(bytes, session.body)) {
    case ChunkedBody::State::Unfinished:
      return 0;
    case ChunkedBody::State::TooLong:
      return refuse_long_body(wsi);
    case ChunkedBody::State::Broken:
      return refuse(wsi, HTTP_STATUS_BAD_REQUEST);
    case ChunkedBody::State::Complete:
      break;
  }
  // The library knows no end of such a body: it is answered outside its reading, and it would take
  // the next request for more of the body, so the connection ends with the reply.
  session.complete = true;
  lws_callback_on_writable(wsi);
  return 0;
}

int ApiWeb::answer_when_writeable(lws* wsi) {
  const auto session = sessions_.find(wsi);
  if (!session || !session->complete) return 0;
  pass_done_ = true;
  session->complete = false;
  return answer_request(wsi);
}

int ApiWeb::answer_request(lws* wsi) {
  std::string body;
  bool last = false;
  {
    const std::lock_guard lock(sessions_.mutex());
    const auto session = sessions_.map().find(wsi);
    if (session == sessions_.map().end()) return refuse(wsi, HTTP_STATUS_BAD_REQUEST);
    if (session->second->dropped) return 1;
    body = std::exchange(session->second->body, {});
    count_body(*session->second);
    session->second->taken = bytes_up_to_now(wsi);
    last = session->second->chunks.has_value();
  }
  const Reply reply = process_body(body);
  return reply ? send_reply(wsi, *reply, last) : refuse(wsi, HTTP_STATUS_BAD_REQUEST);
}

/// Answers with a status and ends the connection.
int ApiWeb::refuse(lws* wsi, unsigned status) {
  lws_return_http_status(wsi, status, nullptr);
  return 1;
}

int ApiWeb::refuse_long_body(lws* wsi) {
  PROCESS_LOG(Error) << "Request body of more than " << settings_.longest_body << " bytes refused.";
  return refuse(wsi, HTTP_STATUS_REQ_ENTITY_TOO_LARGE);
}

int ApiWeb::answer_not_found(lws* wsi) {
  if (method(wsi) == LWSHUMETH_HEAD) {
    unsigned char buffer[LWS_PRE + 512];
    if (!send_header(wsi, HTTP_STATUS_NOT_FOUND, 0, false, {buffer, sizeof(buffer)})) return -1;
  } else if (lws_return_http_status(wsi, HTTP_STATUS_NOT_FOUND, nullptr) != 0) {
    return -1;
  }
  return lws_http_transaction_completed(wsi) != 0 ? -1 : 0;
}

rrm::Api::Reply ApiWeb::process_body(const std::string& body) {
  try {
    const JsonReader request(body.c_str());
    if (is_request(request)) return process_request(request);
    PROCESS_LOG(Error) << "Receive corrupted JSON-request.";
    return std::nullopt;
  } catch (const std::exception& error) {
    PROCESS_LOG(Error) << error.what();
    return std::nullopt;
  }
}

/// @param buffer  room for the header behind LWS_PRE bytes
bool ApiWeb::send_header(lws* wsi, unsigned status, std::size_t length, bool last,
                         std::span<unsigned char> buffer) {
  static constexpr unsigned char kClose[] = "close";
  unsigned char* const start = buffer.data() + LWS_PRE;
  unsigned char* const end = buffer.data() + buffer.size();
  unsigned char* position = start;
  return lws_add_http_common_headers(wsi, status, kContentType, length, &position, end) == 0 &&
         (!last || lws_add_http_header_by_token(wsi, WSI_TOKEN_CONNECTION, kClose,
                                                sizeof(kClose) - 1, &position, end) == 0) &&
         lws_finalize_write_http_header(wsi, start, &position, end) == 0;
}

/// @param last  the connection ends with this reply
int ApiWeb::send_reply(lws* wsi, const std::string& text, bool last) {
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
  if (!send_header(wsi, HTTP_STATUS_OK, text.size(), last, {buffer.get(), LWS_PRE + kHeaderSpace}))
    return 1;
  unsigned char* const start = buffer.get() + LWS_PRE;
  std::memcpy(start, text.data(), text.size());
  if (lws_write(wsi, start, text.size(), LWS_WRITE_HTTP_FINAL) < 0) return 1;
  if (last) return -1;
  if (lws_partial_buffered(wsi)) sending_.insert(wsi);
  if (lws_http_transaction_completed(wsi) != 0) return -1;
  if (lws_partial_buffered(wsi))
    lws_set_timeout(wsi, PENDING_TIMEOUT_HTTP_CONTENT, settings_.reply_timeout);
  lws_callback_on_writable(wsi);
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
  return lws_http_transaction_completed(wsi) != 0 ? -1 : 0;
}

rrm::Api::Reply ApiWeb::process_role_command(const JsonReader& command) {
  return vrrp_worker_->handle_request(command.c_str());
}
