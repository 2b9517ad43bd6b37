#pragma once

#include <cstdint>

/// The two clocks that the library reads.
///
/// Purpose:   everything that waits, ages or dates something asks here, so that a test can let
///            hours pass in no time; the process never installs anything.
/// Threading: read from every thread; sources are set while no other thread of the library runs.
namespace rrm {

/// CLOCK_MONOTONIC in whole seconds: deadlines and ages.
std::int64_t monotonic_seconds() noexcept;
/// Microseconds since the epoch (time of day): dates and measured durations.
std::int64_t wall_clock_us() noexcept;

/// A function to take the time from, in the unit of the clock that it replaces.
using ClockSource = std::int64_t (*)();
/// Replaces a clock; null brings the system's back.
void set_clock_sources(ClockSource monotonic_s, ClockSource wall_us) noexcept;

}  // namespace rrm
