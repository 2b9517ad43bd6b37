#pragma once

#include <string>
#include <string_view>

namespace rrm {

/// Replaces the content of a file so that a full disk or a killed process leaves the old content.
///
/// The text is written beside the file (its name with ".new"), brought to the disk and renamed onto
/// it; mode and owner of the old file are kept and a symbolic link stays one. Only where the folder
/// refuses a new file, or the path is no regular file, is the text written in place, and then only
/// after the room for it was reserved. A file that may not be written is left alone.
/// @return false when the new text is not in the file
bool replace_file(const std::string& path, std::string_view text);

/// The same for a folder in which no other file may ever be seen: the text is first written to
/// `beside`, a name elsewhere on the same file system.
/// @return false when that failed, with errno telling why; the old file stays
bool replace_file_through(const std::string& beside, const std::string& path,
                          std::string_view text);

}  // namespace rrm
