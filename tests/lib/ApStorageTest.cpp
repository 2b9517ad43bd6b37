#include "server/lib/ApStorage.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/ApBuilder.h"
#include "tests/support/CapturedLog.h"

namespace rrm {
namespace {

using test::CapturedLog;
using test::make_ap;
using testing::ElementsAre;

MacAddress mac(const char* text) { return MacAddress::from_text(text); }

const char* kTwoRadios = R"([{"id":0,"status":1,"channel":6},
    {"id":1,"status":1,"channel":36,"vaps":[{"id":1,"ssid":"corp"},{"id":2,"ssid":"guest"}]},
    {"id":2,"status":0,"vaps":[{"id":1,"ssid":"corp"}]}])";

TEST(ApStorage, IndexesTheMacsAndBssidsOfEnabledRadios) {
  const DomainConfig config;
  const auto ap = make_ap(config, "00:11:22:33:44:00", kTwoRadios);
  ApStorage storage;
  storage.insert_ap(ap);
  EXPECT_EQ(storage.size(), 4u);
  const std::pair<const char*, std::int32_t> owned[] = {{"00:11:22:33:44:00", 0},
                                                        {"00:11:22:33:44:10", 1},
                                                        {"00:11:22:33:44:11", 1},
                                                        {"00:11:22:33:44:12", 1}};
  for (const auto& [text, id] : owned) {
    const ApStorage::Owner* owner = storage.find(mac(text));
    ASSERT_NE(owner, nullptr) << text;
    EXPECT_EQ(owner->ap, ap);
    EXPECT_EQ(owner->radio_id, id);
  }
  EXPECT_EQ(storage.find(mac("00:11:22:33:44:20")), nullptr);
  EXPECT_EQ(storage.find(mac("00:11:22:33:44:21")), nullptr);
}

TEST(ApStorage, ResolvesTheLocallyAdministeredTwin) {
  const DomainConfig config;
  const auto ap = make_ap(config, "00:11:22:33:44:55", R"([{"id":0,"status":1,"channel":6}])");
  ApStorage storage;
  storage.insert_ap(ap);
  ASSERT_NE(storage.find(mac("02:11:22:33:44:55")), nullptr);
  EXPECT_EQ(storage.find(mac("02:11:22:33:44:55"))->radio_id, 0);
  EXPECT_EQ(storage.find(mac("04:11:22:33:44:55")), nullptr);
}

TEST(ApStorage, PrefersAnExactMacToATwin) {
  const DomainConfig config;
  const auto plain = make_ap(config, "00:11:22:33:44:55", R"([{"id":0,"status":1,"channel":6}])");
  const auto local = make_ap(config, "02:11:22:33:44:55", R"([{"id":0,"status":1,"channel":6}])");
  ApStorage storage;
  storage.insert_ap(plain);
  storage.insert_ap(local);
  EXPECT_EQ(storage.find(mac("00:11:22:33:44:55"))->ap, plain);
  EXPECT_EQ(storage.find(mac("02:11:22:33:44:55"))->ap, local);
}

TEST(ApStorage, HoldsNothingOfAnAccessPointWithAllRadiosDisabled) {
  const DomainConfig config;
  const auto ap = make_ap(config, "00:11:22:33:44:00", kTwoRadios);
  ApStorage storage;
  storage.insert_ap(ap);
  for (Radio& radio : ap->radios.radios) radio.status = false;
  storage.insert_ap(ap);
  EXPECT_EQ(storage.size(), 0u);
}

TEST(ApStorage, ReplacesWhatAnAccessPointHadBefore) {
  const DomainConfig config;
  const auto ap = make_ap(config, "00:11:22:33:44:00", kTwoRadios);
  ApStorage storage;
  storage.insert_ap(ap);
  ap->radios.radios[1].vaps.clear();
  const auto copy = ap->copy();
  storage.insert_ap(copy);
  EXPECT_EQ(storage.size(), 2u);
  EXPECT_EQ(storage.find(mac("00:11:22:33:44:10"))->ap, copy);
}

TEST(ApStorage, EraseTakesOnlyWhatTheAccessPointOwns) {
  const DomainConfig config;
  const auto ap = make_ap(config, "00:11:22:33:44:00", kTwoRadios);
  const auto other = make_ap(config, "00:11:22:33:55:00", kTwoRadios);
  ApStorage storage;
  storage.insert_ap(ap);
  storage.insert_ap(other);
  EXPECT_EQ(storage.size(), 8u);
  storage.erase_ap(ap);
  EXPECT_EQ(storage.size(), 4u);
  EXPECT_EQ(storage.find(mac("00:11:22:33:44:10")), nullptr);
  EXPECT_EQ(storage.find(mac("00:11:22:33:55:10"))->ap, other);
  storage.erase_ap(ap);
  EXPECT_EQ(storage.size(), 4u);
}

TEST(ApStorage, AMacCannotBeTakenOverByAnotherAccessPoint) {
  const DomainConfig config;
  const auto first = make_ap(config, "00:11:22:33:44:00", kTwoRadios);
  const auto thief = make_ap(config, "00:11:22:33:44:10", kTwoRadios);  // radio 0 as radio 1 above
  ApStorage storage;
  storage.insert_ap(first);
  storage.insert_ap(thief);
  EXPECT_EQ(storage.find(mac("00:11:22:33:44:10"))->ap, first);
  storage.erase_ap(thief);
  EXPECT_EQ(storage.find(mac("00:11:22:33:44:10"))->ap, first);
  EXPECT_EQ(storage.size(), 4u);
}

TEST(ApStorage, WhatAnAccessPointGaveUpIsNoLongerItsToErase) {
  const DomainConfig config;
  const auto first = make_ap(config, "00:11:22:33:44:00", kTwoRadios);
  const auto heir = make_ap(config, "00:11:22:33:44:10", kTwoRadios);  // radio 0 as radio 1 above
  ApStorage storage;
  storage.insert_ap(first);
  for (Radio& radio : first->radios.radios) radio.status = false;
  storage.insert_ap(first);
  storage.insert_ap(heir);
  storage.insert_ap(first);
  storage.erase_ap(first);
  EXPECT_EQ(storage.find(mac("00:11:22:33:44:10"))->ap, heir);
}

TEST(ApStorage, TracesItsSize) {
  const DomainConfig config;
  const auto ap = make_ap(config, "00:11:22:33:44:00", kTwoRadios);
  ApStorage storage;
  CapturedLog log;
  storage.insert_ap(ap);
  EXPECT_THAT(log.texts(LogLevel::Trace), ElementsAre("AP 00:11:22:33:44:00, total size=0",
                                                      "AP 00:11:22:33:44:00, total size=4"));
  log.clear();
  storage.erase_ap(ap);
  EXPECT_THAT(log.texts(LogLevel::Trace), ElementsAre("AP 00:11:22:33:44:00, total size=0"));
}

}  // namespace
}  // namespace rrm
