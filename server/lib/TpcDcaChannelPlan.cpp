#include "server/lib/TpcDcaChannelPlan.h"

#include <algorithm>

#include "server/lib/TpcDcaCandidateQueue.h"

namespace rrm {
namespace {

/// Adds what disturbs the radio: its own band and entries without one; at 6 GHz only its own; a
/// radio of unknown band is disturbed by everything.
void fill_planner(InterferencePlanner& planner, const TpcDcaScene& scene, const SceneAp& ap,
                  std::size_t radio) {
  const std::int32_t band = ap.entry->radios.radios[radio].band;
  const auto add = [&planner, own = std::uint32_t{1} << radio](std::span<const HeardBss> heard) {
    for (const HeardBss& bss : heard)
      if ((bss.own_radios & own) == 0) planner.add(bss.interference);
  };
  planner.clear();
  if (band == 0) return add(scene.heard(ap));
  for (std::size_t i = 0; i < kSceneBands.size(); ++i)
    if (kSceneBands[i] == band || (kSceneBands[i] == 0 && band != 6)) add(scene.heard_in(ap, i));
}

}  // namespace

TpcDcaChannelPlan::TpcDcaChannelPlan(TpcDcaScene& scene, std::int32_t threshold_percent)
    : scene_(scene), threshold_percent_(threshold_percent), group_of_(scene.aps().size(), -1) {
  for (std::size_t ap = 0; ap < scene.aps().size(); ++ap) collect(ap);
  rank_groups();
}

void TpcDcaChannelPlan::collect(std::size_t ap) {
  const std::vector<Radio>& radios = scene_.aps()[ap].entry->radios.radios;
  const std::size_t begin = candidates_.size();
  for (std::size_t i = 0; i < radios.size(); ++i)
    if (radios[i].locked_for_dca == 0 && radios[i].status && !radios[i].available_channels.empty())
      add_candidate(radios[i], i);
  if (candidates_.size() == begin) return;
  groups_.push_back({ap, begin, candidates_.size()});
  planned_.push_back(ap);
}

void TpcDcaChannelPlan::add_candidate(const Radio& radio, std::size_t index) {
  const std::size_t begin = channels_.size();
  channels_.insert(channels_.end(), radio.available_channels.begin(),
                   radio.available_channels.end());
  std::sort(channels_.begin() + static_cast<std::ptrdiff_t>(begin), channels_.end());
  candidates_.push_back({index, begin, channels_.size()});
}

void TpcDcaChannelPlan::rank_groups() {
  std::stable_sort(groups_.begin(), groups_.end(), [this](const Group& a, const Group& b) {
    return scene_.aps()[a.ap].members > scene_.aps()[b.ap].members;
  });
  for (std::size_t i = 0; i < groups_.size(); ++i)
    group_of_[groups_[i].ap] = static_cast<std::int32_t>(i);
}

void TpcDcaChannelPlan::run(InterferencePlanner& planner) {
  TpcDcaCandidateQueue queue(groups_.size());
  std::vector<std::size_t> next(groups_.size());  // candidate of each group whose turn it is
  for (std::size_t i = 0; i < groups_.size(); ++i) {
    next[i] = groups_[i].begin;
    queue.insert(i, scene_.channel_count(groups_[i].ap));
  }
  while (!queue.empty()) {
    const std::size_t i = queue.top();
    plan(planner, groups_[i], candidates_[next[i]], queue);
    if (++next[i] == groups_[i].end) queue.remove(i);
  }
}

void TpcDcaChannelPlan::plan(InterferencePlanner& planner, const Group& group,
                             const Candidate& candidate, TpcDcaCandidateQueue& queue) {
  const SceneAp& ap = scene_.aps()[group.ap];
  Radio& radio = ap.entry->radios.radios[candidate.radio];
  fill_planner(planner, scene_, ap, candidate.radio);
  const ChannelUse current{radio.channel, radio.bandwidth, radio.primary_channel};
  const std::span<const std::int32_t> allowed(channels_.data() + candidate.channels_begin,
                                              channels_.data() + candidate.channels_end);
  const std::int32_t chosen = planner.choose({allowed, current, threshold_percent_});
  radio.dca_rank = ap.members;
  radio.neighbour_channel_count = -1;
  radio.normalize_primary_channel();
  if (chosen < 1 || chosen == radio.channel) {
    if (radio.primary_channel != current.position)
      scene_.turn_radio(ap, candidate.radio, radio.primary_channel);
    return;
  }
  radio.channel = chosen;
  radio.normalize_primary_channel();
  scene_.move_radio(
      ap, candidate.radio, chosen, radio.primary_channel, [this, &queue](std::size_t listener) {
        if (group_of_[listener] < 0) return;
        queue.change(static_cast<std::size_t>(group_of_[listener]), scene_.channel_count(listener));
      });
}

}  // namespace rrm
