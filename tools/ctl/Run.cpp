#include "tools/ctl/Run.h"

#include <poll.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <optional>
#include <ostream>
#include <set>
#include <sstream>

#include "json/JsonParser.h"
#include "server/lib/JsonReader.h"
#include "tools/ctl/Commands.h"
#include "tools/ctl/Completion.h"
#include "tools/ctl/ConfigCheck.h"
#include "tools/ctl/Render.h"
#include "tools/ctl/Verdict.h"
#include "tools/ctl/Watch.h"

namespace rrm::ctl {
namespace {

constexpr char kName[] = "wavelomctl: ";
constexpr std::string_view kHeader[] = {"version", "server", "wavelom_version"};

int fail(std::ostream& errors, int status, const std::string& what) {
  // Names and texts of others may be in it.
  errors << kName << printable(what) << "\n";
  return status;
}

/// Whether the reply to list_request() of that level has an entry of that name.
bool is_listed(const std::string& reply, const char* level, const std::string& name) {
  const JsonReader document(reply.c_str());
  const JsonReader list = document.child(std::string(level) + "s");
  for (std::size_t i = 0; i < list.size(); ++i)
    if (name == list.child(static_cast<int>(i)).get_str("name")) return true;
  return false;
}

/// The first of the sessions that the controller does not have; none when it has all.
std::optional<std::uint32_t> missing_session(ControlClient& client,
                                             const std::vector<std::uint32_t>& sessions) {
  const std::string reply = client.ask(kListSessions);
  const JsonReader document(reply.c_str());
  const JsonReader list = document.child("websock-sessions");
  std::set<std::uint32_t> open;
  for (std::size_t i = 0; i < list.size(); ++i)
    open.insert(static_cast<std::uint32_t>(list.child(static_cast<int>(i)).get_int("id")));
  for (const std::uint32_t session : sessions)
    if (!open.contains(session)) return session;
  return std::nullopt;
}

/// A configured domain runs from the first subscription of one of its access points on.
std::string explained(const std::string& failure, const std::string& domain,
                      ControlClient& client) {
  if (failure != "domain not found") return failure;
  if (is_listed(client.ask(list_request("domain")), "domain", domain))
    return "domain '" + domain + "' is not running: none of its access points has subscribed";
  return "there is no domain '" + domain + "'";
}

int send_request(const Invocation& invocation, std::ostream& out, std::ostream& errors) {
  ControlClient client(invocation.endpoint);
  for (const Invocation::Needed& needed : invocation.needed)
    if (!is_listed(client.ask(list_request(needed.level)), needed.level, needed.name))
      return fail(errors, kRefused,
                  "there is no " + std::string(needed.level) + " '" + needed.name + "'");
  if (!invocation.sessions.empty())
    if (const auto missing = missing_session(client, invocation.sessions))
      return fail(errors, kRefused, "there is no session " + std::to_string(*missing));
  const std::string text = client.ask(invocation.request);
  const yajson::JsonValue reply = yajson::parse(text);
  std::vector<std::string_view> hidden(std::begin(kHeader), std::end(kHeader));
  hidden.insert(hidden.end(), invocation.hidden_members.begin(), invocation.hidden_members.end());
  const std::string failure = failure_of(reply, invocation.failure);
  if (invocation.json)
    out << text << "\n";
  else if (failure.empty())
    out << render(reply, hidden);
  if (failure.empty()) return kDone;
  return fail(errors, kRefused, explained(failure, invocation.domain, client));
}

int watch_round(const Invocation& invocation, std::ostream& out, std::ostream& errors) {
  ControlClient client(invocation.endpoint);
  const Watch watch{invocation.domain,
                    invocation.interval_s,
                    invocation.watch_timeout_s,
                    [&](const std::string& request) { return client.ask(request); },
                    [&](const std::string& line) { out << line << std::endl; },
                    [](double seconds) { ::poll(nullptr, 0, static_cast<int>(seconds * 1000)); },
                    [] {
                      const auto now = std::chrono::steady_clock::now().time_since_epoch();
                      return std::chrono::duration<double>(now).count();
                    }};
  std::string failure;
  switch (watch.run(invocation.start, failure)) {
    case WatchEnd::Idle:
      return kDone;
    case WatchEnd::TimeUp:
      return fail(errors, kTimeUp, "the round has not ended");
    case WatchEnd::Refused:
      break;
  }
  return fail(errors, kRefused, explained(failure, invocation.domain, client));
}

int check_file(const Invocation& invocation, std::ostream& out, std::ostream& errors) {
  std::ifstream file(invocation.file, std::ios::binary);
  std::ostringstream text;
  if (file.peek() != std::ifstream::traits_type::eof()) text << file.rdbuf();
  if (!file.is_open() || file.bad())
    return fail(errors, kNoAnswer, invocation.file + ": " + std::strerror(errno));
  const std::vector<Finding> findings = check_config(text.str());
  if (invocation.json) {
    out << to_json(findings) << "\n";
  } else {
    for (const Finding& finding : findings)
      out << printable(invocation.file + ": " + finding.where + ": " + finding.what) << "\n";
  }
  return findings.empty() ? kDone : kRefused;
}

/// What is wrong with the command line.
std::string usage_failure(const CLI::App* app, const CLI::Error& error) {
  const std::vector<std::string> rest = app->remaining(true);
  const bool is_unknown =
      !rest.empty() && dynamic_cast<const CLI::RequiredError*>(&error) != nullptr;
  return kName + (is_unknown ? "there is no command '" + rest[0] + "'" : error.what()) +
         "\nRun with --help for more information.\n";
}

int act(const CLI::App& app, const Invocation& invocation, std::ostream& out,
        std::ostream& errors) {
  switch (invocation.action) {
    case Invocation::Action::Request:
      return send_request(invocation, out, errors);
    case Invocation::Action::Watch:
      return watch_round(invocation, out, errors);
    case Invocation::Action::CheckConfig:
      return check_file(invocation, out, errors);
    case Invocation::Action::Completion:
      break;
  }
  out << bash_completion(app);
  return kDone;
}

}  // namespace

int run(int argc, const char* const* argv, std::ostream& out, std::ostream& errors) {
  CLI::App app{"Manages a running controller over its TCP port for commands.", "wavelomctl"};
  Invocation invocation;
  define(app, invocation);
  app.failure_message(usage_failure);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error, out, errors) == 0 ? kDone : kUsage;
  }
  try {
    const int status = act(app, invocation, out, errors);
    return out.flush() ? status : fail(errors, kNoAnswer, "the output cannot be written");
  } catch (const ConnectionError& error) {
    return fail(errors, kNoAnswer, error.what());
  } catch (const std::invalid_argument& error) {
    return fail(errors, kUsage, error.what());
  } catch (const std::exception& error) {
    return fail(errors, kNoAnswer, std::string("the reply cannot be read: ") + error.what());
  }
}

}  // namespace rrm::ctl
