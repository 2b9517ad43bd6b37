#pragma once

#include <cstdint>
#include <string_view>
#include <system_error>

#include "json/JsonValue.h"

namespace yajson {

/// Strict JSON by default; each flag allows one relaxation.
struct ParseOptions {
  bool allow_comments = false;         ///< "//" and "/*" ... "*/" count as white space
  bool allow_trailing_commas = false;  ///< a comma before "]" or "}"
  bool allow_single_quotes = false;    ///< strings and keys in apostrophes; \' is an escape
  bool allow_unquoted_keys = false;    ///< keys that are identifiers
  bool allow_nan_inf = false;          ///< NaN, Infinity and -Infinity
  bool allow_hex = false;              ///< integers as 0x1F, -0x1F
  bool allow_control_chars = false;    ///< raw bytes below 0x20 inside strings
  bool allow_duplicate_keys = false;   ///< the last of several equal keys wins, at its position
  std::uint64_t max_depth = 0;         ///< nesting of arrays and objects; 0 means 512
};

/// What try_parse() found.
struct ParseResult {
  JsonValue value;        ///< null after an error
  std::error_code error;  ///< zero after success
};

/// Builds the value in the thread's current arena, or on the heap when there is none.
/// Threading: reentrant. Errors: ParseError, std::bad_alloc; nothing is left behind then.
JsonValue parse(std::string_view text, const ParseOptions& options = {});

/// The same without exceptions; whatever is not a ParseError is unexpected_character.
ParseResult try_parse(std::string_view text, const ParseOptions& options = {}) noexcept;

}  // namespace yajson
