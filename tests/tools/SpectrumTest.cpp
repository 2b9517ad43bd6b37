#include "tools/fleet/Spectrum.h"

#include <gtest/gtest.h>

namespace rrm::fleet {
namespace {

struct BlockCase {
  const char* name;
  int band, channel, width;
  Primary primary;
  Spectrum block;
};
class OccupiedSpectrum : public testing::TestWithParam<BlockCase> {};

TEST_P(OccupiedSpectrum, IsTheChannelBlockOfTheStandard) {
  const BlockCase& c = GetParam();
  EXPECT_EQ(occupied(c.band, c.channel, c.width, c.primary), c.block);
}

INSTANTIATE_TEST_SUITE_P(
    Blocks, OccupiedSpectrum,
    testing::Values(BlockCase{"Channel1", 2, 1, 20, Primary::None, {2402, 2422}},
                    BlockCase{"Channel14", 2, 14, 20, Primary::None, {2474, 2494}},
                    BlockCase{"Channel6LowerPrimary40", 2, 6, 40, Primary::Lower, {2427, 2467}},
                    BlockCase{"Channel6UpperPrimary40", 2, 6, 40, Primary::Upper, {2407, 2447}},
                    BlockCase{"Channel36Of20", 5, 36, 20, Primary::None, {5170, 5190}},
                    BlockCase{"Channel40Of40", 5, 40, 40, Primary::Upper, {5170, 5210}},
                    BlockCase{"Channel44Of80", 5, 44, 80, Primary::UpperLower, {5170, 5250}},
                    BlockCase{"Channel153Of80", 5, 153, 80, Primary::LowerUpper, {5735, 5815}},
                    BlockCase{"Channel100Of160", 5, 100, 160, Primary::Lower, {5490, 5650}},
                    BlockCase{"Channel149Of160HasNoBlock", 5, 149, 160, Primary::None, {0, 0}},
                    BlockCase{"Channel5Of80", 6, 5, 80, Primary::LowerUpper, {5945, 6025}},
                    BlockCase{"Channel37Of160", 6, 37, 160, Primary::Lower, {6105, 6265}},
                    BlockCase{"Channel15Of2GHz", 2, 15, 20, Primary::None, {0, 0}},
                    BlockCase{"Channel234Of6GHz", 6, 234, 20, Primary::None, {0, 0}}),
    [](const auto& test) { return test.param.name; });

TEST(ShareInside, IsHalfWhenA40MHzBlockMeetsOneOfIts20MHzChannels) {
  const Spectrum wide = occupied(5, 36, 40, Primary::Lower);
  const Spectrum narrow = occupied(5, 40, 20, Primary::None);
  EXPECT_DOUBLE_EQ(share_inside(wide, narrow), 0.5);
  EXPECT_DOUBLE_EQ(share_inside(narrow, wide), 1.0);
}

TEST(ShareInside, OfChannels1And3IsTheirCommonTenMHz) {
  EXPECT_DOUBLE_EQ(
      share_inside(occupied(2, 1, 20, Primary::None), occupied(2, 3, 20, Primary::None)), 0.5);
}

TEST(ShareInside, IsNothingBetweenChannels1And6OrWithoutABlock) {
  EXPECT_EQ(share_inside(occupied(2, 1, 20, Primary::None), occupied(2, 6, 20, Primary::None)), 0);
  EXPECT_EQ(share_inside({}, occupied(2, 6, 20, Primary::None)), 0);
}

TEST(NoiseFloor, Is95BelowAMilliwattIn20MHz) {
  // -174 + 10 log10(20e6) + 6 = -174 + 73.01 + 6
  EXPECT_NEAR(noise_floor_dbm(20), -94.99, 0.005);
  EXPECT_NEAR(noise_floor_dbm(80), -88.97, 0.005);
}

TEST(Decibels, ConvertBothWays) {
  EXPECT_DOUBLE_EQ(milliwatts(20), 100);
  EXPECT_DOUBLE_EQ(dbm(100), 20);
}

TEST(PrimaryPosition, FollowsTheChannelWithinItsBlock) {
  EXPECT_EQ(primary_position(5, 36, 80), Primary::LowerLower);
  EXPECT_EQ(primary_position(5, 40, 80), Primary::LowerUpper);
  EXPECT_EQ(primary_position(5, 44, 80), Primary::UpperLower);
  EXPECT_EQ(primary_position(5, 48, 80), Primary::UpperUpper);
  EXPECT_EQ(primary_position(5, 40, 40), Primary::Upper);
  EXPECT_EQ(primary_position(6, 37, 160), Primary::Lower);
  EXPECT_EQ(primary_position(5, 36, 20), Primary::None);
}

TEST(PrimaryNames, AreReadAndWritten) {
  for (const char* text : {"none", "lower", "upper", "ll", "lu", "ul", "uu"}) {
    EXPECT_STREQ(name(primary_from_name(text)), text);
  }
  EXPECT_EQ(primary_from_name("middle"), Primary::None);
}

TEST(UsableChannels, AllHaveABlockOfTheirWidth) {
  for (const int band : kBands) {
    for (const int width : {20, 40, 80, 160}) {
      if (band == 2 && width > 40) continue;
      for (const int channel : usable_channels(band, width)) {
        const Spectrum block = occupied(band, channel, width, Primary::Lower);
        EXPECT_EQ(block.width(), width) << band << " GHz channel " << channel;
      }
    }
  }
}

}  // namespace
}  // namespace rrm::fleet
