#include "server/lib/ApEntry.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/ApBuilder.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/JsonText.h"

namespace rrm {
namespace {

using test::CapturedLog;
using test::make_ap;
using test::object_text;

const MacAddress kHeard = MacAddress::from_text("00:AA:00:00:00:01");

struct PlatformCase {
  const char* name;
  const char* board;
  std::int32_t platform;
};

class Platform : public testing::TestWithParam<PlatformCase> {};

TEST_P(Platform, FollowsTheModelCodeOfTheBoard) {
  EXPECT_EQ(classify_platform(GetParam().board), GetParam().platform);
  EXPECT_EQ(make_ap(DomainConfig(), "00:11:22:33:44:00", {}, 1, GetParam().board)->platform,
            GetParam().platform);
}

INSTANTIATE_TEST_SUITE_P(
    Boards, Platform,
    testing::Values(PlatformCase{"KV810B", "KV-810-B", 1}, PlatformCase{"KV811", "KV-811", 1},
                    PlatformCase{"KV820", "KV-820", 1}, PlatformCase{"KV821", "kv-821x", 1},
                    PlatformCase{"KV610", "KV-610", 0}, PlatformCase{"KV611", "Kv-611 rev 2", 0},
                    PlatformCase{"KV210", "KV-210", 2}, PlatformCase{"KV220", "KV-220", 2},
                    PlatformCase{"KV221B", "KV-221-B", 2}, PlatformCase{"KV230", "KV-230", 2},
                    PlatformCase{"KV231", "KV-231", 2}, PlatformCase{"KV240", "KV-240", 2},
                    PlatformCase{"KV250", "KV-250", 2}, PlatformCase{"KV251", "KV-251", 2},
                    PlatformCase{"KV260", "KV-260", 2}, PlatformCase{"KV261", "KV-261", 2},
                    PlatformCase{"LongRangeLowerCase", "kv-220-lr", -1},
                    PlatformCase{"LongRangeInside", "KV-810-LRX", -1},
                    PlatformCase{"CutCode", "KV-81", -1}, PlatformCase{"CodeInside", "XKV-810", -1},
                    PlatformCase{"UnknownCode", "KV-812", -1}, PlatformCase{"Empty", "", -1}),
    [](const auto& test) { return test.param.name; });

TEST(Platform, StaysAsItIsForAnUnknownBoard) {
  EXPECT_EQ(classify_platform("KV-220-LR", 1), 1);
  EXPECT_EQ(classify_platform("other", 0), 0);
}

TEST(Platform, HasANameForEveryNumber) {
  EXPECT_STREQ(platform_name(0), "MSDK");
  EXPECT_STREQ(platform_name(1), "FastPath");
  EXPECT_STREQ(platform_name(2), "Realtek");
  EXPECT_STREQ(platform_name(-1), "Unknown");
  EXPECT_STREQ(platform_name(3), "Unknown");
}

TEST(ApDescription, ReadsTheFactoryRecord) {
  const ApDescription full = ApDescription::from_json(
      JsonReader(R"({"board":"KV-810","hw":"1.0","serial":"S1","mac":"0a:1b:2c:3d:4e:5f"})"));
  EXPECT_EQ(full.board, "KV-810");
  EXPECT_EQ(full.hw, "1.0");
  EXPECT_EQ(full.serial, "S1");
  EXPECT_EQ(full.mac, MacAddress::from_text("0A:1B:2C:3D:4E:5F"));
  const ApDescription empty = ApDescription::from_json(JsonReader(R"({"board":7,"mac":"0a:1b"})"));
  EXPECT_EQ(empty.board + empty.hw + empty.serial, "");
  EXPECT_TRUE(empty.mac.is_zero());
}

TEST(ApEntry, StartsWithThreeRadiosAndItsDefaults) {
  const DomainConfig config;
  const auto ap = make_ap(config, "00:11:22:33:44:00", {}, 7);
  EXPECT_EQ(ap->radios.radios.size(), 3u);
  EXPECT_EQ(ap->ap_mac_count, 48);
  EXPECT_EQ(ap->session.id, 7u);
  EXPECT_EQ(ap->config, &config);
  EXPECT_FALSE(ap->use_wildcard_80211r || ap->active || ap->fbt_changed || ap->session_lost);
  EXPECT_TRUE(ap->visible_members.empty() && ap->visible_rogue.empty());
}

TEST(ApEntry, GivesTheMacOfARadio) {
  const DomainConfig config;
  const auto ap = make_ap(config, "00:11:22:33:44:00");
  EXPECT_EQ(ap->get_radio_mac(2), MacAddress::from_text("00:11:22:33:44:20"));
}

TEST(ApEntry, GivesTheBaseMacForRadio7AndLogsIt) {
  const DomainConfig config;
  const auto ap = make_ap(config, "00:11:22:33:44:00");
  CapturedLog log;
  EXPECT_EQ(ap->get_radio_mac(7), ap->base_mac);
  EXPECT_THAT(log.texts(LogLevel::Warning),
              testing::ElementsAre("get_radio_mac fallback to base_mac=00:11:22:33:44:00 for "
                                   "invalid/disabled radio_id=7"));
}

TEST(ApEntry, CopiesDeeply) {
  const DomainConfig config;
  const auto ap =
      make_ap(config, "00:11:22:33:44:00", R"([{"id":1,"status":1,"channel":36,"power":12}])");
  ap->countdown = 3;
  ap->active = ap->fbt_changed = true;
  ap->visible_members[kHeard].channel = 36;
  ap->visible_rogue[kHeard].channel = 40;
  const auto copy = ap->copy();
  ap->radios.radios[1].channel = 44;
  ap->visible_members.clear();
  ap->visible_rogue.clear();
  EXPECT_EQ(copy->base_mac, ap->base_mac);
  EXPECT_EQ(copy->session, ap->session);
  EXPECT_EQ(copy->description.board, "KV-810");
  EXPECT_EQ(copy->config, &config);
  EXPECT_EQ(copy->countdown, 3);
  EXPECT_TRUE(copy->active && copy->fbt_changed);
  EXPECT_EQ(copy->radios.radios[1].channel, 36);
  EXPECT_EQ(copy->visible_members.at(kHeard).channel, 36);
  EXPECT_EQ(copy->visible_rogue.at(kHeard).channel, 40);
}

TEST(ApEntry, IsWrittenWithItsRadiosAndNeighbours) {
  const DomainConfig config;
  const auto ap = make_ap(config, "00:11:22:33:44:00");
  ap->active = true;
  ap->use_wildcard_80211r = true;
  ap->ap_mac_count = 64;
  ap->visible_members[kHeard] = {-60, 36, 5, 80, 20, 512};
  EXPECT_EQ(object_text([&](JsonWriter& object) { ap->to_json(object); }),
            R"({"mac":"00:11:22:33:44:00","active":1,"ap-mac-count":64,"use-wildcard-80211r":1,)"
            R"("radios":)" +
                object_text([&](JsonWriter& object) { ap->radios.to_json(object); }) +
                R"(,"visible-members":[{"mac":"00:AA:00:00:00:01","dbm-signal":-60,"channel":36,)"
                R"("band":5,"bandwidth":80,"tx-power":20,"primary":512}],"visible-rogue":[]})");
}

TEST(ApEntry, RestoresWhatWasWritten) {
  const DomainConfig config;
  const auto source =
      make_ap(config, "00:11:22:33:44:00", R"([{"id":1,"status":1,"channel":36,"power":12}])");
  source->use_wildcard_80211r = true;
  source->ap_mac_count = 64;
  source->visible_members[kHeard] = {-60, 36, 5, 80, 20, 512};
  source->visible_rogue[kHeard.twin()] = {-70, 1, 2, 20, 0, 256};
  const std::string text = object_text([&](JsonWriter& object) { source->to_json(object); });
  const auto ap = make_ap(config, "00:11:22:33:44:00");
  ChannelSets sets;
  ap->restore(JsonReader(text.c_str()), sets);
  EXPECT_EQ(object_text([&](JsonWriter& object) { ap->to_json(object); }), text);
}

TEST(ApEntry, RestoresAnyNumberButZeroAsWildcard) {
  const DomainConfig config;
  const auto ap = make_ap(config, "00:11:22:33:44:00");
  ChannelSets sets;
  ap->restore(JsonReader(R"({"use-wildcard-80211r":2})"), sets);
  EXPECT_TRUE(ap->use_wildcard_80211r);
}

TEST(ApEntry, RestoresWithoutMacCountAs48) {
  const DomainConfig config;
  const auto ap = make_ap(config, "00:11:22:33:44:00");
  ap->ap_mac_count = 3;
  ap->use_wildcard_80211r = true;
  ChannelSets sets;
  ap->restore(JsonReader(R"({"radios":null,"visible-members":null})"), sets);
  EXPECT_EQ(ap->ap_mac_count, 48);
  EXPECT_FALSE(ap->use_wildcard_80211r);
  EXPECT_EQ(ap->radios.radios[0].channel, 1);
}

}  // namespace
}  // namespace rrm
