// A small application on liblogferry: it names and registers itself with two contexts,
// asks for a level before and after the daemon's level update, sends a control request,
// writes one message of every argument type and ends cleanly.
//
// Run it under logferry-monitor (see scripts/demo.sh), for example with
//     logferry-monitor --level MAIN=debug --say "hello"
// and the monitor prints its registrations and messages; without a daemon it runs all the
// same and its records simply stay in its channel.

#include <logferry/logferry.hpp>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <thread>
#include <vector>

namespace {

constexpr std::uint32_t MAIN_CONTEXT = 1;
constexpr std::uint32_t NET_CONTEXT = 2;

constexpr std::uint8_t level(ara::log::LogLevel value) { return static_cast<std::uint8_t>(value); }

// Waits up to `limit` for the daemon to raise MAIN's level to debug.
bool wait_for_debug(std::chrono::milliseconds limit)
{
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!logferry::is_log_level_enabled(MAIN_CONTEXT, level(ara::log::LogLevel::kDebug))) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

const char* yes_no(bool value) { return value ? "enabled" : "disabled"; }

}  // namespace

int main()
{
    logferry::set_app_identifier("EXA");
    logferry::init();

    logferry::register_app("EXA", "logferry example application");
    logferry::register_context(MAIN_CONTEXT, "MAIN", "Main context", level(ara::log::LogLevel::kInfo));
    // Registered at info: debug is off until the daemon says otherwise.
    const bool before = logferry::is_log_level_enabled(MAIN_CONTEXT, level(ara::log::LogLevel::kDebug));
    logferry::register_context(NET_CONTEXT, "NET", "Network context", level(ara::log::LogLevel::kWarn));

    // A control request travels ahead of the ordinary messages, like the registrations.
    logferry::enable_local_print();

    std::printf("example: debug for MAIN before the level update: %s\n", yes_no(before));
    const bool after = wait_for_debug(std::chrono::milliseconds(5000));
    std::printf("example: debug for MAIN after the level update: %s\n", yes_no(after));
    std::fflush(stdout);

    // One message with every argument type.
    std::uint32_t key = 100;
    if (logferry::log_start(MAIN_CONTEXT, key, level(ara::log::LogLevel::kInfo))) {
        logferry::log_utf8_string(key, "every argument type:");
        logferry::log_bool(key, true);
        logferry::log_int8(key, -8);
        logferry::log_int16(key, -1600);
        logferry::log_int32(key, -320000);
        logferry::log_int64(key, -6400000000LL);
        logferry::log_uint8_formatted(key, 200, logferry::LogFormat::kDec);
        logferry::log_uint16_formatted(key, 0xBEEF, logferry::LogFormat::kHex);
        logferry::log_uint32_formatted(key, 0755, logferry::LogFormat::kOct);
        logferry::log_uint64_formatted(key, 0x5A, logferry::LogFormat::kBin);
        logferry::log_uint32_formatted(key, 0xC0FFEE, logferry::LogFormat::kHexUpper);
        logferry::log_float32(key, 1.5f);
        logferry::log_float64(key, 3.141592653589793);
        logferry::log_string_view(key, "a view of a longer text", 9);
        const std::uint8_t raw[] = {0xDE, 0xAD, 0xBE, 0xEF};
        logferry::log_raw_formatted(key, raw, sizeof raw, logferry::LogFormat::kHex);
        const std::vector<unsigned char> encoded = {0x01, 0x02, 0x03};
        const std::uint16_t encoded_length = 3;
        logferry::log_encoded_payload(key, encoded, encoded_length);
        logferry::log_finish(key);
    }

    // A debug message, sent only when the daemon has enabled debug for MAIN.
    ++key;
    if (logferry::is_log_level_enabled(MAIN_CONTEXT, level(ara::log::LogLevel::kDebug)) &&
        logferry::log_start(MAIN_CONTEXT, key, level(ara::log::LogLevel::kDebug))) {
        logferry::log_utf8_string(key, "debug is on");
        logferry::log_finish(key);
    }

    // NET stays at warn: the info message is skipped, the warning goes out.
    ++key;
    if (logferry::is_log_level_enabled(NET_CONTEXT, level(ara::log::LogLevel::kInfo)) &&
        logferry::log_start(NET_CONTEXT, key, level(ara::log::LogLevel::kInfo))) {
        logferry::log_utf8_string(key, "never sent");
        logferry::log_finish(key);
    }
    ++key;
    if (logferry::is_log_level_enabled(NET_CONTEXT, level(ara::log::LogLevel::kWarn)) &&
        logferry::log_start(NET_CONTEXT, key, level(ara::log::LogLevel::kWarn))) {
        logferry::log_utf8_string(key, "link down, retrying");
        logferry::log_uint16_formatted(key, 3, logferry::LogFormat::kDec);
        logferry::log_finish(key);
    }

    logferry::exit();
    std::printf("example: done\n");
    return 0;
}
