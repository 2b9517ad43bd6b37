#include "server/lib/LoadBalancerSubworker.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/support/Balancing.h"

namespace rrm::test {
namespace {

using Texts = std::vector<std::string>;

const MacAddress kClient = MacAddress::from_text("02:aa:00:00:00:07");
constexpr int kClientNumber = 7;

/// Access points 1..count with one balanced radio each.
void subscribe_all(Engine& engine, int count) {
  for (int n = 1; n <= count; ++n) engine.subscribe(n, {balanced_radio()});
  engine.rrm().take();
}

void associate(Engine& engine, int ap, int rssi, const std::string& more = "",
               int client = kClientNumber, const std::string& ssid = "office") {
  engine.receive("rrm-client-assoc", ap, static_cast<std::uint32_t>(ap + 100),
                 "\"radio\":0,\"rssi\":" + std::to_string(rssi) + ",\"sta-mac\":\"" +
                     client_mac(client) + "\",\"ssid\":\"" + ssid + "\"" + more);
}

/// Lets a radio have that many clients besides.
void fill(Engine& engine, int ap, int count) {
  for (int i = 0; i < count; ++i) {
    radio_of(engine, ap)
        .assoc_clients.add_client(MacAddress::from_text(client_mac(1000 * ap + i).c_str()), -50,
                                  "office", false, false);
  }
}

void hear(Engine& engine, int ap, int rssi, const std::string& ssid = "office", int radio = 0) {
  engine.receive("rrm-probe-response", ap, static_cast<std::uint32_t>(ap + 100),
                 "\"radios\":[{\"id\":" + std::to_string(radio) + ",\"probe-list\":[{\"mac\":\"" +
                     client_mac(kClientNumber) + "\",\"ssid\":\"" + ssid +
                     "\",\"rssi\":" + std::to_string(rssi) + "}]}]");
}

bool pending(Engine& engine) {
  return engine.worker().load_balancer().pending().find(kClient) != nullptr;
}

bool blocked(Engine& engine, int ap) {
  return radio_of(engine, ap).blacklist.members.contains(kClient);
}

bool kicked(Engine& engine, int ap) {
  return radio_of(engine, ap).blacklist.kicked.contains(kClient);
}

std::string ack(int ap) {
  return "{\"service\":\"rrm\",\"version\":\"2.4\",\"cmd\":\"rrm-client-assoc-ack\",\"domain\":"
         "\"site\",\"ap-mac\":\"00:11:22:00:0" +
         std::to_string(ap) +
         ":00\",\"sta-mac\":\"02:aa:00:00:00:07\",\"radio\":0,\"ssid\":\"office\"}";
}

std::string probe_request(int ap) {
  return "{\"service\":\"rrm\",\"version\":\"2.4\",\"cmd\":\"rrm-probe-request\",\"ap-mac\":"
         "\"00:11:22:00:0" +
         std::to_string(ap) +
         ":00\",\"domain\":\"site\",\"radios\":[{\"id\":0,\"probe-list\":[{\"ssid\":\"office\","
         "\"mac\":\"02:AA:00:00:00:07\",\"timeout\":5}]}]}";
}

// --- associations

TEST(Association, IsLoggedStoredAndAcknowledgedWhenAsked) {
  Engine engine(balance_config());
  subscribe_all(engine, 2);
  associate(engine, 1, -50, ",\"need-ack\":1");
  EXPECT_TRUE(engine.log().has(
      LogLevel::Debug,
      "Assocc client 02:aa:00:00:00:07 rssi -50 radio_id 0 ssid office no_balance 0 send_ack 1 "
      "lock_balancer 0 (ap 00:11:22:00:01:00)"));
  const auto sent = engine.rrm().take();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].text, ack(1));
  EXPECT_EQ(sent[0].session, 101u);
  EXPECT_NE(radio_of(engine, 1).assoc_clients.find(kClient), nullptr);
  associate(engine, 1, -50);
  EXPECT_TRUE(engine.rrm().take().empty());
}

TEST(Association, OfAStrongClientBlocksItElsewhereAndOfAMediumOneUnblocksIt) {
  Engine engine(balance_config());
  subscribe_all(engine, 2);
  associate(engine, 1, -64);
  EXPECT_TRUE(blocked(engine, 2));
  associate(engine, 1, -65);
  EXPECT_FALSE(blocked(engine, 2));
  EXPECT_FALSE(pending(engine));
}

TEST(Association, OfUnknownStrengthBlocksNobody) {
  Engine engine(balance_config());
  subscribe_all(engine, 2);
  associate(engine, 1, 0);
  EXPECT_FALSE(blocked(engine, 2));
}

TEST(Association, OfAWeakClientAsksWhoHearsIt) {
  Engine engine(balance_config());
  subscribe_all(engine, 2);
  associate(engine, 1, -75, ",\"need-ack\":1");
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "post_probe_req enter"));
  const auto sent = engine.rrm().take();
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[0].text, probe_request(1));
  EXPECT_EQ(sent[1].text, probe_request(2));
  EXPECT_TRUE(pending(engine));
}

TEST(Association, AtALoadedRadioAsksWhoHearsTheClient) {
  Engine engine(balance_config());
  subscribe_all(engine, 2);
  fill(engine, 1, 4);
  associate(engine, 1, -50);  // 5 clients: not more than load_balance_sta_low
  EXPECT_FALSE(pending(engine));
  fill(engine, 1, 5);
  associate(engine, 1, -50);
  EXPECT_TRUE(pending(engine));
}

TEST(Association, OfANoBalanceClientTakesItFromTheOthersAndOffTheBlacklist) {
  Engine engine(balance_config());
  subscribe_all(engine, 3);
  radio_of(engine, 1).blacklist.block(kClient, 30);
  radio_of(engine, 2).assoc_clients.add_client(kClient, -50, "office", false, false);
  associate(engine, 1, -80, ",\"no-balance\":1,\"need-ack\":1");
  EXPECT_FALSE(blocked(engine, 1));
  EXPECT_TRUE(radio_of(engine, 1).blacklist.changes.empty());
  EXPECT_EQ(radio_of(engine, 2).assoc_clients.find(kClient), nullptr);
  EXPECT_FALSE(pending(engine));
  EXPECT_EQ(engine.rrm().take("rrm-client-assoc-ack"), (Texts{ack(1)}));
}

TEST(Association, OfANoBalanceClientLeavesItWhereItsNetworkIsNot) {
  Engine engine(balance_config());
  engine.subscribe(1, {balanced_radio()});
  engine.subscribe(2, {balanced_radio(0), balanced_radio(1, "lab")});
  for (const int radio : {0, 1}) {
    radio_of(engine, 2, radio).assoc_clients.add_client(kClient, -50, "lab", false, false);
  }
  associate(engine, 1, -50, ",\"no-balance\":1");
  EXPECT_EQ(radio_of(engine, 2, 0).assoc_clients.find(kClient), nullptr);
  EXPECT_NE(radio_of(engine, 2, 1).assoc_clients.find(kClient), nullptr);
  EXPECT_NE(radio_of(engine, 1).assoc_clients.find(kClient), nullptr);
}

TEST(Association, OfANoBalanceClientReachesOnlyAccessPointsThatHearThisOne) {
  DomainConfig config = balance_config();
  config.use_all_ap_balance = false;
  Engine engine(config);
  subscribe_all(engine, 3);
  for (const int ap : {2, 3}) {
    radio_of(engine, ap).assoc_clients.add_client(kClient, -50, "office", false, false);
  }
  // Heard under the twin of its radio MAC.
  engine.ap(2)->visible_members[engine.ap(1)->base_mac.twin()] = {};
  associate(engine, 1, -50, ",\"no-balance\":1");
  EXPECT_EQ(radio_of(engine, 2).assoc_clients.find(kClient), nullptr);
  EXPECT_NE(radio_of(engine, 3).assoc_clients.find(kClient), nullptr);
}

TEST(Association, OfAClientThatWasToMoveHereIsNotQuestioned) {
  Engine engine(balance_config());
  subscribe_all(engine, 2);
  radio_of(engine, 1).expected_roams[kClient] = {};
  associate(engine, 1, -80, ",\"need-ack\":1");
  EXPECT_FALSE(pending(engine));
  EXPECT_EQ(engine.rrm().take("rrm-client-assoc-ack"), (Texts{ack(1)}));
  // It has arrived: that counts once.
  associate(engine, 1, -80);
  EXPECT_TRUE(pending(engine));
}

TEST(Association, WhileBalancingIsPausedIsOnlyStoredAndAcknowledged) {
  for (const bool round : {true, false}) {
    Engine engine(balance_config());
    subscribe_all(engine, 2);
    if (round) {
      engine.worker().set_load_balancer_lock(true);
    } else {
      engine.receive(R"({"service":"rrm-internal", "cmd":"stop-load-balancer"})", 101);
    }
    associate(engine, 1, -80, ",\"need-ack\":1");
    EXPECT_TRUE(engine.log().has(
        LogLevel::Debug,
        "Assocc client 02:aa:00:00:00:07 rssi -80 radio_id 0 ssid office no_balance 0 send_ack 1 "
        "lock_balancer 1 (ap 00:11:22:00:01:00)"));
    EXPECT_NE(radio_of(engine, 1).assoc_clients.find(kClient), nullptr);
    EXPECT_EQ(engine.rrm().take("rrm-client-assoc-ack"), (Texts{ack(1)}));
    EXPECT_FALSE(pending(engine));
  }
}

TEST(Association, OfAPendingClientElsewhereAsksAnew) {
  Engine engine(balance_config());
  subscribe_all(engine, 2);
  associate(engine, 1, -80);
  hear(engine, 1, -80);
  engine.pass(2);
  engine.rrm().take();
  associate(engine, 2, -80);
  EXPECT_EQ(engine.rrm().take("rrm-probe-request").size(), 2u);
  const ProbeEntry* entry = engine.worker().load_balancer().pending().find(kClient);
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->mac, engine.ap(2)->base_mac);
  EXPECT_EQ(entry->countdown, 5u);
  EXPECT_TRUE(entry->heard.empty());
}

TEST(Association, WithoutBalancingIsNotEvenLogged) {
  DomainConfig config = Engine::quiet_config();
  config.use_80211k = true;
  Engine engine(config);
  subscribe_all(engine, 1);
  engine.log().clear();
  const JsonReader message(
      R"({"radio":0,"rssi":-50,"sta-mac":"02:aa:00:00:00:07","ssid":"office","need-ack":1})");
  engine.worker().load_balancer().process_message(message, "rrm-client-assoc", engine.ap(1));
  EXPECT_TRUE(engine.log().records().empty());
  EXPECT_TRUE(engine.rrm().take().empty());
  EXPECT_EQ(radio_of(engine, 1).assoc_clients.find(kClient), nullptr);
}

TEST(Association, WithNobodyToAskIsAcknowledged) {
  Engine engine(balance_config());
  subscribe_all(engine, 1);
  associate(engine, 1, -80, ",\"need-ack\":1", kClientNumber, "unknown");
  EXPECT_FALSE(pending(engine));
  EXPECT_EQ(engine.rrm().take("rrm-client-assoc-ack").size(), 1u);
}

TEST(Association, AtAFullTableIsAcknowledgedAndForgotten) {
  Engine engine(balance_config());
  subscribe_all(engine, 1);
  for (std::uint32_t i = 0; i < AssocMap::kMaxClients; ++i) {
    radio_of(engine, 1).assoc_clients.add_client(MacAddress::from_text("02:bb:00:00:00:00").plus(i),
                                                 -50, "office", false, false);
  }
  associate(engine, 1, -80, ",\"need-ack\":1");
  EXPECT_EQ(engine.rrm().take("rrm-client-assoc-ack"), (Texts{ack(1)}));
  EXPECT_EQ(radio_of(engine, 1).assoc_clients.associated().size(), AssocMap::kMaxClients);
}

TEST(Association, OnAnUnknownOrDisabledRadioIsSkipped) {
  Engine engine(balance_config());
  subscribe_all(engine, 1);
  engine.receive("rrm-client-assoc", 1, 101,
                 R"("radio":2,"sta-mac":"02:aa:00:00:00:07","ssid":"office","need-ack":1)");
  EXPECT_TRUE(engine.log().has(
      LogLevel::Warning, "Skip assoc for invalid/disabled radio_id=2 (ap 00:11:22:00:01:00)"));
  EXPECT_TRUE(engine.rrm().take().empty());
}

TEST(Association, WithoutClientOrNetworkIsDropped) {
  Engine engine(balance_config());
  subscribe_all(engine, 1);
  engine.receive("rrm-client-assoc", 1, 101, R"("radio":0,"ssid":"office","need-ack":1)");
  engine.receive("rrm-client-assoc", 1, 101,
                 R"("radio":0,"sta-mac":"02:aa:00:00:00:07","ssid":"","need-ack":1)");
  EXPECT_TRUE(engine.rrm().take().empty());
  EXPECT_TRUE(radio_of(engine, 1).assoc_clients.associated().empty());
}

TEST(Disassociation, TakesTheClientFromItsRadio) {
  Engine engine(balance_config());
  subscribe_all(engine, 1);
  associate(engine, 1, -50);
  engine.receive("rrm-client-disassoc", 1, 101,
                 R"("radio":1,"sta-mac":"02:aa:00:00:00:07","ssid":"office")");
  EXPECT_TRUE(engine.log().has(
      LogLevel::Warning, "Skip disassoc for invalid/disabled radio_id=1 (ap 00:11:22:00:01:00)"));
  engine.receive("rrm-client-disassoc", 1, 101,
                 R"("radio":0,"sta-mac":"02:aa:00:00:00:07","ssid":"office")");
  EXPECT_TRUE(engine.log().has(
      LogLevel::Debug,
      "Disassocc client 02:aa:00:00:00:07 lock_balancer 0 (ap 00:11:22:00:01:00)"));
  EXPECT_TRUE(radio_of(engine, 1).assoc_clients.associated().empty());
}

TEST(Disassociation, OfAllClientsEmptiesEveryRadio) {
  Engine engine(balance_config());
  engine.subscribe(1, {balanced_radio(0), balanced_radio(1)});
  subscribe_all(engine, 1);
  for (const int radio : {0, 1}) {
    AssocMap& clients = radio_of(engine, 1, radio).assoc_clients;
    clients.add_client(MacAddress::from_text(client_mac(radio).c_str()), -50, "office", false,
                       false);
    clients.expect_client(kClient, {}, 0, 5);
  }
  engine.receive("rrm-disassoc-all-clients", 1, 101, "");
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Disassocc all clients"));
  for (const int radio : {0, 1}) {
    EXPECT_EQ(radio_of(engine, 1, radio).assoc_clients.count(), 0u) << radio;
  }
}

// --- questions and answers

TEST(ProbeRequest, GoesToTheSourceAndToThoseThatHearIt) {
  DomainConfig config = balance_config();
  config.use_all_ap_balance = false;
  Engine engine(config);
  subscribe_all(engine, 3);
  engine.ap(2)->visible_members[engine.ap(1)->base_mac] = {};
  associate(engine, 1, -80);
  Texts texts;
  for (const auto& sent : engine.rrm().take()) texts.push_back(sent.text);
  EXPECT_EQ(texts, (Texts{probe_request(1), probe_request(2)}));
}

TEST(ProbeRequest, ListsTheRadiosThatCouldTakeTheClient) {
  Engine engine(balance_config());
  subscribe_all(engine, 1);
  RadioSpec locked = balanced_radio(1);
  locked.locked_balancer = 1;
  engine.subscribe(2, {balanced_radio(0, "lab"), locked, balanced_radio(2)});
  RadioSpec disabled = balanced_radio();
  disabled.status = 0;
  engine.subscribe(3, {disabled});
  engine.rrm().take();
  associate(engine, 1, -80);
  const auto sent = engine.rrm().take();
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_NE(sent[1].text.find("\"radios\":[{\"id\":2,"), std::string::npos);
  EXPECT_EQ(sent[1].text.find("\"id\":1"), std::string::npos);
  const ProbeEntry* entry = engine.worker().load_balancer().pending().find(kClient);
  EXPECT_EQ(entry->awaited.size(), 2u);
  EXPECT_NE(entry->is_awaited(engine.ap(2)->get_radio_mac(2)), nullptr);
}

TEST(ProbeResponse, IsTakenForPendingClientsOfTheSameNetworkOnly) {
  Engine engine(balance_config());
  subscribe_all(engine, 3);
  hear(engine, 2, -50);
  EXPECT_FALSE(engine.log().has(
      LogLevel::Debug, "Probe response client 02:aa:00:00:00:07 put (ap 00:11:22:00:02:00)"));
  associate(engine, 1, -80);
  hear(engine, 2, -50, "lab");
  const ProbeEntry* entry = engine.worker().load_balancer().pending().find(kClient);
  EXPECT_TRUE(entry->heard.empty());
  EXPECT_FALSE(engine.log().has(
      LogLevel::Debug, "Probe response client 02:aa:00:00:00:07 put (ap 00:11:22:00:02:00)"));
  hear(engine, 2, -50);
  EXPECT_TRUE(engine.log().has(LogLevel::Debug,
                               "Probe response client 02:aa:00:00:00:07 ssid office radio_id 0 "
                               "rssi -50 size 0 (ap 00:11:22:00:02:00)"));
  EXPECT_TRUE(engine.log().has(
      LogLevel::Debug, "Probe response client 02:aa:00:00:00:07 put (ap 00:11:22:00:02:00)"));
  EXPECT_EQ(entry->heard.at(engine.ap(2)->base_mac), -50);
  EXPECT_EQ(entry->is_awaited(engine.ap(2)->base_mac), nullptr);
  EXPECT_EQ(entry->awaited.size(), 2u);
}

TEST(ProbeResponse, OfAnUnknownOrDisabledRadioIsSkipped) {
  Engine engine(balance_config());
  subscribe_all(engine, 2);
  associate(engine, 1, -80);
  hear(engine, 2, -50, "office", 1);
  EXPECT_TRUE(engine.log().has(
      LogLevel::Warning,
      "Skip probe-response for invalid/disabled radio_id=1 (ap 00:11:22:00:02:00)"));
  EXPECT_TRUE(engine.worker().load_balancer().pending().find(kClient)->heard.empty());
}

// --- decisions

/// Client 7 joins access point 1 at -80 dBm and is heard as given; a second passes.
struct Decision {
  const char* name;
  int source_clients;            ///< besides client 7
  int own_rssi;                  ///< what access point 1 answers; 0 for no answer
  std::vector<int> others;       ///< clients of access points 2, 3, ...
  std::vector<int> others_rssi;  ///< what they answer; 0 for no answer
  int destination;               ///< where the client is sent; 0 for nowhere
};

class BalancingDecision : public testing::TestWithParam<Decision> {};

TEST_P(BalancingDecision, PicksTheLeastLoadedRadioThatHearsTheClientWell) {
  const Decision& test = GetParam();
  Engine engine(balance_config());
  const int aps = 1 + static_cast<int>(test.others.size());
  subscribe_all(engine, aps);
  fill(engine, 1, test.source_clients);
  for (int n = 2; n <= aps; ++n) fill(engine, n, test.others[static_cast<std::size_t>(n - 2)]);
  associate(engine, 1, -80, ",\"need-ack\":1");
  if (test.own_rssi != 0) hear(engine, 1, test.own_rssi);
  for (int n = 2; n <= aps; ++n) {
    const int rssi = test.others_rssi[static_cast<std::size_t>(n - 2)];
    if (rssi != 0) hear(engine, n, rssi);
  }
  engine.rrm().take();
  engine.pass(5);
  EXPECT_FALSE(pending(engine));
  const auto acks = engine.rrm().take("rrm-client-assoc-ack");
  if (test.destination == 0) {
    EXPECT_EQ(acks, (Texts{ack(1)}));
    EXPECT_FALSE(kicked(engine, 1));
    return;
  }
  EXPECT_TRUE(acks.empty());
  EXPECT_TRUE(kicked(engine, 1));
  for (int n = 2; n <= aps; ++n) EXPECT_EQ(blocked(engine, n), n != test.destination) << n;
}

INSTANTIATE_TEST_SUITE_P(
    Case, BalancingDecision,
    testing::Values(Decision{"AWeakClientGoesToTheOneThatHearsItWell", 0, -80, {0}, {-50}, 2},
                    Decision{"HeardByASingleAccessPointItIsNeverSteered", 0, 0, {0}, {-50}, 0},
                    Decision{"HeardByItsOwnAccessPointOnlyItStays", 0, -80, {0}, {0}, 0},
                    Decision{"HeardByNobodyItStays", 0, 0, {0}, {0}, 0},
                    Decision{
                        "AtExactlyTheHighThresholdADestinationIsRefused", 0, -80, {0}, {-65}, 0},
                    Decision{"JustAboveTheHighThresholdItIsTaken", 0, -80, {0}, {-64}, 2},
                    // Two clients count as four, so that the signal decides.
                    Decision{"BelowTheLowMarkTheSignalDecides", 0, -80, {2, 4}, {-60, -55}, 3},
                    Decision{"AboveTheLowMarkTheLoadDecides", 0, -80, {5, 4}, {-50, -60}, 3},
                    Decision{"AFullRadioTakesNobody", 20, -80, {20}, {-50}, 0},
                    Decision{"OneBelowFullIsTaken", 20, -80, {19}, {-50}, 2},
                    Decision{"AnEmptyRadioKeepsAWeakClientFromALoadedOne", 0, -80, {19}, {-50}, 0}),
    [](const auto& test) { return test.param.name; });

/// Client 7 is at radio 1 of access point 1; access points have radios 0 and 1.
void associate_at_radio_1(Engine& engine) {
  for (int n = 1; n <= 2; ++n) engine.subscribe(n, {balanced_radio(0), balanced_radio(1)});
  engine.receive("rrm-client-assoc", 1, 101,
                 R"("radio":1,"rssi":-80,"sta-mac":"02:aa:00:00:00:07","ssid":"office")");
  engine.rrm().take();
}

TEST(BalancingDecision, MovesAClientFromTheRadioThatItIsOn) {
  Engine engine(balance_config());
  associate_at_radio_1(engine);
  hear(engine, 1, -80, "office", 1);
  hear(engine, 2, -50, "office", 0);
  hear(engine, 2, -70, "office", 1);
  engine.pass(5);
  EXPECT_TRUE(engine.log().has(LogLevel::Debug,
                               "LoadBalancer: radio 1 client 02:AA:00:00:00:07 src_ap "
                               "00:11:22:00:01:10 size 1 sta_low 5 rssi -80"));
  EXPECT_TRUE(radio_of(engine, 1, 1).blacklist.kicked.contains(kClient));
  EXPECT_FALSE(kicked(engine, 1));
  const auto& expected = radio_of(engine, 2, 0).assoc_clients.expected();
  ASSERT_EQ(expected.size(), 1u);
  EXPECT_EQ(expected.at(kClient).target_ap, engine.ap(1)->base_mac);
  EXPECT_EQ(expected.at(kClient).radio_id, 1);
  EXPECT_TRUE(blocked(engine, 1));
  EXPECT_FALSE(blocked(engine, 2));
  EXPECT_TRUE(radio_of(engine, 2, 1).blacklist.members.contains(kClient));
}

TEST(BalancingDecision, WithoutActionAcknowledgesTheRadioThatTheClientIsOn) {
  Engine engine(balance_config());
  associate_at_radio_1(engine);
  engine.pass(5);
  EXPECT_EQ(engine.rrm().take("rrm-client-assoc-ack"),
            (Texts{"{\"service\":\"rrm\",\"version\":\"2.4\",\"cmd\":\"rrm-client-assoc-ack\","
                   "\"domain\":\"site\",\"ap-mac\":\"00:11:22:00:01:00\",\"sta-mac\":"
                   "\"02:aa:00:00:00:07\",\"radio\":1,\"ssid\":\"office\"}"}));
}

TEST(BalancingDecision, TakesTheFirstOfEquallyGoodRadios) {
  Engine engine(balance_config());
  subscribe_all(engine, 3);
  associate(engine, 1, -80);
  for (const int ap : {1, 3, 2}) hear(engine, ap, ap == 1 ? -80 : -50);
  engine.pass(1);
  EXPECT_EQ(radio_of(engine, 3).assoc_clients.expected().size(), 1u);
  EXPECT_TRUE(blocked(engine, 2));
}

TEST(BalancingDecision, OfAClientThatTwoRadiosOfASingleAccessPointHearNeverSteersIt) {
  for (const int hearer : {1, 2}) {
    Engine engine(balance_config());
    for (int n = 1; n <= 2; ++n) engine.subscribe(n, {balanced_radio(0), balanced_radio(1)});
    associate(engine, 1, -80, ",\"need-ack\":1");
    hear(engine, hearer, -80);
    hear(engine, hearer, -50, "office", 1);
    engine.rrm().take();
    engine.pass(5);
    EXPECT_TRUE(engine.log().has(LogLevel::Debug, "LoadBalancer: no balancer"));
    EXPECT_EQ(engine.rrm().take("rrm-client-assoc-ack"), (Texts{ack(1)}));
    EXPECT_FALSE(kicked(engine, 1));
  }
}

TEST(BalancingDecisionLog, CountsTwoClientsAsFourBelowTheLowMarkOfFive) {
  Engine engine(balance_config());
  subscribe_all(engine, 2);
  fill(engine, 2, 2);
  associate(engine, 1, -80);
  hear(engine, 1, -80);
  hear(engine, 2, -50);
  engine.pass(1);  // everybody has answered
  EXPECT_TRUE(engine.log().has(LogLevel::Debug,
                               "LoadBalancer: radio 0 client 02:AA:00:00:00:07 src_ap "
                               "00:11:22:00:01:00 size 1 sta_low 5 rssi -80"));
  EXPECT_TRUE(engine.log().has(LogLevel::Debug,
                               "dst_ap 00:11:22:00:02:00 radio 0 min_size 4 min_rssi -50"));
}

TEST(BalancingDecisionLog, TellsWhyNothingIsDone) {
  Engine engine(balance_config());
  subscribe_all(engine, 2);
  associate(engine, 1, -80);
  engine.pass(5);
  EXPECT_TRUE(
      engine.log().has(LogLevel::Debug, "LoadBalancer: no find result for 02:AA:00:00:00:07"));
  associate(engine, 1, -80);
  hear(engine, 1, -80);
  hear(engine, 2, -70);
  engine.pass(1);
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "LoadBalancer: no balancer"));
}

TEST(BalancingDecision, WaitsForTheAnswersOrFiveSeconds) {
  Engine engine(balance_config());
  subscribe_all(engine, 2);
  associate(engine, 1, -80);
  hear(engine, 1, -80);
  engine.pass(4);
  EXPECT_TRUE(pending(engine));
  EXPECT_FALSE(engine.log().has(LogLevel::Debug, "RrmProblist: drop - timeout"));
  engine.pass(1);
  EXPECT_FALSE(pending(engine));
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "RrmProblist: drop - timeout"));
  // With all answers nothing runs out.
  engine.log().clear();
  associate(engine, 1, -80);
  hear(engine, 1, -80);
  hear(engine, 2, -70);
  engine.pass(1);
  EXPECT_FALSE(pending(engine));
  EXPECT_FALSE(engine.log().has(LogLevel::Debug, "RrmProblist: drop - timeout"));
}

TEST(BalancingDecision, OfALoadedRadioNeedsAClearlyBetterOne) {
  // Source with 8 clients, signal -70: neither weak nor strong.
  for (const int other : {6, 7}) {
    Engine engine(balance_config());
    subscribe_all(engine, 2);
    fill(engine, 1, 7);
    fill(engine, 2, other);
    associate(engine, 1, -70, ",\"need-ack\":1");
    hear(engine, 1, -70);
    hear(engine, 2, -50);
    engine.pass(1);
    EXPECT_EQ(kicked(engine, 1), other == 6) << other;  // 8 > 6 + 1, but 8 <= 7 + 1
  }
}

TEST(BalancingDecision, ThatKeepsTheClientBlocksTheOthersAndAcknowledges) {
  Engine engine(balance_config());
  subscribe_all(engine, 3);
  fill(engine, 1, 9);
  associate(engine, 1, -60, ",\"need-ack\":1");
  radio_of(engine, 2).blacklist.clear();
  hear(engine, 1, -60);
  hear(engine, 2, -55);
  hear(engine, 3, -70);
  engine.rrm().take();
  engine.pass(1);
  EXPECT_TRUE(engine.log().has(LogLevel::Debug,
                               "LoadBalancer: exist_ap 00:11:22:00:01:00 size 10 rssi -60"));
  EXPECT_EQ(engine.rrm().take("rrm-client-assoc-ack"), (Texts{ack(1)}));
  EXPECT_FALSE(kicked(engine, 1));
  EXPECT_EQ(radio_of(engine, 1).assoc_clients.expected().size(), 0u);
  EXPECT_TRUE(blocked(engine, 2));
  EXPECT_TRUE(blocked(engine, 3));
}

/// Client 7 is at access point 1 and heard there as given; access point 2 hears it well.
void decide_at_home(Engine& engine, int others_at_home, int rssi) {
  subscribe_all(engine, 2);
  fill(engine, 1, others_at_home);
  associate(engine, 1, -60, ",\"need-ack\":1");
  fill(engine, 2, 30);
  hear(engine, 1, rssi);
  hear(engine, 2, -55);
  engine.rrm().take();
  radio_of(engine, 2).blacklist.clear();
  engine.pass(1);
}

TEST(BalancingDecision, KeepsTheClientUpToTheHighMarkWithItself) {
  for (const int others : {19, 20}) {
    Engine engine(balance_config());
    decide_at_home(engine, others, -60);
    EXPECT_EQ(blocked(engine, 2), others == 19) << others;
    EXPECT_EQ(engine.log().has(LogLevel::Debug,
                               "dst_ap 00:11:22:00:01:00 radio 0 min_size 19 min_rssi -60"),
              others == 19);
  }
}

TEST(BalancingDecisionLog, TakesAClientAtExactlyTheHighThresholdForOneToCompare) {
  for (const int rssi : {-64, -65}) {
    Engine engine(balance_config());
    decide_at_home(engine, 9, rssi);
    EXPECT_EQ(engine.log().has(LogLevel::Debug,
                               "LoadBalancer: exist_ap 00:11:22:00:01:00 size 10 "
                               "rssi " +
                                   std::to_string(rssi)),
              rssi == -64);
  }
}

TEST(BalancingDecision, OfAClientAtExactlyTheLowThresholdMovesIt) {
  for (const int rssi : {-75, -74}) {
    Engine engine(balance_config());
    subscribe_all(engine, 2);
    associate(engine, 1, -75);
    hear(engine, 1, -75);
    hear(engine, 2, -50);
    radio_of(engine, 1).assoc_clients.update_rssi(kClient, rssi);
    engine.pass(1);
    EXPECT_EQ(kicked(engine, 1), rssi == -75);
  }
}

TEST(BalancingDecision, WhoseSourceIsDisabledMeanwhileEndsWithoutAWord) {
  Engine engine(balance_config());
  subscribe_all(engine, 2);
  associate(engine, 1, -80, ",\"need-ack\":1");
  hear(engine, 2, -50);
  hear(engine, 1, -80);
  engine.rrm().take();
  radio_of(engine, 1).status = false;
  engine.pass(1);
  EXPECT_TRUE(engine.log().has(LogLevel::Debug,
                               "LoadBalancer: radio 0 client 02:AA:00:00:00:07 src_ap "
                               "00:11:22:00:01:00 size -1 sta_low 5 rssi 0"));
  EXPECT_TRUE(engine.rrm().take().empty());
  EXPECT_FALSE(pending(engine));
}

TEST(BalancingDecision, WhoseDestinationIsDisabledMeanwhileBlocksNobody) {
  Engine engine(balance_config());
  subscribe_all(engine, 3);
  associate(engine, 1, -80, ",\"need-ack\":1");
  hear(engine, 1, -80);
  hear(engine, 2, -50);
  engine.rrm().take();
  radio_of(engine, 2).status = false;
  engine.pass(5);
  EXPECT_TRUE(engine.log().has(LogLevel::Warning,
                               "Skip balancing action: destination radio_id=0 is invalid/disabled "
                               "for ap=00:11:22:00:02:00"));
  EXPECT_EQ(engine.rrm().take("rrm-client-assoc-ack"), (Texts{ack(1)}));
  EXPECT_FALSE(blocked(engine, 3));
  EXPECT_FALSE(kicked(engine, 1));
}

TEST(BalancingDecision, CountsTheClientAtItsDestinationForFiveSeconds) {
  Engine engine(balance_config());
  subscribe_all(engine, 2);
  associate(engine, 1, -80);
  hear(engine, 1, -80);
  hear(engine, 2, -50);
  engine.pass(1);
  const auto& expected = radio_of(engine, 2).assoc_clients.expected();
  ASSERT_EQ(expected.size(), 1u);
  EXPECT_EQ(expected.at(kClient).target_ap, engine.ap(1)->base_mac);
  EXPECT_EQ(expected.at(kClient).radio_id, 0);
  engine.pass(4);
  EXPECT_EQ(expected.size(), 1u);
  engine.pass(1);
  EXPECT_TRUE(expected.empty());
}

TEST(BalancingDecision, IsSuspendedWhileBalancingIsPaused) {
  for (const bool round : {true, false}) {
    Engine engine(balance_config());
    ASSERT_TRUE(engine.worker().connect());
    subscribe_all(engine, 2);
    associate(engine, 1, -80);
    hear(engine, 1, -80);
    hear(engine, 2, -50);
    if (round) {
      engine.worker().set_load_balancer_lock(true);
    } else {
      engine.receive(R"({"service":"rrm-internal", "cmd":"stop-load-balancer"})", 101);
    }
    engine.pass(50);
    EXPECT_TRUE(pending(engine));
    EXPECT_FALSE(kicked(engine, 1));
    engine.worker().set_load_balancer_lock(false);
    engine.pass(11);
    EXPECT_FALSE(pending(engine));
    EXPECT_TRUE(kicked(engine, 1));
  }
}

TEST(BalancingDecision, WithoutItsSourceIsGivenUp) {
  Engine engine(balance_config());
  subscribe_all(engine, 2);
  associate(engine, 1, -80);
  engine.close_session(101);
  hear(engine, 2, -50);
  engine.rrm().take();
  engine.pass(5);
  EXPECT_TRUE(engine.log().has(
      LogLevel::Warning, "Skip balancing: source radio_id not found for src_ap=00:11:22:00:01:00"));
  EXPECT_FALSE(pending(engine));
  EXPECT_TRUE(engine.rrm().take("rrm-client-assoc-ack").empty());
}

TEST(BalancingDecision, IgnoresAccessPointsThatHaveLeftSince) {
  Engine engine(balance_config());
  subscribe_all(engine, 2);
  associate(engine, 1, -80);
  hear(engine, 1, -80);
  hear(engine, 2, -50);
  engine.close_session(102);
  engine.rrm().take();
  engine.pass(1);
  EXPECT_EQ(engine.rrm().take("rrm-client-assoc-ack"), (Texts{ack(1)}));
  EXPECT_FALSE(kicked(engine, 1));
}

TEST(BalancingDecision, IgnoresAnAccessPointThatOnlyTheIndexStillKnows) {
  Engine engine(balance_config());
  subscribe_all(engine, 2);
  associate(engine, 1, -80);
  hear(engine, 1, -80);
  hear(engine, 2, -50);
  engine.receive("unsubscribe-request", 2, 9, "");  // from another session
  engine.pass(1);
  EXPECT_FALSE(kicked(engine, 1));
}

TEST(BalancingDecision, UnblocksTheClientAtItsDestination) {
  Engine engine(balance_config());
  subscribe_all(engine, 2);
  associate(engine, 1, -80);
  radio_of(engine, 2).blacklist.block(kClient, 30);
  hear(engine, 1, -80);
  hear(engine, 2, -50);
  engine.pass(1);
  EXPECT_FALSE(blocked(engine, 2));
}

// --- a transcript

TEST(BalancingTranscript, MovesAClientFromALoadedAccessPoint) {
  Engine engine(balance_config());
  subscribe_all(engine, 3);
  fill(engine, 1, 9);
  associate(engine, 1, -70, ",\"need-ack\":1");
  Texts texts;
  for (const auto& sent : engine.rrm().take()) texts.push_back(sent.text);
  std::sort(texts.begin(), texts.end());
  EXPECT_EQ(texts, (Texts{probe_request(1), probe_request(2), probe_request(3)}));
  hear(engine, 1, -70);
  hear(engine, 2, -55);
  hear(engine, 3, -64);
  engine.pass(1);
  // The tick that decides comes first; the blacklist's tick then carries it out.
  texts.clear();
  for (const auto& sent : engine.rrm().take()) texts.push_back(sent.text);
  EXPECT_EQ(texts,
            (Texts{"{\"service\":\"rrm\",\"version\":\"2.4\",\"cmd\":\"rrm-disassoc-request\","
                   "\"ap-mac\":\"00:11:22:00:01:00\",\"domain\":\"site\",\"radios\":[{\"id\":0,"
                   "\"diassoc-list\":[{\"mac\":\"02:AA:00:00:00:07\",\"ssid\":\"office\","
                   "\"timeout\":30}]}]}",
                   "{\"service\":\"rrm\",\"version\":\"2.4\",\"cmd\":\"rrm-blacklist\",\"radios\":"
                   "[{\"id\":0,\"blacklist\":[{\"mac\":\"02:AA:00:00:00:07\",\"action\":\"block\","
                   "\"timeout\":30}]}],\"ap-mac\":\"00:11:22:00:03:00\",\"domain\":\"site\"}"}));
  engine.receive("rrm-client-disassoc", 1, 101,
                 R"("radio":0,"sta-mac":"02:aa:00:00:00:07","ssid":"office")");
  associate(engine, 2, -55, ",\"need-ack\":1");
  EXPECT_EQ(engine.rrm().take("rrm-client-assoc-ack"), (Texts{ack(2)}));
  EXPECT_EQ(radio_of(engine, 2).assoc_clients.count(), 1u);
  // Its blocks end by themselves; access point 1 was never told to block it.
  engine.pass(1);
  engine.rrm().take();
  engine.pass(40);
  texts.clear();
  for (const auto& sent : engine.rrm().take()) texts.push_back(sent.text);
  EXPECT_EQ(texts,
            (Texts{"{\"service\":\"rrm\",\"version\":\"2.4\",\"cmd\":\"rrm-blacklist\",\"radios\":"
                   "[{\"id\":0,\"blacklist\":[{\"mac\":\"02:AA:00:00:00:07\",\"action\":"
                   "\"unblock\"}]}],\"ap-mac\":\"00:11:22:00:03:00\",\"domain\":\"site\"}"}));
}

TEST(BalancingPending, IsBounded) {
  Engine engine(balance_config());
  subscribe_all(engine, 3);
  for (int i = 0; i < 16384; ++i) associate(engine, 1 + i % 3, -80, "", i);
  engine.log().clear();
  associate(engine, 1, -80, ",\"need-ack\":1", 16384);
  EXPECT_EQ(engine.worker().load_balancer().pending().size(), 16384u);
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "RrmProblist: drop - too many pending clients"));
}

}  // namespace
}  // namespace rrm::test
