#ifndef LOGFERRY_TEST_RECORD_BYTES_HPP
#define LOGFERRY_TEST_RECORD_BYTES_HPP

// Building the bytes a test expects (header only: only the tests that link the records
// include it).

#include <initializer_list>

#include "logferry/message.hpp"
#include "support/test_util.hpp"

namespace logferry_test {

// The records as the library's encoder writes them, one after the other.
template <typename... Record>
Bytes bytes_of(const Record&... records)
{
    Bytes bytes;
    const int unused[] = {0, (logferry::serialize(records, bytes), 0)...};
    static_cast<void>(unused);
    return bytes;
}

// The byte strings one after the other.
inline Bytes joined(std::initializer_list<Bytes> parts)
{
    Bytes all;
    for (const Bytes& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

}  // namespace logferry_test

#endif
