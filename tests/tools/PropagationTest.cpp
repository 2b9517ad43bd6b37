#include "tools/fleet/Propagation.h"

#include <gtest/gtest.h>

#include <cmath>

#include "tools/fleet/Building.h"

namespace rrm::fleet {
namespace {

const std::vector<Building> kTwoHouses{
    {.x = 0, .y = 0, .width = 40, .depth = 20, .floors = 3, .floor_height = 3.5, .room = 8},
    {.x = 100, .y = 0, .width = 40, .depth = 20, .floors = 3, .floor_height = 3.5, .room = 8}};

TEST(PathLoss, AtOneMetreIsThatOfFreeSpace) {
  // 20 log10(2437) - 27.55 = 67.737 - 27.55; 20 log10(5500) = 74.807; 20 log10(6425) = 76.157
  const Propagation propagation;
  EXPECT_NEAR(propagation.mean_loss_db(0, {.distance_m = 1}), 40.187, 0.001);
  EXPECT_NEAR(propagation.mean_loss_db(1, {.distance_m = 1}), 47.257, 0.001);
  EXPECT_NEAR(propagation.mean_loss_db(2, {.distance_m = 1}), 48.607, 0.001);
}

TEST(PathLoss, GrowsByTenTimesTheExponentPerDecade) {
  const Propagation propagation;
  EXPECT_NEAR(propagation.mean_loss_db(0, {.distance_m = 10}), 40.187 + 23, 0.001);
  EXPECT_NEAR(propagation.mean_loss_db(1, {.distance_m = 100}), 47.257 + 48, 0.001);
}

TEST(PathLoss, BelowOneMetreCountsAsOneMetre) {
  const Propagation propagation;
  EXPECT_EQ(propagation.mean_loss_db(0, {.distance_m = 0.1}),
            propagation.mean_loss_db(0, {.distance_m = 1}));
}

TEST(PathLoss, AddsWallsAndFloors) {
  const Propagation propagation;
  const double free = propagation.mean_loss_db(1, {.distance_m = 10});
  // 5 GHz: 4 dB per inner wall, 14 per outer wall, 16 for the first floor and 6 for each further
  // one.
  EXPECT_NEAR(propagation.mean_loss_db(1, {10, 2, 0, 0}) - free, 8, 1e-9);
  EXPECT_NEAR(propagation.mean_loss_db(1, {10, 0, 2, 0}) - free, 28, 1e-9);
  EXPECT_NEAR(propagation.mean_loss_db(1, {10, 0, 0, 1}) - free, 16, 1e-9);
  EXPECT_NEAR(propagation.mean_loss_db(1, {10, 0, 0, 3}) - free, 28, 1e-9);
}

TEST(Shadowing, IsTheSameInBothDirectionsAndForEverySameSeed) {
  const Propagation propagation;
  EXPECT_EQ(propagation.shadowing(7, 3, 9, 0), propagation.shadowing(7, 9, 3, 0));
  EXPECT_NE(propagation.shadowing(7, 3, 9, 0), propagation.shadowing(8, 3, 9, 0));
  EXPECT_NE(propagation.shadowing(7, 3, 9, 0), propagation.shadowing(7, 3, 9, 1));
}

TEST(Shadowing, HasTheGivenDeviationAndNoMean) {
  Propagation propagation;
  propagation.shadowing_db = 6;
  double sum = 0;
  double squares = 0;
  constexpr int kPairs = 20000;
  for (std::uint64_t pair = 0; pair < kPairs; ++pair) {
    const double value = propagation.shadowing(1, pair, pair + 1, 0);
    sum += value;
    squares += value * value;
  }
  EXPECT_NEAR(sum / kPairs, 0, 0.15);
  EXPECT_NEAR(std::sqrt(squares / kPairs), 6, 0.15);
}

TEST(Shadowing, IsOffWithADeviationOfZero) {
  Propagation propagation;
  propagation.shadowing_db = 0;
  EXPECT_EQ(propagation.shadowing(1, 2, 3, 0), 0);
}

TEST(Obstacles, InOneBuildingAreTheGridLinesAndFloorsBetween) {
  // x 4 -> 28 crosses the walls at 8, 16 and 24; y 4 -> 12 that at 8; two floors of 3.5 m.
  const Obstacles result = between(kTwoHouses, {0, 0, 4, 4}, {0, 2, 28, 12});
  EXPECT_EQ(result.inner_walls, 4);
  EXPECT_EQ(result.outer_walls, 0);
  EXPECT_EQ(result.floors, 2);
  EXPECT_NEAR(result.distance_m, std::sqrt(24.0 * 24 + 8 * 8 + 7 * 7), 1e-9);
}

TEST(Obstacles, BetweenBuildingsAreOneOuterWallEachAndTheRoomsOnTheWayOut) {
  // The first stands 10 m from its nearest outer wall: one room of 8 m lies in between; the second
  // 4 m.
  const Obstacles result = between(kTwoHouses, {0, 0, 20, 10}, {1, 0, 104, 10});
  EXPECT_EQ(result, (Obstacles{84, 1, 2, 0}));
}

TEST(Obstacles, OutdoorsAreNone) {
  EXPECT_EQ(between(kTwoHouses, {-1, 0, 60, 0}, {-1, 0, 63, 4}), (Obstacles{5, 0, 0, 0}));
}

TEST(Obstacles, AreTheSameInBothDirections) {
  const Place a{0, 1, 3, 4};
  const Place b{1, 2, 133, 17};
  EXPECT_EQ(between(kTwoHouses, a, b), between(kTwoHouses, b, a));
}

TEST(CeilingGrid, FillsEveryFloorEvenlyAndStaysInside) {
  const std::vector<Place> places = ceiling_grid(kTwoHouses, 1, 10, 5);
  ASSERT_EQ(places.size(), 10u);
  int per_floor[3]{};
  for (const Place& place : places) {
    ++per_floor[place.floor];
    EXPECT_EQ(place.building, 1);
    EXPECT_GT(place.x, 100);
    EXPECT_LT(place.x, 140);
    EXPECT_GT(place.y, 0);
    EXPECT_LT(place.y, 20);
  }
  EXPECT_EQ(per_floor[0], 4);
  EXPECT_EQ(per_floor[1], 3);
  EXPECT_EQ(per_floor[2], 3);
}

}  // namespace
}  // namespace rrm::fleet
