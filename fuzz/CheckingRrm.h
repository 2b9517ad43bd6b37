#pragma once

#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>

#include "server/lib/JsonReader.h"
#include "server/lib/RRM.h"

namespace rrm::fuzz {

inline void require(bool holds) {
  if (!holds) std::abort();
}

/// A dispatcher without sockets that checks that everything sent is a whole message for somebody.
class CheckingRrm : public RRM {
 public:
  using RRM::RRM;

  void send_text(const char* text, const SessionAddress& address) override { check(text, address); }
  void send_serialized(std::string&& text, const SessionAddress& address) override {
    check(text.c_str(), address);
  }
  bool is_session_alive(const SessionAddress&) const override { return true; }
  void drop_session_at_websock_worker(const SessionAddress& address, bool) override {
    require(address.id != 0);
  }

 private:
  static void check(const char* text, const SessionAddress& address) {
    const JsonReader message(text);
    require(std::string_view(message.get_str("service")) == "rrm");
    require(std::string_view(message.get_str("version")) == "2.4");
    require(*message.get_str("cmd") != '\0' && *message.get_str("ap-mac") != '\0');
    require(address.id != 0);
  }
};

}  // namespace rrm::fuzz
