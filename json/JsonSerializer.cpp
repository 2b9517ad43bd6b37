#include "json/JsonSerializer.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <vector>

#include "json/ByteScan.h"

namespace yajson {
namespace {

constexpr double kExactIntegers = 9007199254740992.0;  // 2^53: whole numbers up to here are exact
constexpr double kPowersOfTen[] = {1e0, 1e1, 1e2, 1e3, 1e4, 1e5, 1e6, 1e7, 1e8, 1e9};
constexpr std::size_t kMostDecimals = 9;

constexpr auto kDigitPairs = [] {
  std::array<char, 200> pairs{};
  for (std::size_t i = 0; i < 100; ++i) {
    pairs[2 * i] = static_cast<char>('0' + i / 10);
    pairs[2 * i + 1] = static_cast<char>('0' + i % 10);
  }
  return pairs;
}();

struct ControlEscape {
  char text[6];
  std::uint8_t length;
};

constexpr auto kControlEscapes = [] {
  std::array<ControlEscape, 32> escapes{};
  for (std::size_t i = 0; i < escapes.size(); ++i)
    escapes[i] = {{'\\', 'u', '0', '0', "01"[i / 16], "0123456789abcdef"[i % 16]}, 6};
  constexpr std::pair<std::size_t, char> kShort[] = {
      {0x08, 'b'}, {0x09, 't'}, {0x0a, 'n'}, {0x0c, 'f'}, {0x0d, 'r'}};
  for (const auto& [byte, letter] : kShort) escapes[byte] = {{'\\', letter}, 2};
  return escapes;
}();

/// What any number or literal needs at most: 24 characters of the longest double, sign and ".0".
constexpr std::size_t kScalarRoom = 32;
/// A comma, an inline key in quotes, a colon, and a scalar behind it.
constexpr std::size_t kMemberRoom = 1 + (JsonValue::kMaxInline + 3) + 2 + kScalarRoom;

char* put(char* out, std::string_view bytes) {
  std::memcpy(out, bytes.data(), bytes.size());
  return out + bytes.size();
}

char* put_pair(char* out, std::uint64_t below_100) {
  std::memcpy(out, &kDigitPairs[2 * below_100], 2);
  return out + 2;
}

std::size_t count_digits(std::uint64_t number) {
  std::size_t count = 1;
  for (; number >= 10000; number /= 10000) count += 4;
  return count + (number >= 10) + (number >= 100) + (number >= 1000);
}

char* put_many_digits(char* out, std::uint64_t number) {
  char* const end = out + count_digits(number);
  char* place = end;
  for (; number >= 100; number /= 100) put_pair(place -= 2, number % 100);
  if (number >= 10)
    put_pair(out, number);
  else
    *out = static_cast<char>('0' + number);
  return end;
}

char* put_unsigned(char* out, std::uint64_t number) {
  if (number < 10) {
    *out = static_cast<char>('0' + number);
    return out + 1;
  }
  if (number < 100) return put_pair(out, number);
  return put_many_digits(out, number);
}

char* put_integer(char* out, std::int64_t number) {
  auto magnitude = static_cast<std::uint64_t>(number);
  if (number < 0) {
    *out++ = '-';
    magnitude = -magnitude;
  }
  return put_unsigned(out, magnitude);
}

/// The digits with a point `decimals` digits from the right.
char* put_decimal(char* out, std::uint64_t digits, std::size_t decimals) {
  const std::size_t count = count_digits(digits);
  if (count <= decimals) {
    out = put(out, "0.");
    std::memset(out, '0', decimals - count);
    return put_unsigned(out + (decimals - count), digits);
  }
  char* const end = put_unsigned(out, digits);
  char* const point = end - decimals;
  std::memmove(point + 1, point, decimals);
  *point = '.';
  return end + 1;
}

/// Up to nine decimals, as many as it takes until the digits are a whole number; null when nine do
/// not do. Every scale is one multiplication: 4.35 x 100 is no whole number, 4.35 x 1000 is.
char* put_short_decimal(char* out, double magnitude) {
  if (!(magnitude > 1e-6 && magnitude < 1e15 && 10 * magnitude <= kExactIntegers)) return nullptr;
  for (std::size_t decimals = 1; decimals <= kMostDecimals; ++decimals) {
    const double scaled = magnitude * kPowersOfTen[decimals];
    if (scaled > kExactIntegers) return nullptr;
    const auto digits = static_cast<std::uint64_t>(scaled);
    if (static_cast<double>(digits) == scaled) return put_decimal(out, digits, decimals);
  }
  return nullptr;
}

/// A finite number that is not negative.
char* put_magnitude(char* out, double magnitude) {
  if (magnitude <= kExactIntegers && magnitude == std::floor(magnitude))
    return put(put_unsigned(out, static_cast<std::uint64_t>(magnitude)), ".0");
  if (char* const end = put_short_decimal(out, magnitude)) return end;
  char* const end = std::to_chars(out, out + kScalarRoom - 1, magnitude).ptr;
  const std::string_view shortest(out, static_cast<std::size_t>(end - out));
  return shortest.find_first_of(".eE") == shortest.npos ? put(end, ".0") : end;
}

constexpr std::uint32_t kReplacement = 0xfffd;

/// The code point of the UTF-8 sequence that begins at `place`, or U+FFFD for a broken one; moves
/// the place to where to go on.
std::uint32_t read_code_point(const char*& place, const char* end) {
  constexpr std::uint32_t kLeast[] = {0, 0x80, 0x800, 0x10000};  // by continuation bytes
  const auto lead = static_cast<unsigned char>(*place++);
  const int more = lead >> 5 == 0x06 ? 1 : lead >> 4 == 0x0e ? 2 : lead >> 3 == 0x1e ? 3 : 0;
  if (more == 0 || end - place < more) return kReplacement;
  std::uint32_t point = lead & (0x3fu >> more);
  for (int i = 0; i < more; ++i, ++place) {
    const auto byte = static_cast<unsigned char>(*place);
    if (byte >> 6 != 0x02) return kReplacement;
    point = point << 6 | (byte & 0x3f);
  }
  if (point < kLeast[more] || (point >= 0xd800 && point <= 0xdfff) || point > 0x10ffff)
    return kReplacement;
  return point;
}

char* put_unicode_escape(char* out, std::uint32_t unit) {
  constexpr auto kHex = "0123456789abcdef";
  out = put(out, "\\u");
  for (int shift = 12; shift >= 0; shift -= 4) *out++ = kHex[unit >> shift & 0xf];
  return out;
}

/// One \u escape, or the two of a surrogate pair.
char* put_code_point(char* out, std::uint32_t point) {
  if (point < 0x10000) return put_unicode_escape(out, point);
  out = put_unicode_escape(out, 0xd800 + ((point - 0x10000) >> 10));
  return put_unicode_escape(out, 0xdc00 + ((point - 0x10000) & 0x3ff));
}

}  // namespace

/// One walk over one tree.
///
/// Every step is given the place in the buffer where it writes and returns the place behind, so
/// that the place lives in a register. A scalar may take it for granted that kScalarRoom bytes are
/// free. kPlain is true for the compact form without any option but allow_nan_inf.
template <bool kPlain>
class SerializerWalk {
 public:
  explicit SerializerWalk(const WriteOptions& options) : options_(options) {}

  std::string write(const JsonValue& value) {
    reserve(value);
    flush(write_value(buffer_, value));
    return std::move(result_);
  }

 private:
  static constexpr std::size_t kBufferSize = 4096;

  bool pretty() const { return !kPlain && options_.indent >= 0; }
  bool ascii() const { return !kPlain && options_.ensure_ascii; }

  char* flush(const char* out) {
    result_.append(buffer_, static_cast<std::size_t>(out - buffer_));
    return buffer_;
  }
  /// Makes `bytes` free, which must be fewer than the buffer has.
  char* make_room(char* out, std::size_t bytes) {
    if (static_cast<std::size_t>(buffer_ + kBufferSize - out) < bytes) [[unlikely]]
      return flush(out);
    return out;
  }
  /// Bytes of any number, and kScalarRoom free behind them.
  char* put_bytes(char* out, std::string_view bytes) {
    if (bytes.size() + kScalarRoom > kBufferSize) {
      out = flush(out);
      result_.append(bytes);
      return out;
    }
    return make_room(put(make_room(out, bytes.size()), bytes), kScalarRoom);
  }

  void reserve(const JsonValue& value);
  char* write_value(char* out, const JsonValue& value);
  char* write_number(char* out, double number);
  char* write_string(char* out, const JsonValue& value);
  char* write_inline_string(char* out, const JsonValue& value);
  char* write_long_string(char* out, std::string_view text);
  char* write_escaping(char* out, std::string_view text);
  const char* find_escape(const char* place, const char* end) const;
  char* write_escape(char* out, const char*& place, const char* end);
  char* write_array(char* out, const JsonArray& body);
  char* write_object(char* out, const JsonObject& body);
  char* write_sorted(char* out, const JsonObject& body);
  char* write_member(char* out, const JsonMember& member);
  char* open(char* out, char bracket);
  char* separate(char* out);
  char* close(char* out, char bracket);
  char* break_line(char* out);

  const WriteOptions options_;
  std::size_t indentation_ = 0;
  std::string result_;
  char buffer_[kBufferSize];
};

/// Estimates differ by kind, and only the top level is looked at.
template <bool kPlain>
void SerializerWalk<kPlain>::reserve(const JsonValue& value) {
  std::size_t estimate = 0;
  if (value.is_string()) estimate = value.as_string().size() + 2;
  if (value.is_array()) estimate = value.as_array().size() * 64 + 2;
  if (value.is_object()) estimate = value.as_object().size() * 16 + 2;
  if (estimate > kBufferSize) result_.reserve(estimate);
}

template <bool kPlain>
[[gnu::always_inline]] inline char* SerializerWalk<kPlain>::write_value(char* out,
                                                                        const JsonValue& value) {
  switch (value.kind()) {
    case JsonKind::integer:
      return put_integer(out, value.as_int());
    case JsonKind::string:
      return write_string(out, value);
    case JsonKind::object:
      return write_object(out, value.as_object());
    case JsonKind::array:
      return write_array(out, value.as_array());
    case JsonKind::number:
      return write_number(out, value.as_number());
    case JsonKind::uinteger:
      return put_unsigned(out, value.as_uint());
    case JsonKind::boolean:
      return put(out, value.as_bool() ? "true" : "false");
    case JsonKind::null:
      break;
  }
  return put(out, "null");
}

template <bool kPlain>
char* SerializerWalk<kPlain>::write_number(char* out, double number) {
  if (!std::isfinite(number)) {
    if (!options_.allow_nan_inf) return put(out, "null");
    if (std::isnan(number)) return put(out, "NaN");
    return put(out, number < 0 ? "-Infinity" : "Infinity");
  }
  if (number == 0) return put(out, "0.0");  // negative zero loses its sign
  if (number < 0) *out++ = '-';
  return put_magnitude(out, std::fabs(number));
}

// Strings --------------------------------------------------------------------------------------

template <bool kPlain>
[[gnu::always_inline]] inline char* SerializerWalk<kPlain>::write_string(char* out,
                                                                         const JsonValue& value) {
  if (!value.is_out_of_line()) [[likely]]
    return write_inline_string(out, value);
  return write_long_string(out, value.as_string());
}

/// One load, one test and one store where nothing has to be escaped.
template <bool kPlain>
[[gnu::always_inline]] inline char* SerializerWalk<kPlain>::write_inline_string(
    char* out, const JsonValue& value) {
  static_assert(kScalarRoom >= Bytes16::kCount + 2);
  const std::string_view text = value.as_string();
  const Bytes16 bytes(text.data());
  const unsigned stops = ascii() ? bytes.string_stops() | bytes.non_ascii() : bytes.string_stops();
  if ((stops & ((1u << text.size()) - 1)) != 0) [[unlikely]]
    return write_escaping(out, text);
  *out = '"';
  bytes.store(out + 1);
  out[text.size() + 1] = '"';
  return out + text.size() + 2;
}

/// More than 15 bytes.
template <bool kPlain>
char* SerializerWalk<kPlain>::write_long_string(char* out, std::string_view text) {
  constexpr std::size_t kLongest = 512;
  if (!kPlain || text.size() > kLongest) return write_escaping(out, text);
  out = make_room(out, kLongest + 2 + kScalarRoom);
  *out = '"';
  unsigned stops = 0;
  for (std::size_t place = 0;; place += Bytes16::kCount) {
    place = std::min(place, text.size() - Bytes16::kCount);  // the last piece overlaps
    const Bytes16 bytes(text.data() + place);
    stops |= bytes.string_stops();
    bytes.store(out + 1 + place);
    if (place + Bytes16::kCount == text.size()) break;
  }
  if (stops != 0) [[unlikely]]
    return write_escaping(out, text);
  out[text.size() + 1] = '"';
  return out + text.size() + 2;
}

/// Any string: the runs between the bytes that need escaping are copied whole.
template <bool kPlain>
[[gnu::noinline]] char* SerializerWalk<kPlain>::write_escaping(char* out, std::string_view text) {
  const char* place = text.data();
  const char* const end = place + text.size();
  *out++ = '"';
  while (place != end) {
    const char* const special = find_escape(place, end);
    out = put_bytes(out, std::string_view(place, static_cast<std::size_t>(special - place)));
    place = special;
    if (place != end) out = make_room(write_escape(out, place, end), kScalarRoom);
  }
  *out++ = '"';
  return make_room(out, kScalarRoom);
}

template <bool kPlain>
const char* SerializerWalk<kPlain>::find_escape(const char* place, const char* end) const {
  return std::find_if(place, end, [this](char byte) {
    const auto code = static_cast<unsigned char>(byte);
    return code < 0x20 || byte == '"' || byte == '\\' || (ascii() && code >= 0x80);
  });
}

/// Escapes what stands at `place` and moves the place behind it.
template <bool kPlain>
char* SerializerWalk<kPlain>::write_escape(char* out, const char*& place, const char* end) {
  const auto code = static_cast<unsigned char>(*place);
  if (code >= 0x80) return put_code_point(out, read_code_point(place, end));
  ++place;
  if (code < 0x20) {
    const ControlEscape& escape = kControlEscapes[code];
    return put(out, std::string_view(escape.text, escape.length));
  }
  *out++ = '\\';
  *out++ = static_cast<char>(code);
  return out;
}

// Arrays and objects ---------------------------------------------------------------------------

template <bool kPlain>
char* SerializerWalk<kPlain>::break_line(char* out) {
  static constexpr auto kSpaces = [] {
    std::array<char, 256> spaces{};
    spaces.fill(' ');
    return spaces;
  }();
  out = make_room(out, kScalarRoom);
  *out++ = '\n';
  for (std::size_t left = indentation_; left > 0;) {
    const std::size_t piece = std::min(left, kSpaces.size());
    out = put_bytes(out, std::string_view(kSpaces.data(), piece));
    left -= piece;
  }
  return out;
}

template <bool kPlain>
char* SerializerWalk<kPlain>::open(char* out, char bracket) {
  *out++ = bracket;
  if (!pretty()) return out;
  indentation_ += static_cast<std::size_t>(options_.indent);
  return break_line(out);
}

template <bool kPlain>
char* SerializerWalk<kPlain>::separate(char* out) {
  *out++ = ',';
  return pretty() ? break_line(out) : out;
}

template <bool kPlain>
char* SerializerWalk<kPlain>::close(char* out, char bracket) {
  out = make_room(out, kScalarRoom);
  if (pretty()) {
    indentation_ -= static_cast<std::size_t>(options_.indent);
    out = break_line(out);
  }
  *out++ = bracket;
  return out;
}

template <bool kPlain>
char* SerializerWalk<kPlain>::write_array(char* out, const JsonArray& body) {
  if (body.empty()) return put(out, "[]");
  out = open(make_room(out, kMemberRoom), '[');
  const JsonValue* element = body.begin();
  for (;;) {
    out = write_value(make_room(out, kMemberRoom), *element);
    if (++element == body.end()) break;
    out = separate(make_room(out, kScalarRoom));
  }
  return close(out, ']');
}

template <bool kPlain>
[[gnu::always_inline]] inline char* SerializerWalk<kPlain>::write_member(char* out,
                                                                         const JsonMember& member) {
  out = write_string(out, member.name);
  *out++ = ':';
  if (pretty()) *out++ = ' ';
  return write_value(make_room(out, kScalarRoom), member.value);
}

template <bool kPlain>
char* SerializerWalk<kPlain>::write_object(char* out, const JsonObject& body) {
  if (body.empty()) return put(out, "{}");
  out = open(make_room(out, kMemberRoom), '{');
  if (!kPlain && options_.sort_keys) return close(write_sorted(out, body), '}');
  const JsonMember* member = body.begin();
  for (;;) {
    out = write_member(make_room(out, kMemberRoom), *member);
    if (++member == body.end()) break;
    out = separate(make_room(out, kScalarRoom));
  }
  return close(out, '}');
}

/// Ascending by the bytes of the keys, a shorter key before a longer one that it begins.
template <bool kPlain>
char* SerializerWalk<kPlain>::write_sorted(char* out, const JsonObject& body) {
  std::vector<const JsonMember*> members;
  for (const JsonMember& member : body) members.push_back(&member);
  std::sort(members.begin(), members.end(),
            [](const auto* left, const auto* right) { return left->key() < right->key(); });
  for (const JsonMember* member : members) {
    if (member != members.front()) out = separate(make_room(out, kScalarRoom));
    out = write_member(make_room(out, kMemberRoom), *member);
  }
  return out;
}

std::string serialize(const JsonValue& value, const WriteOptions& options) {
  const bool plain = options.indent < 0 && !options.ensure_ascii && !options.sort_keys;
  return plain ? SerializerWalk<true>(options).write(value)
               : SerializerWalk<false>(options).write(value);
}

}  // namespace yajson
