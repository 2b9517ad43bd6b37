#include "server/lib/TpcDcaOptimiser.h"

#include <utility>

#include "server/lib/Hooks.h"
#include "server/lib/TpcDcaChannelPlan.h"
#include "server/lib/TpcDcaPowerPlan.h"
#include "server/lib/TpcDcaScene.h"

namespace rrm {
namespace {

/// Lets the radios of a snapshot use the optimisation's own settings, since those of the domain may
/// change meanwhile on the worker's thread.
class OwnSettings {
 public:
  OwnSettings(ApMap& snapshot, const DomainConfig& config) : snapshot_(snapshot) {
    for (auto& [mac, entry] : snapshot_.aps())
      for (Radio& radio : entry->radios.radios) radio.config = &config;
  }
  OwnSettings(const OwnSettings&) = delete;
  OwnSettings& operator=(const OwnSettings&) = delete;
  ~OwnSettings() {
    for (auto& [mac, entry] : snapshot_.aps())
      for (Radio& radio : entry->radios.radios) radio.config = entry->config;
  }

 private:
  ApMap& snapshot_;
};

/// Which access points of the scene belong to the result.
using Plan = std::vector<bool>;

void plan_channels(TpcDcaScene& scene, const DomainConfig& config, Plan& plan) {
  InterferencePlanner planner;
  TpcDcaChannelPlan channels(scene, config.dca_threshold);
  planner.bypass_threshold(true);
  channels.run(planner);
  channels.run(planner);
  planner.bypass_threshold(false);
  for (const std::size_t ap : channels.planned()) plan[ap] = true;
}

void plan_powers(const TpcDcaScene& scene, const DomainConfig& config, Plan& plan) {
  TpcDcaPowerPlan powers(scene, config);
  powers.run();
  for (std::size_t ap = 0; ap < plan.size(); ++ap)
    if (powers.changed()[ap]) plan[ap] = true;
}

void log_devices(const TpcDcaScene& scene) {
  for (const auto& ap : scene.aps())
    RRM_LOG(Trace, "Device %s (%s)", ap.entry->description.board.c_str(),
            platform_name(ap.entry->platform));
}

OptimisationResult cancelled(const char* message) {
  OptimisationResult result;
  result.message = message;
  return result;
}

}  // namespace

OptimisationResult optimise(ApMap& snapshot, const DomainConfig& config,
                            const OptimisationSwitches& switches, std::int64_t started_at,
                            const std::atomic<bool>& cancel) {
  OptimisationResult result;
  result.report_date = reports::format_time(started_at);
  if (switches.use_report)
    reports::remember_radio_report_before_optimize(result.report, result.report_date, snapshot);
  if (cancel) return cancelled("cancelled before DCA");

  TpcDcaScene scene(snapshot);
  Plan plan(scene.aps().size());
  log_devices(scene);
  {
    const OwnSettings settings(snapshot, config);
    if (switches.use_dca) plan_channels(scene, config, plan);
    if (cancel) return cancelled("cancelled after DCA");
    // Both plans change the radios in place, so that what leaves carries both.
    if (switches.use_tpc) plan_powers(scene, config, plan);
  }

  if (switches.use_report) {
    reports::remember_radio_report_after_optimize(result.report, result.report_date, snapshot);
    result.has_report = true;
  }
  for (std::size_t ap = 0; ap < plan.size(); ++ap) {
    if (!plan[ap]) continue;
    ApEntry& entry = *scene.aps()[ap].entry;
    result.radios.emplace(entry.base_mac, std::move(entry.radios));
  }
  result.ok = true;
  return result;
}

}  // namespace rrm
