#ifndef LOGFERRY_TEST_LISTENER_CHECKS_HPP
#define LOGFERRY_TEST_LISTENER_CHECKS_HPP

// Checks on a listener's lock file and segment (header only: only the tests that link the
// listener include it).

#include <errno.h>
#include <unistd.h>

#include <cstddef>

#include "logferry/listener.hpp"
#include "support/test_util.hpp"

namespace logferry_test {

// Whether another process sees a lockf lock on the descriptor `fd` (inherited by the child:
// lockf locks are per process, so the child sees the parent's lock as foreign).
inline bool lock_held_by_other_process(int fd)
{
    const int pid = fork_child([fd] {
        const int result = ::lockf(fd, F_TEST, 0);
        return result == -1 && (errno == EAGAIN || errno == EACCES) ? 0 : 1;
    });
    return exited_cleanly(wait_child(pid));
}

// Whether the bytes of the segment outside the mutex slot are zero: all entries, both indices
// and the reserve.
inline bool entries_and_indices_zero(const logferry::Listener_segment* segment)
{
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(segment);
    const std::size_t indices = offsetof(logferry::Listener_segment, read_index);
    return all_zero(bytes, offsetof(logferry::Listener_segment, list_mutex)) &&
           all_zero(bytes + indices, sizeof(logferry::Listener_segment) - indices);
}

}  // namespace logferry_test

#endif
