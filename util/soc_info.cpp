/*
 * SoC identification from the hardware name in "ro.hardware".
 */
#include "util/zel_soc_info.h"

#include "util/zel_utils_prop.h"

namespace zel {
namespace util {

using namespace zel::debug;

namespace {

const char kHardwareProperty[] = "ro.hardware";
// A hardware name that is a table key as it stands, with no model number to extract.
const char kSocNameMarlowcar9[] = "marlowcar9";

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

}  // namespace

SocInfo::SocInfo() : first_figure(0), second_figure(0), soc_table(kSocTable) {
    if (cache_soc_data() != 0) ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Fail to initialize SOC info.\n");
}

ZelReturn SocInfo::cache_soc_data() {
    std::string name;
    if (PropertyHandler::get_environment_property_string(kHardwareProperty, name) != 0) {
        ZEL_LOG(ZONE_ERR, PRINT_IF_ON, "  Fail to get property from handler\n");
        return 1;
    }
    if (get_trim_number(name) != 0) {
        ZEL_LOG(ZONE_ERR, PRINT_IF_ON, "  Fail to get device model number from hw property\n");
        return 1;
    }
    if (soc_table.find(name) == soc_table.end()) {
        ZEL_LOG(ZONE_ERR, PRINT_IF_ON, "  Fail to find %s in pre-defined SOC list.\n",
                name.c_str());
        return 1;
    }
    return set_soc_data(name);
}

ZelReturn SocInfo::get_hw_name(std::string& name) {
    return PropertyHandler::get_environment_property_string(kHardwareProperty, name);
}

ZelReturn SocInfo::get_trim_number(std::string& name) {
    if (name == kSocNameMarlowcar9 || name == kSocNameLinux) return 0;
    size_t end = name.size();
    while (end > 0 && !is_digit(name[end - 1]))
        --end;
    if (end == 0) return 1;
    size_t begin = end - 1;
    while (begin > 0 && is_digit(name[begin - 1]))
        --begin;
    // A name made of its number alone carries no vendor prefix and is not a hardware name.
    if (begin == 0) return 1;
    name = name.substr(begin, end - begin);
    return 0;
}

ZelReturn SocInfo::set_soc_data(std::string& name) {
    const auto row = soc_table.find(name);
    if (row == soc_table.end()) return 1;
    ZEL_LOG(ZONE_INF, PRINT_ALWAYS, "* Set SOC name as %s\n", name.c_str());
    soc_name = name;
    first_figure = row->second.first_figure;
    second_figure = row->second.second_figure;
    return 0;
}

}  // namespace util
}  // namespace zel
