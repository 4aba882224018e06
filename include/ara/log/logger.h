// ara::log: loggers, one per logging context.
//
// `CreateLogger` registers a context (a 4-character context ID, a description, a default
// level) and returns its logger; the library owns it and the reference stays valid for the
// whole life of the process. Loggers may be copied: a copy logs to the same context. Every
// member is `const noexcept` and may be called from any number of threads at once.

#ifndef ARA_LOG_LOGGER_H
#define ARA_LOG_LOGGER_H

#include <atomic>
#include <cstdint>

#include "ara/log/common.h"
#include "ara/log/log_stream.h"

// Two namespace blocks: the public headers stay valid C++14 for applications.
namespace ara {  // NOLINT(modernize-concat-nested-namespaces)
namespace log {

namespace detail {
/// The library's record of one context (opaque to applications).
struct Context;
/// The library's access to loggers (opaque to applications).
struct Registry;
}  // namespace detail

/// The logger of one context.
class Logger {
public:
    ///@{
    /// A message of level fatal, error, warn, info, debug or verbose. When the level is not
    /// enabled for this context, the stream is disabled: it costs the level test and nothing
    /// else (no clock read, no encoding, nothing sent).
    LogStream LogFatal() const noexcept { return WithLevel(LogLevel::kFatal); }
    LogStream LogError() const noexcept { return WithLevel(LogLevel::kError); }
    LogStream LogWarn() const noexcept { return WithLevel(LogLevel::kWarn); }
    LogStream LogInfo() const noexcept { return WithLevel(LogLevel::kInfo); }
    LogStream LogDebug() const noexcept { return WithLevel(LogLevel::kDebug); }
    LogStream LogVerbose() const noexcept { return WithLevel(LogLevel::kVerbose); }
    ///@}

    /// A message of the level given at run time (as the six above).
    LogStream WithLevel(LogLevel level) const noexcept { return LogStream(IsEnabled(level) ? Open(level) : nullptr); }

    /// Whether messages of `level` are sent for this context: the level is 1 (fatal) to 6
    /// (verbose) and at most the context's current level, which is its default level until
    /// the daemon sets another one. One relaxed atomic load and one comparison.
    bool IsEnabled(LogLevel level) const noexcept
    {
        // Level 0 (off) wraps to the largest value and is never enabled.
        return static_cast<unsigned int>(static_cast<std::uint8_t>(level)) - 1U <
               static_cast<unsigned int>(threshold_->load(std::memory_order_relaxed));
    }

private:
    friend struct detail::Registry;
    Logger(const std::atomic<std::uint8_t>* threshold, detail::Context* context) noexcept
        : threshold_(threshold), context_(context)
    {}
    // Starts a message: the library's storage with the start record in it, or null when
    // logging has been taken down or no storage can be had.
    LOGFERRY_API detail::Message* Open(LogLevel level) const noexcept;

    const std::atomic<std::uint8_t>* threshold_;
    detail::Context* context_;
};

/// The logger of context `ctxId` (its first 4 characters are its ID on the wire; an empty ID
/// becomes "XXXX"), with a description (at most 79 characters are sent) and default level.
/// Creating a context ID a second time returns the logger made the first time, unchanged.
/// The first logger brings logging up when `InitLogging` has not (see logging.h).
LOGFERRY_API Logger& CreateLogger(detail::Text ctxId, detail::Text ctxDescription, LogLevel ctxDefLogLevel) noexcept;
/// As above, with the application's default level: the one `InitLogging` gives, else
/// LOGFERRY_LOG_LEVEL from the environment, else `kWarn`. Such a logger follows the
/// application's default when `InitLogging` comes later.
LOGFERRY_API Logger& CreateLogger(detail::Text ctxId, detail::Text ctxDescription) noexcept;

}  // namespace log
}  // namespace ara

// Any ara::log header gives the whole interface (see logging.h), which includes this one first
// for the loggers alone.
#ifndef ARA_LOG_LOGGING_H
#include "ara/log/logging.h"
#endif

#endif  // ARA_LOG_LOGGER_H
