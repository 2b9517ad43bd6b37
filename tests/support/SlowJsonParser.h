#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "json/JsonParser.h"

namespace yajson::test {

/// What became of a text: the description of its value, or why and where it was refused.
struct SlowResult {
  bool accepted = false;
  std::string value;  ///< as describe() writes it
  int code = 0;
  std::string what;  ///< the whole error text
  std::uint64_t line = 0;
  std::uint64_t column = 0;
  std::uint64_t offset = 0;

  bool operator==(const SlowResult&) const = default;
};

/// The parser once more, as slowly and plainly as it can be said: byte by byte, values as text,
/// keys compared with every key before. No code is shared with the real one but the options and
/// codes.
SlowResult slow_parse(std::string_view text, const ParseOptions& options);

/// The real parser's answer in the same form.
SlowResult real_parse(std::string_view text, const ParseOptions& options);

/// A value with its kinds, the exact bits of its floats, and the order of its members.
std::string describe(const JsonValue& value);

}  // namespace yajson::test
