#ifndef LOGFERRY_TEST_RUNSTATE_DIR_HPP
#define LOGFERRY_TEST_RUNSTATE_DIR_HPP

// The run-state directory of one test: made fresh under /tmp, announced through
// ADAPTIVE_RUNSTATE_DIR for the object's lifetime, then removed with everything in it and the
// variable put back as it was.

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace logferry_test {

// The listener's fixed names: its segment, and its lock file where the run-state directory has
// no "ara_DLT" (the lock file's name in a run-state directory is Runstate_dir::lock_file).
constexpr const char* LISTENER_SEGMENT = "/logferry-daemon-listener";
constexpr const char* FALLBACK_LOCK_FILE = "/tmp/logferry-daemon-listener.lock";

// Sets the environment variable `name` to `value` for the object's lifetime, then puts back
// what was there (or removes it).
class Scoped_environment {
public:
    Scoped_environment(std::string name, const std::string& value);
    ~Scoped_environment();
    Scoped_environment(const Scoped_environment&) = delete;
    Scoped_environment& operator=(const Scoped_environment&) = delete;

private:
    std::string name_;
    bool had_previous_ = false;
    std::string previous_;
};

class Runstate_dir {
public:
    // With `with_ara_dlt`, the directory holds "ara_DLT", where the listener keeps its lock
    // file; without it the listener falls back to the lock file under /tmp.
    explicit Runstate_dir(bool with_ara_dlt = true);
    ~Runstate_dir();
    Runstate_dir(const Runstate_dir&) = delete;
    Runstate_dir& operator=(const Runstate_dir&) = delete;

    const std::string& root() const { return root_; }
    std::string ara_dlt() const { return root_ + "/ara_DLT"; }
    // Where the listener keeps its lock file in this directory.
    std::string lock_file() const { return ara_dlt() + "/logferry-daemon-listener.lock"; }
    // The paths below the root, relative to it and sorted ("ara_DLT", "ara_DLT/...").
    std::vector<std::string> contents() const;

private:
    std::string root_;
    std::unique_ptr<Scoped_environment> announced_;
};

// Sets `target` to `value` for the object's lifetime, then puts the old value back.
template <typename T>
class Scoped_value {
public:
    Scoped_value(T& target, T value) : target_(target), previous_(target) { target_ = std::move(value); }
    ~Scoped_value() { target_ = std::move(previous_); }
    Scoped_value(const Scoped_value&) = delete;
    Scoped_value& operator=(const Scoped_value&) = delete;

private:
    T& target_;
    T previous_;
};

}  // namespace logferry_test

#endif
