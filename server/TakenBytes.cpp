#include "server/TakenBytes.h"

#include <linux/sockios.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cstddef>

namespace {

/// More may arrive between the two questions below; then they are asked again, so often at most.
constexpr int kMostTries = 1000;

std::optional<std::uint64_t> received_bytes(int socket) noexcept {
  tcp_info info{};
  socklen_t length = sizeof(info);
  if (::getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &length) != 0 ||
      length < offsetof(tcp_info, tcpi_bytes_received) + sizeof(info.tcpi_bytes_received))
    return std::nullopt;
  return info.tcpi_bytes_received;
}

}  // namespace

std::optional<std::uint64_t> taken_bytes(int socket) noexcept {
  std::optional<std::uint64_t> received = received_bytes(socket);
  for (int i = 0; received && i < kMostTries; ++i) {
    int waiting = 0;
    if (::ioctl(socket, SIOCINQ, &waiting) != 0) return std::nullopt;
    const std::optional<std::uint64_t> again = received_bytes(socket);
    if (again == received) return *received - static_cast<std::uint64_t>(waiting);
    received = again;
  }
  return std::nullopt;
}
