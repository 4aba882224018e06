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
    static const int fixed_size[25] = {1,  1, 256, -1, 1,  -1, 5,  14, 5,  6,  6,  7, 9,
                                       13, 7, 8,   10, 14, 9,  13, -1, -1, -1, -1, 6};
    std::vector<Bytes> records;
    std::size_t at = 0;
    while (at < message.size()) {
        const unsigned char kind = message[at];
        std::size_t size = 0;
        auto text_end = [&](std::size_t from) -> std::size_t {
            std::size_t end = from;
            while (end < message.size() && message[end] != 0) {
                ++end;
            }
            return end + 1 - at;
        };
        auto payload_size = [&](std::size_t offset) -> std::size_t {
            if (at + offset + 1 >= message.size()) {
                return 0;
            }
            const std::size_t n = message[at + offset] | (message[at + offset + 1] << 8);
            return n >= 1 && n <= 1389 ? n : 0;
        };
        if (kind < 25 && fixed_size[kind] > 0) {
            size = static_cast<std::size_t>(fixed_size[kind]);
        } else if (kind == 3) {
            size = text_end(at + 8);
        } else if (kind == 5) {
            size = text_end(at + 13);
        } else if (kind == 20) {
            size = text_end(at + 7);
        } else if (kind == 21) {
            size = 10 + payload_size(4);
        } else if (kind == 22) {
            size = 9 + payload_size(3);
        } else if (kind == 23) {
            size = 5 + payload_size(3);
        } else {
            size = message.size() - at;
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
