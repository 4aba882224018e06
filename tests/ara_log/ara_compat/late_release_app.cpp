// An application written as Adaptive applications of the later releases are: no InitLogging
// (the application's ID, level and mode come from the environment), loggers created at
// namespace scope before main, the two-argument CreateLogger, WithLevel, IsEnabled, the
// connection-state handler, durations, named arguments, and a message from a static
// destructor after main has returned.
#include <atomic>
#include <chrono>
#include <cstdint>
#include <string_view>
#include <thread>

#include "ara/log/logger.h"
#include "ara/log/logging.h"

namespace {

ara::log::Logger& global_logger = ara::log::CreateLogger("GLOB", "Global logger");

std::atomic<bool> connected{false};

struct Last_words {
    Last_words() = default;
    Last_words(const Last_words&) = delete;
    Last_words& operator=(const Last_words&) = delete;
    ~Last_words() { global_logger.LogWarn() << "static destructor after main"; }
};
const Last_words last_words;

}  // namespace

int main()
{
    ara::log::RegisterConnectionStateHandler([](ara::log::ClientState state) {
        if (state == ara::log::ClientState::kConnected) {
            connected = true;
        }
    });
    const ara::log::Logger& logger = ara::log::CreateLogger("WORK", "Worker", ara::log::LogLevel::kDebug);
    global_logger.LogInfo() << "starting";  // registers the application from the environment
    for (int i = 0; i < 500 && !connected; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    global_logger.LogInfo() << "handler saw the daemon:" << connected.load();

    if (logger.IsEnabled(ara::log::LogLevel::kDebug)) {
        logger.WithLevel(ara::log::LogLevel::kDebug)
            << std::string_view("took") << std::chrono::milliseconds(250) << ara::log::Arg(3, "retries")
            << ara::log::Arg(static_cast<std::uint8_t>(0x2A), "flags", "", ara::log::Hex());
    }
    logger.LogVerbose() << "not shown: WORK is at debug";
    global_logger.LogDebug() << "not shown: the environment's default level is info";
    return 0;
}
