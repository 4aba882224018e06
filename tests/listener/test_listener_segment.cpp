// The listener segment and the daemon's lock file: layout, construction, init and uninit on
// both ends, the lock-file fallback, and every failure of the set-up.
//
// The daemon's lockf lock only shows as held to another process, so wherever an application
// needs a live daemon, a forked child plays the daemon.
#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "logferry/listener.hpp"
#include "support/diagnostics.hpp"
#include "support/fake_system.hpp"
#include "support/listener_checks.hpp"
#include "support/listener_daemon.hpp"
#include "support/runstate_dir.hpp"
#include "support/test_util.hpp"

using logferry::Listener_entry;
using logferry::Listener_segment;
using logferry::Logferry_listener;
using namespace logferry_test;

namespace {

// The test's own run-state directory, with nothing under the listener's fixed names at the
// start. Without "ara_DLT" in it the listener falls back to the lock file under /tmp, which is
// removed as well. Whatever a test leaves behind is cleaned up; leftover files make the test
// fail.
class Listener_runstate {
public:
    explicit Listener_runstate(bool with_ara_dlt = true) : dir_(with_ara_dlt), fallback_(!with_ara_dlt)
    {
        ::shm_unlink(LISTENER_SEGMENT);  // a stale segment of an earlier, aborted run
        if (fallback_) {
            ::unlink(FALLBACK_LOCK_FILE);
        }
    }

    ~Listener_runstate()
    {
        ::unlink(default_lock().c_str());
        if (fallback_) {
            ::unlink(FALLBACK_LOCK_FILE);
        }
        const std::vector<std::string> left = dir_.contents();
        EXPECT_TRUE(left.empty() || left == std::vector<std::string>{"ara_DLT"}) << "something was left in " << root();
        ::shm_unlink(LISTENER_SEGMENT);
    }

    Listener_runstate(const Listener_runstate&) = delete;
    Listener_runstate& operator=(const Listener_runstate&) = delete;

    const std::string& root() const { return dir_.root(); }
    std::string ara_dlt() const { return dir_.ara_dlt(); }
    std::string default_lock() const { return dir_.lock_file(); }

private:
    logferry_test::Runstate_dir dir_;
    bool fallback_;
};

// Creates a lock file that nobody locks (a daemon that is gone).
void create_file(const std::string& path)
{
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT, 0660);
    ASSERT_GE(fd, 0) << path;
    ::close(fd);
}

bool is_mapped(const Logferry_listener& listener) { return listener.segment != MAP_FAILED; }

mode_t current_umask()
{
    const mode_t mask = ::umask(0);
    ::umask(mask);
    return mask;
}

}  // namespace

// The test's run-state directory, and the fake system installed for the test's lifetime.
class ListenerSegmentOnFakeSystem : public ::testing::Test {
protected:
    Listener_runstate dir;
    Fake_system fake;

private:
    Scoped_system installed_{&fake};
};

TEST(ListenerSegment, LayoutMatchesTheSharedFormat)
{
    EXPECT_EQ(logferry::LISTENER_SEGMENT_SIZE, 1144u);
    EXPECT_EQ(logferry::LISTENER_ENTRY_COUNT, 32u);
    EXPECT_EQ(logferry::LISTENER_NAME_SIZE, 32u);
    EXPECT_EQ(sizeof(Listener_entry), 34u);
    EXPECT_EQ(sizeof(Listener_segment), 1144u);

    // Every field lands on its byte offset in a raw buffer.
    alignas(8) unsigned char raw[1144] = {};
    Listener_segment* segment = reinterpret_cast<Listener_segment*>(raw);
    segment->entries[5].channel_name[0] = 'a';
    segment->entries[5].channel_name[31] = 'z';
    segment->entries[5].picked_up = 1;
    segment->entries[31].watchdog_reset = 1;
    segment->read_index = 7;
    segment->write_index = 9;
    EXPECT_EQ(raw[34 * 5], 'a');
    EXPECT_EQ(raw[34 * 5 + 31], 'z');
    EXPECT_EQ(raw[34 * 5 + 32], 1);
    EXPECT_EQ(raw[34 * 31 + 33], 1);
    EXPECT_EQ(reinterpret_cast<unsigned char*>(&segment->list_mutex.mutex) - raw, 1088);
    EXPECT_EQ(raw[1136], 7);
    EXPECT_EQ(raw[1137], 9);
    EXPECT_EQ(reinterpret_cast<unsigned char*>(segment->reserved) - raw, 1138);
}

TEST_F(ListenerSegmentOnFakeSystem, ConstructionSetsDefaultsWithoutSystemCalls)
{
    {
        Logferry_listener application(false);
        Logferry_listener daemon(true);
        EXPECT_EQ(application.lock_file.fd, -1);
        EXPECT_EQ(application.segment, MAP_FAILED);
        EXPECT_FALSE(application.listening);
        EXPECT_FALSE(application.initialized);
        EXPECT_EQ(application.own_entry, -1);
        EXPECT_EQ(application.unacknowledged_checks, 0);
        EXPECT_EQ(application.proxy_watchdogs, nullptr);
        EXPECT_EQ(application.lock_listener_name, dir.default_lock());
        EXPECT_FALSE(application.is_initialized());
        EXPECT_FALSE(application.is_listening());
        EXPECT_TRUE(daemon.is_listening());
        EXPECT_EQ(daemon.lock_listener_name, dir.default_lock());
        daemon.disable_listening();
        EXPECT_FALSE(daemon.is_listening());
    }
    EXPECT_EQ(fake.calls_made(), "");
}

TEST(ListenerSegment, DaemonInitCreatesAZeroSegmentAndHoldsTheLock)
{
    Listener_runstate dir;
    const int fds_before = count_open_fds();
    {
        Logferry_listener daemon(true);
        ASSERT_TRUE(succeeds_saying("", [&] { return daemon.init(); }));
        EXPECT_TRUE(daemon.is_initialized());
        ASSERT_TRUE(is_mapped(daemon));
        EXPECT_EQ(daemon.own_entry, -1);

        // A fresh segment: 32 free entries, both indices 0.
        EXPECT_TRUE(entries_and_indices_zero(daemon.segment));
        for (const Listener_entry& entry : daemon.segment->entries) {
            EXPECT_EQ(entry.channel_name[0], 0);
            EXPECT_EQ(entry.picked_up, 0);
            EXPECT_EQ(entry.watchdog_reset, 0);
        }
        EXPECT_EQ(daemon.segment->read_index, 0);
        EXPECT_EQ(daemon.segment->write_index, 0);

        // The segment file: size, mode and the logging group.
        struct stat info {};
        ASSERT_EQ(::stat((std::string("/dev/shm") + LISTENER_SEGMENT).c_str(), &info), 0);
        EXPECT_EQ(info.st_size, 1144);
        EXPECT_EQ(info.st_mode & 0777, 0660 & ~current_umask());
        if (::geteuid() == 0) {
            EXPECT_EQ(info.st_gid, 1051u);
        }
        EXPECT_EQ(count_mappings(LISTENER_SEGMENT), 1);

        // The lock file, held locked; the segment descriptor is closed already.
        ASSERT_TRUE(path_exists(dir.default_lock()));
        ASSERT_GE(daemon.lock_file.fd, 0);
        EXPECT_TRUE(lock_held_by_other_process(daemon.lock_file));
        EXPECT_EQ(count_open_fds(), fds_before + 1);

        // The proxy watchdogs, all unarmed.
        ASSERT_NE(daemon.proxy_watchdogs, nullptr);
        for (std::uint32_t i = 0; i < logferry::LISTENER_ENTRY_COUNT; ++i) {
            EXPECT_EQ(daemon.proxy_watchdogs[i], 0);
        }

        // The mutex works across processes.
        {
            logferry::Mutex_lock_guard lock(&daemon.segment->list_mutex.mutex, false);
        }

        // uninit removes the segment and the lock file but keeps the lock.
        daemon.uninit();
        EXPECT_FALSE(daemon.is_initialized());
        EXPECT_EQ(daemon.segment, MAP_FAILED);
        EXPECT_EQ(daemon.proxy_watchdogs, nullptr);
        EXPECT_EQ(count_mappings(LISTENER_SEGMENT), 0);
        EXPECT_FALSE(shm_exists(LISTENER_SEGMENT));
        EXPECT_FALSE(path_exists(dir.default_lock()));
        ASSERT_GE(daemon.lock_file.fd, 0);
        EXPECT_TRUE(lock_held_by_other_process(daemon.lock_file));
    }
    EXPECT_EQ(count_open_fds(), fds_before);
}

TEST(ListenerSegment, DestroyingTheDaemonReleasesTheLock)
{
    Listener_runstate dir;
    const int fds_before = count_open_fds();
    int observer = -1;
    {
        Logferry_listener daemon(true);
        ASSERT_TRUE(daemon.init());
        // Without listening, neither uninit nor the destructor removes the files.
        daemon.disable_listening();
        observer = ::open(dir.default_lock().c_str(), O_RDONLY);
        ASSERT_GE(observer, 0);
        EXPECT_TRUE(lock_held_by_other_process(observer));
    }
    EXPECT_TRUE(shm_exists(LISTENER_SEGMENT));
    EXPECT_TRUE(path_exists(dir.default_lock()));
    EXPECT_EQ(count_mappings(LISTENER_SEGMENT), 0);
    EXPECT_FALSE(lock_held_by_other_process(observer));
    ::close(observer);
    EXPECT_EQ(count_open_fds(), fds_before);
    EXPECT_EQ(::shm_unlink(LISTENER_SEGMENT), 0);
    EXPECT_EQ(::unlink(dir.default_lock().c_str()), 0);
}

TEST(ListenerSegment, DestructorOfAnInitialisedDaemonRemovesEverything)
{
    Listener_runstate dir;
    const int fds_before = count_open_fds();
    {
        Logferry_listener daemon(true);
        ASSERT_TRUE(daemon.init());
        ASSERT_TRUE(shm_exists(LISTENER_SEGMENT));
    }
    EXPECT_FALSE(shm_exists(LISTENER_SEGMENT));
    EXPECT_FALSE(path_exists(dir.default_lock()));
    EXPECT_EQ(count_mappings(LISTENER_SEGMENT), 0);
    EXPECT_EQ(count_open_fds(), fds_before);
}

TEST_F(ListenerSegmentOnFakeSystem, InitOnAnInitialisedObjectMakesNoSystemCall)
{
    Logferry_listener daemon(true);
    ASSERT_TRUE(daemon.init());
    daemon.own_entry = 4;
    daemon.unacknowledged_checks = 9;
    fake.reset_calls();
    EXPECT_TRUE(daemon.init());
    EXPECT_EQ(fake.calls_made(), "");
    // Nothing was reset either.
    EXPECT_EQ(daemon.own_entry, 4);
    EXPECT_EQ(daemon.unacknowledged_checks, 9);
}

TEST(ListenerSegment, InitResetsTheOwnEntryAndTheCheckCount)
{
    Listener_runstate dir;
    Logferry_listener application(false);
    application.own_entry = 12;
    application.unacknowledged_checks = 50;
    EXPECT_FALSE(application.init());  // no daemon: fails, but resets first
    EXPECT_EQ(application.own_entry, -1);
    EXPECT_EQ(application.unacknowledged_checks, 0);

    Logferry_listener daemon(true);
    daemon.own_entry = 3;
    daemon.unacknowledged_checks = 7;
    ASSERT_TRUE(daemon.init());
    EXPECT_EQ(daemon.own_entry, -1);
    EXPECT_EQ(daemon.unacknowledged_checks, 0);
}

TEST(ListenerSegment, DaemonCanInitAgainAfterUninit)
{
    Listener_runstate dir;
    const int fds_before = count_open_fds();
    {
        Logferry_listener daemon(true);
        ASSERT_TRUE(daemon.init());
        daemon.segment->entries[0].channel_name[0] = 'x';
        daemon.uninit();
        ASSERT_TRUE(daemon.init());
        // A new, zero segment; the old lock descriptor was replaced, not leaked.
        EXPECT_TRUE(entries_and_indices_zero(daemon.segment));
        EXPECT_TRUE(path_exists(dir.default_lock()));
        EXPECT_TRUE(lock_held_by_other_process(daemon.lock_file));
        EXPECT_EQ(count_open_fds(), fds_before + 1);
        EXPECT_EQ(count_mappings(LISTENER_SEGMENT), 1);
    }
    EXPECT_FALSE(shm_exists(LISTENER_SEGMENT));
    EXPECT_EQ(count_open_fds(), fds_before);
}

// Whether process `pid` waits for a POSIX lock (a "->" line of /proc/locks).
bool blocked_on_lock(int pid)
{
    std::ifstream locks("/proc/locks");
    const std::string needle = " " + std::to_string(pid) + " ";
    std::string line;
    while (std::getline(locks, line)) {
        if (line.find("->") != std::string::npos && line.find(needle) != std::string::npos) {
            return true;
        }
    }
    return false;
}

TEST(ListenerSegment, SecondDaemonWaitsForTheLock)
{
    Listener_runstate dir;
    std::unique_ptr<Logferry_listener> first(new Logferry_listener(true));
    ASSERT_TRUE(first->init());

    Listener_daemon_child second;
    ASSERT_TRUE(second.launch());
    // The second daemon blocks in lockf for as long as the first one runs.
    ASSERT_TRUE(wait_until([&] { return blocked_on_lock(second.pid()); }));
    EXPECT_FALSE(second.reported_within(std::chrono::milliseconds(100)));

    first.reset();  // closing the lock file releases the lock
    EXPECT_TRUE(second.wait_ready());
    EXPECT_TRUE(shm_exists(LISTENER_SEGMENT));
    EXPECT_TRUE(exited_cleanly(second.stop()));
    EXPECT_FALSE(shm_exists(LISTENER_SEGMENT));
}

TEST_F(ListenerSegmentOnFakeSystem, ApplicationWithoutLockFileFailsSilently)
{
    const int fds_before = count_open_fds();
    Logferry_listener application(false);
    EXPECT_TRUE(fails_saying("", [&] { return application.init(); }));
    EXPECT_FALSE(application.is_initialized());
    EXPECT_EQ(application.lock_file.fd, -1);
    EXPECT_EQ(fake.calls(Op::open), 1);
    EXPECT_EQ(fake.calls(Op::lockf), 0);
    EXPECT_EQ(fake.calls(Op::shm_open), 0);
    EXPECT_EQ(count_open_fds(), fds_before);
    EXPECT_FALSE(path_exists(dir.default_lock()));  // the application creates nothing
}

TEST_F(ListenerSegmentOnFakeSystem, ApplicationWithUnlockedLockFileFailsSilently)
{
    create_file(dir.default_lock());  // a daemon ran once and is gone
    const int fds_before = count_open_fds();
    Logferry_listener application(false);
    EXPECT_TRUE(fails_saying("", [&] { return application.init(); }));
    EXPECT_EQ(application.lock_file.fd, -1);
    EXPECT_EQ(fake.calls(Op::lockf), 1);
    EXPECT_EQ(fake.calls(Op::close), 1);
    EXPECT_EQ(fake.calls(Op::shm_open), 0);
    EXPECT_EQ(count_open_fds(), fds_before);
    EXPECT_TRUE(path_exists(dir.default_lock()));
}

TEST(ListenerSegment, ApplicationMapsTheSegmentWhileTheDaemonHoldsTheLock)
{
    Listener_runstate dir;
    Listener_daemon_child daemon;
    ASSERT_TRUE(daemon.launch());
    ASSERT_TRUE(daemon.wait_ready());

    Fake_system fake;
    Scoped_system installed(&fake);
    const int fds_before = count_open_fds();
    {
        Logferry_listener application(false);
        ASSERT_TRUE(succeeds_saying("", [&] { return application.init(); }));
        EXPECT_TRUE(application.is_initialized());
        ASSERT_TRUE(is_mapped(application));
        EXPECT_TRUE(entries_and_indices_zero(application.segment));
        EXPECT_EQ(application.proxy_watchdogs, nullptr);
        // Both the lock file and the segment descriptor are closed again.
        EXPECT_EQ(application.lock_file.fd, -1);
        EXPECT_EQ(fake.calls(Op::open), 1);
        EXPECT_EQ(fake.calls(Op::close), 2);
        EXPECT_EQ(fake.calls(Op::lockf), 1);
        EXPECT_EQ(fake.calls(Op::ftruncate), 0);
        EXPECT_EQ(fake.calls(Op::pthread_mutex_init), 0);
        EXPECT_EQ(count_open_fds(), fds_before);
        EXPECT_EQ(count_mappings(LISTENER_SEGMENT), 1);

        // The application's uninit only unmaps.
        fake.reset_calls();
        application.uninit();
        EXPECT_FALSE(application.is_initialized());
        EXPECT_EQ(application.segment, MAP_FAILED);
        EXPECT_EQ(count_mappings(LISTENER_SEGMENT), 0);
        EXPECT_EQ(fake.calls(Op::shm_unlink), 0);
        EXPECT_EQ(fake.calls(Op::unlink), 0);
        EXPECT_TRUE(shm_exists(LISTENER_SEGMENT));
        EXPECT_TRUE(path_exists(dir.default_lock()));

        // And it can come back.
        ASSERT_TRUE(application.init());
        EXPECT_EQ(count_mappings(LISTENER_SEGMENT), 1);
    }
    EXPECT_EQ(count_mappings(LISTENER_SEGMENT), 0);
    EXPECT_EQ(count_open_fds(), fds_before);
    EXPECT_TRUE(shm_exists(LISTENER_SEGMENT));

    // Once the daemon has stopped, its segment and lock file are gone and the application's
    // init fails silently again.
    EXPECT_TRUE(exited_cleanly(daemon.stop()));
    EXPECT_FALSE(shm_exists(LISTENER_SEGMENT));
    EXPECT_FALSE(path_exists(dir.default_lock()));
    Logferry_listener late(false);
    EXPECT_TRUE(fails_saying("", [&] { return late.init(); }));
}

TEST(ListenerSegment, LockFileFallsBackToTmpAndStaysThere)
{
    Listener_runstate dir(false);
    Logferry_listener daemon(true);
    EXPECT_EQ(daemon.lock_listener_name, dir.default_lock());
    ASSERT_TRUE(daemon.init());
    EXPECT_EQ(daemon.lock_listener_name, FALLBACK_LOCK_FILE);
    EXPECT_TRUE(path_exists(FALLBACK_LOCK_FILE));
    EXPECT_TRUE(lock_held_by_other_process(daemon.lock_file));

    // The directory appears: the lock file stays where it is.
    ASSERT_EQ(::mkdir(dir.ara_dlt().c_str(), 0755), 0);
    daemon.check_lock_listener_name();
    EXPECT_EQ(daemon.lock_listener_name, FALLBACK_LOCK_FILE);
    daemon.uninit();
    EXPECT_FALSE(path_exists(FALLBACK_LOCK_FILE));
    ASSERT_TRUE(daemon.init());
    EXPECT_EQ(daemon.lock_listener_name, FALLBACK_LOCK_FILE);
    EXPECT_TRUE(path_exists(FALLBACK_LOCK_FILE));
    EXPECT_FALSE(path_exists(dir.default_lock()));
    daemon.uninit();
    EXPECT_FALSE(path_exists(FALLBACK_LOCK_FILE));
}

TEST(ListenerSegment, ApplicationFallsBackWhenAraDltIsNoDirectory)
{
    Listener_runstate dir(false);
    create_file(dir.ara_dlt());  // a file where the directory should be
    Logferry_listener application(false);
    EXPECT_TRUE(fails_saying("", [&] { return application.init(); }));
    EXPECT_EQ(application.lock_listener_name, FALLBACK_LOCK_FILE);
    EXPECT_EQ(::unlink(dir.ara_dlt().c_str()), 0);
}

TEST(ListenerSegment, ApplicationFindsTheDaemonThroughTheFallbackLockFile)
{
    Listener_runstate dir(false);
    Listener_daemon_child daemon;
    ASSERT_TRUE(daemon.launch());
    ASSERT_TRUE(daemon.wait_ready());
    EXPECT_TRUE(path_exists(FALLBACK_LOCK_FILE));
    {
        Logferry_listener application(false);
        ASSERT_TRUE(application.init());
        EXPECT_EQ(application.lock_listener_name, FALLBACK_LOCK_FILE);
    }
    EXPECT_TRUE(exited_cleanly(daemon.stop()));
    EXPECT_FALSE(path_exists(FALLBACK_LOCK_FILE));
    EXPECT_FALSE(shm_exists(LISTENER_SEGMENT));
}

TEST_F(ListenerSegmentOnFakeSystem, OpenFailureReportsTheErrorLeftByChown)
{
    const int fds_before = count_open_fds();
    {
        Logferry_listener daemon(true);
        // shm_open fails with EMFILE; the group change that follows it fails with EPERM, and
        // the open message carries EPERM's text.
        fake.fail(Op::shm_open, -1, EMFILE);
        fake.fail(Op::chown, -1, EPERM);
        EXPECT_TRUE(fails_saying(owner_error(LISTENER_SEGMENT, EPERM) + error_while("opening the shared memory", EPERM),
                                 [&] { return daemon.init(); }));
        EXPECT_FALSE(daemon.is_initialized());
        EXPECT_EQ(daemon.segment, MAP_FAILED);
        EXPECT_EQ(count_mappings(LISTENER_SEGMENT), 0);
        EXPECT_EQ(fake.calls(Op::ftruncate), 0);
        // The daemon keeps its lock and its watchdogs.
        EXPECT_NE(daemon.proxy_watchdogs, nullptr);
        EXPECT_TRUE(lock_held_by_other_process(daemon.lock_file));
        EXPECT_EQ(count_open_fds(), fds_before + 1);

        // With the real chown on a segment that does not exist, the text is ENOENT's.
        fake.fail(Op::shm_open, -1, EMFILE);
        EXPECT_TRUE(
            fails_saying(owner_error(LISTENER_SEGMENT, ENOENT) + error_while("opening the shared memory", ENOENT),
                         [&] { return daemon.init(); }));
        EXPECT_EQ(count_open_fds(), fds_before + 1);

        ASSERT_TRUE(daemon.init());
        EXPECT_EQ(count_mappings(LISTENER_SEGMENT), 1);
    }
    EXPECT_EQ(count_open_fds(), fds_before);
    EXPECT_EQ(count_mappings(LISTENER_SEGMENT), 0);
}

TEST_F(ListenerSegmentOnFakeSystem, ApplicationTakesAnAccessDeniedLockTestForALiveDaemon)
{
    create_file(dir.default_lock());
    const int fds_before = count_open_fds();
    Logferry_listener application(false);
    // EACCES counts like EAGAIN: some process holds the lock. With no segment there the
    // open that follows fails.
    fake.fail(Op::lockf, -1, EACCES);
    EXPECT_TRUE(fails_saying(error_while("opening the shared memory", ENOENT), [&] { return application.init(); }));
    EXPECT_EQ(fake.calls(Op::shm_open), 1);
    EXPECT_EQ(count_open_fds(), fds_before);
}

TEST_F(ListenerSegmentOnFakeSystem, ApplicationOtherLockTestErrorFailsSilently)
{
    create_file(dir.default_lock());
    const int fds_before = count_open_fds();
    Logferry_listener application(false);
    fake.fail(Op::lockf, -1, EBADF);
    EXPECT_TRUE(fails_saying("", [&] { return application.init(); }));
    EXPECT_EQ(fake.calls(Op::shm_open), 0);
    EXPECT_EQ(fake.calls(Op::close), 1);
    EXPECT_EQ(count_open_fds(), fds_before);
}

TEST_F(ListenerSegmentOnFakeSystem, UnmapFailureIsReportedAndTheSegmentForgotten)
{
    Logferry_listener daemon(true);
    ASSERT_TRUE(daemon.init());
    Listener_segment* const mapped = daemon.segment;
    fake.fail(Op::munmap, -1, EINVAL);
    const std::string output = capture_stderr([&] { daemon.uninit(); });
    EXPECT_EQ(output, error_while("unmapping the shared memory", EINVAL));
    EXPECT_EQ(daemon.segment, MAP_FAILED);
    EXPECT_FALSE(daemon.is_initialized());
    // uninit went on: the segment and the lock file are gone.
    EXPECT_FALSE(shm_exists(LISTENER_SEGMENT));
    EXPECT_FALSE(path_exists(dir.default_lock()));
    // The mapping is still there (the fault kept it); undo it by hand.
    EXPECT_EQ(count_mappings(LISTENER_SEGMENT), 1);
    EXPECT_EQ(::munmap(mapped, logferry::LISTENER_SEGMENT_SIZE), 0);
    EXPECT_EQ(count_mappings(LISTENER_SEGMENT), 0);
    // uninit_shm on nothing mapped makes no call.
    fake.reset_calls();
    daemon.uninit_shm();
    EXPECT_EQ(fake.calls(Op::munmap), 0);
}

TEST_F(ListenerSegmentOnFakeSystem, UninitOnANeverInitialisedObjectDoesNothing)
{
    create_file(dir.default_lock());
    for (bool listening : {true, false}) {
        SCOPED_TRACE(listening ? "daemon" : "application");
        fake.reset_calls();
        {
            Logferry_listener listener(listening);
            EXPECT_EQ(capture_stderr([&] { listener.uninit(); }), "");
        }
        EXPECT_EQ(fake.calls_made(), "");
    }
    EXPECT_TRUE(path_exists(dir.default_lock()));
}

TEST_F(ListenerSegmentOnFakeSystem, UninitAfterAFailedInitLeavesTheLockFileAlone)
{
    Logferry_listener daemon(true);
    fake.fail(Op::ftruncate, -1, ENOSPC);
    capture_stderr([&] { EXPECT_FALSE(daemon.init()); });
    fake.reset_calls();
    daemon.uninit();  // not initialised: no removal, the lock is kept
    EXPECT_EQ(fake.calls(Op::unlink), 0);
    EXPECT_EQ(fake.calls(Op::shm_unlink), 0);
    EXPECT_EQ(fake.calls(Op::close), 0);
    EXPECT_TRUE(path_exists(dir.default_lock()));
    EXPECT_TRUE(lock_held_by_other_process(daemon.lock_file));
    EXPECT_NE(daemon.proxy_watchdogs, nullptr);
    // The segment object that ftruncate left unsized is the daemon's; remove it with the lock
    // file by hand.
    ::shm_unlink(LISTENER_SEGMENT);
}
