#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <queue>
#include <string>
#include <string_view>
#include <vector>

#include "tools/fleet/ApAgent.h"
#include "tools/fleet/Crowd.h"
#include "tools/fleet/DomainRound.h"
#include "tools/fleet/Figures.h"
#include "tools/fleet/Random.h"
#include "tools/fleet/World.h"

namespace rrm::fleet {

/// The connections of a fleet, one per access point; the network side or a test implements it.
class Connections {
 public:
  virtual ~Connections() = default;
  /// Starts connecting; FleetRun::on_open or on_closed follows, never from within this call.
  virtual void open(std::uint32_t ap) = 0;
  /// Sends one text; only between on_open and on_closed.
  virtual void send(std::uint32_t ap, std::string text) = 0;
  /// Closes; on_closed follows later.
  virtual void close(std::uint32_t ap) = 0;
};

struct RunOptions {
  double rate = 200;                ///< connections started per second
  std::uint32_t max_opening = 256;  ///< connections under way at once
  double churn = 0;                 ///< access points that restart per minute
  Millis restart = 10000;           ///< how long a restarting one is away
  /// Clients arrive from the start and not from the first plan of every domain on.
  bool clients_at_once = false;
  AgentTiming timing{};
};

/// What a run has counted so far.
struct Counters {
  std::uint64_t attempts = 0;       ///< connections started
  std::uint64_t failed = 0;         ///< connections that never opened
  std::uint64_t lost = 0;           ///< subscribed access points whose connection closed
  std::uint64_t restarts = 0;       ///< access points that closed by themselves, see churn
  std::uint64_t rejected = 0;       ///< subscriptions refused
  std::uint64_t subscriptions = 0;  ///< accepted
  std::uint64_t sent = 0, received = 0, sent_bytes = 0, received_bytes = 0;
  std::uint64_t channel_changes = 0, power_changes = 0, configs = 0, keys = 0;
  std::uint64_t not_understood = 0;
};

/// A domain of a run: its round and the air before its first and after its last round.
struct DomainRun {
  explicit DomainRun(std::uint32_t ap_count) : round(ap_count) {}
  DomainRound round;
  std::optional<AirSample> before;
  std::optional<AirSample> after;
};

/// Mean interference before and after, dBm, over the domains that have both; no radios: not known.
struct AirSummary {
  std::array<std::size_t, 3> radios{};
  std::array<double, 3> before_dbm{};
  std::array<double, 3> after_dbm{};
};

/// Runs a fleet: starts connections at a rate, feeds the access points, keeps their timers,
/// reconnects those that were lost, and counts.
///
/// Threading: one thread. It reads no clock: every call carries the time, in ms, which never goes
/// back. Ownership: refers to the world and the connections, which must outlive it.
class FleetRun {
 public:
  /// `steered` are clients that the controller hears of and steers; `unsteered` others of the same
  /// kind that it does not, for comparison. Both may be null.
  FleetRun(World& world, const RunOptions& options, Connections& connections, Millis now,
           Crowd* steered = nullptr, Crowd* unsteered = nullptr);

  /// Does everything that is due: new connections, answers, reconnects. To be called every few ms.
  void advance(Millis now);

  void on_open(Millis now, std::uint32_t ap);
  void on_text(Millis now, std::uint32_t ap, std::string_view text);
  void on_closed(Millis now, std::uint32_t ap);

  const Crowd* steered() const noexcept { return steered_; }
  const Crowd* unsteered() const noexcept { return unsteered_; }
  const World& world() const noexcept { return world_; }
  const Counters& counters() const noexcept { return counters_; }
  const std::vector<DomainRun>& domains() const noexcept { return domains_; }
  const std::vector<ApAgent>& agents() const noexcept { return agents_; }
  std::uint32_t open() const noexcept { return open_; }
  std::uint32_t subscribed() const noexcept;
  /// ms from the start until all access points were subscribed at once; absent before.
  std::optional<Millis> all_subscribed_after() const noexcept { return all_subscribed_after_; }
  /// True when every domain has finished at least one round.
  bool every_domain_planned() const noexcept;
  Millis started() const noexcept { return started_; }
  /// Made anew whenever a round has finished.
  const AirSummary& air() const noexcept { return air_; }

 private:
  struct Due {
    Millis when;
    std::uint32_t ap;
    bool reconnect;
    friend bool operator>(const Due& a, const Due& b) noexcept { return a.when > b.when; }
  };
  enum class Wire : std::uint8_t { Down, Opening, Open };

  void start_connections(Millis now);
  void run_due(Millis now);
  void apply(Millis now, std::uint32_t ap, AgentOutput& out);
  void count(ApEvent event);
  void follow(Millis now, std::uint32_t ap, ApEvent event);
  void finish_rounds(Millis now);
  void restart_some(Millis now);
  void advance_crowds(Millis now);
  void tell_events(Millis now);
  void set_alive(Millis now, std::uint32_t ap, bool alive);

  World& world_;
  RunOptions options_;
  Connections& connections_;
  Crowd* steered_;
  Crowd* unsteered_;
  Millis started_;
  Millis last_advance_;
  double tokens_ = 1;
  std::deque<std::uint32_t> waiting_;  ///< to be connected, in this order
  std::priority_queue<Due, std::vector<Due>, std::greater<>> due_;
  std::vector<ApAgent> agents_;
  std::vector<Wire> wires_;
  std::vector<bool> restarting_;
  double restarts_due_ = 0;
  Random random_;
  AirSummary air_;
  std::vector<DomainRun> domains_;
  std::uint32_t opening_ = 0;
  std::uint32_t open_ = 0;
  std::optional<Millis> all_subscribed_after_;
  Counters counters_;
};

}  // namespace rrm::fleet
