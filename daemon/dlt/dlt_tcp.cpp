#include "dlt_tcp.hpp"

#include <cerrno>
#include <cstring>
#include <ctime>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace logferry_dlt {

namespace {

namespace tuning = logferry_tuning;

int open_spare() { return ::open("/dev/null", O_RDONLY | O_CLOEXEC); }

// The most clients the descriptor limit allows besides DESCRIPTORS_KEPT (at least 1).
std::size_t descriptor_bound(std::size_t wanted, std::size_t kept)
{
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) {
        return wanted;
    }
    const std::size_t allowed = limit.rlim_cur > kept ? static_cast<std::size_t>(limit.rlim_cur) - kept : 1;
    return wanted < allowed ? wanted : allowed;
}

std::string connections(std::uint64_t count)
{
    return std::to_string(count) + " DLT connection" + (count == 1 ? "" : "s");
}

std::int64_t now_ms()
{
    timespec ts{};
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<std::int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

}  // namespace

Tcp_server::~Tcp_server() { close(); }

bool Tcp_server::listen(const std::string& address, std::uint16_t port)
{
    close();
    address_in_use = false;
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    if (::inet_pton(AF_INET, address.c_str(), &addr.sin_addr) != 1) {
        error = "not an IPv4 address: " + address;
        return false;
    }
    listen_fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (listen_fd_ < 0) {
        error = std::string("cannot create a socket: ") + std::strerror(errno);
        return false;
    }
    const int one = 1;
    (void)::setsockopt(listen_fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    if (::bind(listen_fd_, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0 ||
        ::listen(listen_fd_, SOMAXCONN) != 0) {
        address_in_use = errno == EADDRINUSE;
        error = "cannot listen on " + address + ":" + std::to_string(port) + ": " + std::strerror(errno);
        ::close(listen_fd_);
        listen_fd_ = -1;
        return false;
    }
    socklen_t len = sizeof addr;
    if (::getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        error = std::string("cannot read the listening port: ") + std::strerror(errno);
        ::close(listen_fd_);
        listen_fd_ = -1;
        return false;
    }
    port_ = ntohs(addr.sin_port);
    next_keep_alive_ms_ = now_ms() + tuning::KEEP_ALIVE_MS;
    listen_rests_until_ms_ = 0;
    client_limit_ = descriptor_bound(max_clients > 0 ? max_clients : 1, DESCRIPTORS_KEPT);
    spare_fd_ = open_spare();  // none now: accept_clients() tries again when it needs one
    return true;
}

std::uint16_t Tcp_server::port() const { return port_; }

std::size_t Tcp_server::client_count() const
{
    std::size_t count = 0;
    for (const Client& client : clients_) {
        count += client.dead ? 0 : 1;
    }
    return count;
}

std::size_t Tcp_server::backlog_bytes(int client) const
{
    for (const Client& c : clients_) {
        if (c.id == client && !c.dead) {
            return c.out.size() - c.out_pos;
        }
    }
    return 0;
}

Tcp_server::Client* Tcp_server::find(int id)
{
    for (Client& client : clients_) {
        if (client.id == id && !client.dead) {
            return &client;
        }
    }
    return nullptr;
}

void Tcp_server::service(int timeout_ms, const std::function<void(int client, const Control_request&)>& on_request)
{
    if (listen_fd_ < 0) {
        return;
    }
    const std::int64_t now = now_ms();
    std::int64_t wait = next_keep_alive_ms_ - now;
    wait = wait < 0 ? 0 : wait;
    if (timeout_ms >= 0 && wait > timeout_ms) {
        wait = timeout_ms;
    }
    std::vector<pollfd>& fds = poll_fds_;
    fds.clear();
    // A negative descriptor is left out by poll(): the listening socket rests.
    fds.push_back(pollfd{now < listen_rests_until_ms_ ? -1 : listen_fd_, POLLIN, 0});
    for (const Client& client : clients_) {
        const bool pending = client.out.size() > client.out_pos;
        fds.push_back(pollfd{client.fd, static_cast<short>(POLLIN | (pending ? POLLOUT : 0)), 0});
    }
    const int ready = ::poll(fds.data(), fds.size(), static_cast<int>(wait));
    if (ready > 0) {
        // Clients accepted now are appended behind the ones polled; indexes stay valid.
        const std::size_t polled = clients_.size();
        for (std::size_t i = 0; i < polled; ++i) {
            const short revents = fds[i + 1].revents;
            if ((revents & (POLLIN | POLLHUP | POLLERR)) != 0 && !clients_[i].dead) {
                read_client(clients_[i], on_request);
            }
            if ((revents & POLLOUT) != 0 && !clients_[i].dead) {
                write_client(clients_[i]);
            }
        }
        if ((fds[0].revents & POLLIN) != 0) {
            accept_clients();
        }
    }
    if (now_ms() >= next_keep_alive_ms_) {
        next_keep_alive_ms_ = now_ms() + tuning::KEEP_ALIVE_MS;
        const std::vector<unsigned char> keep_alive = keep_alive_message(ecu);
        broadcast(keep_alive.data(), keep_alive.size());
        flush();
        report_refusals();
    }
    reap();
}

void Tcp_server::accept_clients()
{
    for (int taken = 0; taken < tuning::ACCEPTS_PER_SERVICE; ++taken) {
        sockaddr_in addr{};
        socklen_t len = sizeof addr;
        const int fd = ::accept4(listen_fd_, reinterpret_cast<sockaddr*>(&addr), &len, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK) {
                return;  // none left
            }
            if (errno == EINTR || errno == ECONNABORTED) {
                continue;
            }
            if ((errno == EMFILE || errno == ENFILE) && refuse_with_spare()) {
                continue;
            }
            // Polling the socket again at once would only fail again (the caller would spin):
            // it rests for a while, its connections wait in the queue.
            listen_rests_until_ms_ = now_ms() + tuning::LISTEN_REST_MS;
            return;
        }
        if (client_count() >= client_limit_) {
            ::close(fd);
            ++refused_full_;
            ++refused_clients;
            continue;
        }
        Client client;
        client.fd = fd;
        client.id = next_id_++;
        char text[INET_ADDRSTRLEN] = {};
        ::inet_ntop(AF_INET, &addr.sin_addr, text, sizeof text);
        events.push_back("DLT client " + std::to_string(client.id) + " connected from " + text + ":" +
                         std::to_string(ntohs(addr.sin_port)));
        clients_.push_back(std::move(client));
    }
}

bool Tcp_server::refuse_with_spare()
{
    if (spare_fd_ < 0) {
        spare_fd_ = open_spare();  // lost before: perhaps a descriptor has come free since
        if (spare_fd_ < 0) {
            return false;
        }
    }
    ::close(spare_fd_);
    const int fd = ::accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd >= 0) {
        ::close(fd);
        ++refused_no_descriptor_;
        ++refused_clients;
    }
    spare_fd_ = open_spare();  // fails when another thread took the descriptor meanwhile
    return fd >= 0 && spare_fd_ >= 0;
}

void Tcp_server::report_refusals()
{
    if (refused_full_ != 0) {
        events.push_back("refused " + connections(refused_full_) + ": " + std::to_string(client_limit_) +
                         " clients connected, the most allowed");
        refused_full_ = 0;
    }
    if (refused_no_descriptor_ != 0) {
        events.push_back("refused " + connections(refused_no_descriptor_) + ": no descriptor left");
        refused_no_descriptor_ = 0;
    }
}

void Tcp_server::read_client(Client& client, const std::function<void(int, const Control_request&)>& on_request)
{
    unsigned char chunk[tuning::CLIENT_READ_CHUNK];
    for (;;) {
        const ssize_t n = ::recv(client.fd, chunk, sizeof chunk, MSG_DONTWAIT);
        if (n == 0 || (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) {
            events.push_back("DLT client " + std::to_string(client.id) + " disconnected");
            ::close(client.fd);
            client.fd = -1;
            client.dead = true;
            return;
        }
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            break;
        }
        client.in.insert(client.in.end(), chunk, chunk + n);
        if (static_cast<std::size_t>(n) < sizeof chunk) {
            break;
        }
    }
    std::size_t at = 0;
    const int id = client.id;
    while (at < client.in.size()) {
        const Control_request request = parse_control(client.in.data() + at, client.in.size() - at);
        if (request.consumed == 0) {
            break;
        }
        if (request.garbage) {
            drop(client, "it sent bytes that are not DLT messages");
            return;
        }
        at += request.consumed;
        if (request.valid) {
            on_request(id, request);
        } else if (request.is_request) {
            send_to(id, control_response(ecu, request.service_id, STATUS_ERROR));
        }
        // The callback may have sent to or dropped this very client; `client` stays valid
        // because clients are only added by accept_clients and removed by reap.
        if (client.dead) {
            return;
        }
    }
    client.in.erase(client.in.begin(), client.in.begin() + static_cast<std::ptrdiff_t>(at));
}

void Tcp_server::write_client(Client& client)
{
    while (client.out_pos < client.out.size()) {
        const ssize_t n = ::send(client.fd, client.out.data() + client.out_pos, client.out.size() - client.out_pos,
                                 MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            break;
        }
        if (n <= 0) {
            events.push_back("DLT client " + std::to_string(client.id) + " disconnected");
            ::close(client.fd);
            client.fd = -1;
            client.dead = true;
            return;
        }
        client.out_pos += static_cast<std::size_t>(n);
    }
    if (client.out_pos == client.out.size()) {
        client.out.clear();
        client.out_pos = 0;
    } else if (client.out_pos >= WRITE_THRESHOLD) {
        client.out.erase(client.out.begin(), client.out.begin() + static_cast<std::ptrdiff_t>(client.out_pos));
        client.out_pos = 0;
    }
}

void Tcp_server::queue(Client& client, const unsigned char* data, std::size_t size)
{
    if (client.out.size() - client.out_pos + size > backlog_limit) {
        drop(client, "its backlog exceeded the limit");
        return;
    }
    client.out.insert(client.out.end(), data, data + size);
    if (client.out.size() - client.out_pos >= WRITE_THRESHOLD) {
        write_client(client);
    }
}

void Tcp_server::broadcast(const unsigned char* message, std::size_t size)
{
    for (Client& client : clients_) {
        if (!client.dead) {
            queue(client, message, size);
        }
    }
}

void Tcp_server::send_to(int client, const std::vector<unsigned char>& message)
{
    Client* target = find(client);
    if (target != nullptr) {
        queue(*target, message.data(), message.size());
    }
}

void Tcp_server::flush()
{
    for (Client& client : clients_) {
        if (!client.dead && client.out.size() > client.out_pos) {
            write_client(client);
        }
    }
}

void Tcp_server::drop(Client& client, const char* why)
{
    events.push_back("DLT client " + std::to_string(client.id) + " dropped: " + why);
    ++dropped_clients;
    ::close(client.fd);
    client.fd = -1;
    client.dead = true;
    client.out.clear();
    client.out_pos = 0;
}

void Tcp_server::reap()
{
    std::size_t kept = 0;
    for (std::size_t i = 0; i < clients_.size(); ++i) {
        if (!clients_[i].dead) {
            if (kept != i) {
                clients_[kept] = std::move(clients_[i]);
            }
            ++kept;
        }
    }
    clients_.resize(kept);
}

void Tcp_server::close()
{
    for (Client& client : clients_) {
        if (client.fd >= 0) {
            ::close(client.fd);
        }
    }
    clients_.clear();
    if (listen_fd_ >= 0) {
        ::close(listen_fd_);
        listen_fd_ = -1;
    }
    if (spare_fd_ >= 0) {
        ::close(spare_fd_);
        spare_fd_ = -1;
    }
    port_ = 0;
}

}  // namespace logferry_dlt
