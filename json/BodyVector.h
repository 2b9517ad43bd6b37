#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <limits>
#include <memory_resource>
#include <new>

#include "json/MonotonicArena.h"

namespace yajson {

/// The elements of an array or the members of an object, in order, and where their memory comes
/// from.
///
/// T must bear being moved bytewise (nothing in it points into itself), and its default value must
/// be cheap: append() builds in place, so that a parsed value never moves after it was made.
/// Threading: none inside. Errors: std::bad_alloc; the contents are then unchanged.
template <typename T>
class BodyVector {
 public:
  explicit BodyVector(std::pmr::memory_resource* resource) noexcept : resource_(resource) {}
  /// Takes over memory of that resource that has room for `capacity` elements.
  BodyVector(std::pmr::memory_resource* resource, void* memory, std::size_t capacity) noexcept
      : resource_(resource), data_(static_cast<T*>(memory)), capacity_(capacity) {}
  ~BodyVector() {
    truncate(0);
    if (data_ != nullptr) resource_->deallocate(data_, capacity_ * sizeof(T), alignof(T));
  }
  BodyVector(const BodyVector&) = delete;
  BodyVector& operator=(const BodyVector&) = delete;

  std::pmr::memory_resource* resource() const noexcept { return resource_; }
  std::size_t size() const noexcept { return size_; }
  std::size_t capacity() const noexcept { return capacity_; }
  T* data() noexcept { return data_; }
  const T* data() const noexcept { return data_; }

  /// Room for `capacity` elements in all.
  void reserve(std::size_t capacity) {
    if (capacity > capacity_) relocate(capacity);
  }

  /// Appends a default-made element; the reference holds until the next append.
  T& append() {
    if (size_ == capacity_) [[unlikely]]
      grow();
    return *::new (data_ + size_++) T();
  }

  /// The same for a body in this arena (null: on the heap): grows where it lies if it can.
  T& append(MonotonicArena* arena) {
    if (size_ == capacity_) [[unlikely]]
      if (!extend(arena)) grow();
    return *::new (data_ + size_++) T();
  }

  /// Destroys the elements behind the first `size`.
  void truncate(std::size_t size) noexcept {
    while (size_ > size) data_[--size_].~T();
  }

 private:
  bool extend(MonotonicArena* arena) noexcept {
    if (arena == nullptr || data_ == nullptr ||
        !arena->extend(data_ + capacity_, capacity_ * sizeof(T)))
      return false;
    capacity_ *= 2;
    return true;
  }
  void grow() { relocate(std::max<std::size_t>(2 * capacity_, 4)); }
  void relocate(std::size_t capacity) {
    if (capacity > std::numeric_limits<std::size_t>::max() / sizeof(T)) throw std::bad_alloc();
    void* const fresh = resource_->allocate(capacity * sizeof(T), alignof(T));
    if (data_ != nullptr) {
      std::memcpy(fresh, static_cast<const void*>(data_), size_ * sizeof(T));
      resource_->deallocate(data_, capacity_ * sizeof(T), alignof(T));
    }
    data_ = static_cast<T*>(fresh);
    capacity_ = capacity;
  }

  std::pmr::memory_resource* resource_;
  T* data_ = nullptr;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
};

}  // namespace yajson
