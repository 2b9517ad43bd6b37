// Resident memory of a domain per access point: three radios with some SSIDs, 100 heard BSSs, 20
// clients, all 802.11 features on. Every site is a process of its own that takes in what access
// points send, distributes 802.11r links, lets all clients associate within one second, waits until
// their blocks have ended and what they needed was given back, and takes a snapshot as a planning
// round does. "In use" is what the program holds; the rest of the resident memory is what the
// allocator keeps.

#include <malloc.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "bench/AccessPoints.h"
#include "server/lib/Clock.h"
#include "server/lib/FreeMemory.h"
#include "server/lib/RRM.h"
#include "server/lib/RrmWorker.h"
#include "server/lib/TpcDcaSubworker.h"
#include "tests/support/Engine.h"

namespace {

using namespace rrm;
using bench::ap_mac;
using bench::head;
using bench::mac;
using bench::session;

constexpr int kHeard = 100;
constexpr int kClientsPerAp = 20;
constexpr std::int64_t kBlocksOver = 35;  ///< s until the blocks of the associations have ended

struct SiteSize {
  int aps;
  int ssids;
  bool with_6ghz;  ///< then every VAP is linked to all radios of every other access point
};

std::int64_t now_s = 1'000'000;

double cpu_s() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

double resident_kb() {
  std::ifstream statm("/proc/self/statm");
  long total = 0;
  long resident = 0;
  statm >> total >> resident;
  return static_cast<double>(resident * (sysconf(_SC_PAGESIZE) / 1024));
}

double in_use_kb() {
  const struct mallinfo2 info = mallinfo2();
  return static_cast<double>(info.uordblks + info.hblkhd) / 1024.0;
}

/// Takes what is sent and drops it.
class SilentRrm : public RRM {
 public:
  using RRM::RRM;
  void send_text(const char*, const SessionAddress&) override {}
  void send_serialized(std::string&& text, const SessionAddress&) override { bytes += text.size(); }
  bool is_session_alive(const SessionAddress&) const override { return true; }

  std::size_t bytes = 0;
};

class Site {
 public:
  explicit Site(const SiteSize& size) : size_(size), global_({}, "{}"), rrm_(&global_) {
    DomainConfig config;
    config.use_rrm_report = false;
    config.use_optimization_event = false;
    config.use_tpc = false;  // no rounds, whose answers nobody gives
    config.use_dca = false;
    config.use_80211k = true;
    config.use_80211r = true;
    config.use_80211v = true;
    worker_ = std::make_shared<RrmWorker>(&global_, config, &rrm_, "site", 2048, 0);
    base_resident_ = resident_kb();
    base_in_use_ = in_use_kb();
  }

  void run() {
    std::printf("%5d %6d %5s", size_.aps, size_.ssids, size_.with_6ghz ? "yes" : "no");
    for (int n = 0; n < size_.aps; ++n) subscribe(n);
    for (int n = 0; n < size_.aps; ++n) report_heard(n);
    print();
    const double begin = cpu_s();
    worker_->tpc_dca().update_802dot11r();
    const double first = cpu_s();
    worker_->tpc_dca().update_802dot11r();
    const double second = cpu_s();
    print();
    for (int n = 0; n < size_.aps; ++n) associate_clients(n);
    print();
    pass(kBlocksOver + FreeMemory::kInterval_s);
    print();
    const ApMap snapshot = worker_->aps().snapshot();
    print();
    std::printf("  %7zu  %6.2f  %6.2f\n", links(), first - begin, second - first);
  }

 private:
  void pass(std::int64_t seconds) {
    for (std::int64_t second = 0; second < seconds; ++second) {
      ++now_s;
      worker_->on_loop();
      memory_.give_back(now_s);
    }
  }

  void receive(int ap, const char* cmd, const std::string& members) {
    const JsonReader message((head(ap, cmd) + R"("domain":"site",)" + members + "}").c_str(), 8192);
    worker_->process_message(message, session(ap));
  }

  void subscribe(int n) {
    std::vector<test::RadioSpec> radios;
    const int channels[] = {1 + 5 * (n % 3), 36 + 4 * (n % 4), 5 + 16 * (n % 8)};
    const int bands[] = {2, 5, 6};
    for (int id = 0; id < 3; ++id) {
      test::RadioSpec radio{.id = id,
                            .channel = channels[id],
                            .band = bands[id],
                            .locked_balancer = 0,
                            .locked_80211v = 0};
      if (id == 2 && !size_.with_6ghz) radio.channel = 149, radio.band = 5;
      for (int vap = 0; vap < size_.ssids; ++vap) {
        radio.vaps.push_back(
            {.id = vap, .ssid = "network-" + std::to_string(vap), .k = true, .r = true, .v = true});
      }
      radios.push_back(radio);
    }
    receive(n, "subscribe-request",
            R"("factory":{"board":"KV-810-B","hw":"1.0","serial":"SN0123456789","mac":")" +
                ap_mac(n) + R"("},"radios":)" + test::radios_text(radios));
  }

  void associate_clients(int n) {
    for (int client = 0; client < kClientsPerAp; ++client) {
      receive(n, "rrm-client-assoc",
              "\"sta-mac\":\"" + mac("02:aa:00:%02x:%02x:00", n * kClientsPerAp + client) +
                  R"(","ssid":"network-0","radio":1,"rssi":-50)");
    }
  }

  /// Half of what is heard are radios of the site.
  void report_heard(int n) {
    std::string scan = "[[";
    for (int i = 0; i < kHeard; ++i) {
      const int other = (n + 1 + i / 6) % size_.aps;
      const std::string bssid =
          i % 2 == 0 && other != n
              ? mac("00:11:22:%02x:%02x:", other) + std::to_string(i / 2 % 3) + "0"
              : mac("00:aa:00:%02x:%02x:00", n * kHeard + i);
      scan += (i > 0 ? "," : "") + std::string("{\"bssid\":\"") + bssid +
              R"(","channel":36,"band":5,"bandwidth":80,"rssi":-70,"tx-power":20,)"
              R"("primary-channel":"upper"})";
    }
    const auto ap = worker_->aps().find(MacAddress::from_text(ap_mac(n).c_str()));
    worker_->aps().update_rf_environment(*ap, JsonReader((scan + "]]").c_str(), 8192));
  }

  std::size_t links() const {
    std::size_t count = 0;
    for (const auto& [mac, ap] : worker_->aps().aps())
      for (const Radio& radio : ap->radios.radios)
        for (const auto& [ssid, vap] : radio.vaps.vaps()) count += vap.links.size();
    return count / static_cast<std::size_t>(size_.aps);
  }

  void print() const {
    std::printf("  %7.1f (%6.1f)", (resident_kb() - base_resident_) / size_.aps,
                (in_use_kb() - base_in_use_) / size_.aps);
  }

  SiteSize size_;
  double base_resident_ = 0;
  double base_in_use_ = 0;
  GlobalConfig global_;
  SilentRrm rrm_;
  std::shared_ptr<RrmWorker> worker_;
  FreeMemory memory_;
};

}  // namespace

int main() {
  FreeMemory::keep_little();
  set_clock_sources([] { return now_s; }, [] { return now_s * 1'000'000; });
  std::printf(
      "                    KB resident (in use) per access point, after"
      "                                                      802.11r: s of an update\n"
      "  APs  SSIDs 6GHz  its report         802.11r links      a rush of clients  its blocks ended"
      "   a snapshot           links   first    next\n");
  for (const SiteSize& size :
       {SiteSize{50, 2, true}, SiteSize{300, 1, true}, SiteSize{300, 2, true},
        SiteSize{300, 4, false}, SiteSize{300, 4, true}, SiteSize{1000, 4, false}}) {
    std::fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
      Site(size).run();
      std::fflush(stdout);
      _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
  }
  return 0;
}
