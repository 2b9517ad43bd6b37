#include "server/lib/Radio.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <string>

#include "tests/support/ApBuilder.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/JsonText.h"
#include "tests/support/RadioMembers.h"

namespace rrm {
namespace {

using test::array_text;
using test::CapturedLog;
using test::limit_power;
using test::object_text;
using testing::ElementsAre;
using testing::UnorderedElementsAre;

const MacAddress kBase = MacAddress::from_text("00:11:22:33:44:00");

MacAddress mac(const char* text) { return MacAddress::from_text(text); }

class RadioTest : public testing::Test {
 protected:
  /// An enabled radio without limits of its own: 10 to 16 dBm.
  Radio radio(std::int32_t power_dbm = 12, std::int32_t id = 1) const {
    return Radio(config_, kBase, id, true, 36, power_dbm, -1, -1, 80);
  }

  /// A radio as an access point describes it, from the state of a new one.
  Radio read(const std::string& text, bool is_new = true) {
    Radio result(config_, kBase, 1, false, 1, 0, 0, 0, 20);
    apply(result, text, is_new);
    return result;
  }

  void apply(Radio& target, const std::string& text, bool is_new = false) {
    target.from_json(JsonReader(text.c_str()), sets_, true, is_new, false);
  }

  DomainConfig config_;
  ChannelSets sets_;
};

using RadioConstruction = RadioTest;
using RadioBand = RadioTest;
using RadioPower = RadioTest;
using RadioLoad = RadioTest;
using RadioMessage = RadioTest;
using RadioMacPool = RadioTest;
using RadioChannels = RadioTest;
using RadioRestore = RadioTest;
using RadioJson = RadioTest;

// --- construction ---

TEST_F(RadioConstruction, TakesItsMacFromThePoolOfItsId) {
  CapturedLog log;
  const Radio made(config_, kBase, 2, true, 36, 12, 20, 5, 80);
  EXPECT_EQ(made.mac_offset, 32u);
  EXPECT_EQ(made.max_mac_count, 16u);
  EXPECT_EQ(made.mac, mac("00:11:22:33:44:20"));
  EXPECT_EQ(made.base_mac, kBase);
  EXPECT_THAT(log.texts(LogLevel::Trace),
              ElementsAre("radio id=2, max_mac_count=16, mac_offset=32, mac = 00:11:22:33:44:20"));
}

TEST_F(RadioConstruction, LeavesEverythingElseUnset) {
  const Radio made = radio();
  EXPECT_EQ(made.band, 0);
  EXPECT_EQ(made.eirp, -1);
  EXPECT_EQ(made.eirp_min, -1);
  EXPECT_EQ(made.eirp_max, -1);
  EXPECT_EQ(made.primary_channel, 0);
  EXPECT_FALSE(made.has_antenna_configuration || made.power_initialised ||
               made.channel_initialised || made.conflicted || made.changed);
  EXPECT_EQ(
      made.locked_for_tpc + made.locked_for_dca + made.locked_for_balancer + made.locked_for_80211v,
      0);
}

TEST_F(RadioConstruction, FillsLoadLevelsOnlyWith80211vAndBalancing) {
  EXPECT_TRUE(radio().load_levels.empty());
  config_.use_80211v = true;
  EXPECT_THAT(radio().load_levels, ElementsAre(std::pair(4, 255), std::pair(19, 127)));
  config_.load_balance_sta_low = 30;
  EXPECT_THAT(radio().load_levels, ElementsAre(std::pair(19, 127), std::pair(29, 255)));
  config_.use_balance = false;
  EXPECT_TRUE(radio().load_levels.empty());
}

// --- bands ---

/// What the "band" rule makes of a known band.
std::int32_t band_read(const char* text, std::int32_t channel, std::int32_t known,
                       const char* context = "radio message") {
  std::int32_t band = known;
  update_band_from_json(JsonReader(text), channel, band, kBase, 1, context);
  return band;
}

TEST_F(RadioBand, OfAKnownValueIsTakenSilently) {
  CapturedLog log;
  EXPECT_EQ(band_read(R"({"band":2})", 40, 0), 2);
  EXPECT_EQ(band_read(R"({"band":5})", 1, 2), 5);
  EXPECT_EQ(band_read(R"({"band":6})", 1, 2), 6);
  EXPECT_TRUE(log.records().empty());
}

TEST_F(RadioBand, Of3WithChannel40IsInferredAndLogged) {
  CapturedLog log;
  EXPECT_EQ(band_read(R"({"band":3})", 40, 0), 5);
  EXPECT_THAT(log.texts(LogLevel::Debug),
              ElementsAre("radio message without band: inferred/reused band=5 "
                          "mac=00:11:22:33:44:00 id=1 channel=40"));
}

TEST_F(RadioBand, OfChannel0WithoutAnyHintIsUnknownAndWarnedOf) {
  CapturedLog log;
  EXPECT_EQ(band_read("{}", 0, 0, "radio restore"), 0);
  EXPECT_THAT(log.texts(LogLevel::Warning),
              ElementsAre("radio restore without band and band cannot be inferred: "
                          "mac=00:11:22:33:44:00 id=1 channel=0"));
}

TEST_F(RadioBand, IsReusedWhenTheMessageHasNoneButNotWhenItIsInvalid) {
  CapturedLog log;
  EXPECT_EQ(band_read("{}", 1, 6), 6);
  EXPECT_TRUE(log.has(LogLevel::Debug,
                      "radio message without band: inferred/reused band=6 "
                      "mac=00:11:22:33:44:00 id=1 channel=1"));
  EXPECT_EQ(band_read(R"({"band":null})", 20, 6), 0);
}

TEST_F(RadioBand, OfMessagesFollowsTheChannelFrom166OnAndTheRadioBelow) {
  Radio any = radio();
  for (const std::int32_t channel : {INT_MIN, -1, 0, 234, INT_MAX})
    EXPECT_EQ(any.band_for_channel(channel), 0);
  EXPECT_EQ(any.band_for_channel(1), 2);
  EXPECT_EQ(any.band_for_channel(15), 0);
  EXPECT_EQ(any.band_for_channel(165), 5);
  EXPECT_EQ(any.band_for_channel(166), 6);
  any.band = 6;
  EXPECT_EQ(any.band_for_channel(1), 6);
  EXPECT_EQ(any.band_for_channel(15), 6);
  EXPECT_EQ(any.band_for_channel(165), 6);
  any.band = 2;
  EXPECT_EQ(any.band_for_channel(233), 6);
  EXPECT_EQ(any.get_band(), 2);
}

TEST_F(RadioBand, ThatAMessageLacksIsLoggedWithWhereItCameFrom) {
  CapturedLog log;
  read(R"({"status":1,"channel":40,"band":3})");
  EXPECT_TRUE(log.has(LogLevel::Debug,
                      "radio message without band: inferred/reused band=5 mac=00:11:22:33:44:10 "
                      "id=1 channel=40"));
}

TEST_F(RadioBand, ChoosesTheRssiThreshold) {
  config_.ap_rssi_threshold_2g = -72;
  config_.ap_rssi_threshold_5g = -75;
  config_.ap_rssi_threshold_6g = -78;
  config_.hysteresis_2g = 1;
  config_.hysteresis_5g = 3;
  config_.hysteresis_6g = 5;
  Radio any = radio();
  const struct {
    std::int32_t band, raised, bare, lowered;
  } cases[] = {{2, -71, -72, -73}, {5, -72, -75, -78}, {6, -73, -78, -83}, {0, -71, -72, -73}};
  for (const auto& c : cases) {
    any.band = c.band;
    EXPECT_EQ(any.rssi_threshold(0), c.raised);
    EXPECT_EQ(any.rssi_threshold(1), c.bare);
    EXPECT_EQ(any.rssi_threshold(2), c.lowered);
    EXPECT_EQ(any.rssi_threshold(7), c.bare);
  }
}

TEST_F(RadioBand, AndWidthNormaliseThePrimaryChannel) {
  Radio any = radio();
  any.band = 5;
  any.channel = 44;
  any.normalize_primary_channel();
  EXPECT_EQ(any.primary_channel, 768);
  EXPECT_STREQ(any.primary_channel_name(), "ul");
  any.bandwidth = 40;
  any.normalize_primary_channel();
  EXPECT_STREQ(any.primary_channel_name(), "lower");
  any.bandwidth = 20;
  EXPECT_STREQ(any.primary_channel_name(), "none");
}

// --- power ---

TEST_F(RadioPower, LimitsNotGivenAre10And16) {
  const Radio any = radio();
  EXPECT_EQ(any.effective_min(), 10);
  EXPECT_EQ(any.effective_max(), 16);
  EXPECT_EQ(any.clamp_power(9), 10);
  EXPECT_EQ(any.clamp_power(13), 13);
  EXPECT_EQ(any.clamp_power(17), 16);
}

TEST_F(RadioPower, LimitsOfTheAccessPointGoBeforeThoseOfTheDomain) {
  Radio any = radio();
  limit_power(any, {.power_min = 0, .power_max = 23});
  EXPECT_EQ(any.effective_min(), 0);
  EXPECT_EQ(any.effective_max(), 23);
}

TEST_F(RadioPower, EirpLimitsCountOnlyWithAnAntennaConfiguration) {
  Radio any = radio();
  limit_power(any, {.eirp_min = 20,
                    .eirp_max = 18,
                    .antenna_gain = 5,
                    .cable_loss = 1,
                    .has_antenna_configuration = false});
  EXPECT_EQ(any.effective_min(), 10);
  EXPECT_EQ(any.effective_max(), 16);
  any.has_antenna_configuration = true;
  EXPECT_EQ(any.effective_min(), 16);  // max(10, 20 - 5 + 1)
  EXPECT_EQ(any.effective_max(), 14);  // min(18 - 5 + 1, 16)
  EXPECT_EQ(any.clamp_power(12), 16);  // the lower bound wins
  EXPECT_EQ(any.clamp_power(30), 16);
  any.eirp_min = -1;
  any.eirp_max = 0;  // a limit too
  EXPECT_EQ(any.effective_max(), -4);
  any.eirp_max = -1;
  EXPECT_EQ(any.effective_min(), 10);
  EXPECT_EQ(any.effective_max(), 16);
}

TEST_F(RadioPower, EirpLimitsOnlyNarrowTheOthers) {
  Radio any = radio();
  limit_power(any, {.eirp_min = 5, .eirp_max = 40, .antenna_gain = 5, .cable_loss = 1});
  EXPECT_EQ(any.effective_min(), 10);  // 1 dBm would do for the EIRP
  EXPECT_EQ(any.effective_max(), 16);  // the EIRP would allow 36 dBm
}

TEST_F(RadioPower, HasEirpLimitsWithAMinimumOrAnAntennaButNotWithAMaximumAlone) {
  Radio any = radio();
  EXPECT_FALSE(any.has_eirp_limits());
  any.eirp_max = 20;
  EXPECT_FALSE(any.has_eirp_limits());
  any.eirp_min = 0;
  EXPECT_TRUE(any.has_eirp_limits());
  any.eirp_min = -1;
  any.has_antenna_configuration = true;
  EXPECT_TRUE(any.has_eirp_limits());
}

TEST_F(RadioPower, EirpMinimum20ThroughGain5AndLoss1RaisesPower10To16) {
  Radio any = radio(10);
  limit_power(any, {.eirp_min = 20, .antenna_gain = 5, .cable_loss = 1});
  any.update_eirp();
  EXPECT_EQ(any.eirp, 20);
  EXPECT_EQ(any.power, 16);
}

TEST_F(RadioPower, EirpMaximumLowersPower) {
  Radio any = radio(16);
  limit_power(any, {.eirp_max = 17, .antenna_gain = 5});
  any.update_eirp();  // 21 is limited to 17, which 12 dBm gives
  EXPECT_EQ(any.eirp, 17);
  EXPECT_EQ(any.power, 12);
}

TEST_F(RadioPower, EirpJustWithinItsLimitsIsLeftAsItIs) {
  Radio any = radio(12);
  limit_power(any, {.eirp_min = 16, .eirp_max = 18, .antenna_gain = 5});
  any.update_eirp();
  EXPECT_EQ(any.eirp, 17);
  EXPECT_EQ(any.power, 12);
}

TEST_F(RadioPower, AnEirpLimitAlsoEnforcesThePowerLimits) {
  Radio any = radio(30);
  limit_power(any, {.eirp_max = 50, .antenna_gain = 5});
  any.update_eirp();  // 35 is within the limit, but 16 dBm is the most
  EXPECT_EQ(any.power, 16);
  EXPECT_EQ(any.eirp, 21);
}

TEST_F(RadioPower, EirpAboveTheMaximumStaysLimitedWherePowerCannotFollow) {
  Radio any = radio(12);
  limit_power(any, {.eirp_max = 10, .antenna_gain = 6});
  any.update_eirp();  // 4 dBm would give 10, but 10 dBm is the least: EIRP 16, limited again
  EXPECT_EQ(any.power, 10);
  EXPECT_EQ(any.eirp, 10);
}

TEST_F(RadioPower, WithoutEirpLimitsFollowsPowerThroughTheAntenna) {
  Radio any = radio(3);
  limit_power(any, {.antenna_gain = 6, .cable_loss = 2});
  any.update_eirp();
  EXPECT_EQ(any.eirp, 7);
  EXPECT_EQ(any.power, 3);  // nothing was limited, so not even the power limits apply
}

TEST_F(RadioPower, WithoutAntennaOnlyLimitsTheEirpItHas) {
  Radio any = radio(12);
  any.eirp = 30;
  any.update_eirp();
  EXPECT_EQ(any.eirp, 30);
  any.eirp_min = 5;
  any.eirp_max = 20;
  any.update_eirp();
  EXPECT_EQ(any.eirp, 20);
  any.eirp = -1;
  any.update_eirp();
  EXPECT_EQ(any.eirp, 5);
  EXPECT_EQ(any.power, 12);
  any.eirp_min = 0;
  any.eirp_max = 0;
  any.update_eirp();
  EXPECT_EQ(any.eirp, 0);
}

TEST_F(RadioPower, AMaximumAloneDoesNotTouchTheEirp) {
  Radio any = radio(12);
  any.eirp = 30;
  any.eirp_max = 20;
  any.update_eirp();
  EXPECT_EQ(any.eirp, 30);
}

TEST_F(RadioPower, DecreaseStepsDownToTheLowerLimitOnce) {
  Radio any = radio(16);
  EXPECT_EQ(any.apply_power_decrease(-60, -70), 6);  // 16 - 10 = 6, limited to 10
  EXPECT_EQ(any.power, 10);
  EXPECT_EQ(any.power_changed, -6);
  EXPECT_EQ(any.apply_power_decrease(-60, -63), 0);  // 3 from 16 is less than was applied
  EXPECT_EQ(any.apply_power_decrease(-60, -66), 0);  // as much as was applied
  EXPECT_EQ(any.power, 10);
}

TEST_F(RadioPower, DecreaseCountsFromThePowerBeforeItsOwnChanges) {
  Radio any = radio(16);
  EXPECT_EQ(any.apply_power_decrease(-60, -62), 2);
  EXPECT_EQ(any.power, 14);
  EXPECT_EQ(any.apply_power_decrease(-60, -65), 5);
  EXPECT_EQ(any.power, 11);
  EXPECT_EQ(any.power_changed, -5);
}

TEST_F(RadioPower, DecreaseNeitherRaisesNorTouchesADisabledRadio) {
  Radio any = radio(8);
  EXPECT_EQ(any.apply_power_decrease(-60, -70), 0);  // the limit would raise it to 10
  EXPECT_EQ(any.apply_power_decrease(-70, -60), 0);
  EXPECT_EQ(any.power, 8);
  any = radio(16);
  any.status = false;
  EXPECT_EQ(any.apply_power_decrease(-60, -70), 0);
  EXPECT_EQ(any.power, 16);
}

TEST_F(RadioPower, IncreaseStepsUpUnlessALargerOneIsApplied) {
  Radio any = radio(10);
  EXPECT_EQ(any.apply_power_increase(-80, -77, -70), 3);
  EXPECT_EQ(any.power, 13);
  EXPECT_EQ(any.power_changed, 3);
  EXPECT_EQ(any.apply_power_increase(-80, -76, -70), 0);  // 4 is not below the applied 3
  EXPECT_EQ(any.apply_power_increase(-80, -77, -70), 0);
  EXPECT_EQ(any.apply_power_increase(-80, -78, -70), 2);  // the smaller one wins
  EXPECT_EQ(any.power, 12);
  EXPECT_EQ(any.power_changed, 2);
}

TEST_F(RadioPower, IncreaseIsLimitedByTheUpperLimit) {
  Radio any = radio(13);
  EXPECT_EQ(any.apply_power_increase(-90, -70, -70), 3);
  EXPECT_EQ(any.power, 16);
}

TEST_F(RadioPower, IncreaseDoesNothingWhenHeardLoudEnoughOrDisabled) {
  Radio any = radio(12);
  EXPECT_EQ(any.apply_power_increase(-70, -60, -70), 0);
  EXPECT_EQ(any.apply_power_increase(-69, -60, -70), 0);
  EXPECT_EQ(any.apply_power_increase(-80, -80, -70), 0);  // no change
  any.status = false;
  EXPECT_EQ(any.apply_power_increase(-80, -77, -70), 0);
  EXPECT_EQ(any.power, 12);
}

TEST_F(RadioPower, IncreaseToALowerTargetStopsAtTheLowerLimit) {
  Radio any = radio(12);
  EXPECT_EQ(any.apply_power_increase(-80, -85, -70), -2);  // 7 is below 10
  EXPECT_EQ(any.power, 10);
  EXPECT_EQ(any.power_changed, -2);
}

TEST_F(RadioPower, StepsUpdateTheEirp) {
  Radio any = radio(16);
  limit_power(any, {.antenna_gain = 4});
  any.apply_power_decrease(-60, -62);
  EXPECT_EQ(any.eirp, 18);
  any.power_changed = 0;
  any.apply_power_increase(-80, -79, -70);
  EXPECT_EQ(any.eirp, 19);
}

TEST_F(RadioPower, NewLimitsFitPowerAndEirpAndAreLogged) {
  Radio any = radio(16);
  any.power_initialised = true;
  any.eirp = 19;
  Radio limits = radio(0);
  limit_power(limits, {.power_min = 2,
                       .power_max = 14,
                       .eirp_min = 5,
                       .eirp_max = 17,
                       .antenna_gain = 6,
                       .cable_loss = 2});
  CapturedLog log;
  any.set_validate_power(limits);  // at most min(17 - 6 + 2, 14) = 13 dBm
  EXPECT_EQ(any.power, 13);
  EXPECT_EQ(any.eirp, 17);
  EXPECT_THAT(log.texts(LogLevel::Debug),
              ElementsAre("00:11:22:33:44:00: Power/eirp adjusted to new limits: power 16 -> 13, "
                          "eirp 19 -> 17 (power min/max 2/14, eirp min/max 5/17)"));
}

TEST_F(RadioPower, ANewAntennaThatChangesOnlyTheEirpIsLogged) {
  Radio any = radio(12);
  any.power_initialised = true;
  any.eirp = 12;
  Radio limits = radio(0);
  limit_power(limits, {.antenna_gain = 4, .cable_loss = 1});
  CapturedLog log;
  any.set_validate_power(limits);
  EXPECT_THAT(log.texts(LogLevel::Debug),
              ElementsAre("00:11:22:33:44:00: Power/eirp adjusted to new limits: power 12 -> 12, "
                          "eirp 12 -> 15 (power min/max -1/-1, eirp min/max -1/-1)"));
}

TEST_F(RadioPower, NewLimitsThatChangeOnlyThePowerAreLogged) {
  Radio any = radio(16);
  any.power_initialised = true;
  Radio limits = radio(0);
  limits.power_max = 12;
  CapturedLog log;
  any.set_validate_power(limits);
  EXPECT_THAT(log.texts(LogLevel::Debug),
              ElementsAre("00:11:22:33:44:00: Power/eirp adjusted to new limits: power 16 -> 12, "
                          "eirp -1 -> -1 (power min/max -1/12, eirp min/max -1/-1)"));
}

TEST_F(RadioPower, NewLimitsThatFitAreNotLogged) {
  Radio any = radio(12);
  any.power_initialised = true;
  Radio limits = radio();
  limits.power_max = 20;
  CapturedLog log;
  any.set_validate_power(limits);
  EXPECT_EQ(any.power_max, 20);
  EXPECT_EQ(any.power, 12);
  EXPECT_TRUE(log.texts(LogLevel::Debug).empty());
}

TEST_F(RadioPower, NewLimitsWaitForTheAccessPointsPower) {
  Radio any = radio(16);
  Radio limits = radio();
  limits.power_max = 12;
  any.set_validate_power(limits);
  EXPECT_EQ(any.power_max, 12);
  EXPECT_EQ(any.power, 16);
}

TEST_F(RadioPower, EqualLimitsLeaveAPowerOutsideThemAlone) {
  Radio any = radio(25);
  any.power_initialised = true;
  any.set_validate_power(radio());
  EXPECT_EQ(any.power, 25);
}

TEST_F(RadioPower, SurvivesEveryNumberThatFitsIntoAMessage) {
  const std::int32_t extremes[] = {INT_MIN, -1, 0, 1, INT_MAX};
  for (const std::int32_t power : extremes)
    for (const std::int32_t gain : extremes)
      for (const std::int32_t loss : extremes)
        for (const std::int32_t limit : extremes) {
          Radio any = radio(power);
          any.power_initialised = true;
          any.power_changed = loss;
          Radio limits = any;
          limit_power(limits, {.power_max = loss,
                               .eirp_min = limit,
                               .eirp_max = gain,
                               .antenna_gain = gain,
                               .cable_loss = loss});
          any.set_validate_power(limits);
          any.apply_power_decrease(gain, loss);
          any.apply_power_increase(loss, gain, limit);
          EXPECT_GE(any.clamp_power(power), any.effective_min());
        }
}

// --- load ---

TEST_F(RadioLoad, LevelsFollowTheNumberOfAssociatedClients) {
  config_.use_80211v = true;
  Radio any = radio();
  const auto with_clients = [&](std::uint32_t count) {
    any.assoc_clients.clear();
    for (std::uint32_t i = 0; i < count; ++i)
      any.assoc_clients.add_client(kBase.plus(i), -50, "s", false, false);
    any.update_load_level();
    return any.load_level;
  };
  EXPECT_EQ(with_clients(0), 255u);
  EXPECT_EQ(with_clients(4), 255u);
  EXPECT_EQ(with_clients(5), 127u);
  EXPECT_EQ(with_clients(19), 127u);
  EXPECT_EQ(with_clients(20), 0u);
  EXPECT_EQ(with_clients(3), 255u);
}

TEST_F(RadioLoad, AThresholdBelowZeroIsAlwaysPassed) {
  config_.use_80211v = true;
  config_.load_balance_sta_low = 0;
  Radio any = radio();
  any.update_load_level();
  EXPECT_EQ(any.load_level, 127u);
}

TEST_F(RadioLoad, UpdateTellsWhetherTheLevelChanged) {
  config_.use_80211v = true;
  Radio any = radio();
  EXPECT_EQ(any.load_level, 0u);
  EXPECT_TRUE(any.update_load_level());
  EXPECT_FALSE(any.update_load_level());
  config_.use_balance = false;
  any.load_level = 1;
  EXPECT_FALSE(any.update_load_level());
  EXPECT_EQ(any.load_level, 1u);
}

TEST_F(RadioLoad, CountsExpectedClientsToo) {
  config_.use_80211v = true;
  config_.load_balance_sta_low = 1;
  Radio any = radio();
  any.update_load_level();
  EXPECT_EQ(any.load_level, 255u);
  any.assoc_clients.expect_client(mac("AA:00:00:00:00:01"), kBase, 1, 1);
  EXPECT_TRUE(any.update_load_level());
  EXPECT_EQ(any.load_level, 127u);
  EXPECT_FALSE(any.over_low_load());
  any.assoc_clients.add_client(mac("AA:00:00:00:00:02"), -50, "s", false, false);
  EXPECT_TRUE(any.over_low_load());
  any.assoc_clients.age_expected();
  EXPECT_FALSE(any.over_low_load());
  any.assoc_clients.remove_client(mac("AA:00:00:00:00:02"));
  EXPECT_TRUE(any.update_load_level());
  EXPECT_EQ(any.load_level, 255u);
  EXPECT_EQ(any.high_load_limit(), 20);
}

// --- messages ---

TEST_F(RadioMessage, LocksBalancingButNotPlanningWhenItSaysNothing) {
  const Radio silent = read("{}");
  EXPECT_EQ(silent.locked_for_tpc, 0);
  EXPECT_EQ(silent.locked_for_dca, 0);
  EXPECT_EQ(silent.locked_for_balancer, 1);
  EXPECT_EQ(silent.locked_for_80211v, 1);
  const Radio speaking = read(R"({"locked-for-tpc":1,"locked-for-dca":2,"locked-for-balancer":0,
                                  "locked-for-80211v":null})");
  EXPECT_EQ(speaking.locked_for_tpc, 1);
  EXPECT_EQ(speaking.locked_for_dca, 2);
  EXPECT_EQ(speaking.locked_for_balancer, 0);
  EXPECT_EQ(speaking.locked_for_80211v, 0);
}

TEST_F(RadioMessage, FillsTheRadio) {
  const Radio any = read(R"({"status":1,"channel":44,"band":5,"power":14,"power-max":20,
      "power-min":3,"bandwidth":80,"primary-channel":"uu","available-channels":"36,44"})");
  EXPECT_TRUE(any.status);
  EXPECT_EQ(any.channel, 44);
  EXPECT_EQ(any.band, 5);
  EXPECT_EQ(any.power, 14);
  EXPECT_EQ(any.power_max, 20);
  EXPECT_EQ(any.power_min, 3);
  EXPECT_EQ(any.bandwidth, 80);
  EXPECT_EQ(any.primary_channel, 768);  // channel 44 is the third of its block
  EXPECT_THAT(any.available_channels, UnorderedElementsAre(36, 44));
}

TEST_F(RadioMessage, TakesThePowerOfARadioThatTpcManagesOnlyOnce) {
  Radio any = read(R"({"status":1,"power":14})");
  EXPECT_TRUE(any.power_initialised);
  apply(any, R"({"status":1,"power":20})");
  EXPECT_EQ(any.power, 14);
  apply(any, R"({"status":0,"power":20})");  // off: nobody manages it
  EXPECT_EQ(any.power, 20);
  EXPECT_FALSE(any.power_initialised);
  apply(any, R"({"status":1,"power":8})");
  EXPECT_EQ(any.power, 8);
  EXPECT_TRUE(any.power_initialised);
}

TEST_F(RadioMessage, AlwaysTakesThePowerOfARadioThatTpcDoesNotManage) {
  Radio locked = read(R"({"status":1,"power":14,"locked-for-tpc":1})");
  EXPECT_FALSE(locked.power_initialised);
  apply(locked, R"({"status":1,"power":20,"locked-for-tpc":1})");
  EXPECT_EQ(locked.power, 20);
  config_.use_tpc = false;
  Radio unmanaged = read(R"({"status":1,"power":14})");
  EXPECT_FALSE(unmanaged.power_initialised);
  apply(unmanaged, R"({"status":1,"power":20})");
  EXPECT_EQ(unmanaged.power, 20);
}

TEST_F(RadioMessage, AlwaysTakesTheChannel) {
  Radio any = read(R"({"status":1,"channel":36})");
  EXPECT_TRUE(any.channel_initialised);
  apply(any, R"({"status":1,"channel":44})");
  EXPECT_EQ(any.channel, 44);
  EXPECT_TRUE(any.channel_initialised);
  apply(any, R"({"status":0,"channel":40})");
  EXPECT_FALSE(any.channel_initialised);
  EXPECT_FALSE(read(R"({"status":1,"channel":36,"locked-for-dca":1})").channel_initialised);
  config_.use_dca = false;
  EXPECT_FALSE(read(R"({"status":1,"channel":36})").channel_initialised);
}

TEST_F(RadioMessage, ReadsEirpAndAntenna) {
  const Radio any = read(R"({"status":1,"power":10,"power-max":-1,"power-min":-1,"eirp-min":20,
      "antenna-configuration":{"antenna-gain":5,"cable-loss":1}})");
  EXPECT_TRUE(any.has_antenna_configuration);
  EXPECT_EQ(any.antenna_gain, 5);
  EXPECT_EQ(any.cable_loss, 1);
  EXPECT_EQ(any.eirp, 20);  // computed, because the message has none
  EXPECT_EQ(any.power, 16);
}

TEST_F(RadioMessage, TakesAnEirpAsItIs) {
  const Radio any = read(R"({"status":1,"power":10,"eirp-min":20,"eirp":3,
      "antenna-configuration":{"antenna-gain":5}})");
  EXPECT_EQ(any.eirp, 3);
  EXPECT_EQ(any.power, 10);
}

TEST_F(RadioMessage, AnyEirpMemberReplacesTheWholeDescription) {
  const char* first = R"({"status":1,"power":12,"eirp-min":1,"eirp-max":30,"eirp":15,
      "antenna-configuration":{"antenna-gain":5,"cable-loss":1}})";
  for (const char* second :
       {R"({"eirp":9})", R"({"eirp-min":-1,"eirp":9})", R"({"eirp-max":-1,"eirp":9})",
        R"({"antenna-configuration":null,"eirp":9})", R"({"antenna-configuration":7,"eirp":9})"}) {
    Radio any = read(first);
    apply(any, second);
    EXPECT_EQ(any.eirp, 9) << second;
    EXPECT_EQ(any.eirp_min, -1) << second;
    EXPECT_EQ(any.eirp_max, -1) << second;
    EXPECT_EQ(any.antenna_gain, 0) << second;
    EXPECT_EQ(any.cable_loss, 0) << second;
    EXPECT_FALSE(any.has_antenna_configuration) << second;
  }
  for (const char* second :
       {R"({"eirp-max":-1})", R"({"eirp-min":-1})", R"({"antenna-configuration":null})"}) {
    Radio any = read(first);
    apply(any, second);
    EXPECT_EQ(any.eirp, -1) << second;
    EXPECT_EQ(any.eirp_min, -1) << second;
    EXPECT_EQ(any.eirp_max, -1) << second;
    EXPECT_FALSE(any.has_antenna_configuration) << second;
  }
  Radio any = read(first);
  apply(any, R"({"status":1,"power":12,"power-max":20})");
  EXPECT_TRUE(any.has_antenna_configuration);
  EXPECT_EQ(any.eirp_max, 30);
  EXPECT_EQ(any.eirp, 16);  // 12 + 5 - 1
}

TEST_F(RadioMessage, KnowsAllNamesOfPrimaryChannels) {
  // Channel 42 is the centre of its block, where any position stands.
  const struct {
    const char* name;
    std::int32_t position;
  } cases[] = {{"upper", 512}, {"lower", 256}, {"ll", 256}, {"lu", 512},
               {"ul", 768},    {"uu", 1024},   {"none", 0}, {"", 0}};
  for (const auto& c : cases) {
    const std::string text = std::string(R"({"channel":42,"band":5,"bandwidth":80,)") +
                             R"("primary-channel":")" + c.name + "\"}";
    EXPECT_EQ(read(text).primary_channel, c.position) << c.name;
  }
}

TEST_F(RadioMessage, ReadsVapsAndLogsTheRadio) {
  CapturedLog log;
  const Radio any = read(R"({"status":1,"channel":36,"band":5,"power":12,
      "vaps":[{"id":1,"ssid":"corp","802dot11k":1,"802dot11v":1}],"locked-for-80211v":0})");
  ASSERT_EQ(any.vaps.size(), 1u);
  EXPECT_EQ(any.vaps.vaps().at("corp").mac, mac("00:11:22:33:44:11"));
  EXPECT_TRUE(any.vaps.vaps().at("corp").use_80211v);
  const auto traces = log.texts(LogLevel::Trace);
  ASSERT_GE(traces.size(), 4u);
  EXPECT_THAT(
      std::vector<std::string>(traces.end() - 4, traces.end()),
      ElementsAre("----------------------------------",
                  "wlan_id = 1, mac = 00:11:22:33:44:10 , channel = 36, band = 5, power = 12",
                  "      vap_id = 1, 802.11k = 1, 802.11r = 0, 802.11v = 1, ssid = corp",
                  "----------------------------------"));
}

TEST_F(RadioMessage, WithoutVapsClearsThemUnlessVapsAreLeftAlone) {
  Radio any = read(R"({"vaps":[{"id":1,"ssid":"corp"}]})");
  any.from_json(JsonReader(R"({"vaps":[{"id":1,"ssid":"guest"}]})"), sets_, false, false, false);
  EXPECT_EQ(any.vaps.vaps().count("corp"), 1u);
  EXPECT_EQ(any.vaps.size(), 1u);
  apply(any, "{}");
  EXPECT_EQ(any.vaps.size(), 0u);
}

TEST_F(RadioMessage, ReadsClientsAlsoWhereVapsAreLeftAlone) {
  Radio any = read("{}");
  CapturedLog log;
  any.from_json(JsonReader(R"({"assoclist":[{"mac":"AA:00:00:00:00:01","rssi":-50,"ssid":"s"}]})"),
                sets_, false, false, false);
  EXPECT_EQ(any.assoc_clients.count(), 1u);
  EXPECT_TRUE(log.has(LogLevel::Debug, "Assocc clients:  1 - 0"));
  apply(any, R"({"assoclist":null})");
  apply(any, "{}");
  EXPECT_EQ(any.assoc_clients.count(), 1u);
  EXPECT_EQ(log.count(LogLevel::Debug, "Assocc clients:  1 - 0"), 1u);  // not without a list
  apply(any, R"({"assoclist":[]})");
  EXPECT_EQ(any.assoc_clients.count(), 0u);
}

TEST_F(RadioMessage, LeavesVapsAndClientsAloneWhereNothingUsesThem) {
  Radio any = read(R"({"vaps":[{"id":1,"ssid":"corp"}]})");
  config_.use_balance = config_.use_80211k = config_.use_80211r = config_.use_80211v = false;
  apply(any, R"({"assoclist":[{"mac":"AA:00:00:00:00:01","ssid":"s"}]})");
  EXPECT_EQ(any.vaps.size(), 1u);
  EXPECT_EQ(any.assoc_clients.count(), 0u);
  config_.use_80211r = true;
  apply(any, R"({"assoclist":[{"mac":"AA:00:00:00:00:01","ssid":"s"}]})");
  EXPECT_EQ(any.vaps.size(), 0u);
  EXPECT_EQ(any.assoc_clients.count(), 1u);
}

TEST_F(RadioMessage, OrsTheChangedFlagIn) {
  Radio any = read("{}");
  EXPECT_FALSE(any.changed);
  any.from_json(JsonReader("{}"), sets_, false, false, true);
  EXPECT_TRUE(any.changed);
  apply(any, "{}");
  EXPECT_TRUE(any.changed);
}

TEST_F(RadioMessage, SurvivesWrongTypesAndAbsurdNumbersInEveryMember) {
  const char* values[] = {"null",
                          "true",
                          "-1",
                          "2147483647",
                          "-2147483648",
                          "4294967338",
                          "9223372036854775807",
                          "18446744073709551615",
                          "1e308",
                          "\"\"",
                          "\"99999999999999999999,36\"",
                          "[]",
                          "[[],{},null,7]",
                          "{}",
                          "{\"antenna-gain\":-2147483648,\"cable-loss\":2147483647}"};
  for (const char* member : test::kRadioMembers)
    for (const char* value : values) {
      Radio any = radio(16);
      any.eirp_min = INT_MAX;
      any.has_antenna_configuration = true;
      apply(any, "{\"status\":1,\"" + std::string(member) + "\":" + value + "}");
      EXPECT_TRUE(any.band == 0 || any.band == 2 || any.band == 5 || any.band == 6);
      EXPECT_FALSE(object_text([&](JsonWriter& object) { any.to_json(object); }).empty());
      EXPECT_FALSE(object_text([&](JsonWriter& object) { any.config_to_json(object); }).empty());
    }
}

// --- MAC pool ---

TEST_F(RadioMacPool, OfANewRadioDefaultsToItsIdTimes16) {
  const Radio any = read("{}");
  EXPECT_EQ(any.mac_offset, 16u);
  EXPECT_EQ(any.max_mac_count, 16u);
  EXPECT_EQ(any.mac, mac("00:11:22:33:44:10"));
  EXPECT_EQ(read(R"({"radio-mac-count":4})").max_mac_count, 4u);
  Radio restored(config_, kBase, 1, false, 1, 0, 0, 0, 20);
  restored.mac_offset = 5;
  apply(restored, "{}", true);
  EXPECT_EQ(restored.mac_offset, 16u);
}

TEST_F(RadioMacPool, IsTakenFromTheMessage) {
  const Radio any = read(R"({"mac-offset":3,"radio-mac-count":8})");
  EXPECT_EQ(any.mac_offset, 3u);
  EXPECT_EQ(any.max_mac_count, 8u);
  EXPECT_EQ(any.mac, mac("00:11:22:33:44:03"));
}

TEST_F(RadioMacPool, ANewRadioWithoutCountHas16) {
  Radio any(config_, kBase, 1, false, 1, 0, 0, 0, 20);
  any.max_mac_count = 4;
  apply(any, R"({"mac-offset":3})", true);
  EXPECT_EQ(any.max_mac_count, 16u);
  apply(any, R"({"mac-offset":5,"radio-mac-count":4})");
  apply(any, R"({"mac-offset":7})");  // not new: the count stays
  EXPECT_EQ(any.max_mac_count, 4u);
  EXPECT_EQ(any.mac, mac("00:11:22:33:44:07"));
}

TEST_F(RadioMacPool, OfANewRadioIsSetEvenWhereTheMessageSaysWhatItWas) {
  Radio any(config_, kBase, 1, false, 1, 0, 0, 0, 20);
  CapturedLog log;
  apply(any, R"({"mac-offset":16,"radio-mac-count":16})", true);
  EXPECT_TRUE(log.has(LogLevel::Trace,
                      "radio id=1, max_mac_count=16, mac_offset=16, mac = 00:11:22:33:44:10"));
}

TEST_F(RadioMacPool, OfAKnownRadioChangesOnlyWithTheValues) {
  Radio any = read(R"({"mac-offset":3,"radio-mac-count":8})");
  CapturedLog log;
  apply(any, R"({"mac-offset":3,"radio-mac-count":8})");
  apply(any, R"({"mac-offset":3})");
  apply(any, R"({"radio-mac-count":8})");
  apply(any, "{}");
  const auto set_macs = [&log] {
    std::size_t count = 0;
    for (const std::string& text : log.texts(LogLevel::Trace))
      count += text.starts_with("radio id=1, max_mac_count=") ? 1 : 0;
    return count;
  };
  EXPECT_EQ(set_macs(), 0u);
  apply(any, R"({"radio-mac-count":9})");
  apply(any, R"({"mac-offset":4})");
  EXPECT_EQ(set_macs(), 2u);
  EXPECT_EQ(any.max_mac_count, 9u);
  EXPECT_EQ(any.mac, mac("00:11:22:33:44:04"));
}

TEST_F(RadioMacPool, OfABaseMacThatWouldWrapStaysAtTheBaseMac) {
  const Radio any(config_, mac("00:11:22:FF:FF:F8"), 1, true, 1, 0, 0, 0, 20);
  EXPECT_EQ(any.mac_offset, 16u);
  EXPECT_EQ(any.mac, mac("00:11:22:FF:FF:F8"));
}

TEST_F(RadioMacPool, CanBeMovedToAnotherBase) {
  Radio any = radio();
  any.set_mac(mac("00:11:22:33:55:00"));
  EXPECT_EQ(any.mac, mac("00:11:22:33:55:10"));
}

// --- available channels ---

TEST_F(RadioChannels, AreNumbersWithAnythingBetween) {
  const Radio any = read(R"({"channel":36,"available-channels":"36,,40x44"})");
  EXPECT_THAT(any.available_channels, UnorderedElementsAre(36, 40, 44));
  EXPECT_THAT(sets_[5], UnorderedElementsAre(36, 40, 44));
}

TEST_F(RadioChannels, KeepAFieldOf300ButCountItToNoBand) {
  const Radio any = read(R"({"channel":36,"available-channels":"300,36"})");
  EXPECT_THAT(any.available_channels, UnorderedElementsAre(36, 300));
  EXPECT_THAT(sets_[5], UnorderedElementsAre(36));
  EXPECT_TRUE(sets_[6].empty());
  const Radio six = read(R"({"channel":37,"band":6,"available-channels":"233,300"})");
  EXPECT_THAT(six.available_channels, UnorderedElementsAre(233, 300));
  EXPECT_THAT(sets_[6], UnorderedElementsAre(233));
}

TEST_F(RadioChannels, OfARadioWithoutBandGoToTheirOwn) {
  read(R"({"available-channels":"1,14,15,35,36,165,166,233"})");
  EXPECT_THAT(sets_[2], UnorderedElementsAre(1, 14));
  EXPECT_THAT(sets_[5], UnorderedElementsAre(36, 165));
  EXPECT_TRUE(sets_[6].empty());
  EXPECT_TRUE(sets_[0].empty());
}

TEST_F(RadioChannels, OfAKnownBandAllGoThereUpTo165) {
  read(R"({"band":2,"available-channels":"1,15,36,166"})");
  EXPECT_THAT(sets_[2], UnorderedElementsAre(1, 15, 36));
  EXPECT_TRUE(sets_[5].empty());
  read(R"({"band":6,"available-channels":"1,37,166,233,234"})");
  EXPECT_THAT(sets_[6], UnorderedElementsAre(1, 37, 166, 233));
}

TEST_F(RadioChannels, AreReplacedByEveryMessage) {
  Radio any = read(R"({"available-channels":"36,40"})");
  apply(any, R"({"available-channels":"0,44,0"})");
  EXPECT_THAT(any.available_channels, UnorderedElementsAre(44));
  apply(any, R"({"available-channels":""})");
  EXPECT_TRUE(any.available_channels.empty());
  apply(any, R"({"available-channels":"44"})");
  apply(any, "{}");
  EXPECT_TRUE(any.available_channels.empty());
}

TEST_F(RadioChannels, WithMoreDigitsThanANumberHasStayAtTheHighest) {
  const Radio any = read(R"({"available-channels":"99999999999999999999999,4294967332"})");
  EXPECT_THAT(any.available_channels, UnorderedElementsAre(INT_MAX));
}

TEST_F(RadioChannels, AreNoMoreThan1024) {
  std::string text = R"({"available-channels":")";
  for (int i = 1; i <= 100000; ++i) text += std::to_string(i) + ",";
  EXPECT_EQ(read(text + "\"}").available_channels.size(), 1024u);
}

// --- writing ---

TEST_F(RadioJson, OfTheStatusOfANewRadio) {
  const Radio any(config_, kBase, 1, false, 1, 0, 0, 0, 20);
  EXPECT_EQ(object_text([&](JsonWriter& object) { any.to_json(object); }),
            R"({"id":1,"mac":"00:11:22:33:44:10","mac-offset":16,"radio-mac-count":16,"status":0,)"
            R"("power-changed":0,"conflicted":0,"locked-tpc":0,"locked-dca":0,)"
            R"("locked-balancer":0,"locked-80211v":0,"channel":1,"band":0,"power":0,)"
            R"("max-power":0,"min-power":0,"bandwidth":20,"primary-channel":0,)"
            R"("available-channels":[],"vaps":[],"assoc_clients":[]})");
}

TEST_F(RadioJson, OfTheStatusWithEverything) {
  Radio any = read(R"({"status":1,"channel":36,"band":5,"power":12,"power-max":20,"power-min":5,
      "bandwidth":80,"eirp-min":1,"eirp-max":30,"locked-for-balancer":2,"locked-for-80211v":3,
      "antenna-configuration":{"antenna-gain":5,"cable-loss":1},"available-channels":"36",
      "vaps":[{"id":1,"ssid":"a","802dot11k":1}],
      "assoclist":[{"mac":"AA:00:00:00:00:01","rssi":-50,"ssid":"a"}]})");
  any.power_changed = -3;
  any.conflicted = true;
  EXPECT_EQ(object_text([&](JsonWriter& object) { any.to_json(object); }),
            R"({"id":1,"mac":"00:11:22:33:44:10","mac-offset":16,"radio-mac-count":16,"status":1,)"
            R"("power-changed":-3,"conflicted":1,"locked-tpc":0,"locked-dca":0,)"
            R"("locked-balancer":2,"locked-80211v":3,"channel":36,"band":5,"power":12,)"
            R"("max-power":20,"min-power":5,"bandwidth":80,"primary-channel":256,)"
            R"("eirp-min":1,"eirp-max":30,"eirp":16,"available-channels":[36],)"
            R"("antenna-configuration":{"antenna-gain":5,"cable-loss":1},)"
            R"("vaps":[{"id":1,"ssid":"a","mac":"00:11:22:33:44:11","mobility-domain":97,)"
            R"("use_802dot11k":1,"use_802dot11r":0,"use_802dot11v":0}],)"
            R"("assoc_clients":[{"mac":"AA:00:00:00:00:01","dbm-signal":-50,"ssid":"a",)"
            R"("no-balance":0}]})");
}

TEST_F(RadioJson, HasEirpWithALimitOrAnAntenna) {
  const auto eirp_members = [](const Radio& any) {
    const std::string text = object_text([&](JsonWriter& object) { any.config_to_json(object); });
    const std::size_t from = text.find("\"power\":12,") + 11;
    return text.substr(from, text.find("\"bandwidth\"") - from);
  };
  Radio any = radio(12);
  any.eirp = 14;
  EXPECT_EQ(eirp_members(any), "");
  any.eirp_min = 0;
  EXPECT_EQ(eirp_members(any), R"("eirp-min":0,"eirp":14,)");
  any.eirp_min = -1;
  any.eirp_max = 20;
  EXPECT_EQ(eirp_members(any), R"("eirp-max":20,"eirp":14,)");
  any.eirp_max = 0;
  EXPECT_EQ(eirp_members(any), R"("eirp-max":0,"eirp":14,)");
  any.eirp_max = -1;
  any.has_antenna_configuration = true;
  EXPECT_EQ(eirp_members(any),
            R"("eirp":14,"antenna-configuration":{"antenna-gain":0,"cable-loss":0},)");
}

TEST_F(RadioJson, OfTheConfigurationSentToTheAccessPoint) {
  config_.no_balance_enterprise = true;
  Radio any = radio(12);
  any.band = 5;
  any.channel = 48;
  any.eirp = 16;
  limit_power(any, {.eirp_min = 1, .eirp_max = 30, .antenna_gain = 5, .cable_loss = 1});
  any.normalize_primary_channel();
  EXPECT_EQ(object_text([&](JsonWriter& object) { any.config_to_json(object); }),
            R"({"id":1,"channel":48,"band":5,"power":12,"eirp-min":1,"eirp-max":30,"eirp":16,)"
            R"("antenna-configuration":{"antenna-gain":5,"cable-loss":1},"bandwidth":80,)"
            R"("primary-channel":"uu","tavro-sta-rssi-thr-low":-75,"tavro-sta-rssi-thr-high":-65,)"
            R"("tavro-roam-attempt-timeout":600,"tavro-client-rssi-renew":15,)"
            R"("tavro-client-max-age":20,"tavro-try-no-balance":2,"no-balance-enterprise":1})");
}

TEST_F(RadioJson, OfTheConfigurationNamesTheBandOfTheChannel) {
  Radio any = radio();
  const auto text = [&] {
    return object_text([&](JsonWriter& object) { any.config_to_json(object); });
  };
  EXPECT_NE(text().find(R"("channel":36,"band":5,)"), std::string::npos);
  any.band = 2;
  any.channel = 170;
  EXPECT_NE(text().find(R"("channel":170,"band":6,)"), std::string::npos);
}

TEST_F(RadioJson, AsksAboutOneClient) {
  EXPECT_EQ(array_text([&](JsonWriter& array) {
              radio().probe_list_to_json(array, "corp", mac("aa:00:00:00:00:01"), 5);
            }),
            R"([{"id":1,"probe-list":[{"ssid":"corp","mac":"AA:00:00:00:00:01","timeout":5}]}])");
}

TEST_F(RadioJson, ListsEachKickedClientOnce) {
  Radio any = radio();
  any.blacklist.kicked[mac("AA:00:00:00:00:01")] = {"corp", false};
  const auto text = [&any] {
    return array_text([&](JsonWriter& array) { any.disassoc_list_to_json(array); });
  };
  EXPECT_EQ(
      text(),
      R"([{"id":1,"diassoc-list":[{"mac":"AA:00:00:00:00:01","ssid":"corp","timeout":30}]}])");
  EXPECT_EQ(text(), "[]");
  any.blacklist.kicked[mac("AA:00:00:00:00:02")] = {"guest", false};
  EXPECT_EQ(
      text(),
      R"([{"id":1,"diassoc-list":[{"mac":"AA:00:00:00:00:02","ssid":"guest","timeout":30}]}])");
  EXPECT_EQ(any.blacklist.kicked.size(), 2u);
}

TEST_F(RadioJson, ListsPendingBlacklistChanges) {
  Radio any = radio();
  const auto text = [&any] {
    return array_text([&](JsonWriter& array) { any.blacklist_to_json(array); });
  };
  EXPECT_EQ(text(), "[]");
  any.blacklist.changes[mac("AA:00:00:00:00:01")] = {RadioBlacklist::Action::Block, 30};
  EXPECT_EQ(
      text(),
      R"([{"id":1,"blacklist":[{"mac":"AA:00:00:00:00:01","action":"block","timeout":30}]}])");
  any.blacklist.changes[mac("AA:00:00:00:00:01")] = {RadioBlacklist::Action::Unblock, 30};
  EXPECT_EQ(text(), R"([{"id":1,"blacklist":[{"mac":"AA:00:00:00:00:01","action":"unblock"}]}])");
}

// --- restoring ---

TEST_F(RadioRestore, ReadsTheStatusForm) {
  Radio source = read(R"({"status":1,"channel":36,"band":5,"power":12,"power-max":20,"power-min":5,
      "bandwidth":80,"available-channels":"36","mac-offset":20,"radio-mac-count":4,
      "locked-for-balancer":2,"locked-for-80211v":0,"vaps":[{"id":1,"ssid":"a","802dot11k":1}]})");
  const std::string text = object_text([&](JsonWriter& object) { source.to_json(object); });
  Radio any(config_, kBase, 1, false, 1, 0, 0, 0, 20);
  sets_ = {};
  any.restore(JsonReader(text.c_str()), sets_);
  EXPECT_EQ(object_text([&](JsonWriter& object) { any.to_json(object); }), text);
  EXPECT_TRUE(any.power_initialised);
  EXPECT_TRUE(any.channel_initialised);
  EXPECT_THAT(sets_[5], UnorderedElementsAre(36));
}

TEST_F(RadioRestore, DoesNotRestoreEirp) {
  Radio any(config_, kBase, 1, false, 1, 0, 0, 0, 20);
  any.restore(JsonReader(R"({"eirp-min":5,"eirp-max":20,"eirp":7,
      "antenna-configuration":{"antenna-gain":5}})"),
              sets_);
  EXPECT_EQ(any.eirp_min, -1);
  EXPECT_EQ(any.eirp_max, -1);
  EXPECT_EQ(any.eirp, -1);
  EXPECT_FALSE(any.has_antenna_configuration);
}

TEST_F(RadioRestore, HasDefaultsForWhatIsMissing) {
  Radio any = radio(12, 2);
  any.locked_for_balancer = 1;
  any.restore(JsonReader("{}"), sets_);
  EXPECT_EQ(any.locked_for_balancer, 0);
  EXPECT_EQ(any.locked_for_80211v, 0);
  EXPECT_EQ(any.mac_offset, 32u);
  EXPECT_EQ(any.max_mac_count, 16u);
  EXPECT_EQ(any.mac, mac("00:11:22:33:44:20"));
  EXPECT_FALSE(any.status);
  EXPECT_FALSE(any.power_initialised);
  EXPECT_FALSE(any.channel_initialised);
}

TEST_F(RadioRestore, IsInitialisedOnlyWhereTheControllerManagesIt) {
  Radio any = radio();
  any.restore(JsonReader(R"({"status":1,"locked-tpc":1})"), sets_);
  EXPECT_FALSE(any.power_initialised);
  EXPECT_TRUE(any.channel_initialised);
  Radio other = radio();
  other.restore(JsonReader(R"({"status":1,"locked-dca":1})"), sets_);
  EXPECT_TRUE(other.power_initialised);
  EXPECT_FALSE(other.channel_initialised);
}

TEST_F(RadioRestore, NormalisesThePrimaryChannel) {
  Radio any = radio();
  any.restore(JsonReader(R"({"channel":48,"band":5,"bandwidth":80,"primary-channel":256})"), sets_);
  EXPECT_EQ(any.primary_channel, 1024);
  any.restore(JsonReader(R"({"channel":42,"band":5,"bandwidth":80,"primary-channel":768})"), sets_);
  EXPECT_EQ(any.primary_channel, 768);
}

TEST_F(RadioRestore, LogsTheRadioAndItsBand) {
  Radio any(config_, kBase, 1, false, 1, 0, 0, 0, 20);
  CapturedLog log;
  any.restore(JsonReader(R"({"status":1,"channel":36,"power":12,
      "vaps":[{"id":1,"ssid":"a","use_802dot11r":1}]})"),
              sets_);
  EXPECT_TRUE(log.has(LogLevel::Debug,
                      "radio restore without band: inferred/reused band=5 "
                      "mac=00:11:22:33:44:10 id=1 channel=36"));
  EXPECT_THAT(log.texts(LogLevel::Trace),
              ElementsAre("radio id=1, max_mac_count=16, mac_offset=16, mac = 00:11:22:33:44:10",
                          "----------------------------------",
                          "wlan_id = 1, mac = 00:11:22:33:44:10 , channel = 36, power = 12",
                          "      vap_id = 1, 802.11k = 0, 802.11r = 1, 802.11v = 0, ssid = a",
                          "----------------------------------"));
}

TEST_F(RadioRestore, ReplacesChannelsAndSkipsWhatIsNone) {
  Radio any = radio();
  any.available_channels = {1, 2};
  any.restore(JsonReader(R"({"available-channels":[36,0,-4,"40",null,300,166]})"), sets_);
  EXPECT_THAT(any.available_channels, UnorderedElementsAre(36, 40, 166, 300));
  EXPECT_THAT(sets_[5], UnorderedElementsAre(36, 40));
}

TEST_F(RadioRestore, WithoutVapsKeepsThem) {
  Radio any = read(R"({"vaps":[{"id":1,"ssid":"a"}]})");
  any.restore(JsonReader(R"({"vaps":null})"), sets_);
  EXPECT_EQ(any.vaps.size(), 1u);
}

}  // namespace
}  // namespace rrm
