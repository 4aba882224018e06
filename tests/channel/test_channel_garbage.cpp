// Whatever the peer leaves in the segment (indices, length prefixes, sizes), neither end may
// crash or touch memory outside the part of the mapping that the operation owns.
//
// Every mapping of the segment is placed between two inaccessible pages, so a stray access
// just before or after it faults in every build. Inside the mapping, the bytes that the
// operations under test must not touch are compared with a snapshot after every operation
// (stray writes) and, in the AddressSanitizer build, also poisoned (stray reads and writes),
// including the rest of the mapping's last page.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <sstream>

#include <gtest/gtest.h>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#include <sanitizer/common_interface_defs.h>
#define LOGFERRY_TEST_POISON(address, size) ASAN_POISON_MEMORY_REGION(address, size)
#define LOGFERRY_TEST_UNPOISON(address, size) ASAN_UNPOISON_MEMORY_REGION(address, size)
#else
#define LOGFERRY_TEST_POISON(address, size) ((void)(address), (void)(size))
#define LOGFERRY_TEST_UNPOISON(address, size) ((void)(address), (void)(size))
#endif

#include "logferry/channel.hpp"
#include "support/channel_fixture.hpp"
#include "support/diagnostics.hpp"
#include "support/fake_system.hpp"
#include "support/test_util.hpp"

using logferry::Channel_segment;
using logferry::CHANNEL_SEGMENT_SIZE;
using logferry::CLIENT_BUFFER_SIZE;
using logferry::PRIORITY_DATA_SIZE;
using logferry::SERVER_BUFFER_SIZE;
using logferry_test::Bytes;
using logferry_test::capture_stderr;
using logferry_test::not_priority_kind;
using logferry_test::priority_exceeded;
using logferry_test::record;
using logferry_test::Ring_fields;
using logferry_test::unknown_kind;

namespace {

const std::size_t PAGE = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
const std::size_t MAPPED = (CHANNEL_SEGMENT_SIZE + PAGE - 1) / PAGE * PAGE;

// Places every mapping between two inaccessible guard pages.
class Guarded_system : public logferry_test::Fake_system {
public:
    void* mmap(void* address, unsigned long length, int protection, int flags, int fd, long offset) override
    {
        const std::size_t span = (length + PAGE - 1) / PAGE * PAGE;
        void* reserved = ::mmap(nullptr, span + 2 * PAGE, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (reserved == MAP_FAILED) {
            return MAP_FAILED;
        }
        void* const inside = static_cast<char*>(reserved) + PAGE;
        void* const mapped = Fake_system::mmap(inside, length, protection, flags | MAP_FIXED, fd, offset);
        if (mapped == MAP_FAILED) {
            ::munmap(reserved, span + 2 * PAGE);
            return MAP_FAILED;
        }
        (void)address;
        return mapped;
    }

    int munmap(void* address, unsigned long length) override
    {
        const std::size_t span = (length + PAGE - 1) / PAGE * PAGE;
        LOGFERRY_TEST_UNPOISON(address, span);
        const int result = Fake_system::munmap(address, length);
        ::munmap(static_cast<char*>(address) - PAGE, PAGE);
        ::munmap(static_cast<char*>(address) + span, PAGE);
        return result;
    }
};

// The parts of a segment's mapping that the operations under test may use; everything else
// up to the end of the mapping's last page is fenced: snapshot, and poisoned where available.
class Fence {
public:
    struct Range {
        std::size_t begin;
        std::size_t end;
    };

    Fence(Channel_segment* segment, std::vector<Range> allowed) : base_(reinterpret_cast<unsigned char*>(segment))
    {
        std::size_t at = 0;
        allowed.push_back(Range{MAPPED, MAPPED});
        for (const Range& range : allowed) {
            if (range.begin > at) {
                fenced_.push_back(Range{at, range.begin});
            }
            at = range.end;
        }
        for (const Range& range : fenced_) {
            snapshot_.emplace_back(base_ + range.begin, base_ + range.end);
        }
        poison();
    }
    ~Fence() { unpoison(); }
    Fence(const Fence&) = delete;
    Fence& operator=(const Fence&) = delete;

    // The first fenced offset whose byte changed, or -1.
    long changed()
    {
        unpoison();
        long result = -1;
        for (std::size_t i = 0; i < fenced_.size() && result < 0; ++i) {
            const unsigned char* now = base_ + fenced_[i].begin;
            if (std::memcmp(now, snapshot_[i].data(), snapshot_[i].size()) == 0) {
                continue;
            }
            for (std::size_t j = 0; j < snapshot_[i].size(); ++j) {
                if (now[j] != snapshot_[i][j]) {
                    result = static_cast<long>(fenced_[i].begin + j);
                    break;
                }
            }
        }
        poison();
        return result;
    }

    void poison()
    {
        for (const Range& range : fenced_) {
            LOGFERRY_TEST_POISON(base_ + range.begin, range.end - range.begin);
        }
    }
    void unpoison() { LOGFERRY_TEST_UNPOISON(base_, MAPPED); }

private:
    unsigned char* base_;
    std::vector<Range> fenced_;
    std::vector<Bytes> snapshot_;
};

// What each family of operations may use.
std::vector<Fence::Range> client_ring_fields()
{
    return {{offsetof(Channel_segment, client_read_index), offsetof(Channel_segment, server_watchdog)}};
}
std::vector<Fence::Range> server_ring_fields()
{
    return {{offsetof(Channel_segment, server_read_index), CHANNEL_SEGMENT_SIZE}};
}
std::vector<Fence::Range> priority_fields() { return {{0, offsetof(Channel_segment, client_watchdog)}}; }

// Runs `action` with the standard error stream captured, and returns what it wrote. A
// sanitizer's report during the run still reaches the real standard error stream.
std::string capture_refusals(const std::function<void()>& action)
{
#if defined(__SANITIZE_ADDRESS__)
    static const int original_stderr = ::dup(2);
    __sanitizer_set_report_fd(reinterpret_cast<void*>(static_cast<std::uintptr_t>(original_stderr)));
#endif
    const std::string text = capture_stderr(action);
#if defined(__SANITIZE_ADDRESS__)
    __sanitizer_set_report_fd(reinterpret_cast<void*>(static_cast<std::uintptr_t>(2)));
#endif
    return text;
}

// The refusals of a record kind, up to the kind's number.
const std::string NOT_PRIORITY = not_priority_kind(0).substr(0, not_priority_kind(0).size() - 2);
const std::string UNKNOWN_KIND = unknown_kind(0).substr(0, unknown_kind(0).size() - 2);

// Whether every line of `text` is one of the refusals the operations may report.
bool only_refusals(const std::string& text)
{
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        if (line + "\n" != priority_exceeded() && line.rfind(NOT_PRIORITY, 0) != 0 &&
            line.rfind(UNKNOWN_KIND, 0) != 0) {
            return false;
        }
    }
    return true;
}

std::uint32_t garbage_index(std::mt19937& random, std::uint32_t capacity)
{
    switch (random() % 6) {
    case 0:
        return static_cast<std::uint32_t>(random());  // anything
    case 1:
        return capacity - 4 + random() % 8;  // around the end
    case 2:
        return 0;
    default:
        return random() % capacity;
    }
}

// Scribbles over one ring: indices, prefixes at and around them, or whole stretches.
void scribble(std::mt19937& random, const Ring_fields& ring)
{
    const std::uint32_t capacity = ring.capacity;
    const int what = static_cast<int>(random() % 8);
    if (what <= 1) {
        *ring.read_index = garbage_index(random, capacity);
    } else if (what <= 3) {
        *ring.write_index = garbage_index(random, capacity);
    } else if (what == 4) {
        // A prefix at R or W (when they are inside the ring), or anywhere.
        std::uint32_t at = random() % 3 == 0   ? *ring.read_index
                           : random() % 3 == 0 ? *ring.write_index
                                               : random() % capacity;
        if (at + 1 < capacity) {
            const std::uint32_t length = random() % 2 == 0 ? random() % 0x10000 : capacity - at - random() % 4;
            ring.bytes[at] = static_cast<unsigned char>(length);
            ring.bytes[at + 1] = static_cast<unsigned char>(length >> 8);
        }
    } else if (what == 5) {
        const std::uint32_t at = random() % capacity;
        const std::uint32_t length = std::min<std::uint32_t>(capacity - at, random() % 4096);
        for (std::uint32_t i = 0; i < length; ++i) {
            ring.bytes[at + i] = static_cast<unsigned char>(random());
        }
    } else if (what == 6) {
        // Scattered non-zero bytes all over an otherwise clean ring.
        std::memset(ring.bytes, 0, capacity);
        for (std::uint32_t i = 0; i < capacity / 64; ++i) {
            ring.bytes[random() % capacity] = static_cast<unsigned char>(random());
        }
    } else {
        *ring.read_index = garbage_index(random, capacity);
        *ring.write_index = garbage_index(random, capacity);
        const std::uint32_t at = random() % (capacity - 1);
        ring.bytes[at] = static_cast<unsigned char>(random());
        ring.bytes[at + 1] = static_cast<unsigned char>(random());
    }
}

Bytes random_record(std::mt19937& random, std::uint32_t capacity)
{
    std::size_t size = 0;
    switch (random() % 10) {
    case 0:
        size = capacity - 3 + random() % 6;  // the largest placeable and beyond
        break;
    case 1:
        size = 60000 + random() % 10000;
        break;
    case 2:
        size = random() % 3;
        break;
    default:
        size = 1 + random() % 3000;
        break;
    }
    Bytes bytes(size, static_cast<unsigned char>(random()));
    for (std::size_t i = 0; i < size; i += 1 + random() % 64) {
        bytes[i] = static_cast<unsigned char>(random());
    }
    return bytes;
}

// Positions a correct end leaves an index at, after a push or pop.
bool indices_in_range(const Ring_fields& ring)
{
    return ring.read() <= ring.capacity - 3 && ring.write() <= ring.capacity - 3;
}

// What one operation of a garbage run did: whether it must have left the indices where a
// correct end would, and the size of the record it popped (0 for none).
struct Garbage_step {
    bool moved;
    std::size_t size;
};
using Operate = std::function<Garbage_step(int op, std::mt19937& random)>;

// What a garbage run wrote to the standard error stream, and the bytes it popped.
struct Garbage_run {
    std::string text;
    std::uint64_t popped = 0;
};

class ChannelGarbage : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(channel.open()); }
    void TearDown() override
    {
        fences.clear();
        EXPECT_TRUE(channel.close());
    }

    // Fences both mappings of the segment around `allowed`.
    void fence(const std::vector<Fence::Range>& allowed)
    {
        fences.clear();
        fences.emplace_back(new Fence(channel.app.segment, allowed));
        fences.emplace_back(new Fence(channel.daemon.segment, allowed));
    }

    // The first changed fenced offset of either mapping, or -1.
    long fence_broken()
    {
        for (auto& fence : fences) {
            const long at = fence->changed();
            if (at >= 0) {
                return at;
            }
        }
        return -1;
    }

    // Runs `rounds` rounds of garbage on `ring`, fenced around `fields`, from the random seed
    // `seed`: each round scribbles over the ring, runs `each_round` (if any), then one to four
    // operations, each `operate(op, random)` for an `op` below `operations`. After every
    // operation the fence holds, a popped record is at most `largest` bytes and the indices
    // are in range where they must be.
    Garbage_run survive_garbage(const std::vector<Fence::Range>& fields, const Ring_fields& ring, unsigned seed,
                                int rounds, unsigned operations, std::size_t largest, const Operate& operate,
                                const std::function<void(std::mt19937& random)>& each_round = nullptr)
    {
        fence(fields);
        std::mt19937 random(seed);
        Garbage_run run;
        run.text = capture_refusals([&] {
            for (int round = 0; round < rounds; ++round) {
                scribble(random, ring);
                if (each_round) {
                    each_round(random);
                }
                for (int step = 0, steps = 1 + random() % 4; step < steps; ++step) {
                    const int op = static_cast<int>(random() % operations);
                    const Garbage_step done = operate(op, random);
                    run.popped += done.size;
                    ASSERT_EQ(fence_broken(), -1) << "round " << round << " operation " << op;
                    ASSERT_LE(done.size, largest) << "round " << round;
                    if (done.moved) {
                        ASSERT_TRUE(indices_in_range(ring)) << "round " << round << " operation " << op;
                    }
                }
            }
        });
        return run;
    }

    Guarded_system guarded;
    logferry_test::Scoped_system installed{&guarded};
    logferry_test::Channel_pair channel;
    std::vector<std::unique_ptr<Fence>> fences;
};

TEST_F(ChannelGarbage, ClientRingSurvivesGarbage)
{
    const Ring_fields ring = channel.client_ring();
    const Operate operate = [&](int op, std::mt19937& random) -> Garbage_step {
        switch (op) {
        case 0:
        case 1: {
            Bytes data = random_record(random, ring.capacity);
            if (!data.empty() && random() % 8 != 0) {
                data[0] = static_cast<unsigned char>(random() % 21);
            }
            return {(op == 0 ? static_cast<logferry::Logferry_base&>(channel.app) : channel.daemon).push_client(data),
                    0};
        }
        case 2: {
            const bool moved = channel.app.segment->client_buffer_locked == 0;
            return {moved, channel.daemon.pop().size()};
        }
        case 3:
            return {true, channel.daemon.pop_unsynced(false).size()};
        case 4:
            return {true, channel.app.pop_unsynced(true).size()};
        case 5:
            channel.daemon.is_empty();
            return {false, 0};
        default:
            channel.app.is_client_buffer_locked();
            return {false, 0};
        }
    };
    const Garbage_run run =
        survive_garbage(client_ring_fields(), ring, 1117, 4000, 7, std::min<std::size_t>(ring.capacity - 2, 65535),
                        operate, [&](std::mt19937& random) {
                            if (random() % 4 == 0) {
                                channel.app.segment->client_buffer_locked = static_cast<std::uint8_t>(random() % 3);
                            }
                        });
    EXPECT_TRUE(only_refusals(run.text));
    EXPECT_GT(run.popped, 0u);
}

TEST_F(ChannelGarbage, ServerRingSurvivesGarbage)
{
    const Ring_fields ring = channel.server_ring();
    const Operate operate = [&](int op, std::mt19937& random) -> Garbage_step {
        switch (op) {
        case 0:
            return {channel.daemon.push(random_record(random, ring.capacity)), 0};
        case 1:
            return {channel.app.push_server(random_record(random, ring.capacity)), 0};
        case 2:
            return {true, channel.app.pop().size()};
        case 3:
            return {true, channel.app.pop_unsynced(false).size()};
        case 4:
            return {true, channel.daemon.pop_unsynced(true).size()};
        default:
            channel.app.is_empty();
            return {false, 0};
        }
    };
    const Garbage_run run = survive_garbage(server_ring_fields(), ring, 2221, 6000, 6, ring.capacity - 2u, operate);
    EXPECT_EQ(run.text, "");
    EXPECT_GT(run.popped, 0u);
}

TEST_F(ChannelGarbage, PriorityAreaSurvivesGarbage)
{
    fence(priority_fields());
    Channel_segment* const segment = channel.app.segment;
    std::mt19937 random(3331);
    static const unsigned char kinds[] = {0, 1, 2, 3, 5, 4, 9};
    const std::string text = capture_refusals([&] {
        for (int round = 0; round < 6000; ++round) {
            switch (random() % 4) {
            case 0:
                segment->priority_size = static_cast<std::uint16_t>(random());
                break;
            case 1:
                segment->priority_size = static_cast<std::uint16_t>(2040 + random() % 16);
                break;
            case 2:
                for (int i = 0; i < 64; ++i) {
                    segment->priority_data[random() % PRIORITY_DATA_SIZE] = static_cast<unsigned char>(random());
                }
                break;
            default:
                break;
            }
            logferry::Logferry_base& end =
                random() % 2 == 0 ? static_cast<logferry::Logferry_base&>(channel.app) : channel.daemon;
            const int op = static_cast<int>(random() % 6);
            Bytes data(random() % 2100 + (random() % 8 == 0 ? 0 : 1));
            if (!data.empty()) {
                data[0] = kinds[random() % sizeof kinds];
            }
            std::size_t size = 0;
            switch (op) {
            case 0:
                end.push_priority(data);
                break;
            case 1:
                end.force_push_priority(data);
                break;
            case 2:
                size = end.pop_priority().size();
                break;
            case 3:
                end.lock_priority_mutex();
                end.is_priority_empty_unsynced();
                size = end.pop_priority_unsynced().size();
                end.unlock_priority_mutex();
                break;
            case 4:
                end.is_priority_empty();
                break;
            default:
                end.clear_priority_data();
                break;
            }
            ASSERT_EQ(fence_broken(), -1) << "round " << round << " operation " << op;
            ASSERT_LE(size, PRIORITY_DATA_SIZE);
            if (op == 2 || op == 3 || op == 5) {
                ASSERT_EQ(segment->priority_size, 0) << "round " << round;
            }
        }
    });
    EXPECT_TRUE(only_refusals(text));
}

// The repairs, one by one.

TEST_F(ChannelGarbage, IndexBeyondTheRingRestartsItEmpty)
{
    channel.app.unlock_client_buffer();
    const Ring_fields ring = channel.client_ring();
    const Bytes kept = record(3, 50, 0x21);
    for (const std::uint32_t bad :
         {CLIENT_BUFFER_SIZE - 2, CLIENT_BUFFER_SIZE - 1, CLIENT_BUFFER_SIZE, CLIENT_BUFFER_SIZE + 5, 0xFFFFFFFFu}) {
        ASSERT_TRUE(channel.app.push(kept));
        *ring.read_index = bad;
        EXPECT_TRUE(channel.daemon.is_empty()) << bad;
        EXPECT_EQ(ring.read(), bad) << "is_empty only looks";
        EXPECT_TRUE(channel.daemon.pop().empty()) << bad;
        EXPECT_TRUE(ring.is_back_at_zero());

        ASSERT_TRUE(channel.app.push(kept));
        *ring.write_index = bad;
        ASSERT_TRUE(channel.app.push(kept));
        EXPECT_EQ(ring.read(), 0u);
        EXPECT_EQ(ring.write(), 52u);
        EXPECT_EQ(channel.daemon.pop(), kept);
        EXPECT_TRUE(channel.daemon.is_empty());
        EXPECT_TRUE(ring.all_zero());
    }
    EXPECT_EQ(channel.app.lost_messages.load(), 0u) << "a restart is not a discard step";
}

TEST_F(ChannelGarbage, PrefixRunningPastTheRingEndIsCutThere)
{
    const Ring_fields ring = channel.server_ring();
    const std::uint32_t at = SERVER_BUFFER_SIZE - 10;
    *ring.read_index = at;
    *ring.write_index = 0;
    ring.bytes[at] = 500 & 0xFF;
    ring.bytes[at + 1] = 500 >> 8;
    for (std::uint32_t i = at + 2; i < SERVER_BUFFER_SIZE; ++i) {
        ring.bytes[i] = static_cast<unsigned char>(i);
    }
    const Bytes expected(ring.bytes + at + 2, ring.bytes + SERVER_BUFFER_SIZE);
    ASSERT_EQ(expected.size(), 8u);
    EXPECT_EQ(channel.app.pop(), expected);
    EXPECT_TRUE(ring.is_back_at_zero());
}

TEST_F(ChannelGarbage, PrefixRunningOverTheWriterIsCutThere)
{
    channel.app.unlock_client_buffer();
    const Ring_fields ring = channel.client_ring();
    *ring.read_index = 0;
    *ring.write_index = 100;
    ring.bytes[0] = 1000 & 0xFF;
    ring.bytes[1] = 1000 >> 8;
    for (std::uint32_t i = 2; i < 100; ++i) {
        ring.bytes[i] = static_cast<unsigned char>(i * 3);  // the bytes from W on stay 0
    }
    const Bytes expected(ring.bytes + 2, ring.bytes + 100);
    EXPECT_EQ(channel.daemon.pop(), expected);
    EXPECT_TRUE(ring.is_back_at_zero());
}

TEST_F(ChannelGarbage, PrioritySizeBeyondTheAreaMeansTheWholeArea)
{
    Channel_segment* const segment = channel.app.segment;
    for (std::uint32_t i = 0; i < PRIORITY_DATA_SIZE; ++i) {
        segment->priority_data[i] = static_cast<unsigned char>(i * 7);
    }
    const Bytes whole(segment->priority_data, segment->priority_data + PRIORITY_DATA_SIZE);
    for (const std::uint16_t bad : {std::uint16_t{2049}, std::uint16_t{5000}, std::uint16_t{0xFFFF}}) {
        std::memcpy(segment->priority_data, whole.data(), whole.size());
        segment->priority_size = bad;
        EXPECT_FALSE(channel.daemon.is_priority_empty());
        std::string text = capture_stderr([&] { EXPECT_FALSE(channel.app.push_priority(record(3, 10))); });
        EXPECT_EQ(text, "");
        text = capture_stderr([&] { EXPECT_FALSE(channel.app.force_push_priority(record(3, 1))); });
        EXPECT_EQ(text, priority_exceeded());
        EXPECT_EQ(segment->priority_size, bad);
        EXPECT_EQ(channel.daemon.pop_priority(), whole);
        EXPECT_EQ(segment->priority_size, 0);
        EXPECT_EQ(Bytes(segment->priority_data, segment->priority_data + PRIORITY_DATA_SIZE),
                  Bytes(PRIORITY_DATA_SIZE, 0));
    }
}

// The fences themselves: a stray write is seen, a stray access beside the mapping faults,
// and (with AddressSanitizer) a stray read inside a fenced part is caught.

TEST_F(ChannelGarbage, FenceSeesAStrayWrite)
{
    fence(client_ring_fields());
    EXPECT_EQ(fence_broken(), -1);
    for (auto& each : fences) {
        each->unpoison();
    }
    channel.daemon.segment->server_buffer[0] ^= 1;
    EXPECT_EQ(fence_broken(), static_cast<long>(offsetof(Channel_segment, server_buffer)));
    for (auto& each : fences) {
        each->unpoison();
    }
    channel.daemon.segment->server_buffer[0] ^= 1;
    EXPECT_EQ(fence_broken(), -1);
}

using ChannelGarbageDeathTest = ChannelGarbage;

TEST_F(ChannelGarbageDeathTest, AccessBesideTheMappingFaults)
{
    volatile unsigned char* const before = reinterpret_cast<unsigned char*>(channel.app.segment) - 1;
    volatile unsigned char* const after = reinterpret_cast<unsigned char*>(channel.app.segment) + MAPPED;
    EXPECT_DEATH(*before = 1, "");
    EXPECT_DEATH(*after = 1, "");
}

#if defined(__SANITIZE_ADDRESS__)
TEST_F(ChannelGarbageDeathTest, PoisonedPartsCatchAStrayRead)
{
    fence(client_ring_fields());
    volatile unsigned char* const watchdog = reinterpret_cast<unsigned char*>(&channel.app.segment->server_watchdog);
    volatile unsigned char* const tail = reinterpret_cast<unsigned char*>(channel.app.segment) + CHANNEL_SEGMENT_SIZE;
    EXPECT_DEATH((void)*watchdog, "use-after-poison");
    EXPECT_DEATH((void)*tail, "use-after-poison");
}
#endif

}  // namespace
