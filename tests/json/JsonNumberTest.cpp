// The numbers of the parser, beside a reference that is slow and obvious.

#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "json/JsonParser.h"
#include "json/JsonSerializer.h"
#include "tests/support/RandomJson.h"
#include "tests/support/SlowJsonParser.h"

namespace yajson {
namespace {

using test::real_parse;
using test::slow_parse;
using test::SlowResult;

void expect_like_reference(const std::string& text) {
  const SlowResult expected = slow_parse(text, {});
  const SlowResult result = real_parse(text, {});
  EXPECT_EQ(result.value, expected.value) << text;
  EXPECT_EQ(result.what, expected.what) << text;
}

TEST(JsonNumber, RandomNumbersAreThoseOfTheReference) {
  test::RandomJson random(7);
  for (int i = 0; i < 100000 && !HasFailure(); ++i) expect_like_reference(random.number());
}

TEST(JsonNumber, NumbersAroundEveryLimitAreThoseOfTheReference) {
  const char* const kWhole[] = {"0",
                                "1",
                                "9",
                                "10",
                                "999999",
                                "1000000",
                                "9999999",
                                "10000000",
                                "999999999999999999",
                                "1844674407370955160",
                                "1844674407370955161",
                                "1844674407370955162",
                                "9007199254740992",
                                "9007199254740993",
                                "9223372036854775807",
                                "9223372036854775808",
                                "9223372036854775809",
                                "18446744073709551614",
                                "18446744073709551615",
                                "18446744073709551616",
                                "18446744073709551620",
                                "99999999999999999999",
                                "100000000000000000000"};
  const char* const kTails[] = {"",
                                ".0",
                                ".5",
                                ".000000000000000001",
                                ".0000000000000000001",
                                ".1234567890123456789",
                                ".9999999999999999999999",
                                "e0",
                                "e22",
                                "e23",
                                "e-22",
                                "e-23",
                                ".5e22",
                                ".5e23",
                                ".5e24",
                                "e308",
                                "e309",
                                "e-400",
                                "e399",
                                "e400",
                                "e401",
                                "e99999999999"};
  for (const char* sign : {"", "-"})
    for (const char* whole : kWhole)
      for (const char* tail : kTails) expect_like_reference(std::string(sign) + whole + tail);
}

struct NumberRow {
  const char* text;
  JsonKind kind;
  double number;
};

constexpr NumberRow kNumbers[] = {
    {"0", JsonKind::integer, 0},
    {"-0", JsonKind::integer, 0},
    {"9223372036854775807", JsonKind::integer, 9223372036854775807.0},
    {"9223372036854775808", JsonKind::uinteger, 9223372036854775808.0},
    {"18446744073709551615", JsonKind::uinteger, 18446744073709551615.0},
    {"18446744073709551616", JsonKind::number, 1.8446744073709552e19},
    {"-9223372036854775808", JsonKind::integer, -9223372036854775808.0},
    {"-9223372036854775809", JsonKind::number, -9223372036854775809.0},
    {"-18446744073709551615", JsonKind::number, -18446744073709551615.0},
    {"1.5e3", JsonKind::number, 1500.0},
    {"1e0", JsonKind::number, 1.0},
    {"1E+2", JsonKind::number, 100.0},
    {"0.1", JsonKind::number, 0.1},
    {"-2.5", JsonKind::number, -2.5},
    {"0e400", JsonKind::number, 0.0},
    {"1e-22", JsonKind::number, 1e-22},
    {"5e-324", JsonKind::number, 5e-324},
    {"1.7976931348623157e308", JsonKind::number, 1.7976931348623157e308},
    {"123456789012345678901234567890", JsonKind::number, 123456789012345678901234567890.0},
};

TEST(JsonNumber, KindsAndValuesAtTheLimits) {
  for (const auto& [text, kind, number] : kNumbers) {
    const JsonValue value = parse(text);
    EXPECT_EQ(value.kind(), kind) << text;
    EXPECT_EQ(value.as_number(), number) << text;
  }
}

TEST(JsonNumber, MinusZeroIsTheIntegerZeroAndMinusZeroPointZeroANegativeFloat) {
  EXPECT_EQ(parse("-0").as_int(), 0);
  EXPECT_TRUE(std::signbit(parse("-0.0").as_number()));
  EXPECT_TRUE(std::signbit(parse("-0e5").as_number()));
  EXPECT_FALSE(std::signbit(parse("0.0").as_number()));
}

TEST(JsonNumber, TheFastPathRoundsTwiceForMantissasAbove2To53) {
  // 9007199254740993 becomes 9007199254740992.0 first, then it is divided.
  EXPECT_EQ(parse("900719925474.0993").as_number(), 9007199254740992.0 / 1e4);
  EXPECT_EQ(parse("123456789012345678e-5").as_number(), 123456789012345678.0 / 1e5);
}

TEST(JsonNumber, TheZeroBeforeThePointCountsAmongThe19Digits) {
  // 18 digits behind the point still go into the mantissa; the 19th sends the number to the slow
  // path.
  EXPECT_EQ(parse("0.123456789012345678").as_number(), 123456789012345678.0 / 1e18);
  EXPECT_EQ(parse("0.1234567890123456789").as_number(), 0.1234567890123456789);
}

TEST(JsonNumber, NumbersEndWhereTheyEnd) {
  EXPECT_EQ(serialize(parse("[1,-2,3.5,4e1,5 ]")), "[1,-2,3.5,40.0,5]");
  EXPECT_EQ(serialize(parse(R"({"a":1,"b":2.5})")), R"({"a":1,"b":2.5})");
}

}  // namespace
}  // namespace yajson
