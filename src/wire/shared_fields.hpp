#ifndef LOGFERRY_WIRE_SHARED_FIELDS_HPP
#define LOGFERRY_WIRE_SHARED_FIELDS_HPP

// Access to the fields of a shared segment that another process writes: the one set of
// atomic helpers for the channel and listener segments, used by both ends and by the
// daemon-side tools.
//
// - The fields the two ends read and write without a lock (the watchdogs, the gate byte)
//   are accessed sequentially consistent: atomic_load_i64/atomic_store_i64 and
//   atomic_load_u8/atomic_store_u8.
// - The fields and bytes guarded by a segment mutex (ring indexes, length prefixes, the
//   priority area's size, the listener list's indexes) are read and written with
//   load_once/store_once: relaxed, so that the value is fetched exactly once whatever the
//   peer does meanwhile (ordering comes from the mutex), and a check of the local copy holds
//   for every later use.

#include <cstdint>
#include <type_traits>

namespace logferry {

template <typename T>
inline T load_once(const T* field) noexcept
{
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-vararg): a builtin, taken for a vararg call in a template
    return __atomic_load_n(field, __ATOMIC_RELAXED);
}

template <typename T>
// NOLINTNEXTLINE(readability-non-const-parameter): __atomic_store_n writes through `field`
inline void store_once(T* field, typename std::common_type<T>::type value) noexcept
{
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-vararg): a builtin, taken for a vararg call in a template
    __atomic_store_n(field, value, __ATOMIC_RELAXED);
}

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

#endif  // LOGFERRY_WIRE_SHARED_FIELDS_HPP
