// The dispatcher's daily care for report files.

#include <dirent.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "server/lib/Config.h"
#include "server/lib/Hooks.h"
#include "server/lib/RRM.h"
#include "server/lib/report_alarm.h"
#include "server/lib/report_optimize_tpc_dca.h"

namespace rrm {
namespace {

constexpr std::string_view kIndexPrefix = "report_idx_";
constexpr std::string_view kIndexSuffix = ".txt";

int delete_reports(const std::string& domain, std::int32_t days, const std::string& path) {
  try {
    return reports::delete_old_reports_in_domain(domain, days, path);
  } catch (const std::invalid_argument&) {
    return EINVAL;
  }
}

/// The domain whose index file has this name; empty for any other file.
std::string domain_of_index(std::string_view file) {
  if (file.size() <= kIndexPrefix.size() + kIndexSuffix.size() || !file.starts_with(kIndexPrefix) ||
      !file.ends_with(kIndexSuffix))
    return {};
  file.remove_prefix(kIndexPrefix.size());
  file.remove_suffix(kIndexSuffix.size());
  return std::string(file);
}

bool remove_file(const std::string& file) {
  if (std::remove(file.c_str()) == 0) return true;
  const int code = errno;
  RRM_LOG(Error, "Error while delete \"%s\", errno = %d: %s", file.c_str(), code,
          std::strerror(code));
  return false;
}

bool remove_file_if_present(const std::string& file) {
  struct stat found {};
  return stat(file.c_str(), &found) != 0 || remove_file(file);
}

/// The index goes last: it is what the next check finds the other two by.
bool remove_report_files(const std::string& domain, const std::string& path) {
  RRM_LOG(Info, "Delete report files for domain: %s", domain.c_str());
  const reports::ReportFiles files = reports::report_files(domain, path);
  const bool report = remove_file_if_present(files.report);
  const bool configuration = remove_file_if_present(files.configuration);
  const bool index = remove_file(files.index);
  return report && configuration && index;
}

}  // namespace

void RRM::check_old_reports() {
  const std::string time = config_->report_delete_at_time_utc;
  const std::string path = config_->reports_path;
  RRM_LOG(Debug,
          "RRM::check_old_reports entered: report_delete_at_time_utc=\"%s\", "
          "reports_path=\"%s\".",
          time.c_str(), path.c_str());
  bool fired = false;
  if (reports::check_report_alarm_clock_every_min(time, fired) != 0 || !fired) return;
  RRM_LOG(Info, "Check old reports.");
  const auto settings = config_->domain_configs();
  for (const auto& [name, config] : settings)
    delete_old_reports(name, config.report_days_to_live, path);
  // A domain that waits for its pattern has no settings yet, but it is known.
  delete_reports_of_unknown_domains(path, config_->domains());
}

void RRM::delete_old_reports(const std::string& domain, std::int32_t days,
                             const std::string& path) {
  std::shared_ptr<Worker> worker;
  {
    const std::lock_guard lock(workers_.mutex());
    const auto found = workers_.map().find(domain);
    if (found == workers_.map().end()) {
      // Under the lock, so that no worker of the domain begins to write meanwhile.
      RRM_LOG(Debug, "Inactive domain: %s\n", domain.c_str());
      const int code = delete_reports(domain, days, path);
      if (code == 0) return;
      RRM_LOG(Error,
              "Error call delete_old_reports_in_domain for inactive domain: %s. Error code = %d",
              domain.c_str(), code);
      raise_event(EventCode::ReportCheckInactive, domain);
      return;
    }
    worker = found->second;
  }
  if (worker == nullptr) {
    RRM_LOG(Error, "%s worker absent.", domain.c_str());
    raise_event(EventCode::ReportCheckFailed, domain);
    return;
  }
  RRM_LOG(Debug, "Active domain: %s", domain.c_str());
  // Not under the map's lock: the worker may be long in its present message.
  const int code = worker->run_locked([&] { return delete_reports(domain, days, path); });
  if (code == 0) return;
  RRM_LOG(Error, "Error call delete_old_reports_in_domain for active domain: %s. Error code = %d",
          domain.c_str(), code);
  raise_event(EventCode::ReportCheckFailed, domain);
}

void RRM::delete_reports_of_unknown_domains(const std::string& path,
                                            const std::map<std::string, DomainInfo>& domains) {
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir(path.c_str()), &closedir);
  if (folder == nullptr) {
    RRM_LOG(Error, "Could not open directory: %s", path.c_str());
    raise_event(EventCode::ReportCheckFailed, path);
    return;
  }
  std::vector<std::string> unknown;
  while (const dirent* entry = readdir(folder.get())) {
    const std::string domain = domain_of_index(entry->d_name);
    if (!domain.empty() && !domains.contains(domain)) unknown.push_back(domain);
  }
  bool failed = false;
  for (const std::string& domain : unknown) failed |= !remove_report_files(domain, path);
  if (failed) raise_event(EventCode::ReportCheckFailed, path);
}

}  // namespace rrm
