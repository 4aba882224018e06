// The byte format's one home: the coding helpers, the per-kind sizes, offsets and limits,
// the ring framing, the shared-field access and the robust mutex set-up and recovery.
#include <gtest/gtest.h>
#include <pthread.h>

#include <cerrno>
#include <cstdint>
#include <thread>
#include <vector>

#include "logferry/channel.hpp"
#include "logferry/message.hpp"
#include "support/fake_system.hpp"
#include "support/robust_list.hpp"
#include "system/robust_mutex.hpp"
#include "wire/channel_name.hpp"
#include "wire/ring_framing.hpp"
#include "wire/shared_fields.hpp"
#include "wire/timestamp.hpp"
#include "wire/wire.hpp"

namespace {

namespace wire = logferry::wire;
using Bytes = std::vector<unsigned char>;
using logferry_test::Fake_system;
using logferry_test::Op;
using logferry_test::Scoped_system;

template <typename Record>
Bytes serialized(const Record& record)
{
    Bytes out;
    logferry::serialize(record, out);
    return out;
}

TEST(WireCoding, PutsWriteLittleEndianAndReturnThePositionAfterTheValue)
{
    unsigned char buffer[15] = {};
    unsigned char* p = wire::put_u8(buffer, 0xA1);
    p = wire::put_u16(p, 0xB2C3);
    p = wire::put_u32(p, 0xD4E5F607);
    p = wire::put_u64(p, 0x0102030405060708ULL);
    EXPECT_EQ(p, buffer + 15);
    const Bytes expected = {0xA1, 0xC3, 0xB2, 0x07, 0xF6, 0xE5, 0xD4, 0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01};
    EXPECT_EQ(Bytes(buffer, buffer + 15), expected);
}

TEST(WireCoding, GetsReadWhatPutsWrote)
{
    const unsigned char bytes[] = {0xC3, 0xB2, 0x07, 0xF6, 0xE5, 0xD4, 0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01};
    EXPECT_EQ(wire::get_u16(bytes), 0xB2C3);
    EXPECT_EQ(wire::get_u32(bytes + 2), 0xD4E5F607U);
    EXPECT_EQ(wire::get_u64(bytes + 6), 0x0102030405060708ULL);
}

TEST(WireCoding, FloatingPointValuesTravelAsTheirMemoryBytes)
{
    unsigned char buffer[4] = {};
    EXPECT_EQ(wire::put_memory(buffer, 1.0F), buffer + 4);
    EXPECT_EQ(Bytes(buffer, buffer + 4), (Bytes{0x00, 0x00, 0x80, 0x3F}));
    EXPECT_EQ(wire::get_memory<float>(buffer), 1.0F);
}

TEST(WireLayout, FixedSizesOfEveryKind)
{
    const std::size_t expected[] = {1, 1, 256, 0, 1, 0, 5, 14, 5, 6, 6, 7, 9, 13, 7, 8, 10, 14, 9, 13, 0, 0, 0, 0, 6};
    for (int kind = 0; kind <= wire::MAX_KIND; ++kind) {
        EXPECT_EQ(wire::fixed_size(kind), expected[kind]) << "kind " << kind;
    }
    EXPECT_EQ(wire::fixed_size(25), 0U);
    EXPECT_EQ(wire::fixed_size(-1), 0U);
}

TEST(WireLayout, HeadSizesAndLimits)
{
    EXPECT_EQ(wire::REGISTER_APP_HEAD_SIZE, 8U);
    EXPECT_EQ(wire::REGISTER_CONTEXT_HEAD_SIZE, 13U);
    EXPECT_EQ(wire::TEXT_HEAD_SIZE, 7U);
    EXPECT_EQ(wire::RAW_HEAD_SIZE, 10U);
    EXPECT_EQ(wire::ENCODED_PAYLOAD_HEAD_SIZE, 9U);
    EXPECT_EQ(wire::ENCODED_MESSAGE_HEAD_SIZE, 5U);
    EXPECT_EQ(wire::text_size(1389), 1397U);
    EXPECT_EQ(wire::MAX_LOG_LEVEL, 6);
    EXPECT_EQ(wire::LOG_LEVEL_OFF, 0);
    EXPECT_EQ(wire::MAX_LOGGED_TEXT_LENGTH, 1388U);
    EXPECT_EQ(wire::MAX_PAYLOAD_SIZE, 1389U);
}

TEST(WireLayout, APayloadIsCarriedOnlyForSizesOneTo1389)
{
    EXPECT_EQ(wire::carried_payload(0), 0U);
    EXPECT_EQ(wire::carried_payload(1), 1U);
    EXPECT_EQ(wire::carried_payload(1389), 1389U);
    EXPECT_EQ(wire::carried_payload(1390), 0U);
    EXPECT_EQ(wire::carried_payload(0xFFFF), 0U);
}

TEST(WireLayout, KindsByRole)
{
    std::vector<int> ring;
    std::vector<int> message;
    std::vector<int> length;
    for (int kind = -1; kind <= 26; ++kind) {
        if (wire::is_ring_kind(kind)) {
            ring.push_back(kind);
        }
        if (wire::is_message_kind(kind)) {
            message.push_back(kind);
        }
        if (wire::has_length_field(kind)) {
            length.push_back(kind);
        }
    }
    EXPECT_EQ(ring,
              (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 23, 24}));
    EXPECT_EQ(message, (std::vector<int>{7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22}));
    EXPECT_EQ(length, (std::vector<int>{3, 5, 20, 21, 22, 23}));
}

// The offsets name the bytes `serialize` writes: read back from a serialized record, every
// field comes out where its offset says.
TEST(WireLayout, OffsetsFindTheFieldsOfSerializedRecords)
{
    const Bytes context = serialized(logferry::Logferry_register_context(4, 0x01020304, "CTX1", "d"));
    ASSERT_EQ(context.size(), wire::REGISTER_CONTEXT_HEAD_SIZE + 2);
    EXPECT_EQ(wire::get_u16(context.data() + wire::register_context::LENGTH_AT), 15);
    EXPECT_EQ(context[wire::register_context::LEVEL_AT], 4);
    EXPECT_EQ(wire::get_u32(context.data() + wire::register_context::HANDLE_AT), 0x01020304U);
    EXPECT_EQ(context[wire::register_context::CONTEXT_ID_AT], 'C');
    EXPECT_EQ(context[wire::register_context::DESCRIPTION_AT], 'd');

    logferry::Logferry_write_uint32_formatted number;
    number.format = 2;
    number.value = 0xAABBCCDD;
    number.stream_key = 0x11223344;
    const Bytes formatted = serialized(number);
    ASSERT_EQ(formatted.size(), wire::formatted_size(4));
    EXPECT_EQ(formatted[wire::formatted::FORMAT_AT], 2);
    EXPECT_EQ(wire::get_u32(formatted.data() + wire::formatted::VALUE_AT), 0xAABBCCDDU);
    EXPECT_EQ(wire::get_u32(formatted.data() + wire::formatted::key_at(4)), 0x11223344U);

    logferry::Logferry_write_int16 plain;
    plain.value = -2;
    plain.stream_key = 7;
    const Bytes plain_bytes = serialized(plain);
    ASSERT_EQ(plain_bytes.size(), wire::plain_size(2));
    EXPECT_EQ(wire::get_u32(plain_bytes.data() + wire::plain::KEY_AT), 7U);
    EXPECT_EQ(wire::get_u16(plain_bytes.data() + wire::plain::VALUE_AT), 0xFFFE);

    logferry::Logferry_write_raw_formatted raw;
    raw.length = 12;
    raw.format = 3;
    raw.size = 2;
    raw.stream_key = 9;
    raw.payload[0] = 0xEE;
    const Bytes raw_bytes = serialized(raw);
    ASSERT_EQ(raw_bytes.size(), wire::RAW_HEAD_SIZE + 2);
    EXPECT_EQ(wire::get_u16(raw_bytes.data() + wire::raw::LENGTH_AT), 12);
    EXPECT_EQ(raw_bytes[wire::raw::FORMAT_AT], 3);
    EXPECT_EQ(wire::get_u16(raw_bytes.data() + wire::raw::SIZE_AT), 2);
    EXPECT_EQ(wire::get_u32(raw_bytes.data() + wire::raw::KEY_AT), 9U);
    EXPECT_EQ(raw_bytes[wire::raw::PAYLOAD_AT], 0xEE);
}

TEST(WireEncoders, TheLevelUpdateIsTheRecordTheApplicationReads)
{
    unsigned char buffer[wire::LEVEL_UPDATE_SIZE] = {};
    ASSERT_EQ(wire::encode_level_update(buffer, 6, 0x12345678), wire::LEVEL_UPDATE_SIZE);
    const Bytes bytes(buffer, buffer + sizeof buffer);
    EXPECT_EQ(bytes, (Bytes{24, 6, 0x78, 0x56, 0x34, 0x12}));
    logferry::Logferry_update_context_log_level_filter update;
    ASSERT_TRUE(logferry::deserialize(bytes, bytes.size(), update));
    const std::uint8_t level = update.log_level;  // copies: the packed fields are not aligned
    const std::uint32_t handle = update.context_handle;
    EXPECT_EQ(level, 6);
    EXPECT_EQ(handle, 0x12345678U);
}

TEST(WireEncoders, EveryArgumentTypeTravelsInItsKindAsSerializeWritesTheRecord)
{
    const auto argument = [](auto value) {
        unsigned char buffer[wire::MAX_FIXED_SIZE] = {};
        const std::size_t size = wire::encode_argument(buffer, 0x0A0B0C0D, value);
        EXPECT_EQ(size, wire::argument_size<decltype(value)>);
        return Bytes(buffer, buffer + size);
    };
    const auto formatted = [](auto value) {
        unsigned char buffer[wire::MAX_FIXED_SIZE] = {};
        const std::size_t size = wire::encode_argument(buffer, 0x0A0B0C0D, value, 2);
        EXPECT_EQ(size, wire::argument_size<decltype(value)>);
        return Bytes(buffer, buffer + size);
    };
    logferry::Logferry_write_bool boolean;
    boolean.value = 1;
    boolean.stream_key = 0x0A0B0C0D;
    EXPECT_EQ(argument(true), serialized(boolean));
    logferry::Logferry_write_int16 int16;
    int16.value = -2;
    int16.stream_key = 0x0A0B0C0D;
    EXPECT_EQ(argument(std::int16_t{-2}), serialized(int16));
    EXPECT_EQ(argument(std::int16_t{-2}), (Bytes{11, 0x0D, 0x0C, 0x0B, 0x0A, 0xFE, 0xFF}));
    logferry::Logferry_write_int64 int64;
    int64.value = -3;
    int64.stream_key = 0x0A0B0C0D;
    EXPECT_EQ(argument(std::int64_t{-3}), serialized(int64));
    logferry::Logferry_write_float64 float64;
    float64.value = 0.5;
    float64.stream_key = 0x0A0B0C0D;
    EXPECT_EQ(argument(0.5), serialized(float64));
    EXPECT_EQ(argument(0.5F)[0], logferry::KIND_WRITE_FLOAT32);
    logferry::Logferry_write_uint32_formatted uint32;
    uint32.format = 2;
    uint32.value = 0x11223344;
    uint32.stream_key = 0x0A0B0C0D;
    EXPECT_EQ(formatted(std::uint32_t{0x11223344}), serialized(uint32));
    EXPECT_EQ(formatted(std::uint8_t{7}), (Bytes{14, 2, 7, 0x0D, 0x0C, 0x0B, 0x0A}));
    EXPECT_EQ(formatted(std::uint64_t{1}).size(), 14U);
}

TEST(WireEncoders, StartAndFinishAsTheHotPathWritesThem)
{
    unsigned char buffer[wire::MAX_FIXED_SIZE] = {};
    ASSERT_EQ(wire::encode_start(buffer, logferry::KIND_WRITE_START, 3, 7, 0x11223344, 0), wire::START_SIZE);
    EXPECT_EQ(Bytes(buffer, buffer + wire::START_SIZE), (Bytes{7, 3, 7, 0, 0, 0, 0x44, 0x33, 0x22, 0x11, 0, 0, 0, 0}));
    ASSERT_EQ(wire::encode_finish(buffer, logferry::KIND_WRITE_FINISH, 0x01020304), wire::FINISH_SIZE);
    EXPECT_EQ(Bytes(buffer, buffer + wire::FINISH_SIZE), (Bytes{8, 4, 3, 2, 1}));
}

TEST(WireTimestamp, TheStampIsTheMonotonicClockInTenthsOfAMillisecond)
{
    EXPECT_EQ(wire::stamp_of(timespec{0, 0}), 0U);
    EXPECT_EQ(wire::stamp_of(timespec{0, 99999}), 0U);
    EXPECT_EQ(wire::stamp_of(timespec{0, 100000}), 1U);
    EXPECT_EQ(wire::stamp_of(timespec{12, 345678901}), 123456U);
    EXPECT_EQ(wire::stamp_of(timespec{0, 999999999}), 9999U);
    // Modulo 2^32: 429497 s are 4294970000 units.
    EXPECT_EQ(wire::stamp_of(timespec{429497, 0}), 4294970000U - 4294967296U);
}

TEST(WireChannelName, TheIdentifierKeepsFivePidDigitsAndAHexMicrosecondStamp)
{
    EXPECT_EQ(wire::make_channel_identifier("APP1", 1234567, 0xbebc20), "APP1-34567-bebc20");
    EXPECT_EQ(wire::make_channel_identifier("APP1", 42, 0), "APP1-42-0");
    EXPECT_EQ(wire::channel_pid_text("1234567"), "34567");
    EXPECT_EQ(wire::channel_pid_text("42"), "42");
    EXPECT_EQ(wire::make_channel_identifier("", 7, 0xFFFFFFFFU), "-7-ffffffff");
    EXPECT_EQ(wire::channel_stamp_of(timespec{12, 500000}), 12000500U);
    EXPECT_EQ(wire::channel_stamp_of(timespec{4294, 0}), 4294000000U);
    EXPECT_EQ(wire::channel_stamp_of(timespec{4296, 999}), 4296000000U - 4294967296U);
    EXPECT_EQ(wire::channel_name_of("APP1-34567-bebc20"), "/logferry-APP1-34567-bebc20");
    EXPECT_EQ(wire::channel_name_of(""), "/logferry-");
}

TEST(WireChannelName, ANameAsTheApplicationFormsItParsesBackIntoItsParts)
{
    wire::Channel_name_parts parts;
    ASSERT_TRUE(wire::parse_channel_name(
        wire::channel_name_of(wire::make_channel_identifier("my-app.v_2", 1234567, 0x7fc0)), parts));
    EXPECT_EQ(parts.app_id, "my-app.v_2");
    EXPECT_EQ(parts.pid, "34567");
    EXPECT_EQ(parts.stamp, "7fc0");
}

TEST(WireChannelName, NamesOfAnyOtherFormAreRefused)
{
    wire::Channel_name_parts parts;
    for (const char* name : {"", "/logferry-", "/logferry-A", "/logferry-A-1", "/logferry--1-a", "/other-A-1-a",
                             "/logferry-A-123456-a", "/logferry-A-1-123456789", "/logferry-A-1-", "/logferry-A--a",
                             "/logferry-A-x1-a", "/logferry-A-1-A", "/logferry-A B-1-a", "/logferry-A/B-1-a"}) {
        EXPECT_FALSE(wire::parse_channel_name(name, parts)) << name;
    }
    EXPECT_TRUE(wire::parse_channel_name("/logferry-A-12345-12345678", parts));
}

TEST(WireFraming, APrefixIsSixteenBitsLowByteFirst)
{
    unsigned char ring[8] = {};
    wire::store_prefix(ring + 1, 0x1234);
    EXPECT_EQ(Bytes(ring, ring + 4), (Bytes{0, 0x34, 0x12, 0}));
    EXPECT_EQ(wire::load_prefix(ring + 1), 0x1234U);
    EXPECT_EQ(wire::load_prefix(ring + 4), 0U);
}

TEST(WireFraming, FrameSizesAndTheLastPlaceARecordCanStart)
{
    EXPECT_EQ(wire::LENGTH_PREFIX_SIZE, 2U);
    EXPECT_EQ(wire::MIN_FRAME_SIZE, 3U);
    EXPECT_EQ(wire::MAX_FRAMED_RECORD_SIZE, 65535U);
    EXPECT_EQ(wire::frame_size(1), 3U);
    EXPECT_EQ(wire::frame_size(1399), 1401U);
    EXPECT_EQ(wire::last_frame_start(logferry::CLIENT_BUFFER_SIZE), 131068U);
    EXPECT_EQ(wire::last_frame_start(logferry::SERVER_BUFFER_SIZE), 32764U);
}

TEST(WireSharedFields, LoadsAndStoresReachTheField)
{
    std::int64_t stamp = 0;
    logferry::atomic_store_i64(&stamp, -42);
    EXPECT_EQ(stamp, -42);
    EXPECT_EQ(logferry::atomic_load_i64(&stamp), -42);
    std::uint8_t gate = 0;
    logferry::atomic_store_u8(&gate, 1);
    EXPECT_EQ(logferry::atomic_load_u8(&gate), 1);
    std::uint16_t size = 0;
    logferry::store_once(&size, 2048);
    EXPECT_EQ(logferry::load_once(&size), 2048);
}

TEST(RobustMutex, SetUpMakesCallsInOrderAndTheMutexWorks)
{
    Fake_system fake;
    Scoped_system installed(&fake);
    pthread_mutex_t mutex;
    ASSERT_TRUE(logferry::init_robust_mutex(&mutex));
    for (const Op op : {Op::pthread_mutexattr_init, Op::pthread_mutexattr_settype, Op::pthread_mutexattr_setpshared,
                        Op::pthread_mutexattr_setrobust, Op::pthread_mutex_init, Op::pthread_mutexattr_destroy}) {
        EXPECT_EQ(fake.calls(op), 1) << logferry_test::op_name(op);
    }
    EXPECT_EQ(logferry::lock_robust_mutex(&mutex), 0);
    EXPECT_EQ(pthread_mutex_trylock(&mutex), EBUSY);
    EXPECT_EQ(pthread_mutex_unlock(&mutex), 0);
    EXPECT_EQ(pthread_mutex_destroy(&mutex), 0);
}

TEST(RobustMutex, SetUpStopsAtTheFirstCallThatFails)
{
    Fake_system fake;
    Scoped_system installed(&fake);
    fake.fail(Op::pthread_mutexattr_setpshared, EINVAL, 0);
    pthread_mutex_t mutex;
    EXPECT_FALSE(logferry::init_robust_mutex(&mutex));
    EXPECT_EQ(fake.calls(Op::pthread_mutexattr_setpshared), 1);
    EXPECT_EQ(fake.calls(Op::pthread_mutexattr_setrobust), 0);
    EXPECT_EQ(fake.calls(Op::pthread_mutex_init), 0);
    EXPECT_EQ(fake.calls(Op::pthread_mutexattr_destroy), 0);
}

TEST(RobustMutex, ALockWhoseHolderDiedIsTakenOverConsistent)
{
    LOGFERRY_REQUIRE_ROBUST_LIST();
    Fake_system fake;
    Scoped_system installed(&fake);
    pthread_mutex_t mutex;
    ASSERT_TRUE(logferry::init_robust_mutex(&mutex));
    std::thread holder([&mutex] { ASSERT_EQ(pthread_mutex_lock(&mutex), 0); });  // ends holding it
    holder.join();
    EXPECT_EQ(logferry::lock_robust_mutex(&mutex), 0);
    EXPECT_EQ(fake.calls(Op::pthread_mutex_consistent), 1);
    EXPECT_EQ(pthread_mutex_unlock(&mutex), 0);
    // Consistent again: the next lock is an ordinary one.
    EXPECT_EQ(logferry::lock_robust_mutex(&mutex), 0);
    EXPECT_EQ(fake.calls(Op::pthread_mutex_consistent), 1);
    EXPECT_EQ(pthread_mutex_unlock(&mutex), 0);
    EXPECT_EQ(pthread_mutex_destroy(&mutex), 0);
}

TEST(RobustMutex, ALockThatFailsReturnsItsError)
{
    Fake_system fake;
    Scoped_system installed(&fake);
    pthread_mutex_t mutex;
    ASSERT_TRUE(logferry::init_robust_mutex(&mutex));
    fake.fail(Op::pthread_mutex_lock, EDEADLK, 0);
    EXPECT_EQ(logferry::lock_robust_mutex(&mutex), EDEADLK);
    EXPECT_EQ(fake.calls(Op::pthread_mutex_consistent), 0);
    EXPECT_EQ(pthread_mutex_destroy(&mutex), 0);
}

}  // namespace
