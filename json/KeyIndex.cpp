#include "json/KeyIndex.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "json/JsonValue.h"

namespace yajson {
namespace {

constexpr std::uint64_t kP0 = 0xa0761d6478bd642f;
constexpr std::uint64_t kP1 = 0xe7037ed1a0b428db;
constexpr std::size_t kFewestBuckets = 32;  // an index is made for 16 members and more

template <typename Word>
std::uint64_t read(const char* bytes) noexcept {
  static_assert(std::endian::native == std::endian::little, "the hash reads little-endian words");
  Word word;
  std::memcpy(&word, bytes, sizeof word);
  return word;
}

std::uint64_t byte(const char* bytes, std::size_t index) noexcept {
  return static_cast<unsigned char>(bytes[index]);
}

std::uint64_t mix(std::uint64_t h, std::uint64_t first, std::uint64_t second) noexcept {
  return (((h ^ first) * kP1) ^ second) * kP0;
}

}  // namespace

std::uint64_t hash_key(std::string_view key) noexcept {
  const char* const bytes = key.data();
  const std::size_t length = key.size();
  std::uint64_t h = length * kP1 ^ kP0;
  std::uint64_t r = 0;
  if (length <= 8) {
    std::uint64_t first = 0;
    std::uint64_t last = 0;
    if (length >= 4) {
      first = read<std::uint32_t>(bytes);
      last = read<std::uint32_t>(bytes + length - 4);
    } else if (length > 0) {
      first = byte(bytes, 0) << 16 | byte(bytes, length / 2) << 8 | byte(bytes, length - 1);
    }
    r = mix(h, first, last);
  } else if (length <= 16) {
    r = mix(h, read<std::uint64_t>(bytes), read<std::uint64_t>(bytes + length - 8));
  } else {
    for (std::size_t start = 0; start <= length - 16; start += 16)
      h = mix(h, read<std::uint64_t>(bytes + start), read<std::uint64_t>(bytes + start + 8));
    r = mix(h, read<std::uint64_t>(bytes + length - 16), read<std::uint64_t>(bytes + length - 8));
  }
  r = (r ^ (r >> 32)) * kP0;
  return r ^ (r >> 29);
}

KeyIndex::~KeyIndex() { release(); }

void KeyIndex::release() noexcept {
  if (buckets_ == nullptr) return;
  resource_->deallocate(buckets_, bytes_of(bucket_count_, capacity_), alignof(Entry));
  buckets_ = nullptr;
}

void KeyIndex::allocate(std::size_t room) {
  const std::size_t bucket_count = std::bit_ceil(std::max(room, kFewestBuckets));
  void* const memory = resource_->allocate(bytes_of(bucket_count, room), alignof(Entry));
  release();
  buckets_ = static_cast<std::uint32_t*>(memory);
  entries_ = reinterpret_cast<Entry*>(buckets_ + bucket_count);
  bucket_count_ = bucket_count;
  capacity_ = room;
}

void KeyIndex::rebuild(const JsonMember* members, std::size_t count, std::size_t room) {
  if (std::max(count, room) > capacity_) allocate(std::max(count, room));
  if (sorted_) return rebuild_sorted(members, count);
  std::fill_n(buckets_, bucket_count_, kNone);
  size_ = 0;
  for (std::size_t position = 0; position < count; ++position)
    if (!insert_hashed(members, static_cast<std::uint32_t>(position)))
      return rebuild_sorted(members, count);
}

void KeyIndex::insert(const JsonMember* members, std::uint32_t position) {
  if (position >= capacity_)
    return rebuild(members, position + std::size_t{1}, 2 * std::size_t{position});
  if (sorted_) return insert_sorted(members, position);
  if (!insert_hashed(members, position)) rebuild_sorted(members, position + std::size_t{1});
}

/// There is room for an entry. False, and nothing done, when the bucket holds too many already.
inline bool KeyIndex::insert_hashed(const JsonMember* members, std::uint32_t position) {
  const std::string_view key = members[position].key();
  const auto hash = static_cast<std::uint32_t>(hash_key(key));
  std::uint32_t& bucket = bucket_of(hash);
  int chain = 0;
  for (std::uint32_t i = bucket; i != kNone; i = entries_[i].next, ++chain) {
    if (entries_[i].hash != hash || members[entries_[i].position].key() != key) continue;
    entries_[i].position = position;
    return true;
  }
  if (chain >= kLongestChain) return false;
  const auto entry = static_cast<std::uint32_t>(size_++);
  entries_[entry] = {position, bucket, hash};
  bucket = entry;
  return true;
}

std::uint32_t KeyIndex::find(const JsonMember* members, std::string_view key) const noexcept {
  if (size_ == 0) return kNone;
  if (sorted_) {
    const Entry* const entry = lower_bound(members, key);
    const bool found = entry != entries_ + size_ && members[entry->position].key() == key;
    return found ? entry->position : kNone;
  }
  const auto hash = static_cast<std::uint32_t>(hash_key(key));
  for (std::uint32_t i = bucket_of(hash); i != kNone; i = entries_[i].next)
    if (entries_[i].hash == hash && members[entries_[i].position].key() == key)
      return entries_[i].position;
  return kNone;
}

void KeyIndex::rebuild_sorted(const JsonMember* members, std::size_t count) {
  sorted_ = true;
  for (std::size_t i = 0; i < count; ++i) entries_[i] = {static_cast<std::uint32_t>(i), kNone, 0};
  // Of equal keys the later member comes first and is the one that stays.
  std::sort(entries_, entries_ + count, [members](Entry left, Entry right) {
    const int order = members[left.position].key().compare(members[right.position].key());
    return order != 0 ? order < 0 : left.position > right.position;
  });
  Entry* const end = std::unique(entries_, entries_ + count, [members](Entry left, Entry right) {
    return members[left.position].key() == members[right.position].key();
  });
  size_ = static_cast<std::size_t>(end - entries_);
}

void KeyIndex::insert_sorted(const JsonMember* members, std::uint32_t position) {
  const std::string_view key = members[position].key();
  Entry* const place = lower_bound(members, key);
  if (place == entries_ + size_ || members[place->position].key() != key) {
    std::copy_backward(place, entries_ + size_, entries_ + size_ + 1);
    ++size_;
  }
  *place = {position, kNone, 0};
}

KeyIndex::Entry* KeyIndex::lower_bound(const JsonMember* members,
                                       std::string_view key) const noexcept {
  return std::lower_bound(entries_, entries_ + size_, key,
                          [members](Entry entry, std::string_view wanted) {
                            return members[entry.position].key() < wanted;
                          });
}

}  // namespace yajson
