#include "dlt_file.hpp"

#include "dlt_message.hpp"
#include "tuning.hpp"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace logferry_dlt {

namespace {

std::string numbered(const std::string& path, unsigned index)
{
    return index == 0 ? path : path + "." + std::to_string(index);
}

}  // namespace

File_writer::~File_writer() { close(); }

bool File_writer::open(const std::string& path, std::uint64_t limit_bytes, unsigned max_files)
{
    close();
    path_ = path;
    limit_ = limit_bytes;
    max_files_ = max_files == 0 ? 1 : max_files;
    fd_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0660);
    if (fd_ < 0) {
        error = "cannot open " + path + ": " + std::strerror(errno);
        return false;
    }
    struct stat st {};
    file_size_ = ::fstat(fd_, &st) == 0 ? static_cast<std::uint64_t>(st.st_size) : 0;
    buffer_.clear();
    buffer_.reserve(logferry_tuning::FILE_FLUSH_THRESHOLD + 64 * 1024);
    return true;
}

bool File_writer::write(const unsigned char* message, std::size_t size, std::uint32_t seconds,
                        std::int32_t microseconds, const char ecu[4])
{
    if (fd_ < 0) {
        error = "the DLT file is not open";
        return false;
    }
    const std::size_t entry = STORAGE_HEADER_SIZE + size;
    if (limit_ != 0 && file_size_ != 0 && file_size_ + entry > limit_) {
        // The entry goes whole into the next file: what is buffered belongs to this one.
        if (!flush() || !rotate()) {
            return false;
        }
    }
    unsigned char header[STORAGE_HEADER_SIZE];
    put_storage_header(header, seconds, microseconds, ecu);
    buffer_.insert(buffer_.end(), header, header + STORAGE_HEADER_SIZE);
    buffer_.insert(buffer_.end(), message, message + size);
    file_size_ += entry;
    if (buffer_.size() >= logferry_tuning::FILE_FLUSH_THRESHOLD) {
        return flush();
    }
    return true;
}

bool File_writer::flush()
{
    if (fd_ < 0) {
        return buffer_.empty();
    }
    const bool ok = write_all(buffer_.data(), buffer_.size());
    buffer_.clear();
    return ok;
}

bool File_writer::write_all(const unsigned char* data, std::size_t size)
{
    std::size_t done = 0;
    while (done < size) {
        const ssize_t n = ::write(fd_, data + done, size - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            error = "cannot write " + path_ + ": " + std::strerror(n < 0 ? errno : EIO);
            // Cut back to the last whole entry: what is in the file ends where the buffer began.
            if (done != 0) {
                const off_t end = ::lseek(fd_, 0, SEEK_END);
                if (end >= static_cast<off_t>(done)) {
                    (void)::ftruncate(fd_, end - static_cast<off_t>(done));
                }
            }
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    return true;
}

bool File_writer::rotate()
{
    ::close(fd_);
    fd_ = -1;
    if (max_files_ > 1) {
        for (unsigned i = max_files_ - 1; i > 0; --i) {
            const std::string from = numbered(path_, i - 1);
            if (std::rename(from.c_str(), numbered(path_, i).c_str()) != 0 && errno != ENOENT) {
                error = "cannot rename " + from + ": " + std::strerror(errno);
            }
        }
    }
    fd_ = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0660);
    if (fd_ < 0) {
        error = "cannot open " + path_ + ": " + std::strerror(errno);
        return false;
    }
    file_size_ = 0;
    return true;
}

void File_writer::close()
{
    if (fd_ >= 0) {
        flush();
        ::close(fd_);
        fd_ = -1;
    }
    buffer_.clear();
}

}  // namespace logferry_dlt
