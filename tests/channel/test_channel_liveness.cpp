// Watchdog stamps, the connection verdict and the report of discarded records. Time comes
// from the fake monotonic clock throughout.
#include <errno.h>

#include <cstdint>
#include <limits>

#include <gtest/gtest.h>

#include "logferry/channel.hpp"
#include "support/channel_fixture.hpp"
#include "support/diagnostics.hpp"
#include "support/fake_system.hpp"
#include "support/test_util.hpp"
#include "wire/shared_fields.hpp"

using logferry::last_connection_state;
using logferry_test::capture_stderr;
using logferry_test::capture_stdout;
using logferry_test::diagnostic;
using logferry_test::messages_discarded;
using logferry_test::not_initialized;
using logferry_test::Op;
using logferry_test::record;

namespace {

class ChannelLiveness : public ::testing::Test {
protected:
    void SetUp() override { fake.set_time(1000); }
    void TearDown() override
    {
        last_connection_state = false;  // as at load time, for whatever runs next
        if (opened) {
            EXPECT_TRUE(channel.close());
        }
    }

    void open(bool attach = true)
    {
        ASSERT_TRUE(channel.open(attach));
        opened = true;
    }
    void set_stamps(std::int64_t client, std::int64_t server)
    {
        logferry::atomic_store_i64(&channel.app.segment->client_watchdog, client);
        logferry::atomic_store_i64(&channel.app.segment->server_watchdog, server);
    }
    std::int64_t client_stamp() const { return logferry::atomic_load_i64(&channel.app.segment->client_watchdog); }
    std::int64_t server_stamp() const { return logferry::atomic_load_i64(&channel.app.segment->server_watchdog); }

    // At the time `now`, `end` finds the connection `active`; the stamps are then `client` and
    // `server`.
    ::testing::AssertionResult sees_at(logferry::Logferry_base& end, std::int64_t now, bool active, std::int64_t client,
                                       std::int64_t server)
    {
        fake.set_time(now);
        const bool found = end.is_connection_active();
        if (found != active || client_stamp() != client || server_stamp() != server) {
            return ::testing::AssertionFailure() << "at " << now << ": " << (found ? "active" : "not active")
                                                 << ", stamps " << client_stamp() << " and " << server_stamp();
        }
        return ::testing::AssertionSuccess();
    }

    logferry_test::Fake_system fake;
    logferry_test::Scoped_system installed{&fake};
    logferry_test::Channel_pair channel;
    bool opened = false;
};

TEST_F(ChannelLiveness, VerdictStartsFalse) { EXPECT_FALSE(last_connection_state.load()); }

TEST_F(ChannelLiveness, ApplicationWithoutDaemonIsNotConnected)
{
    open(false);
    EXPECT_EQ(client_stamp(), 1000);
    EXPECT_EQ(server_stamp(), 0);
    last_connection_state = true;
    fake.set_time(1001);
    EXPECT_FALSE(channel.app.is_connection_active());
    EXPECT_FALSE(last_connection_state.load());
    EXPECT_EQ(client_stamp(), 1001);
    EXPECT_EQ(server_stamp(), 0);
}

TEST_F(ChannelLiveness, AttachedDaemonMakesTheConnectionActive)
{
    open();
    EXPECT_EQ(server_stamp(), 1000);
    EXPECT_TRUE(channel.app.is_connection_active());
    EXPECT_TRUE(last_connection_state.load());
    EXPECT_TRUE(channel.daemon.is_connection_active());

    // A peer that leaves zeroes its stamp: the other end sees it at once.
    channel.daemon.uninit();
    EXPECT_EQ(server_stamp(), 0);
    EXPECT_FALSE(channel.app.is_connection_active());
    EXPECT_FALSE(last_connection_state.load());
}

TEST_F(ChannelLiveness, StampsFiveSecondsApartAreActiveSixAreNot)
{
    open();
    // The application's end stamps itself with the clock, the daemon's stamp stays at 100.
    set_stamps(104, 100);
    EXPECT_TRUE(sees_at(channel.app, 105, true, 105, 100));
    EXPECT_TRUE(sees_at(channel.app, 106, false, 106, 100));
    EXPECT_FALSE(last_connection_state.load());

    // The same seen from the daemon's end, whose own stamp is the newer one.
    set_stamps(100, 104);
    EXPECT_TRUE(sees_at(channel.daemon, 105, true, 100, 105));
    EXPECT_TRUE(sees_at(channel.daemon, 106, false, 100, 106));
}

TEST_F(ChannelLiveness, MeaninglessDifferenceKeepsThePreviousVerdict)
{
    open();
    const std::int64_t now = 1073741823 + 100;
    fake.set_time(now);

    // First verdict of the process: false.
    set_stamps(now, 100);  // 1073741823 apart
    EXPECT_FALSE(channel.app.is_connection_active());

    set_stamps(now, now - 1);
    EXPECT_TRUE(channel.app.is_connection_active());
    set_stamps(now, 100);
    EXPECT_TRUE(channel.app.is_connection_active()) << "previous verdict kept";
    set_stamps(now, 101);  // 1073741822 apart: a real difference, and too large
    EXPECT_FALSE(channel.app.is_connection_active());
    set_stamps(now, 100);
    EXPECT_FALSE(channel.app.is_connection_active()) << "previous verdict kept";

    // Stamps at the ends of the 64-bit range do not upset the arithmetic.
    set_stamps(now, now);
    EXPECT_TRUE(channel.app.is_connection_active());
    set_stamps(now, std::numeric_limits<std::int64_t>::min());
    EXPECT_TRUE(channel.app.is_connection_active());
    set_stamps(now, std::numeric_limits<std::int64_t>::max());
    EXPECT_TRUE(channel.app.is_connection_active());
    EXPECT_EQ(server_stamp(), std::numeric_limits<std::int64_t>::max());
    set_stamps(std::numeric_limits<std::int64_t>::min(), std::numeric_limits<std::int64_t>::max());
    EXPECT_TRUE(channel.daemon.is_connection_active());
}

TEST_F(ChannelLiveness, BothStampsStaleRestartsBothClocks)
{
    open();
    fake.set_time(200);
    set_stamps(197, 197);
    EXPECT_TRUE(channel.app.is_connection_active());
    EXPECT_EQ(client_stamp(), 200);
    EXPECT_EQ(server_stamp(), 200);

    // Also from the daemon's end.
    set_stamps(190, 150);
    EXPECT_TRUE(channel.daemon.is_connection_active());
    EXPECT_EQ(client_stamp(), 200);
    EXPECT_EQ(server_stamp(), 200);
}

TEST_F(ChannelLiveness, OnlyTheOwnStampMovesUnlessBothAreStale)
{
    open();
    fake.set_time(200);
    set_stamps(198, 190);  // own stamp 2 seconds old: not stale
    EXPECT_FALSE(channel.app.is_connection_active());
    EXPECT_EQ(client_stamp(), 200);
    EXPECT_EQ(server_stamp(), 190);

    set_stamps(0, 190);  // the application is gone: the daemon stamps only itself
    EXPECT_FALSE(channel.daemon.is_connection_active());
    EXPECT_EQ(client_stamp(), 0);
    EXPECT_EQ(server_stamp(), 200);
}

TEST_F(ChannelLiveness, ClockAtZeroSecondsOrBelowStampsNothing)
{
    open();
    set_stamps(50, 52);
    fake.set_time(0, 999999999);
    const std::string text = capture_stderr([&] {
        channel.app.update_connection_active_timer();
        channel.daemon.update_connection_active_timer();
    });
    EXPECT_EQ(text, "");
    EXPECT_EQ(client_stamp(), 50);
    EXPECT_EQ(server_stamp(), 52);

    fake.set_time(-3);
    channel.app.update_connection_active_timer();
    EXPECT_EQ(client_stamp(), 50);
    EXPECT_TRUE(channel.app.is_connection_active());  // judged on the old stamps
    EXPECT_EQ(client_stamp(), 50);
}

TEST_F(ChannelLiveness, FailingClockIsReportedAndStampsNothing)
{
    open();
    set_stamps(500, 400);
    fake.set_time(600);
    fake.fail(Op::clock_gettime, -1, EINVAL, 2);
    std::string text = capture_stderr([&] { channel.app.update_connection_active_timer(); });
    EXPECT_EQ(text, diagnostic("gettime failed"));
    EXPECT_EQ(client_stamp(), 500);
    EXPECT_EQ(server_stamp(), 400);

    bool active = true;
    text = capture_stderr([&] { active = channel.app.is_connection_active(); });
    EXPECT_EQ(text, diagnostic("gettime failed"));
    EXPECT_FALSE(active);  // 100 apart on the old stamps
    EXPECT_EQ(client_stamp(), 500);

    // The clock works again: both are stale, so both restart.
    EXPECT_TRUE(channel.app.is_connection_active());
    EXPECT_EQ(client_stamp(), 600);
    EXPECT_EQ(server_stamp(), 600);
}

TEST_F(ChannelLiveness, EveryStampReadsTheClockThroughTheSystemLayer)
{
    open();
    fake.reset_calls();
    channel.app.update_connection_active_timer();
    EXPECT_EQ(fake.calls(Op::clock_gettime), 1);
    channel.daemon.is_connection_active();
    EXPECT_EQ(fake.calls(Op::clock_gettime), 2);
}

TEST_F(ChannelLiveness, EndThatIsNotInitializedReportsAndKeepsTheVerdict)
{
    logferry::Logferry_client app_end;
    logferry::Logferry_base daemon_end;
    last_connection_state = true;
    for (logferry::Logferry_base* end : {static_cast<logferry::Logferry_base*>(&app_end), &daemon_end}) {
        std::string text = capture_stderr([&] { end->update_connection_active_timer(); });
        EXPECT_EQ(text, not_initialized());
        bool active = true;
        text = capture_stderr([&] { active = end->is_connection_active(); });
        EXPECT_EQ(text, not_initialized());
        EXPECT_FALSE(active);
        EXPECT_TRUE(last_connection_state.load());
    }
    EXPECT_EQ(fake.calls(Op::clock_gettime), 0);
}

TEST_F(ChannelLiveness, LossReportGoesToStandardOutputOnceAndResets)
{
    logferry::Logferry_client end;
    end.set_app_identifier("APP1");

    std::string err;
    std::string out = capture_stdout([&] { err = capture_stderr([&] { end.check_lost_messages(); }); });
    EXPECT_EQ(out, "");
    EXPECT_EQ(err, "");

    end.lost_messages = 17;
    out = capture_stdout([&] { err = capture_stderr([&] { end.check_lost_messages(); }); });
    EXPECT_EQ(out, messages_discarded("APP1", 17));
    EXPECT_EQ(err, "");
    EXPECT_EQ(end.lost_messages.load(), 0u);

    out = capture_stdout([&] { end.check_lost_messages(); });
    EXPECT_EQ(out, "");

    end.lost_messages = 18446744073709551615ull;
    out = capture_stdout([&] { end.check_lost_messages(); });
    EXPECT_EQ(out, messages_discarded("APP1", 18446744073709551615ULL));
}

TEST_F(ChannelLiveness, DiscardsOfAFullRingAreReported)
{
    open();
    // The gate is closed and nobody reads: 200 records of 1000 bytes overflow the ring.
    for (std::uint32_t i = 0; i < 200; ++i) {
        ASSERT_TRUE(channel.app.push(logferry_test::numbered_record(i, 1000)));
    }
    // 130 records of 1002 bytes fit; each later one displaces exactly one.
    EXPECT_EQ(channel.app.lost_messages.load(), 70u);
    const std::string out = capture_stdout([&] { channel.app.check_lost_messages(); });
    EXPECT_EQ(out, messages_discarded(channel.app.app_identifier, 70));
    EXPECT_EQ(channel.app.lost_messages.load(), 0u);
    EXPECT_EQ(capture_stdout([&] { channel.app.check_lost_messages(); }), "");
}

}  // namespace
