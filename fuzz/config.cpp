// Any bytes as a configuration file: nothing throws, what was read is written in normal form, and
// reading that again changes nothing more.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "server/lib/Config.h"

namespace {

std::string global_text(const rrm::GlobalConfig& config) {
  rrm::JsonWriter writer;
  config.global_to_json(writer);
  return writer.str();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const rrm::GlobalConfig config("", text.c_str());
  for (const auto& [domain, info] : config.domains()) config.get_time_zone(domain);

  const std::string normal = config.to_file_text();
  const rrm::GlobalConfig again("", normal.c_str());
  if (again.to_file_text() != normal) std::abort();
  if (global_text(again) != global_text(config)) std::abort();

  rrm::GlobalConfig checked;
  rrm::JsonWriter document;
  rrm::JsonWriter errors = rrm::JsonWriter::array(document, "errors");
  bool invalid = false;
  const bool loaded = checked.validate_and_load(rrm::JsonReader(text.c_str()), errors, invalid);
  if (loaded == invalid) std::abort();
  if (invalid && !checked.equals_globally(rrm::GlobalConfig())) std::abort();
  return 0;
}
