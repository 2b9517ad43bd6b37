#pragma once

#include <string>

#include "server/lib/IRrmSubworker.h"
#include "server/lib/Radio.h"

namespace rrm {

/// Keeps clients on the access point that serves them well and lets them go when their signal
/// fades.
///
/// Purpose:   a client that one radio serves is blocked for a while on the other radios of its
///            SSID; a weak one is unblocked there and offered to the probe-response balancer. Once
///            a second the changes are sent. The balancer uses the same blocks for its decisions.
/// Threading: the domain worker's thread.
class BlacklistSubworker : public IRrmSubworker {
 public:
  explicit BlacklistSubworker(const Context& context);

  bool process_message(const JsonReader& message, std::string_view cmd,
                       const std::shared_ptr<ApEntry>& ap) override;
  /// One second: sends what is due, ages the blocks and the clients of the parked access points.
  void process_timer() override;

  /// Blocks the client on every other radio that could serve it (`strong`), or unblocks it there.
  /// @param ap, radio_id  the client's own radio, which is left alone
  void block_pass(const MacAddress& client, const ApEntry& ap, const std::string& ssid,
                  std::int32_t radio_id, bool strong);
  /// Lets the radio disassociate the client with the next tick.
  void disconnect_pass(const MacAddress& client, Radio& radio, const std::string& ssid);

 private:
  struct StateChange;

  void process_assoc_state_changed(const JsonReader& message, const std::shared_ptr<ApEntry>& ap);
  void follow_signal(const StateChange& change);
  void offer_to_balancer(const StateChange& change);
  bool held_elsewhere(const StateChange& change) const;
  void send_changes();
  void post_disassoc_request(ApEntry& ap);
  void post_blacklist(ApEntry& ap);
  void age_clients(ApMap& map);
  void arm_timer();
};

}  // namespace rrm
