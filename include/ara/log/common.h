// ara::log: the names shared by the whole standard logging interface.
//
// `LogLevel`, `LogMode` and `operator|` for modes are the library's own (logferry/validation.hpp);
// this header adds the client state and the text parameter type that every entry point takes.

#ifndef ARA_LOG_COMMON_H
#define ARA_LOG_COMMON_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

#include "logferry/export.hpp"
#include "logferry/validation.hpp"

// Two namespace blocks: the public headers stay valid C++14 for applications.
namespace ara {  // NOLINT(modernize-concat-nested-namespaces)
namespace log {

/// Whether the log daemon is attached to this application: `kUnknown` before logging is
/// brought up, then `kConnected` or `kNotConnected` as the library last found it.
enum class ClientState : std::int8_t { kUnknown = -1, kNotConnected = 0, kConnected = 1 };

namespace detail {

/// A text parameter: any of `const char*` (null reads as empty), `std::string`,
/// `std::string_view` or any string-view type with `data()` and `size()` (such as a
/// platform's `ara::core::StringView`). It refers to the caller's characters, which must
/// outlive the call; every entry point that keeps a text copies it.
class Text {
public:
    /// The empty text.
    constexpr Text() noexcept = default;
    /// A zero-terminated text; null is the empty text.
    Text(const char* text) noexcept  // NOLINT(google-explicit-constructor): stands in for a string view
        : data_(text != nullptr ? text : ""), size_(text != nullptr ? std::strlen(text) : 0)
    {}
    /// Any type with `data()` (characters) and `size()`.
    template <typename S, typename = decltype(static_cast<const char*>(std::declval<const S&>().data())),
              typename = decltype(static_cast<std::size_t>(std::declval<const S&>().size()))>
    Text(const S& text) noexcept  // NOLINT(google-explicit-constructor): stands in for a string view
        : data_(text.data()), size_(static_cast<std::size_t>(text.size()))
    {}
    /// The first character (not necessarily zero-terminated).
    constexpr const char* data() const noexcept { return data_; }
    /// The number of characters.
    constexpr std::size_t size() const noexcept { return size_; }

private:
    const char* data_ = "";
    std::size_t size_ = 0;
};

}  // namespace detail

}  // namespace log
}  // namespace ara

// Any ara::log header gives the whole interface (see logging.h); the others include this one
// first for its names alone.
#if !defined(ARA_LOG_LOG_STREAM_H) && !defined(ARA_LOG_LOGGER_H) && !defined(ARA_LOG_LOGGING_H)
#include "ara/log/logging.h"
#endif

#endif  // ARA_LOG_COMMON_H
