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

inline logferry::Logferry_init_file make_init_file(const std::string& name)
{
    logferry::Logferry_init_file record;
    EXPECT_LE(name.size(), record.file_name.size()) << "the name does not fit the record";
    std::copy_n(name.begin(), std::min(name.size(), record.file_name.size()), record.file_name.begin());
    return record;
}

}  // namespace logferry_test

#endif
