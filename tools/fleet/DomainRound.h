#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "tools/fleet/ApAgent.h"

namespace rrm::fleet {

/// Where a domain stands, as seen from its access points.
enum class Stage {
  Subscribing,  ///< not everybody is in
  Waiting,      ///< everybody is in; the controller lets the planning delay pass
  Measuring,    ///< "rrm-request-mode" has come
  Scanning,     ///< "rrm-update" has come
  Optimising,   ///< all scans are reported
  Planned       ///< the plan has come
};
inline constexpr std::size_t kStages = 6;
const char* name(Stage stage) noexcept;

/// How long the stages of one round took, ms.
struct StageTimes {
  Millis waiting = 0;  ///< last subscription to first mode request; 0 in later rounds
  Millis measuring = 0;
  Millis scanning = 0;
  Millis optimising = 0;
  Millis distributing = 0;  ///< first plan to last plan
  Millis total() const noexcept {
    return waiting + measuring + scanning + optimising + distributing;
  }
};

/// Follows the planning rounds of one domain from the events of its access points.
///
/// A round begins with the first mode request and ends when everybody who reported a scan has a
/// plan, or 3 s after the last plan. Plans outside a round (new neighbour lists) do not count.
/// Threading: one thread.
class DomainRound {
 public:
  explicit DomainRound(std::uint32_t ap_count) : phases_(ap_count, Phase::None) {}

  /// `ap` counts from 0 within the domain. Returns true when this event began a round.
  bool on_event(Millis now, std::uint32_t ap, ApEvent event);
  void on_lost(std::uint32_t ap);
  /// True once per finished round; to be asked after events and from time to time.
  bool finished(Millis now);

  Stage stage() const noexcept;
  std::uint32_t ap_count() const noexcept { return static_cast<std::uint32_t>(phases_.size()); }
  std::uint32_t subscribed() const noexcept { return subscribed_; }
  std::uint32_t modes() const noexcept { return modes_; }
  std::uint32_t scans_asked() const noexcept { return scans_asked_; }
  std::uint32_t scans() const noexcept { return scans_; }
  std::uint32_t plans() const noexcept { return plans_; }
  std::uint32_t rounds() const noexcept { return rounds_; }
  /// Of the last finished round.
  const StageTimes& times() const noexcept { return times_; }

 private:
  enum class Phase : std::uint8_t { None, Modes, Asked, Reported, Planned };

  void begin(Millis now);
  void on_plan(Millis now, Phase& phase);

  std::vector<Phase> phases_;
  bool running_ = false;
  std::uint32_t subscribed_ = 0, modes_ = 0, scans_asked_ = 0, scans_ = 0, plans_ = 0, rounds_ = 0;
  Millis last_subscribed_ = 0, began_ = 0, scan_began_ = 0, last_scan_ = 0, first_plan_ = 0,
         last_plan_ = 0;
  StageTimes times_;
};

}  // namespace rrm::fleet
