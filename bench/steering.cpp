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
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "server/lib/Clock.h"
#include "server/lib/RRM.h"
#include "server/lib/RrmWorker.h"
#include "server/lib/TpcDcaSubworker.h"
#include "tools/fleet/Report.h"
#include "tools/fleet/SteeringAudit.h"

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

/// Looks at the worker's blocks once a second: each runs down second by second from the full time
/// on while the balancers work, and stands still while they pause.
class CountdownAudit {
 public:
  void look(const RrmWorker& worker) {
    const bool running = !worker.load_balancer_stop() && !worker.load_balancer_lock();
    Counters now;
    for (const auto& [mac, ap] : worker.aps().aps()) {
      for (const Radio& radio : ap->radios.radios) {
        for (const auto& [client, left] : radio.blacklist.members) {
          if (client.bytes[5] % 16 != 0) continue;
          const Key key{mac, radio.id, client};
          if (!may_be(key, left, running)) ++violations_;
          now.emplace(key, left);
        }
      }
    }
    seen_ += now.size();
    last_ = std::move(now);
    was_running_ = running;
  }
  std::uint64_t seen() const noexcept { return seen_; }
  std::uint64_t violations() const noexcept { return violations_; }

 private:
  using Key = std::tuple<MacAddress, std::int32_t, MacAddress>;
  using Counters = std::map<Key, std::int32_t>;

  bool may_be(const Key& key, std::int32_t left, bool running) const {
    if (left == kBlacklistTimeout_s || left == kBlacklistTimeout_s - 1) return true;
    const auto before = last_.find(key);
    if (before == last_.end() || left < 1) return false;
    const bool counted_down = left == before->second - 1 && (running || was_running_);
    return counted_down || (left == before->second && !(running && was_running_));
  }

  Counters last_;
  bool was_running_ = true;
  std::uint64_t seen_ = 0;
  std::uint64_t violations_ = 0;
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
    countdowns_.look(*worker_);
  }

  const CountdownAudit& countdowns() const noexcept { return countdowns_; }

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
  CountdownAudit countdowns_;
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

void check(const Report& report, const Trial& trial, const SteeringAudit::Figures& audit,
           const CountdownAudit& countdowns, Marks& marks) {
  const Report::Clients& steered = *report.steered;
  const CrowdSample& before = report.unsteered->sample;
  const CrowdSample& after = steered.sample;
  const CrowdCounters& moved = steered.counters;
  marks.expect(100 * (moved.ping_pong - moved.ping_pong_forced) <= moved.moves,
               "at most 1 % of the moves lead back within 60 s without a storm or death");
  if (trial.deaths == 0) {
    bool halved = true;
    for (std::size_t band = 0; band < before.imbalance.size(); ++band) {
      halved = halved && 2 * after.imbalance[band] <= before.imbalance[band];
    }
    marks.expect(halved, "imbalance at least halved in every band");
  } else {
    marks.expect(audit.orphaned > 0, "some clients lost their access point");
  }
  marks.expect(audit.violations == 0 && audit.blocks > 0 && audit.refusals > 0,
               "no block outlives its timeout, and nobody waits longer after a death");
  marks.expect(countdowns.violations() == 0 && countdowns.seen() > 0,
               "every block of the controller runs down second by second");
}

/// The clients' table of the report.
std::string clients_of(const Report& report) {
  const std::string text = to_text(report);
  const std::size_t begin = text.find("\nClients");
  return text.substr(begin, text.find("\nRadio situation") - begin);
}

void print(const SteeringAudit& audit) {
  const SteeringAudit::Figures& figures = audit.figures();
  const auto line = [](const char* what, std::uint64_t value) {
    std::printf("  %-39s %10llu\n", what, static_cast<unsigned long long>(value));
  };
  line("blocks", figures.blocks);
  line("... ended by a message", figures.unblocked);
  line("... ended by their time", figures.expired);
  line("... followed by another", figures.renewed);
  line("spans without a radio", figures.spans);
  line("... begun by a death", figures.orphaned);
  line("violations", figures.violations);
  for (const std::string& text : audit.violations()) std::printf("    %s\n", text.c_str());
}

void play(const Trial& trial, const std::string& settings, Marks& marks) {
  now_ms = 0;
  World world(Scenario::of_size(300, 1, 1));
  CrowdOptions crowd;
  crowd.clients = 6000;
  crowd.storms = trial.storms;
  Crowd steered(world, crowd);
  Crowd unsteered(world, crowd);
  SteeringAudit audit(Millis{kBlacklistTimeout_s} * 1000);
  steered.watch(&audit);
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
  audit.finish(now_ms);
  const Report report = make_report(run, now_ms);
  std::printf("%s\n%s", trial.name, clients_of(report).c_str());
  std::printf("  access points that died %26llu\n",
              static_cast<unsigned long long>(report.counters.restarts));
  std::printf("  moves back forced by a storm or death %12llu\n",
              static_cast<unsigned long long>(report.steered->counters.ping_pong_forced));
  print(audit);
  std::printf("  messages in the busiest second, pauses %11zu %10d\n\n",
              controller.busiest_second(), controller.pauses());
  check(report, trial, audit.figures(), controller.countdowns(), marks);
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
  play({"Deaths: 60 access points a minute", 60, 0}, settings, marks);
  return marks.missed() ? 1 : 0;
}
