// ara::log: the log stream and the argument wrappers it takes.
//
// A `LogStream` is one log message under assembly. `Logger::LogInfo()` and its siblings return
// one; every `<<` adds one argument; the message is sent when the stream is destroyed (at the
// end of the statement for a temporary) or by `Flush()`. A stream whose level is disabled
// holds nothing and every operation on it does nothing.

#ifndef ARA_LOG_LOG_STREAM_H
#define ARA_LOG_LOG_STREAM_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ratio>
#include <string>
#include <type_traits>
#if __cplusplus >= 201703L
#include <string_view>
#endif

#include "ara/log/common.h"

// Two namespace blocks: the public headers stay valid C++14 for applications.
namespace ara {  // NOLINT(modernize-concat-nested-namespaces)
namespace log {

class Logger;
class LogStream;

namespace detail {
/// The library's storage of one message under assembly (opaque to applications).
struct Message;
/// The library's access to the stream's internals (opaque to applications).
struct Stream_access;
}  // namespace detail

/// An unsigned value of 8 bits shown in hexadecimal (made by `HexFormat`).
struct LogHex8 {
    std::uint8_t value;  ///< The value.
};
/// An unsigned value of 16 bits shown in hexadecimal (made by `HexFormat`).
struct LogHex16 {
    std::uint16_t value;  ///< The value.
};
/// An unsigned value of 32 bits shown in hexadecimal (made by `HexFormat`).
struct LogHex32 {
    std::uint32_t value;  ///< The value.
};
/// An unsigned value of 64 bits shown in hexadecimal (made by `HexFormat`).
struct LogHex64 {
    std::uint64_t value;  ///< The value.
};
/// An unsigned value of 8 bits shown in binary (made by `BinFormat`).
struct LogBin8 {
    std::uint8_t value;  ///< The value.
};
/// An unsigned value of 16 bits shown in binary (made by `BinFormat`).
struct LogBin16 {
    std::uint16_t value;  ///< The value.
};
/// An unsigned value of 32 bits shown in binary (made by `BinFormat`).
struct LogBin32 {
    std::uint32_t value;  ///< The value.
};
/// An unsigned value of 64 bits shown in binary (made by `BinFormat`).
struct LogBin64 {
    std::uint64_t value;  ///< The value.
};

/// Bytes sent as they lie in memory. At most 1389 bytes travel in one argument; a longer
/// buffer is cut to its first 1389 bytes and followed by a text argument telling its size.
struct LogRawBuffer {
    const void* buffer;  ///< The first byte.
    std::size_t size;    ///< How many bytes.
};

namespace detail {
template <std::size_t N>
struct Sized;
template <>
struct Sized<1> {
    using Unsigned = std::uint8_t;
    using Hex = LogHex8;
    using Bin = LogBin8;
};
template <>
struct Sized<2> {
    using Unsigned = std::uint16_t;
    using Hex = LogHex16;
    using Bin = LogBin16;
};
template <>
struct Sized<4> {
    using Unsigned = std::uint32_t;
    using Hex = LogHex32;
    using Bin = LogBin32;
};
template <>
struct Sized<8> {
    using Unsigned = std::uint64_t;
    using Hex = LogHex64;
    using Bin = LogBin64;
};
template <typename T>
using Hex_t = typename Sized<sizeof(T)>::Hex;
template <typename T>
using Bin_t = typename Sized<sizeof(T)>::Bin;
template <typename T>
constexpr typename Sized<sizeof(T)>::Unsigned as_unsigned(T value) noexcept
{
    return static_cast<typename Sized<sizeof(T)>::Unsigned>(value);
}
}  // namespace detail

///@{
/// `value` in hexadecimal, as wide as its type; negative values in two's complement.
/// Overloaded for every integer type, so every fixed-width type of the platform is covered.
constexpr detail::Hex_t<signed char> HexFormat(signed char value) noexcept { return {detail::as_unsigned(value)}; }
constexpr detail::Hex_t<short> HexFormat(short value) noexcept { return {detail::as_unsigned(value)}; }
constexpr detail::Hex_t<int> HexFormat(int value) noexcept { return {detail::as_unsigned(value)}; }
constexpr detail::Hex_t<long> HexFormat(long value) noexcept { return {detail::as_unsigned(value)}; }
constexpr detail::Hex_t<long long> HexFormat(long long value) noexcept { return {detail::as_unsigned(value)}; }
constexpr detail::Hex_t<unsigned char> HexFormat(unsigned char value) noexcept { return {value}; }
constexpr detail::Hex_t<unsigned short> HexFormat(unsigned short value) noexcept { return {value}; }
constexpr detail::Hex_t<unsigned int> HexFormat(unsigned int value) noexcept { return {value}; }
constexpr detail::Hex_t<unsigned long> HexFormat(unsigned long value) noexcept { return {value}; }
constexpr detail::Hex_t<unsigned long long> HexFormat(unsigned long long value) noexcept
{
    return {detail::as_unsigned(value)};
}
///@}

///@{
/// `value` in binary, as wide as its type; negative values in two's complement.
constexpr detail::Bin_t<signed char> BinFormat(signed char value) noexcept { return {detail::as_unsigned(value)}; }
constexpr detail::Bin_t<short> BinFormat(short value) noexcept { return {detail::as_unsigned(value)}; }
constexpr detail::Bin_t<int> BinFormat(int value) noexcept { return {detail::as_unsigned(value)}; }
constexpr detail::Bin_t<long> BinFormat(long value) noexcept { return {detail::as_unsigned(value)}; }
constexpr detail::Bin_t<long long> BinFormat(long long value) noexcept { return {detail::as_unsigned(value)}; }
constexpr detail::Bin_t<unsigned char> BinFormat(unsigned char value) noexcept { return {value}; }
constexpr detail::Bin_t<unsigned short> BinFormat(unsigned short value) noexcept { return {value}; }
constexpr detail::Bin_t<unsigned int> BinFormat(unsigned int value) noexcept { return {value}; }
constexpr detail::Bin_t<unsigned long> BinFormat(unsigned long value) noexcept { return {value}; }
constexpr detail::Bin_t<unsigned long long> BinFormat(unsigned long long value) noexcept
{
    return {detail::as_unsigned(value)};
}
///@}

/// The bytes of `value` (an object, not a pointer) as they lie in memory.
template <typename T>
LogRawBuffer RawBuffer(const T& value) noexcept
{
    static_assert(!std::is_pointer<T>::value, "RawBuffer takes an object, not a pointer to one");
    return LogRawBuffer{static_cast<const void*>(&value), sizeof(T)};
}

/// How `Arg` shows an integer: decimal (the default), octal, hexadecimal or binary.
struct Format {
    /// The presentation code carried by the record (logferry::LogFormat).
    std::uint8_t code = static_cast<std::uint8_t>(logferry::LogFormat::kDec);
    ///@{
    /// Decimal, octal, hexadecimal or binary.
    static constexpr Format Dec() noexcept { return Format{static_cast<std::uint8_t>(logferry::LogFormat::kDec)}; }
    static constexpr Format Oct() noexcept { return Format{static_cast<std::uint8_t>(logferry::LogFormat::kOct)}; }
    static constexpr Format Hex() noexcept { return Format{static_cast<std::uint8_t>(logferry::LogFormat::kHex)}; }
    static constexpr Format Bin() noexcept { return Format{static_cast<std::uint8_t>(logferry::LogFormat::kBin)}; }
    ///@}
};
///@{
/// The four formats as free functions: `Arg(x, "x", "", Hex())`.
constexpr Format Dec() noexcept { return Format::Dec(); }
constexpr Format Oct() noexcept { return Format::Oct(); }
constexpr Format Hex() noexcept { return Format::Hex(); }
constexpr Format Bin() noexcept { return Format::Bin(); }
///@}

/// One log message under assembly. Move-constructible, not copyable, not assignable. The
/// message is sent when the stream is destroyed; all operations are safe from any thread
/// on distinct streams and never throw.
class LogStream {
public:
    /// Takes over `other`'s message; `other` is left disabled and sends nothing.
    LogStream(LogStream&& other) noexcept : message_(other.message_) { other.message_ = nullptr; }
    LogStream(const LogStream&) = delete;
    LogStream& operator=(const LogStream&) = delete;
    LogStream& operator=(LogStream&&) = delete;
    /// Sends the message (start record, arguments, finish record) in one unit.
    ~LogStream()
    {
        if (message_ != nullptr) {
            Finish();
        }
    }

    /// Sends what was streamed so far and starts a new message of the same logger and level
    /// on this stream.
    void Flush() noexcept
    {
        if (message_ != nullptr) {
            Restart();
        }
    }

    /// Places "file:line" as the message's first argument; no effect once an argument has
    /// been added.
    LogStream& WithLocation(detail::Text file, int line) noexcept
    {
        if (message_ != nullptr) {
            PutLocation(file, line);
        }
        return *this;
    }

    /// Booleans.
    LogStream& operator<<(bool value) noexcept
    {
        if (message_ != nullptr) {
            PutBool(value);
        }
        return *this;
    }
    ///@{
    /// Signed integers, as signed numbers of their width.
    LogStream& operator<<(signed char value) noexcept { return Signed(value); }
    LogStream& operator<<(short value) noexcept { return Signed(value); }
    LogStream& operator<<(int value) noexcept { return Signed(value); }
    LogStream& operator<<(long value) noexcept { return Signed(value); }
    LogStream& operator<<(long long value) noexcept { return Signed(value); }
    ///@}
    ///@{
    /// Unsigned integers, as decimal unsigned numbers of their width.
    LogStream& operator<<(unsigned char value) noexcept { return Unsigned(value, kDecimal); }
    LogStream& operator<<(unsigned short value) noexcept { return Unsigned(value, kDecimal); }
    LogStream& operator<<(unsigned int value) noexcept { return Unsigned(value, kDecimal); }
    LogStream& operator<<(unsigned long value) noexcept { return Unsigned(value, kDecimal); }
    LogStream& operator<<(unsigned long long value) noexcept { return Unsigned(value, kDecimal); }
    ///@}
    ///@{
    /// Floating-point numbers, single and double precision.
    LogStream& operator<<(float value) noexcept
    {
        if (message_ != nullptr) {
            PutFloat32(value);
        }
        return *this;
    }
    LogStream& operator<<(double value) noexcept
    {
        if (message_ != nullptr) {
            PutFloat64(value);
        }
        return *this;
    }
    ///@}
    ///@{
    /// Texts (UTF-8). A null pointer adds nothing. A text of more than 1388 bytes is cut at a
    /// character boundary to at most 1385 bytes followed by "...".
    LogStream& operator<<(const char* text) noexcept
    {
        if (message_ != nullptr && text != nullptr) {
            PutText(text, std::strlen(text));
        }
        return *this;
    }
    LogStream& operator<<(const std::string& text) noexcept { return Chars(text.data(), text.size()); }
#if __cplusplus >= 201703L
    LogStream& operator<<(std::string_view text) noexcept { return Chars(text.data(), text.size()); }
#endif
    ///@}
    /// Any other string-view type (`data()` and `size()`).
    LogStream& operator<<(detail::Text text) noexcept { return Chars(text.data(), text.size()); }
    ///@{
    /// Hexadecimal and binary numbers.
    LogStream& operator<<(LogHex8 value) noexcept { return Unsigned(value.value, kHexadecimal); }
    LogStream& operator<<(LogHex16 value) noexcept { return Unsigned(value.value, kHexadecimal); }
    LogStream& operator<<(LogHex32 value) noexcept { return Unsigned(value.value, kHexadecimal); }
    LogStream& operator<<(LogHex64 value) noexcept { return Unsigned(value.value, kHexadecimal); }
    LogStream& operator<<(LogBin8 value) noexcept { return Unsigned(value.value, kBinary); }
    LogStream& operator<<(LogBin16 value) noexcept { return Unsigned(value.value, kBinary); }
    LogStream& operator<<(LogBin32 value) noexcept { return Unsigned(value.value, kBinary); }
    LogStream& operator<<(LogBin64 value) noexcept { return Unsigned(value.value, kBinary); }
    ///@}
    /// Raw bytes.
    LogStream& operator<<(const LogRawBuffer& value) noexcept
    {
        if (message_ != nullptr && value.buffer != nullptr) {
            PutRaw(value.buffer, value.size);
        }
        return *this;
    }

private:
    friend class Logger;
    friend struct detail::Stream_access;
    static constexpr std::uint8_t kDecimal = static_cast<std::uint8_t>(logferry::LogFormat::kDec);
    static constexpr std::uint8_t kHexadecimal = static_cast<std::uint8_t>(logferry::LogFormat::kHex);
    static constexpr std::uint8_t kBinary = static_cast<std::uint8_t>(logferry::LogFormat::kBin);

    explicit LogStream(detail::Message* message) noexcept : message_(message) {}

    template <typename T>
    LogStream& Signed(T value) noexcept
    {
        if (message_ != nullptr) {
            switch (sizeof(T)) {  // a constant: the compiler keeps one case
            case 1:
                PutInt8(static_cast<std::int8_t>(value));
                break;
            case 2:
                PutInt16(static_cast<std::int16_t>(value));
                break;
            case 4:
                PutInt32(static_cast<std::int32_t>(value));
                break;
            default:
                PutInt64(static_cast<std::int64_t>(value));
                break;
            }
        }
        return *this;
    }
    template <typename T>
    LogStream& Unsigned(T value, std::uint8_t format) noexcept
    {
        if (message_ != nullptr) {
            PutUnsignedOfWidth(static_cast<std::uint64_t>(value), sizeof(T), format);
        }
        return *this;
    }
    void PutUnsignedOfWidth(std::uint64_t value, std::size_t width, std::uint8_t format) noexcept
    {
        switch (width) {  // a constant where inlined: the compiler keeps one case
        case 1:
            PutUint8(static_cast<std::uint8_t>(value), format);
            break;
        case 2:
            PutUint16(static_cast<std::uint16_t>(value), format);
            break;
        case 4:
            PutUint32(static_cast<std::uint32_t>(value), format);
            break;
        default:
            PutUint64(value, format);
            break;
        }
    }
    LogStream& Chars(const char* text, std::size_t size) noexcept
    {
        if (message_ != nullptr) {
            PutText(text, size);
        }
        return *this;
    }

    LOGFERRY_API void Finish() noexcept;
    LOGFERRY_API void Restart() noexcept;
    LOGFERRY_API void PutLocation(detail::Text file, int line) noexcept;
    LOGFERRY_API void PutBool(bool value) noexcept;
    LOGFERRY_API void PutInt8(std::int8_t value) noexcept;
    LOGFERRY_API void PutInt16(std::int16_t value) noexcept;
    LOGFERRY_API void PutInt32(std::int32_t value) noexcept;
    LOGFERRY_API void PutInt64(std::int64_t value) noexcept;
    LOGFERRY_API void PutUint8(std::uint8_t value, std::uint8_t format) noexcept;
    LOGFERRY_API void PutUint16(std::uint16_t value, std::uint8_t format) noexcept;
    LOGFERRY_API void PutUint32(std::uint32_t value, std::uint8_t format) noexcept;
    LOGFERRY_API void PutUint64(std::uint64_t value, std::uint8_t format) noexcept;
    LOGFERRY_API void PutFloat32(float value) noexcept;
    LOGFERRY_API void PutFloat64(double value) noexcept;
    LOGFERRY_API void PutText(const char* text, std::size_t size) noexcept;
    LOGFERRY_API void PutRaw(const void* data, std::size_t size) noexcept;

    detail::Message* message_;
};

namespace detail {
/// What the argument helpers and the library need of a stream beyond its operators.
struct Stream_access {
    /// An unsigned number of `width` bytes with presentation code `format`.
    static void formatted(LogStream& out, std::uint64_t value, std::size_t width, std::uint8_t format) noexcept
    {
        if (out.message_ != nullptr) {
            out.PutUnsignedOfWidth(value, width, format);
        }
    }
    /// The stream's message storage (null for a disabled stream).
    static Message* message(const LogStream& stream) noexcept { return stream.message_; }
};
}  // namespace detail

/// The level's name as a text argument: "Off", "Fatal", "Error", "Warn", "Info", "Debug",
/// "Verbose" (any other value: "Level" and its number).
LOGFERRY_API LogStream& operator<<(LogStream& out, LogLevel level) noexcept;

/// An address, in hexadecimal as wide as a pointer.
inline LogStream& operator<<(LogStream& out, const void* address) noexcept
{
    return out << HexFormat(reinterpret_cast<std::uintptr_t>(address));
}

namespace detail {
/// The unit text of a duration's period: "ns", "us", "ms", "s", "min", "h", else
/// "*num/dens".
LOGFERRY_API std::string unit_text(std::intmax_t num, std::intmax_t den);
template <typename Period>
struct Unit {
    static std::string text() { return unit_text(Period::num, Period::den); }
};
}  // namespace detail

/// A duration as two arguments: its count (a number of the count's type), then its unit as
/// a text ("ms" for milliseconds; see detail::unit_text).
template <typename Rep, typename Period>
LogStream& operator<<(LogStream& out, const std::chrono::duration<Rep, Period>& value) noexcept
{
    out << value.count();
    try {
        out << detail::Unit<Period>::text();
    } catch (...) {  // NOLINT(bugprone-empty-catch): no memory for the unit text: it is left out
    }
    return out;
}

/// A value with a name, a unit and, for integers, a format; made by `Arg`.
template <typename T>
struct Argument {
    const T& value;                 ///< The value (the statement's own).
    detail::Text name;              ///< Its name; empty for none.
    detail::Text unit;              ///< Its unit; empty for none.
    Format format = Format::Dec();  ///< How an integer is shown.
};

/// A named value: on the wire the name (when not empty) is a text argument before the
/// value, the unit (when not empty) a text argument after it. For integers, `format`
/// chooses decimal (signed values stay signed), octal, hexadecimal or binary.
template <typename T>
Argument<T> Arg(const T& value, detail::Text name = {}, detail::Text unit = {}, Format format = Format::Dec()) noexcept
{
    return Argument<T>{value, name, unit, format};
}

namespace detail {
template <typename T>
typename std::enable_if<std::is_integral<T>::value && !std::is_same<T, bool>::value>::type put_value(
    LogStream& out, const T& value, Format format) noexcept
{
    if (format.code == Format::Dec().code) {
        out << value;
    } else {
        Stream_access::formatted(out, static_cast<std::uint64_t>(as_unsigned(value)), sizeof(T), format.code);
    }
}
template <typename T>
typename std::enable_if<!std::is_integral<T>::value || std::is_same<T, bool>::value>::type put_value(
    LogStream& out, const T& value, Format /*format*/) noexcept
{
    out << value;
}
}  // namespace detail

/// Sends name, value and unit of an `Arg` (see `Arg`).
template <typename T>
LogStream& operator<<(LogStream& out, const Argument<T>& argument) noexcept
{
    if (argument.name.size() != 0) {
        out << argument.name;
    }
    detail::put_value(out, argument.value, argument.format);
    if (argument.unit.size() != 0) {
        out << argument.unit;
    }
    return out;
}

/// Lets a temporary stream take any argument that has an `operator<<(LogStream&, const T&)`,
/// including an application's own: `logger.LogInfo() << my_value`.
template <typename T>
LogStream& operator<<(LogStream&& out, const T& value)
{
    return out << value;
}

}  // namespace log
}  // namespace ara

// Any ara::log header gives the whole interface (see logging.h); logger.h and logging.h
// include this one first for the stream alone.
#if !defined(ARA_LOG_LOGGER_H) && !defined(ARA_LOG_LOGGING_H)
#include "ara/log/logging.h"
#endif

#endif  // ARA_LOG_LOG_STREAM_H
