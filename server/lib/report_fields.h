#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

/// Fields and times of the lines of report files.
///
/// Threading: pure functions, callable from any thread.
/// Errors:    a code (0, or an errno value such as EINVAL) with an Error record that says what was
///            wrong.
namespace rrm::reports {

inline constexpr char kSeparator = ',';
inline constexpr std::size_t kDateLength = 19;  ///< "YYYY-MM-DD,HH:MM:SS"
/// First field of every line that this version writes.
inline constexpr const char* kLineVersion = "1.1";

/// Outcome of reading an integer.
struct IntResult {
  std::int32_t value = 0;
  bool ok = false;
  int code = 0;  ///< 0, EINVAL or the errno of the conversion
};

/// Field `n` (from 0) of a line.
int get_field_by_num_as_str(const std::string& line, std::size_t n, std::string& out,
                            char separator = kSeparator, bool allow_empty = false);
int get_field_by_num_as_int(const std::string& line, std::size_t n, std::int32_t& out,
                            char separator = kSeparator);

/// The whole text as strtol with base 0 reads it: 0x10 is 16 and 010 is 8.
IntResult str_to_int_with_log(const std::string& text);

/// Fields 1 and 2 joined by a comma: the date of the line's report.
int get_date_time_fields_from_file_line_as_str(const std::string& line, std::string& date);

/// Reads "%Y-%m-%d,%H:%M:%S" as UTC into seconds since the epoch.
int parse_date_time_fields_to_time_t(const std::string& text, std::int64_t& time);

/// Writes seconds since the epoch as "%Y-%m-%d,%H:%M:%S", in UTC or in local time.
std::string format_time(std::int64_t time, bool utc = true);

}  // namespace rrm::reports
