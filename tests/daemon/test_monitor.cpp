// logferry-monitor driven as a child process against hand-driven application ends: a
// channel created with Logferry_client and announced through an application-side
// listener, fed with serialized records exactly as the front end would feed it.

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <linux/futex.h>
#include <net/if.h>
#include <netinet/in.h>
#include <pthread.h>
#include <pwd.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "dlt_control.hpp"
#include "dlt_tcp.hpp"
#include "logferry/channel.hpp"
#include "logferry/client.hpp"
#include "logferry/listener.hpp"
#include "logferry/message.hpp"
#include "support/dlt_tools.hpp"
#include "support/record_bytes.hpp"
#include "support/runstate_dir.hpp"
#include "support/test_util.hpp"

#ifndef LOGFERRY_MONITOR_PATH
#error "LOGFERRY_MONITOR_PATH must name the logferry-monitor program"
#endif
#ifndef LOGFERRY_EXAMPLE_PATH
#error "LOGFERRY_EXAMPLE_PATH must name the example application"
#endif

namespace {

using namespace logferry;
using logferry_test::Bytes;
using logferry_test::bytes_of;
using logferry_test::LISTENER_SEGMENT;
using logferry_test::make_finish;
using logferry_test::make_init_file;
using logferry_test::make_start;
using logferry_test::make_text;
using logferry_test::unique_id;
using logferry_test::wait_until;
using std::chrono::milliseconds;

// The monotonic clock in 0.1 ms units, as the front end stamps its start records.
std::uint32_t now_stamp()
{
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint32_t>(static_cast<std::uint64_t>(now.tv_sec) * 10000U +
                                      static_cast<std::uint64_t>(now.tv_nsec) / 100000U);
}

Logferry_write_start start(std::uint32_t key, std::uint8_t level, std::uint32_t handle,
                           std::uint32_t timestamp = now_stamp())
{
    return make_start(key, level, handle, timestamp);
}

Logferry_write_int32 int32(std::uint32_t key, std::int32_t value)
{
    Logferry_write_int32 record;
    record.stream_key = key;
    record.value = value;
    return record;
}

template <typename R, typename V>
R formatted(std::uint32_t key, V value, LogFormat format)
{
    R record;
    record.stream_key = key;
    record.value = value;
    record.format = static_cast<std::uint8_t>(format);
    return record;
}

// Replaces the timestamp column of every log line by "<ts>".
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

// The identifier a channel of `name` gets: the form the front end gives it (ID, "-", up to
// five digits, "-", lowercase hex), derived from `name` alone so that a parent and the child
// it forks agree, and distinct for distinct names.
std::string channel_identifier(const std::string& name)
{
    std::uint64_t hash = 14695981039346656037ULL;  // FNV-1a
    for (const char c : name) {
        hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211ULL;
    }
    char text[32];
    std::snprintf(text, sizeof text, "TST-%u-%x", static_cast<unsigned>((hash >> 32) % 100000U),
                  static_cast<unsigned>(hash & 0xFFFFFFFFU));
    return text;
}

// An application's end of a channel, driven by hand. It stamps its watchdog whenever it
// waits, as the front end's receiver thread does about once a second.
class Test_application {
public:
    explicit Test_application(const std::string& identifier) : listener_(false)
    {
        channel_.set_app_identifier(channel_identifier(identifier));
    }

    // Creates the channel and announces it in the monitor's listener list.
    bool announce() { return channel_.init() && listener_.init() && listener_.push(channel_.get_filename()); }

    // Waits for the monitor to attach, then withdraws the announcement.
    bool wait_attached(milliseconds timeout = milliseconds(10000))
    {
        const bool attached = wait_until(
            [&] {
                stamp();
                return __atomic_load_n(&channel_.segment->server_watchdog, __ATOMIC_SEQ_CST) != 0;
            },
            timeout);
        if (attached) {
            listener_.pop();
            listener_.uninit();
        }
        return attached;
    }

    // Waits for the monitor to attach and leaves the announcement standing, as a program
    // does that ends before its library has seen the attachment.
    bool wait_attached_announced(milliseconds timeout = milliseconds(10000))
    {
        return wait_until(
            [&] {
                stamp();
                return __atomic_load_n(&channel_.segment->server_watchdog, __ATOMIC_SEQ_CST) != 0;
            },
            timeout);
    }

    // Announces the channel in listener entry `slot`, which must be free: the list's next
    // entry to fill is set to it first, as earlier announcements could have left it.
    bool announce_in(std::uint8_t slot)
    {
        if (!channel_.init() || !listener_.init()) {
            return false;
        }
        {
            Mutex_lock_guard lock(&listener_.segment->list_mutex.mutex, false);
            listener_.segment->write_index = slot;
        }
        return listener_.push(channel_.get_filename()) && listener_.own_entry == slot;
    }

    // Withdraws the announcement, as the library does once it has seen the attachment.
    bool withdraw() { return listener_.pop(); }

    // The listener entry it announced in (or last announced in), as it stands now.
    Listener_entry entry()
    {
        Listener_entry copy{};
        if (listener_.own_entry >= 0) {
            Mutex_lock_guard lock(&listener_.segment->list_mutex.mutex, false);
            copy = listener_.segment->entries[listener_.own_entry];
        }
        return copy;
    }
    int entry_index() const { return listener_.own_entry; }

    // Places one registration or control record and waits until the monitor took it.
    bool send_priority(const Bytes& bytes)
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

    // Places one registration or control record without waiting for the monitor.
    bool place_priority(const Bytes& bytes) { return channel_.push_priority(bytes); }
    // The mutex of the application's ring, which the monitor takes to read it.
    pthread_mutex_t* ring_mutex() { return &channel_.segment->client_mutex.mutex; }

    void release() { channel_.unlock_client_buffer(); }
    bool log(const Bytes& bytes) { return channel_.push(bytes); }

    // The next message from the monitor, or nothing after `timeout`.
    Bytes receive(milliseconds timeout = milliseconds(5000))
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

    void stamp() { channel_.is_connection_active(); }
    bool connected() { return channel_.is_connection_active(); }
    void close() { channel_.uninit(); }
    const std::string& name() const { return channel_.get_filename(); }

private:
    Logferry_client channel_;
    Logferry_listener listener_;
};

class Monitor : public ::testing::Test {
protected:
    void SetUp() override
    {
        runstate_.reset(new logferry_test::Runstate_dir());
        dir_ = runstate_->root();
        lock_file_ = runstate_->lock_file();
        out_ = dir_ + "/monitor.out";
        err_ = dir_ + "/monitor.err";
    }

    void TearDown() override
    {
        for (const int pid : {pid_, second_pid_}) {
            if (pid > 0) {
                ::kill(pid, SIGKILL);
                ::waitpid(pid, nullptr, 0);
            }
        }
        for (const std::string& name : segments_) {
            ::shm_unlink(name.c_str());
        }
        runstate_.reset();  // the monitor's output files with it
    }

    // Runs the monitor with `arguments`, its output going to `out` and `err`; `in_child` (if
    // any) runs in the child before the program starts.
    static int launch(const std::vector<std::string>& arguments, const std::string& out, const std::string& err,
                      const std::function<bool()>& in_child = nullptr)
    {
        return run_program(LOGFERRY_MONITOR_PATH, arguments, out, err, in_child);
    }

    // The child exits with 126 when `in_child` returns false, with 127 when the program cannot
    // be started.
    static int run_program(const std::string& path, const std::vector<std::string>& arguments, const std::string& out,
                           const std::string& err, const std::function<bool()>& in_child = nullptr)
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

    // Starts the monitor and waits until it holds the listener.
    void start_monitor(const std::vector<std::string>& arguments = {}, const std::string& ready = "-- listening",
                       const std::function<bool()>& in_child = nullptr)
    {
        ::unlink(out_.c_str());  // no readiness line of an earlier run
        pid_ = launch(arguments, out_, err_, in_child);
        ASSERT_GT(pid_, 0);
        ASSERT_TRUE(wait_for(ready)) << output() << errors();
    }

    // Sends `signal` and returns the monitor's wait status (-1 when it did not end).
    int stop_monitor(int signal = SIGTERM)
    {
        ::kill(pid_, signal);
        const int status = logferry_test::wait_child(pid_, milliseconds(10000));
        pid_ = -1;
        return status;
    }

    static std::string read_file(const std::string& path)
    {
        std::ifstream file(path);
        std::stringstream content;
        content << file.rdbuf();
        return content.str();
    }

    std::string output() const { return read_file(out_); }
    std::string errors() const { return read_file(err_); }

    bool wait_for(const std::string& needle, milliseconds timeout = milliseconds(10000)) const
    {
        return wait_until([&] { return output().find(needle) != std::string::npos; }, timeout);
    }

    std::unique_ptr<logferry_test::Runstate_dir> runstate_;
    std::string dir_;
    std::string lock_file_;
    std::string out_;
    std::string err_;
    int pid_ = -1;
    int second_pid_ = -1;
    std::vector<std::string> segments_;  // channel segments to remove in any case

    // Announces `app`, waits until the monitor attached it and registers it under `id` with
    // the context CTX (handle 1, level info); `request` (if any) follows the registrations.
    void attach_registered(Test_application& app, const char* id, const Bytes& request = {})
    {
        segments_.push_back(app.name());
        ASSERT_TRUE(app.announce());
        ASSERT_TRUE(app.wait_attached());
        ASSERT_TRUE(app.send_priority(bytes_of(Logferry_register_app(id, ""))));
        ASSERT_TRUE(app.send_priority(bytes_of(Logferry_register_context(4, 1, "CTX", ""))));
        if (!request.empty()) {
            ASSERT_TRUE(app.send_priority(request));
        }
    }

    // Forks an application that announces channel `identifier`, registers as `id` (context
    // CTX, handle 1), opens its ring and runs `prepare`; once it says it is ready it runs
    // `live` until it is killed. Returns its process id once it is ready, -1 on failure.
    static int fork_application(const std::string& identifier, const char* id,
                                const std::function<void(Test_application&)>& prepare,
                                const std::function<void(Test_application&)>& live)
    {
        int ready[2];
        if (::pipe(ready) != 0) {
            return -1;
        }
        const int child = logferry_test::fork_child([&] {
            ::close(ready[0]);
            Test_application app(identifier);
            if (!app.announce() || !app.wait_attached() ||
                !app.send_priority(bytes_of(Logferry_register_app(id, ""))) ||
                !app.send_priority(bytes_of(Logferry_register_context(4, 1, "CTX", "")))) {
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

    // A new application registered as `id` is attached and its message shown; it closes.
    void expect_served(const char* id)
    {
        Test_application app(unique_id(id, 20));
        attach_registered(app, id);
        app.release();
        ASSERT_TRUE(app.log(bytes_of(start(1, 4, 1), make_text(1, "served"), make_finish(1))));
        EXPECT_TRUE(wait_for(std::string(id) + " CTX  info    \"served\"\n")) << output() << errors();
        app.close();
    }

    // A file in the test's directory (removed with it).
    std::string file(const std::string& name) const { return dir_ + "/" + name; }
    // The port the monitor printed for --dlt-port 0.
    std::string dlt_port()
    {
        std::smatch match;
        const std::string text = output();
        return std::regex_search(text, match, std::regex("-- dlt-port   ([0-9]+)\n")) ? match.str(1) : "";
    }
};

// ----------------------------------------------------------------------------------------

TEST_F(Monitor, TranscriptOfOneApplication)
{
    start_monitor({"--level", "MAIN=debug", "--say", "hello app"});
    Test_application app(unique_id("", 20));
    ASSERT_TRUE(app.announce());
    ASSERT_TRUE(app.wait_attached()) << output();

    ASSERT_TRUE(app.send_priority(bytes_of(Logferry_register_app("TAPP", "Test application"))));
    ASSERT_TRUE(app.send_priority(bytes_of(Logferry_register_context(4, 1, "MAIN", "Main context"))));
    ASSERT_TRUE(app.send_priority(bytes_of(Logferry_register_context(3, 2, "AUX", "Aux context"))));
    ASSERT_TRUE(app.send_priority(bytes_of(Logferry_enable_local_print())));
    const Logferry_init_file file = make_init_file("/tmp/test app.log");
    ASSERT_TRUE(app.send_priority(bytes_of(file)));
    ASSERT_TRUE(app.send_priority(bytes_of(Logferry_disable_remote())));
    app.release();

    Logferry_write_bool flag;
    flag.stream_key = 7;
    flag.value = 1;
    Logferry_write_int8 i8;
    i8.stream_key = 7;
    i8.value = -5;
    Logferry_write_int16 i16;
    i16.stream_key = 7;
    i16.value = -300;
    Logferry_write_int64 i64;
    i64.stream_key = 7;
    i64.value = -9000000000LL;
    Logferry_write_float32 f32;
    f32.stream_key = 7;
    f32.value = 3.25f;
    Logferry_write_float64 f64;
    f64.stream_key = 7;
    f64.value = -0.1;
    Logferry_write_raw_formatted raw;
    raw.stream_key = 7;
    raw.format = static_cast<std::uint8_t>(LogFormat::kHex);
    raw.size = 4;
    raw.length = 14;
    raw.payload = {{0xDE, 0xAD, 0xBE, 0xEF}};
    Logferry_write_encoded_payload encoded;
    encoded.stream_key = 7;
    encoded.size = 2;
    encoded.length = 11;
    encoded.payload = {{0x01, 0x02}};
    ASSERT_TRUE(
        app.log(bytes_of(start(7, 4, 1), make_text(7, "hello, monitor"), flag, i8, i16, int32(7, 70000), i64,
                         formatted<Logferry_write_uint8_formatted>(7, std::uint8_t{200}, LogFormat::kDefault),
                         formatted<Logferry_write_uint16_formatted>(7, std::uint16_t{0xBEEF}, LogFormat::kHex),
                         formatted<Logferry_write_uint32_formatted>(7, std::uint32_t{8}, LogFormat::kOct),
                         formatted<Logferry_write_uint64_formatted>(7, std::uint64_t{5}, LogFormat::kBin),
                         formatted<Logferry_write_uint32_formatted>(7, std::uint32_t{0xABCDEF}, LogFormat::kHexUpper),
                         formatted<Logferry_write_uint16_formatted>(7, std::uint16_t{0x1234}, LogFormat::kDec),
                         formatted<Logferry_write_uint16_formatted>(7, std::uint16_t{0x1234}, LogFormat::kRaw), f32,
                         f64, raw, encoded, make_finish(7))));
    ASSERT_TRUE(app.log(bytes_of(start(8, 3, 2), make_text(8, "second"), make_finish(8))));
    Logferry_unregister_context unregister;
    unregister.context_handle = 2;
    ASSERT_TRUE(app.log(bytes_of(unregister)));
    ASSERT_TRUE(app.log(bytes_of(Logferry_unregister_app())));
    ASSERT_TRUE(wait_for("-- unregister TAPP\n")) << output();

    // What the monitor sent back: the console text at attachment, then the level update
    // for the context registered as MAIN, as the exact 6 bytes.
    const std::string said = "hello app\n";
    EXPECT_EQ(app.receive(), Bytes(said.begin(), said.end()));
    EXPECT_EQ(app.receive(), (Bytes{24, 5, 1, 0, 0, 0}));

    app.close();
    ASSERT_TRUE(wait_for("-- detach")) << output();
    EXPECT_EQ(stop_monitor(), 0);

    const std::string channel = app.name();
    const std::string expected =
        "-- listening  lock=" + lock_file_ +
        "\n"
        "-- attach     " +
        channel +
        "\n"
        "-- say        " +
        channel +
        " \"hello app\"\n"
        "-- app        TAPP \"Test application\" channel=" +
        channel +
        "\n"
        "-- context    TAPP MAIN handle=1 level=info \"Main context\"\n"
        "-- set-level  TAPP MAIN handle=1 level=debug\n"
        "-- context    TAPP AUX handle=2 level=warn \"Aux context\"\n"
        "-- control    TAPP enable-local-print\n"
        "-- control    TAPP init-file \"/tmp/test app.log\"\n"
        "-- refused    TAPP init-file \"/tmp/test app.log\": no --app-file-dir\n"
        "-- control    TAPP disable-remote\n"
        "<ts> TAPP MAIN info    \"hello, monitor\" true -5 -300 70000 -9000000000 200 0xbeef 010 0b101 0xABCDEF "
        "4660 [34 12] 3.25 -0.1 [de ad be ef] encoded[01 02]\n"
        "<ts> TAPP AUX  warn    \"second\"\n"
        "-- unregister TAPP AUX handle=2\n"
        "-- unregister TAPP\n"
        "-- detach     TAPP " +
        channel +
        " (closed its channel)\n"
        "-- stopped    signal: 2 log messages from 1 application\n";
    EXPECT_EQ(mask_timestamps(output()), expected);
    EXPECT_EQ(errors(), "");
}

TEST_F(Monitor, TimestampsAndArgumentsAreRenderedExactly)
{
    start_monitor();
    Test_application app(unique_id("", 20));
    ASSERT_TRUE(app.announce());
    ASSERT_TRUE(app.wait_attached());
    ASSERT_TRUE(app.send_priority(bytes_of(Logferry_register_app("REN", "rendering"))));
    ASSERT_TRUE(app.send_priority(bytes_of(Logferry_register_context(6, 0xFFFFFFFF, "VERB", ""))));
    app.release();

    Logferry_write_utf8_string omitted;  // a text array without zero: no text is carried
    omitted.stream_key = 1;
    omitted.text.fill('x');
    omitted.length = 1398;
    Logferry_write_raw_formatted big;  // size above 1389: no payload is carried
    big.stream_key = 1;
    big.size = 1500;
    big.length = 1510;
    Logferry_write_raw_formatted bin;
    bin.stream_key = 1;
    bin.format = static_cast<std::uint8_t>(LogFormat::kBin);
    bin.size = 2;
    bin.length = 12;
    bin.payload = {{0x05, 0xF0}};
    Logferry_write_raw_formatted upper;
    upper.stream_key = 1;
    upper.format = static_cast<std::uint8_t>(LogFormat::kHexUpper);
    upper.size = 1;
    upper.length = 11;
    upper.payload = {{0xAB}};
    Logferry_write_float32 tenth;
    tenth.stream_key = 1;
    tenth.value = 0.1f;
    Logferry_write_bool no;
    no.stream_key = 1;
    ASSERT_TRUE(app.log(
        bytes_of(start(1, 6, 0xFFFFFFFF, 123456), make_text(1, "quote \" and\nline"), omitted, big, bin, upper, tenth,
                 no, formatted<Logferry_write_uint8_formatted>(1, std::uint8_t{0}, LogFormat::kOct),
                 formatted<Logferry_write_uint8_formatted>(1, std::uint8_t{0}, LogFormat::kBin),
                 formatted<Logferry_write_uint64_formatted>(1, ~std::uint64_t{0}, LogFormat::kDec), make_finish(1))));
    // The largest timestamp, a message without start, an encoded message.
    ASSERT_TRUE(app.log(bytes_of(start(2, 1, 0xFFFFFFFF, 0xFFFFFFFF), make_finish(2))));
    ASSERT_TRUE(app.log(bytes_of(int32(3, -1), make_finish(3))));
    Logferry_write_encoded_message message;
    message.size = 3;
    message.length = 8;
    message.payload = {{9, 8, 7}};
    ASSERT_TRUE(app.log(bytes_of(message)));
    ASSERT_TRUE(wait_for("encoded-message")) << output();

    const std::vector<std::string> lines = split_lines(output());
    ASSERT_GE(lines.size(), 8U);
    EXPECT_EQ(lines[4],
              "    12.3456 REN  VERB verbose \"quote \\\" and\\nline\" (text omitted) [1500 bytes not carried] "
              "[00000101 11110000] [AB] 0.1 false 0 0b0 18446744073709551615");
    EXPECT_EQ(lines[5], "429496.7295 REN  VERB fatal");
    EXPECT_EQ(lines[6], "          - REN  -    -       -1");
    EXPECT_EQ(lines[7], "          - REN  -    -       encoded-message[09 08 07]");
    app.close();
}

TEST_F(Monitor, LevelOptionMatchesEveryContextWithThatIdAndNoOther)
{
    start_monitor({"--level", "MAIN=2", "--level=AUX=verbose"});
    Test_application app(unique_id("", 20));
    ASSERT_TRUE(app.announce());
    ASSERT_TRUE(app.wait_attached());
    ASSERT_TRUE(app.send_priority(bytes_of(Logferry_register_app("LVL", ""))));
    ASSERT_TRUE(app.send_priority(bytes_of(Logferry_register_context(4, 0x01020304, "MAIN", ""))));
    ASSERT_TRUE(app.send_priority(bytes_of(Logferry_register_context(4, 9, "OTHR", ""))));
    ASSERT_TRUE(app.send_priority(bytes_of(Logferry_register_context(4, 10, "AUX", ""))));
    ASSERT_TRUE(app.send_priority(bytes_of(Logferry_register_context(1, 11, "MAIN", ""))));

    // The monitor handles the registrations in order: had OTHR got an update, it would
    // come between these.
    EXPECT_EQ(app.receive(), (Bytes{24, 2, 4, 3, 2, 1}));
    EXPECT_EQ(app.receive(), (Bytes{24, 6, 10, 0, 0, 0}));
    EXPECT_EQ(app.receive(), (Bytes{24, 2, 11, 0, 0, 0}));
    ASSERT_TRUE(wait_for("-- set-level  LVL MAIN handle=11 level=error\n")) << output();
    EXPECT_EQ(output().find("OTHR handle=9 level=error"), std::string::npos);
    EXPECT_NE(output().find("-- set-level  LVL AUX handle=10 level=verbose\n"), std::string::npos);
    app.close();
}

TEST_F(Monitor, SayReachesEveryApplicationOnceAttached)
{
    start_monitor({"--say", "first line", "--say", ""});
    Test_application one(unique_id("one", 20));
    Test_application two(unique_id("two", 20));
    ASSERT_TRUE(one.announce());
    ASSERT_TRUE(two.announce());
    ASSERT_TRUE(one.wait_attached());
    ASSERT_TRUE(two.wait_attached());
    for (Test_application* app : {&one, &two}) {
        const std::string first = "first line\n";
        EXPECT_EQ(app->receive(), Bytes(first.begin(), first.end()));
        EXPECT_EQ(app->receive(), Bytes{'\n'});
        EXPECT_TRUE(app->receive(milliseconds(300)).empty());  // once only
    }
    one.close();
    two.close();
}

TEST_F(Monitor, KilledApplicationIsDetached)
{
    start_monitor();
    const std::string identifier = unique_id("", 20);
    const std::string channel = "/logferry-" + channel_identifier(identifier);
    segments_.push_back(channel);  // a killed application leaves its segment behind
    const int child = fork_application(
        identifier, "KILL",
        [](Test_application& app) { app.log(bytes_of(start(1, 4, 1), make_text(1, "before kill"), make_finish(1))); },
        [](Test_application& app) {  // alive and stamping until killed
            app.stamp();
            ::usleep(100 * 1000);
        });
    ASSERT_GT(child, 0);
    ASSERT_TRUE(wait_for("KILL CTX  info    \"before kill\"")) << output();

    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    const auto killed = std::chrono::steady_clock::now();
    EXPECT_TRUE(wait_for("-- detach     KILL " + channel + " (no sign of life for ", milliseconds(12000))) << output();
    // Whole seconds: more than five between its last stamp and the clock.
    EXPECT_GE(std::chrono::steady_clock::now() - killed, milliseconds(4000));

    // The monitor keeps serving: a new application is attached after the detach.
    Test_application next(unique_id("next", 20));
    ASSERT_TRUE(next.announce());
    EXPECT_TRUE(next.wait_attached()) << output() << errors();
    next.close();
    EXPECT_EQ(stop_monitor(), 0);
    // The application owned its segment; the monitor leaves it where it is.
    EXPECT_TRUE(logferry_test::shm_exists(channel));
}

TEST_F(Monitor, LiveApplicationStaysAttachedBeyondTheSilenceLimit)
{
    start_monitor();
    Test_application app(unique_id("", 20));
    ASSERT_TRUE(app.announce());
    ASSERT_TRUE(app.wait_attached());
    ASSERT_TRUE(app.send_priority(bytes_of(Logferry_register_app("LIVE", ""))));
    const auto until = std::chrono::steady_clock::now() + milliseconds(7000);
    while (std::chrono::steady_clock::now() < until) {
        app.stamp();
        ASSERT_EQ(output().find("-- detach"), std::string::npos);
        ::usleep(100 * 1000);
    }
    app.close();
    EXPECT_TRUE(wait_for("-- detach     LIVE " + app.name() + " (closed its channel)")) << output();
}

TEST_F(Monitor, ServesManyApplicationsAtOnce)
{
    start_monitor();
    constexpr int applications = 4;
    constexpr int messages = 600;
    std::vector<int> children;
    for (int a = 0; a < applications; ++a) {
        const std::string identifier = unique_id("a" + std::to_string(a), 20);
        children.push_back(logferry_test::fork_child([identifier, a] {
            Test_application app(identifier);
            const std::string id = "AP" + std::to_string(a);
            if (!app.announce() || !app.wait_attached() ||
                !app.send_priority(bytes_of(Logferry_register_app(id.c_str(), ""))) ||
                !app.send_priority(
                    bytes_of(Logferry_register_context(4, 100 + a, ("C" + std::to_string(a)).c_str(), "")))) {
                return 1;
            }
            // Everything is written while ordinary traffic is still held back, then
            // released and the channel closed at once: the monitor finds the application
            // gone with the whole backlog still to read.
            for (int m = 0; m < messages; ++m) {
                const std::uint32_t key = static_cast<std::uint32_t>(m);
                if (!app.log(bytes_of(start(key, 4, 100 + a), int32(key, m),
                                      make_text(key, std::string(40, static_cast<char>('a' + a))), make_finish(key)))) {
                    return 2;
                }
                if (m % 20 == 0) {
                    app.stamp();
                }
            }
            app.release();
            app.close();
            return 0;
        }));
    }
    for (const int child : children) {
        const int status = logferry_test::wait_child(child, milliseconds(30000));
        ASSERT_TRUE(WIFEXITED(status)) << status;
        EXPECT_EQ(WEXITSTATUS(status), 0);
    }
    ASSERT_TRUE(wait_until(
        [&] {
            const std::string text = output();
            std::size_t count = 0;
            for (std::size_t at = text.find("-- detach"); at != std::string::npos;
                 at = text.find("-- detach", at + 1)) {
                ++count;
            }
            return count == static_cast<std::size_t>(applications);
        },
        milliseconds(15000)))
        << output();
    EXPECT_EQ(stop_monitor(), 0);

    // Every line is whole, and each application's messages come in order.
    const std::regex log_line("^ *[0-9]+\\.[0-9]{4} AP([0-9])  C([0-9])   info    (-?[0-9]+) \"([a-z]+)\"$");
    std::vector<int> next(applications, 0);
    for (const std::string& line : split_lines(output())) {
        if (line.rfind("-- ", 0) == 0) {
            continue;
        }
        std::smatch match;
        ASSERT_TRUE(std::regex_match(line, match, log_line)) << line;
        const int a = std::stoi(match[1]);
        ASSERT_LT(a, applications);
        EXPECT_EQ(std::stoi(match[2]), a);
        EXPECT_EQ(std::stoi(match[3]), next[a]) << line;
        EXPECT_EQ(match[4].str(), std::string(40, static_cast<char>('a' + a)));
        ++next[a];
    }
    for (int a = 0; a < applications; ++a) {
        EXPECT_EQ(next[a], messages) << "application " << a;
    }
    EXPECT_NE(output().find("-- stopped    signal: " + std::to_string(applications * messages) + " log messages from " +
                            std::to_string(applications) + " applications"),
              std::string::npos);
}

TEST_F(Monitor, HeldBackMessagesWaitWhileTheApplicationLives)
{
    start_monitor();
    Test_application app(unique_id("", 20));
    ASSERT_TRUE(app.announce());
    ASSERT_TRUE(app.wait_attached());
    ASSERT_TRUE(app.send_priority(bytes_of(Logferry_register_app("GATE", ""))));
    ASSERT_TRUE(app.send_priority(bytes_of(Logferry_register_context(4, 1, "C", ""))));
    ASSERT_TRUE(app.log(bytes_of(start(1, 4, 1), make_text(1, "held back"), make_finish(1))));
    // Two control requests, one after the other: once the second one is printed, the
    // monitor has been through the ring at least once since the message went in.
    ASSERT_TRUE(app.send_priority(bytes_of(Logferry_enable_local_print())));
    ASSERT_TRUE(app.send_priority(bytes_of(Logferry_disable_remote())));
    ASSERT_TRUE(wait_for("-- control    GATE disable-remote\n")) << output();
    EXPECT_EQ(output().find("held back"), std::string::npos) << output();

    app.release();
    EXPECT_TRUE(wait_for("GATE C    info    \"held back\"\n")) << output();
    app.close();
}

// Whether a thread waits for `mutex`: the C library marks the lock word when a locker goes
// to sleep on it (its first field, with the futex's waiters bit).
bool has_waiters(pthread_mutex_t* mutex)
{
    return (__atomic_load_n(&mutex->__data.__lock, __ATOMIC_SEQ_CST) & FUTEX_WAITERS) != 0;
}

// A registration that reaches the priority area while the monitor is already on its way
// from that area to the ring is still printed before the message that the ring, opened
// right after the registration, then gives.
TEST_F(Monitor, RegistrationPlacedAsTheRingOpensComesBeforeTheMessage)
{
    start_monitor();
    Test_application app(unique_id("", 20));
    ASSERT_TRUE(app.announce());
    ASSERT_TRUE(app.wait_attached());
    ASSERT_TRUE(app.send_priority(bytes_of(Logferry_register_app("RACE", ""))));
    ASSERT_TRUE(app.log(bytes_of(start(1, 4, 1), make_text(1, "after the context"), make_finish(1))));  // held back

    // The monitor looked at the priority area (empty) and now waits for the ring's mutex.
    pthread_mutex_t* const ring = app.ring_mutex();
    ASSERT_EQ(::pthread_mutex_lock(ring), 0);
    const bool waiting = wait_until([&] {
        app.stamp();
        return has_waiters(ring);
    });
    if (waiting) {
        EXPECT_TRUE(app.place_priority(bytes_of(Logferry_register_context(4, 1, "C", ""))));
        app.release();
    }
    ASSERT_EQ(::pthread_mutex_unlock(ring), 0);
    ASSERT_TRUE(waiting) << "the monitor never waited for the ring";

    ASSERT_TRUE(wait_for("\"after the context\"\n")) << output();
    const std::string text = mask_timestamps(output());
    EXPECT_NE(text.find("-- context    RACE C handle=1 level=info \"\"\n"
                        "<ts> RACE C    info    \"after the context\"\n"),
              std::string::npos)
        << text;
    app.close();
}

TEST_F(Monitor, HeldBackMessagesOfAClosedApplicationAreRead)
{
    // An application that ends before its ring was released: once it has closed its
    // channel, nothing more is to come ahead of those messages.
    start_monitor();
    Test_application app(unique_id("", 20));
    ASSERT_TRUE(app.announce());
    ASSERT_TRUE(app.wait_attached());
    ASSERT_TRUE(app.send_priority(bytes_of(Logferry_register_app("LATE", ""))));
    ASSERT_TRUE(app.send_priority(bytes_of(Logferry_register_context(4, 1, "C", ""))));
    ASSERT_TRUE(app.log(bytes_of(start(1, 4, 1), make_text(1, "first"), make_finish(1))));
    ASSERT_TRUE(app.log(bytes_of(start(2, 4, 1), make_text(2, "last"), make_finish(2))));
    app.close();
    ASSERT_TRUE(wait_for("-- detach")) << output();
    EXPECT_NE(mask_timestamps(output()).find("<ts> LATE C    info    \"first\"\n"
                                             "<ts> LATE C    info    \"last\"\n"
                                             "-- detach     LATE " +
                                             app.name() + " (closed its channel)\n"),
              std::string::npos)
        << output();
}

TEST_F(Monitor, CountStopsAfterThatManyMessages)
{
    // Three messages are sent; the monitor prints `count` of them and stops.
    const auto run = [&](int count, const std::string& printed, const std::string& stopped) {
        SCOPED_TRACE("--count " + std::to_string(count));
        start_monitor({"--count", std::to_string(count)});
        Test_application app(unique_id("", 18) + std::to_string(count));
        ASSERT_TRUE(app.announce());
        ASSERT_TRUE(app.wait_attached());
        ASSERT_TRUE(app.send_priority(bytes_of(Logferry_register_app("CNT", ""))));
        ASSERT_TRUE(app.send_priority(bytes_of(Logferry_register_context(4, 1, "C", ""))));
        app.release();
        for (std::uint32_t key = 0; key < 3; ++key) {
            ASSERT_TRUE(
                app.log(bytes_of(start(key, 4, 1), int32(key, static_cast<std::int32_t>(key)), make_finish(key))));
        }
        const int status = logferry_test::wait_child(pid_, milliseconds(10000));
        pid_ = -1;
        ASSERT_TRUE(WIFEXITED(status));
        EXPECT_EQ(WEXITSTATUS(status), 0);
        const std::string text = mask_timestamps(output());
        EXPECT_NE(text.find(printed + stopped), std::string::npos) << text;
        EXPECT_EQ(text.find("info    " + std::to_string(count)), std::string::npos) << text;
        EXPECT_FALSE(logferry_test::shm_exists(LISTENER_SEGMENT));
        EXPECT_NE(::access(lock_file_.c_str(), F_OK), 0);
        app.close();
    };
    run(2, "<ts> CNT  C    info    0\n<ts> CNT  C    info    1\n",
        "-- stopped    count: 2 log messages from 1 application\n");
    run(1, "<ts> CNT  C    info    0\n", "-- stopped    count: 1 log message from 1 application\n");
}

TEST_F(Monitor, DurationStopsByItself)
{
    const auto began = std::chrono::steady_clock::now();
    start_monitor({"--duration", "0.5"});
    const int status = logferry_test::wait_child(pid_, milliseconds(10000));
    pid_ = -1;
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - began, milliseconds(500));
    EXPECT_NE(output().find("-- stopped    duration: 0 log messages from 0 applications\n"), std::string::npos);
    EXPECT_NE(::access(lock_file_.c_str(), F_OK), 0);
}

TEST_F(Monitor, SigintAndSigtermRemoveTheListenerSegmentAndTheLockFile)
{
    for (const int signal : {SIGINT, SIGTERM}) {
        start_monitor();
        EXPECT_TRUE(logferry_test::shm_exists(LISTENER_SEGMENT));
        EXPECT_EQ(::access(lock_file_.c_str(), F_OK), 0);
        const int status = stop_monitor(signal);
        ASSERT_TRUE(WIFEXITED(status)) << signal;
        EXPECT_EQ(WEXITSTATUS(status), 0);
        EXPECT_FALSE(logferry_test::shm_exists(LISTENER_SEGMENT));
        EXPECT_NE(::access(lock_file_.c_str(), F_OK), 0);
        EXPECT_NE(output().find("-- stopped    signal: 0 log messages from 0 applications\n"), std::string::npos);
    }
}

TEST_F(Monitor, StoppingTellsAttachedApplications)
{
    start_monitor();
    Test_application app(unique_id("", 20));
    ASSERT_TRUE(app.announce());
    ASSERT_TRUE(app.wait_attached());
    EXPECT_TRUE(app.connected());
    EXPECT_EQ(stop_monitor(), 0);
    // The monitor's end cleared its watchdog on the way out: the daemon is seen gone at
    // once, and the application's segment is left to the application.
    EXPECT_FALSE(app.connected());
    EXPECT_TRUE(logferry_test::shm_exists(app.name()));
    app.close();
    EXPECT_FALSE(logferry_test::shm_exists(app.name()));
}

TEST_F(Monitor, SecondMonitorIsRefusedWhileOneRuns)
{
    start_monitor();
    second_pid_ = launch({}, out_ + "2", err_ + "2");
    const int status = logferry_test::wait_child(second_pid_, milliseconds(10000));
    second_pid_ = -1;
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 1);
    EXPECT_EQ(read_file(err_ + "2"), "logferry-monitor: another daemon holds " + lock_file_ + "\n");
    // The first one is unharmed.
    EXPECT_TRUE(logferry_test::shm_exists(LISTENER_SEGMENT));
    EXPECT_EQ(stop_monitor(), 0);
}

// Another program (another DLT daemon, typically) listens on the DLT port: the monitor says so
// and ends with status 3, on which the service is not restarted, before it takes the listener
// role.
TEST_F(Monitor, TakenDltPortEndsTheMonitorWithItsOwnStatus)
{
    const int taken = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(taken, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(::bind(taken, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(taken, 1), 0);
    ASSERT_EQ(::getsockname(taken, reinterpret_cast<sockaddr*>(&address), &length), 0);
    const std::string port = std::to_string(ntohs(address.sin_port));

    const int pid = launch({"--dlt-port", port}, out_, err_);
    const int status = logferry_test::wait_child(pid, milliseconds(10000));
    ::close(taken);
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 3);
    EXPECT_EQ(errors(), "logferry-monitor: the DLT port " + port +
                            " on 127.0.0.1 is taken, by another DLT daemon (such as dlt-daemon) or another "
                            "program; stop it or give this one another --dlt-port\n");
    EXPECT_EQ(output(), "");
    EXPECT_NE(::access(lock_file_.c_str(), F_OK), 0);
    EXPECT_FALSE(logferry_test::shm_exists(LISTENER_SEGMENT));
}

TEST_F(Monitor, UndecodableUnitsAreReportedAndServiceGoesOn)
{
    start_monitor();
    Test_application app(unique_id("", 20));
    ASSERT_TRUE(app.announce());
    ASSERT_TRUE(app.wait_attached());
    ASSERT_TRUE(app.send_priority(bytes_of(Logferry_register_app("BAD", ""))));
    ASSERT_TRUE(app.send_priority(bytes_of(Logferry_register_context(4, 1, "C", ""))));
    app.release();
    ASSERT_TRUE(app.log(Bytes{12, 1, 0}));
    ASSERT_TRUE(app.log(bytes_of(start(1, 4, 1), int32(2, 5), make_finish(1))));
    ASSERT_TRUE(app.log(bytes_of(start(3, 4, 1), int32(3, 5), make_finish(3))));
    ASSERT_TRUE(wait_for("C    info    5")) << output();
    const std::string text = output();
    EXPECT_NE(text.find("-- error      BAD ring: truncated at offset 0 (kind 12): write_int32 needs 9 bytes, 3 left "
                        "[3 bytes: 0c 01 00]\n"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("-- error      BAD ring: stream-key-mismatch at offset 14 (kind 12)"), std::string::npos)
        << text;
    app.close();
}

// The example application on the real front end, under the monitor.
TEST_F(Monitor, ExampleApplicationUnderTheMonitor)
{
    start_monitor({"--level", "MAIN=debug", "--say", "hello from the monitor"});
    const std::string example_out = dir_ + "/example.out";
    const std::string example_err = dir_ + "/example.err";
    const int example = run_program(LOGFERRY_EXAMPLE_PATH, {}, example_out, example_err);
    const int status = logferry_test::wait_child(example, milliseconds(20000));
    const std::string printed = read_file(example_out);
    const std::string complaints = read_file(example_err);
    ::unlink(example_out.c_str());
    ::unlink(example_err.c_str());
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 0);
    ASSERT_TRUE(wait_for("-- detach")) << output();
    EXPECT_EQ(stop_monitor(), 0);

    // The example prints the level before and after the update, and the monitor's text.
    EXPECT_NE(printed.find("example: debug for MAIN before the level update: disabled\n"), std::string::npos)
        << printed;
    EXPECT_NE(printed.find("example: debug for MAIN after the level update: enabled\n"), std::string::npos) << printed;
    EXPECT_NE(printed.find("hello from the monitor\n"), std::string::npos) << printed;
    EXPECT_NE(printed.find("example: done\n"), std::string::npos) << printed;
    EXPECT_EQ(complaints, "");

    std::smatch match;
    const std::string text = output();
    ASSERT_TRUE(std::regex_search(text, match, std::regex("/logferry-EXA-[0-9]{1,5}-[0-9a-f]+"))) << text;
    const std::string channel = match.str();
    const std::string expected =
        "-- listening  lock=" + lock_file_ +
        "\n"
        "-- attach     " +
        channel +
        "\n"
        "-- say        " +
        channel +
        " \"hello from the monitor\"\n"
        "-- app        EXA \"logferry example application\" channel=" +
        channel +
        "\n"
        "-- control    EXA enable-local-print\n"
        "-- context    EXA MAIN handle=4294967295 level=info \"Main context\"\n"
        "-- set-level  EXA MAIN handle=4294967295 level=debug\n"
        "-- context    EXA NET handle=4294967294 level=warn \"Network context\"\n"
        "-- context    EXA LOWL handle=1 level=info \"Free-function context\"\n"
        "<ts> EXA  LOWL info    \"from the free functions:\" encoded[01 02 03]\n"
        "<ts> EXA  MAIN info    \"every argument type:\" true -8 -1600 -320000 -6400000000 200 0xbeef 0755 "
        "0b1011010 1.5 3.141592653589793 \"a view of\" [de ad be ef]\n"
        "<ts> EXA  MAIN debug   \"debug is on\"\n"
        "<ts> EXA  NET  warn    \"link down, retrying\" 3\n"
        "-- detach     EXA " +
        channel +
        " (closed its channel)\n"
        "-- stopped    signal: 4 log messages from 1 application\n";
    EXPECT_EQ(mask_timestamps(text), expected);
    EXPECT_EQ(errors(), "");
    EXPECT_FALSE(logferry_test::shm_exists(channel));
}

// Two copies of the example at once: every line of each appears, whole, exactly once per
// copy, and the monitor counts both.
TEST_F(Monitor, TwoExampleApplicationsAtOnce)
{
    start_monitor({"--level", "MAIN=debug", "--say", "hello from the monitor"});
    int examples[2];
    for (int i = 0; i < 2; ++i) {
        const std::string base = dir_ + "/example" + std::to_string(i);
        examples[i] = run_program(LOGFERRY_EXAMPLE_PATH, {}, base + ".out", base + ".err");
    }
    for (int i = 0; i < 2; ++i) {
        const int status = logferry_test::wait_child(examples[i], milliseconds(20000));
        const std::string base = dir_ + "/example" + std::to_string(i);
        const std::string printed = read_file(base + ".out");
        ::unlink((base + ".out").c_str());
        ::unlink((base + ".err").c_str());
        ASSERT_TRUE(logferry_test::exited_cleanly(status)) << status;
        EXPECT_NE(printed.find("example: debug for MAIN after the level update: enabled\n"), std::string::npos)
            << printed;
    }
    ASSERT_TRUE(wait_until([&] {
        const std::string text = output();
        const auto first = text.find("-- detach");
        return first != std::string::npos && text.find("-- detach", first + 1) != std::string::npos;
    })) << output();
    EXPECT_EQ(stop_monitor(), 0);

    std::multiset<std::string> lines;
    for (const std::string& line : split_lines(mask_timestamps(output()))) {
        lines.insert(std::regex_replace(line, std::regex("/logferry-EXA-[0-9]{1,5}-[0-9a-f]+"), "<channel>"));
    }
    const std::vector<std::string> per_application = {
        "-- attach     <channel>",
        "-- say        <channel> \"hello from the monitor\"",
        "-- app        EXA \"logferry example application\" channel=<channel>",
        "-- control    EXA enable-local-print",
        "-- context    EXA MAIN handle=4294967295 level=info \"Main context\"",
        "-- set-level  EXA MAIN handle=4294967295 level=debug",
        "-- context    EXA NET handle=4294967294 level=warn \"Network context\"",
        "-- context    EXA LOWL handle=1 level=info \"Free-function context\"",
        "<ts> EXA  LOWL info    \"from the free functions:\" encoded[01 02 03]",
        "<ts> EXA  MAIN info    \"every argument type:\" true -8 -1600 -320000 -6400000000 200 0xbeef 0755 "
        "0b1011010 1.5 3.141592653589793 \"a view of\" [de ad be ef]",
        "<ts> EXA  MAIN debug   \"debug is on\"",
        "<ts> EXA  NET  warn    \"link down, retrying\" 3",
        "-- detach     EXA <channel> (closed its channel)"};
    std::multiset<std::string> expected = {"-- listening  lock=" + lock_file_,
                                           "-- stopped    signal: 8 log messages from 2 applications"};
    for (int copy = 0; copy < 2; ++copy) {
        expected.insert(per_application.begin(), per_application.end());
    }
    EXPECT_EQ(lines, expected) << output();
    EXPECT_EQ(errors(), "");
}

// Runs one of the ara::log compatibility applications with `environment` added, waits for it
// to end with status 0 and for the monitor to detach, and returns the monitor's transcript
// with times and channel names masked.
class Ara_compat : public Monitor {
protected:
    void SetUp() override
    {
#ifdef LOGFERRY_STATIC_TEST_PROGRAMS
        GTEST_SKIP() << "the applications are linked statically here: an ara::log application that logs from its "
                        "static objects needs the shared libraries' load order";
#endif
        Monitor::SetUp();
    }

    std::string run_application(const std::string& name,
                                const std::vector<std::pair<std::string, std::string>>& environment)
    {
        start_monitor();
        for (const auto& variable : environment) {
            EXPECT_EQ(::setenv(variable.first.c_str(), variable.second.c_str(), 1), 0);
        }
        const std::string out = dir_ + "/app.out";
        const std::string err = dir_ + "/app.err";
        const int pid = run_program(std::string(LOGFERRY_ARA_COMPAT_DIR) + "/ara_compat_" + name, {}, out, err);
        for (const auto& variable : environment) {
            ::unsetenv(variable.first.c_str());
        }
        const int status = logferry_test::wait_child(pid, milliseconds(20000));
        const std::string complaints = read_file(err);
        ::unlink(out.c_str());
        ::unlink(err.c_str());
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
        EXPECT_EQ(complaints, "");
        EXPECT_TRUE(wait_for("-- detach")) << output();
        EXPECT_EQ(stop_monitor(), 0);
        EXPECT_EQ(errors(), "");
        return std::regex_replace(mask_timestamps(output()), std::regex("/logferry-CMP[0-9]-[0-9]{1,5}-[0-9a-f]+"),
                                  "<channel>");
    }
};

TEST_F(Ara_compat, InitLoggingApplicationWithMemberLoggersAndWrappers)
{
    const std::string transcript = run_application("sensor_service", {});
    EXPECT_EQ(transcript, "-- listening  lock=" + lock_file_ +
                              "\n"
                              "-- attach     <channel>\n"
                              "-- app        CMP1 \"compat: InitLogging application\" channel=<channel>\n"
                              "-- control    CMP1 enable-local-print\n"
                              "-- context    CMP1 MAIN handle=4294967295 level=info \"Main context\"\n"
                              "-- context    CMP1 SENS handle=4294967294 level=info \"Sensor service\"\n"
                              "<ts> CMP1 SENS info    \"temperature\" \"=\" 21.5\n"
                              "<ts> CMP1 SENS info    \"pressure\" \"=\" 1013.25\n"
                              "<ts> CMP1 MAIN warn    \"readings reported:\" 2\n"
                              "<ts> CMP1 MAIN info    \"part one\"\n"
                              "<ts> CMP1 MAIN info    \"part two\" \"moved on\"\n"
                              "-- detach     CMP1 <channel> (closed its channel)\n"
                              "-- stopped    signal: 5 log messages from 1 application\n");
}

TEST_F(Ara_compat, ApplicationWithoutInitLoggingTakesItsIdentityFromTheEnvironment)
{
    const std::string transcript =
        run_application("late_release_app", {{"LOGFERRY_APP_ID", "CMP2"}, {"LOGFERRY_LOG_LEVEL", "info"}});
    EXPECT_EQ(transcript, "-- listening  lock=" + lock_file_ +
                              "\n"
                              "-- attach     <channel>\n"
                              "-- app        CMP2 \"application CMP2\" channel=<channel>\n"
                              "-- context    CMP2 GLOB handle=4294967295 level=info \"Global logger\"\n"
                              "-- context    CMP2 WORK handle=4294967294 level=debug \"Worker\"\n"
                              "<ts> CMP2 GLOB info    \"starting\"\n"
                              "<ts> CMP2 GLOB info    \"handler saw the daemon:\" true\n"
                              "<ts> CMP2 WORK debug   \"took\" 250 \"ms\" \"retries\" 3 \"flags\" 0x2a\n"
                              "<ts> CMP2 GLOB warn    \"static destructor after main\"\n"
                              "-- detach     CMP2 <channel> (closed its channel)\n"
                              "-- stopped    signal: 4 log messages from 1 application\n");
}

// An application that keeps logging while the monitor is stopped and started again: the
// new monitor gets the registrations replayed, then every message, none lost across the
// restart.
TEST_F(Monitor, RestartedMonitorGetsTheRegistrationsReplayedAndEveryMessage)
{
    start_monitor();
    const std::string stop_file = dir_ + "/stop";
    const int application = logferry_test::fork_child([&] {
        // The library fixed its lock-file path when it was loaded, before this test set the
        // run-state directory.
        logferry::listener.lock_listener_name = lock_file_;
        logferry::set_app_identifier("RST");
        logferry::init();
        if (!logferry::register_app("RST", "keeps logging") || !logferry::register_context(1, "LOOP", "loop", 4)) {
            return 2;
        }
        struct stat info {};
        for (std::int32_t n = 0; n < 3000 && ::stat(stop_file.c_str(), &info) != 0; ++n) {
            logferry::log_start(1, 7, 4);
            logferry::log_int32(7, n);
            logferry::log_finish(7);
            ::usleep(10000);
        }
        logferry::exit();
        return 0;
    });
    ASSERT_GT(application, 0);
    ASSERT_TRUE(wait_for("LOOP info    5\n")) << output();
    EXPECT_EQ(stop_monitor(), 0);
    const std::string first_run = output();  // all of it: the monitor printed on until it stopped

    start_monitor();
    ASSERT_TRUE(wait_for("-- app        RST \"keeps logging\"")) << output();
    ASSERT_TRUE(wait_for("-- context    RST LOOP handle=1 level=info \"loop\"")) << output();
    // Messages flow again: wait for a number logged well after the restart.
    const auto numbers_in = [](const std::string& text) {
        std::vector<int> numbers;
        const std::regex message("RST  LOOP info    ([0-9]+)");
        for (auto it = std::sregex_iterator(text.begin(), text.end(), message); it != std::sregex_iterator(); ++it) {
            numbers.push_back(std::stoi((*it)[1]));
        }
        return numbers;
    };
    const std::vector<int> before = numbers_in(first_run);
    ASSERT_FALSE(before.empty());
    ASSERT_TRUE(wait_until(
        [&] {
            const std::vector<int> after = numbers_in(output());
            return !after.empty() && after.back() >= before.back() + 50;
        },
        milliseconds(20000)))
        << output();
    {
        std::ofstream stop(stop_file);
    }
    const int status = logferry_test::wait_child(application, milliseconds(10000));
    ::unlink(stop_file.c_str());
    ASSERT_TRUE(logferry_test::exited_cleanly(status)) << status;
    ASSERT_TRUE(wait_for("-- detach")) << output();
    EXPECT_EQ(stop_monitor(), 0);

    // The registrations came before any message of the second run, and the numbers of
    // both runs together are every number from 0 on, in order, each once.
    const std::string second_run = output();
    EXPECT_LT(second_run.find("-- context    RST LOOP"), second_run.find("RST  LOOP info"));
    std::vector<int> all = numbers_in(first_run);
    const std::vector<int> after = numbers_in(second_run);
    all.insert(all.end(), after.begin(), after.end());
    for (std::size_t i = 0; i < all.size(); ++i) {
        ASSERT_EQ(all[i], static_cast<int>(i)) << "message " << i << " of " << all.size();
    }
}

TEST_F(Monitor, UsageErrorsAndHelp)
{
    const auto run = [&](const std::vector<std::string>& arguments) {
        const int pid = launch(arguments, out_, err_);
        const int status = logferry_test::wait_child(pid, milliseconds(10000));
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    };
    EXPECT_EQ(run({"--help"}), 0);
    EXPECT_EQ(output().rfind("usage: logferry-monitor", 0), 0U);
    EXPECT_EQ(run({"--level", "MAIN"}), 2);
    EXPECT_NE(errors().find("--level wants CTX=LEVEL"), std::string::npos);
    EXPECT_EQ(run({"--level", "MAIN=loud"}), 2);
    EXPECT_EQ(run({"--level", "TOOLONG=info"}), 2);
    EXPECT_EQ(run({"--level", "M=7"}), 2);
    EXPECT_EQ(run({"--count", "0"}), 2);
    EXPECT_EQ(run({"--count", "-1"}), 2);
    EXPECT_EQ(run({"--duration", "soon"}), 2);
    EXPECT_EQ(run({"--say"}), 2);
    EXPECT_EQ(run({"--frobnicate"}), 2);
    EXPECT_NE(errors().find("unknown option --frobnicate"), std::string::npos);
    EXPECT_EQ(run({"--dlt-port", "65536"}), 2);
    EXPECT_NE(errors().find("--dlt-port wants a port number (0 to 65535), not 65536"), std::string::npos);
    EXPECT_EQ(run({"--dlt-port", "http"}), 2);
    EXPECT_EQ(run({"--dlt-file-limit", "0"}), 2);
    EXPECT_NE(errors().find("--dlt-file-limit wants a positive number of bytes, not 0"), std::string::npos);
    EXPECT_EQ(run({"--ecu", "ECU12"}), 2);
    EXPECT_NE(errors().find("--ecu wants an ID of 1 to 4 characters, not ECU12"), std::string::npos);
    EXPECT_EQ(run({"--ecu", ""}), 2);
    EXPECT_EQ(run({"--dlt-file", ""}), 2);
    EXPECT_EQ(run({"--app-file-dir", ""}), 2);
    EXPECT_EQ(run({"--dlt-max-clients", "0"}), 2);
    EXPECT_NE(errors().find("--dlt-max-clients wants a number from 1 to 65536, not 0"), std::string::npos);
    EXPECT_EQ(run({"--dlt-max-clients", "65537"}), 2);
    EXPECT_EQ(run({"--help"}), 0);
    for (const char* option : {"--quiet", "--dlt-file PATH", "--dlt-file-limit BYTES", "--dlt-port PORT",
                               "--dlt-bind ADDR", "--dlt-max-clients N", "--ecu ID", "--app-file-dir DIR"}) {
        EXPECT_NE(output().find(option), std::string::npos) << option;
    }
    EXPECT_NE(::access(lock_file_.c_str(), F_OK), 0);  // none of them took the listener role
}

// ---------------------------------------------------------------------------------------
// The DLT outputs, checked with the DLT tools of the system (external clients).

using logferry_test::Dlt_bytes;

// Bytes of a DLT standard header: 4, plus ECU ID, session ID and timestamp when present.
std::size_t dlt_header_size(const Dlt_bytes& message)
{
    const unsigned char htyp = message[0];
    return 4 + ((htyp & 0x04) != 0 ? 4 : 0) + ((htyp & 0x08) != 0 ? 4 : 0) + ((htyp & 0x10) != 0 ? 4 : 0);
}

// A log message (extended header present, message type 0), not a control message.
bool is_dlt_log(const Dlt_bytes& message)
{
    const std::size_t at = dlt_header_size(message);
    return (message[0] & 0x01) != 0 && message.size() > at && ((message[at] >> 1) & 0x07) == 0;
}

std::uint32_t dlt_session_id(const Dlt_bytes& message)
{
    const std::size_t at = 4 + ((message[0] & 0x04) != 0 ? 4 : 0);
    return static_cast<std::uint32_t>(message[at]) << 24 | static_cast<std::uint32_t>(message[at + 1]) << 16 |
           static_cast<std::uint32_t>(message[at + 2]) << 8 | message[at + 3];
}

std::vector<Dlt_bytes> dlt_logs(const std::vector<Dlt_bytes>& messages)
{
    std::vector<Dlt_bytes> logs;
    for (const Dlt_bytes& message : messages) {
        if (is_dlt_log(message)) {
            logs.push_back(message);
        }
    }
    return logs;
}

std::vector<Dlt_bytes> dlt_file_logs(const std::string& path, bool* complete = nullptr)
{
    return dlt_logs(logferry_test::split_dlt_file(logferry_test::read_file_bytes(path), complete));
}

// dlt-convert -a of a file, log messages only, with the line number, the reception time and
// the time stamp masked.
std::string dlt_convert(const std::string& path)
{
    const std::string printed = logferry_test::run_command(logferry_test::find_program("dlt-convert") + " -a " + path);
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
    return !logferry_test::find_program("dlt-receive").empty() && !logferry_test::find_program("dlt-convert").empty() &&
           !logferry_test::find_program("dlt-control").empty();
}

#define REQUIRE_DLT_TOOLS()                                                                    \
    if (!have_dlt_tools()) {                                                                   \
        GTEST_SKIP() << "dlt-tools (dlt-receive, dlt-convert, dlt-control) is not installed; " \
                        "scripts/install-deps.sh installs it";                                 \
    }

// A TCP connection to the monitor's DLT port.
int connect_dlt(const std::string& port, int receive_buffer = 0)
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

// The example under the monitor with a DLT file and a DLT port, dlt-receive connected: both
// files hold the same messages, byte for byte, and dlt-convert shows them as the expected
// transcript (tests/data/example.dlt.txt; LOGFERRY_REGENERATE=1 rewrites it).
TEST_F(Monitor, ExampleThroughDltFileAndPortMatchesTheTranscript)
{
    REQUIRE_DLT_TOOLS();
    const std::string stored = file("stored.dlt");
    const std::string received = file("received.dlt");
    start_monitor({"--level", "MAIN=debug", "--dlt-file", stored, "--dlt-port", "0"});
    const std::string port = dlt_port();
    ASSERT_FALSE(port.empty()) << output();
    const int receiver =
        run_program(logferry_test::find_program("dlt-receive"), {"-o", received, "-p", port, "127.0.0.1"},
                    file("receive.out"), file("receive.err"));
    ASSERT_TRUE(wait_for("-- client ")) << output();
    const int example = run_program(LOGFERRY_EXAMPLE_PATH, {}, file("example.out"), file("example.err"));
    const int status = logferry_test::wait_child(example, milliseconds(20000));
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    ASSERT_TRUE(wait_for("-- detach")) << output();
    // The example logs four messages: three through ara::log, one through the free functions.
    ASSERT_TRUE(wait_until([&] { return dlt_file_logs(received).size() == 4; })) << output();
    ::kill(receiver, SIGTERM);
    logferry_test::wait_child(receiver);
    EXPECT_EQ(stop_monitor(), 0);

    bool complete = false;
    const std::vector<Dlt_bytes> file_messages = dlt_file_logs(stored, &complete);
    EXPECT_TRUE(complete);
    ASSERT_EQ(file_messages.size(), 4U);
    EXPECT_EQ(dlt_file_logs(received), file_messages);
    for (const Dlt_bytes& message : file_messages) {
        EXPECT_EQ(dlt_session_id(message), static_cast<std::uint32_t>(example));  // the process id
    }

    const std::string transcript = dlt_convert(stored);
    EXPECT_EQ(dlt_convert(received), transcript);
    const std::string expected_path = std::string(LOGFERRY_TEST_DATA_DIR) + "/example.dlt.txt";
    const char* regenerate = std::getenv("LOGFERRY_REGENERATE");
    if (regenerate != nullptr && std::string(regenerate) == "1") {
        std::ofstream(expected_path) << transcript;
    }
    EXPECT_EQ(transcript, read_file(expected_path));
}

// dlt-control sets a context's level; the application's is_log_level_enabled follows
// within a second.
TEST_F(Monitor, DltControlSetsTheLevelTheApplicationSees)
{
    REQUIRE_DLT_TOOLS();
    start_monitor({"--dlt-port", "0"});
    const std::string port = dlt_port();
    ASSERT_FALSE(port.empty()) << output();
    const std::string enabled_file = file("enabled");
    const int application = logferry_test::fork_child([&] {
        logferry::listener.lock_listener_name = lock_file_;
        logferry::set_app_identifier("CTL");
        logferry::init();
        if (!logferry::register_app("CTL", "controlled") || !logferry::register_context(1, "LEV", "level", 4) ||
            logferry::is_log_level_enabled(1, 6)) {
            return 2;
        }
        const bool enabled = wait_until([] { return logferry::is_log_level_enabled(1, 6); }, milliseconds(20000));
        if (enabled) {
            std::ofstream(enabled_file) << "yes";
        }
        logferry::exit();
        return enabled ? 0 : 3;
    });
    ASSERT_GT(application, 0);
    ASSERT_TRUE(wait_for("-- context    CTL LEV handle=1 level=info")) << output();
    const int control = run_program(logferry_test::find_program("dlt-control"),
                                    {"-p", port, "-l", "6", "-a", "CTL", "-c", "LEV", "127.0.0.1"}, file("control.out"),
                                    file("control.err"));
    ASSERT_TRUE(wait_for("-- set-level  CTL LEV handle=1 level=verbose\n")) << output();
    struct stat info {};
    EXPECT_TRUE(wait_until([&] { return ::stat(enabled_file.c_str(), &info) == 0; }, milliseconds(1000)));
    const int status = logferry_test::wait_child(application, milliseconds(20000));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    logferry_test::wait_child(control);
    EXPECT_NE(output().find("-- client     set-log-level CTL LEV level=6: 1 context\n"), std::string::npos) << output();
    EXPECT_EQ(stop_monitor(), 0);
}

// Two applications at once, a viewer that connects mid-stream, a client that never reads
// and one that sends garbage: the file gets everything, the viewer everything from when it
// connected, and nothing stalls.
TEST_F(Monitor, DltClientsComeGoStallAndMisbehaveWhileTwoApplicationsLog)
{
    REQUIRE_DLT_TOOLS();
    const std::string stored = file("stored.dlt");
    const std::string received = file("received.dlt");
    start_monitor({"--dlt-file", stored, "--dlt-port", "0"});
    const std::string port = dlt_port();
    ASSERT_FALSE(port.empty()) << output();

    // A client that never reads.
    const int stalled = connect_dlt(port, 4096);
    ASSERT_GE(stalled, 0);

    Test_application one("DUA");
    Test_application two("DUB");
    attach_registered(one, "DUA");
    attach_registered(two, "DUB");
    one.release();
    two.release();

    // Messages of about 11 KB (eight texts of 1389 bytes), so that the stalled client's
    // backlog overflows.
    const std::string filler(1389, 'x');
    const auto message = [&](std::uint32_t n) {
        Bytes bytes = bytes_of(start(n, 4, 1), int32(n, static_cast<std::int32_t>(n)));
        for (int i = 0; i < 8; ++i) {
            const Bytes part = bytes_of(make_text(n, filler));
            bytes.insert(bytes.end(), part.begin(), part.end());
        }
        const Bytes end = bytes_of(make_finish(n));
        bytes.insert(bytes.end(), end.begin(), end.end());
        return bytes;
    };
    // Paced by the DLT file: each message of both is in it before the next ones go out (all
    // messages have the same size).
    std::size_t entry_size = 0;
    const auto stored_size = [&] {
        struct stat info {};
        return ::stat(stored.c_str(), &info) == 0 ? static_cast<std::size_t>(info.st_size) : std::size_t{0};
    };
    const auto log_both = [&](std::uint32_t first, std::uint32_t count) {
        for (std::uint32_t n = first; n < first + count; ++n) {
            for (Test_application* app : {&one, &two}) {
                app->stamp();
                EXPECT_TRUE(app->log(message(n)));
            }
            if (entry_size == 0) {
                ASSERT_TRUE(wait_until([&] { return dlt_file_logs(stored).size() == 2; }));
                entry_size = stored_size() / 2;
            }
            ASSERT_TRUE(wait_until([&] { return stored_size() >= 2 * (n + 1) * entry_size; })) << n;
        }
    };
    log_both(0, 10);

    // A viewer connects mid-stream; garbage arrives on another connection.
    const int receiver =
        run_program(logferry_test::find_program("dlt-receive"), {"-o", received, "-p", port, "127.0.0.1"},
                    file("receive.out"), file("receive.err"));
    const int garbage = connect_dlt(port);
    ASSERT_GE(garbage, 0);
    const char junk[] = "GET / HTTP/1.0\r\n\r\nthis is not DLT at all, not even close";
    ASSERT_EQ(::write(garbage, junk, sizeof junk), static_cast<ssize_t>(sizeof junk));
    // The garbage sender is disconnected: its reads end.
    EXPECT_TRUE(wait_until([&] {
        char buffer[4096];
        const ssize_t n = ::recv(garbage, buffer, sizeof buffer, MSG_DONTWAIT);
        return n == 0 || (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK);
    }));
    ::close(garbage);
    // dlt-receive has connected when it got its first keep-alive.
    ASSERT_TRUE(
        wait_until([&] { return !logferry_test::split_dlt_file(logferry_test::read_file_bytes(received)).empty(); }));
    log_both(10, 600);
    ASSERT_TRUE(wait_until([&] { return dlt_file_logs(received).size() == 2 * 600; }))
        << dlt_file_logs(received).size();
    ::kill(receiver, SIGTERM);
    logferry_test::wait_child(receiver);

    const std::vector<Dlt_bytes> all = dlt_file_logs(stored);
    ASSERT_EQ(all.size(), 2U * 610U);
    // The viewer got exactly the messages from its connection on, in the same order.
    EXPECT_EQ(dlt_file_logs(received), std::vector<Dlt_bytes>(all.begin() + 2 * 10, all.end()));
    // Both applications, each in its own order.
    std::map<std::string, std::uint32_t> next;
    for (const Dlt_bytes& m : all) {
        // Extended header: message info, argument count, application ID, context ID.
        const std::string app(m.begin() + static_cast<long>(dlt_header_size(m)) + 2,
                              m.begin() + static_cast<long>(dlt_header_size(m)) + 6);
        ++next[app];
    }
    EXPECT_EQ(next[std::string("DUA", 4)], 610U);
    EXPECT_EQ(next[std::string("DUB", 4)], 610U);
    // The client that never read was disconnected once its backlog was full: what it can
    // still read ends.
    std::size_t stalled_bytes = 0;
    EXPECT_TRUE(wait_until(
        [&] {
            for (;;) {
                char buffer[65536];
                const ssize_t n = ::recv(stalled, buffer, sizeof buffer, MSG_DONTWAIT);
                if (n <= 0) {
                    return n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK);
                }
                stalled_bytes += static_cast<std::size_t>(n);
            }
        },
        milliseconds(20000)))
        << stalled_bytes;
    EXPECT_LT(stalled_bytes, all.size() * entry_size);
    ::close(stalled);
    EXPECT_EQ(stop_monitor(), 0);
}

// Application requests: a file of a plain name inside --app-file-dir (or an absolute path
// whose directory is exactly it) gets the application's messages; every other name is refused.
TEST_F(Monitor, ApplicationFileRequestsStayInsideTheDirectory)
{
    const std::string app_dir = dir_ + "/files";
    ASSERT_EQ(::mkdir(app_dir.c_str(), 0700), 0);
    start_monitor({"--app-file-dir", app_dir});
    Test_application app("FIL");
    attach_registered(app, "FIL");
    const auto ask = [&](const std::string& name) {
        Logferry_init_file request;
        std::copy(name.begin(), name.end(), request.file_name.begin());
        return app.send_priority(bytes_of(request));
    };
    const std::vector<std::pair<std::string, std::string>> refused = {
        {"", "empty file name"},
        {"../escape.dlt", "file name with a slash"},
        {"..", "file name with \"..\" or \".\""},
        {"a..b", "file name with \"..\" or \".\""},
        {"sub/dir.dlt", "file name with a slash"},
        {"/tmp/elsewhere.dlt", "file name with a slash"},
        {app_dir + "/../up.dlt", "file name with a slash"},
        {std::string(65, 'n'), "file name longer than 64 characters"},
        {"bell\a.dlt", "file name with a non-printable character"},
        {"caf\xc3\xa9.dlt", "file name with a non-printable character"},
    };
    for (const auto& name : refused) {
        ASSERT_TRUE(ask(name.first));
        ASSERT_TRUE(wait_for(": " + name.second + "\n")) << name.first << "\n" << output();
    }
    ASSERT_TRUE(ask("plain.dlt"));
    app.release();
    ASSERT_TRUE(app.log(bytes_of(start(1, 4, 1), int32(1, 41), make_finish(1))));
    ASSERT_TRUE(wait_for("CTX  info    41\n")) << output();
    ASSERT_TRUE(ask(app_dir + "/absolute.dlt"));
    ASSERT_TRUE(app.log(bytes_of(start(2, 4, 1), int32(2, 42), make_finish(2))));
    ASSERT_TRUE(wait_for("CTX  info    42\n")) << output();
    EXPECT_EQ(stop_monitor(), 0);

    const std::string text = output();
    std::size_t refusals = 0;
    for (std::size_t at = text.find("-- refused    FIL init-file"); at != std::string::npos;
         at = text.find("-- refused    FIL init-file", at + 1)) {
        ++refusals;
    }
    EXPECT_EQ(refusals, refused.size()) << text;
    EXPECT_EQ(dlt_file_logs(app_dir + "/plain.dlt").size(), 1U);
    EXPECT_EQ(dlt_file_logs(app_dir + "/absolute.dlt").size(), 1U);
    // Nothing else was created, inside the directory or next to it.
    std::set<std::string> names;
    for (const std::string& dir : {app_dir, dir_}) {
        DIR* listing = ::opendir(dir.c_str());
        ASSERT_NE(listing, nullptr);
        for (dirent* entry = ::readdir(listing); entry != nullptr; entry = ::readdir(listing)) {
            names.insert(dir + "/" + entry->d_name);
        }
        ::closedir(listing);
    }
    for (const std::string& name : names) {
        EXPECT_EQ(name.find("escape"), std::string::npos) << name;
        EXPECT_EQ(name.find("up.dlt"), std::string::npos) << name;
    }
    EXPECT_NE(::access("/tmp/elsewhere.dlt", F_OK), 0);
}

// Under --quiet only an application that asked for local printing shows up as text; one
// that disabled remote output reaches the DLT file but no DLT client.
TEST_F(Monitor, LocalPrintAndDisableRemoteTakeEffect)
{
    const std::string stored = file("stored.dlt");
    start_monitor({"--quiet", "--dlt-file", stored, "--dlt-port", "0"}, "dlt-port ");
    std::smatch match;
    const std::string printed = output();
    ASSERT_TRUE(std::regex_search(printed, match, std::regex("dlt-port ([0-9]+)\n"))) << printed;
    const int client = connect_dlt(match.str(1));
    ASSERT_GE(client, 0);
    Bytes stream;
    const auto read_client = [&] {
        char buffer[65536];
        for (ssize_t n = ::recv(client, buffer, sizeof buffer, MSG_DONTWAIT); n > 0;
             n = ::recv(client, buffer, sizeof buffer, MSG_DONTWAIT)) {
            stream.insert(stream.end(), buffer, buffer + n);
        }
        return dlt_logs(logferry_test::split_dlt_stream(stream));
    };
    // The first keep-alive: the monitor has taken the client on.
    ASSERT_TRUE(wait_until([&] { return read_client(), !stream.empty(); }));

    Test_application printing("LPA");
    Test_application local("DRB");
    attach_registered(printing, "LPA", bytes_of(Logferry_enable_local_print()));
    attach_registered(local, "DRB", bytes_of(Logferry_disable_remote()));
    printing.release();
    local.release();
    ASSERT_TRUE(local.log(bytes_of(start(1, 4, 1), int32(1, 42), make_finish(1))));
    ASSERT_TRUE(printing.log(bytes_of(start(1, 4, 1), int32(1, 41), make_finish(1))));
    ASSERT_TRUE(wait_until([&] { return dlt_file_logs(stored).size() == 2; }));
    ASSERT_TRUE(wait_for("LPA  CTX  info    41\n")) << output();
    ASSERT_TRUE(wait_until([&] { return read_client().size() == 1; }));
    const std::vector<Dlt_bytes> file_messages = dlt_file_logs(stored);
    const std::vector<Dlt_bytes> sent = read_client();
    ASSERT_EQ(sent.size(), 1U);
    const std::size_t app_at = dlt_header_size(sent[0]) + 2;
    EXPECT_EQ(std::string(sent[0].begin() + static_cast<long>(app_at), sent[0].begin() + static_cast<long>(app_at) + 4),
              std::string("LPA", 4));  // LPA's, not DRB's
    EXPECT_NE(std::find(file_messages.begin(), file_messages.end(), sent[0]), file_messages.end());
    ::close(client);
    EXPECT_EQ(stop_monitor(), 0);
    // Nothing else as text: no event lines, no message of DRB.
    EXPECT_EQ(mask_timestamps(output()), "dlt-port " + match.str(1) + "\n<ts> LPA  CTX  info    41\n");
}

// With --dlt-file-limit the file rotates: every message is in exactly one of PATH, PATH.1, ...,
// each file holds whole entries only and stays within the limit.
TEST_F(Monitor, DltFileRotatesWithoutSplittingAMessage)
{
    const std::string stored = file("rotating.dlt");
    for (int i = 1; i < 10; ++i) {
        file("rotating.dlt." + std::to_string(i));
    }
    start_monitor({"--dlt-file", stored, "--dlt-file-limit", "1000"});
    Test_application app("ROT");
    attach_registered(app, "ROT");
    app.release();
    constexpr int COUNT = 60;
    for (int n = 0; n < COUNT; ++n) {
        ASSERT_TRUE(app.log(bytes_of(start(1, 4, 1), int32(1, n), make_text(1, "rotation"), make_finish(1))));
        ASSERT_TRUE(wait_for("info    " + std::to_string(n) + " \"rotation\"\n")) << output();
    }
    EXPECT_EQ(stop_monitor(), 0);
    // Oldest first: PATH.k ... PATH.1, PATH.
    std::vector<Dlt_bytes> all;
    int files = 0;
    for (int i = 9; i >= 0; --i) {
        const std::string path = i == 0 ? stored : stored + "." + std::to_string(i);
        if (::access(path.c_str(), F_OK) != 0) {
            continue;
        }
        ++files;
        bool complete = false;
        const std::vector<Dlt_bytes> messages = dlt_file_logs(path, &complete);
        EXPECT_TRUE(complete) << path;
        EXPECT_LE(logferry_test::read_file_bytes(path).size(), 1000U) << path;
        all.insert(all.end(), messages.begin(), messages.end());
    }
    EXPECT_GT(files, 2);
    ASSERT_EQ(all.size(), static_cast<std::size_t>(COUNT));
    for (int n = 0; n < COUNT; ++n) {
        // Payload: the int32 argument (type info 4 bytes, value 4 bytes, little-endian) first.
        const Dlt_bytes& m = all[static_cast<std::size_t>(n)];
        const std::size_t value = dlt_header_size(m) + 10 + 4;
        EXPECT_EQ(m[value], static_cast<unsigned char>(n)) << n;
    }
}

// The other control requests of DLT clients: get log info lists the applications and their
// contexts, get software version names the monitor, set default log level reaches every
// context, and a service the monitor does not offer is answered "not supported".
TEST_F(Monitor, DltControlRequestsAreAnswered)
{
    REQUIRE_DLT_TOOLS();
    start_monitor({"--dlt-port", "0"});
    const std::string port = dlt_port();
    ASSERT_FALSE(port.empty()) << output();
    Test_application app("INF");
    segments_.push_back(app.name());
    ASSERT_TRUE(app.announce());
    ASSERT_TRUE(app.wait_attached());
    ASSERT_TRUE(app.send_priority(bytes_of(Logferry_register_app("INF", "informative"))));
    ASSERT_TRUE(app.send_priority(bytes_of(Logferry_register_context(3, 7, "CTXA", "first context"))));
    const auto control = [&](const std::vector<std::string>& arguments) {
        const std::string out = file("control.out");
        std::vector<std::string> all = {"-p", port};
        all.insert(all.end(), arguments.begin(), arguments.end());
        all.push_back("127.0.0.1");
        const int pid = run_program(logferry_test::find_program("dlt-control"), all, out, file("control.err"));
        logferry_test::wait_child(pid, milliseconds(20000));
        return read_file(out);
    };
    const std::string info = control({"-j"});
    EXPECT_NE(info.find("APID:INF"), std::string::npos) << info;
    EXPECT_NE(info.find("informative"), std::string::npos) << info;
    EXPECT_NE(info.find("CTID:CTXA"), std::string::npos) << info;
    EXPECT_NE(info.find("first context"), std::string::npos) << info;
    const std::string version = control({"-k"});
    EXPECT_NE(version.find("logferry-monitor " LOGFERRY_VERSION_TEXT), std::string::npos) << version;
    control({"-d", "2"});
    EXPECT_EQ(app.receive(), (Bytes{24, 2, 7, 0, 0, 0}));
    ASSERT_TRUE(wait_for("-- client     set-default-log-level level=2: 1 context\n")) << output();

    // Service 0x20 (not one the monitor offers), then a well-formed request the monitor answers.
    const int client = connect_dlt(port);
    ASSERT_GE(client, 0);
    const Dlt_bytes request = logferry_test::client_request({0x20, 0x00, 0x00, 0x00});
    ASSERT_EQ(::write(client, request.data(), request.size()), static_cast<ssize_t>(request.size()));
    Bytes stream;
    const Bytes expected_tail = {0x20, 0x00, 0x00, 0x00, 0x01};  // service, status "not supported"
    EXPECT_TRUE(wait_until([&] {
        char buffer[4096];
        for (ssize_t n = ::recv(client, buffer, sizeof buffer, MSG_DONTWAIT); n > 0;
             n = ::recv(client, buffer, sizeof buffer, MSG_DONTWAIT)) {
            stream.insert(stream.end(), buffer, buffer + n);
        }
        for (const Dlt_bytes& message : logferry_test::split_dlt_stream(stream)) {
            if (message.size() >= expected_tail.size() &&
                std::equal(expected_tail.begin(), expected_tail.end(), message.end() - 5)) {
                return true;
            }
        }
        return false;
    }));
    ::close(client);
    EXPECT_EQ(stop_monitor(), 0);
}

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

// How often `needle` occurs in `text`.
std::size_t count_of(const std::string& text, const std::string& needle)
{
    std::size_t count = 0;
    for (auto at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) {
        ++count;
    }
    return count;
}

// Whether the entry is free as a withdrawal leaves it: every name byte 0, not picked up.
bool entry_freed(const Listener_entry& entry)
{
    return logferry_test::all_zero(entry.channel_name, sizeof entry.channel_name) && entry.picked_up == 0;
}

TEST_F(Monitor, ApplicationEndingBeforeItSawTheAttachmentHasItsEntryFreedAtOnce)
{
    start_monitor();
    Test_application app(unique_id("", 20));
    segments_.push_back(app.name());
    ASSERT_TRUE(app.announce());
    ASSERT_TRUE(app.wait_attached_announced());
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
    segments_.push_back(first.name());
    ASSERT_TRUE(first.announce());
    ASSERT_TRUE(first.wait_attached_announced());
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

// ---- Deployments: several ECUs behind a DLT gateway; a flood of connections ---------------

// Children of a test that must not outlive it: killed and reaped when it ends, however it ends.
struct Child_guard {
    std::vector<int> pids;
    ~Child_guard()
    {
        for (const int pid : pids) {
            if (pid > 0 && ::kill(pid, SIGKILL) == 0) {
                ::waitpid(pid, nullptr, 0);
            }
        }
    }
    int add(int pid)
    {
        pids.push_back(pid);
        return pid;
    }
};

// Descriptors of a test, closed when it ends.
struct Descriptor_guard {
    std::vector<int> fds;
    ~Descriptor_guard()
    {
        for (const int fd : fds) {
            if (fd >= 0) {
                ::close(fd);
            }
        }
    }
};

// The processor time (user and system) process `pid` has used so far, in seconds; -1 when it
// cannot be read.
double cpu_seconds(int pid)
{
    std::ifstream stat_file("/proc/" + std::to_string(pid) + "/stat");
    std::stringstream content;
    content << stat_file.rdbuf();
    const std::string text = content.str();
    // The command (field 2) may hold spaces: the fields are counted after its parenthesis.
    const std::size_t close = text.rfind(')');
    if (close == std::string::npos) {
        return -1;
    }
    std::istringstream fields(text.substr(close + 1));
    std::string field;
    unsigned long long ticks = 0;
    for (int number = 3; number <= 15 && (fields >> field); ++number) {
        if (number == 14 || number == 15) {  // utime, stime
            ticks += std::stoull(field);
        }
    }
    return static_cast<double>(ticks) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

// The share of one processor process `pid` uses over `span` (measured, not a wait for
// anything: the caller wants the monitor's rate when it has nothing to do).
double cpu_share_over(int pid, milliseconds span)
{
    const double before = cpu_seconds(pid);
    const auto start = std::chrono::steady_clock::now();
    wait_until([&] { return std::chrono::steady_clock::now() - start >= span; }, span + milliseconds(1000));
    const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return (cpu_seconds(pid) - before) / wall;
}

// Everything readable on `fd` now, appended to `into`; false once the peer closed.
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

// 200 idle connections to the DLT port of a monitor whose limit of open files is 64, as a flood
// would leave them: the monitor serves at most 32 clients (32 descriptors stay for the rest of
// its work), closes every other connection at once and says so, does not spin (while the
// connections stand it uses less than a quarter of a processor more than it uses idle),
// attaches an application and writes its messages to the DLT file meanwhile, and serves a new
// client as soon as a slot frees.
TEST_F(Monitor, DltPortFloodNeitherSpinsNorStarvesApplicationsOrANewClient)
{
    constexpr rlim_t FILES = 64;
    constexpr int CONNECTIONS = 200;
    const std::size_t served = FILES - logferry_dlt::Tcp_server::DESCRIPTORS_KEPT;
    const std::string stored = file("stored.dlt");
    start_monitor({"--dlt-file", stored, "--dlt-port", "0"}, "-- listening", [] {
        const rlimit limit{FILES, FILES};
        return ::setrlimit(RLIMIT_NOFILE, &limit) == 0;
    });
    ASSERT_TRUE(wait_for("-- client     at most " + std::to_string(served) +
                         " DLT clients at once: the descriptor limit leaves no more\n"))
        << output() << errors();
    const std::string port = dlt_port();
    ASSERT_FALSE(port.empty()) << output();

    ASSERT_GE(cpu_seconds(pid_), 0.0);
    // What the monitor uses with nothing to do (more on an emulated machine than here).
    const double idle_share = cpu_share_over(pid_, milliseconds(500));
    Descriptor_guard flood;
    for (int i = 0; i < CONNECTIONS; ++i) {
        flood.fds.push_back(connect_dlt(port));
        ASSERT_GE(flood.fds.back(), 0) << i;
    }
    // An application comes and logs while the connections stand.
    Test_application app("FLD");
    attach_registered(app, "FLD");
    app.release();
    constexpr std::size_t MESSAGES = 100;
    for (std::uint32_t n = 0; n < MESSAGES; ++n) {
        ASSERT_TRUE(app.log(bytes_of(start(n, 4, 1), int32(n, static_cast<std::int32_t>(n)), make_finish(n))));
    }
    ASSERT_TRUE(wait_until([&] { return dlt_file_logs(stored).size() == MESSAGES; })) << dlt_file_logs(stored).size();

    // Each connection is either served (the keep-alive arrives) or closed without a byte.
    std::vector<int> verdicts(CONNECTIONS, 0);  // 1 served, 2 closed
    ASSERT_TRUE(wait_until(
        [&] {
            bool all = true;
            for (int i = 0; i < CONNECTIONS; ++i) {
                Bytes got;
                if (verdicts[i] == 0) {
                    const bool open = read_now(flood.fds[i], got);
                    verdicts[i] = !got.empty() ? 1 : open ? 0 : 2;
                    all = all && verdicts[i] != 0;
                }
            }
            return all;
        },
        milliseconds(10000)));
    EXPECT_EQ(std::count(verdicts.begin(), verdicts.end(), 1), static_cast<long>(served));
    EXPECT_EQ(std::count(verdicts.begin(), verdicts.end(), 2), static_cast<long>(CONNECTIONS - served));
    // The refusals are said in lines of their count, at most one a second.
    const std::regex refused("-- client     refused ([0-9]+) DLT connections?: " + std::to_string(served) +
                             " clients connected, the most allowed\n");
    std::size_t said = 0;
    EXPECT_TRUE(wait_until([&] {
        said = 0;
        const std::string text = output();
        for (std::sregex_iterator it(text.begin(), text.end(), refused), end; it != end; ++it) {
            said += std::stoul((*it)[1].str());
        }
        return said == CONNECTIONS - served;
    })) << said;

    // No spinning while the connections stand (a monitor that cannot take them off the queue
    // polls the listening socket again and again): it uses about what it uses idle.
    const double flood_share = cpu_share_over(pid_, milliseconds(1000));
    RecordProperty("idle_monitor_cpu_share", std::to_string(idle_share));
    RecordProperty("flood_monitor_cpu_share", std::to_string(flood_share));
    EXPECT_LT(flood_share, idle_share + 0.25) << "idle: " << idle_share;

    // A slot frees: a new client is served, keep-alive and answers.
    const auto first_served = std::find(verdicts.begin(), verdicts.end(), 1) - verdicts.begin();
    ::close(flood.fds[first_served]);
    flood.fds[first_served] = -1;
    ASSERT_TRUE(wait_for(" disconnected\n")) << output();
    const int fresh = connect_dlt(port);
    ASSERT_GE(fresh, 0);
    flood.fds.push_back(fresh);
    const Dlt_bytes request = logferry_test::client_request({0x13, 0x00, 0x00, 0x00});
    ASSERT_EQ(::write(fresh, request.data(), request.size()), static_cast<ssize_t>(request.size()));
    const Dlt_bytes answer = logferry_dlt::software_version_response("LFER", "logferry-monitor " LOGFERRY_VERSION_TEXT);
    Bytes stream;
    EXPECT_TRUE(wait_until([&] {
        read_now(fresh, stream);
        const std::vector<Dlt_bytes> messages = logferry_test::split_dlt_stream(stream);
        return std::find(messages.begin(), messages.end(), answer) != messages.end();
    }));
    // The application still gets through.
    ASSERT_TRUE(app.log(bytes_of(start(MESSAGES, 4, 1), int32(MESSAGES, 7), make_finish(MESSAGES))));
    EXPECT_TRUE(wait_until([&] { return dlt_file_logs(stored).size() == MESSAGES + 1; }));
    app.close();
    EXPECT_EQ(stop_monitor(), 0);
}

// Puts this process into a network namespace of its own with its loopback interface up: its
// ports and those of its children collide with nothing. "" on success, else why not.
std::string private_network()
{
    if (::unshare(CLONE_NEWNET) != 0) {
        return std::string("cannot make a network namespace of its own (needs root): ") + std::strerror(errno);
    }
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    std::strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
    bool up = fd >= 0 && ::ioctl(fd, SIOCGIFFLAGS, &request) == 0;
    request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
    up = up && ::ioctl(fd, SIOCSIFFLAGS, &request) == 0;
    const std::string why = up ? "" : std::string("cannot bring the loopback interface up: ") + std::strerror(errno);
    if (fd >= 0) {
        ::close(fd);
    }
    return why;
}

// In a child: a mount namespace of its own in which the directory `shm` is /dev/shm. Every
// process of one ECU (its monitor and its application) does this with the same directory, so
// they share their shared-memory objects, and the ECU keeps a listener list of its own (its name
// is fixed). (Joining another process's namespace instead is refused to a process with more
// than one thread, which a child forked under ThreadSanitizer is.)
bool ecu_shared_memory(const std::string& shm)
{
    return ::unshare(CLONE_NEWNS) == 0 && ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           ::mount(shm.c_str(), "/dev/shm", nullptr, MS_BIND, nullptr) == 0;
}

// The gateway's configuration for two passive nodes, as docs/monitor.md shows it.
std::string gateway_configuration(const std::vector<std::pair<std::string, int>>& nodes)
{
    std::string text = "[General]\nInterval=1\n";
    for (std::size_t i = 0; i < nodes.size(); ++i) {
        text += "\n[PassiveNode" + std::to_string(i + 1) +
                "]\nIPaddress=127.0.0.1\nPort=" + std::to_string(nodes[i].second) + "\nEcuID=" + nodes[i].first +
                "\nConnect=OnStartup\nTimeout=0\nSendControl=0x03,0x04,0x13\n";
    }
    return text;
}

// Messages of a DLT file (as dlt-receive stores them) from `ecu` that are control responses of
// service `service`.
std::vector<Dlt_bytes> control_responses(const std::string& path, const std::string& ecu, unsigned char service)
{
    std::vector<Dlt_bytes> found;
    for (const Dlt_bytes& m : logferry_test::split_dlt_file(logferry_test::read_file_bytes(path))) {
        const std::size_t at = dlt_header_size(m);
        // Standard header with ECU ID; extended header MSIN 0x26 (control response), payload
        // starting with the service ID (little-endian).
        if ((m[0] & 0x04) != 0 && std::string(m.begin() + 4, m.begin() + 8) == ecu && m.size() > at + 14 &&
            m[at] == 0x26 && m[at + 10] == service && m[at + 11] == 0 && m[at + 12] == 0 && m[at + 13] == 0) {
            found.push_back(m);
        }
    }
    return found;
}

// Two monitors as two ECUs (each with a /dev/shm of its own, in mount namespaces, and a
// run-state directory of its own, so each keeps its own listener list) with an application
// each, behind Debian's dlt-daemon as a DLT gateway (multi-node mode) with both as passive
// nodes; all of it in a network namespace of its own. Both ECUs' messages reach dlt-receive on the gateway with
// their ECU IDs, the gateway parses both answers to its get log info while no application is
// registered, dlt-control -e ECUA sets a context's level in ECUA's application and only there,
// and get log info through the gateway is answered by both.
TEST_F(Monitor, TwoMonitorsAsEcusBehindADltGateway)
{
    REQUIRE_DLT_TOOLS();
    const std::string daemon = logferry_test::find_program("dlt-daemon");
    if (daemon.empty()) {
        GTEST_SKIP() << "Debian's dlt-daemon is not installed (package dlt-daemon; scripts/install-deps.sh "
                        "installs it)";
    }
    const std::string probe_dir = file("probe");
    ASSERT_EQ(::mkdir(probe_dir.c_str(), 0700), 0);
    const int probe = logferry_test::fork_child([&] { return ecu_shared_memory(probe_dir) ? 0 : 1; });
    if (!logferry_test::exited_cleanly(logferry_test::wait_child(probe))) {
        GTEST_SKIP() << "cannot give each ECU a mount namespace with a /dev/shm of its own (needs root)";
    }
    const std::string network = private_network();
    if (!network.empty()) {
        GTEST_SKIP() << network;
    }

    struct Ecu {
        std::string id;
        int port;
        std::string dir;  // its run-state directory
        std::string out;  // its monitor's output
        int monitor = -1;
        int application = -1;
        std::string shm() const { return dir + "/shm"; }  // its /dev/shm
    };
    std::vector<Ecu> ecus = {{"ECUA", 3491, file("ECUA"), file("monitor-ECUA.out")},
                             {"ECUB", 3492, file("ECUB"), file("monitor-ECUB.out")}};
    Child_guard children;
    for (Ecu& ecu : ecus) {
        ASSERT_EQ(::mkdir(ecu.dir.c_str(), 0700), 0);
        ASSERT_EQ(::mkdir((ecu.dir + "/ara_DLT").c_str(), 0700), 0);
        ASSERT_EQ(::mkdir(ecu.shm().c_str(), 0700), 0);
        ASSERT_EQ(::chmod(ecu.shm().c_str(), 01777), 0);  // as /dev/shm is
        const std::string dir = ecu.dir;
        const std::string shm = ecu.shm();
        ecu.monitor = children.add(launch(
            {"--ecu", ecu.id, "--dlt-port", std::to_string(ecu.port)}, ecu.out, file("monitor-" + ecu.id + ".err"),
            [dir, shm] { return ecu_shared_memory(shm) && ::setenv("ADAPTIVE_RUNSTATE_DIR", dir.c_str(), 1) == 0; }));
        ASSERT_TRUE(wait_until([&] { return read_file(ecu.out).find("-- dlt-port   ") != std::string::npos; }))
            << read_file(ecu.out) << read_file(file("monitor-" + ecu.id + ".err"));
    }

    // The gateway: its configuration files and everything it writes in a directory of the test.
    const std::string gateway_dir = file("gateway");
    ASSERT_EQ(::mkdir(gateway_dir.c_str(), 0700), 0);
    std::ofstream(gateway_dir + "/dlt.conf")
        << "ECUId = GATE\nLoggingMode = 3\nLoggingLevel = 6\n"
           "SendContextRegistration = 0\nUDPConnectionSetup = 0\n"
           "PersistanceStoragePath = "
        << gateway_dir << "\nControlSocketPath = " << gateway_dir
        << "/ctrl.sock\nGatewayMode = 1\nGatewayConfigFile = " << gateway_dir << "/dlt_gateway.conf\n";
    std::ofstream(gateway_dir + "/dlt_gateway.conf") << gateway_configuration({{"ECUA", 3491}, {"ECUB", 3492}});
    const std::string gateway_log = gateway_dir + "/gateway.log";
    const int gateway = children.add(run_program(
        daemon, {"-c", gateway_dir + "/dlt.conf", "-t", gateway_dir, "-p", "3490"}, gateway_log, gateway_log));
    // Connected to both ECUs, or gone.
    int gateway_status = 0;
    const bool connected = wait_until([&] {
        if (::waitpid(gateway, &gateway_status, WNOHANG) == gateway) {
            return true;
        }
        for (const Ecu& ecu : ecus) {
            if (read_file(ecu.out).find("-- client     DLT client 1 connected from 127.0.0.1:") == std::string::npos) {
                return false;
            }
        }
        return true;
    });
    if (::kill(gateway, 0) != 0) {
        children.pids.erase(std::find(children.pids.begin(), children.pids.end(), gateway));
        GTEST_SKIP() << "dlt-daemon did not start (status " << gateway_status << "): " << read_file(gateway_log);
    }
    ASSERT_TRUE(connected) << read_file(gateway_log);
    const std::string received = file("received.dlt");
    children.add(run_program(logferry_test::find_program("dlt-receive"), {"-o", received, "-p", "3490", "127.0.0.1"},
                             file("receive.out"), file("receive.err")));

    // The gateway asked each ECU for its log info as it connected, before any application:
    // both answers arrive, unchanged, and the gateway parsed them.
    for (const Ecu& ecu : ecus) {
        std::vector<Dlt_bytes> answers;
        ASSERT_TRUE(wait_until([&] { return !(answers = control_responses(received, ecu.id, 0x03)).empty(); }))
            << ecu.id << "\n"
            << read_file(gateway_log);
        EXPECT_EQ(answers[0], logferry_dlt::get_log_info_response(ecu.id.c_str(), {})) << ecu.id;
    }
    EXPECT_EQ(read_file(gateway_log).find("Parsing GET_LOG_INFO"), std::string::npos) << read_file(gateway_log);
    EXPECT_EQ(read_file(gateway_log).find("not complete"), std::string::npos) << read_file(gateway_log);

    // The same application in both ECUs: it logs "hello", then "verbose is on" once its context
    // LEV is raised to verbose, and ends when told; its exit status says whether it was raised.
    const std::string stop = file("stop");
    for (Ecu& ecu : ecus) {
        const std::string dir = ecu.dir;
        const std::string description = "application on " + ecu.id;
        const std::string shm = ecu.shm();
        ecu.application = children.add(logferry_test::fork_child([dir, shm, description, stop] {
            if (!ecu_shared_memory(shm)) {
                return 20;
            }
            ::setenv("ADAPTIVE_RUNSTATE_DIR", dir.c_str(), 1);
            logferry::listener.lock_listener_name = dir + "/ara_DLT/logferry-daemon-listener.lock";
            logferry::set_app_identifier("GWT");
            logferry::init();
            if (!logferry::register_app("GWT", description.c_str()) ||
                !logferry::register_context(1, "LEV", "level context", 4)) {
                return 21;
            }
            const auto say = [](std::uint32_t key, std::uint8_t level, const char* text) {
                if (!logferry::log_start(1, key, level)) {
                    return false;
                }
                logferry::log_utf8_string(key, text);
                logferry::log_finish(key);
                return true;
            };
            if (!say(1, 4, "hello")) {
                return 22;
            }
            bool raised = false;
            wait_until(
                [&] {
                    raised = logferry::is_log_level_enabled(1, 6);
                    return raised || logferry_test::path_exists(stop);
                },
                milliseconds(30000));
            if (raised && !say(2, 6, "verbose is on")) {
                return 23;
            }
            wait_until([&] { return logferry_test::path_exists(stop); }, milliseconds(30000));
            logferry::exit();
            return raised ? 10 : 11;
        }));
    }
    for (const Ecu& ecu : ecus) {
        ASSERT_TRUE(wait_until([&] {
            return read_file(ecu.out).find("-- context    GWT LEV handle=1 level=info \"level context\"\n") !=
                   std::string::npos;
        })) << read_file(ecu.out)
            << "application: " << [&] {
                   int status = 0;
                   return ::waitpid(ecu.application, &status, WNOHANG) == ecu.application
                              ? "ended with status " + std::to_string(status)
                              : std::string("running");
               }();
    }
    const auto logs_from = [&](const std::string& ecu) {
        std::vector<std::string> lines;
        for (const std::string& line : split_lines(dlt_convert(received))) {
            if (line.find(" " + ecu + " ") != std::string::npos) {
                lines.push_back(line);
            }
        }
        return lines;
    };
    const auto hello = [](const std::string& ecu) {
        return "<n> <time> <ts> 000 " + ecu + " GWT- LEV- log info V 1 [hello]";
    };
    ASSERT_TRUE(wait_until([&] { return logs_from("ECUA").size() == 1 && logs_from("ECUB").size() == 1; }))
        << dlt_convert(received);

    // dlt-control through the gateway, to ECUA only.
    const std::string control = logferry_test::find_program("dlt-control");
    const auto control_run = [&](const std::vector<std::string>& arguments) {
        std::vector<std::string> all = {"-p", "3490"};
        all.insert(all.end(), arguments.begin(), arguments.end());
        all.push_back("127.0.0.1");
        const int pid = run_program(control, all, file("control.out"), file("control.err"));
        EXPECT_TRUE(logferry_test::exited_cleanly(logferry_test::wait_child(pid, milliseconds(20000))));
        return read_file(file("control.out"));
    };
    control_run({"-e", "ECUA", "-a", "GWT", "-c", "LEV", "-l", "6"});
    ASSERT_TRUE(wait_until([&] { return logs_from("ECUA").size() == 2; })) << dlt_convert(received);
    EXPECT_EQ(logs_from("ECUA"),
              (std::vector<std::string>{hello("ECUA"),
                                        "<n> <time> <ts> 001 ECUA GWT- LEV- log verbose V 1 [verbose is on]"}));
    EXPECT_EQ(logs_from("ECUB"), std::vector<std::string>{hello("ECUB")});
    EXPECT_NE(read_file(ecus[0].out).find("-- set-level  GWT LEV handle=1 level=verbose\n"), std::string::npos);
    EXPECT_NE(read_file(ecus[0].out).find("-- client     set-log-level GWT LEV level=6: 1 context\n"),
              std::string::npos);

    // Get log info through the gateway: each ECU answers with its application and levels.
    const std::string info_a = control_run({"-e", "ECUA", "-j"});
    EXPECT_NE(info_a.find("APID:GWT- application on ECUA\nCTID:LEV-  6  0 level context\n"), std::string::npos)
        << info_a;
    const std::string info_b = control_run({"-e", "ECUB", "-j"});
    EXPECT_NE(info_b.find("APID:GWT- application on ECUB\nCTID:LEV-  4  0 level context\n"), std::string::npos)
        << info_b;

    std::ofstream(stop) << "stop";
    for (const Ecu& ecu : ecus) {
        const int status = logferry_test::wait_child(ecu.application, milliseconds(20000));
        EXPECT_TRUE(WIFEXITED(status)) << status;
        EXPECT_EQ(WEXITSTATUS(status), ecu.id == "ECUA" ? 10 : 11) << ecu.id;  // raised in ECUA only
    }
    EXPECT_EQ(read_file(ecus[1].out).find("set-level"), std::string::npos) << read_file(ecus[1].out);
    EXPECT_EQ(read_file(ecus[1].out).find("set-log-level"), std::string::npos) << read_file(ecus[1].out);
    EXPECT_EQ(read_file(gateway_log).find("Parsing GET_LOG_INFO"), std::string::npos) << read_file(gateway_log);
    for (const Ecu& ecu : ecus) {
        ::kill(ecu.monitor, SIGTERM);
        const int status = logferry_test::wait_child(ecu.monitor, milliseconds(10000));
        EXPECT_TRUE(logferry_test::exited_cleanly(status)) << ecu.id << " " << status;
    }
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
        Announcer announcer;
        ASSERT_TRUE(announcer.announce(name));
        // The entry is emptied: the announcer's own check finds it gone.
        EXPECT_TRUE(wait_until([&] { return !announcer.announced(); })) << output();
    }
    ASSERT_TRUE(wait_for("-- refused    /logferry-\\x1b[2J\\x0a-- attach x-1-a: not a channel name\n")) << output();
    EXPECT_NE(output().find("-- refused    " + victim + ": not a channel name\n"), std::string::npos) << output();
    EXPECT_NE(output().find("-- refused    " + bare + ": not a channel name\n"), std::string::npos) << output();
    // Announced again: withdrawn again, without a second line.
    {
        Announcer again;
        ASSERT_TRUE(again.announce(victim));
        EXPECT_TRUE(wait_until([&] { return !again.announced(); })) << output();
    }
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
    const std::string small = "/logferry-" + channel_identifier(unique_id("small", 20));
    segments_.push_back(small);
    ASSERT_TRUE(make_object(small, 100, 0x11));
    const std::string missing = "/logferry-" + channel_identifier(unique_id("missing", 20));
    // A FIFO under a channel name: opening it for reading would wait for a writer.
    const std::string fifo = "/logferry-" + channel_identifier(unique_id("fifo", 20));
    segments_.push_back(fifo);
    ASSERT_EQ(::mkfifo(("/dev/shm" + fifo).c_str(), 0600), 0);
    for (const std::string& name : {small, std::string(LISTENER_SEGMENT), fifo, missing}) {
        Announcer announcer;
        ASSERT_TRUE(announcer.announce(name));
        EXPECT_TRUE(wait_until([&] { return !announcer.announced(); })) << output();
    }
    ASSERT_TRUE(wait_for("-- refused    " + missing + ": cannot open: No such file or directory\n")) << output();
    EXPECT_NE(output().find("-- refused    " + small + ": size 100 bytes, not 166072\n"), std::string::npos)
        << output();
    EXPECT_NE(output().find("-- refused    /logferry-daemon-listener: not a channel name\n"), std::string::npos)
        << output();
    EXPECT_NE(output().find("-- refused    " + fifo + ": not a shared-memory object\n"), std::string::npos) << output();
    EXPECT_TRUE(object_is(small, 100, 0x11));
    EXPECT_EQ(output().find("-- attach"), std::string::npos) << output();

    Test_application app(unique_id("", 20));
    attach_registered(app, "GOOD");
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

TEST_F(Monitor, SegmentShrunkAfterAttachIsDetachedAndTheOthersCarryOn)
{
    leave_sigbus_to_the_monitor();
    start_monitor();
    Test_application shrinking(unique_id("shrinking", 20));
    Test_application steady(unique_id("steady", 20));
    attach_registered(shrinking, "SHRK");
    attach_registered(steady, "STDY");
    shrinking.release();
    steady.release();
    ASSERT_TRUE(shrinking.log(bytes_of(start(1, 4, 1), make_text(1, "before"), make_finish(1))));
    ASSERT_TRUE(wait_for("SHRK CTX  info    \"before\"\n")) << output();

    // The application cuts its segment to 100 bytes; from now on it leaves it alone.
    const int fd = ::shm_open(shrinking.name().c_str(), O_RDWR, 0);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::ftruncate(fd, 100), 0);
    ::close(fd);
    ASSERT_TRUE(
        wait_for("-- detach     SHRK " + shrinking.name() + " (access fault: its segment shrank below 166072 bytes)\n"))
        << output() << errors();

    ASSERT_TRUE(steady.log(bytes_of(start(2, 4, 1), make_text(2, "after"), make_finish(2))));
    EXPECT_TRUE(wait_for("STDY CTX  info    \"after\"\n")) << output();
    // A new application is still attached and served.
    Test_application next(unique_id("next", 20));
    attach_registered(next, "NEXT");
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
    const std::string channel = "/logferry-" + channel_identifier(identifier);
    segments_.push_back(channel);
    // The application logs without pause, also while and after its segment is cut to 0
    // bytes (its own accesses then fault: it ends by the signal, as a hostile one may).
    std::uint32_t key = 0;
    const int child = fork_application(
        identifier, "ZERO", [](Test_application&) {},
        [&key](Test_application& app) {
            app.log(bytes_of(start(key, 4, 1), make_text(key, "flowing"), make_finish(key)));
            ++key;
        });
    ASSERT_GT(child, 0);
    ASSERT_TRUE(wait_for("ZERO CTX  info    \"flowing\"\n")) << errors();
    const int fd = ::shm_open(channel.c_str(), O_RDWR, 0);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::ftruncate(fd, 0), 0);
    ::close(fd);
    EXPECT_TRUE(wait_for("-- detach     ZERO " + channel + " (access fault: its segment shrank below 166072 bytes)\n"))
        << errors();
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);

    expect_served("NEXT");
    EXPECT_EQ(stop_monitor(), 0);
    EXPECT_EQ(count_of(output(), "-- detach     ZERO"), 1U);
    EXPECT_EQ(errors(), "");
}

TEST_F(Monitor, ControlCharactersFromApplicationsAreEscaped)
{
    start_monitor();
    Test_application app(unique_id("", 20));
    segments_.push_back(app.name());
    ASSERT_TRUE(app.announce());
    ASSERT_TRUE(app.wait_attached());
    ASSERT_TRUE(app.send_priority(bytes_of(Logferry_register_app("A\n\x1b\\", "line\nbreak"))));
    ASSERT_TRUE(app.send_priority(bytes_of(Logferry_register_context(4, 1,
                                                                     "\x07"
                                                                     "C\r",
                                                                     "ctx\x1b"))));
    app.release();
    ASSERT_TRUE(app.log(bytes_of(start(1, 4, 1), make_text(1, "text\n-- forged\x1b[0m"), make_finish(1))));
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
    // The fallback under /tmp, where anyone may plant a link.
    runstate_.reset();
    runstate_.reset(new logferry_test::Runstate_dir(false));
    dir_ = runstate_->root();
    out_ = dir_ + "/monitor.out";
    err_ = dir_ + "/monitor.err";
    const std::string lock = logferry_test::FALLBACK_LOCK_FILE;
    const std::string target = dir_ + "/planted-target";
    // Another monitor that used the fallback removes it as it stops.
    struct stat status {};
    ASSERT_TRUE(wait_until([&] { return ::lstat(lock.c_str(), &status) != 0; })) << lock << " stays in place";
    ASSERT_EQ(::symlink(target.c_str(), lock.c_str()), 0);
    pid_ = launch({}, out_, err_);
    const int status_code = logferry_test::wait_child(pid_, milliseconds(10000));
    pid_ = -1;
    ::unlink(lock.c_str());
    ASSERT_TRUE(WIFEXITED(status_code));
    EXPECT_EQ(WEXITSTATUS(status_code), 1);
    EXPECT_EQ(errors(), "logferry-monitor: refusing the lock file " + lock + ": it is a symbolic link\n");
    EXPECT_FALSE(logferry_test::path_exists(target));
    EXPECT_FALSE(logferry_test::shm_exists(LISTENER_SEGMENT));

    // A directory in the lock file's place in a run-state directory.
    runstate_.reset();
    runstate_.reset(new logferry_test::Runstate_dir());
    dir_ = runstate_->root();
    out_ = dir_ + "/monitor.out";
    err_ = dir_ + "/monitor.err";
    ASSERT_EQ(::mkdir(runstate_->lock_file().c_str(), 0700), 0);
    pid_ = launch({}, out_, err_);
    const int second = logferry_test::wait_child(pid_, milliseconds(10000));
    pid_ = -1;
    ASSERT_TRUE(WIFEXITED(second));
    EXPECT_EQ(WEXITSTATUS(second), 1);
    EXPECT_EQ(errors(),
              "logferry-monitor: refusing the lock file " + runstate_->lock_file() + ": it is not a regular file\n");
    EXPECT_FALSE(logferry_test::shm_exists(LISTENER_SEGMENT));
}

TEST_F(Monitor, WhatTheMonitorCreatesIsMode0660UnderUmask022)
{
    const mode_t previous = ::umask(022);
    start_monitor({"--dlt-file", file("out.dlt")});
    ::umask(previous);
    struct stat lock {};
    ASSERT_EQ(::stat(lock_file_.c_str(), &lock), 0);
    EXPECT_EQ(lock.st_mode & 0777, 0660U);
    struct stat segment {};
    ASSERT_EQ(::stat((std::string("/dev/shm") + LISTENER_SEGMENT).c_str(), &segment), 0);
    EXPECT_EQ(segment.st_mode & 0777, 0660U);
    struct stat dlt {};
    ASSERT_EQ(::stat(file("out.dlt").c_str(), &dlt), 0);
    EXPECT_EQ(dlt.st_mode & 0777, 0660U);
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
    const logferry_test::Scoped_environment gcov_prefix("GCOV_PREFIX", dir_ + "/gcov");
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
    const std::string example_out = dir_ + "/example.out";
    const std::string example_err = dir_ + "/example.err";
    const int example = run_program("/bin/sh",
                                    {"-c",
                                     std::string("umask 0007 && exec setpriv --reuid=") +
                                         Group_users::APPLICATION_USER + " " + regid + " --clear-groups -- \"$0\"",
                                     LOGFERRY_EXAMPLE_PATH},
                                    example_out, example_err);
    const int status = logferry_test::wait_child(example, milliseconds(20000));
    const std::string printed = read_file(example_out);
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 0) << printed << read_file(example_err);
    // Both ways: the monitor's text reached the application, its messages the monitor.
    EXPECT_NE(printed.find("hello across users\n"), std::string::npos) << printed;
    ASSERT_TRUE(wait_for("-- detach")) << output();
    EXPECT_EQ(stop_monitor(), 0);
    const std::string text = output();
    EXPECT_NE(text.find("-- app        EXA \"logferry example application\""), std::string::npos) << text;
    EXPECT_NE(text.find(" EXA  MAIN info    "), std::string::npos) << text;
    EXPECT_EQ(text.find("-- refused"), std::string::npos) << text;
    EXPECT_EQ(errors(), "");
}

}  // namespace
