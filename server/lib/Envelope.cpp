#include "server/lib/Envelope.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <iterator>
#include <optional>

namespace rrm {
namespace {

constexpr std::string_view kAccessPointCommands[] = {
    "subscribe-request",  "unsubscribe-request",      "rrm-response",     "rrm-mode-response",
    "rrm-config-changed", "rrm-assoc-state-changed",  "rrm-client-assoc", "rrm-client-disassoc",
    "rrm-probe-response", "rrm-disassoc-all-clients", "rrm-sta-roam",
};

constexpr std::string_view kInternalCommands[] = {"drop-session", "stop-load-balancer"};

template <std::size_t N>
bool is_one_of(std::string_view command, const std::string_view (&commands)[N]) {
  return std::find(std::begin(commands), std::end(commands), command) != std::end(commands);
}

struct Version {
  int major_number = 0;
  int minor_number = 0;
};

std::optional<Version> parse_version(const char* text) {
  Version version;
  if (std::sscanf(text, "%d.%d", &version.major_number, &version.minor_number) != 2)
    return std::nullopt;
  return version;
}

}  // namespace

bool is_internal_message(const JsonReader& document) {
  const std::string_view service = document.get_str("service");
  return service == "rrm-internal" || service == "internal-ipc";
}

bool is_valid_message(const JsonReader& document) {
  const std::string_view service = document.get_str("service");
  const std::string_view command = document.get_str("cmd");
  if (service == "rrm-internal") return is_one_of(command, kInternalCommands);
  if (service != "rrm" || *document.get_str("ap-mac") == '\0') return false;
  return is_one_of(command, kAccessPointCommands);
}

bool is_version_compatible(const JsonReader& document, const char* own_version) {
  const auto theirs = parse_version(document.get_str("version"));
  const auto own = parse_version(own_version);
  return theirs && own && theirs->major_number == own->major_number &&
         theirs->minor_number <= own->minor_number;
}

bool is_message(const JsonReader& document, std::string_view service, std::string_view command) {
  return document.get_str("service") == service && document.get_str("cmd") == command;
}

}  // namespace rrm
