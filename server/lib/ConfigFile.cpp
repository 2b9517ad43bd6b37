#include "server/lib/ConfigFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace rrm {
namespace {

class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) {}
  ~Descriptor() { close(); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  bool is_open() const { return number_ >= 0; }
  int number() const { return number_; }
  bool close() { return number_ < 0 || ::close(std::exchange(number_, -1)) == 0; }

 private:
  int number_;
};

bool write_all(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(fd, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

/// Names are durable only when their folder is.
void sync_folder_of(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  const Descriptor descriptor(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (descriptor.is_open()) ::fsync(descriptor.number());
}

enum class Outcome { Done, Failed, FolderRefuses };

/// @param beside    where the text is written before it takes the place of `path`
/// @param old_file  state of the file to be replaced, or null when there is none
Outcome write_beside(const std::string& path, const std::string& beside, std::string_view text,
                     const struct stat* old_file) {
  // What an earlier, killed process left there is not worth keeping; a planted link is not
  // followed.
  ::unlink(beside.c_str());
  Descriptor file(::open(beside.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
  if (!file.is_open()) return errno == ENOSPC ? Outcome::Failed : Outcome::FolderRefuses;
  if (old_file != nullptr) {
    // Another owner can be given only by root; a file of ours is still better than an old one.
    if (::fchown(file.number(), old_file->st_uid, old_file->st_gid) != 0) errno = 0;
    ::fchmod(file.number(), old_file->st_mode & 07777);
  }
  if (!write_all(file.number(), text) || ::fsync(file.number()) != 0 || !file.close()) {
    ::unlink(beside.c_str());
    return Outcome::Failed;
  }
  if (::rename(beside.c_str(), path.c_str()) != 0) {
    ::unlink(beside.c_str());
    return Outcome::FolderRefuses;
  }
  sync_folder_of(path);
  return Outcome::Done;
}

bool write_in_place(const std::string& path, std::string_view text) {
  const Descriptor file(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666));
  if (!file.is_open()) return false;
  const auto length = static_cast<off_t>(text.size());
  if (::posix_fallocate(file.number(), 0, length) == ENOSPC) return false;
  if (!write_all(file.number(), text)) return false;
  // Devices and pipes have no length.
  if (::ftruncate(file.number(), length) != 0 && errno != EINVAL) return false;
  return ::fsync(file.number()) == 0 || errno == EINVAL;
}

}  // namespace

bool replace_file(const std::string& path, std::string_view text) {
  char resolved[PATH_MAX];
  const std::string target = ::realpath(path.c_str(), resolved) != nullptr ? resolved : path;
  struct stat old_file {};
  const bool exists = ::stat(target.c_str(), &old_file) == 0;
  // A folder that takes a new file is no permission to replace one that may not be written.
  if (exists && ::faccessat(AT_FDCWD, target.c_str(), W_OK, AT_EACCESS) != 0) return false;
  if (!exists || S_ISREG(old_file.st_mode)) {
    const Outcome outcome =
        write_beside(target, target + ".new", text, exists ? &old_file : nullptr);
    if (outcome != Outcome::FolderRefuses) return outcome == Outcome::Done;
  }
  return write_in_place(target, text);
}

bool replace_file_through(const std::string& beside, const std::string& path,
                          std::string_view text) {
  return write_beside(path, beside, text, nullptr) == Outcome::Done;
}

}  // namespace rrm
