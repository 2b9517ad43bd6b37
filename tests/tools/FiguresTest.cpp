#include "tools/fleet/Figures.h"

#include <gtest/gtest.h>

#include "tests/tools/SmallWorld.h"

namespace rrm::fleet {
namespace {

/// Sets the 2.4 GHz radio of an access point; power as given whatever its model.
void tune(World& world, std::uint32_t ap, int channel, int power) {
  world.set_radio(ap, 0, channel, Primary::None, power);
}

/// What the antenna adds, dB.
double antenna(const World& world, std::uint32_t ap) { return world.ap(ap).radiated_dbm(0); }

TEST(Interference, OnACleanChannelIsThermalNoise) {
  World world(two_aps(10));
  tune(world, 0, 1, 10);
  tune(world, 1, 6, 10);
  EXPECT_NEAR(interference_dbm(world, world.ap(0), world.ap(0).radios[0]), -94.99, 0.01);
}

TEST(Interference, OfOneCoChannelNeighbourIsItsSignal) {
  World world(two_aps(10));
  tune(world, 0, 1, 10);
  tune(world, 1, 1, 10);
  // 10 dBm - 63.187 dB; the noise at -95 adds less than a hundredth.
  EXPECT_NEAR(interference_dbm(world, world.ap(0), world.ap(0).radios[0]),
              10 + antenna(world, 1) - 63.187, 0.01);
}

TEST(Interference, OfTwoEqualNeighboursIsThreeDecibelsMore) {
  World world(aps_along_x({10, 0, 20}));
  for (std::uint32_t ap = 0; ap < 3; ++ap) tune(world, ap, 6, 10);
  const double expected = dbm(milliwatts(10 + antenna(world, 1) - 63.187) +
                              milliwatts(10 + antenna(world, 2) - 63.187));
  EXPECT_NEAR(interference_dbm(world, world.ap(0), world.ap(0).radios[0]), expected, 0.01);
}

TEST(Interference, OfAnAdjacentChannelIsThePartInside) {
  World world(two_aps(10));
  tune(world, 0, 1, 10);
  tune(world, 1, 3, 10);  // 10 of 20 MHz in common: 3.01 dB less
  EXPECT_NEAR(interference_dbm(world, world.ap(0), world.ap(0).radios[0]),
              10 + antenna(world, 1) - 63.187 - 3.010, 0.01);
}

TEST(Interference, CountsForeignAccessPoints) {
  Scenario scenario = two_aps(10);
  scenario.sites[0].foreign = 300;
  World crowded(scenario);
  World quiet(two_aps(10));
  for (World* world : {&crowded, &quiet}) {
    tune(*world, 0, 1, 10);
    tune(*world, 1, 6, 10);
  }
  EXPECT_GT(interference_dbm(crowded, crowded.ap(0), crowded.ap(0).radios[0]),
            interference_dbm(quiet, quiet.ap(0), quiet.ap(0).radios[0]) + 10);
}

TEST(LoudestNeighbour, IsTheNearestOnTheSameChannel) {
  World world(aps_along_x({0, 10, 100}));
  for (std::uint32_t ap = 0; ap < 3; ++ap) tune(world, ap, 6, 10);
  EXPECT_NEAR(*loudest_co_channel_dbm(world, world.ap(0), world.ap(0).radios[0]),
              10 + antenna(world, 1) - 63.187, 0.01);
  tune(world, 1, 1, 10);  // now only the far one is left: 40.187 + 46 = 86.187 dB
  EXPECT_NEAR(*loudest_co_channel_dbm(world, world.ap(0), world.ap(0).radios[0]),
              10 + antenna(world, 2) - 86.187, 0.01);
}

TEST(LoudestNeighbour, IsAbsentOnAChannelOfOnesOwn) {
  World world(two_aps(10));
  tune(world, 0, 1, 10);
  tune(world, 1, 11, 10);
  EXPECT_FALSE(loudest_co_channel_dbm(world, world.ap(0), world.ap(0).radios[0]));
}

TEST(SiteSample, HoldsEveryRadioOnce) {
  World world(aps_along_x({0, 10, 20}));
  tune(world, 0, 1, 10);
  tune(world, 1, 6, 11);
  tune(world, 2, 6, 12);
  const AirSample sample = sample_site(world, world.sites()[0]);
  EXPECT_EQ(sample[0].radios(), 3u);
  EXPECT_EQ(sample[0].interference_dbm.size(), 3u);
  EXPECT_EQ(sample[0].loudest_dbm.size(), 2u) << "the first has its channel alone";
  EXPECT_EQ(sample[0].channels, (std::map<int, int>{{1, 1}, {6, 2}}));
  EXPECT_EQ(mean(sample[0].power_dbm), 11);
}

TEST(SiteSample, MergesWithAnother) {
  AirSample a;
  a[1] = {{-80}, {-70}, {20}, {{36, 1}}};
  AirSample b;
  b[1] = {{-90}, {}, {10}, {{36, 2}, {44, 1}}};
  merge(a, b);
  EXPECT_EQ(a[1].interference_dbm, (std::vector<double>{-80, -90}));
  EXPECT_EQ(a[1].loudest_dbm, (std::vector<double>{-70}));
  EXPECT_EQ(mean(a[1].power_dbm), 15);
  EXPECT_EQ(a[1].channels, (std::map<int, int>{{36, 3}, {44, 1}}));
}

TEST(Percentile, IsTheNearestRank) {
  const std::vector<double> ten{1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
  EXPECT_EQ(percentile(ten, 0.9), 9);
  EXPECT_EQ(percentile(ten, 1.0), 10);
  EXPECT_EQ(percentile({5}, 0.9), 5);
  EXPECT_EQ(percentile({}, 0.9), 0);
}

TEST(CountAbove, LeavesTheLimitItselfOut) { EXPECT_EQ(count_above({-70, -68, -67}, -68), 1u); }

}  // namespace
}  // namespace rrm::fleet
