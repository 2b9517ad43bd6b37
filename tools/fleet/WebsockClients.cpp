#include "tools/fleet/WebsockClients.h"

#include <libwebsockets.h>

#include <stdexcept>

namespace rrm::fleet {
namespace {

constexpr const char* kProtocol = "websock-rrm";
constexpr std::size_t kMostIncoming = std::size_t{64} << 20;  ///< bytes of one message

int callback(lws* wsi, lws_callback_reasons reason, void* user, void* data, std::size_t length) {
  auto* clients = static_cast<WebsockClients*>(lws_context_user(lws_get_context(wsi)));
  if (clients == nullptr) return 0;
  return clients->on_callback(wsi, reason, user, static_cast<const char*>(data), length);
}

const lws_protocols kProtocols[] = {{kProtocol, callback, 0, 4096, 0, nullptr, 0},
                                    {nullptr, nullptr, 0, 0, 0, nullptr, 0}};

// The controller pings; a timer per connection here would only cost time.
const lws_retry_bo_t kNoIdlePings{};

}  // namespace

WebsockClients::WebsockClients(struct ev_loop* loop, Endpoint endpoint, std::uint32_t count,
                               ConnectionEvents events)
    : endpoint_(std::move(endpoint)), events_(std::move(events)), peers_(count) {
  for (std::uint32_t i = 0; i < count; ++i) peers_[i].ap = i;
  lws_set_log_level(0, nullptr);  // refused connections are counted, not printed
  void* loops[] = {loop};
  lws_context_creation_info info{};
  info.port = CONTEXT_PORT_NO_LISTEN;
  info.protocols = kProtocols;
  info.uid = static_cast<decltype(info.uid)>(-1);
  info.gid = static_cast<decltype(info.gid)>(-1);
  info.options = LWS_SERVER_OPTION_LIBEV | LWS_SERVER_OPTION_DISABLE_IPV6;
  info.foreign_loops = loops;
  info.pt_serv_buf_size = 65536;
  info.retry_and_idle_policy = &kNoIdlePings;
  info.user = this;
  context_ = lws_create_context(&info);
  if (context_ == nullptr) throw std::runtime_error("libwebsockets gives no context on libev");
}

WebsockClients::~WebsockClients() {
  events_ = {};
  lws_context_destroy(context_);
}

void WebsockClients::open(std::uint32_t ap) {
  Peer& peer = peers_[ap];
  peer.wire = Wire::Opening;
  peer.closing = false;
  lws_client_connect_info info{};
  info.context = context_;
  info.address = endpoint_.host.c_str();
  info.port = endpoint_.port;
  info.path = endpoint_.path.c_str();
  info.host = info.address;
  info.origin = info.address;
  info.protocol = kProtocol;
  info.local_protocol_name = kProtocol;
  info.ietf_version_or_minus_one = -1;
  info.userdata = &peer;
  info.pwsi = &peer.wsi;
  info.retry_and_idle_policy = &kNoIdlePings;
  if (lws_client_connect_via_info(&info) == nullptr) down(peer);
}

void WebsockClients::send(std::uint32_t ap, std::string text) {
  Peer& peer = peers_[ap];
  if (peer.wire != Wire::Open || peer.closing) return;
  text.insert(0, LWS_PRE, '\0');
  peer.outgoing.push_back(std::move(text));
  lws_callback_on_writable(peer.wsi);
}

void WebsockClients::close(std::uint32_t ap) {
  Peer& peer = peers_[ap];
  if (peer.wire == Wire::Down || peer.wsi == nullptr) return;
  peer.closing = true;
  lws_set_timeout(peer.wsi, PENDING_TIMEOUT_CLOSE_SEND, LWS_TO_KILL_ASYNC);
}

void WebsockClients::deliver() {
  std::vector<std::uint32_t> closed;
  closed.swap(closed_);
  for (const std::uint32_t ap : closed) events_.on_closed(ap);
}

void WebsockClients::down(Peer& peer) {
  if (peer.wire == Wire::Down) return;
  peer.wire = Wire::Down;
  peer.wsi = nullptr;
  peer.incoming = {};
  peer.outgoing = {};
  closed_.push_back(peer.ap);
}

int WebsockClients::on_callback(lws* wsi, int reason, void* user, const char* data,
                                std::size_t length) {
  auto* peer = static_cast<Peer*>(user);
  if (peer == nullptr) return 0;
  switch (reason) {
    case LWS_CALLBACK_CLIENT_ESTABLISHED:
      peer->wire = Wire::Open;
      peer->wsi = wsi;
      if (events_.on_open) events_.on_open(peer->ap);
      return 0;
    case LWS_CALLBACK_CLIENT_RECEIVE:
      return receive(*peer, data, length);
    case LWS_CALLBACK_CLIENT_WRITEABLE:
      return write(*peer);
    case LWS_CALLBACK_CLIENT_CONNECTION_ERROR:
    case LWS_CALLBACK_CLIENT_CLOSED:
      down(*peer);
      return 0;
    default:
      return 0;
  }
}

int WebsockClients::receive(Peer& peer, const char* data, std::size_t length) {
  const bool last =
      lws_is_final_fragment(peer.wsi) != 0 && lws_remaining_packet_payload(peer.wsi) == 0;
  if (peer.incoming.size() + length > kMostIncoming) return -1;
  if (last && peer.incoming.empty()) {
    if (events_.on_text) events_.on_text(peer.ap, {data, length});
    return 0;
  }
  peer.incoming.append(data, length);
  if (!last) return 0;
  const std::string text = std::move(peer.incoming);
  peer.incoming.clear();
  if (events_.on_text) events_.on_text(peer.ap, text);
  return 0;
}

int WebsockClients::write(Peer& peer) {
  if (peer.closing) return -1;
  if (peer.outgoing.empty()) return 0;
  std::string text = std::move(peer.outgoing.front());
  peer.outgoing.pop_front();
  const std::size_t length = text.size() - LWS_PRE;
  auto* payload = reinterpret_cast<unsigned char*>(text.data()) + LWS_PRE;
  if (lws_write(peer.wsi, payload, length, LWS_WRITE_TEXT) < static_cast<int>(length)) return -1;
  if (!peer.outgoing.empty()) lws_callback_on_writable(peer.wsi);
  return 0;
}

}  // namespace rrm::fleet
