// Validators of levels, modes, formats, texts and identifiers.

#include "logferry/validation.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <type_traits>

#include "message/checked_substr.hpp"

namespace {

using ara::log::LogLevel;
using ara::log::LogMode;
using logferry::LogFormat;

std::uint8_t level_of(std::uint8_t raw)
{
    return static_cast<std::uint8_t>(logferry::dlt_validate_log_level(static_cast<LogLevel>(raw)));
}

std::uint8_t mode_of(std::uint8_t raw)
{
    return static_cast<std::uint8_t>(logferry::dlt_validate_log_mode(static_cast<LogMode>(raw)));
}

std::uint8_t format_of(std::uint8_t raw)
{
    return static_cast<std::uint8_t>(logferry::dlt_validate_format(static_cast<LogFormat>(raw)));
}

TEST(Validation, EnumerationsAreEightBitWithTheirValues)
{
    static_assert(std::is_same<std::underlying_type<LogLevel>::type, std::uint8_t>::value, "");
    static_assert(std::is_same<std::underlying_type<LogMode>::type, std::uint8_t>::value, "");
    static_assert(std::is_same<std::underlying_type<LogFormat>::type, std::uint8_t>::value, "");
    EXPECT_EQ(static_cast<int>(LogLevel::kOff), 0);
    EXPECT_EQ(static_cast<int>(LogLevel::kFatal), 1);
    EXPECT_EQ(static_cast<int>(LogLevel::kError), 2);
    EXPECT_EQ(static_cast<int>(LogLevel::kWarn), 3);
    EXPECT_EQ(static_cast<int>(LogLevel::kInfo), 4);
    EXPECT_EQ(static_cast<int>(LogLevel::kDebug), 5);
    EXPECT_EQ(static_cast<int>(LogLevel::kVerbose), 6);
    EXPECT_EQ(static_cast<int>(LogMode::kRemote), 1);
    EXPECT_EQ(static_cast<int>(LogMode::kFile), 2);
    EXPECT_EQ(static_cast<int>(LogMode::kConsole), 4);
    EXPECT_EQ(static_cast<int>(LogMode::kRemote | LogMode::kConsole), 5);
    EXPECT_EQ(static_cast<int>(LogFormat::kDefault), 0);
    EXPECT_EQ(static_cast<int>(LogFormat::kRaw), 6);
}

TEST(Validation, LogLevelEdgeValues)
{
    EXPECT_EQ(level_of(6), 6);
    EXPECT_EQ(level_of(7), 0);
    EXPECT_EQ(level_of(255), 0);
    EXPECT_EQ(logferry::dlt_validate_log_level(LogLevel::kInfo), LogLevel::kInfo);
}

TEST(Validation, LogLevelEveryValue)
{
    for (unsigned int raw = 0; raw < 256; ++raw) {
        const std::uint8_t expected = raw < 7 ? static_cast<std::uint8_t>(raw) : 0;
        EXPECT_EQ(level_of(static_cast<std::uint8_t>(raw)), expected) << raw;
    }
}

TEST(Validation, LogModeEdgeValues)
{
    EXPECT_EQ(mode_of(0), 4);
    EXPECT_EQ(mode_of(3), 3);
    EXPECT_EQ(mode_of(7), 7);
    EXPECT_EQ(mode_of(8), 4);
    EXPECT_EQ(mode_of(9), 4);
    EXPECT_EQ(logferry::dlt_validate_log_mode(LogMode::kRemote | LogMode::kFile), LogMode::kRemote | LogMode::kFile);
}

TEST(Validation, LogModeEveryValue)
{
    for (unsigned int raw = 0; raw < 256; ++raw) {
        const std::uint8_t expected = raw >= 1 && raw <= 7 ? static_cast<std::uint8_t>(raw) : 4;
        EXPECT_EQ(mode_of(static_cast<std::uint8_t>(raw)), expected) << raw;
    }
}

TEST(Validation, FormatEdgeValues)
{
    for (std::uint8_t raw = 0; raw <= 6; ++raw) {
        EXPECT_EQ(format_of(raw), raw);
    }
    EXPECT_EQ(format_of(7), 0);
    EXPECT_EQ(format_of(255), 0);
}

TEST(Validation, FormatEveryValue)
{
    for (unsigned int raw = 0; raw < 256; ++raw) {
        const std::uint8_t expected = raw < 7 ? static_cast<std::uint8_t>(raw) : 0;
        EXPECT_EQ(format_of(static_cast<std::uint8_t>(raw)), expected) << raw;
    }
}

TEST(Validation, StringIsCutToMaximumMinusOne)
{
    EXPECT_EQ(logferry::dlt_validate_string("abcdef", 4), "abc");
    EXPECT_EQ(logferry::dlt_validate_string("abcdef", 1), "");
    EXPECT_EQ(logferry::dlt_validate_string("abcdef", 6), "abcde");
    EXPECT_EQ(logferry::dlt_validate_string("abcdef", 7), "abcdef");
    EXPECT_EQ(logferry::dlt_validate_string("abcdef", 1000), "abcdef");
}

TEST(Validation, StringMaximumZeroWrapsAndKeepsTheWholeText)
{
    EXPECT_EQ(logferry::dlt_validate_string("abcdef", 0), "abcdef");
    const std::string long_text(5000, 'w');
    EXPECT_EQ(logferry::dlt_validate_string(long_text, 0), long_text);
    EXPECT_EQ(logferry::dlt_validate_string("abcdef", std::numeric_limits<unsigned long>::max()), "abcdef");
}

TEST(Validation, StringEmptyTextStaysEmpty)
{
    for (unsigned long maximum : {0UL, 1UL, 2UL, 255UL, std::numeric_limits<unsigned long>::max()}) {
        EXPECT_EQ(logferry::dlt_validate_string("", maximum), "") << maximum;
    }
}

TEST(Validation, StringFileNameMaximum)
{
    const std::string name(300, 'n');
    EXPECT_EQ(logferry::dlt_validate_string(name, 255), std::string(254, 'n'));
    EXPECT_EQ(logferry::dlt_validate_string(std::string(254, 'm'), 255), std::string(254, 'm'));
}

TEST(Validation, StringKeepsInnerZeroBytes)
{
    const std::string text("ab\0cd", 5);
    EXPECT_EQ(logferry::dlt_validate_string(text, 5), std::string("ab\0c", 4));
}

TEST(Validation, IdEdgeValues)
{
    EXPECT_EQ(logferry::dlt_validate_id(""), "XXXX");
    EXPECT_EQ(logferry::dlt_validate_id("ABCDE"), "ABCD");
    EXPECT_EQ(logferry::dlt_validate_id("AB"), "AB");
}

TEST(Validation, IdIsNeitherPaddedNorChecked)
{
    EXPECT_EQ(logferry::dlt_validate_id("A"), "A");
    EXPECT_EQ(logferry::dlt_validate_id("ABCD"), "ABCD");
    EXPECT_EQ(logferry::dlt_validate_id("a b!?"), "a b!");
    EXPECT_EQ(logferry::dlt_validate_id(std::string("\0\0\0\0\0", 5)), std::string(4, '\0'));
}

TEST(Validation, SubstringHandlerReportsOutOfRange)
{
    testing::internal::CaptureStderr();
    const std::string result = logferry::detail::checked_substr("abc", 5, 2, "XXXX");
    const std::string printed = testing::internal::GetCapturedStderr();
    EXPECT_EQ(result, "XXXX");
    EXPECT_EQ(printed,
              "Out of range error: basic_string::substr: __pos (which is 5) > this->size() "
              "(which is 3)\n");
}

TEST(Validation, SubstringHandlerQuietInRange)
{
    testing::internal::CaptureStderr();
    const std::string result = logferry::detail::checked_substr("abcdef", 0, 3, "");
    const std::string printed = testing::internal::GetCapturedStderr();
    EXPECT_EQ(result, "abc");
    EXPECT_EQ(printed, "");
}

}  // namespace
