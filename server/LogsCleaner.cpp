#include "server/LogsCleaner.h"

#include <ftw.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <iterator>
#include <limits>
#include <utility>

#include "server/ProcessLog.h"

namespace {

constexpr int kMostDescriptors = 64;

using WalkCallback = std::function<int(const char* path, const struct stat& state, int type)>;

// nftw() passes no context to its callback, so the one cleaner of the process is found here.
WalkCallback walk_callback;

int on_walk(const char* path, const struct stat* state, int type, struct FTW*) {
  return walk_callback ? walk_callback(path, *state, type) : -1;
}

std::string time_text(std::time_t time) {
  char text[64] = {};
  return ::ctime_r(&time, text) != nullptr ? text : "";
}

}  // namespace

Logs_Cleaner::Logs_Cleaner(std::uint64_t max_count, std::uint64_t max_size, std::uint64_t max_age,
                           std::string folder, std::string current_file)
    : max_files_count(max_count),
      max_folder_size(max_size),
      max_files_age(max_age),
      folder_(std::move(folder)),
      current_file_(std::move(current_file)) {
  walk_callback = [this](const char* path, const struct stat& state, int type) {
    if (type != FTW_F || !S_ISREG(state.st_mode) || current_file_ == path) return 0;
    const auto size = static_cast<std::uint64_t>(state.st_size);
    folder_size_ += size;
    files_.push_back({path, size, state.st_mtime, time_text(state.st_mtime)});
    return 0;
  };
}

Logs_Cleaner::~Logs_Cleaner() { walk_callback = nullptr; }

void Logs_Cleaner::run(std::time_t now) {
  list_files();
  if (files_.empty()) return;
  to_remove_by_files_count();
  to_remove_by_files_age(now);
  to_remove_by_folder_size();
  remove_files();
  to_remove_.clear();
}

void Logs_Cleaner::list_files() {
  folder_size_ = 0;
  files_.clear();
  ::nftw(folder_.c_str(), on_walk, kMostDescriptors, FTW_PHYS | FTW_MOUNT | FTW_DEPTH);
  std::stable_sort(files_.begin(), files_.end(), [](const File& left, const File& right) {
    return left.modified < right.modified;
  });
}

void Logs_Cleaner::move_oldest(std::size_t count) {
  const auto end = files_.begin() + static_cast<std::ptrdiff_t>(count);
  for (auto file = files_.begin(); file != end; ++file) folder_size_ -= file->size;
  to_remove_.insert(to_remove_.end(), std::make_move_iterator(files_.begin()),
                    std::make_move_iterator(end));
  files_.erase(files_.begin(), end);
}

void Logs_Cleaner::to_remove_by_files_count() {
  if (max_files_count == 0 || files_.size() <= max_files_count) return;
  const auto surplus = static_cast<std::size_t>(files_.size() - max_files_count);
  PROCESS_LOG(Debug) << "Files count limit exceeded, prepare to remove " << surplus << " files.";
  move_oldest(surplus);
}

void Logs_Cleaner::to_remove_by_files_age(std::time_t now) {
  if (max_files_age == 0) return;
  constexpr std::uint64_t kOldest_h = std::numeric_limits<std::int32_t>::max();
  const std::time_t limit =
      now - static_cast<std::time_t>(std::min(max_files_age, kOldest_h)) * 3600;
  const auto first_kept = std::find_if(
      files_.begin(), files_.end(), [limit](const File& file) { return file.modified >= limit; });
  std::for_each(files_.begin(), first_kept, [this](const File& file) {
    PROCESS_LOG(Debug) << "Prepare to remove too old file (mod time > " << max_files_age << "h) - '"
                       << file.path << "',' " << file.size << "B, " << file.modified_text;
  });
  move_oldest(static_cast<std::size_t>(first_kept - files_.begin()));
}

void Logs_Cleaner::to_remove_by_folder_size() {
  if (max_folder_size == 0) return;
  while (folder_size_ > max_folder_size && !files_.empty()) {
    const File& file = files_.front();
    PROCESS_LOG(Debug) << "Decreasing folder size, prepare to remove '" << file.path << "', "
                       << file.size << "B, " << file.modified_text;
    move_oldest(1);
  }
}

void Logs_Cleaner::remove_files() {
  std::string not_removed;
  for (const File& file : to_remove_) {
    const std::string description = "'" + file.path + "', size " + std::to_string(file.size) +
                                    "B, modded - " + file.modified_text;
    PROCESS_LOG(Debug) << "Removing file " << description;
    if (std::remove(file.path.c_str()) != 0) not_removed += description;
  }
  if (!not_removed.empty()) PROCESS_LOG(Debug) << "Not removed files:" << not_removed;
}
