// The two queries an application may make before it logs: the per-context level filter
// and whether a message is open under a stream key.
#include "logferry/client.hpp"
#include "wire/wire.hpp"

namespace logferry {

bool is_log_level_enabled(unsigned int context_handle, unsigned char level)
{
    if (level > wire::MAX_LOG_LEVEL) {
        return false;
    }
    std::lock_guard<std::mutex> lock(filters_mutex);
    if (level == wire::LOG_LEVEL_OFF) {
        return false;
    }
    // A handle never seen is entered with level 0 (off), deliberately: it then stays
    // disabled until it is registered or the daemon sets its level, and later queries for
    // it allocate nothing.
    return log_level_filters[context_handle] >= level;
}

bool is_logstream_enabled(unsigned int stream_key)
{
    std::lock_guard<std::mutex> lock(incomplete_logstream_messages_mutex);
    return incomplete_logstream_messages.find(stream_key) != incomplete_logstream_messages.end();
}

}  // namespace logferry
