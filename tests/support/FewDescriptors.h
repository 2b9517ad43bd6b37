#pragma once

#include <sys/resource.h>
#include <unistd.h>

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

  explicit FewDescriptors(rlim_t free) {
    ::getrlimit(RLIMIT_NOFILE, &before_);
    const int next = ::dup(STDIN_FILENO);
    ::close(next);
    const rlimit few{static_cast<rlim_t>(next) + free, before_.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &few);
  }
  ~FewDescriptors() { ::setrlimit(RLIMIT_NOFILE, &before_); }
  FewDescriptors(const FewDescriptors&) = delete;
  FewDescriptors& operator=(const FewDescriptors&) = delete;

 private:
  rlimit before_{};
};

}  // namespace rrm::test
