#include "server/lib/TpcDcaOptimiser.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdarg>
#include <limits>
#include <string>

#include "tests/support/CapturedLog.h"
#include "tests/support/RandomDomain.h"

namespace rrm::test {
namespace {

constexpr std::uint64_t kApA = 0x001122000000;
constexpr std::uint64_t kApB = 0x001122000040;
constexpr std::uint64_t kApC = 0x001122000080;
constexpr std::uint64_t kGone = 0x00aa00000000;     // BSSIDs of an access point that left
constexpr std::uint64_t kForeign = 0x00bb00000000;  // BSSIDs of strangers
constexpr std::int64_t kStart = 1714533300;         // 2024-05-01,03:15:00

/// Domains of 2.4 GHz radios with thresholds T = -70 and H = 2 and no hd mode, unless a test says
/// otherwise.
class TpcDcaOptimiserTest : public testing::Test {
 protected:
  TpcDcaOptimiserTest() { domain.config.use_hd_mode = false; }

  /// Radio 0 of a new access point on a channel, free to choose among `allowed`.
  Radio& add_radio(std::uint64_t ap, std::int32_t channel,
                   const std::unordered_set<std::int32_t>& allowed, std::int32_t band = 2) {
    Radio& radio = enable_radio(add_ap(domain, ap), 0, band, channel);
    radio.available_channels = allowed;
    return radio;
  }
  ApEntry& ap(std::uint64_t mac) { return *domain.aps.find(mac_of(mac)); }
  /// Lets `listener` hear radio 0 of `other` on its present channel.
  Neighbour& hears(std::uint64_t listener, std::uint64_t other, std::int32_t rssi_dbm) {
    const Radio& radio = *ap(other).radios.find(0);
    return hear(ap(listener).visible_members, radio.mac, rssi_dbm, radio.channel, radio.band,
                radio.bandwidth);
  }
  void optimise_with(bool use_dca, bool use_tpc) {
    ApMap snapshot = domain.aps.snapshot();
    result = optimise(snapshot, domain.config, {use_dca, use_tpc, false}, kStart, cancel);
    ASSERT_TRUE(result.ok);
  }
  const Radio& planned(std::uint64_t ap, std::int32_t id = 0) const {
    return *result.radios.at(mac_of(ap)).find(id);
  }
  bool has_plan(std::uint64_t ap) const { return result.radios.count(mac_of(ap)) != 0; }

  MadeDomain domain;
  std::atomic<bool> cancel{false};
  OptimisationResult result;
};

// --- channels -----------------------------------------------------------------------------------

TEST_F(TpcDcaOptimiserTest, RadiosWithEqualCountAndRankArePlannedInSnapshotOrder) {
  add_radio(kApB, 1, {1, 6});
  add_radio(kApA, 1, {1, 6});
  hears(kApA, kApB, -50);
  hears(kApB, kApA, -50);
  optimise_with(true, false);
  EXPECT_EQ(planned(kApA).channel, 6);  // it gives way, so that the other may stay
  EXPECT_EQ(planned(kApB).channel, 1);
}

TEST_F(TpcDcaOptimiserTest, AmongEqualCountsTheRadioThatHearsMoreBssidsIsPlannedFirst) {
  add_radio(kApA, 1, {1, 6});
  add_radio(kApB, 1, {1, 6});
  hears(kApA, kApB, -50);
  hears(kApB, kApA, -50);
  hear(ap(kApB).visible_members, mac_of(kGone), -99, 1, 2);
  optimise_with(true, false);
  EXPECT_EQ(planned(kApA).channel, 1);
  EXPECT_EQ(planned(kApB).channel, 6);
}

TEST_F(TpcDcaOptimiserTest, TheRadioThatHearsMoreChannelsIsPlannedBeforeOneThatHearsMoreBssids) {
  add_radio(kApA, 1, {1, 6});
  add_radio(kApB, 1, {1, 6});
  hears(kApA, kApB, -50);
  hears(kApB, kApA, -50);
  for (unsigned i = 0; i < 3; ++i) hear(ap(kApA).visible_members, mac_of(kGone + i), -100, 1, 2);
  hear(ap(kApB).visible_members, mac_of(kGone), -100, 255, 2);
  optimise_with(true, false);
  EXPECT_EQ(planned(kApA).channel, 1);
  EXPECT_EQ(planned(kApB).channel, 6);
}

TEST_F(TpcDcaOptimiserTest, AMoveChangesTheCountsOfThoseThatHearIt) {
  // C hears three channels and moves to the one that A already hears, so that A (2 channels, first
  // in order) drops behind B (2 channels): B chooses first.
  add_radio(kApA, 1, {1, 6});
  add_radio(kApB, 1, {1, 6});
  add_radio(kApC, 11, {200});
  hears(kApA, kApB, -50);
  hears(kApB, kApA, -50);
  hears(kApA, kApC, -100);
  hear(ap(kApA).visible_members, mac_of(kGone), -100, 200, 2);
  hear(ap(kApA).visible_members, mac_of(kGone + 1), -100, 1, 2);
  hear(ap(kApB).visible_members, mac_of(kGone), -100, 200, 2);
  hear(ap(kApB).visible_members, mac_of(kGone + 1), -100, 201, 2);
  for (unsigned i = 0; i < 5; ++i)
    hear(ap(kApC).visible_members, mac_of(kGone + i), -100, 100 + static_cast<int>(i), 2);
  optimise_with(true, false);
  EXPECT_EQ(planned(kApC).channel, 200);
  EXPECT_EQ(planned(kApB).channel, 6);
  EXPECT_EQ(planned(kApA).channel, 1);
}

TEST_F(TpcDcaOptimiserTest, ARadioOnAChannelOutsideItsListMovesToTheCheapestOfTheList) {
  add_radio(kApA, 1, {6, 11});
  hear(ap(kApA).visible_rogue, mac_of(kForeign), -40, 6, 2);
  hear(ap(kApA).visible_rogue, mac_of(kForeign + 1), -80, 11, 2);
  optimise_with(true, false);
  EXPECT_EQ(planned(kApA).channel, 11);
}

TEST_F(TpcDcaOptimiserTest, WithThreshold99AChannelThatIsOneCheaperStillWins) {
  domain.config.dca_threshold = 99;
  add_radio(kApA, 1, {1, 6});
  hear(ap(kApA).visible_rogue, mac_of(kForeign), -70, 1, 2);      // 9 + 21 + 30 + 21 + 9 = 90
  hear(ap(kApA).visible_rogue, mac_of(kForeign + 1), -99, 1, 2);  // 0 + 0 + 1 + 0 + 0 = 1
  hear(ap(kApA).visible_rogue, mac_of(kForeign + 2), -70, 6, 2);  // 90
  optimise_with(true, false);
  EXPECT_EQ(planned(kApA).channel, 6);
}

TEST_F(TpcDcaOptimiserTest, EquallyCheapChannelsAreTriedInAscendingOrder) {
  add_radio(kApA, 1, {11, 1, 13, 6});
  hear(ap(kApA).visible_rogue, mac_of(kForeign), -70, 1, 2);
  optimise_with(true, false);
  EXPECT_EQ(planned(kApA).channel, 6);
}

TEST_F(TpcDcaOptimiserTest, TheOwnBssidDoesNotDisturb) {
  const Radio& radio = add_radio(kApA, 1, {1, 6});
  hear(ap(kApA).visible_rogue, radio.mac, -30, 1, 2);
  optimise_with(true, false);
  EXPECT_EQ(planned(kApA).channel, 1);
}

TEST_F(TpcDcaOptimiserTest, TheLocallyAdministeredTwinOfTheOwnBssidDisturbs) {
  const Radio& radio = add_radio(kApA, 1, {1, 6});
  hear(ap(kApA).visible_rogue, radio.mac.twin(), -30, 1, 2);
  optimise_with(true, false);
  EXPECT_EQ(planned(kApA).channel, 6);
}

TEST_F(TpcDcaOptimiserTest, AMoveIsWrittenUnderTheLocallyAdministeredTwinToo) {
  const Radio& mover = add_radio(kApA, 1, {6});
  hear(ap(kApA).visible_members, mac_of(kGone), -100, 13, 2);  // plans A first
  hear(ap(kApA).visible_members, mac_of(kGone + 1), -100, 12, 2);
  add_radio(kApB, 6, {1, 6});
  hear(ap(kApB).visible_members, mover.mac.twin(), -50, 1, 2);
  optimise_with(true, false);
  EXPECT_EQ(planned(kApA).channel, 6);
  EXPECT_EQ(planned(kApB).channel, 1);
}

TEST_F(TpcDcaOptimiserTest, AMoveIsWrittenAlsoWhereAnotherRadioHasTheTwinOfTheMac) {
  add_radio(kApA, 1, {6});
  Radio& twin = add_radio(kApB, 11, {11});
  twin.mac = mac_of(kApA).twin();
  twin.locked_for_dca = 1;
  add_radio(kApC, 6, {1, 6});
  hears(kApC, kApA, -50);
  for (unsigned i = 0; i < 2; ++i)  // so that A moves first
    hear(ap(kApA).visible_members, mac_of(kGone + i), -100, 100 + static_cast<int>(i), 2);
  optimise_with(true, false);
  EXPECT_EQ(planned(kApA).channel, 6);
  EXPECT_EQ(planned(kApC).channel, 1);
}

TEST_F(TpcDcaOptimiserTest, APositionThatChangesAloneIsWrittenWhereTheRadioIsHeard) {
  Radio& turning = add_radio(kApA, 6, {6});
  turning.bandwidth = 40;
  turning.primary_channel = 1024;                              // none of 40 MHz: becomes 0
  hear(ap(kApA).visible_members, mac_of(kGone), -100, 13, 2);  // plans A first
  hear(ap(kApA).visible_members, mac_of(kGone + 1), -100, 12, 2);
  add_radio(kApB, 11, {1, 11});
  hears(kApB, kApA, -50).primary = 512;  // slots 8..16 disturb channel 1; 12..20 then channel 11
  optimise_with(true, false);
  EXPECT_EQ(planned(kApA).primary_channel, 0);
  EXPECT_EQ(planned(kApB).channel, 1);
}

TEST_F(TpcDcaOptimiserTest, ANewChannelGetsItsPosition) {
  Radio& radio = add_radio(kApA, 36, {36, 56}, 5);
  radio.bandwidth = 80;
  radio.primary_channel = 256;
  hear(ap(kApA).visible_rogue, mac_of(kForeign), -50, 36, 5, 80);
  optimise_with(true, false);
  EXPECT_EQ(planned(kApA).channel, 56);
  EXPECT_EQ(planned(kApA).primary_channel, 512);
}

TEST_F(TpcDcaOptimiserTest, OnlyEntriesOfTheBandDisturb) {
  struct Case {
    std::int32_t radio_band;
    std::int32_t heard_band;
    bool disturbs;
  };
  for (const Case& c : {Case{2, 2, true}, Case{2, 0, true}, Case{2, 5, false}, Case{6, 6, true},
                        Case{6, 0, false}, Case{6, 2, false}, Case{0, 2, true}, Case{0, 5, true},
                        Case{0, 3, true}, Case{5, 3, false}}) {
    MadeDomain other;
    ApEntry& entry = add_ap(other, kApA);
    enable_radio(entry, 0, c.radio_band, 1).available_channels = {1, 6};
    hear(entry.visible_rogue, mac_of(kForeign), -50, 1, c.heard_band);
    ApMap snapshot = other.aps.snapshot();
    result = optimise(snapshot, other.config, {true, false, false}, kStart, cancel);
    EXPECT_EQ(planned(kApA).channel, c.disturbs ? 6 : 1)
        << "radio " << c.radio_band << " heard " << c.heard_band;
  }
}

TEST_F(TpcDcaOptimiserTest, LockedDisabledAndChoicelessRadiosKeepTheirChannel) {
  ApEntry& entry = add_ap(domain, kApA);
  enable_radio(entry, 0, 2, 1).available_channels = {6};
  entry.radios.find(0)->locked_for_dca = 1;
  enable_radio(entry, 1, 2, 1).available_channels = {6};
  entry.radios.find(1)->status = false;
  enable_radio(entry, 2, 2, 1).available_channels.clear();
  optimise_with(true, false);
  EXPECT_FALSE(has_plan(kApA));
  entry.radios.find(2)->available_channels = {6};
  optimise_with(true, false);
  EXPECT_EQ(planned(kApA, 0).channel, 1);
  EXPECT_EQ(planned(kApA, 1).channel, 1);
  EXPECT_EQ(planned(kApA, 2).channel, 6);
}

TEST_F(TpcDcaOptimiserTest, TheSecondPassStartsFromTheChannelsOfTheFirst) {
  // First pass: A (more channels heard) leaves 1 for 6, B leaves 6 for 1 since A came. Second pass:
  // nobody disturbs anybody, so both stay.
  add_radio(kApA, 1, {1, 6});
  add_radio(kApB, 1, {1, 6});
  hears(kApA, kApB, -50);
  hears(kApB, kApA, -50);
  hear(ap(kApA).visible_members, mac_of(kGone), -100, 13, 2);
  optimise_with(true, false);
  EXPECT_EQ(planned(kApA).channel, 6);
  EXPECT_EQ(planned(kApB).channel, 1);
}

TEST_F(TpcDcaOptimiserTest, EveryAccessPointWithACandidateIsInTheResultEvenUnmoved) {
  add_radio(kApA, 1, {1});
  optimise_with(true, false);
  EXPECT_EQ(planned(kApA).channel, 1);
  EXPECT_EQ(planned(kApA).neighbour_channel_count, -1);
}

TEST_F(TpcDcaOptimiserTest, TheRankIsTheNumberOfBssidsHeardFromTheDomain) {
  add_radio(kApA, 1, {1});
  for (unsigned i = 0; i < 3; ++i) hear(ap(kApA).visible_members, mac_of(kGone + i), -90, 1, 2);
  hear(ap(kApA).visible_rogue, mac_of(kForeign), -90, 6, 2);
  optimise_with(true, false);
  EXPECT_EQ(planned(kApA).dca_rank, 3);
}

// --- powers: lowering ---------------------------------------------------------------------------

TEST_F(TpcDcaOptimiserTest, ANeighbourHeardAtExactlyTPlusHDoesNotLowerItsOwner) {
  add_radio(kApA, 1, {1}).locked_for_tpc = 0;
  add_radio(kApB, 1, {1}).power = 15;
  hears(kApA, kApB, -68);
  hears(kApB, kApA, -71);  // quiet enough to leave A, too loud to raise B
  optimise_with(false, true);
  EXPECT_FALSE(has_plan(kApB));
}

TEST_F(TpcDcaOptimiserTest, ALouderNeighbourIsLoweredToTheThreshold) {
  add_radio(kApA, 1, {1});
  add_radio(kApB, 1, {1}).power = 15;
  hears(kApA, kApB, -67);
  hears(kApB, kApA, -71);
  optimise_with(false, true);
  EXPECT_EQ(planned(kApB).power, 12);  // 15 + (-70 + 67)
  EXPECT_EQ(planned(kApB).power_changed, -3);
  EXPECT_TRUE(planned(kApB).conflicted);
}

TEST_F(TpcDcaOptimiserTest, TheLowerBoundStopsTheLowering) {
  add_radio(kApA, 1, {1});
  add_radio(kApB, 1, {1}).power = 15;
  hears(kApA, kApB, -40);
  optimise_with(false, true);
  EXPECT_EQ(planned(kApB).power, 5);
  EXPECT_EQ(planned(kApB).power_changed, -10);
}

TEST_F(TpcDcaOptimiserTest, ALaterSmallerLoweringChangesNothing) {
  // A lowers B by 8, then C would lower it by 3 only.
  add_radio(kApA, 1, {1});
  add_radio(kApB, 1, {1}).power = 18;
  add_radio(kApC, 1, {1});
  hears(kApA, kApB, -62);
  hears(kApC, kApB, -67);
  optimise_with(false, true);
  EXPECT_EQ(planned(kApB).power, 10);
  EXPECT_EQ(planned(kApB).power_changed, -8);
}

TEST_F(TpcDcaOptimiserTest, EveryEnabledRadioOfTheBandIsLoweredLockedOrNot) {
  add_radio(kApA, 1, {1});
  ApEntry& loud = add_ap(domain, kApB);
  for (const std::int32_t id : {0, 1, 2}) enable_radio(loud, id, 2, 1).power = 15;
  loud.radios.find(1)->locked_for_tpc = 1;
  loud.radios.find(2)->band = 5;
  hears(kApA, kApB, -67);
  optimise_with(false, true);
  EXPECT_EQ(planned(kApB, 0).power, 12);
  EXPECT_EQ(planned(kApB, 1).power, 12);
  EXPECT_GE(planned(kApB, 2).power, 15);
  EXPECT_FALSE(planned(kApB, 2).conflicted);
}

TEST_F(TpcDcaOptimiserTest, ALockedRadioDoesNotLowerOthers) {
  add_radio(kApA, 1, {1}).locked_for_tpc = 1;
  add_radio(kApB, 1, {1}).power = 20;
  hears(kApA, kApB, -40);
  optimise_with(false, true);
  EXPECT_FALSE(has_plan(kApB));
}

TEST_F(TpcDcaOptimiserTest, ARadioWithoutChannelsToChooseDoesNotLowerOthers) {
  add_radio(kApA, 1, {});
  add_radio(kApB, 1, {1}).power = 20;
  hears(kApA, kApB, -40);
  optimise_with(false, true);
  EXPECT_FALSE(has_plan(kApB));
}

TEST_F(TpcDcaOptimiserTest, AccessPointsThatDidNotAnswerNeitherLowerNorAreLowered) {
  add_radio(kApA, 1, {1});
  add_radio(kApB, 1, {1}).power = 20;
  hears(kApA, kApB, -40);
  hears(kApB, kApA, -71);
  ap(kApA).active = false;
  optimise_with(false, true);
  EXPECT_FALSE(has_plan(kApB));
  ap(kApA).active = true;
  ap(kApB).active = false;
  optimise_with(false, true);
  EXPECT_FALSE(has_plan(kApB));
}

TEST_F(TpcDcaOptimiserTest, WithoutHdModeTheFirstEnabledRadioOfTheBandStandsIn) {
  add_radio(kApA, 6, {6});
  add_radio(kApB, 1, {1}).power = 15;
  hears(kApA, kApB, -67);
  optimise_with(false, true);
  EXPECT_EQ(planned(kApB).power, 12);
}

TEST_F(TpcDcaOptimiserTest, InHdModeNoOtherRadioStandsIn) {
  domain.config.use_hd_mode = true;
  add_radio(kApA, 6, {6});
  add_radio(kApB, 1, {1}).power = 15;
  hears(kApA, kApB, -67);
  optimise_with(false, true);
  // Nobody hears B on its channel either, so that it is raised.
  EXPECT_EQ(planned(kApB).power, 20);
}

TEST_F(TpcDcaOptimiserTest, InHdModeChannelsOfOneWideBlockCount) {
  domain.config.use_hd_mode = true;
  add_radio(kApA, 36, {36}, 5);
  Radio& wide = add_radio(kApB, 48, {48}, 5);
  wide.power = 15;
  wide.bandwidth = 80;
  hears(kApA, kApB, -67);
  optimise_with(false, true);
  EXPECT_EQ(planned(kApB).power, 12);
}

TEST_F(TpcDcaOptimiserTest, TheLockedRadioOnTheChannelHidesTheFreeOneOfTheBand) {
  ApEntry& listener = add_ap(domain, kApA);
  enable_radio(listener, 0, 2, 6);
  enable_radio(listener, 1, 2, 1).locked_for_tpc = 1;
  add_radio(kApB, 1, {1}).power = 15;
  hears(kApA, kApB, -67);
  hears(kApB, kApA, -71);
  optimise_with(false, true);
  EXPECT_FALSE(has_plan(kApB));
}

TEST_F(TpcDcaOptimiserTest, ADisabledRadioOnTheChannelDoesNotHideTheEnabledOneOfTheBand) {
  ApEntry& listener = add_ap(domain, kApA);
  enable_radio(listener, 0, 2, 1).status = false;
  enable_radio(listener, 1, 2, 6);
  add_radio(kApB, 1, {1}).power = 15;
  hears(kApA, kApB, -67);
  optimise_with(false, true);
  EXPECT_EQ(planned(kApB).power, 12);
}

TEST_F(TpcDcaOptimiserTest, AnEntryWithoutBandIsOfTheBandOfItsChannel) {
  add_radio(kApA, 1, {1});
  add_radio(kApB, 1, {1}).power = 15;
  hears(kApA, kApB, -67).band = 0;
  optimise_with(false, true);
  EXPECT_EQ(planned(kApB).power, 12);
}

TEST_F(TpcDcaOptimiserTest, EachBandHasItsThresholds) {
  domain.config.ap_rssi_threshold_5g = -60;
  domain.config.hysteresis_5g = 5;
  domain.config.ap_rssi_threshold_6g = -80;
  domain.config.hysteresis_6g = 1;
  const std::pair<std::int32_t, std::int32_t> cases[] = {{5, -55}, {6, -79}};
  for (const auto& [band, loud] : cases) {
    for (const std::int32_t rssi : {loud, loud + 1}) {
      MadeDomain other;
      other.config = domain.config;
      enable_radio(add_ap(other, kApA), 0, band, 37);
      ApEntry& heard = add_ap(other, kApB);
      enable_radio(heard, 0, band, 37).power = 15;
      hear(other.aps.find(mac_of(kApA))->visible_members, heard.base_mac, rssi, 37, band);
      hear(heard.visible_members, mac_of(kApA), loud - 1, 37, band);
      ApMap snapshot = other.aps.snapshot();
      result = optimise(snapshot, other.config, {false, true, false}, kStart, cancel);
      EXPECT_EQ(has_plan(kApB), rssi > loud) << "band " << band << " at " << rssi;
    }
  }
}

TEST_F(TpcDcaOptimiserTest, TheOwnerIsFoundUnderTheTwinAndUnderAVapBssid) {
  add_radio(kApA, 1, {1});
  Radio& loud = add_radio(kApB, 1, {1});
  loud.power = 15;
  loud.vaps.vaps()["office"].mac = mac_of(0x001122000045);
  hear(ap(kApA).visible_members, mac_of(0x021122000045), -67, 1, 2);
  optimise_with(false, true);
  EXPECT_EQ(planned(kApB).power, 12);
}

TEST_F(TpcDcaOptimiserTest, ABssidThatTwoClaimBelongsToTheFirstInMacOrder) {
  add_radio(kApA, 1, {1});
  add_radio(kApB, 1, {1}).power = 15;
  Radio& claimant = add_radio(kApC, 1, {1});
  claimant.power = 15;
  claimant.vaps.vaps()["office"].mac = mac_of(kApB);
  hears(kApA, kApB, -67);
  hears(kApC, kApA, -70);
  optimise_with(false, true);
  EXPECT_EQ(planned(kApB).power, 12);
  EXPECT_FALSE(has_plan(kApC));
}

TEST_F(TpcDcaOptimiserTest, ABssidOfTheFirstIsNotLostToALaterClaim) {
  add_radio(kApA, 1, {1}).power = 15;
  add_radio(kApB, 1, {1});
  Radio& claimant = add_radio(kApC, 1, {1});
  claimant.power = 15;
  claimant.vaps.vaps()["office"].mac = mac_of(kApA);
  hears(kApB, kApA, -67);
  hears(kApC, kApB, -70);
  optimise_with(false, true);
  EXPECT_EQ(planned(kApA).power, 12);
  EXPECT_FALSE(has_plan(kApC));
}

TEST_F(TpcDcaOptimiserTest, TheOwnerIsFoundUnderItsBaseMacWhichNoRadioHas) {
  add_radio(kApA, 1, {1});
  enable_radio(add_ap(domain, kApB), 1, 2, 1).power = 15;
  ap(kApB).radios.find(0)->mac = mac_of(kGone);
  hear(ap(kApA).visible_members, mac_of(kApB), -67, 1, 2);
  optimise_with(false, true);
  EXPECT_EQ(planned(kApB, 1).power, 12);
}

TEST_F(TpcDcaOptimiserTest, AnAccessPointWithoutAPlannedRadioNeitherLowersNorRaises) {
  add_radio(kApA, 0, {1});
  add_radio(kApB, 1, {1}).power = 15;
  hears(kApA, kApB, -40);
  hears(kApB, kApA, -71);
  optimise_with(false, true);
  EXPECT_FALSE(has_plan(kApA));
  EXPECT_FALSE(planned(kApB).conflicted);
  EXPECT_EQ(planned(kApB).power, 20);  // it shares its channel with nobody
}

// --- powers: raising ----------------------------------------------------------------------------

TEST_F(TpcDcaOptimiserTest, ARadioWithoutNeighboursOnItsChannelIsRaisedToItsMaximum) {
  add_radio(kApA, 1, {1});
  optimise_with(false, true);
  EXPECT_EQ(planned(kApA).power, 20);
  EXPECT_EQ(planned(kApA).power_changed, 10);
}

TEST_F(TpcDcaOptimiserTest, RadiosWithoutOwnLimitsGoToTheDefaultMaximum) {
  Radio& radio = add_radio(kApA, 1, {1});
  radio.power_max = -1;
  optimise_with(false, true);
  EXPECT_EQ(planned(kApA).power, 16);
}

TEST_F(TpcDcaOptimiserTest, AQuietNeighbourRaisesByWhatIsMissingToTheThreshold) {
  add_radio(kApA, 1, {1});
  add_radio(kApB, 1, {1});
  hears(kApA, kApB, -73);
  hears(kApB, kApA, -72);  // exactly T - H: stays
  optimise_with(false, true);
  EXPECT_EQ(planned(kApA).power, 13);
  EXPECT_FALSE(has_plan(kApB));
}

TEST_F(TpcDcaOptimiserTest, TheLoudestNeighbourDecides) {
  add_radio(kApA, 1, {1});
  add_radio(kApB, 1, {1});
  add_radio(kApC, 1, {1});
  hears(kApA, kApB, -90);
  hears(kApA, kApC, -75);
  optimise_with(false, true);
  EXPECT_EQ(planned(kApA).power, 15);
}

TEST_F(TpcDcaOptimiserTest, SignalsOfMinus100AndBelowAreNotHeard) {
  add_radio(kApA, 1, {1}).power_max = 100;
  add_radio(kApB, 1, {1});
  hears(kApA, kApB, -100);
  optimise_with(false, true);
  EXPECT_EQ(planned(kApA).power, 100);  // 10 + (0 + 100), limited
}

TEST_F(TpcDcaOptimiserTest, ARadioLoweredBySixIsNotRaisedBySixOrMoreInTheSameRound) {
  Radio& radio = add_radio(kApA, 1, {1});
  radio.power = 9;
  radio.power_changed = -6;  // from 15
  radio.power_max = 21;
  optimise_with(false, true);
  EXPECT_FALSE(has_plan(kApA));
  radio.power_max = 20;
  optimise_with(false, true);
  EXPECT_EQ(planned(kApA).power, 20);
  EXPECT_EQ(planned(kApA).power_changed, 5);
}

TEST_F(TpcDcaOptimiserTest, ConflictedLockedAndBandlessRadiosAreNotRaised) {
  ApEntry& entry = add_ap(domain, kApA);
  enable_radio(entry, 0, 2, 1).conflicted = true;
  enable_radio(entry, 1, 2, 1).locked_for_tpc = 1;
  enable_radio(entry, 2, 0, 20);
  optimise_with(false, true);
  EXPECT_FALSE(has_plan(kApA));
}

TEST_F(TpcDcaOptimiserTest, ARadioLoweredInTheRoundIsNotRaisedInIt) {
  add_radio(kApA, 1, {1});
  add_radio(kApB, 1, {1}).power = 15;
  hears(kApA, kApB, -67);
  optimise_with(false, true);  // B hears nobody and would go to its maximum
  EXPECT_EQ(planned(kApB).power, 12);
}

TEST_F(TpcDcaOptimiserTest, WithoutHdModeAnyChannelOfTheBandCountsAsShared) {
  add_radio(kApA, 1, {1});
  add_radio(kApB, 11, {11});
  hears(kApA, kApB, -73);
  optimise_with(false, true);
  EXPECT_EQ(planned(kApA).power, 13);
}

TEST_F(TpcDcaOptimiserTest, ARadioWithoutAChannelSharesItWithItsLike) {
  enable_radio(add_ap(domain, kApA), 0, 2, 0);
  enable_radio(ap(kApA), 1, 5, 36).locked_for_tpc = 1;  // lets A take part
  enable_radio(add_ap(domain, kApB), 0, 2, 0);
  hear(ap(kApA).visible_members, mac_of(kApB), -73, 1, 2);
  optimise_with(false, true);
  EXPECT_EQ(planned(kApA).power, 13);
  ap(kApA).radios.find(0)->channel = 6;  // another one has none to share
  optimise_with(false, true);
  EXPECT_EQ(planned(kApA).power, 20);
}

TEST_F(TpcDcaOptimiserTest, InHdModeOnlySharedBlocksHoldARadioDown) {
  domain.config.use_hd_mode = true;
  add_radio(kApA, 36, {36}, 5);
  add_radio(kApB, 52, {52}, 5);
  hears(kApA, kApB, -73);
  optimise_with(false, true);
  EXPECT_EQ(planned(kApA).power, 20);
  ap(kApB).radios.find(0)->channel = 40;
  ap(kApB).radios.find(0)->bandwidth = 40;
  optimise_with(false, true);
  EXPECT_EQ(planned(kApA).power, 13);
}

TEST_F(TpcDcaOptimiserTest, TheEirpLimitBoundsTheRaise) {
  Radio& radio = add_radio(kApA, 1, {1});
  radio.has_antenna_configuration = true;
  radio.antenna_gain = 5;
  radio.cable_loss = 1;
  radio.eirp_max = 18;  // 14 dBm at the radio
  optimise_with(false, true);
  EXPECT_EQ(planned(kApA).power, 14);
  EXPECT_EQ(planned(kApA).eirp, 18);
}

// --- both, and the frame ------------------------------------------------------------------------

TEST_F(TpcDcaOptimiserTest, TheResultHoldsNewChannelAndNewPower) {
  add_radio(kApA, 1, {1, 6});
  add_radio(kApB, 1, {1, 6});
  hears(kApA, kApB, -60);
  hears(kApB, kApA, -71);
  optimise_with(true, true);
  EXPECT_EQ(planned(kApA).channel, 6);
  EXPECT_EQ(planned(kApB).channel, 1);
  EXPECT_EQ(planned(kApB).power, 5);  // lowered by 10 although the channels part: the band counts
}

TEST_F(TpcDcaOptimiserTest, WithoutAnySwitchTheResultIsEmptyAndGood) {
  add_radio(kApA, 1, {6});
  optimise_with(false, false);
  EXPECT_TRUE(result.radios.empty());
  EXPECT_TRUE(result.message.empty());
  EXPECT_FALSE(result.has_report);
}

TEST_F(TpcDcaOptimiserTest, AnEmptyDomainGivesAnEmptyResult) {
  optimise_with(true, true);
  EXPECT_TRUE(result.radios.empty());
}

TEST_F(TpcDcaOptimiserTest, CancelledBeforeDcaItSaysSo) {
  add_radio(kApA, 1, {6});
  cancel = true;
  ApMap snapshot = domain.aps.snapshot();
  result = optimise(snapshot, domain.config, {true, true, true}, kStart, cancel);
  EXPECT_FALSE(result.ok);
  EXPECT_EQ(result.message, "cancelled before DCA");
  EXPECT_TRUE(result.radios.empty());
  EXPECT_FALSE(result.has_report);
}

TEST_F(TpcDcaOptimiserTest, CancelledDuringDcaItSaysSoAfterwards) {
  add_radio(kApA, 1, {6});
  ApMap snapshot = domain.aps.snapshot();
  // The access points are recorded when the first look at the wish to cancel is over.
  static std::atomic<bool>* wish = nullptr;
  wish = &cancel;
  set_log_sink([](const char*, int, const char*, LogLevel, const char* format, std::va_list) {
    if (std::string(format).starts_with("Device ")) *wish = true;
  });
  result = optimise(snapshot, domain.config, {true, true, true}, kStart, cancel);
  set_log_sink(nullptr);
  EXPECT_EQ(result.message, "cancelled after DCA");
  EXPECT_FALSE(result.ok);
  EXPECT_TRUE(result.radios.empty());
  EXPECT_FALSE(result.has_report);
}

TEST_F(TpcDcaOptimiserTest, EachAccessPointIsLoggedWithItsBoardAndPlatformInOrderOfMac) {
  add_radio(kApB, 1, {1});
  add_radio(kApA, 1, {1});
  ap(kApA).description.board = "KV-810-B";
  ap(kApA).platform = 1;
  ap(kApB).description.board = "kv-220-lr";
  ap(kApB).platform = -1;
  ApMap snapshot = domain.aps.snapshot();
  const CapturedLog log;
  optimise(snapshot, domain.config, {}, kStart, cancel);
  EXPECT_EQ(log.texts(LogLevel::Trace),
            (std::vector<std::string>{"Device KV-810-B (FastPath)", "Device kv-220-lr (Unknown)"}));
}

TEST_F(TpcDcaOptimiserTest, TheReportHoldsChannelAndPowerBeforeAndAfter) {
  const Radio& radio = add_radio(kApA, 1, {6, 11});
  hear(ap(kApA).visible_rogue, mac_of(kForeign), -40, 6, 2);
  ApMap snapshot = domain.aps.snapshot();
  result = optimise(snapshot, domain.config, {true, true, true}, kStart, cancel);
  EXPECT_TRUE(result.has_report);
  EXPECT_EQ(result.report_date, "2024-05-01,03:15:00");
  ASSERT_EQ(result.report.size(), 1U);
  const auto& [key, record] = *result.report.begin();
  EXPECT_EQ(key, "2024-05-01,03:15:00,00:11:22:00:00:00," + radio.mac.upper().str());
  EXPECT_EQ(record.channel_before, 1);
  EXPECT_EQ(record.channel_after, 11);
  EXPECT_EQ(record.power_before, 10);
  EXPECT_EQ(record.power_after, 20);
  EXPECT_EQ(record.available_channels, "6 11");
}

TEST_F(TpcDcaOptimiserTest, TheRadiosOfTheResultReferToTheSettingsOfTheirDomain) {
  add_radio(kApA, 1, {6});
  DomainConfig own = domain.config;
  ApMap snapshot = domain.aps.snapshot();
  result = optimise(snapshot, own, {true, true, false}, kStart, cancel);
  EXPECT_EQ(planned(kApA).config, &domain.config);
}

TEST_F(TpcDcaOptimiserTest, TheSettingsOfTheRoundCountAndNotThoseOfTheDomain) {
  add_radio(kApA, 1, {1}).power_max = -1;
  DomainConfig own = domain.config;
  own.default_max_power = 13;
  ApMap snapshot = domain.aps.snapshot();
  result = optimise(snapshot, own, {false, true, false}, kStart, cancel);
  EXPECT_EQ(planned(kApA).power, 13);
}

TEST_F(TpcDcaOptimiserTest, AbsurdNumbersAreHarmless) {
  constexpr std::int32_t kMost = std::numeric_limits<std::int32_t>::max();
  constexpr std::int32_t kLeast = std::numeric_limits<std::int32_t>::min();
  const std::int32_t extremes[] = {kMost, kLeast, 0, 1, 36};
  std::uint64_t number = 0;
  for (const std::int32_t a : extremes)
    for (const std::int32_t b : extremes) {
      Radio& radio = add_radio(kApA + 0x40 * number, a, {a, b, 1, 6});
      radio.bandwidth = number % 2 == 0 ? 40 : b;
      radio.power = b;
      radio.power_changed = a;
      radio.antenna_gain = a;
      radio.has_antenna_configuration = true;
      radio.eirp_max = kMost;
      for (unsigned i = 0; i < number; ++i)
        hear(ap(kApA + 0x40 * number).visible_members, mac_of(kApA + 0x40 * i), i % 2 == 0 ? a : b,
             i % 3 == 0 ? a : 1, i % 4 == 0 ? b : 2, i % 5 == 0 ? a : 320);
      ++number;
    }
  for (const bool hd : {false, true}) {
    domain.config.use_hd_mode = hd;
    optimise_with(true, true);
    EXPECT_EQ(result.radios.size(), 25U);
  }
}

}  // namespace
}  // namespace rrm::test
