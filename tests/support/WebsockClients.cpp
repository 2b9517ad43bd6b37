#include "tests/support/WebsockClients.h"

#include <arpa/inet.h>
#include <ev.h>
#include <libwebsockets.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <deque>

namespace rrm::test {
namespace {

/// Both ends of some thousand connections live in one process, and libwebsockets sizes its tables
/// by the limit: a login shell's 1024 is too small, a container's billion too large.
[[maybe_unused]] const bool limit_is_set = [] {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 20000);
  return setrlimit(RLIMIT_NOFILE, &limit) == 0;
}();

}  // namespace

bool wait_until(const std::function<bool()>& condition, int timeout_ms) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return condition();
    // Not usleep(), which a test may have made virtual.
    constexpr timespec kPause{0, 500'000};
    nanosleep(&kPause, nullptr);
  }
  return true;
}

/// Wakes the service thread without calling the library from another one.
struct WebsockClients::Wake {
  ev_async watcher;
};

struct WebsockClients::Client {
  WebsockClients* owner = nullptr;
  lws* wsi = nullptr;          // service thread
  std::deque<Frame> outgoing;  // service thread
  std::string message;         // service thread
  bool closing = false;        // service thread
  std::atomic<bool> open{false};
  std::atomic<bool> closed{false};
  std::vector<std::string> received;         // guarded by mutex_
  std::pair<int, std::string> close_reason;  // guarded by mutex_
};

WebsockClients::WebsockClients(int port)
    : port_(port), loop_(ev_loop_new(EVFLAG_AUTO)), wake_(std::make_unique<Wake>()) {
  ev_async_init(&wake_->watcher, [](struct ev_loop*, ev_async* watcher, int) {
    static_cast<WebsockClients*>(watcher->data)->run_commands();
  });
  wake_->watcher.data = this;
  ev_async_start(loop_, &wake_->watcher);
  static const lws_protocols protocols[] = {
      {"websock-rrm",
       [](lws* wsi, lws_callback_reasons reason, void* user, void* in, std::size_t length) {
         return callback(wsi, static_cast<int>(reason), user, in, length);
       },
       0, 65536, 0, nullptr, 0},
      {nullptr, nullptr, 0, 0, 0, nullptr, 0},
  };
  loops_.push_back(loop_);
  lws_context_creation_info info{};
  info.port = CONTEXT_PORT_NO_LISTEN;
  info.protocols = protocols;
  info.gid = static_cast<decltype(info.gid)>(-1);
  info.uid = static_cast<decltype(info.uid)>(-1);
  info.options = LWS_SERVER_OPTION_LIBEV | LWS_SERVER_OPTION_DISABLE_IPV6;
  info.foreign_loops = loops_.data();
  info.user = this;
  context_ = lws_create_context(&info);
  thread_ = std::thread([this] {
    while (!stop_) ev_run(loop_, EVRUN_ONCE);
  });
}

WebsockClients::~WebsockClients() {
  stop_ = true;
  ev_async_send(loop_, &wake_->watcher);
  thread_.join();
  lws_context_destroy(context_);
  ev_loop_destroy(loop_);
}

// --- commands

void WebsockClients::command(std::function<void()> function) {
  {
    const std::lock_guard lock(mutex_);
    commands_.push_back(std::move(function));
  }
  ev_async_send(loop_, &wake_->watcher);
}

void WebsockClients::run_commands() {
  std::vector<std::function<void()>> commands;
  {
    const std::lock_guard lock(mutex_);
    commands.swap(commands_);
  }
  for (const auto& function : commands) function();
}

WebsockClients::Client& WebsockClients::at(std::size_t client) const {
  const std::lock_guard lock(mutex_);
  return *clients_.at(client);
}

std::size_t WebsockClients::open(const char* protocol, const char* path) {
  std::size_t number = 0;
  Client* client = nullptr;
  {
    const std::lock_guard lock(mutex_);
    number = clients_.size();
    client = clients_.emplace_back(std::make_unique<Client>()).get();
    client->owner = this;
  }
  command([this, client, protocol, path] { connect(*client, protocol, path); });
  return number;
}

void WebsockClients::connect(Client& client, const char* protocol, const char* path) {
  lws_client_connect_info info{};
  info.context = context_;
  info.address = "127.0.0.1";
  info.port = port_;
  info.path = path;
  info.host = info.address;
  info.origin = info.address;
  info.protocol = protocol;
  info.local_protocol_name = "websock-rrm";
  info.userdata = &client;
  info.pwsi = &client.wsi;
  if (lws_client_connect_via_info(&info) == nullptr) client.closed = true;
}

void WebsockClients::queue_frames(std::size_t number, std::vector<Frame> frames) {
  Client& client = at(number);
  command([&client, frames = std::move(frames)] {
    client.outgoing.insert(client.outgoing.end(), frames.begin(), frames.end());
    if (client.open) lws_callback_on_writable(client.wsi);
  });
}

void WebsockClients::send(std::size_t client, std::string text) {
  queue_frames(client, {{std::move(text), LWS_WRITE_TEXT}});
}

void WebsockClients::send_binary(std::size_t client, std::string bytes) {
  queue_frames(client, {{std::move(bytes), LWS_WRITE_BINARY}});
}

void WebsockClients::send_fragments(std::size_t client, std::vector<std::string> fragments) {
  std::vector<Frame> frames;
  for (std::size_t i = 0; i < fragments.size(); ++i) {
    int kind = i == 0 ? LWS_WRITE_TEXT : LWS_WRITE_CONTINUATION;
    if (i + 1 < fragments.size()) kind |= LWS_WRITE_NO_FIN;
    frames.push_back({std::move(fragments[i]), kind});
  }
  queue_frames(client, std::move(frames));
}

void WebsockClients::close(std::size_t number) {
  Client& client = at(number);
  command([&client] {
    client.closing = true;
    if (client.open) lws_callback_on_writable(client.wsi);
  });
}

// --- service thread

int WebsockClients::callback(lws* wsi, int reason, void* user, void* in, std::size_t length) {
  auto* const client = static_cast<Client*>(user);
  if (client == nullptr) return 0;
  return client->owner->on_event(wsi, *client, reason, static_cast<const char*>(in), length);
}

int WebsockClients::on_event(lws* wsi, Client& client, int reason, const char* in,
                             std::size_t length) {
  switch (reason) {
    case LWS_CALLBACK_CLIENT_ESTABLISHED:
      client.open = true;
      ++open_count_;
      lws_callback_on_writable(wsi);
      return 0;
    case LWS_CALLBACK_CLIENT_RECEIVE:
      client.message.append(in, length);
      if (lws_remaining_packet_payload(wsi) == 0 && lws_is_final_fragment(wsi) != 0) {
        const std::lock_guard lock(mutex_);
        client.received.push_back(std::exchange(client.message, {}));
      }
      return 0;
    case LWS_CALLBACK_WS_PEER_INITIATED_CLOSE:
      if (length >= 2) {
        const std::lock_guard lock(mutex_);
        client.close_reason = {
            static_cast<unsigned char>(in[0]) << 8 | static_cast<unsigned char>(in[1]),
            std::string(in + 2, length - 2)};
      }
      return 0;
    case LWS_CALLBACK_CLIENT_WRITEABLE:
      return write_next(wsi, client);
    case LWS_CALLBACK_CLIENT_CLOSED:
      if (client.open.exchange(false)) --open_count_;
      client.closed = true;
      return 0;
    case LWS_CALLBACK_CLIENT_CONNECTION_ERROR:
      client.closed = true;
      return 0;
    default:
      return 0;
  }
}

int WebsockClients::write_next(lws* wsi, Client& client) {
  if (!client.outgoing.empty()) {
    const Frame frame = std::move(client.outgoing.front());
    client.outgoing.pop_front();
    std::vector<unsigned char> buffer(LWS_PRE + frame.bytes.size());
    std::memcpy(buffer.data() + LWS_PRE, frame.bytes.data(), frame.bytes.size());
    lws_write(wsi, buffer.data() + LWS_PRE, frame.bytes.size(),
              static_cast<lws_write_protocol>(frame.kind));
    if (!client.outgoing.empty() || client.closing) lws_callback_on_writable(wsi);
    return 0;
  }
  return client.closing ? -1 : 0;
}

// --- what tests ask

bool WebsockClients::is_open(std::size_t client) const { return at(client).open; }

bool WebsockClients::is_closed(std::size_t client) const { return at(client).closed; }

bool WebsockClients::wait_open(std::size_t client) {
  return wait_until([&] { return is_open(client) || is_closed(client); }) && is_open(client);
}

bool WebsockClients::wait_closed(std::size_t client) {
  return wait_until([&] { return is_closed(client); });
}

std::size_t WebsockClients::open_all(std::size_t count) {
  std::size_t first = 0;
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t number = open();
    if (i == 0) first = number;
  }
  for (std::size_t number = first; number < first + count; ++number)
    wait_until([&] { return is_open(number) || is_closed(number); }, 60000);
  return first;
}

std::vector<std::string> WebsockClients::received(std::size_t client) const {
  const std::lock_guard lock(mutex_);
  return clients_.at(client)->received;
}

std::vector<std::string> WebsockClients::wait_received(std::size_t client, std::size_t count) {
  wait_until([&] { return received(client).size() >= count; });
  return received(client);
}

std::pair<int, std::string> WebsockClients::close_reason(std::size_t client) const {
  const std::lock_guard lock(mutex_);
  return clients_.at(client)->close_reason;
}

// --- bare bytes

RawClient::RawClient(int port) : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return;
  ::close(fd_);
  fd_ = -1;
}

RawClient::~RawClient() {
  if (fd_ >= 0) ::close(fd_);
}

void RawClient::reset() {
  const linger cut{1, 0};
  setsockopt(fd_, SOL_SOCKET, SO_LINGER, &cut, sizeof cut);
  ::close(fd_);
  fd_ = -1;
}

bool RawClient::send_bytes(const std::string& bytes) {
  std::size_t sent = 0;
  while (sent < bytes.size()) {
    const ssize_t count = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (count <= 0) return false;
    sent += static_cast<std::size_t>(count);
  }
  return true;
}

bool RawClient::handshake(const std::string& protocol) {
  std::string request =
      "GET /zunt/rrm HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
      "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n";
  if (!protocol.empty()) request += "Sec-WebSocket-Protocol: " + protocol + "\r\n";
  if (!send_bytes(request + "\r\n")) return false;
  std::size_t end = std::string::npos;
  while ((end = input_.find("\r\n\r\n")) == std::string::npos)
    if (!fill(input_.size() + 1, kPatience_ms)) return false;
  const bool agreed = input_.rfind("HTTP/1.1 101", 0) == 0;
  input_.erase(0, end + 4);
  return agreed;
}

bool RawClient::send_frame(int opcode, const std::string& payload, bool final) {
  std::string frame;
  frame += static_cast<char>((final ? 0x80 : 0) | opcode);
  if (payload.size() < 126) {
    frame += static_cast<char>(0x80 | payload.size());
  } else {
    const int bytes = payload.size() < 65536 ? 2 : 8;
    frame += static_cast<char>(0x80 | (bytes == 2 ? 126 : 127));
    for (int i = bytes - 1; i >= 0; --i)
      frame += static_cast<char>(payload.size() >> (8 * i) & 0xff);
  }
  const std::array<char, 4> mask{0x12, 0x34, 0x56, 0x78};
  frame.append(mask.data(), mask.size());
  for (std::size_t i = 0; i < payload.size(); ++i)
    frame += static_cast<char>(payload[i] ^ mask[i % mask.size()]);
  return send_bytes(frame);
}

/// Reads until the input has so many bytes.
bool RawClient::fill(std::size_t size, int timeout_ms) {
  while (input_.size() < size) {
    pollfd wait{fd_, POLLIN, 0};
    if (poll(&wait, 1, timeout_ms) <= 0) return false;
    std::array<char, 65536> bytes;
    const ssize_t count = recv(fd_, bytes.data(), bytes.size(), 0);
    if (count <= 0) return false;
    input_.append(bytes.data(), static_cast<std::size_t>(count));
  }
  return true;
}

RawClient::ServerFrame RawClient::receive_frame(int timeout_ms) {
  if (!fill(2, timeout_ms)) return {};
  const int opcode = input_[0] & 0x0f;
  std::size_t header = 2;
  std::size_t length = static_cast<unsigned char>(input_[1]) & 0x7f;
  if (length >= 126) {
    const std::size_t bytes = length == 126 ? 2 : 8;
    if (!fill(header + bytes, timeout_ms)) return {};
    length = 0;
    for (std::size_t i = 0; i < bytes; ++i)
      length = length << 8 | static_cast<unsigned char>(input_[header + i]);
    header += bytes;
  }
  if (!fill(header + length, timeout_ms)) return {};
  ServerFrame frame{opcode, input_.substr(header, length)};
  input_.erase(0, header + length);
  return frame;
}

bool RawClient::wait_end(int timeout_ms) {
  for (;;) {
    pollfd wait{fd_, POLLIN, 0};
    if (poll(&wait, 1, timeout_ms) <= 0) return false;
    std::array<char, 4096> bytes;
    if (recv(fd_, bytes.data(), bytes.size(), 0) <= 0) return true;
  }
}

}  // namespace rrm::test
