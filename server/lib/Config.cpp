#include "server/lib/Config.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <limits>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "server/lib/ConfigFile.h"
#include "server/lib/Hooks.h"
#include "server/lib/Overloaded.h"

namespace rrm {
namespace {

using Flag = GlobalOption::Flag;
using Number = GlobalOption::Number;
using Text = GlobalOption::Text;
using Time = GlobalOption::Time;
using G = GlobalConfig;

constexpr char kFileVersion[] = "2.1";
constexpr char kCommon[] = "common";

constexpr std::int32_t kAny = std::numeric_limits<std::int32_t>::min();
constexpr std::int32_t kLastPort = 65535;
constexpr std::int32_t kLastMinute_s = 23 * 3600 + 59 * 60;

constexpr GlobalOption kOptions[] = {
    {"enabled", Flag{&G::enabled}},
    {"api_port", Number{&G::api_port, kAny, 0, kLastPort}},
    {"cli_api_port", Number{&G::cli_api_port, kAny, 0, kLastPort}},
    {"listen_port", Number{&G::listen_port, kAny, 0, kLastPort}},
    {"use_https", Flag{&G::use_https}},
    {"report_delete_at_time_utc", Time{&G::report_delete_at_time_utc, 0, kLastMinute_s}},
    {"reports_path", Text{&G::reports_path}},
    {"www_path", Text{&G::www_path}},
    {"vrrp_enabled", Flag{&G::vrrp_enabled}},
    {"vrrp_timeout", Number{&G::vrrp_timeout, 1, 1, 60}},
    {"vrrp_backup_path", Text{&G::vrrp_backup_path}},
    {"vrrp_state_file", Text{&G::vrrp_state_file}},
    {"use_wildcard_80211r", Flag{&G::use_wildcard_80211r}},
};

// The order in which faults are listed; the plain texts have none.
constexpr std::string_view kValidationOrder[] = {
    "enabled",      "use_https",           "api_port",
    "listen_port",  "cli_api_port",        "vrrp_enabled",
    "vrrp_timeout", "use_wildcard_80211r", "report_delete_at_time_utc",
};

const GlobalOption& option(std::string_view key) {
  return *std::find_if(std::begin(kOptions), std::end(kOptions),
                       [key](const GlobalOption& row) { return key == row.key; });
}

template <class Value, class NewValue>
bool replace(Value& field, NewValue value) {
  if (NewValue(field) == value) return false;
  field = std::move(value);
  return true;
}

bool apply_option(GlobalConfig& config, const GlobalOption& row, const JsonReader& reader) {
  const auto apply_text = [&](ConfigText G::*field) {
    return has_text(reader, row.key) &&
           replace(config.*field, std::string(reader.get_str(row.key)));
  };
  return std::visit(Overloaded{[&](const Flag& flag) {
                                 return replace(config.*flag.field, reader.get_int(row.key) != 0);
                               },
                               [&](const Number& number) {
                                 const std::int32_t value = reader.get_int(row.key);
                                 return value >= number.lowest_read && value <= number.max &&
                                        replace(config.*number.field, value);
                               },
                               [&](const Text& text) { return apply_text(text.field); },
                               [&](const Time& time) { return apply_text(time.field); }},
                    row.kind);
}

void validate_option(const GlobalOption& row, const JsonReader& reader, bool& invalid,
                     JsonWriter& errors) {
  std::visit(Overloaded{[&](const Flag&) { validate_int_opt(reader, row.key, invalid, errors); },
                        [&](const Number& number) {
                          validate_int_opt(reader, row.key, number.max, number.min, invalid,
                                           errors);
                        },
                        [](const Text&) {},
                        [&](const Time& time) {
                          validate_time_opt(reader, row.key, time.max, time.min, invalid, errors);
                        }},
             row.kind);
}

std::string own_host_name() {
  char name[1024] = {};
  if (::gethostname(name, sizeof(name) - 1) != 0) return {};
  return name;
}

/// Sorts the names of two maps into added, removed and changed ones.
template <class Map, class Differs>
void compare_names(const Map& ours, const Map& theirs, const Differs& differs,
                   std::vector<std::string>& added, std::vector<std::string>& removed,
                   std::vector<std::string>& changed) {
  for (const auto& [name, value] : ours) {
    if (!theirs.contains(name))
      removed.push_back(name);
    else if (differs(name))
      changed.push_back(name);
  }
  for (const auto& [name, value] : theirs)
    if (!ours.contains(name)) added.push_back(name);
}

template <class Map>
bool same_entry(const Map& ours, const Map& theirs, const std::string& name) {
  const auto our = ours.find(name);
  const auto their = theirs.find(name);
  if (our == ours.end() || their == theirs.end()) return our == ours.end() && their == theirs.end();
  return our->second == their->second;
}

}  // namespace

std::span<const GlobalOption> global_options() noexcept { return kOptions; }

GlobalConfig::GlobalConfig(std::string path, const char* text)
    : path_(std::move(path)), host_name_(own_host_name()) {
  if (text != nullptr) {
    load(JsonReader(text));
  } else if (!path_.empty()) {
    const int file = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0) return;
    load(JsonReader(FileDescriptor{file}));
    ::close(file);
  }
  save();
}

void GlobalConfig::reload() {
  if (path_.empty()) return;
  const int file = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0) return;
  load(JsonReader(FileDescriptor{file}));
  ::close(file);
}

void GlobalConfig::load(const JsonReader& document) {
  apply_global(document.child("global"));
  const std::unique_lock lock(mutex_);
  common.apply(document.child(kCommon));
  const JsonReader patterns = document.child("patterns");
  for (std::size_t i = 0; i < patterns.size(); ++i)
    load_pattern(patterns.child(static_cast<int>(i)));
  const JsonReader domains = document.child("domains");
  for (std::size_t i = 0; i < domains.size(); ++i) load_domain(domains.child(static_cast<int>(i)));
}

void GlobalConfig::load_pattern(const JsonReader& entry) {
  DomainConfig config;
  config.apply(entry);
  patterns_.insert_or_assign(entry.get_str("pattern"), config);
}

void GlobalConfig::load_domain(const JsonReader& entry) {
  const std::string name = entry.get_str("domain");
  DomainInfo info;
  info.pattern = entry.get_str("pattern");
  JsonWriter errors;
  JsonWriter list = JsonWriter::array(errors, "errors");
  bool changed = false;
  read_time_zone(entry, info, changed, list);
  if (const auto known = domain_configs_.find(name); known != domain_configs_.end())
    known->second.apply(entry);
  else if (const DomainConfig* pattern = find_pattern(info.pattern))
    domain_configs_.emplace(name, *pattern);
  // Without its pattern a domain has no settings until the pattern appears.
  domains_.insert_or_assign(name, std::move(info));
}

bool GlobalConfig::validate_and_load(const JsonReader& document, JsonWriter& errors,
                                     bool& invalid) {
  bool valid = validate_global(document.child("global"), errors);
  valid = DomainConfig::validate(document.child(kCommon), errors) && valid;
  const JsonReader patterns = document.child("patterns");
  for (std::size_t i = 0; i < patterns.size(); ++i)
    valid = DomainConfig::validate(patterns.child(static_cast<int>(i)), errors) && valid;
  const JsonReader domains = document.child("domains");
  for (std::size_t i = 0; i < domains.size(); ++i) {
    DomainInfo scratch;
    bool changed = false;
    valid = read_time_zone(domains.child(static_cast<int>(i)), scratch, changed, errors) && valid;
  }
  if (!valid) {
    invalid = true;
    return false;
  }
  load(document);
  return true;
}

void GlobalConfig::save() const {
  if (path_.empty()) return;
  replace_file(path_, to_file_text());
}

std::string GlobalConfig::to_file_text() const {
  JsonWriter document(kFileVersion);
  {
    JsonWriter global = JsonWriter::object(document, "global");
    global_to_json(global);
  }
  const std::shared_lock lock(mutex_);
  {
    JsonWriter settings = JsonWriter::object(document, kCommon);
    common.to_json(settings);
  }
  JsonWriter domains = JsonWriter::array(document, "domains");
  for (const auto& [name, info] : domains_) {
    JsonWriter entry = JsonWriter::object(domains);
    entry.add("domain", name);
    entry.add("pattern", info.pattern);
    entry.add("time_zone", info.time_zone);
  }
  JsonWriter patterns = JsonWriter::array(document, "patterns");
  for (const auto& [name, config] : patterns_) {
    JsonWriter entry = JsonWriter::object(patterns);
    entry.add("pattern", name);
    config.to_json(entry);
  }
  return std::string(document.pretty_str()) + "\n";
}

bool GlobalConfig::apply_global(const JsonReader& reader) {
  bool changed = false;
  for (const GlobalOption& row : kOptions)
    if (reader.has(row.key) && apply_option(*this, row, reader)) changed = true;
  return changed;
}

bool GlobalConfig::validate_global(const JsonReader& reader, JsonWriter& errors) {
  bool invalid = false;
  for (const std::string_view key : kValidationOrder)
    validate_option(option(key), reader, invalid, errors);
  return !invalid;
}

void GlobalConfig::global_to_json(JsonWriter& writer) const {
  for (const auto& entry : kOptions) {
    const char* key = entry.key;
    std::visit(
        Overloaded{[&](const Flag& flag) { writer.add(key, (this->*flag.field).load()); },
                   [&](const Number& number) { writer.add(key, (this->*number.field).load()); },
                   [&](const auto& text) { writer.add(key, (this->*text.field).get()); }},
        entry.kind);
  }
}

bool GlobalConfig::equals_globally(const GlobalConfig& other) const {
  return std::all_of(std::begin(kOptions), std::end(kOptions), [&](const GlobalOption& row) {
    return std::visit(
        Overloaded{[&](const Flag& flag) { return this->*flag.field == other.*flag.field; },
                   [&](const Number& number) { return this->*number.field == other.*number.field; },
                   [&](const auto& text) {
                     return (this->*text.field).get() == (other.*text.field).get();
                   }},
        row.kind);
  });
}

const DomainConfig* GlobalConfig::find_pattern(const std::string& name) const {
  if (name == kCommon) return &common;
  const auto found = patterns_.find(name);
  return found == patterns_.end() ? nullptr : &found->second;
}

std::vector<std::string> GlobalConfig::domains_of(const std::string& pattern) const {
  std::vector<std::string> names;
  for (const auto& [name, info] : domains_)
    if (info.pattern == pattern) names.push_back(name);
  return names;
}

bool GlobalConfig::pattern_add(const std::string& name, const JsonReader& settings,
                               JsonWriter& errors, bool& invalid) {
  const std::unique_lock lock(mutex_);
  if (find_pattern(name) != nullptr) return false;
  if (!DomainConfig::validate(settings, errors)) {
    invalid = true;
    return false;
  }
  DomainConfig config;
  config.apply(settings);
  patterns_.emplace(name, config);
  // Domains of a file that lacked this pattern have waited for it.
  for (const std::string& domain : domains_of(name)) domain_configs_.emplace(domain, config);
  RRM_LOG(Debug, "Config pattern '%s' was successfully added.", name.c_str());
  return true;
}

bool GlobalConfig::pattern_change(const std::string& name, const JsonReader& settings,
                                  JsonWriter& errors, bool& invalid, bool& changed,
                                  const DomainCallback& restart) {
  std::vector<std::string> affected;
  {
    const std::unique_lock lock(mutex_);
    DomainConfig* config = const_cast<DomainConfig*>(find_pattern(name));
    if (config == nullptr) return false;
    if (!DomainConfig::validate(settings, errors)) {
      invalid = true;
      return false;
    }
    if (!config->apply(settings)) return true;
    changed = true;
    affected = domains_of(name);
    for (const std::string& domain : affected) domain_configs_.insert_or_assign(domain, *config);
  }
  RRM_LOG(Debug, name == kCommon ? "Pattern %s was changed" : "Pattern '%s' was changed",
          name.c_str());
  if (restart)
    for (const std::string& domain : affected) restart(domain, name);
  return true;
}

bool GlobalConfig::pattern_remove(const std::string& name, const DomainCallback& restart,
                                  bool& changed) {
  std::vector<std::string> affected;
  {
    const std::unique_lock lock(mutex_);
    if (!patterns_.contains(name)) return false;
    affected = domains_of(name);
    for (const std::string& domain : affected) {
      if (domain_configs_.erase(domain) == 0) continue;
      RRM_LOG(Debug, "Domain '%s' with pattern '%s' removed from map.", domain.c_str(),
              name.c_str());
    }
    for (const std::string& domain : affected) {
      domains_.erase(domain);
      RRM_LOG(Debug, "Domain '%s' with pattern '%s' removed from domain_map.", domain.c_str(),
              name.c_str());
    }
    patterns_.erase(name);
    changed = true;
    RRM_LOG(Debug, "Pattern '%s' was successfully removed.", name.c_str());
  }
  if (restart)
    for (const std::string& domain : affected) restart(domain, name);
  return true;
}

bool GlobalConfig::domain_add(const std::string& name, const DomainInfo& info) {
  const std::unique_lock lock(mutex_);
  const DomainConfig* pattern = find_pattern(info.pattern);
  if (domains_.contains(name) || pattern == nullptr) return false;
  domain_configs_.insert_or_assign(name, *pattern);
  domains_.emplace(name, info);
  RRM_LOG(Debug, "Domain '%s' was successfully added.", name.c_str());
  return true;
}

bool GlobalConfig::domain_change(const std::string& name, const DomainInfo& info) {
  const std::unique_lock lock(mutex_);
  const auto domain = domains_.find(name);
  const DomainConfig* pattern = find_pattern(info.pattern);
  if (domain == domains_.end() || pattern == nullptr) return false;
  domain->second = info;
  domain_configs_.insert_or_assign(name, *pattern);
  RRM_LOG(Debug, "Domain '%s' was changed", name.c_str());
  return true;
}

bool GlobalConfig::domain_remove(const std::string& name, bool& changed) {
  const std::unique_lock lock(mutex_);
  if (domains_.erase(name) == 0) return false;
  domain_configs_.erase(name);
  changed = true;
  RRM_LOG(Debug, "Domain '%s' was successfully removed.", name.c_str());
  return true;
}

std::optional<DomainConfig> GlobalConfig::get_pattern_config(const std::string& name) const {
  const std::shared_lock lock(mutex_);
  const DomainConfig* config = find_pattern(name);
  return config == nullptr ? std::nullopt : std::optional(*config);
}

DomainConfig GlobalConfig::get_domain_config(const std::string& domain) const {
  const std::shared_lock lock(mutex_);
  const auto info = domains_.find(domain);
  if (info == domains_.end()) throw std::out_of_range("Domain not found");
  if (find_pattern(info->second.pattern) == nullptr) throw std::out_of_range("Pattern not found");
  const auto config = domain_configs_.find(domain);
  if (config == domain_configs_.end()) throw std::out_of_range("Domain config not found");
  return config->second;
}

std::optional<DomainInfo> GlobalConfig::get_domain_info(const std::string& domain) const {
  const std::shared_lock lock(mutex_);
  const auto info = domains_.find(domain);
  return info == domains_.end() ? std::nullopt : std::optional(info->second);
}

std::int32_t GlobalConfig::get_time_zone(const std::string& domain) const {
  const std::shared_lock lock(mutex_);
  const auto info = domains_.find(domain);
  if (info == domains_.end()) throw std::out_of_range("Domain (time zone) not found");
  return info->second.time_zone_s;
}

bool GlobalConfig::is_domain_exist(const std::string& domain) const {
  const std::shared_lock lock(mutex_);
  if (!domains_.contains(domain)) {
    RRM_LOG(Trace, "Domain \"%s\" not found", domain.c_str());
    return false;
  }
  RRM_LOG(Trace, "Domain \"%s\" success found", domain.c_str());
  return true;
}

std::vector<std::string> GlobalConfig::pattern_names() const {
  const std::shared_lock lock(mutex_);
  std::vector<std::string> names;
  for (const auto& [name, config] : patterns_) names.push_back(name);
  return names;
}

std::map<std::string, DomainInfo> GlobalConfig::domains() const {
  const std::shared_lock lock(mutex_);
  return domains_;
}

std::map<std::string, DomainConfig> GlobalConfig::domain_configs() const {
  const std::shared_lock lock(mutex_);
  return domain_configs_;
}

ConfigDifference GlobalConfig::compare(const GlobalConfig& other,
                                       const std::function<void()>& global_changed) const {
  ConfigDifference found;
  if (&other == this) return found;
  found.global = !equals_globally(other);
  if (found.global && global_changed) global_changed();
  std::shared_lock ours(mutex_, std::defer_lock);
  std::shared_lock theirs(other.mutex_, std::defer_lock);
  std::lock(ours, theirs);
  if (common != other.common) found.patterns_changed.emplace_back(kCommon);
  compare_names(
      patterns_, other.patterns_,
      [&](const std::string& name) { return !same_entry(patterns_, other.patterns_, name); },
      found.patterns_added, found.patterns_removed, found.patterns_changed);
  compare_names(
      domains_, other.domains_,
      [&](const std::string& name) {
        return !same_entry(domains_, other.domains_, name) ||
               !same_entry(domain_configs_, other.domain_configs_, name);
      },
      found.domains_added, found.domains_removed, found.domains_changed);
  return found;
}

}  // namespace rrm
