// Record decoder: the reading side of the record encoding, for daemon-side tools.
//
// Every read is preceded by a check that the bytes are there; a record is never read
// past the end of its input, whatever its fields claim.

#include "decoder.hpp"

#include <algorithm>
#include <climits>
#include <cstring>
#include <iterator>
#include <string>
#include <utility>

#include "logferry/message.hpp"
#include "wire/wire.hpp"

namespace logferry_decoder {
namespace {

using namespace logferry;
using namespace logferry::wire;

// Characters of a zero-padded field up to its first zero (at most `width`).
std::string field_text(const unsigned char* p, std::size_t width)
{
    const void* zero = std::memchr(p, 0, width);
    const std::size_t n =
        zero == nullptr ? width : static_cast<std::size_t>(static_cast<const unsigned char*>(zero) - p);
    return {reinterpret_cast<const char*>(p), n};
}

// Index of the first zero among `count` bytes at p, or `count` when there is none.
std::size_t find_zero(const unsigned char* p, std::size_t count) noexcept
{
    const void* zero = count == 0 ? nullptr : std::memchr(p, 0, count);
    return zero == nullptr ? count : static_cast<std::size_t>(static_cast<const unsigned char*>(zero) - p);
}

Error make_error(Error_code code, std::size_t offset, int kind, std::string detail)
{
    Error error;
    error.code = code;
    error.offset = offset;
    error.kind = kind;
    error.detail = std::move(detail);
    return error;
}

// How a text record (kind 20) is taken: with its text up to the first zero, or as the
// short form that ends after the stream key.
enum class Text_form { with_text, header_only };

// What decoding one record found out: its extent and stream key, or an error.
struct Extent {
    Error error;
    std::size_t size = 0;
    std::uint32_t stream_key = 0;
};

Extent extent_of(std::size_t size)
{
    Extent x;
    x.size = size;
    return x;
}

// The record a reader is handed: its bytes from the kind byte on, where it starts in the
// input, how many bytes the input still holds from there and how it is to be taken.
// Offsets given to the error helpers are positions within the record.
struct Reading {
    const unsigned char* p;  // the kind byte
    std::size_t pos;         // where the record starts in the input
    std::size_t left;        // bytes from there to the end of the input
    std::uint8_t kind;
    Text_form form;
    bool copy;  // strings and payloads are wanted, not only the extent

    Extent fail(Error_code code, std::size_t at, std::string detail) const
    {
        Extent x;
        x.error = make_error(code, pos + at, kind, std::move(detail));
        return x;
    }

    // The input ends before the `needed` bytes that the record takes at least.
    Extent too_short(std::size_t needed) const
    {
        return fail(Error_code::truncated, 0,
                    std::string(kind_name(kind)) + " needs " + std::to_string(needed) + " bytes, " +
                        std::to_string(left) + " left");
    }

    Extent bad_level(std::uint8_t level, std::size_t at) const
    {
        return fail(Error_code::invalid_value, at, "log level " + std::to_string(level) + " is above 6");
    }
};

// A reader decodes the fields of one kind (or family of kinds) into the record and tells
// the record's extent; decode_at does what is common to all of them.
using Reader = Extent (*)(const Reading& in, Record& r);

// A little-endian unsigned number of 1, 2, 4 or 8 bytes.
std::uint64_t get_number(const unsigned char* p, std::size_t bytes) noexcept
{
    switch (bytes) {
    case sizeof(std::uint8_t):
        return p[0];
    case sizeof(std::uint16_t):
        return get_u16(p);
    case sizeof(std::uint32_t):
        return get_u32(p);
    default:
        return get_u64(p);
    }
}

// The two's-complement value of the low `bits` bits (1 to 64) of `value`.
std::int64_t sign_extend(std::uint64_t value, unsigned int bits) noexcept
{
    if (bits == 0 || bits >= CHAR_BIT * sizeof(std::uint64_t)) {
        return static_cast<std::int64_t>(value);
    }
    const std::uint64_t sign = std::uint64_t{1} << (bits - 1);
    return static_cast<std::int64_t>((value ^ sign) - sign);
}

unsigned int bits_of(std::size_t bytes) noexcept { return static_cast<unsigned int>(CHAR_BIT * bytes); }

Extent read_unknown(const Reading& in, Record& /*r*/)
{
    return in.fail(Error_code::unknown_kind, 0, "no record kind above 24 exists");
}

// Kinds 0, 1 and 4: the kind byte alone.
Extent read_bare(const Reading& /*in*/, Record& /*r*/) { return extent_of(BARE_SIZE); }

// Kind 2: the file name, zero-padded to its whole field.
Extent read_init_file(const Reading& in, Record& r)
{
    if (in.left < INIT_FILE_SIZE) {
        return in.too_short(INIT_FILE_SIZE);
    }
    const unsigned char* const name = in.p + init_file::FILE_NAME_AT;
    if (find_zero(name, RECORD_FILE_NAME_SIZE) == RECORD_FILE_NAME_SIZE) {
        return in.fail(Error_code::unterminated_field, init_file::FILE_NAME_AT,
                       "file name without its zero in 255 bytes");
    }
    if (in.copy) {
        r.text = field_text(name, RECORD_FILE_NAME_SIZE);
    }
    return extent_of(INIT_FILE_SIZE);
}

// The ID and the description that end kinds 3 and 5: the description runs up to its zero,
// which lies within its 80-byte field.
Extent read_id_and_description(const Reading& in, Record& r, std::size_t id_at, std::size_t text_at,
                               const char* unterminated_id)
{
    if (in.p[id_at + RECORD_ID_SIZE - 1] != 0) {
        return in.fail(Error_code::unterminated_field, id_at, unterminated_id);
    }
    const std::size_t room = std::min(in.left - text_at, RECORD_DESCRIPTION_SIZE);
    const std::size_t n = find_zero(in.p + text_at, room);
    if (n == room) {
        if (room < RECORD_DESCRIPTION_SIZE) {
            return in.fail(Error_code::truncated, text_at,
                           "description runs past the end of the input without its zero");
        }
        return in.fail(Error_code::unterminated_field, text_at, "description without its zero in 80 bytes");
    }
    if (in.copy) {
        r.id = field_text(in.p + id_at, RECORD_ID_SIZE);
        r.text.assign(reinterpret_cast<const char*>(in.p + text_at), n);
    }
    return extent_of(text_at + n + 1);
}

// Kind 3: length, application ID, description.
Extent read_register_app(const Reading& in, Record& r)
{
    constexpr std::size_t shortest = REGISTER_APP_HEAD_SIZE + 1;  // an empty description: its zero
    if (in.left < shortest) {
        return in.too_short(shortest);
    }
    r.length = get_u16(in.p + register_app::LENGTH_AT);
    return read_id_and_description(in, r, register_app::APP_ID_AT, register_app::DESCRIPTION_AT,
                                   "application ID without its zero");
}

// Kind 5: length, level, handle, context ID, description.
Extent read_register_context(const Reading& in, Record& r)
{
    constexpr std::size_t shortest = REGISTER_CONTEXT_HEAD_SIZE + 1;  // an empty description: its zero
    if (in.left < shortest) {
        return in.too_short(shortest);
    }
    r.length = get_u16(in.p + register_context::LENGTH_AT);
    r.log_level = in.p[register_context::LEVEL_AT];
    r.context_handle = get_u32(in.p + register_context::HANDLE_AT);
    if (r.log_level > MAX_LOG_LEVEL) {
        return in.bad_level(r.log_level, register_context::LEVEL_AT);
    }
    return read_id_and_description(in, r, register_context::CONTEXT_ID_AT, register_context::DESCRIPTION_AT,
                                   "context ID without its zero");
}

// Kind 6: the context handle.
Extent read_unregister_context(const Reading& in, Record& r)
{
    if (in.left < UNREGISTER_CONTEXT_SIZE) {
        return in.too_short(UNREGISTER_CONTEXT_SIZE);
    }
    r.context_handle = get_u32(in.p + unregister_context::HANDLE_AT);
    return extent_of(UNREGISTER_CONTEXT_SIZE);
}

// Kind 7: level, context handle, stream key, time stamp.
Extent read_start(const Reading& in, Record& r)
{
    if (in.left < START_SIZE) {
        return in.too_short(START_SIZE);
    }
    r.log_level = in.p[start::LEVEL_AT];
    r.context_handle = get_u32(in.p + start::HANDLE_AT);
    r.stream_key = get_u32(in.p + start::KEY_AT);
    r.timestamp = get_u32(in.p + start::TIMESTAMP_AT);
    if (r.log_level > MAX_LOG_LEVEL) {
        return in.bad_level(r.log_level, start::LEVEL_AT);
    }
    return extent_of(START_SIZE);
}

// Kind 8: the stream key.
Extent read_finish(const Reading& in, Record& r)
{
    if (in.left < FINISH_SIZE) {
        return in.too_short(FINISH_SIZE);
    }
    r.stream_key = get_u32(in.p + finish::KEY_AT);
    return extent_of(FINISH_SIZE);
}

// Kind 9: stream key, then the value as one byte that is 0 or 1.
Extent read_bool(const Reading& in, Record& r)
{
    const std::size_t size = fixed_size(KIND_WRITE_BOOL);
    if (in.left < size) {
        return in.too_short(size);
    }
    r.stream_key = get_u32(in.p + plain::KEY_AT);
    const std::uint8_t value = in.p[plain::VALUE_AT];
    if (value > 1) {
        return in.fail(Error_code::invalid_value, plain::VALUE_AT,
                       "boolean value " + std::to_string(value) + " is neither 0 nor 1");
    }
    r.bool_value = value == 1;
    r.value_bits = bits_of(size - plain::VALUE_AT);
    return extent_of(size);
}

// Kinds 10-13: stream key, then a signed number of 1, 2, 4 or 8 bytes.
Extent read_signed(const Reading& in, Record& r)
{
    const std::size_t size = fixed_size(in.kind);
    if (in.left < size) {
        return in.too_short(size);
    }
    const std::size_t bytes = size - plain::VALUE_AT;
    r.stream_key = get_u32(in.p + plain::KEY_AT);
    r.value_bits = bits_of(bytes);
    r.signed_value = sign_extend(get_number(in.p + plain::VALUE_AT, bytes), r.value_bits);
    return extent_of(size);
}

// Kinds 14-17: format, an unsigned number of 1, 2, 4 or 8 bytes, then the stream key.
Extent read_formatted(const Reading& in, Record& r)
{
    const std::size_t size = fixed_size(in.kind);
    if (in.left < size) {
        return in.too_short(size);
    }
    const std::size_t bytes = size - formatted_size(0);
    r.format = in.p[formatted::FORMAT_AT];
    r.value_bits = bits_of(bytes);
    r.unsigned_value = get_number(in.p + formatted::VALUE_AT, bytes);
    r.stream_key = get_u32(in.p + formatted::key_at(bytes));
    return extent_of(size);
}

// Kinds 18 and 19: stream key, then the float or double as the bytes the encoder took
// from memory.
template <typename T>
Extent read_float(const Reading& in, Record& r)
{
    constexpr std::size_t size = plain_size(sizeof(T));
    if (in.left < size) {
        return in.too_short(size);
    }
    r.stream_key = get_u32(in.p + plain::KEY_AT);
    r.float_value = get_memory<T>(in.p + plain::VALUE_AT);
    r.value_bits = bits_of(sizeof(T));
    return extent_of(size);
}

// Kind 20: length, stream key and the text up to its zero (within 1390 bytes); in the
// short form the record ends after the stream key.
Extent read_text(const Reading& in, Record& r)
{
    if (in.left < TEXT_HEAD_SIZE) {
        return in.too_short(TEXT_HEAD_SIZE);
    }
    r.length = get_u16(in.p + text::LENGTH_AT);
    r.stream_key = get_u32(in.p + text::KEY_AT);
    if (in.form == Text_form::header_only) {
        r.irregular |= text_omitted;
        return extent_of(TEXT_HEAD_SIZE);
    }
    const std::size_t room = std::min(in.left - TEXT_HEAD_SIZE, RECORD_DATA_SIZE);
    const std::size_t n = find_zero(in.p + text::TEXT_AT, room);
    if (n == room) {
        if (room < RECORD_DATA_SIZE) {
            return in.fail(Error_code::truncated, text::TEXT_AT,
                           "text runs past the end of the input without its zero");
        }
        return in.fail(Error_code::unterminated_field, text::TEXT_AT, "text without its zero in 1390 bytes");
    }
    if (in.copy) {
        r.text.assign(reinterpret_cast<const char*>(in.p + text::TEXT_AT), n);
    }
    return extent_of(text_size(n));
}

// The payload behind the `fixed` bytes of fixed fields of kinds 21-23: as many bytes as
// the size field says when that is 1 to 1389, else none.
Extent take_payload(const Reading& in, Record& r, std::size_t fixed)
{
    const std::size_t carried = carried_payload(r.payload_size);
    if (in.left - fixed < carried) {
        return in.fail(
            Error_code::truncated, fixed,
            "payload of " + std::to_string(carried) + " bytes, " + std::to_string(in.left - fixed) + " left");
    }
    if (r.payload_size > RECORD_MAX_PAYLOAD_SIZE) {
        r.irregular |= payload_omitted;
    }
    if (in.copy) {
        r.payload.assign(in.p + fixed, in.p + fixed + carried);
    }
    return extent_of(fixed + carried);
}

// Kind 21: length, format, size, stream key, payload.
Extent read_raw(const Reading& in, Record& r)
{
    if (in.left < RAW_HEAD_SIZE) {
        return in.too_short(RAW_HEAD_SIZE);
    }
    r.length = get_u16(in.p + raw::LENGTH_AT);
    r.format = in.p[raw::FORMAT_AT];
    r.payload_size = get_u16(in.p + raw::SIZE_AT);
    r.stream_key = get_u32(in.p + raw::KEY_AT);
    return take_payload(in, r, RAW_HEAD_SIZE);
}

// Kind 22: length, size, stream key, payload.
Extent read_encoded_payload(const Reading& in, Record& r)
{
    if (in.left < ENCODED_PAYLOAD_HEAD_SIZE) {
        return in.too_short(ENCODED_PAYLOAD_HEAD_SIZE);
    }
    r.length = get_u16(in.p + encoded_payload::LENGTH_AT);
    r.payload_size = get_u16(in.p + encoded_payload::SIZE_AT);
    r.stream_key = get_u32(in.p + encoded_payload::KEY_AT);
    return take_payload(in, r, ENCODED_PAYLOAD_HEAD_SIZE);
}

// Kind 23: length, size, payload; no stream key.
Extent read_encoded_message(const Reading& in, Record& r)
{
    if (in.left < ENCODED_MESSAGE_HEAD_SIZE) {
        return in.too_short(ENCODED_MESSAGE_HEAD_SIZE);
    }
    r.length = get_u16(in.p + encoded_message::LENGTH_AT);
    r.payload_size = get_u16(in.p + encoded_message::SIZE_AT);
    return take_payload(in, r, ENCODED_MESSAGE_HEAD_SIZE);
}

// Kind 24: level, context handle.
Extent read_level_update(const Reading& in, Record& r)
{
    if (in.left < LEVEL_UPDATE_SIZE) {
        return in.too_short(LEVEL_UPDATE_SIZE);
    }
    r.log_level = in.p[level_update::LEVEL_AT];
    r.context_handle = get_u32(in.p + level_update::HANDLE_AT);
    if (r.log_level > MAX_LOG_LEVEL) {
        return in.bad_level(r.log_level, level_update::LEVEL_AT);
    }
    return extent_of(LEVEL_UPDATE_SIZE);
}

// The reader of each record kind.
Reader reader_for(std::uint8_t kind) noexcept
{
    switch (kind) {
    case KIND_DISABLE_REMOTE:
    case KIND_ENABLE_LOCAL_PRINT:
    case KIND_UNREGISTER_APP:
        return read_bare;
    case KIND_INIT_FILE:
        return read_init_file;
    case KIND_REGISTER_APP:
        return read_register_app;
    case KIND_REGISTER_CONTEXT:
        return read_register_context;
    case KIND_UNREGISTER_CONTEXT:
        return read_unregister_context;
    case KIND_WRITE_START:
        return read_start;
    case KIND_WRITE_FINISH:
        return read_finish;
    case KIND_WRITE_BOOL:
        return read_bool;
    case KIND_WRITE_INT8:
    case KIND_WRITE_INT16:
    case KIND_WRITE_INT32:
    case KIND_WRITE_INT64:
        return read_signed;
    case KIND_WRITE_UINT8_FORMATTED:
    case KIND_WRITE_UINT16_FORMATTED:
    case KIND_WRITE_UINT32_FORMATTED:
    case KIND_WRITE_UINT64_FORMATTED:
        return read_formatted;
    case KIND_WRITE_FLOAT32:
        return read_float<float>;
    case KIND_WRITE_FLOAT64:
        return read_float<double>;
    case KIND_WRITE_UTF8_STRING:
        return read_text;
    case KIND_WRITE_RAW_FORMATTED:
        return read_raw;
    case KIND_WRITE_ENCODED_PAYLOAD:
        return read_encoded_payload;
    case KIND_WRITE_ENCODED_MESSAGE:
        return read_encoded_message;
    case KIND_UPDATE_CONTEXT_LOG_LEVEL_FILTER:
        return read_level_update;
    default:
        return read_unknown;
    }
}

// Decodes the record that starts at data[pos]. With `out` null only the extent is
// determined (no strings or payloads are copied).
Extent decode_at(const unsigned char* data, std::size_t size, std::size_t pos, Text_form form, Record* out)
{
    if (pos >= size) {
        Extent x;
        x.error = make_error(Error_code::truncated, pos, -1, "the input ends where a record should start");
        return x;
    }
    Record scratch;
    Record& r = out != nullptr ? *out : scratch;
    r = Record();
    r.kind = data[pos];
    r.offset = pos;
    const Reading in{data + pos, pos, size - pos, r.kind, form, out != nullptr};
    Extent x = reader_for(r.kind)(in, r);
    if (!x.error.ok()) {
        return x;
    }
    if (has_length_field(r.kind) && r.length != x.size) {
        r.irregular |= length_mismatch;
    }
    r.size = x.size;
    x.stream_key = r.stream_key;
    return x;
}

Error misplaced(std::size_t pos, std::uint8_t kind, const char* where)
{
    if (kind > MAX_KIND) {
        return make_error(Error_code::unknown_kind, pos, kind, "no record kind above 24 exists");
    }
    return make_error(Error_code::unexpected_kind, pos, kind, std::string(kind_name(kind)) + " " + where);
}

// Reads a log message record by record, taking a text record's text whenever there is
// one. Sets `ambiguous` when it took the text of a record that could also have been the
// short form.
Ring_unit read_message_greedily(const unsigned char* data, std::size_t size, bool& ambiguous)
{
    Ring_unit unit;
    std::vector<Record> records;
    bool have_key = false;
    std::uint32_t key = 0;
    Error short_form_error;
    std::size_t short_form_end = 0;
    std::size_t pos = 0;
    const auto failed = [&](Error error) {
        unit.error = pos == short_form_end && !short_form_error.ok() ? short_form_error : std::move(error);
        return unit;
    };
    while (pos < size) {
        const std::uint8_t kind = data[pos];
        if (!is_message_kind(kind)) {
            return failed(misplaced(pos, kind, "inside a log message"));
        }
        Record record;
        Extent x = decode_at(data, size, pos, Text_form::with_text, &record);
        if (kind == KIND_WRITE_UTF8_STRING) {
            if (x.error.ok()) {
                ambiguous = true;
            } else {
                // No terminated text here: the short form, if anything. Should the next
                // record fail as well, the missing text is the better explanation.
                short_form_error = x.error;
                short_form_end = pos + TEXT_HEAD_SIZE;
                x = decode_at(data, size, pos, Text_form::header_only, &record);
            }
        }
        if (!x.error.ok()) {
            return failed(x.error);
        }
        if (!have_key) {
            have_key = true;
            key = x.stream_key;
        } else if (x.stream_key != key) {
            return failed(make_error(Error_code::stream_key_mismatch, pos, kind,
                                     "record of stream " + std::to_string(x.stream_key) +
                                         " inside the message of stream " + std::to_string(key)));
        }
        pos += x.size;
        records.push_back(std::move(record));
        if (kind == KIND_WRITE_FINISH) {
            if (pos != size) {
                unit.error = make_error(Error_code::trailing_bytes, pos, -1,
                                        std::to_string(size - pos) + " bytes behind the finish record");
                return unit;
            }
            unit.shape = Unit_shape::log_message;
            unit.records = std::move(records);
            return unit;
        }
    }
    return failed(make_error(Error_code::missing_finish, size, -1, "the log message ends without a finish record"));
}

// The two ways a record may be taken, in the order they are tried.
constexpr Text_form FORMS[] = {Text_form::with_text, Text_form::header_only};

// A log message that ends with a finish record, seen from the stream key of that record.
struct Finished_message {
    const unsigned char* data;
    std::size_t size;
    std::size_t finish_at;  // where the finish record starts
    std::uint32_t key;      // its stream key

    // Extent of the record at `pos` read in `form`, or 0 when it cannot stand there.
    std::size_t extent(std::size_t pos, Text_form form) const
    {
        const std::uint8_t kind = data[pos];
        if (kind == KIND_WRITE_FINISH) {
            return pos == finish_at && form == Text_form::with_text ? FINISH_SIZE : 0;
        }
        if (!is_message_kind(kind) || (form == Text_form::header_only && kind != KIND_WRITE_UTF8_STRING)) {
            return 0;
        }
        const Extent x = decode_at(data, size, pos, form, nullptr);
        return x.error.ok() && x.stream_key == key ? x.size : 0;
    }
};

// Forwards: reachable[pos] is 1 where a record can start, reading from the message's
// first byte in any form.
std::vector<unsigned char> reachable_starts(const Finished_message& message)
{
    std::vector<unsigned char> reachable(message.size + 1, 0);
    reachable[0] = 1;
    for (std::size_t pos = 0; pos < message.finish_at; ++pos) {
        if (reachable[pos] == 0) {
            continue;
        }
        for (const Text_form form : FORMS) {
            const std::size_t n = message.extent(pos, form);
            if (n != 0) {
                reachable[pos + n] = 1;
            }
        }
    }
    return reachable;
}

// Backwards: choice[pos] is 1 + the index in FORMS of the first form in which the record
// at pos leads on to the finish record, 0 when none does or pos is not reachable.
std::vector<unsigned char> completing_forms(const Finished_message& message,
                                            const std::vector<unsigned char>& reachable)
{
    std::vector<unsigned char> choice(message.size + 1, 0);
    choice[message.finish_at] = 1;
    for (std::size_t pos = message.finish_at; pos-- > 0;) {
        if (reachable[pos] == 0) {
            continue;
        }
        for (std::size_t f = 0; f < std::size(FORMS); ++f) {
            const std::size_t n = message.extent(pos, FORMS[f]);
            if (n != 0 && pos + n <= message.finish_at && choice[pos + n] != 0) {
                choice[pos] = static_cast<unsigned char>(f + 1);
                break;
            }
        }
    }
    return choice;
}

// Finds a reading of the whole message in which every record belongs to the stream of
// the finish record that ends it, trying for each text record its text before its short
// form. Positions are visited once forwards (which record starts are reachable) and
// once backwards (from which of them the message can be completed), so the work stays
// linear in the size of the message.
bool read_message_exhaustively(const unsigned char* data, std::size_t size, std::vector<Record>& records)
{
    if (size < FINISH_SIZE || data[size - FINISH_SIZE] != KIND_WRITE_FINISH) {
        return false;
    }
    const std::size_t finish_at = size - FINISH_SIZE;
    const Finished_message message{data, size, finish_at, get_u32(data + finish_at + finish::KEY_AT)};
    const std::vector<unsigned char> reachable = reachable_starts(message);
    if (reachable[finish_at] == 0) {
        return false;
    }
    const std::vector<unsigned char> choice = completing_forms(message, reachable);
    if (choice[0] == 0) {
        return false;
    }
    records.clear();
    for (std::size_t pos = 0; pos < size;) {
        Record record;
        const Extent x = decode_at(data, size, pos, FORMS[choice[pos] - 1], &record);
        pos += x.size;
        records.push_back(std::move(record));
    }
    return true;
}

}  // namespace

const char* error_name(Error_code code) noexcept
{
    switch (code) {
    case Error_code::none:
        return "ok";
    case Error_code::empty_input:
        return "empty-input";
    case Error_code::truncated:
        return "truncated";
    case Error_code::unknown_kind:
        return "unknown-kind";
    case Error_code::unexpected_kind:
        return "unexpected-kind";
    case Error_code::unterminated_field:
        return "unterminated-field";
    case Error_code::invalid_value:
        return "invalid-value";
    case Error_code::stream_key_mismatch:
        return "stream-key-mismatch";
    case Error_code::missing_finish:
        return "missing-finish";
    case Error_code::trailing_bytes:
        return "trailing-bytes";
    }
    return "unknown-error";
}

std::string describe(const Error& error)
{
    std::string text = error_name(error.code);
    if (error.ok()) {
        return text;
    }
    text += " at offset " + std::to_string(error.offset);
    if (error.kind >= 0) {
        text += " (kind " + std::to_string(error.kind) + ")";
    }
    if (!error.detail.empty()) {
        text += ": " + error.detail;
    }
    return text;
}

const char* kind_name(int kind) noexcept
{
    static const char* const names[] = {
        "disable_remote",
        "enable_local_print",
        "init_file",
        "register_app",
        "unregister_app",
        "register_context",
        "unregister_context",
        "write_start",
        "write_finish",
        "write_bool",
        "write_int8",
        "write_int16",
        "write_int32",
        "write_int64",
        "write_uint8_formatted",
        "write_uint16_formatted",
        "write_uint32_formatted",
        "write_uint64_formatted",
        "write_float32",
        "write_float64",
        "write_utf8_string",
        "write_raw_formatted",
        "write_encoded_payload",
        "write_encoded_message",
        "update_context_log_level_filter",
    };
    return kind >= 0 && kind <= MAX_KIND ? names[kind] : "unknown";
}

bool is_argument_kind(int kind) noexcept { return wire::is_argument_kind(kind); }

Record_result decode_record(const unsigned char* data, std::size_t size)
{
    Record_result result;
    if (size == 0) {
        result.error = make_error(Error_code::empty_input, 0, -1, "no bytes to decode");
        return result;
    }
    Extent x = decode_at(data, size, 0, Text_form::with_text, &result.record);
    if (data[KIND_AT] == KIND_WRITE_UTF8_STRING && !x.error.ok() && size >= TEXT_HEAD_SIZE) {
        // No zero follows: the record is the short form that ends after its stream key.
        x = decode_at(data, size, 0, Text_form::header_only, &result.record);
    }
    if (!x.error.ok()) {
        result.record = Record();
        result.error = x.error;
    }
    return result;
}

Record_result decode_record(const std::vector<unsigned char>& bytes)
{
    return decode_record(bytes.data(), bytes.size());
}

Priority_read decode_priority_area(const unsigned char* data, std::size_t size)
{
    Priority_read read;
    if (size == 0) {
        read.error = make_error(Error_code::empty_input, 0, -1, "no bytes to decode");
        return read;
    }
    for (std::size_t pos = 0; pos < size;) {
        const std::uint8_t kind = data[pos];
        if (!is_priority_kind(kind)) {
            read.error = misplaced(pos, kind, "in the priority area");
            return read;
        }
        Record record;
        const Extent x = decode_at(data, size, pos, Text_form::with_text, &record);
        if (!x.error.ok()) {
            read.error = x.error;
            return read;
        }
        pos += x.size;
        read.records.push_back(std::move(record));
    }
    return read;
}

Priority_read decode_priority_area(const std::vector<unsigned char>& bytes)
{
    return decode_priority_area(bytes.data(), bytes.size());
}

Ring_unit decode_ring_unit(const unsigned char* data, std::size_t size)
{
    Ring_unit unit;
    if (size == 0) {
        unit.error = make_error(Error_code::empty_input, 0, -1, "no bytes to decode");
        return unit;
    }
    const std::uint8_t kind = data[KIND_AT];
    if (kind > MAX_KIND) {
        unit.error = misplaced(0, kind, "");
        return unit;
    }
    if (!is_message_kind(kind)) {
        Record record;
        const Extent x = decode_at(data, size, 0, Text_form::with_text, &record);
        if (!x.error.ok()) {
            unit.error = x.error;
        } else if (x.size != size) {
            unit.error = make_error(Error_code::trailing_bytes, x.size, -1,
                                    std::to_string(size - x.size) + " bytes behind the " + kind_name(kind) + " record");
        } else {
            unit.shape = Unit_shape::single_record;
            unit.records.push_back(std::move(record));
        }
        return unit;
    }

    bool ambiguous = false;
    unit = read_message_greedily(data, size, ambiguous);
    if (unit.error.ok() || !ambiguous) {
        return unit;
    }
    // A text record read with its text may have been the short form; look for the
    // reading that makes the whole message consistent.
    std::vector<Record> records;
    if (read_message_exhaustively(data, size, records)) {
        unit.shape = Unit_shape::log_message;
        unit.records = std::move(records);
        unit.error = Error();
    }
    return unit;
}

Ring_unit decode_ring_unit(const std::vector<unsigned char>& bytes)
{
    return decode_ring_unit(bytes.data(), bytes.size());
}

const Record* Ring_unit::start() const noexcept
{
    if (shape != Unit_shape::log_message) {
        return nullptr;
    }
    for (const Record& record : records) {
        if (record.kind == KIND_WRITE_START) {
            return &record;
        }
    }
    return nullptr;
}

const Record* Ring_unit::finish() const noexcept
{
    if (shape != Unit_shape::log_message || records.empty()) {
        return nullptr;
    }
    return &records.back();
}

}  // namespace logferry_decoder
