#include "server/lib/LoadBalancerSubworker.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "server/lib/BlacklistSubworker.h"
#include "server/lib/Hooks.h"
#include "server/lib/RrmWorker.h"

// Reports of the access points and questions to them; the decision is in LoadBalancerDecision.cpp.

namespace rrm {

namespace {

constexpr std::int32_t kPending_s = 5;
/// Clients that can be pending at once in a domain.
constexpr std::size_t kMaxPending = 16384;

/// Whether `ap` hears one of the other's radios.
bool hears(const ApEntry& ap, const ApEntry& other) {
  const auto& heard = ap.visible_members;
  return std::any_of(other.radios.radios.begin(), other.radios.radios.end(),
                     [&](const Radio& radio) {
                       return heard.contains(radio.mac) || heard.contains(radio.mac.twin());
                     });
}

bool serves(const Radio& radio, const std::string& ssid) {
  return radio.status && radio.vaps.vaps().contains(ssid);
}

}  // namespace

/// Paused by flooding access points or by a running round.
std::int32_t LoadBalancerSubworker::lock_balancer() const noexcept {
  return worker().load_balancer_stop() || worker().load_balancer_lock() ? 1 : 0;
}

bool LoadBalancerSubworker::process_message(const JsonReader& message, std::string_view cmd,
                                            const std::shared_ptr<ApEntry>& ap) {
  if (cmd == "rrm-client-assoc") {
    process_client_assoc(message, ap);
  } else if (cmd == "rrm-client-disassoc") {
    process_client_disassoc(message, ap);
  } else if (cmd == "rrm-probe-response") {
    process_probe_response(message, ap);
  } else if (cmd == "rrm-disassoc-all-clients") {
    process_client_disassoc_all(ap);
  }
  return true;
}

// --- associations

void LoadBalancerSubworker::process_client_assoc(const JsonReader& message,
                                                 const std::shared_ptr<ApEntry>& ap) {
  if (!config().use_balance) return;
  const ClientEvent event = ClientEvent::from_json(message);
  RRM_LOG(Debug,
          "Assocc client %s rssi %d radio_id %d ssid %s no_balance %d send_ack %d lock_balancer %d "
          "(ap %s)",
          event.mac_text.c_str(), event.rssi_dbm, event.radio_id, event.ssid.c_str(),
          event.no_balance, event.need_ack, lock_balancer(), ap->base_mac.upper().c_str());
  if (!event.complete()) return;
  Radio* radio = enabled_radio(*ap, event.radio_id);
  if (radio == nullptr) {
    RRM_LOG(Warning, "Skip assoc for invalid/disabled radio_id=%d (ap %s)", event.radio_id,
            ap->base_mac.upper().c_str());
    return;
  }
  if (event.no_balance) radio->blacklist.forget(event.mac);
  if (associate(*radio, event)) {
    const bool expected = radio->expected_roams.erase(event.mac) > 0;
    if (event.no_balance) remove_from_others(event, *ap);
    if (lock_balancer() == 0 && steer(event, ap, *radio, expected)) return;
  }
  if (event.need_ack) post_assoc_ack(*ap, radio->id, event.mac, event.ssid);
}

/// A client that is not balanced is nowhere else: the others need not report its leaving.
void LoadBalancerSubworker::remove_from_others(const ClientEvent& event, const ApEntry& ap) {
  for (const auto& [mac, other] : aps().aps()) {
    if (other->base_mac == ap.base_mac) continue;
    if (!config().use_all_ap_balance && !hears(*other, ap)) continue;
    for (Radio& radio : other->radios.radios) {
      if (serves(radio, event.ssid)) radio.assoc_clients.remove_client(event.mac);
    }
  }
}

/// @return whether the client became pending, so that the decision acknowledges it
bool LoadBalancerSubworker::steer(const ClientEvent& event, const std::shared_ptr<ApEntry>& ap,
                                  Radio& radio, bool expected) {
  const DomainConfig& options = config();
  const bool strong = event.rssi_dbm != 0 && event.rssi_dbm > options.blacklist_thr_high;
  worker().blacklist().block_pass(event.mac, *ap, event.ssid, radio.id, strong);
  const bool weak = event.rssi_dbm <= options.blacklist_thr_low;
  const bool loaded = std::cmp_greater(radio.assoc_clients.count(), options.load_balance_sta_low);
  if (!(weak || loaded) || event.no_balance || expected) return false;
  pending_.remove(event.mac);
  return make_pending(event.mac, ap, radio, event.ssid);
}

void LoadBalancerSubworker::process_client_disassoc(const JsonReader& message,
                                                    const std::shared_ptr<ApEntry>& ap) {
  const ClientEvent event = ClientEvent::from_json(message);
  RRM_LOG(Debug, "Disassocc client %s lock_balancer %d (ap %s)", event.mac_text.c_str(),
          lock_balancer(), ap->base_mac.upper().c_str());
  Radio* radio = enabled_radio(*ap, event.radio_id);
  if (radio == nullptr) {
    RRM_LOG(Warning, "Skip disassoc for invalid/disabled radio_id=%d (ap %s)", event.radio_id,
            ap->base_mac.upper().c_str());
    return;
  }
  radio->assoc_clients.remove_client(event.mac);
}

void LoadBalancerSubworker::process_client_disassoc_all(const std::shared_ptr<ApEntry>& ap) {
  RRM_LOG(Debug, "Disassocc all clients");
  for (Radio& radio : ap->radios.radios) radio.assoc_clients.clear();
}

void LoadBalancerSubworker::post_assoc_ack(const ApEntry& ap, std::int32_t radio_id,
                                           const MacAddress& client, const std::string& ssid) {
  JsonWriter message("rrm", "rrm-client-assoc-ack");
  message.add("domain", domain());
  message.add("ap-mac", ap.base_mac.upper().c_str());
  message.add("sta-mac", client.lower().c_str());
  message.add("radio", radio_id);
  message.add("ssid", ssid);
  worker().broadcast_buffer_add(message.str(), ap.session);
  worker().broadcast_buffer_flush();
}

// --- questions

void LoadBalancerSubworker::offer_client(const MacAddress& client,
                                         const std::shared_ptr<ApEntry>& ap, const Radio& radio,
                                         const std::string& ssid) {
  if (pending_.find(client) == nullptr) make_pending(client, ap, radio, ssid);
}

/// @return whether somebody was asked about the client
bool LoadBalancerSubworker::make_pending(const MacAddress& client,
                                         const std::shared_ptr<ApEntry>& ap, const Radio& radio,
                                         const std::string& ssid) {
  if (pending_.size() >= kMaxPending) {
    log_problist_drop("too many pending clients");
    return false;
  }
  ProbeEntry entry;
  entry.ssid = ssid;
  entry.mac = radio.mac;
  entry.countdown = kPending_s;
  if (!post_probe_req(client, ap, entry)) return false;
  pending_.add(client, entry);
  return true;
}

/// Texts of the "rrm-probe-request" about one client. They differ in the access point's MAC and in
/// the radios that are asked, so each set of radios is written once and then only gets its MAC.
class LoadBalancerSubworker::ProbeRequests {
 public:
  ProbeRequests(const std::string& domain, const MacAddress& client, const std::string& ssid)
      : domain_(domain), client_(client), ssid_(ssid) {}

  std::string text(const ApEntry& ap, const std::vector<const Radio*>& radios) {
    std::uint32_t set = 0;
    for (const Radio* radio : radios) set |= 1U << (static_cast<std::uint32_t>(radio->id) & 31U);
    const MacText mac = ap.base_mac.upper();
    const auto known = std::find_if(written_.begin(), written_.end(),
                                    [set](const Written& written) { return written.set == set; });
    if (known == written_.end()) return written_.emplace_back(write(set, mac, radios)).text;
    known->text.replace(known->mac_at, kMacLength, mac.c_str());
    return known->text;
  }

 private:
  static constexpr std::size_t kMacLength = 17;

  struct Written {
    std::uint32_t set;   ///< radio ids as bits
    std::size_t mac_at;  ///< where the access point's MAC stands
    std::string text;
  };

  Written write(std::uint32_t set, const MacText& mac,
                const std::vector<const Radio*>& radios) const {
    JsonWriter message("rrm", "rrm-probe-request");
    message.add("ap-mac", mac.c_str());
    message.add("domain", domain_);
    {
      JsonWriter array = JsonWriter::array(message, "radios");
      for (const Radio* radio : radios) {
        radio->probe_list_to_json(array, ssid_, client_, kPending_s);
      }
    }
    std::string text = message.str();
    const std::size_t mac_at = text.find(mac.c_str());
    return {set, mac_at, std::move(text)};
  }

  const std::string& domain_;
  const MacAddress& client_;
  const std::string& ssid_;
  std::vector<Written> written_;
};

/// Asks the client's own access point and those that could take it over.
/// @return whether there was anybody to ask; their radios are then awaited by the entry
bool LoadBalancerSubworker::post_probe_req(const MacAddress& client,
                                           const std::shared_ptr<ApEntry>& source,
                                           ProbeEntry& entry) {
  RRM_LOG(Debug, "post_probe_req enter");
  ProbeRequests requests(domain(), client, entry.ssid);
  bool asked = ask(*source, entry, requests);
  for (const auto& [mac, ap] : aps().aps()) {
    if (ap->base_mac == source->base_mac) continue;
    if (!config().use_all_ap_balance && !hears(*ap, *source)) continue;
    asked = ask(*ap, entry, requests) || asked;
  }
  worker().broadcast_buffer_flush();
  return asked;
}

bool LoadBalancerSubworker::ask(const ApEntry& ap, ProbeEntry& entry, ProbeRequests& requests) {
  std::vector<const Radio*> radios;
  for (const Radio& radio : ap.radios.radios) {
    if (serves(radio, entry.ssid) && radio.locked_for_balancer == 0) radios.push_back(&radio);
  }
  if (radios.empty()) return false;
  for (const Radio* radio : radios) entry.awaited.insert(radio->mac);
  worker().broadcast_buffer_add(requests.text(ap, radios), ap.session);
  return true;
}

// --- answers

void LoadBalancerSubworker::process_probe_response(const JsonReader& message,
                                                   const std::shared_ptr<ApEntry>& ap) {
  const JsonReader radios = message.child("radios");
  const int count = static_cast<int>(radios.size());
  for (int index = 0; index < count; ++index) {
    const JsonReader element = radios.child(index);
    if (element.is_null()) continue;
    const std::int32_t radio_id = element.get_int("id");
    const Radio* radio = enabled_radio(*ap, radio_id);
    if (radio == nullptr) {
      RRM_LOG(Warning, "Skip probe-response for invalid/disabled radio_id=%d (ap %s)", radio_id,
              ap->base_mac.upper().c_str());
      continue;
    }
    process_probe_list(element.child("probe-list"), *ap, *radio);
  }
}

void LoadBalancerSubworker::process_probe_list(const JsonReader& list, const ApEntry& ap,
                                               const Radio& radio) {
  const int count = static_cast<int>(list.size());
  for (int index = 0; index < count; ++index) {
    const JsonReader item = list.child(index);
    if (item.is_null()) continue;
    const char* client_text = item.get_str("mac");
    const std::string ssid = item.get_str("ssid");
    const std::int32_t rssi_dbm = item.get_int("rssi");
    RRM_LOG(Debug, "Probe response client %s ssid %s radio_id %d rssi %d size %d (ap %s)",
            client_text, ssid.c_str(), radio.id, rssi_dbm,
            static_cast<int>(radio.assoc_clients.count()), ap.base_mac.upper().c_str());
    ProbeEntry* entry = pending_.find(MacAddress::from_text(client_text));
    if (entry == nullptr || ssid.empty() || entry->ssid != ssid) continue;
    entry->set_heard(radio.mac, rssi_dbm, ssid);
    entry->stop_awaiting(radio.mac, ssid);
    RRM_LOG(Debug, "Probe response client %s put (ap %s)", client_text,
            ap.base_mac.upper().c_str());
  }
}

}  // namespace rrm
