#include "server/lib/DefaultWorker.h"

#include <exception>

#include "server/lib/Envelope.h"
#include "server/lib/Hooks.h"
#include "server/lib/RRM.h"

namespace rrm {

DefaultWorker::DefaultWorker(RRM* owner)
    : Worker("default-domain", owner, kIdleWait_us, kCapacity, false) {}

void DefaultWorker::process_message(const JsonReader& document, const SessionAddress& address) {
  try {
    if (!process_internal_ipc_msg(document)) answer(document, address);
  } catch (const std::exception& error) {
    RRM_LOG(Error, "Exception at processing message on default worker: %s", error.what());
    raise_event(EventCode::DefaultWorkerThrew);
  }
}

void DefaultWorker::answer(const JsonReader& document, const SessionAddress& address) {
  if (!is_message(document, "rrm", "subscribe-request")) return;
  const JsonWriter response("rrm", "subscribe-response");
  owner()->send_text(response.c_str(), address);
}

}  // namespace rrm
