// Stand-in for the platform's OS abstraction library on machines that do not have it.
// The run-state directory is taken from ADAPTIVE_RUNSTATE_DIR when that is set and not
// empty (trailing separators dropped), otherwise it is /run/adaptive.
#include "jx/osal/common/runstate.hpp"

#include <cstdlib>

namespace jx::osal::common {

std::string get_full_adaptive_runstate_dir()
{
    const char* env = std::getenv("ADAPTIVE_RUNSTATE_DIR");
    if (env == nullptr || *env == '\0') {
        return "/run/adaptive";
    }
    std::string dir(env);
    while (dir.size() > 1 && dir.back() == '/') {
        dir.pop_back();
    }
    return dir;
}

}  // namespace jx::osal::common
