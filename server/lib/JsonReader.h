#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "json/JsonValue.h"
#include "json/MonotonicArena.h"

namespace rrm {

/// An open file to be read to its end; wraps the number so that it is not taken for a text.
struct FileDescriptor {
  int number;
};

/// Forgiving view of a JSON document: broken text is an empty reader, a missing key
/// reads as 0 or "".
///
/// Purpose:   every message, request and file is read through it; nothing throws on bad input.
/// Ownership: a parsing reader owns its arena and tree; a child reader owns only its cached
///            text and must not outlive the reader it was taken from. Moving a reader keeps its
///            children's values where they are but not a pointer to the reader itself.
/// Threading: one thread at a time.
class JsonReader {
 public:
  /// An empty reader: it views nothing and behaves as an object without members.
  JsonReader() noexcept = default;
  /// Parses the NUL-terminated text (null gives an empty reader) on the heap; every relaxed option
  /// is off except that a repeated key keeps its last value. A broken text leaves the reader empty.
  explicit JsonReader(const char* text);
  /// The same into an arena of its own whose first block has max(arena_hint, 256) bytes (4096 for a
  /// hint of 0). The arena is the thread's current one only while parsing.
  JsonReader(const char* text, std::size_t arena_hint);
  /// Reads the file to its end in pieces of 4096 bytes, then parses it as the first form does.
  explicit JsonReader(FileDescriptor file);

  /// Copying is refused: throws std::logic_error("Copy JsonReader not allowed\n").
  JsonReader(const JsonReader& other);
  JsonReader& operator=(const JsonReader&) = delete;
  JsonReader(JsonReader&& other) noexcept;
  JsonReader& operator=(JsonReader&& other) noexcept;
  ~JsonReader();

  /// True when nothing is viewed or the viewed value is null.
  bool is_null() const noexcept;
  /// Number of elements of the viewed array; 0 for anything else.
  std::size_t size() const noexcept;
  bool has(std::string_view key) const;

  /// The member's bytes, NUL-terminated; "" when missing or no string.
  /// Valid as long as the document.
  const char* get_str(std::string_view key) const;
  /// Integers truncated to their low 32 bits, booleans 0 or 1, strings by strtol (base 10, whole
  /// string; on a range error 0 and errno == ERANGE, else errno is untouched), anything else 0.
  std::int32_t get_int(std::string_view key) const;
  /// Absent unless the member is a number; a float member is a present 0.
  std::optional<std::int32_t> get_opt_int(std::string_view key) const;
  /// `fallback` only when the key is missing: has(key) ? get_int(key) : fallback.
  std::int32_t get_int_or(std::string_view key, std::int32_t fallback) const;
  JsonReader child(std::string_view key) const;

  /// Elements of the viewed array; an index outside it reads as missing.
  const char* get_str(int index) const;
  std::int32_t get_int(int index) const;
  JsonReader child(int index) const;

  /// The viewed value serialized compactly; "null" for an empty reader. Valid until the next call.
  std::string_view text() const;
  const char* c_str() const;

  /// The viewed value, or null; for walks over members that the accessors above do not offer.
  const yajson::JsonValue* value() const noexcept { return view_; }

 private:
  explicit JsonReader(const yajson::JsonValue* view) noexcept : view_(view) {}
  void parse(const char* text);
  const yajson::JsonValue* member(std::string_view key) const;
  const yajson::JsonValue* element(int index) const noexcept;

  // Declared before the tree so that it is destroyed after it.
  std::unique_ptr<yajson::MonotonicArena> arena_;
  yajson::JsonValue root_;
  const yajson::JsonValue* view_ = nullptr;  ///< root_, a value of another reader's tree, or null
  mutable std::string text_;                 ///< cache of text() and c_str()
};

}  // namespace rrm
