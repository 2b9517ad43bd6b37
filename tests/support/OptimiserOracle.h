#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "server/lib/ApMap.h"
#include "server/lib/Config.h"
#include "tests/support/RandomDomain.h"

namespace rrm::test {

/// A radio as the slow optimiser sees it.
struct OracleRadio {
  std::int32_t id = 0;
  bool status = false;
  MacAddress mac;
  std::int32_t band = 0;
  std::int32_t channel = 0;
  std::int32_t bandwidth = 0;
  std::int32_t primary_channel = 0;
  std::set<std::int32_t> available_channels;
  std::int64_t power = 0;
  std::int64_t power_min = 0;
  std::int64_t power_max = 0;
  std::int64_t eirp = 0;
  std::int64_t eirp_min = 0;
  std::int64_t eirp_max = 0;
  std::int64_t antenna_gain = 0;
  std::int64_t cable_loss = 0;
  bool has_antenna_configuration = false;
  std::int64_t delta = 0;
  bool locked_for_dca = false;
  bool locked_for_tpc = false;
  bool conflicted = false;
  std::int32_t neighbour_channel_count = 0;
  std::int32_t dca_rank = 0;
  std::vector<MacAddress> vaps;
};

using OraclePlan = std::map<MacAddress, std::vector<OracleRadio>>;

/// The optimisation once more, as slowly and plainly as it can be said: everything is searched,
/// recounted and summed anew each time, and no code is shared with the real one.
OraclePlan oracle_optimise(const ApMap& snapshot, const DomainConfig& config, bool use_dca,
                           bool use_tpc);

/// What a plan says of each radio, one line per radio, in MAC order.
std::string text_of(const OraclePlan& plan);
/// The same of what the real optimisation makes of a copy of the domain.
std::string optimised_text(const MadeDomain& domain, bool use_dca, bool use_tpc);

}  // namespace rrm::test
