#include "json/JsonParser.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "json/JsonSerializer.h"

namespace yajson {
namespace {

using namespace std::string_literals;
using namespace std::string_view_literals;

constexpr ParseOptions kStrict;
constexpr ParseOptions kComments{.allow_comments = true};
constexpr ParseOptions kTrailing{.allow_trailing_commas = true};
constexpr ParseOptions kSingle{.allow_single_quotes = true};
constexpr ParseOptions kUnquoted{.allow_unquoted_keys = true};
constexpr ParseOptions kNan{.allow_nan_inf = true};
constexpr ParseOptions kHex{.allow_hex = true};
constexpr ParseOptions kControl{.allow_control_chars = true};
constexpr ParseOptions kDuplicates{.allow_duplicate_keys = true};
constexpr ParseOptions kEverything{.allow_comments = true,
                                   .allow_trailing_commas = true,
                                   .allow_single_quotes = true,
                                   .allow_unquoted_keys = true,
                                   .allow_nan_inf = true,
                                   .allow_hex = true,
                                   .allow_control_chars = true,
                                   .allow_duplicate_keys = true};

std::string written(const JsonValue& value) { return serialize(value, {.allow_nan_inf = true}); }

// Accepted texts -------------------------------------------------------------------------------

struct AcceptedRow {
  std::string_view text;
  ParseOptions options;
  std::string_view result;  ///< the value written compactly
};

const AcceptedRow kAccepted[] = {
    {"null", kStrict, "null"},
    {"true", kStrict, "true"},
    {" \t\r\n false \t\r\n ", kStrict, "false"},
    {"[]", kStrict, "[]"},
    {"[ ]", kStrict, "[]"},
    {"{}", kStrict, "{}"},
    {"{ \n }", kStrict, "{}"},
    {"[1,2 , 3]", kStrict, "[1,2,3]"},
    {"[[],[[]],{}]", kStrict, "[[],[[]],{}]"},
    {R"({"a":1,"b":{"c":[true,null]}})", kStrict, R"({"a":1,"b":{"c":[true,null]}})"},
    {R"( { "a" : 1 , "b" : 2 } )", kStrict, R"({"a":1,"b":2})"},
    {R"({"":0})", kStrict, R"({"":0})"},
    {R"("")", kStrict, R"("")"},
    // comments
    {"/**/1", kComments, "1"},
    {"1//", kComments, "1"},
    {"1// to the end", kComments, "1"},
    {"// line\n1", kComments, "1"},
    {"/* a */ // b\n /* c */ 1 /* d */", kComments, "1"},
    {"1 /* not closed", kComments, "1"},
    {"1 /*/", kComments, "1"},
    {"/*/1*/2", kComments, "2"},
    {"/***/1", kComments, "1"},
    {"[/**/1/**/,/**/2/**/]", kComments, "[1,2]"},
    {"[/**/]", kComments, "[]"},
    {"{/**/\"a\"/**/:/**/1/**/,/**/\"b\"/**/:/**/2/**/}", kComments, R"({"a":1,"b":2})"},
    {"{//\n}", kComments, "{}"},
    {"\"/* text */\"", kComments, R"("/* text */")"},
    // trailing commas
    {"[1,2,]", kTrailing, "[1,2]"},
    {"[1 , \n ]", kTrailing, "[1]"},
    {R"({"a":1,})", kTrailing, R"({"a":1})"},
    {"[{},[],]", kTrailing, "[{},[]]"},
    // single quotes
    {"'a'", kSingle, R"("a")"},
    {"'it\\'s'", kSingle, R"("it's")"},
    {"'say \"x\"'", kSingle, R"("say \"x\"")"},
    {"\"it's\"", kSingle, R"("it's")"},
    {"\"\\'\"", kSingle, R"("'")"},
    {"{'a':'b'}", kSingle, R"({"a":"b"})"},
    // unquoted keys
    {"{a:1}", kUnquoted, R"({"a":1})"},
    {"{$_aZ09$ : 1, _:2, $:3, \"q\":4}", kUnquoted, R"({"$_aZ09$":1,"_":2,"$":3,"q":4})"},
    {"{a_key_that_is_longer_than_inline:1}", kUnquoted,
     R"({"a_key_that_is_longer_than_inline":1})"},
    // NaN and infinity
    {"NaN", kNan, "NaN"},
    {"Infinity", kNan, "Infinity"},
    {"-Infinity", kNan, "-Infinity"},
    {"[NaN,-Infinity]", kNan, "[NaN,-Infinity]"},
    // hexadecimal
    {"0x1F", kHex, "31"},
    {"0XfF", kHex, "255"},
    {"-0x10", kHex, "-16"},
    {"0x0", kHex, "0"},
    {"-0x0", kHex, "0"},
    {"0x7fffffffffffffff", kHex, "9223372036854775807"},
    {"0x8000000000000000", kHex, "9223372036854775808"},
    {"0xffffffffffffffff", kHex, "18446744073709551615"},
    {"0x0000000000000000000001", kHex, "1"},
    {"-0x8000000000000000", kHex, "-9223372036854775808"},
    {"[0x1,0]", kHex, "[1,0]"},
    // control characters
    {"\"a\nb\"", kControl, R"("a\nb")"},
    {"\"\x01\\n\x1f\"", kControl, "\"\\u0001\\n\\u001f\""},
    {"\"\0\""sv, kControl, "\"\\u0000\""},
    // duplicate keys
    {R"({"a":1,"a":2})", kDuplicates, R"({"a":2})"},
    {R"({"a":1,"b":2,"a":3,"c":4,"b":5})", kDuplicates, R"({"a":3,"c":4,"b":5})"},
    {R"({"a":{"a":1,"a":2}})", kDuplicates, R"({"a":{"a":2}})"},
    {R"({"a":1,"\u0061":2})", kDuplicates, R"({"a":2})"},
    {R"({"":1,"":2})", kDuplicates, R"({"":2})"},
    // all at once
    {"/*x*/{a:'b',$:[NaN,0x10,],'a':\"\t\",}//", kEverything, R"({"$":[NaN,16],"a":"\t"})"},
};

TEST(JsonParser, AcceptsTheAcceptedTexts) {
  for (const AcceptedRow& row : kAccepted) {
    EXPECT_EQ(written(parse(row.text, row.options)), row.result) << row.text;
    const ParseResult result = try_parse(row.text, row.options);
    EXPECT_EQ(result.error, std::error_code(0, std::system_category())) << row.text;
    EXPECT_EQ(written(result.value), row.result) << row.text;
  }
}

TEST(JsonParser, BuildsTheSameInAnArena) {
  for (const AcceptedRow& row : kAccepted) {
    MonotonicArena arena(256);
    const ArenaScope scope(&arena);
    EXPECT_EQ(written(parse(row.text, row.options)), row.result) << row.text;
  }
}

// Refused texts --------------------------------------------------------------------------------

struct RefusedText {
  std::string_view text;
  std::uint64_t offset;
  ParseOptions options = kStrict;
};

struct Refusal {
  int code;
  std::string_view detail;
  std::vector<RefusedText> texts;
};

const Refusal kRefusals[] = {
    {1,
     "unexpected end of input",
     {{"", 0},
      {"   ", 3},
      {"[1,", 3},
      {"[1, ", 4, kTrailing},
      {R"({"a")", 4},
      {R"({"a" )", 5},
      {R"({"a":)", 5},
      {"// only", 7, kComments},
      {"/* open", 7, kComments}}},
    {2, "unexpected character '+'", {{"+1", 0}}},
    {2, "unexpected character '.'", {{".5", 0}}},
    {2, "unexpected character '}'", {{"}", 0}, {R"({"a":})", 5}, {R"({"a":1,"a":})", 11}}},
    {2, "unexpected character ']'", {{"]", 0}, {"[1,2,]", 5}}},
    {2, "unexpected character ','", {{"[,]", 1, kTrailing}, {"[1,,]", 3, kTrailing}}},
    {2, "unexpected character '''", {{"'a'", 0}}},
    {2, "unexpected character 'N'", {{"NaN", 0}}},
    {2, "unexpected character 'I'", {{"Infinity", 0}}},
    {2, "unexpected character '/'", {{"// x", 0}, {"/", 0, kComments}, {" / /", 1, kComments}}},
    {2, "unexpected character 'T'", {{"True", 0}}},
    {2, "unexpected character '\0'"sv, {{"\0"sv, 0}}},
    {2, "unexpected character '\xef'", {{"\xef\xbb\xbf[]", 0}}},
    {2, "unexpected character '\v'", {{"\v1", 0}}},
    {2,
     "expected ',' or ']' in array",
     {{"[1 2]", 3}, {"[1}", 2}, {"[\"a\" \n \"b\"]", 7}, {"[01]", 2}}},
    {2, "expected ',' or '}' in object", {{R"({"a":1 "b":2})", 7}, {R"({"a":1])", 6}}},
    {2, "expected ':', got '1'", {{R"({"a" 1})", 5}}},
    {2, "expected ':', got '}'", {{R"({"a"})", 4}}},
    {2, "expected ':', got '-'", {{"{a-b:1}", 2, kUnquoted}}},
    {3,
     "unescaped control character in string",
     {{"\"a\nb\"", 2},
      {"\"\0\""sv, 1},
      {"\"a long text, then \x1f and more\"", 19},
      {"\"a\nb\\n", 2},
      {"\"\\n\n", 3},
      {"{\"\t\":1}", 2}}},
    {3, R"(invalid escape '\q')", {{R"("\q")", 2}}},
    {3, R"(invalid escape '\'')", {{R"("\'")", 2}}},
    {3, "unterminated escape sequence", {{"\"\\", 2}, {"\"abc\\", 5}}},
    {4,
     "incomplete unicode escape",
     {{R"("\u12)", 3}, {R"("\u)", 3}, {R"("\u1")", 3}, {R"("\u12")", 3}, {R"("\ud83d\u12)", 9}}},
    {4,
     "invalid hex digit in unicode escape",
     {{R"("\u123")", 6}, {R"("\ug123")", 3}, {R"("\u-123")", 3}, {R"("\ud83d\udexx")", 11}}},
    {4, "missing low surrogate", {{R"("\ud83d")", 7}, {R"("\ud83d)", 7}, {R"("\ud83d\n")", 7}}},
    {4, "invalid low surrogate value", {{R"("\ud83d\u0041")", 13}, {R"("\ud83d\ud83d")", 13}}},
    {4, "unexpected low surrogate", {{R"("\udc00")", 7}, {R"("\ude00")", 7}, {R"("\udfff")", 7}}},
    {5,
     "invalid number",
     {{"-", 1},
      {"-a", 1},
      {"[-]", 2},
      {"--1", 1},
      {"-NaN", 1},
      {"-NaN", 1, kNan},
      {"-Infinity", 1},
      {"1e400", 5},
      {"[-1e400 ]", 7},
      {"1e-400", 6}}},
    {5,
     "expected digit after decimal point",
     {{"1.", 2}, {"[1.]", 3}, {"1.e5", 2}, {"18446744073709551616.", 21}}},
    {5, "expected digit in exponent", {{"1e", 2}, {"1e+", 3}, {"1.5E-x", 5}}},
    {5, "incomplete hex number", {{"0x", 2, kHex}, {"-0X", 3, kHex}}},
    {5, "expected hex digit", {{"0xg", 2, kHex}, {"[0x]", 3, kHex}}},
    {6,
     "unterminated string",
     {{"\"", 1},
      {"\"abc", 4},
      {"\"a\nb", 4},
      {"\"abc'", 5, kSingle},
      {"\"ab\\n", 5},
      {"{\"ab", 4}}},
    {7, "unterminated array", {{"[", 1}, {"[ ", 2}, {"[1", 2}, {"[1 ", 3}, {"[[1]", 4}}},
    {8, "unterminated object", {{"{", 1}, {"{ ", 2}, {R"({"a":1)", 6}, {R"({"a":1 )", 7}}},
    {8,
     "expected string key in object",
     {{R"({"a":1,)", 7},
      {R"({"a":1,)", 7, kTrailing},
      {R"({"a":1,})", 7},
      {R"({,})", 1, kTrailing},
      {"{a:1}", 1},
      {"{'a':1}", 1},
      {"{1:1}", 1, kUnquoted},
      {"{-a:1}", 1, kUnquoted},
      {"{]", 1}}},
    {9,
     "unexpected trailing content",
     {{"nullx", 4},
      {"1 2", 2},
      {"[1]\n  x", 6},
      {"01", 1},
      {"0x1F", 1},
      {"1\0"sv, 1},
      {"{} // x", 3},
      {"0x1.5", 3, kHex}}},
    {11, "expected 'true'", {{"tru", 0}, {"trux", 0}}},
    {11, "expected 'false'", {{"fals ", 0}}},
    {11, "expected 'null'", {{"nul", 0}, {"[n]", 1}}},
    {11, "expected 'NaN'", {{"Na", 0, kNan}}},
    {11, "expected 'Infinity'", {{"Infinit", 0, kNan}, {"-Inf", 1, kNan}}},
    {12,
     R"(duplicate key: "a")",
     {{R"({"a":1,"a":2})", 12}, {R"({"a":1,"a":22 })", 13}, {R"({"a":1,"\u0061":[]})", 18}}},
    {12, R"(duplicate key: "b")", {{R"({"":{"b":1,"b":1}})", 16}}},
    {53,
     "hex integer overflow",
     {{"0x10000000000000000 ", 19, kHex}, {"-0x8000000000000001", 19, kHex}}},
};

/// The error of a refused text, thrown by parse() and told by try_parse().
void expect_refused(const Refusal& refusal, const RefusedText& row) {
  SCOPED_TRACE(row.text);
  const ParseError expected(json_errc{refusal.code}, refusal.detail, row.text, row.offset);
  try {
    parse(row.text, row.options);
    ADD_FAILURE() << "accepted";
  } catch (const ParseError& error) {
    EXPECT_EQ(error.code(), expected.code());
    EXPECT_STREQ(error.what(), expected.what());
    EXPECT_EQ(error.offset(), row.offset);
    EXPECT_EQ(error.line(), expected.line());
    EXPECT_EQ(error.column(), expected.column());
  }
  const ParseResult result = try_parse(row.text, row.options);
  EXPECT_EQ(result.error, std::error_code(refusal.code, json_category()));
  EXPECT_TRUE(result.value.is_null());
}

TEST(JsonParser, RefusesTheRefusedTextsSayingWhyAndWhere) {
  for (const Refusal& refusal : kRefusals)
    for (const RefusedText& row : refusal.texts) expect_refused(refusal, row);
}

TEST(JsonParser, RefusesTheSameInAnArena) {
  for (const Refusal& refusal : kRefusals)
    for (const RefusedText& row : refusal.texts) {
      MonotonicArena arena(256);
      const ArenaScope scope(&arena);
      expect_refused(refusal, row);
    }
}

TEST(JsonParser, EveryPrefixOfADocumentIsRefused) {
  constexpr std::string_view kText =
      R"({"a":[1,-2.5e3,"x\u00e9\ud83d\ude00","a text that is long",true],"b":{"c":null}})";
  for (std::size_t length = 0; length < kText.size(); ++length)
    EXPECT_TRUE(try_parse(kText.substr(0, length)).error) << length;
  EXPECT_FALSE(try_parse(kText).error);
}

std::string what_of(std::string_view text) {
  try {
    parse(text);
  } catch (const ParseError& error) {
    return error.what();
  }
  return "accepted";
}

TEST(JsonParser, WholeErrorTextsNameLineAndColumn) {
  EXPECT_EQ(what_of("[1, 2]  x"),
            "JSON parse error at line 1, column 9: unexpected trailing content: trailing content "
            "after JSON");
  EXPECT_EQ(what_of("[1]\n  x"),
            "JSON parse error at line 2, column 3: unexpected trailing content: trailing content "
            "after JSON");
  EXPECT_EQ(what_of("{\n\"a\":1\n    \"b\":2}"),
            "JSON parse error at line 3, column 5: expected ',' or '}' in object: unexpected "
            "character");
  EXPECT_EQ(
      what_of("   "),
      "JSON parse error at line 1, column 4: unexpected end of input: unexpected end of input");
}

// Depth ----------------------------------------------------------------------------------------

std::string nested(std::size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); }

TEST(JsonParser, Nests512DeepByDefaultAnd513IsTooDeep) {
  EXPECT_FALSE(try_parse(nested(512)).error);
  try {
    parse(nested(513));
    FAIL();
  } catch (const ParseError& error) {
    EXPECT_EQ(error.code(), json_errc::max_depth_exceeded);
    EXPECT_EQ(error.offset(), 513u);
    EXPECT_STREQ(error.what(),
                 "JSON parse error at line 1, column 514: maximum nesting depth exceeded: maximum "
                 "nesting depth exceeded");
  }
}

TEST(JsonParser, DepthIsAnOptionAndCountsOpenBracketsOnly) {
  const ParseOptions two{.max_depth = 2};
  for (const char* text : {"[[]]", "[{}]", "{\"a\":{}}", "[[],[],{},{}]", "{\"a\":{},\"b\":[]}",
                           "[[1],[2],{\"a\":1},[3]]"})
    EXPECT_FALSE(try_parse(text, two).error) << text;
  for (const char* text : {"[[[", "[{\"a\":[", "{\"a\":{\"b\":{"})
    EXPECT_EQ(try_parse(text, two).error, json_errc::max_depth_exceeded) << text;
}

TEST(JsonParser, ManyEmptyContainersInARowAreNotDeep) {
  std::string text = "[[]";
  for (int i = 0; i < 2000; ++i) text += ",{},[]";
  EXPECT_EQ(parse(text + "]").elements().size(), 4001u);
}

// Strings --------------------------------------------------------------------------------------

struct StringRow {
  std::string_view text;
  std::string_view bytes;
};

const StringRow kStrings[] = {
    {R"("")", ""},
    {R"("abc")", "abc"},
    {R"("0123456789abcde")", "0123456789abcde"},
    {R"("0123456789abcdef")", "0123456789abcdef"},
    {R"("\"\\\/\b\f\n\r\t")", "\"\\/\b\f\n\r\t"},
    {R"("a\nb")", "a\nb"},
    {R"("\u0041\u00e9\u20AC")", "A\xc3\xa9\xe2\x82\xac"},
    {R"("\u007f\u0080\u07ff\u0800\uffff")", "\x7f\xc2\x80\xdf\xbf\xe0\xa0\x80\xef\xbf\xbf"},
    {R"("\ud83d\ude00")", "\xf0\x9f\x98\x80"},
    {R"("\ud800\udc00\uDBFF\uDFFF")", "\xf0\x90\x80\x80\xf4\x8f\xbf\xbf"},
    {R"("\ud7ff\ue000")", "\xed\x9f\xbf\xee\x80\x80"},
    {R"("a\u0000b")", "a\0b"sv},
    {"\"\xff\xc0\x80 bytes are not judged \xed\xa0\x80\"",
     "\xff\xc0\x80 bytes are not judged \xed\xa0\x80"},
    {"\"\x7f\"", "\x7f"},
    {R"("an escape \n and then a text of more than fifteen bytes")",
     "an escape \n and then a text of more than fifteen bytes"},
};

TEST(JsonParser, DecodesStrings) {
  for (const StringRow& row : kStrings) {
    const JsonValue value = parse(row.text);
    EXPECT_EQ(value.as_string(), row.bytes) << row.text;
    EXPECT_EQ(value.as_string().data()[row.bytes.size()], '\0') << row.text;
    // The same as a key, and far from the end of the text.
    const std::string object = "{" + std::string(row.text) + ":1}" + std::string(64, ' ');
    EXPECT_EQ(parse(object).members()[0].key(), row.bytes) << row.text;
  }
}

TEST(JsonParser, StringsOfEveryLengthAtEveryDistanceFromTheEnd) {
  MonotonicArena arena(0);
  for (const bool in_arena : {false, true}) {
    const ArenaScope scope(in_arena ? &arena : nullptr);
    for (std::size_t length = 0; length < 70; ++length)
      for (const std::size_t behind : {0u, 1u, 15u, 16u, 40u}) {
        std::string bytes;
        for (std::size_t i = 0; i < length; ++i) bytes += static_cast<char>('!' + 2 + i % 50);
        const JsonValue value = parse("\"" + bytes + "\"" + std::string(behind, ' '));
        EXPECT_EQ(value.as_string(), bytes);
        EXPECT_EQ(value.as_string().data()[length], '\0');
        EXPECT_EQ(value.is_out_of_line(), length > 15);
        EXPECT_EQ(value.is_in_arena(), length > 15 && in_arena);
      }
  }
}

TEST(JsonParser, AControlCharacterIsFoundAtEveryPlaceOfAString) {
  for (std::size_t length = 1; length < 40; ++length)
    for (std::size_t place = 0; place < length; ++place)
      for (const char bad : {'\0', '\x01', '\x1f'}) {
        std::string bytes(length, 'x');
        bytes[place] = bad;
        const std::string text = "\"" + bytes + "\"                ";
        EXPECT_EQ(try_parse(text).error, json_errc::invalid_escape);
        EXPECT_EQ(parse(text, kControl).as_string(), bytes);
      }
}

TEST(JsonParser, AnEscapeIsFoundAtEveryPlaceOfAString) {
  for (std::size_t place = 0; place < 40; ++place) {
    const std::string before(place, 'x');
    const JsonValue value = parse("\"" + before + "\\n" + before + "\"");
    EXPECT_EQ(value.as_string(), before + "\n" + before);
    EXPECT_EQ(value.is_out_of_line(), 2 * place + 1 > 15);
  }
}

TEST(JsonParser, EscapedStringsLongerThanTheScratchBufferAreWhole) {
  const std::string bytes(100000, 'x');
  EXPECT_EQ(parse("\"\\n" + bytes + "\"").as_string(), "\n" + bytes);
}

// Objects --------------------------------------------------------------------------------------

/// {"k0":0,"k1":1,...} with key number i % different.
std::string numbered(int count, int different) {
  std::string text = "{";
  for (int i = 0; i < count; ++i)
    text += (i > 0 ? ",\"k" : "\"k") + std::to_string(i % different) + "\":" + std::to_string(i);
  return text + "}";
}

TEST(JsonParser, TheLastOfEqualKeysWinsAtItsPositionInObjectsOfEverySize) {
  for (const int count : {2, 3, 8, 14, 15, 16, 17, 31, 32, 33, 100, 1000})
    for (const int different : {1, 2, 3, 7, 15, 16, 50}) {
      const int kept = std::min(count, different);
      const JsonValue object = parse(numbered(count, different), kDuplicates);
      ASSERT_EQ(object.members().size(), static_cast<std::size_t>(kept));
      for (int i = 0; i < kept; ++i) {
        const JsonMember& member = object.members()[static_cast<std::size_t>(i)];
        const int number = count - kept + i;
        EXPECT_EQ(member.key(), "k" + std::to_string(number % different));
        EXPECT_EQ(member.value.as_int(), number);
        EXPECT_EQ(object.find(member.key()), &member.value);
      }
    }
}

TEST(JsonParser, LargeObjectsHaveTheirIndexFromTheStart) {
  EXPECT_FALSE(parse(numbered(15, 15)).as_object().has_index());
  EXPECT_TRUE(parse(numbered(16, 16)).as_object().has_index());
  EXPECT_TRUE(parse(numbered(16, 16), kDuplicates).as_object().has_index());
}

TEST(JsonParser, ARepeatedKeyIsRefusedInLargeObjectsToo) {
  for (const int count : {2, 15, 16, 17, 40, 1000}) {
    EXPECT_FALSE(try_parse(numbered(count, count)).error) << count;
    EXPECT_EQ(try_parse(numbered(count, count - 1)).error, json_errc::duplicate_key) << count;
  }
}

TEST(JsonParser, LongKeysOfALargeObjectAreFoundAfterDuplicatesWereDropped) {
  std::string text = "{";
  for (int i = 0; i < 60; ++i)
    text += "\"a key that does not fit inline " + std::to_string(i % 30) +
            "\":" + std::to_string(i) + (i < 59 ? "," : "}");
  MonotonicArena arena(0);
  for (const bool in_arena : {false, true}) {
    const ArenaScope scope(in_arena ? &arena : nullptr);
    const JsonValue object = parse(text, kDuplicates);
    ASSERT_EQ(object.members().size(), 30u);
    for (int i = 0; i < 30; ++i)
      EXPECT_EQ(object.find("a key that does not fit inline " + std::to_string(i))->as_int(),
                30 + i);
  }
}

TEST(JsonParser, KeysThatDifferOnlyInLengthOrNulBytesAreDifferent) {
  const JsonValue object = parse(R"({"a":1,"aa":2,"a\u0000":3,"\u0000a":4,"":5})");
  EXPECT_EQ(object.members().size(), 5u);
  EXPECT_EQ(object.find("a\0"sv)->as_int(), 3);
}

// Reserved room --------------------------------------------------------------------------------

TEST(JsonParser, ReservesRoomFor8Elements) {
  EXPECT_EQ(parse("[1]").as_array().capacity(), 8u);
  EXPECT_EQ(parse(R"({"a":1})").as_object().capacity(), 8u);
  EXPECT_EQ(parse("[]").as_array().capacity(), 0u);
}

TEST(JsonParser, ReservesByTheCommasAheadInTheUpperTwoLevels) {
  std::string row = "[0";
  for (int i = 1; i < 20; ++i) row += "," + std::to_string(i);
  row += "]";
  const std::string padding(600, ' ');
  EXPECT_EQ(parse(row + padding).as_array().capacity(), 20u);
  EXPECT_EQ(parse("[" + row + padding + "]").at(0).as_array().capacity(), 20u);
  // At most 256 bytes behind the bracket: no look ahead. (20 elements grow beyond 8.)
  EXPECT_EQ(parse("[1,2,3,4,5,6,7,8,9" + std::string(300, ' ') + "]").as_array().capacity(), 9u);
  EXPECT_NE(parse("[1,2,3,4,5,6,7,8,9]").as_array().capacity(), 9u);
  // The third level does not look ahead.
  EXPECT_NE(parse("[[" + row + padding + "]]").at(0).at(0).as_array().capacity(), 20u);
}

/// The room for an array of that many ones, padded so that so many bytes follow its bracket.
std::size_t capacity_with(std::size_t elements, std::size_t bytes_behind_bracket) {
  std::string text = "[1";
  for (std::size_t i = 1; i < elements; ++i) text += ",1";
  text += "]";
  return parse(text + std::string(bytes_behind_bracket + 1 - text.size(), ' '))
      .as_array()
      .capacity();
}

TEST(JsonParser, LooksAheadOnlyWhenMoreThan256BytesRemain) {
  EXPECT_EQ(capacity_with(9, 256), 16u);
  EXPECT_EQ(capacity_with(9, 257), 9u);
}

TEST(JsonParser, LooksAhead512Bytes) {
  // Commas stand at every second byte: the 256th is the last of 512 bytes.
  EXPECT_EQ(capacity_with(257, 2000), 257u);
  // One byte more before them, and the 256th is beyond.
  std::string text = "[10";
  for (int i = 1; i < 257; ++i) text += ",1";
  EXPECT_EQ(parse(text + "]" + std::string(2000, ' ')).as_array().capacity(), 512u);
}

TEST(JsonParser, LookAheadCountsOnlyCommasOfItsOwnLevelOutsideOfStrings) {
  const std::string text =
      R"([[1,2,3],{"a":1,"b":2},",,,\",,",4,5,6,7,8,9])" + std::string(300, ' ');
  EXPECT_EQ(parse(text).as_array().capacity(), 9u);
}

TEST(JsonParser, LookAheadOverAWholeShortTextCountsItsElementsExactly) {
  constexpr const char* kElements[] = {
      "1",        "-2.5",          "\",\"",         "\"[{\"",
      "\"\\\"\"", "\"\\\\\"",      "[1,2,[3,4]]",   "{\"a,b\":[1],\"c\":2}",
      "[]",       "{\"]\":\"}\"}", "\"\\\\\\\",\"", "\"a longer text, with commas\""};
  std::mt19937 random(3);
  for (int round = 0; round < 3000; ++round) {
    std::string text = "[";
    std::size_t count = 0;
    do {
      if (count++ > 0) text += ',';
      text += kElements[random() % std::size(kElements)];
    } while (text.size() < 260 + random() % 200);
    text += "]";
    ASSERT_LT(text.size(), 512u);
    const JsonValue value = parse(text);
    ASSERT_EQ(value.elements().size(), count) << text;
    ASSERT_EQ(value.as_array().capacity(), std::max<std::size_t>(count, 8)) << text;
  }
}

}  // namespace
}  // namespace yajson
