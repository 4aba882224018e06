// Daemon-side decoder of the records that arrive through an application's channel.
//
// Two kinds of input are decoded:
//
//  * a read of the priority area: one or several registration and control records
//    (kinds 0, 1, 2, 3, 5) laid end to end;
//  * one unit popped from the application's ring: either a single record (kinds 0-6,
//    23, 24) or a whole log message, that is start and argument records in call order
//    followed by one finish record, all under the finish record's stream key.
//
// Nothing here throws for bad input and nothing reads outside the given bytes: input
// that is truncated, of an unknown kind or inconsistent yields an `Error` that names
// the problem and where it was found. Records that the encoder deliberately produces
// from unusual values are decoded and marked instead (see `Irregularity`):
//
//  * a payload record (kinds 21-23) whose size field is 0 or above 1389 carries no
//    payload and ends after its fixed fields;
//  * a text record (kind 20) built from a text array without a zero ends after its
//    stream key;
//  * a length field (kinds 3, 5, 20-23) that disagrees with the bytes actually present.
//    The bytes decide where a record ends; the length field is only reported.
//
// Inside a log message a text record may therefore end either after its terminated
// text or directly after its stream key. The decoder takes the text wherever the
// remaining bytes then still form a valid message, and the short form only where they
// do not.
//
// This component is not part of liblogferry; it is linked into the daemon-side tools.

#ifndef LOGFERRY_TOOLS_DECODER_HPP
#define LOGFERRY_TOOLS_DECODER_HPP

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace logferry_decoder {

enum class Error_code : std::uint8_t {
    none = 0,
    empty_input,          // nothing to decode
    truncated,            // the input ends inside a record
    unknown_kind,         // a kind byte above 24
    unexpected_kind,      // a known kind where it cannot stand
    unterminated_field,   // an ID, description or file name without its zero
    invalid_value,        // a level above 6, a boolean above 1
    stream_key_mismatch,  // a record of another stream inside a log message
    missing_finish,       // a log message that does not end with its finish record
    trailing_bytes,       // bytes behind a complete unit
};

/// Short stable name of an error code ("truncated", "unknown-kind", ...).
const char* error_name(Error_code code) noexcept;

struct Error {
    Error_code code = Error_code::none;
    std::size_t offset = 0;  // input position where the problem was found
    int kind = -1;           // kind byte of the record concerned, -1 if none
    std::string detail;      // what exactly is wrong

    bool ok() const noexcept { return code == Error_code::none; }
};

/// One line: "<name> at offset <n> (kind <k>): <detail>".
std::string describe(const Error& error);

/// Marks of records that the encoder produces from unusual values; they are decoded
/// all the same.
enum Irregularity : std::uint8_t {
    length_mismatch = 1,  // the length field differs from the record's size
    text_omitted = 2,     // kind 20 without its text (its text array held no zero)
    payload_omitted = 4,  // kinds 21-23 whose size field is above 1389: no payload
};

/// Name of a record kind ("register_app", "write_int32", ...), "unknown" above 24.
const char* kind_name(int kind) noexcept;

/// Kinds 9 to 22: the records that carry one argument of a log message.
bool is_argument_kind(int kind) noexcept;

/// One decoded record. Only the fields of its kind are meaningful; the others keep
/// their initial values.
struct Record {
    std::uint8_t kind = 0;
    std::size_t offset = 0;  // where the record starts in the input
    std::size_t size = 0;    // bytes it takes in the input

    std::uint16_t length = 0;           // 3, 5, 20, 21, 22, 23: the length field as sent
    std::uint8_t log_level = 0;         // 5, 7, 24
    std::uint32_t context_handle = 0;   // 5, 6, 7, 24
    std::uint32_t stream_key = 0;       // 7 to 22
    std::uint32_t timestamp = 0;        // 7: monotonic clock in 0.1 ms units
    std::string id;                     // 3: application ID, 5: context ID
    std::string text;                   // 2: file name, 3 and 5: description, 20: text
    std::uint8_t format = 0;            // 14 to 17, 21: LogFormat value as sent
    std::uint16_t payload_size = 0;     // 21, 22, 23: the size field as sent
    std::vector<std::uint8_t> payload;  // 21, 22, 23: the payload bytes present

    // Argument value of kinds 9 to 19.
    bool bool_value = false;           // 9
    std::int64_t signed_value = 0;     // 10 to 13
    std::uint64_t unsigned_value = 0;  // 14 to 17
    double float_value = 0.0;          // 18 (widened from single precision), 19
    unsigned int value_bits = 0;       // width of the number sent: 8, 16, 32 or 64

    std::uint8_t irregular = 0;  // Irregularity bits

    bool is(Irregularity mark) const noexcept { return (irregular & mark) != 0; }
};

struct Record_result {
    Record record;
    Error error;
};

/// Decodes the one record that starts at `data[0]`; bytes after it are not looked at
/// (`record.size` tells where it ends). A text record ends after its text when a zero
/// follows within 1390 bytes, otherwise directly after its stream key.
Record_result decode_record(const unsigned char* data, std::size_t size);
Record_result decode_record(const std::vector<unsigned char>& bytes);

struct Priority_read {
    std::vector<Record> records;  // in input order; on error, those before it
    Error error;
};

/// Decodes what one read of the priority area returned: registration and control
/// records end to end. Any other kind is an `unexpected_kind` error.
Priority_read decode_priority_area(const unsigned char* data, std::size_t size);
Priority_read decode_priority_area(const std::vector<unsigned char>& bytes);

enum class Unit_shape : std::uint8_t {
    invalid,        // see `error`
    single_record,  // one record of kind 0-6, 23 or 24
    log_message,    // start and argument records, then the finish record
};

struct Ring_unit {
    Unit_shape shape = Unit_shape::invalid;
    std::vector<Record> records;  // in input order; empty when invalid
    Error error;

    /// Log message: the first start record (a message may lack it, or repeat it when
    /// the application started the same stream twice), else nullptr.
    const Record* start() const noexcept;
    /// Log message: the finish record, else nullptr.
    const Record* finish() const noexcept;
};

/// Decodes one unit popped from the application's ring.
Ring_unit decode_ring_unit(const unsigned char* data, std::size_t size);
Ring_unit decode_ring_unit(const std::vector<unsigned char>& bytes);

}  // namespace logferry_decoder

#endif  // LOGFERRY_TOOLS_DECODER_HPP
