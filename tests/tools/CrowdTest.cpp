#include "tools/fleet/Crowd.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "tests/tools/SmallWorld.h"
#include "tools/fleet/CrowdFigures.h"

namespace rrm::fleet {
namespace {

/// Clients that stand still, have all arrived and obey, unless a test says otherwise.
CrowdOptions calm(std::uint32_t clients) {
  CrowdOptions options;
  options.clients = clients;
  options.moving = options.sticky = options.refusing = options.rare = options.gathered = 0;
  options.arrival = 0;
  return options;
}

/// Two access points 30 m apart in one room that everybody in it hears.
class CrowdOfTwoAps : public testing::Test {
 protected:
  static Scenario scenario() {
    Scenario result = two_aps(30);
    result.sites[0].buildings[0].width = 30;
    return result;
  }
  void run_to(Crowd& crowd, Millis end) {
    crowd.begin(now);
    for (; now < end; now += 100) crowd.advance(now + 100);
  }
  void block_everywhere(Crowd& crowd, std::uint32_t ap, Millis until) {
    for (std::uint32_t client = 0; client < crowd.size(); ++client) {
      for (int radio = 0; radio < 3; ++radio)
        crowd.block(now, {ap, radio}, crowd.mac(client), until);
    }
  }
  static std::size_t served_at(const Crowd& crowd, std::uint32_t ap) {
    std::size_t sum = 0;
    for (int radio = 0; radio < 3; ++radio) sum += crowd.members({ap, radio}).size();
    return sum;
  }

  World world{scenario()};
  Millis now = 0;
};

TEST_F(CrowdOfTwoAps, EverybodyJoinsWithinASecond) {
  Crowd crowd(world, calm(50));
  run_to(crowd, 1000);
  EXPECT_EQ(served_at(crowd, 0) + served_at(crowd, 1), 50u);
  const std::vector<ClientEvent> events = crowd.take_events();
  ASSERT_EQ(events.size(), 50u);
  for (const ClientEvent& event : events) {
    EXPECT_EQ(event.kind, ClientEvent::Kind::Associated);
    EXPECT_EQ(crowd.served_by(event.client), event.radio);
    EXPECT_EQ(event.rssi_dbm, crowd.client_rssi(event.client, event.radio));
  }
  EXPECT_TRUE(crowd.take_events().empty());
}

TEST_F(CrowdOfTwoAps, NobodyComesBeforeItBegins) {
  Crowd crowd(world, calm(50));
  for (; now < 5000; now += 100) crowd.advance(now + 100);
  EXPECT_TRUE(crowd.take_events().empty());
  EXPECT_EQ(sample_crowd(world, crowd, now).clients, 0u);
  EXPECT_FALSE(crowd.probe_heard(now, {0, 0}, crowd.mac(0)));
  run_to(crowd, 6000);
  EXPECT_EQ(crowd.counters().associations, 50u);
}

TEST_F(CrowdOfTwoAps, ClientsArriveOneAfterTheOther) {
  CrowdOptions options = calm(100);
  options.arrival = 10000;
  Crowd crowd(world, options);
  run_to(crowd, 5000);
  EXPECT_GT(crowd.counters().associations, 25u);
  EXPECT_LT(crowd.counters().associations, 75u);
  run_to(crowd, 11100);
  EXPECT_EQ(crowd.counters().associations, 100u);
}

TEST_F(CrowdOfTwoAps, AClientJoinsTheLoudestRadioAndLikesTheUpperBands) {
  Crowd crowd(world, calm(50));
  run_to(crowd, 1000);
  for (std::uint32_t client = 0; client < crowd.size(); ++client) {
    double best = -1000;
    RadioKey loudest;
    for (const AccessPoint& ap : world.aps()) {
      for (const RadioUnit& radio : ap.radios) {
        const RadioKey key{ap.index, radio.id};
        const double score =
            radio.power_dbm + crowd.client_rssi(client, key) + (radio.id > 0 ? 6 : 0);
        if (score > best) {
          best = score;
          loudest = key;
        }
      }
    }
    const RadioKey chosen = *crowd.served_by(client);
    const double score = world.ap(chosen.ap).radio(chosen.radio)->power_dbm +
                         crowd.client_rssi(client, chosen) + (chosen.radio > 0 ? 6 : 0);
    EXPECT_NEAR(score, best, 1.0) << "rounding of whole dB apart";
  }
}

TEST_F(CrowdOfTwoAps, SameSeedSameCrowd) {
  Crowd one(world, calm(50));
  Crowd two(world, calm(50));
  run_to(one, 1000);
  now = 0;
  run_to(two, 1000);
  for (std::uint32_t client = 0; client < 50; ++client) {
    EXPECT_EQ(one.served_by(client), two.served_by(client));
  }
}

TEST_F(CrowdOfTwoAps, ClientsWalkAlikeWhetherTheyAreSteeredOrNot) {
  CrowdOptions options = calm(20);
  options.moving = 1;
  Crowd free(world, options);
  Crowd steered(world, options);
  free.begin(0);
  steered.begin(0);
  for (; now < 60000; now += 100) {
    free.advance(now + 100);
    steered.advance(now + 100);
    if (now % 5000 == 0) block_everywhere(steered, 0, now + 4000);
  }
  for (std::uint32_t client = 0; client < 20; ++client) {
    EXPECT_EQ(free.client_rssi(client, {1, 0}), steered.client_rssi(client, {1, 0}));
  }
}

TEST_F(CrowdOfTwoAps, ABlockedClientGoesElsewhere) {
  Crowd crowd(world, calm(50));
  block_everywhere(crowd, 0, 60000);
  run_to(crowd, 5000);
  EXPECT_EQ(served_at(crowd, 0), 0u);
  EXPECT_EQ(served_at(crowd, 1), 50u);
  EXPECT_GT(crowd.counters().refused, 0u);
}

TEST_F(CrowdOfTwoAps, ABlockEndsWithItsTimeOrByAnUnblock) {
  Crowd crowd(world, calm(10));
  block_everywhere(crowd, 0, 5000);
  block_everywhere(crowd, 1, 1000000);
  run_to(crowd, 4900);
  EXPECT_EQ(served_at(crowd, 0) + served_at(crowd, 1), 0u);
  run_to(crowd, 6000);
  EXPECT_EQ(served_at(crowd, 0), 10u);
  crowd.set_alive(now, 0, false);
  for (std::uint32_t client = 0; client < 10; ++client) {
    for (int radio = 0; radio < 3; ++radio) crowd.unblock(now, {1, radio}, crowd.mac(client));
  }
  run_to(crowd, 40000);
  EXPECT_EQ(served_at(crowd, 1), 10u);
}

TEST_F(CrowdOfTwoAps, AKickedClientLeavesAndIsRefusedThere) {
  Crowd crowd(world, calm(1));
  run_to(crowd, 1000);
  crowd.take_events();
  const RadioKey before = *crowd.served_by(0);
  crowd.kick(now, before, crowd.mac(0), now + 30000);
  EXPECT_FALSE(crowd.served_by(0));
  EXPECT_EQ(crowd.counters().kicks, 1u);
  run_to(crowd, 2100);
  ASSERT_TRUE(crowd.served_by(0));
  EXPECT_FALSE(*crowd.served_by(0) == before);
  EXPECT_EQ(crowd.counters().moves, 1u);
  const std::vector<ClientEvent> events = crowd.take_events();
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[0].kind, ClientEvent::Kind::Left);
  EXPECT_EQ(events[0].radio, before);
  EXPECT_EQ(events[1].kind, ClientEvent::Kind::Associated);
}

TEST_F(CrowdOfTwoAps, ARefusingClientInsistsOnTheRadioThatKickedIt) {
  CrowdOptions options = calm(1);
  options.refusing = 1;
  Crowd crowd(world, options);
  run_to(crowd, 1000);
  const RadioKey before = *crowd.served_by(0);
  crowd.kick(now, before, crowd.mac(0), now + 8000);
  run_to(crowd, 8900);
  EXPECT_FALSE(crowd.served_by(0));
  run_to(crowd, 13000);
  EXPECT_EQ(crowd.served_by(0), before);
  EXPECT_EQ(crowd.counters().moves, 0u) << "back where it was";
  EXPECT_GE(crowd.counters().longest_unserved, 8000);
}

TEST_F(CrowdOfTwoAps, ARefusingClientGivesUpAfterFourTries) {
  CrowdOptions options = calm(1);
  options.refusing = 1;
  Crowd crowd(world, options);
  run_to(crowd, 1000);
  const RadioKey before = *crowd.served_by(0);
  crowd.kick(now, before, crowd.mac(0), now + 60000);
  run_to(crowd, 12000);
  EXPECT_FALSE(crowd.served_by(0));
  run_to(crowd, 15000);
  ASSERT_TRUE(crowd.served_by(0));
  EXPECT_FALSE(*crowd.served_by(0) == before);
}

TEST_F(CrowdOfTwoAps, TheLongestBlockAndTheLongestWaitAfterADeathAreKnown) {
  Crowd crowd(world, calm(1));
  run_to(crowd, 1000);
  const RadioKey home = *crowd.served_by(0);
  crowd.block(now, {1 - home.ap, 0}, crowd.mac(0), now + 5000);
  crowd.unblock(now + 2000, {1 - home.ap, 0}, crowd.mac(0));
  EXPECT_EQ(crowd.longest_block(now + 60000), 2000) << "lifted early";
  block_everywhere(crowd, 1 - home.ap, now + 8000);
  EXPECT_EQ(crowd.longest_block(now + 3000), 3000) << "still on";
  EXPECT_EQ(crowd.longest_block(now + 60000), 8000) << "ended by itself";
  crowd.set_alive(now, home.ap, false);
  EXPECT_TRUE(crowd.orphaned(0));
  run_to(crowd, 12000);
  EXPECT_FALSE(crowd.orphaned(0));
  EXPECT_GE(crowd.counters().longest_orphaned, 8000);
  EXPECT_LE(crowd.counters().longest_orphaned, 9000);
}

TEST_F(CrowdOfTwoAps, AKickOfSomebodyElsewhereOnlyBlocks) {
  Crowd crowd(world, calm(1));
  run_to(crowd, 1000);
  const RadioKey here = *crowd.served_by(0);
  crowd.kick(now, {1 - here.ap, 0}, crowd.mac(0), now + 30000);
  EXPECT_EQ(crowd.served_by(0), here);
  EXPECT_EQ(crowd.counters().kicks, 0u);
}

TEST_F(CrowdOfTwoAps, UnknownAddressesAreIgnored) {
  Crowd crowd(world, calm(1));
  run_to(crowd, 1000);
  const MacAddress stranger = MacAddress::from_text("06:43:4c:00:00:07");
  crowd.kick(now, {0, 0}, stranger, now + 1000);
  crowd.block(now, {0, 0}, MacAddress::from_text("junk"), now + 1000);
  EXPECT_FALSE(crowd.probe_heard(now, {0, 0}, stranger));
  EXPECT_TRUE(crowd.served_by(0));
}

TEST_F(CrowdOfTwoAps, ATransitionMovesAClientThatAgrees) {
  Crowd crowd(world, calm(1));
  run_to(crowd, 1000);
  const RadioKey from = *crowd.served_by(0);
  const RadioKey to{1 - from.ap, 0};
  EXPECT_FALSE(crowd.ask_transition(now, 0, to, from)) << "it is not there";
  EXPECT_TRUE(crowd.ask_transition(now, 0, from, to));
  EXPECT_EQ(crowd.served_by(0), to);
  EXPECT_EQ(crowd.counters().transitions, 1u);
}

TEST_F(CrowdOfTwoAps, ARefusingClientDeclinesATransition) {
  CrowdOptions options = calm(1);
  options.refusing = 1;
  Crowd crowd(world, options);
  run_to(crowd, 1000);
  const RadioKey from = *crowd.served_by(0);
  EXPECT_FALSE(crowd.ask_transition(now, 0, from, {1 - from.ap, 0}));
  EXPECT_EQ(crowd.served_by(0), from);
  EXPECT_EQ(crowd.counters().declined, 1u);
}

TEST_F(CrowdOfTwoAps, GoingBackWithinAMinuteIsPingPong) {
  Crowd crowd(world, calm(1));
  run_to(crowd, 1000);
  const RadioKey home = *crowd.served_by(0);
  const RadioKey away{1 - home.ap, 0};
  ASSERT_TRUE(crowd.ask_transition(now, 0, home, away));
  ASSERT_TRUE(crowd.ask_transition(now + 30000, 0, away, home));
  EXPECT_EQ(crowd.counters().moves, 2u);
  EXPECT_EQ(crowd.counters().ping_pong, 1u);
  ASSERT_TRUE(crowd.ask_transition(now + 91000, 0, home, away)) << "61 s after it left there";
  EXPECT_EQ(crowd.counters().ping_pong, 1u);
}

TEST_F(CrowdOfTwoAps, ADeadAccessPointServesNobody) {
  Crowd crowd(world, calm(20));
  run_to(crowd, 1000);
  crowd.set_alive(now, 0, false);
  EXPECT_EQ(served_at(crowd, 0), 0u);
  run_to(crowd, 2100);
  EXPECT_EQ(served_at(crowd, 1), 20u);
  crowd.set_alive(now, 0, true);
  crowd.set_alive(now, 1, false);
  run_to(crowd, 4000);
  EXPECT_EQ(served_at(crowd, 0), 20u);
}

TEST_F(CrowdOfTwoAps, AStormMakesAFloorJoinAnew) {
  CrowdOptions options = calm(10);
  options.storms = 20;  // every three seconds
  Crowd crowd(world, options);
  run_to(crowd, 5000);
  EXPECT_EQ(crowd.counters().associations, 20u);
  EXPECT_EQ(crowd.counters().moves, 0u) << "everybody joins where it was";
}

TEST_F(CrowdOfTwoAps, AProbeIsHeardForFifteenSeconds) {
  CrowdOptions options = calm(1);
  options.rare = 1;
  Crowd crowd(world, options);
  EXPECT_FALSE(crowd.probe_heard(0, {0, 0}, crowd.mac(0))) << "it has not arrived";
  run_to(crowd, 1000);
  EXPECT_EQ(crowd.probe_heard(now, {0, 0}, crowd.mac(0)), crowd.client_rssi(0, {0, 0}));
  run_to(crowd, 20000);
  EXPECT_FALSE(crowd.probe_heard(now, {0, 0}, crowd.mac(0))) << "it probes once in 90 s";
  run_to(crowd, 92000);
  EXPECT_TRUE(crowd.probe_heard(now, {0, 0}, crowd.mac(0)));
}

TEST_F(CrowdOfTwoAps, AStepChangesASignalOnlyALittle) {
  Scenario shadowed = scenario();
  shadowed.propagation.shadowing_db = 4;
  const World hall(shadowed);
  CrowdOptions options = calm(20);
  options.moving = 1;
  Crowd crowd(hall, options);
  crowd.begin(0);
  std::vector<int> last(20, 0);
  double sum = 0;
  int steps = 0;
  for (; now < 120000; now += 1000) {
    crowd.advance(now + 1000);
    for (std::uint32_t client = 0; client < 20; ++client) {
      const int rssi = crowd.client_rssi(client, {0, 0});
      if (last[client] != 0 && last[client] > -100 && rssi != last[client]) {
        sum += std::abs(rssi - last[client]);
        ++steps;
      }
      last[client] = rssi;
    }
  }
  ASSERT_GT(steps, 50);
  EXPECT_LT(sum / steps, 4) << "three metres further, mean change in dB";
}

TEST_F(CrowdOfTwoAps, WalkersReportTheirSignal) {
  CrowdOptions options = calm(5);
  options.moving = 1;
  Crowd crowd(world, options);
  run_to(crowd, 300000);
  const std::vector<ClientEvent> events = crowd.take_events();
  EXPECT_GT(std::count_if(
                events.begin(), events.end(),
                [](const ClientEvent& event) { return event.kind == ClientEvent::Kind::Signal; }),
            5);
}

TEST_F(CrowdOfTwoAps, TheSampleCountsRadiosAndImbalance) {
  Crowd crowd(world, calm(12));
  block_everywhere(crowd, 1, 1000000);
  for (std::uint32_t client = 0; client < 12; ++client) {
    for (const int radio : {1, 2}) crowd.block(now, {0, radio}, crowd.mac(client), 1000000);
  }
  run_to(crowd, 3000);  // all on the 2.4 GHz radio of the first
  const CrowdSample sample = sample_crowd(world, crowd, now);
  EXPECT_EQ(sample.clients, 12u);
  EXPECT_EQ(sample.served, 12u);
  EXPECT_EQ(sample.most_on_a_radio[0], 12u);
  EXPECT_EQ(sample.mean_per_radio[0], 6);
  EXPECT_EQ(sample.imbalance[0], 6) << "12 on one, none on the other: 12 - 6";
  EXPECT_EQ(sample.imbalance[1], 0);
  EXPECT_EQ(sample.weak_share, 0);
}

TEST_F(CrowdOfTwoAps, TheSampleKnowsWhoStillWaits) {
  Crowd crowd(world, calm(3));
  block_everywhere(crowd, 0, 1000000);
  block_everywhere(crowd, 1, 1000000);
  run_to(crowd, 9000);
  const CrowdSample sample = sample_crowd(world, crowd, now);
  EXPECT_EQ(sample.clients, 3u);
  EXPECT_EQ(sample.served, 0u);
  EXPECT_EQ(sample.longest_unserved, 9000);
}

}  // namespace
}  // namespace rrm::fleet
