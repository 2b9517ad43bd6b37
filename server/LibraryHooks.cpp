#include "server/LibraryHooks.h"

#include <easylogging++.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "server/Logger.h"
#include "server/VrrpWorker.h"
#include "server/lib/Hooks.h"

namespace {

std::atomic<VrrpWorker*> domain_listener = nullptr;

void take_record(const char* file, int line, const char* function, rrm::LogLevel level,
                 const char* format, std::va_list arguments) {
  char* text = nullptr;
  if (::vasprintf(&text, format, arguments) < 0) return;
  const std::unique_ptr<char, decltype(&std::free)> owned(text, &std::free);
  el::base::Writer(static_cast<el::Level>(level), file,
                   static_cast<el::base::type::LineNumber>(line), function)
          .construct(1, el::base::consts::kDefaultLoggerId)
      << text;
}

void take_event(rrm::EventCode code, const std::shared_ptr<std::string>& payload) {
  if (code != rrm::EventCode::DomainChanged || !payload || payload->empty()) return;
  if (VrrpWorker* listener = domain_listener) listener->on_domain_changed(*payload);
}

}  // namespace

void install_library_hooks() {
  rrm::set_log_sink(take_record, &RRM_Logger::takes);
  rrm::set_event_sink(take_event);
}

void set_domain_listener(VrrpWorker* listener) noexcept { domain_listener = listener; }
