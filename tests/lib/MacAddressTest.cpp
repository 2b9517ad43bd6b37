#include "server/lib/MacAddress.h"

#include <gtest/gtest.h>

#include <set>

namespace rrm {
namespace {

MacAddress mac(const char* text) { return MacAddress::from_text(text); }

struct ScanCase {
  const char* name;
  const char* text;
  bool scans;
  const char* printed;
};

class MacScan : public testing::TestWithParam<ScanCase> {};

TEST_P(MacScan, ReadsSixHexadecimalFieldsOrAllZeros) {
  MacAddress result = mac("01:02:03:04:05:06");
  EXPECT_EQ(MacAddress::scan(GetParam().text, result), GetParam().scans);
  EXPECT_STREQ(result.upper().c_str(), GetParam().printed);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, MacScan,
    testing::Values(
        ScanCase{"UpperCase", "0A:1B:2C:3D:4E:5F", true, "0A:1B:2C:3D:4E:5F"},
        ScanCase{"LowerCase", "0a:1b:2c:3d:4e:5f", true, "0A:1B:2C:3D:4E:5F"},
        ScanCase{"OneDigitFields", "1:2:3:4:5:f", true, "01:02:03:04:05:0F"},
        ScanCase{"TrailingText", "00:11:22:33:44:55 and more", true, "00:11:22:33:44:55"},
        ScanCase{"FiveFields", "00:11:22:33:44", false, "00:00:00:00:00:00"},
        ScanCase{"OtherSeparator", "00-11-22-33-44-55", false, "00:00:00:00:00:00"},
        ScanCase{"NoHexDigit", "00:11:22:33:44:zz", false, "00:00:00:00:00:00"},
        ScanCase{"NoSecondDigit", "00:11:22:33:44:5z", true, "00:11:22:33:44:05"},
        ScanCase{"OneDigitBeforeOther", "0z:11:22:33:44:55", false, "00:00:00:00:00:00"},
        ScanCase{"SignBetweenTheCases", "00:11:[2:33:44:55", false, "00:00:00:00:00:00"},
        ScanCase{"TwoSeparators", "00:1::22:33:44:55", false, "00:00:00:00:00:00"},
        ScanCase{"CutInTheLastField", "00:11:22:33:44:", false, "00:00:00:00:00:00"},
        ScanCase{"Empty", "", false, "00:00:00:00:00:00"},
        ScanCase{"NoText", nullptr, false, "00:00:00:00:00:00"}),
    [](const auto& test) { return test.param.name; });

TEST(MacAddress, PrintsInBothCases) {
  const MacAddress address = mac("aB:cD:eF:01:23:45");
  EXPECT_STREQ(address.upper().c_str(), "AB:CD:EF:01:23:45");
  EXPECT_STREQ(address.lower().c_str(), "ab:cd:ef:01:23:45");
  EXPECT_EQ(address.upper().str(), "AB:CD:EF:01:23:45");
}

TEST(MacAddress, IsA48BitNumberWithItsFirstByteOnTop) {
  EXPECT_EQ(mac("01:02:03:04:05:06").number(), 0x010203040506u);
  EXPECT_EQ(MacAddress{}.number(), 0u);
  EXPECT_TRUE(MacAddress{}.is_zero());
  EXPECT_FALSE(mac("00:00:00:00:00:01").is_zero());
}

TEST(MacAddress, HasATwinWithTheLocallyAdministeredBitInverted) {
  EXPECT_EQ(mac("00:11:22:33:44:55").twin(), mac("02:11:22:33:44:55"));
  EXPECT_EQ(mac("02:11:22:33:44:55").twin(), mac("00:11:22:33:44:55"));
  EXPECT_TRUE(mac("00:11:22:33:44:55").same_but_local_bit(mac("02:11:22:33:44:55")));
  EXPECT_TRUE(mac("00:11:22:33:44:55").same_but_local_bit(mac("00:11:22:33:44:55")));
  EXPECT_FALSE(mac("00:11:22:33:44:55").same_but_local_bit(mac("04:11:22:33:44:55")));
}

TEST(MacAddress, AddsToItsLastThreeBytesOnly) {
  EXPECT_EQ(mac("00:11:22:33:44:50").plus(3), mac("00:11:22:33:44:53"));
  EXPECT_EQ(mac("00:11:22:33:FF:FF").plus(1), mac("00:11:22:34:00:00"));
  EXPECT_EQ(mac("00:11:22:33:44:50").plus(0), mac("00:11:22:33:44:50"));
}

TEST(MacAddress, StaysAsItIsWhenTheSumWraps) {
  EXPECT_EQ(mac("00:11:22:FF:FF:F8").plus(16), mac("00:11:22:FF:FF:F8"));
  EXPECT_EQ(mac("00:11:22:FF:FF:F8").plus(7), mac("00:11:22:FF:FF:FF"));
  EXPECT_EQ(mac("00:11:22:33:44:50").plus(0xffffffff), mac("00:11:22:33:44:50"));
}

TEST(MacAddress, IsOrderedByItsBytesAndHashesThemAll) {
  EXPECT_LT(mac("00:00:00:00:00:FF"), mac("00:00:00:00:01:00"));
  std::set<std::size_t> hashes;
  for (std::uint32_t i = 0; i < 1000; ++i)
    hashes.insert(std::hash<MacAddress>()(mac("00:11:22:00:00:00").plus(i)));
  EXPECT_EQ(hashes.size(), 1000u);
}

}  // namespace
}  // namespace rrm
