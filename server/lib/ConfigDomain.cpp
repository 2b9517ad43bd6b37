#include "server/lib/ConfigDomain.h"

#include <algorithm>
#include <charconv>
#include <string_view>

#include "server/lib/ConfigOptions.h"
#include "server/lib/Overloaded.h"

namespace rrm {
namespace {

using Flag = DomainOption::Flag;
using Number = DomainOption::Number;
using Time = DomainOption::Time;
using C = DomainConfig;

constexpr std::int32_t kDay_s = 86400;

constexpr DomainOption kOptions[] = {
    {"use_tavro_rrm_scan", Flag{&C::use_tavro_rrm_scan}},
    {"use_dca", Flag{&C::use_dca}},
    {"use_tpc", Flag{&C::use_tpc}},
    {"use_hd_mode", Flag{&C::use_hd_mode}},
    {"dca_threshold", Number{&C::dca_threshold, 0, 99}},
    {"ap_rssi_threshold_2g", Number{&C::ap_rssi_threshold_2g, -100, -1}},
    {"ap_rssi_threshold_5g", Number{&C::ap_rssi_threshold_5g, -100, -1}},
    {"ap_rssi_threshold_6g", Number{&C::ap_rssi_threshold_6g, -100, -1}},
    {"hysteresis_2g", Number{&C::hysteresis_2g, 1, 10}},
    {"hysteresis_5g", Number{&C::hysteresis_5g, 1, 10}},
    {"hysteresis_6g", Number{&C::hysteresis_6g, 1, 10}},
    {"optimization_time", Time{&C::optimization_time, &C::optimization_time_s, 0, kDay_s}},
    {"use_optimization_time", Flag{&C::use_optimization_time}},
    {"use_optimization_event", Flag{&C::use_optimization_event}},
    {"away_timeout", Number{&C::away_timeout, 10, 3600}},
    {"blacklist_thr_low", Number{&C::blacklist_thr_low, -100, -1}},
    {"blacklist_thr_high", Number{&C::blacklist_thr_high, -100, -1}},
    {"blacklist_timeout", Number{&C::blacklist_timeout, 5, 3600}},
    {"load_balance_sta_low", Number{&C::load_balance_sta_low, 1, 100}},
    {"load_balance_sta_high", Number{&C::load_balance_sta_high, 1, 100}},
    {"roam_attempt_timeout", Number{&C::roam_attempt_timeout, 0, kDay_s}},
    {"sta_load_balance_period", Number{&C::sta_load_balance_period, 0, kDay_s}},
    {"load_balance_roam_count_min", Number{&C::load_balance_roam_count_min, 0, 100}},
    {"load_balance_roam_count_max", Number{&C::load_balance_roam_count_max, 0, 100}},
    {"use_all_ap_balance", Flag{&C::use_all_ap_balance}},
    {"use_balance", Flag{&C::use_balance}},
    {"client_rssi_renew", Number{&C::client_rssi_renew, 1, 300}},
    {"client_max_age", Number{&C::client_max_age, 0, 300}},
    {"client_try_no_balance", Number{&C::client_try_no_balance, 1, 10}},
    {"no_balance_enterprise", Flag{&C::no_balance_enterprise}},
    {"use_rrm_report", Flag{&C::use_rrm_report}},
    {"report_days_to_live", Number{&C::report_days_to_live, 1, 37200}},
    {"use_80211k", Flag{&C::use_80211k}},
    {"use_80211r", Flag{&C::use_80211r}},
    {"use_80211v", Flag{&C::use_80211v}},
    {"fbt_reassoc_deadline", Number{&C::fbt_reassoc_deadline, 1000, 268431360}},
    {"fbt_over_ds", Flag{&C::fbt_over_ds}},
};

// The order in which faults are listed, which is not that of the file.
constexpr std::string_view kValidationOrder[] = {
    "use_tavro_rrm_scan",
    "use_dca",
    "use_tpc",
    "use_hd_mode",
    "use_all_ap_balance",
    "use_balance",
    "no_balance_enterprise",
    "use_rrm_report",
    "use_80211k",
    "use_optimization_time",
    "use_optimization_event",
    "use_80211r",
    "fbt_over_ds",
    "use_80211v",
    "fbt_reassoc_deadline",
    "dca_threshold",
    "ap_rssi_threshold_2g",
    "ap_rssi_threshold_5g",
    "ap_rssi_threshold_6g",
    "hysteresis_2g",
    "hysteresis_5g",
    "hysteresis_6g",
    "optimization_time",
    "away_timeout",
    "blacklist_thr_low",
    "blacklist_thr_high",
    "blacklist_timeout",
    "load_balance_sta_low",
    "load_balance_sta_high",
    "roam_attempt_timeout",
    "sta_load_balance_period",
    "load_balance_roam_count_min",
    "load_balance_roam_count_max",
    "client_rssi_renew",
    "client_max_age",
    "client_try_no_balance",
    "report_days_to_live",
};

constexpr const DomainOption& option(std::string_view key) {
  return *std::find_if(std::begin(kOptions), std::end(kOptions),
                       [key](const DomainOption& row) { return key == row.key; });
}

static_assert(std::size(kValidationOrder) == std::size(kOptions));
static_assert(std::all_of(std::begin(kValidationOrder), std::end(kValidationOrder),
                          [](std::string_view key) { return &option(key) != std::end(kOptions); }));

// What report files record, the first settings the controller ever had: no 6 GHz, nothing newer.
using ReportField = std::variant<bool C::*, std::int32_t C::*>;
constexpr ReportField kReportFields[] = {
    &C::use_tavro_rrm_scan,
    &C::use_dca,
    &C::use_tpc,
    &C::use_hd_mode,
    &C::dca_threshold,
    &C::ap_rssi_threshold_2g,
    &C::ap_rssi_threshold_5g,
    &C::hysteresis_2g,
    &C::hysteresis_5g,
    &C::spare_value,
    &C::away_timeout,
    &C::blacklist_thr_low,
    &C::blacklist_thr_high,
    &C::blacklist_timeout,
    &C::load_balance_sta_low,
    &C::load_balance_sta_high,
    &C::use_all_ap_balance,
    &C::use_balance,
    &C::client_rssi_renew,
    &C::client_max_age,
    &C::client_try_no_balance,
    &C::no_balance_enterprise,
    &C::use_rrm_report,
    &C::report_days_to_live,
    &C::use_80211k,
};

bool apply_number(DomainConfig& config, const Number& number, std::int32_t value) {
  std::int32_t& field = config.*number.field;
  if (field == value || value < number.min || value > number.max) return false;
  field = value;
  return true;
}

bool apply_flag(DomainConfig& config, const Flag& flag, bool value) {
  bool& field = config.*flag.field;
  if (field == value) return false;
  field = value;
  return true;
}

bool apply_time(DomainConfig& config, const Time& time, const char* text) {
  std::int32_t seconds = 0;
  if (config.*time.text == text || !parse_hours_minutes(text, seconds)) return false;
  if (seconds < time.min || seconds > time.max) return false;
  config.*time.text = text;
  config.*time.seconds = seconds;
  return true;
}

/// The range of a number within this request: the client limits of load balancing bound each other.
Number range_in(const JsonReader& reader, const Number& number) {
  Number range = number;
  const DomainConfig defaults;
  if (number.field == &C::load_balance_sta_low)
    range.max = reader.get_int_or("load_balance_sta_high", defaults.load_balance_sta_high);
  if (number.field == &C::load_balance_sta_high)
    range.min = reader.get_int_or("load_balance_sta_low", defaults.load_balance_sta_low);
  return range;
}

}  // namespace

std::span<const DomainOption> domain_options() noexcept { return kOptions; }

bool DomainConfig::apply(const JsonReader& reader) {
  bool changed = false;
  for (const auto& entry : kOptions) {
    const char* key = entry.key;
    if (!reader.has(key)) continue;
    const bool taken = std::visit(
        Overloaded{
            [&](const Flag& flag) { return apply_flag(*this, flag, reader.get_int(key) != 0); },
            [&](const Number& number) { return apply_number(*this, number, reader.get_int(key)); },
            [&](const Time& time) {
              return has_text(reader, key) && apply_time(*this, time, reader.get_str(key));
            }},
        entry.kind);
    changed = changed || taken;
  }
  return changed;
}

bool DomainConfig::validate(const JsonReader& reader, JsonWriter& errors) {
  bool invalid = false;
  for (const std::string_view name : kValidationOrder) {
    const char* key = option(name).key;
    std::visit(Overloaded{[&](const Flag&) { validate_int_opt(reader, key, invalid, errors); },
                          [&](const Number& number) {
                            const Number range = range_in(reader, number);
                            validate_int_opt(reader, key, range.max, range.min, invalid, errors);
                          },
                          [&](const Time& time) {
                            validate_time_opt(reader, key, time.max, time.min, invalid, errors);
                          }},
               option(name).kind);
  }
  return !invalid;
}

void DomainConfig::to_json(JsonWriter& writer) const {
  for (const auto& entry : kOptions) {
    const char* key = entry.key;
    std::visit(Overloaded{[&](const Flag& flag) { writer.add(key, this->*flag.field); },
                          [&](const Number& number) { writer.add(key, this->*number.field); },
                          [&](const Time& time) { writer.add(key, this->*time.text); }},
               entry.kind);
  }
}

std::string DomainConfig::to_string(const std::string& separator) const {
  std::string text;
  for (const ReportField& field : kReportFields) {
    if (!text.empty()) text += separator;
    text += std::visit([this](auto member) { return std::to_string(this->*member); }, field);
  }
  return text;
}

bool DomainConfig::from_csv(const std::string& line, std::size_t first, char separator) {
  std::string_view rest = line;
  const auto next_field = [&rest, separator]() -> std::string_view {
    const std::size_t end = std::min(rest.find(separator), rest.size());
    const std::string_view field = rest.substr(0, end);
    rest.remove_prefix(std::min(end + 1, rest.size()));
    return field;
  };
  for (std::size_t skipped = 0; skipped < first; ++skipped) next_field();
  for (const ReportField& field : kReportFields) {
    const std::string_view text = next_field();
    std::int32_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return false;
    std::visit(Overloaded{[&](bool C::*member) { this->*member = value != 0; },
                          [&](std::int32_t C::*member) { this->*member = value; }},
               field);
  }
  return true;
}

}  // namespace rrm
