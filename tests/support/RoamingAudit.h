#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "server/lib/RrmWorker.h"
#include "tests/support/Engine.h"

/// Checks of everything that a domain's access points were told for roaming, against what its model
/// says in a plainer way. Differences become test failures.
namespace rrm::test {

/// Every 802.11r VAP knows exactly the others of its SSID that it may know, under their present
/// keys, and is known by them.
void audit_links(RrmWorker& worker);

/// "802dot11k" of each session's last "rrm-info" or "subscribe-response" that had one.
std::map<std::uint32_t, std::string> sent_lists(const std::vector<RecordingRrm::Sent>& messages);

/// Every access point's list names exactly the radios it hears that share an SSID with one of its
/// own, so that two that hear each other are in each other's, and none of a foreign SSID. For lists
/// with and without 802.11v. Access point n is on session n + 100.
void audit_lists(Engine& engine, int aps, const std::map<std::uint32_t, std::string>& lists);

}  // namespace rrm::test
