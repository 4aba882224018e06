// The daemon side's DLT work for one log message (int32, "hello world", hex uint32): the
// encoding alone, the encoding plus its entry in a DLT storage file (buffered, written to
// /dev/null so that the disk does not count), and the encoding plus a broadcast to one TCP
// client that reads everything on a thread of its own.
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <arpa/inet.h>
#include <netinet/in.h>

#include <atomic>
#include <cstring>
#include <thread>

#include <benchmark/benchmark.h>

#include "dlt_file.hpp"
#include "dlt_message.hpp"
#include "dlt_tcp.hpp"

namespace {

struct Sample {
    logferry_dlt::Argument args[3];
    logferry_dlt::Message message;

    Sample()
    {
        args[0].kind = logferry_dlt::Arg_kind::signed_int;
        args[0].bits = 32;
        args[0].signed_value = 42;
        args[1].kind = logferry_dlt::Arg_kind::text;
        args[1].data = reinterpret_cast<const unsigned char*>("hello world");
        args[1].size = 11;
        args[2].kind = logferry_dlt::Arg_kind::unsigned_int;
        args[2].bits = 32;
        args[2].format = 2;
        args[2].unsigned_value = 0xC0FFEE;
        std::memcpy(message.ecu, "LFER", 4);
        std::memcpy(message.app, "APP1", 4);
        std::memcpy(message.context, "CTX1", 4);
        message.level = 4;
        message.args = args;
        message.arg_count = 3;
    }

    // The message stamped `stamp`, encoded into `out`; its size.
    std::size_t encode_next(unsigned char* out, std::size_t capacity, std::uint32_t stamp)
    {
        message.timestamp = stamp;
        return logferry_dlt::encode_log_message(message, out, capacity);
    }
};

void BM_dlt_encode(benchmark::State& state)
{
    Sample sample;
    unsigned char out[1024];
    std::uint32_t n = 0;
    for (auto _ : state) {
        sample.message.counter = static_cast<std::uint8_t>(n);
        sample.message.timestamp = n++;
        benchmark::DoNotOptimize(logferry_dlt::encode_log_message(sample.message, out, sizeof out));
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_dlt_encode);

void BM_dlt_encode_and_file(benchmark::State& state)
{
    Sample sample;
    logferry_dlt::File_writer file;
    if (!file.open("/dev/null", 0, 1)) {
        state.SkipWithError(file.error.c_str());
        return;
    }
    unsigned char out[1024];
    std::uint32_t n = 0;
    for (auto _ : state) {
        const std::size_t size = sample.encode_next(out, sizeof out, n++);
        file.write(out, size, n, 0, sample.message.ecu);
    }
    file.flush();
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_dlt_encode_and_file);

void BM_dlt_encode_and_broadcast(benchmark::State& state)
{
    Sample sample;
    logferry_dlt::Tcp_server server;
    if (!server.listen("127.0.0.1", 0)) {
        state.SkipWithError(server.error.c_str());
        return;
    }
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(server.port());
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) {
        state.SkipWithError("cannot connect");
        ::close(fd);
        return;
    }
    while (server.client_count() == 0) {
        server.service(10, [](int, const logferry_dlt::Control_request&) {});
    }
    std::atomic<bool> stop{false};
    std::thread reader([&] {
        unsigned char chunk[1 << 16];
        while (!stop.load(std::memory_order_relaxed)) {
            pollfd p{fd, POLLIN, 0};
            if (::poll(&p, 1, 10) > 0 && ::recv(fd, chunk, sizeof chunk, 0) <= 0) {
                return;
            }
        }
    });
    unsigned char out[1024];
    std::uint32_t n = 0;
    for (auto _ : state) {
        const std::size_t size = sample.encode_next(out, sizeof out, n++);
        server.broadcast(out, size);
        if ((n & 255) == 0) {
            server.service(0, [](int, const logferry_dlt::Control_request&) {});
        }
    }
    state.counters["dropped_clients"] = static_cast<double>(server.dropped_clients);
    stop = true;
    reader.join();
    ::close(fd);
    server.close();
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_dlt_encode_and_broadcast);

}  // namespace

BENCHMARK_MAIN();
