// DLT TCP server: up to a bounded number of clients receive every message from the moment they
// connect, as a plain stream of DLT messages, and may send control requests. Connections beyond
// the bound are accepted and closed at once; when no descriptor is left to accept with, a spare
// one is given up for the moment to accept and close the connection, or the listening socket
// rests for a while, so that a flood of connections never makes the server spin.

#ifndef LOGFERRY_TOOLS_DLT_TCP_HPP
#define LOGFERRY_TOOLS_DLT_TCP_HPP

#include "dlt_control.hpp"
#include "tuning.hpp"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <poll.h>

namespace logferry_dlt {

class Tcp_server {  // non-blocking; clients get every message from when they connect
public:
    Tcp_server() = default;
    Tcp_server(const Tcp_server&) = delete;
    Tcp_server& operator=(const Tcp_server&) = delete;
    ~Tcp_server();

    // Port 0 picks a free one. Bounds the clients to `max_clients`, and to what the descriptor
    // limit (RLIMIT_NOFILE) leaves after DESCRIPTORS_KEPT: see client_limit().
    bool listen(const std::string& address, std::uint16_t port);
    std::uint16_t port() const;
    // The most clients served at once, as listen() set it: max_clients, lowered where the
    // descriptor limit less DESCRIPTORS_KEPT is smaller (at least 1).
    std::size_t client_limit() const { return client_limit_; }
    // Accepts, reads control requests, writes backlogs, sends the keep-alive once a second; at most
    // `timeout_ms` of waiting when idle. Calls `on_request(client, request)` for each valid request.
    void service(int timeout_ms, const std::function<void(int client, const Control_request&)>& on_request);
    // Never blocks: the message joins every client's backlog, which is written by service(),
    // flush(), or here once it holds WRITE_THRESHOLD bytes.
    void broadcast(const unsigned char* message, std::size_t size);
    void flush();  // writes what the clients' sockets take now, without waiting
    void send_to(int client, const std::vector<unsigned char>& message);
    std::size_t client_count() const;
    std::size_t backlog_bytes(int client) const;  // queued for `client`, not yet taken by its socket
    void close();

    std::uint64_t dropped_clients = 0;  // disconnected for a full backlog or garbage
    std::uint64_t refused_clients = 0;  // closed at once: the client limit reached, or no descriptor left
    // One line per connect/disconnect/drop, and at most one a second for each reason of
    // refusal (with the count since the last such line); taken by the caller.
    std::vector<std::string> events;
    // Bytes queued for one client before it is dropped.
    std::size_t backlog_limit = logferry_tuning::CLIENT_BACKLOG_LIMIT;
    std::size_t max_clients = DEFAULT_MAX_CLIENTS;  // set before listen()
    static constexpr std::size_t DEFAULT_MAX_CLIENTS = logferry_tuning::DEFAULT_MAX_CLIENTS;
    // Descriptors the client limit leaves to the rest of the program (see tuning.hpp).
    static constexpr std::size_t DESCRIPTORS_KEPT = logferry_tuning::DESCRIPTORS_KEPT;
    static constexpr std::size_t WRITE_THRESHOLD = logferry_tuning::CLIENT_WRITE_THRESHOLD;
    char ecu[4] = {};             // the ECU ID of the keep-alive and of the error answers; set by the owner
    std::string error;            // the last failure of listen(), one line
    bool address_in_use = false;  // whether it failed because the port is taken

private:
    struct Client {
        int fd = -1;
        int id = 0;
        std::vector<unsigned char> out;  // backlog not yet written
        std::size_t out_pos = 0;
        std::vector<unsigned char> in;  // partial request
        bool dead = false;
    };
    void accept_clients();
    bool refuse_with_spare();  // accepts and closes one connection through the spare descriptor
    void report_refusals();
    void read_client(Client& client, const std::function<void(int, const Control_request&)>& on_request);
    void write_client(Client& client);
    void queue(Client& client, const unsigned char* data, std::size_t size);
    Client* find(int id);
    void drop(Client& client, const char* why);
    void reap();

    int listen_fd_ = -1;
    int spare_fd_ = -1;  // given up for a moment to accept and close when descriptors run out
    std::size_t client_limit_ = DEFAULT_MAX_CLIENTS;
    std::int64_t listen_rests_until_ms_ = 0;  // the listening socket is not polled before then
    std::uint64_t refused_full_ = 0;          // refusals since the last line, by reason
    std::uint64_t refused_no_descriptor_ = 0;
    std::uint16_t port_ = 0;
    int next_id_ = 1;
    std::vector<Client> clients_;
    std::vector<pollfd> poll_fds_;  // kept between calls: no allocation per service()
    std::int64_t next_keep_alive_ms_ = 0;
};

}  // namespace logferry_dlt

#endif
