#include "json/MonotonicArena.h"

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <new>

namespace yajson {
namespace {

constexpr std::size_t kDefaultFirstBlock = 4096;
constexpr std::size_t kSmallestFirstBlock = 256;
constexpr std::size_t kMaxSize = std::numeric_limits<std::size_t>::max();

constexpr std::size_t twice(std::size_t size) { return size > kMaxSize / 2 ? kMaxSize : 2 * size; }

}  // namespace

MonotonicArena::MonotonicArena(std::size_t size_hint) {
  const std::size_t first =
      size_hint == 0 ? kDefaultFirstBlock : std::max(size_hint, kSmallestFirstBlock);
  if (!add_block(first)) throw std::bad_alloc();
}

MonotonicArena::~MonotonicArena() {
  while (blocks_ != nullptr) {
    Block* const next = blocks_->next;
    std::free(blocks_);
    blocks_ = next;
  }
}

std::size_t MonotonicArena::block_count() const noexcept {
  std::size_t count = 0;
  for (const Block* block = blocks_; block != nullptr; block = block->next) ++count;
  return count;
}

void* MonotonicArena::bump_in_new_block(std::size_t bytes, std::size_t align) {
  if (bytes > kMaxSize - (align - 1)) throw std::bad_alloc();
  // The request is known not to fit the current block: without a new one there is nothing to give.
  if (!add_block(std::max(bytes + align - 1, next_block_size_))) throw std::bad_alloc();
  return bump(bytes, align);
}

bool MonotonicArena::add_block(std::size_t usable_size) noexcept {
  if (usable_size > kMaxSize - sizeof(Block)) return false;
  auto* const block = static_cast<Block*>(std::malloc(sizeof(Block) + usable_size));
  if (block == nullptr) return false;
  *block = {blocks_, usable_size};
  blocks_ = block;
  current_ = reinterpret_cast<char*>(block + 1);
  end_ = current_ + usable_size;
  total_bytes_ += sizeof(Block) + usable_size;
  next_block_size_ = twice(usable_size);
  return true;
}

}  // namespace yajson
