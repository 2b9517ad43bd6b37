#include "server/lib/LoadBalancer802dot11vSubworker.h"

#include <functional>
#include <utility>
#include <vector>

#include "server/lib/ClientEvent.h"
#include "server/lib/Hooks.h"
#include "server/lib/RrmWorker.h"
#include "server/lib/TpcDcaSubworker.h"

namespace rrm {

namespace {

enum Timer : std::uint32_t { kLists = 0, kPeriod = 1 };

}  // namespace

LoadBalancer802dot11vSubworker::LoadBalancer802dot11vSubworker(const Context& context)
    : IRrmSubworker(context) {
  arm_period_timer();
}

void LoadBalancer802dot11vSubworker::arm_period_timer() {
  if (config().sta_load_balance_period <= 0) return;
  timers().rearm([this] { process_timer(); }, kPeriod,
                 static_cast<std::uint32_t>(config().sta_load_balance_period));
}

void LoadBalancer802dot11vSubworker::arm_lists_timer() {
  lists_timer_armed_ = true;
  timers().rearm(
      [this] {
        lists_timer_armed_ = false;
        optimize_lists();
      },
      kLists, static_cast<std::uint32_t>(config().planning_delay));
}

void LoadBalancer802dot11vSubworker::process_timer() {
  optimize_clients();
  arm_period_timer();
}

void LoadBalancer802dot11vSubworker::force_optimization() {
  RRM_LOG(Debug, "Forced 802.11v optimization;");
  overload_waits_ = false;
  optimize_lists();
  optimize_clients();
}

// --- reports of the access points

bool LoadBalancer802dot11vSubworker::process_message(const JsonReader& message,
                                                     std::string_view cmd,
                                                     const std::shared_ptr<ApEntry>& ap) {
  if (cmd == "rrm-client-assoc") {
    process_client_assoc(message, ap);
  } else if (cmd == "rrm-client-disassoc") {
    process_client_disassoc(message, ap);
  } else if (cmd == "rrm-sta-roam") {
    process_client_roam(message, ap);
  }
  return true;
}

void LoadBalancer802dot11vSubworker::process_client_assoc(const JsonReader& message,
                                                          const std::shared_ptr<ApEntry>& ap) {
  const ClientEvent event = ClientEvent::from_json(message);
  RRM_LOG(Debug, "Assocc client %s rssi %d radio_id %d ssid %s (ap %s)", event.mac_text.c_str(),
          event.rssi_dbm, event.radio_id, event.ssid.c_str(), ap->base_mac.upper().c_str());
  if (!event.complete()) return;
  Radio* radio = enabled_radio(*ap, event.radio_id);
  if (radio == nullptr) {
    RRM_LOG(Warning, "Skip 802.11v assoc for invalid/disabled radio_id=%d (ap %s)", event.radio_id,
            ap->base_mac.upper().c_str());
    return;
  }
  if (!associate(*radio, event)) return;
  if (radio->expected_roams.erase(event.mac) > 0) {
    RRM_LOG(Debug, "Assoc: client(%s) was roamed by 802.11v, removing from expected list",
            event.mac_text.c_str());
  }
  remove_from_others(event, *ap);
  update_priority(*ap, *radio);
}

/// The client has left every other access point, whether that reported it or not.
void LoadBalancer802dot11vSubworker::remove_from_others(const ClientEvent& event,
                                                        const ApEntry& ap) {
  for (const auto& [mac, other] : aps().aps()) {
    if (other->base_mac == ap.base_mac) continue;
    for (Radio& radio : other->radios.radios) {
      if (radio.assoc_clients.find(event.mac) == nullptr) continue;
      radio.assoc_clients.remove_client(event.mac);
      RRM_LOG(Debug, "Assoc: removing client(%s) from AP(%s) assoc clients list",
              event.mac_text.c_str(), mac.upper().c_str());
    }
  }
}

void LoadBalancer802dot11vSubworker::process_client_disassoc(const JsonReader& message,
                                                             const std::shared_ptr<ApEntry>& ap) {
  const ClientEvent event = ClientEvent::from_json(message);
  RRM_LOG(Debug, "Disassocc client %s (ap %s)", event.mac_text.c_str(),
          ap->base_mac.upper().c_str());
  Radio* radio = enabled_radio(*ap, event.radio_id);
  if (radio == nullptr) {
    RRM_LOG(Warning, "Skip 802.11v disassoc for invalid/disabled radio_id=%d (ap %s)",
            event.radio_id, ap->base_mac.upper().c_str());
    return;
  }
  radio->assoc_clients.remove_client(event.mac);
  update_priority(*ap, *radio);
}

void LoadBalancer802dot11vSubworker::update_priority(const ApEntry& ap, Radio& radio) {
  const std::uint32_t before = radio.load_level;
  if (!radio.update_load_level()) return;
  RRM_LOG(Debug, "Ap(%s) priority changed to %d (was %d), need to update lists on aps;",
          ap.base_mac.upper().c_str(), static_cast<int>(radio.load_level),
          static_cast<int>(before));
  planning_update_802dot11v(false);
}

void LoadBalancer802dot11vSubworker::process_client_roam(const JsonReader& message,
                                                         const std::shared_ptr<ApEntry>& ap) {
  const std::int32_t radio_id = message.get_int("radio");
  const char* client_text = message.get_str("sta-mac");
  const char* target_text = message.get_str("target-mac");
  const auto target = aps().find_any(MacAddress::from_text(target_text));
  if (target == nullptr) {
    RRM_LOG(Error, "No target ap with mac %s", target_text);
    return;
  }
  Radio* radio = enabled_radio(*target, radio_id);
  if (radio == nullptr) {
    RRM_LOG(Warning, "Skip 802.11v roam: target radio_id=%d invalid/disabled for ap=%s", radio_id,
            target->base_mac.upper().c_str());
    return;
  }
  MacAddress client;
  if (!MacAddress::scan(client_text, client)) return;  // it could never arrive
  if (radio->expected_roams.size() >= AssocMap::kMaxClients &&
      !radio->expected_roams.contains(client)) {
    RRM_LOG(Warning, "Too many expected clients on radio %d of AP(%s)", radio_id,
            target->base_mac.upper().c_str());
    return;
  }
  radio->expected_roams[client] = {ap->base_mac, radio_id};
  RRM_LOG(Warning, "New expected sta(%s) added to AP(%s)", client_text,
          target->base_mac.upper().c_str());
}

// --- lists

void LoadBalancer802dot11vSubworker::planning_update_802dot11v(bool restart) {
  if (!config().use_80211v) return;
  lists_pending_ = true;
  if (restart) {
    RRM_LOG(Debug, "Planning 802.11v optimization (timer restarted)");
    arm_lists_timer();
  } else {
    RRM_LOG(Debug, "Planning 802.11v optimization (without timer restart)");
    if (!lists_timer_armed_) arm_lists_timer();
  }
}

void LoadBalancer802dot11vSubworker::optimize_lists() {
  if (!config().use_80211v) return;
  if (worker().load_balancer_lock()) {
    RRM_LOG(Debug, "Load balancer is blocked");
    lists_pending_ = true;
    arm_lists_timer();
    return;
  }
  RRM_LOG(Debug, "802.11v optimization started for each AP");
  forget_absent_aps();
  for (const auto& [mac, ap] : aps().aps()) worker().tpc_dca().post_tpc_results_ap(*ap, false);
  worker().broadcast_buffer_flush();
  for (const auto& [mac, ap] : aps().aps()) {
    for (Radio& radio : ap->radios.radios) radio.changed = false;
  }
  lists_pending_ = false;
  if (overload_waits_) optimize_clients();
}

void LoadBalancer802dot11vSubworker::forget_absent_aps() {
  std::erase_if(sent_, [this](const auto& entry) {
    return aps().find(entry.first) == nullptr && unanswered_aps().find(entry.first) == nullptr &&
           aps_to_delete().find(entry.first) == nullptr;
  });
}

void LoadBalancer802dot11vSubworker::add_neighbour_list(const ApEntry& ap, JsonWriter& config,
                                                        bool only_changes) {
  JsonWriter whole;
  JsonWriter array = JsonWriter::array(whole, "802dot11k");
  SentList list;
  list.loads = write_80211v_lists(aps(), ap, array);
  const std::string text = array.str();
  list.hash = std::hash<std::string>{}(text);
  list.length = text.size();

  const auto last = sent_.find(ap.base_mac);
  const bool changed =
      last == sent_.end() || last->second.hash != list.hash || last->second.length != list.length;
  sent_[ap.base_mac] = list;
  if (only_changes && !changed) {
    RRM_LOG(Debug, "802.11kv list has not changed on %s, no need to send new one",
            ap.base_mac.upper().c_str());
    return;
  }
  if (only_changes) {
    RRM_LOG(Debug,
            "802.11kv list has changed (or has no actual lists after reboot) on %s, sending new "
            "802.11kv list",
            ap.base_mac.upper().c_str());
  }
  config.add("802dot11k", std::as_const(array).resolve());
}

// --- overload

void LoadBalancer802dot11vSubworker::optimize_clients() {
  const DomainConfig& options = config();
  // In a busy domain some list is nearly always due: the messages wait for it, they are not lost.
  overload_waits_ = lists_pending_;
  if (lists_pending_ || !options.use_80211v || !options.use_balance) {
    RRM_LOG(Debug, "Skip optimize_clients (use_80211v=%d use_balance=%d)", options.use_80211v,
            options.use_balance);
    return;
  }
  for (const auto& [mac, ap] : aps().aps()) {
    if (ap->radios.any_802dot11v_candidate()) optimize_ap(*ap);
  }
  worker().broadcast_buffer_flush();
}

bool LoadBalancer802dot11vSubworker::needs_balancing(const Radio& radio) const {
  return radio.status && radio.vaps.any_80211v() && radio.locked_for_80211v == 0 &&
         radio.over_low_load();
}

void LoadBalancer802dot11vSubworker::optimize_ap(const ApEntry& ap) {
  bool any_needs = false;
  std::vector<std::pair<std::int32_t, std::int32_t>> counts;  // radio id, clients to move
  for (const Radio& radio : ap.radios.radios) {
    any_needs = any_needs || needs_balancing(radio);
  }
  if (!any_needs) {
    RRM_LOG(Debug, "AP(%s): no radios need load balance", ap.base_mac.upper().c_str());
    return;
  }
  for (const Radio& radio : ap.radios.radios) {
    const std::int32_t count = calc_roam_count(ap, radio);
    if (count > 0) counts.emplace_back(radio.id, count);
  }
  if (counts.empty()) return;
  JsonWriter message("rrm", "rrm-sta-overload");
  message.add("ap-mac", ap.base_mac.upper().c_str());
  {
    JsonWriter array = JsonWriter::array(message, "radios");
    for (const auto& [radio_id, count] : counts) {
      JsonWriter element = JsonWriter::object(array);
      element.add("id", radio_id);
      element.add("roam-count", count);
    }
  }
  worker().broadcast_buffer_add(message.str(), ap.session);
}

std::int32_t LoadBalancer802dot11vSubworker::calc_roam_count(const ApEntry& ap,
                                                             const Radio& radio) const {
  const DomainConfig& options = config();
  const MacText name = ap.base_mac.upper();
  if (!options.use_balance || !needs_balancing(radio)) {
    RRM_LOG(Debug,
            "AP(%s): radio %d: skip roam count (use_balance=%d use_80211v=%d status=%d "
            "need_balance=%d)",
            name.c_str(), radio.id, options.use_balance, radio.vaps.any_80211v(), radio.status,
            needs_balancing(radio));
    return 0;
  }
  NeighbourLoad neighbours;
  const auto sent = sent_.find(ap.base_mac);
  if (sent != sent_.end() && radio.id >= 0 &&
      static_cast<std::size_t>(radio.id) < sent->second.loads.size()) {
    neighbours = sent->second.loads[static_cast<std::size_t>(radio.id)];
  }
  if (neighbours.radios == 0) {
    RRM_LOG(Debug, "AP(%s): radio %d: no neighbor aps with nonzero priority, skip roam count",
            name.c_str(), radio.id);
    return 0;
  }
  const auto own = static_cast<std::int32_t>(radio.assoc_clients.count());
  const auto expected = static_cast<std::int32_t>(radio.expected_roams.size());
  RRM_LOG(Debug, "AP(%s): radio %d: total clients %d, nonzero prio aps %d;", name.c_str(), radio.id,
          own + neighbours.clients, neighbours.radios + 1);
  const float average = static_cast<float>(neighbours.clients + own + expected) /
                        static_cast<float>(neighbours.radios + 1);
  const float excess = static_cast<float>(own) - average;
  if (excess <= static_cast<float>(options.load_balance_roam_count_min)) {
    RRM_LOG(Debug, "AP(%s): radio %d: roam count %.3f below min %d", name.c_str(), radio.id,
            static_cast<double>(excess), options.load_balance_roam_count_min);
    return 0;
  }
  const std::int32_t count = excess > static_cast<float>(options.load_balance_roam_count_max)
                                 ? options.load_balance_roam_count_max
                                 : static_cast<std::int32_t>(excess);
  RRM_LOG(Debug, "Sending overload msg to %s (roam %d clients; avg_count = %.3f)", name.c_str(),
          count, static_cast<double>(average));
  return count;
}

}  // namespace rrm
