#include "server/lib/FreeMemory.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <vector>

namespace rrm {
namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kOwnAllocator = true;
#else
constexpr bool kOwnAllocator = false;
#endif

constexpr std::size_t kBlock = 1000;

std::size_t resident_bytes() {
  std::ifstream statm("/proc/self/statm");
  std::size_t total = 0;
  std::size_t resident = 0;
  statm >> total >> resident;
  return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

/// Takes so many bytes in small blocks and frees them below one that stays, as a domain does.
std::unique_ptr<char[]> free_below_what_stays(std::size_t bytes) {
  std::vector<std::unique_ptr<char[]>> blocks;
  while (blocks.size() * kBlock < bytes) blocks.push_back(std::make_unique<char[]>(kBlock));
  return std::make_unique<char[]>(kBlock);
}

class FreeMemoryTest : public testing::Test {
 protected:
  void SetUp() override {
    if (kOwnAllocator) GTEST_SKIP() << "the sanitizer brings its own allocator";
    FreeMemory::keep_little();
  }
  FreeMemory memory_;
};

TEST_F(FreeMemoryTest, MuchFreeMemoryGoesBackToTheSystem) {
  const auto stays = free_below_what_stays(2 * FreeMemory::kMuch);
  const std::size_t before = resident_bytes();
  EXPECT_TRUE(memory_.give_back(FreeMemory::kInterval_s));
  EXPECT_LT(resident_bytes() + FreeMemory::kMuch, before);
}

TEST_F(FreeMemoryTest, LooksOnceAnInterval) {
  EXPECT_FALSE(memory_.give_back(FreeMemory::kInterval_s));
  const auto stays = free_below_what_stays(2 * FreeMemory::kMuch);
  EXPECT_FALSE(memory_.give_back(2 * FreeMemory::kInterval_s - 1));
  EXPECT_TRUE(memory_.give_back(2 * FreeMemory::kInterval_s));
}

TEST_F(FreeMemoryTest, ALittleFreeMemoryIsKept) {
  const auto stays = free_below_what_stays(FreeMemory::kMuch / 2);
  EXPECT_FALSE(memory_.give_back(FreeMemory::kInterval_s));
}

TEST_F(FreeMemoryTest, KeepsLessThanIsInUse) {
  const auto used = std::make_unique<char[]>(1);
  std::vector<std::unique_ptr<char[]>> in_use;
  while (in_use.size() * kBlock < 3 * FreeMemory::kMuch)
    in_use.push_back(std::make_unique<char[]>(kBlock));
  const auto stays = free_below_what_stays(2 * FreeMemory::kMuch);
  EXPECT_FALSE(memory_.give_back(FreeMemory::kInterval_s));
}

}  // namespace
}  // namespace rrm
