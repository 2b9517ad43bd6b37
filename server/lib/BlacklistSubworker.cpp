#include "server/lib/BlacklistSubworker.h"

#include <algorithm>
#include <string_view>

#include "server/lib/Hooks.h"
#include "server/lib/LoadBalancerSubworker.h"
#include "server/lib/MessageArena.h"
#include "server/lib/RrmWorker.h"

namespace rrm {

namespace {

constexpr std::uint32_t kTickTimer = 0;
/// Radios with this id take no part in blocking.
constexpr std::int32_t kNeverBlockedRadio = 3;

}  // namespace

/// A client's changed state as its access point reported it.
struct BlacklistSubworker::StateChange {
  MacAddress client;
  std::shared_ptr<ApEntry> ap;
  Radio& radio;
  std::string ssid;
  std::int32_t previous_dbm;  ///< 0 unknown
  std::int32_t rssi_dbm;      ///< 0 unknown
  std::uint64_t since;        ///< when this radio took the client
};

BlacklistSubworker::BlacklistSubworker(const Context& context) : IRrmSubworker(context) {
  arm_timer();
}

void BlacklistSubworker::arm_timer() {
  timers().rearm([this] { process_timer(); }, kTickTimer, 1);
}

bool BlacklistSubworker::process_message(const JsonReader& message, std::string_view cmd,
                                         const std::shared_ptr<ApEntry>& ap) {
  if (cmd == "rrm-assoc-state-changed") process_assoc_state_changed(message, ap);
  return true;
}

// --- client states

void BlacklistSubworker::process_assoc_state_changed(const JsonReader& message,
                                                     const std::shared_ptr<ApEntry>& ap) {
  const char* client_text = message.get_str("sta-mac");
  const std::string ssid = message.get_str("ssid");
  const std::string_view state = message.get_str("state");
  std::int32_t rssi_dbm = message.get_int("rssi");
  const std::int32_t radio_id = message.get_int("radio");
  const bool locked = worker().load_balancer_lock();
  RRM_LOG(Debug,
          "Assocc state change client %s rssi %d state %s radio_id %d ssid %s (ap %s) "
          "lock_balancer %d",
          client_text, rssi_dbm, state.data(), radio_id, ssid.c_str(), ap->base_mac.upper().c_str(),
          locked);
  if (locked || *client_text == '\0' || ssid.empty()) return;
  if (state == "unstable") rssi_dbm = config().blacklist_thr_low;

  const MacAddress client = MacAddress::from_text(client_text);
  Radio* radio = ap->radios.find(radio_id);
  if (radio == nullptr) return;
  const AssocClient* known = radio->assoc_clients.find(client);
  if (known == nullptr) return;
  const StateChange change{client, ap, *radio, ssid, known->dbm_signal, rssi_dbm, known->since};
  const bool balanced = !known->no_balance;
  if (rssi_dbm != 0) radio->assoc_clients.update_rssi(client, rssi_dbm);
  if (balanced) follow_signal(change);
}

void BlacklistSubworker::follow_signal(const StateChange& change) {
  const DomainConfig& options = config();
  const std::int32_t now = change.rssi_dbm;
  if (now > options.blacklist_thr_low) {
    if (now != 0 && now > options.blacklist_thr_high) {
      worker().load_balancer().forget_pending(change.client);
    }
    return;
  }
  // The signal has just crossed the low threshold: whoever is blocked for the client may take it.
  const bool crossed = change.previous_dbm != 0 && change.previous_dbm > options.blacklist_thr_low;
  if (crossed && options.use_balance) {
    // Strong and weak at once only when the high threshold is set below the low one.
    if (now != 0 && now > options.blacklist_thr_high) {
      block_pass(change.client, *change.ap, change.ssid, change.radio.id, true);
    }
    block_pass(change.client, *change.ap, change.ssid, change.radio.id, false);
  }
  offer_to_balancer(change);
}

void BlacklistSubworker::offer_to_balancer(const StateChange& change) {
  if (!config().use_balance || held_elsewhere(change)) return;
  worker().load_balancer().offer_client(change.client, change.ap, change.radio, change.ssid);
}

/// Another access point took the client no earlier than this one: the report here is stale.
bool BlacklistSubworker::held_elsewhere(const StateChange& change) const {
  const auto& members = aps().aps();
  return std::any_of(members.begin(), members.end(), [&](const auto& member) {
    if (member.second == change.ap) return false;
    const auto& radios = member.second->radios.radios;
    return std::any_of(radios.begin(), radios.end(), [&](const Radio& radio) {
      const AssocClient* other = radio.assoc_clients.find(change.client);
      return other != nullptr && other->since >= change.since;
    });
  });
}

// --- blocks

void BlacklistSubworker::block_pass(const MacAddress& client, const ApEntry& ap,
                                    const std::string& ssid, std::int32_t radio_id, bool strong) {
  if (!config().use_balance) return;
  const auto could_serve = [&ssid](const Radio& radio) {
    return radio.status && radio.locked_for_balancer == 0 && radio.id != kNeverBlockedRadio &&
           radio.vaps.vaps().contains(ssid);
  };
  for (const auto& [mac, other] : aps().aps()) {
    const bool own_ap = other->base_mac == ap.base_mac;
    for (Radio& radio : other->radios.radios) {
      if (own_ap && radio.id == radio_id) continue;
      if (!strong) {
        if (radio.blacklist.members.contains(client) && could_serve(radio)) {
          radio.blacklist.unblock(client);
        }
      } else if (could_serve(radio) && radio.assoc_clients.find(client) == nullptr) {
        radio.blacklist.block(client, config().blacklist_timeout);
      }
    }
  }
}

void BlacklistSubworker::disconnect_pass(const MacAddress& client, Radio& radio,
                                         const std::string& ssid) {
  radio.blacklist.kick(client, config().blacklist_timeout, ssid);
}

// --- tick

void BlacklistSubworker::process_timer() {
  if (!worker().load_balancer_stop() && !worker().load_balancer_lock()) send_changes();
  // Those of the subscribed access points age with the domain worker's balancer tick.
  age_clients(unanswered_aps());
  age_clients(aps_to_delete());
  arm_timer();
}

void BlacklistSubworker::age_clients(ApMap& map) {
  for (const auto& [mac, ap] : map.aps()) {
    for (Radio& radio : ap->radios.radios) radio.assoc_clients.age_expected();
  }
}

void BlacklistSubworker::send_changes() {
  for (const auto& [mac, ap] : aps().aps()) post_disassoc_request(*ap);
  worker().broadcast_buffer_flush();
  for (const auto& [mac, ap] : aps().aps()) {
    for (Radio& radio : ap->radios.radios) radio.blacklist.tick();
    post_blacklist(*ap);
  }
  worker().broadcast_buffer_flush();
}

void BlacklistSubworker::post_disassoc_request(ApEntry& ap) {
  auto& radios = ap.radios.radios;
  if (std::none_of(radios.begin(), radios.end(),
                   [](const Radio& radio) { return radio.blacklist.has_unsent_kicks(); })) {
    return;
  }
  JsonWriter message("rrm", "rrm-disassoc-request");
  message.add("ap-mac", ap.base_mac.upper().c_str());
  message.add("domain", domain());
  {
    JsonWriter array = JsonWriter::array(message, "radios");
    for (Radio& radio : radios) radio.disassoc_list_to_json(array);
  }
  worker().broadcast_buffer_add(message.str(), ap.session);
}

void BlacklistSubworker::post_blacklist(ApEntry& ap) {
  auto& radios = ap.radios.radios;
  if (std::all_of(radios.begin(), radios.end(),
                  [](const Radio& radio) { return radio.blacklist.changes.empty(); })) {
    return;
  }
  const MessageArena arena;
  JsonWriter message("rrm", "rrm-blacklist");
  {
    JsonWriter array = JsonWriter::array(message, "radios");
    for (Radio& radio : radios) {
      radio.blacklist_to_json(array);
      radio.blacklist.changes.clear();
    }
  }
  message.add("ap-mac", ap.base_mac.upper().c_str());
  message.add("domain", domain());
  worker().broadcast_buffer_add(message.str(), ap.session);
}

}  // namespace rrm
