#ifndef LOGFERRY_SYSTEM_TIMED_LOCK_HPP
#define LOGFERRY_SYSTEM_TIMED_LOCK_HPP

// A bounded wait for a mutex of a shared segment, for the two ends that must never wait
// without end: the application's bounded push and the daemon side's reading of a ring. Header
// only: it exports nothing, and the daemon side uses it as the library does.

#include <pthread.h>

#include <cerrno>
#include <cstdint>
#include <ctime>

namespace logferry {

/// Waits up to `wait_us` microseconds for `mutex` and returns what the timed lock returned (0,
/// EOWNERDEAD, ETIMEDOUT, ...; the caller settles a dead holder). The wait is the kernel's own
/// timed wait, called directly, not through the system seam: the seam has no timed lock, and
/// the deadline must be on the clock that lock waits on, the real-time clock (the only one
/// every C library and sanitizer knows for it; a step of that clock during the wait lengthens
/// or shortens it by the step), whatever clock the seam reports.
inline int timed_lock_within(pthread_mutex_t* mutex, std::uint64_t wait_us)
{
    timespec deadline{};
    if (::clock_gettime(CLOCK_REALTIME, &deadline) != 0) {
        return errno;
    }
    const std::uint64_t nanoseconds = static_cast<std::uint64_t>(deadline.tv_nsec) + wait_us * 1000;
    deadline.tv_sec += static_cast<time_t>(nanoseconds / 1000000000);
    deadline.tv_nsec = static_cast<long>(nanoseconds % 1000000000);
    return ::pthread_mutex_timedlock(mutex, &deadline);
}

}  // namespace logferry

#endif  // LOGFERRY_SYSTEM_TIMED_LOCK_HPP
