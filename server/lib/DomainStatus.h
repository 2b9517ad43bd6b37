#pragma once

#include "server/lib/JsonWriter.h"

/// How a domain reports itself: to management, to backups, and in the log.
///
/// Threading: the domain worker's thread, or inside its run_locked.
namespace rrm {

class RrmWorker;

/// Adds "details": name, timings, counts, planner state and the access points of the three maps
/// with their VAPs.
void write_domain_details(const RrmWorker& worker, JsonWriter& parent);

/// Adds "aps", "unanswered-aps" and "deleted-aps" with the complete state of every access point.
void write_domain_maps(const RrmWorker& worker, JsonWriter& parent);

/// The Debug record of every domain tick.
void log_domain_state(const RrmWorker& worker);

}  // namespace rrm
