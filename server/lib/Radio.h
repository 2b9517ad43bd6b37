#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <set>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "server/lib/AssocMap.h"
#include "server/lib/ChannelPlan.h"
#include "server/lib/Config.h"
#include "server/lib/JsonReader.h"
#include "server/lib/JsonWriter.h"
#include "server/lib/MacAddress.h"
#include "server/lib/RadioBlacklist.h"
#include "server/lib/VapMap.h"

namespace rrm {

/// Channel numbers that a round has seen, indexed by band number; only 2, 5 and 6 are ever filled.
using ChannelSets = std::array<std::unordered_set<std::int32_t>, 7>;

/// One radio of an access point.
///
/// Purpose:   holds what the access point said of it and what the controller decided.
/// Threading: the domain worker's thread only; an optimisation works on copies.
/// Units:     powers and EIRP in dBm, gains and losses in dB(i), bandwidth in MHz.
class Radio {
 public:
  Radio(const DomainConfig& domain_config, const MacAddress& ap_mac, std::int32_t radio_id,
        bool enabled, std::int32_t radio_channel, std::int32_t power_dbm,
        std::int32_t power_max_dbm, std::int32_t power_min_dbm, std::int32_t width_mhz);

  const DomainConfig* config;      ///< of the domain; not owned
  std::int32_t power_changed = 0;  ///< dB applied by the controller since the last reset
  bool conflicted = false;         ///< a louder neighbour was found on this radio's band
  std::int32_t locked_for_tpc = 0;
  std::int32_t locked_for_dca = 0;
  std::int32_t locked_for_balancer = 0;
  std::int32_t locked_for_80211v = 0;
  bool power_initialised = false;  ///< the access point's own power was taken while TPC manages it
  bool channel_initialised = false;  ///< the same for the channel while DCA manages it
  std::unordered_set<std::int32_t> available_channels;
  VapMap vaps;
  std::int32_t id;
  std::uint32_t mac_offset;
  MacAddress mac;  ///< base MAC plus offset
  MacAddress base_mac;
  bool status;  ///< enabled
  std::int32_t channel;
  std::int32_t band = 0;   ///< 0 unknown, 2, 5 or 6
  std::int32_t power;      ///< dBm
  std::int32_t power_max;  ///< dBm; negative: not given
  std::int32_t power_min;  ///< dBm; negative: not given
  std::int32_t eirp = -1;  ///< dBm; -1 not known
  std::int32_t eirp_min = -1;
  std::int32_t eirp_max = -1;
  std::int32_t antenna_gain = 0;  ///< dBi
  std::int32_t cable_loss = 0;    ///< dB
  bool has_antenna_configuration = false;
  std::int32_t bandwidth;  ///< MHz
  std::uint32_t max_mac_count = 16;
  /// Distinct channels heard; ordering key of channel assignment, -1 once the radio is planned.
  std::int32_t neighbour_channel_count = 0;
  std::int32_t primary_channel = PrimaryChannel::kNone;
  RadioBlacklist blacklist;
  AssocMap assoc_clients;
  /// Clients expected by 802.11v: client MAC to (source access point, source radio).
  std::unordered_map<MacAddress, std::pair<MacAddress, std::int32_t>> expected_roams;
  std::vector<std::pair<std::int32_t, std::int32_t>> load_levels;  ///< (clients, level), ascending
  std::uint32_t load_level = 0;  ///< "priority" of 802.11k neighbour entries
  bool changed = false;
  std::int32_t dca_rank = 0;  ///< entries heard; second ordering key of channel assignment

  // Power limits, dBm, from the radio's own, its domain's and its EIRP limits. A lower bound above
  // the upper one wins.
  std::int32_t effective_min() const noexcept;
  std::int32_t effective_max() const noexcept;
  std::int32_t clamp_power(std::int32_t power_dbm) const noexcept;

  bool managed_by_tpc() const noexcept { return config->use_tpc && locked_for_tpc == 0 && status; }
  bool managed_by_dca() const noexcept { return config->use_dca && locked_for_dca == 0 && status; }

  std::int32_t get_band() const noexcept { return band; }
  /// The band that messages carry: from the channel, with this radio's band deciding below 166.
  std::int32_t band_for_channel(std::int32_t for_channel) const noexcept;
  /// dBm of this radio's band: threshold + hysteresis (mode 0), - hysteresis (mode 2), bare
  /// otherwise.
  std::int32_t rssi_threshold(int mode) const noexcept;
  const char* primary_channel_name() const noexcept;
  void normalize_primary_channel() noexcept;

  void update_eirp() noexcept;
  /// Takes the limits of another description of this radio and fits power and EIRP into them.
  void set_validate_power(const Radio& limits);
  /// Power steps of (b - a) dB from the power before this round's changes; the applied change or 0.
  std::int32_t apply_power_decrease(std::int32_t a, std::int32_t b) noexcept;
  std::int32_t apply_power_increase(std::int32_t a, std::int32_t b, std::int32_t c) noexcept;
  bool has_eirp_limits() const noexcept { return eirp_min >= 0 || has_antenna_configuration; }

  void set_mac(const MacAddress& base);
  VapPool vap_pool() const { return {mac, max_mac_count, locked_for_80211v != 0}; }

  // Load: associated clients and those just steered here. The level is the first whose number of
  // clients is not exceeded, else 0.
  bool update_load_level();  ///< tells whether the level changed
  bool over_low_load() const noexcept;
  std::int32_t high_load_limit() const noexcept { return config->load_balance_sta_high; }

  /// One element of an access point's "radios". `channel_sets` collects the available channels by
  /// band.
  void from_json(const JsonReader& reader, ChannelSets& channel_sets, bool parse_vaps, bool is_new,
                 bool changed_flag);
  void restore(const JsonReader& reader, ChannelSets& channel_sets);
  void to_json(JsonWriter& object) const;         ///< status form: management, backups
  void config_to_json(JsonWriter& object) const;  ///< what the access point is told
  /// Appends {"id", "probe-list": [{"ssid", "mac", "timeout"}]}: a question about one client.
  void probe_list_to_json(JsonWriter& radios, const std::string& ssid, const MacAddress& client,
                          std::int32_t timeout_s) const;
  /// Appends {"id", "diassoc-list": [{"mac", "ssid", "timeout"}]} with the kicked clients that were
  /// not listed before and marks them as sent; nothing when there is none.
  /// @return whether an object was appended
  bool disassoc_list_to_json(JsonWriter& radios);
  /// Appends {"id", "blacklist": [{"mac", "action", "timeout" (with "block")}]} with the pending
  /// changes; nothing when there is none. @return whether an object was appended
  bool blacklist_to_json(JsonWriter& radios) const;

 private:
  void power_from_json(const JsonReader& reader);
  void eirp_from_json(const JsonReader& reader);
  void mac_pool_from_json(const JsonReader& reader, bool is_new);
  void available_channels_from_text(const char* text, ChannelSets& channel_sets);
  void add_available_channel(std::int32_t number, ChannelSets& channel_sets);
  void eirp_to_json(JsonWriter& object) const;
  void antenna_to_json(JsonWriter& object) const;
};

/// Rule of a "band" member: 2, 5 and 6 are taken, otherwise the channel decides (and is logged with
/// `context`), otherwise a known band is kept.
void update_band_from_json(const JsonReader& reader, std::int32_t channel, std::int32_t& band,
                           const MacAddress& mac, std::int32_t id, const char* context);

/// The three radios of an access point, ids 0 to 2; messages update them in place.
class RadioList {
 public:
  RadioList(const DomainConfig& config, const MacAddress& base_mac);

  std::vector<Radio> radios;
  bool received = false;      ///< a description has been received
  bool first_message = true;  ///< until the first "radios" message has been applied

  Radio* find(std::int32_t id) noexcept;
  const Radio* find(std::int32_t id) const noexcept;

  /// Reads "radios" of `reader`; radios that are not listed are switched off and emptied.
  void from_json(const JsonReader& reader, ChannelSets& channel_sets, bool parse_vaps, bool flag);
  void restore(const JsonReader& reader, ChannelSets& channel_sets);
  void to_json(JsonWriter& object) const;         ///< "received" and "interfaces"
  void config_to_json(JsonWriter& object) const;  ///< "radios", the enabled ones

  void set_mac(const MacAddress& base);
  void set_validate_power(const RadioList& limits);
  /// Steps every enabled radio of the band down; the largest change. Band 0 is inferred from
  /// channel.
  std::int32_t apply_power_step_for_band(std::int32_t channel, std::int32_t band, std::int32_t a,
                                         std::int32_t b);

  bool same_settings(const RadioList& other) const;
  bool same_channel_plan(const RadioList& other) const;
  bool same_vaps(const RadioList& other) const;
  bool any_lower_power_on_same_channel(const RadioList& other) const;
  bool any_enabled_with_channel() const;
  bool any_radio_not_locked_for_balancer() const;
  bool any_802dot11v_candidate() const;
  bool any_802dot11v_or_k_candidate() const;
  bool any_radio_with_80211k_vap() const;
  bool any_radio_with_80211r_vap() const;

  void clear_conflicted();
  void clear_power_changed();
  void set_changed();
  void mark_conflicted(std::int32_t channel, std::int32_t band);
  bool update_load_levels();
};

}  // namespace rrm
