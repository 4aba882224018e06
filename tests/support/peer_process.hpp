#ifndef LOGFERRY_TEST_DAEMON_PEER_HPP
#define LOGFERRY_TEST_DAEMON_PEER_HPP

// Runs the daemon-side test peer as a separate process and collects the lines it reports.

#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/hex.hpp"

namespace logferry_test {

class Daemon_peer {
public:
    // Starts the peer program at `path` with ADAPTIVE_RUNSTATE_DIR set to `runstate_dir`
    // and waits until it holds the listener.
    Daemon_peer(const std::string& path, const std::string& runstate_dir);
    ~Daemon_peer();
    Daemon_peer(const Daemon_peer&) = delete;
    Daemon_peer& operator=(const Daemon_peer&) = delete;

    bool ready() const { return ready_; }
    void send(const std::string& command);
    // All lines so far, and those that start with `prefix`.
    std::vector<std::string> lines() const;
    std::vector<std::string> lines_with(const std::string& prefix) const;
    // Waits until a line starting with `prefix` has come (counting from line `from`);
    // returns its index or -1.
    int wait_for(const std::string& prefix, std::chrono::milliseconds timeout = std::chrono::milliseconds(10000),
                 std::size_t from = 0) const;
    void kill_hard();  // SIGKILL: no clean-up at all
    bool quit();       // clean stop; true when it exited 0

private:
    void read_lines();

    int pid_ = -1;
    int to_peer_ = -1;
    int from_peer_ = -1;
    bool ready_ = false;
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
    std::thread reader_;
};

}  // namespace logferry_test

#endif
