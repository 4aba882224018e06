#ifndef LOGFERRY_WIRE_WIRE_HPP
#define LOGFERRY_WIRE_WIRE_HPP

// The byte format of the records: every record kind's size, field offsets and limits, the
// fixed-width little-endian put/get helpers they are written and read with, and the encoders
// of the log records. The encoder (`serialize` and the log-stream hot path), the daemon-side
// decoder and monitor, the test fixtures and the fuzzers take the format from here rather
// than writing an offset or a record size as a literal.
//
// Integers are written little-endian by shifting, whatever the host's byte order;
// floating-point values as the bytes of their in-memory representation. There is no header,
// padding or checksum; the records of one channel message lie end to end. Offsets below are
// byte positions within the record; n is a text's length without its zero.
//
//   kind  record                     bytes                                              size
//    0    disable_remote             0 kind                                                1
//    1    enable_local_print         0 kind                                                1
//    2    init_file                  0 kind | 1 file name[255], zero-padded              256
//    3    register_app               0 kind | 1 length u16 | 3 app ID[5]                 9+n
//                                    | 8 description, zero
//    4    unregister_app             0 kind                                                1
//    5    register_context           0 kind | 1 length u16 | 3 level | 4 handle u32     14+n
//                                    | 8 context ID[5] | 13 description, zero
//    6    unregister_context         0 kind | 1 handle u32                                 5
//    7    write_start                0 kind | 1 level | 2 handle u32 | 6 key u32          14
//                                    | 10 timestamp u32
//    8    write_finish               0 kind | 1 key u32                                    5
//    9-13 write_bool ... int64       0 kind | 1 key u32 | 5 value (1, 1, 2, 4, 8)       5+v
//   14-17 write_uint*_formatted      0 kind | 1 format | 2 value (1, 2, 4, 8)           6+v
//                                    | 2+v key u32
//   18-19 write_float32, float64     0 kind | 1 key u32 | 5 value (4, 8), memory order  5+v
//   20    write_utf8_string          0 kind | 1 length u16 | 3 key u32 | 7 text, zero    8+n
//   21    write_raw_formatted        0 kind | 1 length u16 | 3 format | 4 size u16      10+s
//                                    | 6 key u32 | 10 payload[s]
//   22    write_encoded_payload      0 kind | 1 length u16 | 3 size u16 | 5 key u32      9+s
//                                    | 9 payload[s]
//   23    write_encoded_message      0 kind | 1 length u16 | 3 size u16 | 5 payload[s]   5+s
//   24    update_context_log_level   0 kind | 1 level | 2 handle u32                       6
//         _filter (daemon to application)
//
// Kinds 0, 1, 2, 3 and 5 are the priority kinds; every kind but 22 (never the first record
// of a unit) may open a unit of the application's ring. A payload record carries its s
// payload bytes only when s is 1 to 1389; otherwise it ends after its fixed fields. A text
// record whose text array holds no zero ends after its stream key. The length fields are
// written as the builder computed them and never decide how much is written.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "logferry/message.hpp"
#include "logferry/validation.hpp"

namespace logferry {
namespace wire {

// ---------------------------------------------------------------------------------------
// Fixed-width little-endian coding. Each put writes at `out` and returns the position
// after what it wrote; each get reads the value that starts at `in`.

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

inline std::uint16_t get_u16(const unsigned char* in) noexcept
{
    return static_cast<std::uint16_t>(in[0] | in[1] << 8);
}

inline std::uint32_t get_u32(const unsigned char* in) noexcept
{
    return static_cast<std::uint32_t>(in[0]) | static_cast<std::uint32_t>(in[1]) << 8 |
           static_cast<std::uint32_t>(in[2]) << 16 | static_cast<std::uint32_t>(in[3]) << 24;
}

inline std::uint64_t get_u64(const unsigned char* in) noexcept
{
    return static_cast<std::uint64_t>(get_u32(in)) | static_cast<std::uint64_t>(get_u32(in + 4)) << 32;
}

// A value stored as its in-memory bytes (the floating-point kinds).
template <typename T>
inline T get_memory(const unsigned char* in) noexcept
{
    T value;
    std::memcpy(&value, in, sizeof(T));
    return value;
}

// ---------------------------------------------------------------------------------------
// Limits.

/// The highest record kind.
constexpr std::uint8_t MAX_KIND = KIND_UPDATE_CONTEXT_LOG_LEVEL_FILTER;
/// Log levels a record carries: 0 (off) to 6 (verbose).
constexpr std::uint8_t LOG_LEVEL_OFF = static_cast<std::uint8_t>(ara::log::LogLevel::kOff);
constexpr std::uint8_t MAX_LOG_LEVEL = static_cast<std::uint8_t>(ara::log::LogLevel::kVerbose);
/// Longest text a log call sends: one less than a text record can carry (1389), so a text
/// of 1389 characters or more is dropped, not cut.
constexpr std::size_t MAX_LOGGED_TEXT_LENGTH = RECORD_MAX_TEXT_LENGTH - 1;
/// Longest payload of the raw and encoded records (1389 bytes).
constexpr std::size_t MAX_PAYLOAD_SIZE = RECORD_MAX_PAYLOAD_SIZE;

/// Payload bytes a payload record (kinds 21-23) with this size field carries: the size when
/// it is 1 to 1389, else none.
constexpr std::size_t carried_payload(std::uint16_t size) noexcept
{
    return size >= 1 && size <= MAX_PAYLOAD_SIZE ? size : 0;
}

// ---------------------------------------------------------------------------------------
// Kinds by the roles they may take.

/// Kinds 9 to 22: the records that carry one argument of a log message.
constexpr bool is_argument_kind(int kind) noexcept
{
    return kind >= KIND_WRITE_BOOL && kind <= KIND_WRITE_ENCODED_PAYLOAD;
}

/// The records of a log message: start, argument or finish.
constexpr bool is_message_kind(int kind) noexcept
{
    return kind == KIND_WRITE_START || kind == KIND_WRITE_FINISH || is_argument_kind(kind);
}

/// Kinds the application may send through its ring: every kind but 22 (an encoded payload
/// is never the first record of a unit).
constexpr bool is_ring_kind(int kind) noexcept
{
    return kind >= 0 && kind <= MAX_KIND && kind != KIND_WRITE_ENCODED_PAYLOAD;
}

/// Kinds whose records carry a length field: 3, 5 and 20 to 23.
constexpr bool has_length_field(int kind) noexcept
{
    return kind == KIND_REGISTER_APP || kind == KIND_REGISTER_CONTEXT ||
           (kind >= KIND_WRITE_UTF8_STRING && kind <= KIND_WRITE_ENCODED_MESSAGE);
}

// ---------------------------------------------------------------------------------------
// Field offsets, per kind (`_AT`: where the field starts within the record).

/// Every record.
constexpr std::size_t KIND_AT = 0;

namespace init_file {  // kind 2
constexpr std::size_t FILE_NAME_AT = 1;
}  // namespace init_file

namespace register_app {  // kind 3
constexpr std::size_t LENGTH_AT = 1;
constexpr std::size_t APP_ID_AT = 3;
constexpr std::size_t DESCRIPTION_AT = 8;
}  // namespace register_app

namespace register_context {  // kind 5
constexpr std::size_t LENGTH_AT = 1;
constexpr std::size_t LEVEL_AT = 3;
constexpr std::size_t HANDLE_AT = 4;
constexpr std::size_t CONTEXT_ID_AT = 8;
constexpr std::size_t DESCRIPTION_AT = 13;
}  // namespace register_context

namespace unregister_context {  // kind 6
constexpr std::size_t HANDLE_AT = 1;
}  // namespace unregister_context

namespace start {  // kind 7
constexpr std::size_t LEVEL_AT = 1;
constexpr std::size_t HANDLE_AT = 2;
constexpr std::size_t KEY_AT = 6;
constexpr std::size_t TIMESTAMP_AT = 10;
}  // namespace start

namespace finish {  // kind 8
constexpr std::size_t KEY_AT = 1;
}  // namespace finish

namespace plain {  // kinds 9-13, 18, 19: the stream key before the value
constexpr std::size_t KEY_AT = 1;
constexpr std::size_t VALUE_AT = 5;
}  // namespace plain

namespace formatted {  // kinds 14-17: format and value first, the stream key last
constexpr std::size_t FORMAT_AT = 1;
constexpr std::size_t VALUE_AT = 2;
/// Where the stream key starts behind a value of `value_size` bytes.
constexpr std::size_t key_at(std::size_t value_size) { return VALUE_AT + value_size; }
}  // namespace formatted

namespace text {  // kind 20
constexpr std::size_t LENGTH_AT = 1;
constexpr std::size_t KEY_AT = 3;
constexpr std::size_t TEXT_AT = 7;
}  // namespace text

namespace raw {  // kind 21
constexpr std::size_t LENGTH_AT = 1;
constexpr std::size_t FORMAT_AT = 3;
constexpr std::size_t SIZE_AT = 4;
constexpr std::size_t KEY_AT = 6;
constexpr std::size_t PAYLOAD_AT = 10;
}  // namespace raw

namespace encoded_payload {  // kind 22
constexpr std::size_t LENGTH_AT = 1;
constexpr std::size_t SIZE_AT = 3;
constexpr std::size_t KEY_AT = 5;
constexpr std::size_t PAYLOAD_AT = 9;
}  // namespace encoded_payload

namespace encoded_message {  // kind 23
constexpr std::size_t LENGTH_AT = 1;
constexpr std::size_t SIZE_AT = 3;
constexpr std::size_t PAYLOAD_AT = 5;
}  // namespace encoded_message

namespace level_update {  // kind 24
constexpr std::size_t LEVEL_AT = 1;
constexpr std::size_t HANDLE_AT = 2;
}  // namespace level_update

// ---------------------------------------------------------------------------------------
// Sizes of the fixed records and of the fixed heads of the variable ones.

constexpr std::size_t BARE_SIZE = 1;  // kinds 0, 1, 4: the kind alone
constexpr std::size_t INIT_FILE_SIZE = init_file::FILE_NAME_AT + RECORD_FILE_NAME_SIZE;
constexpr std::size_t REGISTER_APP_HEAD_SIZE = register_app::DESCRIPTION_AT;
constexpr std::size_t REGISTER_CONTEXT_HEAD_SIZE = register_context::DESCRIPTION_AT;
constexpr std::size_t UNREGISTER_CONTEXT_SIZE = unregister_context::HANDLE_AT + 4;
constexpr std::size_t START_SIZE = start::TIMESTAMP_AT + 4;
constexpr std::size_t FINISH_SIZE = finish::KEY_AT + 4;
constexpr std::size_t TEXT_HEAD_SIZE = text::TEXT_AT;
constexpr std::size_t RAW_HEAD_SIZE = raw::PAYLOAD_AT;
constexpr std::size_t ENCODED_PAYLOAD_HEAD_SIZE = encoded_payload::PAYLOAD_AT;
constexpr std::size_t ENCODED_MESSAGE_HEAD_SIZE = encoded_message::PAYLOAD_AT;
constexpr std::size_t LEVEL_UPDATE_SIZE = level_update::HANDLE_AT + 4;
/// The largest record without a text or payload (the start record and the 64-bit numbers).
constexpr std::size_t MAX_FIXED_SIZE = 14;

/// A plain number record (kind, stream key, value) and a formatted one (kind, format, value,
/// stream key) with a value of `value_size` bytes.
constexpr std::size_t plain_size(std::size_t value_size) { return plain::VALUE_AT + value_size; }
constexpr std::size_t formatted_size(std::size_t value_size) { return formatted::key_at(value_size) + 4; }

/// A text record (and its length field) with a text of `length` characters and its zero.
constexpr std::size_t text_size(std::size_t length) { return TEXT_HEAD_SIZE + length + 1; }

// ---------------------------------------------------------------------------------------
// The number records (kinds 9-19): the one table of which value each carries and how, and of
// the kind a typed argument travels in. The free functions, ara::log and `serialize` all
// choose their record and encoder through it.

/// How a number kind carries its value: `value_size` bytes, as a little-endian integer
/// (signed values in two's complement) or, `floating`, as the bytes of a float or double in
/// memory; in the plain layout (kind, stream key, value) or, `formatted`, in the formatted
/// one (kind, format, value, stream key).
struct Number_layout {
    std::uint8_t value_size;  // 0: not a number kind
    bool floating;
    bool formatted;
};

// The table, kinds 9 to 19 in order.
inline constexpr Number_layout NUMBER_LAYOUTS[] = {
    {1, false, false},  //  9 bool
    {1, false, false},  // 10 int8
    {2, false, false},  // 11 int16
    {4, false, false},  // 12 int32
    {8, false, false},  // 13 int64
    {1, false, true},   // 14 uint8, formatted
    {2, false, true},   // 15 uint16, formatted
    {4, false, true},   // 16 uint32, formatted
    {8, false, true},   // 17 uint64, formatted
    {4, true, false},   // 18 float32
    {8, true, false},   // 19 float64
};
static_assert(sizeof NUMBER_LAYOUTS / sizeof NUMBER_LAYOUTS[0] == KIND_WRITE_FLOAT64 - KIND_WRITE_BOOL + 1,
              "one entry a number kind");

constexpr Number_layout number_layout(int kind) noexcept
{
    return kind >= KIND_WRITE_BOOL && kind <= KIND_WRITE_FLOAT64 ? NUMBER_LAYOUTS[kind - KIND_WRITE_BOOL]
                                                                 : Number_layout{0, false, false};
}

/// The size of a number record of this kind; 0 for the other kinds.
constexpr std::size_t number_size(int kind) noexcept
{
    const Number_layout layout = number_layout(kind);
    if (layout.value_size == 0) {
        return 0;
    }
    return layout.formatted ? formatted_size(layout.value_size) : plain_size(layout.value_size);
}

/// The kind an argument of type T travels in: bool, the signed integers and the
/// floating-point types in their plain record, the unsigned integers in their formatted one;
/// 0 for any other type.
template <typename T>
constexpr std::uint8_t argument_kind = std::is_same<T, bool>::value            ? KIND_WRITE_BOOL
                                       : std::is_same<T, std::int8_t>::value   ? KIND_WRITE_INT8
                                       : std::is_same<T, std::int16_t>::value  ? KIND_WRITE_INT16
                                       : std::is_same<T, std::int32_t>::value  ? KIND_WRITE_INT32
                                       : std::is_same<T, std::int64_t>::value  ? KIND_WRITE_INT64
                                       : std::is_same<T, std::uint8_t>::value  ? KIND_WRITE_UINT8_FORMATTED
                                       : std::is_same<T, std::uint16_t>::value ? KIND_WRITE_UINT16_FORMATTED
                                       : std::is_same<T, std::uint32_t>::value ? KIND_WRITE_UINT32_FORMATTED
                                       : std::is_same<T, std::uint64_t>::value ? KIND_WRITE_UINT64_FORMATTED
                                       : std::is_same<T, float>::value         ? KIND_WRITE_FLOAT32
                                       : std::is_same<T, double>::value        ? KIND_WRITE_FLOAT64
                                                                               : 0;
/// The size of the record of an argument of type T.
template <typename T>
constexpr std::size_t argument_size = number_size(argument_kind<T>);

/// The unsigned integer of `Size` bytes.
template <std::size_t Size>
using Unsigned_of = std::conditional_t<
    Size == 1, std::uint8_t,
    std::conditional_t<Size == 2, std::uint16_t, std::conditional_t<Size == 4, std::uint32_t, std::uint64_t>>>;
/// The type a number kind's value is written as.
template <int Kind>
using Number_value = std::conditional_t<number_layout(Kind).floating,
                                        std::conditional_t<number_layout(Kind).value_size == 4, float, double>,
                                        Unsigned_of<number_layout(Kind).value_size>>;

/// The size of a record of a fixed-size kind; 0 for the kinds whose size follows from a
/// text or payload (3, 5, 20-23) and for unknown kinds.
constexpr std::size_t fixed_size(int kind) noexcept
{
    switch (kind) {
    case KIND_DISABLE_REMOTE:
    case KIND_ENABLE_LOCAL_PRINT:
    case KIND_UNREGISTER_APP:
        return BARE_SIZE;
    case KIND_INIT_FILE:
        return INIT_FILE_SIZE;
    case KIND_UNREGISTER_CONTEXT:
        return UNREGISTER_CONTEXT_SIZE;
    case KIND_WRITE_START:
        return START_SIZE;
    case KIND_WRITE_FINISH:
        return FINISH_SIZE;
    case KIND_UPDATE_CONTEXT_LOG_LEVEL_FILTER:
        return LEVEL_UPDATE_SIZE;
    default:
        return number_size(kind);
    }
}

// ---------------------------------------------------------------------------------------
// Encoders. Each takes the kind byte to write (`serialize` writes the record's own) and
// returns the number of bytes written. The variable records are split into their fixed
// head, encoded here, and their body, which the caller copies from where it already is.

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

// The value of a number record, as its kind writes it.
inline unsigned char* put_value(unsigned char* out, std::uint8_t value) noexcept { return put_u8(out, value); }
inline unsigned char* put_value(unsigned char* out, std::uint16_t value) noexcept { return put_u16(out, value); }
inline unsigned char* put_value(unsigned char* out, std::uint32_t value) noexcept { return put_u32(out, value); }
inline unsigned char* put_value(unsigned char* out, std::uint64_t value) noexcept { return put_u64(out, value); }
inline unsigned char* put_value(unsigned char* out, float value) noexcept { return put_memory(out, value); }
inline unsigned char* put_value(unsigned char* out, double value) noexcept { return put_memory(out, value); }

// A plain number record of kind `Kind` (kinds 9-13, 18, 19): kind, stream key, value. The
// value is given in a type of the kind's width (a signed one goes out as its two's
// complement, a bool as 0 or 1).
template <int Kind, typename T>
inline std::size_t encode_plain(unsigned char* out, std::uint8_t kind, std::uint32_t key, T value) noexcept
{
    static_assert(number_layout(Kind).value_size != 0 && !number_layout(Kind).formatted, "a plain number kind");
    static_assert(sizeof(T) == sizeof(Number_value<Kind>), "a value of the kind's width");
    unsigned char* p = put_u32(put_u8(out, kind), key);
    return static_cast<std::size_t>(put_value(p, static_cast<Number_value<Kind>>(value)) - out);
}

// A formatted number record of kind `Kind` (kinds 14-17): kind, format, value, stream key.
template <int Kind, typename T>
inline std::size_t encode_formatted(unsigned char* out, std::uint8_t kind, std::uint8_t format, T value,
                                    std::uint32_t key) noexcept
{
    static_assert(number_layout(Kind).formatted, "a formatted number kind");
    static_assert(sizeof(T) == sizeof(Number_value<Kind>), "a value of the kind's width");
    unsigned char* p = put_u8(put_u8(out, kind), format);
    return static_cast<std::size_t>(put_u32(put_value(p, static_cast<Number_value<Kind>>(value)), key) - out);
}

// The record of an argument of type T, of the kind it travels in (argument_kind); the
// unsigned integers with their format.
template <typename T>
inline std::size_t encode_argument(unsigned char* out, std::uint32_t key, T value) noexcept
{
    static_assert(argument_kind<T> != 0, "a number argument");
    return encode_plain<argument_kind<T>>(out, argument_kind<T>, key, value);
}

template <typename T>
inline std::size_t encode_argument(unsigned char* out, std::uint32_t key, T value, std::uint8_t format) noexcept
{
    static_assert(argument_kind<T> != 0, "a number argument");
    return encode_formatted<argument_kind<T>>(out, argument_kind<T>, format, value, key);
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

// The level-filter update the daemon sends (kind 24): kind, level, handle.
inline std::size_t encode_level_update(unsigned char* out, std::uint8_t level, std::uint32_t handle) noexcept
{
    unsigned char* p = put_u8(out, KIND_UPDATE_CONTEXT_LOG_LEVEL_FILTER);
    return static_cast<std::size_t>(put_u32(put_u8(p, level), handle) - out);
}

// ---------------------------------------------------------------------------------------
// The offsets above are those of the packed records in memory (apart from the plain-number
// kinds, which declare the value first and write the stream key first); pin them.

static_assert(offsetof(Logferry_init_file, file_name) == init_file::FILE_NAME_AT, "record layout");
static_assert(sizeof(Logferry_init_file) == INIT_FILE_SIZE, "record layout");

static_assert(offsetof(Logferry_register_app, length) == register_app::LENGTH_AT, "record layout");
static_assert(offsetof(Logferry_register_app, app_id) == register_app::APP_ID_AT, "record layout");
static_assert(offsetof(Logferry_register_app, description) == register_app::DESCRIPTION_AT, "record layout");
static_assert(REGISTER_APP_MIN_LENGTH == REGISTER_APP_HEAD_SIZE, "record layout");

static_assert(offsetof(Logferry_register_context, length) == register_context::LENGTH_AT, "record layout");
static_assert(offsetof(Logferry_register_context, log_level) == register_context::LEVEL_AT, "record layout");
static_assert(offsetof(Logferry_register_context, context_handle) == register_context::HANDLE_AT, "record layout");
static_assert(offsetof(Logferry_register_context, context_id) == register_context::CONTEXT_ID_AT, "record layout");
static_assert(offsetof(Logferry_register_context, description) == register_context::DESCRIPTION_AT, "record layout");
static_assert(REGISTER_CONTEXT_MIN_LENGTH == REGISTER_CONTEXT_HEAD_SIZE, "record layout");

static_assert(offsetof(Logferry_unregister_context, context_handle) == unregister_context::HANDLE_AT, "record layout");
static_assert(sizeof(Logferry_unregister_context) == UNREGISTER_CONTEXT_SIZE, "record layout");

static_assert(offsetof(Logferry_write_start, log_level) == start::LEVEL_AT, "record layout");
static_assert(offsetof(Logferry_write_start, context_handle) == start::HANDLE_AT, "record layout");
static_assert(offsetof(Logferry_write_start, stream_key) == start::KEY_AT, "record layout");
static_assert(offsetof(Logferry_write_start, timestamp) == start::TIMESTAMP_AT, "record layout");
static_assert(sizeof(Logferry_write_start) == START_SIZE, "record layout");

static_assert(offsetof(Logferry_write_finish, stream_key) == finish::KEY_AT, "record layout");
static_assert(sizeof(Logferry_write_finish) == FINISH_SIZE, "record layout");

static_assert(sizeof(Logferry_write_bool) == plain_size(1), "record layout");
static_assert(sizeof(Logferry_write_int8) == plain_size(1), "record layout");
static_assert(sizeof(Logferry_write_int16) == plain_size(2), "record layout");
static_assert(sizeof(Logferry_write_int32) == plain_size(4), "record layout");
static_assert(sizeof(Logferry_write_int64) == plain_size(8), "record layout");
static_assert(sizeof(Logferry_write_float32) == plain_size(4), "record layout");
static_assert(sizeof(Logferry_write_float64) == plain_size(8), "record layout");

static_assert(offsetof(Logferry_write_uint8_formatted, format) == formatted::FORMAT_AT, "record layout");
static_assert(offsetof(Logferry_write_uint8_formatted, value) == formatted::VALUE_AT, "record layout");
static_assert(offsetof(Logferry_write_uint8_formatted, stream_key) == formatted::key_at(1), "record layout");
static_assert(offsetof(Logferry_write_uint16_formatted, stream_key) == formatted::key_at(2), "record layout");
static_assert(offsetof(Logferry_write_uint32_formatted, stream_key) == formatted::key_at(4), "record layout");
static_assert(offsetof(Logferry_write_uint64_formatted, stream_key) == formatted::key_at(8), "record layout");
static_assert(sizeof(Logferry_write_uint8_formatted) == formatted_size(1), "record layout");
static_assert(sizeof(Logferry_write_uint16_formatted) == formatted_size(2), "record layout");
static_assert(sizeof(Logferry_write_uint32_formatted) == formatted_size(4), "record layout");
static_assert(sizeof(Logferry_write_uint64_formatted) == formatted_size(8), "record layout");

static_assert(offsetof(Logferry_write_utf8_string, length) == text::LENGTH_AT, "record layout");
static_assert(offsetof(Logferry_write_utf8_string, stream_key) == text::KEY_AT, "record layout");
static_assert(offsetof(Logferry_write_utf8_string, text) == text::TEXT_AT, "record layout");

static_assert(offsetof(Logferry_write_raw_formatted, length) == raw::LENGTH_AT, "record layout");
static_assert(offsetof(Logferry_write_raw_formatted, format) == raw::FORMAT_AT, "record layout");
static_assert(offsetof(Logferry_write_raw_formatted, size) == raw::SIZE_AT, "record layout");
static_assert(offsetof(Logferry_write_raw_formatted, stream_key) == raw::KEY_AT, "record layout");
static_assert(offsetof(Logferry_write_raw_formatted, payload) == raw::PAYLOAD_AT, "record layout");

static_assert(offsetof(Logferry_write_encoded_payload, length) == encoded_payload::LENGTH_AT, "record layout");
static_assert(offsetof(Logferry_write_encoded_payload, size) == encoded_payload::SIZE_AT, "record layout");
static_assert(offsetof(Logferry_write_encoded_payload, stream_key) == encoded_payload::KEY_AT, "record layout");
static_assert(offsetof(Logferry_write_encoded_payload, payload) == encoded_payload::PAYLOAD_AT, "record layout");

static_assert(offsetof(Logferry_write_encoded_message, length) == encoded_message::LENGTH_AT, "record layout");
static_assert(offsetof(Logferry_write_encoded_message, size) == encoded_message::SIZE_AT, "record layout");
static_assert(offsetof(Logferry_write_encoded_message, payload) == encoded_message::PAYLOAD_AT, "record layout");

static_assert(offsetof(Logferry_update_context_log_level_filter, log_level) == level_update::LEVEL_AT, "record layout");
static_assert(offsetof(Logferry_update_context_log_level_filter, context_handle) == level_update::HANDLE_AT,
              "record layout");
static_assert(sizeof(Logferry_update_context_log_level_filter) == LEVEL_UPDATE_SIZE, "record layout");

// The number table against the records it describes.
static_assert(number_size(KIND_WRITE_BOOL) == sizeof(Logferry_write_bool) &&
                  number_size(KIND_WRITE_INT8) == sizeof(Logferry_write_int8) &&
                  number_size(KIND_WRITE_INT16) == sizeof(Logferry_write_int16) &&
                  number_size(KIND_WRITE_INT32) == sizeof(Logferry_write_int32) &&
                  number_size(KIND_WRITE_INT64) == sizeof(Logferry_write_int64) &&
                  number_size(KIND_WRITE_UINT8_FORMATTED) == sizeof(Logferry_write_uint8_formatted) &&
                  number_size(KIND_WRITE_UINT16_FORMATTED) == sizeof(Logferry_write_uint16_formatted) &&
                  number_size(KIND_WRITE_UINT32_FORMATTED) == sizeof(Logferry_write_uint32_formatted) &&
                  number_size(KIND_WRITE_UINT64_FORMATTED) == sizeof(Logferry_write_uint64_formatted) &&
                  number_size(KIND_WRITE_FLOAT32) == sizeof(Logferry_write_float32) &&
                  number_size(KIND_WRITE_FLOAT64) == sizeof(Logferry_write_float64),
              "number records");

static_assert(MAX_FIXED_SIZE == START_SIZE && MAX_FIXED_SIZE == plain_size(8) + 1 &&
                  MAX_FIXED_SIZE == formatted_size(8),
              "the largest fixed record");
static_assert(MAX_LOGGED_TEXT_LENGTH == 1388 && MAX_PAYLOAD_SIZE == 1389, "record limits");
// The length fields as the public records document them: text + 8, size + 10, size + 9, size + 5.
static_assert(text_size(0) == 8 && RAW_HEAD_SIZE == 10 && ENCODED_PAYLOAD_HEAD_SIZE == 9 &&
                  ENCODED_MESSAGE_HEAD_SIZE == 5,
              "length fields");

}  // namespace wire

/// The encoders' name as the front end has always called them.
namespace encoding = wire;

}  // namespace logferry

#endif  // LOGFERRY_WIRE_WIRE_HPP
