#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <unordered_map>
#include <vector>

#include "server/lib/MacAddress.h"
#include "tools/fleet/ApAgent.h"
#include "tools/fleet/CrowdObserver.h"
#include "tools/fleet/Random.h"
#include "tools/fleet/World.h"

namespace rrm::fleet {

/// How many clients there are and what they are like; shares are 0 to 1.
struct CrowdOptions {
  std::uint32_t clients = 0;
  double moving = 0.3;     ///< walk about; the others stay
  double sticky = 0.15;    ///< leave a radio only when it is nearly gone
  double refusing = 0.1;   ///< decline transitions and go back to where they were kicked from
  double rare = 0.15;      ///< probe once in 90 s instead of every 12 s
  double gathered = 0.4;   ///< stand in a few crowded rooms
  Millis arrival = 60000;  ///< from the first to the last one
  double storms = 0;       ///< per minute: everybody on a building's floor joins anew at once
};

/// What an access point notices of a client.
struct ClientEvent {
  enum class Kind { Associated, Left, Signal };
  Kind kind;
  std::uint32_t client;
  RadioKey radio;
  int rssi_dbm;  ///< of the client at the access point
};

/// What the clients went through.
struct CrowdCounters {
  std::uint64_t associations = 0;
  std::uint64_t moves = 0;             ///< from one radio to another
  std::uint64_t ping_pong = 0;         ///< moves back to a radio left within the last 60 s
  std::uint64_t ping_pong_forced = 0;  ///< of them, with a storm or death on the way there or back
  std::uint64_t refused = 0;           ///< times that the radio of choice blocked the client
  std::uint64_t declined = 0;          ///< transitions that the client would not make
  std::uint64_t transitions = 0;       ///< transitions made
  std::uint64_t kicks = 0;
  Millis longest_unserved = 0;  ///< of any client, from losing its radio to the next one
  Millis longest_orphaned = 0;  ///< the same, of those whose access point died
};

/// The clients of a fleet: they walk, probe, associate by signal, and obey or do not.
///
/// Clients hear the access points of their building. Every client thinks once a second; what it
/// does shows in events for the access points. Two crowds of the same seed start alike and walk
/// alike. Threading: one thread. Refers to the world, whose present powers decide what is heard.
class Crowd {
 public:
  Crowd(const World& world, const CrowdOptions& options);

  std::uint32_t size() const noexcept { return static_cast<std::uint32_t>(clients_.size()); }
  const CrowdCounters& counters() const noexcept { return counters_; }

  /// Tells somebody all that happens; the observer must live as long as the crowd.
  void watch(CrowdObserver* observer) noexcept { observer_ = observer; }

  /// From now on clients arrive; nothing happens before. A second call does nothing.
  void begin(Millis now);
  bool begun() const noexcept { return begun_; }

  /// Lets the clients think whose turn has come.
  void advance(Millis now);
  /// What happened since the last call, in order.
  std::vector<ClientEvent> take_events();

  // The access points' side.
  void block(Millis now, RadioKey radio, const MacAddress& client, Millis until);
  void unblock(Millis now, RadioKey radio, const MacAddress& client);
  /// Throws an associated client out and refuses it until then.
  void kick(Millis now, RadioKey radio, const MacAddress& client, Millis until);
  /// RSSI of the client at the radio when it has probed within the last 15 s and is heard.
  std::optional<int> probe_heard(Millis now, RadioKey radio, const MacAddress& client) const;
  /// Asks a client of `from` to go to `to`; true when it goes.
  bool ask_transition(Millis now, std::uint32_t client, RadioKey from, RadioKey to);
  /// A dead access point serves nobody; its clients notice at once.
  void set_alive(Millis now, std::uint32_t ap, bool alive);

  const std::vector<std::uint32_t>& members(RadioKey radio) const { return members_[slot(radio)]; }
  MacAddress mac(std::uint32_t client) const noexcept;
  const SsidPlan& ssid(std::uint32_t client) const noexcept;
  int client_rssi(std::uint32_t client, RadioKey radio) const;

  // For the figures.
  std::optional<RadioKey> served_by(std::uint32_t client) const noexcept;
  Millis joined_at(std::uint32_t client) const noexcept { return clients_[client].joined_at; }
  /// Radios of a band that serve the client's SSID and hear it at this RSSI or better.
  std::vector<RadioKey> radios_hearing(std::uint32_t client, int band, int rssi_dbm) const;
  /// ms that a client which is not served has been waiting.
  Millis unserved_for(Millis now, std::uint32_t client) const noexcept;
  /// The client waits since its access point died.
  bool orphaned(std::uint32_t client) const noexcept { return clients_[client].orphaned; }
  /// ms for which some client was blocked by a radio without a pause, up to now.
  Millis longest_block(Millis now) const noexcept;

 private:
  /// An access point in reach and the loss on each band.
  struct Candidate {
    std::uint32_t ap;
    std::array<float, 3> loss_db;
  };
  struct Departure {
    RadioKey radio;
    Millis at;
    Parting why;
  };
  struct Block {
    Millis since;
    Millis until;
  };
  struct Client {
    std::uint32_t site = 0;
    int ssid = 0;
    Place place;
    double goal_x = 0, goal_y = 0;
    double speed = 0;  ///< metres per second; 0: stays
    bool sticky = false, refusing = false, rare = false;
    bool orphaned = false;  ///< its access point died and no other serves it yet
    int insisted = 0;       ///< refusals taken in a row
    Millis arrives = 0;
    Millis next_try = 0;
    Millis joined_at = 0;
    Millis last_probe = -1000000;
    Millis unserved_since = 0;
    std::optional<RadioKey> radio;
    std::optional<Departure> left;      ///< the last radio that it left
    std::optional<Departure> earlier;   ///< the one before that
    std::vector<Departure> thrown_out;  ///< radios that have thrown it out, the last few
    int reported_rssi = 0;
    Millis reported_at = 0;
    double heard_x = -1e9, heard_y = -1e9;  ///< where `candidates` was made
    std::vector<Candidate> candidates;
    Random random{0};
  };

  std::size_t slot(RadioKey radio) const noexcept {
    return std::size_t{radio.ap} * 3 + static_cast<std::size_t>(radio.radio);
  }
  void make_client(std::uint32_t index, const CrowdOptions& options);
  void think(Millis now, std::uint32_t index);
  void walk(Client& client) const;
  void listen(std::uint32_t index, Client& client) const;
  void probe(Millis now, Client& client) const;
  void try_to_join(Millis now, std::uint32_t index);
  void consider_roaming(Millis now, std::uint32_t index);
  void report_signal(Millis now, std::uint32_t index);
  void storm(Millis now);
  /// The loudest radio that serves the client, those that block it included or not; absent when
  /// none is loud enough.
  std::optional<RadioKey> best_radio(Millis now, std::uint32_t index, bool blocked_too) const;
  /// The loudest radio that answers a probe. A radio that blocks the client does not; one that
  /// takes no refusal asks it a few times before it goes elsewhere.
  std::optional<RadioKey> answering_radio(Millis now, std::uint32_t index);
  bool serves(RadioKey radio, int ssid) const noexcept;
  std::optional<float> loss(const Client& client, RadioKey radio) const noexcept;
  double downlink(const Client& client, RadioKey radio) const noexcept;
  void count_move(Millis now, const Client& client, RadioKey radio);
  bool is_blocked(Millis now, RadioKey radio, std::uint32_t index) const;
  /// The radio has thrown the client out, not long ago, and it has taken that in.
  bool avoids(Millis now, const Client& client, RadioKey radio) const noexcept;
  void associate(Millis now, std::uint32_t index, RadioKey radio);
  void leave(Millis now, std::uint32_t index, Parting why);
  std::optional<std::uint32_t> index_of(const MacAddress& mac) const noexcept;

  const World& world_;
  CrowdObserver* observer_ = nullptr;
  double storms_per_minute_;
  bool begun_ = false;
  Millis last_slot_ = 0;
  Millis last_advance_ = 0;
  double storms_due_ = 0;
  Random random_;
  std::vector<Client> clients_;
  std::vector<bool> alive_;
  std::vector<std::vector<std::vector<std::uint32_t>>> buildings_;  ///< site, building + 1: its APs
  std::vector<std::vector<std::uint32_t>> members_;                 ///< by slot()
  std::vector<std::unordered_map<std::uint32_t, Block>> blocks_;    ///< by slot() and client
  Millis longest_block_ = 0;                                        ///< of those that are over
  std::vector<ClientEvent> events_;
  CrowdCounters counters_;
};

}  // namespace rrm::fleet
