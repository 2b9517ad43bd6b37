#include "server/lib/MacMap.h"

#include <gtest/gtest.h>

#include <random>
#include <stdexcept>
#include <unordered_map>
#include <vector>

namespace rrm {
namespace {

const MacAddress kFirst = MacAddress::from_text("00:11:22:00:00:00");

MacAddress mac(std::uint32_t i) { return kFirst.plus(i); }

TEST(MacMap, StartsEmpty) {
  const MacMap<int> map;
  EXPECT_TRUE(map.empty());
  EXPECT_EQ(map.find(kFirst), map.end());
  EXPECT_FALSE(map.contains(kFirst));
  EXPECT_THROW(map.at(kFirst), std::out_of_range);
}

TEST(MacMap, NeverOverwritesWhatIsPresent) {
  MacMap<int> map;
  EXPECT_TRUE(map.try_emplace(mac(1), 10).second);
  const auto [entry, inserted] = map.try_emplace(mac(1), 20);
  EXPECT_FALSE(inserted);
  EXPECT_EQ(entry->second, 10);
  EXPECT_EQ(map.size(), 1u);
  EXPECT_EQ(map.count(mac(1)), 1u);
  EXPECT_EQ(map.count(mac(2)), 0u);
}

TEST(MacMap, IndexingInsertsAndChanges) {
  MacMap<int> map;
  map[mac(1)] = 7;
  map[mac(1)] += 1;
  EXPECT_EQ(map.at(mac(1)), 8);
  map.at(mac(1)) = 9;
  EXPECT_EQ(map[mac(1)], 9);
  EXPECT_EQ(map[mac(2)], 0);
  EXPECT_EQ(map.size(), 2u);
}

TEST(MacMap, KeepsTheOrderOfInsertion) {
  MacMap<int> map;
  for (const std::uint32_t i : {5u, 1u, 9u, 3u}) map.try_emplace(mac(i), static_cast<int>(i));
  std::vector<int> order;
  for (const auto& [key, value] : map) order.push_back(value);
  EXPECT_EQ(order, (std::vector<int>{5, 1, 9, 3}));
}

TEST(MacMap, IsMadeOfAListWhoseFirstEntryOfAKeyWins) {
  const MacMap<int> map = {{mac(1), 1}, {mac(2), 2}, {mac(1), 3}};
  EXPECT_EQ(map.size(), 2u);
  EXPECT_EQ(map.at(mac(1)), 1);
}

TEST(MacMap, CopiesAreTheirOwn) {
  MacMap<int> map = {{mac(1), 1}};
  const MacMap<int> copy = map;
  map[mac(1)] = 2;
  map[mac(2)] = 3;
  EXPECT_EQ(copy.at(mac(1)), 1);
  EXPECT_EQ(copy.size(), 1u);
}

TEST(MacMap, ClearForgetsEverySize) {
  for (const std::uint32_t size : {0u, 1u, 400u, 5000u}) {
    MacMap<int> map;
    for (std::uint32_t i = 0; i < size; ++i) map[mac(i)] = 1;
    map.clear();
    EXPECT_TRUE(map.empty());
    EXPECT_FALSE(map.contains(mac(0)));
    map[mac(7)] = 2;
    EXPECT_EQ(map.at(mac(7)), 2);
    EXPECT_EQ(map.size(), 1u);
  }
}

TEST(MacMap, ErasingPutsTheLastEntryIntoTheGap) {
  MacMap<int> map = {{mac(1), 1}, {mac(2), 2}, {mac(3), 3}, {mac(4), 4}};
  EXPECT_EQ(map.erase(mac(9)), 0u);
  EXPECT_EQ(map.erase(mac(2)), 1u);
  EXPECT_EQ(map.erase(mac(2)), 0u);
  std::vector<int> order;
  for (const auto& [key, value] : map) order.push_back(value);
  EXPECT_EQ(order, (std::vector<int>{1, 4, 3}));
  EXPECT_EQ(map.at(mac(4)), 4);
  EXPECT_FALSE(map.contains(mac(2)));
  EXPECT_EQ(map.erase(mac(3)), 1u);  // the last one
  EXPECT_EQ(map.size(), 2u);
  EXPECT_EQ(MacMap<int>().erase(mac(1)), 0u);
}

TEST(MacMap, KeepsItsEntriesWhileARushOfOthersGoes) {
  MacMap<std::uint32_t> map;
  for (std::uint32_t i = 0; i < 5000; ++i) map[mac(i)] = i;
  for (std::uint32_t i = 5000; i-- > 3;) {
    ASSERT_EQ(map.erase(mac(i)), 1u);
    ASSERT_EQ(map.at(mac(i / 2)), i / 2);
  }
  EXPECT_EQ(map.size(), 3u);
  EXPECT_FALSE(map.contains(mac(3)));
  map[mac(4000)] = 1;
  EXPECT_EQ(map.at(mac(2)), 2u);
  EXPECT_EQ(map.at(mac(4000)), 1u);
}

TEST(MacMap, HoldsWhatAnUnorderedMapHoldsWhileEntriesComeAndGo) {
  std::mt19937 random(2);
  MacMap<std::uint32_t> map;
  std::unordered_map<MacAddress, std::uint32_t> expected;
  for (int i = 0; i < 50000; ++i) {
    const MacAddress key = mac(static_cast<std::uint32_t>(random() % 300));
    if (random() % 2 == 0) {
      const auto value = static_cast<std::uint32_t>(random());
      EXPECT_EQ(map.try_emplace(key, value).second, expected.try_emplace(key, value).second);
    } else {
      EXPECT_EQ(map.erase(key), expected.erase(key));
    }
  }
  ASSERT_EQ(map.size(), expected.size());
  for (std::uint32_t i = 0; i < 300; ++i) {
    const auto found = expected.find(mac(i));
    ASSERT_EQ(map.contains(mac(i)), found != expected.end());
    if (found != expected.end()) {
      EXPECT_EQ(map.at(mac(i)), found->second);
    }
  }
}

TEST(MacMap, HoldsWhatAnUnorderedMapHolds) {
  std::mt19937 random(1);
  for (int round = 0; round < 20; ++round) {
    MacMap<std::uint32_t> map;
    std::unordered_map<MacAddress, std::uint32_t> expected;
    for (int i = 0; i < 2000; ++i) {
      MacAddress key = mac(static_cast<std::uint32_t>(random() % 1500));
      if (random() % 4 == 0) key = key.twin();
      const auto value = static_cast<std::uint32_t>(random());
      EXPECT_EQ(map.try_emplace(key, value).second, expected.try_emplace(key, value).second);
    }
    ASSERT_EQ(map.size(), expected.size());
    for (const auto& [key, value] : expected) EXPECT_EQ(map.at(key), value);
    for (std::uint32_t i = 1500; i < 1600; ++i) EXPECT_FALSE(map.contains(mac(i)));
  }
}

}  // namespace
}  // namespace rrm
