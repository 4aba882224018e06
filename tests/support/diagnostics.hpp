#ifndef LOGFERRY_TEST_DIAGNOSTICS_HPP
#define LOGFERRY_TEST_DIAGNOSTICS_HPP

// The lines the library writes to the standard error stream, as the tests expect them to the
// byte: "logferry: " first, one line each. One helper per shape of line.

#include <cstring>
#include <string>

namespace logferry_test {

// "logferry: <text>\n".
inline std::string diagnostic(const std::string& text) { return "logferry: " + text + "\n"; }

// "logferry: <text>: <the system's text for error>\n": a failed call and its errno.
inline std::string diagnostic(const std::string& text, int error)
{
    return diagnostic(text + ": " + std::strerror(error));
}

// "logferry: error while <action>: <the system's text for error>\n".
inline std::string error_while(const std::string& action, int error)
{
    return diagnostic("error while " + action, error);
}

// "logferry: error setting owner of <name>: <the system's text for error>\n".
inline std::string owner_error(const std::string& name, int error)
{
    return diagnostic("error setting owner of " + name, error);
}

// A record kind refused by a ring, and by the priority area.
inline std::string unknown_kind(int kind) { return diagnostic("unknown message type " + std::to_string(kind)); }
inline std::string not_priority_kind(int kind)
{
    return diagnostic("not a priority message type: " + std::to_string(kind));
}

// "logferry: Application <identifier> buffer full, <count> messages discarded.\n".
inline std::string messages_discarded(const std::string& identifier, unsigned long long count)
{
    return diagnostic("Application " + identifier + " buffer full, " + std::to_string(count) + " messages discarded.");
}

// Lines that carry no variable part.
inline std::string not_initialized() { return diagnostic("shared memory not initialized."); }
inline std::string priority_exceeded() { return diagnostic("Priority buffer exceeded: "); }
inline std::string mutex_init_failed() { return diagnostic("error while initializing the mutex."); }
inline std::string name_too_long() { return diagnostic("shared memory name too long."); }

}  // namespace logferry_test

#endif
