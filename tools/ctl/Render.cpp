#include "tools/ctl/Render.h"

#include <algorithm>

#include "json/JsonSerializer.h"

namespace rrm::ctl {
namespace {

using yajson::JsonValue;
using Hidden = std::span<const std::string_view>;

constexpr int kIndent = 2;

bool is_plain(const JsonValue& value) { return !value.is_array() && !value.is_object(); }

bool holds_plain_values(const JsonValue& value) {
  return value.is_array() &&
         std::all_of(value.elements().begin(), value.elements().end(), is_plain);
}

bool is_hidden(std::string_view key, Hidden hidden) {
  return std::find(hidden.begin(), hidden.end(), key) != hidden.end();
}

constexpr std::size_t kMostColumns = 14;  ///< of a table; more are unreadable

struct Cell {
  std::string column;
  std::string text;
};

/// The cells of an element, members of inner objects as "outer.inner".
/// @return whether a table can show all of it
bool collect_cells(const JsonValue& object, Hidden hidden, const std::string& prefix,
                   std::vector<Cell>& cells) {
  for (const auto& member : object.members()) {
    const JsonValue& value = member.value;
    if (is_hidden(member.key(), hidden)) continue;
    const std::string name = prefix + printable(member.key());
    if (is_plain(value) || holds_plain_values(value))
      cells.push_back({name, cell(value)});
    else if (!value.is_object() || !prefix.empty() ||
             !collect_cells(value, hidden, name + ".", cells))
      return false;
  }
  return true;
}

/// The elements of a list as rows; false when they are no table.
bool collect_rows(const JsonValue& list, Hidden hidden, std::vector<std::vector<Cell>>& rows) {
  for (const JsonValue& element : list.elements()) {
    std::vector<Cell> cells;
    if (!element.is_object() || !collect_cells(element, hidden, {}, cells) ||
        cells.size() > kMostColumns)
      return false;
    rows.push_back(std::move(cells));
  }
  return true;
}

std::string table_of(const std::vector<std::vector<Cell>>& elements, int indent) {
  std::vector<std::vector<std::string>> rows(1);
  std::vector<std::string>& columns = rows[0];
  for (const auto& element : elements)
    for (const Cell& each : element)
      if (std::find(columns.begin(), columns.end(), each.column) == columns.end())
        columns.push_back(each.column);
  for (const auto& element : elements) {
    std::vector<std::string> row(rows[0].size());
    for (const Cell& each : element)
      row[static_cast<std::size_t>(std::find(rows[0].begin(), rows[0].end(), each.column) -
                                   rows[0].begin())] = each.text;
    rows.push_back(std::move(row));
  }
  return table(rows, indent);
}

std::string render_object(const JsonValue& object, Hidden hidden, int indent);

std::string render_list(std::string_view key, const JsonValue& list, Hidden hidden, int indent) {
  const std::string margin(static_cast<std::size_t>(indent), ' ');
  const std::string heading = margin + printable(key);
  std::vector<std::vector<Cell>> rows;
  if (collect_rows(list, hidden, rows)) return heading + ":\n" + table_of(rows, indent + kIndent);
  std::string text;
  std::size_t number = 0;
  for (const JsonValue& element : list.elements()) {
    text += heading + " " + std::to_string(++number) + ":\n";
    text += element.is_object() ? render_object(element, hidden, indent + kIndent)
                                : std::string(static_cast<std::size_t>(indent + kIndent), ' ') +
                                      cell(element) + "\n";
  }
  return text;
}

std::string render_object(const JsonValue& object, Hidden hidden, int indent) {
  std::vector<std::vector<std::string>> plain;
  std::string nested;
  for (const auto& member : object.members()) {
    const std::string_view key = member.key();
    const JsonValue& value = member.value;
    if (is_hidden(key, hidden)) continue;
    if (is_plain(value) || (holds_plain_values(value) && value.as_array().size() > 0)) {
      plain.push_back({printable(key), cell(value)});
    } else if (value.is_object()) {
      nested += std::string(static_cast<std::size_t>(indent), ' ') + printable(key) + ":\n" +
                render_object(value, hidden, indent + kIndent);
    } else if (value.as_array().size() == 0) {
      plain.push_back({printable(key), "none"});
    } else {
      nested += render_list(key, value, hidden, indent);
    }
  }
  return table(plain, indent) + nested;
}

/// Characters, not bytes: the further bytes of one do not count.
std::size_t width_of(const std::string& text) {
  return static_cast<std::size_t>(std::count_if(
      text.begin(), text.end(), [](unsigned char c) { return c < 0x80 || c > 0xbf; }));
}

}  // namespace

std::string printable(std::string_view text) {
  std::string shown;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const auto next = static_cast<unsigned char>(i + 1 < text.size() ? text[i + 1] : '\0');
    // U+0080 to U+009F are two bytes.
    const bool is_pair = byte == 0xc2 && next >= 0x80 && next < 0xa0;
    shown += is_pair || byte < 0x20 || byte == 0x7f ? '?' : text[i];
    if (is_pair) ++i;
  }
  return shown;
}

std::string table(const std::vector<std::vector<std::string>>& rows, int indent) {
  std::vector<std::size_t> widths;
  for (const auto& row : rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], width_of(row[i]));
  }
  std::string text;
  for (const auto& row : rows) {
    std::string line(static_cast<std::size_t>(indent), ' ');
    for (std::size_t i = 0; i < row.size(); ++i)
      line += row[i] + std::string(widths[i] - width_of(row[i]) + 2, ' ');
    line.erase(line.find_last_not_of(' ') + 1);
    text += line + "\n";
  }
  return text;
}

std::string cell(const JsonValue& value) {
  if (value.is_string()) {
    return printable(value.as_string());
  }
  if (is_plain(value)) return yajson::serialize(value);
  if (value.is_object()) return "{...}";
  if (!holds_plain_values(value)) return std::to_string(value.as_array().size());
  std::string text;
  for (const JsonValue& element : value.elements())
    text += (text.empty() ? "" : " ") + cell(element);
  return text;
}

std::string render(const JsonValue& object, Hidden hidden) {
  return render_object(object, hidden, 0);
}

}  // namespace rrm::ctl
