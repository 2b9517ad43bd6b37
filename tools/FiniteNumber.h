#pragma once

#include <CLI/CLI.hpp>
#include <cmath>
#include <string>

namespace rrm::tools {

/// Refuses "nan" and "inf" as the value of an option; ranges let the former through, since it is
/// neither below nor above.
inline CLI::Validator finite() {
  return CLI::Validator(
      [](const std::string& text) {
        double value = 0;
        return CLI::detail::lexical_cast(text, value) && !std::isfinite(value)
                   ? text + " is no number"
                   : std::string();
      },
      "");
}

}  // namespace rrm::tools
