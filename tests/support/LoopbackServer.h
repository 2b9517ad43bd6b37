#pragma once

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "server/lib/Config.h"
#include "server/lib/RRM.h"
#include "server/lib/WebsockServerWorker.h"
#include "tests/support/RecordingWorker.h"
#include "tests/support/WebsockClients.h"

namespace rrm::test {

/// A dispatcher with its websocket server on a free loopback port and one domain, "site", whose
/// worker only records what it is given.
///
/// Messages for it need "domain":"site". Its worker is started; the ping worker is not.
class LoopbackServer {
 public:
  LoopbackServer() {
    config.listen_port = 0;
    rrm.workers().insert("site", site);
    site->start();
    rrm.websock_server().start();
    wait_until([&] { return rrm.websock_server().port() != 0; });
  }
  ~LoopbackServer() { rrm.stop(); }

  WebsockServerWorker& server() { return rrm.websock_server(); }
  int port() { return server().port(); }
  /// Addresses of the sessions in the order of their ids, once there are so many.
  std::vector<SessionAddress> wait_sessions(std::size_t count) {
    wait_until([&] { return server().session_count() == count; }, 60000);
    std::vector<SessionAddress> result;
    for (const auto& session : server().sessions()) result.push_back(session->address);
    std::sort(result.begin(), result.end(),
              [](const auto& a, const auto& b) { return a.id < b.id; });
    return result;
  }
  bool wait_records(std::size_t count) {
    return wait_until([&] { return site->record_count() >= count; }, 60000);
  }

  GlobalConfig config;
  RRM rrm{&config};
  std::shared_ptr<RecordingWorker> site = std::make_shared<RecordingWorker>("site", &rrm);
};

}  // namespace rrm::test
