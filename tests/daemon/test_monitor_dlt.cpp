// logferry-monitor's DLT outputs: its DLT file (and the files applications ask for), its DLT
// port with the system's DLT tools as clients, the control requests of those clients, and
// clients that misbehave or come in a flood. The fixture is support/monitor_fixture.hpp.

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "dlt_control.hpp"
#include "dlt_tcp.hpp"
#include "support/monitor_fixture.hpp"

namespace {

using namespace logferry;
using namespace logferry_test;
using std::chrono::milliseconds;

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

    const int status = run_monitor_to_end({"--dlt-port", port});
    ::close(taken);
    EXPECT_EQ(status, 3);
    EXPECT_EQ(errors(), "logferry-monitor: the DLT port " + port +
                            " on 127.0.0.1 is taken, by another DLT daemon (such as dlt-daemon) or another "
                            "program; stop it or give this one another --dlt-port\n");
    EXPECT_EQ(output(), "");
    EXPECT_NE(::access(lock_file_.c_str(), F_OK), 0);
    EXPECT_FALSE(shm_exists(LISTENER_SEGMENT));
}

// The example under the monitor with a DLT file and a DLT port, dlt-receive connected: both
// files hold the same messages, byte for byte, and dlt-convert shows them as the expected
// transcript (tests/data/example.dlt.txt; LOGFERRY_REGENERATE=1 rewrites it).
TEST_F(Monitor, ExampleThroughDltFileAndPortMatchesTheTranscript)
{
    REQUIRE_DLT_TOOLS();
    const std::string stored = file("stored.dlt");
    const std::string received = file("received.dlt");
    const std::string port = start_monitor_on_any_dlt_port({"--level", "MAIN=debug", "--dlt-file", stored});
    ASSERT_FALSE(port.empty()) << output();
    const int receiver = start_dlt_receive(port, received);
    ASSERT_TRUE(wait_for("-- client ")) << output();
    const int example = start_program(LOGFERRY_EXAMPLE_PATH, "example");
    const Program_run run = finish_program(example, "example");
    ASSERT_TRUE(exited_cleanly(run.status)) << run.status;
    ASSERT_TRUE(wait_for("-- detach")) << output();
    // The example logs four messages: three through ara::log, one through the free functions.
    ASSERT_TRUE(wait_until([&] { return dlt_file_logs(received).size() == 4; })) << output();
    ::kill(receiver, SIGTERM);
    wait_child(receiver);
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
    EXPECT_EQ(transcript, read_text(expected_path));
}

// dlt-control sets a context's level; the application's is_log_level_enabled follows
// within a second.
TEST_F(Monitor, DltControlSetsTheLevelTheApplicationSees)
{
    REQUIRE_DLT_TOOLS();
    const std::string port = start_monitor_on_any_dlt_port();
    ASSERT_FALSE(port.empty()) << output();
    const std::string enabled_file = file("enabled");
    const int application = fork_child([&] {
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
    const int control = start_program(find_program("dlt-control"), "control",
                                      {"-p", port, "-l", "6", "-a", "CTL", "-c", "LEV", "127.0.0.1"});
    ASSERT_TRUE(wait_for("-- set-level  CTL LEV handle=1 level=verbose\n")) << output();
    EXPECT_TRUE(wait_until([&] { return path_exists(enabled_file); }, milliseconds(1000)));
    const int status = wait_child(application, milliseconds(20000));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    finish_program(control, "control");
    EXPECT_NE(output().find("-- client     set-log-level CTL LEV level=6: 1 context\n"), std::string::npos) << output();
    EXPECT_EQ(stop_monitor(), 0);
}

// A message of about 11 KB (an int32 and eight texts of 1389 bytes) at level info in the
// context of handle 1.
Bytes large_message(std::uint32_t n)
{
    const std::string filler(1389, 'x');
    Bytes bytes = bytes_of(start(n, 4, 1), int32(n, static_cast<std::int32_t>(n)));
    for (int i = 0; i < 8; ++i) {
        const Bytes part = bytes_of(make_text(n, filler));
        bytes.insert(bytes.end(), part.begin(), part.end());
    }
    const Bytes end = bytes_of(make_finish(n));
    bytes.insert(bytes.end(), end.begin(), end.end());
    return bytes;
}

std::size_t file_size(const std::string& path)
{
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 ? static_cast<std::size_t>(info.st_size) : std::size_t{0};
}

// Two applications at once, a viewer that connects mid-stream, a client that never reads
// and one that sends garbage: the file gets everything, the viewer everything from when it
// connected, and nothing stalls.
TEST_F(Monitor, DltClientsComeGoStallAndMisbehaveWhileTwoApplicationsLog)
{
    REQUIRE_DLT_TOOLS();
    const std::string stored = file("stored.dlt");
    const std::string received = file("received.dlt");
    const std::string port = start_monitor_on_any_dlt_port({"--dlt-file", stored});
    ASSERT_FALSE(port.empty()) << output();

    // A client that never reads.
    const int stalled = connect_dlt(port, 4096);
    ASSERT_GE(stalled, 0);

    Test_application one("DUA");
    Test_application two("DUB");
    ASSERT_TRUE(attach_registered(one, "DUA"));
    ASSERT_TRUE(attach_registered(two, "DUB"));
    one.release();
    two.release();

    // Messages large enough for the stalled client's backlog to overflow, paced by the DLT
    // file: each message of both is in it before the next ones go out (all messages have the
    // same size).
    std::size_t entry_size = 0;
    const auto log_both = [&](std::uint32_t first, std::uint32_t count) {
        for (std::uint32_t n = first; n < first + count; ++n) {
            for (Test_application* app : {&one, &two}) {
                app->stamp();
                EXPECT_TRUE(app->log(large_message(n)));
            }
            if (entry_size == 0) {
                ASSERT_TRUE(wait_until([&] { return dlt_file_logs(stored).size() == 2; }));
                entry_size = file_size(stored) / 2;
            }
            ASSERT_TRUE(wait_until([&] { return file_size(stored) >= 2 * (n + 1) * entry_size; })) << n;
        }
    };
    log_both(0, 10);

    // A viewer connects mid-stream; garbage arrives on another connection.
    const int receiver = start_dlt_receive(port, received);
    const int garbage = connect_dlt(port);
    ASSERT_GE(garbage, 0);
    const char junk[] = "GET / HTTP/1.0\r\n\r\nthis is not DLT at all, not even close";
    ASSERT_EQ(::write(garbage, junk, sizeof junk), static_cast<ssize_t>(sizeof junk));
    // The garbage sender is disconnected: its reads end.
    Bytes answered;
    EXPECT_TRUE(wait_until([&] { return !read_now(garbage, answered); }));
    ::close(garbage);
    // dlt-receive has connected when it got its first keep-alive.
    ASSERT_TRUE(wait_until([&] { return !split_dlt_file(read_file_bytes(received)).empty(); }));
    log_both(10, 600);
    ASSERT_TRUE(wait_until([&] { return dlt_file_logs(received).size() == 2 * 600; }))
        << dlt_file_logs(received).size();
    ::kill(receiver, SIGTERM);
    wait_child(receiver);

    const std::vector<Dlt_bytes> all = dlt_file_logs(stored);
    ASSERT_EQ(all.size(), 2U * 610U);
    // The viewer got exactly the messages from its connection on, in the same order.
    EXPECT_EQ(dlt_file_logs(received), std::vector<Dlt_bytes>(all.begin() + 2 * 10, all.end()));
    // Both applications, each in its own order.
    std::map<std::string, std::uint32_t> next;
    for (const Dlt_bytes& m : all) {
        ++next[dlt_app_id(m)];
    }
    EXPECT_EQ(next[std::string("DUA", 4)], 610U);
    EXPECT_EQ(next[std::string("DUB", 4)], 610U);
    // The client that never read was disconnected once its backlog was full: what it can
    // still read ends.
    Bytes backlog;
    EXPECT_TRUE(wait_until([&] { return !read_now(stalled, backlog); }, milliseconds(20000))) << backlog.size();
    EXPECT_LT(backlog.size(), all.size() * entry_size);
    ::close(stalled);
    EXPECT_EQ(stop_monitor(), 0);
}

// Application requests: a file of a plain name inside --app-file-dir (or an absolute path
// whose directory is exactly it) gets the application's messages; every other name is refused.
TEST_F(Monitor, ApplicationFileRequestsStayInsideTheDirectory)
{
    const std::string app_dir = file("files");
    ASSERT_EQ(::mkdir(app_dir.c_str(), 0700), 0);
    start_monitor({"--app-file-dir", app_dir});
    Test_application app("FIL");
    ASSERT_TRUE(attach_registered(app, "FIL"));
    const auto ask = [&](const std::string& name) { return app.send_priority(bytes_of(make_init_file(name))); };
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
    ASSERT_TRUE(app.log(info_int32(1, 41)));
    ASSERT_TRUE(wait_for("CTX  info    41\n")) << output();
    ASSERT_TRUE(ask(app_dir + "/absolute.dlt"));
    ASSERT_TRUE(app.log(info_int32(2, 42)));
    ASSERT_TRUE(wait_for("CTX  info    42\n")) << output();
    EXPECT_EQ(stop_monitor(), 0);

    EXPECT_EQ(count_of(output(), "-- refused    FIL init-file"), refused.size()) << output();
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
        read_now(client, stream);
        return dlt_logs(split_dlt_stream(stream));
    };
    // The first keep-alive: the monitor has taken the client on.
    ASSERT_TRUE(wait_until([&] { return read_client(), !stream.empty(); }));

    Test_application printing("LPA");
    Test_application local("DRB");
    ASSERT_TRUE(attach_registered(printing, "LPA"));
    ASSERT_TRUE(printing.send_priority(bytes_of(Logferry_enable_local_print())));
    ASSERT_TRUE(attach_registered(local, "DRB"));
    ASSERT_TRUE(local.send_priority(bytes_of(Logferry_disable_remote())));
    printing.release();
    local.release();
    ASSERT_TRUE(local.log(info_int32(1, 42)));
    ASSERT_TRUE(printing.log(info_int32(1, 41)));
    ASSERT_TRUE(wait_until([&] { return dlt_file_logs(stored).size() == 2; }));
    ASSERT_TRUE(wait_for("LPA  CTX  info    41\n")) << output();
    ASSERT_TRUE(wait_until([&] { return read_client().size() == 1; }));
    const std::vector<Dlt_bytes> file_messages = dlt_file_logs(stored);
    const std::vector<Dlt_bytes> sent = read_client();
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(dlt_app_id(sent[0]), std::string("LPA", 4));  // LPA's, not DRB's
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
    start_monitor({"--dlt-file", stored, "--dlt-file-limit", "1000"});
    Test_application app("ROT");
    ASSERT_TRUE(attach_registered(app, "ROT"));
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
        EXPECT_LE(read_file_bytes(path).size(), 1000U) << path;
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
    const std::string port = start_monitor_on_any_dlt_port();
    ASSERT_FALSE(port.empty()) << output();
    Test_application app("INF");
    ASSERT_TRUE(attach_registered(app, "INF", {{3, 7, "CTXA", "first context"}}, "informative"));
    const std::string info = run_dlt_control(port, {"-j"}).out;
    EXPECT_NE(info.find("APID:INF"), std::string::npos) << info;
    EXPECT_NE(info.find("informative"), std::string::npos) << info;
    EXPECT_NE(info.find("CTID:CTXA"), std::string::npos) << info;
    EXPECT_NE(info.find("first context"), std::string::npos) << info;
    const std::string version = run_dlt_control(port, {"-k"}).out;
    EXPECT_NE(version.find("logferry-monitor " LOGFERRY_VERSION_TEXT), std::string::npos) << version;
    run_dlt_control(port, {"-d", "2"});
    EXPECT_EQ(app.receive(), (Bytes{24, 2, 7, 0, 0, 0}));
    ASSERT_TRUE(wait_for("-- client     set-default-log-level level=2: 1 context\n")) << output();

    // Service 0x20 (not one the monitor offers), then a well-formed request the monitor answers.
    const int client = connect_dlt(port);
    ASSERT_GE(client, 0);
    const Dlt_bytes request = client_request({0x20, 0x00, 0x00, 0x00});
    ASSERT_EQ(::write(client, request.data(), request.size()), static_cast<ssize_t>(request.size()));
    Bytes stream;
    const Bytes expected_tail = {0x20, 0x00, 0x00, 0x00, 0x01};  // service, status "not supported"
    EXPECT_TRUE(wait_until([&] {
        read_now(client, stream);
        for (const Dlt_bytes& message : split_dlt_stream(stream)) {
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

// ---- A flood of connections ---------------------------------------------------------------

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
    const std::string text = read_text("/proc/" + std::to_string(pid) + "/stat");
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
    const auto began = std::chrono::steady_clock::now();
    wait_until([&] { return std::chrono::steady_clock::now() - began >= span; }, span + milliseconds(1000));
    const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
    return (cpu_seconds(pid) - before) / wall;
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
    ASSERT_TRUE(attach_registered(app, "FLD"));
    app.release();
    constexpr std::size_t MESSAGES = 100;
    for (std::uint32_t n = 0; n < MESSAGES; ++n) {
        ASSERT_TRUE(app.log(info_int32(n, static_cast<std::int32_t>(n))));
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
    const Dlt_bytes request = client_request({0x13, 0x00, 0x00, 0x00});
    ASSERT_EQ(::write(fresh, request.data(), request.size()), static_cast<ssize_t>(request.size()));
    const Dlt_bytes answer = logferry_dlt::software_version_response("LFER", "logferry-monitor " LOGFERRY_VERSION_TEXT);
    Bytes stream;
    EXPECT_TRUE(wait_until([&] {
        read_now(fresh, stream);
        const std::vector<Dlt_bytes> messages = split_dlt_stream(stream);
        return std::find(messages.begin(), messages.end(), answer) != messages.end();
    }));
    // The application still gets through.
    ASSERT_TRUE(app.log(bytes_of(start(MESSAGES, 4, 1), int32(MESSAGES, 7), make_finish(MESSAGES))));
    EXPECT_TRUE(wait_until([&] { return dlt_file_logs(stored).size() == MESSAGES + 1; }));
    app.close();
    EXPECT_EQ(stop_monitor(), 0);
}

}  // namespace
