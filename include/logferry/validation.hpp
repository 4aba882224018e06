// logferry: levels, modes, formats and the validators that bring application
// values into the ranges the message records and the daemon accept.
//
// The validators never fail and never report: an invalid value is replaced by a
// fixed default and an over-long text is cut.

#ifndef LOGFERRY_VALIDATION_HPP
#define LOGFERRY_VALIDATION_HPP

#include <cstdint>
#include <string>

#include "logferry/export.hpp"

/// \namespace ara
/// The names of the platform's standard interfaces.
/// \namespace ara::log
/// The platform's logging interface: the level and mode types the library shares with it.

// Two namespace blocks: the public headers stay valid C++14 for applications.
namespace ara {  // NOLINT(modernize-concat-nested-namespaces)
namespace log {

/// Severity of a log message; the higher, the more verbose.
enum class LogLevel : std::uint8_t {
    kOff = 0x00,
    kFatal = 0x01,
    kError = 0x02,
    kWarn = 0x03,
    kInfo = 0x04,
    kDebug = 0x05,
    kVerbose = 0x06
};

/// Output sinks as a bit set; any non-empty combination of the three bits is valid.
enum class LogMode : std::uint8_t { kRemote = 0x01, kFile = 0x02, kConsole = 0x04 };

/// Combines two modes into one bit set.
constexpr LogMode operator|(LogMode lhs, LogMode rhs) noexcept
{
    return static_cast<LogMode>(static_cast<std::uint8_t>(lhs) | static_cast<std::uint8_t>(rhs));
}

}  // namespace log
}  // namespace ara

namespace logferry {

/// Presentation code for formatted numbers and raw data. Only the numbers 0 to 6
/// cross the channel; what each one means is up to the daemon. 0 is the default
/// that invalid codes are mapped to.
enum class LogFormat : std::uint8_t { kDefault = 0, kDec = 1, kHex = 2, kOct = 3, kBin = 4, kHexUpper = 5, kRaw = 6 };

/// The level if it is below 7, else `LogLevel::kOff`.
LOGFERRY_API ara::log::LogLevel dlt_validate_log_level(ara::log::LogLevel level) noexcept;

/// The mode if it is 1 to 7 (a non-empty set of the three mode bits), else `LogMode::kConsole`.
LOGFERRY_API ara::log::LogMode dlt_validate_log_mode(ara::log::LogMode mode) noexcept;

/// The format if it is below 7, else `LogFormat::kDefault`.
LOGFERRY_API LogFormat dlt_validate_format(LogFormat format) noexcept;

/// The first min(maximum - 1, length) characters of `text`; an empty string for an
/// empty text. maximum - 1 is computed modulo 2^64, so a maximum of 0 keeps the
/// whole text. A maximum of 255 leaves room for the terminating zero of a 255-byte
/// field.
LOGFERRY_API std::string dlt_validate_string(const std::string& text, unsigned long maximum) noexcept;

/// "XXXX" for an empty ID, else its first min(4, length) characters (no padding,
/// no character check).
LOGFERRY_API std::string dlt_validate_id(const std::string& id) noexcept;

}  // namespace logferry

#endif  // LOGFERRY_VALIDATION_HPP
