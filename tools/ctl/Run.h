#pragma once

#include <iosfwd>

namespace rrm::ctl {

/// Exit statuses of the program.
enum ExitStatus : int {
  kDone = 0,
  kRefused = 1,   ///< by the controller, or a checked file has findings
  kUsage = 2,     ///< the command line is wrong
  kNoAnswer = 3,  ///< no connection, no reply in time
  kTimeUp = 4,    ///< the watched round had not ended
};

/// The whole program but its streams.
int run(int argc, const char* const* argv, std::ostream& out, std::ostream& errors);

}  // namespace rrm::ctl
