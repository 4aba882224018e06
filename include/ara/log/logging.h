// ara::log: the whole standard logging interface: bring-up, loggers, streams, client state.
//
// Bring-up. `InitLogging` names the application, brings the library up (the channel to the
// log daemon and its receiver thread), registers the application and every logger made so
// far, and turns the log mode into requests to the daemon. Code that never calls it still
// works: the first `CreateLogger` brings the library up, and the first message registers the
// application with the values of the environment (the stand-in for the execution manifest):
//   LOGFERRY_APP_ID           application ID (first 4 characters; default: the executable's
//                             name)
//   LOGFERRY_APP_DESCRIPTION  description (default: "application <name>")
//   LOGFERRY_LOG_LEVEL        default level: off, fatal, error, warn, info, debug, verbose
//                             or 0-6 (default: warn)
//   LOGFERRY_LOG_MODE         remote, file, console, combined with '|' or ',' (default:
//                             remote)
//   LOGFERRY_LOG_DIR          directory for file mode (default: none)
// Logging is taken down by itself when the process ends (see docs/ara-log.md); a log call after
// that does nothing.

#ifndef ARA_LOG_LOGGING_H
#define ARA_LOG_LOGGING_H

#include <functional>

#include "ara/log/common.h"
#include "ara/log/log_stream.h"
#include "ara/log/logger.h"

// Two namespace blocks: the public headers stay valid C++14 for applications.
namespace ara {  // NOLINT(modernize-concat-nested-namespaces)
namespace log {

/// Brings logging up for application `appId` (first 4 characters on the wire) with its
/// description (at most 79 characters) and default level. The mode becomes requests to the
/// daemon: `kConsole` asks for local printing, a mode without `kRemote` asks the daemon to
/// stop forwarding, `kFile` asks for the file `directoryPath` + "/" + appId + ".dlt" (the
/// bare name appId + ".dlt" without a directory). A mode outside 1-7 counts as `kConsole`.
/// Called after logging is up (a second call, or after a message was sent without it), it
/// registers the application again under the new values and sends the mode's requests.
LOGFERRY_API void InitLogging(detail::Text appId, detail::Text appDescription, LogLevel appDefLogLevel, LogMode logMode,
                              detail::Text directoryPath = detail::Text()) noexcept;

/// Whether the daemon is attached: `kUnknown` before logging is up, then the receiver
/// thread's last verdict (refreshed about once a second).
LOGFERRY_API ClientState remoteClientState() noexcept;

/// Calls `handler` from the library's receiver thread each time the daemon attaches
/// (`kConnected`) or is lost (`kNotConnected`). When the daemon is already attached as the
/// handler is registered, the handler is also called once at once, on the calling thread, with
/// `kConnected`. A later call replaces the handler; an empty function removes it. The handler
/// must not block.
LOGFERRY_API void RegisterConnectionStateHandler(std::function<void(ClientState)> handler) noexcept;

}  // namespace log
}  // namespace ara

#endif  // ARA_LOG_LOGGING_H
