// The collector's passes.
//
// Every 200 ms it runs the listener's proxy watchdogs, stamps its own end of every channel
// and looks for applications that have gone quiet; on every pass it picks up newly
// announced channels and drains the priority area and the ring of each attached one.

#include "collector.hpp"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iostream>

#include "logferry/message.hpp"
#include "logferry/system.hpp"
#include "render.hpp"
#include "system/timed_lock.hpp"
#include "tuning.hpp"
#include "wire/channel_name.hpp"
#include "wire/liveness.hpp"
#include "wire/shared_fields.hpp"
#include "wire/wire.hpp"

namespace logferry_collector {
namespace {

using logferry_decoder::Record;
using Clock = std::chrono::steady_clock;
namespace tuning = logferry_tuning;

// The pass that stamps the daemon's watchdogs.
constexpr auto HOUSEKEEPING_PERIOD = std::chrono::milliseconds(logferry::wire::DAEMON_STAMP_PERIOD_MS);

// The guard around accesses to an attached segment (see Collector::guarded). The collector
// runs on one thread, and the handler runs on it, inside the access that faulted.
logferry::Logferry_base* volatile guarded_channel = nullptr;
volatile std::sig_atomic_t guarded_fault = 0;
std::uintptr_t page_size = 4096;
struct sigaction previous_bus_action {};
bool bus_handler_installed = false;

// A fault inside the guarded segment (its object shrank under the mapping): the faulting page
// is replaced by a private page of zeros, so that the access completes and the guarded work
// comes to its end harmlessly, and the fault is noted for the guard. No jump out of the
// handler: nothing is skipped, no lock or allocation is left behind, and sanitizers that
// watch signal handlers see an ordinary return.
extern "C" void on_access_fault(int /*signal*/, siginfo_t* info, void* /*context*/)
{
    logferry::Logferry_base* channel = guarded_channel;
    if (channel != nullptr && channel->segment != MAP_FAILED) {
        const auto address = reinterpret_cast<std::uintptr_t>(info->si_addr);
        const auto begin = reinterpret_cast<std::uintptr_t>(channel->segment);
        if (address >= begin && address < begin + logferry::CHANNEL_SEGMENT_SIZE) {
            void* page = reinterpret_cast<void*>(address & ~(page_size - 1));
            if (::mmap(page, page_size, PROT_READ | PROT_WRITE, MAP_FIXED | MAP_PRIVATE | MAP_ANONYMOUS, -1, 0) ==
                page) {
                guarded_fault = 1;
                return;
            }
        }
    }
    // Not a channel's fault: the handler that was there before (or the default action,
    // which ends the process) gets it when the access is retried.
    ::sigaction(SIGBUS, &previous_bus_action, nullptr);
}

void install_fault_handler()
{
    if (bus_handler_installed) {
        return;
    }
    const long size = ::sysconf(_SC_PAGESIZE);
    if (size > 0) {
        page_size = static_cast<std::uintptr_t>(size);
    }
    struct sigaction action {};
    action.sa_sigaction = on_access_fault;
    action.sa_flags = SA_SIGINFO;
    sigemptyset(&action.sa_mask);
    bus_handler_installed = ::sigaction(SIGBUS, &action, &previous_bus_action) == 0;
}

// Gives up the mapping of a segment that faulted. A robust mutex of the segment that this
// thread held when its page went (the page of zeros in its place no longer says so) stays
// linked into the thread's list of robust mutexes, and the next lock of any robust mutex
// writes into the list's elements: the pages that hold the segment's three mutexes are
// therefore kept, as private zeros, for the rest of the process (two pages per such
// channel); everything else is unmapped.
void release_faulted_segment(logferry::Channel_segment* segment)
{
    auto* base = reinterpret_cast<unsigned char*>(segment);
    const std::size_t size = logferry::CHANNEL_SEGMENT_SIZE;
    if (::mmap(base, size, PROT_READ | PROT_WRITE, MAP_FIXED | MAP_PRIVATE | MAP_ANONYMOUS, -1, 0) != base) {
        return;  // left mapped as it is: never unmapped under a held mutex
    }
    const std::size_t mutexes[] = {offsetof(logferry::Channel_segment, priority_mutex),
                                   offsetof(logferry::Channel_segment, client_mutex),
                                   offsetof(logferry::Channel_segment, server_mutex)};
    const auto kept = [&](std::size_t page_begin) {
        for (const std::size_t offset : mutexes) {
            const std::size_t first = offset / page_size * page_size;
            const std::size_t last = (offset + sizeof(logferry::Mutex_slot) - 1) / page_size * page_size;
            if (page_begin >= first && page_begin <= last) {
                return true;
            }
        }
        return false;
    };
    for (std::size_t page = 0; page < size; page += page_size) {
        if (!kept(page)) {
            ::munmap(base + page, page_size);
        }
    }
}

// Why the object `name` cannot be a channel segment; empty when it can.
std::string check_segment_object(const std::string& name)
{
    // Without waiting: a FIFO planted under the name must not hold the monitor up.
    const int fd = ::shm_open(name.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC, 0);
    if (fd < 0) {
        return std::string("cannot open: ") + std::strerror(errno);
    }
    struct stat status {};
    const int result = ::fstat(fd, &status);
    ::close(fd);
    if (result != 0) {
        return std::string("cannot inspect: ") + std::strerror(errno);
    }
    if (!S_ISREG(status.st_mode)) {
        return "not a shared-memory object";
    }
    if (status.st_size != static_cast<off_t>(logferry::CHANNEL_SEGMENT_SIZE)) {
        return "size " + std::to_string(status.st_size) + " bytes, not " +
               std::to_string(logferry::CHANNEL_SEGMENT_SIZE);
    }
    return "";
}

std::int64_t monotonic_seconds()
{
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::int64_t>(now.tv_sec);
}

// "1 application", "2 applications", "0 applications".
std::string counted(std::uint64_t count, const std::string& noun)
{
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

bool maps_segment(const std::string& pid, const std::string& name)
{
    std::ifstream maps("/proc/" + pid + "/maps");
    const std::string path = "/dev/shm" + name;
    std::string line;
    while (std::getline(maps, line)) {
        if (line.size() >= path.size() && line.compare(line.size() - path.size(), path.size(), path) == 0) {
            return true;
        }
    }
    return false;
}

// The process id of the application behind a channel name "/logferry-<ID>-<pid>-<stamp>".
std::uint32_t application_pid(const std::string& name)
{
    logferry::wire::Channel_name_parts parts;
    if (!logferry::wire::parse_channel_name(name, parts)) {
        return 0;
    }
    const std::string& digits = parts.pid;
    const auto number = static_cast<std::uint32_t>(std::stoul(digits));
    const std::string self = std::to_string(::getpid());
    if (digits != self && maps_segment(digits, name)) {
        return number;
    }
    // Process ids above 99999: the name carries the last five digits.
    for (std::uint32_t prefix = 1; prefix < 100; ++prefix) {
        const std::string pid =
            std::to_string(prefix) + std::string(logferry::wire::CHANNEL_PID_DIGITS - digits.size(), '0') + digits;
        if (pid != self && ::access(("/proc/" + pid).c_str(), F_OK) == 0 && maps_segment(pid, name)) {
            return static_cast<std::uint32_t>(std::stoul(pid));
        }
    }
    return number;
}

// Whether a lock of a ring's mutex that returned `result` holds it now. A holder that died
// inside its critical section leaves the data as it was: it is taken as it stands.
bool ring_locked(pthread_mutex_t* mutex, int result)
{
    if (result == EOWNERDEAD) {
        ::pthread_mutex_consistent(mutex);
        return true;
    }
    return result == 0;
}

// Takes a ring's mutex. The application relocks its ring's mutex for every record, so a
// blocking lock that waits to be woken keeps losing the race to it while it logs without
// pause; trying for a short while first catches the mutex between two of its records.
// True when the lock is held (the caller releases it through a Mutex_lock_guard that
// finds it locked); false when it is left to lock_ring_within.
bool try_lock_ring(pthread_mutex_t* mutex)
{
    for (int i = 0; i < tuning::RING_LOCK_TRIES; ++i) {
        const int result = ::pthread_mutex_trylock(mutex);
        if (result != EBUSY) {
            return ring_locked(mutex, result);
        }
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#elif defined(__aarch64__)
        asm volatile("yield");
#endif
    }
    return false;
}

// Waits for a ring's mutex up to `wait_ms` milliseconds: true when it is held then.
bool lock_ring_within(pthread_mutex_t* mutex, long wait_ms)
{
    return ring_locked(mutex, logferry::timed_lock_within(mutex, static_cast<std::uint64_t>(wait_ms) * 1000));
}

}  // namespace

bool is_channel_name(const std::string& name)
{
    logferry::wire::Channel_name_parts parts;
    return name.size() <= logferry::LISTENER_NAME_SIZE && logferry::wire::parse_channel_name(name, parts);
}

std::string Application::label() const { return logferry_monitor::escape(app_id.empty() ? channel : app_id); }

std::string Application::context_label(std::uint32_t handle) const
{
    const auto it = contexts.find(handle);
    return it != contexts.end() ? logferry_monitor::escape(it->second.id) : "#" + std::to_string(handle);
}

Collector::Collector(Options options) : options_(std::move(options)), listener_(true) {}

Collector::~Collector() { shutdown("exit"); }

void Collector::note(const std::string& word, const std::string& details)
{
    for (Output* output : outputs_) {
        output->note(word, details);
    }
}

bool Collector::start()
{
    // The listener's own init would wait for the lock of a daemon that is already
    // running; refuse instead. It would also follow a link planted at the lock file's
    // path (the fallback under /tmp is open to everyone) and create its target.
    listener_.check_lock_listener_name();
    const std::string& lock_path = listener_.lock_listener_name;
    struct stat status {};
    if (::lstat(lock_path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
        std::cerr << "logferry-monitor: refusing the lock file " << lock_path << ": "
                  << (S_ISLNK(status.st_mode) ? "it is a symbolic link" : "it is not a regular file") << std::endl;
        return false;
    }
    const int probe = ::open(lock_path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (probe >= 0) {
        const bool held = ::lockf(probe, F_TEST, 0) == -1 && (errno == EAGAIN || errno == EACCES);
        ::close(probe);
        if (held) {
            std::cerr << "logferry-monitor: another daemon holds " << lock_path << std::endl;
            return false;
        }
    }
    if (!listener_.init()) {
        std::cerr << "logferry-monitor: cannot take the listener role (lock file " << lock_path << ")" << std::endl;
        return false;
    }
    install_fault_handler();
    started_ = true;
    began_ = Clock::now();
    next_housekeeping_ = began_;
    note("listening", "lock=" + lock_path);
    return true;
}

template <typename Work>
bool Collector::guarded(Attachment& attachment, Work&& work)
{
    guarded_fault = 0;
    guarded_channel = attachment.channel.get();
    work();
    guarded_channel = nullptr;
    if (guarded_fault == 0) {
        return true;
    }
    guarded_fault = 0;
    detach_faulted(attachment);
    return false;
}

void Collector::detach_faulted(Attachment& attachment)
{
    // Nothing of the segment is touched again: no watchdog is cleared.
    logferry::Logferry_base& channel = *attachment.channel;
    note("detach", attachment.app.label() + " " + attachment.app.channel + " (access fault: its segment shrank below " +
                       std::to_string(logferry::CHANNEL_SEGMENT_SIZE) + " bytes)");
    for (Output* output : outputs_) {
        output->detached(attachment.app);
    }
    if (channel.segment != MAP_FAILED) {
        release_faulted_segment(channel.segment);
        channel.segment = static_cast<logferry::Channel_segment*>(MAP_FAILED);
    }
    channel.initialized = false;
}

void Collector::housekeeping()
{
    listener_.check_watchdogs();
    const std::int64_t seconds = monotonic_seconds();
    for (auto& attachment : attachments_) {
        if (!attachment->channel->is_initialized()) {
            continue;
        }
        bool go_on = true;
        guarded(*attachment, [&] {
            attachment->channel->is_connection_active();
            const std::int64_t stamp = logferry::atomic_load_i64(&attachment->channel->segment->client_watchdog);
            if (stamp != 0 && seconds - stamp > logferry::wire::WATCHDOG_LIMIT_SECONDS) {
                go_on = read_remainder(*attachment);
                if (go_on) {
                    detach(*attachment, "no sign of life for " + std::to_string(seconds - stamp) + " s");
                }
            }
        });
        if (!go_on) {
            break;
        }
    }
}

bool Collector::poll()
{
    if (!started_ || !stop_reason_.empty()) {
        return false;
    }
    const std::uint64_t before = messages_;
    const auto now = Clock::now();
    if (now >= next_housekeeping_) {
        next_housekeeping_ = now + HOUSEKEEPING_PERIOD;
        housekeeping();
    }
    bool busy = false;
    skipped_ring_ = false;
    for (std::string name = listener_.get_next(); !name.empty(); name = listener_.get_next()) {
        attach(name);
        busy = true;
    }
    for (auto& attachment : attachments_) {
        if (!stop_reason_.empty()) {
            break;
        }
        if (!attachment->channel->is_initialized()) {
            continue;
        }
        bool go_on = true;
        if (!guarded(*attachment, [&] {
                // Read the stamp first: whatever the application wrote before it cleared
                // the stamp on its way out is drained below.
                const std::int64_t stamp = logferry::atomic_load_i64(&attachment->channel->segment->client_watchdog);
                go_on = stamp == 0 ? read_remainder(*attachment) : drain(*attachment, false);
                if (go_on && stamp == 0) {
                    detach(*attachment, "closed its channel");
                    busy = true;
                }
            })) {
            busy = true;
        }
        if (!go_on) {
            break;
        }
    }
    for (auto it = attachments_.begin(); it != attachments_.end();) {
        it = (*it)->channel->is_initialized() ? it + 1 : attachments_.erase(it);
    }
    if (options_.max_seconds > 0.0 &&
        std::chrono::duration<double>(Clock::now() - began_).count() >= options_.max_seconds) {
        stop_reason_ = "duration";
    }
    for (Output* output : outputs_) {
        output->flush();
    }
    // A ring passed over still holds messages: no pause before the next pass.
    return busy || skipped_ring_ || messages_ != before;
}

void Collector::shutdown(const std::string& reason)
{
    if (!started_) {
        return;
    }
    started_ = false;
    for (auto& attachment : attachments_) {
        guarded(*attachment, [&] { attachment->channel->uninit(); });
    }
    attachments_.clear();
    listener_.uninit();
    note("stopped", (stop_reason_.empty() ? reason : stop_reason_) + ": " + counted(messages_, "log message") +
                        " from " + counted(applications_, "application"));
    for (Output* output : outputs_) {
        output->flush();
    }
}

void Collector::attach(const std::string& name)
{
    if (!is_channel_name(name)) {
        refuse(name, "not a channel name");
        return;
    }
    for (const auto& attachment : attachments_) {
        if (attachment->app.channel == name && attachment->channel->is_initialized()) {
            return;  // announced again while attached: the attachment stands
        }
    }
    const std::string why = check_segment_object(name);
    if (!why.empty()) {
        refuse(name, why);
        return;
    }
    auto attachment = std::make_unique<Attachment>();
    attachment->channel = std::make_unique<logferry::Logferry_base>();
    attachment->app.channel = name;
    bool attached = false;
    if (!guarded(*attachment, [&] { attached = attachment->channel->init(name); })) {
        return;
    }
    if (!attached) {
        note("error", name + ": cannot attach");
        withdraw(name);  // (its application may have gone since the object was checked)
        return;
    }
    attachment->app.pid = application_pid(name);
    ++applications_;
    note("attach", name);
    guarded(*attachment, [&] {
        for (const std::string& text : options_.texts) {
            std::vector<unsigned char> bytes(text.begin(), text.end());
            bytes.push_back('\n');
            if (attachment->channel->push(bytes)) {
                note("say", name + " " + logferry_monitor::quote(text));
            } else {
                note("error", name + ": cannot send " + logferry_monitor::quote(text));
            }
        }
    });
    attachments_.push_back(std::move(attachment));
}

void Collector::refuse(const std::string& name, const std::string& why)
{
    withdraw(name);
    if (refused_.count(name) != 0) {
        return;
    }
    if (refused_.size() >= tuning::REFUSED_NAMES_LIMIT) {
        refused_.clear();
    }
    refused_.insert(name);
    note("refused", logferry_monitor::escape(name) + ": " + why);
}

void Collector::withdraw(const std::string& name)
{
    // The entry is emptied as the application's own withdrawal would empty it (which also
    // restarts its proxy watchdog), but only while it still holds `name`: another application
    // may have taken the slot since. An application that announces a refused name again finds
    // it refused again.
    logferry::Listener_segment* list = listener_.segment;
    if (!listener_.is_initialized() || name.size() > logferry::LISTENER_NAME_SIZE) {
        return;
    }
    logferry::Mutex_lock_guard lock(&list->list_mutex.mutex, false);
    for (logferry::Listener_entry& entry : list->entries) {
        if (std::memcmp(entry.channel_name, name.data(), name.size()) == 0 &&
            (name.size() == logferry::LISTENER_NAME_SIZE || entry.channel_name[name.size()] == '\0')) {
            std::memset(entry.channel_name, 0, sizeof entry.channel_name);
            entry.picked_up = 0;
            entry.watchdog_reset = 1;
        }
    }
}

void Collector::detach(Attachment& attachment, const std::string& why)
{
    if (guarded_fault != 0) {
        return;  // the guard detaches it, for the fault
    }
    note("detach", attachment.app.label() + " " + attachment.app.channel + " (" + why + ")");
    for (Output* output : outputs_) {
        output->detached(attachment.app);
    }
    attachment.channel->uninit();
    // Its application has gone (closed its channel, or silent past the limit). One that
    // ended before it saw the attachment never withdrew its announcement, which would hold
    // its listener entry until the proxy watchdog frees it: a burst of short-lived programs
    // would fill the list. The entry is freed now.
    withdraw(attachment.app.channel);
}

void Collector::take_priority(Attachment& attachment)
{
    if (attachment.channel->is_priority_empty_unsynced()) {
        return;
    }
    const std::vector<unsigned char> priority = attachment.channel->pop_priority();
    if (!priority.empty()) {
        const auto read = logferry_decoder::decode_priority_area(priority);
        for (const Record& record : read.records) {
            handle_control(attachment, record, "priority");
        }
        if (!read.error.ok()) {
            report_error(attachment, "priority", read.error, priority.data(), priority.size());
        }
    }
}

bool Collector::drain(Attachment& attachment, bool everything)
{
    take_priority(attachment);
    logferry::Logferry_base& channel = *attachment.channel;
    do {
        batch_.clear();
        batch_ends_.clear();
        {
            // One hold for the whole ring; the units are copied end to end into one buffer
            // (each unit's own copy is freed at once, so the allocator keeps reusing it).
            // The application's records wait while its gate is shut.
            pthread_mutex_t* mutex = &channel.segment->client_mutex.mutex;
            const bool locked = try_lock_ring(mutex);
            if (!locked && !everything && attachment.passes_skipped < tuning::RING_SKIPS_BEFORE_WAITING) {
                ++attachment.passes_skipped;
                skipped_ring_ = true;
                break;
            }
            attachment.passes_skipped = 0;
            const long wait_ms = everything ? tuning::RING_LOCK_LAST_WAIT_MS : tuning::RING_LOCK_WAIT_MS;
            if (!locked && !lock_ring_within(mutex, wait_ms)) {
                skipped_ring_ = true;
                break;  // never a wait without end (see the tuning)
            }
            logferry::Mutex_lock_guard lock(mutex, true);
            if (logferry::atomic_load_u8(&channel.segment->client_buffer_locked) == 0) {
                for (std::vector<unsigned char> unit = channel.pop_unsynced(false); !unit.empty();
                     unit = channel.pop_unsynced(false)) {
                    batch_.insert(batch_.end(), unit.begin(), unit.end());
                    batch_ends_.push_back(batch_.size());
                }
            }
        }
        if (batch_ends_.empty() || guarded_fault != 0) {
            break;  // (what a faulting segment yielded is not passed on)
        }
        timespec now{};
        ::clock_gettime(CLOCK_REALTIME, &now);
        received_seconds_ = static_cast<std::uint32_t>(now.tv_sec);
        received_microseconds_ = static_cast<std::int32_t>(now.tv_nsec / 1000);
        // The application opens its ring only once what it registered stands in the priority
        // area (or was read from it), so whatever the area holds now was written before these
        // units could be read: it is handled first.
        take_priority(attachment);
        std::size_t begin = 0;
        for (const std::size_t end : batch_ends_) {
            if (!stop_reason_.empty() || !handle_ring_unit(attachment, batch_.data() + begin, end - begin)) {
                return false;
            }
            begin = end;
        }
    } while (everything);
    return stop_reason_.empty();
}

bool Collector::read_remainder(Attachment& attachment)
{
    if (!drain(attachment, true)) {
        return false;
    }
    // An application that logged right after a registration or a control request may
    // have ended before its receiver thread released the ring again. Its registrations
    // have all been read by now, so nothing is left to wait for: lift the gate and read
    // what it held back.
    if (attachment.channel->is_client_buffer_locked() && !attachment.channel->is_empty()) {
        attachment.channel->unlock_client_buffer();
        return drain(attachment, true);
    }
    return true;
}

void Collector::handle_control(Attachment& attachment, const Record& record, const char* source)
{
    using namespace logferry;
    using logferry_monitor::quote;
    Application& app = attachment.app;
    switch (record.kind) {
    case KIND_REGISTER_APP:
        app.app_id = record.id;
        app.description = record.text;
        note("app", app.label() + " " + quote(record.text) + " channel=" + app.channel);
        break;
    case KIND_REGISTER_CONTEXT: {
        Context& context = app.contexts[record.context_handle];
        context.id = record.id;
        context.level = record.log_level;
        context.description = record.text;
        note("context", app.label() + " " + logferry_monitor::escape(record.id) +
                            " handle=" + std::to_string(record.context_handle) +
                            " level=" + logferry_monitor::level_name(record.log_level) + " " + quote(record.text));
        for (const auto& wanted : options_.levels) {
            if (wanted.first == record.id) {
                send_level(attachment, record.context_handle, context, wanted.second);
            }
        }
        break;
    }
    case KIND_DISABLE_REMOTE:
        handle_request(attachment, Request::disable_remote, "", "disable-remote");
        break;
    case KIND_ENABLE_LOCAL_PRINT:
        handle_request(attachment, Request::enable_local_print, "", "enable-local-print");
        break;
    case KIND_INIT_FILE:
        handle_request(attachment, Request::init_file, record.text, "init-file " + quote(record.text));
        break;
    case KIND_UNREGISTER_APP:
        note("unregister", app.label());
        break;
    case KIND_UNREGISTER_CONTEXT:
        note("unregister", app.label() + " " + app.context_label(record.context_handle) +
                               " handle=" + std::to_string(record.context_handle));
        break;
    default:
        note("error",
             app.label() + " " + source + ": unexpected " + logferry_decoder::kind_name(record.kind) + " record");
        break;
    }
}

void Collector::handle_request(Attachment& attachment, Request request, const std::string& file,
                               const std::string& text)
{
    Application& app = attachment.app;
    if (request == Request::disable_remote) {
        app.remote = false;
    } else if (request == Request::enable_local_print) {
        app.local_print = true;
    }
    note("control", app.label() + " " + text);
    for (Output* output : outputs_) {
        std::string why;
        if (!output->request(app, request, file, why)) {
            note("refused", app.label() + " " + text + ": " + why);
        }
    }
}

bool Collector::send_level(Attachment& attachment, std::uint32_t handle, Context& context, std::uint8_t level)
{
    std::vector<unsigned char> update(logferry::wire::LEVEL_UPDATE_SIZE);
    logferry::wire::encode_level_update(update.data(), level, handle);
    const std::string what = attachment.app.label() + " " + logferry_monitor::escape(context.id) +
                             " handle=" + std::to_string(handle) + " level=" + logferry_monitor::level_name(level);
    if (attachment.channel->push(update)) {
        context.level = level;
        note("set-level", what);
        return true;
    }
    note("error", "cannot send set-level " + what);
    return false;
}

std::size_t Collector::set_level(const Id_choice& app, const Id_choice& context, std::uint8_t level)
{
    std::size_t reached = 0;
    for (auto& attachment : attachments_) {
        if (!attachment->channel->is_initialized() || !app(attachment->app.app_id) || attachment->app.app_id.empty()) {
            continue;
        }
        guarded(*attachment, [&] {
            for (auto& entry : attachment->app.contexts) {
                if (context(entry.second.id) && send_level(*attachment, entry.first, entry.second, level)) {
                    ++reached;
                }
            }
        });
    }
    return reached;
}

std::size_t Collector::set_default_level(std::uint8_t level)
{
    std::size_t reached = 0;
    for (auto& attachment : attachments_) {
        if (!attachment->channel->is_initialized()) {
            continue;
        }
        guarded(*attachment, [&] {
            for (auto& entry : attachment->app.contexts) {
                reached += send_level(*attachment, entry.first, entry.second, level) ? 1 : 0;
            }
        });
    }
    return reached;
}

std::vector<const Application*> Collector::applications() const
{
    std::vector<const Application*> apps;
    for (const auto& attachment : attachments_) {
        if (attachment->channel->is_initialized() && !attachment->app.app_id.empty()) {
            apps.push_back(&attachment->app);
        }
    }
    return apps;
}

bool Collector::handle_ring_unit(Attachment& attachment, const unsigned char* unit, std::size_t size)
{
    if (view_.read(unit, size)) {
        return deliver(attachment, unit, size);
    }
    if (!view_.single) {
        report_error(attachment, "ring", view_.error, unit, size);
        return true;
    }
    const auto record = logferry_decoder::decode_record(unit, size);
    if (record.record.kind != logferry::KIND_WRITE_ENCODED_MESSAGE) {
        handle_control(attachment, record.record, "ring");
        return true;
    }
    // An already encoded message: one argument holding its bytes, with no context.
    view_.has_start = false;
    view_.level = 0;
    view_.arg_count = 0;
    if (view_.args.empty()) {
        view_.args.emplace_back();
    }
    view_.args[0] = logferry_daemon::Argument();
    view_.args[0].kind = logferry_daemon::Arg_kind::encoded_message;
    view_.args[0].data = record.record.payload.data();
    view_.args[0].size = record.record.payload.size();
    view_.arg_count = 1;
    return deliver(attachment, unit, size);
}

// Hands a log message (read into view_) to the outputs.
bool Collector::deliver(Attachment& attachment, const unsigned char* unit, std::size_t size)
{
    const Application& app = attachment.app;
    Log_message message;
    message.unit = unit;
    message.size = size;
    message.has_start = view_.has_start;
    message.level = view_.level;
    message.context_handle = view_.context_handle;
    message.timestamp = view_.timestamp;
    message.args = view_.args.data();
    message.arg_count = view_.arg_count;
    message.received_seconds = received_seconds_;
    message.received_microseconds = received_microseconds_;
    for (Output* output : outputs_) {
        output->message(app, message);
    }
    return count_message();
}

void Collector::report_error(const Attachment& attachment, const char* source, const logferry_decoder::Error& error,
                             const unsigned char* bytes, std::size_t size)
{
    const std::size_t shown = size < tuning::UNDECODABLE_DUMP_LIMIT ? size : tuning::UNDECODABLE_DUMP_LIMIT;
    std::string dump = logferry_monitor::hex_bytes(std::vector<std::uint8_t>(bytes, bytes + shown));
    if (shown < size) {
        dump += " ...";
    }
    note("error", attachment.app.label() + " " + source + ": " + logferry_decoder::describe(error) + " [" +
                      std::to_string(size) + " bytes: " + dump + "]");
}

bool Collector::count_message()
{
    ++messages_;
    if (options_.max_messages != 0 && messages_ >= options_.max_messages) {
        stop_reason_ = "count";
        return false;
    }
    return true;
}

}  // namespace logferry_collector
