#include "server/lib/ConfigOptions.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "server/lib/ConfigDomain.h"
#include "server/lib/Hooks.h"

namespace rrm {
namespace {

constexpr std::size_t kLongestTime = 6;  // characters of "-12:00"
constexpr std::int32_t kWesternmost_s = -12 * 3600;
constexpr std::int32_t kEasternmost_s = 14 * 3600;

void refuse_number(const char* key, long value, long max, long min, bool& invalid,
                   JsonWriter& errors) {
  invalid = true;
  RRM_LOG(Warning, "Invalid value for '%s': %ld (allowed range: [%ld, %ld])", key, value, min, max);
  JsonWriter::object(errors).add(key, std::int64_t{value});
}

}  // namespace

bool has_text(const JsonReader& reader, const char* key) {
  const JsonReader member = reader.child(key);
  return member.value() != nullptr && member.value()->is_string();
}

bool parse_hours_minutes(const char* text, std::int32_t& seconds) {
  if (std::strlen(text) > kLongestTime) return false;
  int hours = 0;
  int minutes = 0;
  if (std::sscanf(text, "%3d:%2d", &hours, &minutes) != 2 || minutes >= 60) return false;
  seconds = hours * 3600 + (hours < 0 ? -minutes : minutes) * 60;
  return true;
}

void validate_int_opt(const JsonReader& reader, const char* key, long max, long min, bool& invalid,
                      JsonWriter& errors) {
  if (!reader.has(key)) return;
  errno = 0;
  const long value = reader.get_int(key);
  if (errno != 0 || value < min || value > max)
    refuse_number(key, value, max, min, invalid, errors);
}

void validate_int_opt(const JsonReader& reader, const char* key, bool& invalid,
                      JsonWriter& errors) {
  if (!reader.has(key)) return;
  errno = 0;
  const long value = reader.get_int(key);
  if (errno != 0) refuse_number(key, value != 0 ? 1 : 0, 1, 0, invalid, errors);
}

void validate_time_opt(const JsonReader& reader, const char* key, std::int32_t max,
                       std::int32_t min, bool& invalid, JsonWriter& errors) {
  if (!reader.has(key)) return;
  const bool is_text = has_text(reader, key);
  const char* text = reader.get_str(key);
  std::int32_t seconds = 0;
  if (is_text && parse_hours_minutes(text, seconds) && seconds >= min && seconds <= max) return;
  invalid = true;
  RRM_LOG(Warning, "Invalid time value for '%s': '%s' (allowed range: [%d, %d] in seconds)", key,
          is_text ? text : "null", min, max);
  JsonWriter::object(errors).add(key, text);
}

bool read_time_zone(const JsonReader& reader, DomainInfo& info, bool& changed, JsonWriter& errors) {
  static constexpr char kKey[] = "time_zone";
  bool invalid = false;
  validate_time_opt(reader, kKey, kEasternmost_s, kWesternmost_s, invalid, errors);
  if (invalid) return false;
  if (!reader.has(kKey)) return true;
  const char* text = reader.get_str(kKey);
  std::int32_t seconds = 0;
  parse_hours_minutes(text, seconds);
  if (info.time_zone == text && info.time_zone_s == seconds) return true;
  info.time_zone = text;
  info.time_zone_s = seconds;
  changed = true;
  return true;
}

}  // namespace rrm
