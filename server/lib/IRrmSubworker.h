#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "server/lib/ApMap.h"
#include "server/lib/Config.h"
#include "server/lib/JsonReader.h"
#include "server/lib/TimerList.h"

namespace rrm {

class RrmWorker;

/// One algorithm of a domain, run by the domain's worker.
///
/// Purpose:   the worker keeps the access points and hands every message on to the sub-worker whose
///            algorithm it feeds; sub-workers reach each other through the worker.
/// Threading: the domain worker's thread, under its processing lock.
/// Ownership: the worker owns its sub-workers; what the context points to belongs to the worker.
class IRrmSubworker {
 public:
  /// What every sub-worker is given of its domain.
  struct Context {
    const DomainConfig* config;
    const std::string* domain;
    RrmWorker* worker;
    ApMap* aps;             ///< subscribed
    ApMap* aps_to_delete;   ///< session gone, kept for a while
    ApMap* unanswered_aps;  ///< parked until the running round ends
  };

  explicit IRrmSubworker(const Context& context) : context_(context) {}
  IRrmSubworker(const IRrmSubworker&) = delete;
  IRrmSubworker& operator=(const IRrmSubworker&) = delete;

  /// The domain's access points or their radios have changed.
  virtual void force_optimization() {}
  /// @param cmd  the message's "cmd"
  /// @param ap   the access point that sent it
  /// @return true
  virtual bool process_message(const JsonReader& message, std::string_view cmd,
                               const std::shared_ptr<ApEntry>& ap) = 0;
  virtual void process_timer() = 0;
  /// Stops timers and threads.
  virtual void stop() { timers_.clear(); }
  virtual ~IRrmSubworker() = default;

  void run_timers(std::int64_t now_s) { timers_.run_due(now_s); }

 protected:
  const DomainConfig& config() const noexcept { return *context_.config; }
  const std::string& domain() const noexcept { return *context_.domain; }
  const char* domain_name() const noexcept { return context_.domain->c_str(); }
  RrmWorker& worker() const noexcept { return *context_.worker; }
  ApMap& aps() const noexcept { return *context_.aps; }
  ApMap& aps_to_delete() const noexcept { return *context_.aps_to_delete; }
  ApMap& unanswered_aps() const noexcept { return *context_.unanswered_aps; }
  TimerList& timers() noexcept { return timers_; }

 private:
  Context context_;
  TimerList timers_;
};

}  // namespace rrm
