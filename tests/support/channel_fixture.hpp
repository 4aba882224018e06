#ifndef LOGFERRY_TEST_CHANNEL_FIXTURE_HPP
#define LOGFERRY_TEST_CHANNEL_FIXTURE_HPP

// Helpers for the channel tests: a channel with both ends, raw views of its rings, and
// record builders.

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "logferry/channel.hpp"
#include "support/test_util.hpp"

namespace logferry_test {

// The fields of one ring inside a mapped segment, for tests that inspect or corrupt it.
struct Ring_fields {
    unsigned char* bytes;
    std::uint32_t* read_index;
    std::uint32_t* write_index;
    std::uint32_t capacity;

    std::uint32_t read() const { return *read_index; }
    std::uint32_t write() const { return *write_index; }
    // The 16-bit length prefix at `at`.
    std::uint32_t prefix(std::uint32_t at) const { return bytes[at] | (bytes[at + 1] << 8); }
    bool all_zero() const
    {
        for (std::uint32_t i = 0; i < capacity; ++i) {
            if (bytes[i] != 0) {
                return false;
            }
        }
        return true;
    }
    // Whether the ring is back where it started: both indices 0 and every byte zero.
    ::testing::AssertionResult is_back_at_zero() const
    {
        if (read() != 0 || write() != 0) {
            return ::testing::AssertionFailure() << "read index " << read() << ", write index " << write();
        }
        if (!all_zero()) {
            return ::testing::AssertionFailure() << "bytes left behind in the ring";
        }
        return ::testing::AssertionSuccess();
    }
};

inline Ring_fields client_ring_of(logferry::Channel_segment* segment)
{
    return Ring_fields{segment->client_buffer, &segment->client_read_index, &segment->client_write_index,
                       logferry::CLIENT_BUFFER_SIZE};
}

inline Ring_fields server_ring_of(logferry::Channel_segment* segment)
{
    return Ring_fields{segment->server_buffer, &segment->server_read_index, &segment->server_write_index,
                       logferry::SERVER_BUFFER_SIZE};
}

// A record of `size` bytes: kind byte first, then `fill`.
inline Bytes record(unsigned char kind, std::size_t size, unsigned char fill = 0xA5)
{
    Bytes bytes(size, fill);
    if (size > 0) {
        bytes[0] = kind;
    }
    return bytes;
}

// A record of `size` (>= 5) bytes that carries `number` in bytes 1 to 4 and a pattern derived
// from it in the rest, so that a reader can check both order and contents.
inline Bytes numbered_record(std::uint32_t number, std::size_t size, unsigned char kind = 10)
{
    Bytes bytes(size);
    bytes[0] = kind;
    for (int i = 0; i < 4; ++i) {
        bytes[1 + i] = static_cast<unsigned char>(number >> (8 * i));
    }
    for (std::size_t i = 5; i < size; ++i) {
        bytes[i] = static_cast<unsigned char>(number * 31 + i);
    }
    return bytes;
}

inline std::uint32_t record_number(const Bytes& bytes)
{
    std::uint32_t number = 0;
    for (int i = 0; i < 4; ++i) {
        number |= static_cast<std::uint32_t>(bytes[1 + i]) << (8 * i);
    }
    return number;
}

// Whether `bytes` is exactly numbered_record(record_number(bytes), bytes.size(), kind).
inline bool is_intact_numbered_record(const Bytes& bytes, unsigned char kind = 10)
{
    return bytes.size() >= 5 && bytes == numbered_record(record_number(bytes), bytes.size(), kind);
}

// Runs `check` on an application's end, then on a daemon's end, neither of them initialised.
inline void for_each_closed_end(const std::function<void(logferry::Logferry_base& end)>& check)
{
    {
        SCOPED_TRACE("the application's end");
        logferry::Logferry_client application;
        check(application);
    }
    {
        SCOPED_TRACE("a daemon's end");
        logferry::Logferry_base daemon;
        check(daemon);
    }
}

// The application's end and a daemon's end of one channel named after the running test.
struct Channel_pair {
    logferry::Logferry_client app;
    logferry::Logferry_base daemon;
    std::string name;

    // Creates the application's segment and, if `attach`, attaches the daemon's end.
    bool open(bool attach = true, const std::string& suffix = "")
    {
        app.set_app_identifier(unique_id(suffix));
        if (!app.init()) {
            return false;
        }
        name = app.get_filename();
        return !attach || daemon.init(name);
    }

    // Takes both ends down; true when nothing of the channel is left in /dev/shm.
    bool close()
    {
        daemon.uninit();
        app.uninit();
        return !name.empty() && !shm_exists(name);
    }

    Ring_fields client_ring() const { return client_ring_of(app.segment); }
    Ring_fields server_ring() const { return server_ring_of(app.segment); }
};

}  // namespace logferry_test

#endif
