#ifndef LOGFERRY_TEST_LISTENER_DAEMON_HPP
#define LOGFERRY_TEST_LISTENER_DAEMON_HPP

// A daemon in a forked child that holds the listener list (lock file and segment) until it is
// released, so that an application in this process sees a live daemon.

#include <chrono>
#include <string>

namespace logferry_test {

class Listener_daemon_child {
public:
    Listener_daemon_child() = default;
    ~Listener_daemon_child();
    Listener_daemon_child(const Listener_daemon_child&) = delete;
    Listener_daemon_child& operator=(const Listener_daemon_child&) = delete;

    // Forks the daemon, with its lock file at `lock_path` (empty: where the run-state directory
    // puts it), without waiting for it: its init may block on another daemon's lock.
    bool launch(const std::string& lock_path = std::string());
    // Whether the daemon has reported the result of its init within `timeout`.
    bool reported_within(std::chrono::milliseconds timeout) const;
    // True once the daemon reports that it holds the listener (waits at most 10 s).
    bool wait_ready();
    // launch and wait_ready.
    bool start(const std::string& lock_path = std::string());
    // Releases the daemon, which gives the listener up and exits with 0 when its init had
    // succeeded; returns its wait status, or -1 when none runs (or it did not end).
    int stop();
    bool running() const { return pid_ > 0; }
    int pid() const { return pid_; }

private:
    int pid_ = -1;
    int ready_ = -1;
    int release_ = -1;
};

}  // namespace logferry_test

#endif
