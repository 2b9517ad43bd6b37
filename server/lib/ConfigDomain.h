#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <variant>

#include "server/lib/JsonReader.h"
#include "server/lib/JsonWriter.h"

namespace rrm {

/// Radio management settings of a domain, a pattern, or the common ones. The keys of the JSON form
/// are the names of the fields.
///
/// Threading: a plain value; workers keep copies.
/// Errors:    reading never fails; validation lists its errors.
struct DomainConfig {
  bool use_tavro_rrm_scan = true;
  bool use_dca = true;
  bool use_tpc = true;
  bool use_hd_mode = true;
  std::int32_t dca_threshold = 25;          ///< percent
  std::int32_t ap_rssi_threshold_2g = -70;  ///< dBm
  std::int32_t ap_rssi_threshold_5g = -70;  ///< dBm
  std::int32_t ap_rssi_threshold_6g = -70;  ///< dBm
  std::int32_t hysteresis_2g = 2;           ///< dB
  std::int32_t hysteresis_5g = 2;           ///< dB
  std::int32_t hysteresis_6g = 2;           ///< dB
  std::int32_t spare_value = 0;             ///< has no key; only reports record it
  std::string optimization_time = "00:00";  ///< hours:minutes, local time of the domain
  std::int32_t optimization_time_s = 0;     ///< the same in seconds after midnight
  bool use_optimization_time = false;
  bool use_optimization_event = true;
  std::int32_t away_timeout = 120;               ///< s
  std::int32_t blacklist_thr_low = -75;          ///< dBm
  std::int32_t blacklist_thr_high = -65;         ///< dBm
  std::int32_t blacklist_timeout = 30;           ///< s
  std::int32_t load_balance_sta_low = 5;         ///< clients
  std::int32_t load_balance_sta_high = 20;       ///< clients
  std::int32_t roam_attempt_timeout = 600;       ///< s
  std::int32_t sta_load_balance_period = 60;     ///< s
  std::int32_t load_balance_roam_count_min = 2;  ///< clients
  std::int32_t load_balance_roam_count_max = 4;  ///< clients
  bool use_all_ap_balance = false;
  bool use_balance = true;
  std::int32_t client_rssi_renew = 15;  ///< s
  std::int32_t client_max_age = 20;     ///< s
  std::int32_t client_try_no_balance = 2;
  bool no_balance_enterprise = false;
  bool use_rrm_report = true;
  std::int32_t report_days_to_live = 93;  ///< days
  bool use_80211k = true;
  bool use_80211r = true;
  bool use_80211v = false;
  std::int32_t fbt_reassoc_deadline = 1000;  ///< time units of 1024 us
  bool fbt_over_ds = false;

  // Fixed values: no key, never read or written.
  std::int32_t tavro_scan_factor_a = 1;  ///< scan time of an access point's own scan: the product
  std::int32_t tavro_scan_factor_b = 6;  ///< of both factors, s
  std::int32_t default_max_power = 16;   ///< dBm, of a radio that reports none
  std::int32_t default_min_power = 10;   ///< dBm, of a radio that reports none
  std::int32_t planning_delay = 20;      ///< s, before a planned round or distribution
  std::int32_t scan_wait = 15;           ///< s, from the request of modes to the scan
  std::int32_t channel_scan_time = 5;    ///< s per channel
  std::int32_t tick_period = 10;         ///< s, of the domain worker's tick

  /// Takes every present key whose value differs and lies in its range; others are ignored.
  /// @return whether anything changed
  bool apply(const JsonReader& reader);
  /// Checks every present key; appends {key: value} to `errors` for each that is out of range. The
  /// two client limits of load balancing bound each other; one that is absent counts as its
  /// default.
  /// @return true when none failed
  static bool validate(const JsonReader& reader, JsonWriter& errors);
  /// Writes the 37 keyed options in their order.
  void to_json(JsonWriter& writer) const;
  /// The 25 values that report files record, joined by the separator.
  std::string to_string(const std::string& separator) const;
  /// The reverse of to_string: takes the values of a line from field `first` (counted from 0) on,
  /// without range checks.
  /// @return false when a field is missing or no integer; the values before it have been taken
  bool from_csv(const std::string& line, std::size_t first, char separator);

  friend bool operator==(const DomainConfig&, const DomainConfig&) = default;
};

/// One keyed option: its name and what it stores. Reader, validator and writer walk the same rows.
struct DomainOption {
  struct Flag {
    bool DomainConfig::*field;
  };
  struct Number {
    std::int32_t DomainConfig::*field;
    std::int32_t min, max;
  };
  /// Hours and minutes, kept as the text that was read and in seconds.
  struct Time {
    std::string DomainConfig::*text;
    std::int32_t DomainConfig::*seconds;
    std::int32_t min, max;  ///< s
  };

  const char* key;
  std::variant<Flag, Number, Time> kind;
};

/// All keyed options in the order in which they are read and written.
std::span<const DomainOption> domain_options() noexcept;

/// How a domain is bound: to a pattern ("common" for the common settings) and a time zone.
struct DomainInfo {
  std::string pattern;
  std::int32_t time_zone_s = 0;  ///< offset to UTC, seconds
  std::string time_zone;         ///< hours:minutes as written in the configuration

  friend bool operator==(const DomainInfo&, const DomainInfo&) = default;
};

}  // namespace rrm
