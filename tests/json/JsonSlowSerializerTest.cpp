// The serializer beside one that is slow and obvious: one string that grows byte by byte, no
// buffer. Other seeds than the usual one: --gtest_random_seed=N.

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "json/JsonSerializer.h"
#include "tests/support/RandomJson.h"

namespace yajson {
namespace {

constexpr double kTwoTo53 = 9007199254740992.0;

std::uint32_t seed() { return static_cast<std::uint32_t>(GTEST_FLAG_GET(random_seed)); }

std::string slow_decimal(double magnitude) {
  if (!(magnitude > 1e-6 && magnitude < 1e15 && 10 * magnitude <= kTwoTo53)) return "";
  double power = 1;
  for (std::size_t k = 1; k <= 9; ++k) {
    power *= 10;  // exact
    const double scaled = magnitude * power;
    if (scaled > kTwoTo53) return "";
    if (scaled != std::floor(scaled)) continue;
    std::string digits = std::to_string(static_cast<std::uint64_t>(scaled));
    if (digits.size() <= k) return "0." + std::string(k - digits.size(), '0') + digits;
    return digits.insert(digits.size() - k, ".");
  }
  return "";
}

std::string slow_float(double number, bool allow_nan_inf) {
  if (std::isnan(number)) return allow_nan_inf ? "NaN" : "null";
  if (std::isinf(number))
    return !allow_nan_inf ? "null" : std::signbit(number) ? "-Infinity" : "Infinity";
  if (std::signbit(number)) return number == 0 ? "0.0" : "-" + slow_float(-number, false);
  if (number <= kTwoTo53 && number == std::floor(number))
    return std::to_string(static_cast<std::uint64_t>(number)) + ".0";
  if (const std::string decimal = slow_decimal(number); !decimal.empty()) return decimal;
  char shortest[64];
  std::string text(shortest, std::to_chars(shortest, std::end(shortest), number).ptr);
  return text.find_first_of(".eE") == text.npos ? text + ".0" : text;
}

std::string unicode_escape(std::uint32_t unit) {
  char text[8];
  std::snprintf(text, sizeof text, "\\u%04x", unit);
  return text;
}

/// Escapes the UTF-8 sequence at the beginning of the bytes; tells how many of them it took.
std::string slow_code_point(std::string_view bytes, std::size_t& taken) {
  const auto byte = [bytes](std::size_t i) { return static_cast<unsigned char>(bytes[i]); };
  taken = 1;
  std::size_t more = 0;
  std::uint32_t point = 0;
  if (byte(0) >= 0xc0 && byte(0) <= 0xdf) more = 1, point = byte(0) - 0xc0u;
  if (byte(0) >= 0xe0 && byte(0) <= 0xef) more = 2, point = byte(0) - 0xe0u;
  if (byte(0) >= 0xf0 && byte(0) <= 0xf7) more = 3, point = byte(0) - 0xf0u;
  if (more == 0 || bytes.size() < more + 1) return "\\ufffd";
  for (; taken <= more; ++taken) {
    if (byte(taken) < 0x80 || byte(taken) > 0xbf) return "\\ufffd";
    point = point * 64 + (byte(taken) - 0x80u);
  }
  constexpr std::uint32_t kLeast[] = {0, 0x80, 0x800, 0x10000};
  if (point < kLeast[more] || (point >= 0xd800 && point <= 0xdfff) || point > 0x10ffff)
    return "\\ufffd";
  if (point <= 0xffff) return unicode_escape(point);
  return unicode_escape(0xd800 + (point - 0x10000) / 0x400) +
         unicode_escape(0xdc00 + (point - 0x10000) % 0x400);
}

std::string slow_string(std::string_view bytes, bool ensure_ascii) {
  constexpr std::string_view kSpecial = "\"\\\b\t\n\f\r";
  constexpr std::string_view kNames = "\"\\btnfr";
  std::string text = "\"";
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const auto code = static_cast<unsigned char>(bytes[i]);
    if (const std::size_t name = kSpecial.find(bytes[i]); name != kSpecial.npos) {
      text += {'\\', kNames[name]};
    } else if (code < 0x20) {
      text += unicode_escape(code);
    } else if (code >= 0x80 && ensure_ascii) {
      std::size_t taken = 0;
      text += slow_code_point(bytes.substr(i), taken);
      i += taken - 1;
    } else {
      text += bytes[i];
    }
  }
  return text + "\"";
}

std::string slow_serialize(const JsonValue& value, const WriteOptions& options, int level = 0);

/// The parts between the brackets, each on its own line in the pretty form.
std::string slow_container(const std::vector<std::string>& parts, const char* brackets,
                           const WriteOptions& options, int level) {
  const auto new_line = [&options](int depth) {
    if (options.indent < 0) return std::string();
    return "\n" + std::string(static_cast<std::size_t>(options.indent * depth), ' ');
  };
  std::string text(1, brackets[0]);
  for (std::size_t i = 0; i < parts.size(); ++i)
    text += (i > 0 ? "," : "") + new_line(level + 1) + parts[i];
  if (!parts.empty()) text += new_line(level);
  return text + brackets[1];
}

std::string slow_array(const JsonValue& value, const WriteOptions& options, int level) {
  std::vector<std::string> parts;
  for (const JsonValue& element : value.elements())
    parts.push_back(slow_serialize(element, options, level + 1));
  return slow_container(parts, "[]", options, level);
}

std::string slow_object(const JsonValue& value, const WriteOptions& options, int level) {
  std::vector<const JsonMember*> members;
  for (const JsonMember& member : value.members()) members.push_back(&member);
  if (options.sort_keys)
    std::sort(members.begin(), members.end(), [](const JsonMember* left, const JsonMember* right) {
      return left->key() < right->key();
    });
  std::vector<std::string> parts;
  for (const JsonMember* member : members)
    parts.push_back(slow_string(member->key(), options.ensure_ascii) +
                    (options.indent < 0 ? ":" : ": ") +
                    slow_serialize(member->value, options, level + 1));
  return slow_container(parts, "{}", options, level);
}

std::string slow_serialize(const JsonValue& value, const WriteOptions& options, int level) {
  switch (value.kind()) {
    case JsonKind::null:
      return "null";
    case JsonKind::boolean:
      return value.as_bool() ? "true" : "false";
    case JsonKind::integer:
      return std::to_string(value.as_int());
    case JsonKind::uinteger:
      return std::to_string(value.as_uint());
    case JsonKind::number:
      return slow_float(value.as_number(), options.allow_nan_inf);
    case JsonKind::string:
      return slow_string(value.as_string(), options.ensure_ascii);
    case JsonKind::array:
      return slow_array(value, options, level);
    case JsonKind::object:
      return slow_object(value, options, level);
  }
  return "unknown kind";
}

class JsonSlowSerializer : public testing::Test {
 protected:
  std::uint64_t pick(std::uint64_t limit) { return random_() % limit; }

  WriteOptions options() {
    constexpr std::int32_t kIndents[] = {-1, -1, -5, 0, 1, 4, 300};
    return {.indent = kIndents[pick(std::size(kIndents))],
            .ensure_ascii = pick(2) == 0,
            .allow_nan_inf = pick(2) == 0,
            .sort_keys = pick(2) == 0};
  }

  void expect_same(const JsonValue& value) {
    const WriteOptions how = options();
    for (const WriteOptions& each : {WriteOptions(), how})
      EXPECT_EQ(serialize(value, each), slow_serialize(value, each))
          << "indent " << each.indent << ", flags " << each.ensure_ascii << each.allow_nan_inf
          << each.sort_keys;
  }

  std::mt19937_64 random_{seed()};
};

TEST_F(JsonSlowSerializer, RandomDocumentsAreWrittenAlike) {
  test::RandomJson texts(seed());
  const ParseOptions relaxed = {true, true, true, true, true, true, true, true, 40};
  int accepted = 0;
  for (int i = 0; i < 6000 && !HasFailure(); ++i) {
    const ParseResult result = try_parse(texts.document(), relaxed);
    if (result.error) continue;
    ++accepted;
    // Something of any length before it, so that every token comes to lie where the buffer ends.
    JsonValue array = JsonValue::array();
    array.push_back(std::string(pick(8) == 0 ? 3900 + pick(300) : pick(40), 'x'));
    array.push_back(result.value.copy());
    expect_same(array);
  }
  EXPECT_GT(accepted, 3000);
}

TEST_F(JsonSlowSerializer, StringsOfAnyBytesAreWrittenAlike) {
  constexpr std::string_view kBytes =
      "ax\"\\/\n\x01\x1f\x7f\x80\xbf\xc2\xc3\xe0\xe2\xed\xf0\xf4\xf7\xff";
  for (int i = 0; i < 20000 && !HasFailure(); ++i) {
    std::string bytes(pick(pick(4) == 0 ? 80 : 16), 'x');
    for (char& byte : bytes)
      byte = pick(3) == 0 ? static_cast<char>(pick(256)) : kBytes[pick(kBytes.size())];
    expect_same(JsonValue(bytes));
  }
}

TEST_F(JsonSlowSerializer, FloatsOfAnyBitsAreWrittenAlike) {
  for (int i = 0; i < 50000 && !HasFailure(); ++i) {
    const auto decimals = static_cast<double>(pick(12));
    const double some_decimals =
        static_cast<double>(pick(1'000'000'000'000)) / std::pow(10, decimals);
    for (const double number : {std::bit_cast<double>(random_()), some_decimals, -some_decimals})
      expect_same(JsonValue(number));
  }
}

}  // namespace
}  // namespace yajson
