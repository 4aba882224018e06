// The connect step against a daemon's listener list: the application's channel is announced,
// and a channel name too long for the list is refused there.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "logferry/client.hpp"
#include "support/client_fixture.hpp"
#include "support/diagnostics.hpp"
#include "support/fake_system.hpp"
#include "support/listener_daemon.hpp"
#include "support/runstate_dir.hpp"
#include "support/test_util.hpp"

using logferry_test::Fake_system;
using logferry_test::name_too_long;
using logferry_test::Op;
using logferry_test::Scoped_system;

namespace {

// An identifier of `length` characters, unique to this process.
std::string identifier_of_length(std::size_t length)
{
    char text[32];
    std::snprintf(text, sizeof(text), "Q%08d", static_cast<int>(::getpid() % 100000000));
    std::string id(text);
    id.resize(length, 'x');
    return id;
}

}  // namespace

// The names announced in the listener list, read through a mapping of our own under the
// list's mutex (the library's receiver thread may open and close its own mapping meanwhile).
std::vector<std::string> announced_names()
{
    std::vector<std::string> names;
    const int fd = ::shm_open(logferry_test::LISTENER_SEGMENT, O_RDWR, 0);
    if (fd < 0) {
        ADD_FAILURE() << "no listener segment";
        return names;
    }
    void* memory = ::mmap(nullptr, logferry::LISTENER_SEGMENT_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ::close(fd);
    if (memory == MAP_FAILED) {
        ADD_FAILURE() << "cannot map the listener segment";
        return names;
    }
    auto* segment = static_cast<logferry::Listener_segment*>(memory);
    {
        logferry::Mutex_lock_guard lock(&segment->list_mutex.mutex, false);
        for (const auto& entry : segment->entries) {
            if (entry.channel_name[0] != 0) {
                names.emplace_back(entry.channel_name, ::strnlen(entry.channel_name, logferry::LISTENER_NAME_SIZE));
            }
        }
    }
    ::munmap(memory, logferry::LISTENER_SEGMENT_SIZE);
    return names;
}

// A daemon's listener, in a child process (the lock it holds on the lock file must belong
// to another process), keeps the lock file in the test's own run-state directory, where the
// application's listener looks for it.
class ClientListener : public logferry_test::Client_test {
protected:
    void SetUp() override
    {
        Client_test::SetUp();
        ASSERT_TRUE(daemon_.start(lock_path()));
    }

    void TearDown() override
    {
        logferry::exit();
        if (daemon_.running()) {
            const int status = daemon_.stop();
            EXPECT_TRUE(logferry_test::exited_cleanly(status)) << status;
        }
        Client_test::TearDown();
    }

    // Fixed process id and clock, so that the channel name has a known length:
    // "/logferry-" + identifier + "-12345-bebc20".
    void name_channel(const std::string& identifier)
    {
        Fake_system fake;
        Scoped_system scoped(&fake);
        fake.fail(Op::getpid, 12345, 0, -1);
        fake.set_time(12, 500000000);
        logferry::set_app_identifier(identifier);
    }

    logferry_test::Listener_daemon_child daemon_;
};

TEST_F(ClientListener, InitAnnouncesTheChannelToTheDaemon)
{
    name_channel(identifier_of_length(9));
    logferry::init();
    remember_channel();
    EXPECT_TRUE(logferry::message_receiver_thread.joinable());
    EXPECT_EQ(announced_names(), std::vector<std::string>{logferry::client.get_filename()});
}

TEST_F(ClientListener, ConnectChannelAcceptsANameOf32Bytes)
{
    name_channel(identifier_of_length(9));
    ASSERT_EQ(logferry::client.app_identifier.size(), 9u + 13u);
    EXPECT_TRUE(logferry::connect_channel());
    remember_channel();
    ASSERT_EQ(logferry::client.get_filename().size(), 32u);
    EXPECT_EQ(announced_names(), std::vector<std::string>{logferry::client.get_filename()});
}

TEST_F(ClientListener, NameTooLongForTheListIsRefusedThere)
{
    name_channel(identifier_of_length(10));
    bool connected = true;
    const std::string output = logferry_test::capture_stderr([&] { connected = logferry::connect_channel(); });
    remember_channel();
    EXPECT_FALSE(connected);
    EXPECT_EQ(output, name_too_long());
    ASSERT_EQ(logferry::client.get_filename().size(), 33u);
    // The channel itself is open and the listener reached; only the announcement failed.
    EXPECT_TRUE(logferry::client.is_initialized());
    EXPECT_TRUE(logferry::listener.is_initialized());
    EXPECT_TRUE(announced_names().empty());
}

TEST_F(ClientListener, InitWithOverlongNameStillStartsTheThread)
{
    name_channel(std::string(100, 'L'));
    logferry_test::capture_stderr([] { logferry::init(); });
    remember_channel();
    EXPECT_TRUE(logferry::init_called);
    EXPECT_TRUE(logferry::message_receiver_thread.joinable());
    EXPECT_TRUE(logferry::client.is_initialized());
    EXPECT_TRUE(announced_names().empty());
}
