#ifndef LOGFERRY_SYSTEM_ROBUST_MUTEX_HPP
#define LOGFERRY_SYSTEM_ROBUST_MUTEX_HPP

// The robust process-shared mutexes of the shared segments: how the creating end sets one up,
// and how a lock is taken over from a holder that died. Both go through `sys`.

#include <pthread.h>

namespace logferry {

/// Sets up `mutex` as a robust, process-shared mutex of the normal kind: attributes
/// initialised, kind, sharing and robustness set, mutex initialised, attributes destroyed, in
/// this order. Returns false at the first call that fails (the attributes are then left as
/// they are); reports nothing.
bool init_robust_mutex(pthread_mutex_t* mutex);

/// Locks `mutex`. When its holder died inside its critical section (EOWNERDEAD), the lock is
/// ours: it is marked consistent and the data is used as it was left. Returns 0 when the lock
/// is held, else the error the lock call returned; reports nothing.
int lock_robust_mutex(pthread_mutex_t* mutex);

/// The outcome of any attempt to lock `mutex` that returned `result`: EOWNERDEAD means the lock
/// is ours and the holder died, so the mutex is marked consistent and 0 is returned; any other
/// result is returned as it is.
int settle_robust_lock(pthread_mutex_t* mutex, int result);

}  // namespace logferry

#endif  // LOGFERRY_SYSTEM_ROBUST_MUTEX_HPP
