// Library lifecycle: naming the channel, bringing the library up and taking it down.
#include <time.h>  // NOLINT(modernize-deprecated-headers): POSIX clock_gettime and CLOCK_MONOTONIC

#include <string>

#include "logferry/client.hpp"
#include "logferry/system.hpp"
#include "wire/channel_name.hpp"

namespace logferry {

void set_app_identifier(const std::string& identifier)
{
    // The identifier's stamp is 0 when the clock cannot be read.
    std::uint32_t stamp = 0;
    timespec now{};
    if (sys->clock_gettime(CLOCK_MONOTONIC, &now) == 0) {
        stamp = wire::channel_stamp_of(now);
    }
    client.set_app_identifier(wire::make_channel_identifier(identifier, sys->getpid(), stamp));
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
