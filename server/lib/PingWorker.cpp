#include "server/lib/PingWorker.h"

#include "server/lib/Hooks.h"
#include "server/lib/RRM.h"
#include "server/lib/WebsockServerWorker.h"

namespace rrm {
namespace {

constexpr std::uint32_t kCheckTimer = 0;
constexpr std::uint32_t kCheckEvery_s = 1;

}  // namespace

PingWorker::PingWorker(RRM* owner) : Worker("Ping-worker", owner, kIdleWait_us, kCapacity, false) {}

bool PingWorker::connect() {
  RRM_LOG(Debug, "Start worker %s", name().c_str());
  arm();
  return true;
}

void PingWorker::disconnect() {
  Worker::disconnect();
  RRM_LOG(Debug, "Stop worker %s", name().c_str());
  timers_.remove(kCheckTimer);
}

void PingWorker::arm() {
  timers_.add(
      [this] {
        check_sessions(TimerList::now_seconds());
        arm();
      },
      kCheckTimer, kCheckEvery_s);
}

void PingWorker::check_sessions(std::int64_t now_s) {
  for (const auto& session : owner()->websock_server().sessions()) {
    const std::int64_t idle_s = now_s - session->last_activity_s;
    if (idle_s > kLastPing_s) {
      owner()->drop_session_at_websock_worker(session->address, true);
      owner()->on_session_closed(session->address);
    } else if (idle_s >= kFirstPing_s && idle_s % kPingEvery_s == 0) {
      owner()->ping_session(session->address);
    }
  }
}

}  // namespace rrm
