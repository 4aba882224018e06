// Fuzz harness: the DLT log message encoder (daemon/dlt) on messages built from the input.
//
// Input: capacity (u16, the output buffer's size), level, counter, timestamp (u32), session
// ID (u32), the three IDs (4 bytes each), the argument count (u8, at most 40 used), then per
// argument: kind (u8 modulo 9), width selector (u8: 0-3 for 8-64 bits, anything else taken
// as the width itself), format (u8), boolean (u8), a 64-bit value, a float64 bit pattern, a
// data size (u16) and how many of its first bytes come from the input (u8; zeros after them).
//
// Checked besides memory safety: the encoder never writes beyond the capacity (a canary
// after it stays intact), returns 0 or exactly encoded_size(), and what it writes walks as
// a DLT message: standard header 0x3D with the length it returned, the IDs, the counter,
// the big-endian session ID and timestamp, verbose log message info with the level, the
// argument count, and arguments whose type infos and lengths end exactly at the message's
// end, texts with their terminating zero.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "dlt_message.hpp"
#include "harness_support.hpp"

namespace {

const char* const HARNESS = "fuzz_dlt_encoder";
constexpr std::size_t CANARY = 32;
constexpr unsigned char CANARY_BYTE = 0xE7;

void expect(bool condition, const std::string& what)
{
    if (!condition) {
        logferry_fuzz::violation(HARNESS, what);
    }
}

std::uint64_t le(const unsigned char* p, std::size_t n)
{
    std::uint64_t v = 0;
    for (std::size_t i = 0; i < n; ++i) {
        v |= static_cast<std::uint64_t>(p[i]) << (8 * i);
    }
    return v;
}

std::uint64_t be(const unsigned char* p, std::size_t n)
{
    std::uint64_t v = 0;
    for (std::size_t i = 0; i < n; ++i) {
        v = (v << 8) | p[i];
    }
    return v;
}

// Walks the arguments of an encoded message; returns where they end.
std::size_t walk(const unsigned char* out, std::size_t size, const std::vector<logferry_dlt::Argument>& args)
{
    std::size_t at = 26;
    for (std::size_t i = 0; i < args.size(); ++i) {
        expect(at + 4 <= size, "argument " + std::to_string(i) + " has no room for its type info");
        const std::uint32_t info = static_cast<std::uint32_t>(le(out + at, 4));
        at += 4;
        const std::uint32_t tyle = info & 0x0F;
        const std::size_t width = tyle >= 1 && tyle <= 4 ? (std::size_t{1} << (tyle - 1)) : 0;
        if ((info & 0x10) != 0) {
            expect(at + 1 <= size && out[at] <= 1, "boolean byte");
            at += 1;
        } else if ((info & (0x20 | 0x40 | 0x80)) != 0) {
            expect(width != 0, "number without a width");
            at += width;
        } else if ((info & (0x200 | 0x400)) != 0) {
            expect(at + 2 <= size, "no room for a length");
            const std::size_t length = static_cast<std::size_t>(le(out + at, 2));
            at += 2;
            expect(at + length <= size, "data beyond the message");
            expect(length == args[i].size + ((info & 0x200) != 0 ? 1 : 0), "length differs from the argument");
            if ((info & 0x200) != 0) {
                expect(length >= 1 && out[at + length - 1] == 0, "text without its zero");
            }
            at += length;
        } else {
            expect(false, "unknown type info " + std::to_string(info));
        }
        expect(at <= size, "argument " + std::to_string(i) + " ends beyond the message");
    }
    return at;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    logferry_fuzz::Reader in(data, size);
    const std::size_t capacity = in.u16();
    logferry_dlt::Message m;
    m.level = in.u8();
    m.counter = in.u8();
    m.timestamp = in.u32();
    m.session_id = in.u32();
    const std::string ids = in.bytes(12) + std::string(12, '\0');
    std::memcpy(m.ecu, ids.data(), 4);
    std::memcpy(m.app, ids.data() + 4, 4);
    std::memcpy(m.context, ids.data() + 8, 4);
    const std::size_t count = in.u8() % 41;
    std::vector<logferry_dlt::Argument> args(count);
    std::vector<std::string> buffers(count);
    for (std::size_t i = 0; i < count; ++i) {
        logferry_dlt::Argument& a = args[i];
        a.kind = static_cast<logferry_dlt::Arg_kind>(in.u8() % 9);
        const std::uint8_t width = in.u8();
        a.bits = width < 4 ? static_cast<std::uint8_t>(8u << width) : width;
        a.format = in.u8();
        a.boolean = (in.u8() & 1) != 0;
        a.unsigned_value = in.u64();
        a.signed_value = static_cast<std::int64_t>(a.unsigned_value);
        const std::uint64_t float_bits = in.u64();
        std::memcpy(&a.float_value, &float_bits, sizeof float_bits);
        const std::size_t wanted = in.u16();
        const std::size_t given = in.u8();
        buffers[i] = in.bytes(given < wanted ? given : wanted);
        buffers[i].resize(wanted, '\0');
        a.data = reinterpret_cast<const unsigned char*>(buffers[i].data());
        a.size = wanted;
    }
    m.args = args.data();
    m.arg_count = args.size();

    const std::size_t expected = logferry_dlt::encoded_size(m);
    std::vector<unsigned char> out(capacity + CANARY, CANARY_BYTE);
    const std::size_t written = logferry_dlt::encode_log_message(m, out.data(), capacity);
    for (std::size_t i = capacity; i < out.size(); ++i) {
        expect(out[i] == CANARY_BYTE, "wrote beyond the capacity at " + std::to_string(i));
    }
    if (written == 0) {
        expect(expected == 0 || expected > capacity,
               "refused a message of " + std::to_string(expected) + " bytes with room for " + std::to_string(capacity));
        return 0;
    }
    expect(written == expected, "wrote " + std::to_string(written) + " bytes, expected " + std::to_string(expected));
    expect(written <= capacity && written <= 0xFFFF, "wrote more than allowed");
    expect(out[0] == 0x3D, "header type");
    expect(out[1] == m.counter, "counter");
    expect(be(&out[2], 2) == written, "length field");
    expect(std::memcmp(&out[4], m.ecu, 4) == 0, "ECU ID");
    expect(be(&out[8], 4) == m.session_id, "session ID");
    expect(be(&out[12], 4) == m.timestamp, "timestamp");
    expect(out[16] == static_cast<unsigned char>(0x01 | ((m.level & 0x0F) << 4)), "message info");
    expect(out[17] == count, "argument count");
    expect(std::memcmp(&out[18], m.app, 4) == 0 && std::memcmp(&out[22], m.context, 4) == 0, "IDs");
    expect(walk(out.data(), written, args) == written, "arguments do not end at the message's end");
    return 0;
}
