#include "tools/fleet/ApSteering.h"

#include <algorithm>

#include "server/lib/JsonReader.h"
#include "server/lib/JsonWriter.h"
#include "tools/fleet/ApMessages.h"

namespace rrm::fleet {
namespace {

constexpr int kGoodTarget =
    -72;  ///< dBm: an access point proposes only targets that hear the client so
/// ms for which answers about clients are collected: one message tells of all of them.
constexpr Millis kAnswerEvery = 1000;
constexpr std::size_t kMaxQuestions = 4096;
constexpr Millis kSettled = 60000;   ///< ms for which a new client is not asked to move
constexpr Millis kMoveEvery = 2000;  ///< between two clients that a radio asks to move

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

bool ApSteering::take(Millis now, std::string_view cmd, const JsonReader& message) {
  if (cmd == "rrm-blacklist") {
    take_blacklist(now, message);
  } else if (cmd == "rrm-disassoc-request") {
    take_disassociations(now, message);
  } else if (cmd == "rrm-probe-request") {
    take_probe_request(now, message);
  } else if (cmd == "rrm-sta-overload") {
    take_overload(now, message);
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
        crowd_->block(now, key, mac, until(now, entry));
      } else {
        crowd_->unblock(now, key, mac);
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

void ApSteering::take_probe_request(Millis now, const JsonReader& message) {
  for_each(message, "radios", [&](const JsonReader& radio) {
    const RadioKey key{ap_, radio.get_int("id")};
    if (world_->ap(ap_).radio(key.radio) == nullptr) return;
    for_each(radio, "probe-list", [&](const JsonReader& entry) {
      listen_for({key, MacAddress::from_text(entry.get_str("mac")), entry.get_str("ssid"),
                  until(now, entry)});
    });
  });
  if (!answers_due_ && !questions_.empty()) answers_due_ = now + kAnswerEvery;
}

void ApSteering::listen_for(const Question& question) {
  const auto known = std::find_if(questions_.begin(), questions_.end(), [&](const Question& other) {
    return other.radio == question.radio && other.client == question.client;
  });
  if (known != questions_.end()) {
    *known = question;
  } else if (questions_.size() < kMaxQuestions) {
    questions_.push_back(question);
  }
}

void ApSteering::answer(Millis now, AgentOutput& out) {
  Message message(*world_, world_->ap(ap_), "rrm-probe-response");
  bool heard_any = false;
  {
    JsonWriter radios = JsonWriter::array(message, "radios");
    for (const RadioUnit& unit : world_->ap(ap_).radios) {
      std::vector<std::pair<const Question*, int>> heard;
      for (const Question& question : questions_) {
        if (question.radio.radio != unit.id) continue;
        const auto rssi = crowd_->probe_heard(now, question.radio, question.client);
        if (rssi) heard.emplace_back(&question, *rssi);
      }
      if (heard.empty()) continue;
      heard_any = true;
      JsonWriter object = JsonWriter::object(radios);
      object.add("id", unit.id);
      JsonWriter list = JsonWriter::array(object, "probe-list");
      for (const auto& [question, rssi] : heard) {
        JsonWriter client = JsonWriter::object(list);
        client.add("mac", question->client.upper().c_str());
        client.add("ssid", question->ssid);
        client.add("rssi", rssi);
      }
    }
  }
  if (heard_any) out.messages.push_back(message.str());
  std::erase_if(questions_, [&](const Question& question) {
    return question.until <= now || crowd_->probe_heard(now, question.radio, question.client);
  });
  answers_due_.reset();
  if (!questions_.empty()) answers_due_ = now + kAnswerEvery;
}

std::optional<Millis> ApSteering::deadline() const noexcept {
  if (!answers_due_ || !move_due_) return answers_due_ ? answers_due_ : move_due_;
  return std::min(*answers_due_, *move_due_);
}

void ApSteering::on_deadline(Millis now, AgentOutput& out) {
  if (answers_due_ && *answers_due_ <= now) answer(now, out);
  if (move_due_ && *move_due_ <= now) move_clients(now, out);
}

void ApSteering::forget_requests() noexcept {
  questions_.clear();
  answers_due_.reset();
  overloads_.clear();
  move_due_.reset();
}

void ApSteering::take_overload(Millis now, const JsonReader& message) {
  overloads_.clear();
  for_each(message, "radios", [&](const JsonReader& radio) {
    const int id = radio.get_int("id");
    if (world_->ap(ap_).radio(id) == nullptr) return;
    overloads_.push_back({id, radio.get_int("roam-count"), crowd_->members({ap_, id})});
  });
  if (!move_due_ && !overloads_.empty()) move_due_ = now + kMoveEvery;
}

/// One client of every overloaded radio: each is asked by itself and takes its time to answer.
void ApSteering::move_clients(Millis now, AgentOutput& out) {
  for (Overload& overload : overloads_) {
    while (overload.count > 0 && !overload.members.empty() && !move_one(now, overload, out)) {
    }
  }
  std::erase_if(overloads_, [](const Overload& overload) {
    return overload.count <= 0 || overload.members.empty();
  });
  move_due_.reset();
  if (!overloads_.empty()) move_due_ = now + kMoveEvery;
}

/// Asks the next client. @return whether it was asked, whatever it answered
bool ApSteering::move_one(Millis now, Overload& overload, AgentOutput& out) {
  const std::uint32_t client = overload.members.back();
  overload.members.pop_back();
  const RadioKey from{ap_, overload.radio};
  const Neighbour* target =
      may_ask(now, client, from) ? target_for(client, overload.radio) : nullptr;
  if (target == nullptr) return false;
  asked_[client] = now;
  if (!crowd_->ask_transition(now, client, from, target->radio)) return true;
  --overload.count;
  Message roam(*world_, world_->ap(ap_), "rrm-sta-roam");
  roam.add("radio", overload.radio);
  roam.add("sta-mac", crowd_->mac(client).upper().c_str());
  roam.add("target-mac", target->mac.upper().c_str());
  out.messages.push_back(roam.str());
  return true;
}

const ApSteering::Neighbour* ApSteering::target_for(std::uint32_t client, int radio) const {
  const Neighbour* best = nullptr;
  int best_rssi = 0;
  for (const Neighbour& neighbour : neighbours_) {
    if (neighbour.priority <= 0 || neighbour.radio.radio != radio) continue;
    const int rssi = crowd_->client_rssi(client, neighbour.radio);
    if (rssi < kGoodTarget) continue;
    if (best != nullptr &&
        std::pair(neighbour.priority, rssi) <= std::pair(best->priority, best_rssi))
      continue;
    best = &neighbour;
    best_rssi = rssi;
  }
  return best;
}

/// Whoever has only just come, or has been asked not long ago, is left alone.
bool ApSteering::may_ask(Millis now, std::uint32_t client, RadioKey from) const {
  if (!crowd_->ssid(client).use_80211v) return false;
  if (crowd_->served_by(client) != from || now - crowd_->joined_at(client) < kSettled) return false;
  const auto asked = asked_.find(client);
  return asked == asked_.end() || now - asked->second >= ask_again_after_;
}

void ApSteering::take_settings(const JsonReader& config) {
  const JsonReader radio = config.child("radios").child(0);
  if (!radio.has("tavro-roam-attempt-timeout")) return;
  ask_again_after_ = Millis{radio.get_int("tavro-roam-attempt-timeout")} * 1000;
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
