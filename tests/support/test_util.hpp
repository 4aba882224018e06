#ifndef LOGFERRY_TEST_UTIL_HPP
#define LOGFERRY_TEST_UTIL_HPP

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace logferry_test {

// A record, a message or a stretch of shared memory, byte by byte.
using Bytes = std::vector<unsigned char>;

// A name unique to this process and the running test ("<pid>-<TestName>-<suffix>", at most
// `max_length` characters, a slash in the test's name turned into "_"), for shared-memory
// objects and files.
std::string unique_id(const std::string& suffix = "", std::size_t max_length = 40);

// Runs `action` and returns what it wrote to the standard error (or output) stream.
std::string capture_stderr(const std::function<void()>& action);
std::string capture_stdout(const std::function<void()>& action);
// Whether `action` returns false (or true) and writes exactly `output` to the standard error
// stream meanwhile; the failure message tells what it returned and wrote.
::testing::AssertionResult fails_saying(const std::string& output, const std::function<bool()>& action);
::testing::AssertionResult succeeds_saying(const std::string& output, const std::function<bool()>& action);

// Open descriptors of this process, and mappings of a file under /dev/shm.
int count_open_fds();
int count_mappings(const std::string& shm_name);
bool shm_exists(const std::string& shm_name);
bool path_exists(const std::string& path);

// Whether the `size` bytes at `data` are all zero.
bool all_zero(const void* data, std::size_t size);

// Polls `condition` every millisecond until it holds or `timeout` passes.
bool wait_until(const std::function<bool()>& condition,
                std::chrono::milliseconds timeout = std::chrono::milliseconds(5000));

// Runs `body` in a forked child that exits with its result (never returns in the child).
int fork_child(const std::function<int()>& body);
// Waits up to `timeout` for the child; returns its wait status, or -1 on timeout (the child
// is then killed).
int wait_child(int pid, std::chrono::milliseconds timeout = std::chrono::milliseconds(10000));
// Whether a wait status (as wait_child returns it) is that of a child that exited with 0.
bool exited_cleanly(int status);

}  // namespace logferry_test

#endif
