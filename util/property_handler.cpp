/*
 * System property access.
 */
#include <cutils/properties.h>

#include "util/zel_utils_prop.h"

namespace zel {
namespace util {

using namespace zel::debug;

ZelReturn PropertyHandler::get_environment_property_string(const char* key, std::string& value) {
    // Larger than any property value, so the read is never cut.
    char buffer[256] = {};
    const int length = property_get(key, buffer, nullptr);
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  property length : %d, value : %s\n", length, buffer);
    if (length < 0) return 1;
    value.append(buffer);
    return 0;
}

}  // namespace util
}  // namespace zel
