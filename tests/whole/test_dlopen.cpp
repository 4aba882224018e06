// The shared library loaded late with dlopen, as a plug-in of an application would load it.
// Its log-stream hot path keeps a thread-local spare node in static TLS (initial-exec); the
// loader must find room for it, and the streams must work from the loading thread and from
// another one. This program does not link the library: everything is looked up by name.
#include <dlfcn.h>

#include <cstdint>
#include <thread>
#include <unordered_map>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Bytes = std::vector<unsigned char>;
using Streams = std::unordered_map<std::uint32_t, Bytes>;
using Log_int32 = void (*)(std::uint32_t, std::int32_t);
using Log_finish = void (*)(std::uint32_t);

struct Loaded {
    void* library = nullptr;
    Log_int32 log_int32 = nullptr;
    Log_finish log_finish = nullptr;
    Streams* streams = nullptr;
};

Loaded load()
{
    Loaded loaded;
    loaded.library = ::dlopen(LOGFERRY_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    if (loaded.library == nullptr) {
        ADD_FAILURE() << "dlopen: " << ::dlerror();
        return loaded;
    }
    loaded.log_int32 = reinterpret_cast<Log_int32>(::dlsym(loaded.library, "_ZN8logferry9log_int32Eji"));
    loaded.log_finish = reinterpret_cast<Log_finish>(::dlsym(loaded.library, "_ZN8logferry10log_finishEj"));
    loaded.streams = static_cast<Streams*>(::dlsym(loaded.library, "_ZN8logferry29incomplete_logstream_messagesE"));
    return loaded;
}

// kind 12, stream key, value: little-endian.
Bytes int32_record(std::uint32_t key, std::int32_t value)
{
    const auto v = static_cast<std::uint32_t>(value);
    return Bytes{12,
                 static_cast<unsigned char>(key),
                 static_cast<unsigned char>(key >> 8),
                 static_cast<unsigned char>(key >> 16),
                 static_cast<unsigned char>(key >> 24),
                 static_cast<unsigned char>(v),
                 static_cast<unsigned char>(v >> 8),
                 static_cast<unsigned char>(v >> 16),
                 static_cast<unsigned char>(v >> 24)};
}

}  // namespace

TEST(Dlopen, LogStreamsWorkInALibraryLoadedLate)
{
    const Loaded lib = load();
    ASSERT_NE(lib.library, nullptr);
    ASSERT_NE(lib.log_int32, nullptr);
    ASSERT_NE(lib.log_finish, nullptr);
    ASSERT_NE(lib.streams, nullptr);

    // A record opens its stream; finishing it (the library is not initialised, so the push
    // is refused without a word) leaves this thread's spare node behind, which the next
    // stream is opened on.
    lib.log_int32(5, 7);
    ASSERT_EQ(lib.streams->count(5), 1u);
    EXPECT_EQ(lib.streams->at(5), int32_record(5, 7));
    lib.log_finish(5);
    EXPECT_EQ(lib.streams->count(5), 0u);
    lib.log_int32(6, -2);
    lib.log_int32(6, 3);
    Bytes expected = int32_record(6, -2);
    const Bytes second = int32_record(6, 3);
    expected.insert(expected.end(), second.begin(), second.end());
    ASSERT_EQ(lib.streams->count(6), 1u);
    EXPECT_EQ(lib.streams->at(6), expected);

    // Another thread, with its own spare, leaves its open stream in the same table; the
    // thread's end releases its spare.
    std::thread other([&lib] {
        lib.log_int32(7, 1);
        lib.log_finish(7);
        lib.log_int32(8, 2);
    });
    other.join();
    EXPECT_EQ(lib.streams->count(7), 0u);
    ASSERT_EQ(lib.streams->count(8), 1u);
    EXPECT_EQ(lib.streams->at(8), int32_record(8, 2));
    EXPECT_EQ(lib.streams->size(), 2u);
}
