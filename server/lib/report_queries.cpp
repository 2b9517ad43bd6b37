#include "server/lib/report_queries.h"

#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <initializer_list>
#include <memory>
#include <optional>
#include <sstream>
#include <string_view>

#include "server/lib/Config.h"
#include "server/lib/Hooks.h"
#include "server/lib/RegularFile.h"
#include "server/lib/report_fields.h"
#include "server/lib/report_lines.h"
#include "server/lib/report_optimize_tpc_dca.h"

namespace rrm::reports {
namespace {

constexpr std::string_view kUtc = " UTC";
constexpr std::size_t kFirstConfigField = 3;
constexpr std::size_t kShortestIndex = 2;  ///< bytes of an index file that may hold a line

/// Where each value of a report line stands.
enum Field : std::size_t {
  kVersion = 0,
  kApMac = 3,
  kRadioMac = 4,
  kPowerBefore = 5,
  kPowerAfter = 6,
  kChannelBefore = 7,
  kChannelAfter = 8,
  kRadioId = 9,
  kBandwidth = 10,
  kMaxPower = 11,
  kMinPower = 12,
  kPrimaryChannel = 13,
  kAvailableChannels = 14,
  kEirpBefore = 15,
  kEirpAfter = 16,
  kEirpMin = 17,
  kEirpMax = 18,
  kAntennaGain = 19,
  kCableLoss = 20,
};

struct Argument {
  const char* name;
  const std::string& value;
};
/// Tells whether all arguments are there; the first that is not is logged (with `verb` before
/// "empty").
bool none_empty(std::initializer_list<Argument> arguments, const char* verb = "") {
  for (const Argument& argument : arguments) {
    if (!argument.value.empty()) continue;
    RRM_LOG(Error, "Argument '%s' %sempty.", argument.name, verb);
    return false;
  }
  return true;
}

// --- list ---------------------------------------------------------------------------------------

struct Window {
  std::int64_t start = 0;
  std::int64_t finish = 0;
};

bool read_query_time(const std::string& text, const char* argument, std::int64_t& time) {
  if (get_utc_timestamp_from_string(text, time) == 0) return true;
  RRM_LOG(Error, "Incorrect data/time for '%s' in reports query (\"%s\").", argument, text.c_str());
  return false;
}

std::optional<Window> read_window(const std::string& date_start, const std::string& date_finish) {
  Window window;
  if (!read_query_time(date_start, "date_start", window.start)) return std::nullopt;
  if (!read_query_time(date_finish, "date_finish", window.finish)) return std::nullopt;
  if (window.start < window.finish) return window;
  RRM_LOG(Error,
          "'date_start' in reports query must < 'date_finish' (date_start = \"%s\", date_finish = "
          "\"%s\").",
          date_start.c_str(), date_finish.c_str());
  return std::nullopt;
}

void add_list_element(JsonWriter& data, const std::string& domain, const std::string& date) {
  JsonWriter element = JsonWriter::object(data);
  element.add("id", date + kSeparator + domain);
  element.add("domain", domain);
  element.add("date", date + std::string(kUtc));
}

/// Fills `data` from the index file; a bad line is counted out but the others are listed.
int list_window(JsonWriter& data, std::int32_t& count, const std::string& domain,
                const std::string& file, const Window& window) {
  int code = 0;
  LineReader reader(file);
  for (std::string line; reader.next(line);) {
    std::string date;
    std::int64_t time = 0;
    if (read_line_date(line, date, time) != 0) {
      RRM_LOG(Error, "Incorrect report data/time in file: \"%s\", line: \"%s\".", file.c_str(),
              line.c_str());
      code = EIO;
    } else if (window.start <= time && time < window.finish) {
      add_list_element(data, domain, date);
      ++count;
    }
  }
  return reader.code() != 0 ? reader.code() : code;
}

int query_list(JsonWriter& out, const std::string& domain, const std::string& path,
               const std::string& date_start, const std::string& date_finish, bool missing_ok) {
  if (!none_empty({{"domain_name", domain},
                   {"report_files_path", path},
                   {"date_start", date_start},
                   {"date_finish", date_finish}}))
    return EINVAL;
  const std::optional<Window> window = read_window(date_start, date_finish);
  if (!window) return EINVAL;
  const std::string index = report_files(domain, path).index;
  JsonWriter data = JsonWriter::array(out, "data");
  std::int32_t count = 0;
  int code = 0;
  if (missing_ok && !file_exists(index))
    RRM_LOG(Debug, "No reports for domain: \"%s\".", domain.c_str());
  else
    code = list_window(data, count, domain, index, *window);
  out.add("count", count);
  return code;
}

// --- one report ---------------------------------------------------------------------------------

struct ReportId {
  std::string id;
  std::string date;
  std::string domain;
};

int get_fields_from_report_id(ReportId& report) {
  std::string day;
  std::string time;
  if (get_field_by_num_as_str(report.id, 0, day) != 0 ||
      get_field_by_num_as_str(report.id, 1, time) != 0) {
    RRM_LOG(Error, "Not found date/time in string: \"%s\".", report.id.c_str());
    RRM_LOG(Error, "Not found date/time in 'report_id': \"%s\".", report.id.c_str());
    return EINVAL;
  }
  report.date = day + kSeparator + time;
  if (get_field_by_num_as_str(report.id, 2, report.domain) != 0) {
    RRM_LOG(Error, "Not found domain name in 'report_id': \"%s\".", report.id.c_str());
    return EINVAL;
  }
  std::int64_t seconds = 0;
  if (parse_date_time_fields_to_time_t(report.date, seconds) != 0) {
    RRM_LOG(Error, "Incorrect data/time in 'report_id': \"%s\".", report.id.c_str());
    return EINVAL;
  }
  return 0;
}

/// Writes the settings that were in force from their line of the configuration file.
int write_domain_config(JsonWriter& out, const std::string& line) {
  DomainConfig config;
  if (!config.from_csv(line, kFirstConfigField, kSeparator)) {
    RRM_LOG(Error, "Report parser error in string: \"%s\".", line.c_str());
    return EIO;
  }
  JsonWriter object = JsonWriter::object(out, "domain_config");
  config.to_json(object);
  return 0;
}

int get_radio_report_domain_config(JsonWriter& out, const ReportId& report,
                                   const std::string& file) {
  LineReader reader(file);
  for (std::string line; reader.next(line);) {
    std::string date;
    if (get_date_time_fields_from_file_line_as_str(line, date) != 0)
      RRM_LOG(Error, "Not found report data/time in file: \"%s\", line: \"%s\".", file.c_str(),
              line.c_str());
    else if (date == report.date)
      return write_domain_config(out, line);
  }
  if (reader.code() != 0) return reader.code();
  RRM_LOG(Error,
          "Domain config for report not found. Report Id: \"%s\". Domain: \"%s\". Report date: "
          "\"%s\". File: \"%s\".",
          report.id.c_str(), report.domain.c_str(), report.date.c_str(), file.c_str());
  return EINVAL;
}

/// Copies fields of one line into JSON and counts those that cannot be read (they are written as
/// 0).
class FieldCopier {
 public:
  explicit FieldCopier(const std::string& line) : line_(line) {}

  void number(JsonWriter& out, const char* key, Field field) {
    std::int32_t value = 0;
    if (get_field_by_num_as_int(line_, field, value) != 0) ++errors_;
    out.add(key, value);
  }
  void text(JsonWriter& out, const char* key, Field field) {
    std::string value;
    if (get_field_by_num_as_str(line_, field, value) != 0) ++errors_;
    out.add(key, value);
  }
  void channels(JsonWriter& out, const char* key, Field field) {
    std::string value;
    if (get_field_by_num_as_str(line_, field, value, kSeparator, true) != 0) ++errors_;
    JsonWriter array = JsonWriter::array(out, key);
    std::istringstream words(value);
    for (std::string word; words >> word;) {
      const IntResult channel = str_to_int_with_log(word);
      if (!channel.ok) ++errors_;
      array.add({}, channel.value);
    }
  }
  int errors() const noexcept { return errors_; }

 private:
  const std::string& line_;
  int errors_ = 0;
};

/// The radio of one report line; lines of an older version end after the channels.
/// @return number of fields that could not be read
int read_all_report_fields_from_string(JsonWriter& radio, const std::string& line) {
  std::string version;
  const bool has_eirp =
      get_field_by_num_as_str(line, kVersion, version) == 0 && version == kLineVersion;
  FieldCopier copy(line);
  copy.number(radio, "radio_id", kRadioId);
  copy.text(radio, "radio_mac", kRadioMac);
  {
    JsonWriter before = JsonWriter::object(radio, "before");
    copy.number(before, "power", kPowerBefore);
    copy.number(before, "channel", kChannelBefore);
    if (has_eirp) copy.number(before, "eirp", kEirpBefore);
  }
  {
    JsonWriter after = JsonWriter::object(radio, "after");
    copy.number(after, "power", kPowerAfter);
    copy.number(after, "channel", kChannelAfter);
    if (has_eirp) copy.number(after, "eirp", kEirpAfter);
  }
  copy.number(radio, "bandwidth", kBandwidth);
  copy.number(radio, "max_power", kMaxPower);
  copy.number(radio, "min_power", kMinPower);
  copy.number(radio, "primary_channel", kPrimaryChannel);
  copy.channels(radio, "available_channels", kAvailableChannels);
  if (has_eirp) {
    copy.number(radio, "eirp-min", kEirpMin);
    copy.number(radio, "eirp-max", kEirpMax);
    JsonWriter antenna = JsonWriter::object(radio, "antenna-configuration");
    copy.number(antenna, "antenna-gain", kAntennaGain);
    copy.number(antenna, "cable-loss", kCableLoss);
  }
  return copy.errors();
}

/// Groups consecutive lines of one access point.
class DetailsWriter {
 public:
  explicit DetailsWriter(JsonWriter& report) : details_(JsonWriter::array(report, "details")) {}

  /// @return 0 or EIO for a line that cannot be read
  int add(const std::string& line) {
    std::string ap_mac;
    if (get_field_by_num_as_str(line, kApMac, ap_mac) != 0) {
      RRM_LOG(Error, "Not found AP MAC-address in report line: \"%s\".", line.c_str());
      return EIO;
    }
    if (!element_ || ap_mac != ap_mac_) start(ap_mac);
    JsonWriter radio = JsonWriter::object(*radios_);
    if (read_all_report_fields_from_string(radio, line) == 0) return 0;
    RRM_LOG(Error, "Report parser error in string: \"%s\".", line.c_str());
    return EIO;
  }
  bool has_data() const noexcept { return element_ != nullptr; }

 private:
  void start(const std::string& ap_mac) {
    ap_mac_ = ap_mac;
    radios_.reset();
    // Writers do not move, as std::make_unique would ask of them.
    element_.reset(new JsonWriter(JsonWriter::object(details_)));  // NOLINT(modernize-make-unique)
    element_->add("ap_mac", ap_mac);
    // NOLINTNEXTLINE(modernize-make-unique)
    radios_.reset(new JsonWriter(JsonWriter::array(*element_, "radio_interfaces")));
  }

  JsonWriter details_;
  std::string ap_mac_;
  std::unique_ptr<JsonWriter> element_;  ///< of the access point of the line before
  std::unique_ptr<JsonWriter> radios_;
};

void log_undated_line(bool loaded, const std::string& file, const std::string& line) {
  if (loaded)
    RRM_LOG(Debug, "Report loaded, but not found report data/time in file: \"%s\", line: \"%s\".",
            file.c_str(), line.c_str());
  else
    RRM_LOG(Error, "Not found report data/time in file: \"%s\", line: \"%s\".", file.c_str(),
            line.c_str());
}

int get_radio_report_data(JsonWriter& out, const ReportId& report, const std::string& file) {
  DetailsWriter details(out);
  LineReader reader(file);
  for (std::string line; reader.next(line);) {
    std::string date;
    if (get_date_time_fields_from_file_line_as_str(line, date) != 0)
      log_undated_line(details.has_data(), file, line);
    else if (date == report.date)
      if (const int code = details.add(line)) return code;
  }
  if (reader.code() != 0) return reader.code();
  if (details.has_data()) return 0;
  RRM_LOG(Error,
          "Report data not found. Report Id: \"%s\". Domain: \"%s\". Report date: \"%s\". File: "
          "\"%s\".",
          report.id.c_str(), report.domain.c_str(), report.date.c_str(), file.c_str());
  return EINVAL;
}

int called(int code, const char* function) {
  if (code != 0) RRM_LOG(Debug, "Error call '%s'.", function);
  return code;
}

int query_report(JsonWriter& out, ReportId& report, const std::string& path) {
  if (!none_empty({{"report_id", report.id}, {"report_files_path", path}}, "is ")) return EINVAL;
  if (const int code = called(get_fields_from_report_id(report), "get_fields_from_report_id"))
    return code;
  const ReportFiles files = report_files(report.domain, path);
  JsonWriter object = JsonWriter::object(out, "report");
  object.add("id", report.id);
  object.add("domain", report.domain);
  object.add("date", report.date + std::string(kUtc));
  if (const int code = called(get_radio_report_domain_config(object, report, files.configuration),
                              "get_radio_report_domain_config"))
    return code;
  return called(get_radio_report_data(object, report, files.report), "get_radio_report_data");
}

// --- the latest ---------------------------------------------------------------------------------

/// The last line that a newline ends; what follows it was never finished. Empty when there is none.
std::string last_line(const std::string& text) {
  const std::size_t end = text.rfind('\n');
  if (end == std::string::npos || end == 0) return {};
  const std::size_t before = text.rfind('\n', end - 1);
  const std::size_t start = before == std::string::npos ? 0 : before + 1;
  return text.substr(start, end - start);
}

/// The end of a file, at most 4096 bytes: far more than a line of an index has.
int read_tail(const std::string& file, std::string& tail) {
  constexpr off_t kLimit = 4096;
  const int descriptor = open_regular_file(file, O_RDONLY);
  if (descriptor < 0) return errno;
  const off_t length = ::lseek(descriptor, 0, SEEK_END);
  tail.resize(static_cast<std::size_t>(std::min(std::max<off_t>(length, 0), kLimit)));
  const ssize_t count =
      ::pread(descriptor, tail.data(), tail.size(), length - static_cast<off_t>(tail.size()));
  const int code = count < 0 ? errno : 0;
  tail.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
  ::close(descriptor);
  return code;
}

int find_last_report(std::string& date, const std::string& file, const std::string& tail) {
  const std::string line = last_line(tail);
  std::int64_t time = 0;
  if (read_line_date(line, date, time) == 0) return 0;
  RRM_LOG(Error, "Incorrect report data/time in file: \"%s\", line: \"%s\".", file.c_str(),
          line.c_str());
  return EIO;
}

int query_last(JsonWriter& out, const std::string& domain, const std::string& path,
               bool missing_ok) {
  if (!none_empty({{"domain_name", domain}, {"report_files_path", path}})) return EINVAL;
  const std::string index = report_files(domain, path).index;
  std::string tail;
  const int read_code = read_tail(index, tail);
  const bool missing = !file_exists(index) || (read_code == 0 && tail.size() < kShortestIndex);
  if (missing && missing_ok) {
    RRM_LOG(Debug, "No reports for domain: \"%s\".", domain.c_str());
    return 0;
  }
  if (read_code != 0) {
    log_read_error(index, read_code);
    return read_code;
  }
  std::string date;
  if (const int code = find_last_report(date, index, tail)) return code;
  const int code = get_radio_report(out, date + kSeparator + domain, path);
  if (code != 0) RRM_LOG(Debug, "Error call 'reports::get_radio_report'. Exit code: %d.", code);
  return code;
}

}  // namespace

int get_utc_timestamp_from_string(const std::string& text, std::int64_t& time) {
  if (text.size() != kDateLength + kUtc.size()) {
    RRM_LOG(Error, "Incorrect text length in: \"%s\".", text.c_str());
    return EINVAL;
  }
  if (!text.ends_with(kUtc)) {
    RRM_LOG(Error, "Expected UTC timezone in: \"%s\".", text.c_str());
    return EINVAL;
  }
  if (parse_date_time_fields_to_time_t(text.substr(0, kDateLength), time) != 0) {
    RRM_LOG(Error, "Incorrect data/time in: \"%s\".", text.c_str());
    return EINVAL;
  }
  return 0;
}

int get_radio_report_list(JsonWriter& out, const std::string& domain, const std::string& path,
                          const std::string& date_start, const std::string& date_finish,
                          bool missing_ok) {
  const int code = query_list(out, domain, path, date_start, date_finish, missing_ok);
  if (code == 0) return 0;
  RRM_LOG(Error,
          "Query reports list exit with error code: %d. Domain: \"%s\". Reports start date: "
          "\"%s\". Reports end date: \"%s\".",
          code, domain.c_str(), date_start.c_str(), date_finish.c_str());
  raise_event(EventCode::ReportListFailed, domain);
  return code;
}

int get_radio_report(JsonWriter& out, const std::string& report_id, const std::string& path) {
  ReportId report{report_id, {}, {}};
  const int code = query_report(out, report, path);
  if (code == 0) return 0;
  RRM_LOG(
      Error,
      "Report not found. Report Id: \"%s\". Domain: \"%s\". Report date: \"%s\". Exit code: %d.",
      report.id.c_str(), report.domain.c_str(), report.date.c_str(), code);
  raise_event(EventCode::ReportFetchFailed, report_id);
  return code;
}

int get_last_radio_report(JsonWriter& out, const std::string& domain, const std::string& path,
                          bool missing_ok) {
  const int code = query_last(out, domain, path, missing_ok);
  if (code == 0) return 0;
  RRM_LOG(Error, "Query last radio report exit with error code: %d. Domain: \"%s\".", code,
          domain.c_str());
  raise_event(EventCode::ReportLastFailed, domain);
  return code;
}

}  // namespace rrm::reports
