#pragma once

#include <easylogging++.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <thread>

#include "server/LoggerConfig.h"
#include "server/LogsCleaner.h"
#include "server/StopSignal.h"
#include "server/lib/Hooks.h"

/// Where the log lives and how often its threads look; the defaults are those of the process.
struct LoggerSettings {
  std::string config_file = "/etc/tavro-wavelom/wavelom_logger.conf";
  std::string log_file = "/var/log/tavro-wavelom/wavelom.log";
  std::string log_folder = "/var/log/tavro-wavelom/";
  std::string set_aside_pattern = "/var/log/tavro-wavelom/%Y.%m.%d_%H.%M.%S.log";  ///< strftime
  std::chrono::milliseconds rollout_tick = std::chrono::seconds(10);
  std::chrono::milliseconds cleaner_period = std::chrono::seconds(60);
  std::chrono::milliseconds hour = std::chrono::hours(1);  ///< unit of LOG_FILE_TIMEOUT
};

/// Sets up the logger "default" and everything around its file: the forced name, roll-over by time
/// on top of the library's roll-over by size, set-aside names, and the log folder's cleaner.
///
/// Threading: constructed before and destroyed after everything that logs; one at a time. Two
///            threads of its own, which end at once when it is destroyed.
/// Errors:    a missing or unusable configuration file leaves the library's defaults (standard
///            output only) and is reported on standard output.
class RRM_Logger {
 public:
  explicit RRM_Logger(LoggerSettings settings = {});
  ~RRM_Logger();
  RRM_Logger(const RRM_Logger&) = delete;
  RRM_Logger& operator=(const RRM_Logger&) = delete;

  /// Whether records of a level are written anywhere; cheap, for the library's log filter.
  static bool takes(rrm::LogLevel level) noexcept;

  bool has_threads() const noexcept { return cleaner_thread_.joinable(); }
  bool has_rollout_thread() const noexcept { return rollout_thread_.joinable(); }

 private:
  bool configure();
  bool force_settings(el::Configurations& configurations) const;
  void pre_rollout(const char* file, std::size_t size);
  void set_aside(const std::string& file) const;
  void run_rollout();
  void run_cleaner();

  const LoggerSettings settings_;
  std::atomic<bool> rolled_over_ = false;  ///< the file was set aside since the last tick
  StopSignal stopping_;
  LoggerOwnKeys own_keys_;
  Logs_Cleaner cleaner_;
  std::thread rollout_thread_;
  std::thread cleaner_thread_;
};

/// Moves the log file of an earlier run out of the way, under the name of its last change. Whatever
/// fails is ignored.
void set_old_log_aside(const LoggerSettings& settings);

/// Closes, sets aside and re-opens the logger's file as a roll-over by size does, whatever its
/// size.
void force_rollover(el::Logger& logger);
