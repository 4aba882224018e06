// Log streams: assembly of a message under its stream key and its delivery to the
// channel's ring, record by record and byte by byte.
#include <errno.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "logferry/client.hpp"
#include "support/client_fixture.hpp"
#include "support/diagnostics.hpp"
#include "support/fake_system.hpp"
#include "support/test_util.hpp"

using logferry::LogFormat;
using logferry_test::Bytes;
using logferry_test::bytes_of;
using logferry_test::Daemon_end;
using logferry_test::diagnostic;
using logferry_test::Fake_system;
using logferry_test::joined;
using logferry_test::Op;
using logferry_test::Scoped_system;
using logferry_test::split_records;
using logferry_test::wait_until;

namespace {

// 12.3456789 s on the fake clock: 123456 in units of 0.1 ms.
constexpr long CLOCK_SECONDS = 12;
constexpr long CLOCK_NANOSECONDS = 345678901;
constexpr std::uint32_t TIMESTAMP = 123456;
constexpr std::uint32_t CONTEXT = 1;

// The records as each call is designed to fill them, serialized by the message
// catalogue: the reference the front end's bytes are compared with.
Bytes start_record(std::uint8_t level, std::uint32_t handle, std::uint32_t key, std::uint32_t timestamp = TIMESTAMP)
{
    return bytes_of(logferry_test::make_start(key, level, handle, timestamp));
}

Bytes finish_record(std::uint32_t key) { return bytes_of(logferry_test::make_finish(key)); }

template <typename Record, typename Value>
Bytes plain_record(std::uint32_t key, Value value)
{
    Record record;
    record.stream_key = key;
    record.value = value;
    return bytes_of(record);
}

template <typename Record, typename Value>
Bytes formatted_record(std::uint32_t key, Value value, std::uint8_t format)
{
    Record record;
    record.stream_key = key;
    record.value = value;
    record.format = format;
    return bytes_of(record);
}

Bytes text_record(std::uint32_t key, const std::string& text, std::uint16_t length)
{
    auto record = std::make_unique<logferry::Logferry_write_utf8_string>();
    record->stream_key = key;
    record->length = length;
    std::copy(text.begin(), text.end(), record->text.begin());
    return bytes_of(*record);
}

Bytes raw_record(std::uint32_t key, const Bytes& payload, std::uint8_t format)
{
    auto record = std::make_unique<logferry::Logferry_write_raw_formatted>();
    record->stream_key = key;
    record->length = static_cast<std::uint16_t>(payload.size() + 10);
    record->format = format;
    record->size = static_cast<std::uint16_t>(payload.size());
    std::copy(payload.begin(), payload.end(), record->payload.begin());
    return bytes_of(*record);
}

Bytes encoded_payload_record(std::uint32_t key, const Bytes& payload)
{
    auto record = std::make_unique<logferry::Logferry_write_encoded_payload>();
    record->stream_key = key;
    record->length = static_cast<std::uint16_t>(payload.size() + 9);
    record->size = static_cast<std::uint16_t>(payload.size());
    std::copy(payload.begin(), payload.end(), record->payload.begin());
    return bytes_of(*record);
}

Bytes encoded_message_record(const Bytes& payload)
{
    auto record = std::make_unique<logferry::Logferry_write_encoded_message>();
    record->length = static_cast<std::uint16_t>(payload.size() + 5);
    record->size = static_cast<std::uint16_t>(payload.size());
    std::copy(payload.begin(), payload.end(), record->payload.begin());
    return bytes_of(*record);
}

Bytes pattern(std::size_t size)
{
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<unsigned char>(i * 7 + 1);  // zero bytes included
    }
    return bytes;
}

std::uint32_t read_u32(const Bytes& bytes, std::size_t at)
{
    return bytes[at] | (bytes[at + 1] << 8) | (bytes[at + 2] << 16) | (static_cast<std::uint32_t>(bytes[at + 3]) << 24);
}

// The stream key of one record, or -1 for a record that has none.
long record_key(const Bytes& record)
{
    // Where the key stands in the records of each kind that has one.
    static const std::map<unsigned char, std::size_t> key_at = {{7, 6},   {8, 1},  {9, 1},  {10, 1}, {11, 1},
                                                                {12, 1},  {13, 1}, {14, 3}, {15, 4}, {16, 6},
                                                                {17, 10}, {18, 1}, {19, 1}, {20, 3}};
    const auto found = key_at.find(record[0]);
    return found == key_at.end() ? -1 : static_cast<long>(read_u32(record, found->second));
}

}  // namespace

// A channel without receiver thread, on the fake clock, with an application and context 1
// (level 4) registered and the daemon's end attached.
class ClientStreams : public logferry_test::Client_test {
protected:
    void SetUp() override
    {
        Client_test::SetUp();
        scoped_ = std::make_unique<Scoped_system>(&fake_);
        fake_.set_time(CLOCK_SECONDS, CLOCK_NANOSECONDS);
        open_without_receiver();
        register_basics(CONTEXT, 4);
        daemon_ = std::make_unique<Daemon_end>();
        ASSERT_TRUE(daemon_->attached);
        daemon_->drain();
    }

    void TearDown() override
    {
        daemon_.reset();
        Client_test::TearDown();
        scoped_.reset();
    }

    std::vector<Bytes> messages() { return daemon_->drain(); }

    Bytes only_message()
    {
        auto all = messages();
        EXPECT_EQ(all.size(), 1u);
        return all.empty() ? Bytes() : all[0];
    }

    Fake_system fake_;
    std::unique_ptr<Scoped_system> scoped_;
    std::unique_ptr<Daemon_end> daemon_;
};

// ---------------------------------------------------------------------------------------
// log_start and log_finish

TEST_F(ClientStreams, StartWithLevelAboveSixOpensNothing)
{
    EXPECT_FALSE(logferry::log_start(CONTEXT, 10, 7));
    EXPECT_FALSE(logferry::log_start(CONTEXT, 10, 255));
    EXPECT_FALSE(logferry::is_logstream_enabled(10));
    EXPECT_TRUE(logferry::incomplete_logstream_messages.empty());
    EXPECT_TRUE(messages().empty());
}

TEST_F(ClientStreams, StartWithUnregisteredContextFails)
{
    EXPECT_FALSE(logferry::log_start(99, 10, 4));
    EXPECT_FALSE(logferry::is_logstream_enabled(10));
    EXPECT_TRUE(logferry::incomplete_logstream_messages.empty());
}

TEST_F(ClientStreams, StartWithLevelZeroOpensWithoutFiltering)
{
    EXPECT_TRUE(logferry::log_start(CONTEXT, 10, 0));
    EXPECT_TRUE(logferry::is_logstream_enabled(10));
    // Level 6 is above the context's level 4 and still opens: no filter here.
    EXPECT_TRUE(logferry::log_start(CONTEXT, 11, 6));
    EXPECT_TRUE(logferry::is_logstream_enabled(11));
}

TEST_F(ClientStreams, StartInt8FinishIsOneMessageInOrder)
{
    ASSERT_TRUE(logferry::log_start(CONTEXT, 1, 4));
    logferry::log_int8(1, -5);
    logferry::log_finish(1);
    const Bytes expected{7,  4, 1, 0, 0, 0,    1, 0, 0, 0, 0x40, 0xE2, 0x01, 0x00,  // start, timestamp 123456
                         10, 1, 0, 0, 0, 0xFB,                                      // int8 -5
                         8,  1, 0, 0, 0};                                           // finish
    EXPECT_EQ(only_message(), expected);
    EXPECT_FALSE(logferry::is_logstream_enabled(1));
    EXPECT_EQ(logferry::incomplete_logstream_messages.count(1), 0u);
}

TEST_F(ClientStreams, FinishWithNothingOpenSendsLoneFinishRecord)
{
    logferry::log_finish(9);
    EXPECT_EQ(only_message(), (Bytes{8, 9, 0, 0, 0}));
    EXPECT_FALSE(logferry::is_logstream_enabled(9));
}

TEST_F(ClientStreams, ValueWithoutStartOpensTheStream)
{
    logferry::log_int32(3, 7);
    EXPECT_TRUE(logferry::is_logstream_enabled(3));
    logferry::log_finish(3);
    EXPECT_EQ(only_message(), (Bytes{12, 3, 0, 0, 0, 7, 0, 0, 0, 8, 3, 0, 0, 0}));
}

TEST_F(ClientStreams, TwoStartsOnOneKeyGiveOneMessage)
{
    ASSERT_TRUE(logferry::log_start(CONTEXT, 5, 4));
    ASSERT_TRUE(logferry::log_start(CONTEXT, 5, 2));
    logferry::log_finish(5);
    EXPECT_EQ(only_message(), joined({start_record(4, CONTEXT, 5), start_record(2, CONTEXT, 5), finish_record(5)}));
}

TEST_F(ClientStreams, StreamIsEnabledBetweenStartAndFinish)
{
    EXPECT_FALSE(logferry::is_logstream_enabled(21));
    ASSERT_TRUE(logferry::log_start(CONTEXT, 21, 3));
    EXPECT_TRUE(logferry::is_logstream_enabled(21));
    EXPECT_FALSE(logferry::is_logstream_enabled(22));
    logferry::log_finish(21);
    EXPECT_FALSE(logferry::is_logstream_enabled(21));
}

TEST_F(ClientStreams, TimestampIsMonotonicClockInTenthsOfMilliseconds)
{
    fake_.set_time(429497, 99999);  // 4294970000 wraps to 2704; 99999 ns is below 0.1 ms
    ASSERT_TRUE(logferry::log_start(CONTEXT, 1, 4));
    logferry::log_finish(1);
    EXPECT_EQ(only_message(), joined({start_record(4, CONTEXT, 1, 2704), finish_record(1)}));
}

TEST_F(ClientStreams, ClockFailureGivesTimestampZero)
{
    fake_.fail(Op::clock_gettime, -1, EINVAL, 1);
    ASSERT_TRUE(logferry::log_start(CONTEXT, 1, 4));
    logferry::log_finish(1);
    EXPECT_EQ(only_message(), joined({start_record(4, CONTEXT, 1, 0), finish_record(1)}));
}

TEST_F(ClientStreams, LogCallsDoNotLookAtInit)
{
    logferry::init_called = false;
    ASSERT_TRUE(logferry::log_start(CONTEXT, 2, 4));
    logferry::log_bool(2, true);
    logferry::log_finish(2);
    EXPECT_EQ(only_message(), joined({start_record(4, CONTEXT, 2), plain_record<logferry::Logferry_write_bool>(2, 1),
                                      finish_record(2)}));
}

TEST_F(ClientStreams, StartOnAnOpenStreamAppendsToItWhileASpareNodeWaits)
{
    // A finished message leaves this thread a spare node; stream 2 is then open on a new one.
    ASSERT_TRUE(logferry::log_start(CONTEXT, 1, 4));
    logferry::log_finish(1);
    ASSERT_TRUE(logferry::log_start(CONTEXT, 2, 4));
    ASSERT_TRUE(logferry::log_start(CONTEXT, 3, 4));
    logferry::log_finish(3);
    // Spare node waiting, stream 2 open: the start goes into stream 2.
    ASSERT_TRUE(logferry::log_start(CONTEXT, 2, 5));
    EXPECT_TRUE(logferry::is_logstream_enabled(2));
    EXPECT_FALSE(logferry::is_logstream_enabled(3));
    logferry::log_finish(2);
    // The spare node is still there for the next new stream.
    ASSERT_TRUE(logferry::log_start(CONTEXT, 4, 4));
    logferry::log_finish(4);

    const std::vector<Bytes> all = messages();
    ASSERT_EQ(all.size(), 4u);
    EXPECT_EQ(all[0], joined({start_record(4, CONTEXT, 1), finish_record(1)}));
    EXPECT_EQ(all[1], joined({start_record(4, CONTEXT, 3), finish_record(3)}));
    EXPECT_EQ(all[2], joined({start_record(4, CONTEXT, 2), start_record(5, CONTEXT, 2), finish_record(2)}));
    EXPECT_EQ(all[3], joined({start_record(4, CONTEXT, 4), finish_record(4)}));
    EXPECT_TRUE(logferry::incomplete_logstream_messages.empty());
}

// ---------------------------------------------------------------------------------------
// The typed calls

TEST_F(ClientStreams, EveryTypedCallWritesItsRecord)
{
    const std::uint32_t key = 0x11223344;
    ASSERT_TRUE(logferry::log_start(CONTEXT, key, 4));
    logferry::log_bool(key, true);
    logferry::log_bool(key, false);
    logferry::log_int8(key, std::numeric_limits<std::int8_t>::min());
    logferry::log_int16(key, -2);
    logferry::log_int32(key, std::numeric_limits<std::int32_t>::min());
    logferry::log_int64(key, -1234567890123456789LL);
    logferry::log_uint8_formatted(key, 0xAB, LogFormat::kHex);
    logferry::log_uint16_formatted(key, 0x1234, LogFormat::kHex);
    logferry::log_uint32_formatted(key, 0xDEADBEEF, LogFormat::kBin);
    logferry::log_uint64_formatted(key, std::numeric_limits<std::uint64_t>::max(), LogFormat::kRaw);
    logferry::log_float32(key, 1.0f);
    logferry::log_float64(key, -2.5);
    logferry::log_utf8_string(key, "hello world");
    logferry::log_finish(key);

    using namespace logferry;
    const Bytes expected = joined({
        start_record(4, CONTEXT, key),
        plain_record<Logferry_write_bool>(key, 1),
        plain_record<Logferry_write_bool>(key, 0),
        plain_record<Logferry_write_int8>(key, std::numeric_limits<std::int8_t>::min()),
        plain_record<Logferry_write_int16>(key, -2),
        plain_record<Logferry_write_int32>(key, std::numeric_limits<std::int32_t>::min()),
        plain_record<Logferry_write_int64>(key, -1234567890123456789LL),
        formatted_record<Logferry_write_uint8_formatted>(key, 0xAB, 2),
        formatted_record<Logferry_write_uint16_formatted>(key, 0x1234, 2),
        formatted_record<Logferry_write_uint32_formatted>(key, 0xDEADBEEF, 4),
        formatted_record<Logferry_write_uint64_formatted>(key, std::numeric_limits<std::uint64_t>::max(), 6),
        plain_record<Logferry_write_float32>(key, 1.0f),
        plain_record<Logferry_write_float64>(key, -2.5),
        text_record(key, "hello world", 19),
        finish_record(key),
    });
    const Bytes message = only_message();
    EXPECT_EQ(message, expected);

    // A few of them spelled out.
    const auto records = split_records(message);
    ASSERT_EQ(records.size(), 15u);
    EXPECT_EQ(records[4], (Bytes{11, 0x44, 0x33, 0x22, 0x11, 0xFE, 0xFF}));
    EXPECT_EQ(records[8], (Bytes{15, 2, 0x34, 0x12, 0x44, 0x33, 0x22, 0x11}));
    EXPECT_EQ(records[11], (Bytes{18, 0x44, 0x33, 0x22, 0x11, 0x00, 0x00, 0x80, 0x3F}));
    EXPECT_EQ(records[13], joined({Bytes{20, 19, 0, 0x44, 0x33, 0x22, 0x11},
                                   Bytes{'h', 'e', 'l', 'l', 'o', ' ', 'w', 'o', 'r', 'l', 'd', 0}}));
}

TEST_F(ClientStreams, FormatsOutsideZeroToSixAreSentAsZero)
{
    using namespace logferry;
    for (int format = 0; format < 256; format += 1) {
        const auto code = static_cast<LogFormat>(format);
        const std::uint8_t sent = format <= 6 ? static_cast<std::uint8_t>(format) : 0;
        ASSERT_EQ(sent, static_cast<std::uint8_t>(dlt_validate_format(code)));
        log_uint8_formatted(1, 1, code);
        log_uint16_formatted(1, 2, code);
        log_uint32_formatted(1, 3, code);
        log_uint64_formatted(1, 4, code);
        log_finish(1);
        EXPECT_EQ(only_message(),
                  joined({formatted_record<Logferry_write_uint8_formatted>(1, 1, sent),
                          formatted_record<Logferry_write_uint16_formatted>(1, 2, sent),
                          formatted_record<Logferry_write_uint32_formatted>(1, 3, sent),
                          formatted_record<Logferry_write_uint64_formatted>(1, 4, sent), finish_record(1)}))
            << format;
    }
}

TEST_F(ClientStreams, FloatsAreSentAsTheirBitPatterns)
{
    const float nan32 = std::numeric_limits<float>::quiet_NaN();
    const double inf64 = -std::numeric_limits<double>::infinity();
    logferry::log_float32(1, nan32);
    logferry::log_float64(1, inf64);
    logferry::log_float64(1, 0.1);
    logferry::log_finish(1);
    const auto records = split_records(only_message());
    ASSERT_EQ(records.size(), 4u);
    std::uint32_t bits32;
    std::memcpy(&bits32, &nan32, 4);
    EXPECT_EQ(read_u32(records[0], 5), bits32);
    std::uint64_t bits64;
    std::memcpy(&bits64, &inf64, 8);
    EXPECT_EQ(read_u32(records[1], 5) | (static_cast<std::uint64_t>(read_u32(records[1], 9)) << 32), bits64);
    EXPECT_EQ(records[2], (Bytes{19, 1, 0, 0, 0, 0x9A, 0x99, 0x99, 0x99, 0x99, 0x99, 0xB9, 0x3F}));
}

TEST_F(ClientStreams, Utf8StringOf1388CharactersIsRecorded)
{
    const std::string text(1388, 'z');
    logferry::log_utf8_string(1, text.c_str());
    logferry::log_finish(1);
    const Bytes message = only_message();
    const Bytes record = text_record(1, text, 1396);
    ASSERT_EQ(record.size(), 1396u);
    EXPECT_EQ(record[1], 1396 & 0xFF);
    EXPECT_EQ(record[2], 1396 >> 8);
    EXPECT_EQ(message, joined({record, finish_record(1)}));
}

TEST_F(ClientStreams, Utf8StringOf1389CharactersIsDropped)
{
    ASSERT_TRUE(logferry::log_start(CONTEXT, 1, 4));
    const std::string text(1389, 'z');
    logferry::log_utf8_string(1, text.c_str());
    const std::string longer(5000, 'y');
    logferry::log_utf8_string(1, longer.c_str());
    logferry::log_utf8_string(1, nullptr);
    logferry::log_finish(1);
    EXPECT_EQ(only_message(), joined({start_record(4, CONTEXT, 1), finish_record(1)}));
}

TEST_F(ClientStreams, DroppedValueOpensNoStream)
{
    const std::string text(1389, 'z');
    logferry::log_utf8_string(4, text.c_str());
    logferry::log_string_view(4, "x", 1389);
    logferry::log_raw_formatted(4, nullptr, 0, LogFormat::kDefault);
    logferry::log_encoded_payload(4, Bytes(), 1);
    EXPECT_FALSE(logferry::is_logstream_enabled(4));
    EXPECT_TRUE(logferry::incomplete_logstream_messages.empty());
}

TEST_F(ClientStreams, EmptyUtf8String)
{
    logferry::log_utf8_string(1, "");
    logferry::log_finish(1);
    EXPECT_EQ(only_message(), joined({Bytes{20, 8, 0, 1, 0, 0, 0, 0}, finish_record(1)}));
}

TEST_F(ClientStreams, StringViewStopsAtZeroButKeepsGivenLength)
{
    const char text[] = {'a', 'b', 'c', 0, 'e', 'f', 'g', 'h', 'i', 'j'};
    logferry::log_string_view(1, text, 10);
    logferry::log_finish(1);
    EXPECT_EQ(only_message(), joined({Bytes{20, 18, 0, 1, 0, 0, 0, 'a', 'b', 'c', 0}, finish_record(1)}));
}

TEST_F(ClientStreams, StringViewCopiesAtMostLengthBytes)
{
    logferry::log_string_view(1, "hello world", 5);
    logferry::log_string_view(1, "abc", 0);
    logferry::log_finish(1);
    EXPECT_EQ(only_message(), joined({text_record(1, "hello", 13), Bytes{20, 8, 0, 1, 0, 0, 0, 0}, finish_record(1)}));
}

TEST_F(ClientStreams, StringViewLimits)
{
    const std::string text(1388, 'v');
    logferry::log_string_view(1, text.c_str(), 1388);
    logferry::log_string_view(1, text.c_str(), 1389);
    logferry::log_string_view(1, text.c_str(), std::numeric_limits<std::uint64_t>::max());
    logferry::log_string_view(1, nullptr, 3);
    logferry::log_finish(1);
    EXPECT_EQ(only_message(), joined({text_record(1, text, 1396), finish_record(1)}));
}

TEST_F(ClientStreams, RawFormattedLimits)
{
    const Bytes data = pattern(1390);
    ASSERT_TRUE(logferry::log_start(CONTEXT, 1, 4));
    logferry::log_raw_formatted(1, data.data(), 1389, LogFormat::kHex);
    logferry::log_raw_formatted(1, data.data(), 1390, LogFormat::kHex);
    logferry::log_raw_formatted(1, nullptr, 0, LogFormat::kHex);
    logferry::log_raw_formatted(1, nullptr, 5, LogFormat::kHex);
    logferry::log_finish(1);
    const Bytes record = raw_record(1, Bytes(data.begin(), data.begin() + 1389), 2);
    ASSERT_EQ(record.size(), 1399u);
    EXPECT_EQ(only_message(), joined({start_record(4, CONTEXT, 1), record, finish_record(1)}));
}

TEST_F(ClientStreams, RawFormattedCopiesZeroBytesAndPassesFormatUnchecked)
{
    const std::uint8_t data[] = {0, 1, 0, 2};
    logferry::log_raw_formatted(1, data, 4, static_cast<LogFormat>(9));
    logferry::log_raw_formatted(1, data, 0, LogFormat::kOct);
    logferry::log_finish(1);
    EXPECT_EQ(only_message(), joined({Bytes{21, 14, 0, 9, 4, 0, 1, 0, 0, 0, 0, 1, 0, 2},
                                      Bytes{21, 10, 0, 3, 0, 0, 1, 0, 0, 0}, finish_record(1)}));
}

TEST_F(ClientStreams, EncodedPayloadRules)
{
    const Bytes payload = pattern(1389);
    ASSERT_TRUE(logferry::log_start(CONTEXT, 1, 4));
    logferry::log_encoded_payload(1, Bytes(), 0);
    logferry::log_encoded_payload(1, Bytes(), 5);
    logferry::log_encoded_payload(1, payload, 1389);
    logferry::log_encoded_payload(1, payload, 1390);
    logferry::log_encoded_payload(1, payload, 3);
    logferry::log_encoded_payload(1, payload, 0);
    logferry::log_finish(1);
    EXPECT_EQ(only_message(), joined({start_record(4, CONTEXT, 1), encoded_payload_record(1, payload),
                                      encoded_payload_record(1, Bytes(payload.begin(), payload.begin() + 3)),
                                      Bytes{22, 9, 0, 0, 0, 1, 0, 0, 0}, finish_record(1)}));
}

TEST_F(ClientStreams, EncodedPayloadAsFirstRecordIsRefusedByTheChannel)
{
    logferry::log_encoded_payload(1, Bytes{1, 2}, 2);
    std::string output = logferry_test::capture_stderr([] { logferry::log_finish(1); });
    EXPECT_EQ(output, diagnostic("unknown message type 22"));
    EXPECT_TRUE(messages().empty());
    EXPECT_FALSE(logferry::is_logstream_enabled(1));
}

TEST_F(ClientStreams, EncodedMessageIsSentAtOnce)
{
    logferry::log_encoded_message(Bytes{9, 8, 7}, 3);
    EXPECT_EQ(only_message(), (Bytes{23, 8, 0, 3, 0, 9, 8, 7}));
    EXPECT_TRUE(logferry::incomplete_logstream_messages.empty());

    // The first `length` bytes only.
    logferry::log_encoded_message(Bytes{1, 2, 3, 4, 5}, 2);
    EXPECT_EQ(only_message(), (Bytes{23, 7, 0, 2, 0, 1, 2}));

    logferry::log_encoded_message(Bytes{1}, 0);
    EXPECT_EQ(only_message(), (Bytes{23, 5, 0, 0, 0}));
}

TEST_F(ClientStreams, EncodedMessageIsPaddedWithZerosBeyondSixteen)
{
    logferry::log_encoded_message(Bytes{1, 2, 3}, 40);
    Bytes expected{23, 45, 0, 40, 0, 1, 2, 3};
    expected.resize(expected.size() + 37, 0);
    const std::vector<Bytes> all = messages();
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0], expected);
}

TEST_F(ClientStreams, EncodedMessageLimits)
{
    const Bytes payload = pattern(1390);
    logferry::log_encoded_message(Bytes(), 0);
    logferry::log_encoded_message(Bytes(), 3);
    logferry::log_encoded_message(payload, 1390);
    EXPECT_TRUE(messages().empty());
    logferry::log_encoded_message(payload, 1389);
    const Bytes record = encoded_message_record(Bytes(payload.begin(), payload.begin() + 1389));
    ASSERT_EQ(record.size(), 1394u);
    EXPECT_EQ(only_message(), record);
}

TEST_F(ClientStreams, EncodedMessageDoesNotTouchOpenStreams)
{
    ASSERT_TRUE(logferry::log_start(CONTEXT, 1, 4));
    logferry::log_encoded_message(Bytes{5}, 1);
    EXPECT_EQ(only_message(), (Bytes{23, 6, 0, 1, 0, 5}));
    logferry::log_finish(1);
    EXPECT_EQ(only_message(), joined({start_record(4, CONTEXT, 1), finish_record(1)}));
}

TEST_F(ClientStreams, AppendToLogstreamCopiesBytes)
{
    Bytes first{12, 8, 0, 0, 0, 1, 0, 0, 0};
    EXPECT_TRUE(logferry::append_to_logstream(8, first));
    first[5] = 99;  // the stream holds its own copy
    EXPECT_TRUE(logferry::append_to_logstream(8, Bytes{9, 8, 0, 0, 0, 1}));
    {
        std::lock_guard<std::mutex> lock(logferry::incomplete_logstream_messages_mutex);
        EXPECT_EQ(logferry::incomplete_logstream_messages.at(8), (Bytes{12, 8, 0, 0, 0, 1, 0, 0, 0, 9, 8, 0, 0, 0, 1}));
    }
    logferry::log_finish(8);
    EXPECT_EQ(only_message(), (Bytes{12, 8, 0, 0, 0, 1, 0, 0, 0, 9, 8, 0, 0, 0, 1, 8, 8, 0, 0, 0}));
}

TEST_F(ClientStreams, AppendToLogstreamOfNothingOpensTheStream)
{
    EXPECT_TRUE(logferry::append_to_logstream(3, Bytes()));
    EXPECT_TRUE(logferry::is_logstream_enabled(3));
    logferry::log_finish(3);
    EXPECT_EQ(only_message(), finish_record(3));
}

// ---------------------------------------------------------------------------------------
// Successive and concurrent messages

TEST_F(ClientStreams, SuccessiveMessagesCarryNothingOfEachOther)
{
    // A big message, a small one on the same key, one on another key, then a lone finish:
    // whatever memory the front end reuses between them, each message is exactly its own.
    const std::string chunk(1000, 'k');
    ASSERT_TRUE(logferry::log_start(CONTEXT, 1, 4));
    Bytes big = start_record(4, CONTEXT, 1);
    for (int i = 0; i < 40; ++i) {
        logferry::log_utf8_string(1, chunk.c_str());
        big = joined({big, text_record(1, chunk, 1008)});
    }
    logferry::log_finish(1);
    big = joined({big, finish_record(1)});
    EXPECT_EQ(only_message(), big);

    for (int round = 0; round < 3; ++round) {
        ASSERT_TRUE(logferry::log_start(CONTEXT, 1, 3));
        logferry::log_int16(1, static_cast<std::int16_t>(round));
        logferry::log_finish(1);
        EXPECT_EQ(only_message(), joined({start_record(3, CONTEXT, 1),
                                          plain_record<logferry::Logferry_write_int16>(1, round), finish_record(1)}));

        logferry::log_utf8_string(2, "other");
        logferry::log_finish(2);
        EXPECT_EQ(only_message(), joined({text_record(2, "other", 13), finish_record(2)}));

        logferry::log_finish(7);
        EXPECT_EQ(only_message(), finish_record(7));
    }
}

TEST_F(ClientStreams, InterleavedKeysOnOneThreadStaySeparate)
{
    ASSERT_TRUE(logferry::log_start(CONTEXT, 1, 4));
    ASSERT_TRUE(logferry::log_start(CONTEXT, 2, 5));
    logferry::log_int32(1, 100);
    logferry::log_int32(2, 200);
    logferry::log_finish(2);
    logferry::log_finish(1);
    const auto all = messages();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0], joined({start_record(5, CONTEXT, 2), plain_record<logferry::Logferry_write_int32>(2, 200),
                              finish_record(2)}));
    EXPECT_EQ(all[1], joined({start_record(4, CONTEXT, 1), plain_record<logferry::Logferry_write_int32>(1, 100),
                              finish_record(1)}));
}

TEST_F(ClientStreams, TwoThreadsInAlternationBuildTwoCompleteMessages)
{
    // Thread A builds under key 1, thread B under key 2; they take turns call by call.
    std::atomic<int> turn{0};
    constexpr int calls = 5;
    auto build = [&](int side, std::uint32_t key) {
        for (int step = 0; step < calls; ++step) {
            const int mine = step * 2 + side;
            ASSERT_TRUE(wait_until([&] { return turn.load() == mine; }));
            switch (step) {
            case 0:
                EXPECT_TRUE(logferry::log_start(CONTEXT, key, 4));
                break;
            case 1:
                logferry::log_int32(key, static_cast<std::int32_t>(key * 10));
                break;
            case 2:
                logferry::log_utf8_string(key, key == 1 ? "from A" : "from B");
                break;
            case 3:
                logferry::log_uint32_formatted(key, key, LogFormat::kHex);
                break;
            default:
                logferry::log_finish(key);
                break;
            }
            turn = mine + 1;
        }
    };
    std::thread a(build, 0, 1u);
    std::thread b(build, 1, 2u);
    a.join();
    b.join();

    const auto all = messages();
    ASSERT_EQ(all.size(), 2u);
    auto expected = [](std::uint32_t key) {
        return joined({start_record(4, CONTEXT, key),
                       plain_record<logferry::Logferry_write_int32>(key, static_cast<std::int32_t>(key * 10)),
                       text_record(key, key == 1 ? "from A" : "from B", 14),
                       formatted_record<logferry::Logferry_write_uint32_formatted>(key, key, 2), finish_record(key)});
    };
    EXPECT_EQ(all[0], expected(1));
    EXPECT_EQ(all[1], expected(2));
}

TEST_F(ClientStreams, ConcurrentStreamsFromSeveralThreadsArriveComplete)
{
    constexpr int threads = 4;
    constexpr int per_thread = 200;
    constexpr int total = threads * per_thread;

    // The daemon reads while the application writes.
    std::atomic<bool> writing{true};
    std::vector<Bytes> received;
    std::thread reader([&] {
        while (true) {
            const bool last_round = !writing.load();
            for (Bytes& message : daemon_->drain()) {
                received.push_back(std::move(message));
            }
            if (last_round) {
                break;
            }
            std::this_thread::yield();
        }
    });

    std::vector<std::thread> writers;
    for (int t = 0; t < threads; ++t) {
        writers.emplace_back([t] {
            const std::uint32_t key = 100 + static_cast<std::uint32_t>(t);
            const std::string text = "writer " + std::to_string(t);
            for (int i = 0; i < per_thread; ++i) {
                EXPECT_TRUE(logferry::log_start(CONTEXT, key, 4));
                logferry::log_int32(key, i);
                logferry::log_utf8_string(key, text.c_str());
                logferry::log_uint64_formatted(key, static_cast<std::uint64_t>(i) * 3, LogFormat::kDec);
                logferry::log_finish(key);
            }
        });
    }
    for (auto& writer : writers) {
        writer.join();
    }
    writing = false;
    reader.join();

    ASSERT_EQ(received.size(), static_cast<std::size_t>(total));
    EXPECT_EQ(logferry::client.lost_messages.load(), 0u);
    std::map<std::uint32_t, int> next;
    for (const Bytes& message : received) {
        const auto records = split_records(message);
        ASSERT_EQ(records.size(), 5u);
        const long key = record_key(records[0]);
        ASSERT_GE(key, 100);
        ASSERT_LT(key, 100 + threads);
        for (const Bytes& record : records) {
            EXPECT_EQ(record_key(record), key);
        }
        const auto k = static_cast<std::uint32_t>(key);
        const int i = next[k]++;
        const std::string text = "writer " + std::to_string(key - 100);
        EXPECT_EQ(message, joined({start_record(4, CONTEXT, k), plain_record<logferry::Logferry_write_int32>(k, i),
                                   text_record(k, text, static_cast<std::uint16_t>(text.size() + 8)),
                                   formatted_record<logferry::Logferry_write_uint64_formatted>(
                                       k, static_cast<std::uint64_t>(i) * 3, 1),
                                   finish_record(k)}));
    }
    for (int t = 0; t < threads; ++t) {
        EXPECT_EQ(next[100 + static_cast<std::uint32_t>(t)], per_thread);
    }
    EXPECT_TRUE(logferry::incomplete_logstream_messages.empty());
}

TEST_F(ClientStreams, MessageStartedOnOneThreadFinishedOnAnother)
{
    ASSERT_TRUE(logferry::log_start(CONTEXT, 30, 4));
    logferry::log_int8(30, 1);
    std::thread other([] {
        logferry::log_int8(30, 2);
        logferry::log_finish(30);
        // This thread's next message reuses what it kept from that one.
        logferry::log_int8(31, 3);
        logferry::log_finish(31);
    });
    other.join();
    const auto all = messages();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0], joined({start_record(4, CONTEXT, 30), plain_record<logferry::Logferry_write_int8>(30, 1),
                              plain_record<logferry::Logferry_write_int8>(30, 2), finish_record(30)}));
    EXPECT_EQ(all[1], joined({plain_record<logferry::Logferry_write_int8>(31, 3), finish_record(31)}));
}
