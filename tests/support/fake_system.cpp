#include "support/fake_system.hpp"

#include <errno.h>
#include <sys/mman.h>

namespace logferry_test {

const char* op_name(Op op)
{
    static const char* const names[OP_COUNT] = {"open",
                                                "close",
                                                "lockf",
                                                "unlink",
                                                "ftruncate",
                                                "clock_gettime",
                                                "getpid",
                                                "pthread_mutexattr_init",
                                                "pthread_mutexattr_settype",
                                                "pthread_mutexattr_setpshared",
                                                "pthread_mutexattr_setrobust",
                                                "pthread_mutexattr_destroy",
                                                "pthread_mutex_init",
                                                "pthread_mutex_lock",
                                                "pthread_mutex_trylock",
                                                "pthread_mutex_unlock",
                                                "pthread_mutex_consistent",
                                                "mmap",
                                                "munmap",
                                                "shm_open",
                                                "shm_unlink",
                                                "stat",
                                                "chown",
                                                "sleep_for_milliseconds",
                                                "sleep_for_seconds"};
    const int index = static_cast<int>(op);
    return index >= 0 && index < OP_COUNT ? names[index] : "?";
}

namespace {
// A child made by fork while another thread was inside the installed fake would find the
// fake's lock held for ever: fork waits until no thread is inside it.
Fake_system* fake_held_across_fork = nullptr;
void hold_fake_for_fork()
{
    fake_held_across_fork = dynamic_cast<Fake_system*>(logferry::sys);
    if (fake_held_across_fork != nullptr) {
        fake_held_across_fork->lock_for_fork();
    }
}
void release_fake_after_fork()
{
    if (fake_held_across_fork != nullptr) {
        fake_held_across_fork->unlock_after_fork();
        fake_held_across_fork = nullptr;
    }
}
}  // namespace

Fake_system::Fake_system()
{
    for (auto& counter : counters_) {
        counter = 0;
    }
    static const bool guarded =
        ::pthread_atfork(hold_fake_for_fork, release_fake_after_fork, release_fake_after_fork) == 0;
    (void)guarded;
}

void Fake_system::lock_for_fork() { mutex_.lock(); }  // NOLINT: released by unlock_after_fork
void Fake_system::unlock_after_fork() { mutex_.unlock(); }

Fake_system::~Fake_system() = default;

void Fake_system::fail(Op op, long result, int error, int times, int skip)
{
    std::lock_guard<std::mutex> lock(mutex_);
    Fault& fault = faults_[static_cast<int>(op)];
    fault.armed = true;
    fault.result = result;
    fault.error = error;
    fault.times = times;
    fault.skip = skip;
}

void Fake_system::clear_faults()
{
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto& fault : faults_) {
        fault = Fault{};
    }
}

int Fake_system::calls(Op op) const { return counters_[static_cast<int>(op)].load(); }

std::string Fake_system::calls_made() const
{
    std::string made;
    for (int op = 0; op < OP_COUNT; ++op) {
        if (const int count = counters_[op].load()) {
            made += std::string(made.empty() ? "" : ", ") + op_name(static_cast<Op>(op)) + " " + std::to_string(count);
        }
    }
    return made;
}

void Fake_system::reset_calls()
{
    for (auto& counter : counters_) {
        counter = 0;
    }
}

void Fake_system::set_time(long seconds, long nanoseconds)
{
    std::lock_guard<std::mutex> lock(mutex_);
    fake_clock_ = true;
    now_.tv_sec = seconds;
    now_.tv_nsec = nanoseconds;
}

void Fake_system::advance_ms(unsigned int ms)
{
    std::lock_guard<std::mutex> lock(mutex_);
    long nanoseconds = now_.tv_nsec + static_cast<long>(ms % 1000) * 1000000L;
    now_.tv_sec += static_cast<long>(ms / 1000) + nanoseconds / 1000000000L;
    now_.tv_nsec = nanoseconds % 1000000000L;
}

void Fake_system::use_real_clock()
{
    std::lock_guard<std::mutex> lock(mutex_);
    fake_clock_ = false;
}

void Fake_system::fake_sleeps(bool on)
{
    std::lock_guard<std::mutex> lock(mutex_);
    fake_sleeps_ = on;
}

std::vector<unsigned int> Fake_system::sleeps_ms() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return sleeps_;
}

void Fake_system::on_call(std::function<void(Op)> hook)
{
    std::lock_guard<std::mutex> lock(mutex_);
    hook_ = std::move(hook);
}

bool Fake_system::intercept(Op op, long& result)
{
    counters_[static_cast<int>(op)]++;
    std::function<void(Op)> hook;
    bool failing = false;
    int error = 0;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        hook = hook_;
        Fault& fault = faults_[static_cast<int>(op)];
        if (fault.armed) {
            if (fault.skip > 0) {
                --fault.skip;
            } else if (fault.times != 0) {
                if (fault.times > 0) {
                    --fault.times;
                }
                failing = true;
                result = fault.result;
                error = fault.error;
            }
        }
    }
    if (hook) {
        hook(op);
    }
    if (failing) {
        errno = error;
    }
    return failing;
}

#define LOGFERRY_FAKE_INT(op, call)      \
    long result = 0;                     \
    if (intercept(Op::op, result)) {     \
        return static_cast<int>(result); \
    }                                    \
    return call

int Fake_system::open(const char* path, int flags, unsigned int mode)
{
    LOGFERRY_FAKE_INT(open, System_lib::open(path, flags, mode));
}
int Fake_system::close(int fd) { LOGFERRY_FAKE_INT(close, System_lib::close(fd)); }
int Fake_system::lockf(int fd, int cmd, long len) { LOGFERRY_FAKE_INT(lockf, System_lib::lockf(fd, cmd, len)); }
int Fake_system::unlink(const char* path) { LOGFERRY_FAKE_INT(unlink, System_lib::unlink(path)); }
int Fake_system::ftruncate(int fd, long length) { LOGFERRY_FAKE_INT(ftruncate, System_lib::ftruncate(fd, length)); }
int Fake_system::clock_gettime(int clock_id, timespec* ts)
{
    long result = 0;
    if (intercept(Op::clock_gettime, result)) {
        return static_cast<int>(result);
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (fake_clock_) {
            *ts = now_;
            return 0;
        }
    }
    return System_lib::clock_gettime(clock_id, ts);
}
int Fake_system::getpid() { LOGFERRY_FAKE_INT(getpid, System_lib::getpid()); }
int Fake_system::pthread_mutexattr_init(pthread_mutexattr_t* attr)
{
    LOGFERRY_FAKE_INT(pthread_mutexattr_init, System_lib::pthread_mutexattr_init(attr));
}
int Fake_system::pthread_mutexattr_settype(pthread_mutexattr_t* attr, int kind)
{
    LOGFERRY_FAKE_INT(pthread_mutexattr_settype, System_lib::pthread_mutexattr_settype(attr, kind));
}
int Fake_system::pthread_mutexattr_setpshared(pthread_mutexattr_t* attr, int pshared)
{
    LOGFERRY_FAKE_INT(pthread_mutexattr_setpshared, System_lib::pthread_mutexattr_setpshared(attr, pshared));
}
int Fake_system::pthread_mutexattr_setrobust(pthread_mutexattr_t* attr, int robustness)
{
    LOGFERRY_FAKE_INT(pthread_mutexattr_setrobust, System_lib::pthread_mutexattr_setrobust(attr, robustness));
}
int Fake_system::pthread_mutexattr_destroy(pthread_mutexattr_t* attr)
{
    LOGFERRY_FAKE_INT(pthread_mutexattr_destroy, System_lib::pthread_mutexattr_destroy(attr));
}
int Fake_system::pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attr)
{
    LOGFERRY_FAKE_INT(pthread_mutex_init, System_lib::pthread_mutex_init(mutex, attr));
}
int Fake_system::pthread_mutex_lock(pthread_mutex_t* mutex)
{
    LOGFERRY_FAKE_INT(pthread_mutex_lock, System_lib::pthread_mutex_lock(mutex));
}
int Fake_system::pthread_mutex_trylock(pthread_mutex_t* mutex)
{
    LOGFERRY_FAKE_INT(pthread_mutex_trylock, System_lib::pthread_mutex_trylock(mutex));
}
int Fake_system::pthread_mutex_unlock(pthread_mutex_t* mutex)
{
    LOGFERRY_FAKE_INT(pthread_mutex_unlock, System_lib::pthread_mutex_unlock(mutex));
}
int Fake_system::pthread_mutex_consistent(pthread_mutex_t* mutex)
{
    LOGFERRY_FAKE_INT(pthread_mutex_consistent, System_lib::pthread_mutex_consistent(mutex));
}
void* Fake_system::mmap(void* addr, unsigned long length, int prot, int flags, int fd, long offset)
{
    long result = 0;
    if (intercept(Op::mmap, result)) {
        return result == -1 ? MAP_FAILED : reinterpret_cast<void*>(result);
    }
    return System_lib::mmap(addr, length, prot, flags, fd, offset);
}
int Fake_system::munmap(void* addr, unsigned long length)
{
    LOGFERRY_FAKE_INT(munmap, System_lib::munmap(addr, length));
}
int Fake_system::shm_open(const char* name, int flags, unsigned int mode)
{
    LOGFERRY_FAKE_INT(shm_open, System_lib::shm_open(name, flags, mode));
}
int Fake_system::shm_unlink(const char* name) { LOGFERRY_FAKE_INT(shm_unlink, System_lib::shm_unlink(name)); }
int Fake_system::stat(const char* path, struct stat* buf) { LOGFERRY_FAKE_INT(stat, System_lib::stat(path, buf)); }
int Fake_system::chown(const char* path, int owner, unsigned int group)
{
    LOGFERRY_FAKE_INT(chown, System_lib::chown(path, owner, group));
}

#undef LOGFERRY_FAKE_INT

bool Fake_system::sleep_handled(Op op, unsigned int ms)
{
    long ignored = 0;
    if (intercept(op, ignored)) {
        return true;
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!fake_sleeps_) {
            return false;
        }
        sleeps_.push_back(ms);
    }
    advance_ms(ms);
    return true;
}

void Fake_system::sleep_for_milliseconds(unsigned int ms)
{
    if (!sleep_handled(Op::sleep_for_milliseconds, ms)) {
        System_lib::sleep_for_milliseconds(ms);
    }
}

void Fake_system::sleep_for_seconds(unsigned int s)
{
    if (!sleep_handled(Op::sleep_for_seconds, s * 1000U)) {
        System_lib::sleep_for_seconds(s);
    }
}

Scoped_system::Scoped_system(logferry::System_lib* system) : previous_(logferry::sys) { logferry::sys = system; }

Scoped_system::~Scoped_system() { logferry::sys = previous_; }

}  // namespace logferry_test
