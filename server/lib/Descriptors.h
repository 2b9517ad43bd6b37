#pragma once

#include <cstddef>
#include <cstdint>

namespace rrm {

/// What is kept of the process's descriptors when connections take theirs: the smaller of the two.
struct DescriptorReserve {
  std::uint64_t most;   ///< descriptors
  std::uint64_t share;  ///< of the process's limit: 8 for an eighth
};

/// Kept for files and for the others, in this order: access points are refused first, then HTTP and
/// then TCP clients. Without it libwebsockets, which tries without pause to accept what it has no
/// descriptor for, would fill a core and the log.
inline constexpr DescriptorReserve kReserveOfAccessPoints{64, 8};
inline constexpr DescriptorReserve kReserveOfHttp{32, 16};
inline constexpr DescriptorReserve kReserveOfTcp{16, 32};

/// Whether the newest connection leaves the reserve free. Any thread.
bool leaves_descriptors(int descriptor, const DescriptorReserve& reserve);

/// Whether that many descriptors could be opened just now. Any thread.
bool descriptors_available(std::size_t count);

}  // namespace rrm
