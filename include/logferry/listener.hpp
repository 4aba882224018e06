#ifndef LOGFERRY_LISTENER_HPP
#define LOGFERRY_LISTENER_HPP

#include <sys/mman.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "logferry/channel.hpp"
#include "logferry/export.hpp"
#include "logferry/system.hpp"

namespace logferry {

constexpr std::uint32_t LISTENER_SEGMENT_SIZE = 1144;  ///< Bytes of the listener segment.
constexpr std::uint32_t LISTENER_ENTRY_COUNT = 32;     ///< Entries in the listener list.
constexpr std::uint32_t LISTENER_NAME_SIZE = 32;       ///< Bytes of a channel name in an entry.

/// One announcement in the listener list. A first name byte of 0 marks a free entry; a name of
/// exactly LISTENER_NAME_SIZE bytes has no terminating NUL.
struct __attribute__((packed)) Listener_entry {
    char channel_name[LISTENER_NAME_SIZE];  ///< The announced channel's name, zero-padded.
    std::uint8_t picked_up;                 ///< Set by the daemon when it hands the name out.
    std::uint8_t watchdog_reset;            ///< Set by an application whenever it fills or empties the entry.
};

static_assert(offsetof(Listener_entry, channel_name) == 0, "listener entry layout");
static_assert(offsetof(Listener_entry, picked_up) == 32, "listener entry layout");
static_assert(offsetof(Listener_entry, watchdog_reset) == 33, "listener entry layout");
static_assert(sizeof(Listener_entry) == 34, "listener entry size");
static_assert(alignof(Listener_entry) == 1, "listener entry must not need alignment");

/// The system-wide listener segment "/logferry-daemon-listener", created zero-filled by the
/// daemon. `list_mutex` guards every other byte. The mutex keeps its 48-byte slot on every
/// platform so that the daemon and the applications agree on the offsets.
struct Listener_segment {
    Listener_entry entries[LISTENER_ENTRY_COUNT];  ///< The announcements.
    Mutex_slot list_mutex;                         ///< Robust process-shared mutex guarding the list.
    std::uint8_t read_index;                       ///< The entry the daemon hands out next.
    std::uint8_t write_index;                      ///< The entry an application fills next.
    unsigned char reserved[6];                     ///< Unused, zero.
};

static_assert(offsetof(Listener_segment, entries) == 0, "listener segment layout");
static_assert(offsetof(Listener_segment, list_mutex) == 1088, "listener segment layout");
static_assert(sizeof(Listener_segment::list_mutex) == 48, "listener segment layout");
static_assert(offsetof(Listener_segment, read_index) == 1136, "listener segment layout");
static_assert(offsetof(Listener_segment, write_index) == 1137, "listener segment layout");
static_assert(offsetof(Listener_segment, reserved) == 1138, "listener segment layout");
static_assert(sizeof(Listener_segment::reserved) == 6, "listener segment layout");
static_assert(sizeof(Listener_segment) == LISTENER_SEGMENT_SIZE, "listener segment size");

/// The listener list, from either end. The daemon's instance (`listening` true) creates the
/// segment, holds the lock on the lock file for as long as it runs and keeps the proxy
/// watchdogs; an application's instance only opens the segment while the lock is held, announces
/// its channel there and withdraws the announcement again.
class LOGFERRY_API Logferry_listener {
public:
    /// The daemon's end when `listening_`, else an application's; not initialised. The lock
    /// file is "ara_DLT/logferry-daemon-listener.lock" under the run-state directory.
    explicit Logferry_listener(bool listening_)
        : lock_file(-1),
          segment(static_cast<Listener_segment*>(MAP_FAILED)),
          listening(listening_),
          lock_listener_name(get_full_adaptive_runstate_directory() + "/ara_DLT/logferry-daemon-listener.lock")
    {}

    /// \name Segment and lock file life cycle
    ///@{

    /// The daemon's end takes the lock on the lock file and creates the segment; an
    /// application's end opens the segment, but only while the daemon holds the lock. True
    /// when initialised (also when it already was).
    bool init();
    /// The daemon's end: sizes the segment open on `fd`, maps it, zeroes it and sets up the
    /// robust list mutex.
    bool init_shm(int fd);
    /// An application's end: maps the segment open on `fd`.
    bool open_shm(int fd);
    /// Unmaps the segment.
    void uninit_shm();
    /// Unmaps the segment; the daemon's end also removes the segment and the lock file. The
    /// lock file stays open (and locked) until the next `init` or destruction.
    void uninit();
    /// Moves the lock file to "/tmp/logferry-daemon-listener.lock" when the run-state
    /// directory has no "ara_DLT" directory, and keeps it there from then on.
    void check_lock_listener_name();
    /// Whether the segment is mapped.
    bool is_initialized() const;
    /// Whether this is the daemon's end.
    bool is_listening() const;
    /// Makes this an application's end.
    void disable_listening();
    /// Undoes `init`; closing the lock file releases the daemon's lock.
    ~Logferry_listener();
    ///@}

    Logferry_listener(const Logferry_listener&) = delete;
    Logferry_listener& operator=(const Logferry_listener&) = delete;

    /// \name List operations
    /// Application: push, check_list, pop. Daemon: get_next, has_new_entry, is_empty,
    /// check_watchdogs. The _unsynced variant and sync_list expect list_mutex held.
    ///@{

    /// Announces the channel `name` (at most 32 bytes) in the next free entry and remembers
    /// that entry; false when the list is full, not open or the name does not fit.
    bool push(const std::string& name);
    /// Whether the own announcement of `name` still stands. Counts the checks the daemon
    /// has not acknowledged by picking the name up, and withdraws the announcement (false)
    /// when there are too many.
    bool check_list(const std::string& name);
    /// Withdraws the own announcement; false when there is none.
    bool pop();
    /// Empties the own entry and forgets it.
    void pop_unsynced();
    /// The daemon's end: the next announced name not yet handed out, marked as picked up;
    /// empty when there is none.
    std::string get_next();
    /// Whether some entry holds a name not yet handed out.
    bool has_new_entry();
    /// Whether every entry is free.
    bool is_empty();
    /// The daemon's end: frees entries whose announcement nobody finished in time.
    void check_watchdogs();
    /// Moves both indices onto entries that can be read and filled.
    void sync_list();
    ///@}

    File_descriptor_guard lock_file;         ///< The lock file, held open (and, by the daemon, locked).
    Listener_segment* segment;               ///< The mapping, MAP_FAILED when none.
    bool listening;                          ///< This is the daemon's end.
    bool initialized = false;                ///< The segment is mapped.
    std::int16_t own_entry = -1;             ///< The entry of the own announcement, -1 when none.
    std::uint8_t unacknowledged_checks = 0;  ///< `check_list` calls since the announcement, not picked up.
    /// Daemon only: per entry the monotonic second at which it expires; 0 when not armed.
    std::unique_ptr<std::int64_t[]> proxy_watchdogs;
    std::string lock_listener_name;  ///< Path of the lock file.
};

}  // namespace logferry

#endif
