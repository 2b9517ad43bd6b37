#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <shared_mutex>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "server/lib/ConfigDomain.h"
#include "server/lib/ConfigOptions.h"
#include "server/lib/ConfigText.h"
#include "server/lib/JsonReader.h"
#include "server/lib/JsonWriter.h"

namespace rrm {

/// What `GlobalConfig::compare` found, names in ascending order; "common" is the first pattern.
struct ConfigDifference {
  bool global = false;
  std::vector<std::string> patterns_added;    ///< only in the other configuration
  std::vector<std::string> patterns_removed;  ///< only in this one
  std::vector<std::string> patterns_changed;
  std::vector<std::string> domains_added;
  std::vector<std::string> domains_removed;
  std::vector<std::string> domains_changed;  ///< other settings, pattern or time zone
};

/// All settings of the controller and the one JSON file that keeps them.
///
/// Purpose:   global options, the common domain settings, named patterns of domain settings, and
///            the domains, each bound to a pattern and a time zone. Patterns and domains are kept
///            and saved in the order of their names.
/// Threading: management commands change it one after another (they hold a lock of their own) while
///            every other thread reads: each global option is atomic, and the look-ups below lock
///            and return copies. Construction and `common` belong to one thread.
/// Errors:    reading never fails: what is broken, missing or out of range keeps its value. Saving
///            fails silently and leaves the old file. Look-ups of unknown domains throw.
class GlobalConfig {
 public:
  std::atomic<bool> enabled = true;
  std::atomic<std::int32_t> api_port = 8089;
  std::atomic<std::int32_t> cli_api_port = 8082;
  std::atomic<std::int32_t> listen_port = 8099;
  std::atomic<bool> use_https = false;
  ConfigText report_delete_at_time_utc = "21:00";  ///< hours:minutes
  ConfigText reports_path = "/var/lib/tavro-wavelom/reports";
  ConfigText www_path = "/opt/tavro-wavelom/www";
  std::atomic<bool> vrrp_enabled = false;
  std::atomic<std::int32_t> vrrp_timeout = 15;  ///< s
  ConfigText vrrp_backup_path = "/tmp/tavro-wavelom/backup";
  ConfigText vrrp_state_file = "/tmp/keep.mode";
  std::atomic<bool> use_wildcard_80211r = false;

  /// Settings of the domains bound to "common". Touched only before other threads exist; afterwards
  /// read a copy with get_pattern_config("common").
  DomainConfig common;

  /// Called with a domain's name and its pattern.
  using DomainCallback = std::function<void(const std::string&, const std::string&)>;

  /// Defaults, then the text when given, else the file; then the file is rewritten in normal form.
  /// A file that cannot be opened leaves the defaults and is not created; an empty path means none.
  explicit GlobalConfig(std::string path = {}, const char* text = nullptr);
  GlobalConfig(const GlobalConfig&) = delete;
  GlobalConfig& operator=(const GlobalConfig&) = delete;

  // --- the file

  /// Takes a whole document on top of what is here. Known domains keep their settings and receive
  /// the options of their entry; new ones get a copy of their pattern's.
  void load(const JsonReader& document);
  /// Loads the file again; it is not rewritten.
  void reload();
  /// Loads the document only when every value of it is valid.
  /// @param invalid  set when a value is not; then nothing changes
  /// @return whether the document was loaded
  bool validate_and_load(const JsonReader& document, JsonWriter& errors, bool& invalid);
  /// Rewrites the whole file; nothing with an empty path.
  void save() const;
  /// What save() writes.
  std::string to_file_text() const;

  // --- global options

  bool apply_global(const JsonReader& reader);
  static bool validate_global(const JsonReader& reader, JsonWriter& errors);
  void global_to_json(JsonWriter& writer) const;
  bool equals_globally(const GlobalConfig& other) const;

  // --- changes; false when refused. `invalid` is set when options were refused and listed.

  bool pattern_add(const std::string& name, const JsonReader& settings, JsonWriter& errors,
                   bool& invalid);
  /// @param changed  set when a setting received another value
  /// @param restart  called for every domain of the pattern then, without a lock held
  bool pattern_change(const std::string& name, const JsonReader& settings, JsonWriter& errors,
                      bool& invalid, bool& changed, const DomainCallback& restart = {});
  /// Removes the pattern's domains too.
  /// @param restart  called for each of them, once for its settings and its binding
  bool pattern_remove(const std::string& name, const DomainCallback& restart, bool& changed);
  bool domain_add(const std::string& name, const DomainInfo& info);
  bool domain_change(const std::string& name, const DomainInfo& info);
  bool domain_remove(const std::string& name, bool& changed);

  // --- look-ups; all return copies

  /// The common settings for "common"; none when there is no such pattern.
  std::optional<DomainConfig> get_pattern_config(const std::string& name) const;
  /// Throws std::out_of_range: "Domain not found", "Pattern not found", "Domain config not found".
  DomainConfig get_domain_config(const std::string& domain) const;
  std::optional<DomainInfo> get_domain_info(const std::string& domain) const;
  /// Seconds. Throws std::out_of_range "Domain (time zone) not found".
  std::int32_t get_time_zone(const std::string& domain) const;
  bool is_domain_exist(const std::string& domain) const;

  std::vector<std::string> pattern_names() const;  ///< without "common"
  std::map<std::string, DomainInfo> domains() const;
  std::map<std::string, DomainConfig> domain_configs() const;

  const std::string& host_name() const noexcept { return host_name_; }
  const std::string& path() const noexcept { return path_; }

  /// What would change if `other` took the place of this configuration.
  /// @param global_changed  called first when the global options differ
  ConfigDifference compare(const GlobalConfig& other,
                           const std::function<void()>& global_changed = {}) const;

 private:
  void load_pattern(const JsonReader& entry);
  void load_domain(const JsonReader& entry);
  const DomainConfig* find_pattern(const std::string& name) const;
  /// Names of the domains that are bound to a pattern.
  std::vector<std::string> domains_of(const std::string& pattern) const;

  const std::string path_;
  std::string host_name_;
  mutable std::shared_mutex mutex_;  ///< guards common and the maps
  std::map<std::string, DomainConfig> domain_configs_;
  std::map<std::string, DomainConfig> patterns_;
  std::map<std::string, DomainInfo> domains_;
};

/// One global option: its name and what it stores.
struct GlobalOption {
  struct Flag {
    std::atomic<bool> GlobalConfig::*field;
  };
  struct Number {
    std::atomic<std::int32_t> GlobalConfig::*field;
    std::int32_t lowest_read;  ///< reading takes from here to max, validation from min
    std::int32_t min, max;
  };
  struct Text {
    ConfigText GlobalConfig::*field;
  };
  /// Hours and minutes; reading takes any text.
  struct Time {
    ConfigText GlobalConfig::*field;
    std::int32_t min, max;  ///< s
  };

  const char* key;
  std::variant<Flag, Number, Text, Time> kind;
};

/// All global options in the order in which they are written.
std::span<const GlobalOption> global_options() noexcept;

}  // namespace rrm
