#include "message_view.hpp"

#include <cstring>

#include "logferry/message.hpp"

namespace logferry_decoder {
namespace {

using logferry_dlt::Arg_kind;
using logferry_dlt::Argument;

constexpr std::uint8_t MAX_LEVEL = 6;
constexpr std::size_t KEY_SIZE = 4;

std::uint16_t u16(const unsigned char* p) noexcept { return static_cast<std::uint16_t>(p[0] | p[1] << 8); }

std::uint32_t u32(const unsigned char* p) noexcept
{
    return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
           static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}

std::uint64_t little_endian(const unsigned char* p, unsigned int bytes) noexcept
{
    std::uint64_t value = 0;
    for (unsigned int i = bytes; i-- > 0;) {
        value = value << 8 | p[i];
    }
    return value;
}

std::int64_t sign_extend(std::uint64_t value, unsigned int bits) noexcept
{
    if (bits == 64) {
        return static_cast<std::int64_t>(value);
    }
    const std::uint64_t sign = std::uint64_t{1} << (bits - 1);
    return static_cast<std::int64_t>((value ^ sign) - sign);
}

// Width in bytes of the value of the number kinds 10-13 and 14-17.
unsigned int value_bytes(std::uint8_t kind) noexcept
{
    switch (kind) {
    case logferry::KIND_WRITE_INT8:
    case logferry::KIND_WRITE_UINT8_FORMATTED:
        return 1;
    case logferry::KIND_WRITE_INT16:
    case logferry::KIND_WRITE_UINT16_FORMATTED:
        return 2;
    case logferry::KIND_WRITE_INT32:
    case logferry::KIND_WRITE_UINT32_FORMATTED:
        return 4;
    default:
        return 8;
    }
}

}  // namespace

Argument& Message_view::next_arg()
{
    if (arg_count == args.size()) {
        args.emplace_back();
    }
    Argument& arg = args[arg_count++];
    arg = Argument();
    return arg;
}

bool Message_view::read(const unsigned char* data, std::size_t size)
{
    has_start = false;
    level = 0;
    context_handle = 0;
    timestamp = 0;
    arg_count = 0;
    single = false;
    error = Error();
    return read_regular(data, size) || read_decoded(data, size);
}

// The common case, read in place. False at the first thing that is not regular.
bool Message_view::read_regular(const unsigned char* p, std::size_t size)
{
    using namespace logferry;
    if (size < 14 + 5 || p[0] != KIND_WRITE_START || p[1] > MAX_LEVEL) {
        return false;
    }
    level = p[1];
    context_handle = u32(p + 2);
    const std::uint32_t key = u32(p + 6);
    timestamp = u32(p + 10);
    std::size_t pos = 14;
    arg_count = 0;
    while (pos < size) {
        const unsigned char* r = p + pos;
        const std::size_t left = size - pos;
        const std::uint8_t kind = r[0];
        std::size_t length = 0;
        std::uint32_t record_key = 0;
        if (kind == KIND_WRITE_FINISH) {
            if (left != 5 || u32(r + 1) != key) {
                return false;
            }
            has_start = true;
            return true;
        }
        if (kind == KIND_WRITE_BOOL || (kind >= KIND_WRITE_INT8 && kind <= KIND_WRITE_INT64)) {
            const unsigned int n = kind == KIND_WRITE_BOOL ? 1 : value_bytes(kind);
            length = 1 + KEY_SIZE + n;
            if (left < length || (kind == KIND_WRITE_BOOL && r[5] > 1)) {
                return false;
            }
            record_key = u32(r + 1);
            Argument& arg = next_arg();
            if (kind == KIND_WRITE_BOOL) {
                arg.kind = Arg_kind::boolean;
                arg.bits = 8;
                arg.boolean = r[5] != 0;
            } else {
                arg.kind = Arg_kind::signed_int;
                arg.bits = static_cast<std::uint8_t>(8 * n);
                arg.signed_value = sign_extend(little_endian(r + 5, n), 8 * n);
            }
        } else if (kind >= KIND_WRITE_UINT8_FORMATTED && kind <= KIND_WRITE_UINT64_FORMATTED) {
            const unsigned int n = value_bytes(kind);
            length = 2 + n + KEY_SIZE;
            if (left < length) {
                return false;
            }
            record_key = u32(r + 2 + n);
            Argument& arg = next_arg();
            arg.kind = Arg_kind::unsigned_int;
            arg.bits = static_cast<std::uint8_t>(8 * n);
            arg.format = r[1];
            arg.unsigned_value = little_endian(r + 2, n);
        } else if (kind == KIND_WRITE_FLOAT32 || kind == KIND_WRITE_FLOAT64) {
            const bool wide = kind == KIND_WRITE_FLOAT64;
            length = 1 + KEY_SIZE + (wide ? 8 : 4);
            if (left < length) {
                return false;
            }
            record_key = u32(r + 1);
            Argument& arg = next_arg();
            if (wide) {
                arg.kind = Arg_kind::float64;
                arg.bits = 64;
                std::memcpy(&arg.float_value, r + 5, 8);
            } else {
                float value = 0.0F;
                std::memcpy(&value, r + 5, 4);
                arg.kind = Arg_kind::float32;
                arg.bits = 32;
                arg.float_value = value;
            }
        } else if (kind == KIND_WRITE_UTF8_STRING) {
            if (left < 8) {
                return false;
            }
            const std::size_t limit = left - 7 < RECORD_DATA_SIZE ? left - 7 : RECORD_DATA_SIZE;
            const void* zero = std::memchr(r + 7, 0, limit);
            if (zero == nullptr) {
                return false;
            }
            const std::size_t text = static_cast<std::size_t>(static_cast<const unsigned char*>(zero) - (r + 7));
            length = 7 + text + 1;
            if (u16(r + 1) != length) {
                return false;
            }
            record_key = u32(r + 3);
            Argument& arg = next_arg();
            arg.kind = Arg_kind::text;
            arg.data = r + 7;
            arg.size = text;
        } else if (kind == KIND_WRITE_RAW_FORMATTED || kind == KIND_WRITE_ENCODED_PAYLOAD) {
            const bool raw = kind == KIND_WRITE_RAW_FORMATTED;
            const std::size_t head = raw ? 10 : 9;
            if (left < head) {
                return false;
            }
            const std::uint16_t carried = u16(r + (raw ? 4 : 3));
            length = head + carried;
            if (carried == 0 || carried > RECORD_MAX_PAYLOAD_SIZE || left < length || u16(r + 1) != length) {
                return false;
            }
            record_key = u32(r + head - KEY_SIZE);
            Argument& arg = next_arg();
            arg.kind = raw ? Arg_kind::raw : Arg_kind::encoded_payload;
            arg.format = raw ? r[3] : 0;
            arg.data = r + head;
            arg.size = carried;
        } else {
            return false;
        }
        if (record_key != key) {
            return false;
        }
        pos += length;
    }
    return false;
}

// Everything else, by the record decoder's rules.
bool Message_view::read_decoded(const unsigned char* data, std::size_t size)
{
    using namespace logferry;
    arg_count = 0;
    decoded_ = decode_ring_unit(data, size);
    if (decoded_.shape != Unit_shape::log_message) {
        single = decoded_.shape == Unit_shape::single_record;
        error = decoded_.error;
        return false;
    }
    const Record* start = decoded_.start();
    if (start != nullptr) {
        has_start = true;
        level = start->log_level;
        context_handle = start->context_handle;
        timestamp = start->timestamp;
    }
    for (const Record& record : decoded_.records) {
        if (!is_argument_kind(record.kind)) {
            continue;
        }
        Argument& arg = next_arg();
        arg.bits = static_cast<std::uint8_t>(record.value_bits);
        arg.format = record.format;
        switch (record.kind) {
        case KIND_WRITE_BOOL:
            arg.kind = Arg_kind::boolean;
            arg.bits = 8;
            arg.boolean = record.bool_value;
            break;
        case KIND_WRITE_FLOAT32:
        case KIND_WRITE_FLOAT64:
            arg.kind = record.kind == KIND_WRITE_FLOAT32 ? Arg_kind::float32 : Arg_kind::float64;
            arg.bits = record.kind == KIND_WRITE_FLOAT32 ? 32 : 64;
            arg.float_value = record.float_value;
            break;
        case KIND_WRITE_UTF8_STRING:
            arg.kind = Arg_kind::text;
            arg.data = reinterpret_cast<const unsigned char*>(record.text.data());
            arg.size = record.text.size();
            break;
        case KIND_WRITE_RAW_FORMATTED:
        case KIND_WRITE_ENCODED_PAYLOAD:
            arg.kind = record.kind == KIND_WRITE_RAW_FORMATTED ? Arg_kind::raw : Arg_kind::encoded_payload;
            arg.data = record.payload.data();
            arg.size = record.payload.size();
            break;
        default:
            if (record.kind >= KIND_WRITE_UINT8_FORMATTED) {
                arg.kind = Arg_kind::unsigned_int;
                arg.unsigned_value = record.unsigned_value;
            } else {
                arg.kind = Arg_kind::signed_int;
                arg.signed_value = record.signed_value;
            }
            break;
        }
    }
    return true;
}

}  // namespace logferry_decoder
