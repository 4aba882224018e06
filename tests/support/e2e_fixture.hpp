#ifndef LOGFERRY_TEST_E2E_FIXTURE_HPP
#define LOGFERRY_TEST_E2E_FIXTURE_HPP

// Shared set-up of the tests that run the library against the daemon-side test peer: a
// private run-state directory, the library's listener pointed at it, a channel name unique
// to the test, and helpers to build the bytes the peer must see.

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "logferry/client.hpp"
#include "support/peer_process.hpp"
#include "support/record_bytes.hpp"
#include "support/runstate_dir.hpp"
#include "support/test_util.hpp"

namespace logferry_test {

// The peer's lines of one kind ("priority ", "ring "), without the prefix.
inline std::vector<std::string> payloads(const Daemon_peer& peer, const std::string& prefix)
{
    std::vector<std::string> result;
    for (const std::string& line : peer.lines_with(prefix)) {
        result.push_back(line.substr(prefix.size()));
    }
    return result;
}

// A log message whose start record's time stamp (bytes 10 to 13) is masked.
inline std::string masked(std::string hex)
{
    if (hex.size() >= 28) {
        hex.replace(20, 8, "tttttttt");
    }
    return hex;
}

class End_to_end_test : public ::testing::Test {
protected:
    void SetUp() override
    {
        runstate_.reset(new Runstate_dir());
        lock_name_.reset(new Scoped_value<std::string>(logferry::listener.lock_listener_name, runstate_->lock_file()));
        // The process id is part of the channel name, which keeps it unique; the whole name
        // must fit the listener list's 32 bytes.
        logferry::set_app_identifier("E2E");
    }

    void TearDown() override
    {
        logferry::exit();
        peers_.clear();
        lock_name_.reset();
        runstate_.reset();
    }

    Daemon_peer& start_peer()
    {
        peers_.emplace_back(new Daemon_peer(LOGFERRY_TEST_DAEMON_PEER, runstate_->root()));
        EXPECT_TRUE(peers_.back()->ready());
        return *peers_.back();
    }

    std::unique_ptr<Runstate_dir> runstate_;
    std::vector<std::unique_ptr<Daemon_peer>> peers_;

private:
    std::unique_ptr<Scoped_value<std::string>> lock_name_;
};

}  // namespace logferry_test

#endif
