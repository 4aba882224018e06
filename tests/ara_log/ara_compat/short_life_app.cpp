// An application that lives only a moment: brings logging up, logs N messages at once
// ("short <i>"), writes one byte to the descriptor it was given (so that a test can time its
// end from there) and returns from main.
//   short_life_app <messages> [<descriptor>]
#include <unistd.h>

#include <cstdlib>

#include "ara/log/logging.h"

int main(int argc, char** argv)
{
    const int messages = argc > 1 ? std::atoi(argv[1]) : 100;
    const int told = argc > 2 ? std::atoi(argv[2]) : -1;
    ara::log::InitLogging("SHRT", "short life", ara::log::LogLevel::kInfo, ara::log::LogMode::kRemote);
    const ara::log::Logger& logger = ara::log::CreateLogger("CTXA", "context A", ara::log::LogLevel::kInfo);
    for (int i = 0; i < messages; ++i) {
        logger.LogInfo() << "short" << i;
    }
    if (told >= 0) {
        const char done = 'd';
        (void)::write(told, &done, 1);
    }
    return 0;
}
