// The ara::log library's state: the contexts, bring-up, registration, the hand-over of
// finished messages, the level updates from the daemon and the automatic take-down.
//
// Phases. Down (nothing done yet) -> Channel up (the library is initialised: channel and
// receiver thread; by InitLogging or the first CreateLogger) -> Registered (the application
// and every context made so far are registered; by InitLogging, or by the first message when
// the application never calls InitLogging) -> Taken down (at process end). Every change
// happens under `registry_mutex`; the hot path only reads `phase`.
//
// Staging. Once the channel is up, messages are staged per thread and handed to the ring by
// the flusher (staging.hpp); LOGFERRY_STAGING_LIMIT bounds the memory that holds them.
//
// Take-down. At the process's end, what is staged is handed over while a daemon makes
// progress: when a daemon holds the listener's lock file, the take-down waits for it to
// attach (at most a second), then for it to read everything (at most a second after it last
// made progress); with no daemon it does not wait at all. Waiting for the receiver thread is
// cut short too: this library runs the system seam's sleeps on a seam of its own
// (Waking_system) whose sleeps the take-down can end, so that a tick comes at once when the
// daemon has attached, and the receiver thread ends at once when asked to.
//
// Context handles. The free functions let the application choose handles; this front end
// counts down from 0xFFFFFFFF and skips every handle the library already knows (registered
// or with a level filter), so its handles never collide with the small numbers applications
// choose for the free functions.
#define LOGFERRY_DEFINE_HOOKS
#include <errno.h>  // NOLINT(modernize-deprecated-headers): program_invocation_short_name
#include <pthread.h>

#include <fcntl.h>
#include <unistd.h>

#include <cctype>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ara/log/logging.h"
#include "ara_log/internal.hpp"
#include "ara_log/staging.hpp"
#include "ara_log/stamp_clock.hpp"
#include "logferry/client.hpp"
#include "runtime/front_end_hooks.hpp"
#include "wire/shared_fields.hpp"

namespace ara::log::detail {

namespace {

enum Phase : int { kDown, kChannelUp, kRegistered, kTakenDown };

// The application as it will be (or was) registered.
struct Application {
    std::string id;
    std::string description;
    std::uint8_t default_level = static_cast<std::uint8_t>(LogLevel::kWarn);
    LogMode mode = LogMode::kRemote;
    std::string directory;
};

// Constant-initialised; the objects behind the pointers are made once and never freed, so
// that a logger used from a static destructor still finds them.
std::mutex registry_mutex;
std::atomic<int> phase{kDown};
std::atomic<Context*> newest_context{nullptr};
Application* application = nullptr;
std::uint32_t next_handle = 0xFFFFFFFFU;

// The ring writers, when liblogferry offered them at load time.
std::atomic<const logferry::Ring_access*> offered_ring_access{nullptr};

std::mutex handler_mutex;
std::function<void(ClientState)>* connection_handler = nullptr;

const char* environment(const char* name)
{
    const char* value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): read under registry_mutex
    return value != nullptr && value[0] != '\0' ? value : nullptr;
}

std::string lower(std::string text)
{
    for (char& c : text) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return text;
}

// A level from its name or number; `fallback` for anything else.
std::uint8_t parse_level(const char* text, std::uint8_t fallback)
{
    if (text == nullptr) {
        return fallback;
    }
    static const char* const NAMES[] = {"off", "fatal", "error", "warn", "info", "debug", "verbose"};
    const std::string name = lower(text);
    for (std::uint8_t i = 0; i < 7; ++i) {
        if (name == NAMES[i] || name == std::string(1, static_cast<char>('0' + i))) {
            return i;
        }
    }
    return name == "warning" ? static_cast<std::uint8_t>(LogLevel::kWarn) : fallback;
}

// A mode from names separated by '|', ',', '+' or spaces; remote when nothing is recognised.
LogMode parse_mode(const char* text)
{
    unsigned int bits = 0;
    if (text != nullptr) {
        std::string word;
        const std::string all = lower(text) + "|";
        for (const char c : all) {
            if (c == '|' || c == ',' || c == '+' || c == ' ') {
                bits |= word == "remote"    ? static_cast<unsigned int>(LogMode::kRemote)
                        : word == "file"    ? static_cast<unsigned int>(LogMode::kFile)
                        : word == "console" ? static_cast<unsigned int>(LogMode::kConsole)
                                            : 0U;
                word.clear();
            } else {
                word += c;
            }
        }
    }
    return bits == 0 ? LogMode::kRemote : static_cast<LogMode>(bits);
}

// The application as the environment (the stand-in for the execution manifest) describes it.
Application& application_record()
{
    if (application == nullptr) {
        application = new Application;
        const char* id = environment("LOGFERRY_APP_ID");
        application->id = id != nullptr ? id : program_invocation_short_name;
        const char* description = environment("LOGFERRY_APP_DESCRIPTION");
        application->description = description != nullptr ? description : "application " + application->id;
        application->default_level =
            parse_level(environment("LOGFERRY_LOG_LEVEL"), static_cast<std::uint8_t>(LogLevel::kWarn));
        application->mode = parse_mode(environment("LOGFERRY_LOG_MODE"));
        const char* directory = environment("LOGFERRY_LOG_DIR");
        application->directory = directory != nullptr ? directory : "";
    }
    return *application;
}

// The library's system seam with sleeps that the take-down can end early: the receiver
// thread's ticks and reconnect pauses are sleeps of this seam. Everything else is the
// library's own seam, unchanged (every operation of the base is the plain system call).
// Installed only where the seam is still the one the program was loaded with.
// NOLINTNEXTLINE(cppcoreguidelines-virtual-class-destructor): final, and the seam has no virtual destructor by design
class Waking_system final : public logferry::System_lib {
public:
    void sleep_for_milliseconds(unsigned int ms) override { sleep(std::chrono::milliseconds(ms)); }
    void sleep_for_seconds(unsigned int s) override { sleep(std::chrono::seconds(s)); }

    // Ends every sleep under way; with `for_good`, every later sleep returns at once.
    void wake(bool for_good)
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            ++wakes_;
            ending_ = ending_ || for_good;
        }
        woken_.notify_all();
    }

private:
    template <typename Duration>
    void sleep(Duration period)
    {
        if (period.count() == 0) {
            return;
        }
        std::unique_lock<std::mutex> lock(mutex_);
        const std::uint64_t wakes = wakes_;
        woken_.wait_for(lock, period, [&] { return ending_ || wakes_ != wakes; });
    }

    std::mutex mutex_;
    std::condition_variable woken_;
    std::uint64_t wakes_ = 0;
    bool ending_ = false;
};
Waking_system* waking_seam = nullptr;

// Whether a daemon holds the listener's lock file now (it runs, whether or not it has
// attached to this channel yet).
bool daemon_holds_lock()
{
    const int fd = logferry::sys->open(logferry::listener.lock_listener_name.c_str(), O_RDONLY, 0);
    if (fd < 0) {
        return false;
    }
    const logferry::File_descriptor_guard guard(fd);
    return logferry::sys->lockf(fd, F_TEST, 0) != 0;
}

bool daemon_attached()
{
    return logferry::client.initialized && logferry::atomic_load_i64(&logferry::client.segment->server_watchdog) != 0;
}

bool gate_closed()
{
    return logferry::client.initialized &&
           logferry::atomic_load_u8(&logferry::client.segment->client_buffer_locked) != 0;
}

// Hands what is staged to the daemon before the channel closes, within the bounds above; what
// cannot be handed over in time is forced into the ring.
void hand_over_staged()
{
    stop_flusher();
    const logferry::Ring_access* access = ring_access();
    const auto unread = [access] { return access->unread_bytes(logferry::client); };
    std::size_t staged = staged_messages();
    std::size_t in_ring = unread();
    if (staged == 0 && in_ring == 0) {
        return;  // nothing logged, or everything read: no wait at all
    }
    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    Clock::time_point last_progress = start;
    const bool daemon_running = daemon_attached() || daemon_holds_lock();
    while (daemon_running) {
        const std::size_t moved = hand_over_pass();
        const std::size_t staged_now = staged_messages();
        const std::size_t in_ring_now = unread();
        if (staged_now == 0 && in_ring_now == 0) {
            break;
        }
        const Clock::time_point now = Clock::now();
        if (moved != 0 || staged_now < staged || in_ring_now < in_ring) {
            last_progress = now;
        }
        staged = staged_now;
        in_ring = in_ring_now;
        if (!daemon_attached()) {
            if (now - start >= TUNING.attach_wait) {
                break;
            }
        } else if (now - last_progress >= TUNING.progress_wait) {
            break;
        } else if (gate_closed() && waking_seam != nullptr) {
            waking_seam->wake(false);  // a tick now: the receiver thread sees the daemon and opens the gate
        }
        std::this_thread::sleep_for(TUNING.take_down_poll);  // not the seam's: the seam's sleeps end early now
    }
    force_rest();
}

// Logging ends with the process. The take-down is registered with the exit handlers when
// logging comes up, so it runs after the destructors of every static object constructed
// after that point (and of everything made in main), and before liblogferry's own objects
// are destroyed. Every context is switched off, what is staged is handed over, then the
// library is closed. Should the library be unloaded without exit, its finalisation does the
// same.
void take_down()
{
    if (phase.load() == kTakenDown) {
        return;  // also in a forked child, whose copy of the mutex may be held by no thread at all
    }
    int was = kDown;
    {
        std::lock_guard<std::mutex> lock(registry_mutex);
        was = phase.exchange(kTakenDown);
        for (Context* context = newest_context.load(); context != nullptr; context = context->next) {
            context->threshold.store(0, std::memory_order_relaxed);
        }
    }
    // Outside the registry's mutex, so that the receiver thread is never waited for under it.
    if (was != kDown && was != kTakenDown) {
        if (staging_on()) {
            hand_over_staged();
        }
        logferry::terminate_receiver_thread = true;
        if (waking_seam != nullptr) {
            waking_seam->wake(true);  // the receiver thread ends at once instead of after its sleep
        }
        logferry::exit();
    }
}

__attribute__((destructor)) void take_down_at_unload() { take_down(); }

// In a child made by fork: logging is off for good (the channel is the parent's). The child
// never closes the parent's channel: its channel end gives up ownership (its end of life only
// unmaps), and the receiver thread, which the child does not have, is let go instead of being
// joined. No lock is taken: any of them may have been held by another thread of the parent.
void after_fork_in_child()
{
    phase.store(kTakenDown);
    for (Context* context = newest_context.load(); context != nullptr; context = context->next) {
        context->threshold.store(0, std::memory_order_relaxed);
    }
    logferry::client.owner = false;
    if (logferry::message_receiver_thread.joinable()) {
        logferry::message_receiver_thread.detach();
    }
    forget_staging_after_fork();
}

// The bound of staging's memory: LOGFERRY_STAGING_LIMIT in bytes, with an optional k, M or G
// (1024, 1024^2, 1024^3); 0 stages nothing (every message goes straight to the ring).
std::size_t staging_limit()
{
    const char* text = environment("LOGFERRY_STAGING_LIMIT");
    if (text == nullptr) {
        return TUNING.staging_limit;
    }
    char* end = nullptr;
    const unsigned long long value = std::strtoull(text, &end, 10);
    if (end == text) {
        return TUNING.staging_limit;
    }
    unsigned int shift = 0;
    switch (*end) {
    case 'k':
    case 'K':
        shift = 10;
        break;
    case 'm':
    case 'M':
        shift = 20;
        break;
    case 'g':
    case 'G':
        shift = 30;
        break;
    default:
        break;
    }
    return static_cast<std::size_t>(value) << shift;
}

// Initialises the library under the application's identifier (registry_mutex held).
void bring_channel_up()
{
    logferry::set_app_identifier(application_record().id);
    if (logferry::sys == seam_at_load) {
        // Before the receiver thread starts: it sleeps on this seam from its first tick.
        waking_seam = new (std::nothrow) Waking_system;
        if (waking_seam != nullptr) {
            logferry::sys = waking_seam;
        }
    }
    stamp_clock_start(waking_seam);
    logferry::init();
    (void)start_staging(staging_limit());
    phase.store(kChannelUp, std::memory_order_release);
    std::atexit(take_down);  // a failure leaves the take-down to the library's finalisation
    ::pthread_atfork(nullptr, nullptr, after_fork_in_child);
}

// A handle no context of this process uses (registry_mutex held).
std::uint32_t free_handle()
{
    std::lock_guard<std::mutex> filters(logferry::filters_mutex);
    std::lock_guard<std::mutex> contexts(logferry::contexts_mutex);
    while (logferry::registered_contexts.count(next_handle) != 0 ||
           logferry::log_level_filters.count(next_handle) != 0) {
        --next_handle;
    }
    return next_handle--;
}

void register_context(Context& context)
{
    const std::uint8_t level = context.explicit_level ? context.level : application_record().default_level;
    context.threshold.store(level, std::memory_order_relaxed);
    context.registered =
        logferry::register_context(context.handle, context.id.c_str(), context.description.c_str(), level);
}

// The mode's requests to the daemon.
void request_mode(const Application& app)
{
    const auto bits = static_cast<unsigned int>(logferry::dlt_validate_log_mode(app.mode));
    if ((bits & static_cast<unsigned int>(LogMode::kConsole)) != 0) {
        logferry::enable_local_print();
    }
    if ((bits & static_cast<unsigned int>(LogMode::kRemote)) == 0) {
        logferry::disable_remote();
    }
    if ((bits & static_cast<unsigned int>(LogMode::kFile)) != 0) {
        std::string directory = app.directory;
        while (directory.size() > 1 && directory.back() == '/') {
            directory.pop_back();
        }
        const std::string file = app.id + ".dlt";
        logferry::init_file((directory.empty() ? file : directory + "/" + file).c_str());
    }
}

// Registers the application, every context not registered yet, and the mode's requests
// (registry_mutex held, library initialised).
void register_application()
{
    const Application& app = application_record();
    logferry::register_app(app.id.c_str(), app.description.c_str());
    // Oldest first: contexts are registered in the order they were made.
    std::vector<Context*> waiting;
    for (Context* context = newest_context.load(std::memory_order_acquire); context != nullptr;
         context = context->next) {
        if (!context->registered) {
            waiting.push_back(context);
        }
    }
    for (auto context = waiting.rbegin(); context != waiting.rend(); ++context) {
        register_context(**context);
    }
    request_mode(app);
    phase.store(kRegistered, std::memory_order_release);
}

Logger& create_logger(Text id, Text description, std::uint8_t level, bool explicit_level) noexcept
{
    try {
        const std::string wire_id = logferry::dlt_validate_id(std::string(id.data(), id.size()));
        std::lock_guard<std::mutex> lock(registry_mutex);
        for (Context* context = newest_context.load(); context != nullptr; context = context->next) {
            if (context->id == wire_id) {
                return context->logger;
            }
        }
        auto* context = new Context;
        context->id = wire_id;
        context->description.assign(description.data(), description.size());
        context->level = level > 6 ? static_cast<std::uint8_t>(LogLevel::kWarn) : level;
        context->explicit_level = explicit_level;
        context->threshold.store(explicit_level ? context->level : application_record().default_level,
                                 std::memory_order_relaxed);
        const int now = phase.load();
        if (now == kTakenDown) {
            context->threshold.store(0, std::memory_order_relaxed);
        }
        if (now == kDown) {
            bring_channel_up();
        }
        context->handle = free_handle();
        context->next = newest_context.load();
        newest_context.store(context, std::memory_order_release);
        if (now == kRegistered) {
            register_context(*context);
        }
        return context->logger;
    } catch (...) {
        // No memory: a logger that never logs (kept for every later failure).
        static auto* const silent = new (std::nothrow) Context;
        return silent->logger;
    }
}

}  // namespace

bool ensure_registered() noexcept
{
    int now = phase.load(std::memory_order_acquire);
    if (now == kRegistered) {
        return true;
    }
    if (now == kTakenDown) {
        return false;
    }
    try {
        std::lock_guard<std::mutex> lock(registry_mutex);
        if (phase.load() == kDown) {
            bring_channel_up();
        }
        if (phase.load() == kChannelUp) {
            register_application();
        }
        now = phase.load();
    } catch (...) {
        return false;
    }
    return now == kRegistered;
}

bool deliver(const unsigned char* bytes, std::size_t size) noexcept
{
    if (phase.load(std::memory_order_acquire) == kTakenDown) {
        return false;
    }
    const logferry::Ring_access* access = ring_access();
    if (access != nullptr) {
        return access->push_within(logferry::client, bytes, size, TUNING.ring_wait_us);
    }
    // liblogferry did not offer its ring writers (this library was loaded after it, with
    // dlopen): the ordinary push, which takes a vector of its own.
    try {
        return logferry::client.push(std::vector<unsigned char>(bytes, bytes + size));
    } catch (...) {
        return false;
    }
}

const logferry::Ring_access* ring_access() noexcept { return offered_ring_access.load(std::memory_order_acquire); }

void count_lost(std::uint64_t count) noexcept { logferry::client.lost_messages.fetch_add(count); }

}  // namespace ara::log::detail

namespace ara::log {

void InitLogging(detail::Text appId, detail::Text appDescription, LogLevel appDefLogLevel, LogMode logMode,
                 detail::Text directoryPath) noexcept
{
    try {
        std::lock_guard<std::mutex> lock(detail::registry_mutex);
        if (detail::phase.load() == detail::kTakenDown) {
            return;
        }
        detail::Application& app = detail::application_record();
        app.id.assign(appId.data(), appId.size());
        app.description.assign(appDescription.data(), appDescription.size());
        const auto level = static_cast<std::uint8_t>(appDefLogLevel);
        app.default_level = level > 6 ? static_cast<std::uint8_t>(LogLevel::kWarn) : level;
        app.mode = logMode;
        app.directory.assign(directoryPath.data(), directoryPath.size());
        if (detail::phase.load() == detail::kDown) {
            detail::bring_channel_up();
        }
        detail::register_application();
    } catch (...) {  // NOLINT(bugprone-empty-catch): no memory: logging stays as it was
    }
}

Logger& CreateLogger(detail::Text ctxId, detail::Text ctxDescription, LogLevel ctxDefLogLevel) noexcept
{
    return detail::create_logger(ctxId, ctxDescription, static_cast<std::uint8_t>(ctxDefLogLevel), true);
}

Logger& CreateLogger(detail::Text ctxId, detail::Text ctxDescription) noexcept
{
    return detail::create_logger(ctxId, ctxDescription, 0, false);
}

ClientState remoteClientState() noexcept
{
    const int now = detail::phase.load();
    if (now == detail::kDown || now == detail::kTakenDown) {
        return ClientState::kUnknown;
    }
    return logferry::last_connection_state.load() ? ClientState::kConnected : ClientState::kNotConnected;
}

void RegisterConnectionStateHandler(std::function<void(ClientState)> handler) noexcept
{
    {
        std::lock_guard<std::mutex> lock(detail::handler_mutex);
        if (detail::connection_handler == nullptr) {
            detail::connection_handler = new (std::nothrow) std::function<void(ClientState)>;
            if (detail::connection_handler == nullptr) {
                return;
            }
        }
        *detail::connection_handler = std::move(handler);
    }
    // A daemon that attached before the handler was there is not missed: the handler learns
    // it now (the receiver thread reports only changes from here on).
    if (remoteClientState() == ClientState::kConnected) {
        logferry_hook_connection_changed(true);
    }
}

}  // namespace ara::log

void logferry_hook_filter_updated(std::uint32_t context_handle, std::uint8_t level) noexcept
{
    using ara::log::detail::Context;
    for (Context* context = ara::log::detail::newest_context.load(std::memory_order_acquire); context != nullptr;
         context = context->next) {
        if (context->handle == context_handle) {
            if (ara::log::detail::phase.load() != ara::log::detail::kTakenDown) {
                context->threshold.store(level, std::memory_order_relaxed);
            }
            return;
        }
    }
}

void logferry_hook_ring_access(const logferry::Ring_access* access) noexcept
{
    ara::log::detail::offered_ring_access.store(access, std::memory_order_release);
}

void logferry_hook_connection_changed(bool connected) noexcept
{
    std::function<void(ara::log::ClientState)> handler;
    {
        std::lock_guard<std::mutex> lock(ara::log::detail::handler_mutex);
        if (ara::log::detail::connection_handler == nullptr || !*ara::log::detail::connection_handler) {
            return;
        }
        try {
            handler = *ara::log::detail::connection_handler;
        } catch (...) {
            return;
        }
    }
    try {
        handler(connected ? ara::log::ClientState::kConnected : ara::log::ClientState::kNotConnected);
    } catch (...) {  // NOLINT(bugprone-empty-catch): an application handler's exception stops here
    }
}
