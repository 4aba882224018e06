// The frozen daemon of the whole-process benchmark (bench/ara_lifecycle.sh): a second
// daemon-side end of an application's channel, attached beside the running logferry-monitor
// with the library's exported Logferry_base (daemon end: not the application's side, not the
// owner), that holds the application's ring mutex for a while and lets go.
//
//   ring_holder APP-ID PID SECONDS
//       finds the channel of application APP-ID with process id PID among the shared-memory
//       objects ("/logferry-<APP-ID>-<last five digits of PID>-<stamp>"), attaches, takes the
//       ring's mutex, prints "holding" and sends SIGUSR1 to PID, holds the mutex for SECONDS,
//       releases it and prints "released". It ends without detaching: detaching would clear the
//       daemon's watchdog stamp, which the monitor keeps, and tell the application that the
//       daemon has gone.
#include <dirent.h>
#include <pthread.h>
#include <signal.h>
#include <sys/types.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "logferry/channel.hpp"
#include "wire/channel_name.hpp"

namespace {

// The channel's name ("/logferry-ID-PID-STAMP"), empty when there is no such object.
std::string find_channel(const std::string& id, const std::string& pid)
{
    const std::string pid_text = logferry::wire::channel_pid_text(pid);
    std::string found;
    DIR* dir = ::opendir("/dev/shm");
    if (dir == nullptr) {
        return found;
    }
    for (const dirent* entry = ::readdir(dir); entry != nullptr; entry = ::readdir(dir)) {
        const std::string name = std::string("/") + entry->d_name;
        logferry::wire::Channel_name_parts parts;
        if (logferry::wire::parse_channel_name(name, parts) && parts.app_id == id && parts.pid == pid_text) {
            found = name;
        }
    }
    ::closedir(dir);
    return found;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 4) {
        std::fprintf(stderr, "usage: ring_holder APP-ID PID SECONDS\n");
        return 2;
    }
    const std::string name = find_channel(argv[1], argv[2]);
    // Not destroyed: its destructor would detach (see above).
    auto* channel = new logferry::Logferry_base();
    if (name.empty() || !channel->init(name)) {
        std::fprintf(stderr, "ring_holder: no channel of %s with process id %s\n", argv[1], argv[2]);
        return 1;
    }
    pthread_mutex_t* mutex = &channel->segment->client_mutex.mutex;
    if (::pthread_mutex_lock(mutex) == EOWNERDEAD) {
        ::pthread_mutex_consistent(mutex);
    }
    std::printf("holding\n");
    std::fflush(stdout);
    ::kill(static_cast<pid_t>(std::atol(argv[2])), SIGUSR1);
    std::this_thread::sleep_for(std::chrono::duration<double>(std::atof(argv[3])));
    ::pthread_mutex_unlock(mutex);
    std::printf("released\n");
    std::fflush(stdout);
    std::_Exit(0);
}
