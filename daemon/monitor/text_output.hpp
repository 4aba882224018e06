// The text output: one line per event and per log message on standard output, in the
// monitor's long-standing format. Lines are collected and written at the end of each pass
// (whole lines per write, so they never mix with other writers of the same output).

#ifndef LOGFERRY_TOOLS_MONITOR_TEXT_OUTPUT_HPP
#define LOGFERRY_TOOLS_MONITOR_TEXT_OUTPUT_HPP

#include <string>

#include "collector.hpp"

namespace logferry_monitor {

class Text_output : public logferry_collector::Output {
public:
    /// `quiet`: only the messages of applications that asked for local printing.
    explicit Text_output(bool quiet) : quiet_(quiet) {}

    void note(const std::string& word, const std::string& details) override;
    void message(const logferry_collector::Application& application,
                 const logferry_collector::Log_message& message) override;
    void flush() override;

    /// True once standard output could not be written.
    bool closed() const { return closed_; }

private:
    void line(const std::string& text);

    bool quiet_;
    bool closed_ = false;
    std::string pending_;
};

}  // namespace logferry_monitor

#endif  // LOGFERRY_TOOLS_MONITOR_TEXT_OUTPUT_HPP
