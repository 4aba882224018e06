// The collector: the daemon side's end of every application's channel.
//
// It holds the listener list, attaches every announced channel, keeps each attachment
// alive, drains priority areas and rings, decodes what arrives and hands registrations,
// control requests and log messages to its outputs. Outputs (text lines, DLT file, DLT
// TCP, ...) see applications, contexts and messages, never channels; the collector in
// turn knows no output format. Requests that go back to the applications (level
// updates) enter through `set_level` and `set_default_level`.
//
// Throughput. Per pass, every attached ring is emptied in one hold of its mutex (the
// channel's unsynchronised reads), then the hold is released and the units are decoded
// and handed on; each application gets one ring's worth per pass, so a flooding one
// cannot starve the others. A log message is read in place (Message_view): its arguments'
// texts and payloads point into the unit, and nothing is allocated for it here. The
// outputs get it in no output's form; IDs, counters and encoding as DLT has them are the
// DLT output's. `poll` reports whether there was anything to do, so that the caller sleeps
// only when every ring was empty.
//
// Hostile peers. An announced name is attached only when it has the form the front end
// gives channel names (`is_channel_name`) and names a shared-memory object of exactly a
// channel segment's size; anything else is refused with one line and withdrawn from the
// listener list. Every access to an attached segment runs under a guard: an access fault
// inside the segment (the application shrank it after the attach) has the faulting page
// replaced by zeros and is noted, and the guard then detaches that channel with one line;
// a fault anywhere else still ends the process. Whatever another process wrote is escaped
// before it is printed.
//
// Applications that go. An application that ended before it saw the attachment never
// withdrew its announcement. When an application has gone (it closed its channel, stayed
// silent past the limit, or its object vanished before the attach), its listener entry is
// freed at once as its own withdrawal would free it, if the entry still holds its name, so
// that short-lived programs do not keep the list full until the proxy watchdogs expire.

#ifndef LOGFERRY_TOOLS_COLLECTOR_COLLECTOR_HPP
#define LOGFERRY_TOOLS_COLLECTOR_COLLECTOR_HPP

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "decoder.hpp"
#include "logferry/channel.hpp"
#include "logferry/listener.hpp"
#include "message_view.hpp"

namespace logferry_collector {

struct Context {
    std::string id;
    std::uint8_t level = 0;
    std::string description;
};

/// One attached application as the outputs see it.
struct Application {
    std::string channel;  // the channel's segment name
    std::string app_id;   // empty until the application has registered
    std::string description;
    // The process id: the process that maps the channel's segment (looked up in /proc once
    // at attach, among the processes whose id ends in the five digits the channel name
    // carries); the number in the name when no such process is found.
    std::uint32_t pid = 0;
    bool local_print = false;                             // it asked for its messages as text
    bool remote = true;                                   // it did not ask to stop remote output
    std::unordered_map<std::uint32_t, Context> contexts;  // by handle

    /// The application ID, or the channel name before registration, escaped for printing.
    std::string label() const;
    /// The context ID of a handle (escaped for printing), or "#<handle>".
    std::string context_label(std::uint32_t handle) const;
};

/// One log message as received: the ring unit and what it says, its start record's fields
/// and its arguments (which point into the unit, or into the decoder's copy of it).
struct Log_message {
    const unsigned char* unit = nullptr;
    std::size_t size = 0;
    bool has_start = false;  // without a start record: no context, level or time stamp
    std::uint8_t level = 0;
    std::uint32_t context_handle = 0;
    std::uint32_t timestamp = 0;  // 0.1 ms units
    const logferry_daemon::Argument* args = nullptr;
    std::size_t arg_count = 0;
    // Wall clock when it was taken from the ring (read once per ring).
    std::uint32_t received_seconds = 0;
    std::int32_t received_microseconds = 0;
};

/// Application requests as received from the priority area or the ring.
enum class Request : std::uint8_t { disable_remote, enable_local_print, init_file };

class Output {
public:
    virtual ~Output() = default;
    /// An event line: "-- <word> <details>".
    virtual void note(const std::string& word, const std::string& details) = 0;
    virtual void message(const Application& application, const Log_message& message) = 0;
    /// An application request; true when taken, false with `why` when refused.
    virtual bool request(const Application& /*application*/, Request /*request*/, const std::string& /*file*/,
                         std::string& /*why*/)
    {
        return true;
    }
    virtual void detached(const Application& /*application*/) {}
    /// End of a pass: batched output goes out.
    virtual void flush() {}
};

struct Options {
    // Level updates to send: context ID and level, applied to every context registered
    // under that ID.
    std::vector<std::pair<std::string, std::uint8_t>> levels;
    // Console texts to send to every application as soon as it is attached.
    std::vector<std::string> texts;
    std::uint64_t max_messages = 0;  // stop after this many log messages; 0: no limit
    double max_seconds = 0.0;        // stop after this long; 0: no limit
};

class Collector {
public:
    explicit Collector(Options options);
    ~Collector();
    Collector(const Collector&) = delete;
    Collector& operator=(const Collector&) = delete;

    void add_output(Output* output) { outputs_.push_back(output); }

    /// Takes the daemon's role: refuses when another daemon holds the lock file, else
    /// creates the listener segment and takes the lock. False with a line on stderr.
    bool start();

    /// One pass: housekeeping when due, new channels, every ring and priority area.
    /// True when anything arrived. Outputs are flushed at its end.
    bool poll();

    /// Why the collector stopped ("count", "duration", "output closed"), empty while running.
    const std::string& stop_reason() const { return stop_reason_; }

    /// Stops the collector (an output can no longer write).
    void stop(const std::string& reason)
    {
        if (stop_reason_.empty()) {
            stop_reason_ = reason;
        }
    }

    /// Detaches from every application and gives the listener role up.
    void shutdown(const std::string& reason);

    /// Which IDs a level update is for: true for the application or context ID `id`.
    using Id_choice = std::function<bool(const std::string& id)>;
    /// Sends a level update to every chosen context of every chosen registered application.
    /// Returns the number of contexts reached.
    std::size_t set_level(const Id_choice& app, const Id_choice& context, std::uint8_t level);
    /// Sends `level` to every context of every attached application.
    std::size_t set_default_level(std::uint8_t level);
    /// The registered applications.
    std::vector<const Application*> applications() const;

    /// Forwards an error line to the outputs.
    void note(const std::string& word, const std::string& details);

private:
    struct Attachment {
        std::unique_ptr<logferry::Logferry_base> channel;
        Application app;
        // Passes in a row that found its ring's mutex held and went on to the next ring.
        unsigned int passes_skipped = 0;
    };

    void housekeeping();
    void attach(const std::string& name);
    void refuse(const std::string& name, const std::string& why);
    void withdraw(const std::string& name);
    // Runs `work` on the attachment's segment; an access fault inside the segment detaches
    // the attachment instead. False after such a fault.
    template <typename Work>
    bool guarded(Attachment& attachment, Work&& work);
    void detach_faulted(Attachment& attachment);
    void detach(Attachment& attachment, const std::string& why);
    bool drain(Attachment& attachment, bool everything);
    void take_priority(Attachment& attachment);
    bool read_remainder(Attachment& attachment);
    void handle_control(Attachment& attachment, const logferry_decoder::Record& record, const char* source);
    void handle_request(Attachment& attachment, Request request, const std::string& file, const std::string& text);
    bool handle_ring_unit(Attachment& attachment, const unsigned char* unit, std::size_t size);
    bool deliver(Attachment& attachment, const unsigned char* unit, std::size_t size);
    bool send_level(Attachment& attachment, std::uint32_t handle, Context& context, std::uint8_t level);
    void report_error(const Attachment& attachment, const char* source, const logferry_decoder::Error& error,
                      const unsigned char* bytes, std::size_t size);
    bool count_message();

    Options options_;
    logferry::Logferry_listener listener_;
    std::vector<std::unique_ptr<Attachment>> attachments_;
    std::vector<Output*> outputs_;
    // Units taken in one hold of a ring's mutex, end to end, and where each one ends.
    std::vector<unsigned char> batch_;
    std::vector<std::size_t> batch_ends_;
    std::uint32_t received_seconds_ = 0;
    std::int32_t received_microseconds_ = 0;
    logferry_decoder::Message_view view_;
    std::chrono::steady_clock::time_point began_;
    std::chrono::steady_clock::time_point next_housekeeping_;
    std::uint64_t messages_ = 0;
    std::uint64_t applications_ = 0;
    bool skipped_ring_ = false;  // this pass passed a ring over
    std::string stop_reason_;
    bool started_ = false;
    // Names refused once: refused again without a line, so that an application that keeps
    // announcing one cannot flood the output.
    std::set<std::string> refused_;
};

/// Whether `name` has the form of a channel name as the front end forms it: "/logferry-",
/// an application ID of letters, digits, '_', '.' and '-', "-", 1 to 5 decimal digits (the
/// process id), "-", 1 to 8 lowercase hexadecimal digits (the time stamp); at most
/// LISTENER_NAME_SIZE bytes in all, the longest name the listener list carries.
bool is_channel_name(const std::string& name);

}  // namespace logferry_collector

#endif  // LOGFERRY_TOOLS_COLLECTOR_COLLECTOR_HPP
