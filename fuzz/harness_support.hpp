// Support shared by the fuzz harnesses: an input reader, mappings fenced by guard pages,
// a settable clock, a robust process-shared mutex set-up, capture of the library's output
// and the checks of expectations.
//
// The harnesses are compiled twice: as libFuzzer programs (fuzz/CMakeLists.txt) and into the
// regression test of the normal suite (tests/whole/test_fuzz_regressions.cpp), where their entry
// point is renamed by a macro. Everything here is header-only and inline.
#ifndef LOGFERRY_FUZZ_HARNESS_SUPPORT_HPP
#define LOGFERRY_FUZZ_HARNESS_SUPPORT_HPP

#include <pthread.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <sstream>
#include <string>

#include "logferry/channel.hpp"
#include "logferry/system.hpp"
#include "system/robust_mutex.hpp"

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define LOGFERRY_FUZZ_ASAN 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) && !defined(LOGFERRY_FUZZ_ASAN)
#define LOGFERRY_FUZZ_ASAN 1
#endif
#if defined(LOGFERRY_FUZZ_ASAN)
#include <sanitizer/asan_interface.h>
#define LOGFERRY_FUZZ_POISON(address, size) ASAN_POISON_MEMORY_REGION(address, size)
#else
#define LOGFERRY_FUZZ_POISON(address, size) ((void)(address), (void)(size))
#endif

namespace logferry_fuzz {

// Reads the input from the front: integers little-endian, and zeros once it is used up, so
// that every input, however short, decodes to something.
class Reader {
public:
    Reader(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}

    bool empty() const { return at_ >= size_; }
    std::size_t left() const { return at_ < size_ ? size_ - at_ : 0; }

    std::uint8_t u8() { return at_ < size_ ? data_[at_++] : 0; }
    std::uint16_t u16()
    {
        const std::uint16_t low = u8();
        return static_cast<std::uint16_t>(low | (u8() << 8));
    }
    std::uint32_t u32()
    {
        const std::uint32_t low = u16();
        return low | (static_cast<std::uint32_t>(u16()) << 16);
    }
    std::uint64_t u64()
    {
        const std::uint64_t low = u32();
        return low | (static_cast<std::uint64_t>(u32()) << 32);
    }
    // Up to `count` bytes (fewer when the input ends first).
    std::string bytes(std::size_t count)
    {
        const std::size_t taken = count < left() ? count : left();
        std::string out(reinterpret_cast<const char*>(data_ + at_), taken);
        at_ += taken;
        return out;
    }

private:
    const std::uint8_t* data_;
    std::size_t size_;
    std::size_t at_ = 0;
};

/// Operations a model-checking driver takes from one input at the most.
constexpr int MAX_OPERATIONS = 200;

// One input through a harness's model-checking driver: `set_up()`, then `step(byte)` for each
// operation byte of the input.
template <typename Driver, typename State>
int run_driver(State& state, const std::uint8_t* data, std::size_t size)
{
    Reader in(data, size);
    Driver driver(state, in);
    driver.set_up();
    for (int operation = 0; operation < MAX_OPERATIONS && !in.empty(); ++operation) {
        driver.step(in.u8());
    }
    return 0;
}

// The end an operation byte picks: its top bit the daemon's, else the application's.
template <typename State>
logferry::Logferry_base& end_of(State& state, std::uint8_t operation)
{
    return (operation & 0x80) != 0 ? static_cast<logferry::Logferry_base&>(state.daemon)
                                   : static_cast<logferry::Logferry_base&>(state.application);
}

// One object of type T in anonymous private memory, fenced by inaccessible pages: the object
// ends exactly where the upper guard page begins, and the slack in front of it (which the
// object's alignment allows) is poisoned in AddressSanitizer builds. Any access outside the
// object faults. The mapping is made once and kept for the life of the process.
template <typename T>
class Guarded {
public:
    Guarded()
    {
        const std::size_t page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
        const std::size_t inner = (sizeof(T) + page - 1) / page * page;
        void* reserved = ::mmap(nullptr, inner + 2 * page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (reserved == MAP_FAILED) {
            std::fprintf(stderr, "fuzz harness: cannot reserve %zu bytes\n", inner + 2 * page);
            std::abort();
        }
        unsigned char* middle = static_cast<unsigned char*>(reserved) + page;
        if (::mprotect(middle, inner, PROT_READ | PROT_WRITE) != 0) {
            std::fprintf(stderr, "fuzz harness: cannot open the guarded middle\n");
            std::abort();
        }
        const std::size_t slack = inner - sizeof(T);
        if (slack % alignof(T) != 0) {
            std::fprintf(stderr, "fuzz harness: the object cannot end at the guard page\n");
            std::abort();
        }
        LOGFERRY_FUZZ_POISON(middle, slack);
        object_ = reinterpret_cast<T*>(middle + slack);
    }
    Guarded(const Guarded&) = delete;
    Guarded& operator=(const Guarded&) = delete;

    T* get() const { return object_; }
    unsigned char* bytes() const { return reinterpret_cast<unsigned char*>(object_); }

private:
    T* object_ = nullptr;
};

// The real system, except for a monotonic clock (whole seconds) that the harness sets and
// can make fail.
class Clock_system : public logferry::System_lib {
public:
    int clock_gettime(int clock_id, timespec* ts) override
    {
        if (clock_id != CLOCK_MONOTONIC) {
            return System_lib::clock_gettime(clock_id, ts);
        }
        if (clock_fails) {
            errno = EINVAL;
            return -1;
        }
        ts->tv_sec = static_cast<time_t>(now);
        ts->tv_nsec = 0;
        return 0;
    }

    std::int64_t now = 0;
    bool clock_fails = false;
};

// A robust process-shared mutex of the normal kind, set up as the creating end does it.
inline void init_robust_mutex(pthread_mutex_t* mutex)
{
    if (!logferry::init_robust_mutex(mutex)) {
        std::fprintf(stderr, "fuzz harness: cannot set up a mutex\n");
        std::abort();
    }
}

// Collects what is written to `stream` while it lives; the stream's buffer is restored after.
class Captured_stream {
public:
    explicit Captured_stream(std::ostream& stream) : stream_(stream), previous_(stream.rdbuf(buffer_.rdbuf())) {}
    ~Captured_stream() { stream_.rdbuf(previous_); }
    Captured_stream(const Captured_stream&) = delete;
    Captured_stream& operator=(const Captured_stream&) = delete;

    // What was written since the last call.
    std::string take()
    {
        std::string text = buffer_.str();
        buffer_.str(std::string());
        return text;
    }

private:
    std::ostream& stream_;
    std::ostringstream buffer_;
    std::streambuf* previous_;
};

// Collects what the library writes to std::cerr (its diagnostic lines) while it lives; the
// process's standard error descriptor itself is left alone, so sanitizer reports still show.
class Captured_cerr : public Captured_stream {
public:
    Captured_cerr() : Captured_stream(std::cerr) {}
};

// A broken expectation: says what and where on the standard error descriptor, then aborts,
// which both libFuzzer and the test suite report as a failure of the input.
[[noreturn]] inline void violation(const char* harness, const std::string& what)
{
    std::fprintf(stderr, "%s: expectation broken: %s\n", harness, what.c_str());
    std::fflush(stderr);
    std::abort();
}

inline std::string quoted(const std::string& text)
{
    std::string out = "\"";
    for (unsigned char c : text) {
        if (c == '\n') {
            out += "\\n";
        } else if (c < 32 || c > 126) {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02x", c);
            out += hex;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

// A violation unless `condition` holds.
inline void expect(const char* harness, bool condition, const std::string& what)
{
    if (!condition) {
        violation(harness, what);
    }
}

// A violation unless `output` (what an operation wrote) is exactly `expected`.
inline void expect_output(const char* harness, const std::string& output, const std::string& expected,
                          const std::string& what)
{
    if (output != expected) {
        violation(harness, what + " wrote " + quoted(output) + ", expected " + quoted(expected));
    }
}

// A channel segment as its owner leaves it at set-up: zeros, and its three robust mutexes.
inline void reset_channel_segment(logferry::Channel_segment* segment)
{
    std::memset(segment, 0, sizeof(logferry::Channel_segment));
    init_robust_mutex(&segment->priority_mutex.mutex);
    init_robust_mutex(&segment->client_mutex.mutex);
    init_robust_mutex(&segment->server_mutex.mutex);
}

// A driver's checks under its harness's name: a model-checking driver derives from it.
class Harness_checks {
public:
    explicit Harness_checks(const char* harness) : harness_(harness) {}

    void expect(bool condition, const std::string& what) const { logferry_fuzz::expect(harness_, condition, what); }
    void expect_output(const std::string& output, const std::string& expected, const std::string& what) const
    {
        logferry_fuzz::expect_output(harness_, output, expected, what);
    }

private:
    const char* harness_;
};

// What a model-checking driver works on: the harness's state (with the segment's guarded
// mapping), the input, the segment; and its checks under the harness's name.
template <typename State, typename Segment>
class Driver_base : protected Harness_checks {
protected:
    Driver_base(const char* harness, State& state, Reader& in)
        : Harness_checks(harness), state_(state), in_(in), segment_(state.mapping.get())
    {}

    State& state_;
    Reader& in_;
    Segment* segment_;
};

}  // namespace logferry_fuzz

#endif
