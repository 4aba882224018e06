#ifndef LOGFERRY_SEGMENT_ACCESS_HPP
#define LOGFERRY_SEGMENT_ACCESS_HPP

// Sequentially consistent access to the plain fields of a shared segment that the two
// ends read and write without a lock (watchdogs, the gate byte).

#include <cstdint>

namespace logferry {

inline std::int64_t atomic_load_i64(const std::int64_t* field) { return __atomic_load_n(field, __ATOMIC_SEQ_CST); }
// NOLINTNEXTLINE(readability-non-const-parameter): __atomic_store_n writes through `field`
inline void atomic_store_i64(std::int64_t* field, std::int64_t value)
{
    __atomic_store_n(field, value, __ATOMIC_SEQ_CST);
}
inline std::uint8_t atomic_load_u8(const std::uint8_t* field) { return __atomic_load_n(field, __ATOMIC_SEQ_CST); }
// NOLINTNEXTLINE(readability-non-const-parameter): __atomic_store_n writes through `field`
inline void atomic_store_u8(std::uint8_t* field, std::uint8_t value)
{
    __atomic_store_n(field, value, __ATOMIC_SEQ_CST);
}

}  // namespace logferry

#endif
