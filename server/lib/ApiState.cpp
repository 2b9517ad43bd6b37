// The "rrm" commands: state of domains and access points, reports, sessions.

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

#include "server/lib/Api.h"
#include "server/lib/Hooks.h"
#include "server/lib/MacAddress.h"
#include "server/lib/RRM.h"
#include "server/lib/RrmWorker.h"
#include "server/lib/WebsockServerWorker.h"
#include "server/lib/report_queries.h"

namespace rrm {

Api::Reply Api::process_rrm_command(const JsonReader& command) {
  JsonWriter reply(kVersion);
  add_header(reply);
  if (command.has("domain"))
    process_domain_command(command, reply);
  else if (command.has("drop_session"))
    drop_sessions(command);
  else if (!command.has("sessions"))
    list_domain_workers(reply);
  else if (command.get_int("sessions") != 0)
    rrm_.websock_server().get_status(reply);
  return reply.str();
}

void Api::drop_sessions(const JsonReader& command) {
  const JsonReader ids = command.child("ids");
  std::vector<std::uint32_t> wanted;
  for (std::size_t i = 0; i < ids.size(); ++i)
    wanted.push_back(static_cast<std::uint32_t>(ids.get_int(static_cast<int>(i))));
  std::sort(wanted.begin(), wanted.end());
  for (const auto& session : rrm_.websock_server().sessions())
    if (std::binary_search(wanted.begin(), wanted.end(), session->address.id))
      rrm_.drop_session_at_websock_worker(session->address, true);
}

void Api::list_domain_workers(JsonWriter& reply) {
  JsonWriter list = JsonWriter::array(reply, "domains");
  rrm_.for_each_worker([&](const std::string& name, const std::shared_ptr<Worker>& worker) {
    JsonWriter entry = JsonWriter::object(list);
    entry.add("name", name);
    const auto domain_worker = std::dynamic_pointer_cast<RrmWorker>(worker);
    if (!domain_worker) return;
    domain_worker->run_locked([&] {
      entry.add("ap-count", std::uint64_t{domain_worker->aps().size()});
      entry.add("unanswered-ap-count", std::uint64_t{domain_worker->unanswered_aps().size()});
      entry.add("deleted-ap-count", std::uint64_t{domain_worker->aps_to_delete().size()});
    });
    // Every worker keeps a copy, so none uses the common settings themselves.
    entry.add("common-config", 0);
  });
}

void Api::process_domain_command(const JsonReader& command, JsonWriter& reply) {
  if (command.has("report")) {
    process_rrm_cmd_get_report(command, reply);
    return;
  }
  const auto worker = rrm_.find_worker(command.get_str("domain"));
  if (!worker) {
    if (!process_report_query(command, reply)) reply.add("error", "domain not found");
    return;
  }
  worker->run_locked([&] { process_domain_worker_command(*worker, command, reply); });
}

void Api::process_domain_worker_command(Worker& worker, const JsonReader& command,
                                        JsonWriter& reply) {
  auto* domain_worker = dynamic_cast<RrmWorker*>(&worker);
  if (domain_worker == nullptr) {
    reply.add("error", "domain not found");
  } else if (worker.is_stopped()) {
    RRM_LOG(Debug, "Worker absent.");
  } else if (command.has("ap")) {
    describe_access_point(*domain_worker, command, reply);
  } else if (command.has("start_optimization")) {
    const bool wanted = std::string_view(command.get_str("start_optimization")) == "true";
    reply.add("status", wanted && domain_worker->force_optimization() ? "success" : "failure");
  } else if (!process_report_query(command, reply)) {
    worker.get_status(reply);
  }
}

// --- reports

void Api::process_rrm_cmd_get_report(const JsonReader& command, JsonWriter& reply) {
  if (!has_text(command, "report"))
    throw std::invalid_argument("process_rrm_cmd_get_report: Invalid argument 'cmd'.");
  const int code =
      reports::get_radio_report(reply, command.get_str("report"), config_.reports_path);
  if (code != 0) RRM_LOG(Debug, "Error call 'reports::get_radio_report'. Exit code: %d.", code);
  reply.add("status", code == 0 ? "success" : "failure");
}

bool Api::process_report_query(const JsonReader& command, JsonWriter& reply) {
  if (command.has("report_list")) {
    process_rrm_cmd_get_report_list(command, reply);
    return true;
  }
  if (command.has("last_report")) {
    process_rrm_cmd_get_last_report(command, reply);
    return true;
  }
  return false;
}

void Api::process_rrm_cmd_get_report_list(const JsonReader& command, JsonWriter& reply) {
  const JsonReader window = command.child("report_list");
  if (window.value() == nullptr || !window.value()->is_object())
    throw std::invalid_argument("process_rrm_cmd_get_report_list: Invalid argument 'cmd'.");
  const std::string domain = command.get_str("domain");
  const bool known = config_.is_domain_exist(domain);
  const int errors = reports::get_radio_report_list(reply, domain, config_.reports_path,
                                                    window.get_str("date_start"),
                                                    window.get_str("date_finish"), known);
  if (errors != 0) RRM_LOG(Debug, "errors = %d", errors);
  reply.add("status", errors == 0 ? "success" : "failure");
}

void Api::process_rrm_cmd_get_last_report(const JsonReader& command, JsonWriter& reply) {
  if (!command.has("last_report"))
    throw std::invalid_argument("process_rrm_cmd_get_last_report: Invalid argument 'cmd'.");
  const std::string domain = command.get_str("domain");
  const bool known = config_.is_domain_exist(domain);
  const int code = reports::get_last_radio_report(reply, domain, config_.reports_path, known);
  if (code != 0)
    RRM_LOG(Debug, "Error call 'reports::get_last_radio_report'. Exit code: %d.", code);
  reply.add("status", code == 0 ? "success" : "failure");
}

// --- access points

void Api::describe_access_point(RrmWorker& worker, const JsonReader& command, JsonWriter& reply) {
  const MacAddress mac = MacAddress::from_text(command.get_str("ap"));
  const std::pair<const char*, const ApMap&> maps[] = {
      {"active-ap", worker.aps()},
      {"deleted-ap", worker.aps_to_delete()},
      {"unanswered-ap", worker.unanswered_aps()},
  };
  bool found = false;
  for (const auto& [key, map] : maps) {
    const ApMap::Entry ap = map.find(mac);
    if (!ap) continue;
    found = true;
    JsonWriter object = JsonWriter::object(reply, key);
    if (command.has("fbt-links"))
      ApMap::listed_to_json(*ap, object, true);
    else
      ap->to_json(object);
  }
  if (!found) reply.add("error", "ap not found");
}

}  // namespace rrm
