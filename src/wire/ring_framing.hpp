#ifndef LOGFERRY_WIRE_RING_FRAMING_HPP
#define LOGFERRY_WIRE_RING_FRAMING_HPP

// How records lie in a ring of the channel segment (the rings' places in the segment are
// `Channel_segment`'s client_buffer and server_buffer).
//
//   | prefix lo | prefix hi | n record bytes ... | prefix lo | prefix hi | ...
//
// A record of n bytes occupies n + 2 consecutive bytes: its length as 16 bits, low byte
// first, then the record. Records never wrap; a zero prefix means "no record here". A record
// needs at least three bytes (a prefix and one byte), so no correct end leaves an index closer
// than three bytes to the ring's end.

#include <cstdint>

#include "wire/shared_fields.hpp"

namespace logferry::wire {

/// Bytes of the length prefix in front of every record.
constexpr std::uint32_t LENGTH_PREFIX_SIZE = 2;
/// The fewest bytes a framed record takes: a prefix and one record byte.
constexpr std::uint32_t MIN_FRAME_SIZE = LENGTH_PREFIX_SIZE + 1;
/// The largest record a length prefix can describe.
constexpr std::uint32_t MAX_FRAMED_RECORD_SIZE = 0xFFFF;
static_assert(MAX_FRAMED_RECORD_SIZE == (1U << (8 * LENGTH_PREFIX_SIZE)) - 1, "the largest unit of a ring");

/// Bytes a record of `record_size` bytes takes in the ring.
constexpr std::uint32_t frame_size(std::uint32_t record_size) noexcept { return LENGTH_PREFIX_SIZE + record_size; }

/// The highest position at which a correct end leaves an index in a ring of `capacity` bytes.
constexpr std::uint32_t last_frame_start(std::uint32_t capacity) noexcept { return capacity - MIN_FRAME_SIZE; }

/// The length prefix at `at`, each byte read once; both bytes must lie inside the ring.
inline std::uint32_t load_prefix(const unsigned char* at) noexcept
{
    return static_cast<std::uint32_t>(load_once(at)) | static_cast<std::uint32_t>(load_once(at + 1)) << 8;
}

/// Writes the length prefix of a record of `record_size` bytes at `at`.
inline void store_prefix(unsigned char* at, std::uint32_t record_size) noexcept
{
    at[0] = static_cast<unsigned char>(record_size & 0xFF);
    at[1] = static_cast<unsigned char>((record_size >> 8) & 0xFF);
}

}  // namespace logferry::wire

#endif  // LOGFERRY_WIRE_RING_FRAMING_HPP
