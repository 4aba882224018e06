// Every input kept from fuzzing (fuzz/regressions/<harness>/) and every seed
// (fuzz/corpus/<harness>/), replayed through the fuzz harnesses themselves, so that the
// normal and sanitizer builds of the suite re-run them.
//
// The harness sources are compiled into this program with their libFuzzer entry point
// renamed to <harness>_entry (see tests/CMakeLists.txt). A harness that finds a broken
// expectation prints it and aborts, which fails the test case of that harness.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

extern "C" int fuzz_channel_rings_entry(const std::uint8_t* data, std::size_t size);
extern "C" int fuzz_channel_priority_entry(const std::uint8_t* data, std::size_t size);
extern "C" int fuzz_channel_liveness_entry(const std::uint8_t* data, std::size_t size);
extern "C" int fuzz_listener_entry(const std::uint8_t* data, std::size_t size);
extern "C" int fuzz_deserialize_entry(const std::uint8_t* data, std::size_t size);
extern "C" int fuzz_daemon_message_entry(const std::uint8_t* data, std::size_t size);
extern "C" int fuzz_decoder_entry(const std::uint8_t* data, std::size_t size);
extern "C" int fuzz_dlt_encoder_entry(const std::uint8_t* data, std::size_t size);
extern "C" int fuzz_dlt_control_entry(const std::uint8_t* data, std::size_t size);

namespace {

using Entry = int (*)(const std::uint8_t*, std::size_t);

// The regular files of a directory, sorted; none when it does not exist.
std::vector<std::string> files_in(const std::string& directory)
{
    std::vector<std::string> files;
    DIR* dir = ::opendir(directory.c_str());
    if (dir == nullptr) {
        return files;
    }
    while (const dirent* entry = ::readdir(dir)) {
        const std::string path = directory + "/" + entry->d_name;
        struct stat info {};
        if (entry->d_name[0] != '.' && ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode)) {
            files.push_back(path);
        }
    }
    ::closedir(dir);
    std::sort(files.begin(), files.end());
    return files;
}

std::vector<std::uint8_t> contents(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::vector<std::uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Runs every kept input and every seed of `harness`; returns how many ran.
std::size_t replay(const std::string& harness, Entry entry)
{
    const std::string root = LOGFERRY_FUZZ_DIR;
    std::vector<std::string> inputs = files_in(root + "/regressions/" + harness);
    const std::vector<std::string> seeds = files_in(root + "/corpus/" + harness);
    EXPECT_FALSE(seeds.empty()) << "no seed corpus in " << root << "/corpus/" << harness;
    inputs.insert(inputs.end(), seeds.begin(), seeds.end());
    for (const std::string& path : inputs) {
        SCOPED_TRACE(path);
        // Named before it runs: a harness that aborts leaves this as the last line.
        std::printf("replaying %s\n", path.c_str());
        std::fflush(stdout);
        const std::vector<std::uint8_t> data = contents(path);
        EXPECT_EQ(entry(data.data(), data.size()), 0);
    }
    return inputs.size();
}

}  // namespace

TEST(FuzzRegressions, ChannelRings) { EXPECT_GT(replay("fuzz_channel_rings", fuzz_channel_rings_entry), 0u); }

TEST(FuzzRegressions, ChannelPriority) { EXPECT_GT(replay("fuzz_channel_priority", fuzz_channel_priority_entry), 0u); }

TEST(FuzzRegressions, ChannelLiveness) { EXPECT_GT(replay("fuzz_channel_liveness", fuzz_channel_liveness_entry), 0u); }

TEST(FuzzRegressions, Listener) { EXPECT_GT(replay("fuzz_listener", fuzz_listener_entry), 0u); }

TEST(FuzzRegressions, Deserialize) { EXPECT_GT(replay("fuzz_deserialize", fuzz_deserialize_entry), 0u); }

TEST(FuzzRegressions, DaemonMessage) { EXPECT_GT(replay("fuzz_daemon_message", fuzz_daemon_message_entry), 0u); }

TEST(FuzzRegressions, Decoder) { EXPECT_GT(replay("fuzz_decoder", fuzz_decoder_entry), 0u); }

TEST(FuzzRegressions, DltEncoder) { EXPECT_GT(replay("fuzz_dlt_encoder", fuzz_dlt_encoder_entry), 0u); }

TEST(FuzzRegressions, DltControl) { EXPECT_GT(replay("fuzz_dlt_control", fuzz_dlt_control_entry), 0u); }
