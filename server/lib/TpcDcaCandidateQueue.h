#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace rrm {

/// Members 0..n-1 with a count of 0 to 255 each; gives the lowest member of the highest count.
///
/// Purpose:   picks the next access point of channel assignment. Counts change tens of times per
///            pick, so a change is two bit operations: one bit set per count.
class TpcDcaCandidateQueue {
 public:
  explicit TpcDcaCandidateQueue(std::size_t members);

  void insert(std::size_t member, std::int32_t count);
  void remove(std::size_t member);
  /// Nothing for a member that is not in the queue.
  void change(std::size_t member, std::int32_t count);

  bool empty() const noexcept { return size_ == 0; }
  std::size_t top() noexcept;

 private:
  static constexpr std::size_t kCounts = 256;
  static constexpr std::int16_t kAbsent = -1;

  std::uint64_t& word(std::size_t count, std::size_t member) {
    return bits_[count * words_ + member / 64];
  }

  std::size_t words_;                        ///< per count
  std::vector<std::uint64_t> bits_;          ///< members by count
  std::array<std::size_t, kCounts> held_{};  ///< members per count
  std::vector<std::int16_t> count_;          ///< per member
  std::size_t size_ = 0;
  std::size_t highest_ = 0;  ///< no member has a higher count
};

}  // namespace rrm
