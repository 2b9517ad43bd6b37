#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace rrm::test {

/// A started program whose output is kept; killed at the latest when this goes.
class ProcessUnderTest {
 public:
  /// @param folder     the program's working folder, which also receives its output
  /// @param arguments  the program's path first
  ProcessUnderTest(const std::string& folder, const std::vector<std::string>& arguments);
  ~ProcessUnderTest();
  ProcessUnderTest(const ProcessUnderTest&) = delete;
  ProcessUnderTest& operator=(const ProcessUnderTest&) = delete;

  void signal(int number) const;
  /// Waits for the end. @return the exit status, -1 when a signal ended it or it did not end in
  /// time
  int wait(int timeout_ms = 20000);
  bool is_running();
  pid_t pid() const noexcept { return pid_; }

  std::string output() const;  ///< standard output so far
  std::string errors() const;  ///< standard error so far

 private:
  std::string folder_;
  pid_t pid_;
  bool ended_ = false;
  int status_ = -1;
};

}  // namespace rrm::test
