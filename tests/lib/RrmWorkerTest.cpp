#include "server/lib/RrmWorker.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "server/lib/Envelope.h"
#include "server/lib/TpcDcaSubworker.h"
#include "tests/support/Engine.h"
#include "tests/support/RadioMembers.h"

namespace rrm::test {
namespace {

using Drops = std::vector<RecordingRrm::Drop>;
using Texts = std::vector<std::string>;

/// The radio part of what access points are told, for RadioSpec's defaults.
std::string told_radio(int id = 0, int channel = 36, int band = 5, int power = 15) {
  return "{\"id\":" + std::to_string(id) + ",\"channel\":" + std::to_string(channel) +
         ",\"band\":" + std::to_string(band) + ",\"power\":" + std::to_string(power) +
         ",\"bandwidth\":20,\"primary-channel\":\"none\",\"tavro-sta-rssi-thr-low\":-75,"
         "\"tavro-sta-rssi-thr-high\":-65,\"tavro-roam-attempt-timeout\":600,"
         "\"tavro-client-rssi-renew\":15,\"tavro-client-max-age\":20,\"tavro-try-no-balance\":2,"
         "\"no-balance-enterprise\":0}";
}

std::string success(const std::string& mac, const std::string& radios) {
  return "{\"service\":\"rrm\",\"version\":\"2.4\",\"cmd\":\"subscribe-response\","
         "\"status\":\"success\",\"domain\":\"site\",\"ap-mac\":\"" +
         mac +
         "\",\"config\":{\"use-tpc\":1,\"use-dca\":1,\"use-load-balance\":0,\"use-80211r\":0,"
         "\"use-80211v\":0,\"radios\":[" +
         radios + "]}}";
}

std::string fail(int code, const std::string& mac) {
  return "{\"service\":\"rrm\",\"version\":\"2.4\",\"cmd\":\"subscribe-response\","
         "\"status\":\"fail\",\"code\":" +
         std::to_string(code) + ",\"ap-mac\":\"" + mac + "\"}";
}

std::string only(const std::vector<RecordingRrm::Sent>& sent) {
  return sent.size() == 1 ? sent.front().text : std::to_string(sent.size()) + " messages";
}

// --- subscription

TEST(RrmWorkerSubscription, AnswersANewAccessPointWithItsSettings) {
  Engine engine;
  engine.subscribe(1, {RadioSpec{}});
  const auto sent = engine.rrm().take();
  EXPECT_EQ(only(sent), success("00:11:22:00:01:00", told_radio()));
  EXPECT_EQ(sent.at(0).session, 101u);
  EXPECT_TRUE(
      engine.log().has(LogLevel::Debug, "process_message subscribe-request for " + ap_mac(1)));
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "NEW subscribe request"));
  EXPECT_TRUE(engine.log().has_event(EventCode::DomainChanged, "site"));
  EXPECT_EQ(engine.worker().aps().size(), 1u);
  EXPECT_TRUE(engine.rrm().take_drops().empty());
}

TEST(RrmWorkerSubscription, GivesAnAccessPointWithoutMacCount48) {
  Engine engine;
  engine.subscribe(1, {RadioSpec{}});
  EXPECT_EQ(engine.ap(1)->ap_mac_count, 48);
  engine.subscribe(2, {RadioSpec{}}, 0, ",\"ap-mac-count\":64");
  EXPECT_EQ(engine.ap(2)->ap_mac_count, 64);
}

TEST(RrmWorkerSubscription, ReadsTheWildcardFlag) {
  Engine engine;
  engine.subscribe(1, {RadioSpec{}});
  EXPECT_FALSE(engine.ap(1)->use_wildcard_80211r);
  engine.subscribe(2, {RadioSpec{}}, 0, ",\"use-wildcard-80211r\":1");
  EXPECT_TRUE(engine.ap(2)->use_wildcard_80211r);
}

TEST(RrmWorkerSubscription, RefusesEveryoneWith404WhenTheServiceIsDisabled) {
  Engine engine;
  engine.global().enabled = false;
  engine.subscribe(1, {RadioSpec{}});
  EXPECT_EQ(only(engine.rrm().take()), fail(404, "00:11:22:00:01:00"));
  EXPECT_EQ(engine.rrm().take_drops(), (Drops{{101, false}}));
  EXPECT_TRUE(engine.worker().aps().empty());
}

TEST(RrmWorkerSubscription, IsRefusedWith404AlsoWhereItsVersionWouldBeRefused) {
  Engine engine;
  engine.global().enabled = false;
  engine.receive(
      "{\"service\":\"rrm\",\"cmd\":\"subscribe-request\",\"version\":\"9.9\",\"ap-mac\":\"" +
          ap_mac(1) + "\"}",
      101);
  EXPECT_EQ(only(engine.rrm().take()), fail(404, "00:11:22:00:01:00"));
}

class SubscribeVersion : public testing::TestWithParam<std::pair<const char*, bool>> {};

TEST_P(SubscribeVersion, IsAnsweredWith503UnlessItIsThisOneOrALowerMinor) {
  Engine engine;
  const auto& [version, accepted] = GetParam();
  engine.receive("{\"service\":\"rrm\",\"cmd\":\"subscribe-request\"," + std::string(version) +
                     "\"ap-mac\":\"" + ap_mac(1) +
                     "\",\"factory\":{\"board\":\"b\",\"hw\":\"h\",\"serial\":\"s\",\"mac\":\"m\"},"
                     "\"radios\":[]}",
                 7);
  if (accepted) {
    EXPECT_EQ(only(engine.rrm().take()), success("00:11:22:00:01:00", ""));
    EXPECT_TRUE(engine.rrm().take_drops().empty());
  } else {
    EXPECT_EQ(only(engine.rrm().take()), fail(503, "00:11:22:00:01:00"));
    EXPECT_EQ(engine.rrm().take_drops(), (Drops{{7, false}}));
  }
  EXPECT_FALSE(engine.log().has(LogLevel::Warning, "Incoming message version failed"));
}

INSTANTIATE_TEST_SUITE_P(Version, SubscribeVersion,
                         testing::Values(std::pair{"\"version\":\"2.4\",", true},
                                         std::pair{"\"version\":\"2.0\",", true},
                                         std::pair{"\"version\":\"2.5\",", false},
                                         std::pair{"\"version\":\"9.9\",", false},
                                         std::pair{"\"version\":\"1.9\",", false},
                                         std::pair{"\"version\":\"2\",", false},
                                         std::pair{"\"version\":24,", false},
                                         std::pair{"", false}));

class SubscribeFactory : public testing::TestWithParam<const char*> {};

TEST_P(SubscribeFactory, IsAnsweredWith503WhenAPartIsMissing) {
  Engine engine;
  engine.receive("subscribe-request", 1, 7, GetParam());
  EXPECT_EQ(only(engine.rrm().take()), fail(503, "00:11:22:00:01:00"));
  EXPECT_EQ(engine.rrm().take_drops(), (Drops{{7, false}}));
}

INSTANTIATE_TEST_SUITE_P(
    Factory, SubscribeFactory,
    testing::Values("", R"("factory":null)", R"("factory":[])", R"("factory":"x")",
                    R"("factory":{"board":"b","hw":"h","serial":"s"})",
                    R"("factory":{"board":"b","hw":"h","serial":"s","mac":""})",
                    R"("factory":{"board":"b","hw":"h","serial":7,"mac":"m"})",
                    R"("factory":{"board":"","hw":"h","serial":"s","mac":"m"})",
                    R"("factory":{"board":"b","hw":null,"serial":"s","mac":"m"})"));

TEST(RrmWorkerSubscription, OfASessionThatHasClosedIsDropped) {
  Engine engine;
  engine.rrm().close(101);
  engine.subscribe(1, {RadioSpec{}});
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Subscribe request of closed session 101 dropped"));
  EXPECT_TRUE(engine.rrm().take().empty());
  EXPECT_TRUE(engine.worker().aps().empty());
}

TEST(RrmWorkerSubscription, FromANewSessionDropsTheOldOneWithForce) {
  Engine engine;
  engine.subscribe(1, {RadioSpec{}}, 7);
  engine.rrm().take();
  engine.subscribe(1, {RadioSpec{}}, 8);
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "To exists subscribe request"));
  EXPECT_EQ(engine.rrm().take_drops(), (Drops{{7, true}}));
  EXPECT_EQ(only(engine.rrm().take()), success("00:11:22:00:01:00", told_radio()));
  EXPECT_EQ(engine.ap(1)->session.id, 8u);
  EXPECT_EQ(engine.worker().aps().size(), 1u);
}

TEST(RrmWorkerSubscription, FromTheSameSessionDropsNothing) {
  Engine engine;
  engine.subscribe(1, {RadioSpec{}}, 7);
  engine.subscribe(1, {RadioSpec{}}, 7);
  EXPECT_TRUE(engine.rrm().take_drops().empty());
}

TEST(RrmWorkerSubscription, OfAKnownAccessPointIsIndexedAnew) {
  Engine engine;
  engine.subscribe(1, {RadioSpec{}});
  engine.subscribe(1, {RadioSpec{}, RadioSpec{.id = 2}});
  EXPECT_TRUE(engine.worker().aps().contains_bssid(MacAddress::from_text("00:11:22:00:01:20")));
}

TEST(RrmWorkerSubscription, FindsAnAccessPointByAnyOfItsMacs) {
  Engine engine;
  engine.subscribe(1, {RadioSpec{.id = 1}});
  // Radio 1 has the base MAC + 16.
  engine.receive(
      "{\"service\":\"rrm\",\"cmd\":\"subscribe-request\",\"version\":\"2.4\","
      "\"ap-mac\":\"00:11:22:00:01:10\",\"factory\":{\"board\":\"b\",\"hw\":\"h\","
      "\"serial\":\"s\",\"mac\":\"m\"},\"radios\":" +
          radios_text({RadioSpec{.id = 1}}) + "}",
      101);
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "To exists subscribe request"));
  EXPECT_EQ(engine.worker().aps().size(), 1u);
}

// --- MAC parameters

struct MacCase {
  const char* name;
  const char* count;    ///< "ap-mac-count" member
  const char* radio0;   ///< members of radio 0
  const char* radio1;   ///< members of radio 1; null for no such radio
  const char* warning;  ///< null when accepted
};

class MacParameters : public testing::TestWithParam<MacCase> {};

TEST_P(MacParameters, AreCheckedAtSubscription) {
  Engine engine;
  const MacCase& test = GetParam();
  std::vector<RadioSpec> radios = {RadioSpec{.extra = test.radio0}};
  if (test.radio1 != nullptr) radios.push_back(RadioSpec{.id = 1, .extra = test.radio1});
  engine.subscribe(1, radios, 7, test.count);
  if (test.warning == nullptr) {
    EXPECT_EQ(engine.log().texts(LogLevel::Warning), Texts{});
    EXPECT_EQ(engine.worker().aps().size(), 1u);
    return;
  }
  EXPECT_TRUE(engine.log().has(LogLevel::Warning, test.warning))
      << testing::PrintToString(engine.log().texts(LogLevel::Warning));
  EXPECT_TRUE(engine.log().has(LogLevel::Error,
                               "Send subscribe-response 'fail' due to invalid MAC parameters"));
  EXPECT_TRUE(engine.log().has_event(EventCode::AccessPointError, "00:11:22:00:01:00"));
  EXPECT_EQ(only(engine.rrm().take()), fail(400, "00:11:22:00:01:00"));
  EXPECT_EQ(engine.rrm().take_drops(), (Drops{{7, false}}));
  EXPECT_TRUE(engine.worker().aps().empty());
}

constexpr const char* kWholePool = ",\"mac-offset\":0,\"radio-mac-count\":48";
INSTANTIATE_TEST_SUITE_P(
    Case, MacParameters,
    testing::Values(
        MacCase{"PoolOfTheWholeAccessPointPasses", "", kWholePool, nullptr, nullptr},
        MacCase{"OneMoreFails", "", ",\"mac-offset\":0,\"radio-mac-count\":49", nullptr,
                "Invalid one or more radio MAC parameters:  radio-mac-count(49), mac-offset(0), "
                "ap-mac-count(48)"},
        MacCase{"OffsetMinusOne", "", ",\"mac-offset\":-1,\"radio-mac-count\":4", nullptr,
                "Invalid one or more radio MAC parameters:  radio-mac-count(4), mac-offset(-1), "
                "ap-mac-count(48)"},
        MacCase{"CountZero", "", ",\"mac-offset\":0,\"radio-mac-count\":0", nullptr,
                "Invalid one or more radio MAC parameters:  radio-mac-count(0), mac-offset(0), "
                "ap-mac-count(48)"},
        MacCase{"SumBeyond32Bits", ",\"ap-mac-count\":2147483647",
                ",\"mac-offset\":2147483647,\"radio-mac-count\":2147483647", nullptr,
                "Invalid one or more radio MAC parameters:  radio-mac-count(2147483647), "
                "mac-offset(2147483647), ap-mac-count(2147483647)"},
        MacCase{"NoMacs", ",\"ap-mac-count\":0", "", nullptr, "Invalid ap-mac-count(0)"},
        MacCase{"Overlap", "", ",\"mac-offset\":0,\"radio-mac-count\":17", "",
                "MAC ranges overlapped: radio0 00:11:22:00:01:00 max_mac_count=17, radio1 "
                "00:11:22:00:01:10"},
        MacCase{"OneMacIsEnoughForOneRadio", ",\"ap-mac-count\":1",
                ",\"mac-offset\":0,\"radio-mac-count\":1", nullptr, nullptr},
        MacCase{"SameAddress", "", ",\"mac-offset\":4,\"radio-mac-count\":4",
                ",\"mac-offset\":4,\"radio-mac-count\":4",
                "MAC ranges overlapped: radio0 00:11:22:00:01:04 max_mac_count=4, radio1 "
                "00:11:22:00:01:04"},
        MacCase{"NeighbouringPoolsPass", "", "", "", nullptr}),
    [](const auto& test) { return test.param.name; });

TEST(RrmWorkerMacParameters, OfDisabledRadiosAreNotChecked) {
  Engine engine;
  engine.subscribe(1, {RadioSpec{.status = 0, .extra = ",\"mac-offset\":-1"}});
  EXPECT_EQ(engine.worker().aps().size(), 1u);
}

TEST(RrmWorkerMacParameters, KeepBeingCheckedAfterAViolation) {
  Engine engine;
  engine.subscribe(1, {RadioSpec{.extra = ",\"radio-mac-count\":0,\"mac-offset\":0"},
                       RadioSpec{.id = 1, .extra = ",\"radio-mac-count\":0,\"mac-offset\":16"}});
  EXPECT_EQ(engine.log().texts(LogLevel::Warning).size(), 2u);
}

TEST(RrmWorkerSubscription, OfAnAccessPointWhoseSessionIsMarkedLostDropsNoSession) {
  Engine engine;
  engine.subscribe(1, {RadioSpec{}}, 7);
  engine.ap(1)->session_lost = true;
  EXPECT_TRUE(engine.worker().ap_sessions().empty());
  engine.subscribe(1, {RadioSpec{}}, 8);
  EXPECT_TRUE(engine.rrm().take_drops().empty());
  EXPECT_FALSE(engine.ap(1)->session_lost);
}

TEST(RrmWorkerSubscription, WeighsTheRadiosOfANewAccessPointThatCanTakePart) {
  DomainConfig config = Engine::quiet_config();
  config.use_80211v = true;
  config.use_balance = true;
  Engine engine(config);
  engine.subscribe(1, {RadioSpec{}});
  EXPECT_EQ(engine.ap(1)->radios.find(0)->load_level, 255u);
  engine.subscribe(2, {RadioSpec{.channel = 0}});
  EXPECT_EQ(engine.ap(2)->radios.find(0)->load_level, 0u);
}

TEST(RrmWorkerSubscription, SendsTheKeysOfTheAccessPointBehindTheAnswer) {
  DomainConfig config = Engine::quiet_config();
  config.use_80211r = true;
  Engine engine(config);
  engine.subscribe(1, {RadioSpec{.vaps = {{.r = true}}}});
  const auto sent = engine.rrm().take();
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_STREQ(JsonReader(sent[0].text.c_str()).get_str("cmd"), "subscribe-response");
  EXPECT_STREQ(JsonReader(sent[1].text.c_str()).get_str("cmd"), "fbt-info");
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "site"));
}

TEST(RrmWorkerSubscription, BringsTheNeighbourListThatItsRadiosTakePartIn) {
  struct Case {
    bool use_80211v;
    bool use_80211k;
    int locked_80211v;
    const char* list;
  };
  // The list for 802.11v names the radios, the one for 802.11k alone does not.
  for (const Case& c :
       {Case{true, true, 0, R"("802dot11k":[{"id":0}])"}, Case{true, true, 1, R"("802dot11k":[])"},
        Case{false, true, 0, R"("802dot11k":[])"}, Case{true, false, 1, ""},
        Case{false, false, 0, ""}}) {
    DomainConfig config = Engine::quiet_config();
    config.use_80211v = c.use_80211v;
    config.use_80211k = c.use_80211k;
    Engine engine(config);
    engine.subscribe(
        1, {RadioSpec{.vaps = {{.k = true, .v = true}}, .locked_80211v = c.locked_80211v}});
    const std::string text = only(engine.rrm().take());
    const std::size_t list = text.find(",\"802dot11k\"");
    EXPECT_EQ(list == std::string::npos ? "" : text.substr(list + 1),
              std::string(c.list) + (*c.list != '\0' ? "}}" : ""));
  }
}

TEST(RrmWorkerSubscription, OfAnUnansweredAccessPointIsIndexedAnew) {
  Engine engine;
  engine.subscribe(1, {RadioSpec{}});
  engine.worker().aps().move_all(engine.worker().unanswered_aps());
  engine.subscribe(1, {RadioSpec{}, RadioSpec{.id = 2}});
  EXPECT_TRUE(
      engine.worker().unanswered_aps().contains_bssid(MacAddress::from_text("00:11:22:00:01:20")));
}

// --- envelope

TEST(RrmWorkerMessages, ThatAreInvalidAreReportedAndDropped) {
  Engine engine;
  engine.receive(R"({"service":"rrm","cmd":"rrm-response","version":"2.4","ap-mac":""})", 7);
  engine.receive(kPingSessionDocument, 7);
  engine.receive(R"([])", 7);
  EXPECT_EQ(engine.log().count(LogLevel::Warning, "Incoming message validation failed"), 3u);
  EXPECT_TRUE(engine.log().has_event(EventCode::MessageInvalid, ""));
}

TEST(RrmWorkerMessages, OfAnAccessPointCannotStopTheDomain) {
  Engine engine;
  engine.receive(kStopDocument, 7);
  EXPECT_FALSE(engine.worker().is_stopped());
  EXPECT_TRUE(engine.log().has(LogLevel::Warning, "Incoming message validation failed"));
}

TEST(RrmWorkerMessages, AreRecordedWithTheirAddressAsItWasWritten) {
  Engine engine;
  for (const std::string mac : {"0a:1B:2c:3D:4e:5F", "no address"}) {
    engine.receive(
        R"({"service":"rrm","cmd":"rrm-sta-roam","version":"2.4","ap-mac":")" + mac + "\"}", 7);
    EXPECT_TRUE(engine.log().has(LogLevel::Debug, "process_message rrm-sta-roam for " + mac));
  }
}

TEST(RrmWorkerMessages, OfAnotherVersionAreReportedAndDropped) {
  Engine engine;
  engine.subscribe(1, {RadioSpec{}});
  engine.receive(R"({"service":"rrm","cmd":"unsubscribe-request","version":"2.5","ap-mac":")" +
                     ap_mac(1) + "\"}",
                 101);
  EXPECT_TRUE(engine.log().has(LogLevel::Warning, "Incoming message version failed"));
  EXPECT_TRUE(engine.log().has_event(EventCode::VersionIncompatible, ""));
  EXPECT_EQ(engine.worker().aps().size(), 1u);
}

TEST(RrmWorkerMessages, WhoseHandlerThrowsAreLoggedAndTheWorkerGoesOn) {
  Engine engine;
  engine.receive("rrm-response", 1, 7, "");
  EXPECT_TRUE(engine.log().has(LogLevel::Error,
                               "Exception at processing message on worker 'site': AP not found"));
  EXPECT_TRUE(engine.log().has_event(EventCode::MessageHandlerThrew, "AP not found"));
  engine.subscribe(1, {RadioSpec{}}, 7);
  engine.receive("rrm-mode-response", 1, 8, "");
  EXPECT_TRUE(engine.log().has(
      LogLevel::Error, "Exception at processing message on worker 'site': invalid session"));
  engine.receive("rrm-config-changed", 1, 8, "");
  EXPECT_TRUE(engine.log().has(
      LogLevel::Error, "Exception at processing message on worker 'site': invalid exist session"));
  EXPECT_EQ(engine.worker().aps().size(), 1u);
}

// --- leaving

TEST(RrmWorkerUnsubscription, FromItsSessionErasesTheAccessPointAndItsIndex) {
  Engine engine;
  engine.subscribe(1, {RadioSpec{}});
  engine.rrm().take();
  engine.log().clear();
  engine.receive("unsubscribe-request", 1, 101, "");
  EXPECT_TRUE(engine.worker().aps().empty());
  EXPECT_FALSE(engine.worker().aps().contains_bssid(MacAddress::from_text(ap_mac(1).c_str())));
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Not event optimization dmain site"));
  EXPECT_TRUE(engine.rrm().take().empty());
}

TEST(RrmWorkerUnsubscription, FromAnotherSessionErasesOnlyTheMapNode) {
  Engine engine;
  engine.subscribe(1, {RadioSpec{}});
  engine.log().clear();
  engine.receive("unsubscribe-request", 1, 8, "");
  EXPECT_TRUE(engine.worker().aps().empty());
  EXPECT_TRUE(engine.worker().aps().contains_bssid(MacAddress::from_text(ap_mac(1).c_str())));
  EXPECT_FALSE(engine.log().has(LogLevel::Debug, "Not event optimization dmain site"));
}

TEST(RrmWorkerUnsubscription, OfAParkedAccessPointNeedsItsSession) {
  Engine engine;
  engine.subscribe(1, {RadioSpec{}});
  engine.worker().aps().move_all(engine.worker().unanswered_aps());
  engine.receive("unsubscribe-request", 1, 8, "");
  EXPECT_EQ(engine.worker().unanswered_aps().size(), 1u);
  engine.receive("unsubscribe-request", 1, 101, "");
  EXPECT_TRUE(engine.worker().unanswered_aps().empty());
}

TEST(RrmWorkerSessionLoss, ParksTheAccessPointsOfTheSession) {
  Engine engine;
  engine.subscribe(1, {RadioSpec{}}, 7);
  engine.subscribe(2, {RadioSpec{}}, 7);
  engine.subscribe(3, {RadioSpec{}}, 8);
  engine.log().clear();
  engine.close_session(7);
  EXPECT_EQ(engine.worker().aps().size(), 1u);
  EXPECT_EQ(engine.worker().aps_to_delete().size(), 2u);
  EXPECT_EQ(engine.ap(1)->countdown, 12);  // 120 s in ticks of 10 s
  EXPECT_TRUE(engine.ap(1)->session_lost);
  EXPECT_TRUE(engine.log().has_event(EventCode::DomainChanged, "site"));
  EXPECT_FALSE(engine.worker().is_stopped());
}

TEST(RrmWorkerSessionLoss, ErasesTheSessionsUnansweredAccessPointsAndEndsAnEmptyDomain) {
  Engine engine;
  engine.subscribe(1, {RadioSpec{}}, 7);
  engine.worker().aps().move_all(engine.worker().unanswered_aps());
  engine.close_session(7);
  EXPECT_TRUE(engine.worker().unanswered_aps().empty());
  EXPECT_TRUE(engine.worker().aps_to_delete().empty());
  EXPECT_TRUE(engine.worker().is_stopped());
}

TEST(RrmWorkerSessionLoss, DoesNotEndADomainThatHasMessagesWaiting) {
  Engine engine;
  engine.subscribe(1, {RadioSpec{}}, 7);
  engine.worker().aps().move_all(engine.worker().unanswered_aps());
  engine.worker().enqueue_message(JsonReader("{}"), Engine::address(9));
  engine.close_session(7);
  EXPECT_FALSE(engine.worker().is_stopped());
}

TEST(RrmWorkerSessionLoss, IsUndoneByAResubscription) {
  Engine engine;
  engine.subscribe(1, {RadioSpec{}}, 7);
  engine.close_session(7);
  engine.rrm().take();
  engine.log().clear();
  engine.subscribe(1, {RadioSpec{}}, 8);
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "To delete subscribe request, scan state 0"));
  EXPECT_TRUE(engine.rrm().take_drops().empty());
  EXPECT_EQ(only(engine.rrm().take()), success("00:11:22:00:01:00", told_radio()));
  EXPECT_EQ(engine.worker().aps().size(), 1u);
  EXPECT_TRUE(engine.worker().aps_to_delete().empty());
  EXPECT_FALSE(engine.ap(1)->session_lost);
  EXPECT_TRUE(engine.worker().aps().contains_bssid(MacAddress::from_text(ap_mac(1).c_str())));
  EXPECT_TRUE(engine.log().has_event(EventCode::DomainChanged, "site"));
}

TEST(RrmWorkerSessionLoss, RaisesOneEventForAnAccessPointThatReturnsUnchangedDuringAScan) {
  DomainConfig config = Engine::quiet_config();
  config.use_optimization_event = true;
  Engine engine(config);
  engine.subscribe(1, {RadioSpec{}}, 7);
  engine.subscribe(2, {RadioSpec{}}, 8);
  engine.close_session(7);
  engine.pass(20);
  ASSERT_EQ(engine.state(), 2);
  engine.log().clear();
  engine.subscribe(1, {RadioSpec{}}, 9);
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Not-equivalent or force (1) subscribe request"));
  using Event = std::pair<EventCode, std::string>;
  EXPECT_EQ(engine.log().events(),
            (std::vector<Event>{
                {EventCode::PlannerStatus, R"({"location":"site", "status":4})"},  // planned anew
                {EventCode::DomainChanged, "site"}}));                             // it is back
}

TEST(RrmWorkerSubscription, OfAnUnansweredAccessPointLeavesItParked) {
  Engine engine;
  engine.subscribe(1, {RadioSpec{}}, 7);
  engine.worker().aps().move_all(engine.worker().unanswered_aps());
  engine.rrm().take();
  engine.subscribe(1, {RadioSpec{}}, 8);
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "To unanswered subscribe request"));
  EXPECT_EQ(engine.rrm().take_drops(), (Drops{{7, true}}));
  EXPECT_EQ(only(engine.rrm().take()), success("00:11:22:00:01:00", told_radio()));
  EXPECT_EQ(engine.worker().unanswered_aps().size(), 1u);
  EXPECT_TRUE(engine.worker().aps().empty());
}

// --- changed settings

std::string info(const std::string& mac, const std::string& radios) {
  return "{\"service\":\"rrm\",\"version\":\"2.4\",\"cmd\":\"rrm-info\",\"ap-mac\":\"" + mac +
         "\",\"config\":{\"use-tpc\":1,\"use-dca\":1,\"use-load-balance\":0,\"use-80211v\":0,"
         "\"radios\":[" +
         radios + "]}}";
}

TEST(RrmWorkerConfigChanged, IsAnsweredWithTheSettingsInForce) {
  Engine engine;
  engine.subscribe(1, {RadioSpec{}});
  engine.rrm().take();
  // DCA and TPC manage the radio: the channel is taken from the message, the power is not.
  engine.receive("rrm-config-changed", 1, 101,
                 "\"radios\":" + radios_text({RadioSpec{.channel = 40, .power = 11}}));
  const auto sent = engine.rrm().take();
  EXPECT_EQ(only(sent), info("00:11:22:00:01:00", told_radio(0, 40)));
  EXPECT_EQ(sent.at(0).session, 101u);
  EXPECT_FALSE(engine.log().has(LogLevel::Debug, "Not-equivalent or force (0) subscribe request"));
}

TEST(RrmWorkerConfigChanged, WithOtherSettingsForgetsTheNeighboursAndPlans) {
  Engine engine;
  engine.subscribe(1, {RadioSpec{}});
  engine.ap(1)->visible_rogue[MacAddress::from_text(client_mac(1).c_str())] = {};
  engine.ap(1)->visible_members[MacAddress::from_text(client_mac(2).c_str())] = {};
  engine.log().clear();
  engine.receive("rrm-config-changed", 1, 101,
                 "\"radios\":" + radios_text({RadioSpec{.channels = "36,40"}}));
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Not-equivalent or force (0) subscribe request"));
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Not event optimization dmain site"));
  EXPECT_TRUE(engine.log().has_event(EventCode::DomainChanged, "site"));
  EXPECT_TRUE(engine.ap(1)->visible_rogue.empty());
  EXPECT_TRUE(engine.ap(1)->visible_members.empty());
}

TEST(RrmWorkerConfigChanged, WithOtherSettingsIsAChangeOfTheDomain) {
  DomainConfig config = Engine::quiet_config();
  config.use_optimization_event = true;  // a round that is planned says nothing of the domain
  Engine engine(config);
  engine.subscribe(1, {RadioSpec{}});
  for (const std::string channels : {"36,40", "36,40", "36"}) {
    const bool same =
        engine.ap(1)->radios.find(0)->available_channels.size() == 2 && channels == "36,40";
    engine.log().clear();
    engine.receive("rrm-config-changed", 1, 101,
                   "\"radios\":" + radios_text({RadioSpec{.channels = channels}}));
    EXPECT_EQ(engine.log().has_event(EventCode::DomainChanged, "site"), !same) << channels;
  }
}

TEST(RrmWorkerConfigChanged, IndexesTheAccessPointAnew) {
  Engine engine;
  engine.subscribe(1, {RadioSpec{}});
  engine.receive("rrm-config-changed", 1, 101,
                 "\"radios\":" + radios_text({RadioSpec{}, RadioSpec{.id = 2}}));
  EXPECT_TRUE(engine.worker().aps().contains_bssid(MacAddress::from_text("00:11:22:00:01:20")));
}

TEST(RrmWorkerConfigChanged, OfPowerLimitsAloneFitsThePowerAndPlansNoRound) {
  Engine engine;
  engine.subscribe(1, {RadioSpec{}});
  engine.ap(1)->visible_rogue[MacAddress::from_text(client_mac(1).c_str())] = {};
  engine.rrm().take();
  engine.log().clear();
  const auto report = [&](const std::string& members) {
    engine.receive("rrm-config-changed", 1, 101,
                   "\"radios\":[{\"id\":0,\"status\":1,\"channel\":36,\"band\":5,\"power\":15,"
                   "\"power-max\":12,\"power-min\":5," +
                       members + "}]");
  };
  report(R"("bandwidth":20,"available-channels":"36,40,44,48")");
  EXPECT_TRUE(engine.log().has(
      LogLevel::Debug,
      "00:11:22:00:01:00: Power/eirp adjusted to new limits: power 15 -> 12, eirp -1 -> -1 (power "
      "min/max 5/12, eirp min/max -1/-1)"));
  EXPECT_EQ(only(engine.rrm().take()), info("00:11:22:00:01:00", told_radio(0, 36, 5, 12)));
  EXPECT_FALSE(engine.log().has(LogLevel::Debug, "Not-equivalent or force (0) subscribe request"));
  EXPECT_TRUE(engine.log().events().empty());
  EXPECT_EQ(engine.ap(1)->visible_rogue.size(), 1u);
  report(R"("bandwidth":40,"available-channels":"36,40,44,48")");  // any other setting does
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Not-equivalent or force (0) subscribe request"));
}

TEST(RrmWorkerConfigChanged, ReachesParkedAccessPoints) {
  Engine engine;
  engine.subscribe(1, {RadioSpec{}});
  engine.worker().aps().move_all(engine.worker().unanswered_aps());
  engine.rrm().take();
  engine.receive("rrm-config-changed", 1, 101, "\"radios\":" + radios_text({RadioSpec{}}));
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "To unanswered rrm change request"));
  EXPECT_EQ(only(engine.rrm().take()), info("00:11:22:00:01:00", told_radio()));
  engine.receive("rrm-config-changed", 1, 101,
                 "\"radios\":" + radios_text({RadioSpec{}, RadioSpec{.id = 2}}));
  const MacAddress added = MacAddress::from_text("00:11:22:00:01:20");
  EXPECT_TRUE(engine.worker().unanswered_aps().contains_bssid(added));
  EXPECT_FALSE(engine.worker().aps().contains_bssid(added));
}

TEST(RrmWorkerConfigChanged, FromADeletedAccessPointNeedsItsSession) {
  Engine engine;
  engine.subscribe(1, {RadioSpec{}});
  engine.close_session(101);
  engine.rrm().take();
  engine.receive("rrm-config-changed", 1, 101, "\"radios\":" + radios_text({RadioSpec{}}));
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "To deleted rrm change request"));
  EXPECT_TRUE(engine.rrm().take().empty());
}

TEST(RrmWorkerConfigChanged, OfAnUnknownAccessPointIsIgnored) {
  Engine engine;
  engine.receive("rrm-config-changed", 1, 101, "\"radios\":" + radios_text({RadioSpec{}}));
  EXPECT_TRUE(engine.rrm().take().empty());
  EXPECT_TRUE(engine.log().texts(LogLevel::Error).empty());
  EXPECT_EQ(engine.log().texts(LogLevel::Debug),
            Texts{"process_message rrm-config-changed for " + ap_mac(1)});
}

TEST(RrmWorkerConfigChanged, LogsWhatItMeansForRoamingLists) {
  DomainConfig config = Engine::quiet_config();
  config.use_80211k = true;
  config.use_80211r = true;
  Engine engine(config);
  engine.subscribe(1, {RadioSpec{.vaps = {{.k = true}}}});
  engine.log().clear();
  engine.receive(
      "rrm-config-changed", 1, 101,
      "\"radios\":" + radios_text({RadioSpec{.vaps = {{.k = true}, {.id = 1, .ssid = "lab"}}}}));
  EXPECT_TRUE(engine.log().has(LogLevel::Info, "process_exists_ap update_802dot11k 1 (1/0)"));
  EXPECT_TRUE(engine.log().has(LogLevel::Info, "process_exists_ap update_802dot11r 0"));
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Update  domain site"));
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Planning update 802dot11k domain site"));
}

TEST(RrmWorkerConfigChanged, ToANetworkThatTakesPartInRoamingUpdatesTheLists) {
  for (const bool v : {false, true}) {
    DomainConfig config = Engine::quiet_config();
    config.use_80211k = !v;
    config.use_80211v = v;
    Engine engine(config);
    const RadioSpec before{.vaps = {{}}, .locked_80211v = 0};
    const RadioSpec after{.vaps = {{.k = !v, .v = v}}, .locked_80211v = 0};
    const auto change_to = [&](const RadioSpec& radio) {
      engine.log().clear();
      engine.receive("rrm-config-changed", 1, 101, "\"radios\":" + radios_text({radio}));
    };
    const char* planned = v ? "process_exists_ap update_802dot11kv 1 (1/0/0)"
                            : "process_exists_ap update_802dot11k 1 (1/0)";
    engine.subscribe(1, {before});
    change_to(after);
    EXPECT_TRUE(engine.log().has(LogLevel::Info, planned));
    // What takes no part any more needs no list.
    change_to(before);
    EXPECT_TRUE(engine.log().texts(LogLevel::Info).empty());
  }
}

TEST(RrmWorkerConfigChanged, SaysNothingOfLinksWithout80211r) {
  Engine engine;
  engine.subscribe(1, {RadioSpec{}});
  engine.receive("rrm-config-changed", 1, 101,
                 "\"radios\":" + radios_text({RadioSpec{.channel = 40}}));
  EXPECT_TRUE(engine.log().texts(LogLevel::Info).empty());
  EXPECT_FALSE(engine.log().has(LogLevel::Debug, "NOT Planning update 802dot11r domain site"));
}

TEST(RrmWorkerConfigChanged, OfAChannelThatTheAccessPointChoosesIsAChangeOfTheDomain) {
  DomainConfig config = Engine::quiet_config();
  config.use_80211k = true;
  config.use_80211r = true;
  Engine engine(config);
  const std::string lock = ",\"locked-for-dca\":1";
  engine.subscribe(1, {RadioSpec{.vaps = {{.k = true}}, .extra = lock}});
  engine.log().clear();
  engine.receive("rrm-config-changed", 1, 101,
                 "\"radios\":" +
                     radios_text({RadioSpec{.channel = 40, .vaps = {{.k = true}}, .extra = lock}}));
  EXPECT_TRUE(engine.log().has(LogLevel::Info, "process_exists_ap update_802dot11k 1 (0/1)"));
  EXPECT_TRUE(engine.log().has(LogLevel::Info, "process_exists_ap update_802dot11r 1"));
  EXPECT_TRUE(engine.log().has_event(EventCode::DomainChanged, "site"));
  EXPECT_FALSE(engine.log().has(LogLevel::Debug, "Not-equivalent or force (0) subscribe request"));
}

TEST(RrmWorkerConfigChanged, ThatChangesNothingPlansNothing) {
  DomainConfig config = Engine::quiet_config();
  config.use_80211k = true;
  config.use_80211r = true;
  Engine engine(config);
  // With a key of its own, so that the links need no new one.
  const RadioSpec radio{
      .vaps = {{.k = true, .r = true, .extra = R"(,"fbt-rrb-key":"abcdefghijklmnop")"}}};
  engine.subscribe(1, {radio});
  engine.log().clear();
  engine.receive("rrm-config-changed", 1, 101, "\"radios\":" + radios_text({radio}));
  EXPECT_EQ(engine.log().texts(LogLevel::Info), (Texts{"process_exists_ap update_802dot11k 0 (1/1)",
                                                       "process_exists_ap update_802dot11r 0"}));
  EXPECT_FALSE(engine.log().has(LogLevel::Debug, "Update  domain site"));
  EXPECT_FALSE(engine.log().has(LogLevel::Debug, "Planning update 802dot11r domain site"));
  EXPECT_TRUE(engine.log().events().empty());
}

TEST(RrmWorkerConfigChanged, IsWeighedForWhatTheDomainUsesOnly) {
  struct Case {
    bool use_80211k;
    Texts records;
  };
  const std::string links = "process_exists_ap update_802dot11r 0";
  for (const Case& c :
       {Case{false, {links}}, Case{true, {"process_exists_ap update_802dot11k 0 (1/1)", links}}}) {
    DomainConfig config = Engine::quiet_config();
    config.use_80211k = c.use_80211k;
    config.use_80211r = true;
    Engine engine(config);
    const RadioSpec radio{.vaps = {{.k = true, .v = true}}, .locked_80211v = 0};
    engine.subscribe(1, {radio});
    engine.receive("rrm-config-changed", 1, 101, "\"radios\":" + radios_text({radio}));
    EXPECT_EQ(engine.log().texts(LogLevel::Info), c.records);
  }
}

TEST(RrmWorkerSubscription, WithAnotherWildcardFlagUpdatesTheLinks) {
  DomainConfig config = Engine::quiet_config();
  config.use_80211r = true;
  Engine engine(config);
  engine.subscribe(1, {RadioSpec{}});
  for (const int flag : {1, 1, 0}) {
    const bool changed = engine.ap(1)->use_wildcard_80211r != (flag != 0);
    engine.log().clear();
    engine.subscribe(1, {RadioSpec{}}, 0, ",\"use-wildcard-80211r\":" + std::to_string(flag));
    EXPECT_EQ(engine.ap(1)->use_wildcard_80211r, flag != 0);
    EXPECT_TRUE(engine.log().has(LogLevel::Info,
                                 "process_exists_ap update_802dot11r " + std::to_string(changed)));
  }
  // A change of settings says nothing of the flag.
  engine.ap(1)->use_wildcard_80211r = true;
  engine.receive("rrm-config-changed", 1, 101, "\"radios\":" + radios_text({RadioSpec{}}));
  EXPECT_TRUE(engine.ap(1)->use_wildcard_80211r);
}

TEST(RrmWorkerConfigChanged, OfTheLoadUpdatesTheListsAndMarksTheRadios) {
  DomainConfig config = Engine::quiet_config();
  config.use_80211v = true;
  config.use_balance = true;
  Engine engine(config);
  const RadioSpec radio{.vaps = {{.v = true}}, .locked_80211v = 0};
  engine.subscribe(1, {radio});
  Radio& known = *engine.ap(1)->radios.find(0);
  known.changed = false;
  const auto report = [&] {
    engine.log().clear();
    engine.receive("rrm-config-changed", 1, 101, "\"radios\":" + radios_text({radio}));
  };
  report();
  EXPECT_TRUE(engine.log().has(LogLevel::Info, "process_exists_ap update_802dot11kv 0 (1/1/0)"));
  EXPECT_FALSE(known.changed);
  known.load_level = 7;
  report();
  EXPECT_TRUE(engine.log().has(LogLevel::Info, "process_exists_ap update_802dot11kv 1 (1/1/1)"));
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Planning 802.11v optimization (timer restarted)"));
  EXPECT_TRUE(known.changed);
}

TEST(RrmWorkerConfigChanged, OfChannelOrVapsUpdatesThe80211vLists) {
  DomainConfig config = Engine::quiet_config();
  config.use_80211v = true;
  Engine engine(config);
  const auto describe = [](int channel, const std::string& ssid) {
    return std::vector<RadioSpec>{{.channel = channel,
                                   .vaps = {{.ssid = ssid, .v = true}},
                                   .locked_80211v = 0,
                                   .extra = ",\"locked-for-dca\":1"}};
  };
  engine.subscribe(1, describe(36, "office"));
  const auto report = [&](int channel, const std::string& ssid) {
    engine.log().clear();
    engine.receive("rrm-config-changed", 1, 101,
                   "\"radios\":" + radios_text(describe(channel, ssid)));
    return engine.log().has(LogLevel::Debug, "Planning 802.11v optimization (timer restarted)");
  };
  EXPECT_FALSE(report(36, "office"));
  EXPECT_TRUE(engine.log().has(LogLevel::Info, "process_exists_ap update_802dot11kv 0 (1/1/0)"));
  EXPECT_TRUE(report(40, "office"));
  EXPECT_TRUE(engine.log().has(LogLevel::Info, "process_exists_ap update_802dot11kv 1 (0/1/0)"));
  EXPECT_TRUE(report(40, "lab"));
  EXPECT_TRUE(engine.log().has(LogLevel::Info, "process_exists_ap update_802dot11kv 1 (1/0/0)"));
}

TEST(RrmWorkerConfigChanged, ThatBringsRoamingSupportIsWeighedByTheNewRadios) {
  struct Case {
    bool DomainConfig::*option;
    VapSpec vap;
    const char* record;
  };
  for (const Case& c : {Case{&DomainConfig::use_80211v, {.v = true}, "update_802dot11kv 1 (1/0/0)"},
                        Case{&DomainConfig::use_80211k, {.k = true}, "update_802dot11k 1 (1/0)"}}) {
    DomainConfig config = Engine::quiet_config();
    config.*c.option = true;
    Engine engine(config);
    engine.subscribe(1, {RadioSpec{.locked_80211v = 0}});
    const RadioSpec supporting{.vaps = {c.vap}, .locked_80211v = 0};
    engine.receive("rrm-config-changed", 1, 101, "\"radios\":" + radios_text({supporting}));
    EXPECT_TRUE(engine.log().has(LogLevel::Info, std::string("process_exists_ap ") + c.record));
    // Nobody asks for lists on behalf of radios that no longer support them.
    engine.log().clear();
    engine.receive("rrm-config-changed", 1, 101,
                   "\"radios\":" + radios_text({RadioSpec{.locked_80211v = 0}}));
    EXPECT_TRUE(engine.log().texts(LogLevel::Info).empty());
  }
}

// --- events of clients

struct BalancerRoute {
  const char* name;
  bool balance;
  bool v;
  int locked_balancer;
  int locked_80211v;
  const char* handled;  ///< the record of the one that gets an association; null: dropped
};

class BalancerRoutes : public testing::TestWithParam<BalancerRoute> {};

TEST_P(BalancerRoutes, LeadAnAssociationToOneOfThem) {
  const BalancerRoute& test = GetParam();
  DomainConfig config = Engine::quiet_config();
  config.use_balance = test.balance;
  config.use_80211v = test.v;
  Engine engine(config);
  std::vector<RadioSpec> radios;
  for (int id = 0; id < 3; ++id)
    radios.push_back({.id = id,
                      .vaps = {{.v = true}},
                      .locked_balancer = test.locked_balancer,
                      .locked_80211v = test.locked_80211v});
  engine.subscribe(1, radios);
  engine.log().clear();
  engine.receive("rrm-client-assoc", 1, 101,
                 R"("radio":0,"rssi":-50,"sta-mac":"02:aa:00:00:00:01","ssid":"office")");
  Texts associations;
  for (const std::string& text : engine.log().texts(LogLevel::Debug))
    if (text.starts_with("Assocc client")) associations.push_back(text);
  EXPECT_EQ(associations, test.handled != nullptr ? Texts{test.handled} : Texts{});
}

constexpr const char* kByTheBalancer =
    "Assocc client 02:aa:00:00:00:01 rssi -50 radio_id 0 ssid office no_balance 0 send_ack 0 "
    "lock_balancer 0 (ap 00:11:22:00:01:00)";
constexpr const char* kBy80211v =
    "Assocc client 02:aa:00:00:00:01 rssi -50 radio_id 0 ssid office (ap 00:11:22:00:01:00)";

INSTANTIATE_TEST_SUITE_P(
    Of, BalancerRoutes,
    testing::Values(BalancerRoute{"BothGoesToTheProbeBalancer", true, true, 0, 0, kByTheBalancer},
                    BalancerRoute{"LockedRadiosGoesTo80211v", true, true, 1, 0, kBy80211v},
                    BalancerRoute{"NoBalancingGoesTo80211v", false, true, 0, 0, kBy80211v},
                    BalancerRoute{"No80211vGoesToTheProbeBalancer", true, false, 0, 0,
                                  kByTheBalancer},
                    BalancerRoute{"LockedForBothIsDropped", true, true, 1, 1, nullptr},
                    BalancerRoute{"NeitherIsDropped", false, false, 0, 0, nullptr}),
    [](const auto& test) { return test.param.name; });

TEST(RrmWorkerBalancerCmd, OfAParkedAccessPointIsHandled) {
  DomainConfig config = Engine::quiet_config();
  config.use_80211v = true;
  Engine engine(config);
  engine.subscribe(1, {RadioSpec{.vaps = {{.v = true}}, .locked_80211v = 0}});
  engine.worker().aps().move_all(engine.worker().unanswered_aps());
  engine.receive("rrm-client-assoc", 1, 101,
                 R"("radio":0,"rssi":-50,"sta-mac":"02:aa:00:00:00:01","ssid":"office")");
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "To unanswered rrm balancer cmd"));
  EXPECT_TRUE(engine.log().has(LogLevel::Debug,
                               "process_message balancer rrm-client-assoc for 00:11:22:00:01:00"));
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, kBy80211v));
}

TEST(RrmWorkerBalancerCmd, OfAnAccessPointWithoutA80211vVapIsDropped) {
  DomainConfig config = Engine::quiet_config();
  config.use_80211v = true;
  Engine engine(config);
  engine.subscribe(1, {RadioSpec{.vaps = {{.k = true, .v = false}}, .locked_80211v = 0}});
  engine.receive("rrm-client-assoc", 1, 101,
                 R"("radio":0,"rssi":-50,"sta-mac":"02:aa:00:00:00:01","ssid":"office")");
  EXPECT_FALSE(engine.log().has(LogLevel::Debug, kBy80211v));
  EXPECT_TRUE(engine.ap(1)->radios.find(0)->assoc_clients.associated().empty());
}

// --- ageing

TEST(RrmWorkerTick, ErasesAccessPointsThatStayAwayAndEndsTheDomain) {
  Engine engine;
  ASSERT_TRUE(engine.worker().connect());
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Start worker site"));
  engine.subscribe(1, {RadioSpec{}}, 7);
  engine.close_session(7);
  engine.pass(119);
  EXPECT_EQ(engine.worker().aps_to_delete().size(), 1u);
  EXPECT_FALSE(engine.worker().is_stopped());
  engine.log().clear();
  engine.pass(1);
  EXPECT_TRUE(engine.worker().aps_to_delete().empty());
  EXPECT_TRUE(engine.log().has_event(EventCode::DomainChanged, "site"));
  EXPECT_TRUE(engine.worker().is_stopped());
}

TEST(RrmWorkerTick, PlansAnewWhenTheLastAbsentAccessPointIsForgotten) {
  Engine engine;
  ASSERT_TRUE(engine.worker().connect());
  engine.subscribe(1, {RadioSpec{}}, 7);
  engine.subscribe(2, {RadioSpec{}}, 8);
  engine.close_session(7);
  engine.log().clear();
  engine.pass(120);
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Not event optimization dmain site"));
  EXPECT_FALSE(engine.worker().is_stopped());
}

TEST(RrmWorkerTick, PlansNothingWhileOthersAreAbsent) {
  Engine engine;
  ASSERT_TRUE(engine.worker().connect());
  for (int n = 1; n <= 3; ++n) engine.subscribe(n, {RadioSpec{}});
  engine.close_session(101);
  engine.pass(50);
  engine.close_session(102);
  engine.log().clear();
  engine.pass(70);
  EXPECT_EQ(engine.worker().aps_to_delete().size(), 1u);
  EXPECT_TRUE(engine.log().has_event(EventCode::DomainChanged, "site"));
  EXPECT_FALSE(engine.log().has(LogLevel::Debug, "Not event optimization dmain site"));
}

TEST(RrmWorkerTick, PlansNothingForParkedAccessPointsAlone) {
  Engine engine;
  ASSERT_TRUE(engine.worker().connect());
  engine.subscribe(1, {RadioSpec{}});
  engine.subscribe(2, {RadioSpec{}});
  engine.close_session(101);
  engine.worker().aps().move_all(engine.worker().unanswered_aps());
  engine.log().clear();
  engine.pass(120);
  EXPECT_TRUE(engine.worker().aps_to_delete().empty());
  EXPECT_FALSE(engine.log().has(LogLevel::Debug, "Not event optimization dmain site"));
  EXPECT_FALSE(engine.worker().is_stopped());
}

TEST(RrmWorkerTick, ForgettingTheLastAbsentAccessPointLeavesARunningScanAlone) {
  DomainConfig config = Engine::quiet_config();
  config.use_optimization_event = true;
  config.away_timeout = 10;
  config.planning_delay = 5;
  config.scan_wait = 100;
  Engine engine(config);
  ASSERT_TRUE(engine.worker().connect());
  engine.subscribe(1, {RadioSpec{}});
  engine.subscribe(2, {RadioSpec{}});
  engine.pass(5);
  ASSERT_EQ(engine.state(), 2);
  engine.close_session(102);
  engine.pass(5);
  EXPECT_TRUE(engine.worker().aps_to_delete().empty());
  EXPECT_EQ(engine.state(), 2);
}

TEST(RrmWorkerTick, ForgettingTheLastAbsentAccessPointMarksTheRadiosOfTheOthers) {
  for (const bool use_80211v : {false, true}) {
    DomainConfig config = Engine::quiet_config();
    config.use_80211v = use_80211v;
    Engine engine(config);
    ASSERT_TRUE(engine.worker().connect());
    engine.subscribe(1, {RadioSpec{}});
    engine.subscribe(2, {RadioSpec{}});
    engine.close_session(102);
    for (Radio& radio : engine.ap(1)->radios.radios) radio.changed = false;
    engine.pass(120);
    for (const Radio& radio : engine.ap(1)->radios.radios) EXPECT_EQ(radio.changed, use_80211v);
  }
}

TEST(RrmWorkerTick, OfNoSecondsCountsAsOne) {
  DomainConfig config = Engine::quiet_config();
  config.tick_period = 0;
  Engine engine(config);
  EXPECT_EQ(engine.worker().away_ticks(), 120);
  ASSERT_TRUE(engine.worker().connect());
  engine.pass(1);
  EXPECT_TRUE(engine.worker().is_stopped());
}

TEST(RrmWorkerBalancerTick, RunsWithEitherOptionAndForgetsClientsThatWereExpected) {
  for (const int options : {0, 1, 2, 3}) {
    DomainConfig config = Engine::quiet_config();
    config.use_balance = (options & 1) != 0;
    config.use_80211v = (options & 2) != 0;
    Engine engine(config);
    engine.subscribe(1, {RadioSpec{}});
    AssocMap& clients = engine.ap(1)->radios.find(0)->assoc_clients;
    const MacAddress client = MacAddress::from_text(client_mac(1).c_str());
    clients.expect_client(client, client, 0, 2);
    engine.pass(1);
    EXPECT_EQ(clients.expected().size(), 1u);
    engine.pass(1);
    EXPECT_EQ(clients.expected().size(), options == 0 ? 1u : 0u) << options;
  }
}

TEST(RrmWorkerBalancerTick, PlansTheListsOfARadioWhoseLoadChangedWithoutRestartingTheirTimer) {
  DomainConfig config = Engine::quiet_config();
  config.use_80211v = true;
  config.use_balance = true;
  Engine engine(config);
  engine.subscribe(1, {RadioSpec{.vaps = {{.v = true}}, .locked_80211v = 0}});
  engine.pass(1);
  engine.log().clear();
  engine.pass(1);
  EXPECT_TRUE(engine.log().texts(LogLevel::Info).empty());
  engine.ap(1)->radios.find(0)->load_level = 7;
  engine.pass(1);
  EXPECT_EQ(engine.ap(1)->radios.find(0)->load_level, 255u);
  EXPECT_TRUE(
      engine.log().has(LogLevel::Debug, "Planning 802.11v optimization (without timer restart)"));
  EXPECT_FALSE(
      engine.log().has(LogLevel::Debug, "Planning 802.11v optimization (timer restarted)"));
}

TEST(RrmWorkerTick, EndsADomainThatNeverGotAnAccessPoint) {
  Engine engine;
  ASSERT_TRUE(engine.worker().connect());
  engine.pass(9);
  EXPECT_FALSE(engine.worker().is_stopped());
  engine.pass(1);
  EXPECT_TRUE(engine.worker().is_stopped());
}

TEST(RrmWorkerTick, StopsWithTheWorker) {
  Engine engine;
  ASSERT_TRUE(engine.worker().connect());
  engine.worker().disconnect();
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Stop worker site"));
  engine.pass(20);
  EXPECT_FALSE(engine.worker().is_stopped());
}

TEST(RrmWorkerSubWorkers, RunTheirTimersUntilTheWorkerStops) {
  Engine engine;
  engine.subscribe(1, {RadioSpec{}});
  const MacAddress client = MacAddress::from_text(client_mac(1).c_str());
  RadioBlacklist& blacklist = engine.ap(1)->radios.find(0)->blacklist;
  blacklist.block(client, 90);
  const std::string record = "Skip optimize_clients (use_80211v=0 use_balance=0)";
  engine.pass(60);
  EXPECT_EQ(blacklist.members.at(client), 30);
  EXPECT_EQ(engine.log().count(LogLevel::Debug, record), 1u);
  engine.worker().disconnect();
  engine.pass(60);
  EXPECT_EQ(blacklist.members.at(client), 30);
  EXPECT_EQ(engine.log().count(LogLevel::Debug, record), 1u);
}

TEST(RrmWorkerLoadBalancerPause, LastsSixTicksOfTenSeconds) {
  Engine engine;
  ASSERT_TRUE(engine.worker().connect());
  engine.subscribe(1, {RadioSpec{}});
  engine.receive(kStopLoadBalancerDocument, 101);
  EXPECT_TRUE(engine.worker().load_balancer_stop());
  EXPECT_EQ(engine.worker().counter(), 6);
  engine.pass(59);
  EXPECT_TRUE(engine.worker().load_balancer_stop());
  EXPECT_EQ(engine.worker().counter(), 1);
  engine.pass(1);
  EXPECT_FALSE(engine.worker().load_balancer_stop());
  EXPECT_EQ(engine.worker().counter(), 0);
}

// --- outgoing

TEST(RrmWorkerBroadcastBuffer, KeepsTheOrderUntilItIsFlushed) {
  Engine engine;
  engine.worker().broadcast_buffer_add("one", Engine::address(7));
  engine.worker().broadcast_buffer_add(std::string("two"), Engine::address(8));
  engine.worker().broadcast_buffer_add(nullptr, Engine::address(8));
  EXPECT_TRUE(engine.log().has(LogLevel::Error, "broadcast_buffer_add msg null"));
  EXPECT_TRUE(engine.log().has_event(EventCode::BroadcastBufferFailed, ""));
  EXPECT_TRUE(engine.rrm().take().empty());
  engine.worker().broadcast_buffer_flush();
  EXPECT_EQ(engine.rrm().take(), (std::vector<RecordingRrm::Sent>{{7, "one"}, {8, "two"}}));
  engine.worker().broadcast_buffer_flush();
  EXPECT_TRUE(engine.rrm().take().empty());
}

TEST(RrmWorkerSessions, AreThoseOfAllAccessPointsThatHaveOne) {
  Engine engine;
  engine.subscribe(1, {RadioSpec{}}, 7);
  engine.subscribe(2, {RadioSpec{}}, 8);
  engine.close_session(8);
  const auto sessions = engine.worker().ap_sessions();
  ASSERT_EQ(sessions.size(), 1u);
  EXPECT_EQ(sessions[0].address.id, 7u);
  EXPECT_EQ(sessions[0].mac.lower().str(), ap_mac(1));
}

// --- its thread

/// Polls until the condition holds, for at most about thirty seconds.
template <class Condition>
bool eventually(Condition condition) {
  for (int i = 0; i < 30000; ++i) {
    if (condition()) return true;
    ::usleep(1000);
  }
  return false;
}

TEST(RrmWorkerThread, LeadsARoundWhileOthersLookOn) {
  DomainConfig config;
  config.use_rrm_report = false;
  config.use_80211v = true;
  config.planning_delay = 1;
  config.scan_wait = 1;
  Engine engine(config);
  const auto worker = engine.shared_worker();
  const auto enqueue = [&](const std::string& cmd, const std::string& members) {
    worker->enqueue_message(
        JsonReader(("{\"service\":\"rrm\",\"cmd\":\"" + cmd +
                    "\",\"version\":\"2.4\",\"ap-mac\":\"" + ap_mac(1) + "\"," + members + "}")
                       .c_str()),
        Engine::address(7));
  };
  const auto state = [&] { return worker->run_locked([&] { return engine.state(); }); };
  const std::string radios = "\"radios\":" + radios_text({RadioSpec{.vaps = {{.r = true}}}});
  worker->start();
  enqueue("subscribe-request",
          R"("factory":{"board":"b","hw":"h","serial":"s","mac":"m"},)" + radios);
  ASSERT_TRUE(eventually([&] { return state() == 4; }));
  engine.clock().advance(1);
  ASSERT_TRUE(eventually([&] { return state() == 2; }));
  engine.clock().advance(1);
  ASSERT_TRUE(eventually([&] { return state() == 3; }));
  EXPECT_FALSE(worker->run_locked([&] { return worker->force_optimization(); }));
  enqueue("rrm-response", radios);
  ASSERT_TRUE(eventually([&] {
    engine.clock().advance(1);
    return engine.log().has(LogLevel::Debug, "Optimization on domain site finished");
  }));
  JsonWriter status;
  worker->run_locked([&] { worker->get_status(status); });
  EXPECT_NE(status.str().find("\"ap-count\":1"), std::string::npos);
  worker->stop();
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Stop worker site"));
  EXPECT_GE(engine.rrm().take("rrm-info").size(), 1u);
}

// --- hostile input

TEST(RrmWorkerHostileInput, OfEveryKindInEveryFieldLeavesTheWorkerWhole) {
  const Texts values = {"null",  "true", "-1", "99999999999999999999", "1.5e300",    "\"\"",
                        "\"x\"", "[]",   "{}", "[[],[{}],null,\"a\"]", "{\"a\":[1]}"};
  const Texts members = {"ap-mac-count", "use-wildcard-80211r",
                         "radios",       "factory",
                         "vaps",         "rf-environment",
                         "radio",        "rssi",
                         "sta-mac",      "ssid",
                         "state",        "no-balance",
                         "need-ack",     "target-mac",
                         "cmd",          "version",
                         "domain",       "service",
                         "ap-mac"};
  DomainConfig config;
  config.use_80211v = true;
  config.use_rrm_report = false;
  Engine engine(config);
  engine.subscribe(1, {RadioSpec{.vaps = {{.k = true, .r = true, .v = true}}}});
  for (const char* cmd :
       {"subscribe-request", "rrm-config-changed", "rrm-mode-response", "rrm-response",
        "rrm-sta-roam", "rrm-assoc-state-changed", "rrm-client-disassoc", "rrm-client-assoc",
        "rrm-probe-response", "rrm-disassoc-all-clients"}) {
    for (const std::string& value : values) {
      for (const std::string& member : members) {
        engine.receive(cmd, 1, 101, "\"" + member + "\":" + value);
      }
      for (const std::string field : test::kRadioMembers) {
        engine.receive(
            cmd, 1, 101,
            "\"radios\":[{\"id\":0,\"status\":1,\"channel\":36,\"" + field + "\":" + value + "}]");
        engine.receive(cmd, 1, 101,
                       "\"factory\":{\"board\":\"b\",\"hw\":\"h\",\"serial\":\"s\",\"mac\":\"m\"},"
                       "\"radios\":[{\"id\":0,\"status\":1,\"channel\":36,\"" +
                           field + "\":" + value + "}]");
      }
    }
  }
  engine.pass(30);
  engine.subscribe(2, {RadioSpec{}});
  EXPECT_NE(engine.ap(2), nullptr);
}

TEST(RrmWorkerHostileInput, FromUnknownAccessPointsIsDropped) {
  DomainConfig config = Engine::quiet_config();
  config.use_balance = true;
  Engine engine(config);
  for (const char* cmd : {"rrm-sta-roam", "rrm-assoc-state-changed", "rrm-client-disassoc",
                          "rrm-client-assoc", "rrm-probe-response", "rrm-disassoc-all-clients",
                          "unsubscribe-request", "rrm-config-changed"}) {
    engine.receive(cmd, 9, 7, "\"radio\":0,\"sta-mac\":\"02:00:00:00:00:01\",\"ssid\":\"office\"");
  }
  EXPECT_TRUE(engine.rrm().take().empty());
  EXPECT_TRUE(engine.log().texts(LogLevel::Error).empty());
}

}  // namespace
}  // namespace rrm::test
