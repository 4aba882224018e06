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

constexpr std::uint32_t LISTENER_SEGMENT_SIZE = 1144;
constexpr std::uint32_t LISTENER_ENTRY_COUNT = 32;
constexpr std::uint32_t LISTENER_NAME_SIZE = 32;

// One announcement in the listener list. A first name byte of 0 marks a free entry; a name of
// exactly LISTENER_NAME_SIZE bytes has no terminating NUL.
struct __attribute__((packed)) Listener_entry {
    char channel_name[LISTENER_NAME_SIZE];
    std::uint8_t picked_up;       // set by the daemon when it hands the name out
    std::uint8_t watchdog_reset;  // set by an application whenever it fills or empties the entry
};

static_assert(offsetof(Listener_entry, channel_name) == 0, "listener entry layout");
static_assert(offsetof(Listener_entry, picked_up) == 32, "listener entry layout");
static_assert(offsetof(Listener_entry, watchdog_reset) == 33, "listener entry layout");
static_assert(sizeof(Listener_entry) == 34, "listener entry size");
static_assert(alignof(Listener_entry) == 1, "listener entry must not need alignment");

// The system-wide listener segment "/logferry-daemon-listener", created zero-filled by the
// daemon. `list_mutex` guards every other byte. The mutex keeps its 48-byte slot on every
// platform so that the daemon and the applications agree on the offsets.
struct Listener_segment {
    Listener_entry entries[LISTENER_ENTRY_COUNT];
    Mutex_slot list_mutex;
    std::uint8_t read_index;   // the entry the daemon hands out next
    std::uint8_t write_index;  // the entry an application fills next
    unsigned char reserved[6];
};

static_assert(offsetof(Listener_segment, entries) == 0, "listener segment layout");
static_assert(offsetof(Listener_segment, list_mutex) == 1088, "listener segment layout");
static_assert(sizeof(Listener_segment::list_mutex) == 48, "listener segment layout");
static_assert(offsetof(Listener_segment, read_index) == 1136, "listener segment layout");
static_assert(offsetof(Listener_segment, write_index) == 1137, "listener segment layout");
static_assert(offsetof(Listener_segment, reserved) == 1138, "listener segment layout");
static_assert(sizeof(Listener_segment::reserved) == 6, "listener segment layout");
static_assert(sizeof(Listener_segment) == LISTENER_SEGMENT_SIZE, "listener segment size");

// The listener list, from either end. The daemon's instance (`listening` true) creates the
// segment, holds the lock on the lock file for as long as it runs and keeps the proxy
// watchdogs; an application's instance only opens the segment while the lock is held, announces
// its channel there and withdraws the announcement again.
class LOGFERRY_API Logferry_listener {
public:
    explicit Logferry_listener(bool listening_)
        : lock_file(-1),
          segment(static_cast<Listener_segment*>(MAP_FAILED)),
          listening(listening_),
          lock_listener_name(get_full_adaptive_runstate_directory() + "/ara_DLT/logferry-daemon-listener.lock")
    {}

    // Segment and lock file life cycle.
    bool init();
    bool init_shm(int fd);
    bool open_shm(int fd);
    void uninit_shm();
    void uninit();
    void check_lock_listener_name();
    bool is_initialized() const;
    bool is_listening() const;
    void disable_listening();
    ~Logferry_listener();

    Logferry_listener(const Logferry_listener&) = delete;
    Logferry_listener& operator=(const Logferry_listener&) = delete;

    // List operations. Application: push, check_list, pop. Daemon: get_next, has_new_entry,
    // is_empty, check_watchdogs. The _unsynced variant and sync_list expect list_mutex held.
    bool push(const std::string& name);
    bool check_list(const std::string& name);
    bool pop();
    void pop_unsynced();
    std::string get_next();
    bool has_new_entry();
    bool is_empty();
    void check_watchdogs();
    void sync_list();

    File_descriptor_guard lock_file;
    Listener_segment* segment;
    bool listening;
    bool initialized = false;
    std::int16_t own_entry = -1;
    std::uint8_t unacknowledged_checks = 0;
    // Daemon only: per entry the monotonic second at which it expires; 0 when not armed.
    std::unique_ptr<std::int64_t[]> proxy_watchdogs;
    std::string lock_listener_name;
};

}  // namespace logferry

#endif
