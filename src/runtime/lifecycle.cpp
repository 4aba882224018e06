// Library lifecycle: naming the channel, bringing the library up and taking it down.
#include <time.h>  // NOLINT(modernize-deprecated-headers): POSIX clock_gettime and CLOCK_MONOTONIC

#include <array>
#include <charconv>
#include <string>

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
        stamp = static_cast<std::uint32_t>(static_cast<std::uint64_t>(now.tv_sec) * 1000000U +
                                           static_cast<std::uint64_t>(now.tv_nsec / 1000));
    }
    // Lowercase hexadecimal without leading zeros (8 digits at most).
    std::array<char, 8> stamp_digits{};
    const std::to_chars_result stamp_end =
        std::to_chars(stamp_digits.data(), stamp_digits.data() + stamp_digits.size(), stamp, 16);
    const std::string stamp_text(stamp_digits.data(), stamp_end.ptr);

    std::string pid = std::to_string(sys->getpid());
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
