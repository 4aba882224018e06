// The system seam, the two guards, the sleeps and the run-state directory.
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "logferry/system.hpp"
#include "probes/nanosleep_probe.hpp"
#include "support/diagnostics.hpp"
#include "support/fake_system.hpp"
#include "support/robust_list.hpp"
#include "support/test_util.hpp"

using logferry::File_descriptor_guard;
using logferry::Mutex_lock_guard;
using logferry::System_lib;
using logferry_test::Fake_system;
using logferry_test::Op;
using logferry_test::Scoped_system;

// ---------------------------------------------------------------------------------------
// nanosleep is interposed in this executable (probes/nanosleep_probe.cpp) so the sleeps'
// system calls can be observed and interrupted.
using logferry_test::diagnostic;
using logferry_test::error_while;
using logferry_test::take_nanosleep_requests;

namespace {
// Read before any default-priority static constructor of this program runs.
logferry::System_lib* sys_seen_early = nullptr;
__attribute__((constructor(101))) void look_at_sys_early() { sys_seen_early = logferry::sys; }
}  // namespace

// ---------------------------------------------------------------------------------------
// The seam's shape

// Itanium ABI: a pointer to a virtual member holds 1 + its byte offset in the vtable (on
// 64-bit Arm: the offset itself).
template <typename F>
long vtable_slot(F member)
{
    static_assert(sizeof(F) == 2 * sizeof(long), "unexpected member pointer size");
    long words[2];
    std::memcpy(words, &member, sizeof words);
#if defined(__aarch64__)
    // The Arm variant keeps the plain offset and marks "virtual" in the adjustment word.
    return words[0] / static_cast<long>(sizeof(void*));
#else
    return (words[0] - 1) / static_cast<long>(sizeof(void*));
#endif
}

TEST(System, SeamHasTheTwentyFiveOperationsInOrderWithExactTypes)
{
    static_assert(std::is_polymorphic<System_lib>::value, "the seam is virtual");
    static_assert(!std::has_virtual_destructor<System_lib>::value, "no virtual destructor");
    static_assert(std::is_empty<System_lib>::value == false, "has a vtable pointer only");
    static_assert(sizeof(System_lib) == sizeof(void*), "no data members");

    int (System_lib::*open_op)(const char*, int, unsigned int) = &System_lib::open;
    int (System_lib::*close_op)(int) = &System_lib::close;
    int (System_lib::*lockf_op)(int, int, long) = &System_lib::lockf;
    int (System_lib::*unlink_op)(const char*) = &System_lib::unlink;
    int (System_lib::*ftruncate_op)(int, long) = &System_lib::ftruncate;
    int (System_lib::*clock_op)(int, timespec*) = &System_lib::clock_gettime;
    int (System_lib::*getpid_op)() = &System_lib::getpid;
    int (System_lib::*attr_init)(pthread_mutexattr_t*) = &System_lib::pthread_mutexattr_init;
    int (System_lib::*attr_type)(pthread_mutexattr_t*, int) = &System_lib::pthread_mutexattr_settype;
    int (System_lib::*attr_pshared)(pthread_mutexattr_t*, int) = &System_lib::pthread_mutexattr_setpshared;
    int (System_lib::*attr_robust)(pthread_mutexattr_t*, int) = &System_lib::pthread_mutexattr_setrobust;
    int (System_lib::*attr_destroy)(pthread_mutexattr_t*) = &System_lib::pthread_mutexattr_destroy;
    int (System_lib::*mutex_init)(pthread_mutex_t*, const pthread_mutexattr_t*) = &System_lib::pthread_mutex_init;
    int (System_lib::*mutex_lock)(pthread_mutex_t*) = &System_lib::pthread_mutex_lock;
    int (System_lib::*mutex_trylock)(pthread_mutex_t*) = &System_lib::pthread_mutex_trylock;
    int (System_lib::*mutex_unlock)(pthread_mutex_t*) = &System_lib::pthread_mutex_unlock;
    int (System_lib::*mutex_consistent)(pthread_mutex_t*) = &System_lib::pthread_mutex_consistent;
    void* (System_lib::*mmap_op)(void*, unsigned long, int, int, int, long) = &System_lib::mmap;
    int (System_lib::*munmap_op)(void*, unsigned long) = &System_lib::munmap;
    int (System_lib::*shm_open_op)(const char*, int, unsigned int) = &System_lib::shm_open;
    int (System_lib::*shm_unlink_op)(const char*) = &System_lib::shm_unlink;
    int (System_lib::*stat_op)(const char*, struct stat*) = &System_lib::stat;
    int (System_lib::*chown_op)(const char*, int, unsigned int) = &System_lib::chown;
    void (System_lib::*sleep_ms)(unsigned int) = &System_lib::sleep_for_milliseconds;
    void (System_lib::*sleep_s)(unsigned int) = &System_lib::sleep_for_seconds;

    const std::vector<long> slots = {
        vtable_slot(open_op),          vtable_slot(close_op),     vtable_slot(lockf_op),      vtable_slot(unlink_op),
        vtable_slot(ftruncate_op),     vtable_slot(clock_op),     vtable_slot(getpid_op),     vtable_slot(attr_init),
        vtable_slot(attr_type),        vtable_slot(attr_pshared), vtable_slot(attr_robust),   vtable_slot(attr_destroy),
        vtable_slot(mutex_init),       vtable_slot(mutex_lock),   vtable_slot(mutex_trylock), vtable_slot(mutex_unlock),
        vtable_slot(mutex_consistent), vtable_slot(mmap_op),      vtable_slot(munmap_op),     vtable_slot(shm_open_op),
        vtable_slot(shm_unlink_op),    vtable_slot(stat_op),      vtable_slot(chown_op),      vtable_slot(sleep_ms),
        vtable_slot(sleep_s)};
    std::vector<long> expected;
    for (long i = 0; i < 25; ++i) {
        expected.push_back(i);
    }
    EXPECT_EQ(slots, expected);
}

TEST(System, GuardsAreNotCopyable)
{
    static_assert(!std::is_copy_constructible<Mutex_lock_guard>::value, "");
    static_assert(!std::is_copy_assignable<Mutex_lock_guard>::value, "");
    static_assert(!std::is_copy_constructible<File_descriptor_guard>::value, "");
    static_assert(!std::is_copy_assignable<File_descriptor_guard>::value, "");
    static_assert(sizeof(Mutex_lock_guard) == sizeof(pthread_mutex_t*), "one member");
    static_assert(sizeof(File_descriptor_guard) == sizeof(int), "one member");
    SUCCEED();
}

TEST(System, SysIsValidBeforeStaticConstructorsRun)
{
    ASSERT_NE(sys_seen_early, nullptr);
    EXPECT_EQ(sys_seen_early, logferry::sys);
    // The default instance really forwards: the process id comes back.
    EXPECT_EQ(sys_seen_early->getpid(), static_cast<int>(::getpid()));
}

TEST(System, ForwardersReturnTheSystemsResultsUnchanged)
{
    System_lib* s = logferry::sys;
    EXPECT_EQ(s->close(-1), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(s->open("/nonexistent-logferry-dir/x", O_RDONLY, 0), -1);
    EXPECT_EQ(errno, ENOENT);
    struct stat info {};
    EXPECT_EQ(s->stat("/", &info), 0);
    EXPECT_TRUE(S_ISDIR(info.st_mode));
    timespec now{};
    EXPECT_EQ(s->clock_gettime(CLOCK_MONOTONIC, &now), 0);
    EXPECT_GT(now.tv_sec + now.tv_nsec, 0);
    pthread_mutexattr_t attributes;
    EXPECT_EQ(s->pthread_mutexattr_init(&attributes), 0);
    EXPECT_EQ(s->pthread_mutexattr_settype(&attributes, 12345), EINVAL);
    EXPECT_EQ(s->pthread_mutexattr_destroy(&attributes), 0);
    EXPECT_EQ(s->mmap(nullptr, 0, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0), MAP_FAILED);
    EXPECT_EQ(errno, EINVAL);
}

// ---------------------------------------------------------------------------------------
// Sleeps

// The nanosleep requests (seconds, nanoseconds) that `sleep` makes.
using Requests = std::vector<std::pair<long, long>>;
Requests requests_of(const std::function<void()>& sleep)
{
    take_nanosleep_requests();
    sleep();
    Requests requests;
    for (const timespec& request : take_nanosleep_requests()) {
        requests.emplace_back(request.tv_sec, request.tv_nsec);
    }
    return requests;
}

TEST(System, ZeroSleepsMakeNoSystemCall)
{
    EXPECT_TRUE(requests_of([] {
                    logferry::sys->sleep_for_milliseconds(0);
                    logferry::sys->sleep_for_seconds(0);
                }).empty());
}

TEST(System, MillisecondSleepSplitsSecondsAndNanoseconds)
{
    EXPECT_EQ(requests_of([] { logferry::sys->sleep_for_milliseconds(1500); }), (Requests{{1, 500000000L}}));
}

TEST(System, SecondSleepRequestsWholeSeconds)
{
    EXPECT_EQ(requests_of([] { logferry::sys->sleep_for_seconds(1); }), (Requests{{1, 0}}));
}

TEST(System, InterruptedSleepResumesWithTheRemainingTime)
{
    EXPECT_EQ(requests_of([] {
                  logferry_test::interrupt_nanosleeps(1);
                  logferry::sys->sleep_for_milliseconds(40);
              }),
              (Requests{{0, 40000000L}, {0, 20000000L}}));
}

namespace {
volatile sig_atomic_t alarms = 0;
void on_alarm(int) { alarms = alarms + 1; }
}  // namespace

TEST(System, RealSignalDuringSleepDoesNotShortenIt)
{
    struct sigaction action {};
    action.sa_handler = on_alarm;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;  // no SA_RESTART: nanosleep really returns EINTR
    ASSERT_EQ(::sigaction(SIGALRM, &action, nullptr), 0);
    itimerval timer{};
    timer.it_value.tv_usec = 30000;
    timer.it_interval.tv_usec = 30000;
    ASSERT_EQ(::setitimer(ITIMER_REAL, &timer, nullptr), 0);

    take_nanosleep_requests();
    const auto start = std::chrono::steady_clock::now();
    logferry::sys->sleep_for_milliseconds(200);
    const auto slept = std::chrono::steady_clock::now() - start;

    itimerval off{};
    ::setitimer(ITIMER_REAL, &off, nullptr);
    ::signal(SIGALRM, SIG_DFL);

    EXPECT_GE(alarms, 1);
    EXPECT_GE(take_nanosleep_requests().size(), 2u);  // interrupted and resumed
    EXPECT_GE(std::chrono::duration_cast<std::chrono::milliseconds>(slept).count(), 200);
}

// ---------------------------------------------------------------------------------------
// Mutex_lock_guard

TEST(System, DefaultTrylockTakesAFreeMutexAndReportsABusyOne)
{
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    EXPECT_EQ(logferry::sys->pthread_mutex_trylock(&mutex), 0);
    EXPECT_EQ(logferry::sys->pthread_mutex_trylock(&mutex), EBUSY);
    EXPECT_EQ(logferry::sys->pthread_mutex_unlock(&mutex), 0);
    EXPECT_EQ(logferry::sys->pthread_mutex_trylock(&mutex), 0);
    EXPECT_EQ(logferry::sys->pthread_mutex_unlock(&mutex), 0);
}

TEST(System, GuardLocksAndUnlocksThroughTheSeam)
{
    Fake_system fake;
    Scoped_system installed(&fake);
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    {
        Mutex_lock_guard guard(&mutex, false);
        EXPECT_EQ(guard.mutex, &mutex);
        EXPECT_EQ(::pthread_mutex_trylock(&mutex), EBUSY);
    }
    EXPECT_EQ(fake.calls(Op::pthread_mutex_lock), 1);
    EXPECT_EQ(fake.calls(Op::pthread_mutex_unlock), 1);
    EXPECT_EQ(::pthread_mutex_trylock(&mutex), 0);
    ::pthread_mutex_unlock(&mutex);
}

TEST(System, GuardAdoptingALockMakesNoLockCallButUnlocks)
{
    Fake_system fake;
    Scoped_system installed(&fake);
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    ASSERT_EQ(::pthread_mutex_lock(&mutex), 0);
    {
        Mutex_lock_guard guard(&mutex, true);
    }
    EXPECT_EQ(fake.calls(Op::pthread_mutex_lock), 0);
    EXPECT_EQ(fake.calls(Op::pthread_mutex_unlock), 1);
    EXPECT_EQ(::pthread_mutex_trylock(&mutex), 0);  // really released
    ::pthread_mutex_unlock(&mutex);
}

TEST(System, GuardTakesOverARobustMutexWhoseOwnerDied)
{
    LOGFERRY_REQUIRE_ROBUST_LIST();
    void* memory = ::mmap(nullptr, sizeof(pthread_mutex_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(memory, MAP_FAILED);
    auto* mutex = static_cast<pthread_mutex_t*>(memory);
    pthread_mutexattr_t attributes;
    ::pthread_mutexattr_init(&attributes);
    ::pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    ::pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    ASSERT_EQ(::pthread_mutex_init(mutex, &attributes), 0);
    ::pthread_mutexattr_destroy(&attributes);

    const int child = logferry_test::fork_child([&] { return ::pthread_mutex_lock(mutex) == 0 ? 0 : 1; });
    const int status = logferry_test::wait_child(child);
    ASSERT_TRUE(WIFEXITED(status));
    ASSERT_EQ(WEXITSTATUS(status), 0);

    Fake_system fake;
    Scoped_system installed(&fake);
    const std::string output = logferry_test::capture_stderr([&] {
        Mutex_lock_guard guard(mutex, false);
        EXPECT_EQ(::pthread_mutex_trylock(mutex), EBUSY);  // held by us now
    });
    EXPECT_EQ(output, "");
    EXPECT_EQ(fake.calls(Op::pthread_mutex_lock), 1);
    EXPECT_EQ(fake.calls(Op::pthread_mutex_consistent), 1);
    EXPECT_EQ(fake.calls(Op::pthread_mutex_unlock), 1);
    // Consistent again: a normal lock works.
    EXPECT_EQ(::pthread_mutex_lock(mutex), 0);
    EXPECT_EQ(::pthread_mutex_unlock(mutex), 0);
    ::munmap(memory, sizeof(pthread_mutex_t));
}

TEST(System, GuardReportsLockAndUnlockErrorsWithTheReturnedCode)
{
    Fake_system fake;
    Scoped_system installed(&fake);
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    fake.fail(Op::pthread_mutex_lock, EINVAL, 0);
    fake.fail(Op::pthread_mutex_unlock, EPERM, 0);
    errno = 0;  // the text comes from the returned code, not errno
    const std::string output = logferry_test::capture_stderr([&] { Mutex_lock_guard guard(&mutex, false); });
    EXPECT_EQ(output, error_while("locking the mutex", EINVAL) + error_while("unlocking the mutex", EPERM));
    EXPECT_EQ(fake.calls(Op::pthread_mutex_consistent), 0);
}

TEST(System, GuardLockErrorAloneWritesOneLine)
{
    Fake_system fake;
    Scoped_system installed(&fake);
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    fake.fail(Op::pthread_mutex_lock, EAGAIN, 0);
    fake.fail(Op::pthread_mutex_unlock, 0, 0);  // the section ran unlocked; its unlock succeeds
    const std::string output = logferry_test::capture_stderr([&] { Mutex_lock_guard guard(&mutex, false); });
    EXPECT_EQ(output, error_while("locking the mutex", EAGAIN));
    EXPECT_EQ(fake.calls(Op::pthread_mutex_unlock), 1);  // the destructor still unlocks
}

// ---------------------------------------------------------------------------------------
// File_descriptor_guard

namespace {
bool is_open(int fd) { return ::fcntl(fd, F_GETFD) != -1; }
}  // namespace

TEST(System, DescriptorGuardAssignedTheSameDescriptorKeepsItOpen)
{
    Fake_system fake;
    Scoped_system installed(&fake);
    const int fd = ::dup(0);
    ASSERT_GE(fd, 0);
    {
        File_descriptor_guard guard(fd);
        guard = fd;
        EXPECT_TRUE(is_open(fd));
        EXPECT_EQ(fake.calls(Op::close), 0);
        EXPECT_TRUE(guard == fd);
        EXPECT_EQ(static_cast<int>(guard), fd);
    }
    EXPECT_EQ(fake.calls(Op::close), 1);
    EXPECT_FALSE(is_open(fd));
}

TEST(System, DescriptorGuardAssignedAnotherDescriptorClosesTheOld)
{
    Fake_system fake;
    Scoped_system installed(&fake);
    const int first = ::dup(0);
    const int second = ::dup(0);
    ASSERT_GE(first, 0);
    ASSERT_GE(second, 0);
    File_descriptor_guard guard(first);
    guard = second;
    EXPECT_FALSE(is_open(first));
    EXPECT_TRUE(is_open(second));
    EXPECT_EQ(fake.calls(Op::close), 1);
    guard = -1;  // closes and empties
    EXPECT_FALSE(is_open(second));
    EXPECT_TRUE(guard == -1);
    EXPECT_EQ(fake.calls(Op::close), 2);
}

TEST(System, DescriptorGuardHoldingNothingMakesNoCloseCall)
{
    Fake_system fake;
    Scoped_system installed(&fake);
    {
        File_descriptor_guard guard(-1);
        guard.close_descriptor();
    }
    {
        File_descriptor_guard guard(-7);
    }
    EXPECT_EQ(fake.calls(Op::close), 0);
}

TEST(System, DescriptorGuardCloseDescriptorEmptiesTheGuard)
{
    const int fd = ::dup(0);
    File_descriptor_guard guard(fd);
    guard.close_descriptor();
    EXPECT_FALSE(is_open(fd));
    EXPECT_TRUE(guard == -1);
}

// ---------------------------------------------------------------------------------------
// Run-state directory

TEST(System, RunstateDirectoryComesFromTheEnvironment)
{
    ::setenv("ADAPTIVE_RUNSTATE_DIR", "/tmp/some/where", 1);
    EXPECT_EQ(logferry::get_full_adaptive_runstate_directory(), "/tmp/some/where");
    ::setenv("ADAPTIVE_RUNSTATE_DIR", "/tmp/trailing//", 1);
    EXPECT_EQ(logferry::get_full_adaptive_runstate_directory(), "/tmp/trailing");
}

TEST(System, RunstateDirectoryDefaultsWhenUnsetOrEmpty)
{
    ::unsetenv("ADAPTIVE_RUNSTATE_DIR");
    EXPECT_EQ(logferry::get_full_adaptive_runstate_directory(), "/run/adaptive");
    ::setenv("ADAPTIVE_RUNSTATE_DIR", "", 1);
    EXPECT_EQ(logferry::get_full_adaptive_runstate_directory(), "/run/adaptive");
}

// ---------------------------------------------------------------------------------------
// Diagnostics

TEST(System, ReportErrorWritesOneFlushedLine)
{
    EXPECT_EQ(logferry_test::capture_stderr([] { logferry::report_error("something broke."); }),
              diagnostic("something broke."));
    EXPECT_EQ(logferry_test::capture_stderr([] { logferry::report_error("opening: ", ENOENT); }),
              diagnostic("opening: No such file or directory"));
}
