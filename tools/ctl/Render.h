#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "json/JsonValue.h"

/// Replies as text for people: members as two columns, lists of objects as tables.
namespace rrm::ctl {

/// Columns are as wide as their widest cell; the first row is the heading.
std::string table(const std::vector<std::vector<std::string>>& rows, int indent = 0);

/// @param hidden  members that are left out wherever they stand
std::string render(const yajson::JsonValue& object, std::span<const std::string_view> hidden = {});

/// The text with '?' for what a terminal would obey: it comes from access points and from files as
/// often as from operators.
std::string printable(std::string_view text);

/// A value as one cell: texts bare, lists of plain values with blanks, other lists as their size.
std::string cell(const yajson::JsonValue& value);

}  // namespace rrm::ctl
