// logferry-monitor: a daemon-side program that takes the log daemon's role towards the
// applications. The collector attaches and drains their channels; the outputs print text
// lines and forward every message as DLT to a file and to TCP clients.

#ifndef LOGFERRY_TOOLS_MONITOR_MONITOR_HPP
#define LOGFERRY_TOOLS_MONITOR_MONITOR_HPP

#include <csignal>
#include <memory>

#include "collector.hpp"
#include "dlt_output.hpp"
#include "options.hpp"
#include "text_output.hpp"

namespace logferry_monitor {

class Monitor {
public:
    explicit Monitor(const Options& options);
    ~Monitor() { shutdown("exit"); }
    Monitor(const Monitor&) = delete;
    Monitor& operator=(const Monitor&) = delete;

    /// Takes the daemon's role and opens the outputs; false with a line on stderr.
    bool start();
    /// After start() failed: whether it was for the DLT port.
    bool dlt_port_failed() const { return dlt_ && dlt_->port_failed(); }

    /// Serves the applications until `stop` becomes non-zero or a limit is reached.
    void run(const volatile std::sig_atomic_t& stop);

    /// Detaches from every application, gives the listener role up and closes the outputs.
    void shutdown(const std::string& reason);

private:
    Options options_;
    logferry_collector::Collector collector_;
    Text_output text_;
    std::unique_ptr<Dlt_output> dlt_;
};

}  // namespace logferry_monitor

#endif  // LOGFERRY_TOOLS_MONITOR_MONITOR_HPP
