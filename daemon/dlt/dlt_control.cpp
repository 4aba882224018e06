#include "dlt_control.hpp"

#include "dlt_bytes.hpp"
#include "dlt_layout.hpp"

#include <cstring>

namespace logferry_dlt {

namespace {

using namespace layout;

// The IDs under which the daemon side sends its control messages.
constexpr char CONTROL_APP[4] = {'L', 'F', 'M', 0};
constexpr char CONTROL_CONTEXT[4] = {'C', 'T', 'R', 'L'};

constexpr std::int8_t LEVEL_DEFAULT = -1;
constexpr std::int8_t LEVEL_MAX = 6;

// Standard header without session ID or timestamp beyond what we always write, extended
// header, then `payload`.
std::vector<unsigned char> control_message(const char ecu[4], std::uint8_t info,
                                           const std::vector<unsigned char>& payload)
{
    std::vector<unsigned char> out(HEADERS_SIZE + payload.size());
    out[STD_HTYP] = HTYP_WRITTEN;
    out[STD_MCNT] = 0;
    put_be(&out[STD_LEN], out.size(), 2);
    std::memcpy(&out[STD_ECU], ecu, ECU_SIZE);
    unsigned char* ext = &out[STD_FULL_SIZE];
    ext[EXT_MSIN] = msin(MSTP_CONTROL, info, false);
    ext[EXT_NOAR] = 0;
    std::memcpy(ext + EXT_APP, CONTROL_APP, ID_SIZE);
    std::memcpy(ext + EXT_CONTEXT, CONTROL_CONTEXT, ID_SIZE);
    if (!payload.empty()) {
        std::memcpy(&out[HEADERS_SIZE], payload.data(), payload.size());
    }
    return out;
}

void append_le(std::vector<unsigned char>& out, std::uint64_t value, std::size_t bytes)
{
    const std::size_t at = out.size();
    out.resize(at + bytes);
    put_le(&out[at], value, bytes);
}

void append_bytes(std::vector<unsigned char>& out, const void* data, std::size_t size)
{
    const auto* p = static_cast<const unsigned char*>(data);
    out.insert(out.end(), p, p + size);
}

void append_description(std::vector<unsigned char>& out, const std::string& text)
{
    const std::size_t size = text.size() > 0xFFFF ? 0xFFFF : text.size();
    append_le(out, size, LENGTH16_SIZE);
    append_bytes(out, text.data(), size);
}

// Bytes of the standard header, as its type byte announces its optional fields.
std::size_t standard_header_size(std::uint8_t htyp) noexcept
{
    return STD_FIXED_SIZE + ((htyp & HTYP_WEID) != 0 ? ECU_SIZE : 0) + ((htyp & HTYP_WSID) != 0 ? SESSION_SIZE : 0) +
           ((htyp & HTYP_WTMS) != 0 ? TIMESTAMP_SIZE : 0);
}

// Whether an extended header's message info announces a non-verbose control request.
bool is_control_request(std::uint8_t info) noexcept
{
    return (info & MSIN_VERB) == 0 && ((info & MSIN_MSTP_MASK) >> MSIN_MSTP_SHIFT) == MSTP_CONTROL &&
           (info >> MSIN_MTIN_SHIFT) == MTIN_CONTROL_REQUEST;
}

// The parameters of the services that have any we read. The trailing communication
// interface of the requests is optional here; a request too short for its parameters
// stays invalid.

void read_set_log_level(Control_request& request, const unsigned char* params, std::size_t size) noexcept
{
    if (size < 2 * ID_SIZE + 1) {
        return;
    }
    std::memcpy(request.app, params, ID_SIZE);
    std::memcpy(request.context, params + ID_SIZE, ID_SIZE);
    request.level = static_cast<std::int8_t>(params[2 * ID_SIZE]);
    request.valid = request.level >= LEVEL_DEFAULT && request.level <= LEVEL_MAX;
}

void read_set_default_log_level(Control_request& request, const unsigned char* params, std::size_t size) noexcept
{
    if (size < 1) {
        return;
    }
    request.level = static_cast<std::int8_t>(params[0]);
    request.valid = request.level >= 0 && request.level <= LEVEL_MAX;
}

void read_get_log_info(Control_request& request, const unsigned char* params, std::size_t size) noexcept
{
    if (size < 1 + 2 * ID_SIZE) {
        return;
    }
    request.options = params[0];
    std::memcpy(request.app, params + 1, ID_SIZE);
    std::memcpy(request.context, params + 1 + ID_SIZE, ID_SIZE);
    request.valid = true;
}

// The payload of a control request: the service ID, in the byte order the header's MSBF
// bit announces (`big`), and the service's parameters.
void read_request(Control_request& request, const unsigned char* payload, std::size_t size, bool big) noexcept
{
    if (size < SERVICE_ID_SIZE) {
        return;
    }
    request.is_request = true;
    request.service_id =
        static_cast<std::uint32_t>(big ? get_be(payload, SERVICE_ID_SIZE) : get_le(payload, SERVICE_ID_SIZE));
    const unsigned char* params = payload + SERVICE_ID_SIZE;
    const std::size_t params_size = size - SERVICE_ID_SIZE;
    switch (static_cast<Service>(request.service_id)) {
    case Service::set_log_level:
        read_set_log_level(request, params, params_size);
        return;
    case Service::set_default_log_level:
        read_set_default_log_level(request, params, params_size);
        return;
    case Service::get_log_info:
        read_get_log_info(request, params, params_size);
        return;
    default:
        // Services without parameters that we read; the caller answers what it supports.
        request.valid = true;
        return;
    }
}

}  // namespace

Control_request parse_control(const unsigned char* data, std::size_t size) noexcept
{
    Control_request request;
    if (data == nullptr || size < STD_FIXED_SIZE) {
        return request;  // need more
    }
    if (std::memcmp(data, SERIAL_PATTERN, sizeof SERIAL_PATTERN) == 0) {
        request.consumed = sizeof SERIAL_PATTERN;  // a serial header: the message follows
        return request;
    }
    const std::uint8_t htyp = data[STD_HTYP];
    const std::size_t length = get_be(data + STD_LEN, 2);
    const std::size_t header = standard_header_size(htyp);
    const bool extended = (htyp & HTYP_UEH) != 0;
    if ((htyp & HTYP_VERSION_MASK) != HTYP_VERSION_1 || length < header + (extended ? EXT_SIZE : 0)) {
        request.garbage = true;
        request.consumed = size;
        return request;
    }
    if (length > size) {
        return request;  // need more
    }
    request.consumed = length;
    if ((htyp & HTYP_WEID) != 0) {
        std::memcpy(request.ecu, data + STD_ECU, ECU_SIZE);
    }
    if (!extended || !is_control_request(data[header + EXT_MSIN])) {
        return request;  // no message type, or not a control request: nothing to do for it
    }
    const std::size_t payload_at = header + EXT_SIZE;
    read_request(request, data + payload_at, length - payload_at, (htyp & HTYP_MSBF) != 0);
    return request;
}

std::vector<unsigned char> control_response(const char ecu[4], std::uint32_t service_id, std::uint8_t status)
{
    std::vector<unsigned char> payload;
    append_le(payload, service_id, SERVICE_ID_SIZE);
    payload.push_back(status);
    return control_message(ecu, MTIN_CONTROL_RESPONSE, payload);
}

std::vector<unsigned char> get_log_info_response(const char ecu[4], const std::vector<App_info>& apps)
{
    std::vector<unsigned char> payload;
    append_le(payload, static_cast<std::uint32_t>(Service::get_log_info), SERVICE_ID_SIZE);
    payload.push_back(LOG_INFO_WITH_DESCRIPTIONS);
    const std::size_t app_count = apps.size() > 0xFFFF ? 0xFFFF : apps.size();
    append_le(payload, app_count, 2);
    for (std::size_t a = 0; a < app_count; ++a) {
        const App_info& app = apps[a];
        append_bytes(payload, app.id, ID_SIZE);
        const std::size_t context_count = app.contexts.size() > 0xFFFF ? 0xFFFF : app.contexts.size();
        append_le(payload, context_count, 2);
        for (std::size_t c = 0; c < context_count; ++c) {
            const Context_info& context = app.contexts[c];
            append_bytes(payload, context.id, ID_SIZE);
            payload.push_back(static_cast<unsigned char>(context.level));
            payload.push_back(static_cast<unsigned char>(TRACE_STATUS_OFF));
            append_description(payload, context.description);
        }
        append_description(payload, app.description);
    }
    append_bytes(payload, INTERFACE_REMOTE, sizeof INTERFACE_REMOTE);
    if (payload.size() < LOG_INFO_MIN_PAYLOAD) {
        payload.resize(LOG_INFO_MIN_PAYLOAD, 0);
    }
    return control_message(ecu, MTIN_CONTROL_RESPONSE, payload);
}

std::vector<unsigned char> default_log_level_response(const char ecu[4], std::int8_t level)
{
    std::vector<unsigned char> payload;
    append_le(payload, static_cast<std::uint32_t>(Service::get_default_log_level), SERVICE_ID_SIZE);
    payload.push_back(STATUS_OK);
    payload.push_back(static_cast<unsigned char>(level));
    return control_message(ecu, MTIN_CONTROL_RESPONSE, payload);
}

std::vector<unsigned char> software_version_response(const char ecu[4], const std::string& version)
{
    std::vector<unsigned char> payload;
    append_le(payload, static_cast<std::uint32_t>(Service::get_software_version), SERVICE_ID_SIZE);
    payload.push_back(STATUS_OK);
    append_le(payload, version.size(), 4);
    append_bytes(payload, version.data(), version.size());
    return control_message(ecu, MTIN_CONTROL_RESPONSE, payload);
}

std::vector<unsigned char> keep_alive_message(const char ecu[4]) { return control_message(ecu, MTIN_CONTROL_TIME, {}); }

}  // namespace logferry_dlt
