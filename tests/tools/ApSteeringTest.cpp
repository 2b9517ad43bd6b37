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
    result.ssids[0].use_80211v = true;
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
  void takes(const std::string& text) {
    const JsonReader message(text.c_str());
    EXPECT_TRUE(steering->take(now, message.get_str("cmd"), message));
  }
  /// Time goes on for the client and the access point; what that says.
  std::vector<std::string> waits(Millis time) {
    AgentOutput out;
    for (const Millis end = now + time; now < end;) {
      now += 100;
      crowd.advance(now);
      if (steering->deadline() && *steering->deadline() <= now) steering->on_deadline(now, out);
    }
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
  takes(R"({"cmd":"rrm-blacklist","radios":[{"id":0,"blacklist":[)"
        R"({"mac":"06:43:4C:00:00:00","action":"block","timeout":30}]}]})");
  EXPECT_FALSE(steering->deadline()) << "there is nothing to answer";
  crowd.set_alive(now, 1 - home, false);
  crowd.kick(now, {home, 0}, crowd.mac(0), now);  // out, and at once free to come back
  crowd.block(now, {home, 0}, crowd.mac(0), now + 30000);
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

std::string probe_request(const char* clients) {
  return std::string(R"({"cmd":"rrm-probe-request","radios":[{"id":0,"probe-list":[)") + clients +
         "]}]}";
}

TEST_F(SteeringTranscript, ProbeQuestionsAreAnsweredTogetherAfterASecond) {
  const std::string rssi = std::to_string(crowd.client_rssi(0, {home, 0}));
  takes(probe_request(R"({"ssid":"net","mac":"06:43:4C:00:00:00","timeout":5})"));
  takes(probe_request(R"({"ssid":"net","mac":"06:43:4C:00:99:99","timeout":5},)"
                      R"({"ssid":"net","mac":"06:43:4C:00:00:00","timeout":5})"));
  EXPECT_THAT(waits(900), IsEmpty());
  EXPECT_THAT(
      waits(100),
      ElementsAre(
          envelope("rrm-probe-response") +
          R"("radios":[{"id":0,"probe-list":[{"mac":"06:43:4C:00:00:00","ssid":"net","rssi":)" +
          rssi + "}]}]}"));
}

TEST_F(SteeringTranscript, StrangersAreListenedForUntilTheQuestionIsOver) {
  takes(probe_request(R"({"ssid":"net","mac":"06:43:4C:00:99:99","timeout":5})"));
  EXPECT_THAT(waits(4900), IsEmpty());
  EXPECT_TRUE(steering->deadline());
  EXPECT_THAT(waits(200), IsEmpty());
  EXPECT_FALSE(steering->deadline());
}

TEST_F(SteeringTranscript, AClosedConnectionEndsAllQuestions) {
  takes(probe_request(R"({"ssid":"net","mac":"06:43:4C:00:00:00","timeout":5})"));
  steering->forget_requests();
  EXPECT_THAT(waits(2000), IsEmpty());
}

/// One neighbour with that priority.
std::string neighbour_list(const MacAddress& mac, int priority) {
  return R"([{"id":0,"band2":[{"neighbour-mac":")" + mac.upper().str() + R"(","priority":)" +
         std::to_string(priority) + "}]}]";
}

constexpr const char* kOverload =
    R"({"cmd":"rrm-sta-overload","radios":[{"id":0,"roam-count":2}]})";

TEST_F(SteeringTranscript, AnOverloadedRadioMovesClientsToANeighbourWithRoom) {
  const MacAddress target = world.ap(1 - home).mac;
  steering->take_neighbours(JsonReader(neighbour_list(target, 127).c_str()));
  waits(60000);
  takes(kOverload);
  EXPECT_THAT(waits(1900), IsEmpty());
  EXPECT_THAT(waits(100), ElementsAre(envelope("rrm-sta-roam") +
                                      R"("radio":0,"sta-mac":"06:43:4C:00:00:00","target-mac":")" +
                                      target.upper().str() + "\"}"));
  EXPECT_EQ(crowd.served_by(0), (RadioKey{1 - home, 0}));
  EXPECT_FALSE(steering->deadline()) << "nobody is left";
}

TEST_F(SteeringTranscript, AClientThatHasJustComeIsNotMoved) {
  steering->take_neighbours(JsonReader(neighbour_list(world.ap(1 - home).mac, 127).c_str()));
  takes(kOverload);
  EXPECT_THAT(waits(3000), IsEmpty());
  EXPECT_EQ(crowd.served_by(0), (RadioKey{home, 0}));
}

TEST_F(SteeringTranscript, AClientThatWasAskedIsLeftAloneForTheConfiguredTime) {
  steering->take_neighbours(JsonReader(neighbour_list(world.ap(1 - home).mac, 127).c_str()));
  steering->take_settings(JsonReader(R"({"radios":[{"id":0,"tavro-roam-attempt-timeout":100}]})"));
  waits(60000);
  crowd.block(now, {1 - home, 0}, crowd.mac(0), now + 30000);
  takes(kOverload);
  waits(2000);
  EXPECT_EQ(crowd.counters().refused, 1u) << "asked, and refused by the target";
  waits(90000);
  takes(kOverload);
  EXPECT_THAT(waits(2000), IsEmpty());
  waits(10000);
  takes(kOverload);
  EXPECT_EQ(waits(2000).size(), 1u);
}

TEST_F(SteeringTranscript, AFullNeighbourIsNoTarget) {
  steering->take_neighbours(JsonReader(neighbour_list(world.ap(1 - home).mac, 0).c_str()));
  waits(60000);
  takes(kOverload);
  EXPECT_THAT(waits(3000), IsEmpty());
  EXPECT_EQ(crowd.served_by(0), (RadioKey{home, 0}));
}

TEST_F(SteeringTranscript, OnlyClientsOfANetworkWith80211vAreMoved) {
  Scenario plain = scenario();
  plain.ssids[0].use_80211v = false;
  const World other(plain);
  Crowd clients(other, one_client());
  clients.begin(0);
  for (now = 0; now < 61000; now += 100) clients.advance(now + 100);
  ApSteering balancer(other, clients, home);
  balancer.take_neighbours(JsonReader(neighbour_list(other.ap(1 - home).mac, 127).c_str()));
  balancer.take(now, "rrm-sta-overload", JsonReader(kOverload));
  AgentOutput out;
  balancer.on_deadline(now + 2000, out);
  EXPECT_THAT(out.messages, IsEmpty());
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
  EXPECT_FALSE(steering->take(now, "rrm-info", JsonReader("{}")));
}

TEST_F(SteeringTranscript, ASubscriptionListsTheClients) {
  JsonWriter radio;
  ApSteering::write_clients(crowd, {home, 0}, radio);
  EXPECT_EQ(radio.str(), R"({"assoclist":[{"mac":"06:43:4C:00:00:00","ssid":"net","rssi":)" +
                             std::to_string(crowd.client_rssi(0, {home, 0})) + "}]}");
}

}  // namespace
}  // namespace rrm::fleet
