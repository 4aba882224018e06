// logferry-monitor: command line, signals and exit status.

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <string>

#include "dlt_layout.hpp"
#include "monitor.hpp"
#include "render.hpp"
#include "tuning.hpp"

namespace {

volatile std::sig_atomic_t stop_requested = 0;

// The exit status when the DLT port cannot be had (another DLT daemon serves it, for example):
// the service does not restart on it (RestartPreventExitStatus in logferry-monitor.service).
constexpr int EXIT_DLT_PORT = 3;

// The most DLT clients --dlt-max-clients accepts (the descriptor limit may lower it further).
constexpr std::uint64_t MAX_DLT_CLIENTS = 65536;

extern "C" void request_stop(int) { stop_requested = 1; }

// The usage text, with the numbers of the DLT client limit drawn from the server's constants.
std::string usage_text()
{
    using logferry_dlt::Tcp_server;
    return "usage: logferry-monitor [options]\n"
           "\n"
           "Takes the log daemon's role for logferry applications: announced channels are\n"
           "attached, and every registration, control request and log message is printed as\n"
           "one line on standard output, and forwarded as a DLT (version 1, verbose) message\n"
           "to a DLT file and to DLT clients on TCP when asked. Stops on SIGINT or SIGTERM,\n"
           "removing the listener segment and its lock file.\n"
           "\n"
           "options:\n"
           "  --level CTX=LEVEL  send LEVEL (off, fatal, error, warn, info, debug, verbose or\n"
           "                     0-6) to every context registered with the ID CTX\n"
           "  --say TEXT         send TEXT and a line end to every application once attached\n"
           "  --count N          stop after N log messages\n"
           "  --duration S       stop after S seconds\n"
           "  --quiet            no text output, except the messages of applications that\n"
           "                     asked for local printing\n"
           "  --dlt-file PATH    append every message to the DLT storage file PATH\n"
           "  --dlt-file-limit BYTES\n"
           "                     rotate the DLT file before it grows past BYTES: PATH is\n"
           "                     renamed PATH.1 (PATH.1 to PATH.2, ...), keeping PATH and\n"
           "                     PATH.1 to PATH.9; no message is split between two files\n"
           "  --dlt-port PORT    serve DLT clients on TCP port PORT (conventionally 3490; 0\n"
           "                     picks a free port, which is printed); each client receives\n"
           "                     every message from when it connects, a keep-alive every\n"
           "                     second, and answers to its control requests\n"
           "  --dlt-bind ADDR    the address of the DLT port (default 127.0.0.1)\n"
           "  --dlt-max-clients N\n"
           "                     serve at most N DLT clients at once (default " +
           std::to_string(Tcp_server::DEFAULT_MAX_CLIENTS) +
           "; fewer when\n"
           "                     the limit of open files leaves less than " +
           std::to_string(Tcp_server::DESCRIPTORS_KEPT) +
           " descriptors\n"
           "                     besides them); further connections are closed at once\n"
           "  --ecu ID           the ECU ID of the DLT messages, 1 to 4 characters (default LFER)\n"
           "  --app-file-dir DIR an application's request to log to a file writes its\n"
           "                     messages as DLT to that file inside DIR (a plain name of at\n"
           "                     most 64 printable characters, or DIR/name); without DIR such\n"
           "                     requests are refused\n"
           "  --help             show this text\n"
           "\n"
           "The lock file is $ADAPTIVE_RUNSTATE_DIR/ara_DLT/logferry-daemon-listener.lock, or\n"
           "/tmp/logferry-daemon-listener.lock when that directory does not exist; the monitor\n"
           "refuses to start when that path is a symbolic link or not a regular file.\n";
}

int usage_error(const std::string& text)
{
    std::cerr << "logferry-monitor: " << text << "\n" << usage_text();
    return 2;
}

bool parse_count(const std::string& text, std::uint64_t& value)
{
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    errno = 0;
    char* end = nullptr;
    value = std::strtoull(text.c_str(), &end, 10);
    return errno == 0 && *end == '\0' && value > 0;
}

bool parse_seconds(const std::string& text, double& value)
{
    if (text.empty()) {
        return false;
    }
    errno = 0;
    char* end = nullptr;
    value = std::strtod(text.c_str(), &end);
    return errno == 0 && *end == '\0' && value > 0.0 && value < 1e9;
}

// Applies the value of one of the DLT options; empty, or what is wrong with the value.
std::string apply_dlt_option(const std::string& option, const std::string& value, logferry_monitor::Options& options)
{
    std::uint64_t number = 0;
    if (option == "--dlt-file") {
        if (value.empty()) {
            return "--dlt-file wants a path";
        }
        options.dlt_file = value;
    } else if (option == "--dlt-file-limit") {
        if (!parse_count(value, options.dlt_file_limit)) {
            return "--dlt-file-limit wants a positive number of bytes, not " + value;
        }
    } else if (option == "--dlt-port") {
        if (!(value == "0" || parse_count(value, number)) || number > 65535) {
            return "--dlt-port wants a port number (0 to 65535), not " + value;
        }
        options.dlt_tcp = true;
        options.dlt_port = static_cast<std::uint16_t>(number);
    } else if (option == "--dlt-bind") {
        options.dlt_bind = value;
    } else if (option == "--dlt-max-clients") {
        if (!parse_count(value, number) || number > MAX_DLT_CLIENTS) {
            return "--dlt-max-clients wants a number from 1 to " + std::to_string(MAX_DLT_CLIENTS) + ", not " + value;
        }
        options.dlt_max_clients = static_cast<std::size_t>(number);
    } else if (option == "--ecu") {
        if (value.empty() || value.size() > logferry_dlt::layout::ECU_SIZE) {
            return "--ecu wants an ID of 1 to 4 characters, not " + value;
        }
        options.ecu = value;
    } else if (value.empty()) {  // --app-file-dir
        return "--app-file-dir wants a directory";
    } else {
        options.app_file_dir = value.size() > 1 && value.back() == '/' ? value.substr(0, value.size() - 1) : value;
    }
    return {};
}

// Applies the value of one of the collector's options; empty, or what is wrong with the value.
std::string apply_collector_option(const std::string& option, const std::string& value,
                                   logferry_monitor::Options& options)
{
    if (option == "--level") {
        const auto split = value.find('=');
        std::uint8_t level = 0;
        if (split == std::string::npos || split == 0 || split > logferry_dlt::layout::ID_SIZE ||
            !logferry_monitor::parse_level(value.substr(split + 1), level)) {
            return "--level wants CTX=LEVEL (a context ID of 1 to 4 characters, a level name or 0-6), not " + value;
        }
        options.levels.emplace_back(value.substr(0, split), level);
    } else if (option == "--say") {
        options.texts.push_back(value);
    } else if (option == "--count") {
        if (!parse_count(value, options.max_messages)) {
            return "--count wants a positive number, not " + value;
        }
    } else if (!parse_seconds(value, options.max_seconds)) {  // --duration
        return "--duration wants a positive number of seconds, not " + value;
    }
    return {};
}

bool is_collector_option(const std::string& option)
{
    return option == "--level" || option == "--say" || option == "--count" || option == "--duration";
}

bool is_dlt_option(const std::string& option)
{
    return option == "--dlt-file" || option == "--dlt-file-limit" || option == "--dlt-port" || option == "--dlt-bind" ||
           option == "--dlt-max-clients" || option == "--ecu" || option == "--app-file-dir";
}

// Reads the command line into `options`. Returns the exit status when the monitor is to end
// at once (after --help, or with a usage error), nothing when it is to run.
std::optional<int> parse_command_line(int argc, char** argv, logferry_monitor::Options& options)
{
    for (int i = 1; i < argc; ++i) {
        std::string option = argv[i];
        std::string value;
        const auto equals = option.find('=');
        const bool inline_value = option.rfind("--", 0) == 0 && equals != std::string::npos;
        if (inline_value) {
            value = option.substr(equals + 1);
            option = option.substr(0, equals);
        }
        if (option == "--help" || option == "-h") {
            std::cout << usage_text();
            return 0;
        }
        if (option == "--quiet") {
            options.quiet = true;
            continue;
        }
        if (!is_collector_option(option) && !is_dlt_option(option)) {
            return usage_error("unknown option " + option);
        }
        if (!inline_value) {
            if (i + 1 >= argc) {
                return usage_error(option + " needs a value");
            }
            value = argv[++i];
        }
        const std::string problem = is_dlt_option(option) ? apply_dlt_option(option, value, options)
                                                          : apply_collector_option(option, value, options);
        if (!problem.empty()) {
            return usage_error(problem);
        }
    }
    return std::nullopt;
}

// Sets the process up before any thread starts (threads inherit all of it).
void prepare_process()
{
    // What the monitor creates (lock file, listener segment, DLT files) is for its group:
    // mode 0660 whatever umask it was started with.
    ::umask(0007);
    // Never lowers a priority already higher; refused quietly where not permitted.
    errno = 0;
    const int nice_value = ::getpriority(PRIO_PROCESS, 0);
    if (errno == 0 && nice_value > logferry_tuning::MONITOR_NICE) {
        (void)::setpriority(PRIO_PROCESS, 0, logferry_tuning::MONITOR_NICE);
    }

    struct sigaction action {};
    action.sa_handler = request_stop;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

}  // namespace

int main(int argc, char** argv)
{
    logferry_monitor::Options options;
    options.version = "logferry-monitor " LOGFERRY_VERSION;
    if (const std::optional<int> status = parse_command_line(argc, argv, options)) {
        return *status;
    }
    prepare_process();

    logferry_monitor::Monitor monitor(options);
    if (!monitor.start()) {
        return monitor.dlt_port_failed() ? EXIT_DLT_PORT : 1;
    }
    monitor.run(stop_requested);
    monitor.shutdown("signal");
    return 0;
}
