#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "server/lib/SessionAddress.h"

/// The access points of a benchmark's site, numbered from 0.
namespace rrm::bench {

/// @param format  a MAC address with two places "%02x" for the number
inline std::string mac(const char* format, int number) {
  char text[18];
  std::snprintf(text, sizeof text, format, static_cast<unsigned>(number >> 8 & 0xff),
                static_cast<unsigned>(number & 0xff));
  return text;
}

inline std::string ap_mac(int ap) { return mac("00:11:22:%02x:%02x:00", ap); }

/// The envelope of a message, to which the rest and a closing brace are added.
inline std::string head(int ap, const char* cmd) {
  return std::string(R"({"service":"rrm","version":"2.4","cmd":")") + cmd + R"(","ap-mac":")" +
         ap_mac(ap) + "\",";
}

inline SessionAddress session(int ap) { return {nullptr, 0, static_cast<std::uint32_t>(ap + 1)}; }

}  // namespace rrm::bench
