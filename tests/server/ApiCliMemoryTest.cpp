// What clients see when memory ends: this program can make large allocations fail.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <limits>
#include <new>
#include <string>
#include <thread>

#include "server/ApiCli.h"
#include "tests/server/CapturedProcessLog.h"
#include "tests/server/FrontEndParts.h"
#include "tests/support/HttpClient.h"

namespace {

constexpr std::size_t kLarge = 4000;  // bytes
constexpr int kForEver = std::numeric_limits<int>::max();

std::atomic<int> large_left = kForEver;
std::atomic<int> failures = 0;
/// Only what the server allocates fails.
thread_local bool is_spared = false;

void* allocate(std::size_t bytes) noexcept {
  if (bytes >= kLarge && !is_spared && large_left != kForEver) {
    if (large_left == 0) {
      ++failures;
      return nullptr;
    }
    --large_left;
  }
  return std::malloc(bytes == 0 ? 1 : bytes);
}

void* allocate_or_throw(std::size_t bytes) {
  void* const memory = allocate(bytes);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

}  // namespace

// The compiler inlines one half of a pair and then misses the other.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

void* operator new(std::size_t bytes) { return allocate_or_throw(bytes); }
void* operator new[](std::size_t bytes) { return allocate_or_throw(bytes); }
void* operator new(std::size_t bytes, const std::nothrow_t&) noexcept { return allocate(bytes); }
void* operator new[](std::size_t bytes, const std::nothrow_t&) noexcept { return allocate(bytes); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept { std::free(memory); }

namespace {

using rrm::test::TcpClient;

constexpr char kError[] = R"({"status":"error"})";

TEST(TcpApiMemory, ARequestThatItDoesNotHoldGetsAnErrorOrTheEndOfItsConnection) {
  is_spared = true;
  const CapturedProcessLog log;
  // easylogging++ keeps a logger locked whose record it had no memory for: there are no long ones.
  el::Configurations quiet;
  quiet.set(el::Level::Debug, el::ConfigurationType::Enabled, "false");
  el::Loggers::reconfigureLogger("default", quiet);
  FrontEndParts parts{R"("cli_api_port":0)"};
  ApiCli api(&parts.rrm, &parts.vrrp);
  std::thread thread([&] { api.run(); });
  const std::string request = R"({"foo":")" + std::string(kLarge, 'x') + R"("})";
  int ended = 0;
  int failed_before = -1;
  for (int large = 0; failed_before != failures; ++large) {  // until there is enough
    failed_before = failures;
    TcpClient client(api.port());
    large_left = large;
    EXPECT_TRUE(client.send(request));
    std::string reply;
    const bool has_reply = client.receive(reply);
    large_left = kForEver;
    if (has_reply) {
      EXPECT_EQ(reply, kError);
      continue;
    }
    ++ended;
    std::string later;
    EXPECT_FALSE(client.send(R"({"foo":1})") && client.receive(later)) << "still open";
  }
  EXPECT_GT(ended, 0);
  EXPECT_TRUE(log.has(el::Level::Error, "std::bad_alloc"));
  api.stop();
  thread.join();
}

}  // namespace
