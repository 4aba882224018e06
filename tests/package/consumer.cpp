// A tiny application built against the installed library: it includes only the umbrella
// header and must see the whole public surface from there. Compiled as C++14.
#include <logferry/logferry.hpp>

#include <unistd.h>

#include <cstdio>
#include <string>

namespace {

// Names of the public surface that must be visible from the umbrella header.
void touch_public_surface()
{
    logferry::System_lib* seam = logferry::sys;
    (void)seam;
    logferry::File_descriptor_guard descriptor(-1);
    (void)(descriptor == -1);
    (void)sizeof(logferry::Mutex_lock_guard);
    (void)sizeof(logferry::Channel_segment);
    (void)&logferry::get_full_adaptive_runstate_directory;
    logferry::Logferry_base daemon_end;
    (void)daemon_end.is_initialized();
}

}  // namespace

int main()
{
    touch_public_surface();
    logferry::Logferry_client channel;
    channel.set_app_identifier("consumer-" + std::to_string(::getpid()));
    if (!channel.init()) {
        std::printf("consumer: channel init failed\n");
        return 1;
    }
    const bool gated = channel.segment->client_buffer_locked == 1;
    const std::string name = channel.get_filename();
    channel.uninit();
    std::printf("consumer ok: %s %s, run-state directory %s\n", name.c_str(), gated ? "gated" : "open",
                logferry::get_full_adaptive_runstate_directory().c_str());
    return gated ? 0 : 1;
}
