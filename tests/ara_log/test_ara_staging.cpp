// The ara::log front end's staging: messages wait in their thread's queue while the ring
// cannot take them, reach the ring in each thread's order, within the memory bound, and a
// fatal message is in the ring when its statement ends; the start record's time stamp.
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ara/log/logging.h"
#include "ara_log/staging.hpp"
#include "ara_log/stamp_clock.hpp"
#include "logferry/client.hpp"
#include "support/ara_fixture.hpp"
#include "support/test_util.hpp"

using ara::log::LogLevel;
using logferry_test::AraLog;
using logferry_test::Bytes;
using logferry_test::Op;
using logferry_test::read_u32;
using logferry_test::split_records;
using logferry_test::text_of;
using logferry_test::timestamp_of;
namespace detail = ara::log::detail;

namespace {

// The unsigned number argument of a message "<text> <number>" (its third record).
std::uint32_t number_of(const Bytes& message)
{
    return read_u32(split_records(message)[2], logferry::wire::formatted::VALUE_AT);
}

// Takes messages out of the ring as a daemon does until `count` came or 10 s passed.
std::vector<Bytes> read_until(logferry_test::Daemon_end& daemon, std::size_t count)
{
    std::vector<Bytes> all;
    logferry_test::wait_until(
        [&] {
            for (Bytes& message : daemon.drain()) {
                all.push_back(std::move(message));
            }
            return all.size() >= count;
        },
        std::chrono::seconds(10));
    return all;
}

}  // namespace

TEST_F(AraLog, ABurstLargerThanTheRingWaitsForTheGateAndArrivesWholeInOrder)
{
    const ara::log::Logger& logger = attached_logger();
    logferry::client.lock_client_buffer();     // as a fresh channel: the daemon has not been let in yet
    constexpr std::uint32_t MESSAGES = 10000;  // about 400 KB: three rings' worth
    for (std::uint32_t i = 0; i < MESSAGES; ++i) {
        logger.LogInfo() << "burst" << i;
    }
    // Nothing was dropped and nothing went into the closed ring.
    EXPECT_EQ(detail::staged_messages(), MESSAGES);
    EXPECT_EQ(logferry::client.lost_messages.load(), 0u);
    EXPECT_TRUE(daemon_->end.is_empty());

    const auto all = read_until(*daemon_, MESSAGES);  // opens the gate and reads as the daemon does
    ASSERT_EQ(all.size(), MESSAGES);
    for (std::uint32_t i = 0; i < MESSAGES; ++i) {
        ASSERT_EQ(number_of(all[i]), i);
    }
    EXPECT_EQ(logferry::client.lost_messages.load(), 0u);
}

TEST_F(AraLog, EachThreadsMessagesKeepTheirOrderAcrossBlocksAndHandOvers)
{
    const ara::log::Logger& logger = attached_logger();
    constexpr int THREADS = 3;
    constexpr std::uint32_t MESSAGES = 6000;  // each thread fills several blocks
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; ++t) {
        threads.emplace_back([&, t] {
            for (std::uint32_t i = 0; i < MESSAGES; ++i) {
                logger.LogInfo() << std::string(1, static_cast<char>('a' + t)) << i;
            }
        });
    }
    const auto all = read_until(*daemon_, THREADS * MESSAGES);
    for (std::thread& thread : threads) {
        thread.join();
    }
    ASSERT_EQ(all.size(), THREADS * MESSAGES);
    std::vector<std::uint32_t> next(THREADS, 0);
    for (const Bytes& message : all) {
        const int thread = text_of(split_records(message)[1])[0] - 'a';
        ASSERT_TRUE(thread >= 0 && thread < THREADS);
        ASSERT_EQ(number_of(message), next[static_cast<std::size_t>(thread)]++);
    }
}

TEST_F(AraLog, MessagesThatOutgrowTheirBlockWhileTheFlusherReadsArriveWhole)
{
    const ara::log::Logger& logger = attached_logger();
    logferry::client.unlock_client_buffer();
    constexpr std::uint32_t MESSAGES = 2000;  // about 4 KB each: most blocks end inside a message
    const std::string text(500, 't');
    std::vector<Bytes> all;
    std::thread reader([&] { all = read_until(*daemon_, MESSAGES); });
    for (std::uint32_t i = 0; i < MESSAGES; ++i) {
        auto stream = logger.LogInfo();
        stream << "grown" << i;
        for (int t = 0; t < 8; ++t) {
            stream << text;
        }
    }
    reader.join();
    ASSERT_EQ(all.size(), MESSAGES);
    for (std::uint32_t i = 0; i < MESSAGES; ++i) {
        const auto records = split_records(all[i]);
        ASSERT_EQ(records.size(), 12u);
        ASSERT_EQ(number_of(all[i]), i);
        for (std::size_t t = 3; t < 11; ++t) {
            ASSERT_EQ(text_of(records[t]), text);
        }
    }
}

TEST_F(AraLog, AFatalMessageAndWhatItsThreadLoggedBeforeAreInTheRingWhenItsStatementEnds)
{
    const ara::log::Logger& logger = attached_logger();
    logferry::client.lock_client_buffer();  // the flusher hands nothing over meanwhile
    for (std::uint32_t i = 0; i < 5; ++i) {
        logger.LogInfo() << "before" << i;
    }
    logger.LogFatal() << "fatal" << 5U;
    EXPECT_EQ(detail::staged_messages(), 0u);
    logferry::client.unlock_client_buffer();
    const auto all = daemon_->drain();  // what stands in the ring now, without waiting
    ASSERT_EQ(all.size(), 6u);
    for (std::uint32_t i = 0; i < 6; ++i) {
        EXPECT_EQ(number_of(all[i]), i);
    }
    EXPECT_EQ(text_of(split_records(all[5])[1]), "fatal");
    EXPECT_EQ(all[5][1], static_cast<unsigned char>(LogLevel::kFatal));
}

TEST_F(AraLog, AStreamFinishedInsideAnotherOnItsThreadComesAfterWhatTheThreadStagedBefore)
{
    const ara::log::Logger& logger = attached_logger();
    logferry::client.unlock_client_buffer();
    logger.LogInfo() << "first" << 0U;
    {
        auto outer = logger.LogInfo();
        outer << "outer";
        logger.LogInfo() << "inner" << 1U;  // finished while `outer` is open
        outer << 2U;
    }
    logger.LogInfo() << "last" << 3U;
    const auto all = messages();
    ASSERT_EQ(all.size(), 4u);
    const char* const texts[] = {"first", "inner", "outer", "last"};
    for (std::uint32_t i = 0; i < 4; ++i) {
        EXPECT_EQ(text_of(split_records(all[i])[1]), texts[i]);
        EXPECT_EQ(number_of(all[i]), i);
    }
}

TEST_F(AraLog, AStreamMovedToAnotherThreadIsSentWholeAndItsFirstThreadGoesOn)
{
    const ara::log::Logger& logger = attached_logger();
    ara::log::LogStream stream = logger.LogInfo();
    stream << "moved";
    std::thread([moved = std::move(stream)]() mutable {
        moved << 1U;
        for (int i = 0; i < 30; ++i) {
            moved << std::string(1300, 'x');  // grows beyond its first thread's block
        }
    }).join();
    logger.LogInfo() << "stays" << 2U;
    const auto all = messages();
    ASSERT_EQ(all.size(), 2u);
    std::vector<std::string> texts;
    for (const Bytes& message : all) {
        texts.push_back(text_of(split_records(message)[1]));
    }
    std::sort(texts.begin(), texts.end());
    EXPECT_EQ(texts, (std::vector<std::string>{"moved", "stays"}));
    for (const Bytes& message : all) {
        const auto records = split_records(message);
        if (text_of(records[1]) == "moved") {
            ASSERT_EQ(records.size(), 34u);  // start, "moved", 1, 30 texts, finish
            EXPECT_EQ(read_u32(records[2], logferry::wire::formatted::VALUE_AT), 1u);
            for (std::size_t i = 3; i < 33; ++i) {
                EXPECT_EQ(text_of(records[i]), std::string(1300, 'x'));
            }
        }
    }
}

// The bound: LOGFERRY_STAGING_LIMIT is read when logging comes up.
class AraLogBound : public AraLog {
protected:
    void SetUp() override
    {
        ::setenv("LOGFERRY_STAGING_LIMIT", "128k", 1);
        AraLog::SetUp();
    }
    void TearDown() override
    {
        AraLog::TearDown();
        ::unsetenv("LOGFERRY_STAGING_LIMIT");
    }
};

TEST_F(AraLogBound, PastTheBoundMessagesAreDroppedCountedAndReportedAndTheMemoryComesBack)
{
    const ara::log::Logger& logger = attached_logger();
    logferry::client.lock_client_buffer();
    constexpr std::uint32_t MESSAGES = 10000;  // about 400 KB
    for (std::uint32_t i = 0; i < MESSAGES; ++i) {
        logger.LogInfo() << "bounded" << i;
    }
    EXPECT_LE(detail::staged_block_bytes(), std::size_t{128} << 10);
    const std::size_t staged = detail::staged_messages();
    const std::uint64_t dropped = logferry::client.lost_messages.load();
    EXPECT_GT(staged, 1000u);
    EXPECT_EQ(staged + dropped, MESSAGES);
    // The regular report counts the dropped ones.
    const std::string report = logferry_test::capture_stdout([] { logferry::client.check_lost_messages(); });
    EXPECT_EQ(report, "logferry: Application " + logferry::client.app_identifier + " buffer full, " +
                          std::to_string(dropped) + " messages discarded.\n");

    // What was staged arrives, the oldest first; then the blocks are given back but for the
    // one the thread writes in.
    const auto all = read_until(*daemon_, staged);
    ASSERT_EQ(all.size(), staged);
    for (std::size_t i = 0; i < staged; ++i) {
        ASSERT_EQ(number_of(all[i]), i);
    }
    EXPECT_TRUE(logferry_test::wait_until([] {
        return detail::staged_block_bytes() <= detail::TUNING.block_size + 4096;
    })) << detail::staged_block_bytes();
    // Below the bound again: messages are staged again.
    logger.LogInfo() << "again" << 0U;
    const auto again = messages();
    ASSERT_EQ(again.size(), 1u);
    EXPECT_EQ(text_of(split_records(again[0])[1]), "again");
}

// The start record's time stamp.
class StampClock : public ::testing::Test {
protected:
    void TearDown() override { detail::stamp_clock_use(nullptr); }
};

std::uint32_t monotonic_unit()
{
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint32_t>(now.tv_sec) * 10000U + static_cast<std::uint32_t>(now.tv_nsec / 100000);
}

TEST_F(StampClock, TheProcessorsCounterGivesTheMonotonicClocksUnitAndNeverGoesBack)
{
    detail::stamp_clock_start(nullptr);
    if (detail::stamp_clock.mode.load() != detail::kProcessor) {
        GTEST_SKIP() << "no usable processor counter here";
    }
    ASSERT_TRUE(logferry_test::wait_until([] {
        detail::stamp_clock_recheck();
        return detail::stamp_clock.ticks_per_ns_q32.load() != 0;
    }));
    std::uint32_t last = 0;
    for (int i = 0; i < 300000; ++i) {
        const std::uint32_t before = monotonic_unit();
        const std::uint32_t stamp = detail::stamp_now();
        const std::uint32_t after = monotonic_unit();
        ASSERT_LE(before, stamp) << i;
        ASSERT_LE(stamp, after) << i;
        ASSERT_GE(stamp, last) << i;
        last = stamp;
    }
}

// A counter that a test moves by hand, against the fake clock.
std::atomic<std::uint64_t> fake_ticks{0};
std::uint64_t read_fake_ticks() noexcept { return fake_ticks.load(); }

class FakeStampClock : public StampClock {
protected:
    void SetUp() override
    {
        scoped_ = std::make_unique<logferry_test::Scoped_system>(&fake_);
        fake_.set_time(100, 0);
        fake_ticks = 1000000;
        detail::stamp_clock_use(&read_fake_ticks);  // first calibration point
        fake_.advance_ms(20);
        fake_ticks += 20000000;  // one tick a nanosecond
        detail::stamp_clock_recheck();
    }
    void TearDown() override
    {
        StampClock::TearDown();
        scoped_.reset();
    }
    logferry_test::Fake_system fake_;
    std::unique_ptr<logferry_test::Scoped_system> scoped_;
};

TEST_F(FakeStampClock, TheRateIsCalibratedWithAMarginBelowTheMeasuredOne)
{
    // 98 % of one tick a nanosecond.
    EXPECT_EQ(detail::stamp_clock.ticks_per_ns_q32.load(), static_cast<std::uint64_t>(0.98 * 4294967296.0));
}

TEST_F(FakeStampClock, WithinTheUnitTheCounterAloneAnswersAndPastItTheClockIsAskedAgain)
{
    fake_.set_time(100, 20020000);  // 100.02002 s: 80 us left in unit 1000200
    fake_.reset_calls();
    EXPECT_EQ(detail::stamp_now(), 1000200u);
    EXPECT_EQ(fake_.calls(Op::clock_gettime), 1);
    // 76 us on the counter (the span is 98 % of the 78 us left before the margin): still sure.
    fake_ticks += 76000;
    EXPECT_EQ(detail::stamp_now(), 1000200u);
    EXPECT_EQ(fake_.calls(Op::clock_gettime), 1);
    // Past the span the clock decides, even when the counter is all there is to go by.
    fake_ticks += 1000;
    fake_.set_time(100, 20100000);
    EXPECT_EQ(detail::stamp_now(), 1000201u);
    EXPECT_EQ(fake_.calls(Op::clock_gettime), 2);
    // A counter behind the span's start (another processor's) asks the clock too.
    fake_ticks -= 500000;
    EXPECT_EQ(detail::stamp_now(), 1000201u);
    EXPECT_EQ(fake_.calls(Op::clock_gettime), 3);
}

TEST_F(FakeStampClock, ACounterThatRunsBackwardsIsSwitchedOffForGood)
{
    fake_.advance_ms(1000);
    fake_ticks -= 5;
    detail::stamp_clock_recheck();
    EXPECT_EQ(detail::stamp_clock.mode.load(), detail::kNoCounter);
    fake_.reset_calls();
    EXPECT_EQ(detail::stamp_now(), 1010200u);  // 101.02 s
    EXPECT_EQ(detail::stamp_now(), 1010200u);
    EXPECT_EQ(fake_.calls(Op::clock_gettime), 2);
}

TEST_F(StampClock, ACalibrationPointTakenAcrossAPreemptionIsNotTrusted)
{
    logferry_test::Fake_system fake;
    logferry_test::Scoped_system scoped(&fake);
    fake.set_time(100, 0);
    fake_ticks = 1000000;
    // The first reading of the first point: the thread is kept off the processor for 1 ms
    // between the counter read and the clock read (both go on meanwhile).
    int reads = 0;
    fake.on_call([&](Op op) {
        if (op == Op::clock_gettime && reads++ == 0) {
            fake.advance_ms(1);
            fake_ticks += 1000000;
        }
    });
    detail::stamp_clock_use(&read_fake_ticks);
    fake.on_call(nullptr);
    fake.advance_ms(20);
    fake_ticks += 20000000;
    detail::stamp_clock_recheck();
    // The tightest reading was taken: the rate is one tick a nanosecond (less the margin), not
    // 21 ticks per 20 ns.
    EXPECT_EQ(detail::stamp_clock.ticks_per_ns_q32.load(), static_cast<std::uint64_t>(0.98 * 4294967296.0));
}

TEST_F(FakeStampClock, AnotherSeamThanTheOneCheckedIsAskedEveryTime)
{
    logferry_test::Fake_system other;
    other.set_time(7, 0);
    logferry_test::Scoped_system scoped(&other);
    EXPECT_EQ(detail::stamp_now(), 70000u);
    EXPECT_EQ(detail::stamp_now(), 70000u);
    EXPECT_EQ(other.calls(Op::clock_gettime), 2);
}

TEST_F(AraLog, TheStartRecordCarriesTheStampOfTheClock)
{
    const ara::log::Logger& logger = attached_logger();
    fake_.set_time(5, 123456789);
    logger.LogInfo() << "stamped" << 0U;
    const auto all = messages();
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(timestamp_of(all[0]), 51234u);
}

// The front end on the library's own seam: the stamps of the messages as they reach the ring.
class AraLogOwnSeam : public logferry_test::Client_test {
protected:
    void SetUp() override
    {
        Client_test::SetUp();
        open_without_receiver();
    }
    void TearDown() override
    {
        detail::stop_flusher();
        Client_test::TearDown();
    }
};

TEST_F(AraLogOwnSeam, EveryMessageCarriesTheMonotonicClocksUnitOfItsCall)
{
    ara::log::InitLogging("APP1", "ara application", LogLevel::kWarn, ara::log::LogMode::kRemote);
    const ara::log::Logger& logger = ara::log::CreateLogger("CTXA", "context A", LogLevel::kInfo);
    logferry_test::Daemon_end daemon;
    ASSERT_TRUE(daemon.attached);
    if (detail::stamp_clock.mode.load() == detail::kProcessor) {
        ASSERT_TRUE(logferry_test::wait_until([] { return detail::stamp_clock.ticks_per_ns_q32.load() != 0; }));
    }
    constexpr std::uint32_t MESSAGES = 2000;
    std::vector<std::uint32_t> before(MESSAGES);
    std::vector<std::uint32_t> after(MESSAGES);
    std::vector<Bytes> all;
    for (std::uint32_t i = 0; i < MESSAGES; ++i) {
        before[i] = monotonic_unit();
        logger.LogInfo() << "stamped" << i;
        after[i] = monotonic_unit();
        if (i % 20 == 0) {
            ::usleep(37);  // across units
        }
        if (i % 500 == 499) {
            for (Bytes& message : read_until(daemon, i + 1 - all.size())) {
                all.push_back(std::move(message));
            }
        }
    }
    ASSERT_EQ(all.size(), MESSAGES);
    for (std::uint32_t i = 0; i < MESSAGES; ++i) {
        const std::uint32_t number = number_of(all[i]);
        ASSERT_EQ(number, i);
        EXPECT_LE(before[i], timestamp_of(all[i])) << i;
        EXPECT_LE(timestamp_of(all[i]), after[i]) << i;
    }
}
