#include "server/Logger.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <sstream>
#include <utility>

#include "server/ProcessLog.h"
#include "server/RolloverSchedule.h"

namespace {

using std::chrono::steady_clock;

constexpr unsigned long kSmallestRollover = 8192;  // bytes
constexpr std::uint64_t kDefaultFilesCount = 10;
constexpr std::uint64_t kDefaultFolderSize = 20'000'000;  // bytes
constexpr std::uint64_t kDefaultFilesAge = 168;           // hours

// In the order in which they are asked whether anything is logged at all.
constexpr el::Level kLevels[] = {el::Level::Global,  el::Level::Trace, el::Level::Debug,
                                 el::Level::Fatal,   el::Level::Error, el::Level::Warning,
                                 el::Level::Verbose, el::Level::Info};

// The library's callback carries no context: it finds the logger of the process here.
std::function<void(const char* file, std::size_t size)> rollout_slot;

// Level numbers are single bits. Until a logger is set up the library's defaults take everything.
std::atomic<unsigned> taken_levels = ~0U;

void on_pre_rollout(const char* file, std::size_t size) {
  if (rollout_slot) rollout_slot(file, size);
}

el::Logger* default_logger() {
  return el::Loggers::getLogger(el::base::consts::kDefaultLoggerId, false);
}

bool is_file(const std::string& path) {
  struct stat state {};
  return ::stat(path.c_str(), &state) == 0 && S_ISREG(state.st_mode);
}

bool exists(const std::string& path) {
  struct stat state {};
  return ::stat(path.c_str(), &state) == 0;
}

/// The time as strftime() writes it in local time; empty when it cannot be told.
template <std::size_t kBufferSize>
std::string local_time_text(std::time_t time, const std::string& pattern) {
  std::tm local{};
  if (::localtime_r(&time, &local) == nullptr) return {};
  char text[kBufferSize] = {};
  std::strftime(text, sizeof(text), pattern.c_str(), &local);
  return text;
}

void note_taken_levels() {
  el::Logger* logger = default_logger();
  unsigned levels = 0;
  for (const el::Level level : kLevels)
    if (logger != nullptr && logger->enabled(level)) levels |= static_cast<unsigned>(level);
  taken_levels = levels;
}

void disable_all_loggers() {
  el::Loggers::reconfigureAllLoggers(el::ConfigurationType::Enabled, "false");
  taken_levels = 0;
}

bool any_level_enabled(el::Configurations& configurations) {
  for (const el::Level level : kLevels) {
    const el::Configuration* enabled = configurations.get(level, el::ConfigurationType::Enabled);
    if (enabled != nullptr && enabled->value() == "true") return true;
  }
  return false;
}

}  // namespace

RRM_Logger::RRM_Logger(LoggerSettings settings)
    : settings_(std::move(settings)),
      cleaner_(kDefaultFilesCount, kDefaultFolderSize, kDefaultFilesAge, settings_.log_folder,
               settings_.log_file) {
  rollout_slot = [this](const char* file, std::size_t size) { pre_rollout(file, size); };
  const bool configured = configure();
  note_taken_levels();
  if (!configured) return;
  if (rollover_hours(own_keys_) > 0) rollout_thread_ = std::thread(&RRM_Logger::run_rollout, this);
  cleaner_thread_ = std::thread(&RRM_Logger::run_cleaner, this);
  PROCESS_LOG(Info) << "Start logging.";
}

bool RRM_Logger::configure() {
  std::ifstream file;
  // A pipe would not be opened before its other end is.
  if (is_file(settings_.config_file)) file.open(settings_.config_file);
  if (!file.is_open()) {
    std::cout << "Logger cfg file does not exist. Using default logger settings." << std::endl;
    el::Loggers::setVerboseLevel(1);
    el::Loggers::addFlag(el::LoggingFlag::NewLineForContainer);
    return false;
  }
  std::string text(std::istreambuf_iterator<char>(file), {});
  own_keys_ = take_own_keys(text);
  el::Configurations configurations;
  configurations.setToDefault();
  try {
    configurations.parseFromText(text);
  } catch (const std::exception&) {
    // A line that confuses the library's parser: what came before it holds, the rest is default.
  }
  if (!any_level_enabled(configurations)) {
    std::cout << "All log levels disabled." << std::endl;
    disable_all_loggers();
    return false;
  }
  return force_settings(configurations);
}

bool RRM_Logger::force_settings(el::Configurations& configurations) const {
  const el::Configuration* configured =
      configurations.get(el::Level::Global, el::ConfigurationType::MaxLogFileSize);
  const unsigned long size =
      configured != nullptr ? std::strtoul(configured->value().c_str(), nullptr, 10) : 0;
  if (size != 0 && size < kSmallestRollover) {
    std::cout << "Too few MAX_LOG_FILE_SIZE, increasing to " << kSmallestRollover << std::endl;
    configurations.set(el::Level::Global, el::ConfigurationType::MaxLogFileSize,
                       std::to_string(kSmallestRollover));
  }
  configurations.set(el::Level::Global, el::ConfigurationType::Filename, settings_.log_file);
  el::Loggers::setVerboseLevel(9);
  el::Loggers::reconfigureLogger(el::base::consts::kDefaultLoggerId, configurations);
  el::Loggers::reconfigureAllLoggers(configurations);
  el::Helpers::installPreRollOutCallback(on_pre_rollout);
  return true;
}

RRM_Logger::~RRM_Logger() {
  stopping_.set();
  if (rollout_thread_.joinable()) rollout_thread_.join();
  if (cleaner_thread_.joinable()) cleaner_thread_.join();
  PROCESS_LOG(Info) << "Shutting down.";
  el::Logger* logger = default_logger();
  const std::string file =
      logger != nullptr ? logger->typedConfigurations()->filename(el::Level::Global) : "";
  disable_all_loggers();
  el::Loggers::flushAll();
  // Without a configuration file the name is that of the null device, which nobody may rename.
  if (file == settings_.log_file) set_aside(file);
  rollout_slot = nullptr;
}

bool RRM_Logger::takes(rrm::LogLevel level) noexcept {
  return (taken_levels.load(std::memory_order_relaxed) & static_cast<unsigned>(level)) != 0;
}

// Called with the library's locks held: nothing here may log.
void RRM_Logger::pre_rollout(const char* file, std::size_t) {
  rolled_over_ = true;
  set_aside(file);
}

void RRM_Logger::set_aside(const std::string& file) const {
  if (!exists(file)) {
    std::cout << "File '" << file << "' does not exist" << std::endl;
    return;
  }
  const std::string name = local_time_text<80>(std::time(nullptr), settings_.set_aside_pattern);
  if (!name.empty()) std::rename(file.c_str(), name.c_str());
}

void RRM_Logger::run_rollout() {
  el::Logger* logger = default_logger();
  if (logger == nullptr) return;
  auto tick = steady_clock::now() + settings_.rollout_tick;
  RolloverSchedule schedule(steady_clock::now(), settings_.hour * rollover_hours(own_keys_));
  for (;;) {
    stopping_.wait_until(tick);
    if (stopping_.is_set()) return;
    if (schedule.is_due(steady_clock::now(), rolled_over_.exchange(false))) {
      PROCESS_LOG(Info) << "About to rollout log file!";
      force_rollover(*logger);
    }
    tick += settings_.rollout_tick;
  }
}

void RRM_Logger::run_cleaner() {
  const CleanerLimits limits =
      default_logger() != nullptr ? cleaner_limits(own_keys_) : CleanerLimits{0, 0, 0};
  cleaner_.max_files_count = limits.files_count;
  cleaner_.max_folder_size = limits.folder_size;
  cleaner_.max_files_age = limits.files_age;
  PROCESS_LOG(Debug) << "Logs_Cleaner params: max_files_count = " << cleaner_.max_files_count
                     << " max_folder_size = " << cleaner_.max_folder_size
                     << " max_files_age = " << cleaner_.max_files_age;
  auto next_run = steady_clock::now() + settings_.cleaner_period;
  for (;;) {
    stopping_.wait_until(next_run);
    cleaner_.run();
    if (stopping_.is_set()) return;
    next_run += settings_.cleaner_period;
  }
}

void set_old_log_aside(const LoggerSettings& settings) {
  struct stat state {};
  if (::stat(settings.log_file.c_str(), &state) != 0) return;
  const std::string name = local_time_text<128>(state.st_mtime, settings.set_aside_pattern);
  if (!name.empty()) std::rename(settings.log_file.c_str(), name.c_str());
}

void force_rollover(el::Logger& logger) {
  // The order of the library's own roll-over: its global lock, then that of the configuration.
  const el::base::threading::ScopedLock library_lock(el::Helpers::storage()->lock());
  el::base::TypedConfigurations& configuration = *logger.typedConfigurations();
  const el::base::threading::ScopedLock configuration_lock(configuration.lock());
  el::base::type::fstream_t* stream = configuration.fileStream(el::Level::Global);
  if (stream == nullptr) return;
  const std::string name = configuration.filename(el::Level::Global);
  const std::size_t size = el::base::utils::File::getSizeOfFile(stream);
  stream->close();
  on_pre_rollout(name.c_str(), size);
  stream->open(name, std::fstream::out | std::fstream::trunc);
}
