#include "tools/ctl/ControlClient.h"

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>

namespace rrm::ctl {
namespace {

long now_ms() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

long deadline_of(const Endpoint& endpoint) {
  return now_ms() + static_cast<long>(endpoint.timeout_s * 1000);
}

std::string name_of(const Endpoint& endpoint) {
  return endpoint.host + ":" + std::to_string(endpoint.port);
}

using Addresses = std::unique_ptr<addrinfo, void (*)(addrinfo*)>;

Addresses look_up(const Endpoint& endpoint) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int code =
      ::getaddrinfo(endpoint.host.c_str(), std::to_string(endpoint.port).c_str(), &hints, &found);
  if (code != 0) throw ConnectionError(endpoint.host + ": " + ::gai_strerror(code));
  return {found, ::freeaddrinfo};
}

/// A connected socket, or -1 with errno telling why.
int connect_to(const addrinfo& address, long deadline_ms) {
  const int fd = ::socket(address.ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) return -1;
  int error = ::connect(fd, address.ai_addr, address.ai_addrlen) == 0 ? 0 : errno;
  if (error == EINPROGRESS) {
    pollfd ready{fd, POLLOUT, 0};
    const long left = std::max(0L, deadline_ms - now_ms());
    socklen_t length = sizeof(error);
    if (::poll(&ready, 1, static_cast<int>(left)) <= 0)
      error = ETIMEDOUT;
    else
      ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length);
  }
  if (error == 0) return fd;
  ::close(fd);
  errno = error;
  return -1;
}

}  // namespace

ControlClient::ControlClient(const Endpoint& endpoint) : endpoint_(endpoint) {
  const Addresses addresses = look_up(endpoint);
  const long deadline = deadline_of(endpoint);
  int error = 0;
  for (const addrinfo* address = addresses.get(); address && fd_ < 0; address = address->ai_next) {
    fd_ = connect_to(*address, deadline);
    error = errno;
  }
  if (fd_ < 0)
    throw ConnectionError("cannot reach " + name_of(endpoint) + ": " + std::strerror(error));
}

ControlClient::~ControlClient() {
  if (fd_ >= 0) ::close(fd_);
}

void ControlClient::wait_for(short events, long deadline_ms) const {
  pollfd ready{fd_, events, 0};
  const long left = deadline_ms - now_ms();
  // A peer that never ends what it sends is always ready: the time counts all the same.
  if (left < 0 || ::poll(&ready, 1, static_cast<int>(left)) == 0)
    throw ConnectionError("no answer from " + name_of(endpoint_) + " in time");
}

void ControlClient::check_start(const std::string& reply) const {
  const std::size_t first = reply.find_first_not_of(" \t\r\n");
  if (first != std::string::npos && reply[first] != '{')
    throw ConnectionError("what answers at " + name_of(endpoint_) + " is no controller");
  if (reply.size() > kLongestReply)
    throw ConnectionError("the answer from " + name_of(endpoint_) + " has no end");
}

std::string ControlClient::ask(const std::string& request) {
  if (request.empty()) throw std::invalid_argument("the request is empty");
  if (request.size() > kLongestRequest)
    throw std::invalid_argument("the request has " + std::to_string(request.size()) +
                                " bytes; the controller takes at most " +
                                std::to_string(kLongestRequest));
  const long deadline = deadline_of(endpoint_);
  // In one piece: the controller takes every read for a request of its own.
  if (::send(fd_, request.data(), request.size(), MSG_NOSIGNAL) !=
      static_cast<ssize_t>(request.size()))
    throw ConnectionError("cannot send to " + name_of(endpoint_) + ": " + std::strerror(errno));
  std::string reply;
  ObjectEnd end;
  for (;;) {
    wait_for(POLLIN, deadline);
    char piece[65536];
    const ssize_t length = ::recv(fd_, piece, sizeof(piece), 0);
    if (length < 0 && (errno == EAGAIN || errno == EINTR)) continue;
    if (length <= 0) throw ConnectionError(name_of(endpoint_) + " closed the connection");
    reply.append(piece, static_cast<std::size_t>(length));
    check_start(reply);
    if (end.take(piece, static_cast<std::size_t>(length))) return reply;
  }
}

bool ObjectEnd::take(const char* bytes, std::size_t length) {
  for (const char* at = bytes; at != bytes + length; ++at) {
    if (in_text_) {
      in_text_ = escaped_ || *at != '"';
      escaped_ = !escaped_ && *at == '\\';
    } else if (*at == '"') {
      in_text_ = true;
    } else if (*at == '{' || *at == '[') {
      ++depth_;
    } else if ((*at == '}' || *at == ']') && --depth_ <= 0) {
      return true;
    }
  }
  return false;
}

}  // namespace rrm::ctl
