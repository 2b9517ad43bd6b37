#include "tools/fleet/World.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <set>

#include "tests/tools/SmallWorld.h"

namespace rrm::fleet {
namespace {

/// Everything that two equal fleets must agree in, as text.
std::string fingerprint(const World& world) {
  std::string text;
  for (const AccessPoint& ap : world.aps()) {
    text += ap.mac.upper().str() + ap.hardware->board + std::to_string(ap.place.x);
    for (const RadioUnit& radio : ap.radios) text += "/" + std::to_string(radio.channel);
    for (const Heard& heard : world.scan(ap.index, 1, 0)) {
      text += heard.bssid.lower().str() + std::to_string(heard.rssi_dbm);
    }
  }
  return text;
}

TEST(World, IsTheSameForTheSameSeedAndAnotherForAnother) {
  const World first(Scenario::of_size(40, 2, 7));
  const World again(Scenario::of_size(40, 2, 7));
  const World other(Scenario::of_size(40, 2, 8));
  EXPECT_EQ(fingerprint(first), fingerprint(again));
  EXPECT_NE(fingerprint(first), fingerprint(other));
}

TEST(World, SharesItsAccessPointsEvenlyAmongTheSites) {
  const World world(Scenario::of_size(11, 3, 1));
  ASSERT_EQ(world.sites().size(), 3u);
  EXPECT_EQ(world.sites()[0].domain, "site-1");
  EXPECT_EQ(world.sites()[0].ap_count, 4u);
  EXPECT_EQ(world.sites()[1].ap_count, 4u);
  EXPECT_EQ(world.sites()[2].ap_count, 3u);
  EXPECT_EQ(world.sites()[2].first_ap, 8u);
}

TEST(World, GivesEveryVapAnAddressOfItsOwn) {
  const World world(Scenario::of_size(400, 2, 1));
  std::set<MacAddress> seen;
  for (const AccessPoint& ap : world.aps()) {
    for (const RadioUnit& radio : ap.radios) {
      for (const Vap& vap : radio.vaps) {
        EXPECT_TRUE(seen.insert(vap.bssid).second) << vap.bssid.upper().c_str();
        const std::uint64_t offset = vap.bssid.number() - ap.mac.number();
        EXPECT_GE(offset, static_cast<std::uint64_t>(radio.id * 16));
        EXPECT_LT(offset, static_cast<std::uint64_t>(radio.id * 16 + 16));
      }
    }
  }
}

TEST(World, OffersOneToThreeNamesPerAccessPoint) {
  const World world(Scenario::of_size(200, 1, 1));
  std::set<std::size_t> counts;
  for (const AccessPoint& ap : world.aps()) counts.insert(ap.radios[0].vaps.size());
  EXPECT_EQ(counts, (std::set<std::size_t>{1, 2, 3}));
}

TEST(World, AccessPointsHearEachOtherAsLoudAsThePathLossSays) {
  // 10 m in one room at 2.4 GHz: 40.187 + 23 = 63.187 dB.
  const World world(two_aps(10));
  ASSERT_EQ(world.links(0).size(), 1u);
  EXPECT_NEAR(world.links(0)[0].loss_db[0], 63.187, 0.001);
  const int radiated = world.ap(1).radiated_dbm(world.ap(1).radios[0].power_dbm);
  const std::vector<Heard> heard = world.scan(0, 1, 0);
  const auto found =
      std::find_if(heard.begin(), heard.end(), [](const Heard& bss) { return bss.band == 2; });
  ASSERT_NE(found, heard.end());
  EXPECT_EQ(found->rssi_dbm, std::lround(radiated - 63.187));
  EXPECT_EQ(found->bssid, world.ap(1).radios[0].vaps[0].bssid);
}

TEST(World, LessPowerIsHeardAsLessSignal) {
  World world(two_aps(10));
  const RadioUnit& radio = world.ap(1).radios[0];
  const int before = world.scan(0, 1, 0, only_channel(2, radio.channel))[0].rssi_dbm;
  ASSERT_TRUE(world.set_radio(1, 0, radio.channel, radio.primary, radio.power_dbm - 7));
  EXPECT_EQ(world.scan(0, 1, 0, only_channel(2, radio.channel))[0].rssi_dbm, before - 7);
}

TEST(World, AnotherChannelIsReportedInTheNextScan) {
  World world(two_aps(10));
  ASSERT_TRUE(world.set_radio(1, 0, 13, Primary::None, 10));
  const std::vector<Heard> heard = world.scan(0, 1, 0, only_channel(2, 13));
  ASSERT_FALSE(heard.empty());
  EXPECT_EQ(heard[0].channel, 13);
  EXPECT_EQ(heard[0].tx_power_dbm, 10);
}

TEST(World, AScanVisitsOnlyItsChannels) {
  World world(two_aps(10));
  ASSERT_TRUE(world.set_radio(1, 0, 13, Primary::None, 10));
  EXPECT_TRUE(world.scan(0, 1, 0, only_channel(2, 12)).empty());
}

TEST(World, BeyondTheSensitivityNothingIsHeard) {
  // At 10 km: 40.187 + 92 dB, far more than 27 dBm and -92 dBm allow.
  const World world(two_aps(10000));
  EXPECT_TRUE(world.links(0).empty());
  EXPECT_TRUE(world.scan(0, 1, 0).empty());
}

TEST(World, SitesDoNotHearEachOther) {
  const World world(Scenario::of_size(20, 2, 1));
  for (const AccessPoint& ap : world.aps()) {
    for (const Link& link : world.links(ap.index)) EXPECT_EQ(world.ap(link.peer).site, ap.site);
  }
}

TEST(World, AScanKeepsTheLoudestOfItsTable) {
  Scenario scenario = Scenario::of_size(30, 1, 1);
  scenario.scan_noise_db = 0;
  const std::vector<Heard> all = World(scenario).scan(0, 1, 0);
  scenario.scan_table = 5;
  const std::vector<Heard> few = World(scenario).scan(0, 1, 0);
  ASSERT_GT(all.size(), 5u);
  ASSERT_EQ(few.size(), 5u);
  for (std::size_t i = 0; i < 5; ++i) EXPECT_EQ(few[i].bssid, all[i].bssid);
}

TEST(World, ReadingsOfOneBssDifferFromScanToScan) {
  Scenario scenario = two_aps(30);
  scenario.scan_noise_db = 3;
  const World world(scenario);
  std::set<int> readings;
  for (std::uint32_t scan = 0; scan < 20; ++scan)
    readings.insert(world.scan(0, 1, scan)[0].rssi_dbm);
  EXPECT_GT(readings.size(), 2u);
}

TEST(World, KeepsAPlansPowerWithinTheRadiosRange) {
  World world(two_aps(10));
  const RadioUnit& radio = world.ap(0).radios[0];
  world.set_radio(0, 0, radio.channel, radio.primary, 99);
  EXPECT_EQ(radio.power_dbm, radio.power_max_dbm);
  world.set_radio(0, 0, radio.channel, radio.primary, -99);
  EXPECT_EQ(radio.power_dbm, radio.power_min_dbm);
}

TEST(World, RefusesAChannelOutsideTheBand) {
  World world(two_aps(10));
  const int channel = world.ap(0).radios[0].channel;
  EXPECT_FALSE(world.set_radio(0, 0, 36, Primary::None, world.ap(0).radios[0].power_dbm));
  EXPECT_EQ(world.ap(0).radios[0].channel, channel);
}

TEST(World, KnowsTheOwnerOfEveryAddressOfItsPools) {
  const World world(two_aps(10));
  const std::optional<std::pair<std::uint32_t, int>> second_of_1{{1, 1}};
  const MacAddress bssid = world.ap(1).radios[1].vaps[0].bssid;
  EXPECT_EQ(world.owner_of(bssid), second_of_1);
  EXPECT_EQ(world.owner_of(bssid.twin()), second_of_1) << "with the local bit changed";
  EXPECT_FALSE(world.owner_of(MacAddress::from_text("02:57:4c:00:00:80"))) << "no third one";
  EXPECT_FALSE(world.owner_of(MacAddress{}));
}

TEST(World, HasNoRadioForAForeignId) {
  World world(two_aps(10));
  EXPECT_FALSE(world.set_radio(0, 9, 1, Primary::None, 10));
}

}  // namespace
}  // namespace rrm::fleet
