#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "server/lib/Clock.h"
#include "server/lib/Config.h"
#include "server/lib/JsonWriter.h"
#include "server/lib/MacAddress.h"
#include "server/lib/RRM.h"
#include "server/lib/RrmWorker.h"
#include "tests/support/CapturedLog.h"

/// A domain worker without threads or sockets, driven by events and by a clock that tests move.
namespace rrm::test {

/// Both clocks of the library, standing still until a test moves them. One at a time.
class StoppedClock {
 public:
  /// 1,000,000 monotonic seconds; 2024-05-01 00:00:00 UTC.
  StoppedClock();
  ~StoppedClock();
  StoppedClock(const StoppedClock&) = delete;
  StoppedClock& operator=(const StoppedClock&) = delete;

  void advance(std::int64_t seconds);
  void set_time_of_day(std::int64_t seconds);
  void advance_wall_us(std::int64_t microseconds);
  /// From now on every look at the time of day takes so long.
  void set_wall_step_us(std::int64_t microseconds);
};

/// A dispatcher that keeps what it is asked to send; may be called from any thread.
class RecordingRrm : public RRM {
 public:
  struct Sent {
    std::uint32_t session;
    std::string text;
    friend bool operator==(const Sent&, const Sent&) = default;
  };
  struct Drop {
    std::uint32_t session;
    bool force;
    friend bool operator==(const Drop&, const Drop&) = default;
  };

  explicit RecordingRrm(const GlobalConfig* config) : RRM(config) {}

  void send_text(const char* text, const SessionAddress& address) override;
  void send_serialized(std::string&& text, const SessionAddress& address) override;
  bool is_session_alive(const SessionAddress& address) const override;
  void drop_session_at_websock_worker(const SessionAddress& address, bool force) override;

  /// What was sent since the last call, in order.
  std::vector<Sent> take();
  /// The same, only the messages with this "cmd", as texts.
  std::vector<std::string> take(const std::string& cmd);
  std::vector<Drop> take_drops();
  /// From now on the session counts as closed.
  void close(std::uint32_t session);

 private:
  mutable std::mutex mutex_;
  std::vector<Sent> sent_;
  std::vector<Drop> drops_;
  std::vector<std::uint32_t> closed_;
};

/// A VAP as an access point describes it.
struct VapSpec {
  int id = 0;
  std::string ssid = "office";
  bool k = false;
  bool r = false;
  bool v = false;
  std::string extra = {};  ///< further members, each with a leading comma
};

/// A radio as an access point describes it.
struct RadioSpec {
  int id = 0;
  int channel = 36;
  int band = 5;
  int power = 15;
  int bandwidth = 20;
  std::string channels = "36,40,44,48";
  std::vector<VapSpec> vaps = {};
  int locked_balancer = 1;
  int locked_80211v = 1;
  int status = 1;
  std::string extra = {};

  std::string text() const;
};

std::string radios_text(const std::vector<RadioSpec>& radios);

/// MAC of access point n: 00:11:22:00:nn:00.
std::string ap_mac(int n);
/// MAC of client n: 02:aa:00:00:00:nn.
std::string client_mac(int n);

/// A domain "site" and its world.
class Engine {
 public:
  explicit Engine(const DomainConfig& domain = quiet_config(), std::int32_t time_zone_s = 0,
                  const char* global = "{}");

  /// Settings under which nothing is planned, balanced or distributed unless a test asks for it.
  static DomainConfig quiet_config();

  RrmWorker& worker() { return *worker_; }
  RecordingRrm& rrm() { return rrm_; }
  std::shared_ptr<RrmWorker> shared_worker() { return worker_; }
  CapturedLog& log() { return log_; }
  StoppedClock& clock() { return clock_; }
  GlobalConfig& global() { return global_; }

  /// Lets the worker process a message of that session.
  void receive(const std::string& text, std::uint32_t session);
  /// A "rrm" message of access point n, with further members.
  void receive(const std::string& cmd, int ap, std::uint32_t session, const std::string& members);
  /// Subscribes access point n on session n + 100 (or another one).
  void subscribe(int ap, const std::vector<RadioSpec>& radios, std::uint32_t session = 0,
                 const std::string& members = {});
  void close_session(std::uint32_t session);
  /// Seconds pass; the worker's loop runs in each of them.
  void pass(std::int64_t seconds);
  /// Waits until the running optimisation has ended and been taken.
  void finish_optimisation();

  std::shared_ptr<ApEntry> ap(int n);
  int state() const;

  static SessionAddress address(std::uint32_t session);

 private:
  StoppedClock clock_;
  CapturedLog log_;
  GlobalConfig global_;
  RecordingRrm rrm_;
  std::shared_ptr<RrmWorker> worker_;
};

}  // namespace rrm::test
