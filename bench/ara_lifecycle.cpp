// The application of the whole-process benchmark of ara::log (bench/ara_lifecycle.sh): each
// mode brings logging up through ara::log alone, as an application does, and prints what it
// did as "key value" pairs on one line. It knows nothing of the library underneath, so that it
// measures any front end behind the same interface.
//
//   ara_lifecycle burst THREADS MESSAGES
//       InitLogging, the first CreateLogger, then at once THREADS threads log MESSAGES messages
//       each (int32, "hello world", hex uint32, like the other end-to-end benchmarks). VmRSS is
//       read before the burst, sampled every millisecond during it (the peak) and read again
//       once SIGUSR1 says that the backlog has drained (the script watches the DLT file; 30 s
//       at most). Prints "burst-done" when its threads have returned, then "sent N
//       rss-before-kib B rss-peak-kib P rss-after-kib A burst-ms T", and returns.
//   ara_lifecycle short MESSAGES
//       InitLogging, CreateLogger, MESSAGES messages, prints "sent N", returns.
//   ara_lifecycle idle SECONDS
//       InitLogging, CreateLogger, nothing logged for SECONDS; prints the process's processor
//       time over that span as a percentage of one core and its voluntary context switches
//       per second (getrusage of the whole process, every thread of the library included):
//       "cpu-percent C voluntary-switches-per-s V".
//   ara_lifecycle frozen THREADS RATE SECONDS
//       InitLogging, CreateLogger, waits until it is connected (10 s at most), prints "ready"
//       and waits for SIGUSR1 (the peer sends it once it holds the ring's mutex); then
//       THREADS threads log RATE messages per second each for SECONDS, timing every call (the
//       whole statement, stream built and sent). Prints "sent N longest-us L p999-us P" and returns.
//
// SIGUSR1 is blocked before logging comes up, so that every thread, the library's included,
// leaves it to sigwait.
#include <signal.h>
#include <sys/resource.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "ara/log/logging.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint32_t HEX_VALUE = 0xC0FFEEU;
constexpr int RSS_SAMPLE_US = 1000;
constexpr int DRAIN_WAIT_S = 30;
constexpr int CONNECT_WAIT_MS = 10000;

// The process's resident set in KiB (VmRSS of /proc/self/status), 0 when unreadable.
long rss_kib()
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, 6, "VmRSS:") == 0) {
            return std::strtol(line.c_str() + 6, nullptr, 10);
        }
    }
    return 0;
}

const ara::log::Logger& bring_up(const char* id, const char* description)
{
    ara::log::InitLogging(id, description, ara::log::LogLevel::kInfo, ara::log::LogMode::kRemote);
    return ara::log::CreateLogger("LOAD", "load context", ara::log::LogLevel::kInfo);
}

void log_one(const ara::log::Logger& logger, std::int32_t value)
{
    logger.LogInfo() << value << "hello world" << ara::log::HexFormat(HEX_VALUE);
}

// Waits for SIGUSR1 for at most `seconds`; false on timeout.
bool wait_for_go(int seconds)
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR1);
    const timespec limit{seconds, 0};
    return ::sigtimedwait(&set, nullptr, &limit) == SIGUSR1;
}

double seconds_of(const timeval& value)
{
    return static_cast<double>(value.tv_sec) + static_cast<double>(value.tv_usec) / 1e6;
}

int run_burst(int threads, int messages)
{
    const ara::log::Logger& logger = bring_up("BRST", "start-up burst");
    const long before = rss_kib();
    std::atomic<long> peak{before};
    std::atomic<bool> bursting{true};
    std::thread sampler([&] {
        while (bursting.load()) {
            const long now = rss_kib();
            if (now > peak.load()) {
                peak.store(now);
            }
            const timespec pause{0, RSS_SAMPLE_US * 1000L};
            ::nanosleep(&pause, nullptr);
        }
    });
    const auto began = Clock::now();
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&logger, messages] {
            for (int i = 0; i < messages; ++i) {
                log_one(logger, i);
            }
        });
    }
    for (std::thread& worker : workers) {
        worker.join();
    }
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - began).count();
    std::printf("burst-done\n");
    std::fflush(stdout);
    // The peak also covers the time until the backlog has drained.
    wait_for_go(DRAIN_WAIT_S);
    bursting.store(false);
    sampler.join();
    const long after = rss_kib();
    std::printf("sent %lld rss-before-kib %ld rss-peak-kib %ld rss-after-kib %ld burst-ms %lld\n",
                static_cast<long long>(threads) * messages, before, std::max(peak.load(), after), after,
                static_cast<long long>(took));
    return 0;
}

int run_short(int messages)
{
    const ara::log::Logger& logger = bring_up("SHRT", "short life");
    for (int i = 0; i < messages; ++i) {
        log_one(logger, i);
    }
    std::printf("sent %d\n", messages);
    return 0;
}

int run_idle(int seconds)
{
    bring_up("IDLE", "idle");
    rusage before{};
    ::getrusage(RUSAGE_SELF, &before);
    const auto began = Clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    rusage after{};
    ::getrusage(RUSAGE_SELF, &after);
    const double wall = std::chrono::duration<double>(Clock::now() - began).count();
    const double cpu = seconds_of(after.ru_utime) + seconds_of(after.ru_stime) - seconds_of(before.ru_utime) -
                       seconds_of(before.ru_stime);
    std::printf("cpu-percent %.3f voluntary-switches-per-s %.1f\n", cpu / wall * 100.0,
                static_cast<double>(after.ru_nvcsw - before.ru_nvcsw) / wall);
    return 0;
}

int run_frozen(int threads, int rate, int seconds)
{
    std::atomic<bool> connected{false};
    ara::log::RegisterConnectionStateHandler(
        [&connected](ara::log::ClientState state) { connected = state == ara::log::ClientState::kConnected; });
    const ara::log::Logger& logger = bring_up("FRZN", "frozen daemon");
    for (int i = 0; i < CONNECT_WAIT_MS && !connected.load(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    std::printf("ready\n");
    std::fflush(stdout);
    if (!wait_for_go(DRAIN_WAIT_S)) {
        std::fprintf(stderr, "ara_lifecycle: no signal to start\n");
        return 1;
    }
    const int per_thread = rate * seconds;
    std::vector<std::vector<std::int64_t>> latencies(static_cast<std::size_t>(threads));
    std::vector<std::thread> workers;
    const auto began = Clock::now();
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
            std::vector<std::int64_t>& mine = latencies[static_cast<std::size_t>(t)];
            mine.reserve(static_cast<std::size_t>(per_thread));
            const auto period = std::chrono::nanoseconds(1000000000LL / rate);
            for (int i = 0; i < per_thread; ++i) {
                std::this_thread::sleep_until(began + period * i);
                const auto start = Clock::now();
                log_one(logger, i);
                mine.push_back(std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start).count());
            }
        });
    }
    for (std::thread& worker : workers) {
        worker.join();
    }
    std::vector<std::int64_t> all;
    for (const auto& mine : latencies) {
        all.insert(all.end(), mine.begin(), mine.end());
    }
    std::sort(all.begin(), all.end());
    const std::size_t p999 = all.empty() ? 0 : std::min(all.size() - 1, all.size() * 999 / 1000);
    std::printf("sent %zu longest-us %.1f p999-us %.1f\n", all.size(), all.empty() ? 0.0 : all.back() / 1000.0,
                all.empty() ? 0.0 : all[p999] / 1000.0);
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR1);
    ::pthread_sigmask(SIG_BLOCK, &set, nullptr);

    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "burst" && argc == 4) {
        return run_burst(std::atoi(argv[2]), std::atoi(argv[3]));
    }
    if (mode == "short" && argc == 3) {
        return run_short(std::atoi(argv[2]));
    }
    if (mode == "idle" && argc == 3) {
        return run_idle(std::atoi(argv[2]));
    }
    if (mode == "frozen" && argc == 5) {
        return run_frozen(std::atoi(argv[2]), std::atoi(argv[3]), std::atoi(argv[4]));
    }
    std::fprintf(stderr,
                 "usage: ara_lifecycle burst THREADS MESSAGES | short MESSAGES | idle SECONDS | "
                 "frozen THREADS RATE SECONDS\n");
    return 2;
}
