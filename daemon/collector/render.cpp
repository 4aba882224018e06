#include "render.hpp"

#include <algorithm>
#include <charconv>
#include <cstdio>

#include "logferry/message.hpp"
#include "wire/timestamp.hpp"
#include "wire/wire.hpp"

namespace logferry_monitor {
namespace {

bool is_control(unsigned char u) { return u < 0x20 || u == 0x7F; }

void append_hex_escape(std::string& out, unsigned char u)
{
    char escaped[8];
    std::snprintf(escaped, sizeof escaped, "\\x%02x", u);
    out += escaped;
}

const char* const level_names[] = {"off", "fatal", "error", "warn", "info", "debug", "verbose"};
static_assert(sizeof level_names / sizeof level_names[0] == logferry::wire::MAX_LOG_LEVEL + 1, "one name a level");

std::string to_base(std::uint64_t value, unsigned int base, bool upper)
{
    const char* digits = upper ? "0123456789ABCDEF" : "0123456789abcdef";
    char buffer[65];
    std::size_t n = 0;
    do {
        buffer[n++] = digits[value % base];
        value /= base;
    } while (value != 0);
    std::string text(buffer, n);
    std::reverse(text.begin(), text.end());
    return text;
}

std::string pad_right(const std::string& text, std::size_t width)
{
    return text.size() >= width ? text : text + std::string(width - text.size(), ' ');
}

std::string pad_left(const std::string& text, std::size_t width)
{
    return text.size() >= width ? text : std::string(width - text.size(), ' ') + text;
}

template <typename T>
std::string shortest(T value)
{
    char buffer[64];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    return std::string(buffer, result.ptr);
}

std::string render_unsigned(const logferry_decoder::Record& record)
{
    const std::uint64_t value = record.unsigned_value;
    switch (static_cast<logferry::LogFormat>(record.format)) {
    case logferry::LogFormat::kHex:
        return "0x" + to_base(value, 16, false);
    case logferry::LogFormat::kOct:
        return value == 0 ? "0" : "0" + to_base(value, 8, false);
    case logferry::LogFormat::kBin:
        return "0b" + to_base(value, 2, false);
    case logferry::LogFormat::kHexUpper:
        return "0x" + to_base(value, 16, true);
    case logferry::LogFormat::kRaw: {
        std::vector<std::uint8_t> bytes;
        for (unsigned int i = 0; i < record.value_bits / 8; ++i) {
            bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
        }
        return "[" + hex_bytes(bytes) + "]";
    }
    default:
        return std::to_string(value);
    }
}

std::string render_raw(const logferry_decoder::Record& record)
{
    if (record.is(logferry_decoder::payload_omitted)) {
        return "[" + std::to_string(record.payload_size) + " bytes not carried]";
    }
    unsigned int base = 16;
    bool upper = false;
    std::size_t width = 2;
    switch (static_cast<logferry::LogFormat>(record.format)) {
    case logferry::LogFormat::kDec:
        base = 10;
        width = 0;
        break;
    case logferry::LogFormat::kOct:
        base = 8;
        width = 3;
        break;
    case logferry::LogFormat::kBin:
        base = 2;
        width = 8;
        break;
    case logferry::LogFormat::kHexUpper:
        upper = true;
        break;
    default:
        break;
    }
    std::string text = "[";
    for (std::size_t i = 0; i < record.payload.size(); ++i) {
        std::string digits = to_base(record.payload[i], base, upper);
        if (digits.size() < width) {
            digits.insert(0, width - digits.size(), '0');
        }
        text += (i == 0 ? "" : " ") + digits;
    }
    return text + "]";
}

}  // namespace

std::string level_name(std::uint8_t level)
{
    return level <= logferry::wire::MAX_LOG_LEVEL ? level_names[level] : "level" + std::to_string(level);
}

bool parse_level(const std::string& text, std::uint8_t& level)
{
    for (std::uint8_t i = 0; i <= logferry::wire::MAX_LOG_LEVEL; ++i) {
        if (text == level_names[i] || text == std::to_string(i)) {
            level = i;
            return true;
        }
    }
    return false;
}

std::string render_timestamp(std::uint32_t units)
{
    char buffer[32];
    constexpr std::uint32_t per_second = logferry::wire::STAMP_UNITS_PER_SECOND;
    std::snprintf(buffer, sizeof buffer, "%u.%04u", units / per_second, units % per_second);
    return buffer;
}

std::string escape(const std::string& text)
{
    std::string out;
    out.reserve(text.size());
    for (const char c : text) {
        const auto u = static_cast<unsigned char>(c);
        if (is_control(u) || c == '\\') {
            append_hex_escape(out, u);
        } else {
            out += c;
        }
    }
    return out;
}

std::string quote(const std::string& text)
{
    std::string out = "\"";
    for (const char c : text) {
        const unsigned char u = static_cast<unsigned char>(c);
        switch (c) {
        case '"':
            out += "\\\"";
            break;
        case '\\':
            out += "\\\\";
            break;
        case '\n':
            out += "\\n";
            break;
        case '\r':
            out += "\\r";
            break;
        case '\t':
            out += "\\t";
            break;
        default:
            if (is_control(u)) {
                append_hex_escape(out, u);
            } else {
                out += c;
            }
        }
    }
    return out + "\"";
}

std::string hex_bytes(const std::vector<std::uint8_t>& bytes)
{
    std::string out;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        char digits[4];
        std::snprintf(digits, sizeof digits, "%02x", bytes[i]);
        out += (i == 0 ? "" : " ") + std::string(digits);
    }
    return out;
}

std::string render_argument(const logferry_decoder::Record& record)
{
    using namespace logferry;
    switch (record.kind) {
    case KIND_WRITE_BOOL:
        return record.bool_value ? "true" : "false";
    case KIND_WRITE_INT8:
    case KIND_WRITE_INT16:
    case KIND_WRITE_INT32:
    case KIND_WRITE_INT64:
        return std::to_string(record.signed_value);
    case KIND_WRITE_UINT8_FORMATTED:
    case KIND_WRITE_UINT16_FORMATTED:
    case KIND_WRITE_UINT32_FORMATTED:
    case KIND_WRITE_UINT64_FORMATTED:
        return render_unsigned(record);
    case KIND_WRITE_FLOAT32:
        return shortest(static_cast<float>(record.float_value));
    case KIND_WRITE_FLOAT64:
        return shortest(record.float_value);
    case KIND_WRITE_UTF8_STRING:
        return record.is(logferry_decoder::text_omitted) ? "(text omitted)" : quote(record.text);
    case KIND_WRITE_RAW_FORMATTED:
        return render_raw(record);
    case KIND_WRITE_ENCODED_PAYLOAD:
        if (record.is(logferry_decoder::payload_omitted)) {
            return "encoded[" + std::to_string(record.payload_size) + " bytes not carried]";
        }
        return "encoded[" + hex_bytes(record.payload) + "]";
    default:
        return std::string("<") + logferry_decoder::kind_name(record.kind) + ">";
    }
}

std::string render_log_line(const std::string& timestamp, const std::string& app_id, const std::string& context_id,
                            const std::string& level, const std::vector<std::string>& arguments)
{
    std::string line = pad_left(timestamp, 11) + " " + pad_right(app_id, 4) + " " + pad_right(context_id, 4) + " " +
                       pad_right(level, 7);
    for (const std::string& argument : arguments) {
        line += " " + argument;
    }
    while (!line.empty() && line.back() == ' ') {
        line.pop_back();
    }
    return line;
}

}  // namespace logferry_monitor
