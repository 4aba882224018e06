// The DLT byte layouts as the encoder and the control messages write and read them, pinned
// with hand-computed bytes.

#include "dlt_control.hpp"
#include "dlt_message.hpp"
#include "support/dlt_tools.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

using logferry_dlt::Arg_kind;
using logferry_dlt::Argument;
using logferry_dlt::Control_request;
using logferry_dlt::Message;
using logferry_test::client_request;
using logferry_test::dlt_bool;
using logferry_test::dlt_data;
using logferry_test::dlt_float;
using logferry_test::dlt_signed;
using logferry_test::dlt_unsigned;
using Bytes = std::vector<unsigned char>;

const char ECU[4] = {'E', 'C', 'U', '1'};

Message message_with(const Argument* args, std::size_t count)
{
    Message m;
    std::memcpy(m.ecu, "ECU1", 4);
    std::memcpy(m.app, "APP", 3);
    std::memcpy(m.context, "CTX1", 4);
    m.level = 4;
    m.timestamp = 0x00012345;
    m.session_id = 1111;  // 0x457
    m.counter = 7;
    m.args = args;
    m.arg_count = count;
    return m;
}

Bytes encode(const Message& m)
{
    Bytes out(70000);
    const std::size_t size = logferry_dlt::encode_log_message(m, out.data(), out.size());
    out.resize(size);
    return out;
}

// The 26 header bytes of message_with(...) carrying `noar` arguments in `length` bytes.
Bytes headers(std::size_t length, unsigned char noar)
{
    const auto high = static_cast<unsigned char>(length >> 8);
    const auto low = static_cast<unsigned char>(length);
    // HTYP, counter 7, length, ECU ID, session ID 0x457 and timestamp 0x12345 (big-endian) |
    // MSIN (verbose log info), NOAR, app ID, context ID
    return {0x3D, 0x07, high, low,  'E',  'C', 'U', '1', 0x00, 0x00, 0x04, 0x57, 0x00,
            0x01, 0x23, 0x45, 0x41, noar, 'A', 'P', 'P', 0,    'C',  'T',  'X',  '1'};
}

Bytes one_argument(const Argument& arg)
{
    const Bytes all = encode(message_with(&arg, 1));
    return all.size() < 26 ? Bytes{} : Bytes(all.begin() + 26, all.end());
}

TEST(DltEncoding, HeadersOfAMessageWithOneBooleanAreExact)
{
    const Argument arg = dlt_bool(true);
    const Bytes expected = {0x3D, 0x07, 0x00, 0x1F, 'E', 'C',  'U', '1', 0x00, 0x00, 0x04, 0x57, 0x00, 0x01, 0x23, 0x45,
                            0x41, 0x01, 'A',  'P',  'P', 0x00, 'C', 'T', 'X',  '1',  0x11, 0x00, 0x00, 0x00, 0x01};
    EXPECT_EQ(encode(message_with(&arg, 1)), expected);
}

TEST(DltEncoding, LevelsGoIntoTheMessageInfoAndIdsArePaddedWithZeros)
{
    for (std::uint8_t level = 1; level <= 6; ++level) {
        Message m = message_with(nullptr, 0);
        m.level = level;
        std::memset(m.app, 0, 4);
        m.app[0] = 'X';
        const Bytes out = encode(m);
        ASSERT_EQ(out.size(), 26u);
        EXPECT_EQ(out[16], static_cast<unsigned char>(0x01 | (level << 4)));
        EXPECT_EQ(out[17], 0x00);
        EXPECT_EQ(Bytes(out.begin() + 18, out.begin() + 22), (Bytes{'X', 0, 0, 0}));
        EXPECT_EQ(out[3], 26);
    }
}

TEST(DltEncoding, EveryArgumentTypeHasItsExactBytes)
{
    struct Case {
        const char* name;
        Argument arg;
        Bytes bytes;
    };
    const std::vector<Case> cases = {
        {"bool false", dlt_bool(false), {0x11, 0, 0, 0, 0x00}},
        {"int8", dlt_signed(8, -5), {0x21, 0, 0, 0, 0xFB}},
        {"int16", dlt_signed(16, -2), {0x22, 0, 0, 0, 0xFE, 0xFF}},
        {"int32", dlt_signed(32, 0x12345678), {0x23, 0, 0, 0, 0x78, 0x56, 0x34, 0x12}},
        {"int64", dlt_signed(64, -1), {0x24, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}},
        {"uint8 default", dlt_unsigned(8, 0, 200), {0x41, 0, 0, 0, 0xC8}},
        {"uint16 decimal", dlt_unsigned(16, 1, 0x1234), {0x42, 0, 0, 0, 0x34, 0x12}},
        {"uint16 hex", dlt_unsigned(16, 2, 0xBEEF), {0x42, 0x00, 0x01, 0x00, 0xEF, 0xBE}},
        {"uint32 hex upper", dlt_unsigned(32, 5, 0xDEADBEEF), {0x43, 0x00, 0x01, 0x00, 0xEF, 0xBE, 0xAD, 0xDE}},
        {"uint8 binary", dlt_unsigned(8, 4, 0xA5), {0x41, 0x80, 0x01, 0x00, 0xA5}},
        {"uint16 binary", dlt_unsigned(16, 4, 0x0102), {0x42, 0x80, 0x01, 0x00, 0x02, 0x01}},
        {"uint32 binary is hex", dlt_unsigned(32, 4, 5), {0x43, 0x00, 0x01, 0x00, 0x05, 0, 0, 0}},
        {"uint64 binary is hex", dlt_unsigned(64, 4, 5), {0x44, 0x00, 0x01, 0x00, 0x05, 0, 0, 0, 0, 0, 0, 0}},
        {"uint32 octal is decimal", dlt_unsigned(32, 3, 8), {0x43, 0, 0, 0, 0x08, 0, 0, 0}},
        {"uint64 raw is decimal",
         dlt_unsigned(64, 6, 0x0102030405060708),
         {0x44, 0, 0, 0, 0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01}},
        {"float32", dlt_float(Arg_kind::float32, 1.5), {0x83, 0, 0, 0, 0x00, 0x00, 0xC0, 0x3F}},
        {"float64", dlt_float(Arg_kind::float64, -2.25), {0x84, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x02, 0xC0}},
        {"text", dlt_data(Arg_kind::text, "hi", 2), {0x00, 0x82, 0x00, 0x00, 0x03, 0x00, 'h', 'i', 0x00}},
        {"empty text", dlt_data(Arg_kind::text, nullptr, 0), {0x00, 0x82, 0x00, 0x00, 0x01, 0x00, 0x00}},
        {"raw", dlt_data(Arg_kind::raw, "\x01\x02\x03", 3), {0x00, 0x04, 0, 0, 0x03, 0x00, 0x01, 0x02, 0x03}},
        {"encoded payload", dlt_data(Arg_kind::encoded_payload, "\xAB", 1), {0x00, 0x04, 0, 0, 0x01, 0x00, 0xAB}},
        {"encoded message",
         dlt_data(Arg_kind::encoded_message, "\x10\x20", 2),
         {0x00, 0x04, 0, 0, 0x02, 0x00, 0x10, 0x20}},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(one_argument(c.arg), c.bytes) << c.name;
        const Bytes all = encode(message_with(&c.arg, 1));
        ASSERT_GE(all.size(), 26u) << c.name;
        EXPECT_EQ(Bytes(all.begin(), all.begin() + 26), headers(26 + c.bytes.size(), 1)) << c.name;
    }
}

TEST(DltEncoding, ArgumentsFollowEachOtherInOrder)
{
    const Argument args[] = {dlt_signed(32, 1), dlt_data(Arg_kind::text, "ab", 2), dlt_unsigned(8, 2, 0x7F)};
    const Bytes expected_payload = {0x23, 0,    0,    0,   0x01, 0, 0,    0,    0x00, 0x82, 0,
                                    0,    0x03, 0x00, 'a', 'b',  0, 0x41, 0x00, 0x01, 0x00, 0x7F};
    Bytes expected = headers(26 + expected_payload.size(), 3);
    expected.insert(expected.end(), expected_payload.begin(), expected_payload.end());
    EXPECT_EQ(encode(message_with(args, 3)), expected);
}

TEST(DltEncoding, NeverWritesBeyondTheCapacity)
{
    const Argument args[] = {dlt_data(Arg_kind::text, "hello world", 11), dlt_signed(64, 3)};
    const Message m = message_with(args, 2);
    const std::size_t size = logferry_dlt::encoded_size(m);
    ASSERT_EQ(size, 26u + 4 + 2 + 12 + 4 + 8);
    Bytes out(size + 8, 0xEE);
    EXPECT_EQ(logferry_dlt::encode_log_message(m, out.data(), size - 1), 0u);
    EXPECT_EQ(out, Bytes(size + 8, 0xEE));
    EXPECT_EQ(logferry_dlt::encode_log_message(m, out.data(), size), size);
    EXPECT_EQ(Bytes(out.begin() + size, out.end()), Bytes(8, 0xEE));
}

TEST(DltEncoding, RefusesWhatTheProtocolCannotCarry)
{
    const Argument bad_width = dlt_signed(24, 1);
    EXPECT_EQ(encode(message_with(&bad_width, 1)), Bytes{});
    const std::string big(70000, 'x');
    const Argument too_long = dlt_data(Arg_kind::text, big.data(), big.size());
    EXPECT_EQ(encode(message_with(&too_long, 1)), Bytes{});
    // Two texts that fit alone but not together in the 16-bit length.
    const Argument half = dlt_data(Arg_kind::text, big.data(), 40000);
    const Argument two[] = {half, half};
    EXPECT_EQ(encode(message_with(two, 2)), Bytes{});
    const Argument no_data = dlt_data(Arg_kind::raw, nullptr, 3);
    EXPECT_EQ(encode(message_with(&no_data, 1)), Bytes{});
    std::vector<Argument> many(256, dlt_signed(8, 0));
    EXPECT_EQ(encode(message_with(many.data(), many.size())), Bytes{});
    EXPECT_EQ(encode(message_with(many.data(), 255)).size(), 26u + 255 * 5);
}

TEST(DltEncoding, StorageHeaderIsExact)
{
    unsigned char out[16];
    logferry_dlt::put_storage_header(out, 0x01020304, 0x00050607, ECU);
    const Bytes expected = {'D', 'L', 'T', 0x01, 0x04, 0x03, 0x02, 0x01, 0x07, 0x06, 0x05, 0x00, 'E', 'C', 'U', '1'};
    EXPECT_EQ(Bytes(out, out + 16), expected);
    EXPECT_EQ(logferry_dlt::STORAGE_HEADER_SIZE, 16u);
}

// The control responses and the keep-alive.

Bytes control_headers(std::size_t length, unsigned char msin)
{
    const auto high = static_cast<unsigned char>(length >> 8);
    const auto low = static_cast<unsigned char>(length);
    // HTYP, counter, length, ECU ID, session ID, timestamp | MSIN, NOAR, app ID, context ID
    return {0x3D, 0x00, high, low,  'E',  'C', 'U', '1', 0, 0,   0,   0,   0,
            0,    0,    0,    msin, 0x00, 'L', 'F', 'M', 0, 'C', 'T', 'R', 'L'};
}

Bytes with(Bytes head, const Bytes& payload)
{
    head.insert(head.end(), payload.begin(), payload.end());
    return head;
}

TEST(DltControl, ResponsesAndKeepAliveAreExact)
{
    EXPECT_EQ(logferry_dlt::keep_alive_message(ECU), control_headers(26, 0x36));
    EXPECT_EQ(logferry_dlt::control_response(ECU, 0x01, 0), with(control_headers(31, 0x26), {0x01, 0, 0, 0, 0x00}));
    EXPECT_EQ(logferry_dlt::control_response(ECU, 0x0F02, 1),
              with(control_headers(31, 0x26), {0x02, 0x0F, 0, 0, 0x01}));
    EXPECT_EQ(logferry_dlt::software_version_response(ECU, "v1"),
              with(control_headers(37, 0x26), {0x13, 0, 0, 0, 0x00, 0x02, 0, 0, 0, 'v', '1'}));
    EXPECT_EQ(logferry_dlt::default_log_level_response(ECU, 4),
              with(control_headers(32, 0x26), {0x04, 0, 0, 0, 0x00, 0x04}));
}

TEST(DltControl, LogInfoResponseListsApplicationsContextsLevelsAndDescriptions)
{
    logferry_dlt::App_info app{{'A', 'P', 'P', '1'}, "ab", {}};
    app.contexts.push_back(logferry_dlt::Context_info{{'C', 'T', 'X', '1'}, 4, "c"});
    app.contexts.push_back(logferry_dlt::Context_info{{'C', 'T', 'X', '2'}, 6, ""});
    const Bytes payload = {0x03, 0,    0,   0,   0x07,                         // service, status: with descriptions
                           0x01, 0x00,                                         // one application
                           'A',  'P',  'P', '1', 0x02, 0x00,                   // its ID, two contexts
                           'C',  'T',  'X', '1', 0x04, 0x00, 0x01, 0x00, 'c',  // level, trace status, description
                           'C',  'T',  'X', '2', 0x06, 0x00, 0x00, 0x00,       //
                           0x02, 0x00, 'a', 'b',                               // application description
                           'r',  'e',  'm', 'o'};
    EXPECT_EQ(logferry_dlt::get_log_info_response(ECU, {app}),
              with(control_headers(26 + payload.size(), 0x26), payload));
}

// Answers shorter than 32 bytes of payload are padded with zeros after the interface, and no
// application is status 7 with a count of 0: the form a DLT gateway (Debian's dlt-daemon in its
// multi-node mode) accepts; it refuses status 8 and shorter answers.
TEST(DltControl, LogInfoResponseIsPaddedToTheSizeAGatewayAccepts)
{
    const Bytes none = {0x03, 0, 0, 0, 0x07, 0x00, 0x00, 'r', 'e', 'm', 'o', 0, 0, 0, 0, 0,
                        0,    0, 0, 0, 0,    0,    0,    0,   0,   0,   0,   0, 0, 0, 0, 0};
    ASSERT_EQ(none.size(), 32u);
    EXPECT_EQ(logferry_dlt::get_log_info_response(ECU, {}), with(control_headers(58, 0x26), none));
    logferry_dlt::App_info app{{'A', 0, 0, 0}, "", {}};
    app.contexts.push_back(logferry_dlt::Context_info{{'C', 0, 0, 0}, 4, ""});
    const Bytes small = {0x03, 0,    0,   0,   0x07, 0x01, 0x00,                  // service, status, one application
                         'A',  0,    0,   0,   0x01, 0x00,                        // its ID, one context
                         'C',  0,    0,   0,   0x04, 0x00, 0x00, 0x00,            // level, trace status, no description
                         0x00, 0x00, 'r', 'e', 'm',  'o',  0,    0,    0, 0, 0};  // no description, interface, padding
    ASSERT_EQ(small.size(), 32u);
    EXPECT_EQ(logferry_dlt::get_log_info_response(ECU, {app}), with(control_headers(58, 0x26), small));
}

Control_request parse(const Bytes& bytes) { return logferry_dlt::parse_control(bytes.data(), bytes.size()); }

const Bytes SET_LEVEL = {0x01, 0, 0, 0, 'A', 'P', 'P', '1', 'C', 'T', 'X', '1', 0x05, 'r', 'e', 'm', 'o'};

TEST(DltControl, SetLogLevelIsParsed)
{
    const Bytes bytes = client_request(SET_LEVEL);
    ASSERT_EQ(bytes.size(), 35u);
    const Control_request r = parse(bytes);
    EXPECT_TRUE(r.valid);
    EXPECT_FALSE(r.garbage);
    EXPECT_EQ(r.consumed, 35u);
    EXPECT_EQ(r.service_id, 0x01u);
    EXPECT_EQ(std::string(r.ecu, 4), "ECU1");
    EXPECT_EQ(std::string(r.app, 4), "APP1");
    EXPECT_EQ(std::string(r.context, 4), "CTX1");
    EXPECT_EQ(r.level, 5);
}

TEST(DltControl, BigEndianPayloadsAreReadInTheirOrder)
{
    Bytes payload = SET_LEVEL;
    payload[0] = 0;
    payload[3] = 0x01;
    const Control_request r = parse(client_request(payload, 0x27));
    EXPECT_TRUE(r.valid);
    EXPECT_EQ(r.service_id, 0x01u);
    EXPECT_EQ(r.level, 5);
}

TEST(DltControl, OtherRequestsAreParsed)
{
    Control_request r =
        parse(client_request({0x03, 0, 0, 0, 0x07, 'A', 'P', 'P', '1', 0, 0, 0, 0, 'r', 'e', 'm', 'o'}));
    EXPECT_TRUE(r.valid);
    EXPECT_EQ(r.service_id, 0x03u);
    EXPECT_EQ(r.options, 7);
    EXPECT_EQ(std::string(r.app, 4), "APP1");
    r = parse(client_request({0x11, 0, 0, 0, 0x02, 'r', 'e', 'm', 'o'}));
    EXPECT_TRUE(r.valid);
    EXPECT_EQ(r.service_id, 0x11u);
    EXPECT_EQ(r.level, 2);
    r = parse(client_request({0x13, 0, 0, 0}));
    EXPECT_TRUE(r.valid);
    EXPECT_EQ(r.service_id, 0x13u);
    r = parse(client_request({0x22, 0x0F, 0, 0}));
    EXPECT_TRUE(r.valid);
    EXPECT_EQ(r.service_id, 0x0F22u);
}

TEST(DltControl, EveryTruncationAsksForMoreBytes)
{
    const Bytes bytes = client_request(SET_LEVEL);
    for (std::size_t size = 0; size < bytes.size(); ++size) {
        const Bytes part(bytes.begin(), bytes.begin() + size);
        const Control_request r = parse(part);
        EXPECT_FALSE(r.valid) << size;
        EXPECT_FALSE(r.garbage) << size;
        EXPECT_EQ(r.consumed, 0u) << size;
    }
}

TEST(DltControl, RequestsWithMissingOrBadParametersAreMarkedForAnErrorAnswer)
{
    for (std::size_t cut = 1; cut <= 5; ++cut) {
        const Bytes short_payload(SET_LEVEL.begin(), SET_LEVEL.end() - 4 - static_cast<std::ptrdiff_t>(cut));
        const Control_request r = parse(client_request(short_payload));
        EXPECT_FALSE(r.valid) << cut;
        EXPECT_TRUE(r.is_request) << cut;
        EXPECT_EQ(r.service_id, 0x01u) << cut;
        EXPECT_EQ(r.consumed, 18u + short_payload.size()) << cut;
    }
    Bytes bad_level = SET_LEVEL;
    bad_level[12] = 7;
    Control_request r = parse(client_request(bad_level));
    EXPECT_FALSE(r.valid);
    EXPECT_TRUE(r.is_request);
    r = parse(client_request({0x11, 0, 0, 0}));
    EXPECT_FALSE(r.valid);
    EXPECT_TRUE(r.is_request);
    r = parse(client_request({0x01, 0}));  // no whole service ID: nothing to answer
    EXPECT_FALSE(r.valid);
    EXPECT_FALSE(r.is_request);
    EXPECT_EQ(r.consumed, 20u);
}

TEST(DltControl, GarbageIsRecognisedAndWholeMessagesThatAreNoRequestsAreSkipped)
{
    const Bytes text = {'h', 'e', 'l', 'l', 'o', '\n'};
    Control_request r = parse(text);
    EXPECT_TRUE(r.garbage);
    EXPECT_EQ(r.consumed, text.size());
    r = parse({0x25, 0x00, 0x00, 0x05, 'E', 'C', 'U'});  // shorter than its own headers
    EXPECT_TRUE(r.garbage);
    EXPECT_EQ(r.consumed, 7u);

    const Argument arg = dlt_signed(8, 1);
    const Bytes log = encode(message_with(&arg, 1));
    r = parse(log);
    EXPECT_FALSE(r.valid);
    EXPECT_FALSE(r.garbage);
    EXPECT_FALSE(r.is_request);
    EXPECT_EQ(r.consumed, log.size());

    const Bytes response = logferry_dlt::control_response(ECU, 1, 0);
    r = parse(response);
    EXPECT_FALSE(r.valid);
    EXPECT_FALSE(r.is_request);
    EXPECT_EQ(r.consumed, response.size());
}

TEST(DltControl, TwoRequestsBackToBackAreTakenOneAtATime)
{
    Bytes two = client_request(SET_LEVEL);
    const Bytes second = client_request({0x13, 0, 0, 0});
    two.insert(two.end(), second.begin(), second.end());
    Control_request r = parse(two);
    ASSERT_EQ(r.consumed, 35u);
    EXPECT_EQ(r.service_id, 0x01u);
    r = logferry_dlt::parse_control(two.data() + 35, two.size() - 35);
    EXPECT_EQ(r.consumed, second.size());
    EXPECT_EQ(r.service_id, 0x13u);
}

TEST(DltControl, ASerialHeaderBeforeARequestIsSkipped)
{
    Bytes bytes = {'D', 'L', 'S', 0x01};
    const Bytes set = client_request(SET_LEVEL);
    bytes.insert(bytes.end(), set.begin(), set.end());
    Control_request r = parse(bytes);
    EXPECT_FALSE(r.valid);
    EXPECT_FALSE(r.garbage);
    EXPECT_FALSE(r.is_request);
    ASSERT_EQ(r.consumed, 4u);
    r = logferry_dlt::parse_control(bytes.data() + 4, bytes.size() - 4);
    EXPECT_TRUE(r.valid);
    EXPECT_EQ(r.level, 5);
}

}  // namespace
