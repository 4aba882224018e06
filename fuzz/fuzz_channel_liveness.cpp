// Fuzz harness: the liveness verdict of a channel over watchdog stamps that the peer writes
// (any 64-bit value) and any clock reading.
//
// The segment is a real Channel_segment in private memory fenced by guard pages; an
// application end and a daemon end are pointed at it, and the clock is the harness's own.
// The input is a start value of the process-wide last verdict, then operations until the
// input ends (at most 200): set either stamp (any value, or one near the clock), set the
// clock (any value or a small step), make the clock fail or work, and call
// update_connection_active_timer or is_connection_active at either end.
//
// The harness computes the designed result in exact integer arithmetic and compares, after
// every operation, both stamps, the verdict, the process-wide last verdict and the
// diagnostic lines ("logferry: gettime failed" when the clock fails, nothing otherwise).
#include <errno.h>
#include <time.h>

#include <cstdint>
#include <string>

#include "harness_support.hpp"
#include "logferry/channel.hpp"
#include "logferry/system.hpp"
#include "wire/shared_fields.hpp"

namespace {

using logferry::Channel_segment;
using logferry_fuzz::Reader;
using Wide = __int128;

const char* const HARNESS = "fuzz_channel_liveness";

using Harness_system = logferry_fuzz::Clock_system;

struct Harness_state {
    logferry_fuzz::Guarded<Channel_segment> mapping;
    Harness_system system;
    logferry::Logferry_client application;
    logferry::Logferry_base daemon;
};

Harness_state& harness_state()
{
    static Harness_state* state = new Harness_state();
    return *state;
}

// now + step, wrapping instead of overflowing.
std::int64_t shifted(std::int64_t now, std::int64_t step)
{
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(now) + static_cast<std::uint64_t>(step));
}

std::int64_t stamp_value(Reader& in, std::int64_t now)
{
    const std::uint8_t form = in.u8();
    switch (form % 4) {
    case 0:
        return 0;
    case 1:
        return shifted(now, static_cast<std::int8_t>(in.u8()));
    case 2:
        return shifted(now, static_cast<std::int32_t>(in.u32()));
    default:
        return static_cast<std::int64_t>(in.u64());
    }
}

// The designed verdict and stamps.
struct Model {
    std::int64_t client_stamp = 0;
    std::int64_t server_stamp = 0;
    bool last_verdict = false;

    std::string update(bool client_side, const Harness_system& clock)
    {
        if (clock.clock_fails) {
            return "logferry: gettime failed\n";
        }
        const Wide t = clock.now;
        if (t <= 0) {
            return "";
        }
        if (t - client_stamp > 2 && t - server_stamp > 2 && client_stamp != 0 && server_stamp != 0) {
            client_stamp = clock.now;
            server_stamp = clock.now;
        } else if (client_side) {
            client_stamp = clock.now;
        } else {
            server_stamp = clock.now;
        }
        return "";
    }

    bool active(bool client_side, const Harness_system& clock, std::string& output)
    {
        output = update(client_side, clock);
        bool verdict = false;
        if (client_stamp != 0 && server_stamp != 0) {
            Wide apart = static_cast<Wide>(client_stamp) - server_stamp;
            if (apart < 0) {
                apart = -apart;
            }
            if (apart <= 5) {
                verdict = true;
            } else if (apart > 1073741822) {
                verdict = last_verdict;
            }
        }
        last_verdict = verdict;
        return verdict;
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Harness_state& state = harness_state();
    Channel_segment* segment = state.mapping.get();
    std::memset(segment, 0, sizeof(Channel_segment));
    for (logferry::Logferry_base* end : {static_cast<logferry::Logferry_base*>(&state.application), &state.daemon}) {
        end->segment = segment;
        end->initialized = true;
    }
    state.application.client_side = true;
    state.daemon.client_side = false;
    state.system.now = 100;
    state.system.clock_fails = false;

    Reader in(data, size);
    Model model;
    model.last_verdict = (in.u8() & 1) != 0;
    logferry::last_connection_state = model.last_verdict;

    logferry::System_lib* const previous = logferry::sys;
    logferry::sys = &state.system;
    for (int operation = 0; operation < logferry_fuzz::MAX_OPERATIONS && !in.empty(); ++operation) {
        const std::uint8_t code = in.u8();
        const bool by_daemon = (code & 0x80) != 0;
        logferry::Logferry_base& end = by_daemon ? static_cast<logferry::Logferry_base&>(state.daemon)
                                                 : static_cast<logferry::Logferry_base&>(state.application);
        std::string what;
        std::string expected_output;
        std::string output;
        switch ((code & 0x7F) % 6) {
        case 0:
            model.client_stamp = stamp_value(in, state.system.now);
            logferry::atomic_store_i64(&segment->client_watchdog, model.client_stamp);
            what = "client stamp set";
            break;
        case 1:
            model.server_stamp = stamp_value(in, state.system.now);
            logferry::atomic_store_i64(&segment->server_watchdog, model.server_stamp);
            what = "server stamp set";
            break;
        case 2: {
            const std::uint8_t form = in.u8();
            state.system.now = (form & 1) != 0 ? static_cast<std::int64_t>(in.u64())
                                               : shifted(state.system.now, static_cast<std::int8_t>(in.u8()));
            state.system.clock_fails = (form & 2) != 0;
            what = "clock set";
            break;
        }
        case 3: {
            what = "update_connection_active_timer";
            logferry_fuzz::Captured_cerr cerr;
            end.update_connection_active_timer();
            output = cerr.take();
            expected_output = model.update(!by_daemon, state.system);
            break;
        }
        default: {
            what = "is_connection_active";
            logferry_fuzz::Captured_cerr cerr;
            const bool verdict = end.is_connection_active();
            output = cerr.take();
            const bool expected = model.active(!by_daemon, state.system, expected_output);
            if (verdict != expected) {
                logferry::sys = previous;
                logferry_fuzz::violation(HARNESS, what + " said " + (verdict ? "active" : "inactive") + " for stamps " +
                                                      std::to_string(model.client_stamp) + " and " +
                                                      std::to_string(model.server_stamp));
            }
            break;
        }
        }
        const std::int64_t client_stamp = logferry::atomic_load_i64(&segment->client_watchdog);
        const std::int64_t server_stamp = logferry::atomic_load_i64(&segment->server_watchdog);
        if (output != expected_output || client_stamp != model.client_stamp || server_stamp != model.server_stamp ||
            logferry::last_connection_state.load() != model.last_verdict) {
            logferry::sys = previous;
            logferry_fuzz::violation(
                HARNESS, "after " + what + " at clock " + std::to_string(state.system.now) + ": stamps " +
                             std::to_string(client_stamp) + "/" + std::to_string(server_stamp) + ", expected " +
                             std::to_string(model.client_stamp) + "/" + std::to_string(model.server_stamp) +
                             "; output " + logferry_fuzz::quoted(output) + ", expected " +
                             logferry_fuzz::quoted(expected_output) + "; last verdict " +
                             std::to_string(logferry::last_connection_state.load()));
        }
    }
    logferry::sys = previous;
    return 0;
}
