#include <algorithm>
#include <utility>
#include <vector>

#include "server/lib/BlacklistSubworker.h"
#include "server/lib/Hooks.h"
#include "server/lib/LoadBalancerSubworker.h"
#include "server/lib/RrmWorker.h"

// Where a pending client shall go.

namespace rrm {

namespace {

/// Seconds for which a steered client counts at its new radio before it has arrived.
constexpr std::int32_t kExpected_s = 5;

}  // namespace

/// The radio that a pending client is associated to.
struct LoadBalancerSubworker::Source {
  std::shared_ptr<ApEntry> ap;
  Radio* radio = nullptr;
  std::int32_t clients = 0;
  std::int32_t rssi_dbm = 0;
};

/// The radio chosen for a pending client.
struct LoadBalancerSubworker::Destination {
  bool found = false;
  MacAddress mac;            ///< radio MAC
  std::int32_t clients = 0;  ///< as the choice weighs them
  std::int32_t rssi_dbm = 0;
  bool already_there = false;  ///< the client is associated there and served well
};

void LoadBalancerSubworker::process_timer() {
  if (lock_balancer() != 0) return;
  std::vector<MacAddress> due;
  for (auto& [client, entry] : pending_.entries()) {
    if (entry.countdown > 0) --entry.countdown;
    if (entry.countdown == 0 || entry.awaited.empty()) due.push_back(client);
  }
  for (const MacAddress& client : due) {
    const ProbeEntry* entry = pending_.find(client);
    if (entry == nullptr) continue;
    process_result(client, *entry);
    if (entry->countdown == 0) log_problist_drop("timeout");
    pending_.remove(client);
  }
}

void LoadBalancerSubworker::process_result(const MacAddress& client, const ProbeEntry& entry) {
  Source source;
  source.ap = aps().find_any(entry.mac);
  const std::int32_t source_id = aps().radio_id_of_bssid(entry.mac);
  if (source.ap == nullptr || source_id < 0) {
    RRM_LOG(Warning, "Skip balancing: source radio_id not found for src_ap=%s",
            entry.mac.upper().c_str());
    return;
  }
  source.radio = enabled_radio(*source.ap, source_id);
  source.clients =
      source.radio == nullptr ? -1 : static_cast<std::int32_t>(source.radio->assoc_clients.count());
  if (source.radio != nullptr) {
    const AssocClient* known = source.radio->assoc_clients.find(client);
    if (known != nullptr) source.rssi_dbm = known->dbm_signal;
  }
  RRM_LOG(Debug, "LoadBalancer: radio %d client %s src_ap %s size %d sta_low %d rssi %d", source_id,
          client.upper().c_str(), entry.mac.upper().c_str(), source.clients,
          config().load_balance_sta_low, source.rssi_dbm);
  if (source.clients < 0) return;

  const Destination destination = choose(client, entry);
  if (!destination.found) {
    RRM_LOG(Debug, "LoadBalancer: no find result for %s", client.upper().c_str());
  } else if (worth_moving(source, destination, entry) &&
             move_client(client, entry, source, destination)) {
    return;
  }
  post_assoc_ack(*source.ap, source_id, client, entry.ssid);
}

/// The radio that already serves the client well, else the least loaded of those that heard it.
LoadBalancerSubworker::Destination LoadBalancerSubworker::choose(const MacAddress& client,
                                                                 const ProbeEntry& entry) const {
  const DomainConfig& options = config();
  Destination best;
  for (const auto& [mac, rssi_dbm] : entry.heard) {
    const auto ap = aps().find_any(mac);
    if (ap == nullptr) continue;
    const Radio* radio = ap->radios.find(aps().radio_id_of_bssid(mac));
    if (radio == nullptr) continue;
    auto clients = static_cast<std::int32_t>(radio->assoc_clients.count());
    if (radio->assoc_clients.find(client) != nullptr && rssi_dbm > options.blacklist_thr_high &&
        clients <= options.load_balance_sta_high) {
      RRM_LOG(Debug, "LoadBalancer: exist_ap %s size %d rssi %d", mac.upper().c_str(), clients,
              rssi_dbm);
      return {true, mac, clients > 0 ? clients - 1 : clients, rssi_dbm, true};
    }
    // Below the low mark all radios count as equally free: there the signal decides.
    clients = std::max(clients, options.load_balance_sta_low - 1);
    if (!best.found || clients < best.clients ||
        (clients == best.clients && rssi_dbm > best.rssi_dbm)) {
      best = {true, mac, clients, rssi_dbm, false};
    }
  }
  return best;
}

bool LoadBalancerSubworker::heard_by_one_ap(const ProbeEntry& entry) const {
  const auto first = aps().find_any(entry.heard.begin()->first);
  return std::all_of(entry.heard.begin(), entry.heard.end(),
                     [&](const auto& answer) { return aps().find_any(answer.first) == first; });
}

bool LoadBalancerSubworker::worth_moving(const Source& source, const Destination& destination,
                                         const ProbeEntry& entry) const {
  const DomainConfig& options = config();
  const std::int32_t radio_id = aps().radio_id_of_bssid(destination.mac);
  if (radio_id < 0) {
    RRM_LOG(Warning, "Skip balancing: destination radio_id not found for dst_ap=%s",
            destination.mac.upper().c_str());
    return false;
  }
  RRM_LOG(Debug, "dst_ap %s radio %d min_size %d min_rssi %d", destination.mac.upper().c_str(),
          radio_id, destination.clients, destination.rssi_dbm);
  bool balance = destination.rssi_dbm > options.blacklist_thr_high &&
                 destination.clients < options.load_balance_sta_high;
  if (!destination.already_there) {
    const std::int32_t source_clients = std::max(source.clients, options.load_balance_sta_low);
    const bool source_is_fine =
        source_clients <= destination.clients + 1 && source.rssi_dbm > options.blacklist_thr_low;
    // With the answers of one access point there is nothing to compare.
    const bool only_answer = heard_by_one_ap(entry) && destination.mac != source.radio->mac;
    if (source_is_fine || only_answer) balance = false;
  }
  if (!balance) RRM_LOG(Debug, "LoadBalancer: no balancer");
  return balance;
}

/// @return whether the client was sent away, so that its access point must not acknowledge it
bool LoadBalancerSubworker::move_client(const MacAddress& client, const ProbeEntry& entry,
                                        const Source& source, const Destination& destination) {
  const auto ap = aps().find_any(destination.mac);
  const std::int32_t radio_id = aps().radio_id_of_bssid(destination.mac);
  Radio* radio = ap == nullptr ? nullptr : enabled_radio(*ap, radio_id);
  if (radio == nullptr) {
    RRM_LOG(Warning, "Skip balancing action: destination radio_id=%d is invalid/disabled for ap=%s",
            radio_id, destination.mac.upper().c_str());
    return false;
  }
  const bool stays = radio == source.radio;
  radio->blacklist.unblock(client);
  if (!stays) {
    radio->assoc_clients.expect_client(client, source.ap->base_mac, source.radio->id, kExpected_s);
  }
  worker().blacklist().block_pass(client, *ap, entry.ssid, radio_id, true);
  if (stays) return false;
  worker().blacklist().disconnect_pass(client, *source.radio, entry.ssid);
  return true;
}

}  // namespace rrm
