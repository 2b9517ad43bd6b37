#include "tools/fleet/FleetRun.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include "server/lib/JsonReader.h"
#include "server/lib/JsonWriter.h"
#include "tests/tools/SmallWorld.h"

namespace rrm::fleet {
namespace {

/// Connections without a network: keeps what was asked for.
class FakeConnections : public Connections {
 public:
  void open(std::uint32_t ap) override { opened.push_back(ap); }
  void send(std::uint32_t ap, std::string text) override { sent.emplace_back(ap, std::move(text)); }
  void close(std::uint32_t ap) override { closed.push_back(ap); }

  std::vector<std::uint32_t> opened;
  std::vector<std::uint32_t> closed;
  std::vector<std::pair<std::uint32_t, std::string>> sent;
};

constexpr const char* kAccepted =
    R"({"service":"rrm","cmd":"subscribe-response","status":"success","config":{}})";

class FleetRunOfFour : public testing::Test {
 protected:
  /// Lets time pass in steps of 10 ms.
  void run_to(Millis end) {
    for (; now < end; now += 10) run.advance(now);
  }
  void subscribe_all() {
    run_to(now + 1000);
    for (const std::uint32_t ap : connections.opened) {
      run.on_open(now, ap);
      run.on_text(now, ap, kAccepted);
    }
    connections.opened.clear();
    connections.sent.clear();
  }
  void all_hear(const char* text) {
    for (std::uint32_t ap = 0; ap < 4; ++ap) run.on_text(now, ap, text);
  }
  /// Commands sent since the last call.
  std::map<std::string, int> sent_commands() {
    std::map<std::string, int> counts;
    for (const auto& [ap, text] : connections.sent)
      ++counts[JsonReader(text.c_str()).get_str("cmd")];
    connections.sent.clear();
    return counts;
  }

  World world{Scenario::of_size(4, 2, 1)};
  RunOptions options;
  FakeConnections connections;
  Millis now = 5000;
  FleetRun run{world, options, connections, now};
};

TEST_F(FleetRunOfFour, ConnectsTheSitesInTurn) {
  run_to(6000);
  EXPECT_EQ(connections.opened, (std::vector<std::uint32_t>{0, 2, 1, 3}));
}

TEST_F(FleetRunOfFour, SubscribesWhatIsOpen) {
  subscribe_all();
  EXPECT_EQ(run.subscribed(), 4u);
  EXPECT_EQ(run.open(), 4u);
  EXPECT_EQ(run.counters().subscriptions, 4u);
  EXPECT_EQ(run.all_subscribed_after(), 1000);
}

TEST_F(FleetRunOfFour, GoesThroughAWholeRound) {
  subscribe_all();
  all_hear(R"({"service":"rrm","cmd":"rrm-request-mode"})");
  EXPECT_TRUE(run.domains()[0].before);
  EXPECT_EQ(run.domains()[1].round.stage(), Stage::Measuring);
  run_to(now + 400);
  EXPECT_EQ(sent_commands(), (std::map<std::string, int>{{"rrm-mode-response", 4}}));
  all_hear(R"({"service":"rrm","cmd":"rrm-update","rrm-scan-delay":0})");
  run_to(now + 5100);
  EXPECT_EQ(sent_commands(), (std::map<std::string, int>{{"rrm-response", 4}}));
  EXPECT_FALSE(run.every_domain_planned());
  all_hear(
      R"({"service":"rrm","cmd":"rrm-info","config":{"radios":[{"id":0,"channel":11,"power":8}]}})");
  run_to(now + 20);
  EXPECT_TRUE(run.every_domain_planned());
  ASSERT_TRUE(run.domains()[0].after);
  EXPECT_EQ((*run.domains()[0].after)[0].channels, (std::map<int, int>{{11, 2}}));
  EXPECT_EQ(run.counters().configs, 4u);
}

TEST_F(FleetRunOfFour, ComesBackAfterALostConnection) {
  subscribe_all();
  run.on_closed(now, 1);
  EXPECT_EQ(run.counters().lost, 1u);
  EXPECT_EQ(run.subscribed(), 3u);
  run_to(now + 400);
  EXPECT_TRUE(connections.opened.empty()) << "not at once";
  run_to(now + 1000);
  EXPECT_EQ(connections.opened, (std::vector<std::uint32_t>{1}));
  run.on_open(now, 1);
  run.on_text(now, 1, kAccepted);
  EXPECT_EQ(run.subscribed(), 4u);
}

TEST_F(FleetRunOfFour, CountsAConnectionThatNeverOpenedAsFailed) {
  run_to(6000);
  run.on_closed(now, 0);
  EXPECT_EQ(run.counters().failed, 1u);
  EXPECT_EQ(run.counters().lost, 0u);
}

TEST_F(FleetRunOfFour, ClosesAfterARefusalAndTriesAgain) {
  run_to(6000);
  run.on_open(now, 0);
  run.on_text(now, 0, R"({"service":"rrm","cmd":"subscribe-response","status":"fail","code":404})");
  EXPECT_EQ(connections.closed, (std::vector<std::uint32_t>{0}));
  EXPECT_EQ(run.counters().rejected, 1u);
  run.on_closed(now, 0);
  connections.opened.clear();
  run_to(now + 1100);
  EXPECT_EQ(connections.opened, (std::vector<std::uint32_t>{0}));
}

TEST_F(FleetRunOfFour, SumsUpTheAirWhenARoundHasFinished) {
  subscribe_all();
  EXPECT_EQ(run.air().radios[0], 0u);
  for (const char* text : {R"({"service":"rrm","cmd":"rrm-request-mode"})",
                           R"({"service":"rrm","cmd":"rrm-update","rrm-scan-delay":0})",
                           R"({"service":"rrm","cmd":"rrm-info","config":{}})"}) {
    all_hear(text);
    run_to(now + 5100);
  }
  EXPECT_EQ(run.air().radios[0], 4u);
  EXPECT_LT(run.air().before_dbm[0], -20);
  EXPECT_EQ(run.air().before_dbm, run.air().after_dbm) << "nothing was changed";
}

/// A fleet of four with clients of both kinds, which come as soon as there is a plan.
class FleetRunWithClients : public testing::Test {
 protected:
  static CrowdOptions crowd_options() {
    CrowdOptions options;
    options.clients = 20;
    options.moving = 0;
    options.arrival = 0;
    return options;
  }
  void run_to(Millis end) {
    for (; now < end; now += 10) run.advance(now);
  }
  void all_hear(const char* text) {
    for (std::uint32_t ap = 0; ap < 4; ++ap) run.on_text(now, ap, text);
    run_to(now + 5100);
  }
  std::size_t sent(const char* cmd) const {
    return static_cast<std::size_t>(
        std::count_if(connections.sent.begin(), connections.sent.end(), [&](const auto& message) {
          return std::string_view(JsonReader(message.second.c_str()).get_str("cmd")) == cmd;
        }));
  }

  World world{Scenario::of_size(4, 1, 1)};
  Crowd steered{world, crowd_options()};
  Crowd unsteered{world, crowd_options()};
  FakeConnections connections;
  Millis now = 0;
  FleetRun run{world, {}, connections, now, &steered, &unsteered};
};

TEST_F(FleetRunWithClients, TellsOfTheSteeredOnesAndNotOfTheOthers) {
  run_to(1000);
  for (std::uint32_t ap = 0; ap < 4; ++ap) {
    run.on_open(now, ap);
    run.on_text(now, ap, kAccepted);
  }
  all_hear(R"({"service":"rrm","cmd":"rrm-request-mode"})");
  EXPECT_FALSE(steered.begun());
  all_hear(R"({"service":"rrm","cmd":"rrm-update","rrm-scan-delay":0})");
  all_hear(R"({"service":"rrm","cmd":"rrm-info","config":{}})");
  EXPECT_EQ(steered.counters().associations, 20u);
  EXPECT_EQ(unsteered.counters().associations, 20u);
  EXPECT_EQ(sent("rrm-client-assoc"), 20u);
}

TEST_F(FleetRunWithClients, ARestartingAccessPointServesNobodyUntilItIsBack) {
  steered.begin(0);
  unsteered.begin(0);
  run_to(1200);
  const std::uint32_t ap = steered.served_by(0)->ap;
  for (std::uint32_t i = 0; i < 4; ++i) {
    run.on_open(now, i);
    run.on_text(now, i, kAccepted);
  }
  RunOptions churning;
  churning.churn = 6000;
  FakeConnections others;
  FleetRun restarting(world, churning, others, now, &steered, &unsteered);
  for (std::uint32_t i = 0; i < 4; ++i) {
    restarting.on_open(now, i);
    restarting.on_text(now, i, kAccepted);
  }
  while (std::find(others.closed.begin(), others.closed.end(), ap) == others.closed.end()) {
    restarting.advance(now += 10);
    ASSERT_LT(now, 10000);
  }
  for (int radio = 0; radio < 3; ++radio) EXPECT_TRUE(steered.members({ap, radio}).empty());
}

TEST(FleetRun, RestartsSoManyAccessPointsPerMinute) {
  World world(Scenario::of_size(50, 1, 1));
  FakeConnections connections;
  FleetRun run(world, {.rate = 1000, .max_opening = 1000, .churn = 6}, connections, 0);
  Millis now = 0;
  for (; now < 1000; now += 10) run.advance(now);
  for (const std::uint32_t ap : connections.opened) {
    run.on_open(now, ap);
    run.on_text(now, ap, kAccepted);
  }
  for (; now < 61000; now += 10) run.advance(now);
  ASSERT_EQ(connections.closed.size(), 6u);
  EXPECT_EQ(run.counters().restarts, 6u);
  run.on_closed(now, connections.closed[0]);
  EXPECT_EQ(run.counters().lost, 0u) << "it went by itself";
  EXPECT_EQ(run.subscribed(), 49u);
}

TEST(FleetRun, StartsConnectionsAtItsRate) {
  World world(Scenario::of_size(100, 1, 1));
  FakeConnections connections;
  FleetRun run(world, {.rate = 50, .max_opening = 1000, .churn = 0}, connections, 0);
  for (Millis now = 0; now <= 1000; now += 10) run.advance(now);
  EXPECT_GE(connections.opened.size(), 50u);
  EXPECT_LE(connections.opened.size(), 52u);
}

TEST(FleetRun, DoesNotCatchUpWithABurstAfterAStall) {
  World world(Scenario::of_size(100, 1, 1));
  FakeConnections connections;
  FleetRun run(world, {.rate = 50, .max_opening = 1000, .churn = 0}, connections, 0);
  run.advance(10000);
  EXPECT_LE(connections.opened.size(), 5u);
}

TEST(FleetRun, KeepsOnlySoManyConnectionsUnderWay) {
  World world(Scenario::of_size(100, 1, 1));
  FakeConnections connections;
  FleetRun run(world, {.rate = 10000, .max_opening = 8, .churn = 0}, connections, 0);
  for (Millis now = 0; now <= 1000; now += 10) run.advance(now);
  EXPECT_EQ(connections.opened.size(), 8u);
  run.on_open(1000, connections.opened[0]);
  run.advance(1010);
  EXPECT_EQ(connections.opened.size(), 9u);
}

}  // namespace
}  // namespace rrm::fleet
