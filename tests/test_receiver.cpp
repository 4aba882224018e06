// Handling of what the daemon sends, the receiver thread's last-resort handler, and the
// control requests, without a daemon.
#include <errno.h>

#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "logferry/client.hpp"
#include "support/fake_system.hpp"
#include "support/test_util.hpp"

using namespace logferry_test;
using Bytes = std::vector<unsigned char>;

namespace {

void set_filter(std::uint32_t handle, std::uint8_t level)
{
    std::lock_guard<std::mutex> lock(logferry::filters_mutex);
    logferry::log_level_filters[handle] = level;
}

bool has_filter(std::uint32_t handle)
{
    std::lock_guard<std::mutex> lock(logferry::filters_mutex);
    return logferry::log_level_filters.count(handle) != 0;
}

std::uint8_t filter_of(std::uint32_t handle)
{
    std::lock_guard<std::mutex> lock(logferry::filters_mutex);
    return logferry::log_level_filters.at(handle);
}

Bytes front_of_queue()
{
    std::lock_guard<std::mutex> lock(logferry::priority_message_queue_mutex);
    return logferry::priority_message_queue.empty() ? Bytes() : logferry::priority_message_queue.front();
}

std::size_t queue_size()
{
    std::lock_guard<std::mutex> lock(logferry::priority_message_queue_mutex);
    return logferry::priority_message_queue.size();
}

// The application's channel up, no daemon, no receiver thread.
void open_channel_alone()
{
    logferry::client.set_app_identifier(unique_id("", 30));
    ASSERT_TRUE(logferry::client.init());
}

}  // namespace

TEST(Receiver, LevelUpdateSetsAKnownContextsFilter)
{
    set_filter(42, 1);
    Bytes update = {24, 6, 0x2A, 0, 0, 0};
    EXPECT_EQ(capture_stdout([&] { logferry::handle_daemon_message(update); }), "");
    EXPECT_EQ(filter_of(42), 6);
}

TEST(Receiver, LevelUpdateForAnUnknownContextCreatesNothing)
{
    Bytes update = {24, 6, 0x2A, 0, 0, 0};
    logferry::handle_daemon_message(update);
    EXPECT_FALSE(has_filter(42));
}

TEST(Receiver, MalformedLevelUpdatesAreIgnoredSilently)
{
    set_filter(42, 3);
    Bytes longer = {24, 6, 0x2A, 0, 0, 0, 0};
    Bytes shorter = {24, 6, 0x2A, 0, 0};
    Bytes too_verbose = {24, 7, 0x2A, 0, 0, 0};
    const std::string out = capture_stdout([&] {
        const std::string err = capture_stderr([&] {
            logferry::handle_daemon_message(longer);
            logferry::handle_daemon_message(shorter);
            logferry::handle_daemon_message(too_verbose);
        });
        EXPECT_EQ(err, "");
    });
    EXPECT_EQ(out, "");  // a first byte of 24 is never printed, whatever the length
    EXPECT_EQ(filter_of(42), 3);
}

TEST(Receiver, TextIsPrintedUpToItsFirstZeroWithoutANewlineAdded)
{
    Bytes hello = {'h', 'e', 'l', 'l', 'o', '\n'};
    EXPECT_EQ(capture_stdout([&] { logferry::handle_daemon_message(hello); }), "hello\n");
    Bytes cut = {'a', 'b', 0, 'c'};
    EXPECT_EQ(capture_stdout([&] { logferry::handle_daemon_message(cut); }), "ab");
    Bytes starts_with_zero = {0, 'x'};
    EXPECT_EQ(capture_stdout([&] { logferry::handle_daemon_message(starts_with_zero); }), "");
}

TEST(Receiver, EmptyMessageIsReported)
{
    Bytes empty;
    EXPECT_EQ(capture_stderr([&] { logferry::handle_daemon_message(empty); }), "logferry: empty message received.\n");
}

TEST(Receiver, AnyFailureEndsTheThreadWithOneMessage)
{
    Fake_system fake;
    Scoped_system installed(&fake);
    // The first reconnect pause throws, as a failing allocation or lock would.
    fake.on_call([](Op op) {
        if (op == Op::sleep_for_seconds || op == Op::sleep_for_milliseconds) {
            throw std::runtime_error("injected");
        }
    });
    open_channel_alone();
    logferry::listener.lock_listener_name = "/nonexistent-logferry-dir/x.lock";
    const std::string err = capture_stderr([] { logferry::receiver_thread(); });
    fake.on_call(nullptr);
    EXPECT_EQ(err, "logferry: unexpected failure in receiver thread of logferry lib.\n");
    // It did get as far as the detached branch: ordinary traffic held, replay due.
    EXPECT_TRUE(logferry::client.is_client_buffer_locked());
    EXPECT_TRUE(logferry::pending_registration);
    logferry::client.uninit();
}

TEST(Receiver, ThreadEndsAtOnceWhenAskedBeforeItStarts)
{
    open_channel_alone();
    logferry::terminate_receiver_thread = true;
    const std::string err = capture_stderr([] { logferry::receiver_thread(); });
    EXPECT_EQ(err, "");
    logferry::terminate_receiver_thread = false;
    logferry::client.uninit();
}

TEST(Receiver, LogstreamIsEnabledBetweenStartAndFinish)
{
    open_channel_alone();
    {
        std::lock_guard<std::mutex> lock(logferry::contexts_mutex);
        logferry::registered_contexts.emplace(3, logferry::Logferry_register_context(4, 3, "CTX3", "c"));
    }
    EXPECT_FALSE(logferry::is_logstream_enabled(77));
    ASSERT_TRUE(logferry::log_start(3, 77, 4));
    EXPECT_TRUE(logferry::is_logstream_enabled(77));
    logferry::log_finish(77);
    EXPECT_FALSE(logferry::is_logstream_enabled(77));
    logferry::client.uninit();
}

// ---------------------------------------------------------------------------------------
// Control requests

TEST(ControlRequests, InitFileWithoutANameSendsNothing)
{
    open_channel_alone();
    logferry::client.unlock_client_buffer();
    EXPECT_FALSE(logferry::init_file(nullptr));
    EXPECT_EQ(queue_size(), 0u);
    EXPECT_FALSE(logferry::client.is_client_buffer_locked());
    EXPECT_TRUE(logferry::client.is_priority_empty());
    logferry::client.uninit();
}

TEST(ControlRequests, EmptyFileNameIsAWholeZeroField)
{
    open_channel_alone();
    logferry::client.unlock_client_buffer();
    EXPECT_TRUE(logferry::init_file(""));
    Bytes expected(256, 0);
    expected[0] = 2;
    EXPECT_EQ(front_of_queue(), expected);
    EXPECT_TRUE(logferry::client.is_client_buffer_locked());
    logferry::client.uninit();
}

TEST(ControlRequests, LongFileNameIsCutTo254Characters)
{
    open_channel_alone();
    const std::string name(300, 'n');
    EXPECT_TRUE(logferry::init_file(name.c_str()));
    Bytes expected(256, 0);
    expected[0] = 2;
    for (std::size_t i = 1; i <= 254; ++i) {
        expected[i] = 'n';
    }
    EXPECT_EQ(front_of_queue(), expected);
    logferry::client.uninit();
}

TEST(ControlRequests, LocalPrintIsAcceptedWithoutADaemonAndWaitsInTheQueue)
{
    open_channel_alone();
    logferry::client.unlock_client_buffer();
    Fake_system fake;
    Scoped_system installed(&fake);
    EXPECT_TRUE(logferry::enable_local_print());
    EXPECT_EQ(front_of_queue(), Bytes{1});
    EXPECT_TRUE(logferry::client.is_client_buffer_locked());
    EXPECT_EQ(fake.calls(Op::sleep_for_milliseconds), 0);  // no waiting without a daemon
    logferry::disable_remote();
    EXPECT_EQ(queue_size(), 2u);
    logferry::client.uninit();
}

TEST(ControlRequests, RequestsBeforeInitWaitInTheQueue)
{
    // Nothing initialised at all: the requests are still taken and kept in order.
    capture_stderr([] {
        EXPECT_TRUE(logferry::enable_local_print());
        logferry::disable_remote();
        EXPECT_TRUE(logferry::init_file("f"));
    });
    ASSERT_EQ(queue_size(), 3u);
    EXPECT_EQ(front_of_queue(), Bytes{1});
}
