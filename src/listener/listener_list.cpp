// The listener list: announcing, watching and withdrawing channel names, handing them to the
// daemon, and the two watchdogs that free entries nobody finishes.
//
// The segment is written by other processes, so nothing read from it is trusted to stay in
// bounds: an index above 31 is treated as pointing at nothing usable (sync_list rescans from 0,
// and any other use reads it as 0), and no name is ever read beyond its 32 bytes. Correct peers
// never produce such values; for every state they can produce the list behaves as designed.
#include <time.h>  // NOLINT(modernize-deprecated-headers): POSIX clock_gettime and CLOCK_MONOTONIC

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "logferry/listener.hpp"
#include "logferry/system.hpp"
#include "wire/liveness.hpp"
#include "wire/shared_fields.hpp"

namespace logferry {

namespace {

// One read of an index written by another process, as an entry number within the list.
// Out-of-range values become 0. The single atomic read keeps the compiler from reading the
// byte again after the check, should the list mutex have failed to lock.
std::uint8_t entry_index(const std::uint8_t* field)
{
    const std::uint8_t value = load_once(field);
    return value < LISTENER_ENTRY_COUNT ? value : 0;
}

bool in_range(std::uint8_t raw) { return raw < LISTENER_ENTRY_COUNT; }

// The entry after `index`, wrapping from 31 to 0.
std::uint8_t next_index(std::uint8_t index)
{
    return index + 1U < LISTENER_ENTRY_COUNT ? static_cast<std::uint8_t>(index + 1U) : std::uint8_t{0};
}

bool is_announced(const Listener_entry& entry) { return entry.channel_name[0] != 0 && entry.picked_up == 0; }

bool is_free(const Listener_entry& entry) { return entry.channel_name[0] == 0 && entry.picked_up == 0; }

void report_not_initialized() { report_error("shared memory not initialized."); }

// A channel name an entry can hold: an empty or over-long one is reported and refused.
bool acceptable_name(const std::string& name)
{
    if (name.empty()) {
        report_error("shared memory name empty.");
        return false;
    }
    if (name.size() > LISTENER_NAME_SIZE) {
        report_error("shared memory name too long.");
        return false;
    }
    return true;
}

}  // namespace

void Logferry_listener::sync_list()
{
    Listener_entry* const entries = segment->entries;

    // Read side: stay on an entry that is still waiting to be handed out, else the first one
    // that is, else 0.
    const std::uint8_t read = load_once(&segment->read_index);
    if (!in_range(read) || entries[read].channel_name[0] == 0 || entries[read].picked_up == 1) {
        std::uint8_t next_read = 0;
        for (std::uint8_t i = 0; i < LISTENER_ENTRY_COUNT; ++i) {
            if (is_announced(entries[i])) {
                next_read = i;
                break;
            }
        }
        segment->read_index = next_read;
    }

    // Write side: stay on an entry that can still be filled, else the first free one, else
    // the read index, so that a full list makes the next push find an occupied entry.
    const std::uint8_t write = load_once(&segment->write_index);
    if (!in_range(write) || entries[write].channel_name[0] != 0 || entries[write].picked_up == 1) {
        std::uint8_t next_write = entry_index(&segment->read_index);
        for (std::uint8_t i = 0; i < LISTENER_ENTRY_COUNT; ++i) {
            if (is_free(entries[i])) {
                next_write = i;
                break;
            }
        }
        segment->write_index = next_write;
    }
}

bool Logferry_listener::push(const std::string& name)
{
    if (!initialized) {
        report_not_initialized();
        return false;
    }
    if (!acceptable_name(name)) {
        return false;
    }
    Mutex_lock_guard lock(&segment->list_mutex.mutex, false);
    sync_list();
    const std::uint8_t write = entry_index(&segment->write_index);
    Listener_entry& entry = segment->entries[write];
    if (entry.channel_name[0] != 0) {
        return false;  // the list is full
    }
    // The rest of a free entry's name field is already zero.
    std::memcpy(entry.channel_name, name.data(), name.size());
    unacknowledged_checks = 0;
    entry.watchdog_reset = 1;
    entry.picked_up = 0;
    own_entry = write;
    segment->write_index = next_index(write);
    return true;
}

bool Logferry_listener::check_list(const std::string& name)
{
    if (!initialized) {
        return false;
    }
    // An own entry beyond the list cannot come from push; it is treated like none.
    if (own_entry < 0 || own_entry >= static_cast<std::int16_t>(LISTENER_ENTRY_COUNT)) {
        return false;
    }
    if (!acceptable_name(name)) {
        return false;
    }
    Mutex_lock_guard lock(&segment->list_mutex.mutex, false);
    const Listener_entry& entry = segment->entries[own_entry];
    const std::size_t length = name.size();
    if (std::memcmp(entry.channel_name, name.data(), length) != 0) {
        if (entry.channel_name[0] == 0) {
            return false;  // freed by the daemon's watchdog
        }
        report_error("list entry mismatch.");
        return false;
    }
    if (length < LISTENER_NAME_SIZE && entry.channel_name[length] != 0) {
        report_error("list entry mismatch.");  // the stored name is longer
        return false;
    }
    if (entry.picked_up != 0) {
        return true;  // the daemon has the name and is connecting
    }
    // The application's own watchdog: one check a receiver-thread tick.
    ++unacknowledged_checks;
    if (unacknowledged_checks < wire::ANNOUNCEMENT_LIMIT_TICKS) {
        return true;
    }
    pop_unsynced();
    report_error("client watchdog triggered.");
    return false;
}

bool Logferry_listener::pop()
{
    if (own_entry < 0) {
        return false;
    }
    if (!initialized) {
        report_not_initialized();
        return false;
    }
    Mutex_lock_guard lock(&segment->list_mutex.mutex, false);
    pop_unsynced();
    return true;
}

void Logferry_listener::pop_unsynced()
{
    // Empties the slot by index without looking at the name in it: an entry that a watchdog
    // freed and another application refilled meanwhile is erased too, and that application
    // announces again after its own check_list.
    if (own_entry >= 0 && own_entry < static_cast<std::int16_t>(LISTENER_ENTRY_COUNT)) {
        Listener_entry& entry = segment->entries[own_entry];
        std::memset(entry.channel_name, 0, LISTENER_NAME_SIZE);
        entry.picked_up = 0;
        entry.watchdog_reset = 1;
    }
    unacknowledged_checks = 0;
    own_entry = -1;
}

std::string Logferry_listener::get_next()
{
    if (!initialized) {
        report_not_initialized();
        return {};
    }
    Mutex_lock_guard lock(&segment->list_mutex.mutex, false);
    sync_list();
    const std::uint8_t read = entry_index(&segment->read_index);
    Listener_entry& entry = segment->entries[read];
    if (entry.channel_name[0] == 0 || entry.picked_up == 1) {
        return {};
    }
    // At most the 32 bytes of the field: a full-length name has no terminator.
    char name[LISTENER_NAME_SIZE];
    std::memcpy(name, entry.channel_name, LISTENER_NAME_SIZE);
    const void* end = std::memchr(name, 0, LISTENER_NAME_SIZE);
    const std::size_t length =
        end != nullptr ? static_cast<std::size_t>(static_cast<const char*>(end) - name) : LISTENER_NAME_SIZE;
    std::string result(name, length);
    entry.picked_up = 1;
    segment->read_index = next_index(read);
    return result;
}

bool Logferry_listener::has_new_entry()
{
    if (!initialized) {
        report_not_initialized();
        return false;
    }
    Mutex_lock_guard lock(&segment->list_mutex.mutex, false);
    return std::any_of(std::begin(segment->entries), std::end(segment->entries), is_announced);
}

bool Logferry_listener::is_empty()
{
    if (!initialized) {
        // Reported as not empty, as if the list held something.
        report_not_initialized();
        return false;
    }
    Mutex_lock_guard lock(&segment->list_mutex.mutex, false);
    return std::all_of(std::begin(segment->entries), std::end(segment->entries),
                       [](const Listener_entry& entry) { return entry.channel_name[0] == 0; });
}

void Logferry_listener::check_watchdogs()
{
    if (!listening) {
        return;
    }
    if (!proxy_watchdogs) {
        report_error("proxy watchdogs not allocated.");
        return;
    }
    if (!initialized) {
        report_not_initialized();
        return;
    }
    // The clock is read before the lock: waiting for the lock can only delay an expiry.
    timespec now_time{};
    if (sys->clock_gettime(CLOCK_MONOTONIC, &now_time) == -1) {
        report_error("error while getting time: ", errno);
        return;
    }
    const auto now = static_cast<std::int64_t>(now_time.tv_sec);

    Mutex_lock_guard lock(&segment->list_mutex.mutex, false);
    for (std::uint32_t i = 0; i < LISTENER_ENTRY_COUNT; ++i) {
        Listener_entry& entry = segment->entries[i];
        std::int64_t& deadline = proxy_watchdogs[i];
        if (entry.watchdog_reset != 0) {
            // Refilled or emptied by an application since the last pass: count afresh.
            deadline = 0;
            entry.watchdog_reset = 0;
        }
        if (entry.channel_name[0] != 0) {
            if (deadline == 0) {
                deadline = now + wire::ANNOUNCEMENT_LIMIT_SECONDS;
            }
            if (deadline <= now) {
                std::memset(entry.channel_name, 0, LISTENER_NAME_SIZE);
                entry.picked_up = 0;
                deadline = 0;
                report_error("proxy watchdog triggered.");
            }
        } else {
            entry.picked_up = 0;  // also repairs an emptied entry still marked as picked up
            deadline = 0;
        }
    }
}

}  // namespace logferry
