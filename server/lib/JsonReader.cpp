#include "server/lib/JsonReader.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "json/JsonParser.h"
#include "json/JsonSerializer.h"

namespace rrm {
namespace {

using yajson::JsonKind;
using yajson::JsonValue;

/// The whole text as a decimal long, truncated; 0 when it is none. Only a range error touches
/// errno.
std::int32_t int_of_text(const char* text) {
  const int errno_before = errno;
  errno = 0;
  char* end = nullptr;
  const long number = std::strtol(text, &end, 10);
  if (errno == ERANGE) return 0;
  errno = errno_before;
  return *end == '\0' ? static_cast<std::int32_t>(number) : 0;
}

std::int32_t int_of(const JsonValue* value) {
  if (value == nullptr) return 0;
  switch (value->kind()) {
    case JsonKind::boolean:
      return value->as_bool() ? 1 : 0;
    case JsonKind::integer:
      return static_cast<std::int32_t>(value->as_int());
    case JsonKind::uinteger:
      return static_cast<std::int32_t>(value->as_uint());
    case JsonKind::string:
      return int_of_text(value->as_string().data());
    default:
      return 0;
  }
}

const char* text_of(const JsonValue* value) {
  return value != nullptr && value->is_string() ? value->as_string().data() : "";
}

}  // namespace

JsonReader::JsonReader(const char* text) {
  const yajson::ArenaScope heap(nullptr);
  parse(text);
}

JsonReader::JsonReader(const char* text, std::size_t arena_hint)
    : arena_(std::make_unique<yajson::MonotonicArena>(arena_hint)) {
  const yajson::ArenaScope scope(arena_.get());
  parse(text);
}

JsonReader::JsonReader(FileDescriptor file) {
  const yajson::ArenaScope heap(nullptr);
  std::string text;
  char piece[4096];
  for (;;) {
    const ssize_t count = ::read(file.number, piece, sizeof piece);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    text.append(piece, static_cast<std::size_t>(count));
  }
  parse(text.c_str());
}

JsonReader::JsonReader(const JsonReader&) {
  throw std::logic_error("Copy JsonReader not allowed\n");
}

JsonReader::JsonReader(JsonReader&& other) noexcept { *this = std::move(other); }

JsonReader& JsonReader::operator=(JsonReader&& other) noexcept {
  if (this == &other) return *this;
  const bool views_root = other.view_ == &other.root_;
  if (arena_ != nullptr) root_.abandon();
  root_ = std::move(other.root_);
  arena_ = std::move(other.arena_);
  view_ = views_root ? &root_ : other.view_;
  text_ = std::move(other.text_);
  other.view_ = nullptr;
  return *this;
}

JsonReader::~JsonReader() {
  // The whole tree was parsed into the arena and goes with it, without a walk over it.
  if (arena_ != nullptr) root_.abandon();
}

void JsonReader::parse(const char* text) {
  if (text == nullptr) return;
  yajson::ParseOptions options;
  options.allow_duplicate_keys = true;
  yajson::ParseResult result = yajson::try_parse(text, options);
  if (result.error) return;
  root_ = std::move(result.value);
  view_ = &root_;
}

const JsonValue* JsonReader::member(std::string_view key) const {
  return view_ != nullptr && view_->is_object() ? view_->find(key) : nullptr;
}

const JsonValue* JsonReader::element(int index) const noexcept {
  if (index < 0 || static_cast<std::size_t>(index) >= size()) return nullptr;
  return &view_->elements()[static_cast<std::size_t>(index)];
}

bool JsonReader::is_null() const noexcept { return view_ == nullptr || view_->is_null(); }

std::size_t JsonReader::size() const noexcept {
  return view_ != nullptr && view_->is_array() ? view_->as_array().size() : 0;
}

bool JsonReader::has(std::string_view key) const { return member(key) != nullptr; }
const char* JsonReader::get_str(std::string_view key) const { return text_of(member(key)); }
const char* JsonReader::get_str(int index) const { return text_of(element(index)); }
std::int32_t JsonReader::get_int(std::string_view key) const { return int_of(member(key)); }
std::int32_t JsonReader::get_int(int index) const { return int_of(element(index)); }
JsonReader JsonReader::child(std::string_view key) const { return JsonReader(member(key)); }
JsonReader JsonReader::child(int index) const { return JsonReader(element(index)); }

std::optional<std::int32_t> JsonReader::get_opt_int(std::string_view key) const {
  const JsonValue* const value = member(key);
  if (value == nullptr) return std::nullopt;
  switch (value->kind()) {
    case JsonKind::integer:
    case JsonKind::uinteger:
    case JsonKind::number:
      return int_of(value);
    default:
      return std::nullopt;
  }
}

std::int32_t JsonReader::get_int_or(std::string_view key, std::int32_t fallback) const {
  const JsonValue* const value = member(key);
  return value != nullptr ? int_of(value) : fallback;
}

std::string_view JsonReader::text() const {
  text_ = view_ != nullptr ? yajson::serialize(*view_) : "null";
  return text_;
}

const char* JsonReader::c_str() const { return text().data(); }

}  // namespace rrm
