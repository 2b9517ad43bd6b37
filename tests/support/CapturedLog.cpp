#include "tests/support/CapturedLog.h"

#include <algorithm>
#include <atomic>
#include <cstdio>

namespace rrm::test {
namespace {

std::mutex current_mutex;
CapturedLog* current = nullptr;  // guarded by current_mutex

std::string formatted(const char* format, std::va_list arguments) {
  std::va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, again);
  va_end(again);
  if (length < 0) return {};
  std::string text(static_cast<std::size_t>(length) + 1, '\0');
  std::vsnprintf(text.data(), text.size(), format, arguments);
  text.pop_back();
  return text;
}

}  // namespace

CapturedLog::CapturedLog() {
  {
    const std::lock_guard lock(current_mutex);
    current = this;
  }
  set_log_sink(&CapturedLog::take_record);
  set_event_sink(&CapturedLog::take_event);
}

CapturedLog::~CapturedLog() {
  set_log_sink(nullptr);
  set_event_sink(nullptr);
  const std::lock_guard lock(current_mutex);
  current = nullptr;
}

void CapturedLog::take_record(const char*, int, const char* function, LogLevel level,
                              const char* format, std::va_list arguments) {
  const std::lock_guard lock(current_mutex);
  if (current == nullptr) return;
  const std::lock_guard records_lock(current->mutex_);
  current->records_.push_back({level, function, formatted(format, arguments)});
}

void CapturedLog::take_event(EventCode code, const std::shared_ptr<std::string>& payload) {
  const std::lock_guard lock(current_mutex);
  if (current == nullptr) return;
  const std::lock_guard records_lock(current->mutex_);
  current->events_.emplace_back(code, payload ? *payload : std::string());
}

std::vector<CapturedLog::Record> CapturedLog::records() const {
  const std::lock_guard lock(mutex_);
  return records_;
}

std::vector<std::string> CapturedLog::texts(LogLevel level) const {
  const std::lock_guard lock(mutex_);
  std::vector<std::string> result;
  for (const Record& record : records_)
    if (record.level == level) result.push_back(record.text);
  return result;
}

std::vector<std::pair<EventCode, std::string>> CapturedLog::events() const {
  const std::lock_guard lock(mutex_);
  return events_;
}

std::size_t CapturedLog::count(LogLevel level, const std::string& text) const {
  const std::lock_guard lock(mutex_);
  return static_cast<std::size_t>(std::count_if(
      records_.begin(), records_.end(),
      [&](const Record& record) { return record.level == level && record.text == text; }));
}

bool CapturedLog::has_event(EventCode code, const std::string& payload) const {
  const std::lock_guard lock(mutex_);
  return std::find(events_.begin(), events_.end(), std::pair(code, payload)) != events_.end();
}

void CapturedLog::clear() {
  const std::lock_guard lock(mutex_);
  records_.clear();
  events_.clear();
}

}  // namespace rrm::test
