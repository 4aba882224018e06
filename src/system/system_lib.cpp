#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>

#include "jx/osal/common/runstate.hpp"
#include "logferry/system.hpp"

#if defined(__clang__)
#define LOGFERRY_CONSTINIT [[clang::require_constant_initialization]]
#else
#define LOGFERRY_CONSTINIT __constinit
#endif

namespace logferry {

namespace {

// The library's own instance; it has no state, so constant initialisation makes it usable
// before any static constructor runs.
// NOLINTNEXTLINE(cppcoreguidelines-virtual-class-destructor): final, and the seam has no virtual destructor by design
class Default_system final : public System_lib {
public:
    constexpr Default_system() noexcept = default;
};

LOGFERRY_CONSTINIT Default_system default_system;

void sleep_for(timespec request)
{
    while (::nanosleep(&request, &request) == -1 && errno == EINTR) {
    }
}

}  // namespace

LOGFERRY_CONSTINIT System_lib* sys = &default_system;

int System_lib::open(const char* path, int flags, unsigned int mode)
{
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-vararg): POSIX open takes its mode as a vararg
    return ::open(path, flags, mode);
}
int System_lib::close(int fd) { return ::close(fd); }
int System_lib::lockf(int fd, int cmd, long len) { return ::lockf(fd, cmd, len); }
int System_lib::unlink(const char* path) { return ::unlink(path); }
int System_lib::ftruncate(int fd, long length) { return ::ftruncate(fd, length); }
int System_lib::clock_gettime(int clock_id, timespec* ts) { return ::clock_gettime(clock_id, ts); }
int System_lib::getpid() { return ::getpid(); }
int System_lib::pthread_mutexattr_init(pthread_mutexattr_t* attr) { return ::pthread_mutexattr_init(attr); }
int System_lib::pthread_mutexattr_settype(pthread_mutexattr_t* attr, int kind)
{
    return ::pthread_mutexattr_settype(attr, kind);
}
int System_lib::pthread_mutexattr_setpshared(pthread_mutexattr_t* attr, int pshared)
{
    return ::pthread_mutexattr_setpshared(attr, pshared);
}
int System_lib::pthread_mutexattr_setrobust(pthread_mutexattr_t* attr, int robustness)
{
    return ::pthread_mutexattr_setrobust(attr, robustness);
}
int System_lib::pthread_mutexattr_destroy(pthread_mutexattr_t* attr) { return ::pthread_mutexattr_destroy(attr); }
int System_lib::pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attr)
{
    return ::pthread_mutex_init(mutex, attr);
}
int System_lib::pthread_mutex_lock(pthread_mutex_t* mutex) { return ::pthread_mutex_lock(mutex); }
int System_lib::pthread_mutex_trylock(pthread_mutex_t* mutex) { return ::pthread_mutex_trylock(mutex); }
int System_lib::pthread_mutex_unlock(pthread_mutex_t* mutex) { return ::pthread_mutex_unlock(mutex); }
int System_lib::pthread_mutex_consistent(pthread_mutex_t* mutex) { return ::pthread_mutex_consistent(mutex); }
void* System_lib::mmap(void* addr, unsigned long length, int prot, int flags, int fd, long offset)
{
    return ::mmap(addr, length, prot, flags, fd, offset);
}
int System_lib::munmap(void* addr, unsigned long length) { return ::munmap(addr, length); }
int System_lib::shm_open(const char* name, int flags, unsigned int mode) { return ::shm_open(name, flags, mode); }
int System_lib::shm_unlink(const char* name) { return ::shm_unlink(name); }
int System_lib::stat(const char* path, struct stat* buf) { return ::stat(path, buf); }
int System_lib::chown(const char* path, int owner, unsigned int group)
{
    return ::chown(path, static_cast<uid_t>(owner), static_cast<gid_t>(group));
}

void System_lib::sleep_for_milliseconds(unsigned int ms)
{
    if (ms == 0) {
        return;
    }
    timespec request{};
    request.tv_sec = static_cast<time_t>(ms / 1000);
    request.tv_nsec = static_cast<long>(ms % 1000) * 1000000L;
    sleep_for(request);
}

void System_lib::sleep_for_seconds(unsigned int s)
{
    if (s == 0) {
        return;
    }
    timespec request{};
    request.tv_sec = static_cast<time_t>(s);
    sleep_for(request);
}

std::string get_full_adaptive_runstate_directory() { return jx::osal::common::get_full_adaptive_runstate_dir(); }

void report_error(const std::string& text)
{
    std::string line;
    line.reserve(text.size() + 11);
    line.append("logferry: ").append(text).append("\n");
    std::cerr << line << std::flush;
}

void report_error(const std::string& text, int code)
{
    char buffer[256];
    // GNU strerror_r returns a pointer to the text, which may or may not be `buffer`.
    const char* message = ::strerror_r(code, buffer, sizeof buffer);
    report_error(message != nullptr ? text + message : text);
}

}  // namespace logferry
