// The controller process: sets up logging, loads the configuration, creates the dispatcher and the
// management front-ends, and serves until SIGINT.

#include <fcntl.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "server/ApiCli.h"
#include "server/ApiWeb.h"
#include "server/FailureReport.h"
#include "server/LibraryHooks.h"
#include "server/Logger.h"
#include "server/ProcessLog.h"
#include "server/VrrpWorker.h"
#include "server/lib/Clock.h"
#include "server/lib/Config.h"
#include "server/lib/FreeMemory.h"
#include "server/lib/RRM.h"

namespace {

constexpr char kDefaultConfigFile[] = "/etc/tavro-wavelom/wavelom.conf";
constexpr rlim_t kMostFiles = 12288;
/// What the front-ends, the access-point server and their loops hold before anybody connects, with
/// a little room.
constexpr rlim_t kFewestFiles = 32;

// Destroyed in the reverse order at exit.
std::unique_ptr<rrm::GlobalConfig> config;
std::unique_ptr<rrm::RRM> dispatcher;
std::unique_ptr<RRM_Logger> logger;
std::thread api_cli_thread;
std::unique_ptr<ApiCli> api_cli;
std::unique_ptr<ApiWeb> api_web;
std::unique_ptr<VrrpWorker> vrrp_worker;

/// Whoever starts the process may have closed its standard input, output and error. What is opened
/// next would take their numbers, and be written to by all that complain on standard error.
void open_standard_files() {
  int descriptor = 0;
  while ((descriptor = ::open("/dev/null", O_RDWR)) >= 0 && descriptor <= STDERR_FILENO) continue;
  if (descriptor >= 0) ::close(descriptor);
}

void increase_max_fds() {
  errno = 0;
  const rlimit limit{kMostFiles, kMostFiles};
  if (::setrlimit(RLIMIT_NOFILE, &limit) != 0)
    PROCESS_LOG(Debug) << "setrlimit() failed with errno=" << errno << " " << std::strerror(errno);
}

/// Throws when not even the controller's own parts could open their descriptors: an event loop that
/// gets none ends the process.
void require_files() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= kFewestFiles) return;
  const std::string text = "Only " + std::to_string(limit.rlim_cur) + " files may be open, " +
                           std::to_string(kFewestFiles) + " are needed";
  errno = EMFILE;
  throw std::runtime_error(text);
}

void change_sigint(int how) {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  ::pthread_sigmask(how, &signals, nullptr);
}

/// Ends every thread that reaches the objects which static destruction takes down.
void stop_threads() {
  if (api_cli) api_cli->stop();
  if (api_cli_thread.joinable()) api_cli_thread.join();
  set_domain_listener(nullptr);
  dispatcher.reset();
}

// Ends everything in the signal context. That is sound because every thread has SIGINT blocked and
// only the main thread lets it in, between two passes of its loop, when it holds no lock.
void on_sigint(int) {
  stop_threads();
  logger.reset();
  std::exit(0);
}

void let_sigint_in() {
  change_sigint(SIG_UNBLOCK);
  change_sigint(SIG_BLOCK);
}

void serve(const char* config_file) {
  set_old_log_aside({});
  logger.reset();
  logger = std::make_unique<RRM_Logger>();
  install_library_hooks();
  config = std::make_unique<rrm::GlobalConfig>(config_file);
  increase_max_fds();
  require_files();
  dispatcher = std::make_unique<rrm::RRM>(config.get());
  vrrp_worker = std::make_unique<VrrpWorker>(dispatcher.get(), config.get());
  set_domain_listener(vrrp_worker.get());
  api_cli = std::make_unique<ApiCli>(dispatcher.get(), vrrp_worker.get());
  api_web = std::make_unique<ApiWeb>(dispatcher.get(), vrrp_worker.get());
  std::signal(SIGINT, on_sigint);
  dispatcher->start();
  vrrp_worker->set_vrrp_role_on_start();
  api_cli_thread = std::thread([] { api_cli->run(); });
  api_web->set_between_passes([memory = rrm::FreeMemory()]() mutable {
    memory.give_back(rrm::monotonic_seconds());
    let_sigint_in();
  });
  api_web->run();
}

}  // namespace

int main(int argc, char** argv) {
  change_sigint(SIG_BLOCK);
  open_standard_files();
  rrm::FreeMemory::keep_little();
  int status = 0;
  try {
    serve(argc > 1 ? argv[1] : kDefaultConfigFile);
  } catch (const std::exception& failure) {
    const int code = errno;
    report_failure(failure, code);
    status = 1;
  }
  stop_threads();
  // Its last record needs the logging library, whose own objects are destroyed before ours.
  logger.reset();
  return status;
}
