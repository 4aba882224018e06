// Application and context registration, the priority path, and the level-filter queries.
#include <errno.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <memory>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "logferry/client.hpp"
#include "support/client_fixture.hpp"
#include "support/fake_system.hpp"
#include "support/test_util.hpp"

using logferry_test::Bytes;
using logferry_test::bytes_of;
using logferry_test::Client_test;
using logferry_test::Daemon_end;
using logferry_test::Fake_system;
using logferry_test::Op;
using logferry_test::priority_area;
using logferry_test::queued_priority_records;
using logferry_test::Scoped_system;

namespace {

Bytes app_record(const char* id, const char* description)
{
    return bytes_of(logferry::Logferry_register_app(id, description));
}

Bytes context_record(std::uint8_t level, std::uint32_t handle, const char* id, const char* description)
{
    return bytes_of(logferry::Logferry_register_context(level, handle, id, description));
}

Bytes text_bytes(const std::string& text) { return Bytes(text.begin(), text.end()); }

}  // namespace

class ClientRegistration : public Client_test {
protected:
    void TearDown() override
    {
        installed_.reset();
        fake_.reset();
        Client_test::TearDown();
    }

    // For the rest of the test a fake system whose monotonic clock stands at 1000 s and only
    // moves with the library's sleeps, which return at once; then the channel opened as
    // open_without_receiver leaves it.
    Fake_system& open_on_fake_clock()
    {
        fake_.reset(new Fake_system());
        installed_.reset(new Scoped_system(fake_.get()));
        fake_->set_time(1000);
        fake_->fake_sleeps(true);
        open_without_receiver();
        return *fake_;
    }

    // The daemon takes the record the priority area holds during the library's `sleep`th
    // sleep.
    void daemon_takes_at_sleep(Daemon_end& daemon, int sleep)
    {
        fake_->on_call([this, &daemon, sleep](Op op) {
            if (op == Op::sleep_for_milliseconds && ++sleeps_ == sleep) {
                daemon.end.pop_priority();
            }
        });
    }

private:
    std::unique_ptr<Fake_system> fake_;
    std::unique_ptr<Scoped_system> installed_;
    std::atomic<int> sleeps_{0};
};

// ---------------------------------------------------------------------------------------
// register_app

TEST_F(ClientRegistration, RegisterAppBeforeInitFailsAndSendsNothing)
{
    EXPECT_FALSE(logferry::register_app("APP1", "application"));
    EXPECT_TRUE(logferry::registered_application.empty());
    EXPECT_TRUE(logferry::priority_message_queue.empty());
    // The channel was not touched either: it is still closed.
    EXPECT_FALSE(logferry::client.is_initialized());
}

TEST_F(ClientRegistration, RegisterAppAfterExitFails)
{
    logferry::init();
    remember_channel();
    logferry::exit();
    EXPECT_FALSE(logferry::register_app("APP1", "application"));
    EXPECT_TRUE(logferry::registered_application.empty());
    EXPECT_TRUE(logferry::priority_message_queue.empty());
}

TEST_F(ClientRegistration, RegisterAppWithNullTextFails)
{
    open_without_receiver();
    logferry::client.unlock_client_buffer();
    EXPECT_FALSE(logferry::register_app("APP1", nullptr));
    EXPECT_FALSE(logferry::register_app(nullptr, "application"));
    EXPECT_FALSE(logferry::register_app(nullptr, nullptr));
    EXPECT_TRUE(logferry::registered_application.empty());
    EXPECT_TRUE(logferry::priority_message_queue.empty());
    EXPECT_FALSE(logferry::client.is_client_buffer_locked());
}

// The record register_app sends and the registration it keeps, for IDs of every length: the
// first four characters are kept, a shorter ID is zero-filled.
struct App_id_case {
    const char* name;
    const char* id;
    const char* description;
    Bytes record;
    std::array<char, 5> kept_id;
};

// A case is shown by its name (CTest names the cases after it).
void PrintTo(const App_id_case& id_case, std::ostream* out) { *out << id_case.name; }

class ClientRegistrationAppIds : public ClientRegistration, public ::testing::WithParamInterface<App_id_case> {};

TEST_P(ClientRegistrationAppIds, RecordBytesAndKeptRegistration)
{
    open_without_receiver();
    ASSERT_TRUE(logferry::register_app(GetParam().id, GetParam().description));
    const auto queued = queued_priority_records();
    ASSERT_EQ(queued.size(), 1u);
    EXPECT_EQ(queued[0], GetParam().record);
    ASSERT_EQ(logferry::registered_application.size(), 1u);
    const auto& kept = logferry::registered_application[0];
    EXPECT_EQ(kept.app_id, GetParam().kept_id);
    EXPECT_EQ(+kept.length, 10);
}

INSTANTIATE_TEST_SUITE_P(
    Characters, ClientRegistrationAppIds,
    ::testing::Values(
        App_id_case{"Four", "ABCD", "x", {3, 0x0A, 0x00, 'A', 'B', 'C', 'D', 0, 'x', 0}, {'A', 'B', 'C', 'D', 0}},
        App_id_case{
            "SevenKeepFour", "ABCDEFG", "d", {3, 10, 0, 'A', 'B', 'C', 'D', 0, 'd', 0}, {'A', 'B', 'C', 'D', 0}},
        App_id_case{"TwoAreZeroFilled", "AB", "d", {3, 10, 0, 'A', 'B', 0, 0, 0, 'd', 0}, {'A', 'B', 0, 0, 0}}));

TEST_F(ClientRegistration, LongDescriptionsAreCutTo79Characters)
{
    open_without_receiver();
    const std::string description(100, 'q');
    ASSERT_TRUE(logferry::register_app("APP1", description.c_str()));
    ASSERT_TRUE(logferry::register_context(3, "CTX1", description.c_str(), 4));
    const auto queued = queued_priority_records();
    ASSERT_EQ(queued.size(), 2u);

    const Bytes app =
        logferry_test::joined({Bytes{3, 88, 0, 'A', 'P', 'P', '1', 0}, text_bytes(std::string(79, 'q')), Bytes{0}});
    EXPECT_EQ(queued[0], app);
    EXPECT_EQ(queued[0].size(), 88u);
    EXPECT_EQ(+logferry::registered_application.at(0).length, 88);

    const Bytes context = logferry_test::joined(
        {Bytes{5, 93, 0, 4, 3, 0, 0, 0, 'C', 'T', 'X', '1', 0}, text_bytes(std::string(79, 'q')), Bytes{0}});
    EXPECT_EQ(queued[1], context);
    EXPECT_EQ(queued[1].size(), 93u);
    EXPECT_EQ(+logferry::registered_contexts.at(3).length, 93);
}

TEST_F(ClientRegistration, SecondRegisterAppIsSentAndKept)
{
    open_without_receiver();
    ASSERT_TRUE(logferry::register_app("APP1", "one"));
    ASSERT_TRUE(logferry::register_app("APP2", "two"));
    ASSERT_EQ(logferry::registered_application.size(), 2u);
    EXPECT_EQ(std::string(logferry::registered_application[0].app_id.data()), "APP1");
    EXPECT_EQ(std::string(logferry::registered_application[1].app_id.data()), "APP2");
    const auto queued = queued_priority_records();
    ASSERT_EQ(queued.size(), 2u);
    EXPECT_EQ(queued[0], app_record("APP1", "one"));
    EXPECT_EQ(queued[1], app_record("APP2", "two"));
}

TEST_F(ClientRegistration, RegisterAppLocksTheOrdinaryBuffer)
{
    open_without_receiver();
    logferry::client.unlock_client_buffer();
    ASSERT_FALSE(logferry::client.is_client_buffer_locked());
    ASSERT_TRUE(logferry::register_app("APP1", "application"));
    EXPECT_TRUE(logferry::client.is_client_buffer_locked());
}

// ---------------------------------------------------------------------------------------
// register_context

TEST_F(ClientRegistration, RegisterContextLevelAboveSixFails)
{
    open_without_receiver();
    ASSERT_TRUE(logferry::register_app("APP1", "application"));
    EXPECT_FALSE(logferry::register_context(1, "CTX1", "context", 7));
    EXPECT_FALSE(logferry::register_context(1, "CTX1", "context", 255));
    EXPECT_TRUE(logferry::registered_contexts.empty());
    EXPECT_TRUE(logferry::log_level_filters.empty());
    EXPECT_EQ(logferry::priority_message_queue.size(), 1u);

    EXPECT_TRUE(logferry::register_context(1, "CTX1", "context", 6));
    EXPECT_EQ(logferry::log_level_filters.at(1), 6);
    EXPECT_EQ(logferry::priority_message_queue.size(), 2u);
}

TEST_F(ClientRegistration, RegisterContextBeforeRegisterAppFails)
{
    open_without_receiver();
    EXPECT_FALSE(logferry::register_context(1, "CTX1", "context", 4));
    EXPECT_TRUE(logferry::registered_contexts.empty());
    EXPECT_TRUE(logferry::log_level_filters.empty());
    EXPECT_TRUE(logferry::priority_message_queue.empty());
}

TEST_F(ClientRegistration, RegisterContextAfterUnregisterAppFails)
{
    open_without_receiver();
    ASSERT_TRUE(logferry::register_app("APP1", "application"));
    logferry::unregister_app();
    EXPECT_FALSE(logferry::register_context(1, "CTX1", "context", 4));
    EXPECT_TRUE(logferry::registered_contexts.empty());
}

TEST_F(ClientRegistration, RegisterContextWithNullTextFails)
{
    open_without_receiver();
    ASSERT_TRUE(logferry::register_app("APP1", "application"));
    EXPECT_FALSE(logferry::register_context(1, nullptr, "context", 4));
    EXPECT_FALSE(logferry::register_context(1, "CTX1", nullptr, 4));
    EXPECT_TRUE(logferry::registered_contexts.empty());
    EXPECT_TRUE(logferry::log_level_filters.empty());
    EXPECT_EQ(logferry::priority_message_queue.size(), 1u);
}

TEST_F(ClientRegistration, RegisterContextLevelIsCheckedFirst)
{
    // Level 7 with no application and null texts: refused, nothing sent.
    open_without_receiver();
    EXPECT_FALSE(logferry::register_context(1, nullptr, nullptr, 7));
    EXPECT_TRUE(logferry::priority_message_queue.empty());
}

TEST_F(ClientRegistration, RegisterContextRecordBytesAndTables)
{
    open_without_receiver();
    ASSERT_TRUE(logferry::register_app("APP1", "application"));
    ASSERT_TRUE(logferry::register_context(0x01020304, "CTX1", "", 4));
    const auto queued = queued_priority_records();
    ASSERT_EQ(queued.size(), 2u);
    EXPECT_EQ(queued[1], (Bytes{5, 14, 0, 4, 4, 3, 2, 1, 'C', 'T', 'X', '1', 0, 0}));
    EXPECT_EQ(logferry::log_level_filters.at(0x01020304), 4);
    const auto& kept = logferry::registered_contexts.at(0x01020304);
    EXPECT_EQ(+kept.context_handle, 0x01020304u);
    EXPECT_EQ(kept.log_level, 4);
    EXPECT_EQ(+kept.length, 14);
}

TEST_F(ClientRegistration, RegisterContextDoesNotLookAtInit)
{
    open_without_receiver();
    ASSERT_TRUE(logferry::register_app("APP1", "application"));
    logferry::init_called = false;
    EXPECT_TRUE(logferry::register_context(2, "CTX2", "context", 3));
    EXPECT_EQ(logferry::registered_contexts.count(2), 1u);
}

TEST_F(ClientRegistration, RepeatedHandleKeepsFirstLevelAndRecordButSendsBoth)
{
    open_without_receiver();
    ASSERT_TRUE(logferry::register_app("APP1", "application"));
    ASSERT_TRUE(logferry::register_context(5, "CTXA", "first", 4));
    ASSERT_TRUE(logferry::register_context(5, "CTXB", "second", 2));

    EXPECT_EQ(logferry::log_level_filters.at(5), 4);
    ASSERT_EQ(logferry::registered_contexts.size(), 1u);
    const auto& kept = logferry::registered_contexts.at(5);
    EXPECT_EQ(kept.log_level, 4);
    EXPECT_EQ(std::string(kept.context_id.data()), "CTXA");
    EXPECT_EQ(std::string(kept.description.data()), "first");

    const auto queued = queued_priority_records();
    ASSERT_EQ(queued.size(), 3u);
    EXPECT_EQ(queued[1], context_record(4, 5, "CTXA", "first"));
    EXPECT_EQ(queued[2], context_record(2, 5, "CTXB", "second"));
}

TEST_F(ClientRegistration, ExistingFilterEntryKeepsItsLevel)
{
    open_without_receiver();
    ASSERT_TRUE(logferry::register_app("APP1", "application"));
    // The query enters an unknown handle with level 0; registration does not overwrite it.
    EXPECT_FALSE(logferry::is_log_level_enabled(9, 3));
    ASSERT_TRUE(logferry::register_context(9, "CTX9", "context", 5));
    EXPECT_EQ(logferry::log_level_filters.at(9), 0);
    EXPECT_EQ(logferry::registered_contexts.at(9).log_level, 5);
}

// ---------------------------------------------------------------------------------------
// unregister_app and unregister_context

TEST_F(ClientRegistration, UnregisterAppPushesRecordAndClearsApplications)
{
    open_without_receiver();
    register_basics(1, 4);
    Daemon_end daemon;
    ASSERT_TRUE(daemon.attached);
    daemon.drain();
    logferry::client.unlock_client_buffer();

    logferry::unregister_app();
    EXPECT_TRUE(logferry::registered_application.empty());
    EXPECT_EQ(logferry::registered_contexts.count(1), 1u);
    EXPECT_EQ(logferry::log_level_filters.count(1), 1u);
    // The ordinary buffer is not locked by it, and the record went there.
    EXPECT_FALSE(logferry::client.is_client_buffer_locked());
    const auto messages = daemon.drain();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0], Bytes{4});
    // Not through the priority path.
    EXPECT_EQ(logferry::priority_message_queue.size(), 2u);
    EXPECT_TRUE(priority_area().empty());
}

TEST_F(ClientRegistration, UnregisterAppWithoutApplicationStillPushes)
{
    open_without_receiver();
    Daemon_end daemon;
    logferry::unregister_app();
    const auto messages = daemon.drain();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0], Bytes{4});
}

TEST_F(ClientRegistration, UnregisterContextOfUnknownHandlePushesAndChangesNothing)
{
    open_without_receiver();
    register_basics(1, 4);
    Daemon_end daemon;
    daemon.drain();

    logferry::unregister_context(0xA1B2C3D4);
    const auto messages = daemon.drain();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0], (Bytes{6, 0xD4, 0xC3, 0xB2, 0xA1}));
    EXPECT_EQ(logferry::registered_application.size(), 1u);
    EXPECT_EQ(logferry::registered_contexts.size(), 1u);
    EXPECT_EQ(logferry::log_level_filters.size(), 1u);
    EXPECT_EQ(logferry::log_level_filters.at(1), 4);
    EXPECT_EQ(logferry::priority_message_queue.size(), 2u);
}

TEST_F(ClientRegistration, UnregisterContextRemovesFilterAndRecord)
{
    open_without_receiver();
    register_basics(1, 4);
    ASSERT_TRUE(logferry::register_context(2, "CTX2", "other", 3));
    Daemon_end daemon;
    daemon.drain();

    logferry::unregister_context(1);
    EXPECT_EQ(logferry::registered_contexts.count(1), 0u);
    EXPECT_EQ(logferry::log_level_filters.count(1), 0u);
    EXPECT_EQ(logferry::registered_contexts.count(2), 1u);
    EXPECT_EQ(logferry::log_level_filters.at(2), 3);
    const auto messages = daemon.drain();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0], (Bytes{6, 1, 0, 0, 0}));
    // log_start refuses the handle from now on.
    EXPECT_FALSE(logferry::log_start(1, 1, 4));
}

// ---------------------------------------------------------------------------------------
// The priority path

TEST_F(ClientRegistration, InactiveConnectionQueuesAtOnceWithoutSleeping)
{
    Fake_system& fake = open_on_fake_clock();

    ASSERT_FALSE(logferry::client.is_connection_active());
    EXPECT_TRUE(logferry::register_app("APP1", "application"));
    EXPECT_TRUE(fake.sleeps_ms().empty());
    EXPECT_EQ(fake.calls(Op::sleep_for_milliseconds), 0);
    EXPECT_EQ(fake.calls(Op::sleep_for_seconds), 0);
    const auto queued = queued_priority_records();
    ASSERT_EQ(queued.size(), 1u);
    EXPECT_EQ(queued[0], app_record("APP1", "application"));
    EXPECT_TRUE(priority_area().empty());
    EXPECT_TRUE(logferry::client.is_client_buffer_locked());
}

TEST_F(ClientRegistration, InactiveConnectionDiscardsWhatThePriorityAreaHolds)
{
    open_without_receiver();
    const Bytes stale = app_record("OLD0", "stale");
    ASSERT_TRUE(logferry::client.push_priority(stale));
    ASSERT_EQ(priority_area(), stale);

    const Bytes record = app_record("NEW0", "new");
    EXPECT_FALSE(logferry::try_send_priority(record, false));
    EXPECT_TRUE(priority_area().empty());
    EXPECT_TRUE(std::all_of(logferry::client.segment->priority_data,
                            logferry::client.segment->priority_data + logferry::PRIORITY_DATA_SIZE,
                            [](unsigned char byte) { return byte == 0; }));
}

TEST_F(ClientRegistration, ActiveConnectionWithEmptyAreaSendsDirectly)
{
    Fake_system& fake = open_on_fake_clock();
    Daemon_end daemon;
    ASSERT_TRUE(daemon.attached);
    ASSERT_TRUE(logferry::client.is_connection_active());

    EXPECT_TRUE(logferry::register_app("APP1", "application"));
    EXPECT_TRUE(fake.sleeps_ms().empty());
    EXPECT_TRUE(logferry::priority_message_queue.empty());
    EXPECT_TRUE(logferry::client.is_client_buffer_locked());
    EXPECT_EQ(daemon.end.pop_priority(), app_record("APP1", "application"));

    EXPECT_TRUE(logferry::register_context(4, "CTX4", "context", 2));
    EXPECT_TRUE(fake.sleeps_ms().empty());
    EXPECT_TRUE(logferry::priority_message_queue.empty());
    EXPECT_EQ(daemon.end.pop_priority(), context_record(2, 4, "CTX4", "context"));
}

TEST_F(ClientRegistration, BusyAreaIsPolledForOneSecondThenQueued)
{
    Fake_system& fake = open_on_fake_clock();
    Daemon_end daemon;
    ASSERT_TRUE(daemon.attached);
    const Bytes occupant = app_record("OCC0", "occupant");
    ASSERT_TRUE(logferry::client.push_priority(occupant));

    EXPECT_TRUE(logferry::register_app("APP1", "application"));
    EXPECT_EQ(fake.sleeps_ms(), std::vector<unsigned int>(20, 50));
    const auto queued = queued_priority_records();
    ASSERT_EQ(queued.size(), 1u);
    EXPECT_EQ(queued[0], app_record("APP1", "application"));
    EXPECT_EQ(priority_area(), occupant);
    EXPECT_EQ(logferry::registered_application.size(), 1u);
    EXPECT_TRUE(logferry::client.is_client_buffer_locked());
}

TEST_F(ClientRegistration, AreaFreedAfterLastSleepIsUsedByTheLastTest)
{
    Fake_system& fake = open_on_fake_clock();
    Daemon_end daemon;
    ASSERT_TRUE(logferry::client.push_priority(app_record("OCC0", "occupant")));

    // The daemon takes the occupant during the 20th sleep: the 21st test finds the area free.
    daemon_takes_at_sleep(daemon, 20);
    const Bytes record = app_record("APP1", "application");
    EXPECT_TRUE(logferry::try_send_priority(record, false));
    fake.on_call(nullptr);
    EXPECT_EQ(fake.sleeps_ms(), std::vector<unsigned int>(20, 50));
    EXPECT_EQ(priority_area(), record);
}

TEST_F(ClientRegistration, AreaFreedEarlyEndsThePolling)
{
    Fake_system& fake = open_on_fake_clock();
    Daemon_end daemon;
    ASSERT_TRUE(logferry::client.push_priority(app_record("OCC0", "occupant")));

    daemon_takes_at_sleep(daemon, 3);
    EXPECT_TRUE(logferry::register_app("APP1", "application"));
    fake.on_call(nullptr);
    EXPECT_EQ(fake.sleeps_ms(), std::vector<unsigned int>(3, 50));
    EXPECT_TRUE(logferry::priority_message_queue.empty());
    EXPECT_EQ(priority_area(), app_record("APP1", "application"));
}

TEST_F(ClientRegistration, PendingRegistrationRefusesUnforcedSends)
{
    Fake_system& fake = open_on_fake_clock();
    Daemon_end daemon;
    logferry::pending_registration = true;

    const Bytes record = app_record("APP1", "application");
    fake.reset_calls();
    EXPECT_FALSE(logferry::try_send_priority(record, false));
    EXPECT_TRUE(priority_area().empty());
    // Refused before the connection is even looked at.
    EXPECT_EQ(fake.calls(Op::clock_gettime), 0);

    EXPECT_TRUE(logferry::register_app("APP1", "application"));
    EXPECT_EQ(logferry::priority_message_queue.size(), 1u);
    EXPECT_TRUE(priority_area().empty());
    EXPECT_TRUE(fake.sleeps_ms().empty());

    // The receiver thread's replay forces its sends through.
    EXPECT_TRUE(logferry::try_send_priority(record, true));
    EXPECT_EQ(priority_area(), record);
}

TEST_F(ClientRegistration, QueuedRecordsAreNeverOvertaken)
{
    open_without_receiver();
    // Queued while no daemon is attached.
    ASSERT_TRUE(logferry::register_app("APP1", "application"));
    ASSERT_EQ(logferry::priority_message_queue.size(), 1u);

    // Now the daemon is there and the area is free, but a record is waiting: the new one
    // queues behind it.
    Daemon_end daemon;
    ASSERT_TRUE(logferry::client.is_connection_active());
    ASSERT_TRUE(logferry::register_context(1, "CTX1", "context", 4));
    EXPECT_TRUE(priority_area().empty());
    const auto queued = queued_priority_records();
    ASSERT_EQ(queued.size(), 2u);
    EXPECT_EQ(queued[0], app_record("APP1", "application"));
    EXPECT_EQ(queued[1], context_record(4, 1, "CTX1", "context"));
}

TEST_F(ClientRegistration, IsPendingPriorityQueueEmpty)
{
    open_without_receiver();
    EXPECT_TRUE(logferry::is_pending_priority_queue_empty());
    ASSERT_TRUE(logferry::register_app("APP1", "application"));
    EXPECT_FALSE(logferry::is_pending_priority_queue_empty());
}

TEST_F(ClientRegistration, ConcurrentRegistrationsAreAllKept)
{
    open_without_receiver();
    ASSERT_TRUE(logferry::register_app("APP1", "application"));
    constexpr int threads = 4;
    constexpr int per_thread = 50;
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([t] {
            for (int i = 0; i < per_thread; ++i) {
                const std::uint32_t handle = static_cast<std::uint32_t>(t * 1000 + i);
                EXPECT_TRUE(logferry::register_context(handle, "CTXC", "concurrent", static_cast<std::uint8_t>(i % 7)));
                logferry::is_log_level_enabled(handle, 3);
            }
        });
    }
    for (auto& worker : workers) {
        worker.join();
    }
    EXPECT_EQ(logferry::registered_contexts.size(), static_cast<std::size_t>(threads * per_thread));
    EXPECT_EQ(logferry::log_level_filters.size(), static_cast<std::size_t>(threads * per_thread));
    EXPECT_EQ(logferry::priority_message_queue.size(), static_cast<std::size_t>(1 + threads * per_thread));
    for (int t = 0; t < threads; ++t) {
        for (int i = 0; i < per_thread; ++i) {
            const std::uint32_t handle = static_cast<std::uint32_t>(t * 1000 + i);
            EXPECT_EQ(logferry::log_level_filters.at(handle), i % 7);
        }
    }
}

// ---------------------------------------------------------------------------------------
// Level-filter and stream queries

class ClientFilters : public Client_test {};

TEST_F(ClientFilters, LevelZeroIsNeverEnabled)
{
    open_without_receiver();
    register_basics(1, 6);
    EXPECT_FALSE(logferry::is_log_level_enabled(1, 0));
    EXPECT_FALSE(logferry::is_log_level_enabled(12345, 0));
    // Level 0 is refused before the table is looked at: nothing is entered.
    EXPECT_EQ(logferry::log_level_filters.count(12345), 0u);
}

TEST_F(ClientFilters, LevelAboveSixIsFalseWithoutTouchingTheTable)
{
    open_without_receiver();
    register_basics(1, 6);
    EXPECT_FALSE(logferry::is_log_level_enabled(1, 7));
    EXPECT_FALSE(logferry::is_log_level_enabled(1, 255));
    EXPECT_FALSE(logferry::is_log_level_enabled(999, 7));
    EXPECT_EQ(logferry::log_level_filters.count(999), 0u);
    // Nor is the mutex taken.
    std::lock_guard<std::mutex> held(logferry::filters_mutex);
    EXPECT_FALSE(logferry::is_log_level_enabled(1, 9));
}

TEST_F(ClientFilters, DefaultLevelInfoEnablesFatalToInfo)
{
    open_without_receiver();
    register_basics(1, 4);
    for (unsigned char level = 1; level <= 4; ++level) {
        EXPECT_TRUE(logferry::is_log_level_enabled(1, level)) << int(level);
    }
    EXPECT_FALSE(logferry::is_log_level_enabled(1, 5));
    EXPECT_FALSE(logferry::is_log_level_enabled(1, 6));
}

TEST_F(ClientFilters, UnknownHandleIsDisabledAndEnteredWithLevelZero)
{
    EXPECT_FALSE(logferry::is_log_level_enabled(4242, 1));
    ASSERT_EQ(logferry::log_level_filters.count(4242), 1u);
    EXPECT_EQ(logferry::log_level_filters.at(4242), 0);
    EXPECT_FALSE(logferry::is_log_level_enabled(4242, 6));
    EXPECT_EQ(logferry::log_level_filters.size(), 1u);
}

TEST_F(ClientFilters, FilterFollowsTheTable)
{
    {
        std::lock_guard<std::mutex> lock(logferry::filters_mutex);
        logferry::log_level_filters[42] = 6;
    }
    EXPECT_TRUE(logferry::is_log_level_enabled(42, 6));
    {
        std::lock_guard<std::mutex> lock(logferry::filters_mutex);
        logferry::log_level_filters[42] = 2;
    }
    EXPECT_TRUE(logferry::is_log_level_enabled(42, 2));
    EXPECT_FALSE(logferry::is_log_level_enabled(42, 3));
}
