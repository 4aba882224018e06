#ifndef LOGFERRY_TEST_ROBUST_LIST_HPP
#define LOGFERRY_TEST_ROBUST_LIST_HPP

#include <gtest/gtest.h>

namespace logferry_test {

// Whether the kernel reports the death of a robust mutex's owner here: true when this
// thread has a robust futex list registered with the kernel (get_robust_list succeeds and
// names a list head). Under qemu's user mode the call fails: the emulator does not pass the
// list on, so a process that dies holding a robust mutex leaves it locked for good and a
// waiter blocks forever instead of getting EOWNERDEAD.
bool robust_mutex_owner_death_supported();

}  // namespace logferry_test

// First statement of a test that needs a dead owner of a robust mutex to be reported:
// skips the test, with the reason, where that cannot happen.
#define LOGFERRY_REQUIRE_ROBUST_LIST()                                                         \
    do {                                                                                       \
        if (!::logferry_test::robust_mutex_owner_death_supported()) {                          \
            GTEST_SKIP() << "robust mutex owner death is not reported here (no kernel robust " \
                            "list: get_robust_list failed)";                                   \
        }                                                                                      \
    } while (false)

#endif
