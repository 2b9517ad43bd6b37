#pragma once

#include <cstddef>
#include <cstdint>

namespace rrm {

/// What the process does with memory it no longer uses.
///
/// Purpose:   messages come and go in bursts, and giving the pages behind each burst back to the
///            system and fetching them again costs more than handling the messages; so a little is
///            kept at once. What a rush of clients needed for half a minute is given back once it
///            has become much.
/// Threading: keep_little() from the first thread of the process before there are others;
///            give_back() from one thread.
class FreeMemory {
 public:
  static constexpr int kKeptAtOnce = 1 << 20;                  ///< bytes at the end of each heap
  static constexpr std::size_t kMuch = std::size_t{16} << 20;  ///< bytes
  static constexpr std::int64_t kInterval_s = 60;

  /// Sets how much of what is freed the allocator keeps without being asked.
  static void keep_little() noexcept;

  /// Once an interval: when at least `kMuch` is free, and more than is in use, returns it to the
  /// system. Otherwise does nothing; cheap enough to be called all the time.
  /// @param now_s seconds of a monotonic clock
  /// @return whether memory was given back
  bool give_back(std::int64_t now_s) noexcept;

 private:
  std::int64_t last_look_s_ = 0;
};

}  // namespace rrm
