#include "tools/fleet/SteeringAudit.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/tools/SmallWorld.h"
#include "tools/fleet/Crowd.h"

namespace rrm::fleet {
namespace {

using Texts = std::vector<std::string>;

constexpr RadioKey kRadio{3, 1};
constexpr std::uint32_t kOne = 7;

TEST(SteeringAudit, BooksABlockThatAMessageEnds) {
  SteeringAudit audit(30000);
  audit.on_blocked(1000, kRadio, kOne, 31000);
  audit.on_refused(11000, kRadio, kOne);
  audit.on_unblocked(21000, kRadio, kOne);
  audit.on_unblocked(22000, kRadio, kOne);
  EXPECT_EQ(audit.figures().blocks, 1u);
  EXPECT_EQ(audit.figures().unblocked, 1u);
  EXPECT_EQ(audit.figures().longest_block, 20000);
  EXPECT_EQ(audit.figures().refusals, 1u);
  EXPECT_EQ(audit.figures().violations, 0u);
}

TEST(SteeringAudit, BooksABlockThatItsTimeEndsAlsoWhenAMessageComesLater) {
  SteeringAudit audit(30000);
  audit.on_blocked(1000, kRadio, kOne, 31000);
  audit.on_unblocked(31500, kRadio, kOne);
  audit.on_blocked(40000, kRadio, kOne, 70000);
  audit.finish(90000);
  EXPECT_EQ(audit.figures().expired, 2u);
  EXPECT_EQ(audit.figures().unblocked, 0u);
  EXPECT_EQ(audit.figures().longest_block, 30000);
}

TEST(SteeringAudit, KnowsABlockThatFollowsOneStillInForce) {
  SteeringAudit audit(30000);
  audit.on_blocked(0, kRadio, kOne, 30000);
  audit.on_blocked(10000, kRadio, kOne, 40000);
  audit.on_refused(39999, kRadio, kOne);
  audit.finish(50000);
  EXPECT_EQ(audit.figures().renewed, 1u);
  EXPECT_EQ(audit.figures().expired, 1u);
  EXPECT_EQ(audit.figures().violations, 0u);
}

TEST(SteeringAudit, FindsABlockThatOutlivesItsTime) {
  SteeringAudit audit(30000);
  audit.on_blocked(0, kRadio, kOne, 30000);
  audit.on_refused(29999, kRadio, kOne);
  EXPECT_EQ(audit.violations(), Texts{});
  audit.on_refused(30000, kRadio, kOne);
  EXPECT_EQ(audit.violations(),
            (Texts{"at 30.0 s: client 7 is still refused at access point 3 radio 1 after 30.0 s"}));
}

TEST(SteeringAudit, FindsARefusalWithoutABlock) {
  SteeringAudit audit(30000);
  audit.on_blocked(0, kRadio, kOne, 30000);
  audit.on_refused(100, {3, 2}, kOne);
  audit.on_refused(100, kRadio, 8);
  audit.on_unblocked(200, kRadio, kOne);
  audit.on_refused(300, kRadio, kOne);
  EXPECT_EQ(audit.violations(),
            (Texts{"at 0.1 s: client 7 is refused at access point 3 radio 2 without a block",
                   "at 0.1 s: client 8 is refused at access point 3 radio 1 without a block",
                   "at 0.3 s: client 7 is refused at access point 3 radio 1 without a block"}));
}

TEST(SteeringAudit, FindsABlockOfAnotherLength) {
  SteeringAudit audit(30000);
  audit.on_blocked(2000, kRadio, kOne, 33000);
  EXPECT_EQ(audit.violations(),
            (Texts{"at 2.0 s: client 7 is blocked at access point 3 radio 1 for 31.0 s instead of "
                   "30.0 s"}));
}

TEST(SteeringAudit, EndsTheBlocksOfADeadAccessPoint) {
  SteeringAudit audit(30000);
  audit.on_blocked(0, kRadio, kOne, 30000);
  audit.on_blocked(0, {4, 1}, kOne, 30000);
  audit.on_death(5000, 3);
  audit.on_refused(6000, {4, 1}, kOne);
  EXPECT_EQ(audit.figures().violations, 0u);
  audit.on_refused(6000, kRadio, kOne);
  EXPECT_EQ(audit.figures().violations, 1u);
}

TEST(SteeringAudit, FindsAClientThatWaitsTooLongAfterADeath) {
  SteeringAudit audit(30000);
  audit.on_parted(1000, kRadio, kOne, Parting::Death);
  audit.on_served(31000, {4, 0}, kOne);
  EXPECT_EQ(audit.violations(), Texts{});
  audit.on_parted(40000, {4, 0}, kOne, Parting::Death);
  audit.on_served(70100, kRadio, kOne);
  EXPECT_EQ(
      audit.violations(),
      (Texts{"at 70.1 s: client 7 was served by nobody for 30.1 s after access point 4 had died"}));
  EXPECT_EQ(audit.figures().orphaned, 2u);
  EXPECT_EQ(audit.figures().longest_orphaned, 30100);
}

TEST(SteeringAudit, FindsAClientThatStillWaitsAtTheEnd) {
  SteeringAudit audit(30000);
  audit.on_parted(1000, kRadio, kOne, Parting::Death);
  audit.finish(31001);
  EXPECT_EQ(audit.figures().violations, 1u);
}

TEST(SteeringAudit, OnlyMeasuresTheWaitOfAClientThatLostItsRadioOtherwise) {
  SteeringAudit audit(30000);
  for (const Parting why :
       {Parting::Roamed, Parting::Storm, Parting::Kicked, Parting::Transition}) {
    audit.on_parted(0, kRadio, kOne, why);
    audit.on_served(50000, kRadio, kOne);
  }
  audit.on_served(60000, kRadio, kOne);
  EXPECT_EQ(audit.figures().spans, 4u);
  EXPECT_EQ(audit.figures().orphaned, 0u);
  EXPECT_EQ(audit.figures().longest_span, 50000);
  EXPECT_EQ(audit.figures().violations, 0u);
}

TEST(SteeringAudit, KeepsTheTextsOfTheFirstTwentyViolations) {
  SteeringAudit audit(30000);
  for (int i = 0; i < 30; ++i) audit.on_refused(i, kRadio, kOne);
  EXPECT_EQ(audit.figures().violations, 30u);
  EXPECT_EQ(audit.violations().size(), 20u);
}

/// Two access points 30 m apart, one client that stands still.
class AuditedCrowd : public testing::Test {
 protected:
  AuditedCrowd() {
    options.clients = 1;
    options.moving = options.sticky = options.refusing = options.rare = options.gathered = 0;
    options.arrival = 0;
  }
  void run_for(Crowd& crowd, Millis time) {
    crowd.begin(now);
    for (const Millis end = now + time; now < end; now += 100) crowd.advance(now + 100);
  }
  static void block_at(Crowd& crowd, Millis at, std::uint32_t ap, Millis until) {
    for (int radio = 0; radio < 3; ++radio) crowd.block(at, {ap, radio}, crowd.mac(0), until);
  }

  World world{two_aps(30)};
  CrowdOptions options;
  Millis now = 0;
};

TEST_F(AuditedCrowd, TellsOfBlocksRefusalsAndSpans) {
  Crowd crowd(world, options);
  SteeringAudit audit(30000);
  crowd.watch(&audit);
  run_for(crowd, 2000);
  ASSERT_TRUE(crowd.served_by(0));
  const std::uint32_t home = crowd.served_by(0)->ap;
  const std::uint32_t other = 1 - home;
  block_at(crowd, now, other, now + 30000);
  crowd.set_alive(now, home, false);
  run_for(crowd, 29000);
  EXPECT_FALSE(crowd.served_by(0));
  run_for(crowd, 2000);
  ASSERT_TRUE(crowd.served_by(0));
  const SteeringAudit::Figures& figures = audit.figures();
  EXPECT_EQ(figures.blocks, 3u);
  EXPECT_GT(figures.refusals, 28u);
  EXPECT_EQ(figures.orphaned, 1u);
  EXPECT_GE(figures.longest_orphaned, 29000);
  // The client looks round once a second; the wait is that much longer than the block.
  EXPECT_LE(figures.longest_orphaned, 31000);
}

TEST_F(AuditedCrowd, IsFoundOutWhenItsBlocksLastTooLong) {
  Crowd crowd(world, options);
  SteeringAudit audit(5000);
  crowd.watch(&audit);
  run_for(crowd, 2000);
  const std::uint32_t home = crowd.served_by(0)->ap;
  block_at(crowd, now, 1 - home, now + 20000);
  EXPECT_EQ(audit.figures().violations, 3u) << "their length";
  crowd.set_alive(now, home, false);
  run_for(crowd, 25000);
  ASSERT_FALSE(audit.violations().empty());
  EXPECT_NE(audit.violations()[3].find("is still refused at"), std::string::npos);
  EXPECT_GT(audit.figures().longest_orphaned, 18000);
}

TEST_F(AuditedCrowd, TellsMovesBackThatADeathForcedFromOthers) {
  for (const bool away : {false, true}) {
    for (const bool back : {false, true}) {
      Crowd crowd(world, options);
      run_for(crowd, 2000);
      const RadioKey home = *crowd.served_by(0);
      // Away for some seconds ...
      block_at(crowd, now, home.ap, now + 3000);
      if (away) crowd.set_alive(now, home.ap, false);
      if (!away) crowd.kick(now, home, crowd.mac(0), now + 3000);
      run_for(crowd, 5000);
      ASSERT_TRUE(crowd.served_by(0));
      ASSERT_NE(crowd.served_by(0)->ap, home.ap);
      crowd.set_alive(now, home.ap, true);
      // ... and back.
      const RadioKey other = *crowd.served_by(0);
      block_at(crowd, now, other.ap, now + 30000);
      if (back) crowd.set_alive(now, other.ap, false);
      if (!back) crowd.kick(now, other, crowd.mac(0), now + 30000);
      run_for(crowd, 3000);
      ASSERT_EQ(crowd.served_by(0), home);
      EXPECT_EQ(crowd.counters().ping_pong, 1u);
      EXPECT_EQ(crowd.counters().ping_pong_forced, away || back ? 1u : 0u);
      crowd.set_alive(now, other.ap, true);
    }
  }
}

}  // namespace
}  // namespace rrm::fleet
