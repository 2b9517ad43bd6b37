#pragma once

#include <cstdint>

#include "tools/fleet/ApAgent.h"

namespace rrm::fleet {

/// A radio of the fleet: index of the access point and radio id.
struct RadioKey {
  std::uint32_t ap = 0;
  int radio = 0;
  friend bool operator==(const RadioKey&, const RadioKey&) = default;
};

/// Why a client is no longer served by a radio.
enum class Parting {
  Roamed,      ///< by itself, or out of reach
  Storm,       ///< it joins anew with its whole floor
  Kicked,      ///< the access point threw it out
  Transition,  ///< the access point asked it to go
  Death,       ///< the access point died
};

/// Is told what happens to the clients of a crowd, as it happens.
///
/// Threading: the crowd's thread.
class CrowdObserver {
 public:
  virtual ~CrowdObserver() = default;

  /// A message blocks the client at the radio until then; it may be blocked there already.
  virtual void on_blocked(Millis now, RadioKey radio, std::uint32_t client, Millis until) = 0;
  virtual void on_unblocked(Millis now, RadioKey radio, std::uint32_t client) = 0;
  /// The radio does not answer the client because it is blocked there.
  virtual void on_refused(Millis now, RadioKey radio, std::uint32_t client) = 0;
  virtual void on_served(Millis now, RadioKey radio, std::uint32_t client) = 0;
  virtual void on_parted(Millis now, RadioKey radio, std::uint32_t client, Parting why) = 0;
  /// The access point is dead, and with it its blocks.
  virtual void on_death(Millis now, std::uint32_t ap) = 0;
};

}  // namespace rrm::fleet
