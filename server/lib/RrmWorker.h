#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "server/lib/ApMap.h"
#include "server/lib/BufferInfo.h"
#include "server/lib/Config.h"
#include "server/lib/HandlingTime.h"
#include "server/lib/MacAddress.h"
#include "server/lib/TimerList.h"
#include "server/lib/Worker.h"

namespace rrm {

class BlacklistSubworker;
class IRrmSubworker;
class LoadBalancer802dot11vSubworker;
class LoadBalancerSubworker;
class TpcDcaSubworker;

/// An access point of a domain and the session it is on.
struct ApSession {
  MacAddress mac;
  SessionAddress address;
};

/// Worker of one domain: keeps its access points, answers their subscriptions and hands everything
/// else to the sub-workers that plan and balance.
///
/// Purpose:   every message of the domain's access points ends here. An access point lives in one
///            of three maps: aps() while its session is open, unanswered_aps() for the rest of a
///            round of which it missed a step, aps_to_delete() for a while after its session has
///            gone. The worker ends by itself when all three are empty and no message waits.
/// Threading: everything runs on the worker's thread under its processing lock; other threads use
///            run_locked. Timers are run by on_loop.
/// Ownership: owns the model, the sub-workers and a copy of the domain's settings; the global
///            configuration and the dispatcher outlive it.
/// Errors:    what a message's handler throws is logged and raised as an event; the worker goes on.
class RrmWorker : public Worker {
 public:
  /// @param capacity messages in each of its queues
  /// @param time_zone_s offset of the domain's local time to UTC, seconds
  RrmWorker(const GlobalConfig* config, const DomainConfig& domain_config, RRM* owner,
            const std::string& name, std::size_t capacity, std::int32_t time_zone_s);
  ~RrmWorker() override;

  // --- worker

  void process_message(const JsonReader& document, const SessionAddress& session) override;
  void on_loop() override;
  bool connect() override;
  void disconnect() override;
  /// Adds "details": counts, timings and the access points with their VAPs.
  void get_status(JsonWriter& writer) override;
  /// Adds the complete state of every access point, map by map.
  void get_status_full(JsonWriter& writer) override;

  // --- management, inside run_locked

  /// Plans a round now, unless one is planned for now or running. @return whether it did
  bool force_optimization();
  /// The sessions of all access points it knows.
  std::vector<ApSession> ap_sessions() const;
  /// Restores the model from a domain's backup; before the thread starts, or inside run_locked.
  void load_backup(const JsonReader& backup);

  // --- for the sub-workers

  const GlobalConfig& global_config() const noexcept { return *config_; }
  const DomainConfig& domain_config() const noexcept { return domain_config_; }
  const std::string& reports_path() const noexcept { return reports_path_; }
  std::int32_t time_zone_s() const noexcept { return time_zone_s_; }
  /// Countdown of an access point that leaves aps(): ticks in the domain's away_timeout.
  std::int32_t away_ticks() const noexcept;

  ApMap& aps() noexcept { return aps_; }
  const ApMap& aps() const noexcept { return aps_; }
  ApMap& aps_to_delete() noexcept { return aps_to_delete_; }
  const ApMap& aps_to_delete() const noexcept { return aps_to_delete_; }
  ApMap& unanswered_aps() noexcept { return unanswered_aps_; }
  const ApMap& unanswered_aps() const noexcept { return unanswered_aps_; }

  TpcDcaSubworker& tpc_dca() noexcept { return *tpc_dca_; }
  const TpcDcaSubworker& tpc_dca() const noexcept { return *tpc_dca_; }
  BlacklistSubworker& blacklist() noexcept { return *blacklist_; }
  LoadBalancerSubworker& load_balancer() noexcept { return *load_balancer_; }
  LoadBalancer802dot11vSubworker& load_balancer_80211v() noexcept { return *load_balancer_80211v_; }

  void broadcast_buffer_add(const char* text, const SessionAddress& session);
  void broadcast_buffer_add(std::string&& text, const SessionAddress& session);
  void broadcast_buffer_flush();

  /// Adds the access point's neighbour list under "802dot11k" to a "config" object when one is due.
  /// @param only_changes leaves a list out that is the one last sent
  void add_neighbour_list(const ApEntry& ap, JsonWriter& config, bool only_changes);

  /// Balancing is locked while a round measures and optimises; set by the planner.
  void set_load_balancer_lock(bool locked) noexcept { load_balancer_lock_ = locked; }
  bool load_balancer_lock() const noexcept { return load_balancer_lock_; }
  /// Balancing is paused because access points flood the server.
  bool load_balancer_stop() const noexcept { return load_balancer_stop_; }
  /// Ticks until the pause ends.
  std::int32_t counter() const noexcept { return counter_; }

  const HandlingTime& subscribe_time() const noexcept { return subscribe_time_; }
  const HandlingTime& unsubscribe_time() const noexcept { return unsubscribe_time_; }
  const HandlingTime& config_changed_time() const noexcept { return config_changed_time_; }

  /// Logs every violation of the rules for MAC pools. @return whether there is none
  static bool check_mac_params(const ApEntry& ap);

 private:
  using Ap = std::shared_ptr<ApEntry>;

  /// A message of an access point, as the handlers get it.
  struct Message {
    const JsonReader& json;
    const SessionAddress& session;
    MacAddress mac;
    std::string_view cmd;
    const char* mac_text;
  };
  /// What a new description of a known access point asks for.
  struct RoamingUpdates {
    bool lists_80211kv = false;
    bool lists_80211k = false;
    bool links_80211r = false;
  };
  using Handler = void (RrmWorker::*)(const Message&);
  static Handler handler_of(std::string_view cmd);

  // messages
  void process_internal(std::string_view cmd, const SessionAddress& session);
  void process_ap_message(const JsonReader& document, const SessionAddress& session);
  void handle_subscribe(const Message& message);
  void handle_unsubscribe(const Message& message);
  void handle_config_changed(const Message& message);
  void process_response(const Message& message);
  void process_balancer_cmd(const Message& message);
  void process_balancer_ap(const Message& message, const Ap& ap);
  void drop_session(const SessionAddress& session);

  // subscription
  void process_subscribe_request(const Message& message);
  void process_unsubscribe_request(const Message& message);
  void process_config_changed(const Message& message);
  void subscribe_known(const Message& message, const Ap& ap);
  void subscribe_deleted(const Message& message, const Ap& ap, bool scanning);
  void subscribe_unanswered(const Message& message, const Ap& ap);
  void subscribe_new(const Message& message, ApDescription description);
  void take_over_session(const Message& message, ApEntry& ap);
  void process_exists_ap(const Message& message, const Ap& ap, bool force);
  void plan_updates(const ApEntry& ap, const RoamingUpdates& due);
  void send_subscribe_fail(const Message& message, std::int32_t code);
  void send_subscribe_success(const Message& message, const ApEntry& ap);

  // restore
  void restore_ap_map(ApMap& target, const JsonReader& array);
  void restore_ap(ApMap& target, const JsonReader& element);

  // timers
  void arm_domain_tick();
  void arm_balancer_tick();
  void process_timer_message();
  void age_deleted_aps();
  void count_load_balancer_pause();
  void process_balancer_tick();
  void age_clients(ApEntry& ap);

  bool all_maps_empty() const noexcept;
  void finish_when_empty();
  std::int32_t tick_s() const noexcept;
  void raise_domain_changed() const;

  const GlobalConfig* config_;
  DomainConfig domain_config_;
  const std::string domain_;
  const std::string reports_path_;
  ApMap aps_;
  ApMap aps_to_delete_;
  ApMap unanswered_aps_;
  ChannelSets channel_sets_;  ///< what subscriptions and changes announced; rounds keep their own
  BufferInfo broadcast_buffer_;
  TimerList timers_;
  HandlingTime subscribe_time_;
  HandlingTime unsubscribe_time_;
  HandlingTime config_changed_time_;
  bool load_balancer_stop_ = false;
  bool load_balancer_lock_ = false;
  std::int32_t counter_ = 0;  ///< ticks until the pause of the balancers ends
  const std::int32_t time_zone_s_;
  // Destroyed in reverse order, before everything they point to.
  std::unique_ptr<TpcDcaSubworker> tpc_dca_;
  std::unique_ptr<BlacklistSubworker> blacklist_;
  std::unique_ptr<LoadBalancerSubworker> load_balancer_;
  std::unique_ptr<LoadBalancer802dot11vSubworker> load_balancer_80211v_;
};

}  // namespace rrm
