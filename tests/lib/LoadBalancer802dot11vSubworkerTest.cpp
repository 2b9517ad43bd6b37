#include "server/lib/LoadBalancer802dot11vSubworker.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "server/lib/TpcDcaSubworker.h"
#include "tests/support/Balancing.h"
#include "tests/support/RoamingAudit.h"

namespace rrm::test {
namespace {

using Texts = std::vector<std::string>;

/// 802.11v balancing and nothing else; radios up to 4 clients have priority 255, up to 19 127.
DomainConfig steering_config() {
  DomainConfig config = Engine::quiet_config();
  config.use_80211v = true;
  config.use_balance = true;
  return config;
}

RadioSpec steering_radio(int id = 0, int channel = 36, int band = 5) {
  return RadioSpec{.id = id,
                   .channel = channel,
                   .band = band,
                   .vaps = {{.k = true, .v = true}},
                   .locked_80211v = 0};
}

/// Lists all three radios, the others as disabled: a radio that was never described is not locked
/// for the probe-response balancer, which would then get the associations.
std::vector<RadioSpec> all_radios(std::vector<RadioSpec> radios) {
  for (int id = static_cast<int>(radios.size()); id < 3; ++id) {
    radios.push_back(RadioSpec{.id = id, .channel = 0, .status = 0});
  }
  return radios;
}

/// Access points 1..count that all hear each other's radio 0.
void subscribe_all(Engine& engine, int count) {
  for (int n = 1; n <= count; ++n)
    engine.subscribe(n, all_radios({steering_radio(0, 36 + 4 * (n % 4))}));
  for (int n = 1; n <= count; ++n) {
    for (int other = 1; other <= count; ++other) {
      if (other == n) continue;
      engine.ap(n)->visible_members[engine.ap(other)->base_mac] = {-60, 36, 5, 20, 15};
    }
  }
}

void associate(Engine& engine, int ap, int client, const std::string& more = "") {
  engine.receive("rrm-client-assoc", ap, static_cast<std::uint32_t>(ap + 100),
                 "\"radio\":0,\"rssi\":-50,\"sta-mac\":\"" + client_mac(client) +
                     "\",\"ssid\":\"office\"" + more);
}

void disassociate(Engine& engine, int ap, int client) {
  engine.receive("rrm-client-disassoc", ap, static_cast<std::uint32_t>(ap + 100),
                 "\"radio\":0,\"sta-mac\":\"" + client_mac(client) + "\",\"ssid\":\"office\"");
}

/// Lets the access point have clients first..first + count - 1.
void fill(Engine& engine, int ap, int first, int count) {
  for (int i = 0; i < count; ++i) associate(engine, ap, first + i);
}

MacAddress mac_of(const std::string& text) { return MacAddress::from_text(text.c_str()); }

// --- priorities

TEST(RadioPriority, FollowsTheThresholdsOfTheTable) {
  Engine engine(steering_config());
  engine.subscribe(1, all_radios({steering_radio()}));
  EXPECT_EQ(radio_of(engine, 1).load_level, 255u);
  fill(engine, 1, 0, 4);
  EXPECT_EQ(radio_of(engine, 1).load_level, 255u);
  engine.log().clear();
  associate(engine, 1, 4);
  EXPECT_EQ(radio_of(engine, 1).load_level, 127u);
  EXPECT_TRUE(engine.log().has(
      LogLevel::Debug,
      "Ap(00:11:22:00:01:00) priority changed to 127 (was 255), need to update lists on aps;"));
  EXPECT_TRUE(
      engine.log().has(LogLevel::Debug, "Planning 802.11v optimization (without timer restart)"));
  fill(engine, 1, 5, 14);
  EXPECT_EQ(radio_of(engine, 1).load_level, 127u);
  associate(engine, 1, 19);
  EXPECT_EQ(radio_of(engine, 1).load_level, 0u);
  disassociate(engine, 1, 19);
  EXPECT_EQ(radio_of(engine, 1).load_level, 127u);
}

TEST(RadioPriority, IsFollowedEverySecondToo) {
  Engine engine(steering_config());
  engine.subscribe(1, all_radios({steering_radio()}));
  for (int i = 0; i < 5; ++i) {
    radio_of(engine, 1).assoc_clients.add_client(mac_of(client_mac(i)), -50, "office", false,
                                                 false);
  }
  engine.pass(1);
  EXPECT_EQ(radio_of(engine, 1).load_level, 127u);
  EXPECT_TRUE(engine.worker().load_balancer_80211v().lists_pending());
}

TEST(RadioPriority, OfALockedRadioIsFollowedToo) {
  Engine engine(steering_config());
  RadioSpec locked = steering_radio();
  locked.locked_80211v = 1;
  engine.subscribe(1, all_radios({locked}));
  for (int i = 0; i < 5; ++i) {
    radio_of(engine, 1).assoc_clients.add_client(mac_of(client_mac(i)), -50, "office", false,
                                                 false);
  }
  engine.pass(1);
  EXPECT_EQ(radio_of(engine, 1).load_level, 127u);
}

// --- associations

TEST(Association80211v, IsLoggedAndStored) {
  Engine engine(steering_config());
  engine.subscribe(1, all_radios({steering_radio()}));
  associate(engine, 1, 7, ",\"no-balance\":1");
  EXPECT_TRUE(engine.log().has(LogLevel::Debug,
                               "process_message balancer rrm-client-assoc for " + ap_mac(1)));
  EXPECT_TRUE(engine.log().has(
      LogLevel::Debug,
      "Assocc client 02:aa:00:00:00:07 rssi -50 radio_id 0 ssid office (ap 00:11:22:00:01:00)"));
  const AssocClient* client = radio_of(engine, 1).assoc_clients.find(mac_of(client_mac(7)));
  ASSERT_NE(client, nullptr);
  EXPECT_EQ(client->dbm_signal, -50);
  EXPECT_EQ(client->ssid, "office");
  EXPECT_TRUE(client->no_balance);
  EXPECT_TRUE(engine.rrm().take("rrm-client-assoc-ack").empty());
}

TEST(Association80211v, TakesTheClientFromEveryOtherAccessPoint) {
  Engine engine(steering_config());
  subscribe_all(engine, 3);
  associate(engine, 1, 7);
  associate(engine, 2, 7);
  EXPECT_TRUE(engine.log().has(
      LogLevel::Debug,
      "Assoc: removing client(02:aa:00:00:00:07) from AP(00:11:22:00:01:00) assoc clients list"));
  EXPECT_EQ(radio_of(engine, 1).assoc_clients.find(mac_of(client_mac(7))), nullptr);
  EXPECT_NE(radio_of(engine, 2).assoc_clients.find(mac_of(client_mac(7))), nullptr);
}

TEST(Association80211v, OnAnUnknownOrDisabledRadioIsSkipped) {
  Engine engine(steering_config());
  engine.subscribe(1, all_radios({steering_radio()}));
  engine.receive("rrm-client-assoc", 1, 101,
                 "\"radio\":3,\"sta-mac\":\"02:00:00:00:00:01\",\"ssid\":\"office\"");
  EXPECT_TRUE(engine.log().has(
      LogLevel::Warning,
      "Skip 802.11v assoc for invalid/disabled radio_id=3 (ap 00:11:22:00:01:00)"));
  engine.receive("rrm-client-disassoc", 1, 101,
                 "\"radio\":1,\"sta-mac\":\"02:00:00:00:00:01\",\"ssid\":\"office\"");
  EXPECT_TRUE(engine.log().has(
      LogLevel::Warning,
      "Skip 802.11v disassoc for invalid/disabled radio_id=1 (ap 00:11:22:00:01:00)"));
}

TEST(Association80211v, WithoutClientOrNetworkIsDropped) {
  Engine engine(steering_config());
  engine.subscribe(1, all_radios({steering_radio()}));
  engine.receive("rrm-client-assoc", 1, 101, R"("radio":0,"ssid":"office")");
  engine.receive("rrm-client-assoc", 1, 101, R"("radio":0,"sta-mac":"02:00:00:00:00:01")");
  EXPECT_TRUE(radio_of(engine, 1).assoc_clients.associated().empty());
}

TEST(Association80211v, NeedsAnAccessPointThatTakesPart) {
  Engine engine(steering_config());
  RadioSpec locked = steering_radio();
  locked.locked_80211v = 1;
  engine.subscribe(1, all_radios({locked}));
  associate(engine, 1, 7);
  EXPECT_TRUE(radio_of(engine, 1).assoc_clients.associated().empty());
}

TEST(Disassociation80211v, IsLoggedAndTakesTheClientAway) {
  Engine engine(steering_config());
  engine.subscribe(1, all_radios({steering_radio()}));
  associate(engine, 1, 7);
  disassociate(engine, 1, 7);
  EXPECT_TRUE(engine.log().has(LogLevel::Debug,
                               "Disassocc client 02:aa:00:00:00:07 (ap 00:11:22:00:01:00)"));
  EXPECT_TRUE(radio_of(engine, 1).assoc_clients.associated().empty());
}

TEST(Association80211v, OfAMillionClientsFillsABoundedTable) {
  Engine engine(steering_config());
  engine.subscribe(1, all_radios({steering_radio()}));
  AssocMap& clients = radio_of(engine, 1).assoc_clients;
  for (std::uint32_t i = 0; i < AssocMap::kMaxClients; ++i) {
    clients.add_client(mac_of("02:bb:00:00:00:00").plus(i), -50, "office", false, false);
  }
  associate(engine, 1, 7);
  EXPECT_EQ(clients.associated().size(), AssocMap::kMaxClients);
  EXPECT_TRUE(
      engine.log().has(LogLevel::Warning, "Client 02:AA:00:00:00:07 refused, the radio has 8192"));
}

TEST(Association80211v, AtAFullTableLeavesTheClientWhereItIsKnown) {
  Engine engine(steering_config());
  subscribe_all(engine, 2);
  associate(engine, 2, 7);
  AssocMap& clients = radio_of(engine, 1).assoc_clients;
  for (std::uint32_t i = 0; i < AssocMap::kMaxClients; ++i) {
    clients.add_client(mac_of("02:bb:00:00:00:00").plus(i), -50, "office", false, false);
  }
  associate(engine, 1, 7);
  EXPECT_NE(radio_of(engine, 2).assoc_clients.find(mac_of(client_mac(7))), nullptr);
}

// --- moves

void roam(Engine& engine, int ap, int client, const std::string& target, int radio = 0) {
  engine.receive("rrm-sta-roam", ap, static_cast<std::uint32_t>(ap + 100),
                 "\"radio\":" + std::to_string(radio) + ",\"sta-mac\":\"" + client_mac(client) +
                     "\",\"target-mac\":\"" + target + "\"");
}

TEST(Roam, MakesTheClientExpectedAtItsTargetUntilItArrives) {
  Engine engine(steering_config());
  subscribe_all(engine, 2);
  associate(engine, 1, 7);
  roam(engine, 1, 7, ap_mac(2));
  EXPECT_TRUE(engine.log().has(
      LogLevel::Warning, "New expected sta(02:aa:00:00:00:07) added to AP(00:11:22:00:02:00)"));
  const auto& expected = radio_of(engine, 2).expected_roams;
  ASSERT_EQ(expected.size(), 1u);
  EXPECT_EQ(expected.at(mac_of(client_mac(7))), std::pair(mac_of(ap_mac(1)), 0));
  associate(engine, 2, 7);
  EXPECT_TRUE(expected.empty());
  EXPECT_TRUE(engine.log().has(
      LogLevel::Debug,
      "Assoc: client(02:aa:00:00:00:07) was roamed by 802.11v, removing from expected list"));
}

TEST(Roam, NamesItsTargetByAnyAddressOfIt) {
  const std::string other_radio = "00:11:22:00:02:10";
  for (const std::string& target : {other_radio, mac_of(other_radio).twin().lower().str()}) {
    Engine engine(steering_config());
    engine.subscribe(1, all_radios({steering_radio()}));
    engine.subscribe(2, all_radios({steering_radio(0), steering_radio(1, 44)}));
    roam(engine, 1, 7, target);
    EXPECT_EQ(radio_of(engine, 2).expected_roams.size(), 1u) << target;
  }
}

TEST(Roam, ToAnUnknownAccessPointOrRadioIsReported) {
  Engine engine(steering_config());
  subscribe_all(engine, 2);
  roam(engine, 1, 7, "66:00:00:00:00:01");
  EXPECT_TRUE(engine.log().has(LogLevel::Error, "No target ap with mac 66:00:00:00:00:01"));
  roam(engine, 1, 7, ap_mac(2), 1);
  EXPECT_TRUE(engine.log().has(
      LogLevel::Warning,
      "Skip 802.11v roam: target radio_id=1 invalid/disabled for ap=00:11:22:00:02:00"));
}

TEST(Roam, OfAClientWhoseAddressDoesNotScanIsDroppedBehindTheTests) {
  Engine engine(steering_config());
  subscribe_all(engine, 2);
  const auto roam_nameless = [&](const std::string& target, int radio) {
    engine.receive("rrm-sta-roam", 1, 101,
                   "\"radio\":" + std::to_string(radio) + R"(,"sta-mac":"no mac","target-mac":")" +
                       target + "\"");
  };
  roam_nameless("66:00:00:00:00:01", 0);
  EXPECT_TRUE(engine.log().has(LogLevel::Error, "No target ap with mac 66:00:00:00:00:01"));
  roam_nameless(ap_mac(2), 1);
  EXPECT_TRUE(engine.log().has(
      LogLevel::Warning,
      "Skip 802.11v roam: target radio_id=1 invalid/disabled for ap=00:11:22:00:02:00"));
  roam_nameless(ap_mac(2), 0);
  EXPECT_TRUE(radio_of(engine, 2).expected_roams.empty());
}

TEST(Roam, OfTooManyClientsIsRefused) {
  Engine engine(steering_config());
  subscribe_all(engine, 2);
  for (std::uint32_t i = 0; i < AssocMap::kMaxClients; ++i) {
    radio_of(engine, 2).expected_roams[mac_of("02:bb:00:00:00:00").plus(i)] = {};
  }
  roam(engine, 1, 7, ap_mac(2));
  EXPECT_EQ(radio_of(engine, 2).expected_roams.size(), AssocMap::kMaxClients);
  EXPECT_TRUE(engine.log().has(LogLevel::Warning,
                               "Too many expected clients on radio 0 of AP(00:11:22:00:02:00)"));
}

// --- lists

std::string entry(int ap, int channel, int priority, const std::string& last = "00") {
  const std::string mac = "00:11:22:00:0" + std::to_string(ap) + ":" + last;
  return "{\"neighbour-mac\":\"" + mac + "\",\"channel\":" + std::to_string(channel) +
         ",\"band\":5,\"bandwidth\":20,\"primary-channel\":\"none\",\"priority\":" +
         std::to_string(priority) + ",\"vaps\":[{\"id\":0,\"ssid\":\"office\",\"mac\":\"" + mac +
         "\"}]}";
}

/// The "802dot11k" member of a message; empty when it has none.
std::string list_of(const std::string& message) {
  const JsonReader document(message.c_str());
  const JsonReader config = document.child("config");
  return config.has("802dot11k") ? config.child("802dot11k").c_str() : "";
}

TEST(Lists80211v, CarryPrioritiesAndGoOutOnlyWhenTheyChange) {
  Engine engine(steering_config());
  subscribe_all(engine, 2);
  auto& balancer = engine.worker().load_balancer_80211v();
  engine.rrm().take();
  balancer.planning_update_802dot11v(true);
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Planning 802.11v optimization (timer restarted)"));
  engine.pass(19);
  EXPECT_TRUE(sent_lists(engine.rrm().take()).empty());
  engine.pass(1);
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "802.11v optimization started for each AP"));
  auto lists = sent_lists(engine.rrm().take());
  EXPECT_EQ(lists[101], "[{\"id\":0,\"band5\":[" + entry(2, 44, 255) + "]}]");
  EXPECT_EQ(lists[102], "[{\"id\":0,\"band5\":[" + entry(1, 40, 255) + "]}]");
  EXPECT_TRUE(engine.log().has(LogLevel::Debug,
                               "802.11kv list has changed (or has no actual lists after reboot) on "
                               "00:11:22:00:01:00, sending new 802.11kv list"));
  EXPECT_FALSE(balancer.lists_pending());

  engine.log().clear();
  fill(engine, 2, 0, 5);
  EXPECT_TRUE(balancer.lists_pending());
  engine.pass(20);
  lists = sent_lists(engine.rrm().take());
  EXPECT_EQ(lists[101], "[{\"id\":0,\"band5\":[" + entry(2, 44, 127) + "]}]");
  EXPECT_EQ(lists[102], "");
  EXPECT_TRUE(engine.log().has(LogLevel::Debug,
                               "802.11kv list has not changed on 00:11:22:00:02:00, no need to "
                               "send new one"));
}

TEST(Lists80211v, AreAlwaysPartOfASubscription) {
  Engine engine(steering_config());
  subscribe_all(engine, 2);
  for (int i = 0; i < 2; ++i) {
    engine.rrm().take();
    engine.subscribe(1, all_radios({steering_radio(0, 40)}));
    EXPECT_EQ(list_of(engine.rrm().take("subscribe-response").at(0)),
              "[{\"id\":0,\"band5\":[" + entry(2, 44, 255) + "]}]");
  }
}

TEST(Lists80211v, GroupNeighboursByOwnRadioAndBand) {
  Engine engine(steering_config());
  engine.subscribe(1, all_radios({steering_radio(0, 36), steering_radio(1, 1, 2)}));
  engine.subscribe(
      2, all_radios({steering_radio(0, 44), steering_radio(1, 6, 2), steering_radio(2, 37, 6)}));
  for (int id = 0; id < 3; ++id) {
    engine.ap(1)->visible_members[engine.ap(2)->get_radio_mac(id)] = {};
  }
  engine.rrm().take();
  engine.worker().load_balancer_80211v().force_optimization();
  const JsonReader lists(sent_lists(engine.rrm().take())[101].c_str());
  ASSERT_EQ(lists.size(), 2u);
  for (int own = 0; own < 2; ++own) {
    const JsonReader object = lists.child(own);
    EXPECT_EQ(object.get_int("id"), own);
    // The own other radio is a neighbour too.
    EXPECT_EQ(object.child("band2").size(), own == 0 ? 2u : 1u);
    EXPECT_EQ(object.child("band5").size(), own == 0 ? 1u : 2u);
    EXPECT_EQ(object.child("band6").size(), 1u);
    EXPECT_EQ(std::string(object.child("band6").child(0).get_str("neighbour-mac")),
              "00:11:22:00:02:20");
  }
}

TEST(Lists80211v, OfAReturningAccessPointNameItsOwnOtherRadio) {
  Engine engine(steering_config());
  const auto radios = all_radios({steering_radio(0), steering_radio(1, 44)});
  engine.subscribe(1, radios);
  const std::string before = list_of(engine.rrm().take("subscribe-response").at(0));
  EXPECT_EQ(before, "[{\"id\":0,\"band5\":[" + entry(1, 44, 255, "10") +
                        "]},{\"id\":1,\"band5\":[" + entry(1, 36, 255) + "]}]");
  engine.close_session(101);
  engine.subscribe(1, radios, 7);
  EXPECT_EQ(list_of(engine.rrm().take("subscribe-response").at(0)), before);
}

TEST(Lists80211v, NeverNameForeignNetworks) {
  Engine engine(steering_config());
  RadioSpec two = steering_radio();
  two.vaps.push_back({.id = 1, .ssid = "lab", .v = true});
  two.vaps.push_back({.id = 2, .ssid = "plain"});
  RadioSpec other = two;
  other.vaps[1].ssid = "guest";
  engine.subscribe(1, all_radios({two}));
  engine.subscribe(2, all_radios({other}));
  engine.ap(1)->visible_members[engine.ap(2)->base_mac] = {};
  engine.rrm().take();
  engine.worker().load_balancer_80211v().force_optimization();
  EXPECT_EQ(sent_lists(engine.rrm().take())[101],
            "[{\"id\":0,\"band5\":[" + entry(2, 36, 255) + "]}]");
}

TEST(Lists80211v, NeedAFlagOnBothSides) {
  struct Case {
    VapSpec own;
    VapSpec other;
    bool listed;
  };
  const std::vector<Case> cases = {
      {{.k = true}, {.k = true}, true},  {{.v = true}, {.v = true}, true},
      {{.k = true}, {.v = true}, true},  {{.v = true}, {.k = true}, true},
      {{.v = true}, {.r = true}, false}, {{.v = true}, {}, false},
      {{.r = true}, {.v = true}, false},
  };
  for (std::size_t i = 0; i < cases.size(); ++i) {
    Engine engine(steering_config());
    RadioSpec own = steering_radio();
    own.vaps = {cases[i].own, {.id = 1, .ssid = "lab", .v = true}};
    RadioSpec other = steering_radio();
    other.vaps = {cases[i].other, {.id = 1, .ssid = "guest", .v = true}};
    engine.subscribe(1, all_radios({own}));
    engine.subscribe(2, all_radios({other}));
    engine.ap(1)->visible_members[engine.ap(2)->base_mac] = {};
    engine.rrm().take();
    engine.worker().load_balancer_80211v().force_optimization();
    EXPECT_EQ(sent_lists(engine.rrm().take())[101],
              cases[i].listed ? "[{\"id\":0,\"band5\":[" + entry(2, 36, 255) + "]}]"
                              : "")  // as the subscription had it
        << i;
  }
}

TEST(Lists80211v, AreOnlyForOwnRadiosThatAreNotLocked) {
  Engine engine(steering_config());
  RadioSpec locked = steering_radio(1, 44);
  locked.locked_80211v = 1;
  engine.subscribe(1, all_radios({steering_radio(0), locked}));
  // The locked radio's VAPs keep 802.11k, so it is a neighbour, but it gets no list.
  EXPECT_EQ(list_of(engine.rrm().take("subscribe-response").at(0)),
            "[{\"id\":0,\"band5\":[" + entry(1, 44, 255, "10") + "]}]");
}

TEST(Lists80211v, NeverNameDisabledRadios) {
  DomainConfig config = steering_config();
  config.use_all_ap_balance = true;
  Engine engine(config);
  RadioSpec disabled = steering_radio(1, 44);
  disabled.status = 0;
  engine.subscribe(1, all_radios({steering_radio()}));
  engine.subscribe(2, all_radios({steering_radio(), disabled}));
  engine.rrm().take();
  engine.worker().load_balancer_80211v().force_optimization();
  EXPECT_EQ(sent_lists(engine.rrm().take())[101],
            "[{\"id\":0,\"band5\":[" + entry(2, 36, 255) + "]}]");
}

TEST(Lists80211v, CountTheirEntriesPerBand) {
  DomainConfig config = steering_config();
  config.use_all_ap_balance = true;
  Engine engine(config);
  for (int n = 1; n <= 40; ++n) {
    engine.subscribe(n, all_radios({steering_radio(0), steering_radio(1, 1, 2)}));
  }
  engine.rrm().take();
  engine.worker().load_balancer_80211v().force_optimization();
  const JsonReader lists(sent_lists(engine.rrm().take())[101].c_str());
  EXPECT_EQ(lists.child(0).child("band2").size(), 40u);
  EXPECT_EQ(lists.child(0).child("band5").size(), 39u);
}

/// Ten access points with one or two radios in three networks, some of which hear each other.
void subscribe_at_random(Engine& engine, std::mt19937& random) {
  constexpr int kAps = 10;
  const auto pick = [&](unsigned count) { return static_cast<int>(random() % count); };
  for (int n = 1; n <= kAps; ++n) {
    std::vector<RadioSpec> radios;
    for (int id = 0; id <= pick(2); ++id) {
      RadioSpec radio = steering_radio(id, id == 0 ? 36 : 1, id == 0 ? 5 : 2);
      radio.vaps = {{.id = 0, .ssid = "office", .k = true, .v = true}};
      if (pick(2) == 0) radio.vaps.push_back({.id = 1, .ssid = "lab", .k = true, .v = true});
      if (pick(2) == 0) radio.vaps.push_back({.id = 2, .ssid = "plain"});
      radios.push_back(radio);
    }
    engine.subscribe(n, all_radios(radios));
  }
  for (int n = 1; n <= kAps; ++n) {
    for (int other = 1; other <= kAps; ++other) {
      if (other == n || pick(3) == 0) continue;
      for (int id = 0; id < 2; ++id) {
        engine.ap(n)->visible_members[engine.ap(other)->get_radio_mac(id)] = {-60, 36, 5, 20, 15};
      }
    }
  }
}

TEST(Lists80211v, NameEveryPairThatHearsEachOtherAndNoForeignNetwork) {
  for (unsigned seed = 1; seed <= 10; ++seed) {
    std::mt19937 random(seed);
    Engine engine(steering_config());
    subscribe_at_random(engine, random);
    engine.rrm().take();
    engine.worker().load_balancer_80211v().force_optimization();
    audit_lists(engine, 10, sent_lists(engine.rrm().take()));
  }
}

TEST(Lists80211k, NameEveryPairThatHearsEachOtherAndNoForeignNetwork) {
  for (unsigned seed = 1; seed <= 10; ++seed) {
    std::mt19937 random(seed);
    DomainConfig config = Engine::quiet_config();
    config.use_80211k = true;
    Engine engine(config);
    subscribe_at_random(engine, random);
    engine.rrm().take();
    engine.worker().tpc_dca().update_802dot11k();
    EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Update  domain site"));
    EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Planning update 802dot11k domain site"));
    engine.pass(19);
    EXPECT_TRUE(engine.rrm().take().empty());
    engine.pass(1);
    EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Process update 802dot11k domain site"));
    audit_lists(engine, 10, sent_lists(engine.rrm().take()));
  }
}

TEST(Lists80211v, LeaveOutThe65thNeighbourOfANetwork) {
  DomainConfig config = steering_config();
  config.use_all_ap_balance = true;
  Engine engine(config);
  for (int n = 1; n <= 67; ++n) engine.subscribe(n, all_radios({steering_radio()}));
  engine.rrm().take();
  engine.log().clear();
  engine.worker().load_balancer_80211v().force_optimization();
  const JsonReader list(sent_lists(engine.rrm().take())[101].c_str());
  EXPECT_EQ(list.child(0).child("band5").size(), 64u);
  EXPECT_EQ(engine.log().count(LogLevel::Error,
                               "On mac(00:11:22:00:01:00) radio(0) number of entries for "
                               "ssid(office) exceded limit(64)"),
            2u);
}

TEST(Lists80211v, WaitWhileARoundMeasures) {
  Engine engine(steering_config());
  subscribe_all(engine, 2);
  engine.rrm().take();
  engine.worker().set_load_balancer_lock(true);
  auto& balancer = engine.worker().load_balancer_80211v();
  balancer.planning_update_802dot11v(true);
  engine.pass(20);
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Load balancer is blocked"));
  EXPECT_TRUE(sent_lists(engine.rrm().take()).empty());
  EXPECT_TRUE(balancer.lists_pending());
  engine.worker().set_load_balancer_lock(false);
  engine.pass(20);
  EXPECT_EQ(sent_lists(engine.rrm().take()).size(), 2u);
  EXPECT_FALSE(balancer.lists_pending());
}

TEST(Lists80211v, ThatAreForcedWhileARoundMeasuresFollowIt) {
  Engine engine(steering_config());
  subscribe_all(engine, 2);
  engine.rrm().take();
  auto& balancer = engine.worker().load_balancer_80211v();
  engine.worker().set_load_balancer_lock(true);
  balancer.force_optimization();
  EXPECT_TRUE(balancer.lists_pending());
  engine.worker().set_load_balancer_lock(false);
  engine.pass(20);
  EXPECT_EQ(sent_lists(engine.rrm().take()).size(), 2u);
}

TEST(Lists80211v, AreForAnAccessPointThatHas80211kOnlyToo) {
  DomainConfig config = steering_config();
  config.use_80211k = true;
  Engine engine(config);
  RadioSpec radio = steering_radio();
  radio.vaps[0].v = false;
  engine.subscribe(1, all_radios({radio}));
  EXPECT_EQ(list_of(engine.rrm().take("subscribe-response").at(0)), "[{\"id\":0}]");
}

TEST(Lists80211v, ArePutOffOnlyByARestart) {
  Engine engine(steering_config());
  subscribe_all(engine, 1);
  auto& balancer = engine.worker().load_balancer_80211v();
  engine.rrm().take();
  radio_of(engine, 1).changed = true;
  balancer.planning_update_802dot11v(false);
  engine.pass(15);
  balancer.planning_update_802dot11v(false);
  EXPECT_TRUE(radio_of(engine, 1).changed);
  engine.pass(5);
  EXPECT_EQ(engine.rrm().take("rrm-info").size(), 1u);
  EXPECT_FALSE(radio_of(engine, 1).changed);
  balancer.planning_update_802dot11v(false);
  engine.pass(15);
  balancer.planning_update_802dot11v(true);
  engine.pass(19);
  EXPECT_TRUE(engine.rrm().take("rrm-info").empty());
  engine.pass(1);
  EXPECT_EQ(engine.rrm().take("rrm-info").size(), 1u);
}

TEST(Lists80211v, AreNotPlannedWithout80211v) {
  Engine engine;
  engine.worker().load_balancer_80211v().planning_update_802dot11v(true);
  EXPECT_FALSE(engine.worker().load_balancer_80211v().lists_pending());
}

// --- overload

std::string overload(int ap, int count) {
  return "{\"service\":\"rrm\",\"version\":\"2.4\",\"cmd\":\"rrm-sta-overload\",\"ap-mac\":"
         "\"00:11:22:00:0" +
         std::to_string(ap) +
         ":00\",\"radios\":[{\"id\":0,\"roam-count\":" + std::to_string(count) + "}]}";
}

struct OverloadCase {
  const char* name;
  int own;
  int neighbour;
  int expected;  ///< clients on their way to the own radio
  int count;     ///< clients to move; 0 for no message
};

class Overload : public testing::TestWithParam<OverloadCase> {};

TEST_P(Overload, MovesWhatExceedsTheAverage) {
  const OverloadCase& test = GetParam();
  Engine engine(steering_config());
  subscribe_all(engine, 2);
  fill(engine, 1, 0, test.own);
  fill(engine, 2, 100, test.neighbour);
  for (int i = 0; i < test.expected; ++i) {
    radio_of(engine, 1).expected_roams[mac_of(client_mac(200 + i))] = {};
  }
  engine.rrm().take();
  engine.worker().load_balancer_80211v().force_optimization();
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Forced 802.11v optimization;"));
  EXPECT_EQ(engine.rrm().take("rrm-sta-overload"),
            test.count == 0 ? Texts{} : Texts{overload(1, test.count)});
}

INSTANTIATE_TEST_SUITE_P(
    Case, Overload,
    testing::Values(OverloadCase{"ExcessOfTheMinimumMovesNobody", 8, 4, 0, 0},   // 8 - 6 = 2.0
                    OverloadCase{"FractionsAreCutOff", 9, 4, 0, 2},              // 9 - 6.5 = 2.5
                    OverloadCase{"ThreeOfThree", 10, 4, 0, 3},                   // 10 - 7 = 3
                    OverloadCase{"AtMostTheMaximum", 14, 4, 0, 4},               // 14 - 9 = 5
                    OverloadCase{"ExpectedClientsRaiseTheAverage", 9, 4, 1, 0},  // 9 - 7 = 2
                    OverloadCase{"LowLoadIsNoOverload", 5, 0, 0, 0},
                    OverloadCase{"AFullNeighbourTakesNobody", 40, 20, 0, 0}),
    [](const auto& test) { return test.param.name; });

TEST(OverloadLog, CountsWhatTheLastListFoundThoughItWasNotSent) {
  Engine engine(steering_config());
  subscribe_all(engine, 2);
  fill(engine, 1, 0, 15);
  fill(engine, 2, 100, 5);
  auto& balancer = engine.worker().load_balancer_80211v();
  balancer.force_optimization();
  fill(engine, 2, 105, 4);  // the same priority
  engine.log().clear();
  balancer.force_optimization();
  EXPECT_TRUE(engine.log().has(LogLevel::Debug,
                               "802.11kv list has not changed on 00:11:22:00:01:00, no need to "
                               "send new one"));
  EXPECT_TRUE(engine.log().has(
      LogLevel::Debug, "AP(00:11:22:00:01:00): radio 0: total clients 24, nonzero prio aps 2;"));
}

TEST(OverloadLog, LeavesAccessPointsOutThatTakeNoPart) {
  Engine engine(steering_config());
  RadioSpec radio = steering_radio();
  radio.vaps[0].v = false;
  engine.subscribe(1, all_radios({radio}));
  engine.worker().load_balancer_80211v().force_optimization();
  EXPECT_FALSE(
      engine.log().has(LogLevel::Debug, "AP(00:11:22:00:01:00): no radios need load balance"));
}

TEST(OverloadLog, LeavesOwnOtherRadiosOut) {
  Engine engine(steering_config());
  engine.subscribe(1, all_radios({steering_radio(0), steering_radio(1, 1, 2)}));
  fill(engine, 1, 0, 9);
  engine.worker().load_balancer_80211v().force_optimization();
  EXPECT_TRUE(engine.log().has(LogLevel::Debug,
                               "AP(00:11:22:00:01:00): radio 0: no neighbor aps with nonzero "
                               "priority, skip roam count"));
}

TEST(OverloadLog, TellsWhyARadioTakesNoPart) {
  for (const bool locked : {true, false}) {
    Engine engine(steering_config());
    engine.subscribe(1, all_radios({steering_radio(0), steering_radio(1, 44)}));
    fill(engine, 1, 0, 9);
    AssocMap& clients = radio_of(engine, 1, 1).assoc_clients;
    for (int i = 100; i < 109; ++i) {
      clients.add_client(mac_of(client_mac(i)), -50, "office", false, false);
    }
    // As after a message that leaves the VAPs alone.
    if (locked) radio_of(engine, 1, 1).locked_for_80211v = 1;
    if (!locked) radio_of(engine, 1, 1).status = false;
    engine.worker().load_balancer_80211v().force_optimization();
    EXPECT_TRUE(engine.log().has(
        LogLevel::Debug,
        "AP(00:11:22:00:01:00): radio 1: skip roam count (use_balance=1 use_80211v=1 status=" +
            std::to_string(locked) + " need_balance=0)"));
  }
}

TEST(OverloadLog, TellsThatBalancingIsOff) {
  DomainConfig config = Engine::quiet_config();
  config.use_80211v = true;
  Engine engine(config);
  subscribe_all(engine, 2);
  engine.log().clear();
  engine.worker().load_balancer_80211v().force_optimization();
  EXPECT_TRUE(
      engine.log().has(LogLevel::Debug, "Skip optimize_clients (use_80211v=1 use_balance=0)"));
}

TEST(OverloadLog, TellsTheFigures) {
  Engine engine(steering_config());
  subscribe_all(engine, 2);
  fill(engine, 1, 0, 9);
  fill(engine, 2, 100, 4);
  engine.worker().load_balancer_80211v().force_optimization();
  EXPECT_TRUE(engine.log().has(
      LogLevel::Debug, "AP(00:11:22:00:01:00): radio 0: total clients 13, nonzero prio aps 2;"));
  EXPECT_TRUE(engine.log().has(
      LogLevel::Debug,
      "Sending overload msg to 00:11:22:00:01:00 (roam 2 clients; avg_count = 6.500)"));
  EXPECT_TRUE(
      engine.log().has(LogLevel::Debug, "AP(00:11:22:00:02:00): no radios need load balance"));
  EXPECT_TRUE(engine.log().has(
      LogLevel::Debug,
      "AP(00:11:22:00:01:00): radio 1: skip roam count (use_balance=1 use_80211v=0 status=0 "
      "need_balance=0)"));
  disassociate(engine, 1, 0);
  engine.worker().load_balancer_80211v().force_optimization();
  EXPECT_TRUE(engine.log().has(LogLevel::Debug,
                               "AP(00:11:22:00:01:00): radio 0: roam count 2.000 below min 2"));
}

TEST(OverloadLog, CountsClientsOnTheirWayOnBothSides) {
  Engine engine(steering_config());
  subscribe_all(engine, 2);
  fill(engine, 1, 0, 8);
  fill(engine, 2, 100, 2);
  const auto expect = [&](int ap, int client) {
    radio_of(engine, ap).assoc_clients.expect_client(mac_of(client_mac(client)), {}, 0, 5);
  };
  for (int i = 0; i < 2; ++i) expect(1, 300 + i);
  expect(2, 400);
  engine.worker().load_balancer_80211v().force_optimization();
  EXPECT_TRUE(engine.log().has(
      LogLevel::Debug, "AP(00:11:22:00:01:00): radio 0: total clients 13, nonzero prio aps 2;"));
  // 10 - (3 + 10) / 2
  EXPECT_TRUE(engine.log().has(
      LogLevel::Debug,
      "Sending overload msg to 00:11:22:00:01:00 (roam 3 clients; avg_count = 6.500)"));
}

TEST(OverloadLog, TellsThatNoNeighbourIsFree) {
  Engine engine(steering_config());
  subscribe_all(engine, 1);
  fill(engine, 1, 0, 9);
  engine.worker().load_balancer_80211v().force_optimization();
  EXPECT_TRUE(engine.log().has(LogLevel::Debug,
                               "AP(00:11:22:00:01:00): radio 0: no neighbor aps with nonzero "
                               "priority, skip roam count"));
}

TEST(OverloadPeriod, IsAMinuteAndWaitsForPendingLists) {
  Engine engine(steering_config());
  subscribe_all(engine, 2);
  fill(engine, 1, 0, 14);
  engine.rrm().take();
  engine.pass(59);
  EXPECT_TRUE(engine.rrm().take("rrm-sta-overload").empty());
  engine.pass(1);
  EXPECT_EQ(engine.rrm().take("rrm-sta-overload"), (Texts{overload(1, 4)}));
  engine.pass(55);
  engine.worker().load_balancer_80211v().planning_update_802dot11v(true);
  engine.log().clear();
  engine.pass(5);
  EXPECT_TRUE(engine.rrm().take("rrm-sta-overload").empty());
  EXPECT_TRUE(
      engine.log().has(LogLevel::Debug, "Skip optimize_clients (use_80211v=1 use_balance=1)"));
  // The lists go out 20 s after they were planned, and what waited for them follows.
  engine.pass(14);
  EXPECT_TRUE(engine.rrm().take("rrm-sta-overload").empty());
  engine.pass(1);
  const auto sent = engine.rrm().take();
  ASSERT_EQ(sent.size(), 3u);
  EXPECT_EQ(sent[2].text, overload(1, 4));
  EXPECT_EQ(sent[2].session, 101u);
  // The period goes on as it was.
  engine.pass(44);
  EXPECT_TRUE(engine.rrm().take("rrm-sta-overload").empty());
  engine.pass(1);
  EXPECT_EQ(engine.rrm().take("rrm-sta-overload"), (Texts{overload(1, 4)}));
}

TEST(OverloadPeriod, IsServedAlsoInADomainWhoseListsAreAlwaysDue) {
  Engine engine(steering_config());
  subscribe_all(engine, 2);
  fill(engine, 1, 0, 14);
  engine.rrm().take();
  std::size_t messages = 0;
  for (int second = 0; second < 600; ++second) {
    // Access point 2 changes its priority with every second.
    if (second % 2 == 0) fill(engine, 2, 100, 5);
    if (second % 2 == 1) disassociate(engine, 2, 100);
    engine.pass(1);
    messages += engine.rrm().take("rrm-sta-overload").size();
  }
  EXPECT_EQ(messages, 10u) << "once a minute";
}

TEST(OverloadPeriod, ThatWaitsIsServedOnceByAForcedOptimisation) {
  Engine engine(steering_config());
  subscribe_all(engine, 2);
  fill(engine, 1, 0, 14);
  engine.pass(55);
  auto& balancer = engine.worker().load_balancer_80211v();
  balancer.planning_update_802dot11v(true);
  engine.pass(5);
  engine.rrm().take();
  balancer.force_optimization();
  EXPECT_EQ(engine.rrm().take("rrm-sta-overload"), (Texts{overload(1, 4)}));
  engine.pass(20);
  EXPECT_TRUE(engine.rrm().take("rrm-sta-overload").empty());
}

TEST(OverloadPeriod, Of0IsSwitchedOff) {
  DomainConfig config = steering_config();
  config.sta_load_balance_period = 0;
  Engine engine(config);
  subscribe_all(engine, 2);
  fill(engine, 1, 0, 14);
  engine.rrm().take();
  engine.pass(600);
  EXPECT_TRUE(engine.rrm().take("rrm-sta-overload").empty());
}

TEST(OverloadPeriod, WaitsForARoundOnlyWhileListsAreDue) {
  Engine engine(steering_config());
  subscribe_all(engine, 2);
  fill(engine, 1, 0, 14);
  engine.pass(30);
  engine.rrm().take();
  engine.worker().set_load_balancer_lock(true);
  engine.pass(30);
  EXPECT_EQ(engine.rrm().take("rrm-sta-overload"), (Texts{overload(1, 4)}));
  engine.worker().load_balancer_80211v().planning_update_802dot11v(false);
  engine.pass(70);
  EXPECT_TRUE(engine.rrm().take("rrm-sta-overload").empty());
  engine.worker().set_load_balancer_lock(false);
  engine.pass(20);
  EXPECT_EQ(engine.rrm().take("rrm-sta-overload"), (Texts{overload(1, 4)}));
}

}  // namespace
}  // namespace rrm::test
