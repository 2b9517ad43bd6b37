#pragma once

#include <cstdint>
#include <string>
#include <string_view>

/// Keys of the logger configuration file that the logging library does not know. They are numbered
/// behind the library's own configuration types and read from the section "* GLOBAL:".
enum class LoggerKey : std::uint32_t {
  LogFileTimeout = 512,          ///< hours between roll-overs by time; 0 or less: none
  LcleanerMaxFilesCount = 1024,  ///< most set-aside log files
  LcleanerMaxFolderSize = 2048,  ///< most bytes in the log folder, in MiB
  LcleanerMaxFilesAge = 4096,    ///< oldest set-aside file, in hours
};

/// The name in the file, or "UNKNOWN" for another number.
const char* logger_key_name(LoggerKey key) noexcept;

/// What the file says about the own keys, as texts; each has its default.
struct LoggerOwnKeys {
  std::string log_file_timeout = "0";
  std::string max_files_count = "10";
  std::string max_folder_size = "200";
  std::string max_files_age = "168";
};

/// The limits of the log cleaner as the configuration means them.
struct CleanerLimits {
  std::uint64_t files_count;  ///< at most 100
  std::uint64_t folder_size;  ///< bytes, 0 or 1000000 to 999999999
  std::uint64_t files_age;    ///< hours, at most 720
};

/// Hours between two roll-overs by time; 0 or less means none.
std::int64_t rollover_hours(const LoggerOwnKeys& keys);

/// Reads the keys as numbers (megabytes become bytes) and brings them within the limits.
CleanerLimits cleaner_limits(const LoggerOwnKeys& keys);

/// Takes the lines with own keys out of a configuration file, as the library would refuse them.
/// @param text  the whole file; the other lines stay as they are
LoggerOwnKeys take_own_keys(std::string& text);
