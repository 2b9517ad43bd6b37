#include "tools/fleet/Simulation.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include "tests/tools/FakeController.h"
#include "tests/tools/SmallWorld.h"

namespace rrm::fleet {
namespace {

/// Options for a run over loopback that waits for nothing.
SimulationOptions quick(int port) {
  SimulationOptions options;
  options.endpoint.port = port;
  options.once = true;
  options.progress = false;
  options.duration = 20000;  // only a broken run takes that long
  options.run.rate = 2000;
  options.run.timing = {.answer = 20, .scan = 20, .back_off_first = 20};
  return options;
}

TEST(Simulation, LeadsAFleetThroughARoundOverRealSockets) {
  FakeController controller({.aps = 30});
  World world(Scenario::of_size(30, 1, 1));
  const SimulationResult result = simulate(world, quick(controller.port()));
  controller.stop();
  EXPECT_EQ(result.ending, Ending::Once);
  EXPECT_EQ(controller.commands(),
            (std::map<std::string, std::uint32_t>{
                {"subscribe-request", 30}, {"rrm-mode-response", 30}, {"rrm-response", 30}}));
  EXPECT_GT(controller.longest(), 5000u) << "scans come in several fragments";
  EXPECT_EQ(result.report.subscribed, 30u);
  EXPECT_EQ(result.report.domains[0].rounds, 1u);
  EXPECT_EQ(result.report.counters.lost, 0u);
  EXPECT_EQ(result.report.after[0].channels, (std::map<int, int>{{11, 30}}));
}

TEST(Simulation, TakesPlansOfManyFragments) {
  FakeController controller({.aps = 1, .plan_padding = std::string(300000, 'x')});
  World world(Scenario::of_size(1, 1, 1));
  const SimulationResult result = simulate(world, quick(controller.port()));
  EXPECT_EQ(result.ending, Ending::Once);
  EXPECT_GT(result.report.counters.received_bytes, 300000u);
  EXPECT_EQ(result.report.counters.not_understood, 0u);
}

TEST(Simulation, CountsTheKeysThatComeBehindTheLastPlan) {
  FakeController controller({.aps = 1, .keys = true});
  World world(Scenario::of_size(1, 1, 1));
  const SimulationResult result = simulate(world, quick(controller.port()));
  EXPECT_EQ(result.ending, Ending::Once);
  EXPECT_EQ(result.report.fbt_links, 1);
}

TEST(Simulation, ComesBackAfterConnectionsThatWereClosedOrRefused) {
  FakeController controller({.aps = 4, .drop_subscriptions = 3, .refuse_subscriptions = 2});
  World world(Scenario::of_size(4, 1, 1));
  const SimulationResult result = simulate(world, quick(controller.port()));
  EXPECT_EQ(result.ending, Ending::Once);
  EXPECT_EQ(result.report.subscribed, 4u);
  EXPECT_EQ(result.report.counters.attempts, 9u);
  EXPECT_EQ(result.report.counters.rejected, 2u);
}

TEST(Simulation, EndsInTimeWhenNobodyAnswers) {
  World world(two_aps(10));
  SimulationOptions options = quick(1);  // nobody listens there
  options.duration = 1000;
  const SimulationResult result = simulate(world, options);
  EXPECT_EQ(result.ending, Ending::Duration);
  EXPECT_EQ(result.report.subscribed, 0u);
  EXPECT_GE(result.report.counters.failed, 2u);
}

TEST(Simulation, EndsAtASignalWithItsFigures) {
  FakeController controller({.aps = 2, .when_modes_known = [] { kill(getpid(), SIGINT); }});
  World world(two_aps(10));
  SimulationOptions options = quick(controller.port());
  options.once = false;
  const SimulationResult result = simulate(world, options);
  EXPECT_EQ(result.ending, Ending::Signal);
  EXPECT_EQ(result.report.subscribed, 2u);
  kill(getpid(), SIGINT);  // a second one must not cut the figures off
}

}  // namespace
}  // namespace rrm::fleet
