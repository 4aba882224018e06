// The start record's time stamp (see stamp_clock.hpp).
#include "ara_log/stamp_clock.hpp"
#include "ara_log/tuning.hpp"

#include <time.h>  // NOLINT(modernize-deprecated-headers): POSIX clock_gettime and CLOCK_MONOTONIC

#if defined(__x86_64__)
#include <cpuid.h>
#endif

#include "wire/timestamp.hpp"

namespace ara::log::detail {

Stamp_clock_state stamp_clock;
// NOLINTNEXTLINE(cppcoreguidelines-interfaces-global-init): `sys` is constant-initialised
logferry::System_lib* const seam_at_load = logferry::sys;
__thread Stamp_cache stamp_cache;

namespace {

constexpr std::uint64_t NS_PER_SECOND = 1000000000;

// The calibration's last point; only the thread that re-checks reads and writes it.
struct Calibration_point {
    std::uint64_t ticks = 0;
    std::uint64_t ns = 0;
    bool taken = false;
    bool calibrated = false;
};
Calibration_point last_point;

bool read_monotonic(std::uint64_t& ns)
{
    timespec now{};
    if (logferry::sys->clock_gettime(CLOCK_MONOTONIC, &now) != 0) {
        return false;
    }
    ns = static_cast<std::uint64_t>(now.tv_sec) * NS_PER_SECOND + static_cast<std::uint64_t>(now.tv_nsec);
    return true;
}

// One point of the calibration: the clock read between two counter reads, the counter taken
// half-way; of several tries the one whose counter reads lie closest together, so that a
// thread preempted between the reads does not skew the rate.
bool read_point(int mode, std::uint64_t& ticks, std::uint64_t& ns)
{
    std::uint64_t tightest = ~std::uint64_t{0};
    for (int i = 0; i < TUNING.point_tries; ++i) {
        const std::uint64_t before = read_counter(mode);
        std::uint64_t clock = 0;
        if (!read_monotonic(clock)) {
            return false;
        }
        const std::uint64_t after = read_counter(mode);
        if (after < before) {
            return false;
        }
        if (after - before < tightest) {
            tightest = after - before;
            ticks = before + (after - before) / 2;
            ns = clock;
        }
    }
    return true;
}

// Whether the processor has a counter that runs at a constant rate on every processor.
bool processor_has_counter()
{
#if defined(__x86_64__)
    unsigned int eax = 0;
    unsigned int ebx = 0;
    unsigned int ecx = 0;
    unsigned int edx = 0;
    // The invariant time-stamp counter: constant rate in every power state.
    constexpr unsigned int INVARIANT_TSC = 1U << 8;
    return __get_cpuid(0x80000007, &eax, &ebx, &ecx, &edx) != 0 && (edx & INVARIANT_TSC) != 0;
#elif defined(__aarch64__)
    return true;  // the architecture's virtual counter: one system-wide rate
#else
    return false;
#endif
}

void switch_off() noexcept { stamp_clock.mode.store(kNoCounter, std::memory_order_relaxed); }

}  // namespace

std::uint32_t stamp_from_clock() noexcept
{
    const int mode = stamp_clock.mode.load(std::memory_order_relaxed);
    const bool counted = mode != kNoCounter && logferry::sys == stamp_clock.seam.load(std::memory_order_relaxed);
    // The counter first: the clock read after it is at least as late.
    const std::uint64_t ticks = counted ? read_counter(mode) : 0;
    timespec now{};
    if (logferry::sys->clock_gettime(CLOCK_MONOTONIC, &now) != 0) {
        return 0;  // as the free functions: 0 when the clock cannot be read
    }
    const std::uint32_t unit = logferry::wire::stamp_of(now);
    const std::uint64_t rate = stamp_clock.ticks_per_ns_q32.load(std::memory_order_relaxed);
    if (counted && rate != 0) {
        constexpr std::uint64_t unit_ns = logferry::wire::NS_PER_STAMP_UNIT;
        const std::uint64_t left_ns = unit_ns - static_cast<std::uint64_t>(now.tv_nsec) % unit_ns;
        Stamp_cache& cache = stamp_cache;
        cache.from = ticks;
        cache.span = left_ns > TUNING.margin_ns ? ((left_ns - TUNING.margin_ns) * rate) >> 32 : 0;
        cache.unit = unit;
    }
    return unit;
}

void stamp_clock_start(const logferry::System_lib* own_seam) noexcept
{
    logferry::System_lib* const seam = logferry::sys;
    const bool library_seam = seam == own_seam || seam == seam_at_load;
    if (!library_seam || !processor_has_counter()) {
        return;
    }
    stamp_clock.ticks_per_ns_q32.store(0, std::memory_order_relaxed);
    stamp_clock.seam.store(seam, std::memory_order_relaxed);
    last_point = Calibration_point{};
    stamp_clock.mode.store(kProcessor, std::memory_order_relaxed);
    stamp_clock_recheck();
}

void stamp_clock_use(Counter_reader reader) noexcept
{
    switch_off();
    stamp_clock.ticks_per_ns_q32.store(0, std::memory_order_relaxed);
    stamp_cache = Stamp_cache{};
    last_point = Calibration_point{};
    stamp_clock.fake = reader;
    stamp_clock.seam.store(logferry::sys, std::memory_order_relaxed);
    if (reader != nullptr) {
        stamp_clock.mode.store(kFake, std::memory_order_relaxed);
        stamp_clock_recheck();
    }
}

void stamp_clock_recheck() noexcept
{
    const int mode = stamp_clock.mode.load(std::memory_order_relaxed);
    if (mode == kNoCounter || logferry::sys != stamp_clock.seam.load(std::memory_order_relaxed)) {
        return;
    }
    std::uint64_t ticks = 0;
    std::uint64_t ns = 0;
    if (!read_point(mode, ticks, ns)) {
        return;
    }
    if (!last_point.taken) {
        last_point = Calibration_point{ticks, ns, true, false};
        return;
    }
    const std::uint64_t interval = last_point.calibrated ? TUNING.recheck_ns : TUNING.first_calibration_ns;
    if (ns - last_point.ns < interval) {
        return;
    }
    if (ticks <= last_point.ticks) {
        switch_off();  // a counter that stood still or ran backwards
        return;
    }
    const double rate = static_cast<double>(ticks - last_point.ticks) / static_cast<double>(ns - last_point.ns);
    if (rate < TUNING.slowest_rate || rate > TUNING.fastest_rate) {
        switch_off();
        return;
    }
    const double bound = rate * static_cast<double>(TUNING.rate_kept_per_mille) / 1000.0;
    stamp_clock.ticks_per_ns_q32.store(static_cast<std::uint64_t>(bound * 4294967296.0), std::memory_order_relaxed);
    last_point = Calibration_point{ticks, ns, true, true};
}

}  // namespace ara::log::detail
