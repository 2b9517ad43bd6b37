#include "json/JsonError.h"

#include <gtest/gtest.h>

namespace yajson {
namespace {

struct MessageRow {
  int code;
  const char* message;
};

constexpr MessageRow kMessages[] = {
    {0, "success"},
    {1, "unexpected end of input"},
    {2, "unexpected character"},
    {3, "invalid escape sequence"},
    {4, "invalid unicode escape"},
    {5, "invalid number"},
    {6, "unterminated string"},
    {7, "unterminated array"},
    {8, "unterminated object"},
    {9, "trailing content after JSON"},
    {10, "maximum nesting depth exceeded"},
    {11, "invalid literal"},
    {12, "duplicate key"},
    {13, "invalid UTF-8 encoding"},
    {14, "invalid comment"},
    {50, "type mismatch"},
    {51, "index out of range"},
    {52, "key not found"},
    {53, "integer overflow"},
    {80, "NaN or Infinity not representable"},
};

TEST(JsonError, EveryCodeHasItsMessage) {
  for (const auto& [code, message] : kMessages)
    EXPECT_EQ(json_category().message(code), message) << code;
}

TEST(JsonError, Code99AndAnyOtherNumberIsAnUnknownJsonError) {
  for (const int code : {99, -1, 15, 49, 54, 79, 81, 256, 1 << 30})
    EXPECT_EQ(json_category().message(code), "unknown json error") << code;
}

TEST(JsonError, CategoryIsOneInstanceNamedJson) {
  EXPECT_STREQ(json_category().name(), "json");
  EXPECT_EQ(&json_category(), &json_category());
  const std::error_code code = json_errc::duplicate_key;
  EXPECT_EQ(&code.category(), &json_category());
  EXPECT_EQ(code.value(), 12);
}

TEST(JsonError, ParseErrorSaysWhereAndWhy) {
  const ParseError error(json_errc::trailing_content, "unexpected trailing content", "[1, 2] x [",
                         8);
  EXPECT_STREQ(
      error.what(),
      "JSON parse error at line 1, column 9: unexpected trailing content: trailing content "
      "after JSON");
  EXPECT_EQ(error.code(), json_errc::trailing_content);
  EXPECT_EQ(error.line(), 1u);
  EXPECT_EQ(error.column(), 9u);
  EXPECT_EQ(error.offset(), 8u);
}

TEST(JsonError, ParseErrorCountsLinesByLineFeedsAndColumnsByBytes) {
  struct Row {
    const char* text;
    std::size_t offset;
    std::uint64_t line, column;
  };
  constexpr Row kRows[] = {
      {"", 0, 1, 1},         {"abc", 3, 1, 4},  {"a\nb", 1, 1, 2},      {"a\nb", 2, 2, 1},
      {"a\n\n  b", 5, 3, 3}, {"a\rb", 2, 1, 3}, {"\xc3\xa9x", 2, 1, 3},
  };
  for (const Row& row : kRows) {
    const ParseError error(json_errc::invalid_number, "", row.text, row.offset);
    EXPECT_EQ(error.line(), row.line) << row.text;
    EXPECT_EQ(error.column(), row.column) << row.text;
    EXPECT_EQ(error.offset(), row.offset) << row.text;
  }
}

TEST(JsonError, TypeErrorAlwaysHasCode50) {
  const TypeError error("expected array, got object");
  EXPECT_STREQ(error.what(), "expected array, got object: type mismatch");
  EXPECT_EQ(error.code(), json_errc::type_mismatch);
}

TEST(JsonError, OutOfRangeErrorAlwaysHasCode51AndPlainDecimals) {
  const OutOfRangeError error(1234567, 1000);
  EXPECT_STREQ(error.what(), "array index 1234567 out of range (size=1000): index out of range");
  EXPECT_EQ(error.code(), json_errc::index_out_of_range);
}

}  // namespace
}  // namespace yajson
