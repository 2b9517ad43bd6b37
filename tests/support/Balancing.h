#pragma once

#include <string>

#include "tests/support/Engine.h"

/// Domains whose clients are balanced by probe answers and blocks.
namespace rrm::test {

/// Nothing but probe balancing: thresholds -75 and -65 dBm, 5 and 20 clients, blocks of 30 s; all
/// access points are asked.
inline DomainConfig balance_config() {
  DomainConfig config = Engine::quiet_config();
  config.use_balance = true;
  config.use_all_ap_balance = true;
  return config;
}

/// A radio that takes part.
inline RadioSpec balanced_radio(int id = 0, const std::string& ssid = "office") {
  return RadioSpec{.id = id, .vaps = {{.ssid = ssid}}, .locked_balancer = 0};
}

inline Radio& radio_of(Engine& engine, int ap, int id = 0) {
  return *engine.ap(ap)->radios.find(id);
}

}  // namespace rrm::test
