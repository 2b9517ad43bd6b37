#include "json/JsonValue.h"

#include <gtest/gtest.h>

#include "json/JsonParser.h"
#include "json/JsonSerializer.h"

namespace yajson {
namespace {

TEST(JsonValue, KeepsWhatWasParsedInOrder) {
  const std::string_view text =
      R"({"b":[1,-2.5,"x",null,true],"a":{"long key of an object":"a text that is long"}})";
  EXPECT_EQ(serialize(parse(text)), text);
  MonotonicArena arena(8192);
  const ArenaScope scope(&arena);
  EXPECT_EQ(serialize(parse(text)), text);
  EXPECT_EQ(serialize(parse(text).copy()), text);
}

TEST(JsonValue, FindsMembersBeforeAndAfterThe16thBroughtTheIndex) {
  JsonValue object = JsonValue::object();
  for (int i = 0; i < 40; ++i) {
    object.set("key" + std::to_string(i), JsonValue(i));
    EXPECT_EQ(object.as_object().has_index(), i >= 15) << i;
    for (int j = 0; j <= i; ++j) EXPECT_EQ(object.find("key" + std::to_string(j))->as_int(), j);
    EXPECT_EQ(object.find("key"), nullptr);
  }
}

}  // namespace
}  // namespace yajson
