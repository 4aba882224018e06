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

// A process-shared mutex in a fixed 48-byte slot: the size of the platform's mutex on the
// 64-bit Arm target. Hosts with a smaller mutex (40 bytes on x86-64) keep the same layout.
union Mutex_slot {
    pthread_mutex_t mutex;
    unsigned char slot[48];
};
static_assert(sizeof(pthread_mutex_t) <= 48, "the platform's mutex does not fit its 48-byte slot");
static_assert(sizeof(Mutex_slot) == 48, "mutex slot must be 48 bytes");
static_assert(alignof(Mutex_slot) <= 8, "mutex slot must not need more than 8-byte alignment");

constexpr std::uint32_t CHANNEL_SEGMENT_SIZE = 166072;
constexpr std::uint32_t PRIORITY_DATA_SIZE = 2048;
constexpr std::uint32_t CLIENT_BUFFER_SIZE = 131071;
constexpr std::uint32_t SERVER_BUFFER_SIZE = 32767;
constexpr int CHANNEL_MODE = 0660;
constexpr unsigned int LOGGING_GROUP_ID = 1051;
// The largest unit a ring's 16-bit length prefix can describe: the most one push can carry.
constexpr std::uint32_t MAX_RING_RECORD_SIZE = 0xFFFF;

// The shared memory between one application and the daemon. Both ends must agree on it byte
// for byte; the watchdogs and the gate byte are only ever accessed atomically.
struct Channel_segment {
    unsigned char priority_data[PRIORITY_DATA_SIZE];
    std::uint16_t priority_size;
    unsigned char padding0[6];
    Mutex_slot priority_mutex;
    std::int64_t client_watchdog;
    std::uint32_t client_read_index;
    std::uint32_t client_write_index;
    Mutex_slot client_mutex;
    unsigned char client_buffer[CLIENT_BUFFER_SIZE];
    std::uint8_t client_buffer_locked;
    std::int64_t server_watchdog;
    std::uint32_t server_read_index;
    std::uint32_t server_write_index;
    Mutex_slot server_mutex;
    unsigned char server_buffer[SERVER_BUFFER_SIZE];
    unsigned char padding1[1];
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

// The verdict of the previous connection check of any channel end of this process.
LOGFERRY_API extern std::atomic<bool> last_connection_state;

// One end of a channel. A default-constructed end is the daemon's (it attaches by name);
// the application's end is a Logferry_client.
class LOGFERRY_API Logferry_base {
public:
    Logferry_base() noexcept;
    virtual ~Logferry_base();
    Logferry_base(const Logferry_base&) = delete;
    Logferry_base& operator=(const Logferry_base&) = delete;

    // Segment life cycle.
    bool init();
    bool init(const std::string& name);
    void uninit();
    bool prepare_shm();
    bool init_shm(int fd);
    void uninit_shm();
    void set_filename();
    const std::string& get_filename() const;
    void set_app_identifier(const std::string& identifier);
    void take_ownership();
    bool is_initialized() const;

    // The two rings.
    bool push(const std::vector<unsigned char>& bytes);
    bool push_client(const std::vector<unsigned char>& bytes);
    bool push_server(const std::vector<unsigned char>& bytes);
    std::vector<unsigned char> pop();
    std::vector<unsigned char> pop_unsynced(bool own);
    bool is_empty() const;
    void lock_client_buffer();
    void unlock_client_buffer();
    bool is_client_buffer_locked();

    // The priority area.
    bool push_priority(const std::vector<unsigned char>& bytes);
    bool force_push_priority(const std::vector<unsigned char>& bytes);
    std::vector<unsigned char> pop_priority();
    std::vector<unsigned char> pop_priority_unsynced();
    bool is_priority_empty() const;
    bool is_priority_empty_unsynced() const;
    void clear_priority_data();
    void lock_priority_mutex();
    void unlock_priority_mutex();

    // Liveness and loss accounting.
    void update_connection_active_timer();
    bool is_connection_active();
    void check_lost_messages();

    std::string filename;
    std::string app_identifier;
    bool initialized;
    bool client_side;
    bool owner;
    std::atomic<std::uint64_t> lost_messages;
    Channel_segment* segment;

protected:
    Logferry_base(bool client_side_, bool owner_) noexcept;
};

// The application's end: creates, owns and finally unlinks its segment.
class LOGFERRY_API Logferry_client : public Logferry_base {
public:
    Logferry_client() noexcept;
    ~Logferry_client() override;
    Logferry_client(const Logferry_client&) = delete;
    Logferry_client& operator=(const Logferry_client&) = delete;
};

}  // namespace logferry

#endif
