#include "tools/fleet/CrowdFigures.h"

#include <algorithm>

namespace rrm::fleet {
namespace {

/// Most minus mean clients of these radios.
double imbalance_of(const Crowd& crowd, const std::vector<RadioKey>& radios) {
  std::size_t most = 0;
  std::size_t sum = 0;
  for (const RadioKey radio : radios) {
    most = std::max(most, crowd.members(radio).size());
    sum += crowd.members(radio).size();
  }
  return static_cast<double>(most) - static_cast<double>(sum) / static_cast<double>(radios.size());
}

void sample_radios(const World& world, const Crowd& crowd, std::size_t band, CrowdSample& sample) {
  std::size_t radios = 0;
  std::size_t clients = 0;
  for (const AccessPoint& ap : world.aps()) {
    const RadioUnit* radio = ap.radio_of_band(kBands[band]);
    if (radio == nullptr) continue;
    const std::size_t count = crowd.members({ap.index, radio->id}).size();
    ++radios;
    clients += count;
    sample.most_on_a_radio[band] =
        std::max(sample.most_on_a_radio[band], static_cast<std::uint32_t>(count));
  }
  if (radios > 0) {
    sample.mean_per_radio[band] = static_cast<double>(clients) / static_cast<double>(radios);
  }
}

void sample_imbalance(const Crowd& crowd, std::size_t band, CrowdSample& sample) {
  double sum = 0;
  std::size_t counted = 0;
  for (std::uint32_t client = 0; client < crowd.size(); ++client) {
    if (!crowd.served_by(client)) continue;
    const auto radios = crowd.radios_hearing(client, kBands[band], kStrongDbm + 1);
    if (radios.size() < 2) continue;
    sum += imbalance_of(crowd, radios);
    ++counted;
  }
  if (counted > 0) sample.imbalance[band] = sum / static_cast<double>(counted);
}

}  // namespace

CrowdSample sample_crowd(const World& world, const Crowd& crowd, Millis now) {
  CrowdSample sample;
  sample.longest_unserved = crowd.counters().longest_unserved;
  sample.longest_orphaned = crowd.counters().longest_orphaned;
  sample.longest_block = crowd.longest_block(now);
  std::uint32_t weak = 0;
  for (std::uint32_t client = 0; client < crowd.size(); ++client) {
    const Millis waiting = crowd.unserved_for(now, client);
    sample.longest_unserved = std::max(sample.longest_unserved, waiting);
    if (crowd.orphaned(client)) {
      sample.longest_orphaned = std::max(sample.longest_orphaned, waiting);
    }
    const auto radio = crowd.served_by(client);
    if (radio || waiting > 0) ++sample.clients;
    if (!radio) continue;
    ++sample.served;
    if (crowd.client_rssi(client, *radio) <= kWeakDbm) ++weak;
  }
  if (sample.served > 0) sample.weak_share = static_cast<double>(weak) / sample.served;
  for (std::size_t band = 0; band < kBands.size(); ++band) {
    sample_radios(world, crowd, band, sample);
    sample_imbalance(crowd, band, sample);
  }
  return sample;
}

}  // namespace rrm::fleet
