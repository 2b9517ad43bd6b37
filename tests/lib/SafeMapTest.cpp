#include "server/lib/SafeMap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

namespace rrm {
namespace {

using Map = SafeUnorderedMap<std::string, int>;

TEST(SafeMap, FindsWhatWasInserted) {
  Map map;
  EXPECT_TRUE(map.insert("a", std::make_shared<int>(1)));
  ASSERT_NE(map.find("a"), nullptr);
  EXPECT_EQ(*map.find("a"), 1);
  EXPECT_EQ(map.find("b"), nullptr);
  EXPECT_EQ(map.size(), 1U);
}

TEST(SafeMap, InsertKeepsAnExistingEntry) {
  Map map;
  map.insert("a", std::make_shared<int>(1));
  EXPECT_FALSE(map.insert("a", std::make_shared<int>(2)));
  EXPECT_EQ(*map.find("a"), 1);
}

TEST(SafeMap, EraseSaysWhetherThereWasAnEntry) {
  Map map;
  map.insert("a", std::make_shared<int>(1));
  EXPECT_TRUE(map.erase("a"));
  EXPECT_FALSE(map.erase("a"));
  EXPECT_EQ(map.size(), 0U);
}

TEST(SafeMap, ForEachVisitsEveryPair) {
  Map map;
  map.insert("a", std::make_shared<int>(1));
  map.insert("b", std::make_shared<int>(2));
  std::vector<std::string> seen;
  map.for_each([&](const std::string& key, const std::shared_ptr<int>& value) {
    seen.push_back(key + std::to_string(*value));
  });
  std::sort(seen.begin(), seen.end());
  EXPECT_EQ(seen, (std::vector<std::string>{"a1", "b2"}));
}

TEST(SafeMap, AnErasedEntryLivesOnInTheCopiesOfItsPointer) {
  Map map;
  map.insert("a", std::make_shared<int>(1));
  const auto copy = map.find("a");
  map.clear();
  EXPECT_EQ(*copy, 1);
  EXPECT_EQ(copy.use_count(), 1);
}

TEST(SafeMap, DestroyingAMapThatStillHoldsEntriesReleasesEveryOne) {
  const auto value = std::make_shared<int>(1);
  {
    Map map;
    map.insert("a", value);
    map.insert("b", value);
    EXPECT_EQ(value.use_count(), 3);
  }
  EXPECT_EQ(value.use_count(), 1);
}

TEST(SafeMap, OnlyItsDestructorIsVirtual) {
  EXPECT_TRUE(
      (std::has_virtual_destructor_v<
          SafeMapBase<std::string, int, std::unordered_map<std::string, std::shared_ptr<int>>>>));
}

TEST(SafeMap, CompoundStepsUnderItsMutexInsertOnce) {
  Map map;
  std::atomic<int> inserted{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 500; ++i) {
        const std::lock_guard lock(map.mutex());
        const auto [place, fresh] = map.map().try_emplace(std::to_string(i));
        if (!fresh) continue;
        place->second = std::make_shared<int>(t);
        ++inserted;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(inserted, 500);
  EXPECT_EQ(map.size(), 500U);
}

}  // namespace
}  // namespace rrm
