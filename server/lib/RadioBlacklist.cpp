#include "server/lib/RadioBlacklist.h"

#include <algorithm>
#include <vector>

#include "server/lib/Hooks.h"

namespace rrm {

const char* RadioBlacklist::action_name(Action action) noexcept {
  return action == Action::Block ? "block" : "unblock";
}

/// @return whether the client was no member and now is one
bool RadioBlacklist::add_member(const MacAddress& client, std::int32_t timeout_s) {
  if (members.size() >= kMaxMembers && !members.contains(client)) {
    RRM_LOG(Warning, "Blacklist is full, client %s left out", client.upper().c_str());
    return false;
  }
  const auto [member, is_new] = members.try_emplace(client, timeout_s);
  member->second = timeout_s;
  return is_new;
}

void RadioBlacklist::block(const MacAddress& client, std::int32_t timeout_s) {
  if (add_member(client, timeout_s)) changes[client] = {Action::Block, timeout_s};
}

void RadioBlacklist::unblock(const MacAddress& client) {
  if (members.erase(client) == 0) return;
  if (kicked.erase(client) == 0) changes[client] = {Action::Unblock, 0};
}

void RadioBlacklist::kick(const MacAddress& client, std::int32_t timeout_s,
                          const std::string& ssid) {
  if (ssid.empty()) return;
  if (add_member(client, timeout_s)) kicked.try_emplace(client, {ssid, false});
}

void RadioBlacklist::forget(const MacAddress& client) {
  members.erase(client);
  changes.erase(client);
  kicked.erase(client);
}

void RadioBlacklist::tick() {
  if (members.empty()) return;
  std::vector<MacAddress> over;
  for (auto& [client, seconds] : members) {
    if (--seconds <= 0) over.push_back(client);
  }
  for (const MacAddress& client : over) unblock(client);
}

bool RadioBlacklist::has_unsent_kicks() const {
  return std::any_of(kicked.begin(), kicked.end(),
                     [](const auto& entry) { return !entry.second.sent; });
}

void RadioBlacklist::to_json(JsonWriter& object) const {
  {
    JsonWriter array = JsonWriter::array(object, "members");
    for (const auto& [client, seconds] : members) {
      JsonWriter entry = JsonWriter::object(array);
      entry.add("mac", client.upper().c_str());
      entry.add("counter", seconds);
    }
  }
  JsonWriter array = JsonWriter::array(object, "changes");
  for (const auto& [client, change] : changes) {
    JsonWriter entry = JsonWriter::object(array);
    entry.add("mac", client.upper().c_str());
    entry.add("action", action_name(change.action));
  }
}

}  // namespace rrm
