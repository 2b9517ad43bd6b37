#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tools/fleet/Crowd.h"

namespace rrm {
class JsonReader;
class JsonWriter;
}  // namespace rrm

namespace rrm::fleet {

/// The client side of one access point: tells the controller what its clients do, and does to them
/// what the controller asks (blocks, kicks, probe questions, transitions).
///
/// Threading: one thread. Refers to the world and the crowd.
class ApSteering {
 public:
  ApSteering(const World& world, Crowd& crowd, std::uint32_t ap) noexcept
      : world_(&world), crowd_(&crowd), ap_(ap) {}

  /// "rrm-client-assoc", "rrm-client-disassoc" or "rrm-assoc-state-changed" about an event of this
  /// AP.
  std::string event_message(const ClientEvent& event) const;

  /// Takes a message about clients; false when it is about something else. `out` gets the answers.
  bool take(Millis now, std::string_view cmd, const JsonReader& message, AgentOutput& out);

  /// Remembers the neighbours of "802dot11k" (the value of that key) as transition targets.
  void take_neighbours(const JsonReader& list);

  /// "assoclist" of one radio, into the radio's object.
  static void write_clients(const Crowd& crowd, RadioKey radio, JsonWriter& object);

 private:
  struct Neighbour {
    RadioKey radio;
    int priority;
    MacAddress mac;
  };

  void take_blacklist(Millis now, const JsonReader& message);
  void take_disassociations(Millis now, const JsonReader& message);
  void take_probe_request(Millis now, const JsonReader& message, AgentOutput& out);
  void take_overload(Millis now, const JsonReader& message, AgentOutput& out);
  int shed(Millis now, int radio, int count, AgentOutput& out);
  const Neighbour* target_for(std::uint32_t client, int radio) const;
  void add_neighbour(const JsonReader& entry);

  const World* world_;
  Crowd* crowd_;
  std::uint32_t ap_;
  std::vector<Neighbour> neighbours_;
};

}  // namespace rrm::fleet
