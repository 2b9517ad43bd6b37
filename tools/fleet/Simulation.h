#pragma once

#include <cstdint>

#include "tools/fleet/FleetRun.h"
#include "tools/fleet/Report.h"
#include "tools/fleet/WebsockClients.h"

namespace rrm::fleet {

struct SimulationOptions {
  Endpoint endpoint;
  RunOptions run;
  CrowdOptions crowd;    ///< no clients: no crowd
  bool compare = false;  ///< a second crowd that nobody steers, in the same world
  Millis duration = 0;   ///< 0: until a signal
  bool once = false;     ///< end after the first plan of every domain
  bool progress = true;
};

enum class Ending {
  Once,      ///< every domain has its first plan
  Duration,  ///< time is up
  Signal     ///< SIGINT or SIGTERM
};

struct SimulationResult {
  Ending ending = Ending::Signal;
  Report report;
};

/// Runs a fleet against a controller until its end; blocks. Takes SIGINT and SIGTERM while it runs
/// and raises the limit of open files to what the fleet needs. Progress goes to standard error.
SimulationResult simulate(World& world, const SimulationOptions& options);

}  // namespace rrm::fleet
