// The monitor's service loop.
//
// One thread serves every application and every DLT client. Each pass of the collector
// drains every ring; the loop goes straight into the next pass while anything arrived and
// waits (in the TCP server's poll, or a plain sleep without it) only when every ring was
// empty.

#include "monitor.hpp"

#include <iostream>

namespace logferry_monitor {
namespace {

// Wait of an idle pass.
constexpr int IDLE_WAIT_MS = 2;

}  // namespace

Monitor::Monitor(const Options& options) : options_(options), collector_(options.collector), text_(options.quiet)
{
    collector_.add_output(&text_);
    // Always there: without a file, a port or a directory it only answers applications'
    // file requests (with a refusal).
    dlt_ = std::make_unique<Dlt_output>(options.dlt, collector_);
    collector_.add_output(dlt_.get());
}

bool Monitor::start()
{
    if (!dlt_->open()) {
        return false;
    }
    if (!collector_.start()) {
        return false;
    }
    if (options_.dlt.tcp) {
        collector_.note("dlt-port", std::to_string(dlt_->port()));
        text_.flush();
        if (options_.quiet) {
            std::cout << "dlt-port " << dlt_->port() << std::endl;
        }
    }
    return true;
}

void Monitor::run(const volatile std::sig_atomic_t& stop)
{
    while (stop == 0 && collector_.stop_reason().empty()) {
        const bool busy = collector_.poll();
        if (text_.closed()) {
            collector_.stop("output closed");
        }
        if (!collector_.stop_reason().empty()) {
            break;
        }
        dlt_->service(busy ? 0 : IDLE_WAIT_MS);
    }
}

void Monitor::shutdown(const std::string& reason)
{
    collector_.shutdown(reason);
    dlt_->close();
    text_.flush();
}

}  // namespace logferry_monitor
