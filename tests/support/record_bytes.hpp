#ifndef LOGFERRY_TEST_RECORD_BYTES_HPP
#define LOGFERRY_TEST_RECORD_BYTES_HPP

// Building the bytes a test expects (header only: only the tests that link the records
// include it).

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <string>

#include <gtest/gtest.h>

#include "logferry/message.hpp"
#include "support/test_util.hpp"

namespace logferry_test {

// The records as the library's encoder writes them, one after the other.
template <typename... Record>
Bytes bytes_of(const Record&... records)
{
    Bytes bytes;
    const int unused[] = {0, (logferry::serialize(records, bytes), 0)...};
    static_cast<void>(unused);
    return bytes;
}

// The byte strings one after the other.
inline Bytes joined(std::initializer_list<Bytes> parts)
{
    Bytes all;
    for (const Bytes& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

// Records with the fields a test sets, the others as the record's constructor leaves them.
inline logferry::Logferry_write_start make_start(std::uint32_t key, std::uint8_t level, std::uint32_t handle,
                                                 std::uint32_t timestamp)
{
    logferry::Logferry_write_start record;
    record.log_level = level;
    record.context_handle = handle;
    record.stream_key = key;
    record.timestamp = timestamp;
    return record;
}

inline logferry::Logferry_write_finish make_finish(std::uint32_t key)
{
    logferry::Logferry_write_finish record;
    record.stream_key = key;
    return record;
}

// A record of one value (bool, integer or floating point), and one with a format as well.
template <typename Record, typename Value>
Record make_value(std::uint32_t key, Value value)
{
    Record record;
    record.stream_key = key;
    record.value = value;
    return record;
}

template <typename Record, typename Value>
Record make_formatted(std::uint32_t key, Value value, logferry::LogFormat format)
{
    Record record = make_value<Record>(key, value);
    record.format = static_cast<std::uint8_t>(format);
    return record;
}

// A text record holding `text` with the length the front end gives it: the text, its zero
// and the record's seven bytes before the text.
inline logferry::Logferry_write_utf8_string make_text(std::uint32_t key, const std::string& text)
{
    logferry::Logferry_write_utf8_string record;
    EXPECT_LE(text.size(), record.text.size()) << "the text does not fit the record";
    record.stream_key = key;
    std::copy_n(text.begin(), std::min(text.size(), record.text.size()), record.text.begin());
    record.length = static_cast<std::uint16_t>(text.size() + 8);
    return record;
}

// The payload records with the lengths the front end gives them: the record's head and `size`
// payload bytes, of which the record carries `payload` (a larger `size` announces bytes that
// are not carried).
inline logferry::Logferry_write_raw_formatted make_raw(std::uint32_t key, logferry::LogFormat format,
                                                       const Bytes& payload, std::size_t size = 0)
{
    logferry::Logferry_write_raw_formatted record;
    record.stream_key = key;
    record.format = static_cast<std::uint8_t>(format);
    record.size = static_cast<std::uint16_t>(std::max(size, payload.size()));
    record.length = static_cast<std::uint16_t>(record.size + 10);
    std::copy_n(payload.begin(), std::min(payload.size(), record.payload.size()), record.payload.begin());
    return record;
}

inline logferry::Logferry_write_encoded_payload make_encoded_payload(std::uint32_t key, const Bytes& payload)
{
    logferry::Logferry_write_encoded_payload record;
    record.stream_key = key;
    record.size = static_cast<std::uint16_t>(payload.size());
    record.length = static_cast<std::uint16_t>(payload.size() + 9);
    std::copy_n(payload.begin(), std::min(payload.size(), record.payload.size()), record.payload.begin());
    return record;
}

inline logferry::Logferry_write_encoded_message make_encoded_message(const Bytes& payload)
{
    logferry::Logferry_write_encoded_message record;
    record.size = static_cast<std::uint16_t>(payload.size());
    record.length = static_cast<std::uint16_t>(payload.size() + 5);
    std::copy_n(payload.begin(), std::min(payload.size(), record.payload.size()), record.payload.begin());
    return record;
}

inline logferry::Logferry_init_file make_init_file(const std::string& name)
{
    logferry::Logferry_init_file record;
    EXPECT_LE(name.size(), record.file_name.size()) << "the name does not fit the record";
    std::copy_n(name.begin(), std::min(name.size(), record.file_name.size()), record.file_name.begin());
    return record;
}

}  // namespace logferry_test

#endif
