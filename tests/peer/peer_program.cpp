// A daemon-side test peer: takes the daemon's role with the library's own exported classes
// and reports what it sees, one line per event on standard output:
//   ready                    the listener is held
//   attach <name>            a channel was announced and attached
//   priority <hex>           one read of a channel's priority area
//   ring <hex>               one record unit from a channel's ring
//   detach <name>            the application's end is gone
// Commands, one per line on standard input:
//   level <handle> <level>   send a level update to every attached channel
//   raw <hex>                send these bytes to every attached channel
//   text <text>              send <text> and a line feed to every attached channel
//   hold / release           stop / resume emptying the priority areas
//   stop-reading / read      stop / resume taking units from the rings
//   leave                    detach cleanly from every channel (the listener stays)
//   quit                     detach, give up the listener, exit
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "logferry/channel.hpp"
#include "logferry/listener.hpp"
#include "logferry/message.hpp"
#include "support/hex.hpp"
#include "wire/shared_fields.hpp"
#include "wire/wire.hpp"

namespace {

void emit(const std::string& line)
{
    const std::string whole = line + "\n";
    const char* data = whole.data();
    std::size_t left = whole.size();
    while (left > 0) {
        const ssize_t written = ::write(1, data, left);
        if (written <= 0) {
            return;
        }
        data += written;
        left -= static_cast<std::size_t>(written);
    }
}

std::vector<unsigned char> from_hex(const std::string& text)
{
    std::vector<unsigned char> bytes;
    for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
        bytes.push_back(static_cast<unsigned char>(std::stoi(text.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

struct Attachment {
    std::unique_ptr<logferry::Logferry_base> end;
    bool gone = false;
};

volatile sig_atomic_t stop_requested = 0;
void on_signal(int) { stop_requested = 1; }

}  // namespace

int main()
{
    ::signal(SIGTERM, on_signal);
    ::signal(SIGPIPE, SIG_IGN);
    logferry::Logferry_listener listener(true);
    if (!listener.init()) {
        emit("listener-failed");
        return 1;
    }
    emit("ready");

    std::vector<Attachment> channels;
    std::string input;
    unsigned int tick = 0;
    bool quit = false;
    bool hold_priority = false;
    bool hold_ring = false;  // a daemon that stopped reading: rings left as they are, nobody detached
    while (!quit && !stop_requested) {
        ++tick;
        if (tick % 20 == 0) {
            listener.check_watchdogs();
        }
        for (std::string name = listener.get_next(); !name.empty(); name = listener.get_next()) {
            Attachment attachment;
            attachment.end.reset(new logferry::Logferry_base());
            if (attachment.end->init(name)) {
                emit("attach " + name);
                channels.push_back(std::move(attachment));
            }
        }
        for (Attachment& channel : channels) {
            if (channel.gone) {
                continue;
            }
            logferry::Logferry_base& end = *channel.end;
            if (tick % 20 == 0) {
                end.is_connection_active();
            }
            // The priority area is read again after each ring unit: the application opens its
            // ring only once its registrations stand in the area, so a registration placed
            // after the first look comes out before the units behind it.
            const auto take_priority = [&] {
                if (!hold_priority) {
                    const std::vector<unsigned char> priority = end.pop_priority();
                    if (!priority.empty()) {
                        emit("priority " + logferry_test::hex_of(priority));
                    }
                }
            };
            take_priority();
            for (std::vector<unsigned char> unit = hold_ring ? std::vector<unsigned char>() : end.pop(); !unit.empty();
                 unit = end.pop()) {
                take_priority();
                emit("ring " + logferry_test::hex_of(unit));
            }
            if (!hold_ring && logferry::atomic_load_i64(&end.segment->client_watchdog) == 0) {
                emit("detach " + end.get_filename());
                end.uninit();
                channel.gone = true;
            }
        }

        pollfd stdin_poll{0, POLLIN, 0};
        if (::poll(&stdin_poll, 1, 5) > 0) {
            char buffer[4096];
            const ssize_t got = ::read(0, buffer, sizeof buffer);
            if (got <= 0) {
                quit = true;  // the test went away
            } else {
                input.append(buffer, static_cast<std::size_t>(got));
            }
        }
        for (std::size_t end_of_line = input.find('\n'); end_of_line != std::string::npos;
             end_of_line = input.find('\n')) {
            const std::string line = input.substr(0, end_of_line);
            input.erase(0, end_of_line + 1);
            std::istringstream words(line);
            std::string command;
            words >> command;
            std::vector<unsigned char> message;
            if (command == "level") {
                unsigned long handle = 0;
                unsigned int level = 0;
                words >> handle >> level;
                message.resize(logferry::wire::LEVEL_UPDATE_SIZE);
                logferry::wire::encode_level_update(message.data(), static_cast<std::uint8_t>(level),
                                                    static_cast<std::uint32_t>(handle));
            } else if (command == "raw") {
                std::string hex;
                words >> hex;
                message = from_hex(hex);
            } else if (command == "text") {
                const std::string text = line.size() > 5 ? line.substr(5) + "\n" : "\n";
                message.assign(text.begin(), text.end());
            } else if (command == "hold" || command == "release") {
                hold_priority = command == "hold";
            } else if (command == "stop-reading" || command == "read") {
                hold_ring = command == "stop-reading";
            } else if (command == "leave" || command == "quit") {
                for (Attachment& channel : channels) {
                    if (!channel.gone) {
                        channel.end->uninit();
                        channel.gone = true;
                    }
                }
                emit("left");
                quit = command == "quit";
                continue;
            }
            for (Attachment& channel : channels) {
                if (!channel.gone && !message.empty()) {
                    channel.end->push(message);
                }
            }
            emit("done " + command);
        }
    }
    listener.uninit();
    emit("bye");
    return 0;
}
