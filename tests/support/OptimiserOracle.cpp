#include "tests/support/OptimiserOracle.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <optional>
#include <sstream>
#include <utility>

#include "server/lib/TpcDcaOptimiser.h"

namespace rrm::test {
namespace {

using Block = std::pair<int, int>;  // first and last slot

struct OracleAp {
  MacAddress mac;
  bool active = false;
  std::vector<OracleRadio> radios;
  std::map<MacAddress, Neighbour> members;
  std::map<MacAddress, Neighbour> rogue;
};
using OracleDomain = std::map<MacAddress, OracleAp>;  // walked in MAC order

OracleRadio take(const Radio& radio) {
  OracleRadio copy;
  copy.id = radio.id;
  copy.status = radio.status;
  copy.mac = radio.mac;
  copy.band = radio.band;
  copy.channel = radio.channel;
  copy.bandwidth = radio.bandwidth;
  copy.primary_channel = radio.primary_channel;
  copy.available_channels.insert(radio.available_channels.begin(), radio.available_channels.end());
  copy.power = radio.power;
  copy.power_min = radio.power_min;
  copy.power_max = radio.power_max;
  copy.eirp = radio.eirp;
  copy.eirp_min = radio.eirp_min;
  copy.eirp_max = radio.eirp_max;
  copy.antenna_gain = radio.antenna_gain;
  copy.cable_loss = radio.cable_loss;
  copy.has_antenna_configuration = radio.has_antenna_configuration;
  copy.delta = radio.power_changed;
  copy.locked_for_dca = radio.locked_for_dca != 0;
  copy.locked_for_tpc = radio.locked_for_tpc != 0;
  copy.conflicted = radio.conflicted;
  for (const auto& [ssid, vap] : radio.vaps.vaps()) copy.vaps.push_back(vap.mac);
  return copy;
}

OracleDomain take(const ApMap& snapshot) {
  OracleDomain domain;
  for (const auto& [mac, entry] : snapshot.aps()) {
    OracleAp& ap = domain[mac];
    ap.mac = mac;
    ap.active = entry->active;
    for (const Radio& radio : entry->radios.radios) ap.radios.push_back(take(radio));
    ap.members.insert(entry->visible_members.begin(), entry->visible_members.end());
    ap.rogue.insert(entry->visible_rogue.begin(), entry->visible_rogue.end());
  }
  return domain;
}

MacAddress flipped(MacAddress mac) {
  mac.bytes[0] = static_cast<std::uint8_t>(mac.bytes[0] ^ 2);
  return mac;
}

int band_from_channel(int channel) {
  if (channel >= 1 && channel <= 14) return 2;
  if (channel >= 36 && channel <= 165) return 5;
  if (channel >= 166 && channel <= 233) return 6;
  return 0;
}

// --- where a channel lies -----------------------------------------------------------------------

std::optional<Block> block_of_40(int c, int secondary) {
  static const std::map<int, int> centres = {
      {44, 46},   {48, 46},   {52, 54},   {56, 54},   {60, 62},   {64, 62},
      {100, 102}, {104, 102}, {108, 110}, {112, 110}, {116, 118}, {120, 118},
      {124, 126}, {128, 126}, {132, 134}, {136, 134}, {140, 142}, {144, 142},
      {149, 151}, {153, 151}, {157, 159}, {161, 159}};
  if (c >= 36 && c <= 40) return Block(42, 50);
  if (c >= 44 && c <= 161) {
    const auto found = centres.find(c);
    if (found == centres.end()) return std::nullopt;
    return Block(found->second + 4, found->second + 12);
  }
  if (c > 164 || c < 36) {
    const int centre = secondary == 512 ? c - 2 : c + 2;
    if (c < 36 && (centre < 3 || centre > 11)) return std::nullopt;
    return Block(centre + 4, centre + 12);
  }
  return std::nullopt;
}

std::optional<Block> block_of(int width, int c, int secondary) {
  const auto in = [c](int low, int high) { return c >= low && c <= high; };
  if (width == 20) {
    if (in(1, 13) || in(36, 233)) return Block(c + 6, c + 10);
  } else if (width == 40) {
    return block_of_40(c, secondary);
  } else if (width == 80) {
    if (in(36, 48)) return Block(42, 58);
    if (in(52, 64)) return Block(58, 74);
    if (in(100, 112)) return Block(106, 122);
    if (in(116, 128)) return Block(122, 138);
    if (in(132, 144)) return Block(138, 154);
    if (in(149, 161)) return Block(155, 171);
    if (in(165, 173)) return Block(167, 183);
    if (in(174, 189)) return Block(183, 199);
    if (in(190, 205)) return Block(199, 215);
    if (in(206, 221)) return Block(215, 231);
  } else if (width == 160) {
    if (in(36, 64)) return Block(42, 74);
    if (in(100, 128)) return Block(106, 138);
    if (in(165, 189)) return Block(167, 199);
    if (in(190, 221)) return Block(199, 231);
  } else if (width == 320) {
    if (!in(1, 233)) return std::nullopt;
    int best = 0;
    for (const int centre : {31, 63, 95, 127, 159, 191, 223})
      if (std::abs(c - centre) <= 32 && (best == 0 || std::abs(c - centre) < std::abs(c - best)))
        best = centre;
    if (best != 0) return Block(best - 24, best + 40);
  }
  return std::nullopt;
}

// The position that belongs to a channel: `keep` leaves one of the listed values and makes any
// other 0.
int keep(int position, std::initializer_list<int> listed) {
  return std::find(listed.begin(), listed.end(), position) != listed.end() ? position : 0;
}

int quarter(int position, int d) {
  if (d == 0) return keep(position, {256, 512, 768, 1024});
  if (d < -5) return 256;
  if (d < 0) return 512;
  if (d < 6) return 768;
  return 1024;
}

int half(int position, int channel, int centre) {
  if (channel == centre) return keep(position, {256, 512});
  return channel < centre ? 256 : 512;
}

int rounded_down(int number, int multiple) {
  while (number % multiple != 0) --number;
  return number;
}

int position_5(int position, int c, int width) {
  if (width == 40) {
    if (c < 36 || c > 161) return keep(position, {256, 512});
    for (const int low : {36, 44, 52, 60, 100, 108, 116, 124, 132, 140, 149, 157})
      if (c >= low && c <= low + 4) return half(position, c, low + 2);
    return half(position, c, rounded_down(c - 1, 8) + 3);
  }
  if (width == 80) {
    if (c < 36 || c > 161) return keep(position, {256, 512, 768, 1024});
    for (const int low : {36, 52, 100, 116, 132, 149})
      if (c >= low && c <= low + 12) return quarter(position, c - (low + 6));
    return quarter(position, c - (rounded_down(c - 1, 16) + 7));
  }
  if (width == 160) {
    if (c >= 36 && c <= 64) return half(position, c, 50);
    if (c >= 100 && c <= 128) return half(position, c, 114);
    return keep(position, {256, 512});
  }
  if (width == 320) return keep(position, {256, 512});
  return 0;
}

int position_6(int position, int c, int width) {
  if (width == 40) return half(position, c, rounded_down(c - 1, 8) + 3);
  if (width == 80) return quarter(position, c - (rounded_down(c - 1, 16) + 7));
  if (width == 160) return half(position, c, rounded_down(c - 1, 32) + 15);
  if (width != 320) return 0;
  if (position == 256 || position == 512) return position;
  int nearest = 31;
  for (const int centre : {63, 95, 127, 159, 191, 223})
    if (std::abs(c - centre) < std::abs(c - nearest)) nearest = centre;
  if (std::abs(c - nearest) > 32 || c == nearest) return 0;
  return c < nearest ? 256 : 512;
}

int position_other(int position, int width) {
  if (width == 80) return keep(position, {256, 512, 768, 1024});
  if (width == 40 || width == 160 || width == 320) return keep(position, {256, 512});
  return 0;
}

void recompute_position(OracleRadio& radio) {
  const int c = radio.channel;
  int& position = radio.primary_channel;
  const int width = radio.bandwidth;
  if (width == 20) {
    position = 0;
  } else if (radio.band == 6) {
    position = position_6(position, c, width);
  } else if (c < 1 || c > 233) {
    position = position_other(position, width);
  } else if (c < 166 && (radio.band == 5 || (radio.band == 0 && band_from_channel(c) == 5))) {
    position = position_5(position, c, width);
  } else {
    position = position_other(position, width);
  }
}

// --- channels -----------------------------------------------------------------------------------

class OraclePlanner {
 public:
  void add(const Neighbour& neighbour) {
    const int c = neighbour.channel;
    if (c < 1) return;
    const int w = neighbour.dbm_signal + 100;
    if (neighbour.bandwidth != 20)
      if (const auto block = block_of(neighbour.bandwidth, c, neighbour.primary)) cover(w, *block);
    if (const auto primary = block_of(20, c, 0)) cover(w, *primary);
  }

  int choose(const OracleRadio& radio) const {
    int cheapest = 0;
    std::int64_t cheapest_cost = 0;
    std::optional<std::int64_t> current_cost;
    for (const int c : radio.available_channels) {
      const auto block = block_of(radio.bandwidth, c, radio.primary_channel);
      if (!block) continue;
      if (radio.bandwidth == 40 && (block->first < 0 || block->second > 274)) continue;
      std::int64_t cost = sum(*block);
      if (radio.bandwidth > 20) {
        const bool usual = (c >= 1 && c <= 13) || (c >= 36 && c <= 233);
        cost += usual ? sum({c + 6, c + 10}) : sum({5, 9});
      }
      if (cost < 0) continue;
      if (c == radio.channel) current_cost = cost;
      if (cheapest == 0 || cost < cheapest_cost) {
        cheapest = c;
        cheapest_cost = cost;
      }
    }
    if (cheapest == 0) return 0;
    if (!current_cost) return cheapest;
    return *current_cost > cheapest_cost ? cheapest : radio.channel;  // the threshold is bypassed
  }

 private:
  void cover(int w, const Block& block) {
    for (int slot = block.first; slot <= block.second; ++slot) {
      const int from_edge = std::min(slot - block.first, block.second - slot);
      int value = w;
      if (from_edge == 0) value = w * 3 / 10;
      if (from_edge == 1) value = w * 7 / 10;
      if (slot <= 274) counters_[slot] += value;
    }
  }
  std::int64_t sum(const Block& block) const {
    std::int64_t total = 0;
    for (int slot = block.first; slot <= block.second; ++slot) total += counters_[slot];
    return total;
  }

  std::int32_t counters_[275] = {};
};

int count_channels(const std::map<MacAddress, Neighbour>& members) {
  std::set<int> channels;
  for (const auto& [bssid, neighbour] : members)
    if (neighbour.channel >= 1 && neighbour.channel <= 255) channels.insert(neighbour.channel);
  return static_cast<int>(channels.size());
}

bool passes_band(const OracleRadio& radio, const Neighbour& neighbour) {
  if (radio.band == 0) return true;
  if (radio.band == 6) return neighbour.band == 6;
  return neighbour.band == radio.band || neighbour.band == 0;
}

using HearingIndex = std::map<MacAddress, std::vector<OracleAp*>>;

template <typename Write>
void write_into_neighbours(const HearingIndex& index, const OracleRadio& radio, Write write) {
  for (const MacAddress& bssid : {radio.mac, flipped(radio.mac)}) {
    const auto hearing = index.find(bssid);
    if (hearing == index.end()) continue;
    for (OracleAp* ap : hearing->second) write(ap->members.at(bssid));
  }
}

void dca_pass(OracleDomain& domain, OraclePlan& result) {
  HearingIndex index;
  for (auto& [mac, ap] : domain)
    for (const auto& [bssid, neighbour] : ap.members) index[bssid].push_back(&ap);

  struct Candidate {
    OracleAp* ap;
    OracleRadio* radio;
  };
  std::vector<Candidate> candidates;
  for (auto& [mac, ap] : domain) {
    for (OracleRadio& radio : ap.radios) {
      if (radio.locked_for_dca || !radio.status || radio.available_channels.empty()) continue;
      radio.dca_rank = static_cast<std::int32_t>(ap.members.size());
      radio.neighbour_channel_count = count_channels(ap.members);
      candidates.push_back({&ap, &radio});
    }
  }

  std::set<OracleAp*> changed;
  for (;;) {
    const Candidate* best = nullptr;
    for (const Candidate& candidate : candidates) {
      if (candidate.radio->neighbour_channel_count < 0) continue;
      if (best == nullptr ||
          candidate.radio->neighbour_channel_count > best->radio->neighbour_channel_count ||
          (candidate.radio->neighbour_channel_count == best->radio->neighbour_channel_count &&
           candidate.radio->dca_rank > best->radio->dca_rank))
        best = &candidate;
    }
    if (best == nullptr) break;
    OracleRadio& radio = *best->radio;

    OraclePlanner planner;
    for (const auto* heard : {&best->ap->members, &best->ap->rogue})
      for (const auto& [bssid, neighbour] : *heard)
        if (bssid != radio.mac && passes_band(radio, neighbour)) planner.add(neighbour);

    const int chosen = planner.choose(radio);
    const int position_before = radio.primary_channel;
    recompute_position(radio);
    if (chosen >= 1 && chosen != radio.channel) {
      radio.channel = chosen;
      recompute_position(radio);
      write_into_neighbours(index, radio, [&radio](Neighbour& neighbour) {
        neighbour.channel = radio.channel;
        neighbour.primary = radio.primary_channel;
      });
      for (const Candidate& candidate : candidates)
        if (candidate.radio->neighbour_channel_count >= 0)
          candidate.radio->neighbour_channel_count = count_channels(candidate.ap->members);
    } else if (radio.primary_channel != position_before) {
      write_into_neighbours(index, radio, [&radio](Neighbour& neighbour) {
        neighbour.primary = radio.primary_channel;
      });
    }
    changed.insert(best->ap);
    radio.neighbour_channel_count = -1;
  }
  for (const OracleAp* ap : changed) result[ap->mac] = ap->radios;
}

// --- powers -------------------------------------------------------------------------------------

std::int64_t lower_bound_of(const OracleRadio& radio) {
  std::int64_t low = radio.power_min >= 0 ? radio.power_min : 10;
  if (radio.has_antenna_configuration && radio.eirp_min >= 0)
    low = std::max(low, radio.eirp_min - radio.antenna_gain + radio.cable_loss);
  return low;
}

std::int64_t upper_bound_of(const OracleRadio& radio) {
  std::int64_t high = radio.power_max >= 0 ? radio.power_max : 16;
  if (radio.has_antenna_configuration && radio.eirp_max >= 0)
    high = std::min(radio.eirp_max - radio.antenna_gain + radio.cable_loss, high);
  return std::max(lower_bound_of(radio), high);
}

std::int64_t fit(const OracleRadio& radio, std::int64_t power) {
  if (power < lower_bound_of(radio)) return lower_bound_of(radio);
  return std::min(upper_bound_of(radio), power);
}

void recompute_eirp(OracleRadio& radio) {
  if (radio.eirp_min < 0 && !radio.has_antenna_configuration) return;
  if (radio.has_antenna_configuration)
    radio.eirp = radio.power + radio.antenna_gain - radio.cable_loss;
  const std::int64_t before = radio.eirp;
  if (radio.eirp_min >= 0 && radio.eirp < radio.eirp_min) radio.eirp = radio.eirp_min;
  if (radio.eirp_max >= 0 && radio.eirp > radio.eirp_max) radio.eirp = radio.eirp_max;
  if (!radio.has_antenna_configuration) return;
  if (radio.eirp == before && radio.eirp_min < 0 && radio.eirp_max < 0) return;
  const std::int64_t power = fit(radio, radio.eirp - radio.antenna_gain + radio.cable_loss);
  if (power == radio.power) return;
  radio.power = power;
  radio.eirp = radio.power + radio.antenna_gain - radio.cable_loss;
  if (radio.eirp_min >= 0 && radio.eirp < radio.eirp_min) radio.eirp = radio.eirp_min;
  if (radio.eirp_max >= 0 && radio.eirp > radio.eirp_max) radio.eirp = radio.eirp_max;
}

struct Thresholds {
  int t = 0;
  int h = 0;
};

Thresholds thresholds_of(const OracleRadio& radio, const DomainConfig& config) {
  if (radio.band == 5) return {config.ap_rssi_threshold_5g, config.hysteresis_5g};
  if (radio.band == 6) return {config.ap_rssi_threshold_6g, config.hysteresis_6g};
  return {config.ap_rssi_threshold_2g, config.hysteresis_2g};
}

using OwnBss = std::map<MacAddress, OracleAp*>;

OwnBss own_bss_of(OracleDomain& domain) {
  OwnBss own;
  for (auto& [mac, ap] : domain) {
    own.emplace(mac, &ap);
    for (const OracleRadio& radio : ap.radios) {
      own.emplace(radio.mac, &ap);
      for (const MacAddress& vap : radio.vaps) own.emplace(vap, &ap);
    }
  }
  return own;
}

OracleAp* owner_of(const OwnBss& own, const MacAddress& bssid) {
  auto found = own.find(bssid);
  if (found == own.end()) found = own.find(flipped(bssid));
  return found == own.end() ? nullptr : found->second;
}

bool answered_and_planned(const OracleAp& ap) {
  return ap.active && std::any_of(ap.radios.begin(), ap.radios.end(), [](const OracleRadio& radio) {
           return radio.status && radio.channel != 0;
         });
}

bool same_wide_block(int width_a, int channel_a, int position_a, int width_b, int channel_b,
                     int position_b) {
  if (channel_a == channel_b) return true;
  const int width = std::max(width_a, width_b);
  const auto a = block_of(width, channel_a, position_a);
  const auto b = block_of(width, channel_b, position_b);
  return a && b && *a == *b;
}

const OracleRadio* radio_for(const OracleAp& ap, const Neighbour& e, int band, bool hd) {
  for (const OracleRadio& radio : ap.radios) {
    if (!radio.status || radio.band != band) continue;
    if (hd && same_wide_block(radio.bandwidth, radio.channel, radio.primary_channel, e.bandwidth,
                              e.channel, e.primary))
      return &radio;
    if (!hd && radio.channel == e.channel) return &radio;
  }
  if (hd) return nullptr;
  for (const OracleRadio& radio : ap.radios)
    if (radio.status && radio.band == band) return &radio;
  return nullptr;
}

bool lower(OracleRadio& radio, std::int64_t rssi, std::int64_t target) {
  const std::int64_t base = radio.power - radio.delta;
  const std::int64_t power = fit(radio, base + (target - rssi));
  if (base - power <= std::abs(radio.delta) || base == power) return false;
  radio.power = power;
  radio.delta = power - base;
  recompute_eirp(radio);
  return true;
}

bool raise(OracleRadio& radio, std::int64_t rssi, std::int64_t target, std::int64_t below) {
  if (rssi >= below) return false;
  const std::int64_t base = radio.power - radio.delta;
  const std::int64_t power = fit(radio, base + (target - rssi));
  const std::int64_t d = power - base;
  if (d == 0 || (radio.delta != 0 && std::abs(radio.delta) <= d)) return false;
  radio.power = power;
  radio.delta = d;
  recompute_eirp(radio);
  return true;
}

void tpc_pass_1(OracleDomain& domain, const OwnBss& own, const DomainConfig& config,
                OraclePlan& result) {
  for (auto& [mac, a] : domain) {
    if (!answered_and_planned(a)) continue;
    std::map<int, Thresholds> triggers;  // by radio id
    for (const OracleRadio& radio : a.radios)
      if (radio.status && !radio.locked_for_tpc && !radio.available_channels.empty())
        triggers[radio.id] = thresholds_of(radio, config);
    for (const auto& [bssid, e] : a.members) {
      const int band = e.band != 0 ? e.band : band_from_channel(e.channel);
      if (band == 0) continue;
      const OracleRadio* radio = radio_for(a, e, band, config.use_hd_mode);
      if (radio == nullptr || triggers.count(radio->id) == 0) continue;
      const Thresholds trigger = triggers[radio->id];
      if (e.dbm_signal <= trigger.t + trigger.h) continue;
      OracleAp* b = owner_of(own, bssid);
      if (b == nullptr || !b->active) continue;
      bool any = false;
      for (OracleRadio& other : b->radios) {
        if (!other.status || other.band != band) continue;
        other.conflicted = true;
        if (lower(other, e.dbm_signal, trigger.t)) any = true;
      }
      if (any) result[b->mac] = b->radios;
    }
  }
}

bool co_channel(const OracleRadio& radio, const OracleAp& b, bool hd) {
  for (const OracleRadio& other : b.radios) {
    if (other.band != radio.band) continue;
    if (other.channel == radio.channel) return true;
    if (!hd && other.channel != 0) return true;
    if (hd && same_wide_block(radio.bandwidth, radio.channel, radio.primary_channel,
                              other.bandwidth, other.channel, other.primary_channel))
      return true;
  }
  return false;
}

void tpc_pass_2(OracleDomain& domain, const OwnBss& own, const DomainConfig& config,
                OraclePlan& result) {
  for (auto& [mac, a] : domain) {
    if (!answered_and_planned(a)) continue;
    bool any = false;
    for (OracleRadio& radio : a.radios) {
      if (!radio.status || radio.conflicted || radio.locked_for_tpc ||
          radio.available_channels.empty() || radio.band == 0)
        continue;
      std::optional<int> loudest;
      for (const auto& [bssid, e] : a.members) {
        if (e.dbm_signal <= -100 || !passes_band(radio, e)) continue;
        const OracleAp* b = owner_of(own, bssid);
        if (b == nullptr || !b->active || !co_channel(radio, *b, config.use_hd_mode)) continue;
        if (!loudest || e.dbm_signal > *loudest) loudest = e.dbm_signal;
      }
      const Thresholds thresholds = thresholds_of(radio, config);
      const bool raised = loudest
                              ? raise(radio, *loudest, thresholds.t, thresholds.t - thresholds.h)
                              : raise(radio, -100, 0, 0);
      any = any || raised;
    }
    if (any) result[mac] = a.radios;
  }
}

void merge(const OraclePlan& dca, OraclePlan& tpc) {
  for (const auto& [mac, radios] : dca) {
    const auto found = tpc.find(mac);
    if (found == tpc.end()) {
      tpc[mac] = radios;
      continue;
    }
    for (std::size_t i = 0; i < radios.size(); ++i) {
      found->second[i].channel = radios[i].channel;
      found->second[i].primary_channel = radios[i].primary_channel;
    }
  }
}

template <typename AnyRadio>
void write_line(std::ostream& text, const MacAddress& ap, const AnyRadio& radio,
                std::int64_t delta) {
  text << ap.upper().str() << " radio " << radio.id << " channel " << radio.channel << " at "
       << radio.primary_channel << " power " << radio.power << " delta " << delta << " eirp "
       << radio.eirp << '\n';
}

}  // namespace

OraclePlan oracle_optimise(const ApMap& snapshot, const DomainConfig& config, bool use_dca,
                           bool use_tpc) {
  OracleDomain domain = take(snapshot);
  OraclePlan dca;
  OraclePlan tpc;
  if (use_dca) {
    dca_pass(domain, dca);
    dca_pass(domain, dca);
  }
  if (!use_tpc) return dca;
  const OwnBss own = own_bss_of(domain);
  tpc_pass_1(domain, own, config, tpc);
  tpc_pass_2(domain, own, config, tpc);
  merge(dca, tpc);
  return tpc;
}

std::string text_of(const OraclePlan& plan) {
  std::ostringstream text;
  for (const auto& [mac, radios] : plan)
    for (const OracleRadio& radio : radios) write_line(text, mac, radio, radio.delta);
  return text.str();
}

std::string optimised_text(const MadeDomain& domain, bool use_dca, bool use_tpc) {
  ApMap snapshot = domain.aps.snapshot();
  const std::atomic<bool> cancel{false};
  const OptimisationResult result =
      optimise(snapshot, domain.config, {use_dca, use_tpc, false}, 0, cancel);
  std::map<MacAddress, const RadioList*> ordered;
  for (const auto& [mac, radios] : result.radios) ordered.emplace(mac, &radios);
  std::ostringstream text;
  for (const auto& [mac, radios] : ordered)
    for (const Radio& radio : radios->radios) write_line(text, mac, radio, radio.power_changed);
  return text.str();
}

}  // namespace rrm::test
