#include "tests/support/ProcessUnderTest.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <sstream>

namespace rrm::test {
namespace {

constexpr char kOutput[] = "/stdout.txt";
constexpr char kErrors[] = "/stderr.txt";
constexpr int kPoll_ms = 5;

std::string content(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

int create(const std::string& path) {
  return ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
}

[[noreturn]] void become(const std::string& folder, const std::vector<std::string>& arguments,
                         int output, int errors) {
  std::vector<char*> words;
  for (const std::string& argument : arguments)
    words.push_back(const_cast<char*>(argument.c_str()));
  words.push_back(nullptr);
  ::dup2(output, STDOUT_FILENO);
  ::dup2(errors, STDERR_FILENO);
  if (::chdir(folder.c_str()) == 0) ::execv(words[0], words.data());
  ::_exit(127);
}

}  // namespace

ProcessUnderTest::ProcessUnderTest(const std::string& folder,
                                   const std::vector<std::string>& arguments)
    : folder_(folder), pid_(-1) {
  // Here and not in the child: what an earlier process wrote there is no sign of life of this one.
  const int output = create(folder + kOutput);
  const int errors = create(folder + kErrors);
  pid_ = ::fork();
  if (pid_ == 0) become(folder, arguments, output, errors);
  ::close(output);
  ::close(errors);
}

ProcessUnderTest::~ProcessUnderTest() {
  if (!is_running()) return;
  signal(SIGKILL);
  ::waitpid(pid_, nullptr, 0);
}

void ProcessUnderTest::signal(int number) const {
  if (pid_ > 0) ::kill(pid_, number);
}

bool ProcessUnderTest::is_running() {
  if (ended_ || pid_ <= 0) return false;
  int status = 0;
  if (::waitpid(pid_, &status, WNOHANG) != pid_) return true;
  ended_ = true;
  status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return false;
}

int ProcessUnderTest::wait(int timeout_ms) {
  for (int waited = 0; is_running() && waited < timeout_ms; waited += kPoll_ms)
    ::poll(nullptr, 0, kPoll_ms);
  return ended_ ? status_ : -1;
}

std::string ProcessUnderTest::output() const { return content(folder_ + kOutput); }
std::string ProcessUnderTest::errors() const { return content(folder_ + kErrors); }

}  // namespace rrm::test
