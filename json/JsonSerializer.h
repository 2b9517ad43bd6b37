#pragma once

#include <cstdint>
#include <string>

#include "json/JsonValue.h"

namespace yajson {

/// How a value is written; by default compact, in the order of its members.
struct WriteOptions {
  std::int32_t indent = -1;    ///< spaces per level; negative: compact, no white space at all
  bool ensure_ascii = false;   ///< every character outside ASCII as a \u escape
  bool allow_nan_inf = false;  ///< NaN, Infinity and -Infinity as such instead of null
  bool sort_keys = false;      ///< members in ascending order of their key's bytes
};

/// The value as JSON text. Errors: std::bad_alloc and std::length_error for absurd sizes.
std::string serialize(const JsonValue& value, const WriteOptions& options = {});

}  // namespace yajson
