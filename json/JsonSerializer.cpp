#include "json/JsonSerializer.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <vector>

namespace yajson {
namespace {

constexpr double kExactIntegers = 9007199254740992.0;  // 2^53: whole numbers up to here are exact
constexpr double kPowersOfTen[] = {1e0, 1e1, 1e2, 1e3, 1e4, 1e5, 1e6, 1e7, 1e8, 1e9};
constexpr int kMostDecimals = 9;

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

constexpr std::size_t kMaxDigits = 20;

/// Writes the digits so that they end at `end`; returns where they begin.
char* put_digits(std::uint64_t number, char* end) {
  while (number >= 100) {
    end -= 2;
    std::memcpy(end, &kDigitPairs[2 * (number % 100)], 2);
    number /= 100;
  }
  if (number >= 10) {
    end -= 2;
    std::memcpy(end, &kDigitPairs[2 * number], 2);
  } else {
    *--end = static_cast<char>('0' + number);
  }
  return end;
}

}  // namespace

/// One walk over one tree.
class JsonSerializer {
 public:
  explicit JsonSerializer(const WriteOptions& options) : options_(options) {}

  std::string write(const JsonValue& value) {
    reserve(value);
    write_value(value);
    flush();
    return std::move(result_);
  }

 private:
  bool pretty() const { return options_.indent >= 0; }

  void flush() {
    result_.append(buffer_, used_);
    used_ = 0;
  }
  void put(std::string_view bytes) {
    if (bytes.size() > sizeof buffer_ - used_) {
      flush();
      if (bytes.size() > sizeof buffer_) {
        result_.append(bytes);
        return;
      }
    }
    std::memcpy(buffer_ + used_, bytes.data(), bytes.size());
    used_ += bytes.size();
  }
  void put(char byte) {
    if (used_ == sizeof buffer_) flush();
    buffer_[used_++] = byte;
  }

  void reserve(const JsonValue& value);
  void write_value(const JsonValue& value);
  void write_unsigned(std::uint64_t number);
  void write_integer(std::int64_t number);
  void write_float(double number);
  bool write_short_decimal(double magnitude);
  void write_decimal(std::uint64_t digits, int decimals);
  void write_string(std::string_view bytes);
  const char* write_non_ascii(const char* place, const char* end);
  void write_unicode_escape(std::uint32_t unit);
  void write_array(const JsonArray& body);
  void write_object(const JsonObject& body);
  void write_member(const JsonMember& member);
  void open(char bracket);
  void separate();
  void close(char bracket);
  void break_line();

  const WriteOptions options_;
  std::size_t indentation_ = 0;
  std::size_t used_ = 0;
  std::string result_;
  char buffer_[4096];
};

void JsonSerializer::reserve(const JsonValue& value) {
  std::size_t estimate = 0;
  if (value.is_string()) estimate = value.as_string().size() + 2;
  if (value.is_array()) estimate = value.as_array().size() * 64 + 2;
  if (value.is_object()) estimate = value.as_object().size() * 16 + 2;
  if (estimate > sizeof buffer_) result_.reserve(estimate);
}

void JsonSerializer::write_value(const JsonValue& value) {
  switch (value.kind()) {
    case JsonKind::null:
      return put("null");
    case JsonKind::boolean:
      return put(value.as_bool() ? "true" : "false");
    case JsonKind::integer:
      return write_integer(value.as_int());
    case JsonKind::number:
      return write_float(value.as_number());
    case JsonKind::string:
      return write_string(value.as_string());
    case JsonKind::array:
      return write_array(value.as_array());
    case JsonKind::object:
      return write_object(value.as_object());
    case JsonKind::uinteger:
      return write_unsigned(value.as_uint());
  }
}

// Numbers --------------------------------------------------------------------------------------

void JsonSerializer::write_unsigned(std::uint64_t number) {
  char digits[kMaxDigits];
  char* const end = digits + kMaxDigits;
  const char* const begin = put_digits(number, end);
  put(std::string_view(begin, static_cast<std::size_t>(end - begin)));
}

void JsonSerializer::write_integer(std::int64_t number) {
  if (number >= 0) return write_unsigned(static_cast<std::uint64_t>(number));
  put('-');
  write_unsigned(-static_cast<std::uint64_t>(number));
}

void JsonSerializer::write_float(double number) {
  if (std::isnan(number)) return put(options_.allow_nan_inf ? "NaN" : "null");
  if (std::isinf(number)) {
    if (!options_.allow_nan_inf) return put("null");
    return put(number < 0 ? "-Infinity" : "Infinity");
  }
  if (number == 0) return put("0.0");  // negative zero loses its sign
  if (number < 0) put('-');
  const double magnitude = std::fabs(number);
  if (magnitude <= kExactIntegers && magnitude == std::floor(magnitude)) {
    write_unsigned(static_cast<std::uint64_t>(magnitude));
    return put(".0");
  }
  if (write_short_decimal(magnitude)) return;
  char text[32];
  const char* const end = std::to_chars(text, text + sizeof text, magnitude).ptr;
  const std::string_view shortest(text, static_cast<std::size_t>(end - text));
  put(shortest);
  if (shortest.find_first_of(".eE") == shortest.npos) put(".0");
}

/// Up to nine decimals, as many as it takes until the digits are a whole number.
bool JsonSerializer::write_short_decimal(double magnitude) {
  if (!(magnitude > 1e-6 && magnitude < 1e15 && 10 * magnitude <= kExactIntegers)) return false;
  for (int decimals = 1; decimals <= kMostDecimals; ++decimals) {
    const double scaled = magnitude * kPowersOfTen[decimals];
    if (scaled > kExactIntegers) return false;
    if (scaled != std::floor(scaled)) continue;
    write_decimal(static_cast<std::uint64_t>(scaled), decimals);
    return true;
  }
  return false;
}

void JsonSerializer::write_decimal(std::uint64_t digits, int decimals) {
  char text[kMaxDigits];
  char* const end = text + kMaxDigits;
  char* begin = put_digits(digits, end);
  char* const point = end - decimals;
  while (begin >= point) *--begin = '0';  // "0." and zeros before the first digit
  put(std::string_view(begin, static_cast<std::size_t>(point - begin)));
  put('.');
  put(std::string_view(point, static_cast<std::size_t>(decimals)));
}

// Strings --------------------------------------------------------------------------------------

void JsonSerializer::write_string(std::string_view bytes) {
  const auto needs_escape = [this](char byte) {
    const auto code = static_cast<unsigned char>(byte);
    return code < 0x20 || byte == '"' || byte == '\\' || (code >= 0x80 && options_.ensure_ascii);
  };
  const char* place = bytes.data();
  const char* const end = place + bytes.size();
  put('"');
  while (place != end) {
    const char* const special = std::find_if(place, end, needs_escape);
    put(std::string_view(place, static_cast<std::size_t>(special - place)));
    if (special == end) break;
    const auto code = static_cast<unsigned char>(*special);
    place = special + 1;
    if (code >= 0x80) {
      place = write_non_ascii(special, end);
    } else if (code < 0x20) {
      put(std::string_view(kControlEscapes[code].text, kControlEscapes[code].length));
    } else {
      put('\\');
      put(*special);
    }
  }
  put('"');
}

/// Escapes the UTF-8 sequence that begins at `place`, or U+FFFD for a broken one; returns where to
/// go on.
const char* JsonSerializer::write_non_ascii(const char* place, const char* end) {
  constexpr std::uint32_t kReplacement = 0xfffd;
  constexpr std::uint32_t kLeast[] = {0, 0x80, 0x800, 0x10000};  // by continuation bytes
  const auto lead = static_cast<unsigned char>(*place++);
  const int more = lead >> 5 == 0x06 ? 1 : lead >> 4 == 0x0e ? 2 : lead >> 3 == 0x1e ? 3 : 0;
  if (more == 0 || end - place < more) {
    write_unicode_escape(kReplacement);
    return place;
  }
  std::uint32_t point = lead & (0x3fu >> more);
  for (int i = 0; i < more; ++i, ++place) {
    const auto byte = static_cast<unsigned char>(*place);
    if (byte >> 6 != 0x02) {
      write_unicode_escape(kReplacement);
      return place;
    }
    point = point << 6 | (byte & 0x3f);
  }
  if (point < kLeast[more] || (point >= 0xd800 && point <= 0xdfff) || point > 0x10ffff)
    point = kReplacement;
  if (point < 0x10000) {
    write_unicode_escape(point);
  } else {
    write_unicode_escape(0xd800 + ((point - 0x10000) >> 10));
    write_unicode_escape(0xdc00 + ((point - 0x10000) & 0x3ff));
  }
  return place;
}

void JsonSerializer::write_unicode_escape(std::uint32_t unit) {
  constexpr auto kHex = "0123456789abcdef";
  const char text[] = {'\\',
                       'u',
                       kHex[unit >> 12 & 0xf],
                       kHex[unit >> 8 & 0xf],
                       kHex[unit >> 4 & 0xf],
                       kHex[unit & 0xf]};
  put(std::string_view(text, sizeof text));
}

// Arrays and objects ---------------------------------------------------------------------------

void JsonSerializer::break_line() {
  static const std::string kSpaces(256, ' ');
  put('\n');
  for (std::size_t left = indentation_; left > 0;) {
    const std::size_t piece = std::min(left, kSpaces.size());
    put(std::string_view(kSpaces).substr(0, piece));
    left -= piece;
  }
}

void JsonSerializer::open(char bracket) {
  put(bracket);
  if (!pretty()) return;
  indentation_ += static_cast<std::size_t>(options_.indent);
  break_line();
}

void JsonSerializer::separate() {
  put(',');
  if (pretty()) break_line();
}

void JsonSerializer::close(char bracket) {
  if (pretty()) {
    indentation_ -= static_cast<std::size_t>(options_.indent);
    break_line();
  }
  put(bracket);
}

void JsonSerializer::write_array(const JsonArray& body) {
  if (body.empty()) return put("[]");
  open('[');
  for (const JsonValue& element : body) {
    if (&element != body.begin()) separate();
    write_value(element);
  }
  close(']');
}

void JsonSerializer::write_member(const JsonMember& member) {
  write_string(member.key());
  put(pretty() ? std::string_view(": ") : std::string_view(":"));
  write_value(member.value);
}

void JsonSerializer::write_object(const JsonObject& body) {
  if (body.empty()) return put("{}");
  open('{');
  if (options_.sort_keys) {
    std::vector<const JsonMember*> members;
    for (const JsonMember& member : body) members.push_back(&member);
    std::sort(members.begin(), members.end(),
              [](const auto* left, const auto* right) { return left->key() < right->key(); });
    for (const JsonMember* member : members) {
      if (member != members.front()) separate();
      write_member(*member);
    }
  } else {
    for (const JsonMember& member : body) {
      if (&member != body.begin()) separate();
      write_member(member);
    }
  }
  close('}');
}

std::string serialize(const JsonValue& value, const WriteOptions& options) {
  return JsonSerializer(options).write(value);
}

}  // namespace yajson
