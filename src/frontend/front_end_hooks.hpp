#ifndef LOGFERRY_FRONT_END_HOOKS_HPP
#define LOGFERRY_FRONT_END_HOOKS_HPP

// Notifications from the receiver thread to a front end built on top of this library (the
// ara::log library). liblogferry only references them, weakly: they stay null unless such a
// front end is loaded, and liblogferry exports no name for them. The front end defines them
// (with LOGFERRY_DEFINE_HOOKS set before including this header).

#include <cstddef>
#include <cstdint>

namespace logferry {
class Logferry_base;
/// A push into the application's ring that waits at most `wait_us` microseconds for the
/// ring's mutex; a message it cannot place in that time is dropped and counted in the end's
/// `lost_messages`.
using Bounded_push = bool (*)(Logferry_base& end, const unsigned char* bytes, std::size_t size, std::uint32_t wait_us);
}  // namespace logferry

#ifdef LOGFERRY_DEFINE_HOOKS
#define LOGFERRY_HOOK extern "C" __attribute__((visibility("default")))
#else
#define LOGFERRY_HOOK extern "C" __attribute__((weak, visibility("default")))
#endif

/// A level update from the daemon was applied to the filter of `context_handle`.
LOGFERRY_HOOK void logferry_hook_filter_updated(std::uint32_t context_handle, std::uint8_t level) noexcept;
/// Offers the bounded push; called once when liblogferry is loaded (only when the front end
/// is linked with the program, so that the reference is bound at load time).
LOGFERRY_HOOK void logferry_hook_bounded_push(logferry::Bounded_push push) noexcept;
/// The receiver thread's verdict on the daemon's attachment changed.
LOGFERRY_HOOK void logferry_hook_connection_changed(bool connected) noexcept;

#undef LOGFERRY_HOOK

#endif
