#include "server/lib/TpcDcaSubworker.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "server/lib/Clock.h"
#include "server/lib/Hooks.h"
#include "server/lib/RrmWorker.h"
#include "server/lib/report_optimize_tpc_dca.h"

// The planner's states, timers and rounds; its messages are in TpcDcaMessages.cpp.

namespace rrm {

namespace {

constexpr std::int64_t kDay_s = 86400;
constexpr std::int64_t kCompletionPoll_s = 1;

/// A backup's "rrm-status". A round that was being measured or optimised when the backup was made
/// is gone, so it is planned anew.
PlannerState restored_state(std::int32_t status) {
  switch (status) {
    case 1:
      return PlannerState::PlannedDaily;
    case 2:
    case 3:
    case 4:
    case 5:
      return PlannerState::PlannedNow;
    default:
      return PlannerState::Idle;
  }
}

}  // namespace

TpcDcaSubworker::TpcDcaSubworker(const Context& context, StatusCallback on_status,
                                 std::int32_t time_zone_s)
    : IRrmSubworker(context),
      on_status_(std::move(on_status)),
      time_zone_s_(time_zone_s),
      fbt_(*context.config, context.worker->global_config()),
      optimiser_(optimise) {
  std::srand(static_cast<unsigned>(wall_clock_us() / 1000));
}

TpcDcaSubworker::~TpcDcaSubworker() = default;

void TpcDcaSubworker::stop() {
  timers().clear();
  thread_.stop();
}

// --- state

void TpcDcaSubworker::set_state(PlannerState state) {
  state_ = state;
  if (on_status_) {
    on_status_("{\"location\":\"" + domain() +
               "\", \"status\":" + std::to_string(static_cast<int>(state)) + "}");
  }
}

void TpcDcaSubworker::set_state(PlannerState state, bool balancers_locked) {
  worker().set_load_balancer_lock(balancers_locked);
  set_state(state);
}

/// The scan is needed for DCA and TPC, and for the neighbour lists and balancers that look only at
/// access points that hear each other.
bool TpcDcaSubworker::answers_matter() const noexcept {
  const DomainConfig& options = config();
  if (options.use_dca || options.use_tpc) return true;
  return (options.use_80211k || options.use_balance || options.use_80211v) &&
         !options.use_all_ap_balance;
}

void TpcDcaSubworker::restore(std::int32_t state, std::int32_t fbt_status) {
  state_ = restored_state(state);
  fbt_status_ = fbt_status;
  restored_ = true;
  timers().rearm([this] { end_restore(); }, kRestore,
                 static_cast<std::uint32_t>(config().away_timeout));
}

void TpcDcaSubworker::end_restore() {
  restored_ = false;
  round_wished_ = true;
  const bool links_wanted = fbt_status_ == 1;
  if (state_ != PlannerState::Idle) force_optimization();
  if (links_wanted) planning_update_802dot11r();
}

// --- planning

void TpcDcaSubworker::force_optimization() {
  if (restored_) {
    set_state(PlannerState::PlannedNow);
    return;
  }
  if (state_ == PlannerState::Optimising) {
    round_wished_ = true;
    return;
  }
  if (!answers_matter()) {
    planning_request_modes(false);
    return;
  }
  if (!config().use_optimization_event) {
    RRM_LOG(Debug, "Not event optimization dmain %s", domain_name());
    planning_request_modes(false);
    return;
  }
  RRM_LOG(Debug, "Force optimization dmain %s", domain_name());
  planning_request_modes(true);
  if (config().use_dca) forced_dca_ = true;
}

bool TpcDcaSubworker::force_optimization_from_api() {
  if (restored_ || !answers_matter()) return false;
  RRM_LOG(Debug, "Force optimization from api dmain %s", domain_name());
  planning_request_modes(true);
  return true;
}

std::int64_t TpcDcaSubworker::delay_until_optimization_time() const {
  const DomainConfig& options = config();
  RRM_LOG(Debug, "Optimization time %d sec %s time_zone_offset %d sec", options.optimization_time_s,
          options.optimization_time.c_str(), time_zone_s_);
  const std::int64_t time_of_day_s = wall_clock_us() / 1'000'000 % kDay_s;
  const std::int64_t unadjusted =
      std::int64_t{options.optimization_time_s} - time_zone_s_ - time_of_day_s;
  std::int64_t delay = unadjusted;
  if (delay <= 0) delay = unadjusted + kDay_s;
  if (delay <= 0) delay = unadjusted + 2 * kDay_s;
  RRM_LOG(Debug, "Optimization interval %d", static_cast<int>(delay));
  return delay;
}

void TpcDcaSubworker::planning_request_modes(bool now) {
  timers().remove(kRound);
  const int previous = static_cast<int>(state_);
  std::int64_t delay_s = 0;
  if (now) {
    timers().remove(k80211k);
    timers().remove(k80211r);
    fbt_status_ = 0;
    delay_s = config().planning_delay;
  } else if (config().use_optimization_time) {
    delay_s = delay_until_optimization_time();
  }
  if (delay_s <= 0) {
    set_state(PlannerState::Idle, false);
    raise_event(EventCode::DomainChanged, domain());
  } else {
    set_state(now ? PlannerState::PlannedNow : PlannerState::PlannedDaily, false);
    RRM_LOG(Debug, "Planning domain %s update %d after %d sec", domain_name(), previous,
            static_cast<int>(delay_s));
    arm_round_timer(delay_s);
  }
  if (config().use_80211k) planning_update_802dot11k();
  if (config().use_80211r) planning_update_802dot11r();
}

/// A round that found nobody is tried again soon, unless no answer could ever count.
void TpcDcaSubworker::replan_now() { planning_request_modes(answers_matter()); }

void TpcDcaSubworker::arm_round_timer(std::int64_t delay_s) {
  timers().rearm([this] { process_timer(); }, kRound, static_cast<std::uint32_t>(delay_s));
}

void TpcDcaSubworker::process_timer() {
  switch (state_) {
    case PlannerState::Idle:
      return;
    case PlannerState::PlannedDaily:
    case PlannerState::PlannedNow: {
      const HandlingTime::Scope timed(times_.request_modes);
      return process_timer_request_modes();
    }
    case PlannerState::ModesRequested: {
      const HandlingTime::Scope timed(times_.request_scan);
      return process_timer_request_scan();
    }
    case PlannerState::ScanRequested: {
      const HandlingTime::Scope timed(times_.optimize);
      return process_timer_optimize();
    }
    case PlannerState::Optimising: {
      const HandlingTime::Scope timed(times_.optimize);
      return check_optimization_complete();
    }
  }
}

// --- a round

void TpcDcaSubworker::process_timer_request_modes() {
  RRM_LOG(Debug, "Send rrm-request-mode messages on domain %s", domain_name());
  for (auto& channels : channel_sets_) channels.clear();
  unanswered_aps().move_all(aps());
  aps().reset_round();
  aps().move_without_active_radio(unanswered_aps(), worker().away_ticks());
  if (aps().empty()) {
    unanswered_aps().move_all(aps());
    RRM_LOG(Debug, "not optimization scan on domain %s", domain_name());
    set_state(PlannerState::Idle, false);
    return;
  }
  timers().remove(k80211k);
  post_request_mode();
  enter_scan_wait();
}

void TpcDcaSubworker::enter_scan_wait() {
  set_state(PlannerState::ModesRequested, true);
  arm_round_timer(config().scan_wait);
}

std::int32_t TpcDcaSubworker::scan_time_s() const noexcept {
  const DomainConfig& options = config();
  if (options.use_tavro_rrm_scan) return options.tavro_scan_factor_a * options.tavro_scan_factor_b;
  const std::size_t channels =
      std::max({std::size_t{14}, channel_sets_[5].size(), channel_sets_[6].size()});
  return (static_cast<std::int32_t>(7 * channels / 10) + 1) * options.channel_scan_time;
}

void TpcDcaSubworker::process_timer_request_scan() {
  RRM_LOG(Debug, "Send rrm-update messages on domain %s size %zu drop %d", domain_name(),
          aps().size(), static_cast<int>(dropped_));
  if (aps().empty()) {
    RRM_LOG(Debug, "Optimization scan on domain %s delayed", domain_name());
    set_state(PlannerState::Idle, false);
    replan_now();
    return;
  }
  aps().reset_round();
  post_force_update();
  planning_optimize();
}

void TpcDcaSubworker::planning_optimize() {
  set_state(PlannerState::ScanRequested);
  const auto& members = aps().aps();
  if (std::all_of(members.begin(), members.end(),
                  [](const auto& member) { return member.second->active; })) {
    RRM_LOG(Debug, "Start optimize now on domain %s", domain_name());
    const HandlingTime::Scope timed(times_.optimize);
    process_timer_optimize();
    return;
  }
  const std::int32_t delay_s = scan_time_s() * 3 + 1;
  RRM_LOG(Debug, "Start optimize after %d sec on domain %s", delay_s, domain_name());
  arm_round_timer(delay_s);
}

void TpcDcaSubworker::process_timer_optimize() {
  dropped_ = aps().move_inactive(unanswered_aps(), worker().away_ticks());
  RRM_LOG(Debug, "Start optimization on domain %s size %zu drop %d", domain_name(), aps().size(),
          static_cast<int>(dropped_));
  if (aps().empty()) {
    unanswered_aps().move_all(aps());
    aps().reset_round();
    RRM_LOG(Debug, "Optimization on domain %s delayed", domain_name());
    set_state(PlannerState::Idle, false);
    replan_now();
    return;
  }
  launch_optimization_thread();
  set_state(PlannerState::Optimising);
  arm_round_timer(kCompletionPoll_s);
}

void TpcDcaSubworker::launch_optimization_thread() {
  const DomainConfig& options = config();
  OptimisationSwitches switches;
  switches.use_dca = options.use_dca;
  switches.use_tpc = options.use_tpc;
  switches.use_report = options.use_rrm_report && (options.use_tpc || options.use_dca);
  forced_dca_ = false;
  auto snapshot = std::make_shared<ApMap>(aps().snapshot());
  thread_.launch([work = optimiser_, snapshot, options = &options, switches,
                  started_at = wall_clock_us() / 1'000'000](const std::atomic<bool>& cancel) {
    return work(*snapshot, *options, switches, started_at, cancel);
  });
}

void TpcDcaSubworker::check_optimization_complete() {
  if (!thread_.done()) {
    arm_round_timer(kCompletionPoll_s);
    return;
  }
  const auto result = thread_.take();
  if (result == nullptr) {
    RRM_LOG(Warning, "Optimization thread completed on domain %s but no result was produced",
            domain_name());
  } else {
    take_result(*result);
  }
  end_round();
}

void TpcDcaSubworker::take_result(const OptimisationResult& result) {
  if (result.ok) {
    apply_result(result);
    save_report(result);
    RRM_LOG(Debug, "Optimization on domain %s finished", domain_name());
    post_tpc_results();
    if (config().use_80211r) update_802dot11r();
  } else if (!result.message.empty()) {
    RRM_LOG(Warning, "Optimization cancelled or failed: %s", result.message.c_str());
  } else {
    RRM_LOG(Warning, "Optimization on domain %s finished unsuccessfully with no error message",
            domain_name());
  }
}

void TpcDcaSubworker::end_round() {
  unanswered_aps().move_all(aps());
  aps().reset_round();
  set_state(PlannerState::Idle, false);
  if (std::exchange(round_wished_, false)) {
    force_optimization();
  } else {
    planning_request_modes(false);
  }
}

namespace {

/// Takes over what was planned for one radio. A radio that was switched off or taken out of DCA
/// while the optimisation ran keeps what its access point said.
void apply_plan(Radio& radio, const Radio& plan) {
  if (!radio.status || !plan.status) return;
  if (radio.managed_by_dca() && plan.channel != 0) {
    radio.channel = plan.channel;
    radio.primary_channel = plan.primary_channel;
    radio.normalize_primary_channel();
  }
  if (radio.power == plan.power) return;
  radio.power = radio.clamp_power(plan.power);
  radio.power_changed = plan.power_changed;
  radio.update_eirp();
}

}  // namespace

void TpcDcaSubworker::apply_result(const OptimisationResult& result) {
  std::vector<ApMap::ChannelChange> moved;
  for (const auto& [mac, planned] : result.radios) {
    const auto ap = aps().find(mac);
    if (ap == nullptr) continue;
    for (const Radio& plan : planned.radios) {
      Radio* radio = ap->radios.find(plan.id);
      if (radio == nullptr) continue;
      const std::int32_t channel = radio->channel;
      apply_plan(*radio, plan);
      if (radio->channel != channel)
        moved.push_back({radio->mac, radio->channel, &radio->neighbour_channel_count});
    }
  }
  aps().set_channels(moved);
}

/// Runs under the worker's processing lock, as the deletion of old reports does.
void TpcDcaSubworker::save_report(const OptimisationResult& result) {
  if (!result.has_report) return;
  const int error = reports::save_radio_report_to_files(result.report, domain(), result.report_date,
                                                        worker().reports_path(), config());
  if (error != 0) raise_event(EventCode::ReportSaveFailed, domain());
}

// --- 802.11k and 802.11r

void TpcDcaSubworker::update_802dot11k() {
  RRM_LOG(Debug, "Update  domain %s", domain_name());
  planning_update_802dot11k();
}

void TpcDcaSubworker::planning_update_802dot11k() {
  if (!config().use_80211k) {
    RRM_LOG(Debug, "NOT Planning update 802dot11k domain %s status %d", domain_name(),
            static_cast<int>(state_));
    return;
  }
  RRM_LOG(Debug, "Planning update 802dot11k domain %s", domain_name());
  timers().rearm([this] { process_timer_802dot11k(); }, k80211k,
                 static_cast<std::uint32_t>(config().planning_delay));
}

void TpcDcaSubworker::process_timer_802dot11k() {
  if (scanning()) {
    RRM_LOG(Debug, "Not update 802dot11k domain %s", domain_name());
    return;
  }
  RRM_LOG(Debug, "Process update 802dot11k domain %s", domain_name());
  post_tpc_results();
}

void TpcDcaSubworker::planning_update_802dot11r() {
  if (restored_) {
    fbt_status_ = 1;
    return;
  }
  const bool before_round = state_ == PlannerState::Idle || state_ == PlannerState::PlannedDaily;
  if (!config().use_80211r || !before_round) {
    RRM_LOG(Debug, "NOT Planning update 802dot11r domain %s", domain_name());
    return;
  }
  RRM_LOG(Debug, "Planning update 802dot11r domain %s", domain_name());
  timers().rearm([this] { process_timer_802dot11r(); }, k80211r,
                 static_cast<std::uint32_t>(config().planning_delay));
  fbt_status_ = 1;
}

void TpcDcaSubworker::process_timer_802dot11r() {
  if (scanning()) {
    RRM_LOG(Debug, "Not update 802dot11r domain %s", domain_name());
    return;
  }
  RRM_LOG(Debug, "Process update 802dot11r domain %s", domain_name());
  update_802dot11r();
}

void TpcDcaSubworker::update_802dot11r() {
  RRM_LOG(Debug, "Update 802dot11r domain %s", domain_name());
  RRM_LOG(Debug, "wavelom use_wildcard_80211r=%d",
          static_cast<int>(worker().global_config().use_wildcard_80211r.load()));
  fbt_status_ = 0;
  const std::size_t changed = fbt_.update(aps());
  RRM_LOG(Debug, "FBT settings changed = %d", static_cast<int>(changed));
  if (changed == 0) return;
  for (const auto& [mac, ap] : aps().aps()) {
    if (!ap->fbt_changed) continue;
    post_results_802dot11r_ap(*ap, true, false);
    ap->fbt_changed = false;
    worker().broadcast_buffer_flush();  // in a large domain one message takes a megabyte
  }
}

}  // namespace rrm
