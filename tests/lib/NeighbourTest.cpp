#include "server/lib/Neighbour.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <random>

#include "tests/support/CapturedLog.h"
#include "tests/support/JsonText.h"

namespace rrm {
namespace {

using test::array_text;
using test::CapturedLog;
using test::object_text;

const MacAddress kA = MacAddress::from_text("00:11:22:33:44:50");
const MacAddress kB = MacAddress::from_text("00:11:22:33:44:60");

Neighbour heard(std::int32_t dbm, std::int32_t channel = 36, std::int32_t tx_power = 20) {
  return {dbm, channel, 5, 80, tx_power, 256};
}

TEST(RobustMean, OfMinus60AndMinus70IsMinus65) { EXPECT_EQ(robust_mean({-60, -70}), -65); }

TEST(RobustMean, DropsAStraySample) {
  // mean -60, radius 17; the three near it have mean -51, radius 1
  EXPECT_EQ(robust_mean({-50, -52, -51, -90}), -51);
}

TEST(RobustMean, OfASingleValueIsThatValue) {
  for (const std::int32_t value : {INT_MIN, -90, -1, 0, 1, 40, INT_MAX})
    EXPECT_EQ(robust_mean({value}), value);
}

TEST(RobustMean, OfMinus5And5IsZero) { EXPECT_EQ(robust_mean({-5, 5}), 0); }

TEST(RobustMean, OfNothingIsZero) { EXPECT_EQ(robust_mean({}), 0); }

TEST(RobustMean, KeepsTheMeanAsCentreWithFewerThanThreeSamplesNearIt) {
  // mean -50, squares 5000 / 4, radius 36: only the two of -50 are near
  EXPECT_EQ(robust_mean({-100, -50, -50, 0}), -50);
  // mean -46, squares 4805 / 4, radius 35: -40 and -44 are near, and -46 stays the centre
  EXPECT_EQ(robust_mean({-100, -44, -40, -3}), -42);
}

TEST(RobustMean, TruncatesTowardsZero) {
  EXPECT_EQ(robust_mean({-50, -51}), -50);  // -101 / 2
  EXPECT_EQ(robust_mean({50, 51}), 50);
}

TEST(RobustMean, OfAZeroMeanTakesTheFewNearIt) {
  // mean 1 / 3 = 0, squares 4859 / 3, radius 41: only 1 is near and becomes the centre with the
  // same radius, which leaves it alone
  EXPECT_EQ(robust_mean({-50, 1, 50}), 1);
}

/// The same figures with rational arithmetic spelled out, for values small enough to be exact.
std::int32_t mean_by_the_book(const std::vector<std::int32_t>& values) {
  const auto n = static_cast<long>(values.size());
  long sum = 0;
  for (const long x : values) sum += x;
  const long m = sum / n;
  long squares = 0;
  for (const long x : values) squares += (x - m) * (x - m);
  const long sd1 = static_cast<long>(std::sqrt(static_cast<double>(squares / n)) + 1.0);
  long k1 = 0;
  long near_sum = 0;
  for (const long x : values)
    if (std::labs(x - m) <= sd1) ++k1, near_sum += x;
  long c = 0;
  if (m != 0 && k1 <= 2)
    c = m;
  else if (k1 != 0)
    c = near_sum / k1;
  long sd = sd1;
  if (k1 >= 3) {
    long near_squares = 0;
    for (const long x : values)
      if (std::labs(x - m) <= sd1) near_squares += (x - c) * (x - c);
    sd = static_cast<long>(std::sqrt(static_cast<double>(near_squares / k1)) + 1.0);
  }
  long kept = 0;
  long kept_sum = 0;
  for (const long x : values)
    if (std::labs(x - c) <= sd) ++kept, kept_sum += x;
  return kept == 0 ? 0 : static_cast<std::int32_t>(kept_sum / kept);
}

TEST(RobustMean, AgreesWithTheFiguresSpelledOut) {
  std::mt19937 random(4711);
  for (int round = 0; round < 2000; ++round) {
    std::vector<std::int32_t> values(1 + random() % 12);
    const int width = round % 2 == 0 ? 100 : 20;
    for (std::int32_t& value : values)
      value = static_cast<int>(random() % 201) * width / 100 - width;
    EXPECT_EQ(robust_mean(values), mean_by_the_book(values)) << testing::PrintToString(values);
  }
}

TEST(RobustMean, SurvivesAbsurdNumbers) {
  for (const auto& values :
       std::vector<std::vector<std::int32_t>>{{INT_MIN, INT_MAX},
                                              {INT_MIN, INT_MIN, INT_MIN},
                                              {INT_MAX, INT_MAX, INT_MAX, INT_MIN},
                                              std::vector<std::int32_t>(1000, INT_MIN)}) {
    const std::int32_t mean = robust_mean(values);
    EXPECT_GE(mean, *std::min_element(values.begin(), values.end()));
    EXPECT_LE(mean, *std::max_element(values.begin(), values.end()));
  }
}

TEST(NeighbourMap, KeepsTheFirstEntryOfABssid) {
  NeighbourMap map;
  insert_neighbour(map, kA, heard(-50));
  insert_neighbour(map, kA, heard(-70));
  ASSERT_EQ(map.size(), 1u);
  EXPECT_EQ(map.at(kA).dbm_signal, -50);
}

TEST(NeighbourMap, MergesTheSignalsOfAllScansUnderTheRestOfTheLatest) {
  NeighbourMap target;
  insert_neighbour(target, MacAddress{}, heard(-1));
  const NeighbourMap first = {{kA, heard(-60, 36, 17)}, {kB, heard(-80, 40)}};
  const NeighbourMap second = {{kB, heard(-70, 44)}};
  const NeighbourMap third = {{kA, {-70, 48, 6, 160, 23, 512}}};
  merge_neighbours(target, {first, second, third});
  ASSERT_EQ(target.size(), 2u);
  EXPECT_EQ(target.at(kA).dbm_signal, -65);
  EXPECT_EQ(target.at(kA).channel, 48);
  EXPECT_EQ(target.at(kA).tx_power, 23);
  EXPECT_EQ(target.at(kA).band, 6);
  EXPECT_EQ(target.at(kA).bandwidth, 160);
  EXPECT_EQ(target.at(kA).primary, 512);
  EXPECT_EQ(target.at(kB).dbm_signal, -75);
  EXPECT_EQ(target.at(kB).channel, 44);
}

TEST(NeighbourMap, MergesNothingToNothing) {
  NeighbourMap target = {{kA, heard(-60)}};
  merge_neighbours(target, {});
  EXPECT_TRUE(target.empty());
}

TEST(NeighbourMap, IsWrittenAsAnArray) {
  const Neighbour entry{-60, 36, 5, 80, 20, 512};
  EXPECT_EQ(object_text([&](JsonWriter& object) { entry.to_json(object); }),
            R"({"dbm-signal":-60,"channel":36,"band":5,"bandwidth":80,"tx-power":20,)"
            R"("primary":512})");
  EXPECT_EQ(array_text([&](JsonWriter& array) {
              neighbours_to_json({{kA, entry}}, array);
            }),
            R"([{"mac":"00:11:22:33:44:50","dbm-signal":-60,"channel":36,"band":5,"bandwidth":80,)"
            R"("tx-power":20,"primary":512}])");
  EXPECT_EQ(array_text([&](JsonWriter& array) { neighbours_to_json({}, array); }), "[]");
}

TEST(NeighbourMap, RestoresWhatWasWritten) {
  const NeighbourMap source = {{kA, {-60, 36, 5, 80, 20, 512}}, {kB, {-70, 1, 2, 20, 0, 256}}};
  const std::string text =
      array_text([&](JsonWriter& array) { neighbours_to_json(source, array); });
  NeighbourMap map;
  restore_neighbours(map, JsonReader(text.c_str()));
  ASSERT_EQ(map.size(), 2u);
  for (const auto& [bssid, entry] : source) {
    EXPECT_EQ(map.at(bssid).dbm_signal, entry.dbm_signal);
    EXPECT_EQ(map.at(bssid).channel, entry.channel);
    EXPECT_EQ(map.at(bssid).band, entry.band);
    EXPECT_EQ(map.at(bssid).bandwidth, entry.bandwidth);
    EXPECT_EQ(map.at(bssid).tx_power, entry.tx_power);
    EXPECT_EQ(map.at(bssid).primary, entry.primary);
  }
}

TEST(NeighbourMap, RestoreInfersMissingBandsAndLogsWhereItCannot) {
  CapturedLog log;
  NeighbourMap map;
  restore_neighbours(map, JsonReader(R"([{"mac":"00:11:22:33:44:50","channel":170},null,
                                        {"mac":"00:11:22:33:44:60","channel":20},
                                        {"mac":"00:11:22:33:44:70","channel":20,"band":7},
                                        {"mac":"00:11:22:33:44:80","channel":20,"band":0}])"));
  ASSERT_EQ(map.size(), 4u);
  EXPECT_EQ(map.at(kA).band, 6);
  EXPECT_EQ(map.at(kB).band, 0);
  EXPECT_EQ(map.at(MacAddress::from_text("00:11:22:33:44:70")).band, 7);
  EXPECT_THAT(
      log.texts(LogLevel::Debug),
      testing::ElementsAre("neighbour state entry without band: mac=00:11:22:33:44:60 channel=20"));
}

TEST(NeighbourMap, RestoreTakesUnreadableMacsAsZerosAndKeepsTheFirst) {
  NeighbourMap map;
  restore_neighbours(map, JsonReader(R"([{"mac":"what","channel":36},{"channel":40},
                                        {"mac":7,"channel":44},5,"x",[]])"));
  ASSERT_EQ(map.size(), 1u);
  EXPECT_EQ(map.at(MacAddress{}).channel, 36);
  restore_neighbours(map, JsonReader("null"));
  restore_neighbours(map, JsonReader("{}"));
  EXPECT_EQ(map.size(), 1u);
}

}  // namespace
}  // namespace rrm
