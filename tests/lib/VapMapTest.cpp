#include "server/lib/VapMap.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <random>
#include <vector>

#include "tests/support/CapturedLog.h"
#include "tests/support/JsonText.h"

namespace rrm {
namespace {

using test::array_text;
using test::CapturedLog;
using test::object_text;

MacAddress mac(const char* text) { return MacAddress::from_text(text); }

const VapPool kPool{mac("00:11:22:33:44:50"), 16, false};

VapMap read(const char* text, const VapPool& pool = kPool, bool restore = false) {
  VapMap map;
  map.from_json(JsonReader(text), pool, restore);
  return map;
}

const Vap& only(const VapMap& map) { return map.vaps().begin()->second; }

/// A VAP as a remote key holder.
Vap holder(const char* r0, const char* r1, const char* key) {
  Vap vap;
  vap.r0_keyholder = r0;
  vap.r1_keyholder = r1;
  vap.rrb_key = key;
  return vap;
}

// --- reading ---

TEST(VapMapFromJson, GivesVap3WithoutMacTheRadioMacPlus3) {
  const VapMap map = read(R"([{"id":3,"ssid":"corp"}])");
  ASSERT_EQ(map.size(), 1u);
  EXPECT_EQ(only(map).mac, mac("00:11:22:33:44:53"));
  EXPECT_EQ(only(map).vap_id, 3);
  EXPECT_EQ(only(map).ssid, "corp");
}

TEST(VapMapFromJson, TakesAMacOfThePool) {
  CapturedLog log;
  const VapMap map = read(R"([{"id":3,"ssid":"corp","mac":"00:11:22:33:44:5f"}])");
  EXPECT_EQ(only(map).mac, mac("00:11:22:33:44:5F"));
  EXPECT_TRUE(log.records().empty());
}

TEST(VapMapFromJson, WarnsOfAMacOutsideThePoolAndTakesTheDefault) {
  CapturedLog log;
  const VapMap map = read(R"([{"id":3,"ssid":"corp","mac":"00:11:22:33:44:70"}])");
  ASSERT_EQ(map.size(), 1u);
  EXPECT_EQ(only(map).mac, mac("00:11:22:33:44:53"));
  EXPECT_TRUE(log.has(LogLevel::Warning,
                      "VAP MAC 00:11:22:33:44:70 outside radio pool [00:11:22:33:44:50, +16), "
                      "using 00:11:22:33:44:53 for ssid=corp"));
  EXPECT_TRUE(log.events().empty());
}

TEST(VapMapFromJson, ThePoolEndsBeforeTheRadioMacPlusItsCount) {
  CapturedLog log;
  EXPECT_EQ(only(read(R"([{"id":0,"ssid":"s","mac":"00:11:22:33:44:60"}])")).mac,
            mac("00:11:22:33:44:50"));
  EXPECT_EQ(only(read(R"([{"id":1,"ssid":"s","mac":"00:11:22:33:44:4F"}])")).mac,
            mac("00:11:22:33:44:51"));
  EXPECT_EQ(log.texts(LogLevel::Warning).size(), 2u);
}

TEST(VapMapFromJson, SkipsVap20WithoutMacWithErrorAndEvent) {
  CapturedLog log;
  const VapMap map = read(R"([{"id":20,"ssid":"corp"}])");
  EXPECT_EQ(map.size(), 0u);
  EXPECT_TRUE(log.has(LogLevel::Error,
                      "Invalid VAP MAC 00:11:22:33:44:64: radio.mac=00:11:22:33:44:50, "
                      "radio.max_mac_count=16"));
  EXPECT_TRUE(log.has_event(EventCode::VapInvalid, "00:11:22:33:44:64"));
}

TEST(VapMapFromJson, SkipsAVapWhoseMacAndDefaultAreBothOutside) {
  CapturedLog log;
  const VapMap map = read(R"([{"id":20,"ssid":"corp","mac":"00:11:22:33:44:70"}])");
  EXPECT_EQ(map.size(), 0u);
  EXPECT_TRUE(log.has(LogLevel::Error,
                      "Invalid VAP MAC 00:11:22:33:44:70: radio.mac=00:11:22:33:44:50, "
                      "radio.max_mac_count=16"));
  EXPECT_TRUE(log.has_event(EventCode::VapInvalid, "00:11:22:33:44:70"));
  EXPECT_TRUE(log.texts(LogLevel::Warning).empty());
}

TEST(VapMapFromJson, AMacThatDoesNotScanIsAllZeros) {
  CapturedLog log;
  EXPECT_EQ(only(read(R"([{"id":1,"ssid":"s","mac":"what"}])")).mac, mac("00:11:22:33:44:51"));
  EXPECT_EQ(only(read(R"([{"id":1,"ssid":"s","mac":null}])")).mac, mac("00:11:22:33:44:51"));
  EXPECT_EQ(log.count(LogLevel::Warning,
                      "VAP MAC 00:00:00:00:00:00 outside radio pool [00:11:22:33:44:50, +16), "
                      "using 00:11:22:33:44:51 for ssid=s"),
            2u);
}

TEST(VapMapFromJson, TheDefaultStaysTheRadioMacWhenTheIdWrapsIt) {
  const VapPool high{mac("00:11:22:FF:FF:F8"), 16, false};
  EXPECT_EQ(only(read(R"([{"id":7,"ssid":"s"}])", high)).mac, mac("00:11:22:FF:FF:FF"));
  EXPECT_EQ(only(read(R"([{"id":8,"ssid":"s"}])", high)).mac, mac("00:11:22:FF:FF:F8"));
  EXPECT_EQ(only(read(R"([{"id":-1,"ssid":"s"}])")).mac, mac("00:11:22:33:44:50"));
}

TEST(VapMapFromJson, AnEmptyPoolHoldsNoVap) {
  CapturedLog log;
  EXPECT_EQ(read(R"([{"id":0,"ssid":"s"}])", {mac("00:11:22:33:44:50"), 0, false}).size(), 0u);
  EXPECT_TRUE(log.has(LogLevel::Error,
                      "Invalid VAP MAC 00:11:22:33:44:50: radio.mac=00:11:22:33:44:50, "
                      "radio.max_mac_count=0"));
}

TEST(VapMapFromJson, KeepsTheFirstOfTwoElementsWithOneSsid) {
  const VapMap map = read(R"([{"id":1,"ssid":"corp"},{"id":2,"ssid":"corp"}])");
  ASSERT_EQ(map.size(), 1u);
  EXPECT_EQ(only(map).vap_id, 1);
}

TEST(VapMapFromJson, SkipsNullElementsAndThoseWithoutSsid) {
  CapturedLog log;
  const VapMap map = read(R"([null,{"id":1},{"id":2,"ssid":""},{"id":3,"ssid":9},7,"x",[],
                              {"id":4,"ssid":"corp"}])");
  ASSERT_EQ(map.size(), 1u);
  EXPECT_EQ(only(map).vap_id, 4);
  EXPECT_TRUE(log.records().empty());
}

TEST(VapMapFromJson, ANullArrayChangesNothingAndAnotherOneReplacesTheMap) {
  VapMap map = read(R"([{"id":1,"ssid":"corp"}])");
  map.from_json(JsonReader("null"), kPool, false);
  map.from_json(JsonReader(), kPool, false);
  EXPECT_EQ(map.size(), 1u);
  map.from_json(JsonReader(R"([{"id":1,"ssid":"guest"}])"), kPool, false);
  ASSERT_EQ(map.size(), 1u);
  EXPECT_EQ(only(map).ssid, "guest");
  map.from_json(JsonReader("[]"), kPool, false);
  EXPECT_EQ(map.size(), 0u);
}

TEST(VapMapFromJson, MessagesAndBackupsHaveTheirOwnFlagNames) {
  const char* text = R"([{"id":1,"ssid":"corp","802dot11k":1,"802dot11r":0,"802dot11v":1,
                          "use_802dot11k":0,"use_802dot11r":1,"use_802dot11v":0}])";
  const VapMap message = read(text);
  EXPECT_TRUE(only(message).use_80211k);
  EXPECT_FALSE(only(message).use_80211r);
  EXPECT_TRUE(only(message).use_80211v);
  const VapMap backup = read(text, kPool, true);
  EXPECT_FALSE(only(backup).use_80211k);
  EXPECT_TRUE(only(backup).use_80211r);
  EXPECT_FALSE(only(backup).use_80211v);
}

TEST(VapMapFromJson, ARadioLockedFor80211vHasNoVapWithIt) {
  const VapPool locked{kPool.radio_mac, 16, true};
  EXPECT_FALSE(only(read(R"([{"id":1,"ssid":"corp","802dot11v":1}])", locked)).use_80211v);
  EXPECT_FALSE(
      only(read(R"([{"id":1,"ssid":"corp","use_802dot11v":1}])", locked, true)).use_80211v);
}

TEST(VapMapFromJson, ReadsKeyHoldersAndLinksOnlyWithAKey) {
  const VapMap with_key = read(R"([{"id":1,"ssid":"corp","fbt-rrb-key":"secret",
      "fbt-r0-keyholder":"r0","fbt-r1-keyholder":"00:11:22:33:44:51",
      "fbt-links":[null,{"remote-r0-kh-id":"a","remote-r1-kh-id":"b","remote-r1-kh-key":"c"},
                   "text",{}]}])");
  const Vap& vap = only(with_key);
  EXPECT_EQ(vap.rrb_key, "secret");
  EXPECT_EQ(vap.r0_keyholder, "r0");
  EXPECT_EQ(vap.r1_keyholder, "00:11:22:33:44:51");
  ASSERT_EQ(vap.links.size(), 3u);
  EXPECT_EQ(vap.links[0].remote_r0_kh_id, "a");
  EXPECT_EQ(vap.links[0].remote_r1_kh_id, "b");
  EXPECT_EQ(vap.links[0].remote_r1_kh_key, "c");
  EXPECT_EQ(vap.links[2].remote_r1_kh_id, "");

  const VapMap without = read(R"([{"id":1,"ssid":"corp","fbt-r0-keyholder":"r0",
      "fbt-links":[{"remote-r0-kh-id":"a"}]}])");
  EXPECT_EQ(only(without).r0_keyholder, "");
  EXPECT_TRUE(only(without).links.empty());
}

TEST(VapMapFromJson, MissingKeyHoldersReadAsEmpty) {
  const VapMap map = read(R"([{"id":1,"ssid":"corp","fbt-rrb-key":"secret","fbt-links":null}])");
  EXPECT_EQ(only(map).r0_keyholder, "");
  EXPECT_EQ(only(map).r1_keyholder, "");
  EXPECT_TRUE(only(map).links.empty());
}

// --- writing ---

Vap full_vap() {
  Vap vap = holder("001122334451", "00:11:22:33:44:51", "secret");
  vap.vap_id = 1;
  vap.mac = mac("00:11:22:33:44:51");
  vap.ssid = "abc";
  vap.use_80211k = true;
  vap.use_80211r = true;
  vap.links = {{"r0", "00:11:22:33:44:71", "other"}, {"*", "ff:ff:ff:ff:ff:ff", "broadcast"}};
  return vap;
}

std::string full_text(const Vap& vap) {
  return object_text([&](JsonWriter& object) { vap.to_json(object); });
}
std::string short_text(const Vap& vap) {
  return object_text([&](JsonWriter& object) { vap.to_json_short(object); });
}

TEST(VapJson, HasAFullFormWithKeyMaterial) {
  EXPECT_EQ(full_text(full_vap()),
            R"({"id":1,"ssid":"abc","mac":"00:11:22:33:44:51","mobility-domain":58150,)"
            R"("use_802dot11k":1,"use_802dot11r":1,"use_802dot11v":0,)"
            R"("fbt-r0-keyholder":"001122334451","fbt-r1-keyholder":"00:11:22:33:44:51",)"
            R"("fbt-rrb-key":"secret","fbt-links":[)"
            R"({"remote-r0-kh-id":"r0","remote-r1-kh-id":"00:11:22:33:44:71",)"
            R"("remote-r1-kh-key":"other"},)"
            R"({"remote-r0-kh-id":"*","remote-r1-kh-id":"ff:ff:ff:ff:ff:ff",)"
            R"("remote-r1-kh-key":"broadcast"}]})");
}

TEST(VapJson, HasAShortFormWithoutKeyMaterial) {
  EXPECT_EQ(short_text(full_vap()),
            R"({"id":1,"ssid":"abc","mac":"00:11:22:33:44:51","mobility-domain":58150,)"
            R"("use_802dot11k":1,"use_802dot11r":1,"use_802dot11v":0,)"
            R"("fbt-links":["00:11:22:33:44:71","ff:ff:ff:ff:ff:ff"]})");
}

TEST(VapJson, LeavesOutLinksWithout80211rOrWhenThereAreNone) {
  Vap vap = full_vap();
  vap.use_80211r = false;
  const std::string head =
      R"({"id":1,"ssid":"abc","mac":"00:11:22:33:44:51","mobility-domain":58150,)"
      R"("use_802dot11k":1,"use_802dot11r":0,"use_802dot11v":0)";
  EXPECT_EQ(short_text(vap), head + "}");
  EXPECT_EQ(full_text(vap),
            head + R"(,"fbt-r0-keyholder":"001122334451","fbt-r1-keyholder":"00:11:22:33:44:51",)"
                   R"("fbt-rrb-key":"secret"})");
  vap = full_vap();
  vap.links.clear();
  EXPECT_EQ(short_text(vap).find("fbt-links"), std::string::npos);
  EXPECT_EQ(full_text(vap).find("fbt-links"), std::string::npos);
}

TEST(VapJson, OfAMapIsAnArrayInEitherForm) {
  VapMap map;
  EXPECT_EQ(array_text([&](JsonWriter& array) { map.to_json(array, true); }), "[]");
  map.vaps().emplace("abc", full_vap());
  EXPECT_EQ(array_text([&](JsonWriter& array) { map.to_json(array, true); }),
            "[" + full_text(full_vap()) + "]");
  EXPECT_EQ(array_text([&](JsonWriter& array) { map.to_json(array, false); }),
            "[" + short_text(full_vap()) + "]");
}

TEST(VapJson, OfTheFullFormIsWhatABackupRestores) {
  VapMap map;
  map.vaps().emplace("abc", full_vap());
  const std::string text = array_text([&](JsonWriter& array) { map.to_json(array, true); });
  const VapMap restored = read(text.c_str(), kPool, true);
  EXPECT_TRUE(restored.equals(map));
  EXPECT_EQ(array_text([&](JsonWriter& array) { restored.to_json(array, true); }), text);
}

TEST(VapMap, DumpsOneTraceRecordPerVap) {
  VapMap map;
  map.vaps().emplace("abc", full_vap());
  CapturedLog log;
  map.dump();
  EXPECT_THAT(
      log.texts(LogLevel::Trace),
      testing::ElementsAre("      vap_id = 1, 802.11k = 1, 802.11r = 1, 802.11v = 0, ssid = abc"));
}

// --- comparing and asking ---

TEST(VapMap, EqualsComparesSsidsIdsAndFlagsOnly) {
  const char* base = R"([{"id":1,"ssid":"a","802dot11k":1,"802dot11r":1,"802dot11v":1},
                         {"id":2,"ssid":"b"}])";
  const VapMap map = read(base);
  EXPECT_TRUE(map.equals(read(base)));
  EXPECT_TRUE(map.equals(read(R"([{"id":2,"ssid":"b","mac":"00:11:22:33:44:5E","fbt-rrb-key":"k"},
      {"id":1,"ssid":"a","802dot11k":1,"802dot11r":1,"802dot11v":1}])")));
  for (const char* other :
       {R"([{"id":1,"ssid":"a","802dot11k":1,"802dot11r":1,"802dot11v":1}])",
        R"([{"id":1,"ssid":"a","802dot11k":1,"802dot11r":1,"802dot11v":1},{"id":2,"ssid":"c"}])",
        R"([{"id":3,"ssid":"a","802dot11k":1,"802dot11r":1,"802dot11v":1},{"id":2,"ssid":"b"}])",
        R"([{"id":1,"ssid":"a","802dot11k":0,"802dot11r":1,"802dot11v":1},{"id":2,"ssid":"b"}])",
        R"([{"id":1,"ssid":"a","802dot11k":1,"802dot11r":0,"802dot11v":1},{"id":2,"ssid":"b"}])",
        R"([{"id":1,"ssid":"a","802dot11k":1,"802dot11r":1,"802dot11v":0},{"id":2,"ssid":"b"}])"}) {
    EXPECT_FALSE(map.equals(read(other))) << other;
    EXPECT_FALSE(read(other).equals(map)) << other;
  }
  EXPECT_TRUE(VapMap().equals(VapMap()));
}

TEST(VapMap, TellsWhetherSomeVapHasAFlag) {
  const VapMap none = read(R"([{"id":1,"ssid":"a"}])");
  EXPECT_FALSE(none.any_80211k() || none.any_80211r() || none.any_80211v());
  const VapMap k = read(R"([{"id":1,"ssid":"a"},{"id":2,"ssid":"b","802dot11k":1}])");
  EXPECT_TRUE(k.any_80211k() && !k.any_80211r() && !k.any_80211v());
  const VapMap r = read(R"([{"id":1,"ssid":"a"},{"id":2,"ssid":"b","802dot11r":1}])");
  EXPECT_TRUE(!r.any_80211k() && r.any_80211r() && !r.any_80211v());
  const VapMap v = read(R"([{"id":1,"ssid":"a"},{"id":2,"ssid":"b","802dot11v":1}])");
  EXPECT_TRUE(!v.any_80211k() && !v.any_80211r() && v.any_80211v());
  EXPECT_TRUE(k.use_80211k_of("b"));
  EXPECT_FALSE(k.use_80211k_of("a"));
  EXPECT_FALSE(k.use_80211k_of("unknown"));
}

// --- mobility domain ---

TEST(MobilityDomain, OfKnownSsids) {
  EXPECT_EQ(mobility_domain(""), 0);
  EXPECT_EQ(mobility_domain("a"), 97);
  EXPECT_EQ(mobility_domain("abc"), 58150);
}

/// Long division of the SSID's polynomial by x^16 + x^15 + x^2 + 1, bit by bit.
std::uint16_t divided(const std::string& ssid) {
  std::vector<int> bits;
  for (const char c : ssid)
    for (int bit = 7; bit >= 0; --bit) bits.push_back(c >> bit & 1);
  for (std::size_t i = 0; i + 16 < bits.size(); ++i) {
    if (bits[i] == 0) continue;
    for (const std::size_t power : {16, 15, 2, 0}) bits[i + 16 - power] ^= 1;
  }
  std::uint16_t remainder = 0;
  const std::size_t first = bits.size() > 16 ? bits.size() - 16 : 0;
  for (std::size_t i = first; i < bits.size(); ++i)
    remainder = static_cast<std::uint16_t>(remainder << 1 | bits[i]);
  return remainder;
}

TEST(MobilityDomain, IsTheRemainderOfALongDivision) {
  std::mt19937 random(20240601);
  for (int i = 0; i < 500; ++i) {
    std::string ssid(random() % 33, '\0');
    for (char& c : ssid) c = static_cast<char>(random());
    EXPECT_EQ(mobility_domain(ssid), divided(ssid)) << "size " << ssid.size();
  }
}

// --- links ---

TEST(FbtLinks, AreFoundByHolderKeyAndMacWithoutLocalBit) {
  Vap vap;
  vap.add_link(holder("r0", "00:11:22:33:44:55", "key"));
  EXPECT_TRUE(vap.has_link(holder("r0", "00:11:22:33:44:55", "key")));
  EXPECT_TRUE(vap.has_link(holder("r0", "02:11:22:33:44:55", "key")));
  EXPECT_FALSE(vap.has_link(holder("r0", "04:11:22:33:44:55", "key")));
  EXPECT_FALSE(vap.has_link(holder("other", "00:11:22:33:44:55", "key")));
  EXPECT_FALSE(vap.has_link(holder("r0", "00:11:22:33:44:55", "other")));
}

TEST(FbtLinks, CompareTheMacsOfTextsInEitherCaseAndUnreadableOnesAsZeros) {
  Vap vap;
  vap.add_link(holder("r0", "aa:bb:cc:dd:ee:ff", "key"));
  vap.add_link(holder("r0", "nonsense", "key"));
  EXPECT_TRUE(vap.has_link(holder("r0", "AA:BB:CC:DD:EE:FF", "key")));
  EXPECT_TRUE(vap.has_link(holder("r0", "", "key")));
  EXPECT_TRUE(vap.has_link(holder("r0", "02:00:00:00:00:00", "key")));
}

TEST(FbtLinks, CanBeAddedUnderTheMacThatIsHeard) {
  Vap vap;
  vap.add_link_as(holder("r0", "00:11:22:33:44:55", "key"), "00:11:22:33:44:99");
  ASSERT_EQ(vap.links.size(), 1u);
  EXPECT_EQ(vap.links[0].remote_r0_kh_id, "r0");
  EXPECT_EQ(vap.links[0].remote_r1_kh_id, "00:11:22:33:44:99");
  EXPECT_EQ(vap.links[0].remote_r1_kh_key, "key");
}

TEST(FbtLinks, RemoveTakesTheFirstMatchAndKeepsTheOrderOfTheOthers) {
  Vap vap;
  vap.links = {{"r0", "00:11:22:33:44:01", "k"},
               {"r0", "00:11:22:33:44:55", "k"},
               {"r0", "00:11:22:33:44:02", "k"},
               {"r0", "02:11:22:33:44:55", "k"}};
  vap.remove_link(holder("r0", "00:11:22:33:44:55", "k"));
  ASSERT_EQ(vap.links.size(), 3u);
  EXPECT_EQ(vap.links[0].remote_r1_kh_id, "00:11:22:33:44:01");
  EXPECT_EQ(vap.links[1].remote_r1_kh_id, "00:11:22:33:44:02");
  EXPECT_EQ(vap.links[2].remote_r1_kh_id, "02:11:22:33:44:55");
  vap.remove_link(holder("r0", "00:11:22:33:44:03", "k"));
  EXPECT_EQ(vap.links.size(), 3u);
}

TEST(FbtLinks, TheBroadcastLinkIsAddedOnce) {
  CapturedLog log;
  Vap vap;
  EXPECT_TRUE(vap.link_broadcast_802dot11r());
  EXPECT_FALSE(vap.link_broadcast_802dot11r());
  ASSERT_EQ(vap.links.size(), 1u);
  EXPECT_EQ(vap.links[0].remote_r0_kh_id, "*");
  EXPECT_EQ(vap.links[0].remote_r1_kh_id, "ff:ff:ff:ff:ff:ff");
  EXPECT_EQ(log.count(LogLevel::Debug, "FBT broadcast mac added"), 1u);
}

TEST(FbtLinks, AllBroadcastLinksOfTheProcessShareOneKeyOf16Letters) {
  Vap first;
  Vap second;
  first.link_broadcast_802dot11r();
  second.link_broadcast_802dot11r();
  const std::string key = first.links[0].remote_r1_kh_key;
  EXPECT_EQ(second.links[0].remote_r1_kh_key, key);
  EXPECT_EQ(key.size(), 16u);
  EXPECT_TRUE(std::all_of(key.begin(), key.end(), [](unsigned char c) { return std::isalpha(c); }));
}

TEST(RandomKey, HasTheAskedNumberOfLettersAndNothingElse) {
  EXPECT_EQ(random_key(0), "");
  std::string drawn;
  for (int i = 0; i < 200; ++i) {
    const std::string key = random_key(16);
    EXPECT_EQ(key.size(), 16u);
    drawn += key;
  }
  for (char c = 'A'; c <= 'z'; ++c)
    EXPECT_EQ(drawn.find(c) != std::string::npos, std::isalpha(static_cast<unsigned char>(c)) != 0)
        << c;
}

}  // namespace
}  // namespace rrm
