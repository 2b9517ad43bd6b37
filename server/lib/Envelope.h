#pragma once

#include <string_view>

#include "server/lib/JsonReader.h"

/// The envelope common to all messages, and the documents that the controller sends to itself.
///
/// Threading: stateless; any thread.
namespace rrm {

/// Version of this server.
inline constexpr char kServerVersion[] = "1.9.1.323-amd64";
/// Version of the access-point protocol: major and minor number.
inline constexpr char kProtocolVersion[] = "2.4";

// Each receiver gets a parse of its own of these.
inline constexpr char kStopDocument[] = R"({"service":"internal-ipc", "cmd":"stop"})";
inline constexpr char kDropSessionDocument[] =
    R"({"service":"rrm-internal", "cmd":"drop-session"})";
inline constexpr char kPingSessionDocument[] =
    R"({"service":"rrm-internal", "cmd":"ping-session"})";
inline constexpr char kStopLoadBalancerDocument[] =
    R"({"service":"rrm-internal", "cmd":"stop-load-balancer"})";

/// Whether a domain worker may look at the message: "drop-session" and "stop-load-balancer" of the
/// service "rrm-internal", or one of the commands of access points with a non-empty "ap-mac".
bool is_valid_message(const JsonReader& document);

/// Whether the message claims to come from the controller itself: "service" is "rrm-internal" or
/// "internal-ipc", whatever the command.
bool is_internal_message(const JsonReader& document);

/// Whether the document's "version" has the own major number and a minor number no greater than the
/// own one. A missing or unreadable version is not compatible.
bool is_version_compatible(const JsonReader& document, const char* own_version = kProtocolVersion);

/// True when the message's "service" and "cmd" are these.
bool is_message(const JsonReader& document, std::string_view service, std::string_view command);

}  // namespace rrm
