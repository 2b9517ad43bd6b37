#include "tools/ctl/ConfigCheck.h"

#include <algorithm>
#include <array>
#include <set>
#include <string_view>

#include "json/JsonError.h"
#include "json/JsonParser.h"
#include "json/JsonSerializer.h"
#include "server/lib/Config.h"
#include "server/lib/JsonReader.h"
#include "server/lib/JsonWriter.h"
#include "tools/ctl/OptionRange.h"

namespace rrm::ctl {
namespace {

using yajson::JsonValue;

constexpr std::string_view kSections[] = {"version", "global", "common", "domains", "patterns"};
constexpr std::string_view kDomainKeys[] = {"domain", "pattern", "time_zone"};
constexpr char kCommon[] = "common";

template <class Options>
auto find_option(const Options& options, std::string_view key) {
  return std::find_if(options.begin(), options.end(),
                      [key](const auto& option) { return key == option.key; });
}

/// A document that holds one member only.
JsonReader alone(std::string_view key, const JsonValue& value) {
  JsonWriter document;
  document.add(key, value);
  return JsonReader(document.c_str());
}

/// The value that the controller keeps for a key after reading this document.
std::string kept_globally(const JsonReader& document, const char* key) {
  GlobalConfig config;
  config.apply_global(document);
  JsonWriter stored;
  config.global_to_json(stored);
  return yajson::serialize(*stored.resolve().find(key));
}

std::string kept_in_domain(const JsonReader& document, const char* key) {
  DomainConfig config;
  config.apply(document);
  JsonWriter stored;
  config.to_json(stored);
  return yajson::serialize(*stored.resolve().find(key));
}

template <class Option>
bool is_flag(const Option& option) {
  return std::holds_alternative<typename Option::Flag>(option.kind);
}

template <class Option>
bool wants_text(const Option& option) {
  return !is_flag(option) && !std::holds_alternative<typename Option::Number>(option.kind);
}

/// The digits of a whole number, however it is written and however many there are.
std::string number_of(const JsonValue& value) {
  std::string text = value.is_string() ? std::string(value.as_string()) : yajson::serialize(value);
  if (text == "true") return "1";
  if (text == "false") return "0";
  const bool negative = text.starts_with('-');
  const std::size_t first = text.find_first_not_of("+-0");
  if (first == std::string::npos) return "0";
  return (negative ? "-" : "") + text.substr(first);
}

/// Whether the value is a whole number, written as one, as a text or as true or false.
bool is_integer(const JsonValue& value) {
  if (value.is_null() || value.is_array() || value.is_object()) return false;
  const std::string text =
      value.is_string() ? std::string(value.as_string()) : yajson::serialize(value);
  if (text == "true" || text == "false") return !value.is_string();
  const std::size_t sign = !text.empty() && (text[0] == '-' || text[0] == '+') ? 1 : 0;
  return text.size() > sign && text.find_first_not_of("0123456789", sign) == std::string::npos;
}

/// The message of a parser names the byte that it met, which may be a part of a character only.
std::string ascii(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](char c) { return (c & 0x80) != 0; }, '?');
  return text;
}

/// The keys of a JSON text that stand in their object already, with where they stand again.
///
/// Takes text that was parsed: only quotes, brackets and separators are looked at.
class RepeatedKeys {
 public:
  explicit RepeatedKeys(const std::string& text) : text_(text) {}

  std::vector<Finding> find() {
    for (at_ = 0; at_ < text_.size(); ++at_) {
      const char character = text_[at_];
      if (character == '{' || character == '[') open(character == '{');
      if (character == '}' || character == ']') objects_.pop_back();
      if (character == ',' && objects_.back().is_object) objects_.back().key_follows = true;
      if (character == '"') take_text();
      if (character == '\n') {
        ++line_;
        line_start_ = at_ + 1;
      }
    }
    return std::move(findings_);
  }

 private:
  struct Level {
    bool is_object;
    bool key_follows;
    std::set<std::string> keys;
  };

  void open(bool is_object) { objects_.push_back({is_object, is_object, {}}); }

  void take_text() {
    const std::size_t begin = at_++;
    while (text_[at_] != '"') at_ += text_[at_] == '\\' ? 2 : 1;
    if (objects_.empty() || !objects_.back().key_follows) return;
    objects_.back().key_follows = false;
    // One key can be written in several ways, with escapes and without.
    const JsonValue key = yajson::parse(text_.substr(begin, at_ + 1 - begin));
    if (objects_.back().keys.insert(std::string(key.as_string())).second) return;
    findings_.push_back(
        {"line " + std::to_string(line_) + ", column " + std::to_string(begin - line_start_ + 1),
         "'" + std::string(key.as_string()) + "' stands twice in its object; the last one counts"});
  }

  const std::string& text_;
  std::size_t at_ = 0;
  std::size_t line_ = 1;
  std::size_t line_start_ = 0;
  std::vector<Level> objects_;
  std::vector<Finding> findings_;
};

class Checker {
 public:
  std::vector<Finding> run(std::string text) {
    if (const std::size_t end = text.find('\0'); end != std::string::npos) {
      find("file", "a NUL byte ends what is read of it");
      text.resize(end);
    }
    if (text.find_first_not_of(" \t\r\n") == std::string::npos) {
      find("file", "empty, so every setting has its default");
      return std::move(findings_);
    }
    JsonValue document;
    try {
      yajson::ParseOptions options;
      options.allow_duplicate_keys = true;
      document = yajson::parse(text, options);
    } catch (const yajson::ParseError& error) {
      find("file", "no JSON, so every setting has its default: " + ascii(error.what()));
      return std::move(findings_);
    }
    for (Finding& repeated : RepeatedKeys(text).find()) findings_.push_back(std::move(repeated));
    if (document.is_object())
      check_document(document);
    else
      find("file", "no JSON object, so every setting has its default");
    return std::move(findings_);
  }

 private:
  void find(std::string where, std::string what) {
    findings_.push_back({std::move(where), std::move(what)});
  }

  void check_document(const JsonValue& document) {
    for (const auto& member : document.members())
      if (std::find(std::begin(kSections), std::end(kSections), member.key()) ==
          std::end(kSections))
        find(std::string(member.key()), "unknown, ignored");
    check_version(document);
    if (const JsonValue* global = section(document, "global")) check_global(*global);
    if (const JsonValue* common = section(document, kCommon))
      check_domain_options(kCommon, *common);
    check_patterns(document);
    check_domains(document);
  }

  void check_version(const JsonValue& document) {
    const JsonValue* version = document.find("version");
    if (version == nullptr) return;
    const std::string written = yajson::serialize(*version);
    if (written != "\"2.1\"")
      find("version", written + " is ignored; the controller writes \"2.1\"");
  }

  const JsonValue* section(const JsonValue& document, const char* key) {
    const JsonValue* value = document.find(key);
    if (value == nullptr || value->is_object()) return value;
    find(key, "no object, ignored");
    return nullptr;
  }

  /// The objects of a list, each with its place.
  std::vector<std::pair<std::string, const JsonValue*>> list(const JsonValue& document,
                                                             const std::string& key) {
    std::vector<std::pair<std::string, const JsonValue*>> entries;
    const JsonValue* value = document.find(key);
    if (value == nullptr) return entries;
    if (!value->is_array()) {
      find(key, "no array, ignored");
      return entries;
    }
    std::size_t number = 0;
    for (const JsonValue& entry : value->elements()) {
      const std::string where = key + "[" + std::to_string(number++) + "]";
      if (entry.is_object())
        entries.emplace_back(where, &entry);
      else
        find(where, "no object");
    }
    return entries;
  }

  template <class Options, class Kept, class Validate>
  void check_option(const std::string& where, const Options& options, std::string_view key,
                    const JsonValue& value, Kept kept, Validate validate) {
    const auto option = find_option(options, key);
    const std::string place = where + "." + std::string(key);
    if (option == options.end()) return find(place, "unknown, ignored");
    const std::string written = yajson::serialize(value);
    const JsonReader document = alone(key, value);
    const std::string stored = kept(document, option->key);
    const std::string instead = "; the controller takes " + stored;
    if (wants_text(*option) && !value.is_string())
      return find(place, written + " is no text" + instead);
    if (!wants_text(*option) && !is_integer(value))
      return find(place, written + " is no whole number" + instead);
    JsonWriter errors;
    JsonWriter refused = JsonWriter::array(errors, "errors");
    const bool valid = validate(document, refused);
    const bool taken = stored == (wants_text(*option) ? written : number_of(value));
    if (!valid || !taken)
      find(place, written + " is out of range (" + range_of(*option) + ")" + instead);
  }

  void check_global(const JsonValue& global) {
    for (const auto& member : global.members())
      check_option("global", global_options(), member.key(), member.value, kept_globally,
                   GlobalConfig::validate_global);
  }

  void check_domain_options(const std::string& where, const JsonValue& settings,
                            std::string_view name_key = {}) {
    for (const auto& member : settings.members()) {
      if (member.key() == name_key) continue;
      // The two limits of clients bound each other and are judged together below.
      const auto validate = [&](const JsonReader& document, JsonWriter& errors) {
        return is_client_limit(member.key()) || DomainConfig::validate(document, errors);
      };
      check_option(where, domain_options(), member.key(), member.value, kept_in_domain, validate);
    }
    check_client_limits(where, settings);
  }

  static bool is_client_limit(std::string_view key) {
    return key == "load_balance_sta_low" || key == "load_balance_sta_high";
  }

  void check_client_limits(const std::string& where, const JsonValue& settings) {
    JsonWriter document;
    document.add("settings", settings);
    DomainConfig config;
    config.apply(JsonReader(document.c_str()).child("settings"));
    if (config.load_balance_sta_low > config.load_balance_sta_high)
      find(where, "load_balance_sta_low " + std::to_string(config.load_balance_sta_low) +
                      " is above load_balance_sta_high " +
                      std::to_string(config.load_balance_sta_high));
  }

  /// A text as the controller reads it: up to its first NUL, empty when it is none.
  std::string text_in(const std::string& where, const JsonValue& entry, const char* key) {
    const JsonValue* value = entry.find(key);
    if (value == nullptr || !value->is_string()) return {};
    const std::string_view text = value->as_string();
    const std::size_t end = text.find('\0');
    if (end != std::string_view::npos) find(where + "." + key, "is read up to its NUL only");
    return std::string(text.substr(0, end));
  }

  /// The name of an entry, which no entry before it should have.
  std::string own_name(const std::string& where, const JsonValue& entry, const char* key,
                       std::set<std::string>& names, const char* which_counts) {
    std::string name = text_in(where, entry, key);
    const bool is_new = names.insert(name).second;
    if (name.empty())
      find(where, std::string("has no \"") + key + "\"");
    else if (!is_new)
      find(where + "." + key, "'" + name + "' stands twice; " + which_counts);
    return name;
  }

  void check_patterns(const JsonValue& document) {
    for (const auto& [where, entry] : list(document, "patterns")) {
      if (own_name(where, *entry, "pattern", patterns_, "the last one counts") == kCommon)
        find(where + ".pattern", "'common' means the section \"common\"; this one is never used");
      check_domain_options(where, *entry, "pattern");
    }
  }

  void check_domains(const JsonValue& document) {
    std::set<std::string> names;
    for (const auto& [where, entry] : list(document, "domains")) {
      const std::string name =
          own_name(where, *entry, "domain", names,
                   "the last one counts, but with the settings of the first until the next start");
      if (name.find('/') != std::string::npos)
        find(where + ".domain", "'" + name + "' holds a '/': it has no backups and no reports");
      for (const auto& member : entry->members())
        if (std::find(std::begin(kDomainKeys), std::end(kDomainKeys), member.key()) ==
            std::end(kDomainKeys))
          find(where + "." + std::string(member.key()), "ignored: settings belong to a pattern");
      check_binding(where, *entry);
    }
  }

  void check_binding(const std::string& where, const JsonValue& entry) {
    const std::string name = text_in(where, entry, "pattern");
    if (name != kCommon && !patterns_.contains(name))
      find(where + ".pattern", "there is no pattern '" + name + "', so the domain is not served");
    const JsonValue* zone = entry.find("time_zone");
    // The controller itself writes an empty one for a domain without.
    if (zone == nullptr || (zone->is_string() && zone->as_string().empty())) return;
    DomainInfo info;
    bool changed = false;
    JsonWriter errors;
    JsonWriter refused = JsonWriter::array(errors, "errors");
    if (!read_time_zone(alone("time_zone", *zone), info, changed, refused))
      find(where + ".time_zone", yajson::serialize(*zone) +
                                     " is out of range (-12:00 to +14:00); the controller takes "
                                     "UTC");
  }

  std::vector<Finding> findings_;
  std::set<std::string> patterns_;
};

}  // namespace

std::vector<Finding> check_config(const std::string& text) { return Checker().run(text); }

std::string to_json(const std::vector<Finding>& findings) {
  JsonWriter document;
  JsonWriter list = JsonWriter::array(document, "findings");
  for (const Finding& finding : findings) {
    JsonWriter entry = JsonWriter::object(list);
    entry.add("where", finding.where);
    entry.add("what", finding.what);
  }
  return document.str();
}

}  // namespace rrm::ctl
