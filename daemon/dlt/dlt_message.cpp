#include "dlt_message.hpp"

#include "dlt_bytes.hpp"
#include "dlt_layout.hpp"

#include <cstring>

namespace logferry_dlt {

namespace {

using namespace layout;

std::uint32_t length_code(std::uint8_t bits) noexcept
{
    switch (bits) {
    case 8:
        return TYLE_8;
    case 16:
        return TYLE_16;
    case 32:
        return TYLE_32;
    case 64:
        return TYLE_64;
    default:
        return 0;
    }
}

// Record format codes (see Argument::format).
constexpr std::uint8_t FORMAT_HEX = 2;
constexpr std::uint8_t FORMAT_BIN = 4;
constexpr std::uint8_t FORMAT_HEX_UPPER = 5;

std::uint32_t unsigned_coding(const Argument& arg) noexcept
{
    switch (arg.format) {
    case FORMAT_HEX:
    case FORMAT_HEX_UPPER:
        return CODING_HEX;
    case FORMAT_BIN:
        return arg.bits <= 16 ? CODING_BIN : CODING_HEX;
    default:
        return 0;  // default, decimal, octal and raw: decimal
    }
}

// The bytes one argument takes (type info included), 0 if it cannot be encoded.
std::size_t argument_size(const Argument& arg) noexcept
{
    switch (arg.kind) {
    case Arg_kind::boolean:
        return TYPE_INFO_SIZE + BOOL_SIZE;
    case Arg_kind::signed_int:
    case Arg_kind::unsigned_int:
        return length_code(arg.bits) != 0 ? TYPE_INFO_SIZE + arg.bits / 8 : 0;
    case Arg_kind::float32:
        return TYPE_INFO_SIZE + FLOAT32_SIZE;
    case Arg_kind::float64:
        return TYPE_INFO_SIZE + FLOAT64_SIZE;
    case Arg_kind::text:
        if (arg.size + 1 > MAX_LENGTH16 || (arg.size != 0 && arg.data == nullptr)) {
            return 0;
        }
        return TYPE_INFO_SIZE + LENGTH16_SIZE + arg.size + 1;
    case Arg_kind::raw:
    case Arg_kind::encoded_payload:
    case Arg_kind::encoded_message:
        if (arg.size > MAX_LENGTH16 || (arg.size != 0 && arg.data == nullptr)) {
            return 0;
        }
        return TYPE_INFO_SIZE + LENGTH16_SIZE + arg.size;
    }
    return 0;
}

unsigned char* put_argument(unsigned char* p, const Argument& arg) noexcept
{
    switch (arg.kind) {
    case Arg_kind::boolean:
        put_le(p, TI_BOOL | TYLE_8, TYPE_INFO_SIZE);
        p[TYPE_INFO_SIZE] = arg.boolean ? 1 : 0;
        return p + TYPE_INFO_SIZE + BOOL_SIZE;
    case Arg_kind::signed_int:
        put_le(p, TI_SINT | length_code(arg.bits), TYPE_INFO_SIZE);
        put_le(p + TYPE_INFO_SIZE, static_cast<std::uint64_t>(arg.signed_value), arg.bits / 8);
        return p + TYPE_INFO_SIZE + arg.bits / 8;
    case Arg_kind::unsigned_int:
        put_le(p, TI_UINT | length_code(arg.bits) | unsigned_coding(arg), TYPE_INFO_SIZE);
        put_le(p + TYPE_INFO_SIZE, arg.unsigned_value, arg.bits / 8);
        return p + TYPE_INFO_SIZE + arg.bits / 8;
    case Arg_kind::float32: {
        put_le(p, TI_FLOA | TYLE_32, TYPE_INFO_SIZE);
        const float value = static_cast<float>(arg.float_value);
        std::uint32_t bits = 0;
        std::memcpy(&bits, &value, sizeof bits);
        put_le(p + TYPE_INFO_SIZE, bits, FLOAT32_SIZE);
        return p + TYPE_INFO_SIZE + FLOAT32_SIZE;
    }
    case Arg_kind::float64: {
        put_le(p, TI_FLOA | TYLE_64, TYPE_INFO_SIZE);
        std::uint64_t bits = 0;
        std::memcpy(&bits, &arg.float_value, sizeof bits);
        put_le(p + TYPE_INFO_SIZE, bits, FLOAT64_SIZE);
        return p + TYPE_INFO_SIZE + FLOAT64_SIZE;
    }
    case Arg_kind::text:
        put_le(p, TI_STRG | CODING_UTF8, TYPE_INFO_SIZE);
        p += TYPE_INFO_SIZE;
        put_le(p, arg.size + 1, LENGTH16_SIZE);
        p += LENGTH16_SIZE;
        if (arg.size != 0) {
            std::memcpy(p, arg.data, arg.size);
        }
        p[arg.size] = 0;
        return p + arg.size + 1;
    case Arg_kind::raw:
    case Arg_kind::encoded_payload:
    case Arg_kind::encoded_message:
        put_le(p, TI_RAWD, TYPE_INFO_SIZE);
        p += TYPE_INFO_SIZE;
        put_le(p, arg.size, LENGTH16_SIZE);
        p += LENGTH16_SIZE;
        if (arg.size != 0) {
            std::memcpy(p, arg.data, arg.size);
        }
        return p + arg.size;
    }
    return p;
}

}  // namespace

std::size_t encoded_size(const Message& message) noexcept
{
    if (message.arg_count > 0xFF || (message.arg_count != 0 && message.args == nullptr)) {
        return 0;
    }
    std::size_t total = HEADERS_SIZE;
    for (std::size_t i = 0; i < message.arg_count; ++i) {
        const std::size_t size = argument_size(message.args[i]);
        if (size == 0) {
            return 0;
        }
        total += size;
        if (total > MAX_MESSAGE_SIZE) {
            return 0;
        }
    }
    return total;
}

std::size_t encode_log_message(const Message& message, unsigned char* out, std::size_t capacity) noexcept
{
    const std::size_t total = encoded_size(message);
    if (total == 0 || total > capacity || out == nullptr) {
        return 0;
    }
    out[STD_HTYP] = HTYP_WRITTEN;
    out[STD_MCNT] = message.counter;
    put_be(out + STD_LEN, total, LEN_SIZE);
    std::memcpy(out + STD_ECU, message.ecu, ECU_SIZE);
    put_be(out + STD_SESSION, message.session_id, SESSION_SIZE);
    put_be(out + STD_TIMESTAMP, message.timestamp, TIMESTAMP_SIZE);
    unsigned char* ext = out + STD_FULL_SIZE;
    ext[EXT_MSIN] = msin(MSTP_LOG, static_cast<std::uint8_t>(message.level & 0x0F), true);
    ext[EXT_NOAR] = static_cast<std::uint8_t>(message.arg_count);
    std::memcpy(ext + EXT_APP, message.app, ID_SIZE);
    std::memcpy(ext + EXT_CONTEXT, message.context, ID_SIZE);
    unsigned char* p = out + HEADERS_SIZE;
    for (std::size_t i = 0; i < message.arg_count; ++i) {
        p = put_argument(p, message.args[i]);
    }
    return total;
}

void put_storage_header(unsigned char* out, std::uint32_t seconds, std::int32_t microseconds,
                        const char ecu[4]) noexcept
{
    std::memcpy(out, STORAGE_PATTERN, sizeof STORAGE_PATTERN);
    put_le(out + STORAGE_SECONDS, seconds, STORAGE_TIME_SIZE);
    put_le(out + STORAGE_MICROS, static_cast<std::uint32_t>(microseconds), STORAGE_TIME_SIZE);
    std::memcpy(out + STORAGE_ECU, ecu, ECU_SIZE);
}

void to_dlt_id(const std::string& id, char out[4]) noexcept
{
    for (std::size_t i = 0; i < ID_SIZE; ++i) {
        out[i] = i < id.size() ? id[i] : '\0';
    }
}

}  // namespace logferry_dlt
