// Log streams: a message is assembled record by record under its stream key and handed to
// the channel as one unit by log_finish.
//
// This is the application's hot path. Each record is encoded on the stack and appended to
// the stream's vector in one short critical section of incomplete_logstream_messages_mutex;
// log_finish takes the whole map node out, so the message is moved, not copied, and the
// node with its vector's capacity is kept by the finishing thread for its next message.
// In steady state a message thus costs no heap allocation.
#include <time.h>  // NOLINT(modernize-deprecated-headers): POSIX clock_gettime and CLOCK_MONOTONIC

#include <cstring>
#include <utility>

#include "logferry/client.hpp"
#include "logferry/system.hpp"
#include "wire/timestamp.hpp"
#include "wire/wire.hpp"

namespace logferry {

namespace {

using Stream_map = std::unordered_map<std::uint32_t, std::vector<unsigned char>>;
using Stream_node = Stream_map::node_type;

using wire::MAX_LOGGED_TEXT_LENGTH;
using wire::MAX_PAYLOAD_SIZE;
constexpr std::size_t TEXT_SCAN_LIMIT = RECORD_DATA_SIZE;

// A fresh stream's vector is reserved once to hold a typical message; a recycled vector
// keeps what it has grown to, unless that is more than a message normally needs.
constexpr std::size_t STREAM_INITIAL_CAPACITY = 256;
constexpr std::size_t STREAM_KEEP_CAPACITY = 16384;

// The node of this thread's last finished message, ready to take the next one. Accessed
// directly through the thread pointer (initial-exec; the build gives the whole file that
// model, so that the guard of its destructor is reached the same way): it is a few bytes,
// which the static TLS reserve holds even when the library is loaded late.
thread_local Stream_node spare_stream __attribute__((tls_model("initial-exec")));

const unsigned char ZEROS[16] = {};

// Appends `size` bytes. Flattened: the vector's general range insertion is compiled in here,
// where the position is always the end, instead of being called out of line for every record
// (about 10 ns less per message).
__attribute__((flatten)) inline void append(std::vector<unsigned char>& out, const void* data, std::size_t size)
{
    if (size != 0) {
        const auto* bytes = static_cast<const unsigned char*>(data);
        out.insert(out.end(), bytes, bytes + size);
    }
}

inline void append_zeros(std::vector<unsigned char>& out, std::size_t count)
{
    while (count > sizeof(ZEROS)) {
        append(out, ZEROS, sizeof(ZEROS));
        count -= sizeof(ZEROS);
    }
    append(out, ZEROS, count);
}

// The vector of the stream under `key`, opened if it does not exist yet: on this thread's
// spare node when it has one (its vector keeps its capacity), else on a new entry reserved
// for a typical message. One map operation; the caller holds the stream mutex.
std::vector<unsigned char>& open_stream(std::uint32_t key)
{
    Stream_node& spare = spare_stream;
    if (!spare.empty()) {
        spare.key() = key;
        auto inserted = incomplete_logstream_messages.insert(std::move(spare));
        if (!inserted.inserted) {
            spare = std::move(inserted.node);  // the stream was open after all
        }
        return inserted.position->second;
    }
    auto emplaced = incomplete_logstream_messages.try_emplace(key);
    if (emplaced.second) {
        emplaced.first->second.reserve(STREAM_INITIAL_CAPACITY);
    }
    return emplaced.first->second;
}

// A record given as pieces: a head, a body, then a number of zero bytes. Short records are
// staged on the stack so that the stream's vector grows once per record.
struct Record_pieces {
    const unsigned char* head;
    std::size_t head_size;
    const void* body;
    std::size_t body_size;
    std::size_t zeros;
};

constexpr std::size_t STAGING_SIZE = 128;

inline void append_pieces(std::vector<unsigned char>& out, const Record_pieces& record)
{
    const std::size_t total = record.head_size + record.body_size + record.zeros;
    if (total <= STAGING_SIZE) {
        unsigned char staged[STAGING_SIZE];
        std::memcpy(staged, record.head, record.head_size);
        if (record.body_size != 0) {
            std::memcpy(staged + record.head_size, record.body, record.body_size);
        }
        std::memset(staged + record.head_size + record.body_size, 0, record.zeros);
        append(out, staged, total);
        return;
    }
    append(out, record.head, record.head_size);
    append(out, record.body, record.body_size);
    append_zeros(out, record.zeros);
}

// Appends one record to the stream under `key`, opening the stream when needed. One map
// operation under the stream mutex.
void append_record(std::uint32_t key, const Record_pieces& record)
{
    std::lock_guard<std::mutex> lock(incomplete_logstream_messages_mutex);
    auto found = incomplete_logstream_messages.find(key);
    append_pieces(found != incomplete_logstream_messages.end() ? found->second : open_stream(key), record);
}

// A fixed-size record, wholly in `bytes`.
inline void append_record(std::uint32_t key, const unsigned char* bytes, std::size_t size)
{
    std::lock_guard<std::mutex> lock(incomplete_logstream_messages_mutex);
    auto found = incomplete_logstream_messages.find(key);
    append(found != incomplete_logstream_messages.end() ? found->second : open_stream(key), bytes, size);
}

// Keeps a finished message's node for this thread's next message.
void recycle(Stream_node&& node)
{
    if (node.empty() || node.mapped().capacity() > STREAM_KEEP_CAPACITY) {
        return;
    }
    Stream_node& spare = spare_stream;
    if (spare.empty()) {
        node.mapped().clear();
        spare = std::move(node);
    }
}

// The format validator's rule (dlt_validate_format), inlined on the hot path: codes 0 to 6
// pass, anything else becomes 0.
inline std::uint8_t validated(LogFormat format)
{
    const auto code = static_cast<std::uint8_t>(format);
    return code <= static_cast<std::uint8_t>(LogFormat::kRaw) ? code : 0;
}

// A number argument, in the record its type travels in; the unsigned integers with their
// format, validated.
template <typename T>
inline void append_number(std::uint32_t stream_key, T value)
{
    unsigned char record[wire::MAX_FIXED_SIZE];
    append_record(stream_key, record, wire::encode_argument(record, stream_key, value));
}

template <typename T>
inline void append_number(std::uint32_t stream_key, T value, LogFormat format)
{
    unsigned char record[wire::MAX_FIXED_SIZE];
    append_record(stream_key, record, wire::encode_argument(record, stream_key, value, validated(format)));
}

}  // namespace

bool append_to_logstream(std::uint32_t stream_key, const std::vector<unsigned char>& bytes)
{
    append_record(stream_key, bytes.data(), bytes.size());
    return true;
}

bool log_start(std::uint32_t context_handle, std::uint32_t stream_key, std::uint8_t log_level)
{
    if (log_level > wire::MAX_LOG_LEVEL) {
        return false;
    }
    {
        std::lock_guard<std::mutex> lock(contexts_mutex);
        if (registered_contexts.find(context_handle) == registered_contexts.end()) {
            return false;
        }
    }
    // The start record's stamp; 0 when the clock cannot be read.
    std::uint32_t timestamp = 0;
    timespec now{};
    if (sys->clock_gettime(CLOCK_MONOTONIC, &now) == 0) {
        timestamp = wire::stamp_of(now);
    }
    unsigned char record[wire::START_SIZE];
    const std::size_t size =
        wire::encode_start(record, KIND_WRITE_START, log_level, context_handle, stream_key, timestamp);
    {
        // A start normally opens its stream: one map operation that finds or opens it.
        std::lock_guard<std::mutex> lock(incomplete_logstream_messages_mutex);
        append(open_stream(stream_key), record, size);
    }
    return true;
}

void log_bool(std::uint32_t stream_key, bool value) { append_number(stream_key, value); }

void log_int8(std::uint32_t stream_key, std::int8_t value) { append_number(stream_key, value); }

void log_int16(std::uint32_t stream_key, std::int16_t value) { append_number(stream_key, value); }

void log_int32(std::uint32_t stream_key, std::int32_t value) { append_number(stream_key, value); }

void log_int64(std::uint32_t stream_key, std::int64_t value) { append_number(stream_key, value); }

void log_uint8_formatted(std::uint32_t stream_key, std::uint8_t value, LogFormat format)
{
    append_number(stream_key, value, format);
}

void log_uint16_formatted(std::uint32_t stream_key, std::uint16_t value, LogFormat format)
{
    append_number(stream_key, value, format);
}

void log_uint32_formatted(std::uint32_t stream_key, std::uint32_t value, LogFormat format)
{
    append_number(stream_key, value, format);
}

void log_uint64_formatted(std::uint32_t stream_key, std::uint64_t value, LogFormat format)
{
    append_number(stream_key, value, format);
}

void log_float32(std::uint32_t stream_key, float value) { append_number(stream_key, value); }

void log_float64(std::uint32_t stream_key, double value) { append_number(stream_key, value); }

void log_utf8_string(std::uint32_t stream_key, const char* text)
{
    if (text == nullptr) {
        return;
    }
    // Over-long texts are dropped, not cut.
    const std::size_t length = ::strnlen(text, TEXT_SCAN_LIMIT);
    if (length > MAX_LOGGED_TEXT_LENGTH) {
        return;
    }
    unsigned char head[wire::TEXT_HEAD_SIZE];
    wire::encode_text_head(head, KIND_WRITE_UTF8_STRING, static_cast<std::uint16_t>(wire::text_size(length)),
                           stream_key);
    append_record(stream_key, Record_pieces{head, sizeof(head), text, length, 1});
}

void log_string_view(std::uint32_t stream_key, const char* text, std::uint64_t length)
{
    if (length > MAX_LOGGED_TEXT_LENGTH || text == nullptr) {
        return;
    }
    // The copy stops early at a zero byte; the length field still tells the given length.
    const std::size_t copied = ::strnlen(text, static_cast<std::size_t>(length));
    unsigned char head[wire::TEXT_HEAD_SIZE];
    wire::encode_text_head(head, KIND_WRITE_UTF8_STRING, static_cast<std::uint16_t>(wire::text_size(length)),
                           stream_key);
    append_record(stream_key, Record_pieces{head, sizeof(head), text, copied, 1});
}

void log_raw_formatted(std::uint32_t stream_key, const std::uint8_t* data, std::uint16_t length, LogFormat format)
{
    if (length > MAX_PAYLOAD_SIZE || data == nullptr) {
        return;
    }
    // The format goes out as given: raw data keeps whatever presentation code it was handed.
    unsigned char head[wire::RAW_HEAD_SIZE];
    wire::encode_raw_head(head, KIND_WRITE_RAW_FORMATTED, static_cast<std::uint16_t>(wire::RAW_HEAD_SIZE + length),
                          static_cast<std::uint8_t>(format), length, stream_key);
    append_record(stream_key, Record_pieces{head, sizeof(head), data, length, 0});
}

void log_encoded_payload(std::uint32_t stream_key, const std::vector<unsigned char>& payload,
                         const std::uint16_t& length)
{
    if (payload.empty() || length > MAX_PAYLOAD_SIZE) {
        return;
    }
    // `length` bytes are sent as the caller says. Should the vector be shorter, its bytes
    // are followed by zeros rather than by whatever lies behind it in memory.
    const std::uint16_t size = length;
    const std::size_t available = size < payload.size() ? size : payload.size();
    unsigned char head[wire::ENCODED_PAYLOAD_HEAD_SIZE];
    wire::encode_encoded_payload_head(head, KIND_WRITE_ENCODED_PAYLOAD,
                                      static_cast<std::uint16_t>(wire::ENCODED_PAYLOAD_HEAD_SIZE + size), size,
                                      stream_key);
    append_record(stream_key, Record_pieces{head, sizeof(head), payload.data(), available, size - available});
}

void log_finish(std::uint32_t stream_key)
{
    Stream_node node;
    {
        std::lock_guard<std::mutex> lock(incomplete_logstream_messages_mutex);
        node = incomplete_logstream_messages.extract(stream_key);
    }
    unsigned char finish[wire::FINISH_SIZE];
    wire::encode_finish(finish, KIND_WRITE_FINISH, stream_key);

    if (node.empty()) {
        // Nothing was open under this key: the message is the finish record alone.
        Stream_node& spare = spare_stream;
        node = std::move(spare);
        if (node.empty()) {
            const std::vector<unsigned char> lone(finish, finish + sizeof(finish));
            client.push(lone);
            return;
        }
        node.mapped().clear();
    }
    std::vector<unsigned char>& bytes = node.mapped();
    append(bytes, finish, sizeof(finish));
    client.push(bytes);
    recycle(std::move(node));
}

void log_encoded_message(const std::vector<unsigned char>& message, const std::uint16_t& length)
{
    if (message.empty() || length > MAX_PAYLOAD_SIZE) {
        return;
    }
    const std::uint16_t size = length;
    const std::size_t available = size < message.size() ? size : message.size();
    unsigned char head[wire::ENCODED_MESSAGE_HEAD_SIZE];
    wire::encode_encoded_message_head(head, KIND_WRITE_ENCODED_MESSAGE,
                                      static_cast<std::uint16_t>(wire::ENCODED_MESSAGE_HEAD_SIZE + size), size);
    std::vector<unsigned char> bytes;
    bytes.reserve(sizeof(head) + size);
    append(bytes, head, sizeof(head));
    append(bytes, message.data(), available);
    append_zeros(bytes, size - available);
    client.push(bytes);
}

}  // namespace logferry
