#include "json/JsonParser.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <limits>
#include <memory_resource>
#include <string>

#include "json/ByteScan.h"

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

/// What the digits of a number said, before it is decided what becomes of it.
struct Number {
  const char* begin = nullptr;
  std::uint64_t mantissa = 0;
  int digits = 0;           ///< that went into the mantissa
  int fraction_digits = 0;  ///< those of them behind the point
  int exponent = 0;
  bool negative = false;
  bool overflow = false;   ///< the integer part does not fit 64 bits
  bool truncated = false;  ///< fraction digits were left out of the mantissa
};

void append_utf8(std::pmr::string& bytes, std::uint32_t point) {
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

/// Counts the elements of an array or object, from the first one on, by their commas.
class ElementCounter {
 public:
  /// Looks at the bytes up to `stop` or to the closing bracket; returns the number of elements
  /// begun.
  std::size_t count(const char* place, const char* stop) {
    while (!closed_ && stop - place >= kBlock) place = take_block(place);
    if (!closed_) take_bytes(place, stop);
    return count_;
  }

 private:
  static constexpr std::ptrdiff_t kBlock = 64;

  /// Bits of the quotes become bits of the bytes between them, opening quotes included.
  static std::uint64_t between_quotes(std::uint64_t quotes) {
    quotes ^= quotes << 1;
    quotes ^= quotes << 2;
    quotes ^= quotes << 4;
    quotes ^= quotes << 8;
    quotes ^= quotes << 16;
    return quotes ^ quotes << 32;
  }

  /// Where in a block of 64 bytes there is what counts; bit i stands for byte i.
  struct Masks {
    std::uint64_t quotes = 0, backslashes = 0, commas = 0, opening = 0, closing = 0;

    void take(const char* block, int offset) {
      const Bytes16 bytes(block + offset);
      const Bytes16 folded = bytes.with_bits(0x20);  // '[' becomes '{' and ']' becomes '}'
      quotes |= std::uint64_t{bytes.equal('"')} << offset;
      backslashes |= std::uint64_t{bytes.equal('\\')} << offset;
      commas |= std::uint64_t{bytes.equal(',')} << offset;
      opening |= std::uint64_t{folded.equal('{')} << offset;
      closing |= std::uint64_t{folded.equal('}')} << offset;
    }
  };

  const char* take_block(const char* place) {
    Masks masks;
    masks.take(place, 0);
    masks.take(place, 16);
    masks.take(place, 32);
    masks.take(place, 48);
    if (masks.backslashes != 0) return take_bytes(place, place + kBlock);
    const std::uint64_t strings =
        between_quotes(masks.quotes) ^ (in_string_ ? ~std::uint64_t{0} : 0);
    in_string_ = strings >> 63 != 0;
    take_masks(masks.commas & ~strings, masks.opening & ~strings, masks.closing & ~strings);
    return place + kBlock;
  }

  void take_masks(std::uint64_t commas, std::uint64_t opening, std::uint64_t closing) {
    for (std::uint64_t brackets = opening | closing; brackets != 0; brackets &= brackets - 1) {
      const std::uint64_t bracket = brackets & -brackets;
      const std::uint64_t before = bracket - 1;
      if (level_ == 0) count_ += static_cast<std::size_t>(std::popcount(commas & before));
      commas &= ~before;
      if ((opening & bracket) != 0)
        ++level_;
      else if (level_-- == 0)
        return void(closed_ = true);
    }
    if (level_ == 0) count_ += static_cast<std::size_t>(std::popcount(commas));
  }

  const char* take_bytes(const char* place, const char* stop) {
    for (; place < stop; ++place) {
      const char byte = *place;
      if (byte == '"') in_string_ = !in_string_;
      if (in_string_) {
        if (byte == '\\') ++place;
      } else if (byte == '[' || byte == '{') {
        ++level_;
      } else if (byte == ']' || byte == '}') {
        if (level_-- == 0) {
          closed_ = true;
          break;
        }
      } else if (byte == ',' && level_ == 0) {
        ++count_;
      }
    }
    return place;
  }

  std::size_t count_ = 1;
  std::size_t level_ = 0;
  bool in_string_ = false;
  bool closed_ = false;
};

/// Tells most keys of an object apart without comparing them: a key whose bit is not yet taken is
/// new.
class KeyFilter {
 public:
  /// True when an equal key may have been seen before.
  bool test_and_set(const JsonValue& name) noexcept {
    const auto [first, second] = name.string_words();
    const std::uint64_t hash = (first ^ std::rotl(second, 23)) * 0x9e3779b97f4a7c15;
    const std::uint64_t bit = std::uint64_t{1} << (hash >> 58);
    const bool taken = (bits_ & bit) != 0;
    bits_ |= bit;
    return taken;
  }

 private:
  std::uint64_t bits_ = 0;
};

}  // namespace

/// One parse of one text: recursive descent over the bytes, each value built where it stays.
///
/// Every step is given the place where it starts and returns the place where it ends, so that the
/// place lives in a register. kRelaxed is false for strict JSON (with or without repeated keys),
/// which is all that the controller reads; the relaxed syntax then costs nothing.
template <bool kRelaxed>
class JsonParser {
 public:
  JsonParser(std::string_view text, const ParseOptions& options)
      : start_(text.data()),
        end_(start_ + text.size()),
        options_(options),
        max_depth_(options.max_depth != 0 ? options.max_depth : kDefaultMaxDepth),
        arena_(current_arena) {}

  JsonValue parse_document() {
    JsonValue root;
    const char* place = parse_value(start_, root);
    place = skip_space(place);
    if (place != end_) fail(place, json_errc::trailing_content, "unexpected trailing content");
    return root;
  }

 private:
  [[noreturn, gnu::cold]] void fail(const char* place, json_errc code,
                                    std::string_view detail) const {
    const std::string_view text(start_, static_cast<std::size_t>(end_ - start_));
    throw ParseError(code, detail, text, static_cast<std::size_t>(place - start_));
  }
  [[noreturn, gnu::cold]] void fail_unexpected(const char* place) const {
    fail(place, json_errc::unexpected_character,
         std::string("unexpected character '") + *place + "'");
  }

  [[noreturn, gnu::cold]] void fail_expected(const char* place, char wanted) const {
    fail(place, json_errc::unexpected_character,
         std::string("expected '") + wanted + "', got '" + *place + "'");
  }

  std::size_t remaining(const char* place) const { return static_cast<std::size_t>(end_ - place); }
  bool is_at(const char* place, char byte) const { return place != end_ && *place == byte; }
  bool is_digit_at(const char* place) const { return place != end_ && is_digit(*place); }
  bool is_text_at(const char* place, std::string_view text) const {
    return remaining(place) >= text.size() && std::memcmp(place, text.data(), text.size()) == 0;
  }

  /// Whether something other than white space begins here for certain.
  bool is_token_at(const char* place) const {
    return place != end_ && static_cast<unsigned char>(*place) > ' ' &&
           !(kRelaxed && options_.allow_comments && *place == '/');
  }
  const char* skip_space(const char* place) const {
    if (is_token_at(place)) [[likely]]
      return place;
    return skip_spaces_and_comments(place);
  }
  /// The same to a byte that must be there.
  const char* skip_space_to_token(const char* place, json_errc code,
                                  std::string_view missing) const {
    if (is_token_at(place)) [[likely]]
      return place;
    place = skip_spaces_and_comments(place);
    if (place == end_) fail(end_, code, missing);
    return place;
  }
  const char* skip_spaces_and_comments(const char* place) const;
  const char* skip_spaces(const char* place) const;
  const char* skip_comment(const char* place) const;

  const char* parse_value(const char* place, JsonValue& value);
  const char* parse_relaxed_value(const char* place, JsonValue& value);
  const char* parse_literal(const char* place, std::string_view literal) const;
  const char* skip_to_value(const char* place) const {
    return skip_space_to_token(place, json_errc::unexpected_end, "unexpected end of input");
  }
  const char* expect(const char* place, char wanted) const;

  const char* parse_short_integer(const char* place, JsonValue& value) const;
  const char* parse_number(const char* place, JsonValue& value) const;
  bool is_hex_at(const char* place) const {
    return options_.allow_hex && remaining(place) >= 2 && *place == '0' && (place[1] | 0x20) == 'x';
  }
  const char* parse_integer_part(const char* place, Number& number) const;
  const char* parse_fraction(const char* place, Number& number) const;
  const char* parse_exponent(const char* place, Number& number) const;
  const char* parse_hex(const char* place, bool negative, JsonValue& value) const;
  static void set_integer(JsonValue& value, std::uint64_t magnitude, bool negative);
  void set_float(JsonValue& value, const Number& number, const char* end) const;

  const char* parse_string(const char* place, JsonValue& value);
  const char* parse_any_string(const char* place, JsonValue& value);
  const char* find_string_end(const char* place, char quote) const;
  const char* parse_escaped_string(const char* place, char quote, JsonValue& value);
  const char* parse_escape(const char* place, std::pmr::string& bytes) const;
  const char* parse_unicode_escape(const char* place, std::pmr::string& bytes) const;
  const char* parse_hex4(const char* place, std::uint32_t& unit) const;
  void refuse_control_chars(const char* begin, const char* end) const;

  const char* enter(const char* place, json_errc code, std::string_view unterminated);
  std::size_t estimate_size(const char* place) const;
  bool has_next(const char*& place, char close, json_errc code, std::string_view unterminated,
                std::string_view separator) const;
  const char* parse_array(const char* place, JsonValue& value);
  const char* parse_object(const char* place, JsonValue& value);
  const char* parse_key(const char* place, JsonValue& name);
  bool is_repeated(const JsonMember& newest, const JsonObject& body, KeyFilter& filter) const;
  void refuse_repeated(JsonObject& body, bool repeated, const char* place) const;

  const char* const start_;
  const char* const end_;
  const ParseOptions options_;
  std::uint64_t depth_ = 0;
  const std::uint64_t max_depth_;
  MonotonicArena* const arena_;
  char scratch_bytes_[4096];
  std::pmr::monotonic_buffer_resource scratch_{scratch_bytes_, sizeof scratch_bytes_};
};

// White space and tokens -----------------------------------------------------------------------

template <bool kRelaxed>
const char* JsonParser<kRelaxed>::skip_spaces(const char* place) const {
  if (is_at(place, ' ') && place + 1 != end_ && !is_space(place[1])) return place + 1;
  while (remaining(place) >= Bytes16::kCount) {  // indentation comes in long runs
    const unsigned others = Bytes16(place).non_spaces();
    if (others != 0) return place + std::countr_zero(others);
    place += Bytes16::kCount;
  }
  while (place != end_ && is_space(*place)) ++place;
  return place;
}

template <bool kRelaxed>
const char* JsonParser<kRelaxed>::skip_spaces_and_comments(const char* place) const {
  place = skip_spaces(place);
  if constexpr (kRelaxed) {
    while (options_.allow_comments) {
      const char* const behind = skip_comment(place);
      if (behind == place) break;
      place = skip_spaces(behind);
    }
  }
  return place;
}

/// The place itself when no comment begins there. One that is not closed runs to the end.
template <bool kRelaxed>
const char* JsonParser<kRelaxed>::skip_comment(const char* place) const {
  const std::string_view rest(place, remaining(place));
  std::string_view close;
  if (rest.starts_with("//"))
    close = "\n";
  else if (rest.starts_with("/*"))
    close = "*/";
  else
    return place;
  const std::size_t length = rest.find(close, 2);
  return length == rest.npos ? end_ : place + length + close.size();
}

template <bool kRelaxed>
const char* JsonParser<kRelaxed>::parse_literal(const char* place, std::string_view literal) const {
  if (!is_text_at(place, literal))
    fail(place, json_errc::invalid_literal, "expected '" + std::string(literal) + "'");
  return place + literal.size();
}

/// White space before the wanted byte is skipped.
template <bool kRelaxed>
[[gnu::always_inline]] inline const char* JsonParser<kRelaxed>::expect(const char* place,
                                                                       char wanted) const {
  place = skip_to_value(place);
  if (*place != wanted) fail_expected(place, wanted);
  return place + 1;
}

/// The value must be null; white space before it is skipped.
template <bool kRelaxed>
[[gnu::always_inline]] inline const char* JsonParser<kRelaxed>::parse_value(const char* place,
                                                                            JsonValue& value) {
  place = skip_to_value(place);
  const char byte = *place;
  if (byte == '"') return parse_string(place, value);
  if (byte == '-' || is_digit(byte)) {
    const char* const end = parse_short_integer(place, value);
    return end != nullptr ? end : parse_number(place, value);
  }
  switch (byte) {
    case '{':
      return parse_object(place, value);
    case '[':
      return parse_array(place, value);
    case 't':
      place = parse_literal(place, "true");
      value = JsonValue(true);
      return place;
    case 'f':
      place = parse_literal(place, "false");
      value = JsonValue(false);
      return place;
    case 'n':
      return parse_literal(place, "null");
    default:
      if constexpr (kRelaxed) return parse_relaxed_value(place, value);
      fail_unexpected(place);
  }
}

template <bool kRelaxed>
const char* JsonParser<kRelaxed>::parse_relaxed_value(const char* place, JsonValue& value) {
  if (*place == '\'' && options_.allow_single_quotes) return parse_string(place, value);
  if (*place == 'N' && options_.allow_nan_inf) {
    place = parse_literal(place, "NaN");
    value.become_number(std::numeric_limits<double>::quiet_NaN());
    return place;
  }
  if (*place == 'I' && options_.allow_nan_inf) {
    place = parse_literal(place, "Infinity");
    value.become_number(std::numeric_limits<double>::infinity());
    return place;
  }
  fail_unexpected(place);
}

// Numbers --------------------------------------------------------------------------------------

/// Integers of up to seven digits, as nearly all numbers of a message are; null for any other one.
/// Digit by digit: how many there are is mostly guessed right, and the next step need not wait
/// then.
template <bool kRelaxed>
[[gnu::always_inline]] inline const char* JsonParser<kRelaxed>::parse_short_integer(
    const char* place, JsonValue& value) const {
  constexpr std::size_t kMostDigits = 7;
  const bool negative = *place == '-';
  place += negative;
  if (remaining(place) <= kMostDigits || !is_digit(*place)) [[unlikely]]
    return nullptr;
  const char* const last = *place != '0' ? place + kMostDigits : place + 1;
  std::int64_t magnitude = 0;
  do {
    magnitude = magnitude * 10 + (*place++ - '0');
  } while (place != last && is_digit(*place));
  const char next = static_cast<char>(*place | 0x20);
  if (is_digit(next) || next == '.' || next == 'e' || next == 'x') [[unlikely]]
    return nullptr;
  value.become_integer(negative ? -magnitude : magnitude);
  return place;
}

template <bool kRelaxed>
[[gnu::noinline]] const char* JsonParser<kRelaxed>::parse_number(const char* place,
                                                                 JsonValue& value) const {
  Number number;
  number.begin = place;
  if (*place == '-') {
    number.negative = true;
    if (++place == end_) fail(place, json_errc::invalid_number, "invalid number");
    if (kRelaxed && options_.allow_nan_inf && *place == 'I') {
      place = parse_literal(place, "Infinity");
      value.become_number(-std::numeric_limits<double>::infinity());
      return place;
    }
  }
  if (kRelaxed && is_hex_at(place)) return parse_hex(place + 2, number.negative, value);
  place = parse_integer_part(place, number);
  const bool has_fraction = is_at(place, '.');
  if (has_fraction) place = parse_fraction(place, number);
  const bool has_exponent = is_at(place, 'e') || is_at(place, 'E');
  if (has_exponent) place = parse_exponent(place, number);
  if (has_fraction || has_exponent || number.overflow) [[unlikely]]
    set_float(value, number, place);
  else
    set_integer(value, number.mantissa, number.negative);
  return place;
}

template <bool kRelaxed>
[[gnu::always_inline]] inline const char* JsonParser<kRelaxed>::parse_integer_part(
    const char* place, Number& number) const {
  constexpr std::uint64_t kLimit = std::numeric_limits<std::uint64_t>::max() / 10;
  const char* const begin = place;
  if (!is_digit(*place)) fail(place, json_errc::invalid_number, "invalid number");
  if (*place == '0') {  // ends the integer part at once
    number.digits = 1;
    return place + 1;
  }
  std::uint64_t mantissa = 0;
  for (; is_digit_at(place); ++place) {
    const auto digit = static_cast<unsigned>(*place - '0');
    if (mantissa >= kLimit && (mantissa > kLimit || digit > 5)) [[unlikely]] {
      number.overflow = true;
      while (is_digit_at(place)) ++place;
      return place;
    }
    mantissa = mantissa * 10 + digit;
  }
  number.mantissa = mantissa;
  number.digits = static_cast<int>(place - begin);
  return place;
}

template <bool kRelaxed>
const char* JsonParser<kRelaxed>::parse_fraction(const char* place, Number& number) const {
  ++place;
  if (!is_digit_at(place))
    fail(place, json_errc::invalid_number, "expected digit after decimal point");
  for (; is_digit_at(place); ++place) {
    if (number.digits >= kMaxMantissaDigits) {
      number.truncated = true;
      continue;
    }
    number.mantissa = number.mantissa * 10 + static_cast<unsigned>(*place - '0');
    ++number.digits;
    ++number.fraction_digits;
  }
  return place;
}

template <bool kRelaxed>
const char* JsonParser<kRelaxed>::parse_exponent(const char* place, Number& number) const {
  ++place;
  const bool negative = is_at(place, '-');
  if (negative || is_at(place, '+')) ++place;
  if (!is_digit_at(place)) fail(place, json_errc::invalid_number, "expected digit in exponent");
  for (; is_digit_at(place); ++place)
    number.exponent = std::min(number.exponent * 10 + (*place - '0'), kExponentLimit);
  if (negative) number.exponent = -number.exponent;
  return place;
}

template <bool kRelaxed>
void JsonParser<kRelaxed>::set_integer(JsonValue& value, std::uint64_t magnitude, bool negative) {
  if (magnitude < kSignBit) [[likely]] {
    const auto number = static_cast<std::int64_t>(magnitude);
    value.become_integer(negative ? -number : number);
  } else if (!negative) {
    value = JsonValue(magnitude);
  } else if (magnitude == kSignBit) {
    value.become_integer(std::numeric_limits<std::int64_t>::min());
  } else {
    value.become_number(-static_cast<double>(magnitude));
  }
}

template <bool kRelaxed>
void JsonParser<kRelaxed>::set_float(JsonValue& value, const Number& number,
                                     const char* end) const {
  const int exponent = number.exponent - number.fraction_digits;
  double result = 0;
  if (!number.overflow && !number.truncated && exponent >= -kLargestExactPower &&
      exponent <= kLargestExactPower) {
    // Mantissas above 2^53 are rounded here; that error is accepted.
    result = static_cast<double>(number.mantissa);
    result = exponent < 0 ? result / kPowersOfTen[-exponent] : result * kPowersOfTen[exponent];
    if (number.negative) result = -result;
  } else if (std::from_chars(number.begin, end, result).ec != std::errc()) {
    fail(end, json_errc::invalid_number, "invalid number");
  }
  value.become_number(result);
}

template <bool kRelaxed>
const char* JsonParser<kRelaxed>::parse_hex(const char* place, bool negative,
                                            JsonValue& value) const {
  if (place == end_) fail(place, json_errc::invalid_number, "incomplete hex number");
  const char* const begin = place;
  std::uint64_t magnitude = 0;
  bool overflow = false;
  for (; place != end_ && hex_digit(*place) >= 0; ++place) {
    overflow = overflow || magnitude >> 60 != 0;
    magnitude = magnitude << 4 | static_cast<unsigned>(hex_digit(*place));
  }
  if (place == begin) fail(place, json_errc::invalid_number, "expected hex digit");
  if (overflow || (negative && magnitude > kSignBit))
    fail(place, json_errc::integer_overflow, "hex integer overflow");
  set_integer(value, magnitude, negative);
  return place;
}

// Strings --------------------------------------------------------------------------------------

/// The place is at the opening quote. Strings without escapes that end well before the text does
/// are found and copied 16 bytes at a time; all others, broken ones included, take the long way.
template <bool kRelaxed>
[[gnu::always_inline]] inline const char* JsonParser<kRelaxed>::parse_string(const char* place,
                                                                             JsonValue& value) {
  const char* const begin = place + 1;
  if (remaining(place) <= Bytes16::kCount || (kRelaxed && *place != '"')) [[unlikely]]
    return parse_any_string(place, value);
  const Bytes16 bytes(begin);
  unsigned stops = bytes.string_stops();
  if (stops != 0) [[likely]] {
    const auto length = static_cast<std::size_t>(std::countr_zero(stops));
    if (begin[length] != '"') [[unlikely]]
      return parse_any_string(place, value);
    value.become_inline_string(bytes, length);
    return begin + length + 1;
  }
  const char* stop = begin;
  do {
    stop += Bytes16::kCount;
    if (remaining(stop) < Bytes16::kCount) return parse_any_string(place, value);
    stops = Bytes16(stop).string_stops();
  } while (stops == 0);
  stop += std::countr_zero(stops);
  if (*stop != '"') [[unlikely]]
    return parse_any_string(place, value);
  value.become_long_string(begin, static_cast<std::size_t>(stop - begin), arena_);
  return stop + 1;
}

template <bool kRelaxed>
[[gnu::noinline]] const char* JsonParser<kRelaxed>::parse_any_string(const char* place,
                                                                     JsonValue& value) {
  const char quote = *place++;
  const char* const stop = find_string_end(place, quote);
  if (stop == end_) fail(end_, json_errc::unterminated_string, "unterminated string");
  if (*stop == '\\') return parse_escaped_string(place, quote, value);
  refuse_control_chars(place, stop);
  value = JsonValue(std::string_view(place, static_cast<std::size_t>(stop - place)), arena_);
  return stop + 1;
}

/// The first closing quote or backslash, or the end of the text.
template <bool kRelaxed>
const char* JsonParser<kRelaxed>::find_string_end(const char* place, char quote) const {
  while (place != end_ && *place != quote && *place != '\\') ++place;
  return place;
}

template <bool kRelaxed>
void JsonParser<kRelaxed>::refuse_control_chars(const char* begin, const char* end) const {
  if (kRelaxed && options_.allow_control_chars) return;
  const char* const bad = std::find_if(begin, end, is_control);
  if (bad != end) fail(bad, json_errc::invalid_escape, "unescaped control character in string");
}

/// The place is behind the opening quote.
template <bool kRelaxed>
const char* JsonParser<kRelaxed>::parse_escaped_string(const char* place, char quote,
                                                       JsonValue& value) {
  std::pmr::string bytes(&scratch_);
  for (;;) {
    const char* const stop = find_string_end(place, quote);
    refuse_control_chars(place, stop);
    bytes.append(place, stop);
    if (stop == end_) fail(end_, json_errc::unterminated_string, "unterminated string");
    place = stop + 1;
    if (*stop == quote) break;
    place = parse_escape(place, bytes);
  }
  value = JsonValue(bytes, arena_);
  return place;
}

/// The place is behind the backslash.
template <bool kRelaxed>
const char* JsonParser<kRelaxed>::parse_escape(const char* place, std::pmr::string& bytes) const {
  if (place == end_) fail(place, json_errc::invalid_escape, "unterminated escape sequence");
  const char byte = *place;
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
      return parse_unicode_escape(place + 1, bytes);
    default:
      if (byte != '\'' || !options_.allow_single_quotes)
        fail(place, json_errc::invalid_escape, std::string("invalid escape '\\") + byte + "'");
      bytes += byte;
      break;
  }
  return place + 1;
}

template <bool kRelaxed>
const char* JsonParser<kRelaxed>::parse_hex4(const char* place, std::uint32_t& unit) const {
  if (remaining(place) < 4)
    fail(place, json_errc::invalid_unicode_escape, "incomplete unicode escape");
  unit = 0;
  for (const char* const end = place + 4; place != end; ++place) {
    const int digit = hex_digit(*place);
    if (digit < 0)
      fail(place, json_errc::invalid_unicode_escape, "invalid hex digit in unicode escape");
    unit = unit << 4 | static_cast<std::uint32_t>(digit);
  }
  return place;
}

/// The place is behind the u. Writes the code point as UTF-8.
template <bool kRelaxed>
const char* JsonParser<kRelaxed>::parse_unicode_escape(const char* place,
                                                       std::pmr::string& bytes) const {
  std::uint32_t point = 0;
  place = parse_hex4(place, point);
  if (point >= 0xdc00 && point <= 0xdfff)
    fail(place, json_errc::invalid_unicode_escape, "unexpected low surrogate");
  if (point >= 0xd800 && point <= 0xdbff) {
    if (!is_text_at(place, "\\u"))
      fail(place, json_errc::invalid_unicode_escape, "missing low surrogate");
    std::uint32_t low = 0;
    place = parse_hex4(place + 2, low);
    if (low < 0xdc00 || low > 0xdfff)
      fail(place, json_errc::invalid_unicode_escape, "invalid low surrogate value");
    point = 0x10000 + ((point - 0xd800) << 10) + (low - 0xdc00);
  }
  append_utf8(bytes, point);
  return place;
}

// Arrays and objects ---------------------------------------------------------------------------

/// From the opening bracket to what is inside.
template <bool kRelaxed>
const char* JsonParser<kRelaxed>::enter(const char* place, json_errc code,
                                        std::string_view unterminated) {
  ++place;
  if (++depth_ > max_depth_)
    fail(place, json_errc::max_depth_exceeded, "maximum nesting depth exceeded");
  return skip_space_to_token(place, code, unterminated);
}

/// How many elements to reserve room for: near the root, where a wrong guess is dear, the commas of
/// this level are counted a little way ahead.
template <bool kRelaxed>
std::size_t JsonParser<kRelaxed>::estimate_size(const char* place) const {
  constexpr std::size_t kLeast = 8;
  constexpr std::size_t kShortRest = 256;
  constexpr std::size_t kLookAhead = 512;
  if (depth_ > 2 || remaining(place) <= kShortRest) return kLeast;
  const char* const stop = place + std::min(remaining(place), kLookAhead);
  return std::max(ElementCounter().count(place, stop), kLeast);
}

/// Behind an element: true behind the comma, false behind the closing bracket.
template <bool kRelaxed>
[[gnu::always_inline]] inline bool JsonParser<kRelaxed>::has_next(
    const char*& place, char close, json_errc code, std::string_view unterminated,
    std::string_view separator) const {
  place = skip_space_to_token(place, code, unterminated);
  if (*place == ',') [[likely]] {
    ++place;
    if (!kRelaxed || !options_.allow_trailing_commas) return true;
    place = skip_space(place);
    if (!is_at(place, close)) return true;
  }
  if (*place != close) fail(place, json_errc::unexpected_character, separator);
  ++place;
  return false;
}

template <bool kRelaxed>
const char* JsonParser<kRelaxed>::parse_array(const char* place, JsonValue& value) {
  constexpr auto kCode = json_errc::unterminated_array;
  constexpr std::string_view kUnterminated = "unterminated array";
  place = enter(place, kCode, kUnterminated);
  if (*place == ']') {
    value.become_array(arena_, 0);
    ++place;
  } else {
    JsonArray& body = value.become_array(arena_, estimate_size(place));
    do {
      place = parse_value(place, body.append(arena_));
    } while (has_next(place, ']', kCode, kUnterminated, "expected ',' or ']' in array"));
  }
  --depth_;
  return place;
}

template <bool kRelaxed>
const char* JsonParser<kRelaxed>::parse_object(const char* place, JsonValue& value) {
  constexpr auto kCode = json_errc::unterminated_object;
  constexpr std::string_view kUnterminated = "unterminated object";
  place = enter(place, kCode, kUnterminated);
  if (*place == '}') {
    value.become_object(arena_, 0);
    --depth_;
    return place + 1;
  }
  JsonObject& body = value.become_object(arena_, estimate_size(place));
  KeyFilter filter;
  bool any_repeated = false;
  do {
    JsonMember& member = body.append(arena_);
    place = parse_key(place, member.name);
    place = expect(place, ':');
    place = parse_value(place, member.value);
    const bool repeated = is_repeated(member, body, filter);
    any_repeated |= repeated;
    if (!options_.allow_duplicate_keys) refuse_repeated(body, repeated, place);
  } while (has_next(place, '}', kCode, kUnterminated, "expected ',' or '}' in object"));
  if (body.size() > JsonObject::kMaxLinear)
    body.settle_large();
  else if (any_repeated)
    body.settle_small();
  --depth_;
  return place;
}

template <bool kRelaxed>
[[gnu::always_inline]] inline const char* JsonParser<kRelaxed>::parse_key(const char* place,
                                                                          JsonValue& name) {
  constexpr auto kCode = json_errc::unterminated_object;
  constexpr std::string_view kMissing = "expected string key in object";
  place = skip_space_to_token(place, kCode, kMissing);
  if (*place == '"') [[likely]]
    return parse_string(place, name);
  if constexpr (kRelaxed) {
    if (options_.allow_single_quotes && *place == '\'') return parse_string(place, name);
    if (options_.allow_unquoted_keys && starts_identifier(*place)) {
      const char* const begin = place;
      while (place != end_ && (starts_identifier(*place) || is_digit(*place))) ++place;
      name = JsonValue(std::string_view(begin, static_cast<std::size_t>(place - begin)), arena_);
      return place;
    }
  }
  fail(place, kCode, kMissing);
}

/// Whether the newest of at most kMaxLinear members has the key of an earlier one.
template <bool kRelaxed>
[[gnu::always_inline]] inline bool JsonParser<kRelaxed>::is_repeated(const JsonMember& newest,
                                                                     const JsonObject& body,
                                                                     KeyFilter& filter) const {
  if (body.size() > JsonObject::kMaxLinear || !filter.test_and_set(newest.name)) [[likely]]
    return false;
  return std::any_of(body.begin(), body.end() - 1,
                     [&newest](const JsonMember& member) { return member.key() == newest.key(); });
}

/// For a strict parse, behind the value. The keys of a large object are looked up in its index.
template <bool kRelaxed>
void JsonParser<kRelaxed>::refuse_repeated(JsonObject& body, bool repeated,
                                           const char* place) const {
  if (body.size() > JsonObject::kMaxLinear) {
    body.extend_index();
    repeated = body.index().size() != body.size();
  }
  if (!repeated) return;
  const std::string_view key = body.end()[-1].key();
  fail(place, json_errc::duplicate_key, "duplicate key: \"" + std::string(key) + "\"");
}

// ----------------------------------------------------------------------------------------------

JsonValue parse(std::string_view text, const ParseOptions& options) {
  const bool relaxed = options.allow_comments || options.allow_trailing_commas ||
                       options.allow_single_quotes || options.allow_unquoted_keys ||
                       options.allow_nan_inf || options.allow_hex || options.allow_control_chars;
  return relaxed ? JsonParser<true>(text, options).parse_document()
                 : JsonParser<false>(text, options).parse_document();
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
