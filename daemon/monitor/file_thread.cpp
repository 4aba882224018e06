#include "file_thread.hpp"

#include <utility>

namespace logferry_monitor {

bool File_thread::open(const std::string& path, std::uint64_t limit_bytes, unsigned max_files)
{
    if (!file_.open(path, limit_bytes, max_files)) {
        error = file_.error;
        return false;
    }
    stopping_ = false;
    writer_ = std::thread([this] { run(); });
    return true;
}

void File_thread::write(const unsigned char* message, std::size_t size, std::uint32_t seconds,
                        std::int32_t microseconds)
{
    current_.bytes.insert(current_.bytes.end(), message, message + size);
    current_.entries.push_back(Entry{current_.bytes.size(), seconds, microseconds});
}

void File_thread::hand_over()
{
    if (current_.entries.empty()) {
        return;
    }
    std::unique_lock<std::mutex> lock(mutex_);
    progress_.wait(lock, [this] { return queued_bytes_ < MAX_QUEUED_BYTES; });
    queued_bytes_ += current_.bytes.size();
    queue_.push_back(std::move(current_));
    if (spare_.empty()) {
        current_ = Batch();
    } else {
        current_ = std::move(spare_.back());
        spare_.pop_back();
    }
    current_.bytes.clear();
    current_.entries.clear();
    wake_.notify_one();
}

void File_thread::run()
{
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        wake_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
        if (queue_.empty()) {
            return;  // stopping, and everything is written
        }
        Batch batch = std::move(queue_.front());
        queue_.pop_front();
        lock.unlock();
        std::size_t begin = 0;
        std::string failure;
        for (const Entry& entry : batch.entries) {
            if (!file_.write(batch.bytes.data() + begin, entry.end - begin, entry.seconds, entry.microseconds, ecu)) {
                failure = file_.error;
            }
            begin = entry.end;
        }
        if (!file_.flush()) {
            failure = file_.error;
        }
        lock.lock();
        queued_bytes_ -= batch.bytes.size();
        spare_.push_back(std::move(batch));
        if (!failure.empty()) {
            writer_error_ = failure;
        }
        progress_.notify_all();
    }
}

void File_thread::close()
{
    if (!writer_.joinable()) {
        return;
    }
    hand_over();
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_one();
    writer_.join();
    file_.flush();
    file_.close();
}

std::string File_thread::take_error()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return std::exchange(writer_error_, std::string());
}

}  // namespace logferry_monitor
