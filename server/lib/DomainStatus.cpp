#include "server/lib/DomainStatus.h"

#include <string>

#include "server/lib/Hooks.h"
#include "server/lib/RrmWorker.h"
#include "server/lib/TpcDcaSubworker.h"

namespace rrm {

namespace {

/// "<name>-expected" (average, microseconds) and "<name>-count".
void write_time(JsonWriter& object, const std::string& name, const HandlingTime& time) {
  object.add(name + "-expected", time.average_us());
  object.add(name + "-count", time.count());
}

void write_metrics(const RrmWorker& worker, JsonWriter& details) {
  const PlannerTimes& times = worker.tpc_dca().times();
  JsonWriter metrics = JsonWriter::object(details, "metrics");
  write_time(metrics, "rrm-response", times.response);
  write_time(metrics, "rrm-mode-response", times.mode_response);
  write_time(metrics, "rrm-config-changed", worker.config_changed_time());
  write_time(metrics, "timer-request-modes", times.request_modes);
  write_time(metrics, "timer-request-scan", times.request_scan);
  write_time(metrics, "timer-optimize", times.optimize);
}

/// The maps under the names that status and backup know them by.
struct NamedMap {
  const char* key;
  const ApMap& map;
};

template <class Write>
void write_maps(const RrmWorker& worker, JsonWriter& parent, const Write& write) {
  const NamedMap maps[] = {{"aps", worker.aps()},
                           {"unanswered-aps", worker.unanswered_aps()},
                           {"deleted-aps", worker.aps_to_delete()}};
  for (const NamedMap& named : maps) {
    JsonWriter array = JsonWriter::array(parent, named.key);
    write(named.map, array);
  }
}

}  // namespace

void write_domain_details(const RrmWorker& worker, JsonWriter& parent) {
  JsonWriter details = JsonWriter::object(parent, "details");
  details.add("name", worker.name());
  write_metrics(worker, details);
  details.add("ap-count", std::uint64_t{worker.aps().size()});
  details.add("unanswered-ap-count", std::uint64_t{worker.unanswered_aps().size()});
  details.add("deleted-ap-count", std::uint64_t{worker.aps_to_delete().size()});
  details.add("queue-size", std::uint64_t{worker.queue_size()});
  details.add("rrm-status", static_cast<std::int32_t>(worker.tpc_dca().state()));
  details.add("fbt-status", worker.tpc_dca().fbt_status());
  write_maps(worker, details,
             [](const ApMap& map, JsonWriter& array) { map.list_to_json(array, false); });
}

void write_domain_maps(const RrmWorker& worker, JsonWriter& parent) {
  write_maps(worker, parent, [](const ApMap& map, JsonWriter& array) { map.to_json(array); });
}

void log_domain_state(const RrmWorker& worker) {
  const PlannerTimes& times = worker.tpc_dca().times();
  const auto average = [](const HandlingTime& time) {
    return static_cast<long long>(time.average_us());
  };
  const auto count = [](const HandlingTime& time) { return static_cast<int>(time.count()); };
  constexpr const char* kSeparator = "\n\t";
  RRM_LOG(Debug,
          "Domain %s state (%d) aps: %zu unanswered_aps: %zu aps_to_delete: %zu queued: %zu "
          "load_balancer_lock: %d load_balancer_stop: %d counter: %d%sMetrics: subscribe-request "
          "%lld/%d unsubscribe-request %lld/%d%srrm-response %lld/%d rrm-mode-response %lld/%d "
          "rrm-config-changed %lld/%d%stimer-request-modes %lld/%d timer-request-scan %lld/%d "
          "timer-optimize %lld/%d",
          worker.name().c_str(), static_cast<int>(worker.tpc_dca().state()), worker.aps().size(),
          worker.unanswered_aps().size(), worker.aps_to_delete().size(), worker.queue_size(),
          worker.load_balancer_lock(), worker.load_balancer_stop(), worker.counter(), kSeparator,
          average(worker.subscribe_time()), count(worker.subscribe_time()),
          average(worker.unsubscribe_time()), count(worker.unsubscribe_time()), kSeparator,
          average(times.response), count(times.response), average(times.mode_response),
          count(times.mode_response), average(worker.config_changed_time()),
          count(worker.config_changed_time()), kSeparator, average(times.request_modes),
          count(times.request_modes), average(times.request_scan), count(times.request_scan),
          average(times.optimize), count(times.optimize));
}

}  // namespace rrm
