#pragma once

#include <cstdint>
#include <optional>

/// How many bytes have been read from a TCP connection since it was opened, whoever read them: what
/// the kernel has received in order, less what still waits in its buffer. A peer's end of the
/// stream counts as one byte at most.
///
/// @param socket a connected TCP socket
/// @return nothing when the kernel does not tell
/// Threading: any; asks the kernel only.
std::optional<std::uint64_t> taken_bytes(int socket) noexcept;

/// How many bytes have been written to a TCP connection, received by the peer or not; only
/// differences mean something. As above otherwise.
std::optional<std::uint64_t> written_bytes(int socket) noexcept;
