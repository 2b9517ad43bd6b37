#pragma once

#include <array>
#include <bitset>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "server/lib/MacAddress.h"
#include "tools/fleet/Scenario.h"
#include "tools/fleet/Spectrum.h"

/// The simulated radio world: who stands where, sends how, and is heard how loud.
namespace rrm::fleet {

/// A product line: which radios it has and what they can do.
struct Hardware {
  const char* board;
  bool has_6ghz;
  std::array<int, 3> power_min_dbm;
  std::array<int, 3> power_max_dbm;
  int antenna_gain_dbi;  ///< with cable loss: an external antenna; 0 and 0: a built-in one
  int cable_loss_db;
};

/// A virtual access point: one SSID on one radio.
struct Vap {
  int id = 0;
  MacAddress bssid;
  const SsidPlan* ssid = nullptr;
};

/// A radio as the access point has set it now.
struct RadioUnit {
  int id = 0;
  int band = 0;
  int channel = 0;
  Primary primary = Primary::None;
  int width_mhz = 20;
  int power_dbm = 0;
  int power_min_dbm = 0;
  int power_max_dbm = 0;
  std::vector<Vap> vaps;

  Spectrum spectrum() const noexcept { return occupied(band, channel, width_mhz, primary); }
};

/// An access point with its place; radios in the order of their ids, which are those of the bands.
struct AccessPoint {
  std::uint32_t index = 0;
  std::uint32_t site = 0;
  MacAddress mac;
  std::string serial;
  const Hardware* hardware = nullptr;
  Place place;
  std::vector<RadioUnit> radios;

  RadioUnit* radio(int id) noexcept;
  const RadioUnit* radio(int id) const noexcept;
  const RadioUnit* radio_of_band(int band) const noexcept;
  /// What its antenna radiates, dBm, when the radio sends with this power.
  int radiated_dbm(int power_dbm) const noexcept {
    return power_dbm + hardware->antenna_gain_dbi - hardware->cable_loss_db;
  }
};

/// Somebody else's access point: heard and never changed.
struct ForeignBss {
  MacAddress bssid;
  int band = 2;
  int channel = 1;
  int width_mhz = 20;
  int power_dbm = 18;
  Place place;

  Spectrum spectrum() const noexcept {
    return occupied(band, channel, width_mhz, primary_position(band, channel, width_mhz));
  }
};

/// An audible direction: index of the access point or foreign BSS and the loss on each band, dB.
struct Link {
  std::uint32_t peer = 0;
  std::array<float, 3> loss_db{};  ///< infinite where the two do not hear each other
};

struct Site {
  std::string domain;
  std::vector<Building> buildings;
  std::uint32_t first_ap = 0;
  std::uint32_t ap_count = 0;
  std::vector<ForeignBss> foreign;
};

/// Channels that a scan visits, by band index.
using ChannelFilter = std::array<std::bitset<256>, 3>;

/// One BSS in one scan.
struct Heard {
  MacAddress bssid;
  int channel = 0;
  int band = 0;
  int width_mhz = 20;
  Primary primary = Primary::None;
  int rssi_dbm = 0;
  int tx_power_dbm = 0;
};

/// A fleet built from a scenario.
///
/// Purpose:   answers what an access point hears with everybody's present settings.
/// Threading: one thread.
/// Cost:      building compares every two access points of a site once; a scan and the figures of
///            one access point walk those that it can hear.
class World {
 public:
  explicit World(Scenario scenario);
  World(const World&) = delete;  // access points point into the scenario
  World& operator=(const World&) = delete;

  const Scenario& scenario() const noexcept { return scenario_; }
  const std::vector<Site>& sites() const noexcept { return sites_; }
  const std::vector<AccessPoint>& aps() const noexcept { return aps_; }
  const AccessPoint& ap(std::uint32_t index) const noexcept { return aps_[index]; }
  const Site& site_of(const AccessPoint& ap) const noexcept { return sites_[ap.site]; }

  /// Other access points of the site that this one can hear at their highest power.
  const std::vector<Link>& links(std::uint32_t ap) const noexcept { return links_[ap]; }
  /// Foreign BSSs of the site that this one hears.
  const std::vector<Link>& foreign_links(std::uint32_t ap) const noexcept {
    return foreign_links_[ap];
  }

  /// Access point and radio id that own a MAC address of the fleet's pools; absent for any other.
  std::optional<std::pair<std::uint32_t, int>> owner_of(const MacAddress& mac) const noexcept;

  /// Sets a radio as a plan says, keeping the power within the radio's range. True when it changed.
  bool set_radio(std::uint32_t ap, int radio_id, int channel, Primary primary, int power_dbm);

  /// What the access point hears now, loudest first. `round` and `scan` number the reading, whose
  /// noise depends on them; without a filter every channel is visited.
  std::vector<Heard> scan(std::uint32_t ap, std::uint32_t round, std::uint32_t scan,
                          const std::optional<ChannelFilter>& filter = {}) const;

 private:
  void build_site(const SitePlan& plan);
  void place_aps(const SitePlan& plan, Site& site);
  AccessPoint make_ap(const SitePlan& plan, std::uint32_t site, const Place& place);
  RadioUnit make_radio(const AccessPoint& ap, int band_index, InitialChannels initial) const;
  void place_foreign(const SitePlan& plan, Site& site);
  void link_site(const Site& site);
  std::optional<Link> link(const Site& site, const Place& a, const Place& b, std::uint64_t a_id,
                           std::uint64_t b_id, std::uint32_t peer) const;

  Scenario scenario_;
  std::vector<Site> sites_;
  std::vector<AccessPoint> aps_;
  std::vector<std::vector<Link>> links_;
  std::vector<std::vector<Link>> foreign_links_;
};

}  // namespace rrm::fleet
