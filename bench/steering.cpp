// How a domain worker steers the clients of a simulated fleet: 300 access points, 6,000 clients,
// five minutes from the arrival of the first, beside the same clients whom nobody steers; then the
// same with access points that die and floors that join anew. One process and no sockets; time is
// simulated, so the figures are those of any machine. Ends with status 1 when a figure misses its
// mark. usage: bench_steering [settings of the domain, e.g. '"load_balance_sta_low": 5']

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "server/lib/Clock.h"
#include "server/lib/RRM.h"
#include "server/lib/RrmWorker.h"
#include "server/lib/TpcDcaSubworker.h"
#include "tools/fleet/Report.h"

namespace {

using namespace rrm;
using namespace rrm::fleet;

constexpr Millis kStep = 20;          ///< ms of simulated time between two looks
constexpr std::size_t kFlood = 1024;  ///< messages of one second that pause the balancers
constexpr std::int64_t kFloodPause_s = 29;
constexpr std::int64_t kStart_s = 1'000'000;
constexpr Millis kDuration = 345'000;  ///< five minutes after the first plan
constexpr int kBlacklistTimeout_s = 30;
constexpr const char* kSettings =
    R"("use_80211v": 1, "load_balance_sta_low": 10, "load_balance_sta_high": 12)";

Millis now_ms = 0;

std::int64_t now_s() { return kStart_s + now_ms / 1000; }

/// Sends into a queue per access point instead of a socket.
class QueueingRrm : public RRM {
 public:
  using RRM::RRM;
  void send_text(const char* text, const SessionAddress& address) override {
    queue.emplace_back(address.id - 1, text);
  }
  void send_serialized(std::string&& text, const SessionAddress& address) override {
    queue.emplace_back(address.id - 1, std::move(text));
  }
  bool is_session_alive(const SessionAddress&) const override { return true; }
  void drop_session_at_websock_worker(const SessionAddress&, bool) override {}

  std::deque<std::pair<std::uint32_t, std::string>> queue;
};

/// The domain worker and the way to it.
class Controller : public Connections {
 public:
  explicit Controller(const std::string& settings)
      : global_({}, ("{\"common\":{" + settings + "}}").c_str()), rrm_(&global_) {
    DomainConfig config = global_.common;
    config.use_rrm_report = false;
    worker_ = std::make_shared<RrmWorker>(&global_, config, &rrm_, "site-1", 65536, 0);
    worker_->connect();
  }

  void open(std::uint32_t ap) override { opening_.push_back(ap); }
  void send(std::uint32_t ap, std::string text) override {
    watch_for_floods();
    receive(text, ap);
  }
  void close(std::uint32_t ap) override { closing_.push_back(ap); }

  /// Gives the fleet what was sent to it since the last call.
  void deliver(FleetRun& run) {
    for (const std::uint32_t ap : std::exchange(opening_, {})) run.on_open(now_ms, ap);
    for (const std::uint32_t ap : std::exchange(closing_, {})) {
      receive(R"({"service":"rrm-internal","cmd":"drop-session"})", ap);
      run.on_closed(now_ms, ap);
    }
    for (const auto& [ap, text] : std::exchange(rrm_.queue, {})) run.on_text(now_ms, ap, text);
  }

  void every_second() {
    // The optimisation runs on a thread of its own and in real time.
    if (worker_->tpc_dca().state() == PlannerState::Optimising) ::usleep(100'000);
    worker_->on_loop();
  }

  int pauses() const noexcept { return pauses_; }
  std::size_t busiest_second() const noexcept { return busiest_; }

 private:
  void receive(const std::string& text, std::uint32_t ap) {
    worker_->process_message(JsonReader(text.c_str(), 8192), {nullptr, 0, ap + 1});
  }

  /// As the access points' server does.
  void watch_for_floods() {
    ++count_;
    if (now_s() <= second_) return;
    second_ = now_s();
    busiest_ = std::max(busiest_, count_);
    if (count_ >= kFlood && second_ - last_pause_ > kFloodPause_s) {
      last_pause_ = second_;
      ++pauses_;
      receive(R"({"service":"rrm-internal","cmd":"stop-load-balancer"})", 0);
    }
    count_ = 0;
  }

  GlobalConfig global_;
  QueueingRrm rrm_;
  std::shared_ptr<RrmWorker> worker_;
  std::vector<std::uint32_t> opening_;
  std::vector<std::uint32_t> closing_;
  std::int64_t second_ = 0;
  std::int64_t last_pause_ = 0;
  std::size_t count_ = 0;
  std::size_t busiest_ = 0;
  int pauses_ = 0;
};

struct Trial {
  const char* name;
  double deaths;  ///< access points per minute that are away for a minute
  double storms;  ///< floors per minute that join anew
};

class Marks {
 public:
  void expect(bool reached, const char* what) {
    std::printf("%s  %s\n", reached ? "reached" : "MISSED ", what);
    missed_ = missed_ || !reached;
  }
  bool missed() const noexcept { return missed_; }

 private:
  bool missed_ = false;
};

void check(const Report& report, const Trial& trial, Marks& marks) {
  const Report::Clients& steered = *report.steered;
  const CrowdSample& before = report.unsteered->sample;
  const CrowdSample& after = steered.sample;
  if (trial.deaths == 0) {
    bool halved = true;
    for (std::size_t band = 0; band < before.imbalance.size(); ++band) {
      halved = halved && 2 * after.imbalance[band] <= before.imbalance[band];
    }
    marks.expect(halved, "imbalance at least halved in every band");
    marks.expect(100 * steered.counters.ping_pong <= steered.counters.moves,
                 "at most 1 % of the moves lead back within 60 s");
  } else {
    marks.expect(after.longest_orphaned <= Millis{kBlacklistTimeout_s} * 1000,
                 "nobody waits longer than a block lasts after an access point's death");
  }
  marks.expect(after.longest_block <= Millis{kBlacklistTimeout_s} * 1000,
               "no block outlives its timeout");
}

/// The clients' table of the report.
std::string clients_of(const Report& report) {
  const std::string text = to_text(report);
  const std::size_t begin = text.find("\nClients");
  return text.substr(begin, text.find("\nRadio situation") - begin);
}

void play(const Trial& trial, const std::string& settings, Marks& marks) {
  now_ms = 0;
  World world(Scenario::of_size(300, 1, 1));
  CrowdOptions crowd;
  crowd.clients = 6000;
  crowd.storms = trial.storms;
  Crowd steered(world, crowd);
  Crowd unsteered(world, crowd);
  Controller controller(settings);
  RunOptions options;
  options.churn = trial.deaths;
  options.restart = 60'000;
  FleetRun run(world, options, controller, 0, &steered, &unsteered);
  for (; now_ms < kDuration; now_ms += kStep) {
    controller.deliver(run);
    run.advance(now_ms);
    if (now_ms % 1000 == 0) controller.every_second();
  }
  const Report report = make_report(run, now_ms);
  std::printf("%s\n%s", trial.name, clients_of(report).c_str());
  std::printf("  access points that died %26llu\n",
              static_cast<unsigned long long>(report.counters.restarts));
  std::printf("  messages in the busiest second, pauses %11zu %10d\n\n",
              controller.busiest_second(), controller.pauses());
  check(report, trial, marks);
  std::printf("\n");
}

}  // namespace

int main(int argc, char** argv) {
  set_clock_sources(now_s, [] { return (now_s() - kStart_s) * 1'000'000 + 1'714'521'600'000'000; });
  const std::string settings = argc > 1 ? argv[1] : kSettings;
  std::printf("300 access points, 6000 clients, seed 1; %s\n\n", settings.c_str());
  Marks marks;
  play({"Calm", 0, 0}, settings, marks);
  play({"Deaths and storms: 12 access points and 2 floors a minute", 12, 2}, settings, marks);
  return marks.missed() ? 1 : 0;
}
