// Fuzz harness: the DLT control request parser (daemon/dlt) on arbitrary bytes as a client
// sends them, walked message by message as the TCP server does, and the log-info response
// built from IDs and descriptions taken from the input.
//
// Checked besides memory safety: `consumed` never exceeds the input; garbage takes the
// whole input; 0 means the input is shorter than its message's length field says (or than
// four bytes); a valid request has a service ID, its set-log-level level lies in -1..6; a
// request parsed again from exactly its consumed bytes gives the same answer; the response
// built from the input says its own size in its length field and parses as a complete
// message that is no request.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "dlt_control.hpp"
#include "harness_support.hpp"

namespace {

const char* const HARNESS = "fuzz_dlt_control";

void expect(bool condition, const std::string& what)
{
    if (!condition) {
        logferry_fuzz::violation(HARNESS, what);
    }
}

bool same(const logferry_dlt::Control_request& a, const logferry_dlt::Control_request& b)
{
    return a.valid == b.valid && a.service_id == b.service_id && a.level == b.level && a.options == b.options &&
           a.garbage == b.garbage && a.is_request == b.is_request && a.consumed == b.consumed &&
           std::memcmp(a.app, b.app, 4) == 0 && std::memcmp(a.context, b.context, 4) == 0 &&
           std::memcmp(a.ecu, b.ecu, 4) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    std::size_t at = 0;
    while (at < size) {
        const std::size_t left = size - at;
        const logferry_dlt::Control_request r = logferry_dlt::parse_control(data + at, left);
        expect(r.consumed <= left, "consumed " + std::to_string(r.consumed) + " of " + std::to_string(left));
        if (r.consumed == 0) {
            const std::size_t length = left >= 4 ? (static_cast<std::size_t>(data[at + 2]) << 8 | data[at + 3]) : 0;
            expect(left < 4 || length > left, "asked for more bytes with a whole message present");
            expect(!r.valid && !r.garbage, "an incomplete message is valid or garbage");
            break;
        }
        if (r.garbage) {
            expect(r.consumed == left && !r.valid, "garbage that is not the whole rest");
            break;
        }
        if (r.valid) {
            expect(r.is_request, "a valid request without its service ID");
            if (r.service_id == static_cast<std::uint32_t>(logferry_dlt::Service::set_log_level)) {
                expect(r.level >= -1 && r.level <= 6, "level " + std::to_string(r.level));
            }
        }
        const logferry_dlt::Control_request again = logferry_dlt::parse_control(data + at, r.consumed);
        expect(same(r, again), "the message alone parses differently");
        at += r.consumed;
    }

    // A log-info response from input-made applications.
    logferry_fuzz::Reader in(data, size);
    std::vector<logferry_dlt::App_info> apps(in.u8() % 4);
    for (logferry_dlt::App_info& app : apps) {
        const std::string id = in.bytes(4) + std::string(4, '\0');
        std::memcpy(app.id, id.data(), 4);
        app.description = in.bytes(in.u8());
        app.contexts.resize(in.u8() % 4);
        for (logferry_dlt::Context_info& context : app.contexts) {
            const std::string cid = in.bytes(4) + std::string(4, '\0');
            std::memcpy(context.id, cid.data(), 4);
            context.level = static_cast<std::int8_t>(in.u8());
            context.description = in.bytes(in.u8());
        }
    }
    const char ecu[4] = {'E', 'C', 'U', '1'};
    const std::vector<unsigned char> response = logferry_dlt::get_log_info_response(ecu, apps);
    expect(response.size() >= 4 && (static_cast<std::size_t>(response[2]) << 8 | response[3]) == response.size(),
           "response length field");
    const logferry_dlt::Control_request parsed = logferry_dlt::parse_control(response.data(), response.size());
    expect(parsed.consumed == response.size() && !parsed.valid && !parsed.garbage && !parsed.is_request,
           "the response does not parse as a complete non-request message");
    return 0;
}
