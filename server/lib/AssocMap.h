#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "server/lib/JsonReader.h"
#include "server/lib/JsonWriter.h"
#include "server/lib/MacAddress.h"
#include "server/lib/MacMap.h"

namespace rrm {

/// A client associated to a radio.
struct AssocClient {
  std::int32_t dbm_signal = 0;  ///< RSSI of the client at the access point, dBm
  std::uint64_t since = 0;      ///< monotonic seconds; 0 when it came from an access point's list
  std::string ssid;
  bool no_balance = false;  ///< excluded from balancing
  bool flag = false;        ///< stored with the client; always false today
};

/// A client just steered away from (target_ap, radio_id), expected to arrive.
struct ExpectedClient {
  MacAddress target_ap;
  std::int32_t radio_id = 0;
  std::int32_t countdown = 0;  ///< calls of age_expected() until it is forgotten
};

/// The clients of one radio: those associated and those expected to arrive.
///
/// Threading: the domain worker's thread only.
class AssocMap {
 public:
  /// Clients that one radio can have; no access point may fill the memory. Further ones are refused
  /// with a Warning record.
  static constexpr std::size_t kMaxClients = 8192;

  /// Associated plus expected clients: the load figure of the balancers.
  std::size_t count() const noexcept { return associated_.size() + expected_.size(); }

  /// Replaces the associated clients by an "assoclist" array; a null array changes nothing.
  /// Elements without MAC or SSID are skipped; a MAC listed twice keeps its first entry.
  void from_json(const JsonReader& assoclist);

  /// Nothing without an SSID; `since` becomes the current monotonic second.
  void add_client(const MacAddress& mac, std::int32_t rssi_dbm, const std::string& ssid,
                  bool no_balance, bool flag);
  void replace_client(const MacAddress& mac, const AssocClient& client);
  void remove_client(const MacAddress& mac);
  /// @return true when the client is associated and the reading is negative (others are ignored)
  bool update_rssi(const MacAddress& mac, std::int32_t rssi_dbm);
  /// Nothing when the client is associated.
  void expect_client(const MacAddress& mac, const MacAddress& target_ap, std::int32_t radio_id,
                     std::int32_t countdown);
  void forget_expected(const MacAddress& mac);
  /// Counts every expected client down and forgets those that drop below 1.
  void age_expected();
  void clear();

  /// The associated client, or null; valid until the next change.
  const AssocClient* find(const MacAddress& mac) const;
  const MacMap<AssocClient>& associated() const { return associated_; }
  const MacMap<ExpectedClient>& expected() const { return expected_; }

  void dump() const;  ///< Debug records
  /// {"mac", "dbm-signal", "ssid", "no-balance"} per associated client into an array.
  void to_json(JsonWriter& array) const;
  /// {"dbm-signal", "ssid", "no-balance"} of one client into an object.
  static void client_to_json(const AssocClient& client, JsonWriter& object);

 private:
  bool refuse(const MacAddress& mac) const;

  MacMap<AssocClient> associated_;
  MacMap<ExpectedClient> expected_;
};

}  // namespace rrm
