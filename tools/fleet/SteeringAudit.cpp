#include "tools/fleet/SteeringAudit.h"

#include <algorithm>

namespace rrm::fleet {
namespace {

constexpr std::size_t kKeptTexts = 20;

std::string name_of(RadioKey radio) {
  return "access point " + std::to_string(radio.ap) + " radio " + std::to_string(radio.radio);
}

std::string name_of(std::uint32_t client) { return "client " + std::to_string(client); }

std::string seconds(Millis ms) {
  return std::to_string(ms / 1000) + "." + std::to_string(ms % 1000 / 100) + " s";
}

}  // namespace

void SteeringAudit::on_blocked(Millis now, RadioKey radio, std::uint32_t client, Millis until) {
  ++figures_.blocks;
  if (until - now != timeout_) {
    violation(now, name_of(client) + " is blocked at " + name_of(radio) + " for " +
                       seconds(until - now) + " instead of " + seconds(timeout_));
  }
  const Block block{now, until};
  const auto [place, is_new] = blocks_.try_emplace(key_of(radio, client), block);
  if (is_new) return;
  close_block(place->second, now, figures_.renewed);
  place->second = block;
}

void SteeringAudit::on_unblocked(Millis now, RadioKey radio, std::uint32_t client) {
  const auto found = blocks_.find(key_of(radio, client));
  if (found == blocks_.end()) return;
  close_block(found->second, now, figures_.unblocked);
  blocks_.erase(found);
}

void SteeringAudit::on_refused(Millis now, RadioKey radio, std::uint32_t client) {
  ++figures_.refusals;
  const auto found = blocks_.find(key_of(radio, client));
  if (found == blocks_.end()) {
    violation(now, name_of(client) + " is refused at " + name_of(radio) + " without a block");
  } else if (now >= found->second.since + timeout_) {
    violation(now, name_of(client) + " is still refused at " + name_of(radio) + " after " +
                       seconds(now - found->second.since));
  }
}

void SteeringAudit::on_served(Millis now, RadioKey, std::uint32_t client) {
  const auto found = unserved_.find(client);
  if (found == unserved_.end()) return;
  close_span(now, client, found->second);
  unserved_.erase(found);
}

void SteeringAudit::on_parted(Millis now, RadioKey radio, std::uint32_t client, Parting why) {
  ++figures_.spans;
  if (why == Parting::Death) ++figures_.orphaned;
  unserved_.insert_or_assign(client, Span{now, radio.ap, why == Parting::Death});
}

void SteeringAudit::on_death(Millis now, std::uint32_t ap) {
  std::erase_if(blocks_, [&](const auto& entry) {
    if (entry.first >> 34 != ap) return false;
    close_block(entry.second, now, figures_.expired);
    return true;
  });
}

void SteeringAudit::finish(Millis now) {
  for (const auto& [key, block] : blocks_) close_block(block, now, figures_.expired);
  for (const auto& [client, span] : unserved_) close_span(now, client, span);
  blocks_.clear();
  unserved_.clear();
}

void SteeringAudit::close_block(const Block& block, Millis end, std::uint64_t& ended_so) {
  ++(end < block.until ? ended_so : figures_.expired);
  figures_.longest_block =
      std::max(figures_.longest_block, std::min(end, block.until) - block.since);
}

void SteeringAudit::close_span(Millis now, std::uint32_t client, const Span& span) {
  const Millis length = now - span.since;
  figures_.longest_span = std::max(figures_.longest_span, length);
  if (!span.orphaned) return;
  figures_.longest_orphaned = std::max(figures_.longest_orphaned, length);
  if (length <= timeout_) return;
  violation(now, name_of(client) + " was served by nobody for " + seconds(length) +
                     " after access point " + std::to_string(span.ap) + " had died");
}

void SteeringAudit::violation(Millis now, const std::string& text) {
  ++figures_.violations;
  if (violations_.size() < kKeptTexts) violations_.push_back("at " + seconds(now) + ": " + text);
}

}  // namespace rrm::fleet
