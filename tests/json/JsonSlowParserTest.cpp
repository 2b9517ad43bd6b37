// The parser beside one that is slow and obvious: both must accept and refuse the same texts, make
// the same of them, and name the same error at the same place. Other seeds than the usual one:
// --gtest_random_seed=N.

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>

#include "tests/support/RandomJson.h"
#include "tests/support/SlowJsonParser.h"

namespace yajson::test {
namespace {

std::uint32_t seed() { return static_cast<std::uint32_t>(GTEST_FLAG_GET(random_seed)); }

std::string told(const ParseOptions& options) {
  std::string text = "depth " + std::to_string(options.max_depth) + ", flags ";
  for (const bool flag :
       {options.allow_comments, options.allow_trailing_commas, options.allow_single_quotes,
        options.allow_unquoted_keys, options.allow_nan_inf, options.allow_hex,
        options.allow_control_chars, options.allow_duplicate_keys})
    text += flag ? '1' : '0';
  return text;
}

void expect_same(const std::string& text, const ParseOptions& options, const SlowResult& slow) {
  const SlowResult real = real_parse(text, options);
  SCOPED_TRACE(told(options) + ", text " + testing::PrintToString(text));
  EXPECT_EQ(real.accepted, slow.accepted);
  EXPECT_EQ(real.value, slow.value);
  EXPECT_EQ(real.code, slow.code);
  EXPECT_EQ(real.what, slow.what);
  EXPECT_EQ(real.line, slow.line);
  EXPECT_EQ(real.column, slow.column);
  EXPECT_EQ(real.offset, slow.offset);
}

SlowResult compare(const std::string& text, const ParseOptions& options) {
  const SlowResult slow = slow_parse(text, options);
  expect_same(text, options, slow);
  MonotonicArena arena(256);
  const ArenaScope scope(&arena);
  expect_same(text, options, slow);
  return slow;
}

TEST(JsonSlowParser, DamagedDocumentsAreJudgedAlike) {
  RandomJson random(seed());
  std::set<int> codes;
  int accepted = 0;
  for (int i = 0; i < 10000 && !HasFailure(); ++i) {
    const SlowResult result = compare(random.damaged_document(), random.options());
    accepted += result.accepted;
    codes.insert(result.code);
  }
  // The texts reach every code and are neither all good nor all bad.
  EXPECT_EQ(codes, (std::set<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 53}));
  EXPECT_GT(accepted, 2000);
  EXPECT_LT(accepted, 8000);
}

TEST(JsonSlowParser, EveryPrefixOfADocumentIsJudgedAlike) {
  RandomJson random(seed() + 1);
  for (int i = 0; i < 100 && !HasFailure(); ++i) {
    const std::string text = random.document();
    const ParseOptions options = random.options();
    for (std::size_t size = 0; size <= std::min<std::size_t>(text.size(), 300); ++size)
      compare(text.substr(0, size), options);
  }
}

TEST(JsonSlowParser, EveryTextOfTwoBytesIsJudgedAlike) {
  const ParseOptions relaxed = {true, true, true, true, true, true, true, true};
  for (int first = 0; first < 256; ++first)
    for (int second = 0; second < 256 && !HasFailure(); ++second) {
      const std::string text = {static_cast<char>(first), static_cast<char>(second)};
      expect_same(text, relaxed, slow_parse(text, relaxed));
    }
}

}  // namespace
}  // namespace yajson::test
