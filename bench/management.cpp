// Management while access points talk: status requests over HTTP keep-alive at a fixed rate, and
// the details of a large domain each second.
//
// The controller's threads share one processor, the clients (management and access points) have the
// others. Latencies of requests count from the moment they were due, so a slow answer also charges
// those that it holds up. Latencies of access points count from the queue to the answer.

#include <easylogging++.h>
#include <sched.h>
#include <sys/resource.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench/AccessPoints.h"
#include "server/ApiWeb.h"
#include "server/VrrpWorker.h"
#include "server/lib/RRM.h"
#include "server/lib/RrmWorker.h"
#include "tests/support/Engine.h"
#include "tests/support/HttpClient.h"

namespace {

using namespace rrm;
using bench::head;
using bench::session;
using Clock = std::chrono::steady_clock;
using Microseconds = std::chrono::duration<double, std::micro>;

constexpr int kAps = 1000;
constexpr int kRequestsPerSecond = 2000;
constexpr int kMessagesPerSecond = 500;
constexpr int kConnections = 8;  ///< at the high rate; at one a second they would idle out
constexpr int kMostHeld_us = 50'000;
constexpr std::chrono::seconds kDuration(10);

void run_on(bool controller) {
  const int count = std::max(1, static_cast<int>(std::thread::hardware_concurrency()));
  cpu_set_t processors;
  CPU_ZERO(&processors);
  for (int i = 0; i < count; ++i)
    if (count == 1 || (i == 0) == controller) CPU_SET(i, &processors);
  sched_setaffinity(0, sizeof processors, &processors);
}

/// When each access point's message was queued, until it is answered; microseconds.
class Answers {
 public:
  void sent(std::uint32_t session) { at_[session] = now(); }
  void answered(std::uint32_t session) {
    if (session >= at_.size()) return;
    const std::int64_t begin = at_[session].exchange(0);
    if (begin == 0) return;
    const std::size_t place = count_++;
    if (place < times_.size()) times_[place] = static_cast<double>(now() - begin);
  }
  std::vector<double> take() {
    std::vector<double> taken(times_.begin(), times_.begin() + static_cast<std::ptrdiff_t>(std::min(
                                                                   count_.load(), times_.size())));
    count_ = 0;
    return taken;
  }

 private:
  static std::int64_t now() {
    return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now().time_since_epoch())
        .count();
  }
  std::array<std::atomic<std::int64_t>, kAps + 1> at_{};
  std::array<double, 1 << 20> times_{};
  std::atomic<std::size_t> count_{0};
};

Answers answers;

class AnsweringRrm : public RRM {
 public:
  using RRM::RRM;
  void send_text(const char* text, const SessionAddress& address) override {
    send_serialized(text, address);
  }
  void send_serialized(std::string&& text, const SessionAddress& address) override {
    if (text.find("subscribe-response") != std::string::npos) answers.answered(address.id);
  }
  bool is_session_alive(const SessionAddress&) const override { return true; }
};

std::string subscription(int n) {
  std::vector<test::RadioSpec> radios;
  for (int id = 0; id < 3; ++id)
    radios.push_back({.id = id, .vaps = {{.id = 0, .ssid = "office"}, {.id = 1, .ssid = "guest"}}});
  return head(n, "subscribe-request") +
         R"("factory":{"board":"b","hw":"h","serial":"s","mac":"m"},"radios":)" +
         test::radios_text(radios) + "}";
}

void print(const char* what, std::vector<double> times_us, const std::string& more) {
  std::sort(times_us.begin(), times_us.end());
  if (times_us.empty()) times_us.push_back(0);
  std::printf("%-38s %8zu  %9.0f  %9.0f  %9.0f  %s\n", what, times_us.size(),
              times_us[times_us.size() / 2], times_us[times_us.size() * 99 / 100], times_us.back(),
              more.c_str());
}

double process_cpu_s() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

double thread_cpu_s() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

/// A controller whose access points have sessions without sockets.
class Controller {
 public:
  explicit Controller(int domains) : domains_(domains), config_("", settings(domains).c_str()) {
    run_on(true);
    for (int i = 0; i < domains; ++i) {
      const auto worker = rrm_.make_rrm_worker(name(i), 1);
      for (int n = i; n < kAps; n += domains)
        worker->run_locked(
            [&] { worker->process_message(JsonReader(subscription(n).c_str()), session(n)); });
      rrm_.workers().insert(name(i), worker);
      worker->start();
    }
    web_ = std::make_unique<ApiWeb>(&rrm_, &vrrp_);
    thread_ = std::thread([this] { web_->run(); });
    run_on(false);
  }
  ~Controller() {
    stopping_ = true;
    if (messages_.joinable()) messages_.join();
    web_->stop();
    thread_.join();
    rrm_.stop();
  }

  int port() const { return web_->port(); }
  static std::string name(int i) { return "site-" + std::to_string(i); }

  void let_access_points_talk() {
    messages_ = std::thread([this] {
      auto due = Clock::now();
      for (int i = 0; !stopping_; ++i) {
        due += std::chrono::microseconds(1'000'000 / kMessagesPerSecond);
        std::this_thread::sleep_until(due);
        const int n = i * 37 % kAps;
        answers.sent(session(n).id);
        rrm_.find_worker(name(n % domains_))
            ->enqueue_message(JsonReader(subscription(n).c_str(), 8192), session(n));
      }
    });
  }

  /// Processor time of the details of a domain, under its processing lock.
  double details_us(int domain) {
    const auto worker = rrm_.find_worker(name(domain));
    return worker->run_locked([&] {
      const double begin = thread_cpu_s();
      JsonWriter reply;
      worker->get_status(reply);
      return (thread_cpu_s() - begin) * 1e6;
    });
  }

 private:
  static std::string settings(int domains) {
    std::string entries;
    for (int i = 0; i < domains; ++i)
      entries +=
          std::string(i > 0 ? "," : "") + R"({"domain":")" + name(i) + R"(","pattern":"common"})";
    return R"({"global":{"api_port":0},"common":{"use_dca":0,"use_tpc":0,"use_balance":0},)"
           R"("domains":[)" +
           entries + "]}";
  }

  const int domains_;
  GlobalConfig config_;
  AnsweringRrm rrm_{&config_};
  VrrpWorker vrrp_{&rrm_, &config_};
  std::unique_ptr<ApiWeb> web_;
  std::thread thread_;
  std::thread messages_;
  std::atomic<bool> stopping_{false};
};

/// Requests at a rate, over connections in turn.
std::vector<double> ask_steadily(int port, const std::string& body, double per_second,
                                 int connections) {
  std::vector<std::unique_ptr<test::TcpClient>> clients;
  for (int i = 0; i < connections; ++i) clients.push_back(std::make_unique<test::TcpClient>(port));
  const std::string request = test::post_text(body);
  std::vector<double> times;
  const auto begin = Clock::now();
  for (int i = 0;; ++i) {
    const auto due = begin + std::chrono::duration_cast<Clock::duration>(
                                 std::chrono::duration<double>(i / per_second));
    if (due - begin >= kDuration) return times;
    std::this_thread::sleep_until(due);
    test::TcpClient& client = *clients[static_cast<std::size_t>(i) % clients.size()];
    client.send(request);
    if (test::read_reply(client).status != 200) std::printf("a request failed\n");
    times.push_back(Microseconds(Clock::now() - due).count());
  }
}

void measure_requests() {
  Controller controller(20);
  controller.let_access_points_talk();
  const double cpu = process_cpu_s() - thread_cpu_s();
  const auto times =
      ask_steadily(controller.port(), R"({"rrm":{}})", kRequestsPerSecond, kConnections);
  const double used = process_cpu_s() - thread_cpu_s() - cpu;
  char load[64];
  std::snprintf(load, sizeof load, "%.0f %% of a processor, access points' clients included",
                used * 100 / static_cast<double>(kDuration.count()));
  print("{\"rrm\":{}} at 2,000/s, 20 domains", times, load);
  print("  messages of access points", answers.take(), "");
}

void measure_details() {
  Controller controller(1);
  controller.let_access_points_talk();
  std::this_thread::sleep_for(kDuration);
  print("messages without a status", answers.take(), "");
  std::vector<double> under_lock;
  for (int i = 0; i < 20; ++i) under_lock.push_back(controller.details_us(0));
  print("details of 1,000 access points, in lock", under_lock,
        "processor time; at most " + std::to_string(kMostHeld_us) + " wanted");
  answers.take();
  const auto times = ask_steadily(controller.port(), R"({"rrm":{"domain":"site-0"}})", 1, 1);
  print("the same over HTTP, once a second", times, "");
  const std::vector<double> messages = answers.take();
  const auto held = std::count_if(messages.begin(), messages.end(),
                                  [](double time_us) { return time_us > kMostHeld_us; });
  print("  messages of access points", messages,
        std::to_string(held) + " waited longer than " + std::to_string(kMostHeld_us));
}

}  // namespace

int main() {
  el::Configurations silent;
  silent.setToDefault();
  silent.set(el::Level::Global, el::ConfigurationType::Enabled, "false");
  el::Loggers::reconfigureLogger("default", silent);
  // Whatever else the machine does would show in the latencies.
  const bool first = ::setpriority(PRIO_PROCESS, 0, -20) == 0;
  std::printf("1,000 access points, 500 messages/s%s\n%-38s %8s  %9s  %9s  %9s\n",
              first ? "" : "; run it as root to be measured before other programs", "", "count",
              "p50 us", "p99 us", "max us");
  measure_requests();
  measure_details();
  return 0;
}
