#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>

#include "server/lib/MacAddress.h"
#include "server/lib/MacMap.h"

namespace rrm {

/// What is known of one client that the probe-response balancer asked the access points about.
struct ProbeEntry {
  MacMap<std::int32_t> heard;   ///< radio MAC, RSSI of the client there, dBm
  MacSet awaited;               ///< radios whose answer is still missing
  std::string ssid;             ///< every update must name the same, non-empty SSID
  MacAddress mac;               ///< given at creation: who reported the client first
  std::uint32_t countdown = 0;  ///< life counter, kept by the balancer

  void set_heard(const MacAddress& bssid, std::int32_t rssi_dbm, const std::string& of_ssid);
  void stop_awaiting(const MacAddress& bssid, const std::string& of_ssid);
  /// The awaited element for a BSSID, or null.
  const MacAddress* is_awaited(const MacAddress& bssid) const;
  void clear();
};

/// Clients by MAC that a domain's access points were asked about.
///
/// Purpose:   only keeps the data; the probe-response balancer fills it and decides on it.
/// Threading: the domain worker's thread only.
class RrmProblist {
 public:
  using Map = std::unordered_map<MacAddress, ProbeEntry>;

  /// Inserts unless the client has an entry.
  void add(const MacAddress& client, const ProbeEntry& entry);
  ProbeEntry* find(const MacAddress& client);
  const ProbeEntry* find(const MacAddress& client) const;
  void remove(const MacAddress& client);

  // The operations of an entry, for a client that may have none.
  void set_heard(const MacAddress& client, const MacAddress& bssid, std::int32_t rssi_dbm,
                 const std::string& ssid);
  void stop_awaiting(const MacAddress& client, const MacAddress& bssid, const std::string& ssid);
  const MacAddress* is_awaited(const MacAddress& client, const MacAddress& bssid) const;
  void clear();

  std::size_t size() const noexcept { return entries_.size(); }
  Map& entries() noexcept { return entries_; }
  const Map& entries() const noexcept { return entries_; }

 private:
  Map entries_;
};

/// The Debug record of a dropped entry.
void log_problist_drop(const char* reason);

}  // namespace rrm
