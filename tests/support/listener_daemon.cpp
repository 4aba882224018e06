#include "support/listener_daemon.hpp"

#include <unistd.h>

#include "logferry/listener.hpp"
#include "support/test_util.hpp"

namespace logferry_test {

Listener_daemon_child::~Listener_daemon_child() { stop(); }

bool Listener_daemon_child::start(const std::string& lock_path)
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
        daemon.lock_listener_name = lock_path;
        const bool ok = daemon.init();
        const char answer = ok ? 'y' : 'n';
        if (::write(ready[1], &answer, 1) != 1) {
            return 2;
        }
        char ignored;
        while (::read(release[0], &ignored, 1) > 0) {
        }
        daemon.uninit();
        return ok ? 0 : 1;
    });
    ::close(ready[1]);
    ::close(release[0]);
    release_ = release[1];
    char answer = 0;
    const bool answered = ::read(ready[0], &answer, 1) == 1;
    ::close(ready[0]);
    return answered && answer == 'y';
}

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
