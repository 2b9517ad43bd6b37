#include "tests/support/RandomDomain.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <random>
#include <utility>
#include <vector>

namespace rrm::test {
namespace {

constexpr std::array kChannels2g = {1, 2, 6, 11, 13, 14};
constexpr std::array kChannels5g = {36,  40,  44,  48,  52,  56,  60,  64,  100, 104, 108, 112, 116,
                                    120, 124, 128, 132, 136, 140, 144, 149, 153, 157, 161, 165};
constexpr std::array kChannels6g = {1,   5,   33,  37,  65,  69,  93,  97,  125, 166,
                                    169, 173, 177, 189, 190, 205, 206, 221, 229, 233};
constexpr std::array kOddChannels = {0, 15, 20, 35, 42, 163, 234, 262, 270, 300, -5};

class Dice {
 public:
  explicit Dice(std::uint32_t seed) : engine_(seed) {}

  int from(int low, int high) {
    return low + static_cast<int>(engine_() % unsigned(high - low + 1));
  }
  bool chance(int percent) { return from(1, 100) <= percent; }
  template <typename List>
  auto one_of(const List& list) {
    return list[static_cast<std::size_t>(from(0, static_cast<int>(std::size(list)) - 1))];
  }

 private:
  std::mt19937 engine_;  // its numbers are the same everywhere, unlike those of distributions
};

int random_channel(Dice& dice, int band) {
  if (dice.chance(4)) return dice.one_of(kOddChannels);
  if (dice.chance(2)) return dice.from(1, 233);
  if (band == 2) return dice.one_of(kChannels2g);
  if (band == 6) return dice.one_of(kChannels6g);
  if (band == 5) return dice.one_of(kChannels5g);
  return dice.from(1, 233);
}

int random_width(Dice& dice) {
  constexpr std::array kWidths = {20, 20, 40, 40, 80, 80, 160, 320, 0, 30};
  return dice.one_of(kWidths);
}

void random_power(Dice& dice, Radio& radio) {
  radio.power = dice.from(0, 25);
  radio.power_min = dice.from(-1, 14);
  radio.power_max = dice.chance(20) ? -1 : dice.from(5, 28);
  if (dice.chance(30)) radio.power_changed = dice.from(-9, 9);
  radio.locked_for_tpc = dice.chance(15);
  if (dice.chance(35)) {
    radio.eirp_min = dice.from(-1, 22);
    radio.eirp_max = dice.chance(30) ? -1 : dice.from(8, 30);
    radio.eirp = dice.from(-1, 25);
  }
  if (dice.chance(35)) {
    radio.has_antenna_configuration = true;
    radio.antenna_gain = dice.from(0, 9);
    radio.cable_loss = dice.from(0, 4);
  }
}

void random_radio(Dice& dice, Radio& radio) {
  constexpr std::array kBands = {2, 2, 5, 5, 5, 6, 6, 0};
  constexpr std::array kPositions = {0, 256, 512, 768, 1024};
  radio.status = dice.chance(88);
  radio.band = dice.one_of(kBands);
  radio.channel = random_channel(dice, radio.band);
  radio.bandwidth = random_width(dice);
  radio.primary_channel = dice.one_of(kPositions);
  if (dice.chance(70)) radio.normalize_primary_channel();
  radio.locked_for_dca = dice.chance(12);
  radio.conflicted = dice.chance(5);
  const int choices = dice.chance(8) ? 0 : dice.from(1, 8);
  for (int i = 0; i < choices; ++i)
    radio.available_channels.insert(random_channel(dice, radio.band));
  if (dice.chance(60) && choices > 0) radio.available_channels.insert(radio.channel);
  random_power(dice, radio);
  for (int vap = dice.from(0, 2); vap > 0; --vap) {
    Vap& made = radio.vaps.vaps()["net" + std::to_string(vap)];
    made.ssid = "net" + std::to_string(vap);
    made.mac = radio.mac.plus(static_cast<std::uint32_t>(vap));
  }
}

/// Something that `listener` may hear of the domain: a radio, one of its VAPs or an access point.
void hear_own(Dice& dice, ApEntry& listener, const ApEntry& other) {
  const Radio& radio = dice.one_of(other.radios.radios);
  MacAddress bssid = radio.mac;
  if (dice.chance(15)) bssid = other.base_mac;
  if (!radio.vaps.vaps().empty() && dice.chance(25)) bssid = radio.vaps.vaps().begin()->second.mac;
  if (dice.chance(12)) bssid = bssid.twin();
  int channel = radio.channel;
  if (dice.chance(15)) channel = random_channel(dice, radio.band);
  const int band = dice.chance(12) ? 0 : radio.band;
  Neighbour& heard = hear(listener.visible_members, bssid, dice.from(-105, -35), channel, band,
                          dice.chance(80) ? radio.bandwidth : random_width(dice));
  heard.primary = dice.chance(50) ? 256 : 512;
}

void hear_foreign(Dice& dice, NeighbourMap& map) {
  constexpr std::array kBands = {2, 5, 5, 6, 0, 3};
  const int band = dice.one_of(kBands);
  const MacAddress bssid = mac_of(0xa00000000000U + static_cast<unsigned>(dice.from(0, 400)));
  Neighbour& heard =
      hear(map, bssid, dice.from(-112, -30), random_channel(dice, band), band, random_width(dice));
  heard.primary = dice.chance(50) ? 256 : 512;
}

void random_surroundings(Dice& dice, ApEntry& ap, const std::vector<ApEntry*>& all) {
  for (int i = dice.from(0, 14); i > 0; --i) {
    const ApEntry& other = *dice.one_of(all);
    if (&other != &ap || dice.chance(15)) hear_own(dice, ap, other);
  }
  for (int i = dice.from(0, 4); i > 0; --i) hear_foreign(dice, ap.visible_rogue);
  if (dice.chance(20)) hear_foreign(dice, ap.visible_members);  // its owner has left
}

void random_config(Dice& dice, DomainConfig& config) {
  config.use_hd_mode = dice.chance(50);
  config.dca_threshold = dice.from(0, 100);
  for (std::int32_t* threshold :
       {&config.ap_rssi_threshold_2g, &config.ap_rssi_threshold_5g, &config.ap_rssi_threshold_6g})
    *threshold = dice.from(-85, -55);
  for (std::int32_t* hysteresis :
       {&config.hysteresis_2g, &config.hysteresis_5g, &config.hysteresis_6g})
    *hysteresis = dice.from(0, 6);
}

void campus_radio(Dice& dice, ApEntry& ap, std::int32_t id, std::int32_t band,
                  std::int32_t width_mhz, const std::vector<std::int32_t>& channels) {
  Radio& radio = enable_radio(ap, id, band, dice.one_of(channels));
  radio.bandwidth = width_mhz;
  radio.available_channels = {channels.begin(), channels.end()};
  radio.normalize_primary_channel();
  for (std::uint32_t vap = 0; vap < 3; ++vap) {
    Vap& made = radio.vaps.vaps()["campus" + std::to_string(vap)];
    made.mac = radio.mac.plus(vap);
    made.ssid = "campus" + std::to_string(vap);
  }
}

}  // namespace

MacAddress mac_of(std::uint64_t number) {
  MacAddress mac;
  for (std::size_t i = 6; i-- > 0; number >>= 8) mac.bytes[i] = static_cast<std::uint8_t>(number);
  return mac;
}

ApEntry& add_ap(MadeDomain& domain, std::uint64_t mac) {
  const auto entry =
      std::make_shared<ApEntry>(domain.config, mac_of(mac), SessionAddress{}, ApDescription{});
  entry->active = true;
  domain.aps.insert(entry);
  return *entry;
}

Radio& enable_radio(ApEntry& ap, std::int32_t id, std::int32_t band, std::int32_t channel) {
  Radio& radio = *ap.radios.find(id);
  radio.status = true;
  radio.band = band;
  radio.channel = channel;
  radio.bandwidth = 20;
  radio.power = 10;
  radio.power_min = 5;
  radio.power_max = 20;
  radio.available_channels = {channel};
  return radio;
}

Neighbour& hear(NeighbourMap& map, const MacAddress& bssid, std::int32_t rssi_dbm,
                std::int32_t channel, std::int32_t band, std::int32_t width_mhz) {
  return map[bssid] = {rssi_dbm, channel, band, width_mhz, 0, PrimaryChannel::kLower};
}

std::unique_ptr<MadeDomain> random_domain(std::uint32_t seed) {
  Dice dice(seed);
  auto domain = std::make_unique<MadeDomain>();
  random_config(dice, domain->config);
  std::vector<ApEntry*> all;
  for (int i = dice.from(1, 9); i > 0; --i)
    all.push_back(&add_ap(*domain, 0x001122000000U + 0x40U * static_cast<unsigned>(i)));
  for (ApEntry* ap : all) {
    ap->active = dice.chance(88);
    for (Radio& radio : ap->radios.radios) random_radio(dice, radio);
  }
  for (ApEntry* ap : all) random_surroundings(dice, *ap, all);
  return domain;
}

std::unique_ptr<MadeDomain> campus(std::size_t aps, std::size_t neighbours, std::uint32_t seed) {
  static const std::vector<std::int32_t> k2g = {1, 6, 11};
  static const std::vector<std::int32_t> k5g(kChannels5g.begin(), kChannels5g.end() - 1);
  static const std::vector<std::int32_t> k6g = {1, 17, 33, 49, 65, 81, 97, 113, 129, 145, 161, 177};
  Dice dice(seed);
  auto domain = std::make_unique<MadeDomain>();
  std::vector<ApEntry*> all;
  for (std::size_t i = 0; i < aps; ++i) {
    ApEntry& ap = add_ap(*domain, 0x001122000000U + 0x40U * i);
    campus_radio(dice, ap, 0, 2, 20, k2g);
    campus_radio(dice, ap, 1, 5, 80, k5g);
    campus_radio(dice, ap, 2, 6, 160, k6g);
    all.push_back(&ap);
  }
  const auto side = static_cast<std::size_t>(std::ceil(std::sqrt(static_cast<double>(aps))));
  const auto distance = [side](std::size_t a, std::size_t b) {
    const double dx = double(a % side) - double(b % side);
    const double dy = double(a / side) - double(b / side);
    return std::hypot(dx, dy);
  };
  for (std::size_t i = 0; i < aps; ++i) {
    std::vector<std::size_t> near;
    for (std::size_t j = 0; j < aps; ++j)
      if (j != i) near.push_back(j);
    const std::size_t count = std::min(neighbours, near.size());
    std::partial_sort(near.begin(), near.begin() + static_cast<std::ptrdiff_t>(count), near.end(),
                      [&](std::size_t a, std::size_t b) {
                        return std::pair(distance(i, a), a) < std::pair(distance(i, b), b);
                      });
    for (std::size_t j = 0; j < count; ++j)
      for (const Radio& radio : all[near[j]]->radios.radios) {
        const int rssi =
            -45 - static_cast<int>(30 * std::log10(distance(i, near[j]))) - dice.from(0, 8);
        Neighbour& heard = hear(all[i]->visible_members, radio.mac, rssi, radio.channel, radio.band,
                                radio.bandwidth);
        heard.primary = radio.primary_channel == PrimaryChannel::kUpper ? PrimaryChannel::kUpper
                                                                        : PrimaryChannel::kLower;
      }
  }
  return domain;
}

}  // namespace rrm::test
