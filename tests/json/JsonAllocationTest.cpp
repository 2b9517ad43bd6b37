// What a parse allocates: this program counts every call of the global operator new.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <new>

#include "json/JsonParser.h"

namespace {

std::size_t heap_allocations = 0;

void* counted(std::size_t bytes, std::size_t align = sizeof(void*)) {
  ++heap_allocations;
  void* memory = nullptr;
  if (::posix_memalign(&memory, std::max(align, sizeof(void*)), bytes) != 0) memory = nullptr;
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

}  // namespace

// The compiler inlines one half of a pair and then misses the other.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

void* operator new(std::size_t bytes) { return counted(bytes); }
void* operator new[](std::size_t bytes) { return counted(bytes); }
void* operator new(std::size_t bytes, std::align_val_t align) {
  return counted(bytes, static_cast<std::size_t>(align));
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete(void* memory, std::align_val_t) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept { std::free(memory); }

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

TEST(JsonAllocation, AParseOntoTheHeapAllocatesPerBodyAndLongString) {
  const std::size_t before = heap_allocations;
  const JsonValue value = parse(R"(["short",["0123456789abcde"],"0123456789abcdef"])");
  // Two bodies, two vectors, one string object with its bytes.
  EXPECT_EQ(heap_allocations - before, 6u);
}

}  // namespace
}  // namespace yajson
