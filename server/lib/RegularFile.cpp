#include "server/lib/RegularFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace rrm {
namespace {

bool is_taken(mode_t kind, int flags) {
  return S_ISREG(kind) || (S_ISCHR(kind) && (flags & O_ACCMODE) != O_RDONLY);
}

}  // namespace

int open_regular_file(const std::string& path, int flags, mode_t mode) {
  // Without O_NONBLOCK a pipe is not opened before its other end is; regular files ignore it.
  const int descriptor = ::open(path.c_str(), flags | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, mode);
  if (descriptor < 0) return -1;
  struct stat state {};
  if (::fstat(descriptor, &state) == 0 && is_taken(state.st_mode, flags)) return descriptor;
  const int code = S_ISDIR(state.st_mode) ? EISDIR : EINVAL;
  ::close(descriptor);
  errno = code;
  return -1;
}

std::FILE* open_regular_stream(const std::string& path, int flags, const char* mode) {
  const int descriptor = open_regular_file(path, flags);
  if (descriptor < 0) return nullptr;
  std::FILE* const stream = ::fdopen(descriptor, mode);
  const int code = errno;
  if (stream == nullptr) ::close(descriptor);
  errno = code;
  return stream;
}

}  // namespace rrm
