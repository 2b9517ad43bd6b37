#include "server/RolloverSchedule.h"

#include <gtest/gtest.h>

namespace {

using std::chrono::hours;
using std::chrono::seconds;

constexpr RolloverSchedule::Clock::time_point kStart{};

TEST(RolloverSchedule, OneHourIsDueAtTheFirstTickThatReachesIt) {
  RolloverSchedule schedule(kStart, hours(1));
  for (int tick = 1; tick < 360; ++tick)
    ASSERT_FALSE(schedule.is_due(kStart + tick * seconds(10), false)) << tick;
  EXPECT_TRUE(schedule.is_due(kStart + hours(1), false));
}

TEST(RolloverSchedule, PeriodStartsAgainWithItsOwnRollover) {
  RolloverSchedule schedule(kStart, hours(1));
  ASSERT_TRUE(schedule.is_due(kStart + hours(1) + seconds(3), false));
  EXPECT_FALSE(schedule.is_due(kStart + hours(1) + seconds(13), true)) << "tells of its own";
  EXPECT_FALSE(schedule.is_due(kStart + hours(2) + seconds(12), false));
  EXPECT_TRUE(schedule.is_due(kStart + hours(2) + seconds(13), false));
}

TEST(RolloverSchedule, RolloverBySizePostponesTheNextOneByAFullPeriod) {
  RolloverSchedule schedule(kStart, hours(1));
  EXPECT_FALSE(schedule.is_due(kStart + seconds(3590), true));
  EXPECT_FALSE(schedule.is_due(kStart + hours(1), false));
  EXPECT_FALSE(schedule.is_due(kStart + seconds(7180), false));
  EXPECT_TRUE(schedule.is_due(kStart + seconds(7190), false));
}

TEST(RolloverSchedule, RolloverBySizeInTheTickThatIsDueComesFirst) {
  RolloverSchedule schedule(kStart, hours(1));
  EXPECT_FALSE(schedule.is_due(kStart + hours(1), true));
  EXPECT_FALSE(schedule.is_due(kStart + hours(1) + seconds(10), false));
  EXPECT_TRUE(schedule.is_due(kStart + hours(2), false));
}

}  // namespace
