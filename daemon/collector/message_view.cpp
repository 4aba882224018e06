#include "message_view.hpp"

#include <algorithm>
#include <cstring>

#include "logferry/message.hpp"
#include "wire/wire.hpp"

namespace logferry_decoder {

using logferry_daemon::Arg_kind;
using logferry_daemon::Argument;

namespace {

using namespace logferry;
using namespace logferry::wire;
static_assert(raw::LENGTH_AT == encoded_payload::LENGTH_AT, "one length field");

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
    if (size < START_SIZE + FINISH_SIZE || p[KIND_AT] != KIND_WRITE_START || p[start::LEVEL_AT] > MAX_LOG_LEVEL) {
        return false;
    }
    level = p[start::LEVEL_AT];
    context_handle = get_u32(p + start::HANDLE_AT);
    const std::uint32_t key = get_u32(p + start::KEY_AT);
    timestamp = get_u32(p + start::TIMESTAMP_AT);
    std::size_t pos = START_SIZE;
    arg_count = 0;
    while (pos < size) {
        const unsigned char* r = p + pos;
        const std::size_t left = size - pos;
        if (r[KIND_AT] == KIND_WRITE_FINISH) {
            if (left != FINISH_SIZE || get_u32(r + finish::KEY_AT) != key) {
                return false;
            }
            has_start = true;
            return true;
        }
        std::uint32_t record_key = 0;
        const std::size_t length = read_regular_argument(r, left, record_key);
        if (length == 0 || record_key != key) {
            return false;
        }
        pos += length;
    }
    return false;
}

std::size_t Message_view::read_regular_argument(const unsigned char* r, std::size_t left, std::uint32_t& key)
{
    switch (r[KIND_AT]) {
    case KIND_WRITE_BOOL:
        return read_bool(r, left, key);
    case KIND_WRITE_INT8:
    case KIND_WRITE_INT16:
    case KIND_WRITE_INT32:
    case KIND_WRITE_INT64:
        return read_signed(r, left, key);
    case KIND_WRITE_UINT8_FORMATTED:
    case KIND_WRITE_UINT16_FORMATTED:
    case KIND_WRITE_UINT32_FORMATTED:
    case KIND_WRITE_UINT64_FORMATTED:
        return read_formatted(r, left, key);
    case KIND_WRITE_FLOAT32:
    case KIND_WRITE_FLOAT64:
        return read_float(r, left, key);
    case KIND_WRITE_UTF8_STRING:
        return read_text(r, left, key);
    case KIND_WRITE_RAW_FORMATTED:
    case KIND_WRITE_ENCODED_PAYLOAD:
        return read_payload(r, left, key);
    default:
        return 0;
    }
}

// Kind 9: a value byte that is 0 or 1.
std::size_t Message_view::read_bool(const unsigned char* r, std::size_t left, std::uint32_t& key)
{
    const std::size_t length = fixed_size(KIND_WRITE_BOOL);
    if (left < length || r[plain::VALUE_AT] > 1) {
        return 0;
    }
    key = get_u32(r + plain::KEY_AT);
    Argument& arg = next_arg();
    arg.kind = Arg_kind::boolean;
    arg.bits = 8;
    arg.boolean = r[plain::VALUE_AT] != 0;
    return length;
}

// Kinds 10-13.
std::size_t Message_view::read_signed(const unsigned char* r, std::size_t left, std::uint32_t& key)
{
    const std::size_t length = fixed_size(r[KIND_AT]);
    if (left < length) {
        return 0;
    }
    const auto n = static_cast<unsigned int>(length - plain::VALUE_AT);
    key = get_u32(r + plain::KEY_AT);
    Argument& arg = next_arg();
    arg.kind = Arg_kind::signed_int;
    arg.bits = static_cast<std::uint8_t>(8 * n);
    arg.signed_value = sign_extend(little_endian(r + plain::VALUE_AT, n), 8 * n);
    return length;
}

// Kinds 14-17.
std::size_t Message_view::read_formatted(const unsigned char* r, std::size_t left, std::uint32_t& key)
{
    const std::size_t length = fixed_size(r[KIND_AT]);
    if (left < length) {
        return 0;
    }
    const auto n = static_cast<unsigned int>(length - formatted_size(0));
    key = get_u32(r + formatted::key_at(n));
    Argument& arg = next_arg();
    arg.kind = Arg_kind::unsigned_int;
    arg.bits = static_cast<std::uint8_t>(8 * n);
    arg.format = r[formatted::FORMAT_AT];
    arg.unsigned_value = little_endian(r + formatted::VALUE_AT, n);
    return length;
}

// Kinds 18 and 19: the value as the bytes the application had in memory.
std::size_t Message_view::read_float(const unsigned char* r, std::size_t left, std::uint32_t& key)
{
    const bool wide = r[KIND_AT] == KIND_WRITE_FLOAT64;
    const std::size_t length = wide ? plain_size(sizeof(double)) : plain_size(sizeof(float));
    if (left < length) {
        return 0;
    }
    key = get_u32(r + plain::KEY_AT);
    Argument& arg = next_arg();
    if (wide) {
        arg.kind = Arg_kind::float64;
        arg.bits = 64;
        arg.float_value = get_memory<double>(r + plain::VALUE_AT);
    } else {
        arg.kind = Arg_kind::float32;
        arg.bits = 32;
        arg.float_value = get_memory<float>(r + plain::VALUE_AT);
    }
    return length;
}

// Kind 20: regular when its text ends with a zero within the record's reach and its length
// field counts exactly that.
std::size_t Message_view::read_text(const unsigned char* r, std::size_t left, std::uint32_t& key)
{
    if (left < text_size(0)) {
        return 0;
    }
    const std::size_t limit = std::min(left - TEXT_HEAD_SIZE, RECORD_DATA_SIZE);
    const void* zero = std::memchr(r + text::TEXT_AT, 0, limit);
    if (zero == nullptr) {
        return 0;
    }
    const auto text = static_cast<std::size_t>(static_cast<const unsigned char*>(zero) - (r + text::TEXT_AT));
    const std::size_t length = text_size(text);
    if (get_u16(r + text::LENGTH_AT) != length) {
        return 0;
    }
    key = get_u32(r + text::KEY_AT);
    Argument& arg = next_arg();
    arg.kind = Arg_kind::text;
    arg.data = r + text::TEXT_AT;
    arg.size = text;
    return length;
}

// Kinds 21 and 22: regular when they carry their payload and their length field counts it.
std::size_t Message_view::read_payload(const unsigned char* r, std::size_t left, std::uint32_t& key)
{
    const bool is_raw = r[KIND_AT] == KIND_WRITE_RAW_FORMATTED;
    const std::size_t head = is_raw ? RAW_HEAD_SIZE : ENCODED_PAYLOAD_HEAD_SIZE;
    if (left < head) {
        return 0;
    }
    const std::uint16_t carried = get_u16(r + (is_raw ? raw::SIZE_AT : encoded_payload::SIZE_AT));
    const std::size_t length = head + carried;
    if (carried == 0 || carried > MAX_PAYLOAD_SIZE || left < length || get_u16(r + raw::LENGTH_AT) != length) {
        return 0;
    }
    key = get_u32(r + (is_raw ? raw::KEY_AT : encoded_payload::KEY_AT));
    Argument& arg = next_arg();
    arg.kind = is_raw ? Arg_kind::raw : Arg_kind::encoded_payload;
    arg.format = is_raw ? r[raw::FORMAT_AT] : 0;
    arg.data = r + head;
    arg.size = carried;
    return length;
}

// Everything else, by the record decoder's rules.
bool Message_view::read_decoded(const unsigned char* data, std::size_t size)
{
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
