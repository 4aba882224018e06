// Validators that bring application values into the ranges the records accept.

#include "logferry/validation.hpp"

#include <algorithm>
#include <cstdint>
#include <iostream>
#include <stdexcept>

#include "logferry/message.hpp"
#include "message/checked_substr.hpp"

namespace logferry {
namespace detail {

std::string checked_substr(const std::string& text, std::size_t position, std::size_t count,
                           const char* fallback) noexcept
{
    try {
        return text.substr(position, count);
    } catch (const std::out_of_range& error) {
        std::cerr << "Out of range error: " << error.what() << '\n';
        return fallback;
    }
}

}  // namespace detail

namespace {

constexpr std::uint8_t LEVEL_AND_FORMAT_LIMIT = 7;     // values below pass
constexpr std::uint8_t MODE_BITS = 0x07;               // remote | file | console
constexpr std::size_t ID_LENGTH = RECORD_ID_SIZE - 1;  // an ID field less its zero

// Shared test of levels and formats: a value below 7 passes, anything else becomes 0.
std::uint8_t below_seven_or_zero(std::uint8_t value) noexcept { return value < LEVEL_AND_FORMAT_LIMIT ? value : 0; }

}  // namespace

ara::log::LogLevel dlt_validate_log_level(ara::log::LogLevel level) noexcept
{
    return static_cast<ara::log::LogLevel>(below_seven_or_zero(static_cast<std::uint8_t>(level)));
}

ara::log::LogMode dlt_validate_log_mode(ara::log::LogMode mode) noexcept
{
    const auto bits = static_cast<std::uint8_t>(mode);
    if (bits == 0 || (bits & static_cast<std::uint8_t>(~MODE_BITS)) != 0) {
        return ara::log::LogMode::kConsole;
    }
    return mode;
}

LogFormat dlt_validate_format(LogFormat format) noexcept
{
    return static_cast<LogFormat>(below_seven_or_zero(static_cast<std::uint8_t>(format)));
}

std::string dlt_validate_string(const std::string& text, unsigned long maximum) noexcept
{
    if (text.empty()) {
        return {};
    }
    // Unsigned arithmetic: a maximum of 0 wraps to the largest count and keeps the text whole.
    const std::uint64_t keep = static_cast<std::uint64_t>(maximum) - 1U;
    const std::size_t count = static_cast<std::size_t>(std::min<std::uint64_t>(keep, text.size()));
    return detail::checked_substr(text, 0, count, "");
}

std::string dlt_validate_id(const std::string& id) noexcept
{
    if (id.empty()) {
        return "XXXX";
    }
    return detail::checked_substr(id, 0, std::min(ID_LENGTH, id.size()), "XXXX");
}

}  // namespace logferry
