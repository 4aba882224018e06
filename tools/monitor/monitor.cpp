// The monitor's service loop.
//
// One thread serves every application: every 200 ms it runs the listener's proxy
// watchdogs, stamps its own end of every channel and looks for applications that have
// gone quiet; every 2 ms it picks up newly announced channels and drains the priority
// area and the ring of each attached one. Each output line is written with a single
// write call, so lines never mix even when the output is shared.

#include "monitor.hpp"

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <iostream>

#include "logferry/message.hpp"
#include "render.hpp"
#include "wire/shared_fields.hpp"
#include "wire/wire.hpp"

namespace logferry_monitor {
namespace {

using logferry_decoder::Record;
using Clock = std::chrono::steady_clock;

constexpr auto HOUSEKEEPING_PERIOD = std::chrono::milliseconds(200);
constexpr long POLL_PERIOD_NS = 2 * 1000 * 1000;
// An application whose watchdog is further behind the clock than this has gone.
constexpr std::int64_t SILENCE_LIMIT_SECONDS = 5;
// Ring units taken from one application in one pass, so that a busy one cannot starve
// the others.
constexpr int UNITS_PER_PASS = 256;
// Bytes shown of a unit that cannot be decoded.
constexpr std::size_t DUMP_LIMIT = 32;

std::int64_t monotonic_seconds()
{
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::int64_t>(now.tv_sec);
}

void poll_pause()
{
    timespec pause{0, POLL_PERIOD_NS};
    ::nanosleep(&pause, nullptr);
}

std::string padded(const std::string& word)
{
    return word.size() >= 10 ? word : word + std::string(10 - word.size(), ' ');
}

// "1 application", "2 applications", "0 applications".
std::string counted(std::uint64_t count, const std::string& noun)
{
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

// "-- <event> <details>": every line that is not a log message.
std::string event(const std::string& word, const std::string& details) { return "-- " + padded(word) + " " + details; }

}  // namespace

Monitor::Monitor(Options options) : options_(std::move(options)), listener_(true) {}

Monitor::~Monitor() { shutdown("exit"); }

bool Monitor::start()
{
    // The listener's own init would wait for the lock of a daemon that is already
    // running; refuse instead.
    listener_.check_lock_listener_name();
    const int probe = ::open(listener_.lock_listener_name.c_str(), O_RDONLY);
    if (probe >= 0) {
        const bool held = ::lockf(probe, F_TEST, 0) == -1 && (errno == EAGAIN || errno == EACCES);
        ::close(probe);
        if (held) {
            std::cerr << "logferry-monitor: another daemon holds " << listener_.lock_listener_name << std::endl;
            return false;
        }
    }
    if (!listener_.init()) {
        std::cerr << "logferry-monitor: cannot take the listener role (lock file " << listener_.lock_listener_name
                  << ")" << std::endl;
        return false;
    }
    started_ = true;
    emit(event("listening", "lock=" + listener_.lock_listener_name));
    return true;
}

void Monitor::run(const volatile std::sig_atomic_t& stop)
{
    const auto began = Clock::now();
    auto next_housekeeping = began;
    while (started_ && stop == 0 && stop_reason_.empty()) {
        const auto now = Clock::now();
        if (now >= next_housekeeping) {
            next_housekeeping = now + HOUSEKEEPING_PERIOD;
            listener_.check_watchdogs();
            const std::int64_t seconds = monotonic_seconds();
            for (auto& attachment : attachments_) {
                attachment->channel->is_connection_active();
                const std::int64_t stamp = logferry::atomic_load_i64(&attachment->channel->segment->client_watchdog);
                if (stamp != 0 && seconds - stamp > SILENCE_LIMIT_SECONDS) {
                    if (!read_remainder(*attachment)) {
                        break;
                    }
                    detach(*attachment, "no sign of life for " + std::to_string(seconds - stamp) + " s");
                }
            }
        }
        for (std::string name = listener_.get_next(); !name.empty(); name = listener_.get_next()) {
            attach(name);
        }
        for (auto& attachment : attachments_) {
            if (!attachment->channel->is_initialized()) {
                continue;
            }
            // Read the stamp first: whatever the application wrote before it cleared the
            // stamp on its way out is drained below.
            const std::int64_t stamp = logferry::atomic_load_i64(&attachment->channel->segment->client_watchdog);
            if (!(stamp == 0 ? read_remainder(*attachment) : drain(*attachment, false))) {
                break;
            }
            if (stamp == 0) {
                detach(*attachment, "closed its channel");
            }
        }
        for (auto it = attachments_.begin(); it != attachments_.end();) {
            it = (*it)->channel->is_initialized() ? it + 1 : attachments_.erase(it);
        }
        if (options_.max_seconds > 0.0 &&
            std::chrono::duration<double>(Clock::now() - began).count() >= options_.max_seconds) {
            stop_reason_ = "duration";
        }
        if (stop_reason_.empty()) {
            poll_pause();
        }
    }
    if (stop_reason_.empty()) {
        stop_reason_ = "signal";
    }
}

void Monitor::shutdown(const std::string& reason)
{
    if (!started_) {
        return;
    }
    started_ = false;
    for (auto& attachment : attachments_) {
        attachment->channel->uninit();
    }
    attachments_.clear();
    listener_.uninit();
    emit(event("stopped", (stop_reason_.empty() ? reason : stop_reason_) + ": " + counted(messages_, "log message") +
                              " from " + counted(applications_, "application")));
}

void Monitor::attach(const std::string& name)
{
    for (const auto& attachment : attachments_) {
        if (attachment->name == name && attachment->channel->is_initialized()) {
            return;  // announced again while attached: the attachment stands
        }
    }
    auto attachment = std::make_unique<Attachment>();
    attachment->channel = std::make_unique<logferry::Logferry_base>();
    attachment->name = name;
    if (!attachment->channel->init(name)) {
        emit(event("error", name + ": cannot attach"));
        return;
    }
    ++applications_;
    emit(event("attach", name));
    for (const std::string& text : options_.texts) {
        std::vector<unsigned char> bytes(text.begin(), text.end());
        bytes.push_back('\n');
        if (attachment->channel->push(bytes)) {
            emit(event("say", name + " " + quote(text)));
        } else {
            emit(event("error", name + ": cannot send " + quote(text)));
        }
    }
    attachments_.push_back(std::move(attachment));
}

void Monitor::detach(Attachment& attachment, const std::string& why)
{
    emit(event("detach", label(attachment) + " " + attachment.name + " (" + why + ")"));
    attachment.channel->uninit();
}

void Monitor::take_priority(Attachment& attachment)
{
    const std::vector<unsigned char> priority = attachment.channel->pop_priority();
    if (!priority.empty()) {
        const auto read = logferry_decoder::decode_priority_area(priority);
        for (const Record& record : read.records) {
            handle_control(attachment, record, "priority");
        }
        if (!read.error.ok()) {
            report_error(attachment, "priority", read.error, priority);
        }
    }
}

bool Monitor::drain(Attachment& attachment, bool everything)
{
    take_priority(attachment);
    for (int i = 0; everything || i < UNITS_PER_PASS; ++i) {
        if (!stop_reason_.empty()) {
            return false;
        }
        const std::vector<unsigned char> bytes = attachment.channel->pop();
        if (bytes.empty()) {
            break;
        }
        // The application opens its ring only once what it registered stands in the priority
        // area (or was read from it), so whatever the area holds now was written before this
        // unit could be read, possibly after the look above: it is handled first.
        take_priority(attachment);
        if (!handle_ring_unit(attachment, bytes)) {
            return false;
        }
    }
    return stop_reason_.empty();
}

bool Monitor::read_remainder(Attachment& attachment)
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

void Monitor::handle_control(Attachment& attachment, const Record& record, const char* source)
{
    using namespace logferry;
    switch (record.kind) {
    case KIND_REGISTER_APP:
        attachment.app_id = record.id;
        emit(event("app", record.id + " " + quote(record.text) + " channel=" + attachment.name));
        break;
    case KIND_REGISTER_CONTEXT:
        attachment.contexts[record.context_handle] = record.id;
        emit(event("context", label(attachment) + " " + record.id + " handle=" + std::to_string(record.context_handle) +
                                  " level=" + level_name(record.log_level) + " " + quote(record.text)));
        send_level_updates(attachment, record);
        break;
    case KIND_DISABLE_REMOTE:
        emit(event("control", label(attachment) + " disable-remote"));
        break;
    case KIND_ENABLE_LOCAL_PRINT:
        emit(event("control", label(attachment) + " enable-local-print"));
        break;
    case KIND_INIT_FILE:
        emit(event("control", label(attachment) + " init-file " + quote(record.text)));
        break;
    case KIND_UNREGISTER_APP:
        emit(event("unregister", label(attachment)));
        break;
    case KIND_UNREGISTER_CONTEXT:
        emit(event("unregister", label(attachment) + " " + context_label(attachment, record.context_handle) +
                                     " handle=" + std::to_string(record.context_handle)));
        break;
    default:
        emit(event("error", label(attachment) + " " + source + ": unexpected " +
                                logferry_decoder::kind_name(record.kind) + " record"));
        break;
    }
}

void Monitor::send_level_updates(Attachment& attachment, const Record& context)
{
    for (const auto& wanted : options_.levels) {
        if (wanted.first != context.id) {
            continue;
        }
        const std::uint32_t handle = context.context_handle;
        std::vector<unsigned char> update(logferry::wire::LEVEL_UPDATE_SIZE);
        logferry::wire::encode_level_update(update.data(), wanted.second, handle);
        const std::string what = label(attachment) + " " + context.id + " handle=" + std::to_string(handle) +
                                 " level=" + level_name(wanted.second);
        if (attachment.channel->push(update)) {
            emit(event("set-level", what));
        } else {
            emit(event("error", "cannot send set-level " + what));
        }
    }
}

bool Monitor::handle_ring_unit(Attachment& attachment, const std::vector<unsigned char>& bytes)
{
    using logferry_decoder::Unit_shape;
    const auto unit = logferry_decoder::decode_ring_unit(bytes);
    if (unit.shape == Unit_shape::invalid) {
        report_error(attachment, "ring", unit.error, bytes);
        return true;
    }
    if (unit.shape == Unit_shape::single_record) {
        const Record& record = unit.records.front();
        if (record.kind == logferry::KIND_WRITE_ENCODED_MESSAGE) {
            const std::string body =
                record.is(logferry_decoder::payload_omitted)
                    ? "encoded-message[" + std::to_string(record.payload_size) + " bytes not carried]"
                    : "encoded-message[" + hex_bytes(record.payload) + "]";
            emit(render_log_line("-", label(attachment), "-", "-", {body}));
            return count_message();
        }
        handle_control(attachment, record, "ring");
        return true;
    }

    const Record* start = unit.start();
    std::vector<std::string> arguments;
    for (const Record& record : unit.records) {
        if (&record == start || record.kind == logferry::KIND_WRITE_FINISH) {
            continue;
        }
        if (record.kind == logferry::KIND_WRITE_START) {
            // The application started the same stream again before finishing it.
            arguments.push_back("<start " + context_label(attachment, record.context_handle) + " " +
                                level_name(record.log_level) + " " + render_timestamp(record.timestamp) + ">");
            continue;
        }
        arguments.push_back(render_argument(record));
    }
    if (start == nullptr) {
        emit(render_log_line("-", label(attachment), "-", "-", arguments));
    } else {
        emit(render_log_line(render_timestamp(start->timestamp), label(attachment),
                             context_label(attachment, start->context_handle), level_name(start->log_level),
                             arguments));
    }
    return count_message();
}

void Monitor::report_error(const Attachment& attachment, const char* source, const logferry_decoder::Error& error,
                           const std::vector<unsigned char>& bytes)
{
    const std::size_t shown = bytes.size() < DUMP_LIMIT ? bytes.size() : DUMP_LIMIT;
    std::string dump = hex_bytes(std::vector<std::uint8_t>(bytes.begin(), bytes.begin() + static_cast<long>(shown)));
    if (shown < bytes.size()) {
        dump += " ...";
    }
    emit(event("error", label(attachment) + " " + source + ": " + logferry_decoder::describe(error) + " [" +
                            std::to_string(bytes.size()) + " bytes: " + dump + "]"));
}

bool Monitor::count_message()
{
    ++messages_;
    if (options_.max_messages != 0 && messages_ >= options_.max_messages) {
        stop_reason_ = "count";
        return false;
    }
    return true;
}

void Monitor::emit(const std::string& line)
{
    const std::string text = line + "\n";
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(STDOUT_FILENO, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            if (stop_reason_.empty()) {
                stop_reason_ = "output closed";
            }
            return;
        }
        done += static_cast<std::size_t>(n);
    }
}

std::string Monitor::label(const Attachment& attachment)
{
    return attachment.app_id.empty() ? attachment.name : attachment.app_id;
}

std::string Monitor::context_label(const Attachment& attachment, std::uint32_t handle)
{
    const auto it = attachment.contexts.find(handle);
    return it != attachment.contexts.end() ? it->second : "#" + std::to_string(handle);
}

}  // namespace logferry_monitor
