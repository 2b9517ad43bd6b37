#include "server/lib/report_lines.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "server/lib/Hooks.h"
#include "server/lib/RegularFile.h"
#include "server/lib/report_fields.h"

namespace rrm::reports {
namespace {

int write_all(int descriptor, const std::string& text) {
  for (std::size_t done = 0; done < text.size();) {
    const ssize_t count = ::write(descriptor, text.data() + done, text.size() - done);
    if (count >= 0)
      done += static_cast<std::size_t>(count);
    else if (errno != EINTR)
      return errno;
  }
  return 0;
}

/// A process that was killed while it wrote leaves half a line, which must stay alone.
bool ends_within_line(int descriptor, off_t length) {
  char last = '\n';
  return length > 0 && ::pread(descriptor, &last, 1, length - 1) == 1 && last != '\n';
}

}  // namespace

LineReader::LineReader(const std::string& file) : file_(file) {
  errno = 0;
  stream_ = open_regular_stream(file, O_RDONLY, "r");
  if (stream_ == nullptr) fail(errno);
}

LineReader::~LineReader() {
  if (stream_ != nullptr) std::fclose(stream_);
  std::free(buffer_);
}

bool LineReader::next(std::string& line) {
  if (code_ != 0) return false;
  errno = 0;
  const ssize_t length = ::getline(&buffer_, &capacity_, stream_);
  if (length < 0) {
    if (!std::feof(stream_)) fail(errno);
    return false;
  }
  line.assign(buffer_, static_cast<std::size_t>(length));
  if (line.back() == '\n') line.pop_back();
  return true;
}

void LineReader::fail(int code) {
  code_ = code != 0 ? code : EIO;
  log_read_error(file_, code);
}

void log_read_error(const std::string& file, int code) {
  const std::string what = "Error while read file \"" + file + "\"";
  if (code == 0)
    RRM_LOG(Error, "%s", what.c_str());
  else
    RRM_LOG(Error, "%s, errno = %d: %s", what.c_str(), code, std::strerror(code));
}

int append_to_file(const std::string& file, const std::string& text) {
  const int descriptor = open_regular_file(file, O_RDWR | O_APPEND | O_CREAT);
  if (descriptor < 0) return errno;
  const off_t length = ::lseek(descriptor, 0, SEEK_END);
  int code = write_all(descriptor, ends_within_line(descriptor, length) ? "\n" + text : text);
  // A full disk must not leave half a line for the next report to continue.
  if (code != 0 && length >= 0 && ::ftruncate(descriptor, length) != 0) errno = 0;
  if (::close(descriptor) != 0 && code == 0) code = errno;
  return code;
}

bool file_exists(const std::string& file) {
  struct stat status {};
  return ::stat(file.c_str(), &status) == 0;
}

int read_line_date(const std::string& line, std::string& date, std::int64_t& time) {
  if (const int code = get_date_time_fields_from_file_line_as_str(line, date)) return code;
  if (date.size() != kDateLength) {  // cut off within its last number
    RRM_LOG(Error, "Incorrect data/time in string: \"%s\".", date.c_str());
    return EINVAL;
  }
  return parse_date_time_fields_to_time_t(date, time);
}

}  // namespace rrm::reports
