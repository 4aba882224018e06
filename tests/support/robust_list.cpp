#include "support/robust_list.hpp"

#include <sys/syscall.h>
#include <unistd.h>

#include <cstddef>

namespace logferry_test {

bool robust_mutex_owner_death_supported()
{
    // The C library registers each thread's list head at thread start; asking the kernel
    // for this thread's (pid 0) shows whether the kernel knows the list.
    void* head = nullptr;
    std::size_t length = 0;
    if (::syscall(SYS_get_robust_list, 0, &head, &length) != 0) {
        return false;
    }
    return head != nullptr;
}

}  // namespace logferry_test
