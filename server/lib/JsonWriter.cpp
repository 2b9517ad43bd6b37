#include "server/lib/JsonWriter.h"

#undef NDEBUG  // the slot assertion stops release builds too
#include <cassert>

#include <utility>

#include "json/JsonSerializer.h"

namespace rrm {
namespace {

using yajson::JsonValue;

constexpr auto kEnvelopeVersion = "2.4";
constexpr std::int32_t kPrettyIndent = 4;

bool is_given(const char* text) { return text != nullptr && *text != '\0'; }

/// Stops the process in every build, with the words assert() would use.
[[noreturn]] void end_for_missing_slot() {
  __assert_fail("found != nullptr && \"JsonWriter child slot must exist (see nested ctor)\"",
                "server/lib/JsonWriter", 18, "resolve");
}

}  // namespace

JsonWriter::JsonWriter(const char* version) : root_(JsonValue::object()) {
  if (is_given(version)) add("version", version);
}

JsonWriter::JsonWriter(const char* service, const char* cmd, const char* version)
    : JsonWriter(version) {
  if (is_given(service)) {
    add("service", service);
    if (!is_given(version) && std::string_view(service) == "rrm") add("version", kEnvelopeVersion);
  }
  if (is_given(cmd)) add("cmd", cmd);
}

JsonWriter::JsonWriter(JsonWriter& parent, std::string_view key, bool array)
    : array_(array), parent_(&parent), key_(key) {
  JsonValue slot = array ? JsonValue::array() : JsonValue::object();
  parent.put(key, std::move(slot));
  if (parent.array_) index_ = static_cast<std::int32_t>(parent.resolve().as_array().size()) - 1;
}

JsonWriter JsonWriter::object(JsonWriter& parent, std::string_view key) {
  return JsonWriter(parent, key, false);
}

JsonWriter JsonWriter::array(JsonWriter& parent, std::string_view key) {
  return JsonWriter(parent, key, true);
}

JsonWriter::~JsonWriter() = default;

void JsonWriter::put(std::string_view key, JsonValue&& value) {
  if (array_)
    resolve().push_back(std::move(value));
  else
    resolve().set(key, std::move(value));
}

void JsonWriter::add(std::string_view key, std::int64_t number) { put(key, JsonValue(number)); }
void JsonWriter::add(std::string_view key, std::string_view text) { put(key, JsonValue(text)); }
void JsonWriter::add(std::string_view key, const char* text) {
  add(key, std::string_view(text != nullptr ? text : ""));
}
void JsonWriter::add(std::string_view key, const JsonValue& value) { put(key, value.copy()); }

const JsonValue& JsonWriter::resolve() const {
  if (parent_ == nullptr) return root_;
  const JsonValue& parent = std::as_const(*parent_).resolve();
  if (index_ >= 0) return parent.at(static_cast<std::size_t>(index_));
  const JsonValue* const found = parent.is_object() ? parent.find(key_) : nullptr;
  if (found == nullptr) end_for_missing_slot();
  return *found;
}

JsonValue& JsonWriter::resolve() { return const_cast<JsonValue&>(std::as_const(*this).resolve()); }

bool JsonWriter::is_empty() const noexcept { return parent_ == nullptr && root_.is_null(); }

const char* JsonWriter::c_str() const {
  compact_ = str();
  return compact_.c_str();
}

const char* JsonWriter::pretty_str() const {
  pretty_ = yajson::serialize(resolve(), {.indent = kPrettyIndent});
  return pretty_.c_str();
}

std::string JsonWriter::str() const { return yajson::serialize(resolve()); }

}  // namespace rrm
