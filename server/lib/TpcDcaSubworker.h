#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "server/lib/FbtDistribution.h"
#include "server/lib/HandlingTime.h"
#include "server/lib/IRrmSubworker.h"
#include "server/lib/OptimisationThread.h"
#include "server/lib/Radio.h"

namespace rrm {

/// State of a domain's planning; the numbers are those of "rrm-status".
enum class PlannerState : std::int32_t {
  Idle = 0,            ///< no round planned
  PlannedDaily = 1,    ///< planned at the optimisation time of day
  ModesRequested = 2,  ///< waiting for "rrm-mode-response"
  ScanRequested = 3,   ///< waiting for "rrm-response"
  PlannedNow = 4,      ///< planned after an event or a management command
  Optimising = 5,      ///< the optimisation thread runs
};

/// How long each duty of the planner takes.
struct PlannerTimes {
  HandlingTime response;
  HandlingTime mode_response;
  HandlingTime request_modes;
  HandlingTime request_scan;
  HandlingTime optimize;
};

/// Drives a domain's planning rounds and the distribution of their results.
///
/// Purpose:   a round asks every access point for measurement mode, then for a scan, optimises what
///            they report on a thread of its own and sends the plan. Rounds are planned for a time
///            of day or soon after an event. 802.11k lists and 802.11r links are distributed
///            between rounds.
/// Threading: the domain worker's thread; the optimisation works on a snapshot.
/// Ownership: see IRrmSubworker.
class TpcDcaSubworker : public IRrmSubworker {
 public:
  using StatusCallback = std::function<void(const std::string& status)>;
  using Optimiser = std::function<OptimisationResult(
      ApMap& snapshot, const DomainConfig& config, const OptimisationSwitches& switches,
      std::int64_t started_at, const std::atomic<bool>& cancel)>;

  /// @param on_status gets the status text at every change of state
  /// @param time_zone_s offset of the domain's local time to UTC, seconds
  TpcDcaSubworker(const Context& context, StatusCallback on_status, std::int32_t time_zone_s);
  ~TpcDcaSubworker() override;

  void force_optimization() override;
  bool process_message(const JsonReader& message, std::string_view cmd,
                       const std::shared_ptr<ApEntry>& ap) override;
  void process_timer() override;
  void stop() override;

  /// Plans a round now. @return false when nothing can be planned
  bool force_optimization_from_api();
  /// Takes over the state of a backup; nothing is planned until the access points had time to
  /// return.
  void restore(std::int32_t state, std::int32_t fbt_status);

  PlannerState state() const noexcept { return state_; }
  std::int32_t fbt_status() const noexcept { return fbt_status_; }
  const PlannerTimes& times() const noexcept { return times_; }
  /// Modes or a scan were asked for, and answers are awaited.
  bool scanning() const noexcept {
    return state_ == PlannerState::ModesRequested || state_ == PlannerState::ScanRequested;
  }

  // 802.11k and 802.11r
  void update_802dot11k();
  void planning_update_802dot11k();
  void planning_update_802dot11r();
  /// Links all access points and sends what changed.
  void update_802dot11r();
  /// Queues the "fbt-info" of one access point when its links changed, or in any case with `force`.
  void post_results_802dot11r_ap(const ApEntry& ap, bool send, bool force);

  /// Queues the "rrm-info" of one access point.
  /// @param flush sends what is queued at once
  void post_tpc_results_ap(const ApEntry& ap, bool flush);

  /// Replaces the optimisation; for tests.
  void set_optimiser(Optimiser optimiser) { optimiser_ = std::move(optimiser); }

 private:
  enum Timer : std::uint32_t { kRound = 0, k80211k = 1, k80211r = 2, kRestore = 3 };

  // planning
  void planning_request_modes(bool now);
  void replan_now();
  std::int64_t delay_until_optimization_time() const;
  void process_timer_request_modes();
  void process_timer_request_scan();
  void planning_optimize();
  void process_timer_optimize();
  void launch_optimization_thread();
  void check_optimization_complete();
  void end_round();
  void end_restore();
  void enter_scan_wait();
  void arm_round_timer(std::int64_t delay_s);
  void set_state(PlannerState state);
  void set_state(PlannerState state, bool balancers_locked);
  bool answers_matter() const noexcept;

  // results
  void take_result(const OptimisationResult& result);
  void apply_result(const OptimisationResult& result);
  void save_report(const OptimisationResult& result);
  void post_tpc_results();

  // messages
  void process_mode_response(const JsonReader& message, const std::shared_ptr<ApEntry>& ap);
  void process_response(const JsonReader& message, const std::shared_ptr<ApEntry>& ap);
  void post_request_mode();
  void post_force_update();
  std::string force_update_message(const ApEntry& ap, std::int64_t scan_delay_s) const;
  std::int32_t scan_time_s() const noexcept;

  void process_timer_802dot11k();
  void process_timer_802dot11r();

  StatusCallback on_status_;
  const std::int32_t time_zone_s_;
  PlannerState state_ = PlannerState::Idle;
  std::int32_t fbt_status_ = 0;  ///< 1 while an 802.11r update is planned
  bool round_wished_ = false;    ///< asked for while a round was being optimised, or by a restore
  bool forced_dca_ = false;      ///< the next round was planned by an event
  bool restored_ = false;        ///< waiting for the access points of a backup
  std::size_t dropped_ = 0;      ///< access points that missed the last scan
  ChannelSets channel_sets_;     ///< channels that the round's answers announced
  PlannerTimes times_;
  FbtDistribution fbt_;
  Optimiser optimiser_;
  OptimisationThread thread_;
};

}  // namespace rrm
