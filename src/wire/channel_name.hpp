#ifndef LOGFERRY_WIRE_CHANNEL_NAME_HPP
#define LOGFERRY_WIRE_CHANNEL_NAME_HPP

// The name of an application's channel segment: the application forms it and announces it in
// the listener list, the daemon checks its form before it attaches.
//
//   "/logferry-" <application ID> "-" <process id> "-" <time stamp>
//
// The process id keeps at most its last five decimal digits; the time stamp is
// CLOCK_MONOTONIC in microseconds, modulo 2^32, in lowercase hexadecimal without leading
// zeros. What follows the prefix is the channel's identifier (Logferry_base::app_identifier).

#include <time.h>  // NOLINT(modernize-deprecated-headers): POSIX timespec

#include <array>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <string>

namespace logferry::wire {

constexpr char CHANNEL_NAME_PREFIX[] = "/logferry-";
constexpr std::size_t CHANNEL_NAME_PREFIX_LENGTH = sizeof CHANNEL_NAME_PREFIX - 1;
/// Digits of the process id a name keeps (its last ones).
constexpr std::size_t CHANNEL_PID_DIGITS = 5;
/// Most digits of the time stamp: a 32-bit number in hexadecimal.
constexpr std::size_t CHANNEL_STAMP_DIGITS = 8;

/// The identifier's time stamp for a reading of CLOCK_MONOTONIC: microseconds, modulo 2^32.
inline std::uint32_t channel_stamp_of(const timespec& now) noexcept
{
    return static_cast<std::uint32_t>(static_cast<std::uint64_t>(now.tv_sec) * 1000000U +
                                      static_cast<std::uint64_t>(now.tv_nsec / 1000));
}

/// The process-id part of a name for a process id in decimal: its last five digits.
inline std::string channel_pid_text(std::string pid)
{
    if (pid.size() > CHANNEL_PID_DIGITS) {
        pid.erase(0, pid.size() - CHANNEL_PID_DIGITS);
    }
    return pid;
}

/// The identifier of the channel of application `app_id` in process `pid`, made at `stamp`.
inline std::string make_channel_identifier(const std::string& app_id, int pid, std::uint32_t stamp)
{
    const std::string pid_text = channel_pid_text(std::to_string(pid));
    std::array<char, CHANNEL_STAMP_DIGITS> stamp_digits{};
    const std::to_chars_result stamp_end =
        std::to_chars(stamp_digits.data(), stamp_digits.data() + stamp_digits.size(), stamp, 16);

    std::string identifier;
    identifier.reserve(app_id.size() + pid_text.size() + 2 + CHANNEL_STAMP_DIGITS);
    identifier.append(app_id).append("-").append(pid_text).append("-");
    identifier.append(stamp_digits.data(), stamp_end.ptr);
    return identifier;
}

/// The segment name of the channel with this identifier.
inline std::string channel_name_of(const std::string& identifier)
{
    std::string name;
    name.reserve(CHANNEL_NAME_PREFIX_LENGTH + identifier.size());
    name.append(CHANNEL_NAME_PREFIX).append(identifier);
    return name;
}

/// The three parts of a channel name after its prefix.
struct Channel_name_parts {
    std::string app_id;
    std::string pid;
    std::string stamp;
};

/// Splits a channel name into its parts; false when `name` does not have the form above: an
/// application ID of letters, digits, '_', '.' and '-' (the parts are found from the end), 1
/// to 5 decimal digits, 1 to 8 lowercase hexadecimal digits.
inline bool parse_channel_name(const std::string& name, Channel_name_parts& parts)
{
    constexpr std::size_t prefix = CHANNEL_NAME_PREFIX_LENGTH;
    if (name.compare(0, prefix, CHANNEL_NAME_PREFIX) != 0) {
        return false;
    }
    const auto last = name.rfind('-');
    const auto before = last <= prefix ? std::string::npos : name.rfind('-', last - 1);
    if (before == std::string::npos || before <= prefix) {
        return false;
    }
    const auto only_of = [](const std::string& text, const char* alphabet) {
        return text.find_first_not_of(alphabet) == std::string::npos;
    };
    parts.app_id = name.substr(prefix, before - prefix);
    parts.pid = name.substr(before + 1, last - before - 1);
    parts.stamp = name.substr(last + 1);
    return !parts.app_id.empty() && !parts.pid.empty() && parts.pid.size() <= CHANNEL_PID_DIGITS &&
           !parts.stamp.empty() && parts.stamp.size() <= CHANNEL_STAMP_DIGITS &&
           only_of(parts.app_id, "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_.-") &&
           only_of(parts.pid, "0123456789") && only_of(parts.stamp, "0123456789abcdef");
}

}  // namespace logferry::wire

#endif  // LOGFERRY_WIRE_CHANNEL_NAME_HPP
