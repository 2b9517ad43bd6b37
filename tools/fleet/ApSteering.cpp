#include "tools/fleet/ApSteering.h"

#include <algorithm>

#include "server/lib/JsonReader.h"
#include "server/lib/JsonWriter.h"
#include "tools/fleet/ApMessages.h"

namespace rrm::fleet {
namespace {

constexpr int kGoodTarget =
    -72;  ///< dBm: an access point proposes only targets that hear the client so

/// Calls visit(element) for every element of an array member.
template <typename Visit>
void for_each(const JsonReader& parent, const char* key, Visit visit) {
  const JsonReader array = parent.child(key);
  for (int i = 0; i < static_cast<int>(array.size()); ++i) visit(array.child(i));
}

Millis until(Millis now, const JsonReader& entry) {
  return now + Millis{std::clamp(entry.get_int("timeout"), 0, 86400)} * 1000;
}

}  // namespace

std::string ApSteering::event_message(const ClientEvent& event) const {
  const bool associated = event.kind == ClientEvent::Kind::Associated;
  const bool left = event.kind == ClientEvent::Kind::Left;
  Message message(*world_, world_->ap(ap_),
                  associated ? "rrm-client-assoc"
                  : left     ? "rrm-client-disassoc"
                             : "rrm-assoc-state-changed");
  message.add("radio", event.radio.radio);
  message.add("sta-mac", crowd_->mac(event.client).upper().c_str());
  message.add("ssid", crowd_->ssid(event.client).name);
  if (left) return message.str();
  message.add("rssi", event.rssi_dbm);
  if (!associated) {
    message.add("state", "stable");
    return message.str();
  }
  message.add("no-balance", 0);
  message.add("need-ack", 0);
  return message.str();
}

bool ApSteering::take(Millis now, std::string_view cmd, const JsonReader& message,
                      AgentOutput& out) {
  if (cmd == "rrm-blacklist") {
    take_blacklist(now, message);
  } else if (cmd == "rrm-disassoc-request") {
    take_disassociations(now, message);
  } else if (cmd == "rrm-probe-request") {
    take_probe_request(now, message, out);
  } else if (cmd == "rrm-sta-overload") {
    take_overload(now, message, out);
  } else {
    return false;
  }
  return true;
}

void ApSteering::take_blacklist(Millis now, const JsonReader& message) {
  for_each(message, "radios", [&](const JsonReader& radio) {
    const RadioKey key{ap_, radio.get_int("id")};
    if (world_->ap(ap_).radio(key.radio) == nullptr) return;
    for_each(radio, "blacklist", [&](const JsonReader& entry) {
      const MacAddress mac = MacAddress::from_text(entry.get_str("mac"));
      if (std::string_view(entry.get_str("action")) == "block") {
        crowd_->block(key, mac, until(now, entry));
      } else {
        crowd_->unblock(key, mac);
      }
    });
  });
}

void ApSteering::take_disassociations(Millis now, const JsonReader& message) {
  for_each(message, "radios", [&](const JsonReader& radio) {
    const RadioKey key{ap_, radio.get_int("id")};
    if (world_->ap(ap_).radio(key.radio) == nullptr) return;
    for_each(radio, "diassoc-list", [&](const JsonReader& entry) {
      crowd_->kick(now, key, MacAddress::from_text(entry.get_str("mac")), until(now, entry));
    });
  });
}

void ApSteering::take_probe_request(Millis now, const JsonReader& message, AgentOutput& out) {
  Message answer(*world_, world_->ap(ap_), "rrm-probe-response");
  bool heard_any = false;
  {
    JsonWriter radios = JsonWriter::array(answer, "radios");
    for_each(message, "radios", [&](const JsonReader& radio) {
      const RadioKey key{ap_, radio.get_int("id")};
      if (world_->ap(ap_).radio(key.radio) == nullptr) return;
      JsonWriter object = JsonWriter::object(radios);
      object.add("id", key.radio);
      JsonWriter list = JsonWriter::array(object, "probe-list");
      for_each(radio, "probe-list", [&](const JsonReader& entry) {
        const MacAddress mac = MacAddress::from_text(entry.get_str("mac"));
        const auto rssi = crowd_->probe_heard(now, key, mac);
        if (!rssi) return;
        heard_any = true;
        JsonWriter client = JsonWriter::object(list);
        client.add("mac", mac.upper().c_str());
        client.add("ssid", entry.get_str("ssid"));
        client.add("rssi", *rssi);
      });
    });
  }
  if (heard_any) out.messages.push_back(answer.str());
}

void ApSteering::take_overload(Millis now, const JsonReader& message, AgentOutput& out) {
  for_each(message, "radios", [&](const JsonReader& radio) {
    shed(now, radio.get_int("id"), radio.get_int("roam-count"), out);
  });
}

const ApSteering::Neighbour* ApSteering::target_for(std::uint32_t client, int radio) const {
  const Neighbour* best = nullptr;
  for (const Neighbour& neighbour : neighbours_) {
    if (neighbour.priority <= 0 || neighbour.radio.radio != radio) continue;
    if (crowd_->client_rssi(client, neighbour.radio) < kGoodTarget) continue;
    if (best == nullptr || neighbour.priority > best->priority) best = &neighbour;
  }
  return best;
}

int ApSteering::shed(Millis now, int radio, int count, AgentOutput& out) {
  if (world_->ap(ap_).radio(radio) == nullptr) return 0;
  const RadioKey from{ap_, radio};
  const std::vector<std::uint32_t> members = crowd_->members(from);
  int moved = 0;
  for (const std::uint32_t client : members) {
    if (moved >= count) break;
    const Neighbour* target = target_for(client, radio);
    if (target == nullptr || !crowd_->ask_transition(now, client, from, target->radio)) continue;
    ++moved;
    Message roam(*world_, world_->ap(ap_), "rrm-sta-roam");
    roam.add("radio", radio);
    roam.add("sta-mac", crowd_->mac(client).upper().c_str());
    roam.add("target-mac", target->mac.upper().c_str());
    out.messages.push_back(roam.str());
  }
  return moved;
}

void ApSteering::add_neighbour(const JsonReader& entry) {
  const MacAddress mac = MacAddress::from_text(entry.get_str("neighbour-mac"));
  const auto owner = world_->owner_of(mac);
  if (!owner || owner->first == ap_) return;
  neighbours_.push_back({{owner->first, owner->second}, entry.get_int("priority"), mac});
}

void ApSteering::take_neighbours(const JsonReader& list) {
  neighbours_.clear();
  for (int i = 0; i < static_cast<int>(list.size()); ++i) {
    const JsonReader element = list.child(i);
    if (element.has("neighbour-mac")) add_neighbour(element);
    for (const char* band : {"band2", "band5", "band6"}) {
      for_each(element, band, [&](const JsonReader& entry) { add_neighbour(entry); });
    }
  }
}

void ApSteering::write_clients(const Crowd& crowd, RadioKey radio, JsonWriter& object) {
  JsonWriter list = JsonWriter::array(object, "assoclist");
  for (const std::uint32_t client : crowd.members(radio)) {
    JsonWriter entry = JsonWriter::object(list);
    entry.add("mac", crowd.mac(client).upper().c_str());
    entry.add("ssid", crowd.ssid(client).name);
    entry.add("rssi", crowd.client_rssi(client, radio));
  }
}

}  // namespace rrm::fleet
