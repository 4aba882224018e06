#ifndef LOGFERRY_DAEMON_LOG_ARGUMENT_HPP
#define LOGFERRY_DAEMON_LOG_ARGUMENT_HPP

// One argument of a log message as the daemon side passes it on: the collector's in-place
// reading fills it from the records, and the outputs (the DLT encoder among them) take it as it
// is. It names what a value is, not how any output writes it.

#include <cstddef>
#include <cstdint>

namespace logferry_daemon {

/// What an argument of a log message holds.
enum class Arg_kind : std::uint8_t {
    boolean,
    signed_int,
    unsigned_int,
    float32,
    float64,
    text,
    raw,
    encoded_payload,
    encoded_message
};

/// One argument; texts, raw data, payloads and encoded messages are views into the unit's
/// bytes (or the decoder's copy of them), valid while the unit is.
struct Argument {
    Arg_kind kind = Arg_kind::boolean;
    std::uint8_t bits = 0;    ///< 8, 16, 32 or 64 for numbers
    std::uint8_t format = 0;  ///< the record's format code (kinds 14-17 and 21), as sent
    bool boolean = false;
    std::int64_t signed_value = 0;
    std::uint64_t unsigned_value = 0;
    double float_value = 0.0;
    const unsigned char* data = nullptr;  ///< text without its zero, raw data, payload or message bytes
    std::size_t size = 0;
};

}  // namespace logferry_daemon

#endif
