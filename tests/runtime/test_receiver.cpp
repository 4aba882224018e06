// Handling of what the daemon sends, the receiver thread (its last-resort handler, the
// replay of the registrations refused part-way, the priority records forced in at shutdown,
// the daemon's messages applied all at once at shutdown), and the control requests, without
// a daemon.
#include <errno.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "logferry/client.hpp"
#include "support/client_fixture.hpp"
#include "support/diagnostics.hpp"
#include "support/fake_system.hpp"
#include "support/test_util.hpp"

using namespace logferry_test;

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

// The fake clock's time.
constexpr long CLOCK_SECONDS = 1000;
constexpr std::uint32_t CONTEXT = 1;

Bytes app_record(const char* id, const char* description)
{
    return bytes_of(logferry::Logferry_register_app(id, description));
}

Bytes context_record(std::uint8_t level, std::uint32_t handle, const char* id, const char* description)
{
    return bytes_of(logferry::Logferry_register_context(level, handle, id, description));
}

Bytes init_file_record(const std::string& name) { return bytes_of(make_init_file(name)); }

}  // namespace

// The application's channel up, no daemon, no receiver thread; closed again afterwards.
class Channel_alone_test : public ::testing::Test {
protected:
    void SetUp() override { open_channel_alone(); }
    void TearDown() override { logferry::client.uninit(); }
};

using ReceiverOnAChannel = Channel_alone_test;
using ControlRequestsOnAChannel = Channel_alone_test;

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
    EXPECT_EQ(capture_stderr([&] { logferry::handle_daemon_message(empty); }), diagnostic("empty message received."));
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
    EXPECT_EQ(err, diagnostic("unexpected failure in receiver thread of logferry lib."));
    // It did get as far as the detached branch: ordinary traffic held, replay due.
    EXPECT_TRUE(logferry::client.is_client_buffer_locked());
    EXPECT_TRUE(logferry::pending_registration);
    logferry::client.uninit();
}

TEST_F(ReceiverOnAChannel, ThreadEndsAtOnceWhenAskedBeforeItStarts)
{
    logferry::terminate_receiver_thread = true;
    const std::string err = capture_stderr([] { logferry::receiver_thread(); });
    EXPECT_EQ(err, "");
    logferry::terminate_receiver_thread = false;
}

TEST_F(ReceiverOnAChannel, LogstreamIsEnabledBetweenStartAndFinish)
{
    {
        std::lock_guard<std::mutex> lock(logferry::contexts_mutex);
        logferry::registered_contexts.emplace(3, logferry::Logferry_register_context(4, 3, "CTX3", "c"));
    }
    EXPECT_FALSE(logferry::is_logstream_enabled(77));
    ASSERT_TRUE(logferry::log_start(3, 77, 4));
    EXPECT_TRUE(logferry::is_logstream_enabled(77));
    logferry::log_finish(77);
    EXPECT_FALSE(logferry::is_logstream_enabled(77));
}

// ---------------------------------------------------------------------------------------
// The receiver thread on a channel with registrations waiting

// A channel without receiver thread on the fake clock, with fake sleeps; the application
// "APP1" and context 1 (level 4) registered while no daemon was attached, so both records
// wait in the queue.
class ReceiverThread : public logferry_test::Client_test {
protected:
    void SetUp() override
    {
        Client_test::SetUp();
        scoped_ = std::make_unique<Scoped_system>(&fake_);
        fake_.set_time(CLOCK_SECONDS);
        fake_.fake_sleeps(true);
        open_without_receiver();
        register_basics(CONTEXT, 4);
    }

    void TearDown() override
    {
        fake_.on_call(nullptr);
        Client_test::TearDown();
        scoped_.reset();
    }

    // As after an outage: the daemon is attached again and the registrations await replay.
    static void replay_due()
    {
        logferry::first_registration = false;
        logferry::pending_registration = true;
    }

    // Runs the receiver thread's body here, asked to stop at its first millisecond sleep
    // (it looks at the request at the top of its loop). Returns what it wrote on the
    // standard error stream.
    std::string run_receiver_until_first_sleep()
    {
        fake_.on_call([](Op op) {
            if (op == Op::sleep_for_milliseconds) {
                logferry::terminate_receiver_thread = true;
            }
        });
        std::string err = logferry_test::capture_stderr([] { logferry::receiver_thread(); });
        fake_.on_call(nullptr);
        return err;
    }

    Fake_system fake_;
    std::unique_ptr<Scoped_system> scoped_;
};

TEST_F(ReceiverThread, ReplayStopsAtTheContextWhileTheDaemonHasNotTakenTheApplication)
{
    Daemon_end daemon;
    ASSERT_TRUE(daemon.attached);
    replay_due();

    EXPECT_EQ(run_receiver_until_first_sleep(), "");
    // The application's record went into the empty area; the context's waited 20 polls of
    // 50 ms for the daemon, gave up, and the tick's sleep followed.
    EXPECT_EQ(fake_.sleeps_ms(), std::vector<unsigned int>(21, 50));
    EXPECT_TRUE(logferry::pending_registration);  // the replay starts over at the next tick
    EXPECT_TRUE(logferry::client.is_client_buffer_locked());
    // At shutdown the queued records were forced in behind the replayed one.
    EXPECT_TRUE(logferry::is_pending_priority_queue_empty());
    EXPECT_EQ(logferry_test::priority_area(),
              joined({app_record("APP1", "test application"), app_record("APP1", "test application"),
                      context_record(4, CONTEXT, "CTX1", "test context")}));
}

TEST_F(ReceiverThread, ReplayStopsAtTheApplicationWhileTheAreaHoldsAnUntakenRecord)
{
    Daemon_end daemon;
    ASSERT_TRUE(daemon.attached);
    const Bytes local_print{1};
    ASSERT_TRUE(logferry::client.push_priority(local_print));
    replay_due();

    EXPECT_EQ(run_receiver_until_first_sleep(), "");
    EXPECT_EQ(fake_.sleeps_ms(), std::vector<unsigned int>(21, 50));
    EXPECT_TRUE(logferry::pending_registration);
    EXPECT_TRUE(logferry::client.is_client_buffer_locked());
    // Nothing of the replay went in; the queue was forced in behind the waiting record.
    EXPECT_TRUE(logferry::is_pending_priority_queue_empty());
    EXPECT_EQ(logferry_test::priority_area(), joined({local_print, app_record("APP1", "test application"),
                                                      context_record(4, CONTEXT, "CTX1", "test context")}));
}

TEST_F(ReceiverThread, ShutdownForcesQueuedRecordsUntilTheAreaIsFullAndKeepsTheRest)
{
    // Eight 256-byte file requests queue behind the two registrations. Forced, the area takes
    // at most 2047 bytes: the registrations and seven of the requests.
    for (int i = 0; i < 8; ++i) {
        ASSERT_TRUE(logferry::init_file(("file-" + std::to_string(i)).c_str()));
    }
    const std::vector<Bytes> queued = queued_priority_records();
    ASSERT_EQ(queued.size(), 10u);
    const std::size_t app_size = app_record("APP1", "test application").size();
    const std::size_t context_size = context_record(4, CONTEXT, "CTX1", "test context").size();
    ASSERT_LE(app_size + context_size + 7 * 256, 2047u);
    ASSERT_GT(app_size + context_size + 8 * 256, 2047u);

    logferry::terminate_receiver_thread = true;
    const std::string err = logferry_test::capture_stderr([] { logferry::receiver_thread(); });
    EXPECT_EQ(err, priority_exceeded());

    Bytes forced;
    for (std::size_t i = 0; i < 9; ++i) {
        forced.insert(forced.end(), queued[i].begin(), queued[i].end());
    }
    EXPECT_EQ(queued[9], init_file_record("file-7"));
    EXPECT_EQ(logferry_test::priority_area(), forced);
    const std::vector<Bytes> left = queued_priority_records();
    ASSERT_EQ(left.size(), 1u);
    EXPECT_EQ(left[0], init_file_record("file-7"));
}

TEST_F(ReceiverThread, ShutdownAppliesEveryMessageTheDaemonLeftNotOnePerTick)
{
    Daemon_end daemon;
    ASSERT_TRUE(daemon.attached);
    ASSERT_FALSE(logferry::is_log_level_enabled(CONTEXT, 6));
    const std::string text = "from the daemon\n";
    ASSERT_TRUE(daemon.end.push(Bytes{24, 6, 1, 0, 0, 0}));
    ASSERT_TRUE(daemon.end.push(Bytes(text.begin(), text.end())));
    ASSERT_TRUE(daemon.end.push(Bytes{'!', '\n'}));

    logferry::terminate_receiver_thread = true;
    std::string err;
    const std::string out = logferry_test::capture_stdout(
        [&] { err = logferry_test::capture_stderr([] { logferry::receiver_thread(); }); });
    EXPECT_EQ(err, "");
    EXPECT_EQ(out, "from the daemon\n!\n");
    EXPECT_TRUE(logferry::is_log_level_enabled(CONTEXT, 6));
    EXPECT_TRUE(logferry::client.is_empty());
}

// ---------------------------------------------------------------------------------------
// Control requests

TEST_F(ControlRequestsOnAChannel, InitFileWithoutANameSendsNothing)
{
    logferry::client.unlock_client_buffer();
    EXPECT_FALSE(logferry::init_file(nullptr));
    EXPECT_EQ(queue_size(), 0u);
    EXPECT_FALSE(logferry::client.is_client_buffer_locked());
    EXPECT_TRUE(logferry::client.is_priority_empty());
}

TEST_F(ControlRequestsOnAChannel, EmptyFileNameIsAWholeZeroField)
{
    logferry::client.unlock_client_buffer();
    EXPECT_TRUE(logferry::init_file(""));
    Bytes expected(256, 0);
    expected[0] = 2;
    EXPECT_EQ(front_of_queue(), expected);
    EXPECT_TRUE(logferry::client.is_client_buffer_locked());
}

TEST_F(ControlRequestsOnAChannel, LongFileNameIsCutTo254Characters)
{
    const std::string name(300, 'n');
    EXPECT_TRUE(logferry::init_file(name.c_str()));
    Bytes expected(256, 0);
    expected[0] = 2;
    for (std::size_t i = 1; i <= 254; ++i) {
        expected[i] = 'n';
    }
    EXPECT_EQ(front_of_queue(), expected);
}

TEST_F(ControlRequestsOnAChannel, LocalPrintIsAcceptedWithoutADaemonAndWaitsInTheQueue)
{
    logferry::client.unlock_client_buffer();
    Fake_system fake;
    Scoped_system installed(&fake);
    EXPECT_TRUE(logferry::enable_local_print());
    EXPECT_EQ(front_of_queue(), Bytes{1});
    EXPECT_TRUE(logferry::client.is_client_buffer_locked());
    EXPECT_EQ(fake.calls(Op::sleep_for_milliseconds), 0);  // no waiting without a daemon
    logferry::disable_remote();
    EXPECT_EQ(queue_size(), 2u);
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
