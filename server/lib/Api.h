#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "server/lib/Config.h"
#include "server/lib/JsonReader.h"
#include "server/lib/JsonWriter.h"

namespace rrm {

class RRM;
class RrmWorker;
class Worker;

/// The management commands, whatever the transport: reads and changes the configuration, asks for
/// the state of domains and access points, drops sessions, tells and sets the VRRP role.
///
/// Purpose:   front-ends hand each request, a JSON object, to process_request and send the reply.
/// Threading: commands of all front-ends run one at a time under a lock of the process; what
///            concerns one domain's model runs under that domain worker's processing lock.
/// Ownership: the dispatcher and the configuration outlive it.
/// Errors:    a missing mandatory member gives no reply, which front-ends answer with an error of
///            their own. Exceptions of a command leave towards the front-end.
class Api {
 public:
  /// The compact text of the reply object; none when no reply could be built.
  using Reply = std::optional<std::string>;

  Api(RRM& rrm, GlobalConfig& config) : rrm_(rrm), config_(config) {}
  Api(const Api&) = delete;
  Api& operator=(const Api&) = delete;
  virtual ~Api() = default;

  /// Creates the listening endpoint. @return success
  virtual bool connect() = 0;
  /// Ends the service loop.
  virtual void stop() = 0;
  /// Serves requests until stopped.
  virtual void run() = 0;

  /// Whether the document has one of the members "cfg", "rrm" and "vrrp".
  static bool is_request(const JsonReader& document);
  /// Processes the first of the three members.
  Reply process_request(const JsonReader& document);

  Reply process_cfg_command(const JsonReader& command);
  Reply process_rrm_command(const JsonReader& command);
  /// Reports the role, or changes it when the command names one.
  Reply process_vrrp_command(const JsonReader& command);

 protected:
  static constexpr char kVersion[] = "2.1";  ///< of every reply

  /// A "vrrp" command that names a role.
  virtual Reply process_role_command(const JsonReader& command) {
    return process_vrrp_command(command);
  }

  /// Held by process_request; to be held by whoever calls the operations above on its own.
  static std::mutex& command_mutex() noexcept;
  RRM& rrm() const noexcept { return rrm_; }
  GlobalConfig& config() const noexcept { return config_; }

 private:
  /// Domains to be restarted after a command: each once, in the order of marking.
  class Restarts {
   public:
    void mark_all() { all_ = true; }
    void mark(const std::string& domain);
    void run(RRM& rrm) const;

   private:
    bool all_ = false;
    std::vector<std::string> domains_;
  };

  using CfgHandler = bool (Api::*)(const JsonReader& command, JsonWriter& reply,
                                   Restarts& restarts);
  struct CfgOperation {
    const char* name;
    CfgHandler handler;
  };

  // Each returns false when the command gets no reply.
  bool process_cfg_get_command(const JsonReader& command, JsonWriter& reply, Restarts& restarts);
  bool process_cfg_set_command(const JsonReader& command, JsonWriter& reply, Restarts& restarts);
  bool process_cfg_add_command(const JsonReader& command, JsonWriter& reply, Restarts& restarts);
  bool process_cfg_remove_command(const JsonReader& command, JsonWriter& reply, Restarts& restarts);

  bool get_pattern(const JsonReader& command, JsonWriter& reply) const;
  void list_patterns(JsonWriter& reply) const;
  void list_domains(JsonWriter& reply) const;
  void set_global(const JsonReader& settings, JsonWriter& errors, Restarts& restarts);
  void set_pattern(const JsonReader& settings, JsonWriter& reply, JsonWriter& errors,
                   Restarts& restarts);
  void set_domain(const JsonReader& settings, JsonWriter& errors, Restarts& restarts);
  void add_pattern(const JsonReader& settings, JsonWriter& reply, JsonWriter& errors,
                   Restarts& restarts);
  void add_domain(const JsonReader& settings, JsonWriter& reply, JsonWriter& errors,
                  Restarts& restarts);
  void remove_domain(const std::string& name, JsonWriter& reply, Restarts& restarts);
  void remove_pattern(const std::string& name, JsonWriter& reply, Restarts& restarts);
  void form_restart_domains_list(const std::string& pattern, Restarts& restarts) const;

  void add_header(JsonWriter& reply) const;
  void drop_sessions(const JsonReader& command);
  void list_domain_workers(JsonWriter& reply);
  void process_domain_command(const JsonReader& command, JsonWriter& reply);
  void process_domain_worker_command(Worker& worker, const JsonReader& command, JsonWriter& reply);
  /// Answers "report_list" or "last_report". @return whether the command has one of them
  bool process_report_query(const JsonReader& command, JsonWriter& reply);
  void process_rrm_cmd_get_report(const JsonReader& command, JsonWriter& reply);
  void process_rrm_cmd_get_report_list(const JsonReader& command, JsonWriter& reply);
  void process_rrm_cmd_get_last_report(const JsonReader& command, JsonWriter& reply);
  static void describe_access_point(RrmWorker& worker, const JsonReader& command,
                                    JsonWriter& reply);

  RRM& rrm_;
  GlobalConfig& config_;
};

}  // namespace rrm
