#pragma once

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "server/lib/Hooks.h"

namespace rrm::test {

/// Installs log and event sinks for its lifetime and keeps what they receive. One at a time; may be
/// written to from any thread.
class CapturedLog {
 public:
  struct Record {
    LogLevel level;
    std::string function;
    std::string text;
  };

  CapturedLog();
  ~CapturedLog();
  CapturedLog(const CapturedLog&) = delete;
  CapturedLog& operator=(const CapturedLog&) = delete;

  std::vector<Record> records() const;
  std::vector<std::string> texts(LogLevel level) const;
  std::vector<std::pair<EventCode, std::string>> events() const;
  /// Number of records of a level with exactly this text.
  std::size_t count(LogLevel level, const std::string& text) const;
  bool has(LogLevel level, const std::string& text) const { return count(level, text) > 0; }
  bool has_event(EventCode code, const std::string& payload = {}) const;
  void clear();

 private:
  static void take_record(const char* file, int line, const char* function, LogLevel level,
                          const char* format, std::va_list arguments);
  static void take_event(EventCode code, const std::shared_ptr<std::string>& payload);

  mutable std::mutex mutex_;
  std::vector<Record> records_;
  std::vector<std::pair<EventCode, std::string>> events_;
};

}  // namespace rrm::test
