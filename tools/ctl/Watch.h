#pragma once

#include <functional>
#include <string>

namespace rrm::ctl {

/// How following a round ended.
enum class WatchEnd { Idle, TimeUp, Refused };

/// Follows the planning round of a domain.
///
/// Purpose:   looks at the domain again and again and tells each step, until nothing is planned.
/// Ownership: the functions outlive it.
struct Watch {
  std::string domain;
  double interval_s = 1;
  double timeout_s = 600;

  std::function<std::string(const std::string& request)> ask;
  std::function<void(const std::string& line)> tell;
  std::function<void(double seconds)> sleep;
  std::function<double()> now_s;  ///< seconds of any steady clock: answers take time, too

  /// @param failure  receives the reason of a refusal
  WatchEnd run(bool start, std::string& failure) const;
};

/// What the number of "rrm-status" means.
const char* round_state_name(int state) noexcept;

}  // namespace rrm::ctl
