#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <system_error>

namespace yajson {

/// What went wrong; the numbers are those of the error category "json".
enum class json_errc : int {
  success = 0,
  unexpected_end = 1,
  unexpected_character = 2,
  invalid_escape = 3,
  invalid_unicode_escape = 4,
  invalid_number = 5,
  unterminated_string = 6,
  unterminated_array = 7,
  unterminated_object = 8,
  trailing_content = 9,
  max_depth_exceeded = 10,
  invalid_literal = 11,
  duplicate_key = 12,
  invalid_utf8 = 13,
  invalid_comment = 14,
  type_mismatch = 50,
  index_out_of_range = 51,
  key_not_found = 52,
  integer_overflow = 53,
  nan_or_infinity = 80,
};

/// The one category of all json_errc values; its name() is "json".
const std::error_category& json_category() noexcept;

/// Lets a json_errc be assigned to and compared with a std::error_code.
std::error_code make_error_code(json_errc code) noexcept;

/// A text that is not JSON. what() is
/// "JSON parse error at line L, column C: <detail>: <message of the code>".
class ParseError : public std::system_error {
 public:
  /// The position is `offset` bytes from the start of `text`; line and column are counted from it.
  ParseError(json_errc code, std::string_view detail, std::string_view text, std::size_t offset);

  std::uint64_t line() const noexcept { return line_; }      ///< from 1
  std::uint64_t column() const noexcept { return column_; }  ///< from 1, in bytes
  std::uint64_t offset() const noexcept { return offset_; }  ///< from 0, in bytes

 private:
  struct Position {
    std::uint64_t line, column, offset;
  };
  ParseError(json_errc code, std::string_view detail, Position position);
  static Position locate(std::string_view text, std::size_t offset) noexcept;

  std::uint64_t line_;
  std::uint64_t column_;
  std::uint64_t offset_;
};

/// A value of another kind than the operation needs; the value is unchanged.
class TypeError : public std::system_error {
 public:
  explicit TypeError(const std::string& text);
};

/// An array index that is not below the size; the array is unchanged.
class OutOfRangeError : public std::system_error {
 public:
  OutOfRangeError(std::size_t index, std::size_t size);
};

}  // namespace yajson

/// See make_error_code().
template <>
struct std::is_error_code_enum<yajson::json_errc> : std::true_type {};
