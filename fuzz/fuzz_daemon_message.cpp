// Fuzz harness: `handle_daemon_message`, the front end's handler of what the daemon writes
// into the channel (level-filter updates and console text).
//
// Input: a filter table to start from (a count, then handle and level pairs), then messages,
// each a 16-bit length and that many bytes, until the input ends. Every message is handled
// in turn with the standard output descriptor pointed at /dev/null; what the handler writes
// to std::cout and std::cerr is collected. Checked against the design for every message:
//   - empty: "logferry: empty message received." on the error stream, nothing else;
//   - first byte 24: nothing printed; exactly 6 bytes with a level up to 6 set the filter of a
//     context that has one; nothing else changes, and no filter is ever created;
//   - anything else: the bytes up to the first zero are printed on the output stream, no
//     newline added, and the filters stay as they are.
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <iostream>
#include <sstream>
#include <string>
#include <unordered_map>
#include <vector>

#include "harness_support.hpp"
#include "logferry/client.hpp"
#include "wire/wire.hpp"

namespace {

const char* const HARNESS = "fuzz_daemon_message";

// Points the standard output descriptor at /dev/null while it lives.
class Silenced_stdout {
public:
    Silenced_stdout()
    {
        std::fflush(stdout);
        saved_ = ::dup(STDOUT_FILENO);
        const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (saved_ < 0 || null < 0 || ::dup2(null, STDOUT_FILENO) < 0) {
            std::fprintf(stderr, "%s: cannot redirect the standard output\n", HARNESS);
            std::abort();
        }
        ::close(null);
    }
    ~Silenced_stdout()
    {
        std::cout.flush();
        std::fflush(stdout);
        ::dup2(saved_, STDOUT_FILENO);
        ::close(saved_);
    }
    Silenced_stdout(const Silenced_stdout&) = delete;
    Silenced_stdout& operator=(const Silenced_stdout&) = delete;

private:
    int saved_ = -1;
};

// Collects what is written to std::cout while it lives.
class Captured_cout : public logferry_fuzz::Captured_stream {
public:
    Captured_cout() : Captured_stream(std::cout) {}
};

std::string describe(const std::vector<unsigned char>& bytes)
{
    return logferry_fuzz::quoted(std::string(bytes.begin(), bytes.end()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    logferry_fuzz::Reader in(data, size);
    std::unordered_map<std::uint32_t, std::uint8_t> expected_filters;
    {
        std::lock_guard<std::mutex> lock(logferry::filters_mutex);
        logferry::log_level_filters.clear();
        const int count = in.u8() % 8;
        for (int i = 0; i < count; ++i) {
            const std::uint8_t small = in.u8();
            const std::uint32_t handle = (small & 0x80) != 0 ? in.u32() : small;
            const std::uint8_t level = in.u8() % 7;
            logferry::log_level_filters[handle] = level;
        }
        expected_filters = logferry::log_level_filters;
    }

    Silenced_stdout silenced;
    while (!in.empty()) {
        const std::string text = in.bytes(in.u16() % 2048);
        std::vector<unsigned char> message(text.begin(), text.end());
        const std::vector<unsigned char> original = message;

        std::string printed;
        std::string reported;
        {
            Captured_cout cout;
            logferry_fuzz::Captured_cerr cerr;
            logferry::handle_daemon_message(message);
            printed = cout.take();
            reported = cerr.take();
        }

        std::string expected_printed;
        std::string expected_reported;
        if (original.empty()) {
            expected_reported = "logferry: empty message received.\n";
        } else if (original[0] == logferry::KIND_UPDATE_CONTEXT_LOG_LEVEL_FILTER) {
            namespace wire = logferry::wire;
            const std::uint8_t level = original.size() > 1 ? original[wire::level_update::LEVEL_AT] : 0;
            if (original.size() == wire::LEVEL_UPDATE_SIZE && level <= wire::MAX_LOG_LEVEL) {
                const std::uint32_t handle = wire::get_u32(original.data() + wire::level_update::HANDLE_AT);
                const auto entry = expected_filters.find(handle);
                if (entry != expected_filters.end()) {
                    entry->second = level;
                }
            }
        } else {
            for (unsigned char byte : original) {
                if (byte == 0) {
                    break;
                }
                expected_printed += static_cast<char>(byte);
            }
        }

        if (printed != expected_printed || reported != expected_reported) {
            logferry_fuzz::violation(HARNESS, "message " + describe(original) + " printed " +
                                                  logferry_fuzz::quoted(printed) + " and reported " +
                                                  logferry_fuzz::quoted(reported) + ", expected " +
                                                  logferry_fuzz::quoted(expected_printed) + " and " +
                                                  logferry_fuzz::quoted(expected_reported));
        }
        std::lock_guard<std::mutex> lock(logferry::filters_mutex);
        if (logferry::log_level_filters != expected_filters) {
            logferry_fuzz::violation(HARNESS, "message " + describe(original) + " left " +
                                                  std::to_string(logferry::log_level_filters.size()) +
                                                  " filters that differ from the " +
                                                  std::to_string(expected_filters.size()) + " expected");
        }
    }
    return 0;
}
