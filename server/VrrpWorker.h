#pragma once

#include <mutex>
#include <set>
#include <string>

#include "server/lib/Api.h"
#include "server/lib/TimerList.h"

/// The controller's side of a VRRP pair: takes the role that the supervisor left in the state file,
/// writes a backup file of every domain that changed, and restores domains when it becomes master.
///
/// Threading: on_domain_changed from any thread; everything else on the thread of the service loop
///            or inside a management command. The mutex is never held while a domain worker is
///            asked: workers raise events under their processing lock.
/// Errors:    logged; they leave the role in force and skip the file or domain they concern.
class VrrpWorker : public rrm::Api {
 public:
  VrrpWorker(rrm::RRM* dispatcher, rrm::GlobalConfig* config);

  bool connect() override { return true; }
  void stop() override {}
  void run() override {}

  /// Plans a backup of the domain, `vrrp_timeout` seconds after the latest change of any.
  void on_domain_changed(const std::string& domain);
  /// Runs what is due; called by the service loop about every 100 ms.
  void poll_timers();
  /// Writes the backup files of all domains that wait for one.
  void make_domains_backup();
  /// Appends every readable document of the backup folder.
  void restore_domains_from_backup(rrm::JsonWriter& array);
  /// Applies the role of the state file; once, after the dispatcher was started.
  void set_vrrp_role_on_start();
  /// A management request that names a role; a master takes the domains of the backup folder,
  /// whatever the request holds, and none while VRRP is off.
  /// @param command  compact text of the "vrrp" object
  Reply handle_request(const std::string& command);

  rrm::GlobalConfig& global_config() const noexcept { return config(); }

 private:
  /// Reply of one of the controller's own commands; an empty reader when it failed.
  rrm::JsonReader ask(const rrm::JsonWriter& command);
  bool make_backup(const std::string& domain, rrm::JsonWriter& document);
  /// @param key  the member of its status that stands for the map it is listed in
  bool back_up_access_point(const std::string& domain, const rrm::JsonReader& listed,
                            const char* key, rrm::JsonWriter& array);
  Reply switch_role(bool master);

  rrm::TimerList timers_;          ///< guarded by mutex_
  bool backup_due_ = false;        ///< guarded by mutex_; its timer has run out
  std::set<std::string> pending_;  ///< guarded by mutex_; domains waiting for a backup
  std::mutex mutex_;
};
