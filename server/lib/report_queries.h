#pragma once

#include <cstdint>
#include <string>

#include "server/lib/JsonWriter.h"

/// Reading reports back: the list of a time window, one report by its id, the latest one.
///
/// Purpose:   what management asks for. A report id is "<date>,<time>,<domain>"; a query time is
///            "YYYY-MM-DD,HH:MM:SS UTC".
/// Threading: stateless; the caller keeps writers of the same domain away.
/// Errors:    0, EINVAL for bad arguments, EIO for unreadable lines, or an errno value; logged, and
///            raised once as an event.
namespace rrm::reports {

/// Seconds since the epoch of a query time.
int get_utc_timestamp_from_string(const std::string& text, std::int64_t& time);

/// "data" (id, domain and date of every report with start <= date < finish) and "count".
/// @param missing_ok  a domain without files has an empty list instead of an error
int get_radio_report_list(JsonWriter& out, const std::string& domain, const std::string& path,
                          const std::string& date_start, const std::string& date_finish,
                          bool missing_ok);

/// "report": id, domain, date, the settings in force and what became of each radio.
int get_radio_report(JsonWriter& out, const std::string& report_id, const std::string& path);

/// The same of the domain's latest report; nothing is added when there is none and that is fine.
int get_last_radio_report(JsonWriter& out, const std::string& domain, const std::string& path,
                          bool missing_ok);

}  // namespace rrm::reports
