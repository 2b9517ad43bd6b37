#include <array>
#include <memory>
#include <set>
#include <string>

#include "server/lib/Hooks.h"
#include "server/lib/MessageArena.h"
#include "server/lib/RrmWorker.h"
#include "server/lib/TpcDcaSubworker.h"

// What the planner hears from access points and what it sends them.

namespace rrm {

namespace {

/// Channel numbers by band number, each set ascending.
using SortedChannels = std::array<std::set<std::int32_t>, std::tuple_size_v<ChannelSets>>;

/// Band under which a radio's available channel is scanned; 0 for none.
std::int32_t scan_band(const Radio& radio, std::int32_t channel) {
  if (channel < 1 || channel > 233) return 0;
  if (channel > 165) return radio.band == 6 ? 6 : 0;
  return radio.band != 0 ? radio.band : infer_band(channel);
}

SortedChannels channels_of(const ApEntry& ap) {
  SortedChannels sorted;
  for (const Radio& radio : ap.radios.radios) {
    for (const std::int32_t channel : radio.available_channels) {
      const std::int32_t band = scan_band(radio, channel);
      if (band > 0 && static_cast<std::size_t>(band) < sorted.size()) {
        sorted[static_cast<std::size_t>(band)].insert(channel);
      }
    }
  }
  return sorted;
}

SortedChannels sorted_channels(const ChannelSets& sets) {
  SortedChannels sorted;
  for (std::size_t band = 0; band < sets.size(); ++band) {
    sorted[band].insert(sets[band].begin(), sets[band].end());
  }
  return sorted;
}

/// "%d " per channel.
std::string channel_text(const std::set<std::int32_t>& channels) {
  std::string text;
  for (const std::int32_t channel : channels) {
    text += std::to_string(channel);
    text += ' ';
  }
  return text;
}

}  // namespace

// --- from access points

bool TpcDcaSubworker::process_message(const JsonReader& message, std::string_view cmd,
                                      const std::shared_ptr<ApEntry>& ap) {
  if (!answers_matter()) return true;
  if (cmd == "rrm-mode-response" && state_ == PlannerState::ModesRequested) {
    const HandlingTime::Scope timed(times_.mode_response);
    process_mode_response(message, ap);
  } else if (cmd == "rrm-response" && state_ == PlannerState::ScanRequested) {
    const HandlingTime::Scope timed(times_.response);
    process_response(message, ap);
  }
  return true;
}

void TpcDcaSubworker::process_mode_response(const JsonReader& message,
                                            const std::shared_ptr<ApEntry>& ap) {
  ap->radios.from_json(message, channel_sets_, false, true);
  aps().index_ap(ap);
  enter_scan_wait();
}

void TpcDcaSubworker::process_response(const JsonReader& message,
                                       const std::shared_ptr<ApEntry>& ap) {
  ap->radios.from_json(message, channel_sets_, false, false);
  aps().index_ap(ap);
  aps().update_rf_environment(*ap, message.child("rf-environment"));
  ap->radios.clear_power_changed();
  ap->active = true;
  planning_optimize();
}

// --- to access points

void TpcDcaSubworker::post_request_mode() {
  RRM_LOG(Debug, "Post request mode");
  worker().broadcast_buffer_flush();
  for (const auto& [mac, ap] : aps().aps()) {
    JsonWriter message("rrm", "rrm-request-mode");
    message.add("domain", domain());
    message.add("ap-mac", mac.upper().c_str());
    worker().broadcast_buffer_add(message.str(), ap->session);
  }
  worker().broadcast_buffer_flush();
}

void TpcDcaSubworker::post_force_update() {
  RRM_LOG(Debug, "Post rrm-update");
  // Without DCA the access points scan one after another.
  const std::int64_t step_s = config().use_dca ? 0 : scan_time_s();
  std::int64_t delay_s = 0;
  for (const auto& [mac, ap] : aps().aps()) {
    worker().broadcast_buffer_add(force_update_message(*ap, delay_s), ap->session);
    delay_s += step_s;
  }
  worker().broadcast_buffer_flush();
}

std::string TpcDcaSubworker::force_update_message(const ApEntry& ap,
                                                  std::int64_t scan_delay_s) const {
  const bool own_scan = config().use_tavro_rrm_scan;
  const SortedChannels channels = own_scan ? sorted_channels(channel_sets_) : channels_of(ap);
  std::string all;
  for (const auto& band : channels) all += channel_text(band);

  JsonWriter message("rrm", "rrm-update");
  message.add("domain", domain());
  message.add("ap-mac", ap.base_mac.upper().c_str());
  message.add("rrm-scan-delay", scan_delay_s);
  message.add("rrm-scan-channels", all);
  {
    JsonWriter list = JsonWriter::object(message, "rrm-scan-channels-list");
    list.add("2", channel_text(channels[2]));
    list.add("5", channel_text(channels[5]));
    list.add("6", channel_text(channels[6]));
  }
  message.add("tavro-rrm-scanning", own_scan);
  return message.str();
}

void TpcDcaSubworker::post_tpc_results() {
  RRM_LOG(Debug, "Post tpc-results");
  for (const auto& [mac, ap] : aps().aps()) post_tpc_results_ap(*ap, false);
  worker().broadcast_buffer_flush();
}

void TpcDcaSubworker::post_tpc_results_ap(const ApEntry& ap, bool flush) {
  const MessageArena arena(16384);
  JsonWriter message("rrm", "rrm-info");
  message.add("ap-mac", ap.base_mac.upper().c_str());
  {
    JsonWriter settings = JsonWriter::object(message, "config");
    settings.add("use-tpc", config().use_tpc);
    settings.add("use-dca", config().use_dca);
    settings.add("use-load-balance", config().use_balance);
    settings.add("use-80211v", config().use_80211v);
    ap.radios.config_to_json(settings);
    worker().add_neighbour_list(ap, settings, true);
  }
  worker().broadcast_buffer_add(message.str(), ap.session);
  if (flush) worker().broadcast_buffer_flush();
}

void TpcDcaSubworker::post_results_802dot11r_ap(const ApEntry& ap, bool send, bool force) {
  if (!config().use_80211r) return;
  RRM_LOG(Debug, "%s", domain_name());
  if (!ap.fbt_changed && !(force && ap.radios.any_radio_with_80211r_vap())) return;
  std::string message = fbt_.message(ap);
  if (send) worker().broadcast_buffer_add(std::move(message), ap.session);
}

}  // namespace rrm
