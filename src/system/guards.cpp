#include "logferry/system.hpp"
#include "system/robust_mutex.hpp"

namespace logferry {

Mutex_lock_guard::Mutex_lock_guard(pthread_mutex_t* mutex_, bool already_locked) : mutex(mutex_)
{
    if (already_locked) {
        return;
    }
    // A holder that died inside its critical section hands the lock over with the data as it
    // was left.
    const int result = lock_robust_mutex(mutex);
    if (result != 0) {
        report_error("error while locking the mutex: ", result);
    }
}

Mutex_lock_guard::~Mutex_lock_guard()
{
    const int result = sys->pthread_mutex_unlock(mutex);
    if (result != 0) {
        report_error("error while unlocking the mutex: ", result);
    }
}

File_descriptor_guard::File_descriptor_guard(int fd_) : fd(fd_) {}

File_descriptor_guard::~File_descriptor_guard() { close_descriptor(); }

void File_descriptor_guard::close_descriptor()
{
    if (fd < 0) {
        return;
    }
    sys->close(fd);
    fd = -1;
}

File_descriptor_guard& File_descriptor_guard::operator=(int const& new_fd) &
{
    if (new_fd == fd) {
        return *this;
    }
    close_descriptor();
    fd = new_fd;
    return *this;
}

bool File_descriptor_guard::operator==(int const& other) const { return fd == other; }

File_descriptor_guard::operator int() const { return fd; }

}  // namespace logferry
