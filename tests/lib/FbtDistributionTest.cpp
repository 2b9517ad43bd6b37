#include "server/lib/FbtDistribution.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdio>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "server/lib/TpcDcaSubworker.h"
#include "tests/support/Engine.h"
#include "tests/support/RoamingAudit.h"

namespace rrm::test {
namespace {

using Texts = std::vector<std::string>;

/// 802.11r and nothing else.
DomainConfig fbt_config() {
  DomainConfig config = Engine::quiet_config();
  config.use_80211r = true;
  return config;
}

/// A radio with one 802.11r VAP that brings its own key.
RadioSpec keyed_radio(const std::string& key, const std::string& ssid = "office") {
  return RadioSpec{
      .vaps = {{.ssid = ssid, .r = true, .extra = ",\"fbt-rrb-key\":\"" + key + "\""}}};
}

RadioSpec fbt_radio(int id = 0, int channel = 36, int band = 5) {
  return RadioSpec{.id = id, .channel = channel, .band = band, .vaps = {{.r = true}}};
}

std::string remote(const std::string& r0, const std::string& r1, const std::string& key) {
  return "{\"remote-r0-kh-id\":\"" + r0 + "\",\"remote-r1-kh-id\":\"" + r1 +
         "\",\"remote-r1-kh-key\":\"" + key + "\"}";
}

/// The "fbt-info" of access point n with one VAP of SSID "office".
std::string fbt_info(int n, const std::string& key, const std::string& r0,
                     const std::string& remotes) {
  const std::string mac = "00:11:22:00:0" + std::to_string(n) + ":00";
  return "{\"service\":\"rrm\",\"version\":\"2.4\",\"cmd\":\"fbt-info\",\"ap-mac\":\"" + mac +
         "\",\"wavelom-use-80211r\":1,\"fbt-over-ds\":0,\"fbt-reassoc-deadline\":1000,\"vaps\":[{"
         "\"vap_id\":0,\"radio_id\":0,\"fbt-rrb-key\":\"" +
         key + "\",\"mobility-domain\":" + std::to_string(mobility_domain("office")) +
         ",\"r0-key-holder-id\":\"" + r0 + "\",\"r1-key-holder-id\":\"" + mac + "\",\"remotes\":[" +
         remotes + "]}]}";
}

const Vap& vap_of(Engine& engine, int ap, int radio = 0, const std::string& ssid = "office") {
  return engine.ap(ap)->radios.find(radio)->vaps.vaps().at(ssid);
}

// --- messages

TEST(FbtInfo, FollowsEverySubscriptionOfAnAccessPointWith80211r) {
  Engine engine(fbt_config());
  engine.subscribe(1, {keyed_radio("KEYOFONE")});
  const auto sent = engine.rrm().take();
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[1].text, fbt_info(1, "KEYOFONE", "", ""));
  EXPECT_EQ(sent[1].session, 101u);
  engine.subscribe(2, {RadioSpec{.vaps = {{}}}});
  EXPECT_TRUE(engine.rrm().take("fbt-info").empty());
}

TEST(FbtInfo, IsNotSentWithout80211r) {
  DomainConfig config = Engine::quiet_config();
  config.use_80211k = true;  // so that VAPs are read
  Engine engine(config);
  engine.subscribe(1, {keyed_radio("KEYOFONE")});
  ASSERT_TRUE(engine.ap(1)->radios.any_radio_with_80211r_vap());
  EXPECT_TRUE(engine.rrm().take("fbt-info").empty());
}

TEST(FbtInfo, CarriesTheLinksOfBothAccessPoints) {
  Engine engine(fbt_config());
  engine.subscribe(1, {keyed_radio("KEYOFONE")});
  engine.subscribe(2, {keyed_radio("KEYOFTWO")});
  engine.rrm().take();
  engine.worker().tpc_dca().update_802dot11r();
  auto sent = engine.rrm().take();
  std::sort(sent.begin(), sent.end(),
            [](const auto& a, const auto& b) { return a.session < b.session; });
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[0].text, fbt_info(1, "KEYOFONE", "001122000100",
                                   remote("001122000200", "00:11:22:00:02:00", "KEYOFTWO")));
  EXPECT_EQ(sent[1].text, fbt_info(2, "KEYOFTWO", "001122000200",
                                   remote("001122000100", "00:11:22:00:01:00", "KEYOFONE")));
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Update 802dot11r domain site"));
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "wavelom use_wildcard_80211r=0"));
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "FBT settings changed = 2"));
  EXPECT_FALSE(engine.ap(1)->fbt_changed);
}

TEST(FbtInfo, WritesTheSettingsOfTheDomain) {
  DomainConfig config = fbt_config();
  config.fbt_over_ds = true;
  config.fbt_reassoc_deadline = 77;
  Engine engine(config);
  engine.subscribe(1, {keyed_radio("K")});
  const auto sent = engine.rrm().take("fbt-info");
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_NE(sent[0].find("\"fbt-over-ds\":1,\"fbt-reassoc-deadline\":77,"), std::string::npos);
}

TEST(FbtInfo, NamesTheRadiosMacForABssidThatDiffersInTheLocalBitOnly) {
  Engine engine(fbt_config());
  engine.subscribe(1, {keyed_radio("K")});
  auto& vap = engine.ap(1)->radios.find(0)->vaps.vaps().at("office");
  vap.mac = vap.mac.twin();
  engine.rrm().take();
  engine.worker().tpc_dca().post_results_802dot11r_ap(*engine.ap(1), true, true);
  engine.worker().broadcast_buffer_flush();
  EXPECT_NE(engine.rrm().take("fbt-info").at(0).find("\"r1-key-holder-id\":\"00:11:22:00:01:00\""),
            std::string::npos);
}

TEST(FbtInfo, NamesABssidOfItsOwnAsItIs) {
  Engine engine(fbt_config());
  engine.subscribe(1, {RadioSpec{.vaps = {{.id = 3, .r = true}}}});
  EXPECT_NE(engine.rrm().take("fbt-info").at(0).find("\"r1-key-holder-id\":\"00:11:22:00:01:03\""),
            std::string::npos);
}

TEST(FbtInfo, FollowsAChangeOfAnyVap) {
  for (const char* changed : {"a", "b"}) {
    Engine engine(fbt_config());
    const std::vector<RadioSpec> radios = {
        RadioSpec{.vaps = {{.id = 0, .ssid = "a", .r = true}, {.id = 1, .ssid = "b", .r = true}}}};
    engine.subscribe(1, radios);
    engine.subscribe(2, radios);
    engine.worker().tpc_dca().update_802dot11r();
    engine.rrm().take();
    engine.ap(1)->radios.find(0)->vaps.vaps().at(changed).links.clear();
    engine.worker().tpc_dca().update_802dot11r();
    EXPECT_EQ(engine.rrm().take("fbt-info").size(), 1u) << changed;
    // A mark from before is not lost by an update that finds nothing to do.
    engine.ap(2)->fbt_changed = true;
    engine.worker().tpc_dca().update_802dot11r();
    EXPECT_EQ(engine.rrm().take("fbt-info").size(), 1u);
    EXPECT_FALSE(engine.ap(2)->fbt_changed);
  }
}

TEST(FbtInfo, NeedsAChangeUnlessItIsForced) {
  Engine engine(fbt_config());
  engine.subscribe(1, {keyed_radio("K")});
  engine.rrm().take();
  auto& planner = engine.worker().tpc_dca();
  planner.post_results_802dot11r_ap(*engine.ap(1), true, false);
  planner.post_results_802dot11r_ap(*engine.ap(1), false, true);
  engine.worker().broadcast_buffer_flush();
  EXPECT_TRUE(engine.rrm().take().empty());
  engine.ap(1)->fbt_changed = true;
  planner.post_results_802dot11r_ap(*engine.ap(1), true, false);
  engine.worker().broadcast_buffer_flush();
  EXPECT_EQ(engine.rrm().take("fbt-info").size(), 1u);
}

// --- keys

TEST(FbtKeys, AreSixteenLettersForAVapWithoutOne) {
  Engine engine(fbt_config());
  for (int n = 1; n <= 40; ++n) engine.subscribe(n, {fbt_radio()});
  engine.worker().tpc_dca().update_802dot11r();
  std::vector<std::string> keys;
  for (int n = 1; n <= 40; ++n) {
    const Vap& vap = vap_of(engine, n);
    keys.push_back(vap.rrb_key);
    EXPECT_EQ(vap.rrb_key.size(), 16u);
    EXPECT_TRUE(std::all_of(vap.rrb_key.begin(), vap.rrb_key.end(), [](unsigned char c) {
      return std::isalpha(c) != 0;
    })) << vap.rrb_key;
  }
  std::sort(keys.begin(), keys.end());
  EXPECT_EQ(std::unique(keys.begin(), keys.end()), keys.end());
}

TEST(FbtKeys, KeepWhatTheAccessPointGave) {
  Engine engine(fbt_config());
  engine.subscribe(
      1, {RadioSpec{.vaps = {{.r = true,
                              .extra = R"(,"fbt-rrb-key":"mine","fbt-r0-keyholder":"zero",)"
                                       R"("fbt-r1-keyholder":"00:00:00:00:00:09")"}}}});
  engine.worker().tpc_dca().update_802dot11r();
  EXPECT_EQ(vap_of(engine, 1).rrb_key, "mine");
  EXPECT_EQ(vap_of(engine, 1).r0_keyholder, "zero");
  EXPECT_EQ(vap_of(engine, 1).r1_keyholder, "00:00:00:00:00:09");
}

TEST(FbtKeys, AreOnlyForEnabledRadiosAnd80211rVaps) {
  Engine engine(fbt_config());
  engine.subscribe(
      1, {RadioSpec{.vaps = {{}}}, RadioSpec{.id = 1, .vaps = {{.r = true}}, .status = 0}});
  engine.worker().tpc_dca().update_802dot11r();
  EXPECT_EQ(vap_of(engine, 1).rrb_key, "");
  EXPECT_EQ(vap_of(engine, 1, 1).rrb_key, "");
}

TEST(FbtKeys, ThatADescriptionTookAwayAreMadeAnew) {
  Engine engine(fbt_config());
  engine.subscribe(1, {fbt_radio()});
  engine.subscribe(2, {fbt_radio()});
  engine.pass(20);
  audit_links(engine.worker());
  engine.subscribe(1, {fbt_radio()});
  EXPECT_EQ(vap_of(engine, 1).rrb_key, "");
  EXPECT_EQ(engine.worker().tpc_dca().fbt_status(), 1);
  engine.pass(20);
  EXPECT_EQ(vap_of(engine, 1).rrb_key.size(), 16u);
  audit_links(engine.worker());
}

// --- links

TEST(FbtKeys, HoldersAreNamedByTheBssidInUpperCase) {
  Engine engine(fbt_config());
  engine.subscribe(171, {fbt_radio()});
  engine.worker().tpc_dca().update_802dot11r();
  EXPECT_EQ(vap_of(engine, 171).r0_keyholder, "00112200AB00");
  EXPECT_EQ(vap_of(engine, 171).r1_keyholder, "00:11:22:00:AB:00");
}

TEST(FbtTrace, TellsOfEveryVapBeforeItsLinks) {
  Engine engine(fbt_config());
  engine.subscribe(1, {keyed_radio("KEYOFONE")});
  const auto& serial = engine.ap(1)->description.serial;
  for (int round = 0; round < 2; ++round) {
    engine.ap(1)->fbt_changed = round == 1;
    engine.ap(1)->use_wildcard_80211r = round == 1;
    engine.log().clear();
    engine.worker().tpc_dca().update_802dot11r();
    EXPECT_EQ(
        engine.log().texts(LogLevel::Trace),
        (Texts{"==================================", "Device " + serial + " (00:11:22:00:01:00)",
               "fbt_changed = " + std::to_string(round), "----------------------------------",
               "wlan_id = 0 vap_id = 0", "current ssid = office", "current serial = " + serial,
               "current r0 keyholder = 001122000100", "current r1 keyholder = 00:11:22:00:01:00",
               "use_wildcard_80211r = " + std::to_string(round), "remotes size = 0"}));
  }
}

TEST(FbtLinks, GoBothWaysOnceAndAreKeptByTheNextUpdate) {
  Engine engine(fbt_config());
  engine.subscribe(1, {fbt_radio()});
  engine.subscribe(2, {fbt_radio()});
  engine.worker().tpc_dca().update_802dot11r();
  EXPECT_TRUE(engine.log().has(LogLevel::Trace, "now linked 00:11:22:00:02:00 office"));
  EXPECT_TRUE(engine.log().has(LogLevel::Trace, "now linked 00:11:22:00:01:00 office"));
  EXPECT_TRUE(engine.log().has(LogLevel::Trace, "remote ssid = office"));
  EXPECT_TRUE(engine.log().has(LogLevel::Trace, "remote MAC  = 00:11:22:00:02:00"));
  audit_links(engine.worker());
  engine.rrm().take();
  engine.log().clear();
  engine.worker().tpc_dca().update_802dot11r();
  EXPECT_TRUE(engine.log().has(LogLevel::Trace, "already linked 00:11:22:00:02:00 office"));
  EXPECT_TRUE(engine.log().has(LogLevel::Trace, "already linked 00:11:22:00:01:00 office"));
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "FBT settings changed = 0"));
  EXPECT_TRUE(engine.rrm().take().empty());
}

TEST(FbtLinks, ToAnAccessPointThatHasGoneAreErasedAndReported) {
  Engine engine(fbt_config());
  engine.subscribe(1, {fbt_radio()});
  engine.subscribe(2, {keyed_radio("KEYOFTWO")});
  engine.worker().tpc_dca().update_802dot11r();
  engine.close_session(101);
  engine.rrm().take();
  engine.log().clear();
  engine.worker().tpc_dca().update_802dot11r();
  EXPECT_TRUE(engine.log().has(
      LogLevel::Trace, "00:11:22:00:02:00 (office) erase broken link with 00:11:22:00:01:00"));
  EXPECT_EQ(engine.rrm().take("fbt-info"), (Texts{fbt_info(2, "KEYOFTWO", "001122000200", "")}));
}

TEST(FbtLinks, FollowAChangedKey) {
  Engine engine(fbt_config());
  engine.subscribe(1, {keyed_radio("OLD")});
  engine.subscribe(2, {fbt_radio()});
  engine.worker().tpc_dca().update_802dot11r();
  engine.ap(1)->radios.find(0)->vaps.vaps().at("office").rrb_key = "NEW";
  engine.worker().tpc_dca().update_802dot11r();
  ASSERT_EQ(vap_of(engine, 2).links.size(), 1u);
  EXPECT_EQ(vap_of(engine, 2).links[0].remote_r1_kh_key, "NEW");
}

TEST(FbtLinks, JoinVapsOfTheSameSsidOnly) {
  Engine engine(fbt_config());
  engine.subscribe(
      1,
      {RadioSpec{.vaps = {{.id = 0, .ssid = "a", .r = true}, {.id = 1, .ssid = "b", .r = true}}}});
  engine.subscribe(
      2, {RadioSpec{.vaps = {{.id = 0, .ssid = "a", .r = true}, {.id = 1, .ssid = "b"}}}});
  engine.worker().tpc_dca().update_802dot11r();
  EXPECT_EQ(vap_of(engine, 1, 0, "a").links.size(), 1u);
  EXPECT_TRUE(vap_of(engine, 1, 0, "b").links.empty());
  audit_links(engine.worker());
}

TEST(FbtLinks, CrossBandsOnlyTowardsAnAccessPointWith6GHz) {
  Engine engine(fbt_config());
  engine.subscribe(1, {fbt_radio(0, 36, 5)});
  engine.subscribe(2, {fbt_radio(0, 1, 2)});
  engine.subscribe(3, {fbt_radio(0, 1, 2), RadioSpec{.id = 1, .channel = 37, .band = 6}});
  engine.worker().tpc_dca().update_802dot11r();
  ASSERT_EQ(vap_of(engine, 1).links.size(), 1u);
  EXPECT_EQ(vap_of(engine, 1).links[0].remote_r1_kh_id, "00:11:22:00:03:00");
  EXPECT_EQ(vap_of(engine, 2).links.size(), 1u);
  EXPECT_EQ(vap_of(engine, 3).links.size(), 1u);
  audit_links(engine.worker());
}

TEST(FbtLinks, NeverJoinTwoRadiosOfOneAccessPoint) {
  Engine engine(fbt_config());
  engine.subscribe(1, {fbt_radio(0), fbt_radio(1, 44)});
  engine.worker().tpc_dca().update_802dot11r();
  EXPECT_TRUE(vap_of(engine, 1).links.empty());
}

TEST(FbtLinks, ThatNameAVapOfAnotherSsidAreTakenAway) {
  // Two VAPs of access point 2 share key and key holder; only "a" is offered by access point 1.
  const std::string same =
      R"(,"fbt-rrb-key":"K","fbt-r0-keyholder":"Z","fbt-r1-keyholder":"00:00:00:00:00:09")";
  Engine engine(fbt_config());
  engine.subscribe(1, {RadioSpec{.vaps = {{.ssid = "a", .r = true}}}});
  engine.subscribe(2, {RadioSpec{.vaps = {{.id = 0, .ssid = "a", .r = true, .extra = same},
                                          {.id = 1, .ssid = "b", .r = true, .extra = same}}}});
  engine.ap(1)->radios.find(0)->vaps.vaps().at("a").links.push_back(
      {"Z", "00:00:00:00:00:09", "K"});
  engine.worker().tpc_dca().update_802dot11r();
  EXPECT_TRUE(engine.log().has(LogLevel::Trace, "invalid link 00:00:00:00:00:09 b"));
  EXPECT_TRUE(engine.log().has(LogLevel::Trace, "unlink 00:00:00:00:00:09 b"));
  EXPECT_EQ(vap_of(engine, 1, 0, "a").links.size(), 1u);
}

TEST(FbtLinks, OfAnEmptyDomainChangeNothing) {
  Engine engine(fbt_config());
  engine.worker().tpc_dca().update_802dot11r();
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "FBT settings changed = 0"));
  EXPECT_EQ(engine.worker().tpc_dca().fbt_status(), 0);
}

TEST(FbtLinks, AreCompleteInRandomDomains) {
  for (unsigned seed = 1; seed <= 20; ++seed) {
    std::mt19937 random(seed);
    const auto pick = [&](int count) { return static_cast<int>(random() % unsigned(count)); };
    Engine engine(fbt_config());
    for (int n = 1; n <= 12; ++n) {
      std::vector<RadioSpec> radios;
      for (int id = 0; id < 3; ++id) {
        const int bands[] = {2, 5, 6};
        const int band = bands[pick(3)];
        RadioSpec radio{
            .id = id, .channel = band == 2 ? 1 : 37, .band = band, .status = pick(5) > 0};
        for (int vap = 0; vap < 3; ++vap) {
          radio.vaps.push_back(
              {.id = vap, .ssid = std::string(1, char('a' + vap)), .r = pick(3) > 0});
        }
        radios.push_back(radio);
      }
      engine.subscribe(n, radios);
    }
    engine.worker().tpc_dca().update_802dot11r();
    audit_links(engine.worker());
    engine.close_session(static_cast<std::uint32_t>(101 + pick(12)));
    engine.subscribe(1 + pick(12), {fbt_radio()});
    engine.worker().tpc_dca().update_802dot11r();
    audit_links(engine.worker());
  }
}

/// The links that a VAP is to have, pair by pair.
FbtLinks expected_links(const ApMap& aps, const ApEntry& ap, const Radio& radio, const Vap& vap) {
  std::vector<const Vap*> peers;
  for (const auto& [mac, other] : aps.aps()) {
    if (mac == ap.base_mac) continue;
    const bool six =
        std::any_of(other->radios.radios.begin(), other->radios.radios.end(),
                    [](const Radio& candidate) { return candidate.status && candidate.band == 6; });
    for (const Radio& peer : other->radios.radios) {
      if (!peer.status || (peer.band != radio.band && !six)) continue;
      for (const auto& [ssid, remote] : peer.vaps.vaps())
        if (ssid == vap.ssid && remote.use_80211r) peers.push_back(&remote);
    }
  }
  const auto holder = [](const std::string& text) {
    MacAddress mac = MacAddress::from_text(text.c_str());
    return mac.bytes[0] & 2 ? mac.twin() : mac;
  };
  Vap result = vap;
  result.links.clear();
  for (const SharedFbtLink& link : vap.links.list()) {
    const bool valid = std::any_of(peers.begin(), peers.end(), [&](const Vap* remote) {
      return holder(remote->r1_keyholder) == holder(link->remote_r1_kh_id) &&
             remote->rrb_key == link->remote_r1_kh_key;
    });
    if (valid) result.links.push_back(*link);
  }
  for (const Vap* remote : peers)
    if (!result.has_link(*remote)) result.add_link(*remote);
  return result.links;
}

bool same_links(const FbtLinks& a, const FbtLinks& b) {
  return std::equal(a.list().begin(), a.list().end(), b.list().begin(), b.list().end(),
                    [](const auto& x, const auto& y) { return *x == *y; });
}

TEST(FbtLinks, OfAnyHistoryAreWhatTheirDefinitionSaysPairByPair) {
  for (unsigned seed = 1; seed <= 30; ++seed) {
    std::mt19937 random(seed);
    const auto pick = [&](int count) { return static_cast<int>(random() % unsigned(count)); };
    // Few key holders and keys, in several spellings, so that many VAPs share them.
    const auto r1 = [&] {
      const char* forms[] = {"00:AA:00:00:00:0%d", "02:aa:00:00:00:0%d", "nonsense%d"};
      char text[24];
      std::snprintf(text, sizeof text, forms[pick(3)], pick(3));
      return std::string(text);
    };
    const auto r0 = [&] { return "r" + std::to_string(pick(2)); };
    const auto key = [&](int ssid) {
      return std::string(1, char('K' + ssid)) + char('0' + pick(2));
    };
    Engine engine(fbt_config());
    for (int round = 0; round < 4; ++round) {
      for (int n = 1; n <= 6; ++n) {
        std::vector<RadioSpec> radios;
        for (int id = 0; id < 3; ++id) {
          const int bands[] = {2, 5, 6};
          RadioSpec radio{
              .id = id, .channel = 1, .band = bands[pick(8) % 3], .status = pick(5) > 0};
          for (int ssid = 0; ssid < 2; ++ssid) {
            std::string extra = ",\"fbt-rrb-key\":\"" + key(ssid) + "\",\"fbt-r0-keyholder\":\"" +
                                r0() + "\",\"fbt-r1-keyholder\":\"" + r1() + "\"";
            extra += ",\"fbt-links\":[" + remote(r0(), r1(), key(ssid)) + "," +
                     remote(r0(), r1(), key(ssid)) + "]";
            radio.vaps.push_back({.id = ssid,
                                  .ssid = std::string(1, char('a' + ssid)),
                                  .r = pick(4) > 0,
                                  .extra = extra});
          }
          radios.push_back(radio);
        }
        if (round == 0 || pick(3) == 0) engine.subscribe(n, radios);
      }
      std::vector<std::pair<const Vap*, FbtLinks>> expected;
      for (const auto& [mac, ap] : engine.worker().aps().aps())
        for (const Radio& radio : ap->radios.radios)
          for (const auto& [ssid, vap] : radio.vaps.vaps())
            if (radio.status && vap.use_80211r)
              expected.emplace_back(&vap, expected_links(engine.worker().aps(), *ap, radio, vap));
      engine.worker().tpc_dca().update_802dot11r();
      for (const auto& [vap, links] : expected) {
        EXPECT_TRUE(same_links(vap->links, links)) << "seed " << seed << " round " << round;
      }
    }
    engine.log().clear();
    engine.worker().tpc_dca().update_802dot11r();
    EXPECT_TRUE(engine.log().has(LogLevel::Debug, "FBT settings changed = 0")) << "seed " << seed;
  }
}

TEST(FbtLinks, ToOneVapAreStoredOnceForAllThatHaveThem) {
  Engine engine(fbt_config());
  for (int n = 1; n <= 3; ++n) engine.subscribe(n, {keyed_radio("KEY" + std::to_string(n))});
  engine.worker().tpc_dca().update_802dot11r();
  const auto stored = [&](int ap) -> const FbtLink* {
    for (const SharedFbtLink& link : vap_of(engine, ap).links.list())
      if (link->remote_r1_kh_key == "KEY3") return link.get();
    return nullptr;
  };
  ASSERT_NE(stored(1), nullptr);
  EXPECT_EQ(stored(1), stored(2));
  // A backup or a message brings links of its own; the next update finds them again.
  Vap& vap = engine.ap(1)->radios.find(0)->vaps.vaps().at("office");
  const FbtLinks before = vap.links;
  FbtLinks::List own;
  for (const SharedFbtLink& link : before.list()) own.push_back(SharedFbtLink(*link));
  vap.links.assign(std::move(own));
  EXPECT_NE(stored(1), stored(2));
  engine.log().clear();
  engine.worker().tpc_dca().update_802dot11r();
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "FBT settings changed = 0"));
  EXPECT_EQ(stored(1), stored(2));
  EXPECT_TRUE(same_links(vap.links, before));
}

// --- wildcard

TEST(FbtWildcard, GivesEveryVapTheBroadcastKeyHolder) {
  Engine engine(fbt_config(), 0, R"({"global":{"use_wildcard_80211r":true}})");
  engine.subscribe(1, {keyed_radio("KEYOFONE")}, 0, ",\"use-wildcard-80211r\":1");
  engine.rrm().take();
  engine.worker().tpc_dca().update_802dot11r();
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "wavelom use_wildcard_80211r=1"));
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "FBT broadcast mac added"));
  const auto& links = vap_of(engine, 1).links;
  ASSERT_EQ(links.size(), 1u);
  EXPECT_EQ(engine.rrm().take("fbt-info"),
            (Texts{fbt_info(1, "KEYOFONE", "",
                            remote("*", "ff:ff:ff:ff:ff:ff", links[0].remote_r1_kh_key))}));
  engine.log().clear();
  engine.worker().tpc_dca().update_802dot11r();
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "skip wildcarg keyholder"));
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "FBT settings changed = 0"));
}

TEST(FbtWildcard, NeedsBothTheAccessPointAndTheController) {
  for (const bool global : {true, false}) {
    Engine engine(fbt_config(), 0, global ? R"({"global":{"use_wildcard_80211r":true}})" : "{}");
    engine.subscribe(1, {fbt_radio()}, 0, global ? "" : ",\"use-wildcard-80211r\":1");
    engine.worker().tpc_dca().update_802dot11r();
    EXPECT_TRUE(vap_of(engine, 1).links.empty());
    EXPECT_EQ(vap_of(engine, 1).r0_keyholder, "001122000100");
  }
}

TEST(FbtWildcard, ThatIsNoLongerUsedLosesItsKeyHolder) {
  Engine engine(fbt_config(), 0, R"({"global":{"use_wildcard_80211r":true}})");
  engine.subscribe(1, {fbt_radio()}, 0, ",\"use-wildcard-80211r\":1");
  engine.worker().tpc_dca().update_802dot11r();
  engine.ap(1)->use_wildcard_80211r = false;
  engine.worker().tpc_dca().update_802dot11r();
  EXPECT_TRUE(vap_of(engine, 1).links.empty());
}

// --- planning

TEST(FbtPlanning, RunsOneUpdateTheDelayAfterTheLastChange) {
  Engine engine(fbt_config());
  engine.subscribe(1, {fbt_radio()});
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Planning update 802dot11r domain site"));
  EXPECT_EQ(engine.worker().tpc_dca().fbt_status(), 1);
  engine.pass(19);
  engine.subscribe(2, {fbt_radio()});
  engine.pass(19);
  EXPECT_FALSE(engine.log().has(LogLevel::Debug, "Process update 802dot11r domain site"));
  engine.pass(1);
  EXPECT_EQ(engine.log().count(LogLevel::Debug, "Process update 802dot11r domain site"), 1u);
  EXPECT_EQ(engine.worker().tpc_dca().fbt_status(), 0);
  audit_links(engine.worker());
}

TEST(FbtPlanning, IsPutOffByAPlannedRoundAndDoneAtItsEnd) {
  DomainConfig config = fbt_config();
  config.use_optimization_event = true;
  Engine engine(config);
  engine.subscribe(1, {fbt_radio()});
  engine.subscribe(2, {fbt_radio()});
  EXPECT_EQ(engine.worker().tpc_dca().fbt_status(), 0);
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "NOT Planning update 802dot11r domain site"));
  engine.pass(20 + 15);
  for (int n = 1; n <= 2; ++n) {
    engine.receive("rrm-response", n, static_cast<std::uint32_t>(100 + n),
                   "\"radios\":" + radios_text({fbt_radio()}));
  }
  engine.rrm().take();
  engine.finish_optimisation();
  EXPECT_EQ(engine.rrm().take("fbt-info").size(), 2u);
  audit_links(engine.worker());
}

TEST(FbtPlanning, ThatComesDueInARoundIsSkipped) {
  DomainConfig config = fbt_config();
  config.use_optimization_time = true;
  config.optimization_time_s = 10;
  Engine engine(config);
  engine.subscribe(1, {fbt_radio()});
  engine.pass(20);
  ASSERT_EQ(engine.state(), 2);
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Not update 802dot11r domain site"));
  EXPECT_FALSE(engine.log().has(LogLevel::Debug, "Process update 802dot11r domain site"));
}

/// Lets optimisations run until they are cancelled or told to end.
void hold_optimisations(Engine& engine, const std::atomic<bool>& end) {
  engine.worker().tpc_dca().set_optimiser([&end](ApMap&, const DomainConfig&,
                                                 const OptimisationSwitches&, std::int64_t,
                                                 const std::atomic<bool>& cancel) {
    while (!end && !cancel) ::usleep(1000);
    OptimisationResult result;
    result.ok = true;
    return result;
  });
}

TEST(FbtPlanning, ThatComesDueWhileARoundIsOptimisedIsDone) {
  DomainConfig config = fbt_config();
  config.use_optimization_time = true;
  config.optimization_time_s = 30;
  std::atomic<bool> end{false};
  Engine engine(config);
  hold_optimisations(engine, end);
  engine.subscribe(1, {fbt_radio()});
  engine.pass(29);
  engine.worker().tpc_dca().planning_update_802dot11r();
  engine.pass(1 + 15);
  engine.receive("rrm-response", 1, 101, "\"radios\":" + radios_text({fbt_radio()}));
  ASSERT_EQ(engine.state(), 5);
  engine.log().clear();
  engine.pass(3);
  EXPECT_EQ(engine.worker().tpc_dca().fbt_status(), 1);
  engine.pass(1);
  ASSERT_EQ(engine.state(), 5);
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Process update 802dot11r domain site"));
  EXPECT_EQ(engine.worker().tpc_dca().fbt_status(), 0);
  end = true;
  engine.finish_optimisation();
}

// --- 802.11k lists

DomainConfig list_config() {
  DomainConfig config = Engine::quiet_config();
  config.use_80211k = true;
  return config;
}

RadioSpec list_radio(int channel = 36) {
  return RadioSpec{.channel = channel, .vaps = {{.k = true}}};
}

/// Lets access point n hear the radios of others.
void hear(Engine& engine, int n, const std::vector<int>& others) {
  for (const int other : others) {
    engine.ap(n)->visible_members[engine.ap(other)->base_mac] = {-60, 36, 5, 20, 15};
  }
}

TEST(NeighbourListPlanning, SendsEveryAccessPointItsListAfterTheDelay) {
  Engine engine(list_config());
  engine.subscribe(1, {list_radio()});
  engine.subscribe(2, {list_radio(40)});
  hear(engine, 1, {2});
  hear(engine, 2, {1});
  engine.rrm().take();
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Planning update 802dot11k domain site"));
  engine.pass(20);
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Process update 802dot11k domain site"));
  const auto sent = engine.rrm().take();
  ASSERT_EQ(sent.size(), 2u);
  for (const auto& message : sent) {
    if (message.session != 101) continue;
    EXPECT_NE(message.text.find("\"no-balance-enterprise\":0}],\"802dot11k\":[{\"neighbour-mac\":"
                                "\"00:11:22:00:02:00\",\"channel\":40,\"band\":5,\"bandwidth\":20,"
                                "\"primary-channel\":\"none\",\"priority\":0,\"vaps\":[{\"id\":0,"
                                "\"ssid\":\"office\",\"mac\":\"00:11:22:00:02:00\"}]}]}}"),
              std::string::npos)
        << message.text;
  }
}

TEST(NeighbourListPlanning, IsRefusedWithout80211k) {
  Engine engine;
  engine.worker().tpc_dca().update_802dot11k();
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Update  domain site"));
  EXPECT_TRUE(
      engine.log().has(LogLevel::Debug, "NOT Planning update 802dot11k domain site status 0"));
}

TEST(NeighbourListPlanning, ThatComesDueInARoundIsSkipped) {
  DomainConfig config = list_config();
  config.use_optimization_event = true;
  config.planning_delay = 30;
  Engine engine(config);
  engine.subscribe(1, {list_radio()});
  engine.pass(30);
  ASSERT_EQ(engine.state(), 2);
  engine.worker().tpc_dca().planning_update_802dot11k();
  engine.rrm().take();
  engine.pass(30);
  ASSERT_EQ(engine.state(), 3);
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Not update 802dot11k domain site"));
  EXPECT_TRUE(engine.rrm().take("rrm-info").empty());
}

TEST(NeighbourListPlanning, ThatComesDueWhileARoundIsOptimisedIsDone) {
  DomainConfig config = list_config();
  config.use_optimization_event = true;
  std::atomic<bool> end{false};
  Engine engine(config);
  hold_optimisations(engine, end);
  engine.subscribe(1, {list_radio()});
  engine.pass(20 + 15);
  engine.receive("rrm-response", 1, 101, "\"radios\":" + radios_text({list_radio()}));
  ASSERT_EQ(engine.state(), 5);
  engine.worker().tpc_dca().update_802dot11k();
  engine.rrm().take();
  engine.pass(20);
  ASSERT_EQ(engine.state(), 5);
  EXPECT_TRUE(engine.log().has(LogLevel::Debug, "Process update 802dot11k domain site"));
  EXPECT_EQ(engine.rrm().take("rrm-info").size(), 1u);
  end = true;
  engine.finish_optimisation();
}

TEST(NeighbourList, OfASubscriptionNamesAbsentNeighboursToo) {
  Engine engine(list_config());
  engine.subscribe(1, {list_radio()});
  engine.subscribe(2, {list_radio(40)});
  hear(engine, 1, {2});
  engine.close_session(102);
  engine.rrm().take();
  engine.subscribe(1, {list_radio()});
  const auto sent = engine.rrm().take("subscribe-response");
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_NE(sent[0].find("\"802dot11k\":[{\"neighbour-mac\":\"00:11:22:00:02:00\""),
            std::string::npos)
      << sent[0];
}

TEST(NeighbourList, IsLeftOutForAnAccessPointWithout80211k) {
  Engine engine(list_config());
  engine.subscribe(1, {RadioSpec{.vaps = {{}}}});
  EXPECT_EQ(engine.rrm().take("subscribe-response").at(0).find("802dot11k\":["), std::string::npos);
}

}  // namespace
}  // namespace rrm::test
