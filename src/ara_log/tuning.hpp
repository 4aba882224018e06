#ifndef LOGFERRY_ARA_LOG_TUNING_HPP
#define LOGFERRY_ARA_LOG_TUNING_HPP

// The ara::log front end's tuning settings in one place, each with its default and the reason
// for it. Only the staging limit changes at run time (LOGFERRY_STAGING_LIMIT); the rest are the
// design's.

#include <chrono>
#include <cstddef>
#include <cstdint>

#include "wire/liveness.hpp"

namespace ara::log::detail {

struct Front_end_tuning {
    // Staging: the per-thread queues.

    /// Bytes of queue blocks staging holds at most: room for about 250 000 typical messages
    /// (60 bytes and their size), a start-up burst of 100 000 with room to spare.
    std::size_t staging_limit = std::size_t{16} << 20;
    /// Bytes of an ordinary queue block: some 500 typical messages, so that a block is taken
    /// from the heap rarely, and a drained thread keeps little.
    std::size_t block_size = std::size_t{32} << 10;
    /// A message is started in its queue's block only with this much room left there: most
    /// messages then fit without moving to the next block.
    std::size_t min_room = 256;
    /// A message of its own storage (a second open stream of a thread) starts with room for a
    /// typical message, so that it does not grow.
    std::size_t initial_capacity = 512;
    /// Such storage that grew beyond this is freed rather than kept for the next one.
    std::size_t keep_capacity = 16384;
    /// At most this many such storages wait for reuse per thread.
    unsigned int pool_size = 8;

    // The flusher.

    /// The longest it waits for the ring's mutex before it tries again later: a daemon that
    /// holds the mutex holds up only the flusher, and not for long.
    std::uint32_t flush_wait_us = 1000;
    /// The most bytes it places in one hold of the ring's mutex: half the ring, so that the
    /// daemon can read the first half while the flusher writes the second.
    std::size_t bytes_per_hold = std::size_t{64} << 10;
    /// While messages wait (gate closed, ring full, mutex held) it retries this often...
    std::chrono::milliseconds retry_period{1};
    /// ...and once that has lasted `slow_retry_after`, every receiver-thread tick, so that a
    /// daemon that stays away costs no more wake-ups than the receiver thread's.
    std::chrono::milliseconds slow_retry_period{logferry::wire::RECEIVER_TICK_MS};
    std::chrono::milliseconds slow_retry_after{1000};
    /// While messages come it looks this often without being woken: a woken flusher would
    /// cost every message a system call.
    std::chrono::milliseconds active_period{1};
    /// After this long without a message it sleeps until the next message wakes it...
    std::chrono::milliseconds quiet_spell{50};
    /// ...or this long at the most.
    std::chrono::milliseconds idle_period{1000};

    // Messages that bypass the flusher.

    /// A message that must reach the ring at once (fatal) waits this long for its mutex: the
    /// ring's own bounded wait.
    std::uint32_t urgent_wait_us = 1000;
    /// Without staging, a message waits this long for the ring's mutex and is then dropped
    /// and counted: the same bound.
    std::uint32_t ring_wait_us = 1000;

    // The take-down at exit.

    /// How long it waits for a daemon that holds the lock to attach, and for an attached
    /// daemon that makes no progress: what an application's end may cost.
    std::chrono::milliseconds attach_wait{1000};
    std::chrono::milliseconds progress_wait{1000};
    /// How often it looks meanwhile: a short life ends within a millisecond of the read.
    std::chrono::milliseconds take_down_poll{1};

    // The time stamp's counter.

    /// Kept free before a unit's end: covers a counter of another processor that runs a
    /// little ahead or behind.
    std::uint64_t margin_ns = 2000;
    /// The first calibration interval: long enough for a rate within 0.1 %, short enough
    /// that a short life gets the cheap stamp.
    std::uint64_t first_calibration_ns = 20000000;
    /// The interval between re-checks: a counter that changes its rate is caught within it.
    std::uint64_t recheck_ns = 1000000000;
    /// The bound kept below the measured rate, in 1/1000: a rate measured 2 % too high still
    /// never carries a stamp into the next unit.
    std::uint64_t rate_kept_per_mille = 980;
    /// A calibration point is the tightest of this many counter-clock-counter readings, so
    /// that a reading the scheduler interrupted does not skew it.
    int point_tries = 5;
    /// Rates outside these (ticks per nanosecond) are no working counter.
    double slowest_rate = 0.001;
    double fastest_rate = 100.0;
};

/// The settings in force.
inline constexpr Front_end_tuning TUNING{};

}  // namespace ara::log::detail

#endif
