// An application written as Adaptive applications of the releases with InitLogging are:
// loggers held as class members (copied and by const reference), a wrapper that returns
// LogStream by value, an own type with its operator<<, a named stream that is flushed and
// moved, std::string and size_t arguments.
#include <chrono>
#include <cstddef>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ara/log/logging.h"

namespace sensors {

struct Reading {
    std::string name;
    double value;
};

ara::log::LogStream& operator<<(ara::log::LogStream& out, const Reading& reading)
{
    return out << reading.name << "=" << reading.value;
}

class Sensor_service {
public:
    explicit Sensor_service(const ara::log::Logger& main_logger)
        : main_logger_(main_logger),
          logger_(ara::log::CreateLogger("SENS", "Sensor service", ara::log::LogLevel::kInfo))
    {}

    ara::log::LogStream Info() const { return logger_.LogInfo(); }

    void Report(const std::vector<Reading>& readings) const
    {
        for (const Reading& reading : readings) {
            Info() << reading;
        }
        const std::size_t count = readings.size();
        main_logger_.LogWarn() << std::string("readings reported:") << count;
        logger_.LogDebug() << "not shown: SENS is at info";
    }

private:
    const ara::log::Logger& main_logger_;
    const ara::log::Logger logger_;  // a copy of the logger CreateLogger keeps
};

}  // namespace sensors

namespace {

// Waits (at most five seconds) for the log daemon, so that the messages below are shown at once.
void wait_for_daemon()
{
    for (int i = 0; i < 500 && ara::log::remoteClientState() != ara::log::ClientState::kConnected; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

}  // namespace

int main()
{
    ara::log::InitLogging("CMP1", "compat: InitLogging application", ara::log::LogLevel::kVerbose,
                          ara::log::LogMode::kRemote | ara::log::LogMode::kConsole);
    const auto logger{ara::log::CreateLogger("MAIN", "Main context", ara::log::LogLevel::kInfo)};
    wait_for_daemon();

    const sensors::Sensor_service service(logger);
    service.Report({{"temperature", 21.5}, {"pressure", 1013.25}});

    auto stream = logger.LogInfo();
    stream << "part one";
    stream.Flush();
    stream << "part two";
    ara::log::LogStream moved{std::move(stream)};
    moved << "moved on";
    return 0;
}
