// A log message unit read in place: the start record's level, context handle and time stamp,
// and one argument per argument record, whose texts and payloads point into the unit's bytes.
// Nothing is allocated once the argument array has grown to the widest message seen. The
// arguments are in no output's form: each output (text, DLT) maps them onto its own.
//
// Regular units (start, arguments, finish under one stream key, every length field right,
// every text terminated, every payload carried) are read directly. Any other unit is handed
// to the record decoder (decoder.hpp), so odd records are read by exactly its rules; the
// arguments then point into the decoder's copy, which lives until the next call:
//
//  * a text record without its text       -> an empty text
//  * a payload record that carries none   -> an empty raw argument
//  * a repeated start record              -> skipped (the first start decides)
//  * a message without a start record     -> `has_start` false
//
// Single records (registrations, controls, an encoded message) are not log messages here:
// the caller decodes them with the record decoder.

#ifndef LOGFERRY_TOOLS_DECODER_MESSAGE_VIEW_HPP
#define LOGFERRY_TOOLS_DECODER_MESSAGE_VIEW_HPP

#include <cstddef>
#include <cstdint>
#include <vector>

#include "decoder.hpp"

#include "log_argument.hpp"

namespace logferry_decoder {

class Message_view {
public:
    /// Reads the unit; false when it is not a log message (see `error` when it is invalid,
    /// `single` when it is a single record).
    bool read(const unsigned char* data, std::size_t size);

    bool has_start = false;
    std::uint8_t level = 0;
    std::uint32_t context_handle = 0;
    std::uint32_t timestamp = 0;
    std::vector<logferry_daemon::Argument> args;  // the first arg_count of them are this message's (log_argument.hpp)
    std::size_t arg_count = 0;
    bool single = false;  // a single record, not a log message
    Error error;          // why a unit was neither

private:
    bool read_regular(const unsigned char* data, std::size_t size);
    // The regular argument records: each reads the record at `record`, `left` bytes before
    // the end of the unit, into the next argument and returns its size with its stream key
    // in `key`, or returns 0 when the record is not regular.
    std::size_t read_regular_argument(const unsigned char* record, std::size_t left, std::uint32_t& key);
    std::size_t read_bool(const unsigned char* record, std::size_t left, std::uint32_t& key);
    std::size_t read_signed(const unsigned char* record, std::size_t left, std::uint32_t& key);
    std::size_t read_formatted(const unsigned char* record, std::size_t left, std::uint32_t& key);
    std::size_t read_float(const unsigned char* record, std::size_t left, std::uint32_t& key);
    std::size_t read_text(const unsigned char* record, std::size_t left, std::uint32_t& key);
    std::size_t read_payload(const unsigned char* record, std::size_t left, std::uint32_t& key);
    bool read_decoded(const unsigned char* data, std::size_t size);
    logferry_daemon::Argument& next_arg();

    Ring_unit decoded_;  // the decoder's reading of the last odd unit
};

}  // namespace logferry_decoder

#endif  // LOGFERRY_TOOLS_DECODER_MESSAGE_VIEW_HPP
