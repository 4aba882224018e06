#ifndef LOGFERRY_CHANNEL_HPP
#define LOGFERRY_CHANNEL_HPP

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "logferry/export.hpp"

namespace logferry {

/// A process-shared mutex in a fixed 48-byte slot: the size of the platform's mutex on the
/// 64-bit Arm target. Hosts with a smaller mutex (40 bytes on x86-64) keep the same layout.
union Mutex_slot {
    pthread_mutex_t mutex;   ///< The mutex itself, at the start of the slot.
    unsigned char slot[48];  ///< The slot's full width.
};
static_assert(sizeof(pthread_mutex_t) <= 48, "the platform's mutex does not fit its 48-byte slot");
static_assert(sizeof(Mutex_slot) == 48, "mutex slot must be 48 bytes");
static_assert(alignof(Mutex_slot) <= 8, "mutex slot must not need more than 8-byte alignment");

constexpr std::uint32_t CHANNEL_SEGMENT_SIZE = 166072;  ///< Bytes of a channel segment.
constexpr std::uint32_t PRIORITY_DATA_SIZE = 2048;      ///< Bytes of the priority area.
constexpr std::uint32_t CLIENT_BUFFER_SIZE = 131071;    ///< Bytes of the outgoing ring (application to daemon).
constexpr std::uint32_t SERVER_BUFFER_SIZE = 32767;     ///< Bytes of the incoming ring (daemon to application).
constexpr int CHANNEL_MODE = 0660;                      ///< Access mode of a channel segment.
constexpr unsigned int LOGGING_GROUP_ID = 1051;         ///< Group of every channel segment (the daemon's group).

/// The shared memory between one application and the daemon. Both ends must agree on it byte
/// for byte; the watchdogs and the gate byte are only ever accessed atomically.
struct Channel_segment {
    unsigned char priority_data[PRIORITY_DATA_SIZE];  ///< Registration and control records, end to end.
    std::uint16_t priority_size;                      ///< Bytes in use in `priority_data`; 0 when empty.
    unsigned char padding0[6];                        ///< Unused, zero.
    Mutex_slot priority_mutex;                        ///< Guards `priority_data` and `priority_size`.
    std::int64_t client_watchdog;                     ///< The application's last monotonic second; 0 once it has gone.
    std::uint32_t client_read_index;                  ///< Read index of the outgoing ring.
    std::uint32_t client_write_index;                 ///< Write index of the outgoing ring.
    Mutex_slot client_mutex;                          ///< Guards the outgoing ring and its indices.
    unsigned char client_buffer[CLIENT_BUFFER_SIZE];  ///< The outgoing ring: length-prefixed records.
    std::uint8_t client_buffer_locked;  ///< The gate: while non-zero the daemon reads nothing from the outgoing ring.
    std::int64_t server_watchdog;       ///< The daemon's last monotonic second; 0 once it has gone.
    std::uint32_t server_read_index;    ///< Read index of the incoming ring.
    std::uint32_t server_write_index;   ///< Write index of the incoming ring.
    Mutex_slot server_mutex;            ///< Guards the incoming ring and its indices.
    unsigned char server_buffer[SERVER_BUFFER_SIZE];  ///< The incoming ring: level updates and console text.
    unsigned char padding1[1];                        ///< Unused, zero.
};

static_assert(offsetof(Channel_segment, priority_data) == 0, "segment layout");
static_assert(offsetof(Channel_segment, priority_size) == 2048, "segment layout");
static_assert(offsetof(Channel_segment, padding0) == 2050, "segment layout");
static_assert(offsetof(Channel_segment, priority_mutex) == 2056, "segment layout");
static_assert(offsetof(Channel_segment, client_watchdog) == 2104, "segment layout");
static_assert(offsetof(Channel_segment, client_read_index) == 2112, "segment layout");
static_assert(offsetof(Channel_segment, client_write_index) == 2116, "segment layout");
static_assert(offsetof(Channel_segment, client_mutex) == 2120, "segment layout");
static_assert(offsetof(Channel_segment, client_buffer) == 2168, "segment layout");
static_assert(offsetof(Channel_segment, client_buffer_locked) == 133239, "segment layout");
static_assert(offsetof(Channel_segment, server_watchdog) == 133240, "segment layout");
static_assert(offsetof(Channel_segment, server_read_index) == 133248, "segment layout");
static_assert(offsetof(Channel_segment, server_write_index) == 133252, "segment layout");
static_assert(offsetof(Channel_segment, server_mutex) == 133256, "segment layout");
static_assert(offsetof(Channel_segment, server_buffer) == 133304, "segment layout");
static_assert(offsetof(Channel_segment, padding1) == 166071, "segment layout");
static_assert(sizeof(Channel_segment) == CHANNEL_SEGMENT_SIZE, "segment size");

/// The verdict of the previous connection check of any channel end of this process.
LOGFERRY_API extern std::atomic<bool> last_connection_state;

/// One end of a channel. A default-constructed end is the daemon's (it attaches by name);
/// the application's end is a Logferry_client. Calls that need the segment report "shared
/// memory not initialized." and refuse while the end is not initialised.
class LOGFERRY_API Logferry_base {
public:
    /// The daemon's end: not initialised, not the owner, nothing mapped.
    Logferry_base() noexcept;
    /// Neither unmaps nor unlinks: only the application's end cleans up by itself.
    virtual ~Logferry_base();
    Logferry_base(const Logferry_base&) = delete;
    Logferry_base& operator=(const Logferry_base&) = delete;

    /// \name Segment life cycle
    ///@{

    /// Opens the segment: the owner names it from `app_identifier`, removes a stale object of
    /// that name and creates it; the daemon's end opens the segment named `filename`. True
    /// when initialised (also when it already was).
    bool init();
    /// The daemon's end: attaches to the channel `name` (as handed out by the listener list).
    /// False for an empty name or when the segment cannot be opened and mapped.
    bool init(const std::string& name);
    /// Unmaps the segment (zeroing this end's watchdog first) and, for the owner, unlinks it.
    void uninit();
    /// Opens (application: creates, mode 0660, group 1051) the shared-memory object and maps it.
    bool prepare_shm();
    /// Maps the segment open on `fd`. The owner sizes it, zeroes it, closes the gate and sets
    /// up the three robust mutexes; both ends stamp their watchdog.
    bool init_shm(int fd);
    /// Zeroes this end's watchdog, so that the peer sees it gone, and unmaps the segment.
    void uninit_shm();
    /// Sets `filename` to "/logferry-" followed by `app_identifier`.
    void set_filename();
    /// The segment's name, "/logferry-" and the identifier.
    const std::string& get_filename() const;
    /// Sets the identifier the owner names its segment after at the next `init`.
    void set_app_identifier(const std::string& identifier);
    /// Makes this end the segment's owner (it then creates and unlinks the segment).
    void take_ownership();
    /// Whether the segment is open and mapped.
    bool is_initialized() const;
    ///@}

    /// \name The two rings
    /// Each record travels with a 16-bit length prefix. A writer that finds no room discards
    /// the oldest records and counts each discard step in `lost_messages`.
    ///@{

    /// Writes one record into this end's outgoing ring (`push_client` or `push_server`).
    bool push(const std::vector<unsigned char>& bytes);
    /// Writes one record into the outgoing ring (application to daemon). False when not
    /// initialised, for a record that can never fit or for a kind the ring does not carry.
    bool push_client(const std::vector<unsigned char>& bytes);
    /// Writes one record into the incoming ring (daemon to application). False when not
    /// initialised or for a record that can never fit.
    bool push_server(const std::vector<unsigned char>& bytes);
    /// Takes the oldest record from the ring the peer writes, under its mutex; empty when
    /// there is none or, at the daemon's end, while the gate is closed.
    std::vector<unsigned char> pop();
    /// Takes the oldest record without locking (the caller holds the ring's mutex): from
    /// this end's own outgoing ring when `own`, else from the peer's. Ignores the gate.
    std::vector<unsigned char> pop_unsynced(bool own);
    /// Whether the ring the peer writes holds no record.
    bool is_empty() const;
    /// Closes the gate: the daemon reads nothing from the outgoing ring.
    void lock_client_buffer();
    /// Opens the gate.
    void unlock_client_buffer();
    /// Whether the gate is closed (true when not initialised).
    bool is_client_buffer_locked();
    ///@}

    /// \name The priority area
    /// Registration and control records (the priority kinds), ahead of the ordinary traffic.
    ///@{

    /// Places one record in the empty area; false while the daemon has not taken the
    /// previous one, and for anything but a priority record of at most 2048 bytes.
    bool push_priority(const std::vector<unsigned char>& bytes);
    /// Appends one record behind those already in the area, keeping one byte of it unused;
    /// false (reported) when it does not fit.
    bool force_push_priority(const std::vector<unsigned char>& bytes);
    /// Takes everything in the area at once, under its mutex, and empties it.
    std::vector<unsigned char> pop_priority();
    /// The same without locking: the caller holds the priority mutex.
    std::vector<unsigned char> pop_priority_unsynced();
    /// Whether the area is empty (true when not initialised).
    bool is_priority_empty() const;
    /// The same without locking: the caller holds the priority mutex.
    bool is_priority_empty_unsynced() const;
    /// Empties the area.
    void clear_priority_data();
    /// Locks the priority mutex, taking it over when its holder died.
    void lock_priority_mutex();
    /// Unlocks the priority mutex.
    void unlock_priority_mutex();
    ///@}

    /// \name Liveness and loss accounting
    ///@{

    /// Stamps this end's watchdog with the monotonic second.
    void update_connection_active_timer();
    /// Judges from the two watchdog stamps whether both ends are alive, and keeps the
    /// verdict in `last_connection_state`.
    bool is_connection_active();
    /// Reports the records discarded since the last report in one line on the standard
    /// output stream, and resets the count.
    void check_lost_messages();
    ///@}

    std::string filename;                      ///< The segment's name: "/logferry-" and the identifier.
    std::string app_identifier;                ///< The identifier the owner names its segment after.
    bool initialized;                          ///< The segment is open and mapped.
    bool client_side;                          ///< This is the application's end.
    bool owner;                                ///< This end creates and unlinks the segment.
    std::atomic<std::uint64_t> lost_messages;  ///< Discard steps since the last report.
    Channel_segment* segment;                  ///< The mapping, MAP_FAILED when none.

protected:
    /// An end of the given side and ownership.
    Logferry_base(bool client_side_, bool owner_) noexcept;
};

/// The application's end: creates, owns and finally unlinks its segment.
class LOGFERRY_API Logferry_client : public Logferry_base {
public:
    /// The application's end: client side and owner, not initialised.
    Logferry_client() noexcept;
    /// Closes and unlinks the segment (`uninit`).
    ~Logferry_client() override;
    Logferry_client(const Logferry_client&) = delete;
    Logferry_client& operator=(const Logferry_client&) = delete;
};

}  // namespace logferry

#endif
