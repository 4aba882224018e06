#ifndef LOGFERRY_TEST_MONITOR_FIXTURE_HPP
#define LOGFERRY_TEST_MONITOR_FIXTURE_HPP

// The tests of logferry-monitor (tests/daemon/test_monitor*.cpp) run the monitor as a child
// process and drive application ends by hand against it: a channel created with
// Logferry_client and announced through an application-side listener, fed with serialized
// records exactly as the front end would feed it. Real programs (the example, the ara::log
// compatibility applications, the DLT tools) run under it as further children.
//
// This file holds what those tests share: the records of a message, the hand-driven
// application (Test_application), the fixture that starts and stops the monitor (Monitor),
// and the reading of what the monitor wrote as text and as DLT. Every program that includes
// it is built with LOGFERRY_MONITOR_PATH, LOGFERRY_EXAMPLE_PATH and the other paths below
// defined (tests/CMakeLists.txt).

#include <signal.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

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

namespace logferry_test {

// ---- The records of an application's messages ------------------------------------------

// The monotonic clock in 0.1 ms units, as the front end stamps its start records.
std::uint32_t now_stamp();

logferry::Logferry_write_start start(std::uint32_t key, std::uint8_t level, std::uint32_t handle,
                                     std::uint32_t timestamp = now_stamp());

inline logferry::Logferry_write_int32 int32(std::uint32_t key, std::int32_t value)
{
    return make_value<logferry::Logferry_write_int32>(key, value);
}

// A whole message at level info in the context of handle 1 (the one attach_registered
// registers) with one argument: a text, or a 32-bit integer.
Bytes info_text(std::uint32_t key, const std::string& text);
Bytes info_int32(std::uint32_t key, std::int32_t value);

// ---- The monitor's text ------------------------------------------------------------------

// Replaces the timestamp column of every log line by "<ts>".
std::string mask_timestamps(const std::string& transcript);
std::vector<std::string> split_lines(const std::string& text);
// How often `needle` occurs in `text`.
std::size_t count_of(const std::string& text, const std::string& needle);
// The whole content of a file ("" when there is none).
std::string read_text(const std::string& path);

// The identifier a channel of `name` gets: the form the front end gives it (ID, "-", up to
// five digits, "-", lowercase hex), derived from `name` alone so that a parent and the child
// it forks agree, and distinct for distinct names.
std::string channel_identifier(const std::string& name);
/// The channel name of the identifier `channel_identifier(name)`.
std::string channel_name(const std::string& name);

// ---- An application's end of a channel, driven by hand -----------------------------------

// A context an application registers: its level, handle, ID and description.
struct Context_registration {
    std::uint8_t level;
    std::uint32_t handle;
    std::string id;
    std::string description;
};

// It stamps its watchdog whenever it waits, as the front end's receiver thread does about
// once a second.
class Test_application {
public:
    // The channel's identifier derives from `identifier` (by default one unique to the test).
    explicit Test_application(const std::string& identifier = unique_id("", 20));

    // Creates the channel and announces it in the monitor's listener list.
    bool announce();
    // Waits for the monitor to attach, then withdraws the announcement.
    bool wait_attached(std::chrono::milliseconds timeout = std::chrono::milliseconds(10000));
    // Waits for the monitor to attach and leaves the announcement standing, as a program
    // does that ends before its library has seen the attachment.
    bool wait_attached_announced(std::chrono::milliseconds timeout = std::chrono::milliseconds(10000));
    // Announces the channel in listener entry `slot`, which must be free: the list's next
    // entry to fill is set to it first, as earlier announcements could have left it.
    bool announce_in(std::uint8_t slot);
    // Withdraws the announcement, as the library does once it has seen the attachment.
    bool withdraw();
    // The listener entry it announced in (or last announced in), as it stands now.
    logferry::Listener_entry entry();
    int entry_index() const;

    // Places one registration or control record and waits until the monitor took it.
    bool send_priority(const Bytes& bytes);
    // Registers the application as `id`, then its contexts, one record after the other.
    bool register_as(const std::string& id, const std::string& description,
                     const std::vector<Context_registration>& contexts = {});
    // Places one registration or control record without waiting for the monitor.
    bool place_priority(const Bytes& bytes);
    // The mutex of the application's ring, which the monitor takes to read it.
    pthread_mutex_t* ring_mutex();
    // Whether a thread (the monitor's) sleeps waiting for that mutex: the C library marks the
    // lock word when a locker goes to sleep on it (its first field, with the futex's waiters
    // bit).
    bool ring_has_waiters();

    void release();
    bool log(const Bytes& bytes);
    // The next message from the monitor, or nothing after `timeout`.
    Bytes receive(std::chrono::milliseconds timeout = std::chrono::milliseconds(5000));

    void stamp();
    bool connected();
    void close();
    const std::string& name() const;

private:
    bool attached_within(std::chrono::milliseconds timeout);

    logferry::Logferry_client channel_;
    logferry::Logferry_listener listener_;
};

// ---- The monitor, its DLT outputs and the programs run under it ---------------------------

// A program run to its end: its wait status and what it wrote.
struct Program_run {
    int status = -1;
    std::string out;
    std::string err;
};

// One application run under a monitor of its own (Monitor::monitor_run).
struct Monitor_run {
    Program_run application;
    std::string transcript;  // what the monitor printed, up to its stop
};

// Environment variables added for a program.
using Environment = std::vector<std::pair<std::string, std::string>>;

class Monitor : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Runs the monitor with `arguments`, its output going to `out` and `err`; `in_child` (if
    // any) runs in the child before the program starts.
    static int launch(const std::vector<std::string>& arguments, const std::string& out, const std::string& err,
                      const std::function<bool()>& in_child = nullptr);
    // The child exits with 126 when `in_child` returns false, with 127 when the program cannot
    // be started.
    static int run_program(const std::string& path, const std::vector<std::string>& arguments, const std::string& out,
                           const std::string& err, const std::function<bool()>& in_child = nullptr);

    // Starts the monitor and waits until it holds the listener (until `ready` is printed).
    void start_monitor(const std::vector<std::string>& arguments = {}, const std::string& ready = "-- listening",
                       const std::function<bool()>& in_child = nullptr);
    // start_monitor with --dlt-port 0 after `arguments`: the port it printed ("" when none).
    std::string start_monitor_on_any_dlt_port(std::vector<std::string> arguments = {});
    // Sends `signal` and returns the monitor's wait status (-1 when it did not end).
    int stop_monitor(int signal = SIGTERM);
    // Waits up to 10 s for the running monitor to end by itself: its exit code, -1 when it
    // did not exit.
    int monitor_exit_code();
    // Runs the monitor with `arguments` to its end, as a program that refuses to start or
    // only prints something: its exit code, -1 when it did not exit within 10 s.
    int run_monitor_to_end(const std::vector<std::string>& arguments);

    std::string output() const { return read_text(out_); }
    std::string errors() const { return read_text(err_); }
    bool wait_for(const std::string& needle,
                  std::chrono::milliseconds timeout = std::chrono::milliseconds(10000)) const;
    // A file in the test's directory (removed with it).
    std::string file(const std::string& name) const { return dir_ + "/" + name; }
    // The port the monitor printed for --dlt-port 0.
    std::string dlt_port() const;

    // Announces `app` and waits until the monitor attached it (its segment is removed when
    // the test ends in any case); `app` then withdraws its announcement as the library does.
    ::testing::AssertionResult attach(Test_application& app);
    // The same, but the announcement is left standing, as by a program that ends before its
    // library has seen the attachment.
    ::testing::AssertionResult attach_announced(Test_application& app);
    // attach, then registers `app` under `id` (with `description`) and its `contexts`, by
    // default the context CTX (handle 1, level info).
    ::testing::AssertionResult attach_registered(Test_application& app, const std::string& id,
                                                 const std::vector<Context_registration>& contexts = {{4, 1, "CTX",
                                                                                                       ""}},
                                                 const std::string& description = "");
    // Forks an application that announces channel `identifier`, registers as `id` (context
    // CTX, handle 1), opens its ring and runs `prepare`; once it says it is ready it runs
    // `live` until it is killed. Returns its process id once it is ready, -1 on failure.
    static int fork_application(const std::string& identifier, const char* id,
                                const std::function<void(Test_application&)>& prepare,
                                const std::function<void(Test_application&)>& live);
    // attach_registered with the default context, then the ring released (as the library
    // does once its registrations are read): `app` logs from here on.
    ::testing::AssertionResult attach_released(Test_application& app, const std::string& id);
    // `app`, registered as `id`, logs `text` (key `key`, context CTX) and the monitor shows it.
    ::testing::AssertionResult log_shown(Test_application& app, const std::string& id, std::int32_t key,
                                         const std::string& text);
    // A new application registered as `id` is attached and its message shown; it closes.
    void expect_served(const char* id);

    // Starts the program at `path` with its output in the test's files `name`.out and
    // `name`.err; `environment` is added to its own.
    int start_program(const std::string& path, const std::string& name, const std::vector<std::string>& arguments = {},
                      const Environment& environment = {});
    // Waits up to 20 s for a program start_program started, and takes what it wrote.
    Program_run finish_program(int pid, const std::string& name);
    // A run of one application under a monitor of its own: starts the monitor with `options`,
    // runs the program at `path` to its end and expects it to end with status 0 and an empty
    // standard error, waits until the monitor detached it, stops the monitor and expects it to
    // end with status 0 and without a word on its standard error.
    Monitor_run monitor_run(const std::vector<std::string>& options, const std::string& path,
                            const Environment& environment = {});

    // dlt-receive connected to `port` on the loopback interface, storing what it gets in
    // `path`: its process id.
    int start_dlt_receive(const std::string& port, const std::string& path);
    // dlt-control with `arguments` against `port` on the loopback interface, run to its end
    // (at most 20 s).
    Program_run run_dlt_control(const std::string& port, const std::vector<std::string>& arguments);

    std::unique_ptr<Runstate_dir> runstate_;
    std::string dir_;
    std::string lock_file_;
    std::string out_;
    std::string err_;
    int pid_ = -1;
    int second_pid_ = -1;
    std::vector<std::string> segments_;  // channel segments to remove in any case

private:
    ::testing::AssertionResult announce_and_wait(Test_application& app, bool withdraw);
};

// ---- DLT messages as the monitor writes them, and the DLT tools --------------------------

// Bytes of a DLT standard header: 4, plus ECU ID, session ID and timestamp when present.
std::size_t dlt_header_size(const Dlt_bytes& message);
std::uint32_t dlt_session_id(const Dlt_bytes& message);
// The application ID of a message with an extended header.
std::string dlt_app_id(const Dlt_bytes& message);
// The log messages (extended header present, message type 0), not control messages.
std::vector<Dlt_bytes> dlt_logs(const std::vector<Dlt_bytes>& messages);
std::vector<Dlt_bytes> dlt_file_logs(const std::string& path, bool* complete = nullptr);
// dlt-convert -a of a file, log messages only, with the line number, the reception time and
// the time stamp masked.
std::string dlt_convert(const std::string& path);
bool have_dlt_tools();

#define REQUIRE_DLT_TOOLS()                                                                    \
    if (!logferry_test::have_dlt_tools()) {                                                    \
        GTEST_SKIP() << "dlt-tools (dlt-receive, dlt-convert, dlt-control) is not installed; " \
                        "scripts/install-deps.sh installs it";                                 \
    }

// A TCP connection to the monitor's DLT port on the loopback interface, -1 on failure.
int connect_dlt(const std::string& port, int receive_buffer = 0);
// Everything readable on `fd` now, appended to `into`; false once the peer closed.
bool read_now(int fd, Bytes& into);

}  // namespace logferry_test

#endif
