#pragma once

#include <cstdint>
#include <vector>

/// Buildings and where things stand in them. Metres; x to the east, y to the north, one plan for
/// all buildings of a site.
namespace rrm::fleet {

/// A box of equal floors, each divided into a grid of square rooms by inner walls.
struct Building {
  double x = 0;  ///< south-west corner
  double y = 0;
  double width = 40;  ///< along x
  double depth = 20;  ///< along y
  int floors = 3;
  double floor_height = 3.5;
  double room = 8;  ///< side of a room; an inner wall stands at every multiple of it
};

/// A place inside a building, or outdoors (building -1) at ground level.
struct Place {
  int building = -1;
  int floor = 0;
  double x = 0;
  double y = 0;
  double above_floor = 2.5;  ///< 2.5 at a ceiling, about 1 in a hand

  double height(const std::vector<Building>& buildings) const noexcept;
};

/// What lies between two places.
struct Obstacles {
  double distance_m = 0;
  int inner_walls = 0;
  int outer_walls = 0;
  int floors = 0;

  friend bool operator==(const Obstacles&, const Obstacles&) = default;
};

/// Within one building: the inner walls whose grid lines are crossed and the floors between.
/// Between buildings, or outdoors: per building one outer wall and the inner walls from the place
/// to the nearest outer one.
Obstacles between(const std::vector<Building>& buildings, const Place& a, const Place& b) noexcept;

/// Ceiling places of `count` access points: floors get equal numbers, each floor a regular grid
/// whose places are moved by up to a quarter of their spacing, as the seed tells.
std::vector<Place> ceiling_grid(const std::vector<Building>& buildings, int building, int count,
                                std::uint64_t seed);

}  // namespace rrm::fleet
