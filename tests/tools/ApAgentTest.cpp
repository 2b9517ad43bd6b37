#include "tools/fleet/ApAgent.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "server/lib/JsonReader.h"
#include "tests/tools/SmallWorld.h"

namespace rrm::fleet {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// One access point, driven message by message.
class ApAgentTranscript : public testing::Test {
 protected:
  /// What the agent did at an input; the next input starts anew.
  AgentOutput open(Millis now) {
    AgentOutput out;
    agent.on_open(now, out);
    return out;
  }
  AgentOutput hears(Millis now, const char* text) {
    AgentOutput out;
    agent.on_text(now, text, out);
    return out;
  }
  AgentOutput waits_until(Millis now) {
    AgentOutput out;
    agent.on_deadline(now, out);
    return out;
  }
  void subscribe() {
    open(0);
    hears(10, kAccepted);
  }

  static constexpr const char* kAccepted =
      R"({"service":"rrm","version":"2.4","cmd":"subscribe-response","status":"success",)"
      R"("domain":"lab","ap-mac":"02:57:4C:00:00:00","config":{"use-tpc":1,"use-dca":1,"radios":[]}})";
  static constexpr const char* kModes =
      R"({"service":"rrm","version":"2.4","cmd":"rrm-request-mode","domain":"lab"})";

  World world{two_aps(10)};
  AgentTiming timing;
  ApAgent agent{world, 0, timing};
};

TEST_F(ApAgentTranscript, SubscribesAsSoonAsItIsConnected) {
  world.set_radio(0, 0, 6, Primary::None, 11);
  const AgentOutput out = open(0);
  ASSERT_EQ(out.messages.size(), 1u);
  const AccessPoint& ap = world.ap(0);
  const RadioUnit& r0 = ap.radios[0];
  const std::string board = ap.hardware->board;
  const std::string head =
      R"({"service":"rrm","version":"2.4","cmd":"subscribe-request","domain":"lab",)"
      R"("ap-mac":"02:57:4C:00:00:00","factory":{"board":")" +
      board +
      R"(","hw":"1.0","serial":"WL00000001","mac":"02:57:4C:00:00:00"},"ap-mac-count":48,)"
      R"("use-wildcard-80211r":0,"radios":[)"
      R"({"id":0,"status":1,"channel":6,"band":2,"bandwidth":20,"primary-channel":"none","power":11,)"
      R"("power-min":4,"power-max":)" +
      std::to_string(r0.power_max_dbm) +
      R"(,"available-channels":"1,6,11","mac-offset":0,"radio-mac-count":16,"locked-for-tpc":0,)"
      R"("locked-for-dca":0,"locked-for-balancer":0,"locked-for-80211v":0,)" +
      (ap.hardware->antenna_gain_dbi == 0
           ? ""
           : R"("antenna-configuration":{"antenna-gain":4,"cable-loss":1},)") +
      R"("vaps":[{"id":0,"ssid":"net","mac":"02:57:4C:00:00:00","802dot11k":1,"802dot11r":1,)"
      R"("802dot11v":0}]},)";
  EXPECT_EQ(out.messages[0].substr(0, head.size()), head);
  const JsonReader whole(out.messages[0].c_str());
  EXPECT_EQ(whole.child("radios").size(), ap.radios.size());
}

TEST_F(ApAgentTranscript, TakesItsSubscription) {
  open(0);
  const AgentOutput out = hears(10, kAccepted);
  EXPECT_THAT(out.events, ElementsAre(ApEvent::Subscribed));
  EXPECT_THAT(out.messages, IsEmpty());
  EXPECT_EQ(agent.state(), ApAgent::State::Subscribed);
  EXPECT_FALSE(agent.deadline());
}

TEST_F(ApAgentTranscript, GivesUpAConnectionThatRefusesIt) {
  open(0);
  const AgentOutput out = hears(
      10,
      R"({"service":"rrm","cmd":"subscribe-response","status":"fail","code":400,"ap-mac":"x"})");
  EXPECT_THAT(out.events, ElementsAre(ApEvent::Rejected));
  EXPECT_TRUE(out.close);
  EXPECT_EQ(agent.reject_code(), 400);
}

TEST_F(ApAgentTranscript, GivesUpAConnectionThatDoesNotAnswer) {
  open(1000);
  EXPECT_EQ(agent.deadline(), 31000);
  EXPECT_FALSE(waits_until(30999).close);
  EXPECT_TRUE(waits_until(31000).close);
}

TEST_F(ApAgentTranscript, AnswersAModeRequestAfterAWhile) {
  subscribe();
  EXPECT_THAT(hears(100, kModes).events, ElementsAre(ApEvent::ModesRequested));
  ASSERT_TRUE(agent.deadline());
  EXPECT_GE(*agent.deadline(), 100);
  EXPECT_LE(*agent.deadline(), 100 + timing.answer);
  const AgentOutput out = waits_until(*agent.deadline());
  EXPECT_THAT(out.events, ElementsAre(ApEvent::ModesAnswered));
  ASSERT_EQ(out.messages.size(), 1u);
  const std::string head =
      R"({"service":"rrm","version":"2.4","cmd":"rrm-mode-response","domain":"lab",)"
      R"("ap-mac":"02:57:4C:00:00:00","radios":[{"id":0,"status":1,"channel":1,"band":2,)";
  EXPECT_EQ(out.messages[0].substr(0, head.size()), head);
  EXPECT_EQ(out.messages[0].find("vaps"), std::string::npos) << "modes carry no VAPs";
  EXPECT_FALSE(agent.deadline());
}

TEST_F(ApAgentTranscript, ScansAfterItsDelayAndReportsTheChannelsItWasAskedFor) {
  subscribe();
  world.set_radio(1, 0, 11, Primary::None, 12);
  const AgentOutput asked = hears(
      1000,
      R"({"service":"rrm","cmd":"rrm-update","rrm-scan-delay":6,"rrm-scan-channels":"1 6 11 ",)"
      R"("rrm-scan-channels-list":{"2":"11 1 ","5":"","6":""},"tavro-rrm-scanning":1})");
  EXPECT_THAT(asked.events, ElementsAre(ApEvent::ScanRequested));
  ASSERT_TRUE(agent.deadline());
  EXPECT_GE(*agent.deadline(), 1000 + 6000 + 3000);
  EXPECT_LE(*agent.deadline(), 1000 + 6000 + 5000);
  const AgentOutput out = waits_until(*agent.deadline());
  EXPECT_THAT(out.events, ElementsAre(ApEvent::ScanAnswered));
  ASSERT_EQ(out.messages.size(), 1u);
  // 12 dBm and the antenna, less 63.187 dB.
  const int rssi = world.ap(1).radiated_dbm(12) - 63;
  const std::string tail =
      R"("rf-environment":[[{"bssid":"02:57:4C:00:00:40","channel":11,"band":2,"bandwidth":20,)"
      R"("primary-channel":"none","rssi":)" +
      std::to_string(rssi) + R"(,"tx-power":12}]]})";
  ASSERT_GT(out.messages[0].size(), tail.size());
  EXPECT_EQ(out.messages[0].substr(out.messages[0].size() - tail.size()), tail);
}

TEST_F(ApAgentTranscript, SetsItsRadiosAsThePlanSays) {
  subscribe();
  const AgentOutput out = hears(
      5000, R"({"service":"rrm","cmd":"rrm-info","config":{"radios":[)"
            R"({"id":0,"channel":11,"band":2,"power":9,"bandwidth":20,"primary-channel":"none"},)"
            R"({"id":7,"channel":36,"power":9}]}})");
  EXPECT_THAT(out.events,
              ElementsAre(ApEvent::ConfigTaken, ApEvent::ChannelChanged, ApEvent::PowerChanged));
  EXPECT_EQ(world.ap(0).radios[0].channel, 11);
  EXPECT_EQ(world.ap(0).radios[0].power_dbm, 9);
}

TEST_F(ApAgentTranscript, CountsItsNeighbourListInBothForms) {
  subscribe();
  hears(1, R"({"service":"rrm","cmd":"rrm-info","config":{"802dot11k":[)"
           R"({"neighbour-mac":"a"},{"neighbour-mac":"b"}]}})");
  EXPECT_EQ(agent.neighbours(), 2u);
  hears(2, R"({"service":"rrm","cmd":"rrm-info","config":{}})");
  EXPECT_EQ(agent.neighbours(), 2u) << "a message without a list leaves the last one";
  hears(3, R"({"service":"rrm","cmd":"rrm-info","config":{"802dot11k":[)"
           R"({"id":0,"band2":[{},{}],"band5":[{}]},{"id":1,"band5":[{}]}]}})");
  EXPECT_EQ(agent.neighbours(), 4u);
}

TEST_F(ApAgentTranscript, CountsItsFastTransitionLinks) {
  subscribe();
  const AgentOutput out = hears(
      1, R"({"service":"rrm","cmd":"fbt-info","vaps":[{"remotes":[{},{}]},{"remotes":[{}]}]})");
  EXPECT_THAT(out.events, ElementsAre(ApEvent::KeysTaken));
  EXPECT_EQ(agent.fbt_links(), 3u);
}

TEST_F(ApAgentTranscript, AnswersNothingBeforeItIsSubscribed) {
  open(0);
  EXPECT_THAT(hears(1, kModes).events, IsEmpty());
  EXPECT_THAT(hears(1, R"({"service":"rrm","cmd":"rrm-info","config":{}})").events, IsEmpty());
  EXPECT_EQ(agent.deadline(), 30000) << "still waiting for the subscription";
}

struct BadText {
  const char* name;
  const char* text;
};
class ApAgentBadText : public ApAgentTranscript, public testing::WithParamInterface<BadText> {};

TEST_P(ApAgentBadText, IsCountedAndOtherwiseIgnored) {
  subscribe();
  const AgentOutput out = hears(1, GetParam().text);
  EXPECT_THAT(out.events, ElementsAre(ApEvent::NotUnderstood));
  EXPECT_THAT(out.messages, IsEmpty());
  EXPECT_FALSE(out.close);
}

INSTANTIATE_TEST_SUITE_P(Texts, ApAgentBadText,
                         testing::Values(BadText{"Empty", ""}, BadText{"Broken", "{\"service\":"},
                                         BadText{"Array", "[1,2]"},
                                         BadText{"NoService", R"({"cmd":"rrm-info"})"},
                                         BadText{"OtherService", R"({"service":"x","cmd":"y"})"},
                                         BadText{"NoCommand", R"({"service":"rrm"})"}),
                         [](const auto& test) { return test.param.name; });

TEST_F(ApAgentTranscript, WaitsLongerBeforeEveryFurtherAttempt) {
  Millis longest = 1000;
  for (int attempt = 0; attempt < 8; ++attempt) {
    const Millis wait = agent.on_closed();
    EXPECT_GE(wait, longest / 2);
    EXPECT_LE(wait, longest);
    longest = std::min<Millis>(longest * 2, 30000);
  }
  subscribe();
  EXPECT_LE(agent.on_closed(), 1000) << "a subscription starts the count anew";
}

TEST_F(ApAgentTranscript, ForgetsAPendingAnswerWhenTheConnectionCloses) {
  subscribe();
  hears(100, kModes);
  agent.on_closed();
  EXPECT_FALSE(agent.deadline());
  EXPECT_EQ(agent.state(), ApAgent::State::Offline);
}

}  // namespace
}  // namespace rrm::fleet
