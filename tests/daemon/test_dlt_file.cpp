// The DLT storage file: whole entries only, appending, rotation without splitting a message,
// and what the DLT tools read from it.

#include "dlt_file.hpp"
#include "dlt_message.hpp"
#include "support/dlt_tools.hpp"
#include "support/test_util.hpp"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

namespace {

using logferry_test::Dlt_bytes;
using logferry_test::read_file_bytes;
using logferry_test::split_dlt_file;

const char ECU[4] = {'E', 'C', 'U', '1'};

class DltFile : public ::testing::Test {
protected:
    void SetUp() override { path_ = "/tmp/lf-dlt-" + logferry_test::unique_id("", 60) + ".dlt"; }
    void TearDown() override
    {
        for (unsigned i = 0; i < 8; ++i) {
            std::remove(name(i).c_str());
        }
    }
    std::string name(unsigned index) const { return index == 0 ? path_ : path_ + "." + std::to_string(index); }
    bool exists(unsigned index) const
    {
        struct stat st {};
        return ::stat(name(index).c_str(), &st) == 0;
    }

    std::string path_;
};

// A message of `size` bytes that says its own length and carries `tag` in every other byte.
Dlt_bytes fake_message(std::size_t size, unsigned char tag)
{
    Dlt_bytes m(size, tag);
    m[0] = 0x3D;
    m[2] = static_cast<unsigned char>(size >> 8);
    m[3] = static_cast<unsigned char>(size);
    return m;
}

TEST_F(DltFile, EachEntryIsTheStorageHeaderAndTheMessage)
{
    logferry_dlt::File_writer writer;
    ASSERT_TRUE(writer.open(path_, 0, 1)) << writer.error;
    const Dlt_bytes a = fake_message(6, 0xAA);
    const Dlt_bytes b = fake_message(5, 0xBB);
    ASSERT_TRUE(writer.write(a.data(), a.size(), 0x01020304, 0x00050607, ECU));
    ASSERT_TRUE(writer.write(b.data(), b.size(), 7, 8, ECU));
    ASSERT_TRUE(writer.flush());
    const Dlt_bytes expected = {'D',  'L', 'T', 0x01, 0x04, 0x03, 0x02, 0x01, 0x07, 0x06, 0x05,
                                0x00, 'E', 'C', 'U',  '1',  0x3D, 0xAA, 0x00, 0x06, 0xAA, 0xAA,
                                'D',  'L', 'T', 0x01, 0x07, 0x00, 0x00, 0x00, 0x08, 0x00, 0x00,
                                0x00, 'E', 'C', 'U',  '1',  0x3D, 0xBB, 0x00, 0x05, 0xBB};
    EXPECT_EQ(read_file_bytes(path_), expected);
}

TEST_F(DltFile, EntriesAreBufferedUntilFlushAndCloseFlushes)
{
    logferry_dlt::File_writer writer;
    ASSERT_TRUE(writer.open(path_, 0, 1));
    const Dlt_bytes m = fake_message(100, 1);
    ASSERT_TRUE(writer.write(m.data(), m.size(), 1, 2, ECU));
    EXPECT_EQ(read_file_bytes(path_).size(), 0u);
    writer.close();
    EXPECT_FALSE(writer.is_open());
    EXPECT_EQ(read_file_bytes(path_).size(), 116u);
}

TEST_F(DltFile, AnExistingFileIsAppendedTo)
{
    const Dlt_bytes m = fake_message(10, 2);
    for (int round = 0; round < 2; ++round) {
        logferry_dlt::File_writer writer;
        ASSERT_TRUE(writer.open(path_, 0, 1));
        ASSERT_TRUE(writer.write(m.data(), m.size(), 1, 2, ECU));
    }
    bool complete = false;
    EXPECT_EQ(split_dlt_file(read_file_bytes(path_), &complete), (std::vector<Dlt_bytes>{m, m}));
    EXPECT_TRUE(complete);
}

TEST_F(DltFile, TheFileHoldsOnlyWholeEntriesAfterEveryBufferedWrite)
{
    // Entries of odd sizes, enough to pass the buffer's threshold several times.
    logferry_dlt::File_writer writer;
    ASSERT_TRUE(writer.open(path_, 0, 1));
    std::size_t written = 0;
    for (std::size_t i = 0; i < 3000; ++i) {
        const Dlt_bytes m = fake_message(20 + (i * 37) % 401, static_cast<unsigned char>(i));
        ASSERT_TRUE(writer.write(m.data(), m.size(), 1, 2, ECU));
        struct stat st {};
        ASSERT_EQ(::stat(path_.c_str(), &st), 0);
        if (static_cast<std::size_t>(st.st_size) != written) {
            const Dlt_bytes now = read_file_bytes(path_);
            bool complete = false;
            const auto messages = split_dlt_file(now, &complete);
            ASSERT_TRUE(complete) << "after entry " << i;
            written = now.size();
            ASSERT_EQ(messages.back(), m) << "the file ends with the entry just written";
        }
    }
    EXPECT_GT(written, 0u) << "the threshold flushed at least once";
    writer.close();
    bool complete = false;
    EXPECT_EQ(split_dlt_file(read_file_bytes(path_), &complete).size(), 3000u);
    EXPECT_TRUE(complete);
}

TEST_F(DltFile, RotationKeepsEveryMessageWholeInExactlyOneFile)
{
    logferry_dlt::File_writer writer;
    const std::size_t entry = 16 + 100;
    ASSERT_TRUE(writer.open(path_, 3 * entry + 50, 5));  // three entries fit, a fourth does not
    std::vector<Dlt_bytes> sent;
    for (unsigned i = 0; i < 10; ++i) {
        sent.push_back(fake_message(100, static_cast<unsigned char>(i)));
        ASSERT_TRUE(writer.write(sent.back().data(), 100, i, 0, ECU)) << writer.error;
    }
    writer.close();
    // Oldest in the highest number: PATH.3 holds 0-2, PATH.2 3-5, PATH.1 6-8, PATH the last.
    std::vector<Dlt_bytes> read;
    for (unsigned index = 4; index-- > 0;) {
        ASSERT_TRUE(exists(index)) << name(index);
        bool complete = false;
        const auto messages = split_dlt_file(read_file_bytes(name(index)), &complete);
        EXPECT_TRUE(complete) << name(index);
        EXPECT_EQ(messages.size(), index == 0 ? 1u : 3u) << name(index);
        read.insert(read.end(), messages.begin(), messages.end());
    }
    EXPECT_FALSE(exists(4));
    EXPECT_EQ(read, sent);
}

TEST_F(DltFile, RotationDropsTheOldestFileBeyondTheCount)
{
    logferry_dlt::File_writer writer;
    ASSERT_TRUE(writer.open(path_, 2 * (16 + 50), 2));  // two entries per file, PATH and PATH.1
    for (unsigned i = 0; i < 7; ++i) {
        const Dlt_bytes m = fake_message(50, static_cast<unsigned char>(i));
        ASSERT_TRUE(writer.write(m.data(), m.size(), i, 0, ECU));
    }
    writer.close();
    EXPECT_FALSE(exists(2));
    EXPECT_EQ(split_dlt_file(read_file_bytes(name(1))),
              (std::vector<Dlt_bytes>{fake_message(50, 4), fake_message(50, 5)}));
    EXPECT_EQ(split_dlt_file(read_file_bytes(name(0))), (std::vector<Dlt_bytes>{fake_message(50, 6)}));
}

TEST_F(DltFile, AMessageLargerThanTheLimitGetsAFileOfItsOwn)
{
    logferry_dlt::File_writer writer;
    ASSERT_TRUE(writer.open(path_, 64, 4));
    const Dlt_bytes small = fake_message(10, 1);
    const Dlt_bytes big = fake_message(200, 2);
    ASSERT_TRUE(writer.write(small.data(), small.size(), 0, 0, ECU));
    ASSERT_TRUE(writer.write(big.data(), big.size(), 0, 0, ECU));
    ASSERT_TRUE(writer.write(small.data(), small.size(), 0, 0, ECU));
    writer.close();
    EXPECT_EQ(split_dlt_file(read_file_bytes(name(2))), (std::vector<Dlt_bytes>{small}));
    EXPECT_EQ(split_dlt_file(read_file_bytes(name(1))), (std::vector<Dlt_bytes>{big}));
    EXPECT_EQ(split_dlt_file(read_file_bytes(name(0))), (std::vector<Dlt_bytes>{small}));
}

TEST_F(DltFile, FailuresAreReportedInOneLine)
{
    logferry_dlt::File_writer writer;
    EXPECT_FALSE(writer.open("/nonexistent-dir/x.dlt", 0, 1));
    EXPECT_EQ(writer.error, "cannot open /nonexistent-dir/x.dlt: No such file or directory");
    const Dlt_bytes m = fake_message(10, 1);
    EXPECT_FALSE(writer.write(m.data(), m.size(), 0, 0, ECU));
    EXPECT_EQ(writer.error, "the DLT file is not open");
}

// dlt-convert (an external client) reads the file and shows every message and argument.
TEST_F(DltFile, DltConvertShowsEveryArgumentAsExpected)
{
    const std::string convert = logferry_test::find_program("dlt-convert");
    if (convert.empty()) {
        GTEST_SKIP() << "dlt-convert is not installed (Debian package dlt-tools; scripts/install-deps.sh installs it)";
    }
    {
        logferry_dlt::File_writer writer;
        ASSERT_TRUE(writer.open(path_, 0, 1));
        for (const Dlt_bytes& m : logferry_test::sample_dlt_messages()) {
            ASSERT_TRUE(writer.write(m.data(), m.size(), 1700000000, 123456, ECU));
        }
    }
    const std::string expected =
        "0 <time>       1000 000 ECU1 APP1 CTX1 log info V 5 [1 -5 -300 123456 -1234567890123]\n"
        "1 <time>       2000 001 ECU1 APP1 CTX2 log error V 8 [200 0xbeef 0xdeadbeef 0b1010 0101 0b0000 0001 0000 "
        "0010 0x00000005 8 42]\n"
        "2 <time>       3000 002 ECU1 APP1 CTX1 log verbose V 4 [1.5 -2.25 hello world 01'02'ff]\n"
        "3 <time>       4000 003 ECU1 APP1 RAW- log debug V 2 [ca'fe 10'20'30]\n"
        "4 <time>       5000 004 ECU1 APP1 CTX2 log fatal V 3 [42 hello world 0x00c0ffee]\n";
    EXPECT_EQ(logferry_test::mask_dlt_times(logferry_test::run_command(convert + " -a " + path_)), expected);
}

}  // namespace
