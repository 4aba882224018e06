// Paths of the front end that the other suites do not reach: the receiver thread's replay
// refused part-way, the forced records at shutdown overflowing the priority area, the daemon's
// messages applied all at once at shutdown, a message padded with more zeros than one step
// appends, a start on a stream that is already open while a spare node waits, and the
// default system's trylock.
#include <pthread.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "logferry/client.hpp"
#include "support/client_fixture.hpp"
#include "support/fake_system.hpp"
#include "support/test_util.hpp"

using logferry_test::Bytes;
using logferry_test::concat;
using logferry_test::Daemon_end;
using logferry_test::Fake_system;
using logferry_test::Op;
using logferry_test::queued_priority_records;
using logferry_test::Scoped_system;
using logferry_test::serialized;

namespace {

// 1000 s on the fake clock: 10000000 in the start records' units of 0.1 ms.
constexpr long CLOCK_SECONDS = 1000;
constexpr std::uint32_t TIMESTAMP = 10000000;
constexpr std::uint32_t CONTEXT = 1;

Bytes app_record(const char* id, const char* description)
{
    return serialized(logferry::Logferry_register_app(id, description));
}

Bytes context_record(std::uint8_t level, std::uint32_t handle, const char* id, const char* description)
{
    return serialized(logferry::Logferry_register_context(level, handle, id, description));
}

Bytes start_record(std::uint8_t level, std::uint32_t handle, std::uint32_t key)
{
    logferry::Logferry_write_start record;
    record.log_level = level;
    record.context_handle = handle;
    record.stream_key = key;
    record.timestamp = TIMESTAMP;
    return serialized(record);
}

Bytes finish_record(std::uint32_t key)
{
    logferry::Logferry_write_finish record;
    record.stream_key = key;
    return serialized(record);
}

Bytes init_file_record(const std::string& name)
{
    logferry::Logferry_init_file record;
    std::copy(name.begin(), name.end(), record.file_name.begin());
    return serialized(record);
}

}  // namespace

// A channel without receiver thread on the fake clock, with fake sleeps; the application
// "APP1" and context 1 (level 4) registered while no daemon was attached, so both records
// wait in the queue.
class CoverageGaps : public logferry_test::Client_test {
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

// ---------------------------------------------------------------------------------------
// Receiver thread

TEST_F(CoverageGaps, ReplayStopsAtTheContextWhileTheDaemonHasNotTakenTheApplication)
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
              concat({app_record("APP1", "test application"), app_record("APP1", "test application"),
                      context_record(4, CONTEXT, "CTX1", "test context")}));
}

TEST_F(CoverageGaps, ReplayStopsAtTheApplicationWhileTheAreaHoldsAnUntakenRecord)
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
    EXPECT_EQ(logferry_test::priority_area(), concat({local_print, app_record("APP1", "test application"),
                                                      context_record(4, CONTEXT, "CTX1", "test context")}));
}

TEST_F(CoverageGaps, ShutdownForcesQueuedRecordsUntilTheAreaIsFullAndKeepsTheRest)
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
    EXPECT_EQ(err, "logferry: Priority buffer exceeded: \n");

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

TEST_F(CoverageGaps, ShutdownAppliesEveryMessageTheDaemonLeftNotOnePerTick)
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
// Log streams

class CoverageGapsStreams : public CoverageGaps {
protected:
    void SetUp() override
    {
        CoverageGaps::SetUp();
        daemon_ = std::make_unique<Daemon_end>();
        ASSERT_TRUE(daemon_->attached);
        daemon_->drain();
    }

    void TearDown() override
    {
        daemon_.reset();
        CoverageGaps::TearDown();
    }

    std::unique_ptr<Daemon_end> daemon_;
};

TEST_F(CoverageGapsStreams, EncodedMessageIsPaddedWithZerosBeyondSixteen)
{
    logferry::log_encoded_message(Bytes{1, 2, 3}, 40);
    Bytes expected{23, 45, 0, 40, 0, 1, 2, 3};
    expected.resize(expected.size() + 37, 0);
    const std::vector<Bytes> messages = daemon_->drain();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0], expected);
}

TEST_F(CoverageGapsStreams, StartOnAnOpenStreamAppendsToItWhileASpareNodeWaits)
{
    // A finished message leaves this thread a spare node; stream 2 is then open on a new one.
    ASSERT_TRUE(logferry::log_start(CONTEXT, 1, 4));
    logferry::log_finish(1);
    ASSERT_TRUE(logferry::log_start(CONTEXT, 2, 4));
    ASSERT_TRUE(logferry::log_start(CONTEXT, 3, 4));
    logferry::log_finish(3);
    // Spare node waiting, stream 2 open: the start goes into stream 2.
    ASSERT_TRUE(logferry::log_start(CONTEXT, 2, 5));
    EXPECT_TRUE(logferry::is_logstream_enabled(2));
    EXPECT_FALSE(logferry::is_logstream_enabled(3));
    logferry::log_finish(2);
    // The spare node is still there for the next new stream.
    ASSERT_TRUE(logferry::log_start(CONTEXT, 4, 4));
    logferry::log_finish(4);

    const std::vector<Bytes> messages = daemon_->drain();
    ASSERT_EQ(messages.size(), 4u);
    EXPECT_EQ(messages[0], concat({start_record(4, CONTEXT, 1), finish_record(1)}));
    EXPECT_EQ(messages[1], concat({start_record(4, CONTEXT, 3), finish_record(3)}));
    EXPECT_EQ(messages[2], concat({start_record(4, CONTEXT, 2), start_record(5, CONTEXT, 2), finish_record(2)}));
    EXPECT_EQ(messages[3], concat({start_record(4, CONTEXT, 4), finish_record(4)}));
    EXPECT_TRUE(logferry::incomplete_logstream_messages.empty());
}

// ---------------------------------------------------------------------------------------
// System seam

TEST(CoverageGapsSystem, DefaultTrylockTakesAFreeMutexAndReportsABusyOne)
{
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    EXPECT_EQ(logferry::sys->pthread_mutex_trylock(&mutex), 0);
    EXPECT_EQ(logferry::sys->pthread_mutex_trylock(&mutex), EBUSY);
    EXPECT_EQ(logferry::sys->pthread_mutex_unlock(&mutex), 0);
    EXPECT_EQ(logferry::sys->pthread_mutex_trylock(&mutex), 0);
    EXPECT_EQ(logferry::sys->pthread_mutex_unlock(&mutex), 0);
}
