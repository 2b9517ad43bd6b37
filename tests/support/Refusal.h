#pragma once

#include <string>
#include <system_error>

namespace yajson::test {

/// The text of the TypeError or OutOfRangeError that `run` throws.
template <typename Run>
std::string refusal(Run run) {
  try {
    run();
  } catch (const std::system_error& error) {
    return error.what();
  }
  return "nothing thrown";
}

}  // namespace yajson::test
