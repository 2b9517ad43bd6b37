#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>

#include "tools/FiniteNumber.h"
#include "tools/fleet/Scenario.h"
#include "tools/fleet/Simulation.h"

namespace {

using namespace rrm::fleet;

constexpr int kNoPlan =
    3;  ///< exit status of --once when time was up before every domain had a plan

struct Options {
  int aps = 40;
  int domains = 2;
  std::uint64_t seed = 1;
  double rate = 200;
  double duration = 0;
  double scan_time = 4;
  double churn = 0;
  double arrival = 60;
  std::string scenario;
  bool json = false;
  bool quiet = false;
  SimulationOptions simulation;
};

/// At least 0, and far from what milliseconds in 64 bits can hold; "nan" is neither above nor
/// below.
CLI::Validator moderate() {
  return CLI::Validator(
      [](const std::string& text) {
        double value = 0;
        const bool is_moderate =
            CLI::detail::lexical_cast(text, value) && value >= 0 && value <= 1e9;
        return is_moderate ? std::string() : text + " is not 0 to 1000000000";
      },
      "NONNEGATIVE");
}

void define_clients(CLI::App& app, Options& options) {
  CrowdOptions& crowd = options.simulation.crowd;
  constexpr const char* kClients = "Clients";
  app.add_option("--clients", crowd.clients, "Clients that walk about and associate")
      ->check(CLI::Range(0, 1000000))
      ->capture_default_str()
      ->group(kClients);
  app.add_flag("--compare", options.simulation.compare,
               "Also play the same clients without steering")
      ->group(kClients);
  const std::pair<const char*, std::pair<double*, const char*>> shares[] = {
      {"--moving", {&crowd.moving, "Share of them that walk"}},
      {"--sticky", {&crowd.sticky, "Share that leave a radio only when it is nearly gone"}},
      {"--refusing", {&crowd.refusing, "Share that decline to be steered"}},
      {"--rare", {&crowd.rare, "Share that hardly ever probe"}},
      {"--gathered", {&crowd.gathered, "Share that stand together in a room per floor"}},
  };
  for (const auto& [name, share] : shares) {
    app.add_option(name, *share.first, share.second)
        ->check(CLI::Range(0.0, 1.0))
        ->check(rrm::tools::finite())
        ->capture_default_str()
        ->group(kClients);
  }
  app.add_option("--arrival", options.arrival,
                 "Seconds from the first client's arrival to the last's")
      ->check(moderate())
      ->capture_default_str()
      ->group(kClients);
  app.add_flag("--clients-at-once", options.simulation.run.clients_at_once,
               "Clients arrive from the start, not from the first plan of every domain on")
      ->group(kClients);
  app.add_option("--storms", crowd.storms, "Times a minute that a whole floor joins anew")
      ->check(moderate())
      ->capture_default_str()
      ->group(kClients);
}

void define(CLI::App& app, Options& options) {
  app.set_version_flag("--version", "wavelom-fleet " WAVELOM_VERSION);
  app.add_option("--aps", options.aps, "Access points, shared evenly among the domains")
      ->check(CLI::Range(1, 100000))
      ->capture_default_str();
  app.add_option("--domains", options.domains, "Domains, named site-1, site-2 ...")
      ->check(CLI::Range(1, 10000))
      ->capture_default_str();
  app.add_option("--seed", options.seed, "Same seed, same fleet; overrides a scenario's")
      ->capture_default_str();
  app.add_option("--scenario", options.scenario, "JSON file with sites, buildings and SSIDs")
      ->check(CLI::ExistingFile)
      ->excludes("--aps")
      ->excludes("--domains");
  app.add_option("--host", options.simulation.endpoint.host, "Controller")->capture_default_str();
  app.add_option("--port", options.simulation.endpoint.port, "Its access-point port")
      ->check(CLI::Range(1, 65535))
      ->capture_default_str();
  app.add_option("--rate", options.rate, "Connections started per second")
      ->check(CLI::Range(0.1, 100000.0))
      ->check(rrm::tools::finite())
      ->capture_default_str();
  app.add_option("--scan-time", options.scan_time, "Seconds that a scan takes")
      ->check(CLI::Range(0.0, 3600.0))
      ->check(rrm::tools::finite())
      ->capture_default_str();
  app.add_option("--churn", options.churn, "Access points that restart per minute")
      ->check(moderate())
      ->capture_default_str();
  app.add_option("--duration", options.duration, "Seconds to run; 0: until Ctrl-C")
      ->check(moderate())
      ->capture_default_str();
  define_clients(app, options);
  app.add_flag("--once", options.simulation.once, "End after the first plan of every domain");
  app.add_flag("--json", options.json, "Print the figures as JSON");
  app.add_flag("--quiet", options.quiet, "Show no progress");
}

Scenario scenario_of(const Options& options, bool seed_given) {
  if (options.scenario.empty()) {
    return Scenario::of_size(options.aps, std::min(options.domains, options.aps), options.seed);
  }
  std::ifstream file(options.scenario);
  std::stringstream text;
  text << file.rdbuf();
  Scenario scenario = Scenario::from_json(text.str());
  if (seed_given) scenario.seed = options.seed;
  return scenario;
}

int run(Options& options, bool seed_given) {
  World world(scenario_of(options, seed_given));
  SimulationOptions& simulation = options.simulation;
  simulation.run.rate = options.rate;
  simulation.crowd.arrival = static_cast<Millis>(options.arrival * 1000);
  simulation.run.churn = options.churn;
  simulation.run.timing.scan = static_cast<Millis>(options.scan_time * 1000);
  simulation.duration = static_cast<Millis>(options.duration * 1000);
  simulation.progress = !options.quiet;
  if (simulation.progress) {
    std::fprintf(stderr, "%zu access points in %zu domains, controller %s:%d\n", world.aps().size(),
                 world.sites().size(), simulation.endpoint.host.c_str(), simulation.endpoint.port);
  }
  const SimulationResult result = simulate(world, simulation);
  const std::string text =
      options.json ? to_json(result.report) + "\n" : "\n" + to_text(result.report);
  std::fputs(text.c_str(), stdout);
  const bool missed = simulation.once && result.ending == Ending::Duration;
  if (missed) std::fputs("wavelom-fleet: not every domain has a plan\n", stderr);
  return missed ? kNoPlan : 0;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{
      "Plays a fleet of access points against a controller: they subscribe, measure, scan and "
      "take\n"
      "their plans, in buildings with walls and floors. Ends with figures of the run and of the\n"
      "radio situation before and after. Exit status 3: --once and --duration, and time was up.",
      "wavelom-fleet"};
  Options options;
  define(app, options);
  CLI11_PARSE(app, argc, argv);
  try {
    return run(options, app.count("--seed") > 0);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "wavelom-fleet: %s\n", error.what());
    return 1;
  }
}
