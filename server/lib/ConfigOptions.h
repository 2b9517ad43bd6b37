#pragma once

#include <cstdint>

#include "server/lib/JsonReader.h"
#include "server/lib/JsonWriter.h"

/// Checks of single options, shared by everything that validates settings before taking them.
///
/// An absent key is always fine. A failed check sets `invalid`, writes a Warning record and appends
/// {key: value} to the array `errors`; nothing here ever clears `invalid`.
namespace rrm {

struct DomainInfo;

/// True when the member is present and a text; get_str() alone cannot tell "" from absent.
bool has_text(const JsonReader& reader, const char* key);

/// Reads "%3d:%2d" of at most six characters, what follows the minutes is ignored; minutes count
/// negatively after negative hours (so "-0:30" is half an hour ahead).
/// @return false when the text is longer, does not parse or has 60 or more minutes
bool parse_hours_minutes(const char* text, std::int32_t& seconds);

/// An integer within [min, max].
void validate_int_opt(const JsonReader& reader, const char* key, long max, long min, bool& invalid,
                      JsonWriter& errors);
/// A flag: every integer is one, only a text whose number does not fit is not.
void validate_int_opt(const JsonReader& reader, const char* key, bool& invalid, JsonWriter& errors);
/// A text of hours and minutes within [min, max] seconds.
void validate_time_opt(const JsonReader& reader, const char* key, std::int32_t max,
                       std::int32_t min, bool& invalid, JsonWriter& errors);

/// Checks "time_zone" (-12:00 to +14:00) and takes its text and seconds into `info` when it is
/// present and valid.
/// @param changed  set when `info` received another text or offset
/// @return false when it is present and invalid (listed in `errors`)
bool read_time_zone(const JsonReader& reader, DomainInfo& info, bool& changed, JsonWriter& errors);

}  // namespace rrm
