// The priority area: the strict and the forced write, the kind check, the readers and the
// explicit lock.
#include <errno.h>
#include <pthread.h>

#include <cstring>
#include <thread>

#include <gtest/gtest.h>

#include "logferry/channel.hpp"
#include "support/channel_fixture.hpp"
#include "support/diagnostics.hpp"
#include "support/fake_system.hpp"
#include "support/test_util.hpp"

using logferry::PRIORITY_DATA_SIZE;
using logferry_test::Bytes;
using logferry_test::capture_stderr;
using logferry_test::error_while;
using logferry_test::not_initialized;
using logferry_test::not_priority_kind;
using logferry_test::Op;
using logferry_test::priority_exceeded;
using logferry_test::record;

namespace {

class ChannelPriority : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(channel.open()); }
    void TearDown() override { EXPECT_TRUE(channel.close()); }

    Bytes area() const
    {
        return Bytes(channel.app.segment->priority_data, channel.app.segment->priority_data + PRIORITY_DATA_SIZE);
    }
    std::uint16_t used() const { return channel.app.segment->priority_size; }
    bool area_is_zero() const { return area() == Bytes(PRIORITY_DATA_SIZE, 0); }

    logferry_test::Channel_pair channel;
};

TEST_F(ChannelPriority, StrictWriteTakesAWholeAreaRecordTheForcedWriteDoesNot)
{
    const Bytes whole = record(0, 2048, 0x5A);
    std::string text = capture_stderr([&] { EXPECT_TRUE(channel.app.push_priority(whole)); });
    EXPECT_EQ(text, "");
    EXPECT_EQ(used(), 2048);
    EXPECT_EQ(area(), whole);

    channel.daemon.clear_priority_data();
    EXPECT_EQ(used(), 0);
    EXPECT_TRUE(area_is_zero());

    bool pushed = true;
    text = capture_stderr([&] { pushed = channel.app.force_push_priority(whole); });
    EXPECT_FALSE(pushed);
    EXPECT_EQ(text, priority_exceeded());
    EXPECT_EQ(used(), 0);
    EXPECT_TRUE(area_is_zero());

    // The forced write takes at most 2047 bytes.
    const Bytes almost = record(1, 2047, 0x6B);
    EXPECT_TRUE(channel.app.force_push_priority(almost));
    EXPECT_EQ(used(), 2047);
    EXPECT_EQ(channel.daemon.pop_priority(), almost);
}

TEST_F(ChannelPriority, OversizedOrEmptyRecordsAreRefusedQuietly)
{
    const std::string text = capture_stderr([&] {
        EXPECT_FALSE(channel.app.push_priority(Bytes()));
        EXPECT_FALSE(channel.app.force_push_priority(Bytes()));
        EXPECT_FALSE(channel.app.push_priority(record(3, 2049)));
        EXPECT_FALSE(channel.app.force_push_priority(record(3, 2049)));
        EXPECT_FALSE(channel.app.push_priority(record(4, 2049)));  // size before kind
    });
    EXPECT_EQ(text, "");
    EXPECT_EQ(used(), 0);
    EXPECT_TRUE(area_is_zero());
}

TEST_F(ChannelPriority, StrictWriteIntoAnAreaThatHoldsAnythingChangesNothing)
{
    const Bytes first = record(3, 10, 0x31);
    ASSERT_TRUE(channel.app.push_priority(first));
    const Bytes before = area();

    const std::string text = capture_stderr([&] {
        EXPECT_FALSE(channel.app.push_priority(record(5, 4, 0x55)));
        EXPECT_FALSE(channel.app.push_priority(record(3, 2048, 0x55)));
    });
    EXPECT_EQ(text, "");
    EXPECT_EQ(used(), 10);
    EXPECT_EQ(area(), before);

    // Once the daemon has taken it, the next record goes in.
    EXPECT_EQ(channel.daemon.pop_priority(), first);
    EXPECT_TRUE(channel.app.push_priority(record(5, 4, 0x55)));
    EXPECT_EQ(used(), 4);
}

TEST_F(ChannelPriority, TwoForcedAppendsOfAThousandBytesFitTheThirdDoesNot)
{
    const Bytes a = record(1, 1000, 0x0A);
    const Bytes b = record(2, 1000, 0x0B);
    EXPECT_TRUE(channel.app.force_push_priority(a));
    EXPECT_TRUE(channel.app.force_push_priority(b));
    EXPECT_EQ(used(), 2000);
    bool pushed = true;
    const std::string text = capture_stderr([&] { pushed = channel.app.force_push_priority(record(3, 1000, 0x0C)); });
    EXPECT_FALSE(pushed);
    EXPECT_EQ(text, priority_exceeded());
    EXPECT_EQ(used(), 2000);

    Bytes both = a;
    both.insert(both.end(), b.begin(), b.end());
    EXPECT_EQ(channel.daemon.pop_priority(), both);
    EXPECT_EQ(used(), 0);
    EXPECT_TRUE(area_is_zero());
    EXPECT_TRUE(channel.daemon.is_priority_empty());
}

TEST_F(ChannelPriority, ForcedAppendStopsExactlyAt2047Bytes)
{
    EXPECT_TRUE(channel.app.force_push_priority(record(5, 2000, 0x01)));
    EXPECT_TRUE(channel.app.force_push_priority(record(5, 47, 0x02)));
    EXPECT_EQ(used(), 2047);
    bool pushed = true;
    const std::string text = capture_stderr([&] { pushed = channel.app.force_push_priority(record(5, 1)); });
    EXPECT_FALSE(pushed);
    EXPECT_EQ(text, priority_exceeded());
    EXPECT_EQ(channel.app.segment->priority_data[2047], 0);
    EXPECT_EQ(channel.daemon.pop_priority().size(), 2047u);
}

TEST_F(ChannelPriority, OnlyPriorityKindsEnter)
{
    for (const unsigned kind : {4u, 6u, 7u, 22u, 24u, 255u}) {
        bool pushed = true;
        std::string text =
            capture_stderr([&] { pushed = channel.app.push_priority(record(static_cast<unsigned char>(kind), 8)); });
        EXPECT_FALSE(pushed);
        EXPECT_EQ(text, not_priority_kind(kind));
        text = capture_stderr(
            [&] { pushed = channel.app.force_push_priority(record(static_cast<unsigned char>(kind), 8)); });
        EXPECT_FALSE(pushed);
        EXPECT_EQ(text, not_priority_kind(kind));
    }
    EXPECT_EQ(used(), 0);
    EXPECT_TRUE(area_is_zero());

    const std::string text = capture_stderr([&] {
        for (const unsigned kind : {0u, 1u, 2u, 3u, 5u}) {
            EXPECT_TRUE(channel.app.push_priority(record(static_cast<unsigned char>(kind), 8)));
            EXPECT_EQ(channel.daemon.pop_priority(), record(static_cast<unsigned char>(kind), 8));
        }
        for (const unsigned kind : {0u, 1u, 2u, 3u, 5u}) {
            EXPECT_TRUE(channel.app.force_push_priority(record(static_cast<unsigned char>(kind), 8)));
        }
    });
    EXPECT_EQ(text, "");
    EXPECT_EQ(used(), 5 * 8);
}

TEST_F(ChannelPriority, PopOfAnEmptyAreaReturnsNothingQuietly)
{
    const std::string text = capture_stderr([&] {
        EXPECT_TRUE(channel.daemon.pop_priority().empty());
        channel.daemon.lock_priority_mutex();
        EXPECT_TRUE(channel.daemon.is_priority_empty_unsynced());
        EXPECT_TRUE(channel.daemon.pop_priority_unsynced().empty());
        channel.daemon.unlock_priority_mutex();
        EXPECT_TRUE(channel.daemon.is_priority_empty());
        EXPECT_TRUE(channel.app.is_priority_empty());
    });
    EXPECT_EQ(text, "");
}

TEST_F(ChannelPriority, ExplicitLockHoldsTheAreaForATestAndPop)
{
    const Bytes registration = record(3, 12, 0x42);
    ASSERT_TRUE(channel.app.push_priority(registration));

    pthread_mutex_t* const mutex = &channel.app.segment->priority_mutex.mutex;
    const auto try_lock_elsewhere = [mutex] {
        int result = -1;
        std::thread([&] {
            result = pthread_mutex_trylock(mutex);
            if (result == 0) {
                pthread_mutex_unlock(mutex);
            }
        }).join();
        return result;
    };

    const std::string text = capture_stderr([&] {
        channel.daemon.lock_priority_mutex();
        EXPECT_EQ(try_lock_elsewhere(), EBUSY);
        EXPECT_FALSE(channel.daemon.is_priority_empty_unsynced());
        EXPECT_EQ(channel.daemon.pop_priority_unsynced(), registration);
        EXPECT_TRUE(channel.daemon.is_priority_empty_unsynced());
        channel.daemon.unlock_priority_mutex();
        EXPECT_EQ(try_lock_elsewhere(), 0);
    });
    EXPECT_EQ(text, "");
    EXPECT_TRUE(area_is_zero());
}

TEST_F(ChannelPriority, LockedOperationsTakeTheMutexUnsyncedOnesDoNot)
{
    logferry_test::Fake_system fake;
    logferry_test::Scoped_system installed(&fake);
    ASSERT_TRUE(channel.app.push_priority(record(3, 5)));

    const auto locks_during = [&](const std::function<void()>& action) {
        fake.reset_calls();
        action();
        EXPECT_EQ(fake.calls(Op::pthread_mutex_unlock), fake.calls(Op::pthread_mutex_lock));
        return fake.calls(Op::pthread_mutex_lock);
    };
    EXPECT_EQ(locks_during([&] { channel.daemon.is_priority_empty(); }), 1);
    EXPECT_EQ(locks_during([&] { channel.daemon.is_priority_empty_unsynced(); }), 0);
    EXPECT_EQ(locks_during([&] { channel.app.force_push_priority(record(5, 5)); }), 1);
    EXPECT_EQ(locks_during([&] { channel.app.push_priority(record(5, 5)); }), 1);
    EXPECT_EQ(locks_during([&] {
                  channel.daemon.lock_priority_mutex();
                  EXPECT_EQ(channel.daemon.pop_priority_unsynced().size(), 10u);
                  channel.daemon.unlock_priority_mutex();
              }),
              1);
    EXPECT_EQ(locks_during([&] { channel.daemon.pop_priority(); }), 1);
    EXPECT_EQ(locks_during([&] { channel.app.clear_priority_data(); }), 1);
    // A refused record never reaches the lock.
    EXPECT_EQ(locks_during([&] { capture_stderr([&] { channel.app.push_priority(record(4, 5)); }); }), 0);
}

TEST_F(ChannelPriority, ClearDiscardsEverythingInTheArea)
{
    ASSERT_TRUE(channel.app.force_push_priority(record(3, 700, 0x77)));
    ASSERT_TRUE(channel.app.force_push_priority(record(5, 700, 0x78)));
    EXPECT_FALSE(channel.app.is_priority_empty());
    const std::string text = capture_stderr([&] { channel.app.clear_priority_data(); });
    EXPECT_EQ(text, "");
    EXPECT_EQ(used(), 0);
    EXPECT_TRUE(area_is_zero());
    EXPECT_TRUE(channel.daemon.is_priority_empty());
    EXPECT_TRUE(channel.daemon.pop_priority().empty());
}

TEST_F(ChannelPriority, LockAndUnlockErrorsAreReportedWithTheReturnedCode)
{
    logferry_test::Fake_system fake;
    logferry_test::Scoped_system installed(&fake);

    fake.fail(Op::pthread_mutex_lock, EINVAL, 0);
    std::string text = capture_stderr([&] { channel.daemon.lock_priority_mutex(); });
    EXPECT_EQ(text, error_while("locking the mutex", EINVAL));
    EXPECT_EQ(fake.calls(Op::pthread_mutex_consistent), 0);

    fake.fail(Op::pthread_mutex_unlock, EPERM, 0);
    text = capture_stderr([&] { channel.daemon.unlock_priority_mutex(); });
    EXPECT_EQ(text, error_while("unlocking the mutex", EPERM));

    // A dead holder: the lock is taken over quietly.
    fake.reset_calls();
    fake.fail(Op::pthread_mutex_lock, EOWNERDEAD, 0);
    text = capture_stderr([&] { channel.daemon.lock_priority_mutex(); });
    EXPECT_EQ(text, "");
    EXPECT_EQ(fake.calls(Op::pthread_mutex_consistent), 1);
}

TEST_F(ChannelPriority, EndThatIsNotInitializedReportsAndRefuses)
{
    logferry_test::for_each_closed_end([](logferry::Logferry_base& end) {
        const std::string text = capture_stderr([&] {
            EXPECT_FALSE(end.push_priority(record(3, 4)));
            EXPECT_FALSE(end.force_push_priority(record(3, 4)));
            EXPECT_FALSE(end.push_priority(record(4, 4)));  // not initialised comes first
        });
        EXPECT_EQ(text, "");

        EXPECT_EQ(capture_stderr([&] { EXPECT_TRUE(end.pop_priority().empty()); }), not_initialized());
        EXPECT_EQ(capture_stderr([&] { EXPECT_TRUE(end.pop_priority_unsynced().empty()); }), not_initialized());
        EXPECT_EQ(capture_stderr([&] { EXPECT_TRUE(end.is_priority_empty()); }), not_initialized());
        EXPECT_EQ(capture_stderr([&] { EXPECT_TRUE(end.is_priority_empty_unsynced()); }), not_initialized());
        EXPECT_EQ(capture_stderr([&] { end.clear_priority_data(); }), not_initialized());
        EXPECT_EQ(capture_stderr([&] { end.lock_priority_mutex(); }), not_initialized());
        EXPECT_EQ(capture_stderr([&] { end.unlock_priority_mutex(); }), not_initialized());
    });
}

}  // namespace
