#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "server/lib/Config.h"
#include "server/lib/MacAddress.h"
#include "server/lib/Worker.h"

namespace rrm {

/// An access point of a domain and the session it is on.
struct ApSession {
  MacAddress mac;
  SessionAddress address;
};

/// Worker of one domain.
class RrmWorker : public Worker {
 public:
  /// @param capacity messages in each of its queues
  /// @param time_zone_s offset of the domain's local time to UTC, seconds
  RrmWorker(const GlobalConfig* config, const DomainConfig& domain_config, RRM* owner,
            const std::string& name, std::size_t capacity, std::int32_t time_zone_s);

  void process_message(const JsonReader& document, const SessionAddress& address) override;
  void get_status(JsonWriter& writer) override;
  void get_status_full(JsonWriter& writer) override;

  /// The sessions of all access points it knows; inside run_locked only.
  std::vector<ApSession> ap_sessions() const;
  /// Restores the model from a domain's backup; before the thread starts, or inside run_locked.
  void load_backup(const JsonReader& backup);
};

}  // namespace rrm
