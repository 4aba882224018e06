#ifndef LOGFERRY_TEST_NANOSLEEP_PROBE_HPP
#define LOGFERRY_TEST_NANOSLEEP_PROBE_HPP

// A test program that links nanosleep_probe.cpp has its own nanosleep: every call is
// recorded, and chosen calls are interrupted as a signal would interrupt them: the call
// sleeps half of its request, writes the other half back as the time still to sleep and
// reports EINTR. Calls that are not chosen sleep as the system's nanosleep does.

#include <pthread.h>
#include <time.h>

#include <vector>

namespace logferry_test {

struct Nanosleep_call {
    pthread_t thread;
    timespec request;
    bool interrupted;
};

// The calls made since the last take, in order.
std::vector<Nanosleep_call> take_nanosleep_calls();
// Only the requests, in order.
std::vector<timespec> take_nanosleep_requests();
// The next `count` calls, from any thread, are interrupted.
void interrupt_nanosleeps(int count);
// The next `count` calls made by `thread` are interrupted; other threads sleep undisturbed.
void interrupt_nanosleeps_of(pthread_t thread, int count);

}  // namespace logferry_test

#endif
