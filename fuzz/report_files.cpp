// Any bytes as the three files of a domain's reports: the parts between form feeds are the index,
// the configuration and the report file. Queries must bear them, and deleting old reports must
// leave three files without companions in which it finds nothing more to delete.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "server/lib/report_fields.h"
#include "server/lib/report_lines.h"
#include "server/lib/report_optimize_tpc_dca.h"
#include "server/lib/report_queries.h"
#include "server/lib/report_retention.h"

namespace {

using rrm::reports::ReportFiles;

constexpr std::int64_t kNow = 1717200000;  // 2024-06-01,00:00:00
constexpr std::int32_t kDays = 30;
constexpr const char* kDomain = "fuzz";

void require(bool holds) {
  if (!holds) std::abort();
}

/// A folder of the process's own, removed at its end; in memory where it can be, since deletions
/// wait for the disk.
class Folder {
 public:
  Folder() {
    namespace fs = std::filesystem;
    const fs::path parent = fs::exists("/dev/shm") ? "/dev/shm" : fs::temp_directory_path();
    std::string pattern = (parent / "rrm-fuzz-XXXXXX").string();
    require(::mkdtemp(pattern.data()) != nullptr);
    path_ = pattern;
  }
  ~Folder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  const std::string& path() const { return path_; }
  std::ptrdiff_t entries() const {
    return std::distance(std::filesystem::directory_iterator(path_), {});
  }

 private:
  std::string path_;
};

std::string content(const std::string& file) {
  std::ifstream stream(file, std::ios::binary);
  std::ostringstream text;
  text << stream.rdbuf();
  return text.str();
}

void write_files(const ReportFiles& files, std::string text) {
  for (const std::string& file : {files.index, files.configuration, files.report}) {
    const std::size_t end = text.find('\f');
    std::ofstream(file, std::ios::binary) << text.substr(0, end);
    text.erase(0, end == std::string::npos ? end : end + 1);
  }
}

void ask(const std::string& path) {
  rrm::JsonWriter list;
  rrm::reports::get_radio_report_list(list, kDomain, path, "2024-05-01,00:00:00 UTC",
                                      "2024-06-01,00:00:00 UTC", true);
  rrm::JsonWriter one;
  rrm::reports::get_radio_report(one, "2024-05-20,03:15:00,fuzz", path);
  rrm::JsonWriter last;
  rrm::reports::get_last_radio_report(last, kDomain, path, true);
  require(!list.str().empty() && !one.str().empty() && !last.str().empty());
}

/// Only lines of the last thirty days are left when a line had to go.
void check_kept(const std::string& file) {
  rrm::reports::LineReader reader(file);
  for (std::string line; reader.next(line);) {
    std::string date;
    std::int64_t time = 0;
    require(rrm::reports::read_line_date(line, date, time) == 0);
    require(time <= kNow && kNow - time <= std::int64_t{kDays} * 86400);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Folder folder;
  const ReportFiles files = rrm::reports::report_files(kDomain, folder.path());
  write_files(files, std::string(reinterpret_cast<const char*>(data), size));
  ask(folder.path());

  const std::string before = content(files.index);
  require(rrm::reports::delete_old_reports_in_domain(kDomain, kDays, folder.path(), kNow) == 0);
  require(folder.entries() == 3);
  check_kept(files.index);
  const std::string index = content(files.index);
  if (index != before) {
    check_kept(files.configuration);
    check_kept(files.report);
  }
  require(rrm::reports::delete_old_reports_in_domain(kDomain, kDays, folder.path(), kNow) == 0);
  require(content(files.index) == index);
  ask(folder.path());
  return 0;
}
