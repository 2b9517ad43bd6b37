#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/fleet/FleetRun.h"

struct ev_loop;
struct lws;
struct lws_context;

namespace rrm::fleet {

/// Where the controller listens.
struct Endpoint {
  std::string host = "127.0.0.1";
  int port = 8099;
  std::string path = "/zunt/rrm";
};

/// What the connections tell; all calls come from within the event loop or from deliver().
struct ConnectionEvents {
  std::function<void(std::uint32_t)> on_open;
  std::function<void(std::uint32_t, std::string_view)> on_text;
  std::function<void(std::uint32_t)> on_closed;
};

/// The websocket client connections of a fleet, all in one libwebsockets context on a libev loop of
/// the caller's: the cost of a message does not grow with the number of connections.
///
/// Threading: the thread of the loop only.
/// Ownership: refers to the loop, which must outlive it. Peers stay where they are: libwebsockets
///            holds pointers to them.
/// Errors:    the constructor throws std::runtime_error when no context can be made.
class WebsockClients : public Connections {
 public:
  WebsockClients(struct ev_loop* loop, Endpoint endpoint, std::uint32_t count,
                 ConnectionEvents events);
  ~WebsockClients() override;
  WebsockClients(const WebsockClients&) = delete;
  WebsockClients& operator=(const WebsockClients&) = delete;

  void open(std::uint32_t ap) override;
  void send(std::uint32_t ap, std::string text) override;
  void close(std::uint32_t ap) override;

  /// Tells of the connections that closed since the last call; to be called before every
  /// FleetRun::advance.
  void deliver();

  /// For libwebsockets' callback, `reason` being its number.
  int on_callback(struct lws* wsi, int reason, void* user, const char* data, std::size_t length);

 private:
  enum class Wire : std::uint8_t { Down, Opening, Open };
  struct Peer {
    std::uint32_t ap = 0;
    Wire wire = Wire::Down;
    bool closing = false;
    struct lws* wsi = nullptr;
    std::string incoming;              ///< fragments of a message
    std::deque<std::string> outgoing;  ///< each with the library's padding in front
  };

  int receive(Peer& peer, const char* data, std::size_t length);
  int write(Peer& peer);
  void down(Peer& peer);

  Endpoint endpoint_;
  ConnectionEvents events_;
  lws_context* context_ = nullptr;
  std::vector<Peer> peers_;
  std::vector<std::uint32_t> closed_;  ///< not yet told of
};

}  // namespace rrm::fleet
