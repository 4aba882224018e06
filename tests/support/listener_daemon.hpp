#ifndef LOGFERRY_TEST_LISTENER_DAEMON_HPP
#define LOGFERRY_TEST_LISTENER_DAEMON_HPP

// A daemon in a forked child that holds the listener list (lock file and segment) until it is
// released, so that an application in this process sees a live daemon.

#include <string>

namespace logferry_test {

class Listener_daemon_child {
public:
    Listener_daemon_child() = default;
    ~Listener_daemon_child();
    Listener_daemon_child(const Listener_daemon_child&) = delete;
    Listener_daemon_child& operator=(const Listener_daemon_child&) = delete;

    // Forks the daemon with its lock file at `lock_path`; true once it holds the listener.
    bool start(const std::string& lock_path);
    // Releases the daemon, which gives the listener up; returns its wait status, or -1 when
    // none runs.
    int stop();
    bool running() const { return pid_ > 0; }

private:
    int pid_ = -1;
    int release_ = -1;
};

}  // namespace logferry_test

#endif
