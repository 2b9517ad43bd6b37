#include "server/lib/TpcDcaScene.h"

#include <algorithm>
#include <bit>

namespace rrm {
namespace {

/// Signals beyond are untrue; clipping keeps sums of them far from the limits of 32 bits.
constexpr std::int32_t kRssiLimitDbm = 10000;
constexpr std::uint64_t kLocalBit = std::uint64_t{2} << 40;

std::vector<SceneAp> in_mac_order(ApMap& snapshot) {
  std::vector<SceneAp> aps(snapshot.size());
  std::size_t next = 0;
  for (auto& [mac, entry] : snapshot.aps()) aps[next++].entry = entry.get();
  std::sort(aps.begin(), aps.end(), [](const SceneAp& a, const SceneAp& b) {
    return a.entry->base_mac.number() < b.entry->base_mac.number();
  });
  return aps;
}

std::size_t count_macs(const std::vector<SceneAp>& aps) {
  std::size_t count = 0;
  for (const SceneAp& ap : aps) {
    ++count;
    for (const Radio& radio : ap.entry->radios.radios) count += 1 + radio.vaps.size();
  }
  return count;
}

std::size_t band_index(std::int32_t band) {
  const auto found = std::find(kSceneBands.begin(), kSceneBands.end(), band);
  return static_cast<std::size_t>(found - kSceneBands.begin());
}

}  // namespace

/// Own MAC addresses: who owns them, and the group of entries under which a radio is heard. Both
/// variants of the locally administered bit share a row. Open addressing, at most half full.
class TpcDcaScene::MacTable {
 public:
  explicit MacTable(std::size_t macs)
      : rows_(std::bit_ceil(2 * macs + 2)), mask_(rows_.size() - 1) {}

  /// The first owner of a MAC keeps it.
  void own(std::uint64_t mac, std::int32_t ap) {
    std::int32_t& owner = row(mac).owner[is_local(mac)];
    if (owner < 0) owner = ap;
  }
  /// The group of a radio MAC, made when new.
  std::int32_t group(std::uint64_t mac) {
    std::int32_t& group = row(mac).group;
    if (group < 0) group = groups_++;
    return group;
  }
  std::size_t groups() const noexcept { return static_cast<std::size_t>(groups_); }

  struct Found {
    std::int32_t owner = -1;
    std::int32_t group = -1;
  };
  Found find(std::uint64_t mac) const {
    const std::uint64_t key = mac & ~kLocalBit;
    for (std::size_t i = start(key);; i = (i + 1) & mask_) {
      const Row& row = rows_[i];
      if (row.key == kFree) return {};
      if (row.key != key) continue;
      const std::int32_t own = row.owner[is_local(mac)];
      return {own >= 0 ? own : row.owner[!is_local(mac)], row.group};
    }
  }

 private:
  static constexpr std::uint64_t kFree = ~std::uint64_t{0};
  struct Row {
    std::uint64_t key = kFree;
    std::int32_t owner[2] = {-1, -1};  ///< without and with the local bit
    std::int32_t group = -1;
  };

  static bool is_local(std::uint64_t mac) { return (mac & kLocalBit) != 0; }
  std::size_t start(std::uint64_t key) const {
    return static_cast<std::size_t>((key * 0x9e3779b97f4a7c15ULL) >> 20) & mask_;
  }
  Row& row(std::uint64_t mac) {
    const std::uint64_t key = mac & ~kLocalBit;
    std::size_t i = start(key);
    while (rows_[i].key != kFree && rows_[i].key != key) i = (i + 1) & mask_;
    rows_[i].key = key;
    return rows_[i];
  }

  std::vector<Row> rows_;
  std::size_t mask_;
  std::int32_t groups_ = 0;
};

/// Fills a scene.
class TpcDcaScene::Builder {
 public:
  explicit Builder(TpcDcaScene& scene) : scene_(scene), macs_(count_macs(scene.aps_)) {}

  void build() {
    register_macs();
    scene_.channels_.resize(scene_.aps_.size());
    for (std::size_t i = 0; i < scene_.aps_.size(); ++i) lay_out(i);
    group_by_radio();
  }

 private:
  void register_macs() {
    std::size_t heard = 0;
    for (std::size_t i = 0; i < scene_.aps_.size(); ++i) {
      SceneAp& ap = scene_.aps_[i];
      const auto owner = static_cast<std::int32_t>(i);
      heard += ap.entry->visible_members.size() + ap.entry->visible_rogue.size();
      macs_.own(ap.entry->base_mac.number(), owner);
      for (const Radio& radio : ap.entry->radios.radios) {
        macs_.own(radio.mac.number(), owner);
        ap.radio_groups.push_back(macs_.group(radio.mac.number()));
        for (const auto& [ssid, vap] : radio.vaps.vaps()) macs_.own(vap.mac.number(), owner);
      }
    }
    scene_.heard_.resize(heard);
    scene_.owners_.resize(heard);
    groups_.resize(heard);
  }

  void lay_out(std::size_t index) {
    SceneAp& ap = scene_.aps_[index];
    ap.members = static_cast<std::int32_t>(ap.entry->visible_members.size());
    own_macs_.clear();
    for (const Radio& radio : ap.entry->radios.radios) own_macs_.push_back(radio.mac.number());
    make_room(ap);
    for (const auto& [mac, neighbour] : ap.entry->visible_members) {
      const std::uint64_t bssid = mac.number();
      const MacTable::Found found = macs_.find(bssid);
      scene_.channels_[index].add(neighbour.channel);
      place(bssid, neighbour, found.owner, found.group);
    }
    for (const auto& [mac, neighbour] : ap.entry->visible_rogue)
      place(mac.number(), neighbour, -1, -1);
  }

  /// Sets where the entries of each band start.
  void make_room(SceneAp& ap) {
    std::array<std::uint32_t, kSceneBands.size() + 1> counts{};
    for (const NeighbourMap* map : {&ap.entry->visible_members, &ap.entry->visible_rogue})
      for (const auto& [bssid, neighbour] : *map) ++counts[band_index(neighbour.band)];
    for (std::size_t band = 0; band < counts.size(); ++band) {
      ap.bands[band] = next_[band] = end_;
      end_ += counts[band];
    }
    ap.bands.back() = end_;
  }

  void place(std::uint64_t bssid, const Neighbour& neighbour, std::int32_t owner,
             std::int32_t group) {
    const std::uint32_t index = next_[band_index(neighbour.band)]++;
    const std::int32_t rssi = std::clamp(neighbour.dbm_signal, -kRssiLimitDbm, kRssiLimitDbm);
    HeardBss& bss = scene_.heard_[index];
    bss.use = {neighbour.channel, neighbour.bandwidth, neighbour.primary};
    bss.interference = interference_of(rssi, bss.use);
    bss.band = neighbour.band;
    for (std::size_t i = 0; i < own_macs_.size() && i < 32; ++i)
      if (own_macs_[i] == bssid) bss.own_radios |= std::uint32_t{1} << i;
    scene_.owners_[index] = owner;
    groups_[index] = group;
  }

  void group_by_radio() {
    std::vector<std::uint32_t>& begin = scene_.group_begin_;
    begin.assign(macs_.groups() + 1, 0);
    for (const std::int32_t group : groups_)
      if (group >= 0) ++begin[static_cast<std::size_t>(group) + 1];
    for (std::size_t i = 1; i < begin.size(); ++i) begin[i] += begin[i - 1];
    scene_.hearings_.resize(begin.back());
    std::vector<std::uint32_t> next(begin.begin(), begin.end());
    for (std::uint32_t listener = 0; listener < scene_.aps_.size(); ++listener) {
      const SceneAp& ap = scene_.aps_[listener];
      for (std::uint32_t entry = ap.bands.front(); entry < ap.bands.back(); ++entry)
        if (groups_[entry] >= 0)
          scene_.hearings_[next[static_cast<std::size_t>(groups_[entry])]++] = {entry, listener};
    }
  }

  TpcDcaScene& scene_;
  MacTable macs_;
  std::vector<std::int32_t> groups_;  ///< per heard entry: group of its BSSID; -1 none
  std::uint32_t end_ = 0;             ///< of the entries laid out
  // Of the access point being laid out:
  std::vector<std::uint64_t> own_macs_;                       ///< of its radios
  std::array<std::uint32_t, kSceneBands.size() + 1> next_{};  ///< free place of each band
};

void TpcDcaScene::ChannelUses::add(std::int32_t channel) noexcept {
  if (channel < 1 || channel > 255) return;
  if (uses[static_cast<std::size_t>(channel)]++ == 0) ++distinct;
}

void TpcDcaScene::ChannelUses::remove(std::int32_t channel) noexcept {
  if (channel < 1 || channel > 255) return;
  if (--uses[static_cast<std::size_t>(channel)] == 0) --distinct;
}

TpcDcaScene::TpcDcaScene(ApMap& snapshot) : aps_(in_mac_order(snapshot)) { Builder(*this).build(); }

std::span<const TpcDcaScene::Hearing> TpcDcaScene::hearings(const SceneAp& ap,
                                                            std::size_t radio) const noexcept {
  const auto group = static_cast<std::size_t>(ap.radio_groups[radio]);
  return {hearings_.data() + group_begin_[group], group_begin_[group + 1] - group_begin_[group]};
}

void TpcDcaScene::retune(const Hearing& hearing, std::int32_t channel,
                         std::int32_t position) noexcept {
  HeardBss& bss = heard_[hearing.entry];
  if (bss.use.channel != channel) {
    ChannelUses& uses = channels_[hearing.listener];
    uses.remove(bss.use.channel);
    uses.add(channel);
  }
  bss.use.channel = channel;
  bss.use.position = position;
  bss.interference = interference_of(bss.rssi_dbm(), bss.use);
}

void TpcDcaScene::turn_radio(const SceneAp& ap, std::size_t radio, std::int32_t position) {
  for (const Hearing& hearing : hearings(ap, radio))
    retune(hearing, heard_[hearing.entry].use.channel, position);
}

}  // namespace rrm
