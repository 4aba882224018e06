// An ara::log application built against the installed packages and run under the installed
// logferry-monitor (scripts/package.sh): it brings logging up, creates one logger, waits for
// the monitor's level update (run with --level MAIN=debug) and logs one message that the
// monitor must show. The first argument is its application ID.
#include <ara/log/logging.h>

#include <chrono>
#include <cstdio>
#include <thread>

int main(int argc, char** argv)
{
    const char* const app_id = argc > 1 ? argv[1] : "PKGA";
    ara::log::InitLogging(app_id, "installed ara::log consumer", ara::log::LogLevel::kVerbose,
                          ara::log::LogMode::kRemote);
    ara::log::Logger& logger = ara::log::CreateLogger("MAIN", "Main context", ara::log::LogLevel::kInfo);

    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!logger.IsEnabled(ara::log::LogLevel::kDebug)) {
        if (std::chrono::steady_clock::now() >= deadline) {
            std::printf("%s: no level update from the daemon\n", app_id);
            return 1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    logger.LogInfo() << "hello from ara::log" << 42;
    std::printf("%s: logged\n", app_id);
    return 0;
}
