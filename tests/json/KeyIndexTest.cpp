#include "json/KeyIndex.h"

#include <gtest/gtest.h>

#include "json/JsonValue.h"

namespace yajson {
namespace {

struct HashRow {
  const char* key;
  std::uint64_t hash;
};

// Worked out apart from this code, with integers of any size. Every length class of the hash.
constexpr HashRow kHashes[] = {
    {"", 0x57e847f7c8430bbf},
    {"a", 0xcb7054bd832e3c69},
    {"id", 0xa474d1e285a779eb},
    {"mac", 0x937ce55fac0e95c6},
    {"band", 0x73ac707d66c9d7bd},
    {"channel", 0x20096961b687b65d},
    {"ap-count", 0xec0a0ea5d881b845},
    {"primary-channel", 0x2854ceb1feb2a677},
    {"0123456789abcdef", 0xc771fbce7223fe49},
    {"0123456789abcdefg", 0x9da3dcaabadf703c},
    {"available-channels", 0x3bf01ed1d8903f69},
    {"0123456789abcdef0123456789abcdef", 0xb91d69b01854d91a},
    {"a key of some forty-one bytes, no less !!", 0x5ae6e15881a3e54e},
};

TEST(KeyHash, IsTheSameForEverOnEveryMachine) {
  for (const auto& [key, hash] : kHashes) EXPECT_EQ(hash_key(key), hash) << key;
}

TEST(KeyHash, SeesNulAndHighBytes) {
  EXPECT_NE(hash_key(std::string_view("\0", 1)), hash_key(""));
  EXPECT_NE(hash_key(std::string_view("a\0b", 3)), hash_key("ab"));
  EXPECT_NE(hash_key("\xff"), hash_key("\x7f"));
}

std::vector<JsonMember> members_named(const std::vector<std::string>& keys) {
  std::vector<JsonMember> members(keys.size());
  for (std::size_t i = 0; i < keys.size(); ++i) members[i].name = JsonValue(keys[i]);
  return members;
}

std::vector<std::string> numbered_keys(std::size_t count) {
  std::vector<std::string> keys;
  for (std::size_t i = 0; i < count; ++i) keys.push_back("key number " + std::to_string(i));
  return keys;
}

TEST(KeyIndex, FindsEveryKeyAndNoOther) {
  const auto members = members_named(numbered_keys(1000));
  KeyIndex index(std::pmr::new_delete_resource());
  index.rebuild(members.data(), members.size());
  EXPECT_EQ(index.size(), 1000u);
  for (std::uint32_t i = 0; i < 1000; ++i)
    EXPECT_EQ(index.find(members.data(), members[i].key()), i);
  for (const char* key : {"", "key number", "key number 1000", "key number 01"})
    EXPECT_EQ(index.find(members.data(), key), KeyIndex::kNone) << key;
}

TEST(KeyIndex, NeverHoldsMoreKeysThanBuckets) {
  const auto members = members_named(numbered_keys(300));
  KeyIndex index(std::pmr::new_delete_resource());
  for (std::uint32_t i = 0; i < 300; ++i) {
    if (i == 0)
      index.rebuild(members.data(), 1);
    else
      index.insert(members.data(), i);
    EXPECT_LE(index.size(), index.bucket_count());
    EXPECT_EQ(index.find(members.data(), members[i].key()), i);
    EXPECT_EQ(index.find(members.data(), members[0].key()), 0u);
  }
}

TEST(KeyIndex, OfEqualKeysTheLastStays) {
  const auto members = members_named({"a", "b", "a", "c", "b", "a"});
  KeyIndex index(std::pmr::new_delete_resource());
  index.rebuild(members.data(), members.size());
  EXPECT_EQ(index.size(), 3u);
  EXPECT_EQ(index.find(members.data(), "a"), 5u);
  EXPECT_EQ(index.find(members.data(), "b"), 4u);
  EXPECT_EQ(index.find(members.data(), "c"), 3u);
}

/// Different keys of 32 bytes with the same hash: the second word of the first step undoes what the
/// first word did, so all arrive at the same state.
std::vector<std::string> colliding_keys(std::size_t count) {
  constexpr std::uint64_t kP0 = 0xa0761d6478bd642f;
  constexpr std::uint64_t kP1 = 0xe7037ed1a0b428db;
  const std::uint64_t start = 32 * kP1 ^ kP0;
  std::vector<std::string> keys;
  for (std::uint64_t first = 0; first < count; ++first) {
    const std::uint64_t second = (start ^ first) * kP1;
    std::string key(32, 'x');
    std::memcpy(key.data(), &first, 8);
    std::memcpy(key.data() + 8, &second, 8);
    keys.push_back(key);
  }
  return keys;
}

TEST(KeyIndex, KeysMadeToCollideAreFoundLikeAnyOther) {
  constexpr std::size_t kCount = 20000;
  auto keys = colliding_keys(kCount);
  ASSERT_EQ(hash_key(keys[0]), hash_key(keys[kCount - 1]));
  keys.push_back(keys[7]);
  const auto members = members_named(keys);
  KeyIndex index(std::pmr::new_delete_resource());
  index.rebuild(members.data(), members.size());
  EXPECT_EQ(index.size(), kCount);
  EXPECT_EQ(index.find(members.data(), keys[7]), kCount);
  for (std::uint32_t i = 8; i < kCount; i += 97) EXPECT_EQ(index.find(members.data(), keys[i]), i);
}

TEST(KeyIndex, KeysMadeToCollideCanBeInsertedOneByOne) {
  const auto members = members_named(colliding_keys(500));
  KeyIndex index(std::pmr::new_delete_resource());
  index.rebuild(members.data(), 1);
  for (std::uint32_t i = 1; i < 500; ++i) {
    index.insert(members.data(), i);
    for (std::uint32_t j = 0; j <= i; j += 13)
      EXPECT_EQ(index.find(members.data(), members[j].key()), j);
  }
  EXPECT_EQ(index.size(), 500u);
}

}  // namespace
}  // namespace yajson
