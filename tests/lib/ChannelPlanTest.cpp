#include "server/lib/ChannelPlan.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <utility>
#include <vector>

namespace rrm {
namespace {

struct BandCase {
  const char* name;
  std::int32_t channel;
  std::int32_t band;
};

class InferredBand : public testing::TestWithParam<BandCase> {};

TEST_P(InferredBand, FollowsTheChannelNumber) {
  EXPECT_EQ(infer_band(GetParam().channel), GetParam().band);
}

INSTANTIATE_TEST_SUITE_P(
    Channels, InferredBand,
    testing::Values(BandCase{"Lowest", INT_MIN, 0}, BandCase{"Zero", 0, 0},
                    BandCase{"FirstOf2GHz", 1, 2}, BandCase{"LastOf2GHz", 14, 2},
                    BandCase{"Above2GHz", 15, 0}, BandCase{"Below5GHz", 35, 0},
                    BandCase{"FirstOf5GHz", 36, 5}, BandCase{"LastOf5GHz", 165, 5},
                    BandCase{"FirstOf6GHz", 166, 6}, BandCase{"LastOf6GHz", 233, 6},
                    BandCase{"Above6GHz", 234, 0}, BandCase{"Highest", INT_MAX, 0}),
    [](const auto& test) { return test.param.name; });

struct PositionCase {
  std::int32_t band;
  std::int32_t width;
  std::int32_t channel;
  std::int32_t before;
  std::int32_t after;
};

void expect_positions(const std::vector<PositionCase>& cases) {
  for (const PositionCase& c : cases)
    EXPECT_EQ(normalized_primary_channel(c.before, c.channel, c.band, c.width), c.after)
        << "band " << c.band << " width " << c.width << " channel " << c.channel << " before "
        << c.before;
}

/// Every position may come in; those that the channel decides come out alike.
void expect_decided(std::int32_t band, std::int32_t width, std::int32_t channel,
                    std::int32_t after) {
  for (const std::int32_t before : {0, 256, 512, 768, 1024, 7, -1})
    EXPECT_EQ(normalized_primary_channel(before, channel, band, width), after)
        << "band " << band << " width " << width << " channel " << channel << " before " << before;
}

/// `known` stay, everything else becomes none.
void expect_kept(std::int32_t band, std::int32_t width, std::int32_t channel,
                 const std::vector<std::int32_t>& known) {
  for (const std::int32_t before : {0, 256, 512, 768, 1024, 7, -1}) {
    const bool keeps = std::find(known.begin(), known.end(), before) != known.end();
    EXPECT_EQ(normalized_primary_channel(before, channel, band, width), keeps ? before : 0)
        << "band " << band << " width " << width << " channel " << channel << " before " << before;
  }
}

const std::vector<std::int32_t> kHalves = {256, 512};
const std::vector<std::int32_t> kQuarters = {256, 512, 768, 1024};

TEST(PrimaryChannelPosition, IsNoneAt20MHzWhateverTheBand) {
  for (const std::int32_t band : {0, 2, 5, 6})
    for (const std::int32_t channel : {0, 1, 36, 42, 170, 233, 999})
      expect_decided(band, 20, channel, 0);
}

TEST(PrimaryChannelPosition, FollowsTheHalfOfThe40MHzPairsAt5GHz) {
  for (const std::int32_t lower : {36, 44, 52, 60, 100, 108, 116, 124, 132, 140, 149, 157}) {
    expect_decided(5, 40, lower, 256);
    expect_decided(5, 40, lower + 4, 512);
    expect_kept(5, 40, lower + 2, kHalves);
  }
}

TEST(PrimaryChannelPosition, FollowsTheQuarterOfThe80MHzBlocksAt5GHz) {
  for (const std::int32_t first : {36, 52, 100, 116, 132, 149}) {
    expect_decided(5, 80, first, 256);
    expect_decided(5, 80, first + 4, 512);
    expect_decided(5, 80, first + 8, 768);
    expect_decided(5, 80, first + 12, 1024);
    expect_kept(5, 80, first + 6, kQuarters);
  }
}

TEST(PrimaryChannelPosition, OfThe80MHzBlockAround42RunsFromLlToUu) {
  EXPECT_STREQ(primary_channel_name(normalized_primary_channel(0, 36, 5, 80), 80), "ll");
  EXPECT_STREQ(primary_channel_name(normalized_primary_channel(0, 40, 5, 80), 80), "lu");
  EXPECT_STREQ(primary_channel_name(normalized_primary_channel(0, 44, 5, 80), 80), "ul");
  EXPECT_STREQ(primary_channel_name(normalized_primary_channel(0, 48, 5, 80), 80), "uu");
  EXPECT_EQ(normalized_primary_channel(768, 42, 5, 80), 768);
  EXPECT_EQ(normalized_primary_channel(1, 42, 5, 80), 0);
}

TEST(PrimaryChannelPosition, FollowsTheHalfOfThe160MHzBlocksAt5GHz) {
  for (const std::int32_t channel : {36, 40, 44, 48}) expect_decided(5, 160, channel, 256);
  for (const std::int32_t channel : {52, 56, 60, 64}) expect_decided(5, 160, channel, 512);
  for (const std::int32_t channel : {100, 104, 108, 112}) expect_decided(5, 160, channel, 256);
  for (const std::int32_t channel : {116, 120, 124, 128}) expect_decided(5, 160, channel, 512);
  for (const std::int32_t channel : {50, 114, 65, 99, 35, 129, 149, 165})
    expect_kept(5, 160, channel, kHalves);
}

TEST(PrimaryChannelPosition, OfChannelsBetweenTheBlocksComesFromRegularOnes) {
  // 40 MHz: ((41 - 1) & ~7) + 3 = 43; 80 MHz: ((65 - 1) & ~15) + 7 = 71.
  expect_positions({{5, 40, 41, 0, 256},
                    {5, 40, 43, 512, 512},
                    {5, 40, 43, 768, 0},
                    {5, 40, 145, 0, 256},  // centre 147
                    {5, 40, 148, 0, 512},  // centre 147
                    {5, 80, 65, 0, 256},   // 6 below
                    {5, 80, 66, 0, 512},   // 5 below
                    {5, 80, 71, 1024, 1024},
                    {5, 80, 76, 0, 768},     // 5 above
                    {5, 80, 77, 0, 1024},    // 6 above
                    {5, 80, 145, 0, 256}});  // centre 151
}

TEST(PrimaryChannelPosition, IsKeptOutsideTheBlocksOf5GHz) {
  for (const std::int32_t channel : {1, 14, 35, 162, 165}) {
    expect_kept(5, 40, channel, kHalves);
    expect_kept(5, 80, channel, kQuarters);
  }
  for (const std::int32_t channel : {36, 100, 165}) {
    expect_kept(5, 320, channel, kHalves);
    expect_kept(5, 10, channel, {});
  }
}

TEST(PrimaryChannelPosition, FollowsRegularBlocksAt6GHz) {
  expect_positions({{6, 40, 1, 0, 256},  // centre 3
                    {6, 40, 5, 0, 512},
                    {6, 40, 3, 512, 512},
                    {6, 40, 3, 768, 0},
                    {6, 40, 233, 0, 256},  // centre 235
                    {6, 80, 1, 0, 256},    // centre 7
                    {6, 80, 5, 0, 512},
                    {6, 80, 9, 0, 768},
                    {6, 80, 13, 0, 1024},
                    {6, 80, 7, 768, 768},
                    {6, 80, 7, 5, 0},
                    {6, 160, 1, 512, 256},  // centre 15
                    {6, 160, 29, 256, 512},
                    {6, 160, 15, 256, 256},
                    {6, 160, 15, 1024, 0},
                    {6, 160, 33, 0, 256}});  // centre 47
}

TEST(PrimaryChannelPosition, At320MHzIsKeptOrTakenFromTheNearestCentre) {
  expect_positions({{6, 320, 1, 512, 512},  // what the access point chose stands
                    {6, 320, 1, 256, 256},
                    {6, 320, 1, 0, 256},    // 30 below 31
                    {6, 320, 33, 0, 512},   // 2 above 31
                    {6, 320, 47, 0, 512},   // as near to 31 as to 63: the lower one
                    {6, 320, 49, 0, 256},   // 14 below 63
                    {6, 320, 31, 768, 0},   // on the centre
                    {6, 320, 229, 0, 512},  // 6 above 223
                    {6, 320, 255, 0, 512},  // 32 above 223
                    {6, 320, 256, 0, 0},    // 33 above 223
                    {6, 320, -1, 0, 256},   // 32 below 31
                    {6, 320, -2, 0, 0}});
}

TEST(PrimaryChannelPosition, At6GHzKnowsNoOtherWidth) {
  for (const std::int32_t width : {0, 10, 60, -40}) expect_decided(6, width, 37, 0);
}

TEST(PrimaryChannelPosition, OfABand6RadioFollowsItsRuleWhateverTheChannel) {
  // At 5 GHz the block of channel 36 is 36..40 with centre 38, at 6 GHz 33..40 with centre 35.
  EXPECT_EQ(normalized_primary_channel(0, 36, 5, 40), 256);
  EXPECT_EQ(normalized_primary_channel(0, 36, 6, 40), 512);
  EXPECT_EQ(normalized_primary_channel(0, 0, 6, 40), 512);     // centre -5
  EXPECT_EQ(normalized_primary_channel(0, 300, 6, 160), 256);  // centre 303
  EXPECT_EQ(normalized_primary_channel(0, INT_MIN, 6, 40), 512);
  EXPECT_EQ(normalized_primary_channel(0, INT_MAX, 6, 80), 1024);
}

TEST(PrimaryChannelPosition, IsKeptAt2GHzAndWhereNoRuleApplies) {
  const std::vector<std::pair<std::int32_t, std::int32_t>> band_and_channel = {
      {2, 1},   {2, 11},  {2, 36}, {0, 6},   {0, 20}, {0, 0},       {0, 170},
      {2, 170}, {5, 170}, {5, 0},  {5, 234}, {7, 40}, {0, INT_MIN}, {2, INT_MAX}};
  for (const auto& [band, channel] : band_and_channel) {
    expect_kept(band, 40, channel, kHalves);
    expect_kept(band, 80, channel, kQuarters);
    expect_kept(band, 160, channel, kHalves);
    expect_kept(band, 320, channel, kHalves);
    expect_kept(band, 10, channel, {});
  }
}

TEST(PrimaryChannelPosition, OfARadioWithoutBandFollowsTheBandOfItsChannel) {
  expect_decided(0, 40, 36, 256);
  expect_decided(0, 80, 48, 1024);
  expect_kept(0, 40, 166, kHalves);
}

TEST(PrimaryChannelName, KnowsTwoNamesAt40And160And320MHz) {
  for (const std::int32_t width : {40, 160, 320}) {
    EXPECT_STREQ(primary_channel_name(256, width), "lower");
    EXPECT_STREQ(primary_channel_name(512, width), "upper");
    for (const std::int32_t other : {0, 768, 1024, 100})
      EXPECT_STREQ(primary_channel_name(other, width), "none");
  }
}

TEST(PrimaryChannelName, KnowsFourNamesAt80MHz) {
  EXPECT_STREQ(primary_channel_name(256, 80), "ll");
  EXPECT_STREQ(primary_channel_name(512, 80), "lu");
  EXPECT_STREQ(primary_channel_name(768, 80), "ul");
  EXPECT_STREQ(primary_channel_name(1024, 80), "uu");
  EXPECT_STREQ(primary_channel_name(0, 80), "none");
}

TEST(PrimaryChannelName, IsNoneAtAnyOtherWidth) {
  for (const std::int32_t width : {0, 20, 60, -1})
    for (const std::int32_t position : {0, 256, 512, 768, 1024})
      EXPECT_STREQ(primary_channel_name(position, width), "none");
}

TEST(PrimaryChannelName, IsReadWhateverTheWidth) {
  EXPECT_EQ(primary_channel_from_name("lower"), 256);
  EXPECT_EQ(primary_channel_from_name("upper"), 512);
  EXPECT_EQ(primary_channel_from_name("ll"), 256);
  EXPECT_EQ(primary_channel_from_name("lu"), 512);
  EXPECT_EQ(primary_channel_from_name("ul"), 768);
  EXPECT_EQ(primary_channel_from_name("uu"), 1024);
  for (const char* other : {"", "none", "Upper", "uuu", "512"})
    EXPECT_EQ(primary_channel_from_name(other), 0) << other;
  EXPECT_EQ(primary_channel_from_name(nullptr), 0);
}

}  // namespace
}  // namespace rrm
