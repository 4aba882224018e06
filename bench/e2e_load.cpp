// Load generator of the end-to-end benchmark (bench/e2e_dlt.sh), and the counter of what
// arrived in the DLT file.
//
//   e2e_load log ID SECONDS RATE   registers application ID, waits until the daemon side has
//                                  attached, logs the message (int32, "hello world", hex
//                                  uint32) for SECONDS, as fast as it can (RATE 0) or paced
//                                  at RATE messages per second (never more than 1 ms of
//                                  messages behind: what it could not send while it was kept
//                                  off the processor is left out), waits until its ring is empty
//                                  and prints "sent N cpu S" (S: its CPU seconds while
//                                  logging); the library itself reports what it discarded
//                                  ("... buffer full, D messages discarded.") on the way
//   e2e_load flood ID SECONDS THREADS
//                                  registers application ID, waits until the daemon side has
//                                  attached, logs the same message from THREADS threads flat
//                                  out for SECONDS, each timing every message (log_start to
//                                  log_finish), waits until its ring is empty, has the library
//                                  report what it still holds as discarded and prints
//                                  "sent N cpu S longest-us L"
//   e2e_load count FILE...         prints the number of messages in the DLT storage files
//   e2e_load per-app FILE...       prints "APID N" for every application ID in those files
#include <sys/resource.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "logferry/logferry.hpp"

namespace {

constexpr std::uint32_t CONTEXT = 1;
constexpr std::uint8_t LEVEL_INFO = 4;
constexpr std::size_t STORAGE_HEADER = 16;
constexpr double MAX_LAG_SECONDS = 0.001;

using Clock = std::chrono::steady_clock;

bool wait_until(const std::chrono::milliseconds limit, bool (*condition)())
{
    const auto deadline = Clock::now() + limit;
    while (!condition()) {
        if (Clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

bool ring_open() { return __atomic_load_n(&logferry::client.segment->client_buffer_locked, __ATOMIC_SEQ_CST) == 0; }

bool ring_empty()
{
    const auto* segment = logferry::client.segment;
    return __atomic_load_n(&segment->client_read_index, __ATOMIC_SEQ_CST) ==
               __atomic_load_n(&segment->client_write_index, __ATOMIC_SEQ_CST) &&
           __atomic_load_n(&segment->client_buffer[__atomic_load_n(&segment->client_write_index, __ATOMIC_SEQ_CST)],
                           __ATOMIC_SEQ_CST) == 0;
}

double cpu_seconds()
{
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

void log_one(std::uint32_t key, std::int32_t value)
{
    if (logferry::log_start(CONTEXT, key, LEVEL_INFO)) {
        logferry::log_int32(key, value);
        logferry::log_utf8_string(key, "hello world");
        logferry::log_uint32_formatted(key, 0xC0FFEEU, logferry::LogFormat::kHex);
        logferry::log_finish(key);
    }
}

// Brings logging up as application `id` with the context LOAD and waits until the daemon
// side has attached and the ring is open; false with a line on stderr.
bool bring_up(const std::string& id, const char* description, std::chrono::milliseconds attach_limit)
{
    logferry::set_app_identifier(id);
    logferry::init();
    if (!logferry::register_app(id.c_str(), description) ||
        !logferry::register_context(CONTEXT, "LOAD", "load context", LEVEL_INFO)) {
        std::fprintf(stderr, "e2e_load: cannot register\n");
        return false;
    }
    if (!wait_until(attach_limit, ring_open)) {
        std::fprintf(stderr, "e2e_load: no daemon side attached\n");
        return false;
    }
    return true;
}

int run_log(const std::string& id, double seconds, double rate)
{
    if (!bring_up(id, "end-to-end load", std::chrono::milliseconds(10000))) {
        return 1;
    }
    const double cpu_before = cpu_seconds();
    std::uint64_t sent = 0;
    double skipped = 0.0;  // messages of the schedule not sent (see below)
    const auto began = Clock::now();
    const auto end = began + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    for (auto now = began; now < end; now = Clock::now()) {
        if (rate > 0.0) {
            // A generator that was kept off the processor does not make up for it in one burst
            // at full speed: it is at most 1 ms of messages behind its schedule.
            double due = rate * std::chrono::duration<double>(now - began).count() - skipped;
            if (due - static_cast<double>(sent) > rate * MAX_LAG_SECONDS) {
                skipped += due - static_cast<double>(sent) - rate * MAX_LAG_SECONDS;
                due = static_cast<double>(sent) + rate * MAX_LAG_SECONDS;
            }
            if (static_cast<double>(sent) >= due) {
                const timespec pause{0, 20 * 1000};
                ::nanosleep(&pause, nullptr);
                continue;
            }
            while (static_cast<double>(sent) < due) {
                log_one(1, static_cast<std::int32_t>(sent));
                ++sent;
            }
            continue;
        }
        for (int i = 0; i < 64; ++i) {
            log_one(1, static_cast<std::int32_t>(sent));
            ++sent;
        }
    }
    const double cpu = cpu_seconds() - cpu_before;
    wait_until(std::chrono::milliseconds(5000), ring_empty);
    logferry::exit();
    std::printf("sent %llu cpu %.2f\n", static_cast<unsigned long long>(sent), cpu);
    return 0;
}

int run_flood(const std::string& id, double seconds, int threads)
{
    if (!bring_up(id, "end-to-end flood", std::chrono::milliseconds(20000))) {
        return 1;
    }
    const double cpu_before = cpu_seconds();
    const auto end = Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    std::vector<std::uint64_t> sent(static_cast<std::size_t>(threads));
    std::vector<Clock::duration> longest(static_cast<std::size_t>(threads), Clock::duration::zero());
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
            const auto key = static_cast<std::uint32_t>(t + 1);
            const auto index = static_cast<std::size_t>(t);
            for (auto now = Clock::now(); now < end;) {
                log_one(key, static_cast<std::int32_t>(sent[index]));
                const auto after = Clock::now();
                if (after - now > longest[index]) {
                    longest[index] = after - now;
                }
                ++sent[index];
                now = after;
            }
        });
    }
    for (std::thread& worker : workers) {
        worker.join();
    }
    const double cpu = cpu_seconds() - cpu_before;
    std::uint64_t total = 0;
    Clock::duration worst = Clock::duration::zero();
    for (int t = 0; t < threads; ++t) {
        total += sent[static_cast<std::size_t>(t)];
        worst = std::max(worst, longest[static_cast<std::size_t>(t)]);
    }
    wait_until(std::chrono::milliseconds(10000), ring_empty);
    // Whatever the ring discarded since the receiver thread's last report.
    logferry::client.check_lost_messages();
    logferry::exit();
    std::printf("sent %llu cpu %.2f longest-us %lld\n", static_cast<unsigned long long>(total), cpu,
                static_cast<long long>(std::chrono::duration_cast<std::chrono::microseconds>(worst).count()));
    return 0;
}

// Calls `each` with every DLT message (without its storage header) in the storage files.
template <typename Each>
void for_each_message(int count, char** files, Each each)
{
    for (int i = 0; i < count; ++i) {
        std::ifstream in(files[i], std::ios::binary);
        const std::vector<unsigned char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        std::size_t pos = 0;
        while (pos + STORAGE_HEADER + 4 <= bytes.size()) {
            const std::size_t length =
                static_cast<std::size_t>(bytes[pos + STORAGE_HEADER + 2]) << 8 | bytes[pos + STORAGE_HEADER + 3];
            if (pos + STORAGE_HEADER + length <= bytes.size()) {
                each(bytes.data() + pos + STORAGE_HEADER, length);
            }
            pos += STORAGE_HEADER + length;
        }
    }
}

int run_count(int count, char** files)
{
    std::uint64_t messages = 0;
    for_each_message(count, files, [&](const unsigned char*, std::size_t) { ++messages; });
    std::printf("%llu\n", static_cast<unsigned long long>(messages));
    return 0;
}

// The application ID of a DLT message: behind the standard header's optional ECU ID,
// session ID and timestamp, at offset 2 of the extended header.
int run_per_app(int count, char** files)
{
    constexpr unsigned char WITH_EXTENDED = 0x01, WITH_ECU = 0x04, WITH_SESSION = 0x08, WITH_TIMESTAMP = 0x10;
    std::map<std::string, std::uint64_t> messages;
    for_each_message(count, files, [&](const unsigned char* message, std::size_t length) {
        const unsigned char type = message[0];
        std::size_t at = 4;
        at += (type & WITH_ECU) != 0 ? 4 : 0;
        at += (type & WITH_SESSION) != 0 ? 4 : 0;
        at += (type & WITH_TIMESTAMP) != 0 ? 4 : 0;
        if ((type & WITH_EXTENDED) == 0 || at + 6 > length) {
            ++messages["-"];
            return;
        }
        const char* id = reinterpret_cast<const char*>(message + at + 2);
        ++messages[std::string(id, strnlen(id, 4))];
    });
    for (const auto& entry : messages) {
        std::printf("%s %llu\n", entry.first.c_str(), static_cast<unsigned long long>(entry.second));
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "log" && argc == 5) {
        return run_log(argv[2], std::atof(argv[3]), std::atof(argv[4]));
    }
    if (mode == "flood" && argc == 5) {
        return run_flood(argv[2], std::atof(argv[3]), std::atoi(argv[4]));
    }
    if (mode == "count") {
        return run_count(argc - 2, argv + 2);
    }
    if (mode == "per-app") {
        return run_per_app(argc - 2, argv + 2);
    }
    std::fprintf(stderr,
                 "usage: e2e_load log ID SECONDS RATE | e2e_load flood ID SECONDS THREADS | e2e_load count FILE... | "
                 "e2e_load per-app FILE...\n");
    return 2;
}
