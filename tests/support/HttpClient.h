#pragma once

#include <string>

namespace rrm::test {

/// A TCP connection to loopback on which a test speaks by hand.
class TcpClient {
 public:
  /// @param receive_buffer  bytes that the system may hold for this client; 0 for its default
  explicit TcpClient(int port, int receive_buffer = 0);
  ~TcpClient();
  TcpClient(const TcpClient&) = delete;
  TcpClient& operator=(const TcpClient&) = delete;

  bool is_connected() const noexcept { return fd_ >= 0; }
  bool send(const std::string& bytes);
  /// Waits for more bytes. @return false when the peer has closed or nothing came in time
  bool receive(std::string& bytes, int timeout_ms = 30000);
  /// Gives back what was received too much: it is received again first.
  void unreceive(const std::string& bytes) { pending_ = bytes + pending_; }
  /// Reads until the text ends with `end`, the peer closes or time is out.
  std::string receive_until(const std::string& end, int timeout_ms = 30000);
  /// Reads until the peer closes or time is out.
  std::string receive_all(int timeout_ms = 30000);
  /// Says that nothing more will be sent; replies still come.
  void end_input();
  /// Sends one byte of urgent data.
  bool send_urgent();
  /// Sends a reset instead of an orderly end.
  void reset();

 private:
  int fd_;
  std::string pending_;
};

struct HttpReply {
  int status = 0;       ///< 0 when no whole reply came
  std::string headers;  ///< in lower case
  std::string body;

  /// Whether there is such a header, given in lower case.
  bool has(const std::string& header) const {
    return headers.find("\r\n" + header + "\r\n") != std::string::npos;
  }
};

/// Reads one reply with a content length.
HttpReply read_reply(TcpClient& client);
HttpReply http_post(int port, const std::string& body);
HttpReply http_get(int port, const std::string& path);
/// One request on a connection that stays open.
HttpReply ask(TcpClient& client, const std::string& request);
std::string post_text(const std::string& body);

}  // namespace rrm::test
