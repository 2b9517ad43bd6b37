#include "tests/support/FreePort.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <random>

namespace rrm::test {

int free_port() {
  constexpr int kFirst = 10000;
  constexpr int kLast = 32000;
  std::random_device random;
  std::uniform_int_distribution<int> ports(kFirst, kLast);
  for (;;) {
    const int port = ports(random);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool is_free =
        ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    ::close(fd);
    if (is_free) return port;
  }
}

}  // namespace rrm::test
