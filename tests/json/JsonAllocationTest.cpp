// What a parse allocates, and what is left when memory ends: this program counts every call of the
// global operator new and can make one fail.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <new>

#include "json/JsonParser.h"
#include "json/JsonSerializer.h"

namespace {

constexpr std::size_t kForEver = std::numeric_limits<std::size_t>::max();

std::size_t heap_allocations = 0;
std::size_t living_allocations = 0;
std::size_t allocations_left = kForEver;

void* counted(std::size_t bytes, std::size_t align = sizeof(void*)) {
  if (allocations_left == 0) throw std::bad_alloc();
  if (allocations_left != kForEver) --allocations_left;
  ++heap_allocations;
  void* memory = nullptr;
  if (::posix_memalign(&memory, std::max(align, sizeof(void*)), bytes) != 0) throw std::bad_alloc();
  ++living_allocations;
  return memory;
}

void give_back(void* memory) noexcept {
  if (memory != nullptr) --living_allocations;
  std::free(memory);
}

}  // namespace

// The compiler inlines one half of a pair and then misses the other.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

void* operator new(std::size_t bytes) { return counted(bytes); }
void* operator new[](std::size_t bytes) { return counted(bytes); }
void* operator new(std::size_t bytes, std::align_val_t align) {
  return counted(bytes, static_cast<std::size_t>(align));
}
void operator delete(void* memory) noexcept { give_back(memory); }
void operator delete[](void* memory) noexcept { give_back(memory); }
void operator delete(void* memory, std::size_t) noexcept { give_back(memory); }
void operator delete[](void* memory, std::size_t) noexcept { give_back(memory); }
void operator delete(void* memory, std::align_val_t) noexcept { give_back(memory); }
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept { give_back(memory); }

namespace yajson {
namespace {

/// A message with short and long strings, escapes, repeated keys and one object of many members.
std::string message(int heard) {
  std::string text =
      R"({"version":"2.4","cmd":"rrm-response","ap-mac":"00:11:22:33:44:55","cmd":"rrm-response","m":{)";
  for (int i = 0; i < 40; ++i) text += "\"member" + std::to_string(i % 30) + "\":\"a\\tb\",";
  text += R"("last":0},"rf-environment":[[)";
  for (int i = 0; i < heard; ++i)
    text += R"({"bssid":"00:11:22:33:44:66","channel":36,"available-channels":"36,40,44,48,52"},)";
  text.back() = ']';
  return text + "]}";
}

std::size_t heap_allocations_of_parse(const std::string& text, std::size_t& blocks) {
  ParseOptions options;
  options.allow_duplicate_keys = true;
  const std::size_t before = heap_allocations;
  {
    MonotonicArena arena(8192);
    const ArenaScope scope(&arena);
    const JsonValue value = parse(text, options);
    blocks = arena.block_count();
  }
  return heap_allocations - before;
}

TEST(JsonAllocation, AParseIntoAnArenaTakesItsBlocksAndNothingElse) {
  std::size_t blocks = 0;
  EXPECT_EQ(heap_allocations_of_parse(message(5), blocks), 0u);
  EXPECT_LE(blocks, 2u);
  EXPECT_EQ(heap_allocations_of_parse(message(1500), blocks), 0u);
  EXPECT_LE(blocks, 8u);
}

/// A subscription of three radios with 16 members each.
std::string subscription() {
  std::string text = R"({"version":"2.4","service":"rrm","cmd":"subscribe-request","radios":[)";
  for (int radio = 0; radio < 3; ++radio) {
    text += radio == 0 ? "{" : ",{";
    for (int i = 0; i < 15; ++i)
      text += "\"radio-option-" + std::to_string(i) + "\":" + std::to_string(radio + i) + ",";
    text += R"("vaps":[)";
    for (int vap = 0; vap < 2; ++vap)
      text += std::string(vap == 0 ? "" : ",") +
              R"({"id":0,"ssid":"guest","mac":"24:1F:A0:0B:98:30","use_802dot11k":1})";
    text += "]}";
  }
  return text + "]}";
}

TEST(JsonAllocation, ASubscriptionFitsTheFirstBlockWithItsIndexes) {
  std::size_t blocks = 0;
  EXPECT_EQ(heap_allocations_of_parse(subscription(), blocks), 0u);
  EXPECT_EQ(blocks, 1u);
}

TEST(JsonAllocation, AParseOntoTheHeapAllocatesPerBodyAndLongString) {
  const std::size_t before = heap_allocations;
  const JsonValue value = parse(R"(["short",["0123456789abcde"],"0123456789abcdef"])");
  // Two bodies, two vectors, one string object with its bytes.
  EXPECT_EQ(heap_allocations - before, 6u);
}

/// Parses with memory for that many allocations.
ParseResult parse_with(std::size_t allocations, const std::string& text,
                       const ParseOptions& options) {
  allocations_left = allocations;
  ParseResult result = try_parse(text, options);
  allocations_left = kForEver;
  return result;
}

/// A document with every way to allocate: bodies, long strings and keys, an index that grows.
std::string document() {
  std::string text = R"(["a\ttext of more than fifteen bytes",{)";
  for (int i = 0; i < 40; ++i)
    text += "\"a key that does not fit inline " + std::to_string(i) + "\":[{}],";
  return text + R"("last":0}])";
}

TEST(JsonAllocation, WhenMemoryEndsTryParseSaysUnexpectedCharacterAndLeavesNothingBehind) {
  const std::string text = document();
  for (const ParseOptions& options : {ParseOptions(), ParseOptions{.allow_duplicate_keys = true}}) {
    const std::size_t before = living_allocations;
    std::size_t failures = 0;
    for (; parse_with(failures, text, options).error; ++failures) {
      const ParseResult result = parse_with(failures, text, options);
      EXPECT_EQ(result.error, json_errc::unexpected_character);
      EXPECT_TRUE(result.value.is_null());
      ASSERT_EQ(living_allocations, before) << failures;
    }
    EXPECT_GT(failures, 200u);
    EXPECT_EQ(living_allocations, before);
  }
}

TEST(JsonAllocation, WhenMemoryEndsParseThrowsBadAlloc) {
  const std::string text = document();
  allocations_left = 3;
  EXPECT_THROW(parse(text), std::bad_alloc);
  allocations_left = kForEver;
}

/// Whether set() succeeds with memory for that many allocations.
bool set_with(std::size_t allocations, JsonValue& object, const std::string& key) {
  allocations_left = allocations;
  bool done = true;
  try {
    object.set(key, JsonValue(std::int64_t{1}));
  } catch (const std::bad_alloc&) {
    done = false;
  }
  allocations_left = kForEver;
  return done;
}

TEST(JsonAllocation, WhenMemoryEndsSetLeavesTheObjectAsItWas) {
  JsonValue object = JsonValue::object();
  std::size_t failures = 0;
  for (int i = 0; i < 100; ++i) {
    const std::string key = "a key that does not fit inline " + std::to_string(i);
    const std::string before = serialize(object);
    for (std::size_t left = 0; !set_with(left, object, key); ++left, ++failures) {
      ASSERT_EQ(serialize(object), before);
      ASSERT_EQ(object.find(key), nullptr);
    }
    ASSERT_NE(object.find(key), nullptr);
  }
  EXPECT_GT(failures, 200u);  // the two of each long key at the least
}

}  // namespace
}  // namespace yajson
