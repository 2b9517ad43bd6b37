#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <string_view>

#include "json/JsonParser.h"

namespace yajson::test {

/// Texts that are JSON, nearly JSON, or JSON that was damaged; the same for the same seed.
class RandomJson {
 public:
  explicit RandomJson(std::uint32_t seed) : random_(seed) {}

  ParseOptions options();
  /// A number as the grammar allows it.
  std::string number();
  /// A document of any shape, with relaxed syntax here and there.
  std::string document();
  /// The same with a few bytes changed, lost, doubled, moved or cut off.
  std::string damaged_document();

 private:
  std::uint32_t pick(std::uint32_t limit) { return static_cast<std::uint32_t>(random_() % limit); }
  bool one_in(std::uint32_t times) { return pick(times) == 0; }
  template <std::size_t kSize>
  std::string_view any_of(const std::string_view (&table)[kSize]) {
    return table[pick(kSize)];
  }
  std::string digits(std::uint32_t count, bool no_leading_zero);
  std::string space();
  std::string string(char quote);
  std::string scalar();
  std::string key();
  std::string value(int levels);
  std::string container(int levels);
  void damage(std::string& text);

  std::mt19937 random_;
};

}  // namespace yajson::test
