#include "server/lib/report_retention.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <stdexcept>

#include "server/lib/Hooks.h"
#include "server/lib/RegularFile.h"
#include "server/lib/report_fields.h"
#include "server/lib/report_lines.h"
#include "server/lib/report_optimize_tpc_dca.h"

namespace rrm::reports {
namespace {

constexpr std::int64_t kSecondsPerDay = 86400;

void require(bool valid, const char* function, const char* argument) {
  if (!valid)
    throw std::invalid_argument(std::string(function) + ": Invalid argument '" + argument + "'.");
}

std::string kept_name(const std::string& file) { return file + ".tmp"; }
std::string backup_name(const std::string& file) { return file + ".old"; }

/// The files of one domain's repository; every step of the deletion walks them index first, so that
/// a report that is still listed also still has its data.
struct Repository {
  explicit Repository(const ReportFiles& files)
      : ordered{files.index, files.configuration, files.report},
        start_marker(files.report + ".start_status"),
        done_marker(files.report + ".done_status") {}

  bool is_clean() const { return !file_exists(start_marker) && !file_exists(done_marker); }
  bool is_complete() const {
    for (const std::string& file : ordered)
      if (!file_exists(file)) return false;
    return true;
  }
  const std::string& index() const { return ordered[0]; }

  std::array<std::string, 3> ordered;
  std::string start_marker;
  std::string done_marker;
};

int delete_file(const std::string& file) {
  if (::unlink(file.c_str()) == 0) return 0;
  const int code = errno;
  RRM_LOG(Error, "Error while delete \"%s\", errno = %d: %s", file.c_str(), code,
          std::strerror(code));
  return code;
}

int delete_if_present(const std::string& file) { return file_exists(file) ? delete_file(file) : 0; }

int rename_file(const std::string& from, const std::string& to, const char* purpose) {
  if (std::rename(from.c_str(), to.c_str()) == 0) return 0;
  const int code = errno;
  RRM_LOG(Error, "Error while rename \"%s\" for %s, errno = %d: %s", from.c_str(), purpose, code,
          std::strerror(code));
  return code;
}

/// Makes an empty file; `flags` tell what happens to one that is there.
int create_file(const std::string& file, int flags) {
  const int descriptor = open_regular_file(file, O_WRONLY | O_CREAT | flags);
  if (descriptor >= 0 && ::close(descriptor) == 0) return 0;
  RRM_LOG(Error, "Error while create file \"%s\".", file.c_str());
  return EIO;
}

/// Runs the step for every file until one fails.
template <typename Files, typename Step>
int for_each_file(const Files& files, Step step) {
  for (const std::string& file : files)
    if (const int code = step(file)) return code;
  return 0;
}

int complete_forward(const Repository& repository, const std::string& domain) {
  const int code = for_each_file(repository.ordered, [](const std::string& file) {
    return delete_if_present(backup_name(file));
  });
  if (code != 0) return code;
  if (const int failed = delete_file(repository.done_marker)) return failed;
  RRM_LOG(Info, "Clean reports repository for domain: \"%s\" succesfull.", domain.c_str());
  return 0;
}

int roll_back(const Repository& repository, const std::string& domain) {
  int code = for_each_file(repository.ordered, [](const std::string& file) {
    return delete_if_present(kept_name(file));
  });
  if (code != 0) return code;
  code = for_each_file(repository.ordered, [](const std::string& file) {
    const std::string backup = backup_name(file);
    return file_exists(backup) ? rename_file(backup, file, "commit") : 0;
  });
  if (code != 0) return code;
  if (const int failed = delete_file(repository.start_marker)) return failed;
  RRM_LOG(Info, "Rollback reports repository for domain: \"%s\" succesfull.", domain.c_str());
  return 0;
}

int delete_inconsistent_files(const Repository& repository) {
  return for_each_file(repository.ordered, [](const std::string& file) {
    if (!file_exists(file)) return 0;
    const int code = delete_file(file);
    if (code == 0) RRM_LOG(Warning, "Delete inconsistent file \"%s\" successfully.", file.c_str());
    return code;
  });
}

bool is_expired(std::int64_t time, std::int64_t now, std::int64_t ttl_s) {
  return now - time > ttl_s || time > now;
}

/// Whether a line stays; a line without a readable date does not.
bool is_kept(const std::string& line, const std::string& file, std::int64_t now,
             std::int64_t ttl_s) {
  std::string date;
  std::int64_t time = 0;
  if (read_line_date(line, date, time) == 0) return !is_expired(time, now, ttl_s);
  RRM_LOG(Error, "Incorrect report data/time in file: \"%s\", line: \"%s\".", file.c_str(),
          line.c_str());
  return false;
}

/// The ".tmp" of a file: appended to, and made only when a line or an end without lines asks for
/// it.
class KeptLines {
 public:
  explicit KeptLines(std::string name) : name_(std::move(name)) {}
  KeptLines(const KeptLines&) = delete;
  KeptLines& operator=(const KeptLines&) = delete;
  ~KeptLines() { close(); }

  int add(const std::string& line) {
    if (const int code = open()) return code;
    if (std::fwrite(line.data(), 1, line.size(), stream_) == line.size() &&
        std::fputc('\n', stream_) != EOF)
      return 0;
    return failed("write", errno);
  }
  int open() {
    if (stream_ != nullptr) return 0;
    stream_ = open_regular_stream(name_, O_WRONLY | O_APPEND | O_CREAT, "a");
    return stream_ != nullptr ? 0 : failed("create", errno);
  }
  bool is_open() const noexcept { return stream_ != nullptr; }
  /// On disk before it replaces its original.
  int close() {
    if (stream_ == nullptr) return 0;
    const bool written = std::fflush(stream_) == 0 && ::fsync(::fileno(stream_)) == 0;
    const int code = written ? 0 : errno;
    const bool closed = std::fclose(stream_) == 0;
    stream_ = nullptr;
    if (written && closed) return 0;
    return failed("write", written ? errno : code);
  }

 private:
  int failed(const char* what, int code) const {
    RRM_LOG(Error, "Error while %s file \"%s\", errno = %d: %s", what, name_.c_str(), code,
            std::strerror(code));
    return code != 0 ? code : EIO;
  }

  std::string name_;
  std::FILE* stream_ = nullptr;
};

int copy_kept_lines(std::int64_t now, std::int64_t ttl_s, const std::string& file,
                    std::size_t& dropped) {
  KeptLines kept(kept_name(file));
  LineReader reader(file);
  std::string line;
  while (reader.next(line)) {
    if (!is_kept(line, file, now, ttl_s))
      ++dropped;
    else if (const int code = kept.add(line))
      return code;
  }
  if (reader.code() != 0) return reader.code();
  if (!kept.is_open() && dropped > 0)
    if (const int code = kept.open()) return code;
  return kept.close();
}

/// What happens to the configuration and report files once the index file has lost lines.
int copy_other_files(const Repository& repository, std::int32_t days_to_live, std::int64_t now) {
  for (std::size_t i = 1; i < repository.ordered.size(); ++i) {
    const std::string& file = repository.ordered[i];
    std::size_t dropped = 0;
    if (const int code = copy_new_reports_from_one_file(now, days_to_live, file, dropped))
      return code;
    // An empty original leaves no ".tmp", but the commit renames one for each file.
    if (const int code = create_file(kept_name(file), 0)) return code;
  }
  return 0;
}

/// From the originals to the new files; the renamed marker makes it final.
int replace_files(const Repository& repository) {
  int code = for_each_file(repository.ordered, [](const std::string& file) {
    return rename_file(file, backup_name(file), "backup");
  });
  if (code != 0) return code;
  code = for_each_file(repository.ordered, [](const std::string& file) {
    return rename_file(kept_name(file), file, "commit");
  });
  if (code != 0) return code;
  code = rename_file(repository.start_marker, repository.done_marker, "change status");
  if (code != 0) return code;
  code = for_each_file(repository.ordered,
                       [](const std::string& file) { return delete_file(backup_name(file)); });
  return code != 0 ? code : delete_file(repository.done_marker);
}

int delete_old_reports(const Repository& repository, std::int32_t days_to_live, std::int64_t now) {
  if (const int code = create_file(repository.start_marker, O_TRUNC)) return code;
  std::size_t dropped = 0;
  if (const int code =
          copy_new_reports_from_one_file(now, days_to_live, repository.index(), dropped))
    return code;
  if (dropped == 0) {
    if (const int code = delete_if_present(kept_name(repository.index()))) return code;
    return delete_file(repository.start_marker);
  }
  if (const int code = copy_other_files(repository, days_to_live, now)) return code;
  return replace_files(repository);
}

}  // namespace

int delete_old_reports_in_domain(const std::string& domain, std::int32_t days_to_live,
                                 const std::string& path, std::int64_t now) {
  require(!domain.empty(), __func__, "domain_name");
  require(!path.empty(), __func__, "files_path");
  const Repository repository(report_files(domain, path));
  if (const int code = recover_unclean_reports_in_domain(domain, path)) return code;
  if (!repository.is_complete()) return delete_inconsistent_files(repository);
  return delete_old_reports(repository, days_to_live, now);
}

int delete_old_reports_in_domain(const std::string& domain, std::int32_t days_to_live,
                                 const std::string& path) {
  return delete_old_reports_in_domain(domain, days_to_live, path, std::time(nullptr));
}

int recover_unclean_reports_in_domain(const std::string& domain, const std::string& path) {
  if (Repository(report_files(domain, path)).is_clean()) return 0;
  RRM_LOG(Warning,
          "Detected unclean reports repository for domain: \"%s\". Started rollback/recovery "
          "procedure.",
          domain.c_str());
  const int code = reports_recovery_procedure_in_domain(domain, path);
  if (code != 0)
    RRM_LOG(Error, "Rollback/recovery procedure fail for domain: \"%s\" exit with error code: %d.",
            domain.c_str(), code);
  return code;
}

int reports_recovery_procedure_in_domain(const std::string& domain, const std::string& path) {
  require(!domain.empty(), __func__, "domain_name");
  require(!path.empty(), __func__, "files_path");
  const Repository repository(report_files(domain, path));
  if (repository.is_clean()) {
    RRM_LOG(Debug, "Already clean reports repository of domain: \"%s\".", domain.c_str());
    return 0;
  }
  const int code = file_exists(repository.done_marker) ? complete_forward(repository, domain)
                                                       : roll_back(repository, domain);
  if (code != 0)
    RRM_LOG(Error, "Reports files recovery procedure for domain: \"%s\" exit with error code: %d.",
            domain.c_str(), code);
  return code;
}

int copy_new_reports_from_one_file(std::int64_t now, std::int32_t days_to_live,
                                   const std::string& file, std::size_t& dropped) {
  dropped = 0;
  require(!file.empty(), __func__, "filename");
  require(days_to_live > 0, __func__, "days_to_live_of_report");
  RRM_LOG(Debug, "Check old reports in file: \"%s\"", file.c_str());
  const int code = copy_kept_lines(now, days_to_live * kSecondsPerDay, file, dropped);
  if (code != 0)
    RRM_LOG(Error, "Copy new reports from file: \"%s\" exit with error code: %d.", file.c_str(),
            code);
  return code;
}

}  // namespace rrm::reports
