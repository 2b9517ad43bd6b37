#pragma once

#include <unistd.h>

#include "tests/support/FileLimit.h"

namespace rrm::test {

/// Leaves the process so many more descriptors for its lifetime.
class FewDescriptors {
 public:
#ifdef __SANITIZE_ADDRESS__
  static constexpr bool kPossible = false;
#else
  static constexpr bool kPossible = true;
#endif
  static constexpr char kWhyNot[] =
      "the undefined-behaviour sanitizer looks at objects through pipes";

  explicit FewDescriptors(rlim_t free) : limit_(next_descriptor() + free) {}

 private:
  static rlim_t next_descriptor() {
    const int next = ::dup(STDIN_FILENO);
    ::close(next);
    return static_cast<rlim_t>(next);
  }

  const FileLimit limit_;
};

}  // namespace rrm::test
