#include "tests/support/SlowJsonParser.h"

#include <bit>
#include <charconv>
#include <cstring>
#include <limits>
#include <utility>
#include <vector>

namespace yajson::test {
namespace {

__extension__ using Wide = unsigned __int128;

constexpr Wide kTwoTo63 = Wide{1} << 63;
constexpr Wide kTwoTo64 = Wide{1} << 64;

struct Refusal {
  int code;
  std::string detail;
  std::size_t offset;
};

std::string describe_integer(std::int64_t number) { return "i" + std::to_string(number); }
std::string describe_uinteger(std::uint64_t number) { return "u" + std::to_string(number); }
std::string describe_float(double number) {
  return "f" + std::to_string(std::bit_cast<std::uint64_t>(number));
}
std::string describe_string(std::string_view bytes) {
  return "s" + std::to_string(bytes.size()) + ":" + std::string(bytes);
}

bool is_digit(char byte) { return byte >= '0' && byte <= '9'; }
bool is_letter(char byte) { return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z'); }
bool is_control(char byte) { return static_cast<unsigned char>(byte) < 0x20; }
int hex_value(char byte) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  if (byte >= 'A' && byte <= 'F') byte = static_cast<char>(byte - 'A' + 'a');
  const std::size_t value = kDigits.find(byte);
  return value == kDigits.npos ? -1 : static_cast<int>(value);
}

std::string utf8(std::uint32_t point) {
  const auto tail = [point](int shift) {
    return static_cast<char>(0x80 | (point >> shift & 0x3f));
  };
  if (point < 0x80) return {static_cast<char>(point)};
  if (point < 0x800) return {static_cast<char>(0xc0 | point >> 6), tail(0)};
  if (point < 0x10000) return {static_cast<char>(0xe0 | point >> 12), tail(6), tail(0)};
  return {static_cast<char>(0xf0 | point >> 18), tail(12), tail(6), tail(0)};
}

double power_of_ten(int exponent) {
  double power = 1;
  for (int i = 0; i < exponent; ++i) power *= 10;  // exact up to 10^22
  return power;
}

class SlowParser {
 public:
  SlowParser(std::string_view text, const ParseOptions& options) : text_(text), options_(options) {}

  std::string document() {
    std::string result = value();
    skip_space();
    if (!at_end()) fail(9, "unexpected trailing content");
    return result;
  }

 private:
  bool at_end() const { return at_ == text_.size(); }
  bool next_is(char byte) const { return !at_end() && text_[at_] == byte; }
  bool next_is(std::string_view bytes) const { return text_.substr(at_).starts_with(bytes); }
  bool next_is_digit() const { return !at_end() && is_digit(text_[at_]); }
  bool take(char byte) {
    if (!next_is(byte)) return false;
    ++at_;
    return true;
  }
  [[noreturn]] void fail(int code, const std::string& detail) const {
    throw Refusal{code, detail, at_};
  }
  [[noreturn]] void fail_at_end() const { fail(1, "unexpected end of input"); }

  void skip_space() {
    for (;;) {
      if (next_is(' ') || next_is('\t') || next_is('\n') || next_is('\r')) {
        ++at_;
      } else if (options_.allow_comments && next_is("//")) {
        skip_behind("\n", 2);
      } else if (options_.allow_comments && next_is("/*")) {
        skip_behind("*/", 2);
      } else {
        return;
      }
    }
  }
  void skip_behind(std::string_view closing, std::size_t opening_size) {
    const std::size_t found = text_.find(closing, at_ + opening_size);
    at_ = found == text_.npos ? text_.size() : found + closing.size();
  }

  std::string value() {
    skip_space();
    if (at_end()) fail_at_end();
    const char first = text_[at_];
    if (first == '"' || (first == '\'' && options_.allow_single_quotes))
      return describe_string(string());
    if (first == '-' || is_digit(first)) return number();
    if (first == 'I' && options_.allow_nan_inf)
      return literal("Infinity", describe_float(std::numeric_limits<double>::infinity()));
    if (first == 'N' && options_.allow_nan_inf)
      return literal("NaN", describe_float(std::numeric_limits<double>::quiet_NaN()));
    if (first == '[') return array();
    if (first == '{') return object();
    if (first == 't') return literal("true", "true");
    if (first == 'f') return literal("false", "false");
    if (first == 'n') return literal("null", "null");
    fail(2, std::string("unexpected character '") + first + "'");
  }

  std::string literal(std::string_view word, const std::string& meaning) {
    if (!next_is(word)) fail(11, "expected '" + std::string(word) + "'");
    at_ += word.size();
    return meaning;
  }

  // Numbers ------------------------------------------------------------------------------------

  std::string number() {
    const std::size_t start = at_;
    const bool negative = take('-');
    if (at_end()) fail(5, "invalid number");
    if (negative && options_.allow_nan_inf && next_is('I'))
      return literal("Infinity", describe_float(-std::numeric_limits<double>::infinity()));
    if (options_.allow_hex && (next_is("0x") || next_is("0X"))) return hexadecimal(negative);
    if (!next_is_digit()) fail(5, "invalid number");
    std::string whole;
    if (take('0'))
      whole = "0";
    else
      whole = digits();
    std::string fraction;
    std::string exponent;
    const bool has_fraction = take('.');
    if (has_fraction) fraction = digits_or_fail("expected digit after decimal point");
    const bool has_exponent = take('e') || take('E');
    if (has_exponent) {
      if (take('-'))
        exponent = "-";
      else
        take('+');
      exponent += digits_or_fail("expected digit in exponent");
    }
    if (!has_fraction && !has_exponent && !exceeds_64_bits(whole)) return integer(negative, whole);
    return floating(negative, whole, fraction, exponent, text_.substr(start, at_ - start));
  }

  std::string digits() {
    std::string result;
    while (next_is_digit()) result += text_[at_++];
    return result;
  }
  std::string digits_or_fail(const char* detail) {
    if (!next_is_digit()) fail(5, detail);
    return digits();
  }

  static bool exceeds_64_bits(const std::string& decimal) {
    Wide number = 0;
    for (const char digit : decimal) {
      number = number * 10 + static_cast<unsigned>(digit - '0');
      if (number >= kTwoTo64) return true;
    }
    return false;
  }

  static std::string integer(bool negative, const std::string& whole) {
    const std::uint64_t magnitude = std::stoull(whole);
    if (!negative && magnitude < kTwoTo63)
      return describe_integer(static_cast<std::int64_t>(magnitude));
    if (!negative) return describe_uinteger(magnitude);
    if (magnitude <= kTwoTo63) return describe_integer(static_cast<std::int64_t>(0 - magnitude));
    return describe_float(-static_cast<double>(magnitude));
  }

  std::string floating(bool negative, const std::string& whole, const std::string& fraction,
                       const std::string& exponent, std::string_view text) const {
    const bool truncated = !fraction.empty() && whole.size() + fraction.size() > 19;
    int power = 0;
    for (const char digit : exponent)
      if (digit != '-' && power < 400) power = power * 10 + (digit - '0');
    if (power > 400) power = 400;
    if (exponent.starts_with("-")) power = -power;
    power -= static_cast<int>(fraction.size());
    if (!truncated && !exceeds_64_bits(whole) && power >= -22 && power <= 22) {
      const auto mantissa = static_cast<double>(std::stoull(whole + fraction));
      const double magnitude =
          power < 0 ? mantissa / power_of_ten(-power) : mantissa * power_of_ten(power);
      return describe_float(negative ? -magnitude : magnitude);
    }
    double result = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), result);
    if (error != std::errc()) fail(5, "invalid number");
    return describe_float(result);
  }

  std::string hexadecimal(bool negative) {
    at_ += 2;
    if (at_end()) fail(5, "incomplete hex number");
    if (hex_value(text_[at_]) < 0) fail(5, "expected hex digit");
    Wide number = 0;
    bool too_large = false;
    for (; !at_end() && hex_value(text_[at_]) >= 0; ++at_) {
      number = number * 16 + static_cast<unsigned>(hex_value(text_[at_]));
      if (number >= kTwoTo64) too_large = true;
      if (too_large) number = 0;
    }
    if (too_large || (negative && number > kTwoTo63)) fail(53, "hex integer overflow");
    const auto magnitude = static_cast<std::uint64_t>(number);
    if (negative) return describe_integer(static_cast<std::int64_t>(0 - magnitude));
    if (number >= kTwoTo63) return describe_uinteger(magnitude);
    return describe_integer(static_cast<std::int64_t>(magnitude));
  }

  // Strings ------------------------------------------------------------------------------------

  std::string string() {
    const char quote = text_[at_++];
    const std::string_view stops = quote == '"' ? "\"\\" : "'\\";
    if (text_.find_first_of(stops, at_) == text_.npos) {
      at_ = text_.size();
      fail(6, "unterminated string");
    }
    std::string result;
    while (!at_end()) {
      const char byte = text_[at_];
      if (byte == quote) {
        ++at_;
        return result;
      }
      if (byte == '\\') {
        ++at_;
        result += escape();
      } else if (is_control(byte) && !options_.allow_control_chars) {
        fail(3, "unescaped control character in string");
      } else {
        result += byte;
        ++at_;
      }
    }
    fail(6, "unterminated string");
  }

  std::string escape() {
    if (at_end()) fail(3, "unterminated escape sequence");
    const char byte = text_[at_];
    constexpr std::string_view kNames = "\"\\/bfnrt";
    constexpr std::string_view kBytes = "\"\\/\b\f\n\r\t";
    if (byte == 'u') {
      ++at_;
      return unicode_escape();
    }
    std::string result;
    if (const std::size_t i = kNames.find(byte); i != kNames.npos)
      result = kBytes[i];
    else if (byte == '\'' && options_.allow_single_quotes)
      result = "'";
    else
      fail(3, std::string("invalid escape '\\") + byte + "'");
    ++at_;
    return result;
  }

  std::string unicode_escape() {
    const std::uint32_t unit = four_hex_digits();
    if (unit >= 0xdc00 && unit <= 0xdfff) fail(4, "unexpected low surrogate");
    if (unit < 0xd800 || unit > 0xdbff) return utf8(unit);
    if (!next_is("\\u")) fail(4, "missing low surrogate");
    at_ += 2;
    const std::uint32_t low = four_hex_digits();
    if (low < 0xdc00 || low > 0xdfff) fail(4, "invalid low surrogate value");
    return utf8(0x10000 + ((unit - 0xd800) << 10) + (low - 0xdc00));
  }

  std::uint32_t four_hex_digits() {
    if (text_.size() - at_ < 4) fail(4, "incomplete unicode escape");
    std::uint32_t unit = 0;
    for (int i = 0; i < 4; ++i, ++at_) {
      const int digit = hex_value(text_[at_]);
      if (digit < 0) fail(4, "invalid hex digit in unicode escape");
      unit = unit * 16 + static_cast<std::uint32_t>(digit);
    }
    return unit;
  }

  // Containers ---------------------------------------------------------------------------------

  void enter() {
    ++at_;
    ++depth_;
    if (depth_ > (options_.max_depth == 0 ? 512 : options_.max_depth))
      fail(10, "maximum nesting depth exceeded");
    skip_space();
  }

  std::string array() {
    enter();
    if (at_end()) fail(7, "unterminated array");
    std::string result = "[";
    bool more = !next_is(']');
    while (more) {
      result += value() + ",";
      skip_space();
      if (at_end()) fail(7, "unterminated array");
      if (!next_is(',') && !next_is(']')) fail(2, "expected ',' or ']' in array");
      more = goes_on(']');
    }
    ++at_;
    --depth_;
    return result + "]";
  }

  /// Behind an element: whether another one must follow.
  bool goes_on(char closing) {
    if (!take(',')) return false;
    skip_space();
    return !(options_.allow_trailing_commas && next_is(closing));
  }

  std::string object() {
    enter();
    if (at_end()) fail(8, "unterminated object");
    std::vector<std::pair<std::string, std::string>> members;
    bool more = !next_is('}');
    while (more) {
      skip_space();
      const std::string name = key();
      skip_space();
      if (at_end()) fail_at_end();
      if (!next_is(':')) fail(2, std::string("expected ':', got '") + text_[at_] + "'");
      ++at_;
      std::string content = value();
      add_member(members, name, std::move(content));
      skip_space();
      if (at_end()) fail(8, "unterminated object");
      if (!next_is(',') && !next_is('}')) fail(2, "expected ',' or '}' in object");
      more = goes_on('}');
    }
    ++at_;
    --depth_;
    std::string result = "{";
    for (const auto& [name, content] : members)
      result += describe_string(name) + "=" + content + ",";
    return result + "}";
  }

  void add_member(std::vector<std::pair<std::string, std::string>>& members,
                  const std::string& name, std::string content) const {
    for (std::size_t i = 0; i < members.size(); ++i) {
      if (members[i].first != name) continue;
      if (!options_.allow_duplicate_keys) fail(12, "duplicate key: \"" + name + "\"");
      members.erase(members.begin() + static_cast<std::ptrdiff_t>(i));
      break;
    }
    members.emplace_back(name, std::move(content));
  }

  std::string key() {
    if (next_is('"') || (options_.allow_single_quotes && next_is('\''))) return string();
    const auto in_identifier = [this](bool first) {
      if (at_end()) return false;
      const char byte = text_[at_];
      return is_letter(byte) || byte == '_' || byte == '$' || (!first && is_digit(byte));
    };
    if (!options_.allow_unquoted_keys || !in_identifier(true))
      fail(8, "expected string key in object");
    std::string result;
    while (in_identifier(false)) result += text_[at_++];
    return result;
  }

  std::string_view text_;
  ParseOptions options_;
  std::size_t at_ = 0;
  std::uint64_t depth_ = 0;
};

SlowResult refused(std::string_view text, const Refusal& refusal) {
  SlowResult result;
  result.code = refusal.code;
  result.offset = refusal.offset;
  result.line = 1;
  result.column = 1;
  for (std::size_t i = 0; i < refusal.offset; ++i) {
    ++result.column;
    if (text[i] == '\n') {
      ++result.line;
      result.column = 1;
    }
  }
  result.what = "JSON parse error at line " + std::to_string(result.line) + ", column " +
                std::to_string(result.column) + ": " + refusal.detail + ": " +
                json_category().message(refusal.code);
  // The text of an exception ends at its first NUL.
  result.what.resize(std::strlen(result.what.c_str()));
  return result;
}

}  // namespace

SlowResult slow_parse(std::string_view text, const ParseOptions& options) {
  try {
    SlowResult result;
    result.value = SlowParser(text, options).document();
    result.accepted = true;
    return result;
  } catch (const Refusal& refusal) {
    return refused(text, refusal);
  }
}

SlowResult real_parse(std::string_view text, const ParseOptions& options) {
  // The bytes end where their memory ends, so that a sanitizer sees a step beyond.
  const std::vector<char> bytes(text.begin(), text.end());
  SlowResult result;
  try {
    result.value = describe(parse({bytes.data(), bytes.size()}, options));
    result.accepted = true;
  } catch (const ParseError& error) {
    result.code = error.code().value();
    result.what = error.what();
    result.line = error.line();
    result.column = error.column();
    result.offset = error.offset();
  }
  return result;
}

std::string describe(const JsonValue& value) {
  switch (value.kind()) {
    case JsonKind::null:
      return "null";
    case JsonKind::boolean:
      return value.as_bool() ? "true" : "false";
    case JsonKind::integer:
      return describe_integer(value.as_int());
    case JsonKind::uinteger:
      return describe_uinteger(value.as_uint());
    case JsonKind::number:
      return describe_float(value.as_number());
    case JsonKind::string:
      return describe_string(value.as_string());
    case JsonKind::array: {
      std::string result = "[";
      for (const JsonValue& element : value.elements()) result += describe(element) + ",";
      return result + "]";
    }
    case JsonKind::object: {
      std::string result = "{";
      for (const JsonMember& member : value.members())
        result += describe_string(member.key()) + "=" + describe(member.value) + ",";
      return result + "}";
    }
  }
  return "unknown kind";
}

}  // namespace yajson::test
