#include "server/lib/Radio.h"

#include <algorithm>
#include <utility>

#include "server/lib/Hooks.h"

namespace rrm {
namespace {

struct RssiLimit {
  std::int32_t threshold;
  std::int32_t hysteresis;
};

RssiLimit rssi_limit(const DomainConfig& config, std::int32_t band) {
  switch (band) {
    case 5:
      return {config.ap_rssi_threshold_5g, config.hysteresis_5g};
    case 6:
      return {config.ap_rssi_threshold_6g, config.hysteresis_6g};
    default:
      return {config.ap_rssi_threshold_2g, config.hysteresis_2g};
  }
}

}  // namespace

Radio::Radio(const DomainConfig& domain_config, const MacAddress& ap_mac, std::int32_t radio_id,
             bool enabled, std::int32_t radio_channel, std::int32_t power_dbm,
             std::int32_t power_max_dbm, std::int32_t power_min_dbm, std::int32_t width_mhz)
    : config(&domain_config),
      id(radio_id),
      mac_offset(static_cast<std::uint32_t>(radio_id) * 16),
      base_mac(ap_mac),
      status(enabled),
      channel(radio_channel),
      power(power_dbm),
      power_max(power_max_dbm),
      power_min(power_min_dbm),
      bandwidth(width_mhz) {
  set_mac(base_mac);
  if (!config->use_80211v || !config->use_balance) return;
  load_levels = {{config->load_balance_sta_low - 1, 255}, {config->load_balance_sta_high - 1, 127}};
  std::sort(load_levels.begin(), load_levels.end());
}

std::int32_t Radio::band_for_channel(std::int32_t for_channel) const noexcept {
  const std::int32_t inferred = infer_band(for_channel);
  const bool below_6ghz = for_channel >= 1 && for_channel <= 165;
  return below_6ghz && band != 0 ? band : inferred;
}

std::int32_t Radio::rssi_threshold(int mode) const noexcept {
  const RssiLimit limit = rssi_limit(*config, band);
  if (mode == 0) return limit.threshold + limit.hysteresis;
  return mode == 2 ? limit.threshold - limit.hysteresis : limit.threshold;
}

const char* Radio::primary_channel_name() const noexcept {
  return rrm::primary_channel_name(primary_channel, bandwidth);
}

void Radio::normalize_primary_channel() noexcept {
  primary_channel = normalized_primary_channel(primary_channel, channel, band, bandwidth);
}

void Radio::set_mac(const MacAddress& base) {
  mac = base.plus(mac_offset);
  RRM_LOG(Trace, "radio id=%d, max_mac_count=%d, mac_offset=%d, mac = %s", id,
          static_cast<std::int32_t>(max_mac_count), static_cast<std::int32_t>(mac_offset),
          mac.upper().c_str());
}

bool Radio::update_load_level() {
  if (!config->use_balance || load_levels.empty()) return false;
  const std::size_t clients = assoc_clients.count();
  const auto pair = std::find_if(load_levels.begin(), load_levels.end(), [&](const auto& step) {
    return std::cmp_greater_equal(step.first, clients);
  });
  const auto level = static_cast<std::uint32_t>(pair == load_levels.end() ? 0 : pair->second);
  if (level == load_level) return false;
  load_level = level;
  return true;
}

bool Radio::over_low_load() const noexcept {
  return std::cmp_greater(assoc_clients.count(), config->load_balance_sta_low);
}

}  // namespace rrm
