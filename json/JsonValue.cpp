#include "json/JsonValue.h"

#include <limits>
#include <memory>
#include <new>

namespace yajson {
namespace {

std::pmr::memory_resource* resource_of(MonotonicArena* arena) noexcept {
  return arena != nullptr ? static_cast<std::pmr::memory_resource*>(arena)
                          : std::pmr::new_delete_resource();
}

/// The arena behind a body's resource, or null for the heap.
MonotonicArena* arena_of(std::pmr::memory_resource* resource) noexcept {
  return dynamic_cast<MonotonicArena*>(resource);
}

/// A body with room for `capacity` parts; in an arena both are one piece of memory.
template <typename Body, typename Part>
Body* make_body(MonotonicArena* arena, std::size_t capacity) {
  if (arena != nullptr) {
    void* const memory = arena->bump(sizeof(Body) + capacity * sizeof(Part), alignof(Body));
    void* const parts = capacity != 0 ? static_cast<char*>(memory) + sizeof(Body) : nullptr;
    return ::new (memory) Body(arena, parts, capacity);
  }
  auto body = std::make_unique<Body>(resource_of(nullptr));
  body->reserve(capacity);
  return body.release();
}

template <typename Body>
void destroy_body(Body* body, bool in_arena) noexcept {
  if (in_arena)
    body->~Body();
  else
    delete body;
}

char* copy_to_arena(std::string_view bytes, MonotonicArena& arena) {
  auto* const copy = static_cast<char*>(arena.bump(bytes.size() + 1, 1));
  std::memcpy(copy, bytes.data(), bytes.size());
  copy[bytes.size()] = '\0';
  return copy;
}

}  // namespace

std::string_view kind_name(JsonKind kind) noexcept {
  constexpr std::string_view kNames[] = {"null",   "bool",  "integer", "float",
                                         "string", "array", "object",  "uinteger"};
  const auto number = static_cast<std::size_t>(kind);
  return number < std::size(kNames) ? kNames[number] : "unknown";
}

JsonValue::JsonValue(std::string_view bytes, MonotonicArena* arena) {
  if (bytes.size() <= kMaxInline) {
    std::memset(payload_, 0, sizeof payload_);
    if (!bytes.empty()) std::memcpy(payload_, bytes.data(), bytes.size());
    head_ = inline_head(bytes.size());
  } else if (arena != nullptr && bytes.size() <= std::numeric_limits<std::uint32_t>::max()) {
    store<const char*>(copy_to_arena(bytes, *arena));
    head_ = arena_head(JsonKind::string, bytes.size());
  } else {
    store<const std::string*>(new std::string(bytes));
    head_ = heap_head(JsonKind::string);
  }
}

JsonValue JsonValue::array(MonotonicArena* arena) {
  JsonValue value;
  value.become_array(arena, 0);
  return value;
}

JsonValue JsonValue::object(MonotonicArena* arena) {
  JsonValue value;
  value.become_object(arena, 0);
  return value;
}

void JsonValue::become_long_string(const char* bytes, std::size_t length, MonotonicArena* arena) {
  if (arena == nullptr || length > std::numeric_limits<std::uint32_t>::max()) [[unlikely]] {
    *this = JsonValue(std::string_view(bytes, length), arena);
    return;
  }
  auto* const copy = static_cast<char*>(arena->bump(length + 1, 1));
  copy_at_least_16(copy, bytes, length);
  copy[length] = '\0';
  store<const char*>(copy);
  head_ = arena_head(JsonKind::string, length);
}

JsonArray& JsonValue::become_array(MonotonicArena* arena, std::size_t capacity) {
  store(make_body<JsonArray, JsonValue>(arena, capacity));
  head_ = arena != nullptr ? arena_head(JsonKind::array) : heap_head(JsonKind::array);
  return *load<JsonArray*>();
}

JsonObject& JsonValue::become_object(MonotonicArena* arena, std::size_t capacity) {
  store(make_body<JsonObject, JsonMember>(arena, capacity));
  head_ = arena != nullptr ? arena_head(JsonKind::object) : heap_head(JsonKind::object);
  return *load<JsonObject*>();
}

void JsonValue::release() noexcept {
  switch (kind()) {
    case JsonKind::string:
      if (!is_in_arena()) delete load<const std::string*>();
      break;
    case JsonKind::array:
      destroy_body(load<JsonArray*>(), is_in_arena());
      break;
    case JsonKind::object:
      destroy_body(load<JsonObject*>(), is_in_arena());
      break;
    default:
      break;
  }
}

JsonValue JsonValue::copy() const {
  JsonValue result;
  switch (kind()) {
    case JsonKind::string:
      return JsonValue(string_bytes());
    case JsonKind::array: {
      result = array();
      JsonArray& body = result.as_array();
      body.reserve(as_array().size());
      for (const JsonValue& element : as_array()) body.append() = element.copy();
      break;
    }
    case JsonKind::object: {
      result = object();
      JsonObject& body = result.as_object();
      body.reserve(as_object().size());
      for (const JsonMember& member : as_object()) body.add(member.key(), member.value.copy());
      break;
    }
    default:
      result.head_ = head_;
      std::memcpy(result.payload_, payload_, sizeof payload_);
      break;
  }
  return result;
}

void JsonValue::refuse(const char* expected) const {
  throw TypeError("expected " + std::string(expected) + ", got " + std::string(kind_name(kind())));
}

bool JsonValue::as_bool() const {
  require(JsonKind::boolean, "bool");
  return load<std::uint64_t>() != 0;
}

std::int64_t JsonValue::as_int() const {
  if (kind() == JsonKind::integer) return load<std::int64_t>();
  if (kind() != JsonKind::uinteger || load<std::int64_t>() < 0) refuse("integer");
  return load<std::int64_t>();
}

std::uint64_t JsonValue::as_uint() const {
  if (kind() == JsonKind::uinteger) return load<std::uint64_t>();
  if (kind() != JsonKind::integer || load<std::int64_t>() < 0) refuse("uinteger");
  return load<std::uint64_t>();
}

double JsonValue::as_number() const {
  switch (kind()) {
    case JsonKind::number:
      return load<double>();
    case JsonKind::integer:
      return static_cast<double>(load<std::int64_t>());
    case JsonKind::uinteger:
      return static_cast<double>(load<std::uint64_t>());
    default:
      refuse("number");
  }
}

JsonArray& JsonValue::as_array() {
  require(JsonKind::array, "array");
  return *load<JsonArray*>();
}

const JsonArray& JsonValue::as_array() const {
  require(JsonKind::array, "array");
  return *load<const JsonArray*>();
}

JsonObject& JsonValue::as_object() {
  require(JsonKind::object, "object");
  return *load<JsonObject*>();
}

const JsonObject& JsonValue::as_object() const {
  require(JsonKind::object, "object");
  return *load<const JsonObject*>();
}

const JsonValue& JsonValue::at(std::size_t index) const {
  const JsonArray& body = as_array();
  if (index >= body.size()) throw OutOfRangeError(index, body.size());
  return body[index];
}

JsonValue& JsonValue::at(std::size_t index) {
  return const_cast<JsonValue&>(static_cast<const JsonValue&>(*this).at(index));
}

JsonValue& JsonValue::push_back(JsonValue&& value) {
  JsonArray& body = as_array();
  JsonValue moved(static_cast<JsonValue&&>(value));  // may lie in this very array
  return body.append() = static_cast<JsonValue&&>(moved);
}

JsonValue* JsonValue::find(std::string_view key) { return as_object().find(key); }
const JsonValue* JsonValue::find(std::string_view key) const { return as_object().find(key); }
JsonValue& JsonValue::set(std::string_view key, JsonValue&& value) {
  return as_object().set(key, static_cast<JsonValue&&>(value));
}

JsonValue* JsonObject::find(std::string_view key) {
  return const_cast<JsonValue*>(static_cast<const JsonObject&>(*this).find(key));
}

const JsonValue* JsonObject::find(std::string_view key) const {
  const JsonMember* const member = find_member(key);
  return member != nullptr ? &member->value : nullptr;
}

const JsonMember* JsonObject::find_member(std::string_view key) const {
  if (size() > kMaxLinear) {
    const std::uint32_t position = index().find(begin(), key);
    return position == KeyIndex::kNone ? nullptr : begin() + position;
  }
  for (const JsonMember& member : *this)
    if (member.key() == key) return &member;
  return nullptr;
}

JsonValue& JsonObject::set(std::string_view key, JsonValue&& value) {
  if (JsonValue* const found = find(key)) return *found = static_cast<JsonValue&&>(value);
  return add(key, static_cast<JsonValue&&>(value));
}

JsonValue& JsonObject::add(std::string_view key, JsonValue&& value) {
  JsonValue name(key, arena_of(members_.resource()));
  JsonValue moved(static_cast<JsonValue&&>(value));  // may lie in this very object
  members_.append();
  JsonMember& member = *(end() - 1);
  member.name = static_cast<JsonValue&&>(name);
  member.value = static_cast<JsonValue&&>(moved);
  extend_index();
  return member.value;
}

/// Takes the newest member into the index; builds it for the first member beyond kMaxLinear.
void JsonObject::extend_index() {
  if (size() <= kMaxLinear) return;
  try {
    if (index_ == nullptr)
      index();
    else
      index_->insert(begin(), static_cast<std::uint32_t>(size() - 1));
  } catch (...) {  // no memory: as if the member had never come
    drop_index();
    members_.truncate(size() - 1);
    throw;
  }
}

/// With room for that many keys.
KeyIndex& JsonObject::make_index(std::size_t room) const {
  std::pmr::memory_resource* const resource = members_.resource();
  void* const memory = resource->allocate(sizeof(KeyIndex), alignof(KeyIndex));
  index_ = ::new (memory) KeyIndex(resource);
  try {
    index_->rebuild(begin(), size(), room);
  } catch (...) {
    drop_index();
    throw;
  }
  return *index_;
}

void JsonObject::drop_index() const noexcept {
  if (index_ == nullptr) return;
  index_->~KeyIndex();
  members_.resource()->deallocate(index_, sizeof(KeyIndex), alignof(KeyIndex));
  index_ = nullptr;
}

template <typename Keep>
void JsonObject::filter(Keep keep) {
  std::size_t kept = 0;
  for (std::size_t position = 0; position < size(); ++position) {
    if (!keep(position)) continue;
    if (kept != position) begin()[kept] = static_cast<JsonMember&&>(begin()[position]);
    ++kept;
  }
  members_.truncate(kept);
}

void JsonObject::settle_small() {
  filter([this](std::size_t position) {
    for (std::size_t later = position + 1; later < size(); ++later)
      if (begin()[later].key() == begin()[position].key()) return false;
    return true;
  });
}

void JsonObject::settle_large() {
  KeyIndex& keys = index_ != nullptr ? *index_ : make_index(size());  // few grow after their parse
  if (keys.size() == size()) return;
  // Dropped members are marked by a null name first: no entry of the index points at them, but
  // moving members while the index is asked would show it keys that have moved away.
  for (std::size_t position = 0; position < size(); ++position) {
    JsonValue& name = begin()[position].name;
    if (keys.find(begin(), name.as_string()) != position) name = JsonValue();
  }
  filter([this](std::size_t position) { return !begin()[position].name.is_null(); });
  keys.rebuild(begin(), size());
}

}  // namespace yajson
