#ifndef LOGFERRY_ARA_LOG_STAGING_HPP
#define LOGFERRY_ARA_LOG_STAGING_HPP

// Staging: every thread that logs owns a queue of finished messages (one producer, the
// thread; one consumer, the flusher), and the flusher moves whole messages from all queues
// into the channel's ring, many per hold of the ring's mutex.
//
// A queue is a chain of blocks. A message is written straight into the queue's last block,
// behind a 4-byte size, and becomes visible to the consumer when the thread publishes the
// block's new end (`committed`, a release store): in the steady state the caller makes no
// system call, takes no lock and does no read-modify-write on memory another thread writes.
// A message that outgrows its block moves to a new block; the old block is finished (its
// `next` is set) and freed by the consumer once read. Blocks come out of a process-wide bound
// (`staging_limit`); a message that would need memory beyond it is dropped and counted with
// the channel's discarded records, so it reaches the regular report.
//
// One thread may have several streams open at once, and a stream may be moved to another
// thread: only the first open stream of a thread (its "primary") is written in the queue; any
// other is written in storage of its own and copied into the queue of the thread that
// finishes it (the primary, if open, is moved up behind it, so that the queue keeps the order
// in which the thread finished its messages).
//
// The flusher sleeps while there is nothing to do. While messages wait because the gate is
// closed, the ring is full or the daemon holds its mutex, it retries every millisecond, and
// every tick (50 ms) after a second of that. After 50 ms without messages it sleeps until the
// next message wakes it (at most once: the waking thread clears the flag it found set) or a
// second has passed.

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "ara_log/internal.hpp"
#include "ara_log/tuning.hpp"

namespace ara::log::detail {

/// Starts staging with the given bound: the flusher thread is started. False (and messages
/// are pushed by their callers, as without staging) when the ring writers were not offered,
/// the bound is 0, or no thread can be started.
bool start_staging(std::size_t limit) noexcept;
/// Whether messages are staged.
bool staging_on() noexcept;

/// The calling thread's storage for a new message: in its queue when no other stream of the
/// thread is open, else storage of the message's own; null when there is no memory.
Message* take_message() noexcept;
/// Gives a message's storage back after it was sent.
void give_back(Message* message) noexcept;
/// Makes room for `needed` bytes in all in `message` (moving it to a new block or growing its
/// storage); false (and the message is marked lost) when no memory is left within the bound.
bool grow(Message& message, std::size_t needed) noexcept;
/// Hands a complete message (its records end to end in `message.data`, `message.used`
/// bytes) to the calling thread's queue, or straight to the ring when the thread has no
/// queue. `urgent`: the thread's queue, this message included, is handed to the ring at
/// once, within the ring's bounded wait, before this returns.
void stage(Message& message, bool urgent) noexcept;

/// Take-down, step by step (runtime.cpp bounds the waiting): stops the flusher thread; then
/// the caller hands over with fitting passes of its own while the daemon makes progress, and
/// forces what is left into the ring (discarding the oldest records, counted, when it is
/// full), counting what even that cannot place.
void stop_flusher() noexcept;
/// One fitting pass over every queue by the calling thread (the flusher stopped); the number
/// of messages it placed.
std::size_t hand_over_pass() noexcept;
void force_rest() noexcept;
/// In a child made by fork: staging is off for good, and nothing of the parent's is touched.
void forget_staging_after_fork() noexcept;

/// Messages staged and not yet in the ring (a snapshot).
std::size_t staged_messages() noexcept;
/// Bytes of queue blocks held now (counted against the bound).
std::size_t staged_block_bytes() noexcept;
/// Waits up to `wait_ms` for the flusher to have handed over everything staged; whether it
/// did (for tests).
bool wait_until_handed_over(unsigned int wait_ms) noexcept;

}  // namespace ara::log::detail

#endif
