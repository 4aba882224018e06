#ifndef LOGFERRY_TEST_FAKE_SYSTEM_HPP
#define LOGFERRY_TEST_FAKE_SYSTEM_HPP

// A stand-in operating system for tests: forwards every call to the real one unless the test
// set a fault for it, counts every call, and can run on a fake monotonic clock whose time
// only moves when the test (or a faked sleep) moves it.

#include <array>
#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "logferry/system.hpp"

namespace logferry_test {

enum class Op : int {
    open,
    close,
    lockf,
    unlink,
    ftruncate,
    clock_gettime,
    getpid,
    pthread_mutexattr_init,
    pthread_mutexattr_settype,
    pthread_mutexattr_setpshared,
    pthread_mutexattr_setrobust,
    pthread_mutexattr_destroy,
    pthread_mutex_init,
    pthread_mutex_lock,
    pthread_mutex_trylock,
    pthread_mutex_unlock,
    pthread_mutex_consistent,
    mmap,
    munmap,
    shm_open,
    shm_unlink,
    stat,
    chown,
    sleep_for_milliseconds,
    sleep_for_seconds,
    count
};

constexpr int OP_COUNT = static_cast<int>(Op::count);
const char* op_name(Op op);

class Fake_system : public logferry::System_lib {
public:
    Fake_system();
    ~Fake_system();
    Fake_system(const Fake_system&) = delete;
    Fake_system& operator=(const Fake_system&) = delete;

    // The calls of `op` after the next `skip` ones fail `times` times (-1: for ever): they
    // return `result` (-1 gives MAP_FAILED for mmap; pthread calls return their error code)
    // and set errno to `error`, without reaching the system.
    void fail(Op op, long result, int error, int times = 1, int skip = 0);
    void clear_faults();
    int calls(Op op) const;
    // The operations called since the last reset with their counts ("open 1, close 2"), ""
    // when there were none.
    std::string calls_made() const;
    void reset_calls();

    // A fake monotonic clock: clock_gettime then returns this time instead of the real one.
    void set_time(long seconds, long nanoseconds = 0);
    void advance_ms(unsigned int ms);
    void use_real_clock();
    // With fake sleeps on, sleeps return at once, are recorded and advance the fake clock.
    void fake_sleeps(bool on);
    std::vector<unsigned int> sleeps_ms() const;
    // Called with every operation before it is carried out (under no lock of this object).
    void on_call(std::function<void(Op)> hook);

    int open(const char* path, int flags, unsigned int mode) override;
    int close(int fd) override;
    int lockf(int fd, int cmd, long len) override;
    int unlink(const char* path) override;
    int ftruncate(int fd, long length) override;
    int clock_gettime(int clock_id, timespec* ts) override;
    int getpid() override;
    int pthread_mutexattr_init(pthread_mutexattr_t* attr) override;
    int pthread_mutexattr_settype(pthread_mutexattr_t* attr, int kind) override;
    int pthread_mutexattr_setpshared(pthread_mutexattr_t* attr, int pshared) override;
    int pthread_mutexattr_setrobust(pthread_mutexattr_t* attr, int robustness) override;
    int pthread_mutexattr_destroy(pthread_mutexattr_t* attr) override;
    int pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attr) override;
    int pthread_mutex_lock(pthread_mutex_t* mutex) override;
    int pthread_mutex_trylock(pthread_mutex_t* mutex) override;
    int pthread_mutex_unlock(pthread_mutex_t* mutex) override;
    int pthread_mutex_consistent(pthread_mutex_t* mutex) override;
    void* mmap(void* addr, unsigned long length, int prot, int flags, int fd, long offset) override;
    int munmap(void* addr, unsigned long length) override;
    int shm_open(const char* name, int flags, unsigned int mode) override;
    int shm_unlink(const char* name) override;
    int stat(const char* path, struct stat* buf) override;
    int chown(const char* path, int owner, unsigned int group) override;
    void sleep_for_milliseconds(unsigned int ms) override;
    void sleep_for_seconds(unsigned int s) override;

    // Around fork (installed through pthread_atfork for the fake that `sys` points at).
    void lock_for_fork();
    void unlock_after_fork();

private:
    struct Fault {
        bool armed = false;
        long result = 0;
        int error = 0;
        int times = 0;
        int skip = 0;
    };
    // Counts the call and tells whether it is to fail (then `result` and errno are set).
    bool intercept(Op op, long& result);
    // A sleep of `ms` milliseconds as `op`: counted, ended at once by a fault, and with fake
    // sleeps on recorded and moving the fake clock. Whether it is over (else it is the real
    // system's to sleep).
    bool sleep_handled(Op op, unsigned int ms);

    mutable std::mutex mutex_;
    std::array<std::atomic<int>, OP_COUNT> counters_;
    std::array<Fault, OP_COUNT> faults_;
    bool fake_clock_ = false;
    timespec now_{};
    bool fake_sleeps_ = false;
    std::vector<unsigned int> sleeps_;
    std::function<void(Op)> hook_;
};

// Points logferry::sys at a system for the lifetime of the object, then restores it.
class Scoped_system {
public:
    explicit Scoped_system(logferry::System_lib* system);
    ~Scoped_system();
    Scoped_system(const Scoped_system&) = delete;
    Scoped_system& operator=(const Scoped_system&) = delete;

private:
    logferry::System_lib* previous_;
};

}  // namespace logferry_test

#endif
