#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/ctl/ControlClient.h"

namespace rrm::ctl {

/// What the command line asks for, filled by parsing it.
struct Invocation {
  enum class Action { Request, Watch, CheckConfig, Completion };
  /// Something that a request takes for granted: the controller would pass over it in silence.
  struct Needed {
    const char* level;  ///< "domain" or "pattern"
    std::string name;
  };

  Endpoint endpoint;
  bool json = false;
  Action action = Action::Request;
  std::string request;                           ///< to be sent
  std::vector<Needed> needed;                    ///< must exist before it is sent
  std::vector<std::string_view> hidden_members;  ///< of the reply, in tables
  /// Why a command fails whose reply gives no reason.
  std::string failure = "the controller could not do it; its log tells why";

  // The words of the command line.
  std::string domain, pattern, time_zone, mac, id, from, to, role, text, file, shell;
  std::vector<std::string> settings;  ///< key=value
  std::vector<std::uint32_t> sessions;
  bool links = false;
  bool start = false;
  double interval_s = 1;
  double watch_timeout_s = 600;
};

/// Declares every command and option. Both arguments are to outlive the parsing.
/// Errors: refused words leave the parsing as CLI::ParseError.
void define(CLI::App& app, Invocation& invocation);

/// {"cfg":{"operation":O,"level":L,...}}: the list of what is configured.
std::string list_request(const char* level);
std::string domain_request(const std::string& domain);
std::string start_request(const std::string& domain);

inline constexpr char kListSessions[] = R"({"rrm":{"sessions":1}})";
inline constexpr char kNotStarted[] =
    "no round was started: one is planned or under way, or the settings of the domain want none";

}  // namespace rrm::ctl
