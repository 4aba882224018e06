#include "support/peer_process.hpp"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/test_util.hpp"

namespace logferry_test {

Daemon_peer::Daemon_peer(const std::string& path, const std::string& runstate_dir)
{
    int down[2];
    int up[2];
    if (::pipe(down) != 0 || ::pipe(up) != 0) {
        return;
    }
    pid_ = ::fork();
    if (pid_ == 0) {
        ::dup2(down[0], 0);
        ::dup2(up[1], 1);
        ::close(down[0]);
        ::close(down[1]);
        ::close(up[0]);
        ::close(up[1]);
        ::setenv("ADAPTIVE_RUNSTATE_DIR", runstate_dir.c_str(), 1);
        ::execl(path.c_str(), path.c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    ::close(down[0]);
    ::close(up[1]);
    to_peer_ = down[1];
    from_peer_ = up[0];
    reader_ = std::thread([this] { read_lines(); });
    ready_ = wait_for("ready") >= 0;
}

Daemon_peer::~Daemon_peer()
{
    // A peer still running is asked to quit, so that it gives up the listener as a daemon
    // does (the listener segment's name is system-wide: a killed peer left it to the next
    // test); one that does not end within 2 s is killed.
    if (pid_ > 0 && ::waitpid(pid_, nullptr, WNOHANG) == 0) {
        send("quit");
        wait_child(pid_, std::chrono::milliseconds(2000));
    }
    if (to_peer_ >= 0) {
        ::close(to_peer_);
    }
    if (reader_.joinable()) {
        reader_.join();
    }
    if (from_peer_ >= 0) {
        ::close(from_peer_);
    }
}

void Daemon_peer::read_lines()
{
    std::string pending;
    char buffer[4096];
    for (;;) {
        const ssize_t got = ::read(from_peer_, buffer, sizeof buffer);
        if (got <= 0) {
            return;
        }
        pending.append(buffer, static_cast<std::size_t>(got));
        for (std::size_t end = pending.find('\n'); end != std::string::npos; end = pending.find('\n')) {
            std::lock_guard<std::mutex> lock(mutex_);
            lines_.push_back(pending.substr(0, end));
            pending.erase(0, end + 1);
        }
    }
}

void Daemon_peer::send(const std::string& command)
{
    const std::string line = command + "\n";
    if (::write(to_peer_, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        return;
    }
}

std::vector<std::string> Daemon_peer::lines() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
}

std::vector<std::string> Daemon_peer::lines_with(const std::string& prefix) const
{
    std::vector<std::string> result;
    for (const std::string& line : lines()) {
        if (line.compare(0, prefix.size(), prefix) == 0) {
            result.push_back(line);
        }
    }
    return result;
}

int Daemon_peer::wait_for(const std::string& prefix, std::chrono::milliseconds timeout, std::size_t from) const
{
    int found = -1;
    wait_until(
        [&] {
            const std::vector<std::string> all = lines();
            for (std::size_t i = from; i < all.size(); ++i) {
                if (all[i].compare(0, prefix.size(), prefix) == 0) {
                    found = static_cast<int>(i);
                    return true;
                }
            }
            return false;
        },
        timeout);
    return found;
}

void Daemon_peer::kill_hard()
{
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
}

bool Daemon_peer::quit()
{
    if (pid_ <= 0) {
        return false;
    }
    send("quit");
    const int status = wait_child(pid_, std::chrono::milliseconds(10000));
    pid_ = -1;
    return exited_cleanly(status);
}

}  // namespace logferry_test
