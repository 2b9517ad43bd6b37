#include "server/lib/DomainStatus.h"

#include <gtest/gtest.h>

#include <string>

#include "server/lib/TpcDcaSubworker.h"
#include "tests/support/Engine.h"
#include "tests/support/JsonText.h"

namespace rrm::test {
namespace {

std::string details(Engine& engine) {
  return object_text([&](JsonWriter& object) { engine.worker().get_status(object); });
}

std::string full(Engine& engine) {
  return object_text([&](JsonWriter& object) { engine.worker().get_status_full(object); });
}

constexpr const char* kNoMetrics =
    "\"metrics\":{\"rrm-response-expected\":0,\"rrm-response-count\":0,"
    "\"rrm-mode-response-expected\":0,\"rrm-mode-response-count\":0,"
    "\"rrm-config-changed-expected\":0,\"rrm-config-changed-count\":0,"
    "\"timer-request-modes-expected\":0,\"timer-request-modes-count\":0,"
    "\"timer-request-scan-expected\":0,\"timer-request-scan-count\":0,"
    "\"timer-optimize-expected\":0,\"timer-optimize-count\":0}";

TEST(DomainStatus, OfAnEmptyDomainHoldsEveryMember) {
  Engine engine;
  EXPECT_EQ(details(engine), std::string("{\"details\":{\"name\":\"site\",") + kNoMetrics +
                                 ",\"ap-count\":0,\"unanswered-ap-count\":0,\"deleted-ap-count\":0,"
                                 "\"queue-size\":0,\"rrm-status\":0,\"fbt-status\":0,\"aps\":[],"
                                 "\"unanswered-aps\":[],\"deleted-aps\":[]}}");
  EXPECT_EQ(full(engine), "{\"aps\":[],\"unanswered-aps\":[],\"deleted-aps\":[]}");
}

std::string listed(int n, const std::string& vaps) {
  return "{\"board\":\"KV-810\",\"mac\":\"00:11:22:00:0" + std::to_string(n) +
         ":00\",\"serial\":\"S" + std::to_string(n) +
         "\",\"hw\":\"A\",\"radios\":[{\"id\":0,\"vaps\":[" + vaps +
         "]},{\"id\":1,\"vaps\":[]},{\"id\":2,\"vaps\":[]}]}";
}

TEST(DomainStatus, ListsTheAccessPointsOfTheThreeMaps) {
  DomainConfig config = Engine::quiet_config();
  config.use_80211k = true;
  Engine engine(config);
  engine.subscribe(1, {RadioSpec{.vaps = {{.id = 2, .ssid = "a", .k = true}}}});
  engine.subscribe(2, {RadioSpec{}});
  engine.close_session(102);
  engine.subscribe(3, {RadioSpec{.channel = 0}});
  engine.worker().aps().move_without_active_radio(engine.worker().unanswered_aps(), 3);
  engine.worker().enqueue_message(JsonReader("{}"), Engine::address(9));
  EXPECT_EQ(details(engine),
            std::string("{\"details\":{\"name\":\"site\",") + kNoMetrics +
                ",\"ap-count\":1,\"unanswered-ap-count\":1,\"deleted-ap-count\":1,"
                "\"queue-size\":1,\"rrm-status\":0,\"fbt-status\":0,\"aps\":[" +
                listed(1,
                       "{\"id\":2,\"ssid\":\"a\",\"mac\":\"00:11:22:00:01:02\","
                       "\"mobility-domain\":97,\"use_802dot11k\":1,\"use_802dot11r\":0,"
                       "\"use_802dot11v\":0}") +
                "],\"unanswered-aps\":[" + listed(3, "") + "],\"deleted-aps\":[" + listed(2, "") +
                "]}}");
}

TEST(DomainStatus, CountsEachMapByItself) {
  Engine engine;
  for (int n = 1; n <= 6; ++n) engine.subscribe(n, {RadioSpec{.channel = n <= 3 ? 36 : 0}});
  engine.close_session(104);
  engine.worker().aps().move_without_active_radio(engine.worker().unanswered_aps(), 3);
  const std::string text = details(engine);
  EXPECT_NE(text.find(",\"ap-count\":3,\"unanswered-ap-count\":2,\"deleted-ap-count\":1,"),
            std::string::npos)
      << text;
}

TEST(DomainStatus, ReportsAveragesInMicroseconds) {
  Engine engine;
  engine.subscribe(1, {RadioSpec{}});
  for (const int step_us : {100, 201, 302}) {
    engine.clock().set_wall_step_us(step_us);
    engine.receive("rrm-config-changed", 1, 101, "\"radios\":" + radios_text({RadioSpec{}}));
  }
  // (100 + 201 + 302) / 3
  EXPECT_NE(
      details(engine).find("\"rrm-config-changed-expected\":201,\"rrm-config-changed-count\":3"),
      std::string::npos);
}

TEST(DomainStatus, FullHoldsTheStateOfEveryAccessPoint) {
  Engine engine;
  engine.subscribe(1, {RadioSpec{.channels = "36"}});
  const std::string text = full(engine);
  EXPECT_EQ(text.substr(0, text.find(",\"interfaces\"")),
            "{\"aps\":[{\"mac\":\"00:11:22:00:01:00\",\"active\":0,\"ap-mac-count\":48,"
            "\"use-wildcard-80211r\":0,\"radios\":{\"received\":0");
  EXPECT_NE(text.find("\"visible-members\":[],\"visible-rogue\":[]}],\"unanswered-aps\":[],"
                      "\"deleted-aps\":[]}"),
            std::string::npos);
}

TEST(DomainStateRecord, IsWrittenWithEveryTick) {
  Engine engine;
  ASSERT_TRUE(engine.worker().connect());
  engine.subscribe(1, {RadioSpec{}}, 7);
  engine.subscribe(2, {RadioSpec{}}, 8);
  engine.close_session(8);
  engine.receive("unsubscribe-request", 9, 7, "");
  engine.receive(R"({"service":"rrm-internal", "cmd":"stop-load-balancer"})", 7);
  engine.pass(10);
  EXPECT_TRUE(engine.log().has(
      LogLevel::Debug,
      "Domain site state (0) aps: 1 unanswered_aps: 0 aps_to_delete: 1 queued: 0 "
      "load_balancer_lock: 0 load_balancer_stop: 1 counter: 6\n\tMetrics: subscribe-request 0/2 "
      "unsubscribe-request 0/1\n\trrm-response 0/0 rrm-mode-response 0/0 rrm-config-changed "
      "0/0\n\ttimer-request-modes 0/0 timer-request-scan 0/0 timer-optimize 0/0"));
}

// --- backup

/// An element of a backup as the backup document is built from the status forms.
std::string backup_element(Engine& engine, const std::string& key, int n) {
  JsonReader status(full(engine).c_str());
  std::string text = status.child(key).child(0).c_str();
  text.pop_back();
  return text + ",\"board\":\"KV-810\",\"hw\":\"A\",\"serial\":\"S" + std::to_string(n) + "\"}";
}

std::string plain_element(int n) {
  return "{\"mac\":\"" + ap_mac(n) + "\",\"board\":\"b\",\"hw\":\"h\",\"serial\":\"s\"}";
}

TEST(DomainRestore, BringsAccessPointsBackAsAbsentOnes) {
  std::string element;
  {
    Engine before;
    before.subscribe(1, {RadioSpec{.channel = 44, .power = 13, .bandwidth = 40}}, 0,
                     ",\"ap-mac-count\":50");
    before.ap(1)->visible_rogue[MacAddress::from_text("66:00:00:00:00:01")] = {-60, 36, 5, 20, 10};
    element = backup_element(before, "aps", 1);
  }
  Engine engine;
  engine.worker().load_backup(JsonReader(
      ("{\"name\":\"site\",\"rrm-status\":0,\"fbt-status\":0,\"aps\":[" + element + "]}").c_str()));
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Restore ap '00:11:22:00:01:00' from backup"));
  ASSERT_EQ(engine.worker().aps_to_delete().size(), 1u);
  const auto ap = engine.ap(1);
  EXPECT_EQ(ap->description.serial, "S1");
  EXPECT_EQ(ap->ap_mac_count, 50);
  EXPECT_EQ(ap->countdown, 12);
  EXPECT_EQ(ap->session.id, 0u);
  EXPECT_EQ(ap->radios.find(0)->channel, 44);
  EXPECT_EQ(ap->radios.find(0)->power, 13);
  EXPECT_EQ(ap->visible_rogue.size(), 1u);
  EXPECT_TRUE(engine.worker().aps_to_delete().contains_bssid(ap->base_mac));

  // Its session is new, and nobody's session is dropped for it.
  engine.subscribe(1, {RadioSpec{.channel = 44}}, 7);
  EXPECT_TRUE(engine.rrm().take_drops().empty());
  EXPECT_EQ(engine.worker().aps().size(), 1u);
}

TEST(DomainRestore, ReadsTheThreeArraysAndStopsAtAMissingOne) {
  const std::string all = "\"aps\":[" + plain_element(1) + "],\"unanswered-aps\":[" +
                          plain_element(2) + "],\"deleted-aps\":[" + plain_element(3) + "]";
  {
    Engine engine;
    engine.worker().load_backup(JsonReader(("{" + all + "}").c_str()));
    EXPECT_EQ(engine.worker().aps_to_delete().size(), 3u);
  }
  Engine engine;
  engine.worker().load_backup(JsonReader(
      ("{\"aps\":[" + plain_element(1) + "],\"deleted-aps\":[" + plain_element(3) + "]}").c_str()));
  EXPECT_EQ(engine.worker().aps_to_delete().size(), 1u);
  EXPECT_NE(engine.ap(1), nullptr);
}

TEST(DomainRestore, SkipsElementsWithoutFactoryData) {
  Engine engine;
  engine.worker().load_backup(
      JsonReader(R"({"aps":[null,7,{"mac":"00:11:22:00:01:00","board":"b","hw":"h"},)"
                 R"({"mac":"00:11:22:00:01:00","board":"b","serial":"s"},)"
                 R"({"mac":"00:11:22:00:01:00","hw":"h","serial":"s"},)"
                 R"({"board":"b","hw":"h","serial":"s"}]})"));
  EXPECT_TRUE(engine.worker().aps_to_delete().empty());
  EXPECT_EQ(
      engine.log().count(LogLevel::Debug,
                         "Can't read factory settings from backup for ap '00:11:22:00:01:00'"),
      3u);
  EXPECT_EQ(
      engine.log().count(LogLevel::Debug, "Can't read factory settings from backup for ap ''"), 2u);
}

TEST(DomainRestore, RefusesElementsWithInvalidMacParameters) {
  Engine engine;
  engine.worker().load_backup(JsonReader(
      R"({"aps":[{"mac":"00:11:22:00:01:00","board":"b","hw":"h","serial":"s","ap-mac-count":0}]})"));
  EXPECT_TRUE(engine.worker().aps_to_delete().empty());
  EXPECT_TRUE(engine.log().has(
      LogLevel::Error,
      "Can't restore ap '00:11:22:00:01:00' from backup due to invalid MAC parameters"));
  EXPECT_TRUE(engine.log().has_event(EventCode::AccessPointError, "00:11:22:00:01:00"));
}

struct RestoredState {
  int stored;
  int taken;
};

class RestoredStatus : public testing::TestWithParam<RestoredState> {};

TEST_P(RestoredStatus, IsTakenOverButARunningRoundIsPlannedAnew) {
  Engine engine;
  engine.worker().load_backup(
      JsonReader(("{\"rrm-status\":" + std::to_string(GetParam().stored) + "}").c_str()));
  EXPECT_EQ(engine.state(), GetParam().taken);
}

INSTANTIATE_TEST_SUITE_P(State, RestoredStatus,
                         testing::Values(RestoredState{0, 0}, RestoredState{1, 1},
                                         RestoredState{2, 4}, RestoredState{3, 4},
                                         RestoredState{4, 4}, RestoredState{5, 4},
                                         RestoredState{6, 0}, RestoredState{-1, 0}));

TEST(DomainRestore, WaitsForTheAccessPointsBeforeAnythingIsPlanned) {
  DomainConfig config = Engine::quiet_config();
  config.use_optimization_event = true;
  Engine engine(config);
  ASSERT_TRUE(engine.worker().connect());
  engine.worker().load_backup(JsonReader(
      ("{\"rrm-status\":0,\"fbt-status\":0,\"aps\":[" + plain_element(1) + "]}").c_str()));
  engine.log().clear();
  engine.subscribe(1, {RadioSpec{}});
  // Its return is noted, and nothing else happens.
  EXPECT_EQ(engine.state(), 4);
  EXPECT_TRUE(
      engine.log().has_event(EventCode::PlannerStatus, R"({"location":"site", "status":4})"));
  EXPECT_FALSE(engine.log().has(LogLevel::Debug, "Force optimization dmain site"));
  EXPECT_FALSE(engine.worker().tpc_dca().force_optimization_from_api());
  EXPECT_FALSE(engine.log().has(LogLevel::Debug, "Force optimization from api dmain site"));
  engine.rrm().take();
  engine.pass(119);
  EXPECT_TRUE(engine.rrm().take().empty());
  EXPECT_FALSE(engine.log().has(LogLevel::Debug, "Force optimization dmain site"));
  engine.pass(1);
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Force optimization dmain site"));
  engine.pass(20);
  EXPECT_EQ(engine.state(), 2);

  // Access points that came back during the first round have their part in a second one.
  engine.pass(15);
  engine.receive("rrm-response", 1, 101, "\"radios\":" + radios_text({RadioSpec{}}));
  engine.finish_optimisation();
  EXPECT_EQ(engine.state(), 4);
  engine.pass(20 + 15);
  engine.receive("rrm-response", 1, 101, "\"radios\":" + radios_text({RadioSpec{}}));
  engine.finish_optimisation();
  EXPECT_EQ(engine.state(), 0);
}

TEST(DomainRestore, PlansNothingWhenNothingWasPlannedAndNobodyReturned) {
  DomainConfig config = Engine::quiet_config();
  config.use_optimization_event = true;
  Engine engine(config);
  engine.worker().load_backup(JsonReader(R"({"rrm-status":0})"));
  engine.pass(200);
  EXPECT_EQ(engine.state(), 0);
  EXPECT_FALSE(engine.log().has(LogLevel::Debug, "Force optimization dmain site"));
}

TEST(DomainRestore, KeepsAWishedLinkUpdate) {
  DomainConfig config = Engine::quiet_config();
  config.use_80211r = true;
  Engine engine(config);
  engine.worker().load_backup(JsonReader(R"({"rrm-status":0,"fbt-status":1})"));
  EXPECT_EQ(engine.worker().tpc_dca().fbt_status(), 1);
  engine.worker().tpc_dca().planning_update_802dot11r();
  EXPECT_FALSE(engine.log().has(LogLevel::Debug, "Planning update 802dot11r domain site"));
  engine.pass(120);
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Planning update 802dot11r domain site"));
  EXPECT_EQ(engine.worker().tpc_dca().fbt_status(), 1);
  engine.pass(20);
  EXPECT_EQ(engine.worker().tpc_dca().fbt_status(), 0);
}

TEST(DomainRestore, PlansNoLinkUpdateThatNobodyWished) {
  DomainConfig config = Engine::quiet_config();
  config.use_80211r = true;
  Engine engine(config);
  engine.worker().load_backup(JsonReader(R"({"rrm-status":0,"fbt-status":0})"));
  engine.pass(120);
  EXPECT_FALSE(engine.log().has(LogLevel::Debug, "Planning update 802dot11r domain site"));
  EXPECT_EQ(engine.worker().tpc_dca().fbt_status(), 0);
}

TEST(DomainRestore, NotesALinkUpdateThatIsWishedWhileItWaits) {
  DomainConfig config = Engine::quiet_config();
  config.use_80211r = true;
  Engine engine(config);
  engine.worker().load_backup(JsonReader(R"({"rrm-status":0,"fbt-status":0})"));
  engine.worker().tpc_dca().planning_update_802dot11r();
  EXPECT_EQ(engine.worker().tpc_dca().fbt_status(), 1);
  EXPECT_TRUE(engine.log().texts(LogLevel::Debug).empty());
  engine.pass(120);
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Planning update 802dot11r domain site"));
}

TEST(DomainRestore, OfAnythingButABackupRestoresNothing) {
  for (const char* text : {"null", "[]", "7", "{}", "{\"aps\":7}", "{\"aps\":{}}",
                           "{\"rrm-status\":\"x\",\"fbt-status\":[],\"aps\":[[],{},\"a\"]}"}) {
    Engine engine;
    engine.worker().load_backup(JsonReader(text));
    EXPECT_TRUE(engine.worker().aps_to_delete().empty()) << text;
    EXPECT_EQ(engine.state(), 0) << text;
  }
}

}  // namespace
}  // namespace rrm::test
