#include "bench/Documents.h"

#include <cstdarg>
#include <cstdio>
#include <random>

#include "server/lib/JsonWriter.h"

namespace rrm::bench {
namespace {

std::mt19937 random_bits(2024);

int pick(int least, int most) {
  return std::uniform_int_distribution<int>(least, most)(random_bits);
}

std::string mac() {
  char text[18];
  std::snprintf(text, sizeof text, "%02X:%02X:%02X:%02X:%02X:%02X", 0x24, 0x1f, 0xa0, pick(0, 255),
                pick(0, 255), pick(0, 255));
  return text;
}

constexpr int kChannels[] = {1, 36, 5};
constexpr int kBands[] = {2, 5, 6};
constexpr const char* kAvailable[] = {"1,6,11", "36,40,44,48,52,56,60,64,100,104,108,112",
                                      "5,21,37,53"};
constexpr const char* kPositions[] = {"none", "ll", "upper"};
constexpr const char* kSsids[] = {"guest", "office", "warehouse-iot", "a network with a long name"};

void add_radio(JsonWriter& radios, int id, int vap_count) {
  auto radio = JsonWriter::object(radios);
  radio.add("id", id);
  radio.add("status", 1);
  radio.add("channel", kChannels[id]);
  radio.add("band", kBands[id]);
  radio.add("power", pick(8, 20));
  radio.add("power-max", 20);
  radio.add("power-min", 8);
  radio.add("bandwidth", 20 << id);
  radio.add("primary-channel", kPositions[id]);
  radio.add("available-channels", kAvailable[id]);
  radio.add("locked-for-tpc", 0);
  radio.add("locked-for-dca", 0);
  radio.add("locked-for-balancer", 1);
  radio.add("mac-offset", 16 * id);
  radio.add("radio-mac-count", 16);
  if (vap_count == 0) return;
  auto vaps = JsonWriter::array(radio, "vaps");
  for (int i = 0; i < vap_count; ++i) {
    auto vap = JsonWriter::object(vaps);
    vap.add("id", i);
    vap.add("ssid", kSsids[i]);
    vap.add("mac", mac());
    vap.add("mobility-domain", "a1b2");
    vap.add("use_802dot11k", 1);
    vap.add("use_802dot11r", i % 2);
    vap.add("use_802dot11v", 0);
  }
}

void add_heard(JsonWriter& scan) {
  const int band = pick(0, 2);
  auto heard = JsonWriter::object(scan);
  heard.add("bssid", mac());
  heard.add("channel", kChannels[band] + 4 * pick(0, 3));
  heard.add("band", kBands[band]);
  heard.add("primary-channel", kPositions[band]);
  heard.add("bandwidth", 20 << band);
  heard.add("rssi", -pick(40, 95));
  heard.add("tx-power", pick(8, 20));
}

std::string subscribe_request() {
  JsonWriter message("rrm", "subscribe-request", "2.4");
  message.add("domain", "site-headquarters");
  message.add("ap-mac", mac());
  message.add("ap-mac-count", 48);
  message.add("board", "KV-221-B");
  message.add("serial", "KV22104711004");
  message.add("hw", "1v2");
  auto radios = JsonWriter::array(message, "radios");
  for (int id = 0; id < 3; ++id) add_radio(radios, id, 2);
  return message.str();
}

std::string rrm_response(int heard_count) {
  JsonWriter message("rrm", "rrm-response", "2.4");
  message.add("domain", "site-headquarters");
  message.add("ap-mac", mac());
  auto radios = JsonWriter::array(message, "radios");
  for (int id = 0; id < 3; ++id) add_radio(radios, id, 0);
  auto environment = JsonWriter::array(message, "rf-environment");
  auto scan = JsonWriter::array(environment);
  for (int i = 0; i < heard_count; ++i) add_heard(scan);
  return message.str();
}

std::string configuration() {
  constexpr const char* kFlags[] = {"use_tavro_rrm_scan",
                                    "use_dca",
                                    "use_tpc",
                                    "use_hd_mode",
                                    "use_all_ap_balance",
                                    "use_balance",
                                    "use_optimization_event",
                                    "use_rrm_report",
                                    "use_80211k",
                                    "use_80211r",
                                    "use_80211v",
                                    "fbt_over_ds"};
  constexpr const char* kNumbers[] = {
      "dca_threshold",         "ap_rssi_threshold_2g", "ap_rssi_threshold_5g",
      "ap_rssi_threshold_6g",  "hysteresis_2g",        "hysteresis_5g",
      "hysteresis_6g",         "away_timeout",         "blacklist_thr_low",
      "blacklist_thr_high",    "blacklist_timeout",    "load_balance_sta_low",
      "load_balance_sta_high", "roam_attempt_timeout", "sta_load_balance_period",
      "client_rssi_renew",     "client_max_age",       "report_days_to_live",
      "fbt_reassoc_deadline"};
  JsonWriter file("2.1");
  auto patterns = JsonWriter::array(file, "patterns");
  for (int i = 0; i < 50; ++i) {
    auto pattern = JsonWriter::object(patterns);
    pattern.add("pattern", "pattern" + std::to_string(i));
    for (const char* flag : kFlags) pattern.add(flag, pick(0, 1));
    for (const char* number : kNumbers) pattern.add(number, pick(-80, 1000));
    pattern.add("optimization_time", "03:30");
  }
  return file.pretty_str();
}

std::string domain_status(int ap_count) {
  JsonWriter status;
  auto details = JsonWriter::object(status, "details");
  details.add("name", "site-headquarters");
  details.add("ap-count", ap_count);
  auto aps = JsonWriter::array(details, "aps");
  for (int i = 0; i < ap_count; ++i) {
    auto ap = JsonWriter::object(aps);
    ap.add("board", "KV-221-B");
    ap.add("mac", mac());
    ap.add("serial", "KV22104711004");
    ap.add("hw", "1v2");
    auto radios = JsonWriter::array(ap, "radios");
    for (int id = 0; id < 3; ++id) add_radio(radios, id, 2);
  }
  return status.str();
}

}  // namespace

std::vector<Document> sample_documents() {
  return {{"subscribe-request", subscribe_request(), true},
          {"rrm-response 20K", rrm_response(150), true},
          {"rrm-response 150K", rrm_response(1180), true},
          {"configuration", configuration(), false},
          {"domain status", domain_status(1020), false}};
}

}  // namespace rrm::bench
