#ifndef LOGFERRY_ARA_LOG_STAMP_CLOCK_HPP
#define LOGFERRY_ARA_LOG_STAMP_CLOCK_HPP

// The start record's time stamp: the monotonic clock in 0.1 ms units (modulo 2^32), the same
// number the free functions compute from CLOCK_MONOTONIC, taken as cheaply as the processor
// allows.
//
// How. Each thread remembers the unit it last read from CLOCK_MONOTONIC (through the system
// seam) together with the processor's free-running counter at that moment, and for how many
// counter ticks the monotonic clock is sure to stay inside that unit: the time left to the
// unit's end, less a margin, times a lower bound of the counter's rate. While the counter
// stays inside that span, the unit is returned without asking the clock; the first read past
// it asks CLOCK_MONOTONIC again. So the stamp is exactly the monotonic clock's unit at some
// moment of the call (never off by a unit, never going backwards), at the cost of one
// counter read for all but the first message of each 0.1 ms of a thread.
//
// The rate's lower bound comes from a calibration against CLOCK_MONOTONIC, taken 10 ms after
// logging comes up and re-checked about once a second by the flusher (stamp_clock_recheck):
// 99 % of the rate measured over the last interval. Until it is known, and wherever there is
// no usable counter (not x86-64 with an invariant time-stamp counter, nor 64-bit Arm's
// virtual counter), or when the system seam is not the library's own (a test's fake clock),
// every stamp reads CLOCK_MONOTONIC through the seam. A counter that runs backwards or at an
// absurd rate switches the counter off for good.

#include <atomic>
#include <cstdint>

#if defined(__x86_64__)
#include <x86intrin.h>
#endif

#include "logferry/system.hpp"

namespace ara::log::detail {

/// Reads a counter that stands in for the processor's (tests).
using Counter_reader = std::uint64_t (*)() noexcept;

/// Where the stamp comes from.
enum Counter_mode : int {
    kNoCounter = 0,  ///< CLOCK_MONOTONIC through the seam, every time
    kProcessor = 1,  ///< the processor's counter
    kFake = 2,       ///< a counter given by a test
};

struct Stamp_clock_state {
    std::atomic<int> mode{kNoCounter};
    /// The seam the counter was checked against; any other one is asked every time.
    std::atomic<logferry::System_lib*> seam{nullptr};
    /// Lower bound of the counter's ticks per nanosecond, times 2^32; 0 until calibrated.
    std::atomic<std::uint64_t> ticks_per_ns_q32{0};
    Counter_reader fake = nullptr;
};
extern Stamp_clock_state stamp_clock;

/// Per thread: the unit last read, the counter then, and for how many ticks it holds.
/// Zero-initialised and trivial, so that reaching it costs no initialisation check.
struct Stamp_cache {
    std::uint64_t from;
    std::uint64_t span;
    std::uint32_t unit;
};
extern __thread Stamp_cache stamp_cache;

/// The processor's counter (0 where there is none).
inline std::uint64_t processor_counter() noexcept
{
#if defined(__x86_64__)
    return __rdtsc();
#elif defined(__aarch64__)
    std::uint64_t ticks = 0;
    asm volatile("mrs %0, cntvct_el0" : "=r"(ticks));
    return ticks;
#else
    return 0;
#endif
}

inline std::uint64_t read_counter(int mode) noexcept
{
    return mode == kProcessor ? processor_counter() : stamp_clock.fake();
}

/// The stamp, asking CLOCK_MONOTONIC (the thread's span is renewed when the rate is known).
std::uint32_t stamp_from_clock() noexcept;

/// The start record's stamp for a message made now.
inline std::uint32_t stamp_now() noexcept
{
    const int mode = stamp_clock.mode.load(std::memory_order_relaxed);
    if (mode != kNoCounter && logferry::sys == stamp_clock.seam.load(std::memory_order_relaxed)) {
        const Stamp_cache& cache = stamp_cache;
        // Unsigned: a counter below `from` (another processor's, behind) gives a huge value.
        if (read_counter(mode) - cache.from < cache.span) {
            return cache.unit;
        }
    }
    return stamp_from_clock();
}

/// The seam `sys` pointed at when this library was loaded: the library's own, unless the
/// program replaced it before.
extern logferry::System_lib* const seam_at_load;
/// Uses the processor's counter from now on, when it has a usable one and `sys` is the seam
/// it had at load (or `own_seam`, a seam of this library with the same clock); starts the
/// calibration.
void stamp_clock_start(const logferry::System_lib* own_seam) noexcept;
/// Calibrates the counter's rate 10 ms after the start and re-checks it when a second has
/// passed since the last check; cheap otherwise. Called by one thread at a time.
void stamp_clock_recheck() noexcept;
/// Tests: uses `reader` as the counter (null: no counter at all) against the present seam,
/// with the rate unknown until calibrated; forgets the calling thread's span.
void stamp_clock_use(Counter_reader reader) noexcept;

}  // namespace ara::log::detail

#endif
