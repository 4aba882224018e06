// The first (and only) program of the emulated 64-bit Arm machine that runs the test suite:
// the kernel starts it as /init from an initramfs holding the statically linked test
// programs. It mounts what the tests need, runs every test case of the manifest as its own
// process, as many at once as the machine has processors, as a parallel CTest would (cases
// that name the same lock one at a time, and those first: they are the suite's longest
// chain), prints one line per case as it ends and a summary, and ends with exactly one of
//   ARM64 SUITE: PASS
//   ARM64 SUITE: FAIL (<which>)
// before it powers the machine off.
//
// Manifest (/suite/manifest), one test case per block of lines:
//   test <name>
//   timeout <seconds>
//   cwd <working directory>
//   env <NAME=value>          (any number)
//   lock <resource>           (any number: CTest's RESOURCE_LOCK)
//   arg <argument>            (program first; any number)
//   end
#include <dirent.h>
#include <fcntl.h>
#include <net/if.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/reboot.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

namespace {

const char* const manifest_path = "/suite/manifest";
const char* const log_dir = "/var/log/suite";

struct Test_case {
    std::string name;
    double timeout = 60;
    std::string cwd = "/";
    std::vector<std::string> env;
    std::vector<std::string> locks;
    std::vector<std::string> args;
};

void say(const std::string& line)
{
    const std::string whole = line + "\n";
    std::fwrite(whole.data(), 1, whole.size(), stdout);
    std::fflush(stdout);
}

void power_off()
{
    std::fflush(stdout);
    ::sync();
    ::reboot(RB_POWER_OFF);
    // Not reached unless the kernel refused; PID 1 must not return.
    for (;;) {
        ::pause();
    }
}

void make_dirs(const std::string& path, mode_t mode = 0755)
{
    std::string partial;
    std::istringstream parts(path);
    std::string part;
    while (std::getline(parts, part, '/')) {
        if (part.empty()) {
            continue;
        }
        partial += "/" + part;
        ::mkdir(partial.c_str(), mode);
    }
}

bool mount_fs(const char* type, const char* target, unsigned long flags, const char* options, mode_t mode)
{
    make_dirs(target, mode);
    if (::mount(type, target, type, flags, options) != 0 && errno != EBUSY) {
        say(std::string("init: cannot mount ") + type + " on " + target + ": " + std::strerror(errno));
        return false;
    }
    ::chmod(target, mode);
    return true;
}

bool has_entries(const char* path)
{
    DIR* dir = ::opendir(path);
    if (dir == nullptr) {
        return false;
    }
    bool any = false;
    while (const dirent* entry = ::readdir(dir)) {
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0) {
            any = true;
            break;
        }
    }
    ::closedir(dir);
    return any;
}

// A fresh tmpfs on `target`, unless the initramfs put files there (a build tree under /tmp,
// kept at its absolute path): then the directory stays on the root file system, which is a
// tmpfs itself when the kernel is given no root=.
bool mount_tmpfs_unless_populated(const char* target, const char* options, mode_t mode)
{
    if (has_entries(target)) {
        ::chmod(target, mode);
        say(std::string("init: ") + target + " holds files of the initramfs: it stays on the root file system");
        return true;
    }
    return mount_fs("tmpfs", target, MS_NOSUID | MS_NODEV, options, mode);
}

// The kernel opens /dev/console for us only if the initramfs has it; make sure we have one.
void attach_console()
{
    if (::fcntl(1, F_GETFD) != -1) {
        return;
    }
    const int fd = ::open("/dev/console", O_RDWR | O_NOCTTY);
    if (fd < 0) {
        return;
    }
    ::dup2(fd, 0);
    ::dup2(fd, 1);
    ::dup2(fd, 2);
    if (fd > 2) {
        ::close(fd);
    }
}

bool read_manifest(std::vector<Test_case>& tests)
{
    std::ifstream in(manifest_path);
    if (!in) {
        return false;
    }
    Test_case current;
    std::string line;
    while (std::getline(in, line)) {
        const auto space = line.find(' ');
        const std::string key = line.substr(0, space);
        const std::string value = space == std::string::npos ? std::string() : line.substr(space + 1);
        if (key == "test") {
            current = Test_case();
            current.name = value;
        } else if (key == "timeout") {
            current.timeout = std::atof(value.c_str());
        } else if (key == "cwd") {
            current.cwd = value;
        } else if (key == "env") {
            current.env.push_back(value);
        } else if (key == "lock") {
            current.locks.push_back(value);
        } else if (key == "arg") {
            current.args.push_back(value);
        } else if (key == "end") {
            tests.push_back(current);
        }
    }
    return true;
}

double now_seconds()
{
    timespec ts{};
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

std::string read_file(const std::string& path)
{
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string file_name_for(const std::string& test_name)
{
    std::string name;
    for (char c : test_name) {
        name += (std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '.' || c == '-') ? c : '_';
    }
    return std::string(log_dir) + "/" + name + ".log";
}

enum class Outcome { passed, skipped, failed, timed_out };

// Starts one case in a process group of its own, its output into `log`; returns its process
// (or -1, with the reason in `detail`).
pid_t start_case(const Test_case& test, const std::string& log, std::string& detail)
{
    std::vector<std::string> environment = {
        "PATH=/bin:/usr/bin",
        "HOME=/root",
        "TMPDIR=/tmp",
        "ADAPTIVE_RUNSTATE_DIR=/run/adaptive",
    };
    environment.insert(environment.end(), test.env.begin(), test.env.end());

    const pid_t pid = ::fork();
    if (pid < 0) {
        detail = std::string("fork failed: ") + std::strerror(errno);
        return -1;
    }
    if (pid == 0) {
        ::setpgid(0, 0);
        const int out = ::open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int null_in = ::open("/dev/null", O_RDONLY);
        if (out >= 0) {
            ::dup2(out, 1);
            ::dup2(out, 2);
            ::close(out);
        }
        if (null_in >= 0) {
            ::dup2(null_in, 0);
            ::close(null_in);
        }
        if (::chdir(test.cwd.c_str()) != 0) {
            std::fprintf(stderr, "cannot enter %s: %s\n", test.cwd.c_str(), std::strerror(errno));
            ::_exit(126);
        }
        std::vector<char*> argv;
        for (const auto& arg : test.args) {
            argv.push_back(const_cast<char*>(arg.c_str()));
        }
        argv.push_back(nullptr);
        std::vector<char*> envp;
        for (const auto& entry : environment) {
            envp.push_back(const_cast<char*>(entry.c_str()));
        }
        envp.push_back(nullptr);
        ::execve(argv[0], argv.data(), envp.data());
        std::fprintf(stderr, "cannot run %s: %s\n", argv[0], std::strerror(errno));
        ::_exit(127);
    }
    ::setpgid(pid, pid);
    return pid;
}

// What a case's end means, from its wait status and its output.
Outcome outcome_of(const Test_case& test, int status, bool timed_out, const std::string& log, std::string& detail)
{
    if (timed_out) {
        detail = "timed out after " + std::to_string(static_cast<int>(test.timeout)) + " s";
        return Outcome::timed_out;
    }
    if (WIFSIGNALED(status)) {
        detail = std::string("killed by signal ") + std::to_string(WTERMSIG(status)) + " (" +
                 strsignal(WTERMSIG(status)) + ")";
        return Outcome::failed;
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        detail = "exit status " + std::to_string(WEXITSTATUS(status));
        return Outcome::failed;
    }
    // As CTest's SKIP_REGULAR_EXPRESSION for these tests.
    if (read_file(log).find("[  SKIPPED ]") != std::string::npos) {
        return Outcome::skipped;
    }
    return Outcome::passed;
}

// One case on its way.
struct Running {
    std::size_t index;
    pid_t pid;
    double begun;
};

// Told of each case as it ends: its index, outcome, what went wrong, and how long it took.
using Report = std::function<void(std::size_t, Outcome, const std::string&, double)>;

// The cases of the manifest, run side by side.
class Scheduler {
public:
    Scheduler(const std::vector<Test_case>& tests, std::size_t slots)
        : tests_(tests), slots_(slots), started_(tests.size(), false)
    {}

    // Runs every case, telling `report` of each as it ends.
    void run(const Report& report)
    {
        while (ended_ < tests_.size()) {
            while (running_.size() < slots_) {
                const std::size_t next = next_case();
                if (next == tests_.size()) {
                    break;
                }
                start(next, report);
            }
            reap(report);
        }
    }

private:
    bool locks_free(const Test_case& test) const
    {
        for (const auto& lock : test.locks) {
            for (const auto& other : running_) {
                const auto& held = tests_[other.index].locks;
                if (std::find(held.begin(), held.end(), lock) != held.end()) {
                    return false;
                }
            }
        }
        return true;
    }

    // The first waiting case whose locks are free, cases with a lock before the others;
    // tests_.size() when none can start now.
    std::size_t next_case() const
    {
        std::size_t unlocked = tests_.size();
        for (std::size_t i = 0; i < tests_.size(); ++i) {
            if (started_[i] || !locks_free(tests_[i])) {
                continue;
            }
            if (!tests_[i].locks.empty()) {
                return i;
            }
            if (unlocked == tests_.size()) {
                unlocked = i;
            }
        }
        return unlocked;
    }

    void start(std::size_t index, const Report& report)
    {
        started_[index] = true;
        Running case_run{index, -1, now_seconds()};
        std::string detail;
        case_run.pid = start_case(tests_[index], file_name_for(tests_[index].name), detail);
        if (case_run.pid < 0) {
            ++ended_;
            report(index, Outcome::failed, detail, 0.0);
            return;
        }
        running_.push_back(case_run);
    }

    // Waits for the next end: a running case's, or its time running out. Reaps every other
    // child that ends meanwhile (we are PID 1, orphans come to us).
    void reap(const Report& report)
    {
        int status = 0;
        const pid_t done = ::waitpid(-1, &status, WNOHANG);
        for (std::size_t r = 0; r < running_.size(); ++r) {
            if (running_[r].pid == done) {
                finish(r, status, false, report);
                return;
            }
        }
        for (std::size_t r = 0; r < running_.size(); ++r) {
            if (now_seconds() > running_[r].begun + tests_[running_[r].index].timeout) {
                ::kill(-running_[r].pid, SIGKILL);
                ::waitpid(running_[r].pid, &status, 0);
                finish(r, status, true, report);
                return;
            }
        }
        if (done <= 0) {
            ::usleep(5000);
        }
    }

    void finish(std::size_t r, int status, bool timed_out, const Report& report)
    {
        const Running ended = running_[r];
        running_.erase(running_.begin() + static_cast<std::ptrdiff_t>(r));
        // Whatever the case left running in its group goes too.
        ::kill(-ended.pid, SIGKILL);
        std::string detail;
        const Test_case& test = tests_[ended.index];
        const Outcome outcome = outcome_of(test, status, timed_out, file_name_for(test.name), detail);
        ++ended_;
        report(ended.index, outcome, detail, now_seconds() - ended.begun);
    }

    const std::vector<Test_case>& tests_;
    const std::size_t slots_;
    std::vector<bool> started_;
    std::vector<Running> running_;
    std::size_t ended_ = 0;
};

std::vector<std::string> leftovers_in_dev_shm()
{
    std::vector<std::string> names;
    DIR* dir = ::opendir("/dev/shm");
    if (dir == nullptr) {
        return names;
    }
    while (const dirent* entry = ::readdir(dir)) {
        if (std::strncmp(entry->d_name, "logferry-", 9) == 0) {
            names.emplace_back(entry->d_name);
        }
    }
    ::closedir(dir);
    return names;
}

std::string join_limited(const std::vector<std::string>& names, std::size_t limit)
{
    std::string text;
    for (std::size_t i = 0; i < names.size() && i < limit; ++i) {
        text += (i == 0 ? "" : ", ") + names[i];
    }
    if (names.size() > limit) {
        text += " and " + std::to_string(names.size() - limit) + " more";
    }
    return text;
}

// The loopback interface is down in a fresh machine; the DLT tests serve and connect on it.
bool bring_up_loopback()
{
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) {
        say(std::string("init: no socket for the loopback interface: ") + std::strerror(errno));
        return false;
    }
    ifreq request{};
    std::strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
    bool up = ::ioctl(fd, SIOCGIFFLAGS, &request) == 0;
    if (up) {
        request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
        up = ::ioctl(fd, SIOCSIFFLAGS, &request) == 0;
    }
    if (!up) {
        say(std::string("init: cannot bring the loopback interface up: ") + std::strerror(errno));
    }
    ::close(fd);
    return up;
}

}  // namespace

int main()
{
    bool mounted = mount_fs("devtmpfs", "/dev", MS_NOSUID, "mode=0755", 0755);
    attach_console();
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    say("init: logferry arm64 test suite");

    mounted = mount_fs("proc", "/proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, "", 0555) && mounted;
    mounted = mount_fs("sysfs", "/sys", MS_NOSUID | MS_NODEV | MS_NOEXEC, "", 0555) && mounted;
    mounted = mount_fs("tmpfs", "/dev/shm", MS_NOSUID | MS_NODEV, "mode=1777", 01777) && mounted;
    mounted = mount_tmpfs_unless_populated("/tmp", "mode=1777", 01777) && mounted;
    mounted = mount_tmpfs_unless_populated("/run", "mode=0755", 0755) && mounted;
    make_dirs("/run/adaptive");
    make_dirs(log_dir);
    mounted = bring_up_loopback() && mounted;
    if (!mounted) {
        say("ARM64 SUITE: FAIL (file systems could not be mounted, or the loopback interface not brought up)");
        power_off();
    }

    {
        std::string version = read_file("/proc/version");
        while (!version.empty() && version.back() == '\n') {
            version.pop_back();
        }
        const long cpus = ::sysconf(_SC_NPROCESSORS_ONLN);
        say("init: " + version + "; " + std::to_string(cpus) + " cpu(s)");
    }

    std::vector<Test_case> tests;
    if (!read_manifest(tests) || tests.empty()) {
        say("ARM64 SUITE: FAIL (no test manifest at " + std::string(manifest_path) + ")");
        power_off();
    }

    int passed = 0;
    int skipped = 0;
    std::size_t reported = 0;
    std::vector<std::string> failed;
    const double start = now_seconds();
    const long cpus = ::sysconf(_SC_NPROCESSORS_ONLN);
    Scheduler scheduler(tests, cpus > 1 ? static_cast<std::size_t>(cpus) : 1);
    scheduler.run([&](std::size_t index, Outcome outcome, const std::string& detail, double seconds) {
        const Test_case& test = tests[index];
        char took[32];
        std::snprintf(took, sizeof took, "%.2f s", seconds);
        std::string line =
            "[" + std::to_string(++reported) + "/" + std::to_string(tests.size()) + "] " + test.name + " ";
        switch (outcome) {
        case Outcome::passed:
            ++passed;
            say(line + "passed (" + took + ")");
            break;
        case Outcome::skipped:
            ++skipped;
            say(line + "SKIPPED (" + took + ")");
            break;
        case Outcome::failed:
        case Outcome::timed_out:
            failed.push_back(test.name);
            say(line + "FAILED: " + detail + " (" + took + ")");
            say("----- output of " + test.name + " -----");
            say(read_file(file_name_for(test.name)));
            say("----- end of output -----");
            break;
        }
    });
    char total[32];
    std::snprintf(total, sizeof total, "%.1f s", now_seconds() - start);
    say("arm64 suite: " + std::to_string(passed) + " passed, " + std::to_string(failed.size()) + " failed, " +
        std::to_string(skipped) + " skipped (" + total + ")");

    std::vector<std::string> reasons;
    if (!failed.empty()) {
        reasons.push_back(join_limited(failed, 10));
    }
    const std::vector<std::string> left = leftovers_in_dev_shm();
    if (!left.empty()) {
        reasons.push_back("left behind in /dev/shm: " + join_limited(left, 5));
    }
    if (reasons.empty()) {
        say("ARM64 SUITE: PASS");
    } else {
        say("ARM64 SUITE: FAIL (" + join_limited(reasons, reasons.size()) + ")");
    }
    power_off();
}
