#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
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

  /// Takes a message about clients; false when it is about something else. Answers come later.
  bool take(Millis now, std::string_view cmd, const JsonReader& message);

  /// When on_deadline() is due; absent when nobody is listened for or to be moved.
  std::optional<Millis> deadline() const noexcept;
  /// Answers questions and moves clients whose time has come.
  void on_deadline(Millis now, AgentOutput& out);
  /// The connection is gone, and with it what was asked over it.
  void forget_requests() noexcept;

  /// Remembers how long a client that was asked to move is left alone, from a "config".
  void take_settings(const JsonReader& config);
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

  /// A client that the controller wants to hear about, as soon as it probes.
  struct Question {
    RadioKey radio;
    MacAddress client;
    std::string ssid;
    Millis until;
  };

  /// Clients that a radio has still to move away.
  struct Overload {
    int radio;
    int count;
    std::vector<std::uint32_t> members;  ///< not asked yet, from the back
  };

  void take_blacklist(Millis now, const JsonReader& message);
  void take_disassociations(Millis now, const JsonReader& message);
  void take_probe_request(Millis now, const JsonReader& message);
  void listen_for(const Question& question);
  void answer(Millis now, AgentOutput& out);
  void take_overload(Millis now, const JsonReader& message);
  void move_clients(Millis now, AgentOutput& out);
  bool move_one(Millis now, Overload& overload, AgentOutput& out);
  bool may_ask(Millis now, std::uint32_t client, RadioKey from) const;
  const Neighbour* target_for(std::uint32_t client, int radio) const;
  void add_neighbour(const JsonReader& entry);

  const World* world_;
  Crowd* crowd_;
  std::uint32_t ap_;
  std::vector<Neighbour> neighbours_;
  std::vector<Question> questions_;
  std::optional<Millis> answers_due_;
  std::vector<Overload> overloads_;
  std::unordered_map<std::uint32_t, Millis> asked_;  ///< client: when it was asked to move
  Millis ask_again_after_ = 600000;                  ///< ms, see take_settings()
  std::optional<Millis> move_due_;
};

}  // namespace rrm::fleet
