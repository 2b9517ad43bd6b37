#include "tools/fleet/Scenario.h"

#include <gtest/gtest.h>

namespace rrm::fleet {
namespace {

TEST(Scenario, ReadsSitesNamesAndRadios) {
  const Scenario scenario = Scenario::from_json(R"({
    "seed": 42, "scans": 3, "scan-noise": 0, "scan-table": 64,
    "widths": {"5": 80},
    "propagation": {"shadowing": 6, "inner-wall": 7},
    "ssids": [{"ssid": "staff", "bands": [5, 6], "802.11k": 0, "802.11r": 1, "802.11v": 1}],
    "sites": [
      {"domain": "north", "aps": 12, "foreign": 5, "initial-channels": "same",
       "buildings": [{"x": 10, "width": 60, "depth": 30, "floors": 2, "room": 6}]},
      {"domain": "south", "buildings": [{}], "places": [{"x": 3, "y": 4}, {"floor": 1, "x": 9, "y": 4}]}
    ]})");
  EXPECT_EQ(scenario.seed, 42u);
  EXPECT_EQ(scenario.scans, 3);
  EXPECT_EQ(scenario.scan_table, 64);
  EXPECT_EQ(scenario.width_mhz, (std::array<int, 3>{20, 80, 80}));
  EXPECT_EQ(scenario.propagation.shadowing_db, 6);
  EXPECT_EQ(scenario.propagation.bands[2].inner_wall_db, 7);
  ASSERT_EQ(scenario.ssids.size(), 1u);
  EXPECT_EQ(scenario.ssids[0].bands, (std::vector<int>{5, 6}));
  EXPECT_FALSE(scenario.ssids[0].use_80211k);
  EXPECT_TRUE(scenario.ssids[0].use_80211r);
  ASSERT_EQ(scenario.sites.size(), 2u);
  EXPECT_EQ(scenario.sites[0].initial, InitialChannels::Same);
  EXPECT_EQ(scenario.sites[0].foreign, 5);
  EXPECT_EQ(scenario.sites[0].buildings[0].width, 60);
  EXPECT_EQ(scenario.sites[0].buildings[0].floors, 2);
  EXPECT_EQ(scenario.sites[1].aps, 2) << "as many as there are places";
  EXPECT_EQ(scenario.sites[1].places[1].floor, 1);
  EXPECT_EQ(scenario.ap_count(), 14);
}

TEST(Scenario, NeedsNoMoreThanItsSites) {
  const Scenario scenario = Scenario::from_json(R"({"sites":[{"domain":"a","aps":3}]})");
  EXPECT_EQ(scenario.ssids.size(), 3u);
  EXPECT_EQ(scenario.seed, 1u);
  EXPECT_EQ(scenario.sites[0].foreign, -1);
}

TEST(Scenario, TakesFractionsOfMetresAndDecibels) {
  const Scenario scenario = Scenario::from_json(
      R"({"scan-noise":1.5,"sites":[{"domain":"a","aps":3,"buildings":[{"floor-height":3.5}]}]})");
  EXPECT_EQ(scenario.scan_noise_db, 1.5);
  EXPECT_EQ(scenario.sites[0].buildings[0].floor_height, 3.5);
}

TEST(Scenario, TakesFlagsAsWordsToo) {
  const Scenario scenario = Scenario::from_json(
      R"({"ssids":[{"ssid":"x","802.11k":false,"802.11r":true}],"sites":[{"domain":"a","aps":3}]})");
  EXPECT_FALSE(scenario.ssids[0].use_80211k);
  EXPECT_TRUE(scenario.ssids[0].use_80211r);
}

struct BadScenario {
  const char* name;
  const char* text;
  const char* error;
};
class ScenarioErrors : public testing::TestWithParam<BadScenario> {};

TEST_P(ScenarioErrors, NameTheMember) {
  try {
    Scenario::from_json(GetParam().text);
    FAIL() << "was taken";
  } catch (const ScenarioError& error) {
    EXPECT_STREQ(error.what(), GetParam().error);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Texts, ScenarioErrors,
    testing::Values(
        BadScenario{"NoJson", "{", "the scenario is not valid JSON"},
        BadScenario{"NoSites", "{}", R"("sites" must hold at least one site)"},
        BadScenario{"NoDomain", R"({"sites":[{"aps":3}]})", R"(sites[0]: "domain" must be a text)"},
        BadScenario{"NoAps", R"({"sites":[{"domain":"a"}]})",
                    R"(sites[0]: "aps" must be 1 to 100000)"},
        BadScenario{"OddWidth", R"({"widths":{"5":60},"sites":[{"domain":"a","aps":3}]})",
                    R"(widths: "5" must be 20, 40, 80, 160 or 320)"},
        BadScenario{"BadBand",
                    R"({"ssids":[{"ssid":"x","bands":[3]}],"sites":[{"domain":"a","aps":3}]})",
                    R"(ssids[0]: "bands" may hold 2, 5 and 6)"},
        BadScenario{"BadPlace", R"({"sites":[{"domain":"a","places":[{"building":2}]}]})",
                    R"(places[0]: "building" must be -1 to -1)"},
        BadScenario{"BadInitial", R"({"sites":[{"domain":"a","aps":3,"initial-channels":"best"}]})",
                    R"(sites[0]: "initial-channels" must be random or same)"},
        BadScenario{"NoObject", "[]", "must be an object"},
        BadScenario{"Misspelt", R"({"sites":[{"domain":"a","apps":3}]})",
                    R"(sites[0]: "apps" is not known)"},
        BadScenario{"SiteIsNoObject", R"({"sites":[3]})", "sites[0]: must be an object"},
        BadScenario{"SitesAreNoArray", R"({"sites":{"domain":"a","aps":3}})",
                    R"("sites" must be an array)"},
        BadScenario{"BandsAreNoArray",
                    R"({"ssids":[{"ssid":"x","bands":5}],"sites":[{"domain":"a","aps":3}]})",
                    R"(ssids[0]: "bands" must be an array)"},
        BadScenario{"WidthsAreNoObject", R"({"widths":20,"sites":[{"domain":"a","aps":3}]})",
                    "widths: must be an object"},
        BadScenario{"Text", R"({"sites":[{"domain":"a","aps":"3"}]})",
                    R"(sites[0]: "aps" must be a whole number)"},
        BadScenario{"Fraction", R"({"sites":[{"domain":"a","aps":2.5}]})",
                    R"(sites[0]: "aps" must be a whole number)"},
        BadScenario{"BeyondAnInteger", R"({"sites":[{"domain":"a","aps":4294967299}]})",
                    R"(sites[0]: "aps" must be 1 to 100000)"},
        BadScenario{"NoNumber", R"({"scan-noise":null,"sites":[{"domain":"a","aps":3}]})",
                    R"("scan-noise" must be a number)"},
        BadScenario{"TooMany",
                    R"({"sites":[{"domain":"a","aps":60000},{"domain":"b","aps":60000}]})",
                    R"("sites" hold more than 100000 access points)"}),
    [](const auto& test) { return test.param.name; });

TEST(Campus, HasBuildingsOfAtMostFortyAccessPoints) {
  EXPECT_EQ(campus_for(40).size(), 1u);
  EXPECT_EQ(campus_for(41).size(), 2u);
  EXPECT_EQ(campus_for(1000).size(), 25u);
}

TEST(Campus, GivesEveryAccessPointItsShareOfFloor) {
  // 40 on four floors: 10 per floor, 1300 square metres, 51 m by 26 m (rounded up to whole metres).
  const std::vector<Building> campus = campus_for(40);
  EXPECT_EQ(campus[0].floors, 4);
  EXPECT_EQ(campus[0].depth, 26);
  EXPECT_EQ(campus[0].width, 52);
}

}  // namespace
}  // namespace rrm::fleet
