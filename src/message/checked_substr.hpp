// Substring with the validators' handling of an out-of-range position.

#ifndef LOGFERRY_SRC_MESSAGE_CHECKED_SUBSTR_HPP
#define LOGFERRY_SRC_MESSAGE_CHECKED_SUBSTR_HPP

#include <cstddef>
#include <string>

namespace logferry::detail {

// `text.substr(position, count)`. Should that raise std::out_of_range, writes
// "Out of range error: " with the exception's message and a newline to the standard
// error stream and returns `fallback`. Any other exception ends the program.
std::string checked_substr(const std::string& text, std::size_t position, std::size_t count,
                           const char* fallback) noexcept;

}  // namespace logferry::detail

#endif  // LOGFERRY_SRC_MESSAGE_CHECKED_SUBSTR_HPP
