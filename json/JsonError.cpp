#include "json/JsonError.h"

namespace yajson {
namespace detail {

class json_error_category_impl final : public std::error_category {
 public:
  const char* name() const noexcept override { return "json"; }
  std::string message(int code) const override;
};

std::string json_error_category_impl::message(int code) const {
  switch (static_cast<json_errc>(code)) {
    case json_errc::success:
      return "success";
    case json_errc::unexpected_end:
      return "unexpected end of input";
    case json_errc::unexpected_character:
      return "unexpected character";
    case json_errc::invalid_escape:
      return "invalid escape sequence";
    case json_errc::invalid_unicode_escape:
      return "invalid unicode escape";
    case json_errc::invalid_number:
      return "invalid number";
    case json_errc::unterminated_string:
      return "unterminated string";
    case json_errc::unterminated_array:
      return "unterminated array";
    case json_errc::unterminated_object:
      return "unterminated object";
    case json_errc::trailing_content:
      return "trailing content after JSON";
    case json_errc::max_depth_exceeded:
      return "maximum nesting depth exceeded";
    case json_errc::invalid_literal:
      return "invalid literal";
    case json_errc::duplicate_key:
      return "duplicate key";
    case json_errc::invalid_utf8:
      return "invalid UTF-8 encoding";
    case json_errc::invalid_comment:
      return "invalid comment";
    case json_errc::type_mismatch:
      return "type mismatch";
    case json_errc::index_out_of_range:
      return "index out of range";
    case json_errc::key_not_found:
      return "key not found";
    case json_errc::integer_overflow:
      return "integer overflow";
    case json_errc::nan_or_infinity:
      return "NaN or Infinity not representable";
  }
  return "unknown json error";
}

}  // namespace detail

const std::error_category& json_category() noexcept {
  static const detail::json_error_category_impl category;
  return category;
}

std::error_code make_error_code(json_errc code) noexcept {
  return {static_cast<int>(code), json_category()};
}

ParseError::ParseError(json_errc code, std::string_view detail, std::string_view text,
                       std::size_t offset)
    : ParseError(code, detail, locate(text, offset)) {}

ParseError::ParseError(json_errc code, std::string_view detail, Position position)
    : std::system_error(make_error_code(code),
                        "JSON parse error at line " + std::to_string(position.line) + ", column " +
                            std::to_string(position.column) + ": " + std::string(detail)),
      line_(position.line),
      column_(position.column),
      offset_(position.offset) {}

ParseError::Position ParseError::locate(std::string_view text, std::size_t offset) noexcept {
  Position position{1, 1, offset};
  for (const char byte : text.substr(0, offset)) {
    ++position.column;
    if (byte == '\n') {
      ++position.line;
      position.column = 1;
    }
  }
  return position;
}

TypeError::TypeError(const std::string& text)
    : std::system_error(make_error_code(json_errc::type_mismatch), text) {}

OutOfRangeError::OutOfRangeError(std::size_t index, std::size_t size)
    : std::system_error(make_error_code(json_errc::index_out_of_range),
                        "array index " + std::to_string(index) +
                            " out of range (size=" + std::to_string(size) + ")") {}

}  // namespace yajson
