#include "tests/support/KilledProcess.h"

#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <stdexcept>

namespace rrm::test {
namespace {

template <typename Prepare>
pid_t start(Prepare prepare, const std::function<void()>& work) {
  const pid_t child = ::fork();
  if (child < 0) throw std::runtime_error("fork failed");
  if (child > 0) return child;
  prepare();
  work();
  ::_exit(0);
}

/// How the child ended. @return whether a signal did it
bool was_killed(int status) {
  if (WIFSIGNALED(status)) return true;
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) throw std::runtime_error("the work failed");
  return false;
}

bool changes_files(unsigned long long call) {
  constexpr std::array kCalls = {SYS_openat, SYS_write,    SYS_fsync, SYS_ftruncate,
                                 SYS_rename, SYS_renameat, SYS_unlink};
  return std::find(kCalls.begin(), kCalls.end(), static_cast<long>(call)) != kCalls.end();
}

}  // namespace

bool killed_at_file_call(int call, const std::function<void()>& work) {
  const auto wait_for_parent = [] {
    ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    ::raise(SIGSTOP);
  };
  const pid_t child = start(wait_for_parent, work);
  int status = 0;
  ::waitpid(child, &status, 0);
  for (bool entering = true;; entering = !entering) {
    ::ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
    ::waitpid(child, &status, 0);
    if (!WIFSTOPPED(status)) return was_killed(status);
    user_regs_struct registers{};
    ::ptrace(PTRACE_GETREGS, child, nullptr, &registers);
    if (entering && changes_files(registers.orig_rax) && --call == 0) break;
  }
  ::kill(child, SIGKILL);
  ::waitpid(child, &status, 0);
  return true;
}

bool killed_at_file_size(std::size_t bytes, const std::function<void()>& work) {
  const auto limit_size = [bytes] {
    const rlimit limit{bytes, bytes};
    ::setrlimit(RLIMIT_FSIZE, &limit);
    ::signal(SIGXFSZ, SIG_DFL);
  };
  const pid_t child = start(limit_size, work);
  int status = 0;
  ::waitpid(child, &status, 0);
  return was_killed(status);
}

}  // namespace rrm::test
