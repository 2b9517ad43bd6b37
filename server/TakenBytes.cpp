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

using Counter = decltype(tcp_info::tcpi_bytes_received) tcp_info::*;

std::optional<std::uint64_t> counted_bytes(int socket, Counter counter) noexcept {
  tcp_info info{};
  socklen_t length = sizeof(info);
  // Both counters that are asked for are within.
  if (::getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &length) != 0 ||
      length < offsetof(tcp_info, tcpi_bytes_received) + sizeof(info.tcpi_bytes_received))
    return std::nullopt;
  return info.*counter;
}

/// A counter and how much waits in a buffer, of one moment.
struct Bytes {
  std::uint64_t counted;
  std::uint64_t waiting;
};

std::optional<Bytes> bytes_of(int socket, Counter counter, unsigned long buffer) noexcept {
  std::optional<std::uint64_t> counted = counted_bytes(socket, counter);
  for (int i = 0; counted && i < kMostTries; ++i) {
    int waiting = 0;
    if (::ioctl(socket, buffer, &waiting) != 0) return std::nullopt;
    const std::optional<std::uint64_t> again = counted_bytes(socket, counter);
    if (again == counted) return Bytes{*counted, static_cast<std::uint64_t>(waiting)};
    counted = again;
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::uint64_t> taken_bytes(int socket) noexcept {
  const auto bytes = bytes_of(socket, &tcp_info::tcpi_bytes_received, SIOCINQ);
  if (!bytes) return std::nullopt;
  return bytes->counted - bytes->waiting;
}

std::optional<std::uint64_t> written_bytes(int socket) noexcept {
  const auto bytes = bytes_of(socket, &tcp_info::tcpi_bytes_acked, SIOCOUTQ);
  if (!bytes) return std::nullopt;
  return bytes->counted + bytes->waiting;
}
