#include "server/lib/TpcDcaInterferencePlanner.h"

#include <gtest/gtest.h>

#include <limits>
#include <vector>

namespace rrm {
namespace {

/// Counters of the slots from `first` on.
std::vector<std::int32_t> counters(const InterferencePlanner& planner, std::int32_t first,
                                   std::int32_t last) {
  std::vector<std::int32_t> values;
  for (std::int32_t slot = first; slot <= last; ++slot) values.push_back(planner.counter(slot));
  return values;
}

using Counters = std::vector<std::int32_t>;

class InterferencePlannerTest : public testing::Test {
 protected:
  void hear(std::int32_t rssi_dbm, std::int32_t channel, std::int32_t width_mhz,
            std::int32_t position = 256) {
    planner.add(interference_of(rssi_dbm, {channel, width_mhz, position}));
  }
  std::int32_t choose(std::vector<std::int32_t> allowed, ChannelUse current,
                      std::int32_t threshold_percent = 0) {
    return planner.choose({allowed, current, threshold_percent});
  }

  InterferencePlanner planner;
};

TEST_F(InterferencePlannerTest, TwentyMegahertzAtMinus40AddTheirMaskOnce) {
  hear(-40, 36, 20);  // weight 60
  EXPECT_EQ(counters(planner, 41, 47), (Counters{0, 18, 42, 60, 42, 18, 0}));
}

TEST_F(InterferencePlannerTest, SharesOfTheWeightAreIntegerDivisions) {
  hear(-45, 1, 20);  // weight 55: 16.5 and 38.5
  EXPECT_EQ(counters(planner, 6, 12), (Counters{0, 16, 38, 55, 38, 16, 0}));
}

TEST_F(InterferencePlannerTest, FortyMegahertzAddTheBlockAndThePrimary) {
  hear(-40, 36, 40);
  EXPECT_EQ(counters(planner, 41, 51), (Counters{0, 36, 84, 120, 102, 78, 60, 60, 42, 18, 0}));
}

TEST_F(InterferencePlannerTest, EightyMegahertzOnTheLastChannelOfTheBlock) {
  hear(-90, 48, 80);  // weight 10: block 42..58, primary 54..58
  EXPECT_EQ(counters(planner, 41, 59),
            (Counters{0, 3, 7, 10, 10, 10, 10, 10, 10, 10, 10, 10, 10, 13, 17, 20, 14, 6, 0}));
}

TEST_F(InterferencePlannerTest, WidthsWithoutABlockStillAddThePrimary) {
  hear(-90, 1, 80);
  hear(-90, 44, 0);
  EXPECT_EQ(counters(planner, 6, 12), (Counters{0, 3, 7, 10, 7, 3, 0}));
  EXPECT_EQ(counters(planner, 49, 55), (Counters{0, 3, 7, 10, 7, 3, 0}));
}

TEST_F(InterferencePlannerTest, ChannelsWithoutPrimaryAddOnlyTheirBlock) {
  hear(-90, 14, 320);  // block 7..71
  EXPECT_EQ(counters(planner, 6, 11), (Counters{0, 3, 7, 10, 10, 10}));
  EXPECT_EQ(counters(planner, 18, 26), (Counters(9, 10)));
  EXPECT_EQ(counters(planner, 69, 72), (Counters{10, 7, 3, 0}));
}

TEST_F(InterferencePlannerTest, ChannelsBelowOneAddNothing) {
  hear(-40, 0, 20);
  hear(-40, -3, 320);
  EXPECT_EQ(counters(planner, 0, 274), Counters(275, 0));
}

TEST_F(InterferencePlannerTest, SlotsAbove274AreNotWritten) {
  hear(-90, 270, 40, 512);  // block 272..280
  EXPECT_EQ(counters(planner, 271, 274), (Counters{0, 3, 7, 10}));
  hear(-90, 280, 40, 256);
  EXPECT_EQ(counters(planner, 271, 274), (Counters{0, 3, 7, 10}));
}

TEST_F(InterferencePlannerTest, SignalsBelowMinus100CountNegatively) {
  hear(-110, 36, 20);
  EXPECT_EQ(counters(planner, 42, 46), (Counters{-3, -7, -10, -7, -3}));
}

TEST_F(InterferencePlannerTest, ClearForgetsEverything) {
  hear(-40, 36, 160);
  planner.clear();
  EXPECT_EQ(counters(planner, 0, 274), Counters(275, 0));
}

TEST_F(InterferencePlannerTest, AbsurdChannelsAreHarmless) {
  constexpr std::int32_t kMost = std::numeric_limits<std::int32_t>::max();
  for (const std::int32_t width : {20, 40, 80, 160, 320, kMost}) hear(10000, kMost, width);
  EXPECT_EQ(choose({kMost, 1}, {kMost, 40, 256}), 1);
  EXPECT_EQ(counters(planner, 0, 274), Counters(275, 0));
}

TEST_F(InterferencePlannerTest, TheCheapestChannelWins) {
  hear(-40, 36, 20);  // cost of 36: 180, of 40: the 18 of slot 46
  EXPECT_EQ(choose({36, 40}, {36, 20, 0}), 40);
  EXPECT_EQ(choose({36, 40, 44}, {36, 20, 0}), 44);  // 44 is free
}

TEST_F(InterferencePlannerTest, AmongEquallyCheapChannelsTheFirstWins) {
  hear(-40, 36, 20);
  EXPECT_EQ(choose({36, 44, 48, 52}, {36, 20, 0}), 44);
}

TEST_F(InterferencePlannerTest, AnEquallyCheapChannelDoesNotReplaceTheCurrentOne) {
  EXPECT_EQ(choose({36, 40, 44}, {44, 20, 0}), 44);
}

TEST_F(InterferencePlannerTest, TheThresholdAsksForAPartOfTheCurrentCost) {
  hear(-40, 36, 20);                                 // 180 against 18
  EXPECT_EQ(choose({36, 40}, {36, 20, 0}, 89), 40);  // 180 x 11 / 100 = 19 > 18
  EXPECT_EQ(choose({36, 40}, {36, 20, 0}, 90), 36);  // 180 x 10 / 100 = 18
}

TEST_F(InterferencePlannerTest, ThresholdsFrom100OnAskForNothing) {
  hear(-40, 36, 20);
  EXPECT_EQ(choose({36, 40}, {36, 20, 0}, 100), 40);
}

TEST_F(InterferencePlannerTest, TheBypassTakesTheThresholdAway) {
  hear(-40, 36, 20);
  planner.bypass_threshold(true);
  EXPECT_EQ(choose({36, 40}, {36, 20, 0}, 99), 40);
  planner.bypass_threshold(false);
  EXPECT_EQ(choose({36, 40}, {36, 20, 0}, 99), 36);
}

TEST_F(InterferencePlannerTest, ACurrentChannelThatIsNotAllowedIsAlwaysLeft) {
  hear(-40, 40, 20);
  EXPECT_EQ(choose({40}, {36, 20, 0}), 40);
}

TEST_F(InterferencePlannerTest, ACurrentChannelWithoutABlockIsAlwaysLeft) {
  hear(-40, 36, 20);
  EXPECT_EQ(choose({36, 43}, {43, 40, 256}), 36);
}

TEST_F(InterferencePlannerTest, ChannelsWithANegativeCostAreSkippedAndLeft) {
  hear(-110, 36, 20);
  EXPECT_EQ(choose({36, 40}, {36, 20, 0}), 0);  // slot 46 makes 40 negative too
  EXPECT_EQ(choose({36, 44}, {36, 20, 0}), 44);
}

TEST_F(InterferencePlannerTest, NoUsableChannelIsNoDecision) {
  EXPECT_EQ(choose({}, {36, 20, 0}), 0);
  EXPECT_EQ(choose({14, 15, 234}, {36, 20, 0}), 0);
  EXPECT_EQ(choose({36, 40}, {36, 30, 0}), 0);
}

TEST_F(InterferencePlannerTest, WideChannelsCountTheirPrimaryTwice) {
  hear(-40, 36, 20);  // inside the block 42..58 of all four channels, on the primary of 36
  EXPECT_EQ(choose({36, 40, 44, 48}, {36, 80, 0}), 44);  // 40 has the 18 of slot 46 twice
}

TEST_F(InterferencePlannerTest, ChannelsWithoutPrimaryCountSlots5To9) {
  hear(-40, 1, 20);  // slots 7..11: 18 42 60 42 18
  // Both lie in the block 7..71 (180). Primary of 1: 180 more; of 20: slots 5 to 9, 120 more.
  EXPECT_EQ(choose({1, 20}, {1, 320, 256}), 20);
  planner.clear();
  hear(-40, 36, 20);
  // Primary of 36 adds 180, of 20 nothing; but channel 2 (slots 8..12) adds nothing either.
  EXPECT_EQ(choose({2, 20, 36}, {36, 320, 256}), 2);
  planner.clear();
  hear(-40, 1, 20);
  // Channel 5 (slots 11..15) adds 18, less than the 120 of slots 5 to 9.
  EXPECT_EQ(choose({20, 5}, {20, 320, 256}), 5);
}

TEST_F(InterferencePlannerTest, FortyMegahertzMustLieOnTheAxis) {
  EXPECT_EQ(choose({262}, {1, 40, 256}), 0);    // slots 268..276
  EXPECT_EQ(choose({260}, {1, 40, 256}), 260);  // slots 266..274
}

TEST_F(InterferencePlannerTest, ThePositionDecidesWhereFortyMegahertzLie) {
  hear(-40, 185, 20);  // slots 191..195
  // Lying below, 181 (slots 183..191) only touches it; lying above, 189 (slots 195..203) does.
  EXPECT_EQ(choose({181, 189}, {181, 40, 512}), 181);
  EXPECT_EQ(choose({181, 189}, {181, 40, 256}), 189);
}

}  // namespace
}  // namespace rrm
