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

#include "message/record_encoding.hpp"

namespace logferry {
namespace {

// Grows `out` by `count` bytes and returns where the new bytes start.
unsigned char* grow(std::vector<unsigned char>& out, std::size_t count)
{
    const std::size_t old_size = out.size();
    out.resize(old_size + count);
    return out.data() + old_size;
}

using encoding::put_u16;
using encoding::put_u32;
using encoding::put_u8;

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

// Payload bytes a payload record writes: `size` when it is 1 to 1389, else none.
std::size_t payload_bytes(std::uint16_t size) noexcept
{
    const auto before = static_cast<std::uint16_t>(size - 1U);
    return before <= RECORD_MAX_PAYLOAD_SIZE - 1 ? size : 0;
}

}  // namespace

void serialize(const Logferry_disable_remote& record, std::vector<unsigned char>& out)
{
    put_u8(grow(out, 1), record.kind);
}

void serialize(const Logferry_enable_local_print& record, std::vector<unsigned char>& out)
{
    put_u8(grow(out, 1), record.kind);
}

void serialize(const Logferry_init_file& record, std::vector<unsigned char>& out)
{
    unsigned char* p = grow(out, 1 + RECORD_FILE_NAME_SIZE);
    p = put_u8(p, record.kind);
    put_array(p, record.file_name, RECORD_FILE_NAME_SIZE);
}

void serialize(const Logferry_register_app& record, std::vector<unsigned char>& out)
{
    const std::size_t text = description_bytes(record.description);
    unsigned char* p = grow(out, 3 + RECORD_ID_SIZE + text);
    p = put_u8(p, record.kind);
    p = put_u16(p, record.length);
    p = put_array(p, record.app_id, RECORD_ID_SIZE);
    put_array(p, record.description, text);
}

void serialize(const Logferry_unregister_app& record, std::vector<unsigned char>& out)
{
    put_u8(grow(out, 1), record.kind);
}

void serialize(const Logferry_register_context& record, std::vector<unsigned char>& out)
{
    const std::size_t text = description_bytes(record.description);
    unsigned char* p = grow(out, 8 + RECORD_ID_SIZE + text);
    p = put_u8(p, record.kind);
    p = put_u16(p, record.length);
    p = put_u8(p, record.log_level);
    p = put_u32(p, record.context_handle);
    p = put_array(p, record.context_id, RECORD_ID_SIZE);
    put_array(p, record.description, text);
}

void serialize(const Logferry_unregister_context& record, std::vector<unsigned char>& out)
{
    unsigned char* p = grow(out, 5);
    p = put_u8(p, record.kind);
    put_u32(p, record.context_handle);
}

void serialize(const Logferry_write_start& record, std::vector<unsigned char>& out)
{
    encoding::encode_start(grow(out, encoding::START_SIZE), record.kind, record.log_level, record.context_handle,
                           record.stream_key, record.timestamp);
}

void serialize(const Logferry_write_finish& record, std::vector<unsigned char>& out)
{
    encoding::encode_finish(grow(out, encoding::FINISH_SIZE), record.kind, record.stream_key);
}

// The plain-number kinds write the stream key before the value; signed values go out in
// two's complement, which their unsigned conversion gives.

void serialize(const Logferry_write_bool& record, std::vector<unsigned char>& out)
{
    encoding::encode_plain_u8(grow(out, encoding::plain_size(1)), record.kind, record.stream_key, record.value);
}

void serialize(const Logferry_write_int8& record, std::vector<unsigned char>& out)
{
    encoding::encode_plain_u8(grow(out, encoding::plain_size(1)), record.kind, record.stream_key,
                              static_cast<std::uint8_t>(record.value));
}

void serialize(const Logferry_write_int16& record, std::vector<unsigned char>& out)
{
    encoding::encode_plain_u16(grow(out, encoding::plain_size(2)), record.kind, record.stream_key,
                               static_cast<std::uint16_t>(record.value));
}

void serialize(const Logferry_write_int32& record, std::vector<unsigned char>& out)
{
    encoding::encode_plain_u32(grow(out, encoding::plain_size(4)), record.kind, record.stream_key,
                               static_cast<std::uint32_t>(record.value));
}

void serialize(const Logferry_write_int64& record, std::vector<unsigned char>& out)
{
    encoding::encode_plain_u64(grow(out, encoding::plain_size(8)), record.kind, record.stream_key,
                               static_cast<std::uint64_t>(record.value));
}

// The formatted kinds write format and value first and the stream key last.

void serialize(const Logferry_write_uint8_formatted& record, std::vector<unsigned char>& out)
{
    encoding::encode_formatted_u8(grow(out, encoding::formatted_size(1)), record.kind, record.format, record.value,
                                  record.stream_key);
}

void serialize(const Logferry_write_uint16_formatted& record, std::vector<unsigned char>& out)
{
    encoding::encode_formatted_u16(grow(out, encoding::formatted_size(2)), record.kind, record.format, record.value,
                                   record.stream_key);
}

void serialize(const Logferry_write_uint32_formatted& record, std::vector<unsigned char>& out)
{
    encoding::encode_formatted_u32(grow(out, encoding::formatted_size(4)), record.kind, record.format, record.value,
                                   record.stream_key);
}

void serialize(const Logferry_write_uint64_formatted& record, std::vector<unsigned char>& out)
{
    encoding::encode_formatted_u64(grow(out, encoding::formatted_size(8)), record.kind, record.format, record.value,
                                   record.stream_key);
}

void serialize(const Logferry_write_float32& record, std::vector<unsigned char>& out)
{
    encoding::encode_plain_memory(grow(out, encoding::plain_size(4)), record.kind, record.stream_key, record.value);
}

void serialize(const Logferry_write_float64& record, std::vector<unsigned char>& out)
{
    encoding::encode_plain_memory(grow(out, encoding::plain_size(8)), record.kind, record.stream_key, record.value);
}

void serialize(const Logferry_write_utf8_string& record, std::vector<unsigned char>& out)
{
    // The text up to and including its first zero; without a zero in the whole array
    // the record deliberately ends after the stream key.
    const void* zero = std::memchr(record.text.data(), 0, record.text.size());
    const std::size_t text =
        zero == nullptr ? 0 : static_cast<std::size_t>(static_cast<const char*>(zero) - record.text.data()) + 1;
    unsigned char* p = grow(out, encoding::TEXT_HEAD_SIZE + text);
    p += encoding::encode_text_head(p, record.kind, record.length, record.stream_key);
    put_array(p, record.text, text);
}

void serialize(const Logferry_write_raw_formatted& record, std::vector<unsigned char>& out)
{
    const std::size_t payload = payload_bytes(record.size);
    unsigned char* p = grow(out, encoding::RAW_HEAD_SIZE + payload);
    p += encoding::encode_raw_head(p, record.kind, record.length, record.format, record.size, record.stream_key);
    put_array(p, record.payload, payload);
}

void serialize(const Logferry_write_encoded_payload& record, std::vector<unsigned char>& out)
{
    const std::size_t payload = payload_bytes(record.size);
    unsigned char* p = grow(out, encoding::ENCODED_PAYLOAD_HEAD_SIZE + payload);
    p += encoding::encode_encoded_payload_head(p, record.kind, record.length, record.size, record.stream_key);
    put_array(p, record.payload, payload);
}

void serialize(const Logferry_write_encoded_message& record, std::vector<unsigned char>& out)
{
    const std::size_t payload = payload_bytes(record.size);
    unsigned char* p = grow(out, encoding::ENCODED_MESSAGE_HEAD_SIZE + payload);
    p += encoding::encode_encoded_message_head(p, record.kind, record.length, record.size);
    put_array(p, record.payload, payload);
}

bool deserialize(const std::vector<unsigned char>& in, unsigned long size,
                 Logferry_update_context_log_level_filter& out)
{
    out.log_level = in.at(1);
    if (out.log_level > static_cast<std::uint8_t>(ara::log::LogLevel::kVerbose)) {
        return false;
    }
    if (size <= 5) {
        return false;
    }
    out.context_handle = static_cast<std::uint32_t>(in.at(2)) | static_cast<std::uint32_t>(in.at(3)) << 8 |
                         static_cast<std::uint32_t>(in.at(4)) << 16 | static_cast<std::uint32_t>(in.at(5)) << 24;
    return true;
}

}  // namespace logferry
