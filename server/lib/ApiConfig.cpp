// The "cfg" commands: reading and changing the configuration.

#include <algorithm>
#include <iterator>
#include <string_view>

#include "server/lib/Api.h"
#include "server/lib/Hooks.h"
#include "server/lib/RRM.h"

namespace rrm {
namespace {

constexpr std::string_view kCommon = "common";

std::string text_of(const JsonReader& reader, const char* key) { return reader.get_str(key); }

bool has_name(const JsonReader& reader, const char* key) { return *reader.get_str(key) != '\0'; }

bool is_object(const JsonReader& reader, const char* key) {
  const JsonReader member = reader.child(key);
  return member.value() != nullptr && member.value()->is_object();
}

}  // namespace

void Api::Restarts::mark(const std::string& domain) {
  if (std::find(domains_.begin(), domains_.end(), domain) == domains_.end())
    domains_.push_back(domain);
}

void Api::Restarts::run(RRM& rrm) const {
  if (all_) return rrm.restart();
  for (const std::string& domain : domains_) rrm.remove_worker(domain);
}

Api::Reply Api::process_cfg_command(const JsonReader& command) {
  static constexpr CfgOperation kOperations[] = {
      {"get", &Api::process_cfg_get_command},
      {"set", &Api::process_cfg_set_command},
      {"add", &Api::process_cfg_add_command},
      {"remove", &Api::process_cfg_remove_command},
  };
  if (!has_text(command, "operation") || !has_text(command, "level")) return std::nullopt;
  const std::string_view name = command.get_str("operation");
  JsonWriter reply(kVersion);
  Restarts restarts;
  const auto operation = std::find_if(std::begin(kOperations), std::end(kOperations),
                                      [name](const CfgOperation& row) { return name == row.name; });
  if (operation != std::end(kOperations) && !(this->*operation->handler)(command, reply, restarts))
    return std::nullopt;
  config_.save();
  restarts.run(rrm_);
  return reply.str();
}

bool Api::process_cfg_get_command(const JsonReader& command, JsonWriter& reply, Restarts&) {
  const std::string_view level = command.get_str("level");
  if (level == "global") config_.global_to_json(reply);
  if (level == "domain") list_domains(reply);
  if (level != "pattern") return true;
  if (command.has("pattern")) return get_pattern(command, reply);
  list_patterns(reply);
  return true;
}

bool Api::get_pattern(const JsonReader& command, JsonWriter& reply) const {
  const auto settings = config_.get_pattern_config(command.get_str("pattern"));
  if (settings) settings->to_json(reply);
  return settings.has_value();
}

void Api::list_patterns(JsonWriter& reply) const {
  JsonWriter list = JsonWriter::array(reply, "patterns");
  JsonWriter::object(list).add("name", kCommon);
  for (const std::string& name : config_.pattern_names())
    JsonWriter::object(list).add("name", name);
}

void Api::list_domains(JsonWriter& reply) const {
  JsonWriter list = JsonWriter::array(reply, "domains");
  for (const auto& [name, info] : config_.domains()) {
    JsonWriter entry = JsonWriter::object(list);
    entry.add("name", name);
    entry.add("config", info.pattern);
    entry.add("time_zone", info.time_zone);
  }
}

bool Api::process_cfg_set_command(const JsonReader& command, JsonWriter& reply,
                                  Restarts& restarts) {
  if (!is_object(command, "config")) return false;
  const JsonReader settings = command.child("config");
  const std::string level = text_of(command, "level");
  JsonWriter errors = JsonWriter::array(reply, "invalid_parameters");
  reply.add("operation", "set");
  reply.add("level", level);
  if (level == "global") {
    set_global(settings, errors, restarts);
  } else if (level == "pattern") {
    if (!has_text(settings, "pattern")) return false;
    set_pattern(settings, reply, errors, restarts);
  } else if (level == "domain") {
    if (!has_text(settings, "domain") || !has_text(settings, "pattern")) return false;
    set_domain(settings, errors, restarts);
  }
  return true;
}

void Api::set_global(const JsonReader& settings, JsonWriter& errors, Restarts& restarts) {
  if (!GlobalConfig::validate_global(settings, errors) || !config_.apply_global(settings)) return;
  RRM_LOG(Debug, "Global config changed");
  restarts.mark_all();
}

void Api::set_pattern(const JsonReader& settings, JsonWriter& reply, JsonWriter& errors,
                      Restarts& restarts) {
  const std::string name = text_of(settings, "pattern");
  reply.add("pattern", name);
  bool invalid = false;
  bool changed = false;
  config_.pattern_change(
      name, settings, errors, invalid, changed,
      [&](const std::string& domain, const std::string&) { restarts.mark(domain); });
}

void Api::set_domain(const JsonReader& settings, JsonWriter& errors, Restarts& restarts) {
  const std::string name = text_of(settings, "domain");
  // A command without a time zone leaves the present one.
  DomainInfo info = config_.get_domain_info(name).value_or(DomainInfo{});
  info.pattern = settings.get_str("pattern");
  bool changed = false;
  if (read_time_zone(settings, info, changed, errors)) config_.domain_change(name, info);
  // Clients use this to restart a domain, whatever became of the change.
  restarts.mark(name);
}

bool Api::process_cfg_add_command(const JsonReader& command, JsonWriter& reply,
                                  Restarts& restarts) {
  if (!command.has("config")) return false;
  const JsonReader settings = command.child("config");
  const std::string_view level = command.get_str("level");
  JsonWriter errors = JsonWriter::array(reply, "invalid_parameters");
  reply.add("operation", "add");
  if (level == "pattern") {
    if (!has_name(settings, "pattern")) return false;
    add_pattern(settings, reply, errors, restarts);
  } else if (level == "domain") {
    if (!has_name(settings, "domain") || !has_text(settings, "pattern")) return false;
    add_domain(settings, reply, errors, restarts);
  }
  return true;
}

void Api::add_pattern(const JsonReader& settings, JsonWriter& reply, JsonWriter& errors,
                      Restarts& restarts) {
  const std::string name = text_of(settings, "pattern");
  reply.add("pattern", name);
  bool invalid = false;
  const bool added = config_.pattern_add(name, settings, errors, invalid);
  if (added) form_restart_domains_list(name, restarts);
  // The one text for every failure is what clients know.
  reply.add("add_status", added ? "Success" : "Pattern exists");
}

void Api::add_domain(const JsonReader& settings, JsonWriter& reply, JsonWriter& errors,
                     Restarts& restarts) {
  const std::string name = text_of(settings, "domain");
  reply.add("domain", name);
  DomainInfo info;
  info.pattern = settings.get_str("pattern");
  bool changed = false;
  if (read_time_zone(settings, info, changed, errors) && config_.domain_add(name, info)) {
    restarts.mark(name);
    reply.add("add_status", "Success");
    return;
  }
  reply.add("add_status", "Domain exists or chosen pattern not exists.");
  JsonWriter::object(errors).add("domain", name);
}

bool Api::process_cfg_remove_command(const JsonReader& command, JsonWriter& reply,
                                     Restarts& restarts) {
  const std::string level = text_of(command, "level");
  reply.add("operation", "remove");
  if (level != "domain" && level != "pattern") return true;
  if (!has_name(command, level.c_str())) return false;
  const std::string name = text_of(command, level.c_str());
  reply.add(level, name);
  if (level == "domain")
    remove_domain(name, reply, restarts);
  else
    remove_pattern(name, reply, restarts);
  return true;
}

void Api::remove_domain(const std::string& name, JsonWriter& reply, Restarts& restarts) {
  bool changed = false;
  const bool removed = config_.domain_remove(name, changed);
  if (removed) restarts.mark(name);
  reply.add("remove_status", removed ? 0 : 1);
}

void Api::remove_pattern(const std::string& name, JsonWriter& reply, Restarts& restarts) {
  bool changed = false;
  const bool removed = config_.pattern_remove(
      name, [&](const std::string& domain, const std::string&) { restarts.mark(domain); }, changed);
  reply.add("remove_status", removed ? 0 : 1);
}

void Api::form_restart_domains_list(const std::string& pattern, Restarts& restarts) const {
  for (const auto& [name, info] : config_.domains())
    if (info.pattern == pattern) restarts.mark(name);
}

}  // namespace rrm
