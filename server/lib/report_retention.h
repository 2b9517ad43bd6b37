#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

/// Deleting old reports from a domain's three files so that a crash at any point can be undone or
/// completed.
///
/// Purpose:   the kept lines go to ".tmp" files, the originals to ".old", and two marker files tell
///            how far it came: ".start_status" rolls back to the old files, ".done_status" forward
///            to the new ones.
/// Threading: not safe against a writer of the same domain; the caller keeps them apart.
/// Errors:    0 or an errno value, logged; std::invalid_argument for empty arguments.
namespace rrm::reports {

/// Removes the reports that are older than `days_to_live` days or dated later than `now`.
/// @param now  seconds since the epoch
int delete_old_reports_in_domain(const std::string& domain, std::int32_t days_to_live,
                                 const std::string& path, std::int64_t now);
/// The same at the current time.
int delete_old_reports_in_domain(const std::string& domain, std::int32_t days_to_live,
                                 const std::string& path);

/// Completes or rolls back a deletion that was interrupted.
int reports_recovery_procedure_in_domain(const std::string& domain, const std::string& path);

/// The same with a Warning record when there is something to do, which a marker file tells; nothing
/// otherwise.
int recover_unclean_reports_in_domain(const std::string& domain, const std::string& path);

/// Copies the lines to keep into `file` + ".tmp" and counts the others. Without any line dropped or
/// kept there is no ".tmp".
int copy_new_reports_from_one_file(std::int64_t now, std::int32_t days_to_live,
                                   const std::string& file, std::size_t& dropped);

}  // namespace rrm::reports
