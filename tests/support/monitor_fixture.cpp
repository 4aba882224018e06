#include "support/monitor_fixture.hpp"

#include "wire/channel_name.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/futex.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <regex>
#include <sstream>

namespace logferry_test {

using std::chrono::milliseconds;

// ---- The records of an application's messages ------------------------------------------

std::uint32_t now_stamp()
{
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint32_t>(static_cast<std::uint64_t>(now.tv_sec) * 10000U +
                                      static_cast<std::uint64_t>(now.tv_nsec) / 100000U);
}

logferry::Logferry_write_start start(std::uint32_t key, std::uint8_t level, std::uint32_t handle,
                                     std::uint32_t timestamp)
{
    return make_start(key, level, handle, timestamp);
}

Bytes info_text(std::uint32_t key, const std::string& text)
{
    return bytes_of(start(key, 4, 1), make_text(key, text), make_finish(key));
}

Bytes info_int32(std::uint32_t key, std::int32_t value)
{
    return bytes_of(start(key, 4, 1), int32(key, value), make_finish(key));
}

// ---- The monitor's text ------------------------------------------------------------------

std::string mask_timestamps(const std::string& transcript)
{
    static const std::regex stamp("^ *[0-9]+\\.[0-9]{4} ", std::regex::multiline);
    return std::regex_replace(transcript, stamp, "<ts> ");
}

std::vector<std::string> split_lines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::size_t count_of(const std::string& text, const std::string& needle)
{
    std::size_t count = 0;
    for (auto at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) {
        ++count;
    }
    return count;
}

std::string read_text(const std::string& path)
{
    const Bytes bytes = read_file_bytes(path);
    return std::string(bytes.begin(), bytes.end());
}

std::string channel_identifier(const std::string& name)
{
    std::uint64_t hash = 14695981039346656037ULL;  // FNV-1a
    for (const char c : name) {
        hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211ULL;
    }
    return logferry::wire::make_channel_identifier("TST", static_cast<int>((hash >> 32) % 100000U),
                                                   static_cast<std::uint32_t>(hash & 0xFFFFFFFFU));
}

std::string channel_name(const std::string& name) { return logferry::wire::channel_name_of(channel_identifier(name)); }

// ---- An application's end of a channel, driven by hand -----------------------------------

Test_application::Test_application(const std::string& identifier) : listener_(false)
{
    channel_.set_app_identifier(channel_identifier(identifier));
}

bool Test_application::announce()
{
    return channel_.init() && listener_.init() && listener_.push(channel_.get_filename());
}

bool Test_application::attached_within(milliseconds timeout)
{
    return wait_until(
        [&] {
            stamp();
            return __atomic_load_n(&channel_.segment->server_watchdog, __ATOMIC_SEQ_CST) != 0;
        },
        timeout);
}

bool Test_application::wait_attached(milliseconds timeout)
{
    const bool attached = attached_within(timeout);
    if (attached) {
        listener_.pop();
        listener_.uninit();
    }
    return attached;
}

bool Test_application::wait_attached_announced(milliseconds timeout) { return attached_within(timeout); }

bool Test_application::announce_in(std::uint8_t slot)
{
    if (!channel_.init() || !listener_.init()) {
        return false;
    }
    {
        logferry::Mutex_lock_guard lock(&listener_.segment->list_mutex.mutex, false);
        listener_.segment->write_index = slot;
    }
    return listener_.push(channel_.get_filename()) && listener_.own_entry == slot;
}

bool Test_application::withdraw() { return listener_.pop(); }

logferry::Listener_entry Test_application::entry()
{
    logferry::Listener_entry copy{};
    if (listener_.own_entry >= 0) {
        logferry::Mutex_lock_guard lock(&listener_.segment->list_mutex.mutex, false);
        copy = listener_.segment->entries[listener_.own_entry];
    }
    return copy;
}

int Test_application::entry_index() const { return listener_.own_entry; }

bool Test_application::send_priority(const Bytes& bytes)
{
    return wait_until([&] {
               stamp();
               return channel_.push_priority(bytes);
           }) &&
           wait_until([&] {
               stamp();
               return channel_.is_priority_empty();
           });
}

bool Test_application::register_as(const std::string& id, const std::string& description,
                                   const std::vector<Context_registration>& contexts)
{
    if (!send_priority(bytes_of(logferry::Logferry_register_app(id.c_str(), description.c_str())))) {
        return false;
    }
    for (const Context_registration& context : contexts) {
        if (!send_priority(bytes_of(logferry::Logferry_register_context(
                context.level, context.handle, context.id.c_str(), context.description.c_str())))) {
            return false;
        }
    }
    return true;
}

bool Test_application::place_priority(const Bytes& bytes) { return channel_.push_priority(bytes); }

pthread_mutex_t* Test_application::ring_mutex() { return &channel_.segment->client_mutex.mutex; }

bool Test_application::ring_has_waiters()
{
    return (__atomic_load_n(&ring_mutex()->__data.__lock, __ATOMIC_SEQ_CST) & FUTEX_WAITERS) != 0;
}

void Test_application::release() { channel_.unlock_client_buffer(); }

bool Test_application::log(const Bytes& bytes) { return channel_.push(bytes); }

Bytes Test_application::receive(milliseconds timeout)
{
    Bytes bytes;
    wait_until(
        [&] {
            stamp();
            bytes = channel_.pop();
            return !bytes.empty();
        },
        timeout);
    return bytes;
}

void Test_application::stamp() { channel_.is_connection_active(); }

bool Test_application::connected() { return channel_.is_connection_active(); }

void Test_application::close() { channel_.uninit(); }

const std::string& Test_application::name() const { return channel_.get_filename(); }

// ---- The monitor, its DLT outputs and the programs run under it ---------------------------

void Monitor::SetUp()
{
    runstate_.reset(new Runstate_dir());
    dir_ = runstate_->root();
    lock_file_ = runstate_->lock_file();
    out_ = dir_ + "/monitor.out";
    err_ = dir_ + "/monitor.err";
}

void Monitor::TearDown()
{
    // A monitor still running is stopped as a service manager stops it, so that it removes
    // the listener segment and its lock file and leaves nothing for the next test (it is
    // killed when it does not end in time).
    for (const int pid : {pid_, second_pid_}) {
        if (pid > 0) {
            ::kill(pid, SIGTERM);
            wait_child(pid, milliseconds(10000));
        }
    }
    for (const std::string& name : segments_) {
        ::shm_unlink(name.c_str());
    }
    runstate_.reset();  // the monitor's output files with it
}

int Monitor::launch(const std::vector<std::string>& arguments, const std::string& out, const std::string& err,
                    const std::function<bool()>& in_child)
{
    return run_program(LOGFERRY_MONITOR_PATH, arguments, out, err, in_child);
}

int Monitor::run_program(const std::string& path, const std::vector<std::string>& arguments, const std::string& out,
                         const std::string& err, const std::function<bool()>& in_child)
{
    const pid_t pid = ::fork();
    if (pid == 0) {
        if (in_child && !in_child()) {
            ::_exit(126);
        }
        const int out_fd = ::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        const int err_fd = ::open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (out_fd < 0 || err_fd < 0 || ::dup2(out_fd, 1) < 0 || ::dup2(err_fd, 2) < 0) {
            ::_exit(127);
        }
        std::vector<char*> argv;
        std::string program = path;
        argv.push_back(&program[0]);
        std::vector<std::string> copies = arguments;
        for (std::string& argument : copies) {
            argv.push_back(&argument[0]);
        }
        argv.push_back(nullptr);
        ::execv(program.c_str(), argv.data());
        ::_exit(127);
    }
    return pid;
}

void Monitor::start_monitor(const std::vector<std::string>& arguments, const std::string& ready,
                            const std::function<bool()>& in_child)
{
    ::unlink(out_.c_str());  // no readiness line of an earlier run
    pid_ = launch(arguments, out_, err_, in_child);
    ASSERT_GT(pid_, 0);
    ASSERT_TRUE(wait_for(ready)) << output() << errors();
}

std::string Monitor::start_monitor_on_any_dlt_port(std::vector<std::string> arguments)
{
    arguments.push_back("--dlt-port");
    arguments.push_back("0");
    start_monitor(arguments);
    return dlt_port();
}

int Monitor::stop_monitor(int signal)
{
    ::kill(pid_, signal);
    const int status = wait_child(pid_, milliseconds(10000));
    pid_ = -1;
    return status;
}

int Monitor::monitor_exit_code()
{
    const int status = wait_child(pid_, milliseconds(10000));
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int Monitor::run_monitor_to_end(const std::vector<std::string>& arguments)
{
    pid_ = launch(arguments, out_, err_);
    return monitor_exit_code();
}

bool Monitor::wait_for(const std::string& needle, milliseconds timeout) const
{
    // The output only grows: each look reads what came since the last one and searches it
    // together with the end of what was read before (where the needle may have been cut),
    // rather than reading the whole file again every millisecond behind an application that
    // logs without pause.
    std::ifstream in(out_, std::ios::binary);
    std::string unsearched;
    return wait_until(
        [&] {
            if (!in.is_open()) {
                in.open(out_, std::ios::binary);  // the monitor's child may not have made it yet
            }
            in.clear();  // it stopped at the end last time: read on from there
            read_rest(in, unsearched);
            if (unsearched.find(needle) != std::string::npos) {
                return true;
            }
            if (unsearched.size() >= needle.size()) {
                unsearched.erase(0, unsearched.size() - needle.size() + 1);
            }
            return false;
        },
        timeout);
}

std::string Monitor::dlt_port() const
{
    std::smatch match;
    const std::string text = output();
    return std::regex_search(text, match, std::regex("-- dlt-port   ([0-9]+)\n")) ? match.str(1) : "";
}

::testing::AssertionResult Monitor::attach(Test_application& app) { return announce_and_wait(app, true); }

::testing::AssertionResult Monitor::attach_announced(Test_application& app) { return announce_and_wait(app, false); }

::testing::AssertionResult Monitor::announce_and_wait(Test_application& app, bool withdraw)
{
    segments_.push_back(app.name());
    if (!app.announce()) {
        return ::testing::AssertionFailure() << "cannot announce " << app.name();
    }
    if (!(withdraw ? app.wait_attached() : app.wait_attached_announced())) {
        return ::testing::AssertionFailure() << "the monitor did not attach " << app.name() << "\n"
                                             << output() << errors();
    }
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult Monitor::attach_registered(Test_application& app, const std::string& id,
                                                      const std::vector<Context_registration>& contexts,
                                                      const std::string& description)
{
    const ::testing::AssertionResult result = attach(app);
    if (result && !app.register_as(id, description, contexts)) {
        return ::testing::AssertionFailure() << "the monitor did not take the registrations of " << id;
    }
    return result;
}

int Monitor::fork_application(const std::string& identifier, const char* id,
                              const std::function<void(Test_application&)>& prepare,
                              const std::function<void(Test_application&)>& live)
{
    int ready[2];
    if (::pipe(ready) != 0) {
        return -1;
    }
    const int child = fork_child([&] {
        ::close(ready[0]);
        Test_application app(identifier);
        if (!app.announce() || !app.wait_attached() || !app.register_as(id, "", {{4, 1, "CTX", ""}})) {
            return 1;
        }
        app.release();
        prepare(app);
        const char byte = 1;
        if (::write(ready[1], &byte, 1) != 1) {
            return 2;
        }
        for (;;) {
            live(app);
        }
    });
    ::close(ready[1]);
    char byte = 0;
    const bool is_ready = ::read(ready[0], &byte, 1) == 1;
    ::close(ready[0]);
    return is_ready ? child : -1;
}

::testing::AssertionResult Monitor::attach_released(Test_application& app, const std::string& id)
{
    const ::testing::AssertionResult result = attach_registered(app, id);
    if (result) {
        app.release();
    }
    return result;
}

::testing::AssertionResult Monitor::log_shown(Test_application& app, const std::string& id, std::int32_t key,
                                              const std::string& text)
{
    if (!app.log(info_text(key, text))) {
        return ::testing::AssertionFailure() << id << " could not log \"" << text << "\"";
    }
    if (!wait_for(id + " CTX  info    \"" + text + "\"\n")) {
        return ::testing::AssertionFailure() << "the monitor did not show \"" << text << "\" of " << id << ":\n"
                                             << output() << errors();
    }
    return ::testing::AssertionSuccess();
}

void Monitor::expect_served(const char* id)
{
    Test_application app(unique_id(id, 20));
    ASSERT_TRUE(attach_released(app, id));
    EXPECT_TRUE(log_shown(app, id, 1, "served"));
    app.close();
}

int Monitor::start_program(const std::string& path, const std::string& name, const std::vector<std::string>& arguments,
                           const Environment& environment)
{
    return run_program(path, arguments, file(name + ".out"), file(name + ".err"), [environment] {
        for (const auto& variable : environment) {
            if (::setenv(variable.first.c_str(), variable.second.c_str(), 1) != 0) {
                return false;
            }
        }
        return true;
    });
}

Program_run Monitor::finish_program(int pid, const std::string& name)
{
    Program_run run;
    run.status = wait_child(pid, milliseconds(20000));
    run.out = read_text(file(name + ".out"));
    run.err = read_text(file(name + ".err"));
    ::unlink(file(name + ".out").c_str());
    ::unlink(file(name + ".err").c_str());
    return run;
}

Monitor_run Monitor::monitor_run(const std::vector<std::string>& options, const std::string& path,
                                 const Environment& environment)
{
    Monitor_run run;
    start_monitor(options);
    if (HasFatalFailure()) {
        return run;
    }
    run.application = finish_program(start_program(path, "app", {}, environment), "app");
    EXPECT_TRUE(WIFEXITED(run.application.status) && WEXITSTATUS(run.application.status) == 0)
        << run.application.status;
    EXPECT_EQ(run.application.err, "");
    EXPECT_TRUE(wait_for("-- detach")) << output();
    EXPECT_EQ(stop_monitor(), 0);
    EXPECT_EQ(errors(), "");
    run.transcript = output();
    return run;
}

int Monitor::start_dlt_receive(const std::string& port, const std::string& path)
{
    return run_program(find_program("dlt-receive"), {"-o", path, "-p", port, "127.0.0.1"}, file("receive.out"),
                       file("receive.err"));
}

Program_run Monitor::run_dlt_control(const std::string& port, const std::vector<std::string>& arguments)
{
    std::vector<std::string> all = {"-p", port};
    all.insert(all.end(), arguments.begin(), arguments.end());
    all.push_back("127.0.0.1");
    return finish_program(start_program(find_program("dlt-control"), "control", all), "control");
}

// ---- DLT messages as the monitor writes them, and the DLT tools --------------------------

std::size_t dlt_header_size(const Dlt_bytes& message)
{
    const unsigned char htyp = message[0];
    return 4 + ((htyp & 0x04) != 0 ? 4 : 0) + ((htyp & 0x08) != 0 ? 4 : 0) + ((htyp & 0x10) != 0 ? 4 : 0);
}

std::uint32_t dlt_session_id(const Dlt_bytes& message)
{
    const std::size_t at = 4 + ((message[0] & 0x04) != 0 ? 4 : 0);
    return static_cast<std::uint32_t>(message[at]) << 24 | static_cast<std::uint32_t>(message[at + 1]) << 16 |
           static_cast<std::uint32_t>(message[at + 2]) << 8 | message[at + 3];
}

std::string dlt_app_id(const Dlt_bytes& message)
{
    // Extended header: message info, argument count, application ID, context ID.
    const auto at = message.begin() + static_cast<long>(dlt_header_size(message)) + 2;
    return std::string(at, at + 4);
}

std::vector<Dlt_bytes> dlt_logs(const std::vector<Dlt_bytes>& messages)
{
    std::vector<Dlt_bytes> logs;
    for (const Dlt_bytes& message : messages) {
        const std::size_t at = dlt_header_size(message);
        if ((message[0] & 0x01) != 0 && message.size() > at && ((message[at] >> 1) & 0x07) == 0) {
            logs.push_back(message);
        }
    }
    return logs;
}

std::vector<Dlt_bytes> dlt_file_logs(const std::string& path, bool* complete)
{
    return dlt_logs(split_dlt_file(read_file_bytes(path), complete));
}

std::string dlt_convert(const std::string& path)
{
    const std::string printed = run_command(find_program("dlt-convert") + " -a " + path);
    static const std::regex head(R"(^\d+ \d{4}/\d{2}/\d{2} \d{2}:\d{2}:\d{2}\.\d{6} +\d+ )");
    std::string out;
    for (const std::string& line : split_lines(printed)) {
        if (line.find(" log ") != std::string::npos) {
            out += std::regex_replace(line, head, "<n> <time> <ts> ") + "\n";
        }
    }
    return out;
}

bool have_dlt_tools()
{
    return !find_program("dlt-receive").empty() && !find_program("dlt-convert").empty() &&
           !find_program("dlt-control").empty();
}

int connect_dlt(const std::string& port, int receive_buffer)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    if (fd >= 0 && receive_buffer != 0) {
        ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer);
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(std::stoi(port)));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd < 0 || ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        if (fd >= 0) {
            ::close(fd);
        }
        return -1;
    }
    return fd;
}

bool read_now(int fd, Bytes& into)
{
    for (;;) {
        unsigned char buffer[65536];
        const ssize_t n = ::recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
        if (n > 0) {
            into.insert(into.end(), buffer, buffer + n);
            continue;
        }
        return n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR);
    }
}

}  // namespace logferry_test
