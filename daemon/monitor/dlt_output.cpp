#include "dlt_output.hpp"

#include <time.h>

#include <cstring>
#include <iostream>

#include "dlt_layout.hpp"
#include "tuning.hpp"
#include "wire/wire.hpp"

namespace logferry_monitor {
namespace {

using logferry_dlt::Service;

bool same_id(const std::string& id, const char dlt_id[4])
{
    char padded[logferry_dlt::layout::ID_SIZE];
    logferry_dlt::to_dlt_id(id, padded);
    return std::memcmp(padded, dlt_id, logferry_dlt::layout::ID_SIZE) == 0;
}

std::string describe_id(const char id[4])
{
    std::string text;
    for (int i = 0; i < 4 && id[i] != '\0'; ++i) {
        text += id[i];
    }
    return text;
}

}  // namespace

std::string app_file_path(const std::string& dir, const std::string& name, std::string& why)
{
    std::string base = name;
    if (!dir.empty() && name.size() > dir.size() + 1 && name.compare(0, dir.size(), dir) == 0 &&
        name[dir.size()] == '/') {
        base = name.substr(dir.size() + 1);  // an absolute path into the directory itself
    }
    if (dir.empty()) {
        why = "no --app-file-dir";
    } else if (base.empty()) {
        why = "empty file name";
    } else if (base.size() > MAX_APP_FILE_NAME) {
        why = "file name longer than " + std::to_string(MAX_APP_FILE_NAME) + " characters";
    } else if (base.find('/') != std::string::npos) {
        why = "file name with a slash";
    } else if (base == "." || base.find("..") != std::string::npos) {
        why = "file name with \"..\" or \".\"";
    } else {
        for (const char c : base) {
            if (c < 0x20 || c > 0x7e) {
                why = "file name with a non-printable character";
                return {};
            }
        }
        return dir + "/" + base;
    }
    return {};
}

Dlt_output::Dlt_output(const Options& options, logferry_collector::Collector& collector)
    : options_(options), collector_(collector)
{
    logferry_dlt::to_dlt_id(options_.ecu, ecu_);
    std::memcpy(server_.ecu, ecu_, logferry_dlt::layout::ECU_SIZE);
    std::memcpy(file_.ecu, ecu_, logferry_dlt::layout::ECU_SIZE);
}

bool Dlt_output::open()
{
    if (!options_.dlt_file.empty() &&
        !file_.open(options_.dlt_file, options_.dlt_file_limit, logferry_tuning::DLT_FILE_COUNT)) {
        std::cerr << "logferry-monitor: cannot open " << options_.dlt_file << ": " << file_.error << std::endl;
        return false;
    }
    if (options_.dlt_tcp) {
        server_.max_clients = options_.dlt_max_clients;
        if (!server_.listen(options_.dlt_bind, options_.dlt_port)) {
            port_failed_ = true;
            if (server_.address_in_use) {
                std::cerr << "logferry-monitor: the DLT port " << options_.dlt_port << " on " << options_.dlt_bind
                          << " is taken, by another DLT daemon (such as dlt-daemon) or another program; stop it "
                             "or give this one another --dlt-port"
                          << std::endl;
                return false;
            }
            std::cerr << "logferry-monitor: cannot listen on " << options_.dlt_bind << " port " << options_.dlt_port
                      << ": " << server_.error << std::endl;
            return false;
        }
    }
    return true;
}

void Dlt_output::message(const logferry_collector::Application& application,
                         const logferry_collector::Log_message& message)
{
    // Every message takes its number, whether or not it goes anywhere.
    const std::uint8_t counter = next_counter(application, message);
    const bool to_file = file_.is_open();
    const bool to_clients = application.remote && server_.client_count() != 0;
    const auto app_file = app_files_.empty() ? app_files_.end() : app_files_.find(application.channel);
    if (!to_file && !to_clients && app_file == app_files_.end()) {
        return;
    }
    const logferry_dlt::Message m = dlt_message(application, message, counter);
    const std::size_t size = logferry_dlt::encode_log_message(m, buffer_, sizeof buffer_);
    if (size == 0) {
        ++too_large_;
        collector_.note("error", application.label() + ": a message too large for DLT was not forwarded");
        return;
    }
    const std::uint32_t seconds = message.received_seconds;
    const std::int32_t microseconds = message.received_microseconds;
    if (to_file) {
        file_.write(buffer_, size, seconds, microseconds);
    }
    if (app_file != app_files_.end() && !app_file->second->write(buffer_, size, seconds, microseconds, ecu_)) {
        collector_.note("error", application.label() + " file: " + app_file->second->error);
    }
    if (to_clients) {
        server_.broadcast(buffer_, size);
    }
}

std::uint8_t Dlt_output::next_counter(const logferry_collector::Application& application,
                                      const logferry_collector::Log_message& message)
{
    Counters& counters = counters_[&application];
    if (message.has_start && application.contexts.count(message.context_handle) != 0) {
        return counters.contexts[message.context_handle]++;
    }
    return counters.unregistered++;
}

logferry_dlt::Message Dlt_output::dlt_message(const logferry_collector::Application& application,
                                              const logferry_collector::Log_message& message, std::uint8_t counter)
{
    logferry_dlt::Message m;
    std::memcpy(m.ecu, ecu_, logferry_dlt::layout::ECU_SIZE);
    logferry_dlt::to_dlt_id(application.app_id, m.app);
    const auto context =
        message.has_start ? application.contexts.find(message.context_handle) : application.contexts.end();
    if (context != application.contexts.end()) {
        logferry_dlt::to_dlt_id(context->second.id, m.context);
    }
    // Messages without a start record (or with level 0) carry no level: they count as info.
    m.level = message.level != 0 ? message.level : static_cast<std::uint8_t>(ara::log::LogLevel::kInfo);
    m.timestamp = message.timestamp;
    m.session_id = application.pid;
    m.counter = counter;
    m.args = message.args;  // the collector's arguments are the encoder's: no copy
    m.arg_count = message.arg_count;
    return m;
}

bool Dlt_output::request(const logferry_collector::Application& application, logferry_collector::Request request,
                         const std::string& file, std::string& why)
{
    if (request != logferry_collector::Request::init_file) {
        return true;
    }
    const std::string path = app_file_path(options_.app_file_dir, file, why);
    if (path.empty()) {
        return false;
    }
    auto writer = std::make_unique<logferry_dlt::File_writer>();
    if (!writer->open(path, 0, 1)) {
        why = writer->error;
        return false;
    }
    app_files_[application.channel] = std::move(writer);
    return true;
}

void Dlt_output::detached(const logferry_collector::Application& application)
{
    counters_.erase(&application);
    const auto it = app_files_.find(application.channel);
    if (it != app_files_.end()) {
        it->second->close();
        app_files_.erase(it);
    }
}

void Dlt_output::flush()
{
    file_.hand_over();
    const std::string failure = file_.take_error();
    if (!failure.empty()) {
        collector_.note("error", "DLT file: " + failure);
    }
    for (auto& entry : app_files_) {
        entry.second->flush();
    }
}

void Dlt_output::service(int timeout_ms)
{
    if (!options_.dlt_tcp) {
        if (timeout_ms > 0) {
            const timespec pause{0, static_cast<long>(timeout_ms) * 1000 * 1000};
            ::nanosleep(&pause, nullptr);
        }
        return;
    }
    server_.service(timeout_ms,
                    [this](int client, const logferry_dlt::Control_request& request) { control(client, request); });
    for (const std::string& event : server_.events) {
        collector_.note("client", event);
    }
    server_.events.clear();
}

void Dlt_output::control(int client, const logferry_dlt::Control_request& request)
{
    const auto status = [&](bool ok) {
        server_.send_to(client,
                        logferry_dlt::control_response(ecu_, request.service_id,
                                                       ok ? logferry_dlt::STATUS_OK : logferry_dlt::STATUS_ERROR));
    };
    const bool level_ok = request.level >= 0 && request.level <= logferry::wire::MAX_LOG_LEVEL;
    switch (static_cast<Service>(request.service_id)) {
    case Service::set_log_level: {
        const std::size_t reached =
            level_ok ? collector_.set_level([&](const std::string& id) { return same_id(id, request.app); },
                                            [&](const std::string& id) { return same_id(id, request.context); },
                                            static_cast<std::uint8_t>(request.level))
                     : 0;
        collector_.note("client", "set-log-level " + describe_id(request.app) + " " + describe_id(request.context) +
                                      " level=" + std::to_string(request.level) + ": " + std::to_string(reached) +
                                      " context" + (reached == 1 ? "" : "s"));
        status(reached != 0);
        break;
    }
    case Service::set_default_log_level: {
        std::size_t reached = 0;
        if (level_ok) {
            default_level_ = request.level;
            reached = collector_.set_default_level(static_cast<std::uint8_t>(request.level));
        }
        collector_.note("client", "set-default-log-level level=" + std::to_string(request.level) + ": " +
                                      std::to_string(reached) + " context" + (reached == 1 ? "" : "s"));
        status(level_ok);
        break;
    }
    case Service::get_default_log_level:
        server_.send_to(client, logferry_dlt::default_log_level_response(ecu_, default_level_));
        break;
    case Service::get_software_version:
        server_.send_to(client, logferry_dlt::software_version_response(ecu_, options_.version));
        break;
    case Service::get_log_info: {
        std::vector<logferry_dlt::App_info> apps;
        for (const logferry_collector::Application* app : collector_.applications()) {
            logferry_dlt::App_info info{};
            logferry_dlt::to_dlt_id(app->app_id, info.id);
            info.description = app->description;
            for (const auto& entry : app->contexts) {
                logferry_dlt::Context_info context{};
                logferry_dlt::to_dlt_id(entry.second.id, context.id);
                context.level = static_cast<std::int8_t>(entry.second.level);
                context.description = entry.second.description;
                info.contexts.push_back(context);
            }
            apps.push_back(std::move(info));
        }
        server_.send_to(client, logferry_dlt::get_log_info_response(ecu_, apps));
        break;
    }
    default:
        server_.send_to(client,
                        logferry_dlt::control_response(ecu_, request.service_id, logferry_dlt::STATUS_NOT_SUPPORTED));
        break;
    }
}

void Dlt_output::close()
{
    file_.close();
    for (auto& entry : app_files_) {
        entry.second->close();
    }
    app_files_.clear();
    server_.close();
}

}  // namespace logferry_monitor
