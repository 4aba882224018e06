#ifndef LOGFERRY_ARA_LOG_INTERNAL_HPP
#define LOGFERRY_ARA_LOG_INTERNAL_HPP

// What the two halves of the ara::log library share: the record of a context (runtime.cpp
// keeps them), the storage of a message under assembly (log_stream.cpp) and the hand-over of
// a finished message to the channel.

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "ara/log/logger.h"
#include "runtime/front_end_hooks.hpp"

namespace ara::log::detail {

struct Context;

struct Registry {
    static Logger logger_for(Context* context) noexcept;
};

// One context. Made once by CreateLogger and never freed: its logger, and copies of it, stay
// valid for the whole process, also in static destructors after logging was taken down.
struct Context {
    Context() noexcept : logger(Registry::logger_for(this)) {}
    ~Context() = default;
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;
    Context(Context&&) = delete;
    Context& operator=(Context&&) = delete;

    // The most verbose level sent (0: nothing). Written under the registry's mutex or by the
    // receiver thread's level update; read with relaxed loads by the loggers.
    std::atomic<std::uint8_t> threshold{0};
    std::uint32_t handle = 0;
    std::string id;           // as sent: at most 4 characters
    std::string description;  // as given; the record keeps at most 79 characters
    std::uint8_t level = 0;   // the level given to CreateLogger
    bool explicit_level = false;
    bool registered = false;
    // The next older context; set before the context is published, never changed after.
    Context* next = nullptr;
    Logger logger;
};

inline Logger Registry::logger_for(Context* context) noexcept { return {&context->threshold, context}; }

struct Thread_queue;

// One message under assembly: its records so far, the first being the start record. It lies
// either in a queue block of the thread that opened it (`queue` set; see staging.hpp) or in
// `storage` of its own; `data` is its first byte either way, `capacity` the room there is.
struct Message {
    unsigned char* data = nullptr;
    std::size_t capacity = 0;
    std::size_t used = 0;
    Thread_queue* queue = nullptr;
    std::vector<unsigned char> storage;
    std::uint32_t key = 0;
    std::uint32_t handle = 0;
    std::uint8_t level = 0;
    // Arguments left out because the message would no longer fit one ring unit.
    std::uint32_t dropped = 0;
    // No memory was left for it (or staging's bound was reached): the whole message is
    // dropped and counted when it is sent.
    bool lost = false;
    Message* next = nullptr;  // link in the thread's pool
};

// Registers the application (and every context made so far) when nothing has registered it
// yet, bringing logging up first if need be; false when logging has been taken down or the
// registration cannot be made.
bool ensure_registered() noexcept;

// Hands one complete message to the channel in one push, without staging; false when
// logging has been taken down, or when the message was dropped (and counted) because the
// daemon held the ring too long.
bool deliver(const unsigned char* bytes, std::size_t size) noexcept;

// The ring writers liblogferry offered at load time (null when it did not).
const logferry::Ring_access* ring_access() noexcept;

// Counts `count` messages dropped on the application's side with the channel's discarded
// records, so that the regular report includes them.
void count_lost(std::uint64_t count) noexcept;

}  // namespace ara::log::detail

#endif
