#include "server/lib/RrmProblist.h"

#include <gtest/gtest.h>

#include "tests/support/CapturedLog.h"

namespace rrm {
namespace {

const MacAddress kClient = MacAddress::from_text("AA:00:00:00:00:01");
const MacAddress kOther = MacAddress::from_text("AA:00:00:00:00:02");
const MacAddress kBssid = MacAddress::from_text("00:11:22:33:44:50");
const MacAddress kSecond = MacAddress::from_text("00:11:22:33:44:60");

ProbeEntry awaiting_two() {
  ProbeEntry entry;
  entry.ssid = "corp";
  entry.mac = kBssid;
  entry.countdown = 5;
  entry.awaited = {kBssid, kSecond};
  return entry;
}

TEST(RrmProblist, AddKeepsTheEntryThatAClientHas) {
  RrmProblist list;
  list.add(kClient, awaiting_two());
  ProbeEntry later = awaiting_two();
  later.ssid = "guest";
  list.add(kClient, later);
  ASSERT_NE(list.find(kClient), nullptr);
  EXPECT_EQ(list.find(kClient)->ssid, "corp");
  EXPECT_EQ(list.find(kClient)->countdown, 5u);
  EXPECT_EQ(list.find(kClient)->mac, kBssid);
  EXPECT_EQ(list.size(), 1u);
}

TEST(RrmProblist, FindsNothingForAnUnknownOrRemovedClient) {
  RrmProblist list;
  list.add(kClient, awaiting_two());
  EXPECT_EQ(list.find(kOther), nullptr);
  list.remove(kOther);
  EXPECT_NE(list.find(kClient), nullptr);
  list.remove(kClient);
  EXPECT_EQ(list.find(kClient), nullptr);
}

TEST(RrmProblist, SetHeardOverwritesAnEarlierValue) {
  RrmProblist list;
  list.add(kClient, awaiting_two());
  list.set_heard(kClient, kBssid, -60, "corp");
  list.set_heard(kClient, kBssid, -55, "corp");
  ASSERT_EQ(list.find(kClient)->heard.size(), 1u);
  EXPECT_EQ(list.find(kClient)->heard.at(kBssid), -55);
}

TEST(RrmProblist, SetHeardWithAnotherSsidChangesNothing) {
  RrmProblist list;
  list.add(kClient, awaiting_two());
  for (const char* ssid : {"guest", "cor", "corpo", "Corp", ""})
    list.set_heard(kClient, kBssid, -60, ssid);
  list.set_heard(kOther, kBssid, -60, "corp");
  EXPECT_TRUE(list.find(kClient)->heard.empty());
  EXPECT_EQ(list.size(), 1u);
}

TEST(RrmProblist, AnEntryWithoutSsidTakesNoUpdates) {
  ProbeEntry entry;
  entry.awaited = {kBssid};
  entry.set_heard(kBssid, -60, "");
  entry.stop_awaiting(kBssid, "");
  EXPECT_TRUE(entry.heard.empty());
  EXPECT_EQ(entry.awaited.size(), 1u);
}

TEST(RrmProblist, StopAwaitingNeedsTheSameSsid) {
  RrmProblist list;
  list.add(kClient, awaiting_two());
  list.stop_awaiting(kClient, kBssid, "guest");
  ASSERT_NE(list.is_awaited(kClient, kBssid), nullptr);
  list.stop_awaiting(kClient, kBssid, "corp");
  EXPECT_EQ(list.is_awaited(kClient, kBssid), nullptr);
  ASSERT_NE(list.is_awaited(kClient, kSecond), nullptr);
  EXPECT_EQ(*list.is_awaited(kClient, kSecond), kSecond);
  EXPECT_EQ(list.is_awaited(kOther, kSecond), nullptr);
}

TEST(RrmProblist, ClearEmptiesEverything) {
  RrmProblist list;
  list.add(kClient, awaiting_two());
  list.add(kOther, awaiting_two());
  list.clear();
  EXPECT_EQ(list.size(), 0u);
  EXPECT_EQ(list.find(kClient), nullptr);
}

TEST(RrmProblist, LogsADroppedEntry) {
  test::CapturedLog log;
  log_problist_drop("timeout");
  EXPECT_TRUE(log.has(LogLevel::Debug, "RrmProblist: drop - timeout"));
}

}  // namespace
}  // namespace rrm
