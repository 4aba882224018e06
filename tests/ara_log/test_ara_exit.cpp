// The end of a process that logs through ara::log: what it staged reaches a daemon that reads,
// the end waits at most about a second once the daemon stops reading and not at all without
// a daemon, and the daemon sees every message of a process that lives only a moment.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "logferry/listener.hpp"
#include "support/e2e_fixture.hpp"
#include "support/test_util.hpp"

using Clock = std::chrono::steady_clock;

namespace {

struct Ending {
    int status = -1;
    Clock::duration took{};  // from the last message to the process's end
    std::string output;
};

// Runs the short-lived application (with the test's run-state directory, where the peer holds
// the lock) and times its end from its last message.
Ending run_short_life(int messages, const std::string& runstate)
{
    int told[2];
    int output[2];
    Ending ending;
    if (::pipe(told) != 0 || ::pipe(output) != 0) {
        return ending;
    }
    const std::string count = std::to_string(messages);
    const std::string descriptor = std::to_string(told[1]);
    const int pid = logferry_test::fork_child([&] {
        ::dup2(output[1], STDOUT_FILENO);
        ::setenv("ADAPTIVE_RUNSTATE_DIR", runstate.c_str(), 1);
        ::execl(LOGFERRY_SHORT_LIFE_APP, LOGFERRY_SHORT_LIFE_APP, count.c_str(), descriptor.c_str(), nullptr);
        return 127;
    });
    ::close(told[1]);
    ::close(output[1]);
    char done = 0;
    if (::read(told[0], &done, 1) == 1) {
        const Clock::time_point logged = Clock::now();
        ending.status = logferry_test::wait_child(pid, std::chrono::milliseconds(20000));
        ending.took = Clock::now() - logged;
    } else {
        ending.status = logferry_test::wait_child(pid);
    }
    char buffer[4096];
    for (ssize_t got = ::read(output[0], buffer, sizeof buffer); got > 0;
         got = ::read(output[0], buffer, sizeof buffer)) {
        ending.output.append(buffer, static_cast<std::size_t>(got));
    }
    ::close(told[0]);
    ::close(output[0]);
    return ending;
}

[[maybe_unused]] long long milliseconds(Clock::duration duration)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(duration).count();
}

}  // namespace

class AraExit : public logferry_test::End_to_end_test {};

TEST_F(AraExit, AShortLifeHandsEveryMessageToAReadingDaemonAndWithdrawsItsAnnouncement)
{
    logferry_test::Daemon_peer& peer = start_peer();
    constexpr int MESSAGES = 5000;  // about 200 KB: more than the ring holds
    const Ending ending = run_short_life(MESSAGES, runstate_->root());
    ASSERT_TRUE(logferry_test::exited_cleanly(ending.status)) << ending.status;
    EXPECT_EQ(ending.output, "");
    ASSERT_GE(peer.wait_for("detach "), 0);
    EXPECT_EQ(peer.lines_with("ring ").size(), static_cast<std::size_t>(MESSAGES));
    // The receiver thread withdrew the announcement: the list is empty again at once.
    logferry::Logferry_listener list(false);
    list.lock_listener_name = runstate_->lock_file();
    ASSERT_TRUE(list.init());
    for (const logferry::Listener_entry& entry : list.segment->entries) {
        EXPECT_EQ(entry.channel_name[0], 0);
    }
    list.uninit();
}

TEST_F(AraExit, ADaemonThatStopsReadingHoldsTheEndUpAboutASecondAndTheRestIsCounted)
{
    logferry_test::Daemon_peer& peer = start_peer();
    peer.send("stop-reading");
    ASSERT_GE(peer.wait_for("done stop-reading"), 0);
    constexpr int MESSAGES = 10000;  // four rings' worth
    const Ending ending = run_short_life(MESSAGES, runstate_->root());
    ASSERT_TRUE(logferry_test::exited_cleanly(ending.status)) << ending.status;
#ifndef LOGFERRY_EMULATED_TESTS
    EXPECT_GE(milliseconds(ending.took), 900);
    EXPECT_LT(milliseconds(ending.took), 3000);
#endif
    peer.send("read");
    ASSERT_GE(peer.wait_for("detach "), 0);
    const std::size_t delivered = peer.lines_with("ring ").size();
    EXPECT_GT(delivered, 0u);
    // Forced into the full ring at the end: the oldest were discarded and reported.
    const std::string prefix = "logferry: Application ";
    const std::string suffix = " messages discarded.\n";
    ASSERT_EQ(ending.output.rfind(prefix, 0), 0u) << ending.output;
    const std::size_t count_at = ending.output.rfind(", ") + 2;
    const std::size_t discarded = std::stoul(ending.output.substr(count_at));
    EXPECT_EQ(ending.output.substr(ending.output.size() - suffix.size()), suffix);
    EXPECT_EQ(delivered + discarded, static_cast<std::size_t>(MESSAGES));
}

TEST_F(AraExit, WithoutADaemonTheEndDoesNotWait)
{
    const Ending ending = run_short_life(100, runstate_->root());
    ASSERT_TRUE(logferry_test::exited_cleanly(ending.status)) << ending.status;
#ifndef LOGFERRY_EMULATED_TESTS
    EXPECT_LT(milliseconds(ending.took), 500);  // the receiver thread's reconnect pause is 1 s
#endif
    EXPECT_EQ(ending.output, "");
}
