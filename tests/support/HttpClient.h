#pragma once

#include <string>

namespace rrm::test {

/// A TCP connection to loopback on which a test speaks by hand.
class TcpClient {
 public:
  explicit TcpClient(int port);
  ~TcpClient();
  TcpClient(const TcpClient&) = delete;
  TcpClient& operator=(const TcpClient&) = delete;

  bool is_connected() const noexcept { return fd_ >= 0; }
  bool send(const std::string& bytes);
  /// Waits for more bytes. @return false when the peer has closed or nothing came in time
  bool receive(std::string& bytes, int timeout_ms = 10000);
  /// Reads until the text ends with `end`, the peer closes or time is out.
  std::string receive_until(const std::string& end, int timeout_ms = 10000);
  /// Sends a reset instead of an orderly end.
  void reset();

 private:
  int fd_;
};

struct HttpReply {
  int status = 0;       ///< 0 when no whole reply came
  std::string headers;  ///< in lower case
  std::string body;
};

/// Reads one reply with a content length.
HttpReply read_reply(TcpClient& client);
HttpReply http_post(int port, const std::string& body);
HttpReply http_get(int port, const std::string& path);
std::string post_text(const std::string& body);

}  // namespace rrm::test
