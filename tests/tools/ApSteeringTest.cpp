#include "tools/fleet/ApSteering.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "server/lib/JsonReader.h"
#include "server/lib/JsonWriter.h"
#include "tests/tools/SmallWorld.h"

namespace rrm::fleet {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// One client and the access point that it is associated to, on 2.4 GHz.
class SteeringTranscript : public testing::Test {
 protected:
  static CrowdOptions one_client() {
    CrowdOptions options;
    options.clients = 1;
    options.moving = options.sticky = options.refusing = options.rare = options.gathered = 0;
    options.arrival = 0;
    return options;
  }
  static Scenario scenario() {
    Scenario result = two_aps(30);
    result.sites[0].buildings[0].width = 30;
    result.ssids[0].bands = {2};
    return result;
  }
  void SetUp() override {
    crowd.begin(0);
    for (now = 0; now < 1000; now += 100) crowd.advance(now + 100);
    events = crowd.take_events();
    ASSERT_EQ(events.size(), 1u);
    home = events[0].radio.ap;
    steering = std::make_unique<ApSteering>(world, crowd, home);
  }
  /// Lets the access point take a message; what it answers.
  std::vector<std::string> takes(const std::string& text) {
    const JsonReader message(text.c_str());
    AgentOutput out;
    EXPECT_TRUE(steering->take(now, message.get_str("cmd"), message, out));
    return out.messages;
  }
  std::string envelope(const char* cmd) const {
    return std::string(R"({"service":"rrm","version":"2.4","cmd":")") + cmd +
           R"(","domain":"lab","ap-mac":")" + world.ap(home).mac.upper().str() + "\",";
  }

  World world{scenario()};
  Crowd crowd{world, one_client()};
  Millis now = 0;
  std::vector<ClientEvent> events;
  std::uint32_t home = 0;
  std::unique_ptr<ApSteering> steering;
};

TEST_F(SteeringTranscript, AnAssociationIsTold) {
  EXPECT_EQ(steering->event_message(events[0]),
            envelope("rrm-client-assoc") +
                R"("radio":0,"sta-mac":"06:43:4C:00:00:00","ssid":"net","rssi":)" +
                std::to_string(crowd.client_rssi(0, {home, 0})) +
                R"(,"no-balance":0,"need-ack":0})");
}

TEST_F(SteeringTranscript, ADepartureIsTold) {
  EXPECT_EQ(
      steering->event_message({ClientEvent::Kind::Left, 0, {home, 0}, -50}),
      envelope("rrm-client-disassoc") + R"("radio":0,"sta-mac":"06:43:4C:00:00:00","ssid":"net"})");
}

TEST_F(SteeringTranscript, AChangeOfSignalIsTold) {
  EXPECT_EQ(
      steering->event_message({ClientEvent::Kind::Signal, 0, {home, 0}, -77}),
      envelope("rrm-assoc-state-changed") +
          R"("radio":0,"sta-mac":"06:43:4C:00:00:00","ssid":"net","rssi":-77,"state":"stable"})");
}

TEST_F(SteeringTranscript, ABlockAndItsEndAreObeyed) {
  EXPECT_THAT(takes(R"({"cmd":"rrm-blacklist","radios":[{"id":0,"blacklist":[)"
                    R"({"mac":"06:43:4C:00:00:00","action":"block","timeout":30}]}]})"),
              IsEmpty());
  crowd.set_alive(now, 1 - home, false);
  crowd.kick(now, {home, 0}, crowd.mac(0), now);  // out, and at once free to come back
  crowd.block({home, 0}, crowd.mac(0), now + 30000);
  const Millis blocked_until = now + 30000;
  for (; now < 3000; now += 100) crowd.advance(now + 100);
  EXPECT_FALSE(crowd.served_by(0));
  takes(R"({"cmd":"rrm-blacklist","radios":[{"id":0,"blacklist":[)"
        R"({"mac":"06:43:4C:00:00:00","action":"unblock"}]}]})");
  for (; now < 15000; now += 100) crowd.advance(now + 100);
  EXPECT_TRUE(crowd.served_by(0));
  EXPECT_LT(now, blocked_until);
}

TEST_F(SteeringTranscript, ADisassociationRequestThrowsTheClientOut) {
  takes(R"({"cmd":"rrm-disassoc-request","radios":[{"id":0,"diassoc-list":[)"
        R"({"mac":"06:43:4C:00:00:00","ssid":"net","timeout":30}]}]})");
  EXPECT_FALSE(crowd.served_by(0));
  EXPECT_EQ(crowd.counters().kicks, 1u);
}

TEST_F(SteeringTranscript, AProbeQuestionIsAnsweredWithTheSignal) {
  const std::string rssi = std::to_string(crowd.client_rssi(0, {home, 0}));
  EXPECT_THAT(
      takes(R"({"cmd":"rrm-probe-request","radios":[{"id":0,"probe-list":[)"
            R"({"ssid":"net","mac":"06:43:4C:00:00:00","timeout":5},)"
            R"({"ssid":"net","mac":"06:43:4C:00:99:99","timeout":5}]}]})"),
      ElementsAre(
          envelope("rrm-probe-response") +
          R"("radios":[{"id":0,"probe-list":[{"mac":"06:43:4C:00:00:00","ssid":"net","rssi":)" +
          rssi + "}]}]}"));
}

TEST_F(SteeringTranscript, AProbeQuestionAboutStrangersIsNotAnswered) {
  EXPECT_THAT(takes(R"({"cmd":"rrm-probe-request","radios":[{"id":0,"probe-list":[)"
                    R"({"ssid":"net","mac":"06:43:4C:00:99:99","timeout":5}]}]})"),
              IsEmpty());
}

TEST_F(SteeringTranscript, AnOverloadedRadioMovesClientsToANeighbourWithRoom) {
  const std::string target = world.ap(1 - home).mac.upper().str();
  const std::string list =
      R"([{"neighbour-mac":")" + target + R"(","channel":1,"band":2,"priority":127}])";
  steering->take_neighbours(JsonReader(list.c_str()));
  EXPECT_THAT(
      takes(R"({"cmd":"rrm-sta-overload","radios":[{"id":0,"roam-count":2}]})"),
      ElementsAre(envelope("rrm-sta-roam") +
                  R"("radio":0,"sta-mac":"06:43:4C:00:00:00","target-mac":")" + target + "\"}"));
  EXPECT_EQ(crowd.served_by(0), (RadioKey{1 - home, 0}));
}

TEST_F(SteeringTranscript, AFullNeighbourIsNoTarget) {
  const std::string list = R"([{"id":0,"band2":[{"neighbour-mac":")" +
                           world.ap(1 - home).mac.upper().str() + R"(","priority":0}]}])";
  steering->take_neighbours(JsonReader(list.c_str()));
  EXPECT_THAT(takes(R"({"cmd":"rrm-sta-overload","radios":[{"id":0,"roam-count":1}]})"), IsEmpty());
  EXPECT_EQ(crowd.served_by(0), (RadioKey{home, 0}));
}

TEST_F(SteeringTranscript, RadiosThatItDoesNotHaveAreIgnored) {
  takes(
      R"({"cmd":"rrm-disassoc-request","radios":[{"id":9,"diassoc-list":[{"mac":"06:43:4C:00:00:00"}]}]})");
  takes(
      R"({"cmd":"rrm-blacklist","radios":[{"id":-1,"blacklist":[{"mac":"06:43:4C:00:00:00"}]}]})");
  takes(R"({"cmd":"rrm-sta-overload","radios":[{"id":7,"roam-count":5}]})");
  EXPECT_TRUE(crowd.served_by(0));
}

TEST_F(SteeringTranscript, OtherCommandsAreNotTaken) {
  AgentOutput out;
  EXPECT_FALSE(steering->take(now, "rrm-info", JsonReader("{}"), out));
}

TEST_F(SteeringTranscript, ASubscriptionListsTheClients) {
  JsonWriter radio;
  ApSteering::write_clients(crowd, {home, 0}, radio);
  EXPECT_EQ(radio.str(), R"({"assoclist":[{"mac":"06:43:4C:00:00:00","ssid":"net","rssi":)" +
                             std::to_string(crowd.client_rssi(0, {home, 0})) + "}]}");
}

}  // namespace
}  // namespace rrm::fleet
