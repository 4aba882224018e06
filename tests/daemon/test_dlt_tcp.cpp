// The DLT TCP server: clients on the loopback receive every message from when they connect,
// a slow client is bounded and dropped without stalling the others, control requests reach
// the caller, and the DLT tools work with it as external clients.

#include "dlt_control.hpp"
#include "dlt_message.hpp"
#include "dlt_tcp.hpp"
#include "support/dlt_tools.hpp"
#include "support/test_util.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using logferry_dlt::Control_request;
using logferry_test::client_request;
using logferry_test::Dlt_bytes;
using namespace std::chrono_literals;

const char ECU[4] = {'E', 'C', 'U', '1'};

int connect_to(std::uint16_t port, int receive_buffer = 0)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (receive_buffer > 0) {
        ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer);
    }
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

// Appends what `fd` has now to `into`; false once the peer closed.
bool read_available(int fd, Dlt_bytes& into)
{
    unsigned char chunk[65536];
    for (;;) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, 0) <= 0) {
            return true;
        }
        const ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
        if (n <= 0) {
            return false;
        }
        into.insert(into.end(), chunk, chunk + n);
    }
}

std::uint16_t local_port(int fd)
{
    sockaddr_in local{};
    socklen_t length = sizeof local;
    return ::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &length) == 0 ? ntohs(local.sin_port) : 0;
}

bool is_keep_alive(const Dlt_bytes& m) { return m.size() >= 17 && m[16] == 0x36; }

std::vector<Dlt_bytes> log_messages(const Dlt_bytes& stream)
{
    std::vector<Dlt_bytes> out;
    for (Dlt_bytes& m : logferry_test::split_dlt_stream(stream)) {
        if (!is_keep_alive(m)) {
            out.push_back(std::move(m));
        }
    }
    return out;
}

class DltTcp : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::memcpy(server_.ecu, ECU, 4);
        ASSERT_TRUE(server_.listen("127.0.0.1", 0)) << server_.error;
    }
    void TearDown() override
    {
        for (int fd : fds_) {
            ::close(fd);
        }
        server_.close();
    }
    int client(int receive_buffer = 0)
    {
        const int fd = connect_to(server_.port(), receive_buffer);
        if (fd >= 0) {
            fds_.push_back(fd);
        }
        return fd;
    }
    // Services the server until `condition` holds (at most `timeout`).
    bool pump_until(const std::function<bool()>& condition, std::chrono::milliseconds timeout = 5000ms)
    {
        const auto end = std::chrono::steady_clock::now() + timeout;
        while (!condition()) {
            if (std::chrono::steady_clock::now() > end) {
                return false;
            }
            server_.service(1, on_request_);
        }
        return true;
    }
    std::size_t disconnected_count() const
    {
        std::size_t count = 0;
        for (const std::string& e : server_.events) {
            count += e.find(" disconnected") != std::string::npos ? 1 : 0;
        }
        return count;
    }
    bool has_event(const std::string& line) const
    {
        for (const std::string& e : server_.events) {
            if (e == line) {
                return true;
            }
        }
        return false;
    }

    logferry_dlt::Tcp_server server_;
    std::vector<int> fds_;
    std::vector<std::pair<int, Control_request>> requests_;
    std::function<void(int, const Control_request&)> on_request_ = [this](int client, const Control_request& r) {
        requests_.emplace_back(client, r);
    };
};

TEST_F(DltTcp, PortZeroPicksAFreePortOnTheLoopback)
{
    EXPECT_NE(server_.port(), 0);
    ASSERT_GE(client(), 0);
    ASSERT_TRUE(pump_until([&] { return server_.client_count() == 1; }));
    ASSERT_EQ(server_.events.size(), 1u);
    EXPECT_EQ(server_.events[0].rfind("DLT client 1 connected from 127.0.0.1:", 0), 0u) << server_.events[0];
    // The port is taken: a second server cannot have it.
    logferry_dlt::Tcp_server other;
    EXPECT_FALSE(other.listen("127.0.0.1", server_.port()));
    EXPECT_EQ(other.error.rfind("cannot listen on 127.0.0.1:" + std::to_string(server_.port()) + ": ", 0), 0u)
        << other.error;
}

TEST_F(DltTcp, AnAddressThatIsNotIpv4IsRefused)
{
    logferry_dlt::Tcp_server other;
    EXPECT_FALSE(other.listen("localhost:1", 0));
    EXPECT_EQ(other.error, "not an IPv4 address: localhost:1");
}

TEST_F(DltTcp, TwoClientsGetEveryMessageFromWhenTheyConnect)
{
    const std::vector<Dlt_bytes> samples = logferry_test::sample_dlt_messages();
    const int first = client();
    ASSERT_GE(first, 0);
    ASSERT_TRUE(pump_until([&] { return server_.client_count() == 1; }));
    server_.broadcast(samples[0].data(), samples[0].size());
    server_.broadcast(samples[1].data(), samples[1].size());
    const int second = client();
    ASSERT_GE(second, 0);
    ASSERT_TRUE(pump_until([&] { return server_.client_count() == 2; }));
    for (std::size_t i = 2; i < samples.size(); ++i) {
        server_.broadcast(samples[i].data(), samples[i].size());
    }
    Dlt_bytes got_first;
    Dlt_bytes got_second;
    ASSERT_TRUE(pump_until([&] {
        read_available(first, got_first);
        read_available(second, got_second);
        return log_messages(got_first).size() == samples.size() &&
               log_messages(got_second).size() == samples.size() - 2;
    }));
    EXPECT_EQ(log_messages(got_first), samples);
    EXPECT_EQ(log_messages(got_second), std::vector<Dlt_bytes>(samples.begin() + 2, samples.end()));
}

TEST_F(DltTcp, AClientThatNeverReadsIsDroppedWithoutStallingTheOthers)
{
    server_.backlog_limit = 1024 * 1024;
    const int stalled = client(4096);
    ASSERT_GE(stalled, 0);
    ASSERT_TRUE(pump_until([&] { return server_.client_count() == 1; }));
    const int reader = client();
    ASSERT_GE(reader, 0);
    ASSERT_TRUE(pump_until([&] { return server_.client_count() == 2; }));

    // The reader drains its socket on a thread of its own while the server broadcasts.
    // Only the drain thread touches `got` until it is joined; the test sees its size.
    std::atomic<bool> stop{false};
    std::atomic<std::size_t> got_size{0};
    Dlt_bytes got;
    std::thread drain([&] {
        while (!stop.load()) {
            pollfd p{reader, POLLIN, 0};
            if (::poll(&p, 1, 10) > 0) {
                const bool open = read_available(reader, got);
                got_size = got.size();
                if (!open) {
                    return;
                }
            }
        }
        read_available(reader, got);
    });
    constexpr std::size_t COUNT = 20000;
    // Messages of about 1 KiB: 20 MB in all, far more than the sockets' buffers hold.
    const std::string text(1000, 't');
    const logferry_dlt::Argument arg = logferry_test::dlt_data(logferry_dlt::Arg_kind::text, text.data(), text.size());
    logferry_dlt::Message m;
    std::memcpy(m.ecu, ECU, 4);
    std::memcpy(m.app, "APP1", 4);
    m.level = 4;
    m.args = &arg;
    m.arg_count = 1;
    Dlt_bytes message(logferry_dlt::encoded_size(m));
    ASSERT_EQ(logferry_dlt::encode_log_message(m, message.data(), message.size()), message.size());
    for (std::size_t i = 0; i < COUNT; ++i) {
        message[1] = static_cast<unsigned char>(i);  // the counter tells them apart
        server_.broadcast(message.data(), message.size());
        if (i % 64 == 0) {
            // The reader is as slow as this machine makes its thread; wait for it, never
            // for the stalled client.
            ASSERT_TRUE(pump_until([&] {
                server_.flush();
                return server_.backlog_bytes(2) < server_.backlog_limit / 2;
            })) << i;
        }
    }
    const bool delivered = pump_until([&] { return server_.client_count() == 1; }, 5000ms);
    // Whatever the reader still lacks is in its backlog: keep servicing until it has all.
    std::size_t received = 0;
    const bool complete = pump_until(
        [&] {
            server_.flush();
            std::this_thread::sleep_for(1ms);
            return got_size.load() >= COUNT * message.size();
        },
        10000ms);
    stop = true;
    drain.join();
    received = log_messages(got).size();
    EXPECT_TRUE(delivered);
    EXPECT_TRUE(complete);
    EXPECT_EQ(server_.dropped_clients, 1u);
    EXPECT_TRUE(has_event("DLT client 1 dropped: its backlog exceeded the limit"));
    ASSERT_EQ(received, COUNT);
    const std::vector<Dlt_bytes> messages = log_messages(got);
    for (std::size_t i = 0; i < COUNT; ++i) {
        message[1] = static_cast<unsigned char>(i);
        ASSERT_EQ(messages[i], message) << i;
    }
}

TEST_F(DltTcp, ADisconnectingClientIsForgottenAtOnce)
{
    const int fd = client();
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(pump_until([&] { return server_.client_count() == 1; }));
    ::close(fd);
    fds_.clear();
    ASSERT_TRUE(pump_until([&] { return server_.client_count() == 0; }, 1000ms));
    EXPECT_TRUE(has_event("DLT client 1 disconnected"));
    EXPECT_EQ(server_.dropped_clients, 0u);
    const Dlt_bytes m = logferry_test::sample_dlt_messages()[0];
    server_.broadcast(m.data(), m.size());  // nobody to send to, nothing to fail
    EXPECT_EQ(server_.client_count(), 0u);
}

TEST_F(DltTcp, AClientThatSendsGarbageIsDisconnected)
{
    const int fd = client();
    const int good = client();
    ASSERT_GE(fd, 0);
    ASSERT_GE(good, 0);
    ASSERT_TRUE(pump_until([&] { return server_.client_count() == 2; }));
    const char garbage[] = "GET / HTTP/1.0\r\n\r\n";
    ASSERT_EQ(::send(fd, garbage, sizeof garbage - 1, 0), static_cast<ssize_t>(sizeof garbage - 1));
    ASSERT_TRUE(pump_until([&] { return server_.client_count() == 1; }));
    EXPECT_EQ(server_.dropped_clients, 1u);
    EXPECT_TRUE(has_event("DLT client 1 dropped: it sent bytes that are not DLT messages"));
    EXPECT_TRUE(requests_.empty());
    Dlt_bytes rest;
    EXPECT_TRUE(logferry_test::wait_until([&] { return !read_available(fd, rest); }, 2000ms)) << "closed";
    // The other client still gets messages.
    const Dlt_bytes m = logferry_test::sample_dlt_messages()[0];
    server_.broadcast(m.data(), m.size());
    Dlt_bytes got;
    ASSERT_TRUE(pump_until([&] {
        read_available(good, got);
        return !log_messages(got).empty();
    }));
    EXPECT_EQ(log_messages(got), std::vector<Dlt_bytes>{m});
}

TEST_F(DltTcp, AKeepAliveArrivesEverySecond)
{
    const int fd = client();
    ASSERT_GE(fd, 0);
    Dlt_bytes got;
    std::vector<Dlt_bytes> keep_alives;
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(pump_until(
        [&] {
            read_available(fd, got);
            keep_alives = logferry_test::split_dlt_stream(got);
            return keep_alives.size() >= 2;
        },
        5000ms));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 900ms);
    for (const Dlt_bytes& m : keep_alives) {
        EXPECT_EQ(m, logferry_dlt::keep_alive_message(ECU));
    }
}

TEST_F(DltTcp, ControlRequestsReachTheCallerAndAnswersReachTheClient)
{
    const int fd = client();
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(pump_until([&] { return server_.client_count() == 1; }));
    on_request_ = [this](int client, const Control_request& r) {
        requests_.emplace_back(client, r);
        server_.send_to(client, logferry_dlt::control_response(ECU, r.service_id, logferry_dlt::STATUS_OK));
    };
    // A request in two pieces, then one with a level out of range.
    const Dlt_bytes set =
        client_request({0x01, 0, 0, 0, 'A', 'P', 'P', '1', 'C', 'T', 'X', '1', 0x03, 'r', 'e', 'm', 'o'});
    ASSERT_EQ(::send(fd, set.data(), 10, 0), 10);
    for (int i = 0; i < 20; ++i) {
        server_.service(1, on_request_);
    }
    EXPECT_TRUE(requests_.empty());
    ASSERT_EQ(::send(fd, set.data() + 10, set.size() - 10, 0), static_cast<ssize_t>(set.size() - 10));
    const Dlt_bytes bad = client_request({0x01, 0, 0, 0, 'A', 'P', 'P', '1', 'C', 'T', 'X', '1', 0x09});
    ASSERT_EQ(::send(fd, bad.data(), bad.size(), 0), static_cast<ssize_t>(bad.size()));
    Dlt_bytes got;
    ASSERT_TRUE(pump_until([&] {
        read_available(fd, got);
        return log_messages(got).size() >= 2;
    }));
    ASSERT_EQ(requests_.size(), 1u);
    EXPECT_EQ(requests_[0].first, 1);
    EXPECT_EQ(std::string(requests_[0].second.app, 4), "APP1");
    EXPECT_EQ(std::string(requests_[0].second.context, 4), "CTX1");
    EXPECT_EQ(requests_[0].second.level, 3);
    EXPECT_EQ(log_messages(got), (std::vector<Dlt_bytes>{logferry_dlt::control_response(ECU, 1, 0),
                                                         logferry_dlt::control_response(ECU, 1, 2)}));
    EXPECT_EQ(server_.client_count(), 1u);
}

// Connections beyond the client limit are accepted and closed at once, counted, and reported in
// one line per second; a slot that frees is taken by the next connection.
TEST_F(DltTcp, ConnectionsBeyondTheLimitAreClosedAtOnce)
{
    server_.max_clients = 3;
    ASSERT_TRUE(server_.listen("127.0.0.1", 0)) << server_.error;
    ASSERT_EQ(server_.client_limit(), 3u);
    std::vector<int> fds;
    for (int i = 0; i < 5; ++i) {
        fds.push_back(client());
        ASSERT_GE(fds.back(), 0);
    }
    ASSERT_TRUE(pump_until([&] { return server_.client_count() == 3 && server_.refused_clients == 2; }));
    // The last two were closed without a byte; the first three get the keep-alive.
    for (int i = 0; i < 5; ++i) {
        Dlt_bytes got;
        if (i < 3) {
            ASSERT_TRUE(pump_until([&] { return read_available(fds[i], got) && !got.empty(); })) << i;
            EXPECT_EQ(logferry_test::split_dlt_stream(got)[0], logferry_dlt::keep_alive_message(ECU)) << i;
        } else {
            ASSERT_TRUE(pump_until([&] { return !read_available(fds[i], got); })) << i;
            EXPECT_TRUE(got.empty()) << i;
        }
    }
    EXPECT_TRUE(has_event("refused 2 DLT connections: 3 clients connected, the most allowed"));
    // A slot frees: the next connection is served.
    ::close(fds[0]);
    fds_.erase(std::find(fds_.begin(), fds_.end(), fds[0]));
    ASSERT_TRUE(pump_until([&] { return server_.client_count() == 2; }));
    const int next = client();
    ASSERT_GE(next, 0);
    ASSERT_TRUE(pump_until([&] { return server_.client_count() == 3; }));
    Dlt_bytes got;
    ASSERT_TRUE(pump_until([&] { return read_available(next, got) && !got.empty(); }));
    EXPECT_EQ(server_.refused_clients, 2u);
    EXPECT_TRUE(has_event("DLT client 4 connected from 127.0.0.1:" + std::to_string(local_port(next))));
}

// Lowers this process's limit of open files to `limit` and fills every free descriptor below
// it (with /dev/null) but `left`; closes them and puts the limit back when it goes.
class Descriptor_filler {
public:
    Descriptor_filler(rlim_t limit, int left)
    {
        ::getrlimit(RLIMIT_NOFILE, &saved_);
        rlimit lower = saved_;
        lower.rlim_cur = limit;
        lowered_ = ::setrlimit(RLIMIT_NOFILE, &lower) == 0;
        for (int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC); fd >= 0;
             fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC)) {
            fds_.push_back(fd);
        }
        release(left);
    }
    ~Descriptor_filler()
    {
        release(fds_.size());
        ::setrlimit(RLIMIT_NOFILE, &saved_);
    }
    Descriptor_filler(const Descriptor_filler&) = delete;
    Descriptor_filler& operator=(const Descriptor_filler&) = delete;

    // Whether no descriptor is left.
    bool full() const
    {
        const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        if (fd >= 0) {
            ::close(fd);
            return false;
        }
        return lowered_ && errno == EMFILE;
    }
    void release(std::size_t count)
    {
        for (; count > 0 && !fds_.empty(); --count) {
            ::close(fds_.back());
            fds_.pop_back();
        }
    }

private:
    rlimit saved_{};
    bool lowered_ = false;
    std::vector<int> fds_;
};

// How many times service(10) returns within `span`: about span / 10 ms when it waits, far more
// when it spins.
int services_within(logferry_dlt::Tcp_server& server, std::chrono::milliseconds span)
{
    int calls = 0;
    const auto end = std::chrono::steady_clock::now() + span;
    while (std::chrono::steady_clock::now() < end) {
        server.service(10, [](int, const Control_request&) {});
        ++calls;
    }
    return calls;
}

// The tests without descriptors leave the fixture alone: with every descriptor taken,
// UndefinedBehaviorSanitizer cannot check a polymorphic object's type (it probes memory through
// a pipe) and reports a false invalid vptr. Their server and clients are plain objects.
struct Bare_server {
    logferry_dlt::Tcp_server server;
    std::vector<int> fds;
    Bare_server() { std::memcpy(server.ecu, ECU, 4); }
    ~Bare_server()
    {
        for (const int fd : fds) {
            ::close(fd);
        }
    }
    Bare_server(const Bare_server&) = delete;
    Bare_server& operator=(const Bare_server&) = delete;
    int client()
    {
        const int fd = connect_to(server.port());
        if (fd >= 0) {
            fds.push_back(fd);
        }
        return fd;
    }
    bool pump_until(const std::function<bool()>& condition)
    {
        const auto end = std::chrono::steady_clock::now() + 5000ms;
        while (!condition()) {
            if (std::chrono::steady_clock::now() > end) {
                return false;
            }
            server.service(1, [](int, const Control_request&) {});
        }
        return true;
    }
    bool has_event(const std::string& line) const
    {
        return std::find(server.events.begin(), server.events.end(), line) != server.events.end();
    }
};

// With no descriptor left, queued connections are accepted and closed through the spare
// descriptor, reported, and the server waits instead of spinning; a new client is served once
// descriptors free up.
TEST(DltTcpWithoutDescriptors, QueuedConnectionsAreClosedThroughTheSpareWithoutSpinning)
{
    Bare_server bare;
    bare.server.max_clients = 1000;
    ASSERT_TRUE(bare.server.listen("127.0.0.1", 0)) << bare.server.error;
    std::vector<int> queued;
    for (int i = 0; i < 10; ++i) {
        queued.push_back(bare.client());
        ASSERT_GE(queued.back(), 0);
    }
    Descriptor_filler filler(static_cast<rlim_t>(logferry_test::count_open_fds() + 64), 0);
    ASSERT_TRUE(filler.full());
    const int calls = services_within(bare.server, 300ms);
    EXPECT_LE(calls, 60);
    EXPECT_EQ(bare.server.client_count(), 0u);
    EXPECT_EQ(bare.server.refused_clients, 10u);
    ASSERT_TRUE(bare.pump_until([&] { return bare.has_event("refused 10 DLT connections: no descriptor left"); }));
    for (const int fd : queued) {
        Dlt_bytes got;
        EXPECT_FALSE(read_available(fd, got));
        EXPECT_TRUE(got.empty());
    }
    // Two descriptors free (this end and the server's): a new client is served.
    filler.release(2);
    const int fresh = bare.client();
    ASSERT_GE(fresh, 0);
    ASSERT_TRUE(bare.pump_until([&] { return bare.server.client_count() == 1; }));
    Dlt_bytes got;
    ASSERT_TRUE(bare.pump_until([&] { return read_available(fresh, got) && !got.empty(); }));
    EXPECT_EQ(bare.server.refused_clients, 10u);
}

// Without a spare descriptor (none was left when the server started), the listening socket
// rests instead of being polled again at once; its connections wait in the queue and are
// taken as descriptors free up.
TEST(DltTcpWithoutDescriptors, WithoutASpareTheListeningSocketRestsWithoutSpinning)
{
    Bare_server bare;
    Descriptor_filler filler(static_cast<rlim_t>(logferry_test::count_open_fds() + 64), 1);
    bare.server.max_clients = 1000;
    ASSERT_TRUE(bare.server.listen("127.0.0.1", 0)) << bare.server.error;  // its socket takes the last one
    filler.release(5);
    std::vector<int> queued;
    for (int i = 0; i < 5; ++i) {
        queued.push_back(bare.client());
        ASSERT_GE(queued.back(), 0);
    }
    ASSERT_TRUE(filler.full());
    const int calls = services_within(bare.server, 300ms);
    EXPECT_LE(calls, 60);
    EXPECT_EQ(bare.server.client_count(), 0u);
    EXPECT_EQ(bare.server.refused_clients, 0u);
    // Three descriptors free: the first three queued connections become clients.
    filler.release(3);
    ASSERT_TRUE(bare.pump_until([&] { return bare.server.client_count() == 3; }));
    for (int i = 0; i < 3; ++i) {
        Dlt_bytes got;
        ASSERT_TRUE(bare.pump_until([&] { return read_available(queued[i], got) && !got.empty(); })) << i;
    }
    EXPECT_LE(services_within(bare.server, 300ms), 60);
    EXPECT_EQ(bare.server.client_count(), 3u);
    EXPECT_EQ(bare.server.refused_clients, 0u);
}

// dlt-receive (an external client) connects and stores what the server sends.
TEST_F(DltTcp, DltReceiveStoresEveryMessage)
{
    const std::string receive = logferry_test::find_program("dlt-receive");
    if (receive.empty()) {
        GTEST_SKIP() << "dlt-receive is not installed (Debian package dlt-tools; scripts/install-deps.sh installs it)";
    }
    const std::string file = "/tmp/lf-dlt-" + logferry_test::unique_id("", 60) + ".dlt";
    const std::string port = std::to_string(server_.port());
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const int null = ::open("/dev/null", O_WRONLY);
        ::dup2(null, 1);
        ::dup2(null, 2);
        ::execl(receive.c_str(), "dlt-receive", "-o", file.c_str(), "-p", port.c_str(), "127.0.0.1",
                static_cast<char*>(nullptr));
        ::_exit(127);
    }
    const bool connected = pump_until([&] { return server_.client_count() == 1; });
    const std::vector<Dlt_bytes> samples = logferry_test::sample_dlt_messages();
    for (const Dlt_bytes& m : samples) {
        server_.broadcast(m.data(), m.size());
    }
    std::vector<Dlt_bytes> stored;
    const bool all = pump_until([&] {
        stored.clear();
        for (Dlt_bytes& m : logferry_test::split_dlt_file(logferry_test::read_file_bytes(file))) {
            if (!is_keep_alive(m)) {
                stored.push_back(std::move(m));
            }
        }
        return stored.size() >= samples.size();
    });
    ::kill(child, SIGTERM);
    int status = 0;
    ::waitpid(child, &status, 0);
    std::remove(file.c_str());
    EXPECT_TRUE(connected);
    EXPECT_TRUE(all);
    EXPECT_EQ(stored, samples);
}

// dlt-control (an external client) sends requests; the parser reads them and the answers
// built here are understood.
TEST_F(DltTcp, DltControlRequestsAreParsedAndAnswered)
{
    const std::string control = logferry_test::find_program("dlt-control");
    if (control.empty()) {
        GTEST_SKIP() << "dlt-control is not installed (Debian package dlt-tools; scripts/install-deps.sh installs it)";
    }
    on_request_ = [this](int client, const Control_request& r) {
        requests_.emplace_back(client, r);
        if (r.service_id == static_cast<std::uint32_t>(logferry_dlt::Service::get_log_info)) {
            logferry_dlt::App_info app{{'A', 'P', 'P', '1'}, "example application", {}};
            app.contexts.push_back(logferry_dlt::Context_info{{'C', 'T', 'X', '1'}, 5, "first context"});
            server_.send_to(client, logferry_dlt::get_log_info_response(ECU, {app}));
        } else if (r.service_id == static_cast<std::uint32_t>(logferry_dlt::Service::get_software_version)) {
            server_.send_to(client, logferry_dlt::software_version_response(ECU, "logferry-monitor 9.8.7"));
        } else {
            server_.send_to(client, logferry_dlt::control_response(ECU, r.service_id, logferry_dlt::STATUS_OK));
        }
    };
    const std::string base = control + " -t 3000 -p " + std::to_string(server_.port());
    auto run = [&](const std::string& options) {
        auto output =
            std::async(std::launch::async, [&] { return logferry_test::run_command(base + options + " 127.0.0.1"); });
        // Until the tool has ended and the server has read all it sent (its disconnection).
        const std::size_t disconnections = disconnected_count();
        EXPECT_TRUE(pump_until(
            [&] { return output.wait_for(0s) == std::future_status::ready && disconnected_count() > disconnections; },
            10000ms));
        return output.get();
    };
    run(" -a APP1 -c CTX1 -l 5");
    ASSERT_EQ(requests_.size(), 1u);
    EXPECT_EQ(requests_[0].second.service_id, 0x01u);
    EXPECT_EQ(std::string(requests_[0].second.app, 4), "APP1");
    EXPECT_EQ(std::string(requests_[0].second.context, 4), "CTX1");
    EXPECT_EQ(requests_[0].second.level, 5);

    run(" -S -a APP2 -c CTX2 -l 3");  // with a serial header before the message
    ASSERT_EQ(requests_.size(), 2u);
    EXPECT_EQ(std::string(requests_[1].second.app, 4), "APP2");
    EXPECT_EQ(requests_[1].second.level, 3);
    requests_.erase(requests_.begin() + 1);

    run(" -d 2");
    ASSERT_EQ(requests_.size(), 2u);
    EXPECT_EQ(requests_[1].second.service_id, 0x11u);
    EXPECT_EQ(requests_[1].second.level, 2);

    const std::string info = run(" -j");
    EXPECT_NE(info.find("APID:APP1 example application\n"), std::string::npos) << info;
    EXPECT_NE(info.find("CTID:CTX1  5  0 first context\n"), std::string::npos) << info;

    const std::string version = run(" -k");
    EXPECT_NE(version.find("logferry-monitor 9.8.7"), std::string::npos) << version;
}

}  // namespace
