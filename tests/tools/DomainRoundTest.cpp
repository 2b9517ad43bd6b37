#include "tools/fleet/DomainRound.h"

#include <gtest/gtest.h>

namespace rrm::fleet {
namespace {

/// Two access points that go through a round side by side.
class DomainRoundOfTwo : public testing::Test {
 protected:
  void both(Millis now, ApEvent event) {
    round.on_event(now, 0, event);
    round.on_event(now + 10, 1, event);
  }
  DomainRound round{2};
};

TEST_F(DomainRoundOfTwo, PassesThroughEveryStage) {
  EXPECT_EQ(round.stage(), Stage::Subscribing);
  both(1000, ApEvent::Subscribed);
  EXPECT_EQ(round.stage(), Stage::Waiting);
  both(21000, ApEvent::ModesRequested);
  EXPECT_EQ(round.stage(), Stage::Measuring);
  both(36000, ApEvent::ScanRequested);
  EXPECT_EQ(round.stage(), Stage::Scanning);
  both(40000, ApEvent::ScanAnswered);
  EXPECT_EQ(round.stage(), Stage::Optimising);
  EXPECT_FALSE(round.finished(41000));
  both(42000, ApEvent::ConfigTaken);
  EXPECT_EQ(round.stage(), Stage::Planned);
  EXPECT_TRUE(round.finished(42010));
  EXPECT_FALSE(round.finished(42010)) << "told once";
  EXPECT_EQ(round.rounds(), 1u);
}

TEST_F(DomainRoundOfTwo, TimesItsStages) {
  both(1000, ApEvent::Subscribed);
  both(21000, ApEvent::ModesRequested);
  both(36000, ApEvent::ScanRequested);
  both(40000, ApEvent::ScanAnswered);
  both(42000, ApEvent::ConfigTaken);
  ASSERT_TRUE(round.finished(42010));
  EXPECT_EQ(round.times().waiting, 21000 - 1010);
  EXPECT_EQ(round.times().measuring, 15000);
  EXPECT_EQ(round.times().scanning, 40010 - 36000);
  EXPECT_EQ(round.times().optimising, 42000 - 40010);
  EXPECT_EQ(round.times().distributing, 10);
  EXPECT_EQ(round.times().total(), 42010 - 1010);
}

TEST_F(DomainRoundOfTwo, EndsThreeSecondsAfterTheLastPlanWhenSomebodyGetsNone) {
  both(0, ApEvent::ModesRequested);
  both(100, ApEvent::ScanRequested);
  both(200, ApEvent::ScanAnswered);
  round.on_event(1000, 1, ApEvent::ConfigTaken);
  EXPECT_FALSE(round.finished(3999));
  EXPECT_TRUE(round.finished(4000));
}

TEST_F(DomainRoundOfTwo, DoesNotWaitForThoseWhoReportedNothing) {
  both(0, ApEvent::ModesRequested);
  both(100, ApEvent::ScanRequested);
  round.on_event(200, 0, ApEvent::ScanAnswered);
  round.on_event(300, 0, ApEvent::ConfigTaken);
  EXPECT_TRUE(round.finished(300));
}

TEST_F(DomainRoundOfTwo, IgnoresPlansOutsideARound) {
  both(0, ApEvent::Subscribed);
  both(100, ApEvent::ConfigTaken);
  EXPECT_EQ(round.plans(), 0u);
  EXPECT_FALSE(round.finished(9000));
}

TEST_F(DomainRoundOfTwo, BeginsAnewWhenModesAreAskedForAgain) {
  EXPECT_TRUE(round.on_event(0, 0, ApEvent::ModesRequested));
  EXPECT_FALSE(round.on_event(1, 1, ApEvent::ModesRequested));
  both(100, ApEvent::ScanRequested);
  EXPECT_TRUE(round.on_event(500, 1, ApEvent::ModesRequested));
  EXPECT_EQ(round.modes(), 1u);
  EXPECT_EQ(round.scans_asked(), 0u);
}

TEST_F(DomainRoundOfTwo, ForgetsALostAccessPoint) {
  both(0, ApEvent::Subscribed);
  both(10, ApEvent::ModesRequested);
  both(100, ApEvent::ScanRequested);
  round.on_event(200, 0, ApEvent::ScanAnswered);
  round.on_lost(1);
  EXPECT_EQ(round.subscribed(), 1u);
  EXPECT_EQ(round.stage(), Stage::Optimising);
  round.on_event(300, 0, ApEvent::ConfigTaken);
  EXPECT_TRUE(round.finished(300));
}

TEST_F(DomainRoundOfTwo, HasNoWaitingTimeInLaterRounds) {
  both(0, ApEvent::Subscribed);
  for (const Millis start : {1000, 50000}) {
    both(start, ApEvent::ModesRequested);
    both(start + 100, ApEvent::ScanRequested);
    both(start + 200, ApEvent::ScanAnswered);
    both(start + 300, ApEvent::ConfigTaken);
    ASSERT_TRUE(round.finished(start + 400));
  }
  EXPECT_EQ(round.rounds(), 2u);
  EXPECT_EQ(round.times().waiting, 0);
}

}  // namespace
}  // namespace rrm::fleet
