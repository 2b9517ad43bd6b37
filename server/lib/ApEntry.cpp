#include "server/lib/ApEntry.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "server/lib/Hooks.h"

namespace rrm {
namespace {

struct ModelCode {
  std::int32_t platform;
  std::string_view code;
};

constexpr ModelCode kModelCodes[] = {
    {1, "KV-810"}, {1, "KV-811"}, {1, "KV-820"}, {1, "KV-821"}, {0, "KV-610"}, {0, "KV-611"},
    {2, "KV-210"}, {2, "KV-220"}, {2, "KV-221"}, {2, "KV-230"}, {2, "KV-231"}, {2, "KV-240"},
    {2, "KV-250"}, {2, "KV-251"}, {2, "KV-260"}, {2, "KV-261"},
};

/// Long-range models have no class of their own.
constexpr std::string_view kLongRange = "-LR";

std::string upper_case(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) {
    return static_cast<char>(c >= 'a' && c <= 'z' ? c - 'a' + 'A' : c);
  });
  return text;
}

}  // namespace

ApDescription ApDescription::from_json(const JsonReader& factory) {
  return {factory.get_str("board"), factory.get_str("hw"), factory.get_str("serial"),
          MacAddress::from_text(factory.get_str("mac"))};
}

std::int32_t classify_platform(const std::string& board, std::int32_t current) {
  const std::string name = upper_case(board);
  if (name.find(kLongRange) != std::string::npos) return current;
  for (const ModelCode& model : kModelCodes)
    if (name.starts_with(model.code)) return model.platform;
  return current;
}

const char* platform_name(std::int32_t platform) noexcept {
  switch (platform) {
    case 0:
      return "MSDK";
    case 1:
      return "FastPath";
    case 2:
      return "Realtek";
    default:
      return "Unknown";
  }
}

ApEntry::ApEntry(const DomainConfig& domain_config, const MacAddress& mac,
                 const SessionAddress& address, ApDescription ap_description)
    : platform(classify_platform(ap_description.board)),
      base_mac(mac),
      config(&domain_config),
      radios(domain_config, mac),
      session(address),
      description(std::move(ap_description)) {}

MacAddress ApEntry::get_radio_mac(std::int32_t radio_id) const {
  if (const Radio* radio = radios.find(radio_id)) return radio->mac;
  RRM_LOG(Warning, "get_radio_mac fallback to base_mac=%s for invalid/disabled radio_id=%d",
          base_mac.upper().c_str(), radio_id);
  return base_mac;
}

void ApEntry::to_json(JsonWriter& object) const {
  object.add("mac", base_mac.upper().c_str());
  object.add("active", active);
  object.add("ap-mac-count", ap_mac_count);
  object.add("use-wildcard-80211r", use_wildcard_80211r);
  JsonWriter list = JsonWriter::object(object, "radios");
  radios.to_json(list);
  JsonWriter members = JsonWriter::array(object, "visible-members");
  neighbours_to_json(visible_members, members);
  JsonWriter rogue = JsonWriter::array(object, "visible-rogue");
  neighbours_to_json(visible_rogue, rogue);
}

void ApEntry::restore(const JsonReader& reader, ChannelSets& channel_sets) {
  ap_mac_count = reader.get_int_or("ap-mac-count", 48);
  use_wildcard_80211r = reader.get_int("use-wildcard-80211r") != 0;
  const JsonReader list = reader.child("radios");
  if (!list.is_null()) radios.restore(list, channel_sets);
  restore_neighbours(visible_members, reader.child("visible-members"));
  restore_neighbours(visible_rogue, reader.child("visible-rogue"));
}

}  // namespace rrm
