// logferry-monitor: a daemon-side program that takes the log daemon's role towards the
// applications, decodes what they send and prints one line per event.

#ifndef LOGFERRY_TOOLS_MONITOR_MONITOR_HPP
#define LOGFERRY_TOOLS_MONITOR_MONITOR_HPP

#include <csignal>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "decoder.hpp"
#include "logferry/channel.hpp"
#include "logferry/listener.hpp"

namespace logferry_monitor {

struct Options {
    // Level updates to send: context ID and level, applied to every context registered
    // under that ID.
    std::vector<std::pair<std::string, std::uint8_t>> levels;
    // Console texts to send to every application as soon as it is attached.
    std::vector<std::string> texts;
    std::uint64_t max_messages = 0;  // stop after this many log messages; 0: no limit
    double max_seconds = 0.0;        // stop after this long; 0: no limit
};

class Monitor {
public:
    explicit Monitor(Options options);
    ~Monitor();
    Monitor(const Monitor&) = delete;
    Monitor& operator=(const Monitor&) = delete;

    /// Takes the daemon's role: refuses when another daemon holds the lock file, else
    /// creates the listener segment and takes the lock. False with a line on stderr.
    bool start();

    /// Serves the applications until `stop` becomes non-zero or a limit is reached.
    void run(const volatile std::sig_atomic_t& stop);

    /// Detaches from every application and gives the listener role up (the listener
    /// segment and the lock file are removed). Called by the destructor as well.
    void shutdown(const std::string& reason);

private:
    struct Attachment {
        std::unique_ptr<logferry::Logferry_base> channel;
        std::string name;
        std::string app_id;                                       // empty until the application has registered
        std::unordered_map<std::uint32_t, std::string> contexts;  // handle to context ID
    };

    void attach(const std::string& name);
    void detach(Attachment& attachment, const std::string& why);
    // Drains the priority area and the ring (a bounded number of units, or everything);
    // false once a limit stops the monitor.
    bool drain(Attachment& attachment, bool everything);
    // Handles what the priority area holds: registrations and control requests.
    void take_priority(Attachment& attachment);
    // Before a detach: drains everything, including what the application's gate still
    // holds back.
    bool read_remainder(Attachment& attachment);
    void handle_control(Attachment& attachment, const logferry_decoder::Record& record, const char* source);
    bool handle_ring_unit(Attachment& attachment, const std::vector<unsigned char>& bytes);
    void send_level_updates(Attachment& attachment, const logferry_decoder::Record& context);
    void report_error(const Attachment& attachment, const char* source, const logferry_decoder::Error& error,
                      const std::vector<unsigned char>& bytes);
    bool count_message();
    void emit(const std::string& line);

    static std::string label(const Attachment& attachment);
    static std::string context_label(const Attachment& attachment, std::uint32_t handle);

    Options options_;
    logferry::Logferry_listener listener_;
    std::vector<std::unique_ptr<Attachment>> attachments_;
    std::uint64_t messages_ = 0;
    std::uint64_t applications_ = 0;
    std::string stop_reason_;
    bool started_ = false;
};

}  // namespace logferry_monitor

#endif  // LOGFERRY_TOOLS_MONITOR_MONITOR_HPP
