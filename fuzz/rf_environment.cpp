// Any message of an access point on the model of a domain. The first byte chooses how the rest is
// read: even, as the text of a message; odd, byte by byte as choices of members and values, so that
// most inputs get behind the parser. The message describes the radios of one access point and then
// what that access point hears; what the model must keep true is checked after each.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include "server/lib/ApMap.h"

namespace {

using rrm::ApEntry;
using rrm::ApMap;
using rrm::DomainConfig;
using rrm::JsonReader;
using rrm::JsonWriter;
using rrm::MacAddress;
using rrm::Radio;

void require(bool holds) {
  if (!holds) std::abort();
}

/// Turns bytes into a message; when they are used up every choice is the first.
class MessageMaker {
 public:
  explicit MessageMaker(std::string_view bytes) : bytes_(bytes) {}

  std::string message() {
    std::string text = "{\"radios\":[";
    for (std::size_t i = 0, count = next() % 5; i < count; ++i) text += (i ? "," : "") + radio();
    text += "],\"rf-environment\":[";
    for (std::size_t i = 0, count = next() % 5; i < count; ++i) text += (i ? "," : "") + scan();
    return text + "]}";
  }

 private:
  std::uint8_t next() {
    if (bytes_.empty()) return 0;
    const auto byte = static_cast<std::uint8_t>(bytes_.front());
    bytes_.remove_prefix(1);
    return byte;
  }

  template <std::size_t N>
  std::string pick(const char* const (&choices)[N]) {
    return choices[next() % N];
  }

  std::string value() {
    static constexpr const char* kValues[] = {"1",           "0",          "2",
                                              "5",           "6",          "12",
                                              "16",          "20",         "36",
                                              "40",          "42",         "48",
                                              "80",          "160",        "320",
                                              "233",         "-1",         "2147483647",
                                              "-2147483648", "4294967295", "9223372036854775807",
                                              "1.5",         "null",       "true",
                                              "\"\"",        "\"36\"",     "[]",
                                              "{}",          "[null,{},7]"};
    return pick(kValues);
  }

  std::string mac() {
    static constexpr const char* kMacs[] = {"\"00:11:22:33:44:00\"",
                                            "\"00:11:22:33:44:11\"",
                                            "\"02:11:22:33:44:11\"",
                                            "\"00:11:22:33:55:11\"",
                                            "\"02:11:22:33:55:11\"",
                                            "\"00:AA:00:00:00:01\"",
                                            "\"FF:FF:FF:FF:FF:FF\"",
                                            "\"nonsense\"",
                                            "7",
                                            "null"};
    return pick(kMacs);
  }

  std::string members(std::size_t count, std::string (MessageMaker::*member)()) {
    std::string text = "{";
    for (std::size_t i = 0; i < count; ++i) text += (i ? "," : "") + (this->*member)();
    return text + "}";
  }

  std::string radio() { return members(next() % 24, &MessageMaker::radio_member); }
  std::string radio_member() {
    static constexpr const char* kKeys[] = {"id",
                                            "status",
                                            "channel",
                                            "band",
                                            "bandwidth",
                                            "power",
                                            "power-max",
                                            "power-min",
                                            "eirp",
                                            "eirp-min",
                                            "eirp-max",
                                            "mac-offset",
                                            "radio-mac-count",
                                            "locked-for-tpc",
                                            "locked-for-dca",
                                            "locked-for-balancer",
                                            "locked-for-80211v"};
    switch (next() % 8) {
      case 0:
        return "\"vaps\":[" + members(next() % 8, &MessageMaker::vap_member) + "]";
      case 1:
        return "\"assoclist\":[" + members(3, &MessageMaker::heard_member) + "]";
      case 2:
        return "\"available-channels\":\"36,,40x" + std::to_string(next()) + "\"";
      case 3:
        return "\"primary-channel\":\"u" + std::string(next() % 2 ? "u" : "pper") + "\"";
      case 4:
        return R"("antenna-configuration":{"antenna-gain":)" + value() + R"(,"cable-loss":)" +
               value() + "}";
      default:
        return "\"" + pick(kKeys) + "\":" + value();
    }
  }

  std::string vap_member() {
    static constexpr const char* kKeys[] = {"ssid\":\"a", "ssid\":\"b", "fbt-rrb-key\":\"key"};
    static constexpr const char* kFlags[] = {"id", "802dot11k", "802dot11r", "802dot11v"};
    switch (next() % 3) {
      case 0:
        return "\"" + pick(kKeys) + "\"";
      case 1:
        return "\"mac\":" + mac();
      default:
        return "\"" + pick(kFlags) + "\":" + value();
    }
  }

  std::string scan() {
    std::string text = "[";
    for (std::size_t i = 0, count = next() % 6; i < count; ++i)
      text += (i ? "," : "") + members(next() % 6, &MessageMaker::heard_member);
    return text + "]";
  }
  std::string heard_member() {
    static constexpr const char* kKeys[] = {"rssi", "channel", "band", "bandwidth", "tx-power"};
    switch (next() % 4) {
      case 0:
        return "\"bssid\":" + mac();
      case 1:
        return "\"mac\":" + mac() + ",\"ssid\":\"a\"";
      default:
        return "\"" + pick(kKeys) + "\":" + value();
    }
  }

  std::string_view bytes_;
};

void check_radio(const Radio& radio) {
  require(radio.band == 0 || radio.band == 2 || radio.band == 5 || radio.band == 6);
  require(radio.primary_channel % 256 == 0 && radio.primary_channel >= 0 &&
          radio.primary_channel <= 1024);
  for (const auto& [ssid, vap] : radio.vaps.vaps()) {
    require(!ssid.empty() && ssid == vap.ssid);
    require(vap.mac.number() - radio.mac.number() < radio.max_mac_count);
  }
  require(radio.clamp_power(radio.power) >= radio.effective_min());
}

void check_map(const ApMap& map) {
  std::size_t claimed = 0;
  for (const auto& [mac, ap] : map.aps()) {
    for (const Radio& radio : ap->radios.radios) {
      check_radio(radio);
      if (radio.status) claimed += 1 + radio.vaps.size();
      require(!radio.status || map.contains_bssid(radio.mac));
    }
    for (const auto& [bssid, entry] : ap->visible_members) require(map.contains_bssid(bssid));
  }
  require(map.storage().size() <= claimed);
}

/// The status of an access point must be readable and restorable, as backups do it.
void restore_from_status(const DomainConfig& config, const ApEntry& ap) {
  JsonWriter status;
  ap.to_json(status);
  const JsonReader reader(status.c_str(), 0);
  require(reader.has("visible-rogue"));
  ApEntry restored(config, ap.base_mac, rrm::kNoSession, ap.description);
  rrm::ChannelSets sets;
  restored.restore(reader, sets);
  for (const Radio& radio : restored.radios.radios) check_radio(radio);
  require(restored.visible_members.size() == ap.visible_members.size());
  require(restored.visible_rogue.size() == ap.visible_rogue.size());
}

std::shared_ptr<ApEntry> add_ap(ApMap& map, const DomainConfig& config, const char* base_mac) {
  const MacAddress mac = MacAddress::from_text(base_mac);
  auto ap = std::make_shared<ApEntry>(config, mac, rrm::SessionAddress{nullptr, 0, 1},
                                      rrm::ApDescription{"KV-810", "hw", "serial", mac});
  const JsonReader radios(R"({"radios":[{"id":1,"status":1,"channel":36,"band":5,"power":12,
      "power-max":20,"bandwidth":80,"vaps":[{"id":1,"ssid":"a","802dot11k":1}]}]})",
                          0);
  rrm::ChannelSets sets;
  ap->radios.from_json(radios, sets, true, false);
  map.insert(ap);
  map.index_ap(ap);
  return ap;
}

void play(ApMap& map, ApEntry& ap, const JsonReader& message) {
  rrm::ChannelSets sets;
  rrm::RadioList described = ap.radios;
  described.from_json(message, sets, true, false);
  ap.radios.set_validate_power(described);
  ap.radios.same_settings(described);
  ap.radios.same_channel_plan(described);
  ap.radios.from_json(message, sets, true, true);
  map.index_ap(map.find(ap.base_mac));
  map.update_rf_environment(ap, message.child("rf-environment"));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
  if (data[0] % 2 != 0) text = MessageMaker(text).message();
  DomainConfig config;
  config.use_80211v = (data[0] & 2) != 0;
  config.use_all_ap_balance = (data[0] & 4) != 0;

  const JsonReader message(text.c_str(), 0);
  ApMap map;
  const auto ap = add_ap(map, config, "00:11:22:33:44:00");
  const auto other = add_ap(map, config, "00:11:22:33:55:00");
  for (int round = 0; round < 2; ++round) {
    play(map, *ap, message);
    check_map(map);
  }
  restore_from_status(config, *ap);

  JsonWriter out;
  ap->radios.config_to_json(out);
  JsonWriter list = JsonWriter::array(out, "802dot11k");
  map.build_80211k_list(*ap, list, ap->visible_members);
  map.build_80211k_list(*other, list, other->visible_members);
  JsonWriter all = JsonWriter::array(out, "aps");
  map.list_to_json(all, true);
  require(JsonReader(out.c_str()).child("radios").size() <= 3);

  ap->radios.apply_power_step_for_band(36, 0, -60, -70);
  for (Radio& radio : ap->radios.radios) radio.apply_power_increase(-80, -70, -60);
  std::int32_t channels = 0;
  map.set_channel_for_bssid(other->get_radio_mac(1), 44, channels);
  require(channels >= 0 && channels <= 255);
  ApMap copy = map.snapshot();
  ApMap away;
  copy.move_session(1, away);
  check_map(away);
  require(away.size() == 2 && copy.empty() && copy.storage().size() == 0);
  return 0;
}
