#include "server/lib/JsonWriter.h"

#include <gtest/gtest.h>

#include "json/JsonParser.h"
#include "tests/support/Refusal.h"

namespace rrm {
namespace {

using yajson::test::refusal;

TEST(JsonWriter, WithoutAServiceIsAnObjectWithAtMostTheVersion) {
  EXPECT_STREQ(JsonWriter().c_str(), "{}");
  EXPECT_STREQ(JsonWriter("").c_str(), "{}");
  EXPECT_STREQ(JsonWriter("2.1").c_str(), R"({"version":"2.1"})");
}

TEST(JsonWriter, EnvelopeHasTheDefaultVersionSecondAndAnExplicitOneFirst) {
  EXPECT_STREQ(JsonWriter("rrm", "rrm-config-changed").c_str(),
               R"({"service":"rrm","version":"2.4","cmd":"rrm-config-changed"})");
  EXPECT_STREQ(JsonWriter("rrm", "rrm-config-changed", "2.1").c_str(),
               R"({"version":"2.1","service":"rrm","cmd":"rrm-config-changed"})");
}

TEST(JsonWriter, EnvelopeLeavesEmptyPartsOut) {
  EXPECT_STREQ(JsonWriter("", "x").c_str(), R"({"cmd":"x"})");
  EXPECT_STREQ(JsonWriter(nullptr, nullptr).c_str(), "{}");
  EXPECT_STREQ(JsonWriter("rrm", "").c_str(), R"({"service":"rrm","version":"2.4"})");
  EXPECT_STREQ(JsonWriter("rrm", "x", "").c_str(),
               R"({"service":"rrm","version":"2.4","cmd":"x"})");
  EXPECT_STREQ(JsonWriter("ping", "x").c_str(), R"({"service":"ping","cmd":"x"})");
  EXPECT_STREQ(JsonWriter("", "", "2.0").c_str(), R"({"version":"2.0"})");
}

TEST(JsonWriter, AddsEveryTypeWithBooleansAsNumbers) {
  JsonWriter writer;
  writer.add("i", -5);
  writer.add("u", 4000000000u);
  writer.add("l", std::int64_t{-5000000000});
  writer.add("z", std::size_t{7});
  writer.add("t", true);
  writer.add("f", false);
  writer.add("o", std::optional<std::int32_t>(3));
  writer.add("none", std::optional<std::int32_t>());
  writer.add("c", "text");
  writer.add("s", std::string("string"));
  writer.add("v", std::string_view("view"));
  EXPECT_STREQ(writer.c_str(),
               R"({"i":-5,"u":4000000000,"l":-5000000000,"z":7,"t":1,"f":0,"o":3,"c":"text",)"
               R"("s":"string","v":"view"})");
}

TEST(JsonWriter, ANullTextIsTheEmptyString) {
  JsonWriter writer;
  writer.add("a", static_cast<const char*>(nullptr));
  EXPECT_STREQ(writer.c_str(), R"({"a":""})");
}

TEST(JsonWriter, AddReplacesAMemberInPlace) {
  JsonWriter writer;
  writer.add("a", 1);
  writer.add("b", 2);
  writer.add("a", "x");
  EXPECT_STREQ(writer.c_str(), R"({"a":"x","b":2})");
}

TEST(JsonWriter, ArrayChildUnderListTakesThreeInts) {
  JsonWriter writer;
  auto list = JsonWriter::array(writer, "list");
  for (int i = 1; i <= 3; ++i) list.add("ignored", i);
  EXPECT_STREQ(writer.c_str(), R"({"list":[1,2,3]})");
  EXPECT_STREQ(list.c_str(), "[1,2,3]");
}

TEST(JsonWriter, ChildrenNestInBothWaysAndSurviveChangesOfTheParent) {
  JsonWriter writer;
  auto list = JsonWriter::array(writer, "list");
  auto first = JsonWriter::object(list, "ignored");
  auto second = JsonWriter::array(list);
  for (int i = 0; i < 40; ++i) {  // makes the parent's bodies move
    writer.add("member" + std::to_string(i), i);
    list.add({}, i);
  }
  first.add("a", 1);
  second.add({}, "x");
  auto deepest = JsonWriter::object(second);
  deepest.add("b", 2);
  EXPECT_EQ(first.str(), R"({"a":1})");
  EXPECT_EQ(second.str(), R"(["x",{"b":2}])");
  EXPECT_EQ(list.str().substr(0, 32), R"([{"a":1},["x",{"b":2}],0,1,2,3,4)");
}

TEST(JsonWriter, AChildReplacesWhatWasUnderItsKey) {
  JsonWriter writer;
  writer.add("a", 1);
  writer.add("b", 2);
  { auto child = JsonWriter::object(writer, "a"); }
  EXPECT_STREQ(writer.c_str(), R"({"a":{},"b":2})");
}

TEST(JsonWriter, WhatAChildWroteStaysWhenItGoes) {
  JsonWriter writer;
  {
    auto child = JsonWriter::object(writer, "o");
    auto grandchild = JsonWriter::array(child, "a");
    grandchild.add({}, 1);
  }
  EXPECT_STREQ(writer.c_str(), R"({"o":{"a":[1]}})");
}

TEST(JsonWriter, TheWrongKindRaisesTypeError) {
  JsonWriter writer;
  auto list = JsonWriter::array(writer, "list");
  auto object = JsonWriter::object(writer, "object");
  writer.add("list", 5);
  EXPECT_EQ(refusal([&] { list.add({}, 1); }), "expected array, got integer: type mismatch");
  writer.add("object", "x");
  EXPECT_EQ(refusal([&] { object.add("a", 1); }), "expected object, got string: type mismatch");
}

TEST(JsonWriter, AnArraySlotThatIsGoneRaisesOutOfRangeError) {
  JsonWriter writer;
  auto list = JsonWriter::array(writer, "list");
  auto element = JsonWriter::object(list);
  const auto again = JsonWriter::array(writer, "list");
  EXPECT_EQ(refusal([&] { element.add("a", 1); }),
            "array index 0 out of range (size=0): index out of range");
}

TEST(JsonWriterDeathTest, AMemberSlotThatIsGoneStopsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  constexpr auto kAssertion =
      "server/lib/JsonWriter:18: .*found != nullptr && \"JsonWriter child slot must exist "
      "\\(see nested ctor\\)\"";
  JsonWriter writer;
  auto object = JsonWriter::object(writer, "object");
  auto child = JsonWriter::object(object, "child");
  { auto again = JsonWriter::object(writer, "object"); }
  EXPECT_DEATH(child.add("a", 1), kAssertion);
  writer.add("object", 5);
  EXPECT_DEATH(child.add("a", 1), kAssertion);
}

TEST(JsonWriter, AddsDeepCopiesOfValues) {
  JsonWriter writer;
  {
    yajson::MonotonicArena arena(256);
    const yajson::ArenaScope scope(&arena);
    const yajson::JsonValue value = yajson::parse(R"({"a":["a text of more than fifteen bytes"]})");
    const yajson::ArenaScope heap(nullptr);
    writer.add("copy", value);
  }
  EXPECT_STREQ(writer.c_str(), R"({"copy":{"a":["a text of more than fifteen bytes"]}})");
}

TEST(JsonWriter, EachTextIsMadeAnew) {
  JsonWriter writer;
  EXPECT_STREQ(writer.c_str(), "{}");
  EXPECT_STREQ(writer.pretty_str(), "{}");
  writer.add("a", 1);
  const char* const compact = writer.c_str();
  EXPECT_STREQ(writer.pretty_str(), "{\n    \"a\": 1\n}");
  EXPECT_STREQ(compact, R"({"a":1})");
}

TEST(JsonWriter, IsEmptyOnlyAsARootWhoseRootIsNull) {
  JsonWriter writer;
  EXPECT_FALSE(writer.is_empty());
  auto child = JsonWriter::object(writer, "a");
  EXPECT_FALSE(child.is_empty());
  writer.resolve() = yajson::JsonValue();
  EXPECT_TRUE(writer.is_empty());
}

TEST(JsonWriter, BuildsInTheCurrentArenaAndOwnsNone) {
  EXPECT_FALSE(JsonWriter("2.1").resolve().is_in_arena());
  yajson::MonotonicArena arena(256);
  const yajson::ArenaScope scope(&arena);
  const JsonWriter writer("2.1");
  EXPECT_TRUE(writer.resolve().is_in_arena());
  EXPECT_EQ(yajson::current_arena, &arena);
}

}  // namespace
}  // namespace rrm
