#pragma once

#include <atomic>
#include <string>
#include <unordered_map>

#include "server/lib/ApMap.h"
#include "server/lib/Config.h"
#include "server/lib/report_optimize_tpc_dca.h"

namespace rrm {

/// What one optimisation leaves behind; the domain worker applies it to the live radios.
struct OptimisationResult {
  std::unordered_map<MacAddress, RadioList>
      radios;  ///< planned radios of the changed access points
  bool ok = false;
  std::string message;  ///< why it did not finish; empty when ok
  bool has_report = false;
  std::string report_date;  ///< start of the optimisation, UTC, as report files write it
  reports::RadioReport report;
};

/// What the caller decides at launch.
struct OptimisationSwitches {
  bool use_dca = false;
  bool use_tpc = false;
  bool use_report = false;
};

/// Assigns channels (DCA) and transmit powers (TPC) to the radios of a domain.
///
/// Purpose:   pure computation over a snapshot that nobody else touches. It is used up: planned
///            radios move from it into the result. Same snapshot, same result.
/// Threading: runs on the optimisation thread; only `cancel` is shared, read before and after DCA.
/// @param started_at  seconds since the epoch; the date of the report
OptimisationResult optimise(ApMap& snapshot, const DomainConfig& config,
                            const OptimisationSwitches& switches, std::int64_t started_at,
                            const std::atomic<bool>& cancel);

}  // namespace rrm
