#include "tools/fleet/Figures.h"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace rrm::fleet {
namespace {

/// Calls visit(rssi_dbm, share) for every transmitter of the fleet that reaches into the channel;
/// share is the part of its power that falls inside.
template <typename Visit>
void for_each_peer(const World& world, const AccessPoint& ap, const RadioUnit& radio, Visit visit) {
  const auto band = static_cast<std::size_t>(band_index(radio.band));
  const Spectrum channel = radio.spectrum();
  for (const Link& link : world.links(ap.index)) {
    const AccessPoint& peer = world.ap(link.peer);
    const RadioUnit* other = peer.radio_of_band(radio.band);
    if (other == nullptr || std::isinf(link.loss_db[band])) continue;
    const double share = share_inside(other->spectrum(), channel);
    if (share > 0)
      visit(peer.radiated_dbm(other->power_dbm) - static_cast<double>(link.loss_db[band]), share);
  }
}

template <typename Visit>
void for_each_foreign(const World& world, const AccessPoint& ap, const RadioUnit& radio,
                      Visit visit) {
  const auto band = static_cast<std::size_t>(band_index(radio.band));
  const Spectrum channel = radio.spectrum();
  for (const Link& link : world.foreign_links(ap.index)) {
    const ForeignBss& bss = world.site_of(ap).foreign[link.peer];
    if (bss.band != radio.band || std::isinf(link.loss_db[band])) continue;
    const double share = share_inside(bss.spectrum(), channel);
    if (share > 0) visit(bss.power_dbm - static_cast<double>(link.loss_db[band]), share);
  }
}

void append(std::vector<double>& into, const std::vector<double>& values) {
  into.insert(into.end(), values.begin(), values.end());
}

}  // namespace

void BandSample::merge(const BandSample& other) {
  append(interference_dbm, other.interference_dbm);
  append(loudest_dbm, other.loudest_dbm);
  append(power_dbm, other.power_dbm);
  for (const auto& [channel, count] : other.channels) channels[channel] += count;
}

double interference_dbm(const World& world, const AccessPoint& ap, const RadioUnit& radio) {
  double sum = milliwatts(noise_floor_dbm(radio.spectrum().width()));
  const auto add = [&](double rssi, double share) { sum += milliwatts(rssi) * share; };
  for_each_peer(world, ap, radio, add);
  for_each_foreign(world, ap, radio, add);
  return dbm(sum);
}

std::optional<double> loudest_co_channel_dbm(const World& world, const AccessPoint& ap,
                                             const RadioUnit& radio) {
  std::optional<double> loudest;
  for_each_peer(world, ap, radio, [&](double rssi, double) {
    if (rssi < world.scenario().propagation.sensitivity_dbm) return;
    if (!loudest || rssi > *loudest) loudest = rssi;
  });
  return loudest;
}

AirSample sample_site(const World& world, const Site& site) {
  AirSample sample;
  for (std::uint32_t i = site.first_ap; i < site.first_ap + site.ap_count; ++i) {
    const AccessPoint& ap = world.ap(i);
    for (const RadioUnit& radio : ap.radios) {
      BandSample& band = sample[static_cast<std::size_t>(band_index(radio.band))];
      band.interference_dbm.push_back(interference_dbm(world, ap, radio));
      if (const auto loudest = loudest_co_channel_dbm(world, ap, radio)) {
        band.loudest_dbm.push_back(*loudest);
      }
      band.power_dbm.push_back(radio.power_dbm);
      ++band.channels[radio.channel];
    }
  }
  return sample;
}

void merge(AirSample& into, const AirSample& other) {
  for (std::size_t i = 0; i < into.size(); ++i) into[i].merge(other[i]);
}

double mean(const std::vector<double>& values) noexcept {
  if (values.empty()) return 0;
  return std::accumulate(values.begin(), values.end(), 0.0) / static_cast<double>(values.size());
}

double percentile(std::vector<double> values, double share) noexcept {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const double rank = std::ceil(share * static_cast<double>(values.size()));
  const auto index = static_cast<std::size_t>(std::max(rank, 1.0)) - 1;
  return values[std::min(index, values.size() - 1)];
}

std::size_t count_above(const std::vector<double>& values, double limit) noexcept {
  return static_cast<std::size_t>(
      std::count_if(values.begin(), values.end(), [&](double value) { return value > limit; }));
}

}  // namespace rrm::fleet
