// Fault-injection sweep: every operating-system call that the library's set-up and
// tear-down paths make fails in turn, and the library must say exactly what the design says
// for that failure (or nothing), return its failure result, leave nothing behind that the
// design does not leave, not crash or hang, and work again on the next attempt.
//
// For each path the calls are discovered first: the path runs once without faults while
// every call through the system seam is recorded. Then each recorded call (the first,
// second, ... call of each operation) fails in its own case with each realistic failure of
// the table below; the pthread calls return their error code, the others -1 with errno.
// Every recorded call must have an entry in the table and every entry must name a call the
// path makes, so the table and the code cannot drift apart unnoticed. Each test prints how
// many (call, failure) pairs it covered and records it as the property "fault_pairs".
//
// The injected failures behave as the real system would: a failing close still releases
// the descriptor (Linux does), a failing unlock leaves the mutex unlocked (it fails because
// the caller does not hold it), an EOWNERDEAD lock holds the lock, and after a failed lock
// the release of the lock never taken fails with EPERM, as it does for a robust mutex. The
// sleeps cannot fail: they are interrupted instead (nanosleep reports EINTR half-way, through
// the program's own nanosleep), and must still last their whole time.
#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "logferry/channel.hpp"
#include "logferry/client.hpp"
#include "logferry/listener.hpp"
#include "probes/nanosleep_probe.hpp"
#include "support/client_fixture.hpp"
#include "support/diagnostics.hpp"
#include "support/fake_system.hpp"
#include "support/listener_checks.hpp"
#include "support/listener_daemon.hpp"
#include "support/runstate_dir.hpp"
#include "support/test_util.hpp"

using logferry_test::capture_stderr;
using logferry_test::count_mappings;
using logferry_test::count_open_fds;
using logferry_test::diagnostic;
using logferry_test::entries_and_indices_zero;
using logferry_test::error_while;
using logferry_test::Fake_system;
using logferry_test::FALLBACK_LOCK_FILE;
using logferry_test::LISTENER_SEGMENT;
using logferry_test::lock_held_by_other_process;
using logferry_test::mutex_init_failed;
using logferry_test::Op;
using logferry_test::op_name;
using logferry_test::owner_error;
using logferry_test::path_exists;
using logferry_test::reset_front_end;
using logferry_test::Runstate_dir;
using logferry_test::Scoped_system;
using logferry_test::Scoped_value;
using logferry_test::shm_exists;

namespace {

// ---------------------------------------------------------------------------------------
// The failures and what the design makes of them.

struct Failure {
    long result;  // what the call returns: -1 (errno below) or, for pthread calls, the code
    int error;    // errno for the calls that return -1
};

// What a failure leaves behind by design, besides the result and the message.
enum Residue : unsigned {
    NO_RESIDUE = 0,
    CHANNEL_OBJECT = 1,     // the created channel object stays in /dev/shm (unmapped) until the next init
    LISTENER_OBJECT = 2,    // the daemon's listener object stays in /dev/shm (unmapped)
    LOCK_FILE = 4,          // the daemon's lock file stays, open and locked, until its next init or destruction
    CHANNEL_MAPPING = 8,    // a failed munmap of the channel: the mapping stays
    LISTENER_MAPPING = 16,  // a failed munmap of the listener segment: the mapping stays
    FALLBACK = 32,          // the listener switched to the lock file under /tmp (for good)
};

// Calls of some operations, counted.
using Counts = std::vector<std::pair<Op, int>>;

struct Row {
    const char* part;  // which step of the path makes the call
    Op op;
    int occurrence;  // which call of `op` in the path (0 = the first); -1 = every one
    Failure failure;
    bool succeeds;        // the path's result despite the failure
    std::string message;  // "{name}": the channel's name, "{error}": the failure's error text
    unsigned residue;
    // Calls of the named operations that the failing attempt makes in all, where its path is
    // swept on its own (counted from the start of that path).
    Counts calls = {};
};

bool is_mutex_setup(Op op)
{
    switch (op) {
    case Op::pthread_mutexattr_init:
    case Op::pthread_mutexattr_settype:
    case Op::pthread_mutexattr_setpshared:
    case Op::pthread_mutexattr_setrobust:
    case Op::pthread_mutex_init:
    case Op::pthread_mutexattr_destroy:
        return true;
    default:
        return false;
    }
}

bool is_pthread_op(Op op)
{
    return is_mutex_setup(op) || op == Op::pthread_mutex_lock || op == Op::pthread_mutex_trylock ||
           op == Op::pthread_mutex_unlock || op == Op::pthread_mutex_consistent;
}

bool is_sleep(Op op) { return op == Op::sleep_for_milliseconds || op == Op::sleep_for_seconds; }

void expect_calls(const Fake_system& system, const Row& row)
{
    for (const auto& count : row.calls) {
        EXPECT_EQ(system.calls(count.first), count.second) << "calls of " << op_name(count.first);
    }
}

// The set-up of a segment's only mutex stops at the failing call, and the mapping is undone;
// the attributes are destroyed only when everything before succeeded.
void expect_mutex_setup_stopped(const Fake_system& system, Op failing)
{
    EXPECT_EQ(system.calls(failing), 1);
    EXPECT_EQ(system.calls(Op::pthread_mutexattr_destroy), failing == Op::pthread_mutexattr_destroy ? 1 : 0);
    if (failing != Op::pthread_mutex_init && failing != Op::pthread_mutexattr_destroy) {
        EXPECT_EQ(system.calls(Op::pthread_mutex_init), 0);
    }
    EXPECT_EQ(system.calls(Op::munmap), 1);
}

std::string replace_all(std::string text, const std::string& key, const std::string& value)
{
    for (std::size_t at = text.find(key); at != std::string::npos; at = text.find(key, at + value.size())) {
        text.replace(at, key.size(), value);
    }
    return text;
}

std::string expected_message(const Row& row, const std::string& channel_name)
{
    const int code = is_pthread_op(row.op) ? static_cast<int>(row.failure.result) : row.failure.error;
    return replace_all(replace_all(row.message, "{name}", channel_name), "{error}", std::strerror(code));
}

std::string describe(Op op, int occurrence, const Row& row)
{
    const int code = is_pthread_op(op) ? static_cast<int>(row.failure.result) : row.failure.error;
    return std::string(row.part) + ": call " + std::to_string(occurrence + 1) + " of " + op_name(op) + " fails (" +
           (code != 0 ? std::strerror(code) : "returns " + std::to_string(row.failure.result)) + ")";
}

// The lines expected on the standard error stream; "{name}" stands for the channel's name,
// "{error}" for the system's text of the failure.
const std::string OWNER_CHANNEL = diagnostic("error setting owner of {name}: {error}");
const std::string OWNER_CHANNEL_MISSING = owner_error("{name}", ENOENT);
const std::string OWNER_LISTENER = diagnostic("error setting owner of /logferry-daemon-listener: {error}");
const std::string OPEN_SHM = diagnostic("error while opening the shared memory: {error}");
const std::string TRUNCATE = diagnostic("error while truncating the shared memory: {error}");
const std::string MAP = diagnostic("error while mapping the shared memory: {error}");
const std::string UNMAP = diagnostic("error while unmapping the shared memory: {error}");
const std::string MUTEX_INIT = mutex_init_failed();
const std::string LOCK_FILE_TEXT = diagnostic("error while locking the file: {error}");
const std::string LOCK = diagnostic("error while locking the mutex: {error}");
const std::string UNLOCK = diagnostic("error while unlocking the mutex: {error}");
const std::string UNLOCK_NOT_HELD = error_while("unlocking the mutex", EPERM);
const std::string GETTIME = diagnostic("gettime failed");

const Failure ENOMEM_CODE{ENOMEM, 0};
const Failure EINVAL_CODE{EINVAL, 0};

// The mutex set-up of a segment: every call may fail, at every mutex.
void add_mutex_setup_rows(std::vector<Row>& rows, const char* part, unsigned residue)
{
    const std::pair<Op, std::vector<Failure>> calls[] = {
        {Op::pthread_mutexattr_init, {ENOMEM_CODE}},
        {Op::pthread_mutexattr_settype, {EINVAL_CODE}},
        {Op::pthread_mutexattr_setpshared, {EINVAL_CODE, {ENOTSUP, 0}}},
        {Op::pthread_mutexattr_setrobust, {EINVAL_CODE, {ENOTSUP, 0}}},
        {Op::pthread_mutex_init, {{EAGAIN, 0}, ENOMEM_CODE, {EPERM, 0}, EINVAL_CODE}},
        {Op::pthread_mutexattr_destroy, {EINVAL_CODE}},
    };
    for (const auto& call : calls) {
        for (const Failure& failure : call.second) {
            rows.push_back({part, call.first, -1, failure, false, MUTEX_INIT, residue});
        }
    }
}

// Logferry_client::init: the application's end creates its segment.
std::vector<Row> channel_init_rows()
{
    const char* part = "channel init";
    std::vector<Row> rows = {
        {part, Op::shm_unlink, 0, {-1, EACCES}, true, "", NO_RESIDUE},  // a stale object's removal: ignored
        // The group is set whatever shm_open returned: with no object it fails too.
        {part, Op::shm_open, 0, {-1, EACCES}, false, OWNER_CHANNEL_MISSING + OPEN_SHM, NO_RESIDUE},
        {part, Op::shm_open, 0, {-1, EMFILE}, false, OWNER_CHANNEL_MISSING + OPEN_SHM, NO_RESIDUE},
        {part, Op::shm_open, 0, {-1, ENOSPC}, false, OWNER_CHANNEL_MISSING + OPEN_SHM, NO_RESIDUE},
        {part, Op::chown, 0, {-1, EPERM}, true, OWNER_CHANNEL, NO_RESIDUE},
        {part, Op::chown, 0, {-1, EINVAL}, true, OWNER_CHANNEL, NO_RESIDUE},
        {part, Op::ftruncate, 0, {-1, EFBIG}, false, TRUNCATE, CHANNEL_OBJECT},
        {part, Op::ftruncate, 0, {-1, EIO}, false, TRUNCATE, CHANNEL_OBJECT},
        {part, Op::mmap, 0, {-1, ENOMEM}, false, MAP, CHANNEL_OBJECT},
        {part, Op::mmap, 0, {-1, EACCES}, false, MAP, CHANNEL_OBJECT},
        {part, Op::clock_gettime, 0, {-1, EINVAL}, true, "", NO_RESIDUE},  // the watchdog stays 0
        {part, Op::close, 0, {-1, EIO}, true, "", NO_RESIDUE},
    };
    add_mutex_setup_rows(rows, part, CHANNEL_OBJECT);
    return rows;
}

// Logferry_listener::init on the application's side, while a daemon holds the lock.
// `first` is the number of earlier calls of shm_open, mmap and close in the same path
// (close counts twice per earlier descriptor).
std::vector<Row> listener_application_rows(int earlier_shm_open, int earlier_mmap, int earlier_close)
{
    const char* part = "listener init";
    const Counts no_lock_test = {{Op::lockf, 0}, {Op::shm_open, 0}};
    const Counts no_group_no_map = {{Op::chown, 0}, {Op::mmap, 0}};  // the application never changes the group
    return {
        // Without the run-state directory the lock file is looked for under /tmp, where no
        // daemon holds it.
        {part, Op::stat, 0, {-1, EACCES}, false, "", FALLBACK},
        {part, Op::stat, 0, {-1, ENOENT}, false, "", FALLBACK},
        {part, Op::open, 0, {-1, EACCES}, false, "", NO_RESIDUE, no_lock_test},
        {part, Op::open, 0, {-1, EMFILE}, false, "", NO_RESIDUE, no_lock_test},
        {part, Op::lockf, 0, {-1, ENOLCK}, false, "", NO_RESIDUE},
        {part, Op::lockf, 0, {-1, EBADF}, false, "", NO_RESIDUE},
        {part, Op::lockf, 0, {0, 0}, false, "", NO_RESIDUE},  // the lock looks free: no daemon
        {part, Op::close, earlier_close, {-1, EIO}, true, "", NO_RESIDUE},
        {part, Op::shm_open, earlier_shm_open, {-1, EACCES}, false, OPEN_SHM, NO_RESIDUE, no_group_no_map},
        {part, Op::shm_open, earlier_shm_open, {-1, ENOENT}, false, OPEN_SHM, NO_RESIDUE, no_group_no_map},
        {part, Op::shm_open, earlier_shm_open, {-1, EMFILE}, false, OPEN_SHM, NO_RESIDUE, no_group_no_map},
        {part, Op::mmap, earlier_mmap, {-1, ENOMEM}, false, MAP, NO_RESIDUE, {{Op::munmap, 0}}},
        {part, Op::close, earlier_close + 1, {-1, EIO}, true, "", NO_RESIDUE},
    };
}

// A process-shared lock taken and released through the guard (or explicitly). A failed lock
// leaves the section unguarded, and the release of the lock that was never taken then fails.
void add_lock_rows(std::vector<Row>& rows, const char* part, int occurrence)
{
    rows.push_back(
        {part, Op::pthread_mutex_lock, occurrence, {ENOTRECOVERABLE, 0}, true, LOCK + UNLOCK_NOT_HELD, NO_RESIDUE});
    rows.push_back({part, Op::pthread_mutex_lock, occurrence, {EINVAL, 0}, true, LOCK + UNLOCK_NOT_HELD, NO_RESIDUE});
    rows.push_back({part, Op::pthread_mutex_lock, occurrence, {EAGAIN, 0}, true, LOCK + UNLOCK_NOT_HELD, NO_RESIDUE});
    // The holder died: the lock is taken over without a word.
    rows.push_back({part, Op::pthread_mutex_lock, occurrence, {EOWNERDEAD, 0}, true, "", NO_RESIDUE});
    rows.push_back({part, Op::pthread_mutex_unlock, occurrence, {EPERM, 0}, true, UNLOCK, NO_RESIDUE});
}

// Logferry_listener::init on the daemon's side.
std::vector<Row> listener_daemon_rows()
{
    const char* part = "daemon listener init";
    const unsigned after_lock = LOCK_FILE;
    const unsigned after_create = LOCK_FILE | LISTENER_OBJECT;
    // What the attempt no longer does after the failure.
    const Counts no_lock = {{Op::lockf, 0}, {Op::shm_open, 0}};
    const Counts no_segment = {{Op::shm_open, 0}};
    const Counts no_mapping = {{Op::mmap, 0}, {Op::munmap, 0}};
    const Counts no_mutex_setup = {{Op::munmap, 0}, {Op::pthread_mutexattr_init, 0}};
    // With shm_open failing, the group is set on a name just removed; its errno is reported.
    const std::string open_failed =
        owner_error(LISTENER_SEGMENT, ENOENT) + error_while("opening the shared memory", ENOENT);
    std::vector<Row> rows = {
        // Without the run-state directory the daemon takes the lock file under /tmp.
        {part, Op::stat, 0, {-1, EACCES}, true, "", FALLBACK},
        {part, Op::open, 0, {-1, EACCES}, false, "", NO_RESIDUE, no_lock},
        {part, Op::open, 0, {-1, EROFS}, false, "", NO_RESIDUE, no_lock},
        {part, Op::lockf, 0, {-1, ENOLCK}, false, LOCK_FILE_TEXT, after_lock, no_segment},
        {part, Op::lockf, 0, {-1, EINTR}, false, LOCK_FILE_TEXT, after_lock, no_segment},
        {part, Op::lockf, 0, {-1, EDEADLK}, false, LOCK_FILE_TEXT, after_lock, no_segment},
        {part, Op::shm_unlink, 0, {-1, EACCES}, true, "", NO_RESIDUE},
        {part, Op::shm_open, 0, {-1, EACCES}, false, open_failed, after_lock},
        {part, Op::shm_open, 0, {-1, EMFILE}, false, open_failed, after_lock},
        {part, Op::chown, 0, {-1, EPERM}, true, OWNER_LISTENER, NO_RESIDUE, {{Op::chown, 1}}},
        {part, Op::ftruncate, 0, {-1, EFBIG}, false, TRUNCATE, after_create, no_mapping},
        {part, Op::ftruncate, 0, {-1, EIO}, false, TRUNCATE, after_create, no_mapping},
        {part, Op::ftruncate, 0, {-1, ENOSPC}, false, TRUNCATE, after_create, no_mapping},
        {part, Op::mmap, 0, {-1, ENOMEM}, false, MAP, after_create, no_mutex_setup},
        {part, Op::mmap, 0, {-1, EACCES}, false, MAP, after_create, no_mutex_setup},
        {part, Op::close, 0, {-1, EIO}, true, "", NO_RESIDUE},
    };
    add_mutex_setup_rows(rows, part, after_create);
    return rows;
}

// ---------------------------------------------------------------------------------------
// The system used by the sweep: the fake system with injected failures that behave like
// the real ones, a record of the calls, and sleeps at which the receiver thread parks until
// the test lets it go on.

class Sweep_system : public Fake_system {
public:
    Sweep_system()
    {
        on_call([this](Op op) { observe(op); });
    }
    ~Sweep_system() { on_call(nullptr); }

    void start_recording()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        recorded_.clear();
        recording_ = true;
    }
    std::vector<Op> stop_recording()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        recording_ = false;
        return recorded_;
    }

    // The `occurrence`th call of `op` from now on fails once with `failure`.
    void inject(Op op, int occurrence, const Failure& failure)
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            target_ = op;
            target_occurrence_ = occurrence;
            seen_ = 0;
            injected_ = false;
            armed_ = true;
        }
        fail(op, failure.result, failure.error, 1, occurrence);
    }
    // Disarms the fault; true when the injected call was made.
    bool clear()
    {
        clear_faults();
        std::lock_guard<std::mutex> lock(mutex_);
        armed_ = false;
        return injected_;
    }

    int close(int fd) override
    {
        const int result = Fake_system::close(fd);
        if (injected_now) {
            ::close(fd);  // Linux releases the descriptor even when close reports an error
        }
        return result;
    }
    int pthread_mutex_lock(pthread_mutex_t* mutex) override
    {
        const int result = Fake_system::pthread_mutex_lock(mutex);
        if (injected_now && result == EOWNERDEAD) {
            ::pthread_mutex_lock(mutex);  // EOWNERDEAD comes with the lock
        } else if (injected_now) {
            // The lock was not taken, so the release that follows fails as a robust mutex's
            // does when the caller does not hold it (without unlocking an unlocked mutex).
            fail(Op::pthread_mutex_unlock, EPERM, 0, 1, 0);
        }
        return result;
    }
    int pthread_mutex_unlock(pthread_mutex_t* mutex) override
    {
        const int result = Fake_system::pthread_mutex_unlock(mutex);
        if (injected_now) {
            ::pthread_mutex_unlock(mutex);  // the unlock fails because the lock is not held
        }
        return result;
    }

    // Parking: with it on, every sleep returns only when the test grants a wake-up (or the
    // receiver thread is asked to finish).
    void set_parking(bool on)
    {
        std::lock_guard<std::mutex> lock(park_mutex_);
        parking_ = on;
        park_cv_.notify_all();
    }
    int parks() const
    {
        std::lock_guard<std::mutex> lock(park_mutex_);
        return parks_;
    }
    bool wait_parks(int count, std::chrono::milliseconds timeout = std::chrono::milliseconds(10000))
    {
        std::unique_lock<std::mutex> lock(park_mutex_);
        return park_cv_.wait_for(lock, timeout, [&] { return parks_ >= count; });
    }
    // Lets the parked thread run one more pass and waits until it parks again.
    bool run_one_pass()
    {
        int before = 0;
        {
            std::lock_guard<std::mutex> lock(park_mutex_);
            before = parks_;
            ++grants_;
            park_cv_.notify_all();
        }
        return wait_parks(before + 1);
    }

    void sleep_for_milliseconds(unsigned int ms) override
    {
        Fake_system::sleep_for_milliseconds(ms);
        park();
    }
    void sleep_for_seconds(unsigned int s) override
    {
        Fake_system::sleep_for_seconds(s);
        park();
    }

    static thread_local bool injected_now;

private:
    void observe(Op op)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (recording_) {
            recorded_.push_back(op);
        }
        injected_now = false;
        if (armed_ && op == target_) {
            if (seen_ == target_occurrence_) {
                injected_now = true;
                injected_ = true;
            }
            ++seen_;
        }
    }

    void park()
    {
        std::unique_lock<std::mutex> lock(park_mutex_);
        if (!parking_) {
            return;
        }
        ++parks_;
        park_cv_.notify_all();
        while (grants_ == 0 && parking_ && !logferry::terminate_receiver_thread.load()) {
            park_cv_.wait_for(lock, std::chrono::milliseconds(2));
        }
        if (grants_ > 0) {
            --grants_;
        }
    }

    std::mutex mutex_;
    bool recording_ = false;
    std::vector<Op> recorded_;
    bool armed_ = false;
    Op target_ = Op::count;
    int target_occurrence_ = 0;
    int seen_ = 0;
    bool injected_ = false;

    mutable std::mutex park_mutex_;
    std::condition_variable park_cv_;
    bool parking_ = false;
    int parks_ = 0;
    int grants_ = 0;
};

thread_local bool Sweep_system::injected_now = false;

// Aborts the process with a note when one case runs too long: a hang is a finding too.
class Hang_guard {
public:
    Hang_guard(std::string what, std::chrono::seconds limit) : what_(std::move(what))
    {
        watcher_ = std::thread([this, limit] {
            std::unique_lock<std::mutex> lock(mutex_);
            if (!cv_.wait_for(lock, limit, [this] { return done_; })) {
                std::fprintf(stderr, "fault sweep: hang in case \"%s\"\n", what_.c_str());
                std::fflush(stderr);
                std::abort();
            }
        });
    }
    ~Hang_guard()
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            done_ = true;
        }
        cv_.notify_all();
        watcher_.join();
    }
    Hang_guard(const Hang_guard&) = delete;
    Hang_guard& operator=(const Hang_guard&) = delete;

private:
    std::string what_;
    std::mutex mutex_;
    std::condition_variable cv_;
    bool done_ = false;
    std::thread watcher_;
};

// Runs `run_case` for every recorded call and every failure the table gives for it, after
// checking that the table and the recorded calls agree. Returns the number of pairs run.
int sweep(const std::vector<Op>& calls, const std::vector<Row>& table,
          const std::function<void(Op, int, const Row&)>& run_case)
{
    std::map<Op, int> made;
    for (Op op : calls) {
        if (!is_sleep(op)) {
            ++made[op];
        }
    }
    for (const Row& row : table) {
        const int needed = row.occurrence < 0 ? 1 : row.occurrence + 1;
        EXPECT_GE(made[row.op], needed) << row.part << ": the table expects call " << needed << " of "
                                        << op_name(row.op) << ", which the path does not make";
    }
    int pairs = 0;
    for (const auto& call : made) {
        for (int occurrence = 0; occurrence < call.second; ++occurrence) {
            bool covered = false;
            for (const Row& row : table) {
                if (row.op != call.first || (row.occurrence >= 0 && row.occurrence != occurrence)) {
                    continue;
                }
                covered = true;
                const std::string what = describe(call.first, occurrence, row);
                SCOPED_TRACE(what);
                Hang_guard guard(what, std::chrono::seconds(30));
                run_case(call.first, occurrence, row);
                ++pairs;
                if (::testing::Test::HasFatalFailure()) {
                    return pairs;
                }
            }
            EXPECT_TRUE(covered) << "no expectation for call " << occurrence + 1 << " of " << op_name(call.first);
        }
    }
    return pairs;
}

// logferry::exit as a path of the sweep (it has no result: it always ends).
bool exit_library()
{
    logferry::exit();
    return true;
}

void report_pairs(const char* path, int pairs, int minimum, const std::vector<Op>& calls)
{
    std::string made;
    for (Op op : calls) {
        made += std::string(made.empty() ? "" : " ") + op_name(op);
    }
    std::printf("fault sweep, %s: %d (call, failure) pairs over the calls: %s\n", path, pairs, made.c_str());
    std::fflush(stdout);
    ::testing::Test::RecordProperty("fault_pairs", pairs);
    EXPECT_GE(pairs, minimum);
}

// Runs `path` once without faults and records the calls it makes through the system seam into
// `calls`: the path must succeed and say nothing.
void record_calls(Sweep_system& system, std::vector<Op>& calls, const std::function<bool()>& path)
{
    system.start_recording();
    bool succeeded = false;
    const std::string output = capture_stderr([&] { succeeded = path(); });
    calls = system.stop_recording();
    ASSERT_TRUE(succeeded) << "the path fails without faults";
    ASSERT_EQ(output, "") << "the path is not clean without faults (is the group settable here?)";
}

// Runs `action` with the `occurrence`th call of `op` failing once as `row` says (the calls are
// counted from its start): the call must be made, and the standard error stream must get
// exactly the row's message, "{name}" standing for `name`.
void run_with_fault(Sweep_system& system, Op op, int occurrence, const Row& row, const std::string& name,
                    const std::function<void()>& action)
{
    system.inject(op, occurrence, row.failure);
    system.reset_calls();
    const std::string output = capture_stderr(action);
    EXPECT_TRUE(system.clear()) << "the call was not made";
    EXPECT_EQ(output, expected_message(row, name));
}

// Runs the `init` of `end` (a channel's or a listener's) with the fault of `row`: its result,
// whether it is open and whether it holds a mapping are what the row says.
template <typename End>
void init_with_fault(Sweep_system& system, Op op, int occurrence, const Row& row, const std::string& name, End& end)
{
    bool result = !row.succeeds;
    run_with_fault(system, op, occurrence, row, name, [&] { result = end.init(); });
    EXPECT_EQ(result, row.succeeds);
    EXPECT_EQ(end.is_initialized(), row.succeeds);
    EXPECT_EQ(static_cast<void*>(end.segment) == MAP_FAILED, !row.succeeds);
}

// The next attempt of `path`: it succeeds and says nothing.
void expect_clean_success(const std::function<bool()>& path)
{
    EXPECT_EQ(capture_stderr([&] { EXPECT_TRUE(path()); }), "");
}

// A row whose failure switches the listener to the lock file under /tmp: it did, and the test
// puts the run-state directory's lock file back (the switch is for good by design).
void expect_fallback_then_undo(const Row& row, std::string& lock_listener_name, const std::string& lock_path)
{
    if ((row.residue & FALLBACK) != 0) {
        EXPECT_EQ(lock_listener_name, FALLBACK_LOCK_FILE);
        lock_listener_name = lock_path;
    }
}

// ---------------------------------------------------------------------------------------
// Fixture: a private run-state directory (with ara_DLT), optionally a daemon's listener in a
// child process (the lock it holds must belong to another process), and the sweep's system.

class FaultSweep : public ::testing::Test {
protected:
    void SetUp() override
    {
        runstate_.reset(new Runstate_dir());
        lock_name_.reset(new Scoped_value<std::string>(logferry::listener.lock_listener_name, lock_path()));
        ::shm_unlink(LISTENER_SEGMENT);  // a stale segment of an aborted run
    }

    void TearDown() override
    {
        if (parked_) {
            system_->set_parking(false);
            reset_front_end();
        }
        installed_.reset();
        system_.reset();
        stop_daemon();
        lock_name_.reset();
        runstate_.reset();
        EXPECT_FALSE(shm_exists(LISTENER_SEGMENT)) << "the listener segment was left behind";
    }

    std::string lock_path() const { return runstate_->lock_file(); }

    // Call before install(): the child must run on the real system.
    void start_daemon() { ASSERT_TRUE(daemon_.start(lock_path())); }

    void stop_daemon()
    {
        if (daemon_.running()) {
            const int status = daemon_.stop();
            EXPECT_TRUE(logferry_test::exited_cleanly(status)) << status;
        }
    }

    Sweep_system& install()
    {
        system_.reset(new Sweep_system());
        installed_.reset(new Scoped_system(system_.get()));
        return *system_;
    }

    // Frees every entry of the daemon's list, as its watchdogs would in time: each connect
    // announces the channel again, and nobody takes the announcements here.
    void wipe_listener_list()
    {
        const int fd = ::shm_open(LISTENER_SEGMENT, O_RDWR, 0);
        ASSERT_GE(fd, 0);
        void* mapped = ::mmap(nullptr, logferry::LISTENER_SEGMENT_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        ::close(fd);
        ASSERT_NE(mapped, MAP_FAILED);
        auto* segment = static_cast<logferry::Listener_segment*>(mapped);
        std::memset(segment->entries, 0, sizeof segment->entries);
        segment->read_index = 0;
        segment->write_index = 0;
        ::munmap(mapped, logferry::LISTENER_SEGMENT_SIZE);
    }

    // Whether `name` stands in the daemon's list.
    bool announced(const std::string& name)
    {
        const int fd = ::shm_open(LISTENER_SEGMENT, O_RDWR, 0);
        if (fd < 0) {
            return false;
        }
        void* mapped = ::mmap(nullptr, logferry::LISTENER_SEGMENT_SIZE, PROT_READ, MAP_SHARED, fd, 0);
        ::close(fd);
        if (mapped == MAP_FAILED) {
            return false;
        }
        bool found = false;
        const auto* segment = static_cast<const logferry::Listener_segment*>(mapped);
        for (const auto& entry : segment->entries) {
            if (std::string(entry.channel_name, ::strnlen(entry.channel_name, logferry::LISTENER_NAME_SIZE)) == name) {
                found = true;
            }
        }
        ::munmap(mapped, logferry::LISTENER_SEGMENT_SIZE);
        return found;
    }

    // The sweep's system with fake sleeps at which the receiver thread parks (until the test
    // ends), the front end as at load time and the channel named after `identifier`: its name
    // is name_, and fds_ the descriptors open now.
    Sweep_system& install_parked(const char* identifier)
    {
        start_daemon();
        Sweep_system& system = install();
        system.fake_sleeps(true);
        system.set_parking(true);
        parked_ = true;
        reset_front_end();
        logferry::set_app_identifier(identifier);
        name_ = "/logferry-" + logferry::client.app_identifier;
        fds_ = count_open_fds();
        return system;
    }

    // Brings the library up with the receiver thread parked after its first pass: channel
    // open and announced, no daemon attached to it (the thread keeps to its inactive branch).
    void bring_up_parked()
    {
        const int parked = system_->parks();
        logferry::init();
        ASSERT_TRUE(system_->wait_parks(parked + 1)) << "the receiver thread did not come to rest";
        ASSERT_TRUE(logferry::client.is_initialized());
        ASSERT_TRUE(logferry::listener.is_initialized());
        ASSERT_TRUE(announced(name_));
    }

    // The parked thread's next pass announces the channel (again); then the library closes
    // and leaves nothing behind.
    void next_pass_announces_then_exit()
    {
        wipe_listener_list();
        EXPECT_EQ(capture_stderr([&] { EXPECT_TRUE(system_->run_one_pass()); }), "");
        EXPECT_TRUE(announced(name_));
        EXPECT_TRUE(logferry::listener.is_initialized());
        EXPECT_EQ(system_->sleeps_ms().back(), 50u);
        EXPECT_EQ(count_mappings(LISTENER_SEGMENT), 1);
        exit_leaves_nothing(name_, fds_);
    }

    // The library, its channel `name` announced, closes and leaves nothing behind: no object,
    // no mapping, no descriptor beyond the `fds` open before.
    void exit_leaves_nothing(const std::string& name, int fds)
    {
        wipe_listener_list();
        logferry::exit();
        EXPECT_FALSE(shm_exists(name));
        EXPECT_EQ(count_mappings(name), 0);
        EXPECT_EQ(count_mappings(LISTENER_SEGMENT), 0);
        EXPECT_EQ(count_open_fds(), fds);
    }

    std::unique_ptr<Runstate_dir> runstate_;
    std::unique_ptr<Sweep_system> system_;
    std::unique_ptr<Scoped_system> installed_;
    // With install_parked: the channel's name and the descriptors open before it was made.
    std::string name_;
    int fds_ = 0;

private:
    bool parked_ = false;
    std::unique_ptr<Scoped_value<std::string>> lock_name_;
    logferry_test::Listener_daemon_child daemon_;
};

}  // namespace

// ---------------------------------------------------------------------------------------

TEST_F(FaultSweep, ChannelInit)
{
    Sweep_system& system = install();
    const std::string identifier = logferry_test::unique_id("c", 20);
    const std::string name = "/logferry-" + identifier;
    const int fds = count_open_fds();

    std::vector<Op> calls;
    {
        logferry::Logferry_client channel;
        channel.set_app_identifier(identifier);
        ASSERT_NO_FATAL_FAILURE(record_calls(system, calls, [&] { return channel.init(); }));
        channel.uninit();
    }

    const int pairs = sweep(calls, channel_init_rows(), [&](Op op, int occurrence, const Row& row) {
        logferry::Logferry_client channel;
        channel.set_app_identifier(identifier);
        init_with_fault(system, op, occurrence, row, name, channel);
        if (!row.succeeds) {
            // Whatever was mapped is unmapped again.
            EXPECT_EQ(system.calls(Op::mmap), system.calls(Op::munmap) + (op == Op::mmap ? 1 : 0));
        }
        if (op == Op::clock_gettime) {
            EXPECT_EQ(channel.segment->client_watchdog, 0);  // stamped with nothing
        }
        EXPECT_EQ(count_mappings(name), row.succeeds ? 1 : 0);
        EXPECT_EQ(count_open_fds(), fds);
        EXPECT_EQ(shm_exists(name), row.succeeds || (row.residue & CHANNEL_OBJECT) != 0);
        channel.uninit();
        if (row.succeeds) {
            EXPECT_FALSE(shm_exists(name));
        }

        // The next attempt works and cleans up.
        expect_clean_success([&] { return channel.init(); });
        EXPECT_TRUE(channel.is_initialized());
        EXPECT_EQ(channel.segment->client_buffer_locked, 1);
        EXPECT_EQ(count_mappings(name), 1);
        channel.uninit();
        EXPECT_FALSE(shm_exists(name));
        EXPECT_EQ(count_mappings(name), 0);
        EXPECT_EQ(count_open_fds(), fds);
    });
    report_pairs("Logferry_client::init", pairs, 25, calls);
}

TEST_F(FaultSweep, DaemonListenerInit)
{
    Sweep_system& system = install();
    const int fds = count_open_fds();

    std::vector<Op> calls;
    {
        logferry::Logferry_listener daemon(true);
        ASSERT_EQ(daemon.lock_listener_name, lock_path());
        ASSERT_NO_FATAL_FAILURE(record_calls(system, calls, [&] { return daemon.init(); }));
        daemon.uninit();
    }
    ASSERT_EQ(count_open_fds(), fds);

    const int pairs = sweep(calls, listener_daemon_rows(), [&](Op op, int occurrence, const Row& row) {
        {
            logferry::Logferry_listener daemon(true);
            init_with_fault(system, op, occurrence, row, LISTENER_SEGMENT, daemon);
            EXPECT_EQ(count_mappings(LISTENER_SEGMENT), row.succeeds ? 1 : 0);
            expect_calls(system, row);
            if (is_mutex_setup(op)) {
                expect_mutex_setup_stopped(system, op);
            }
            // The daemon keeps its lock file open (and locked) from a successful open on, and
            // its proxy watchdogs from a successful lock on.
            const bool lock_open = op != Op::open;
            if (lock_open) {
                EXPECT_GE(daemon.lock_file.fd, 0);
            } else {
                EXPECT_EQ(daemon.lock_file.fd, -1);
            }
            EXPECT_EQ(daemon.proxy_watchdogs != nullptr, lock_open && op != Op::lockf);
            EXPECT_EQ(count_open_fds(), fds + (lock_open ? 1 : 0));
            EXPECT_EQ(daemon.lock_listener_name, (row.residue & FALLBACK) != 0 ? FALLBACK_LOCK_FILE : lock_path());
            EXPECT_EQ(path_exists(daemon.lock_listener_name), lock_open);
            EXPECT_EQ(shm_exists(LISTENER_SEGMENT), row.succeeds || (row.residue & LISTENER_OBJECT) != 0);
            if (row.succeeds) {
                daemon.uninit();  // removes the segment and the lock file
                EXPECT_FALSE(shm_exists(LISTENER_SEGMENT));
                EXPECT_FALSE(path_exists(daemon.lock_listener_name));
            }

            // The next attempt on the same object works: a fresh segment, the lock held.
            expect_clean_success([&] { return daemon.init(); });
            EXPECT_EQ(count_mappings(LISTENER_SEGMENT), 1);
            EXPECT_TRUE(entries_and_indices_zero(daemon.segment));
            EXPECT_TRUE(lock_held_by_other_process(daemon.lock_file));
            EXPECT_EQ(count_open_fds(), fds + 1);
            daemon.uninit();
            EXPECT_FALSE(shm_exists(LISTENER_SEGMENT));
            EXPECT_FALSE(path_exists(daemon.lock_listener_name));
        }
        // Destroyed: the lock file's descriptor is closed as well.
        EXPECT_EQ(count_open_fds(), fds);
        EXPECT_EQ(count_mappings(LISTENER_SEGMENT), 0);
        EXPECT_FALSE(path_exists(FALLBACK_LOCK_FILE));
    });
    report_pairs("Logferry_listener::init (daemon)", pairs, 25, calls);
}

TEST_F(FaultSweep, ApplicationListenerInit)
{
    start_daemon();
    Sweep_system& system = install();
    const int fds = count_open_fds();

    std::vector<Op> calls;
    {
        logferry::Logferry_listener application(false);
        ASSERT_NO_FATAL_FAILURE(record_calls(system, calls, [&] { return application.init(); }));
        application.uninit();
    }

    const int pairs = sweep(calls, listener_application_rows(0, 0, 0), [&](Op op, int occurrence, const Row& row) {
        logferry::Logferry_listener application(false);
        init_with_fault(system, op, occurrence, row, LISTENER_SEGMENT, application);
        expect_calls(system, row);
        EXPECT_EQ(application.lock_file.fd, -1);
        EXPECT_EQ(application.proxy_watchdogs, nullptr);  // the daemon's alone
        EXPECT_EQ(count_mappings(LISTENER_SEGMENT), row.succeeds ? 1 : 0);
        EXPECT_EQ(count_open_fds(), fds);           // the application never keeps a descriptor
        EXPECT_TRUE(shm_exists(LISTENER_SEGMENT));  // the daemon's; an application never removes it
        expect_fallback_then_undo(row, application.lock_listener_name, lock_path());
        application.uninit();
        EXPECT_EQ(count_mappings(LISTENER_SEGMENT), 0);

        expect_clean_success([&] { return application.init(); });
        EXPECT_EQ(count_mappings(LISTENER_SEGMENT), 1);
        application.uninit();
        EXPECT_EQ(count_mappings(LISTENER_SEGMENT), 0);
        EXPECT_EQ(count_open_fds(), fds);
    });
    report_pairs("Logferry_listener::init (application)", pairs, 10, calls);
}

TEST_F(FaultSweep, ConnectStep)
{
    start_daemon();
    Sweep_system& system = install();
    logferry::set_app_identifier("SWP");
    const std::string name = "/logferry-" + logferry::client.app_identifier;
    const int fds = count_open_fds();

    std::vector<Op> calls;
    {
        ASSERT_NO_FATAL_FAILURE(record_calls(system, calls, logferry::connect_channel));
        ASSERT_EQ(logferry::client.get_filename(), name);
        ASSERT_TRUE(announced(name));
        wipe_listener_list();
        reset_front_end();
    }
    ASSERT_FALSE(shm_exists(name));

    // The channel is created first, then the listener opened, then the name announced.
    std::vector<Row> table = channel_init_rows();
    const std::vector<Row> listener_rows = listener_application_rows(1, 1, 1);
    table.insert(table.end(), listener_rows.begin(), listener_rows.end());
    add_lock_rows(table, "announcement", 0);

    const int pairs = sweep(calls, table, [&](Op op, int occurrence, const Row& row) {
        const std::string part = row.part;
        bool result = !row.succeeds;
        run_with_fault(system, op, occurrence, row, name, [&] { result = logferry::connect_channel(); });
        EXPECT_EQ(result, row.succeeds);
        const bool channel_open = part != "channel init" || row.succeeds;
        const bool listener_open = part == "announcement" || row.succeeds;
        EXPECT_EQ(logferry::client.is_initialized(), channel_open);
        EXPECT_EQ(count_mappings(name), channel_open ? 1 : 0);
        EXPECT_EQ(logferry::listener.is_initialized(), listener_open);
        EXPECT_EQ(count_mappings(LISTENER_SEGMENT), listener_open ? 1 : 0);
        EXPECT_EQ(announced(name), row.succeeds);
        EXPECT_EQ(count_open_fds(), fds);
        expect_fallback_then_undo(row, logferry::listener.lock_listener_name, lock_path());
        wipe_listener_list();

        logferry::exit();
        EXPECT_EQ(count_mappings(name), 0);
        EXPECT_EQ(count_mappings(LISTENER_SEGMENT), 0);
        EXPECT_EQ(shm_exists(name), (row.residue & CHANNEL_OBJECT) != 0);
        EXPECT_EQ(count_open_fds(), fds);

        // The next attempt works.
        expect_clean_success(logferry::connect_channel);
        EXPECT_TRUE(announced(name));
        exit_leaves_nothing(name, fds);
    });
    report_pairs("logferry::connect_channel", pairs, 45, calls);
    reset_front_end();
}

TEST_F(FaultSweep, ChannelPushAndPop)
{
    Sweep_system& system = install();
    const std::string identifier = logferry_test::unique_id("p", 20);
    logferry::Logferry_client application;
    application.set_app_identifier(identifier);
    ASSERT_TRUE(application.init());
    logferry::Logferry_base daemon;
    ASSERT_TRUE(daemon.init(application.get_filename()));
    application.unlock_client_buffer();
    const std::string name = application.get_filename();
    const int fds = count_open_fds();

    const std::vector<unsigned char> log_record = {7, 3, 1, 0, 0, 0, 9, 9, 9, 9, 0, 0, 0, 0};
    const std::vector<unsigned char> level_update = {24, 5, 42, 0, 0, 0};
    const std::vector<unsigned char> registration = {3, 10, 0, 'A', 'P', 'P', '1', 0, 'x', 0};
    // Both rings and the priority area, written at one end and read at the other; the
    // priority area once through the explicit lock.
    const auto traffic = [&] {
        EXPECT_TRUE(application.push(log_record));
        EXPECT_EQ(daemon.pop(), log_record);
        EXPECT_TRUE(daemon.push(level_update));
        EXPECT_EQ(application.pop(), level_update);
        EXPECT_TRUE(application.push_priority(registration));
        daemon.lock_priority_mutex();
        EXPECT_EQ(daemon.pop_priority_unsynced(), registration);
        daemon.unlock_priority_mutex();
        EXPECT_TRUE(application.push_priority(registration));
        EXPECT_EQ(daemon.pop_priority(), registration);
    };

    std::vector<Op> calls;
    ASSERT_NO_FATAL_FAILURE(record_calls(system, calls, [&] {
        traffic();
        return true;
    }));

    std::vector<Row> table;
    add_lock_rows(table, "rings and priority area", -1);
    const int pairs = sweep(calls, table, [&](Op op, int occurrence, const Row& row) {
        run_with_fault(system, op, occurrence, row, name, traffic);
        EXPECT_EQ(count_open_fds(), fds);
        EXPECT_EQ(count_mappings(name), 2);
        // Every lock is free again, and the channel works as before.
        EXPECT_EQ(capture_stderr(traffic), "");
        EXPECT_TRUE(application.is_empty());
        EXPECT_TRUE(daemon.is_priority_empty());
    });
    report_pairs("channel push and pop", pairs, 30, calls);

    daemon.uninit();
    application.uninit();
    EXPECT_FALSE(shm_exists(name));
}

// The receiver thread's reconnect: its announcement has gone from the daemon's list (as when
// the daemon's watchdog freed it), so one pass of the thread withdraws the listener and runs
// the connect step again. The thread parks in every sleep; the test lets it run one pass at
// a time.
TEST_F(FaultSweep, ReceiverThreadReconnect)
{
    Sweep_system& system = install_parked("SWR");
    bring_up_parked();
    wipe_listener_list();
    std::vector<Op> calls;
    ASSERT_NO_FATAL_FAILURE(record_calls(system, calls, [&] { return system.run_one_pass(); }));
    ASSERT_TRUE(announced(name_));
    ASSERT_EQ(system.sleeps_ms().back(), 50u);
    wipe_listener_list();
    logferry::exit();
    ASSERT_EQ(count_open_fds(), fds_);

    std::vector<Row> table = {
        {"connection check", Op::clock_gettime, 0, {-1, EINVAL}, true, GETTIME, NO_RESIDUE},
        {"listener withdrawal", Op::munmap, 0, {-1, EINVAL}, true, UNMAP, LISTENER_MAPPING},
    };
    add_lock_rows(table, "announcement check", 0);
    const std::vector<Row> listener_rows = listener_application_rows(0, 0, 0);
    table.insert(table.end(), listener_rows.begin(), listener_rows.end());
    add_lock_rows(table, "announcement", 1);

    const int pairs = sweep(calls, table, [&](Op op, int occurrence, const Row& row) {
        bring_up_parked();
        wipe_listener_list();
        void* const old_listener_mapping = logferry::listener.segment;

        run_with_fault(system, op, occurrence, row, name_, [&] { EXPECT_TRUE(system.run_one_pass()); });
        EXPECT_EQ(announced(name_), row.succeeds);
        EXPECT_EQ(logferry::listener.is_initialized(), row.succeeds);
        // Announced again: the next look in 50 ms; otherwise the next try in a second.
        EXPECT_EQ(system.sleeps_ms().back(), row.succeeds ? 50u : 1000u);
        const bool leaked = (row.residue & LISTENER_MAPPING) != 0;
        EXPECT_EQ(count_mappings(LISTENER_SEGMENT), (row.succeeds ? 1 : 0) + (leaked ? 1 : 0));
        EXPECT_EQ(count_mappings(name_), 1);
        EXPECT_TRUE(logferry::client.is_initialized());
        EXPECT_EQ(count_open_fds(), fds_);
        expect_fallback_then_undo(row, logferry::listener.lock_listener_name, lock_path());
        if (leaked) {
            ::munmap(old_listener_mapping, logferry::LISTENER_SEGMENT_SIZE);
        }

        next_pass_announces_then_exit();
    });
    report_pairs("receiver thread reconnect", pairs, 20, calls);
}

// The sleeps of the receiver thread's reconnect, each interrupted by a signal (nanosleep
// reports EINTR half-way): the pause after a pass that announced the channel (50 ms) and the
// one after a connect step that failed (1 s) still last their whole time, the interrupted
// request is followed by one for exactly the time left, the pass says and leaves what it
// would have without the signal, and the next pass announces the channel.
TEST_F(FaultSweep, ReceiverThreadSleepsInterrupted)
{
    Sweep_system& system = install_parked("SWI");

    struct Sleep_case {
        const char* what;
        bool connect_fails;  // the lock file cannot be opened: no daemon is seen
        Op sleep;
        long pause_ns;
    };
    const Sleep_case cases[] = {
        {"pause after announcing", false, Op::sleep_for_milliseconds, 50000000L},
        {"pause after a failed connect step", true, Op::sleep_for_seconds, 1000000000L},
    };
    std::vector<Op> calls;
    int pairs = 0;
    for (const Sleep_case& sleep_case : cases) {
        SCOPED_TRACE(sleep_case.what);
        Hang_guard guard(sleep_case.what, std::chrono::seconds(30));
        bring_up_parked();
        const pthread_t receiver = logferry::message_receiver_thread.native_handle();
        wipe_listener_list();

        // This pass sleeps for real, and its sleep is interrupted once.
        system.fake_sleeps(false);
        if (sleep_case.connect_fails) {
            system.inject(Op::open, 0, {-1, EACCES});
        }
        logferry_test::take_nanosleep_calls();
        logferry_test::interrupt_nanosleeps_of(receiver, 1);
        system.start_recording();
        const auto started = std::chrono::steady_clock::now();
        const std::string output = capture_stderr([&] { EXPECT_TRUE(system.run_one_pass()); });
        const auto slept = std::chrono::steady_clock::now() - started;
        const std::vector<Op> made = system.stop_recording();
        ASSERT_FALSE(made.empty());
        EXPECT_EQ(op_name(made.back()), op_name(sleep_case.sleep));  // the pass ends in that pause
        logferry_test::interrupt_nanosleeps(0);
        system.fake_sleeps(true);
        if (sleep_case.connect_fails) {
            EXPECT_TRUE(system.clear()) << "the lock file was not opened";
        }

        std::vector<logferry_test::Nanosleep_call> sleeps;
        for (const logferry_test::Nanosleep_call& call : logferry_test::take_nanosleep_calls()) {
            if (::pthread_equal(call.thread, receiver) != 0) {
                sleeps.push_back(call);
            }
        }
        ASSERT_EQ(sleeps.size(), 2u);
        EXPECT_TRUE(sleeps[0].interrupted);
        EXPECT_EQ(sleeps[0].request.tv_sec * 1000000000L + sleeps[0].request.tv_nsec, sleep_case.pause_ns);
        EXPECT_FALSE(sleeps[1].interrupted);
        EXPECT_EQ(sleeps[1].request.tv_sec * 1000000000L + sleeps[1].request.tv_nsec, sleep_case.pause_ns / 2);
        EXPECT_GE(std::chrono::duration_cast<std::chrono::nanoseconds>(slept).count(), sleep_case.pause_ns);
        EXPECT_EQ(output, "");
        EXPECT_EQ(announced(name_), !sleep_case.connect_fails);
        EXPECT_EQ(logferry::listener.is_initialized(), !sleep_case.connect_fails);
        EXPECT_TRUE(logferry::client.is_initialized());
        EXPECT_EQ(count_open_fds(), fds_);
        calls.push_back(made.back());
        ++pairs;

        next_pass_announces_then_exit();
    }
    report_pairs("receiver thread sleeps (EINTR)", pairs, 2, calls);
}

// logferry::exit with the receiver thread running: the thread wakes, looks at the connection
// once more, handles what the daemon wrote back and ends; then the channel and the listener
// are closed.
TEST_F(FaultSweep, Exit)
{
    Sweep_system& system = install_parked("SWE");
    bring_up_parked();
    std::vector<Op> calls;
    ASSERT_NO_FATAL_FAILURE(record_calls(system, calls, exit_library));
    ASSERT_FALSE(shm_exists(name_));
    wipe_listener_list();
    ASSERT_EQ(count_open_fds(), fds_);

    std::vector<Row> table = {
        {"receiver thread's last connection check", Op::clock_gettime, 0, {-1, EINVAL}, true, GETTIME, NO_RESIDUE},
        // The channel's unmapping and removal report nothing; what they could not do stays.
        {"channel close", Op::munmap, 0, {-1, EINVAL}, true, "", CHANNEL_MAPPING},
        {"channel close", Op::shm_unlink, 0, {-1, EACCES}, true, "", CHANNEL_OBJECT},
        {"channel close", Op::shm_unlink, 0, {-1, EPERM}, true, "", CHANNEL_OBJECT},
        {"listener close", Op::munmap, 1, {-1, EINVAL}, true, UNMAP, LISTENER_MAPPING},
    };
    add_lock_rows(table, "receiver thread's last look at the daemon's ring", 0);

    const int pairs = sweep(calls, table, [&](Op op, int occurrence, const Row& row) {
        bring_up_parked();
        void* const channel_mapping = logferry::client.segment;
        void* const listener_mapping = logferry::listener.segment;

        run_with_fault(system, op, occurrence, row, name_, logferry::exit);
        EXPECT_FALSE(logferry::message_receiver_thread.joinable());
        EXPECT_FALSE(logferry::init_called.load());
        EXPECT_FALSE(logferry::client.is_initialized());
        EXPECT_FALSE(logferry::listener.is_initialized());
        const bool channel_leaked = (row.residue & CHANNEL_MAPPING) != 0;
        const bool listener_leaked = (row.residue & LISTENER_MAPPING) != 0;
        EXPECT_EQ(count_mappings(name_), channel_leaked ? 1 : 0);
        EXPECT_EQ(count_mappings(LISTENER_SEGMENT), listener_leaked ? 1 : 0);
        EXPECT_EQ(shm_exists(name_), (row.residue & CHANNEL_OBJECT) != 0);
        EXPECT_EQ(count_open_fds(), fds_);
        if (channel_leaked) {
            ::munmap(channel_mapping, logferry::CHANNEL_SEGMENT_SIZE);
        }
        if (listener_leaked) {
            ::munmap(listener_mapping, logferry::LISTENER_SEGMENT_SIZE);
        }
        wipe_listener_list();

        // The next init and exit work and leave nothing.
        bring_up_parked();
        expect_clean_success(exit_library);
        EXPECT_FALSE(shm_exists(name_));
        EXPECT_EQ(count_mappings(name_), 0);
        EXPECT_EQ(count_mappings(LISTENER_SEGMENT), 0);
        EXPECT_EQ(count_open_fds(), fds_);
        wipe_listener_list();
    });
    report_pairs("logferry::exit", pairs, 10, calls);
}
