#include "server/lib/TpcDcaCandidateQueue.h"

#include <algorithm>
#include <bit>

namespace rrm {

TpcDcaCandidateQueue::TpcDcaCandidateQueue(std::size_t members)
    : words_((members + 63) / 64), bits_(kCounts * words_), count_(members, kAbsent) {}

void TpcDcaCandidateQueue::insert(std::size_t member, std::int32_t count) {
  const auto slot = static_cast<std::size_t>(count);
  word(slot, member) |= std::uint64_t{1} << member % 64;
  ++held_[slot];
  highest_ = std::max(highest_, slot);
  count_[member] = static_cast<std::int16_t>(count);
  ++size_;
}

void TpcDcaCandidateQueue::remove(std::size_t member) {
  const auto slot = static_cast<std::size_t>(count_[member]);
  word(slot, member) &= ~(std::uint64_t{1} << member % 64);
  --held_[slot];
  count_[member] = kAbsent;
  --size_;
}

void TpcDcaCandidateQueue::change(std::size_t member, std::int32_t count) {
  if (count_[member] == kAbsent || count_[member] == count) return;
  remove(member);
  insert(member, count);
}

std::size_t TpcDcaCandidateQueue::top() noexcept {
  while (held_[highest_] == 0) --highest_;
  const std::uint64_t* const first = bits_.data() + highest_ * words_;
  const std::uint64_t* word = first;
  while (*word == 0) ++word;
  return static_cast<std::size_t>(word - first) * 64 +
         static_cast<std::size_t>(std::countr_zero(*word));
}

}  // namespace rrm
