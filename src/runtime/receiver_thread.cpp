// The receiver thread: the library's one background loop. While the daemon is attached it
// withdraws the channel's announcement, replays registrations after an outage, moves
// queued priority records into the channel in order, releases the ordinary ring once the
// application is fully registered, and applies what the daemon writes back, one message
// per tick. While the daemon is absent it holds ordinary traffic back and keeps trying to
// connect. On shutdown it forces out what is still queued.
#include <unistd.h>

#include <cstdint>
#include <iostream>

#include "logferry/client.hpp"
#include "logferry/system.hpp"
#include "runtime/front_end_hooks.hpp"
#include "wire/liveness.hpp"
#include "wire/wire.hpp"

namespace logferry {

namespace {

using wire::CONNECTION_RECHECK_MS;
using wire::RECEIVER_TICK_MS;
using wire::RECONNECT_PAUSE_SECONDS;
constexpr std::uint32_t LOSS_CHECK_TICKS = 100;  // losses are checked every 101st tick
constexpr useconds_t SHUTDOWN_GRACE_US = 50000;

// Sends every kept registration again, forced; false at the first record the channel did
// not take (the replay then starts over at the next tick).
bool replay_registrations()
{
    std::vector<unsigned char> bytes;
    {
        std::lock_guard<std::mutex> lock(application_mutex);
        for (const Logferry_register_app& record : registered_application) {
            bytes.clear();
            serialize(record, bytes);
            if (!try_send_priority(bytes, true)) {
                return false;
            }
        }
    }
    {
        std::lock_guard<std::mutex> lock(contexts_mutex);
        for (const auto& entry : registered_contexts) {
            bytes.clear();
            serialize(entry.second, bytes);
            if (!try_send_priority(bytes, true)) {
                return false;
            }
        }
    }
    pending_registration = false;
    return true;
}

// Moves queued priority records into the channel, oldest first; a record the channel does
// not take stays at the front for the next tick.
void flush_priority_queue()
{
    std::lock_guard<std::mutex> lock(priority_message_queue_mutex);
    while (!priority_message_queue.empty()) {
        if (!try_send_priority(priority_message_queue.front(), false)) {
            return;
        }
        priority_message_queue.pop();
    }
}

// Opens the ordinary ring once an application and at least one context are registered and
// nothing waits to go ahead of them.
void release_ordinary_buffer()
{
    if (!client.is_client_buffer_locked()) {
        return;
    }
    // The queue is asked under its own mutex before the two registration locks are taken,
    // so that mutex is never held together with another and the read is race-free.
    const bool queue_empty = is_pending_priority_queue_empty();
    std::lock_guard<std::mutex> application_lock(application_mutex);
    std::lock_guard<std::mutex> contexts_lock(contexts_mutex);
    if (!registered_application.empty() && !registered_contexts.empty() && queue_empty) {
        client.unlock_client_buffer();
    }
}

void handle_all_daemon_messages()
{
    while (!client.is_empty()) {
        std::vector<unsigned char> bytes = client.pop();
        handle_daemon_message(bytes);
    }
}

// One pass while the daemon is absent: hold ordinary traffic, remember to replay, and try
// to (re)announce the channel.
void inactive_pass(bool was_inactive)
{
    client.lock_client_buffer();
    pending_registration = true;
    if (!was_inactive) {
        client.check_lost_messages();
        handle_all_daemon_messages();
    }
    if (!listener.init()) {
        sys->sleep_for_seconds(RECONNECT_PAUSE_SECONDS);
    } else if (listener.check_list(client.get_filename())) {
        sys->sleep_for_milliseconds(RECEIVER_TICK_MS);  // still announced: the daemon has not come yet
    } else {
        listener.uninit();
        if (connect_channel()) {
            sys->sleep_for_milliseconds(RECEIVER_TICK_MS);
        } else {
            sys->sleep_for_seconds(RECONNECT_PAUSE_SECONDS);
        }
    }
}

// Tells a front end built on this library that the verdict changed (the first verdict only
// when it is "attached").
void report_connection(bool active, bool& reported)
{
    if (active != reported) {
        reported = active;
        if (logferry_hook_connection_changed != nullptr) {
            logferry_hook_connection_changed(active);
        }
    }
}

void shut_down()
{
    if (!is_pending_priority_queue_empty()) {
        {
            std::lock_guard<std::mutex> lock(priority_message_queue_mutex);
            while (!priority_message_queue.empty()) {
                if (!client.force_push_priority(priority_message_queue.front())) {
                    break;
                }
                priority_message_queue.pop();
            }
        }
        // Deliberately not through the system seam: the daemon gets a real moment to take
        // the forced records whatever seam is installed.
        ::usleep(SHUTDOWN_GRACE_US);
    }
    client.check_lost_messages();
    handle_all_daemon_messages();
}

}  // namespace

void receiver_thread()
{
    try {
        bool active = client.is_connection_active();
        bool was_inactive = false;
        std::uint32_t ticks = 0;
        std::uint32_t elapsed_ms = 0;
        bool reported = false;
        report_connection(active, reported);

        while (!terminate_receiver_thread) {
            if (!active) {
                inactive_pass(was_inactive);
                active = client.is_connection_active();
                report_connection(active, reported);
                was_inactive = true;
                continue;
            }

            if (listener.pop()) {
                listener.uninit();  // the daemon has attached; the announcement is done
            }
            bool registered = true;
            if (first_registration) {
                // The first attachment needs no replay: the registrations went out as made.
                first_registration = false;
                pending_registration = false;
            } else if (pending_registration) {
                registered = replay_registrations();
            }
            if (registered) {
                flush_priority_queue();
                release_ordinary_buffer();
                // Deliberately one message per tick.
                if (!client.is_empty()) {
                    std::vector<unsigned char> bytes = client.pop();
                    handle_daemon_message(bytes);
                }
            }

            if (ticks > LOSS_CHECK_TICKS - 1) {
                client.check_lost_messages();
                ticks = 0;
            } else {
                ++ticks;
            }
            if (elapsed_ms > CONNECTION_RECHECK_MS - 1) {
                active = client.is_connection_active();
                report_connection(active, reported);
                elapsed_ms = 0;
            }
            sys->sleep_for_milliseconds(RECEIVER_TICK_MS);
            elapsed_ms += RECEIVER_TICK_MS;
            was_inactive = false;
        }
        shut_down();
    } catch (...) {
        std::cerr << "logferry: unexpected failure in receiver thread of logferry lib." << std::endl;
    }
}

void handle_daemon_message(std::vector<unsigned char>& bytes)
{
    if (bytes.empty()) {
        report_error("empty message received.");
        return;
    }
    if (bytes[wire::KIND_AT] == KIND_UPDATE_CONTEXT_LOG_LEVEL_FILTER) {
        Logferry_update_context_log_level_filter update{};
        if (bytes.size() != wire::LEVEL_UPDATE_SIZE || !deserialize(bytes, bytes.size(), update)) {
            return;  // malformed updates are ignored
        }
        const std::uint32_t handle = update.context_handle;
        const std::uint8_t level = update.log_level;
        bool applied = false;
        {
            std::lock_guard<std::mutex> lock(filters_mutex);
            const auto entry = log_level_filters.find(handle);
            if (entry != log_level_filters.end()) {
                entry->second = level;  // an unknown context gets no filter from the daemon
                applied = true;
            }
        }
        // Outside the filters' mutex: the front end takes locks of its own.
        if (applied && logferry_hook_filter_updated != nullptr) {
            logferry_hook_filter_updated(handle, level);
        }
        return;
    }
    // Console text: everything up to the first zero; the daemon supplies the line ends.
    bytes.push_back(0);
    std::cout << reinterpret_cast<const char*>(bytes.data()) << std::flush;
}

}  // namespace logferry
