#include <algorithm>

#include "server/lib/Hooks.h"
#include "server/lib/Radio.h"

namespace rrm {
namespace {

constexpr std::int32_t kRadios = 3;

/// Runs `check(a, b)` over the radios of equal id of which one is enabled; true when all pass.
template <class Check>
bool all_enabled_pairs(const RadioList& first, const RadioList& second, Check check) {
  return std::all_of(first.radios.begin(), first.radios.end(), [&](const Radio& a) {
    const Radio* b = second.find(a.id);
    return b == nullptr || (!a.status && !b->status) || check(a, *b);
  });
}

bool same_radio_settings(const Radio& a, const Radio& b) {
  return a.power_max == b.power_max && a.power_min == b.power_min && a.eirp_min == b.eirp_min &&
         a.eirp_max == b.eirp_max && a.antenna_gain == b.antenna_gain &&
         a.cable_loss == b.cable_loss &&
         a.has_antenna_configuration == b.has_antenna_configuration && a.status == b.status &&
         a.bandwidth == b.bandwidth && a.locked_for_tpc == b.locked_for_tpc &&
         a.locked_for_dca == b.locked_for_dca && a.locked_for_balancer == b.locked_for_balancer &&
         a.locked_for_80211v == b.locked_for_80211v && a.available_channels == b.available_channels;
}

/// What a radio becomes that its access point no longer lists.
void reset(Radio& radio) {
  radio.status = false;
  radio.power_initialised = false;
  radio.channel_initialised = false;
  radio.vaps.clear();
  radio.available_channels.clear();
  radio.channel = 0;
}

/// Runs `apply(radio, element)` for every element of a "radios" or "interfaces" array that names a
/// radio, by its "id" or else by its place; calls `refuse(id)` for the others.
template <class Apply, class Refuse>
void for_each_listed(std::vector<Radio>& radios, const JsonReader& array, Apply apply,
                     Refuse refuse) {
  const int count = static_cast<int>(array.size());
  for (int i = 0; i < count; ++i) {
    const JsonReader element = array.child(i);
    if (element.is_null()) continue;
    const std::int32_t id = element.get_int_or("id", i);
    if (id >= 0 && static_cast<std::size_t>(id) < radios.size()) {
      apply(radios[static_cast<std::size_t>(id)], element);
    } else {
      refuse(id);
    }
  }
}

}  // namespace

RadioList::RadioList(const DomainConfig& config, const MacAddress& base_mac) {
  radios.reserve(kRadios);
  for (std::int32_t id = 0; id < kRadios; ++id)
    radios.emplace_back(config, base_mac, id, false, 1, 0, 0, 0, 20);
}

Radio* RadioList::find(std::int32_t id) noexcept {
  const auto found = std::find_if(radios.begin(), radios.end(),
                                  [id](const Radio& radio) { return radio.id == id; });
  return found == radios.end() ? nullptr : &*found;
}

const Radio* RadioList::find(std::int32_t id) const noexcept {
  return const_cast<RadioList*>(this)->find(id);
}

void RadioList::from_json(const JsonReader& reader, ChannelSets& channel_sets, bool parse_vaps,
                          bool flag) {
  const bool is_new = first_message;
  first_message = false;
  const JsonReader array = reader.child("radios");
  if (array.is_null()) return;
  std::vector<bool> seen(radios.size(), false);
  for_each_listed(
      radios, array,
      [&](Radio& radio, const JsonReader& element) {
        radio.from_json(element, channel_sets, parse_vaps, is_new, flag);
        seen[static_cast<std::size_t>(&radio - radios.data())] = true;
      },
      [&](std::int32_t id) {
        RRM_LOG(Warning, "Skip invalid radio id=%d, radios_count=%zu", id, radios.size());
      });
  for (std::size_t i = 0; i < radios.size(); ++i)
    if (!seen[i]) reset(radios[i]);
}

void RadioList::restore(const JsonReader& reader, ChannelSets& channel_sets) {
  for_each_listed(
      radios, reader.child("interfaces"),
      [&](Radio& radio, const JsonReader& element) { radio.restore(element, channel_sets); },
      [&](std::int32_t id) {
        RRM_LOG(Warning, "Skip invalid restore radio id=%d, radios_count=%zu", id, radios.size());
      });
}

void RadioList::to_json(JsonWriter& object) const {
  object.add("received", received);
  JsonWriter interfaces = JsonWriter::array(object, "interfaces");
  for (const Radio& radio : radios) {
    JsonWriter element = JsonWriter::object(interfaces);
    radio.to_json(element);
  }
}

void RadioList::config_to_json(JsonWriter& object) const {
  JsonWriter array = JsonWriter::array(object, "radios");
  for (const Radio& radio : radios) {
    if (!radio.status) continue;
    JsonWriter element = JsonWriter::object(array);
    radio.config_to_json(element);
  }
}

void RadioList::set_mac(const MacAddress& base) {
  for (Radio& radio : radios) radio.set_mac(base);
}

void RadioList::set_validate_power(const RadioList& limits) {
  for (Radio& radio : radios) {
    const Radio* other = limits.find(radio.id);
    if (other != nullptr) radio.set_validate_power(*other);
  }
}

std::int32_t RadioList::apply_power_step_for_band(std::int32_t channel, std::int32_t band,
                                                  std::int32_t a, std::int32_t b) {
  const std::int32_t of_band = band != 0 ? band : infer_band(channel);
  if (of_band == 0) return 0;
  std::int32_t largest = 0;
  for (Radio& radio : radios)
    if (radio.status && radio.band == of_band)
      largest = std::max(largest, radio.apply_power_decrease(a, b));
  return largest;
}

bool RadioList::same_settings(const RadioList& other) const {
  const bool all_there = std::all_of(radios.begin(), radios.end(), [&](const Radio& radio) {
    return other.find(radio.id) != nullptr;
  });
  return all_there && all_enabled_pairs(*this, other, same_radio_settings);
}

bool RadioList::same_channel_plan(const RadioList& other) const {
  return all_enabled_pairs(*this, other, [](const Radio& a, const Radio& b) {
    if (a.managed_by_dca() && a.channel_initialised) return true;
    return a.channel == b.channel && a.bandwidth == b.bandwidth &&
           a.primary_channel == b.primary_channel;
  });
}

bool RadioList::same_vaps(const RadioList& other) const {
  return all_enabled_pairs(*this, other,
                           [](const Radio& a, const Radio& b) { return a.vaps.equals(b.vaps); });
}

bool RadioList::any_lower_power_on_same_channel(const RadioList& other) const {
  return std::any_of(radios.begin(), radios.end(), [&](const Radio& a) {
    return std::any_of(other.radios.begin(), other.radios.end(),
                       [&](const Radio& b) { return a.channel == b.channel && a.power < b.power; });
  });
}

bool RadioList::any_enabled_with_channel() const {
  return std::any_of(radios.begin(), radios.end(),
                     [](const Radio& radio) { return radio.status && radio.channel != 0; });
}

bool RadioList::any_radio_not_locked_for_balancer() const {
  return std::any_of(radios.begin(), radios.end(),
                     [](const Radio& radio) { return radio.locked_for_balancer == 0; });
}

bool RadioList::any_802dot11v_candidate() const {
  return std::any_of(radios.begin(), radios.end(), [](const Radio& radio) {
    return radio.status && radio.locked_for_80211v == 0 && radio.vaps.any_80211v();
  });
}

bool RadioList::any_802dot11v_or_k_candidate() const {
  return std::any_of(radios.begin(), radios.end(), [](const Radio& radio) {
    return radio.status && radio.locked_for_80211v == 0 &&
           (radio.vaps.any_80211v() || radio.vaps.any_80211k());
  });
}

bool RadioList::any_radio_with_80211k_vap() const {
  return std::any_of(radios.begin(), radios.end(),
                     [](const Radio& radio) { return radio.vaps.any_80211k(); });
}

bool RadioList::any_radio_with_80211r_vap() const {
  return std::any_of(radios.begin(), radios.end(),
                     [](const Radio& radio) { return radio.vaps.any_80211r(); });
}

void RadioList::clear_conflicted() {
  for (Radio& radio : radios) radio.conflicted = false;
}

void RadioList::clear_power_changed() {
  for (Radio& radio : radios) radio.power_changed = 0;
}

void RadioList::set_changed() {
  for (Radio& radio : radios) radio.changed = true;
}

void RadioList::mark_conflicted(std::int32_t channel, std::int32_t band) {
  const std::int32_t of_band = band != 0 ? band : infer_band(channel);
  if (of_band == 0) return;
  for (Radio& radio : radios)
    if (radio.status && radio.band == of_band) radio.conflicted = true;
}

bool RadioList::update_load_levels() {
  bool changed = false;
  for (Radio& radio : radios) changed = radio.update_load_level() || changed;
  return changed;
}

}  // namespace rrm
