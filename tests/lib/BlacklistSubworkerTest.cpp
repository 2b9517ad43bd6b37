#include "server/lib/BlacklistSubworker.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "server/lib/LoadBalancerSubworker.h"
#include "tests/support/Balancing.h"
#include "tests/support/JsonText.h"

namespace rrm::test {
namespace {

using Texts = std::vector<std::string>;

const MacAddress kClient = MacAddress::from_text("02:aa:00:00:00:07");

RadioBlacklist& blacklist_of(Engine& engine, int ap, int id = 0) {
  return radio_of(engine, ap, id).blacklist;
}

/// Makes the client known to an access point as a client of its radio 0.
void hold(Engine& engine, int ap, int rssi, bool no_balance = false) {
  radio_of(engine, ap).assoc_clients.add_client(kClient, rssi, "office", no_balance, false);
}

void state_changed(Engine& engine, int ap, int rssi, const std::string& state = "stable") {
  engine.receive("rrm-assoc-state-changed", ap, static_cast<std::uint32_t>(ap + 100),
                 "\"sta-mac\":\"02:aa:00:00:00:07\",\"ssid\":\"office\",\"state\":\"" + state +
                     "\",\"rssi\":" + std::to_string(rssi) + ",\"radio\":0");
}

void block_on(Engine& engine, std::initializer_list<int> aps) {
  for (const int n : aps) blacklist_of(engine, n).block(kClient, 30);
}

bool blocked(Engine& engine, int ap, int id = 0) {
  return blacklist_of(engine, ap, id).members.contains(kClient);
}

std::string blacklist_message(int ap, const std::string& items) {
  return "{\"service\":\"rrm\",\"version\":\"2.4\",\"cmd\":\"rrm-blacklist\",\"radios\":[{\"id\":0,"
         "\"blacklist\":[" +
         items + "]}],\"ap-mac\":\"00:11:22:00:0" + std::to_string(ap) +
         ":00\",\"domain\":\"site\"}";
}

constexpr const char* kBlock = R"({"mac":"02:AA:00:00:00:07","action":"block","timeout":30})";
constexpr const char* kUnblock = R"({"mac":"02:AA:00:00:00:07","action":"unblock"})";

// --- one radio

TEST(RadioBlacklist, BlocksOnceAndOnlyStartsTheTimeAnew) {
  RadioBlacklist list;
  list.block(kClient, 30);
  EXPECT_EQ(list.members.at(kClient), 30);
  EXPECT_EQ(list.changes.at(kClient).action, RadioBlacklist::Action::Block);
  EXPECT_EQ(list.changes.at(kClient).timeout, 30);
  list.changes.clear();
  list.tick();
  list.block(kClient, 30);
  EXPECT_EQ(list.members.at(kClient), 30);
  EXPECT_TRUE(list.changes.empty());
}

TEST(RadioBlacklist, UnblocksMembersOnly) {
  RadioBlacklist list;
  list.unblock(kClient);
  EXPECT_TRUE(list.changes.empty());
  list.block(kClient, 30);
  list.unblock(kClient);
  EXPECT_TRUE(list.members.empty());
  EXPECT_EQ(list.changes.at(kClient).action, RadioBlacklist::Action::Unblock);
  list.block(kClient, 20);
  EXPECT_EQ(list.changes.at(kClient).action, RadioBlacklist::Action::Block);
  EXPECT_EQ(list.changes.at(kClient).timeout, 20);
}

TEST(RadioBlacklist, KicksWithAnSsidAndEndsThatWithoutAnUnblock) {
  RadioBlacklist list;
  list.kick(kClient, 2, "");
  EXPECT_TRUE(list.members.empty());
  list.kick(kClient, 2, "office");
  EXPECT_TRUE(list.changes.empty());
  EXPECT_EQ(list.kicked.at(kClient).ssid, "office");
  list.tick();
  list.kick(kClient, 2, "office");
  EXPECT_EQ(list.members.at(kClient), 2);
  list.tick();
  EXPECT_TRUE(list.kicked.contains(kClient));
  list.tick();
  EXPECT_TRUE(list.members.empty());
  EXPECT_TRUE(list.kicked.empty());
  EXPECT_TRUE(list.changes.empty());
}

TEST(RadioBlacklist, DoesNotKickABlockedClient) {
  RadioBlacklist list;
  list.block(kClient, 10);
  list.kick(kClient, 30, "office");
  EXPECT_EQ(list.members.at(kClient), 30);
  EXPECT_TRUE(list.kicked.empty());
}

TEST(RadioBlacklist, ForgetsSilently) {
  RadioBlacklist list;
  list.block(kClient, 10);
  list.forget(kClient);
  EXPECT_TRUE(list.members.empty());
  EXPECT_TRUE(list.changes.empty());
  list.kick(kClient, 10, "office");
  list.forget(kClient);
  EXPECT_TRUE(list.kicked.empty());
}

TEST(RadioBlacklist, IsBounded) {
  RadioBlacklist list;
  for (std::uint32_t i = 0; i < RadioBlacklist::kMaxMembers; ++i) {
    list.block(MacAddress::from_text("02:bb:00:00:00:00").plus(i), 10);
  }
  list.block(kClient, 10);
  EXPECT_EQ(list.members.size(), RadioBlacklist::kMaxMembers);
  EXPECT_EQ(list.changes.size(), RadioBlacklist::kMaxMembers);
  const MacAddress member = MacAddress::from_text("02:bb:00:00:00:00");
  list.block(member, 20);
  EXPECT_EQ(list.members.at(member), 20);
}

TEST(RadioBlacklist, HasAStatusForm) {
  RadioBlacklist list;
  list.block(kClient, 30);
  const auto status = [&] {
    return object_text([&](JsonWriter& object) { list.to_json(object); });
  };
  EXPECT_EQ(status(), R"({"members":[{"mac":"02:AA:00:00:00:07","counter":30}],)"
                      R"("changes":[{"mac":"02:AA:00:00:00:07","action":"block"}]})");
  list.unblock(kClient);
  EXPECT_EQ(status(),
            R"({"members":[],"changes":[{"mac":"02:AA:00:00:00:07","action":"unblock"}]})");
}

// --- messages and their expiry

TEST(Blacklist, SendsABlockOnceAndItsEndOnce) {
  Engine engine(balance_config());
  engine.subscribe(1, {balanced_radio()});
  engine.rrm().take();
  block_on(engine, {1});
  engine.pass(1);
  EXPECT_EQ(engine.rrm().take("rrm-blacklist"), (Texts{blacklist_message(1, kBlock)}));
  engine.pass(28);
  EXPECT_TRUE(engine.rrm().take("rrm-blacklist").empty());
  // The 30th tick.
  engine.pass(1);
  EXPECT_EQ(engine.rrm().take("rrm-blacklist"), (Texts{blacklist_message(1, kUnblock)}));
  engine.pass(60);
  EXPECT_TRUE(engine.rrm().take("rrm-blacklist").empty());
}

TEST(Blacklist, ListsAKickedClientInOneRequest) {
  Engine engine(balance_config());
  engine.subscribe(1, {balanced_radio()});
  engine.rrm().take();
  engine.worker().blacklist().disconnect_pass(kClient, radio_of(engine, 1), "office");
  EXPECT_EQ(blacklist_of(engine, 1).members.at(kClient), 30);
  engine.pass(1);
  const auto sent = engine.rrm().take();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].text,
            "{\"service\":\"rrm\",\"version\":\"2.4\",\"cmd\":\"rrm-disassoc-request\",\"ap-mac\":"
            "\"00:11:22:00:01:00\",\"domain\":\"site\",\"radios\":[{\"id\":0,\"diassoc-list\":["
            "{\"mac\":\"02:AA:00:00:00:07\",\"ssid\":\"office\",\"timeout\":30}]}]}");
  EXPECT_EQ(sent[0].session, 101u);
  engine.pass(60);
  EXPECT_TRUE(engine.rrm().take().empty());
  EXPECT_FALSE(blocked(engine, 1));
}

TEST(Blacklist, ListsNobodyAgainWithTheNextKickedClient) {
  Engine engine(balance_config());
  engine.subscribe(1, {balanced_radio()});
  BlacklistSubworker& blacklist = engine.worker().blacklist();
  blacklist.disconnect_pass(kClient, radio_of(engine, 1), "office");
  engine.pass(1);
  engine.rrm().take();
  blacklist.disconnect_pass(kClient.twin(), radio_of(engine, 1), "office");
  engine.pass(1);
  const auto sent = engine.rrm().take("rrm-disassoc-request");
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_NE(sent[0].find("\"diassoc-list\":[{\"mac\":\"00:AA:00:00:00:07\",\"ssid\":\"office\","
                         "\"timeout\":30}]"),
            std::string::npos)
      << sent[0];
}

TEST(Blacklist, NeitherSendsNorAgesWhileBalancingIsPaused) {
  for (const bool round : {true, false}) {
    Engine engine(balance_config());
    ASSERT_TRUE(engine.worker().connect());
    engine.subscribe(1, {balanced_radio()});
    block_on(engine, {1});
    engine.rrm().take();
    if (round) {
      engine.worker().set_load_balancer_lock(true);
    } else {
      engine.receive(R"({"service":"rrm-internal", "cmd":"stop-load-balancer"})", 101);
    }
    engine.pass(59);
    EXPECT_TRUE(engine.rrm().take().empty());
    EXPECT_EQ(blacklist_of(engine, 1).members.at(kClient), 30);
    engine.worker().set_load_balancer_lock(false);
    engine.pass(2);
    EXPECT_EQ(engine.rrm().take("rrm-blacklist").size(), 1u);
  }
}

TEST(Blacklist, AgesEveryExpectedClientOncePerSecondAlsoOfParkedAccessPoints) {
  for (const char* where : {"aps", "unanswered", "deleted"}) {
    Engine engine(balance_config());
    engine.subscribe(1, {balanced_radio()});
    RrmWorker& worker = engine.worker();
    if (*where == 'u') worker.aps().move_all(worker.unanswered_aps());
    if (*where == 'd') {
      engine.ap(1)->countdown = 100;
      worker.aps().move_all(worker.aps_to_delete());
    }
    worker.set_load_balancer_lock(*where != 'a');
    AssocMap& clients = radio_of(engine, 1).assoc_clients;
    clients.expect_client(kClient, {}, 0, 5);
    engine.pass(4);
    EXPECT_EQ(clients.count(), 1u);
    engine.pass(1);
    EXPECT_EQ(clients.count(), 0u);
  }
}

// --- block pass

TEST(BlockPass, BlocksEverywhereElseAndUnblocksThere) {
  Engine engine(balance_config());
  engine.subscribe(1, {balanced_radio(0), balanced_radio(1)});
  engine.subscribe(2, {balanced_radio(0), balanced_radio(1, "lab")});
  engine.subscribe(3, {RadioSpec{.vaps = {{}}}});  // locked for the balancer
  auto& blacklist = engine.worker().blacklist();
  blacklist.block_pass(kClient, *engine.ap(1), "office", 0, true);
  EXPECT_FALSE(blocked(engine, 1, 0));
  EXPECT_TRUE(blocked(engine, 1, 1));
  EXPECT_TRUE(blocked(engine, 2, 0));
  EXPECT_FALSE(blocked(engine, 2, 1));
  EXPECT_FALSE(blocked(engine, 3, 0));
  blacklist.block_pass(kClient, *engine.ap(1), "office", 0, false);
  EXPECT_FALSE(blocked(engine, 1, 1));
  EXPECT_FALSE(blocked(engine, 2, 0));
}

TEST(BlockPass, LeavesARadioAloneThatTheClientIsOn) {
  Engine engine(balance_config());
  engine.subscribe(1, {balanced_radio()});
  engine.subscribe(2, {balanced_radio()});
  hold(engine, 2, -60);
  engine.worker().blacklist().block_pass(kClient, *engine.ap(1), "office", 0, true);
  EXPECT_FALSE(blocked(engine, 2));
}

TEST(BlockPass, NeverTouchesRadioThreeOrDisabledRadios) {
  Engine engine(balance_config());
  engine.subscribe(1, {balanced_radio()});
  engine.subscribe(2, {balanced_radio(0), balanced_radio(1)});
  radio_of(engine, 2, 1).status = false;
  radio_of(engine, 2, 0).id = 3;
  engine.worker().blacklist().block_pass(kClient, *engine.ap(1), "office", 0, true);
  EXPECT_FALSE(blocked(engine, 2, 3));
  EXPECT_FALSE(blocked(engine, 2, 1));
  blacklist_of(engine, 2, 3).block(kClient, 30);
  engine.worker().blacklist().block_pass(kClient, *engine.ap(1), "office", 0, false);
  EXPECT_TRUE(blocked(engine, 2, 3));
}

/// A domain without balancing that reads VAPs all the same.
DomainConfig unbalanced_config() {
  DomainConfig config = Engine::quiet_config();
  config.use_80211k = true;
  return config;
}

TEST(BlockPass, NeedsBalancing) {
  Engine engine(unbalanced_config());
  engine.subscribe(1, {balanced_radio()});
  engine.subscribe(2, {balanced_radio()});
  engine.worker().blacklist().block_pass(kClient, *engine.ap(1), "office", 0, true);
  EXPECT_FALSE(blocked(engine, 2));
}

// --- state changes

TEST(StateChange, IsLoggedAsReported) {
  Engine engine(balance_config());
  engine.subscribe(1, {balanced_radio()});
  state_changed(engine, 1, -70);
  EXPECT_TRUE(engine.log().has(
      LogLevel::Debug,
      "Assocc state change client 02:aa:00:00:00:07 rssi -70 state stable radio_id 0 ssid office "
      "(ap 00:11:22:00:01:00) lock_balancer 0"));
}

TEST(StateChange, ThatCrossesTheLowThresholdUnblocksAndOffersTheClient) {
  Engine engine(balance_config());
  engine.subscribe(1, {balanced_radio()});
  engine.subscribe(2, {balanced_radio()});
  hold(engine, 1, -60);
  block_on(engine, {2});
  engine.rrm().take();
  state_changed(engine, 1, -75);
  EXPECT_FALSE(blocked(engine, 2));
  EXPECT_EQ(engine.rrm().take("rrm-probe-request").size(), 2u);
  const ProbeEntry* entry = engine.worker().load_balancer().pending().find(kClient);
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->ssid, "office");
  EXPECT_EQ(entry->countdown, 5u);
  EXPECT_EQ(entry->mac, engine.ap(1)->base_mac);
  EXPECT_EQ(radio_of(engine, 1).assoc_clients.find(kClient)->dbm_signal, -75);
}

TEST(StateChange, ThatCrossesTheLowThresholdTellsNobodyWhoDidNotBlock) {
  Engine engine(balance_config());
  engine.subscribe(1, {balanced_radio()});
  engine.subscribe(2, {balanced_radio()});
  hold(engine, 1, -60);
  engine.rrm().take();
  state_changed(engine, 1, -75);
  engine.pass(1);
  EXPECT_TRUE(engine.rrm().take("rrm-blacklist").empty());
}

TEST(StateChange, AboveTheLowThresholdBlocksAndUnblocksNobody) {
  Engine engine(balance_config());
  engine.subscribe(1, {balanced_radio()});
  engine.subscribe(2, {balanced_radio()});
  hold(engine, 1, -60);
  block_on(engine, {2});
  engine.rrm().take();
  state_changed(engine, 1, -74);
  state_changed(engine, 1, -50);
  EXPECT_TRUE(blocked(engine, 2));
  EXPECT_TRUE(engine.rrm().take().empty());
}

TEST(StateChange, OfAClientThatStaysWeakOffersItWithoutUnblocking) {
  for (const int previous : {-80, -75, 0}) {
    Engine engine(balance_config());
    engine.subscribe(1, {balanced_radio()});
    engine.subscribe(2, {balanced_radio()});
    hold(engine, 1, previous);
    block_on(engine, {2});
    engine.rrm().take();
    state_changed(engine, 1, -78);
    EXPECT_TRUE(blocked(engine, 2));
    EXPECT_EQ(engine.rrm().take("rrm-probe-request").size(), 2u);
    // While it is pending nobody is asked again.
    state_changed(engine, 1, -79);
    EXPECT_TRUE(engine.rrm().take().empty());
  }
}

TEST(StateChange, ToUnstableCountsAsHeardAtTheLowThreshold) {
  Engine engine(balance_config());
  engine.subscribe(1, {balanced_radio()});
  engine.subscribe(2, {balanced_radio()});
  hold(engine, 1, -60);
  block_on(engine, {2});
  engine.rrm().take();
  state_changed(engine, 1, -50, "unstable");
  EXPECT_EQ(radio_of(engine, 1).assoc_clients.find(kClient)->dbm_signal, -75);
  EXPECT_FALSE(blocked(engine, 2));
  EXPECT_EQ(engine.rrm().take("rrm-probe-request").size(), 2u);
}

TEST(StateChange, ToAStrongSignalTakesThePendingClientBack) {
  Engine engine(balance_config());
  engine.subscribe(1, {balanced_radio()});
  engine.subscribe(2, {balanced_radio()});
  hold(engine, 1, -60);
  state_changed(engine, 1, -80);
  ASSERT_EQ(engine.worker().load_balancer().pending().size(), 1u);
  state_changed(engine, 1, -65);
  state_changed(engine, 1, 0);
  EXPECT_EQ(engine.worker().load_balancer().pending().size(), 1u);
  state_changed(engine, 1, -64);
  EXPECT_EQ(engine.worker().load_balancer().pending().size(), 0u);
}

TEST(StateChange, WithCrossedThresholdsBlocksBeforeItUnblocks) {
  DomainConfig config = balance_config();
  config.blacklist_thr_low = -60;
  config.blacklist_thr_high = -70;
  Engine engine(config);
  engine.subscribe(1, {balanced_radio()});
  engine.subscribe(2, {balanced_radio()});
  hold(engine, 1, -50);
  state_changed(engine, 1, -65);
  // Blocked and unblocked in one go: the access point is told to unblock.
  EXPECT_FALSE(blocked(engine, 2));
  EXPECT_EQ(blacklist_of(engine, 2).changes.at(kClient).action, RadioBlacklist::Action::Unblock);
}

TEST(StateChange, OfAClientThatAnotherAccessPointTookLaterIsNotOffered) {
  Engine engine(balance_config());
  engine.subscribe(1, {balanced_radio()});
  engine.subscribe(2, {balanced_radio()});
  hold(engine, 1, -60);
  engine.clock().advance(1);
  hold(engine, 2, -50);
  engine.rrm().take();
  state_changed(engine, 1, -80);
  EXPECT_TRUE(engine.rrm().take().empty());
  EXPECT_EQ(engine.worker().load_balancer().pending().size(), 0u);
  // The other way round the older record elsewhere does not count.
  state_changed(engine, 2, -80);
  EXPECT_EQ(engine.worker().load_balancer().pending().size(), 1u);
}

TEST(StateChange, OfAClientThatAnotherAccessPointTookInTheSameSecondIsNotOffered) {
  Engine engine(balance_config());
  engine.subscribe(1, {balanced_radio()});
  engine.subscribe(2, {balanced_radio()});
  hold(engine, 1, -60);
  hold(engine, 2, -50);
  state_changed(engine, 1, -80);
  EXPECT_EQ(engine.worker().load_balancer().pending().size(), 0u);
}

TEST(StateChange, OfANoBalanceClientOnlyStoresTheSignal) {
  Engine engine(balance_config());
  engine.subscribe(1, {balanced_radio()});
  engine.subscribe(2, {balanced_radio()});
  hold(engine, 1, -60, true);
  block_on(engine, {2});
  engine.rrm().take();
  state_changed(engine, 1, -80);
  EXPECT_EQ(radio_of(engine, 1).assoc_clients.find(kClient)->dbm_signal, -80);
  EXPECT_TRUE(blocked(engine, 2));
  EXPECT_TRUE(engine.rrm().take().empty());
}

TEST(StateChange, IsIgnoredWhileARoundMeasuresOrWithoutNames) {
  Engine engine(balance_config());
  engine.subscribe(1, {balanced_radio()});
  hold(engine, 1, -60);
  engine.worker().set_load_balancer_lock(true);
  state_changed(engine, 1, -80);
  EXPECT_EQ(radio_of(engine, 1).assoc_clients.find(kClient)->dbm_signal, -60);
  engine.worker().set_load_balancer_lock(false);
  engine.receive("rrm-assoc-state-changed", 1, 101, R"("sta-mac":"02:aa:00:00:00:07","rssi":-80)");
  engine.receive("rrm-assoc-state-changed", 1, 101, R"("ssid":"office","rssi":-80)");
  engine.receive("rrm-assoc-state-changed", 1, 101,
                 R"("sta-mac":"02:aa:00:00:00:07","ssid":"office","rssi":-80,"radio":9)");
  engine.receive("rrm-assoc-state-changed", 1, 101,
                 R"("sta-mac":"no mac","ssid":"office","rssi":-80,"radio":0)");
  EXPECT_EQ(radio_of(engine, 1).assoc_clients.find(kClient)->dbm_signal, -60);
  // A client of zeros, as one that does not scan, is not taken for one that is missing.
  radio_of(engine, 1).assoc_clients.add_client({}, -60, "office", false, false);
  engine.receive("rrm-assoc-state-changed", 1, 101, R"("ssid":"office","rssi":-80,"radio":0)");
  EXPECT_EQ(radio_of(engine, 1).assoc_clients.find({})->dbm_signal, -60);
}

TEST(StateChange, WithoutBalancingOffersNobody) {
  Engine engine(unbalanced_config());
  engine.subscribe(1, {balanced_radio()});
  engine.subscribe(2, {balanced_radio()});
  hold(engine, 1, -60);
  engine.rrm().take();
  state_changed(engine, 1, -80);
  EXPECT_TRUE(engine.rrm().take().empty());
}

TEST(StateChange, OfAnAccessPointThatIsParkedIsTaken) {
  Engine engine(balance_config());
  engine.subscribe(1, {balanced_radio()});
  hold(engine, 1, -60);
  engine.worker().aps().move_all(engine.worker().unanswered_aps());
  state_changed(engine, 1, -70);
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "To unanswered rrm balancer cmd"));
  EXPECT_EQ(radio_of(engine, 1).assoc_clients.find(kClient)->dbm_signal, -70);
}

}  // namespace
}  // namespace rrm::test
