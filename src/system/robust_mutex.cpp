// The robust process-shared mutexes of the shared segments.
#include "system/robust_mutex.hpp"

#include <cerrno>

#include "logferry/system.hpp"

namespace logferry {

bool init_robust_mutex(pthread_mutex_t* mutex)
{
    pthread_mutexattr_t attributes;
    return sys->pthread_mutexattr_init(&attributes) == 0 &&
           sys->pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_NORMAL) == 0 &&
           sys->pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED) == 0 &&
           sys->pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST) == 0 &&
           sys->pthread_mutex_init(mutex, &attributes) == 0 && sys->pthread_mutexattr_destroy(&attributes) == 0;
}

int lock_robust_mutex(pthread_mutex_t* mutex) { return settle_robust_lock(mutex, sys->pthread_mutex_lock(mutex)); }

int settle_robust_lock(pthread_mutex_t* mutex, int result)
{
    if (result == EOWNERDEAD) {
        sys->pthread_mutex_consistent(mutex);
        return 0;
    }
    return result;
}

}  // namespace logferry
