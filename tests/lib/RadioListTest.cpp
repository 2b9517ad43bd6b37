#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "server/lib/Radio.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/JsonText.h"

namespace rrm {
namespace {

using test::CapturedLog;
using test::object_text;
using testing::ElementsAre;

const MacAddress kBase = MacAddress::from_text("00:11:22:33:44:00");

class RadioListTest : public testing::Test {
 protected:
  RadioList list() const { return RadioList(config_, kBase); }

  RadioList read(const std::string& text) {
    RadioList result = list();
    apply(result, text);
    return result;
  }

  void apply(RadioList& target, const std::string& text, bool parse_vaps = true,
             bool flag = false) {
    target.from_json(JsonReader(text.c_str()), sets_, parse_vaps, flag);
  }

  DomainConfig config_;
  ChannelSets sets_;
};

using RadioListMessage = RadioListTest;
using RadioListComparison = RadioListTest;

const char* kThree = R"({"radios":[
    {"id":0,"status":1,"channel":6,"power":10,"bandwidth":20,"power-max":20},
    {"id":1,"status":1,"channel":36,"power":12,"bandwidth":80,"power-max":20,
     "available-channels":"36,40","vaps":[{"id":1,"ssid":"corp","802dot11k":1}]},
    {"id":2,"status":0,"channel":5,"band":6,"power":14,"bandwidth":160}]})";

TEST_F(RadioListTest, StartsWithThreeDisabledRadios) {
  const RadioList any = list();
  ASSERT_EQ(any.radios.size(), 3u);
  EXPECT_FALSE(any.received);
  EXPECT_TRUE(any.first_message);
  for (std::int32_t id = 0; id < 3; ++id) {
    const Radio& radio = any.radios[static_cast<std::size_t>(id)];
    EXPECT_EQ(radio.id, id);
    EXPECT_FALSE(radio.status);
    EXPECT_EQ(radio.channel, 1);
    EXPECT_EQ(radio.power, 0);
    EXPECT_EQ(radio.power_max, 0);
    EXPECT_EQ(radio.power_min, 0);
    EXPECT_EQ(radio.bandwidth, 20);
    EXPECT_EQ(any.find(id), &radio);
  }
  EXPECT_EQ(any.find(3), nullptr);
  EXPECT_EQ(any.find(-1), nullptr);
}

// --- messages ---

TEST_F(RadioListMessage, WithIds0And2DisablesRadio1AndZeroesItsChannel) {
  RadioList any = read(kThree);
  ASSERT_TRUE(any.radios[1].status);
  apply(any, R"({"radios":[{"id":0,"status":1,"channel":6},{"id":2,"status":1,"channel":5}]})");
  const Radio& dropped = any.radios[1];
  EXPECT_FALSE(dropped.status);
  EXPECT_EQ(dropped.channel, 0);
  EXPECT_FALSE(dropped.power_initialised);
  EXPECT_FALSE(dropped.channel_initialised);
  EXPECT_EQ(dropped.vaps.size(), 0u);
  EXPECT_TRUE(dropped.available_channels.empty());
  EXPECT_EQ(dropped.power, 12);  // the rest stays
  EXPECT_TRUE(any.radios[0].status && any.radios[2].status);
}

TEST_F(RadioListMessage, TakesThePlaceOfAnElementWithoutId) {
  const RadioList any = read(R"({"radios":[null,{"status":1,"channel":36},{"id":0,"channel":6}]})");
  EXPECT_EQ(any.radios[0].channel, 6);
  EXPECT_EQ(any.radios[1].channel, 36);
  EXPECT_EQ(any.radios[2].channel, 0);
}

TEST_F(RadioListMessage, SkipsInvalidIdsWithAWarning) {
  CapturedLog log;
  read(R"({"radios":[{"id":3,"status":1},{"id":-1,"status":1},{"id":0},{"id":1},{"id":2},{}]})");
  EXPECT_THAT(log.texts(LogLevel::Warning),
              testing::IsSupersetOf({"Skip invalid radio id=3, radios_count=3",
                                     "Skip invalid radio id=-1, radios_count=3",
                                     "Skip invalid radio id=5, radios_count=3"}));
}

TEST_F(RadioListMessage, WithoutRadiosOnlyEndsTheFirstMessage) {
  for (const char* text : {"{}", R"({"radios":null})", "null"}) {
    RadioList any = list();
    apply(any, text);
    EXPECT_FALSE(any.first_message) << text;
    EXPECT_EQ(any.radios[0].channel, 1) << text;
  }
}

TEST_F(RadioListMessage, WithRadiosOfAnotherTypeCountsAsEmpty) {
  for (const char* text : {R"({"radios":[]})", R"({"radios":{}})", R"({"radios":7})"}) {
    RadioList any = read(kThree);
    apply(any, text);
    for (const Radio& radio : any.radios) {
      EXPECT_FALSE(radio.status) << text;
      EXPECT_EQ(radio.channel, 0) << text;
    }
  }
}

TEST_F(RadioListMessage, AppliesTheDefaultsOfTheMacPoolToTheFirstOnly) {
  RadioList any = list();
  any.radios[1].max_mac_count = 5;
  apply(any, R"({"radios":[{"id":1}]})");
  EXPECT_EQ(any.radios[1].max_mac_count, 16u);
  any.radios[1].max_mac_count = 5;
  apply(any, R"({"radios":[{"id":1}]})");
  EXPECT_EQ(any.radios[1].max_mac_count, 5u);
}

TEST_F(RadioListMessage, PassesTheFlagsOn) {
  RadioList any = list();
  apply(any, kThree, false, true);
  EXPECT_EQ(any.radios[1].vaps.size(), 0u);
  EXPECT_TRUE(any.radios[1].changed);
  EXPECT_THAT(sets_[5], testing::UnorderedElementsAre(36, 40));
}

TEST_F(RadioListMessage, RestoresFromItsStatusForm) {
  const RadioList source = read(kThree);
  const std::string text = object_text([&](JsonWriter& object) { source.to_json(object); });
  RadioList any = list();
  any.restore(JsonReader(text.c_str()), sets_);
  EXPECT_TRUE(any.same_settings(source) && source.same_settings(any));
  EXPECT_TRUE(any.same_vaps(source));
  EXPECT_EQ(any.radios[1].channel, 36);
}

TEST_F(RadioListMessage, RestoreSkipsInvalidIdsWithAWarning) {
  CapturedLog log;
  RadioList any = list();
  any.restore(JsonReader(R"({"interfaces":[{"id":4,"channel":36},null,{"channel":40,"band":2},
                                           {"id":-7}]})"),
              sets_);
  EXPECT_EQ(any.radios[2].channel, 40);
  EXPECT_THAT(log.texts(LogLevel::Warning),
              ElementsAre("Skip invalid restore radio id=4, radios_count=3",
                          "Skip invalid restore radio id=-7, radios_count=3"));
}

TEST_F(RadioListTest, IsWrittenWithAllItsInterfaces) {
  RadioList any = list();
  any.received = true;
  std::string expected = R"({"received":1,"interfaces":[)";
  for (const Radio& radio : any.radios) {
    if (radio.id > 0) expected += ",";
    expected += object_text([&](JsonWriter& object) { radio.to_json(object); });
  }
  EXPECT_EQ(object_text([&](JsonWriter& object) { any.to_json(object); }), expected + "]}");
}

TEST_F(RadioListTest, TellsAnAccessPointOfItsEnabledRadiosOnly) {
  const RadioList any = read(kThree);
  std::string expected = R"({"radios":[)";
  expected += object_text([&](JsonWriter& object) { any.radios[0].config_to_json(object); }) + ",";
  expected += object_text([&](JsonWriter& object) { any.radios[1].config_to_json(object); });
  EXPECT_EQ(object_text([&](JsonWriter& object) { any.config_to_json(object); }), expected + "]}");
  const RadioList none = list();
  EXPECT_EQ(object_text([&](JsonWriter& object) { none.config_to_json(object); }),
            R"({"radios":[]})");
}

// --- comparing ---

TEST_F(RadioListComparison, OfSettingsSeesEveryOneOfThem) {
  const RadioList base = read(kThree);
  EXPECT_TRUE(base.same_settings(read(kThree)));
  using Change = void (*)(Radio&);
  const Change changes[] = {
      [](Radio& r) { r.power_max += 1; },
      [](Radio& r) { r.power_min += 1; },
      [](Radio& r) { r.eirp_min += 1; },
      [](Radio& r) { r.eirp_max += 1; },
      [](Radio& r) { r.antenna_gain += 1; },
      [](Radio& r) { r.cable_loss += 1; },
      [](Radio& r) { r.has_antenna_configuration = true; },
      [](Radio& r) { r.status = false; },
      [](Radio& r) { r.bandwidth = 40; },
      [](Radio& r) { r.locked_for_tpc = 1; },
      [](Radio& r) { r.locked_for_dca = 1; },
      [](Radio& r) { r.locked_for_balancer = 7; },
      [](Radio& r) { r.locked_for_80211v = 7; },
      [](Radio& r) { r.available_channels.insert(44); },
      [](Radio& r) {
        r.available_channels = {36, 44};
      },
  };
  for (const Change change : changes) {
    RadioList other = base;
    change(other.radios[1]);
    EXPECT_FALSE(base.same_settings(other)) << "change " << (&change - changes);
    EXPECT_FALSE(other.same_settings(base)) << "change " << (&change - changes);
  }
}

TEST_F(RadioListComparison, OfSettingsIgnoresChannelPowerAndDisabledPairs) {
  const RadioList base = read(kThree);
  RadioList other = base;
  other.radios[1].channel = 40;
  other.radios[1].power = 3;
  other.radios[1].vaps.clear();
  other.radios[2].bandwidth = 20;  // disabled in both
  other.radios[2].power_max = 99;
  EXPECT_TRUE(base.same_settings(other));
}

TEST_F(RadioListComparison, OfSettingsNeedsEveryRadioOfTheFirst) {
  const RadioList base = list();
  RadioList empty = list();
  empty.radios.clear();
  EXPECT_TRUE(empty.same_settings(base));
  EXPECT_FALSE(base.same_settings(empty));
  EXPECT_TRUE(empty.same_settings(empty));
}

TEST_F(RadioListComparison, OfChannelPlansSeesChannelWidthAndPrimary) {
  config_.use_dca = false;
  const RadioList base = read(kThree);
  EXPECT_TRUE(base.same_channel_plan(read(kThree)));
  RadioList other = base;
  other.radios[1].channel = 40;
  EXPECT_FALSE(base.same_channel_plan(other));
  other = base;
  other.radios[1].bandwidth = 40;
  EXPECT_FALSE(base.same_channel_plan(other));
  other = base;
  other.radios[1].primary_channel = 512;
  EXPECT_FALSE(base.same_channel_plan(other));
  other = base;
  other.radios[1].power = 1;
  other.radios[2].channel = 99;  // disabled in both
  EXPECT_TRUE(base.same_channel_plan(other));
}

TEST_F(RadioListComparison, OfChannelPlansLeavesOutWhatDcaManages) {
  const RadioList base = read(kThree);
  RadioList other = base;
  other.radios[1].channel = 40;
  EXPECT_TRUE(base.same_channel_plan(other));
  RadioList first = base;
  first.radios[1].channel_initialised = false;
  EXPECT_FALSE(first.same_channel_plan(other));
  first = base;
  first.radios[1].locked_for_dca = 1;
  EXPECT_FALSE(first.same_channel_plan(other));
}

TEST_F(RadioListComparison, OfVapsSeesThoseOfEnabledRadios) {
  const RadioList base = read(kThree);
  RadioList other = base;
  other.radios[2].vaps.vaps().emplace("x", Vap{});  // disabled in both
  EXPECT_TRUE(base.same_vaps(other));
  other.radios[1].vaps.vaps().at("corp").use_80211k = false;
  EXPECT_FALSE(base.same_vaps(other));
}

TEST_F(RadioListComparison, FindsLowerPowerOnTheSameChannel) {
  const RadioList base = read(kThree);
  RadioList other = base;
  EXPECT_FALSE(base.any_lower_power_on_same_channel(other));
  other.radios[1].power = 13;
  EXPECT_TRUE(base.any_lower_power_on_same_channel(other));
  EXPECT_FALSE(other.any_lower_power_on_same_channel(base));
  other.radios[1].channel = 40;
  EXPECT_FALSE(base.any_lower_power_on_same_channel(other));
  other.radios[0].channel = 36;  // pairs of different ids count as well
  other.radios[0].power = 20;
  EXPECT_TRUE(base.any_lower_power_on_same_channel(other));
}

// --- asking ---

TEST_F(RadioListTest, HasAnActiveRadioWhenOneIsEnabledOnAChannel) {
  RadioList any = list();
  EXPECT_FALSE(any.any_enabled_with_channel());
  any.radios[1].status = true;
  EXPECT_TRUE(any.any_enabled_with_channel());
  any.radios[1].channel = 0;
  EXPECT_FALSE(any.any_enabled_with_channel());
}

TEST_F(RadioListTest, KnowsARadioNotLockedForTheBalancer) {
  RadioList any = list();
  EXPECT_TRUE(any.any_radio_not_locked_for_balancer());
  for (Radio& radio : any.radios) radio.locked_for_balancer = 1;
  EXPECT_FALSE(any.any_radio_not_locked_for_balancer());
}

TEST_F(RadioListTest, KnowsItsCandidatesFor80211v) {
  RadioList any = list();
  Vap vap;
  vap.use_80211v = true;
  any.radios[1].vaps.vaps().emplace("s", vap);
  EXPECT_FALSE(any.any_802dot11v_candidate());
  any.radios[1].status = true;
  EXPECT_TRUE(any.any_802dot11v_candidate());
  EXPECT_TRUE(any.any_802dot11v_or_k_candidate());
  any.radios[1].locked_for_80211v = 1;
  EXPECT_FALSE(any.any_802dot11v_candidate());
  EXPECT_FALSE(any.any_802dot11v_or_k_candidate());
  any.radios[1].locked_for_80211v = 0;
  any.radios[1].vaps.vaps().at("s").use_80211v = false;
  any.radios[1].vaps.vaps().at("s").use_80211k = true;
  EXPECT_FALSE(any.any_802dot11v_candidate());
  EXPECT_TRUE(any.any_802dot11v_or_k_candidate());
}

TEST_F(RadioListTest, KnowsVapsOfDisabledRadiosToo) {
  RadioList any = list();
  EXPECT_FALSE(any.any_radio_with_80211k_vap() || any.any_radio_with_80211r_vap());
  Vap vap;
  vap.use_80211k = true;
  any.radios[2].vaps.vaps().emplace("s", vap);
  EXPECT_TRUE(any.any_radio_with_80211k_vap());
  EXPECT_FALSE(any.any_radio_with_80211r_vap());
  any.radios[2].vaps.vaps().at("s").use_80211r = true;
  EXPECT_TRUE(any.any_radio_with_80211r_vap());
}

// --- changing all ---

TEST_F(RadioListTest, MarksTheEnabledRadiosOfABandAsConflicted) {
  RadioList any = read(kThree);
  any.mark_conflicted(0, 5);
  EXPECT_FALSE(any.radios[0].conflicted);
  EXPECT_TRUE(any.radios[1].conflicted);
  any.clear_conflicted();
  EXPECT_FALSE(any.radios[1].conflicted);
  any.mark_conflicted(11, 0);  // the channel tells the band
  EXPECT_TRUE(any.radios[0].conflicted);
  EXPECT_FALSE(any.radios[1].conflicted);
  any.clear_conflicted();
  any.radios[1].band = 0;  // of no band, as a channel that tells none
  any.mark_conflicted(20, 0);
  any.mark_conflicted(36, 6);  // the only radio of that band is off
  for (const Radio& radio : any.radios) EXPECT_FALSE(radio.conflicted);
}

TEST_F(RadioListTest, StepsTheRadiosOfABandDown) {
  RadioList any = read(kThree);
  any.radios[2].status = true;
  any.radios[2].band = 5;
  any.radios[2].power = 20;
  any.radios[2].power_max = 20;
  EXPECT_EQ(any.apply_power_step_for_band(36, 0, -60, -65), 5);
  EXPECT_EQ(any.radios[0].power, 10);
  EXPECT_EQ(any.radios[1].power, 7);
  EXPECT_EQ(any.radios[2].power, 15);
  any.radios[0].band = 0;  // of no band, as a channel that tells none
  any.radios[0].status = true;
  any.radios[0].power = 16;
  EXPECT_EQ(any.apply_power_step_for_band(20, 0, -60, -70), 0);
  EXPECT_EQ(any.apply_power_step_for_band(36, 6, -60, -70), 0);
  any.radios[1].status = false;
  EXPECT_EQ(any.apply_power_step_for_band(0, 5, -60, -70), 10);
  EXPECT_EQ(any.radios[1].power, 7);
  any.clear_power_changed();
  for (const Radio& radio : any.radios) EXPECT_EQ(radio.power_changed, 0);
}

TEST_F(RadioListTest, PairsNewLimitsById) {
  RadioList any = read(kThree);
  RadioList limits = list();
  limits.radios[1].power_max = 9;
  std::swap(limits.radios[0], limits.radios[1]);
  any.set_validate_power(limits);
  EXPECT_EQ(any.radios[1].power_max, 9);
  EXPECT_EQ(any.radios[1].power, 9);
  EXPECT_EQ(any.radios[0].power_max, 0);
  EXPECT_EQ(any.radios[0].power, 0);
  limits.radios.clear();
  any.set_validate_power(limits);
  EXPECT_EQ(any.radios[1].power_max, 9);
}

TEST_F(RadioListTest, SetsMacsChangedMarksAndLoadLevels) {
  config_.use_80211v = true;
  RadioList any = list();
  any.set_mac(MacAddress::from_text("00:11:22:33:55:00"));
  EXPECT_EQ(any.radios[2].mac, MacAddress::from_text("00:11:22:33:55:20"));
  any.set_changed();
  for (const Radio& radio : any.radios) EXPECT_TRUE(radio.changed);
  any.radios[0].load_level = 255;
  EXPECT_TRUE(any.update_load_levels());
  for (const Radio& radio : any.radios) EXPECT_EQ(radio.load_level, 255u);
  EXPECT_FALSE(any.update_load_levels());
}

}  // namespace
}  // namespace rrm
