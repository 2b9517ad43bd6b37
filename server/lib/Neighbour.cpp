#include "server/lib/Neighbour.h"

#include <cmath>
#include <cstdlib>

#include "server/lib/ChannelPlan.h"
#include "server/lib/Hooks.h"

namespace rrm {
namespace {

using Values = std::vector<std::int32_t>;

std::int64_t mean_of(const Values& values) {
  std::int64_t sum = 0;
  for (const std::int64_t value : values) sum += value;
  return sum / static_cast<std::int64_t>(values.size());
}

/// Standard deviation from a centre, the mean of the squares truncated as every mean here, then
/// raised by 1 and truncated. The squares are summed as doubles: exact for every real signal
/// strength, and absurd ones can't overflow.
std::int64_t deviation(const Values& values, std::int64_t centre) {
  double squares = 0;
  for (const std::int64_t value : values) {
    const auto distance = static_cast<double>(value - centre);
    squares += distance * distance;
  }
  const double mean_square = std::trunc(squares / static_cast<double>(values.size()));
  return static_cast<std::int64_t>(std::sqrt(mean_square) + 1.0);
}

Values within(const Values& values, std::int64_t centre, std::int64_t radius) {
  Values near;
  for (const std::int32_t value : values)
    if (std::llabs(value - centre) <= radius) near.push_back(value);
  return near;
}

}  // namespace

void Neighbour::to_json(JsonWriter& object) const {
  object.add("dbm-signal", dbm_signal);
  object.add("channel", channel);
  object.add("band", band);
  object.add("bandwidth", bandwidth);
  object.add("tx-power", tx_power);
  object.add("primary", primary);
}

void insert_neighbour(NeighbourMap& map, const MacAddress& bssid, const Neighbour& entry) {
  map.try_emplace(bssid, entry);
}

void neighbours_to_json(const NeighbourMap& map, JsonWriter& array) {
  for (const auto& [bssid, entry] : map) {
    JsonWriter object = JsonWriter::object(array);
    object.add("mac", bssid.upper().c_str());
    entry.to_json(object);
  }
}

void restore_neighbours(NeighbourMap& map, const JsonReader& array) {
  const int count = static_cast<int>(array.size());
  for (int i = 0; i < count; ++i) {
    const JsonReader element = array.child(i);
    if (element.is_null()) continue;
    const char* mac = element.get_str("mac");
    Neighbour entry;
    entry.dbm_signal = element.get_int("dbm-signal");
    entry.channel = element.get_int("channel");
    entry.band = element.has("band") ? element.get_int("band") : infer_band(entry.channel);
    if (entry.band == 0 && !element.has("band"))
      RRM_LOG(Debug, "neighbour state entry without band: mac=%s channel=%d", mac, entry.channel);
    entry.bandwidth = element.get_int("bandwidth");
    entry.tx_power = element.get_int("tx-power");
    entry.primary = element.get_int("primary");
    insert_neighbour(map, MacAddress::from_text(mac), entry);
  }
}

void NeighbourMerger::add(const NeighbourMap& scan) {
  for (const auto& [bssid, entry] : scan) {
    Group& group = groups_[bssid];
    group.latest = entry;
    group.signals.push_back(entry.dbm_signal);
  }
}

void NeighbourMerger::finish(NeighbourMap& target) const {
  target.clear();
  for (const auto& [bssid, group] : groups_) {
    Neighbour merged = group.latest;
    merged.dbm_signal = robust_mean(group.signals);
    insert_neighbour(target, bssid, merged);
  }
}

void merge_neighbours(NeighbourMap& target, const std::vector<NeighbourMap>& scans) {
  NeighbourMerger merger;
  for (const NeighbourMap& scan : scans) merger.add(scan);
  merger.finish(target);
}

std::int32_t robust_mean(const std::vector<std::int32_t>& values) {
  if (values.empty()) return 0;
  const std::int64_t mean = mean_of(values);
  const std::int64_t first_radius = deviation(values, mean);
  const Values near = within(values, mean, first_radius);
  std::int64_t centre = mean;
  if (mean == 0 || near.size() > 2) centre = near.empty() ? 0 : mean_of(near);
  const std::int64_t radius = near.size() >= 3 ? deviation(near, centre) : first_radius;
  const Values kept = within(values, centre, radius);
  return kept.empty() ? 0 : static_cast<std::int32_t>(mean_of(kept));
}

}  // namespace rrm
