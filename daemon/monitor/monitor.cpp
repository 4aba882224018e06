// The monitor's service loop.
//
// One thread serves every application and every DLT client. Each pass of the collector
// drains every ring; the loop goes straight into the next pass while anything arrived and
// waits (in the TCP server's poll, or a plain sleep) only when every ring was empty.

#include "monitor.hpp"

#include <time.h>

#include <algorithm>
#include <iostream>

#include "tuning.hpp"

namespace logferry_monitor {
namespace {

// What the collector is asked to do: the levels and texts to send, and when to stop.
logferry_collector::Options collector_options(const Options& options)
{
    logferry_collector::Options collector;
    collector.levels = options.levels;
    collector.texts = options.texts;
    collector.max_messages = options.max_messages;
    collector.max_seconds = options.max_seconds;
    return collector;
}

}  // namespace

Monitor::Monitor(const Options& options)
    : options_(options), collector_(collector_options(options)), text_(options.quiet)
{
    collector_.add_output(&text_);
    // Always there: without a file, a port or a directory it only answers applications'
    // file requests (with a refusal).
    dlt_ = std::make_unique<Dlt_output>(options, collector_);
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
    if (options_.dlt_tcp) {
        collector_.note("dlt-port", std::to_string(dlt_->port()));
        if (dlt_->client_limit() < options_.dlt_max_clients) {
            collector_.note("client", "at most " + std::to_string(dlt_->client_limit()) +
                                          " DLT clients at once: the descriptor limit leaves no more");
        }
        text_.flush();
        if (options_.quiet) {
            std::cout << "dlt-port " << dlt_->port() << std::endl;
        }
    }
    return true;
}

void Monitor::run(const volatile std::sig_atomic_t& stop)
{
    long wait_us = logferry_tuning::SHORTEST_IDLE_WAIT_US;
    while (stop == 0 && collector_.stop_reason().empty()) {
        const bool busy = collector_.poll();
        if (text_.closed()) {
            collector_.stop("output closed");
        }
        if (!collector_.stop_reason().empty()) {
            break;
        }
        if (busy) {
            wait_us = logferry_tuning::SHORTEST_IDLE_WAIT_US;
            dlt_->service(0);
        } else if (wait_us >= 1000) {
            dlt_->service(static_cast<int>(wait_us / 1000));
            wait_us = std::min(wait_us * 2, logferry_tuning::LONGEST_IDLE_WAIT_US);
        } else {
            dlt_->service(0);
            const timespec pause{0, wait_us * 1000};
            ::nanosleep(&pause, nullptr);
            wait_us *= 2;
        }
    }
}

void Monitor::shutdown(const std::string& reason)
{
    collector_.shutdown(reason);
    dlt_->close();
    text_.flush();
}

}  // namespace logferry_monitor
