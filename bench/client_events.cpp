// Client events at a domain worker: associations, signal changes and probe answers, mixed evenly,
// of clients that wander among neighbouring access points; while the balancers work, and while a
// round is being optimised: then they are paused, and another thread optimises all the time.
// Parsing is not counted. The figures are of one run, by the processor time of the thread: events
// per second and how long single events take.
//
// What grows with the number of access points: an association blocks or unblocks the client on
// every other radio of its SSID, and a question goes to every access point that hears the client's.

#include <time.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bench/AccessPoints.h"
#include "server/lib/Clock.h"
#include "server/lib/RRM.h"
#include "server/lib/RrmWorker.h"
#include "server/lib/TpcDcaOptimiser.h"
#include "tests/support/RandomDomain.h"

namespace {

using namespace rrm;
using bench::ap_mac;
using bench::head;
using bench::mac;
using bench::session;

constexpr int kClientsPerAp = 20;
constexpr int kEvents = 40000;
constexpr int kEventsPerSecond = 2000;  ///< as the worker's clock counts them
constexpr int kNeighbours = 32;
constexpr const char* kSsid = "office";

std::int64_t now_s = 1'000'000;

double cpu_us() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

/// Takes what is sent and drops it.
class SilentRrm : public RRM {
 public:
  using RRM::RRM;
  void send_text(const char*, const SessionAddress&) override { ++sent; }
  void send_serialized(std::string&&, const SessionAddress&) override { ++sent; }
  bool is_session_alive(const SessionAddress&) const override { return true; }

  std::size_t sent = 0;
};

class Site {
 public:
  Site(int aps, bool optimising)
      : count_(aps), optimising_(optimising), global_({}, "{}"), rrm_(&global_) {
    DomainConfig config;
    config.use_rrm_report = false;
    config.use_optimization_event = false;
    config.use_80211k = false;
    config.use_80211r = false;
    worker_ = std::make_shared<RrmWorker>(&global_, config, &rrm_, "site", 2048, 0);
    for (int n = 0; n < count_; ++n) subscribe(n);
    for (int n = 0; n < count_; ++n) hear_neighbours(n);
    worker_->set_load_balancer_lock(optimising_);
  }

  void run() {
    std::vector<double> times;
    const double begin = cpu_us();
    for (int i = 0; i < kEvents; ++i) {
      const int client = pick(count_ * kClientsPerAp);
      const int ap = (client / kClientsPerAp + pick(5)) % count_;
      const JsonReader message(event(ap, client).c_str(), 8192);
      const double start = cpu_us();
      worker_->process_message(message, session(ap));
      times.push_back(cpu_us() - start);
      if (i % kEventsPerSecond == kEventsPerSecond - 1) {
        ++now_s;
        worker_->on_loop();
      }
    }
    report(times, cpu_us() - begin);
  }

 private:
  int pick(int below) { return static_cast<int>(random_() % static_cast<unsigned>(below)); }

  void subscribe(int n) {
    std::string radios;
    for (int id = 0; id < 3; ++id) {
      if (id > 0) radios += ',';
      radios += "{\"id\":" + std::to_string(id) +
                R"(,"status":1,"channel":36,"band":5,"power":15,"bandwidth":20,)"
                R"("available-channels":"36,40","locked-for-balancer":0,"vaps":[{"id":0,"ssid":")" +
                kSsid + "\"}]}";
    }
    const JsonReader message(
        (head(n, "subscribe-request") +
         R"("factory":{"board":"b","hw":"h","serial":"s","mac":"m"},"radios":[)" + radios + "]}")
            .c_str());
    worker_->process_message(message, session(n));
  }

  void hear_neighbours(int n) {
    const auto ap = worker_->aps().find(MacAddress::from_text(ap_mac(n).c_str()));
    for (int step = 1; step <= kNeighbours / 2; ++step) {
      for (const int other : {n + step, n - step + count_}) {
        const auto neighbour =
            worker_->aps().find(MacAddress::from_text(ap_mac(other % count_).c_str()));
        for (int id = 0; id < 3; ++id) {
          ap->visible_members[neighbour->get_radio_mac(id)] = {-60, 36, 5, 20, 15};
        }
      }
    }
  }

  std::string event(int ap, int client) {
    const std::string rssi = std::to_string(-45 - pick(40));
    const std::string of_client = "\"sta-mac\":\"" + mac("02:aa:00:00:%02x:%02x", client) +
                                  "\",\"ssid\":\"" + kSsid + "\",\"radio\":1,\"rssi\":" + rssi;
    switch (pick(3)) {
      case 0:
        return head(ap, "rrm-client-assoc") + of_client + ",\"need-ack\":1}";
      case 1:
        return head(ap, "rrm-assoc-state-changed") + of_client + ",\"state\":\"stable\"}";
      default:
        return head(ap, "rrm-probe-response") +
               "\"radios\":[{\"id\":1,\"probe-list\":[{\"mac\":\"" +
               mac("02:aa:00:00:%02x:%02x", client) + "\",\"ssid\":\"" + kSsid +
               "\",\"rssi\":" + rssi + "}]}]}";
    }
  }

  void report(std::vector<double>& times, double total_us) const {
    double handled_us = 0;
    for (const double time : times) handled_us += time;
    std::sort(times.begin(), times.end());
    std::printf("%5d  %-10s  %9.0f  %9.0f  %8.1f  %8.1f  %8.1f  %9zu\n", count_,
                optimising_ ? "optimising" : "balancing", kEvents / handled_us * 1e6,
                kEvents / total_us * 1e6, times[times.size() / 2], times[times.size() * 99 / 100],
                times.back(), rrm_.sent);
  }

  const int count_;
  const bool optimising_;
  std::mt19937 random_{1};
  GlobalConfig global_;
  SilentRrm rrm_;
  std::shared_ptr<RrmWorker> worker_;
};

/// Optimises a domain of so many access points until it goes.
class Optimiser {
 public:
  explicit Optimiser(int aps)
      : domain_(test::campus(static_cast<std::size_t>(aps), kNeighbours, 1)), thread_([this] {
          while (!stop_) optimise_once();
        }) {}
  ~Optimiser() {
    stop_ = true;
    thread_.join();
  }
  Optimiser(const Optimiser&) = delete;
  Optimiser& operator=(const Optimiser&) = delete;

 private:
  void optimise_once() {
    ApMap snapshot = domain_->aps.snapshot();
    optimise(snapshot, domain_->config, {true, true, false}, 0, stop_);
  }

  std::unique_ptr<test::MadeDomain> domain_;
  std::atomic<bool> stop_ = false;
  std::thread thread_;
};

}  // namespace

int main() {
  set_clock_sources([] { return now_s; }, [] { return now_s * 1'000'000; });
  std::printf(
      "  APs  while       handled/s  all in/s    p50 us    p99 us    max us   messages sent\n");
  for (const int aps : {64, 128, 300, 600}) Site(aps, false).run();
  for (const int aps : {64, 300, 600}) {
    const Optimiser optimiser(aps);
    Site(aps, true).run();
  }
  return 0;
}
