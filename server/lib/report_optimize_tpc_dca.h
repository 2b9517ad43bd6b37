#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "server/lib/ApMap.h"
#include "server/lib/Config.h"
#include "server/lib/report_fields.h"
#include "server/lib/report_retention.h"

/// What an optimisation did to each radio, kept in three text files per domain.
///
/// Purpose:   the optimisation fills a RadioReport before and after its work; the domain's worker
///            appends it to the files. Old reports go with report_retention.h.
/// Threading: a report belongs to one thread at a time; the files of a domain to its worker.
/// Errors:    the file operation returns 0 or an errno value, logged; the others throw
///            std::invalid_argument for empty arguments.
namespace rrm::reports {

/// One radio of a report; powers and EIRP in dBm, gain and loss in dB(i), bandwidth in MHz. The
/// "after" values stay 0 until the optimisation is done.
struct RadioRecord {
  std::int32_t power_before = 0;
  std::int32_t power_after = 0;
  std::int32_t eirp_before = 0;
  std::int32_t eirp_after = 0;
  std::int32_t channel_before = 0;
  std::int32_t channel_after = 0;
  std::int32_t radio_id = 0;
  std::int32_t bandwidth = 0;
  std::int32_t max_power = 0;
  std::int32_t min_power = 0;
  std::int32_t eirp_min = 0;
  std::int32_t eirp_max = 0;
  std::int32_t antenna_gain = 0;
  std::int32_t cable_loss = 0;
  std::int32_t primary_channel = 0;
  std::string available_channels;  ///< ascending, joined by single blanks

  friend bool operator==(const RadioRecord&, const RadioRecord&) = default;
};

/// Records by report key: "<date>,<access point MAC>,<radio MAC>".
using RadioReport = std::map<std::string, RadioRecord>;

/// Full names of the files of a domain.
struct ReportFiles {
  std::string report;         ///< one line per radio
  std::string configuration;  ///< one line per report: the settings in force
  std::string index;          ///< one line per report: its date
};
ReportFiles report_files(const std::string& domain, const std::string& path);

/// The report key of a radio; all three as they are written.
std::string create_key_for_domain_radio_report(const std::string& date, const std::string& ap_mac,
                                               const std::string& radio_mac);

/// Records every radio that an optimisation could touch: enabled, with channels to choose from and
/// not locked for both TPC and DCA.
/// @param date  start of the optimisation as format_time() writes it
void remember_radio_report_before_optimize(RadioReport& report, const std::string& date,
                                           const ApMap& ap_map);
/// Adds what became of the same radios.
void remember_radio_report_after_optimize(RadioReport& report, const std::string& date,
                                          const ApMap& ap_map);

/// Appends a report to the three files of its domain, making them when missing.
int save_radio_report_to_files(const RadioReport& report, const std::string& domain,
                               const std::string& date, const std::string& path,
                               const DomainConfig& domain_config);

}  // namespace rrm::reports
