#pragma once

#include <cstddef>
#include <cstdint>
#include <memory_resource>

namespace yajson {

/// Memory that only grows: a document is built in a few large blocks and thrown away with them.
///
/// Ownership: everything allocated from it lives until the arena is destroyed; giving single pieces
///            back does nothing. Values built in it must be destroyed or abandoned before it.
/// Threading: none inside; one thread at a time.
/// Errors:    std::bad_alloc when the system has no more memory or a size overflows.
class MonotonicArena final : public std::pmr::memory_resource {
 public:
  /// The first block is made at once: max(hint, 256) usable bytes, or 4096 for a hint of 0.
  explicit MonotonicArena(std::size_t size_hint = 0);
  ~MonotonicArena() override;
  MonotonicArena(const MonotonicArena&) = delete;
  MonotonicArena& operator=(const MonotonicArena&) = delete;

  /// The same as allocate(), without the virtual call. `align` is a power of two.
  void* bump(std::size_t bytes, std::size_t align) {
    const std::size_t padding = -reinterpret_cast<std::uintptr_t>(current_) & (align - 1);
    const auto room = static_cast<std::size_t>(end_ - current_);
    if (room < padding || room - padding < bytes) [[unlikely]]
      return bump_in_new_block(bytes, align);
    char* const start = current_ + padding;
    current_ = start + bytes;
    return start;
  }

  /// Makes the newest piece, which ends at `end`, longer where it lies; false when it is not the
  /// newest or the block has no room.
  bool extend(const void* end, std::size_t bytes) noexcept {
    if (end != current_ || bytes > static_cast<std::size_t>(end_ - current_)) return false;
    current_ += bytes;
    return true;
  }

  /// Bytes obtained from the system so far, block headers included.
  std::size_t total_bytes() const noexcept { return total_bytes_; }
  /// Usable size of the next block, unless a single request needs a larger one.
  std::size_t next_block_size() const noexcept { return next_block_size_; }
  std::size_t block_count() const noexcept;

 private:
  struct Block {
    Block* next;
    std::size_t usable_size;
  };
  static_assert(sizeof(Block) == 16);

  void* do_allocate(std::size_t bytes, std::size_t align) override { return bump(bytes, align); }
  void do_deallocate(void*, std::size_t, std::size_t) override {}
  bool do_is_equal(const std::pmr::memory_resource& other) const noexcept override {
    return this == &other;
  }

  void* bump_in_new_block(std::size_t bytes, std::size_t align);
  /// False when the system has no memory; the arena is then unchanged.
  bool add_block(std::size_t usable_size) noexcept;

  char* current_ = nullptr;  ///< first free byte of the newest block
  char* end_ = nullptr;
  Block* blocks_ = nullptr;  ///< newest first
  std::size_t total_bytes_ = 0;
  std::size_t next_block_size_ = 0;
};

/// The arena in which values are made on this thread; null: on the heap.
inline constinit thread_local MonotonicArena* current_arena = nullptr;

/// Makes an arena (or none) the thread's current one and puts the previous one back in the end.
class ArenaScope {
 public:
  explicit ArenaScope(MonotonicArena* arena) noexcept : previous_(current_arena) {
    current_arena = arena;
  }
  ~ArenaScope() { current_arena = previous_; }
  ArenaScope(const ArenaScope&) = delete;
  ArenaScope& operator=(const ArenaScope&) = delete;

 private:
  MonotonicArena* previous_;
};

}  // namespace yajson
