#include "server/lib/JsonReader.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

#include "json/JsonSerializer.h"

namespace rrm {
namespace {

void expect_empty(const JsonReader& reader) {
  EXPECT_TRUE(reader.is_null());
  EXPECT_EQ(reader.size(), 0u);
  EXPECT_FALSE(reader.has("a"));
  EXPECT_STREQ(reader.get_str("a"), "");
  EXPECT_STREQ(reader.get_str(0), "");
  EXPECT_EQ(reader.get_int("a"), 0);
  EXPECT_EQ(reader.get_int(0), 0);
  EXPECT_EQ(reader.get_opt_int("a"), std::nullopt);
  EXPECT_EQ(reader.get_int_or("a", 7), 7);
  EXPECT_EQ(reader.child("a").value(), nullptr);
  EXPECT_EQ(reader.child(0).value(), nullptr);
  EXPECT_STREQ(reader.c_str(), "null");
  EXPECT_EQ(reader.text(), "null");
}

TEST(JsonReader, OfABrokenTextIsEmpty) {
  expect_empty(JsonReader("{\"a\":1"));
  expect_empty(JsonReader("{\"a\":1} x"));
  expect_empty(JsonReader(""));
  expect_empty(JsonReader("{a:1}"));
  expect_empty(JsonReader("{\"a\":1,}"));
  expect_empty(JsonReader("{\"a\":1", 0));
}

TEST(JsonReader, OfANullTextOrOfNothingIsEmpty) {
  expect_empty(JsonReader(static_cast<const char*>(nullptr)));
  expect_empty(JsonReader(static_cast<const char*>(nullptr), 8192));
  expect_empty(JsonReader());
}

TEST(JsonReader, OfTheTextNullViewsANull) {
  const JsonReader reader("null");
  EXPECT_TRUE(reader.is_null());
  EXPECT_NE(reader.value(), nullptr);
  EXPECT_STREQ(reader.c_str(), "null");
}

TEST(JsonReader, ARepeatedKeyKeepsItsLastValue) {
  EXPECT_EQ(JsonReader("{\"a\":1,\"a\":2}").get_int("a"), 2);
  EXPECT_EQ(JsonReader("{\"a\":1,\"a\":2}", 0).get_int("a"), 2);
}

struct IntRow {
  const char* json;
  std::int32_t number;
};

constexpr IntRow kInts[] = {
    {"42", 42},
    {"-42", -42},
    {"\"42\"", 42},
    {"\"42x\"", 0},
    {"42.7", 0},
    {"true", 1},
    {"false", 0},
    {"null", 0},
    {"[1]", 0},
    {"{}", 0},
    {"\"\"", 0},
    {"\" 42\"", 42},
    {"\"42 \"", 0},
    {"\"+42\"", 42},
    {"\"-7\"", -7},
    {"\"0x10\"", 0},
    {"\"x\"", 0},
    {"\"42\\u0000x\"", 42},
    {"2147483647", 2147483647},
    {"2147483648", -2147483647 - 1},
    {"4294967338", 42},
    {"-4294967254", 42},
    {"18446744073709551615", -1},
    {"\"4294967338\"", 42},
    {"\"9223372036854775807\"", -1},
    {"\"9223372036854775808\"", 0},
};

TEST(JsonReader, GetIntConvertsByKindAndTruncatesToTheLow32Bits) {
  for (const auto& [json, number] : kInts) {
    const JsonReader object(("{\"n\":" + std::string(json) + "}").c_str());
    EXPECT_EQ(object.get_int("n"), number) << json;
    EXPECT_EQ(object.get_int_or("n", 99), number) << json;
    const JsonReader array(("[" + std::string(json) + "]").c_str());
    EXPECT_EQ(array.get_int(0), number) << json;
  }
}

TEST(JsonReader, GetIntOfATextTouchesErrnoOnlyOnARangeError) {
  const JsonReader reader(R"({"far":"99999999999999999999","bad":"x","good":"5"})");
  errno = 0;
  EXPECT_EQ(reader.get_int("far"), 0);
  EXPECT_EQ(errno, ERANGE);
  errno = EPIPE;
  EXPECT_EQ(reader.get_int("bad"), 0);
  EXPECT_EQ(reader.get_int("good"), 5);
  EXPECT_EQ(errno, EPIPE);
}

TEST(JsonReader, GetOptIntIsPresentForNumbersOnly) {
  const JsonReader reader(
      R"({"i":-5,"u":18446744073709551615,"f":42.7,"s":"42","b":true,"n":null,"a":[1]})");
  EXPECT_EQ(reader.get_opt_int("i"), -5);
  EXPECT_EQ(reader.get_opt_int("u"), -1);
  EXPECT_EQ(reader.get_opt_int("f"), 0);
  for (const char* key : {"s", "b", "n", "a", "missing"})
    EXPECT_EQ(reader.get_opt_int(key), std::nullopt) << key;
}

TEST(JsonReader, TheFallbackIsForMissingKeysOnly) {
  const JsonReader reader(R"({"n":null,"f":1.5,"a":[]})");
  for (const char* key : {"n", "f", "a"}) EXPECT_EQ(reader.get_int_or(key, 9), 0) << key;
  EXPECT_EQ(reader.get_int_or("x", 9), 9);
}

TEST(JsonReader, GetStrIsEmptyForAnythingButStrings) {
  const JsonReader reader(R"({"s":"text","l":"a text of more than fifteen bytes","i":1,"n":null})");
  EXPECT_STREQ(reader.get_str("s"), "text");
  EXPECT_STREQ(reader.get_str("l"), "a text of more than fifteen bytes");
  for (const char* key : {"i", "n", "missing", ""}) EXPECT_STREQ(reader.get_str(key), "") << key;
}

TEST(JsonReader, WalksChildrenByKeyAndIndex) {
  const JsonReader reader(R"({"a":[{"b":"x"},2,"three"],"o":{"p":null}})");
  const JsonReader array = reader.child("a");
  EXPECT_EQ(array.size(), 3u);
  EXPECT_STREQ(array.child(0).get_str("b"), "x");
  EXPECT_EQ(array.get_int(1), 2);
  EXPECT_STREQ(array.get_str(2), "three");
  EXPECT_TRUE(reader.child("o").child("p").is_null());
  EXPECT_TRUE(reader.child("o").has("p"));
  EXPECT_EQ(reader.size(), 0u);
  expect_empty(reader.child("missing"));
  expect_empty(array.child(-1));
  expect_empty(array.child(3));
  expect_empty(reader.child(0));
  expect_empty(array.child("a"));
  EXPECT_EQ(array.get_int(3), 0);
  EXPECT_STREQ(array.get_str(-1), "");
}

TEST(JsonReader, WritesWhatItViewsCompactly) {
  const JsonReader reader("{ \"a\" : [ 1 , 2.50 ] , \"b\" : \"x\" }");
  EXPECT_STREQ(reader.c_str(), R"({"a":[1,2.5],"b":"x"})");
  EXPECT_EQ(reader.child("a").text(), "[1,2.5]");
}

TEST(JsonReader, WithoutAHintParsesOntoTheHeapWhateverIsCurrent) {
  yajson::MonotonicArena arena(256);
  const yajson::ArenaScope scope(&arena);
  const JsonReader reader("{\"a\":1}");
  EXPECT_FALSE(reader.value()->is_in_arena());
  EXPECT_EQ(yajson::current_arena, &arena);
}

TEST(JsonReader, WithAHintParsesIntoItsOwnArenaAndPutsThePreviousOneBack) {
  yajson::MonotonicArena arena(256);
  const yajson::ArenaScope scope(&arena);
  const JsonReader reader("{\"a\":\"a text of more than fifteen bytes\"}", 8192);
  EXPECT_TRUE(reader.value()->is_in_arena());
  EXPECT_EQ(arena.total_bytes(), 256u + 16u);
  EXPECT_EQ(yajson::current_arena, &arena);
  const JsonReader broken("{\"a\":", 8192);
  EXPECT_EQ(yajson::current_arena, &arena);
}

TEST(JsonReader, RefusesToBeCopied) {
  const JsonReader reader("{}");
  try {
    const JsonReader copy(reader);
    FAIL();
  } catch (const std::logic_error& error) {
    EXPECT_STREQ(error.what(), "Copy JsonReader not allowed\n");
  }
}

TEST(JsonReader, MovesWithItsView) {
  static_assert(std::is_nothrow_move_constructible_v<JsonReader>);
  static_assert(std::is_nothrow_move_assignable_v<JsonReader>);
  for (const bool in_arena : {false, true}) {
    const char* const text = R"({"a":"a text of more than fifteen bytes","b":[1]})";
    JsonReader first = in_arena ? JsonReader(text, 0) : JsonReader(text);
    const JsonReader child = first.child("b");
    JsonReader second(std::move(first));
    EXPECT_STREQ(second.get_str("a"), "a text of more than fifteen bytes");
    EXPECT_EQ(second.value()->find("a"), second.child("a").value());
    EXPECT_EQ(child.get_int(0), 1);
    expect_empty(first);
    JsonReader third("{\"old\":1}", 0);
    third = std::move(second);
    EXPECT_STREQ(third.get_str("a"), "a text of more than fifteen bytes");
    expect_empty(second);
    JsonReader fourth("[\"old\"]");
    fourth = third.child("b");
    EXPECT_EQ(fourth.get_int(0), 1);
  }
}

/// An open file with these bytes and no name.
class OpenFile {
 public:
  explicit OpenFile(const std::string& bytes) {
    char name[] = "/tmp/JsonReaderTestXXXXXX";
    number_ = ::mkstemp(name);
    ::unlink(name);
    EXPECT_EQ(::write(number_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    ::lseek(number_, 0, SEEK_SET);
  }
  ~OpenFile() { ::close(number_); }
  FileDescriptor descriptor() const { return {number_}; }

 private:
  int number_;
};

TEST(JsonReader, ReadsAFileToItsEndInPieces) {
  for (const std::size_t length : {10u, 4084u, 4085u, 4096u, 8192u, 100000u}) {
    const std::string text(length, 'x');
    const OpenFile file("{\"a\": \"" + text + "\"}\n");
    EXPECT_EQ(JsonReader(file.descriptor()).get_str("a"), text);
  }
}

TEST(JsonReader, ReadsAFileOntoTheHeapWhateverIsCurrent) {
  yajson::MonotonicArena arena(256);
  const yajson::ArenaScope scope(&arena);
  const OpenFile file("{\"a\":1}");
  const JsonReader reader(file.descriptor());
  ASSERT_NE(reader.value(), nullptr);
  EXPECT_FALSE(reader.value()->is_in_arena());
  EXPECT_EQ(yajson::current_arena, &arena);
}

TEST(JsonReader, OfAFileThatIsBrokenEmptyOrNoFileIsEmpty) {
  expect_empty(JsonReader(OpenFile("{\"a\":").descriptor()));
  expect_empty(JsonReader(OpenFile("").descriptor()));
  expect_empty(JsonReader(FileDescriptor{-1}));
  const int folder = ::open("/", O_RDONLY | O_DIRECTORY);
  expect_empty(JsonReader(FileDescriptor{folder}));
  ::close(folder);
}

}  // namespace
}  // namespace rrm
