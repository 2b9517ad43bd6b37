#include <string_view>
#include <utility>

#include "server/lib/Envelope.h"
#include "server/lib/Hooks.h"
#include "server/lib/LoadBalancer802dot11vSubworker.h"
#include "server/lib/MessageArena.h"
#include "server/lib/RRM.h"
#include "server/lib/RrmWorker.h"
#include "server/lib/TpcDcaSubworker.h"

// Subscription, unsubscription and changed settings of access points.

namespace rrm {

namespace {

// Codes of a refused subscription.
constexpr std::int32_t kInvalidMacParameters = 400;
constexpr std::int32_t kServiceDisabled = 404;
constexpr std::int32_t kBadVersionOrFactory = 503;

}  // namespace

// --- answers

void RrmWorker::send_subscribe_fail(const Message& message, std::int32_t code) {
  JsonWriter answer("rrm", "subscribe-response");
  answer.add("status", "fail");
  answer.add("code", code);
  answer.add("ap-mac", message.mac.upper().c_str());
  owner()->send_text(answer.c_str(), message.session);
  owner()->drop_session_at_websock_worker(message.session, false);
}

void RrmWorker::send_subscribe_success(const Message& message, const ApEntry& ap) {
  const MessageArena arena(16384);
  JsonWriter answer("rrm", "subscribe-response");
  answer.add("status", "success");
  answer.add("domain", domain_);
  answer.add("ap-mac", ap.base_mac.upper().c_str());
  {
    JsonWriter settings = JsonWriter::object(answer, "config");
    settings.add("use-tpc", domain_config_.use_tpc);
    settings.add("use-dca", domain_config_.use_dca);
    settings.add("use-load-balance", domain_config_.use_balance);
    settings.add("use-80211r", domain_config_.use_80211r);
    settings.add("use-80211v", domain_config_.use_80211v);
    ap.radios.config_to_json(settings);
    add_neighbour_list(ap, settings, false);
  }
  owner()->send_text(answer.c_str(), message.session);
  tpc_dca_->post_results_802dot11r_ap(ap, true, true);
  broadcast_buffer_flush();
}

void RrmWorker::add_neighbour_list(const ApEntry& ap, JsonWriter& config, bool only_changes) {
  if (domain_config_.use_80211v && ap.radios.any_802dot11v_or_k_candidate()) {
    load_balancer_80211v_->add_neighbour_list(ap, config, only_changes);
  } else if (domain_config_.use_80211k && ap.radios.any_radio_with_80211k_vap()) {
    JsonWriter list = JsonWriter::array(config, "802dot11k");
    aps_.build_80211k_list(ap, list, ap.visible_members);
    aps_to_delete_.build_80211k_list(ap, list, ap.visible_members);
  }
}

// --- subscription

void RrmWorker::process_subscribe_request(const Message& message) {
  // The notice that the session has closed may have overtaken its subscription.
  if (!owner()->is_session_alive(message.session)) {
    RRM_LOG(Debug, "Subscribe request of closed session %u dropped", message.session.id);
    return;
  }
  if (!config_->enabled) return send_subscribe_fail(message, kServiceDisabled);
  if (!is_version_compatible(message.json)) {
    return send_subscribe_fail(message, kBadVersionOrFactory);
  }
  const JsonReader factory = message.json.child("factory");
  ApDescription description = ApDescription::from_json(factory);
  if (description.board.empty() || description.hw.empty() || description.serial.empty() ||
      std::string_view(factory.get_str("mac")).empty()) {
    return send_subscribe_fail(message, kBadVersionOrFactory);
  }
  const bool scanning = tpc_dca_->scanning();
  if (const Ap known = aps_.find_any(message.mac)) return subscribe_known(message, known);
  if (const Ap deleted = aps_to_delete_.find_any(message.mac)) {
    return subscribe_deleted(message, deleted, scanning);
  }
  if (const Ap unanswered = unanswered_aps_.find_any(message.mac)) {
    return subscribe_unanswered(message, unanswered);
  }
  subscribe_new(message, std::move(description));
}

void RrmWorker::take_over_session(const Message& message, ApEntry& ap) {
  if (ap.session.id == message.session.id) return;
  if (!ap.session_lost && ap.session.id != 0) {
    owner()->drop_session_at_websock_worker(ap.session, true);
  }
  ap.session = message.session;
  ap.session_lost = false;
}

void RrmWorker::subscribe_known(const Message& message, const Ap& ap) {
  RRM_LOG(Debug, "To exists subscribe request");
  take_over_session(message, *ap);
  process_exists_ap(message, ap, false);
  aps_.index_ap(ap);
  send_subscribe_success(message, *ap);
}

void RrmWorker::subscribe_deleted(const Message& message, const Ap& ap, bool scanning) {
  RRM_LOG(Debug, "To delete subscribe request, scan state %d", scanning);
  take_over_session(message, *ap);
  process_exists_ap(message, ap, scanning);
  send_subscribe_success(message, *ap);
  aps_.insert(ap);
  aps_.index_ap(ap);
  raise_domain_changed();
  aps_to_delete_.erase(ap->base_mac);
}

void RrmWorker::subscribe_unanswered(const Message& message, const Ap& ap) {
  RRM_LOG(Debug, "To unanswered subscribe request");
  take_over_session(message, *ap);
  process_exists_ap(message, ap, false);
  unanswered_aps_.index_ap(ap);
  send_subscribe_success(message, *ap);
}

void RrmWorker::subscribe_new(const Message& message, ApDescription description) {
  RRM_LOG(Debug, "NEW subscribe request");
  const auto ap = std::make_shared<ApEntry>(domain_config_, message.mac, message.session,
                                            std::move(description));
  ap->ap_mac_count = message.json.get_int_or("ap-mac-count", ap->ap_mac_count);
  ap->use_wildcard_80211r = message.json.get_int("use-wildcard-80211r") != 0;
  ap->radios.from_json(message.json, channel_sets_, true, true);
  if (!check_mac_params(*ap)) {
    RRM_LOG(Error, "Send subscribe-response 'fail' due to invalid MAC parameters");
    raise_event(EventCode::AccessPointError, message.mac.upper().str());
    return send_subscribe_fail(message, kInvalidMacParameters);
  }
  aps_.insert(ap);
  aps_.index_ap(ap);
  raise_domain_changed();
  if (ap->radios.any_enabled_with_channel()) {
    if (domain_config_.use_80211v) ap->radios.update_load_levels();
    tpc_dca_->force_optimization();
  }
  send_subscribe_success(message, *ap);
}

// --- known access points

void RrmWorker::process_exists_ap(const Message& message, const Ap& ap, bool force) {
  if (ap->session.id != message.session.id) throw std::out_of_range("invalid exist session");

  RadioList fresh = ap->radios;
  fresh.from_json(message.json, channel_sets_, true, false);
  const bool same_channels = ap->radios.same_channel_plan(fresh);
  const bool same_vaps = ap->radios.same_vaps(fresh);
  const bool level_changed = ap->radios.update_load_levels();

  bool wildcard_changed = false;
  if (message.cmd == "subscribe-request") {
    const bool wildcard = message.json.get_int("use-wildcard-80211r") != 0;
    wildcard_changed = wildcard != std::exchange(ap->use_wildcard_80211r, wildcard);
  }

  RoamingUpdates due;
  if (domain_config_.use_80211v && fresh.any_802dot11v_candidate()) {
    due.lists_80211kv = !(same_channels && same_vaps) || level_changed;
    RRM_LOG(Info, "process_exists_ap update_802dot11kv %d (%d/%d/%d)", due.lists_80211kv,
            same_channels, same_vaps, level_changed);
  } else if (domain_config_.use_80211k && fresh.any_radio_with_80211k_vap()) {
    due.lists_80211k = !(same_channels && same_vaps);
    RRM_LOG(Info, "process_exists_ap update_802dot11k %d (%d/%d)", due.lists_80211k, same_channels,
            same_vaps);
  }
  if (domain_config_.use_80211r) {
    due.links_80211r = wildcard_changed || !same_channels;
    RRM_LOG(Info, "process_exists_ap update_802dot11r %d", due.links_80211r);
  }

  // New limits are taken and the power fitted at once, so that they alone ask for no new round.
  ap->radios.set_validate_power(fresh);
  const bool same_settings = ap->radios.same_settings(fresh);
  const bool not_equivalent = force || !same_settings;
  if (!same_channels || !same_settings) raise_domain_changed();
  ap->radios.from_json(message.json, channel_sets_, true, due.lists_80211kv);

  if (not_equivalent) {
    RRM_LOG(Debug, "Not-equivalent or force (%d) subscribe request", force);
    ap->visible_members.clear();
    ap->visible_rogue.clear();
    tpc_dca_->force_optimization();
    return;
  }
  plan_updates(*ap, due);
}

void RrmWorker::plan_updates(const ApEntry& ap, const RoamingUpdates& due) {
  if (due.lists_80211kv) {
    load_balancer_80211v_->planning_update_802dot11v(true);
  } else if (due.lists_80211k) {
    tpc_dca_->update_802dot11k();
  }
  // A description without keys has taken away those that others are linked with.
  if (due.links_80211r || (domain_config_.use_80211r && FbtDistribution::lacks_keys(ap))) {
    tpc_dca_->planning_update_802dot11r();
  }
}

void RrmWorker::process_unsubscribe_request(const Message& message) {
  if (const Ap ap = aps_.find_any(message.mac)) {
    if (ap->session.id == message.session.id) {
      tpc_dca_->force_optimization();
      aps_.erase(ap->base_mac);
    } else {
      aps_.erase_node(ap->base_mac);
    }
    return;
  }
  const Ap unanswered = unanswered_aps_.find_any(message.mac);
  if (unanswered != nullptr && unanswered->session.id == message.session.id) {
    unanswered_aps_.erase(unanswered->base_mac);
  }
}

void RrmWorker::process_config_changed(const Message& message) {
  ApMap* map = &aps_;
  Ap ap = aps_.find_any(message.mac);
  if (ap == nullptr) {
    map = &unanswered_aps_;
    ap = unanswered_aps_.find_any(message.mac);
    if (ap != nullptr) RRM_LOG(Debug, "To unanswered rrm change request");
  }
  if (ap == nullptr) {
    map = &aps_to_delete_;
    ap = aps_to_delete_.find_any(message.mac);
    if (ap == nullptr) return;
    RRM_LOG(Debug, "To deleted rrm change request");
  }
  process_exists_ap(message, ap, false);
  map->index_ap(ap);
  tpc_dca_->post_tpc_results_ap(*ap, true);
}

// --- MAC pools

namespace {

/// Counts and offsets as the access point sent them: -1 is -1.
std::int64_t as_sent(std::uint32_t value) { return static_cast<std::int32_t>(value); }

bool pool_fits(const Radio& radio, std::int32_t ap_mac_count) {
  const std::int64_t count = as_sent(radio.max_mac_count);
  const std::int64_t offset = as_sent(radio.mac_offset);
  if (count >= 1 && offset >= 0 && offset + count <= ap_mac_count) return true;
  RRM_LOG(Warning,
          "Invalid one or more radio MAC parameters:  radio-mac-count(%d), mac-offset(%d), "
          "ap-mac-count(%d)",
          static_cast<int>(count), static_cast<int>(offset), ap_mac_count);
  return false;
}

bool pools_apart(const Radio& radio, const Radio& other) {
  const std::uint64_t first = radio.mac.number();
  const std::uint64_t address = other.mac.number();
  if (address < first || address >= first + radio.max_mac_count) return true;
  RRM_LOG(Warning, "MAC ranges overlapped: radio%d %s max_mac_count=%d, radio%d %s", radio.id,
          radio.mac.upper().c_str(), static_cast<int>(radio.max_mac_count), other.id,
          other.mac.upper().c_str());
  return false;
}

}  // namespace

bool RrmWorker::check_mac_params(const ApEntry& ap) {
  if (ap.ap_mac_count < 1) {
    RRM_LOG(Warning, "Invalid ap-mac-count(%d)", ap.ap_mac_count);
    return false;
  }
  bool valid = true;
  for (const Radio& radio : ap.radios.radios) {
    if (!radio.status) continue;
    if (!pool_fits(radio, ap.ap_mac_count)) {
      valid = false;
      continue;
    }
    for (const Radio& other : ap.radios.radios) {
      if (other.status && other.id != radio.id && !pools_apart(radio, other)) valid = false;
    }
  }
  return valid;
}

}  // namespace rrm
