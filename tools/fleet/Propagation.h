#pragma once

#include <array>
#include <cstdint>

#include "tools/fleet/Building.h"

namespace rrm::fleet {

/// How one band travels indoors; the choices are between the free-space exponent of COST 231's
/// multi-wall model and the single exponent of ITU-R P.1238, since walls are counted one by one.
struct BandPropagation {
  double frequency_mhz;
  double exponent;        ///< of the distance; 2 is free space
  double inner_wall_db;   ///< per inner wall
  double outer_wall_db;   ///< per outer wall
  double first_floor_db;  ///< for the first floor between
  double next_floor_db;   ///< for every further floor
};

/// Path loss between two places: log-distance, walls, floors and shadowing.
///
///   loss [dB] = L0 + 10 n log10(d) + walls + floors + shadowing
///   L0 [dB]   = 20 log10(f [MHz]) - 27.55, free space at 1 m (ITU-R P.525)
///
/// Shadowing is normal with `shadowing_db` as deviation, the same in both directions, and belongs
/// to the pair: it does not change with time.
struct Propagation {
  std::array<BandPropagation, 3> bands{{
      {2437, 2.3, 3, 10, 15, 4},
      {5500, 2.4, 4, 14, 16, 6},
      {6425, 2.4, 5, 16, 17, 6},
  }};
  double shadowing_db = 4;
  double sensitivity_dbm = -92;  ///< weakest signal that a radio decodes

  /// Loss without shadowing, dB; distances below 1 m count as 1 m. `band` is an index (0 to 2).
  double mean_loss_db(int band, const Obstacles& obstacles) const noexcept;

  /// The pair's shadowing, dB; the order of a and b does not matter.
  double shadowing(std::uint64_t seed, std::uint64_t a, std::uint64_t b, int band) const noexcept;
};

}  // namespace rrm::fleet
