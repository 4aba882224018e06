#ifndef LOGFERRY_WIRE_TIMESTAMP_HPP
#define LOGFERRY_WIRE_TIMESTAMP_HPP

// The start record's time stamp: CLOCK_MONOTONIC in units of 0.1 ms, modulo 2^32. Both
// front ends (the free functions' log_start and ara::log's stamp clock) turn a reading of
// the clock into the record's number here, and the daemon side reads it back with the same
// unit.

#include <time.h>  // NOLINT(modernize-deprecated-headers): POSIX timespec

#include <cstdint>

namespace logferry::wire {

/// Units of the time stamp in one second, and nanoseconds in one unit (0.1 ms).
constexpr std::uint32_t STAMP_UNITS_PER_SECOND = 10000;
constexpr std::uint32_t NS_PER_STAMP_UNIT = 100000;

static_assert(std::uint64_t{STAMP_UNITS_PER_SECOND} * NS_PER_STAMP_UNIT == 1000000000, "0.1 ms units");

/// The time stamp of a reading of CLOCK_MONOTONIC: its whole units, modulo 2^32.
inline std::uint32_t stamp_of(const timespec& now) noexcept
{
    return static_cast<std::uint32_t>(now.tv_sec) * STAMP_UNITS_PER_SECOND +
           static_cast<std::uint32_t>(now.tv_nsec / NS_PER_STAMP_UNIT);
}

}  // namespace logferry::wire

#endif  // LOGFERRY_WIRE_TIMESTAMP_HPP
