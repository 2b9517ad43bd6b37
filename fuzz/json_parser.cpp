// Any bytes as JSON text: the first byte switches the relaxed options on, the rest is the text.
// It must be judged as by the slow parser, on the heap and in an arena, and what is accepted must
// be read back from its own text, compact and pretty.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "json/JsonParser.h"
#include "json/JsonSerializer.h"
#include "tests/support/SlowJsonParser.h"

namespace {

constexpr std::size_t kLongest = 20000;  // the slow parser compares every key with every other

void require(bool holds) {
  if (!holds) std::abort();
}

/// The same tree; floats need only be floats, since their text is rounded.
bool same(const yajson::JsonValue& left, const yajson::JsonValue& right) {
  using yajson::JsonKind;
  if (left.kind() != right.kind()) return false;
  switch (left.kind()) {
    case JsonKind::array:
      if (left.as_array().size() != right.as_array().size()) return false;
      for (std::size_t i = 0; i < left.as_array().size(); ++i)
        if (!same(left.at(i), right.at(i))) return false;
      return true;
    case JsonKind::object: {
      const auto other = right.members();
      if (left.members().size() != other.size()) return false;
      for (std::size_t i = 0; i < other.size(); ++i) {
        const yajson::JsonMember& member = left.members()[i];
        if (member.key() != other[i].key() || !same(member.value, other[i].value)) return false;
        require(left.find(member.key()) == &member.value);
      }
      return true;
    }
    case JsonKind::number:
      return true;
    default:
      return yajson::serialize(left) == yajson::serialize(right);
  }
}

yajson::ParseOptions options_of(std::uint8_t flags) {
  yajson::ParseOptions options;
  options.allow_comments = flags & 1;
  options.allow_trailing_commas = flags & 2;
  options.allow_single_quotes = flags & 4;
  options.allow_unquoted_keys = flags & 8;
  options.allow_nan_inf = flags & 16;
  options.allow_hex = flags & 32;
  options.allow_control_chars = flags & 64;
  options.allow_duplicate_keys = flags & 128;
  return options;
}

void check_accepted(const yajson::JsonValue& value) {
  yajson::ParseOptions strict;
  strict.allow_nan_inf = true;
  for (const std::int32_t indent : {-1, 0, 4}) {
    const std::string text = serialize(value, {.indent = indent, .allow_nan_inf = true});
    const yajson::ParseResult again = yajson::try_parse(text, strict);
    require(!again.error && same(value, again.value));
  }
  serialize(value, {.ensure_ascii = true, .sort_keys = true});
  require(same(value, value.copy()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);
  const yajson::ParseOptions options = options_of(data[0]);
  if (text.size() > kLongest) return 0;
  using yajson::test::SlowResult;
  const SlowResult slow = yajson::test::slow_parse(text, options);
  require(yajson::test::real_parse(text, options) == slow);

  yajson::MonotonicArena arena(256);
  const yajson::ArenaScope scope(&arena);
  require(yajson::test::real_parse(text, options) == slow);
  const yajson::ParseResult result = yajson::try_parse(text, options);
  require(result.error.value() == slow.code);
  if (!slow.accepted) return 0;
  check_accepted(result.value);
  return 0;
}
