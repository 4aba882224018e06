// Library state and lifecycle: the load-time state, set_app_identifier, init and exit.
#include <errno.h>

#include <ostream>
#include <string>

#include <gtest/gtest.h>

#include "logferry/client.hpp"
#include "support/client_fixture.hpp"
#include "support/fake_system.hpp"
#include "support/test_util.hpp"

using logferry_test::Client_test;
using logferry_test::Fake_system;
using logferry_test::live_threads;
using logferry_test::Op;
using logferry_test::Scoped_system;
using logferry_test::shm_exists;
using logferry_test::thread_ended;
using logferry_test::threads_started_since;
using logferry_test::unique_id;
using logferry_test::wait_until;

// No fixture: this looks at the objects as the library built them.
TEST(ClientLifecycle, LoadTimeStateIsEmptyAndUninitialised)
{
    EXPECT_FALSE(logferry::init_called);
    EXPECT_TRUE(logferry::first_registration);
    EXPECT_FALSE(logferry::pending_registration);
    EXPECT_FALSE(logferry::terminate_receiver_thread);
    EXPECT_FALSE(logferry::message_receiver_thread.joinable());
    EXPECT_TRUE(logferry::registered_application.empty());
    EXPECT_TRUE(logferry::registered_contexts.empty());
    EXPECT_TRUE(logferry::log_level_filters.empty());
    EXPECT_TRUE(logferry::incomplete_logstream_messages.empty());
    EXPECT_TRUE(logferry::priority_message_queue.empty());
    EXPECT_FALSE(logferry::client.is_initialized());
    EXPECT_TRUE(logferry::client.client_side);
    EXPECT_FALSE(logferry::listener.is_initialized());
    EXPECT_FALSE(logferry::listener.is_listening());
    EXPECT_NE(logferry::sys, nullptr);
    // The mutexes start unlocked.
    for (std::mutex* mutex :
         {&logferry::application_mutex, &logferry::contexts_mutex, &logferry::filters_mutex,
          &logferry::priority_message_queue_mutex, &logferry::incomplete_logstream_messages_mutex}) {
        ASSERT_TRUE(mutex->try_lock());
        mutex->unlock();
    }
}

TEST(ClientLifecycle, ListenerLockFilePathIsFixedAtLoadTime)
{
    EXPECT_EQ(logferry::listener.lock_listener_name,
              logferry::get_full_adaptive_runstate_directory() + "/ara_DLT/logferry-daemon-listener.lock");
}

// ---------------------------------------------------------------------------------------
// set_app_identifier

class ClientIdentifier : public Client_test {};

// The identifier set_app_identifier forms from the given one, the process id (its last five
// digits) and the monotonic clock in microseconds (32 bits, lowercase hex), on a fake system.
struct Identifier_case {
    const char* name;
    const char* given;
    long pid;
    long seconds;
    long nanoseconds;
    bool clock_fails;
    const char* formed;
};

void PrintTo(const Identifier_case& identifier, std::ostream* out) { *out << identifier.name; }

class ClientIdentifierFormed : public ClientIdentifier, public ::testing::WithParamInterface<Identifier_case> {};

TEST_P(ClientIdentifierFormed, FromPidAndClock)
{
    const Identifier_case& identifier = GetParam();
    Fake_system fake;
    Scoped_system scoped(&fake);
    fake.fail(Op::getpid, identifier.pid, 0, -1);
    if (identifier.clock_fails) {
        fake.fail(Op::clock_gettime, -1, EINVAL, 1);
    } else {
        fake.set_time(identifier.seconds, identifier.nanoseconds);
    }
    logferry::set_app_identifier(identifier.given);
    EXPECT_EQ(logferry::client.app_identifier, identifier.formed);
    EXPECT_EQ(fake.calls(Op::getpid), 1);
    EXPECT_EQ(fake.calls(Op::clock_gettime), 1);
}

INSTANTIATE_TEST_SUITE_P(Cases, ClientIdentifierFormed,
                         ::testing::Values(
                             // 12.5 s = 12500000 us = 0xbebc20
                             Identifier_case{"Example", "APP1", 1234567, 12, 500000000, false, "APP1-34567-bebc20"},
                             Identifier_case{"ShortPidIsKeptWhole", "APP1", 42, 0, 1000, false, "APP1-42-1"},
                             Identifier_case{"PidOfFiveDigitsIsKeptWhole", "X", 99999, 1, 0, false, "X-99999-f4240"},
                             // 4295000000 mod 2^32 = 32704
                             Identifier_case{"MicrosecondStampWrapsAt32Bits", "APP1", 1234567, 4295, 0, false,
                                             "APP1-34567-7fc0"},
                             Identifier_case{"ClockFailureGivesStampZero", "APP1", 1234567, 0, 0, true, "APP1-34567-0"},
                             Identifier_case{"EmptyIdentifierIsUsedUnchanged", "", 7, 0, 0, false, "-7-0"}));

TEST_F(ClientIdentifier, RealPidAndClockFormTheChannelName)
{
    const std::string id = unique_id("", 30);
    logferry::set_app_identifier(id);
    std::string pid = std::to_string(::getpid());
    if (pid.size() > 5) {
        pid = pid.substr(pid.size() - 5);
    }
    const std::string& formed = logferry::client.app_identifier;
    ASSERT_EQ(formed.compare(0, id.size() + pid.size() + 2, id + "-" + pid + "-"), 0) << formed;
    const std::string stamp = formed.substr(id.size() + pid.size() + 2);
    ASSERT_FALSE(stamp.empty());
    EXPECT_LE(stamp.size(), 8u);
    EXPECT_EQ(stamp.find_first_not_of("0123456789abcdef"), std::string::npos) << stamp;
    EXPECT_TRUE(stamp == "0" || stamp[0] != '0') << stamp;

    logferry::init();
    remember_channel();
    EXPECT_EQ(logferry::client.get_filename(), "/logferry-" + formed);
    EXPECT_TRUE(shm_exists(logferry::client.get_filename()));
}

TEST_F(ClientIdentifier, IdentifierOfAnyLengthIsUsedUnchanged)
{
    const std::string id(200, 'L');
    logferry::set_app_identifier(id);
    EXPECT_EQ(logferry::client.app_identifier.compare(0, 201, id + "-"), 0);
    logferry::init();
    remember_channel();
    EXPECT_TRUE(logferry::client.is_initialized());
    EXPECT_EQ(logferry::client.get_filename().compare(0, 211, "/logferry-" + id + "-"), 0);
    EXPECT_TRUE(shm_exists(logferry::client.get_filename()));
}

TEST_F(ClientIdentifier, ChangeWhileInitialisedTakesEffectAtNextInit)
{
    logferry::set_app_identifier(unique_id("a", 30));
    logferry::init();
    const std::string first = logferry::client.get_filename();
    ASSERT_TRUE(shm_exists(first));

    logferry::set_app_identifier(unique_id("b", 30));
    EXPECT_EQ(logferry::client.get_filename(), first);
    logferry::exit();
    EXPECT_FALSE(shm_exists(first));

    logferry::init();
    remember_channel();
    const std::string second = logferry::client.get_filename();
    EXPECT_NE(second, first);
    EXPECT_NE(second.find(unique_id("b", 30)), std::string::npos) << second;
    EXPECT_TRUE(shm_exists(second));
}

// ---------------------------------------------------------------------------------------
// init and exit

class ClientLifecycleTest : public Client_test {};

TEST_F(ClientLifecycleTest, InitOpensChannelAndStartsThread)
{
    const std::set<pid_t> threads_before = live_threads();
    logferry::init();
    remember_channel();
    EXPECT_TRUE(logferry::init_called);
    EXPECT_FALSE(logferry::terminate_receiver_thread);
    EXPECT_TRUE(logferry::message_receiver_thread.joinable());
    EXPECT_EQ(threads_started_since(threads_before).size(), 1u);
    EXPECT_TRUE(logferry::client.is_initialized());
    EXPECT_TRUE(shm_exists(logferry::client.get_filename()));
}

TEST_F(ClientLifecycleTest, InitWithoutDaemonReturnsAndThreadRuns)
{
    logferry::init();
    remember_channel();
    // No lock file: the listener stays closed, silently, and nobody is attached.
    EXPECT_FALSE(logferry::listener.is_initialized());
    EXPECT_FALSE(logferry::client.is_connection_active());
    EXPECT_TRUE(logferry::message_receiver_thread.joinable());
    const auto id = logferry::message_receiver_thread.get_id();
    EXPECT_NE(id, std::this_thread::get_id());
    // Still running a while later.
    std::this_thread::yield();
    EXPECT_TRUE(logferry::message_receiver_thread.joinable());
    EXPECT_EQ(logferry::message_receiver_thread.get_id(), id);
}

TEST_F(ClientLifecycleTest, InitTwiceStartsOneThread)
{
    const std::set<pid_t> threads_before = live_threads();
    logferry::init();
    remember_channel();
    const auto thread_id = logferry::message_receiver_thread.get_id();
    const std::string name = logferry::client.get_filename();
    const std::vector<pid_t> started = threads_started_since(threads_before);
    ASSERT_EQ(started.size(), 1u);

    logferry::init();
    EXPECT_EQ(logferry::message_receiver_thread.get_id(), thread_id);
    EXPECT_EQ(logferry::client.get_filename(), name);
    EXPECT_EQ(threads_started_since(threads_before), started);

    logferry::exit();
    EXPECT_TRUE(wait_until([&] { return thread_ended(started[0]); }));
}

TEST_F(ClientLifecycleTest, ExitStopsThreadAndClosesEverything)
{
    const std::set<pid_t> threads_before = live_threads();
    logferry::init();
    const std::string name = logferry::client.get_filename();
    ASSERT_TRUE(shm_exists(name));
    const std::vector<pid_t> started = threads_started_since(threads_before);
    ASSERT_EQ(started.size(), 1u);

    logferry::exit();
    EXPECT_TRUE(logferry::terminate_receiver_thread);
    EXPECT_FALSE(logferry::message_receiver_thread.joinable());
    EXPECT_FALSE(logferry::init_called);
    EXPECT_FALSE(logferry::client.is_initialized());
    EXPECT_FALSE(logferry::listener.is_initialized());
    EXPECT_FALSE(shm_exists(name));
    EXPECT_TRUE(wait_until([&] { return thread_ended(started[0]); }));
}

TEST_F(ClientLifecycleTest, ExitWithoutInitIsHarmlessAndInitStillWorks)
{
    const std::set<pid_t> threads_before = live_threads();
    const std::string output = logferry_test::capture_stderr([] { logferry::exit(); });
    EXPECT_EQ(output, "");
    EXPECT_FALSE(logferry::init_called);
    EXPECT_TRUE(logferry::terminate_receiver_thread);
    EXPECT_FALSE(logferry::message_receiver_thread.joinable());
    EXPECT_TRUE(threads_started_since(threads_before).empty());

    logferry::init();
    remember_channel();
    EXPECT_TRUE(logferry::init_called);
    EXPECT_FALSE(logferry::terminate_receiver_thread);
    EXPECT_TRUE(logferry::message_receiver_thread.joinable());
    EXPECT_TRUE(logferry::client.is_initialized());
}

TEST_F(ClientLifecycleTest, ExitTwiceIsHarmless)
{
    logferry::init();
    logferry::exit();
    logferry::exit();
    EXPECT_FALSE(logferry::init_called);
    EXPECT_FALSE(logferry::message_receiver_thread.joinable());
}

TEST_F(ClientLifecycleTest, InitExitInitKeepsRegistrations)
{
    const std::set<pid_t> threads_before = live_threads();
    logferry::init();
    ASSERT_TRUE(logferry::register_app("APP1", "application"));
    ASSERT_TRUE(logferry::register_context(7, "CTX1", "context", 5));
    const std::string first_name = logferry::client.get_filename();
    const std::vector<pid_t> first_thread = threads_started_since(threads_before);
    ASSERT_EQ(first_thread.size(), 1u);

    logferry::exit();
    EXPECT_FALSE(shm_exists(first_name));
    EXPECT_TRUE(wait_until([&] { return thread_ended(first_thread[0]); }));
    ASSERT_EQ(logferry::registered_application.size(), 1u);
    ASSERT_EQ(logferry::registered_contexts.count(7), 1u);
    EXPECT_EQ(logferry::log_level_filters.at(7), 5);
    // exit leaves these flags alone.
    EXPECT_TRUE(logferry::first_registration);

    logferry::init();
    remember_channel();
    EXPECT_TRUE(logferry::init_called);
    EXPECT_FALSE(logferry::terminate_receiver_thread);
    EXPECT_TRUE(logferry::message_receiver_thread.joinable());
    const std::vector<pid_t> second_thread = threads_started_since(threads_before);
    ASSERT_EQ(second_thread.size(), 1u);
    EXPECT_NE(second_thread[0], first_thread[0]);
    EXPECT_TRUE(logferry::client.is_initialized());
    EXPECT_TRUE(shm_exists(logferry::client.get_filename()));
    ASSERT_EQ(logferry::registered_application.size(), 1u);
    EXPECT_EQ(std::string(logferry::registered_application[0].app_id.data()), "APP1");
    ASSERT_EQ(logferry::registered_contexts.count(7), 1u);
    EXPECT_EQ(logferry::registered_contexts.at(7).log_level, 5);
    EXPECT_EQ(logferry::log_level_filters.at(7), 5);
}

TEST_F(ClientLifecycleTest, ExitLeavesOpenMessagesInPlace)
{
    logferry::init();
    ASSERT_TRUE(logferry::register_app("APP1", "application"));
    ASSERT_TRUE(logferry::register_context(1, "CTX1", "context", 4));
    ASSERT_TRUE(logferry::log_start(1, 77, 4));
    logferry::log_int32(77, 5);

    logferry::exit();
    EXPECT_TRUE(logferry::is_logstream_enabled(77));
    ASSERT_EQ(logferry::incomplete_logstream_messages.count(77), 1u);
    EXPECT_EQ(logferry::incomplete_logstream_messages.at(77).size(), 14u + 9u);
    EXPECT_EQ(logferry::registered_application.size(), 1u);
}

TEST_F(ClientLifecycleTest, ExitWaitsForTheThread)
{
    logferry::init();
    std::atomic<bool> done{false};
    std::thread stopper([&] {
        logferry::exit();
        done = true;
    });
    EXPECT_TRUE(wait_until([&] { return done.load(); }));
    stopper.join();
    EXPECT_FALSE(logferry::message_receiver_thread.joinable());
}

TEST_F(ClientLifecycleTest, ChannelFailureDoesNotStopInit)
{
    Fake_system fake;
    Scoped_system scoped(&fake);
    fake.fail(Op::shm_open, -1, EACCES, -1);
    std::string output = logferry_test::capture_stderr([] { logferry::init(); });
    EXPECT_NE(output.find("logferry: error while opening the shared memory: "), std::string::npos) << output;
    EXPECT_TRUE(logferry::init_called);
    EXPECT_TRUE(logferry::message_receiver_thread.joinable());
    EXPECT_FALSE(logferry::client.is_initialized());
    logferry::exit();
}

TEST_F(ClientLifecycleTest, ConnectChannelStopsAtChannelFailure)
{
    Fake_system fake;
    Scoped_system scoped(&fake);
    fake.fail(Op::shm_open, -1, EACCES, -1);
    bool connected = true;
    const std::string output = logferry_test::capture_stderr([&] { connected = logferry::connect_channel(); });
    EXPECT_FALSE(connected);
    EXPECT_NE(output.find("logferry: error while opening the shared memory: "), std::string::npos) << output;
    // The listener is not tried once the channel failed.
    EXPECT_EQ(fake.calls(Op::open), 0);
    EXPECT_EQ(fake.calls(Op::stat), 0);
    EXPECT_FALSE(logferry::listener.is_initialized());
}

TEST_F(ClientLifecycleTest, ConnectChannelOpensChannelButNotListenerWithoutDaemon)
{
    Fake_system fake;
    Scoped_system scoped(&fake);
    std::string output;
    bool connected = true;
    output = logferry_test::capture_stderr([&] { connected = logferry::connect_channel(); });
    remember_channel();
    EXPECT_FALSE(connected);
    EXPECT_EQ(output, "");
    EXPECT_TRUE(logferry::client.is_initialized());
    EXPECT_FALSE(logferry::listener.is_initialized());
    // The listener looked for the daemon's lock file.
    EXPECT_GE(fake.calls(Op::open), 1);
    // connect_channel starts no thread and does not mark the library initialised.
    EXPECT_FALSE(logferry::message_receiver_thread.joinable());
    EXPECT_FALSE(logferry::init_called);
}
