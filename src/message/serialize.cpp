// The record encoding: one `serialize` per outgoing record kind, and `deserialize` for
// the level-filter update that the daemon sends back.
//
// Every record is appended in one step: its size is computed first, `out` is grown
// once, and the bytes are written through a pointer into the new tail, with the encoders
// that the log-stream hot path uses as well (one copy of the byte layout). Integers are
// emitted by shifting (little-endian whatever the host), floating-point values as
// their in-memory bytes.

#include "logferry/message.hpp"

#include <cstring>

#include "wire/wire.hpp"

namespace logferry {
namespace {

// Grows `out` by `count` bytes and returns where the new bytes start.
unsigned char* grow(std::vector<unsigned char>& out, std::size_t count)
{
    const std::size_t old_size = out.size();
    out.resize(old_size + count);
    return out.data() + old_size;
}

using wire::put_u16;
using wire::put_u32;
using wire::put_u8;

template <std::size_t N>
unsigned char* put_array(unsigned char* p, const std::array<char, N>& array, std::size_t count) noexcept
{
    if (count != 0) {
        std::memcpy(p, array.data(), count);
    }
    return p + count;
}

template <std::size_t N>
unsigned char* put_array(unsigned char* p, const std::array<std::uint8_t, N>& array, std::size_t count) noexcept
{
    if (count != 0) {
        std::memcpy(p, array.data(), count);
    }
    return p + count;
}

// Number of description bytes a register record writes: the characters up to the
// first zero plus that zero. A description without a zero fails the bounds-checked
// access of index 80, before anything is appended.
std::size_t description_bytes(const std::array<char, RECORD_DESCRIPTION_SIZE>& description)
{
    const void* zero = std::memchr(description.data(), 0, description.size());
    if (zero == nullptr) {
        static_cast<void>(description.at(description.size()));  // throws std::out_of_range
    }
    return static_cast<std::size_t>(static_cast<const char*>(zero) - description.data()) + 1;
}

// A number record (kinds 9-19), laid out as the number table says for the kind its type
// has; the kind byte written is the record's own.
template <typename Record>
void serialize_number(const Record& record, std::vector<unsigned char>& out)
{
    constexpr int kind = Record{}.kind;
    unsigned char* p = grow(out, wire::number_size(kind));
    if constexpr (wire::number_layout(kind).formatted) {
        wire::encode_formatted<kind>(p, record.kind, record.format, record.value, record.stream_key);
    } else {
        wire::encode_plain<kind>(p, record.kind, record.stream_key, record.value);
    }
}

}  // namespace

void serialize(const Logferry_disable_remote& record, std::vector<unsigned char>& out)
{
    put_u8(grow(out, wire::BARE_SIZE), record.kind);
}

void serialize(const Logferry_enable_local_print& record, std::vector<unsigned char>& out)
{
    put_u8(grow(out, wire::BARE_SIZE), record.kind);
}

void serialize(const Logferry_init_file& record, std::vector<unsigned char>& out)
{
    unsigned char* p = grow(out, wire::INIT_FILE_SIZE);
    p = put_u8(p, record.kind);
    put_array(p, record.file_name, RECORD_FILE_NAME_SIZE);
}

void serialize(const Logferry_register_app& record, std::vector<unsigned char>& out)
{
    const std::size_t text = description_bytes(record.description);
    unsigned char* p = grow(out, wire::REGISTER_APP_HEAD_SIZE + text);
    p = put_u8(p, record.kind);
    p = put_u16(p, record.length);
    p = put_array(p, record.app_id, RECORD_ID_SIZE);
    put_array(p, record.description, text);
}

void serialize(const Logferry_unregister_app& record, std::vector<unsigned char>& out)
{
    put_u8(grow(out, wire::BARE_SIZE), record.kind);
}

void serialize(const Logferry_register_context& record, std::vector<unsigned char>& out)
{
    const std::size_t text = description_bytes(record.description);
    unsigned char* p = grow(out, wire::REGISTER_CONTEXT_HEAD_SIZE + text);
    p = put_u8(p, record.kind);
    p = put_u16(p, record.length);
    p = put_u8(p, record.log_level);
    p = put_u32(p, record.context_handle);
    p = put_array(p, record.context_id, RECORD_ID_SIZE);
    put_array(p, record.description, text);
}

void serialize(const Logferry_unregister_context& record, std::vector<unsigned char>& out)
{
    unsigned char* p = grow(out, wire::UNREGISTER_CONTEXT_SIZE);
    p = put_u8(p, record.kind);
    put_u32(p, record.context_handle);
}

void serialize(const Logferry_write_start& record, std::vector<unsigned char>& out)
{
    wire::encode_start(grow(out, wire::START_SIZE), record.kind, record.log_level, record.context_handle,
                       record.stream_key, record.timestamp);
}

void serialize(const Logferry_write_finish& record, std::vector<unsigned char>& out)
{
    wire::encode_finish(grow(out, wire::FINISH_SIZE), record.kind, record.stream_key);
}

// The number records, each by its kind's entry of the number table: the plain kinds write
// the stream key before the value (signed values in two's complement), the formatted kinds
// format and value first and the stream key last.

void serialize(const Logferry_write_bool& record, std::vector<unsigned char>& out) { serialize_number(record, out); }

void serialize(const Logferry_write_int8& record, std::vector<unsigned char>& out) { serialize_number(record, out); }

void serialize(const Logferry_write_int16& record, std::vector<unsigned char>& out) { serialize_number(record, out); }

void serialize(const Logferry_write_int32& record, std::vector<unsigned char>& out) { serialize_number(record, out); }

void serialize(const Logferry_write_int64& record, std::vector<unsigned char>& out) { serialize_number(record, out); }

void serialize(const Logferry_write_uint8_formatted& record, std::vector<unsigned char>& out)
{
    serialize_number(record, out);
}

void serialize(const Logferry_write_uint16_formatted& record, std::vector<unsigned char>& out)
{
    serialize_number(record, out);
}

void serialize(const Logferry_write_uint32_formatted& record, std::vector<unsigned char>& out)
{
    serialize_number(record, out);
}

void serialize(const Logferry_write_uint64_formatted& record, std::vector<unsigned char>& out)
{
    serialize_number(record, out);
}

void serialize(const Logferry_write_float32& record, std::vector<unsigned char>& out) { serialize_number(record, out); }

void serialize(const Logferry_write_float64& record, std::vector<unsigned char>& out) { serialize_number(record, out); }

void serialize(const Logferry_write_utf8_string& record, std::vector<unsigned char>& out)
{
    // The text up to and including its first zero; without a zero in the whole array
    // the record deliberately ends after the stream key.
    const void* zero = std::memchr(record.text.data(), 0, record.text.size());
    const std::size_t text =
        zero == nullptr ? 0 : static_cast<std::size_t>(static_cast<const char*>(zero) - record.text.data()) + 1;
    unsigned char* p = grow(out, wire::TEXT_HEAD_SIZE + text);
    p += wire::encode_text_head(p, record.kind, record.length, record.stream_key);
    put_array(p, record.text, text);
}

void serialize(const Logferry_write_raw_formatted& record, std::vector<unsigned char>& out)
{
    const std::size_t payload = wire::carried_payload(record.size);
    unsigned char* p = grow(out, wire::RAW_HEAD_SIZE + payload);
    p += wire::encode_raw_head(p, record.kind, record.length, record.format, record.size, record.stream_key);
    put_array(p, record.payload, payload);
}

void serialize(const Logferry_write_encoded_payload& record, std::vector<unsigned char>& out)
{
    const std::size_t payload = wire::carried_payload(record.size);
    unsigned char* p = grow(out, wire::ENCODED_PAYLOAD_HEAD_SIZE + payload);
    p += wire::encode_encoded_payload_head(p, record.kind, record.length, record.size, record.stream_key);
    put_array(p, record.payload, payload);
}

void serialize(const Logferry_write_encoded_message& record, std::vector<unsigned char>& out)
{
    const std::size_t payload = wire::carried_payload(record.size);
    unsigned char* p = grow(out, wire::ENCODED_MESSAGE_HEAD_SIZE + payload);
    p += wire::encode_encoded_message_head(p, record.kind, record.length, record.size);
    put_array(p, record.payload, payload);
}

bool deserialize(const std::vector<unsigned char>& in, unsigned long size,
                 Logferry_update_context_log_level_filter& out)
{
    out.log_level = in.at(wire::level_update::LEVEL_AT);
    if (out.log_level > wire::MAX_LOG_LEVEL) {
        return false;
    }
    if (size < wire::LEVEL_UPDATE_SIZE) {
        return false;
    }
    // Every byte of the handle is checked in turn: a vector shorter than `size` claims throws
    // std::out_of_range for its first missing byte before anything is stored.
    for (std::size_t at = wire::level_update::HANDLE_AT; at < wire::LEVEL_UPDATE_SIZE; ++at) {
        static_cast<void>(in.at(at));
    }
    out.context_handle = wire::get_u32(in.data() + wire::level_update::HANDLE_AT);
    return true;
}

}  // namespace logferry
