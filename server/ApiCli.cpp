#include "server/ApiCli.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <exception>
#include <utility>

#include "server/ProcessLog.h"
#include "server/VrrpWorker.h"
#include "server/lib/Descriptors.h"

using rrm::JsonReader;

namespace {

constexpr int kBacklog = 10;
constexpr int kPoll_ms = 1000;
constexpr std::size_t kLongestRequest = 4095;  // bytes
constexpr char kError[] = R"({"status":"error"})";
/// While descriptors or memory are short, which others may give back.
constexpr std::chrono::milliseconds kShortagePause(100);

/// Being writeable is the rule and would only keep the loop busy, and so would urgent data, which
/// nobody reads.
constexpr short kEvents = POLLIN | POLLRDNORM;

bool has_failed(const pollfd& entry) {
  return (entry.revents & (POLLERR | POLLHUP | POLLNVAL)) != 0;
}

bool is_readable(const pollfd& entry) {
  return (entry.revents & (POLLIN | POLLRDNORM)) != 0 || has_failed(entry);
}

}  // namespace

ApiCli::ApiCli(rrm::RRM* dispatcher, VrrpWorker* vrrp_worker)
    : ApiCli(dispatcher, vrrp_worker, Settings()) {}

ApiCli::ApiCli(rrm::RRM* dispatcher, VrrpWorker* vrrp_worker, Settings settings)
    : Api(*dispatcher, vrrp_worker->global_config()),
      vrrp_worker_(vrrp_worker),
      settings_(settings) {
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
    try {
      serve_round();
    } catch (const std::exception& error) {  // such as memory that ran out
      PROCESS_LOG(Error) << error.what();
      stop_.wait_until(StopSignal::Clock::now() + kShortagePause);
    }
  }
}

void ApiCli::serve_round() {
  std::vector<pollfd> polled = events_to_wait_for();
  if (::poll(polled.data(), polled.size(), kPoll_ms) >= 0) return serve_first_ready(polled);
  PROCESS_LOG(Error) << "select: " << std::strerror(errno);
}

/// The list with the stop signal behind it. Whoever has not read the last reply is asked for no
/// further request.
std::vector<pollfd> ApiCli::events_to_wait_for() const {
  std::vector<pollfd> polled = list_;
  for (pollfd& entry : polled)
    if (outgoing_.contains(entry.fd)) entry.events = POLLOUT;
  polled.push_back({stop_.descriptor(), POLLIN, 0});
  return polled;
}

/// Walks the list; a change of the list ends the round.
void ApiCli::serve_first_ready(const std::vector<pollfd>& polled) {
  if (is_readable(polled[0])) {
    list_.reserve(list_.size() + 1);  // an accepted connection must not be lost
    const int fd = accept_connection(list_[0].fd);
    if (fd >= 0) {
      list_.push_back({fd, kEvents, 0});
      if (connection_count() > settings_.most_connections ||
          !rrm::leaves_descriptors(fd, rrm::kReserveOfTcp))
        close_connection(1);
      return;
    }
  }
  for (std::size_t i = 1; i < list_.size(); ++i) {
    if (try_serve_connection(polled[i])) continue;
    close_connection(i);
    return;
  }
}

/// @return false when the connection is to be closed, as when memory does not suffice for it: its
/// client would wait for the rest of a reply
bool ApiCli::try_serve_connection(const pollfd& entry) {
  try {
    return serve_connection(entry);
  } catch (const std::exception& error) {
    PROCESS_LOG(Error) << error.what();
    return false;
  }
}

/// @return false when the connection is to be closed
bool ApiCli::serve_connection(const pollfd& entry) {
  const auto outgoing = outgoing_.find(entry.fd);
  if (outgoing == outgoing_.end()) return !is_readable(entry) || process_packet(entry.fd);
  if (has_failed(entry)) return false;
  if ((entry.revents & POLLOUT) == 0) return StopSignal::Clock::now() < outgoing->second.deadline;
  if (!send_some(entry.fd, outgoing->second)) return false;
  if (outgoing->second.sent == outgoing->second.text.size()) outgoing_.erase(outgoing);
  return true;
}

void ApiCli::close_connection(std::size_t index) {
  const int fd = list_[index].fd;
  list_.erase(list_.begin() + static_cast<std::ptrdiff_t>(index));
  outgoing_.erase(fd);
  ::close(fd);
}

int ApiCli::accept_connection(int listen_fd) {
  const int fd = ::accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
  if (fd < 0) {
    PROCESS_LOG(Error) << "accept: " << std::strerror(errno);
    // What waits to be accepted stays ready: without descriptors the loop would spin.
    if (errno != ECONNABORTED && errno != EINTR)
      stop_.wait_until(StopSignal::Clock::now() + kShortagePause);
    return -1;
  }
  return fd;
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
  Outgoing outgoing{answer(request).value_or(kError), 0,
                    StopSignal::Clock::now() + settings_.send_timeout};
  if (!send_some(fd, outgoing)) return false;
  if (outgoing.sent < outgoing.text.size()) outgoing_.emplace(fd, std::move(outgoing));
  return true;
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

/// Sends what the client takes now. @return false when the connection is broken
bool ApiCli::send_some(int fd, Outgoing& outgoing) {
  while (outgoing.sent < outgoing.text.size()) {
    const ssize_t sent = ::send(fd, outgoing.text.data() + outgoing.sent,
                                outgoing.text.size() - outgoing.sent, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0) return errno == EAGAIN;
    outgoing.sent += static_cast<std::size_t>(sent);
    outgoing.deadline = StopSignal::Clock::now() + settings_.send_timeout;
  }
  return true;
}
