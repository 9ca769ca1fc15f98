/*
 * Which system-on-chip the library runs on, from the system property "ro.hardware", and its two
 * hardware figures from the table of supported chips (kSocTable).
 */
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "debug/zel_debug.h"

namespace zel {
namespace util {

class SocInfo {
  public:
    std::string soc_name;    // table key of the chip, empty until identified
    uint32_t first_figure;   // 0 until identified
    uint32_t second_figure;  // 0 until identified
    std::map<std::string, HwInfo> soc_table;

    // Identifies the chip. On failure logs "* Fail to initialize SOC info." and stays empty.
    SocInfo();

    // Reads "ro.hardware", trims it to its model number and looks it up: 0, or 1 when any step
    // fails (each failure is logged).
    ZelReturn cache_soc_data();
    // Appends the value of "ro.hardware" to `name`: 0, or 1 when it cannot be read.
    ZelReturn get_hw_name(std::string& name);
    // Reduces a hardware name to its model number, the last run of digits ("ab4420x" gives
    // "4420"). "marlowcar9" and "linux" are kept whole. Returns 1 for a name without digits or
    // one that starts with its last run of digits ("4420").
    ZelReturn get_trim_number(std::string& name);
    // Takes the figures of table key `name`: 0, or 1 (silently) when it is not in the table.
    ZelReturn set_soc_data(std::string& name);
};

}  // namespace util
}  // namespace zel
