#include "tools/fleet/ApMessages.h"

#include <cstdlib>

#include "tools/fleet/ApSteering.h"

namespace rrm::fleet {
namespace {

constexpr int kMacsPerAp = 48;
constexpr int kMacsPerRadio = 16;
constexpr std::array<const char*, 3> kBandKeys{"2", "5", "6"};

std::string joined(const std::vector<int>& numbers) {
  std::string text;
  for (const int number : numbers) {
    if (!text.empty()) text += ',';
    text += std::to_string(number);
  }
  return text;
}

void write_vap(JsonWriter& vaps, const Vap& vap) {
  JsonWriter object = JsonWriter::object(vaps);
  object.add("id", vap.id);
  object.add("ssid", vap.ssid->name);
  object.add("mac", vap.bssid.upper().c_str());
  object.add("802dot11k", vap.ssid->use_80211k);
  object.add("802dot11r", vap.ssid->use_80211r);
  object.add("802dot11v", vap.ssid->use_80211v);
}

void write_antenna(JsonWriter& radio, const Hardware& hardware) {
  if (hardware.antenna_gain_dbi == 0 && hardware.cable_loss_db == 0) return;
  JsonWriter antenna = JsonWriter::object(radio, "antenna-configuration");
  antenna.add("antenna-gain", hardware.antenna_gain_dbi);
  antenna.add("cable-loss", hardware.cable_loss_db);
}

/// How much of a radio a message tells.
enum class Depth { Settings, Everything };

void write_radio(JsonWriter& radios, const AccessPoint& ap, const RadioUnit& radio, Depth depth,
                 const Crowd* crowd) {
  JsonWriter object = JsonWriter::object(radios);
  object.add("id", radio.id);
  object.add("status", 1);
  object.add("channel", radio.channel);
  object.add("band", radio.band);
  object.add("bandwidth", radio.width_mhz);
  object.add("primary-channel", name(radio.primary));
  object.add("power", radio.power_dbm);
  object.add("power-min", radio.power_min_dbm);
  object.add("power-max", radio.power_max_dbm);
  object.add("available-channels", joined(usable_channels(radio.band, radio.width_mhz)));
  object.add("mac-offset", radio.id * kMacsPerRadio);
  object.add("radio-mac-count", kMacsPerRadio);
  object.add("locked-for-tpc", 0);
  object.add("locked-for-dca", 0);
  object.add("locked-for-balancer", 0);
  object.add("locked-for-80211v", 0);
  write_antenna(object, *ap.hardware);
  if (depth == Depth::Settings) return;
  JsonWriter vaps = JsonWriter::array(object, "vaps");
  for (const Vap& vap : radio.vaps) write_vap(vaps, vap);
  if (crowd != nullptr) ApSteering::write_clients(*crowd, {ap.index, radio.id}, object);
}

void write_radios(JsonWriter& message, const AccessPoint& ap, Depth depth,
                  const Crowd* crowd = nullptr) {
  JsonWriter radios = JsonWriter::array(message, "radios");
  for (const RadioUnit& radio : ap.radios) write_radio(radios, ap, radio, depth, crowd);
}

void write_scan(JsonWriter& scans, const std::vector<Heard>& heard) {
  JsonWriter scan = JsonWriter::array(scans);
  for (const Heard& bss : heard) {
    JsonWriter entry = JsonWriter::object(scan);
    entry.add("bssid", bss.bssid.upper().c_str());
    entry.add("channel", bss.channel);
    entry.add("band", bss.band);
    entry.add("bandwidth", bss.width_mhz);
    entry.add("primary-channel", name(bss.primary));
    entry.add("rssi", bss.rssi_dbm);
    entry.add("tx-power", bss.tx_power_dbm);
  }
}

/// Reads numbers separated by blanks into a set of channels.
void read_channels(const char* text, std::bitset<256>& channels) {
  char* rest = nullptr;
  for (long number = std::strtol(text, &rest, 10); rest != text;
       text = rest, number = std::strtol(text, &rest, 10)) {
    if (number >= 0 && number < 256) channels.set(static_cast<std::size_t>(number));
  }
}

/// 802.11k entries: a plain array, or per radio an object with an array per band.
std::size_t count_neighbours(const JsonReader& list) {
  std::size_t count = 0;
  for (int i = 0; i < static_cast<int>(list.size()); ++i) {
    const JsonReader element = list.child(i);
    if (element.has("neighbour-mac")) ++count;
    for (const char* key : {"band2", "band5", "band6"}) count += element.child(key).size();
  }
  return count;
}

}  // namespace

Message::Message(const World& world, const AccessPoint& ap, const char* cmd)
    : JsonWriter("rrm", cmd) {
  add("domain", world.site_of(ap).domain);
  add("ap-mac", ap.mac.upper().c_str());
}

std::string subscribe_request(const World& world, std::uint32_t index, const Crowd* crowd) {
  const AccessPoint& ap = world.ap(index);
  Message message(world, ap, "subscribe-request");
  {
    JsonWriter factory = JsonWriter::object(message, "factory");
    factory.add("board", ap.hardware->board);
    factory.add("hw", "1.0");
    factory.add("serial", ap.serial);
    factory.add("mac", ap.mac.upper().c_str());
  }
  message.add("ap-mac-count", kMacsPerAp);
  message.add("use-wildcard-80211r", 0);
  write_radios(message, ap, Depth::Everything, crowd);
  return message.str();
}

std::string mode_response(const World& world, std::uint32_t ap) {
  Message message(world, world.ap(ap), "rrm-mode-response");
  write_radios(message, world.ap(ap), Depth::Settings);
  return message.str();
}

std::string scan_response(const World& world, std::uint32_t ap, std::uint32_t round,
                          const std::optional<ChannelFilter>& filter) {
  Message message(world, world.ap(ap), "rrm-response");
  write_radios(message, world.ap(ap), Depth::Settings);
  JsonWriter scans = JsonWriter::array(message, "rf-environment");
  for (int scan = 0; scan < world.scenario().scans; ++scan) {
    write_scan(scans, world.scan(ap, round, static_cast<std::uint32_t>(scan), filter));
  }
  return message.str();
}

std::string config_changed(const World& world, std::uint32_t ap, const Crowd* crowd) {
  Message message(world, world.ap(ap), "rrm-config-changed");
  write_radios(message, world.ap(ap), Depth::Everything, crowd);
  return message.str();
}

std::string unsubscribe_request(const World& world, std::uint32_t ap) {
  return Message(world, world.ap(ap), "unsubscribe-request").str();
}

ConfigPlan read_config(const JsonReader& message) {
  ConfigPlan plan;
  const JsonReader config = message.child("config");
  const JsonReader radios = config.child("radios");
  for (int i = 0; i < static_cast<int>(radios.size()); ++i) {
    const JsonReader radio = radios.child(i);
    plan.radios.push_back({radio.get_int("id"), radio.get_int("channel"), radio.get_int("power"),
                           primary_from_name(radio.get_str("primary-channel"))});
  }
  if (config.has("802dot11k")) plan.neighbours = count_neighbours(config.child("802dot11k"));
  return plan;
}

std::optional<ChannelFilter> read_channel_filter(const JsonReader& message) {
  if (!message.has("rrm-scan-channels-list")) return std::nullopt;
  const JsonReader list = message.child("rrm-scan-channels-list");
  ChannelFilter filter;
  for (std::size_t i = 0; i < kBandKeys.size(); ++i) {
    read_channels(list.get_str(kBandKeys[i]), filter[i]);
  }
  return filter;
}

std::size_t count_fbt_links(const JsonReader& message) {
  std::size_t links = 0;
  const JsonReader vaps = message.child("vaps");
  for (int i = 0; i < static_cast<int>(vaps.size()); ++i) {
    links += vaps.child(i).child("remotes").size();
  }
  return links;
}

}  // namespace rrm::fleet
