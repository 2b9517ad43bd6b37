#pragma once

#include <sys/types.h>

#include <cstdio>
#include <string>

namespace rrm {

/// Opens a file as ::open does, but takes nothing that could keep the caller waiting or be read for
/// ever: regular files, and for writing devices such as /dev/null. What is a folder fails with
/// EISDIR, a pipe, a socket or a device to read with EINVAL or ENXIO, at once. Any thread.
/// @param flags  as ::open takes them; the descriptor is closed on exec in any case
/// @param mode   of a file that O_CREAT makes
/// @return a descriptor that the caller closes; -1, with errno telling why
int open_regular_file(const std::string& path, int flags, mode_t mode = 0644);

/// The same as a stream. @param mode  as ::fopen takes it, going with the flags
/// @return a stream that the caller closes; null, with errno telling why
std::FILE* open_regular_stream(const std::string& path, int flags, const char* mode);

}  // namespace rrm
