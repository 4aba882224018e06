#ifndef LOGFERRY_MESSAGE_RECORD_ENCODING_HPP
#define LOGFERRY_MESSAGE_RECORD_ENCODING_HPP

// The byte layout of the log records, written through a pointer.
//
// `serialize` writes every record with these encoders into the tail it has grown its vector
// by; the log-stream hot path writes the same bytes straight into a small buffer on the stack,
// so that a log call neither builds the record structure with its 1390-byte field nor grows a
// vector byte by byte. The variable records (text, raw data, encoded payload, encoded message)
// are split into their fixed head, encoded here, and their body, which the caller copies from
// where it already is. Integers are written little-endian by shifting, floating-point values
// as the bytes of their in-memory representation. Each encoder takes the kind byte to write
// (`serialize` writes the record's own) and returns the number of bytes written.

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "logferry/message.hpp"

namespace logferry::encoding {

inline unsigned char* put_u8(unsigned char* out, std::uint8_t value) noexcept
{
    out[0] = value;
    return out + 1;
}

inline unsigned char* put_u16(unsigned char* out, std::uint16_t value) noexcept
{
    out[0] = static_cast<unsigned char>(value);
    out[1] = static_cast<unsigned char>(value >> 8);
    return out + 2;
}

inline unsigned char* put_u32(unsigned char* out, std::uint32_t value) noexcept
{
    out[0] = static_cast<unsigned char>(value);
    out[1] = static_cast<unsigned char>(value >> 8);
    out[2] = static_cast<unsigned char>(value >> 16);
    out[3] = static_cast<unsigned char>(value >> 24);
    return out + 4;
}

inline unsigned char* put_u64(unsigned char* out, std::uint64_t value) noexcept
{
    put_u32(out, static_cast<std::uint32_t>(value));
    put_u32(out + 4, static_cast<std::uint32_t>(value >> 32));
    return out + 8;
}

// The bytes of the value as it lies in memory, first byte first. Taken by value: a packed
// record's field is not aligned, and a reference to it would be.
template <typename T>
inline unsigned char* put_memory(unsigned char* out, T value) noexcept
{
    std::memcpy(out, &value, sizeof(T));
    return out + sizeof(T);
}

// Sizes of the fixed records and of the heads of the variable ones.
constexpr std::size_t START_SIZE = 14;
constexpr std::size_t FINISH_SIZE = 5;
constexpr std::size_t TEXT_HEAD_SIZE = 7;
constexpr std::size_t RAW_HEAD_SIZE = 10;
constexpr std::size_t ENCODED_PAYLOAD_HEAD_SIZE = 9;
constexpr std::size_t ENCODED_MESSAGE_HEAD_SIZE = 5;
constexpr std::size_t MAX_FIXED_SIZE = 14;
// A plain number record (kind, stream key, value) and a formatted one (kind, format, value,
// stream key) with a value of `value_size` bytes.
constexpr std::size_t plain_size(std::size_t value_size) { return 5 + value_size; }
constexpr std::size_t formatted_size(std::size_t value_size) { return 6 + value_size; }

inline std::size_t encode_start(unsigned char* out, std::uint8_t kind, std::uint8_t level, std::uint32_t handle,
                                std::uint32_t key, std::uint32_t timestamp) noexcept
{
    unsigned char* p = put_u8(out, kind);
    p = put_u8(p, level);
    p = put_u32(p, handle);
    p = put_u32(p, key);
    p = put_u32(p, timestamp);
    return static_cast<std::size_t>(p - out);
}

inline std::size_t encode_finish(unsigned char* out, std::uint8_t kind, std::uint32_t key) noexcept
{
    return static_cast<std::size_t>(put_u32(put_u8(out, kind), key) - out);
}

// Plain numbers (kinds 9-13, 18, 19): kind, stream key, value.
inline std::size_t encode_plain_u8(unsigned char* out, std::uint8_t kind, std::uint32_t key,
                                   std::uint8_t value) noexcept
{
    return static_cast<std::size_t>(put_u8(put_u32(put_u8(out, kind), key), value) - out);
}

inline std::size_t encode_plain_u16(unsigned char* out, std::uint8_t kind, std::uint32_t key,
                                    std::uint16_t value) noexcept
{
    return static_cast<std::size_t>(put_u16(put_u32(put_u8(out, kind), key), value) - out);
}

inline std::size_t encode_plain_u32(unsigned char* out, std::uint8_t kind, std::uint32_t key,
                                    std::uint32_t value) noexcept
{
    return static_cast<std::size_t>(put_u32(put_u32(put_u8(out, kind), key), value) - out);
}

inline std::size_t encode_plain_u64(unsigned char* out, std::uint8_t kind, std::uint32_t key,
                                    std::uint64_t value) noexcept
{
    return static_cast<std::size_t>(put_u64(put_u32(put_u8(out, kind), key), value) - out);
}

template <typename T>
inline std::size_t encode_plain_memory(unsigned char* out, std::uint8_t kind, std::uint32_t key, T value) noexcept
{
    return static_cast<std::size_t>(put_memory(put_u32(put_u8(out, kind), key), value) - out);
}

// Formatted numbers (kinds 14-17): kind, format, value, stream key.
inline std::size_t encode_formatted_u8(unsigned char* out, std::uint8_t kind, std::uint8_t format, std::uint8_t value,
                                       std::uint32_t key) noexcept
{
    unsigned char* p = put_u8(put_u8(out, kind), format);
    return static_cast<std::size_t>(put_u32(put_u8(p, value), key) - out);
}

inline std::size_t encode_formatted_u16(unsigned char* out, std::uint8_t kind, std::uint8_t format, std::uint16_t value,
                                        std::uint32_t key) noexcept
{
    unsigned char* p = put_u8(put_u8(out, kind), format);
    return static_cast<std::size_t>(put_u32(put_u16(p, value), key) - out);
}

inline std::size_t encode_formatted_u32(unsigned char* out, std::uint8_t kind, std::uint8_t format, std::uint32_t value,
                                        std::uint32_t key) noexcept
{
    unsigned char* p = put_u8(put_u8(out, kind), format);
    return static_cast<std::size_t>(put_u32(put_u32(p, value), key) - out);
}

inline std::size_t encode_formatted_u64(unsigned char* out, std::uint8_t kind, std::uint8_t format, std::uint64_t value,
                                        std::uint32_t key) noexcept
{
    unsigned char* p = put_u8(put_u8(out, kind), format);
    return static_cast<std::size_t>(put_u32(put_u64(p, value), key) - out);
}

// Head of a text record (kind 20): kind, length, stream key. The text and its terminating
// zero follow.
inline std::size_t encode_text_head(unsigned char* out, std::uint8_t kind, std::uint16_t length,
                                    std::uint32_t key) noexcept
{
    return static_cast<std::size_t>(put_u32(put_u16(put_u8(out, kind), length), key) - out);
}

// Head of a raw record (kind 21): kind, length, format, size, stream key. `size` payload
// bytes follow when size is 1 to 1389.
inline std::size_t encode_raw_head(unsigned char* out, std::uint8_t kind, std::uint16_t length, std::uint8_t format,
                                   std::uint16_t size, std::uint32_t key) noexcept
{
    unsigned char* p = put_u16(put_u8(out, kind), length);
    return static_cast<std::size_t>(put_u32(put_u16(put_u8(p, format), size), key) - out);
}

// Head of an encoded-payload record (kind 22): kind, length, size, stream key.
inline std::size_t encode_encoded_payload_head(unsigned char* out, std::uint8_t kind, std::uint16_t length,
                                               std::uint16_t size, std::uint32_t key) noexcept
{
    unsigned char* p = put_u16(put_u8(out, kind), length);
    return static_cast<std::size_t>(put_u32(put_u16(p, size), key) - out);
}

// Head of an encoded-message record (kind 23): kind, length, size.
inline std::size_t encode_encoded_message_head(unsigned char* out, std::uint8_t kind, std::uint16_t length,
                                               std::uint16_t size) noexcept
{
    return static_cast<std::size_t>(put_u16(put_u16(put_u8(out, kind), length), size) - out);
}

}  // namespace logferry::encoding

#endif
