// The ara::log hot path: a message is encoded with the same encoders as the free functions,
// straight into the calling thread's staging queue (staging.hpp), and handed to the flusher
// when it is complete; a fatal message reaches the ring before its statement ends.
//
// Size. A message must fit one unit of the ring (wire::MAX_FRAMED_RECORD_SIZE bytes). An argument
// that would no longer fit is left out and counted; the finished message then ends with one
// more text argument, "[N arguments dropped: message too long]", before its finish record.
// A text longer than a text record can carry is cut at a character boundary and ends in
// "..."; raw data longer than a raw record can carry is cut and followed by the text
// "[raw data cut from N bytes]".
#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <new>

#include "ara_log/internal.hpp"
#include "ara_log/staging.hpp"
#include "ara_log/stamp_clock.hpp"
#include "logferry/channel.hpp"
#include "wire/ring_framing.hpp"
#include "wire/wire.hpp"

namespace ara::log {

namespace {

using detail::Message;
namespace encoding = logferry::encoding;

// Longest text of one text record (the free functions' limit), the text a cut one keeps
// before its "...", and the longest payload of one raw record.
constexpr std::size_t MAX_TEXT_LENGTH = encoding::MAX_LOGGED_TEXT_LENGTH;
constexpr char CUT_MARK[] = "...";
constexpr std::size_t CUT_MARK_LENGTH = sizeof(CUT_MARK) - 1;
constexpr std::size_t MAX_PAYLOAD_LENGTH = encoding::MAX_PAYLOAD_SIZE;
// What log_stream.h promises of a cut text.
static_assert(MAX_TEXT_LENGTH == 1388 && MAX_TEXT_LENGTH - CUT_MARK_LENGTH == 1385, "a cut text's length");

// The notes this file adds (dropped arguments, cut raw data) are made in buffers of this size.
constexpr std::size_t NOTE_SIZE = 64;
// Room kept at the end of every message for the finish record and the note on dropped
// arguments, so that both always fit.
constexpr std::size_t NOTE_ROOM = encoding::TEXT_HEAD_SIZE + NOTE_SIZE;
constexpr std::size_t ARGUMENT_LIMIT = logferry::wire::MAX_FRAMED_RECORD_SIZE - encoding::FINISH_SIZE - NOTE_ROOM;

// Room for `size` more bytes of arguments: the place to write them, or null when the message
// has no more room for them (or no memory is left), which counts the argument as dropped.
unsigned char* room(Message& message, std::size_t size, std::size_t limit = ARGUMENT_LIMIT) noexcept
{
    const std::size_t needed = message.used + size;
    if (needed > limit) {
        ++message.dropped;
        return nullptr;
    }
    if (needed > message.capacity && !detail::grow(message, needed)) {
        return nullptr;  // no memory: the whole message is lost (and counted when sent)
    }
    return message.data + message.used;
}

// A text record: head, `copied` characters, the terminating zero; its length field counts
// the given `length`, as the free functions count it.
void add_text(Message& message, const char* text, std::size_t copied, std::size_t length,
              std::size_t limit = ARGUMENT_LIMIT) noexcept
{
    const std::size_t size = encoding::text_size(copied);
    unsigned char* out = room(message, size, limit);
    if (out == nullptr) {
        return;
    }
    encoding::encode_text_head(out, logferry::KIND_WRITE_UTF8_STRING,
                               static_cast<std::uint16_t>(encoding::text_size(length)), message.key);
    std::memcpy(out + encoding::TEXT_HEAD_SIZE, text, copied);
    out[size - 1] = 0;
    message.used += size;
}

// Starts a message in `message` (its key given): the start record with the time stamp.
void start(Message& message) noexcept
{
    message.used = 0;
    message.dropped = 0;
    if (unsigned char* out = room(message, encoding::START_SIZE)) {
        message.used = encoding::encode_start(out, logferry::KIND_WRITE_START, message.level, message.handle,
                                              message.key, detail::stamp_now());
    }
}

// A number argument, in the record its type travels in; the unsigned integers with their
// format as given.
template <typename T>
void put_number(Message& message, T value) noexcept
{
    if (unsigned char* out = room(message, encoding::argument_size<T>)) {
        message.used += encoding::encode_argument(out, message.key, value);
    }
}

template <typename T>
void put_number(Message& message, T value, std::uint8_t format) noexcept
{
    if (unsigned char* out = room(message, encoding::argument_size<T>)) {
        message.used += encoding::encode_argument(out, message.key, value, format);
    }
}

// Closes the message (note on dropped arguments, finish record) and hands it over.
void send(Message& message) noexcept
{
    if (message.dropped != 0) {
        char note[NOTE_SIZE] = "[";
        char* end = std::to_chars(note + 1, note + 16, message.dropped).ptr;
        const char tail[] = " arguments dropped: message too long]";
        std::memcpy(end, tail, sizeof(tail));
        const std::size_t length = std::strlen(note);
        message.dropped = 0;
        add_text(message, note, length, length, ARGUMENT_LIMIT + NOTE_ROOM);  // the room kept for it
    }
    unsigned char* out = room(message, encoding::FINISH_SIZE, logferry::wire::MAX_FRAMED_RECORD_SIZE);
    if (out == nullptr) {
        detail::stage(message, false);  // no memory for five bytes: the message is lost (and counted)
        return;
    }
    message.used += encoding::encode_finish(out, logferry::KIND_WRITE_FINISH, message.key);
    detail::stage(message, message.level == static_cast<std::uint8_t>(LogLevel::kFatal));
}

}  // namespace

detail::Message* Logger::Open(LogLevel level) const noexcept
{
    Message* message = detail::take_message();
    if (message == nullptr) {
        return nullptr;
    }
    message->handle = context_->handle;
    message->level = static_cast<std::uint8_t>(level);
    start(*message);
    return message;
}

void LogStream::Finish() noexcept
{
    send(*message_);
    detail::give_back(message_);
    message_ = nullptr;
}

void LogStream::Restart() noexcept
{
    // The same logger and level, in new storage of this thread.
    const std::uint32_t handle = message_->handle;
    const std::uint8_t level = message_->level;
    send(*message_);
    detail::give_back(message_);
    message_ = detail::take_message();
    if (message_ != nullptr) {
        message_->handle = handle;
        message_->level = level;
        start(*message_);
    }
}

void LogStream::PutLocation(detail::Text file, int line) noexcept
{
    if (message_->used != encoding::START_SIZE) {
        return;  // the message already has content
    }
    // "file:line", the file's name cut (from the front) so that the whole fits one text.
    std::array<char, MAX_TEXT_LENGTH> text{};
    char digits[16];
    auto* const digits_end = std::to_chars(digits, digits + sizeof(digits), line).ptr;
    const auto digits_size = static_cast<std::size_t>(digits_end - digits);
    std::size_t file_size = file.size();
    const char* file_data = file.data();
    const std::size_t room_for_file = MAX_TEXT_LENGTH - 1 - digits_size;
    if (file_size > room_for_file) {
        file_data += file_size - room_for_file;
        file_size = room_for_file;
    }
    std::memcpy(text.data(), file_data, file_size);
    text[file_size] = ':';
    std::memcpy(text.data() + file_size + 1, digits, digits_size);
    const std::size_t length = file_size + 1 + digits_size;
    add_text(*message_, text.data(), ::strnlen(text.data(), length), length);
}

void LogStream::PutBool(bool value) noexcept { put_number(*message_, value); }

void LogStream::PutInt8(std::int8_t value) noexcept { put_number(*message_, value); }

void LogStream::PutInt16(std::int16_t value) noexcept { put_number(*message_, value); }

void LogStream::PutInt32(std::int32_t value) noexcept { put_number(*message_, value); }

void LogStream::PutInt64(std::int64_t value) noexcept { put_number(*message_, value); }

void LogStream::PutUint8(std::uint8_t value, std::uint8_t format) noexcept { put_number(*message_, value, format); }

void LogStream::PutUint16(std::uint16_t value, std::uint8_t format) noexcept { put_number(*message_, value, format); }

void LogStream::PutUint32(std::uint32_t value, std::uint8_t format) noexcept { put_number(*message_, value, format); }

void LogStream::PutUint64(std::uint64_t value, std::uint8_t format) noexcept { put_number(*message_, value, format); }

void LogStream::PutFloat32(float value) noexcept { put_number(*message_, value); }

void LogStream::PutFloat64(double value) noexcept { put_number(*message_, value); }

void LogStream::PutText(const char* text, std::size_t size) noexcept
{
    if (size <= MAX_TEXT_LENGTH) {
        // As log_string_view sends it: the copy stops at a zero byte, the length field tells
        // the given length.
        add_text(*message_, text, ::strnlen(text, size), size);
        return;
    }
    const std::size_t until_zero = ::strnlen(text, MAX_TEXT_LENGTH + 1);
    if (until_zero <= MAX_TEXT_LENGTH) {
        add_text(*message_, text, until_zero, until_zero);  // what a reader sees ends at the zero
        return;
    }
    // Cut at a character boundary (never inside a UTF-8 sequence) and marked.
    std::size_t keep = MAX_TEXT_LENGTH - CUT_MARK_LENGTH;
    while (keep > 0 && (static_cast<unsigned char>(text[keep]) & 0xC0U) == 0x80U) {
        --keep;
    }
    std::array<char, MAX_TEXT_LENGTH> cut{};
    std::memcpy(cut.data(), text, keep);
    std::memcpy(cut.data() + keep, CUT_MARK, CUT_MARK_LENGTH);
    add_text(*message_, cut.data(), keep + CUT_MARK_LENGTH, keep + CUT_MARK_LENGTH);
}

void LogStream::PutRaw(const void* data, std::size_t size) noexcept
{
    const std::size_t carried = size < MAX_PAYLOAD_LENGTH ? size : MAX_PAYLOAD_LENGTH;
    unsigned char* out = room(*message_, encoding::RAW_HEAD_SIZE + carried);
    if (out == nullptr) {
        return;
    }
    encoding::encode_raw_head(
        out, logferry::KIND_WRITE_RAW_FORMATTED, static_cast<std::uint16_t>(encoding::RAW_HEAD_SIZE + carried),
        static_cast<std::uint8_t>(logferry::LogFormat::kRaw), static_cast<std::uint16_t>(carried), message_->key);
    std::memcpy(out + encoding::RAW_HEAD_SIZE, data, carried);
    message_->used += encoding::RAW_HEAD_SIZE + carried;
    if (carried < size) {
        char note[NOTE_SIZE] = "[raw data cut from ";
        const std::size_t prefix = std::strlen(note);
        char* end = std::to_chars(note + prefix, note + 40, size).ptr;
        std::memcpy(end, " bytes]", 8);
        const std::size_t length = std::strlen(note);
        add_text(*message_, note, length, length);
    }
}

LogStream& operator<<(LogStream& out, LogLevel level) noexcept
{
    static constexpr const char* NAMES[] = {"Off", "Fatal", "Error", "Warn", "Info", "Debug", "Verbose"};
    const auto value = static_cast<std::uint8_t>(level);
    if (value < sizeof(NAMES) / sizeof(NAMES[0])) {
        return out << NAMES[value];
    }
    char text[16] = "Level";
    *std::to_chars(text + 5, text + 15, static_cast<unsigned int>(value)).ptr = '\0';
    return out << static_cast<const char*>(text);
}

std::string detail::unit_text(std::intmax_t num, std::intmax_t den)
{
    if (num == 1 && den == 1000000000) {
        return "ns";
    }
    if (num == 1 && den == 1000000) {
        return "us";
    }
    if (num == 1 && den == 1000) {
        return "ms";
    }
    if (num == 1 && den == 1) {
        return "s";
    }
    if (num == 60 && den == 1) {
        return "min";
    }
    if (num == 3600 && den == 1) {
        return "h";
    }
    return "*" + std::to_string(num) + "/" + std::to_string(den) + "s";
}

}  // namespace ara::log
