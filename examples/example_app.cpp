// A small application on the ara::log front end: it brings logging up with InitLogging,
// creates two loggers, asks for a level before and after the daemon's level update, writes
// one message of every argument type and a few more, and ends; logging is taken down by
// itself at exit. It also shows the library's own free functions, the low-level interface
// underneath (one stream key per message, records added call by call).
//
// Run it under logferry-monitor (see scripts/demo.sh), for example with
//     logferry-monitor --level MAIN=debug --say "hello"
// and the monitor prints its registrations and messages; without a daemon it runs all the
// same and its records simply stay in its channel.

#include <ara/log/logging.h>
#include <logferry/logferry.hpp>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <thread>
#include <vector>

namespace {

using ara::log::LogLevel;

// Waits up to `limit` for the daemon to raise the logger's level to debug.
bool wait_for_debug(const ara::log::Logger& logger, std::chrono::milliseconds limit)
{
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!logger.IsEnabled(LogLevel::kDebug)) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

const char* yes_no(bool value) { return value ? "enabled" : "disabled"; }

// The low-level interface: a context with a handle of the application's choosing (registered
// up front, before any message, like the loggers' contexts) and one message written call by
// call, with an already encoded argument.
constexpr std::uint32_t LOW_LEVEL_CONTEXT = 1;
constexpr std::uint8_t INFO = static_cast<std::uint8_t>(LogLevel::kInfo);

void register_free_function_context()
{
    logferry::register_context(LOW_LEVEL_CONTEXT, "LOWL", "Free-function context", INFO);
}

void free_function_message()
{
    const std::uint32_t key = 100;
    if (logferry::is_log_level_enabled(LOW_LEVEL_CONTEXT, INFO) && logferry::log_start(LOW_LEVEL_CONTEXT, key, INFO)) {
        logferry::log_utf8_string(key, "from the free functions:");
        const std::vector<unsigned char> encoded = {0x01, 0x02, 0x03};
        const std::uint16_t encoded_length = 3;
        logferry::log_encoded_payload(key, encoded, encoded_length);
        logferry::log_finish(key);
    }
}

}  // namespace

int main()
{
    // Console mode: the daemon is asked to print this application's messages locally too.
    ara::log::InitLogging("EXA", "logferry example application", LogLevel::kInfo,
                          ara::log::LogMode::kRemote | ara::log::LogMode::kConsole);
    const ara::log::Logger& main_logger = ara::log::CreateLogger("MAIN", "Main context", LogLevel::kInfo);
    // Registered at info: debug is off until the daemon says otherwise.
    const bool before = main_logger.IsEnabled(LogLevel::kDebug);
    const ara::log::Logger& net_logger = ara::log::CreateLogger("NET", "Network context", LogLevel::kWarn);
    register_free_function_context();

    std::printf("example: debug for MAIN before the level update: %s\n", yes_no(before));
    const bool after = wait_for_debug(main_logger, std::chrono::milliseconds(5000));
    std::printf("example: debug for MAIN after the level update: %s\n", yes_no(after));
    std::fflush(stdout);

    // The free functions hand each message to the channel at once, while ara::log stages its
    // messages per thread and hands them over from a background thread: each interface keeps
    // its own order, so the free-function message comes first here, to be shown first.
    free_function_message();

    // One message with every argument type.
    const std::uint8_t raw[] = {0xDE, 0xAD, 0xBE, 0xEF};
    main_logger.LogInfo() << "every argument type:" << true << static_cast<std::int8_t>(-8)
                          << static_cast<std::int16_t>(-1600) << static_cast<std::int32_t>(-320000)
                          << static_cast<std::int64_t>(-6400000000LL) << static_cast<std::uint8_t>(200)
                          << ara::log::HexFormat(static_cast<std::uint16_t>(0xBEEF))
                          << ara::log::Arg(static_cast<std::uint32_t>(0755), {}, {}, ara::log::Oct())
                          << ara::log::BinFormat(static_cast<std::uint64_t>(0x5A)) << 1.5F << 3.141592653589793
                          << std::string("a view of a longer text", 9) << ara::log::RawBuffer(raw);

    // A debug message, sent only when the daemon has enabled debug for MAIN.
    main_logger.LogDebug() << "debug is on";

    // NET stays at warn: the info message costs one level test, the warning goes out.
    net_logger.LogInfo() << "never sent";
    net_logger.LogWarn() << "link down, retrying" << static_cast<std::uint16_t>(3);

    std::printf("example: done\n");
    return 0;
}
