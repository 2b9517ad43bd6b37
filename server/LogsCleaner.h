#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

/// Keeps the log folder bounded: deletes set-aside log files, oldest first, by three rules (too
/// many files, too old files, too large a folder). The file being written is never touched.
///
/// Threading: one thread runs it; only one cleaner of a process may run at a time.
/// Errors:    an unreadable folder counts as empty; what cannot be removed is logged and tried
///            again in the next run.
class Logs_Cleaner {
 public:
  Logs_Cleaner(std::uint64_t max_count, std::uint64_t max_size, std::uint64_t max_age,
               std::string folder, std::string current_file);
  ~Logs_Cleaner();
  Logs_Cleaner(const Logs_Cleaner&) = delete;
  Logs_Cleaner& operator=(const Logs_Cleaner&) = delete;

  /// One pass over the folder and its sub-folders.
  /// @param now  seconds since 1970
  void run(std::time_t now);
  void run() { run(std::time(nullptr)); }

  // The three limits; 0 switches a rule off.
  std::uint64_t max_files_count;
  std::uint64_t max_folder_size;  ///< bytes
  std::uint64_t max_files_age;    ///< hours

 private:
  struct File {
    std::string path;
    std::uint64_t size;         ///< bytes
    std::time_t modified;       ///< seconds since 1970
    std::string modified_text;  ///< as ctime() writes it, line end included
  };

  void list_files();
  void to_remove_by_files_count();
  void to_remove_by_files_age(std::time_t now);
  void to_remove_by_folder_size();
  void remove_files();
  /// Moves the oldest `count` files to the remove list; they no longer count for the folder.
  void move_oldest(std::size_t count);

  std::uint64_t folder_size_ = 0;  ///< bytes of the files still kept
  std::string folder_;
  std::string current_file_;
  std::vector<File> files_;  ///< oldest first
  std::vector<File> to_remove_;
};
