#include "server/lib/TpcDcaScene.h"

#include <algorithm>
#include <bit>

namespace rrm {
namespace {

/// Signals beyond are untrue; clipping keeps sums of them far from the limits of 32 bits.
constexpr std::int32_t kRssiLimitDbm = 10000;
constexpr std::uint64_t kLocalBit = std::uint64_t{2} << 40;

std::vector<SceneAp> in_mac_order(ApMap& snapshot) {
  std::vector<SceneAp> aps;
  aps.reserve(snapshot.size());
  for (auto& [mac, entry] : snapshot.aps()) aps.push_back({entry.get(), 0, 0, 0, {}});
  std::sort(aps.begin(), aps.end(), [](const SceneAp& a, const SceneAp& b) {
    return a.entry->base_mac < b.entry->base_mac;
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
  std::int32_t groups() const noexcept { return groups_; }

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

void TpcDcaScene::ChannelUses::add(std::int32_t channel) noexcept {
  if (channel < 1 || channel > 255) return;
  if (uses[static_cast<std::size_t>(channel)]++ == 0) ++distinct;
}

void TpcDcaScene::ChannelUses::remove(std::int32_t channel) noexcept {
  if (channel < 1 || channel > 255) return;
  if (--uses[static_cast<std::size_t>(channel)] == 0) --distinct;
}

TpcDcaScene::TpcDcaScene(ApMap& snapshot) : aps_(in_mac_order(snapshot)) {
  MacTable macs(count_macs(aps_));
  lay_out(macs);
  channels_.resize(aps_.size());
  for (std::size_t i = 0; i < aps_.size(); ++i) {
    SceneAp& ap = aps_[i];
    const auto listener = static_cast<std::int32_t>(i);
    ap.members_begin = heard_.size();
    add_heard(macs, ap.entry->visible_members, listener);
    ap.members_end = heard_.size();
    for (const HeardBss& bss : members(ap)) channels_[i].add(bss.use.channel);
    add_heard(macs, ap.entry->visible_rogue, listener);
    ap.end = heard_.size();
    // Only what is heard of the own domain is rewritten.
    std::fill(heard_group_.begin() + static_cast<std::ptrdiff_t>(ap.members_end),
              heard_group_.end(), -1);
  }
  group_by_radio(macs);
}

void TpcDcaScene::lay_out(MacTable& macs) {
  std::size_t heard = 0;
  for (std::size_t i = 0; i < aps_.size(); ++i) {
    SceneAp& ap = aps_[i];
    const auto owner = static_cast<std::int32_t>(i);
    heard += ap.entry->visible_members.size() + ap.entry->visible_rogue.size();
    macs.own(ap.entry->base_mac.number(), owner);
    for (const Radio& radio : ap.entry->radios.radios) {
      macs.own(radio.mac.number(), owner);
      ap.radio_groups.push_back(macs.group(radio.mac.number()));
      for (const auto& [ssid, vap] : radio.vaps.vaps()) macs.own(vap.mac.number(), owner);
    }
  }
  heard_.reserve(heard);
  heard_group_.reserve(heard);
}

void TpcDcaScene::add_heard(const MacTable& macs, const NeighbourMap& heard,
                            std::int32_t listener) {
  for (const auto& [mac, neighbour] : heard) {
    const std::uint64_t bssid = mac.number();
    const MacTable::Found found = macs.find(bssid);
    const std::int32_t rssi = std::clamp(neighbour.dbm_signal, -kRssiLimitDbm, kRssiLimitDbm);
    const ChannelUse use{neighbour.channel, neighbour.bandwidth, neighbour.primary};
    heard_.push_back(
        {interference_of(rssi, use), neighbour.band, found.owner, listener, rssi, use, bssid});
    heard_group_.push_back(found.group);
  }
}

void TpcDcaScene::group_by_radio(const MacTable& macs) {
  group_begin_.assign(static_cast<std::size_t>(macs.groups()) + 1, 0);
  for (const std::int32_t group : heard_group_)
    if (group >= 0) ++group_begin_[static_cast<std::size_t>(group) + 1];
  for (std::size_t i = 1; i < group_begin_.size(); ++i) group_begin_[i] += group_begin_[i - 1];
  grouped_.resize(group_begin_.back());
  std::vector<std::uint32_t> next(group_begin_.begin(), group_begin_.end());
  for (std::size_t i = 0; i < heard_group_.size(); ++i)
    if (heard_group_[i] >= 0)
      grouped_[next[static_cast<std::size_t>(heard_group_[i])]++] = static_cast<std::uint32_t>(i);
}

std::span<const std::uint32_t> TpcDcaScene::heard_as(const SceneAp& ap,
                                                     std::size_t radio) const noexcept {
  const auto group = static_cast<std::size_t>(ap.radio_groups[radio]);
  return {grouped_.data() + group_begin_[group], group_begin_[group + 1] - group_begin_[group]};
}

void TpcDcaScene::retune(HeardBss& bss, std::int32_t channel, std::int32_t position) noexcept {
  ChannelUses& uses = channels_[static_cast<std::size_t>(bss.listener)];
  uses.remove(bss.use.channel);
  uses.add(channel);
  bss.use.channel = channel;
  bss.use.position = position;
  bss.interference = interference_of(bss.rssi_dbm, bss.use);
}

void TpcDcaScene::turn_radio(const SceneAp& ap, std::size_t radio, std::int32_t position) {
  for (const std::uint32_t index : heard_as(ap, radio))
    retune(heard_[index], heard_[index].use.channel, position);
}

}  // namespace rrm
