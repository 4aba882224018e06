#include "probes/nanosleep_probe.hpp"

#include <errno.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <mutex>

namespace {

std::mutex probe_mutex;
std::vector<logferry_test::Nanosleep_call> calls;
int interruptions_left = 0;
bool any_thread = true;
pthread_t interrupted_thread{};

long system_nanosleep(const timespec* request, timespec* remaining)
{
    return ::syscall(SYS_nanosleep, request, remaining);
}

}  // namespace

extern "C" int nanosleep(const struct timespec* request, struct timespec* remaining) __THROW
{
    bool interrupt = false;
    {
        std::lock_guard<std::mutex> lock(probe_mutex);
        const pthread_t self = ::pthread_self();
        interrupt = interruptions_left > 0 && (any_thread || ::pthread_equal(self, interrupted_thread) != 0);
        if (interrupt) {
            --interruptions_left;
        }
        calls.push_back(logferry_test::Nanosleep_call{self, *request, interrupt});
    }
    if (!interrupt) {
        return static_cast<int>(system_nanosleep(request, remaining));
    }
    const long total = request->tv_sec * 1000000000L + request->tv_nsec;
    const long slept = total - total / 2;
    const timespec first_half{slept / 1000000000L, slept % 1000000000L};
    system_nanosleep(&first_half, nullptr);
    if (remaining != nullptr) {
        remaining->tv_sec = (total / 2) / 1000000000L;
        remaining->tv_nsec = (total / 2) % 1000000000L;
    }
    errno = EINTR;
    return -1;
}

namespace logferry_test {

std::vector<Nanosleep_call> take_nanosleep_calls()
{
    std::lock_guard<std::mutex> lock(probe_mutex);
    std::vector<Nanosleep_call> result;
    result.swap(calls);
    return result;
}

std::vector<timespec> take_nanosleep_requests()
{
    std::vector<timespec> requests;
    for (const Nanosleep_call& call : take_nanosleep_calls()) {
        requests.push_back(call.request);
    }
    return requests;
}

void interrupt_nanosleeps(int count)
{
    std::lock_guard<std::mutex> lock(probe_mutex);
    interruptions_left = count;
    any_thread = true;
}

void interrupt_nanosleeps_of(pthread_t thread, int count)
{
    std::lock_guard<std::mutex> lock(probe_mutex);
    interruptions_left = count;
    any_thread = false;
    interrupted_thread = thread;
}

}  // namespace logferry_test
