// An application built against the installed packages and run under the installed
// logferry-monitor (scripts/package.sh): it registers itself and one context, waits for the
// monitor's level update to reach that context, and logs one message that the monitor must
// show. The first argument is its application ID. Compiled as C++14.
#include <logferry/logferry.hpp>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <thread>

namespace {

constexpr std::uint32_t MAIN_CONTEXT = 1;
constexpr std::uint32_t STREAM = 1;

std::uint8_t level(ara::log::LogLevel value) { return static_cast<std::uint8_t>(value); }

// Waits up to five seconds for the monitor (run with --level MAIN=debug) to enable debug.
bool wait_for_daemon()
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!logferry::is_log_level_enabled(MAIN_CONTEXT, level(ara::log::LogLevel::kDebug))) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

}  // namespace

int main(int argc, char** argv)
{
    const char* const app_id = argc > 1 ? argv[1] : "PKG";
    logferry::set_app_identifier(app_id);
    logferry::init();
    logferry::register_app(app_id, "installed package consumer");
    logferry::register_context(MAIN_CONTEXT, "MAIN", "Main context", level(ara::log::LogLevel::kInfo));
    if (!wait_for_daemon()) {
        std::printf("%s: no level update from the daemon\n", app_id);
        logferry::exit();
        return 1;
    }
    const bool started = logferry::log_start(MAIN_CONTEXT, STREAM, level(ara::log::LogLevel::kInfo));
    if (started) {
        logferry::log_utf8_string(STREAM, "hello from the installed library");
        logferry::log_int32(STREAM, 42);
        logferry::log_finish(STREAM);
    }
    logferry::exit();
    std::printf("%s: %s\n", app_id, started ? "logged" : "log_start refused");
    return started ? 0 : 1;
}
