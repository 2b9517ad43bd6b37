#include "server/lib/report_optimize_tpc_dca.h"

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <vector>

#include "server/lib/Hooks.h"
#include "server/lib/report_lines.h"

namespace rrm::reports {
namespace {

void require(const std::string& value, const char* function, const char* argument) {
  if (value.empty())
    throw std::invalid_argument(std::string(function) + ": Invalid argument '" + argument + "'.");
}

bool is_reported(const Radio& radio) {
  const bool locked = radio.locked_for_tpc != 0 && radio.locked_for_dca != 0;
  return radio.status && !radio.available_channels.empty() && !locked;
}

std::string channels_text(const std::unordered_set<std::int32_t>& channels) {
  std::vector<std::int32_t> sorted(channels.begin(), channels.end());
  std::sort(sorted.begin(), sorted.end());
  std::string text;
  for (const std::int32_t channel : sorted) {
    if (!text.empty()) text += ' ';
    text += std::to_string(channel);
  }
  return text;
}

RadioRecord record_before(const Radio& radio) {
  RadioRecord record;
  record.power_before = radio.power;
  record.eirp_before = radio.eirp;
  record.channel_before = radio.channel;
  record.radio_id = radio.id;
  record.bandwidth = radio.bandwidth;
  record.max_power = radio.power_max;
  record.min_power = radio.power_min;
  record.eirp_min = radio.eirp_min;
  record.eirp_max = radio.eirp_max;
  record.antenna_gain = radio.antenna_gain;
  record.cable_loss = radio.cable_loss;
  record.primary_channel = radio.primary_channel;
  record.available_channels = channels_text(radio.available_channels);
  return record;
}

/// Calls visit(key, radio) for every radio that a report covers.
template <typename Visit>
void for_each_reported(const ApMap& ap_map, const std::string& date, Visit visit) {
  for (const auto& [mac, entry] : ap_map.aps()) {
    const std::string ap_mac = entry->base_mac.upper().str();
    for (const Radio& radio : entry->radios.radios) {
      if (!is_reported(radio)) continue;
      visit(create_key_for_domain_radio_report(date, ap_mac, radio.mac.upper().str()), radio);
    }
  }
}

/// "1.1," + key (date, time and both MACs) + the values in the order of the file.
std::string report_line(const std::string& key, const RadioRecord& record) {
  std::string line = std::string(kLineVersion) + kSeparator + key;
  const auto add = [&line](const std::string& value) { line += kSeparator + value; };
  for (const std::int32_t value : {record.power_before, record.power_after, record.channel_before,
                                   record.channel_after, record.radio_id, record.bandwidth,
                                   record.max_power, record.min_power, record.primary_channel})
    add(std::to_string(value));
  add(record.available_channels);
  for (const std::int32_t value : {record.eirp_before, record.eirp_after, record.eirp_min,
                                   record.eirp_max, record.antenna_gain, record.cable_loss})
    add(std::to_string(value));
  return line + "\n";
}

int write_radio_report_to_file(const RadioReport& report, const std::string& file) {
  std::string lines;
  for (const auto& [key, record] : report) lines += report_line(key, record);
  const int code = append_to_file(file, lines);
  if (code != 0) RRM_LOG(Error, "Error call 'write_radio_report_to_file'.");
  return code;
}

int write_radio_report_domain_config_to_file(const DomainConfig& config, const std::string& date,
                                             const std::string& file) {
  const std::string separator(1, kSeparator);
  const int code = append_to_file(
      file, kLineVersion + separator + date + separator + config.to_string(separator) + "\n");
  if (code != 0) RRM_LOG(Error, "Error call 'write_radio_report_domain_config_to_file'.");
  return code;
}

int write_radio_report_id_to_file(const std::string& date, const std::string& file) {
  const int code = append_to_file(file, std::string(kLineVersion) + kSeparator + date + "\n");
  if (code != 0) RRM_LOG(Error, "Error call 'write_radio_report_id_to_file'.");
  return code;
}

int append_report(const RadioReport& report, const ReportFiles& files, const std::string& date,
                  const DomainConfig& config) {
  if (const int code = write_radio_report_to_file(report, files.report)) return code;
  if (const int code = write_radio_report_domain_config_to_file(config, date, files.configuration))
    return code;
  return write_radio_report_id_to_file(date, files.index);
}

}  // namespace

ReportFiles report_files(const std::string& domain, const std::string& path) {
  return {path + "/report_" + domain + ".txt", path + "/report_cfg_" + domain + ".txt",
          path + "/report_idx_" + domain + ".txt"};
}

std::string create_key_for_domain_radio_report(const std::string& date, const std::string& ap_mac,
                                               const std::string& radio_mac) {
  require(date, __func__, "optimize_start_date");
  require(ap_mac, __func__, "ap_mac_str");
  require(radio_mac, __func__, "radio_mac_str");
  return date + kSeparator + ap_mac + kSeparator + radio_mac;
}

void remember_radio_report_before_optimize(RadioReport& report, const std::string& date,
                                           const ApMap& ap_map) {
  require(date, __func__, "optimize_start_date");
  for_each_reported(ap_map, date, [&report](const std::string& key, const Radio& radio) {
    report.emplace(key, record_before(radio));
  });
}

void remember_radio_report_after_optimize(RadioReport& report, const std::string& date,
                                          const ApMap& ap_map) {
  require(date, __func__, "optimize_start_date");
  for_each_reported(ap_map, date, [&report](const std::string& key, const Radio& radio) {
    RadioRecord& record = report[key];
    record.power_after = radio.power;
    record.eirp_after = radio.eirp;
    record.channel_after = radio.channel;
  });
}

int save_radio_report_to_files(const RadioReport& report, const std::string& domain,
                               const std::string& date, const std::string& path,
                               const DomainConfig& domain_config) {
  const ReportFiles files = report_files(domain, path);
  RRM_LOG(Debug, "report_file_name = \"%s\"", files.report.c_str());
  RRM_LOG(Debug, "report_config_file_name = \"%s\"", files.configuration.c_str());
  RRM_LOG(Debug, "report_index_file_name = \"%s\"", files.index.c_str());
  const bool complete = !domain.empty() && !date.empty() && !path.empty();
  // What a deletion left unfinished would take the new report with it when it is undone later. A
  // recovery that fails has said so, and the report may still be of use.
  if (complete) recover_unclean_reports_in_domain(domain, path);
  const int code = complete ? append_report(report, files, date, domain_config) : EINVAL;
  if (code != 0)
    RRM_LOG(Error,
            "Error while save radio report for domain: \"%s\". Report date: \"%s\". Exit code: %d.",
            domain.c_str(), date.c_str(), code);
  return code;
}

}  // namespace rrm::reports
