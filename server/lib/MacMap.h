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
/// Purpose:   what access points hear is copied with every snapshot and walked by every planner,
///            and a client may be blocked on every radio of a domain at once; two blocks of memory
///            are copied and walked faster than a node per entry. The order does not depend on
///            hashes, so runs are repeatable; erasing puts the last entry into the gap.
/// Errors:    at() throws std::out_of_range for an absent key.
/// Threading: none inside; const operations may run side by side.
/// Note:      inserting and erasing move entries: iterators and references do not survive them.
///            Keys must not be changed through an iterator.
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
  void insert_or_assign(const MacAddress& mac, const Value& value) {
    const auto [entry, is_new] = try_emplace(mac, value);
    if (!is_new) entry->second = value;
  }

  /// @return how many entries the key had
  std::size_t erase(const MacAddress& mac) {
    if (slots_.empty()) return 0;
    const std::size_t at = probe(mac);
    if (slots_[at] == 0) return 0;
    const std::uint32_t gap = slots_[at];
    const auto last = static_cast<std::uint32_t>(entries_.size());
    if (gap != last) {
      slot_of(entries_.back().first) = gap;
      entries_[gap - 1] = std::move(entries_.back());
    }
    free_slot(at);
    entries_.pop_back();
    if (entries_.capacity() > kKeptEntries && 8 * size() < entries_.capacity()) shrink();
    return 1;
  }

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
  static constexpr std::size_t kKeptEntries = 128;
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

  /// The slot where the search for a MAC begins.
  std::size_t home(const MacAddress& mac) const noexcept {
    return mac.number() * multiplier() >> (64 - std::countr_zero(slots_.size()));
  }

  /// Slot of a MAC, or the free one where it belongs. There is always a free one.
  std::size_t probe(const MacAddress& mac) const noexcept {
    std::size_t at = home(mac);
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

  /// Empties a slot and moves up those behind it that were pushed past it. Called while every other
  /// slot names its entry, as far as its place counts.
  void free_slot(std::size_t gap) noexcept {
    const std::size_t mask = slots_.size() - 1;
    for (std::size_t at = (gap + 1) & mask; slots_[at] != 0; at = (at + 1) & mask) {
      const std::size_t pushed = (at - home(entries_[slots_[at] - 1].first)) & mask;
      if (pushed < ((at - gap) & mask)) continue;
      slots_[gap] = slots_[at];
      gap = at;
    }
    slots_[gap] = 0;
  }

  void grow() { index(slots_.empty() ? kFirstSlots : 2 * slots_.size()); }

  /// Gives back what a rush of entries has needed.
  void shrink() {
    std::vector<value_type> kept;
    kept.reserve(2 * size() + 1);
    std::move(entries_.begin(), entries_.end(), std::back_inserter(kept));
    entries_.swap(kept);
    index(std::max(kFirstSlots, std::bit_ceil(4 * size())));
  }

  void index(std::size_t slots) {
    slots_ = std::vector<std::uint32_t>(slots);
    for (std::size_t i = 0; i < entries_.size(); ++i)
      slot_of(entries_[i].first) = static_cast<std::uint32_t>(i + 1);
  }

  std::vector<value_type> entries_;
  std::vector<std::uint32_t> slots_;  ///< open addressing: index + 1 of an entry, 0 when free
};

/// Set of MAC addresses, stored alike.
class MacSet {
 public:
  MacSet() = default;
  MacSet(std::initializer_list<MacAddress> macs) {
    for (const MacAddress& mac : macs) insert(mac);
  }

  std::size_t size() const noexcept { return map_.size(); }
  bool empty() const noexcept { return map_.empty(); }
  /// The element, or null.
  const MacAddress* find(const MacAddress& mac) const noexcept {
    const auto found = map_.find(mac);
    return found == map_.end() ? nullptr : &found->first;
  }
  bool contains(const MacAddress& mac) const noexcept { return map_.contains(mac); }
  void insert(const MacAddress& mac) { map_.try_emplace(mac); }
  void erase(const MacAddress& mac) { map_.erase(mac); }
  void clear() noexcept { map_.clear(); }

 private:
  struct Nothing {};
  MacMap<Nothing> map_;
};

}  // namespace rrm
