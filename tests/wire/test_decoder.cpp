// The daemon-side record decoder: every record kind, built with the library's own
// encoder so that both sides agree byte for byte, the irregular records the encoder
// produces from unusual values, and input that is cut, unknown or inconsistent.

#include "decoder.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "logferry/message.hpp"
#include "support/record_bytes.hpp"

namespace {

using namespace logferry;
using logferry_decoder::decode_priority_area;
using logferry_decoder::decode_record;
using logferry_decoder::decode_ring_unit;
using logferry_decoder::Error_code;
using logferry_decoder::Record;
using logferry_decoder::Unit_shape;
using logferry_test::Bytes;
using logferry_test::bytes_of;
using logferry_test::make_encoded_message;
using logferry_test::make_encoded_payload;
using logferry_test::make_finish;
using logferry_test::make_formatted;
using logferry_test::make_init_file;
using logferry_test::make_raw;
using logferry_test::make_start;
using logferry_test::make_text;
using logferry_test::make_value;

// Decodes `bytes` as one record that must fill them exactly.
Record whole_record(const Bytes& bytes)
{
    const auto result = decode_record(bytes);
    EXPECT_TRUE(result.error.ok()) << logferry_decoder::describe(result.error);
    EXPECT_EQ(result.record.size, bytes.size());
    EXPECT_EQ(result.record.offset, 0U);
    return result.record;
}

Logferry_write_start start_record(std::uint32_t key, std::uint8_t level = 4, std::uint32_t handle = 1,
                                  std::uint32_t timestamp = 123456)
{
    return make_start(key, level, handle, timestamp);
}

// A text record whose text array holds no zero: the encoder ends it after the key.
Logferry_write_utf8_string unterminated_text_record(std::uint32_t key)
{
    return make_text(key, std::string(RECORD_DATA_SIZE, 't'));
}

Logferry_write_int32 int32_record(std::uint32_t key, std::int32_t value)
{
    return make_value<Logferry_write_int32>(key, value);
}

// The bytes copied to an allocation of exactly their size, so that a read behind the
// end is caught by the address sanitizer.
struct Exact_copy {
    explicit Exact_copy(const Bytes& bytes, std::size_t count)
        : data(new unsigned char[count == 0 ? 1 : count]), size(count)
    {
        if (count != 0) {
            std::memcpy(data.get(), bytes.data(), count);
        }
    }
    std::unique_ptr<unsigned char[]> data;
    std::size_t size;
};

// ----------------------------------------------------------------------------------------
// Registration and control records.

TEST(Decoder, DisableRemoteEnableLocalPrintAndUnregisterAppAreOneByte)
{
    const Record disable = whole_record(bytes_of(Logferry_disable_remote()));
    EXPECT_EQ(disable.kind, KIND_DISABLE_REMOTE);
    const Record enable = whole_record(bytes_of(Logferry_enable_local_print()));
    EXPECT_EQ(enable.kind, KIND_ENABLE_LOCAL_PRINT);
    const Record unregister = whole_record(bytes_of(Logferry_unregister_app()));
    EXPECT_EQ(unregister.kind, KIND_UNREGISTER_APP);
    EXPECT_EQ(unregister.size, 1U);
}

TEST(Decoder, InitFileCarriesTheFileName)
{
    const Logferry_init_file record = make_init_file("/var/log/example.dlt");
    const Record decoded = whole_record(bytes_of(record));
    EXPECT_EQ(decoded.kind, KIND_INIT_FILE);
    EXPECT_EQ(decoded.size, 256U);
    EXPECT_EQ(decoded.text, "/var/log/example.dlt");

    const Logferry_init_file longest = make_init_file(std::string(254, 'f'));
    EXPECT_EQ(whole_record(bytes_of(longest)).text, std::string(254, 'f'));
    EXPECT_EQ(whole_record(bytes_of(Logferry_init_file())).text, "");
}

TEST(Decoder, InitFileWithoutZeroIsUnterminated)
{
    Bytes bytes(256, 'f');
    bytes[0] = KIND_INIT_FILE;
    const auto result = decode_record(bytes);
    EXPECT_EQ(result.error.code, Error_code::unterminated_field);
    EXPECT_EQ(result.error.offset, 1U);
    EXPECT_EQ(result.error.kind, KIND_INIT_FILE);
}

TEST(Decoder, RegisterAppCarriesIdDescriptionAndLength)
{
    const Bytes bytes = bytes_of(Logferry_register_app("EXA", "Example application"));
    const Record decoded = whole_record(bytes);
    EXPECT_EQ(decoded.kind, KIND_REGISTER_APP);
    EXPECT_EQ(decoded.id, "EXA");
    EXPECT_EQ(decoded.text, "Example application");
    EXPECT_EQ(decoded.length, 28U);
    EXPECT_EQ(decoded.size, 28U);
    EXPECT_EQ(decoded.irregular, 0U);

    const Record four = whole_record(bytes_of(Logferry_register_app("ABCDEFG", "x")));
    EXPECT_EQ(four.id, "ABCD");
    EXPECT_EQ(four.text, "x");
    EXPECT_EQ(four.size, 10U);

    const std::string longest(79, 'd');
    const Record full = whole_record(bytes_of(Logferry_register_app("APP", longest.c_str())));
    EXPECT_EQ(full.text, longest);
    EXPECT_EQ(full.size, 88U);
}

TEST(Decoder, RegisterAppBuiltWithoutTextsKeepsItsShortLength)
{
    // Length 8 but 9 bytes: the empty description's zero is still written.
    const Record decoded = whole_record(bytes_of(Logferry_register_app(nullptr, "x")));
    EXPECT_EQ(decoded.length, 8U);
    EXPECT_EQ(decoded.size, 9U);
    EXPECT_EQ(decoded.id, "");
    EXPECT_EQ(decoded.text, "");
    EXPECT_TRUE(decoded.is(logferry_decoder::length_mismatch));
}

TEST(Decoder, RegisterContextCarriesLevelHandleIdAndDescription)
{
    const Bytes bytes = bytes_of(Logferry_register_context(5, 0x01020304, "MAIN", "Main context"));
    const Record decoded = whole_record(bytes);
    EXPECT_EQ(decoded.kind, KIND_REGISTER_CONTEXT);
    EXPECT_EQ(decoded.log_level, 5U);
    EXPECT_EQ(decoded.context_handle, 0x01020304U);
    EXPECT_EQ(decoded.id, "MAIN");
    EXPECT_EQ(decoded.text, "Main context");
    EXPECT_EQ(decoded.length, 26U);
    EXPECT_EQ(decoded.irregular, 0U);

    const Record empty = whole_record(bytes_of(Logferry_register_context(0, 7, "C", "")));
    EXPECT_EQ(empty.size, 14U);
    EXPECT_EQ(empty.text, "");
    EXPECT_EQ(empty.id, "C");
}

TEST(Decoder, RegisterRecordsWithoutTheirZerosAreRejected)
{
    Bytes app = bytes_of(Logferry_register_app("ABCD", "x"));
    app[7] = 'E';  // the ID's fifth byte
    EXPECT_EQ(decode_record(app).error.code, Error_code::unterminated_field);
    EXPECT_EQ(decode_record(app).error.offset, 3U);

    Bytes context = bytes_of(Logferry_register_context(4, 1, "CTX1", "d"));
    context[12] = 'X';
    EXPECT_EQ(decode_record(context).error.code, Error_code::unterminated_field);

    // 80 description bytes without a zero.
    Bytes description(8 + 80, 'd');
    description[0] = KIND_REGISTER_APP;
    description[1] = 88;
    description[2] = 0;
    std::memcpy(&description[3], "APP\0\0", 5);
    const auto result = decode_record(description);
    EXPECT_EQ(result.error.code, Error_code::unterminated_field);
    EXPECT_EQ(result.error.offset, 8U);
}

TEST(Decoder, RegisterContextWithLevelAboveSixIsInvalid)
{
    const Bytes bytes = bytes_of(Logferry_register_context(7, 1, "CTX", "d"));
    const auto result = decode_record(bytes);
    EXPECT_EQ(result.error.code, Error_code::invalid_value);
    EXPECT_EQ(result.error.offset, 3U);
}

TEST(Decoder, UnregisterContextCarriesTheHandle)
{
    Logferry_unregister_context record;
    record.context_handle = 0xCAFEBABE;
    const Record decoded = whole_record(bytes_of(record));
    EXPECT_EQ(decoded.kind, KIND_UNREGISTER_CONTEXT);
    EXPECT_EQ(decoded.context_handle, 0xCAFEBABEU);
}

TEST(Decoder, LevelUpdateCarriesLevelAndHandle)
{
    const Bytes bytes = {24, 6, 0x78, 0x56, 0x34, 0x12};
    const Record decoded = whole_record(bytes);
    EXPECT_EQ(decoded.kind, KIND_UPDATE_CONTEXT_LOG_LEVEL_FILTER);
    EXPECT_EQ(decoded.log_level, 6U);
    EXPECT_EQ(decoded.context_handle, 0x12345678U);
    EXPECT_EQ(decode_record(Bytes{24, 7, 0, 0, 0, 0}).error.code, Error_code::invalid_value);
    EXPECT_EQ(decode_record(Bytes{24, 6, 0, 0, 0}).error.code, Error_code::truncated);
}

// ----------------------------------------------------------------------------------------
// Log records.

TEST(Decoder, StartAndFinishCarryTheirFields)
{
    const Record start = whole_record(bytes_of(start_record(0x11223344, 3, 7, 0xFFFFFFFF)));
    EXPECT_EQ(start.kind, KIND_WRITE_START);
    EXPECT_EQ(start.log_level, 3U);
    EXPECT_EQ(start.context_handle, 7U);
    EXPECT_EQ(start.stream_key, 0x11223344U);
    EXPECT_EQ(start.timestamp, 0xFFFFFFFFU);

    const Record finish = whole_record(bytes_of(make_finish(0xA0B0C0D0)));
    EXPECT_EQ(finish.kind, KIND_WRITE_FINISH);
    EXPECT_EQ(finish.stream_key, 0xA0B0C0D0U);

    EXPECT_EQ(decode_record(bytes_of(start_record(1, 7))).error.code, Error_code::invalid_value);
}

TEST(Decoder, BoolValues)
{
    Logferry_write_bool record = make_value<Logferry_write_bool>(9, 1);
    Record decoded = whole_record(bytes_of(record));
    EXPECT_EQ(decoded.kind, KIND_WRITE_BOOL);
    EXPECT_TRUE(decoded.bool_value);
    EXPECT_EQ(decoded.stream_key, 9U);
    record.value = 0;
    EXPECT_FALSE(whole_record(bytes_of(record)).bool_value);
    record.value = 2;
    const auto result = decode_record(bytes_of(record));
    EXPECT_EQ(result.error.code, Error_code::invalid_value);
    EXPECT_EQ(result.error.offset, 5U);
}

// An integer record of every width and kind, and what the decoder reads from it: the signed
// value of kinds 10 to 13, the format and unsigned value of kinds 14 to 17.
struct Integer_case {
    const char* name;
    Bytes bytes;
    int kind;
    std::uint32_t key;
    unsigned int bits;
    std::int64_t signed_value;
    std::uint8_t format;
    std::uint64_t unsigned_value;
};

void PrintTo(const Integer_case& integer, std::ostream* out) { *out << integer.name; }

class DecoderIntegers : public ::testing::TestWithParam<Integer_case> {};

TEST_P(DecoderIntegers, CarryKeyWidthAndValue)
{
    const Integer_case& expected = GetParam();
    const Record decoded = whole_record(expected.bytes);
    EXPECT_EQ(decoded.kind, expected.kind);
    EXPECT_EQ(decoded.stream_key, expected.key);
    EXPECT_EQ(decoded.value_bits, expected.bits);
    if (expected.kind <= KIND_WRITE_INT64) {
        EXPECT_EQ(decoded.signed_value, expected.signed_value);
    } else {
        EXPECT_EQ(decoded.format, expected.format);
        EXPECT_EQ(decoded.unsigned_value, expected.unsigned_value);
    }
}

INSTANTIATE_TEST_SUITE_P(
    EveryWidth, DecoderIntegers,
    ::testing::Values(
        Integer_case{"Int8", bytes_of(make_value<Logferry_write_int8>(1, -128)), KIND_WRITE_INT8, 1, 8, -128, 0, 0},
        Integer_case{"Int16", bytes_of(make_value<Logferry_write_int16>(2, -2)), KIND_WRITE_INT16, 2, 16, -2, 0, 0},
        Integer_case{"Int32", bytes_of(make_value<Logferry_write_int32>(3, std::numeric_limits<std::int32_t>::min())),
                     KIND_WRITE_INT32, 3, 32, std::numeric_limits<std::int32_t>::min(), 0, 0},
        Integer_case{"Int64", bytes_of(make_value<Logferry_write_int64>(4, std::numeric_limits<std::int64_t>::max())),
                     KIND_WRITE_INT64, 4, 64, std::numeric_limits<std::int64_t>::max(), 0, 0},
        Integer_case{"Uint8", bytes_of(make_formatted<Logferry_write_uint8_formatted>(11, 0xA5, LogFormat::kBin)),
                     KIND_WRITE_UINT8_FORMATTED, 11, 8, 0, 4, 0xA5},
        Integer_case{"Uint16", bytes_of(make_formatted<Logferry_write_uint16_formatted>(5, 0x1234, LogFormat::kHex)),
                     KIND_WRITE_UINT16_FORMATTED, 5, 16, 0, 2, 0x1234},
        Integer_case{"Uint32",
                     bytes_of(make_formatted<Logferry_write_uint32_formatted>(0x01020304, 0xDEADBEEF, LogFormat::kOct)),
                     KIND_WRITE_UINT32_FORMATTED, 0x01020304, 32, 0, 3, 0xDEADBEEF},
        Integer_case{
            "Uint64",
            bytes_of(make_formatted<Logferry_write_uint64_formatted>(77, 0xFEDCBA9876543210ULL, LogFormat::kHexUpper)),
            KIND_WRITE_UINT64_FORMATTED, 77, 64, 0, 5, 0xFEDCBA9876543210ULL}));

TEST(Decoder, FloatingPointValues)
{
    auto f32 = make_value<Logferry_write_float32>(0, 1.0f);
    const auto f64 = make_value<Logferry_write_float64>(8, -2.5e-300);
    const Record d32 = whole_record(bytes_of(f32));
    EXPECT_EQ(d32.kind, KIND_WRITE_FLOAT32);
    EXPECT_EQ(d32.float_value, 1.0);
    EXPECT_EQ(d32.value_bits, 32U);
    f32.value = 0.1f;
    EXPECT_EQ(whole_record(bytes_of(f32)).float_value, static_cast<double>(0.1f));
    const Record d64 = whole_record(bytes_of(f64));
    EXPECT_EQ(d64.float_value, -2.5e-300);
    EXPECT_EQ(d64.stream_key, 8U);
    EXPECT_EQ(d64.value_bits, 64U);
}

TEST(Decoder, TextRecords)
{
    const Record hello = whole_record(bytes_of(make_text(3, "hello world")));
    EXPECT_EQ(hello.kind, KIND_WRITE_UTF8_STRING);
    EXPECT_EQ(hello.text, "hello world");
    EXPECT_EQ(hello.stream_key, 3U);
    EXPECT_EQ(hello.length, 19U);
    EXPECT_EQ(hello.irregular, 0U);

    const Record empty = whole_record(bytes_of(make_text(3, "")));
    EXPECT_EQ(empty.text, "");
    EXPECT_EQ(empty.size, 8U);

    const std::string longest(RECORD_MAX_TEXT_LENGTH, 'L');
    const Record full = whole_record(bytes_of(make_text(4, longest)));
    EXPECT_EQ(full.text, longest);
    EXPECT_EQ(full.size, 1397U);
}

TEST(Decoder, TextWithoutZeroEndsAfterTheStreamKey)
{
    const Bytes bytes = bytes_of(unterminated_text_record(0x55));
    ASSERT_EQ(bytes.size(), 7U);
    const Record decoded = whole_record(bytes);
    EXPECT_EQ(decoded.stream_key, 0x55U);
    EXPECT_EQ(decoded.text, "");
    EXPECT_TRUE(decoded.is(logferry_decoder::text_omitted));
    EXPECT_TRUE(decoded.is(logferry_decoder::length_mismatch));
    EXPECT_EQ(decoded.length, 1398U);
}

TEST(Decoder, TextLengthFieldThatDisagreesIsReported)
{
    // What a string view over a text with an early zero produces: length 18, 3 characters.
    Logferry_write_utf8_string record = make_text(1, "abc");
    record.length = 18;
    const Record decoded = whole_record(bytes_of(record));
    EXPECT_EQ(decoded.text, "abc");
    EXPECT_EQ(decoded.size, 11U);
    EXPECT_EQ(decoded.length, 18U);
    EXPECT_TRUE(decoded.is(logferry_decoder::length_mismatch));
    EXPECT_FALSE(decoded.is(logferry_decoder::text_omitted));
}

TEST(Decoder, RawRecordsCarryFormatAndPayload)
{
    const Record decoded = whole_record(bytes_of(make_raw(21, LogFormat::kHex, {0xDE, 0x00, 0xBE, 0xEF})));
    EXPECT_EQ(decoded.kind, KIND_WRITE_RAW_FORMATTED);
    EXPECT_EQ(decoded.format, 2U);
    EXPECT_EQ(decoded.payload_size, 4U);
    EXPECT_EQ(decoded.payload, (std::vector<std::uint8_t>{0xDE, 0x00, 0xBE, 0xEF}));
    EXPECT_EQ(decoded.stream_key, 21U);
    EXPECT_EQ(decoded.irregular, 0U);

    const Record full =
        whole_record(bytes_of(make_raw(21, LogFormat::kHex, {0xDE, 0x00, 0xBE, 0xEF}, RECORD_MAX_PAYLOAD_SIZE)));
    EXPECT_EQ(full.size, 1399U);
    EXPECT_EQ(full.payload.size(), RECORD_MAX_PAYLOAD_SIZE);
}

TEST(Decoder, PayloadSizeZeroOrAbove1389EndsAfterTheFixedFields)
{
    const Record none = whole_record(bytes_of(make_raw(1, LogFormat::kDefault, {})));
    EXPECT_EQ(none.size, 10U);
    EXPECT_TRUE(none.payload.empty());
    EXPECT_EQ(none.irregular, 0U);

    const Record omitted = whole_record(bytes_of(make_raw(1, LogFormat::kDefault, Bytes(1390, 0xAA))));
    EXPECT_EQ(omitted.size, 10U);
    EXPECT_EQ(omitted.payload_size, 1390U);
    EXPECT_TRUE(omitted.payload.empty());
    EXPECT_TRUE(omitted.is(logferry_decoder::payload_omitted));
    EXPECT_TRUE(omitted.is(logferry_decoder::length_mismatch));

    Logferry_write_encoded_payload payload;
    payload.size = 0xFFFF;
    payload.length = 9;
    payload.stream_key = 2;
    const Record encoded = whole_record(bytes_of(payload));
    EXPECT_EQ(encoded.size, 9U);
    EXPECT_TRUE(encoded.is(logferry_decoder::payload_omitted));

    Logferry_write_encoded_message message;
    message.size = 2000;
    message.length = 2005;
    const Record whole = whole_record(bytes_of(message));
    EXPECT_EQ(whole.size, 5U);
    EXPECT_TRUE(whole.is(logferry_decoder::payload_omitted));
}

TEST(Decoder, EncodedPayloadAndEncodedMessage)
{
    const Record decoded = whole_record(bytes_of(make_encoded_payload(0x0BADF00D, {1, 2, 3})));
    EXPECT_EQ(decoded.kind, KIND_WRITE_ENCODED_PAYLOAD);
    EXPECT_EQ(decoded.stream_key, 0x0BADF00DU);
    EXPECT_EQ(decoded.payload, (std::vector<std::uint8_t>{1, 2, 3}));
    EXPECT_EQ(decoded.irregular, 0U);

    const Record whole = whole_record(bytes_of(make_encoded_message({9, 8, 7})));
    EXPECT_EQ(whole.kind, KIND_WRITE_ENCODED_MESSAGE);
    EXPECT_EQ(whole.payload, (std::vector<std::uint8_t>{9, 8, 7}));
    EXPECT_EQ(whole.length, 8U);
    EXPECT_EQ(whole.irregular, 0U);
}

TEST(Decoder, PayloadLengthFieldThatDisagreesIsReported)
{
    Logferry_write_raw_formatted raw;
    raw.size = 2;
    raw.length = 99;
    const Record decoded = whole_record(bytes_of(raw));
    EXPECT_EQ(decoded.size, 12U);
    EXPECT_EQ(decoded.length, 99U);
    EXPECT_TRUE(decoded.is(logferry_decoder::length_mismatch));
}

TEST(Decoder, PayloadRunningPastTheEndIsTruncated)
{
    Bytes bytes = bytes_of(make_raw(0, LogFormat::kDefault, {}, 8));
    bytes.resize(bytes.size() - 1);
    const auto result = decode_record(bytes);
    EXPECT_EQ(result.error.code, Error_code::truncated);
    EXPECT_EQ(result.error.offset, 10U);
    EXPECT_EQ(result.error.kind, KIND_WRITE_RAW_FORMATTED);
}

TEST(Decoder, KindsAbove24AreUnknown)
{
    for (int kind = 25; kind < 256; ++kind) {
        const Bytes bytes(16, static_cast<unsigned char>(kind));
        EXPECT_EQ(decode_record(bytes).error.code, Error_code::unknown_kind) << kind;
        EXPECT_EQ(decode_ring_unit(bytes).error.code, Error_code::unknown_kind) << kind;
        EXPECT_EQ(decode_priority_area(bytes).error.code, Error_code::unknown_kind) << kind;
    }
    EXPECT_EQ(decode_record(Bytes()).error.code, Error_code::empty_input);
}

TEST(Decoder, KindNamesCoverEveryKind)
{
    EXPECT_STREQ(logferry_decoder::kind_name(0), "disable_remote");
    EXPECT_STREQ(logferry_decoder::kind_name(20), "write_utf8_string");
    EXPECT_STREQ(logferry_decoder::kind_name(24), "update_context_log_level_filter");
    EXPECT_STREQ(logferry_decoder::kind_name(25), "unknown");
    EXPECT_STREQ(logferry_decoder::kind_name(-1), "unknown");
}

// Every prefix of every record kind, in an allocation of exactly that size: the full
// record decodes, every shorter prefix is reported as cut and nothing is read behind it.
TEST(Decoder, EveryCutRecordIsTruncatedAndNeverReadPastItsEnd)
{
    const Logferry_init_file file = make_init_file("name");
    const std::vector<Bytes> records = {
        bytes_of(Logferry_disable_remote()),
        bytes_of(Logferry_enable_local_print()),
        bytes_of(file),
        bytes_of(Logferry_register_app("APP", "an application")),
        bytes_of(Logferry_unregister_app()),
        bytes_of(Logferry_register_context(4, 2, "CTX", "a context")),
        bytes_of(Logferry_unregister_context()),
        bytes_of(start_record(1)),
        bytes_of(make_finish(1)),
        bytes_of(Logferry_write_bool()),
        bytes_of(Logferry_write_int8()),
        bytes_of(Logferry_write_int16()),
        bytes_of(Logferry_write_int32()),
        bytes_of(Logferry_write_int64()),
        bytes_of(Logferry_write_uint8_formatted()),
        bytes_of(Logferry_write_uint16_formatted()),
        bytes_of(Logferry_write_uint32_formatted()),
        bytes_of(Logferry_write_uint64_formatted()),
        bytes_of(Logferry_write_float32()),
        bytes_of(Logferry_write_float64()),
        bytes_of(make_text(1, "some text")),
        bytes_of(make_raw(0, LogFormat::kDefault, {}, 5)),
        bytes_of(make_encoded_payload(0, Bytes(4, 0))),
        bytes_of(make_encoded_message(Bytes(2, 0))),
        Bytes{24, 3, 1, 0, 0, 0},
    };
    ASSERT_EQ(records.size(), 25U);
    for (std::size_t kind = 0; kind < records.size(); ++kind) {
        const Bytes& bytes = records[kind];
        ASSERT_EQ(bytes[0], kind);
        const Exact_copy whole(bytes, bytes.size());
        const auto full = decode_record(whole.data.get(), whole.size);
        EXPECT_TRUE(full.error.ok()) << kind << ": " << logferry_decoder::describe(full.error);
        EXPECT_EQ(full.record.size, bytes.size()) << kind;
        for (std::size_t n = 1; n < bytes.size(); ++n) {
            const Exact_copy cut(bytes, n);
            const auto result = decode_record(cut.data.get(), cut.size);
            if (kind == KIND_WRITE_UTF8_STRING && n >= 7) {
                // A text record cut inside its text is read as the short form that
                // ends after the key; as a log message the cut is reported.
                EXPECT_TRUE(result.error.ok());
                EXPECT_TRUE(result.record.is(logferry_decoder::text_omitted));
                continue;
            }
            EXPECT_EQ(result.error.code, Error_code::truncated) << "kind " << kind << ", " << n << " bytes";
            EXPECT_EQ(result.error.kind, static_cast<int>(kind));
        }
    }
}

// ----------------------------------------------------------------------------------------
// Priority area reads.

TEST(Decoder, PriorityAreaWithOneRecord)
{
    const auto read = decode_priority_area(bytes_of(Logferry_register_app("APP", "desc")));
    ASSERT_TRUE(read.error.ok());
    ASSERT_EQ(read.records.size(), 1U);
    EXPECT_EQ(read.records[0].id, "APP");
}

TEST(Decoder, PriorityAreaWithSeveralRecordsEndToEnd)
{
    const Logferry_init_file file = make_init_file("out.dlt");
    const Bytes bytes = bytes_of(Logferry_register_app("APP", "desc"), Logferry_register_context(4, 1, "CTX1", "one"),
                                 Logferry_register_context(6, 2, "CTX2", ""), Logferry_enable_local_print(),
                                 Logferry_disable_remote(), file);
    const auto read = decode_priority_area(bytes);
    ASSERT_TRUE(read.error.ok()) << logferry_decoder::describe(read.error);
    ASSERT_EQ(read.records.size(), 6U);
    EXPECT_EQ(read.records[0].kind, KIND_REGISTER_APP);
    EXPECT_EQ(read.records[1].id, "CTX1");
    EXPECT_EQ(read.records[1].context_handle, 1U);
    EXPECT_EQ(read.records[2].id, "CTX2");
    EXPECT_EQ(read.records[2].log_level, 6U);
    EXPECT_EQ(read.records[3].kind, KIND_ENABLE_LOCAL_PRINT);
    EXPECT_EQ(read.records[4].kind, KIND_DISABLE_REMOTE);
    EXPECT_EQ(read.records[5].text, "out.dlt");
    EXPECT_EQ(read.records[5].offset, bytes.size() - 256);
    std::size_t offset = 0;
    for (const Record& record : read.records) {
        EXPECT_EQ(record.offset, offset);
        offset += record.size;
    }
    EXPECT_EQ(offset, bytes.size());
}

TEST(Decoder, PriorityAreaRejectsOtherKindsAndKeepsWhatCameBefore)
{
    const Bytes bytes = bytes_of(Logferry_register_app("APP", "d"), Logferry_unregister_app());
    const auto read = decode_priority_area(bytes);
    EXPECT_EQ(read.error.code, Error_code::unexpected_kind);
    EXPECT_EQ(read.error.offset, 10U);
    EXPECT_EQ(read.error.kind, KIND_UNREGISTER_APP);
    ASSERT_EQ(read.records.size(), 1U);
    EXPECT_EQ(read.records[0].id, "APP");

    const auto log = decode_priority_area(bytes_of(start_record(1)));
    EXPECT_EQ(log.error.code, Error_code::unexpected_kind);
    EXPECT_TRUE(log.records.empty());
    EXPECT_EQ(decode_priority_area(Bytes()).error.code, Error_code::empty_input);
}

TEST(Decoder, PriorityAreaCutInsideItsSecondRecord)
{
    Bytes bytes = bytes_of(Logferry_register_app("APP", "d"), Logferry_register_context(4, 1, "CTX1", "one"));
    bytes.resize(bytes.size() - 3);
    const auto read = decode_priority_area(bytes);
    EXPECT_EQ(read.error.code, Error_code::truncated);
    EXPECT_EQ(read.records.size(), 1U);
}

// ----------------------------------------------------------------------------------------
// Ring units.

TEST(Decoder, LogMessageWithEveryArgumentKind)
{
    const std::uint32_t key = 0x00000102;
    const auto b = make_value<Logferry_write_bool>(key, 1);
    const auto i8 = make_value<Logferry_write_int8>(key, -5);
    const auto i16 = make_value<Logferry_write_int16>(key, 300);
    const auto i64 = make_value<Logferry_write_int64>(key, -1);
    const auto u8 = make_value<Logferry_write_uint8_formatted>(key, 255);
    const auto u16 = make_formatted<Logferry_write_uint16_formatted>(key, 0xBEEF, LogFormat::kHex);
    const auto u32 = make_formatted<Logferry_write_uint32_formatted>(key, 8, LogFormat::kOct);
    const auto u64 = make_formatted<Logferry_write_uint64_formatted>(key, 5, LogFormat::kBin);
    const auto f32 = make_value<Logferry_write_float32>(key, 3.25f);
    const auto f64 = make_value<Logferry_write_float64>(key, 1e100);
    const auto raw = make_raw(key, LogFormat::kDefault, {0xAB, 0xCD});
    const auto encoded = make_encoded_payload(key, {0x42});

    const Bytes bytes = bytes_of(start_record(key, 5, 9, 42), b, i8, i16, int32_record(key, 70000), i64, u8, u16, u32,
                                 u64, f32, f64, make_text(key, "text"), raw, encoded, make_finish(key));
    const auto unit = decode_ring_unit(bytes);
    ASSERT_TRUE(unit.error.ok()) << logferry_decoder::describe(unit.error);
    EXPECT_EQ(unit.shape, Unit_shape::log_message);
    ASSERT_EQ(unit.records.size(), 16U);
    ASSERT_NE(unit.start(), nullptr);
    EXPECT_EQ(unit.start()->context_handle, 9U);
    EXPECT_EQ(unit.start()->log_level, 5U);
    EXPECT_EQ(unit.start()->timestamp, 42U);
    ASSERT_NE(unit.finish(), nullptr);
    EXPECT_EQ(unit.finish()->kind, KIND_WRITE_FINISH);
    const std::uint8_t kinds[] = {7, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 8};
    for (std::size_t i = 0; i < 16; ++i) {
        EXPECT_EQ(unit.records[i].kind, kinds[i]) << i;
    }
    EXPECT_TRUE(unit.records[1].bool_value);
    EXPECT_EQ(unit.records[2].signed_value, -5);
    EXPECT_EQ(unit.records[3].signed_value, 300);
    EXPECT_EQ(unit.records[4].signed_value, 70000);
    EXPECT_EQ(unit.records[5].signed_value, -1);
    EXPECT_EQ(unit.records[6].unsigned_value, 255U);
    EXPECT_EQ(unit.records[7].unsigned_value, 0xBEEFU);
    EXPECT_EQ(unit.records[8].format, 3U);
    EXPECT_EQ(unit.records[9].format, 4U);
    EXPECT_EQ(unit.records[10].float_value, 3.25);
    EXPECT_EQ(unit.records[11].float_value, 1e100);
    EXPECT_EQ(unit.records[12].text, "text");
    EXPECT_EQ(unit.records[13].payload, (std::vector<std::uint8_t>{0xAB, 0xCD}));
    EXPECT_EQ(unit.records[14].payload, (std::vector<std::uint8_t>{0x42}));
    for (const Record& record : unit.records) {
        EXPECT_EQ(record.stream_key, key);
    }
}

TEST(Decoder, RingUnitsOfASingleRecord)
{
    const auto encoded = decode_ring_unit(bytes_of(make_encoded_message(Bytes(3, 0))));
    ASSERT_TRUE(encoded.error.ok());
    EXPECT_EQ(encoded.shape, Unit_shape::single_record);
    ASSERT_EQ(encoded.records.size(), 1U);
    EXPECT_EQ(encoded.start(), nullptr);
    EXPECT_EQ(encoded.finish(), nullptr);

    Logferry_unregister_context context;
    context.context_handle = 3;
    const auto unregister = decode_ring_unit(bytes_of(context));
    ASSERT_EQ(unregister.shape, Unit_shape::single_record);
    EXPECT_EQ(unregister.records[0].context_handle, 3U);
    EXPECT_EQ(decode_ring_unit(bytes_of(Logferry_unregister_app())).shape, Unit_shape::single_record);

    const auto trailing = decode_ring_unit(bytes_of(Logferry_unregister_app(), Logferry_unregister_app()));
    EXPECT_EQ(trailing.error.code, Error_code::trailing_bytes);
    EXPECT_EQ(trailing.error.offset, 1U);
    EXPECT_EQ(trailing.shape, Unit_shape::invalid);
    EXPECT_TRUE(trailing.records.empty());
}

TEST(Decoder, MessagesTheFrontEndMayBuildWithoutAStart)
{
    // A finish record alone, and arguments without a start.
    const auto lone = decode_ring_unit(bytes_of(make_finish(9)));
    ASSERT_TRUE(lone.error.ok());
    EXPECT_EQ(lone.shape, Unit_shape::log_message);
    EXPECT_EQ(lone.start(), nullptr);
    EXPECT_EQ(lone.finish()->stream_key, 9U);

    const auto headless = decode_ring_unit(bytes_of(int32_record(3, 7), make_finish(3)));
    ASSERT_TRUE(headless.error.ok());
    EXPECT_EQ(headless.records.size(), 2U);
    EXPECT_EQ(headless.start(), nullptr);

    // The same stream started twice: both start records, the first one leads.
    const auto twice = decode_ring_unit(bytes_of(start_record(1, 4, 1, 10), start_record(1, 2, 2, 20), make_finish(1)));
    ASSERT_TRUE(twice.error.ok());
    ASSERT_EQ(twice.records.size(), 3U);
    EXPECT_EQ(twice.start()->timestamp, 10U);
}

TEST(Decoder, TextShortFormInsideAMessage)
{
    // The short form is followed by the finish record, whose key holds zero bytes: read
    // with a text, the message would not end with its finish record.
    const Bytes bytes = bytes_of(start_record(1), unterminated_text_record(1), int32_record(1, -1), make_finish(1));
    const auto unit = decode_ring_unit(bytes);
    ASSERT_TRUE(unit.error.ok()) << logferry_decoder::describe(unit.error);
    ASSERT_EQ(unit.records.size(), 4U);
    EXPECT_TRUE(unit.records[1].is(logferry_decoder::text_omitted));
    EXPECT_EQ(unit.records[1].size, 7U);
    EXPECT_EQ(unit.records[2].signed_value, -1);

    const auto last = decode_ring_unit(bytes_of(start_record(1), unterminated_text_record(1), make_finish(1)));
    ASSERT_TRUE(last.error.ok()) << logferry_decoder::describe(last.error);
    ASSERT_EQ(last.records.size(), 3U);
    EXPECT_TRUE(last.records[1].is(logferry_decoder::text_omitted));
}

TEST(Decoder, TextShortFormWithAKeyWithoutZeroBytes)
{
    // No zero at all behind the short form: the text reading fails at once.
    const std::uint32_t key = 0x01010101;
    const auto unit = decode_ring_unit(bytes_of(unterminated_text_record(key), make_finish(key)));
    ASSERT_TRUE(unit.error.ok()) << logferry_decoder::describe(unit.error);
    ASSERT_EQ(unit.records.size(), 2U);
    EXPECT_TRUE(unit.records[0].is(logferry_decoder::text_omitted));
}

TEST(Decoder, ManyShortFormsInOneMessageStayCheap)
{
    // Every text record could be either form; the decoder must not try them all in turn.
    Bytes bytes = bytes_of(start_record(1));
    for (int i = 0; i < 5000; ++i) {
        serialize(unterminated_text_record(1), bytes);
    }
    serialize(make_finish(1), bytes);
    const auto unit = decode_ring_unit(bytes);
    ASSERT_TRUE(unit.error.ok()) << logferry_decoder::describe(unit.error);
    EXPECT_EQ(unit.records.size(), 5002U);
}

TEST(Decoder, TextsWithMismatchedLengthsInsideAMessage)
{
    Logferry_write_utf8_string view = make_text(2, "abc");
    view.length = 18;
    const auto unit = decode_ring_unit(bytes_of(start_record(2), view, make_text(2, "next"), make_finish(2)));
    ASSERT_TRUE(unit.error.ok());
    ASSERT_EQ(unit.records.size(), 4U);
    EXPECT_EQ(unit.records[1].text, "abc");
    EXPECT_TRUE(unit.records[1].is(logferry_decoder::length_mismatch));
    EXPECT_EQ(unit.records[2].text, "next");
}

TEST(Decoder, MessageCutInsideATextIsTruncated)
{
    Bytes bytes = bytes_of(start_record(1), make_text(1, "a text that is cut"));
    bytes.resize(bytes.size() - 6);
    const auto unit = decode_ring_unit(bytes);
    EXPECT_EQ(unit.error.code, Error_code::truncated);
    EXPECT_EQ(unit.error.kind, KIND_WRITE_UTF8_STRING);
    EXPECT_EQ(unit.shape, Unit_shape::invalid);
}

TEST(Decoder, MessageWithoutFinish)
{
    const auto unit = decode_ring_unit(bytes_of(start_record(1), int32_record(1, 2)));
    EXPECT_EQ(unit.error.code, Error_code::missing_finish);
    EXPECT_EQ(unit.error.offset, 23U);
    EXPECT_TRUE(unit.records.empty());
}

TEST(Decoder, MessageWithBytesBehindTheFinish)
{
    const auto unit = decode_ring_unit(bytes_of(start_record(1), make_finish(1), int32_record(1, 2)));
    EXPECT_EQ(unit.error.code, Error_code::trailing_bytes);
    EXPECT_EQ(unit.error.offset, 19U);
}

TEST(Decoder, MessageMixingStreams)
{
    const auto unit = decode_ring_unit(bytes_of(start_record(1), int32_record(2, 5), make_finish(1)));
    EXPECT_EQ(unit.error.code, Error_code::stream_key_mismatch);
    EXPECT_EQ(unit.error.offset, 14U);
    EXPECT_EQ(unit.error.kind, KIND_WRITE_INT32);
    EXPECT_NE(logferry_decoder::describe(unit.error).find("stream 2"), std::string::npos);
}

TEST(Decoder, MessageHoldingARecordThatCannotStandThere)
{
    const auto registration =
        decode_ring_unit(bytes_of(start_record(1), Logferry_register_app("A", "b"), make_finish(1)));
    EXPECT_EQ(registration.error.code, Error_code::unexpected_kind);
    EXPECT_EQ(registration.error.offset, 14U);
    EXPECT_EQ(registration.error.kind, KIND_REGISTER_APP);

    Bytes unknown = bytes_of(start_record(1), make_finish(1));
    unknown[14] = 200;
    EXPECT_EQ(decode_ring_unit(unknown).error.code, Error_code::unknown_kind);
}

TEST(Decoder, MessageWithInvalidValues)
{
    const auto unit =
        decode_ring_unit(bytes_of(start_record(1), make_value<Logferry_write_bool>(1, 3), make_finish(1)));
    EXPECT_EQ(unit.error.code, Error_code::invalid_value);
    EXPECT_EQ(unit.error.offset, 19U);
    EXPECT_EQ(decode_ring_unit(bytes_of(start_record(1, 9), make_finish(1))).error.code, Error_code::invalid_value);
}

TEST(Decoder, DescribeNamesCodeOffsetKindAndDetail)
{
    const auto unit = decode_ring_unit(Bytes{KIND_WRITE_INT32, 1, 0});
    EXPECT_EQ(logferry_decoder::describe(unit.error),
              "truncated at offset 0 (kind 12): write_int32 needs 9 bytes, 3 left");
    EXPECT_EQ(logferry_decoder::describe(logferry_decoder::Error()), "ok");
    EXPECT_STREQ(logferry_decoder::error_name(Error_code::stream_key_mismatch), "stream-key-mismatch");
}

TEST(Decoder, EveryCutMessageIsAnErrorAndNeverReadPastItsEnd)
{
    const auto raw = make_raw(4, LogFormat::kDefault, {}, 3);
    const Bytes bytes = bytes_of(start_record(4), make_text(4, "abc"), raw, int32_record(4, 1), make_finish(4));
    for (std::size_t n = 0; n < bytes.size(); ++n) {
        const Exact_copy cut(bytes, n);
        const auto unit = decode_ring_unit(cut.data.get(), cut.size);
        EXPECT_FALSE(unit.error.ok()) << n;
        EXPECT_EQ(unit.shape, Unit_shape::invalid) << n;
    }
    const Exact_copy whole(bytes, bytes.size());
    EXPECT_TRUE(decode_ring_unit(whole.data.get(), whole.size).error.ok());
}

// Random corruption of valid input: whatever comes out, it is a result, not a crash or a
// read behind the input (checked by the sanitizer build), and a success accounts for
// every byte.
TEST(Decoder, CorruptedInputNeverCrashes)
{
    const auto raw = make_raw(4, LogFormat::kDefault, {}, 3);
    const Bytes message = bytes_of(start_record(4), make_text(4, "abc"), raw, int32_record(4, 1),
                                   unterminated_text_record(4), make_finish(4));
    const Bytes priority = bytes_of(Logferry_register_app("APP", "d"), Logferry_register_context(4, 1, "C", "e"));
    std::mt19937 random(12345);
    for (int round = 0; round < 20000; ++round) {
        Bytes bytes = round % 2 == 0 ? message : priority;
        const int changes = 1 + static_cast<int>(random() % 4);
        for (int c = 0; c < changes; ++c) {
            bytes[random() % bytes.size()] = static_cast<unsigned char>(random());
        }
        bytes.resize(1 + random() % bytes.size());
        const Exact_copy copy(bytes, bytes.size());
        const auto unit = decode_ring_unit(copy.data.get(), copy.size);
        if (unit.error.ok()) {
            std::size_t total = 0;
            for (const Record& record : unit.records) {
                EXPECT_EQ(record.offset, total);
                total += record.size;
            }
            EXPECT_EQ(total, bytes.size());
        }
        const auto read = decode_priority_area(copy.data.get(), copy.size);
        if (read.error.ok()) {
            std::size_t total = 0;
            for (const Record& record : read.records) {
                total += record.size;
            }
            EXPECT_EQ(total, bytes.size());
        }
        static_cast<void>(decode_record(copy.data.get(), copy.size));
    }
}

}  // namespace
