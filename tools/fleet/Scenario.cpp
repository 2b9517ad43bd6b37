#include "tools/fleet/Scenario.h"

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <numeric>
#include <string_view>

#include "server/lib/JsonReader.h"
#include "tools/fleet/Spectrum.h"

namespace rrm::fleet {
namespace {

using yajson::JsonKind;
using yajson::JsonValue;

constexpr int kMaxAps = 100000;
constexpr int kApsPerBuilding = 40;
constexpr int kFloors = 4;
constexpr double kSquareMetresPerAp = 130;
constexpr double kStreet = 60;  ///< metres between buildings

/// Reads members of one object and names it in errors.
class Section {
 public:
  Section(const JsonReader& reader, std::string where)
      : reader_(reader), where_(std::move(where)) {}

  /// Refuses what is no object and members that nobody reads: a misspelt one would be its default.
  void expect_only(std::initializer_list<std::string_view> keys) const {
    const JsonValue* object = reader_.value();
    if (object == nullptr || !object->is_object())
      throw ScenarioError(where_ + "must be an object");
    for (const auto& member : object->members())
      if (std::find(keys.begin(), keys.end(), member.key()) == keys.end())
        fail(std::string(member.key()).c_str(), "is not known");
  }
  int integer(const char* key, int fallback, int low, int high) const {
    if (!reader_.has(key)) return check_range(key, fallback, low, high);
    const JsonValue& value = *reader_.child(key).value();
    if (value.kind() != JsonKind::integer && value.kind() != JsonKind::uinteger)
      fail(key, "must be a whole number");
    return static_cast<int>(check_range(key, value.as_number(), low, high));
  }
  double number(const char* key, double fallback, int low, int high) const {
    if (!reader_.has(key)) return fallback;
    const JsonValue& value = *reader_.child(key).value();
    if (value.kind() != JsonKind::integer && value.kind() != JsonKind::uinteger &&
        value.kind() != JsonKind::number)
      fail(key, "must be a number");
    return check_range(key, value.as_number(), low, high);
  }
  bool flag(const char* key, bool fallback) const {
    if (reader_.has(key) && reader_.child(key).value()->kind() == JsonKind::boolean)
      return reader_.get_int(key) != 0;
    return integer(key, fallback, 0, 1) != 0;
  }
  std::string text(const char* key) const {
    std::string value = reader_.get_str(key);
    if (value.empty()) fail(key, "must be a text");
    return value;
  }
  [[noreturn]] void fail(const char* key, const std::string& what) const {
    throw ScenarioError(where_ + "\"" + key + "\" " + what);
  }
  /// An array member; one that is absent is empty.
  JsonReader array(const char* key) const {
    JsonReader array = reader_.child(key);
    if (reader_.has(key) && !array.value()->is_array()) fail(key, "must be an array");
    return array;
  }
  const JsonReader& reader() const noexcept { return reader_; }

 private:
  template <typename Number>
  Number check_range(const char* key, Number value, int low, int high) const {
    if (!(value >= low && value <= high))
      fail(key, "must be " + std::to_string(low) + " to " + std::to_string(high));
    return value;
  }

  const JsonReader& reader_;
  std::string where_;
};

/// Calls read(Section) for every element of an array member.
template <typename Read>
void for_each(const Section& parent, const char* key, Read read) {
  const JsonReader array = parent.array(key);
  for (int i = 0; i < static_cast<int>(array.size()); ++i) {
    const JsonReader element = array.child(i);
    read(Section(element, std::string(key) + "[" + std::to_string(i) + "]: "));
  }
}

SsidPlan read_ssid(const Section& section) {
  section.expect_only({"ssid", "bands", "802.11k", "802.11r", "802.11v"});
  SsidPlan ssid;
  ssid.name = section.text("ssid");
  ssid.use_80211k = section.flag("802.11k", true);
  ssid.use_80211r = section.flag("802.11r", false);
  ssid.use_80211v = section.flag("802.11v", false);
  if (!section.reader().has("bands")) return ssid;
  const JsonReader bands = section.array("bands");
  ssid.bands.clear();
  for (int i = 0; i < static_cast<int>(bands.size()); ++i) {
    if (band_index(bands.get_int(i)) < 0) section.fail("bands", "may hold 2, 5 and 6");
    ssid.bands.push_back(bands.get_int(i));
  }
  return ssid;
}

Building read_building(const Section& section) {
  section.expect_only({"x", "y", "width", "depth", "floors", "floor-height", "room"});
  Building building;
  building.x = section.number("x", building.x, -100000, 100000);
  building.y = section.number("y", building.y, -100000, 100000);
  building.width = section.number("width", building.width, 2, 10000);
  building.depth = section.number("depth", building.depth, 2, 10000);
  building.floors = section.integer("floors", building.floors, 1, 200);
  building.floor_height = section.number("floor-height", building.floor_height, 2, 50);
  building.room = section.number("room", building.room, 1, 10000);
  return building;
}

Place read_place(const Section& section, int buildings) {
  section.expect_only({"building", "floor", "x", "y"});
  Place place;
  place.building = section.integer("building", buildings > 0 ? 0 : -1, -1, buildings - 1);
  place.floor = section.integer("floor", 0, 0, 200);
  place.x = section.number("x", 0, -100000, 100000);
  place.y = section.number("y", 0, -100000, 100000);
  return place;
}

InitialChannels read_initial(const Section& section) {
  if (!section.reader().has("initial-channels")) return InitialChannels::Random;
  const std::string text = section.text("initial-channels");
  if (text != "random" && text != "same")
    section.fail("initial-channels", "must be random or same");
  return text == "same" ? InitialChannels::Same : InitialChannels::Random;
}

SitePlan read_site(const Section& section) {
  section.expect_only({"domain", "aps", "places", "foreign", "initial-channels", "buildings"});
  SitePlan site;
  site.domain = section.text("domain");
  site.foreign = section.integer("foreign", -1, -1, kMaxAps);
  site.initial = read_initial(section);
  for_each(section, "buildings",
           [&](const Section& building) { site.buildings.push_back(read_building(building)); });
  const int buildings = static_cast<int>(site.buildings.size());
  for_each(section, "places",
           [&](const Section& place) { site.places.push_back(read_place(place, buildings)); });
  const int places = static_cast<int>(site.places.size());
  site.aps = places > 0 ? places : section.integer("aps", 0, 1, kMaxAps);
  return site;
}

void read_propagation(const JsonReader& reader, Propagation& propagation) {
  const Section section(reader, "propagation: ");
  section.expect_only({"shadowing", "sensitivity", "inner-wall", "outer-wall", "floor"});
  propagation.shadowing_db = section.number("shadowing", propagation.shadowing_db, 0, 20);
  propagation.sensitivity_dbm =
      section.number("sensitivity", propagation.sensitivity_dbm, -120, -40);
  for (BandPropagation& band : propagation.bands) {
    band.inner_wall_db = section.number("inner-wall", band.inner_wall_db, 0, 60);
    band.outer_wall_db = section.number("outer-wall", band.outer_wall_db, 0, 60);
    band.first_floor_db = section.number("floor", band.first_floor_db, 0, 60);
  }
}

void read_widths(const JsonReader& reader, std::array<int, 3>& widths) {
  constexpr std::array<const char*, 3> kKeys{"2", "5", "6"};
  constexpr std::array<int, 3> kWidest{40, 160, 320};
  const Section section(reader, "widths: ");
  section.expect_only({"2", "5", "6"});
  for (std::size_t i = 0; i < kKeys.size(); ++i) {
    const int width = section.integer(kKeys[i], widths[i], 20, kWidest[i]);
    if (width % 20 != 0 || ((width / 20) & (width / 20 - 1)) != 0) {
      section.fail(kKeys[i], "must be 20, 40, 80, 160 or 320");
    }
    widths[i] = width;
  }
}

std::vector<SsidPlan> default_ssids() {
  return {{"office", {2, 5, 6}, true, true, true},
          {"guest", {2, 5}, true, false, true},
          {"things", {2}, false, false, false}};
}

}  // namespace

int Scenario::ap_count() const noexcept {
  int count = 0;
  for (const SitePlan& site : sites) count += site.aps;
  return count;
}

Scenario Scenario::of_size(int aps, int domains, std::uint64_t seed) {
  Scenario scenario;
  scenario.seed = seed;
  scenario.ssids = default_ssids();
  for (int i = 0; i < domains; ++i) {
    SitePlan site;
    site.domain = "site-" + std::to_string(i + 1);
    site.aps = aps / domains + (i < aps % domains ? 1 : 0);
    scenario.sites.push_back(std::move(site));
  }
  return scenario;
}

Scenario Scenario::from_json(const std::string& text) {
  const JsonReader reader(text.c_str());
  if (reader.is_null()) throw ScenarioError("the scenario is not valid JSON");
  const Section section(reader, "");
  section.expect_only(
      {"seed", "scans", "scan-noise", "scan-table", "widths", "propagation", "ssids", "sites"});
  Scenario scenario;
  scenario.seed = static_cast<std::uint64_t>(section.integer("seed", 1, 0, 2147483647));
  scenario.scans = section.integer("scans", scenario.scans, 1, 20);
  scenario.scan_noise_db = section.number("scan-noise", scenario.scan_noise_db, 0, 20);
  scenario.scan_table = section.integer("scan-table", scenario.scan_table, 1, 10000);
  if (reader.has("widths")) read_widths(reader.child("widths"), scenario.width_mhz);
  if (reader.has("propagation"))
    read_propagation(reader.child("propagation"), scenario.propagation);
  for_each(section, "ssids",
           [&](const Section& ssid) { scenario.ssids.push_back(read_ssid(ssid)); });
  for_each(section, "sites",
           [&](const Section& site) { scenario.sites.push_back(read_site(site)); });
  if (scenario.ssids.empty()) scenario.ssids = default_ssids();
  if (scenario.sites.empty()) section.fail("sites", "must hold at least one site");
  const auto count = [](long sum, const SitePlan& site) { return sum + site.aps; };
  if (std::accumulate(scenario.sites.begin(), scenario.sites.end(), 0L, count) > kMaxAps)
    section.fail("sites", "hold more than 100000 access points");
  return scenario;
}

std::vector<Building> campus_for(int aps) {
  const int buildings = std::max(1, (aps + kApsPerBuilding - 1) / kApsPerBuilding);
  const int per_building = (aps + buildings - 1) / buildings;
  const int floors = std::clamp(per_building / 6, 1, kFloors);
  const int per_floor = (per_building + floors - 1) / floors;
  const double depth = std::ceil(std::sqrt(std::max(per_floor, 1) * kSquareMetresPerAp / 2));
  const int columns = static_cast<int>(std::ceil(std::sqrt(buildings)));
  std::vector<Building> result;
  for (int i = 0; i < buildings; ++i) {
    Building building;
    building.width = 2 * depth;
    building.depth = depth;
    building.floors = floors;
    const int column = i % columns;
    const int row = i / columns;
    building.x = column * (building.width + kStreet);
    building.y = row * (building.depth + kStreet);
    result.push_back(building);
  }
  return result;
}

}  // namespace rrm::fleet
