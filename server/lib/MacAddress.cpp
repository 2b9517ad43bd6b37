#include "server/lib/MacAddress.h"

#include <cstdio>
#include <cstring>

namespace rrm {
namespace {

int hex_digit(char c) noexcept {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

/// The form every access point sends, "hh:hh:hh:hh:hh:hh", without the cost of sscanf.
bool scan_plain(const char* text, MacAddress& mac) noexcept {
  for (std::size_t i = 0; i < 6; ++i, text += 3) {
    const int high = hex_digit(text[0]);
    if (high < 0) return false;
    const int low = hex_digit(text[1]);
    if (low < 0) return false;
    if (i < 5 && text[2] != ':') return false;
    mac.bytes[i] = static_cast<std::uint8_t>(high << 4 | low);
  }
  return true;
}

MacText print(const MacAddress& mac, const char* digits) noexcept {
  MacText text;
  char* out = text.chars.data();
  for (std::size_t i = 0; i < 6; ++i) {
    *out++ = digits[mac.bytes[i] >> 4];
    *out++ = digits[mac.bytes[i] & 0x0f];
    *out++ = i < 5 ? ':' : '\0';
  }
  return text;
}

}  // namespace

bool MacAddress::scan(const char* text, MacAddress& mac) noexcept {
  mac = MacAddress{};
  if (text == nullptr) return false;
  if (scan_plain(text, mac)) return true;
  unsigned int fields[6] = {};
  const int count = std::sscanf(text, "%02x:%02x:%02x:%02x:%02x:%02x", &fields[0], &fields[1],
                                &fields[2], &fields[3], &fields[4], &fields[5]);
  mac = MacAddress{};
  if (count != 6) return false;
  for (std::size_t i = 0; i < 6; ++i) mac.bytes[i] = static_cast<std::uint8_t>(fields[i]);
  return true;
}

MacAddress MacAddress::from_text(const char* text) noexcept {
  MacAddress mac;
  scan(text, mac);
  return mac;
}

MacAddress MacAddress::plus(std::uint32_t offset) const noexcept {
  const std::uint32_t low = static_cast<std::uint32_t>(number() & 0xffffff);
  const std::uint32_t sum = (low + offset) & 0xffffff;
  if (sum < low) return *this;
  MacAddress result = *this;
  result.bytes[3] = static_cast<std::uint8_t>(sum >> 16);
  result.bytes[4] = static_cast<std::uint8_t>(sum >> 8);
  result.bytes[5] = static_cast<std::uint8_t>(sum);
  return result;
}

MacText MacAddress::upper() const noexcept { return print(*this, "0123456789ABCDEF"); }
MacText MacAddress::lower() const noexcept { return print(*this, "0123456789abcdef"); }

}  // namespace rrm
