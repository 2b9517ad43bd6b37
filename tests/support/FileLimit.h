#pragma once

#include <sys/resource.h>

namespace rrm::test {

/// Lets the process have so many files open for its lifetime; what is open stays so.
class FileLimit {
 public:
  explicit FileLimit(rlim_t files) {
    ::getrlimit(RLIMIT_NOFILE, &before_);
    const rlimit low{files, before_.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &low);
  }
  ~FileLimit() { ::setrlimit(RLIMIT_NOFILE, &before_); }
  FileLimit(const FileLimit&) = delete;
  FileLimit& operator=(const FileLimit&) = delete;

 private:
  rlimit before_{};
};

}  // namespace rrm::test
