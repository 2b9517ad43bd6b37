#include "server/lib/Hooks.h"

#include <atomic>
#include <utility>

namespace rrm {
namespace {

std::atomic<LogSink> log_sink{nullptr};
std::atomic<LogFilter> log_filter{nullptr};
std::atomic<EventSink> event_sink{nullptr};

}  // namespace

void set_log_sink(LogSink sink, LogFilter filter) noexcept {
  log_filter.store(filter);
  log_sink.store(sink);
}

void set_event_sink(EventSink sink) noexcept { event_sink.store(sink); }

bool log_enabled(LogLevel level) noexcept {
  if (log_sink.load(std::memory_order_acquire) == nullptr) return false;
  const LogFilter filter = log_filter.load(std::memory_order_relaxed);
  return filter == nullptr || filter(level);
}

void log_write(const char* file, int line, const char* function, LogLevel level, const char* format,
               ...) {
  const LogSink sink = log_sink.load(std::memory_order_acquire);
  if (sink == nullptr) return;
  std::va_list arguments;
  va_start(arguments, format);
  sink(file, line, function, level, format, arguments);
  va_end(arguments);
}

void raise_event(EventCode code, const std::shared_ptr<std::string>& payload) {
  const EventSink sink = event_sink.load(std::memory_order_acquire);
  if (sink != nullptr) sink(code, payload);
}

void raise_event(EventCode code, std::string payload) {
  if (event_sink.load(std::memory_order_acquire) == nullptr) return;
  raise_event(code, std::make_shared<std::string>(std::move(payload)));
}

}  // namespace rrm
