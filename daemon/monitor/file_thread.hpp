// A DLT storage file written by a thread of its own, so that a write that the kernel holds
// up (page-cache writeback) never keeps the collector from draining the rings.
//
// The collector's thread appends entries to a batch; `hand_over` (at the end of each pass)
// queues the batch for the writer thread, which writes its entries through a File_writer
// (storage headers, rotation, whole entries only) and flushes. Batches are recycled, so
// steady state allocates nothing. When more than MAX_QUEUED_BYTES wait, `hand_over` waits
// for the writer: the file never loses a message, the rings absorb the delay.

#ifndef LOGFERRY_TOOLS_MONITOR_FILE_THREAD_HPP
#define LOGFERRY_TOOLS_MONITOR_FILE_THREAD_HPP

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "dlt_file.hpp"
#include "tuning.hpp"

namespace logferry_monitor {

class File_thread {
public:
    static constexpr std::size_t MAX_QUEUED_BYTES = logferry_tuning::FILE_MAX_QUEUED_BYTES;

    File_thread() = default;
    ~File_thread() { close(); }
    File_thread(const File_thread&) = delete;
    File_thread& operator=(const File_thread&) = delete;

    /// Opens the file (see File_writer::open) and starts the writer; false with `error`.
    bool open(const std::string& path, std::uint64_t limit_bytes, unsigned max_files);
    bool is_open() const { return writer_.joinable(); }

    /// Adds one message to the current batch.
    void write(const unsigned char* message, std::size_t size, std::uint32_t seconds, std::int32_t microseconds);
    /// Queues the current batch for the writer.
    void hand_over();
    /// Writes everything queued, stops the writer and closes the file.
    void close();
    /// The last failure of the writer, once; empty when there was none.
    std::string take_error();

    char ecu[4] = {};
    std::string error;  // why open failed

private:
    struct Entry {
        std::size_t end;  // where the message ends in the batch's bytes
        std::uint32_t seconds;
        std::int32_t microseconds;
    };
    struct Batch {
        std::vector<unsigned char> bytes;
        std::vector<Entry> entries;
    };

    void run();

    logferry_dlt::File_writer file_;
    Batch current_;
    std::mutex mutex_;
    std::condition_variable wake_;      // the writer: a batch or the stop
    std::condition_variable progress_;  // hand_over: the queue shrank
    std::deque<Batch> queue_;
    std::vector<Batch> spare_;
    std::size_t queued_bytes_ = 0;
    bool stopping_ = false;
    std::string writer_error_;
    std::thread writer_;
};

}  // namespace logferry_monitor

#endif  // LOGFERRY_TOOLS_MONITOR_FILE_THREAD_HPP
