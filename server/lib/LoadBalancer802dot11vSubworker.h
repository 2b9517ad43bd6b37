#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <unordered_map>

#include "server/lib/IRrmSubworker.h"
#include "server/lib/JsonWriter.h"
#include "server/lib/NeighbourLists.h"

namespace rrm {

struct ClientEvent;

/// Balances associated clients between access points by 802.11v BSS transition
/// [IEEE 802.11-2020, 11.21.7].
///
/// Purpose:   a radio's priority falls as it fills up; every access point gets a neighbour list
///            with the priorities of the radios it hears, and an overloaded one is told how many
///            clients to move. It picks them itself and reports the moves.
/// Threading: the domain worker's thread.
class LoadBalancer802dot11vSubworker : public IRrmSubworker {
 public:
  explicit LoadBalancer802dot11vSubworker(const Context& context);

  bool process_message(const JsonReader& message, std::string_view cmd,
                       const std::shared_ptr<ApEntry>& ap) override;
  /// The overload period: tells access points how many clients to move, or does so once the lists
  /// that are still due have been sent, since they pick the targets from them.
  void process_timer() override;
  void force_optimization() override;

  /// Lists are to be sent again, after the planning delay.
  /// @param restart  counts a delay that already runs anew
  void planning_update_802dot11v(bool restart);

  /// Adds the access point's list under "802dot11k".
  /// @param only_changes  leaves out a list that equals the one last sent
  void add_neighbour_list(const ApEntry& ap, JsonWriter& config, bool only_changes);

  /// Clients that the radio's access point shall move away; 0 for none.
  std::int32_t calc_roam_count(const ApEntry& ap, const Radio& radio) const;

  bool lists_pending() const noexcept { return lists_pending_; }

 private:
  void process_client_assoc(const JsonReader& message, const std::shared_ptr<ApEntry>& ap);
  void process_client_disassoc(const JsonReader& message, const std::shared_ptr<ApEntry>& ap);
  void process_client_roam(const JsonReader& message, const std::shared_ptr<ApEntry>& ap);
  void remove_from_others(const ClientEvent& event, const ApEntry& ap);
  void update_priority(const ApEntry& ap, Radio& radio);

  void optimize_lists();
  void optimize_clients();
  void optimize_ap(const ApEntry& ap);
  void arm_lists_timer();
  void arm_period_timer();
  bool needs_balancing(const Radio& radio) const;
  void forget_absent_aps();

  /// What is remembered of the list an access point was last given.
  struct SentList {
    std::size_t hash = 0;
    std::size_t length = 0;
    std::array<NeighbourLoad, 3> loads{};  ///< by radio id
  };

  bool lists_pending_ = false;
  bool lists_timer_armed_ = false;
  bool overload_waits_ = false;  ///< the period is over: to be sent once the lists are
  std::unordered_map<MacAddress, SentList> sent_;  ///< by base MAC
};

}  // namespace rrm
