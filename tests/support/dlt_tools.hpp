// Helpers of the DLT tests: the DLT tools of the system (used as external clients only), and
// the walk over a DLT storage file or a stream of DLT messages.

#ifndef LOGFERRY_TEST_DLT_TOOLS_HPP
#define LOGFERRY_TEST_DLT_TOOLS_HPP

#include "dlt_message.hpp"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <unistd.h>

namespace logferry_test {

using Dlt_bytes = std::vector<unsigned char>;

// The full path of a program on PATH, or "" when it is not installed.
inline std::string find_program(const std::string& name)
{
    const char* path = std::getenv("PATH");
    std::string dirs = path != nullptr ? path : "/usr/bin:/bin";
    std::size_t start = 0;
    while (start <= dirs.size()) {
        const std::size_t end = dirs.find(':', start) == std::string::npos ? dirs.size() : dirs.find(':', start);
        const std::string candidate = dirs.substr(start, end - start) + "/" + name;
        if (::access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
        start = end + 1;
    }
    return "";
}

// Runs a shell command and returns its standard output (the standard error is discarded).
inline std::string run_command(const std::string& command)
{
    std::string out;
    FILE* pipe = ::popen((command + " 2>/dev/null").c_str(), "r");
    if (pipe == nullptr) {
        return out;
    }
    char chunk[4096];
    std::size_t n = 0;
    while ((n = std::fread(chunk, 1, sizeof chunk, pipe)) > 0) {
        out.append(chunk, n);
    }
    ::pclose(pipe);
    return out;
}

// Appends to `out` what `in` holds from where it stands to its end, in large pieces (a
// monitor's output can grow to many megabytes while a test watches it).
template <typename Out>
void read_rest(std::istream& in, Out& out)
{
    std::vector<char> chunk(1 << 16);
    while (in.read(chunk.data(), static_cast<std::streamsize>(chunk.size())) || in.gcount() > 0) {
        out.insert(out.end(), chunk.data(), chunk.data() + in.gcount());
    }
}

inline Dlt_bytes read_file_bytes(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    Dlt_bytes bytes;
    read_rest(in, bytes);
    return bytes;
}

// The length a DLT message's standard header gives itself (big-endian, bytes 2-3).
inline std::size_t dlt_length_at(const Dlt_bytes& bytes, std::size_t at)
{
    return at + 4 <= bytes.size() ? (static_cast<std::size_t>(bytes[at + 2]) << 8) | bytes[at + 3] : 0;
}

// Splits a stream of DLT messages; a trailing partial message, if any, is left out and
// `complete` says so.
inline std::vector<Dlt_bytes> split_dlt_stream(const Dlt_bytes& bytes, bool* complete = nullptr)
{
    std::vector<Dlt_bytes> messages;
    std::size_t at = 0;
    while (at < bytes.size()) {
        const std::size_t length = dlt_length_at(bytes, at);
        if (length < 4 || at + length > bytes.size()) {
            break;
        }
        messages.emplace_back(bytes.begin() + static_cast<std::ptrdiff_t>(at),
                              bytes.begin() + static_cast<std::ptrdiff_t>(at + length));
        at += length;
    }
    if (complete != nullptr) {
        *complete = at == bytes.size();
    }
    return messages;
}

// Splits a storage file into its messages (storage headers checked and removed); `complete`
// says whether the file ended exactly after a whole entry.
inline std::vector<Dlt_bytes> split_dlt_file(const Dlt_bytes& bytes, bool* complete = nullptr)
{
    std::vector<Dlt_bytes> messages;
    std::size_t at = 0;
    bool whole = true;
    while (at < bytes.size()) {
        if (at + 16 + 4 > bytes.size() || bytes[at] != 'D' || bytes[at + 1] != 'L' || bytes[at + 2] != 'T' ||
            bytes[at + 3] != 0x01) {
            whole = false;
            break;
        }
        const std::size_t length = dlt_length_at(bytes, at + 16);
        if (length < 4 || at + 16 + length > bytes.size()) {
            whole = false;
            break;
        }
        messages.emplace_back(bytes.begin() + static_cast<std::ptrdiff_t>(at + 16),
                              bytes.begin() + static_cast<std::ptrdiff_t>(at + 16 + length));
        at += 16 + length;
    }
    if (complete != nullptr) {
        *complete = whole;
    }
    return messages;
}

// dlt-convert's lines with the reception time ("2026/11/24 00:16:40.000005") replaced by
// "<time>".
inline std::string mask_dlt_times(const std::string& transcript)
{
    static const char pattern[] = "dddd/dd/dd dd:dd:dd.dddddd";  // d: a digit
    const std::size_t length = sizeof pattern - 1;
    auto matches = [&](std::size_t at) {
        for (std::size_t i = 0; i < length; ++i) {
            const char c = transcript[at + i];
            if (pattern[i] == 'd' ? (c < '0' || c > '9') : c != pattern[i]) {
                return false;
            }
        }
        return true;
    };
    std::string out;
    std::size_t at = 0;
    while (at < transcript.size()) {
        if (at + length <= transcript.size() && matches(at)) {
            out += "<time>";
            at += length;
        } else {
            out += transcript[at++];
        }
    }
    return out;
}

// A control request as a DLT client sends it: standard header with the ECU ID "ECU1" only
// (0x27: payload big-endian), extended header (control request, app "APP", context "CON"),
// then `payload`.
inline Dlt_bytes client_request(const Dlt_bytes& payload, unsigned char htyp = 0x25)
{
    const auto high = static_cast<unsigned char>((18 + payload.size()) >> 8);
    const auto low = static_cast<unsigned char>(18 + payload.size());
    // HTYP, counter, length, ECU ID | MSIN (control request), NOAR, app ID, context ID
    Dlt_bytes out = {htyp, 0x00, high, low, 'E', 'C', 'U', '1', 0x16, 0x00, 'A', 'P', 'P', 0, 'C', 'O', 'N', 0};
    for (const unsigned char byte : payload) {  // (insert() trips a false array-bounds warning of GCC 12)
        out.push_back(byte);
    }
    return out;
}

// Arguments of a DLT log message, built in one call.
inline logferry_dlt::Argument dlt_bool(bool value)
{
    logferry_dlt::Argument a;
    a.kind = logferry_dlt::Arg_kind::boolean;
    a.boolean = value;
    return a;
}

inline logferry_dlt::Argument dlt_signed(std::uint8_t bits, std::int64_t value)
{
    logferry_dlt::Argument a;
    a.kind = logferry_dlt::Arg_kind::signed_int;
    a.bits = bits;
    a.signed_value = value;
    return a;
}

inline logferry_dlt::Argument dlt_unsigned(std::uint8_t bits, std::uint8_t format, std::uint64_t value)
{
    logferry_dlt::Argument a;
    a.kind = logferry_dlt::Arg_kind::unsigned_int;
    a.bits = bits;
    a.format = format;
    a.unsigned_value = value;
    return a;
}

inline logferry_dlt::Argument dlt_float(logferry_dlt::Arg_kind kind, double value)
{
    logferry_dlt::Argument a;
    a.kind = kind;
    a.float_value = value;
    return a;
}

// Text (without its zero), raw data, an encoded payload or an encoded message.
inline logferry_dlt::Argument dlt_data(logferry_dlt::Arg_kind kind, const void* data, std::size_t size)
{
    logferry_dlt::Argument a;
    a.kind = kind;
    a.data = static_cast<const unsigned char*>(data);
    a.size = size;
    return a;
}

// Synthetic log messages that carry every argument type and format between them, encoded
// as the daemon side sends them (counter = index, timestamp = 1000 * (index + 1)).
inline std::vector<Dlt_bytes> sample_dlt_messages(const char* ecu = "ECU1")
{
    using logferry_dlt::Arg_kind;
    using logferry_dlt::Argument;
    static const unsigned char raw[] = {0x01, 0x02, 0xFF};
    static const unsigned char payload[] = {0xCA, 0xFE};
    static const unsigned char record[] = {0x10, 0x20, 0x30};
    static const char text[] = "hello world";
    const std::vector<std::vector<Argument>> arguments = {
        {dlt_bool(true), dlt_signed(8, -5), dlt_signed(16, -300), dlt_signed(32, 123456),
         dlt_signed(64, -1234567890123)},
        {dlt_unsigned(8, 1, 200), dlt_unsigned(16, 2, 0xBEEF), dlt_unsigned(32, 5, 0xDEADBEEF),
         dlt_unsigned(8, 4, 0xA5), dlt_unsigned(16, 4, 0x0102), dlt_unsigned(32, 4, 5), dlt_unsigned(64, 3, 8),
         dlt_unsigned(64, 6, 42)},
        {dlt_float(Arg_kind::float32, 1.5), dlt_float(Arg_kind::float64, -2.25),
         dlt_data(Arg_kind::text, text, std::strlen(text)), dlt_data(Arg_kind::raw, raw, sizeof raw)},
        {dlt_data(Arg_kind::encoded_payload, payload, sizeof payload),
         dlt_data(Arg_kind::encoded_message, record, sizeof record)},
        {dlt_signed(32, 42), dlt_data(Arg_kind::text, "hello world", 11), dlt_unsigned(32, 2, 0xC0FFEE)},
    };
    const char* const contexts[] = {"CTX1", "CTX2", "CTX1", "RAW", "CTX2"};
    const std::uint8_t levels[] = {4, 2, 6, 5, 1};
    std::vector<Dlt_bytes> out;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        logferry_dlt::Message m;
        std::memcpy(m.ecu, ecu, 4);
        std::memcpy(m.app, "APP1", 4);
        std::memcpy(m.context, contexts[i], std::strlen(contexts[i]));
        m.level = levels[i];
        m.timestamp = static_cast<std::uint32_t>(1000 * (i + 1));
        m.session_id = 4321;
        m.counter = static_cast<std::uint8_t>(i);
        m.args = arguments[i].data();
        m.arg_count = arguments[i].size();
        Dlt_bytes encoded(logferry_dlt::encoded_size(m));
        encoded.resize(logferry_dlt::encode_log_message(m, encoded.data(), encoded.size()));
        out.push_back(encoded);
    }
    return out;
}

}  // namespace logferry_test

#endif
