#include "server/lib/RRM.h"

#include <unistd.h>

#include <exception>
#include <set>
#include <utility>
#include <vector>

#include "server/lib/Config.h"
#include "server/lib/DefaultWorker.h"
#include "server/lib/Envelope.h"
#include "server/lib/Hooks.h"
#include "server/lib/PingWorker.h"
#include "server/lib/RrmWorker.h"
#include "server/lib/WebsockServerWorker.h"

namespace rrm {
namespace {

constexpr std::size_t kDomainCapacity = 2048;  ///< messages in each queue of a domain worker
constexpr useconds_t kPoll_us = 1000;

std::vector<ApSession> ap_sessions_of(Worker& worker) {
  auto* const domain_worker = dynamic_cast<RrmWorker*>(&worker);
  if (domain_worker == nullptr) return {};
  return worker.run_locked([&] { return domain_worker->ap_sessions(); });
}

void report_worker_not_created(const char* function, const std::string& name, const char* what) {
  log_write(__FILE__, __LINE__, function, LogLevel::Error,
            "Exception at processing message for domain '%s': %s", name.c_str(), what);
  raise_event(EventCode::WorkerNotCreated);
}

}  // namespace

const char* vrrp_role_name(VrrpRole role) noexcept {
  switch (role) {
    case VrrpRole::Backup:
      return "backup";
    case VrrpRole::Master:
      return "master";
  }
  return "unknown";
}

RRM::RRM(const GlobalConfig* config)
    : config_(config),
      default_(std::make_shared<DefaultWorker>(this)),
      websock_server_(std::make_shared<WebsockServerWorker>(this, config)),
      ping_(std::make_shared<PingWorker>(this)) {}

RRM::~RRM() {
  stop();
  // A worker that ended by itself may still be on its way out of stop_domain_event().
  while (exits_in_progress_ > 0) usleep(kPoll_us);
}

// --- life

void RRM::start() { start(false); }

void RRM::start(bool preserve_role) {
  if (!config_->enabled) {
    RRM_LOG(Debug, "Wavelom version %s disabled\n", kServerVersion);
    return;
  }
  RRM_LOG(Debug, "Wavelom version %s start\n", kServerVersion);
  if (config_->vrrp_enabled && preserve_role) {
    RRM_LOG(Debug, "Wavelom start in vrrp mode, preserving role: %s\n", vrrp_role_name(role_));
  } else if (config_->vrrp_enabled) {
    role_ = VrrpRole::Backup;
    RRM_LOG(Debug, "Wavelom start in vrrp mode\n");
  }
  if (role_ == VrrpRole::Master) start_services();
}

void RRM::start_services() {
  stopping_ = false;
  default_->start();
  websock_server_->start();
  ping_->start();
}

void RRM::restart() {
  const VrrpRole role = role_;
  stop();
  role_ = role;
  start(true);
}

void RRM::stop() {
  stopping_ = true;
  // Workers that wait for a session to take their messages could not be joined otherwise.
  websock_server_->release_producers();
  ping_->stop();
  for_each_worker([](const std::string& name, const std::shared_ptr<Worker>& worker) {
    RRM_LOG(Debug, "Cancel domain %s", name.c_str());
    worker->stop();
  });
  workers_.clear();
  default_->stop();
  websock_server_->stop();
}

// --- incoming

void RRM::process_incoming_message(JsonReader&& document, const SessionAddress& address) {
  if (document.is_null()) {
    RRM_LOG(Error, "process_incoming_message: json parse failed or null root");
    raise_event(EventCode::TextDoesNotParse);
    return;
  }
  if (is_internal_message(document)) {
    RRM_LOG(Debug, "process_incoming_message: session %d sent service '%s', refused",
            static_cast<int>(address.id), document.get_str("service"));
    // The record that a domain worker would write: the message is as invalid as any other.
    RRM_LOG(Warning, "Incoming message validation failed");
    raise_event(EventCode::MessageInvalid);
    return;
  }
  const std::string domain = document.get_str("domain");
  const std::string command = document.get_str("cmd");
  route_domain(domain, command, std::move(document), address);
}

void RRM::route_domain(const std::string& domain, const std::string& command, JsonReader&& document,
                       const SessionAddress& address) {
  if (domain.empty() || !config_->enabled) return;
  if (const auto worker = workers_.find(domain))
    return worker->enqueue_message(std::move(document), address);
  if (command != "subscribe-request") return;
  const auto worker = make_rrm_worker(domain, workers_.size() + 1);
  if (worker == nullptr) return;
  const auto [chosen, inserted] = insert_worker(domain, worker);
  if (chosen == nullptr) return;
  chosen->enqueue_message(std::move(document), address);
  if (inserted) start_worker(domain, chosen);
}

// --- outgoing

void RRM::send_text(const char* text, const SessionAddress& address) {
  websock_server_->enqueue_text(text, address);
}

void RRM::send_serialized(std::string&& text, const SessionAddress& address) {
  websock_server_->enqueue_serialized(std::move(text), address);
}

void RRM::send_message(const char* text, const SessionAddress& address) {
  JsonReader document(text);
  if (!document.is_null()) return websock_server_->enqueue_message(std::move(document), address);
  RRM_LOG(Error, "send_message json null");
  RRM_LOG(Debug, "send_message str: %s", text == nullptr ? "" : text);
  raise_event(EventCode::TextDoesNotParse);
}

void RRM::send_message_force(const char* text, const SessionAddress& address) {
  websock_server_->enqueue_message_force(JsonReader(text), address);
}

void RRM::ping_session(const SessionAddress& address) {
  websock_server_->enqueue_message(JsonReader(kPingSessionDocument), address);
}

void RRM::drop_session_at_websock_worker(const SessionAddress& address, bool force) {
  RRM_LOG(Debug, "drop_session_at_websock_worker: %d force: %d", static_cast<int>(address.id),
          static_cast<int>(force));
  JsonReader document(kDropSessionDocument);
  if (force)
    websock_server_->enqueue_message_force(std::move(document), address);
  else
    websock_server_->enqueue_message(std::move(document), address);
}

bool RRM::is_session_alive(const SessionAddress& address) const {
  return websock_server_->is_session_alive(address);
}

// --- session events

void RRM::on_session_closed(const SessionAddress& address) {
  enqueue_everywhere(kDropSessionDocument, address);
}

void RRM::stop_load_balancer_at_rrm_worker(const SessionAddress& address) {
  RRM_LOG(Info, "rrm: stop-load-balancer:");
  enqueue_everywhere(kStopLoadBalancerDocument, address);
}

void RRM::enqueue_everywhere(const char* document, const SessionAddress& address) {
  for_each_worker([&](const std::string&, const std::shared_ptr<Worker>& worker) {
    worker->enqueue_message_force(JsonReader(document), address);
  });
}

// --- domain workers

std::shared_ptr<Worker> RRM::make_rrm_worker(const std::string& name, std::size_t) {
  try {
    const DomainConfig settings = config_->get_domain_config(name);
    return std::make_shared<RrmWorker>(config_, settings, this, name, kDomainCapacity,
                                       config_->get_time_zone(name));
  } catch (const std::exception& error) {
    report_worker_not_created(__func__, name, error.what());
    return nullptr;
  }
}

RRM::Insertion RRM::insert_worker(const std::string& name, const std::shared_ptr<Worker>& worker) {
  const std::lock_guard lock(workers_.mutex());
  if (stopping_) return {nullptr, false};
  const auto [place, inserted] = workers_.map().emplace(name, worker);
  return {place->second, inserted};
}

void RRM::start_worker(const std::string& name, const std::shared_ptr<Worker>& worker) {
  try {
    worker->start();
  } catch (const std::exception& error) {
    // A worker without a thread would take messages until its queue is full and hold up everybody.
    report_worker_not_created(__func__, name, error.what());
    return stop_domain_event(name, worker.get());
  }
  // Whoever took it out of the map meanwhile has stopped a worker that was not running yet.
  if (stopping_ || workers_.find(name) != worker) return worker->stop();
  RRM_LOG(Debug, "Created new worker '%s'.", name.c_str());
}

bool RRM::remove_worker(const std::string& name) {
  std::shared_ptr<Worker> worker;
  {
    const std::lock_guard lock(workers_.mutex());
    if (const auto found = workers_.map().find(name); found != workers_.map().end()) {
      worker = std::move(found->second);
      workers_.map().erase(found);
    }
  }
  // The worker may be busy for long, and a closing session may want the map meanwhile: from here on
  // no lock is held but the worker's own.
  if (worker != nullptr) {
    drop_sessions_of(*worker);
    worker->stop();
  }
  RRM_LOG(Debug, "Worker with domain '%s' erased.", name.c_str());
  return worker != nullptr;
}

void RRM::drop_sessions_of(Worker& worker) {
  std::set<std::uint32_t> dropped;
  // What waits is taken first: a subscription that is handled meanwhile shows among the sessions.
  const auto waiting = worker.take_messages();
  for (const ApSession& session : ap_sessions_of(worker)) {
    RRM_LOG(Debug, "Drop session %s(%d) on worker '%s'.", session.mac.upper().c_str(),
            static_cast<int>(session.address.id), worker.name().c_str());
    drop_session_at_websock_worker(session.address, true);
    dropped.insert(session.address.id);
  }
  // Nobody will answer these; their access points shall come back and subscribe anew.
  for (const auto& message : waiting)
    if (!is_internal_message(message->document()) && dropped.insert(message->address().id).second)
      drop_session_at_websock_worker(message->address(), true);
}

void RRM::stop_domain_event(const std::string& name, const Worker* worker) noexcept {
  ++exits_in_progress_;
  try {
    std::shared_ptr<Worker> ended;
    const std::lock_guard lock(workers_.mutex());
    const auto found = workers_.map().find(name);
    if (found != workers_.map().end() && found->second.get() == worker) {
      ended = std::move(found->second);
      workers_.map().erase(found);
      ended->detach();
    }
  } catch (const std::exception& error) {
    RRM_LOG(Error, "Exception at processing stop_domain_event: %s", error.what());
    raise_event(EventCode::WorkerExitThrew);
  }
  --exits_in_progress_;
}

void RRM::restore_domains(const char* backups) {
  const JsonReader list(backups);
  for (std::size_t i = 0; i < list.size(); ++i) restore_domain(list.child(static_cast<int>(i)));
}

void RRM::restore_domain(const JsonReader& backup) {
  const std::string name = backup.get_str("name");
  if (workers_.find(name) != nullptr) return;
  const auto worker = make_rrm_worker(name, workers_.size() + 1);
  if (worker == nullptr || !insert_worker(name, worker).inserted) return;
  if (auto* const domain_worker = dynamic_cast<RrmWorker*>(worker.get()))
    worker->run_locked([&] { domain_worker->load_backup(backup); });
  start_worker(name, worker);
}

void RRM::for_each_worker(
    const std::function<void(const std::string&, const std::shared_ptr<Worker>&)>& function) {
  std::vector<std::pair<std::string, std::shared_ptr<Worker>>> copies;
  {
    const std::lock_guard lock(workers_.mutex());
    copies.assign(workers_.map().begin(), workers_.map().end());
  }
  for (const auto& [name, worker] : copies) function(name, worker);
}

// --- VRRP

void RRM::update_vrrp_role(VrrpRole role, const char* backups) {
  const VrrpRole old = role_;
  if (role == old) {
    RRM_LOG(Warning, "try to switch VRRP role to the same: %s -> %s", vrrp_role_name(old),
            vrrp_role_name(role));
    return;
  }
  RRM_LOG(Info, "VRRP role: %s -> %s", vrrp_role_name(old), vrrp_role_name(role));
  if (role == VrrpRole::Backup && old == VrrpRole::Master) stop();
  if (role == VrrpRole::Master && old == VrrpRole::Backup) {
    // A subscription that came before its domain was restored would take the place of the backup.
    stopping_ = false;
    restore_domains(backups);
    start_services();
  }
  role_ = role;
}

}  // namespace rrm
