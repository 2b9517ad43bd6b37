#pragma once

#include <bitset>

#include "tools/fleet/World.h"

/// Worlds small enough to be worked out by hand.
namespace rrm::fleet {

/// Access points in one wide room, at the given places along x; no shadowing, no reading noise, one
/// SSID "net" on all bands and nobody else around.
inline Scenario aps_along_x(const std::vector<double>& xs) {
  Scenario scenario;
  scenario.propagation.shadowing_db = 0;
  scenario.scan_noise_db = 0;
  scenario.scans = 1;
  scenario.ssids = {{"net", {2, 5, 6}, true, true, false}};
  SitePlan site;
  site.domain = "lab";
  site.aps = static_cast<int>(xs.size());
  site.foreign = 0;
  site.initial = InitialChannels::Same;
  site.buildings = {{.x = 0, .y = 0, .width = 200, .depth = 20, .floors = 1, .room = 100000}};
  for (const double x : xs) site.places.push_back({0, 0, x, 5});
  scenario.sites.push_back(site);
  return scenario;
}

inline Scenario two_aps(double metres) { return aps_along_x({0, metres}); }

inline ChannelFilter only_channel(int band, int channel) {
  ChannelFilter filter;
  filter[static_cast<std::size_t>(band_index(band))].set(static_cast<std::size_t>(channel));
  return filter;
}

}  // namespace rrm::fleet
