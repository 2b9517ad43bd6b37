#pragma once

#include <string>

namespace rrm::test {

/// The text of the Failure that the call throws; another exception passes through.
template <typename Failure, typename Call>
std::string thrown_text(Call call) {
  try {
    call();
  } catch (const Failure& failure) {
    return failure.what();
  }
  return "nothing thrown";
}

}  // namespace rrm::test
