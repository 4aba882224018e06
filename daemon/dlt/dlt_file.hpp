// DLT storage file: each entry is a storage header followed by one DLT message.

#ifndef LOGFERRY_TOOLS_DLT_FILE_HPP
#define LOGFERRY_TOOLS_DLT_FILE_HPP

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace logferry_dlt {

class File_writer {  // buffered, rotating; only whole entries ever reach the file
public:
    File_writer() = default;
    File_writer(const File_writer&) = delete;
    File_writer& operator=(const File_writer&) = delete;
    ~File_writer();

    // limit 0: no rotation; else PATH, PATH.1 ... PATH.<max_files-1>; a message never straddles
    // two files. Appends to an existing PATH.
    bool open(const std::string& path, std::uint64_t limit_bytes, unsigned max_files);
    bool write(const unsigned char* message, std::size_t size, std::uint32_t seconds, std::int32_t microseconds,
               const char ecu[4]);
    bool flush();  // only whole entries ever reach the file
    void close();
    bool is_open() const { return fd_ >= 0; }
    std::string error;  // the last failure, one line

private:
    bool rotate();
    bool write_all(const unsigned char* data, std::size_t size);

    int fd_ = -1;
    std::string path_;
    std::uint64_t limit_ = 0;
    unsigned max_files_ = 1;
    std::uint64_t file_size_ = 0;  // bytes in the current file, including the buffered ones
    std::vector<unsigned char> buffer_;
};

}  // namespace logferry_dlt

#endif
