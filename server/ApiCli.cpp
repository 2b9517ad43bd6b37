#include "server/ApiCli.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <exception>

#include "server/ProcessLog.h"
#include "server/VrrpWorker.h"

using rrm::JsonReader;

namespace {

constexpr int kBacklog = 10;
constexpr int kPoll_ms = 1000;
constexpr std::size_t kLongestRequest = 4095;  // bytes
constexpr std::size_t kMostConnections = 256;
constexpr std::string_view kError = R"({"status":"error"})";
constexpr std::chrono::milliseconds kAcceptPause(100);
// How long a client may leave a reply unread before it loses its connection.
constexpr std::chrono::seconds kSendTimeout(10);

/// Everything that can be read. Being writeable is the rule and would only keep the loop busy.
constexpr short kEvents = POLLIN | POLLRDNORM | POLLPRI | POLLRDBAND;

bool is_ready(const pollfd& entry) {
  return (entry.revents & (POLLIN | POLLRDNORM | POLLOUT | POLLERR | POLLHUP | POLLNVAL)) != 0;
}

}  // namespace

ApiCli::ApiCli(rrm::RRM* dispatcher, VrrpWorker* vrrp_worker)
    : Api(*dispatcher, vrrp_worker->global_config()), vrrp_worker_(vrrp_worker) {
  running_ = connect();
}

ApiCli::~ApiCli() {
  for (const pollfd& entry : list_) ::close(entry.fd);
}

bool ApiCli::connect() {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    PROCESS_LOG(Error) << "socket: " << std::strerror(errno);
    return false;
  }
  const int on = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_ANY);
  address.sin_port = htons(static_cast<std::uint16_t>(config().cli_api_port.load()));
  if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    PROCESS_LOG(Error) << "bind: " << std::strerror(errno);
    ::close(fd);
    return false;
  }
  if (::listen(fd, kBacklog) != 0) {
    PROCESS_LOG(Error) << "listen: " << std::strerror(errno);
    ::close(fd);
    return false;
  }
  list_.insert(list_.begin(), pollfd{fd, kEvents, 0});
  port_ = port_of(fd);
  return true;
}

int ApiCli::port_of(int fd) {
  sockaddr_in address{};
  socklen_t length = sizeof(address);
  if (::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) return 0;
  return ntohs(address.sin_port);
}

void ApiCli::stop() {
  running_ = false;
  stop_.set();
}

void ApiCli::run() {
  while (running_ && !stop_.is_set()) {
    std::vector<pollfd> polled = list_;
    polled.push_back({stop_.descriptor(), POLLIN, 0});
    if (::poll(polled.data(), polled.size(), kPoll_ms) < 0) {
      PROCESS_LOG(Error) << "select: " << std::strerror(errno);
      continue;
    }
    serve_first_ready(polled);
  }
}

void ApiCli::serve_first_ready(const std::vector<pollfd>& polled) {
  if (is_ready(polled[0])) {
    const int fd = accept_connection(list_[0].fd);
    if (fd >= 0) return list_.push_back({fd, kEvents, 0});
  }
  for (std::size_t i = 1; i < list_.size(); ++i) {
    if (serve(list_[i], polled[i])) continue;
    unsent_.erase(list_[i].fd);
    ::close(list_[i].fd);
    list_.erase(list_.begin() + static_cast<std::ptrdiff_t>(i));
    return;
  }
}

bool ApiCli::serve(pollfd& entry, const pollfd& polled) {
  const auto waiting = unsent_.find(entry.fd);
  if (waiting == unsent_.end()) {
    if (!is_ready(polled)) return true;
    if (!process_packet(entry.fd)) return false;
    // Further requests wait until the client has taken this reply.
    if (unsent_.contains(entry.fd)) entry.events = POLLOUT;
    return true;
  }
  if (!is_ready(polled)) return StopSignal::Clock::now() < waiting->second.deadline;
  if (!send_some(entry.fd, waiting->second)) return false;
  if (!waiting->second.text.empty()) return true;
  unsent_.erase(waiting);
  entry.events = kEvents;
  return true;
}

int ApiCli::accept_connection(int listen_fd) {
  const int fd = ::accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
  if (fd < 0) {
    PROCESS_LOG(Error) << "accept: " << std::strerror(errno);
    // What waits to be accepted stays ready: without descriptors the loop would spin.
    if (errno != ECONNABORTED && errno != EINTR)
      stop_.wait_until(StopSignal::Clock::now() + kAcceptPause);
    return -1;
  }
  if (connection_count() < kMostConnections) return fd;
  PROCESS_LOG(Error) << "accept: too many connections";
  ::close(fd);
  return -1;
}

bool ApiCli::process_packet(int fd) {
  char buffer[kLongestRequest + 1] = {};
  const ssize_t length = ::recv(fd, buffer, kLongestRequest, MSG_DONTWAIT);
  if (length == 0) return false;
  if (length < 0) {
    if (errno == EAGAIN || errno == EINTR) return true;
    PROCESS_LOG(Error) << "recv: " << std::strerror(errno);
    return false;
  }
  const JsonReader request(buffer);
  PROCESS_LOG(Debug) << "REQUEST STR: " << request.c_str();
  const Reply reply = answer(request);
  return send_reply(fd, reply ? std::string_view(*reply) : kError);
}

rrm::Api::Reply ApiCli::answer(const JsonReader& request) {
  try {
    return process_request(request);
  } catch (const std::exception& error) {
    PROCESS_LOG(Error) << error.what();
    return std::nullopt;
  }
}

rrm::Api::Reply ApiCli::process_role_command(const JsonReader& command) {
  return vrrp_worker_->handle_request(command.c_str());
}

bool ApiCli::send_reply(int fd, std::string_view text) {
  Unsent reply{std::string(text), StopSignal::Clock::now() + kSendTimeout};
  if (!send_some(fd, reply)) return false;
  if (!reply.text.empty()) unsent_.emplace(fd, std::move(reply));
  return true;
}

// A client that does not read may not hold the loop: others wait, and so would a stop.
bool ApiCli::send_some(int fd, Unsent& reply) {
  const ssize_t sent =
      ::send(fd, reply.text.data(), reply.text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  if (sent < 0) return errno == EAGAIN || errno == EINTR;
  reply.text.erase(0, static_cast<std::size_t>(sent));
  reply.deadline = StopSignal::Clock::now() + kSendTimeout;
  return true;
}
