#include "tools/ctl/Commands.h"

#include <algorithm>
#include <charconv>
#include <functional>
#include <memory>
#include <stdexcept>

#include "server/lib/Config.h"
#include "server/lib/JsonWriter.h"
#include "server/lib/Overloaded.h"
#include "tools/FiniteNumber.h"

namespace rrm::ctl {
namespace {

enum class Level { Global, Domain };

/// A command object within its envelope.
class Request {
 public:
  explicit Request(const char* envelope) : command_(JsonWriter::object(document_, envelope)) {}
  JsonWriter& command() { return command_; }
  std::string text() const { return document_.str(); }

 private:
  JsonWriter document_;
  JsonWriter command_;
};

/// A "cfg" command.
class CfgRequest : public Request {
 public:
  CfgRequest(const char* operation, const char* level) : Request("cfg") {
    command().add("operation", operation);
    command().add("level", level);
  }
};

// --- key=value ----------------------------------------------------------------------------------

[[noreturn]] void refuse(const std::string& what) { throw CLI::ValidationError(what); }

void add_flag_value(JsonWriter& config, const std::string& key, const std::string& value) {
  static constexpr std::string_view kOn[] = {"1", "on", "true", "yes"};
  static constexpr std::string_view kOff[] = {"0", "off", "false", "no"};
  if (std::find(std::begin(kOn), std::end(kOn), value) != std::end(kOn))
    config.add(key, 1);
  else if (std::find(std::begin(kOff), std::end(kOff), value) != std::end(kOff))
    config.add(key, 0);
  else
    refuse(key + " is on or off, not " + value);
}

void add_number(JsonWriter& config, const std::string& key, const std::string& value) {
  std::int32_t number = 0;
  const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), number);
  if (error != std::errc() || end != value.data() + value.size())
    refuse(key + " is a number, not " + value);
  config.add(key, number);
}

/// The kind of an option decides how its value is written; the controller checks the range.
template <class Options>
void add_setting(JsonWriter& config, const Options& options, const std::string& setting) {
  const std::size_t equals = setting.find('=');
  if (equals == std::string::npos) refuse(setting + " has no '='");
  const std::string key = setting.substr(0, equals);
  const std::string value = setting.substr(equals + 1);
  const auto row = std::find_if(options.begin(), options.end(),
                                [&](const auto& option) { return key == option.key; });
  if (row == options.end()) refuse("there is no option " + key);
  using Option = std::decay_t<decltype(*row)>;
  std::visit(Overloaded{[&](const typename Option::Flag&) { add_flag_value(config, key, value); },
                        [&](const typename Option::Number&) { add_number(config, key, value); },
                        [&](const auto&) { config.add(key, value); }},
             row->kind);
}

void add_settings(JsonWriter& config, Level level, const std::vector<std::string>& settings) {
  for (const std::string& setting : settings)
    if (level == Level::Global)
      add_setting(config, global_options(), setting);
    else
      add_setting(config, domain_options(), setting);
}

// --- the command line ---------------------------------------------------------------------------

using Build = std::function<void(Invocation&)>;

/// Adds a command that runs `build` when it was chosen.
CLI::App* command(CLI::App* group, const char* name, const char* help, Invocation& invocation,
                  Build build) {
  CLI::App* added = group->add_subcommand(name, help);
  added->callback([&invocation, build = std::move(build)] { build(invocation); });
  return added;
}

CLI::App* group_of(CLI::App& app, const char* name, const char* help) {
  CLI::App* group = app.add_subcommand(name, help);
  group->require_subcommand(1);
  return group;
}

void take_domain(CLI::App* command, Invocation& invocation) {
  command->add_option("DOMAIN", invocation.domain, "Name of a domain")->required();
}

void take_pattern(CLI::App* command, Invocation& invocation) {
  command->add_option("PATTERN", invocation.pattern, "Name of a pattern, or common")->required();
}

CLI::Option* take_settings(CLI::App* command, Invocation& invocation) {
  return command->add_option("SETTING", invocation.settings,
                             "key=value of the configuration file; flags take on and off");
}

void take_binding(CLI::App* command, Invocation& invocation) {
  command->add_option("--pattern", invocation.pattern, "Its settings: a pattern, or common")
      ->required();
  command->add_option("--time-zone", invocation.time_zone,
                      "Hours:minutes from UTC, -12:00 to +14:00");
}

void add_binding(JsonWriter& config, const Invocation& invocation) {
  config.add("domain", invocation.domain);
  config.add("pattern", invocation.pattern);
  if (!invocation.time_zone.empty()) config.add("time_zone", invocation.time_zone);
}

void define_state_commands(CLI::App& app, Invocation& invocation) {
  command(&app, "status", "Running domains and how many access points they have", invocation,
          [](Invocation& i) { i.request = R"({"rrm":{}})"; });
  CLI::App* show = command(&app, "show", "Details of a running domain and its access points",
                           invocation, [](Invocation& i) {
                             i.request = domain_request(i.domain);
                             i.hidden_members.emplace_back("radios");
                           });
  take_domain(show, invocation);
  CLI::App* ap = command(&app, "ap", "State of one access point", invocation, [](Invocation& i) {
    Request request("rrm");
    request.command().add("domain", i.domain);
    request.command().add("ap", i.mac);
    if (i.links) JsonWriter::object(request.command(), "fbt-links");
    i.request = request.text();
  });
  take_domain(ap, invocation);
  ap->add_option("MAC", invocation.mac, "Its MAC address, with colons")->required();
  ap->add_flag("--links", invocation.links, "Its VAPs with their 802.11r keys and links instead");
  CLI::App* optimize = command(&app, "optimize", "Start a planning round of a domain", invocation,
                               [](Invocation& i) {
                                 i.request = start_request(i.domain);
                                 i.failure = kNotStarted;
                               });
  take_domain(optimize, invocation);
  CLI::App* watch =
      command(&app, "watch", "Follow the planning round of a domain to its end", invocation,
              [](Invocation& i) { i.action = Invocation::Action::Watch; });
  take_domain(watch, invocation);
  watch->add_flag("--start", invocation.start, "Start a round first");
  watch->add_option("--interval", invocation.interval_s, "Seconds between two looks")
      ->check(CLI::Range(0.1, 60.0))
      ->check(tools::finite())
      ->capture_default_str();
  watch->add_option("--for", invocation.watch_timeout_s, "Seconds after which it gives up")
      ->check(CLI::Range(1.0, 86400.0))
      ->check(tools::finite())
      ->capture_default_str();
}

void define_session_commands(CLI::App& app, Invocation& invocation) {
  CLI::App* session = group_of(app, "session", "Websocket sessions of the access points");
  command(session, "list", "All sessions with their peers", invocation,
          [](Invocation& i) { i.request = kListSessions; });
  CLI::App* drop = command(session, "drop", "Close sessions", invocation, [](Invocation& i) {
    Request request("rrm");
    request.command().add("drop_session", 1);
    JsonWriter ids = JsonWriter::array(request.command(), "ids");
    for (const std::uint32_t id : i.sessions) ids.add({}, id);
    i.request = request.text();
  });
  drop->add_option("ID", invocation.sessions, "Their numbers")->required();
}

constexpr char kNoReports[] =
    "there is no such domain, a time is not as it should be, or a report cannot be read";

void define_report_commands(CLI::App& app, Invocation& invocation) {
  CLI::App* report = group_of(app, "report", "Reports of planning rounds");
  CLI::App* list =
      command(report, "list", "Reports of a time window", invocation, [](Invocation& i) {
        Request request("rrm");
        request.command().add("domain", i.domain);
        JsonWriter window = JsonWriter::object(request.command(), "report_list");
        window.add("date_start", i.from + " UTC");
        window.add("date_finish", i.to + " UTC");
        i.request = request.text();
        i.failure = kNoReports;
      });
  take_domain(list, invocation);
  list->add_option("--from", invocation.from, "First moment, UTC: YYYY-MM-DD,HH:MM:SS")
      ->default_str("2000-01-01,00:00:00");
  list->add_option("--to", invocation.to, "First moment that is not listed, UTC")
      ->default_str("2100-01-01,00:00:00");
  invocation.from = "2000-01-01,00:00:00";
  invocation.to = "2100-01-01,00:00:00";
  CLI::App* show = command(report, "show", "One report", invocation, [](Invocation& i) {
    Request request("rrm");
    request.command().add("domain", i.id.substr(i.id.rfind(',') + 1));
    request.command().add("report", i.id);
    i.request = request.text();
    i.failure = "there is no such report, or it cannot be read";
  });
  show->add_option("REPORT", invocation.id, "Its id as listed: DATE,TIME,DOMAIN")->required();
  CLI::App* last =
      command(report, "last", "The latest report of a domain", invocation, [](Invocation& i) {
        Request request("rrm");
        request.command().add("domain", i.domain);
        request.command().add("last_report", 1);
        i.request = request.text();
        i.failure = kNoReports;
      });
  take_domain(last, invocation);
}

void define_global_commands(CLI::App& app, Invocation& invocation) {
  CLI::App* global = group_of(app, "global", "Options of the controller itself");
  command(global, "show", "All of them", invocation,
          [](Invocation& i) { i.request = list_request("global"); });
  CLI::App* set = command(global, "set", "Change some; the controller restarts its service",
                          invocation, [](Invocation& i) {
                            CfgRequest request("set", "global");
                            JsonWriter config = JsonWriter::object(request.command(), "config");
                            add_settings(config, Level::Global, i.settings);
                            i.request = request.text();
                          });
  take_settings(set, invocation)->required();
}

void define_pattern_commands(CLI::App& app, Invocation& invocation) {
  CLI::App* pattern = group_of(app, "pattern", "Named settings of domains");
  command(pattern, "list", "Their names", invocation,
          [](Invocation& i) { i.request = list_request("pattern"); });
  const auto change = [](const char* operation) {
    return [operation](Invocation& i) {
      CfgRequest request(operation, "pattern");
      JsonWriter config = JsonWriter::object(request.command(), "config");
      config.add("pattern", i.pattern);
      add_settings(config, Level::Domain, i.settings);
      i.request = request.text();
    };
  };
  const auto named = [](const char* operation) {
    return [operation](Invocation& i) {
      CfgRequest request(operation, "pattern");
      request.command().add("pattern", i.pattern);
      i.request = request.text();
    };
  };
  take_pattern(command(pattern, "show", "Settings of one", invocation,
                       [named](Invocation& i) {
                         named("get")(i);
                         i.needed.push_back({"pattern", i.pattern});
                       }),
               invocation);
  CLI::App* add = command(pattern, "add", "A new one", invocation, change("add"));
  take_pattern(add, invocation);
  take_settings(add, invocation);
  CLI::App* set = command(pattern, "set", "Change settings; restarts its domains", invocation,
                          [change](Invocation& i) {
                            change("set")(i);
                            i.needed.push_back({"pattern", i.pattern});
                          });
  take_pattern(set, invocation);
  take_settings(set, invocation)->required();
  take_pattern(command(pattern, "remove", "Remove it and its domains", invocation,
                       [named](Invocation& i) {
                         if (i.pattern == "common") refuse("common stays: it cannot be removed");
                         named("remove")(i);
                       }),
               invocation);
}

void define_domain_commands(CLI::App& app, Invocation& invocation) {
  CLI::App* domain = group_of(app, "domain", "Configured domains");
  command(domain, "list", "All with their patterns and time zones", invocation,
          [](Invocation& i) { i.request = list_request("domain"); });
  const auto bind = [](const char* operation) {
    return [operation](Invocation& i) {
      CfgRequest request(operation, "domain");
      JsonWriter config = JsonWriter::object(request.command(), "config");
      add_binding(config, i);
      i.request = request.text();
    };
  };
  CLI::App* add = command(domain, "add", "A new one", invocation, [bind](Invocation& i) {
    bind("add")(i);
    i.needed.push_back({"pattern", i.pattern});
  });
  CLI::App* set = command(domain, "set", "Other settings or time zone; restarts it", invocation,
                          [bind](Invocation& i) {
                            bind("set")(i);
                            i.needed.push_back({"domain", i.domain});
                            i.needed.push_back({"pattern", i.pattern});
                          });
  for (CLI::App* bound : {add, set}) {
    take_domain(bound, invocation);
    take_binding(bound, invocation);
  }
  take_domain(command(domain, "remove", "Remove it and stop its service", invocation,
                      [](Invocation& i) {
                        CfgRequest request("remove", "domain");
                        request.command().add("domain", i.domain);
                        i.request = request.text();
                      }),
              invocation);
}

void define_role_command(CLI::App& app, Invocation& invocation) {
  CLI::App* role = command(&app, "role", "Role in a pair of controllers; with a name: take it",
                           invocation, [](Invocation& i) {
                             Request request("vrrp");
                             if (!i.role.empty()) request.command().add("role", i.role);
                             i.request = request.text();
                           });
  role->add_option("ROLE", invocation.role, "master or backup")
      ->check(CLI::IsMember({"master", "backup"}));
}

void define_other_commands(CLI::App& app, Invocation& invocation) {
  CLI::App* config = group_of(app, "config", "Configuration files");
  CLI::App* check =
      command(config, "check", "Tell what the controller would pass over in a file", invocation,
              [](Invocation& i) { i.action = Invocation::Action::CheckConfig; });
  check->add_option("FILE", invocation.file, "The file")->required();
  CLI::App* request = command(&app, "request", "Send a request as it stands", invocation,
                              [](Invocation& i) { i.request = i.text; });
  request->add_option("JSON", invocation.text, "One JSON object")->required();
  CLI::App* completion =
      command(&app, "completion", "Print words for a shell's completion", invocation,
              [](Invocation& i) { i.action = Invocation::Action::Completion; });
  completion->add_option("SHELL", invocation.shell, "bash")
      ->required()
      ->check(CLI::IsMember({"bash"}));
}

}  // namespace

std::string list_request(const char* level) { return CfgRequest("get", level).text(); }

std::string domain_request(const std::string& domain) {
  Request request("rrm");
  request.command().add("domain", domain);
  return request.text();
}

std::string start_request(const std::string& domain) {
  Request request("rrm");
  request.command().add("domain", domain);
  request.command().add("start_optimization", "true");
  return request.text();
}

void define(CLI::App& app, Invocation& invocation) {
  app.set_version_flag("--version", "wavelomctl " WAVELOM_VERSION);
  app.require_subcommand(1);
  app.fallthrough();
  invocation.endpoint.port = GlobalConfig().cli_api_port;
  app.add_option("--host", invocation.endpoint.host, "The controller")
      ->envname("WAVELOMCTL_HOST")
      ->capture_default_str();
  app.add_option("--port", invocation.endpoint.port, "Its TCP port for commands (cli_api_port)")
      ->envname("WAVELOMCTL_PORT")
      ->check(CLI::Range(1, 65535))
      ->capture_default_str();
  app.add_option("--timeout", invocation.endpoint.timeout_s, "Seconds to wait for an answer")
      ->check(CLI::Range(0.1, 3600.0))
      ->check(tools::finite())
      ->capture_default_str();
  app.add_flag("--json", invocation.json, "Print the controller's reply as it came");
  define_state_commands(app, invocation);
  define_session_commands(app, invocation);
  define_report_commands(app, invocation);
  define_global_commands(app, invocation);
  define_pattern_commands(app, invocation);
  define_domain_commands(app, invocation);
  define_role_command(app, invocation);
  define_other_commands(app, invocation);
}

}  // namespace rrm::ctl
