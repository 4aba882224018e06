// The two rings of a channel: framing, wrap-around, discards, the kind filter and the gate.
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <deque>
#include <functional>
#include <new>
#include <random>
#include <thread>

#include <gtest/gtest.h>

#include "logferry/channel.hpp"
#include "support/channel_fixture.hpp"
#include "support/diagnostics.hpp"
#include "support/test_util.hpp"

using logferry::CLIENT_BUFFER_SIZE;
using logferry::SERVER_BUFFER_SIZE;
using logferry_test::Bytes;
using logferry_test::capture_stderr;
using logferry_test::not_initialized;
using logferry_test::numbered_record;
using logferry_test::record;
using logferry_test::record_number;
using logferry_test::Ring_fields;
using logferry_test::unknown_kind;

// Allocation counting for the hot-path tests: every operator new of this process goes through
// here, and is counted while the calling thread has counting switched on.
namespace {
thread_local bool counting_allocations = false;
thread_local long allocations = 0;
}  // namespace

// The replacements are kept out of line: inlined into the code that uses them, gcc's
// optimiser pairs malloc() with operator delete (or operator new with free()) and warns.
__attribute__((noinline)) void* operator new(std::size_t size)
{
    if (counting_allocations) {
        ++allocations;
    }
    void* memory = std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}
__attribute__((noinline)) void operator delete(void* memory) noexcept { std::free(memory); }
__attribute__((noinline)) void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace {

constexpr std::uint32_t C = CLIENT_BUFFER_SIZE;
constexpr std::uint32_t S = SERVER_BUFFER_SIZE;

template <typename F>
long allocations_during(F&& action)
{
    allocations = 0;
    counting_allocations = true;
    action();
    counting_allocations = false;
    return allocations;
}

class ChannelBuffers : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(channel.open()); }
    void TearDown() override { EXPECT_TRUE(channel.close()); }

    // Pushes `count` numbered records of `size` bytes from the application, numbers from `first`.
    void push_numbered(std::uint32_t first, std::uint32_t count, std::size_t size)
    {
        for (std::uint32_t i = 0; i < count; ++i) {
            ASSERT_TRUE(channel.app.push(numbered_record(first + i, size)));
        }
    }

    // The client ring, opened and then filled with `count` numbered records of `size` bytes
    // (numbers from 0).
    Ring_fields client_ring_after(std::uint32_t count, std::size_t size)
    {
        channel.app.unlock_client_buffer();
        push_numbered(0, count, size);
        return channel.client_ring();
    }

    // Pushes `record` from the application: afterwards `lost` records are counted lost in all,
    // and the client ring's indices stand at `write` and `read`.
    ::testing::AssertionResult pushed(const Bytes& record, std::uint64_t lost, std::uint32_t write, std::uint32_t read)
    {
        if (!channel.app.push(record)) {
            return ::testing::AssertionFailure() << "the push failed";
        }
        const Ring_fields ring = channel.client_ring();
        if (channel.app.lost_messages.load() != lost || ring.write() != write || ring.read() != read) {
            return ::testing::AssertionFailure() << channel.app.lost_messages.load() << " lost, write index "
                                                 << ring.write() << ", read index " << ring.read();
        }
        return ::testing::AssertionSuccess();
    }

    // The daemon pops the numbered records `first` to `last` - 1, each intact, in order, and
    // `then` (if any) holds after each of them.
    ::testing::AssertionResult pops_numbered(std::uint32_t first, std::uint32_t last,
                                             const std::function<bool(std::uint32_t number)>& then = nullptr)
    {
        for (std::uint32_t number = first; number < last; ++number) {
            const Bytes got = channel.daemon.pop();
            if (!logferry_test::is_intact_numbered_record(got) || record_number(got) != number) {
                return ::testing::AssertionFailure() << "record " << number << " is not the next one intact";
            }
            if (then && !then(number)) {
                return ::testing::AssertionFailure() << "after record " << number;
            }
        }
        return ::testing::AssertionSuccess();
    }

    logferry_test::Channel_pair channel;
};

TEST_F(ChannelBuffers, TenByteRecordsAreFramedBackToBackAndDrainToZero)
{
    channel.app.unlock_client_buffer();
    const Bytes first = record(1, 10, 0x11);
    const Bytes second = record(2, 10, 0x22);
    ASSERT_TRUE(channel.app.push(first));
    ASSERT_TRUE(channel.app.push(second));

    const Ring_fields ring = channel.client_ring();
    EXPECT_EQ(ring.read(), 0u);
    EXPECT_EQ(ring.write(), 24u);
    EXPECT_EQ(ring.bytes[0], 10);
    EXPECT_EQ(ring.bytes[1], 0);
    EXPECT_EQ(Bytes(ring.bytes + 2, ring.bytes + 12), first);
    EXPECT_EQ(ring.bytes[12], 10);
    EXPECT_EQ(ring.bytes[13], 0);
    EXPECT_EQ(Bytes(ring.bytes + 14, ring.bytes + 24), second);
    EXPECT_EQ(ring.bytes[24], 0);
    EXPECT_EQ(ring.bytes[25], 0);
    EXPECT_FALSE(channel.daemon.is_empty());

    EXPECT_EQ(channel.daemon.pop(), first);
    EXPECT_EQ(ring.read(), 12u);
    EXPECT_EQ(ring.write(), 24u);
    EXPECT_EQ(ring.bytes[0], 0);
    EXPECT_EQ(channel.daemon.pop(), second);
    EXPECT_TRUE(ring.is_back_at_zero());
    EXPECT_TRUE(channel.daemon.is_empty());
    EXPECT_TRUE(channel.daemon.pop().empty());
    EXPECT_EQ(channel.app.lost_messages.load(), 0u);
}

TEST_F(ChannelBuffers, RecordThatDoesNotFitGoesToZeroWhenTheReaderHasMadeRoom)
{
    // 130 records of 1000 bytes take 130 * 1002 = 130260 bytes; 811 remain at the end.
    const Ring_fields ring = client_ring_after(130, 1000);
    ASSERT_EQ(ring.write(), 130260u);
    EXPECT_EQ(record_number(channel.daemon.pop()), 0u);
    EXPECT_EQ(record_number(channel.daemon.pop()), 1u);
    ASSERT_EQ(ring.read(), 2004u);

    // 1002 bytes fit before the oldest unread record (at 2004): nothing is discarded.
    const Bytes wrapped = numbered_record(1000, 1000);
    ASSERT_TRUE(pushed(wrapped, 0, 1002, 2004));
    EXPECT_EQ(ring.prefix(0), 1000u);
    EXPECT_EQ(Bytes(ring.bytes + 2, ring.bytes + 1002), wrapped);

    // The reader returns the records up to the old W; the pop of the last one moves R to 0.
    ASSERT_TRUE(pops_numbered(
        2, 130, [&](std::uint32_t number) { return number == 129 || ring.read() == (number + 1) * 1002u; }));
    EXPECT_EQ(ring.read(), 0u);
    EXPECT_EQ(ring.write(), 1002u);
    for (std::uint32_t i = 1002; i < C; ++i) {
        ASSERT_EQ(ring.bytes[i], 0) << "at " << i;
    }
    EXPECT_EQ(channel.daemon.pop(), wrapped);
    EXPECT_TRUE(ring.is_back_at_zero());
}

TEST_F(ChannelBuffers, RecordThatDoesNotFitDiscardsOldestWhenNothingWasRead)
{
    const Ring_fields ring = client_ring_after(130, 1000);
    ASSERT_EQ(ring.read(), 0u);

    // 2502 bytes are needed at 0: three records of 1002 bytes go.
    const Bytes wrapped = numbered_record(1000, 2500);
    ASSERT_TRUE(pushed(wrapped, 3, 2502, 3006));
    EXPECT_EQ(ring.prefix(0), 2500u);
    EXPECT_EQ(ring.bytes[2502], 0);
    EXPECT_EQ(ring.bytes[3005], 0);

    ASSERT_TRUE(pops_numbered(3, 130));
    EXPECT_EQ(ring.read(), 0u);
    EXPECT_EQ(channel.daemon.pop(), wrapped);
    EXPECT_TRUE(channel.daemon.pop().empty());
    EXPECT_TRUE(ring.is_back_at_zero());
}

TEST_F(ChannelBuffers, FullRingDiscardsOldestRecordsOneCountPerStep)
{
    // 10922 records of 10 bytes end at 131064; the 7 bytes left take no record.
    const Ring_fields ring = client_ring_after(10922, 10);
    ASSERT_EQ(ring.write(), 131064u);
    ASSERT_EQ(channel.app.lost_messages.load(), 0u);

    // Wraps to 0 where the oldest record is: one discard.
    const Bytes a = numbered_record(20000, 10);
    ASSERT_TRUE(pushed(a, 1, 12, 12));  // R = W with a record there: full

    const Bytes b = numbered_record(20001, 10);
    ASSERT_TRUE(pushed(b, 2, 24, 24));

    // 32 bytes are needed at 24: the records at 24, 36 and 48 go, the new one ends at 56.
    const Bytes c = numbered_record(20002, 30);
    ASSERT_TRUE(pushed(c, 5, 56, 60));
    EXPECT_EQ(ring.bytes[56], 0);
    EXPECT_EQ(ring.bytes[59], 0);

    ASSERT_TRUE(pops_numbered(5, 10922));
    EXPECT_EQ(ring.read(), 0u);
    EXPECT_EQ(channel.daemon.pop(), a);
    EXPECT_EQ(channel.daemon.pop(), b);
    EXPECT_EQ(channel.daemon.pop(), c);
    EXPECT_TRUE(ring.is_back_at_zero());
}

TEST_F(ChannelBuffers, SingleRecordFillingTheRingMakesItFull)
{
    // A record of S - 2 bytes takes the whole server ring; W wraps to 0 = R.
    const Bytes whole = record(7, S - 2, 0x3C);
    ASSERT_TRUE(channel.daemon.push(whole));
    const Ring_fields ring = channel.server_ring();
    EXPECT_EQ(ring.write(), 0u);
    EXPECT_EQ(ring.read(), 0u);
    EXPECT_EQ(ring.prefix(0), S - 2);
    EXPECT_FALSE(channel.app.is_empty());

    // The next record displaces it with one discard step.
    const Bytes small = record(8, 10, 0x44);
    ASSERT_TRUE(channel.daemon.push(small));
    EXPECT_EQ(channel.daemon.lost_messages.load(), 1u);
    EXPECT_EQ(ring.write(), 12u);
    EXPECT_EQ(ring.read(), 0u);
    EXPECT_EQ(channel.app.pop(), small);
    EXPECT_TRUE(ring.all_zero());
    EXPECT_TRUE(channel.app.is_empty());
    EXPECT_EQ(channel.app.lost_messages.load(), 0u);
}

TEST_F(ChannelBuffers, WriteEndingAtCapacityMinusTwoOrBeyondWrapsTheWriteIndex)
{
    const Ring_fields server = channel.server_ring();
    struct Case {
        std::size_t size;
        std::uint32_t write_after;
    };
    // W = size + 2: S - 3 stays, S - 2 and S - 1 wrap.
    for (const Case& c : {Case{S - 5, S - 3}, Case{S - 4, 0}, Case{S - 3, 0}}) {
        ASSERT_TRUE(channel.daemon.push(record(1, c.size)));
        EXPECT_EQ(server.write(), c.write_after) << "record of " << c.size;
        EXPECT_EQ(channel.app.pop().size(), c.size);
        EXPECT_TRUE(server.all_zero());
        EXPECT_EQ(server.write(), 0u);
    }

    channel.app.unlock_client_buffer();
    const Ring_fields client = channel.client_ring();
    // Two records: 65537 + (n + 2) bytes.
    for (const Case& c : {Case{65529, C - 3}, Case{65530, 0}, Case{65531, 0}}) {
        ASSERT_TRUE(channel.app.push(record(3, 65535)));
        ASSERT_TRUE(channel.app.push(record(4, c.size)));
        EXPECT_EQ(client.write(), c.write_after) << "second record of " << c.size;
        EXPECT_EQ(channel.daemon.pop().size(), 65535u);
        EXPECT_EQ(channel.daemon.pop().size(), c.size);
        EXPECT_TRUE(client.all_zero());
    }
    EXPECT_EQ(channel.app.lost_messages.load(), 0u);
    EXPECT_EQ(channel.daemon.lost_messages.load(), 0u);
}

TEST_F(ChannelBuffers, PushClientRefusesUnknownKindsWithAMessage)
{
    for (const unsigned kind : {22u, 25u, 26u, 255u}) {
        bool pushed = true;
        const std::string text =
            capture_stderr([&] { pushed = channel.app.push(record(static_cast<unsigned char>(kind), 8)); });
        EXPECT_FALSE(pushed);
        EXPECT_EQ(text, unknown_kind(kind));
        const std::string direct =
            capture_stderr([&] { pushed = channel.app.push_client(record(static_cast<unsigned char>(kind), 1)); });
        EXPECT_FALSE(pushed);
        EXPECT_EQ(direct, unknown_kind(kind));
    }
    EXPECT_EQ(channel.client_ring().write(), 0u);
    EXPECT_TRUE(channel.client_ring().all_zero());

    channel.app.unlock_client_buffer();
    std::vector<unsigned> accepted;
    for (unsigned kind = 0; kind <= 21; ++kind) {
        accepted.push_back(kind);
    }
    accepted.push_back(23);
    accepted.push_back(24);
    const std::string text = capture_stderr([&] {
        for (const unsigned kind : accepted) {
            EXPECT_TRUE(channel.app.push(record(static_cast<unsigned char>(kind), 3)));
        }
    });
    EXPECT_EQ(text, "");
    for (const unsigned kind : accepted) {
        const Bytes got = channel.daemon.pop();
        ASSERT_EQ(got.size(), 3u);
        EXPECT_EQ(got[0], kind);
    }
}

TEST_F(ChannelBuffers, PushServerAcceptsAnyKind)
{
    const std::string text = capture_stderr([&] {
        for (const unsigned kind : {22u, 25u, 255u, 0u}) {
            EXPECT_TRUE(channel.daemon.push(record(static_cast<unsigned char>(kind), 4)));
        }
        EXPECT_TRUE(channel.app.push_server(record(200, 4)));
    });
    EXPECT_EQ(text, "");
    for (const unsigned kind : {22u, 25u, 255u, 0u, 200u}) {
        const Bytes got = channel.app.pop();
        ASSERT_EQ(got.size(), 4u);
        EXPECT_EQ(got[0], kind);
    }
    EXPECT_TRUE(channel.app.is_empty());
}

TEST_F(ChannelBuffers, DaemonPopWaitsForTheGateWhileIsEmptySeesTheRecords)
{
    EXPECT_TRUE(channel.app.is_client_buffer_locked());
    EXPECT_TRUE(channel.daemon.is_client_buffer_locked());
    EXPECT_EQ(channel.app.segment->client_buffer_locked, 1);

    const Bytes waiting = record(5, 20, 0x77);
    ASSERT_TRUE(channel.app.push(waiting));
    EXPECT_TRUE(channel.daemon.pop().empty());
    EXPECT_FALSE(channel.daemon.is_empty());
    EXPECT_EQ(channel.client_ring().write(), 22u);
    EXPECT_EQ(channel.client_ring().prefix(0), 20u);

    channel.app.unlock_client_buffer();
    EXPECT_EQ(channel.app.segment->client_buffer_locked, 0);
    EXPECT_FALSE(channel.daemon.is_client_buffer_locked());
    EXPECT_EQ(channel.daemon.pop(), waiting);

    channel.daemon.lock_client_buffer();
    EXPECT_TRUE(channel.app.is_client_buffer_locked());
    ASSERT_TRUE(channel.app.push(waiting));
    EXPECT_TRUE(channel.daemon.pop().empty());

    // The gate holds back only the application's ring.
    const Bytes back = record(24, 6, 0x12);
    ASSERT_TRUE(channel.daemon.push(back));
    EXPECT_EQ(channel.app.pop(), back);
}

TEST_F(ChannelBuffers, RefusesRecordsTheFramingCannotHoldWithoutAMessage)
{
    channel.app.unlock_client_buffer();
    const std::string text = capture_stderr([&] {
        EXPECT_FALSE(channel.app.push(Bytes()));
        EXPECT_FALSE(channel.app.push(record(3, 65536)));
        EXPECT_FALSE(channel.app.push(record(22, 65536)));  // the size is refused before the kind
        EXPECT_FALSE(channel.app.push(record(3, 70000)));
        EXPECT_FALSE(channel.app.push(record(3, C - 1)));
        EXPECT_FALSE(channel.app.push(record(3, C)));
        EXPECT_FALSE(channel.app.push(record(3, C + 1)));
        EXPECT_FALSE(channel.daemon.push(Bytes()));
        EXPECT_FALSE(channel.daemon.push(record(3, S - 1)));
        EXPECT_FALSE(channel.daemon.push(record(3, S)));
        EXPECT_FALSE(channel.daemon.push(record(3, S + 1)));
        EXPECT_FALSE(channel.daemon.push(record(3, 65536)));
    });
    EXPECT_EQ(text, "");
    EXPECT_TRUE(channel.client_ring().all_zero());
    EXPECT_EQ(channel.client_ring().write(), 0u);
    EXPECT_TRUE(channel.server_ring().all_zero());
    EXPECT_EQ(channel.server_ring().write(), 0u);

    // The largest record a prefix describes travels intact.
    Bytes largest = numbered_record(7, 65535);
    ASSERT_TRUE(channel.app.push(largest));
    EXPECT_EQ(channel.client_ring().bytes[0], 0xFF);
    EXPECT_EQ(channel.client_ring().bytes[1], 0xFF);
    EXPECT_EQ(channel.client_ring().write(), 65537u);
    EXPECT_EQ(channel.daemon.pop(), largest);
    EXPECT_EQ(channel.app.lost_messages.load(), 0u);
}

TEST_F(ChannelBuffers, EndThatIsNotInitializedReportsAndRefuses)
{
    logferry_test::for_each_closed_end([](logferry::Logferry_base& end) {
        const std::string text = capture_stderr([&] {
            EXPECT_FALSE(end.push(record(1, 4)));
            EXPECT_FALSE(end.push_client(record(1, 4)));
            EXPECT_FALSE(end.push_server(record(1, 4)));
            EXPECT_FALSE(end.push_client(record(22, 4)));  // not initialised comes first
            EXPECT_TRUE(end.pop_unsynced(true).empty());
            EXPECT_TRUE(end.pop_unsynced(false).empty());
        });
        EXPECT_EQ(text, "");

        EXPECT_EQ(capture_stderr([&] { EXPECT_TRUE(end.pop().empty()); }), not_initialized());
        EXPECT_EQ(capture_stderr([&] { EXPECT_TRUE(end.is_empty()); }), not_initialized());
        EXPECT_EQ(capture_stderr([&] { end.lock_client_buffer(); }), not_initialized());
        EXPECT_EQ(capture_stderr([&] { end.unlock_client_buffer(); }), not_initialized());
        EXPECT_EQ(capture_stderr([&] { EXPECT_TRUE(end.is_client_buffer_locked()); }), not_initialized());
    });
}

TEST_F(ChannelBuffers, PopUnsyncedChoosesTheRingByTheEndsSide)
{
    const Bytes outgoing = record(9, 5, 0x01);
    const Bytes incoming = record(9, 6, 0x02);
    ASSERT_TRUE(channel.app.push(outgoing));
    ASSERT_TRUE(channel.daemon.push(incoming));
    EXPECT_EQ(channel.app.pop_unsynced(true), outgoing);   // own ring of the application
    EXPECT_EQ(channel.app.pop_unsynced(false), incoming);  // its incoming ring
    ASSERT_TRUE(channel.app.push(outgoing));
    ASSERT_TRUE(channel.daemon.push(incoming));
    EXPECT_EQ(channel.daemon.pop_unsynced(true), incoming);   // own ring of the daemon
    EXPECT_EQ(channel.daemon.pop_unsynced(false), outgoing);  // no gate test here
    EXPECT_TRUE(channel.client_ring().all_zero());
    EXPECT_TRUE(channel.server_ring().all_zero());
}

TEST_F(ChannelBuffers, PushAllocatesNothingAndPopOnlyItsResult)
{
    channel.app.unlock_client_buffer();
    const Bytes small = numbered_record(1, 40);
    // Fill the ring so that later pushes also take discard steps.
    EXPECT_EQ(allocations_during([&] {
                  for (int i = 0; i < 4000; ++i) {
                      channel.app.push(small);
                  }
              }),
              0);
    EXPECT_GT(channel.app.lost_messages.load(), 0u);
    const Bytes large = numbered_record(2, 30000);
    EXPECT_EQ(allocations_during([&] {
                  channel.app.push(large);
                  channel.daemon.push(large);
                  channel.daemon.push(large);
              }),
              0);
    EXPECT_GT(channel.daemon.lost_messages.load(), 0u);

    Bytes got;
    EXPECT_EQ(allocations_during([&] { got = channel.daemon.pop(); }), 1);
    EXPECT_FALSE(got.empty());
    EXPECT_EQ(allocations_during([&] { got = channel.app.pop(); }), 1);
    EXPECT_EQ(got, large);
    EXPECT_EQ(allocations_during([&] { got = channel.app.pop(); }), 0);
    EXPECT_TRUE(got.empty());
}

// A model of one ring in terms of whole records: where each unread record starts, where the
// next goes, and how many discard steps were taken. The reader's position is the start of the
// oldest unread record (0 when there is none); an emptied ring starts again at 0.
class Ring_model {
public:
    explicit Ring_model(std::uint32_t capacity) : capacity_(capacity) {}

    bool placeable(std::size_t size) const { return size >= 1 && size <= capacity_ - 2 && size <= 65535; }
    std::uint32_t read() const { return unread_.empty() ? 0 : unread_.front().position; }
    std::uint32_t write() const { return write_; }
    std::uint64_t lost() const { return lost_; }
    bool empty() const { return unread_.empty(); }

    Bytes pop()
    {
        if (unread_.empty()) {
            return {};
        }
        Bytes data = std::move(unread_.front().data);
        unread_.pop_front();
        if (unread_.empty()) {
            write_ = 0;
        }
        return data;
    }

    void push(const Bytes& data)
    {
        const std::uint32_t size = static_cast<std::uint32_t>(data.size());
        if (write_ + 2 + size > capacity_) {
            // Records never wrap. The records from the reader to the end go first when the
            // reader is not behind the writer.
            while (!unread_.empty() && read() >= write_) {
                discard();
            }
            write_ = 0;
        }
        const bool room_at_write = unread_.empty() || read() < write_;
        if (!room_at_write) {
            while (write_ + 2 + size > read()) {
                discard();
                if (read() == 0) {
                    break;
                }
            }
        }
        unread_.push_back(Record{write_, data});
        write_ += 2 + size;
        if (write_ + 3 > capacity_) {
            write_ = 0;
        }
    }

    // Whether `ring` holds exactly what the model says: the unread records with their
    // prefixes, and 0 everywhere else.
    bool matches(const unsigned char* ring)
    {
        image_.assign(capacity_, 0);
        for (const Record& r : unread_) {
            image_[r.position] = static_cast<unsigned char>(r.data.size() & 0xFF);
            image_[r.position + 1] = static_cast<unsigned char>(r.data.size() >> 8);
            std::copy(r.data.begin(), r.data.end(), image_.begin() + r.position + 2);
        }
        return std::equal(image_.begin(), image_.end(), ring);
    }

private:
    struct Record {
        std::uint32_t position;
        Bytes data;
    };
    void discard()
    {
        pop();
        ++lost_;
    }

    std::uint32_t capacity_;
    std::deque<Record> unread_;
    std::uint32_t write_ = 0;
    std::uint64_t lost_ = 0;
    Bytes image_;
};

std::size_t random_size(std::mt19937& random, std::uint32_t capacity)
{
    const std::uint32_t largest = std::min<std::uint32_t>(capacity - 2, 65535);
    const int band = std::uniform_int_distribution<int>(0, 99)(random);
    std::uint32_t low = 1;
    std::uint32_t high = 40;
    if (band >= 98) {
        low = 12001;
        high = largest;
    } else if (band >= 90) {
        low = 1501;
        high = 12000;
    } else if (band >= 65) {
        low = 41;
        high = 1500;
    }
    return std::uniform_int_distribution<std::uint32_t>(low, high)(random);
}

TEST_F(ChannelBuffers, RandomisedPushesAndPopsFollowTheModel)
{
    channel.app.unlock_client_buffer();
    std::mt19937 random(20240611);
    Ring_model client_model(C);
    Ring_model server_model(S);
    const Ring_fields client = channel.client_ring();
    const Ring_fields server = channel.server_ring();
    static const unsigned char client_kinds[] = {0, 1, 3, 5, 10, 13, 21, 23, 24};
    const double pop_rates[] = {0.1, 0.3, 0.5, 0.7, 0.9};
    double pop_rate = 0.5;
    std::uint64_t discards_seen = 0;
    std::uint64_t wraps_seen = 0;

    for (int step = 0; step < 30000; ++step) {
        if (step % 1500 == 0) {
            pop_rate = pop_rates[std::uniform_int_distribution<int>(0, 4)(random)];
        }
        const bool use_client = std::uniform_int_distribution<int>(0, 1)(random) == 0;
        Ring_model& model = use_client ? client_model : server_model;
        logferry::Logferry_base& writer =
            use_client ? static_cast<logferry::Logferry_base&>(channel.app) : channel.daemon;
        logferry::Logferry_base& reader =
            use_client ? channel.daemon : static_cast<logferry::Logferry_base&>(channel.app);
        const Ring_fields& ring = use_client ? client : server;
        const std::uint32_t capacity = ring.capacity;

        const bool do_pop = std::uniform_real_distribution<double>(0, 1)(random) < pop_rate;
        if (do_pop) {
            const std::uint32_t read_before = ring.read();
            ASSERT_EQ(reader.pop(), model.pop()) << "step " << step;
            if (ring.read() < read_before && !model.empty()) {
                ++wraps_seen;
            }
        } else {
            std::size_t size = random_size(random, capacity);
            if (std::uniform_int_distribution<int>(0, 99)(random) == 0) {
                // Now and then a size that must be refused and change nothing.
                static const std::size_t refused[] = {0, 65536, 70000};
                size = std::uniform_int_distribution<int>(0, 2)(random) == 0
                           ? refused[std::uniform_int_distribution<int>(0, 2)(random)]
                           : capacity - 1 + std::uniform_int_distribution<std::uint32_t>(0, 1)(random);
            }
            Bytes data(size);
            for (auto& byte : data) {
                byte = static_cast<unsigned char>(random());
            }
            if (size > 0) {
                data[0] =
                    use_client ? client_kinds[random() % sizeof client_kinds] : static_cast<unsigned char>(random());
            }
            const bool expected = model.placeable(size);
            const std::uint64_t lost_before = model.lost();
            ASSERT_EQ(writer.push(data), expected) << "step " << step << " size " << size;
            if (expected) {
                model.push(data);
            }
            discards_seen += model.lost() - lost_before;
            ASSERT_EQ(writer.lost_messages.load(), model.lost()) << "step " << step;
        }
        ASSERT_EQ(ring.read(), model.read()) << "step " << step;
        ASSERT_EQ(ring.write(), model.write()) << "step " << step;
        ASSERT_EQ(reader.is_empty(), model.empty()) << "step " << step;
        if (step % 5 == 0 || !use_client) {
            ASSERT_TRUE(model.matches(ring.bytes)) << "step " << step;
        }
    }
    // The run went through every kind of situation.
    EXPECT_GT(discards_seen, 100u);
    EXPECT_GT(wraps_seen, 10u);
    while (!client_model.empty() || !server_model.empty()) {
        ASSERT_EQ(channel.daemon.pop(), client_model.pop());
        ASSERT_EQ(channel.app.pop(), server_model.pop());
    }
    EXPECT_TRUE(client.all_zero());
    EXPECT_TRUE(server.all_zero());
}

TEST_F(ChannelBuffers, ConcurrentWritersKeepTheirOrderAndEveryRecordIsReadOrCounted)
{
    channel.app.unlock_client_buffer();
    constexpr int WRITERS = 3;
    constexpr std::uint32_t PER_WRITER = 20000;
    std::atomic<int> running(WRITERS);
    std::vector<std::thread> writers;
    for (int w = 0; w < WRITERS; ++w) {
        writers.emplace_back([&, w] {
            for (std::uint32_t i = 0; i < PER_WRITER; ++i) {
                // The writer in the top byte, its own sequence below.
                channel.app.push(numbered_record((static_cast<std::uint32_t>(w) << 24) | i, 5 + (i * 37) % 300));
            }
            --running;
        });
    }
    std::uint32_t next[WRITERS] = {};
    std::uint64_t received = 0;
    bool ordered = true;
    const auto take = [&] {
        for (Bytes got = channel.daemon.pop(); !got.empty(); got = channel.daemon.pop()) {
            const std::uint32_t number = record_number(got);
            const std::uint32_t writer = number >> 24;
            const std::uint32_t sequence = number & 0xFFFFFF;
            if (writer >= WRITERS || sequence < next[writer] || !logferry_test::is_intact_numbered_record(got)) {
                ordered = false;
            } else {
                next[writer] = sequence + 1;
            }
            ++received;
        }
    };
    while (running.load() > 0) {
        take();
    }
    for (auto& thread : writers) {
        thread.join();
    }
    take();
    EXPECT_TRUE(ordered);
    EXPECT_EQ(received + channel.app.lost_messages.load(), std::uint64_t{WRITERS} * PER_WRITER);
    EXPECT_GT(received, 0u);
}

}  // namespace
