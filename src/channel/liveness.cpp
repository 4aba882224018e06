// Liveness of a channel (the two watchdog stamps) and the report of discarded records.
//
// The stamps come from another process and may hold any 64-bit value; differences are taken
// in 128-bit arithmetic so that no pair of stamps can overflow the comparison.
#include <time.h>  // NOLINT(modernize-deprecated-headers): POSIX clock_gettime and CLOCK_MONOTONIC

#include <iostream>
#include <string>

#include "logferry/channel.hpp"
#include "logferry/system.hpp"
#include "wire/liveness.hpp"
#include "wire/shared_fields.hpp"

namespace logferry {

std::atomic<bool> last_connection_state(false);

namespace {

using Wide = __int128;

Wide difference(std::int64_t a, std::int64_t b) { return static_cast<Wide>(a) - static_cast<Wide>(b); }

}  // namespace

void Logferry_base::update_connection_active_timer()
{
    if (!initialized) {
        report_error("shared memory not initialized.");
        return;
    }
    const std::int64_t server_stamp = atomic_load_i64(&segment->server_watchdog);
    const std::int64_t client_stamp = atomic_load_i64(&segment->client_watchdog);

    timespec now{};
    if (sys->clock_gettime(CLOCK_MONOTONIC, &now) != 0) {
        report_error("gettime failed");
        return;
    }
    const auto seconds = static_cast<std::int64_t>(now.tv_sec);
    if (seconds <= 0) {
        return;
    }

    const bool both_stale = difference(seconds, client_stamp) > wire::STALE_AFTER_SECONDS &&
                            difference(seconds, server_stamp) > wire::STALE_AFTER_SECONDS && client_stamp != 0 &&
                            server_stamp != 0;
    if (both_stale) {
        // Both ends silent: more likely this caller itself has not run for a while (stopped,
        // suspended, starved) than that its peer died. Restart both clocks.
        atomic_store_i64(&segment->client_watchdog, seconds);
        atomic_store_i64(&segment->server_watchdog, seconds);
        return;
    }
    atomic_store_i64(client_side ? &segment->client_watchdog : &segment->server_watchdog, seconds);
}

bool Logferry_base::is_connection_active()
{
    if (!initialized) {
        report_error("shared memory not initialized.");
        return false;
    }
    update_connection_active_timer();
    const std::int64_t server_stamp = atomic_load_i64(&segment->server_watchdog);
    const std::int64_t client_stamp = atomic_load_i64(&segment->client_watchdog);

    bool verdict = false;
    if (client_stamp != 0 && server_stamp != 0) {
        Wide apart = difference(client_stamp, server_stamp);
        if (apart < 0) {
            apart = -apart;
        }
        // Connected while the stamps are close; too far apart to mean anything, the last
        // verdict stands.
        if (apart <= wire::WATCHDOG_LIMIT_SECONDS) {
            verdict = true;
        } else if (apart > wire::MEANINGLESS_STAMP_DIFFERENCE) {
            verdict = last_connection_state.load();
        }
    }
    last_connection_state.store(verdict);
    return verdict;
}

void Logferry_base::check_lost_messages()
{
    if (lost_messages.load() == 0) {
        return;
    }
    const std::uint64_t count = lost_messages.load();
    // Deliberately on the standard output stream, as one line.
    std::string line;
    line.reserve(app_identifier.size() + 64);
    line.append("logferry: Application ")
        .append(app_identifier)
        .append(" buffer full, ")
        .append(std::to_string(count))
        .append(" messages discarded.\n");
    std::cout << line << std::flush;
    // Discards counted since the read above are dropped from the report with this reset.
    lost_messages.exchange(0);
}

}  // namespace logferry
