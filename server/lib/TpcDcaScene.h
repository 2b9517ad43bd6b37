#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "server/lib/ApMap.h"
#include "server/lib/TpcDcaInterferencePlanner.h"

namespace rrm {

/// One entry of what an access point hears, as channel assignment reads it: half a cache line.
struct HeardBss {
  Interference interference;
  ChannelUse use;
  std::int32_t band = 0;  ///< as reported: 0 unknown, 2, 5 or 6
  std::uint32_t own_radios =
      0;  ///< bit i: it is the very MAC of the hearing access point's radio i

  std::int32_t rssi_dbm() const noexcept { return interference.weight - 100; }
};

/// An access point of the scene.
struct SceneAp {
  ApEntry* entry = nullptr;
  std::int32_t members = 0;  ///< BSSIDs of this domain that it hears
  /// Where its heard entries of each band start, in the order of kSceneBands; the end comes last.
  std::array<std::uint32_t, 6> bands{};
  std::vector<std::int32_t> radio_groups;  ///< per radio: the heard entries of its MAC
};

/// Bands in the order of a scene: unknown, 2.4, 5 and 6 GHz, and numbers that are no band.
inline constexpr std::array<std::int32_t, 4> kSceneBands = {0, 2, 5, 6};

/// A snapshot laid out for computation: access points in MAC order, what each hears in one array
/// ordered by band, and where each radio is heard.
///
/// Purpose:   moving a radio touches only the entries of those that hear it, and each access point
///            keeps counters from which its number of heard channels follows at once.
/// Ownership: views the snapshot's access points, which must outlive it and keep their radios.
/// Threading: one thread.
class TpcDcaScene {
 public:
  explicit TpcDcaScene(ApMap& snapshot);

  const std::vector<SceneAp>& aps() const noexcept { return aps_; }
  std::span<const HeardBss> heard(const SceneAp& ap) const noexcept {
    return range(ap.bands.front(), ap.bands.back());
  }
  /// Entries of the band with this index in kSceneBands.
  std::span<const HeardBss> heard_in(const SceneAp& ap, std::size_t band_index) const noexcept {
    return range(ap.bands[band_index], ap.bands[band_index + 1]);
  }
  /// Of the same entries as heard(), in the same order: the access point (index) that owns the
  /// BSSID when it was reported as one of this domain; -1.
  std::span<const std::int32_t> owners(const SceneAp& ap) const noexcept {
    return {owners_.data() + ap.bands.front(), ap.bands.back() - ap.bands.front()};
  }

  /// Number of distinct channels (1 to 255) that an access point hears from this domain.
  std::int32_t channel_count(std::size_t ap) const noexcept { return channels_[ap].distinct; }

  /// Rewrites the channel and position of a radio wherever it is heard.
  /// @param on_count  called with each access point (index) whose channel count may have changed
  template <typename OnCount>
  void move_radio(const SceneAp& ap, std::size_t radio, std::int32_t channel, std::int32_t position,
                  OnCount on_count) {
    for (const Hearing& hearing : hearings(ap, radio)) {
      retune(hearing, channel, position);
      on_count(static_cast<std::size_t>(hearing.listener));
    }
  }
  /// Rewrites only the position.
  void turn_radio(const SceneAp& ap, std::size_t radio, std::int32_t position);

 private:
  /// How often each channel is heard by one access point.
  struct ChannelUses {
    std::int32_t distinct = 0;
    std::array<std::uint32_t, 256> uses{};

    void add(std::int32_t channel) noexcept;
    void remove(std::int32_t channel) noexcept;
  };
  /// An entry (index) and the access point that hears it.
  struct Hearing {
    std::uint32_t entry = 0;
    std::uint32_t listener = 0;
  };
  class MacTable;
  class Builder;

  std::span<const HeardBss> range(std::uint32_t begin, std::uint32_t end) const noexcept {
    return {heard_.data() + begin, end - begin};
  }
  std::span<const Hearing> hearings(const SceneAp& ap, std::size_t radio) const noexcept;
  void retune(const Hearing& hearing, std::int32_t channel, std::int32_t position) noexcept;

  std::vector<SceneAp> aps_;
  std::vector<HeardBss> heard_;
  std::vector<std::int32_t> owners_;        ///< of each heard entry; only power control asks
  std::vector<ChannelUses> channels_;       ///< per access point
  std::vector<std::uint32_t> group_begin_;  ///< per radio group: where it starts in hearings_
  std::vector<Hearing> hearings_;           ///< group by group
};

}  // namespace rrm
