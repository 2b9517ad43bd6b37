#pragma once

#include <stdexcept>
#include <string>

namespace rrm::ctl {

/// Where a controller takes commands and how long it may take to answer.
struct Endpoint {
  std::string host = "127.0.0.1";
  int port = 0;
  double timeout_s = 10;
};

/// The controller cannot be reached, or does not answer whole and in time.
struct ConnectionError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// A connection to the controller's TCP port for commands.
///
/// Purpose:   sends one request at a time and reads its reply, which has no length but its own end.
/// Errors:    ConnectionError; std::invalid_argument for a request that the controller would cut.
class ControlClient {
 public:
  static constexpr std::size_t kLongestRequest = 4095;      ///< bytes the controller reads at once
  static constexpr std::size_t kLongestReply = 256U << 20;  ///< bytes, far above any real one

  explicit ControlClient(const Endpoint& endpoint);
  ~ControlClient();
  ControlClient(const ControlClient&) = delete;
  ControlClient& operator=(const ControlClient&) = delete;

  /// @return the reply, one JSON text
  std::string ask(const std::string& request);

 private:
  void check_start(const std::string& reply) const;
  void wait_for(short events, long deadline_ms) const;

  Endpoint endpoint_;
  int fd_ = -1;
};

/// Follows the bytes of a JSON object until it is closed.
class ObjectEnd {
 public:
  /// Takes further bytes. @return whether the object ends within them
  bool take(const char* bytes, std::size_t length);

 private:
  int depth_ = 0;
  bool in_text_ = false;
  bool escaped_ = false;
};

}  // namespace rrm::ctl
