// The numbers of the parser, beside a reference that is slow and obvious.

#include <gtest/gtest.h>

#include <bit>
#include <charconv>
#include <cmath>
#include <random>
#include <string>

#include "json/JsonParser.h"
#include "json/JsonSerializer.h"

namespace yajson {
namespace {

__extension__ using Wide = unsigned __int128;

constexpr Wide kTwoTo63 = Wide{1} << 63;
constexpr Wide kTwoTo64 = Wide{1} << 64;

double standard_double(const std::string& text) {
  double result = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), result);
  return error == std::errc() ? result : std::nan("");  // NaN: must be refused
}

double power_of_ten(int exponent) {
  double power = 1;
  for (int i = 0; i < exponent; ++i) power *= 10;  // exact up to 10^22
  return power;
}

/// What a number that fits the grammar must become; a NaN stands for "invalid number".
JsonValue reference(const std::string& text) {
  const bool negative = text[0] == '-';
  const std::size_t e = text.find_first_of("eE");
  const std::string base = text.substr(negative, e == text.npos ? e : e - negative);
  const std::size_t point = base.find('.');
  const std::string whole = base.substr(0, point);
  const std::string fraction = point == base.npos ? "" : base.substr(point + 1);

  Wide mantissa = 0;
  for (const char digit : whole) {
    mantissa = mantissa * 10 + static_cast<unsigned>(digit - '0');
    if (mantissa >= kTwoTo64) return JsonValue(standard_double(text));
  }
  if (point == base.npos && e == text.npos) {
    const auto magnitude = static_cast<std::uint64_t>(mantissa);
    if (!negative && mantissa < kTwoTo63) return JsonValue(static_cast<std::int64_t>(magnitude));
    if (!negative) return JsonValue(magnitude);
    if (mantissa <= kTwoTo63) return JsonValue(static_cast<std::int64_t>(-magnitude));
    return JsonValue(-static_cast<double>(magnitude));
  }
  if (!fraction.empty() && whole.size() + fraction.size() > 19)
    return JsonValue(standard_double(text));
  for (const char digit : fraction) mantissa = mantissa * 10 + static_cast<unsigned>(digit - '0');
  long exponent = e == text.npos ? 0 : std::strtol(text.c_str() + e + 1, nullptr, 10);
  exponent -= static_cast<long>(fraction.size());
  if (exponent < -22 || exponent > 22) return JsonValue(standard_double(text));
  double result = static_cast<double>(static_cast<std::uint64_t>(mantissa));
  if (exponent < 0)
    result /= power_of_ten(static_cast<int>(-exponent));
  else
    result *= power_of_ten(static_cast<int>(exponent));
  return JsonValue(negative ? -result : result);
}

void expect_like_reference(const std::string& text) {
  const JsonValue expected = reference(text);
  const ParseResult result = try_parse(text);
  if (expected.kind() == JsonKind::number && std::isnan(expected.as_number())) {
    EXPECT_EQ(result.error, json_errc::invalid_number) << text;
    return;
  }
  ASSERT_FALSE(result.error) << text;
  ASSERT_EQ(result.value.kind(), expected.kind()) << text;
  if (expected.kind() == JsonKind::integer)
    EXPECT_EQ(result.value.as_int(), expected.as_int()) << text;
  else if (expected.kind() == JsonKind::uinteger)
    EXPECT_EQ(result.value.as_uint(), expected.as_uint()) << text;
  else
    EXPECT_EQ(std::bit_cast<std::uint64_t>(result.value.as_number()),
              std::bit_cast<std::uint64_t>(expected.as_number()))
        << text;
}

class RandomNumbers {
 public:
  std::string next() {
    std::string text = pick(2) != 0 ? "" : "-";
    text += pick(4) == 0 ? "0" : digits(1 + pick(pick(8) == 0 ? 30 : 20), true);
    const auto form = pick(4);
    if (form & 1) text += "." + digits(1 + pick(22), false);
    if (form & 2) {
      constexpr const char* kSigns[] = {"e", "E", "e+", "E-", "e-"};
      text += kSigns[pick(5)] + std::to_string(pick(pick(4) == 0 ? 600 : 30));
    }
    return text;
  }

 private:
  unsigned pick(unsigned limit) { return static_cast<unsigned>(random_() % limit); }
  std::string digits(unsigned count, bool no_leading_zero) {
    std::string text;
    while (text.size() < count)
      text += static_cast<char>('0' + (text.empty() && no_leading_zero ? 1 + pick(9) : pick(10)));
    return text;
  }
  std::mt19937 random_{7};
};

TEST(JsonNumber, RandomNumbersAreThoseOfTheReference) {
  RandomNumbers numbers;
  for (int i = 0; i < 100000 && !testing::Test::HasFailure(); ++i)
    expect_like_reference(numbers.next());
}

TEST(JsonNumber, NumbersAroundEveryLimitAreThoseOfTheReference) {
  const char* const kWhole[] = {"0",
                                "1",
                                "9",
                                "10",
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
