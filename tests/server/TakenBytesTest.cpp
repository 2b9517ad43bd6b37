#include "server/TakenBytes.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

namespace {

/// Two connected TCP sockets on loopback.
class TakenBytes : public testing::Test {
 protected:
  TakenBytes() {
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    EXPECT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), length), 0);
    EXPECT_EQ(::listen(listener, 1), 0);
    EXPECT_EQ(::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length), 0);
    EXPECT_EQ(::connect(writer_, reinterpret_cast<sockaddr*>(&address), length), 0);
    reader_ = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    ::close(listener);
  }
  ~TakenBytes() override {
    ::close(reader_);
    ::close(writer_);
  }

  void write(std::size_t size) {
    const std::string bytes(size, 'x');
    ASSERT_EQ(::send(writer_, bytes.data(), size, 0), static_cast<ssize_t>(size));
  }
  void read(std::size_t size) {
    std::string bytes(size, ' ');
    ASSERT_EQ(::recv(reader_, bytes.data(), size, MSG_WAITALL), static_cast<ssize_t>(size));
  }

  int writer_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int reader_ = -1;
};

TEST_F(TakenBytes, AreNoneAtFirst) { EXPECT_EQ(taken_bytes(reader_), 0U); }

TEST_F(TakenBytes, DoNotCountWhatOnlyWaits) {
  write(100);
  read(30);
  EXPECT_EQ(taken_bytes(reader_), 30U);
  read(70);
  EXPECT_EQ(taken_bytes(reader_), 100U);
}

TEST_F(TakenBytes, DoNotCountWhatIsOnlyLookedAt) {
  write(10);
  char byte;
  ASSERT_EQ(::recv(reader_, &byte, 1, MSG_PEEK), 1);
  EXPECT_EQ(taken_bytes(reader_), 0U);
}

TEST_F(TakenBytes, GrowByAtMostOneWhenThePeerEnds) {
  write(10);
  read(10);
  ::shutdown(writer_, SHUT_WR);
  pollfd ended{reader_, POLLRDHUP, 0};
  ASSERT_EQ(::poll(&ended, 1, 10000), 1);
  EXPECT_GE(taken_bytes(reader_).value_or(0), 10U);
  EXPECT_LE(taken_bytes(reader_).value_or(99), 11U);
}

TEST_F(TakenBytes, AreUnknownWithoutATcpSocket) {
  EXPECT_EQ(taken_bytes(-1), std::nullopt);
  const int other = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  EXPECT_EQ(taken_bytes(other), std::nullopt);
  EXPECT_EQ(written_bytes(other), std::nullopt);
  ::close(other);
}

TEST_F(TakenBytes, WrittenOnesCountWhetherThePeerHasReadThemOrNot) {
  const auto before = written_bytes(writer_);
  ASSERT_TRUE(before);
  write(100);
  EXPECT_EQ(written_bytes(writer_), *before + 100);
  read(100);
  EXPECT_EQ(written_bytes(writer_), *before + 100);
  const int small = 4096;
  ASSERT_EQ(::setsockopt(reader_, SOL_SOCKET, SO_RCVBUF, &small, sizeof(small)), 0);
  write(50'000);
  EXPECT_EQ(written_bytes(writer_), *before + 50'100) << "most of them wait";
}

}  // namespace
