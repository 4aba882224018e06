#ifndef LOGFERRY_WIRE_LIVENESS_HPP
#define LOGFERRY_WIRE_LIVENESS_HPP

// How each end of a channel tells whether the other is still there, and how long an
// announcement in the listener list waits for the daemon. The application's receiver thread
// and channel, the listener list and the daemon's collector all take their periods and limits
// from here.
//
// Each end stamps its watchdog in the channel segment (client_watchdog, server_watchdog) with
// the monotonic clock's whole seconds, and clears it when it goes.
// - The application's receiver thread ticks every RECEIVER_TICK_MS. While the daemon is
//   attached it stamps and judges once every CONNECTION_RECHECK_MS; while not, it looks at its
//   announcement every tick and pauses RECONNECT_PAUSE_SECONDS after a failed attempt.
// - The daemon stamps every attached channel once per DAEMON_STAMP_PERIOD_MS and detaches an
//   application whose stamp is more than WATCHDOG_LIMIT_SECONDS behind its clock.
// - The application takes the daemon for attached while the two stamps are at most
//   WATCHDOG_LIMIT_SECONDS apart (further apart than MEANINGLESS_STAMP_DIFFERENCE, its last
//   verdict stands). When both stamps are more than STALE_AFTER_SECONDS behind its clock, it
//   was itself stopped rather than its peer gone, and it restarts both.
// - An announcement not taken up within ANNOUNCEMENT_LIMIT_SECONDS is given up at either end:
//   the daemon's proxy watchdog empties the entry, the application withdraws it after as many
//   receiver-thread ticks.

#include <cstdint>

namespace logferry::wire {

constexpr unsigned int RECEIVER_TICK_MS = 50;
constexpr unsigned int CONNECTION_RECHECK_MS = 1000;
constexpr unsigned int RECONNECT_PAUSE_SECONDS = 1;
constexpr unsigned int DAEMON_STAMP_PERIOD_MS = 200;

constexpr std::int64_t STALE_AFTER_SECONDS = 2;
constexpr std::int64_t WATCHDOG_LIMIT_SECONDS = 5;
constexpr std::int64_t MEANINGLESS_STAMP_DIFFERENCE = 0x3FFFFFFE;

constexpr std::int64_t ANNOUNCEMENT_LIMIT_SECONDS = 5;
constexpr std::uint8_t ANNOUNCEMENT_LIMIT_TICKS =
    static_cast<std::uint8_t>(ANNOUNCEMENT_LIMIT_SECONDS * 1000 / RECEIVER_TICK_MS);

static_assert(CONNECTION_RECHECK_MS % RECEIVER_TICK_MS == 0, "the application judges on a tick");
static_assert(CONNECTION_RECHECK_MS < STALE_AFTER_SECONDS * 1000 && DAEMON_STAMP_PERIOD_MS < STALE_AFTER_SECONDS * 1000,
              "a live end stamps well within the stale limit");
static_assert(STALE_AFTER_SECONDS < WATCHDOG_LIMIT_SECONDS, "a stopped caller is noticed before its peer is judged");
static_assert(ANNOUNCEMENT_LIMIT_TICKS == ANNOUNCEMENT_LIMIT_SECONDS * 1000 / RECEIVER_TICK_MS,
              "the application counts its announcement's ticks in one byte");

}  // namespace logferry::wire

#endif  // LOGFERRY_WIRE_LIVENESS_HPP
