#include "tools/fleet/Building.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "tools/fleet/Random.h"

namespace rrm::fleet {
namespace {

/// Grid lines between two coordinates of one axis, counted from the building's edge.
int lines_between(double a, double b, double origin, double spacing) noexcept {
  if (spacing <= 0) return 0;
  const auto cell = [&](double value) { return std::floor((value - origin) / spacing); };
  return static_cast<int>(std::abs(cell(a) - cell(b)));
}

/// Inner walls between a place and the nearest outer wall of its building.
int walls_to_outside(const std::vector<Building>& buildings, const Place& place) noexcept {
  if (place.building < 0) return 0;
  const Building& box = buildings[static_cast<std::size_t>(place.building)];
  const double west = place.x - box.x;
  const double south = place.y - box.y;
  const double nearest = std::min({west, box.width - west, south, box.depth - south});
  return box.room > 0 ? static_cast<int>(std::max(nearest, 0.0) / box.room) : 0;
}

/// Splits `count` into `parts` shares that differ by at most one, the larger ones first.
int share_of(int count, int parts, int index) noexcept {
  return count / parts + (index < count % parts ? 1 : 0);
}

void fill_floor(const Building& building, int index, int floor, int count, Random& random,
                std::vector<Place>& places) {
  if (count <= 0) return;
  const double ratio = building.width / building.depth;
  const int columns = std::max(1, static_cast<int>(std::lround(std::sqrt(count * ratio))));
  const int rows = (count + columns - 1) / columns;
  const double dx = building.width / columns;
  const double dy = building.depth / rows;
  for (int i = 0; i < count; ++i) {
    const int column = i % columns;
    const int row = i / columns;
    const double x = (column + 0.5 + random.uniform(-0.25, 0.25)) * dx;
    const double y = (row + 0.5 + random.uniform(-0.25, 0.25)) * dy;
    places.push_back({index, floor, building.x + x, building.y + y, 2.5});
  }
}

}  // namespace

double Place::height(const std::vector<Building>& buildings) const noexcept {
  if (building < 0) return above_floor;
  return floor * buildings[static_cast<std::size_t>(building)].floor_height + above_floor;
}

Obstacles between(const std::vector<Building>& buildings, const Place& a, const Place& b) noexcept {
  Obstacles result;
  result.distance_m = std::hypot(a.x - b.x, a.y - b.y, a.height(buildings) - b.height(buildings));
  if (a.building != b.building) {
    result.outer_walls = (a.building >= 0 ? 1 : 0) + (b.building >= 0 ? 1 : 0);
    result.inner_walls = walls_to_outside(buildings, a) + walls_to_outside(buildings, b);
    return result;
  }
  if (a.building < 0) return result;
  const Building& building = buildings[static_cast<std::size_t>(a.building)];
  result.inner_walls = lines_between(a.x, b.x, building.x, building.room) +
                       lines_between(a.y, b.y, building.y, building.room);
  result.floors = std::abs(a.floor - b.floor);
  return result;
}

std::vector<Place> ceiling_grid(const std::vector<Building>& buildings, int building, int count,
                                std::uint64_t seed) {
  const Building& box = buildings[static_cast<std::size_t>(building)];
  Random random(seed);
  std::vector<Place> places;
  places.reserve(static_cast<std::size_t>(std::max(count, 0)));
  for (int floor = 0; floor < box.floors; ++floor) {
    fill_floor(box, building, floor, share_of(count, box.floors, floor), random, places);
  }
  return places;
}

}  // namespace rrm::fleet
