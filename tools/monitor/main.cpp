// logferry-monitor: command line, signals and exit status.

#include <signal.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <string>

#include "monitor.hpp"
#include "render.hpp"

namespace {

volatile std::sig_atomic_t stop_requested = 0;

extern "C" void request_stop(int) { stop_requested = 1; }

const char usage[] =
    "usage: logferry-monitor [options]\n"
    "\n"
    "Takes the log daemon's role for logferry applications: announced channels are\n"
    "attached, and every registration, control request and log message is printed as\n"
    "one line on standard output. Stops on SIGINT or SIGTERM, removing the listener\n"
    "segment and its lock file.\n"
    "\n"
    "options:\n"
    "  --level CTX=LEVEL  send LEVEL (off, fatal, error, warn, info, debug, verbose or\n"
    "                     0-6) to every context registered with the ID CTX\n"
    "  --say TEXT         send TEXT and a line end to every application once attached\n"
    "  --count N          stop after N log messages\n"
    "  --duration S       stop after S seconds\n"
    "  --help             show this text\n"
    "\n"
    "The lock file is $ADAPTIVE_RUNSTATE_DIR/ara_DLT/logferry-daemon-listener.lock, or\n"
    "/tmp/logferry-daemon-listener.lock when that directory does not exist.\n";

int usage_error(const std::string& text)
{
    std::cerr << "logferry-monitor: " << text << "\n" << usage;
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

}  // namespace

int main(int argc, char** argv)
{
    logferry_monitor::Options options;
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
            std::cout << usage;
            return 0;
        }
        if (option != "--level" && option != "--say" && option != "--count" && option != "--duration") {
            return usage_error("unknown option " + option);
        }
        if (!inline_value) {
            if (i + 1 >= argc) {
                return usage_error(option + " needs a value");
            }
            value = argv[++i];
        }
        if (option == "--level") {
            const auto split = value.find('=');
            std::uint8_t level = 0;
            if (split == std::string::npos || split == 0 || split > 4 ||
                !logferry_monitor::parse_level(value.substr(split + 1), level)) {
                return usage_error(
                    "--level wants CTX=LEVEL (a context ID of 1 to 4 characters, a level name or 0-6), not " + value);
            }
            options.levels.emplace_back(value.substr(0, split), level);
        } else if (option == "--say") {
            options.texts.push_back(value);
        } else if (option == "--count") {
            if (!parse_count(value, options.max_messages)) {
                return usage_error("--count wants a positive number, not " + value);
            }
        } else if (!parse_seconds(value, options.max_seconds)) {
            return usage_error("--duration wants a positive number of seconds, not " + value);
        }
    }

    struct sigaction action {};
    action.sa_handler = request_stop;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);

    logferry_monitor::Monitor monitor(options);
    if (!monitor.start()) {
        return 1;
    }
    monitor.run(stop_requested);
    monitor.shutdown("signal");
    return 0;
}
