#pragma once

#include <cstdint>

#include "server/lib/TimerList.h"
#include "server/lib/Worker.h"

namespace rrm {

/// Watches how long every access-point session has been silent; pings idle ones, drops dead ones.
///
/// Threading: the check runs once a second on the worker's thread under its processing lock. It
///            copies the sessions under their map lock and calls the dispatcher after releasing it.
class PingWorker : public Worker {
 public:
  static constexpr std::int64_t kFirstPing_s = 30;
  static constexpr std::int64_t kPingEvery_s = 10;
  static constexpr std::int64_t kLastPing_s = 90;  ///< a longer silence ends the session

  explicit PingWorker(RRM* owner);

  void process_message(const JsonReader&, const SessionAddress&) override {}
  void on_loop() override { timers_.poll(); }
  void disconnect() override;
  bool connect() override;
  void get_status(JsonWriter&) override {}
  void get_status_full(JsonWriter&) override {}

  /// One check of every session against `now_s`, seconds of CLOCK_MONOTONIC.
  void check_sessions(std::int64_t now_s);

 private:
  void arm();

  TimerList timers_;
};

}  // namespace rrm
