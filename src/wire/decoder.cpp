// Record decoder: the reading side of the record encoding, for daemon-side tools.
//
// Every read is preceded by a check that the bytes are there; a record is never read
// past the end of its input, whatever its fields claim.

#include "decoder.hpp"

#include <cstring>

#include "logferry/message.hpp"
#include "wire/wire.hpp"

namespace logferry_decoder {
namespace {

using namespace logferry;
using namespace logferry::wire;

constexpr std::uint8_t MAX_LEVEL = MAX_LOG_LEVEL;

// Characters of a zero-padded field up to its first zero (at most `width`).
std::string field_text(const unsigned char* p, std::size_t width)
{
    const void* zero = std::memchr(p, 0, width);
    const std::size_t n =
        zero == nullptr ? width : static_cast<std::size_t>(static_cast<const unsigned char*>(zero) - p);
    return std::string(reinterpret_cast<const char*>(p), n);
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

// Decodes the record that starts at data[pos]. With `out` null only the extent is
// determined (no strings or payloads are copied).
Extent decode_at(const unsigned char* data, std::size_t size, std::size_t pos, Text_form form, Record* out)
{
    Extent x;
    if (pos >= size) {
        x.error = make_error(Error_code::truncated, pos, -1, "the input ends where a record should start");
        return x;
    }
    const unsigned char* p = data + pos;
    const std::size_t left = size - pos;
    const std::uint8_t kind = p[0];
    if (kind > MAX_KIND) {
        x.error = make_error(Error_code::unknown_kind, pos, kind, "no record kind above 24 exists");
        return x;
    }
    const auto fail = [&](Error_code code, std::size_t at, std::string detail) {
        x.error = make_error(code, at, kind, std::move(detail));
        return x;
    };
    const auto too_short = [&](std::size_t needed) {
        return fail(Error_code::truncated, pos,
                    std::string(kind_name(kind)) + " needs " + std::to_string(needed) + " bytes, " +
                        std::to_string(left) + " left");
    };
    const auto bad_level = [&](std::uint8_t level, std::size_t at) {
        return fail(Error_code::invalid_value, pos + at, "log level " + std::to_string(level) + " is above 6");
    };

    Record scratch;
    Record& r = out != nullptr ? *out : scratch;
    r = Record();
    r.kind = kind;
    r.offset = pos;

    switch (kind) {
    case KIND_DISABLE_REMOTE:
    case KIND_ENABLE_LOCAL_PRINT:
    case KIND_UNREGISTER_APP:
        x.size = BARE_SIZE;
        break;

    case KIND_INIT_FILE: {
        if (left < INIT_FILE_SIZE) {
            return too_short(INIT_FILE_SIZE);
        }
        const unsigned char* const name = p + init_file::FILE_NAME_AT;
        if (find_zero(name, RECORD_FILE_NAME_SIZE) == RECORD_FILE_NAME_SIZE) {
            return fail(Error_code::unterminated_field, pos + init_file::FILE_NAME_AT,
                        "file name without its zero in 255 bytes");
        }
        if (out != nullptr) {
            r.text = field_text(name, RECORD_FILE_NAME_SIZE);
        }
        x.size = INIT_FILE_SIZE;
        break;
    }

    case KIND_REGISTER_APP:
    case KIND_REGISTER_CONTEXT: {
        const bool app = kind == KIND_REGISTER_APP;
        const std::size_t id_at = app ? register_app::APP_ID_AT : register_context::CONTEXT_ID_AT;
        const std::size_t text_at = app ? register_app::DESCRIPTION_AT : register_context::DESCRIPTION_AT;
        if (left < text_at + 1) {
            return too_short(text_at + 1);
        }
        static_assert(register_app::LENGTH_AT == register_context::LENGTH_AT, "one length field");
        r.length = get_u16(p + register_app::LENGTH_AT);
        if (!app) {
            r.log_level = p[register_context::LEVEL_AT];
            r.context_handle = get_u32(p + register_context::HANDLE_AT);
            if (r.log_level > MAX_LEVEL) {
                return bad_level(r.log_level, register_context::LEVEL_AT);
            }
        }
        if (p[id_at + RECORD_ID_SIZE - 1] != 0) {
            return fail(Error_code::unterminated_field, pos + id_at,
                        app ? "application ID without its zero" : "context ID without its zero");
        }
        const std::size_t room = left - text_at < RECORD_DESCRIPTION_SIZE ? left - text_at : RECORD_DESCRIPTION_SIZE;
        const std::size_t n = find_zero(p + text_at, room);
        if (n == room) {
            if (room < RECORD_DESCRIPTION_SIZE) {
                return fail(Error_code::truncated, pos + text_at,
                            "description runs past the end of the input without its zero");
            }
            return fail(Error_code::unterminated_field, pos + text_at, "description without its zero in 80 bytes");
        }
        if (out != nullptr) {
            r.id = field_text(p + id_at, RECORD_ID_SIZE);
            r.text.assign(reinterpret_cast<const char*>(p + text_at), n);
        }
        x.size = text_at + n + 1;
        break;
    }

    case KIND_UNREGISTER_CONTEXT:
        if (left < UNREGISTER_CONTEXT_SIZE) {
            return too_short(UNREGISTER_CONTEXT_SIZE);
        }
        r.context_handle = get_u32(p + unregister_context::HANDLE_AT);
        x.size = UNREGISTER_CONTEXT_SIZE;
        break;

    case KIND_WRITE_START:
        if (left < START_SIZE) {
            return too_short(START_SIZE);
        }
        r.log_level = p[start::LEVEL_AT];
        r.context_handle = get_u32(p + start::HANDLE_AT);
        r.stream_key = get_u32(p + start::KEY_AT);
        r.timestamp = get_u32(p + start::TIMESTAMP_AT);
        if (r.log_level > MAX_LEVEL) {
            return bad_level(r.log_level, start::LEVEL_AT);
        }
        x.size = START_SIZE;
        break;

    case KIND_WRITE_FINISH:
        if (left < FINISH_SIZE) {
            return too_short(FINISH_SIZE);
        }
        r.stream_key = get_u32(p + finish::KEY_AT);
        x.size = FINISH_SIZE;
        break;

    case KIND_WRITE_BOOL: {
        if (left < plain_size(1)) {
            return too_short(plain_size(1));
        }
        r.stream_key = get_u32(p + plain::KEY_AT);
        const std::uint8_t value = p[plain::VALUE_AT];
        if (value > 1) {
            return fail(Error_code::invalid_value, pos + plain::VALUE_AT,
                        "boolean value " + std::to_string(value) + " is neither 0 nor 1");
        }
        r.bool_value = value == 1;
        r.value_bits = 8;
        x.size = plain_size(1);
        break;
    }

    case KIND_WRITE_INT8:
    case KIND_WRITE_INT16:
    case KIND_WRITE_INT32:
    case KIND_WRITE_INT64: {
        const unsigned int bytes = 1U << (kind - KIND_WRITE_INT8);
        if (left < plain_size(bytes)) {
            return too_short(plain_size(bytes));
        }
        r.stream_key = get_u32(p + plain::KEY_AT);
        r.value_bits = 8 * bytes;
        const unsigned char* const value = p + plain::VALUE_AT;
        switch (bytes) {
        case 1:
            r.signed_value = static_cast<std::int8_t>(value[0]);
            break;
        case 2:
            r.signed_value = static_cast<std::int16_t>(get_u16(value));
            break;
        case 4:
            r.signed_value = static_cast<std::int32_t>(get_u32(value));
            break;
        default:
            r.signed_value = static_cast<std::int64_t>(get_u64(value));
            break;
        }
        x.size = plain_size(bytes);
        break;
    }

    case KIND_WRITE_UINT8_FORMATTED:
    case KIND_WRITE_UINT16_FORMATTED:
    case KIND_WRITE_UINT32_FORMATTED:
    case KIND_WRITE_UINT64_FORMATTED: {
        const unsigned int bytes = 1U << (kind - KIND_WRITE_UINT8_FORMATTED);
        if (left < formatted_size(bytes)) {
            return too_short(formatted_size(bytes));
        }
        r.format = p[formatted::FORMAT_AT];
        r.value_bits = 8 * bytes;
        const unsigned char* const value = p + formatted::VALUE_AT;
        switch (bytes) {
        case 1:
            r.unsigned_value = value[0];
            break;
        case 2:
            r.unsigned_value = get_u16(value);
            break;
        case 4:
            r.unsigned_value = get_u32(value);
            break;
        default:
            r.unsigned_value = get_u64(value);
            break;
        }
        r.stream_key = get_u32(p + formatted::key_at(bytes));
        x.size = formatted_size(bytes);
        break;
    }

    case KIND_WRITE_FLOAT32:
        if (left < plain_size(sizeof(float))) {
            return too_short(plain_size(sizeof(float)));
        }
        r.stream_key = get_u32(p + plain::KEY_AT);
        r.float_value = get_memory<float>(p + plain::VALUE_AT);  // in-memory bytes, as the encoder wrote them
        r.value_bits = 32;
        x.size = plain_size(sizeof(float));
        break;

    case KIND_WRITE_FLOAT64:
        if (left < plain_size(sizeof(double))) {
            return too_short(plain_size(sizeof(double)));
        }
        r.stream_key = get_u32(p + plain::KEY_AT);
        r.float_value = get_memory<double>(p + plain::VALUE_AT);
        r.value_bits = 64;
        x.size = plain_size(sizeof(double));
        break;

    case KIND_WRITE_UTF8_STRING: {
        if (left < TEXT_HEAD_SIZE) {
            return too_short(TEXT_HEAD_SIZE);
        }
        r.length = get_u16(p + text::LENGTH_AT);
        r.stream_key = get_u32(p + text::KEY_AT);
        if (form == Text_form::header_only) {
            r.irregular |= text_omitted;
            x.size = TEXT_HEAD_SIZE;
            break;
        }
        const std::size_t room = left - TEXT_HEAD_SIZE < RECORD_DATA_SIZE ? left - TEXT_HEAD_SIZE : RECORD_DATA_SIZE;
        const std::size_t n = find_zero(p + text::TEXT_AT, room);
        if (n == room) {
            if (room < RECORD_DATA_SIZE) {
                return fail(Error_code::truncated, pos + text::TEXT_AT,
                            "text runs past the end of the input without its zero");
            }
            return fail(Error_code::unterminated_field, pos + text::TEXT_AT, "text without its zero in 1390 bytes");
        }
        if (out != nullptr) {
            r.text.assign(reinterpret_cast<const char*>(p + text::TEXT_AT), n);
        }
        x.size = text_size(n);
        break;
    }

    case KIND_WRITE_RAW_FORMATTED:
    case KIND_WRITE_ENCODED_PAYLOAD:
    case KIND_WRITE_ENCODED_MESSAGE: {
        // Fixed fields: 21 length, format, size, key; 22 length, size, key; 23 length, size.
        const std::size_t fixed = kind == KIND_WRITE_RAW_FORMATTED     ? RAW_HEAD_SIZE
                                  : kind == KIND_WRITE_ENCODED_PAYLOAD ? ENCODED_PAYLOAD_HEAD_SIZE
                                                                       : ENCODED_MESSAGE_HEAD_SIZE;
        if (left < fixed) {
            return too_short(fixed);
        }
        static_assert(raw::LENGTH_AT == encoded_payload::LENGTH_AT && raw::LENGTH_AT == encoded_message::LENGTH_AT,
                      "one length field");
        r.length = get_u16(p + raw::LENGTH_AT);
        if (kind == KIND_WRITE_RAW_FORMATTED) {
            r.format = p[raw::FORMAT_AT];
            r.payload_size = get_u16(p + raw::SIZE_AT);
            r.stream_key = get_u32(p + raw::KEY_AT);
        } else if (kind == KIND_WRITE_ENCODED_PAYLOAD) {
            r.payload_size = get_u16(p + encoded_payload::SIZE_AT);
            r.stream_key = get_u32(p + encoded_payload::KEY_AT);
        } else {
            r.payload_size = get_u16(p + encoded_message::SIZE_AT);
        }
        const std::size_t carried = carried_payload(r.payload_size);
        if (left - fixed < carried) {
            return fail(Error_code::truncated, pos + fixed,
                        "payload of " + std::to_string(carried) + " bytes, " + std::to_string(left - fixed) + " left");
        }
        if (r.payload_size > RECORD_MAX_PAYLOAD_SIZE) {
            r.irregular |= payload_omitted;
        }
        if (out != nullptr) {
            r.payload.assign(p + fixed, p + fixed + carried);
        }
        x.size = fixed + carried;
        break;
    }

    default:  // KIND_UPDATE_CONTEXT_LOG_LEVEL_FILTER
        if (left < LEVEL_UPDATE_SIZE) {
            return too_short(LEVEL_UPDATE_SIZE);
        }
        r.log_level = p[level_update::LEVEL_AT];
        r.context_handle = get_u32(p + level_update::HANDLE_AT);
        if (r.log_level > MAX_LEVEL) {
            return bad_level(r.log_level, level_update::LEVEL_AT);
        }
        x.size = LEVEL_UPDATE_SIZE;
        break;
    }

    if (has_length_field(kind) && r.length != x.size) {
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
    const std::uint32_t key = get_u32(data + finish_at + finish::KEY_AT);

    // Extent of the record at `pos` read in `form`, or 0 when it cannot stand there.
    const auto extent = [&](std::size_t pos, Text_form form) -> std::size_t {
        const std::uint8_t kind = data[pos];
        if (kind == KIND_WRITE_FINISH) {
            return pos == finish_at && form == Text_form::with_text ? FINISH_SIZE : 0;
        }
        if (!is_message_kind(kind) || (form == Text_form::header_only && kind != KIND_WRITE_UTF8_STRING)) {
            return 0;
        }
        const Extent x = decode_at(data, size, pos, form, nullptr);
        return x.error.ok() && x.stream_key == key ? x.size : 0;
    };
    const Text_form forms[] = {Text_form::with_text, Text_form::header_only};

    std::vector<unsigned char> reachable(size + 1, 0);
    reachable[0] = 1;
    for (std::size_t pos = 0; pos < finish_at; ++pos) {
        if (reachable[pos] == 0) {
            continue;
        }
        for (const Text_form form : forms) {
            const std::size_t n = extent(pos, form);
            if (n != 0) {
                reachable[pos + n] = 1;
            }
        }
    }
    if (reachable[finish_at] == 0) {
        return false;
    }

    // choice[pos]: 1 + the form to read the record at pos in, 0 when no completion.
    std::vector<unsigned char> choice(size + 1, 0);
    choice[finish_at] = 1;
    for (std::size_t pos = finish_at; pos-- > 0;) {
        if (reachable[pos] == 0) {
            continue;
        }
        for (unsigned char f = 0; f < 2; ++f) {
            const std::size_t n = extent(pos, forms[f]);
            if (n != 0 && pos + n <= finish_at && choice[pos + n] != 0) {
                choice[pos] = static_cast<unsigned char>(f + 1);
                break;
            }
        }
    }
    if (choice[0] == 0) {
        return false;
    }

    records.clear();
    for (std::size_t pos = 0; pos < size;) {
        Record record;
        const Extent x = decode_at(data, size, pos, forms[choice[pos] - 1], &record);
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
    if (data[0] == KIND_WRITE_UTF8_STRING && !x.error.ok() && size >= TEXT_HEAD_SIZE) {
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
    const std::uint8_t kind = data[0];
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
