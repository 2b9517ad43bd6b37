#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "tools/fleet/CrowdObserver.h"

namespace rrm::fleet {

/// Keeps book of every block from its message to its end and of every span in which a client is
/// served by nobody, and tells where a promise of the controller is broken:
///
/// - a block lasts as long as it is set to, `timeout`, and no longer;
/// - a radio refuses a client only while a block is in force there;
/// - nobody whose access point died waits longer than `timeout` for the next one.
///
/// It looks at nothing but what it is told, so it does not share the mistakes of who tells it.
/// Threading: one thread.
class SteeringAudit : public CrowdObserver {
 public:
  explicit SteeringAudit(Millis timeout) : timeout_(timeout) {}

  void on_blocked(Millis now, RadioKey radio, std::uint32_t client, Millis until) override;
  void on_unblocked(Millis now, RadioKey radio, std::uint32_t client) override;
  void on_refused(Millis now, RadioKey radio, std::uint32_t client) override;
  void on_served(Millis now, RadioKey radio, std::uint32_t client) override;
  void on_parted(Millis now, RadioKey radio, std::uint32_t client, Parting why) override;
  void on_death(Millis now, std::uint32_t ap) override;
  /// The run is over: blocks and spans that still last are judged as they are.
  void finish(Millis now);

  struct Figures {
    std::uint64_t blocks = 0;
    std::uint64_t unblocked = 0;  ///< ended by a message
    std::uint64_t expired = 0;    ///< ended by their time
    std::uint64_t renewed = 0;    ///< followed by another one before they ended
    std::uint64_t refusals = 0;
    std::uint64_t spans = 0;     ///< without a radio
    std::uint64_t orphaned = 0;  ///< of them, begun by a death
    std::uint64_t violations = 0;
    Millis longest_block = 0;
    Millis longest_span = 0;
    Millis longest_orphaned = 0;
  };
  const Figures& figures() const noexcept { return figures_; }
  /// The first violations as texts.
  const std::vector<std::string>& violations() const noexcept { return violations_; }

 private:
  struct Block {
    Millis since;
    Millis until;
  };
  struct Span {
    Millis since;
    std::uint32_t ap;  ///< that served the client before
    bool orphaned;
  };
  using BlockKey = std::uint64_t;  ///< access point, radio and client

  static BlockKey key_of(RadioKey radio, std::uint32_t client) noexcept {
    return std::uint64_t{radio.ap} << 34 | static_cast<std::uint64_t>(radio.radio) << 32 | client;
  }
  /// Books a block that ended at `end` or, if that was earlier, by its time.
  void close_block(const Block& block, Millis end, std::uint64_t& ended_so);
  void close_span(Millis now, std::uint32_t client, const Span& span);
  void violation(Millis now, const std::string& text);

  Millis timeout_;
  std::unordered_map<BlockKey, Block> blocks_;
  std::unordered_map<std::uint32_t, Span> unserved_;
  Figures figures_;
  std::vector<std::string> violations_;
};

}  // namespace rrm::fleet
