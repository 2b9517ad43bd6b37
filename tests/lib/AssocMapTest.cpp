#include "server/lib/AssocMap.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/CapturedLog.h"
#include "tests/support/FakeClock.h"
#include "tests/support/JsonText.h"

namespace rrm {
namespace {

using test::array_text;
using test::object_text;

const MacAddress kFirst = MacAddress::from_text("AA:00:00:00:00:01");
const MacAddress kSecond = MacAddress::from_text("AA:00:00:00:00:02");
const MacAddress kThird = MacAddress::from_text("AA:00:00:00:00:03");
const MacAddress kAp = MacAddress::from_text("00:11:22:33:44:50");

TEST(AssocMap, CountsTwoAssociatedAndOneExpectedClientAsThree) {
  AssocMap map;
  map.add_client(kFirst, -50, "corp", false, false);
  map.add_client(kSecond, -60, "corp", false, false);
  map.expect_client(kThird, kAp, 1, 5);
  EXPECT_EQ(map.count(), 3u);
}

TEST(AssocMap, ReadsTheListOfAnAccessPoint) {
  AssocMap map;
  map.add_client(kThird, -40, "old", true, true);
  map.from_json(JsonReader(R"([{"mac":"aa:00:00:00:00:01","rssi":-51,"ssid":"corp"},null,
                               {"mac":"AA:00:00:00:00:02","rssi":-62,"ssid":"guest"}])"));
  ASSERT_EQ(map.associated().size(), 2u);
  EXPECT_EQ(map.find(kThird), nullptr);
  const AssocClient* client = map.find(kFirst);
  ASSERT_NE(client, nullptr);
  EXPECT_EQ(client->dbm_signal, -51);
  EXPECT_EQ(client->ssid, "corp");
  EXPECT_EQ(client->since, 0u);
  EXPECT_FALSE(client->no_balance);
  EXPECT_FALSE(client->flag);
  ASSERT_NE(map.find(kSecond), nullptr);
  EXPECT_EQ(map.find(kSecond)->ssid, "guest");
}

TEST(AssocMap, AListWhoseClientLacksAnSsidEmptiesTheAssociatedButKeepsTheExpected) {
  AssocMap map;
  map.add_client(kFirst, -50, "corp", false, false);
  map.expect_client(kSecond, kAp, 0, 5);
  map.from_json(JsonReader(R"([{"mac":"AA:00:00:00:00:01","rssi":-51}])"));
  EXPECT_TRUE(map.associated().empty());
  EXPECT_EQ(map.expected().size(), 1u);
}

TEST(AssocMap, SkipsElementsWithoutMacOrSsidAndOfOtherTypes) {
  AssocMap map;
  map.from_json(JsonReader(R"([{"ssid":"corp"},{"mac":"","ssid":"corp"},{"mac":7,"ssid":"corp"},
                               {"mac":"AA:00:00:00:00:01","ssid":""},
                               {"mac":"AA:00:00:00:00:01","ssid":["corp"]},17,"text",[],{}])"));
  EXPECT_EQ(map.count(), 0u);
}

TEST(AssocMap, AMacListedTwiceKeepsItsFirstEntry) {
  AssocMap map;
  map.from_json(JsonReader(R"([{"mac":"AA:00:00:00:00:01","rssi":-51,"ssid":"corp"},
                               {"mac":"aa:00:00:00:00:01","rssi":-70,"ssid":"guest"}])"));
  ASSERT_NE(map.find(kFirst), nullptr);
  EXPECT_EQ(map.find(kFirst)->dbm_signal, -51);
  EXPECT_EQ(map.find(kFirst)->ssid, "corp");
}

TEST(AssocMap, AMacThatDoesNotScanIsAllZeros) {
  AssocMap map;
  map.from_json(JsonReader(R"([{"mac":"nonsense","rssi":"-51","ssid":"corp"}])"));
  ASSERT_NE(map.find(MacAddress{}), nullptr);
  EXPECT_EQ(map.find(MacAddress{})->dbm_signal, -51);
}

TEST(AssocMap, ANullListChangesNothingAndAnotherTypeCountsAsEmpty) {
  AssocMap map;
  map.add_client(kFirst, -50, "corp", false, false);
  map.from_json(JsonReader());
  map.from_json(JsonReader("null"));
  EXPECT_EQ(map.associated().size(), 1u);
  map.from_json(JsonReader(R"({"mac":"AA:00:00:00:00:02","ssid":"corp"})"));
  EXPECT_EQ(map.associated().size(), 0u);
}

TEST(AssocMap, AddClientNotesTheMonotonicSecondAndReplaces) {
  const test::FakeClock clock(4711);
  AssocMap map;
  map.add_client(kFirst, -50, "corp", false, false);
  map.add_client(kFirst, -60, "guest", true, true);
  const AssocClient* client = map.find(kFirst);
  ASSERT_NE(client, nullptr);
  EXPECT_EQ(client->since, 4711u);
  EXPECT_EQ(client->dbm_signal, -60);
  EXPECT_EQ(client->ssid, "guest");
  EXPECT_TRUE(client->no_balance);
  EXPECT_TRUE(client->flag);
  EXPECT_EQ(map.associated().size(), 1u);
}

TEST(AssocMap, AddClientWithoutSsidKeepsWhatIsThere) {
  AssocMap map;
  map.add_client(kFirst, -50, "corp", false, false);
  map.add_client(kFirst, -60, "", false, false);
  map.add_client(kSecond, -60, "", false, false);
  EXPECT_EQ(map.find(kFirst)->dbm_signal, -50);
  EXPECT_EQ(map.associated().size(), 1u);
}

TEST(AssocMap, ReplaceClientTakesTheClientAsItIs) {
  AssocMap map;
  map.add_client(kFirst, -50, "corp", false, false);
  map.replace_client(kFirst, AssocClient{-77, 12, "", true, false});
  EXPECT_EQ(map.find(kFirst)->dbm_signal, -77);
  EXPECT_EQ(map.find(kFirst)->since, 12u);
  EXPECT_EQ(map.find(kFirst)->ssid, "");
}

TEST(AssocMap, RemoveClientHasNoEffectOnAnAbsentOne) {
  AssocMap map;
  map.add_client(kFirst, -50, "corp", false, false);
  map.remove_client(kSecond);
  EXPECT_EQ(map.count(), 1u);
  map.remove_client(kFirst);
  EXPECT_EQ(map.count(), 0u);
}

TEST(AssocMap, UpdateRssiTakesNegativeReadingsOfAssociatedClientsOnly) {
  AssocMap map;
  map.add_client(kFirst, -50, "corp", false, false);
  EXPECT_FALSE(map.update_rssi(kFirst, 0));
  EXPECT_FALSE(map.update_rssi(kFirst, 3));
  EXPECT_EQ(map.find(kFirst)->dbm_signal, -50);
  EXPECT_FALSE(map.update_rssi(kSecond, -40));
  EXPECT_TRUE(map.update_rssi(kFirst, -1));
  EXPECT_EQ(map.find(kFirst)->dbm_signal, -1);
}

TEST(AssocMap, ExpectClientDoesNothingForAnAssociatedClient) {
  AssocMap map;
  map.add_client(kFirst, -50, "corp", false, false);
  map.expect_client(kFirst, kAp, 1, 5);
  EXPECT_TRUE(map.expected().empty());
}

TEST(AssocMap, ExpectClientReplacesAnEarlierExpectation) {
  AssocMap map;
  map.expect_client(kFirst, kAp, 1, 5);
  map.expect_client(kFirst, kSecond, 2, 3);
  ASSERT_EQ(map.expected().size(), 1u);
  EXPECT_EQ(map.expected().at(kFirst).target_ap, kSecond);
  EXPECT_EQ(map.expected().at(kFirst).radio_id, 2);
  EXPECT_EQ(map.expected().at(kFirst).countdown, 3);
  map.forget_expected(kFirst);
  EXPECT_TRUE(map.expected().empty());
}

TEST(AssocMap, AnExpectedClientWithCountdown5GoesAtTheFifthAging) {
  AssocMap map;
  map.expect_client(kFirst, kAp, 1, 5);
  map.expect_client(kSecond, kAp, 1, 6);
  for (int call = 1; call <= 4; ++call) {
    map.age_expected();
    EXPECT_EQ(map.expected().count(kFirst), 1u) << "call " << call;
  }
  map.age_expected();
  EXPECT_EQ(map.expected().count(kFirst), 0u);
  EXPECT_EQ(map.expected().at(kSecond).countdown, 1);
}

TEST(AssocMap, AgingForgetsExpectationsWithoutTimeLeft) {
  AssocMap map;
  map.expect_client(kFirst, kAp, 1, 0);
  map.expect_client(kSecond, kAp, 1, INT32_MIN);
  map.age_expected();
  EXPECT_TRUE(map.expected().empty());
}

TEST(AssocMap, ClearEmptiesBoth) {
  AssocMap map;
  map.add_client(kFirst, -50, "corp", false, false);
  map.expect_client(kSecond, kAp, 1, 5);
  map.clear();
  EXPECT_EQ(map.count(), 0u);
}

TEST(AssocMap, RefusesOneClientTooMany) {
  AssocMap map;
  for (std::uint32_t i = 0; i < AssocMap::kMaxClients; ++i)
    map.add_client(kFirst.plus(i), -50, "corp", false, false);
  EXPECT_EQ(map.count(), AssocMap::kMaxClients);
  test::CapturedLog log;
  map.add_client(kAp, -50, "corp", false, false);
  EXPECT_EQ(map.find(kAp), nullptr);
  EXPECT_TRUE(log.has(LogLevel::Warning, "Client 00:11:22:33:44:50 refused, the radio has 8192"));
  map.add_client(kFirst, -40, "corp", false, false);  // known ones may still change
  EXPECT_EQ(map.find(kFirst)->dbm_signal, -40);
  map.remove_client(kFirst);
  map.add_client(kAp, -50, "corp", false, false);
  EXPECT_NE(map.find(kAp), nullptr);
}

TEST(AssocMap, TakesNoMoreOfALongListThanARadioCanHave) {
  std::string text = "[";
  for (std::uint32_t i = 0; i < 10000; ++i)
    text += (i > 0 ? "," : "") + std::string("{\"mac\":\"") + kFirst.plus(i).upper().c_str() +
            "\",\"ssid\":\"s\"}";
  AssocMap map;
  test::CapturedLog log;
  map.from_json(JsonReader((text + "]").c_str()));
  EXPECT_EQ(map.count(), AssocMap::kMaxClients);
  EXPECT_EQ(log.texts(LogLevel::Warning).size(), 1u);
}

TEST(AssocMap, DumpsItsCountsAndClients) {
  AssocMap map;
  map.add_client(kFirst, -50, "corp", true, false);
  map.expect_client(kSecond, kAp, 1, 5);
  test::CapturedLog log;
  map.dump();
  EXPECT_THAT(log.texts(LogLevel::Debug),
              testing::ElementsAre("Assocc clients:  1 - 1",
                                   "Client (1/1) AA:00:00:00:00:01 - corp rssi -50 no_balance 1"));
}

TEST(AssocMap, IsWrittenAsAnArrayOfAssociatedClients) {
  AssocMap map;
  map.expect_client(kSecond, kAp, 1, 5);
  const auto text = [&map] { return array_text([&](JsonWriter& array) { map.to_json(array); }); };
  EXPECT_EQ(text(), "[]");
  map.add_client(kFirst, -50, "corp", true, false);
  EXPECT_EQ(text(),
            R"([{"mac":"AA:00:00:00:00:01","dbm-signal":-50,"ssid":"corp","no-balance":1}])");
  EXPECT_EQ(
      object_text([&](JsonWriter& object) { AssocMap::client_to_json(*map.find(kFirst), object); }),
      R"({"dbm-signal":-50,"ssid":"corp","no-balance":1})");
}

}  // namespace
}  // namespace rrm
