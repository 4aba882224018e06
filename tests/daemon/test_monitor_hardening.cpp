// logferry-monitor against peers that do not play by the rules: applications that end before
// they see the attachment, names and objects that are no channel, segments cut short under
// the monitor, control characters in what applications send, a lock file someone planted,
// and the modes and owners of what the monitor creates. The fixture is
// support/monitor_fixture.hpp.

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "support/monitor_fixture.hpp"

namespace {

using namespace logferry;
using namespace logferry_test;
using std::chrono::milliseconds;

// ---- Applications that end before they see the attachment -------------------------------

// An application's library withdraws its announcement once it sees the monitor attached; one
// that ends before that leaves it standing. The monitor frees such an entry as soon as it
// sees the application gone, well before its proxy watchdog (5 s) would.
constexpr milliseconds ENTRY_FREED_LIMIT(3000);
// Longer than the proxy watchdog takes to free an entry it first saw filled.
constexpr milliseconds PROXY_WATCHDOG_SPAN(6500);

// The channel name an entry holds, at most its 32 bytes.
std::string entry_name(const Listener_entry& entry)
{
    return std::string(entry.channel_name, strnlen(entry.channel_name, sizeof entry.channel_name));
}

// Whether the entry is free as a withdrawal leaves it: every name byte 0, not picked up.
bool entry_freed(const Listener_entry& entry)
{
    return all_zero(entry.channel_name, sizeof entry.channel_name) && entry.picked_up == 0;
}

TEST_F(Monitor, ApplicationEndingBeforeItSawTheAttachmentHasItsEntryFreedAtOnce)
{
    start_monitor();
    Test_application app;
    ASSERT_TRUE(attach_announced(app));
    const Listener_entry taken = app.entry();
    EXPECT_EQ(entry_name(taken), app.name());
    EXPECT_EQ(taken.picked_up, 1);

    app.close();
    ASSERT_TRUE(wait_for("-- detach     " + app.name() + " " + app.name() + " (closed its channel)\n")) << output();
    EXPECT_TRUE(wait_until([&] { return entry_freed(app.entry()); }, ENTRY_FREED_LIMIT)) << errors();
    // Nothing was left for the proxy watchdog.
    EXPECT_FALSE(wait_until([&] { return !errors().empty(); }, PROXY_WATCHDOG_SPAN)) << errors();
    EXPECT_EQ(stop_monitor(), 0);
    EXPECT_EQ(errors(), "");
}

TEST_F(Monitor, FortyApplicationsEndingOneAfterTheOtherAllAnnounce)
{
    start_monitor();
    // More than the list's 32 entries. Every other one ends before the monitor has even
    // picked its name up (its object is gone when the monitor looks), the others once the
    // monitor has attached.
    constexpr int applications = 40;
    static_assert(applications > static_cast<int>(LISTENER_ENTRY_COUNT), "more than the list holds");
    for (int i = 0; i < applications; ++i) {
        Test_application app(unique_id("end" + std::to_string(i), 24));
        segments_.push_back(app.name());
        ASSERT_TRUE(app.announce()) << "application " << i << "\n" << output() << errors();
        if (i % 2 == 1) {
            ASSERT_TRUE(app.wait_attached_announced()) << "application " << i;
        }
        app.close();
        ASSERT_TRUE(wait_until([&] { return entry_freed(app.entry()); }, ENTRY_FREED_LIMIT))
            << "application " << i << "\n"
            << output() << errors();
    }
    EXPECT_FALSE(wait_until([&] { return errors().find("proxy watchdog") != std::string::npos; }, PROXY_WATCHDOG_SPAN))
        << errors();
    EXPECT_EQ(stop_monitor(), 0);
    // The only error: an object that vanished between the monitor's look at it and its
    // attach (the library's line), once for each such application.
    const std::string vanished = "logferry: error while opening the shared memory: No such file or directory";
    for (const std::string& line : split_lines(errors())) {
        EXPECT_EQ(line, vanished);
    }
    EXPECT_EQ(count_of(output(), ": cannot attach\n"), split_lines(errors()).size()) << output();
}

TEST_F(Monitor, EntryTakenByAnotherApplicationMeanwhileIsLeftAlone)
{
    start_monitor();
    Test_application first(unique_id("first", 24));
    ASSERT_TRUE(attach_announced(first));
    const int slot = first.entry_index();
    ASSERT_GE(slot, 0);
    // The first withdraws as its library does, and a second application announces in the
    // very entry it left.
    ASSERT_TRUE(first.withdraw());
    Test_application second(unique_id("second", 24));
    segments_.push_back(second.name());
    ASSERT_TRUE(second.announce_in(static_cast<std::uint8_t>(slot)));
    ASSERT_TRUE(second.wait_attached_announced());

    // The first goes: its name is nowhere in the list any more, and the second's
    // announcement stands as it was.
    first.close();
    ASSERT_TRUE(wait_for("-- detach     " + first.name() + " " + first.name() + " (closed its channel)\n")) << output();
    const Listener_entry kept = second.entry();
    EXPECT_EQ(entry_name(kept), second.name());
    EXPECT_EQ(kept.picked_up, 1);
    EXPECT_EQ(second.entry_index(), slot);

    // Once the second goes too, its entry is freed.
    second.close();
    EXPECT_TRUE(wait_until([&] { return entry_freed(second.entry()); }, ENTRY_FREED_LIMIT)) << output();
    EXPECT_EQ(stop_monitor(), 0);
    EXPECT_EQ(errors(), "");
}

// ---- Hostile and careless peers ---------------------------------------------------------

// A shared-memory object of `size` bytes, each `fill`; false when it cannot be made.
bool make_object(const std::string& name, std::size_t size, unsigned char fill)
{
    const int fd = ::shm_open(name.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    if (fd < 0) {
        return false;
    }
    bool made = ::ftruncate(fd, static_cast<off_t>(size)) == 0;
    if (made && size > 0) {
        void* map = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        made = map != MAP_FAILED;
        if (made) {
            std::memset(map, fill, size);
            ::munmap(map, size);
        }
    }
    ::close(fd);
    return made;
}

// Whether every byte of the object `name` is `fill`, and it has `size` bytes.
bool object_is(const std::string& name, std::size_t size, unsigned char fill)
{
    const int fd = ::shm_open(name.c_str(), O_RDONLY, 0);
    if (fd < 0) {
        return false;
    }
    struct stat status {};
    bool same = ::fstat(fd, &status) == 0 && status.st_size == static_cast<off_t>(size);
    if (same && size > 0) {
        void* map = ::mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0);
        same = map != MAP_FAILED;
        if (same) {
            const auto* bytes = static_cast<const unsigned char*>(map);
            same = std::all_of(bytes, bytes + size, [fill](unsigned char b) { return b == fill; });
            ::munmap(map, size);
        }
    }
    ::close(fd);
    return same;
}

// Announces `name` in the listener list as an application would; the announcer stays
// alive (and its entry visible to check_list) while the object lives.
class Announcer {
public:
    Announcer() : listener_(false) {}
    bool announce(const std::string& name)
    {
        name_ = name;
        return listener_.init() && listener_.push(name);
    }
    // True while the entry still holds the name (it was not withdrawn).
    bool announced() { return listener_.check_list(name_); }

private:
    Logferry_listener listener_;
    std::string name_;
};

// Announces `name`, and whether the monitor withdrew the announcement (the announcer's own
// check finds its entry emptied).
bool announced_and_withdrawn(const std::string& name)
{
    Announcer announcer;
    return announcer.announce(name) && wait_until([&] { return !announcer.announced(); });
}

TEST_F(Monitor, NamesOutsideTheChannelSchemeAreRefusedWithdrawnAndLeftUntouched)
{
    start_monitor();
    const std::string pid = std::to_string(::getpid());
    const std::string victim = "/relprobe-victim-" + pid;
    const std::string bare = "relprobe-victim-" + pid;
    const std::string forged = "/logferry-\x1b[2J\n-- attach x-1-a";
    segments_.push_back(victim);
    // As large as a channel segment and full of 0x5a: only the name gives it away.
    ASSERT_TRUE(make_object(victim, CHANNEL_SEGMENT_SIZE, 0x5a));

    for (const std::string& name : {victim, bare, forged}) {
        ASSERT_TRUE(announced_and_withdrawn(name)) << output();
    }
    ASSERT_TRUE(wait_for("-- refused    /logferry-\\x1b[2J\\x0a-- attach x-1-a: not a channel name\n")) << output();
    EXPECT_NE(output().find("-- refused    " + victim + ": not a channel name\n"), std::string::npos) << output();
    EXPECT_NE(output().find("-- refused    " + bare + ": not a channel name\n"), std::string::npos) << output();
    // Announced again: withdrawn again, without a second line.
    ASSERT_TRUE(announced_and_withdrawn(victim)) << output();
    EXPECT_EQ(count_of(output(), "-- refused    " + victim), 1U) << output();
    // Nothing was written into the foreign object, nothing raw reached the output.
    EXPECT_TRUE(object_is(victim, CHANNEL_SEGMENT_SIZE, 0x5a));
    EXPECT_EQ(output().find('\x1b'), std::string::npos);
    EXPECT_EQ(output().find("\n-- attach"), std::string::npos) << output();

    // A real application is served as before.
    expect_served("GOOD");
    EXPECT_EQ(stop_monitor(), 0);
    EXPECT_EQ(errors(), "");
}

TEST_F(Monitor, ObjectsThatAreNoChannelSegmentAreRefused)
{
    start_monitor();
    // A channel name whose object has 100 bytes, and the listener segment's own name.
    const std::string small = channel_name(unique_id("small", 20));
    segments_.push_back(small);
    ASSERT_TRUE(make_object(small, 100, 0x11));
    const std::string missing = channel_name(unique_id("missing", 20));
    // A FIFO under a channel name: opening it for reading would wait for a writer.
    const std::string fifo = channel_name(unique_id("fifo", 20));
    segments_.push_back(fifo);
    ASSERT_EQ(::mkfifo(("/dev/shm" + fifo).c_str(), 0600), 0);
    for (const std::string& name : {small, std::string(LISTENER_SEGMENT), fifo, missing}) {
        ASSERT_TRUE(announced_and_withdrawn(name)) << output();
    }
    ASSERT_TRUE(wait_for("-- refused    " + missing + ": cannot open: No such file or directory\n")) << output();
    EXPECT_NE(output().find("-- refused    " + small + ": size 100 bytes, not 166072\n"), std::string::npos)
        << output();
    EXPECT_NE(output().find("-- refused    /logferry-daemon-listener: not a channel name\n"), std::string::npos)
        << output();
    EXPECT_NE(output().find("-- refused    " + fifo + ": not a shared-memory object\n"), std::string::npos) << output();
    EXPECT_TRUE(object_is(small, 100, 0x11));
    EXPECT_EQ(output().find("-- attach"), std::string::npos) << output();

    Test_application app;
    ASSERT_TRUE(attach_registered(app, "GOOD"));
    app.close();
    EXPECT_TRUE(wait_for("-- detach     GOOD")) << output();
    EXPECT_EQ(stop_monitor(), 0);
    EXPECT_EQ(errors(), "");
}

// The monitor's SIGBUS handler answers the fault inside the shrunk segment. Under ASan it
// works with the suite's usual options (ASan lets a program install its own SIGBUS handler).
// ThreadSanitizer's own SIGBUS handling takes the fault first and ends the monitor, so under
// TSan this test runs the monitor with TSAN_OPTIONS handle_sigbus=0.
#if defined(__SANITIZE_THREAD__)
#define LOGFERRY_TEST_UNDER_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define LOGFERRY_TEST_UNDER_TSAN 1
#endif
#endif
// The monitor this test starts answers SIGBUS itself (see above).
void leave_sigbus_to_the_monitor()
{
#ifdef LOGFERRY_TEST_UNDER_TSAN
    const char* options = std::getenv("TSAN_OPTIONS");
    ::setenv("TSAN_OPTIONS", (std::string(options != nullptr ? options : "") + ":handle_sigbus=0").c_str(), 1);
#endif
}

// Cuts the shared-memory object `name` to `size` bytes.
bool truncate_object(const std::string& name, off_t size)
{
    const int fd = ::shm_open(name.c_str(), O_RDWR, 0);
    if (fd < 0) {
        return false;
    }
    const bool cut = ::ftruncate(fd, size) == 0;
    ::close(fd);
    return cut;
}

TEST_F(Monitor, SegmentShrunkAfterAttachIsDetachedAndTheOthersCarryOn)
{
    leave_sigbus_to_the_monitor();
    start_monitor();
    Test_application shrinking(unique_id("shrinking", 20));
    Test_application steady(unique_id("steady", 20));
    ASSERT_TRUE(attach_released(shrinking, "SHRK"));
    ASSERT_TRUE(attach_released(steady, "STDY"));
    ASSERT_TRUE(log_shown(shrinking, "SHRK", 1, "before"));

    // The application cuts its segment to 100 bytes; from now on it leaves it alone.
    ASSERT_TRUE(truncate_object(shrinking.name(), 100));
    ASSERT_TRUE(
        wait_for("-- detach     SHRK " + shrinking.name() + " (access fault: its segment shrank below 166072 bytes)\n"))
        << output() << errors();

    EXPECT_TRUE(log_shown(steady, "STDY", 2, "after"));
    // A new application is still attached and served.
    Test_application next(unique_id("next", 20));
    ASSERT_TRUE(attach_registered(next, "NEXT"));
    next.close();
    steady.close();
    EXPECT_TRUE(wait_for("-- detach     NEXT")) << output();
    EXPECT_EQ(stop_monitor(), 0);
    EXPECT_EQ(count_of(output(), "-- detach     SHRK"), 1U) << output();
}

TEST_F(Monitor, SegmentCutToNothingWhileLoggingIsDetached)
{
    leave_sigbus_to_the_monitor();
    start_monitor();
    const std::string identifier = unique_id("", 20);
    const std::string channel = channel_name(identifier);
    segments_.push_back(channel);
    // The application logs without pause, also while and after its segment is cut to 0
    // bytes (its own accesses then fault: it ends by the signal, as a hostile one may).
    std::uint32_t key = 0;
    const int child = fork_application(
        identifier, "ZERO", [](Test_application&) {},
        [&key](Test_application& app) {
            app.log(info_text(key, "flowing"));
            ++key;
        });
    ASSERT_GT(child, 0);
    ASSERT_TRUE(wait_for("ZERO CTX  info    \"flowing\"\n")) << errors();
    ASSERT_TRUE(truncate_object(channel, 0));
    EXPECT_TRUE(wait_for("-- detach     ZERO " + channel + " (access fault: its segment shrank below 166072 bytes)\n"))
        << errors();
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);

    expect_served("NEXT");
    EXPECT_EQ(stop_monitor(), 0);
    EXPECT_EQ(count_of(output(), "-- detach     ZERO"), 1U);
    EXPECT_EQ(errors(), "");
}

// An application that holds its ring's mutex without end (stopped while holding it, or its
// segment cut under it so that its death could not be recorded in the mutex) holds up
// neither the monitor nor the other applications; what its ring holds is read once it lets go.
TEST_F(Monitor, ARingMutexHeldWithoutEndHoldsUpNoOtherApplication)
{
    start_monitor();
    Test_application holding(unique_id("holding", 20));
    ASSERT_TRUE(attach_released(holding, "HOLD"));
    ASSERT_TRUE(log_shown(holding, "HOLD", 1, "before the hold"));

    ASSERT_TRUE(holding.log(info_text(2, "held")));
    ASSERT_EQ(::pthread_mutex_lock(holding.ring_mutex()), 0);
    // The monitor has passed the ring over as often as it does and now waits for it.
    const bool waited = wait_until([&] {
        holding.stamp();
        return holding.ring_has_waiters();
    });
    // Meanwhile a new application is attached, registered and served.
    expect_served("FREE");
    const std::string while_held = output();
    ASSERT_EQ(::pthread_mutex_unlock(holding.ring_mutex()), 0);
    EXPECT_TRUE(waited) << "the monitor never waited for the held ring";
    EXPECT_EQ(while_held.find("HOLD CTX  info    \"held\""), std::string::npos) << while_held;

    // Let go, its message comes, and it was never detached.
    EXPECT_TRUE(wait_for("HOLD CTX  info    \"held\"\n")) << output();
    EXPECT_EQ(count_of(output(), "-- detach     HOLD"), 0U) << output();
    holding.close();
    EXPECT_EQ(stop_monitor(), 0);
    EXPECT_EQ(errors(), "");
}

TEST_F(Monitor, ControlCharactersFromApplicationsAreEscaped)
{
    start_monitor();
    Test_application app;
    ASSERT_TRUE(attach_registered(app, "A\n\x1b\\",
                                  {{4, 1,
                                    "\x07"
                                    "C\r",
                                    "ctx\x1b"}},
                                  "line\nbreak"));
    app.release();
    ASSERT_TRUE(app.log(info_text(1, "text\n-- forged\x1b[0m")));
    const std::string app_id = "A\\x0a\\x1b\\x5c";
    ASSERT_TRUE(wait_for(app_id + " \\x07C\\x0d info    \"text\\n-- forged\\x1b[0m\"\n")) << output();
    app.close();
    ASSERT_TRUE(wait_for("-- detach")) << output();
    EXPECT_EQ(stop_monitor(), 0);
    const std::string text = output();
    EXPECT_NE(text.find("-- app        " + app_id + " \"line\\nbreak\" channel=" + app.name() + "\n"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("-- context    " + app_id + " \\x07C\\x0d handle=1 level=info \"ctx\\x1b\"\n"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("-- detach     " + app_id + " " + app.name() + " (closed its channel)\n"), std::string::npos)
        << text;
    // Every line is one the monitor wrote: no raw control character but the line ends.
    for (const char c : text) {
        EXPECT_TRUE(c == '\n' || (static_cast<unsigned char>(c) >= 0x20 && c != 0x7f)) << static_cast<int>(c);
    }
    EXPECT_EQ(count_of(text, "\n-- forged"), 0U);
}

TEST_F(Monitor, LockFileThatIsASymlinkOrNoRegularFileIsRefused)
{
    // A fresh run-state directory for the monitor, with or without ara_DLT.
    const auto use_runstate_dir = [&](bool with_ara_dlt) {
        runstate_.reset();
        runstate_.reset(new Runstate_dir(with_ara_dlt));
        dir_ = runstate_->root();
        out_ = file("monitor.out");
        err_ = file("monitor.err");
    };
    // The fallback under /tmp, where anyone may plant a link.
    use_runstate_dir(false);
    const std::string lock = FALLBACK_LOCK_FILE;
    const std::string target = file("planted-target");
    // Another monitor that used the fallback removes it as it stops.
    struct stat status {};
    ASSERT_TRUE(wait_until([&] { return ::lstat(lock.c_str(), &status) != 0; })) << lock << " stays in place";
    ASSERT_EQ(::symlink(target.c_str(), lock.c_str()), 0);
    const int refused_link = run_monitor_to_end({});
    ::unlink(lock.c_str());
    EXPECT_EQ(refused_link, 1);
    EXPECT_EQ(errors(), "logferry-monitor: refusing the lock file " + lock + ": it is a symbolic link\n");
    EXPECT_FALSE(path_exists(target));
    EXPECT_FALSE(shm_exists(LISTENER_SEGMENT));

    // A directory in the lock file's place in a run-state directory.
    use_runstate_dir(true);
    ASSERT_EQ(::mkdir(runstate_->lock_file().c_str(), 0700), 0);
    EXPECT_EQ(run_monitor_to_end({}), 1);
    EXPECT_EQ(errors(),
              "logferry-monitor: refusing the lock file " + runstate_->lock_file() + ": it is not a regular file\n");
    EXPECT_FALSE(shm_exists(LISTENER_SEGMENT));
}

TEST_F(Monitor, WhatTheMonitorCreatesIsMode0660UnderUmask022)
{
    const mode_t previous = ::umask(022);
    start_monitor({"--dlt-file", file("out.dlt")});
    ::umask(previous);
    for (const std::string& path : {lock_file_, std::string("/dev/shm") + LISTENER_SEGMENT, file("out.dlt")}) {
        struct stat created {};
        ASSERT_EQ(::stat(path.c_str(), &created), 0) << path;
        EXPECT_EQ(created.st_mode & 0777, 0660U) << path;
    }
    EXPECT_EQ(stop_monitor(), 0);
}

// Two users for the test below, members of the daemon's group (gid 1051, named "logferry"
// when this makes it); what was made here is removed again, what was there stays.
class Group_users {
public:
    Group_users()
    {
        if (::getgrgid(LOGGING_GROUP_ID) == nullptr) {
            made_group_ = run("groupadd -g " + std::to_string(LOGGING_GROUP_ID) + " logferry");
        }
        for (const char* name : {MONITOR_USER, APPLICATION_USER}) {
            if (::getpwnam(name) == nullptr && run(std::string("useradd -M -N -r -s /usr/sbin/nologin -g ") +
                                                   std::to_string(LOGGING_GROUP_ID) + " " + name)) {
                made_users_.push_back(name);
            }
        }
    }
    ~Group_users()
    {
        for (const std::string& name : made_users_) {
            run("userdel " + name);
        }
        if (made_group_) {
            run("groupdel logferry");
        }
    }
    Group_users(const Group_users&) = delete;
    Group_users& operator=(const Group_users&) = delete;

    // Why the users cannot be used, empty when they can.
    static std::string unusable()
    {
        if (::getgrgid(LOGGING_GROUP_ID) == nullptr) {
            return "no group " + std::to_string(LOGGING_GROUP_ID);
        }
        for (const char* name : {MONITOR_USER, APPLICATION_USER}) {
            const passwd* user = ::getpwnam(name);
            if (user == nullptr || user->pw_gid != LOGGING_GROUP_ID || user->pw_uid == 0) {
                return std::string("no user ") + name + " in group " + std::to_string(LOGGING_GROUP_ID);
            }
        }
        return "";
    }

    static constexpr const char* MONITOR_USER = "logferry-tmon";
    static constexpr const char* APPLICATION_USER = "logferry-tapp";

private:
    static bool run(const std::string& command) { return std::system((command + " >/dev/null 2>&1").c_str()) == 0; }

    bool made_group_ = false;
    std::vector<std::string> made_users_;
};

TEST_F(Monitor, MonitorAndApplicationAsTwoUnprivilegedUsersOfTheGroup)
{
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to create two users of group " << LOGGING_GROUP_ID;
    }
    for (const char* tool : {"/usr/sbin/groupadd", "/usr/sbin/useradd", "/usr/bin/setpriv"}) {
        if (::access(tool, X_OK) != 0) {
            GTEST_SKIP() << "needs " << tool << " to make and switch to the users (a bare machine has none)";
        }
    }
    Group_users users;
    const std::string why = Group_users::unusable();
    ASSERT_EQ(why, "");
    // The run-state directory belongs to the group, as the platform's does.
    for (const std::string& path : {dir_, runstate_->ara_dlt()}) {
        ASSERT_EQ(::chown(path.c_str(), 0, LOGGING_GROUP_ID), 0);
        ASSERT_EQ(::chmod(path.c_str(), 0770), 0);
    }
    const std::string regid = "--regid=" + std::to_string(LOGGING_GROUP_ID);
    // In a coverage build the programs write their counts at exit: under these users, into the
    // group's directory instead of the build tree they may not write (other builds ignore it).
    const Scoped_environment gcov_prefix("GCOV_PREFIX", dir_ + "/gcov");
    // The monitor as one user, under the usual umask: it sets its own.
    ::unlink(out_.c_str());
    pid_ = run_program("/usr/bin/setpriv",
                       {std::string("--reuid=") + Group_users::MONITOR_USER, regid, "--clear-groups", "--",
                        LOGFERRY_MONITOR_PATH, "--say", "hello across users"},
                       out_, err_);
    ASSERT_TRUE(wait_for("-- listening")) << output() << errors();
    struct stat lock {};
    ASSERT_EQ(::stat(lock_file_.c_str(), &lock), 0);
    EXPECT_EQ(lock.st_uid, ::getpwnam(Group_users::MONITOR_USER)->pw_uid);
    EXPECT_EQ(lock.st_gid, LOGGING_GROUP_ID);
    EXPECT_EQ(lock.st_mode & 0777, 0660U);

    // The example as the other user, with the umask applications need (0007).
    const Program_run example =
        finish_program(start_program("/bin/sh", "example",
                                     {"-c",
                                      std::string("umask 0007 && exec setpriv --reuid=") +
                                          Group_users::APPLICATION_USER + " " + regid + " --clear-groups -- \"$0\"",
                                      LOGFERRY_EXAMPLE_PATH}),
                       "example");
    ASSERT_TRUE(WIFEXITED(example.status)) << example.status;
    EXPECT_EQ(WEXITSTATUS(example.status), 0) << example.out << example.err;
    // Both ways: the monitor's text reached the application, its messages the monitor.
    EXPECT_NE(example.out.find("hello across users\n"), std::string::npos) << example.out;
    ASSERT_TRUE(wait_for("-- detach")) << output();
    EXPECT_EQ(stop_monitor(), 0);
    const std::string text = output();
    EXPECT_NE(text.find("-- app        EXA \"logferry example application\""), std::string::npos) << text;
    EXPECT_NE(text.find(" EXA  MAIN info    "), std::string::npos) << text;
    EXPECT_EQ(text.find("-- refused"), std::string::npos) << text;
    EXPECT_EQ(errors(), "");
}

}  // namespace
