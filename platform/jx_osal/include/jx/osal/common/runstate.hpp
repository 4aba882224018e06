#ifndef JX_OSAL_COMMON_RUNSTATE_HPP
#define JX_OSAL_COMMON_RUNSTATE_HPP

#include <string>

namespace jx::osal::common {

// The platform's run-state directory, without a trailing separator.
__attribute__((visibility("default"))) std::string get_full_adaptive_runstate_dir();

}  // namespace jx::osal::common

#endif
