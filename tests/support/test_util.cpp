#include "support/test_util.hpp"

#include <dirent.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <thread>

#include <gtest/gtest.h>

namespace logferry_test {

std::string unique_id(const std::string& suffix, std::size_t max_length)
{
    std::string test = "test";
    if (const auto* info = ::testing::UnitTest::GetInstance()->current_test_info()) {
        test = info->name();
    }
    // A parameterised test's name ends in "/<case>": no slash may reach a file or object name.
    std::replace(test.begin(), test.end(), '/', '_');
    std::string id = std::to_string(::getpid()) + "-";
    std::string tail = suffix.empty() ? std::string() : "-" + suffix;
    std::size_t room = max_length > id.size() + tail.size() ? max_length - id.size() - tail.size() : 0;
    id += test.substr(0, room) + tail;
    return id;
}

std::string capture_stderr(const std::function<void()>& action)
{
    ::testing::internal::CaptureStderr();
    action();
    return ::testing::internal::GetCapturedStderr();
}

std::string capture_stdout(const std::function<void()>& action)
{
    ::testing::internal::CaptureStdout();
    action();
    return ::testing::internal::GetCapturedStdout();
}

namespace {

::testing::AssertionResult returns_saying(bool expected, const std::string& output, const std::function<bool()>& action)
{
    bool result = !expected;
    const std::string said = capture_stderr([&] { result = action(); });
    if (result == expected && said == output) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << "returned " << (result ? "true" : "false") << " and wrote \"" << said
                                         << "\"; expected " << (expected ? "true" : "false") << " and \"" << output
                                         << "\"";
}

}  // namespace

::testing::AssertionResult fails_saying(const std::string& output, const std::function<bool()>& action)
{
    return returns_saying(false, output, action);
}

::testing::AssertionResult succeeds_saying(const std::string& output, const std::function<bool()>& action)
{
    return returns_saying(true, output, action);
}

int count_open_fds()
{
    int count = 0;
    DIR* dir = ::opendir("/proc/self/fd");
    if (dir == nullptr) {
        return -1;
    }
    while (const dirent* entry = ::readdir(dir)) {
        if (entry->d_name[0] != '.') {
            ++count;
        }
    }
    ::closedir(dir);
    return count - 1;  // the directory stream's own descriptor
}

int count_mappings(const std::string& shm_name)
{
    std::ifstream maps("/proc/self/maps");
    const std::string needle = "/dev/shm" + shm_name;
    int count = 0;
    std::string line;
    while (std::getline(maps, line)) {
        const auto position = line.find(needle);
        if (position != std::string::npos) {
            const std::string rest = line.substr(position + needle.size());
            if (rest.empty() || rest == " (deleted)") {
                ++count;
            }
        }
    }
    return count;
}

bool shm_exists(const std::string& shm_name) { return path_exists("/dev/shm" + shm_name); }

bool path_exists(const std::string& path)
{
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0;
}

bool all_zero(const void* data, std::size_t size)
{
    const unsigned char* bytes = static_cast<const unsigned char*>(data);
    for (std::size_t i = 0; i < size; ++i) {
        if (bytes[i] != 0) {
            return false;
        }
    }
    return true;
}

bool wait_until(const std::function<bool()>& condition, std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return condition();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

int fork_child(const std::function<int()>& body)
{
    const pid_t pid = ::fork();
    if (pid == 0) {
        int result = 1;
        try {
            result = body();
        } catch (...) {
            result = 99;
        }
        ::_exit(result);
    }
    return pid;
}

int wait_child(int pid, std::chrono::milliseconds timeout)
{
    int status = 0;
    const bool done = wait_until([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }, timeout);
    if (!done) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, &status, 0);
        return -1;
    }
    return status;
}

bool exited_cleanly(int status) { return status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == 0; }

}  // namespace logferry_test
