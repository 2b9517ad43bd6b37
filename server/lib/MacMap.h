#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <random>
#include <stdexcept>
#include <utility>
#include <vector>

#include "server/lib/MacAddress.h"

namespace rrm {

/// Map by MAC address that keeps its entries side by side in the order of insertion.
///
/// Purpose:   what access points hear is copied with every snapshot and walked by every planner;
///            two blocks of memory are copied and walked faster than a node per entry. The order
///            does not depend on hashes, so runs are repeatable.
/// Errors:    at() throws std::out_of_range for an absent key.
/// Threading: none inside; const operations may run side by side.
/// Note:      inserting moves the entries: iterators and references do not survive it. Keys must
///            not be changed through an iterator. Single entries cannot be erased.
template <class Value>
class MacMap {
 public:
  using value_type = std::pair<MacAddress, Value>;
  using iterator = typename std::vector<value_type>::iterator;
  using const_iterator = typename std::vector<value_type>::const_iterator;

  MacMap() = default;
  MacMap(std::initializer_list<value_type> entries) {
    for (const auto& [mac, value] : entries) try_emplace(mac, value);
  }

  std::size_t size() const noexcept { return entries_.size(); }
  bool empty() const noexcept { return entries_.empty(); }
  iterator begin() noexcept { return entries_.begin(); }
  iterator end() noexcept { return entries_.end(); }
  const_iterator begin() const noexcept { return entries_.begin(); }
  const_iterator end() const noexcept { return entries_.end(); }

  iterator find(const MacAddress& mac) noexcept { return begin() + index_of(mac); }
  const_iterator find(const MacAddress& mac) const noexcept { return begin() + index_of(mac); }
  bool contains(const MacAddress& mac) const noexcept { return find(mac) != end(); }
  std::size_t count(const MacAddress& mac) const noexcept { return contains(mac) ? 1 : 0; }
  Value& at(const MacAddress& mac) { return found(find(mac))->second; }
  const Value& at(const MacAddress& mac) const { return found(find(mac))->second; }

  /// Inserts unless present; tells where the entry is and whether it is new.
  std::pair<iterator, bool> try_emplace(const MacAddress& mac, const Value& value = {}) {
    if (2 * (size() + 1) > slots_.size()) grow();
    std::uint32_t& slot = slot_of(mac);
    if (slot != 0) return {begin() + (slot - 1), false};
    entries_.emplace_back(mac, value);
    slot = static_cast<std::uint32_t>(entries_.size());
    return {std::prev(end()), true};
  }
  Value& operator[](const MacAddress& mac) { return try_emplace(mac).first->second; }

  /// Keeps a little memory for the next filling.
  void clear() noexcept {
    if (entries_.capacity() > kKeptEntries) {
      *this = MacMap();
      return;
    }
    entries_.clear();
    std::fill(slots_.begin(), slots_.end(), 0);
  }

 private:
  static constexpr std::size_t kKeptEntries = 512;
  static constexpr std::size_t kFirstSlots = 16;

  /// Unknown to those who choose the addresses, so that they can't aim them at one slot.
  static std::uint64_t multiplier() {
    static const std::uint64_t drawn = [] {
      std::random_device random;
      return (std::uint64_t{random()} << 32 | random()) | 1;
    }();
    return drawn;
  }

  template <class Iterator>
  Iterator found(Iterator entry) const {
    if (entry - entries_.begin() == static_cast<std::ptrdiff_t>(size()))
      throw std::out_of_range("MAC address not found");
    return entry;
  }

  /// Slot of a MAC, or the free one where it belongs. There is always a free one.
  std::size_t probe(const MacAddress& mac) const noexcept {
    const int shift = 64 - std::countr_zero(slots_.size());
    std::size_t at = mac.number() * multiplier() >> shift;
    while (slots_[at] != 0 && entries_[slots_[at] - 1].first != mac)
      at = (at + 1) & (slots_.size() - 1);
    return at;
  }
  std::uint32_t& slot_of(const MacAddress& mac) noexcept { return slots_[probe(mac)]; }

  /// Index of a MAC's entry, or the size.
  std::ptrdiff_t index_of(const MacAddress& mac) const noexcept {
    const std::uint32_t slot = slots_.empty() ? 0 : slots_[probe(mac)];
    return slot != 0 ? slot - 1 : static_cast<std::ptrdiff_t>(size());
  }

  void grow() {
    slots_.assign(slots_.empty() ? kFirstSlots : 2 * slots_.size(), 0);
    for (std::size_t i = 0; i < entries_.size(); ++i)
      slot_of(entries_[i].first) = static_cast<std::uint32_t>(i + 1);
  }

  std::vector<value_type> entries_;
  std::vector<std::uint32_t> slots_;  ///< open addressing: index + 1 of an entry, 0 when free
};

}  // namespace rrm
