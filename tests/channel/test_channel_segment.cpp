// The channel segment: layout, creation, attachment, teardown and every failure of init.
#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "logferry/channel.hpp"
#include "support/diagnostics.hpp"
#include "support/fake_system.hpp"
#include "support/robust_list.hpp"
#include "support/test_util.hpp"

using logferry::Channel_segment;
using logferry::Logferry_base;
using logferry::Logferry_client;
using logferry_test::all_zero;
using logferry_test::diagnostic;
using logferry_test::error_while;
using logferry_test::Fake_system;
using logferry_test::Op;
using logferry_test::Scoped_system;

namespace {

// An application end named for the running test.
void name_for_test(Logferry_client& client, const std::string& suffix = "")
{
    client.set_app_identifier(logferry_test::unique_id(suffix));
}

}  // namespace

TEST(ChannelSegment, LayoutIsFixedOnEveryPlatform)
{
    EXPECT_EQ(sizeof(Channel_segment), 166072u);
    EXPECT_EQ(offsetof(Channel_segment, priority_size), 2048u);
    EXPECT_EQ(offsetof(Channel_segment, priority_mutex), 2056u);
    EXPECT_EQ(offsetof(Channel_segment, client_watchdog), 2104u);
    EXPECT_EQ(offsetof(Channel_segment, client_read_index), 2112u);
    EXPECT_EQ(offsetof(Channel_segment, client_write_index), 2116u);
    EXPECT_EQ(offsetof(Channel_segment, client_mutex), 2120u);
    EXPECT_EQ(offsetof(Channel_segment, client_buffer), 2168u);
    EXPECT_EQ(offsetof(Channel_segment, client_buffer_locked), 133239u);
    EXPECT_EQ(offsetof(Channel_segment, server_watchdog), 133240u);
    EXPECT_EQ(offsetof(Channel_segment, server_read_index), 133248u);
    EXPECT_EQ(offsetof(Channel_segment, server_write_index), 133252u);
    EXPECT_EQ(offsetof(Channel_segment, server_mutex), 133256u);
    EXPECT_EQ(offsetof(Channel_segment, server_buffer), 133304u);
    EXPECT_LE(sizeof(pthread_mutex_t), 48u);
}

TEST(ChannelSegment, DefaultEnds)
{
    Logferry_client client;
    EXPECT_TRUE(client.filename.empty());
    EXPECT_TRUE(client.app_identifier.empty());
    EXPECT_FALSE(client.initialized);
    EXPECT_TRUE(client.client_side);
    EXPECT_TRUE(client.owner);
    EXPECT_EQ(client.lost_messages.load(), 0u);
    EXPECT_EQ(static_cast<void*>(client.segment), MAP_FAILED);

    Logferry_base daemon;
    EXPECT_FALSE(daemon.client_side);
    EXPECT_FALSE(daemon.owner);
    EXPECT_FALSE(daemon.is_initialized());
    EXPECT_EQ(static_cast<void*>(daemon.segment), MAP_FAILED);
}

TEST(ChannelSegment, NameIsPrefixPlusIdentifier)
{
    Logferry_client client;
    client.set_app_identifier("APP1-34567-bebc20");
    client.set_filename();
    EXPECT_EQ(client.get_filename(), "/logferry-APP1-34567-bebc20");
    EXPECT_EQ(client.app_identifier, "APP1-34567-bebc20");
}

TEST(ChannelSegment, FreshSegmentReadsAsSpecifiedAfterCreation)
{
    Fake_system fake;
    Scoped_system installed(&fake);
    fake.set_time(4242, 999999999);
    Logferry_client client;
    name_for_test(client);
    ASSERT_EQ(logferry_test::capture_stderr([&] { ASSERT_TRUE(client.init()); }), "");
    EXPECT_TRUE(client.is_initialized());
    EXPECT_TRUE(logferry_test::shm_exists(client.get_filename()));

    struct stat info {};
    ASSERT_EQ(::stat(("/dev/shm" + client.get_filename()).c_str(), &info), 0);
    EXPECT_EQ(info.st_size, 166072);
    const mode_t mask = ::umask(0);
    ::umask(mask);
    EXPECT_EQ(info.st_mode & 0777, 0660u & ~static_cast<unsigned>(mask));
    EXPECT_EQ(info.st_gid, 1051u);

    Channel_segment* s = client.segment;
    EXPECT_EQ(s->priority_size, 0);
    EXPECT_TRUE(all_zero(s->priority_data, sizeof s->priority_data));
    EXPECT_EQ(s->client_read_index, 0u);
    EXPECT_EQ(s->client_write_index, 0u);
    EXPECT_EQ(s->server_read_index, 0u);
    EXPECT_EQ(s->server_write_index, 0u);
    EXPECT_TRUE(all_zero(s->client_buffer, sizeof s->client_buffer));
    EXPECT_TRUE(all_zero(s->server_buffer, sizeof s->server_buffer));
    EXPECT_EQ(s->client_buffer_locked, 1);
    EXPECT_EQ(s->client_watchdog, 4242);
    EXPECT_EQ(s->server_watchdog, 0);

    const std::string name = client.get_filename();
    client.uninit();
    EXPECT_FALSE(client.is_initialized());
    EXPECT_EQ(static_cast<void*>(client.segment), MAP_FAILED);
    EXPECT_FALSE(logferry_test::shm_exists(name));
    EXPECT_EQ(logferry_test::count_mappings(name), 0);
}

TEST(ChannelSegment, MutexesAreSetUpInOrderEachWithItsOwnAttributes)
{
    Fake_system fake;
    Scoped_system installed(&fake);
    std::vector<Op> sequence;
    fake.on_call([&](Op op) {
        if (op >= Op::pthread_mutexattr_init && op <= Op::pthread_mutex_init) {
            sequence.push_back(op);
        }
    });
    Logferry_client client;
    name_for_test(client);
    ASSERT_TRUE(client.init());
    fake.on_call(nullptr);
    const std::vector<Op> one = {Op::pthread_mutexattr_init,       Op::pthread_mutexattr_settype,
                                 Op::pthread_mutexattr_setpshared, Op::pthread_mutexattr_setrobust,
                                 Op::pthread_mutex_init,           Op::pthread_mutexattr_destroy};
    std::vector<Op> expected;
    for (int i = 0; i < 3; ++i) {
        expected.insert(expected.end(), one.begin(), one.end());
    }
    EXPECT_EQ(sequence, expected);
    client.uninit();
}

TEST(ChannelSegment, MutexesAreRobustAndShared)
{
    LOGFERRY_REQUIRE_ROBUST_LIST();
    Logferry_client client;
    name_for_test(client);
    ASSERT_TRUE(client.init());
    Channel_segment* s = client.segment;
    pthread_mutex_t* mutexes[] = {&s->priority_mutex.mutex, &s->client_mutex.mutex, &s->server_mutex.mutex};
    for (pthread_mutex_t* mutex : mutexes) {
        // A child locks and dies; this process then sees the owner's death.
        const int child = logferry_test::fork_child([&] { return ::pthread_mutex_lock(mutex) == 0 ? 0 : 1; });
        const int status = logferry_test::wait_child(child);
        ASSERT_TRUE(WIFEXITED(status));
        ASSERT_EQ(WEXITSTATUS(status), 0);
        EXPECT_EQ(::pthread_mutex_lock(mutex), EOWNERDEAD);
        EXPECT_EQ(::pthread_mutex_consistent(mutex), 0);
        EXPECT_EQ(::pthread_mutex_unlock(mutex), 0);
    }
    client.uninit();
}

TEST(ChannelSegment, EmptyIdentifierGivesThePlainPrefix)
{
    Logferry_client client;
    ASSERT_TRUE(client.init());
    EXPECT_EQ(client.get_filename(), "/logferry-");
    EXPECT_TRUE(logferry_test::shm_exists("/logferry-"));
    client.uninit();
    EXPECT_FALSE(logferry_test::shm_exists("/logferry-"));
}

TEST(ChannelSegment, AttachingWithAnEmptyNameFailsAndClearsOwner)
{
    Logferry_client end;  // even an end that was the owner
    std::string output = logferry_test::capture_stderr([&] { EXPECT_FALSE(end.init(std::string())); });
    EXPECT_EQ(output, diagnostic("initialization call with empty file name."));
    EXPECT_FALSE(end.owner);
    EXPECT_FALSE(end.is_initialized());

    Logferry_base daemon;
    output = logferry_test::capture_stderr([&] { EXPECT_FALSE(daemon.init()); });
    EXPECT_EQ(output, diagnostic("initialization call with empty file name."));
}

TEST(ChannelSegment, SecondInitReturnsTrueWithoutTouchingTheSegment)
{
    Fake_system fake;
    Scoped_system installed(&fake);
    Logferry_client client;
    name_for_test(client);
    ASSERT_TRUE(client.init());
    Channel_segment* mapped = client.segment;
    mapped->client_write_index = 77;  // would be lost by a re-creation
    fake.reset_calls();
    EXPECT_TRUE(client.init());
    EXPECT_TRUE(client.init(std::string("/elsewhere")));
    EXPECT_EQ(fake.calls_made(), "");
    EXPECT_EQ(client.segment, mapped);
    EXPECT_EQ(client.segment->client_write_index, 77u);
    EXPECT_TRUE(client.owner);
    client.uninit();
}

TEST(ChannelSegment, DaemonEndAttachesAndStampsItsWatchdog)
{
    Fake_system fake;
    Scoped_system installed(&fake);
    fake.set_time(100);
    Logferry_client client;
    name_for_test(client);
    ASSERT_TRUE(client.init());

    fake.set_time(103);
    Logferry_base daemon;
    ASSERT_EQ(logferry_test::capture_stderr([&] { ASSERT_TRUE(daemon.init(client.get_filename())); }), "");
    EXPECT_FALSE(daemon.owner);
    EXPECT_EQ(daemon.get_filename(), client.get_filename());
    EXPECT_EQ(daemon.segment->server_watchdog, 103);
    EXPECT_EQ(daemon.segment->client_watchdog, 100);
    // Same memory at both ends; the daemon neither re-creates nor clears it.
    EXPECT_EQ(daemon.segment->client_buffer_locked, 1);
    client.segment->client_buffer[5] = 0xAB;
    EXPECT_EQ(daemon.segment->client_buffer[5], 0xAB);
    EXPECT_EQ(fake.calls(Op::ftruncate), 1);  // only the creator sized it

    daemon.uninit();
    EXPECT_EQ(client.segment->server_watchdog, 0);  // the daemon's leaving shows at once
    EXPECT_EQ(client.segment->client_watchdog, 100);
    client.uninit();
}

TEST(ChannelSegment, ApplicationLeavingClearsItsWatchdog)
{
    Logferry_client client;
    name_for_test(client);
    ASSERT_TRUE(client.init());
    Logferry_base daemon;
    ASSERT_TRUE(daemon.init(client.get_filename()));
    EXPECT_NE(daemon.segment->client_watchdog, 0);
    client.uninit();
    EXPECT_EQ(daemon.segment->client_watchdog, 0);  // the mapping outlives the unlink
    daemon.uninit();
}

TEST(ChannelSegment, DaemonUninitLeavesTheObjectUnlessItTookOwnership)
{
    Logferry_client client;
    name_for_test(client);
    ASSERT_TRUE(client.init());
    const std::string name = client.get_filename();
    Logferry_base daemon;
    ASSERT_TRUE(daemon.init(name));
    daemon.uninit();
    EXPECT_TRUE(logferry_test::shm_exists(name));
    EXPECT_EQ(static_cast<void*>(daemon.segment), MAP_FAILED);

    ASSERT_TRUE(daemon.init(name));
    daemon.take_ownership();
    EXPECT_TRUE(daemon.owner);
    daemon.uninit();
    EXPECT_FALSE(logferry_test::shm_exists(name));
    client.uninit();  // its own unlink now finds nothing; harmless
    EXPECT_FALSE(logferry_test::shm_exists(name));
}

TEST(ChannelSegment, AttachingToAMissingSegmentFails)
{
    Logferry_base daemon;
    const std::string name = "/logferry-" + logferry_test::unique_id("missing");
    const std::string output = logferry_test::capture_stderr([&] { EXPECT_FALSE(daemon.init(name)); });
    EXPECT_EQ(output, error_while("opening the shared memory", ENOENT));
    EXPECT_FALSE(daemon.is_initialized());
    EXPECT_FALSE(logferry_test::shm_exists(name));  // the daemon's end never creates
}

TEST(ChannelSegment, StaleSegmentOfTheSameNameIsReplaced)
{
    Logferry_client client;
    name_for_test(client);
    client.set_filename();
    const std::string name = client.get_filename();
    const int fd = ::shm_open(name.c_str(), O_CREAT | O_RDWR, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::ftruncate(fd, 4096), 0);
    ASSERT_EQ(::write(fd, "stale", 5), 5);
    struct stat before {};
    ASSERT_EQ(::fstat(fd, &before), 0);
    ::close(fd);

    ASSERT_TRUE(client.init());
    struct stat after {};
    ASSERT_EQ(::stat(("/dev/shm" + name).c_str(), &after), 0);
    EXPECT_NE(after.st_ino, before.st_ino);
    EXPECT_EQ(after.st_size, 166072);
    EXPECT_EQ(client.segment->priority_data[0], 0);
    client.uninit();
    EXPECT_FALSE(logferry_test::shm_exists(name));
}

TEST(ChannelSegment, UninitOfAnUnmappedEndDoesNothing)
{
    Fake_system fake;
    Scoped_system installed(&fake);
    Logferry_client client;
    client.uninit();
    client.uninit_shm();
    Logferry_base daemon;
    daemon.uninit();
    EXPECT_EQ(fake.calls_made(), "");
}

TEST(ChannelSegment, ClientDestructorClosesAndUnlinks)
{
    std::string name;
    {
        Logferry_client client;
        name_for_test(client);
        ASSERT_TRUE(client.init());
        name = client.get_filename();
        EXPECT_EQ(logferry_test::count_mappings(name), 1);
    }
    EXPECT_FALSE(logferry_test::shm_exists(name));
    EXPECT_EQ(logferry_test::count_mappings(name), 0);
}

TEST(ChannelSegment, BaseDestructorNeitherUnmapsNorUnlinks)
{
    Logferry_client client;
    name_for_test(client);
    ASSERT_TRUE(client.init());
    Channel_segment* kept = nullptr;
    {
        Logferry_base daemon;
        ASSERT_TRUE(daemon.init(client.get_filename()));
        daemon.take_ownership();
        kept = daemon.segment;
    }
    EXPECT_TRUE(logferry_test::shm_exists(client.get_filename()));
    EXPECT_EQ(logferry_test::count_mappings(client.get_filename()), 2);
    ::munmap(kept, logferry::CHANNEL_SEGMENT_SIZE);
    client.uninit();
}

TEST(ChannelSegment, DaemonEndFailuresAreReportedAndRecoverable)
{
    Fake_system fake;
    Scoped_system installed(&fake);
    Logferry_client client;
    name_for_test(client);
    ASSERT_TRUE(client.init());
    const int fds_before = logferry_test::count_open_fds();

    Logferry_base daemon;
    fake.fail(Op::shm_open, -1, EMFILE);
    std::string output = logferry_test::capture_stderr([&] { EXPECT_FALSE(daemon.init(client.get_filename())); });
    EXPECT_EQ(output, error_while("opening the shared memory", EMFILE));
    EXPECT_FALSE(daemon.is_initialized());

    fake.fail(Op::mmap, -1, ENOMEM);
    output = logferry_test::capture_stderr([&] { EXPECT_FALSE(daemon.init(client.get_filename())); });
    EXPECT_EQ(output, error_while("mapping the shared memory", ENOMEM));
    EXPECT_EQ(static_cast<void*>(daemon.segment), MAP_FAILED);
    EXPECT_EQ(logferry_test::count_mappings(client.get_filename()), 1);  // the application's only
    EXPECT_EQ(logferry_test::count_open_fds(), fds_before);
    EXPECT_EQ(fake.calls(Op::ftruncate), 1);  // attaching never resizes
    EXPECT_EQ(fake.calls(Op::chown), 1);      // nor changes the owner

    EXPECT_TRUE(daemon.init(client.get_filename()));  // the name was kept for the retry
    daemon.uninit();
    client.uninit();
}
