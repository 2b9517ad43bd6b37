// Transmit power and EIRP of a radio. Every figure may be any number that an access point sent, so
// sums are made in 64 bits and what is stored again is limited to 32.
#include <algorithm>
#include <cstdlib>
#include <limits>

#include "server/lib/Hooks.h"
#include "server/lib/Radio.h"

namespace rrm {
namespace {

std::int32_t narrow(std::int64_t value) noexcept {
  constexpr std::int64_t kLowest = std::numeric_limits<std::int32_t>::min();
  constexpr std::int64_t kHighest = std::numeric_limits<std::int32_t>::max();
  return static_cast<std::int32_t>(std::clamp(value, kLowest, kHighest));
}

/// Power that gives an EIRP, dBm.
std::int64_t power_for_eirp(const Radio& radio, std::int32_t eirp_dbm) noexcept {
  return std::int64_t{eirp_dbm} - radio.antenna_gain + radio.cable_loss;
}

/// EIRP of the radio's power through its antenna, dBm.
std::int64_t eirp_for_power(const Radio& radio) noexcept {
  return std::int64_t{radio.power} + radio.antenna_gain - radio.cable_loss;
}

/// Within the EIRP limits that are given; the upper one wins.
std::int64_t limited_eirp(const Radio& radio, std::int64_t eirp_dbm) noexcept {
  if (radio.eirp_min >= 0 && eirp_dbm < radio.eirp_min) eirp_dbm = radio.eirp_min;
  if (radio.eirp_max >= 0 && eirp_dbm > radio.eirp_max) eirp_dbm = radio.eirp_max;
  return eirp_dbm;
}

std::int64_t clamped(const Radio& radio, std::int64_t power_dbm) noexcept {
  const std::int64_t lowest = radio.effective_min();
  const std::int64_t highest = radio.effective_max();
  return power_dbm < lowest ? lowest : std::min(std::max(lowest, highest), power_dbm);
}

bool same_limits(const Radio& a, const Radio& b) noexcept {
  return a.power_min == b.power_min && a.power_max == b.power_max && a.eirp_min == b.eirp_min &&
         a.eirp_max == b.eirp_max && a.antenna_gain == b.antenna_gain &&
         a.cable_loss == b.cable_loss && a.has_antenna_configuration == b.has_antenna_configuration;
}

}  // namespace

std::int32_t Radio::effective_min() const noexcept {
  const std::int32_t own = power_min >= 0 ? power_min : config->default_min_power;
  if (!has_antenna_configuration || eirp_min < 0) return own;
  return narrow(std::max<std::int64_t>(own, power_for_eirp(*this, eirp_min)));
}

std::int32_t Radio::effective_max() const noexcept {
  const std::int32_t own = power_max >= 0 ? power_max : config->default_max_power;
  if (!has_antenna_configuration || eirp_max < 0) return own;
  return narrow(std::min<std::int64_t>(power_for_eirp(*this, eirp_max), own));
}

std::int32_t Radio::clamp_power(std::int32_t power_dbm) const noexcept {
  return narrow(clamped(*this, power_dbm));
}

void Radio::update_eirp() noexcept {
  if (!has_eirp_limits()) return;
  const std::int64_t unlimited = has_antenna_configuration ? eirp_for_power(*this) : eirp;
  const std::int64_t limited = limited_eirp(*this, unlimited);
  eirp = narrow(limited);
  if (!has_antenna_configuration) return;
  const bool has_limit = eirp_min >= 0 || eirp_max >= 0;
  if (limited == unlimited && !has_limit) return;
  const std::int32_t fitting = narrow(clamped(*this, power_for_eirp(*this, eirp)));
  if (fitting == power) return;
  power = fitting;
  eirp = narrow(limited_eirp(*this, eirp_for_power(*this)));
}

void Radio::set_validate_power(const Radio& limits) {
  if (same_limits(*this, limits)) return;
  power_min = limits.power_min;
  power_max = limits.power_max;
  eirp_min = limits.eirp_min;
  eirp_max = limits.eirp_max;
  antenna_gain = limits.antenna_gain;
  cable_loss = limits.cable_loss;
  has_antenna_configuration = limits.has_antenna_configuration;
  if (!power_initialised) return;
  const std::int32_t old_power = power;
  const std::int32_t old_eirp = eirp;
  power = clamp_power(power);
  update_eirp();
  if (power == old_power && eirp == old_eirp) return;
  RRM_LOG(Debug,
          "%s: Power/eirp adjusted to new limits: power %d -> %d, eirp %d -> %d (power min/max "
          "%d/%d, eirp min/max %d/%d)",
          base_mac.upper().c_str(), old_power, power, old_eirp, eirp, power_min, power_max,
          eirp_min, eirp_max);
}

std::int32_t Radio::apply_power_decrease(std::int32_t a, std::int32_t b) noexcept {
  if (!status) return 0;
  const std::int64_t base = std::int64_t{power} - power_changed;
  const std::int64_t lowered = clamped(*this, base + (std::int64_t{b} - a));
  const std::int64_t step = base - lowered;
  if (step == 0 || step <= std::llabs(power_changed)) return 0;
  power = narrow(lowered);
  power_changed = narrow(-step);
  update_eirp();
  return narrow(step);
}

std::int32_t Radio::apply_power_increase(std::int32_t a, std::int32_t b, std::int32_t c) noexcept {
  if (a >= c || !status) return 0;
  const std::int64_t base = std::int64_t{power} - power_changed;
  const std::int64_t raised = clamped(*this, base + (std::int64_t{b} - a));
  const std::int64_t step = raised - base;
  if (step == 0 || (power_changed != 0 && std::llabs(power_changed) <= step)) return 0;
  power = narrow(raised);
  power_changed = narrow(step);
  update_eirp();
  return narrow(step);
}

}  // namespace rrm
