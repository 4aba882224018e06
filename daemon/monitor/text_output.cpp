#include "text_output.hpp"

#include <unistd.h>

#include <cerrno>
#include <vector>

#include "decoder.hpp"
#include "logferry/message.hpp"
#include "render.hpp"
#include "tuning.hpp"

namespace logferry_monitor {
namespace {

std::string padded(const std::string& word)
{
    return word.size() >= 10 ? word : word + std::string(10 - word.size(), ' ');
}

}  // namespace

void Text_output::note(const std::string& word, const std::string& details)
{
    if (!quiet_) {
        line("-- " + padded(word) + " " + details);
    }
}

void Text_output::message(const logferry_collector::Application& application,
                          const logferry_collector::Log_message& message)
{
    if (quiet_ && !application.local_print) {
        return;
    }
    using logferry_decoder::Record;
    const auto unit = logferry_decoder::decode_ring_unit(message.unit, message.size);
    const std::string app = application.label();
    if (unit.shape == logferry_decoder::Unit_shape::single_record) {
        const Record& record = unit.records.front();
        const std::string body = record.is(logferry_decoder::payload_omitted)
                                     ? "encoded-message[" + std::to_string(record.payload_size) + " bytes not carried]"
                                     : "encoded-message[" + hex_bytes(record.payload) + "]";
        line(render_log_line("-", app, "-", "-", {body}));
        return;
    }
    const Record* start = unit.start();
    std::vector<std::string> arguments;
    for (const Record& record : unit.records) {
        if (&record == start || record.kind == logferry::KIND_WRITE_FINISH) {
            continue;
        }
        if (record.kind == logferry::KIND_WRITE_START) {
            // The application started the same stream again before finishing it.
            arguments.push_back("<start " + application.context_label(record.context_handle) + " " +
                                level_name(record.log_level) + " " + render_timestamp(record.timestamp) + ">");
            continue;
        }
        arguments.push_back(render_argument(record));
    }
    if (start == nullptr) {
        line(render_log_line("-", app, "-", "-", arguments));
    } else {
        line(render_log_line(render_timestamp(start->timestamp), app, application.context_label(start->context_handle),
                             level_name(start->log_level), arguments));
    }
}

void Text_output::line(const std::string& text)
{
    pending_ += text;
    pending_ += '\n';
    if (pending_.size() >= logferry_tuning::TEXT_FLUSH_THRESHOLD) {
        flush();
    }
}

void Text_output::flush()
{
    std::size_t done = 0;
    while (done < pending_.size() && !closed_) {
        const ssize_t n = ::write(STDOUT_FILENO, pending_.data() + done, pending_.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            closed_ = true;
            break;
        }
        done += static_cast<std::size_t>(n);
    }
    pending_.clear();
}

}  // namespace logferry_monitor
