#include "support/listener_daemon.hpp"

#include <errno.h>
#include <poll.h>
#include <unistd.h>

#include "logferry/listener.hpp"
#include "support/test_util.hpp"

namespace logferry_test {

Listener_daemon_child::~Listener_daemon_child()
{
    stop();
    if (ready_ >= 0) {
        ::close(ready_);
    }
}

bool Listener_daemon_child::launch(const std::string& lock_path)
{
    int ready[2];
    int release[2];
    if (::pipe(ready) != 0) {
        return false;
    }
    if (::pipe(release) != 0) {
        ::close(ready[0]);
        ::close(ready[1]);
        return false;
    }
    pid_ = fork_child([&] {
        ::close(ready[0]);
        ::close(release[1]);
        logferry::Logferry_listener daemon(true);
        if (!lock_path.empty()) {
            daemon.lock_listener_name = lock_path;
        }
        const bool ok = daemon.init();
        const char answer = ok ? 'y' : 'n';
        if (::write(ready[1], &answer, 1) != 1) {
            return 2;
        }
        char ignored;
        for (;;) {
            const ssize_t got = ::read(release[0], &ignored, 1);
            if (got == 0 || (got < 0 && errno != EINTR)) {
                break;
            }
        }
        daemon.uninit();
        return ok ? 0 : 1;
    });
    ::close(ready[1]);
    ::close(release[0]);
    ready_ = ready[0];
    release_ = release[1];
    return pid_ > 0;
}

bool Listener_daemon_child::reported_within(std::chrono::milliseconds timeout) const
{
    return wait_until(
        [&] {
            pollfd poll_fd{ready_, POLLIN, 0};
            return ::poll(&poll_fd, 1, 0) == 1;
        },
        timeout);
}

bool Listener_daemon_child::wait_ready()
{
    if (ready_ < 0 || !reported_within(std::chrono::milliseconds(10000))) {
        return false;
    }
    char answer = 0;
    return ::read(ready_, &answer, 1) == 1 && answer == 'y';
}

bool Listener_daemon_child::start(const std::string& lock_path) { return launch(lock_path) && wait_ready(); }

int Listener_daemon_child::stop()
{
    if (release_ >= 0) {
        ::close(release_);
        release_ = -1;
    }
    if (pid_ <= 0) {
        return -1;
    }
    const int status = wait_child(pid_);
    pid_ = -1;
    return status;
}

}  // namespace logferry_test
