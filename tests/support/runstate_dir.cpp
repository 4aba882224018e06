#include "support/runstate_dir.hpp"

#include <dirent.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include <gtest/gtest.h>

namespace logferry_test {

namespace {

// Every entry below `dir` (depth first, directories after their contents), as paths relative
// to `base`.
void collect(const std::string& base, const std::string& relative, std::vector<std::string>& paths)
{
    const std::string dir = relative.empty() ? base : base + "/" + relative;
    DIR* stream = ::opendir(dir.c_str());
    if (stream == nullptr) {
        return;
    }
    while (const dirent* entry = ::readdir(stream)) {
        const std::string name = entry->d_name;
        if (name == "." || name == "..") {
            continue;
        }
        const std::string path = relative.empty() ? name : relative + "/" + name;
        struct stat info {};
        if (::lstat((base + "/" + path).c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
            collect(base, path, paths);
        }
        paths.push_back(path);
    }
    ::closedir(stream);
}

}  // namespace

Scoped_environment::Scoped_environment(std::string name, const std::string& value) : name_(std::move(name))
{
    const char* previous = ::getenv(name_.c_str());
    had_previous_ = previous != nullptr;
    previous_ = had_previous_ ? previous : "";
    ::setenv(name_.c_str(), value.c_str(), 1);
}

Scoped_environment::~Scoped_environment()
{
    if (had_previous_) {
        ::setenv(name_.c_str(), previous_.c_str(), 1);
    } else {
        ::unsetenv(name_.c_str());
    }
}

Runstate_dir::Runstate_dir(bool with_ara_dlt)
{
    char pattern[] = "/tmp/lf-run-XXXXXX";
    const char* made = ::mkdtemp(pattern);
    EXPECT_NE(made, nullptr) << "no run-state directory";
    root_ = made != nullptr ? made : "/tmp/lf-run-none";
    if (with_ara_dlt) {
        EXPECT_EQ(::mkdir(ara_dlt().c_str(), 0700), 0) << ara_dlt();
    }
    announced_ = std::make_unique<Scoped_environment>("ADAPTIVE_RUNSTATE_DIR", root_);
}

Runstate_dir::~Runstate_dir()
{
    announced_.reset();
    std::vector<std::string> paths;
    collect(root_, "", paths);
    for (const std::string& path : paths) {
        ::remove((root_ + "/" + path).c_str());
    }
    EXPECT_EQ(::rmdir(root_.c_str()), 0) << "could not remove " << root_;
}

std::vector<std::string> Runstate_dir::contents() const
{
    std::vector<std::string> paths;
    collect(root_, "", paths);
    std::sort(paths.begin(), paths.end());
    return paths;
}

}  // namespace logferry_test
