// The batch writer offered to the ara::log front end: in one hold of the ring's mutex it places
// records exactly where the writing step would, stops at the first that would need a discard,
// waits for nothing while the gate is closed, and forced batches write as the ordinary push.
#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "logferry/channel.hpp"
#include "runtime/front_end_hooks.hpp"
#include "support/channel_fixture.hpp"
#include "support/test_util.hpp"

using logferry::Batch_end;
using logferry::Batch_result;
using logferry_test::Bytes;
using logferry_test::numbered_record;

namespace {

// A batch source over a list of records.
struct Records {
    std::vector<Bytes> records;
    std::size_t next = 0;

    logferry::Ring_batch batch()
    {
        return logferry::Ring_batch{[](void* source, std::size_t* size) -> const unsigned char* {
                                        auto& self = *static_cast<Records*>(source);
                                        if (self.next == self.records.size()) {
                                            return nullptr;
                                        }
                                        *size = self.records[self.next].size();
                                        return self.records[self.next].data();
                                    },
                                    [](void* source) { ++static_cast<Records*>(source)->next; }, this};
    }
};

Batch_result push_batch(logferry::Logferry_base& end, Records& records, bool forced,
                        std::size_t max_bytes = static_cast<std::size_t>(-1))
{
    return logferry::client_ring_access().push_batch(end, records.batch(), forced, 1000, max_bytes);
}

bool same_ring(const logferry_test::Channel_pair& a, const logferry_test::Channel_pair& b)
{
    const auto ring_a = a.client_ring();
    const auto ring_b = b.client_ring();
    return ring_a.read() == ring_b.read() && ring_a.write() == ring_b.write() &&
           std::equal(ring_a.bytes, ring_a.bytes + ring_a.capacity, ring_b.bytes);
}

}  // namespace

class ChannelBatch : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(batched.open(true, "b"));
        ASSERT_TRUE(single.open(true, "s"));
        batched.app.unlock_client_buffer();
        single.app.unlock_client_buffer();
    }
    void TearDown() override
    {
        EXPECT_TRUE(batched.close());
        EXPECT_TRUE(single.close());
    }

    logferry_test::Channel_pair batched;
    logferry_test::Channel_pair single;
};

TEST_F(ChannelBatch, AFittingBatchWritesWhatTheWritingStepWouldAndStopsBeforeTheFirstDiscard)
{
    std::mt19937 random(20261125);
    std::uint32_t number = 0;
    int stopped_full = 0;
    for (int step = 0; step < 3000; ++step) {
        Records records;
        const int count = 1 + static_cast<int>(random() % 40);
        for (int i = 0; i < count; ++i) {
            const std::size_t size = random() % 10 == 0 ? 5 + random() % 20000 : 5 + random() % 600;
            records.records.push_back(numbered_record(number++, size));
        }
        const Batch_result result = push_batch(batched.app, records, false);
        ASSERT_EQ(result.placed, records.next);
        for (std::size_t i = 0; i < result.placed; ++i) {
            ASSERT_TRUE(single.app.push(records.records[i]));
        }
        ASSERT_EQ(single.app.lost_messages.load(), 0u) << step;  // nothing placed needed a discard
        ASSERT_EQ(batched.app.lost_messages.load(), 0u) << step;
        ASSERT_TRUE(same_ring(batched, single)) << step;
        if (result.end == Batch_end::kFull) {
            ++stopped_full;
            // The next one does need a discard: the ordinary push takes one step at least.
            ASSERT_TRUE(single.app.push(records.records[result.placed]));
            ASSERT_GT(single.app.lost_messages.load(), 0u) << step;
            ASSERT_TRUE(batched.app.push(records.records[result.placed]));
            ASSERT_TRUE(same_ring(batched, single)) << step;
            batched.app.lost_messages = 0;
            single.app.lost_messages = 0;
        } else {
            ASSERT_EQ(result.end, Batch_end::kDone);
        }
        // The daemon reads some of it, on both.
        const unsigned int reads = random() % 60;
        for (unsigned int r = 0; r < reads; ++r) {
            ASSERT_EQ(batched.daemon.pop(), single.daemon.pop());
        }
        ASSERT_TRUE(same_ring(batched, single)) << step;
    }
    EXPECT_GT(stopped_full, 50);  // the full case was met often
}

TEST_F(ChannelBatch, AFittingBatchPlacesNothingWhileTheGateIsClosed)
{
    batched.app.lock_client_buffer();
    Records records{{numbered_record(1, 20)}};
    const Batch_result result = push_batch(batched.app, records, false);
    EXPECT_EQ(result.end, Batch_end::kGated);
    EXPECT_EQ(result.placed, 0u);
    EXPECT_EQ(records.next, 0u);
    EXPECT_TRUE(batched.client_ring().all_zero());
}

TEST_F(ChannelBatch, AForcedBatchIgnoresTheGateAndDiscardsAsTheOrdinaryPush)
{
    batched.app.lock_client_buffer();
    single.app.lock_client_buffer();
    Records records;
    for (std::uint32_t i = 0; i < 5000; ++i) {  // several rings' worth
        records.records.push_back(numbered_record(i, 50 + i % 100));
    }
    const Batch_result result = push_batch(batched.app, records, true);
    EXPECT_EQ(result.end, Batch_end::kDone);
    EXPECT_EQ(result.placed, 5000u);
    for (const Bytes& record : records.records) {
        ASSERT_TRUE(single.app.push(record));
    }
    EXPECT_GT(batched.app.lost_messages.load(), 0u);
    EXPECT_EQ(batched.app.lost_messages.load(), single.app.lost_messages.load());
    EXPECT_TRUE(same_ring(batched, single));
}

TEST_F(ChannelBatch, ABatchStopsOnceItPlacedTheBytesAllowedForOneHold)
{
    Records records;
    for (std::uint32_t i = 0; i < 10; ++i) {
        records.records.push_back(numbered_record(i, 100));
    }
    const Batch_result result = push_batch(batched.app, records, false, 250);
    EXPECT_EQ(result.end, Batch_end::kBound);
    EXPECT_EQ(result.placed, 3u);  // 100, 200, 300: the third passes the bound
}

TEST_F(ChannelBatch, ABatchGivesUpWhenTheDaemonHoldsTheRingPastTheWait)
{
    pthread_mutex_t* mutex = &batched.daemon.segment->client_mutex.mutex;
    ASSERT_EQ(::pthread_mutex_lock(mutex), 0);
    Records records{{numbered_record(1, 20)}};
    Batch_result result;
    std::thread([&] { result = push_batch(batched.app, records, false); }).join();
    EXPECT_EQ(result.end, Batch_end::kBusy);
    EXPECT_EQ(result.placed, 0u);
    EXPECT_EQ(batched.app.lost_messages.load(), 0u);
    ASSERT_EQ(::pthread_mutex_unlock(mutex), 0);
}

TEST_F(ChannelBatch, UnreadBytesFollowTheWriterAndTheReader)
{
    const auto unread = [&] { return logferry::client_ring_access().unread_bytes(batched.app); };
    EXPECT_EQ(unread(), 0u);
    Records records{{numbered_record(1, 20), numbered_record(2, 30)}};
    ASSERT_EQ(push_batch(batched.app, records, false).placed, 2u);
    EXPECT_EQ(unread(), 54u);
    batched.daemon.pop();
    EXPECT_EQ(unread(), 32u);
    batched.daemon.pop();
    EXPECT_EQ(unread(), 0u);
}
