#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "server/lib/Config.h"
#include "server/lib/TpcDcaScene.h"

namespace rrm {

/// Transmit power control: lowers radios that are heard too loud and raises quiet ones.
///
/// Purpose:   the radios of the snapshot are changed in place, in MAC order of the access points.
/// Ownership: views scene and settings, which must outlive it.
/// Threading: one thread.
class TpcDcaPowerPlan {
 public:
  TpcDcaPowerPlan(const TpcDcaScene& scene, const DomainConfig& config);

  /// Both passes: first the lowering of loud neighbours, then the raising.
  void run();

  /// Per access point of the scene: whether the power of one of its radios changed.
  const std::vector<bool>& changed() const noexcept { return changed_; }

 private:
  void lower_neighbours_of(const SceneAp& ap);
  void lower_owner(std::size_t owner, const HeardBss& bss, std::int32_t band,
                   std::int32_t target_dbm);
  const Radio* disturbed_radio(const SceneAp& ap, const HeardBss& bss, std::int32_t band) const;
  void raise_radios_of(std::size_t ap);
  bool raise(const SceneAp& ap, Radio& radio);
  bool is_co_channel(const Radio& radio, const ApEntry& owner) const;
  const ApEntry* answering(std::int32_t owner) const;

  const TpcDcaScene& scene_;
  const DomainConfig& config_;
  std::vector<bool> changed_;
};

}  // namespace rrm
