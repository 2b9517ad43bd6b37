#include "server/lib/Api.h"

#include <string_view>

#include "server/lib/Envelope.h"
#include "server/lib/RRM.h"

namespace rrm {
namespace {

std::mutex command_mutex_of_the_process;

}  // namespace

std::mutex& Api::command_mutex() noexcept { return command_mutex_of_the_process; }

bool Api::is_request(const JsonReader& document) {
  return document.has("cfg") || document.has("rrm") || document.has("vrrp");
}

Api::Reply Api::process_request(const JsonReader& document) {
  const std::lock_guard lock(command_mutex());
  if (document.has("cfg")) return process_cfg_command(document.child("cfg"));
  if (document.has("rrm")) return process_rrm_command(document.child("rrm"));
  if (!document.has("vrrp")) return std::nullopt;
  const JsonReader command = document.child("vrrp");
  return command.has("role") ? process_role_command(command) : process_vrrp_command(command);
}

void Api::add_header(JsonWriter& reply) const {
  reply.add("server", config_.host_name());
  reply.add("wavelom_version", kServerVersion);
}

Api::Reply Api::process_vrrp_command(const JsonReader& command) {
  JsonWriter reply(kVersion);
  add_header(reply);
  if (!command.has("role")) {
    reply.add("role", vrrp_role_name(rrm_.get_vrrp_role()));
    reply.add("status", "success");
    return reply.str();
  }
  const std::string_view role = command.get_str("role");
  if (role == "master") {
    rrm_.update_vrrp_role(VrrpRole::Master, command.child("domains").c_str());
    reply.add("status", "success");
  } else if (role == "backup") {
    rrm_.update_vrrp_role(VrrpRole::Backup, nullptr);
    reply.add("status", "success");
  } else {
    reply.add("status", "failure");
    reply.add("error", "role not supported");
  }
  return reply.str();
}

}  // namespace rrm
