#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "server/lib/AssocMap.h"
#include "server/lib/LoadBalancer802dot11vSubworker.h"
#include "server/lib/LoadBalancerSubworker.h"
#include "tests/support/Balancing.h"

/// What access points may not do to a domain with messages about clients.
namespace rrm::test {
namespace {

struct Command {
  const char* name;
  const char* members;  ///< sensible ones, of client 7 at radio 0
};

constexpr Command kCommands[] = {
    {"rrm-client-assoc",
     R"("radio":0,"rssi":-50,"sta-mac":"02:aa:00:00:00:07","ssid":"office","need-ack":1)"},
    {"rrm-client-disassoc", R"("radio":0,"sta-mac":"02:aa:00:00:00:07","ssid":"office")"},
    {"rrm-assoc-state-changed",
     R"("radio":0,"rssi":-80,"sta-mac":"02:aa:00:00:00:07","ssid":"office","state":"stable")"},
    {"rrm-probe-response",
     R"("radios":[{"id":0,"probe-list":[{"mac":"02:aa:00:00:00:07","ssid":"office","rssi":-50}]}])"},
    {"rrm-sta-roam", R"("radio":0,"sta-mac":"02:aa:00:00:00:07","target-mac":"00:11:22:00:02:00")"},
    {"rrm-disassoc-all-clients", ""},
};

/// What takes the place of every sensible value in turn.
constexpr const char* kBadValues[] = {
    "null", "-1", "3",       "2147483648", "1e300",     "\"\"",
    "[]",   "{}", "[[[1]]]", "\"no mac\"", "\"00:00\"", "\"\\u0000x\"",
};

DomainConfig both_balancers() {
  DomainConfig config = balance_config();
  config.use_80211v = true;
  return config;
}

/// Two access points with both balancers, client 7 at the first.
void subscribe_two(Engine& engine) {
  for (int n = 1; n <= 2; ++n) {
    RadioSpec radio = balanced_radio();
    radio.vaps[0].k = radio.vaps[0].v = true;
    radio.locked_80211v = 0;
    engine.subscribe(n, {radio});
  }
  engine.receive("rrm-client-assoc", 1, 101, kCommands[0].members);
  engine.rrm().take();
}

/// Puts the value in the place of the n-th value that follows a colon; empty when there is none.
std::string damaged(const std::string& members, std::size_t nth, const std::string& value) {
  std::size_t colon = members.find("\":");
  for (; nth > 0 && colon != std::string::npos; --nth) colon = members.find("\":", colon + 1);
  if (colon == std::string::npos) return {};
  const std::size_t begin = colon + 2;
  const bool text = members[begin] == '"';
  const std::size_t end =
      text ? members.find('"', begin + 1) + 1 : members.find_first_of(",]}", begin);
  if (members[begin] == '[') return members.substr(0, begin) + value;
  return members.substr(0, begin) + value + (end == std::string::npos ? "" : members.substr(end));
}

class ClientMessage : public testing::TestWithParam<Command> {};

TEST_P(ClientMessage, WithOneBadValueDoesNotStopTheDomain) {
  const Command& command = GetParam();
  Engine engine(both_balancers());
  subscribe_two(engine);
  for (std::size_t nth = 0;; ++nth) {
    if (damaged(command.members, nth, "0").empty()) break;
    for (const char* value : kBadValues) {
      engine.receive(command.name, 1, 101, damaged(command.members, nth, value));
      engine.pass(1);
    }
  }
  EXPECT_EQ(engine.log().count(LogLevel::Error, "Exception"), 0u);
  // The next client is served as ever.
  engine.rrm().take();
  engine.receive(
      "rrm-client-assoc", 2, 102,
      R"("radio":0,"rssi":-50,"sta-mac":"02:aa:00:00:00:08","ssid":"office","need-ack":1)");
  EXPECT_EQ(engine.rrm().take("rrm-client-assoc-ack").size(), 1u);
}

TEST_P(ClientMessage, OfAnUnknownAccessPointIsDropped) {
  Engine engine(both_balancers());
  subscribe_two(engine);
  engine.receive(GetParam().name, 9, 109, GetParam().members);
  EXPECT_TRUE(engine.rrm().take().empty());
  EXPECT_FALSE(engine.log().has(LogLevel::Debug, std::string("process_message balancer ") +
                                                     GetParam().name + " for " + ap_mac(9)));
  EXPECT_EQ(radio_of(engine, 1).assoc_clients.count(), 1u);
}

TEST_P(ClientMessage, OfAnAccessPointWhoseSessionIsLostIsDropped) {
  Engine engine(both_balancers());
  subscribe_two(engine);
  engine.close_session(101);
  engine.receive(GetParam().name, 1, 101, GetParam().members);
  EXPECT_TRUE(engine.rrm().take().empty());
  EXPECT_EQ(radio_of(engine, 1).assoc_clients.count(), 0u);
}

TEST_P(ClientMessage, OfAParkedAccessPointIsTaken) {
  Engine engine(both_balancers());
  subscribe_two(engine);
  engine.worker().aps().move_all(engine.worker().unanswered_aps());
  engine.receive(GetParam().name, 1, 101, GetParam().members);
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "To unanswered rrm balancer cmd"));
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, std::string("process_message balancer ") +
                                                    GetParam().name + " for " + ap_mac(1)));
}

INSTANTIATE_TEST_SUITE_P(Every, ClientMessage, testing::ValuesIn(kCommands), [](const auto& test) {
  std::string name;
  for (const char* c = test.param.name; *c != '\0'; ++c) {
    if (*c != '-') name += *c;
  }
  return name;
});

TEST(Clients, OfAForeignNetworkAreKeptButBlockNobody) {
  Engine engine(balance_config());
  engine.subscribe(1, {balanced_radio()});
  engine.subscribe(2, {balanced_radio()});
  engine.rrm().take();
  engine.receive("rrm-client-assoc", 1, 101,
                 R"("radio":0,"rssi":-50,"sta-mac":"02:aa:00:00:00:07","ssid":"foreign")");
  engine.pass(10);
  EXPECT_TRUE(engine.rrm().take().empty());
  EXPECT_EQ(radio_of(engine, 1).assoc_clients.count(), 1u);
}

TEST(Clients, WhoseAddressDoesNotScanAreOneClientOfZeros) {
  Engine engine(balance_config());
  engine.subscribe(1, {balanced_radio()});
  for (const char* mac : {"no mac", "02:aa", "zz:zz:zz:zz:zz:zz"}) {
    engine.receive("rrm-client-assoc", 1, 101,
                   std::string(R"("radio":0,"rssi":-50,"ssid":"office","sta-mac":")") + mac + "\"");
  }
  const AssocMap& clients = radio_of(engine, 1).assoc_clients;
  EXPECT_EQ(clients.count(), 1u);
  EXPECT_NE(clients.find(MacAddress{}), nullptr);
}

TEST(Clients, OfOneAccessPointFillNoMoreThanItsTables) {
  Engine engine(balance_config());
  engine.subscribe(1, {balanced_radio()});
  engine.subscribe(2, {balanced_radio()});
  const auto most = static_cast<int>(AssocMap::kMaxClients);
  for (int client = 0; client < most + 100; ++client) {
    engine.receive(
        "rrm-client-assoc", 1, 101,
        R"("radio":0,"rssi":-50,"ssid":"office","sta-mac":")" + client_mac(client) + "\"");
  }
  EXPECT_EQ(radio_of(engine, 1).assoc_clients.count(), AssocMap::kMaxClients);
  EXPECT_EQ(radio_of(engine, 2).blacklist.members.size(), RadioBlacklist::kMaxMembers);
  EXPECT_EQ(
      engine.log().count(LogLevel::Warning,
                         "Client " + MacAddress::from_text(client_mac(most).c_str()).upper().str() +
                             " refused, the radio has 8192"),
      1u);
}

}  // namespace
}  // namespace rrm::test
