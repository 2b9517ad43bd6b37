#include "tests/support/HttpClient.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <utility>

namespace rrm::test {

TcpClient::TcpClient(int port, int receive_buffer)
    : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  if (receive_buffer > 0)
    ::setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof(receive_buffer));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  if (::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) return;
  ::close(fd_);
  fd_ = -1;
}

TcpClient::~TcpClient() {
  if (fd_ >= 0) ::close(fd_);
}

bool TcpClient::send(const std::string& bytes) {
  return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
         static_cast<ssize_t>(bytes.size());
}

HttpReply ask(TcpClient& client, const std::string& request) {
  return client.send(request) ? read_reply(client) : HttpReply{};
}

bool TcpClient::receive(std::string& bytes, int timeout_ms) {
  if (!pending_.empty()) {
    bytes += std::exchange(pending_, {});
    return true;
  }
  pollfd ready{fd_, POLLIN, 0};
  if (::poll(&ready, 1, timeout_ms) <= 0) return false;
  char buffer[65536];
  const ssize_t length = ::recv(fd_, buffer, sizeof(buffer), 0);
  if (length <= 0) return false;
  bytes.append(buffer, static_cast<std::size_t>(length));
  return true;
}

std::string TcpClient::receive_until(const std::string& end, int timeout_ms) {
  std::string bytes;
  while (!bytes.ends_with(end) && receive(bytes, timeout_ms)) {
  }
  return bytes;
}

std::string TcpClient::receive_all(int timeout_ms) {
  std::string bytes;
  while (receive(bytes, timeout_ms)) {
  }
  return bytes;
}

void TcpClient::end_input() { ::shutdown(fd_, SHUT_WR); }

bool TcpClient::send_urgent() { return ::send(fd_, "!", 1, MSG_OOB | MSG_NOSIGNAL) == 1; }

void TcpClient::reset() {
  const linger hard{1, 0};
  ::setsockopt(fd_, SOL_SOCKET, SO_LINGER, &hard, sizeof(hard));
  ::close(fd_);
  fd_ = -1;
}

HttpReply read_reply(TcpClient& client) {
  std::string bytes;
  std::size_t end = std::string::npos;
  while ((end = bytes.find("\r\n\r\n")) == std::string::npos)
    if (!client.receive(bytes)) return {};
  HttpReply reply;
  reply.status = std::atoi(bytes.c_str() + std::min<std::size_t>(bytes.size(), 9));
  reply.headers = bytes.substr(0, end + 2);
  std::transform(reply.headers.begin(), reply.headers.end(), reply.headers.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  reply.body = bytes.substr(end + 4);
  static const std::string kLength = "content-length: ";
  const std::size_t at = reply.headers.find(kLength);
  if (at == std::string::npos) return reply;
  const auto length =
      static_cast<std::size_t>(std::atol(reply.headers.c_str() + at + kLength.size()));
  while (reply.body.size() < length && client.receive(reply.body)) {
  }
  if (reply.body.size() > length) client.unreceive(reply.body.substr(length));
  reply.body.resize(std::min(reply.body.size(), length));
  return reply;
}

std::string post_text(const std::string& body) {
  return "POST / HTTP/1.1\r\nHost: localhost\r\nContent-Length: " + std::to_string(body.size()) +
         "\r\n\r\n" + body;
}

HttpReply http_post(int port, const std::string& body) {
  TcpClient client(port);
  if (!client.is_connected() || !client.send(post_text(body))) return {};
  return read_reply(client);
}

HttpReply http_get(int port, const std::string& path) {
  TcpClient client(port);
  if (!client.is_connected() ||
      !client.send("GET " + path + " HTTP/1.1\r\nHost: localhost\r\n\r\n"))
    return {};
  return read_reply(client);
}

}  // namespace rrm::test
