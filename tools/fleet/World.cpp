#include "tools/fleet/World.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

#include "tools/fleet/Random.h"

namespace rrm::fleet {
namespace {

// The boards' first characters decide how the controller classes them; every class is present.
constexpr Hardware kHardware[] = {
    // board     6 GHz   power min      power max       gain, loss
    {"KV-810", true, {4, 6, 6}, {20, 23, 24}, 0, 0},
    {"KV-611", true, {4, 6, 6}, {18, 21, 22}, 4, 1},
    {"KV-231", false, {4, 6, 6}, {20, 22, 0}, 0, 0},
};

constexpr int kMacsPerAp = 64;  ///< spacing of base addresses; 48 of them are used
constexpr int kMacsPerRadio = 16;
constexpr float kUnheard = std::numeric_limits<float>::infinity();
constexpr double kLoudestDbm = 27;                 ///< nobody radiates more
constexpr std::uint64_t kForeignIds = 1ULL << 40;  ///< apart from those of access points

// Streams of the seed; a value of its own keeps one choice from moving another.
enum Stream : std::uint64_t { kPlaces = 1, kModel, kChannels, kForeign, kShadow, kNoise, kNames };

/// Locally administered addresses: "WL" for the fleet, "FO" for the others, then the number.
MacAddress numbered_mac(std::uint8_t second, std::uint8_t third, std::uint32_t number) noexcept {
  return MacAddress{{0x02, second, static_cast<std::uint8_t>(third + (number >> 24)),
                     static_cast<std::uint8_t>(number >> 16),
                     static_cast<std::uint8_t>(number >> 8), static_cast<std::uint8_t>(number)}};
}

std::string serial_number(std::uint32_t index) {
  char text[16];
  std::snprintf(text, sizeof text, "WL%08u", index + 1);
  return text;
}

bool offers(const SsidPlan& ssid, int band) noexcept {
  return std::find(ssid.bands.begin(), ssid.bands.end(), band) != ssid.bands.end();
}

const Hardware& pick_hardware(std::uint64_t seed, std::uint32_t site,
                              std::uint32_t index) noexcept {
  const double share = unit(hash({seed, kModel, site, index}));
  return kHardware[share < 0.5 ? 0 : share < 0.75 ? 1 : 2];
}

/// Every access point has the first SSID; of the others each has three in four.
bool serves(const Scenario& scenario, std::uint32_t ap, const SsidPlan& ssid) noexcept {
  const auto index = static_cast<std::uint64_t>(&ssid - scenario.ssids.data());
  return index == 0 || unit(hash({scenario.seed, kNames, ap, index})) < 0.75;
}

/// The others: mostly home routers at 2.4 GHz, the rest wide at 5 GHz.
ForeignBss make_foreign(Random& random, const std::vector<Building>& buildings,
                        std::uint32_t number) {
  ForeignBss bss;
  bss.bssid = numbered_mac(0x46, 0x4f, number);
  const auto building =
      static_cast<int>(random.below(static_cast<std::uint32_t>(buildings.size())));
  const Building& box = buildings[static_cast<std::size_t>(building)];
  bss.place = {building, static_cast<int>(random.below(static_cast<std::uint32_t>(box.floors))),
               box.x + random.uniform(0, box.width), box.y + random.uniform(0, box.depth), 1.0};
  bss.band = random.chance(0.65) ? 2 : 5;
  bss.width_mhz = bss.band == 2 ? 20 : random.chance(0.6) ? 80 : 40;
  const std::vector<int>& channels = usable_channels(bss.band, bss.width_mhz);
  bss.channel = channels[random.below(static_cast<std::uint32_t>(channels.size()))];
  // One in five home routers stands on a channel between the usual ones.
  if (bss.band == 2 && random.chance(0.2)) bss.channel = 1 + static_cast<int>(random.below(13));
  bss.power_dbm = 14 + static_cast<int>(random.below(7));
  return bss;
}

bool visits(const std::optional<ChannelFilter>& filter, int band, int channel) noexcept {
  if (!filter) return true;
  return channel >= 0 && channel < 256 &&
         (*filter)[static_cast<std::size_t>(band_index(band))][static_cast<std::size_t>(channel)];
}

/// Collects the BSSs of one scan; every BSS gets its own reading noise.
class Scanner {
 public:
  Scanner(const Scenario& scenario, std::uint32_t ap, std::uint32_t round, std::uint32_t scan)
      : scenario_(scenario), ap_(ap), round_(round), scan_(scan) {}

  void add(Heard heard, double radiated_dbm, double loss_db) {
    const double noise =
        scenario_.scan_noise_db *
        gaussian(hash({scenario_.seed, kNoise, ap_, round_, scan_, heard.bssid.number()}));
    const double rssi = radiated_dbm - loss_db + noise;
    if (rssi < scenario_.propagation.sensitivity_dbm) return;
    heard.rssi_dbm = std::min(static_cast<int>(std::lround(rssi)), -1);
    heard_.push_back(heard);
  }

  std::vector<Heard> loudest() {
    std::stable_sort(heard_.begin(), heard_.end(),
                     [](const Heard& a, const Heard& b) { return a.rssi_dbm > b.rssi_dbm; });
    const auto limit = static_cast<std::size_t>(scenario_.scan_table);
    if (heard_.size() > limit) heard_.resize(limit);
    return std::move(heard_);
  }

 private:
  const Scenario& scenario_;
  std::uint32_t ap_, round_, scan_;
  std::vector<Heard> heard_;
};

}  // namespace

RadioUnit* AccessPoint::radio(int id) noexcept {
  for (RadioUnit& unit : radios) {
    if (unit.id == id) return &unit;
  }
  return nullptr;
}

const RadioUnit* AccessPoint::radio(int id) const noexcept {
  return const_cast<AccessPoint*>(this)->radio(id);
}

const RadioUnit* AccessPoint::radio_of_band(int band) const noexcept {
  for (const RadioUnit& unit : radios) {
    if (unit.band == band) return &unit;
  }
  return nullptr;
}

World::World(Scenario scenario) : scenario_(std::move(scenario)) {
  aps_.reserve(static_cast<std::size_t>(scenario_.ap_count()));
  for (const SitePlan& plan : scenario_.sites) build_site(plan);
}

void World::build_site(const SitePlan& plan) {
  Site site;
  site.domain = plan.domain;
  site.buildings = plan.buildings.empty() ? campus_for(plan.aps) : plan.buildings;
  site.first_ap = static_cast<std::uint32_t>(aps_.size());
  place_aps(plan, site);
  place_foreign(plan, site);
  sites_.push_back(std::move(site));
  link_site(sites_.back());
}

void World::place_aps(const SitePlan& plan, Site& site) {
  const auto index = static_cast<std::uint32_t>(sites_.size());
  for (const Place& place : plan.places) aps_.push_back(make_ap(plan, index, place));
  const int buildings = plan.places.empty() ? static_cast<int>(site.buildings.size()) : 0;
  for (int i = 0; i < buildings; ++i) {
    const int count = plan.aps / buildings + (i < plan.aps % buildings ? 1 : 0);
    const std::uint64_t seed =
        hash({scenario_.seed, kPlaces, index, static_cast<std::uint64_t>(i)});
    for (const Place& place : ceiling_grid(site.buildings, i, count, seed)) {
      aps_.push_back(make_ap(plan, index, place));
    }
  }
  site.ap_count = static_cast<std::uint32_t>(aps_.size()) - site.first_ap;
}

AccessPoint World::make_ap(const SitePlan& plan, std::uint32_t site, const Place& place) {
  AccessPoint ap;
  ap.index = static_cast<std::uint32_t>(aps_.size());
  ap.site = site;
  ap.mac = numbered_mac(0x57, 0x4c, ap.index * kMacsPerAp);
  ap.serial = serial_number(ap.index);
  ap.hardware = &pick_hardware(scenario_.seed, site, ap.index);
  ap.place = place;
  const int radios = ap.hardware->has_6ghz ? 3 : 2;
  for (int i = 0; i < radios; ++i) ap.radios.push_back(make_radio(ap, i, plan.initial));
  return ap;
}

RadioUnit World::make_radio(const AccessPoint& ap, int index, InitialChannels initial) const {
  const auto slot = static_cast<std::size_t>(index);
  RadioUnit radio;
  radio.id = index;
  radio.band = kBands[slot];
  radio.width_mhz = scenario_.width_mhz[slot];
  radio.power_min_dbm = ap.hardware->power_min_dbm[slot];
  radio.power_max_dbm = ap.hardware->power_max_dbm[slot];
  radio.power_dbm = radio.power_max_dbm;
  const std::vector<int>& channels = usable_channels(radio.band, radio.width_mhz);
  Random random(hash({scenario_.seed, kChannels, ap.site, ap.index, slot}));
  const std::uint32_t choice = random.below(static_cast<std::uint32_t>(channels.size()));
  radio.channel = channels[initial == InitialChannels::Same ? 0 : choice];
  radio.primary = primary_position(radio.band, radio.channel, radio.width_mhz);
  const MacAddress mac = ap.mac.plus(static_cast<std::uint32_t>(index * kMacsPerRadio));
  for (const SsidPlan& ssid : scenario_.ssids) {
    if (!offers(ssid, radio.band) || !serves(scenario_, ap.index, ssid)) continue;
    const auto id = static_cast<std::uint32_t>(radio.vaps.size());
    radio.vaps.push_back({static_cast<int>(id), mac.plus(id), &ssid});
  }
  return radio;
}

void World::place_foreign(const SitePlan& plan, Site& site) {
  const int count = plan.foreign < 0 ? plan.aps / 3 : plan.foreign;
  Random random(hash({scenario_.seed, kForeign, sites_.size()}));
  const auto first = static_cast<std::uint32_t>(sites_.size()) << 16;
  for (int i = 0; i < count; ++i) {
    site.foreign.push_back(
        make_foreign(random, site.buildings, first + static_cast<std::uint32_t>(i)));
  }
}

std::optional<Link> World::link(const Site& site, const Place& a, const Place& b,
                                std::uint64_t a_id, std::uint64_t b_id, std::uint32_t peer) const {
  const Propagation& propagation = scenario_.propagation;
  const double budget = kLoudestDbm - propagation.sensitivity_dbm;
  const Obstacles obstacles = between(site.buildings, a, b);
  Link result{peer, {kUnheard, kUnheard, kUnheard}};
  bool audible = false;
  for (int band = 0; band < 3; ++band) {
    const double mean = propagation.mean_loss_db(band, obstacles);
    if (mean - 4 * propagation.shadowing_db > budget) break;  // higher bands lose more
    const double loss =
        mean + propagation.shadowing(hash({scenario_.seed, kShadow}), a_id, b_id, band);
    if (loss > budget) continue;
    result.loss_db[static_cast<std::size_t>(band)] = static_cast<float>(loss);
    audible = true;
  }
  if (!audible) return std::nullopt;
  return result;
}

void World::link_site(const Site& site) {
  links_.resize(aps_.size());
  foreign_links_.resize(aps_.size());
  const std::uint32_t end = site.first_ap + site.ap_count;
  for (std::uint32_t a = site.first_ap; a < end; ++a) {
    for (std::uint32_t b = a + 1; b < end; ++b) {
      if (const auto there = link(site, aps_[a].place, aps_[b].place, a, b, b)) {
        links_[a].push_back(*there);
        links_[b].push_back({a, there->loss_db});
      }
    }
    for (std::uint32_t f = 0; f < site.foreign.size(); ++f) {
      const std::uint64_t id = kForeignIds + (static_cast<std::uint64_t>(aps_[a].site) << 24) + f;
      if (const auto there = link(site, aps_[a].place, site.foreign[f].place, a, id, f)) {
        foreign_links_[a].push_back(*there);
      }
    }
  }
}

std::optional<std::pair<std::uint32_t, int>> World::owner_of(const MacAddress& mac) const noexcept {
  if (aps_.empty()) return std::nullopt;
  // Pools lie one behind the other; the locally administered bit may be changed on the way.
  for (const MacAddress& candidate : {mac, mac.twin()}) {
    const std::uint64_t first = aps_[0].mac.number();
    if (candidate.number() < first) continue;
    const std::uint64_t offset = candidate.number() - first;
    const std::uint64_t ap = offset / kMacsPerAp;
    const auto radio = static_cast<int>(offset % kMacsPerAp / kMacsPerRadio);
    if (ap < aps_.size() && aps_[ap].radio(radio) != nullptr) {
      return std::pair{static_cast<std::uint32_t>(ap), radio};
    }
  }
  return std::nullopt;
}

bool World::set_radio(std::uint32_t ap, int radio_id, int channel, Primary primary, int power_dbm) {
  RadioUnit* radio = aps_[ap].radio(radio_id);
  if (radio == nullptr) return false;
  const int power = std::clamp(power_dbm, radio->power_min_dbm, radio->power_max_dbm);
  const bool tunes = centre_mhz(radio->band, channel) != 0;
  const int new_channel = tunes ? channel : radio->channel;
  const Primary new_primary = tunes ? primary : radio->primary;
  if (radio->channel == new_channel && radio->primary == new_primary && radio->power_dbm == power) {
    return false;
  }
  radio->channel = new_channel;
  radio->primary = new_primary;
  radio->power_dbm = power;
  return true;
}

std::vector<Heard> World::scan(std::uint32_t index, std::uint32_t round, std::uint32_t scan,
                               const std::optional<ChannelFilter>& filter) const {
  const AccessPoint& own = aps_[index];
  Scanner scanner(scenario_, index, round, scan);
  for (const Link& link : links_[index]) {
    const AccessPoint& peer = aps_[link.peer];
    for (const RadioUnit& radio : peer.radios) {
      const float loss = link.loss_db[static_cast<std::size_t>(band_index(radio.band))];
      if (loss == kUnheard || own.radio_of_band(radio.band) == nullptr) continue;
      if (!visits(filter, radio.band, radio.channel)) continue;
      for (const Vap& vap : radio.vaps) {
        scanner.add({vap.bssid, radio.channel, radio.band, radio.width_mhz, radio.primary, 0,
                     radio.power_dbm},
                    peer.radiated_dbm(radio.power_dbm), loss);
      }
    }
  }
  for (const Link& link : foreign_links_[index]) {
    const ForeignBss& bss = site_of(own).foreign[link.peer];
    const float loss = link.loss_db[static_cast<std::size_t>(band_index(bss.band))];
    if (loss == kUnheard || !visits(filter, bss.band, bss.channel)) continue;
    scanner.add({bss.bssid, bss.channel, bss.band, bss.width_mhz,
                 primary_position(bss.band, bss.channel, bss.width_mhz), 0, bss.power_dbm},
                bss.power_dbm, loss);
  }
  return scanner.loudest();
}

}  // namespace rrm::fleet
