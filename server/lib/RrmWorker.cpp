#include "server/lib/RrmWorker.h"

namespace rrm {

RrmWorker::RrmWorker(const GlobalConfig*, const DomainConfig&, RRM* owner, const std::string& name,
                     std::size_t capacity, std::int32_t)
    : Worker(name, owner, kIdleWait_us, static_cast<int>(capacity), true) {}

void RrmWorker::process_message(const JsonReader& document, const SessionAddress&) {
  process_internal_ipc_msg(document);
}

void RrmWorker::get_status(JsonWriter&) {}

void RrmWorker::get_status_full(JsonWriter&) {}

std::vector<ApSession> RrmWorker::ap_sessions() const { return {}; }

void RrmWorker::load_backup(const JsonReader&) {}

}  // namespace rrm
