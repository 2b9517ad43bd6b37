// JSON forms of a radio: what access points send and are told, status and backup.
#include <algorithm>
#include <limits>

#include "json/JsonValue.h"
#include "server/lib/Hooks.h"
#include "server/lib/Radio.h"

namespace rrm {
namespace {

constexpr const char* kRule = "----------------------------------";

bool is_object(const JsonReader& reader) {
  return reader.value() != nullptr && reader.value()->is_object();
}

}  // namespace

void update_band_from_json(const JsonReader& reader, std::int32_t channel, std::int32_t& band,
                           const MacAddress& mac, std::int32_t id, const char* context) {
  const bool present = reader.has("band");
  const std::int32_t named = reader.get_int("band");
  if (present && (named == 2 || named == 5 || named == 6)) {
    band = named;
    return;
  }
  if (present || band == 0) band = infer_band(channel);
  if (band != 0) {
    RRM_LOG(Debug, "%s without band: inferred/reused band=%d mac=%s id=%d channel=%d", context,
            band, mac.upper().c_str(), id, channel);
  } else {
    RRM_LOG(Warning, "%s without band and band cannot be inferred: mac=%s id=%d channel=%d",
            context, mac.upper().c_str(), id, channel);
  }
}

void Radio::from_json(const JsonReader& reader, ChannelSets& channel_sets, bool parse_vaps,
                      bool is_new, bool changed_flag) {
  locked_for_tpc = reader.get_int("locked-for-tpc");
  locked_for_dca = reader.get_int("locked-for-dca");
  // An access point that says nothing of balancing takes no part in it.
  locked_for_balancer = reader.get_int_or("locked-for-balancer", 1);
  locked_for_80211v = reader.get_int_or("locked-for-80211v", 1);
  status = reader.get_int("status") != 0;
  channel = reader.get_int("channel");
  if (managed_by_dca()) channel_initialised = true;
  update_band_from_json(reader, channel, band, mac, id, "radio message");
  power_from_json(reader);
  eirp_from_json(reader);
  bandwidth = reader.get_int("bandwidth");
  mac_pool_from_json(reader, is_new);
  changed |= changed_flag;
  primary_channel = primary_channel_from_name(reader.get_str("primary-channel"));
  normalize_primary_channel();
  available_channels_from_text(reader.get_str("available-channels"), channel_sets);

  const bool wants_clients =
      config->use_balance || config->use_80211k || config->use_80211r || config->use_80211v;
  if (!wants_clients) return;
  if (parse_vaps) {
    vaps.clear();
    vaps.from_json(reader.child("vaps"), vap_pool(), false);
    RRM_LOG(Trace, "%s", kRule);
    RRM_LOG(Trace, "wlan_id = %d, mac = %s , channel = %d, band = %d, power = %d", id,
            mac.upper().c_str(), channel, band, power);
    vaps.dump();
    RRM_LOG(Trace, "%s", kRule);
  }
  const JsonReader clients = reader.child("assoclist");
  if (clients.is_null()) return;
  assoc_clients.from_json(clients);
  assoc_clients.dump();
}

/// While TPC manages the radio its power is the controller's: only the first report is taken.
void Radio::power_from_json(const JsonReader& reader) {
  if (!managed_by_tpc()) {
    power = reader.get_int("power");
  } else if (!power_initialised) {
    power = reader.get_int("power");
    power_initialised = true;
  }
  if (!status) {
    power_initialised = false;
    channel_initialised = false;
  }
  power_max = reader.get_int("power-max");
  power_min = reader.get_int("power-min");
}

/// One of the members makes a new description of all of them.
void Radio::eirp_from_json(const JsonReader& reader) {
  const bool has_eirp = reader.has("eirp");
  if (has_eirp || reader.has("eirp-min") || reader.has("eirp-max") ||
      reader.has("antenna-configuration")) {
    eirp_min = reader.get_int_or("eirp-min", -1);
    eirp_max = reader.get_int_or("eirp-max", -1);
    eirp = reader.get_int_or("eirp", -1);
    const JsonReader antenna = reader.child("antenna-configuration");
    has_antenna_configuration = is_object(antenna);
    antenna_gain = antenna.get_int("antenna-gain");
    cable_loss = antenna.get_int("cable-loss");
  }
  if (!has_eirp) update_eirp();
}

void Radio::mac_pool_from_json(const JsonReader& reader, bool is_new) {
  constexpr std::uint32_t kDefaultCount = 16;
  const bool has_offset = reader.has("mac-offset");
  const bool has_count = reader.has("radio-mac-count");
  std::uint32_t offset = mac_offset;
  std::uint32_t count = max_mac_count;
  if (has_offset) {
    offset = static_cast<std::uint32_t>(reader.get_int("mac-offset"));
  } else if (is_new) {
    offset = static_cast<std::uint32_t>(id) * kDefaultCount;
  }
  if (has_count) {
    count = static_cast<std::uint32_t>(reader.get_int("radio-mac-count"));
  } else if (is_new) {
    count = kDefaultCount;
  }
  if (!is_new && offset == mac_offset && count == max_mac_count) return;
  mac_offset = offset;
  max_mac_count = count;
  set_mac(base_mac);
}

/// Decimal numbers with anything between them, as in 36,40,,44; a number beyond 32 bits stays at
/// the highest one.
void Radio::available_channels_from_text(const char* text, ChannelSets& channel_sets) {
  constexpr std::int64_t kHighest = std::numeric_limits<std::int32_t>::max();
  available_channels.clear();
  std::int64_t number = 0;
  for (;; ++text) {
    if (*text >= '0' && *text <= '9') {
      number = std::min(number * 10 + (*text - '0'), kHighest);
      continue;
    }
    add_available_channel(static_cast<std::int32_t>(number), channel_sets);
    number = 0;
    if (*text == '\0') return;
  }
}

/// Numbers beyond the channel plan are kept too, but no message may fill the memory with them.
void Radio::add_available_channel(std::int32_t number, ChannelSets& channel_sets) {
  constexpr std::size_t kMaxChannels = 1024;
  if (number < 1 || available_channels.size() >= kMaxChannels) return;
  available_channels.insert(number);
  if (number > 233) return;
  if (number > 165 && band != 6) return;
  const std::int32_t of_band = band != 0 ? band : infer_band(number);
  if (of_band != 0) channel_sets[static_cast<std::size_t>(of_band)].insert(number);
}

void Radio::restore(const JsonReader& reader, ChannelSets& channel_sets) {
  locked_for_tpc = reader.get_int("locked-tpc");
  locked_for_dca = reader.get_int("locked-dca");
  locked_for_balancer = reader.get_int("locked-balancer");
  locked_for_80211v = reader.get_int("locked-80211v");
  status = reader.get_int("status") != 0;
  channel = reader.get_int("channel");
  update_band_from_json(reader, channel, band, mac, id, "radio restore");
  if (managed_by_dca()) channel_initialised = true;
  power = reader.get_int("power");
  if (managed_by_tpc()) power_initialised = true;
  power_max = reader.get_int("max-power");
  power_min = reader.get_int("min-power");
  bandwidth = reader.get_int("bandwidth");
  mac_offset = static_cast<std::uint32_t>(reader.get_int_or("mac-offset", id * 16));
  max_mac_count = static_cast<std::uint32_t>(reader.get_int_or("radio-mac-count", 16));
  set_mac(base_mac);
  primary_channel = reader.get_int("primary-channel");
  normalize_primary_channel();

  available_channels.clear();
  const JsonReader channels = reader.child("available-channels");
  const int count = static_cast<int>(channels.size());
  for (int i = 0; i < count; ++i) add_available_channel(channels.get_int(i), channel_sets);
  vaps.from_json(reader.child("vaps"), vap_pool(), true);
  RRM_LOG(Trace, "%s", kRule);
  RRM_LOG(Trace, "wlan_id = %d, mac = %s , channel = %d, power = %d", id, mac.upper().c_str(),
          channel, power);
  vaps.dump();
  RRM_LOG(Trace, "%s", kRule);
}

void Radio::eirp_to_json(JsonWriter& object) const {
  if (eirp_min >= 0) object.add("eirp-min", eirp_min);
  if (eirp_max >= 0) object.add("eirp-max", eirp_max);
  if (eirp_min >= 0 || eirp_max >= 0 || has_antenna_configuration) object.add("eirp", eirp);
}

void Radio::antenna_to_json(JsonWriter& object) const {
  if (!has_antenna_configuration) return;
  JsonWriter antenna = JsonWriter::object(object, "antenna-configuration");
  antenna.add("antenna-gain", antenna_gain);
  antenna.add("cable-loss", cable_loss);
}

void Radio::to_json(JsonWriter& object) const {
  object.add("id", id);
  object.add("mac", mac.upper().c_str());
  object.add("mac-offset", mac_offset);
  object.add("radio-mac-count", max_mac_count);
  object.add("status", status);
  object.add("power-changed", power_changed);
  object.add("conflicted", conflicted);
  object.add("locked-tpc", locked_for_tpc);
  object.add("locked-dca", locked_for_dca);
  object.add("locked-balancer", locked_for_balancer);
  object.add("locked-80211v", locked_for_80211v);
  object.add("channel", channel);
  object.add("band", band);
  object.add("power", power);
  object.add("max-power", power_max);
  object.add("min-power", power_min);
  object.add("bandwidth", bandwidth);
  object.add("primary-channel", primary_channel);
  eirp_to_json(object);
  JsonWriter channels = JsonWriter::array(object, "available-channels");
  for (const std::int32_t number : available_channels) channels.add({}, number);
  antenna_to_json(object);
  JsonWriter vap_array = JsonWriter::array(object, "vaps");
  vaps.to_json(vap_array, false);
  JsonWriter clients = JsonWriter::array(object, "assoc_clients");
  assoc_clients.to_json(clients);
}

void Radio::config_to_json(JsonWriter& object) const {
  object.add("id", id);
  object.add("channel", channel);
  object.add("band", band_for_channel(channel));
  object.add("power", power);
  eirp_to_json(object);
  antenna_to_json(object);
  object.add("bandwidth", bandwidth);
  object.add("primary-channel", primary_channel_name());
  object.add("tavro-sta-rssi-thr-low", config->blacklist_thr_low);
  object.add("tavro-sta-rssi-thr-high", config->blacklist_thr_high);
  object.add("tavro-roam-attempt-timeout", config->roam_attempt_timeout);
  object.add("tavro-client-rssi-renew", config->client_rssi_renew);
  object.add("tavro-client-max-age", config->client_max_age);
  object.add("tavro-try-no-balance", config->client_try_no_balance);
  object.add("no-balance-enterprise", config->no_balance_enterprise);
}

void Radio::probe_list_to_json(JsonWriter& radios, const std::string& ssid,
                               const MacAddress& client, std::int32_t timeout_s) const {
  JsonWriter radio = JsonWriter::object(radios);
  radio.add("id", id);
  JsonWriter list = JsonWriter::array(radio, "probe-list");
  JsonWriter entry = JsonWriter::object(list);
  entry.add("ssid", ssid);
  entry.add("mac", client.upper().c_str());
  entry.add("timeout", timeout_s);
}

bool Radio::disassoc_list_to_json(JsonWriter& radios) {
  const auto unsent = [](const auto& kicked) { return !kicked.second.sent; };
  if (std::none_of(blacklist.kicked.begin(), blacklist.kicked.end(), unsent)) return false;
  JsonWriter radio = JsonWriter::object(radios);
  radio.add("id", id);
  JsonWriter list = JsonWriter::array(radio, "diassoc-list");
  for (auto& [client, kicked] : blacklist.kicked) {
    if (kicked.sent) continue;
    JsonWriter entry = JsonWriter::object(list);
    entry.add("mac", client.upper().c_str());
    entry.add("ssid", kicked.ssid);
    entry.add("timeout", config->blacklist_timeout);
    kicked.sent = true;
  }
  return true;
}

bool Radio::blacklist_to_json(JsonWriter& radios) const {
  if (blacklist.changes.empty()) return false;
  JsonWriter radio = JsonWriter::object(radios);
  radio.add("id", id);
  JsonWriter list = JsonWriter::array(radio, "blacklist");
  for (const auto& [client, change] : blacklist.changes) {
    const bool block = change.action == RadioBlacklist::Action::Block;
    JsonWriter entry = JsonWriter::object(list);
    entry.add("mac", client.upper().c_str());
    entry.add("action", block ? "block" : "unblock");
    if (block) entry.add("timeout", change.timeout);
  }
  return true;
}

}  // namespace rrm
