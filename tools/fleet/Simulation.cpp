#include "tools/fleet/Simulation.h"

#include <ev.h>
#include <signal.h>
#include <sys/resource.h>
#include <time.h>

#include <algorithm>
#include <memory>

#include "tools/fleet/Progress.h"

namespace rrm::fleet {
namespace {

constexpr double kTick = 0.01;          ///< seconds between two advances
constexpr Millis kShowEvery = 200;      ///< ms between two looks of the progress
constexpr Millis kSettle = 500;         ///< ms
constexpr rlim_t kOwnDescriptors = 64;  ///< beside one for every access point

Millis monotonic_ms() noexcept {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return Millis{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

void allow_descriptors(std::size_t aps) noexcept {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  const rlim_t wanted = aps + kOwnDescriptors;
  if (limit.rlim_cur >= wanted) return;
  limit.rlim_cur = limit.rlim_max == RLIM_INFINITY ? wanted : std::min(wanted, limit.rlim_max);
  setrlimit(RLIMIT_NOFILE, &limit);
}

/// A libev loop of its own with everything that runs on it.
class Simulation {
 public:
  Simulation(World& world, const SimulationOptions& options)
      : options_(options),
        loop_(ev_loop_new(EVFLAG_AUTO), &ev_loop_destroy),
        clients_(loop_.get(), options.endpoint, static_cast<std::uint32_t>(world.aps().size()),
                 {[this](std::uint32_t ap) { run_.on_open(monotonic_ms(), ap); },
                  [this](std::uint32_t ap, std::string_view text) {
                    run_.on_text(monotonic_ms(), ap, text);
                  },
                  [this](std::uint32_t ap) { run_.on_closed(monotonic_ms(), ap); }}),
        steered_(make_crowd(world, options.crowd.clients > 0)),
        unsteered_(make_crowd(world, options.crowd.clients > 0 && options.compare)),
        run_(world, options.run, clients_, monotonic_ms(), steered_.get(), unsteered_.get()),
        progress_(stderr) {}

  SimulationResult run() {
    start_watchers();
    ev_run(loop_.get(), 0);
    stop_watchers();
    const Millis now = monotonic_ms();
    if (options_.progress) progress_.finish(run_, now);
    return {ending_, make_report(run_, now)};
  }

 private:
  std::unique_ptr<Crowd> make_crowd(const World& world, bool wanted) const {
    return wanted ? std::make_unique<Crowd>(world, options_.crowd) : nullptr;
  }

  static void on_timer(struct ev_loop*, ev_timer* timer, int) {
    static_cast<Simulation*>(timer->data)->tick();
  }
  static void on_signal(struct ev_loop*, ev_signal* signal, int) {
    static_cast<Simulation*>(signal->data)->end(Ending::Signal);
  }

  void start_watchers() {
    ev_timer_init(&timer_, &Simulation::on_timer, 0, kTick);
    timer_.data = this;
    ev_timer_start(loop_.get(), &timer_);
    ev_signal_init(&interrupt_, &Simulation::on_signal, SIGINT);
    ev_signal_init(&terminate_, &Simulation::on_signal, SIGTERM);
    for (ev_signal* watcher : {&interrupt_, &terminate_}) {
      watcher->data = this;
      ev_signal_start(loop_.get(), watcher);
    }
  }

  /// A second Ctrl-C, or a script's after the terminal's, must not cut the figures off: from here
  /// on both signals are ignored. They are held back while the handlers change.
  void stop_watchers() {
    ev_timer_stop(loop_.get(), &timer_);
    sigset_t both;
    sigset_t before;
    sigemptyset(&both);
    sigaddset(&both, SIGINT);
    sigaddset(&both, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &both, &before);
    ev_signal_stop(loop_.get(), &interrupt_);
    ev_signal_stop(loop_.get(), &terminate_);
    signal(SIGINT, SIG_IGN);
    signal(SIGTERM, SIG_IGN);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
  }

  void tick() {
    const Millis now = monotonic_ms();
    clients_.deliver();
    run_.advance(now);
    if (options_.progress && now - shown_ >= kShowEvery) {
      shown_ = now;
      progress_.show(run_, now);
    }
    if (options_.once && settled(now)) return end(Ending::Once);
    if (options_.duration > 0 && now - run_.started() >= options_.duration) end(Ending::Duration);
  }

  /// Whether every domain has its plan, and what follows a plan (802.11r keys) had time to come.
  bool settled(Millis now) {
    if (!run_.every_domain_planned()) return false;
    if (planned_ == 0) planned_ = now;
    return now - planned_ >= kSettle;
  }

  void end(Ending ending) {
    ending_ = ending;
    ev_break(loop_.get(), EVBREAK_ALL);
  }

  const SimulationOptions& options_;
  std::unique_ptr<struct ev_loop, void (*)(struct ev_loop*)> loop_;
  WebsockClients clients_;
  std::unique_ptr<Crowd> steered_;
  std::unique_ptr<Crowd> unsteered_;
  FleetRun run_;
  Progress progress_;
  ev_timer timer_{};
  ev_signal interrupt_{};
  ev_signal terminate_{};
  Millis shown_ = 0;
  Millis planned_ = 0;  ///< when every domain had its first plan; 0 before
  Ending ending_ = Ending::Signal;
};

}  // namespace

SimulationResult simulate(World& world, const SimulationOptions& options) {
  allow_descriptors(world.aps().size());
  return Simulation(world, options).run();
}

}  // namespace rrm::fleet
