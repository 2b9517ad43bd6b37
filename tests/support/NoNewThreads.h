#pragma once

#include <pthread.h>

#include <cstddef>

namespace rrm::test {

/// Lets no thread of the process be made for its lifetime, because its stack would be larger than
/// all addresses there are.
class NoNewThreads {
 public:
  NoNewThreads() {
    ::pthread_getattr_default_np(&before_);
    pthread_attr_t huge = before_;
    ::pthread_attr_setstacksize(&huge, std::size_t{1} << 50);
    ::pthread_setattr_default_np(&huge);
  }
  ~NoNewThreads() { ::pthread_setattr_default_np(&before_); }
  NoNewThreads(const NoNewThreads&) = delete;
  NoNewThreads& operator=(const NoNewThreads&) = delete;

 private:
  pthread_attr_t before_{};
};

}  // namespace rrm::test
