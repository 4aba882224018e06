#ifndef LOGFERRY_FRONT_END_HOOKS_HPP
#define LOGFERRY_FRONT_END_HOOKS_HPP

// Notifications from the receiver thread to a front end built on top of this library (the
// ara::log library), and the ring writers this library offers it. liblogferry only references
// the hooks, weakly: they stay null unless such a front end is loaded, and liblogferry exports
// no name for them. The front end defines them (with LOGFERRY_DEFINE_HOOKS set before
// including this header).

#include <cstddef>
#include <cstdint>

namespace logferry {
class Logferry_base;

/// A source of whole messages for `Ring_access::push_batch`, read in order.
struct Ring_batch {
    /// The next message to place (`*size` bytes), or null when the source has none left.
    const unsigned char* (*next)(void* source, std::size_t* size);
    /// The message that `next` gave last was placed: the source moves past it.
    void (*taken)(void* source);
    void* source;  ///< Passed to both.
};

/// Why `Ring_access::push_batch` stopped.
enum class Batch_end : std::uint8_t {
    kDone,     ///< the source has no message left
    kBound,    ///< the bytes allowed for one hold of the ring's mutex were placed
    kGated,    ///< the ring's gate is closed (fitting batches only)
    kFull,     ///< the next message would need a discard (fitting batches only)
    kBusy,     ///< the ring's mutex stayed held for the whole wait
    kRefused,  ///< the channel is not open, or a message cannot be placed in any ring
};

/// What `Ring_access::push_batch` did.
struct Batch_result {
    std::size_t placed = 0;            ///< messages placed
    Batch_end end = Batch_end::kDone;  ///< why it stopped
};

/// The application's ring writers offered to a front end.
struct Ring_access {
    /// One message with a wait of at most `wait_us` microseconds for the ring's mutex; a
    /// message it cannot place in that time is dropped and counted in the end's
    /// `lost_messages`. A full ring discards the oldest records, as the ordinary push does.
    bool (*push_within)(Logferry_base& end, const unsigned char* bytes, std::size_t size, std::uint32_t wait_us);
    /// Messages from `batch`, in order, in one hold of the ring's mutex (waited for at most
    /// `wait_us` microseconds), until `max_bytes` were placed or the source is empty.
    /// A fitting batch (`forced` false) places nothing while the gate is closed and stops at
    /// the first message that would need a discard; a forced batch ignores the gate and
    /// discards the oldest records as the ordinary push does, one count each.
    Batch_result (*push_batch)(Logferry_base& end, const Ring_batch& batch, bool forced, std::uint32_t wait_us,
                               std::size_t max_bytes);
    /// Bytes written into the application's ring and not yet read by the daemon, read
    /// without the ring's mutex: a hint of the daemon's progress, never exact.
    std::size_t (*unread_bytes)(const Logferry_base& end);
};

/// The ring writers, as offered (for the library's own tests).
const Ring_access& client_ring_access();
}  // namespace logferry

#ifdef LOGFERRY_DEFINE_HOOKS
#define LOGFERRY_HOOK extern "C" __attribute__((visibility("default")))
#else
#define LOGFERRY_HOOK extern "C" __attribute__((weak, visibility("default")))
#endif

/// A level update from the daemon was applied to the filter of `context_handle`.
LOGFERRY_HOOK void logferry_hook_filter_updated(std::uint32_t context_handle, std::uint8_t level) noexcept;
/// Offers the ring writers; called once when liblogferry is loaded (only when the front end
/// is linked with the program, so that the reference is bound at load time). `access` stays
/// valid for the life of the process.
LOGFERRY_HOOK void logferry_hook_ring_access(const logferry::Ring_access* access) noexcept;
/// The receiver thread's verdict on the daemon's attachment changed.
LOGFERRY_HOOK void logferry_hook_connection_changed(bool connected) noexcept;

#undef LOGFERRY_HOOK

#endif
