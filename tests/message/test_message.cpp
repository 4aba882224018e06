// Message records: in-memory layout, construction and the byte encoding of every kind.

#include "logferry/message.hpp"
#include "support/record_bytes.hpp"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using logferry::deserialize;
using logferry::LogFormat;
using logferry::serialize;
using logferry_test::Bytes;
using logferry_test::bytes_of;
using logferry_test::joined;
using logferry_test::make_encoded_message;
using logferry_test::make_encoded_payload;
using logferry_test::make_finish;
using logferry_test::make_formatted;
using logferry_test::make_raw;
using logferry_test::make_start;
using logferry_test::make_text;
using logferry_test::make_value;

// The value records (kinds 9 to 19), by shorter names.
using Bool = logferry::Logferry_write_bool;
using Int8 = logferry::Logferry_write_int8;
using Int16 = logferry::Logferry_write_int16;
using Int32 = logferry::Logferry_write_int32;
using Int64 = logferry::Logferry_write_int64;
using Uint8 = logferry::Logferry_write_uint8_formatted;
using Uint16 = logferry::Logferry_write_uint16_formatted;
using Uint32 = logferry::Logferry_write_uint32_formatted;
using Uint64 = logferry::Logferry_write_uint64_formatted;
using Float32 = logferry::Logferry_write_float32;
using Float64 = logferry::Logferry_write_float64;

// The record's in-memory bytes, to check default construction and layout.
template <typename R>
Bytes memory_of(const R& record)
{
    Bytes out(sizeof(R));
    std::memcpy(out.data(), &record, sizeof(R));
    return out;
}

// Packed fields may sit at odd addresses: compare copies, never references.
template <typename T>
T copy_of(T field)
{
    return field;
}

// `kind` followed by `count - 1` zero bytes.
Bytes kind_then_zeros(unsigned char kind, std::size_t count)
{
    Bytes out(count, 0);
    out[0] = kind;
    return out;
}

template <std::size_t N>
void fill_text(std::array<char, N>& target, const std::string& text)
{
    ASSERT_LE(text.size(), N);
    std::memcpy(target.data(), text.data(), text.size());
}

Bytes payload_pattern(std::size_t count)
{
    Bytes out(count);
    for (std::size_t i = 0; i < count; ++i) {
        out[i] = static_cast<unsigned char>(i * 7 + 1);
    }
    return out;
}

const char* const kNoTerminatorMessage = "array::at: __n (which is 80) >= _Nm (which is 80)";

// ---------------------------------------------------------------- layout

TEST(Message, RecordSizesArePinned)
{
    EXPECT_EQ(sizeof(logferry::Logferry_disable_remote), 1u);
    EXPECT_EQ(sizeof(logferry::Logferry_enable_local_print), 1u);
    EXPECT_EQ(sizeof(logferry::Logferry_init_file), 256u);
    EXPECT_EQ(sizeof(logferry::Logferry_register_app), 88u);
    EXPECT_EQ(sizeof(logferry::Logferry_unregister_app), 1u);
    EXPECT_EQ(sizeof(logferry::Logferry_register_context), 93u);
    EXPECT_EQ(sizeof(logferry::Logferry_unregister_context), 5u);
    EXPECT_EQ(sizeof(logferry::Logferry_write_start), 14u);
    EXPECT_EQ(sizeof(logferry::Logferry_write_finish), 5u);
    EXPECT_EQ(sizeof(logferry::Logferry_write_bool), 6u);
    EXPECT_EQ(sizeof(logferry::Logferry_write_int8), 6u);
    EXPECT_EQ(sizeof(logferry::Logferry_write_int16), 7u);
    EXPECT_EQ(sizeof(logferry::Logferry_write_int32), 9u);
    EXPECT_EQ(sizeof(logferry::Logferry_write_int64), 13u);
    EXPECT_EQ(sizeof(logferry::Logferry_write_uint8_formatted), 7u);
    EXPECT_EQ(sizeof(logferry::Logferry_write_uint16_formatted), 8u);
    EXPECT_EQ(sizeof(logferry::Logferry_write_uint32_formatted), 10u);
    EXPECT_EQ(sizeof(logferry::Logferry_write_uint64_formatted), 14u);
    EXPECT_EQ(sizeof(logferry::Logferry_write_float32), 9u);
    EXPECT_EQ(sizeof(logferry::Logferry_write_float64), 13u);
    EXPECT_EQ(sizeof(logferry::Logferry_write_utf8_string), 1397u);
    EXPECT_EQ(sizeof(logferry::Logferry_write_raw_formatted), 1400u);
    EXPECT_EQ(sizeof(logferry::Logferry_write_encoded_payload), 1399u);
    EXPECT_EQ(sizeof(logferry::Logferry_write_encoded_message), 1395u);
    EXPECT_EQ(sizeof(logferry::Logferry_update_context_log_level_filter), 6u);
}

TEST(Message, FieldOffsetsFollowDeclarationOrder)
{
    using namespace logferry;
    EXPECT_EQ(offsetof(Logferry_register_app, length), 1u);
    EXPECT_EQ(offsetof(Logferry_register_app, app_id), 3u);
    EXPECT_EQ(offsetof(Logferry_register_app, description), 8u);
    EXPECT_EQ(offsetof(Logferry_register_context, log_level), 3u);
    EXPECT_EQ(offsetof(Logferry_register_context, context_handle), 4u);
    EXPECT_EQ(offsetof(Logferry_register_context, context_id), 8u);
    EXPECT_EQ(offsetof(Logferry_register_context, description), 13u);
    EXPECT_EQ(offsetof(Logferry_write_start, timestamp), 10u);
    // Plain numbers: value declared before the stream key.
    EXPECT_EQ(offsetof(Logferry_write_int64, value), 1u);
    EXPECT_EQ(offsetof(Logferry_write_int64, stream_key), 9u);
    EXPECT_EQ(offsetof(Logferry_write_float64, stream_key), 9u);
    EXPECT_EQ(offsetof(Logferry_write_uint64_formatted, stream_key), 10u);
    EXPECT_EQ(offsetof(Logferry_write_utf8_string, text), 7u);
    EXPECT_EQ(offsetof(Logferry_write_raw_formatted, size), 4u);
    EXPECT_EQ(offsetof(Logferry_write_raw_formatted, payload), 10u);
    EXPECT_EQ(offsetof(Logferry_write_encoded_payload, payload), 9u);
    EXPECT_EQ(offsetof(Logferry_write_encoded_message, payload), 5u);
    EXPECT_EQ(offsetof(Logferry_update_context_log_level_filter, context_handle), 2u);
}

TEST(Message, PackedLayoutHoldsFieldsInDeclaredOrder)
{
    const auto record = make_value<Int32>(0xAABBCCDD, 0x11223344);
    // In memory the value comes first (host order: little-endian on the targets).
    EXPECT_EQ(memory_of(record), (Bytes{12, 0x44, 0x33, 0x22, 0x11, 0xDD, 0xCC, 0xBB, 0xAA}));
}

TEST(Message, DefaultRecordsAreZeroWithTheirKind)
{
    using namespace logferry;
    EXPECT_EQ(memory_of(Logferry_disable_remote{}), kind_then_zeros(0, 1));
    EXPECT_EQ(memory_of(Logferry_enable_local_print{}), kind_then_zeros(1, 1));
    EXPECT_EQ(memory_of(Logferry_init_file{}), kind_then_zeros(2, 256));
    EXPECT_EQ(memory_of(Logferry_register_app{}), kind_then_zeros(3, 88));
    EXPECT_EQ(memory_of(Logferry_unregister_app{}), kind_then_zeros(4, 1));
    EXPECT_EQ(memory_of(Logferry_register_context{}), kind_then_zeros(5, 93));
    EXPECT_EQ(memory_of(Logferry_unregister_context{}), kind_then_zeros(6, 5));
    EXPECT_EQ(memory_of(Logferry_write_start{}), kind_then_zeros(7, 14));
    EXPECT_EQ(memory_of(Logferry_write_finish{}), kind_then_zeros(8, 5));
    EXPECT_EQ(memory_of(Logferry_write_bool{}), kind_then_zeros(9, 6));
    EXPECT_EQ(memory_of(Logferry_write_int8{}), kind_then_zeros(10, 6));
    EXPECT_EQ(memory_of(Logferry_write_int16{}), kind_then_zeros(11, 7));
    EXPECT_EQ(memory_of(Logferry_write_int32{}), kind_then_zeros(12, 9));
    EXPECT_EQ(memory_of(Logferry_write_int64{}), kind_then_zeros(13, 13));
    EXPECT_EQ(memory_of(Logferry_write_uint8_formatted{}), kind_then_zeros(14, 7));
    EXPECT_EQ(memory_of(Logferry_write_uint16_formatted{}), kind_then_zeros(15, 8));
    EXPECT_EQ(memory_of(Logferry_write_uint32_formatted{}), kind_then_zeros(16, 10));
    EXPECT_EQ(memory_of(Logferry_write_uint64_formatted{}), kind_then_zeros(17, 14));
    EXPECT_EQ(memory_of(Logferry_write_float32{}), kind_then_zeros(18, 9));
    EXPECT_EQ(memory_of(Logferry_write_float64{}), kind_then_zeros(19, 13));
    EXPECT_EQ(memory_of(Logferry_write_utf8_string{}), kind_then_zeros(20, 1397));
    EXPECT_EQ(memory_of(Logferry_write_raw_formatted{}), kind_then_zeros(21, 1400));
    EXPECT_EQ(memory_of(Logferry_write_encoded_payload{}), kind_then_zeros(22, 1399));
    EXPECT_EQ(memory_of(Logferry_write_encoded_message{}), kind_then_zeros(23, 1395));
    EXPECT_EQ(memory_of(Logferry_update_context_log_level_filter{}), kind_then_zeros(24, 6));
}

TEST(Message, PriorityKindsAreControlAndRegistration)
{
    for (unsigned int kind = 0; kind < 256; ++kind) {
        const bool expected = kind == 0 || kind == 1 || kind == 2 || kind == 3 || kind == 5;
        EXPECT_EQ(logferry::is_priority_kind(static_cast<std::uint8_t>(kind)), expected) << kind;
    }
}

// ---------------------------------------------------------------- kinds 0, 1, 4

TEST(Message, OneByteControlRecords)
{
    EXPECT_EQ(bytes_of(logferry::Logferry_unregister_app{}), (Bytes{4}));
    EXPECT_EQ(bytes_of(logferry::Logferry_enable_local_print{}), (Bytes{1}));
    EXPECT_EQ(bytes_of(logferry::Logferry_disable_remote{}), (Bytes{0}));
}

// ---------------------------------------------------------------- kind 2

TEST(Message, InitFileWritesTheWholeNameField)
{
    logferry::Logferry_init_file record;
    fill_text(record.file_name, "trace.log");
    const Bytes out = bytes_of(record);
    ASSERT_EQ(out.size(), 256u);
    Bytes expected = kind_then_zeros(2, 256);
    const std::string name = "trace.log";
    std::copy(name.begin(), name.end(), expected.begin() + 1);
    EXPECT_EQ(out, expected);
}

TEST(Message, InitFileEmptyAndLongestName)
{
    EXPECT_EQ(bytes_of(logferry::Logferry_init_file{}), kind_then_zeros(2, 256));

    logferry::Logferry_init_file longest;
    fill_text(longest.file_name, std::string(254, 'n'));
    EXPECT_EQ(bytes_of(longest), joined({Bytes{2}, Bytes(254, 'n'), Bytes{0}}));

    // The field is written whole even when it holds no zero.
    logferry::Logferry_init_file full;
    fill_text(full.file_name, std::string(255, 'f'));
    EXPECT_EQ(bytes_of(full), joined({Bytes{2}, Bytes(255, 'f')}));
}

// ---------------------------------------------------------------- kind 3

TEST(Message, RegisterAppFourCharacterIdAndOneCharacterDescription)
{
    const logferry::Logferry_register_app record("ABCD", "x");
    EXPECT_EQ(copy_of(record.length), 10);
    EXPECT_EQ(bytes_of(record), (Bytes{3, 0x0A, 0x00, 'A', 'B', 'C', 'D', 0, 'x', 0}));
}

TEST(Message, RegisterAppWithNullTextKeepsMinimumLength)
{
    const logferry::Logferry_register_app no_description("ABCD", nullptr);
    EXPECT_EQ(copy_of(no_description.length), 8);
    // The empty description's terminator is still written: 9 bytes for length 8.
    EXPECT_EQ(bytes_of(no_description), (Bytes{3, 8, 0, 0, 0, 0, 0, 0, 0}));

    const logferry::Logferry_register_app no_id(nullptr, "description");
    EXPECT_EQ(copy_of(no_id.length), 8);
    EXPECT_EQ(bytes_of(no_id), (Bytes{3, 8, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(memory_of(no_id), joined({Bytes{3, 8}, Bytes(86, 0)}));
}

TEST(Message, RegisterAppLongIdIsCutToFour)
{
    const logferry::Logferry_register_app record("ABCDEFG", "d");
    EXPECT_EQ(record.app_id, (std::array<char, 5>{'A', 'B', 'C', 'D', 0}));
    EXPECT_EQ(bytes_of(record), (Bytes{3, 10, 0, 'A', 'B', 'C', 'D', 0, 'd', 0}));
}

TEST(Message, RegisterAppShortIdIsZeroFilled)
{
    const logferry::Logferry_register_app record("AB", "");
    EXPECT_EQ(record.app_id, (std::array<char, 5>{'A', 'B', 0, 0, 0}));
    EXPECT_EQ(copy_of(record.length), 9);
    EXPECT_EQ(bytes_of(record), (Bytes{3, 9, 0, 'A', 'B', 0, 0, 0, 0}));
}

TEST(Message, RegisterAppLongDescriptionIsCutTo79)
{
    const std::string description(100, 'd');
    const logferry::Logferry_register_app record("APP1", description.c_str());
    EXPECT_EQ(copy_of(record.length), 88);
    EXPECT_EQ(record.description.at(78), 'd');
    EXPECT_EQ(record.description.at(79), 0);
    const Bytes out = bytes_of(record);
    EXPECT_EQ(out.size(), 88u);
    EXPECT_EQ(out, joined({Bytes{3, 88, 0, 'A', 'P', 'P', '1', 0}, Bytes(79, 'd'), Bytes{0}}));
}

TEST(Message, RegisterAppDescriptionOf79IsKeptWhole)
{
    const std::string description(79, 'e');
    const logferry::Logferry_register_app record("A", description.c_str());
    EXPECT_EQ(copy_of(record.length), 88);
    EXPECT_EQ(bytes_of(record), joined({Bytes{3, 88, 0, 'A', 0, 0, 0, 0}, Bytes(79, 'e'), Bytes{0}}));
}

TEST(Message, RegisterAppDescriptionStopsAtItsFirstZero)
{
    // Bytes after the first zero are not written, whatever the length field says.
    logferry::Logferry_register_app record("ABCD", "ab");
    record.description.at(3) = 'z';
    record.length = 77;
    EXPECT_EQ(bytes_of(record), (Bytes{3, 77, 0, 'A', 'B', 'C', 'D', 0, 'a', 'b', 0}));
}

TEST(Message, RegisterAppIdIsWrittenAsStored)
{
    logferry::Logferry_register_app record("ABCD", "x");
    record.app_id.at(4) = 'E';
    record.app_id.at(1) = 0;
    EXPECT_EQ(bytes_of(record), (Bytes{3, 10, 0, 'A', 0, 'C', 'D', 'E', 'x', 0}));
}

TEST(Message, RegisterAppWithoutTerminatorRaisesBoundsError)
{
    logferry::Logferry_register_app record("ABCD", "x");
    record.description.fill('q');
    Bytes out{0xEE};
    try {
        serialize(record, out);
        FAIL() << "expected std::out_of_range";
    } catch (const std::out_of_range& error) {
        EXPECT_STREQ(error.what(), kNoTerminatorMessage);
    }
    EXPECT_EQ(out, (Bytes{0xEE}));
}

// ---------------------------------------------------------------- kind 5

TEST(Message, RegisterContextWithEmptyDescription)
{
    const logferry::Logferry_register_context record(4, 0x01020304, "CTX1", "");
    EXPECT_EQ(copy_of(record.length), 14);
    EXPECT_EQ(bytes_of(record), (Bytes{5, 14, 0, 4, 4, 3, 2, 1, 'C', 'T', 'X', '1', 0, 0}));
}

TEST(Message, RegisterContextTypicalValue)
{
    const logferry::Logferry_register_context record(6, 0xDEADBEEF, "NET", "net io");
    EXPECT_EQ(copy_of(record.length), 20);
    EXPECT_EQ(bytes_of(record),
              (Bytes{5, 20, 0, 6, 0xEF, 0xBE, 0xAD, 0xDE, 'N', 'E', 'T', 0, 0, 'n', 'e', 't', ' ', 'i', 'o', 0}));
}

TEST(Message, RegisterContextWithNullTextKeepsMinimumLength)
{
    const logferry::Logferry_register_context record(3, 0x0A0B0C0D, nullptr, "d");
    EXPECT_EQ(copy_of(record.length), 13);
    EXPECT_EQ(record.log_level, 3);
    EXPECT_EQ(copy_of(record.context_handle), 0x0A0B0C0Du);
    EXPECT_EQ(bytes_of(record), (Bytes{5, 13, 0, 3, 0x0D, 0x0C, 0x0B, 0x0A, 0, 0, 0, 0, 0, 0}));

    const logferry::Logferry_register_context no_description(1, 2, "CTX", nullptr);
    EXPECT_EQ(copy_of(no_description.length), 13);
    EXPECT_EQ(bytes_of(no_description), (Bytes{5, 13, 0, 1, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST(Message, RegisterContextIdsAreCutOrZeroFilled)
{
    const logferry::Logferry_register_context long_id(2, 1, "CONTEXT", "c");
    EXPECT_EQ(long_id.context_id, (std::array<char, 5>{'C', 'O', 'N', 'T', 0}));
    EXPECT_EQ(bytes_of(long_id), (Bytes{5, 15, 0, 2, 1, 0, 0, 0, 'C', 'O', 'N', 'T', 0, 'c', 0}));

    const logferry::Logferry_register_context short_id(2, 1, "CX", "c");
    EXPECT_EQ(short_id.context_id, (std::array<char, 5>{'C', 'X', 0, 0, 0}));
    EXPECT_EQ(bytes_of(short_id), (Bytes{5, 15, 0, 2, 1, 0, 0, 0, 'C', 'X', 0, 0, 0, 'c', 0}));
}

TEST(Message, RegisterContextLongDescriptionIsCutTo79)
{
    const std::string description(100, 'k');
    const logferry::Logferry_register_context record(5, 0xFFFFFFFF, "CTX1", description.c_str());
    EXPECT_EQ(copy_of(record.length), 93);
    EXPECT_EQ(record.description.at(79), 0);
    const Bytes out = bytes_of(record);
    EXPECT_EQ(out.size(), 93u);
    EXPECT_EQ(out,
              joined({Bytes{5, 93, 0, 5, 0xFF, 0xFF, 0xFF, 0xFF, 'C', 'T', 'X', '1', 0}, Bytes(79, 'k'), Bytes{0}}));
}

TEST(Message, RegisterContextWithoutTerminatorRaisesBoundsError)
{
    logferry::Logferry_register_context record(4, 1, "CTX1", "x");
    record.description.fill('q');
    Bytes out{1, 2, 3};
    try {
        serialize(record, out);
        FAIL() << "expected std::out_of_range";
    } catch (const std::out_of_range& error) {
        EXPECT_STREQ(error.what(), kNoTerminatorMessage);
    }
    EXPECT_EQ(out, (Bytes{1, 2, 3}));
}

// ---------------------------------------------------------------- kinds 6, 7, 8

TEST(Message, UnregisterContext)
{
    logferry::Logferry_unregister_context record;
    record.context_handle = 0x01020304;
    EXPECT_EQ(bytes_of(record), (Bytes{6, 4, 3, 2, 1}));
    record.context_handle = 0xFFFFFFFF;
    EXPECT_EQ(bytes_of(record), (Bytes{6, 0xFF, 0xFF, 0xFF, 0xFF}));
}

TEST(Message, WriteStart)
{
    EXPECT_EQ(bytes_of(make_start(0x11223344, 3, 7, 0)), (Bytes{7, 3, 7, 0, 0, 0, 0x44, 0x33, 0x22, 0x11, 0, 0, 0, 0}));
    EXPECT_EQ(bytes_of(make_start(0, 6, 0xFFFFFFFF, 0x89ABCDEF)),
              (Bytes{7, 6, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0, 0xEF, 0xCD, 0xAB, 0x89}));
}

TEST(Message, WriteFinish)
{
    EXPECT_EQ(bytes_of(make_finish(9)), (Bytes{8, 9, 0, 0, 0}));
    EXPECT_EQ(bytes_of(make_finish(0x80000001)), (Bytes{8, 0x01, 0, 0, 0x80}));
}

// ---------------------------------------------------------------- kinds 9-19

// A record of one value (kinds 9 to 19) and its exact bytes: kind, then the fields in their
// declared order, little-endian.
struct Value_record {
    const char* name;
    Bytes encoded;
    Bytes expected;
};

void PrintTo(const Value_record& record, std::ostream* out) { *out << record.name; }

class MessageValueRecord : public ::testing::TestWithParam<Value_record> {};

TEST_P(MessageValueRecord, EncodesKindFieldsAndValue) { EXPECT_EQ(GetParam().encoded, GetParam().expected); }

template <typename R, typename V>
Bytes value(std::uint32_t key, V value)
{
    return bytes_of(make_value<R>(key, value));
}

template <typename R, typename V>
Bytes formatted(std::uint32_t key, V value, LogFormat format)
{
    return bytes_of(make_formatted<R>(key, value, format));
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, MessageValueRecord,
    ::testing::Values(
        Value_record{"BoolTrue", value<Bool>(0xA1B2C3D4, 1), {9, 0xD4, 0xC3, 0xB2, 0xA1, 1}},
        Value_record{"BoolFalse", value<Bool>(0, 0), {9, 0, 0, 0, 0, 0}},
        // Not checked: the byte goes out as supplied.
        Value_record{"BoolAsSupplied", value<Bool>(0, 0x7F), {9, 0, 0, 0, 0, 0x7F}},
        Value_record{"Int8", value<Int8>(1, -5), {10, 1, 0, 0, 0, 0xFB}},
        Value_record{"Int8Min", value<Int8>(1, std::numeric_limits<std::int8_t>::min()), {10, 1, 0, 0, 0, 0x80}},
        Value_record{"Int8Max", value<Int8>(1, std::numeric_limits<std::int8_t>::max()), {10, 1, 0, 0, 0, 0x7F}},
        Value_record{"Int16", value<Int16>(1, -2), {11, 1, 0, 0, 0, 0xFE, 0xFF}},
        Value_record{"Int16Min",
                     value<Int16>(0x01020304, std::numeric_limits<std::int16_t>::min()),
                     {11, 4, 3, 2, 1, 0x00, 0x80}},
        Value_record{"Int16Positive", value<Int16>(0x01020304, 0x1234), {11, 4, 3, 2, 1, 0x34, 0x12}},
        Value_record{"Int32", value<Int32>(2, 0x12345678), {12, 2, 0, 0, 0, 0x78, 0x56, 0x34, 0x12}},
        Value_record{"Int32MinusOne", value<Int32>(2, -1), {12, 2, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF}},
        Value_record{"Int32Min",
                     value<Int32>(2, std::numeric_limits<std::int32_t>::min()),
                     {12, 2, 0, 0, 0, 0x00, 0x00, 0x00, 0x80}},
        Value_record{"Int64",
                     value<Int64>(0xFFFFFFFE, 0x0102030405060708),
                     {13, 0xFE, 0xFF, 0xFF, 0xFF, 8, 7, 6, 5, 4, 3, 2, 1}},
        Value_record{"Int64MinusTwo",
                     value<Int64>(0xFFFFFFFE, -2),
                     {13, 0xFE, 0xFF, 0xFF, 0xFF, 0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}},
        Value_record{"Int64Min",
                     value<Int64>(0xFFFFFFFE, std::numeric_limits<std::int64_t>::min()),
                     {13, 0xFE, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0, 0, 0, 0, 0x80}},
        Value_record{"Uint8Formatted", formatted<Uint8>(5, 0xAB, LogFormat::kHex), {14, 2, 0xAB, 5, 0, 0, 0}},
        // The format byte goes out as supplied, even out of range.
        Value_record{"Uint8FormatAsSupplied",
                     formatted<Uint8>(0x04030201, 0xFF, static_cast<LogFormat>(9)),
                     {14, 9, 0xFF, 1, 2, 3, 4}},
        Value_record{"Uint16Formatted", formatted<Uint16>(5, 0x1234, LogFormat::kHex), {15, 2, 0x34, 0x12, 5, 0, 0, 0}},
        Value_record{"Uint16Max", formatted<Uint16>(5, 0xFFFF, LogFormat::kRaw), {15, 6, 0xFF, 0xFF, 5, 0, 0, 0}},
        Value_record{"Uint32Formatted",
                     formatted<Uint32>(0x11223344, 0xCAFEBABE, LogFormat::kDec),
                     {16, 1, 0xBE, 0xBA, 0xFE, 0xCA, 0x44, 0x33, 0x22, 0x11}},
        Value_record{"Uint64Formatted",
                     formatted<Uint64>(3, 0x0123456789ABCDEF, LogFormat::kBin),
                     {17, 4, 0xEF, 0xCD, 0xAB, 0x89, 0x67, 0x45, 0x23, 0x01, 3, 0, 0, 0}},
        Value_record{"Uint64Max",
                     formatted<Uint64>(3, std::numeric_limits<std::uint64_t>::max(), LogFormat::kBin),
                     {17, 4, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 3, 0, 0, 0}},
        Value_record{"Float32One", value<Float32>(0, 1.0f), {18, 0, 0, 0, 0, 0x00, 0x00, 0x80, 0x3F}},
        Value_record{"Float32Negative", value<Float32>(0x10, -2.5f), {18, 0x10, 0, 0, 0, 0x00, 0x00, 0x20, 0xC0}},
        Value_record{"Float32Infinity",
                     value<Float32>(0x10, std::numeric_limits<float>::infinity()),
                     {18, 0x10, 0, 0, 0, 0x00, 0x00, 0x80, 0x7F}},
        Value_record{"Float64One", value<Float64>(0x01020304, 1.0), {19, 4, 3, 2, 1, 0, 0, 0, 0, 0, 0, 0xF0, 0x3F}},
        Value_record{
            "Float64NegativeZero", value<Float64>(0x01020304, -0.0), {19, 4, 3, 2, 1, 0, 0, 0, 0, 0, 0, 0, 0x80}}));

// ---------------------------------------------------------------- kind 20

TEST(Message, WriteUtf8StringTypical)
{
    EXPECT_EQ(bytes_of(make_text(0x0A0B0C0D, "hello")),
              (Bytes{20, 13, 0, 0x0D, 0x0C, 0x0B, 0x0A, 'h', 'e', 'l', 'l', 'o', 0}));
}

TEST(Message, WriteUtf8StringEmptyText) { EXPECT_EQ(bytes_of(make_text(1, "")), (Bytes{20, 8, 0, 1, 0, 0, 0, 0})); }

TEST(Message, WriteUtf8StringLongestText)
{
    const Bytes out = bytes_of(make_text(2, std::string(1389, 't')));
    EXPECT_EQ(out.size(), 1397u);
    EXPECT_EQ(out, joined({Bytes{20, 0x75, 0x05, 2, 0, 0, 0}, Bytes(1389, 't'), Bytes{0}}));
}

TEST(Message, WriteUtf8StringWithoutZeroEndsAfterStreamKey)
{
    EXPECT_EQ(bytes_of(make_text(3, std::string(1390, 'u'))), (Bytes{20, 0x76, 0x05, 3, 0, 0, 0}));
}

TEST(Message, WriteUtf8StringStopsAtFirstZeroWhateverTheLength)
{
    // A string view cut short by an inner zero: the length field tells the asked length.
    EXPECT_EQ(bytes_of(make_text(4, std::string("abc\0efghij", 10))), (Bytes{20, 18, 0, 4, 0, 0, 0, 'a', 'b', 'c', 0}));
}

// ---------------------------------------------------------------- kinds 21-23

TEST(Message, WriteRawFormattedTypical)
{
    EXPECT_EQ(bytes_of(make_raw(0x01020304, LogFormat::kOct, {0x00, 0xFF, 0x10})),
              (Bytes{21, 13, 0, 3, 3, 0, 4, 3, 2, 1, 0x00, 0xFF, 0x10}));
}

TEST(Message, WriteEncodedPayloadTypical)
{
    EXPECT_EQ(bytes_of(make_encoded_payload(0xAABBCCDD, {0x42, 0x00})),
              (Bytes{22, 11, 0, 2, 0, 0xDD, 0xCC, 0xBB, 0xAA, 0x42, 0x00}));
}

TEST(Message, WriteEncodedMessageTypical)
{
    EXPECT_EQ(bytes_of(make_encoded_message({9, 8, 7})), (Bytes{23, 8, 0, 3, 0, 9, 8, 7}));
}

// A payload record's bytes with its size and length fields set as given (a record builder
// would not: the fields go out as stored).
template <typename R>
Bytes sized(R record, std::uint16_t size, std::uint16_t length)
{
    record.size = size;
    record.length = length;
    return bytes_of(record);
}

// The payload holds 1390 bytes of a pattern: the record carries `size` of them, up to 1389.
TEST(Message, WriteRawFormattedSizeBounds)
{
    const auto record = make_raw(7, LogFormat::kDec, payload_pattern(1390));
    EXPECT_EQ(sized(record, 0, 10), (Bytes{21, 10, 0, 1, 0, 0, 7, 0, 0, 0}));
    EXPECT_EQ(sized(record, 1, 11), (Bytes{21, 11, 0, 1, 1, 0, 7, 0, 0, 0, 1}));
    const Bytes out = sized(record, 1389, 1399);
    EXPECT_EQ(out.size(), 1399u);
    EXPECT_EQ(out, joined({Bytes{21, 0x77, 0x05, 1, 0x6D, 0x05, 7, 0, 0, 0}, payload_pattern(1389)}));
    EXPECT_EQ(sized(record, 1390, 1400), (Bytes{21, 0x78, 0x05, 1, 0x6E, 0x05, 7, 0, 0, 0}));
    EXPECT_EQ(sized(record, 0xFFFF, 9), (Bytes{21, 9, 0, 1, 0xFF, 0xFF, 7, 0, 0, 0}));
}

TEST(Message, WriteEncodedPayloadSizeBounds)
{
    const auto record = make_encoded_payload(1, payload_pattern(1390));
    EXPECT_EQ(sized(record, 0, 9), (Bytes{22, 9, 0, 0, 0, 1, 0, 0, 0}));
    const Bytes out = sized(record, 1389, 1398);
    EXPECT_EQ(out.size(), 1398u);
    EXPECT_EQ(out, joined({Bytes{22, 0x76, 0x05, 0x6D, 0x05, 1, 0, 0, 0}, payload_pattern(1389)}));
    EXPECT_EQ(sized(record, 1390, 1399), (Bytes{22, 0x77, 0x05, 0x6E, 0x05, 1, 0, 0, 0}));
}

TEST(Message, WriteEncodedMessageSizeBounds)
{
    const auto record = make_encoded_message(payload_pattern(1390));
    EXPECT_EQ(sized(record, 0, 5), (Bytes{23, 5, 0, 0, 0}));
    const Bytes out = sized(record, 1389, 1394);
    EXPECT_EQ(out.size(), 1394u);
    EXPECT_EQ(out, joined({Bytes{23, 0x72, 0x05, 0x6D, 0x05}, payload_pattern(1389)}));
    EXPECT_EQ(sized(record, 1390, 1395), (Bytes{23, 0x73, 0x05, 0x6E, 0x05}));
}

// ---------------------------------------------------------------- several records

TEST(Message, RecordsAreAppendedEndToEnd)
{
    Bytes out{0xAA, 0xBB};  // never cleared
    serialize(make_start(1, 4, 1, 0x100), out);
    serialize(make_value<Int8>(1, -5), out);
    serialize(make_text(1, "ok"), out);
    serialize(make_finish(1), out);

    EXPECT_EQ(out, (Bytes{0xAA, 0xBB,                                                   //
                          7,    4,    1, 0, 0, 0,    1, 0,   0,   0, 0x00, 0x01, 0, 0,  //
                          10,   1,    0, 0, 0, 0xFB,                                    //
                          20,   10,   0, 1, 0, 0,    0, 'o', 'k', 0,                    //
                          8,    1,    0, 0, 0}));
}

TEST(Message, PriorityRecordsConcatenate)
{
    Bytes out;
    serialize(logferry::Logferry_register_app("AP", "a"), out);
    serialize(logferry::Logferry_register_context(2, 3, "C", ""), out);
    serialize(logferry::Logferry_enable_local_print{}, out);
    serialize(logferry::Logferry_disable_remote{}, out);
    EXPECT_EQ(out, (Bytes{3, 10, 0, 'A', 'P', 0, 0, 0, 'a', 0,              //
                          5, 14, 0, 2,   3,   0, 0, 0, 'C', 0, 0, 0, 0, 0,  //
                          1,                                                //
                          0}));
}

// ---------------------------------------------------------------- kind 24

using logferry::Logferry_update_context_log_level_filter;

// Deserialises the first `size` bytes of `bytes` into `record`: the verdict is `accepted`, and
// the record then holds `level` and `handle`.
void expect_deserialized(Logferry_update_context_log_level_filter& record, const Bytes& bytes, std::size_t size,
                         bool accepted, std::uint8_t level, std::uint32_t handle)
{
    EXPECT_EQ(deserialize(bytes, size, record), accepted);
    EXPECT_EQ(record.log_level, level);
    EXPECT_EQ(copy_of(record.context_handle), handle);
}

TEST(Message, DeserializeLevelUpdate)
{
    Logferry_update_context_log_level_filter record;
    expect_deserialized(record, Bytes{24, 6, 0x78, 0x56, 0x34, 0x12}, 6, true, 6, 0x12345678u);
    EXPECT_EQ(record.kind, 24);
}

TEST(Message, DeserializeRejectsLevelAboveSix)
{
    Logferry_update_context_log_level_filter record;
    record.context_handle = 0xCAFE;
    expect_deserialized(record, Bytes{24, 7, 0x78, 0x56, 0x34, 0x12}, 6, false, 7, 0xCAFEu);
    expect_deserialized(record, Bytes{24, 0xFF, 1, 2, 3, 4}, 6, false, 0xFF, 0xCAFEu);
}

TEST(Message, DeserializeShortSizeStoresLevelOnly)
{
    Logferry_update_context_log_level_filter record;
    record.context_handle = 77;
    expect_deserialized(record, Bytes{24, 6, 0x78, 0x56, 0x34, 0x12}, 5, false, 6, 77u);
    expect_deserialized(record, Bytes{24, 3}, 2, false, 3, 77u);
}

TEST(Message, DeserializeLevelZeroAndUnexaminedKind)
{
    Logferry_update_context_log_level_filter record;
    record.log_level = 5;
    // Byte 0 is the caller's business; level 0 (off) is a valid update.
    expect_deserialized(record, Bytes{0x99, 0, 0xFF, 0xFF, 0xFF, 0xFF}, 6, true, 0, 0xFFFFFFFFu);
    EXPECT_EQ(record.kind, 24);
}

TEST(Message, DeserializeRoundTripOfFilterRecordBytes)
{
    Logferry_update_context_log_level_filter sent;
    sent.log_level = 4;
    sent.context_handle = 0x2A;
    const Bytes wire = memory_of(sent);  // packed little-endian layout equals the encoding
    EXPECT_EQ(wire, (Bytes{24, 4, 0x2A, 0, 0, 0}));
    Logferry_update_context_log_level_filter received;
    EXPECT_TRUE(deserialize(wire, wire.size(), received));
    EXPECT_EQ(received.log_level, 4);
    EXPECT_EQ(copy_of(received.context_handle), 0x2Au);
}

}  // namespace
