#include "json/MonotonicArena.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <thread>

// Requests that no system can fulfil must come back as a failure in sanitized builds too.
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }
extern "C" const char* __tsan_default_options() { return "allocator_may_return_null=1"; }

namespace yajson {
namespace {

constexpr std::size_t kHeader = 16;

TEST(MonotonicArena, WithHint0HasOneBlockOf4096UsableBytes) {
  MonotonicArena arena(0);
  EXPECT_EQ(arena.total_bytes(), 4096 + kHeader);
  EXPECT_EQ(arena.next_block_size(), 8192u);
  (void)arena.allocate(4096, 1);
  EXPECT_EQ(arena.block_count(), 1u);
  (void)arena.allocate(1, 1);
  EXPECT_EQ(arena.block_count(), 2u);
}

TEST(MonotonicArena, TakesTheHintButAtLeast256Bytes) {
  for (const auto& [hint, usable] : {std::pair<std::size_t, std::size_t>{1, 256},
                                     {255, 256},
                                     {256, 256},
                                     {257, 257},
                                     {8192, 8192}}) {
    const MonotonicArena arena(hint);
    EXPECT_EQ(arena.total_bytes(), usable + kHeader) << hint;
    EXPECT_EQ(arena.next_block_size(), 2 * usable) << hint;
    EXPECT_EQ(arena.block_count(), 1u) << hint;
  }
}

TEST(MonotonicArena, ARequestOf10000BytesMakesABlockOfItsSizeAndTheNextIsTwiceThat) {
  MonotonicArena arena(0);
  (void)arena.allocate(10000, 8);
  EXPECT_EQ(arena.total_bytes(), 4096 + kHeader + 10007 + kHeader);
  EXPECT_EQ(arena.next_block_size(), 2 * 10007u);
}

TEST(MonotonicArena, BlocksDouble) {
  MonotonicArena arena(256);
  std::size_t total = 256 + kHeader;
  for (std::size_t usable = 512; usable <= 65536; usable *= 2) {
    while (arena.total_bytes() == total) (void)arena.allocate(64, 8);
    total += usable + kHeader;
    EXPECT_EQ(arena.total_bytes(), total);
    EXPECT_EQ(arena.next_block_size(), 2 * usable);
  }
}

TEST(MonotonicArena, RoundsUpToTheAlignmentAndNoFurther) {
  MonotonicArena arena(4096);
  auto* const first = static_cast<char*>(arena.allocate(1, 1));
  EXPECT_EQ(arena.allocate(1, 1), first + 1);
  for (const std::size_t align : {1u, 2u, 4u, 8u, 16u, 64u, 256u}) {
    auto* const place = static_cast<char*>(arena.allocate(3, align));
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(place) % align, 0u) << align;
    EXPECT_EQ(arena.allocate(1, 1), place + 3);
  }
}

TEST(MonotonicArena, ALargeAlignmentFitsTheBlockMadeForIt) {
  MonotonicArena arena(256);
  for (int i = 0; i < 20; ++i) {
    void* const place = arena.allocate(3000, 4096);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(place) % 4096, 0u);
    std::memset(place, 0x5a, 3000);
  }
}

TEST(MonotonicArena, GivingBackChangesNothing) {
  MonotonicArena arena(4096);
  void* const first = arena.allocate(100, 4);
  arena.deallocate(first, 100, 4);
  EXPECT_EQ(arena.allocate(100, 4), static_cast<char*>(first) + 100);
}

TEST(MonotonicArena, IsEqualOnlyToItself) {
  const MonotonicArena one(256);
  const MonotonicArena other(256);
  EXPECT_TRUE(one.is_equal(one));
  EXPECT_FALSE(one.is_equal(other));
  EXPECT_FALSE(one.is_equal(*std::pmr::new_delete_resource()));
}

TEST(MonotonicArena, WhatTheSystemCannotGiveIsBadAllocAndTheBlockStaysInUse) {
  MonotonicArena arena(4096);
  auto* const first = static_cast<char*>(arena.allocate(8, 8));
  EXPECT_THROW((void)arena.allocate(std::size_t{1} << 62, 8), std::bad_alloc);
  EXPECT_EQ(arena.allocate(8, 8), first + 8);
  EXPECT_EQ(arena.block_count(), 1u);
}

TEST(MonotonicArena, SizesThatOverflowAreBadAlloc) {
  constexpr std::size_t kMax = std::numeric_limits<std::size_t>::max();
  MonotonicArena arena(256);
  for (const std::size_t bytes : {kMax, kMax - 6, kMax - 7, kMax - 15, kMax - 30})
    EXPECT_THROW((void)arena.allocate(bytes, 8), std::bad_alloc) << bytes;
  EXPECT_THROW(MonotonicArena{kMax}, std::bad_alloc);
  EXPECT_EQ(arena.block_count(), 1u);
}

TEST(ArenaScope, InstallsAnArenaAndPutsThePreviousOneBack) {
  EXPECT_EQ(current_arena, nullptr);
  MonotonicArena outer(256);
  MonotonicArena inner(256);
  {
    const ArenaScope outer_scope(&outer);
    EXPECT_EQ(current_arena, &outer);
    {
      const ArenaScope inner_scope(&inner);
      EXPECT_EQ(current_arena, &inner);
      const ArenaScope none(nullptr);
      EXPECT_EQ(current_arena, nullptr);
    }
    EXPECT_EQ(current_arena, &outer);
  }
  EXPECT_EQ(current_arena, nullptr);
}

TEST(ArenaScope, IsSeenByItsOwnThreadOnly) {
  MonotonicArena arena(256);
  const ArenaScope scope(&arena);
  MonotonicArena* seen = &arena;
  std::thread([&seen] { seen = current_arena; }).join();
  EXPECT_EQ(seen, nullptr);
}

}  // namespace
}  // namespace yajson
