#include "server/LoggerConfig.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <iterator>

namespace {

struct OwnKey {
  LoggerKey key;
  const char* name;
  std::string LoggerOwnKeys::*value;
};

constexpr OwnKey kOwnKeys[] = {
    {LoggerKey::LogFileTimeout, "LOG_FILE_TIMEOUT", &LoggerOwnKeys::log_file_timeout},
    {LoggerKey::LcleanerMaxFilesCount, "LCLEANER_MAX_FILES_COUNT", &LoggerOwnKeys::max_files_count},
    {LoggerKey::LcleanerMaxFolderSize, "LCLEANER_MAX_FOLDER_SIZE", &LoggerOwnKeys::max_folder_size},
    {LoggerKey::LcleanerMaxFilesAge, "LCLEANER_MAX_FILES_AGE", &LoggerOwnKeys::max_files_age},
};

std::string trimmed(std::string_view text) {
  const auto is_space = [](unsigned char c) { return std::isspace(c) != 0; };
  const auto first = std::find_if_not(text.begin(), text.end(), is_space);
  const auto last = std::find_if_not(text.rbegin(), std::make_reverse_iterator(first), is_space);
  return {first, last.base()};
}

std::string upper(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return text;
}

/// The value of "KEY = value", without quotes and a comment behind it.
std::string value_of(std::string_view text) {
  std::string value = trimmed(text.substr(0, text.find("##")));
  if (value.size() < 2 || value.front() != '"' || value.back() != '"') return value;
  return value.substr(1, value.size() - 2);
}

/// The level of a section line "* LEVEL:", empty for any other line.
std::string section_of(const std::string& line) {
  const std::string text = trimmed(std::string_view(line).substr(0, line.find("##")));
  if (text.size() < 3 || text.front() != '*' || text.back() != ':') return {};
  return upper(trimmed(std::string_view(text).substr(1, text.size() - 2)));
}

const OwnKey* own_key_of(const std::string& line) {
  const std::size_t assignment = line.find('=');
  if (assignment == std::string::npos) return nullptr;
  const std::string name = upper(trimmed(std::string_view(line).substr(0, assignment)));
  const auto found = std::find_if(std::begin(kOwnKeys), std::end(kOwnKeys),
                                  [&](const OwnKey& key) { return name == key.name; });
  return found == std::end(kOwnKeys) ? nullptr : found;
}

std::uint64_t number_of(const std::string& text) {
  return static_cast<std::uint64_t>(std::strtol(text.c_str(), nullptr, 10));
}

}  // namespace

const char* logger_key_name(LoggerKey key) noexcept {
  const auto found = std::find_if(std::begin(kOwnKeys), std::end(kOwnKeys),
                                  [key](const OwnKey& own) { return own.key == key; });
  return found == std::end(kOwnKeys) ? "UNKNOWN" : found->name;
}

LoggerOwnKeys take_own_keys(std::string& text) {
  LoggerOwnKeys keys;
  std::string rest;
  std::string section;
  for (std::size_t start = 0; start < text.size();) {
    const std::size_t end = std::min(text.find('\n', start), text.size());
    const std::string line = text.substr(start, end - start);
    start = end + 1;
    if (const std::string found = section_of(line); !found.empty()) section = found;
    if (const OwnKey* key = own_key_of(line)) {
      if (section == "GLOBAL")
        keys.*key->value = value_of(std::string_view(line).substr(line.find('=') + 1));
      continue;
    }
    rest += line + "\n";
  }
  text = std::move(rest);
  return keys;
}

std::int64_t rollover_hours(const LoggerOwnKeys& keys) {
  constexpr std::int64_t kCentury_h = 876'600;  // beyond it the sum of times would not fit
  const std::int64_t hours = std::strtol(keys.log_file_timeout.c_str(), nullptr, 10);
  return std::min(hours, kCentury_h);
}

CleanerLimits cleaner_limits(const LoggerOwnKeys& keys) {
  constexpr std::uint64_t kMostFiles = 100;
  constexpr std::uint64_t kOldest_h = 720;
  constexpr std::uint64_t kSmallestFolder = 1'000'000;
  constexpr std::uint64_t kLargestFolder = 999'999'999;
  const std::uint64_t size = number_of(keys.max_folder_size) << 20;  // MiB
  return {std::min(number_of(keys.max_files_count), kMostFiles),
          size == 0 ? 0 : std::clamp(size, kSmallestFolder, kLargestFolder),
          std::min(number_of(keys.max_files_age), kOldest_h)};
}
