#include "json/JsonParser.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <memory_resource>
#include <string>

namespace yajson {
namespace {

constexpr std::uint64_t kDefaultMaxDepth = 512;
constexpr std::uint64_t kSignBit = std::uint64_t{1} << 63;

constexpr double kPowersOfTen[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                   1e8,  1e9,  1e10, 1e11, 1e12, 1e13, 1e14, 1e15,
                                   1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
constexpr int kLargestExactPower = 22;
constexpr int kExponentLimit = 400;
constexpr int kMaxMantissaDigits = 19;

bool is_digit(char byte) { return static_cast<unsigned char>(byte - '0') < 10; }
bool is_control(char byte) { return static_cast<unsigned char>(byte) < 0x20; }
bool is_space(char byte) { return byte == ' ' || byte == '\n' || byte == '\t' || byte == '\r'; }
bool is_letter(char byte) { return static_cast<unsigned char>((byte | 0x20) - 'a') < 26; }
bool starts_identifier(char byte) { return is_letter(byte) || byte == '_' || byte == '$'; }

/// Value of a hex digit, or -1.
int hex_digit(char byte) {
  if (is_digit(byte)) return byte - '0';
  const int letter = (byte | 0x20) - 'a';
  return letter >= 0 && letter < 6 ? letter + 10 : -1;
}

}  // namespace

/// One parse of one text: recursive descent over the bytes, each value built where it stays.
class JsonParser {
 public:
  JsonParser(std::string_view text, const ParseOptions& options)
      : start_(text.data()),
        position_(start_),
        end_(start_ + text.size()),
        options_(options),
        max_depth_(options.max_depth != 0 ? options.max_depth : kDefaultMaxDepth),
        arena_(current_arena) {}

  JsonValue parse_document() {
    JsonValue root;
    parse_value(root);
    skip_space();
    if (position_ != end_) fail(json_errc::trailing_content, "unexpected trailing content");
    return root;
  }

 private:
  /// What the digits of a number said, before it is decided what becomes of it.
  struct Number {
    const char* begin = nullptr;
    std::uint64_t mantissa = 0;
    int digits = 0;           ///< that went into the mantissa
    int fraction_digits = 0;  ///< those of them behind the point
    int exponent = 0;
    bool negative = false;
    bool is_float = false;
    bool overflow = false;   ///< the integer part does not fit 64 bits
    bool truncated = false;  ///< fraction digits were left out of the mantissa
  };

  [[noreturn]] void fail(json_errc code, std::string_view detail) const {
    fail_at(position_, code, detail);
  }
  [[noreturn]] void fail_at(const char* place, json_errc code, std::string_view detail) const {
    const std::string_view text(start_, static_cast<std::size_t>(end_ - start_));
    throw ParseError(code, detail, text, static_cast<std::size_t>(place - start_));
  }
  [[noreturn]] void fail_at_end() const {
    fail_at(end_, json_errc::unexpected_end, "unexpected end of input");
  }
  [[noreturn]] void fail_unexpected() const {
    fail(json_errc::unexpected_character, std::string("unexpected character '") + *position_ + "'");
  }

  std::size_t remaining() const { return static_cast<std::size_t>(end_ - position_); }
  bool at_end() const { return position_ == end_; }
  bool next_is(char byte) const { return position_ != end_ && *position_ == byte; }

  void skip_space() {
    if (position_ != end_ && static_cast<unsigned char>(*position_) > ' ' &&
        !(options_.allow_comments && *position_ == '/'))
      return;
    skip_spaces_and_comments();
  }
  void skip_spaces_and_comments();
  bool skip_comment();

  void parse_value(JsonValue& value);
  void parse_literal(std::string_view literal);
  void expect(char wanted);

  void parse_number(JsonValue& value);
  bool parse_special_number(JsonValue& value, const Number& number);
  void parse_integer_part(Number& number);
  void parse_fraction(Number& number);
  void parse_exponent(Number& number);
  void parse_hex(JsonValue& value, bool negative);
  static void set_integer(JsonValue& value, const Number& number);
  void set_float(JsonValue& value, const Number& number) const;

  void parse_string(JsonValue& value);
  const char* find_string_end(char quote) const;
  void parse_escaped_string(JsonValue& value, char quote);
  void parse_escape(std::pmr::string& bytes);
  void parse_unicode_escape(std::pmr::string& bytes);
  std::uint32_t parse_hex4();
  void refuse_control_chars(const char* begin, const char* end) const;

  void enter();
  std::size_t estimate_size() const;
  bool next_element(char close, const char* unterminated, json_errc code, const char* separator);
  void parse_array(JsonValue& value);
  void parse_object(JsonValue& value);
  void parse_key(JsonValue& name);
  void refuse_duplicate(JsonObject& body) const;

  const char* const start_;
  const char* position_;
  const char* const end_;
  const ParseOptions options_;
  std::uint64_t depth_ = 0;
  const std::uint64_t max_depth_;
  MonotonicArena* const arena_;
  char scratch_bytes_[4096];
  std::pmr::monotonic_buffer_resource scratch_{scratch_bytes_, sizeof scratch_bytes_};
};

// White space and tokens -----------------------------------------------------------------------

void JsonParser::skip_spaces_and_comments() {
  do {
    while (position_ != end_ && is_space(*position_)) ++position_;
  } while (options_.allow_comments && skip_comment());
}

bool JsonParser::skip_comment() {
  if (remaining() < 2 || *position_ != '/') return false;
  const std::string_view rest(position_, remaining());
  std::size_t length;
  if (rest[1] == '/') {
    length = rest.find('\n', 2);
    if (length != rest.npos) length += 1;
  } else if (rest[1] == '*') {
    length = rest.find("*/", 2);
    if (length != rest.npos) length += 2;
  } else {
    return false;
  }
  position_ += std::min(length, rest.size());
  return true;
}

void JsonParser::parse_literal(std::string_view literal) {
  if (!std::string_view(position_, remaining()).starts_with(literal))
    fail(json_errc::invalid_literal, "expected '" + std::string(literal) + "'");
  position_ += literal.size();
}

void JsonParser::expect(char wanted) {
  if (at_end()) fail_at_end();
  if (*position_ != wanted)
    fail(json_errc::unexpected_character,
         std::string("expected '") + wanted + "', got '" + *position_ + "'");
  ++position_;
}

void JsonParser::parse_value(JsonValue& value) {
  skip_space();
  if (at_end()) fail_at_end();
  switch (*position_) {
    case '"':
      return parse_string(value);
    case '\'':
      if (options_.allow_single_quotes) return parse_string(value);
      break;
    case '{':
      return parse_object(value);
    case '[':
      return parse_array(value);
    case 't':
      parse_literal("true");
      value = JsonValue(true);
      return;
    case 'f':
      parse_literal("false");
      value = JsonValue(false);
      return;
    case 'n':
      return parse_literal("null");
    case 'N':
      if (!options_.allow_nan_inf) break;
      parse_literal("NaN");
      value = JsonValue(std::numeric_limits<double>::quiet_NaN());
      return;
    case 'I':
      if (!options_.allow_nan_inf) break;
      parse_literal("Infinity");
      value = JsonValue(std::numeric_limits<double>::infinity());
      return;
    default:
      if (*position_ == '-' || is_digit(*position_)) return parse_number(value);
      break;
  }
  fail_unexpected();
}

// Numbers --------------------------------------------------------------------------------------

void JsonParser::parse_number(JsonValue& value) {
  Number number;
  number.begin = position_;
  if (*position_ == '-') {
    number.negative = true;
    ++position_;
    if (at_end()) fail(json_errc::invalid_number, "invalid number");
  }
  if (parse_special_number(value, number)) return;
  parse_integer_part(number);
  if (next_is('.')) parse_fraction(number);
  if (next_is('e') || next_is('E')) parse_exponent(number);
  if (!number.is_float && !number.overflow)
    set_integer(value, number);
  else
    set_float(value, number);
}

/// -Infinity and hexadecimal integers, where they are allowed.
bool JsonParser::parse_special_number(JsonValue& value, const Number& number) {
  if (options_.allow_nan_inf && number.negative && *position_ == 'I') {
    parse_literal("Infinity");
    value = JsonValue(-std::numeric_limits<double>::infinity());
    return true;
  }
  if (options_.allow_hex && remaining() >= 2 && *position_ == '0' && (position_[1] | 0x20) == 'x') {
    position_ += 2;
    parse_hex(value, number.negative);
    return true;
  }
  return false;
}

void JsonParser::parse_integer_part(Number& number) {
  constexpr std::uint64_t kLimit = std::numeric_limits<std::uint64_t>::max() / 10;
  if (!is_digit(*position_)) fail(json_errc::invalid_number, "invalid number");
  if (*position_ == '0') {  // ends the integer part at once
    ++position_;
    number.digits = 1;
    return;
  }
  for (; !at_end() && is_digit(*position_); ++position_) {
    const auto digit = static_cast<unsigned>(*position_ - '0');
    if (number.mantissa > kLimit || (number.mantissa == kLimit && digit > 5)) {
      number.overflow = true;
      while (!at_end() && is_digit(*position_)) ++position_;
      return;
    }
    number.mantissa = number.mantissa * 10 + digit;
    ++number.digits;
  }
}

void JsonParser::parse_fraction(Number& number) {
  number.is_float = true;
  ++position_;
  if (at_end() || !is_digit(*position_))
    fail(json_errc::invalid_number, "expected digit after decimal point");
  for (; !at_end() && is_digit(*position_); ++position_) {
    if (number.digits >= kMaxMantissaDigits) {
      number.truncated = true;
      continue;
    }
    number.mantissa = number.mantissa * 10 + static_cast<unsigned>(*position_ - '0');
    ++number.digits;
    ++number.fraction_digits;
  }
}

void JsonParser::parse_exponent(Number& number) {
  number.is_float = true;
  ++position_;
  const bool negative = next_is('-');
  if (negative || next_is('+')) ++position_;
  if (at_end() || !is_digit(*position_))
    fail(json_errc::invalid_number, "expected digit in exponent");
  for (; !at_end() && is_digit(*position_); ++position_)
    number.exponent = std::min(number.exponent * 10 + (*position_ - '0'), kExponentLimit);
  if (negative) number.exponent = -number.exponent;
}

void JsonParser::set_integer(JsonValue& value, const Number& number) {
  const std::uint64_t magnitude = number.mantissa;
  if (!number.negative)
    value = magnitude < kSignBit ? JsonValue(static_cast<std::int64_t>(magnitude))
                                 : JsonValue(magnitude);
  else if (magnitude <= kSignBit)
    value = JsonValue(static_cast<std::int64_t>(-magnitude));
  else
    value = JsonValue(-static_cast<double>(magnitude));
}

void JsonParser::set_float(JsonValue& value, const Number& number) const {
  const int exponent = number.exponent - number.fraction_digits;
  double result;
  if (!number.overflow && !number.truncated && std::abs(exponent) <= kLargestExactPower) {
    // Mantissas above 2^53 are rounded here; that error is accepted.
    result = static_cast<double>(number.mantissa);
    result = exponent < 0 ? result / kPowersOfTen[-exponent] : result * kPowersOfTen[exponent];
    if (number.negative) result = -result;
  } else {
    const auto [end, error] = std::from_chars(number.begin, position_, result);
    if (error != std::errc()) fail(json_errc::invalid_number, "invalid number");
  }
  value = JsonValue(result);
}

void JsonParser::parse_hex(JsonValue& value, bool negative) {
  if (at_end()) fail(json_errc::invalid_number, "incomplete hex number");
  const char* const begin = position_;
  std::uint64_t magnitude = 0;
  bool overflow = false;
  for (; !at_end() && hex_digit(*position_) >= 0; ++position_) {
    overflow = overflow || magnitude >> 60 != 0;
    magnitude = magnitude << 4 | static_cast<unsigned>(hex_digit(*position_));
  }
  if (position_ == begin) fail(json_errc::invalid_number, "expected hex digit");
  if (overflow || (negative && magnitude > kSignBit))
    fail(json_errc::integer_overflow, "hex integer overflow");
  Number number;
  number.mantissa = magnitude;
  number.negative = negative;
  set_integer(value, number);
}

// Strings --------------------------------------------------------------------------------------

/// The first closing quote or backslash, or the end of the text.
const char* JsonParser::find_string_end(char quote) const {
  const char* place = position_;
  while (place != end_ && *place != quote && *place != '\\') ++place;
  return place;
}

void JsonParser::refuse_control_chars(const char* begin, const char* end) const {
  if (options_.allow_control_chars) return;
  const char* const bad = std::find_if(begin, end, is_control);
  if (bad != end) fail_at(bad, json_errc::invalid_escape, "unescaped control character in string");
}

void JsonParser::parse_string(JsonValue& value) {
  const char quote = *position_++;
  const char* const stop = find_string_end(quote);
  if (stop == end_) fail_at(end_, json_errc::unterminated_string, "unterminated string");
  if (*stop == '\\') return parse_escaped_string(value, quote);
  refuse_control_chars(position_, stop);
  value =
      JsonValue(std::string_view(position_, static_cast<std::size_t>(stop - position_)), arena_);
  position_ = stop + 1;
}

void JsonParser::parse_escaped_string(JsonValue& value, char quote) {
  std::pmr::string bytes(&scratch_);
  for (;;) {
    const char* const stop = find_string_end(quote);
    refuse_control_chars(position_, stop);
    bytes.append(position_, stop);
    position_ = stop;
    if (at_end()) fail(json_errc::unterminated_string, "unterminated string");
    ++position_;
    if (*stop == quote) break;
    parse_escape(bytes);
  }
  value = JsonValue(bytes, arena_);
}

/// The position is behind the backslash.
void JsonParser::parse_escape(std::pmr::string& bytes) {
  if (at_end()) fail(json_errc::invalid_escape, "unterminated escape sequence");
  const char byte = *position_;
  switch (byte) {
    case '"':
    case '\\':
    case '/':
      bytes += byte;
      break;
    case 'b':
      bytes += '\b';
      break;
    case 'f':
      bytes += '\f';
      break;
    case 'n':
      bytes += '\n';
      break;
    case 'r':
      bytes += '\r';
      break;
    case 't':
      bytes += '\t';
      break;
    case 'u':
      ++position_;
      return parse_unicode_escape(bytes);
    default:
      if (byte != '\'' || !options_.allow_single_quotes)
        fail(json_errc::invalid_escape, std::string("invalid escape '\\") + byte + "'");
      bytes += byte;
      break;
  }
  ++position_;
}

std::uint32_t JsonParser::parse_hex4() {
  if (remaining() < 4) fail(json_errc::invalid_unicode_escape, "incomplete unicode escape");
  std::uint32_t unit = 0;
  for (int i = 0; i < 4; ++i, ++position_) {
    const int digit = hex_digit(*position_);
    if (digit < 0) fail(json_errc::invalid_unicode_escape, "invalid hex digit in unicode escape");
    unit = unit << 4 | static_cast<std::uint32_t>(digit);
  }
  return unit;
}

/// The position is behind the u. Writes the code point as UTF-8.
void JsonParser::parse_unicode_escape(std::pmr::string& bytes) {
  std::uint32_t point = parse_hex4();
  if (point >= 0xdc00 && point <= 0xdfff)
    fail(json_errc::invalid_unicode_escape, "unexpected low surrogate");
  if (point >= 0xd800 && point <= 0xdbff) {
    if (!std::string_view(position_, remaining()).starts_with("\\u"))
      fail(json_errc::invalid_unicode_escape, "missing low surrogate");
    position_ += 2;
    const std::uint32_t low = parse_hex4();
    if (low < 0xdc00 || low > 0xdfff)
      fail(json_errc::invalid_unicode_escape, "invalid low surrogate value");
    point = 0x10000 + ((point - 0xd800) << 10) + (low - 0xdc00);
  }
  const auto put = [&bytes](std::uint32_t byte) { bytes += static_cast<char>(byte); };
  if (point < 0x80) return put(point);
  if (point < 0x800) {
    put(0xc0 | point >> 6);
  } else {
    if (point < 0x10000) {
      put(0xe0 | point >> 12);
    } else {
      put(0xf0 | point >> 18);
      put(0x80 | (point >> 12 & 0x3f));
    }
    put(0x80 | (point >> 6 & 0x3f));
  }
  put(0x80 | (point & 0x3f));
}

// Arrays and objects ---------------------------------------------------------------------------

/// The position is behind the opening bracket.
void JsonParser::enter() {
  if (++depth_ > max_depth_) fail(json_errc::max_depth_exceeded, "maximum nesting depth exceeded");
  skip_space();
}

/// How many elements to reserve room for: near the root, where a wrong guess is dear, the commas of
/// this level are counted a little way ahead.
std::size_t JsonParser::estimate_size() const {
  constexpr std::size_t kLeast = 8;
  constexpr std::size_t kLookAhead = 512;
  if (depth_ > 2 || remaining() <= 256) return kLeast;
  const char* const stop = position_ + std::min(remaining(), kLookAhead);
  std::size_t count = 1;
  std::size_t level = 0;
  bool in_string = false;
  for (const char* place = position_; place < stop; ++place) {
    const char byte = *place;
    if (byte == '"') in_string = !in_string;
    if (in_string) {
      if (byte == '\\') ++place;
    } else if (byte == '[' || byte == '{') {
      ++level;
    } else if (byte == ']' || byte == '}') {
      if (level-- == 0) break;
    } else if (byte == ',' && level == 0) {
      ++count;
    }
  }
  return std::max(count, kLeast);
}

/// Behind an element: true when another one follows, false behind the closing bracket.
bool JsonParser::next_element(char close, const char* unterminated, json_errc code,
                              const char* separator) {
  skip_space();
  if (at_end()) fail(code, unterminated);
  if (*position_ == ',') {
    ++position_;
    skip_space();
    if (!options_.allow_trailing_commas || !next_is(close)) return true;
  }
  if (*position_ != close) fail(json_errc::unexpected_character, separator);
  ++position_;
  --depth_;
  return false;
}

void JsonParser::parse_array(JsonValue& value) {
  constexpr auto kUnterminated = "unterminated array";
  ++position_;
  enter();
  if (at_end()) fail(json_errc::unterminated_array, kUnterminated);
  value = JsonValue::array(arena_);
  if (*position_ == ']') {
    ++position_;
    --depth_;
    return;
  }
  JsonArray& body = value.as_array();
  body.reserve(estimate_size());
  do {
    parse_value(body.append());
  } while (next_element(']', kUnterminated, json_errc::unterminated_array,
                        "expected ',' or ']' in array"));
}

void JsonParser::parse_object(JsonValue& value) {
  constexpr auto kUnterminated = "unterminated object";
  ++position_;
  enter();
  if (at_end()) fail(json_errc::unterminated_object, kUnterminated);
  value = JsonValue::object(arena_);
  if (*position_ == '}') {
    ++position_;
    --depth_;
    return;
  }
  JsonObject& body = value.as_object();
  body.reserve(estimate_size());
  do {
    skip_space();
    JsonMember& member = body.append();
    parse_key(member.name);
    skip_space();
    expect(':');
    parse_value(member.value);
    if (!options_.allow_duplicate_keys) refuse_duplicate(body);
  } while (next_element('}', kUnterminated, json_errc::unterminated_object,
                        "expected ',' or '}' in object"));
  body.settle();
}

void JsonParser::parse_key(JsonValue& name) {
  if (next_is('"') || (options_.allow_single_quotes && next_is('\''))) return parse_string(name);
  if (!options_.allow_unquoted_keys || at_end() || !starts_identifier(*position_))
    fail(json_errc::unterminated_object, "expected string key in object");
  const char* const begin = position_;
  while (!at_end() && (starts_identifier(*position_) || is_digit(*position_))) ++position_;
  name = JsonValue(std::string_view(begin, static_cast<std::size_t>(position_ - begin)), arena_);
}

/// Judges the key of the newest member.
void JsonParser::refuse_duplicate(JsonObject& body) const {
  const JsonMember& newest = body.end()[-1];
  for (const JsonMember& member : std::span(body.begin(), body.size() - 1))
    if (member.key() == newest.key())
      fail(json_errc::duplicate_key, "duplicate key: \"" + std::string(newest.key()) + "\"");
}

// ----------------------------------------------------------------------------------------------

JsonValue parse(std::string_view text, const ParseOptions& options) {
  return JsonParser(text, options).parse_document();
}

ParseResult try_parse(std::string_view text, const ParseOptions& options) noexcept {
  try {
    return {parse(text, options), {}};
  } catch (const ParseError& error) {
    return {JsonValue(), error.code()};
  } catch (...) {
    return {JsonValue(), make_error_code(json_errc::unexpected_character)};
  }
}

}  // namespace yajson
