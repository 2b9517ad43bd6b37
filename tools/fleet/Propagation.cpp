#include "tools/fleet/Propagation.h"

#include <algorithm>
#include <cmath>

#include "tools/fleet/Random.h"

namespace rrm::fleet {

double Propagation::mean_loss_db(int band, const Obstacles& obstacles) const noexcept {
  const BandPropagation& p = bands[static_cast<std::size_t>(band)];
  double loss = 20 * std::log10(p.frequency_mhz) - 27.55;
  loss += 10 * p.exponent * std::log10(std::max(obstacles.distance_m, 1.0));
  loss += obstacles.inner_walls * p.inner_wall_db + obstacles.outer_walls * p.outer_wall_db;
  if (obstacles.floors > 0) loss += p.first_floor_db + (obstacles.floors - 1) * p.next_floor_db;
  return loss;
}

double Propagation::shadowing(std::uint64_t seed, std::uint64_t a, std::uint64_t b,
                              int band) const noexcept {
  if (shadowing_db <= 0) return 0;
  return shadowing_db *
         gaussian(hash({seed, std::min(a, b), std::max(a, b), static_cast<std::uint64_t>(band)}));
}

}  // namespace rrm::fleet
