// Any history of a domain. The bytes are read as choices: access points subscribe, answer, change,
// report clients, leave and return, on right and wrong sessions, with sensible and absurd values,
// while seconds pass. What must always hold is checked after each event.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "fuzz/CheckingRrm.h"
#include "server/lib/Clock.h"
#include "server/lib/Envelope.h"
#include "server/lib/RrmWorker.h"
#include "server/lib/TpcDcaSubworker.h"

namespace {

using namespace rrm;
using fuzz::CheckingRrm;
using fuzz::require;

std::int64_t now_s = 1'000'000;

class History {
 public:
  explicit History(std::string_view bytes)
      : bytes_(bytes),
        global_({}, "{}"),
        rrm_(&global_),
        worker_(std::make_shared<RrmWorker>(&global_, settings(), &rrm_, "site", 16, 0)) {}

  void run() {
    require(worker_->connect());
    for (int events = 0; events < 200 && !bytes_.empty(); ++events) {
      event();
      check();
    }
    worker_->disconnect();
  }

 private:
  std::uint8_t next() {
    if (bytes_.empty()) return 0;
    const auto byte = static_cast<std::uint8_t>(bytes_.front());
    bytes_.remove_prefix(1);
    return byte;
  }

  template <std::size_t N>
  const char* pick(const char* const (&choices)[N]) {
    return choices[next() % N];
  }

  DomainConfig settings() {
    DomainConfig config;
    const std::uint8_t first = next();
    const std::uint8_t second = next();
    config.use_rrm_report = false;
    config.use_dca = (first & 1) == 0;
    config.use_tpc = (first & 2) == 0;
    config.use_balance = (first & 4) == 0;
    config.use_80211k = (first & 8) == 0;
    config.use_80211r = (first & 16) == 0;
    config.use_80211v = (first & 32) == 0;
    config.use_all_ap_balance = (first & 64) != 0;
    config.use_optimization_event = (first & 128) == 0;
    config.use_optimization_time = (second & 1) != 0;
    config.use_tavro_rrm_scan = (second & 2) == 0;
    config.planning_delay = 1 + (second >> 2 & 3);
    config.scan_wait = 1 + (second >> 4 & 1);
    config.away_timeout = 10 + 10 * (second >> 5);
    return config;
  }

  std::string value() {
    return pick({"0",
                 "1",
                 "2",
                 "3",
                 "36",
                 "40",
                 "-50",
                 "-80",
                 "-1",
                 "99999999999",
                 "null",
                 "[]",
                 "{}",
                 "1.5",
                 "\"\"",
                 "\"unstable\"",
                 "\"36,40,44\"",
                 "\"1,6,11\"",
                 "\"02:aa:00:00:00:01\"",
                 "\"00:11:22:00:01:00\"",
                 "[{}]",
                 "[[{}],null]"});
  }

  std::string mac() { return std::string("00:11:22:00:0") + char('0' + next() % 4) + ":00"; }
  std::string client() { return std::string("02:aa:00:00:00:0") + char('0' + next() % 8); }

  std::string radio(int id) {
    std::string text =
        "{\"id\":" + std::to_string(id) +
        ",\"status\":1,\"channel\":" + pick({"36", "40", "0", "1", "37"}) +
        ",\"band\":" + pick({"5", "2", "6"}) +
        ",\"power\":15,\"power-max\":20,\"bandwidth\":" + pick({"20", "80"}) +
        ",\"available-channels\":\"36,40,44\",\"locked-for-balancer\":" + pick({"0", "1"}) +
        ",\"locked-for-80211v\":" + pick({"0", "1"}) +
        ",\"vaps\":[{\"id\":0,\"ssid\":\"office\",\"802dot11k\":1,\"802dot11r\":1,"
        "\"802dot11v\":1}]";
    if (next() % 4 == 0) {
      text += std::string(",\"") +
              pick({"status", "channel", "band", "mac-offset", "radio-mac-count", "vaps",
                    "assoclist", "available-channels", "bandwidth", "eirp-min"}) +
              "\":" + value();
    }
    return text + "}";
  }

  std::string radios() {
    std::string text = "\"radios\":[";
    for (int id = 0, count = next() % 4; id < count; ++id) text += (id ? "," : "") + radio(id);
    return text + "]";
  }

  std::string scans() {
    std::string text = "\"rf-environment\":[[";
    for (int i = 0, count = next() % 4; i < count; ++i) {
      text += std::string(i ? "," : "") + "{\"bssid\":\"" + mac() +
              "\",\"rssi\":" + pick({"-50", "-80", "-30"}) +
              ",\"channel\":" + pick({"36", "40", "1"}) + "}";
    }
    return text + "]]";
  }

  void message(const std::string& cmd, const std::string& members) {
    std::string text = "{\"service\":\"rrm\",\"cmd\":\"" + cmd +
                       "\",\"version\":\"2.4\",\"ap-mac\":\"" + mac() + "\"," + members;
    if (next() % 8 == 0) {
      text += std::string(",\"") + pick({"radio", "rssi", "ssid", "sta-mac", "radios", "state"}) +
              "\":" + value();
    }
    receive(text + "}");
  }

  void receive(const std::string& text) {
    const JsonReader document(text.c_str());
    worker_->process_message(document, SessionAddress{nullptr, 0, 1U + next() % 4});
  }

  void event() {
    switch (next() % 12) {
      case 0:
      case 1:
        return message("subscribe-request",
                       R"("factory":{"board":"b","hw":"h","serial":"s","mac":"m"},)" + radios());
      case 2:
        return message("rrm-config-changed", radios());
      case 3:
        return message("rrm-mode-response", radios());
      case 4:
      case 5:
        return message("rrm-response", radios() + "," + scans());
      case 6:
        return message(pick({"rrm-client-assoc", "rrm-client-disassoc", "rrm-sta-roam",
                             "rrm-assoc-state-changed"}),
                       "\"radio\":" + std::string(pick({"0", "1", "2", "3"})) +
                           ",\"rssi\":" + pick({"-50", "-80", "-70", "0"}) + ",\"sta-mac\":\"" +
                           client() + "\",\"ssid\":\"office\",\"need-ack\":1,\"no-balance\":" +
                           pick({"0", "0", "0", "1"}) + ",\"target-mac\":\"" + mac() + "\"");
      case 7:
        return message("rrm-probe-response",
                       "\"radios\":[{\"id\":0,\"probe-list\":[{\"mac\":\"" + client() +
                           "\",\"ssid\":\"office\",\"rssi\":" + pick({"-50", "-80"}) + "}]}]");
      case 8:
        return message(pick({"unsubscribe-request", "rrm-disassoc-all-clients"}), "\"x\":1");
      case 9:
        return receive(next() % 4 == 0 ? kStopLoadBalancerDocument : kDropSessionDocument);
      case 10:
        worker_->force_optimization();
        return;
      default:
        return pass(1 + next() % 30);
    }
  }

  void pass(int seconds) {
    for (int second = 0; second < seconds; ++second) {
      ++now_s;
      worker_->on_loop();
    }
  }

  void check() {
    const ApMap* maps[] = {&worker_->aps(), &worker_->unanswered_aps(), &worker_->aps_to_delete()};
    for (const ApMap* map : maps) {
      for (const auto& [mac, ap] : map->aps()) {
        require(ap->base_mac == mac);
        int homes = 0;
        for (const ApMap* other : maps) homes += other->find(mac) != nullptr ? 1 : 0;
        require(homes == 1);
        if (map != &worker_->aps_to_delete()) require(ap->session.id != 0);
      }
    }
    const int state = static_cast<int>(worker_->tpc_dca().state());
    require(state >= 0 && state <= 5);
    require(worker_->load_balancer_lock() == (state == 2 || state == 3 || state == 5));
  }

  std::string_view bytes_;
  GlobalConfig global_;
  CheckingRrm rrm_;
  std::shared_ptr<RrmWorker> worker_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  set_clock_sources([] { return now_s; }, [] { return now_s * 1'000'000; });
  History({reinterpret_cast<const char*>(data), size}).run();
  return 0;
}
