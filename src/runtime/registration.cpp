// Registration of the application and its contexts, and the priority path through which
// registration and control records reach the daemon ahead of ordinary log traffic.
#include "logferry/client.hpp"
#include "logferry/system.hpp"
#include "wire/wire.hpp"

namespace logferry {

namespace {
// A busy priority area is polled for one second: 21 tests with 20 sleeps between them.
constexpr unsigned int PRIORITY_POLL_MS = 50;
constexpr int PRIORITY_POLL_SLEEPS = 20;
}  // namespace

bool is_pending_priority_queue_empty()
{
    std::lock_guard<std::mutex> lock(priority_message_queue_mutex);
    return priority_message_queue.empty();
}

bool try_send_priority(const std::vector<unsigned char>& bytes, bool force)
{
    // While registrations await replay only the receiver thread's replay may send.
    if (pending_registration && !force) {
        return false;
    }
    if (!client.is_connection_active()) {
        // Nobody will read what is there; the kept registrations make up for it at replay.
        if (!client.is_priority_empty()) {
            client.clear_priority_data();
        }
        return false;
    }
    for (int sleeps = 0;; ++sleeps) {
        if (client.is_priority_empty()) {
            return client.push_priority(bytes);
        }
        if (sleeps == PRIORITY_POLL_SLEEPS) {
            return false;
        }
        sys->sleep_for_milliseconds(PRIORITY_POLL_MS);
    }
}

void submit_priority_record(const std::vector<unsigned char>& bytes)
{
    // A record never overtakes those already waiting: it goes straight to the channel only
    // when nothing is queued.
    bool sent = false;
    if (is_pending_priority_queue_empty()) {
        sent = try_send_priority(bytes, false);
    }
    if (!sent) {
        std::lock_guard<std::mutex> lock(priority_message_queue_mutex);
        priority_message_queue.push(bytes);
    }
    // Ordinary messages wait until the receiver thread finds the application fully known.
    client.lock_client_buffer();
}

bool register_app(const char* app_id, const char* description)
{
    if (!init_called) {
        return false;
    }
    if (app_id == nullptr || description == nullptr) {
        return false;
    }
    const Logferry_register_app record(app_id, description);
    std::vector<unsigned char> bytes;
    bytes.reserve(sizeof(record) + 1);
    serialize(record, bytes);
    submit_priority_record(bytes);

    std::lock_guard<std::mutex> lock(application_mutex);
    registered_application.push_back(record);
    return true;
}

bool register_context(std::uint32_t context_handle, const char* context_id, const char* description,
                      std::uint8_t log_level)
{
    if (log_level > wire::MAX_LOG_LEVEL) {
        return false;
    }
    // Read without application_mutex, as a quick test of whether register_app came first.
    if (registered_application.empty()) {
        return false;
    }
    if (context_id == nullptr || description == nullptr) {
        return false;
    }
    const Logferry_register_context record(log_level, context_handle, context_id, description);
    std::vector<unsigned char> bytes;
    bytes.reserve(sizeof(record) + 1);
    serialize(record, bytes);
    submit_priority_record(bytes);

    // A repeated registration is sent, but the first level and record stay.
    std::lock_guard<std::mutex> filters_lock(filters_mutex);
    log_level_filters.emplace(context_handle, log_level);
    std::lock_guard<std::mutex> contexts_lock(contexts_mutex);
    registered_contexts.emplace(context_handle, record);
    return true;
}

void unregister_app()
{
    std::vector<unsigned char> bytes;
    serialize(Logferry_unregister_app(), bytes);
    client.push(bytes);

    std::lock_guard<std::mutex> lock(application_mutex);
    registered_application.clear();
}

void unregister_context(std::uint32_t context_handle)
{
    Logferry_unregister_context record;
    record.context_handle = context_handle;
    std::vector<unsigned char> bytes;
    serialize(record, bytes);
    client.push(bytes);

    std::lock_guard<std::mutex> filters_lock(filters_mutex);
    log_level_filters.erase(context_handle);
    std::lock_guard<std::mutex> contexts_lock(contexts_mutex);
    registered_contexts.erase(context_handle);
}

}  // namespace logferry
