/*
 * Numeric environment variables.
 */
#include <cstdlib>

#include "debug/zel_debug.h"

namespace zel {
namespace util {

ZelReturn get_environment_variable_u64(const char* name, uint64_t* value) {
    if (name == nullptr) {
        ZEL_LOG(debug::ZONE_ERR, debug::PRINT_ALWAYS, "* Environment variable name is nullptr\n");
        return 1;
    }
    const char* text = getenv(name);
    if (text == nullptr) return 2;
    const uint64_t parsed = strtoull(text, nullptr, 10);
    if (parsed == 0) return 1;
    if (value == nullptr) {
        ZEL_LOG(debug::ZONE_ERR, debug::PRINT_ALWAYS, "* No place for the value of %s\n", name);
        return 1;
    }
    *value = parsed;
    return 0;
}

}  // namespace util
}  // namespace zel
