// The DLT outputs: every log message encoded once as a DLT verbose message, then appended
// to a DLT storage file, sent to the connected DLT clients (TCP), and appended to the file
// an application asked for. Control requests of DLT clients go back to the collector.
//
// Everything DLT has and the collector does not lives here: the IDs padded to four bytes,
// the message counters of each context, the level a message without one counts at, the
// session ID (the application's process id) and the DLT form of every argument.

#ifndef LOGFERRY_TOOLS_MONITOR_DLT_OUTPUT_HPP
#define LOGFERRY_TOOLS_MONITOR_DLT_OUTPUT_HPP

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "collector.hpp"
#include "dlt_control.hpp"
#include "dlt_file.hpp"
#include "dlt_message.hpp"
#include "dlt_tcp.hpp"
#include "file_thread.hpp"
#include "options.hpp"

namespace logferry_monitor {

/// Longest file name an application may ask for.
constexpr std::size_t MAX_APP_FILE_NAME = 64;

/// Where an application's file request may write: `dir`/`name`, empty with `why` when the
/// name is refused (empty, over-long, non-printable, "." or "..", containing "..", or
/// a slash, unless it is an absolute path whose directory is exactly `dir`).
std::string app_file_path(const std::string& dir, const std::string& name, std::string& why);

class Dlt_output : public logferry_collector::Output {
public:
    Dlt_output(const Options& options, logferry_collector::Collector& collector);

    /// Opens the file and the TCP port; false with a line on stderr.
    bool open();
    /// Whether open() failed on the TCP port (taken, or not to be had at all).
    bool port_failed() const { return port_failed_; }
    std::uint16_t port() const { return server_.port(); }
    /// The most DLT clients at once: --dlt-max-clients, lowered to what the descriptor limit allows.
    std::size_t client_limit() const { return server_.client_limit(); }

    void note(const std::string& /*word*/, const std::string& /*details*/) override {}
    void message(const logferry_collector::Application& application,
                 const logferry_collector::Log_message& message) override;
    bool request(const logferry_collector::Application& application, logferry_collector::Request request,
                 const std::string& file, std::string& why) override;
    void detached(const logferry_collector::Application& application) override;
    void flush() override;

    /// Serves the TCP clients, waiting at most `timeout_ms` when there is nothing to do.
    void service(int timeout_ms);
    void close();

private:
    // The DLT message counters of an attached application, each wrapping at 255.
    struct Counters {
        std::unordered_map<std::uint32_t, std::uint8_t> contexts;  // by handle, registered contexts only
        std::uint8_t unregistered = 0;                             // messages without a registered context
    };

    void control(int client, const logferry_dlt::Control_request& request);
    std::uint8_t next_counter(const logferry_collector::Application& application,
                              const logferry_collector::Log_message& message);
    logferry_dlt::Message dlt_message(const logferry_collector::Application& application,
                                      const logferry_collector::Log_message& message, std::uint8_t counter);

    Options options_;
    logferry_collector::Collector& collector_;
    char ecu_[4] = {};
    File_thread file_;
    logferry_dlt::Tcp_server server_;
    std::map<std::string, std::unique_ptr<logferry_dlt::File_writer>> app_files_;  // by channel
    // By application, from its first message until it is detached (the collector detaches an
    // application before it lets it go, so no entry outlives its application).
    std::unordered_map<const logferry_collector::Application*, Counters> counters_;
    std::int8_t default_level_ = 4;
    bool port_failed_ = false;
    std::uint64_t too_large_ = 0;
    unsigned char buffer_[1 << 17];  // one encoded message
};

}  // namespace logferry_monitor

#endif  // LOGFERRY_TOOLS_MONITOR_DLT_OUTPUT_HPP
