// The receiver thread: the library's one background loop. For now it only idles until
// it is asked to finish.
#include <iostream>

#include "logferry/client.hpp"
#include "logferry/system.hpp"

namespace logferry {

namespace {
constexpr unsigned int TICK_MS = 50;
}  // namespace

void receiver_thread()
{
    try {
        while (!terminate_receiver_thread) {
            sys->sleep_for_milliseconds(TICK_MS);
        }
    } catch (...) {
        std::cerr << "logferry: unexpected failure in receiver thread of logferry lib." << std::endl;
    }
}

}  // namespace logferry
