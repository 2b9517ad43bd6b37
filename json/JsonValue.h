#pragma once

#include <array>
#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <string_view>

#include "json/BodyVector.h"
#include "json/ByteScan.h"
#include "json/JsonError.h"
#include "json/KeyIndex.h"
#include "json/MonotonicArena.h"

namespace yajson {

/// What a value holds.
enum class JsonKind : std::uint8_t {
  null = 0,
  boolean = 1,
  integer = 2,
  number = 3,  ///< IEEE double
  string = 4,
  array = 5,
  object = 6,
  uinteger = 7,  ///< what the parser makes of integers above the signed range
};

/// "null", "bool", "integer", "float", "string", "array", "object", "uinteger"; else "unknown".
std::string_view kind_name(JsonKind kind) noexcept;

class JsonArray;
class JsonObject;
struct JsonMember;
template <bool kRelaxed>
class JsonParser;

/// One JSON value; arrays and objects own their children.
///
/// Storage:   three machine words. Strings of up to 15 bytes lie inside; longer ones and the bodies
///            of arrays and objects lie in the thread's current arena, or on the heap when there is
///            none. All strings are NUL-terminated and are not validated as UTF-8.
/// Ownership: what lies on the heap is freed by the destructor; what lies in an arena goes with it
///            and must be destroyed or abandoned before. A value never moves from the document of
///            one arena into another document: copy() it.
/// Errors:    TypeError when the kind does not fit, OutOfRangeError; nothing is changed then.
/// Threading: one thread at a time, lookups in large objects included (they build an index).
///            Destroying, copying and serializing recurse as deep as the document is nested.
class JsonValue {
 public:
  JsonValue() noexcept = default;
  // NOLINTBEGIN(google-explicit-constructor): literals turn into values where one is wanted
  JsonValue(std::nullptr_t) noexcept {}
  template <std::same_as<bool> T>  // a template, so that no pointer turns into a bool
  JsonValue(T flag) noexcept : head_(head(JsonKind::boolean)) {
    store<std::uint64_t>(flag);
  }
  template <std::signed_integral T>
  JsonValue(T number) noexcept : head_(head(JsonKind::integer)) {
    store<std::int64_t>(number);
  }
  template <std::unsigned_integral T>
  requires(!std::same_as<T, bool>) JsonValue(T number)
  noexcept : head_(head(JsonKind::uinteger)) { store<std::uint64_t>(number); }
  JsonValue(double number) noexcept : head_(head(JsonKind::number)) { store(number); }
  JsonValue(std::string_view bytes) : JsonValue(bytes, current_arena) {}
  JsonValue(const char* text) : JsonValue(std::string_view(text)) {}
  JsonValue(const std::string& bytes) : JsonValue(std::string_view(bytes)) {}
  // NOLINTEND(google-explicit-constructor)
  /// A string in this arena, or on the heap when it is null, whatever is current.
  JsonValue(std::string_view bytes, MonotonicArena* arena);

  static JsonValue array() { return array(current_arena); }
  static JsonValue object() { return object(current_arena); }
  static JsonValue array(MonotonicArena* arena);
  static JsonValue object(MonotonicArena* arena);

  JsonValue(JsonValue&& other) noexcept { take(other); }
  JsonValue& operator=(JsonValue&& other) noexcept {
    if (this == &other) return *this;
    JsonValue old(static_cast<JsonValue&&>(*this));  // may own `other`: goes last
    take(other);
    return *this;
  }
  JsonValue(const JsonValue&) = delete;
  JsonValue& operator=(const JsonValue&) = delete;
  ~JsonValue() {
    if (is_out_of_line()) release();
  }

  /// A deep copy, built in the current arena or on the heap.
  JsonValue copy() const;
  /// Becomes null without freeing anything: ends a document that lies in an arena as a whole (every
  /// part of it was built while that arena was current) without a walk over it.
  void abandon() noexcept { head_ = 0; }

  JsonKind kind() const noexcept { return static_cast<JsonKind>(head_ & 0xff); }
  bool is_null() const noexcept { return kind() == JsonKind::null; }
  bool is_string() const noexcept { return kind() == JsonKind::string; }
  bool is_array() const noexcept { return kind() == JsonKind::array; }
  bool is_object() const noexcept { return kind() == JsonKind::object; }

  bool as_bool() const;
  std::int64_t as_int() const;    ///< integer, or uinteger within the signed range
  std::uint64_t as_uint() const;  ///< uinteger, or integer that is not negative
  double as_number() const;       ///< any number, converted
  /// Valid as long as the value stays where it is; data() is NUL-terminated.
  std::string_view as_string() const;
  JsonArray& as_array();
  const JsonArray& as_array() const;
  JsonObject& as_object();
  const JsonObject& as_object() const;

  /// Elements of an array and members of an object, in order.
  std::span<JsonValue> elements();
  std::span<const JsonValue> elements() const;
  std::span<const JsonMember> members() const;

  /// Element of an array.
  JsonValue& at(std::size_t index);
  const JsonValue& at(std::size_t index) const;
  /// Appends to an array and returns the new element.
  JsonValue& push_back(JsonValue&& value);

  /// Member of an object, or null.
  JsonValue* find(std::string_view key);
  const JsonValue* find(std::string_view key) const;
  /// Replaces the member's value in place, or appends a member; returns the value in the object.
  JsonValue& set(std::string_view key, JsonValue&& value);

  /// Two words that are equal for equal strings, and seldom for others: all bytes of an inline one,
  /// the first eight and the length of a longer one. For a value that is known to be a string.
  std::array<std::uint64_t, 2> string_words() const noexcept {
    std::array<std::uint64_t, 2> words{};
    if (!is_out_of_line()) {
      std::memcpy(words.data(), payload_, sizeof payload_);
    } else {
      const std::string_view bytes = string_bytes();
      std::memcpy(words.data(), bytes.data(), sizeof words[0]);
      words[1] = bytes.size();
    }
    return words;
  }

  /// Whether the storage of a string, array or object belongs to an arena.
  bool is_in_arena() const noexcept { return (head_ & kArenaFlag) != 0; }
  /// Whether anything lies outside the value itself.
  bool is_out_of_line() const noexcept { return (head_ & 0xff00) == 0xff00; }

  static constexpr std::size_t kMaxInline = 15;

 private:
  template <bool kRelaxed>
  friend class JsonParser;
  friend class JsonObject;
  friend struct JsonMember;

  // The head, low bits first: 8 bits kind, 8 bits inline length of a string (255: out of line), 8
  // bits flags, 8 unused, 32 bits length of a string in an arena. Arrays and objects have length
  // 255.
  static constexpr std::uint64_t kOutOfLine = 0xff00;
  static constexpr std::uint64_t kArenaFlag = 0x10000;
  static constexpr std::uint64_t head(JsonKind kind) { return static_cast<std::uint8_t>(kind); }
  static constexpr std::uint64_t inline_head(std::size_t length) {
    return head(JsonKind::string) | length << 8;
  }
  static constexpr std::uint64_t arena_head(JsonKind kind, std::size_t length = 0) {
    return head(kind) | kOutOfLine | kArenaFlag | static_cast<std::uint64_t>(length) << 32;
  }
  static constexpr std::uint64_t heap_head(JsonKind kind) { return head(kind) | kOutOfLine; }
  std::size_t inline_length() const noexcept { return head_ >> 8 & 0xff; }

  // T may be a pointer, whose size is meant.
  template <typename T>
  T load() const noexcept {
    T value;
    std::memcpy(&value, payload_, sizeof value);  // NOLINT(bugprone-sizeof-expression)
    return value;
  }
  template <typename T>
  void store(T value) noexcept {
    std::memcpy(payload_, &value, sizeof value);  // NOLINT(bugprone-sizeof-expression)
  }
  void take(JsonValue& other) noexcept {
    head_ = other.head_;
    std::memcpy(payload_, other.payload_, sizeof payload_);
    other.head_ = 0;
  }
  // For the parser: a null value becomes something else where it stays, its head in one store.
  void become_integer(std::int64_t number) noexcept {
    head_ = head(JsonKind::integer);
    store(number);
  }
  void become_number(double number) noexcept {
    head_ = head(JsonKind::number);
    store(number);
  }
  /// The first `length` <= 15 bytes; those behind them become zeros.
  void become_inline_string(const Bytes16& bytes, std::size_t length) noexcept {
    bytes.first(length).store(payload_);
    head_ = inline_head(length);
  }
  /// At least 16 bytes.
  void become_long_string(const char* bytes, std::size_t length, MonotonicArena* arena);
  JsonArray& become_array(MonotonicArena* arena, std::size_t capacity);
  JsonObject& become_object(MonotonicArena* arena, std::size_t capacity);

  void release() noexcept;
  [[noreturn]] void refuse(const char* expected) const;
  void require(JsonKind wanted, const char* expected) const {
    if (kind() != wanted) [[unlikely]]
      refuse(expected);
  }
  /// The bytes of a value that is known to be a string.
  std::string_view string_bytes() const noexcept {
    if (!is_out_of_line()) return {payload_, inline_length()};
    if (is_in_arena()) return {load<const char*>(), head_ >> 32};
    return *load<const std::string*>();
  }

  std::uint64_t head_ = 0;
  /// Bool, integer and double in the first word; string bytes with a NUL; or a pointer: to the
  /// bytes in the arena, to a std::string, JsonArray or JsonObject.
  alignas(8) char payload_[kMaxInline + 1];
};
static_assert(sizeof(JsonValue) == 24);

/// A member of an object.
struct JsonMember {
  JsonValue name;  ///< always a string, stored where the object's body is
  JsonValue value;
  std::string_view key() const noexcept { return name.string_bytes(); }
};

/// The body of an array.
class JsonArray {
 public:
  explicit JsonArray(std::pmr::memory_resource* resource) noexcept : elements_(resource) {}
  /// Starts with memory of that resource for `capacity` elements.
  JsonArray(std::pmr::memory_resource* resource, void* memory, std::size_t capacity) noexcept
      : elements_(resource, memory, capacity) {}

  std::size_t size() const noexcept { return elements_.size(); }
  bool empty() const noexcept { return size() == 0; }
  JsonValue* begin() noexcept { return elements_.data(); }
  JsonValue* end() noexcept { return elements_.data() + size(); }
  const JsonValue* begin() const noexcept { return elements_.data(); }
  const JsonValue* end() const noexcept { return elements_.data() + size(); }
  JsonValue& operator[](std::size_t index) noexcept { return elements_.data()[index]; }
  const JsonValue& operator[](std::size_t index) const noexcept { return elements_.data()[index]; }

  void reserve(std::size_t capacity) { elements_.reserve(capacity); }
  std::size_t capacity() const noexcept { return elements_.capacity(); }
  /// Appends null and returns it.
  JsonValue& append() { return elements_.append(); }
  JsonValue& append(MonotonicArena* arena) { return elements_.append(arena); }

 private:
  BodyVector<JsonValue> elements_;
};

/// The body of an object: members in the order they were added, found by key.
class JsonObject {
 public:
  explicit JsonObject(std::pmr::memory_resource* resource) noexcept : members_(resource) {}
  /// Starts with memory of that resource for `capacity` members.
  JsonObject(std::pmr::memory_resource* resource, void* memory, std::size_t capacity) noexcept
      : members_(resource, memory, capacity) {}
  ~JsonObject() { drop_index(); }
  JsonObject(const JsonObject&) = delete;
  JsonObject& operator=(const JsonObject&) = delete;

  /// Objects with more members are searched through an index.
  static constexpr std::size_t kMaxLinear = 15;

  std::size_t size() const noexcept { return members_.size(); }
  bool empty() const noexcept { return size() == 0; }
  JsonMember* begin() noexcept { return members_.data(); }
  JsonMember* end() noexcept { return members_.data() + size(); }
  const JsonMember* begin() const noexcept { return members_.data(); }
  const JsonMember* end() const noexcept { return members_.data() + size(); }

  JsonValue* find(std::string_view key);
  const JsonValue* find(std::string_view key) const;
  JsonValue& set(std::string_view key, JsonValue&& value);

  void reserve(std::size_t capacity) { members_.reserve(capacity); }
  std::size_t capacity() const noexcept { return members_.capacity(); }
  bool has_index() const noexcept { return index_ != nullptr; }

 private:
  template <bool kRelaxed>
  friend class JsonParser;
  friend class JsonValue;

  /// Adds a member whose key is known to be new.
  JsonValue& add(std::string_view key, JsonValue&& value);
  /// Appends a member without looking for its key; the index is left behind.
  JsonMember& append(MonotonicArena* arena) { return members_.append(arena); }
  /// After append() was used, of members with equal keys only the last stays, at its own position:
  /// for objects of up to kMaxLinear members, and for larger ones, whose index is built.
  void settle_small();
  void settle_large();
  /// Keeps the members for which `keep(position)` holds, in their order.
  template <typename Keep>
  void filter(Keep keep);
  const JsonMember* find_member(std::string_view key) const;
  KeyIndex& index() const { return index_ != nullptr ? *index_ : make_index(members_.capacity()); }
  KeyIndex& make_index(std::size_t room) const;
  void drop_index() const noexcept;
  void extend_index();

  BodyVector<JsonMember> members_;
  mutable KeyIndex* index_ = nullptr;  ///< allocated from the members' resource
};

inline std::string_view JsonValue::as_string() const {
  require(JsonKind::string, "string");
  return string_bytes();
}
inline std::span<JsonValue> JsonValue::elements() {
  JsonArray& body = as_array();
  return {body.begin(), body.size()};
}
inline std::span<const JsonValue> JsonValue::elements() const {
  const JsonArray& body = as_array();
  return {body.begin(), body.size()};
}
inline std::span<const JsonMember> JsonValue::members() const {
  const JsonObject& body = as_object();
  return {body.begin(), body.size()};
}

}  // namespace yajson
