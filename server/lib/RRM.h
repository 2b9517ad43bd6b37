#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "server/lib/JsonReader.h"
#include "server/lib/SafeMap.h"
#include "server/lib/SessionAddress.h"
#include "server/lib/Worker.h"

namespace rrm {

class DefaultWorker;
struct DomainInfo;
class GlobalConfig;
class PingWorker;
class WebsockServerWorker;

/// Which of a VRRP pair this controller is; the master serves.
enum class VrrpRole : int { Backup = 0, Master = 1 };

/// "backup" or "master".
const char* vrrp_role_name(VrrpRole role) noexcept;

/// Hub of the controller: owns every worker and routes messages between them.
///
/// Purpose:   an access point's message goes to the worker of its domain, which a first
///            subscription creates; replies and session control go back through the websocket
///            server worker.
/// Threading: every operation from any thread, except that start, restart, stop, update_vrrp_role
///            and the restore operations belong to one management thread at a time. The map lock
///            covers look-ups and changes only; workers are enqueued on, started and stopped
///            outside it.
/// Ownership: owns the workers; the configuration is the process's and outlives the dispatcher.
class RRM {
 public:
  explicit RRM(const GlobalConfig* config);
  RRM(const RRM&) = delete;
  RRM& operator=(const RRM&) = delete;

  virtual ~RRM();
  /// Queues a serialized message for a session; a null text is ignored.
  virtual void send_text(const char* text, const SessionAddress& address);
  virtual void send_serialized(std::string&& text, const SessionAddress& address);
  /// Whether the session is still open: a message may have waited until after its end.
  virtual bool is_session_alive(const SessionAddress& address) const;

  // --- life

  /// Starts the service workers unless the controller is disabled or waits for its VRRP role.
  void start();
  /// With VRRP: starts in the present role when it is to be preserved, else as backup.
  void start(bool preserve_role);
  void restart();
  void stop();

  // --- incoming

  /// Routes one message of an access point. An empty document is reported; so is a message that
  /// only the controller itself may send, and it goes nowhere.
  void process_incoming_message(JsonReader&& document, const SessionAddress& address);
  /// Hands the message to the domain's worker. An empty domain counts as missing: the message is
  /// dropped, as every message of a domain without worker that is no subscription.
  void route_domain(const std::string& domain, const std::string& command, JsonReader&& document,
                    const SessionAddress& address);

  // --- outgoing

  void send_message(const char* text, const SessionAddress& address);
  void send_message_force(const char* text, const SessionAddress& address);
  /// Sends a websocket ping; without a pong or a message the session closes after 40 s.
  void ping_session(const SessionAddress& address);
  /// Asks the websocket server to close the session.
  virtual void drop_session_at_websock_worker(const SessionAddress& address, bool force);

  // --- session events

  /// Tells every domain worker to forget the access points of the session.
  void on_session_closed(const SessionAddress& address);
  /// Pauses client load balancing in every domain.
  void stop_load_balancer_at_rrm_worker(const SessionAddress& address);

  // --- domain workers

  /// A worker for the domain, not yet in the map nor started; empty when its construction failed.
  std::shared_ptr<Worker> make_rrm_worker(const std::string& name, std::size_t worker_count);
  /// Forgets the domain's worker, drops its access points' sessions, those whose messages still
  /// wait included, and stops it.
  /// @return whether there was one
  bool remove_worker(const std::string& name);
  /// A worker's thread has ended on its own: lets go of it if the map still holds that very worker.
  void stop_domain_event(const std::string& name, const Worker* worker) noexcept;
  /// Restores domains from the text of a JSON array; anything else (null too) restores nothing.
  void restore_domains(const char* backups);
  void restore_domain(const JsonReader& backup);
  /// Calls the function for a copy of the worker table, outside the lock.
  void for_each_worker(
      const std::function<void(const std::string& name, const std::shared_ptr<Worker>&)>& function);
  /// The domain's worker; empty when there is none.
  std::shared_ptr<Worker> find_worker(const std::string& name) const { return workers_.find(name); }
  SafeUnorderedMap<std::string, Worker>& workers() noexcept { return workers_; }

  // --- VRRP

  void update_vrrp_role(VrrpRole role, const char* backups);
  VrrpRole get_vrrp_role() const noexcept { return role_; }

  // --- reports

  /// Once a minute: deletes old reports when the daily time has come.
  void check_old_reports();

  // --- parts

  WebsockServerWorker& websock_server() noexcept { return *websock_server_; }
  DefaultWorker& default_worker() noexcept { return *default_; }
  const GlobalConfig& config() const noexcept { return *config_; }

 private:
  /// The worker that the map holds now, and whether that is the new one; empty while stopping.
  struct Insertion {
    std::shared_ptr<Worker> worker;
    bool inserted;
  };

  void start_services();
  Insertion insert_worker(const std::string& name, const std::shared_ptr<Worker>& worker);
  void start_worker(const std::string& name, const std::shared_ptr<Worker>& worker);
  void drop_sessions_of(Worker& worker);
  void enqueue_everywhere(const char* document, const SessionAddress& address);
  void delete_old_reports(const std::string& domain, std::int32_t days, const std::string& path);
  static void delete_reports_of_unknown_domains(const std::string& path,
                                                const std::map<std::string, DomainInfo>& domains);

  SafeUnorderedMap<std::string, Worker> workers_;
  const GlobalConfig* const config_;
  std::shared_ptr<DefaultWorker> default_;
  std::shared_ptr<WebsockServerWorker> websock_server_;
  std::shared_ptr<PingWorker> ping_;
  std::atomic<VrrpRole> role_{VrrpRole::Master};
  std::atomic<int> exits_in_progress_{0};
  std::atomic<bool> stopping_{false};  ///< from stop() to the next start: no new domain workers
};

}  // namespace rrm
