// Both ends of a channel in separate processes: streams in either direction, losses when the
// reader falls behind, and an end that is killed while it holds one of the segment's mutexes.
#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <functional>

#include <gtest/gtest.h>

#include "logferry/channel.hpp"
#include "support/channel_fixture.hpp"
#include "support/fake_system.hpp"
#include "support/robust_list.hpp"
#include "support/test_util.hpp"

using logferry_test::Bytes;
using logferry_test::capture_stderr;
using logferry_test::fork_child;
using logferry_test::is_intact_numbered_record;
using logferry_test::numbered_record;
using logferry_test::Op;
using logferry_test::record;
using logferry_test::record_number;
using logferry_test::wait_child;
using logferry_test::wait_until;
using namespace std::chrono_literals;

namespace {

// Kind of the small control records the tests send back against the stream.
constexpr unsigned char CONTROL_KIND = 24;

// A one-way, one-byte signal between a parent and its forked child.
class Signal_pipe {
public:
    Signal_pipe() { ok_ = ::pipe(fds_) == 0; }
    ~Signal_pipe()
    {
        if (ok_) {
            ::close(fds_[0]);
            ::close(fds_[1]);
        }
    }
    Signal_pipe(const Signal_pipe&) = delete;
    Signal_pipe& operator=(const Signal_pipe&) = delete;

    bool ok() const { return ok_; }
    bool send()
    {
        const char byte = 1;
        return ::write(fds_[1], &byte, 1) == 1;
    }
    // Waits up to `timeout` for the signal; false on timeout or when the writer is gone.
    bool receive(std::chrono::milliseconds timeout = 10s)
    {
        pollfd ready{fds_[0], POLLIN, 0};
        if (::poll(&ready, 1, static_cast<int>(timeout.count())) != 1) {
            return false;
        }
        char byte = 0;
        return ::read(fds_[0], &byte, 1) == 1;
    }

private:
    int fds_[2] = {-1, -1};
    bool ok_ = false;
};

// Kills and reaps the forked child `pid` if it is still there.
void kill_if_running(int pid)
{
    if (pid > 0 && ::waitpid(pid, nullptr, WNOHANG) == 0) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
    }
}

// Kills and reaps a forked child that is still there when the test ends early.
class Child_guard {
public:
    explicit Child_guard(int pid) : pid_(pid) {}
    ~Child_guard() { kill_if_running(pid_); }
    Child_guard(const Child_guard&) = delete;
    Child_guard& operator=(const Child_guard&) = delete;

private:
    int pid_;
};

// A forked end that takes one of the segment's mutexes and dies holding it. `open` runs in
// the child: it opens its end, then calls the `hold` it is given with what takes the mutex;
// once that succeeds, `hold` says so and stays until the child is killed. What `open`
// returns is the child's exit status when it does not get that far.
class Holding_child {
public:
    using Hold = std::function<void(const std::function<bool()>& take)>;

    explicit Holding_child(const std::function<int(const Hold& hold)>& open)
    {
        if (holding_.ok() && never_.ok()) {
            pid_ = fork_child([&] {
                return open([this](const std::function<bool()>& take) {
                    if (take() && holding_.send()) {
                        never_.receive(60s);  // killed long before
                    }
                });
            });
        }
    }
    ~Holding_child() { kill_if_running(pid_); }
    Holding_child(const Holding_child&) = delete;
    Holding_child& operator=(const Holding_child&) = delete;

    // Whether the child says it holds what it took.
    bool holds() { return pid_ > 0 && holding_.receive(); }
    // Kills the child outright: whether it ended by SIGKILL.
    bool killed()
    {
        if (::kill(pid_, SIGKILL) != 0) {
            return false;
        }
        const int status = wait_child(pid_);
        pid_ = -1;
        return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
    }

private:
    Signal_pipe holding_;
    Signal_pipe never_;
    int pid_ = -1;
};

// The surviving end went through what `during` did without a word, taking over the dead
// end's mutex exactly once and releasing every lock it took.
void expect_took_over_once(const logferry_test::Fake_system& fake, const std::string& during)
{
    EXPECT_EQ(during, "");
    EXPECT_EQ(fake.calls(Op::pthread_mutex_consistent), 1);
    EXPECT_EQ(fake.calls(Op::pthread_mutex_lock), fake.calls(Op::pthread_mutex_unlock));
}

std::size_t stream_size(std::uint32_t number) { return 5 + (number * 7919u) % 600; }

// Pops from `end` until a record arrives (or `timeout` passes).
Bytes next_record(logferry::Logferry_base& end, std::chrono::milliseconds timeout = 10s)
{
    Bytes got;
    wait_until([&] { return !(got = end.pop()).empty(); }, timeout);
    return got;
}

class ChannelProcesses : public ::testing::Test {
protected:
    void TearDown() override
    {
        if (!channel.name.empty()) {
            EXPECT_TRUE(channel.close());
        }
    }

    // One end streams BATCHES * PER_BATCH numbered records to the other; after each batch the
    // writer waits for the reader's acknowledgement, so the reader always keeps up.
    void stream_in_order(bool application_writes)
    {
        constexpr std::uint32_t BATCHES = 60;
        constexpr std::uint32_t PER_BATCH = 50;  // at most 50 * 606 bytes: fits either ring
        constexpr std::uint32_t TOTAL = BATCHES * PER_BATCH;
        ASSERT_TRUE(channel.open(false));
        channel.app.unlock_client_buffer();
        const std::string name = channel.name;

        // The forked end: the daemon's, attached by name.
        const auto body = [&]() -> int {
            logferry::Logferry_base daemon;
            if (!daemon.init(name)) {
                return 2;
            }
            int result = 0;
            if (application_writes) {
                for (std::uint32_t expected = 0; expected < TOTAL && result == 0; ++expected) {
                    const Bytes got = next_record(daemon);
                    if (!is_intact_numbered_record(got) || record_number(got) != expected ||
                        got.size() != stream_size(expected)) {
                        result = 3;
                    } else if (expected % PER_BATCH == PER_BATCH - 1 &&
                               !daemon.push(numbered_record(expected, 5, CONTROL_KIND))) {
                        result = 4;
                    }
                }
            } else {
                for (std::uint32_t number = 0; number < TOTAL && result == 0; ++number) {
                    daemon.push(numbered_record(number, stream_size(number)));
                    if (number % PER_BATCH == PER_BATCH - 1) {
                        const Bytes ack = next_record(daemon);
                        if (ack.size() != 5 || record_number(ack) != number) {
                            result = 5;
                        }
                    }
                }
            }
            if (result == 0 && daemon.lost_messages.load() != 0) {
                result = 6;
            }
            daemon.uninit();
            return result;
        };
        const int child = fork_child(body);
        ASSERT_GT(child, 0);
        const Child_guard reaper(child);

        bool in_order = true;
        if (application_writes) {
            for (std::uint32_t number = 0; number < TOTAL && in_order; ++number) {
                ASSERT_TRUE(channel.app.push(numbered_record(number, stream_size(number))));
                if (number % PER_BATCH == PER_BATCH - 1) {
                    const Bytes ack = next_record(channel.app);
                    in_order = ack.size() == 5 && record_number(ack) == number;
                }
            }
        } else {
            for (std::uint32_t expected = 0; expected < TOTAL && in_order; ++expected) {
                const Bytes got = next_record(channel.app);
                in_order = is_intact_numbered_record(got) && record_number(got) == expected &&
                           got.size() == stream_size(expected);
                if (in_order && expected % PER_BATCH == PER_BATCH - 1) {
                    ASSERT_TRUE(channel.app.push(numbered_record(expected, 5, CONTROL_KIND)));
                }
            }
        }
        EXPECT_TRUE(in_order);
        EXPECT_TRUE(logferry_test::exited_cleanly(wait_child(child, 30s)));
        EXPECT_EQ(channel.app.lost_messages.load(), 0u);
    }

    logferry_test::Channel_pair channel;
};

TEST_F(ChannelProcesses, ApplicationStreamArrivesInOrderWithNothingLost) { stream_in_order(true); }

TEST_F(ChannelProcesses, DaemonStreamArrivesInOrderWithNothingLost) { stream_in_order(false); }

// The reader's summary of what it got: the first number, how many, and whether they were the
// consecutive numbers up to the last one sent.
struct Summary {
    std::uint32_t first = 0;
    std::uint32_t count = 0;
    bool consecutive = false;
    bool intact = false;
};

Bytes encode(const Summary& summary)
{
    Bytes bytes = numbered_record(summary.first, 11, CONTROL_KIND);
    for (int i = 0; i < 4; ++i) {
        bytes[5 + i] = static_cast<unsigned char>(summary.count >> (8 * i));
    }
    bytes[9] = summary.consecutive ? 1 : 0;
    bytes[10] = summary.intact ? 1 : 0;
    return bytes;
}

Summary decode(const Bytes& bytes)
{
    Summary summary;
    if (bytes.size() != 11) {
        return summary;
    }
    summary.first = record_number(bytes);
    for (int i = 0; i < 4; ++i) {
        summary.count |= static_cast<std::uint32_t>(bytes[5 + i]) << (8 * i);
    }
    summary.consecutive = bytes[9] == 1;
    summary.intact = bytes[10] == 1;
    return summary;
}

// Forks a daemon's end that reads numbered records until the one numbered `last`, then sends
// its summary back through its own ring.
int fork_counting_reader(const std::string& name, std::uint32_t last)
{
    return fork_child([name, last]() -> int {
        logferry::Logferry_base daemon;
        if (!daemon.init(name)) {
            return 2;
        }
        Summary summary;
        summary.intact = true;
        summary.consecutive = true;
        bool increasing = true;
        std::uint32_t previous = 0;
        for (;;) {
            const Bytes got = next_record(daemon, 20s);
            if (got.empty()) {
                return 3;
            }
            const std::uint32_t number = record_number(got);
            summary.intact = summary.intact && is_intact_numbered_record(got);
            if (summary.count == 0) {
                summary.first = number;
            } else {
                increasing = increasing && number > previous;
                summary.consecutive = summary.consecutive && number == previous + 1;
            }
            previous = number;
            ++summary.count;
            if (number == last) {
                break;
            }
        }
        if (!increasing) {
            return 4;
        }
        daemon.push(encode(summary));
        daemon.uninit();
        return 0;
    });
}

TEST_F(ChannelProcesses, StalledReaderLosesTheOldestRecordsCountedExactly)
{
    ASSERT_TRUE(channel.open(false));
    constexpr std::uint32_t TOTAL = 2000;
    const int child = fork_counting_reader(channel.name, TOTAL - 1);
    ASSERT_GT(child, 0);
    const Child_guard reaper(child);

    // The gate is closed: the reader gets nothing until everything is written.
    for (std::uint32_t number = 0; number < TOTAL; ++number) {
        ASSERT_TRUE(channel.app.push(numbered_record(number, 200)));
    }
    const std::uint64_t lost = channel.app.lost_messages.load();
    EXPECT_GT(lost, 0u);
    channel.app.unlock_client_buffer();

    const Summary summary = decode(next_record(channel.app, 20s));
    EXPECT_TRUE(logferry_test::exited_cleanly(wait_child(child, 30s)));
    EXPECT_TRUE(summary.intact);
    EXPECT_TRUE(summary.consecutive);
    EXPECT_EQ(summary.first, lost) << "exactly the oldest records were discarded";
    EXPECT_EQ(summary.count + lost, TOTAL);
}

TEST_F(ChannelProcesses, EveryRecordIsReadOrCountedWhileBothRun)
{
    ASSERT_TRUE(channel.open(false));
    constexpr std::uint32_t BACKLOG = 1500;  // written while the gate is closed: overflows
    constexpr std::uint32_t TOTAL = 30000;
    const int child = fork_counting_reader(channel.name, TOTAL - 1);
    ASSERT_GT(child, 0);
    const Child_guard reaper(child);

    for (std::uint32_t number = 0; number < TOTAL; ++number) {
        if (number == BACKLOG) {
            channel.app.unlock_client_buffer();
        }
        ASSERT_TRUE(channel.app.push(numbered_record(number, stream_size(number))));
    }
    const std::uint64_t lost = channel.app.lost_messages.load();
    EXPECT_GT(lost, 0u);

    const Summary summary = decode(next_record(channel.app, 20s));
    EXPECT_TRUE(logferry_test::exited_cleanly(wait_child(child, 30s)));
    EXPECT_TRUE(summary.intact);
    EXPECT_EQ(summary.count + lost, TOTAL);
}

// Which of the segment's three mutexes a dying end holds.
enum class Held { priority, client, server };

pthread_mutex_t* mutex_of(logferry::Channel_segment* segment, Held held)
{
    switch (held) {
    case Held::priority:
        return &segment->priority_mutex.mutex;
    case Held::client:
        return &segment->client_mutex.mutex;
    case Held::server:
        break;
    }
    return &segment->server_mutex.mutex;
}

// The daemon's end dies holding `held`; the application's end carries on.
void daemon_dies_holding(Held held)
{
    LOGFERRY_REQUIRE_ROBUST_LIST();
    logferry_test::Channel_pair channel;
    ASSERT_TRUE(channel.open(false));
    channel.app.unlock_client_buffer();
    const std::string name = channel.name;
    const Bytes from_daemon = record(7, 33, 0xD1);
    Holding_child child([&](const Holding_child::Hold& hold) {
        logferry::Logferry_base daemon;
        if (daemon.init(name) && daemon.push(from_daemon)) {
            hold([&] { return pthread_mutex_lock(mutex_of(daemon.segment, held)) == 0; });
        }
        return 2;
    });
    ASSERT_TRUE(child.holds());
    ASSERT_TRUE(child.killed());

    logferry_test::Fake_system fake;
    logferry_test::Scoped_system installed(&fake);
    const Bytes registration = record(3, 20, 0x33);
    const Bytes log_message = record(10, 40, 0x44);
    const std::string text = capture_stderr([&] {
        switch (held) {
        case Held::priority:
            EXPECT_TRUE(channel.app.push_priority(registration));
            EXPECT_FALSE(channel.app.is_priority_empty());
            break;
        case Held::client:
            EXPECT_TRUE(channel.app.push(log_message));
            EXPECT_TRUE(channel.app.push(log_message));
            break;
        case Held::server:
            EXPECT_EQ(channel.app.pop(), from_daemon);
            EXPECT_TRUE(channel.app.is_empty());
            break;
        }
    });
    expect_took_over_once(fake, text);

    // A new daemon's end finds everything in place.
    ASSERT_TRUE(channel.daemon.init(name));
    switch (held) {
    case Held::priority:
        EXPECT_EQ(channel.daemon.pop_priority(), registration);
        break;
    case Held::client:
        EXPECT_EQ(channel.daemon.pop(), log_message);
        EXPECT_EQ(channel.daemon.pop(), log_message);
        break;
    case Held::server:
        EXPECT_TRUE(channel.daemon.push(from_daemon));
        EXPECT_EQ(channel.app.pop(), from_daemon);
        break;
    }
    EXPECT_EQ(fake.calls(Op::pthread_mutex_consistent), 1);
    EXPECT_TRUE(channel.close());
}

// The application's end dies holding `held`; the daemon's end carries on, then removes the
// orphaned segment.
void application_dies_holding(Held held)
{
    LOGFERRY_REQUIRE_ROBUST_LIST();
    const std::string identifier = logferry_test::unique_id("app");
    const std::string name = "/logferry-" + identifier;
    const Bytes registration = record(3, 20, 0x33);
    const Bytes log_message = record(10, 40, 0x44);
    Holding_child child([&](const Holding_child::Hold& hold) {
        logferry::Logferry_client app;
        app.set_app_identifier(identifier);
        if (app.init()) {
            app.unlock_client_buffer();
            if (app.push_priority(registration) && app.push(log_message)) {
                hold([&] { return pthread_mutex_lock(mutex_of(app.segment, held)) == 0; });
            }
        }
        return 2;
    });
    ASSERT_TRUE(child.holds());
    logferry::Logferry_base daemon;
    ASSERT_TRUE(daemon.init(name));
    ASSERT_TRUE(child.killed());

    logferry_test::Fake_system fake;
    logferry_test::Scoped_system installed(&fake);
    const Bytes reply = record(24, 9, 0x99);
    const std::string text = capture_stderr([&] {
        switch (held) {
        case Held::priority:
            EXPECT_EQ(daemon.pop_priority(), registration);
            EXPECT_TRUE(daemon.is_priority_empty());
            break;
        case Held::client:
            EXPECT_EQ(daemon.pop(), log_message);
            EXPECT_TRUE(daemon.is_empty());
            break;
        case Held::server:
            EXPECT_TRUE(daemon.push(reply));
            EXPECT_TRUE(daemon.push(reply));
            break;
        }
    });
    expect_took_over_once(fake, text);
    if (held == Held::server) {
        EXPECT_EQ(daemon.pop_unsynced(true), reply);
        EXPECT_EQ(daemon.pop_unsynced(true), reply);
    }
    daemon.take_ownership();
    daemon.uninit();
    EXPECT_FALSE(logferry_test::shm_exists(name));
}

TEST_F(ChannelProcesses, DaemonKilledHoldingThePriorityMutex) { daemon_dies_holding(Held::priority); }
TEST_F(ChannelProcesses, DaemonKilledHoldingTheClientMutex) { daemon_dies_holding(Held::client); }
TEST_F(ChannelProcesses, DaemonKilledHoldingTheServerMutex) { daemon_dies_holding(Held::server); }
TEST_F(ChannelProcesses, ApplicationKilledHoldingThePriorityMutex) { application_dies_holding(Held::priority); }
TEST_F(ChannelProcesses, ApplicationKilledHoldingTheClientMutex) { application_dies_holding(Held::client); }
TEST_F(ChannelProcesses, ApplicationKilledHoldingTheServerMutex) { application_dies_holding(Held::server); }

TEST_F(ChannelProcesses, ExplicitPriorityLockTakesOverFromADeadHolder)
{
    LOGFERRY_REQUIRE_ROBUST_LIST();
    ASSERT_TRUE(channel.open(false));
    const std::string name = channel.name;
    Holding_child child([&](const Holding_child::Hold& hold) {
        logferry::Logferry_base daemon;
        if (daemon.init(name)) {
            hold([&] {
                daemon.lock_priority_mutex();
                return true;
            });
        }
        return 2;
    });
    ASSERT_TRUE(child.holds());
    ASSERT_TRUE(child.killed());

    logferry_test::Fake_system fake;
    logferry_test::Scoped_system installed(&fake);
    const std::string text = capture_stderr([&] {
        channel.app.lock_priority_mutex();
        EXPECT_TRUE(channel.app.is_priority_empty_unsynced());
        channel.app.unlock_priority_mutex();
        EXPECT_TRUE(channel.app.push_priority(record(5, 10)));
    });
    EXPECT_EQ(text, "");
    EXPECT_EQ(fake.calls(Op::pthread_mutex_consistent), 1);
}

}  // namespace
