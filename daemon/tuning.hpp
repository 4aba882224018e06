// The daemon side's tuning: how often it looks, how long it waits, how much it buffers and
// how far it lets a peer go. Every such number of the collector, the DLT building blocks and
// logferry-monitor is here, each with the reason for its value, so that they are weighed
// against each other in one place. Byte formats (the records, the DLT headers) and the bounds
// of the options' values are not tuning and stay with the code they belong to; nor are the
// watchdog periods and limits, which both ends of a channel take from src/wire/liveness.hpp.

#ifndef LOGFERRY_TOOLS_TUNING_HPP
#define LOGFERRY_TOOLS_TUNING_HPP

#include <cstddef>
#include <cstdint>

namespace logferry_tuning {

// ---------------------------------------------------------------------------------------
// The monitor's service loop.

/// Wait after a pass that found nothing: it starts short, so that a ring that fills up fast
/// is back in reach soon, and doubles with every further idle pass up to the longest wait,
/// so that a monitor with nothing to do stays cheap.
constexpr long SHORTEST_IDLE_WAIT_US = 50;
constexpr long LONGEST_IDLE_WAIT_US = 2000;

/// The nice value the monitor raises itself to where it may (as root, or with CAP_SYS_NICE).
/// Under a flood every logging thread competes with it for the processor; at the default
/// weight one monitor thread among a hundred loggers gets about one hundredth of a core.
constexpr int MONITOR_NICE = -10;

// ---------------------------------------------------------------------------------------
// The collector.

/// Attempts to catch a ring's mutex free before going on to the next ring. An application
/// relocks its ring's mutex for every record, so trying for a short while finds it free
/// between two records, where a blocking lock keeps losing the race.
constexpr int RING_LOCK_TRIES = 20000;

/// Passes in a row a ring may be passed over because its mutex was held; the next one waits
/// for the mutex. An application whose threads hold their mutex most of the time (or one
/// that was preempted holding it) does not keep the others waiting, and is not starved.
constexpr unsigned int RING_SKIPS_BEFORE_WAITING = 4;

/// How long that pass waits for the mutex, in milliseconds, before it passes the ring over
/// once more. Much longer than a preempted holder is kept off the processor, even under load;
/// short enough that a holder that never lets go costs the other applications little: one that
/// was stopped while holding it, or one whose segment was cut under it, whose death the kernel
/// could then not record in the mutex (the pass after the wait touches the cut segment, and
/// the access fault detaches it).
constexpr long RING_LOCK_WAIT_MS = 50;

/// The same for the pass that reads what an application left when it has gone, or when the
/// monitor stops: its records are the last to come, so it waits longer.
constexpr long RING_LOCK_LAST_WAIT_MS = 1000;

/// Bytes shown of a unit that cannot be decoded: the head of any record, on one line.
constexpr std::size_t UNDECODABLE_DUMP_LIMIT = 32;

/// Refused channel names remembered (so that one announced again is refused without another
/// line); the set starts afresh beyond this, so that ever new names cannot grow it unbounded.
constexpr std::size_t REFUSED_NAMES_LIMIT = 1024;

// ---------------------------------------------------------------------------------------
// The text output.

/// Pending text written out before a pass ends: under a flood the lines go out in writes of
/// about this size rather than piling up until the pass is over.
constexpr std::size_t TEXT_FLUSH_THRESHOLD = 64 * 1024;

// ---------------------------------------------------------------------------------------
// DLT storage files.

/// Entries gather in memory and reach the file in writes of about this size: few system
/// calls under a flood, little lost with the process.
constexpr std::size_t FILE_FLUSH_THRESHOLD = 256 * 1024;

/// When more than this waits for the file's writer thread, the collector waits for it: the
/// file never loses a message, and the rings absorb what the disk holds up beyond this.
constexpr std::size_t FILE_MAX_QUEUED_BYTES = 64U << 20;

/// Files of a rotating DLT file: PATH, PATH.1 ... PATH.<count-1>. Ten files of the limit's
/// size keep a useful stretch of history with the disk use bounded.
constexpr unsigned DLT_FILE_COUNT = 10;

// ---------------------------------------------------------------------------------------
// The DLT TCP server.

/// A keep-alive to every client once a second, the pace of a DLT daemon's time message: a
/// client sees the connection alive while no application logs.
constexpr int KEEP_ALIVE_MS = 1000;

/// Bytes queued for one client before it is dropped: room for a slow client to catch up with
/// a burst, while one that never reads cannot take the monitor's memory.
constexpr std::size_t CLIENT_BACKLOG_LIMIT = 4U << 20;

/// Clients served at once unless --dlt-max-clients says otherwise: more than the viewers and
/// tools of a setup, well within the descriptors.
constexpr std::size_t DEFAULT_MAX_CLIENTS = 64;

/// Descriptors the client limit leaves to the rest of the program (files, channels being
/// attached, the spare descriptor).
constexpr std::size_t DESCRIPTORS_KEPT = 32;

/// A client's backlog is written as soon as this much waits, and the part already written is
/// cut off once this much has gone: writes of a useful size, and no move of the backlog for
/// every message.
constexpr std::size_t CLIENT_WRITE_THRESHOLD = 64 * 1024;

/// Bytes read from a client at a time: control requests are short, this takes many at once.
constexpr std::size_t CLIENT_READ_CHUNK = 16 * 1024;

/// Connections taken from the listening socket's queue per service, so that a flood of them
/// never keeps the caller from its other work for long.
constexpr int ACCEPTS_PER_SERVICE = 64;

/// How long the listening socket rests when a connection cannot be taken for want of
/// descriptors (and no spare one helps) or for another failure: no spinning on a queue that
/// cannot be served.
constexpr int LISTEN_REST_MS = 100;

}  // namespace logferry_tuning

#endif  // LOGFERRY_TOOLS_TUNING_HPP
