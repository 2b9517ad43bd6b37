#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/fleet/CrowdFigures.h"
#include "tools/fleet/FleetRun.h"

namespace rrm::fleet {

/// The figures at the end of a run, for people and for programs.
struct Report {
  struct Domain {
    std::string name;
    std::uint32_t aps = 0;
    std::uint32_t subscribed = 0;
    std::uint32_t rounds = 0;
    Stage stage = Stage::Subscribing;
    StageTimes times;  ///< of the last finished round; all 0 before
  };

  std::uint64_t seed = 0;
  Millis elapsed = 0;
  std::uint32_t aps = 0;
  std::uint32_t subscribed = 0;
  std::optional<Millis> all_subscribed_after;
  Counters counters;
  double neighbours = 0;  ///< 802.11k entries per access point
  double fbt_links = 0;   ///< 802.11r key links per access point
  std::vector<Domain> domains;
  /// How one crowd of clients fared.
  struct Clients {
    CrowdSample sample;
    CrowdCounters counters;
  };
  std::optional<Clients> steered;
  std::optional<Clients> unsteered;
  /// Only domains that have finished a round; `measured` counts them.
  std::size_t measured = 0;
  AirSample before;
  AirSample after;
};

Report make_report(const FleetRun& run, Millis now);

/// Tables of at most 100 columns.
std::string to_text(const Report& report);
/// One object; keys as in docs/fleet.md.
std::string to_json(const Report& report);

}  // namespace rrm::fleet
