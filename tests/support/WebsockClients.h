#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

struct ev_loop;
struct lws;
struct lws_context;

namespace rrm::test {

/// How long a test waits for what must come, however busy the machine is; a failing one only.
inline constexpr int kPatience_ms = 30000;

/// Polls a condition until it holds. @return false when it did not within the time
bool wait_until(const std::function<bool()>& condition, int timeout_ms = kPatience_ms);

/// Many real websocket clients on one service thread of their own, connecting to loopback.
///
/// Threading: operations from the test's thread; connections are named by the number open() gave.
class WebsockClients {
 public:
  explicit WebsockClients(int port);
  ~WebsockClients();
  WebsockClients(const WebsockClients&) = delete;
  WebsockClients& operator=(const WebsockClients&) = delete;

  /// Begins to connect. @param protocol websocket subprotocol; null asks for none
  std::size_t open(const char* protocol = "websock-rrm", const char* path = "/zunt/rrm");
  void send(std::size_t client, std::string text);
  /// One message in several frames.
  void send_fragments(std::size_t client, std::vector<std::string> fragments);
  void send_binary(std::size_t client, std::string bytes);
  void close(std::size_t client);

  /// Opens so many and waits until all are established. @return the first one's number
  std::size_t open_all(std::size_t count);
  bool wait_open(std::size_t client);
  bool wait_closed(std::size_t client);
  /// Waits until so many messages have arrived, then gives all that have.
  std::vector<std::string> wait_received(std::size_t client, std::size_t count = 1);

  bool is_open(std::size_t client) const;
  bool is_closed(std::size_t client) const;  ///< refused ones too
  std::vector<std::string> received(std::size_t client) const;
  /// Status code and reason of the close frame that the server sent; 0 without one.
  std::pair<int, std::string> close_reason(std::size_t client) const;
  std::size_t open_count() const noexcept { return open_count_; }

 private:
  struct Frame {
    std::string bytes;
    int kind;
  };
  struct Client;
  struct Wake;

  static int callback(lws* wsi, int reason, void* user, void* in, std::size_t length);
  int on_event(lws* wsi, Client& client, int reason, const char* in, std::size_t length);
  int write_next(lws* wsi, Client& client);
  void run_commands();
  void command(std::function<void()> function);
  void connect(Client& client, const char* protocol, const char* path);
  void queue_frames(std::size_t client, std::vector<Frame> frames);
  Client& at(std::size_t client) const;

  const int port_;
  lws_context* context_ = nullptr;
  ev_loop* loop_ = nullptr;
  std::unique_ptr<Wake> wake_;
  std::vector<void*> loops_;
  std::atomic<bool> stop_{false};
  std::atomic<std::size_t> open_count_{0};
  mutable std::mutex mutex_;  ///< guards commands_, clients_ and what the clients received
  std::vector<std::function<void()>> commands_;
  std::vector<std::unique_ptr<Client>> clients_;
  std::thread thread_;
};

/// A client made of bare bytes, for what no library sends: it never answers a ping by itself.
class RawClient {
 public:
  explicit RawClient(int port);
  ~RawClient();
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  enum Opcode : int { Continuation = 0, Text = 1, Binary = 2, Close = 8, Ping = 9, Pong = 10 };
  struct ServerFrame {
    int opcode = -1;  ///< -1: none came within the time, or the connection ended
    std::string payload;
  };

  bool is_connected() const noexcept { return fd_ >= 0; }
  /// Upgrades to a websocket. @return whether the server agreed
  bool handshake(const std::string& protocol = "websock-rrm");
  bool send_bytes(const std::string& bytes);
  bool send_frame(int opcode, const std::string& payload, bool final = true);
  ServerFrame receive_frame(int timeout_ms = kPatience_ms);
  /// Waits until the other end has closed. @return false when it did not within the time
  bool wait_end(int timeout_ms = kPatience_ms);
  /// Cuts the connection with a reset instead of an orderly end.
  void reset();
  int fd() const noexcept { return fd_; }

 private:
  bool fill(std::size_t size, int timeout_ms);

  int fd_ = -1;
  std::string input_;
};

}  // namespace rrm::test
