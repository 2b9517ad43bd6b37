#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

/// Reading and appending the text files of reports.
///
/// Errors: errno values.
namespace rrm::reports {

/// Reads a file line by line. A failed read ends the lines, is logged, and stays in code().
class LineReader {
 public:
  explicit LineReader(const std::string& file);
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;
  ~LineReader();

  /// The next line without its newline; a last line without newline counts too.
  bool next(std::string& line);
  /// 0, or the errno of the failed open or read (EIO when there was none).
  int code() const noexcept { return code_; }

 private:
  void fail(int code);

  std::string file_;
  std::FILE* stream_ = nullptr;
  char* buffer_ = nullptr;  ///< of getline()
  std::size_t capacity_ = 0;
  int code_ = 0;
};

/// The Error record of a failed read; without an errno only what failed.
void log_read_error(const std::string& file, int code);

/// Appends whole lines in one write, making the file when missing. A failed write leaves the file
/// as it was; half a line that a killed process left becomes a line of its own.
int append_to_file(const std::string& file, const std::string& text);

/// Whether something of that name is there, readable or not.
bool file_exists(const std::string& file);

/// Date of a report line, written in full: as text, and in seconds since the epoch. Failures log
/// their reason.
int read_line_date(const std::string& line, std::string& date, std::int64_t& time);

}  // namespace rrm::reports
