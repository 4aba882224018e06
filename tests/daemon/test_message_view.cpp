// The in-place reading of a log message unit: exact arguments pointing into the unit's
// bytes, and the record decoder's verdict for every unit that is not a regular message.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "decoder.hpp"
#include "logferry/message.hpp"
#include "message_view.hpp"
#include "support/record_bytes.hpp"

namespace {

using namespace logferry;
using logferry_daemon::Arg_kind;
using logferry_decoder::Message_view;
using logferry_test::Bytes;

template <typename... R>
Bytes records(const R&... record)
{
    return logferry_test::bytes_of(record...);
}

// The records of one message, stream KEY (record_bytes.hpp's makers).
constexpr std::uint32_t KEY = 0x0A0B0C0D;

Logferry_write_start start(std::uint8_t level = 4, std::uint32_t handle = 3, std::uint32_t timestamp = 123456)
{
    return logferry_test::make_start(KEY, level, handle, timestamp);
}

Logferry_write_finish finish(std::uint32_t key = KEY) { return logferry_test::make_finish(key); }

template <typename R, typename V>
R plain(V value)
{
    return logferry_test::make_value<R>(KEY, value);
}

template <typename R, typename V>
R formatted(V value, LogFormat format)
{
    return logferry_test::make_formatted<R>(KEY, value, format);
}

Logferry_write_utf8_string text(const std::string& value) { return logferry_test::make_text(KEY, value); }

Logferry_write_raw_formatted raw(const Bytes& payload, LogFormat format)
{
    return logferry_test::make_raw(KEY, format, payload);
}

Logferry_write_encoded_payload encoded(const Bytes& payload)
{
    return logferry_test::make_encoded_payload(KEY, payload);
}

// Whether `arg` is a signed number `bits` wide holding `value`.
::testing::AssertionResult is_signed(const logferry_daemon::Argument& arg, int bits, std::int64_t value)
{
    if (arg.kind != Arg_kind::signed_int || arg.bits != bits || arg.signed_value != value) {
        return ::testing::AssertionFailure()
               << "kind " << static_cast<int>(arg.kind) << ", " << +arg.bits << " bits, value " << arg.signed_value;
    }
    return ::testing::AssertionSuccess();
}

// Whether `arg` is an unsigned number `bits` wide with format code `format` holding `value`.
::testing::AssertionResult is_unsigned(const logferry_daemon::Argument& arg, int bits, int format, std::uint64_t value)
{
    if (arg.kind != Arg_kind::unsigned_int || arg.bits != bits || arg.format != format || arg.unsigned_value != value) {
        return ::testing::AssertionFailure() << "kind " << static_cast<int>(arg.kind) << ", " << +arg.bits
                                             << " bits, format " << +arg.format << ", value " << arg.unsigned_value;
    }
    return ::testing::AssertionSuccess();
}

Bytes every_argument()
{
    return records(start(5, 0x01020304, 0xFFFFFFFE), plain<Logferry_write_bool>(std::uint8_t{1}),
                   plain<Logferry_write_int8>(std::int8_t{-8}), plain<Logferry_write_int16>(std::int16_t{-1600}),
                   plain<Logferry_write_int32>(-320000), plain<Logferry_write_int64>(std::int64_t{-6400000000}),
                   formatted<Logferry_write_uint8_formatted>(std::uint8_t{200}, LogFormat::kBin),
                   formatted<Logferry_write_uint16_formatted>(std::uint16_t{0xBEEF}, LogFormat::kHex),
                   formatted<Logferry_write_uint32_formatted>(0755U, LogFormat::kOct),
                   formatted<Logferry_write_uint64_formatted>(std::uint64_t{0xFFFFFFFFFFFFFFFF}, LogFormat::kRaw),
                   plain<Logferry_write_float32>(1.5F), plain<Logferry_write_float64>(-3.25), text("hello world"),
                   raw({0xDE, 0xAD}, LogFormat::kHexUpper), encoded({1, 2, 3}), finish());
}

TEST(MessageView, RegularMessageIsReadInPlace)
{
    const Bytes unit = every_argument();
    Message_view view;
    ASSERT_TRUE(view.read(unit.data(), unit.size()));
    EXPECT_TRUE(view.has_start);
    EXPECT_EQ(view.level, 5);
    EXPECT_EQ(view.context_handle, 0x01020304U);
    EXPECT_EQ(view.timestamp, 0xFFFFFFFEU);
    ASSERT_EQ(view.arg_count, 14U);
    const auto& a = view.args;
    EXPECT_EQ(a[0].kind, Arg_kind::boolean);
    EXPECT_TRUE(a[0].boolean);
    EXPECT_TRUE(is_signed(a[1], 8, -8));
    EXPECT_TRUE(is_signed(a[2], 16, -1600));
    EXPECT_TRUE(is_signed(a[3], 32, -320000));
    EXPECT_TRUE(is_signed(a[4], 64, -6400000000));
    EXPECT_TRUE(is_unsigned(a[5], 8, 4, 200U));
    EXPECT_TRUE(is_unsigned(a[6], 16, 2, 0xBEEFU));
    EXPECT_TRUE(is_unsigned(a[7], 32, 3, 0755U));
    EXPECT_TRUE(is_unsigned(a[8], 64, 6, 0xFFFFFFFFFFFFFFFFU));
    EXPECT_EQ(a[9].kind, Arg_kind::float32);
    EXPECT_EQ(a[9].float_value, 1.5);
    EXPECT_EQ(a[10].kind, Arg_kind::float64);
    EXPECT_EQ(a[10].float_value, -3.25);
    EXPECT_EQ(a[11].kind, Arg_kind::text);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(a[11].data), a[11].size), "hello world");
    EXPECT_EQ(a[12].kind, Arg_kind::raw);
    EXPECT_EQ(a[12].format, 5);
    EXPECT_EQ(Bytes(a[12].data, a[12].data + a[12].size), (Bytes{0xDE, 0xAD}));
    EXPECT_EQ(a[13].kind, Arg_kind::encoded_payload);
    EXPECT_EQ(Bytes(a[13].data, a[13].data + a[13].size), (Bytes{1, 2, 3}));
    // Texts and payloads are views into the unit itself.
    for (const std::size_t i : {11U, 12U, 13U}) {
        EXPECT_GE(a[i].data, unit.data());
        EXPECT_LE(a[i].data + a[i].size, unit.data() + unit.size());
    }
}

TEST(MessageView, ReadingAgainReusesTheArgumentsWithoutGrowing)
{
    const Bytes unit = every_argument();
    Message_view view;
    ASSERT_TRUE(view.read(unit.data(), unit.size()));
    const auto* storage = view.args.data();
    const Bytes small = records(start(), plain<Logferry_write_int32>(7), finish());
    ASSERT_TRUE(view.read(small.data(), small.size()));
    EXPECT_EQ(view.args.data(), storage);
    ASSERT_EQ(view.arg_count, 1U);
    EXPECT_EQ(view.args[0].signed_value, 7);
    EXPECT_EQ(view.args[0].data, nullptr);
}

TEST(MessageView, OddUnitsFollowTheDecoder)
{
    Message_view view;
    // A text record without its text (built from an array without a zero): an empty text.
    Logferry_write_utf8_string no_text = text("");
    no_text.text.fill('x');
    Bytes unit = records(start(2), no_text, plain<Logferry_write_int32>(9), finish());
    ASSERT_TRUE(view.read(unit.data(), unit.size()));
    ASSERT_EQ(view.arg_count, 2U);
    EXPECT_EQ(view.args[0].kind, Arg_kind::text);
    EXPECT_EQ(view.args[0].size, 0U);
    EXPECT_EQ(view.args[1].signed_value, 9);
    // A payload that is not carried: an empty raw argument.
    Logferry_write_raw_formatted big = raw({}, LogFormat::kHex);
    big.size = 1400;
    big.length = 10;
    unit = records(start(), big, finish());
    ASSERT_TRUE(view.read(unit.data(), unit.size()));
    ASSERT_EQ(view.arg_count, 1U);
    EXPECT_EQ(view.args[0].kind, Arg_kind::raw);
    EXPECT_EQ(view.args[0].size, 0U);
    // A wrong length field is only reported by the decoder: the text is read all the same.
    Logferry_write_utf8_string wrong = text("abc");
    wrong.length = 99;
    unit = records(start(), wrong, finish());
    ASSERT_TRUE(view.read(unit.data(), unit.size()));
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(view.args[0].data), view.args[0].size), "abc");
    // A repeated start: the first one decides.
    unit = records(start(3, 1), plain<Logferry_write_int32>(1), start(6, 2), finish());
    ASSERT_TRUE(view.read(unit.data(), unit.size()));
    EXPECT_EQ(view.level, 3);
    EXPECT_EQ(view.context_handle, 1U);
    EXPECT_EQ(view.arg_count, 1U);
    // No start at all.
    unit = records(plain<Logferry_write_int32>(5), finish());
    ASSERT_TRUE(view.read(unit.data(), unit.size()));
    EXPECT_FALSE(view.has_start);
    EXPECT_EQ(view.arg_count, 1U);
}

TEST(MessageView, UnitsThatAreNoMessageAreSaidSo)
{
    Message_view view;
    Bytes unit = records(start(), plain<Logferry_write_int32>(5));
    EXPECT_FALSE(view.read(unit.data(), unit.size()));
    EXPECT_FALSE(view.single);
    EXPECT_EQ(view.error.code, logferry_decoder::Error_code::missing_finish);
    unit = records(start(), finish(KEY + 1));
    EXPECT_FALSE(view.read(unit.data(), unit.size()));
    EXPECT_EQ(view.error.code, logferry_decoder::Error_code::stream_key_mismatch);
    unit = records(Logferry_unregister_app());
    EXPECT_FALSE(view.read(unit.data(), unit.size()));
    EXPECT_TRUE(view.single);
    EXPECT_FALSE(view.read(nullptr, 0));
    EXPECT_EQ(view.error.code, logferry_decoder::Error_code::empty_input);
}

// Whatever the bytes, the view and the decoder agree on what a unit is and on its arguments.
TEST(MessageView, AgreesWithTheDecoderOnMutatedUnits)
{
    const Bytes original = every_argument();
    std::mt19937 random(1234);
    Message_view view;
    for (int round = 0; round < 20000; ++round) {
        Bytes unit = original;
        const int changes = 1 + static_cast<int>(random() % 4);
        for (int i = 0; i < changes; ++i) {
            const std::size_t at = random() % unit.size();
            switch (random() % 3) {
            case 0:
                unit[at] = static_cast<unsigned char>(random());
                break;
            case 1:
                unit.resize(at + 1);
                break;
            default:
                unit.erase(unit.begin() + static_cast<long>(at));
                break;
            }
            if (unit.empty()) {
                unit.push_back(0);
            }
        }
        const auto decoded = logferry_decoder::decode_ring_unit(unit);
        const bool message = decoded.shape == logferry_decoder::Unit_shape::log_message;
        ASSERT_EQ(view.read(unit.data(), unit.size()), message) << round;
        if (!message) {
            continue;
        }
        std::size_t arguments = 0;
        for (const auto& record : decoded.records) {
            if (!logferry_decoder::is_argument_kind(record.kind)) {
                continue;
            }
            ASSERT_LT(arguments, view.arg_count) << round;
            const logferry_daemon::Argument& arg = view.args[arguments++];
            if (record.kind == KIND_WRITE_UTF8_STRING) {
                EXPECT_EQ(std::string(reinterpret_cast<const char*>(arg.data), arg.size), record.text) << round;
            } else if (record.kind >= KIND_WRITE_RAW_FORMATTED) {
                EXPECT_EQ(Bytes(arg.data, arg.data + arg.size), record.payload) << round;
            } else if (record.kind >= KIND_WRITE_UINT8_FORMATTED && record.kind <= KIND_WRITE_UINT64_FORMATTED) {
                EXPECT_EQ(arg.unsigned_value, record.unsigned_value) << round;
                EXPECT_EQ(arg.format, record.format) << round;
            } else if (record.kind >= KIND_WRITE_INT8 && record.kind <= KIND_WRITE_INT64) {
                EXPECT_EQ(arg.signed_value, record.signed_value) << round;
            }
        }
        ASSERT_EQ(view.arg_count, arguments) << round;
        const auto* first = decoded.start();
        ASSERT_EQ(view.has_start, first != nullptr) << round;
        if (first != nullptr) {
            EXPECT_EQ(view.level, first->log_level);
            EXPECT_EQ(view.timestamp, first->timestamp);
            EXPECT_EQ(view.context_handle, first->context_handle);
        }
    }
}

}  // namespace
