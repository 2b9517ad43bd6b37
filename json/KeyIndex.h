#pragma once

#include <cstddef>
#include <cstdint>
#include <memory_resource>
#include <string_view>

namespace yajson {

struct JsonMember;

/// The 64-bit hash of a key; the bytes are read little-endian.
std::uint64_t hash_key(std::string_view key) noexcept;

/// Finds the members of one large object by key.
///
/// An unordered map with chained buckets: bucket = hash modulo bucket count, never more entries
/// than buckets. An entry is the position of a member and the keys stay in the members, so nothing
/// has to be re-pointed when these move. Every call is given the object's members. Threading: none
/// inside. Errors: std::bad_alloc; lookups never fail.
class KeyIndex {
 public:
  static constexpr std::uint32_t kNone = 0xffffffff;

  explicit KeyIndex(std::pmr::memory_resource* resource) noexcept : resource_(resource) {}
  ~KeyIndex();
  KeyIndex(const KeyIndex&) = delete;
  KeyIndex& operator=(const KeyIndex&) = delete;

  /// Indexes all members anew, with room for that many keys; of equal keys the last one stays.
  void rebuild(const JsonMember* members, std::size_t count, std::size_t room = 0);
  /// Adds the member at `position`; an equal key gives up its entry to it.
  void insert(const JsonMember* members, std::uint32_t position);
  /// Position of the member with this key, or kNone.
  std::uint32_t find(const JsonMember* members, std::string_view key) const noexcept;

  /// Number of different keys.
  std::size_t size() const noexcept { return size_; }
  std::size_t bucket_count() const noexcept { return bucket_count_; }

 private:
  struct Entry {
    std::uint32_t position;
    std::uint32_t next;  ///< entry of the same bucket, or kNone
    std::uint32_t hash;  ///< low half: tells most keys of a bucket apart without a look at them
  };

  /// Chains longer than this do not come by chance.
  static constexpr int kLongestChain = 64;

  void allocate(std::size_t room);
  void release() noexcept;
  static std::size_t bytes_of(std::size_t bucket_count, std::size_t capacity) noexcept {
    return bucket_count * sizeof(std::uint32_t) + capacity * sizeof(Entry);
  }
  std::uint32_t& bucket_of(std::uint32_t hash) const noexcept {
    return buckets_[hash & (bucket_count_ - 1)];
  }
  bool insert_hashed(const JsonMember* members, std::uint32_t position);
  void rebuild_sorted(const JsonMember* members, std::size_t count);
  void insert_sorted(const JsonMember* members, std::uint32_t position);
  /// The first sorted entry whose key is not less.
  Entry* lower_bound(const JsonMember* members, std::string_view key) const noexcept;

  std::pmr::memory_resource* resource_;
  std::uint32_t* buckets_ = nullptr;  ///< first entry of each bucket, or kNone
  Entry* entries_ = nullptr;          ///< behind the buckets
  std::size_t bucket_count_ = 0;      ///< a power of two, at most 2^32
  std::size_t capacity_ = 0;          ///< room for entries, at most bucket_count_
  std::size_t size_ = 0;
  bool sorted_ = false;  ///< entries ascend by key and the buckets are not used
};

}  // namespace yajson
