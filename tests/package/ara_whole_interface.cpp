// An application that includes one ara::log header only (LOGFERRY_ARA_HEADER, one program per
// header) and uses every standard name of the interface: whichever header a platform taught
// its developers, the program must compile as C++14 and link. Built by the tests
// Package.AraHeaderGivesWholeInterface.* (tests/package/CMakeLists.txt); never run.
#include LOGFERRY_ARA_HEADER

#include <chrono>
#include <cstdint>
#include <string>

namespace {

// An application's own type with its own stream operator.
struct Reading {
    int value;
};
ara::log::LogStream& operator<<(ara::log::LogStream& out, const Reading& reading) noexcept
{
    return out << reading.value;
}

// A wrapper returning a stream by value, moved into a named variable by the caller.
ara::log::LogStream warn_of(const ara::log::Logger& logger) noexcept { return logger.LogWarn(); }

}  // namespace

int main()
{
    const ara::log::LogMode mode = ara::log::LogMode::kRemote | ara::log::LogMode::kFile | ara::log::LogMode::kConsole;
    ara::log::InitLogging("HDRS", "one header only", ara::log::LogLevel::kVerbose, mode, "/tmp");
    ara::log::InitLogging(std::string("HDRS"), std::string("one header only"), ara::log::LogLevel::kInfo,
                          ara::log::LogMode::kRemote);
    const ara::log::Logger& logger = ara::log::CreateLogger("MAIN", "Main context", ara::log::LogLevel::kOff);
    const auto copy{ara::log::CreateLogger(std::string("SECO"), "Second context")};

    ara::log::ClientState state = ara::log::remoteClientState();
    ara::log::RegisterConnectionStateHandler([&state](ara::log::ClientState now) { state = now; });
    const bool known = state == ara::log::ClientState::kUnknown || state == ara::log::ClientState::kConnected ||
                       state == ara::log::ClientState::kNotConnected;

    logger.LogFatal() << true << static_cast<std::int8_t>(-8) << static_cast<std::int16_t>(-16)
                      << static_cast<std::int32_t>(-32) << static_cast<std::int64_t>(-64);
    logger.LogError() << static_cast<std::uint8_t>(8) << static_cast<std::uint16_t>(16)
                      << static_cast<std::uint32_t>(32) << static_cast<std::uint64_t>(64) << 1L << 2UL << 3LL << 4ULL
                      << sizeof(Reading) << 1.5F << 2.5;
    logger.LogWarn() << "text" << std::string("string") << ara::log::LogLevel::kWarn
                     << static_cast<const void*>(&logger) << std::chrono::milliseconds(5) << Reading{7};
    logger.LogInfo() << ara::log::HexFormat(static_cast<std::uint8_t>(1)) << ara::log::HexFormat(-2)
                     << ara::log::BinFormat(static_cast<std::uint16_t>(3)) << ara::log::BinFormat(-4LL);
    const std::uint32_t raw = 0x01020304U;
    logger.LogDebug() << ara::log::RawBuffer(raw) << ara::log::Arg(raw, "raw", "bytes", ara::log::Format::Hex())
                      << ara::log::Arg(1.0, "ratio") << ara::log::Arg(5, "", "", ara::log::Format::Oct())
                      << ara::log::Arg(6, "six", "", ara::log::Format::Bin())
                      << ara::log::Arg(7, "seven", "", ara::log::Format::Dec());
    logger.LogVerbose().WithLocation(__FILE__, __LINE__) << "located";
    ara::log::LogStream stream = warn_of(copy);
    stream << "first";
    stream.Flush();
    if (logger.IsEnabled(ara::log::LogLevel::kDebug)) {
        logger.WithLevel(ara::log::LogLevel::kDebug) << "run-time level";
    }
    const ara::log::LogLevel levels[] = {
        ara::log::LogLevel::kOff,  ara::log::LogLevel::kFatal, ara::log::LogLevel::kError,  ara::log::LogLevel::kWarn,
        ara::log::LogLevel::kInfo, ara::log::LogLevel::kDebug, ara::log::LogLevel::kVerbose};
    ara::log::RegisterConnectionStateHandler({});
    return known && sizeof(levels) == 7 ? 0 : 1;
}
