// Two logferry-monitors as two ECUs behind Debian's dlt-daemon as a DLT gateway, the
// deployment docs/monitor.md describes. The fixture is support/monitor_fixture.hpp.

#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "dlt_control.hpp"
#include "support/monitor_fixture.hpp"

namespace {

using namespace logferry_test;
using std::chrono::milliseconds;

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
    for (const Dlt_bytes& m : split_dlt_file(read_file_bytes(path))) {
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
    const std::string daemon = find_program("dlt-daemon");
    if (daemon.empty()) {
        GTEST_SKIP() << "Debian's dlt-daemon is not installed (package dlt-daemon; scripts/install-deps.sh "
                        "installs it)";
    }
    const std::string probe_dir = file("probe");
    ASSERT_EQ(::mkdir(probe_dir.c_str(), 0700), 0);
    const int probe = fork_child([&] { return ecu_shared_memory(probe_dir) ? 0 : 1; });
    if (!exited_cleanly(wait_child(probe))) {
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
        ASSERT_TRUE(wait_until([&] { return read_text(ecu.out).find("-- dlt-port   ") != std::string::npos; }))
            << read_text(ecu.out) << read_text(file("monitor-" + ecu.id + ".err"));
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
            if (read_text(ecu.out).find("-- client     DLT client 1 connected from 127.0.0.1:") == std::string::npos) {
                return false;
            }
        }
        return true;
    });
    if (::kill(gateway, 0) != 0) {
        children.pids.erase(std::find(children.pids.begin(), children.pids.end(), gateway));
        GTEST_SKIP() << "dlt-daemon did not start (status " << gateway_status << "): " << read_text(gateway_log);
    }
    ASSERT_TRUE(connected) << read_text(gateway_log);
    const std::string received = file("received.dlt");
    children.add(start_dlt_receive("3490", received));

    // The gateway asked each ECU for its log info as it connected, before any application:
    // both answers arrive, unchanged, and the gateway parsed them.
    for (const Ecu& ecu : ecus) {
        std::vector<Dlt_bytes> answers;
        ASSERT_TRUE(wait_until([&] { return !(answers = control_responses(received, ecu.id, 0x03)).empty(); }))
            << ecu.id << "\n"
            << read_text(gateway_log);
        EXPECT_EQ(answers[0], logferry_dlt::get_log_info_response(ecu.id.c_str(), {})) << ecu.id;
    }
    EXPECT_EQ(read_text(gateway_log).find("Parsing GET_LOG_INFO"), std::string::npos) << read_text(gateway_log);
    EXPECT_EQ(read_text(gateway_log).find("not complete"), std::string::npos) << read_text(gateway_log);

    // The same application in both ECUs: it logs "hello", then "verbose is on" once its context
    // LEV is raised to verbose, and ends when told; its exit status says whether it was raised.
    const std::string stop = file("stop");
    for (Ecu& ecu : ecus) {
        const std::string dir = ecu.dir;
        const std::string description = "application on " + ecu.id;
        const std::string shm = ecu.shm();
        ecu.application = children.add(fork_child([dir, shm, description, stop] {
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
                    return raised || path_exists(stop);
                },
                milliseconds(30000));
            if (raised && !say(2, 6, "verbose is on")) {
                return 23;
            }
            wait_until([&] { return path_exists(stop); }, milliseconds(30000));
            logferry::exit();
            return raised ? 10 : 11;
        }));
    }
    for (const Ecu& ecu : ecus) {
        ASSERT_TRUE(wait_until([&] {
            return read_text(ecu.out).find("-- context    GWT LEV handle=1 level=info \"level context\"\n") !=
                   std::string::npos;
        })) << read_text(ecu.out)
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
    const auto control_run = [&](const std::vector<std::string>& arguments) {
        const Program_run control = run_dlt_control("3490", arguments);
        EXPECT_TRUE(exited_cleanly(control.status));
        return control.out;
    };
    control_run({"-e", "ECUA", "-a", "GWT", "-c", "LEV", "-l", "6"});
    ASSERT_TRUE(wait_until([&] { return logs_from("ECUA").size() == 2; })) << dlt_convert(received);
    EXPECT_EQ(logs_from("ECUA"),
              (std::vector<std::string>{hello("ECUA"),
                                        "<n> <time> <ts> 001 ECUA GWT- LEV- log verbose V 1 [verbose is on]"}));
    EXPECT_EQ(logs_from("ECUB"), std::vector<std::string>{hello("ECUB")});
    EXPECT_NE(read_text(ecus[0].out).find("-- set-level  GWT LEV handle=1 level=verbose\n"), std::string::npos);
    EXPECT_NE(read_text(ecus[0].out).find("-- client     set-log-level GWT LEV level=6: 1 context\n"),
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
        const int status = wait_child(ecu.application, milliseconds(20000));
        EXPECT_TRUE(WIFEXITED(status)) << status;
        EXPECT_EQ(WEXITSTATUS(status), ecu.id == "ECUA" ? 10 : 11) << ecu.id;  // raised in ECUA only
    }
    EXPECT_EQ(read_text(ecus[1].out).find("set-level"), std::string::npos) << read_text(ecus[1].out);
    EXPECT_EQ(read_text(ecus[1].out).find("set-log-level"), std::string::npos) << read_text(ecus[1].out);
    EXPECT_EQ(read_text(gateway_log).find("Parsing GET_LOG_INFO"), std::string::npos) << read_text(gateway_log);
    for (const Ecu& ecu : ecus) {
        ::kill(ecu.monitor, SIGTERM);
        const int status = wait_child(ecu.monitor, milliseconds(10000));
        EXPECT_TRUE(exited_cleanly(status)) << ecu.id << " " << status;
    }
}

}  // namespace
