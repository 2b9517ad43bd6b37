#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "server/lib/ApMap.h"
#include "server/lib/TpcDcaInterferencePlanner.h"

namespace rrm {

/// One entry of what an access point hears.
struct HeardBss {
  Interference interference;
  std::int32_t band = 0;      ///< as reported: 0 unknown, 2, 5 or 6
  std::int32_t owner = -1;    ///< index of the access point of this domain that owns it; -1 none
  std::int32_t listener = 0;  ///< index of the access point that hears it
  std::int32_t rssi_dbm = 0;
  ChannelUse use;
  std::uint64_t bssid = 0;
};

/// An access point of the scene and its part of the heard entries.
struct SceneAp {
  ApEntry* entry = nullptr;
  std::size_t members_begin = 0;  ///< heard BSSs of this domain, then the others
  std::size_t members_end = 0;
  std::size_t end = 0;
  std::vector<std::int32_t> radio_groups;  ///< per radio: the heard entries of its MAC; -1 none
};

/// A snapshot laid out for computation: access points in MAC order, what each hears in one array,
/// and where each radio is heard.
///
/// Purpose:   moving a radio touches only the entries of those that hear it, and each access point
///            keeps counters from which its number of heard channels follows at once.
/// Ownership: views the snapshot's access points, which must outlive it and keep their radios.
/// Threading: one thread.
class TpcDcaScene {
 public:
  explicit TpcDcaScene(ApMap& snapshot);

  const std::vector<SceneAp>& aps() const noexcept { return aps_; }
  std::span<const HeardBss> members(const SceneAp& ap) const noexcept {
    return {heard_.data() + ap.members_begin, ap.members_end - ap.members_begin};
  }
  std::span<const HeardBss> all_heard(const SceneAp& ap) const noexcept {
    return {heard_.data() + ap.members_begin, ap.end - ap.members_begin};
  }

  /// Number of distinct channels (1 to 255) that an access point hears from this domain.
  std::int32_t channel_count(std::size_t ap) const noexcept { return channels_[ap].distinct; }

  /// Rewrites the channel and position of a radio wherever it is heard.
  /// @param on_count  called with each access point (index) whose channel count may have changed
  template <typename OnCount>
  void move_radio(const SceneAp& ap, std::size_t radio, std::int32_t channel, std::int32_t position,
                  OnCount on_count) {
    for (const std::uint32_t index : heard_as(ap, radio)) {
      retune(heard_[index], channel, position);
      on_count(static_cast<std::size_t>(heard_[index].listener));
    }
  }
  /// Rewrites only the position.
  void turn_radio(const SceneAp& ap, std::size_t radio, std::int32_t position);

 private:
  /// How often each channel is heard by one access point.
  struct ChannelUses {
    std::array<std::uint32_t, 256> uses{};
    std::int32_t distinct = 0;

    void add(std::int32_t channel) noexcept;
    void remove(std::int32_t channel) noexcept;
  };
  class MacTable;

  void lay_out(MacTable& macs);
  void add_heard(const MacTable& macs, const NeighbourMap& heard, std::int32_t listener);
  void group_by_radio(const MacTable& macs);
  std::span<const std::uint32_t> heard_as(const SceneAp& ap, std::size_t radio) const noexcept;
  void retune(HeardBss& bss, std::int32_t channel, std::int32_t position) noexcept;

  std::vector<SceneAp> aps_;
  std::vector<HeardBss> heard_;
  std::vector<ChannelUses> channels_;       ///< per access point
  std::vector<std::int32_t> heard_group_;   ///< per heard entry: group of its MAC; -1 none
  std::vector<std::uint32_t> group_begin_;  ///< per group: where it starts in grouped_
  std::vector<std::uint32_t> grouped_;      ///< indexes of heard entries, group by group
};

}  // namespace rrm
