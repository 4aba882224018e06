// Small byte writers and readers shared by the DLT encoder, the control messages and the
// tests' expectations: little- and big-endian integers at a pointer.

#ifndef LOGFERRY_TOOLS_DLT_BYTES_HPP
#define LOGFERRY_TOOLS_DLT_BYTES_HPP

#include <cstddef>
#include <cstdint>

namespace logferry_dlt {

inline void put_le(unsigned char* out, std::uint64_t value, std::size_t bytes) noexcept
{
    for (std::size_t i = 0; i < bytes; ++i) {
        out[i] = static_cast<unsigned char>(value >> (8 * i));
    }
}

inline void put_be(unsigned char* out, std::uint64_t value, std::size_t bytes) noexcept
{
    for (std::size_t i = 0; i < bytes; ++i) {
        out[i] = static_cast<unsigned char>(value >> (8 * (bytes - 1 - i)));
    }
}

inline std::uint64_t get_le(const unsigned char* in, std::size_t bytes) noexcept
{
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < bytes; ++i) {
        value |= static_cast<std::uint64_t>(in[i]) << (8 * i);
    }
    return value;
}

inline std::uint64_t get_be(const unsigned char* in, std::size_t bytes) noexcept
{
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < bytes; ++i) {
        value = (value << 8) | in[i];
    }
    return value;
}

}  // namespace logferry_dlt

#endif
