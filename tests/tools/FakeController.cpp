#include "tests/tools/FakeController.h"

#include <libwebsockets.h>
#include <unistd.h>

#include <stdexcept>

#include "server/lib/JsonReader.h"

namespace rrm::fleet {
namespace {

int callback(lws* wsi, lws_callback_reasons reason, void*, void* data, std::size_t length) {
  auto* controller = static_cast<FakeController*>(lws_context_user(lws_get_context(wsi)));
  if (controller == nullptr) return 0;
  return controller->on_callback(wsi, reason, static_cast<const char*>(data), length);
}

const lws_protocols kProtocols[] = {{"websock-rrm", callback, 0, 65536, 0, nullptr, 0},
                                    {nullptr, nullptr, 0, 0, 0, nullptr, 0}};

constexpr const char* kAccepted =
    R"({"service":"rrm","cmd":"subscribe-response","status":"success","config":{}})";
constexpr const char* kRefused =
    R"({"service":"rrm","cmd":"subscribe-response","status":"fail","code":503})";
constexpr const char* kKeys =
    R"({"service":"rrm","cmd":"fbt-info","vaps":[{"vap_id":0,"remotes":[{}]}]})";

}  // namespace

FakeController::FakeController(Behaviour behaviour) : behaviour_(std::move(behaviour)) {
  lws_set_log_level(0, nullptr);
  lws_context_creation_info info{};
  info.port = 0;
  info.iface = "127.0.0.1";
  info.protocols = kProtocols;
  info.uid = static_cast<decltype(info.uid)>(-1);
  info.gid = static_cast<decltype(info.gid)>(-1);
  info.user = this;
  info.options = LWS_SERVER_OPTION_EXPLICIT_VHOSTS;
  context_ = lws_create_context(&info);
  lws_vhost* vhost = context_ == nullptr ? nullptr : lws_create_vhost(context_, &info);
  if (vhost == nullptr) throw std::runtime_error("no fake controller");
  port_ = lws_get_vhost_listen_port(vhost);
  thread_ = std::thread([this] {
    while (!stopping_) lws_service(context_, 0);
  });
}

FakeController::~FakeController() {
  stop();
  lws_context_destroy(context_);
}

void FakeController::stop() {
  if (!thread_.joinable()) return;
  stopping_ = true;
  lws_cancel_service(context_);
  thread_.join();
}

int FakeController::on_callback(lws* wsi, int reason, const char* data, std::size_t length) {
  switch (reason) {
    case LWS_CALLBACK_ESTABLISHED:
      sessions_[wsi];
      return 0;
    case LWS_CALLBACK_CLOSED:
      sessions_.erase(wsi);
      return 0;
    case LWS_CALLBACK_RECEIVE: {
      Session& session = sessions_[wsi];
      session.incoming.append(data, length);
      if (lws_is_final_fragment(wsi) == 0 || lws_remaining_packet_payload(wsi) != 0) return 0;
      const std::string text = std::move(session.incoming);
      session.incoming.clear();
      answer(wsi, session, text);
      return session.drop ? -1 : 0;
    }
    case LWS_CALLBACK_SERVER_WRITEABLE: {
      Session& session = sessions_[wsi];
      if (session.outgoing.empty()) return 0;
      if (session.outgoing.front() == kKeys) usleep(30'000);
      std::string text = std::string(LWS_PRE, '\0') + session.outgoing.front();
      session.outgoing.erase(session.outgoing.begin());
      lws_write(wsi, reinterpret_cast<unsigned char*>(text.data()) + LWS_PRE, text.size() - LWS_PRE,
                LWS_WRITE_TEXT);
      if (!session.outgoing.empty()) lws_callback_on_writable(wsi);
      return 0;
    }
    default:
      return 0;
  }
}

void FakeController::answer(lws* wsi, Session& session, const std::string& text) {
  longest_ = std::max(longest_, text.size());
  const JsonReader message(text.c_str());
  const std::string cmd = message.get_str("cmd");
  ++commands_[cmd];
  if (cmd == "subscribe-request") return subscribe(wsi, session);
  if (cmd == "rrm-mode-response" && ++modes_ == behaviour_.aps) {
    send_all(R"({"service":"rrm","cmd":"rrm-update","rrm-scan-delay":0})");
    if (behaviour_.when_modes_known) behaviour_.when_modes_known();
  }
  if (cmd == "rrm-response" && ++scans_ == behaviour_.aps) {
    send_all(
        R"({"service":"rrm","cmd":"rrm-info","config":{"radios":[{"id":0,"channel":11,"power":8}]},"x":")" +
        behaviour_.plan_padding + "\"}");
    if (behaviour_.keys) send_all(kKeys);
  }
}

void FakeController::subscribe(lws* wsi, Session& session) {
  if (behaviour_.drop_subscriptions > 0) {
    --behaviour_.drop_subscriptions;
    session.drop = true;
    return;
  }
  if (behaviour_.refuse_subscriptions > 0) {
    --behaviour_.refuse_subscriptions;
    return send(wsi, session, kRefused);
  }
  send(wsi, session, kAccepted);
  if (++subscribed_ == behaviour_.aps) send_all(R"({"service":"rrm","cmd":"rrm-request-mode"})");
}

void FakeController::send(lws* wsi, Session& session, const std::string& text) {
  session.outgoing.push_back(text);
  lws_callback_on_writable(wsi);
}

void FakeController::send_all(const std::string& text) {
  for (auto& [wsi, session] : sessions_) send(wsi, session, text);
}

}  // namespace rrm::fleet
