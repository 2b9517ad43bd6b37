#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

struct lws;
struct lws_context;

namespace rrm::fleet {

/// A controller of a few lines: a websocket server on a free loopback port that leads every fleet
/// through one round. Once `aps` have subscribed they are asked for modes, when all have answered
/// for scans, and when all have reported they get a plan (2.4 GHz radio to channel 11, 8 dBm).
///
/// Threading: serves on a thread of its own from construction to destruction; the counters may be
/// read after destruction of the run that talks to it, through stop().
class FakeController {
 public:
  struct Behaviour {
    std::uint32_t aps = 1;
    std::uint32_t drop_subscriptions = 0;      ///< the first so many are answered by closing
    std::uint32_t refuse_subscriptions = 0;    ///< the next so many by "fail" 503
    std::string plan_padding{};                ///< added to every plan, to make it long
    bool keys = false;                         ///< one 802.11r link each, some ms behind the plan
    std::function<void()> when_modes_known{};  ///< called once all have answered for modes
  };

  explicit FakeController(Behaviour behaviour);
  ~FakeController();
  FakeController(const FakeController&) = delete;
  FakeController& operator=(const FakeController&) = delete;

  int port() const noexcept { return port_; }
  void stop();
  /// Messages by command; after stop().
  const std::map<std::string, std::uint32_t>& commands() const noexcept { return commands_; }
  /// The longest message; after stop().
  std::size_t longest() const noexcept { return longest_; }

  /// For libwebsockets' callback.
  int on_callback(lws* wsi, int reason, const char* data, std::size_t length);

 private:
  struct Session {
    std::string incoming;
    std::vector<std::string> outgoing;
    bool drop = false;
  };

  void answer(lws* wsi, Session& session, const std::string& text);
  void subscribe(lws* wsi, Session& session);
  void send(lws* wsi, Session& session, const std::string& text);
  void send_all(const std::string& text);

  Behaviour behaviour_;
  lws_context* context_ = nullptr;
  int port_ = 0;
  std::atomic<bool> stopping_ = false;
  std::thread thread_;
  std::map<lws*, Session> sessions_;
  std::uint32_t subscribed_ = 0, modes_ = 0, scans_ = 0;
  std::map<std::string, std::uint32_t> commands_;
  std::size_t longest_ = 0;
};

}  // namespace rrm::fleet
