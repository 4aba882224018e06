// DLT version-1 verbose log messages: the message a log call becomes on the DLT side, and
// its encoder. The byte layouts are drawn in dlt_layout.hpp.
//
// Arguments map onto DLT types as follows (the record's format code in parentheses):
//
//  * bool                       -> BOOL, 8 bits
//  * signed integer 8..64       -> SINT of the same width; the format code is ignored
//  * unsigned integer, default (0), decimal (1), octal (3) and raw (6)
//                               -> UINT of the same width, shown in decimal: DLT has no octal
//                                  coding, and a raw format of a single number reads best as
//                                  the number itself
//  * unsigned, hex (2) or hex upper (5)
//                               -> UINT with the hexadecimal coding (DLT clients print 0x...)
//  * unsigned, binary (4)       -> 8 and 16 bits: UINT with the binary coding (0b...);
//                                  32 and 64 bits: the hexadecimal coding, as DLT clients
//                                  render binary only for the narrow widths
//  * float32 / float64          -> FLOA of 32 / 64 bits
//  * text                       -> STRG, UTF-8, its length counting the terminating zero
//  * raw data                   -> RAWD
//  * an already encoded payload -> RAWD of the payload's bytes (clients print them in hex)
//  * an already encoded message -> RAWD of the message's bytes, likewise
//
// Nothing here allocates; the encoder writes straight into the caller's buffer.

#ifndef LOGFERRY_TOOLS_DLT_MESSAGE_HPP
#define LOGFERRY_TOOLS_DLT_MESSAGE_HPP

#include <cstddef>
#include <cstdint>
#include <string>

#include "log_argument.hpp"

namespace logferry_dlt {

// The arguments the encoder takes (see log_argument.hpp).
using Arg_kind = logferry_daemon::Arg_kind;
using Argument = logferry_daemon::Argument;

struct Message {
    char ecu[4] = {};  // not zero-terminated; shorter IDs padded with zeros
    char app[4] = {};
    char context[4] = {};
    std::uint8_t level = 0;       // 1 fatal .. 6 verbose (same numbers in both systems)
    std::uint32_t timestamp = 0;  // 0.1 ms units
    std::uint32_t session_id = 0;
    std::uint8_t counter = 0;  // per-context message counter, wraps at 255
    const Argument* args = nullptr;
    std::size_t arg_count = 0;
};

// Writes one DLT v1 verbose log message (standard header with ECU ID, session ID and timestamp,
// extended header, payload; no storage header) to `out`. Returns the bytes written, 0 if
// `capacity` is too small (or the message would exceed the protocol's 65535-byte length).
std::size_t encode_log_message(const Message& message, unsigned char* out, std::size_t capacity) noexcept;

// The bytes encode_log_message needs for `message` (0 if it cannot be encoded at all).
std::size_t encoded_size(const Message& message) noexcept;

/// A DLT ID (ECU, application, context) of up to four characters, padded with zeros.
void to_dlt_id(const std::string& id, char out[4]) noexcept;

constexpr std::size_t STORAGE_HEADER_SIZE = 16;

// "DLT" 0x01, seconds and microseconds (little-endian u32 each) of the wall clock, ECU ID.
void put_storage_header(unsigned char* out, std::uint32_t seconds, std::int32_t microseconds,
                        const char ecu[4]) noexcept;

}  // namespace logferry_dlt

#endif
