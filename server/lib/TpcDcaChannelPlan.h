#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "server/lib/TpcDcaInterferencePlanner.h"
#include "server/lib/TpcDcaScene.h"

namespace rrm {

/// Dynamic channel assignment: gives every free radio the channel with the least interference.
///
/// Purpose:   radios that hear the most channels choose first, and what they choose is heard by
///            those that follow. The radios of the snapshot are changed in place.
/// Ownership: views the scene, which must outlive it.
/// Threading: one thread.
class TpcDcaChannelPlan {
 public:
  TpcDcaChannelPlan(TpcDcaScene& scene, std::int32_t threshold_percent);

  /// One pass over all candidates; a second one starts from the channels of the first.
  void run(InterferencePlanner& planner);

  /// Access points (indexes of the scene) with a candidate: all of them get their plan.
  const std::vector<std::size_t>& planned() const noexcept { return planned_; }

 private:
  /// A radio that may move.
  struct Candidate {
    std::size_t radio = 0;           ///< index within its access point
    std::size_t channels_begin = 0;  ///< in channels_
    std::size_t channels_end = 0;
  };
  /// Candidates of one access point; they all have its channel count and rank.
  struct Group {
    std::size_t ap = 0;
    std::size_t begin = 0;  ///< in candidates_
    std::size_t end = 0;
  };

  void collect(std::size_t ap);
  void add_candidate(const Radio& radio, std::size_t index);
  void rank_groups();
  void plan(InterferencePlanner& planner, const Group& group, const Candidate& candidate,
            class TpcDcaCandidateQueue& queue);

  TpcDcaScene& scene_;
  std::int32_t threshold_percent_;
  std::vector<Candidate> candidates_;   ///< access point by access point
  std::vector<std::int32_t> channels_;  ///< allowed channels, ascending, candidate by candidate
  std::vector<Group> groups_;           ///< most heard entries first, then in order
  std::vector<std::int32_t> group_of_;  ///< per access point of the scene; -1 none
  std::vector<std::size_t> planned_;
};

}  // namespace rrm
