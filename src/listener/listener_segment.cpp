// The listener segment and the daemon's lock file: creation, attachment and teardown.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "logferry/listener.hpp"
#include "logferry/system.hpp"
#include "system/robust_mutex.hpp"

namespace logferry {

namespace {

const char* const LISTENER_SHM_NAME = "/logferry-daemon-listener";
const char* const LISTENER_SHM_PATH = "/dev/shm/logferry-daemon-listener";
const char* const FALLBACK_LOCK_NAME = "/tmp/logferry-daemon-listener.lock";
const char* const LOCK_DIRECTORY_SUFFIX = "/ara_DLT/";
constexpr unsigned int LISTENER_MODE = 0660;
constexpr unsigned int LISTENER_GROUP_ID = 1051;

void* map_segment(int fd)
{
    return sys->mmap(nullptr, LISTENER_SEGMENT_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
}

}  // namespace

Logferry_listener::~Logferry_listener()
{
    // The members then go in reverse order: the path, the watchdogs and last the lock file,
    // whose closing releases the daemon's lock.
    uninit();
}

void Logferry_listener::check_lock_listener_name()
{
    const std::string directory = get_full_adaptive_runstate_directory() + LOCK_DIRECTORY_SUFFIX;
    struct stat info {};
    if (sys->stat(directory.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
        return;
    }
    // Once on the fallback, stay there: a run-state directory that appears later does not move
    // the lock file of a daemon that may already hold the other one.
    lock_listener_name = FALLBACK_LOCK_NAME;
}

bool Logferry_listener::init()
{
    if (initialized) {
        return true;
    }
    own_entry = -1;
    unacknowledged_checks = 0;
    check_lock_listener_name();

    if (listening) {
        lock_file = sys->open(lock_listener_name.c_str(), O_WRONLY | O_CREAT, LISTENER_MODE);
        if (lock_file == -1) {
            return false;
        }
        // Blocks while another daemon holds the lock; kept until the lock file is closed.
        if (sys->lockf(lock_file, F_LOCK, 0) == -1) {
            report_error("error while locking the file: ", errno);
            return false;
        }
        proxy_watchdogs = std::make_unique<std::int64_t[]>(LISTENER_ENTRY_COUNT);
    } else {
        lock_file = sys->open(lock_listener_name.c_str(), O_RDONLY, LISTENER_MODE);
        if (lock_file == -1) {
            return false;  // no lock file: no daemon has run
        }
        const int tested = sys->lockf(lock_file, F_TEST, 0);
        const int test_errno = errno;
        // The application only looks at the lock; it never keeps the file open.
        lock_file.close_descriptor();
        if (tested != -1) {
            return false;  // nobody holds the lock: the daemon is gone
        }
        if (test_errno != EAGAIN && test_errno != EACCES) {
            return false;
        }
    }

    File_descriptor_guard descriptor(-1);  // closed on return; the mapping stays
    bool mapped = false;
    if (listening) {
        sys->shm_unlink(LISTENER_SHM_NAME);  // applications still mapped keep the stale one
        const int fd = sys->shm_open(LISTENER_SHM_NAME, O_RDWR | O_CREAT, LISTENER_MODE);
        // The group is set before the result of shm_open is looked at; a failed open therefore
        // reports errno as chown left it.
        const bool owner_failed = sys->chown(LISTENER_SHM_PATH, -1, LISTENER_GROUP_ID) < 0;
        const int saved_errno = errno;
        if (owner_failed) {
            report_error(std::string("error setting owner of ") + LISTENER_SHM_NAME + ": ", saved_errno);
        }
        descriptor = fd;
        if (fd < 0) {
            report_error("error while opening the shared memory: ", saved_errno);
            return false;
        }
        mapped = init_shm(descriptor);
    } else {
        const int fd = sys->shm_open(LISTENER_SHM_NAME, O_RDWR, LISTENER_MODE);
        const int open_errno = errno;
        descriptor = fd;
        if (fd < 0) {
            report_error("error while opening the shared memory: ", open_errno);
            return false;
        }
        mapped = open_shm(descriptor);
    }

    if (mapped) {
        initialized = true;
        return true;
    }
    uninit_shm();
    return false;
}

bool Logferry_listener::init_shm(int fd)
{
    if (sys->ftruncate(fd, LISTENER_SEGMENT_SIZE) == -1) {
        report_error("error while truncating the shared memory: ", errno);
        return false;
    }
    void* address = map_segment(fd);
    if (address == MAP_FAILED) {
        report_error("error while mapping the shared memory: ", errno);
        return false;
    }
    segment = static_cast<Listener_segment*>(address);
    std::memset(address, 0, LISTENER_SEGMENT_SIZE);  // every entry free, both indices 0

    if (!init_robust_mutex(&segment->list_mutex.mutex)) {
        report_error("error while initializing the mutex.");
        return false;
    }
    return true;
}

bool Logferry_listener::open_shm(int fd)
{
    void* address = map_segment(fd);
    if (address == MAP_FAILED) {
        report_error("error while mapping the shared memory: ", errno);
        return false;
    }
    segment = static_cast<Listener_segment*>(address);
    return true;
}

void Logferry_listener::uninit_shm()
{
    if (segment == MAP_FAILED) {
        return;
    }
    if (sys->munmap(segment, LISTENER_SEGMENT_SIZE) == -1) {
        report_error("error while unmapping the shared memory: ", errno);
    }
    segment = static_cast<Listener_segment*>(MAP_FAILED);
}

void Logferry_listener::uninit()
{
    if (!initialized) {
        return;
    }
    uninit_shm();
    proxy_watchdogs.reset();
    if (listening) {
        sys->shm_unlink(LISTENER_SHM_NAME);
        sys->unlink(lock_listener_name.c_str());
    }
    // The lock file stays open (the daemon keeps its lock) and own_entry stays; the next init
    // resets both.
    initialized = false;
}

bool Logferry_listener::is_initialized() const { return initialized; }

bool Logferry_listener::is_listening() const { return listening; }

void Logferry_listener::disable_listening() { listening = false; }

}  // namespace logferry
