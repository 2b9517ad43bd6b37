#include "json/JsonSerializer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

#include "json/JsonParser.h"

namespace yajson {
namespace {

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr WriteOptions kAscii{.ensure_ascii = true};
constexpr WriteOptions kNanInf{.allow_nan_inf = true};
constexpr WriteOptions kPretty{.indent = 4};

// Numbers --------------------------------------------------------------------------------------

struct FloatRow {
  double number;
  const char* text;
};

constexpr FloatRow kFloats[] = {
    {0.1, "0.1"},
    {100.0, "100.0"},
    {-2.5, "-2.5"},
    {0.0, "0.0"},
    {-0.0, "0.0"},
    {5.0, "5.0"},
    {-5.0, "-5.0"},
    {0.5, "0.5"},
    {0.05, "0.05"},
    {1.25, "1.25"},
    {123456.789, "123456.789"},
    {4.35, "4.350"},  // 4.35 x 100 is not whole, 4.35 x 1000 is
    {0.07, "0.070"},
    {1e15, "1000000000000000.0"},
    {9007199254740992.0, "9007199254740992.0"},
    {9007199254740994.0, "9007199254740994.0"},
    {1e16, "1e+16"},
    {1e-7, "1e-07"},
    {1e-6, "1e-06"},
    {0.000002, "0.000002"},
    {0.000000001, "1e-09"},
    {0.123456789, "0.123456789"},
    {0.1234567891, "0.1234567891"},
    {1.0 / 3.0, "0.3333333333333333"},
    {-1.0 / 3.0, "-0.3333333333333333"},
    {900719925474099.25, "900719925474099.2"},
    {123456789012345.6, "123456789012345.6"},
    {1e22, "1e+22"},
    {1.5e300, "1.5e+300"},
    {5e-324, "5e-324"},
    {std::numeric_limits<double>::max(), "1.7976931348623157e+308"},
    {18446744073709551616.0, "18446744073709551616.0"},
    {kNan, "null"},
    {kInfinity, "null"},
    {-kInfinity, "null"},
};

TEST(JsonSerializer, WritesFloats) {
  for (const auto& [number, text] : kFloats) EXPECT_EQ(serialize(JsonValue(number)), text);
}

TEST(JsonSerializer, WritesNanAndInfinitiesOnlyWhenAllowed) {
  EXPECT_EQ(serialize(JsonValue(kNan), kNanInf), "NaN");
  EXPECT_EQ(serialize(JsonValue(-kNan), kNanInf), "NaN");
  EXPECT_EQ(serialize(JsonValue(kInfinity), kNanInf), "Infinity");
  EXPECT_EQ(serialize(JsonValue(-kInfinity), kNanInf), "-Infinity");
  EXPECT_EQ(serialize(JsonValue(-kInfinity)), "null");
}

TEST(JsonSerializer, FloatsOfUpToNineDecimalsAreReadBackEqual) {
  std::mt19937_64 random(5);
  for (int i = 0; i < 20000; ++i) {
    const double number = static_cast<double>(random() % 1000000000) /
                          std::pow(10, static_cast<double>(random() % 10));
    EXPECT_EQ(parse(serialize(JsonValue(number))).as_number(), number);
  }
}

TEST(JsonSerializer, VeryLargeAndVerySmallFloatsAreReadBackEqual) {
  std::mt19937_64 random(6);
  for (int i = 0; i < 20000; ++i) {
    const int exponent = static_cast<int>(random() % 900) + (i % 2 == 0 ? 0 : -1000);
    const double number = std::ldexp(static_cast<double>(random() | 1), exponent);
    const std::string text = serialize(JsonValue(number));
    EXPECT_EQ(std::strtod(text.c_str(), nullptr), number) << text;
    EXPECT_NE(text.find_first_of(".e"), text.npos) << text;
  }
}

TEST(JsonSerializer, WritesIntegersInFull) {
  EXPECT_EQ(serialize(JsonValue(std::numeric_limits<std::int64_t>::min())), "-9223372036854775808");
  EXPECT_EQ(serialize(JsonValue(std::numeric_limits<std::int64_t>::max())), "9223372036854775807");
  EXPECT_EQ(serialize(JsonValue(std::numeric_limits<std::uint64_t>::max())),
            "18446744073709551615");
  std::uint64_t number = 1;
  for (int digits = 1; digits <= 20; ++digits, number *= 10) {
    for (const std::uint64_t near : {number - 1, number, number + 1, number / 2 * 3}) {
      EXPECT_EQ(serialize(JsonValue(near)), std::to_string(near));
      const auto as_signed = static_cast<std::int64_t>(near);
      EXPECT_EQ(serialize(JsonValue(as_signed)), std::to_string(as_signed));
      const std::int64_t negative = -(as_signed & std::numeric_limits<std::int64_t>::max());
      EXPECT_EQ(serialize(JsonValue(negative)), std::to_string(negative));
    }
  }
}

TEST(JsonSerializer, WritesLiterals) {
  EXPECT_EQ(serialize(JsonValue()), "null");
  EXPECT_EQ(serialize(JsonValue(true)), "true");
  EXPECT_EQ(serialize(JsonValue(false)), "false");
}

// Strings --------------------------------------------------------------------------------------

TEST(JsonSerializer, EscapesQuoteBackslashAndControlCharactersButNoSlash) {
  EXPECT_EQ(serialize(JsonValue("\x22\x5c\x0a\x01\x2f")), R"("\"\\\n\u0001/")");
  EXPECT_EQ(serialize(JsonValue("\b\t\n\f\r")), R"("\b\t\n\f\r")");
  EXPECT_EQ(serialize(JsonValue("\x7f")), "\"\x7f\"");
  EXPECT_EQ(serialize(JsonValue(std::string_view("\0", 1))), R"("\u0000")");
}

TEST(JsonSerializer, EscapesEveryOtherControlCharacterInLowerCaseHex) {
  for (int code = 0; code < 0x20; ++code) {
    const auto byte = static_cast<char>(code);
    if (std::string_view("\b\t\n\f\r").find(byte) != std::string_view::npos) continue;
    char expected[16];
    std::snprintf(expected, sizeof expected, "\"\\u%04x\"", static_cast<unsigned>(code));
    EXPECT_EQ(serialize(JsonValue(std::string(1, byte))), expected);
  }
}

TEST(JsonSerializer, FindsWhatToEscapeAtEveryPlaceOfAString) {
  for (std::size_t length = 1; length < 50; ++length)
    for (std::size_t place = 0; place < length; ++place) {
      std::string bytes(length, 'x');
      bytes[place] = '"';
      std::string expected(length, 'x');
      expected.replace(place, 1, "\\\"");
      EXPECT_EQ(serialize(JsonValue(bytes)), "\"" + expected + "\"");
    }
}

TEST(JsonSerializer, EscapesKeysToo) {
  JsonValue object = JsonValue::object();
  object.set("a\n\"", 1);
  object.set("\xc3\xa9", 2);
  EXPECT_EQ(serialize(object), "{\"a\\n\\\"\":1,\"\xc3\xa9\":2}");
  EXPECT_EQ(serialize(object, kAscii), R"({"a\n\"":1,"\u00e9":2})");
}

struct AsciiRow {
  std::string_view bytes;
  const char* text;
};

constexpr AsciiRow kAsciiTexts[] = {
    {"\xc3\xa9", R"("\u00e9")"},
    {"\xf0\x9f\x98\x80", R"("\ud83d\ude00")"},
    {"\xe2\x82\xac", R"("\u20ac")"},
    {"\xc2\x80", R"("\u0080")"},
    {"\xef\xbf\xbf", R"("\uffff")"},
    {"\xf0\x90\x80\x80", R"("\ud800\udc00")"},
    {"\xf4\x8f\xbf\xbf", R"("\udbff\udfff")"},
    {"\x7f\x1f", "\"\x7f\\u001f\""},
    // bad lead bytes: go on at the next byte
    {"\xff", R"("\ufffd")"},
    {"\x80\xbf", R"("\ufffd\ufffd")"},
    {"\xf8\x88\x80\x80\x80", R"("\ufffd\ufffd\ufffd\ufffd\ufffd")"},
    // fewer bytes left than the lead byte needs, before the bytes are looked at: at the next byte
    {"\xc3", R"("\ufffd")"},
    {"\xe2\x82", R"("\ufffd\ufffd")"},
    {"\xf0\x9f\x98", R"("\ufffd\ufffd\ufffd")"},
    {"\xe2x", R"("\ufffdx")"},
    {"\xf0xy", R"("\ufffdxy")"},
    // a bad continuation byte: go on at that byte
    {"\xc3x", R"("\ufffdx")"},
    {"\xe2\x82x", R"("\ufffdx")"},
    {"\xe2xyz", R"("\ufffdxyz")"},
    {"\xc3\xc3\xa9", R"("\ufffd\u00e9")"},
    {"\xf0\x9f\x98xy", R"("\ufffdxy")"},
    // overlong, surrogate, too large: go on behind the whole sequence
    {"\xc0\x80x", R"("\ufffdx")"},
    {"\xc1\xbfx", R"("\ufffdx")"},
    {"\xe0\x9f\xbfx", R"("\ufffdx")"},
    {"\xf0\x8f\xbf\xbfx", R"("\ufffdx")"},
    {"\xed\xa0\x80x", R"("\ufffdx")"},
    {"\xed\xbf\xbfx", R"("\ufffdx")"},
    {"\xf4\x90\x80\x80x", R"("\ufffdx")"},
    {"\xf7\xbf\xbf\xbfx", R"("\ufffdx")"},
};

TEST(JsonSerializer, EnsureAsciiEscapesEveryCharacterAndReplacesBrokenOnes) {
  for (const auto& [bytes, text] : kAsciiTexts)
    EXPECT_EQ(serialize(JsonValue(bytes), kAscii), text);
}

TEST(JsonSerializer, CopiesBytesFrom0x80UpByDefault) {
  for (const auto& [bytes, text] : kAsciiTexts) {
    if (bytes.find('\x1f') != bytes.npos) continue;
    EXPECT_EQ(serialize(JsonValue(bytes)), "\"" + std::string(bytes) + "\"");
  }
}

// Containers -----------------------------------------------------------------------------------

TEST(JsonSerializer, CompactFormHasNoWhiteSpace) {
  const char* const kText = R"({"a":[1,2,{}],"b":{},"c":[],"d":[[],[null]],"e":{"f":"g h"}})";
  EXPECT_EQ(serialize(parse(kText)), kText);
}

TEST(JsonSerializer, PrettyFormIndentsAndKeepsEmptyContainersOnTheLineOfTheirKey) {
  EXPECT_EQ(serialize(parse(R"({"a":[1,2],"b":{}})"), kPretty),
            "{\n"
            "    \"a\": [\n"
            "        1,\n"
            "        2\n"
            "    ],\n"
            "    \"b\": {}\n"
            "}");
  EXPECT_EQ(serialize(parse("[[],{\"a\":[]}]"), {.indent = 1}), "[\n [],\n {\n  \"a\": []\n }\n]");
  EXPECT_EQ(serialize(parse("[1,[2]]"), {.indent = 0}), "[\n1,\n[\n2\n]\n]");
  EXPECT_EQ(serialize(parse("[]"), kPretty), "[]");
  EXPECT_EQ(serialize(parse("{}"), kPretty), "{}");
  EXPECT_EQ(serialize(parse("\"x\""), kPretty), "\"x\"");
}

TEST(JsonSerializer, AnyNegativeIndentIsCompact) {
  EXPECT_EQ(serialize(parse("[1,{\"a\":2}]"), {.indent = -7}), "[1,{\"a\":2}]");
}

TEST(JsonSerializer, IndentsDeeperThan256Spaces) {
  const std::string text = serialize(parse("[[[1]]]"), {.indent = 300});
  EXPECT_EQ(text, "[\n" + std::string(300, ' ') + "[\n" + std::string(600, ' ') + "[\n" +
                      std::string(900, ' ') + "1\n" + std::string(600, ' ') + "]\n" +
                      std::string(300, ' ') + "]\n]");
}

TEST(JsonSerializer, KeepsInsertionOrderUnlessAskedToSort) {
  const JsonValue value = parse(R"({"b":1,"aa":{"z":1,"y":2},"a":3,"":4,"B":5,"\u00e9":6,"ab":7})");
  EXPECT_EQ(serialize(value),
            "{\"b\":1,\"aa\":{\"z\":1,\"y\":2},\"a\":3,\"\":4,\"B\":5,\"\xc3\xa9\":6,\"ab\":7}");
  EXPECT_EQ(serialize(value, {.sort_keys = true}),
            "{\"\":4,\"B\":5,\"a\":3,\"aa\":{\"y\":2,\"z\":1},\"ab\":7,\"b\":1,\"\xc3\xa9\":6}");
  EXPECT_EQ(serialize(parse("{\"b\":1,\"a\":2}"), {.indent = 1, .sort_keys = true}),
            "{\n \"a\": 2,\n \"b\": 1\n}");
}

TEST(JsonSerializer, SortsKeysOfTheSamePrefixShorterFirst) {
  JsonValue object = JsonValue::object();
  object.set(std::string_view("a\0", 2), 1);
  object.set("a", 2);
  EXPECT_EQ(serialize(object, {.sort_keys = true}), R"({"a":2,"a\u0000":1})");
}

// The output buffer ----------------------------------------------------------------------------

TEST(JsonSerializer, TextsOfAnyLengthPassTheBufferOf4096Bytes) {
  for (const std::size_t length : {4000u, 4093u, 4094u, 4095u, 4096u, 4097u, 8192u, 20000u}) {
    const std::string bytes(length, 'x');
    EXPECT_EQ(serialize(JsonValue(bytes)), "\"" + bytes + "\"");
    JsonValue array = JsonValue::array();
    array.push_back(bytes);
    array.push_back(-12345678901234);
    array.push_back(0.25);
    array.push_back(bytes + "\n\x01");
    array.push_back(true);
    EXPECT_EQ(serialize(array),
              "[\"" + bytes + "\",-12345678901234,0.25,\"" + bytes + "\\n\\u0001\",true]");
  }
}

TEST(JsonSerializer, EveryTokenMayStandAtTheEndOfTheBuffer) {
  constexpr std::string_view kTokens =
      R"(null,true,false,-9223372036854775808,0.123456789,1e+300,"0123456789abcde","\u001f",{"k":[]},[0])";
  for (std::size_t fill = 4000; fill < 4100; ++fill) {
    const std::string text = "[\"" + std::string(fill, 'x') + "\"," + std::string(kTokens) + "]";
    EXPECT_EQ(serialize(parse(text)), text);
    const std::string numbers = "[\"" + std::string(fill, 'x') + "\",1,22,333,4444,[],{}]";
    EXPECT_EQ(serialize(parse(numbers)), numbers);
  }
}

TEST(JsonSerializer, EscapesMayStandAtTheEndOfTheBuffer) {
  for (std::size_t fill = 4070; fill < 4100; ++fill)
    for (const std::string_view bytes :
         {"\"\"\"\"\"\"", "\x01\x01\x01", "\xc3\xa9\xf0\x9f\x98\x80"}) {
      const std::string text = std::string(fill, 'x') + std::string(bytes);
      EXPECT_EQ(parse(serialize(JsonValue(text))).as_string(), text);
      EXPECT_EQ(parse(serialize(JsonValue(text), kAscii)).as_string(), text);
    }
}

TEST(JsonSerializer, ReservesForLargeTopLevelValuesByKind) {
  const auto capacity = [](const JsonValue& value) { return serialize(value).capacity(); };
  EXPECT_EQ(capacity(JsonValue(std::string(5000, 'x'))), 5002u);
  JsonValue array = JsonValue::array();
  for (int i = 0; i < 100; ++i) array.push_back(0);
  EXPECT_EQ(capacity(array), 6402u);
  JsonValue object = JsonValue::object();
  for (int i = 0; i < 300; ++i) object.set(std::to_string(i), 0);
  EXPECT_EQ(capacity(object), 4802u);
  array = JsonValue::array();
  for (int i = 0; i < 63; ++i) array.push_back(0);
  EXPECT_LT(capacity(array), 4034u);  // an estimate of at most 4096 bytes reserves nothing
}

}  // namespace
}  // namespace yajson
