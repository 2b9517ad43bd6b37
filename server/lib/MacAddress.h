#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

/// Six-byte IEEE 802 MAC addresses: reading, printing, arithmetic and hashing.
namespace rrm {

/// Text of a MAC address with its terminating NUL; lives on the stack, so printing never allocates.
struct MacText {
  std::array<char, 18> chars{};
  const char* c_str() const noexcept { return chars.data(); }
  std::string str() const { return std::string(chars.data()); }
};

/// A MAC address or BSSID; a plain value, all zeros by default.
struct MacAddress {
  std::array<std::uint8_t, 6> bytes{};

  /// Reads "%02x:%02x:%02x:%02x:%02x:%02x" (either case) as sscanf does; all zeros when fewer than
  /// six fields convert. A null text reads as all zeros.
  static MacAddress from_text(const char* text) noexcept;
  /// The same, telling whether all six fields converted; `mac` becomes all zeros otherwise.
  static bool scan(const char* text, MacAddress& mac) noexcept;

  /// The address as a 48-bit number, first byte most significant.
  std::uint64_t number() const noexcept {
    std::uint64_t value = 0;
    for (const std::uint8_t byte : bytes) value = value << 8 | byte;
    return value;
  }
  /// The same address with the locally administered bit (0x02 of the first byte) inverted.
  MacAddress twin() const noexcept {
    MacAddress other = *this;
    other.bytes[0] = static_cast<std::uint8_t>(other.bytes[0] ^ 0x02);
    return other;
  }
  /// Equality that ignores the locally administered bit.
  bool same_but_local_bit(const MacAddress& other) const noexcept {
    return *this == other || twin() == other;
  }
  /// The last three bytes raised by `offset`, taken as a 24-bit number; the address itself when
  /// that addition wraps past 24 bits.
  MacAddress plus(std::uint32_t offset) const noexcept;

  bool is_zero() const noexcept { return number() == 0; }
  MacText upper() const noexcept;  ///< "%02X:%02X:%02X:%02X:%02X:%02X"
  MacText lower() const noexcept;  ///< "%02x:%02x:%02x:%02x:%02x:%02x"

  friend bool operator==(const MacAddress&, const MacAddress&) = default;
  friend auto operator<=>(const MacAddress&, const MacAddress&) = default;
};

/// Spreads the six bytes over the whole word (one multiplication), for the unordered maps.
struct MacHash {
  std::size_t operator()(const MacAddress& mac) const noexcept {
    const std::uint64_t mixed = mac.number() * 0x9e3779b97f4a7c15ULL;
    return static_cast<std::size_t>(mixed ^ mixed >> 32);
  }
};

}  // namespace rrm

template <>
struct std::hash<rrm::MacAddress> : rrm::MacHash {};
