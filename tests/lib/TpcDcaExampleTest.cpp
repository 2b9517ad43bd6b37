// Whole optimisations that were worked out by hand, number by number; the optimisation and its slow
// twin must both come to them.
#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "tests/support/OptimiserOracle.h"
#include "tests/support/RandomDomain.h"

namespace rrm::test {
namespace {

constexpr std::uint64_t kFirst = 0x001122000000;  // access points A, B, C... follow each other
constexpr std::uint64_t kStranger = 0x00bb00000000;

class TpcDcaExample : public testing::Test {
 protected:
  static std::uint64_t mac(char ap) { return kFirst + 0x40U * static_cast<unsigned>(ap - 'A'); }
  /// Radio 0 of a new access point: 20 MHz, 5 to 20 dBm, its channel the only choice.
  Radio& add(char ap, std::int32_t band, std::int32_t channel, std::int32_t power_dbm) {
    Radio& radio = enable_radio(add_ap(domain, mac(ap)), 0, band, channel);
    radio.power = power_dbm;
    return radio;
  }
  void hears(char listener, char other, std::int32_t rssi_dbm) {
    const Radio& radio = *domain.aps.find(mac_of(mac(other)))->radios.find(0);
    hear(domain.aps.find(mac_of(mac(listener)))->visible_members, radio.mac, rssi_dbm,
         radio.channel, radio.band, radio.bandwidth);
  }
  void hears_stranger(char listener, unsigned n, std::int32_t rssi_dbm, std::int32_t channel,
                      std::int32_t width_mhz) {
    hear(domain.aps.find(mac_of(mac(listener)))->visible_rogue, mac_of(kStranger + n), rssi_dbm,
         channel, 5, width_mhz);
  }
  /// What the result says of radio 0 of an access point.
  static std::string planned(char ap, const std::string& values) {
    return mac_of(mac(ap)).upper().str() + " radio 0 " + values + "\n";
  }
  void expect_plan(bool use_dca, bool use_tpc, const std::string& plan) {
    EXPECT_EQ(radio_0_lines(optimised_text(domain, use_dca, use_tpc)), plan);
    EXPECT_EQ(radio_0_lines(text_of(oracle_optimise(domain.aps, domain.config, use_dca, use_tpc))),
              plan);
  }
  static std::string radio_0_lines(const std::string& text) {
    std::string kept;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
      if (line.find(" radio 0 ") != std::string::npos) kept += line + "\n";
    return kept;
  }

  MadeDomain domain;
};

TEST_F(TpcDcaExample, ChannelsOfTwoAccessPointsAmongStrangers) {
  domain.config.dca_threshold = 99;  // of no effect
  Radio& a = add('A', 5, 36, 10);
  a.bandwidth = 40;
  a.primary_channel = 256;
  a.available_channels = {149, 44, 36};
  add('B', 5, 149, 10).available_channels = {149, 153};
  hears('A', 'B', -80);                  // weight 20
  hears_stranger('A', 1, -60, 36, 20);   // 40
  hears_stranger('A', 2, -70, 44, 80);   // 30
  hears('B', 'A', -50);                  // 50
  hears_stranger('B', 3, -90, 153, 20);  // 10

  // First pass. Both hear 1 channel from 1 BSSID of the domain, so that A, the first, begins.
  //   stranger 1, slots 42..46: 12 28 40 28 12 (sum 120)
  //   stranger 2, slots 42..58: 9 21, thirteen times 30, 21 9; its primary, 50..54: 9 21 30 21 9
  //   B, slots 155..159: 6 14 20 14 6 (sum 60)
  // A looks for 40 MHz:
  //   36:  slots 42..50: 120 + (9 + 21 + 7 x 30) + 9 = 369; primary 42..46: 120 + 120 = 240 -> 609
  //   44:  slots 50..58: (7 x 30 + 21 + 9) + 90 = 330; primary 50..54: 150 + 90 = 240     -> 570
  //   149: slots 155..163: 60; primary 155..159: 60                                        -> 120
  // A moves to 149, the lower half of 149+153, and B hears it there.
  //   A, slots 155..163: 15 35 50 50 50 50 50 35 15; its primary, 155..159: 15 35 50 35 15
  //   stranger 3, slots 159..163: 3 7 10 7 3
  // B looks for 20 MHz:
  //   149: slots 155..159: (15 + 35 + 3 x 50) + 150 + 3 = 353
  //   153: slots 159..163: (3 x 50 + 35 + 15) + 15 + 30 = 245
  // B moves to 153. Second pass: B disturbs A in slots 159..163 (6 14 20 14 6) now, which makes
  // 60 + 6 = 66 on 149 against 609 and 570; for B nothing has changed. Both stay.
  expect_plan(true, false,
              planned('A', "channel 149 at 256 power 10 delta 0 eirp -1") +
                  planned('B', "channel 153 at 0 power 10 delta 0 eirp -1"));
}

TEST_F(TpcDcaExample, PowersOfFiveAccessPoints) {
  domain.config.use_hd_mode = false;
  domain.config.ap_rssi_threshold_2g = -70;  // lowered above -68, raised below -72
  domain.config.hysteresis_2g = 2;
  add('A', 2, 1, 15);
  Radio& b = add('B', 2, 1, 14);
  b.has_antenna_configuration = true;
  b.antenna_gain = 4;
  b.cable_loss = 1;
  b.eirp_max = 18;
  add('C', 2, 6, 10);
  Radio& d = add('D', 2, 11, 12);
  d.power_changed = -6;
  Radio& e = add('E', 2, 1, 9);
  e.power_changed = -6;
  hears('A', 'B', -62);
  hears('A', 'C', -65);
  hears('B', 'A', -69);
  hears('C', 'A', -76);
  hears('D', 'A', -75);

  // Lowering. A hears B 8 dB above the threshold: 14 - 8 = 6 dBm, 6 + 4 - 1 = 9 dBm of EIRP. It
  // hears C 5 dB above it (another channel, but the same band): 10 - 5 = 5 dBm. Nobody hears A
  // above -68.
  // Raising. A hears -62 at the loudest and stays; B and C have just been lowered. D hears only
  // -75: from 12 + 6 = 18 dBm by 5, which 20 dBm limit to 2, less than the 6 it was lowered by. E
  // hears nobody: from 9 + 6 = 15 to 20 dBm, 5 up, less than 6 again.
  expect_plan(false, true,
              planned('B', "channel 1 at 0 power 6 delta -8 eirp 9") +
                  planned('C', "channel 6 at 0 power 5 delta -5 eirp -1") +
                  planned('D', "channel 11 at 0 power 20 delta 2 eirp -1") +
                  planned('E', "channel 1 at 0 power 20 delta 5 eirp -1"));
}

TEST_F(TpcDcaExample, PowersInHdModeFollowTheWideBlocks) {
  domain.config.use_hd_mode = true;
  for (std::int32_t* threshold :
       {&domain.config.ap_rssi_threshold_5g, &domain.config.ap_rssi_threshold_6g})
    *threshold = -70;  // lowered above -68, raised below -72
  domain.config.hysteresis_5g = domain.config.hysteresis_6g = 2;
  Radio& a = add('A', 5, 36, 15);
  a.bandwidth = 80;
  a.primary_channel = 256;
  add('B', 5, 48, 15);
  add('C', 5, 52, 12);
  hears('A', 'B', -60);
  hears('A', 'C', -50);
  hears('C', 'A', -90);
  add('D', 6, 5, 10).bandwidth = 160;
  add('E', 6, 5, 10);
  add('F', 6, 1, 10).bandwidth = 160;
  hears('D', 'E', -75);
  hears('D', 'F', -65);
  add('G', 6, 37, 13).bandwidth = 320;
  add('H', 6, 45, 14);
  add('I', 6, 61, 11);
  hears('G', 'H', -66);
  hears('G', 'I', -50);

  // Lowering. A (36 at 80 MHz: slots 42..58) hears B, whose 48 lies in the same 80 MHz: 10 dB too
  // loud, 15 - 10 = 5 dBm. C's 52 lies in slots 58..74: it may be as loud as it likes. G (37 at
  // 320 MHz: around 31, 6 away, slots 7..71) hears H on 45 (14 from 31, 18 from 63): 4 dB too loud,
  // 14 - 4 = 10 dBm. I's 61 belongs to 63: slots 39..103.
  // D hears nobody above -68 on its channel: at 160 MHz neither 5 nor 1 has a block, so that only
  // the same number counts, which is E's.
  // Raising. A hears B at -60 and stays, G hears H at -66 and stays; B and H were lowered. D hears
  // E at -75: 10 + 5 = 15 dBm. C, E, F and I hear nobody in their blocks: 20 dBm.
  expect_plan(false, true,
              planned('B', "channel 48 at 0 power 5 delta -10 eirp -1") +
                  planned('C', "channel 52 at 0 power 20 delta 8 eirp -1") +
                  planned('D', "channel 5 at 0 power 15 delta 5 eirp -1") +
                  planned('E', "channel 5 at 0 power 20 delta 10 eirp -1") +
                  planned('F', "channel 1 at 0 power 20 delta 10 eirp -1") +
                  planned('H', "channel 45 at 0 power 10 delta -4 eirp -1") +
                  planned('I', "channel 61 at 0 power 20 delta 9 eirp -1"));
}

TEST_F(TpcDcaExample, PowersFollowTheChannelsThatWereJustAssigned) {
  domain.config.use_hd_mode = true;
  domain.config.ap_rssi_threshold_2g = -70;
  domain.config.hysteresis_2g = 2;
  add('A', 2, 1, 15).available_channels = {1, 6};
  add('B', 2, 1, 15);
  hears('A', 'B', -60);
  hears('B', 'A', -75);

  // A finds 40 x (3 + 7 + 10 + 7 + 3) / 10 = 120 on 1 and nothing on 6. Afterwards neither shares
  // the other's block, so that B, 8 dB too loud before, is not lowered; both go to 20 dBm.
  expect_plan(true, true,
              planned('A', "channel 6 at 0 power 20 delta 5 eirp -1") +
                  planned('B', "channel 1 at 0 power 20 delta 5 eirp -1"));
}

}  // namespace
}  // namespace rrm::test
