#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/fleet/World.h"

namespace rrm {
class JsonReader;
}

namespace rrm::fleet {

/// Milliseconds of a monotonic clock.
using Millis = std::int64_t;

/// How long an access point takes.
struct AgentTiming {
  Millis answer = 300;             ///< longest time until an answer to "rrm-request-mode"
  Millis scan = 4000;              ///< a scan, +-25 % from one access point to the next
  Millis subscribe_limit = 30000;  ///< without an answer by then it connects anew
  Millis back_off_first = 1000;    ///< before the second attempt; doubled for every further one
  Millis back_off_last = 30000;
};

/// What happened to an access point, for those who count.
enum class ApEvent {
  Subscribed,
  Rejected,
  ModesRequested,
  ModesAnswered,
  ScanRequested,
  ScanAnswered,
  ConfigTaken,     ///< an "rrm-info"
  ChannelChanged,  ///< one radio took another channel or position
  PowerChanged,    ///< one radio took another power
  KeysTaken,       ///< an "fbt-info"
  NotUnderstood,   ///< a text that is no message of the protocol
};

/// What an access point wants done after an input.
struct AgentOutput {
  std::vector<std::string> messages;  ///< to send, in this order
  std::vector<ApEvent> events;
  bool close = false;  ///< give the connection up
};

class ApSteering;
class Crowd;
struct ClientEvent;

/// One simulated access point: the protocol as a state machine without sockets or clocks.
///
///   Offline --open--> Subscribing --"subscribe-response"--> Subscribed --close--> Offline
///
/// While subscribed it answers "rrm-request-mode" and "rrm-update" after a while (deadline()) and
/// sets its radios as "rrm-info" says. Threading: one thread. Inputs carry the time; nothing here
/// waits.
class ApAgent {
 public:
  enum class State { Offline, Subscribing, Subscribed };

  /// With a crowd it serves clients and steers them as it is told.
  ApAgent(World& world, std::uint32_t index, const AgentTiming& timing, Crowd* crowd = nullptr);
  ~ApAgent();
  ApAgent(ApAgent&&) noexcept;
  ApAgent& operator=(ApAgent&&) = delete;

  State state() const noexcept { return state_; }
  std::uint32_t index() const noexcept { return index_; }
  /// Entries of the last 802.11k list, and key links of the last "fbt-info".
  std::size_t neighbours() const noexcept { return neighbours_; }
  std::size_t fbt_links() const noexcept { return fbt_links_; }
  /// "code" of the last refusal, 0 when there was none.
  int reject_code() const noexcept { return reject_code_; }

  void on_open(Millis now, AgentOutput& out);
  void on_text(Millis now, std::string_view text, AgentOutput& out);
  /// When the next on_deadline is due; absent when nothing is.
  std::optional<Millis> deadline() const noexcept;
  void on_deadline(Millis now, AgentOutput& out);
  /// Something happened to one of its clients; said only while subscribed.
  void on_client(const ClientEvent& event, AgentOutput& out) const;
  /// The connection failed or closed. Returns how long to wait before the next attempt.
  Millis on_closed();

 private:
  enum class Due { Nothing, SubscribeLimit, AnswerModes, AnswerScan };

  void arm(Due due, Millis when) noexcept;
  void take_subscribe_response(const JsonReader& message, AgentOutput& out);
  void take_mode_request(Millis now, AgentOutput& out);
  void take_update(Millis now, const JsonReader& message, AgentOutput& out);
  void take_info(const JsonReader& message, AgentOutput& out);
  void take_keys(const JsonReader& message, AgentOutput& out);
  void take_config(const JsonReader& message, AgentOutput& out);
  double own_share(std::uint64_t what) const noexcept;

  World* world_;
  const AgentTiming* timing_;
  std::uint32_t index_;
  std::uint32_t round_ = 0;     ///< mode requests seen
  std::uint32_t attempts_ = 0;  ///< connections lost or refused since the last subscription
  State state_ = State::Offline;
  Due due_ = Due::Nothing;
  Millis when_ = 0;
  int reject_code_ = 0;
  std::size_t neighbours_ = 0;
  std::size_t fbt_links_ = 0;
  std::optional<ChannelFilter> filter_;  ///< of the scan under way
  Crowd* crowd_;
  std::unique_ptr<ApSteering> steering_;  ///< null without a crowd
};

}  // namespace rrm::fleet
