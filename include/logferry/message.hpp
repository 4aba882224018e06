// logferry: the message records that cross an application's channel, and their
// byte encoding.
//
// Every record is a packed plain structure whose byte 0 is its kind. `serialize`
// appends a record's bytes to a byte vector: the kind, then the fields in declaration
// order (the plain numbers, kinds 9-13, 18 and 19, write the stream key before the
// value), integers little-endian (written by shifting, whatever the
// host's byte order), floating-point values as the bytes of their in-memory
// representation. There is no header, padding or checksum; records of one channel
// message are laid end to end. Kinds 0 to 23 travel from the application to the daemon,
// kind 24 the other way; kinds 0, 1, 2, 3 and 5 are the priority kinds (control requests
// and registrations). Each structure below names its kind and what it carries.

#ifndef LOGFERRY_MESSAGE_HPP
#define LOGFERRY_MESSAGE_HPP

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "logferry/export.hpp"
#include "logferry/validation.hpp"

namespace logferry {

/// \name Record kinds
/// Byte 0 of every record.
///@{
constexpr std::uint8_t KIND_DISABLE_REMOTE = 0;                    ///< Byte 0 of `Logferry_disable_remote`.
constexpr std::uint8_t KIND_ENABLE_LOCAL_PRINT = 1;                ///< Byte 0 of `Logferry_enable_local_print`.
constexpr std::uint8_t KIND_INIT_FILE = 2;                         ///< Byte 0 of `Logferry_init_file`.
constexpr std::uint8_t KIND_REGISTER_APP = 3;                      ///< Byte 0 of `Logferry_register_app`.
constexpr std::uint8_t KIND_UNREGISTER_APP = 4;                    ///< Byte 0 of `Logferry_unregister_app`.
constexpr std::uint8_t KIND_REGISTER_CONTEXT = 5;                  ///< Byte 0 of `Logferry_register_context`.
constexpr std::uint8_t KIND_UNREGISTER_CONTEXT = 6;                ///< Byte 0 of `Logferry_unregister_context`.
constexpr std::uint8_t KIND_WRITE_START = 7;                       ///< Byte 0 of `Logferry_write_start`.
constexpr std::uint8_t KIND_WRITE_FINISH = 8;                      ///< Byte 0 of `Logferry_write_finish`.
constexpr std::uint8_t KIND_WRITE_BOOL = 9;                        ///< Byte 0 of `Logferry_write_bool`.
constexpr std::uint8_t KIND_WRITE_INT8 = 10;                       ///< Byte 0 of `Logferry_write_int8`.
constexpr std::uint8_t KIND_WRITE_INT16 = 11;                      ///< Byte 0 of `Logferry_write_int16`.
constexpr std::uint8_t KIND_WRITE_INT32 = 12;                      ///< Byte 0 of `Logferry_write_int32`.
constexpr std::uint8_t KIND_WRITE_INT64 = 13;                      ///< Byte 0 of `Logferry_write_int64`.
constexpr std::uint8_t KIND_WRITE_UINT8_FORMATTED = 14;            ///< Byte 0 of `Logferry_write_uint8_formatted`.
constexpr std::uint8_t KIND_WRITE_UINT16_FORMATTED = 15;           ///< Byte 0 of `Logferry_write_uint16_formatted`.
constexpr std::uint8_t KIND_WRITE_UINT32_FORMATTED = 16;           ///< Byte 0 of `Logferry_write_uint32_formatted`.
constexpr std::uint8_t KIND_WRITE_UINT64_FORMATTED = 17;           ///< Byte 0 of `Logferry_write_uint64_formatted`.
constexpr std::uint8_t KIND_WRITE_FLOAT32 = 18;                    ///< Byte 0 of `Logferry_write_float32`.
constexpr std::uint8_t KIND_WRITE_FLOAT64 = 19;                    ///< Byte 0 of `Logferry_write_float64`.
constexpr std::uint8_t KIND_WRITE_UTF8_STRING = 20;                ///< Byte 0 of `Logferry_write_utf8_string`.
constexpr std::uint8_t KIND_WRITE_RAW_FORMATTED = 21;              ///< Byte 0 of `Logferry_write_raw_formatted`.
constexpr std::uint8_t KIND_WRITE_ENCODED_PAYLOAD = 22;            ///< Byte 0 of `Logferry_write_encoded_payload`.
constexpr std::uint8_t KIND_WRITE_ENCODED_MESSAGE = 23;            ///< Byte 0 of `Logferry_write_encoded_message`.
constexpr std::uint8_t KIND_UPDATE_CONTEXT_LOG_LEVEL_FILTER = 24;  ///< Byte 0 of the level-filter update.
///@}

/// True for the kinds admitted to the channel's priority area (0, 1, 2, 3 and 5).
constexpr bool is_priority_kind(std::uint8_t kind) noexcept
{
    return kind <= KIND_REGISTER_APP || kind == KIND_REGISTER_CONTEXT;
}

// Widths of the fixed text and payload arrays.
constexpr std::size_t RECORD_ID_SIZE = 5;            ///< An ID: 4 characters and a zero.
constexpr std::size_t RECORD_DESCRIPTION_SIZE = 80;  ///< A description: at most 79 characters and a zero.
constexpr std::size_t RECORD_FILE_NAME_SIZE = 255;   ///< A file name: at most 254 characters and a zero.
constexpr std::size_t RECORD_DATA_SIZE = 1390;       ///< Text or payload of a log argument.

// Longest texts and payloads that a record carries in full.
constexpr std::size_t RECORD_MAX_DESCRIPTION_LENGTH = RECORD_DESCRIPTION_SIZE - 1;  ///< 79 characters.
constexpr std::size_t RECORD_MAX_TEXT_LENGTH = RECORD_DATA_SIZE - 1;                ///< 1389 characters.
constexpr std::size_t RECORD_MAX_PAYLOAD_SIZE = RECORD_DATA_SIZE - 1;               ///< 1389 bytes.

// Minimum length field of the register records (built without texts).
constexpr std::uint16_t REGISTER_APP_MIN_LENGTH = 8;       ///< Of `Logferry_register_app`.
constexpr std::uint16_t REGISTER_CONTEXT_MIN_LENGTH = 13;  ///< Of `Logferry_register_context`.

/// Copies at most `limit` characters of the zero-terminated `source` into `target`,
/// stopping at the first zero of the source; the rest of `target` is left as it is.
/// Returns the number of characters copied. `limit` must not exceed `target`'s size.
template <std::size_t N>
inline std::size_t copy_bounded_text(std::array<char, N>& target, const char* source, std::size_t limit) noexcept
{
    std::size_t n = 0;
    while (n < limit && n < N && source[n] != '\0') {
        target[n] = source[n];
        ++n;
    }
    return n;
}

#pragma pack(push, 1)

/// Kind 0: asks the daemon to switch remote output off.
struct Logferry_disable_remote {
    std::uint8_t kind = KIND_DISABLE_REMOTE;  ///< Always `KIND_DISABLE_REMOTE`.
};

/// Kind 1: asks the daemon to print the application's messages locally.
struct Logferry_enable_local_print {
    std::uint8_t kind = KIND_ENABLE_LOCAL_PRINT;  ///< Always `KIND_ENABLE_LOCAL_PRINT`.
};

/// Kind 2: asks the daemon for file output under `file_name` (at most 254 characters,
/// zero-padded, so the field always ends with a zero).
struct Logferry_init_file {
    std::uint8_t kind = KIND_INIT_FILE;                   ///< Always `KIND_INIT_FILE`.
    std::array<char, RECORD_FILE_NAME_SIZE> file_name{};  ///< Up to 254 characters, zero-padded.
};

/// Kind 3: registers the application under a 4-character ID.
///
/// `length` is the number of record bytes up to and including the zero that ends the
/// description: strlen(description) + 9, or 8 for a record built without texts.
struct Logferry_register_app {
    std::uint8_t kind = KIND_REGISTER_APP;                    ///< Always `KIND_REGISTER_APP`.
    std::uint16_t length = 0;                                 ///< Set by the builder (see above); written as stored.
    std::array<char, RECORD_ID_SIZE> app_id{};                ///< Up to 4 characters, zero-filled.
    std::array<char, RECORD_DESCRIPTION_SIZE> description{};  ///< Up to 79 characters, zero-terminated.

    /// All zero apart from the kind (length 0).
    Logferry_register_app() = default;

    /// Starts from an all-zero record with length 8. Only when both pointers are
    /// non-null: copies the first 4 characters of `id` (a shorter ID is zero-filled,
    /// byte 4 stays 0) and at most 79 characters of `desc_text` (byte 79 stays 0), each
    /// copy stopping at the first zero of its source, and sets the length to the copied
    /// description's length + 9.
    Logferry_register_app(const char* id, const char* desc_text) noexcept : length(REGISTER_APP_MIN_LENGTH)
    {
        if (id != nullptr && desc_text != nullptr) {
            copy_bounded_text(app_id, id, RECORD_ID_SIZE - 1);
            const std::size_t n = copy_bounded_text(description, desc_text, RECORD_MAX_DESCRIPTION_LENGTH);
            length = static_cast<std::uint16_t>(n + REGISTER_APP_MIN_LENGTH + 1);
        }
    }
};

/// Kind 4: withdraws the application's registrations.
struct Logferry_unregister_app {
    std::uint8_t kind = KIND_UNREGISTER_APP;  ///< Always `KIND_UNREGISTER_APP`.
};

/// Kind 5: registers a context under a 4-character ID, addressed later by the
/// application's 32-bit `context_handle`, with its default level.
///
/// `length` is the number of record bytes up to and including the zero that ends the
/// description: strlen(description) + 14, or 13 for a record built without texts.
struct Logferry_register_context {
    std::uint8_t kind = KIND_REGISTER_CONTEXT;                ///< Always `KIND_REGISTER_CONTEXT`.
    std::uint16_t length = 0;                                 ///< Set by the builder (see above); written as stored.
    std::uint8_t log_level = 0;                               ///< The context's default level, 0 to 6.
    std::uint32_t context_handle = 0;                         ///< The application's handle of the context.
    std::array<char, RECORD_ID_SIZE> context_id{};            ///< Up to 4 characters, zero-filled.
    std::array<char, RECORD_DESCRIPTION_SIZE> description{};  ///< Up to 79 characters, zero-terminated.

    /// All zero apart from the kind (length 0).
    Logferry_register_context() = default;

    /// Starts from an all-zero record with length 13 and sets the level and handle.
    /// Only when both text pointers are non-null: copies the first 4 characters of `id`
    /// (zero-filled, byte 4 stays 0) and at most 79 characters of `desc_text` (byte 79
    /// stays 0), each copy stopping at the first zero of its source, and sets the
    /// length to the copied description's length + 14.
    Logferry_register_context(std::uint8_t level, std::uint32_t handle, const char* id, const char* desc_text) noexcept
        : length(REGISTER_CONTEXT_MIN_LENGTH), log_level(level), context_handle(handle)
    {
        if (id != nullptr && desc_text != nullptr) {
            copy_bounded_text(context_id, id, RECORD_ID_SIZE - 1);
            const std::size_t n = copy_bounded_text(description, desc_text, RECORD_MAX_DESCRIPTION_LENGTH);
            length = static_cast<std::uint16_t>(n + REGISTER_CONTEXT_MIN_LENGTH + 1);
        }
    }
};

/// Kind 6: withdraws one context's registration.
struct Logferry_unregister_context {
    std::uint8_t kind = KIND_UNREGISTER_CONTEXT;  ///< Always `KIND_UNREGISTER_CONTEXT`.
    std::uint32_t context_handle = 0;             ///< The application's handle of the context.
};

/// Kind 7: opens a log message. `timestamp` is the monotonic clock in 0.1 ms units,
/// modulo 2^32.
struct Logferry_write_start {
    std::uint8_t kind = KIND_WRITE_START;  ///< Always `KIND_WRITE_START`.
    std::uint8_t log_level = 0;            ///< Level of the message, 1 to 6.
    std::uint32_t context_handle = 0;      ///< The application's handle of the context.
    std::uint32_t stream_key = 0;          ///< The message under assembly this record belongs to.
    std::uint32_t timestamp = 0;           ///< Monotonic clock in 0.1 ms units, modulo 2^32.
};

/// Kind 8: closes a log message.
struct Logferry_write_finish {
    std::uint8_t kind = KIND_WRITE_FINISH;  ///< Always `KIND_WRITE_FINISH`.
    std::uint32_t stream_key = 0;           ///< The message under assembly this record belongs to.
};

/// Kind 9: a boolean argument, `value` 0 or 1.
struct Logferry_write_bool {
    std::uint8_t kind = KIND_WRITE_BOOL;  ///< Always `KIND_WRITE_BOOL`.
    std::uint8_t value = 0;               ///< 1 for true, 0 for false.
    std::uint32_t stream_key = 0;         ///< The message under assembly this record belongs to.
};

/// Kind 10.
struct Logferry_write_int8 {
    std::uint8_t kind = KIND_WRITE_INT8;  ///< Always `KIND_WRITE_INT8`.
    std::int8_t value = 0;                ///< The argument.
    std::uint32_t stream_key = 0;         ///< The message under assembly this record belongs to.
};

/// Kind 11.
struct Logferry_write_int16 {
    std::uint8_t kind = KIND_WRITE_INT16;  ///< Always `KIND_WRITE_INT16`.
    std::int16_t value = 0;                ///< The argument.
    std::uint32_t stream_key = 0;          ///< The message under assembly this record belongs to.
};

/// Kind 12.
struct Logferry_write_int32 {
    std::uint8_t kind = KIND_WRITE_INT32;  ///< Always `KIND_WRITE_INT32`.
    std::int32_t value = 0;                ///< The argument.
    std::uint32_t stream_key = 0;          ///< The message under assembly this record belongs to.
};

/// Kind 13.
struct Logferry_write_int64 {
    std::uint8_t kind = KIND_WRITE_INT64;  ///< Always `KIND_WRITE_INT64`.
    std::int64_t value = 0;                ///< The argument.
    std::uint32_t stream_key = 0;          ///< The message under assembly this record belongs to.
};

/// Kind 14; `format` is a `LogFormat` value.
struct Logferry_write_uint8_formatted {
    std::uint8_t kind = KIND_WRITE_UINT8_FORMATTED;  ///< Always `KIND_WRITE_UINT8_FORMATTED`.
    std::uint8_t format = 0;                         ///< Presentation code, a `LogFormat` value.
    std::uint8_t value = 0;                          ///< The argument.
    std::uint32_t stream_key = 0;                    ///< The message under assembly this record belongs to.
};

/// Kind 15.
struct Logferry_write_uint16_formatted {
    std::uint8_t kind = KIND_WRITE_UINT16_FORMATTED;  ///< Always `KIND_WRITE_UINT16_FORMATTED`.
    std::uint8_t format = 0;                          ///< Presentation code, a `LogFormat` value.
    std::uint16_t value = 0;                          ///< The argument.
    std::uint32_t stream_key = 0;                     ///< The message under assembly this record belongs to.
};

/// Kind 16.
struct Logferry_write_uint32_formatted {
    std::uint8_t kind = KIND_WRITE_UINT32_FORMATTED;  ///< Always `KIND_WRITE_UINT32_FORMATTED`.
    std::uint8_t format = 0;                          ///< Presentation code, a `LogFormat` value.
    std::uint32_t value = 0;                          ///< The argument.
    std::uint32_t stream_key = 0;                     ///< The message under assembly this record belongs to.
};

/// Kind 17.
struct Logferry_write_uint64_formatted {
    std::uint8_t kind = KIND_WRITE_UINT64_FORMATTED;  ///< Always `KIND_WRITE_UINT64_FORMATTED`.
    std::uint8_t format = 0;                          ///< Presentation code, a `LogFormat` value.
    std::uint64_t value = 0;                          ///< The argument.
    std::uint32_t stream_key = 0;                     ///< The message under assembly this record belongs to.
};

/// Kind 18: IEEE 754 single precision.
struct Logferry_write_float32 {
    std::uint8_t kind = KIND_WRITE_FLOAT32;  ///< Always `KIND_WRITE_FLOAT32`.
    float value = 0.0F;                      ///< The argument.
    std::uint32_t stream_key = 0;            ///< The message under assembly this record belongs to.
};

/// Kind 19: IEEE 754 double precision.
struct Logferry_write_float64 {
    std::uint8_t kind = KIND_WRITE_FLOAT64;  ///< Always `KIND_WRITE_FLOAT64`.
    double value = 0.0;                      ///< The argument.
    std::uint32_t stream_key = 0;            ///< The message under assembly this record belongs to.
};

/// Kind 20: a zero-terminated text of at most 1389 characters. `length` is set by the
/// builder (text length + 8); the encoding writes up to the text's first zero.
struct Logferry_write_utf8_string {
    std::uint8_t kind = KIND_WRITE_UTF8_STRING;  ///< Always `KIND_WRITE_UTF8_STRING`.
    std::uint16_t length = 0;                    ///< Set by the builder (see above); written as stored.
    std::uint32_t stream_key = 0;                ///< The message under assembly this record belongs to.
    std::array<char, RECORD_DATA_SIZE> text{};   ///< Sent up to and including its first zero.
};

/// Kind 21: `size` payload bytes shown in `format`. `length` is set by the builder
/// (size + 10).
struct Logferry_write_raw_formatted {
    std::uint8_t kind = KIND_WRITE_RAW_FORMATTED;          ///< Always `KIND_WRITE_RAW_FORMATTED`.
    std::uint16_t length = 0;                              ///< Set by the builder (see above); written as stored.
    std::uint8_t format = 0;                               ///< Presentation code, a `LogFormat` value.
    std::uint16_t size = 0;                                ///< Bytes of `payload` in use, 1 to 1389.
    std::uint32_t stream_key = 0;                          ///< The message under assembly this record belongs to.
    std::array<std::uint8_t, RECORD_DATA_SIZE> payload{};  ///< The first `size` bytes are sent.
};

/// Kind 22: `size` bytes of an already encoded argument. `length` is set by the
/// builder (size + 9).
struct Logferry_write_encoded_payload {
    std::uint8_t kind = KIND_WRITE_ENCODED_PAYLOAD;        ///< Always `KIND_WRITE_ENCODED_PAYLOAD`.
    std::uint16_t length = 0;                              ///< Set by the builder (see above); written as stored.
    std::uint16_t size = 0;                                ///< Bytes of `payload` in use, 1 to 1389.
    std::uint32_t stream_key = 0;                          ///< The message under assembly this record belongs to.
    std::array<std::uint8_t, RECORD_DATA_SIZE> payload{};  ///< The first `size` bytes are sent.
};

/// Kind 23: `size` bytes of an already encoded message; no stream key. `length` is set
/// by the builder (size + 5).
struct Logferry_write_encoded_message {
    std::uint8_t kind = KIND_WRITE_ENCODED_MESSAGE;        ///< Always `KIND_WRITE_ENCODED_MESSAGE`.
    std::uint16_t length = 0;                              ///< Set by the builder (see above); written as stored.
    std::uint16_t size = 0;                                ///< Bytes of `payload` in use, 1 to 1389.
    std::array<std::uint8_t, RECORD_DATA_SIZE> payload{};  ///< The first `size` bytes are sent.
};

/// Kind 24, from the daemon: sets the level filter of one context.
struct Logferry_update_context_log_level_filter {
    std::uint8_t kind = KIND_UPDATE_CONTEXT_LOG_LEVEL_FILTER;  ///< Always `KIND_UPDATE_CONTEXT_LOG_LEVEL_FILTER`.
    std::uint8_t log_level = 0;                                ///< The most verbose level the context may emit, 0 to 6.
    std::uint32_t context_handle = 0;                          ///< The application's handle of the context.
};

#pragma pack(pop)

// The packed in-memory layouts are part of the design: pin them.
static_assert(sizeof(Logferry_disable_remote) == 1, "record layout");
static_assert(sizeof(Logferry_enable_local_print) == 1, "record layout");
static_assert(sizeof(Logferry_unregister_app) == 1, "record layout");

static_assert(sizeof(Logferry_init_file) == 256, "record layout");
static_assert(offsetof(Logferry_init_file, file_name) == 1, "record layout");

static_assert(sizeof(Logferry_register_app) == 88, "record layout");
static_assert(offsetof(Logferry_register_app, length) == 1, "record layout");
static_assert(offsetof(Logferry_register_app, app_id) == 3, "record layout");
static_assert(offsetof(Logferry_register_app, description) == 8, "record layout");

static_assert(sizeof(Logferry_register_context) == 93, "record layout");
static_assert(offsetof(Logferry_register_context, length) == 1, "record layout");
static_assert(offsetof(Logferry_register_context, log_level) == 3, "record layout");
static_assert(offsetof(Logferry_register_context, context_handle) == 4, "record layout");
static_assert(offsetof(Logferry_register_context, context_id) == 8, "record layout");
static_assert(offsetof(Logferry_register_context, description) == 13, "record layout");

static_assert(sizeof(Logferry_unregister_context) == 5, "record layout");
static_assert(offsetof(Logferry_unregister_context, context_handle) == 1, "record layout");

static_assert(sizeof(Logferry_write_start) == 14, "record layout");
static_assert(offsetof(Logferry_write_start, log_level) == 1, "record layout");
static_assert(offsetof(Logferry_write_start, context_handle) == 2, "record layout");
static_assert(offsetof(Logferry_write_start, stream_key) == 6, "record layout");
static_assert(offsetof(Logferry_write_start, timestamp) == 10, "record layout");

static_assert(sizeof(Logferry_write_finish) == 5, "record layout");
static_assert(offsetof(Logferry_write_finish, stream_key) == 1, "record layout");

static_assert(sizeof(Logferry_write_bool) == 6, "record layout");
static_assert(offsetof(Logferry_write_bool, value) == 1, "record layout");
static_assert(offsetof(Logferry_write_bool, stream_key) == 2, "record layout");
static_assert(sizeof(Logferry_write_int8) == 6, "record layout");
static_assert(offsetof(Logferry_write_int8, value) == 1, "record layout");
static_assert(offsetof(Logferry_write_int8, stream_key) == 2, "record layout");
static_assert(sizeof(Logferry_write_int16) == 7, "record layout");
static_assert(offsetof(Logferry_write_int16, value) == 1, "record layout");
static_assert(offsetof(Logferry_write_int16, stream_key) == 3, "record layout");
static_assert(sizeof(Logferry_write_int32) == 9, "record layout");
static_assert(offsetof(Logferry_write_int32, value) == 1, "record layout");
static_assert(offsetof(Logferry_write_int32, stream_key) == 5, "record layout");
static_assert(sizeof(Logferry_write_int64) == 13, "record layout");
static_assert(offsetof(Logferry_write_int64, value) == 1, "record layout");
static_assert(offsetof(Logferry_write_int64, stream_key) == 9, "record layout");

static_assert(sizeof(Logferry_write_uint8_formatted) == 7, "record layout");
static_assert(offsetof(Logferry_write_uint8_formatted, format) == 1, "record layout");
static_assert(offsetof(Logferry_write_uint8_formatted, value) == 2, "record layout");
static_assert(offsetof(Logferry_write_uint8_formatted, stream_key) == 3, "record layout");
static_assert(sizeof(Logferry_write_uint16_formatted) == 8, "record layout");
static_assert(offsetof(Logferry_write_uint16_formatted, format) == 1, "record layout");
static_assert(offsetof(Logferry_write_uint16_formatted, value) == 2, "record layout");
static_assert(offsetof(Logferry_write_uint16_formatted, stream_key) == 4, "record layout");
static_assert(sizeof(Logferry_write_uint32_formatted) == 10, "record layout");
static_assert(offsetof(Logferry_write_uint32_formatted, format) == 1, "record layout");
static_assert(offsetof(Logferry_write_uint32_formatted, value) == 2, "record layout");
static_assert(offsetof(Logferry_write_uint32_formatted, stream_key) == 6, "record layout");
static_assert(sizeof(Logferry_write_uint64_formatted) == 14, "record layout");
static_assert(offsetof(Logferry_write_uint64_formatted, format) == 1, "record layout");
static_assert(offsetof(Logferry_write_uint64_formatted, value) == 2, "record layout");
static_assert(offsetof(Logferry_write_uint64_formatted, stream_key) == 10, "record layout");

static_assert(sizeof(Logferry_write_float32) == 9, "record layout");
static_assert(offsetof(Logferry_write_float32, value) == 1, "record layout");
static_assert(offsetof(Logferry_write_float32, stream_key) == 5, "record layout");
static_assert(sizeof(Logferry_write_float64) == 13, "record layout");
static_assert(offsetof(Logferry_write_float64, value) == 1, "record layout");
static_assert(offsetof(Logferry_write_float64, stream_key) == 9, "record layout");

static_assert(sizeof(Logferry_write_utf8_string) == 1397, "record layout");
static_assert(offsetof(Logferry_write_utf8_string, length) == 1, "record layout");
static_assert(offsetof(Logferry_write_utf8_string, stream_key) == 3, "record layout");
static_assert(offsetof(Logferry_write_utf8_string, text) == 7, "record layout");

static_assert(sizeof(Logferry_write_raw_formatted) == 1400, "record layout");
static_assert(offsetof(Logferry_write_raw_formatted, length) == 1, "record layout");
static_assert(offsetof(Logferry_write_raw_formatted, format) == 3, "record layout");
static_assert(offsetof(Logferry_write_raw_formatted, size) == 4, "record layout");
static_assert(offsetof(Logferry_write_raw_formatted, stream_key) == 6, "record layout");
static_assert(offsetof(Logferry_write_raw_formatted, payload) == 10, "record layout");

static_assert(sizeof(Logferry_write_encoded_payload) == 1399, "record layout");
static_assert(offsetof(Logferry_write_encoded_payload, length) == 1, "record layout");
static_assert(offsetof(Logferry_write_encoded_payload, size) == 3, "record layout");
static_assert(offsetof(Logferry_write_encoded_payload, stream_key) == 5, "record layout");
static_assert(offsetof(Logferry_write_encoded_payload, payload) == 9, "record layout");

static_assert(sizeof(Logferry_write_encoded_message) == 1395, "record layout");
static_assert(offsetof(Logferry_write_encoded_message, length) == 1, "record layout");
static_assert(offsetof(Logferry_write_encoded_message, size) == 3, "record layout");
static_assert(offsetof(Logferry_write_encoded_message, payload) == 5, "record layout");

static_assert(sizeof(Logferry_update_context_log_level_filter) == 6, "record layout");
static_assert(offsetof(Logferry_update_context_log_level_filter, log_level) == 1, "record layout");
static_assert(offsetof(Logferry_update_context_log_level_filter, context_handle) == 2, "record layout");

/// \name Encoding
///@{

/// Appends the record's bytes to `out` (which is never cleared). Throws only on memory
/// exhaustion, and std::out_of_range for a register record whose 80-byte description
/// holds no zero (bounds-checked access of index 80); `out` is then left unchanged.
///
/// Texts are written up to and including their first zero. A text record whose 1390
/// bytes hold no zero ends after its stream key. A payload record writes its `size`
/// payload bytes only when size is 1 to 1389; otherwise it ends after its fixed fields.
/// The `length` fields are written as stored and never decide how much is written.
LOGFERRY_API void serialize(const Logferry_disable_remote& record, std::vector<unsigned char>& out);
LOGFERRY_API void serialize(const Logferry_enable_local_print& record, std::vector<unsigned char>& out);
LOGFERRY_API void serialize(const Logferry_init_file& record, std::vector<unsigned char>& out);
LOGFERRY_API void serialize(const Logferry_register_app& record, std::vector<unsigned char>& out);
LOGFERRY_API void serialize(const Logferry_unregister_app& record, std::vector<unsigned char>& out);
LOGFERRY_API void serialize(const Logferry_register_context& record, std::vector<unsigned char>& out);
LOGFERRY_API void serialize(const Logferry_unregister_context& record, std::vector<unsigned char>& out);
LOGFERRY_API void serialize(const Logferry_write_start& record, std::vector<unsigned char>& out);
LOGFERRY_API void serialize(const Logferry_write_finish& record, std::vector<unsigned char>& out);
LOGFERRY_API void serialize(const Logferry_write_bool& record, std::vector<unsigned char>& out);
LOGFERRY_API void serialize(const Logferry_write_int8& record, std::vector<unsigned char>& out);
LOGFERRY_API void serialize(const Logferry_write_int16& record, std::vector<unsigned char>& out);
LOGFERRY_API void serialize(const Logferry_write_int32& record, std::vector<unsigned char>& out);
LOGFERRY_API void serialize(const Logferry_write_int64& record, std::vector<unsigned char>& out);
LOGFERRY_API void serialize(const Logferry_write_uint8_formatted& record, std::vector<unsigned char>& out);
LOGFERRY_API void serialize(const Logferry_write_uint16_formatted& record, std::vector<unsigned char>& out);
LOGFERRY_API void serialize(const Logferry_write_uint32_formatted& record, std::vector<unsigned char>& out);
LOGFERRY_API void serialize(const Logferry_write_uint64_formatted& record, std::vector<unsigned char>& out);
LOGFERRY_API void serialize(const Logferry_write_float32& record, std::vector<unsigned char>& out);
LOGFERRY_API void serialize(const Logferry_write_float64& record, std::vector<unsigned char>& out);
LOGFERRY_API void serialize(const Logferry_write_utf8_string& record, std::vector<unsigned char>& out);
LOGFERRY_API void serialize(const Logferry_write_raw_formatted& record, std::vector<unsigned char>& out);
LOGFERRY_API void serialize(const Logferry_write_encoded_payload& record, std::vector<unsigned char>& out);
LOGFERRY_API void serialize(const Logferry_write_encoded_message& record, std::vector<unsigned char>& out);
///@}

/// Reads a level-filter update from the daemon. Byte 0 is not looked at (the caller
/// has checked it is 24) and `in` must hold at least 2 bytes.
///
/// Stores byte 1 as `out.log_level`; if that level is above 6, returns false and
/// leaves `out.context_handle` as it was. Otherwise, when `size` is above 5, stores
/// bytes 2 to 5 (little-endian) as `out.context_handle` and returns true; with a
/// smaller `size` leaves the handle and returns false.
LOGFERRY_API bool deserialize(const std::vector<unsigned char>& in, unsigned long size,
                              Logferry_update_context_log_level_filter& out);

}  // namespace logferry

#endif  // LOGFERRY_MESSAGE_HPP
