#ifndef LOGFERRY_SYSTEM_HPP
#define LOGFERRY_SYSTEM_HPP

#include <pthread.h>
#include <sys/stat.h>
#include <time.h>  // NOLINT(modernize-deprecated-headers): POSIX timespec, as the system seam passes it

#include <string>

#include "logferry/export.hpp"

namespace logferry {

/// The operating-system seam: every call the library makes to the system goes through the
/// object that `sys` points at. Each operation forwards to the POSIX call of the same name and
/// returns its result unchanged; a test or a port installs a derived object instead.
/// There is deliberately no virtual destructor: instances are never deleted through this type.
class LOGFERRY_API System_lib {
public:
    /// \name POSIX calls
    /// Each forwards to the POSIX call of the same name and returns its result unchanged.
    ///@{

    /// Forwards to the POSIX call of the same name and returns its result unchanged.
    virtual int open(const char* path, int flags, unsigned int mode);
    virtual int close(int fd);
    virtual int lockf(int fd, int cmd, long len);
    virtual int unlink(const char* path);
    virtual int ftruncate(int fd, long length);
    virtual int clock_gettime(int clock_id, timespec* ts);
    virtual int getpid();
    virtual int pthread_mutexattr_init(pthread_mutexattr_t* attr);
    virtual int pthread_mutexattr_settype(pthread_mutexattr_t* attr, int kind);
    virtual int pthread_mutexattr_setpshared(pthread_mutexattr_t* attr, int pshared);
    virtual int pthread_mutexattr_setrobust(pthread_mutexattr_t* attr, int robustness);
    virtual int pthread_mutexattr_destroy(pthread_mutexattr_t* attr);
    virtual int pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attr);
    virtual int pthread_mutex_lock(pthread_mutex_t* mutex);
    virtual int pthread_mutex_trylock(pthread_mutex_t* mutex);
    virtual int pthread_mutex_unlock(pthread_mutex_t* mutex);
    virtual int pthread_mutex_consistent(pthread_mutex_t* mutex);
    virtual void* mmap(void* addr, unsigned long length, int prot, int flags, int fd, long offset);
    virtual int munmap(void* addr, unsigned long length);
    virtual int shm_open(const char* name, int flags, unsigned int mode);
    virtual int shm_unlink(const char* name);
    virtual int stat(const char* path, struct stat* buf);
    virtual int chown(const char* path, int owner, unsigned int group);
    ///@}

    /// \name Sleeps
    /// Sleep the whole time, resuming after signals; 0 returns at once without a system call.
    ///@{

    /// Sleeps `ms` milliseconds.
    virtual void sleep_for_milliseconds(unsigned int ms);
    /// Sleeps `s` seconds.
    virtual void sleep_for_seconds(unsigned int s);
    ///@}

protected:
    /// Not deleted through this type.
    ~System_lib() = default;
};

/// Points at the library's own default instance from load time on (constant-initialised).
LOGFERRY_API extern System_lib* sys;

/// Scoped lock of a robust process-shared mutex. A lock whose previous holder died is taken
/// over and made consistent; other lock errors are reported and the section runs unlocked.
class LOGFERRY_API Mutex_lock_guard {
public:
    /// Locks `mutex`, unless the caller `already_locked` it; the guard unlocks it either way.
    Mutex_lock_guard(pthread_mutex_t* mutex, bool already_locked);
    /// Unlocks the mutex.
    ~Mutex_lock_guard();
    Mutex_lock_guard(const Mutex_lock_guard&) = delete;
    Mutex_lock_guard& operator=(const Mutex_lock_guard&) = delete;

    pthread_mutex_t* mutex;  ///< The guarded mutex.
};

/// Owns one file descriptor (negative: none) and closes it through `sys`.
class LOGFERRY_API File_descriptor_guard {
public:
    /// Takes ownership of `fd`.
    explicit File_descriptor_guard(int fd);
    /// Closes the descriptor it owns.
    ~File_descriptor_guard();
    File_descriptor_guard(const File_descriptor_guard&) = delete;
    File_descriptor_guard& operator=(const File_descriptor_guard&) = delete;

    /// Closes the descriptor it owns, if any, and then owns none.
    void close_descriptor();
    /// Closes the descriptor it owns (unless it is `fd`) and takes ownership of `fd`.
    File_descriptor_guard& operator=(int const& fd) &;
    /// Whether its descriptor equals `other`.
    bool operator==(int const& other) const;
    /// The descriptor it owns.
    operator int() const;

    int fd;  ///< The owned descriptor, negative when none.
};

/// The platform's run-state directory, without a trailing separator.
LOGFERRY_API std::string get_full_adaptive_runstate_directory();

/// One diagnostic line on the standard error stream: "logferry: " + text, newline, flush.
LOGFERRY_API void report_error(const std::string& text);
/// The same followed by the system's text for `code` (nothing when it has none); `text`
/// ends with its own ": " where one is wanted.
LOGFERRY_API void report_error(const std::string& text, int code);

}  // namespace logferry

#endif
