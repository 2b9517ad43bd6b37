#include "json/JsonValue.h"

#include <gtest/gtest.h>

#include <limits>

#include "json/JsonParser.h"
#include "json/JsonSerializer.h"
#include "tests/support/Refusal.h"

namespace yajson {
namespace {

using test::refusal;

constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
constexpr std::uint64_t kTwoTo63 = std::uint64_t{1} << 63;

/// Whether the bytes of a string lie in the value itself.
bool is_inline(const JsonValue& value) {
  const auto* const begin = reinterpret_cast<const char*>(&value);
  const char* const bytes = value.as_string().data();
  return bytes >= begin && bytes < begin + sizeof value;
}

struct KindRow {
  std::uint8_t number;
  JsonKind kind;
  const char* name;
};

constexpr KindRow kKinds[] = {
    {0, JsonKind::null, "null"},       {1, JsonKind::boolean, "bool"},
    {2, JsonKind::integer, "integer"}, {3, JsonKind::number, "float"},
    {4, JsonKind::string, "string"},   {5, JsonKind::array, "array"},
    {6, JsonKind::object, "object"},   {7, JsonKind::uinteger, "uinteger"},
};

TEST(JsonKind, NumbersAndNamesAreFixed) {
  for (const auto& [number, kind, name] : kKinds) {
    EXPECT_EQ(static_cast<std::uint8_t>(kind), number);
    EXPECT_EQ(kind_name(kind), name);
  }
  EXPECT_EQ(kind_name(static_cast<JsonKind>(8)), "unknown");
  EXPECT_EQ(kind_name(static_cast<JsonKind>(255)), "unknown");
}

TEST(JsonValue, IsThreeMachineWords) { EXPECT_EQ(sizeof(JsonValue), 3 * sizeof(void*)); }

TEST(JsonValue, EveryWayToMakeOneGivesItsKind) {
  EXPECT_EQ(JsonValue().kind(), JsonKind::null);
  EXPECT_EQ(JsonValue(nullptr).kind(), JsonKind::null);
  EXPECT_EQ(JsonValue(true).kind(), JsonKind::boolean);
  EXPECT_EQ(JsonValue(1).kind(), JsonKind::integer);
  EXPECT_EQ(JsonValue(std::int64_t{1}).kind(), JsonKind::integer);
  EXPECT_EQ(JsonValue(1u).kind(), JsonKind::uinteger);
  EXPECT_EQ(JsonValue(std::uint64_t{1}).kind(), JsonKind::uinteger);
  EXPECT_EQ(JsonValue(1.0).kind(), JsonKind::number);
  EXPECT_EQ(JsonValue("x").kind(), JsonKind::string);
  EXPECT_EQ(JsonValue(std::string("x")).kind(), JsonKind::string);
  EXPECT_EQ(JsonValue::array().kind(), JsonKind::array);
  EXPECT_EQ(JsonValue::object().kind(), JsonKind::object);
}

TEST(JsonValue, GivesBackWhatItWasMadeOf) {
  EXPECT_TRUE(JsonValue(true).as_bool());
  EXPECT_FALSE(JsonValue(false).as_bool());
  EXPECT_EQ(JsonValue(kMin).as_int(), kMin);
  EXPECT_EQ(JsonValue(kMax).as_int(), kMax);
  EXPECT_EQ(JsonValue(kTwoTo63 - 1).as_int(), kMax);
  EXPECT_EQ(JsonValue(kMax).as_uint(), kTwoTo63 - 1);
  EXPECT_EQ(JsonValue(kTwoTo63).as_uint(), kTwoTo63);
  EXPECT_EQ(JsonValue(-2.5).as_number(), -2.5);
  EXPECT_EQ(JsonValue("text").as_string(), "text");
}

TEST(JsonValue, AsIntOfUinteger2To63IsRefused) {
  EXPECT_EQ(refusal([] { JsonValue(kTwoTo63).as_int(); }),
            "expected integer, got uinteger: type mismatch");
}

TEST(JsonValue, AsUintOfMinus1IsRefused) {
  EXPECT_EQ(refusal([] { JsonValue(-1).as_uint(); }),
            "expected uinteger, got integer: type mismatch");
}

TEST(JsonValue, AsNumberConvertsIntegersAndRefusesStrings) {
  EXPECT_EQ(JsonValue(3).as_number(), 3.0);
  EXPECT_EQ(JsonValue(kTwoTo63).as_number(), 9223372036854775808.0);
  EXPECT_EQ(refusal([] { JsonValue("3").as_number(); }),
            "expected number, got string: type mismatch");
}

TEST(JsonValue, EveryAccessorNamesWhatItWantsAndWhatItGot) {
  JsonValue object = JsonValue::object();
  const JsonValue& constant = object;
  EXPECT_EQ(refusal([&] { object.as_bool(); }), "expected bool, got object: type mismatch");
  EXPECT_EQ(refusal([&] { object.as_int(); }), "expected integer, got object: type mismatch");
  EXPECT_EQ(refusal([&] { object.as_uint(); }), "expected uinteger, got object: type mismatch");
  EXPECT_EQ(refusal([&] { object.as_number(); }), "expected number, got object: type mismatch");
  EXPECT_EQ(refusal([&] { object.as_string(); }), "expected string, got object: type mismatch");
  EXPECT_EQ(refusal([&] { object.as_array(); }), "expected array, got object: type mismatch");
  EXPECT_EQ(refusal([&] { constant.as_array(); }), "expected array, got object: type mismatch");
  EXPECT_EQ(refusal([&] { object.at(0); }), "expected array, got object: type mismatch");
  EXPECT_EQ(refusal([&] { object.push_back(1); }), "expected array, got object: type mismatch");
  JsonValue null;
  EXPECT_EQ(refusal([&] { null.as_object(); }), "expected object, got null: type mismatch");
  EXPECT_EQ(refusal([&] { std::as_const(null).as_object(); }),
            "expected object, got null: type mismatch");
  EXPECT_EQ(refusal([&] { null.set("a", 1); }), "expected object, got null: type mismatch");
  EXPECT_EQ(refusal([&] { JsonValue(1.5).as_int(); }),
            "expected integer, got float: type mismatch");
  EXPECT_EQ(refusal([&] { JsonValue(1).as_bool(); }), "expected bool, got integer: type mismatch");
}

TEST(JsonValue, At3OfThreeElementsIsOutOfRange) {
  JsonValue array = JsonValue::array();
  for (int i = 0; i < 3; ++i) array.push_back(i);
  EXPECT_EQ(array.at(2).as_int(), 2);
  EXPECT_EQ(refusal([&] { array.at(3); }),
            "array index 3 out of range (size=3): index out of range");
}

TEST(JsonValue, StringOf15BytesIsInlineAnd16GoOutOfLine) {
  const std::string bytes = "0123456789abcdefghijklmnopqrstuvwxyz";
  MonotonicArena arena(4096);
  for (MonotonicArena* const current : {static_cast<MonotonicArena*>(nullptr), &arena}) {
    const ArenaScope scope(current);
    for (std::size_t length = 0; length <= bytes.size(); ++length) {
      const JsonValue value(std::string_view(bytes).substr(0, length));
      EXPECT_EQ(value.as_string(), bytes.substr(0, length));
      EXPECT_EQ(value.as_string().data()[length], '\0');
      EXPECT_EQ(is_inline(value), length <= 15) << length;
      EXPECT_EQ(value.is_out_of_line(), length > 15) << length;
      EXPECT_EQ(value.is_in_arena(), length > 15 && current != nullptr) << length;
    }
  }
}

TEST(JsonValue, StringOf16BytesTakes17BytesOfTheArenaAndOneOf15None) {
  MonotonicArena arena(4096);
  const ArenaScope scope(&arena);
  auto* const before = static_cast<char*>(arena.allocate(1, 1));
  const JsonValue inline_string("0123456789abcde");
  EXPECT_EQ(arena.allocate(1, 1), before + 1);
  const JsonValue arena_string("0123456789abcdef");
  EXPECT_EQ(arena_string.as_string().data(), before + 2);
  EXPECT_EQ(arena.allocate(1, 1), before + 2 + 17);
}

TEST(JsonValue, StringsMayHoldNulBytes) {
  const std::string_view bytes("a\0b\0", 4);
  EXPECT_EQ(JsonValue(bytes).as_string(), bytes);
  const std::string long_bytes = std::string(bytes) + std::string(20, '\0');
  EXPECT_EQ(JsonValue(long_bytes).as_string(), long_bytes);
}

TEST(JsonValue, BodiesLieInTheCurrentArenaOrOnTheHeap) {
  EXPECT_FALSE(JsonValue::array().is_in_arena());
  EXPECT_FALSE(JsonValue::object().is_in_arena());
  MonotonicArena arena(4096);
  const ArenaScope scope(&arena);
  EXPECT_TRUE(JsonValue::array().is_in_arena());
  EXPECT_TRUE(JsonValue::object().is_in_arena());
}

TEST(JsonValue, HeapValuesInAnArenaBodyAreFreedWithIt) {
  // The leak checker of the sanitized build is the judge of this one.
  MonotonicArena arena(256);
  JsonValue array;
  {
    const ArenaScope scope(&arena);
    array = JsonValue::array();
  }
  array.push_back(JsonValue("a string that lies on the heap"));
  array.push_back(JsonValue::object()).set("a key that is rather long", JsonValue::array());
  EXPECT_FALSE(array.at(0).is_in_arena());
  EXPECT_EQ(array.elements().size(), 2u);
}

TEST(JsonValue, KeysGoWhereTheBodyIs) {
  MonotonicArena arena(4096);
  JsonValue object;
  {
    const ArenaScope scope(&arena);
    object = JsonValue::object();
  }
  object.set("a key of more than fifteen bytes", 1);
  EXPECT_TRUE(object.members()[0].name.is_in_arena());
  JsonValue on_heap = JsonValue::object();
  const ArenaScope scope(&arena);
  on_heap.set("a key of more than fifteen bytes", 1);
  EXPECT_FALSE(on_heap.members()[0].name.is_in_arena());
}

TEST(JsonValue, MovingLeavesNullBehind) {
  JsonValue array = JsonValue::array();
  array.push_back("a text of more than fifteen bytes");
  JsonValue moved(std::move(array));
  EXPECT_TRUE(array.is_null());
  EXPECT_EQ(moved.at(0).as_string(), "a text of more than fifteen bytes");
  JsonValue assigned(5);
  assigned = std::move(moved);
  EXPECT_TRUE(moved.is_null());
  EXPECT_EQ(assigned.elements().size(), 1u);
}

TEST(JsonValue, MayBeReplacedByItsOwnChild) {
  JsonValue value = JsonValue::array();
  value.push_back(JsonValue::array()).push_back("the innermost of three values");
  value = std::move(value.at(0));
  EXPECT_EQ(value.at(0).as_string(), "the innermost of three values");
  value = std::move(value.at(0));
  EXPECT_EQ(value.as_string(), "the innermost of three values");
}

TEST(JsonValue, SetKeepsThePositionOfAKeyThatExists) {
  JsonValue object = JsonValue::object();
  object.set("b", 1);
  object.set("a", 2);
  object.set("c", 3);
  object.set("a", "new");
  EXPECT_EQ(serialize(object), R"({"b":1,"a":"new","c":3})");
  EXPECT_EQ(&object.set("c", 4), object.find("c"));
}

TEST(JsonValue, PushBackMayTakeAnElementOfTheSameArray) {
  JsonValue array = JsonValue::array();
  for (int i = 0; i < 100; ++i) array.push_back(i);
  for (std::size_t i = 0; i < 100; ++i) array.push_back(std::move(array.at(i)));
  EXPECT_TRUE(array.at(99).is_null());
  EXPECT_EQ(array.at(199).as_int(), 99);
}

TEST(JsonObject, UsesTheIndexFromThe16thMemberOnWithTheSameAnswers) {
  JsonValue object = JsonValue::object();
  for (int i = 0; i < 40; ++i) {
    object.set("key" + std::to_string(i), JsonValue(i));
    EXPECT_EQ(object.as_object().has_index(), i >= 15) << i;
    for (int j = 0; j <= i; ++j) EXPECT_EQ(object.find("key" + std::to_string(j))->as_int(), j);
    EXPECT_EQ(object.find("key"), nullptr);
    EXPECT_EQ(object.find("key" + std::to_string(i + 1)), nullptr);
  }
}

TEST(JsonObject, IndexFollowsReplacementsAndLongKeys) {
  MonotonicArena arena(0);
  for (MonotonicArena* const current : {static_cast<MonotonicArena*>(nullptr), &arena}) {
    const ArenaScope scope(current);
    JsonValue object = JsonValue::object();
    for (int round = 0; round < 2; ++round)
      for (int i = 0; i < 500; ++i)
        object.set("a key that does not fit inline: " + std::to_string(i), i + round);
    EXPECT_EQ(object.members().size(), 500u);
    for (int i = 0; i < 500; ++i)
      EXPECT_EQ(object.find("a key that does not fit inline: " + std::to_string(i))->as_int(),
                i + 1);
  }
}

TEST(JsonObject, KeysOfEqualLengthAndPrefixAreToldApart) {
  JsonValue object = JsonValue::object();
  object.set("abcdefgh", 1);
  object.set("abcdefgi", 2);
  object.set("abcdefg", 3);
  object.set(std::string_view("abcdefg\0", 8), 4);
  object.set("", 5);
  EXPECT_EQ(object.find("abcdefgh")->as_int(), 1);
  EXPECT_EQ(object.find("abcdefgi")->as_int(), 2);
  EXPECT_EQ(object.find("abcdefg")->as_int(), 3);
  EXPECT_EQ(object.find(std::string_view("abcdefg\0", 8))->as_int(), 4);
  EXPECT_EQ(object.find("")->as_int(), 5);
}

constexpr std::string_view kDocument =
    R"({"b":[1,-2.5,"x",null,true,18446744073709551615],"a":{"a long key of an object":"a text that is long"}})";

TEST(JsonValue, CopyIsDeepAndLiesInTheCurrentArena) {
  MonotonicArena target_arena(256);
  JsonValue copy;
  MonotonicArena source_arena(256);
  {
    const ArenaScope source(&source_arena);
    JsonValue document = parse(kDocument);
    const ArenaScope target(&target_arena);
    copy = document.copy();
    document.find("b")->push_back(1);
    EXPECT_TRUE(copy.find("a")->is_in_arena());
  }
  EXPECT_EQ(serialize(copy), kDocument);
  EXPECT_FALSE(copy.copy().is_in_arena());
  EXPECT_EQ(serialize(copy.copy()), kDocument);
}

TEST(JsonValue, CopyOfALargeObjectIsFoundByKeyToo) {
  JsonValue object = JsonValue::object();
  for (int i = 0; i < 100; ++i) object.set("key" + std::to_string(i), i);
  const JsonValue copy = object.copy();
  for (int i = 0; i < 100; ++i) EXPECT_EQ(copy.find("key" + std::to_string(i))->as_int(), i);
}

TEST(JsonValue, AbandonedValueIsNull) {
  MonotonicArena arena(256);
  const ArenaScope scope(&arena);
  JsonValue document = parse(kDocument);
  document.abandon();
  EXPECT_TRUE(document.is_null());
}

}  // namespace
}  // namespace yajson
