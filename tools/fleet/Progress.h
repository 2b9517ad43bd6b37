#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "tools/fleet/FleetRun.h"

namespace rrm::fleet {

/// The lines that show where a run stands: one for the fleet, then one per domain (a sum over those
/// that do not fit), each no longer than `columns`.
std::vector<std::string> status_lines(const FleetRun& run, Millis now, std::size_t columns,
                                      std::size_t most_domains);

/// How the clients fare, in one line; empty without clients. Walks all of them.
std::string clients_line(const FleetRun& run, Millis now);

/// Shows a run while it goes on: a block that is redrawn in place on a terminal; elsewhere one line
/// when a domain enters another stage, and one every ten seconds.
///
/// Threading: one thread. Ownership: the stream stays the caller's.
class Progress {
 public:
  explicit Progress(std::FILE* stream);

  /// To be called a few times a second.
  void show(const FleetRun& run, Millis now);
  /// Leaves the last block standing and ends it.
  void finish(const FleetRun& run, Millis now);

 private:
  std::vector<std::string> lines(const FleetRun& run, Millis now, std::size_t columns,
                                 std::size_t most_domains);
  void redraw(const FleetRun& run, Millis now);
  void print_changes(const FleetRun& run, Millis now);

  std::FILE* stream_;
  bool terminal_;
  std::size_t drawn_ = 0;                                ///< lines of the block on the screen
  std::vector<std::pair<Stage, std::uint32_t>> stages_;  ///< and rounds, last told by domain
  std::string clients_;  ///< the clients' line, made anew every few seconds
  Millis clients_at_ = -1000000;
  Millis last_line_ = 0;
};

}  // namespace rrm::fleet
