#include "server/lib/HandlingTime.h"

#include <gtest/gtest.h>

#include <limits>

#include "tests/support/Engine.h"

namespace rrm {
namespace {

TEST(HandlingTime, ReportsAnAverageOf0WhenNothingWasHandled) {
  EXPECT_EQ(HandlingTime().average_us(), 0);
  EXPECT_EQ(HandlingTime().count(), 0u);
}

TEST(HandlingTime, AveragesInWholeMicroseconds) {
  HandlingTime time;
  for (const int us : {10, 11, 13}) time.add(us);
  EXPECT_EQ(time.count(), 3u);
  EXPECT_EQ(time.average_us(), 11);  // 34 / 3
}

TEST(HandlingTime, RestartsSumAndCountFrom0AfterAnOverflow) {
  HandlingTime time;
  time.add(std::numeric_limits<std::int64_t>::max());
  time.add(1);
  EXPECT_EQ(time.count(), 0u);
  EXPECT_EQ(time.average_us(), 0);
  time.add(8);
  EXPECT_EQ(time.count(), 1u);
  EXPECT_EQ(time.average_us(), 8);
}

TEST(HandlingTime, RestartsWhenTheClockWasSetBack) {
  HandlingTime time;
  time.add(100);
  time.add(-1);
  EXPECT_EQ(time.count(), 0u);
  EXPECT_EQ(time.average_us(), 0);
}

TEST(HandlingTime, MeasuresAScopeByTheTimeOfDay) {
  test::StoppedClock clock;
  HandlingTime time;
  {
    const HandlingTime::Scope scope(time);
    clock.advance_wall_us(1500);
  }
  EXPECT_EQ(time.count(), 1u);
  EXPECT_EQ(time.average_us(), 1500);
}

}  // namespace
}  // namespace rrm
