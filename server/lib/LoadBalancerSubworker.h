#pragma once

#include <memory>
#include <string>

#include "server/lib/ClientEvent.h"
#include "server/lib/IRrmSubworker.h"
#include "server/lib/RrmProblist.h"

namespace rrm {

/// Steers clients that have just associated towards the least loaded access point that hears them
/// well enough.
///
/// Purpose:   a client that is weak, or that joined a loaded radio, becomes pending: the access
///            points are asked how they hear it, and when all have answered or 5 seconds have
///            passed one of them is chosen. The others are told to refuse the client for a while.
/// Threading: the domain worker's thread.
class LoadBalancerSubworker : public IRrmSubworker {
 public:
  explicit LoadBalancerSubworker(const Context& context) : IRrmSubworker(context) {}

  bool process_message(const JsonReader& message, std::string_view cmd,
                       const std::shared_ptr<ApEntry>& ap) override;
  /// One second: decides on the clients that everybody answered for or whose time is over.
  void process_timer() override;

  /// Makes a client whose signal has faded pending and asks about it. One that already is pending
  /// does not become it again: nobody is asked a second time before the decision.
  void offer_client(const MacAddress& client, const std::shared_ptr<ApEntry>& ap,
                    const Radio& radio, const std::string& ssid);
  /// The client is served well again.
  void forget_pending(const MacAddress& client) { pending_.remove(client); }

  const RrmProblist& pending() const noexcept { return pending_; }

 private:
  struct Source;
  class ProbeRequests;
  struct Destination;

  void process_client_assoc(const JsonReader& message, const std::shared_ptr<ApEntry>& ap);
  void process_client_disassoc(const JsonReader& message, const std::shared_ptr<ApEntry>& ap);
  void process_client_disassoc_all(const std::shared_ptr<ApEntry>& ap);
  void process_probe_response(const JsonReader& message, const std::shared_ptr<ApEntry>& ap);
  void process_probe_list(const JsonReader& list, const ApEntry& ap, const Radio& radio);

  void remove_from_others(const ClientEvent& event, const ApEntry& ap);
  bool steer(const ClientEvent& event, const std::shared_ptr<ApEntry>& ap, Radio& radio,
             bool expected);
  bool make_pending(const MacAddress& client, const std::shared_ptr<ApEntry>& ap,
                    const Radio& radio, const std::string& ssid);
  bool post_probe_req(const MacAddress& client, const std::shared_ptr<ApEntry>& source,
                      ProbeEntry& entry);
  bool ask(const ApEntry& ap, ProbeEntry& entry, ProbeRequests& requests);
  void post_assoc_ack(const ApEntry& ap, std::int32_t radio_id, const MacAddress& client,
                      const std::string& ssid);

  void process_result(const MacAddress& client, const ProbeEntry& entry);
  Destination choose(const MacAddress& client, const ProbeEntry& entry) const;
  /// All answers are of radios of the same access point.
  bool heard_by_one_ap(const ProbeEntry& entry) const;
  bool worth_moving(const Source& source, const Destination& destination,
                    const ProbeEntry& entry) const;
  bool move_client(const MacAddress& client, const ProbeEntry& entry, const Source& source,
                   const Destination& destination);

  std::int32_t lock_balancer() const noexcept;

  RrmProblist pending_;  ///< clients that the access points were asked about
};

}  // namespace rrm
