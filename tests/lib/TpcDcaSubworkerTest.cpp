#include "server/lib/TpcDcaSubworker.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/Engine.h"
#include "tests/support/TempFolder.h"

namespace rrm::test {
namespace {

using Texts = std::vector<std::string>;

/// Rounds start after events; nothing is distributed between them.
DomainConfig round_config() {
  DomainConfig config = Engine::quiet_config();
  config.use_optimization_event = true;
  return config;
}

std::string status_text(int state) {
  return "{\"location\":\"site\", \"status\":" + std::to_string(state) + "}";
}

/// A heard BSS of a scan.
std::string heard(const std::string& bssid, int rssi, int channel) {
  return "{\"bssid\":\"" + bssid + "\",\"rssi\":" + std::to_string(rssi) +
         ",\"channel\":" + std::to_string(channel) +
         ",\"band\":5,\"bandwidth\":20,\"tx-power\":15}";
}

void answer_scan(Engine& engine, int ap, const std::vector<RadioSpec>& radios,
                 const std::string& scan = "") {
  engine.receive("rrm-response", ap, static_cast<std::uint32_t>(ap + 100),
                 "\"radios\":" + radios_text(radios) + ",\"rf-environment\":[[" + scan + "]]");
}

/// Leaves every radio as it is.
OptimisationResult plan_nothing(ApMap&, const DomainConfig&, const OptimisationSwitches&,
                                std::int64_t, const std::atomic<bool>&) {
  OptimisationResult result;
  result.ok = true;
  return result;
}

/// Brings a domain of access points 1..count to the running scan.
void start_scan(Engine& engine, int count) {
  for (int n = 1; n <= count; ++n) engine.subscribe(n, {RadioSpec{}});
  engine.pass(20 + 15);
  ASSERT_EQ(engine.state(), 3);
  engine.rrm().take();
  engine.log().clear();
}

std::vector<std::string> statuses(const CapturedLog& log) {
  std::vector<std::string> texts;
  for (const auto& [code, text] : log.events()) {
    if (code == EventCode::PlannerStatus) texts.push_back(text);
  }
  return texts;
}

// --- a whole round

TEST(TpcDcaRound, LeadsThreeAccessPointsFromSubscriptionToTheirPlan) {
  Engine engine(round_config());
  const RadioSpec radio{.channels = "36,40,44"};
  for (int n = 1; n <= 3; ++n) engine.subscribe(n, {radio});
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Force optimization dmain site"));
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Planning domain site update 0 after 20 sec"));
  EXPECT_EQ(engine.state(), 4);
  engine.rrm().take();

  // The planning delay starts again with every subscription.
  engine.pass(19);
  EXPECT_TRUE(engine.rrm().take().empty());
  engine.pass(1);
  EXPECT_EQ(engine.state(), 2);
  EXPECT_TRUE(engine.worker().load_balancer_lock());
  auto sent = engine.rrm().take();
  ASSERT_EQ(sent.size(), 3u);
  for (const auto& message : sent) {
    EXPECT_EQ(message.text,
              "{\"service\":\"rrm\",\"version\":\"2.4\",\"cmd\":\"rrm-request-mode\",\"domain\":"
              "\"site\",\"ap-mac\":\"00:11:22:00:0" +
                  std::to_string(message.session - 100) + ":00\"}");
  }

  for (int n = 1; n <= 3; ++n) {
    engine.receive("rrm-mode-response", n, static_cast<std::uint32_t>(n + 100),
                   "\"radios\":" + radios_text({radio}));
  }
  engine.pass(14);
  EXPECT_TRUE(engine.rrm().take().empty());
  engine.pass(1);
  EXPECT_EQ(engine.state(), 3);
  sent = engine.rrm().take();
  ASSERT_EQ(sent.size(), 3u);
  for (const auto& message : sent) {
    EXPECT_EQ(message.text,
              "{\"service\":\"rrm\",\"version\":\"2.4\",\"cmd\":\"rrm-update\",\"domain\":\"site\","
              "\"ap-mac\":\"00:11:22:00:0" +
                  std::to_string(message.session - 100) +
                  ":00\",\"rrm-scan-delay\":0,\"rrm-scan-channels\":\"36 40 44 \","
                  "\"rrm-scan-channels-list\":{\"2\":\"\",\"5\":\"36 40 44 \",\"6\":\"\"},"
                  "\"tavro-rrm-scanning\":1}");
  }

  // All hear each other on channel 36; 1 and 3 also hear a loud stranger on 40.
  for (int n = 1; n <= 3; ++n) {
    std::string scan;
    for (int other = 1; other <= 3; ++other) {
      if (other != n) scan += heard(ap_mac(other), -50, 36) + ",";
    }
    scan += n == 2 ? "null" : heard("66:00:00:00:00:01", -40, 40);
    answer_scan(engine, n, {radio}, scan);
  }
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Start optimize now on domain site"));
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Start optimization on domain site size 3 drop 0"));
  EXPECT_EQ(engine.state(), 5);
  EXPECT_EQ(engine.ap(1)->visible_members.size(), 2u);
  EXPECT_EQ(engine.ap(1)->visible_rogue.size(), 1u);

  engine.finish_optimisation();
  EXPECT_EQ(engine.log().count(LogLevel::Debug, "Optimization on domain site finished"), 1u);
  EXPECT_EQ(engine.state(), 0);
  EXPECT_FALSE(engine.worker().load_balancer_lock());
  sent = engine.rrm().take();
  ASSERT_EQ(sent.size(), 3u);
  std::vector<int> channels;
  for (const auto& message : sent) {
    const Radio* planned = engine.ap(static_cast<int>(message.session - 100))->radios.find(0);
    channels.push_back(planned->channel);
    EXPECT_EQ(message.text,
              "{\"service\":\"rrm\",\"version\":\"2.4\",\"cmd\":\"rrm-info\",\"ap-mac\":"
              "\"00:11:22:00:0" +
                  std::to_string(message.session - 100) +
                  ":00\",\"config\":{\"use-tpc\":1,\"use-dca\":1,\"use-load-balance\":0,"
                  "\"use-80211v\":0,\"radios\":[{\"id\":0,\"channel\":" +
                  std::to_string(planned->channel) +
                  ",\"band\":5,\"power\":" + std::to_string(planned->power) +
                  ",\"bandwidth\":20,\"primary-channel\":\"none\",\"tavro-sta-rssi-thr-low\":-75,"
                  "\"tavro-sta-rssi-thr-high\":-65,\"tavro-roam-attempt-timeout\":600,"
                  "\"tavro-client-rssi-renew\":15,\"tavro-client-max-age\":20,"
                  "\"tavro-try-no-balance\":2,\"no-balance-enterprise\":0}]}}");
  }
  // Three access points find the three channels; the stranger's goes to the one that cannot hear
  // it.
  EXPECT_EQ(engine.ap(2)->radios.find(0)->channel, 40);
  std::sort(channels.begin(), channels.end());
  EXPECT_EQ(channels, (std::vector<int>{36, 40, 44}));
  EXPECT_EQ(statuses(engine.log()),
            (Texts{status_text(4), status_text(4), status_text(4), status_text(2), status_text(2),
                   status_text(2), status_text(2), status_text(3), status_text(3), status_text(3),
                   status_text(3), status_text(5), status_text(0), status_text(0)}));
}

/// The Debug records so far without those of the domain's tick, which come at their own time.
Texts steps_logged(Engine& engine) {
  Texts steps;
  for (std::string& text : engine.log().texts(LogLevel::Debug)) {
    if (text.rfind("Domain site state ", 0) != 0) steps.push_back(std::move(text));
  }
  return steps;
}

TEST(TpcDcaRound, RecordsItsStepsInThisOrder) {
  Engine engine(round_config());
  const RadioSpec radio{.channels = "36,40"};
  for (int n = 1; n <= 2; ++n) engine.subscribe(n, {radio});
  EXPECT_EQ(steps_logged(engine),
            (Texts{"process_message subscribe-request for " + ap_mac(1), "NEW subscribe request",
                   "Force optimization dmain site", "Planning domain site update 0 after 20 sec",
                   "process_message subscribe-request for " + ap_mac(2), "NEW subscribe request",
                   "Force optimization dmain site", "Planning domain site update 4 after 20 sec"}));
  engine.log().clear();

  engine.pass(20);
  for (int n = 1; n <= 2; ++n) {
    engine.receive("rrm-mode-response", n, static_cast<std::uint32_t>(n + 100),
                   "\"radios\":" + radios_text({radio}));
  }
  engine.pass(15);
  EXPECT_FALSE(engine.worker().force_optimization());
  for (int n = 1; n <= 2; ++n) answer_scan(engine, n, {radio});
  engine.finish_optimisation();
  EXPECT_EQ(
      steps_logged(engine),
      (Texts{"Send rrm-request-mode messages on domain site", "Post request mode",
             "process_message rrm-mode-response for " + ap_mac(1),
             "process_message rrm-mode-response for " + ap_mac(2),
             "Send rrm-update messages on domain site size 2 drop 0", "Post rrm-update",
             "Start optimize after 19 sec on domain site",
             "NOT Planning optimization domain site status 3",
             "process_message rrm-response for " + ap_mac(1),
             "Start optimize after 19 sec on domain site",
             "process_message rrm-response for " + ap_mac(2), "Start optimize now on domain site",
             "Start optimization on domain site size 2 drop 0",
             "Optimization on domain site finished", "Post tpc-results"}));
}

TEST(TpcDcaRound, OfWhichAnAccessPointTookNoPartSendsItNoPlan) {
  Engine engine(round_config());
  start_scan(engine, 2);
  answer_scan(engine, 1, {RadioSpec{}});
  engine.pass(19);
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Start optimization on domain site size 1 drop 1"));
  engine.finish_optimisation();
  const auto sent = engine.rrm().take();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].session, 101u);
  EXPECT_NE(engine.ap(2), nullptr);
}

// --- planning

TEST(TpcDcaPlanning, NeverStartsARoundWithoutTimeAndEventUnlessTheApiForcesIt) {
  Engine engine(Engine::quiet_config());
  engine.subscribe(1, {RadioSpec{}});
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Not event optimization dmain site"));
  engine.pass(2 * 86400);
  EXPECT_EQ(engine.state(), 0);
  engine.rrm().take();
  EXPECT_TRUE(engine.worker().force_optimization());
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Force optimization from api dmain site"));
  engine.pass(20);
  EXPECT_EQ(engine.rrm().take("rrm-request-mode").size(), 1u);
}

TEST(TpcDcaPlanning, PublishesTheStateAndTheDomainWhenNothingIsPlanned) {
  Engine engine(Engine::quiet_config());
  engine.log().clear();
  engine.subscribe(1, {RadioSpec{}});
  const auto events = engine.log().events();
  ASSERT_EQ(events.size(), 3u);
  EXPECT_EQ(events[0], std::pair(EventCode::DomainChanged, std::string("site")));
  EXPECT_EQ(events[1], std::pair(EventCode::PlannerStatus, status_text(0)));
  EXPECT_EQ(events[2], std::pair(EventCode::DomainChanged, std::string("site")));
}

TEST(TpcDcaPlanning, SeedsTheKeysThatItDrawsWithTheMillisecondsOfTheDay) {
  Engine engine;
  const int drawn = std::rand();
  std::srand(static_cast<unsigned>(1'714'521'600'000));  // of the engine's clock
  EXPECT_EQ(drawn, std::rand());
}

TEST(TpcDcaPlanning, TimesEachTimerByItself) {
  Engine engine(round_config());
  const PlannerTimes& times = engine.worker().tpc_dca().times();
  const auto counts = [&times] {
    return std::vector<std::uint32_t>{times.request_modes.count(), times.request_scan.count(),
                                      times.optimize.count()};
  };
  using Counts = std::vector<std::uint32_t>;
  engine.worker().tpc_dca().set_optimiser(plan_nothing);
  engine.subscribe(1, {RadioSpec{}});
  engine.pass(20);
  EXPECT_EQ(counts(), (Counts{1, 0, 0}));
  engine.pass(15);
  EXPECT_EQ(counts(), (Counts{1, 1, 0}));
  engine.pass(19);  // nobody answered
  EXPECT_EQ(counts(), (Counts{1, 1, 1}));
  engine.pass(20 + 15);
  answer_scan(engine, 1, {RadioSpec{}});  // everybody answered
  EXPECT_EQ(counts(), (Counts{2, 2, 2}));
}

TEST(TpcDcaPlanning, StartsAgainWithEveryEvent) {
  Engine engine(round_config());
  engine.subscribe(1, {RadioSpec{}});
  engine.pass(19);
  engine.subscribe(2, {RadioSpec{}});
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Planning domain site update 4 after 20 sec"));
  engine.pass(19);
  EXPECT_EQ(engine.state(), 4);
  engine.pass(1);
  EXPECT_EQ(engine.state(), 2);
}

TEST(TpcDcaPlanning, NeedsARadioWithAChannel) {
  Engine engine(round_config());
  engine.subscribe(1, {RadioSpec{.channel = 0}});
  EXPECT_EQ(engine.state(), 0);
  engine.subscribe(2, {RadioSpec{.status = 0}});
  EXPECT_EQ(engine.state(), 0);
}

struct TimeOfDay {
  const char* name;
  int optimization_s;
  int zone_s;
  int now_s;
  int delay_s;
};

class OptimizationTime : public testing::TestWithParam<TimeOfDay> {};

TEST_P(OptimizationTime, IsReachedInTheDomainsLocalTime) {
  const TimeOfDay& test = GetParam();
  DomainConfig config = Engine::quiet_config();
  config.use_optimization_time = true;
  config.optimization_time_s = test.optimization_s;
  config.optimization_time = "the time";
  Engine engine(config, test.zone_s);
  engine.clock().set_time_of_day(test.now_s);
  engine.subscribe(1, {RadioSpec{}});
  EXPECT_EQ(engine.state(), 1);
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Optimization time " +
                                                    std::to_string(test.optimization_s) +
                                                    " sec the time time_zone_offset " +
                                                    std::to_string(test.zone_s) + " sec"));
  EXPECT_TRUE(
      engine.log().has(LogLevel::Debug, "Optimization interval " + std::to_string(test.delay_s)));
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Planning domain site update 0 after " +
                                                    std::to_string(test.delay_s) + " sec"));
  engine.clock().advance(test.delay_s - 1);
  engine.worker().on_loop();
  EXPECT_EQ(engine.state(), 1);
  engine.pass(1);
  EXPECT_EQ(engine.state(), 2);
}

INSTANTIATE_TEST_SUITE_P(Delay, OptimizationTime,
                         testing::Values(TimeOfDay{"LaterToday", 7200, 0, 3600, 3600},
                                         TimeOfDay{"RightNowMeansTomorrow", 3600, 0, 3600, 86400},
                                         TimeOfDay{"Tomorrow", 3600, 0, 7200, 82800},
                                         TimeOfDay{"EastOfUtc", 3600, 7200, 0, 82800},
                                         TimeOfDay{"WestOfUtc", 3600, -7200, 0, 10800},
                                         TimeOfDay{"ADayAgoToTheSecond", 0, 43200, 43200, 86400},
                                         TimeOfDay{"TwoDaysAhead", 0, 43200, 80000, 49600}),
                         [](const auto& test) { return test.param.name; });

TEST(TpcDcaPlanning, WithoutEventsKeepsTheTimeOfDay) {
  DomainConfig config = Engine::quiet_config();
  config.use_optimization_time = true;
  config.optimization_time_s = 3600;
  Engine engine(config);
  engine.subscribe(1, {RadioSpec{}});
  engine.pass(100);
  engine.log().clear();
  engine.subscribe(2, {RadioSpec{}});
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Not event optimization dmain site"));
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Planning domain site update 1 after 3500 sec"));
  EXPECT_EQ(engine.state(), 1);
}

TEST(TpcDcaPlanning, RefusesTheApiFromThePlannedRoundOn) {
  Engine engine(round_config());
  engine.subscribe(1, {RadioSpec{}});
  for (const int state : {4, 2, 3}) {
    if (state == 2) engine.pass(20);
    if (state == 3) engine.pass(15);
    ASSERT_EQ(engine.state(), state);
    EXPECT_FALSE(engine.worker().force_optimization());
    EXPECT_TRUE(engine.log().has(
        LogLevel::Debug, "NOT Planning optimization domain site status " + std::to_string(state)));
  }
  engine.worker().tpc_dca().set_optimiser(plan_nothing);
  answer_scan(engine, 1, {RadioSpec{}});
  ASSERT_EQ(engine.state(), 5);
  EXPECT_FALSE(engine.worker().force_optimization());
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "NOT Planning optimization domain site status 5"));
}

TEST(TpcDcaPlanning, OfADomainThatIgnoresEveryAnswerStartsNoRound) {
  DomainConfig config = round_config();
  config.use_dca = false;
  config.use_tpc = false;
  Engine engine(config);
  engine.subscribe(1, {RadioSpec{}});
  EXPECT_EQ(engine.state(), 0);
  EXPECT_FALSE(engine.worker().force_optimization());
  engine.pass(1000);
  EXPECT_TRUE(engine.rrm().take("rrm-request-mode").empty());
}

TEST(TpcDcaPlanning, OfADailyRoundThatNobodyCanAnswerDoesNotRepeatItself) {
  DomainConfig config = Engine::quiet_config();
  config.use_dca = false;
  config.use_tpc = false;
  config.use_optimization_time = true;
  config.optimization_time_s = 60;
  Engine engine(config);
  engine.subscribe(1, {RadioSpec{}});
  engine.pass(86000);
  EXPECT_EQ(engine.rrm().take("rrm-request-mode").size(), 1u);
  EXPECT_EQ(engine.state(), 1);
}

TEST(TpcDcaPlanning, CountsForEitherPlanOfRadiosWhoeverTheirNeighboursAre) {
  for (const auto option : {&DomainConfig::use_dca, &DomainConfig::use_tpc}) {
    DomainConfig config = round_config();
    config.use_dca = false;
    config.use_tpc = false;
    config.*option = true;
    config.use_all_ap_balance = true;
    Engine engine(config);
    engine.subscribe(1, {RadioSpec{}});
    EXPECT_EQ(engine.state(), 4);
  }
}

TEST(TpcDcaPlanning, CountsForBalancingOnlyWhileNotAllAccessPointsAreNeighbours) {
  for (const auto option :
       {&DomainConfig::use_80211k, &DomainConfig::use_balance, &DomainConfig::use_80211v}) {
    for (const bool all : {false, true}) {
      DomainConfig config = round_config();
      config.use_dca = false;
      config.use_tpc = false;
      config.*option = true;
      config.use_all_ap_balance = all;
      Engine engine(config);
      engine.subscribe(1, {RadioSpec{}});
      EXPECT_EQ(engine.state(), all ? 0 : 4);
    }
  }
}

TEST(TpcDcaPlanning, OfARoundNowTakesAPlannedLinkUpdateBack) {
  DomainConfig config = Engine::quiet_config();
  config.use_80211r = true;
  Engine engine(config);
  engine.subscribe(1, {RadioSpec{.vaps = {{.r = true}}}});
  ASSERT_EQ(engine.worker().tpc_dca().fbt_status(), 1);
  engine.pass(5);
  ASSERT_TRUE(engine.worker().force_optimization());
  EXPECT_EQ(engine.worker().tpc_dca().fbt_status(), 0);
  engine.pass(20);
  EXPECT_FALSE(engine.log().has(LogLevel::Debug, "Process update 802dot11r domain site"));
  EXPECT_FALSE(engine.log().has(LogLevel::Debug, "Not update 802dot11r domain site"));
}

TEST(TpcDcaPlanning, OfLinksIsRefusedWhereNobodyUsesThem) {
  Engine engine;
  engine.worker().tpc_dca().planning_update_802dot11r();
  EXPECT_EQ(engine.log().texts(LogLevel::Debug),
            Texts{"NOT Planning update 802dot11r domain site"});
  EXPECT_EQ(engine.worker().tpc_dca().fbt_status(), 0);
}

TEST(TpcDcaPlanning, OfARoundThatStartsTakesPlannedListsBack) {
  DomainConfig config = round_config();
  config.use_80211k = true;
  Engine engine(config);
  engine.subscribe(1, {RadioSpec{}});
  engine.pass(5);
  engine.worker().tpc_dca().planning_update_802dot11k();  // due after the round has started
  engine.pass(15);
  EXPECT_EQ(engine.state(), 2);
  engine.pass(5);
  EXPECT_FALSE(engine.log().has(LogLevel::Debug, "Process update 802dot11k domain site"));
  EXPECT_FALSE(engine.log().has(LogLevel::Debug, "Not update 802dot11k domain site"));
}

// --- measuring

TEST(TpcDcaScan, IsRequested15SecondsAfterTheLastModeAnswer) {
  Engine engine(round_config());
  engine.subscribe(1, {RadioSpec{}});
  engine.pass(20 + 14);
  engine.receive("rrm-mode-response", 1, 101, "\"radios\":" + radios_text({RadioSpec{}}));
  engine.pass(14);
  EXPECT_EQ(engine.state(), 2);
  engine.pass(1);
  EXPECT_EQ(engine.state(), 3);
  EXPECT_TRUE(
      engine.log().has(LogLevel::Debug, "Send rrm-update messages on domain site size 1 drop 0"));
}

TEST(TpcDcaScan, CollectsTheChannelsThatTheModeAnswersAnnounce) {
  Engine engine(round_config());
  engine.subscribe(1, {RadioSpec{.channels = "36,40"}});
  engine.pass(20);
  engine.rrm().take();
  engine.receive(
      "rrm-mode-response", 1, 101,
      "\"radios\":" +
          radios_text({RadioSpec{.channels = "44,36"},
                       RadioSpec{.id = 1, .channel = 1, .band = 2, .channels = "11,1,300,20"},
                       RadioSpec{.id = 2, .channel = 5, .band = 6, .channels = "5,37,229"}}));
  engine.pass(15);
  const auto sent = engine.rrm().take("rrm-update");
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_NE(sent[0].find("\"rrm-scan-channels\":\"1 11 20 36 44 5 37 229 \","
                         "\"rrm-scan-channels-list\":{\"2\":\"1 11 20 \",\"5\":\"36 44 \","
                         "\"6\":\"5 37 229 \"},\"tavro-rrm-scanning\":1}"),
            std::string::npos)
      << sent[0];
}

TEST(TpcDcaScan, ForgetsTheChannelsOfTheRoundBefore) {
  Engine engine(round_config());
  engine.worker().tpc_dca().set_optimiser(plan_nothing);
  start_scan(engine, 1);
  answer_scan(engine, 1, {RadioSpec{.channels = "36,40"}});
  engine.finish_optimisation();
  ASSERT_TRUE(engine.worker().force_optimization());
  engine.pass(20);
  engine.receive("rrm-mode-response", 1, 101,
                 "\"radios\":" + radios_text({RadioSpec{.channels = "44"}}));
  engine.pass(15);
  const auto sent = engine.rrm().take("rrm-update");
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_NE(sent[0].find("\"rrm-scan-channels\":\"44 \""), std::string::npos) << sent[0];
}

TEST(TpcDcaScan, AsksThoseAgainWhoWereParkedByARoundThatAnEventEnded) {
  Engine engine(round_config());
  engine.subscribe(1, {RadioSpec{}});
  engine.subscribe(2, {RadioSpec{.channel = 0}});
  engine.pass(20);
  ASSERT_EQ(engine.worker().unanswered_aps().size(), 1u);
  engine.receive("rrm-config-changed", 2, 102, "\"radios\":" + radios_text({RadioSpec{}}));
  engine.subscribe(3, {RadioSpec{}});
  ASSERT_EQ(engine.state(), 4);
  engine.rrm().take();
  engine.pass(20);
  EXPECT_EQ(engine.rrm().take("rrm-request-mode").size(), 3u);
  EXPECT_TRUE(engine.worker().unanswered_aps().empty());
}

TEST(TpcDcaScan, ForgetsAnEarlierAnswerWhenModesAndAgainWhenTheScanIsRequested) {
  Engine engine(round_config());
  engine.subscribe(1, {RadioSpec{}});
  for (const int seconds : {20, 15}) {
    engine.ap(1)->active = true;
    engine.ap(1)->radios.find(0)->power_changed = 3;
    engine.pass(seconds);
    EXPECT_FALSE(engine.ap(1)->active);
    EXPECT_EQ(engine.ap(1)->radios.find(0)->power_changed, 0);
  }
  EXPECT_EQ(engine.state(), 3);
}

TEST(TpcDcaScan, WithoutTavroScanNamesTheAccessPointsOwnChannels) {
  DomainConfig config = round_config();
  config.use_tavro_rrm_scan = false;
  Engine engine(config);
  engine.subscribe(1, {RadioSpec{.channels = "40,36,180,166,165,20"},
                       RadioSpec{.id = 1, .channel = 1, .band = 2, .channels = "1,14"},
                       RadioSpec{.id = 2, .channel = 37, .band = 6, .channels = "233,166,234,5"}});
  engine.pass(20 + 15);
  const auto sent = engine.rrm().take("rrm-update");
  ASSERT_EQ(sent.size(), 1u);
  // From 166 on a channel needs a 6 GHz radio and above 233 it is none; 20 belongs to the radio's
  // band.
  EXPECT_NE(sent[0].find("\"rrm-scan-channels\":\"1 14 20 36 40 165 5 166 233 \","
                         "\"rrm-scan-channels-list\":{\"2\":\"1 14 \",\"5\":\"20 36 40 165 \","
                         "\"6\":\"5 166 233 \"},\"tavro-rrm-scanning\":0}"),
            std::string::npos)
      << sent[0];
}

TEST(TpcDcaScan, WithoutDcaRunsOneAccessPointAfterTheOther) {
  DomainConfig config = round_config();
  config.use_dca = false;
  Engine engine(config);
  for (int n = 1; n <= 3; ++n) engine.subscribe(n, {RadioSpec{}});
  engine.pass(20 + 15);
  const auto sent = engine.rrm().take("rrm-update");
  ASSERT_EQ(sent.size(), 3u);
  for (std::size_t k = 0; k < sent.size(); ++k) {
    EXPECT_NE(sent[k].find("\"rrm-scan-delay\":" + std::to_string(k * 6) + ","), std::string::npos);
  }
}

struct ScanTime {
  const char* name;
  bool tavro;
  int channels;  ///< announced
  int wait_s;    ///< 3 x scan time + 1
  int band = 5;
};

class ScanWait : public testing::TestWithParam<ScanTime> {};

TEST_P(ScanWait, IsThreeScanTimesAndASecond) {
  const ScanTime& test = GetParam();
  DomainConfig config = round_config();
  config.use_tavro_rrm_scan = test.tavro;
  Engine engine(config);
  std::string channels;
  for (int i = 0; i < test.channels; ++i) channels += std::to_string(36 + i) + ",";
  engine.subscribe(1, {RadioSpec{}});
  engine.subscribe(2, {RadioSpec{}});
  engine.pass(20);
  engine.receive("rrm-mode-response", 1, 101,
                 "\"radios\":" + radios_text({RadioSpec{.band = test.band, .channels = channels}}));
  engine.pass(15);
  ASSERT_EQ(engine.state(), 3);
  EXPECT_TRUE(engine.log().has(
      LogLevel::Debug,
      "Start optimize after " + std::to_string(test.wait_s) + " sec on domain site"));
  engine.pass(test.wait_s - 1);
  answer_scan(engine, 1, {RadioSpec{}});
  EXPECT_EQ(engine.state(), 3);
  engine.pass(test.wait_s - 1);
  EXPECT_EQ(engine.state(), 3);
  engine.pass(1);
  EXPECT_EQ(engine.state(), 5);
}

INSTANTIATE_TEST_SUITE_P(Time, ScanWait,
                         testing::Values(ScanTime{"TavroScan", true, 4, 19},
                                         ScanTime{"AtLeast14Channels", false, 4, 151},
                                         ScanTime{"Of25Channels", false, 25, 271},
                                         ScanTime{"Of25ChannelsAt6GHz", false, 25, 271, 6}),
                         [](const auto& test) { return test.param.name; });

TEST(TpcDcaScan, DropsAccessPointsThatAnswerModesButNotTheScan) {
  Engine engine(round_config());
  engine.subscribe(1, {RadioSpec{}});
  engine.subscribe(2, {RadioSpec{}});
  engine.pass(20);
  engine.receive("rrm-mode-response", 2, 102, "\"radios\":" + radios_text({RadioSpec{}}));
  engine.pass(15);
  answer_scan(engine, 1, {RadioSpec{}});
  engine.pass(19);
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Start optimization on domain site size 1 drop 1"));
  EXPECT_EQ(engine.worker().unanswered_aps().size(), 1u);
  EXPECT_EQ(engine.ap(2)->countdown, 12);
  engine.rrm().take();
  engine.finish_optimisation();
  // It returns when the round ends, and hears nothing of the plan.
  EXPECT_TRUE(engine.worker().unanswered_aps().empty());
  EXPECT_EQ(engine.worker().aps().size(), 2u);
  EXPECT_EQ(engine.rrm().take("rrm-info").size(), 1u);
}

TEST(TpcDcaScan, PlansANewRoundAtOnceWhenEveryoneDropsOut) {
  Engine engine(round_config());
  start_scan(engine, 2);
  engine.pass(19);
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Start optimization on domain site size 0 drop 2"));
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Optimization on domain site delayed"));
  EXPECT_EQ(engine.state(), 4);
  EXPECT_FALSE(engine.worker().load_balancer_lock());
  EXPECT_EQ(engine.worker().aps().size(), 2u);
  EXPECT_EQ(statuses(engine.log()), (Texts{status_text(0), status_text(4)}));
}

TEST(TpcDcaScan, ThatEveryoneDropsOutOfStartsTheNextRoundAfresh) {
  Engine engine(round_config());
  start_scan(engine, 1);
  engine.ap(1)->radios.find(0)->conflicted = true;
  engine.pass(19);
  ASSERT_EQ(engine.state(), 4);
  EXPECT_FALSE(engine.ap(1)->radios.find(0)->conflicted);
}

TEST(TpcDcaScan, IgnoresTheAnswersOfADomainInWhichNoneCounts) {
  DomainConfig config = Engine::quiet_config();
  config.use_dca = false;
  config.use_tpc = false;
  config.use_optimization_time = true;
  config.optimization_time_s = 60;
  Engine engine(config);
  engine.subscribe(1, {RadioSpec{}});
  engine.pass(60);
  ASSERT_EQ(engine.state(), 2);
  engine.receive("rrm-mode-response", 1, 101,
                 "\"radios\":" + radios_text({RadioSpec{.channel = 44}}));
  EXPECT_EQ(engine.ap(1)->radios.find(0)->channel, 36);
  engine.pass(15);
  ASSERT_EQ(engine.state(), 3);
  answer_scan(engine, 1, {RadioSpec{.channel = 44}});
  EXPECT_EQ(engine.ap(1)->radios.find(0)->channel, 36);
  EXPECT_EQ(engine.worker().tpc_dca().times().mode_response.count(), 0u);
  EXPECT_EQ(engine.worker().tpc_dca().times().response.count(), 0u);
}

TEST(TpcDcaScan, IndexesTheRadiosThatAnAnswerSwitchesOn) {
  const MacAddress second = MacAddress::from_text("00:11:22:00:01:10");
  const MacAddress third = MacAddress::from_text("00:11:22:00:01:20");
  Engine engine(round_config());
  engine.subscribe(1, {RadioSpec{}});
  engine.subscribe(2, {RadioSpec{}});
  engine.pass(20);
  EXPECT_FALSE(engine.worker().aps().contains_bssid(second));
  engine.receive("rrm-mode-response", 1, 101,
                 "\"radios\":" + radios_text({RadioSpec{}, RadioSpec{.id = 1}}));
  EXPECT_TRUE(engine.worker().aps().contains_bssid(second));
  engine.pass(15);
  answer_scan(engine, 1, {RadioSpec{}, RadioSpec{.id = 2}});
  EXPECT_TRUE(engine.worker().aps().contains_bssid(third));
  EXPECT_FALSE(engine.worker().aps().contains_bssid(second));
}

TEST(TpcDcaScan, TakesAnswersUnderAnyMacOfTheAccessPoint) {
  Engine engine(round_config());
  const std::string radios = "\"radios\":" + radios_text({RadioSpec{.id = 1}});
  engine.subscribe(1, {RadioSpec{.id = 1}});
  engine.subscribe(2, {RadioSpec{}});
  engine.pass(20 + 15);
  engine.receive(
      "{\"service\":\"rrm\",\"cmd\":\"rrm-response\",\"version\":\"2.4\","
      "\"ap-mac\":\"00:11:22:00:01:10\"," +
          radios + "}",
      101);
  EXPECT_TRUE(engine.ap(1)->active);
}

TEST(TpcDcaScan, AnswersToTheRequestOfModesMarkTheRadiosAsChangedThoseToTheScanDoNot) {
  Engine engine(round_config());
  engine.subscribe(1, {RadioSpec{}});
  engine.subscribe(2, {RadioSpec{}});
  engine.pass(20);
  Radio& radio = *engine.ap(1)->radios.find(0);
  radio.changed = false;
  engine.receive("rrm-mode-response", 1, 101, "\"radios\":" + radios_text({RadioSpec{}}));
  EXPECT_TRUE(radio.changed);
  engine.pass(15);
  radio.changed = false;
  answer_scan(engine, 1, {RadioSpec{}});
  EXPECT_FALSE(radio.changed);
}

TEST(TpcDcaScan, CountsADescriptionAsReceivedOnlyWithWhatWasHeard) {
  Engine engine(round_config());
  start_scan(engine, 2);
  engine.receive("rrm-response", 1, 101, "\"radios\":" + radios_text({RadioSpec{}}));
  EXPECT_TRUE(engine.ap(1)->active);
  EXPECT_FALSE(engine.ap(1)->radios.received);
  answer_scan(engine, 1, {RadioSpec{}});
  EXPECT_TRUE(engine.ap(1)->radios.received);
}

TEST(TpcDcaScan, TheAnswerIsMeasuredWithThePowerInForce) {
  Engine engine(round_config());
  std::atomic<int> power_changed{-1};
  engine.worker().tpc_dca().set_optimiser([&](ApMap& snapshot, auto&&...) {
    power_changed = snapshot.aps().begin()->second->radios.find(0)->power_changed;
    OptimisationResult result;
    result.ok = true;
    return result;
  });
  start_scan(engine, 1);
  engine.ap(1)->radios.find(0)->power_changed = -6;
  answer_scan(engine, 1, {RadioSpec{}});
  engine.finish_optimisation();
  EXPECT_EQ(power_changed, 0);
}

TEST(TpcDcaScan, LeavesOutAccessPointsWithoutAPlannedRadio) {
  Engine engine(round_config());
  engine.subscribe(1, {RadioSpec{}});
  engine.subscribe(2, {RadioSpec{.channel = 0}});
  engine.pass(20);
  EXPECT_EQ(engine.rrm().take("rrm-request-mode").size(), 1u);
  EXPECT_EQ(engine.worker().unanswered_aps().size(), 1u);
  EXPECT_EQ(engine.ap(2)->countdown, 12);
}

TEST(TpcDcaScan, IsGivenUpWhenNobodyCanTakePart) {
  Engine engine(round_config());
  engine.subscribe(1, {RadioSpec{}});
  engine.ap(1)->radios.find(0)->channel = 0;
  engine.log().clear();
  engine.pass(20);
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "not optimization scan on domain site"));
  EXPECT_EQ(statuses(engine.log()), Texts{status_text(0)});
  EXPECT_EQ(engine.state(), 0);
  EXPECT_EQ(engine.worker().aps().size(), 1u);
  EXPECT_FALSE(engine.worker().load_balancer_lock());
}

TEST(TpcDcaScan, IsDelayedWhenEverybodyHasLeftBeforeIt) {
  Engine engine(round_config());
  engine.subscribe(1, {RadioSpec{}});
  engine.pass(20);
  engine.close_session(101);
  engine.log().clear();
  engine.pass(15);
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Optimization scan on domain site delayed"));
  EXPECT_EQ(statuses(engine.log()), (Texts{status_text(0), status_text(4)}));
  EXPECT_EQ(engine.state(), 4);
}

TEST(TpcDcaScan, IgnoresAnswersThatComeAtTheWrongTime) {
  Engine engine(round_config());
  engine.subscribe(1, {RadioSpec{}});
  answer_scan(engine, 1, {RadioSpec{.channel = 44}});
  engine.receive("rrm-mode-response", 1, 101,
                 "\"radios\":" + radios_text({RadioSpec{.channel = 44}}));
  EXPECT_EQ(engine.ap(1)->radios.find(0)->channel, 36);
  EXPECT_FALSE(engine.ap(1)->active);
  EXPECT_EQ(engine.worker().tpc_dca().times().response.count(), 0u);
  EXPECT_EQ(engine.worker().tpc_dca().times().mode_response.count(), 0u);
}

TEST(TpcDcaScan, TakesEachAnswerOnlyWhereItIsAskedFor) {
  Engine engine(round_config());
  engine.subscribe(1, {RadioSpec{}});
  engine.pass(20);
  ASSERT_EQ(engine.state(), 2);
  answer_scan(engine, 1, {RadioSpec{.channel = 44}});
  EXPECT_EQ(engine.ap(1)->radios.find(0)->channel, 36);
  engine.pass(15);
  ASSERT_EQ(engine.state(), 3);
  engine.receive("rrm-mode-response", 1, 101,
                 "\"radios\":" + radios_text({RadioSpec{.channel = 44}}));
  EXPECT_EQ(engine.ap(1)->radios.find(0)->channel, 36);
  EXPECT_EQ(engine.state(), 3);
  EXPECT_EQ(engine.worker().tpc_dca().times().response.count(), 0u);
  EXPECT_EQ(engine.worker().tpc_dca().times().mode_response.count(), 0u);
}

TEST(TpcDcaScan, AnswersLeaveTheVapsAlone) {
  DomainConfig config = round_config();
  config.use_80211k = true;
  Engine engine(config);
  engine.subscribe(1, {RadioSpec{.vaps = {{.k = true}}}});
  engine.subscribe(2, {RadioSpec{}});
  engine.pass(20);
  engine.receive("rrm-mode-response", 1, 101, "\"radios\":" + radios_text({RadioSpec{}}));
  EXPECT_EQ(engine.ap(1)->radios.find(0)->vaps.size(), 1u);
  engine.pass(15);
  answer_scan(engine, 1, {RadioSpec{}});
  EXPECT_EQ(engine.ap(1)->radios.find(0)->vaps.size(), 1u);
  EXPECT_TRUE(engine.ap(1)->radios.received);
}

TEST(TpcDcaScan, SeesReturningAccessPointsOnlyInAFlaggedState) {
  Engine engine(round_config());
  engine.subscribe(1, {RadioSpec{}});
  engine.subscribe(2, {RadioSpec{}});
  engine.close_session(102);
  engine.pass(20);
  ASSERT_EQ(engine.state(), 2);
  engine.subscribe(2, {RadioSpec{}});
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "To delete subscribe request, scan state 1"));
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Not-equivalent or force (1) subscribe request"));
  EXPECT_EQ(engine.state(), 4);
  EXPECT_FALSE(engine.worker().load_balancer_lock());
}

// --- results

/// The plan: channel 44 and 9 dBm for every radio.
OptimisationResult plan_44(ApMap& snapshot, const DomainConfig&, const OptimisationSwitches&,
                           std::int64_t, const std::atomic<bool>&) {
  OptimisationResult result;
  for (const auto& [mac, ap] : snapshot.aps()) {
    RadioList radios = ap->radios;
    for (Radio& radio : radios.radios) {
      radio.channel = 44;
      radio.power = 9;
      radio.power_changed = -6;
    }
    result.radios.emplace(mac, radios);
  }
  result.ok = true;
  return result;
}

TEST(TpcDcaResult, IsAppliedToTheEnabledRadiosAndSent) {
  Engine engine(round_config());
  engine.worker().tpc_dca().set_optimiser(plan_44);
  start_scan(engine, 1);
  answer_scan(engine, 1, {RadioSpec{}});
  engine.finish_optimisation();
  EXPECT_EQ(engine.ap(1)->radios.find(0)->channel, 44);
  EXPECT_EQ(engine.ap(1)->radios.find(0)->power, 9);
  EXPECT_EQ(engine.ap(1)->radios.find(1)->channel, 0);
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Post tpc-results"));
  const auto sent = engine.rrm().take("rrm-info");
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_NE(sent[0].find("{\"id\":0,\"channel\":44,\"band\":5,\"power\":9,"), std::string::npos);
}

TEST(TpcDcaResult, LeavesARadioAloneThatWasTakenOutWhileItWasPlanned) {
  Engine engine(round_config());
  engine.worker().tpc_dca().set_optimiser(plan_44);
  start_scan(engine, 2);
  answer_scan(engine, 1, {RadioSpec{}});
  answer_scan(engine, 2, {RadioSpec{}});
  engine.receive("rrm-config-changed", 1, 101, "\"radios\":[]");
  engine.receive("rrm-config-changed", 2, 102,
                 "\"radios\":" + radios_text({RadioSpec{.extra = ",\"locked-for-dca\":1"}}));
  engine.finish_optimisation();
  EXPECT_EQ(engine.ap(1)->radios.find(0)->channel, 0);
  EXPECT_EQ(engine.ap(1)->radios.find(0)->power, 15);
  EXPECT_EQ(engine.ap(2)->radios.find(0)->channel, 36);
  EXPECT_EQ(engine.ap(2)->radios.find(0)->power, 9);
}

TEST(TpcDcaResult, LeavesARadioAloneThatWasSwitchedOnWhileOthersWerePlanned) {
  Engine engine(round_config());
  engine.worker().tpc_dca().set_optimiser(plan_44);
  start_scan(engine, 1);
  answer_scan(engine, 1, {RadioSpec{}});
  engine.receive("rrm-config-changed", 1, 101,
                 "\"radios\":" + radios_text({RadioSpec{}, RadioSpec{.id = 1, .channel = 40}}));
  engine.finish_optimisation();
  EXPECT_EQ(engine.ap(1)->radios.find(0)->channel, 44);
  EXPECT_EQ(engine.ap(1)->radios.find(1)->channel, 40);
  EXPECT_EQ(engine.ap(1)->radios.find(1)->power, 15);
}

/// A plan for every enabled radio, made by a change of what it is.
TpcDcaSubworker::Optimiser plan_by(const std::function<void(Radio&)>& change) {
  return [change](ApMap& snapshot, auto&&...) {
    OptimisationResult result;
    for (const auto& [mac, ap] : snapshot.aps()) {
      for (Radio& radio : ap->radios.radios)
        if (radio.status) change(radio);
      result.radios.emplace(mac, ap->radios);
    }
    result.ok = true;
    return result;
  };
}

TEST(TpcDcaResult, WithoutAChannelLeavesTheChannel) {
  Engine engine(round_config());
  engine.worker().tpc_dca().set_optimiser(plan_by([](Radio& radio) { radio.channel = 0; }));
  start_scan(engine, 1);
  answer_scan(engine, 1, {RadioSpec{}});
  engine.finish_optimisation();
  EXPECT_EQ(engine.ap(1)->radios.find(0)->channel, 36);
}

TEST(TpcDcaResult, MovesARadioAlsoWhereOthersHearIt) {
  Engine engine(round_config());
  engine.worker().tpc_dca().set_optimiser(
      plan_by([](Radio& radio) { radio.channel = radio.base_mac.bytes[4] == 2 ? 44 : 36; }));
  start_scan(engine, 3);
  for (int n = 1; n <= 3; ++n) answer_scan(engine, n, {RadioSpec{}});
  const MacAddress moved = engine.ap(2)->get_radio_mac(0);
  const MacAddress staying = engine.ap(3)->get_radio_mac(0);
  NeighbourMap& heard = engine.ap(1)->visible_members;
  heard = {{moved.twin(), {-60, 36, 5, 20, 15}}, {staying, {-60, 40, 5, 20, 15}}};
  engine.finish_optimisation();
  EXPECT_EQ(engine.ap(2)->radios.find(0)->channel, 44);
  EXPECT_EQ(heard.at(moved.twin()).channel, 44);
  EXPECT_EQ(heard.at(staying).channel, 40);
}

TEST(TpcDcaResult, TellsThePositionOfThePrimaryChannel) {
  Engine engine(round_config());
  engine.worker().tpc_dca().set_optimiser(
      plan_by([](Radio& radio) { radio.primary_channel = PrimaryChannel::kUpper; }));
  const RadioSpec radio{.channel = 6,
                        .band = 2,
                        .bandwidth = 40,
                        .channels = "6",
                        .extra = ",\"primary-channel\":\"lower\""};
  engine.subscribe(1, {radio});
  engine.pass(20 + 15);
  answer_scan(engine, 1, {radio});
  engine.rrm().take();
  engine.finish_optimisation();
  const auto sent = engine.rrm().take("rrm-info");
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_NE(sent[0].find("\"bandwidth\":40,\"primary-channel\":\"upper\""), std::string::npos);
}

TEST(TpcDcaResult, GivesANewChannelThePositionThatItHasInItsBlock) {
  Engine engine(round_config());
  engine.worker().tpc_dca().set_optimiser(plan_by([](Radio& radio) { radio.channel = 44; }));
  const RadioSpec radio{.bandwidth = 80};
  engine.subscribe(1, {radio});
  engine.pass(20 + 15);
  answer_scan(engine, 1, {radio});
  ASSERT_EQ(engine.ap(1)->radios.find(0)->primary_channel, PrimaryChannel::kLower);
  engine.finish_optimisation();
  EXPECT_EQ(engine.ap(1)->radios.find(0)->primary_channel, PrimaryChannel::kUpperLower);
}

TEST(TpcDcaResult, StaysWithinLimitsThatCameMeanwhileAndKeepsTheEirp) {
  Engine engine(round_config());
  engine.worker().tpc_dca().set_optimiser(plan_44);
  start_scan(engine, 1);
  answer_scan(engine, 1, {RadioSpec{}});
  engine.receive("rrm-config-changed", 1, 101,
                 "\"radios\":[{\"id\":0,\"status\":1,\"channel\":36,\"band\":5,\"power-min\":12,"
                 "\"power-max\":20,\"bandwidth\":20,\"available-channels\":\"36,44\","
                 "\"antenna-configuration\":{\"antenna-gain\":5,\"cable-loss\":1}}]");
  EXPECT_EQ(engine.ap(1)->radios.find(0)->eirp, 19);
  engine.finish_optimisation();
  EXPECT_EQ(engine.ap(1)->radios.find(0)->power, 12);
  EXPECT_EQ(engine.ap(1)->radios.find(0)->eirp, 16);  // 12 + 5 - 1
}

TEST(TpcDcaResult, SurvivesAccessPointsThatLeaveWhileItIsMade) {
  Engine engine(round_config());
  engine.worker().tpc_dca().set_optimiser(plan_44);
  start_scan(engine, 2);
  answer_scan(engine, 1, {RadioSpec{}});
  answer_scan(engine, 2, {RadioSpec{}});
  engine.close_session(101);
  engine.receive("unsubscribe-request", 2, 102, "");
  engine.finish_optimisation();
  EXPECT_EQ(engine.log().count(LogLevel::Debug, "Optimization on domain site finished"), 1u);
  EXPECT_TRUE(engine.rrm().take().empty());
}

struct Failure {
  const char* name;
  TpcDcaSubworker::Optimiser optimiser;
  const char* warning;
};

class FailedOptimisation : public testing::TestWithParam<Failure> {};

TEST_P(FailedOptimisation, LeavesTheRadiosAloneAndPlansTheNextRound) {
  Engine engine(round_config());
  engine.worker().tpc_dca().set_optimiser(GetParam().optimiser);
  start_scan(engine, 1);
  answer_scan(engine, 1, {RadioSpec{}});
  engine.finish_optimisation();
  EXPECT_TRUE(engine.log().has(LogLevel::Warning, GetParam().warning));
  EXPECT_EQ(engine.ap(1)->radios.find(0)->channel, 36);
  EXPECT_FALSE(engine.ap(1)->active);
  EXPECT_EQ(engine.state(), 0);
  EXPECT_FALSE(engine.worker().load_balancer_lock());
  EXPECT_TRUE(engine.rrm().take().empty());
  EXPECT_EQ(statuses(engine.log()).back(), status_text(0));
}

OptimisationResult fail_with(const std::string& message) {
  OptimisationResult result;
  result.message = message;
  return result;
}

INSTANTIATE_TEST_SUITE_P(
    Kind, FailedOptimisation,
    testing::Values(
        Failure{"ThatThrows",
                [](auto&&...) -> OptimisationResult { throw std::runtime_error("boom"); },
                "Optimization thread completed on domain site but no result was produced"},
        Failure{"ThatThrowsAnything", [](auto&&...) -> OptimisationResult { throw 7; },
                "Optimization thread completed on domain site but no result was produced"},
        Failure{"WithAMessage", [](auto&&...) { return fail_with("cancelled before DCA"); },
                "Optimization cancelled or failed: cancelled before DCA"},
        Failure{"WithoutAMessage", [](auto&&...) { return fail_with(""); },
                "Optimization on domain site finished unsuccessfully with no error message"}),
    [](const auto& test) { return test.param.name; });

TEST(TpcDcaResult, IsFollowedByAWishedRoundOnly) {
  for (const bool ok : {true, false}) {
    Engine engine(round_config());
    engine.worker().tpc_dca().set_optimiser([ok](auto&&...) {
      OptimisationResult result;
      result.ok = ok;
      return result;
    });
    start_scan(engine, 1);
    answer_scan(engine, 1, {RadioSpec{}});
    ASSERT_EQ(engine.state(), 5);
    engine.subscribe(2, {RadioSpec{}});
    EXPECT_EQ(engine.state(), 5);
    engine.finish_optimisation();
    EXPECT_EQ(engine.state(), 4);
    engine.pass(20 + 15);
    answer_scan(engine, 1, {RadioSpec{}});
    answer_scan(engine, 2, {RadioSpec{}});
    engine.finish_optimisation();
    EXPECT_EQ(engine.state(), 0);
  }
}

TEST(TpcDcaResult, IsFollowedByTheNextDailyRound) {
  DomainConfig config = round_config();
  config.use_optimization_time = true;
  config.optimization_time_s = 7200;
  Engine engine(config);
  engine.worker().tpc_dca().set_optimiser(plan_nothing);
  start_scan(engine, 1);
  answer_scan(engine, 1, {RadioSpec{}});
  engine.finish_optimisation();
  EXPECT_EQ(engine.state(), 1);
}

TEST(TpcDcaRound, HandsTheOptionsOfTheDomainToTheOptimisation) {
  for (const int options : {1, 2, 3, 5, 6, 7}) {
    const TempFolder folder;
    DomainConfig config = round_config();
    config.use_dca = (options & 1) != 0;
    config.use_tpc = (options & 2) != 0;
    config.use_rrm_report = (options & 4) != 0;
    Engine engine(config, 0, ("{\"global\":{\"reports_path\":\"" + folder.path() + "\"}}").c_str());
    OptimisationSwitches given;  // read after the join only
    std::int64_t started_at = 0;
    engine.worker().tpc_dca().set_optimiser([&](ApMap&, const DomainConfig&,
                                                const OptimisationSwitches& switches,
                                                std::int64_t start, const std::atomic<bool>&) {
      given = switches;
      started_at = start;
      OptimisationResult result;
      result.ok = true;
      return result;
    });
    start_scan(engine, 1);
    answer_scan(engine, 1, {RadioSpec{}});
    engine.finish_optimisation();
    EXPECT_EQ(given.use_dca, config.use_dca) << options;
    EXPECT_EQ(given.use_tpc, config.use_tpc) << options;
    EXPECT_EQ(given.use_report, config.use_rrm_report) << options;
    EXPECT_EQ(started_at, 1'714'521'600 + 20 + 15);
  }
}

TEST(TpcDcaResult, IsWaitedForWithoutBlocking) {
  std::atomic<bool> release{false};
  Engine engine(round_config());
  engine.worker().tpc_dca().set_optimiser([&](auto&&...) {
    while (!release) std::this_thread::yield();
    OptimisationResult result;
    result.ok = true;
    return result;
  });
  start_scan(engine, 1);
  answer_scan(engine, 1, {RadioSpec{}});
  engine.pass(50);
  EXPECT_EQ(engine.state(), 5);
  EXPECT_EQ(engine.worker().tpc_dca().times().optimize.count(), 51u);
  release = true;
  engine.finish_optimisation();
  EXPECT_EQ(engine.state(), 0);
}

TEST(TpcDcaStop, CancelsTheOptimisationAndWaitsForIt) {
  std::atomic<bool> cancelled{false};
  Engine engine(round_config());
  engine.worker().tpc_dca().set_optimiser([&](ApMap&, const DomainConfig&,
                                              const OptimisationSwitches&, std::int64_t,
                                              const std::atomic<bool>& cancel) {
    while (!cancel) std::this_thread::yield();
    cancelled = true;
    return OptimisationResult{};
  });
  start_scan(engine, 1);
  answer_scan(engine, 1, {RadioSpec{}});
  engine.worker().disconnect();
  EXPECT_TRUE(cancelled);
  engine.pass(5);
  EXPECT_EQ(engine.state(), 5);
}

TEST(TpcDcaReport, IsAppendedWhenTheResultIsTaken) {
  const TempFolder folder;
  DomainConfig config = round_config();
  config.use_rrm_report = true;
  Engine engine(config, 0, ("{\"global\":{\"reports_path\":\"" + folder.path() + "\"}}").c_str());
  start_scan(engine, 1);
  answer_scan(engine, 1, {RadioSpec{}});
  engine.finish_optimisation();
  EXPECT_EQ(folder.read("report_idx_site.txt"), "1.1,2024-05-01,00:00:35\n");
  EXPECT_EQ(folder.read("report_site.txt").substr(0, 59),
            "1.1,2024-05-01,00:00:35,00:11:22:00:01:00,00:11:22:00:01:00");
  EXPECT_TRUE(folder.has("report_cfg_site.txt"));
  EXPECT_FALSE(engine.log().has_event(EventCode::ReportSaveFailed, "site"));
}

TEST(TpcDcaReport, IsMadeForEitherPlanAndOnlyWhenItIsWanted) {
  struct Case {
    bool report;
    bool dca;
    bool tpc;
    bool made;
  };
  for (const Case& c : {Case{true, true, false, true}, Case{true, false, true, true},
                        Case{false, true, true, false}, Case{true, false, false, false}}) {
    const TempFolder folder;
    DomainConfig config = round_config();
    config.use_rrm_report = c.report;
    config.use_dca = c.dca;
    config.use_tpc = c.tpc;
    config.use_80211k = true;  // the scan serves something in any case
    Engine engine(config, 0, ("{\"global\":{\"reports_path\":\"" + folder.path() + "\"}}").c_str());
    start_scan(engine, 1);
    answer_scan(engine, 1, {RadioSpec{}});
    engine.finish_optimisation();
    EXPECT_EQ(folder.has("report_idx_site.txt"), c.made) << c.report << c.dca << c.tpc;
  }
}

TEST(TpcDcaReport, ThatCannotBeSavedRaisesAnEvent) {
  DomainConfig config = round_config();
  config.use_rrm_report = true;
  Engine engine(config, 0, R"({"global":{"reports_path":"/nowhere/at/all"}})");
  start_scan(engine, 1);
  answer_scan(engine, 1, {RadioSpec{}});
  engine.finish_optimisation();
  EXPECT_TRUE(engine.log().has_event(EventCode::ReportSaveFailed, "site"));
  EXPECT_EQ(engine.log().count(LogLevel::Debug, "Optimization on domain site finished"), 1u);
}

}  // namespace
}  // namespace rrm::test
