#include "server/lib/RrmWorker.h"

#include <algorithm>
#include <array>
#include <exception>
#include <utility>

#include "server/lib/BlacklistSubworker.h"
#include "server/lib/Clock.h"
#include "server/lib/DomainStatus.h"
#include "server/lib/Envelope.h"
#include "server/lib/Hooks.h"
#include "server/lib/LoadBalancer802dot11vSubworker.h"
#include "server/lib/LoadBalancerSubworker.h"
#include "server/lib/RRM.h"
#include "server/lib/TpcDcaSubworker.h"

// The worker's life, the road of a message, and the timers; subscriptions are in
// RrmWorkerSubscription.cpp, status and restore in DomainStatus.cpp and RrmWorkerRestore.cpp.

namespace rrm {

namespace {

enum Timer : std::uint32_t { kDomainTick = 0, kBalancerTick = 1 };

constexpr std::int32_t kLoadBalancerPause_s = 60;

}  // namespace

// --- life

RrmWorker::RrmWorker(const GlobalConfig* config, const DomainConfig& domain_config, RRM* owner,
                     const std::string& name, std::size_t capacity, std::int32_t time_zone_s)
    : Worker(name, owner, kIdleWait_us, static_cast<int>(capacity), true),
      config_(config),
      domain_config_(domain_config),
      domain_(name),
      reports_path_(config->reports_path),
      time_zone_s_(time_zone_s) {
  const IRrmSubworker::Context context{&domain_config_, &domain_,        this,
                                       &aps_,           &aps_to_delete_, &unanswered_aps_};
  const auto publish = [](const std::string& status) {
    raise_event(EventCode::PlannerStatus, status);
  };
  tpc_dca_ = std::make_unique<TpcDcaSubworker>(context, publish, time_zone_s);
  blacklist_ = std::make_unique<BlacklistSubworker>(context);
  load_balancer_ = std::make_unique<LoadBalancerSubworker>(context);
  load_balancer_80211v_ = std::make_unique<LoadBalancer802dot11vSubworker>(context);
  if (domain_config_.use_80211v || domain_config_.use_balance) arm_balancer_tick();
}

RrmWorker::~RrmWorker() = default;

bool RrmWorker::connect() {
  RRM_LOG(Debug, "Start worker %s", domain_.c_str());
  arm_domain_tick();
  return Worker::connect();
}

void RrmWorker::disconnect() {
  RRM_LOG(Debug, "Stop worker %s", domain_.c_str());
  timers_.remove(kDomainTick);
  tpc_dca_->stop();
  blacklist_->stop();
  load_balancer_->stop();
  load_balancer_80211v_->stop();
  Worker::disconnect();
}

void RrmWorker::on_loop() {
  const std::int64_t now_s = monotonic_seconds();
  timers_.run_due(now_s);
  tpc_dca_->run_timers(now_s);
  blacklist_->run_timers(now_s);
  load_balancer_->run_timers(now_s);
  load_balancer_80211v_->run_timers(now_s);
}

bool RrmWorker::all_maps_empty() const noexcept {
  return aps_.empty() && aps_to_delete_.empty() && unanswered_aps_.empty();
}

/// A waiting message may be a subscription, which would be lost with the worker.
void RrmWorker::finish_when_empty() {
  if (all_maps_empty() && queue_size() == 0) abort();
}

std::int32_t RrmWorker::tick_s() const noexcept { return std::max(domain_config_.tick_period, 1); }

std::int32_t RrmWorker::away_ticks() const noexcept {
  return domain_config_.away_timeout / tick_s();
}

void RrmWorker::raise_domain_changed() const { raise_event(EventCode::DomainChanged, domain_); }

bool RrmWorker::force_optimization() {
  if (tpc_dca_->state() < PlannerState::ModesRequested) {
    return tpc_dca_->force_optimization_from_api();
  }
  RRM_LOG(Debug, "NOT Planning optimization domain %s status %d", domain_.c_str(),
          static_cast<int>(tpc_dca_->state()));
  return false;
}

std::vector<ApSession> RrmWorker::ap_sessions() const {
  std::vector<ApSession> sessions;
  for (const ApMap* map : {&aps_, &unanswered_aps_, &aps_to_delete_}) {
    for (const auto& [mac, ap] : map->aps()) {
      if (ap->session.id != 0 && !ap->session_lost) sessions.push_back({mac, ap->session});
    }
  }
  return sessions;
}

void RrmWorker::get_status(JsonWriter& writer) { write_domain_details(*this, writer); }

void RrmWorker::get_status_full(JsonWriter& writer) { write_domain_maps(*this, writer); }

void RrmWorker::broadcast_buffer_add(const char* text, const SessionAddress& session) {
  broadcast_buffer_.add(text, session);
}

void RrmWorker::broadcast_buffer_add(std::string&& text, const SessionAddress& session) {
  broadcast_buffer_.add(std::move(text), session);
}

void RrmWorker::broadcast_buffer_flush() { broadcast_buffer_.flush(*owner()); }

// --- messages

void RrmWorker::process_message(const JsonReader& document, const SessionAddress& session) {
  if (!is_valid_message(document)) {
    RRM_LOG(Warning, "Incoming message validation failed");
    raise_event(EventCode::MessageInvalid);
    return;
  }
  if (process_internal_ipc_msg(document)) return;
  try {
    if (std::string_view(document.get_str("service")) == "rrm-internal") {
      process_internal(document.get_str("cmd"), session);
    } else {
      process_ap_message(document, session);
    }
  } catch (const std::exception& error) {
    RRM_LOG(Error, "Exception at processing message on worker '%s': %s", name().c_str(),
            error.what());
    raise_event(EventCode::MessageHandlerThrew, std::string(error.what()));
  }
}

void RrmWorker::process_internal(std::string_view cmd, const SessionAddress& session) {
  if (cmd == "drop-session") {
    drop_session(session);
  } else if (cmd == "stop-load-balancer") {
    load_balancer_stop_ = true;
    counter_ = kLoadBalancerPause_s / tick_s();
  }
}

RrmWorker::Handler RrmWorker::handler_of(std::string_view cmd) {
  struct Route {
    std::string_view cmd;
    Handler handler;
  };
  static constexpr std::array<Route, 10> kRoutes = {{
      {"unsubscribe-request", &RrmWorker::handle_unsubscribe},
      {"rrm-config-changed", &RrmWorker::handle_config_changed},
      {"rrm-response", &RrmWorker::process_response},
      {"rrm-mode-response", &RrmWorker::process_response},
      {"rrm-sta-roam", &RrmWorker::process_balancer_cmd},
      {"rrm-assoc-state-changed", &RrmWorker::process_balancer_cmd},
      {"rrm-client-disassoc", &RrmWorker::process_balancer_cmd},
      {"rrm-client-assoc", &RrmWorker::process_balancer_cmd},
      {"rrm-probe-response", &RrmWorker::process_balancer_cmd},
      {"rrm-disassoc-all-clients", &RrmWorker::process_balancer_cmd},
  }};
  const auto route = std::find_if(kRoutes.begin(), kRoutes.end(),
                                  [&](const Route& candidate) { return candidate.cmd == cmd; });
  return route == kRoutes.end() ? nullptr : route->handler;
}

void RrmWorker::process_ap_message(const JsonReader& document, const SessionAddress& session) {
  const char* mac_text = document.get_str("ap-mac");
  const char* cmd = document.get_str("cmd");
  const Message message{document, session, MacAddress::from_text(mac_text), cmd, mac_text};
  RRM_LOG(Debug, "process_message %s for %s", cmd, mac_text);
  if (message.cmd == "subscribe-request") {
    handle_subscribe(message);
    return;
  }
  if (!is_version_compatible(document)) {
    RRM_LOG(Warning, "Incoming message version failed");
    raise_event(EventCode::VersionIncompatible);
    return;
  }
  if (const Handler handler = handler_of(message.cmd)) (this->*handler)(message);
}

void RrmWorker::handle_subscribe(const Message& message) {
  const HandlingTime::Scope timed(subscribe_time_);
  process_subscribe_request(message);
}

void RrmWorker::handle_unsubscribe(const Message& message) {
  const HandlingTime::Scope timed(unsubscribe_time_);
  process_unsubscribe_request(message);
}

void RrmWorker::handle_config_changed(const Message& message) {
  const HandlingTime::Scope timed(config_changed_time_);
  process_config_changed(message);
}

void RrmWorker::process_response(const Message& message) {
  const Ap owner_of_mac = aps_.find_any(message.mac);
  const Ap ap = aps_.get(owner_of_mac ? owner_of_mac->base_mac : message.mac, message.session.id);
  tpc_dca_->process_message(message.json, message.cmd, ap);
}

void RrmWorker::process_balancer_cmd(const Message& message) {
  if (const Ap ap = aps_.find_any(message.mac)) {
    process_balancer_ap(message, ap);
  } else if (const Ap unanswered = unanswered_aps_.find_any(message.mac)) {
    RRM_LOG(Debug, "To unanswered rrm balancer cmd");
    process_balancer_ap(message, unanswered);
  }
}

void RrmWorker::process_balancer_ap(const Message& message, const Ap& ap) {
  const std::string_view cmd = message.cmd;
  RRM_LOG(Debug, "process_message balancer %s for %s", cmd.data(), message.mac_text);
  if (cmd == "rrm-sta-roam") {
    load_balancer_80211v_->process_message(message.json, cmd, ap);
    return;
  }
  if (cmd == "rrm-assoc-state-changed") {
    blacklist_->process_message(message.json, cmd, ap);
    return;
  }
  const bool is_association = cmd == "rrm-client-assoc" || cmd == "rrm-client-disassoc";
  if (domain_config_.use_balance && ap->radios.any_radio_not_locked_for_balancer()) {
    load_balancer_->process_message(message.json, cmd, ap);
  } else if (is_association && domain_config_.use_80211v && ap->radios.any_802dot11v_candidate()) {
    load_balancer_80211v_->process_message(message.json, cmd, ap);
  }
}

void RrmWorker::drop_session(const SessionAddress& session) {
  raise_domain_changed();
  for (const auto& [mac, ap] : aps_.aps()) {
    if (ap->session.id == session.id) ap->session_lost = true;
  }
  aps_.move_session(session.id, aps_to_delete_);
  unanswered_aps_.remove_session(session.id);
  finish_when_empty();
}

// --- timers

void RrmWorker::arm_domain_tick() {
  timers_.rearm([this] { process_timer_message(); }, kDomainTick,
                static_cast<std::uint32_t>(tick_s()));
}

void RrmWorker::arm_balancer_tick() {
  timers_.rearm([this] { process_balancer_tick(); }, kBalancerTick, 1);
}

void RrmWorker::process_timer_message() {
  log_domain_state(*this);
  age_deleted_aps();
  count_load_balancer_pause();
  arm_domain_tick();
}

void RrmWorker::age_deleted_aps() {
  const std::size_t erased = aps_to_delete_.age();
  if (erased > 0) {
    if (aps_to_delete_.empty() && !tpc_dca_->scanning() && !aps_.empty()) {
      if (domain_config_.use_80211v) {
        for (const auto& [mac, ap] : aps_.aps()) ap->radios.set_changed();
      }
      tpc_dca_->force_optimization();
    }
    raise_domain_changed();
  }
  finish_when_empty();
}

void RrmWorker::count_load_balancer_pause() {
  if (counter_ > 0) --counter_;
  if (counter_ <= 0) {
    load_balancer_stop_ = false;
    counter_ = 0;
  }
}

void RrmWorker::process_balancer_tick() {
  for (const auto& [mac, ap] : aps_.aps()) age_clients(*ap);
  if (domain_config_.use_balance) load_balancer_->process_timer();
  arm_balancer_tick();
}

void RrmWorker::age_clients(ApEntry& ap) {
  for (Radio& radio : ap.radios.radios) {
    radio.assoc_clients.age_expected();
    const bool weighs = domain_config_.use_80211v || radio.locked_for_80211v == 0;
    if (weighs && radio.update_load_level()) {
      load_balancer_80211v_->planning_update_802dot11v(false);
    }
  }
}

}  // namespace rrm
