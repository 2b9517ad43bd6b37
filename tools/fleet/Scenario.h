#pragma once

#include <array>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "tools/fleet/Building.h"
#include "tools/fleet/Propagation.h"

/// What a fleet is made of: read from a file or made up from a few numbers.
namespace rrm::fleet {

/// A text that is no scenario; what() names the member.
class ScenarioError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// One network name and where it is offered.
struct SsidPlan {
  std::string name;
  std::vector<int> bands{2, 5, 6};
  bool use_80211k = true;
  bool use_80211r = false;
  bool use_80211v = false;
};

/// Channels and powers that access points start with.
enum class InitialChannels {
  Random,  ///< any usable channel, as after years of changes by hand
  Same     ///< the first usable channel of the band everywhere, as out of the box
};

/// One site: a domain of the controller with its buildings.
struct SitePlan {
  std::string domain;
  int aps = 0;
  std::vector<Building> buildings;  ///< empty: made to fit
  std::vector<Place> places;        ///< of the access points; empty: on grids
  int foreign = -1;                 ///< access points of others; negative: one for every three
  InitialChannels initial = InitialChannels::Random;
};

/// A whole fleet; the same scenario gives the same fleet.
struct Scenario {
  std::uint64_t seed = 1;
  int scans = 2;               ///< scans in one report
  double scan_noise_db = 1.5;  ///< deviation of one reading
  int scan_table = 120;        ///< strongest BSSs that one scan keeps
  std::array<int, 3> width_mhz{20, 40, 80};
  Propagation propagation;
  std::vector<SsidPlan> ssids;
  std::vector<SitePlan> sites;

  int ap_count() const noexcept;

  /// `domains` sites named "site-1", "site-2" ... that share `aps` access points evenly.
  static Scenario of_size(int aps, int domains, std::uint64_t seed);
  /// Reads the format of docs/fleet.md; throws ScenarioError.
  static Scenario from_json(const std::string& text);
};

/// Campus for so many access points: buildings of at most 40 on four floors, 60 m apart.
std::vector<Building> campus_for(int aps);

}  // namespace rrm::fleet
