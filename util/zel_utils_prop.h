/*
 * System property access.
 */
#pragma once

#include <string>

#include "debug/zel_debug.h"

namespace zel {
namespace util {

class PropertyHandler {
  public:
    // Appends the value of property `key` (empty when unset) to `value`: 0, or 1 when the
    // property cannot be read.
    static ZelReturn get_environment_property_string(const char* key, std::string& value);
};

}  // namespace util
}  // namespace zel
