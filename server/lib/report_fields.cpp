#include "server/lib/report_fields.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>

#include "server/lib/Hooks.h"

namespace rrm::reports {
namespace {

/// Start of field `n`, or npos when the line has fewer fields.
std::size_t field_start(const std::string& line, std::size_t n, char separator) {
  std::size_t start = 0;
  for (; n > 0; --n) {
    start = line.find(separator, start);
    if (start == std::string::npos) return start;
    ++start;
  }
  return start;
}

IntResult refused(int code) { return {0, false, code}; }

/// True when timegm() took the fields as they are instead of carrying over (30 February).
bool same_calendar(const std::tm& a, const std::tm& b) {
  return a.tm_year == b.tm_year && a.tm_mon == b.tm_mon && a.tm_mday == b.tm_mday &&
         a.tm_hour == b.tm_hour && a.tm_min == b.tm_min && a.tm_sec == b.tm_sec;
}

}  // namespace

int get_field_by_num_as_str(const std::string& line, std::size_t n, std::string& out,
                            char separator, bool allow_empty) {
  if (line.empty()) {
    RRM_LOG(Error, "'source' string is empty.");
    return EINVAL;
  }
  const std::size_t start = field_start(line, n, separator);
  if (start == std::string::npos) {
    RRM_LOG(Error, "Not found field %zu in string: \"%s\".", n, line.c_str());
    return EINVAL;
  }
  const std::size_t end = line.find(separator, start);
  out = line.substr(start, end == std::string::npos ? end : end - start);
  if (!out.empty() || allow_empty) return 0;
  if (end == std::string::npos)
    RRM_LOG(Error, "Requested field %zu is empty (string: \"%s\").", n, line.c_str());
  else
    RRM_LOG(Error, "Requested empty field %zu in string: \"%s\".", n, line.c_str());
  return EINVAL;
}

int get_field_by_num_as_int(const std::string& line, std::size_t n, std::int32_t& out,
                            char separator) {
  std::string text;
  if (const int code = get_field_by_num_as_str(line, n, text, separator)) return code;
  const IntResult result = str_to_int_with_log(text);
  if (!result.ok) {
    RRM_LOG(Error, "Incorrect field %zu in string: \"%s\".", n, line.c_str());
    return result.code;
  }
  out = result.value;
  return 0;
}

IntResult str_to_int_with_log(const std::string& text) {
  if (text.empty()) {
    RRM_LOG(Error, "String for convert is empty.");
    return refused(EINVAL);
  }
  char* end = nullptr;
  errno = 0;
  const long value = std::strtol(text.c_str(), &end, 0);
  if (const int code = errno; code != 0) {
    RRM_LOG(Error, "Argument \"%s\" invalid. Error code: %d (%s).", text.c_str(), code,
            std::strerror(code));
    return refused(code);
  }
  if (value > std::numeric_limits<std::int32_t>::max()) {
    RRM_LOG(Error, "Argument \"%s\" too big.", text.c_str());
    return refused(EINVAL);
  }
  if (value < std::numeric_limits<std::int32_t>::min()) {
    RRM_LOG(Error, "Argument \"%s\" too small.", text.c_str());
    return refused(EINVAL);
  }
  if (end != text.c_str() + text.size()) {
    RRM_LOG(Error, "Argument \"%s\" inconvertible.", text.c_str());
    return refused(EINVAL);
  }
  return {static_cast<std::int32_t>(value), true, 0};
}

int get_date_time_fields_from_file_line_as_str(const std::string& line, std::string& date) {
  std::string day;
  std::string time;
  if (const int code = get_field_by_num_as_str(line, 1, day)) {
    RRM_LOG(Error, "Not found date in report line: \"%s\".", line.c_str());
    return code;
  }
  if (const int code = get_field_by_num_as_str(line, 2, time)) {
    RRM_LOG(Error, "Not found time in report line: \"%s\".", line.c_str());
    return code;
  }
  date = day + kSeparator + time;
  return 0;
}

int parse_date_time_fields_to_time_t(const std::string& text, std::int64_t& time) {
  std::tm read{};
  const char* end = ::strptime(text.c_str(), "%Y-%m-%d,%H:%M:%S", &read);
  if (end == nullptr) {
    RRM_LOG(Error, "Parser error in string: \"%s\".", text.c_str());
    return EINVAL;
  }
  std::tm normal = read;
  const std::time_t seconds = ::timegm(&normal);
  if (end != text.c_str() + text.size() || seconds == -1 || !same_calendar(read, normal)) {
    RRM_LOG(Error, "Incorrect data/time in string: \"%s\".", text.c_str());
    return EINVAL;
  }
  time = seconds;
  return 0;
}

std::string format_time(std::int64_t time, bool utc) {
  const auto seconds = static_cast<std::time_t>(time);
  std::tm fields{};
  if ((utc ? ::gmtime_r(&seconds, &fields) : ::localtime_r(&seconds, &fields)) == nullptr)
    return {};
  char text[64];
  const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%d,%H:%M:%S", &fields);
  return std::string(text, length);
}

}  // namespace rrm::reports
