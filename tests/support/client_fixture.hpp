#ifndef LOGFERRY_TEST_CLIENT_FIXTURE_HPP
#define LOGFERRY_TEST_CLIENT_FIXTURE_HPP

// Helpers for the tests of the front end (header only: only the tests that link the
// front end include it).
//
// Client_test gives every test its own channel name and its own run-state directory (with
// no lock file in it, so the listener finds no daemon), and puts the library-wide state back
// as it was at load time afterwards, so that the tests also pass when one process runs them
// all. Daemon_end is the daemon's side of the application's channel, in this process.

#include <dirent.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "logferry/client.hpp"
#include "support/record_bytes.hpp"
#include "support/runstate_dir.hpp"
#include "support/test_util.hpp"
#include "wire/wire.hpp"

namespace logferry_test {

// The kernel ids of this process's live threads, from /proc. A thread that has been joined
// can stay listed for a while as the kernel finishes it, dead or still exiting, so tests
// compare ids (which threads are new, which are gone), never counts. Some tools (the thread
// sanitizer) start a helper thread of their own at the first thread creation; one
// short-lived thread is created and joined first, so that such a helper is never new.
inline std::set<pid_t> live_threads()
{
    static const bool settled = [] {
        std::thread([] {}).join();
        return true;
    }();
    (void)settled;
    std::set<pid_t> ids;
    DIR* dir = ::opendir("/proc/self/task");
    if (dir == nullptr) {
        return ids;
    }
    while (const dirent* entry = ::readdir(dir)) {
        if (entry->d_name[0] == '.') {
            continue;
        }
        std::ifstream stat(std::string("/proc/self/task/") + entry->d_name + "/stat");
        std::string line;
        std::getline(stat, line);
        const auto close = line.rfind(')');
        const char state = close != std::string::npos && close + 2 < line.size() ? line[close + 2] : '?';
        if (state != 'Z' && state != 'X' && !line.empty()) {
            ids.insert(static_cast<pid_t>(std::stol(entry->d_name)));
        }
    }
    ::closedir(dir);
    return ids;
}

// The live threads that are not in `before`.
inline std::vector<pid_t> threads_started_since(const std::set<pid_t>& before)
{
    std::vector<pid_t> started;
    for (const pid_t id : live_threads()) {
        if (before.count(id) == 0) {
            started.push_back(id);
        }
    }
    return started;
}

// Whether the thread `id` has ended (gone from /proc, or dead).
inline bool thread_ended(pid_t id) { return live_threads().count(id) == 0; }

// Splits one channel message into its records, by the kinds' own lengths. An unknown
// kind or a record running past the end yields the rest as one piece.
inline std::vector<Bytes> split_records(const Bytes& message)
{
    namespace wire = logferry::wire;
    std::vector<Bytes> records;
    std::size_t at = 0;
    while (at < message.size()) {
        const unsigned char kind = message[at];
        // Size of a record whose text starts at `text_at` within it: up to its zero.
        auto text_record = [&](std::size_t text_at) -> std::size_t {
            std::size_t end = at + text_at;
            while (end < message.size() && message[end] != 0) {
                ++end;
            }
            return end + 1 - at;
        };
        // Size of a payload record with its head and the payload its size field carries.
        auto payload_record = [&](std::size_t head_size, std::size_t size_at) -> std::size_t {
            if (at + size_at + 1 >= message.size()) {
                return head_size;
            }
            return head_size + wire::carried_payload(wire::get_u16(message.data() + at + size_at));
        };
        std::size_t size = 0;
        switch (kind) {
        case logferry::KIND_REGISTER_APP:
            size = text_record(wire::register_app::DESCRIPTION_AT);
            break;
        case logferry::KIND_REGISTER_CONTEXT:
            size = text_record(wire::register_context::DESCRIPTION_AT);
            break;
        case logferry::KIND_WRITE_UTF8_STRING:
            size = text_record(wire::text::TEXT_AT);
            break;
        case logferry::KIND_WRITE_RAW_FORMATTED:
            size = payload_record(wire::RAW_HEAD_SIZE, wire::raw::SIZE_AT);
            break;
        case logferry::KIND_WRITE_ENCODED_PAYLOAD:
            size = payload_record(wire::ENCODED_PAYLOAD_HEAD_SIZE, wire::encoded_payload::SIZE_AT);
            break;
        case logferry::KIND_WRITE_ENCODED_MESSAGE:
            size = payload_record(wire::ENCODED_MESSAGE_HEAD_SIZE, wire::encoded_message::SIZE_AT);
            break;
        default:
            size = wire::fixed_size(kind);
            if (size == 0) {
                size = message.size() - at;  // an unknown kind: the rest
            }
            break;
        }
        if (at + size > message.size()) {
            size = message.size() - at;
        }
        records.emplace_back(message.begin() + static_cast<long>(at), message.begin() + static_cast<long>(at + size));
        at += size;
    }
    return records;
}

// The daemon's end of the application's channel, attached by name. Attaching stamps the
// daemon's watchdog, so the application sees the connection active from then on.
class Daemon_end {
public:
    Daemon_end()
    {
        attached = end.init(logferry::client.get_filename());
        if (attached) {
            end.is_connection_active();
        }
    }
    ~Daemon_end() { end.uninit(); }
    Daemon_end(const Daemon_end&) = delete;
    Daemon_end& operator=(const Daemon_end&) = delete;

    // Opens the gate and takes every message waiting in the application's ring.
    std::vector<Bytes> drain()
    {
        logferry::client.unlock_client_buffer();
        std::vector<Bytes> messages;
        while (!end.is_empty()) {
            Bytes message = end.pop();
            if (message.empty()) {
                break;
            }
            messages.push_back(std::move(message));
        }
        return messages;
    }

    logferry::Logferry_base end;
    bool attached = false;
};

inline Bytes priority_area()
{
    const auto* segment = logferry::client.segment;
    return Bytes(segment->priority_data, segment->priority_data + segment->priority_size);
}

inline std::vector<Bytes> queued_priority_records()
{
    std::lock_guard<std::mutex> lock(logferry::priority_message_queue_mutex);
    std::vector<Bytes> records;
    auto copy = logferry::priority_message_queue;
    while (!copy.empty()) {
        records.push_back(copy.front());
        copy.pop();
    }
    return records;
}

// Puts every library-wide object and flag back to its load-time value, the channel's name
// aside (the channel and listener are closed by exit()).
inline void reset_front_end()
{
    logferry::exit();
    logferry::registered_application.clear();
    logferry::registered_contexts.clear();
    logferry::log_level_filters.clear();
    logferry::incomplete_logstream_messages.clear();
    logferry::priority_message_queue = std::queue<Bytes>();
    logferry::init_called = false;
    logferry::first_registration = true;
    logferry::pending_registration = false;
    logferry::terminate_receiver_thread = false;
    logferry::client.lost_messages = 0;
}

// reset_front_end, and the channel's name cleared too.
inline void reset_library_state()
{
    reset_front_end();
    logferry::client.set_app_identifier("");
    logferry::client.filename.clear();
}

class Client_test : public ::testing::Test {
protected:
    void SetUp() override
    {
        runstate_.reset(new Runstate_dir());
        // No lock file there: the listener sees no daemon.
        lock_name_.reset(new Scoped_value<std::string>(logferry::listener.lock_listener_name, lock_path()));
        logferry::set_app_identifier(unique_id());
    }

    void TearDown() override
    {
        reset_library_state();
        EXPECT_FALSE(shm_exists(channel_name_seen_)) << channel_name_seen_;
        lock_name_.reset();
        runstate_.reset();
    }

    std::string lock_path() const { return runstate_->lock_file(); }

    // The state `init` leaves behind, without the receiver thread: the tests that look at
    // the channel, the queue and the tables see only the doings of the calls under test.
    void open_without_receiver()
    {
        ASSERT_FALSE(logferry::connect_channel());  // no daemon: the listener refuses
        ASSERT_TRUE(logferry::client.is_initialized());
        channel_name_seen_ = logferry::client.get_filename();
        logferry::init_called = true;
    }

    // Registers an application and one context (handle, level) on a channel opened by
    // open_without_receiver; the records wait in the queue (no daemon yet).
    void register_basics(std::uint32_t handle = 1, std::uint8_t level = 4)
    {
        ASSERT_TRUE(logferry::register_app("APP1", "test application"));
        ASSERT_TRUE(logferry::register_context(handle, "CTX1", "test context", level));
    }

    void remember_channel() { channel_name_seen_ = logferry::client.get_filename(); }

    std::unique_ptr<Runstate_dir> runstate_;
    std::string channel_name_seen_ = "/logferry-none";

private:
    std::unique_ptr<Scoped_value<std::string>> lock_name_;
};

}  // namespace logferry_test

#endif
