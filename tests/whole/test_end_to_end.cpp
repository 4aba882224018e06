// The whole path between an application using the library and a daemon in another process:
// announcement, attachment, registrations and control requests through the priority area,
// the gate on the ordinary ring, level updates and console text coming back, the daemon's
// death and return, and shutdown.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "logferry/client.hpp"
#include "support/e2e_fixture.hpp"

using namespace logferry_test;
using logferry::Logferry_register_app;
using logferry::Logferry_register_context;

namespace {

Bytes app_record() { return bytes_of(Logferry_register_app("APP1", "end to end")); }
Bytes context_record(std::uint32_t handle, const char* id, const char* text, std::uint8_t level)
{
    return bytes_of(Logferry_register_context(level, handle, id, text));
}

// The message that log_numbered(key, value) sends, time stamp masked.
std::string expected_message(std::uint32_t handle, std::uint32_t key, std::int32_t value)
{
    logferry::Logferry_write_int32 number{};
    number.value = value;
    number.stream_key = key;
    return masked(hex_of(bytes_of(make_start(key, 4, handle, 0), number, make_finish(key))));
}

void log_numbered(std::uint32_t handle, std::uint32_t key, std::int32_t value)
{
    ASSERT_TRUE(logferry::log_start(handle, key, 4));
    logferry::log_int32(key, value);
    logferry::log_finish(key);
}

std::vector<std::string> masked_ring(const Daemon_peer& peer)
{
    std::vector<std::string> result;
    for (const std::string& unit : payloads(peer, "ring ")) {
        result.push_back(masked(unit));
    }
    return result;
}

int index_of_last(const Daemon_peer& peer, const std::string& prefix)
{
    const auto all = peer.lines();
    for (int i = static_cast<int>(all.size()) - 1; i >= 0; --i) {
        if (all[i].compare(0, prefix.size(), prefix) == 0) {
            return i;
        }
    }
    return -1;
}

bool pending_queue_size_is(std::size_t size)
{
    std::lock_guard<std::mutex> lock(logferry::priority_message_queue_mutex);
    return logferry::priority_message_queue.size() == size;
}

// Registers the application and two contexts, asks for local printing, and logs ten
// messages.
void register_and_log()
{
    ASSERT_TRUE(logferry::register_app("APP1", "end to end"));
    ASSERT_TRUE(logferry::register_context(1, "CTX1", "first", 4));
    ASSERT_TRUE(logferry::enable_local_print());
    ASSERT_TRUE(logferry::register_context(2, "CTX2", "second", 3));
    for (std::int32_t i = 0; i < 10; ++i) {
        log_numbered(i % 2 == 0 ? 1 : 2, 100 + i, i * 7);
    }
}

// The peer got everything register_and_log sent, in order and byte for byte: the records of
// the priority area, then the ten messages, the ordinary ring opened only after every
// registration had been taken.
void expect_registered_and_logged(Daemon_peer& peer)
{
    ASSERT_TRUE(wait_until([&] { return payloads(peer, "ring ").size() >= 10; }, std::chrono::milliseconds(10000)));
    const Bytes expected_priority =
        joined({app_record(), context_record(1, "CTX1", "first", 4), bytes_of(logferry::Logferry_enable_local_print{}),
                context_record(2, "CTX2", "second", 3)});
    std::string priority;
    for (const std::string& part : payloads(peer, "priority ")) {
        priority += part;
    }
    EXPECT_EQ(priority, hex_of(expected_priority));

    std::vector<std::string> expected_ring;
    for (std::int32_t i = 0; i < 10; ++i) {
        expected_ring.push_back(expected_message(i % 2 == 0 ? 1 : 2, 100 + i, i * 7));
    }
    EXPECT_EQ(masked_ring(peer), expected_ring);
    EXPECT_LT(index_of_last(peer, "priority "), peer.wait_for("ring "));
}

// Brings the library up, and whether `peer` then attached its channel.
::testing::AssertionResult library_attached_to(Daemon_peer& peer)
{
    logferry::init();
    if (peer.wait_for("attach " + logferry::client.get_filename()) < 0) {
        return ::testing::AssertionFailure() << "the peer did not attach " << logferry::client.get_filename();
    }
    return ::testing::AssertionSuccess();
}

// Registers the application APP1 (and, `with_context`, its context CTX1 of handle 1 at level
// info), and whether `peer` then took every record.
::testing::AssertionResult registered_at(Daemon_peer& peer, bool with_context)
{
    const bool registered = logferry::register_app("APP1", "end to end") &&
                            (!with_context || logferry::register_context(1, "CTX1", "first", 4));
    const std::size_t records = with_context ? 2 : 1;
    if (!registered || !wait_until([&] { return peer.lines_with("priority ").size() == records; })) {
        return ::testing::AssertionFailure() << "the peer did not take the registrations";
    }
    return ::testing::AssertionSuccess();
}

}  // namespace

class EndToEnd : public End_to_end_test {};

TEST_F(EndToEnd, DaemonFirstThenApplication)
{
    Daemon_peer& peer = start_peer();
    ASSERT_TRUE(library_attached_to(peer));
    register_and_log();
    expect_registered_and_logged(peer);
}

TEST_F(EndToEnd, ApplicationFirstThenDaemon)
{
    logferry::init();
    register_and_log();
    EXPECT_TRUE(pending_queue_size_is(4));  // nobody to send to: all queued, in order
    EXPECT_TRUE(logferry::client.is_client_buffer_locked());

    Daemon_peer& peer = start_peer();
    ASSERT_GE(peer.wait_for("attach " + logferry::client.get_filename()), 0);
    expect_registered_and_logged(peer);
    EXPECT_EQ(payloads(peer, "priority ").size(), 4u);  // one record per read: never overtaken
    EXPECT_TRUE(pending_queue_size_is(0));
}

TEST_F(EndToEnd, AnnouncementIsWithdrawnOnceTheDaemonAttached)
{
    Daemon_peer& peer = start_peer();
    ASSERT_TRUE(library_attached_to(peer));
    logferry::Logferry_listener probe(false);
    probe.lock_listener_name = logferry::listener.lock_listener_name;
    ASSERT_TRUE(probe.init());
    EXPECT_TRUE(wait_until([&] { return probe.is_empty(); }, std::chrono::milliseconds(5000)));
    probe.uninit();
}

TEST_F(EndToEnd, LevelUpdatesChangeTheFiltersOfKnownContextsOnly)
{
    Daemon_peer& peer = start_peer();
    ASSERT_TRUE(library_attached_to(peer));
    ASSERT_TRUE(registered_at(peer, true));
    EXPECT_TRUE(logferry::is_log_level_enabled(1, 4));
    EXPECT_FALSE(logferry::is_log_level_enabled(1, 5));

    peer.send("level 1 6");
    ASSERT_TRUE(wait_until([] { return logferry::is_log_level_enabled(1, 6); }));

    // Ignored: an unknown context, a seventh byte, a level above 6. A final update of a
    // known context marks the point where all of them have been handled (one per tick, in
    // order).
    peer.send("level 99 6");
    peer.send("raw 18020100000000");
    peer.send("raw 180701000000");
    peer.send("level 1 3");
    ASSERT_TRUE(wait_until([] { return !logferry::is_log_level_enabled(1, 4); }));
    EXPECT_TRUE(logferry::is_log_level_enabled(1, 3));
    std::lock_guard<std::mutex> lock(logferry::filters_mutex);
    EXPECT_EQ(logferry::log_level_filters.count(99), 0u);
    EXPECT_EQ(logferry::log_level_filters.at(1), 3);
}

TEST_F(EndToEnd, ConsoleTextIsPrintedExactlyAsSent)
{
    Daemon_peer& peer = start_peer();
    ASSERT_TRUE(library_attached_to(peer));
    ASSERT_TRUE(registered_at(peer, true));

    ::testing::internal::CaptureStdout();
    peer.send("text hello");
    peer.send("raw 68690077686f");  // "hi", a zero, then bytes that are never shown
    peer.send("raw 1801");          // first byte 24 with a wrong length: never printed
    peer.send("level 1 2");         // marks the end
    const bool handled = wait_until([] { return !logferry::is_log_level_enabled(1, 3); });
    const std::string printed = ::testing::internal::GetCapturedStdout();
    ASSERT_TRUE(handled);
    EXPECT_EQ(printed, "hello\nhi");
}

TEST_F(EndToEnd, DaemonKilledAndBackGetsTheReplayBeforeQueuedRecords)
{
    Daemon_peer& first = start_peer();
    ASSERT_TRUE(library_attached_to(first));
    ASSERT_TRUE(logferry::register_app("APP1", "end to end"));
    ASSERT_TRUE(logferry::register_context(1, "CTX1", "first", 4));
    ASSERT_TRUE(logferry::register_context(2, "CTX2", "second", 3));
    log_numbered(1, 10, 1);
    ASSERT_TRUE(wait_until([&] { return payloads(first, "ring ").size() == 1; }));
    EXPECT_FALSE(logferry::pending_registration);

    first.kill_hard();
    // A killed daemon cannot clear its watchdog: it is noticed once its stamp is more than
    // five seconds behind, at the next once-a-second check.
    ASSERT_TRUE(wait_until([] { return logferry::client.is_client_buffer_locked() && logferry::pending_registration; },
                           std::chrono::milliseconds(10000)));

    // Meanwhile the application goes on: messages pile up in the ring, a new registration
    // waits in the queue.
    log_numbered(1, 20, 2);
    log_numbered(2, 21, 3);
    ASSERT_TRUE(logferry::register_context(3, "CTX3", "third", 5));
    EXPECT_TRUE(pending_queue_size_is(1));

    Daemon_peer& second = start_peer();
    ASSERT_GE(second.wait_for("attach " + logferry::client.get_filename()), 0);
    ASSERT_TRUE(wait_until([&] { return payloads(second, "ring ").size() >= 2; }, std::chrono::milliseconds(10000)));
    log_numbered(2, 30, 4);
    ASSERT_TRUE(wait_until([&] { return payloads(second, "ring ").size() >= 3; }));

    // The kept registrations first (forced), then the queued record: CTX3 comes twice.
    const auto priority = payloads(second, "priority ");
    ASSERT_EQ(priority.size(), 5u);
    EXPECT_EQ(priority[0], hex_of(app_record()));
    const std::set<std::string> replayed(priority.begin() + 1, priority.begin() + 4);
    const std::set<std::string> kept = {hex_of(context_record(1, "CTX1", "first", 4)),
                                        hex_of(context_record(2, "CTX2", "second", 3)),
                                        hex_of(context_record(3, "CTX3", "third", 5))};
    EXPECT_EQ(replayed, kept);
    EXPECT_EQ(priority[4], hex_of(context_record(3, "CTX3", "third", 5)));
    EXPECT_EQ(masked_ring(second), (std::vector<std::string>{expected_message(1, 20, 2), expected_message(2, 21, 3),
                                                             expected_message(2, 30, 4)}));
    EXPECT_LT(index_of_last(second, "priority "), second.wait_for("ring "));
    EXPECT_FALSE(logferry::pending_registration);
}

TEST_F(EndToEnd, DaemonLeavingCleanlyIsNoticedWithinAboutASecond)
{
    Daemon_peer& peer = start_peer();
    ASSERT_TRUE(library_attached_to(peer));
    ASSERT_TRUE(registered_at(peer, true));
    ASSERT_TRUE(wait_until([] { return !logferry::client.is_client_buffer_locked(); }));
    peer.send("leave");
    ASSERT_GE(peer.wait_for("left"), 0);
    EXPECT_TRUE(wait_until([] { return logferry::client.is_client_buffer_locked() && logferry::pending_registration; },
                           std::chrono::milliseconds(2500)));
}

TEST_F(EndToEnd, QueuedRecordsEnterThePriorityAreaOneAtATimeInOrder)
{
    Daemon_peer& peer = start_peer();
    ASSERT_TRUE(library_attached_to(peer));
    ASSERT_TRUE(registered_at(peer, false));
    peer.send("hold");
    ASSERT_GE(peer.wait_for("done hold"), 0);
    const std::vector<Bytes> queued = {bytes_of(logferry::Logferry_disable_remote{}),
                                       context_record(7, "CTX7", "seventh", 2),
                                       bytes_of(logferry::Logferry_enable_local_print{})};
    {
        std::lock_guard<std::mutex> lock(logferry::priority_message_queue_mutex);
        for (const Bytes& record : queued) {
            logferry::priority_message_queue.push(record);
        }
    }
    // The first goes into the area; the others wait, the front one retried, never overtaken.
    ASSERT_TRUE(wait_until([] { return !logferry::client.is_priority_empty(); }));
    EXPECT_TRUE(pending_queue_size_is(2));
    peer.send("release");
    ASSERT_TRUE(wait_until([&] { return peer.lines_with("priority ").size() == 4; }, std::chrono::milliseconds(10000)));
    const auto priority = payloads(peer, "priority ");
    EXPECT_EQ(priority[1], hex_of(queued[0]));
    EXPECT_EQ(priority[2], hex_of(queued[1]));
    EXPECT_EQ(priority[3], hex_of(queued[2]));
    EXPECT_TRUE(pending_queue_size_is(0));
}

TEST_F(EndToEnd, WithoutAContextTheOrdinaryRingStaysClosed)
{
    Daemon_peer& peer = start_peer();
    ASSERT_TRUE(library_attached_to(peer));
    ASSERT_TRUE(logferry::register_app("APP1", "end to end"));
    logferry::disable_remote();
    // The application's messages need a context to be logged; a pushed unit stands in.
    logferry::log_finish(5);
    ASSERT_TRUE(wait_until([&] { return peer.lines_with("priority ").size() == 2; }));
    // Let several ticks pass: the receiver handles one daemon message per tick.
    peer.send("level 1 6");
    peer.send("level 1 6");
    peer.send("level 1 6");
    ASSERT_TRUE(wait_until([&] { return peer.lines_with("done level").size() == 3; }));
    ASSERT_TRUE(wait_until([] { return logferry::client.is_empty(); }));
    EXPECT_TRUE(logferry::client.is_client_buffer_locked());
    EXPECT_TRUE(peer.lines_with("ring ").empty());

    ASSERT_TRUE(logferry::register_context(1, "CTX1", "first", 4));
    ASSERT_TRUE(wait_until([&] { return peer.lines_with("ring ").size() == 1; }));
    EXPECT_EQ(payloads(peer, "ring ")[0], hex_of(bytes_of(make_finish(5))));
}

TEST_F(EndToEnd, ExitWithoutADaemonForcesQueuedRecordsBehindWhatTheAreaHolds)
{
    logferry::init();
    ASSERT_TRUE(logferry::register_app("APP1", "end to end"));
    ASSERT_TRUE(logferry::register_context(1, "CTX1", "first", 4));
    ASSERT_TRUE(logferry::init_file("trace.log"));
    ASSERT_TRUE(pending_queue_size_is(3));
    // Something already in the area stays in front.
    const Bytes already = bytes_of(logferry::Logferry_disable_remote{});
    ASSERT_TRUE(logferry::client.force_push_priority(already));

    // Look at the segment without attaching (attaching would make the daemon look alive).
    const int fd = ::shm_open(logferry::client.get_filename().c_str(), O_RDONLY, 0);
    ASSERT_GE(fd, 0);
    void* view = ::mmap(nullptr, sizeof(logferry::Channel_segment), PROT_READ, MAP_SHARED, fd, 0);
    ::close(fd);
    ASSERT_NE(view, MAP_FAILED);
    const auto* segment = static_cast<const logferry::Channel_segment*>(view);

    const auto start = std::chrono::steady_clock::now();
    logferry::exit();
    const auto took = std::chrono::steady_clock::now() - start;
    // At most one reconnect pause (1 s) and the shutdown's 50 ms, plus scheduling.
    EXPECT_LT(std::chrono::duration_cast<std::chrono::milliseconds>(took).count(), 2500);

    const Bytes expected =
        joined({already, app_record(), context_record(1, "CTX1", "first", 4), bytes_of(make_init_file("trace.log"))});
    ASSERT_EQ(segment->priority_size, expected.size());
    EXPECT_EQ(Bytes(segment->priority_data, segment->priority_data + segment->priority_size), expected);
    EXPECT_TRUE(pending_queue_size_is(0));
    EXPECT_FALSE(logferry_test::shm_exists(logferry::client.get_filename()));
    ::munmap(view, sizeof(logferry::Channel_segment));
}

TEST_F(EndToEnd, ExitWithTheDaemonAttachedReturnsPromptly)
{
    Daemon_peer& peer = start_peer();
    ASSERT_TRUE(library_attached_to(peer));
    ASSERT_TRUE(registered_at(peer, false));
    const auto start = std::chrono::steady_clock::now();
    logferry::exit();
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_LT(std::chrono::duration_cast<std::chrono::milliseconds>(took).count(), 1000);
    ASSERT_GE(peer.wait_for("detach " + logferry::client.get_filename()), 0);
    EXPECT_FALSE(logferry::init_called);
}
