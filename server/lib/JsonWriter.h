#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "json/JsonValue.h"

namespace rrm {

/// Builds an outgoing document; nested objects and arrays are filled through child writers.
///
/// Purpose:   a child finds its slot again on every access, so members may be added to the parent
///            between two uses of the child. A slot that vanished is a programming error and stops
///            the process, release builds included.
/// Ownership: a root writer owns the tree; a child owns nothing but its key and caches and must not
///            outlive its parent. Values are built in the thread's current arena, or on the heap.
/// Errors:    adding to a value of the wrong kind throws yajson::TypeError.
/// Threading: one thread at a time.
class JsonWriter {
 public:
  /// An empty object, with "version" first when the version is a non-empty text.
  explicit JsonWriter(const char* version = nullptr);
  /// The envelope of every message: {"version", "service", "cmd"} with an explicit version, and
  /// {"service", "version": "2.4", "cmd"} without one when the service is "rrm". Empty parts are
  /// left out.
  JsonWriter(const char* service, const char* cmd, const char* version = nullptr);

  /// Child that stands for a new empty object or array: under `key` of the parent's object
  /// (replacing what was there), or appended when the parent is an array (the key is ignored).
  static JsonWriter object(JsonWriter& parent, std::string_view key = {});
  static JsonWriter array(JsonWriter& parent, std::string_view key = {});

  JsonWriter(const JsonWriter&) = delete;
  JsonWriter& operator=(const JsonWriter&) = delete;
  JsonWriter(JsonWriter&&) = delete;
  JsonWriter& operator=(JsonWriter&&) = delete;
  ~JsonWriter();

  /// Sets a member, or appends when this is an array writer (the key is ignored). Booleans are
  /// written as 0 and 1: there is no bool form. A null text is "". An empty optional adds nothing.
  void add(std::string_view key, std::int64_t number);
  void add(std::string_view key, std::int32_t number) { add(key, std::int64_t{number}); }
  void add(std::string_view key, std::uint32_t number) { add(key, std::int64_t{number}); }
  void add(std::string_view key, std::uint64_t number) {
    add(key, static_cast<std::int64_t>(number));
  }
  void add(std::string_view key, bool flag) { add(key, std::int64_t{flag}); }
  void add(std::string_view key, std::optional<std::int32_t> number) {
    if (number) add(key, std::int64_t{*number});
  }
  void add(std::string_view key, const char* text);
  void add(std::string_view key, std::string_view text);
  void add(std::string_view key, const std::string& text) { add(key, std::string_view(text)); }
  /// A deep copy of a value of any document.
  void add(std::string_view key, const yajson::JsonValue& value);

  /// The value this writer stands for.
  yajson::JsonValue& resolve();
  const yajson::JsonValue& resolve() const;

  /// True when this is a root writer whose root is null.
  bool is_empty() const noexcept;

  /// The resolved value as text, made anew by every call; valid until the next one.
  const char* c_str() const;       ///< compact
  const char* pretty_str() const;  ///< indented by 4
  std::string str() const;         ///< compact, for the caller to keep

 private:
  JsonWriter(JsonWriter& parent, std::string_view key, bool array);
  void put(std::string_view key, yajson::JsonValue&& value);

  yajson::JsonValue root_;
  bool array_ = false;
  mutable std::string compact_;
  mutable std::string pretty_;
  JsonWriter* parent_ = nullptr;
  std::string key_;          ///< where a child sits in the parent's object
  std::int32_t index_ = -1;  ///< where it sits in the parent's array; -1 when under a key
};

}  // namespace rrm
