#pragma once

#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <utility>

namespace rrm {

/// Map to shared pointers behind one mutex.
///
/// Purpose:   tables that several threads share. Callers copy a shared pointer out and let go of
///            the map before they call into what it points to.
/// Threading: every operation takes the mutex for its whole duration; mutex() and map() serve
///            compound steps, with the mutex held by the caller.
template <class K, class V, class Map>
class SafeMapBase {
 public:
  using Pointer = std::shared_ptr<V>;

  SafeMapBase() = default;
  SafeMapBase(const SafeMapBase&) = delete;
  SafeMapBase& operator=(const SafeMapBase&) = delete;
  virtual ~SafeMapBase() { clear(); }

  /// Empty when absent.
  Pointer find(const K& key) const {
    const std::lock_guard lock(mutex_);
    const auto found = map_.find(key);
    return found == map_.end() ? Pointer() : found->second;
  }
  /// Keeps an existing entry. @return whether the value was inserted
  bool insert(const K& key, Pointer value) {
    const std::lock_guard lock(mutex_);
    return map_.emplace(key, std::move(value)).second;
  }
  /// @return whether there was an entry
  bool erase(const K& key) {
    const std::lock_guard lock(mutex_);
    return map_.erase(key) != 0;
  }
  std::size_t size() const {
    const std::lock_guard lock(mutex_);
    return map_.size();
  }
  void clear() {
    const std::lock_guard lock(mutex_);
    map_.clear();
  }
  /// Calls function(key, pointer) for each entry; it must not call back into this map.
  template <class Function>
  void for_each(Function&& function) const {
    const std::lock_guard lock(mutex_);
    for (const auto& [key, value] : map_) function(key, value);
  }

  std::mutex& mutex() const noexcept { return mutex_; }
  Map& map() noexcept { return map_; }  ///< only with mutex() held
  const Map& map() const noexcept { return map_; }

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;  ///< never waited on
  Map map_;                          ///< guarded by mutex_
};

/// SafeMapBase over a hash map.
template <class K, class V>
class SafeUnorderedMap final : public SafeMapBase<K, V, std::unordered_map<K, std::shared_ptr<V>>> {
};

}  // namespace rrm
