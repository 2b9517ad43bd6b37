#include "server/lib/ApMap.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <stdexcept>
#include <vector>

#include "tests/support/ApBuilder.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/JsonText.h"

namespace rrm {
namespace {

using test::add_ap;
using test::array_text;
using test::CapturedLog;
using test::make_ap;
using testing::ElementsAre;

MacAddress mac(const char* text) { return MacAddress::from_text(text); }

constexpr const char* kA = "00:11:22:33:44:00";
constexpr const char* kB = "00:11:22:33:55:00";
constexpr const char* kC = "00:11:22:33:66:00";

/// Radio 0 on 2.4 GHz, radio 1 on 5 GHz, both with 802.11k for "corp".
constexpr const char* kRadios =
    R"([{"id":0,"status":1,"channel":6,"band":2,"bandwidth":20,
         "vaps":[{"id":1,"ssid":"corp","802dot11k":1}]},
        {"id":1,"status":1,"channel":36,"band":5,"bandwidth":80,
         "vaps":[{"id":1,"ssid":"corp","802dot11k":1}]}])";

class ApMapTest : public testing::Test {
 protected:
  ApMap::Entry add(const char* base_mac, std::uint32_t session = 1, const char* radios = kRadios) {
    return add_ap(map_, config_, base_mac, radios, session);
  }

  DomainConfig config_;
  ApMap map_;
  ApMap other_;
};

using ApMapLookup = ApMapTest;
using ApMapMove = ApMapTest;
using ApMapRound = ApMapTest;
using ApMapScan = ApMapTest;
using ApMapHeard = ApMapTest;
using ApMapJson = ApMapTest;
using ApMap80211k = ApMapTest;

// --- look-ups ---

TEST_F(ApMapLookup, FindsAnAccessPointByItsBaseMac) {
  const auto ap = add(kA);
  EXPECT_EQ(map_.find(mac(kA)), ap);
  EXPECT_EQ(map_.find(mac(kB)), nullptr);
  EXPECT_EQ(map_.find(mac(kA).twin()), nullptr);
  EXPECT_EQ(map_.size(), 1u);
}

TEST_F(ApMapLookup, FindsAnAccessPointByAnyMacOfIts) {
  const auto ap = add(kA);
  for (const char* text :
       {kA, "00:11:22:33:44:10", "00:11:22:33:44:11", "02:11:22:33:44:11", "02:11:22:33:44:00"})
    EXPECT_EQ(map_.find_any(mac(text)), ap) << text;
  EXPECT_EQ(map_.find_any(mac("00:11:22:33:44:12")), nullptr);
  map_.erase_node(mac(kA));  // indexed, but no longer in the map
  EXPECT_EQ(map_.find_any(mac("00:11:22:33:44:10")), nullptr);
}

TEST_F(ApMapLookup, GetRefusesUnknownAccessPointsAndOtherSessions) {
  const auto ap = add(kA, 7);
  EXPECT_EQ(map_.get(mac(kA), 7), ap);
  const auto failure = [&](const char* base_mac, std::uint32_t session) -> std::string {
    try {
      map_.get(mac(base_mac), session);
    } catch (const std::out_of_range& error) {
      return error.what();
    }
    return "none";
  };
  EXPECT_EQ(failure(kB, 7), "AP not found");
  EXPECT_EQ(failure(kA, 8), "invalid session");
}

TEST_F(ApMapLookup, ResolvesBssidsAndTheirTwins) {
  const auto ap = add(kA);
  EXPECT_TRUE(map_.contains_bssid(mac("00:11:22:33:44:11")));
  EXPECT_TRUE(map_.contains_bssid(mac("02:11:22:33:44:11")));
  EXPECT_FALSE(map_.contains_bssid(mac("00:11:22:33:44:12")));
  EXPECT_EQ(map_.find_by_bssid(mac("02:11:22:33:44:11")), ap);
  EXPECT_EQ(map_.find_by_bssid(mac("00:11:22:33:44:12")), nullptr);
  EXPECT_EQ(map_.radio_id_of_bssid(mac("02:11:22:33:44:11")), 1);
  EXPECT_EQ(map_.radio_id_of_bssid(mac("00:11:22:33:44:12")), -1);
}

TEST_F(ApMapLookup, EraseTakesTheIndexAlong) {
  add(kA);
  add(kB);
  map_.erase(mac(kA));
  EXPECT_EQ(map_.find(mac(kA)), nullptr);
  EXPECT_FALSE(map_.contains_bssid(mac("00:11:22:33:44:11")));
  EXPECT_TRUE(map_.contains_bssid(mac("00:11:22:33:55:11")));
  map_.erase(mac(kC));
  EXPECT_EQ(map_.size(), 1u);
}

TEST_F(ApMapLookup, InsertReplacesAnEntryAndForgetsItsIndex) {
  add(kA);
  const auto replacement = make_ap(config_, kA, kRadios);
  map_.insert(replacement);
  EXPECT_EQ(map_.find(mac(kA)), replacement);
  EXPECT_EQ(map_.storage().size(), 0u);
  map_.index_ap(replacement);
  EXPECT_EQ(map_.find_by_bssid(mac("00:11:22:33:44:11")), replacement);
}

TEST_F(ApMapLookup, DumpsOneRecordPerAccessPoint) {
  add(kA);
  CapturedLog log;
  map_.dump();
  EXPECT_THAT(log.texts(LogLevel::Debug), ElementsAre("AP 00:11:22:33:44:00"));
}

// --- moves ---

TEST_F(ApMapMove, RemovesTheAccessPointsOfASession) {
  add(kA, 1);
  add(kB, 2);
  add(kC, 1);
  map_.remove_session(1);
  EXPECT_EQ(map_.size(), 1u);
  EXPECT_NE(map_.find(mac(kB)), nullptr);
  EXPECT_FALSE(map_.contains_bssid(mac("00:11:22:33:44:11")));
  EXPECT_TRUE(map_.contains_bssid(mac("00:11:22:33:55:11")));
}

TEST_F(ApMapMove, ParksTheAccessPointsOfAClosedSessionWithoutTheirClients) {
  config_.away_timeout = 125;
  const auto ap = add(kA, 1);
  add(kB, 2);
  Radio& radio = ap->radios.radios[1];
  radio.assoc_clients.add_client(mac("AA:00:00:00:00:01"), -50, "corp", false, false);
  radio.assoc_clients.expect_client(mac("AA:00:00:00:00:02"), mac(kB), 1, 5);
  radio.blacklist.members[mac("AA:00:00:00:00:03")] = 5;
  radio.blacklist.changes[mac("AA:00:00:00:00:03")] = {};
  radio.blacklist.kicked[mac("AA:00:00:00:00:03")] = {};
  map_.move_session(1, other_);
  EXPECT_EQ(map_.size(), 1u);
  EXPECT_FALSE(map_.contains_bssid(mac("00:11:22:33:44:11")));
  EXPECT_EQ(other_.find(mac(kA)), ap);
  EXPECT_EQ(other_.find_by_bssid(mac("00:11:22:33:44:11")), ap);
  EXPECT_EQ(ap->countdown, 12);  // 125 / 10
  EXPECT_TRUE(ap->session_lost);
  EXPECT_EQ(ap->session.id, 0u);
  EXPECT_EQ(radio.assoc_clients.count(), 0u);
  EXPECT_TRUE(radio.blacklist.members.empty() && radio.blacklist.changes.empty() &&
              radio.blacklist.kicked.empty());
}

TEST_F(ApMapMove, SurvivesATickOfZeroSeconds) {
  config_.tick_period = 0;
  const auto ap = add(kA, 1);
  map_.move_session(1, other_);
  EXPECT_EQ(ap->countdown, 120);
}

TEST_F(ApMapMove, MovesAccessPointsWithoutActiveRadio) {
  add(kA);
  const auto silent = add(kB, 1, R"([{"id":0,"status":1,"channel":0},{"id":1,"channel":36}])");
  EXPECT_FALSE(map_.all_have_active_radio());
  EXPECT_EQ(map_.move_without_active_radio(other_, 4), 1u);
  EXPECT_TRUE(map_.all_have_active_radio());
  EXPECT_EQ(map_.size(), 1u);
  EXPECT_EQ(other_.find(mac(kB)), silent);
  EXPECT_EQ(silent->countdown, 4);
  EXPECT_TRUE(other_.contains_bssid(mac("00:11:22:33:55:00")));
  EXPECT_EQ(map_.move_without_active_radio(other_, 4), 0u);
}

TEST_F(ApMapMove, AnEmptyMapHasOnlyActiveAccessPoints) {
  EXPECT_TRUE(map_.all_have_active_radio());
}

TEST_F(ApMapMove, MovesInactiveAccessPoints) {
  add(kA)->active = true;
  const auto inactive = add(kB);
  EXPECT_EQ(map_.move_inactive(other_, 9), 1u);
  EXPECT_EQ(inactive->countdown, 9);
  EXPECT_NE(map_.find(mac(kA)), nullptr);
  EXPECT_EQ(other_.find(mac(kB)), inactive);
}

TEST_F(ApMapMove, MovesAllBackWithTheirCountdowns) {
  add(kA)->countdown = 3;
  add(kB)->countdown = 4;
  map_.move_all(other_);
  EXPECT_TRUE(map_.empty());
  EXPECT_EQ(map_.storage().size(), 0u);
  EXPECT_EQ(other_.size(), 2u);
  EXPECT_EQ(other_.find(mac(kA))->countdown, 3);
  EXPECT_EQ(other_.storage().size(), 8u);
}

TEST_F(ApMapMove, AgesAndRemovesWhatHasNoTimeLeft) {
  add(kA)->countdown = 2;
  add(kB)->countdown = 1;
  add(kC)->countdown = INT32_MIN;
  EXPECT_EQ(map_.age(), 2u);
  ASSERT_EQ(map_.size(), 1u);
  EXPECT_EQ(map_.find(mac(kA))->countdown, 1);
  EXPECT_FALSE(map_.contains_bssid(mac("00:11:22:33:55:11")));
  EXPECT_EQ(map_.age(), 1u);
  EXPECT_TRUE(map_.empty());
  EXPECT_EQ(map_.age(), 0u);
}

// --- rounds ---

TEST_F(ApMapRound, SnapshotIsDeepAndIndexed) {
  const auto ap = add(kA);
  ap->visible_members[mac(kB)].channel = 36;
  const ApMap snapshot = map_.snapshot();
  ap->radios.radios[1].channel = 44;
  ap->visible_members[mac(kB)].channel = 44;
  map_.erase(mac(kA));
  const auto copy = snapshot.find(mac(kA));
  ASSERT_NE(copy, nullptr);
  EXPECT_NE(copy, ap);
  EXPECT_EQ(copy->radios.radios[1].channel, 36);
  EXPECT_EQ(copy->visible_members.at(mac(kB)).channel, 36);
  EXPECT_EQ(snapshot.find_by_bssid(mac("00:11:22:33:44:11")), copy);
}

TEST_F(ApMapRound, ResetClearsMarksOfTheLastOne) {
  const auto ap = add(kA);
  ap->active = true;
  ap->radios.received = true;
  ap->radios.radios[1].conflicted = true;
  ap->radios.radios[1].power_changed = 3;
  map_.reset_round();
  EXPECT_FALSE(ap->active);
  EXPECT_FALSE(ap->radios.radios[1].conflicted);
  EXPECT_EQ(ap->radios.radios[1].power_changed, 0);
  EXPECT_TRUE(ap->radios.received);
  map_.clear_received();
  EXPECT_FALSE(ap->radios.received);
}

TEST_F(ApMapRound, ClearsAllBlacklistsOrAllButTheirMembers) {
  const auto ap = add(kA);
  RadioBlacklist& blacklist = ap->radios.radios[2].blacklist;
  const MacAddress client = mac("AA:00:00:00:00:01");
  const auto fill = [&] {
    blacklist.members[client] = 5;
    blacklist.changes[client] = {};
    blacklist.kicked[client] = {};
  };
  fill();
  map_.clear_client_lists();
  EXPECT_EQ(blacklist.members.size(), 1u);
  EXPECT_TRUE(blacklist.changes.empty() && blacklist.kicked.empty());
  fill();
  map_.clear_blacklist_state();
  EXPECT_TRUE(blacklist.members.empty() && blacklist.changes.empty() && blacklist.kicked.empty());
}

// --- scan reports ---

TEST_F(ApMapScan, SortsMembersFromRogues) {
  add(kA);
  NeighbourMap members = {{mac(kC), {}}};
  NeighbourMap rogue = {{mac(kC), {}}};
  map_.fill_from_json_rf_environment(JsonReader(R"([
      {"bssid":"02:11:22:33:44:11","channel":36,"band":5,"bandwidth":80,"rssi":-60,
       "tx-power":20,"primary-channel":"upper"},null,
      {"bssid":"00:AA:00:00:00:01","channel":1,"rssi":-70,"bandwidth":20,
       "primary-channel":"uu"}])"),
                                     members, rogue);
  ASSERT_EQ(members.size(), 1u);
  const Neighbour& member = members.at(mac("02:11:22:33:44:11"));  // under the MAC that is heard
  EXPECT_EQ(member.dbm_signal, -60);
  EXPECT_EQ(member.channel, 36);
  EXPECT_EQ(member.band, 5);
  EXPECT_EQ(member.bandwidth, 80);
  EXPECT_EQ(member.tx_power, 20);
  EXPECT_EQ(member.primary, 512);
  ASSERT_EQ(rogue.size(), 1u);
  EXPECT_EQ(rogue.at(mac("00:AA:00:00:00:01")).band, 2);
  EXPECT_EQ(rogue.at(mac("00:AA:00:00:00:01")).primary, 256);
}

TEST_F(ApMapScan, LogsAnElementWithChannel20AndNoBandAndKeepsItWithBand0) {
  NeighbourMap members;
  NeighbourMap rogue;
  CapturedLog log;
  map_.fill_from_json_rf_environment(
      JsonReader(R"([{"bssid":"00:aa:00:00:00:01","channel":20,"bandwidth":40,"rssi":-71}])"),
      members, rogue);
  EXPECT_EQ(rogue.at(mac("00:AA:00:00:00:01")).band, 0);
  EXPECT_THAT(log.texts(LogLevel::Warning),
              ElementsAre("rf-environment entry without band: bssid=00:aa:00:00:00:01 channel=20 "
                          "bandwidth=40 rssi=-71"));
}

TEST_F(ApMapScan, InfersAMissingBandFromTheChannelSilently) {
  NeighbourMap members;
  NeighbourMap rogue;
  CapturedLog log;
  map_.fill_from_json_rf_environment(JsonReader(R"([{"bssid":"00:AA:00:00:00:01","channel":14},
                     {"bssid":"00:AA:00:00:00:02","channel":165},
                     {"bssid":"00:AA:00:00:00:03","channel":166}])"),
                                     members, rogue);
  EXPECT_EQ(rogue.at(mac("00:AA:00:00:00:01")).band, 2);
  EXPECT_EQ(rogue.at(mac("00:AA:00:00:00:02")).band, 5);
  EXPECT_EQ(rogue.at(mac("00:AA:00:00:00:03")).band, 6);
  EXPECT_TRUE(log.records().empty());
}

TEST_F(ApMapScan, TakesABandAsItIsGiven) {
  NeighbourMap members;
  NeighbourMap rogue;
  CapturedLog log;
  map_.fill_from_json_rf_environment(
      JsonReader(R"([{"bssid":"00:AA:00:00:00:01","channel":20,"band":0},
                     {"bssid":"00:AA:00:00:00:02","channel":36,"band":9}])"),
      members, rogue);
  EXPECT_EQ(rogue.at(mac("00:AA:00:00:00:01")).band, 0);
  EXPECT_EQ(rogue.at(mac("00:AA:00:00:00:02")).band, 9);
  EXPECT_TRUE(log.records().empty());
}

TEST_F(ApMapScan, DropsAKnownBssidWhoseRadioCannotBeResolved) {
  const auto ap = make_ap(config_, kA, kRadios);
  ap->radios.radios[1].id = -1;
  map_.insert(ap);
  map_.index_ap(ap);
  NeighbourMap members;
  NeighbourMap rogue;
  map_.fill_from_json_rf_environment(JsonReader(R"([{"bssid":"00:11:22:33:44:11","channel":36}])"),
                                     members, rogue);
  EXPECT_TRUE(members.empty());
  EXPECT_TRUE(rogue.empty());
}

TEST_F(ApMapScan, TakesUnreadableBssidsAsARogueOfZeros) {
  add("00:00:00:00:00:00");  // even if a radio should own that MAC
  NeighbourMap members;
  NeighbourMap rogue;
  map_.fill_from_json_rf_environment(
      JsonReader(R"([{"bssid":"what","channel":36},{"channel":40},17,"x",[],{}])"), members, rogue);
  EXPECT_TRUE(members.empty());
  ASSERT_EQ(rogue.size(), 1u);
  EXPECT_EQ(rogue.at(MacAddress{}).channel, 36);
}

TEST_F(ApMapScan, OfOneListingABssidTwiceKeepsTheFirst) {
  const auto ap = add(kA);
  ap->visible_rogue[mac(kC)] = {};
  map_.update_rf_environment(*ap, JsonReader(R"([[
      {"bssid":"00:AA:00:00:00:01","channel":36,"rssi":-60},
      {"bssid":"00:AA:00:00:00:01","channel":40,"rssi":-80}]])"));
  ASSERT_EQ(ap->visible_rogue.size(), 1u);
  EXPECT_EQ(ap->visible_rogue.at(mac("00:AA:00:00:00:01")).dbm_signal, -60);
  EXPECT_EQ(ap->visible_rogue.at(mac("00:AA:00:00:00:01")).channel, 36);
  EXPECT_TRUE(ap->radios.received);
}

TEST_F(ApMapScan, OfSeveralAreMerged) {
  const auto ap = add(kA);
  add(kB);
  map_.update_rf_environment(*ap, JsonReader(R"([
      [{"bssid":"00:AA:00:00:00:01","channel":36,"rssi":-60,"tx-power":10},
       {"bssid":"00:11:22:33:55:11","channel":36,"rssi":-50}],
      null,
      [{"bssid":"00:AA:00:00:00:01","channel":44,"rssi":-70,"tx-power":23}]])"));
  ASSERT_EQ(ap->visible_rogue.size(), 1u);
  const Neighbour& rogue = ap->visible_rogue.at(mac("00:AA:00:00:00:01"));
  EXPECT_EQ(rogue.dbm_signal, -65);
  EXPECT_EQ(rogue.channel, 44);
  EXPECT_EQ(rogue.tx_power, 23);
  ASSERT_EQ(ap->visible_members.size(), 1u);
  EXPECT_EQ(ap->visible_members.at(mac("00:11:22:33:55:11")).dbm_signal, -50);
  EXPECT_TRUE(ap->radios.received);
}

TEST_F(ApMapScan, ThatIsMissingChangesNothing) {
  const auto ap = add(kA);
  ap->visible_members[mac(kB)].channel = 36;
  for (const char* text : {"null", "[]", "[null]", "{}", "7"}) {
    map_.update_rf_environment(*ap, JsonReader(text));
    EXPECT_EQ(ap->visible_members.size(), 1u) << text;
    EXPECT_FALSE(ap->radios.received) << text;
  }
  map_.update_rf_environment(*ap, JsonReader("[[]]"));
  EXPECT_TRUE(ap->visible_members.empty());
}

TEST_F(ApMapScan, OfAHundredThousandPartsIsMergedToOneEntry) {
  const auto ap = add(kA);
  std::string text = "[[]";
  for (int i = 0; i < 100000; ++i) text += ",[{}]";
  map_.update_rf_environment(*ap, JsonReader((text + "]").c_str()));
  EXPECT_EQ(ap->visible_rogue.size(), 1u);
}

// --- what is heard ---

TEST_F(ApMapHeard, GivesTheBssidUnderWhichAnObserverHearsARadio) {
  const auto ap = add(kA);
  const auto observer = add(kB);
  observer->visible_members[mac("00:11:22:33:44:01")] = {};  // radio 0
  observer->visible_members[mac("02:11:22:33:44:11")] = {};  // radio 1
  EXPECT_EQ(map_.heard_bssid(*ap, 1, observer.get()), mac("02:11:22:33:44:11"));
  EXPECT_EQ(map_.heard_bssid(*ap, 0, observer.get()), mac("00:11:22:33:44:01"));
}

TEST_F(ApMapHeard, FallsBackToTheRadioMac) {
  const auto ap = add(kA);
  const auto observer = add(kB);
  ap->visible_members[mac("00:11:22:33:44:11")] = {};
  observer->visible_members[mac("00:11:22:33:55:11")] = {};  // the observer's own
  EXPECT_EQ(map_.heard_bssid(*ap, 1, observer.get()), mac("00:11:22:33:44:10"));
  EXPECT_EQ(map_.heard_bssid(*ap, 1, ap.get()), mac("00:11:22:33:44:10"));
  EXPECT_EQ(map_.heard_bssid(*ap, 1, nullptr), mac("00:11:22:33:44:10"));
  add(kC)->visible_members[mac("00:11:22:33:44:11")] = {};  // of no use to the observer
  EXPECT_EQ(map_.heard_bssid(*ap, 1, observer.get()), mac("00:11:22:33:44:10"));
  CapturedLog log;
  EXPECT_EQ(map_.heard_bssid(*ap, 9, observer.get()), mac(kA));
  EXPECT_EQ(log.texts(LogLevel::Warning).size(), 1u);
}

TEST_F(ApMapHeard, PassesOverWhatBelongsToNobodyAnyMore) {
  const auto ap = add(kA);
  const auto observer = add(kB);
  add(kC);
  observer->visible_members[mac("00:11:22:33:66:11")] = {};
  observer->visible_members[mac("00:11:22:33:44:11")] = {};
  map_.erase(mac(kC));
  EXPECT_EQ(map_.heard_bssid(*ap, 1, observer.get()), mac("00:11:22:33:44:11"));
}

TEST_F(ApMapHeard, WithoutObserverAnyOtherAccessPointWillDo) {
  const auto ap = add(kA);
  add(kB);
  const auto third = add(kC);
  ap->visible_members[mac("00:11:22:33:44:12")] = {};  // what it hears itself does not count
  third->visible_members[mac("00:11:22:33:44:11")] = {};
  EXPECT_EQ(map_.heard_bssid(*ap, 1, nullptr), mac("00:11:22:33:44:11"));
}

TEST_F(ApMapHeard, RewritesTheChannelOfABssidWhereverItIsHeard) {
  const auto a = add(kA);
  const auto b = add(kB);
  const auto c = add(kC);
  const MacAddress moved = mac("00:AA:00:00:00:01");
  a->visible_members[moved].channel = 36;
  b->visible_members[moved.twin()].channel = 36;
  c->visible_members[mac("00:AA:00:00:00:02")].channel = 36;
  a->visible_rogue[moved].channel = 36;
  std::int32_t count = -5;
  map_.set_channel_for_bssid(moved, 44, count);
  EXPECT_EQ(a->visible_members.at(moved).channel, 44);
  EXPECT_EQ(b->visible_members.at(moved.twin()).channel, 44);
  EXPECT_EQ(c->visible_members.at(mac("00:AA:00:00:00:02")).channel, 36);
  EXPECT_EQ(a->visible_rogue.at(moved).channel, 36);
  EXPECT_EQ(count, 1);
}

TEST_F(ApMapHeard, LeavesTheChannelCountOfTheLastAccessPoint) {
  std::int32_t count = -5;
  map_.set_channel_for_bssid(mac(kC), 44, count);
  EXPECT_EQ(count, -5);  // nobody visited
  const auto a = add(kA);
  for (std::uint32_t i = 0; i < 4; ++i)
    a->visible_members[mac(kC).plus(i)].channel = static_cast<std::int32_t>(36 + 4 * i);
  map_.set_channel_for_bssid(mac(kC), 40, count);
  EXPECT_EQ(count, 3);
}

TEST_F(ApMapHeard, ManyRewrittenChannelsAreThoseOfOneAfterTheOther) {
  std::mt19937 random(3);
  for (int round = 0; round < 50; ++round) {
    const auto any_bssid = [&] {
      const MacAddress bssid = mac(kC).plus(static_cast<std::uint32_t>(random() % 12));
      return random() % 2 == 0 ? bssid : bssid.twin();
    };
    ApMap map;
    for (const char* base : {kA, kB, kC}) {
      const auto ap = add_ap(map, config_, base, kRadios);
      for (int i = 0; i < 8; ++i)
        ap->visible_members[any_bssid()].channel = static_cast<std::int32_t>(random() % 14);
    }
    std::vector<std::int32_t> counts(10, -5);
    std::vector<ApMap::ChannelChange> changes;
    for (std::int32_t& count : counts)
      changes.push_back({any_bssid(), static_cast<std::int32_t>(random() % 300), &count});

    std::vector<NeighbourMap> expected;
    std::vector<std::int32_t> expected_counts(counts.size());
    for (const auto& [base, ap] : map.aps()) expected.push_back(ap->visible_members);
    for (std::size_t i = 0; i < changes.size(); ++i) {
      for (NeighbourMap& heard : expected) {
        auto found = heard.find(changes[i].bssid);
        if (found == heard.end()) found = heard.find(changes[i].bssid.twin());
        if (found != heard.end()) found->second.channel = changes[i].channel;
        expected_counts[i] = count_channels(heard);
      }
    }
    map.set_channels(changes);
    EXPECT_EQ(counts, expected_counts) << "round " << round;
    std::size_t at = 0;
    for (const auto& [base, ap] : map.aps()) {
      for (const auto& [bssid, neighbour] : expected[at])
        EXPECT_EQ(ap->visible_members.at(bssid).channel, neighbour.channel) << "round " << round;
      ++at;
    }
  }
}

TEST_F(ApMapHeard, CountsDistinctChannelsFrom1To255) {
  NeighbourMap heard;
  std::uint32_t i = 0;
  for (const std::int32_t channel : {0, -1, INT32_MIN, 256, INT32_MAX, 1, 1, 255, 36})
    heard[mac(kA).plus(i++)].channel = channel;
  EXPECT_EQ(count_channels(heard), 3);
  EXPECT_EQ(count_channels({}), 0);
}

// --- JSON ---

TEST_F(ApMapJson, OfTheStatusHoldsEveryAccessPoint) {
  EXPECT_EQ(array_text([&](JsonWriter& array) { map_.to_json(array); }), "[]");
  const auto ap = add(kA);
  EXPECT_EQ(array_text([&](JsonWriter& array) { map_.to_json(array); }),
            "[" + test::object_text([&](JsonWriter& object) { ap->to_json(object); }) + "]");
}

TEST_F(ApMapJson, OfTheListHoldsFactoryDataAndVapsOfAllThreeRadios) {
  add(kA, 1, R"([{"id":1,"vaps":[{"id":1,"ssid":"a","802dot11r":1,"fbt-rrb-key":"k"}]}])");
  const std::string head =
      R"([{"board":"KV-810","mac":"00:11:22:33:44:00","serial":"serial-1","hw":"hw-1",)"
      R"("radios":[{"id":0,"vaps":[]},{"id":1,"vaps":[{"id":1,"ssid":"a",)"
      R"("mac":"00:11:22:33:44:11","mobility-domain":97,"use_802dot11k":0,"use_802dot11r":1,)"
      R"("use_802dot11v":0)";
  const std::string tail = R"(}]},{"id":2,"vaps":[]}]}])";
  EXPECT_EQ(array_text([&](JsonWriter& array) { map_.list_to_json(array, false); }), head + tail);
  EXPECT_EQ(array_text([&](JsonWriter& array) { map_.list_to_json(array, true); }),
            head + R"(,"fbt-r0-keyholder":"","fbt-r1-keyholder":"","fbt-rrb-key":"k")" + tail);
}

// --- 802.11k ---

std::string list_of(const ApMap& map, const ApEntry& receiver) {
  return array_text(
      [&](JsonWriter& array) { map.build_80211k_list(receiver, array, receiver.visible_members); });
}

TEST_F(ApMap80211k, ListsTheRadiosThatAreHeardUnderTheirBssid) {
  const auto receiver = add(kA);
  const auto neighbour = add(kB);
  neighbour->radios.radios[1].load_level = 127;
  receiver->visible_members[mac("02:11:22:33:55:11")] = {};
  receiver->visible_members[mac(kC)] = {};  // nobody's
  EXPECT_EQ(list_of(map_, *receiver),
            R"([{"neighbour-mac":"02:11:22:33:55:11","channel":36,"band":5,"bandwidth":80,)"
            R"("primary-channel":"ll","priority":127,)"
            R"("vaps":[{"id":1,"ssid":"corp","mac":"00:11:22:33:55:11"}]}])");
}

TEST_F(ApMap80211k, NamesARadioOnceByTheFirstOfItsBssidsAmongAll) {
  config_.use_all_ap_balance = true;
  const auto receiver = add(kA);
  const auto neighbour = add(kB);
  const auto bssid_of = [&](std::size_t radio) { return neighbour->radios.radios[radio].mac; };
  const MacAddress first = neighbour->radios.radios[1].vaps.vaps().begin()->second.mac;
  ASSERT_NE(first, bssid_of(1));
  receiver->visible_members[first] = {};
  receiver->visible_members[bssid_of(1)] = {};
  EXPECT_NE(list_of(map_, *receiver).find("\"neighbour-mac\":\"" + first.upper().str() + "\""),
            std::string::npos);
  EXPECT_EQ(
      list_of(map_, *receiver).find("\"neighbour-mac\":\"" + bssid_of(1).upper().str() + "\""),
      std::string::npos);
}

TEST_F(ApMap80211k, TakesTheTwinOfTheReceiverForItself) {
  config_.use_all_ap_balance = true;
  const auto receiver = add(kA);
  add(mac(kA).twin().lower().c_str());
  EXPECT_EQ(list_of(map_, *receiver), "[]");
}

TEST_F(ApMap80211k, IsEmptyWhereNothingIsHeard) {
  const auto receiver = add(kA);
  add(kB);
  EXPECT_EQ(list_of(map_, *receiver), "[]");
}

TEST_F(ApMap80211k, LeavesOutAnAccessPointThatOnlyItsIndexRemembers) {
  const auto receiver = add(kA);
  add(kB);
  receiver->visible_members[mac("00:11:22:33:55:11")] = {};
  EXPECT_NE(list_of(map_, *receiver), "[]");
  map_.erase_node(mac(kB));
  EXPECT_EQ(list_of(map_, *receiver), "[]");
}

TEST_F(ApMap80211k, NeedsAnSsidWith80211kOnBothSides) {
  const auto receiver = add(kA);
  const auto neighbour = add(kB);
  receiver->visible_members[mac("00:11:22:33:55:11")] = {};
  VapMap::Map& vaps = neighbour->radios.radios[1].vaps.vaps();
  Vap guest = vaps.at("corp");
  guest.ssid = "guest";
  guest.vap_id = 2;
  vaps.emplace("guest", guest);  // the receiver has none
  EXPECT_NE(list_of(map_, *receiver).find(R"("vaps":[{"id":1,"ssid":"corp")"), std::string::npos);
  EXPECT_EQ(list_of(map_, *receiver).find("guest"), std::string::npos);
  vaps.at("corp").use_80211k = false;
  EXPECT_EQ(list_of(map_, *receiver), "[]");
  vaps.at("corp").use_80211k = true;
  receiver->radios.radios[1].vaps.vaps().at("corp").use_80211k = false;
  EXPECT_EQ(list_of(map_, *receiver), "[]");
}

TEST_F(ApMap80211k, LeavesOutDisabledRadiosAndThoseOfUnknownBand) {
  const auto receiver = add(kA);
  const auto neighbour = add(kB);
  receiver->visible_members[mac("00:11:22:33:55:11")] = {};
  Radio& radio = neighbour->radios.radios[1];
  radio.band = 0;  // the channel still tells
  EXPECT_NE(list_of(map_, *receiver).find("\"band\":5,"), std::string::npos);
  radio.channel = 20;
  EXPECT_EQ(list_of(map_, *receiver), "[]");
  radio.channel = 36;
  radio.status = false;
  EXPECT_EQ(list_of(map_, *receiver), "[]");
}

TEST_F(ApMap80211k, TakesTwoRadiosOfUnknownBandForNoNeighbours) {
  const char* unknown = R"([{"id":0,"status":1,"channel":20,
                             "vaps":[{"id":1,"ssid":"corp","802dot11k":1}]}])";
  const auto receiver = add(kA, 1, unknown);
  add(kB, 1, unknown);
  receiver->visible_members[mac("00:11:22:33:55:01")] = {};
  EXPECT_EQ(list_of(map_, *receiver), "[]");
}

TEST_F(ApMap80211k, ComparesWithTheRadioOfTheSameChannelElseWithTheFirstEnabledOfTheBand) {
  const auto receiver = add(kA, 1, R"([
      {"id":0,"status":1,"channel":36,"band":5,"vaps":[{"id":1,"ssid":"x","802dot11k":1}]},
      {"id":1,"status":0,"channel":100,"band":5,"vaps":[{"id":1,"ssid":"corp","802dot11k":1}]},
      {"id":2,"status":1,"channel":149,"band":5,"vaps":[{"id":1,"ssid":"corp","802dot11k":1}]}])");
  const auto neighbour = add(kB);
  receiver->visible_members[mac("00:11:22:33:55:11")] = {};
  Radio& radio = neighbour->radios.radios[1];
  EXPECT_EQ(list_of(map_, *receiver), "[]");  // radio 0 shares the channel, but no SSID
  radio.channel = 149;
  EXPECT_NE(list_of(map_, *receiver), "[]");
  radio.channel = 48;  // nobody's channel: radio 0 is the first of the band
  EXPECT_EQ(list_of(map_, *receiver), "[]");
  receiver->radios.radios[0].status = false;
  EXPECT_NE(list_of(map_, *receiver), "[]");
}

TEST_F(ApMap80211k, UsesAllAccessPointsWhenTheDomainSaysSo) {
  config_.use_all_ap_balance = true;
  const auto receiver = add(kA);
  const auto neighbour = add(kB);
  neighbour->radios.radios[0].status = false;
  map_.index_ap(neighbour);
  EXPECT_TRUE(map_.uses_all_ap_neighbours(*receiver));
  const std::string entry = R"("channel":36,"band":5,"bandwidth":80,"primary-channel":"ll",)"
                            R"("priority":0,"vaps":[{"id":1,"ssid":"corp",)"
                            R"("mac":"00:11:22:33:55:11"}]}])";
  EXPECT_EQ(list_of(map_, *receiver), R"([{"neighbour-mac":"00:11:22:33:55:10",)" + entry);
  receiver->visible_members[mac("02:11:22:33:55:11")] = {};
  EXPECT_EQ(list_of(map_, *receiver), R"([{"neighbour-mac":"02:11:22:33:55:11",)" + entry);
}

TEST_F(ApMap80211k, UsesAllAccessPointsWhereA80211vDomainHasNoCandidateAmongItsRadios) {
  const auto ap = add(kA);
  EXPECT_FALSE(map_.uses_all_ap_neighbours(*ap));
  config_.use_80211v = true;
  EXPECT_TRUE(map_.uses_all_ap_neighbours(*ap));  // its radios are locked for 802.11v
  ap->radios.radios[0].locked_for_80211v = 0;
  EXPECT_FALSE(map_.uses_all_ap_neighbours(*ap));
  ap->radios.radios[0].status = false;
  EXPECT_TRUE(map_.uses_all_ap_neighbours(*ap));
  config_.use_80211k = false;
  EXPECT_FALSE(map_.uses_all_ap_neighbours(*ap));
  config_.use_80211k = true;
  for (Radio& radio : ap->radios.radios) radio.vaps.clear();
  EXPECT_FALSE(map_.uses_all_ap_neighbours(*ap));
}

}  // namespace
}  // namespace rrm
