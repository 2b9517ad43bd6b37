#include "server/lib/TpcDcaChannels.h"

#include <gtest/gtest.h>

#include <limits>
#include <utility>
#include <vector>

namespace rrm {
namespace {

struct BlockCase {
  std::int32_t width_mhz;
  std::int32_t first_channel;
  std::int32_t last_channel;
  SlotRange block;
};

TEST(TpcDcaChannels, EveryChannelOfARowHasTheBlockOfTheRow) {
  const BlockCase cases[] = {
      {40, 36, 40, {42, 50}},      {40, 44, 44, {50, 58}},      {40, 48, 48, {50, 58}},
      {40, 52, 52, {58, 66}},      {40, 56, 56, {58, 66}},      {40, 60, 60, {66, 74}},
      {40, 64, 64, {66, 74}},      {40, 100, 100, {106, 114}},  {40, 104, 104, {106, 114}},
      {40, 108, 108, {114, 122}},  {40, 112, 112, {114, 122}},  {40, 116, 116, {122, 130}},
      {40, 120, 120, {122, 130}},  {40, 124, 124, {130, 138}},  {40, 128, 128, {130, 138}},
      {40, 132, 132, {138, 146}},  {40, 136, 136, {138, 146}},  {40, 140, 140, {146, 154}},
      {40, 144, 144, {146, 154}},  {40, 149, 149, {155, 163}},  {40, 153, 153, {155, 163}},
      {40, 157, 157, {163, 171}},  {40, 161, 161, {163, 171}},  {80, 36, 48, {42, 58}},
      {80, 52, 64, {58, 74}},      {80, 100, 112, {106, 122}},  {80, 116, 128, {122, 138}},
      {80, 132, 144, {138, 154}},  {80, 149, 161, {155, 171}},  {80, 165, 173, {167, 183}},
      {80, 174, 189, {183, 199}},  {80, 190, 205, {199, 215}},  {80, 206, 221, {215, 231}},
      {160, 36, 64, {42, 74}},     {160, 100, 128, {106, 138}}, {160, 165, 189, {167, 199}},
      {160, 190, 221, {199, 231}}, {320, 1, 47, {7, 71}},       {320, 48, 79, {39, 103}},
      {320, 80, 111, {71, 135}},   {320, 112, 143, {103, 167}}, {320, 144, 175, {135, 199}},
      {320, 176, 207, {167, 231}}, {320, 208, 233, {199, 263}},
  };
  for (const BlockCase& row : cases)
    for (std::int32_t channel = row.first_channel; channel <= row.last_channel; ++channel)
      EXPECT_EQ(channel_block({channel, row.width_mhz, 256}), row.block)
          << row.width_mhz << " MHz on " << channel;
}

TEST(TpcDcaChannels, ChannelsBetweenTheRowsHaveNoBlock) {
  const std::pair<std::int32_t, std::vector<std::int32_t>> cases[] = {
      {20, {0, -1, 14, 15, 35, 234}},
      {40, {41, 43, 45, 46, 47, 50, 65, 99, 101, 145, 155, 162, 163, 164}},
      {80, {1, 35, 49, 51, 65, 99, 113, 129, 145, 148, 162, 164, 222, 233}},
      {160, {1, 35, 65, 99, 129, 149, 164, 222, 233}},
      {320, {0, -5, 234, 300}},
      {0, {1, 36, 100}},
      {30, {1, 36, 100}},
  };
  for (const auto& [width, channels] : cases)
    for (const std::int32_t channel : channels)
      EXPECT_TRUE(channel_block({channel, width, 256}).empty()) << width << " MHz on " << channel;
}

TEST(TpcDcaChannels, TwentyMegahertzReachTwoSlotsToEachSide) {
  EXPECT_EQ(channel_block({1, 20, 0}), (SlotRange{7, 11}));
  EXPECT_EQ(channel_block({13, 20, 0}), (SlotRange{19, 23}));
  EXPECT_EQ(channel_block({36, 20, 0}), (SlotRange{42, 46}));
  EXPECT_EQ(channel_block({233, 20, 0}), (SlotRange{239, 243}));
}

TEST(TpcDcaChannels, FortyMegahertzAt2GHzLieBelowTheChannelWhenItIsTheUpperOne) {
  EXPECT_EQ(channel_block({6, 40, 512}), (SlotRange{8, 16}));
  EXPECT_EQ(channel_block({6, 40, 256}), (SlotRange{12, 20}));
  EXPECT_EQ(channel_block({6, 40, 0}), (SlotRange{12, 20}));
  EXPECT_EQ(channel_block({1, 40, 256}), (SlotRange{7, 15}));
  EXPECT_TRUE(channel_block({4, 40, 512}).empty());   // centre 2
  EXPECT_FALSE(channel_block({5, 40, 512}).empty());  // centre 3
  EXPECT_FALSE(channel_block({9, 40, 256}).empty());  // centre 11
  EXPECT_TRUE(channel_block({10, 40, 256}).empty());  // centre 12
  EXPECT_EQ(channel_block({13, 40, 512}), (SlotRange{15, 23}));
}

TEST(TpcDcaChannels, FortyMegahertzAbove164FollowThePosition) {
  EXPECT_EQ(channel_block({165, 40, 512}), (SlotRange{167, 175}));
  EXPECT_EQ(channel_block({165, 40, 256}), (SlotRange{171, 179}));
  EXPECT_EQ(channel_block({270, 40, 512}), (SlotRange{272, 280}));
}

TEST(TpcDcaChannels, AbsurdChannelsHaveNoBlock) {
  constexpr std::int32_t kMost = std::numeric_limits<std::int32_t>::max();
  constexpr std::int32_t kLeast = std::numeric_limits<std::int32_t>::min();
  for (const std::int32_t channel : {kMost, kLeast})
    for (const std::int32_t width : {20, 40, 80, 160, 320, kMost, kLeast})
      EXPECT_TRUE(channel_block({channel, width, 512}).empty());
}

TEST(TpcDcaChannels, WideBlocksAreSharedForTheWiderOfTheTwoWidths) {
  EXPECT_TRUE(shares_wide_block({36, 20, 0}, {48, 80, 0}));
  EXPECT_FALSE(shares_wide_block({36, 20, 0}, {52, 80, 0}));
  EXPECT_FALSE(shares_wide_block({36, 20, 0}, {40, 20, 0}));
  EXPECT_TRUE(shares_wide_block({36, 20, 0}, {40, 40, 0}));
  EXPECT_TRUE(shares_wide_block({36, 80, 0}, {64, 160, 0}));
}

TEST(TpcDcaChannels, EqualChannelsShareEvenWithoutABlock) {
  EXPECT_TRUE(shares_wide_block({20, 80, 0}, {20, 80, 0}));
  EXPECT_FALSE(shares_wide_block({20, 80, 0}, {21, 80, 0}));
}

}  // namespace
}  // namespace rrm
