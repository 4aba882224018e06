// The listener list: announcing, handing out, watching and withdrawing channel names, the
// index bookkeeping, both watchdogs, and the list as several processes share it.
//
// An application's init only succeeds while another process holds the daemon's lock, so the
// daemon and the applications always live in different processes here: a forked peer runs
// one listener and carries out the commands the test sends it through a pipe.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <new>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "logferry/listener.hpp"
#include "support/diagnostics.hpp"
#include "support/fake_system.hpp"
#include "support/robust_list.hpp"
#include "support/runstate_dir.hpp"
#include "support/test_util.hpp"

// Every allocation of this program is counted, so that a test can prove that an operation
// allocates nothing.
namespace {
std::atomic<long> allocation_count{0};
}  // namespace

// The replacements are kept out of line: inlined into the code that uses them, gcc's
// optimiser pairs malloc() with operator delete (or operator new with free()) and warns.
__attribute__((noinline)) void* operator new(std::size_t size)
{
    allocation_count.fetch_add(1);
    if (void* memory = std::malloc(size != 0 ? size : 1)) {
        return memory;
    }
    throw std::bad_alloc();
}

__attribute__((noinline)) void operator delete(void* memory) noexcept { std::free(memory); }

__attribute__((noinline)) void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

using logferry::Listener_entry;
using logferry::Listener_segment;
using logferry::Logferry_listener;
using namespace logferry_test;

namespace {

const std::string WATCHDOG_MESSAGE = diagnostic("proxy watchdog triggered.");

// The test's own run-state directory (with "ara_DLT"), with nothing under the listener's
// fixed names at the start; what a test leaves behind makes it fail, and is removed.
class Listener_runstate {
public:
    Listener_runstate() { ::shm_unlink(LISTENER_SEGMENT); }

    ~Listener_runstate()
    {
        EXPECT_FALSE(path_exists(lock_file())) << "the daemon left its lock file";
        ::unlink(lock_file().c_str());
        EXPECT_EQ(dir_.contents(), std::vector<std::string>{"ara_DLT"}) << "something was left in " << dir_.root();
        EXPECT_FALSE(shm_exists(LISTENER_SEGMENT)) << "the listener segment was left behind";
        ::shm_unlink(LISTENER_SEGMENT);
    }

    Listener_runstate(const Listener_runstate&) = delete;
    Listener_runstate& operator=(const Listener_runstate&) = delete;

    std::string lock_file() const { return dir_.lock_file(); }

private:
    logferry_test::Runstate_dir dir_;
};

// Length-prefixed strings over a pipe. Reads wait at most 10 s for each piece.

// Runs `step` (a read or a write of the `left` bytes from `done` on) until `size` bytes have
// gone through: an interrupted step is tried again, a failed or empty one ends the transfer.
// With `bounded`, each step first waits at most 10 s for something to read.
bool transfer_all(int fd, std::size_t size, bool bounded,
                  const std::function<ssize_t(std::size_t done, std::size_t left)>& step)
{
    std::size_t done = 0;
    while (done < size) {
        if (bounded) {
            pollfd poll_fd{fd, POLLIN, 0};
            const int ready = ::poll(&poll_fd, 1, 10000);
            if (ready < 0 && errno == EINTR) {
                continue;
            }
            if (ready != 1) {
                return false;
            }
        }
        const ssize_t moved = step(done, size - done);
        if (moved < 0 && errno == EINTR) {
            continue;
        }
        if (moved <= 0) {
            return false;
        }
        done += static_cast<std::size_t>(moved);
    }
    return true;
}

bool write_all(int fd, const void* data, std::size_t size)
{
    const char* bytes = static_cast<const char*>(data);
    return transfer_all(fd, size, false,
                        [&](std::size_t done, std::size_t left) { return ::write(fd, bytes + done, left); });
}

bool read_all(int fd, void* data, std::size_t size, bool bounded)
{
    char* bytes = static_cast<char*>(data);
    return transfer_all(fd, size, bounded,
                        [&](std::size_t done, std::size_t left) { return ::read(fd, bytes + done, left); });
}

bool write_frame(int fd, const std::string& text)
{
    const std::uint32_t size = static_cast<std::uint32_t>(text.size());
    return write_all(fd, &size, sizeof size) && write_all(fd, text.data(), text.size());
}

bool read_frame(int fd, std::string& text, bool bounded)
{
    std::uint32_t size = 0;
    if (!read_all(fd, &size, sizeof size, bounded)) {
        return false;
    }
    text.assign(size, '\0');
    return read_all(fd, &text[0], size, bounded);
}

struct Reply {
    std::string result;     // "1"/"0" for a bool, the name for get_next
    std::string output;     // what the operation wrote to standard error
    long allocations = -1;  // allocations made by the operation itself
};

// A forked process with one listener (the daemon's when `listening`), on a fake clock, that
// carries out commands: init, uninit, push <name>, check_list <name>, pop, get_next,
// has_new_entry, is_empty, check_watchdogs <second>.
class Peer {
public:
    explicit Peer(bool listening)
    {
        int commands[2];
        int replies[2];
        EXPECT_EQ(::pipe(commands), 0);
        EXPECT_EQ(::pipe(replies), 0);
        pid_ = logferry_test::fork_child([=] {
            ::close(commands[1]);
            ::close(replies[0]);
            return serve(listening, commands[0], replies[1]);
        });
        ::close(commands[0]);
        ::close(replies[1]);
        to_child_ = commands[1];
        from_child_ = replies[0];
    }

    ~Peer()
    {
        if (pid_ > 0) {
            stop();
        }
    }

    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    Reply call(const std::string& command, const std::string& argument = std::string())
    {
        Reply reply;
        std::string allocations;
        if (!write_frame(to_child_, command) || !write_frame(to_child_, argument) ||
            !read_frame(from_child_, reply.result, true) || !read_frame(from_child_, reply.output, true) ||
            !read_frame(from_child_, allocations, true)) {
            ADD_FAILURE() << "the peer did not answer " << command;
            reply.result = "<no answer>";
            return reply;
        }
        reply.allocations = std::stol(allocations);
        return reply;
    }

    // Closes the command pipe; the peer destroys its listener and exits.
    bool stop()
    {
        ::close(to_child_);
        const int status = logferry_test::wait_child(pid_);
        ::close(from_child_);
        pid_ = -1;
        return logferry_test::exited_cleanly(status);
    }

private:
    static int serve(bool listening, int in, int out)
    {
        Fake_system fake;
        Scoped_system installed(&fake);
        Logferry_listener listener(listening);
        std::string command;
        std::string argument;
        while (read_frame(in, command, false) && read_frame(in, argument, false)) {
            std::string result;
            long allocations = 0;
            const std::string output = capture_stderr([&] {
                if (command == "check_watchdogs" && !argument.empty()) {
                    fake.set_time(std::stol(argument));
                }
                const long before = allocation_count.load();
                result = execute(listener, command, argument);
                allocations = allocation_count.load() - before;
            });
            if (!write_frame(out, result) || !write_frame(out, output) ||
                !write_frame(out, std::to_string(allocations))) {
                return 3;
            }
        }
        return 0;
    }

    static std::string execute(Logferry_listener& listener, const std::string& command, const std::string& argument)
    {
        if (command == "init") {
            return listener.init() ? "1" : "0";
        }
        if (command == "uninit") {
            listener.uninit();
            return "";
        }
        if (command == "push") {
            return listener.push(argument) ? "1" : "0";
        }
        if (command == "check_list") {
            return listener.check_list(argument) ? "1" : "0";
        }
        if (command == "pop") {
            return listener.pop() ? "1" : "0";
        }
        if (command == "get_next") {
            return listener.get_next();
        }
        if (command == "has_new_entry") {
            return listener.has_new_entry() ? "1" : "0";
        }
        if (command == "is_empty") {
            return listener.is_empty() ? "1" : "0";
        }
        if (command == "check_watchdogs") {
            listener.check_watchdogs();
            return "";
        }
        return "<unknown command>";
    }

    int pid_ = -1;
    int to_child_ = -1;
    int from_child_ = -1;
};

// The 34 bytes of an entry, and what they should be.
std::string entry_bytes(const Listener_entry& entry)
{
    return std::string(reinterpret_cast<const char*>(&entry), sizeof(Listener_entry));
}

std::string entry_of(const std::string& name, int picked_up, int watchdog_reset)
{
    std::string bytes(sizeof(Listener_entry), '\0');
    bytes.replace(0, name.size(), name);
    bytes[32] = static_cast<char>(picked_up);
    bytes[33] = static_cast<char>(watchdog_reset);
    return bytes;
}

const std::string FREE_ENTRY = entry_of("", 0, 0);

// The whole list outside the mutex: the 32 entries, both indices and the zero reserve.
struct Expected_list {
    std::vector<std::string> entries = std::vector<std::string>(logferry::LISTENER_ENTRY_COUNT, FREE_ENTRY);
    int read_index = 0;
    int write_index = 0;
};

void expect_list(const Listener_segment* segment, const Expected_list& expected)
{
    for (std::uint32_t i = 0; i < logferry::LISTENER_ENTRY_COUNT; ++i) {
        EXPECT_EQ(entry_bytes(segment->entries[i]), expected.entries[i]) << "entry " << i;
    }
    EXPECT_EQ(segment->read_index, expected.read_index);
    EXPECT_EQ(segment->write_index, expected.write_index);
    for (unsigned char byte : segment->reserved) {
        EXPECT_EQ(byte, 0);
    }
}

std::string numbered_name(int number)
{
    char text[32];
    std::snprintf(text, sizeof text, "/logferry-app-%02d-0123456789", number);
    return text;
}

// Measures what one call of the application's side allocates.
template <typename Action>
long allocations_of(Action action)
{
    const long before = allocation_count.load();
    action();
    return allocation_count.load() - before;
}

// The test's run-state directory, a daemon peer that is up in it, and the test process's
// application listener attached to it.
class Daemon_and_application {
public:
    Daemon_and_application() : daemon(true), application(false)
    {
        EXPECT_EQ(daemon.call("init").result, "1");
        EXPECT_TRUE(application.init());
    }

    ~Daemon_and_application()
    {
        application.uninit();
        EXPECT_EQ(count_mappings(LISTENER_SEGMENT), 0);
        EXPECT_TRUE(daemon.stop());
    }

    Listener_segment* segment() { return application.segment; }

    Listener_runstate dir;  // made before the daemon, checked once everything is gone
    Peer daemon;
    Logferry_listener application;
};

}  // namespace

// The test's run-state directory, and the fake system installed for the test's lifetime.
class ListenerListOnFakeSystem : public ::testing::Test {
protected:
    Listener_runstate dir;
    Fake_system fake;

private:
    Scoped_system installed_{&fake};
};

TEST_F(ListenerListOnFakeSystem, OperationsRefuseAnUninitialisedListener)
{
    Logferry_listener application(false);
    std::string name = "x";

    EXPECT_TRUE(fails_saying(not_initialized(), [&] { return application.push("/logferry-a"); }));
    EXPECT_TRUE(fails_saying("", [&] { return application.check_list("/logferry-a"); }));
    // pop looks at the own entry first: with none it is silent even here.
    EXPECT_TRUE(fails_saying("", [&] { return application.pop(); }));
    application.own_entry = 3;
    EXPECT_TRUE(fails_saying("", [&] { return application.check_list("/logferry-a"); }));
    EXPECT_TRUE(fails_saying(not_initialized(), [&] { return application.pop(); }));
    EXPECT_EQ(application.own_entry, 3);
    EXPECT_EQ(capture_stderr([&] { name = application.get_next(); }), not_initialized());
    EXPECT_EQ(name, "");
    EXPECT_TRUE(fails_saying(not_initialized(), [&] { return application.has_new_entry(); }));
    // Not initialised reads as "not empty".
    EXPECT_TRUE(fails_saying(not_initialized(), [&] { return application.is_empty(); }));
    // Only the daemon runs the proxy watchdogs.
    EXPECT_EQ(capture_stderr([&] { application.check_watchdogs(); }), "");

    Logferry_listener daemon(true);
    EXPECT_EQ(capture_stderr([&] { daemon.check_watchdogs(); }), diagnostic("proxy watchdogs not allocated."));
    daemon.proxy_watchdogs.reset(new std::int64_t[logferry::LISTENER_ENTRY_COUNT]());
    EXPECT_EQ(capture_stderr([&] { daemon.check_watchdogs(); }), not_initialized());
    daemon.disable_listening();
    EXPECT_EQ(capture_stderr([&] { daemon.check_watchdogs(); }), "");

    EXPECT_EQ(fake.calls_made(), "");
}

TEST(ListenerList, AnnouncementTravelsToTheDaemonAndIsWithdrawn)
{
    Daemon_and_application both;
    Logferry_listener& application = both.application;
    const std::string name = "/logferry-app1-12345-5f3a";
    Expected_list expected;
    expect_list(both.segment(), expected);

    EXPECT_EQ(both.daemon.call("is_empty").result, "1");
    EXPECT_EQ(both.daemon.call("has_new_entry").result, "0");
    EXPECT_EQ(both.daemon.call("get_next").result, "");
    // pop before any push: false and silent.
    EXPECT_TRUE(fails_saying("", [&] { return application.pop(); }));

    ASSERT_TRUE(succeeds_saying("", [&] { return application.push(name); }));
    EXPECT_EQ(application.own_entry, 0);
    EXPECT_EQ(application.unacknowledged_checks, 0);
    expected.entries[0] = entry_of(name, 0, 1);
    expected.write_index = 1;
    expect_list(both.segment(), expected);

    EXPECT_EQ(both.daemon.call("has_new_entry").result, "1");
    EXPECT_EQ(both.daemon.call("is_empty").result, "0");
    const Reply next = both.daemon.call("get_next");
    EXPECT_EQ(next.result, name);
    EXPECT_EQ(next.output, "");
    expected.entries[0] = entry_of(name, 1, 1);
    expected.read_index = 1;
    expect_list(both.segment(), expected);

    // The only filled entry is picked up: nothing new, yet not empty.
    EXPECT_EQ(both.daemon.call("get_next").result, "");
    EXPECT_EQ(both.daemon.call("has_new_entry").result, "0");
    EXPECT_EQ(both.daemon.call("is_empty").result, "0");
    expected.read_index = 0;  // the read side was rescanned and found nothing
    expect_list(both.segment(), expected);

    EXPECT_TRUE(application.check_list(name));
    EXPECT_TRUE(succeeds_saying("", [&] { return application.pop(); }));
    EXPECT_EQ(application.own_entry, -1);
    expected.entries[0] = entry_of("", 0, 1);
    expect_list(both.segment(), expected);
    EXPECT_EQ(both.daemon.call("is_empty").result, "1");
    EXPECT_TRUE(fails_saying("", [&] { return application.check_list(name); }));
    EXPECT_TRUE(fails_saying("", [&] { return application.pop(); }));
}

TEST(ListenerList, FullLengthNameIsStoredWithoutTerminator)
{
    Daemon_and_application both;
    Logferry_listener& application = both.application;
    const std::string name = "/logferry-abcdefghijklmnopqrstuv";
    ASSERT_EQ(name.size(), 32u);

    // Into the last entry, right before the mutex, so that the write index wraps as well.
    both.segment()->write_index = 31;
    ASSERT_TRUE(application.push(name));
    EXPECT_EQ(application.own_entry, 31);
    Expected_list expected;
    expected.entries[31] = entry_of(name, 0, 1);
    expected.write_index = 0;
    expect_list(both.segment(), expected);
    EXPECT_EQ(std::memcmp(both.segment()->entries[31].channel_name, name.data(), 32), 0);

    EXPECT_TRUE(application.check_list(name));
    const Reply next = both.daemon.call("get_next");
    EXPECT_EQ(next.result, name);
    EXPECT_EQ(next.result.size(), 32u);
    expected.entries[31] = entry_of(name, 1, 1);
    expected.read_index = 0;  // wrapped from 31
    expect_list(both.segment(), expected);
    EXPECT_TRUE(application.check_list(name));

    // One byte more is refused by both.
    const std::string too_long = name + "w";
    EXPECT_TRUE(fails_saying(name_too_long(), [&] { return application.push(too_long); }));
    EXPECT_TRUE(fails_saying(name_too_long(), [&] { return application.check_list(too_long); }));
    expect_list(both.segment(), expected);
    EXPECT_EQ(application.own_entry, 31);
    EXPECT_TRUE(application.pop());
}

TEST(ListenerList, EmptyNameIsRefused)
{
    Daemon_and_application both;
    Logferry_listener& application = both.application;
    EXPECT_TRUE(fails_saying(diagnostic("shared memory name empty."), [&] { return application.push(""); }));
    expect_list(both.segment(), Expected_list());
    ASSERT_TRUE(application.push("/logferry-a"));
    EXPECT_TRUE(fails_saying(diagnostic("shared memory name empty."), [&] { return application.check_list(""); }));
    EXPECT_EQ(application.unacknowledged_checks, 0);
    EXPECT_TRUE(application.pop());
}

TEST(ListenerList, FullListRefusesSilentlyAndKeepsTheSyncedIndices)
{
    Daemon_and_application both;
    Logferry_listener& application = both.application;
    Expected_list expected;
    for (int i = 0; i < 32; ++i) {
        ASSERT_TRUE(application.push(numbered_name(i))) << i;
        EXPECT_EQ(application.own_entry, i);
        expected.entries[i] = entry_of(numbered_name(i), 0, 1);
    }
    expected.write_index = 0;  // wrapped after entry 31
    expect_list(both.segment(), expected);

    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(both.daemon.call("get_next").result, numbered_name(i));
        expected.entries[i] = entry_of(numbered_name(i), 1, 1);
    }
    expected.read_index = 3;
    // Each get_next's sync found the write index on a full entry and set it to the read
    // index of that moment: 0, 1, then 2.
    expected.write_index = 2;
    expect_list(both.segment(), expected);

    // No free entry: the write index falls back to the read index and the push fails.
    EXPECT_TRUE(fails_saying("", [&] { return application.push("/logferry-one-too-many"); }));
    EXPECT_EQ(application.own_entry, 31);
    expected.write_index = 3;
    expect_list(both.segment(), expected);
    EXPECT_EQ(both.daemon.call("has_new_entry").result, "1");
    EXPECT_EQ(both.daemon.call("is_empty").result, "0");

    // Once one is withdrawn, its entry is the next to be filled.
    application.own_entry = 1;
    ASSERT_TRUE(application.pop());
    ASSERT_TRUE(application.push("/logferry-late"));
    EXPECT_EQ(application.own_entry, 1);
    expected.entries[1] = entry_of("/logferry-late", 0, 1);
    expected.write_index = 2;
    expect_list(both.segment(), expected);
}

TEST(ListenerList, ClientWatchdogFreesTheEntryOnThe100thUnansweredCheck)
{
    Daemon_and_application both;
    Logferry_listener& application = both.application;
    const std::string name = "/logferry-watched";
    ASSERT_TRUE(application.push(name));
    Expected_list expected;
    expected.entries[0] = entry_of(name, 0, 1);
    expected.write_index = 1;

    int true_results = 0;
    const std::string quiet = capture_stderr([&] {
        for (int i = 1; i <= 99; ++i) {
            true_results += application.check_list(name) ? 1 : 0;
        }
    });
    EXPECT_EQ(quiet, "");
    EXPECT_EQ(true_results, 99);
    EXPECT_EQ(application.unacknowledged_checks, 99);
    expect_list(both.segment(), expected);

    EXPECT_TRUE(fails_saying(diagnostic("client watchdog triggered."), [&] { return application.check_list(name); }));
    EXPECT_EQ(application.own_entry, -1);
    EXPECT_EQ(application.unacknowledged_checks, 0);
    expected.entries[0] = entry_of("", 0, 1);
    expect_list(both.segment(), expected);

    EXPECT_TRUE(fails_saying("", [&] { return application.check_list(name); }));
    EXPECT_EQ(both.daemon.call("is_empty").result, "1");
}

TEST(ListenerList, PickedUpEntryIsCheckedWithoutCounting)
{
    Daemon_and_application both;
    Logferry_listener& application = both.application;
    const std::string name = "/logferry-picked";
    ASSERT_TRUE(application.push(name));
    for (int i = 0; i < 50; ++i) {
        ASSERT_TRUE(application.check_list(name));
    }
    EXPECT_EQ(application.unacknowledged_checks, 50);
    ASSERT_EQ(both.daemon.call("get_next").result, name);

    int true_results = 0;
    const std::string quiet = capture_stderr([&] {
        for (int i = 0; i < 1000; ++i) {
            true_results += application.check_list(name) ? 1 : 0;
        }
    });
    EXPECT_EQ(quiet, "");
    EXPECT_EQ(true_results, 1000);
    EXPECT_EQ(application.unacknowledged_checks, 50);
    EXPECT_EQ(application.own_entry, 0);
    EXPECT_TRUE(application.pop());
    EXPECT_EQ(application.unacknowledged_checks, 0);
}

TEST(ListenerList, OtherNamesInTheOwnEntryAreMismatches)
{
    Daemon_and_application both;
    Logferry_listener& application = both.application;
    const std::string name = "/logferry-abcdef";
    ASSERT_TRUE(application.push(name));
    ASSERT_TRUE(application.check_list(name));
    Expected_list expected;
    expected.entries[0] = entry_of(name, 0, 1);
    expected.write_index = 1;

    const std::string mismatch = diagnostic("list entry mismatch.");
    for (const std::string& other : {std::string("/logferry-abc"),       // a prefix of the stored name
                                     std::string("/logferry-abcdefgh"),  // longer than the stored name
                                     std::string("/logferry-zzzzzz")}) {
        SCOPED_TRACE(other);
        EXPECT_TRUE(fails_saying(mismatch, [&] { return application.check_list(other); }));
        EXPECT_EQ(application.own_entry, 0);
        EXPECT_EQ(application.unacknowledged_checks, 1);  // not counted
        expect_list(both.segment(), expected);
    }
    EXPECT_TRUE(application.check_list(name));
    EXPECT_TRUE(application.pop());
}

TEST(ListenerList, PopEmptiesTheSlotWhoeverFilledIt)
{
    Daemon_and_application both;
    Logferry_listener& first = both.application;
    ASSERT_TRUE(first.push("/logferry-first"));

    // Another application that believes it owns entry 0 (its own announcement was freed and
    // the slot refilled) erases the first one's announcement.
    Logferry_listener second(false);
    ASSERT_TRUE(second.init());
    second.own_entry = 0;
    EXPECT_TRUE(succeeds_saying("", [&] { return second.pop(); }));
    EXPECT_EQ(second.own_entry, -1);
    Expected_list expected;
    expected.entries[0] = entry_of("", 0, 1);
    expected.write_index = 1;
    expect_list(both.segment(), expected);

    // The first application finds its entry freed: false, silently, and it keeps its index.
    EXPECT_TRUE(fails_saying("", [&] { return first.check_list("/logferry-first"); }));
    EXPECT_EQ(first.own_entry, 0);
    second.uninit();
}

TEST(ListenerList, ProxyWatchdogFreesAnEntryFiveSecondsAfterItWasSeen)
{
    Daemon_and_application both;
    Logferry_listener& application = both.application;
    const std::string name = "/logferry-forgotten";
    ASSERT_TRUE(application.push(name));

    Reply pass = both.daemon.call("check_watchdogs", "100");
    EXPECT_EQ(pass.output, "");
    Expected_list expected;
    expected.entries[0] = entry_of(name, 0, 0);  // the reset signal is consumed
    expected.write_index = 1;
    expect_list(both.segment(), expected);

    EXPECT_EQ(both.daemon.call("check_watchdogs", "104").output, "");
    expect_list(both.segment(), expected);
    EXPECT_TRUE(application.check_list(name));

    pass = both.daemon.call("check_watchdogs", "105");
    EXPECT_EQ(pass.output, WATCHDOG_MESSAGE);
    expected.entries[0] = FREE_ENTRY;
    expect_list(both.segment(), expected);
    EXPECT_TRUE(fails_saying("", [&] { return application.check_list(name); }));

    // A picked-up entry that is never withdrawn expires the same way.
    application.own_entry = -1;
    ASSERT_TRUE(application.push(name));
    EXPECT_EQ(application.own_entry, 1);
    ASSERT_EQ(both.daemon.call("get_next").result, name);
    EXPECT_EQ(both.daemon.call("check_watchdogs", "200").output, "");
    EXPECT_EQ(both.daemon.call("check_watchdogs", "204").output, "");
    EXPECT_EQ(both.daemon.call("check_watchdogs", "300").output, WATCHDOG_MESSAGE);
    EXPECT_EQ(entry_bytes(both.segment()->entries[1]), FREE_ENTRY);
    EXPECT_EQ(both.daemon.call("is_empty").result, "1");
}

TEST(ListenerList, RefillOrWithdrawalRestartsTheProxyWatchdog)
{
    Daemon_and_application both;
    Logferry_listener& application = both.application;
    for (int i = 0; i < 32; ++i) {
        ASSERT_TRUE(application.push(numbered_name(i)));
    }
    EXPECT_EQ(both.daemon.call("check_watchdogs", "100").output, "");  // all due at 105

    // At 103 entry 0 is withdrawn and filled again.
    application.own_entry = 0;
    ASSERT_TRUE(application.pop());
    ASSERT_TRUE(application.push("/logferry-refilled"));
    ASSERT_EQ(application.own_entry, 0);

    EXPECT_EQ(both.daemon.call("check_watchdogs", "104").output, "");  // entry 0 now due at 109
    std::string thirty_one;
    for (int i = 0; i < 31; ++i) {
        thirty_one += WATCHDOG_MESSAGE;
    }
    EXPECT_EQ(both.daemon.call("check_watchdogs", "105").output, thirty_one);
    Expected_list expected;
    expected.entries[0] = entry_of("/logferry-refilled", 0, 0);
    expected.read_index = 1;  // set by the push's sync, when entry 0 was briefly free
    expected.write_index = 1;
    expect_list(both.segment(), expected);

    EXPECT_EQ(both.daemon.call("check_watchdogs", "108").output, "");
    expect_list(both.segment(), expected);
    EXPECT_EQ(both.daemon.call("check_watchdogs", "109").output, WATCHDOG_MESSAGE);
    expected.entries[0] = FREE_ENTRY;
    expect_list(both.segment(), expected);
}

TEST(ListenerList, ProxyWatchdogRepairsAStuckEntry)
{
    Daemon_and_application both;
    {
        logferry::Mutex_lock_guard lock(&both.segment()->list_mutex.mutex, false);
        both.segment()->entries[5].picked_up = 1;  // emptied, yet marked as handed out
    }
    // A stuck entry counts as empty, is nothing new and cannot be filled.
    EXPECT_EQ(both.daemon.call("is_empty").result, "1");
    EXPECT_EQ(both.daemon.call("has_new_entry").result, "0");
    both.segment()->write_index = 5;
    ASSERT_TRUE(both.application.push("/logferry-around-stuck"));
    EXPECT_EQ(both.application.own_entry, 0);
    ASSERT_TRUE(both.application.pop());

    EXPECT_EQ(both.daemon.call("check_watchdogs", "50").output, "");
    Expected_list expected;
    expected.write_index = 1;
    expected.entries[0] = FREE_ENTRY;  // the reset signal of the pop is consumed as well
    expect_list(both.segment(), expected);
}

TEST(ListenerList, SyncKeepsUsableIndicesAndRescansTheOthers)
{
    Daemon_and_application both;
    Logferry_listener& application = both.application;
    Listener_segment* segment = both.segment();
    ASSERT_TRUE(application.push("/logferry-a"));
    ASSERT_TRUE(application.push("/logferry-b"));
    ASSERT_TRUE(application.push("/logferry-c"));

    // An announced entry at the read index is handed out first.
    segment->read_index = 2;
    EXPECT_EQ(both.daemon.call("get_next").result, "/logferry-c");
    EXPECT_EQ(segment->read_index, 3);
    // An empty one sends the daemon back to the first announced entry.
    EXPECT_EQ(both.daemon.call("get_next").result, "/logferry-a");
    EXPECT_EQ(segment->read_index, 1);
    EXPECT_EQ(both.daemon.call("get_next").result, "/logferry-b");
    EXPECT_EQ(segment->read_index, 2);
    EXPECT_EQ(both.daemon.call("get_next").result, "");
    EXPECT_EQ(segment->read_index, 0);

    // An occupied write index is replaced by the first free entry.
    segment->write_index = 1;
    ASSERT_TRUE(application.push("/logferry-d"));
    EXPECT_EQ(application.own_entry, 3);
    EXPECT_EQ(segment->write_index, 4);

    // A free entry at the write index is filled even when an earlier one is free too.
    application.own_entry = 0;
    ASSERT_TRUE(application.pop());
    ASSERT_TRUE(application.push("/logferry-e"));
    EXPECT_EQ(application.own_entry, 4);

    Expected_list expected;
    expected.entries[0] = entry_of("", 0, 1);
    expected.entries[1] = entry_of("/logferry-b", 1, 1);
    expected.entries[2] = entry_of("/logferry-c", 1, 1);
    expected.entries[3] = entry_of("/logferry-d", 0, 1);
    expected.entries[4] = entry_of("/logferry-e", 0, 1);
    expected.read_index = 3;  // entry 0 was free at the last push: the first announced is 3
    expected.write_index = 5;
    expect_list(segment, expected);

    // sync_list on its own (the caller holds the lock) settles both indices.
    {
        logferry::Mutex_lock_guard lock(&segment->list_mutex.mutex, false);
        segment->write_index = 2;
        application.sync_list();
    }
    EXPECT_EQ(segment->read_index, 3);   // still announced: kept
    EXPECT_EQ(segment->write_index, 0);  // occupied: the first free entry
}

TEST(ListenerList, IndicesOutsideTheListAreRescanned)
{
    Daemon_and_application both;
    Logferry_listener& application = both.application;
    Listener_segment* segment = both.segment();

    // A peer that wrote nonsense into the indices must not make anyone leave the list.
    segment->read_index = 200;
    segment->write_index = 255;
    ASSERT_TRUE(application.push("/logferry-first"));
    EXPECT_EQ(application.own_entry, 0);
    EXPECT_EQ(segment->write_index, 1);
    EXPECT_EQ(segment->read_index, 0);

    segment->write_index = 32;
    ASSERT_TRUE(application.push("/logferry-second"));
    EXPECT_EQ(application.own_entry, 1);
    EXPECT_EQ(segment->write_index, 2);

    segment->read_index = 32;
    EXPECT_EQ(both.daemon.call("get_next").result, "/logferry-first");
    segment->read_index = 77;
    EXPECT_EQ(both.daemon.call("get_next").result, "/logferry-second");
    EXPECT_EQ(segment->read_index, 2);
    segment->read_index = 250;
    EXPECT_EQ(both.daemon.call("get_next").result, "");
    EXPECT_EQ(segment->read_index, 0);
    EXPECT_EQ(both.daemon.call("has_new_entry").result, "0");

    // An own entry outside the list (never produced by push) is treated like none.
    application.own_entry = 40;
    EXPECT_TRUE(fails_saying("", [&] { return application.check_list("/logferry-second"); }));
    EXPECT_TRUE(succeeds_saying("", [&] { return application.pop(); }));
    EXPECT_EQ(application.own_entry, -1);
    EXPECT_EQ(entry_bytes(segment->entries[1]), entry_of("/logferry-second", 1, 1));
}

TEST(ListenerList, DeadHolderOfTheListMutexIsTakenOverSilently)
{
    LOGFERRY_REQUIRE_ROBUST_LIST();
    Daemon_and_application both;
    Listener_segment* segment = both.segment();
    // A child shares the mapping, takes the list mutex and dies holding it.
    const int pid =
        logferry_test::fork_child([segment] { return ::pthread_mutex_lock(&segment->list_mutex.mutex) == 0 ? 0 : 1; });
    const int status = logferry_test::wait_child(pid);
    ASSERT_TRUE(logferry_test::exited_cleanly(status));

    Fake_system fake;
    Scoped_system installed(&fake);
    EXPECT_TRUE(succeeds_saying("", [&] { return both.application.push("/logferry-after-death"); }));
    EXPECT_EQ(fake.calls(Op::pthread_mutex_consistent), 1);
    EXPECT_EQ(both.daemon.call("get_next").result, "/logferry-after-death");
    EXPECT_TRUE(both.application.pop());
}

TEST(ListenerList, ManyApplicationsAnnounceAtOnce)
{
    Listener_runstate dir;
    Peer daemon(true);
    ASSERT_EQ(daemon.call("init").result, "1");

    const int count = 8;
    std::vector<int> children;
    for (int i = 0; i < count; ++i) {
        children.push_back(logferry_test::fork_child([i] {
            Logferry_listener application(false);
            if (!application.init()) {
                return 1;
            }
            // Each announces, withdraws and announces again, to contend for the lock.
            for (int round = 0; round < 50; ++round) {
                if (!application.push(numbered_name(i)) || !application.pop()) {
                    return 2;
                }
            }
            return application.push(numbered_name(i)) ? 0 : 3;
        }));
    }
    // The daemon takes names while the applications are still at it.
    std::set<std::string> received;
    std::vector<int> statuses;
    const bool all_done = wait_until(
        [&] {
            const std::string name = daemon.call("get_next").result;
            if (!name.empty()) {
                received.insert(name);
            }
            for (auto pid = children.begin(); pid != children.end();) {
                int status = 0;
                if (::waitpid(*pid, &status, WNOHANG) == *pid) {
                    statuses.push_back(status);
                    pid = children.erase(pid);
                } else {
                    ++pid;
                }
            }
            return children.empty();
        },
        std::chrono::milliseconds(20000));
    EXPECT_TRUE(all_done);
    for (int pid : children) {
        statuses.push_back(logferry_test::wait_child(pid));
    }
    for (int status : statuses) {
        EXPECT_TRUE(logferry_test::exited_cleanly(status)) << status;
    }
    // Then the last announcements.
    for (std::uint32_t i = 0; i < logferry::LISTENER_ENTRY_COUNT; ++i) {
        const std::string name = daemon.call("get_next").result;
        if (name.empty()) {
            break;
        }
        received.insert(name);
    }
    std::set<std::string> sent;
    for (int i = 0; i < count; ++i) {
        sent.insert(numbered_name(i));
    }
    EXPECT_EQ(received, sent);
    EXPECT_EQ(daemon.call("has_new_entry").result, "0");
    EXPECT_EQ(daemon.call("is_empty").result, "0");
    EXPECT_TRUE(daemon.stop());
}

TEST_F(ListenerListOnFakeSystem, ClockFailureStopsTheWatchdogPass)
{
    Logferry_listener daemon(true);
    ASSERT_TRUE(daemon.init());
    // An application in another process announces itself.
    const int pid = logferry_test::fork_child([] {
        Logferry_listener application(false);
        return application.init() && application.push("/logferry-child") ? 0 : 1;
    });
    const int status = logferry_test::wait_child(pid);
    ASSERT_TRUE(logferry_test::exited_cleanly(status));
    Expected_list expected;
    expected.entries[0] = entry_of("/logferry-child", 0, 1);
    expected.write_index = 1;
    expect_list(daemon.segment, expected);

    fake.reset_calls();
    fake.fail(Op::clock_gettime, -1, EINVAL);
    EXPECT_EQ(capture_stderr([&] { daemon.check_watchdogs(); }), error_while("getting time", EINVAL));
    EXPECT_EQ(fake.calls(Op::pthread_mutex_lock), 0);
    expect_list(daemon.segment, expected);

    // On the fake clock: armed at 1000 + 5, due from second 1005 on.
    fake.clear_faults();
    fake.set_time(1000);
    EXPECT_EQ(capture_stderr([&] { daemon.check_watchdogs(); }), "");
    EXPECT_EQ(daemon.proxy_watchdogs[0], 1005);
    expected.entries[0] = entry_of("/logferry-child", 0, 0);
    expect_list(daemon.segment, expected);
    fake.set_time(1004, 999999999);
    EXPECT_EQ(capture_stderr([&] { daemon.check_watchdogs(); }), "");
    expect_list(daemon.segment, expected);
    fake.set_time(1005, 1);
    EXPECT_EQ(capture_stderr([&] { daemon.check_watchdogs(); }), WATCHDOG_MESSAGE);
    EXPECT_EQ(daemon.proxy_watchdogs[0], 0);
    expected.entries[0] = FREE_ENTRY;
    expect_list(daemon.segment, expected);

    // With listening switched off a pass does nothing at all, not even read the clock.
    ASSERT_EQ(logferry_test::wait_child(logferry_test::fork_child([] {
                  Logferry_listener application(false);
                  return application.init() && application.push("/logferry-child-2") ? 0 : 1;
              })),
              0);
    fake.set_time(1006);
    daemon.check_watchdogs();
    EXPECT_EQ(daemon.proxy_watchdogs[1], 1011);
    daemon.disable_listening();
    fake.set_time(5000);
    fake.reset_calls();
    EXPECT_EQ(capture_stderr([&] { daemon.check_watchdogs(); }), "");
    EXPECT_EQ(fake.calls(Op::clock_gettime), 0);
    EXPECT_EQ(daemon.proxy_watchdogs[1], 1011);
    EXPECT_EQ(entry_bytes(daemon.segment->entries[1]), entry_of("/logferry-child-2", 0, 0));

    // No longer listening, the daemon leaves the segment and the lock file in place.
    daemon.uninit();
    EXPECT_TRUE(shm_exists(LISTENER_SEGMENT));
    EXPECT_TRUE(path_exists(dir.lock_file()));
    EXPECT_EQ(::shm_unlink(LISTENER_SEGMENT), 0);
    EXPECT_EQ(::unlink(dir.lock_file().c_str()), 0);
}

TEST(ListenerList, OnlyGetNextAllocates)
{
    Daemon_and_application both;
    Logferry_listener& application = both.application;
    const std::string name = "/logferry-allocation-free-name";
    ASSERT_GT(name.size(), 15u);  // beyond the short-string buffer: get_next must allocate
    bool ok = false;

    EXPECT_EQ(allocations_of([&] { ok = application.push(name); }), 0);
    EXPECT_TRUE(ok);
    EXPECT_EQ(allocations_of([&] { ok = application.check_list(name); }), 0);
    EXPECT_TRUE(ok);
    EXPECT_EQ(allocations_of([&] {
                  logferry::Mutex_lock_guard lock(&both.segment()->list_mutex.mutex, false);
                  application.sync_list();
              }),
              0);

    Reply reply = both.daemon.call("has_new_entry");
    EXPECT_EQ(reply.result, "1");
    EXPECT_EQ(reply.allocations, 0);
    reply = both.daemon.call("is_empty");
    EXPECT_EQ(reply.result, "0");
    EXPECT_EQ(reply.allocations, 0);
    reply = both.daemon.call("check_watchdogs", "10");
    EXPECT_EQ(reply.output, "");
    EXPECT_EQ(reply.allocations, 0);
    reply = both.daemon.call("get_next");
    EXPECT_EQ(reply.result, name);
    EXPECT_EQ(reply.allocations, 1);
    reply = both.daemon.call("get_next");
    EXPECT_EQ(reply.result, "");
    EXPECT_EQ(reply.allocations, 0);

    EXPECT_EQ(allocations_of([&] { ok = application.check_list(name); }), 0);
    EXPECT_TRUE(ok);
    EXPECT_EQ(allocations_of([&] { ok = application.pop(); }), 0);
    EXPECT_TRUE(ok);
    EXPECT_EQ(both.daemon.call("check_watchdogs", "11").allocations, 0);
}

TEST(ListenerList, NothingStaysOpenOrMapped)
{
    Listener_runstate dir;
    const int fds_at_start = count_open_fds();
    Peer daemon(true);
    ASSERT_EQ(daemon.call("init").result, "1");
    const int fds_before = count_open_fds();
    {
        Logferry_listener application(false);
        ASSERT_TRUE(application.init());
        ASSERT_TRUE(application.push("/logferry-open"));
        ASSERT_TRUE(application.check_list("/logferry-open"));
        ASSERT_EQ(daemon.call("get_next").result, "/logferry-open");
        ASSERT_TRUE(application.pop());
        EXPECT_EQ(count_open_fds(), fds_before);
        EXPECT_EQ(count_mappings(LISTENER_SEGMENT), 1);
        application.uninit();
        EXPECT_EQ(count_mappings(LISTENER_SEGMENT), 0);
        EXPECT_EQ(count_open_fds(), fds_before);
        // uninit keeps nothing but the own entry's index (-1 after the pop).
        EXPECT_EQ(application.own_entry, -1);
    }
    EXPECT_EQ(daemon.call("uninit").output, "");
    EXPECT_FALSE(shm_exists(LISTENER_SEGMENT));
    EXPECT_FALSE(path_exists(dir.lock_file()));
    EXPECT_TRUE(daemon.stop());
    EXPECT_EQ(count_open_fds(), fds_at_start);
}
