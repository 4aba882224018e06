// The cost of one log message on the application's side, measured against the floor of
// what any design must do for it, in one run of one binary.
//
// Message: log_start, log_int32, log_utf8_string("hello world"), log_uint32_formatted (hex)
// and log_finish, with a daemon-side reader attached to the channel in its own thread,
// taking the messages out of the ring as the daemon does. Also with two application threads
// on different stream keys, and the level-filter query. Both readers (the channel's and the
// floor's) take everything waiting in one hold of the ring's mutex and let go of the records
// after releasing it, as a daemon that forwards outside the application's lock does.
//
// Floor: the irreducible work of the same message: one clock read, its 57 bytes encoded on
// the stack, one section of a robust process-shared mutex and one copy into a ring.
//
// Prescribed work (for comparison): what the design's locking and exported tables alone cost
// for this message, with the records already encoded; the front end's own overhead is the
// difference between it and the message. The six process-local mutex sections of a message,
// empty, show how much of that is locking alone.
//
// The same message through the standard front end (ara::log, `LogInfo() << value << "hello
// world" << HexFormat(value)`): with a concurrent reader from one, two and four threads, with
// no concurrent reader, filtered out (against an empty loop), and the time of each call from
// one and two threads (99th percentile).
//
// Heap allocations are counted per thread by replacing the global operator new in this
// binary (the library's allocations resolve to it as well); the count per message is
// reported as the counter allocs_per_msg. A summary table is printed at the end.
#include <dirent.h>
#include <pthread.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "ara/log/logging.h"
#include "ara_log/stamp_clock.hpp"
#include "logferry/logferry.hpp"

// ---------------------------------------------------------------------------------------
// Allocation counting

namespace {
thread_local std::uint64_t thread_allocations = 0;

void* counted_allocation(std::size_t size)
{
    ++thread_allocations;
    void* memory = std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}
}  // namespace

void* operator new(std::size_t size) { return counted_allocation(size); }
void* operator new[](std::size_t size) { return counted_allocation(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    ++thread_allocations;
    return std::malloc(size == 0 ? 1 : size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept
{
    ++thread_allocations;
    return std::malloc(size == 0 ? 1 : size);
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }

namespace {

constexpr std::uint32_t CONTEXT = 7;
constexpr std::uint8_t LEVEL_INFO = 4;
// More records than the channel's ring can hold at once (each takes at least 3 bytes).
constexpr std::uint64_t CLIENT_RING_RECORDS_MAX = logferry::CLIENT_BUFFER_SIZE / 3 + 1;
// Both readers (the daemon's end of the channel, and the floor's reader) wake every
// READER_NAP_US microseconds and take everything waiting in one hold of the ring's mutex.
// The ring (131071 bytes, about 2200 of these messages) must not fill up meanwhile.
// BENCH_READER_NAP_US and BENCH_READER_BATCH (records per hold) override the defaults.
int reader_nap_us()
{
    const char* text = std::getenv("BENCH_READER_NAP_US");
    return text != nullptr ? std::atoi(text) : 100;
}
std::uint64_t reader_batch()
{
    const char* text = std::getenv("BENCH_READER_BATCH");
    return text != nullptr ? static_cast<std::uint64_t>(std::atoll(text)) : CLIENT_RING_RECORDS_MAX;
}
const std::uint64_t READER_BATCH = reader_batch();

// Messages of the standard front end read by the daemon side (their context is not the free
// functions' CONTEXT).
std::atomic<std::uint64_t> ara_read{0};

bool is_ara_message(const std::vector<unsigned char>& record)
{
    constexpr std::size_t HANDLE_AT = offsetof(logferry::Logferry_write_start, context_handle);
    if (record.size() < sizeof(logferry::Logferry_write_start) || record[0] != logferry::KIND_WRITE_START) {
        return false;
    }
    std::uint32_t handle = 0;
    std::memcpy(&handle, record.data() + HANDLE_AT, sizeof handle);
    return handle != CONTEXT;
}

// What a reader does with the records it took in one hold of a ring's mutex, after releasing
// it: a daemon forwards them outside the application's lock; here they are counted and freed.
std::uint64_t forward_taken(std::vector<std::vector<unsigned char>>& taken, std::atomic<std::uint64_t>& read)
{
    const std::uint64_t count = taken.size();
    std::uint64_t ara = 0;
    for (const std::vector<unsigned char>& record : taken) {
        benchmark::DoNotOptimize(record.data());
        ara += is_ara_message(record) ? 1 : 0;
    }
    taken.clear();
    read.fetch_add(count, std::memory_order_relaxed);
    ara_read.fetch_add(ara, std::memory_order_relaxed);
    return count;
}

// ---------------------------------------------------------------------------------------
// The library, registered, with the daemon's end of the channel draining the ring.

class Session {
public:
    void start()
    {
        logferry::set_app_identifier("BNCH");
        logferry::init();
        if (!reader_end_.init(logferry::client.get_filename())) {
            std::fprintf(stderr, "bench: cannot attach to the channel\n");
            std::exit(1);
        }
        reader_end_.is_connection_active();
        taken_.reserve(CLIENT_RING_RECORDS_MAX);
        reader_ = std::thread([this] { read(); });
        if (!logferry::register_app("BNCH", "benchmark") ||
            !logferry::register_context(CONTEXT, "CTX1", "benchmark context", LEVEL_INFO)) {
            std::fprintf(stderr, "bench: registration refused\n");
            std::exit(1);
        }
        // The standard front end on the same channel (the library is already up).
        ara::log::InitLogging("BNCH", "benchmark", ara::log::LogLevel::kInfo, ara::log::LogMode::kRemote);
        ara_logger_ = &ara::log::CreateLogger("ARA1", "ara::log benchmark context", ara::log::LogLevel::kInfo);
        logferry::client.unlock_client_buffer();
    }

    void stop()
    {
        stop_ = true;
        reader_.join();
        reader_end_.uninit();
        logferry::exit();
    }

    std::uint64_t messages_read() const { return read_.load(); }
    const ara::log::Logger& ara_logger() const { return *ara_logger_; }

    // Stops (true) or resumes (false) the reader thread; returns once it is idle.
    void pause_reader(bool pause)
    {
        paused_ = pause;
        while (pause && !idle_.load()) {
            std::this_thread::yield();
        }
        if (!pause) {
            idle_ = false;
        }
    }

    // Empties the ring from the calling thread (while the reader thread is paused).
    void drain_here()
    {
        while (take_batch() == READER_BATCH) {
        }
    }

private:
    // Takes what the application wrote, as the daemon does; stamps its watchdog and empties
    // the priority area now and then, and naps briefly when the ring is empty.
    void read()
    {
        const auto nap = std::chrono::microseconds(reader_nap_us());
        unsigned int round = 0;
        while (!stop_.load(std::memory_order_relaxed)) {
            if (paused_.load()) {
                idle_ = true;
                std::this_thread::sleep_for(std::chrono::microseconds(100));
                continue;
            }
            if ((round++ & 63) == 0) {
                reader_end_.is_connection_active();
                reader_end_.pop_priority();
            }
            std::uint64_t taken = 0;
            for (;;) {
                const std::uint64_t batch = take_batch();
                taken += batch;
                if (batch < READER_BATCH) {
                    break;
                }
            }
            if (nap.count() > 0) {
                std::this_thread::sleep_for(nap);
            } else {
                std::this_thread::yield();
            }
        }
    }

    // Takes up to READER_BATCH records (by default all) in one hold of the ring's mutex, as
    // a daemon that drains in bursts does (pop_unsynced is the daemon's reading step under a
    // held lock).
    std::uint64_t take_batch()
    {
        if (reader_end_.is_client_buffer_locked()) {
            return 0;  // the application's records wait until it opens the gate
        }
        logferry::Channel_segment* segment = reader_end_.segment;
        {
            logferry::Mutex_lock_guard lock(&segment->client_mutex.mutex, false);
            while (taken_.size() < READER_BATCH && !ring_empty(segment)) {
                std::vector<unsigned char> record = reader_end_.pop_unsynced(false);
                if (record.empty()) {
                    break;
                }
                taken_.push_back(std::move(record));
            }
        }
        return forward_taken(taken_, read_);
    }

    static bool ring_empty(const logferry::Channel_segment* segment)
    {
        const std::uint32_t write = segment->client_write_index;
        return segment->client_read_index == write && segment->client_buffer[write] == 0 &&
               segment->client_buffer[write + 1] == 0;
    }

    logferry::Logferry_base reader_end_;
    const ara::log::Logger* ara_logger_ = nullptr;
    std::vector<std::vector<unsigned char>> taken_;
    std::thread reader_;
    std::atomic<bool> stop_{false};
    std::atomic<bool> paused_{false};
    std::atomic<bool> idle_{false};
    std::atomic<std::uint64_t> read_{0};
};

Session session;
// Messages written by the message benchmarks (warm-up messages included).
std::atomic<std::uint64_t> messages_written{0};

// ---------------------------------------------------------------------------------------
// Benchmarks

void set_allocation_counter(benchmark::State& state, std::uint64_t before)
{
    state.counters["allocs_per_msg"] =
        benchmark::Counter(static_cast<double>(thread_allocations - before) / static_cast<double>(state.iterations()),
                           benchmark::Counter::kAvgThreads);
}

// The iterations as items, and as messages written (with the one sent before the timing).
void count_messages(benchmark::State& state)
{
    state.SetItemsProcessed(state.iterations());
    messages_written.fetch_add(state.iterations() + 1);
}

// The measured message.
inline void write_message(std::uint32_t key, std::uint32_t value)
{
    logferry::log_start(CONTEXT, key, LEVEL_INFO);
    logferry::log_int32(key, static_cast<std::int32_t>(value));
    logferry::log_utf8_string(key, "hello world");
    logferry::log_uint32_formatted(key, value, logferry::LogFormat::kHex);
    logferry::log_finish(key);
}

// The measured message under a stream key of the benchmark's own for each of its threads.
auto message_writer(const benchmark::State& state, std::uint32_t key_base)
{
    const std::uint32_t key = key_base + static_cast<std::uint32_t>(state.thread_index());
    return [key](std::uint32_t value) { write_message(key, value); };
}

// Runs `message(value)` once per iteration, counting its allocations. One message goes out
// before the timing, so that steady state is measured.
template <typename Message>
void run_messages(benchmark::State& state, Message message)
{
    std::uint32_t value = 0;
    message(value);
    const std::uint64_t before = thread_allocations;
    for (auto _ : state) {
        message(++value);
    }
    set_allocation_counter(state, before);
    count_messages(state);
}

void BM_message(benchmark::State& state) { run_messages(state, message_writer(state, 1000)); }
BENCHMARK(BM_message)->UseRealTime();
BENCHMARK(BM_message)->Threads(2)->UseRealTime();

// Runs `message` once per iteration with the reader paused; the ring is emptied between
// batches of 1000 messages with the timer stopped (which adds about 2 ns per message of timer
// overhead). This is the front end's and the channel's own cost, without the cross-core
// traffic and lock contention that a concurrent reader brings.
template <typename Message>
void run_without_concurrent_reader(benchmark::State& state, Message message)
{
    constexpr unsigned int BATCH = 1000;
    session.pause_reader(true);
    session.drain_here();
    message();  // steady state, as above
    const std::uint64_t before = thread_allocations;
    std::uint64_t drain_allocations = 0;
    unsigned int in_batch = 0;
    for (auto _ : state) {
        message();
        if (++in_batch == BATCH) {
            state.PauseTiming();
            const std::uint64_t before_drain = thread_allocations;
            session.drain_here();
            drain_allocations += thread_allocations - before_drain;  // the daemon's, not ours
            state.ResumeTiming();
            in_batch = 0;
        }
    }
    set_allocation_counter(state, before + drain_allocations);
    count_messages(state);
    session.drain_here();
    session.pause_reader(false);
}

// For comparison only: the message with no reader running concurrently.
void BM_message_no_concurrent_reader(benchmark::State& state)
{
    std::uint32_t value = 0;
    run_without_concurrent_reader(state, [&value] { write_message(2000, ++value); });
}
BENCHMARK(BM_message_no_concurrent_reader)->UseRealTime();

// The same message through the standard front end.
inline void write_ara_message(const ara::log::Logger& logger, std::uint32_t value)
{
    logger.LogInfo() << static_cast<std::int32_t>(value) << "hello world" << ara::log::HexFormat(value);
}

// The processor's counter, for timing single calls (a clock read costs more than the call):
// the one the front end's time stamp reads.
inline std::uint64_t counter() { return ara::log::detail::processor_counter(); }

// Counter ticks per nanosecond, measured once against the steady clock over 50 ms, and the
// least ticks an empty timed pair takes (subtracted from every sample).
struct Counter_scale {
    double ticks_per_ns = 1;
    std::uint64_t empty_pair = 0;
};
const Counter_scale& counter_scale()
{
    static const Counter_scale scale = [] {
        Counter_scale result;
        const auto start = std::chrono::steady_clock::now();
        const std::uint64_t first = counter();
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        const std::uint64_t last = counter();
        const double ns = std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start).count();
        result.ticks_per_ns = static_cast<double>(last - first) / ns;
        result.empty_pair = ~std::uint64_t{0};
        for (int i = 0; i < 100000; ++i) {
            const std::uint64_t before = counter();
            const std::uint64_t after = counter();
            result.empty_pair = std::min(result.empty_pair, after - before);
        }
        return result;
    }();
    return scale;
}

// The p-th fraction of `samples` (counter ticks, the empty pair taken off) in nanoseconds.
double percentile_ns(std::vector<std::uint64_t>& samples, double p)
{
    if (samples.empty()) {
        return -1;
    }
    const auto at = static_cast<std::size_t>(static_cast<double>(samples.size() - 1) * p);
    std::nth_element(samples.begin(), samples.begin() + static_cast<long>(at), samples.end());
    const Counter_scale& scale = counter_scale();
    const std::uint64_t ticks = samples[at] > scale.empty_pair ? samples[at] - scale.empty_pair : 0;
    return static_cast<double>(ticks) / scale.ticks_per_ns;
}

void set_percentiles(benchmark::State& state, std::vector<std::uint64_t>& samples)
{
    state.counters["p50_ns"] = benchmark::Counter(percentile_ns(samples, 0.50), benchmark::Counter::kAvgThreads);
    state.counters["p99_ns"] = benchmark::Counter(percentile_ns(samples, 0.99), benchmark::Counter::kAvgThreads);
    state.counters["p999_ns"] = benchmark::Counter(percentile_ns(samples, 0.999), benchmark::Counter::kAvgThreads);
}

// The front end's messages written so far, by every benchmark.
std::atomic<std::uint64_t> ara_written{0};

// Waits, sleeping, until the daemon side has read every front-end message written so far
// (the flusher keeps up with a burst), 2 s at the most; false when it did not.
bool wait_until_read()
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (ara_read.load() < ara_written.load()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            ara_read = ara_written.load();  // lost ones would keep every later wait waiting
            return false;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
    return true;
}

// The front end in bursts that the flusher keeps up with ("daemon draining"): each thread
// logs BURST messages, each call timed with the processor's counter, then waits untimed
// until the daemon side has read them. Reports the calls' p50, p99 and p99.9, the time per
// message while logging, the callers' rate and heap allocations.
constexpr int BURST = 1000;

void BM_ara_burst(benchmark::State& state)
{
    const ara::log::Logger& logger = session.ara_logger();
    std::vector<std::uint64_t> samples;
    samples.reserve(1 << 22);
    std::uint32_t value = 0;
    write_ara_message(logger, value);  // steady state
    ara_written.fetch_add(1);
    std::uint64_t allocations = 0;
    int late = 0;
    for (auto _ : state) {
        const std::uint64_t before = thread_allocations;
        for (int i = 0; i < BURST; ++i) {
            const std::uint64_t start = counter();
            write_ara_message(logger, ++value);
            const std::uint64_t took = counter() - start;
            if (samples.size() < samples.capacity()) {
                samples.push_back(took);
            }
        }
        allocations += thread_allocations - before;
        state.PauseTiming();
        ara_written.fetch_add(BURST);
        late += wait_until_read() ? 0 : 1;
        state.ResumeTiming();
    }
    set_percentiles(state, samples);
    state.counters["allocs_per_msg"] =
        benchmark::Counter(static_cast<double>(allocations) / static_cast<double>(state.iterations() * BURST),
                           benchmark::Counter::kAvgThreads);
    state.counters["late_bursts"] = benchmark::Counter(late, benchmark::Counter::kAvgThreads);
    state.SetItemsProcessed(state.iterations() * BURST);
}
BENCHMARK(BM_ara_burst)->UseRealTime()->Iterations(2000);
BENCHMARK(BM_ara_burst)->Threads(2)->UseRealTime()->Iterations(2000);
BENCHMARK(BM_ara_burst)->Threads(4)->UseRealTime()->Iterations(1000);

// This thread's processor time, and the flusher thread's (found by its name), in ns.
std::uint64_t thread_cpu_ns()
{
    timespec now{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000000000U + static_cast<std::uint64_t>(now.tv_nsec);
}

std::uint64_t flusher_cpu_ns()
{
    DIR* tasks = ::opendir("/proc/self/task");
    if (tasks == nullptr) {
        return 0;
    }
    std::uint64_t result = 0;
    while (const dirent* entry = ::readdir(tasks)) {
        const std::string task = std::string("/proc/self/task/") + entry->d_name;
        std::ifstream comm(task + "/comm");
        std::string name;
        std::getline(comm, name);
        if (name == "logferry-flush") {
            std::ifstream schedstat(task + "/schedstat");
            schedstat >> result;  // ns on the processor
        }
    }
    ::closedir(tasks);
    return result;
}

// The whole process's processor time per delivered message, callers and flusher together:
// bursts from one thread, the caller's time while logging, the flusher's over the whole run.
void BM_ara_process_cpu(benchmark::State& state)
{
    const ara::log::Logger& logger = session.ara_logger();
    std::uint32_t value = 0;
    if (!wait_until_read()) {
        state.SkipWithError("earlier messages were not read");
        return;
    }
    const std::uint64_t read_before = ara_read.load();
    const std::uint64_t flusher_before = flusher_cpu_ns();
    std::uint64_t callers = 0;
    for (auto _ : state) {
        const std::uint64_t start = thread_cpu_ns();
        for (int i = 0; i < BURST; ++i) {
            write_ara_message(logger, ++value);
        }
        callers += thread_cpu_ns() - start;
        state.PauseTiming();
        ara_written.fetch_add(BURST);
        wait_until_read();
        state.ResumeTiming();
    }
    const double delivered = static_cast<double>(ara_read.load() - read_before);
    const double flusher = static_cast<double>(flusher_cpu_ns() - flusher_before);
    state.counters["caller_cpu_ns"] = benchmark::Counter(static_cast<double>(callers) / delivered);
    state.counters["flusher_cpu_ns"] = benchmark::Counter(flusher / delivered);
    state.counters["process_cpu_ns"] = benchmark::Counter((static_cast<double>(callers) + flusher) / delivered);
    state.SetItemsProcessed(state.iterations() * BURST);
}
BENCHMARK(BM_ara_process_cpu)->UseRealTime()->Iterations(3000);

// A message whose level is filtered out (debug on an info context), and the same loop with
// nothing in it: the difference is the filtered message's cost.
void BM_ara_filtered(benchmark::State& state)
{
    const ara::log::Logger& logger = session.ara_logger();
    std::uint32_t value = 0;
    for (auto _ : state) {
        logger.LogDebug() << static_cast<std::int32_t>(value) << "hello world" << ara::log::HexFormat(value);
        benchmark::DoNotOptimize(++value);
    }
}
BENCHMARK(BM_ara_filtered)->UseRealTime();

void BM_empty_loop(benchmark::State& state)
{
    std::uint32_t value = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(++value);
    }
}
BENCHMARK(BM_empty_loop)->UseRealTime();

// The time of each call (clock read before and after; the clock's own cost is in it), as the
// 99th percentile of each thread's calls, averaged over the threads; and the throughput of
// all threads together. `message` is the free functions' message or the front end's.
template <typename Message>
void measure_calls(benchmark::State& state, Message message)
{
    constexpr std::size_t MAX_SAMPLES = 1 << 22;
    std::vector<std::uint32_t> samples;
    samples.reserve(MAX_SAMPLES);
    std::uint32_t value = 0;
    message(value);
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        message(++value);
        const auto took = std::chrono::steady_clock::now() - start;
        if (samples.size() < MAX_SAMPLES) {
            samples.push_back(
                static_cast<std::uint32_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(took).count()));
        }
    }
    if (!samples.empty()) {
        const std::size_t at = samples.size() * 99 / 100;
        std::nth_element(samples.begin(), samples.begin() + static_cast<long>(at), samples.end());
        state.counters["p99_ns"] = benchmark::Counter(samples[at], benchmark::Counter::kAvgThreads);
    }
    count_messages(state);
}

void BM_message_calls(benchmark::State& state) { measure_calls(state, message_writer(state, 3000)); }
BENCHMARK(BM_message_calls)->UseRealTime();
BENCHMARK(BM_message_calls)->Threads(2)->UseRealTime();

// For comparison only: the work the design itself prescribes for this message, with every
// record already encoded and no checks: the contexts' mutex around one lookup, one clock
// read, the stream table's mutex around one map operation for each of the five calls, each
// record appended to the stream's vector, and the push of the finished message into the ring.
// No front end can do less while keeping the specified locks and exported tables.
class Prescribed_work {
public:
    explicit Prescribed_work(std::uint32_t key) : key_(key) {}

    void message()
    {
        {
            std::lock_guard<std::mutex> lock(logferry::contexts_mutex);
            benchmark::DoNotOptimize(logferry::registered_contexts.find(CONTEXT));
        }
        timespec now;
        ::clock_gettime(CLOCK_MONOTONIC, &now);
        benchmark::DoNotOptimize(now);
        {
            std::lock_guard<std::mutex> lock(logferry::incomplete_logstream_messages_mutex);
            if (spare_.empty()) {
                append(logferry::incomplete_logstream_messages[key_], start_);
            } else {
                spare_.key() = key_;
                append(logferry::incomplete_logstream_messages.insert(std::move(spare_)).position->second, start_);
            }
        }
        append_locked(int32_);
        append_locked(text_);
        append_locked(hex_);
        Node node;
        {
            std::lock_guard<std::mutex> lock(logferry::incomplete_logstream_messages_mutex);
            node = logferry::incomplete_logstream_messages.extract(key_);
        }
        append(node.mapped(), finish_);
        logferry::client.push(node.mapped());
        node.mapped().clear();
        spare_ = std::move(node);
    }

private:
    using Node = decltype(logferry::incomplete_logstream_messages)::node_type;

    static void append(std::vector<unsigned char>& out, const std::vector<unsigned char>& bytes)
    {
        out.insert(out.end(), bytes.begin(), bytes.end());
    }

    void append_locked(const std::vector<unsigned char>& bytes)
    {
        std::lock_guard<std::mutex> lock(logferry::incomplete_logstream_messages_mutex);
        append(logferry::incomplete_logstream_messages.find(key_)->second, bytes);
    }

    const std::uint32_t key_;
    const std::vector<unsigned char> start_ = std::vector<unsigned char>(14, 7);
    const std::vector<unsigned char> int32_ = std::vector<unsigned char>(9, 12);
    const std::vector<unsigned char> text_ = std::vector<unsigned char>(19, 20);
    const std::vector<unsigned char> hex_ = std::vector<unsigned char>(10, 16);
    const std::vector<unsigned char> finish_ = std::vector<unsigned char>(5, 8);
    Node spare_;
};

void BM_prescribed_work(benchmark::State& state)
{
    Prescribed_work work(3000);
    for (auto _ : state) {
        work.message();
    }
    state.SetItemsProcessed(state.iterations());
    messages_written.fetch_add(state.iterations());
}
BENCHMARK(BM_prescribed_work)->UseRealTime();

// For comparison only: the prescribed work with no reader running concurrently.
void BM_prescribed_work_no_concurrent_reader(benchmark::State& state)
{
    Prescribed_work work(4000);
    run_without_concurrent_reader(state, [&work] { work.message(); });
}
BENCHMARK(BM_prescribed_work_no_concurrent_reader)->UseRealTime();

// For comparison only: the six sections of the library's process-local mutexes that a message
// takes by design (the contexts' mutex once, the stream table's mutex five times), with
// nothing inside them.
void BM_mutex_sections(benchmark::State& state)
{
    for (auto _ : state) {
        {
            std::lock_guard<std::mutex> lock(logferry::contexts_mutex);
            benchmark::ClobberMemory();
        }
        for (int call = 0; call < 5; ++call) {
            std::lock_guard<std::mutex> lock(logferry::incomplete_logstream_messages_mutex);
            benchmark::ClobberMemory();
        }
    }
}
BENCHMARK(BM_mutex_sections)->UseRealTime();

void BM_is_log_level_enabled(benchmark::State& state)
{
    unsigned char level = 1;
    for (auto _ : state) {
        benchmark::DoNotOptimize(logferry::is_log_level_enabled(CONTEXT, level));
        level = static_cast<unsigned char>(level % 6 + 1);
    }
}
BENCHMARK(BM_is_log_level_enabled)->UseRealTime();

// The floor's ring: a robust process-shared mutex and a byte ring in shared memory, written
// the way the channel frames its records.
struct Floor_ring {
    pthread_mutex_t mutex;
    std::uint32_t write;
    unsigned char bytes[131071];
};

Floor_ring* make_floor_ring()
{
    void* memory = ::mmap(nullptr, sizeof(Floor_ring), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        std::perror("bench: mmap");
        std::exit(1);
    }
    auto* ring = static_cast<Floor_ring*>(memory);
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    pthread_mutex_init(&ring->mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
    ring->write = 0;
    return ring;
}

inline unsigned char* put32(unsigned char* out, std::uint32_t value)
{
    out[0] = static_cast<unsigned char>(value);
    out[1] = static_cast<unsigned char>(value >> 8);
    out[2] = static_cast<unsigned char>(value >> 16);
    out[3] = static_cast<unsigned char>(value >> 24);
    return out + 4;
}

// One message's irreducible work: read the clock, encode the 57 bytes on the stack, copy
// them into the ring under its robust mutex.
inline void floor_message(Floor_ring* ring, std::uint32_t key, std::uint32_t value)
{
    static const char text[] = "hello world";
    timespec now;
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    const std::uint32_t timestamp =
        static_cast<std::uint32_t>(now.tv_sec) * 10000u + static_cast<std::uint32_t>(now.tv_nsec / 100000);

    unsigned char message[64];
    unsigned char* p = message;
    *p++ = 7;
    *p++ = LEVEL_INFO;
    p = put32(p, CONTEXT);
    p = put32(p, key);
    p = put32(p, timestamp);
    *p++ = 12;
    p = put32(p, key);
    p = put32(p, value);
    *p++ = 20;
    *p++ = sizeof(text) + 7;
    *p++ = 0;
    p = put32(p, key);
    std::memcpy(p, text, sizeof(text));
    p += sizeof(text);
    *p++ = 16;
    *p++ = 2;
    p = put32(p, value);
    p = put32(p, key);
    *p++ = 8;
    p = put32(p, key);
    const auto size = static_cast<std::uint32_t>(p - message);

    if (::pthread_mutex_lock(&ring->mutex) == EOWNERDEAD) {
        ::pthread_mutex_consistent(&ring->mutex);
    }
    std::uint32_t at = ring->write;
    if (at + 2 + size > sizeof(ring->bytes)) {
        at = 0;
    }
    ring->bytes[at] = static_cast<unsigned char>(size);
    ring->bytes[at + 1] = static_cast<unsigned char>(size >> 8);
    std::memcpy(ring->bytes + at + 2, message, size);
    ring->write = at + 2 + size;
    ::pthread_mutex_unlock(&ring->mutex);
}

void BM_floor(benchmark::State& state)
{
    static Floor_ring* const ring = make_floor_ring();
    std::uint32_t value = 0;
    for (auto _ : state) {
        floor_message(ring, 1000, value);
        benchmark::ClobberMemory();
        ++value;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_floor)->UseRealTime();

// For comparison only: the floor with a reader in another thread taking the records out of
// its ring as the daemon's end does (each into a vector of its own, the bytes zeroed), in
// bursts with the same nap. This adds the cross-core traffic and lock contention that any
// design pays for handing bytes to a concurrent reader.
void BM_floor_with_reader(benchmark::State& state)
{
    static Floor_ring* const ring = make_floor_ring();
    std::atomic<bool> stop{false};
    std::thread reader([&stop] {
        const auto nap = std::chrono::microseconds(reader_nap_us());
        std::vector<std::vector<unsigned char>> taken;
        taken.reserve(CLIENT_RING_RECORDS_MAX);
        std::atomic<std::uint64_t> read{0};
        while (!stop.load(std::memory_order_relaxed)) {
            if (::pthread_mutex_lock(&ring->mutex) == EOWNERDEAD) {
                ::pthread_mutex_consistent(&ring->mutex);
            }
            std::uint32_t at = 0;
            while (at + 2 < ring->write) {
                const std::uint32_t size = ring->bytes[at] | (ring->bytes[at + 1] << 8);
                if (size == 0) {
                    break;
                }
                taken.emplace_back(ring->bytes + at + 2, ring->bytes + at + 2 + size);
                std::memset(ring->bytes + at, 0, size + 2);
                at += size + 2;
            }
            ring->write = 0;
            ::pthread_mutex_unlock(&ring->mutex);
            forward_taken(taken, read);
            if (nap.count() > 0) {
                std::this_thread::sleep_for(nap);
            }
        }
    });
    std::uint32_t value = 0;
    for (auto _ : state) {
        floor_message(ring, 1000, value);
        benchmark::ClobberMemory();
        ++value;
    }
    stop = true;
    reader.join();
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_floor_with_reader)->UseRealTime();

// The floor's calls timed one by one in the same way (no reader: its ring wraps).
void BM_floor_calls(benchmark::State& state)
{
    static Floor_ring* const ring = make_floor_ring();
    std::vector<std::uint64_t> samples;
    samples.reserve(1 << 22);
    std::uint32_t value = 0;
    for (auto _ : state) {
        const std::uint64_t start = counter();
        floor_message(ring, 1000, ++value);
        const std::uint64_t took = counter() - start;
        if (samples.size() < samples.capacity()) {
            samples.push_back(took);
        }
    }
    set_percentiles(state, samples);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_floor_calls)->UseRealTime()->Iterations(2000000);

// ---------------------------------------------------------------------------------------
// Summary

struct Result {
    double real_ns = 0;
    double cpu_ns = 0;
    double items_per_second = 0;
    double allocs_per_msg = -1;
    double p99_ns = -1;
    std::map<std::string, double> counters;  // every counter of the run

    double counter(const char* name) const
    {
        const auto found = counters.find(name);
        return found == counters.end() ? -1 : found->second;
    }
};

class Summary_reporter : public benchmark::ConsoleReporter {
public:
    Summary_reporter() : ConsoleReporter(OO_Tabular) {}

    void ReportRuns(const std::vector<Run>& runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.error_occurred) {
                continue;
            }
            const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            const bool single = run.run_type == Run::RT_Iteration;
            if (!median && !single) {
                continue;
            }
            const std::string name = run.run_name.str();
            if (single && medians_.count(name) != 0) {
                continue;
            }
            Result result;
            result.real_ns = run.GetAdjustedRealTime();
            result.cpu_ns = run.GetAdjustedCPUTime();
            const auto items = run.counters.find("items_per_second");
            if (items != run.counters.end()) {
                result.items_per_second = items->second.value;
            }
            const auto allocations = run.counters.find("allocs_per_msg");
            if (allocations != run.counters.end()) {
                result.allocs_per_msg = allocations->second.value;
            }
            for (const auto& [counter_name, counter] : run.counters) {
                result.counters[counter_name] = counter.value;
            }
            const auto p99 = run.counters.find("p99_ns");
            if (p99 != run.counters.end()) {
                result.p99_ns = p99->second.value;
            }
            results_[name] = result;
            if (median) {
                medians_[name] = true;
            }
        }
    }

    const Result* find(const std::string& name) const
    {
        const auto found = results_.find(name);
        return found == results_.end() ? nullptr : &found->second;
    }

private:
    std::map<std::string, Result> results_;
    std::map<std::string, bool> medians_;
};

void print_row(const char* measure, const Result* result, const char* goal = "")
{
    if (result != nullptr) {
        std::printf("  %-46s %9.1f %9.1f   %s\n", measure, result->real_ns, result->cpu_ns, goal);
    }
}

void print_ratio(const char* measure, const Result* part, const Result* whole, const char* goal = "")
{
    if (part != nullptr && whole != nullptr && whole->real_ns > 0 && whole->cpu_ns > 0) {
        std::printf("  %-46s %9.2f %9.2f   %s\n", measure, part->real_ns / whole->real_ns, part->cpu_ns / whole->cpu_ns,
                    goal);
    }
}

// Message, floor and prescribed work measured under the same conditions.
void print_comparison(const char* title, const Result* message, const Result* floor, const Result* prescribed)
{
    std::printf("  %s\n", title);
    print_row("message: ns", message);
    print_row("floor: ns", floor);
    print_row("prescribed work alone: ns", prescribed);
    print_ratio("ratio message / floor", message, floor);
    print_ratio("ratio prescribed work / floor", prescribed, floor);
    print_ratio("ratio message / prescribed work", message, prescribed);
}

void print_calls(const char* measure, const Result* calls)
{
    if (calls != nullptr) {
        std::printf("  %-46s %9.0f %9.0f\n", measure, calls->items_per_second, calls->p99_ns);
    }
}

void print_percentiles(const char* measure, const Result* result)
{
    if (result != nullptr) {
        std::printf("  %-46s %9.1f %9.1f %9.1f\n", measure, result->counter("p50_ns"), result->counter("p99_ns"),
                    result->counter("p999_ns"));
    }
}

void print_ara_summary(const Summary_reporter& reporter, const Result* floor)
{
    const Result* ara1 = reporter.find("BM_ara_burst/iterations:2000/real_time");
    const Result* ara2 = reporter.find("BM_ara_burst/iterations:2000/real_time/threads:2");
    const Result* ara4 = reporter.find("BM_ara_burst/iterations:1000/real_time/threads:4");
    const Result* floor_calls = reporter.find("BM_floor_calls/iterations:2000000/real_time");
    const Result* process = reporter.find("BM_ara_process_cpu/iterations:3000/real_time");
    const Result* filtered = reporter.find("BM_ara_filtered/real_time");
    const Result* empty = reporter.find("BM_empty_loop/real_time");
    std::printf("  the standard front end (ara::log), same message, staged; bursts of %d messages per thread\n", BURST);
    std::printf("  with the daemon side draining\n");
    std::printf("  %-46s %9s %9s %9s\n", "per call (processor's counter), ns", "p50", "p99", "p99.9");
    print_percentiles("LogInfo(), 1 thread", ara1);
    print_percentiles("LogInfo(), 2 threads (each)", ara2);
    print_percentiles("LogInfo(), 4 threads (each)", ara4);
    print_percentiles("floor, 1 thread", floor_calls);
    if (ara1 != nullptr && floor != nullptr && floor_calls != nullptr) {
        std::printf("  %-46s %9.2f             (goal <= 0.35)\n", "ratio LogInfo() p50 / floor (processor time)",
                    ara1->counter("p50_ns") / floor->cpu_ns);
        std::printf("  %-46s %9.2f\n", "ratio LogInfo() p50 / floor p50",
                    ara1->counter("p50_ns") / floor_calls->counter("p50_ns"));
    }
    if (process != nullptr && floor != nullptr) {
        std::printf("  %-46s %9.1f   (callers %.1f + flusher %.1f)\n", "processor time per delivered message: ns",
                    process->counter("process_cpu_ns"), process->counter("caller_cpu_ns"),
                    process->counter("flusher_cpu_ns"));
        std::printf("  %-46s %9.2f             (goal <= 1.0)\n", "ratio processor time per message / floor",
                    process->counter("process_cpu_ns") / floor->cpu_ns);
    }
    if (ara1 != nullptr && ara2 != nullptr && ara4 != nullptr) {
        std::printf("  %-46s %9.1f %9.1f %9.1f\n", "callers' rate while logging, M msgs/s (1, 2, 4)",
                    ara1->items_per_second / 1e6, ara2->items_per_second / 1e6, ara4->items_per_second / 1e6);
        std::printf("  %-46s %9.2f             (goal >= 1.8)\n", "ratio 2 threads / 1 thread",
                    ara2->items_per_second / ara1->items_per_second);
        std::printf("  %-46s %9.3f %9.3f %9.3f   (goal 0)\n", "heap allocations per message (1, 2, 4)",
                    ara1->allocs_per_msg, ara2->allocs_per_msg, ara4->allocs_per_msg);
        std::printf("  %-46s %9.0f %9.0f %9.0f\n", "bursts not read within 2 s (1, 2, 4)", ara1->counter("late_bursts"),
                    ara2->counter("late_bursts"), ara4->counter("late_bursts"));
    }
    if (filtered != nullptr && empty != nullptr) {
        std::printf("  %-46s %9.2f %9.2f   (goal <= 3)\n", "filtered-out message, net of the loop: ns",
                    filtered->real_ns - empty->real_ns, filtered->cpu_ns - empty->cpu_ns);
    }
    std::printf("  %-46s %9s %9s\n", "free functions, calls timed one by one", "msgs/s", "p99 ns");
    print_calls("free functions, 1 thread", reporter.find("BM_message_calls/real_time"));
    print_calls("free functions, 2 threads", reporter.find("BM_message_calls/real_time/threads:2"));
}

void print_summary(const Summary_reporter& reporter, std::uint64_t written, std::uint64_t read)
{
    const Result* message = reporter.find("BM_message/real_time");
    const Result* message2 = reporter.find("BM_message/real_time/threads:2");
    const Result* quiet = reporter.find("BM_message_no_concurrent_reader/real_time");
    const Result* floor = reporter.find("BM_floor/real_time");
    const Result* floor_read = reporter.find("BM_floor_with_reader/real_time");
    const Result* level = reporter.find("BM_is_log_level_enabled/real_time");
    const Result* prescribed = reporter.find("BM_prescribed_work/real_time");
    const Result* quiet_prescribed = reporter.find("BM_prescribed_work_no_concurrent_reader/real_time");
    const Result* sections = reporter.find("BM_mutex_sections/real_time");
    std::printf("\nsummary (medians when repetitions were asked for)\n");
    std::printf("  %-46s %9s %9s\n", "measure", "wall", "cpu");
    print_row("message, 1 thread: ns per message", message);
    print_row("floor: ns per message", floor);
    print_ratio("ratio message / floor", message, floor, "(goal <= 3.5, wall)");
    print_row("message, 2 threads: ns per message (both)", message2);
    print_row("is_log_level_enabled: ns", level, "(goal <= 40)");
    if (message != nullptr) {
        std::printf("  %-46s %9.3f             (goal <= 2)\n", "heap allocations per message, 1 thread",
                    message->allocs_per_msg);
    }
    if (message2 != nullptr) {
        std::printf("  %-46s %9.3f\n", "heap allocations per message, 2 threads", message2->allocs_per_msg);
    }
    print_comparison("the same on equal terms, with a concurrent reader:", message, floor_read, prescribed);
    print_comparison("and with no concurrent reader:", quiet, floor, quiet_prescribed);
    print_row("the six mutex sections alone: ns", sections);
    print_ratio("ratio six mutex sections / floor", sections, floor);
    print_ara_summary(reporter, floor);
    std::printf("  %-46s %9llu\n", "messages written", static_cast<unsigned long long>(written));
    std::printf("  %-46s %9llu\n", "messages read by the daemon side", static_cast<unsigned long long>(read));
    std::printf("  %-46s %9llu\n", "messages not read (discarded: ring full)",
                static_cast<unsigned long long>(written > read ? written - read : 0));
}

}  // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    session.start();
    Summary_reporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    session.stop();
    print_summary(reporter, messages_written.load() + ara_written.load(), session.messages_read());
    benchmark::Shutdown();
    return 0;
}
