// Library lifecycle: naming the channel, bringing the library up and taking it down.
#include <time.h>

#include <cstdio>

#include "logferry/client.hpp"
#include "logferry/system.hpp"

namespace logferry {

namespace {
// The process-id part of the channel identifier keeps at most this many trailing digits.
constexpr std::size_t PID_TEXT_LENGTH = 5;
}  // namespace

void set_app_identifier(const std::string& identifier)
{
    // Microseconds of the monotonic clock, modulo 2^32; 0 when the clock cannot be read.
    std::uint32_t stamp = 0;
    timespec now{};
    if (sys->clock_gettime(CLOCK_MONOTONIC, &now) == 0) {
        stamp = static_cast<std::uint32_t>(static_cast<std::uint64_t>(now.tv_sec) * 1000000u +
                                           static_cast<std::uint64_t>(now.tv_nsec / 1000));
    }
    char stamp_text[16];
    std::snprintf(stamp_text, sizeof(stamp_text), "%x", static_cast<unsigned int>(stamp));

    char pid_text[24];
    std::snprintf(pid_text, sizeof(pid_text), "%d", sys->getpid());
    std::string pid(pid_text);
    if (pid.size() > PID_TEXT_LENGTH) {
        pid.erase(0, pid.size() - PID_TEXT_LENGTH);
    }

    std::string name;
    name.reserve(identifier.size() + pid.size() + 2 + 8);
    name.append(identifier).append("-").append(pid).append("-").append(stamp_text);
    client.set_app_identifier(name);
}

bool connect_channel()
{
    if (!client.init()) {
        return false;
    }
    if (!listener.init()) {
        return false;
    }
    return listener.push(client.get_filename());
}

void init()
{
    if (init_called) {
        return;
    }
    init_called = true;
    // A daemon that is not running yet is no error: the receiver thread keeps trying.
    (void)connect_channel();
    terminate_receiver_thread = false;
    message_receiver_thread = std::thread(receiver_thread);
}

void exit()
{
    terminate_receiver_thread = true;
    if (message_receiver_thread.joinable()) {
        message_receiver_thread.join();
    }
    client.uninit();
    listener.uninit();
    init_called = false;
}

}  // namespace logferry
