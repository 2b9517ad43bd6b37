#include "server/lib/TpcDcaInterferencePlanner.h"

#include <optional>

namespace rrm {
namespace {

/// Summed for the primary of channels that have none.
constexpr SlotRange kNoPrimary = {5, 9};

bool on_axis(const SlotRange& range) { return range.first >= 0 && range.last < kSlots; }

}  // namespace

Interference interference_of(std::int32_t rssi_dbm, const ChannelUse& use) noexcept {
  if (use.channel < 1) return {rssi_dbm + 100, {}, {}};
  const SlotRange block = use.width_mhz == 20 ? SlotRange{} : channel_block(use);
  return {rssi_dbm + 100, block, primary_block(use.channel)};
}

std::int32_t InterferencePlanner::counter(std::int32_t slot) const noexcept {
  std::uint32_t value = 0;
  for (std::int32_t i = 0; i <= slot; ++i) value += steps_[static_cast<std::size_t>(i)];
  return static_cast<std::int32_t>(value);
}

void InterferencePlanner::sum_up() noexcept {
  std::uint32_t value = 0;
  std::int64_t total = 0;
  for (std::size_t slot = 0; slot < kSlots; ++slot) {
    value += steps_[slot];
    total += static_cast<std::int32_t>(value);
    sums_[slot + 1] = total;
  }
}

std::int64_t InterferencePlanner::sum(const SlotRange& range) const noexcept {
  return sums_[static_cast<std::size_t>(range.last + 1)] -
         sums_[static_cast<std::size_t>(range.first)];
}

std::int64_t InterferencePlanner::cost(const ChannelUse& use,
                                       const SlotRange& block) const noexcept {
  if (use.width_mhz <= 20) return sum(block);
  const SlotRange primary = primary_block(use.channel);
  return sum(block) + sum(primary.empty() ? kNoPrimary : primary);
}

std::int32_t InterferencePlanner::choose(const ChannelRequest& request) noexcept {
  sum_up();
  std::int32_t best = 0;
  std::int64_t best_cost = 0;
  std::optional<std::int64_t> current_cost;
  for (const std::int32_t channel : request.allowed) {
    const ChannelUse use{channel, request.current.width_mhz, request.current.position};
    const SlotRange block = channel_block(use);
    if (block.empty() || !on_axis(block)) continue;
    const std::int64_t channel_cost = cost(use, block);
    if (channel_cost < 0) continue;
    if (channel == request.current.channel) current_cost = channel_cost;
    if (best != 0 && channel_cost >= best_cost) continue;
    best = channel;
    best_cost = channel_cost;
  }
  if (best == 0 || !current_cost) return best;
  const bool whole = bypass_ || request.threshold_percent >= 100;
  const std::int64_t factor = whole ? 100 : 100 - request.threshold_percent;
  return *current_cost * factor / 100 > best_cost ? best : request.current.channel;
}

}  // namespace rrm
