// logferry: the application's front end.
//
// An application names itself (`set_app_identifier`), brings the library up (`init`),
// registers itself and its contexts (`register_app`, `register_context`) and then writes
// each log message as a stream of calls under a stream key of its choosing:
//
//     logferry::log_start(context_handle, key, level);
//     logferry::log_int32(key, 42);
//     logferry::log_utf8_string(key, "hello world");
//     logferry::log_finish(key);
//
// and finally calls `exit`. Every call turns into message records that travel through the
// application's shared-memory channel to the log daemon. The calls never print; they
// refuse silently (or by a false result) what they cannot take.
//
// All of the library's state lives in the objects declared below, which are exported so
// that the daemon-facing tools and tests can look at them. Lock order where two of the
// mutexes are held together: `application_mutex` before `contexts_mutex`, `filters_mutex`
// before `contexts_mutex`.

#ifndef LOGFERRY_CLIENT_HPP
#define LOGFERRY_CLIENT_HPP

#include <atomic>
#include <cstdint>
#include <mutex>
#include <queue>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "logferry/channel.hpp"
#include "logferry/export.hpp"
#include "logferry/listener.hpp"
#include "logferry/message.hpp"
#include "logferry/validation.hpp"

namespace logferry {

// ---------------------------------------------------------------------------------------
// Library-wide state. Built when the library is loaded, destroyed when it is unloaded.

/// The application's end of its shared-memory channel.
LOGFERRY_API extern Logferry_client client;
/// The application's access to the daemon's list of announced channels.
LOGFERRY_API extern Logferry_listener listener;

/// Application registrations in call order, kept for replay. Guarded by `application_mutex`.
LOGFERRY_API extern std::vector<Logferry_register_app> registered_application;
/// Context handle to its registration record, kept for replay. Guarded by `contexts_mutex`.
LOGFERRY_API extern std::unordered_map<std::uint32_t, Logferry_register_context> registered_contexts;
/// Context handle to the most verbose level it may emit. Guarded by `filters_mutex`.
LOGFERRY_API extern std::unordered_map<std::uint32_t, std::uint8_t> log_level_filters;
/// Stream key to the serialized records of the message under assembly.
/// Guarded by `incomplete_logstream_messages_mutex`.
LOGFERRY_API extern std::unordered_map<std::uint32_t, std::vector<unsigned char>> incomplete_logstream_messages;
/// Serialized registration and control records waiting for the channel's priority area.
/// Guarded by `priority_message_queue_mutex`.
LOGFERRY_API extern std::queue<std::vector<unsigned char>> priority_message_queue;

LOGFERRY_API extern std::mutex application_mutex;                    ///< Guards `registered_application`.
LOGFERRY_API extern std::mutex contexts_mutex;                       ///< Guards `registered_contexts`.
LOGFERRY_API extern std::mutex filters_mutex;                        ///< Guards `log_level_filters`.
LOGFERRY_API extern std::mutex priority_message_queue_mutex;         ///< Guards `priority_message_queue`.
LOGFERRY_API extern std::mutex incomplete_logstream_messages_mutex;  ///< Guards `incomplete_logstream_messages`.

/// Set while the library is initialised (between `init` and `exit`).
LOGFERRY_API extern std::atomic<bool> init_called;
/// No connection to the daemon has been seen yet.
LOGFERRY_API extern std::atomic<bool> first_registration;
/// The registrations must be replayed to the daemon; unforced priority sends are refused.
LOGFERRY_API extern std::atomic<bool> pending_registration;
/// Asks the receiver thread to finish.
LOGFERRY_API extern std::atomic<bool> terminate_receiver_thread;
/// Runs `receiver_thread` between `init` and `exit`.
LOGFERRY_API extern std::thread message_receiver_thread;

// ---------------------------------------------------------------------------------------
// Lifecycle.

/// Forms the channel's identifier: `identifier` + "-" + the last five digits of the
/// process id + "-" + a hexadecimal microsecond stamp of the monotonic clock. Takes effect
/// at the next `init`.
LOGFERRY_API void set_app_identifier(const std::string& identifier);
/// Opens the channel, announces it to the daemon and starts the receiver thread. A second
/// call while initialised does nothing. A daemon that is not running is no error.
LOGFERRY_API void init();
/// Stops the receiver thread and closes channel and listener. Registrations and open
/// messages are kept.
LOGFERRY_API void exit();
/// Opens the channel and announces it in the daemon's listener list; true when both worked.
LOGFERRY_API bool connect_channel();

// ---------------------------------------------------------------------------------------
// Registration.

/// Registers the application (first 4 characters of `app_id`, at most 79 of
/// `description`). False before `init` or for a null text; true otherwise, even when the
/// record must wait for the daemon.
LOGFERRY_API bool register_app(const char* app_id, const char* description);
/// Registers context `context_handle` with its ID, description and default level (0-6).
/// False for a level above 6, before any `register_app` or for a null text.
LOGFERRY_API bool register_context(std::uint32_t context_handle, const char* context_id, const char* description,
                                   std::uint8_t log_level);
/// Withdraws the application's registrations.
LOGFERRY_API void unregister_app();
/// Withdraws the registration and the level filter of one context.
LOGFERRY_API void unregister_context(std::uint32_t context_handle);

/// Whether no priority record is waiting in `priority_message_queue`.
LOGFERRY_API bool is_pending_priority_queue_empty();
/// Places one priority record in the channel's priority area, waiting up to one second
/// for the daemon to empty it; true when the record went in.
LOGFERRY_API bool try_send_priority(const std::vector<unsigned char>& bytes, bool force);
/// Sends one priority record now, or queues it behind those already waiting, and holds
/// back ordinary traffic until the receiver thread releases it.
LOGFERRY_API void submit_priority_record(const std::vector<unsigned char>& bytes);

// ---------------------------------------------------------------------------------------
// Log streams. A message under assembly is named by its stream key; use one key from one
// thread at a time.

/// Opens a message for a registered context; false for a level above 6 or an
/// unregistered context. No level filter is applied here (see `is_log_level_enabled`).
LOGFERRY_API bool log_start(std::uint32_t context_handle, std::uint32_t stream_key, std::uint8_t log_level);
/// \name Arguments
/// Each appends one argument record to the message under `stream_key`, opening the stream
/// if it was not started.
///@{

/// A boolean argument.
LOGFERRY_API void log_bool(std::uint32_t stream_key, bool value);
/// A signed integer argument of the parameter's width.
LOGFERRY_API void log_int8(std::uint32_t stream_key, std::int8_t value);
/// A signed integer argument of the parameter's width.
LOGFERRY_API void log_int16(std::uint32_t stream_key, std::int16_t value);
/// A signed integer argument of the parameter's width.
LOGFERRY_API void log_int32(std::uint32_t stream_key, std::int32_t value);
/// A signed integer argument of the parameter's width.
LOGFERRY_API void log_int64(std::uint32_t stream_key, std::int64_t value);
/// An unsigned integer argument of the parameter's width, with its presentation. The
/// formatted numbers take a format of 0 to 6; any other value is sent as 0.
LOGFERRY_API void log_uint8_formatted(std::uint32_t stream_key, std::uint8_t value, LogFormat format);
/// An unsigned integer argument of the parameter's width, with its presentation (0 to 6,
/// else 0).
LOGFERRY_API void log_uint16_formatted(std::uint32_t stream_key, std::uint16_t value, LogFormat format);
/// An unsigned integer argument of the parameter's width, with its presentation (0 to 6,
/// else 0).
LOGFERRY_API void log_uint32_formatted(std::uint32_t stream_key, std::uint32_t value, LogFormat format);
/// An unsigned integer argument of the parameter's width, with its presentation (0 to 6,
/// else 0).
LOGFERRY_API void log_uint64_formatted(std::uint32_t stream_key, std::uint64_t value, LogFormat format);
/// A single-precision floating-point argument.
LOGFERRY_API void log_float32(std::uint32_t stream_key, float value);
/// A double-precision floating-point argument.
LOGFERRY_API void log_float64(std::uint32_t stream_key, double value);
/// A zero-terminated text of at most 1388 characters; longer texts are dropped, not cut.
LOGFERRY_API void log_utf8_string(std::uint32_t stream_key, const char* text);
/// At most `length` (up to 1388) bytes of `text`, stopping early at a zero byte.
LOGFERRY_API void log_string_view(std::uint32_t stream_key, const char* text, std::uint64_t length);
/// Exactly `length` (up to 1389) bytes of `data`; the format is passed on unchecked.
LOGFERRY_API void log_raw_formatted(std::uint32_t stream_key, const std::uint8_t* data, std::uint16_t length,
                                    LogFormat format);
/// The first `length` (up to 1389) bytes of an already encoded argument.
LOGFERRY_API void log_encoded_payload(std::uint32_t stream_key, const std::vector<unsigned char>& payload,
                                      const std::uint16_t& length);
/// Closes the message and hands it to the channel as one unit.
LOGFERRY_API void log_finish(std::uint32_t stream_key);
/// Sends the first `length` (up to 1389) bytes of an already encoded message at once,
/// outside any stream.
LOGFERRY_API void log_encoded_message(const std::vector<unsigned char>& message, const std::uint16_t& length);
/// Appends serialized records to the message under `stream_key`, opening it if needed.
/// Always true.
LOGFERRY_API bool append_to_logstream(std::uint32_t stream_key, const std::vector<unsigned char>& bytes);

// ---------------------------------------------------------------------------------------
// Requests to the daemon about this application's output. Each travels ahead of ordinary
// traffic, in call order; a request made while no daemon is attached waits for it.

/// Asks the daemon to print this application's messages locally. Always true.
LOGFERRY_API bool enable_local_print();
/// Asks the daemon to stop forwarding this application's messages remotely.
LOGFERRY_API void disable_remote();
/// Asks the daemon to write this application's messages to the file `name` (at most 254
/// characters are sent). False only for a null name.
LOGFERRY_API bool init_file(const char* name);

// ---------------------------------------------------------------------------------------
// Receiver thread and queries.

/// Body of `message_receiver_thread`; returns once `terminate_receiver_thread` is set.
LOGFERRY_API void receiver_thread();
/// Applies one message from the daemon: a level-filter update, or text for standard output.
LOGFERRY_API void handle_daemon_message(std::vector<unsigned char>& bytes);
/// Whether context `context_handle` may emit messages of `level` (1-6). A handle never
/// seen before is entered with level 0 and stays disabled until registered or updated.
LOGFERRY_API bool is_log_level_enabled(unsigned int context_handle, unsigned char level);
/// Whether a message under `stream_key` has been started and not yet finished.
LOGFERRY_API bool is_logstream_enabled(unsigned int stream_key);

}  // namespace logferry

#endif  // LOGFERRY_CLIENT_HPP
