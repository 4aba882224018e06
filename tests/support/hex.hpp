#ifndef LOGFERRY_TEST_HEX_HPP
#define LOGFERRY_TEST_HEX_HPP

// Bytes as lower-case hexadecimal, two digits each, as the daemon-side test peer reports them
// and the tests expect them.

#include <string>
#include <vector>

namespace logferry_test {

inline std::string hex_of(const std::vector<unsigned char>& bytes)
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (unsigned char byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

}  // namespace logferry_test

#endif
